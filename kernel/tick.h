// Ticks as pairs of words, and as numbers.
#pragma once

#include "zel/kernel.h"

namespace zel::kernel {

constexpr std::uint64_t valueOf(zelTick_t tick) {
    return static_cast<std::uint64_t>(tick.high) << 32 | tick.low;
}

constexpr zelTick_t tickOf(std::uint64_t value) {
    return {static_cast<std::uint32_t>(value >> 32), static_cast<std::uint32_t>(value)};
}

}  // namespace zel::kernel
