// The checking allocator: what each line holds, what grew between two moments, and blocks that are not freed.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <thread>
#include <vector>

#include "tests/memory/sites.h"
#include "tests/support/printed.h"
#include "tests/support/random.h"
#include "zel/memory.h"

namespace zel::test {
namespace {

TEST(CheckingAllocator, CountsByTagAndLine) {
    void *first = zelMC_malloc("a", 1, 100), *second = zelMC_calloc("a", 1, 10, 30);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(first) % alignof(max_align_t), 0u);
    EXPECT_EQ(static_cast<char *>(second)[299], 0);
    zelMC_free("elsewhere", 9, first);
    const zelMemCheckSite site = siteOf("a", 1);
    EXPECT_EQ(site.allocations, 2u);
    EXPECT_EQ(site.liveBlocks, 1);
    EXPECT_EQ(site.liveBytes, 300);
    EXPECT_EQ(site.peakBytes, 400);
    memset(second, 7, 300);
    second = zelMC_realloc("b", 3, second, 100000);  // large enough to be carried over to the site
    EXPECT_EQ(static_cast<char *>(second)[299], 7);
    EXPECT_EQ(siteOf("a", 1).liveBlocks, 0);
    zelMC_free("b", 3, zelMC_realloc("b", 3, second, 0));
    EXPECT_EQ(siteOf("b", 3).peakBytes, 100000);
    EXPECT_EQ(siteOf("b", 3).liveBytes, 0);
    zelMC_free("a", 2, nullptr);
    for (const size_t tooMany : {SIZE_MAX, SIZE_MAX - 15, SIZE_MAX / 2}) {
        errno = 0;
        EXPECT_EQ(zelMC_malloc("c", 1, tooMany), nullptr);
        EXPECT_EQ(errno, ENOMEM);
        EXPECT_EQ(zelMC_calloc("c", 1, tooMany, 3), nullptr);
    }
    EXPECT_EQ(siteOf("c", 1).allocations + siteOf("elsewhere", 9).allocations, 0u);
}

TEST(CheckingAllocator, ThreadsAddUpAndLeaveTheirCountsAndBlocksBehind) {
    constexpr int threads = 4, rounds = 20000, bytes = 40, kept = 10000;
    std::vector<void *> left(threads * kept);
    const auto work = [&](int self) {
        for (int i = 0; i < rounds; ++i) {
            void *block = zelMC_malloc("threads", 1, bytes);
            zelMC_free("threads", 2, i % 2 ? block : zelMC_realloc("threads", 1, block, bytes));
        }
        for (int i = 0; i < kept; ++i) left[static_cast<size_t>(self * kept + i)] = zelMC_malloc("threads", 1, bytes);
    };
    for (int wave = 0; wave < 2; ++wave) {  // the second wave takes over what the first counted in
        std::vector<std::thread> running;
        for (int i = 0; i < threads; ++i) running.emplace_back(work, i);
        for (auto &thread : running) thread.join();
        EXPECT_EQ(siteOf("threads", 1).liveBlocks, threads * kept);
        for (void *block : left) zelMC_free("main", 1, block);
    }
    const zelMemCheckSite site = siteOf("threads", 1);
    EXPECT_EQ(site.allocations, 2u * threads * (rounds + rounds / 2 + kept));
    EXPECT_EQ(site.liveBytes, 0);
    EXPECT_NEAR(static_cast<double>(site.peakBytes), threads * kept * bytes, threads * 65536);
}

TEST(CheckingAllocator, LeaksAreWhatGrewBetweenTwoMoments) {
    void *before = zelMC_malloc("old", 1, 10);
    ASSERT_EQ(showMemCheckMark(), 0);
    EXPECT_THAT(printedBy(showMemCheckLeaks), testing::Not(testing::HasSubstr("\nold")));
    void *again = zelMC_malloc("old", 1, 20),
         *leak = zelMC_malloc("a tag that is longer than the listing shows", 77, 30);
    zelMC_free("new", 2, zelMC_malloc("new", 2, 40));
    zelMC_free("old", 1, before);
    const std::string leaks = printedBy(showMemCheckLeaks);
    EXPECT_THAT(leaks,
                testing::HasSubstr("\na tag that is longer than the l     77            1          1           30"));
    EXPECT_THAT(leaks,
                testing::HasSubstr("\nold                                  1            1          0           10"));
    EXPECT_THAT(leaks, testing::Not(testing::HasSubstr("\nnew")));
    EXPECT_THAT(printedBy(showMemCheck), testing::HasSubstr("\nnew                                  2"));
    zelMC_free("old", 1, again);
    zelMC_free("old", 1, leak);
}

TEST(CheckingAllocator, RefusesWhatIsNoBlock) {
    auto *block = static_cast<char *>(zelMC_malloc("block", 1, 64));
    alignas(16) char foreign[64] = {};
    testing::internal::CaptureStderr();
    zelMC_free("bad", 1, foreign + 32);
    zelMC_free("bad", 1, foreign + 33);
    zelMC_free("bad", 1, block + 16);
    for (int back = 1; back <= 16; ++back) {
        block[-back] ^= 0x40;
        errno = 5;
        zelMC_free("bad", 2, block);
        EXPECT_EQ(errno, 5);
        EXPECT_EQ(zelMC_realloc("bad", 2, block, 10), nullptr);
        block[-back] ^= 0x40;
    }
    EXPECT_EQ(siteOf("block", 1).liveBlocks, 1);
    zelMC_free("block", 2, block);
    zelMC_free("bad", 3, block);  // freed before
    const std::string lines = testing::internal::GetCapturedStderr();
    EXPECT_THAT(lines, testing::HasSubstr("bad/3: "));
    EXPECT_EQ(std::count(lines.begin(), lines.end(), '\n'), 3 + 32 + 1);
    EXPECT_EQ(siteOf("bad", 2).badFrees, 32u);
    EXPECT_EQ(siteOf("block", 1).liveBlocks, 0);
}

TEST(CheckingAllocator, OfTwoThreadsThatFreeABlockOneIsRefused) {
    constexpr int rounds = 1000;
    std::atomic<int> turn{0};
    void *block = nullptr;
    testing::internal::CaptureStderr();
    std::thread other([&] {
        for (int i = 1; i <= rounds; ++i) {
            while (turn.load() != i) {
            }
            zelMC_free("both", 2, block);
            turn = -i;
        }
    });
    for (int i = 1; i <= rounds; ++i) {
        block = zelMC_malloc("both", 1, 40);
        turn = i;
        zelMC_free("both", 2, block);
        while (turn.load() != -i) {
        }
    }
    other.join();
    testing::internal::GetCapturedStderr();
    EXPECT_EQ(siteOf("both", 2).badFrees, static_cast<uint64_t>(rounds));
    EXPECT_EQ(siteOf("both", 1).liveBlocks, 0);
}

TEST(CheckingAllocator, AFullTableCountsUnderOneLine) {
    std::vector<void *> blocks;
    for (int line = 1; line <= ZEL_MEM_CHECK_SITES + 10; ++line) blocks.push_back(zelMC_malloc("full", line, 8));
    EXPECT_EQ(zelMemCheckGetSites(nullptr, 0), ZEL_MEM_CHECK_SITES);
    const zelMemCheckSite others = siteOf("others", 0);
    EXPECT_GE(others.liveBlocks, 11);
    EXPECT_EQ(others.liveBytes, 8 * others.liveBlocks);
    constexpr uint32_t pool = 5 << 16;
    ASSERT_EQ(M_memPartCreate(5, 1, 1, 0), 0);
    ASSERT_EQ(M_memPoolCreate(pool, "full", 64), 0);
    M_memBlockFree(pool, M_memBlockAlloc(pool, 64, 0));  // the page is counted there too
    const zelMemCheckSite before = siteOf("others", 0);
    void *block = zelMC_M_memBlockAlloc("pool", 1, pool, 64, 0);
    EXPECT_EQ(siteOf("others", 0).liveBlocks, before.liveBlocks + 1);
    zelMC_M_memBlockFree("full", 0, pool, block);
    EXPECT_EQ(siteOf("others", 0).liveBytes, before.liveBytes);
    for (void *one : blocks) zelMC_free("full", 0, one);
    EXPECT_EQ(siteOf("others", 0).liveBlocks, before.liveBlocks - others.liveBlocks);
    EXPECT_EQ(siteOf("full", 1000).liveBlocks, 0);
}

}  // namespace
}  // namespace zel::test
