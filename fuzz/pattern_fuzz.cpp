// Any bytes as a pattern, up to the first zero or line feed, and the rest as a text: what is not refused compiles when
// the C library says so, and matches when it does.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "tests/policy/patterns.h"

namespace {

void require(bool holds, const std::string &pattern, const std::string &text) {
    if (holds) return;
    fprintf(stderr, "pattern '%s' text '%s'\n", pattern.c_str(), text.c_str());
    abort();
}

void compare(const std::string &pattern, const std::string &text) {
    char why[100];
    if (!zel::policy::checkPattern(pattern.c_str(), why, sizeof why)) return;
    const zel::test::Judged judged(pattern);
    require(bool{judged} == judged.isAccepted(), pattern, judged.why());
    require(!judged || judged.agrees(text), pattern, text);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    const std::string input(reinterpret_cast<const char *>(data), size);
    const std::size_t end = input.find_first_of(std::string("\0\n", 2));
    const std::string text = end == std::string::npos ? "" : input.substr(end + 1);
    compare(input.substr(0, end), text.c_str());
    return 0;
}
