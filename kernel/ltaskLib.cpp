// The task list: control blocks, ids, names, descriptions, and the memory of the task library.
//
// Ids of spawned tasks are one above the largest in the list, so an id comes back once the highest task has gone; the
// ids of control blocks that callers supply are their addresses, at or above 0x10000, and take no part. Everything is
// found by walking the list: it is short, and nothing that is called often looks a task up.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <new>

#include "kernel/task_private.h"
#include "platform/scheduling.h"
#include "zel/platform.h"

namespace zel::kernel {
namespace {

constexpr const char *allocationTag = "ltaskLib";
constexpr std::uintptr_t idLimit = 0x10000;
constexpr std::uint32_t notReadyMask = 0x8F;

constinit Mutex mallocLock{LockRank::allocation, "&malloc_lock"};
constinit Mutex freeLock{LockRank::allocation, "&free_lock"};
constinit std::atomic<std::uint64_t> lastSerial{0};

// False for the ids that are addresses; those of the upper half of a 32-bit host are negative.
bool isSpawnedId(zelTaskId id) {
    return static_cast<std::uintptr_t>(id) < idLimit;
}

char *copyName(const char *name) {
    const std::size_t bytes = strlen(name) + 1;
    auto *copy = static_cast<char *>(allocate(bytes));
    if (copy != nullptr) memcpy(copy, name, bytes);
    return copy;
}

bool isListed(const Tcb &task) {
    const Tcb *other = taskList;
    while (other != nullptr && other != &task) other = other->next;
    return other != nullptr;
}

void appendToList(Tcb &task) {
    Tcb **link = &taskList;
    while (*link != nullptr) link = &(*link)->next;
    *link = &task;
    task.lifeFlags |= lifeListed;
}

void removeFromList(Tcb &task) {
    Tcb **link = &taskList;
    while (*link != nullptr && *link != &task) link = &(*link)->next;
    if (*link != nullptr) *link = task.next;
    task.next = nullptr;
    task.lifeFlags &= ~static_cast<std::uint32_t>(lifeListed);
}

// The attributes of the thread, and the locks that the layout of a control block has. The library itself waits for a
// task parked on its watchers: whoever waited on the block's own conditions would keep the memory of a task that ends.
void initHostParts(Tcb &task) {
    hostCheck(pthread_attr_init(&task.attr) == 0, "!pthread_attr_init (&(tcb->attr))");
    hostCheck(platform::setAttributes(task.attr, schedulingPolicy(), task.prv_priority.sched_priority) == 0,
              "!pthread_attr_setschedparam (&(tcb->attr), &(tcb->prv_priority))");
    hostCheck(platform::initMutex(task.tdelete_lock) == 0, "!pthread_mutex_init (&(tcb->tdelete_lock))");
    hostCheck(platform::initMutex(task.dbcst_lock) == 0, "!pthread_mutex_init (&(tcb->dbcst_lock))");
    hostCheck(platform::initCondition(task.tdelete_cond) == 0, "!pthread_cond_init (&(tcb->tdelete_cond))");
    hostCheck(platform::initCondition(task.dbcst_cond) == 0, "!pthread_cond_init (&(tcb->dbcst_cond))");
}

void destroyHostParts(Tcb &task) {
    pthread_cond_destroy(&task.dbcst_cond);
    pthread_cond_destroy(&task.tdelete_cond);
    pthread_mutex_destroy(&task.dbcst_lock);
    pthread_mutex_destroy(&task.tdelete_lock);
    pthread_attr_destroy(&task.attr);
}

zelTaskId lowestFreeId() {
    std::uint8_t isTaken[idLimit / 8] = {};
    for (const Tcb *task = taskList; task != nullptr; task = task->next)
        if (isSpawnedId(task->id)) isTaken[task->id / 8] |= static_cast<std::uint8_t>(1u << (task->id % 8));
    for (zelTaskId id = 1; isSpawnedId(id); ++id)
        if ((isTaken[id / 8] & (1u << (id % 8))) == 0) return id;
    return 0;
}

// 0 when every id is taken.
zelTaskId nextId() {
    const Lock list(taskListLock);
    zelTaskId largest = 0;
    for (const Tcb *task = taskList; task != nullptr; task = task->next)
        if (isSpawnedId(task->id) && task->id > largest) largest = task->id;
    return isSpawnedId(largest + 1) ? largest + 1 : lowestFreeId();
}

// Gives the task an id, lists it, and starts its thread.
int spawnInto(Tcb &task, TaskPlan plan, zelTaskId &id) {
    const Lock spawning(taskSpawnLock);
    id = nextId();
    if (id == 0) return ZEL_ERR_TCB_ALLOCATION;
    char defaultName[24];
    snprintf(defaultName, sizeof defaultName, "t%d", static_cast<int>(id));
    if (plan.name == nullptr) plan.name = defaultName;
    if (const int error = prepareTask(task, id, plan); error != 0) return error;
    Lock list(taskListLock);
    const int error = createThread(task);
    list.unlock();
    if (error != 0) disposeTask(task);
    return error;
}

}  // namespace

constinit Mutex taskListLock{LockRank::taskList, "&task_list_lock"};
constinit Mutex taskSpawnLock{LockRank::taskSpawn, "&task_spawn_lock"};
constinit thread_local Tcb *threadTask = nullptr;
Tcb *taskList = nullptr;

Tcb &hiddenTask() {
    static constinit thread_local Tcb hidden{};
    hidden.serial = ++lastSerial;
    threadTask = &hidden;
    return hidden;
}

int fail(int errorNumber) {
    errno = errorNumber;
    return ZEL_ERROR;
}

int result(int errorNumber) {
    return errorNumber == 0 ? static_cast<int>(ZEL_OK) : fail(errorNumber);
}

void *allocate(std::size_t bytes, int line) {
    const Lock lock(mallocLock);
    return zelMC_calloc(allocationTag, line, 1, bytes);
}

void release(void *block, int line) {
    if (block == nullptr) return;
    const Lock lock(freeLock);
    zelMC_free(allocationTag, line, block);
}

Tcb *findTask(zelTaskId tid) {
    if (tid == 0) return currentTaskOrNull();
    Tcb *task = taskList;
    while (task != nullptr && task->id != tid) task = task->next;
    return task;
}

Tcb *findLiveTask(zelTaskId tid) {
    Tcb *task = findTask(tid);
    return task != nullptr && !has(*task, lifeEnding) ? task : nullptr;
}

Tcb *findTaskBySerial(std::uint64_t serial) {
    Tcb *task = taskList;
    while (task != nullptr && task->serial != serial) task = task->next;
    return task;
}

int prepareTask(Tcb &task, zelTaskId id, const TaskPlan &plan) {
    vx2bsdLibInit();  // a key that was not created is somebody else's
    char *name = plan.name != nullptr ? copyName(plan.name) : nullptr;
    if (plan.name != nullptr && name == nullptr) return ZEL_ERR_NOT_ENOUGH_MEMORY;
    Lock list(taskListLock);
    if (isListed(task)) {
        list.unlock();
        release(name);
        return ZEL_ERR_OBJECT_UNAVAILABLE;
    }
    new (&task) Tcb{};
    task.id = id;
    task.name = name;
    task.priority = plan.priority;
    task.prv_priority.sched_priority = task.currentPriority = translatePriority(plan.priority);
    task.isStatic = plan.isStatic ? 1 : 0;
    task.entry = plan.entry;
    task.options = plan.options;
    task.state = ZEL_TASK_NOT_ACTIVATED;
    memcpy(task.args, plan.args, sizeof task.args);
    task.serial = ++lastSerial;
    initHostParts(task);
    appendToList(task);
    return 0;
}

void disposeTask(Tcb &task) {
    Lock list(taskListLock);
    removeFromList(task);
    dropWatchers(task);
    char *name = task.name;
    const zelWdogId restarter = task.restartWatchdog;
    const bool isStatic = task.isStatic != 0;
    destroyHostParts(task);
    task.name = nullptr;
    task.restartWatchdog = nullptr;
    if (threadTask == &task) {
        threadTask = nullptr;
        pthread_setspecific(vx2bsdKey, nullptr);
    }
    // Whoever supplied the memory of a control block may use it again from here on.
    list.unlock();
    release(name);
    if (!isStatic) release(&task);
    if (restarter != nullptr) wdDelete(restarter);
}

}  // namespace zel::kernel

using namespace zel;
using namespace zel::kernel;

zelTaskId taskSpawn(const char *name, int priority, int options, int, zelTaskEntry entry, intptr_t a1, intptr_t a2,
                    intptr_t a3, intptr_t a4, intptr_t a5, intptr_t a6, intptr_t a7, intptr_t a8, intptr_t a9,
                    intptr_t a10) {
    const int savedErrno = errno;
    const KernelSection section;
    auto *task = static_cast<Tcb *>(allocate(sizeof(Tcb)));
    if (task == nullptr) return fail(ZEL_ERR_TCB_ALLOCATION);
    const intptr_t args[10] = {a1, a2, a3, a4, a5, a6, a7, a8, a9, a10};
    zelTaskId id = 0;
    const int error = spawnInto(*task, {name, priority, options, entry, args, false}, id);
    if (error != 0) return fail(error);
    errno = savedErrno;
    reportIllegalPriority(priority);
    return id;
}

int taskInit(zelTcb *tcb, const char *name, int priority, int options, char *, int, zelTaskEntry entry, intptr_t a1,
             intptr_t a2, intptr_t a3, intptr_t a4, intptr_t a5, intptr_t a6, intptr_t a7, intptr_t a8, intptr_t a9,
             intptr_t a10) {
    const KernelSection section;
    if (tcb == nullptr) return fail(ZEL_ERR_INVALID_OBJECT_ID);
    const intptr_t args[10] = {a1, a2, a3, a4, a5, a6, a7, a8, a9, a10};
    const auto id = reinterpret_cast<zelTaskId>(tcb);
    const int error = prepareTask(*tcb, id, {name, priority, options, entry, args, true});
    if (error != 0) return fail(error);
    reportIllegalPriority(priority);
    return ZEL_OK;
}

zelTaskId taskIdSelf(void) {
    const Tcb *self = threadTask;
    return self != nullptr ? self->id : 0;
}

zelTcb *taskTcb(zelTaskId tid) {
    const KernelSection section;
    Lock list(taskListLock);
    Tcb *task = findTask(tid);
    list.unlock();
    if (task == nullptr) fail(ZEL_ERR_INVALID_OBJECT_ID);
    return task;
}

int taskIdVerify(zelTaskId tid) {
    return taskTcb(tid) != nullptr ? ZEL_OK : ZEL_ERROR;
}

int taskIdListGet(zelTaskId ids[], int maxIds) {
    const KernelSection section;
    const Lock list(taskListLock);
    int count = 0;
    for (const Tcb *task = taskList; task != nullptr && count < maxIds; task = task->next) ids[count++] = task->id;
    return count;
}

char *taskName(zelTaskId tid) {
    const KernelSection section;
    Lock list(taskListLock);
    const Tcb *task = findTask(tid);
    char *name = task != nullptr ? task->name : nullptr;
    list.unlock();
    if (task == nullptr) fail(ZEL_ERR_INVALID_OBJECT_ID);
    return name;
}

zelTaskId taskNameToId(const char *name) {
    const KernelSection section;
    Lock list(taskListLock);
    const Tcb *task = name != nullptr ? taskList : nullptr;
    while (task != nullptr && (task->name == nullptr || strcmp(task->name, name) != 0)) task = task->next;
    const zelTaskId id = task != nullptr ? task->id : 0;
    list.unlock();
    return id != 0 ? id : fail(ZEL_ERR_INVALID_OBJECT_ID);
}

int taskInfoGet(zelTaskId tid, zelTaskDesc *desc) {
    const KernelSection section;
    if (desc == nullptr) return fail(ZEL_ERR_INVALID_OBJECT_ID);
    *desc = {};
    Lock list(taskListLock);
    const Tcb *task = findTask(tid);
    if (task != nullptr) *desc = {task->id, task->name, task->priority, task->entry};
    list.unlock();
    return result(task != nullptr ? 0 : ZEL_ERR_INVALID_OBJECT_ID);
}

namespace {

// 1 or 0 by the task's state word; 0 with the error number set when there is no such task.
int stateHolds(zelTaskId tid, bool (*holds)(std::uint32_t state)) {
    const KernelSection section;
    Lock list(taskListLock);
    const Tcb *task = findTask(tid);
    const bool doesHold = task != nullptr && holds(task->state);
    list.unlock();
    if (task == nullptr) fail(ZEL_ERR_INVALID_OBJECT_ID);
    return doesHold ? 1 : 0;
}

}  // namespace

int taskIsReady(zelTaskId tid) {
    return stateHolds(tid, [](std::uint32_t state) { return (state & notReadyMask) == 0; });
}

int taskIsSuspended(zelTaskId tid) {
    return stateHolds(tid, [](std::uint32_t state) { return (state & ZEL_TASK_SUSPENDED) != 0; });
}
