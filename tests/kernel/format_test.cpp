#include "kernel/format.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdint>
#include <cstdio>
#include <string>

// Formats are handed through.
#pragma GCC diagnostic ignored "-Wformat-security"

namespace {

constexpr const char *notSimple = "<not simple>";

std::string simply(std::size_t room, const char *format, ...) {
    std::string text(room + 1, '#');
    va_list args;
    va_start(args, format);
    const auto length = zel::kernel::formatSimply(text.data(), room, format, args);
    va_end(args);
    EXPECT_EQ(text[room], '#') << "written past the end by " << format;
    return length ? text.substr(0, *length) : notSimple;
}

template <class... Args>
void expectAsHost(const char *format, Args... args) {
    char expected[400];
    const int length = snprintf(expected, sizeof expected, format, args...);
    ASSERT_GE(length, 0);
    const auto room = static_cast<std::size_t>(length);
    EXPECT_EQ(simply(room, format, args...), expected);
    EXPECT_EQ(simply(room + 20, format, args...), expected);
    if (room > 0) {
        EXPECT_EQ(simply(room - 1, format, args...), notSimple) << format;
    }
}

}  // namespace

TEST(Format, SimpleFormatsReadAsTheHostWritesThem) {
    expectAsHost("");
    expectAsHost("%d|%i|%u|%x", INT_MIN, -7, UINT_MAX, 0xdeadbeefu);
    expectAsHost("%d%d%d", 0, 1, INT_MAX);
    expectAsHost("%ld|%lu|%lx", LONG_MIN, ULONG_MAX, ULONG_MAX);
    expectAsHost("%lld|%llu|%llx", LLONG_MIN, ULLONG_MAX, 0x123456789abcdefULL);
    expectAsHost("%zu|%zd|%zx", SIZE_MAX, ptrdiff_t{-3}, std::size_t{255});
    expectAsHost("%c%s%c%%", 'a', "bcd", 'e');
    EXPECT_EQ(simply(20, "%s", static_cast<const char *>(nullptr)), "(null)");
}

TEST(Format, EverythingElseIsLeftToTheHost) {
    for (const char *format : {"%5d", "%-5d", "%05d", "%+d", "%#x", "%.3d", "%X", "%o", "%p", "%n", "%hd", "%jd", "%*d",
                               "%", "%l", "%z", "%ll", "%lf", "text %"})
        EXPECT_EQ(simply(50, format, 1, 2, 3), notSimple) << format;
    EXPECT_EQ(simply(50, "%.3s", "text"), notSimple);
    EXPECT_EQ(simply(50, "%f", 1.5), notSimple);
    EXPECT_EQ(simply(50, "%c", 0), notSimple) << "a NUL would end the text";
}
