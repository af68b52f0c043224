// A process keeps its sessions in a pool: blocks of one size, checked when they come back, and listed when they do not.
#include <unistd.h>

#include <cstdio>

#include "zel/kernel.h"
#include "zel/memory.h"

static constexpr uint32_t partition = 3, sessions = partition << 16;

struct Session {
    int number;
    char peer[40];
};

static void *openSession() {
    return zelMC_M_memBlockAlloc("pools", __LINE__, sessions, sizeof(Session), 0);
}

int main() {
    vx2bsdLibInit();
    zelTraceInit();
    M_memPartCreate(partition, getpid(), 4, 1);
    M_memPoolCreate(sessions, "sessions", sizeof(Session));
    void *first = openSession();
    showMemCheckMark();

    auto *second = static_cast<char *>(openSession());
    M_memBlockFree(sessions, first);
    printf("freed twice: %d\n", M_memBlockFree(sessions, first));
    second[sizeof(Session)] = '!';
    printf("written to beyond its end: %d\n", M_memBlockFree(sessions, second));
    printf("the last one freed comes again: %s\n", openSession() == first ? "yes" : "no");

    zelMemPoolStats stats;
    M_memPoolGetStats(sessions, &stats);
    printf("%s: %u of %u in use, %u at most\n\n", stats.name, stats.chunksInUse, stats.pages * stats.chunksPerPage,
           stats.highWater);
    showMemCheckLeaks();
    return 0;
}
