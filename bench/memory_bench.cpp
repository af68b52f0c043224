// The checking allocator against the heap it stands on; pools against a general allocator, and against another pool
// under a mutex. A pair is one block taken and given back.
#include <dlfcn.h>
#include <unistd.h>

#include <array>
#include <boost/pool/pool.hpp>
#include <cstdlib>
#include <mutex>

#include "bench/support/row.h"
#include "zel/memory.h"
#include "zel/platform.h"

namespace {

constexpr uint32_t blockBytes = 64;

template <class Allocate, class Free>
void pairs(benchmark::State &state, Allocate allocate, Free free) {
    for (auto _ : state) {
        void *block = allocate();
        benchmark::DoNotOptimize(block);
        free(block);
    }
}

// All of a batch are taken before the first is given back.
template <class Allocate, class Free>
void batches(benchmark::State &state, Allocate allocate, Free free) {
    static std::array<void *, 256> blocks;
    for (auto _ : state) {
        for (void *&block : blocks) block = allocate();
        benchmark::ClobberMemory();
        for (void *block : blocks) free(block);
    }
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(blocks.size()));
}

// ---- The checking allocator ----

void checkedPair(benchmark::State &state) {
    pairs(
        state, [] { return zelMC_malloc("memory_bench", __LINE__, blockBytes); },
        [](void *block) { zelMC_free("memory_bench", __LINE__, block); });
}

void heapPair(benchmark::State &state) {
    pairs(
        state, [] { return malloc(blockBytes); }, [](void *block) { free(block); });
}

ZEL_ROW("zelMC_malloc + zelMC_free", "ns", time).ours(checkedPair).peer("malloc + free", heapPair, 2.0, 1.3);

// ---- Pools ----

// Partition 1 does not lock, partition 2 does.
template <uint32_t partition>
bool hasPool() {
    static const int failed =
        M_memPartCreate(partition, getpid(), 1, partition == 2) | M_memPoolCreate(partition << 16, "bench", blockBytes);
    return !failed;
}

template <uint32_t partition, class Loop>
void withPool(benchmark::State &state, Loop loop) {
    if (!hasPool<partition>()) return state.SkipWithError("no pool");
    loop(
        state, [] { return M_memBlockAlloc(partition << 16, blockBytes, 0); },
        [](void *block) { M_memBlockFree(partition << 16, block); });
}

// mimalloc takes the place of malloc when it is linked, so it is loaded where nobody else sees it.
struct Mimalloc {
    void *library = dlopen("libmimalloc.so.2", RTLD_NOW | RTLD_LOCAL);
    void *(*allocate)(size_t) = reinterpret_cast<void *(*)(size_t)>(library ? dlsym(library, "mi_malloc") : nullptr);
    void (*release)(void *) = reinterpret_cast<void (*)(void *)>(library ? dlsym(library, "mi_free") : nullptr);
};

template <class Loop>
void withMimalloc(benchmark::State &state, Loop loop) {
    static const Mimalloc mimalloc;
    if (!mimalloc.allocate || !mimalloc.release) return state.SkipWithError("libmimalloc.so.2 cannot be loaded");
    loop(
        state, [] { return mimalloc.allocate(blockBytes); }, [](void *block) { mimalloc.release(block); });
}

constexpr auto eachPair = [](auto &&...arguments) { pairs(arguments...); };
constexpr auto eachBatch = [](auto &&...arguments) { batches(arguments...); };

void poolPair(benchmark::State &state) {
    withPool<1>(state, eachPair);
}
void mimallocPair(benchmark::State &state) {
    withMimalloc(state, eachPair);
}
void poolBatch(benchmark::State &state) {
    withPool<1>(state, eachBatch);
}
void mimallocBatch(benchmark::State &state) {
    withMimalloc(state, eachBatch);
}

void lockedPair(benchmark::State &state) {
    withPool<2>(state, eachPair);
}
void boostPair(benchmark::State &state) {
    static boost::pool<> pool(blockBytes);
    static std::mutex mutex;
    pairs(
        state,
        [] {
            const std::lock_guard lock(mutex);
            return pool.malloc();
        },
        [](void *block) {
            const std::lock_guard lock(mutex);
            pool.free(block);
        });
}

ZEL_ROW("pool alloc + free, lock off", "ns", time).ours(poolPair).peer("mimalloc", mimallocPair, 1.0, 0.3);
ZEL_ROW("pool alloc + free, 256 at a time", "ns", time).ours(poolBatch).peer("mimalloc", mimallocBatch);
ZEL_ROW("pool alloc + free, lock on", "ns", time)
    .ours(lockedPair)
    .peer("boost::pool + std::mutex", boostPair, 1.0, 0.8);
ZEL_ROW("pool alloc + free, lock on, 2 threads", "ns", time)
    .threads(2)
    .ours(lockedPair)
    .peer("boost::pool + std::mutex", boostPair, 1.0, 0.7);

}  // namespace
