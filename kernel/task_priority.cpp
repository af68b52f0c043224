// Priorities: the kernel's 0 (highest) to 255, and the thread priority 0 to 254 that each becomes; 255 is the boost of
// taskLock.
//
// What the library decides, it decides by the logical values in the control block; the host is told as well and may not
// care. The task lock is a boost, not exclusion: whatever else it seems to guard is guarded by the list lock.
#include <algorithm>
#include <cerrno>

#include "kernel/task_private.h"
#include "platform/scheduling.h"

namespace zel::kernel {
namespace {

constexpr int lowestKernelPriority = 255;
constexpr int highestThreadPriority = 254;
constexpr int lockPriority = 255;

constexpr const char *boostText = "!pthread_tmp_priority_change (tcb->pthrid, max_priority)";
constexpr const char *restoreText = "!pthread_tmp_priority_change(tcb->pthrid, tcb->prv_priority.sched_priority)";

void change(Tcb &task, int priority, const char *text) {
    task.currentPriority = priority;
    if (!has(task, lifeRunning)) return;
    hostCheck(platform::applyPriority(task.pthrid, schedulingPolicy(), priority) == 0, text);
}

int setPriority(zelTaskId tid, int priority) {
    const Lock list(taskListLock);
    Tcb *task = findLiveTask(tid);
    if (task == nullptr) return ZEL_ERR_INVALID_OBJECT_ID;
    task->priority = priority;
    task->prv_priority.sched_priority = translatePriority(priority);
    // For the thread that is still to be created, and the one that a restart creates.
    platform::setAttributes(task->attr, schedulingPolicy(), task->prv_priority.sched_priority);
    applyCurrentPriority(*task, task->prv_priority.sched_priority);
    return 0;
}

}  // namespace

int translatePriority(int priority) {
    // Clamped first: the difference of an extreme priority overflows.
    return std::clamp(highestThreadPriority - std::clamp(priority, 0, lowestKernelPriority), 0, highestThreadPriority);
}

void reportIllegalPriority(int priority) {
    if (priority > lowestKernelPriority) errno = ZEL_ERR_ILLEGAL_PRIORITY;
}

int schedulingPolicy() {
    return roundRobinIsEnabled() != 0 ? SCHED_RR : SCHED_FIFO;
}

void applyCurrentPriority(Tcb &task, int priority) {
    change(task, priority, "!pthread_setschedparam (tcb->pthrid, policy, &param)");
}

void inheritPriority(std::uint64_t ownerSerial, const Tcb &waiter) {
    const Lock list(taskListLock);
    Tcb *owner = findTaskBySerial(ownerSerial);
    if (owner == nullptr || has(*owner, lifeEnding) || owner->currentPriority >= waiter.currentPriority) return;
    applyCurrentPriority(*owner, waiter.currentPriority);
}

}  // namespace zel::kernel

using namespace zel;
using namespace zel::kernel;

int taskPrioritySet(zelTaskId tid, int priority) {
    const KernelSection section;
    const int error = setPriority(tid, priority);
    if (error != 0) return fail(error);
    reportIllegalPriority(priority);
    return ZEL_OK;
}

int taskPriorityGet(zelTaskId tid, int *priority) {
    const KernelSection section;
    Lock list(taskListLock);
    const Tcb *task = findTask(tid);
    if (task != nullptr && priority != nullptr) *priority = task->priority;
    list.unlock();
    return result(task != nullptr ? 0 : ZEL_ERR_INVALID_OBJECT_ID);
}

int taskLock(void) {
    const KernelSection section;
    Tcb &self = currentTask();
    const Lock list(taskListLock);
    if (self.lockCount++ == 0) change(self, lockPriority, boostText);
    return ZEL_OK;
}

int taskUnlock(void) {
    const KernelSection section;
    Tcb &self = currentTask();
    const Lock list(taskListLock);
    if (self.lockCount > 0) --self.lockCount;
    if (self.lockCount == 0) change(self, self.prv_priority.sched_priority, restoreText);
    return ZEL_OK;
}
