// The fixed or the variable pools of a partition: by number, and by size for the best fit; guarded by one mutex when
// the partition locks.
//
// Small variable requests, below 4096 bytes, find their pool through a table of pool numbers; the rest, and the best
// fit among fixed pools, by a binary search.
#pragma once

#include <array>

#include "base/assertion.h"
#include "base/lock_rank.h"
#include "kernel/task.h"
#include "memory/pool.h"
#include "platform/quick_mutex.h"

namespace zel::memory {

constexpr std::uint32_t tabledSizes = 4096;
constexpr std::uint8_t noPool = 255;

struct PoolSet {
    std::atomic<Pool *> *pools;         // by number, null where there is none
    std::atomic<std::uint32_t> places;  // in pools, which is set before
    std::uint32_t count;
    Pool **bySize;          // those there are: smallest first, then by number
    std::uint8_t *bySmall;  // of variable pools: the number for each size below tabledSizes
    bool isLocking;
    platform::QuickMutex mutex;
    const char *unlockText;

    // Room for pools; false without memory.
    bool makePlaces(std::uint32_t number, bool isTabled);
    // The pool's place must be free.
    void add(Pool &pool, std::uint32_t number);
    Pool *smallestFor(std::uint32_t size) const;
    // Removes every pool and releases it; none may have a page.
    void removeAll();

private:
    void fillTable();
};

class SetLock {
public:
    explicit SetLock(PoolSet &set) : set_(set) {
        set_.mutex.lock();
        noteLockTaken(LockRank::module, "a partition's pools");
    }
    ~SetLock() {
        noteLockReleased(LockRank::module);
        asserted(set_.mutex.unlockOrError() == 0, set_.unlockText, source);
    }
    SetLock(const SetLock &) = delete;
    SetLock &operator=(const SetLock &) = delete;

private:
    PoolSet &set_;
};

// Does the work with the set to itself: nobody is suspended in the middle, and a thread cancelled there leaves it free.
template <class Work>
auto locked(PoolSet &set, Work work) {
    const kernel::KernelSection section;
    const SetLock lock(set);
    return work();
}
// The same where the partition locks; where it does not, its users take turns by themselves.
template <class Work>
auto guarded(PoolSet &set, Work work) {
    return set.isLocking ? locked(set, work) : work();
}

struct alignas(64) Partition {
    PoolSet fixed, variable;
    std::atomic<bool> isMade;
    pid_t owner;
    std::atomic<std::uint32_t> failures;  // of requests that no pool fits
};

extern std::array<Partition, ZEL_MEM_PARTITIONS> partitions;

constexpr std::uint32_t partitionNumber(std::uint32_t poolId) {
    return poolId >> 16;
}
constexpr std::uint32_t poolNumber(std::uint32_t poolId) {
    return poolId & 0xffff;
}

// Null when there is none.
Partition *callersPartition();
inline Partition *findPartition(std::uint32_t partId) {
    if (partId >= partitions.size() || !partitions[partId].isMade.load(std::memory_order_acquire)) return nullptr;
    return &partitions[partId];
}
inline Partition *partitionOf(std::uint32_t poolId) {
    return poolId == ZEL_MEM_BEST_FIT ? callersPartition() : findPartition(partitionNumber(poolId));
}
// Whose mark it is.
inline PoolSet &lockedSet(std::uintptr_t mark) {
    Partition &partition = partitions[mark >> 1 & 0xff];
    return (mark & 1) != 0 ? partition.variable : partition.fixed;
}
inline Pool *poolAt(const PoolSet &set, std::uint32_t number) {
    return number < set.places.load(std::memory_order_acquire) ? set.pools[number].load(std::memory_order_acquire)
                                                               : nullptr;
}
inline Pool *fixedPool(std::uint32_t poolId) {
    return partitionNumber(poolId) < partitions.size()
               ? poolAt(partitions[partitionNumber(poolId)].fixed, poolNumber(poolId))
               : nullptr;
}

// Pools that may be used at once when their identifier is given: of partitions that do not lock, found before, and none
// while blocks are traced. A fixed pool is never removed.
extern std::array<std::atomic<Pool *>, 64> shortcuts;

inline std::atomic<Pool *> &shortcutTo(std::uint32_t poolId) {
    return shortcuts[(poolId ^ poolId >> 13) % 64];
}

}  // namespace zel::memory
