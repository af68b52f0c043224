// Codes of the policy tables in words.
#include <array>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "zel/policy.h"

namespace zel::policy {
namespace {

constexpr std::size_t textBytes = 256;
constexpr char prefix[] = "% Error:";
constexpr std::uint32_t firstCode = 0x39000001, errorCount = 198;

struct ErrorRow {
    std::uint32_t code;
    char text[textBytes];
};

// Row 0 stands for success and is never asked for: its number is below the first code.
#define ACL_ERROR(code, text) ErrorRow{code, text},
constexpr std::array<ErrorRow, errorCount + 1> aclErrTbl = {{
    {0, " No error"},
#include "policy/acl_errors.inc"
}};
#undef ACL_ERROR

constexpr bool isDenseAndOrdered() {
    for (std::uint32_t i = 1; i < aclErrTbl.size(); ++i)
        if (aclErrTbl[i].code != firstCode - 1 + i) return false;
    return true;
}

// Whether a text asks for nothing but strings and numbers, two of them at most, and ends its line.
constexpr bool isSafeFormat(const char *text) {
    std::size_t length = 0;
    int arguments = 0;
    for (; text[length] != 0; ++length) {
        if (text[length] != '%') continue;
        ++length;
        if ((text[length] != 's' && text[length] != 'd') || ++arguments > 2) return false;
    }
    return length > 2 && text[length - 1] + text[length - 2] == '\r' + '\n';
}

constexpr bool formatsAreSafe() {
    for (std::size_t i = 1; i < aclErrTbl.size(); ++i)
        if (!isSafeFormat(aclErrTbl[i].text)) return false;
    return true;
}

static_assert(isDenseAndOrdered());
static_assert(formatsAreSafe());

// The text handed out, one for the whole process.
char rcStr[textBytes];

}  // namespace
}  // namespace zel::policy

using namespace zel::policy;

const char *aclRetCodeToStr(uint32_t code, ...) {
    memset(rcStr, 0, sizeof rcStr);
    if (code < firstCode || code >= firstCode + errorCount) return rcStr;
    char text[textBytes - (sizeof prefix - 1)];
    va_list arguments;
    va_start(arguments, code);
    vsnprintf(text, sizeof text, aclErrTbl[code - (firstCode - 1)].text, arguments);
    va_end(arguments);
    snprintf(rcStr, sizeof rcStr, "%s%s", prefix, text);
    return rcStr;
}
