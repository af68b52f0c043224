// Watchdogs: calls deferred to the exception task, which goes through them once a tick.
//
// A started watchdog fires at the next pass, whatever delay was asked for; starting one that runs only replaces its
// routine and parameter. Callers count on both. The list lock is taken before a watchdog's own lock; a routine is
// called with neither held, so it may start, cancel, delete and create watchdogs, itself included.
#include <new>

#include "kernel/task.h"
#include "platform/scheduling.h"

struct zelWdog {
    zel::Mutex wdog_lock{zel::LockRank::object, "&(wdId->wdog_lock)"};
    int32_t remaining = 0;  // ticks; 0 or less: not running
    zelWdogRoutine routine = nullptr;
    intptr_t parameter = 0;
    zelWdog *next = nullptr;
};

namespace zel::kernel {
namespace {

constinit Mutex wdogListLock{LockRank::objectList, "&wdog_list_lock"};
zelWdog *wdog_list = nullptr;
std::uint64_t removals = 0;  // under wdogListLock; while it stands still, a listed watchdog stays listed

bool isListed(const zelWdog *watchdog) {
    const zelWdog *other = wdog_list;
    while (other != nullptr && other != watchdog) other = other->next;
    return watchdog != nullptr && other != nullptr;
}

// Runs `change` on a watchdog with its lock held, or fails.
template <class Change>
int withWatchdog(zelWdogId watchdog, Change change) {
    const KernelSection section;
    Lock list(wdogListLock);
    if (!isListed(watchdog)) {
        list.unlock();
        return fail(ZEL_ERR_INVALID_OBJECT_ID);
    }
    const Lock own(watchdog->wdog_lock);
    list.unlock();
    change(*watchdog);
    return ZEL_OK;
}

struct DueWatchdog {
    zelWdogRoutine routine = nullptr;
    intptr_t parameter = 0;
};

// Counts one tick; what is to be called, if anything.
DueWatchdog countDown(zelWdog &watchdog) {
    const Lock own(watchdog.wdog_lock);
    if (watchdog.remaining <= 0 || --watchdog.remaining > 0) return {};
    return {watchdog.routine, watchdog.parameter};
}

// Counts down from `from` to the first watchdog that is due, and leaves the one behind it in `from`. Ends the walk at a
// watchdog that was deleted since the last step.
DueWatchdog nextDue(zelWdog *&from, std::uint64_t &seenRemovals) {
    const KernelSection section;
    const Lock list(wdogListLock);
    if (seenRemovals != removals && !isListed(from)) from = nullptr;
    seenRemovals = removals;
    while (from != nullptr) {
        zelWdog &watchdog = *from;
        from = watchdog.next;
        const DueWatchdog due = countDown(watchdog);
        if (due.routine != nullptr) return due;
    }
    return {};
}

}  // namespace
}  // namespace zel::kernel

using namespace zel;
using namespace zel::kernel;

zelWdogId wdCreate(void) {
    const KernelSection section;
    void *memory = allocate(sizeof(zelWdog));
    if (memory == nullptr) {
        fail(ZEL_ERR_NOT_ENOUGH_MEMORY);
        return nullptr;
    }
    auto *watchdog = new (memory) zelWdog;
    hostCheck(platform::initMutex(watchdog->wdog_lock.native) == 0, "!pthread_mutex_init (&(wdId->wdog_lock))");
    const Lock list(wdogListLock);
    zelWdog **link = &wdog_list;
    while (*link != nullptr) link = &(*link)->next;
    *link = watchdog;
    return watchdog;
}

int wdStart(zelWdogId watchdog, int, zelWdogRoutine routine, intptr_t parameter) {
    return withWatchdog(watchdog, [&](zelWdog &found) {
        found.routine = routine;
        found.parameter = parameter;
        if (found.remaining <= 0) found.remaining = 1;
    });
}

int wdCancel(zelWdogId watchdog) {
    return withWatchdog(watchdog, [](zelWdog &found) { found.remaining = 0; });
}

int wdDelete(zelWdogId watchdog) {
    const KernelSection section;
    Lock list(wdogListLock);
    zelWdog **link = &wdog_list;
    while (*link != nullptr && *link != watchdog) link = &(*link)->next;
    if (watchdog == nullptr || *link == nullptr) {
        list.unlock();
        return fail(ZEL_ERR_INVALID_OBJECT_ID);
    }
    *link = watchdog->next;
    ++removals;
    // Whoever found the watchdog before holds its lock now; nobody finds it any more.
    { const Lock own(watchdog->wdog_lock); }
    list.unlock();
    pthread_mutex_destroy(&watchdog->wdog_lock.native);
    release(watchdog);
    return ZEL_OK;
}

void process_timer_list(void) {
    zelWdog *from = nullptr;
    std::uint64_t seenRemovals = 0;
    {
        const KernelSection section;
        const Lock list(wdogListLock);
        from = wdog_list;
        seenRemovals = removals;
    }
    while (from != nullptr) {
        const DueWatchdog due = nextDue(from, seenRemovals);
        if (due.routine != nullptr) due.routine(due.parameter);
    }
}
