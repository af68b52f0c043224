// Ticks, watchdogs and interval timers: in simulated time wherever the time matters, with the service tasks where the
// task matters.
#include <string>
#include <utility>
#include <vector>

#include "kernel/task.h"
#include "platform/seam.h"
#include "tests/kernel/tasks.h"
#include "zel/platform.h"

namespace zel::test {
namespace {

// A clock that only tests move.
class SimulatedTime {
public:
    explicit SimulatedTime(std::uint64_t start) : seam_(*zelPlatformSeam()), now_(start) {
        seam_.context = this;
        seam_.now = [](void *self) { return static_cast<SimulatedTime *>(self)->now_; };
        seam_.sleepUntil = [](void *self, std::uint64_t deadline) {
            auto &time = *static_cast<SimulatedTime *>(self);
            if (deadline > time.now_) time.now_ = deadline;
            return 0;
        };
        seam_.simulated = 1;
        zelPlatformSetSeam(&seam_);
    }
    ~SimulatedTime() { zelPlatformSetSeam(nullptr); }
    SimulatedTime(const SimulatedTime &) = delete;
    SimulatedTime &operator=(const SimulatedTime &) = delete;

    void advanceMilliseconds(std::uint64_t milliseconds) { now_ += milliseconds * 1'000'000; }
    std::uint64_t now() const { return now_; }

private:
    zelHostSeam seam_;
    std::uint64_t now_;
};

constexpr std::uint64_t uptime = 100'000'019'999'999;  // 100,000 s and just short of a tick

class Ticks : public KernelTest {
protected:
    SimulatedTime time{uptime};
};

TEST_F(Ticks, CountTheMonotonicClockInTwentyMilliseconds) {
    EXPECT_EQ(tick64Get(), 5'000'000u);
    time.advanceMilliseconds(1);
    EXPECT_EQ(tick64Get(), 5'000'001u);
    time.advanceMilliseconds(1000);
    EXPECT_EQ(zelTickGet(), 5'000'051u);
    // A delay sleeps its ticks; one that is over at once does not.
    const std::uint64_t start = time.now();
    EXPECT_EQ(taskDelay(75) + taskDelay(0) + taskDelay(-5), ZEL_OK);
    EXPECT_EQ(time.now() - start, 1'500'000'000u);
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
        SimulatedTime fresh{uptime};
        tick64Set(static_cast<std::uint32_t>(row.wanted >> 32), static_cast<std::uint32_t>(row.wanted));
        EXPECT_EQ(vxAbsTicksSign, row.sign) << row.wanted;
        EXPECT_EQ(vxAbsTicksAdd, row.magnitude) << row.wanted;
        EXPECT_EQ(tick64Get(), row.wanted);
        fresh.advanceMilliseconds(1000);
        EXPECT_EQ(tick64Get(), row.wanted + 50);
    }
    tickSet(0xfffffff0);
    EXPECT_EQ(tick64Get(), 0xfffffff0u);
}

TEST(TickReaders, NeverSeeHalfOfASetting) {
    ASSERT_EQ(vx2bsdLibInit(), 0);
    std::atomic<bool> isOver{false};
    std::atomic<int> bad{0};
    tickSet(1000);
    const zelTaskId reader = spawn([&] {
        while (!isOver) {
            // Either far ahead or near 1000; a mixed pair is neither.
            const std::uint64_t ticks = tick64Get();
            if (!(ticks >= 1000 && ticks < 100000) && !(ticks >> 32 == 7)) ++bad;
        }
    });
    for (int i = 0; i < 20000; ++i) {
        tick64Set(7, 5);
        tickSet(1000);
    }
    isOver = true;
    EXPECT_TRUE(ends(reader));
    EXPECT_EQ(bad, 0);
}

// What routines were called with, in order.
using Calls = std::vector<std::string>;
Calls calls;
zelWdogId watchdogs[4];
zelIntervalTimerId timers[4];
void note(const std::string &text) {
    calls.push_back(text);
}
Calls takeCalls() {
    return std::exchange(calls, {});
}

void ring(intptr_t parameter) {
    note("ring " + std::to_string(parameter));
}

// What a pass over the watchdogs calls.
Calls pass() {
    process_timer_list();
    return takeCalls();
}

class Watchdogs : public KernelTest {
protected:
    void SetUp() override {
        KernelTest::SetUp();
        for (zelWdogId &watchdog : watchdogs) watchdog = wdCreate();
    }
    void TearDown() override {
        for (const zelWdogId watchdog : watchdogs) wdDelete(watchdog);
        KernelTest::TearDown();
    }
};

TEST_F(Watchdogs, FireOnceAtTheNextPassWhateverTheDelay) {
    EXPECT_EQ(wdStart(watchdogs[0], 500, ring, 1), ZEL_OK);
    EXPECT_EQ(wdStart(watchdogs[0], 500, ring, 7), ZEL_OK);  // only replaces what it calls
    EXPECT_EQ(wdStart(watchdogs[1], 0, ring, 8), ZEL_OK);
    EXPECT_EQ(wdStart(watchdogs[2], -1, nullptr, 9), ZEL_OK);
    EXPECT_EQ(pass(), (Calls{"ring 7", "ring 8"}));
    EXPECT_EQ(pass(), Calls{});
}

TEST_F(Watchdogs, CancelledOrDeletedOnesDoNotFire) {
    EXPECT_EQ(wdCancel(watchdogs[0]), ZEL_OK);  // idle
    wdStart(watchdogs[0], 1, ring, 1);
    wdStart(watchdogs[1], 1, ring, 2);
    EXPECT_EQ(wdCancel(watchdogs[0]), ZEL_OK);
    EXPECT_EQ(wdDelete(watchdogs[1]), ZEL_OK);
    EXPECT_EQ(pass(), Calls{});
    for (const zelWdogId unknown : {watchdogs[1], zelWdogId{}, reinterpret_cast<zelWdogId>(this)}) {
        EXPECT_FAILS_WITH(ZEL_ERR_INVALID_OBJECT_ID, wdStart(unknown, 1, ring, 1));
        EXPECT_FAILS_WITH(ZEL_ERR_INVALID_OBJECT_ID, wdCancel(unknown));
        EXPECT_FAILS_WITH(ZEL_ERR_INVALID_OBJECT_ID, wdDelete(unknown));
    }
}

TEST_F(Watchdogs, ARoutineMayDoAnythingToItselfAndItsNeighbours) {
    // Deletes itself: the rest of the walk goes on.
    const auto deleteSelf = [](intptr_t) {
        note("self");
        wdDelete(watchdogs[0]);
    };
    wdStart(watchdogs[0], 1, deleteSelf, 0);
    wdStart(watchdogs[1], 1, ring, 1);
    EXPECT_EQ(pass(), (Calls{"self", "ring 1"}));
    // Deletes the next: the walk ends there, the others wait for the next pass.
    const auto deleteNext = [](intptr_t) {
        note("next");
        wdDelete(watchdogs[2]);
    };
    wdStart(watchdogs[1], 1, deleteNext, 0);
    wdStart(watchdogs[2], 1, ring, 2);
    wdStart(watchdogs[3], 1, ring, 3);
    EXPECT_EQ(pass(), Calls{"next"});
    EXPECT_EQ(pass(), Calls{"ring 3"});
    // The last of the walk starts itself again and creates another: both for the next pass.
    const auto startBoth = [](intptr_t) {
        note("again");
        wdStart(watchdogs[3], 1, ring, 4);
        watchdogs[0] = wdCreate();
        wdStart(watchdogs[0], 1, ring, 5);
    };
    wdStart(watchdogs[3], 1, startBoth, 0);
    EXPECT_EQ(pass(), Calls{"again"});
    EXPECT_EQ(pass(), (Calls{"ring 4", "ring 5"}));
}

class IntervalTimers : public KernelTest {
protected:
    void SetUp() override {
        KernelTest::SetUp();
        for (zelIntervalTimerId &timer : timers) timer = vx2bsdTimerCreate();
    }
    void TearDown() override {
        for (const zelIntervalTimerId timer : timers) vx2bsdTimerDelete(timer);
        KernelTest::TearDown();
    }
    static Calls second() {
        process_vx2bsd_timer_list();
        return takeCalls();
    }
    // The seconds, counted from 1, at which something was called.
    static std::vector<int> passes(int seconds) {
        std::vector<int> fired;
        for (int i = 1; i <= seconds; ++i)
            if (!second().empty()) fired.push_back(i);
        return fired;
    }
};

void tell(zelIntervalTimerId, intptr_t argument) {
    note("timer " + std::to_string(argument));
}

TEST_F(IntervalTimers, OneShotAndPeriodic) {
    const struct {
        int seconds, flags;
        std::vector<int> fires;
    } rows[] = {{3, 0, {3}}, {3, 1, {3, 6, 9}}, {0, 0x2, {1}}, {-7, 0x3, {1, 2, 3, 4, 5, 6, 7, 8, 9}}};
    for (const auto &row : rows) {
        EXPECT_EQ(vx2bsdTimerStart(timers[0], row.seconds, tell, 1, row.flags), ZEL_OK);
        EXPECT_EQ(passes(9), row.fires) << row.seconds;
    }
    EXPECT_EQ(vx2bsdTimerSetTime(timers[0], 2, 0), ZEL_OK);  // same routine, same argument
    EXPECT_EQ(passes(5), std::vector<int>{2});
    vx2bsdTimerStart(timers[0], 1, tell, 1, 1);
    EXPECT_EQ(vx2bsdTimerCancel(timers[0]), ZEL_OK);
    EXPECT_EQ(passes(3), std::vector<int>{});
}

TEST_F(IntervalTimers, CallWhatIsConnectedAndNothingWithoutARoutine) {
    vx2bsdTimerStart(timers[1], 1, tell, 1, 1);
    EXPECT_EQ(vx2bsdTimerConnect(timers[1], tell, 5), ZEL_OK);
    EXPECT_EQ(second(), Calls{"timer 5"});
    vx2bsdTimerConnect(timers[1], nullptr, 0);
    EXPECT_EQ(second(), Calls{});
    vx2bsdTimerConnect(timers[1], tell, 6);
    EXPECT_EQ(passes(3), std::vector<int>{});  // it was not reloaded
    for (const zelIntervalTimerId unknown : {zelIntervalTimerId{}, reinterpret_cast<zelIntervalTimerId>(this)}) {
        EXPECT_FAILS_WITH(ZEL_ERR_INVALID_OBJECT_ID, vx2bsdTimerStart(unknown, 1, tell, 1, 0));
        EXPECT_FAILS_WITH(ZEL_ERR_INVALID_OBJECT_ID, vx2bsdTimerConnect(unknown, tell, 1));
        EXPECT_FAILS_WITH(ZEL_ERR_INVALID_OBJECT_ID, vx2bsdTimerSetTime(unknown, 1, 0));
        EXPECT_FAILS_WITH(ZEL_ERR_INVALID_OBJECT_ID, vx2bsdTimerCancel(unknown));
        EXPECT_FAILS_WITH(ZEL_ERR_INVALID_OBJECT_ID, vx2bsdTimerDelete(unknown));
    }
}

TEST_F(IntervalTimers, APeriodicRoutineMayCancelOrDeleteItsTimerAndTheNext) {
    const auto cancel = [](zelIntervalTimerId timer, intptr_t) {
        note("cancel");
        vx2bsdTimerCancel(timer);
    };
    const auto deleteBoth = [](zelIntervalTimerId timer, intptr_t) {
        note("delete");
        vx2bsdTimerDelete(timer);
        vx2bsdTimerDelete(timers[2]);
    };
    vx2bsdTimerStart(timers[0], 1, cancel, 0, 1);
    vx2bsdTimerStart(timers[1], 1, deleteBoth, 0, 1);
    vx2bsdTimerStart(timers[2], 1, tell, 2, 1);
    vx2bsdTimerStart(timers[3], 1, tell, 3, 0);
    EXPECT_EQ(second(), (Calls{"cancel", "delete"}));
    EXPECT_EQ(second(), Calls{"timer 3"});
    EXPECT_EQ(passes(3), std::vector<int>{});
}

TEST_F(IntervalTimers, AndWatchdogsAreCalledByTheServiceTasks) {
    startServices();
    static std::atomic<int> ticked{0}, rung{0};
    const zelWdogId watchdog = wdCreate();
    wdStart(
        watchdog, 500, [](intptr_t seven) { rung = seven == 7 && taskName(0) == std::string("tExcTask") ? 1 : 2; }, 7);
    vx2bsdTimerStart(
        timers[0], 1, [](zelIntervalTimerId, intptr_t) { ticked += taskName(0) == std::string("tTimerTask") ? 1 : 9; },
        0, 1);
    EXPECT_TRUE(eventually(20, [] { return ticked >= 2 && rung != 0; }));
    EXPECT_LT(ticked, 9);
    EXPECT_EQ(rung, 1);
    wdDelete(watchdog);
}

TEST_F(IntervalTimers, TimersMayComeAndGoWhileThePassRuns) {
    std::atomic<bool> isOver{false};
    const auto nothing = [](intptr_t) {};
    const zelTaskId churn = spawn([&] {
        while (!isOver) {
            const zelIntervalTimerId timer = vx2bsdTimerCreate();
            vx2bsdTimerStart(
                timer, 1, [](zelIntervalTimerId, intptr_t) {}, 0, 1);
            const zelWdogId watchdog = wdCreate();
            wdStart(watchdog, 1, nothing, 0);
            taskDelay(0);
            vx2bsdTimerDelete(timer);
            wdDelete(watchdog);
        }
    });
    for (int i = 0; i < 3000; ++i) {
        process_vx2bsd_timer_list();
        process_timer_list();
    }
    isOver = true;
    EXPECT_TRUE(ends(churn));
}

}  // namespace
}  // namespace zel::test
