// The free-index allocator against the set of the indexes that are taken.
#include <set>

#include "tests/containers/check.h"
#include "tests/support/failing_allocator.h"
#include "tests/support/random.h"
#include "tests/support/reports.h"

namespace zel::test {
namespace {

struct Range {
    uint32_t low, high;
    bool operator==(const Range &) const = default;
};

struct Limits {
    uint32_t minimum, maximum;
};

class FreeIndex : public testing::Test {
protected:
    ~FreeIndex() override {
        EXPECT_EQ(zelFreeIndexListDestroy(&list), 0);
        EXPECT_EQ(FailingAllocator::live(), 0);
        EXPECT_EQ(zelFreeIndexGet(&list, &sink), -1);
    }

    void start(Limits limits) {
        ASSERT_EQ(zelFreeIndexListInit(limits.minimum, limits.maximum, FailingAllocator::allocate,
                                       FailingAllocator::release, &list),
                  0);
    }

    std::vector<Range> ranges() {
        std::vector<Range> all;
        for (const zelFreeIndexRange *range : checkFreeIndex(list)) all.push_back({range->low, range->high});
        return all;
    }

    // What is left of the valid range by the indexes taken.
    std::vector<Range> expectedRanges() const {
        std::vector<Range> all;
        uint64_t next = list.free_min;
        for (const uint32_t index : taken) {
            if (next < index) all.push_back({static_cast<uint32_t>(next), index - 1});
            next = uint64_t{index} + 1;
        }
        if (next <= list.free_max) all.push_back({static_cast<uint32_t>(next), list.free_max});
        return all;
    }

    // Memory may be out for the call: it fails then, and the model stays as it is.
    template <class Call, class Note>
    void expect(bool succeeds, Call call, Note note) {
        FailingAllocator::failAt(random() % 8 == 0);
        const int result = call();
        const bool isShort = FailingAllocator::hasFailed();
        FailingAllocator::failAt(0);
        ASSERT_EQ(result, succeeds && !isShort ? 0 : -1);
        if (result == 0) note();
    }

    void get() {
        const auto free = expectedRanges();
        uint32_t index = 77;
        expect(
            !free.empty(), [&] { return zelFreeIndexGet(&list, &index); }, [&] { taken.insert(index); });
        ASSERT_EQ(index, free.empty() ? 77 : free.front().low);
    }
    void reserve(uint32_t index) {
        expect(
            isValid(index) && !taken.count(index), [&] { return zelFreeIndexReserve(&list, index); },
            [&] { taken.insert(index); });
    }
    void release(uint32_t index) {
        expect(
            taken.count(index) != 0, [&] { return zelFreeIndexRelease(&list, index); }, [&] { taken.erase(index); });
    }
    bool isValid(uint32_t index) const { return list.free_min <= index && index <= list.free_max; }

    Random random = seeded();
    zelFreeIndexList list;
    std::set<uint32_t> taken;
    uint32_t sink = 0;
};

class RandomFreeIndex : public FreeIndex, public testing::WithParamInterface<Limits> {};

TEST_P(RandomFreeIndex, agreesWithASet) {
    const auto [minimum, maximum] = GetParam();
    start(GetParam());
    testing::internal::CaptureStdout();  // many a release is refused
    const int steps = isFullRun() ? 1000000 : 100000;
    for (int step = 0; step < steps && !HasFatalFailure(); ++step) {
        // Both ends of the range, and one index beyond them.
        const uint32_t distance = random() % 120;
        const uint32_t index = random() % 2 ? minimum - 1 + distance : maximum + 1 - distance;
        const bool grows = step / 3000 % 2 == 0;
        if (random() % 16 == 0)
            get();
        else
            random() % 10 < (grows ? 7u : 3u) ? reserve(index) : release(index);
        if (taken.size() > 64 && step % 1000 != 0) continue;
        ASSERT_EQ(ranges(), expectedRanges());
        ASSERT_EQ(list.free_used, taken.size());
    }
    testing::internal::GetCapturedStdout();
}

INSTANTIATE_TEST_SUITE_P(Limits, RandomFreeIndex,
                         testing::Values(Limits{0, UINT32_MAX}, Limits{UINT32_MAX - 90, UINT32_MAX}, Limits{0, 90},
                                         Limits{7, 7}, Limits{1000, 2000}));

TEST_F(FreeIndex, printsWhatIsFreeAndWhatIsRefused) {
    start({16, 63});
    EXPECT_EQ(zelFreeIndexReserve(&list, 30), 0);
    testing::internal::CaptureStdout();
    for (const uint32_t index : {16u, 33u, 0u, 64u, 29u, UINT32_MAX})
        EXPECT_EQ(zelFreeIndexRelease(&list, index), -1) << index;
    zelFreeIndexDump(&list);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "Trying to free Index 0x10 which is not allocated\r\n"
              "Trying to free Index 0x21 which is not allocated\r\n"
              "Trying to free Index 0x0 which is not in range 0x10..0x3f\r\n"
              "Trying to free Index 0x40 which is not in range 0x10..0x3f\r\n"
              "Trying to free Index 0x1d which is not allocated\r\n"
              "Trying to free Index 0xffffffff which is not in range 0x10..0x3f\r\n"
              "Index Free List: (Valid range 0x10..0x3f)\r\n\t0x10..0x1d\r\n\t0x1f..0x3f\r\nTot: 48, Used: 1\r\n");
}

TEST_F(FreeIndex, refusesWhatIsMissing) {
    zelFreeIndexList other{};
    const auto take = zelFreeIndexMalloc;
    const auto drop = zelFreeIndexFree;
    EXPECT_EQ(zelFreeIndexListInit(0, 9, nullptr, drop, &other), -1);
    EXPECT_EQ(zelFreeIndexListInit(0, 9, take, nullptr, &other), -1);
    EXPECT_EQ(zelFreeIndexListInit(0, 9, take, drop, nullptr), -1);
    EXPECT_EQ(zelFreeIndexListInit(10, 9, take, drop, &other), -1);
    FailingAllocator::failAt(1);
    EXPECT_EQ(zelFreeIndexListInit(0, 9, take, drop, &other), -1);
    EXPECT_EQ(zelFreeIndexGet(&other, &sink), -1);
    EXPECT_EQ(zelFreeIndexRelease(nullptr, 1), -1);
    EXPECT_EQ(reportedAssertions(), 2);
    EXPECT_EQ(lastAssertion(), "(head)->dll_magic == zelDLL_MAGIC");
    start({0, UINT32_MAX});
    EXPECT_EQ(list.free_total, 0u);
}

}  // namespace
}  // namespace zel::test
