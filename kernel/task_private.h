// What the sources of the task library share. Everything here that names a control block wants taskListLock held.
#pragma once

#include <pthread.h>

#include "kernel/task.h"

namespace zel::kernel {

// The life of a control block, as bits of lifeFlags.
//
// A thread that ends is reaped by one party only: by the deleter that set lifeEnding first, by a restarter, or by
// itself. Whoever it is takes the thread's handle (lifeJoinable) once the task is quiet.
enum LifeFlag : std::uint32_t {
    lifeListed = 0x01,
    lifeRunning = 0x02,     // a thread uses the control block
    lifeJoinable = 0x04,    // pthrid is still to be joined or detached
    lifeEnding = 0x08,      // the end is decided, and who brings it about
    lifeRestarting = 0x10,  // the thread is to be replaced by a new one
    lifeStarting = 0x20,    // a restarter joins the old thread with no lock held
    lifeOrphaned = 0x40,    // the deleter was deleted itself: the thread reaps its own task
    lifeDoomed = 0x80,      // the deleter or restarter is about to request the thread's cancellation
};

inline bool has(const Tcb &task, std::uint32_t flags) {
    return (task.lifeFlags & flags) != 0;
}

// Nobody but the caller uses the thread or its handle any more.
inline bool isQuiet(const Tcb &task) {
    return !has(task, lifeRunning | lifeStarting) && task.pins == 0;
}

extern Tcb *taskList;
extern Mutex taskSpawnLock;
extern "C" pthread_key_t vx2bsdKey;

struct TaskPlan {
    const char *name;
    int priority;
    int options;
    zelTaskEntry entry;
    const std::intptr_t *args;
    bool isStatic;
};

// --- ltaskLib: the list ---

// The task with this id, 0 meaning the caller; null when there is none. The second one takes a task whose end is
// decided for unknown.
Tcb *findTask(zelTaskId tid);
Tcb *findLiveTask(zelTaskId tid);
Tcb *findTaskBySerial(std::uint64_t serial);
// Fills and lists a control block; an error number, or 0.
int prepareTask(Tcb &task, zelTaskId id, const TaskPlan &plan);
// Unlists the task and frees all it has; `task` is gone afterwards. No lock is held.
void disposeTask(Tcb &task);
// ZEL_OK, or ZEL_ERROR with the error number set.
int result(int errorNumber);

// --- task_life: threads ---

// Creates the task's thread; an error number, or 0.
int createThread(Tcb &task);
extern "C" void *taskWrapper(void *task);
// Runs the hooks, then disposes. No lock is held.
void removeTask(Tcb &task);
void runDeleteHooks(zelTaskId tid, std::intptr_t argument);

// --- task_park: waiting for a task ---

void wakeWatchers(Tcb &task);
void dropWatchers(Tcb &task);
void linkWaiter(Tcb **head, Tcb &task);
void unlinkWaiter(Tcb &task);
// Waits until something about `task`, which may be the caller itself, has changed; it may be gone afterwards.
void watch(Lock &list, Tcb &task);
void delayUntil(std::uint64_t deadline);

// --- task_delete, task_restart ---

// Makes the task's thread leave; the list is unlocked meanwhile, and the caller has claimed the task.
void stopThread(Lock &list, Tcb &task);
// The watchdog routine that starts a task again, in the exception task.
void selfStarter(std::intptr_t tid);
// Whether there is an exception task, other than the caller. No lock is held.
bool exceptionTaskRuns();

// --- task_suspend ---

void installSuspension();
inline bool isSuspended(Tcb &task) {
    return (atomicWord(task.suspendWord).load() & 1) != 0;
}
void endSuspension(Tcb &task);

// --- task_priority ---

// The logical thread priority of a kernel priority.
int translatePriority(int priority);
// A priority above 255 is accepted, clamped, and reported.
void reportIllegalPriority(int priority);
int schedulingPolicy();
void applyCurrentPriority(Tcb &task, int priority);

}  // namespace zel::kernel
