// Deletion and delete safety.
//
// The deleter that marks a task ending is its only one; all others find it gone. It requests cancellation, lets a
// suspended task run again, unparks it, and waits on the task's watchers until its thread has let go of the control
// block. Two tasks may delete each other: a deleter that is being ended itself while it waits leaves its victim to reap
// itself, and goes.
//
// A task that leaves its delete-safe section while deleters wait hands over to them: it stays in taskUnsafe() until one
// has it or all have given up, so that it is not caught in its next section.
#include <cerrno>

#include "kernel/task_private.h"
#include "platform/cancellation.h"
#include "platform/seam.h"

namespace zel::kernel {
namespace {

bool isClaimed(const Tcb &task) {
    return has(task, lifeEnding | lifeRestarting);
}

// Leaves when the calling task's thread is to end; goes on when it unwinds already, or keeps cancellation off.
void leaveIfClaimed(Lock &list, Tcb &self) {
    while (has(self, lifeDoomed)) watch(list, self);
    if (isClaimed(self)) pthread_testcancel();
}

// Waits until the thread is through with the control block. False when the caller is to end itself: the task was left
// to reap itself then.
bool awaitQuiet(Lock &list, Tcb &task) {
    while (!isQuiet(task)) {
        if (isClaimed(currentTask()) && has(task, lifeRunning)) {
            task.lifeFlags |= lifeOrphaned;
            return false;
        }
        watch(list, task);
    }
    return true;
}

// True when the task has gone, with the list unlocked; false when the caller is to end itself.
bool reap(Lock &list, Tcb &task) {
    const platform::NoCancellation whole;
    stopThread(list, task);
    if (!awaitQuiet(list, task)) return false;
    const bool isJoinable = has(task, lifeJoinable);
    const pthread_t thread = task.pthrid;
    list.unlock();
    if (isJoinable) pthread_join(thread, nullptr);
    removeTask(task);
    return true;
}

int end(Lock &list, Tcb &task) {
    if (&task == threadTask) {
        list.unlock();
        pthread_exit(nullptr);
    }
    task.lifeFlags |= lifeEnding;
    wakeWatchers(task);
    if (!reap(list, task)) leaveIfClaimed(list, currentTask());
    return 0;
}

// Counts a deleter while it waits.
class WaitingDeleter {
public:
    explicit WaitingDeleter(Tcb &task) : task_(task), self_(currentTask()) {
        ++task_.deletersWaiting;
        linkWaiter(&task_.watchers, self_);
    }
    WaitingDeleter(const WaitingDeleter &) = delete;
    WaitingDeleter &operator=(const WaitingDeleter &) = delete;
    ~WaitingDeleter() {
        if (self_.waitList == nullptr) return;  // the task has gone
        unlinkWaiter(self_);
        if (--task_.deletersWaiting == 0) wakeWatchers(task_);
    }

private:
    Tcb &task_;
    Tcb &self_;
};

int endWhenUnsafe(zelTaskId tid) {
    Lock list(taskListLock);
    Tcb *task = findLiveTask(tid);
    if (task == nullptr) return ZEL_ERR_OBJECT_DELETED;
    if (task == threadTask && task->safeCount > 0) return ZEL_ERR_OBJECT_UNAVAILABLE;
    const std::uint64_t serial = task->serial;
    while (task->safeCount > 0) {
        {
            const WaitingDeleter waiting(*task);
            park(list, platform::forever);
        }
        task = findTaskBySerial(serial);
        if (task == nullptr || has(*task, lifeEnding)) return ZEL_ERR_OBJECT_DELETED;
    }
    return end(list, *task);
}

int endNow(zelTaskId tid) {
    Lock list(taskListLock);
    Tcb *task = findLiveTask(tid);
    return task != nullptr ? end(list, *task) : ZEL_ERR_OBJECT_DELETED;
}

void handOverToDeleters(Lock &list, Tcb &self) {
    wakeWatchers(self);
    while (self.deletersWaiting > 0 && self.safeCount == 0) watch(list, self);
    leaveIfClaimed(list, self);
}

}  // namespace

void stopThread(Lock &list, Tcb &task) {
    if (!has(task, lifeRunning)) return;
    task.lifeFlags |= lifeDoomed;
    ++task.pins;
    const pthread_t thread = task.pthrid;
    list.unlock();
    pthread_cancel(thread);
    list.lock();
    --task.pins;
    task.lifeFlags &= ~static_cast<std::uint32_t>(lifeDoomed);
    endSuspension(task);
    unpark(task);
    wakeWatchers(task);
}

void leaveDeleteSafety() {
    const KernelSection section;
    Tcb &self = currentTask();
    Lock list(taskListLock);
    if (self.safeCount > 0 && --self.safeCount == 0 && self.deletersWaiting > 0) handOverToDeleters(list, self);
}

}  // namespace zel::kernel

using namespace zel;
using namespace zel::kernel;

int taskDelete(zelTaskId tid) {
    cancellationPoint();
    const int savedErrno = errno;
    const KernelSection section;
    const int error = endWhenUnsafe(tid);
    if (error != 0) return fail(error);
    errno = savedErrno;
    return ZEL_OK;
}

int taskDeleteForce(zelTaskId tid) {
    cancellationPoint();
    const int savedErrno = errno;
    const KernelSection section;
    const int error = endNow(tid);
    if (error != 0) return fail(error);
    errno = savedErrno;
    return ZEL_OK;
}

int taskSafe(void) {
    const KernelSection section;
    Tcb &self = currentTask();
    Lock list(taskListLock);
    // A deleter found the task unsafe and has not caught up with it yet: it is not caught inside the section.
    leaveIfClaimed(list, self);
    ++self.safeCount;
    return ZEL_OK;
}

int taskUnsafe(void) {
    cancellationPoint();
    leaveDeleteSafety();
    return ZEL_OK;
}
