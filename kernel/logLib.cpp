// Message logging: callers queue a record, the log task formats it and writes it to every descriptor held.
//
// A record carries the format and its argument words as they are; formatting happens when the record is taken from the
// queue, so the format and whatever its arguments point to must outlive the call. The text goes out in one piece,
// behind a prefix that names the sender. A descriptor that cannot be written is passed over: the log never stops the
// system. A full queue, in contrast, makes callers wait; nothing is lost while the log task lives.
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iterator>

#include "zel/kernel.h"
#include "zel/platform.h"

zelTaskId logTaskId = 0;
zelMsgQId logMsgQId = nullptr;
int logFdFromRlogin = -1;
uint32_t logMsgsLost = 0;

namespace zel::kernel {
namespace {

constexpr int logTaskPriority = 1;
constexpr int logTaskOptions = 2;
constexpr int logTaskStackSize = 5000;
constexpr int mutexOptionsLogLib = ZEL_SEM_DELETE_SAFE;
constexpr std::size_t textBytes = 1200;  // of a message without allocation

struct LogRecord {
    std::uint32_t taskId;
    const char *format;
    char moduleName[20];
    std::uint32_t severity;
    char mnemonic[50];
    intptr_t arguments[6];
};

std::atomic<bool> isStarting{false};
std::atomic<zelSemId> logFdSem{0};

// Guarded by logFdSem.
int logFd[ZEL_LOG_MAX_FDS];
int numLogFds = 0;
int fdSetBefore = -1;

class HeldDescriptors {
public:
    HeldDescriptors() : isHeld_(semTake(logFdSem.load(std::memory_order_acquire), WAIT_FOREVER) == ZEL_OK) {}
    // The give of a delete-safe mutex is where a task leaves that others wait to delete.
    ~HeldDescriptors() noexcept(false) {
        if (isHeld_) semGive(logFdSem.load(std::memory_order_relaxed));
    }
    HeldDescriptors(const HeldDescriptors &) = delete;
    HeldDescriptors &operator=(const HeldDescriptors &) = delete;
    bool isHeld() const { return isHeld_; }

private:
    bool isHeld_;
};

int addDescriptor(int fd) {
    if (numLogFds >= ZEL_LOG_MAX_FDS) return ZEL_ERROR;
    logFd[numLogFds++] = fd;
    return ZEL_OK;
}

int removeDescriptor(int fd) {
    int *const end = logFd + numLogFds;
    int *const found = std::find(logFd, end, fd);
    if (found == end) return ZEL_ERROR;
    std::copy(found + 1, end, found);
    --numLogFds;
    return ZEL_OK;
}

// A descriptor that does not block gets a second to make room; one that stays full loses the rest.
bool hasRoomSoon(int fd) {
    pollfd room{fd, POLLOUT, 0};
    return poll(&room, 1, 1000) == 1;
}

void writeWhole(int fd, const char *text, std::size_t bytes) {
    while (bytes > 0) {
        const ssize_t written = write(fd, text, bytes);
        if (written < 0 && (errno == EINTR || (errno == EAGAIN && hasRoomSoon(fd)))) continue;
        if (written <= 0) return;
        text += written;
        bytes -= static_cast<std::size_t>(written);
    }
}

void writeToDescriptors(const char *text, std::size_t bytes) {
    const HeldDescriptors held;
    if (!held.isHeld()) return;
    for (int i = 0; i < numLogFds; ++i) writeWhole(logFd[i], text, bytes);
}

// The length the whole message has, however much of it fits.
std::size_t formatRecord(const LogRecord &record, char *text, std::size_t size) {
    const int prefix =
        snprintf(text, size, "0x%x %s-%u-%s: ", record.taskId, record.moduleName, record.severity, record.mnemonic);
    const std::size_t used = std::min(static_cast<std::size_t>(prefix), size - 1);
    const intptr_t *a = record.arguments;
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
    const int body = snprintf(text + used, size - used, record.format, a[0], a[1], a[2], a[3], a[4], a[5]);
#pragma GCC diagnostic pop
    return used + static_cast<std::size_t>(std::max(body, 0));
}

// Holds a text of any length; released also when the log task is deleted.
struct HeapText {
    char *text;
    explicit HeapText(std::size_t bytes) : text(static_cast<char *>(zelMC_malloc("logLib", __LINE__, bytes))) {}
    ~HeapText() { zelMC_free("logLib", __LINE__, text); }
    HeapText(const HeapText &) = delete;
    HeapText &operator=(const HeapText &) = delete;
};

void writeRecord(const LogRecord &record) {
    char text[textBytes];
    const std::size_t length = formatRecord(record, text, sizeof text);
    if (length < sizeof text) return writeToDescriptors(text, length);
    const HeapText longText(length + 1);
    if (longText.text == nullptr) return writeToDescriptors(text, sizeof text - 1);
    writeToDescriptors(longText.text, formatRecord(record, longText.text, length + 1));
}

void ignoreBrokenPipes() {
    sigset_t pipeSignal;
    sigemptyset(&pipeSignal);
    sigaddset(&pipeSignal, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &pipeSignal, nullptr);
}

int logTask(intptr_t, intptr_t, intptr_t, intptr_t, intptr_t, intptr_t, intptr_t, intptr_t, intptr_t, intptr_t) {
    ignoreBrokenPipes();
    const zelMsgQId queue = std::atomic_ref(logMsgQId).load(std::memory_order_acquire);
    LogRecord record;
    while (msgQReceive(queue, reinterpret_cast<char *>(&record), sizeof record, WAIT_FOREVER) != ZEL_ERROR) {
        while (logFdSem.load(std::memory_order_acquire) == 0) taskDelay(1);  // logInit creates it after this task
        writeRecord(record);
    }
    return ZEL_OK;
}

void copyName(char *to, std::size_t size, const char *from) {
    if (from != nullptr) memcpy(to, from, strnlen(from, size - 1));
}

int sendRecord(const LogRecord &record) {
    const zelMsgQId queue = std::atomic_ref(logMsgQId).load(std::memory_order_acquire);
    if (msgQSend(queue, reinterpret_cast<const char *>(&record), sizeof record, WAIT_FOREVER, ZEL_MSG_NORMAL) == ZEL_OK)
        return ZEL_LOG_RECORD_RESULT;
    std::atomic_ref(logMsgsLost).fetch_add(1, std::memory_order_relaxed);
    return ZEL_ERROR;
}

// Each step undoes the ones before it when it fails.
int startLogging(int fd, int maxMsgs) {
    const zelMsgQId queue = msgQCreate(maxMsgs, sizeof(LogRecord), ZEL_MSGQ_FIFO);
    if (queue == nullptr) return ZEL_ERROR;
    std::atomic_ref(logMsgQId).store(queue, std::memory_order_release);
    const zelTaskId task =
        taskSpawn("tLogTask", logTaskPriority, logTaskOptions, logTaskStackSize, logTask, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0);
    const zelSemId descriptors = task != ZEL_ERROR ? semMCreate(mutexOptionsLogLib) : 0;
    if (descriptors == 0) {
        const int cause = errno;
        if (task != ZEL_ERROR) taskDeleteForce(task);
        std::atomic_ref(logMsgQId).store(nullptr, std::memory_order_release);
        msgQDelete(queue);
        errno = cause;
        return ZEL_ERROR;
    }
    logFdSem.store(descriptors, std::memory_order_release);
    std::atomic_ref(logTaskId).store(task, std::memory_order_release);
    logFdSet(fd);
    return ZEL_OK;
}

}  // namespace
}  // namespace zel::kernel

using namespace zel::kernel;

int logInit(int fd, int maxMsgs) {
    if (isStarting.exchange(true)) return ZEL_ERROR;
    const bool isStarted = std::atomic_ref(logTaskId).load(std::memory_order_acquire) != 0;
    const int result = isStarted ? ZEL_ERROR : startLogging(fd, maxMsgs);
    isStarting = false;
    return result;
}

int logFdAdd(int fd) {
    const HeldDescriptors held;
    return held.isHeld() ? addDescriptor(fd) : ZEL_ERROR;
}

int logFdDelete(int fd) {
    const HeldDescriptors held;
    return held.isHeld() ? removeDescriptor(fd) : ZEL_ERROR;
}

int logFdSet(int fd) {
    const HeldDescriptors held;
    if (!held.isHeld()) return ZEL_ERROR;
    if (fdSetBefore != -1) removeDescriptor(fdSetBefore);
    if (logFdFromRlogin != -1) removeDescriptor(logFdFromRlogin);
    logFdFromRlogin = -1;
    const int result = addDescriptor(fd);
    fdSetBefore = result == ZEL_OK ? fd : -1;
    return result;
}

int logMsg(const char *format, intptr_t a1, intptr_t a2, intptr_t a3, intptr_t a4, intptr_t a5, intptr_t a6) {
    return zelLogMsg("Zelnet", 1, "GEN_MSG", format, a1, a2, a3, a4, a5, a6);
}

int zelLogMsg(const char *moduleName, uint32_t severity, const char *mnemonic, const char *format, intptr_t a1,
              intptr_t a2, intptr_t a3, intptr_t a4, intptr_t a5, intptr_t a6) {
    LogRecord record{};
    record.taskId = static_cast<uint32_t>(taskIdSelf());
    record.format = format;
    copyName(record.moduleName, sizeof record.moduleName, moduleName);
    record.severity = severity;
    copyName(record.mnemonic, sizeof record.mnemonic, mnemonic);
    const intptr_t arguments[] = {a1, a2, a3, a4, a5, a6};
    std::copy(std::begin(arguments), std::end(arguments), record.arguments);
    return sendRecord(record);
}
