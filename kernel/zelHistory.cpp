// Writing the trace history.
//
// The buffers lie in shared memory at an address of each process's own, so the table of pointers is private. Shared
// lock 4 guards them. Its holder may be killed at any moment: an entry counts only once the index has moved past it,
// and the index is bounded when it is read, so the next writer repairs nothing.
//
// A message that equals the one before it in the same buffer is counted, not recorded again. The time stamp takes part
// in the comparison: repeats are counted within one second only, and the same message a second later stands by itself.
//
// A repeat beyond the first rewrites the entry before the index and leaves the index where it is, yet module and level
// are noted at the index; the next entry overwrites them there.
#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>

#include "base/lock.h"
#include "kernel/history.h"
#include "kernel/uninterrupted.h"
#include "platform/segment.h"
#include "zel/kernel.h"
#include "zel/platform.h"

uint8_t **pTraceHistory = nullptr;
char lastMsg[ZEL_TRACE_BUFFERS][200];  // these two are guarded by the history's lock
uint32_t lastMsgCount[ZEL_TRACE_BUFFERS];

namespace zel::kernel {
namespace {

constexpr std::size_t bufferStride = 624'640;
constexpr std::size_t maxEntryText = HistoryBuffer::textBytes - 3;  // the line end and the NUL have fixed places
constexpr std::size_t comparedBytes = sizeof lastMsg[0] - 1;

static_assert(HistoryBuffer::size == ZEL_TRACE_BUFFER_BYTES);
static_assert(HistoryBuffer::size <= bufferStride);
static_assert(ZEL_TRACE_BUFFERS * bufferStride ==
              platform::sectionBytes[static_cast<std::size_t>(platform::Section::history)]);

struct BufferTable {
    std::uint8_t *buffers[ZEL_TRACE_BUFFERS];
};

BufferTable findBuffers() {
    static std::uint8_t ownBuffers[ZEL_TRACE_BUFFERS * bufferStride];
    auto *base = platform::sysSectionAs<std::uint8_t>(platform::Section::history);
    if (base == nullptr) base = ownBuffers;
    BufferTable table;
    for (std::size_t i = 0; i < ZEL_TRACE_BUFFERS; ++i) table.buffers[i] = base + i * bufferStride;
    return table;
}

// Lock 4; between the threads of this process alone where the shared locks cannot be had.
class HistoryLock {
public:
    HistoryLock() : isShared_(ZEL_ShmLock(ZEL_SHM_LOCK_HISTORY) == 0) {
        if (!isShared_) pthread_mutex_lock(&ownLock);
    }
    ~HistoryLock() {
        if (isShared_)
            ZEL_ShmUnLock(ZEL_SHM_LOCK_HISTORY);
        else
            pthread_mutex_unlock(&ownLock);
    }
    HistoryLock(const HistoryLock &) = delete;
    HistoryLock &operator=(const HistoryLock &) = delete;

private:
    static inline pthread_mutex_t ownLock = PTHREAD_MUTEX_INITIALIZER;
    bool isShared_;
};

// Levels 13 to 16 are other names of hardware levels; as far as the choice of buffer goes they are levels of their own.
std::uint32_t storedLevel(std::uint32_t level) {
    switch (level) {
        case 13:
            return 9;
        case 14:
            return 11;
        case 15:
            return 12;
        case 16:
            return 10;
        default:
            return level;
    }
}

void writeEntry(char *entry, std::string_view text) {
    const std::size_t length = std::min(text.size(), maxEntryText);
    memcpy(entry, text.data(), length);
    memset(entry + length, 0, maxEntryText - length);
    memcpy(entry + maxEntryText, "\r\n", 3);
}

void writeRepeats(char *entry, std::uint32_t count) {
    const int written =
        count == 1 ? snprintf(entry, HistoryBuffer::textBytes, "\t - Repeated 1 time.\r\n")
                   : snprintf(entry, HistoryBuffer::textBytes, "\t - Repeated %d times.\r\n", static_cast<int>(count));
    memset(entry + written, 0, HistoryBuffer::textBytes - static_cast<std::size_t>(written));
}

void advance(std::uint8_t *buffer, std::uint32_t index) {
    const std::uint32_t next = index + 1;
    if (next < HistoryBuffer::entries) return HistoryBuffer::Index::set(buffer, next);
    HistoryBuffer::Wrapped::set(buffer, 1);
    HistoryBuffer::Index::set(buffer, 0);
}

// Writes the entry at the index, or one that says how often the entry before it was repeated.
void write(std::uint8_t *buffer, std::string_view text, std::uint32_t moduleId, std::uint32_t level,
           std::uint32_t repeatCount) {
    std::uint32_t index = HistoryBuffer::Index::get(buffer);
    if (index >= HistoryBuffer::entries) index = 0;
    wire::store(HistoryBuffer::module(buffer, index), moduleId);
    wire::store(HistoryBuffer::level(buffer, index), storedLevel(level));
    if (repeatCount > 1)
        return writeRepeats(HistoryBuffer::text(buffer, index == 0 ? HistoryBuffer::entries - 1 : index - 1),
                            repeatCount);
    if (repeatCount == 0)
        writeEntry(HistoryBuffer::text(buffer, index), text);
    else
        writeRepeats(HistoryBuffer::text(buffer, index), repeatCount);
    advance(buffer, index);
}

// How often the message was repeated so far: 0 when it differs from the one before it.
std::uint32_t countRepeats(std::string_view text, int buffer) {
    char *last = lastMsg[buffer];
    const std::size_t length = std::min(text.size(), comparedBytes);
    if (memcmp(text.data(), last, length) == 0 && last[length] == '\0') return ++lastMsgCount[buffer];
    memcpy(last, text.data(), length);
    last[length] = '\0';
    return lastMsgCount[buffer] = 0;
}

// The buffers' table, attached now when it is not yet; that is reported with the text at hand.
std::uint8_t **buffers(const char *text) {
    std::uint8_t **known = std::atomic_ref(pTraceHistory).load(std::memory_order_acquire);
    if (known != nullptr) return known;
    printf("Trace history is null.. somthing bad.. %s\n", text);
    attachHistory();
    return std::atomic_ref(pTraceHistory).load(std::memory_order_acquire);
}

}  // namespace

void attachHistory() {
    static BufferTable table = findBuffers();
    std::atomic_ref(pTraceHistory).store(table.buffers, std::memory_order_release);
}

void recordInHistory(std::string_view text, std::uint32_t moduleId, std::uint32_t level) {
    const int index = getBufferIndex(level);
    std::uint8_t *buffer = buffers(text.data())[index];
    const HistoryLock lock;
    write(buffer, text, moduleId, level, countRepeats(text, index));
}

}  // namespace zel::kernel

int getBufferIndex(uint32_t level) {
    return level >= 9 && level <= 12 ? 2 : 0;
}

int WriteStringToHistory(const char *text, uint32_t moduleId, uint32_t level, uint32_t repeatCount) {
    const zel::kernel::Uninterrupted uninterrupted;
    uint8_t *buffer = zel::kernel::buffers(text)[getBufferIndex(level)];
    const zel::kernel::HistoryLock lock;
    zel::kernel::write(buffer, text, moduleId, level, repeatCount);
    return 0;
}
