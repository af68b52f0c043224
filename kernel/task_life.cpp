// The thread of a task: creation, the wrapper around the entry routine, and its end.
//
// A thread ends in one place, whatever ends it: its entry routine returned, it left by pthread_exit (which is how a
// task deletes or restarts itself), or it was cancelled. There it finds under the list lock whether somebody else waits
// to reap it; if not, it reaps its own task. The control block stays whole until then, so guards that unwind through
// the task's frames may still use the kernel.
#include <cerrno>
#include <cstring>

#include "kernel/task_private.h"
#include "platform/cancellation.h"
#include "platform/scheduling.h"

namespace zel::kernel {
namespace {

constexpr std::size_t hostNameBytes = 16;

void nameThread(const char *name) {
    if (name == nullptr) return;
    char shortened[hostNameBytes] = {};
    strncpy(shortened, name, sizeof shortened - 1);
    pthread_setname_np(pthread_self(), shortened);
}

// The calling thread becomes the task's.
void adopt(Tcb &task) {
    pthread_setspecific(vx2bsdKey, &task);
    threadTask = &task;
    std::atomic_signal_fence(std::memory_order_seq_cst);
    nameThread(task.name);
    errno = 0;
    stayWhileSuspended(task);  // a suspension may have come before the handler could know the task
}

// The control block is no longer this thread's; a reaper or a restarter goes on with it.
void letGo(Tcb &task) {
    threadTask = nullptr;
    pthread_setspecific(vx2bsdKey, nullptr);
    task.lifeFlags &= ~static_cast<std::uint32_t>(lifeRunning);
    wakeWatchers(task);
}

// Returns with the list locked and the task not suspended. A task that restarts itself has told the exception task.
void settle(Lock &list, Tcb &task) {
    for (bool isStarterTold = false;;) {
        if (isSuspended(task)) {
            list.unlock();
            stayWhileSuspended(task);
        } else if (task.restartWatchdog != nullptr && !isStarterTold) {
            list.unlock();
            wdStart(task.restartWatchdog, 1, selfStarter, task.id);
            isStarterTold = true;
        } else {
            return;
        }
        list.lock();
    }
}

bool mustReapItself(const Tcb &task) {
    return !has(task, lifeEnding | lifeRestarting) || has(task, lifeOrphaned);
}

void reapSelf(Lock &list, Tcb &task) {
    task.lifeFlags |= lifeEnding;
    wakeWatchers(task);
    while (task.pins > 0) watch(list, task);
    task.lifeFlags &= ~static_cast<std::uint32_t>(lifeJoinable);
    list.unlock();
    pthread_detach(pthread_self());
    removeTask(task);
}

struct ThreadEnd {
    Tcb &task;
    ~ThreadEnd() noexcept(false) {
        const platform::NoCancellation whole;
        // A kernel section that is never left: the control block goes, or starts afresh.
        atomicWord(task.kernelDepth).fetch_add(1);
        Lock list(taskListLock);
        settle(list, task);
        if (mustReapItself(task))
            reapSelf(list, task);
        else
            letGo(task);
    }
};

int activate(zelTaskId tid) {
    const Lock list(taskListLock);
    Tcb *task = findLiveTask(tid);
    if (task == nullptr) return ZEL_ERR_INVALID_OBJECT_ID;
    return (task->state & ZEL_TASK_NOT_ACTIVATED) != 0 ? createThread(*task) : 0;
}

}  // namespace

void *taskWrapper(void *argument) {
    auto &task = *static_cast<Tcb *>(argument);
    const ThreadEnd end{task};
    adopt(task);
    const std::intptr_t *a = task.args;
    task.entry(a[0], a[1], a[2], a[3], a[4], a[5], a[6], a[7], a[8], a[9]);
    return nullptr;
}

// Under the list lock, so that nobody finds the task active without its thread.
int createThread(Tcb &task) {
    // Also for a program that starts tasks before it starts the library.
    if (vx2bsdLibInit() != 0) return ZEL_ERR_NOT_ENOUGH_MEMORY;
    task.state = 0;
    task.lockCount = 0;
    task.kernelDepth = 0;
    atomicWord(task.suspendWord).fetch_and(~1u);
    task.currentPriority = task.prv_priority.sched_priority;
    int error = pthread_create(&task.pthrid, &task.attr, taskWrapper, &task);
    if (error == EPERM) {
        // The right to real-time scheduling went after it was found: time-sharing from now on, for everybody.
        platform::leaveRealTime();
        platform::setAttributes(task.attr, schedulingPolicy(), task.currentPriority);
        error = pthread_create(&task.pthrid, &task.attr, taskWrapper, &task);
    }
    if (error != 0) {
        task.pthrid = 0;
        task.state = ZEL_TASK_NOT_ACTIVATED;
        return ZEL_ERR_NOT_ENOUGH_MEMORY;
    }
    task.lifeFlags |= lifeRunning | lifeJoinable;
    return 0;
}

void removeTask(Tcb &task) {
    const int savedErrno = errno;
    runDeleteHooks(task.id, 0);
    disposeTask(task);
    errno = savedErrno;
}

}  // namespace zel::kernel

using namespace zel;
using namespace zel::kernel;

int taskActivate(zelTaskId tid) {
    const KernelSection section;
    return result(activate(tid));
}
