// Takes the place of the host's system-error sink, where every assertion arrives.
#include "tests/support/reports.h"

#include <cstdarg>

#include "zel/platform.h"

namespace zel::test {
namespace {

constexpr uint32_t assertionEvent = 0x8006;
int reports = 0;
std::string lastText;

}  // namespace

int reportedAssertions() {
    return reports;
}

std::string lastAssertion() {
    return lastText;
}

}  // namespace zel::test

extern "C" int zelSysErr(int, int, uint32_t event, int n, ...) {
    if (event != zel::test::assertionEvent || n < 1) return 0;
    va_list words;
    va_start(words, n);
    zel::test::lastText = reinterpret_cast<const char *>(va_arg(words, intptr_t));
    va_end(words);
    ++zel::test::reports;
    return 0;
}
