// Restart: the control block, id, name, arguments and safe count stay, the thread is replaced.
//
// Another task's restarter ends the old thread as a deleter would, waits until it has let go, and creates the new one.
// A task that restarts itself ends its thread and leaves the rest to the exception task, through a watchdog. A deletion
// that comes meanwhile wins: the restarter finds the task ending, or gone.
#include <cerrno>

#include "kernel/task_private.h"
#include "platform/cancellation.h"

namespace zel::kernel {
namespace {

// The task is quiet and nobody's: its old thread is joined, its new one created.
int replaceThread(Lock &list, Tcb &task) {
    const bool isJoinable = has(task, lifeJoinable);
    const pthread_t old = task.pthrid;
    task.lifeFlags = (task.lifeFlags & ~static_cast<std::uint32_t>(lifeJoinable)) | lifeStarting;
    list.unlock();
    if (isJoinable) pthread_join(old, nullptr);
    list.lock();
    task.lifeFlags &= ~static_cast<std::uint32_t>(lifeStarting | lifeRestarting);
    wakeWatchers(task);
    if (has(task, lifeEnding)) return ZEL_ERR_INVALID_OBJECT_ID;
    task.pthrid = 0;
    task.parkWord = 0;
    return createThread(task);
}

// The caller is being deleted while it waits for the old thread: the exception task starts the new one, and without an
// exception task the task ends. False when the old thread has let go in between, so that nothing has to be left.
bool leaveRestart(Lock &list, std::uint64_t serial) {
    list.unlock();
    const zelWdogId starter = exceptionTaskRuns() ? wdCreate() : nullptr;
    list.lock();
    Tcb *task = findTaskBySerial(serial);
    if (task == nullptr || !has(*task, lifeRunning) || has(*task, lifeEnding)) {
        list.unlock();
        if (starter != nullptr) wdDelete(starter);
        list.lock();
        return false;
    }
    task->restartWatchdog = starter;
    if (starter == nullptr) task->lifeFlags &= ~static_cast<std::uint32_t>(lifeRestarting);
    return true;
}

// Waits for the end of the old thread and starts the new one.
int startAgain(Lock &list, std::uint64_t serial) {
    const platform::NoCancellation whole;
    for (;;) {
        Tcb *task = findTaskBySerial(serial);
        if (task == nullptr || has(*task, lifeEnding)) return ZEL_ERR_INVALID_OBJECT_ID;
        if (isQuiet(*task)) return replaceThread(list, *task);
        const bool isLeaving = has(currentTask(), lifeEnding | lifeRestarting) && has(*task, lifeRunning);
        if (isLeaving && leaveRestart(list, serial)) return ZEL_ERR_OBJECT_DELETED;
        if (!isLeaving) watch(list, *task);
    }
}

int restartSelf(Lock &list, Tcb &self) {
    list.unlock();
    if (!exceptionTaskRuns()) return ZEL_ERR_OBJECT_UNAVAILABLE;
    const zelWdogId starter = wdCreate();
    if (starter == nullptr) return ZEL_ERR_NOT_ENOUGH_MEMORY;
    list.lock();
    const bool isOwnAffair = !has(self, lifeEnding | lifeRestarting);
    if (isOwnAffair) {
        self.lifeFlags |= lifeRestarting;
        self.restartWatchdog = starter;
    }
    list.unlock();
    if (!isOwnAffair) wdDelete(starter);
    pthread_exit(nullptr);
}

int restart(zelTaskId tid) {
    Lock list(taskListLock);
    Tcb *task = findLiveTask(tid);
    if (task == nullptr) return ZEL_ERR_INVALID_OBJECT_ID;
    if (task == threadTask) return restartSelf(list, *task);
    if (has(*task, lifeRestarting)) return 0;
    task->lifeFlags |= lifeRestarting;
    const std::uint64_t serial = task->serial;
    stopThread(list, *task);
    return startAgain(list, serial);
}

}  // namespace

void selfStarter(std::intptr_t tid) {
    const KernelSection section;
    Lock list(taskListLock);
    Tcb *task = findLiveTask(tid);
    if (task == nullptr || task->restartWatchdog == nullptr) return;  // the task was deleted meanwhile
    const std::uint64_t serial = task->serial;
    const zelWdogId starter = task->restartWatchdog;
    task->restartWatchdog = nullptr;
    list.unlock();
    wdDelete(starter);
    list.lock();
    const int error = startAgain(list, serial);
    hostCheck(error != ZEL_ERR_NOT_ENOUGH_MEMORY,
              "!pthread_create (&(tcb->pthrid), &(tcb->attr), task_wrapper, (void *) tcb)");
}

}  // namespace zel::kernel

using namespace zel;
using namespace zel::kernel;

int taskRestart(zelTaskId tid) {
    cancellationPoint();
    const int savedErrno = errno;
    const KernelSection section;
    const int error = restart(tid);
    if (error != 0) return fail(error);
    errno = savedErrno;
    return ZEL_OK;
}
