// Entry of every test program.
#include <gtest/gtest.h>

#include "tests/support/child.h"
#include "tests/support/isolation.h"
#include "zel/platform.h"

// What the sanitizers read instead of their environment variables, when they are in the build.
extern "C" [[gnu::visibility("default")]] const char *__asan_default_options() {
    return "detect_stack_use_after_return=1:allocator_may_return_null=1";
}
extern "C" [[gnu::visibility("default")]] const char *__ubsan_default_options() {
    return "print_stacktrace=1";
}
extern "C" [[gnu::visibility("default")]] const char *__tsan_default_options() {
    return "second_deadlock_stack=1:allocator_may_return_null=1";
}

int main(int argc, char **argv) {
    if (const auto code = zel::test::runChildIfAsked(argc, argv)) return *code;
    zel::test::isolateProcess();
    testing::InitGoogleTest(&argc, argv);
    const int result = RUN_ALL_TESTS();
    zelPlatformUnlinkSegments();
    return result;
}
