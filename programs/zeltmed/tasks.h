// The tasks that zeltmed spawns: one at a time, each when the one before it has started up.
//
// The spawner of a task holds shared lock 5 for it until it has started up. A program that never does would keep the
// lock, and with it everybody who spawns: it is killed when its time is over.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <deque>
#include <vector>

#include "options.h"

namespace zeltmed {

using Clock = std::chrono::steady_clock;

class SpawnedTasks {
public:
    SpawnedTasks(const std::vector<SpawnOrder> &orders, const std::vector<Role> &until, bool respawn);

    // Spawns what is due and watches start-ups. Returns the process of a task that was spawned now, else 0.
    pid_t advance();
    // Whether advance() should be called again soon.
    bool isBusy() const;
    // A process that reports ready has started up, also when it has closed its endpoint again.
    void noteReady(pid_t pid);
    // The end of a process, with its status as of waitpid. False when it is none of these tasks.
    bool noteEnd(pid_t pid, int waitStatus);
    // All tasks named by --until have ended.
    bool isDone() const;
    // The exit status that follows from them.
    int exitStatus() const { return exitStatus_; }

    // No further task is spawned; those that live are asked to end, or killed.
    void stop(int signal);
    bool anyLives() const;

private:
    struct Task {
        SpawnOrder order;
        bool endsUs;
        pid_t pid = 0;  // 0 while it does not run
        bool isWaiting = true;
        Clock::time_point spawnedAt;
        Clock::time_point notBefore;
    };

    pid_t spawn(Task &task);
    void finish(Task &task, int status);
    bool hasStartedUp(const Task &task) const;
    void watchStartUp();

    std::deque<Task> tasks_;
    Task *starting_ = nullptr;
    bool respawn_;
    bool isStopping_ = false;
    std::size_t awaited_ = 0;
    bool awaitsAny_;
    int exitStatus_ = 0;
};

}  // namespace zeltmed
