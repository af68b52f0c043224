// Ticks and interval timers.
//
// The tick counter is computed when it is read: 50 ticks a second of the monotonic clock, plus an offset that setting
// the counter leaves. Nothing counts.
//
// Interval timers are counted down by the timer task, once a second. A periodic one runs again before its routine is
// called, so that the routine may cancel it.
#include <algorithm>
#include <optional>

#include "kernel/countdown_list.h"
#include "platform/seam.h"

struct zelIntTimer {
    static constexpr int periodicFlag = 0x1;

    struct Due {
        zelIntervalRoutine routine = nullptr;
        zelIntTimer *timer = nullptr;
        intptr_t argument = 0;
        void call() const { routine(timer, argument); }
    };

    Due countDown() {
        if (remaining <= 0 || --remaining > 0 || routine == nullptr) return {};
        if ((flags & periodicFlag) != 0) remaining = reload;
        return {routine, this, argument};
    }

    zel::Mutex own{zel::LockRank::object, "&(timerId->timer_lock)"};
    int32_t reload = 0;  // seconds
    int flags = 0;
    int32_t remaining = 0;  // seconds; 0 or less: not running
    zelIntervalRoutine routine = nullptr;
    intptr_t argument = 0;
    zelIntTimer *next = nullptr;
};

uint64_t vxAbsTicksAdd = 0;
int32_t vxAbsTicksSign = 0;

namespace zel::kernel {
namespace {

constinit CountdownList<zelIntTimer> timers("&timer_list_lock");

// The two words of the offset change together: odd while they do.
constinit Mutex offsetLock{LockRank::module, "&tick_lock"};
constinit std::atomic<std::uint32_t> offsetVersion{0};

// The counter; nothing while the offset is being changed.
std::optional<std::uint64_t> ticksUnlessChanging() {
    const std::uint32_t version = offsetVersion.load(std::memory_order_acquire);
    const std::uint64_t raw = platform::nowInTicks();
    const std::uint64_t magnitude = __atomic_load_n(&vxAbsTicksAdd, __ATOMIC_ACQUIRE);
    const std::int32_t sign = __atomic_load_n(&vxAbsTicksSign, __ATOMIC_ACQUIRE);
    if ((version & 1) != 0 || offsetVersion.load(std::memory_order_relaxed) != version) return std::nullopt;
    return sign == 0 ? raw + magnitude : raw - magnitude;
}

}  // namespace
}  // namespace zel::kernel

using namespace zel;
using namespace zel::kernel;

int sysClkRateGet(void) {
    return platform::ticksPerSecond;
}

uint64_t tick64Get(void) {
    if (const auto ticks = ticksUnlessChanging()) return *ticks;
    // Waits for the setter, which may have lost the processor to this very thread.
    const KernelSection section;
    const Lock lock(offsetLock);
    return *ticksUnlessChanging();
}

uint64_t zelTickGet(void) {
    return tick64Get();
}

void tick64Set(uint32_t high, uint32_t low) {
    const KernelSection section;
    const Lock lock(offsetLock);
    const std::uint64_t wanted = (static_cast<std::uint64_t>(high) << 32) | low;
    const std::uint64_t raw = platform::nowInTicks();
    offsetVersion.fetch_add(1, std::memory_order_relaxed);
    __atomic_store_n(&vxAbsTicksAdd, wanted <= raw ? raw - wanted : wanted - raw, __ATOMIC_RELEASE);
    __atomic_store_n(&vxAbsTicksSign, wanted <= raw ? -1 : 0, __ATOMIC_RELEASE);
    offsetVersion.fetch_add(1, std::memory_order_release);
}

void tickSet(uint32_t value) {
    tick64Set(0, value);
}

// The lock of the list is there from the start: timers may be created before the timer task runs.
int vx2bsdTimerLibInit(void) {
    return ZEL_OK;
}

zelIntervalTimerId vx2bsdTimerCreate(void) {
    return timers.create();
}

int vx2bsdTimerConnect(zelIntervalTimerId timer, zelIntervalRoutine routine, intptr_t argument) {
    return timers.with(timer, [&](zelIntTimer &found) {
        found.routine = routine;
        found.argument = argument;
    });
}

int vx2bsdTimerStart(zelIntervalTimerId timer, int seconds, zelIntervalRoutine routine, intptr_t argument, int flags) {
    return timers.with(timer, [&](zelIntTimer &found) {
        found.remaining = found.reload = std::max(seconds, 1);
        found.flags = flags;
        found.routine = routine;
        found.argument = argument;
    });
}

int vx2bsdTimerSetTime(zelIntervalTimerId timer, int seconds, int flags) {
    return timers.with(timer, [&](zelIntTimer &found) {
        found.remaining = found.reload = std::max(seconds, 1);
        found.flags = flags;
    });
}

int vx2bsdTimerCancel(zelIntervalTimerId timer) {
    return timers.with(timer, [](zelIntTimer &found) { found.remaining = 0; });
}

int vx2bsdTimerDelete(zelIntervalTimerId timer) {
    return timers.destroy(timer);
}

void process_vx2bsd_timer_list(void) {
    timers.pass();
}
