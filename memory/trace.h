// The traces of pages and chunks that come and go, written while the debug mask asks for them. Nothing may be held.
#pragma once

#include <cstdarg>

#include "memory/pool_set.h"
#include "zel/kernel.h"

namespace zel::memory {

constexpr std::uint32_t traceBlocks = 0x10, levelEvent = 6, moduleMemory = 31;

extern std::atomic<std::uint32_t> debugMask;

inline bool isTracing() {
    return (debugMask.load(std::memory_order_relaxed) & traceBlocks) != 0;
}

[[gnu::format(printf, 1, 2)]] inline void trace(const char *format, ...) {
    if (!isTracing()) return;
    va_list args;
    va_start(args, format);
    zelMsgPrintf(levelEvent, moduleMemory, format, args);
    va_end(args);
}

}  // namespace zel::memory
