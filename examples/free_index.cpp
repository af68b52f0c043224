// Numbers channels from 1 to 8: the lowest free one first, one that is asked for, and some given back.
#include <cstdio>

#include "zel/containers.h"

int main() {
    zelFreeIndexList channels;
    if (zelFreeIndexListInit(1, 8, zelFreeIndexMalloc, zelFreeIndexFree, &channels) != 0) return 1;

    zelFreeIndexReserve(&channels, 3);
    uint32_t channel = 0;
    for (int i = 0; i < 4; ++i)
        if (zelFreeIndexGet(&channels, &channel) == 0) printf("got %u\n", channel);

    zelFreeIndexRelease(&channels, 2);
    zelFreeIndexRelease(&channels, 4);
    if (zelFreeIndexRelease(&channels, 4) != 0) printf("that was the second time\n");

    zelFreeIndexDump(&channels);
    return zelFreeIndexListDestroy(&channels);
}
