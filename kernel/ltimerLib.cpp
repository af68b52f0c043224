// Ticks and interval timers.
//
// The tick counter is computed when it is read: 50 ticks a second of the monotonic clock, plus an offset that setting
// the counter leaves. Nothing counts.
//
// Interval timers are counted down by the timer task, once a second. The list lock guards the list and is taken before
// a timer's own lock; a routine is called with neither held, so it may start, cancel, delete and create timers, itself
// included.
#include <algorithm>
#include <new>

#include "kernel/task.h"
#include "platform/scheduling.h"
#include "platform/seam.h"

struct zelIntTimer {
    zel::Mutex timer_lock{zel::LockRank::object, "&(timerId->timer_lock)"};
    int32_t reload = 0;  // seconds
    int flags = 0;
    int32_t remaining = 0;  // seconds; 0 or less: not running
    zelIntervalRoutine routine = nullptr;
    intptr_t argument = 0;
    zelIntTimer *next = nullptr;
};

namespace zel::kernel {
namespace {

constexpr int periodicFlag = 0x1;

constinit Mutex timerListLock{LockRank::objectList, "&timer_list_lock"};
zelIntTimer *timer_list = nullptr;
std::uint64_t removals = 0;  // under timerListLock; while it stands still, a listed timer stays listed

// The two words of the offset change together: odd while they do.
constinit Mutex offsetLock{LockRank::module, "&tick_lock"};
constinit std::atomic<std::uint32_t> offsetVersion{0};

bool isListed(const zelIntTimer *timer) {
    const zelIntTimer *other = timer_list;
    while (other != nullptr && other != timer) other = other->next;
    return timer != nullptr && other != nullptr;
}

// Runs `change` on a timer with its lock held, or fails.
template <class Change>
int withTimer(zelIntervalTimerId timer, Change change) {
    const KernelSection section;
    Lock list(timerListLock);
    if (!isListed(timer)) {
        list.unlock();
        return fail(ZEL_ERR_INVALID_OBJECT_ID);
    }
    const Lock own(timer->timer_lock);
    list.unlock();
    change(*timer);
    return ZEL_OK;
}

struct DueTimer {
    zelIntTimer *timer = nullptr;
    zelIntervalRoutine routine = nullptr;
    intptr_t argument = 0;
};

// Counts one second; what is to be called, if anything. A periodic timer runs again before its routine is called, so
// that the routine may cancel it.
DueTimer countDown(zelIntTimer &timer) {
    const Lock own(timer.timer_lock);
    if (timer.remaining <= 0 || --timer.remaining > 0 || timer.routine == nullptr) return {};
    if ((timer.flags & periodicFlag) != 0) timer.remaining = timer.reload;
    return {&timer, timer.routine, timer.argument};
}

// Counts down from `from` to the first timer that is due, which is returned, and leaves the one behind it in `from`.
// Ends the walk at a timer that was deleted since the last step.
DueTimer nextDue(zelIntTimer *&from, std::uint64_t &seenRemovals) {
    const KernelSection section;
    const Lock list(timerListLock);
    if (seenRemovals != removals && !isListed(from)) from = nullptr;
    seenRemovals = removals;
    while (from != nullptr) {
        zelIntTimer &timer = *from;
        from = timer.next;
        const DueTimer due = countDown(timer);
        if (due.routine != nullptr) return due;
    }
    return {};
}

}  // namespace
}  // namespace zel::kernel

using namespace zel;
using namespace zel::kernel;

uint64_t vxAbsTicksAdd = 0;
int32_t vxAbsTicksSign = 0;

int sysClkRateGet(void) {
    return platform::ticksPerSecond;
}

uint64_t tick64Get(void) {
    for (;;) {
        const std::uint32_t version = offsetVersion.load(std::memory_order_acquire);
        const std::uint64_t raw = platform::nowInTicks();
        const std::uint64_t magnitude = __atomic_load_n(&vxAbsTicksAdd, __ATOMIC_ACQUIRE);
        const std::int32_t sign = __atomic_load_n(&vxAbsTicksSign, __ATOMIC_ACQUIRE);
        if ((version & 1) == 0 && offsetVersion.load(std::memory_order_relaxed) == version)
            return sign == 0 ? raw + magnitude : raw - magnitude;
    }
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
    const KernelSection section;
    void *memory = allocate(sizeof(zelIntTimer));
    if (memory == nullptr) {
        fail(ZEL_ERR_NOT_ENOUGH_MEMORY);
        return nullptr;
    }
    auto *timer = new (memory) zelIntTimer;
    hostCheck(platform::initMutex(timer->timer_lock.native) == 0, "!pthread_mutex_init (&(timerId->timer_lock))");
    const Lock list(timerListLock);
    zelIntTimer **link = &timer_list;
    while (*link != nullptr) link = &(*link)->next;
    *link = timer;
    return timer;
}

int vx2bsdTimerConnect(zelIntervalTimerId timer, zelIntervalRoutine routine, intptr_t argument) {
    return withTimer(timer, [&](zelIntTimer &found) {
        found.routine = routine;
        found.argument = argument;
    });
}

int vx2bsdTimerStart(zelIntervalTimerId timer, int seconds, zelIntervalRoutine routine, intptr_t argument, int flags) {
    return withTimer(timer, [&](zelIntTimer &found) {
        found.remaining = found.reload = std::max(seconds, 1);
        found.flags = flags;
        found.routine = routine;
        found.argument = argument;
    });
}

int vx2bsdTimerSetTime(zelIntervalTimerId timer, int seconds, int flags) {
    return withTimer(timer, [&](zelIntTimer &found) {
        found.remaining = found.reload = std::max(seconds, 1);
        found.flags = flags;
    });
}

int vx2bsdTimerCancel(zelIntervalTimerId timer) {
    return withTimer(timer, [](zelIntTimer &found) { found.remaining = 0; });
}

int vx2bsdTimerDelete(zelIntervalTimerId timer) {
    const KernelSection section;
    Lock list(timerListLock);
    zelIntTimer **link = &timer_list;
    while (*link != nullptr && *link != timer) link = &(*link)->next;
    if (timer == nullptr || *link == nullptr) {
        list.unlock();
        return fail(ZEL_ERR_INVALID_OBJECT_ID);
    }
    *link = timer->next;
    ++removals;
    // Whoever found the timer before holds its lock now; nobody finds it any more.
    { const Lock own(timer->timer_lock); }
    list.unlock();
    pthread_mutex_destroy(&timer->timer_lock.native);
    release(timer);
    return ZEL_OK;
}

void process_vx2bsd_timer_list(void) {
    zelIntTimer *from = nullptr;
    std::uint64_t seenRemovals = 0;
    {
        const KernelSection section;
        const Lock list(timerListLock);
        from = timer_list;
        seenRemovals = removals;
    }
    while (from != nullptr) {
        const DueTimer due = nextDue(from, seenRemovals);
        if (due.routine != nullptr) due.routine(due.timer, due.argument);
    }
}
