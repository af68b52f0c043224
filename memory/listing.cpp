// The listings of the debug shell. What they print is gathered first, with the pools guarded pool by pool, and printed
// once nothing is held.
#include <cstdio>
#include <memory>
#include <new>

#include "base/lock.h"
#include "memory/pool_set.h"
#include "zel/platform.h"

using namespace zel;
using namespace zel::memory;

namespace {

// ---- Partitions and pools ----

struct PageLine {
    unsigned address;
    int freeChunks;
};

unsigned shown(const void *address) {
    return static_cast<unsigned>(reinterpret_cast<std::uintptr_t>(address));
}

// The pool's figures and at most `capacity` of its pages; false when there is no such pool.
bool gather(PoolSet &set, std::uint32_t number, zelMemPoolStats &stats, unsigned &pcb, PageLine *lines,
            std::uint32_t capacity) {
    return guarded(set, [&] {
        const Pool *pool = poolAt(set, number);
        if (pool == nullptr) return false;
        stats = pool->stats();
        pcb = shown(pool);
        const Page *page = pool->pages.head;
        for (std::uint32_t i = 0; i < capacity && page != nullptr; ++i, page = page->all.next)
            lines[i] = {shown(page), static_cast<int>(pool->freeIn(*page))};
        return true;
    });
}

void printPool(PoolSet &set, std::uint32_t number, const char *headline) {
    zelMemPoolStats stats{};
    unsigned pcb = 0;
    if (!gather(set, number, stats, pcb, nullptr, 0)) return;
    const std::unique_ptr<PageLine[]> lines(new (std::nothrow) PageLine[stats.pages]);
    const std::uint32_t capacity = lines ? stats.pages : 0;
    if (!gather(set, number, stats, pcb, lines.get(), capacity)) return;
    printf(headline, static_cast<int>(number), stats.name, pcb);
    printf("Total pages      : %10d\n", static_cast<int>(stats.pages));
    printf("ChnkSize         : %10d\n", static_cast<int>(stats.chunkSize));
    printf("Chnks per page   : %10d\n", static_cast<int>(stats.chunksPerPage));
    printf("Tot Chnks in Use : %10lu\n", static_cast<unsigned long>(stats.chunksInUse));
    for (std::uint32_t i = 0; i < std::min(capacity, stats.pages); ++i)
        printf("Page: 0x%x free Chnks: %d \n", lines[i].address, lines[i].freeChunks);
}

// ---- The checking allocator ----

struct Moment {
    std::unique_ptr<zelMemCheckSite[]> sites;
    int count = 0;
};

constinit Mutex markLock{LockRank::module, "&memory_mark_lock"};
constinit Moment marked;  // under markLock

// No sites when memory is short.
Moment present() {
    const int capacity = zelMemCheckGetSites(nullptr, 0);
    Moment moment{
        std::unique_ptr<zelMemCheckSite[]>(new (std::nothrow) zelMemCheckSite[static_cast<size_t>(capacity)])};
    if (moment.sites) moment.count = std::min(zelMemCheckGetSites(moment.sites.get(), capacity), capacity);
    return moment;
}

void printSites(const Moment &moment) {
    printf("%-31s %6s %12s %10s %12s %12s %9s\n", "Source", "Line", "Allocations", "Blocks", "Bytes", "Peak",
           "Bad frees");
    for (int i = 0; i < moment.count; ++i) {
        const zelMemCheckSite &site = moment.sites[static_cast<size_t>(i)];
        if (site.allocations == 0 && site.badFrees == 0 && site.liveBlocks == 0) continue;
        printf("%-31s %6d %12llu %10lld %12lld %12lld %9llu\n", site.tag, site.line,
               static_cast<unsigned long long>(site.allocations), static_cast<long long>(site.liveBlocks),
               static_cast<long long>(site.liveBytes), static_cast<long long>(site.peakBytes),
               static_cast<unsigned long long>(site.badFrees));
    }
}

}  // namespace

void showMemMgrParts(void) {
    for (std::uint32_t i = 0; i < partitions.size(); ++i) {
        zelMemPartStats stats{};
        if (findPartition(i) == nullptr || M_memPartGetStats(i, &stats) != ZEL_OK) continue;
        printf("PartId: %3u -- Owner: %d, Fixed pools: %u of %u, Var pools: %u, Pages: %u, Tot Chnks in Use: %u\n",
               static_cast<unsigned>(i), static_cast<int>(stats.owner), static_cast<unsigned>(stats.fixedPools),
               static_cast<unsigned>(stats.totPools), static_cast<unsigned>(stats.variablePools),
               static_cast<unsigned>(stats.pages), static_cast<unsigned>(stats.chunksInUse));
    }
}

void showMemMgrPools(uint32_t partId) {
    Partition *partition = findPartition(partId);
    if (partition == nullptr) {
        printf("PartId: %u does not exist\n", static_cast<unsigned>(partId));
        return;
    }
    for (std::uint32_t i = 0; i < partition->fixed.places; ++i)
        printPool(partition->fixed, i, "FixedPoolId: %2d -- Name: %18s, PCB: 0x%x\n");
    for (std::uint32_t i = 0; i < partition->variable.places; ++i)
        printPool(partition->variable, i, "    VarPoolId: %2d -- Name: %18s, PCB: 0x%x\n");
}

void showMemCheck(void) {
    printSites(present());
}

int showMemCheckMark(void) {
    Moment moment = present();
    const bool isMade = moment.sites != nullptr;
    const Lock lock(markLock);
    if (isMade) std::swap(marked, moment);
    return isMade ? static_cast<int>(ZEL_OK) : static_cast<int>(ZEL_ERROR);
}

void showMemCheckLeaks(void) {
    Moment now = present();
    {
        const Lock lock(markLock);
        now.count = zelMemCheckGrowth(marked.sites.get(), marked.count, now.sites.get(), now.count);
    }
    printSites(now);
}
