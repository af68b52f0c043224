// Suspension, deferred: a task is stopped where it holds nothing.
//
// suspendWord holds a generation and, in bit 0, whether the task is suspended; the task waits for a change of the word.
// It does so in three places: in the handler of a reserved signal when it is in no kernel section, on leaving its
// outermost kernel section, and in park() between two holds of the object's lock. So a stopped task never holds a lock
// of the kernel, and a task that pends while it is suspended takes nothing.
//
// Whoever suspends returns when the task is known to do none of the caller's work any more: it has acknowledged, or it
// is seen inside a kernel section, which it will not leave. That a section that is seen open is not just being left
// unaware of the suspension is owed to the fence that the suspender makes every thread pass between setting the word
// and reading the depth; so entering and leaving sections needs none. Where the host has no such call, only the
// signal's acknowledgement counts.
//
// Nothing here allocates or prints, and a task's handler touches only its own control block and one process-wide word:
// the suspender looks its target up anew after each wait, since the target may have been deleted meanwhile.
#include <signal.h>

#include <algorithm>
#include <cerrno>
#include <climits>

#include "kernel/task_private.h"
#include "platform/futex.h"
#include "platform/process_fence.h"
#include "platform/seam.h"

namespace zel::kernel {
namespace {

constexpr std::uint32_t suspendedBit = 1;
constexpr std::uint32_t generationStep = 2;
constexpr std::uint64_t acknowledgementNanoseconds = platform::nanosecondsPerSecond;
constexpr std::uint64_t lookAgainNanoseconds = 1'000'000;

// Counts the acknowledgements of all tasks.
constinit std::atomic<std::uint32_t> acknowledgements{0};

int suspendSignal() {
    return SIGRTMAX - 1;
}

void acknowledge(Tcb &task, std::uint32_t order) {
    atomicWord(task.suspendAck).store(order);
    acknowledgements.fetch_add(1);
    platform::futexWake(acknowledgements, INT_MAX);
}

void onSuspendSignal(int) {
    Tcb *task = threadTask;
    if (task == nullptr) return;
    const int savedErrno = errno;
    const std::uint32_t order = atomicWord(task->suspendWord).load();
    if (atomicWord(task->kernelDepth).load() == 0)
        stayWhileSuspended(*task);
    else if ((order & suspendedBit) != 0)
        acknowledge(*task, order);
    errno = savedErrno;
}

bool hasStopped(Tcb &task, std::uint32_t order, bool isFenced) {
    if (atomicWord(task.suspendAck).load() == order) return true;
    return isFenced && atomicWord(task.kernelDepth).load() > 0;
}

// The task `serial` was ordered to stop; waits until it has, unless it ends, is resumed, or does not answer.
void awaitStop(std::uint64_t serial, std::uint32_t order) {
    const bool isFenced = platform::fenceAllThreads();
    const std::uint64_t deadline = platform::now() + acknowledgementNanoseconds;
    for (bool isSignalled = false;;) {
        const std::uint32_t seen = acknowledgements.load();
        {
            const Lock list(taskListLock);
            Tcb *task = findTaskBySerial(serial);
            if (task == nullptr || !has(*task, lifeRunning) || atomicWord(task->suspendWord).load() != order) return;
            if (hasStopped(*task, order, isFenced)) return;
            if (!isSignalled) pthread_kill(task->pthrid, suspendSignal());
            isSignalled = true;
        }
        const std::uint64_t now = platform::now();
        if (now >= deadline) return;
        platform::futexWait(acknowledgements, seen, std::min(deadline, now + lookAgainNanoseconds));
    }
}

int suspend(zelTaskId tid) {
    Lock list(taskListLock);
    Tcb *task = findLiveTask(tid);
    if (task == nullptr) return ZEL_ERR_INVALID_OBJECT_ID;
    task->state |= ZEL_TASK_SUSPENDED;
    if (!has(*task, lifeRunning) || isSuspended(*task)) return 0;
    std::atomic<std::uint32_t> &word = atomicWord(task->suspendWord);
    const std::uint32_t order = (word.load() + generationStep) | suspendedBit;
    word.store(order);
    if (task == threadTask) return 0;  // stops when this call returns
    const std::uint64_t serial = task->serial;
    list.unlock();
    awaitStop(serial, order);
    return 0;
}

int resume(zelTaskId tid) {
    const Lock list(taskListLock);
    Tcb *task = findLiveTask(tid);
    if (task == nullptr) return ZEL_ERR_INVALID_OBJECT_ID;
    endSuspension(*task);
    return has(*task, lifeRunning) ? 0 : ZEL_ERR_OBJECT_DELETED;
}

}  // namespace

void stayWhileSuspended(Tcb &task) {
    std::atomic<std::uint32_t> &word = atomicWord(task.suspendWord);
    for (std::uint32_t order = word.load(); (order & suspendedBit) != 0; order = word.load()) {
        if (atomicWord(task.suspendAck).load() != order) acknowledge(task, order);
        platform::futexWait(word, order, platform::forever);
    }
}

void endSuspension(Tcb &task) {
    task.state &= ~ZEL_TASK_SUSPENDED;
    std::atomic<std::uint32_t> &word = atomicWord(task.suspendWord);
    if ((word.fetch_and(~suspendedBit) & suspendedBit) != 0) platform::futexWake(word, INT_MAX);
}

void installSuspension() {
    struct sigaction action = {};
    action.sa_handler = onSuspendSignal;
    action.sa_flags = SA_RESTART;
    sigfillset(&action.sa_mask);  // a stopped thread runs no other handler either
    hostCheck(sigaction(suspendSignal(), &action, nullptr) == 0, "!sigaction (SIGRTMAX - 1)");
}

}  // namespace zel::kernel

using namespace zel;
using namespace zel::kernel;

int taskSuspend(zelTaskId tid) {
    cancellationPoint();
    const KernelSection section;
    return result(suspend(tid));
}

int taskResume(zelTaskId tid) {
    const KernelSection section;
    return result(resume(tid));
}
