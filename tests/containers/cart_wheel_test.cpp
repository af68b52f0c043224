// The timing wheel against a model: the running timers by the tick in which they fire, each tick's in the order of
// their start.
#include <list>
#include <map>

#include "tests/containers/check.h"
#include "tests/support/failing_allocator.h"
#include "tests/support/random.h"
#include "tests/support/reports.h"
#include "tests/support/simulation.h"
#include "zel/kernel.h"

namespace zel::test {
namespace {

struct Record {
    zelcwTimer links;
    void *test;    // null in a new record
    uint64_t due;  // the tick in which it fires, 0 while it does not run

    bool isIdle() const { return !links.prev && !links.next && !links.bucket && !due; }
};

constexpr int blocksOfAWheel = 3;

zelcwTimerCB *makeWheel(uint32_t buckets, uint32_t records, uint32_t growth, zelcwTimerFn handler,
                        uint32_t recordSize = sizeof(Record)) {
    const auto print = [](void *timer) { printf("%d;", static_cast<int>(static_cast<Record *>(timer)->due)); };
    return zelcwTimerInit(buckets, records, growth, FailingAllocator::allocate, FailingAllocator::release, handler,
                          print, 7, recordSize);
}

class RandomWheel : public testing::TestWithParam<uint32_t> {
protected:
    ~RandomWheel() override {
        for (Record *record : held)
            if (!record->due) zelcwFreeTimer(wheel, record);
        zelcwTimerUnInit(wheel);  // some run, some are free
        EXPECT_EQ(FailingAllocator::live(), 0);
    }

    // The tick in which a timer of the cursor's bucket fires.
    uint64_t next() const { return isInTick ? ticks : ticks + 1; }
    void forget(Record &record) {
        if (!record.due) return;
        model[record.due].remove(&record);
        if (model[record.due].empty()) model.erase(record.due);
        record.due = 0;
    }

    void get() {
        FailingAllocator::failAt(random() % 4 == 0 ? 1 + random() % growth : 0);
        auto *record = static_cast<Record *>(zelcwGetTimer(wheel));
        ASSERT_EQ(record == nullptr, FailingAllocator::hasFailed());
        FailingAllocator::failAt(0);
        if (!record) return;
        ASSERT_TRUE(record->isIdle());
        ASSERT_EQ(record->test, freed.empty() ? nullptr : this);
        if (!freed.empty()) {
            ASSERT_EQ(record, freed.back());
            freed.pop_back();
        }
        record->test = this;
        held.push_back(record);
    }
    void free(Record &record) {
        forget(record);
        std::erase(held, &record);
        freed.push_back(&record);
        zelcwFreeTimer(wheel, &record);
    }
    void start(Record &record) {
        const uint32_t timeout = random() % 4 == 0 ? random() : random() % (2 * GetParam());
        forget(record);
        record.due = next() + timeout % GetParam();
        model[record.due].push_back(&record);
        (random() % 2 ? zelcwStartTimer : zelcwRestartTimer)(wheel, &record, timeout);
    }
    void takeExpired() {
        auto *record = static_cast<Record *>(zelcwGetNextExpiredTimer(wheel));
        const auto due = model.find(next());
        ASSERT_EQ(record, due == model.end() ? nullptr : due->second.front());
        if (record) forget(*record);
    }
    void act() {
        const bool grows = steps / 5000 % 2 == 0;
        const uint32_t choice = random() % 8;
        if (choice == 0) takeExpired();
        if (choice == 1 && (grows || held.size() < 20)) get();
        if (held.empty()) return;
        Record &some = *held[random() % held.size()];
        if (choice == 2 && !(grows && random() % 2)) free(some);
        if (choice == 3) forget(some), zelcwStopTimer(&some);
        if (choice > 3) start(some);
    }

    void expire(Record &record) {
        ASSERT_EQ(&record, model.at(ticks).front());
        forget(record);
        ASSERT_TRUE(record.isIdle());
        if (random() % 6 == 0) free(record);
        for (int i = static_cast<int>(random() % 3); i > 0; --i) act();
        check();
    }
    void tick() {
        ++ticks;
        isInTick = true;
        zelcwTimerTick(wheel);
        isInTick = false;
        ASSERT_EQ(model.count(ticks), 0u);
    }

    void check() {
        ASSERT_EQ(zelcwTimerTickCount(wheel), ticks);
        ASSERT_EQ(zelcwTimerRetNext(wheel), model.empty() ? -1 : static_cast<int>(model.begin()->first - next()) + 1);
        const WheelContents contents = checkWheel(*wheel);
        for (uint32_t i = 0; i < GetParam(); ++i) {
            const auto due = model.find(next() + i);
            const auto expected = due == model.end() ? std::list<Record *>{} : due->second;
            ASSERT_EQ(contents.due[i], Records(expected.begin(), expected.end()));
        }
        ASSERT_EQ(blocksOfAWheel + contents.free + held.size(), static_cast<size_t>(FailingAllocator::live()));
    }

    static constexpr uint32_t growth = 5;
    Random random = seeded();
    zelcwTimerCB *wheel = makeWheel(GetParam(), 3, growth, [](void *timer) {
        auto &record = *static_cast<Record *>(timer);
        static_cast<RandomWheel *>(record.test)->expire(record);
    });
    std::vector<Record *> held, freed;  // freed: as they lie on the free list, above those never used
    std::map<uint64_t, std::list<Record *>> model;
    uint64_t ticks = 0;
    bool isInTick = false;
    int steps = 0;
};

TEST_P(RandomWheel, AgreesWithTheModel) {
    for (; steps < (isFullRun() ? 1'000'000 : 100'000) && !HasFailure(); ++steps) {
        random() % 3 == 0 ? tick() : act();
        if (held.size() <= 64 || steps % 1000 == 0) check();
    }
}

INSTANTIATE_TEST_SUITE_P(Buckets, RandomWheel, testing::Values(1, 8, 256));

int fired = 0;

void count(void *) {
    ++fired;
}

TEST(Wheel, FiresInTheTickBehindItsTimeoutAndWrapsAtTheBuckets) {
    const struct {
        uint32_t buckets, timeout;
        int fires;
    } rows[] = {{0, 0, 1},       {0, 255, 256},           {0, 256, 1},        {512, 256, 257},
                {512, 65536, 1}, {1 << 17, 65535, 65536}, {1 << 17, 65537, 2}};
    for (const auto &row : rows) {
        zelcwTimerCB *wheel = makeWheel(row.buckets, 0, 0, count);
        EXPECT_EQ(FailingAllocator::live(), blocksOfAWheel + 100);
        EXPECT_EQ(zelcwTimerOwner(wheel), 7);
        void *timer = zelcwGetTimer(wheel);
        zelcwStartTimer(wheel, timer, row.timeout);
        int ticks = 0;
        for (fired = 0; fired == 0; ++ticks) zelcwTimerTick(wheel);
        EXPECT_EQ(ticks, row.fires) << row.timeout;
        zelcwFreeTimer(wheel, timer);
        zelcwTimerUnInit(wheel);
    }
}

TEST(Wheel, EachAllocationMayFailAndChangesNothing) {
    zelcwTimerCB *wheel = nullptr;
    for (unsigned nth = 1; !wheel; ++nth) {
        ASSERT_EQ(FailingAllocator::live(), 0);
        FailingAllocator::failAt(nth);
        wheel = makeWheel(8, 2, 3, count, 1);  // a size that is less than the wheel itself needs
        ASSERT_EQ(wheel == nullptr, nth <= blocksOfAWheel + 2);
    }
    FailingAllocator::failAt(0);
    zelcwStartTimer(wheel, zelcwGetTimer(wheel), 3);
    zelcwStartTimer(wheel, zelcwGetTimer(wheel), 4);
    EXPECT_EQ(zelcwTimerAllocFreeList(wheel, 4), 0);
    EXPECT_EQ(FailingAllocator::live(), blocksOfAWheel + 2 + 4);
    zelcwTimerUnInit(wheel);
    EXPECT_EQ(FailingAllocator::live(), 0);
}

TEST(Wheel, ReportsWhatIsMissing) {
    zelcwStartTimer(nullptr, nullptr, 1);
    zelcwStopTimer(nullptr);
    zelcwFreeTimer(nullptr, nullptr);
    EXPECT_EQ(reportedAssertions(), 0);
    expectReports({
        {"tmrExpiryHandler", [] { return !makeWheel(8, 1, 1, nullptr); }},
        {"((((tmrNumBuckets)&((tmrNumBuckets)-1))?0:1))", [] { return !makeWheel(12, 1, 1, count); }},
        {"(tmrSize != 0)", [] { return !makeWheel(8, 1, 1, count, 0); }},
        {"tcb", [] { return zelcwTimerUnInit(nullptr), true; }},
        {"tcb", [] { return !zelcwGetTimer(nullptr); }},
        {"tcb", [] { return zelcwTimerRetNext(nullptr) == -1; }},
    });
}

TEST(Wheel, PrintsItsTimers) {
    zelcwTimerCB *wheel = makeWheel(8, 3, 1, count);
    for (const uint32_t due : {5u, 2u}) {
        auto *record = static_cast<Record *>(zelcwGetTimer(wheel));
        record->due = due;
        zelcwStartTimer(wheel, record, due);
    }
    testing::internal::CaptureStdout();
    zelcwPrintOnlyTimerInfo(wheel);
    zelcwPrintTimerInfo(wheel);
    zelcwPrintTimerInfo(nullptr);
    const std::string running = "---------------------------------------------------\r2;5;";
    EXPECT_EQ(testing::internal::GetCapturedStdout(), running + running + "Free List:\r0;tzelcwTimerCB is NULL\r");
    zelcwTimerUnInit(wheel);
}

// Timers that start themselves again, each with the tick in which it is to fire. Their owner sleeps until the next one
// is due, and then makes up for the ticks that have passed.
TEST(Wheel, KeepsTheTimeOfADay) {
    static Random random = seeded();
    static zelcwTimerCB *wheel;
    static const auto start = [](Record &record, uint64_t next) {
        const uint32_t timeout = 1 + random() % 1023;
        record.due = next + timeout;
        zelcwStartTimer(wheel, &record, timeout);
    };
    const auto expire = [](void *timer) {
        auto &record = *static_cast<Record *>(timer);
        EXPECT_EQ(record.due, tick64Get());
        ++fired;
        start(record, record.due);
    };
    Simulation world(1);
    wheel = makeWheel(1024, 20, 0, expire);
    std::vector<Record *> records;
    for (int i = 0; i < 20; ++i) {
        records.push_back(static_cast<Record *>(zelcwGetTimer(wheel)));
        start(*records.back(), tick64Get() + 1);
    }
    for (const uint64_t end = tick64Get() + 24 * 3600 * 50; tick64Get() < end && !testing::Test::HasFailure();) {
        const int ticks = zelcwTimerRetNext(wheel);
        taskDelay(ticks);
        fired = 0;
        for (int i = 0; i < ticks - 1; ++i) zelcwTimerTick(wheel);
        EXPECT_EQ(fired, 0);
        zelcwTimerTick(wheel);
        EXPECT_GT(fired, 0);
        for (const Record *record : records) EXPECT_GT(record->due, tick64Get());
    }
    zelcwTimerUnInit(wheel);
}

}  // namespace
}  // namespace zel::test
