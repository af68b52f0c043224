// Timers of the timer library, 100,000 of them, against as many of libuv's. An iteration is one timer: of a batch that
// is started with random time-outs; of one that runs and is stopped in random order; of one that runs and is due, whose
// callbacks count; or, restarted, one of those that run, at random, set to another time-out.
//
// Our time-outs are 1 to 60 seconds, and each start reads the clock. Libuv's are counted from the time of the loop,
// which it reads once a round, and a two-hundredth as long, so that they can be waited for.
#include <time.h>
#include <uv.h>

#include <algorithm>
#include <numeric>
#include <random>
#include <vector>

#include "bench/support/row.h"
#include "zel/kernel.h"

namespace {

constexpr std::size_t timers = 100'000;
constexpr uint32_t shortest = 50, longest = 3000;  // ticks

long fired = 0;

// What is random about the timers, the same for both.
struct Plan {
    std::vector<uint32_t> timeouts = std::vector<uint32_t>(timers);
    std::vector<std::size_t> order = std::vector<std::size_t>(timers);

    Plan() {
        std::mt19937 random(1);
        std::uniform_int_distribution<uint32_t> timeout(shortest, longest);
        for (uint32_t &each : timeouts) each = timeout(random);
        std::iota(order.begin(), order.end(), 0);
        std::shuffle(order.begin(), order.end(), random);
    }
};
const Plan plan;

// Its records lie side by side, as libuv's do, each on cache lines of its own.
class Ours {
public:
    Ours() : timers_(timers) {
        nextRecord_ = records_.data();
        zelTmrHeadInit(
            &head_, allocate, [](void *) {}, 0, 0);
        for (zelTimer *&timer : timers_) {
            timer = zelTimerCreate(count, 0, longest, 1, &head_);
            if (timer == nullptr) abort();
        }
    }
    ~Ours() { zelTmrHeadDestroy(&head_); }
    Ours(const Ours &) = delete;
    Ours &operator=(const Ours &) = delete;

    void start(std::size_t timer, uint32_t ticks) { zelTickTimerSet(timers_[timer], 0, ticks, count, &head_); }
    void stop(std::size_t timer) { zelTimerDisable(timers_[timer], &head_); }
    void letPass() { zelTimerTickOffset += longest; }
    void expire() { zelProcTimers(&head_); }

private:
    struct alignas(64) Line {
        char bytes[128];
    };
    static void *allocate(std::size_t size, zelTmrCb, intptr_t, uint32_t, uint32_t, int, zelTmrHead *) {
        return size <= sizeof(Line) ? nextRecord_++ : nullptr;
    }
    static void count(intptr_t) { ++fired; }

    static inline Line *nextRecord_ = nullptr;
    std::vector<Line> records_ = std::vector<Line>(timers);
    zelTmrHead head_;
    std::vector<zelTimer *> timers_;
};

class Libuv {
public:
    Libuv() : handles_(timers) {
        uv_loop_init(&loop_);
        for (uv_timer_t &handle : handles_) uv_timer_init(&loop_, &handle);
    }
    ~Libuv() {
        for (uv_timer_t &handle : handles_) uv_close(reinterpret_cast<uv_handle_t *>(&handle), nullptr);
        uv_run(&loop_, UV_RUN_DEFAULT);
        uv_loop_close(&loop_);
    }
    void start(std::size_t timer, uint32_t ticks) { uv_timer_start(&handles_[timer], count, milliseconds(ticks), 0); }
    void stop(std::size_t timer) { uv_timer_stop(&handles_[timer]); }
    void letPass() {
        const timespec pause{0, (milliseconds(longest) + 2) * 1'000'000};
        nanosleep(&pause, nullptr);
    }
    void expire() { uv_run(&loop_, UV_RUN_NOWAIT); }

private:
    static void count(uv_timer_t *) { ++fired; }
    static constexpr uint32_t milliseconds(uint32_t ticks) { return ticks / 10; }

    uv_loop_t loop_;
    std::vector<uv_timer_t> handles_;
};

template <class Contender>
void startAll(Contender &contender) {
    for (std::size_t i = 0; i < timers; ++i) contender.start(i, plan.timeouts[i]);
}

template <class Contender>
void stopAll(Contender &contender) {
    for (const std::size_t i : plan.order) contender.stop(i);
}

// An iteration of `state` is a batch; measures `measured` after `before`, which is not.
template <class Contender>
void measureBatches(benchmark::State &state, void (*before)(Contender &), void (*measured)(Contender &)) {
    Contender contender;
    for (auto _ : state) {
        state.PauseTiming();
        before(contender);
        state.ResumeTiming();
        measured(contender);
    }
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(timers));
}

template <class Contender>
void start(benchmark::State &state) {
    measureBatches<Contender>(state, stopAll, startAll);
}

template <class Contender>
void stop(benchmark::State &state) {
    measureBatches<Contender>(state, startAll, stopAll);
}

template <class Contender>
void expire(benchmark::State &state) {
    fired = 0;
    const auto before = [](Contender &contender) {
        startAll(contender);
        contender.letPass();
    };
    measureBatches<Contender>(state, before, [](Contender &contender) { contender.expire(); });
    if (fired != state.iterations() * static_cast<int64_t>(timers)) state.SkipWithError("a timer did not fire");
}

template <class Contender>
void restart(benchmark::State &state) {
    Contender contender;
    startAll(contender);
    std::size_t i = 0;
    for (auto _ : state) {
        contender.start(plan.order[i], plan.timeouts[i]);
        if (++i == timers) i = 0;
    }
}

ZEL_ROW("timer start", "ns", time).ours(start<Ours>).peer("libuv timers", start<Libuv>, 0.5);
ZEL_ROW("timer stop", "ns", time).ours(stop<Ours>).peer("libuv timers", stop<Libuv>, 0.5);
ZEL_ROW("timer expire", "ns", time).ours(expire<Ours>).peer("libuv timers", expire<Libuv>, 0.5);
ZEL_ROW("timer restart", "ns", time).ours(restart<Ours>).peer("libuv timers", restart<Libuv>);

}  // namespace
