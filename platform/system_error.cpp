// System errors: the last 64 are kept, and each becomes a line on standard error unless its event had one within the
// last second. What was held back is counted on the event's next line.
#include <stdarg.h>
#include <stdio.h>
#include <unistd.h>

#include <algorithm>
#include <array>

#include "base/lock.h"
#include "platform/seam.h"
#include "zel/platform.h"

namespace zel::platform {
namespace {

constexpr std::size_t keptErrors = 64;
constexpr std::uint64_t nanosecondsBetweenLines = nanosecondsPerSecond;

struct Event {
    std::uint32_t number = 0;
    bool isUsed = false;
    std::uint64_t lastLine = 0;
    unsigned heldBack = 0;
};

Mutex errorLock{LockRank::module, "&system_error_lock"};
std::array<zelSysErrRecord, keptErrors> kept;  // a ring: the next goes to keptCount % keptErrors
std::uint64_t keptCount = 0;
std::array<Event, keptErrors> events;

// The event's own row, else the one whose last line is the longest ago.
Event &rowOf(std::uint32_t number) {
    Event *row = &events[0];
    for (Event &event : events) {
        if (event.isUsed && event.number == number) return event;
        if (event.lastLine < row->lastLine) row = &event;
    }
    *row = Event{};
    row->number = number;
    return *row;
}

// Whether the event gets a line now, and how many it did not get before.
bool isLineDue(const zelSysErrRecord &record, unsigned &heldBack) {
    Event &event = rowOf(record.event);
    if (event.isUsed && record.time - event.lastLine < nanosecondsBetweenLines) {
        ++event.heldBack;
        return false;
    }
    heldBack = event.heldBack;
    event.isUsed = true;
    event.lastLine = record.time;
    event.heldBack = 0;
    return true;
}

void writeLine(const zelSysErrRecord &record, unsigned heldBack) {
    char line[512];
    std::size_t length = 0;
    const auto append = [&](const char *format, auto... values) {
        const int more = snprintf(line + length, sizeof line - length, format, values...);
        if (more > 0) length = std::min(length + static_cast<std::size_t>(more), sizeof line - 2);
    };
    append("system error 0x%x slot %d port %d", record.event, record.slot, record.port);
    for (int i = 0; i < record.wordCount; ++i) append(" 0x%lx", static_cast<unsigned long>(record.words[i]));
    if (heldBack != 0) append(" (%u more before)", heldBack);
    line[length++] = '\n';
    // One write, so that lines of several processes do not mix.
    if (write(STDERR_FILENO, line, length) < 0) { /* nobody listens */
    }
}

}  // namespace
}  // namespace zel::platform

using namespace zel;
using namespace zel::platform;

__attribute__((weak)) int zelSysErr(int slot, int port, uint32_t event, int n, ...) {
    zelSysErrRecord record{};
    record.time = now();
    record.event = event;
    record.slot = slot;
    record.port = port;
    record.wordCount = std::clamp(n, 0, static_cast<int>(ZEL_SYSERR_WORDS));
    va_list words;
    va_start(words, n);
    for (int i = 0; i < record.wordCount; ++i) record.words[i] = va_arg(words, intptr_t);
    va_end(words);

    unsigned heldBack = 0;
    bool isDue = false;
    {
        Lock lock(errorLock);
        kept[keptCount++ % keptErrors] = record;
        isDue = isLineDue(record, heldBack);
    }
    if (isDue) writeLine(record, heldBack);
    return 0;
}

int zelSysErrGetLast(zelSysErrRecord *records, int capacity) {
    Lock lock(errorLock);
    const std::uint64_t held = std::min<std::uint64_t>(keptCount, keptErrors);
    const std::uint64_t wanted = std::min<std::uint64_t>(held, capacity > 0 ? static_cast<std::uint64_t>(capacity) : 0);
    for (std::uint64_t i = 0; i < wanted; ++i) records[i] = kept[(keptCount - wanted + i) % keptErrors];
    return static_cast<int>(wanted);
}
