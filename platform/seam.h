// Short names for the seam in force (zel/platform.h) and deadlines of the monotonic clock.
#pragma once

#include <cstdint>

#include "zel/platform.h"

namespace zel::platform {

constexpr std::uint64_t nanosecondsPerSecond = 1'000'000'000;
constexpr std::uint64_t nanosecondsPerTick = 20'000'000;
constexpr std::uint64_t forever = UINT64_MAX;

inline const zelHostSeam &seam() {
    return *zelPlatformSeam();
}
// Whether the host's own seam is in force, so that calls may go to the host directly.
bool isHostSeam();
inline std::uint64_t now() {
    return seam().now(seam().context);
}

// The monotonic time `ticks` from now; a negative count has passed already.
inline std::uint64_t deadlineAfterTicks(std::int64_t ticks) {
    return now() + (ticks > 0 ? static_cast<std::uint64_t>(ticks) * nanosecondsPerTick : 0);
}

inline std::uint64_t deadlineAfterSeconds(std::uint64_t seconds) {
    return now() + seconds * nanosecondsPerSecond;
}

}  // namespace zel::platform
