// Entry of every test program.
#include <gtest/gtest.h>

#include "tests/support/child.h"
#include "tests/support/isolation.h"
#include "zel/platform.h"

int main(int argc, char **argv) {
    if (const auto code = zel::test::runChildIfAsked(argc, argv)) return *code;
    zel::test::isolateProcess();
    testing::InitGoogleTest(&argc, argv);
    const int result = RUN_ALL_TESTS();
    zelPlatformUnlinkSegments();
    return result;
}
