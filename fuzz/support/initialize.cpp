// Runs before the first input: an IPC address and a memory prefix of the process's own.
#include <cstdlib>

#include "tests/support/isolation.h"
#include "zel/platform.h"

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    setenv("ZEL_REALTIME", "off", 0);
    zel::test::isolateProcess();
    return atexit([] { zelPlatformUnlinkSegments(); });
}
