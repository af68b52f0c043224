// Processes as records in shared memory name them: pids come back, so a process is its pid and its start time.
#pragma once

#include <sys/types.h>

#include <cstdint>

namespace zel::platform {

struct ProcessId {
    pid_t pid = 0;
    std::uint64_t startTime = 0;  // clock ticks after boot, as the host's process table reports it
    bool operator==(const ProcessId &) const = default;
};

// The calling process; cached, and renewed in a forked child.
ProcessId thisProcess();
// The process that has this pid now; pid 0 in the result when there is none.
ProcessId processWithPid(pid_t pid);
// False when no such process exists any more (a zombie counts as dead).
bool isAlive(const ProcessId &process);
// The first process, by ascending pid, whose command name equals the first 16 characters of `name` as far as the host
// keeps them; 0 when there is none.
pid_t findProcessByName(const char *name);

}  // namespace zel::platform
