// A program whose work is done in a task: main starts the kernel layer, spawns the task, and turns SIGTERM and SIGINT
// into a request to stop. Signals are taken by main alone, so that no task is interrupted in the middle of something.
#pragma once

#include <unistd.h>

#include <cstdint>
#include <cstdio>

#include "zel/ipc.h"

namespace zel::programs {

using Body = int (*)(int argc, char **argv);

// Runs `body` in a task named `taskName`: its result is the program's exit status.
int runProgram(const char *taskName, int argc, char **argv, Body body);

// Whether a signal asked the program to end.
bool isStopping();
// Before runProgram: SIGHUP does not end the program, but is for the body to see.
void takeHangups();
// Whether there was one since the last such question.
bool wasHungUp();
// From now on these signals also send the endpoint `key` a bare header of type wakeType to its request queue, so that
// a task that waits there comes round.
void wakeOnStop(std::uint32_t key);
constexpr std::uint32_t wakeType = 0x32FF;

// The identity that the task manager passes as the last eight arguments.
constexpr int identityArguments = 8;

// The body of a program that the task manager starts: options, which `parse` reads, then the identity.
// Takes up the identity and runs a `Task` made of key and options.
template <class Task, class Options>
int runTask(int argc, char **argv, bool (*parse)(int, char **, Options &), const char *help) {
    Options options;
    if (!parse(argc, argv, options) || argc - optind != identityArguments) {
        fputs(help, stderr);
        return 2;
    }
    const int started = zelTaskStartup(argc, argv);
    if (started < 0) return 1;
    const auto key = static_cast<std::uint32_t>(started);
    wakeOnStop(key);
    int status = 1;
    {
        Task task(key, options);
        if (zelTaskReady(key) == 0) status = task.run();
    }
    zelIpcClose(key);
    return status;
}

// Buffers of a queue's messages from and to the heap, so that the queue also frees what a flush throws away.
void useHeap(std::uint32_t queue);

// Seconds of the monotonic clock.
double monotonicSeconds();

}  // namespace zel::programs
