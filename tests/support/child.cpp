#include "tests/support/child.h"

#include <signal.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iterator>
#include <map>
#include <sstream>

#include "tests/support/eventually.h"
#include "tests/support/isolation.h"

extern char **environ;

namespace zel::test {
namespace {

std::map<std::string, ChildBody> &bodies() {
    static std::map<std::string, ChildBody> all;
    return all;
}

// The words before a program's name on a host that cannot run it by itself.
std::vector<std::string> emulator() {
#ifdef ZEL_TEST_EMULATOR
    std::istringstream text(ZEL_TEST_EMULATOR);
    return {std::istream_iterator<std::string>(text), std::istream_iterator<std::string>()};
#else
    return {};
#endif
}

// Unlinks what test processes left behind that were killed: their segments carry their pids.
void sweepSegments() {
    std::error_code error;
    for (const auto &entry : std::filesystem::directory_iterator("/dev/shm", error)) {
        const std::string name = entry.path().filename();
        int pid = 0;
        if (sscanf(name.c_str(), "zeltest%d-", &pid) == 1 && kill(pid, 0) != 0 && errno == ESRCH)
            shm_unlink(("/" + name).c_str());
    }
}

}  // namespace

ChildRegistration::ChildRegistration(const char *name, ChildBody body) {
    bodies()[name] = body;
}

Child Child::start(const std::string &name, const std::vector<std::string> &args) {
    std::vector<std::string> words = emulator();
    words.push_back(std::filesystem::read_symlink("/proc/self/exe"));
    words.insert(words.end(), {"--child", name});
    words.insert(words.end(), args.begin(), args.end());
    std::vector<char *> argv;
    for (auto &word : words) argv.push_back(word.data());
    argv.push_back(nullptr);
    pid_t pid = -1;
    const int error = posix_spawnp(&pid, argv[0], nullptr, nullptr, argv.data(), environ);
    if (error != 0) {
        fprintf(stderr, "child %s: %s\n", name.c_str(), strerror(error));
        abort();
    }
    return Child(pid);
}

void Child::signal(int number) const {
    if (pid_ > 0) kill(pid_, number);
}

int Child::wait(int seconds) {
    int status = 0;
    const bool ended = eventually(seconds, [&] { return waitpid(pid_, &status, WNOHANG) == pid_; });
    if (!ended) {
        fprintf(stderr, "child %d did not end within %d s\n", static_cast<int>(pid_), seconds);
        kill(pid_, SIGKILL);
        waitpid(pid_, &status, 0);
    }
    pid_ = -1;
    if (!ended) return stillRunning;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 256 + WTERMSIG(status);
}

Child::~Child() {
    if (pid_ <= 0) return;
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
}

std::optional<int> runChildIfAsked(int argc, char **argv) {
    if (argc < 3 || strcmp(argv[1], "--child") != 0) return std::nullopt;
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    const auto body = bodies().find(argv[2]);
    if (body == bodies().end()) return 127;
    return body->second(argc - 3, argv + 3);
}

void isolateProcess() {
    sweepSegments();
    const int pid = static_cast<int>(getpid());
    char text[64];
    snprintf(text, sizeof text, "127.%d.%d.%d", 1 + (pid >> 16) % 250, (pid >> 8) & 255, 1 + (pid & 255) % 254);
    setenv("ZEL_IPC_ADDR", text, 0);
    snprintf(text, sizeof text, "zeltest%d", pid);
    setenv("ZEL_SHM_PREFIX", text, 0);
}

}  // namespace zel::test
