// Timers of a task, fired from its own loop.
//
// A head keeps its linked timers in 64 heaps, each for the ticks with one remainder, its earliest timer on top; equal
// expiries go by the address of the record. So a heap holds few timers, however many there are, and looking for what is
// due takes one look for each tick since the last time: `earliest` says how far everything has fired. It depends on the
// expiries alone, and the clock may be set at will.
//
// All that callers do to a head happens in one hold of its guard, a binary semaphore that does not nest: the exported
// calls take it, the helpers, which get a head and a timer by reference, want it held.
//
// A timer that fires is unlinked first, and its callback and argument are copied in the same hold, so that another
// task, or the callback, may delete it at any time. Meanwhile its record stands in the head's list of firing timers,
// linked again or not. Whoever deletes the timer takes it off that list; so when the callback returns, a record that is
// still on it is alive, and the loop's to link again. The list is searched for the address alone: a record that is not
// there may have been released. A task that is deleted in a callback leaves the record on the list, where it does no
// harm: it may fire and leave the list then.
#include <algorithm>
#include <new>
#include <optional>

#include "base/pairing_heap.h"
#include "kernel/task.h"
#include "kernel/tick.h"
#include "platform/cancellation.h"
#include "platform/seam.h"
#include "zel/platform.h"

struct zelTimer {
    zel::HeapLinks<zelTimer> links{};
    zelTimer *nextFiring = nullptr;
    zelTick_t expiry{};
    zelTmrCb callback;
    intptr_t argument;
    uint32_t period;  // seconds
    uint32_t extraTicks;
    int type;
    uint8_t isLinked = 0;
    uint8_t isEnabled = 0;
    uint8_t isFiring = 0;
};

namespace zel::kernel {
namespace {

constexpr char tag[] = "zelTimerLib";

bool isEarlier(const zelTimer &a, const zelTimer &b) {
    const std::uint64_t expiryOfA = valueOf(a.expiry), expiryOfB = valueOf(b.expiry);
    return expiryOfA != expiryOfB ? expiryOfA < expiryOfB : &a < &b;
}

using Heap = PairingHeap<zelTimer, &zelTimer::links, isEarlier>;

Heap heapFor(zelTmrHead &head, std::uint64_t tick) {
    return Heap(head.trees[tick % ZEL_TMR_TREES]);
}

void insert(zelTmrHead &head, zelTimer &timer) {
    const std::uint64_t expiry = valueOf(timer.expiry);
    if (head.linked++ == 0 || expiry < head.earliest) head.earliest = expiry;
    heapFor(head, expiry).insert(timer);
}

void remove(zelTmrHead &head, zelTimer &timer) {
    --head.linked;
    heapFor(head, valueOf(timer.expiry)).remove(timer);
}

std::uint64_t earliestExpiry(const zelTmrHead &head) {
    std::uint64_t earliest = UINT64_MAX;
    for (const zelTimer *first : head.trees)
        if (first != nullptr) earliest = std::min(earliest, valueOf(first->expiry));
    return earliest;
}

// The first timer that expires by `now`; null when none does. After a look for each heap it jumps to the next expiry.
zelTimer *findDue(zelTmrHead &head, std::uint64_t now) {
    for (std::uint32_t looks = 1; head.linked > 0 && head.earliest <= now; ++looks) {
        zelTimer *first = heapFor(head, head.earliest).first();
        if (first != nullptr && valueOf(first->expiry) == head.earliest) return first;
        head.earliest = looks % ZEL_TMR_TREES != 0 ? head.earliest + 1 : earliestExpiry(head);
    }
    return nullptr;
}

// Holds a head's guard, if it has one; not held when that was deleted, or the head destroyed before the guard was had.
// A task is not suspended while it holds one, and gives it when it is cancelled.
class Guard {
public:
    explicit Guard(zelTmrHead &head) : semaphore_(__atomic_load_n(&head.guard, __ATOMIC_ACQUIRE)) {
        if (semaphore_ != 0) {
            section_.emplace();
            isTaken_ = semTake(semaphore_, WAIT_FOREVER) == ZEL_OK;
        }
        isDestroyed_ = __atomic_load_n(&head.releaseRoutine, __ATOMIC_RELAXED) == nullptr;
    }
    ~Guard() {
        if (isTaken_) semGive(semaphore_);
    }
    Guard(const Guard &) = delete;
    Guard &operator=(const Guard &) = delete;

    explicit operator bool() const { return !isDestroyed_ && (isTaken_ || semaphore_ == 0); }

private:
    const zelSemId semaphore_;
    std::optional<KernelSection> section_;
    bool isTaken_ = false;
    bool isDestroyed_ = false;
};

// Takes a record off the list of firing timers; false when it is not there, and perhaps no more.
bool stopFiring(zelTmrHead &head, const zelTimer *timer) {
    for (zelTimer **link = &head.firing; *link != nullptr; link = &(*link)->nextFiring) {
        if (*link != timer) continue;
        zelTimer &found = **link;
        *link = found.nextFiring;
        found.isFiring = 0;
        return true;
    }
    return false;
}

void startFiring(zelTmrHead &head, zelTimer &timer) {
    if (timer.isFiring) return;
    timer.isFiring = 1;
    timer.nextFiring = head.firing;
    head.firing = &timer;
}

int linkTimer(zelTmrHead &head, zelTimer &timer) {
    if (timer.isLinked) return ZEL_ERROR;
    const std::uint64_t delay = std::uint64_t{timer.period} * platform::ticksPerSecond + timer.extraTicks;
    timer.expiry = tickOf(zelTimerTickGet() + delay);
    insert(head, timer);
    timer.isLinked = 1;
    return ZEL_OK;
}

void unlinkTimer(zelTmrHead &head, zelTimer &timer) {
    if (!timer.isLinked) return;
    remove(head, timer);
    timer.isLinked = 0;
}

// Nothing of the head knows the timer any more, or will link it.
void forget(zelTmrHead &head, zelTimer &timer) {
    unlinkTimer(head, timer);
    if (timer.isFiring) stopFiring(head, &timer);
    timer.isEnabled = 0;
}

// The records may come into another head then, or be deleted there.
void forgetAll(zelTmrHead &head) {
    while (zelTimer *timer = findDue(head, UINT64_MAX)) forget(head, *timer);
    while (head.firing != nullptr) forget(head, *head.firing);
}

// Releases a new record that does not get into its head, also when the task is cancelled at the guard.
struct Unlinked {
    zelTmrFreeFn releaseRoutine;
    zelTimer *timer;
    ~Unlinked() {
        if (timer != nullptr) releaseRoutine(timer);
    }
};

// Runs `change` with the guard held.
template <class Change>
int with(zelTimer *timer, zelTmrHead *head, Change change) {
    if (timer == nullptr || head == nullptr) return ZEL_ERROR;
    const Guard guard(*head);
    return guard ? change(*head, *timer) : ZEL_ERROR;
}

// ---- Firing ----

// What is to be called for a timer that fires.
struct Shot {
    zelTimer *timer = nullptr;
    zelTmrCb callback = nullptr;
    intptr_t argument = 0;
};

// The first timer, if it is due.
Shot takeDue(zelTmrHead &head, std::uint64_t now) {
    const Guard guard(head);
    zelTimer *timer = guard ? findDue(head, now) : nullptr;
    if (timer == nullptr) return {};
    unlinkTimer(head, *timer);
    startFiring(head, *timer);
    return {timer, timer->callback, timer->argument};
}

bool comesBack(const zelTimer &timer) {
    return timer.type == ZEL_TIMER_PERIODIC && timer.isEnabled;
}

// After the callback: a periodic timer comes back as it fired, unless somebody disabled, linked or deleted it.
void finish(zelTmrHead &head, const Shot &shot) {
    const Guard guard(head);
    if (!guard || !stopFiring(head, shot.timer)) return;
    if (comesBack(*shot.timer) && linkTimer(head, *shot.timer) == ZEL_OK) shot.timer->callback = shot.callback;
}

// Fires what is due by present(), at most `most` timers unless that is 0, and calls afterEach(fired so far).
template <class Present, class AfterEach>
int fireDue(zelTmrHead &head, std::uint32_t most, Present present, AfterEach afterEach) {
    std::uint32_t fired = 0;
    while (most == 0 || fired < most) {
        const Shot shot = takeDue(head, present());
        if (shot.timer == nullptr) break;
        shot.callback(shot.argument);
        finish(head, shot);
        afterEach(++fired);
    }
    return static_cast<int>(fired);
}

// The smaller of two limits, of which 0 is none.
std::uint32_t tighter(std::uint32_t a, std::uint32_t b) {
    return a == 0 || b == 0 ? a + b : std::min(a, b);
}

// Unlinks a timer that would fire some time; null when there is none. False when the guard cannot be had.
bool takeAny(zelTmrHead &head, zelTimer *&timer) {
    const Guard guard(head);
    if (!guard) return false;
    timer = findDue(head, UINT64_MAX);
    if (timer == nullptr)
        for (timer = head.firing; timer != nullptr && !comesBack(*timer);) timer = timer->nextFiring;
    if (timer != nullptr) forget(head, *timer);
    return true;
}

}  // namespace
}  // namespace zel::kernel

using namespace zel;
using namespace zel::kernel;

__attribute__((weak)) void zelThreadYield(void *) {}

void *zelTimerLibMalloc(size_t size, zelTmrCb, intptr_t, uint32_t, uint32_t, int, zelTmrHead *) {
    return zelMC_malloc(tag, __LINE__, size);
}

void zelTimerLibFree(void *record) {
    zelMC_free(tag, __LINE__, record);
}

int zelTmrCompare(const zelTimer *a, const zelTimer *b) {
    if (a == b) return 0;
    if (a == nullptr || b == nullptr) return a == nullptr ? -1 : 1;
    return isEarlier(*a, *b) ? -1 : 1;
}

int zelTmrHeadInit(zelTmrHead *head, zelTmrAllocFn allocRoutine, zelTmrFreeFn releaseRoutine, int withGuard,
                   uint32_t limit) {
    if (head == nullptr) return ZEL_ERROR;
    const zelSemId guard = withGuard != 0 ? semBCreate(ZEL_SEM_FIFO, 1) : 0;
    if (withGuard != 0 && guard == 0) return ZEL_ERROR;
    *head = {};
    head->guard = guard;
    head->limit = limit;
    head->allocRoutine = allocRoutine != nullptr ? allocRoutine : zelTimerLibMalloc;
    head->releaseRoutine = releaseRoutine != nullptr ? releaseRoutine : zelTimerLibFree;
    return ZEL_OK;
}

int zelTmrHeadDestroy(zelTmrHead *head) {
    if (head == nullptr) return ZEL_ERROR;
    cancellationPoint();
    const platform::NoCancellation whole;
    const zelSemId guard = head->guard;
    if (guard != 0) {
        // Given first: a guard that nobody will give any more does not hold this up. Who held it may give it once more.
        semGive(guard);
        semTake(guard, WAIT_FOREVER);
        semTake(guard, ZEL_NO_WAIT);
    }
    forgetAll(*head);
    // In this order: whoever finds no guard finds the head destroyed.
    __atomic_store_n(&head->releaseRoutine, nullptr, __ATOMIC_RELAXED);
    __atomic_store_n(&head->guard, 0, __ATOMIC_RELEASE);
    if (guard != 0) semDelete(guard);
    *head = {};
    return ZEL_OK;
}

int zelTmrFlushAll(zelTmrHead *head) {
    if (head == nullptr) return ZEL_ERROR;
    const zelTmrFreeFn releaseRoutine = head->releaseRoutine;
    zelTimer *timer = nullptr;
    while (takeAny(*head, timer)) {
        if (timer == nullptr) return ZEL_OK;
        releaseRoutine(timer);
    }
    return ZEL_ERROR;
}

int zelTmrTreeEmpty(zelTmrHead *head) {
    if (head == nullptr) return 1;
    const Guard guard(*head);
    return !guard || head->linked == 0;
}

zelTimer *zelTimerCreate(zelTmrCb callback, intptr_t argument, uint32_t seconds, int type, zelTmrHead *head) {
    return zelTickTimerCreate(callback, argument, seconds, 0, type, head);
}

zelTimer *zelTickTimerCreate(zelTmrCb callback, intptr_t argument, uint32_t seconds, uint32_t ticks, int type,
                             zelTmrHead *head) {
    if (callback == nullptr || head == nullptr) return nullptr;
    const zelTmrAllocFn allocRoutine = head->allocRoutine;
    const zelTmrFreeFn releaseRoutine = head->releaseRoutine;
    if (allocRoutine == nullptr || releaseRoutine == nullptr) return nullptr;
    void *memory = allocRoutine(sizeof(zelTimer), callback, argument, seconds, ticks, type, head);
    if (memory == nullptr) return nullptr;
    auto *timer = new (memory)
        zelTimer{.callback = callback, .argument = argument, .period = seconds, .extraTicks = ticks, .type = type};
    Unlinked mine{releaseRoutine, timer};
    if (zelTimerEnable(timer, head) != ZEL_OK) return nullptr;
    mine.timer = nullptr;
    return timer;
}

int zelTimerSet(zelTimer *timer, uint32_t seconds, zelTmrCb callback, zelTmrHead *head) {
    return zelTickTimerSet(timer, seconds, 0, callback, head);
}

int zelTickTimerSet(zelTimer *timer, uint32_t seconds, uint32_t ticks, zelTmrCb callback, zelTmrHead *head) {
    if (callback == nullptr) return ZEL_ERROR;
    return with(timer, head, [&](zelTmrHead &its, zelTimer &found) {
        unlinkTimer(its, found);
        found.period = seconds;
        found.extraTicks = ticks;
        found.callback = callback;
        found.isEnabled = 1;
        return linkTimer(its, found);
    });
}

int zelTimerEnable(zelTimer *timer, zelTmrHead *head) {
    return with(timer, head, [](zelTmrHead &its, zelTimer &found) {
        found.isEnabled = 1;
        return linkTimer(its, found);
    });
}

int zelTimerDisable(zelTimer *timer, zelTmrHead *head) {
    return with(timer, head, [](zelTmrHead &its, zelTimer &found) {
        unlinkTimer(its, found);
        found.isEnabled = 0;
        return ZEL_OK;
    });
}

int zelTimerDelete(zelTimer *timer, zelTmrHead *head) {
    const zelTmrFreeFn releaseRoutine = head != nullptr ? head->releaseRoutine : nullptr;
    const int result = with(timer, head, [](zelTmrHead &its, zelTimer &found) {
        forget(its, found);
        return ZEL_OK;
    });
    if (result == ZEL_OK) releaseRoutine(timer);
    return result;
}

int zelTimerLink(zelTimer *timer, zelTmrHead *head) {
    return with(timer, head, linkTimer);
}

int zelTimerUnlink(zelTimer *timer, zelTmrHead *head) {
    return with(timer, head, [](zelTmrHead &its, zelTimer &found) {
        unlinkTimer(its, found);
        return ZEL_OK;
    });
}

int zelProcTimers(zelTmrHead *head) {
    if (head == nullptr) return ZEL_ERROR;
    const std::uint64_t now = zelTimerTickGet();
    return fireDue(
        *head, head->limit, [now] { return now; }, [](std::uint32_t) {});
}

int zelProcTimersThread(zelTmrHead *head, uint32_t yieldAfter, uint32_t maxFired, void *thread) {
    if (head == nullptr) return ZEL_ERROR;
    return fireDue(*head, tighter(head->limit, maxFired), zelTimerTickGet, [=](std::uint32_t fired) {
        if (thread != nullptr && yieldAfter != 0 && fired > yieldAfter) zelThreadYield(thread);
    });
}
