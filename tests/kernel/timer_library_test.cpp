// The timer library: a simulated day of random calls against a model, then what happens at the edges and between tasks.
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "tests/kernel/tasks.h"
#include "tests/support/failing_allocator.h"
#include "tests/support/random.h"
#include "tests/support/simulation.h"
#include "zel/platform.h"

// A library of cooperative threads, which counts how often it is asked to yield.
static int yields = 0;
void zelThreadYield(void *) {
    ++yields;
}

namespace zel::test {
namespace {

void *allocateRecord(size_t size, zelTmrCb, intptr_t, uint32_t, uint32_t, int, zelTmrHead *) {
    return FailingAllocator::allocate(size);
}

// A timer as the model sees it.
struct Timer {
    class TimersOfADay *day;
    zelTimer *timer = nullptr;  // null when it was deleted
    uint64_t delay = 0, expiry = 0;
    bool isOther = false;  // of two callbacks
    bool isPeriodic = false, isEnabled = true, isLinked = false;
};

struct InOrder {
    bool operator()(const Timer *a, const Timer *b) const {
        return a->expiry != b->expiry ? a->expiry < b->expiry : a->timer < b->timer;
    }
};

class TimersOfADay : public testing::TestWithParam<bool> {
protected:
    void SetUp() override {
        ASSERT_EQ(zelTmrHeadInit(&head, allocateRecord, FailingAllocator::release, GetParam(), 0), 0);
    }
    void TearDown() override {
        EXPECT_EQ(zelTmrFlushAll(&head), 0);
        for (const auto &timer : timers)
            if (!timer->isLinked) zelTimerDelete(timer->timer, &head);
        EXPECT_EQ(FailingAllocator::live(), 0);
        EXPECT_EQ(zelTmrHeadDestroy(&head), 0);
    }

    uint32_t randomDelay(Timer &timer, uint32_t &seconds) {
        seconds = random() % 3 ? 0 : random() % 40;
        const uint32_t ticks = random() % 300 + (timer.isPeriodic ? 1 : 0);
        timer.delay = seconds * 50 + ticks;
        return ticks;
    }
    void link(Timer &timer) {
        timer.expiry = zelTimerTickGet() + timer.delay;
        timer.isLinked = linked.insert(&timer).second;
    }
    void unlink(Timer &timer) {
        if (timer.isLinked) linked.erase(&timer);
        timer.isLinked = false;
    }

    void create() {
        auto timer = std::make_unique<Timer>();
        timer->day = this;
        timer->isPeriodic = random() % 2;
        uint32_t seconds;
        const uint32_t ticks = randomDelay(*timer, seconds);
        FailingAllocator::failAt(random() % 10 == 0);
        timer->timer =
            zelTickTimerCreate(fire<false>, reinterpret_cast<intptr_t>(timer.get()), seconds, ticks,
                               timer->isPeriodic ? ZEL_TIMER_PERIODIC : static_cast<int>(random() % 3), &head);
        ASSERT_EQ(timer->timer == nullptr, FailingAllocator::hasFailed());
        FailingAllocator::failAt(0);
        if (!timer->timer) return;
        link(*timer);
        timers.push_back(std::move(timer));
    }
    void set(Timer &timer) {
        unlink(timer);
        uint32_t seconds;
        uint32_t ticks = randomDelay(timer, seconds);
        timer.isOther = random() % 2;
        const zelTmrCb callback = timer.isOther ? fire<true> : fire<false>;
        if (seconds == 0 || random() % 2) {
            ASSERT_EQ(zelTickTimerSet(timer.timer, seconds, ticks, callback, &head), 0);
        } else {
            timer.delay = seconds * 50;
            ASSERT_EQ(zelTimerSet(timer.timer, seconds, callback, &head), 0);
        }
        timer.isEnabled = true;
        link(timer);
    }
    void enable(Timer &timer) {
        const bool enables = random() % 2;
        ASSERT_EQ((enables ? zelTimerEnable : zelTimerLink)(timer.timer, &head), timer.isLinked ? -1 : 0);
        timer.isEnabled |= enables;
        if (!timer.isLinked) link(timer);
    }
    void disable(Timer &timer) {
        ASSERT_EQ(zelTimerDisable(timer.timer, &head), 0);
        unlink(timer);
        timer.isEnabled = false;
    }
    void takeOut(Timer &timer) {
        ASSERT_EQ(zelTimerUnlink(timer.timer, &head), 0);
        unlink(timer);
    }
    void remove(Timer &timer) {
        ASSERT_EQ(zelTimerDelete(timer.timer, &head), 0);
        unlink(timer);
        if (firing == &timer) firing = nullptr;
        timer.timer = nullptr;
        std::erase_if(timers,
                      [&](auto &each) { return each.get() == &timer && (deleted.push_back(std::move(each)), true); });
    }
    void act() {
        if (timers.size() < 5 || (random() % 3 == 0 && timers.size() < (steps / 5000 % 2 ? 300 : 40))) return create();
        Timer &some = *timers[random() % timers.size()];
        switch (random() % 8) {
            case 0:
            case 1:
                return remove(some);
            case 2:
                return disable(some);
            case 3:
                return enable(some);
            case 4:
                return takeOut(some);
            default:
                return set(some);
        }
    }

    // What the loop does after a callback.
    void finish() {
        if (firing && firing->isPeriodic && firing->isEnabled && !firing->isLinked) {
            firing->isOther = firedOther;
            link(*firing);
        }
        firing = nullptr;
    }
    template <bool isOther>
    static void fire(intptr_t argument) {
        auto *timer = reinterpret_cast<Timer *>(argument);
        ASSERT_EQ(timer->isOther, isOther);
        timer->day->fireInModel(*timer);
    }
    void fireInModel(Timer &timer) {
        finish();
        ++fired;
        ASSERT_FALSE(linked.empty());
        ASSERT_EQ(&timer, *linked.begin());
        ASSERT_LE(timer.expiry, rereads ? zelTimerTickGet() : now);
        unlink(timer);
        firing = &timer;
        firedOther = timer.isOther;
        if (random() % 4 == 0) taskDelay(static_cast<int>(random() % 60));
        for (int i = static_cast<int>(random() % 3); i > 0; --i) act();
        if (random() % 4 == 0 && timer.timer) random() % 2 ? remove(timer) : set(timer);
        if (random() % 4 == 0 && timer.timer) random() % 2 ? disable(timer) : takeOut(timer);
    }

    void process() {
        now = zelTimerTickGet();
        rereads = random() % 4 == 0;
        head.limit = random() % 3 == 0 ? 1 + random() % 4 : 0;
        const uint32_t most = random() % 8, yieldAfter = random() % 4;
        fired = yields = 0;
        ASSERT_EQ(rereads ? zelProcTimersThread(&head, yieldAfter, most, this) : zelProcTimers(&head), fired);
        finish();
        const int limit = static_cast<int>(rereads && most && (!head.limit || most < head.limit) ? most : head.limit);
        const bool nothingIsDue = linked.empty() || (*linked.begin())->expiry > (rereads ? zelTimerTickGet() : now);
        ASSERT_TRUE(limit == 0 ? nothingIsDue : fired == limit || (fired < limit && nothingIsDue));
        ASSERT_EQ(yields, rereads && yieldAfter ? std::max(0, fired - static_cast<int>(yieldAfter)) : 0);
    }

    zelTmrHead head{};
    Random random = seeded();
    Simulation world{1};
    std::vector<std::unique_ptr<Timer>> timers, deleted;
    std::set<Timer *, InOrder> linked;
    Timer *firing = nullptr;
    uint64_t now = 0;
    bool rereads = false, firedOther = false;
    int fired = 0, steps = 0;
};

TEST_P(TimersOfADay, AgreeWithTheModel) {
    const uint64_t end = tick64Get() + (isFullRun() ? 10 : 1) * 24 * 3600 * 50;
    for (; tick64Get() < end && !HasFailure(); ++steps) {
        taskDelay(static_cast<int>(random() % 80));
        // Now and then the timers' clock is set.
        if (random() % 1000 == 0) zelTimerTickOffset += random() % 20 ? random() % 2000 - 1000ull : 1ull << 40;
        act();
        process();
        ASSERT_EQ(zelTmrTreeEmpty(&head), linked.empty());
        ASSERT_EQ(head.linked, linked.size());
        ASSERT_EQ(FailingAllocator::live(), static_cast<int>(timers.size()));
        deleted.clear();
    }
}

INSTANTIATE_TEST_SUITE_P(WithAGuard, TimersOfADay, testing::Bool());

void nothing(intptr_t) {}

class TimerHead : public KernelTest {
protected:
    void SetUp() override {
        KernelTest::SetUp();
        ASSERT_EQ(zelTmrHeadInit(&head, nullptr, nullptr, 1, 0), 0);
    }
    void TearDown() override {
        EXPECT_EQ(zelTmrTreeEmpty(&head), 1);
        zelTmrHeadDestroy(&head);
        KernelTest::TearDown();
    }
    zelTmrHead head{};
};

TEST_F(TimerHead, RefusesNullAndADestroyedHead) {
    zelTmrHead gone{};
    EXPECT_EQ(zelTmrHeadInit(nullptr, nullptr, nullptr, 0, 0) + zelTmrHeadInit(&gone, nullptr, nullptr, 1, 0), -1);
    EXPECT_EQ(zelTmrHeadDestroy(nullptr) + zelTmrHeadDestroy(&gone), -1);
    zelTimer *timer = zelTimerCreate(nothing, 0, 1, 0, &head);
    EXPECT_EQ(zelTimerCreate(nullptr, 0, 1, 0, &head), nullptr);
    EXPECT_EQ(zelTimerSet(timer, 1, nullptr, &head), -1);
    for (zelTmrHead *none : {static_cast<zelTmrHead *>(nullptr), &gone}) {
        EXPECT_EQ(zelTimerCreate(nothing, 0, 1, 0, none), nullptr);
        EXPECT_EQ(zelTimerSet(timer, 1, nothing, none), -1);
        for (const auto call : {zelTimerEnable, zelTimerDisable, zelTimerDelete, zelTimerLink, zelTimerUnlink})
            EXPECT_EQ(call(timer, none) + call(nullptr, &head), -2);
        EXPECT_EQ(zelProcTimers(none), none ? 0 : -1);
        EXPECT_EQ(zelTmrFlushAll(none), -1);
        EXPECT_EQ(zelTmrTreeEmpty(none), 1);
    }
    EXPECT_LT(zelTmrCompare(nullptr, timer), 0);
    EXPECT_GT(zelTmrCompare(timer, nullptr), 0);
    EXPECT_EQ(zelTimerDelete(timer, &head), 0);
}

// A periodic timer does not survive that; a one-shot one that has fired is its owner's.
TEST_F(TimerHead, MayBeFlushedByACallback) {
    const auto flush = [](intptr_t its) { zelTmrFlushAll(reinterpret_cast<zelTmrHead *>(its)); };
    zelTimer *once = zelTimerCreate(flush, reinterpret_cast<intptr_t>(&head), 0, 0, &head);
    zelTimerCreate(nothing, 0, 10, 0, &head);
    EXPECT_EQ(zelProcTimers(&head), 1);
    EXPECT_EQ(zelTimerDelete(once, &head), 0);
    zelTimerCreate(flush, reinterpret_cast<intptr_t>(&head), 0, ZEL_TIMER_PERIODIC, &head);
    EXPECT_EQ(zelProcTimers(&head), 1);
}

// Its timers go on in the head that is made in the same place; one that fires is not linked there by the old loop.
TEST_F(TimerHead, LetsGoOfItsTimersWhenDestroyed) {
    const auto renew = [](intptr_t its) {
        auto *old = reinterpret_cast<zelTmrHead *>(its);
        EXPECT_EQ(zelTmrHeadDestroy(old) + zelTmrHeadInit(old, nullptr, nullptr, 1, 0), 0);
    };
    zelTimer *timers[] = {
        zelTimerCreate(renew, reinterpret_cast<intptr_t>(&head), 0, ZEL_TIMER_PERIODIC, &head),
        zelTimerCreate(nothing, 0, 9, 0, &head),
        zelTimerCreate(nothing, 0, 9, 0, &head),
    };
    EXPECT_EQ(zelProcTimers(&head), 1);
    EXPECT_EQ(zelTmrTreeEmpty(&head), 1);
    EXPECT_EQ(zelTimerEnable(timers[1], &head), 0);
    for (zelTimer *timer : timers) EXPECT_EQ(zelTimerDelete(timer, &head), 0);
}

TEST_F(TimerHead, KeepsItsTimersWithoutItsGuard) {
    zelTimer *timer = zelTimerCreate(nothing, 0, 0, 0, &head);
    semDelete(head.guard);
    EXPECT_EQ(zelTmrFlushAll(&head), -1);
    EXPECT_EQ(zelProcTimers(&head), 0);
    EXPECT_EQ(zelTmrHeadDestroy(&head), 0);
    zelTimerLibFree(timer);
}

TEST_F(TimerHead, IsNotMadeWithoutItsGuard) {
    while (semBCreate(ZEL_SEM_FIFO, 0) != 0) continue;
    zelTmrHead refused{};
    EXPECT_EQ(zelTmrHeadInit(&refused, nullptr, nullptr, 1, 0), -1);
}

TEST_F(TimerHead, IsLookedForAgainWithTheGuard) {
    zelTmrHead brief{};
    ASSERT_EQ(zelTmrHeadInit(&brief, nullptr, FailingAllocator::release, 1, 0), 0);
    brief.allocRoutine = [](size_t size, zelTmrCb, intptr_t, uint32_t, uint32_t, int, zelTmrHead *its) {
        EXPECT_EQ(zelTmrHeadDestroy(its), 0);
        return FailingAllocator::allocate(size);
    };
    EXPECT_EQ(zelTimerCreate(nothing, 0, 1, 0, &brief), nullptr);
    EXPECT_EQ(FailingAllocator::live(), 0);
}

TEST_F(TimerHead, IsSharedByTasks) {
    const auto count = [](intptr_t calls) { ++*reinterpret_cast<std::atomic<int> *>(calls); };
    std::atomic<int> calls{0}, busy{3};
    const auto churn = [&] {
        for (unsigned i = 0; i < 2000; ++i) {
            zelTimer *timer = zelTickTimerCreate(count, reinterpret_cast<intptr_t>(&calls), 0, i % 2,
                                                 i % 3 ? 0 : ZEL_TIMER_PERIODIC, &head);
            zelTickTimerSet(timer, 0, 0, count, &head);
            if (i % 4 == 0) taskDelay(0);
            zelTimerDisable(timer, &head);
            zelTimerEnable(timer, &head);
            zelTimerDelete(timer, &head);
        }
        --busy;
    };
    TestTask first(churn), second(churn), third(churn);
    while (busy > 0) {
        zelProcTimers(&head);
        zelProcTimersThread(&head, 1, 10, nullptr);
    }
    EXPECT_GT(calls, 0);
}

// One task fires a timer over and over; another one deletes it, flushes it or, while its callback runs, destroys the
// head under it and makes it again. Nothing fires then any more.
TEST_F(TimerHead, LosesATimerToAnotherTaskWhileItFires) {
    static std::atomic<int> fired{0};
    const auto fire = [](intptr_t opened) {
        ++fired;
        reinterpret_cast<Gate *>(opened)->spin();
    };
    std::atomic<bool> isOver{false};
    std::atomic<int> loops{0};
    head.allocRoutine = allocateRecord;
    head.releaseRoutine = FailingAllocator::release;
    gate.open();
    TestTask firing([&] {
        for (; !isOver; ++loops) zelProcTimersThread(&head, 0, 3, nullptr);
    });
    for (int round = 0; round < 150; ++round) {
        const bool isDestroyed = round % 3 == 0;
        if (isDestroyed) gate.close();
        const int before = fired;
        zelTimer *timer = zelTickTimerCreate(fire, reinterpret_cast<intptr_t>(&gate), 0, 0, ZEL_TIMER_PERIODIC, &head);
        ASSERT_TRUE(eventually(patience, [&] { return fired > before; }));
        if (isDestroyed) {
            EXPECT_EQ(zelTmrHeadDestroy(&head), 0);
            EXPECT_EQ(zelTmrHeadInit(&head, allocateRecord, FailingAllocator::release, 1, 0), 0);
        }
        EXPECT_EQ(round % 3 == 1 ? zelTmrFlushAll(&head) : zelTimerDelete(timer, &head), 0);
        gate.open();
        const int seen = loops;  // in the second one from here on, no callback of this timer's runs
        ASSERT_TRUE(eventually(patience, [&] { return loops > seen + 1; }));
        EXPECT_EQ(zelTmrTreeEmpty(&head), 1);
        EXPECT_EQ(FailingAllocator::live(), 0);
    }
    isOver = true;
    EXPECT_TRUE(firing.ends());
}

// Deleted while it waits for the guard, or while it holds it and reads the time, a task leaves neither a record nor the
// guard behind; suspended there, it gives the guard first.
TEST_F(TimerHead, LosesNothingToADeletedTask) {
    static std::atomic<int> records{0};
    static std::atomic<bool> isInside{false}, timePasses{false};
    head.allocRoutine = [](size_t size, zelTmrCb, intptr_t, uint32_t, uint32_t, int, zelTmrHead *) {
        ++records;
        return malloc(size);
    };
    head.releaseRoutine = [](void *record) {
        --records;
        free(record);
    };
    const auto create = [&] { zelTimerCreate(nothing, 0, 1, 0, &head); };
    semTake(head.guard, WAIT_FOREVER);
    {
        TestTask waiting(create);
        EXPECT_TRUE(waiting.pends());
        EXPECT_EQ(records, 1);
    }
    EXPECT_EQ(records, 0);
    semGive(head.guard);
    zelHostSeam seam = *zelPlatformSeam();
    seam.now = [](void *) {
        while (taskIdSelf() != 0 && !timePasses) {
            isInside = true;
            pthread_testcancel();
        }
        return static_cast<uint64_t>(std::chrono::steady_clock::now().time_since_epoch().count());
    };
    zelPlatformSetSeam(&seam);
    {
        TestTask inside(create);
        EXPECT_TRUE(eventually(patience, [] { return isInside.load(); }));
    }
    EXPECT_EQ(records, 0);
    isInside = false;
    TestTask inside(create);
    EXPECT_TRUE(eventually(patience, [] { return isInside.load(); }));
    taskSuspend(inside.id());
    timePasses = true;
    EXPECT_EQ(semTake(head.guard, 500), ZEL_OK);
    semGive(head.guard);
    zelPlatformSetSeam(nullptr);
    zelTmrFlushAll(&head);
    taskResume(inside.id());
}

// ---- The timer tick and arithmetic ----

TEST(TimerTick, IsTheFirstWordOfAFile) {
    Simulation world(1);
    tickSet(0);
    const std::string path = testing::TempDir() + "tick" + std::to_string(getpid()), zeros(98, '0');
    const struct {
        std::string text, word, shown;
        uint64_t tick;
    } rows[] = {{"0x100\n", "0x100", "100", 256},
                {" 777 9", "777", "309", 777},
                {"0xFFFFFFFF00000000", "0xFFFFFFFF00000000", "FFFFFFFF00000000", 0xFFFFFFFF00000000},
                {zeros + "7234", zeros + "7", "7", 7}};
    for (const auto &row : rows) {
        std::ofstream(path) << row.text;
        testing::internal::CaptureStdout();
        zelTimerInitTick(path.c_str());
        EXPECT_EQ(testing::internal::GetCapturedStdout(), "offsetStr is " + row.word + " offset is 0x" + row.shown +
                                                              "\r\ntimer tick is 0x" + row.shown + "\r\n");
        EXPECT_EQ(zelTimerTickGet(), row.tick);
        EXPECT_EQ(tick64Get(), 0u);
    }
    std::ofstream(path) << " ";
    zelTimerInitTick(path.c_str());  // nothing is set from here on
    remove(path.c_str());
    zelTimerInitTick(path.c_str());
    zelTimerInitTick(nullptr);
    EXPECT_EQ(zelTimerTickGet(), 7u);
}

TEST(TickArithmetic, HasItsEdges) {
    constexpr uint64_t most = UINT64_MAX, two32 = 1ull << 32;
    const struct {
        int (*operation)(zelTick_t, zelTick_t, zelTick_t *);
        uint64_t a, b;
        int result;
        uint64_t out;
    } rows[] = {{zeltick_add_tick, 0xffffffff, 1, 0, two32},
                {zeltick_add_tick, most, 1, -1, 0},
                {zeltick_sub_tick, 5, 9, 0, 4},
                {zeltick_sub_tick, two32, 1, 0, 0xffffffff},
                {zeltick_mul_tick, two32, 3, 0, 3 * two32},
                {zeltick_mul_tick, most, 3, -1, most - 2},
                {zeltick_mul_tick, 0, 5, -1, 0},
                {zeltick_mul_tick, 0, 0, 0, 0},
                {zeltick_mul_tick, 3 * two32 / 2, 3 * two32 / 2, 0, 1ull << 62},  // an overflow that is not seen
                {zeltick_div_tick, two32, 3, 0, 0x55555555},
                {zeltick_div_tick, 7, 0, -1, 77}};
    const auto pair = [](uint64_t value) {
        return zelTick_t{static_cast<uint32_t>(value >> 32), static_cast<uint32_t>(value)};
    };
    for (const auto &row : rows) {
        zelTick_t out = pair(77);
        EXPECT_EQ(row.operation(pair(row.a), pair(row.b), &out), row.result) << row.a << " " << row.b;
        EXPECT_EQ(uint64_t{out.high} << 32 | out.low, row.out) << row.a << " " << row.b;
        EXPECT_EQ(row.operation(pair(row.a), pair(row.b), nullptr), -1);
    }
    uint32_t out = 77;
    EXPECT_EQ(zeltick_div_sec(7, 0, &out) + zeltick_div_sec(7, 1, nullptr) + zeltick_add_sec(1, 1, nullptr), -3);
    EXPECT_EQ(out, 77u);
    EXPECT_TRUE(zeltick_add_sec(0xffffffff, 2, &out) == -1 && out == 1);
    EXPECT_TRUE(zeltick_sub_sec(3, 10, &out) == 0 && out == 7);
    EXPECT_TRUE(zeltick_mul_sec(1 << 16, 1 << 16, &out) == -1 && out == 0);
    EXPECT_TRUE(zeltick_div_sec(7, 2, &out) == 0 && out == 3);
    EXPECT_EQ(zeltick_to_sec(0xffffffff, 0xffffffff), most / 50);
}

TEST(TickArithmetic, SecondsCountTheKernelTickWhileTheyFit) {
    Simulation world(1);
    zelTimerTickOffset = 777;  // no matter
    const struct {
        uint32_t high, low, seconds;
    } rows[] = {{0, 149, 2}, {49, 0xffffffff - 50, 0xfffffffe}, {49, 0xffffffff, 0xffffffff}, {50, 0, 0xffffffff}};
    for (const auto &row : rows) {
        tick64Set(row.high, row.low);
        EXPECT_EQ(zelSecGet(), row.seconds);
    }
}

// A host on which a signal ends each sleep but the third.
TEST(Sleep, GoesOnAfterASignalOnlyWhenToldTo) {
    static std::vector<uint64_t> deadlines;
    zelHostSeam seam = *zelPlatformSeam();
    seam.now = [](void *) -> uint64_t { return 5'000'000'000; };
    seam.sleepUntil = [](void *, uint64_t deadline) {
        deadlines.push_back(deadline);
        return deadlines.size() % 3 ? EINTR : 0;
    };
    zelPlatformSetSeam(&seam);
    EXPECT_EQ(zelSleep(2, 1500, 1), ZEL_OK);
    EXPECT_EQ(deadlines, std::vector<uint64_t>(3, 7'500'000'000));
    EXPECT_FAILS_WITH(EINTR, zelSleep(4'000'000'000u, 0, 0));
    EXPECT_EQ(deadlines.back(), 4'000'000'005'000'000'000u);
    zelPlatformSetSeam(nullptr);
}

TEST_F(TimerHead, ASuspensionDoesNotEndASleep) {
    std::atomic<int> result{7};
    std::atomic<bool> isAsleep{false};
    TestTask sleeper([&] {
        isAsleep = true;
        result = zelSleep(0, 300, 0);
    });
    EXPECT_TRUE(eventually(patience, [&] { return isAsleep.load(); }));
    for (int i = 0; i < 5; ++i) {
        taskDelay(1);
        taskSuspend(sleeper.id());
        taskResume(sleeper.id());
    }
    EXPECT_TRUE(sleeper.ends());
    EXPECT_EQ(result, ZEL_OK);
}

}  // namespace
}  // namespace zel::test
