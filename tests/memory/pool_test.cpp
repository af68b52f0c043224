// Partitions and pools: layout, choice of pool, faults and what they leave intact, limits, listings, threads.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <malloc.h>
#include <pthread.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <functional>
#include <map>
#include <thread>

#include "memory/pool_set.h"
#include "tests/memory/check.h"
#include "tests/memory/sites.h"
#include "tests/support/eventually.h"
#include "tests/support/printed.h"
#include "tests/support/random.h"
#include "zel/kernel.h"
#include "zel/memory.h"

namespace {

unsigned allocationsLeft = 0;  // the last of them fails; 0 switches that off
bool hasFailed = false;
std::function<void()> onAllocation;
int refusals = 0;  // pages that the usage check will not allow
std::function<void()> onUsageCheck;

bool isOutOfMemory() {
    if (onAllocation) onAllocation();
    if (allocationsLeft == 0 || --allocationsLeft != 0) return false;
    return hasFailed = true;
}

}  // namespace

void *zelMC_malloc(const char *tag, int line, size_t bytes) {
    return isOutOfMemory() ? nullptr : zelMemCheckMalloc(tag, line, bytes);
}
void *zelMC_calloc(const char *tag, int line, size_t count, size_t bytes) {
    return isOutOfMemory() ? nullptr : zelMemCheckCalloc(tag, line, count, bytes);
}
void *zelMC_realloc(const char *tag, int line, void *block, size_t bytes) {
    return zelMemCheckRealloc(tag, line, block, bytes);
}
void zelMC_free(const char *tag, int line, void *block) {
    zelMemCheckFree(tag, line, block);
}
int zelMemUsageCheck(zelTaskId, uint32_t, uint32_t) {
    if (onUsageCheck) onUsageCheck();
    return refusals-- <= 0;
}

namespace zel::test {
namespace {

using memory::load;
using testing::HasSubstr;

using Texts = std::vector<std::string>;

constexpr uint32_t partId = 3, pool = partId << 16;

// The texts among the words of what a call reported, up to an assertion's expression.
Texts reportedBy(const std::function<void()> &call) {
    std::vector<zelSysErrRecord> records(64);
    const auto refresh = [&] { return static_cast<size_t>(zelSysErrGetLast(records.data(), 64)); };
    const size_t before = refresh();
    const uint64_t last = before ? records[before - 1].time : 0;
    call();
    Texts texts;
    const size_t now = refresh();
    for (size_t i = 0; i < now; ++i)
        for (int word = 0; records[i].time > last && word < (records[i].event == ZEL_EVENT_MEMORY ? 4 : 1); ++word)
            if (static_cast<uintptr_t>(records[i].words[word]) > 1u << 30)
                texts.emplace_back(reinterpret_cast<const char *>(records[i].words[word]));
    return texts;
}

std::byte *allocate(uint32_t size = 0, uint32_t poolId = pool) {
    return static_cast<std::byte *>(M_memBlockAlloc(poolId, size, 0));
}

zelMemPoolStats statsOf(uint32_t poolId = pool) {
    zelMemPoolStats stats{};
    EXPECT_EQ(M_memPoolGetStats(poolId, &stats), 0);
    return stats;
}

// The number of the pool that a block is of; -1 for null.
int poolOf(void *block) {
    return block ? static_cast<int>(memory::pageAt(block)->pool->id - pool) : -1;
}

class PoolTest : public testing::Test {
protected:
    explicit PoolTest(int locking) {
        vx2bsdLibInit();
        zelTraceInit();
        EXPECT_EQ(M_memPartCreate(partId, getpid(), 8, locking), 0);
    }
    ~PoolTest() override {
        for (uint32_t i = 0; i < 8; ++i)
            if (const memory::Pool *made = memory::fixedPool(pool + i)) checkPool(*made);
        M_sysForceMemBlockFree(partId);
        zel_memPartVarDelete(partId);
    }
};

class Pools : public PoolTest, public testing::WithParamInterface<int> {
protected:
    Pools() : PoolTest(GetParam()) {}
};
INSTANTIATE_TEST_SUITE_P(Locking, Pools, testing::Values(0, 1));

class SharedPools : public PoolTest {
protected:
    SharedPools() : PoolTest(1) {}
};

TEST(PoolLayout, CountsFollowThePublishedPageAndNeverVanish) {
    for (uint32_t size = 0; size < MAXCHNKSIZE; ++size) {
        ASSERT_GE(memory::pageBytes(size) / 16562 * 16384, size);
        ASSERT_GE(memory::chunksPerPage(size), 1u);
    }
    EXPECT_EQ(memory::pageBytes(0), 16562u);
    EXPECT_EQ(memory::pageBytes(16384), 16562u);
    EXPECT_EQ(memory::pageBytes(16385), 33124u);
    EXPECT_EQ(memory::chunksPerPage(64), 229u);
    EXPECT_EQ(memory::chunksPerPage(0), 2066u);
}

TEST_P(Pools, EveryByteOfEveryChunkIsTheCallersBetweenHeaderAndTrailer) {
    const uint32_t sizes[] = {0, 1, 4, 13, 24, 4096, 16521, 65535};
    for (uint32_t i = 0; i < std::size(sizes); ++i) {
        ASSERT_EQ(M_memPoolCreate(pool + i, "sizes", sizes[i]), 0);
        const uint32_t chunks = memory::chunksPerPage(sizes[i]);
        std::vector<std::byte *> blocks;
        for (uint32_t n = 0; n <= chunks; ++n) {
            blocks.push_back(static_cast<std::byte *>(M_memBlockAlloc(pool + i, sizes[i], 0xabcdef01)));
            ASSERT_EQ(reinterpret_cast<uintptr_t>(blocks[n]) % (2 * sizeof(void *)), 0u);
            ASSERT_EQ(load<uint32_t>(blocks[n] - 8), 0xcefu);
            ASSERT_EQ(load<uint32_t>(blocks[n] - 4), (n % chunks) << 20 | sizes[i] << 4 | 0xau);
            ASSERT_THAT(load<uint32_t>(blocks[n] - 8 + memory::trailerOffset(sizes[i])),
                        testing::AnyOf(0xcefu, 0xdcau));
            memset(blocks[n], 0xa5, sizes[i]);
            ASSERT_EQ(statsOf(pool + i).pages, 1 + n / chunks);
        }
        checkPool(*memory::fixedPool(pool + i));
        for (std::byte *block : blocks) ASSERT_EQ(M_memBlockFree(pool + i, block), 0);
        EXPECT_EQ(load<uint32_t>(blocks[0] - 8), 0xdcau);
        EXPECT_EQ(statsOf(pool + i).highWater, chunks + 1);
        EXPECT_EQ(M_memPoolFlush(pool + i), 0);
        EXPECT_EQ(statsOf(pool + i).pages, 0u);
    }
}

TEST_P(Pools, ChunksComeBackLastInFirstOutAndPagesAtTheHead) {
    ASSERT_EQ(M_memPoolCreate(pool, "order", 8000), 0);  // two chunks a page
    std::byte *a = allocate(), *b = allocate(), *c = allocate();
    EXPECT_EQ(memory::fixedPool(pool)->freePages.head, memory::pageAt(c));
    M_memBlockFree(pool, a);
    EXPECT_EQ(memory::fixedPool(pool)->freePages.head, memory::pageAt(a));
    M_memBlockFree(pool, c);
    M_memBlockFree(pool, b);
    EXPECT_EQ(allocate(), b);
    EXPECT_EQ(allocate(), a);
    EXPECT_EQ(allocate(), c);
    EXPECT_EQ(statsOf().pages, 2u);
}

TEST_P(Pools, BestFitIsTheSmallestThatSufficesAndTheLowestOfEquals) {
    const uint32_t sizes[] = {32, 64, 64, 500};
    for (uint32_t i = 4; i-- > 0;) ASSERT_EQ(M_memPoolCreate(pool + i, "fit", sizes[i]), 0);
    const auto poolFor = [](uint32_t size) { return poolOf(allocate(size, ZEL_MEM_BEST_FIT)); };
    EXPECT_EQ(poolFor(0), 0);
    EXPECT_EQ(poolFor(32), 0);
    EXPECT_EQ(poolFor(40), 1);
    EXPECT_EQ(poolFor(65), 3);
    EXPECT_EQ(poolFor(501), -1);
    EXPECT_EQ(errno, ZEL_ERR_INVALID_OBJECT_ID);
    EXPECT_THAT(reportedBy([] { EXPECT_EQ(allocate(33), nullptr); }),
                testing::ElementsAre("zelMemMgmt", "zel_memBlockAlloc"));
}

TEST_P(Pools, VariablePoolsAreChosenBySize) {
    const uint32_t sizes[] = {4000, 10, 5000, 5000, 4095};
    for (uint32_t i = 0; i < 5; ++i) ASSERT_EQ(M_memVarPoolCreate(pool + i * 50, "var", sizes[i]), 0);
    std::vector<void *> blocks;
    const auto poolFor = [&](uint32_t size) {
        blocks.push_back(M_memBlockVarAlloc(pool, size, 0));
        return poolOf(blocks.back());
    };
    const std::map<uint32_t, int> expected{{0, 50},     {10, 50},    {11, 0},    {4000, 0},
                                           {4001, 200}, {4095, 200}, {4096, 100}};
    for (const auto &[size, number] : expected) EXPECT_EQ(poolFor(size), number) << size;
    EXPECT_EQ(M_memBlockVarAlloc(pool, 5001, 0), nullptr);
    EXPECT_EQ(zel_memPartVarDelete(partId), -1);
    EXPECT_EQ(errno, ZEL_ERR_OBJECT_UNAVAILABLE);
    for (void *block : blocks) EXPECT_EQ(M_memBlockVarFree(pool, block), 0);
    zelMemPartStats stats{};
    EXPECT_EQ(M_memPartGetStats(partId, &stats), 0);
    EXPECT_EQ(stats.variablePools, 5u);
    EXPECT_EQ(stats.pages, 4u);
    EXPECT_EQ(M_memPartVarFlush(partId), 0);
    EXPECT_EQ(M_memPartGetStats(partId, &stats), 0);
    EXPECT_EQ(stats.pages, 0u);
    EXPECT_EQ(zel_memPartVarDelete(partId), 0);
    EXPECT_EQ(poolFor(10), -1);
    EXPECT_EQ(M_memVarPoolCreate(pool + 254, "var", 10), 0);
    EXPECT_EQ(poolFor(10), 254);
}

TEST_P(Pools, CreationRefusesWhatIsOutOfRangeOrTaken) {
    const auto refused = [](uint32_t id, uint32_t chunk, bool isVariable = false) {
        return reportedBy([&] { EXPECT_EQ((isVariable ? M_memVarPoolCreate : M_memPoolCreate)(id, "", chunk), -1); });
    };
    EXPECT_EQ(refused(256u << 16, 8), Texts{"realPartId < MaxPartId"});
    EXPECT_EQ(refused(pool, 65536), Texts{"chnkSz < MAXCHNKSIZE"});
    EXPECT_EQ(refused(pool + 8, 8), Texts{"realPoolId < (*curModPart)->totPools"});
    EXPECT_EQ(refused(pool + 255, 8, true), Texts{"totVarPools <= MAX_VAR_POOLS"});
    EXPECT_EQ(refused(7u << 16, 8), Texts{});
    EXPECT_EQ(M_memPartCreate(partId, 1, 1, 0), -1);
    ASSERT_EQ(M_memPoolCreate(pool, "a name of more than 29 characters", 8), 0);
    EXPECT_STREQ(statsOf().name, "a name of more than 29 charac");
    EXPECT_EQ(refused(pool, 8), Texts{});
    EXPECT_EQ(errno, ZEL_ERR_OBJECT_UNAVAILABLE);
}

// ---- Faults ----

const Texts badHeader{"zelMemMgmt", "zel_memBlockFree", "Header", "Block Addr Not Freed",
                      "chnkHdr->chnkMarker == Blk_Magic_front"};
const Texts badTrailer{"zelMemMgmt", "zel_memBlockFree", "Trailer", "Block Addr Not Freed", "isTrailerGood == TRUE"};
const Texts badSize{"(curPool->chnkSz) == chnkLen"};
const Texts freedTwice{"chnkHdr->chnkMarker != Unused_Magic_front"};

Texts refusedFree(void *block) {
    const uint32_t inUse = statsOf().chunksInUse;
    const Texts texts = reportedBy([&] { EXPECT_EQ(M_memBlockFree(pool, block), -1); });
    EXPECT_EQ(errno, ZEL_ERR_INVALID_OBJECT_ID);
    EXPECT_EQ(statsOf().chunksInUse, inUse);
    return texts;
}

TEST_P(Pools, ABlockWrittenToBeyondItsEndsIsRefusedAndTheOthersAreIntact) {
    for (const uint32_t size : {24u, 36u}) {  // the trailer is the next marker; it lies in a gap
        const uint32_t number = pool + (size == 36);
        ASSERT_EQ(M_memPoolCreate(number, "faults", size), 0);
        std::byte *before = allocate(size, number), *block = allocate(size, number), *after = allocate(size, number);
        memset(before, 1, size);
        memset(after, 2, size);
        for (std::ptrdiff_t at = -8; at < 4; ++at) {
            std::byte &damaged = at < 0 ? block[at] : block[((size + 3) & ~3u) + static_cast<uint32_t>(at)];
            damaged ^= std::byte{0x40};
            EXPECT_EQ(refusedFree(block), at < -4 ? badHeader : at < 0 ? badSize : badTrailer) << size << at;
            const bool hitsTrailer = size == 24 && at < -4, hitsMarker = size == 24 && at >= 0;
            EXPECT_EQ(hitsTrailer ? refusedFree(before) : badTrailer, badTrailer);
            EXPECT_EQ(hitsMarker ? refusedFree(after) : badHeader, badHeader);
            for (std::byte *sound : {hitsTrailer ? nullptr : before, hitsMarker ? nullptr : after}) {
                EXPECT_EQ(sound ? M_memBlockFree(number, sound) : 0, 0);
                EXPECT_EQ(sound ? allocate(size, number) : nullptr, sound);
            }
            damaged ^= std::byte{0x40};
        }
        EXPECT_EQ(before[4], std::byte{1});
        EXPECT_EQ(after[size - 1], std::byte{2});
        EXPECT_EQ(M_memBlockFree(number, block), 0);
        EXPECT_EQ(refusedFree(block), freedTwice);
    }
}

TEST_P(Pools, WhatIsNoBlockIsRefusedWhereverItPoints) {
    ASSERT_EQ(M_memPoolCreate(pool, "faults", 64), 0);
    std::byte *block = allocate();
    memset(block, 0, 64);
    std::vector<std::byte> heap(64);
    alignas(16) std::byte stack[64] = {};
    auto *unmapped = static_cast<std::byte *>(mmap(nullptr, 8192, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    munmap(unmapped, 8192);
    std::byte *page = reinterpret_cast<std::byte *>(memory::pageAt(block));
    for (std::byte *foreign : {&heap[16], stack + 16, unmapped + 4096, block + 4, block + 5, block + 16, page, page + 8,
                               page + 16562 * 2, reinterpret_cast<std::byte *>(16), reinterpret_cast<std::byte *>(-16)})
        EXPECT_EQ(refusedFree(foreign), badHeader) << foreign;
    EXPECT_EQ(refusedFree(nullptr), Texts{"addr != NULL"});
    memcpy(block + 8, block - 8, 8);  // looks like a header, but not of a chunk that could stand here
    EXPECT_EQ(refusedFree(block + 16), badSize);
    EXPECT_EQ(M_memBlockFree(0, block), 0);  // the pool is the block's, whatever the caller says
    M_sysForceMemBlockFree(partId);
    EXPECT_EQ(refusedFree(block), badHeader);
}

TEST_P(Pools, ADamagedFreeChunkIsNotHandedOut) {
    ASSERT_EQ(M_memPoolCreate(pool, "faults", 64), 0);
    ASSERT_EQ(M_memPoolCreate(pool + 1, "sound", 64), 0);
    zelTracePrintOn();
    std::byte *block = allocate();
    M_memBlockFree(pool, block);
    const auto refusal = [&](std::ptrdiff_t at, uint32_t word) {
        const uint32_t was = load<uint32_t>(block + at);
        memory::store(block + at, word);
        Texts texts;
        EXPECT_THAT(printedBy([&] { texts = reportedBy([] { EXPECT_EQ(allocate(), nullptr); }); }),
                    HasSubstr("Allocation: curPage: "));
        EXPECT_NE(allocate(0, pool + 1), nullptr);
        memory::store(block + at, was);
        const Texts report{"zelMemMgmt", "AllocChnk", "Header/Trailer", "Block Not Allocated", texts.back()};
        EXPECT_EQ(texts, report);
        return texts.back();
    };
    EXPECT_EQ(refusal(-8, 0), "(chnkHdr->chnkMarker != 0 ) && (chnkLen != 0)");
    EXPECT_EQ(refusal(-8, 0xcef), "chnkHdr->chnkMarker == Unused_Magic_front");
    EXPECT_EQ(refusal(-4, 64 << 4 | 7 << 20), "curPage == actPage");
    EXPECT_EQ(statsOf().failures, 3u);
    memory::store<uint32_t>(block, 0x12345678);  // written to after it was freed: the link
    EXPECT_EQ(allocate(), block);
    EXPECT_EQ(reportedBy([] { EXPECT_EQ(allocate(), nullptr); }).back(), "curPage == actPage");
    EXPECT_EQ(M_memBlockFree(pool, block), 0);
    EXPECT_EQ(allocate(), block);
    M_sysForceMemBlockFree(partId);
}

// ---- Limits and failures ----

TEST_P(Pools, ABoundIsRefusedOnceReachedAndTheUsageCheckMayDenyAPage) {
    ASSERT_EQ(M_memPoolCreate(pool, "bound", 16384), 0);  // a chunk a page
    EXPECT_EQ(M_memPoolSetSize(pool, 16563), 0);
    zelTracePrintOn();
    refusals = 1;
    EXPECT_THAT(printedBy([] { EXPECT_EQ(allocate(), nullptr); }),
                HasSubstr("Mem req by task: Unk, size: 16562 retStatus: DENIED "));
    EXPECT_NE(allocate(), nullptr);
    EXPECT_NE(allocate(), nullptr);
    EXPECT_EQ(allocate(), nullptr);
    EXPECT_EQ(errno, ZEL_ERR_NOT_ENOUGH_MEMORY);
    EXPECT_EQ(statsOf().failures, 2u);
    EXPECT_EQ(M_memPoolSetNonDestructMemSize(pool, 1), 0);
    refusals = 1;  // neither of the two is asked
    EXPECT_NE(allocate(), nullptr);
    EXPECT_EQ(statsOf().pages, 3u);
    EXPECT_EQ(M_memPoolSetSize(pool + 7, 1), -1);
    refusals = 0;
}

TEST_P(Pools, TheUsageCheckMayDeleteThePoolItIsAskedAbout) {
    onUsageCheck = [] { EXPECT_EQ(zel_memPartVarDelete(partId), 0); };
    for (const int refused : {0, 1}) {
        refusals = refused;
        ASSERT_EQ(M_memVarPoolCreate(pool, "deleted", 64), 0);
        EXPECT_EQ(M_memBlockVarAlloc(pool, 10, 0), nullptr);
        zelMemPartStats stats{};
        EXPECT_EQ(M_memPartGetStats(partId, &stats), 0);
        EXPECT_EQ(stats.failures, static_cast<uint32_t>(refused) + 1);
    }
    onUsageCheck = nullptr;
}

TEST_P(Pools, TheLogPoolReportsInPrint) {
    zelTracePrintOn();
    EXPECT_THAT(printedBy([] { EXPECT_EQ(allocate(1, SYS_LOG_POOL), nullptr); }),
                HasSubstr(" 1835008 (SYS_LOG_POOL) partition does not exist\r\n"));
    ASSERT_EQ(M_memPartCreate(28, 1, 1, 0), 0);
    ASSERT_EQ(M_memPoolCreate(SYS_LOG_POOL, "log", 8), 0);
    EXPECT_NE(allocate(8, SYS_LOG_POOL), nullptr);
    EXPECT_THAT(printedBy([] { EXPECT_EQ(allocate(9, SYS_LOG_POOL), nullptr); }),
                HasSubstr("1835008 (SYS_LOG_POOL) No fit found for 9\r\n"));
    M_sysForceMemBlockFree(28);
}

int64_t heldByPools() {
    int64_t blocks = 0;
    for (const zelMemCheckSite &site : allSites()) blocks += strcmp(site.tag, "zelMemLib") == 0 ? site.liveBlocks : 0;
    return blocks;
}

TEST_P(Pools, EveryAllocationMayFailOnce) {
    int64_t kept = 0;
    for (unsigned nth = 0; nth <= 7; ++nth) {
        const uint32_t part = 10 + nth, id = part << 16;
        const int64_t before = heldByPools();
        allocationsLeft = nth;
        hasFailed = false;
        const auto again = [&](const std::function<bool()> &call) {
            zelMemPartStats was{}, is{};
            M_memPartGetStats(part, &was);
            if (call()) return;
            EXPECT_TRUE(hasFailed);
            M_memPartGetStats(part, &is);
            is.failures = was.failures;
            EXPECT_EQ(memcmp(&was, &is, sizeof is), 0);
            EXPECT_TRUE(call());
        };
        void *block = nullptr;
        again([&] { return M_memPartCreate(part, 1, 4, 0) == 0; });
        again([&] { return M_memPoolCreate(id, "fixed", 64) == 0; });
        again([&] { return M_memVarPoolCreate(id, "variable", 64) == 0; });
        again([&] { return M_memBlockAlloc(id, 64, 0) != nullptr; });
        again([&] { return M_memBlockVarAlloc(id, 64, 0) != nullptr; });
        again([&] { return (block = M_sysCalloc(3, 5)) != nullptr; });
        EXPECT_EQ(hasFailed, nth != 0);
        M_sysMemfree(block);
        EXPECT_EQ(M_sysForceMemBlockFree(part), 0);
        EXPECT_EQ(zel_memPartVarDelete(part), 0);
        if (nth == 0) kept = heldByPools() - before;
        EXPECT_EQ(heldByPools() - before, kept);
    }
}

// ---- Listings, counts, traces ----

TEST_P(Pools, ListingsAreExact) {
    ASSERT_EQ(M_memPoolCreate(pool + 2, "packets", 64), 0);
    ASSERT_EQ(M_memVarPoolCreate(pool + 5, "strings", 100), 0);
    allocate(64, pool + 2);
    const auto low = [](const void *at) { return static_cast<unsigned>(reinterpret_cast<uintptr_t>(at)); };
    const memory::Pool &fixed = *memory::fixedPool(pool + 2);
    char expected[600];
    snprintf(expected, sizeof expected,
             "FixedPoolId:  2 -- Name:            packets, PCB: 0x%x\n"
             "Total pages      :          1\nChnkSize         :         64\nChnks per page   :        229\n"
             "Tot Chnks in Use :          1\nPage: 0x%x free Chnks: 228 \n"
             "    VarPoolId:  5 -- Name:            strings, PCB: 0x%x\n"
             "Total pages      :          0\nChnkSize         :        100\nChnks per page   :        153\n"
             "Tot Chnks in Use :          0\n",
             low(&fixed), low(fixed.pages.head), low(memory::poolAt(memory::partitions[partId].variable, 5)));
    EXPECT_EQ(printedBy([] { showMemMgrPools(partId); }), expected);
    EXPECT_EQ(printedBy([] { showMemMgrPools(200); }), "PartId: 200 does not exist\n");
    snprintf(expected, sizeof expected,
             "PartId:   3 -- Owner: %d, Fixed pools: 1 of 8, Var pools: 1, Pages: 1, Tot Chnks in Use: 1\n", getpid());
    EXPECT_EQ(printedBy(showMemMgrParts), expected);
    zelTracePrintOn();
    EXPECT_THAT(printedBy([] { M_sysForceMemBlockFree(partId); }),
                HasSubstr("sysForceMemBlockFree: All Pools Of partition 3 are                    cleaned Up "));
}

TEST_P(Pools, BlocksAreCountedForTheLineThatTookThem) {
    ASSERT_EQ(M_memPoolCreate(pool, "counted", 100), 0);
    ASSERT_EQ(M_memVarPoolCreate(pool, "counted", 200), 0);
    void *uncounted = allocate(), *a = zelMC_M_memBlockAlloc("taker", 1, pool, 10, 0);
    void *b = zelMC_M_memBlockAlloc("taker", 1, pool, 10, 0), *c = zelMC_M_memBlockVarAlloc("taker", 1, pool, 10, 0);
    EXPECT_EQ(siteOf("taker", 1).liveBytes, 400);
    EXPECT_EQ(M_memBlockFree(pool, uncounted), 0);
    EXPECT_EQ(allocate(), uncounted);
    EXPECT_EQ(M_memBlockFree(pool, a), 0);
    EXPECT_EQ(zelMC_M_memBlockVarFree("giver", 2, pool, c), 0);
    EXPECT_EQ(zelMC_M_memBlockFree("giver", 2, pool, a), -1);
    EXPECT_EQ(siteOf("giver", 2).badFrees, 1u);
    EXPECT_EQ(siteOf("taker", 1).liveBytes, 100);
    M_sysForceMemBlockFree(partId);
    EXPECT_EQ(siteOf("taker", 1).liveBlocks, 0);
    EXPECT_EQ(refusedFree(b), badHeader);
}

TEST_P(Pools, DamagedBlocksThatAreForcedFreeLeadNowhere) {
    ASSERT_EQ(M_memPoolCreate(pool, "counted", 16384), 0);  // one chunk a page
    const auto take = [](int line) { return static_cast<char *>(zelMC_M_memBlockAlloc("damaged", line, pool, 1, 0)); };
    memset(take(1) - 8, 0xff, 8);
    memset(take(2) + 16384, 0xff, 32);  // also where the page notes who took it
    EXPECT_EQ(M_sysForceMemBlockFree(partId), 0);
    EXPECT_EQ(siteOf("damaged", 1).liveBlocks, 0);
    EXPECT_EQ(siteOf("damaged", 2).liveBlocks, 1);
}

TEST_P(Pools, TracesTellOfPagesAndChunks) {
    zelTracePrintOn();
    zelMemSetDebug(0x10);
    const std::string text = printedBy([] {
        M_memPoolCreate(pool, "traced", 16384);
        M_memBlockFree(pool, allocate(5, ZEL_MEM_BEST_FIT));
        zelMemSetDebug(0);
        M_memBlockFree(pool, allocate());
    });
    size_t at = 0;
    for (const char *part :
         {"BlockCreate: Part Id: 3, Pool Id: 0, chnkSz: 16384\r\n", "findPool: size: 5, poolId is 0\r\n",
          "Alloc: New Page Added, Page ", "Inserted Page int Free List ", ", direction is 0\r\n",
          "Deleted Page From Free List, Page: ", "Alloc: PartId: 3, PoolId: 0, Chnks: 1, Pages: 1\r\n",
          "Inserted Page int Free List ", "Free TName: Unk, Pages: 1, Chnks: 0\r\n"})
        EXPECT_NE(at = text.find(part, at), std::string::npos) << part;
    EXPECT_EQ(text.find("Alloc: ", at), std::string::npos);
}

// ---- Threads ----

TEST_F(SharedPools, AThreadCancelledInTheMiddleLeavesThePartitionUsable) {
    ASSERT_EQ(M_memPoolCreate(pool, "cancelled", 64), 0);
    static std::atomic<bool> isInside{false};
    onAllocation = [] {
        isInside = true;
        pause();
    };
    pthread_t thread;
    pthread_create(
        &thread, nullptr, [](void *) -> void * { return allocate(); }, nullptr);
    EXPECT_TRUE(eventually(10, [] { return isInside.load(); }));
    pthread_cancel(thread);
    void *result = nullptr;
    pthread_join(thread, &result);
    EXPECT_EQ(result, PTHREAD_CANCELED);
    onAllocation = nullptr;
    EXPECT_EQ(statsOf().pages, 0u);
    EXPECT_NE(allocate(), nullptr);
}

TEST_F(SharedPools, AStaleBlockMayBeFreedWhileItsPageIsFlushed) {
    mallopt(M_MMAP_THRESHOLD, 4096);  // what is flushed is gone from the address space
    ASSERT_EQ(M_memPoolCreate(pool, "stale", 16384), 0);
    std::atomic<void *> stale{nullptr};
    std::atomic<bool> isOver{false};
    std::thread other([&] {
        while (!isOver)
            if (void *block = stale) M_memBlockFree(pool, block);
    });
    for (int i = 0; i < 3000; ++i) {
        stale = allocate();
        M_memBlockFree(pool, stale);
        EXPECT_EQ(M_memPoolFlush(pool), 0);
    }
    isOver = true;
    other.join();
    EXPECT_EQ(statsOf().pages, 0u);
}

TEST_F(SharedPools, ThreadsPassBlocksToEachOther) {
    ASSERT_EQ(M_memPoolCreate(pool, "shared", 64), 0);
    constexpr int threads = 4, rounds = 50000;
    std::vector<std::atomic<void *>> exchange(1000);
    const auto work = [&](unsigned self) {
        Random random{std::mt19937(self)};
        for (int i = 0; i < rounds; ++i) {
            void *block = zelMC_M_memBlockAlloc("threads", 5, i % 2 ? pool : ZEL_MEM_BEST_FIT, 64, 0);
            memset(block, static_cast<int>(self), 64);
            if (void *other = exchange[random() % exchange.size()].exchange(block)) M_memBlockFree(pool, other);
        }
    };
    std::vector<std::thread> running;
    for (unsigned i = 0; i < threads; ++i) running.emplace_back(work, i);
    for (auto &thread : running) thread.join();
    checkPool(*memory::fixedPool(pool));
    EXPECT_LE(statsOf().chunksInUse, exchange.size());
    for (auto &block : exchange) EXPECT_TRUE(!block || M_memBlockFree(pool, block) == 0);
    EXPECT_EQ(statsOf().chunksInUse, 0u);
    EXPECT_EQ(siteOf("threads", 5).liveBlocks, 0);
}

// ---- Against a model ----

TEST_P(Pools, RandomOperationsEqualAModel) {
    Random random = seeded();
    const uint32_t sizes[] = {8, 30, 64, 1000, 17000};
    for (uint32_t i = 0; i < 5; ++i) ASSERT_EQ(M_memPoolCreate(pool + i, "model", sizes[i]), 0);
    struct Block {
        std::byte *data;
        uint32_t number;
        std::byte content;
    };
    std::vector<Block> live;
    const auto takeOne = [&] {
        const auto number = random() % 5;
        Block block{allocate(sizes[number], random() % 2 ? ZEL_MEM_BEST_FIT : pool + number), number,
                    std::byte(random())};
        ASSERT_NE(block.data, nullptr);
        memset(block.data, static_cast<int>(block.content), sizes[number]);
        live.push_back(block);
    };
    const auto giveOne = [&] {
        std::swap(live[random() % live.size()], live.back());
        const Block block = live.back();
        live.pop_back();
        ASSERT_EQ(std::count(block.data, block.data + sizes[block.number], block.content), sizes[block.number]);
        ASSERT_EQ(M_memBlockFree(pool, block.data), 0);
    };
    const int steps = isFullRun() ? 1'000'000 : 100'000;
    for (int step = 0; step < steps && !HasFatalFailure(); ++step) {
        const size_t wanted = step / 5000 % 2 ? 600 : 20;
        (live.empty() || random() % 100 < (live.size() < wanted ? 60 : 40)) ? takeOne() : giveOne();
        ASSERT_EQ(random() % 5000 == 0 ? M_memPoolFlush(pool + random() % 5) : 0, 0);
        if (live.size() > 64 && step % 1000 != 0) continue;
        size_t inUse = 0;
        for (uint32_t i = 0; i < 5; ++i) {
            checkPool(*memory::fixedPool(pool + i));
            inUse += statsOf(pool + i).chunksInUse;
        }
        ASSERT_EQ(inUse, live.size());
    }
}

}  // namespace
}  // namespace zel::test
