// Counts what a stretch of code allocates: with new, and from the checking allocator.
#pragma once

#include <cstdint>

namespace zel::test {

uint64_t allocationsSoFar();

}  // namespace zel::test
