// The checking allocator against the heap it stands on; pools against a general allocator and against another pool.
#include <cstdlib>

#include "bench/support/row.h"
#include "zel/platform.h"

namespace {

constexpr size_t blockBytes = 64;

void checkedPair(benchmark::State &state) {
    for (auto _ : state) {
        void *block = zelMC_malloc("memory_bench", __LINE__, blockBytes);
        benchmark::DoNotOptimize(block);
        zelMC_free("memory_bench", __LINE__, block);
    }
}

void heapPair(benchmark::State &state) {
    for (auto _ : state) {
        void *block = malloc(blockBytes);
        benchmark::DoNotOptimize(block);
        free(block);
    }
}

ZEL_ROW("zelMC_malloc + zelMC_free", "ns", time).ours(checkedPair).peer("malloc + free", heapPair, 2.0, 1.3);

}  // namespace
