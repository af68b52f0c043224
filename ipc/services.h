// The service numbers of the system: names, and how many instances each may have.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace zel::ipc {

struct ServiceRow {
    std::uint32_t number;
    const char *name;  // null for a number without a service
    std::uint32_t instances;
    std::uint32_t flags;
    std::uint32_t extraInstances;
};

constexpr int serviceCount = 366;
constexpr int minService = 13;
constexpr int maxServiceInUse = 363;
constexpr int instanceCount = 32;
constexpr int taskManagerService = 13;
constexpr int relayService = 334;
constexpr std::uint32_t foldsOntoRelay = 0x10000;

extern const std::array<ServiceRow, serviceCount> services;

constexpr bool isValidService(std::int64_t service) {
    return service >= minService && service <= maxServiceInUse;
}
constexpr bool isValidInstance(std::int64_t instance) {
    return instance >= 0 && instance < instanceCount;
}
// Instances 0 up to here are looked at when the endpoint table is searched.
int scannedInstances(int service);

}  // namespace zel::ipc
