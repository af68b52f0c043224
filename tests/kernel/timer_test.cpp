// Ticks, watchdogs and interval timers: in simulated time wherever the time matters, with the service tasks where the
// task matters.
#include <string>
#include <utility>
#include <vector>

#include "tests/kernel/tasks.h"
#include "tests/support/fake_network.h"

namespace zel::test {
namespace {

constexpr std::uint64_t millisecond = 1'000'000;
constexpr std::uint64_t uptime = 100'000'019'999'999;  // 100,000 s and just short of a tick

class Ticks : public KernelTest {
protected:
    FakeNetwork time;
};

TEST_F(Ticks, CountTheMonotonicClockInTwentyMilliseconds) {
    time.now = uptime;
    EXPECT_EQ(tick64Get(), 5'000'000u);
    time.now += millisecond;
    EXPECT_EQ(tick64Get(), 5'000'001u);
    time.now += 1000 * millisecond;
    EXPECT_EQ(zelTickGet(), 5'000'051u);
    // A delay sleeps its ticks; one that is over at once does not.
    const std::uint64_t start = time.now;
    EXPECT_EQ(taskDelay(75) + taskDelay(0) + taskDelay(-5), ZEL_OK);
    EXPECT_EQ(time.now - start, 1500 * millisecond);
    EXPECT_EQ(vx2bsd_start(1, 1, 0, 0), ZEL_OK);  // nobody but the simulation drives the passes
    EXPECT_EQ(taskCount(), 0);
}

TEST_F(Ticks, CanBeSetForwardsAndBack) {
    const struct {
        std::uint64_t wanted;
        std::int32_t sign;
        std::uint64_t magnitude;
    } rows[] = {{1000, -1, 4'999'000},
                {5'000'000, -1, 0},
                {5'000'001, 0, 1},
                {1ull << 32, 0, (1ull << 32) - 5'000'000},
                {UINT64_MAX - 50, 0, UINT64_MAX - 5'000'050}};
    for (const auto &row : rows) {
        time.now = uptime;
        tick64Set(static_cast<std::uint32_t>(row.wanted >> 32), static_cast<std::uint32_t>(row.wanted));
        EXPECT_EQ(vxAbsTicksSign, row.sign) << row.wanted;
        EXPECT_EQ(vxAbsTicksAdd, row.magnitude) << row.wanted;
        EXPECT_EQ(tick64Get(), row.wanted);
        time.now += 1000 * millisecond;
        EXPECT_EQ(tick64Get(), row.wanted + 50);
    }
    tickSet(0xfffffff0);
    EXPECT_EQ(tick64Get(), 0xfffffff0u);
}

TEST(TickReaders, NeverSeeHalfOfASetting) {
    Gate over;
    tickSet(1000);
    TestTask reader([&] {
        while (!over.isOpen()) {
            const std::uint64_t ticks = tick64Get();
            EXPECT_TRUE(ticks >> 32 == 7 || (ticks >= 1000 && ticks < 100000)) << ticks;  // a mixed pair is neither
        }
    });
    for (int i = 0; i < 20000; ++i) tick64Set(7, 5), tickSet(1000);
    over.open();
    EXPECT_TRUE(reader.ends());
}

// What routines were called with, in order.
using Calls = std::vector<std::string>;
Calls calls;
Calls takeCalls() {
    return std::exchange(calls, {});
}
zelWdogId watchdogs[4];
zelIntervalTimerId timers[2];

void ring(intptr_t parameter) {
    calls.push_back("ring " + std::to_string(parameter));
}
void tell(zelIntervalTimerId, intptr_t argument) {
    calls.push_back("timer " + std::to_string(argument));
}

class Timers : public KernelTest {
protected:
    void SetUp() override {
        KernelTest::SetUp();
        for (zelWdogId &watchdog : watchdogs) watchdog = wdCreate();
        for (zelIntervalTimerId &timer : timers) timer = vx2bsdTimerCreate();
    }
    void TearDown() override {
        for (const zelWdogId watchdog : watchdogs) wdDelete(watchdog);
        for (const zelIntervalTimerId timer : timers) vx2bsdTimerDelete(timer);
        KernelTest::TearDown();
    }
    static Calls pass() {
        process_timer_list();
        return takeCalls();
    }
    // The seconds, counted from 1, at which an interval timer called something.
    static std::vector<int> firesIn(int seconds) {
        std::vector<int> fired;
        for (int i = 1; i <= seconds; ++i) {
            process_vx2bsd_timer_list();
            if (!takeCalls().empty()) fired.push_back(i);
        }
        return fired;
    }
};

TEST_F(Timers, AWatchdogFiresOnceAtTheNextPassWhateverTheDelay) {
    EXPECT_EQ(wdCancel(watchdogs[0]), ZEL_OK);  // idle
    EXPECT_EQ(wdStart(watchdogs[0], 500, ring, 1), ZEL_OK);
    EXPECT_EQ(wdStart(watchdogs[0], 500, ring, 7), ZEL_OK);  // only replaces what it calls
    EXPECT_EQ(wdStart(watchdogs[1], 0, ring, 8), ZEL_OK);
    EXPECT_EQ(wdStart(watchdogs[2], -1, nullptr, 9), ZEL_OK);
    EXPECT_EQ(wdStart(watchdogs[3], 1, ring, 10) + wdCancel(watchdogs[3]), ZEL_OK);
    EXPECT_EQ(pass(), (Calls{"ring 7", "ring 8"}));
    EXPECT_EQ(pass(), Calls{});
}

TEST_F(Timers, ARoutineMayDoAnythingToItselfAndItsNeighbours) {
    // Deletes itself: the rest of the walk goes on.
    const auto deleteSelf = [](intptr_t) { wdDelete(watchdogs[0]); };
    wdStart(watchdogs[0], 1, deleteSelf, 0);
    wdStart(watchdogs[1], 1, ring, 1);
    EXPECT_EQ(pass(), (Calls{"ring 1"}));
    // Deletes the next: the walk ends there, the others wait for the next pass.
    const auto deleteNext = [](intptr_t) { wdDelete(watchdogs[2]); };
    wdStart(watchdogs[1], 1, deleteNext, 0);
    wdStart(watchdogs[2], 1, ring, 2);
    wdStart(watchdogs[3], 1, ring, 3);
    EXPECT_EQ(pass(), Calls{});
    EXPECT_EQ(pass(), Calls{"ring 3"});
    // The last of the walk starts itself again and creates another: both for the next pass.
    const auto startBoth = [](intptr_t) {
        wdStart(watchdogs[3], 1, ring, 4);
        watchdogs[0] = wdCreate();
        wdStart(watchdogs[0], 1, ring, 5);
    };
    wdStart(watchdogs[3], 1, startBoth, 0);
    EXPECT_EQ(pass(), Calls{});
    EXPECT_EQ(pass(), (Calls{"ring 4", "ring 5"}));
}

TEST_F(Timers, AnIntervalTimerFiresOnceOrPeriodically) {
    const struct {
        int seconds, flags;
        std::vector<int> fires;
    } rows[] = {{3, 0, {3}}, {3, 1, {3, 6, 9}}, {0, 0x2, {1}}, {-7, 0x3, {1, 2, 3, 4, 5, 6, 7, 8, 9}}};
    for (const auto &row : rows) {
        EXPECT_EQ(vx2bsdTimerStart(timers[0], row.seconds, tell, 1, row.flags), ZEL_OK);
        EXPECT_EQ(firesIn(9), row.fires) << row.seconds;
    }
    EXPECT_EQ(vx2bsdTimerSetTime(timers[0], 2, 0), ZEL_OK);  // same routine, same argument
    EXPECT_EQ(firesIn(5), std::vector<int>{2});
    vx2bsdTimerStart(timers[0], 1, tell, 1, 1);
    EXPECT_EQ(vx2bsdTimerCancel(timers[0]), ZEL_OK);
    EXPECT_EQ(firesIn(3), std::vector<int>{});
    // Its routine may cancel it: the reload came before.
    const auto cancel = [](zelIntervalTimerId timer, intptr_t) { tell(timer, vx2bsdTimerCancel(timer)); };
    vx2bsdTimerStart(timers[0], 1, cancel, 0, 1);
    EXPECT_EQ(firesIn(3), std::vector<int>{1});
}

TEST_F(Timers, AnIntervalTimerCallsWhatIsConnectedAndStopsWithoutARoutine) {
    vx2bsdTimerStart(timers[1], 1, tell, 1, 1);
    EXPECT_EQ(vx2bsdTimerConnect(timers[1], tell, 5), ZEL_OK);
    process_vx2bsd_timer_list();
    EXPECT_EQ(takeCalls(), Calls{"timer 5"});
    vx2bsdTimerConnect(timers[1], nullptr, 0);
    EXPECT_EQ(firesIn(1), std::vector<int>{});
    vx2bsdTimerConnect(timers[1], tell, 6);
    EXPECT_EQ(firesIn(3), std::vector<int>{});  // it was not reloaded
}

TEST_F(Timers, UnknownOnesAreRefused) {
    wdStart(watchdogs[1], 1, ring, 2);
    vx2bsdTimerStart(timers[1], 1, tell, 2, 1);
    EXPECT_EQ(wdDelete(watchdogs[1]) + vx2bsdTimerDelete(timers[1]), ZEL_OK);
    for (void *unknown : {static_cast<void *>(watchdogs[1]), static_cast<void *>(timers[1]), static_cast<void *>(this),
                          static_cast<void *>(nullptr)}) {
        const auto watchdog = static_cast<zelWdogId>(unknown);
        const auto timer = static_cast<zelIntervalTimerId>(unknown);
        EXPECT_FAILS_WITH(ZEL_ERR_INVALID_OBJECT_ID, wdStart(watchdog, 1, ring, 1));
        for (const auto call : {wdCancel, wdDelete}) EXPECT_FAILS_WITH(ZEL_ERR_INVALID_OBJECT_ID, call(watchdog));
        EXPECT_FAILS_WITH(ZEL_ERR_INVALID_OBJECT_ID, vx2bsdTimerStart(timer, 1, tell, 1, 0));
        EXPECT_FAILS_WITH(ZEL_ERR_INVALID_OBJECT_ID, vx2bsdTimerConnect(timer, tell, 1));
        EXPECT_FAILS_WITH(ZEL_ERR_INVALID_OBJECT_ID, vx2bsdTimerSetTime(timer, 1, 0));
        for (const auto call : {vx2bsdTimerCancel, vx2bsdTimerDelete})
            EXPECT_FAILS_WITH(ZEL_ERR_INVALID_OBJECT_ID, call(timer));
    }
    EXPECT_EQ(pass(), Calls{});
    EXPECT_EQ(firesIn(2), std::vector<int>{});
}

std::atomic<int> ticked{0}, rung{0};
int countIn(const char *task) {
    return taskNameToId(task) == taskIdSelf() ? 1 : 100;
}

TEST_F(Timers, AreCalledByTheServiceTasks) {
    startServices();
    const auto ringOnce = [](intptr_t parameter) { rung += parameter == 7 ? countIn("tExcTask") : 100; };
    const auto tick = [](zelIntervalTimerId, intptr_t) { ticked += countIn("tTimerTask"); };
    wdStart(watchdogs[0], 500, ringOnce, 7);
    vx2bsdTimerStart(timers[0], 1, tick, 0, 1);
    EXPECT_TRUE(eventually(20, [] { return ticked >= 2; }));
    EXPECT_LT(ticked, 100);
    EXPECT_EQ(rung, 1);
}

TEST_F(Timers, MayComeAndGoWhileThePassRuns) {
    const auto nothing = [](zelIntervalTimerId, intptr_t) {};
    const auto idle = [](intptr_t) {};
    const zelTaskId churn = spawn([&] {
        while (!gate.isOpen()) {
            const zelIntervalTimerId timer = vx2bsdTimerCreate();
            vx2bsdTimerStart(timer, 1, nothing, 0, 1);
            const zelWdogId watchdog = wdCreate();
            wdStart(watchdog, 1, idle, 0);
            taskDelay(0);
            EXPECT_EQ(vx2bsdTimerDelete(timer) + wdDelete(watchdog), ZEL_OK);
        }
    });
    for (int i = 0; i < 3000; ++i) process_vx2bsd_timer_list(), process_timer_list();
    gate.open();
    EXPECT_TRUE(ends(churn));
}

}  // namespace
}  // namespace zel::test
