// Counts what a stretch of code allocates: with new, and from the checking allocator. Lets `new` fail.
#pragma once

#include <cstdint>

namespace zel::test {

uint64_t allocationsSoFar();

// Lets the nth `new` from now on find no memory, the others do; 0: all do. Whether the one asked for before came.
bool failNewAt(uint64_t nth);

}  // namespace zel::test
