// What the task manager publishes for every process of the CPU: where each task runs, and who this CPU is.
//
// An entry is one 64-bit word, state above address, so that a reader sees either the old or the new one without a lock.
#pragma once

#include <atomic>
#include <cstdint>

#include "ipc/services.h"
#include "zel/ipc.h"

namespace zel::ipc {

struct TaskTable {
    std::atomic<std::uint64_t> entries[serviceCount][instanceCount];
};

struct Globals {
    std::atomic<std::uint32_t> ipAddress;
    std::atomic<std::uint32_t> instance;
    std::atomic<std::uint32_t> masterAddress[2];
};

// The entry's word; null outside the table or without shared memory.
std::atomic<std::uint64_t> *taskEntry(int service, int instance);
// Null without shared memory.
Globals *globals();

constexpr std::uint64_t packEntry(zelTmeTaskEntry entry) {
    return (std::uint64_t{entry.state} << 32) | entry.address;
}
constexpr zelTmeTaskEntry unpackEntry(std::uint64_t word) {
    return {static_cast<std::uint32_t>(word >> 32), static_cast<std::uint32_t>(word)};
}
constexpr bool isKnownAddress(std::uint32_t address) {
    return address != 0 && address != ZEL_IPC_NO_ADDRESS;
}

}  // namespace zel::ipc
