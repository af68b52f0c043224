// The print family: one formatter that routes every message to standard output and to the trace history.
//
// A message is put together in a buffer on the stack: time stamp, kind, module and task, then the caller's text.
// Nothing is allocated, and standard output is touched only when local printing is on or tracing is not initialised.
// The time stamp changes once a second, so each thread keeps the last one it formatted.
#include <strings.h>

#include <array>
#include <atomic>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <iterator>
#include <limits>
#include <string_view>

#include "base/lock.h"
#include "kernel/format.h"
#include "kernel/history.h"
#include "kernel/uninterrupted.h"
#include "platform/seam.h"
#include "zel/kernel.h"
#include "zel/platform.h"

uint32_t *moduleTraceFlags = nullptr;
uint8_t g_EnableLocalPrinting = 0;
uint32_t zelHwTraceFlag = 1;

namespace zel::kernel {
namespace {

struct ModuleRow {
    std::uint32_t id;
    const char *name;
};

constexpr ModuleRow modules[] = {
#define MODULE(id, name) {id, name},
#include "kernel/moduleNames.inc"
#undef MODULE
};

constexpr bool isDense() {
    for (std::size_t i = 0; i < std::size(modules); ++i)
        if (modules[i].id != i) return false;
    return true;
}

static_assert(std::size(modules) == ZEL_TRACE_MODULES && isDense());

constexpr std::uint32_t levelTrace = 2;
constexpr std::uint32_t levelError = 3;
constexpr std::uint32_t levelWarning = 4;
constexpr std::uint32_t levelNvram = 5;
constexpr std::uint32_t levelHwEvent = 9;
constexpr std::uint32_t levelHwWarning = 10;
constexpr std::uint32_t levelHwTrace = 11;
constexpr std::uint32_t levelHwError = 12;

// What stands between time stamp and module name; null where a level prints nothing.
constexpr std::array<const char *, 17> kindOfLevel = {
    nullptr,           nullptr,    "",      "****** ERROR ",   "***** WARNING ",  "**** NVRAM_MSG: ",
    "EVT: ",           nullptr,    nullptr, "HW EVT: ",        "##### HW WARN: ", "HW: ",
    "****** HW ERR: ", "HW EVT: ", "HW: ",  "****** HW ERR: ", "##### HW WARN: ",
};

constexpr std::uint32_t notInHistory = 0x80000000u;  // bit of a module's trace word: keep plain traces out
constexpr std::size_t nameBytesCompared = 24;
constexpr const char *processorTag = "CPBLOB";

class TimeStamp {
public:
    std::string_view at(std::int64_t second) {
        if (second != second_) format(second);
        return {text_, length_};
    }

private:
    void format(std::int64_t second) {
        const auto clock = static_cast<time_t>(second);
        tm parts{};
        localtime_r(&clock, &parts);
        const int written = snprintf(text_, sizeof text_, "[%d/%d %d:%d:%d] ", parts.tm_mon + 1, parts.tm_mday,
                                     parts.tm_hour, parts.tm_min, parts.tm_sec);
        length_ = static_cast<std::size_t>(written);
        second_ = second;
    }

    std::int64_t second_ = std::numeric_limits<std::int64_t>::min();
    std::size_t length_ = 0;
    char text_[64] = {};
};

constinit thread_local TimeStamp timeStamp;

// The text of one message: what does not fit is cut, and room for the line end is kept.
class Message {
public:
    static constexpr std::size_t bufferBytes = 1200;
    static constexpr std::size_t maxText = bufferBytes - 3;

    void append(std::string_view part) {
        const std::size_t room = maxText - length_;
        isCut_ |= part.size() > room;
        const std::size_t count = part.size() < room ? part.size() : room;
        memcpy(text_ + length_, part.data(), count);
        length_ += count;
    }

    void appendNumber(int value) {
        char digits[16];
        append({digits, std::to_chars(digits, digits + sizeof digits, value).ptr});
    }

    void appendFormatted(const char *format, va_list args) {
        va_list again;
        va_copy(again, args);
        if (const auto length = formatSimply(text_ + length_, maxText - length_, format, args))
            length_ += *length;
        else
            appendAnyFormat(format, again);
        va_end(again);
    }

    void endLine() {
        memcpy(text_ + length_, "\r\n", 3);
        length_ += 2;
    }
    bool isCut() const { return isCut_; }
    const char *text() const { return text_; }
    std::size_t length() const { return length_; }

private:
    void appendAnyFormat(const char *format, va_list args) {
        const std::size_t room = maxText - length_;
        text_[length_] = '\0';
        const int needed = vsnprintf(text_ + length_, room + 1, format, args);
        isCut_ |= needed > 0 && static_cast<std::size_t>(needed) > room;
        length_ += strnlen(text_ + length_, room);
    }

    char text_[bufferBytes];
    std::size_t length_ = 0;
    bool isCut_ = false;
};

const char *moduleName(std::uint32_t moduleId) {
    const char *name = modules[moduleId].name;
    return name != nullptr ? name : "(null)";
}

const char *callerName() {
    const Tcb *task = currentTaskOrNull();
    return task != nullptr && task->name != nullptr ? task->name : "(null)";
}

void appendHeader(Message &message, const char *kind, std::uint32_t moduleId) {
    message.append(timeStamp.at(platform::seam().wallClock(platform::seam().context)));
    message.append(kind);
    message.append(moduleName(moduleId));
    message.append("-(");
    message.append(callerName());
    message.append("):");
    message.append(processorTag);
    message.append(":");
    message.appendNumber(bcm_stk_get_local_rpm_slotid());
    message.append(": ");
}

void printLocally(const char *text) {
    fputs(text, stdout);
    fflush(stdout);
}

void reportCut(std::uint32_t moduleId) {
    static constexpr const char *banner = "\r\n+++++++++++++++++++++++++++++++++++++++++++++\r\n\r";
    printf("%s%sError: The %s trace string is longer than %d !\r\n%s", banner, "", moduleName(moduleId),
           static_cast<int>(Message::bufferBytes), banner);
}

std::uint32_t *traceFlags() {
    return std::atomic_ref(moduleTraceFlags).load(std::memory_order_acquire);
}

std::uint32_t traceWord(std::uint32_t *flags, std::uint32_t moduleId) {
    return std::atomic_ref(flags[moduleId]).load(std::memory_order_relaxed);
}

void route(const Message &message, std::uint32_t level, std::uint32_t moduleId) {
    if (std::atomic_ref(g_EnableLocalPrinting).load(std::memory_order_relaxed) == 1) printLocally(message.text());
    std::uint32_t *flags = traceFlags();
    if (flags == nullptr) {
        printLocally(message.text());
        return printLocally("ZEL_TRACE or ZEL_ERROR called even before trace init.\r");
    }
    if (level == levelTrace && (traceWord(flags, moduleId) & notInHistory) != 0) return;
    recordInHistory({message.text(), message.length()}, moduleId, level);
}

bool isHardwareTraced() {
    return std::atomic_ref(zelHwTraceFlag).load(std::memory_order_relaxed) != 0;
}

}  // namespace
}  // namespace zel::kernel

using namespace zel::kernel;

int zelTraceInit(void) {
    static uint32_t flags[ZEL_TRACE_MODULES];
    const Uninterrupted uninterrupted;
    attachHistory();
    std::atomic_ref(moduleTraceFlags).store(flags, std::memory_order_release);
    return 0;
}

int zelMsgPrintf(uint32_t level, uint32_t moduleId, const char *format, va_list args) {
    if (level >= kindOfLevel.size() || kindOfLevel[level] == nullptr) return 0;
    const Uninterrupted uninterrupted;
    if (moduleId >= ZEL_TRACE_MODULES) moduleId = 0;
    Message message;
    appendHeader(message, kindOfLevel[level], moduleId);
    message.appendFormatted(format, args);
    if (message.isCut()) reportCut(moduleId);
    message.endLine();
    route(message, level, moduleId);
    return 0;
}

#define ZEL_PRINTER(name, level)                           \
    int name(uint32_t moduleId, const char *format, ...) { \
        va_list args;                                      \
        va_start(args, format);                            \
        zelMsgPrintf(level, moduleId, format, args);       \
        va_end(args);                                      \
        return 0;                                          \
    }
#define ZEL_HARDWARE_PRINTER(name, level)                   \
    void name(uint32_t moduleId, const char *format, ...) { \
        if (!isHardwareTraced()) return;                    \
        va_list args;                                       \
        va_start(args, format);                             \
        zelMsgPrintf(level, moduleId, format, args);        \
        va_end(args);                                       \
    }

ZEL_PRINTER(zelTracePrintf, levelTrace)
ZEL_PRINTER(zelErrorPrintf, levelError)
ZEL_PRINTER(zelWarningPrintf, levelWarning)
ZEL_PRINTER(zelNvramPrintf, levelNvram)
ZEL_HARDWARE_PRINTER(zelHwTracePrintf, levelHwTrace)
ZEL_HARDWARE_PRINTER(zelAllTracePrintf, levelHwTrace)
ZEL_HARDWARE_PRINTER(zelHwErrorPrintf, levelHwError)
ZEL_HARDWARE_PRINTER(zelAllErrorPrintf, levelHwError)
ZEL_HARDWARE_PRINTER(zelHwWarningPrintf, levelHwWarning)
ZEL_HARDWARE_PRINTER(zelAllWarningPrintf, levelHwWarning)
ZEL_HARDWARE_PRINTER(zelHwEventPrintf, levelHwEvent)
ZEL_HARDWARE_PRINTER(zelAllEventPrintf, levelHwEvent)

#undef ZEL_PRINTER
#undef ZEL_HARDWARE_PRINTER

int zelTracePrintStr(uint32_t moduleId, const char *text) {
    char copy[200] = {};
    memcpy(copy, text, strnlen(text, sizeof copy - 1));
    if (char *percent = strchr(copy, '%')) *percent = '!';
    return zelTracePrintf(moduleId, "%s", copy);
}

int zelTracePrintOn(void) {
    std::atomic_ref(g_EnableLocalPrinting).store(1, std::memory_order_relaxed);
    return 1;
}

int zelTracePrintOff(void) {
    std::atomic_ref(g_EnableLocalPrinting).store(0, std::memory_order_relaxed);
    return 0;
}

void zelSetModuleTraceFlag(uint32_t moduleId, uint32_t flags) {
    if (moduleId == 0 || moduleId >= ZEL_TRACE_MODULES) {
        printf("Invalid module id %d \r\n", static_cast<int>(moduleId));
        return;
    }
    uint32_t *words = traceFlags();
    if (words != nullptr) std::atomic_ref(words[moduleId]).store(flags, std::memory_order_relaxed);
}

uint32_t wrap_modtraceflags(uint32_t moduleId) {
    uint32_t *flags = traceFlags();
    if (flags == nullptr || moduleId >= ZEL_TRACE_MODULES) return 0;
    return traceWord(flags, moduleId) & ~notInHistory;
}

uint32_t zelTraceGetModuleIdFromName(const char *name) {
    if (name == nullptr) return 0;
    for (uint32_t id = 1; id < ZEL_TRACE_MODULES; ++id)
        if (modules[id].name != nullptr && strncasecmp(name, modules[id].name, nameBytesCompared) == 0) return id;
    printf("Invalid module.\r\nValid modules: ");
    for (uint32_t id = 1; id < ZEL_TRACE_MODULES; ++id)
        if (modules[id].name != nullptr) printf("%s   ", modules[id].name);
    return 0;
}

void ZELTracePrintHWEnabled(void) {
    printf("True Zelos environment.");
}

int printErr(const char *format, ...) {
    va_list args;
    va_start(args, format);
    const int written = vfprintf(stderr, format, args);
    va_end(args);
    return written;
}
