// Keys and queue ids as values: (service << 7) | (instance << 2) | queue type.
#pragma once

#include <cstdint>

#include "ipc/services.h"

namespace zel::ipc {

enum QueueType : std::uint32_t { bareKey = 0, requestQueue = 1, responseQueue = 2, timerQueue = 3 };
constexpr std::uint32_t queueTypes = 4;

constexpr std::uint32_t keyOf(int service, int instance) {
    return (static_cast<std::uint32_t>(service) << 7) | (static_cast<std::uint32_t>(instance) << 2);
}
constexpr std::uint32_t typeOf(std::uint32_t key) {
    return key & 3;
}
// The queue that an operation on `key` means: a bare key stands for its request queue.
constexpr std::uint32_t queueNamedBy(std::uint32_t key) {
    return typeOf(key) == bareKey ? static_cast<std::uint32_t>(requestQueue) : typeOf(key);
}
// Key or queue id without its queue type: what names the task.
constexpr std::uint32_t taskOf(std::uint32_t key) {
    return key >> 2;
}
constexpr int serviceOf(std::uint32_t key) {
    return static_cast<int>(key >> 7);
}
constexpr int instanceOf(std::uint32_t key) {
    return static_cast<int>((key >> 2) & 31);
}
constexpr bool isValidKey(std::uint32_t key) {
    return isValidService(key >> 7);
}

// Instances 48 to 4144 name relayed peers, all reached through the one relay endpoint. One unsigned comparison.
constexpr bool isRelayedInstance(int instance) {
    return static_cast<std::uint32_t>(instance) - 48u <= 4096u;
}

constexpr bool isLoopback(std::uint32_t address) {
    return address >> 24 == 127;
}

// Whether this platform addresses its peers by the variant rules.
bool isPlatformVariant();

}  // namespace zel::ipc
