// Waiting: wait lists, parking, watching another task, delays.
//
// A thread parks on one word of its control block: not 0 while it may sleep, 0 once it was unparked. It sets the word
// with the object's lock held, and whoever has something for it holds that lock, so no wake-up is lost. A deleter holds
// no lock of the object: it requests cancellation first and unparks then, while the thread sets the word first and
// looks for a request then; one of the two sees the other. The thread re-locks the object before it acts on a request,
// so that deletion unwinds through the caller's guards as if the call had failed with the lock held.
//
// Before it sleeps, a thread gives the processor away once, where that has paid lately: a partner that shares the
// processor then does its part, and neither of them pays for sleeping and waking. Each time it does not pay, or takes
// so long that others must have had the processor, the next tries lie twice as far apart; so a busy host loses a time
// slice in a thousand waits at most.
#include <sched.h>

#include <algorithm>
#include <cerrno>

#include "kernel/task_private.h"
#include "platform/futex.h"
#include "platform/seam.h"

namespace zel::kernel {
namespace {

constexpr std::uint32_t mayParkWord = 1;  // asleep, or about to be
constexpr std::uint32_t awakeWord = 2;    // unparking costs no wake-up

constexpr std::uint64_t quickReturnNanoseconds = 100'000;
constexpr std::uint32_t mostWaitsBetweenTries = 1024;

// Gives the processor away once; whether the task was unparked meanwhile.
bool giveWay(const std::atomic<std::uint32_t> &word) {
    const std::uint64_t start = platform::now();
    sched_yield();
    return word.load() == 0 && platform::now() - start < quickReturnNanoseconds;
}

// Tcb::giveWay holds how far tries lie apart in its upper half, and how many waits are left until the next in its
// lower.
void giveWayIfItPays(Tcb &self) {
    const std::uint32_t left = self.giveWay & 0xffff, distance = self.giveWay >> 16;
    if (left != 0) {
        --self.giveWay;
    } else if (giveWay(atomicWord(self.parkWord))) {
        self.giveWay = 0;
    } else {
        const std::uint32_t next = std::clamp(distance * 2, 1u, mostWaitsBetweenTries);
        self.giveWay = next << 16 | next;
    }
}

// False when the deadline passed. In a simulation nobody else can end the wait: time passes instead.
bool sleep(Tcb &self, std::uint64_t deadline) {
    std::atomic<std::uint32_t> &word = atomicWord(self.parkWord);
    const zelHostSeam &host = platform::seam();
    if (!host.simulated) giveWayIfItPays(self);
    std::uint32_t awake = awakeWord;
    if (!word.compare_exchange_strong(awake, mayParkWord)) return true;
    if (!host.simulated) return platform::futexWait(word, mayParkWord, deadline);
    hostCheck(deadline != platform::forever, "a wait without limit in simulated time");
    while (host.sleepUntil(host.context, deadline) == EINTR) {
    }
    return false;
}

void setState(Tcb &task, std::uint32_t flag) {
    const Lock list(taskListLock);
    task.state |= flag;
}

// The whole word, once the task is not suspended: a suspension that came during the delay holds the task up first.
void clearStateUnlessSuspended(Tcb &task) {
    for (;;) {
        stayWhileSuspended(task);
        const Lock list(taskListLock);
        if (isSuspended(task)) continue;
        task.state = 0;
        return;
    }
}

}  // namespace

void cancellationPoint() {
    pthread_testcancel();
}

void linkWaiter(Tcb **head, Tcb &task) {
    task.waitList = head;
    task.nextWaiter = nullptr;
    while (*head != nullptr) head = &(*head)->nextWaiter;
    *head = &task;
}

void unlinkWaiter(Tcb &task) {
    if (task.waitList == nullptr) return;
    Tcb **link = task.waitList;
    while (*link != nullptr && *link != &task) link = &(*link)->nextWaiter;
    if (*link != nullptr) *link = task.nextWaiter;
    task.waitList = nullptr;
    task.nextWaiter = nullptr;
}

void joinWaitList(WaitList &list, Tcb &task) {
    const Lock lock(taskListLock);
    linkWaiter(&list.head, task);
    task.state |= ZEL_TASK_PENDING;
}

void leaveWaitList(WaitList &, Tcb &task) {
    const Lock lock(taskListLock);
    unlinkWaiter(task);
    task.state &= ~ZEL_TASK_PENDING;
}

bool isTurnOf(const WaitList &list, const Tcb &task, bool isPriorityOrder) {
    // Priority order is advisory: among waiters that woke, a low one is not held back by a high one that may be
    // suspended.
    return isPriorityOrder || list.head == &task;
}

void beginPark(Tcb &self) {
    atomicWord(self.parkWord).store(awakeWord);
    pthread_testcancel();
}

bool sleepParked(Tcb &self, std::uint64_t deadline) {
    const bool isInTime = sleep(self, deadline);
    stayWhileSuspended(self);
    return isInTime;
}

Parked endPark(Tcb &self, bool isInTime) {
    pthread_testcancel();
    const bool wasUnparked = atomicWord(self.parkWord).exchange(0) != mayParkWord;
    return isInTime || wasUnparked ? Parked::woken : Parked::timedOut;
}

void unpark(Tcb &task) {
    std::atomic<std::uint32_t> &word = atomicWord(task.parkWord);
    if (word.exchange(0) == mayParkWord) platform::futexWake(word, 1);
}

void unparkAll(const WaitList &list) {
    const Lock lock(taskListLock);
    for (Tcb *task = list.head; task != nullptr; task = task->nextWaiter) unpark(*task);
}

void Unparking::mark(Tcb &task) {
    std::atomic<std::uint32_t> &word = atomicWord(task.parkWord);
    if (word.exchange(0) != mayParkWord) return;
    if (word_ != nullptr) platform::futexWake(*word_, 1);
    word_ = &word;
}

void Unparking::wake() const {
    // The task may have gone by now, and its memory with it: the wake-up only names the address.
    platform::futexWake(*word_, 1);
}

void wakeWatchers(Tcb &task) {
    for (Tcb *watcher = task.watchers; watcher != nullptr; watcher = watcher->nextWaiter) unpark(*watcher);
}

void dropWatchers(Tcb &task) {
    while (task.watchers != nullptr) {
        Tcb &watcher = *task.watchers;
        unlinkWaiter(watcher);
        unpark(watcher);
    }
}

void watch(Lock &list, Tcb &task) {
    struct Watching {
        Tcb &self;
        ~Watching() { unlinkWaiter(self); }
    };
    const Watching watching{currentTask()};
    linkWaiter(&task.watchers, watching.self);
    park(list, platform::forever);
}

void delayUntil(std::uint64_t deadline) {
    Tcb &self = currentTask();
    const zelHostSeam &host = platform::seam();
    setState(self, ZEL_TASK_DELAYED);
    int error = 0;
    do {
        error = host.sleepUntil(host.context, deadline);
        hostCheck(error != EINVAL, "nanosleep (&delay, &remaining)");
    } while (error == EINTR);
    clearStateUnlessSuspended(self);
}

}  // namespace zel::kernel

using namespace zel;
using namespace zel::kernel;

int taskDelay(int ticks) {
    cancellationPoint();
    const KernelSection section;
    if (ticks > 0) {
        delayUntil(platform::deadlineAfterTicks(ticks));
        return ZEL_OK;
    }
    sched_yield();
    cancellationPoint();
    clearStateUnlessSuspended(currentTask());
    return ZEL_OK;
}
