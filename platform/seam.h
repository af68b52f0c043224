// Short names for the seam in force (zel/platform.h) and deadlines of the monotonic clock.
#pragma once

#include <atomic>
#include <cstdint>

#include "zel/platform.h"

namespace zel::platform {

constexpr std::uint64_t nanosecondsPerSecond = 1'000'000'000;
constexpr std::uint64_t nanosecondsPerTick = 20'000'000;
constexpr int ticksPerSecond = 50;
constexpr std::uint64_t forever = UINT64_MAX;

// What zelPlatformSeam() returns, without a call.
extern constinit std::atomic<const zelHostSeam *> seamInForce;
inline const zelHostSeam &seam() {
    return *seamInForce.load(std::memory_order_acquire);
}
// Whether the host's own seam is in force, so that calls may go to the host directly.
bool isHostSeam();
inline std::uint64_t now() {
    const zelHostSeam &host = seam();
    return host.now(host.context);
}

// The ticks that the monotonic clock has counted: now() / nanosecondsPerTick, the host's clock read without a detour.
std::uint64_t nowInTicks();

// The monotonic time `ticks` from now; a negative count has passed already.
inline std::uint64_t deadlineAfterTicks(std::int64_t ticks) {
    return now() + (ticks > 0 ? static_cast<std::uint64_t>(ticks) * nanosecondsPerTick : 0);
}

inline std::uint64_t deadlineAfterSeconds(std::uint64_t seconds) {
    return now() + seconds * nanosecondsPerSecond;
}

}  // namespace zel::platform
