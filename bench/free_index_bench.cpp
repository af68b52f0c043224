// Free indexes: taken one after the other from one range and from many, against a bitmap; given back among many ranges,
// against the same sorted list without an index over it.
#include <rte_bitmap.h>

#include <algorithm>
#include <memory>
#include <numeric>
#include <random>
#include <vector>

#include "bench/support/row.h"
#include "zel/containers.h"

namespace {

constexpr uint32_t indexes = 1u << 17;

zelFreeIndexList makeList(uint32_t total) {
    zelFreeIndexList list;
    zelFreeIndexListInit(0, total - 1, zelFreeIndexMalloc, zelFreeIndexFree, &list);
    return list;
}

// Every second index is taken, so that each free one is a range.
void fragment(zelFreeIndexList *list, uint32_t total) {
    for (uint32_t index = 1; index < total; index += 2) zelFreeIndexReserve(list, index);
}

// A set bit is a free index. The bitmap hands out any of them, not the lowest.
struct Bitmap {
    Bitmap(uint32_t bits, uint32_t stride) : memory(rte_bitmap_get_memory_footprint(bits) + RTE_CACHE_LINE_SIZE) {
        void *at = memory.data();
        size_t space = memory.size();
        std::align(RTE_CACHE_LINE_SIZE, 1, at, space);
        map = rte_bitmap_init(bits, static_cast<uint8_t *>(at), static_cast<uint32_t>(space));
        for (uint32_t index = 0; index < bits; index += stride) rte_bitmap_set(map, index);
    }
    bool take(uint32_t *index) {
        uint32_t position = 0;
        uint64_t slab = 0;
        if (!rte_bitmap_scan(map, &position, &slab)) return false;
        *index = position + static_cast<uint32_t>(__builtin_ctzll(slab));
        rte_bitmap_clear(map, *index);
        return true;
    }
    std::vector<uint8_t> memory;
    rte_bitmap *map;
};

// A round takes every free index; only that is measured.
template <class Prepare, class Take>
void takeAll(benchmark::State &state, Prepare prepare, Take take) {
    uint32_t index = 0;
    int64_t taken = 0;
    for (auto _ : state) {
        state.PauseTiming();
        auto free = prepare();
        state.ResumeTiming();
        while (take(free, &index)) ++taken;
        benchmark::DoNotOptimize(index);
    }
    state.SetItemsProcessed(taken);
}

template <bool inFragments>
void takeOurs(benchmark::State &state) {
    takeAll(
        state,
        [] {
            zelFreeIndexList list = makeList(indexes);
            if (inFragments) fragment(&list, indexes);
            return list;
        },
        [](zelFreeIndexList &list, uint32_t *index) { return zelFreeIndexGet(&list, index) == 0; });
}

template <bool inFragments>
void takeBitmap(benchmark::State &state) {
    takeAll(
        state, [] { return Bitmap(indexes, inFragments ? 2 : 1); },
        [](Bitmap &bitmap, uint32_t *index) { return bitmap.take(index); });
}

// A bitmap has no ranges to release: what the second row costs more is the price of memory that grows with ranges.
ZEL_ROW("free index: get, one range", "ns", time).ours(takeOurs<false>).peer("rte_bitmap", takeBitmap<false>, 2.0);
ZEL_ROW("free index: get, 65,536 ranges", "ns", time).ours(takeOurs<true>).peer("rte_bitmap", takeBitmap<true>);

// ---- Release among many ranges --------------------------------------------------------------------------------------

// Indexes 0, 4, 8, ... are free: 65,536 ranges. The one two behind each is given back and taken again.
constexpr uint32_t ranges = 65536, step = 4;

std::vector<uint32_t> shuffledIndexes() {
    std::vector<uint32_t> all(ranges);
    for (uint32_t i = 0; i < ranges; ++i) all[i] = i * step + 2;
    std::shuffle(all.begin(), all.end(), std::mt19937(1));
    return all;
}

void releaseOurs(benchmark::State &state) {
    zelFreeIndexList list = makeList(ranges * step);
    for (uint32_t index = 0; index < ranges * step; ++index)
        if (index % step != 0) zelFreeIndexReserve(&list, index);
    const auto order = shuffledIndexes();
    size_t at = 0;
    for (auto _ : state) {
        zelFreeIndexRelease(&list, order[at]);
        zelFreeIndexReserve(&list, order[at]);
        at = (at + 1) % order.size();
    }
    zelFreeIndexListDestroy(&list);
}

struct PlainRange {
    zelDLLNode node{};
    uint32_t low = 0, high = 0;
};

// The first range that begins at or above `index`.
PlainRange *walkTo(zelDLL *list, uint32_t index) {
    zelDLLNode *node = zelDLLGetFirst(list);
    while (node && reinterpret_cast<PlainRange *>(node)->low < index) node = zelDLLGetNext(list, node);
    return reinterpret_cast<PlainRange *>(node);
}

void releaseWalking(benchmark::State &state) {
    zelDLL list;
    zelDLLInit(&list);
    std::vector<std::unique_ptr<PlainRange>> all;
    for (uint32_t i = 0; i < ranges; ++i) {
        all.push_back(std::make_unique<PlainRange>(PlainRange{{}, i * step, i * step}));
        zelDLLInsertAtBack(&list, &all.back()->node);
    }
    const auto order = shuffledIndexes();
    size_t at = 0;
    for (auto _ : state) {
        auto single = std::make_unique<PlainRange>(PlainRange{{}, order[at], order[at]});
        PlainRange *following = walkTo(&list, order[at]);
        if (following)
            zelDLLInsertBefore(&list, &following->node, &single->node);
        else
            zelDLLInsertAtBack(&list, &single->node);
        zelDLLRemove(&list, &walkTo(&list, order[at])->node);
        at = (at + 1) % order.size();
    }
}

ZEL_ROW("free index: release + reserve, 65,536 ranges", "ns", time)
    .ours(releaseOurs)
    .peer("plain walk of the list", releaseWalking, 0.01);

}  // namespace
