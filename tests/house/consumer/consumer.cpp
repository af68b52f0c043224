// The same from C++.
#include <cstdio>

#include "zel/containers.h"
#include "zel/ipc.h"
#include "zel/kernel.h"
#include "zel/platform.h"
#include "zel/rtm.h"

extern "C" int bcm_stk_get_local_rpm_slotid(void) {
    return 7;
}

namespace {
zelSemId done;

int entry(intptr_t value, intptr_t, intptr_t, intptr_t, intptr_t, intptr_t, intptr_t, intptr_t, intptr_t, intptr_t) {
    zelTracePrintf(0, "seen from C++: %d", static_cast<int>(value));
    return semGive(done);
}
}  // namespace

int main() {
    vx2bsdLibInit();
    done = semBCreate(ZEL_SEM_FIFO, 0);
    if (taskSpawn("tConsumer", 100, 0, 0, entry, 42, 0, 0, 0, 0, 0, 0, 0, 0, 0) == ZEL_ERROR) return 1;
    return semTake(done, WAIT_FOREVER) == ZEL_OK ? 0 : 2;
}
