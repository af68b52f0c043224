// A program whose work is done in a task: main starts the kernel layer, spawns the task, and turns SIGTERM and SIGINT
// into a request to stop. Signals are taken by main alone, so that no task is interrupted in the middle of something.
#pragma once

#include <cstdint>

namespace zel::programs {

using Body = int (*)(int argc, char **argv);

// Runs `body` in a task named `taskName`: its result is the program's exit status.
int runProgram(const char *taskName, int argc, char **argv, Body body);

// Whether a signal asked the program to end.
bool isStopping();
// From now on such a signal also sends the endpoint `key` a bare header of type wakeType to its request queue, so that
// a task that waits there comes round.
void wakeOnStop(std::uint32_t key);
constexpr std::uint32_t wakeType = 0x32FF;

// The identity that the task manager passes as the last eight arguments.
constexpr int identityArguments = 8;

// Seconds of the monotonic clock.
double monotonicSeconds();

}  // namespace zel::programs
