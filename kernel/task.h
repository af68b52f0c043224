// What the kernel's objects use of tasks: the calling task, kernel sections, wait lists, and parking.
//
// A wait goes: take the object's lock, join its wait list, park until the object can be had, leave the list. Parking is
// the only place where a task waits in the kernel; it is where a suspended task stays and where a deleted task leaves.
#pragma once

#include <cstdint>

#include "base/lock.h"
#include "zel/kernel.h"

namespace zel::kernel {

using Tcb = zelTcb;

// task_list_lock: guards the task list, every control-block field and every wait-list link. A leaf: nothing but the
// allocation locks is taken under it, and nothing is printed, called back, joined or cancelled.
extern Mutex taskListLock;

// The calling thread's control block: a task's own, or a hidden one outside the task list. Never null.
Tcb &currentTask();
// The calling task's control block, null in a thread that is no task.
Tcb *currentTaskOrNull();

// Brackets every public kernel call that takes a lock: the first statement of the function. Inside a section a
// suspension only leaves its mark; the task stops when it leaves its outermost section, or inside park().
class KernelSection {
public:
    KernelSection();
    ~KernelSection();
    KernelSection(const KernelSection &) = delete;
    KernelSection &operator=(const KernelSection &) = delete;
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

// Waits with `objectLock` released until unpark(), the deadline (monotonic nanoseconds), or without a cause; a task
// that is suspended meanwhile stays here, holding nothing, until it is resumed. Returns with the lock held again. A
// cancelled task unwinds from here with the lock held, so that the caller's guards see the object locked.
//
// Wake-ups are not lost: the caller joined the wait list under `objectLock`, and whoever unparks holds it.
Parked park(Lock &objectLock, std::uint64_t deadline);
// Makes the park of `task`, present or next, return. The object's lock is held.
void unpark(Tcb &task);
void unparkAll(const WaitList &list);

// Raises the owner's thread to the waiter's logical priority when that is higher (one level, policy kept). The owner
// is named by its serial, so an owner that ended meanwhile is left alone.
void inheritPriority(std::uint64_t ownerSerial, const Tcb &waiter);

// Sets the calling thread's error number and returns ZEL_ERROR.
int fail(int errorNumber);

// The task library's allocator: TCBs, names, semaphores, watchdogs and timers.
void *allocate(std::size_t bytes, int line = __builtin_LINE());
void release(void *block, int line = __builtin_LINE());

}  // namespace zel::kernel
