// Start-up: the task key, the two service tasks, and round-robin scheduling.
//
// The service tasks keep their period by absolute deadlines, so they do not drift however long a pass takes; after a
// stall of more than one period they go on from the present instead of catching up.
#include <algorithm>

#include "kernel/task_private.h"
#include "platform/scheduling.h"
#include "platform/seam.h"

namespace zel::kernel {
namespace {

constexpr int defaultExceptionPriority = 254;
constexpr int defaultTimerPriority = 253;
constexpr std::uint32_t highestStartPriority = 255;

Tcb excp_tcb;
Tcb timer_tcb;

pthread_once_t libraryOnce = PTHREAD_ONCE_INIT;
int keyResult = 0;

void initLibrary() {
    keyResult = pthread_key_create(&vx2bsdKey, nullptr);
    installSuspension();
}

// Calls `pass` once a period, for ever.
[[noreturn]] void servePeriodically(std::uint64_t period, void (*pass)()) {
    std::uint64_t next = platform::now();
    for (;;) {
        pass();
        next = std::max(next + period, platform::now());
        cancellationPoint();
        const KernelSection section;
        delayUntil(next);
    }
}

int exception_task(intptr_t, intptr_t, intptr_t, intptr_t, intptr_t, intptr_t, intptr_t, intptr_t, intptr_t, intptr_t) {
    servePeriodically(platform::nanosecondsPerTick, process_timer_list);
}

int timer_task(intptr_t, intptr_t, intptr_t, intptr_t, intptr_t, intptr_t, intptr_t, intptr_t, intptr_t, intptr_t) {
    vx2bsdTimerLibInit();
    servePeriodically(platform::nanosecondsPerSecond, process_vx2bsd_timer_list);
}

int initServiceTask(Tcb &task, const char *name, zelTaskEntry entry) {
    return taskInit(&task, name, 0, 0, nullptr, 0, entry, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0);
}

// The start-up mapping is 255 - p, one above that of ordinary tasks.
int startServiceTask(Tcb &task, std::uint32_t priority, int defaultPriority, const char *failureText) {
    {
        const KernelSection section;
        const Lock list(taskListLock);
        task.prv_priority.sched_priority =
            priority != 0 ? static_cast<int>(highestStartPriority - std::min(priority, highestStartPriority))
                          : defaultPriority;
        hostCheck(platform::setAttributes(task.attr, schedulingPolicy(), task.prv_priority.sched_priority) == 0,
                  failureText);
    }
    return taskActivate(task.id);
}

// Gives a task the new policy, now and for threads of later restarts.
void changePolicy(Tcb &task, int policy) {
    hostCheck(platform::setAttributes(task.attr, policy, task.prv_priority.sched_priority) == 0,
              "!pthread_attr_setschedpolicy (&(tcb->attr), sched_policy)");
    if (!has(task, lifeRunning)) return;
    int currentPolicy = 0;
    sched_param parameters{};
    hostCheck(pthread_getschedparam(task.pthrid, &currentPolicy, &parameters) == 0,
              "!pthread_getschedparam (tcb->pthrid, &cur_sched_policy, &cur_param)");
    hostCheck(platform::applyPriority(task.pthrid, policy, task.currentPriority) == 0,
              "!pthread_setschedparam (tcb->pthrid, sched_policy, &cur_param)");
}

}  // namespace

extern "C" {
pthread_key_t vx2bsdKey;
}

bool exceptionTaskRuns() {
    const Lock list(taskListLock);
    return has(excp_tcb, lifeRunning) && !has(excp_tcb, lifeEnding) && &excp_tcb != threadTask;
}

}  // namespace zel::kernel

using namespace zel;
using namespace zel::kernel;

uint8_t round_robin_enabled = 0;

int vx2bsdLibInit(void) {
    pthread_once(&libraryOnce, initLibrary);
    return keyResult;
}

int init_system(void) {
    return 0;
}

int vx2bsd_start(uint32_t startExcTask, uint32_t startTimerTask, uint32_t excPriority, uint32_t timerPriority) {
    if (platform::seam().simulated) return ZEL_OK;  // whoever drives the time calls the passes
    if (startExcTask != 0 && initServiceTask(excp_tcb, "tExcTask", exception_task) != ZEL_OK) return ZEL_ERROR;
    if (startTimerTask != 0 && initServiceTask(timer_tcb, "tTimerTask", timer_task) != ZEL_OK) return ZEL_ERROR;
    if (startExcTask != 0 &&
        startServiceTask(excp_tcb, excPriority, defaultExceptionPriority,
                         "!pthread_attr_setschedparam (&(excp_tcb.attr), &(excp_tcb.prv_priority))") != ZEL_OK)
        return ZEL_ERROR;
    if (startTimerTask != 0 &&
        startServiceTask(timer_tcb, timerPriority, defaultTimerPriority,
                         "!pthread_attr_setschedparam (&(timer_tcb.attr), &(timer_tcb.prv_priority))") != ZEL_OK)
        return ZEL_ERROR;
    return ZEL_OK;
}

int kernelTimeSlice(int32_t ticks) {
    const KernelSection section;
    taskLock();
    round_robin_enabled = ticks != 0 ? 1 : 0;
    {
        const Lock list(taskListLock);
        for (Tcb *task = taskList; task != nullptr; task = task->next) changePolicy(*task, schedulingPolicy());
    }
    taskUnlock();
    return ZEL_OK;
}

void enableRoundRobin(void) {
    round_robin_enabled = 1;
}

void disableRoundRobin(void) {
    round_robin_enabled = 0;
}

uint8_t roundRobinIsEnabled(void) {
    return round_robin_enabled;
}
