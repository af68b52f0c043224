// Assertions that report and return, and the error number.
//
// The report is handed to the printer as its format: a "%" in the text of an expression is interpreted, "%%" prints
// one. Texts of assertions are written with that in mind, and names that come from outside never stand in them.
#include <cerrno>
#include <cstdarg>
#include <cstdio>

#include "kernel/uninterrupted.h"
#include "zel/kernel.h"
#include "zel/platform.h"

namespace {

constexpr uint32_t moduleSys = 1;
constexpr uint32_t levelError = 3;
constexpr uint32_t eventAssertionFailed = 0x8006;

void printAsFormat(const char *format, ...) {
    va_list args;
    va_start(args, format);
    zelMsgPrintf(levelError, moduleSys, format, args);
    va_end(args);
}

}  // namespace

void _zelAssert(const char *expression, const char *file, int line) {
    const zel::kernel::Uninterrupted uninterrupted;
    zelTaskDesc caller{};
    const bool isTask = taskInfoGet(taskIdSelf(), &caller) == ZEL_OK;
    const char *name = isTask && caller.td_name != nullptr ? caller.td_name : "Unk";
    const auto id = static_cast<uint32_t>(isTask ? caller.td_id : errno);
    char text[256];
    snprintf(text, sizeof text, "%s: *** ASSERTION-FAILED *** Expression '%s' at %s/%d (task id 0x%x).\r\n", name,
             expression, file, line, id);
    zelSysErr(0, 0, eventAssertionFailed, 1, reinterpret_cast<intptr_t>(expression), reinterpret_cast<intptr_t>(file),
              static_cast<intptr_t>(line), static_cast<intptr_t>(id));
    printAsFormat(text);
}

int errnoGet(void) {
    return errno;
}

int errnoSet(int value) {
    errno = value;
    return 0;
}
