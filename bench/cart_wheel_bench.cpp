// The timing wheel, 256 buckets.
//
// Start + stop, against the simplest wheel: an iteration starts one of 1,000 timers with a random time-out and stops
// the one that was started 500 iterations before.
//
// Start + expire, against libuv: an iteration is one timer of a batch of 100,000 that is started with random time-outs
// of 1 to 250 ticks, or milliseconds, and expires in full; the callback counts. Ours is driven through all its ticks.
// Libuv gets one round when all are due; the wait until then is not measured.
//
// RetNext, against a scan of the bitmap that tells which buckets are in use: an iteration asks one of 64 wheels that
// hold one timer each, at random.
#include <time.h>
#include <uv.h>

#include <memory>
#include <random>
#include <vector>

#include "bench/peers/simple_wheel.h"
#include "bench/support/row.h"
#include "zel/containers.h"

namespace {

constexpr uint32_t buckets = 256, words = buckets / 64;
constexpr uint8_t longest = 250;
constexpr uint32_t batch = 100'000;

std::vector<uint8_t> randomTimeouts(std::size_t count) {
    std::mt19937 random(1);
    std::vector<uint8_t> timeouts(count);
    for (uint8_t &each : timeouts) each = static_cast<uint8_t>(1 + random() % longest);
    return timeouts;
}

long fired = 0;

// Its records lie side by side, as those of the peers do, and are all in use.
class Wheel {
public:
    explicit Wheel(uint32_t timers) : records_(timers) {
        nextRecord_ = records_.data();
        wheel_ = zelcwTimerInit(
            buckets, timers, 0, [](std::size_t) -> void * { return nextRecord_++; }, [](void *) {},
            [](void *) { ++fired; }, nullptr, 0, sizeof(zelcwTimer));
        while (timers-- > 0) zelcwGetTimer(wheel_);
    }
    ~Wheel() { zelcwTimerUnInit(wheel_); }
    Wheel(const Wheel &) = delete;
    Wheel &operator=(const Wheel &) = delete;

    void start(std::size_t timer, uint32_t ticks) { zelcwStartTimer(wheel_, &records_[timer], ticks); }
    void stop(std::size_t timer) { zelcwStopTimer(&records_[timer]); }
    void tick() { zelcwTimerTick(wheel_); }
    int next() { return zelcwTimerRetNext(wheel_); }

private:
    static inline zelcwTimer *nextRecord_ = nullptr;
    std::vector<zelcwTimer> records_;
    zelcwTimerCB *wheel_;
};

class Simple {
public:
    explicit Simple(uint32_t timers) : wheel_(buckets), timers_(timers) {}
    void start(std::size_t timer, uint32_t ticks) { wheel_.start(timers_[timer], ticks); }
    void stop(std::size_t timer) { wheel_.stop(timers_[timer]); }

private:
    SimpleWheel wheel_;
    std::vector<SimpleTimer> timers_;
};

template <class Contender>
void startAndStop(benchmark::State &state) {
    constexpr std::size_t timers = 1000, lag = 500;
    const std::vector<uint8_t> timeouts = randomTimeouts(timers);
    Contender wheel(timers);
    for (std::size_t i = 0; i < lag; ++i) wheel.start(i, timeouts[i]);
    std::size_t started = lag, stopped = 0;
    for (auto _ : state) {
        wheel.start(started, timeouts[started]);
        wheel.stop(stopped);
        if (++started == timers) started = 0;
        if (++stopped == timers) stopped = 0;
    }
}

void ourExpiry(benchmark::State &state) {
    const std::vector<uint8_t> timeouts = randomTimeouts(batch);
    Wheel wheel(batch);
    fired = 0;
    for (auto _ : state) {
        for (std::size_t i = 0; i < batch; ++i) wheel.start(i, timeouts[i]);
        for (uint32_t tick = 0; tick <= longest; ++tick) wheel.tick();
    }
    state.SetItemsProcessed(fired);
}

void uvExpiry(benchmark::State &state) {
    const std::vector<uint8_t> timeouts = randomTimeouts(batch);
    uv_loop_t loop;
    uv_loop_init(&loop);
    std::vector<uv_timer_t> handles(batch);
    for (uv_timer_t &handle : handles) uv_timer_init(&loop, &handle);
    fired = 0;
    for (auto _ : state) {
        for (std::size_t i = 0; i < batch; ++i)
            uv_timer_start(
                &handles[i], [](uv_timer_t *) { ++fired; }, timeouts[i], 0);
        state.PauseTiming();
        const timespec pause{0, (longest + 2) * 1'000'000};
        nanosleep(&pause, nullptr);
        state.ResumeTiming();
        uv_run(&loop, UV_RUN_NOWAIT);
    }
    state.SetItemsProcessed(fired);
    for (uv_timer_t &handle : handles) uv_close(reinterpret_cast<uv_handle_t *>(&handle), nullptr);
    uv_run(&loop, UV_RUN_DEFAULT);
    uv_loop_close(&loop);
}

constexpr std::size_t wheels = 64;

void ourNext(benchmark::State &state) {
    const std::vector<uint8_t> timeouts = randomTimeouts(wheels);
    std::vector<std::unique_ptr<Wheel>> all;
    for (const uint8_t timeout : timeouts) all.emplace_back(std::make_unique<Wheel>(1))->start(0, timeout);
    std::size_t i = 0;
    for (auto _ : state) benchmark::DoNotOptimize(all[i++ % wheels]->next());
}

void bitmapNext(benchmark::State &state) {
    const std::vector<uint8_t> timeouts = randomTimeouts(wheels);
    std::vector<std::vector<uint64_t>> all(wheels, std::vector<uint64_t>(words));
    for (std::size_t i = 0; i < wheels; ++i) all[i][timeouts[i] / 64] = uint64_t{1} << timeouts[i] % 64;
    std::size_t i = 0;
    for (auto _ : state) benchmark::DoNotOptimize(scanBits(all[i++ % wheels].data(), words, 0));
}

ZEL_ROW("wheel start + stop", "ns", time).ours(startAndStop<Wheel>).peer("simplest wheel", startAndStop<Simple>, 1.3);
ZEL_ROW("wheel start + expire", "ns", time).ours(ourExpiry).peer("libuv timers", uvExpiry, 0.015);
ZEL_ROW("wheel RetNext", "ns", time).ours(ourNext).peer("bitmap scan", bitmapNext, 1.5);

}  // namespace
