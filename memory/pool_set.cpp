#include "memory/pool_set.h"

#include "platform/process.h"
#include "zel/platform.h"

namespace zel::memory {

constinit std::array<Partition, ZEL_MEM_PARTITIONS> partitions{};
constinit std::array<std::atomic<Pool *>, 64> shortcuts{};

Partition *callersPartition() {
    static constinit std::atomic<std::uint32_t> last{0};
    const pid_t self = platform::thisProcess().pid;
    const auto isOurs = [self](const Partition *partition) { return partition && partition->owner == self; };
    if (Partition *partition = findPartition(last.load(std::memory_order_relaxed)); isOurs(partition)) return partition;
    for (std::uint32_t i = 0; i < partitions.size(); ++i) {
        if (!isOurs(findPartition(i))) continue;
        last.store(i, std::memory_order_relaxed);
        return &partitions[i];
    }
    return nullptr;
}

bool PoolSet::makePlaces(std::uint32_t number, bool isTabled) {
    const std::size_t arrays = std::size_t{number} * (sizeof *pools + sizeof *bySize);  // NOLINT: of the pointers
    void *memory = zelMC_calloc(source, __LINE__, 1, arrays + (isTabled ? tabledSizes : 0));
    if (memory == nullptr) return false;
    pools = static_cast<std::atomic<Pool *> *>(memory);
    bySize = reinterpret_cast<Pool **>(pools + number);
    if (isTabled) bySmall = reinterpret_cast<std::uint8_t *>(bySize + number);
    fillTable();
    places.store(number, std::memory_order_release);
    return true;
}

void PoolSet::add(Pool &pool, std::uint32_t number) {
    pools[number] = &pool;
    std::uint32_t at = count++;
    const auto goesBehind = [&](const Pool &other) {
        return other.chunkSize > pool.chunkSize || (other.chunkSize == pool.chunkSize && other.id > pool.id);
    };
    for (; at > 0 && goesBehind(*bySize[at - 1]); --at) bySize[at] = bySize[at - 1];
    bySize[at] = &pool;
    fillTable();
}

void PoolSet::fillTable() {
    if (bySmall == nullptr) return;
    std::memset(bySmall, noPool, tabledSizes);
    for (std::uint32_t i = count; i-- > 0;)
        std::memset(bySmall, static_cast<int>(poolNumber(bySize[i]->id)),
                    std::min(bySize[i]->chunkSize + 1, tabledSizes));
}

Pool *PoolSet::smallestFor(std::uint32_t size) const {
    if (bySmall != nullptr && size < tabledSizes)
        return bySmall[size] != noPool ? pools[bySmall[size]].load() : nullptr;
    Pool **end = bySize + count;
    Pool **found = std::lower_bound(bySize, end, size,
                                    [](const Pool *pool, std::uint32_t least) { return pool->chunkSize < least; });
    return found != end ? *found : nullptr;
}

void PoolSet::removeAll() {
    for (std::uint32_t i = 0; i < count; ++i) {
        pools[poolNumber(bySize[i]->id)] = nullptr;
        zelMC_free(source, __LINE__, bySize[i]);
    }
    count = 0;
    fillTable();
}

}  // namespace zel::memory
