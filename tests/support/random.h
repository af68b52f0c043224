// Randomness of tests: one printed seed, given again in ZEL_TEST_SEED to repeat a run; and the switch to long runs.
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <random>

namespace zel::test {

struct Random {
    using result_type = std::uint32_t;
    static constexpr result_type min() { return 0; }
    static constexpr result_type max() { return UINT32_MAX; }
    result_type operator()() { return static_cast<result_type>(engine()); }
    std::mt19937 engine;
};

inline Random seeded() {
    const char *given = getenv("ZEL_TEST_SEED");
    const auto seed = given ? static_cast<unsigned>(strtoul(given, nullptr, 0)) : std::random_device{}();
    printf("seed %u (ZEL_TEST_SEED repeats it)\n", seed);
    return {std::mt19937(seed)};
}

inline bool isFullRun() {
    return getenv("ZEL_TEST_FULL") != nullptr;
}

}  // namespace zel::test
