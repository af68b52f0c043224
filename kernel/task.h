// What the kernel's objects use of tasks: the calling task, kernel sections, wait lists, and parking.
//
// A wait goes: take the object's lock, join its wait list, park until the object can be had, leave the list. Parking is
// the only place where a task waits in the kernel; it is where a suspended task stays and where a deleted task leaves.
#pragma once

#include <atomic>
#include <cstdint>

#include "base/lock.h"
#include "zel/kernel.h"

namespace zel::kernel {

using Tcb = zelTcb;

// task_list_lock: guards the task list, every control-block field and every wait-list link. A leaf: nothing but the
// allocation locks is taken under it, and nothing is printed, called back, joined or cancelled.
extern Mutex taskListLock;

// The words of a control block that other threads or a signal handler read without taskListLock.
inline std::atomic<std::uint32_t> &atomicWord(std::uint32_t &word) {
    static_assert(sizeof(std::atomic<std::uint32_t>) == sizeof(std::uint32_t));
    return reinterpret_cast<std::atomic<std::uint32_t> &>(word);
}

// The calling thread's control block, null until it is first asked for in a thread that is no task. Reached by one
// load, without an allocation, also in a signal handler.
extern constinit thread_local Tcb *threadTask __attribute__((tls_model("initial-exec")));
// Makes the hidden control block of a thread that is no task.
Tcb &hiddenTask();

// The calling thread's control block: a task's own, or a hidden one outside the task list. Never null.
inline Tcb &currentTask() {
    return threadTask != nullptr ? *threadTask : hiddenTask();
}
// The calling task's control block, null in a thread that is no task.
inline Tcb *currentTaskOrNull() {
    return threadTask != nullptr && threadTask->id != 0 ? threadTask : nullptr;
}

// Stays here, holding nothing, while the calling task is suspended.
void stayWhileSuspended(Tcb &task);

// Brackets every public kernel call that takes a lock: the first statement of the function. Inside a section a
// suspension only leaves its mark; the task stops when it leaves its outermost section, or inside park().
//
// Costs no fence: whoever suspends makes this thread pass one (see task_suspend.cpp).
class KernelSection {
public:
    KernelSection() : task_(currentTask()) {
        setDepth(depth() + 1);
        std::atomic_signal_fence(std::memory_order_seq_cst);
    }
    ~KernelSection() {
        std::atomic_signal_fence(std::memory_order_seq_cst);
        setDepth(depth() - 1);
        std::atomic_signal_fence(std::memory_order_seq_cst);
        const bool isSuspended = (atomicWord(task_.suspendWord).load(std::memory_order_relaxed) & 1) != 0;
        if (isSuspended && depth() == 0) [[unlikely]]
            stayWhileSuspended(task_);
    }
    KernelSection(const KernelSection &) = delete;
    KernelSection &operator=(const KernelSection &) = delete;

private:
    std::uint32_t depth() { return atomicWord(task_.kernelDepth).load(std::memory_order_relaxed); }
    void setDepth(std::uint32_t depth) { atomicWord(task_.kernelDepth).store(depth, std::memory_order_relaxed); }

    Tcb &task_;
};

// A cancellation point for calls that may wait: called on entry, before anything is taken.
void cancellationPoint();

// The tasks pending on an object, oldest first. Changed only with the object's lock held.
struct WaitList {
    Tcb *head = nullptr;
    bool isEmpty() const { return head == nullptr; }
};

// Appends the calling task and marks it pending; removes it and clears the mark. A destructor may leave().
void joinWaitList(WaitList &list, Tcb &task);
void leaveWaitList(WaitList &list, Tcb &task);

// signal_for_my_task: in first-in-first-out order only the head's turn; in priority order every woken waiter's.
bool isTurnOf(const WaitList &list, const Tcb &task, bool isPriorityOrder);

enum class Parked { woken, timedOut };

// The steps of park() around the release of the object's lock.
void beginPark(Tcb &self);
bool sleepParked(Tcb &self, std::uint64_t deadline);
Parked endPark(Tcb &self, bool isInTime);

// Waits with `objectLock` (a Lock, or another guard with lock() and unlock()) released until unpark(), the deadline
// (monotonic nanoseconds), or without a cause; a task that is suspended meanwhile stays here, holding nothing, until it
// is resumed. Returns with the lock held again. A cancelled task unwinds from here with the lock held, so that the
// caller's guards see the object locked.
//
// Wake-ups are not lost: the caller joined the wait list under `objectLock`, and whoever unparks holds it.
template <class Guard>
Parked park(Guard &objectLock, std::uint64_t deadline) {
    Tcb &self = currentTask();
    beginPark(self);
    objectLock.unlock();
    const bool isInTime = sleepParked(self, deadline);
    objectLock.lock();
    return endPark(self, isInTime);
}
// Makes the park of `task`, present or next, return. The object's lock is held.
void unpark(Tcb &task);
void unparkAll(const WaitList &list);

// unpark() in two steps, for hand-offs: marked while the object's lock is held, woken by the destructor. Declared
// before the guard of that lock, so that the task does not wake only to wait for the lock.
class Unparking {
public:
    Unparking() = default;
    Unparking(const Unparking &) = delete;
    Unparking &operator=(const Unparking &) = delete;
    ~Unparking() {
        if (word_ != nullptr) wake();
    }
    void mark(Tcb &task);

private:
    void wake() const;

    const std::atomic<std::uint32_t> *word_ = nullptr;
};

// Raises the owner's thread to the waiter's logical priority when that is higher (one level, policy kept). The owner
// is named by its serial, so an owner that ended meanwhile is left alone.
void inheritPriority(std::uint64_t ownerSerial, const Tcb &waiter);

// taskUnsafe(), without its cancellation point on entry: for a caller whose other half is done.
void leaveDeleteSafety();

// Sets the calling thread's error number and returns ZEL_ERROR.
int fail(int errorNumber);

// The task library's allocator: TCBs, names, semaphores, watchdogs and timers. Zeroed.
void *allocate(std::size_t bytes, int line = __builtin_LINE());
void release(void *block, int line = __builtin_LINE());

}  // namespace zel::kernel
