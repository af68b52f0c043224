// The host's process table. A process counts as dead when it has no entry, when its entry is of another start time, and
// when it is a zombie; but a process whose main thread alone has ended looks like a zombie too and lives.
#include "platform/process.h"

#include <ctype.h>
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <atomic>

#include "base/host_check.h"
#include "platform/cancellation.h"

namespace zel::platform {
namespace {

// Names are compared over at most 16 characters; this host keeps 15.
constexpr std::size_t comparedNameBytes = 15;

struct Entry {
    char name[64] = "";
    char state = '?';
    long threads = 0;
    std::uint64_t startTime = 0;

    bool isDead() const { return state == 'X' || state == 'x' || (state == 'Z' && threads <= 1); }
};

enum class Found { yes, no, unreadable };

// Fields are counted behind the last parenthesis, since a name may hold spaces and parentheses itself.
bool parse(char *text, Entry &entry) {
    char *open = strchr(text, '(');
    char *close = strrchr(text, ')');
    if (open == nullptr || close == nullptr || close < open || close[1] == '\0') return false;
    *close = '\0';
    snprintf(entry.name, sizeof entry.name, "%s", open + 1);
    char *rest = close + 1;
    for (int field = 3; field <= 22; ++field) {
        char *word = strtok_r(field == 3 ? rest : nullptr, " ", &rest);
        if (word == nullptr) return false;
        if (field == 3) entry.state = *word;
        if (field == 20) entry.threads = strtol(word, nullptr, 10);
        if (field == 22) entry.startTime = strtoull(word, nullptr, 10);
    }
    return true;
}

Found readEntry(pid_t pid, Entry &entry) {
    char path[40], text[1024];
    snprintf(path, sizeof path, "/proc/%ld/stat", static_cast<long>(pid));
    const int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) return errno == ENOENT ? Found::no : Found::unreadable;
    const ssize_t length = read(fd, text, sizeof text - 1);
    const int error = errno;
    close(fd);
    if (length <= 0) return length < 0 && error == ESRCH ? Found::no : Found::unreadable;
    text[length] = '\0';
    return parse(text, entry) ? Found::yes : Found::unreadable;
}

// The table may hide processes of other users; a signal's permission check still tells that they exist.
bool existsBySignal(pid_t pid) {
    return kill(pid, 0) == 0 || errno == EPERM;
}

// The cache holds one process: the start time first, then the pid that makes it valid.
constinit std::atomic<pid_t> cachedPid{0};
constinit std::atomic<std::uint64_t> cachedStartTime{0};

void renewInChild() {
    pthread_atfork(nullptr, nullptr, [] { cachedPid.store(0, std::memory_order_relaxed); });
}

ProcessId lookUpThisProcess() {
    static pthread_once_t once = PTHREAD_ONCE_INIT;
    pthread_once(&once, renewInChild);
    const ProcessId self = processWithPid(getpid());
    hostCheck(self.pid != 0, "process table entry of this process");
    cachedStartTime.store(self.startTime, std::memory_order_relaxed);
    cachedPid.store(self.pid, std::memory_order_release);
    return self;
}

}  // namespace

ProcessId thisProcess() {
    const pid_t pid = cachedPid.load(std::memory_order_acquire);
    if (pid == 0) return lookUpThisProcess();
    return {pid, cachedStartTime.load(std::memory_order_relaxed)};
}

ProcessId processWithPid(pid_t pid) {
    if (pid <= 0) return {};
    const NoCancellation guard;
    const int savedErrno = errno;
    Entry entry;
    const bool lives = readEntry(pid, entry) == Found::yes && !entry.isDead();
    errno = savedErrno;
    return lives ? ProcessId{pid, entry.startTime} : ProcessId{};
}

bool isAlive(const ProcessId &process) {
    if (process.pid <= 0) return false;
    const NoCancellation guard;
    const int savedErrno = errno;
    Entry entry;
    const bool lives = readEntry(process.pid, entry) == Found::yes
                           ? entry.startTime == process.startTime && !entry.isDead()
                           : existsBySignal(process.pid);
    errno = savedErrno;
    return lives;
}

pid_t findProcessByName(const char *name) {
    const NoCancellation guard;
    const int savedErrno = errno;
    pid_t first = 0;
    DIR *table = opendir("/proc");
    while (const dirent *item = table != nullptr ? readdir(table) : nullptr) {
        const auto pid = static_cast<pid_t>(isdigit(item->d_name[0]) ? atol(item->d_name) : 0);
        if (pid <= 0 || (first != 0 && pid > first)) continue;
        Entry entry;
        if (readEntry(pid, entry) != Found::yes || entry.isDead()) continue;
        if (strncmp(entry.name, name, comparedNameBytes) == 0) first = pid;
    }
    if (table != nullptr) closedir(table);
    errno = savedErrno;
    return first;
}

}  // namespace zel::platform
