// The one lock order of the library, outermost first. A thread may take a lock only while every lock it holds has a
// smaller rank; debug builds enforce it. Locks of equal rank are never held together. Shared numbered locks come before
// all of these, except the leaves among them (the trace history, the policy heap), which come after.
#pragma once

namespace zel {

enum class LockRank {
    taskSpawn = 10,   // task_spawn_lock
    swpQueue = 15,    // a sliding-window queue: sends and arms its timer under it
    objectList = 20,  // sema4_list_lock, mqueue_list_lock, wdog_list_lock, timer_list_lock
    object = 30,      // a semaphore's, queue's, watchdog's, timer's own lock
    taskList = 70,    // task_list_lock: every control-block field, every wait-list link
    module = 75,      // private state of a module that calls nothing under it
    identity = 78,    // identity_lock: who this process is
    allocation = 80,  // malloc_lock, free_lock
};

// Debug builds keep the ranks a thread holds; release builds compile these to nothing.
#ifndef NDEBUG
void noteLockTaken(LockRank rank, const char *name);
void noteLockReleased(LockRank rank);
// Shared numbered locks are the outermost, except for the leaves among them, which may be taken anywhere.
void checkNoRankHeld(bool isLeaf);
#else
inline void noteLockTaken(LockRank, const char *) {}
inline void noteLockReleased(LockRank) {}
inline void checkNoRankHeld(bool) {}
#endif

}  // namespace zel
