// Waiting in tests: for a condition, never for a time.
#pragma once

#include <ctime>
#include <functional>

namespace zel::test {

// Polls `condition` until it holds or `seconds` have passed; what it returned last.
inline bool eventually(double seconds, const std::function<bool()> &condition) {
    const auto monotonic = [] {
        timespec t;
        clock_gettime(CLOCK_MONOTONIC, &t);
        return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) * 1e-9;
    };
    const double end = monotonic() + seconds;
    while (!condition()) {
        if (monotonic() > end) return condition();
        const timespec pause{0, 1'000'000};
        nanosleep(&pause, nullptr);
    }
    return true;
}

}  // namespace zel::test
