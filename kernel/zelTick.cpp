// The timer tick, arithmetic of ticks and seconds, and the sleep.
//
// Subtraction gives the distance: callers do not care which operand is later. The overflow test of multiplication is a
// comparison with the operands, which takes 0 times n for an overflow and lets some real ones pass; callers live by it.
#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "kernel/task.h"
#include "kernel/tick.h"
#include "platform/cancellation.h"
#include "platform/seam.h"

namespace zel::kernel {
namespace {

constexpr std::uint32_t largestSecondsWord = 49;

// The result of an operation, as it is stored.
template <class Number>
struct Outcome {
    Number value;
    bool isOverflow = false;
};

template <class Number>
Outcome<Number> sum(Number a, Number b) {
    const Number value = a + b;
    return {value, value < a};
}

template <class Number>
Outcome<Number> distance(Number a, Number b) {
    return {a > b ? a - b : b - a};
}

template <class Number>
Outcome<Number> product(Number a, Number b) {
    const Number value = a * b;
    return {value, value < a || value < b};
}

void store(std::uint64_t value, zelTick_t &out) {
    out = tickOf(value);
}

void store(std::uint32_t value, std::uint32_t &out) {
    out = value;
}

template <class Number, class Out>
int deliver(Outcome<Number> outcome, Out *out) {
    if (out == nullptr) return ZEL_ERROR;
    store(outcome.value, *out);
    return outcome.isOverflow ? ZEL_ERROR : ZEL_OK;
}

// The first word of a file, null-terminated; false when there is none.
template <std::size_t size>
bool readWord(const char *path, char (&word)[size]) {
    static_assert(size == 100);
    const platform::NoCancellation whole;
    FILE *file = path != nullptr ? fopen(path, "re") : nullptr;
    if (file == nullptr) return false;
    const bool isRead = fscanf(file, "%99s", word) == 1;
    fclose(file);
    return isRead;
}

}  // namespace
}  // namespace zel::kernel

using namespace zel;
using namespace zel::kernel;

uint64_t zelTimerTickOffset = 0;

uint64_t zelTimerTickGet(void) {
    return tick64Get() + __atomic_load_n(&zelTimerTickOffset, __ATOMIC_RELAXED);
}

void zelTimerTickSet(uint32_t high, uint32_t low) {
    __atomic_store_n(&zelTimerTickOffset, valueOf({high, low}) - tick64Get(), __ATOMIC_RELAXED);
    printf("timer tick is 0x%llX\r\n", static_cast<unsigned long long>(zelTimerTickGet()));
}

void zelTimerInitTick(const char *path) {
    char word[100];
    if (!readWord(path, word)) return;
    const unsigned long long tick = strtoull(word, nullptr, 0);
    printf("offsetStr is %s offset is 0x%llX\r\n", word, tick);
    zelTimerTickSet(static_cast<std::uint32_t>(tick >> 32), static_cast<std::uint32_t>(tick));
}

int zeltick_add_tick(zelTick_t a, zelTick_t b, zelTick_t *out) {
    return deliver(sum(valueOf(a), valueOf(b)), out);
}

int zeltick_sub_tick(zelTick_t a, zelTick_t b, zelTick_t *out) {
    return deliver(distance(valueOf(a), valueOf(b)), out);
}

int zeltick_mul_tick(zelTick_t a, zelTick_t b, zelTick_t *out) {
    return deliver(product(valueOf(a), valueOf(b)), out);
}

int zeltick_div_tick(zelTick_t a, zelTick_t b, zelTick_t *out) {
    if (valueOf(b) == 0) return ZEL_ERROR;
    return deliver(Outcome<std::uint64_t>{valueOf(a) / valueOf(b)}, out);
}

int zeltick_add_sec(uint32_t a, uint32_t b, uint32_t *out) {
    return deliver(sum(a, b), out);
}

int zeltick_sub_sec(uint32_t a, uint32_t b, uint32_t *out) {
    return deliver(distance(a, b), out);
}

int zeltick_mul_sec(uint32_t a, uint32_t b, uint32_t *out) {
    return deliver(product(a, b), out);
}

int zeltick_div_sec(uint32_t a, uint32_t b, uint32_t *out) {
    if (b == 0) return ZEL_ERROR;
    return deliver(Outcome<std::uint32_t>{a / b}, out);
}

uint64_t zeltick_to_sec(uint32_t high, uint32_t low) {
    return valueOf({high, low}) / platform::ticksPerSecond;
}

uint32_t zelSecGet(void) {
    const zelTick_t tick = tickOf(tick64Get());
    if (tick.high > largestSecondsWord) return UINT32_MAX;
    return static_cast<std::uint32_t>(zeltick_to_sec(tick.high, tick.low));
}

int zelSleep(uint32_t seconds, uint32_t milliseconds, int resumeOnSignal) {
    cancellationPoint();
    const zelHostSeam &host = platform::seam();
    const std::uint64_t deadline = platform::deadlineAfterSeconds(seconds) + milliseconds % 1000 * 1'000'000ull;
    const std::atomic<std::uint32_t> &suspensions = atomicWord(currentTask().suspendWord);
    std::uint32_t suspensionsBefore = suspensions.load();
    while (host.sleepUntil(host.context, deadline) == EINTR) {
        const std::uint32_t suspensionsNow = suspensions.load();
        const bool wasSuspended = suspensionsNow != suspensionsBefore;
        suspensionsBefore = suspensionsNow;
        if (resumeOnSignal == 0 && !wasSuspended) {
            errno = EINTR;
            return ZEL_ERROR;
        }
    }
    return ZEL_OK;
}
