// Memory partitions: creation of partitions and pools, their bounds, giving pages back, figures.
#include <cstdio>
#include <new>

#include "base/lock.h"
#include "memory/trace.h"
#include "zel/kernel.h"
#include "zel/platform.h"

using namespace zel;
using namespace zel::memory;
using kernel::fail;

namespace {

constinit Mutex creationLock{LockRank::module, "&memory_partition_lock"};

Pool *newPool(PoolSet &set, std::uint32_t poolId, const char *name, std::uint32_t chunk) {
    void *memory = zelMC_calloc(source, __LINE__, 1, sizeof(Pool));
    if (memory == nullptr) return nullptr;
    auto *pool = new (memory) Pool{};
    pool->chunkSize = chunk;
    pool->stride = stride(chunk);
    pool->trailer = trailerOffset(chunk);
    pool->total = chunksPerPage(chunk);
    pool->slotsBytes = pool->total * pool->stride;
    pool->freeHeader = makeHeader(unusedMarker, 0, chunk);
    pool->usedHeader = makeHeader(allocatedMarker, 0, chunk);
    pool->bound = -1;
    strncpy(pool->name, name != nullptr ? name : "", sizeof pool->name - 1);
    pool->id = poolId;
    pool->creator = taskIdSelf();
    pool->set = &set;
    const bool isVariable = &set == &partitions[partitionNumber(poolId)].variable;
    pool->lockMark = set.isLocking ? lockMark(partitionNumber(poolId), isVariable) : 0;
    return pool;
}

// 0, or the error number.
int addPool(PoolSet &set, std::uint32_t poolId, const char *name, std::uint32_t chunk) {
    Pool *pool = newPool(set, poolId, name, chunk);
    if (pool == nullptr) return ZEL_ERR_NOT_ENOUGH_MEMORY;
    const bool isAdded = guarded(set, [&] {
        const bool isFree = poolAt(set, poolNumber(poolId)) == nullptr;
        if (isFree) set.add(*pool, poolNumber(poolId));
        return isFree;
    });
    if (isAdded) return 0;
    zelMC_free(source, __LINE__, pool);
    return ZEL_ERR_OBJECT_UNAVAILABLE;
}

int createPool(PoolSet &set, std::uint32_t poolId, const char *name, std::uint32_t chunk) {
    if (const int error = addPool(set, poolId, name, chunk); error != 0) return fail(error);
    trace("BlockCreate: Part Id: %d, Pool Id: %d, chnkSz: %u\r\n", static_cast<int>(partitionNumber(poolId)),
          static_cast<int>(poolNumber(poolId)), chunk);
    return ZEL_OK;
}

// The partition that a pool is to be made in, or null after a report.
Partition *partitionToFill(std::uint32_t poolId, std::uint32_t chunk) {
    if (!asserted(partitionNumber(poolId) < partitions.size(), "realPartId < MaxPartId", source)) return nullptr;
    if (!asserted(chunk < chunkSizeLimit, "chnkSz < MAXCHNKSIZE", source)) return nullptr;
    return findPartition(partitionNumber(poolId));
}

// Does the work with a fixed pool and its set guarded; -1 when there is no such pool.
template <class Work>
int withPool(PoolSet Partition::*set, std::uint32_t poolId, Work work) {
    Partition *partition = findPartition(partitionNumber(poolId));
    if (partition == nullptr) return fail(ZEL_ERR_INVALID_OBJECT_ID);
    const bool isFound = guarded(partition->*set, [&] {
        Pool *pool = poolAt(partition->*set, poolNumber(poolId));
        if (pool != nullptr) work(*pool);
        return pool != nullptr;
    });
    return isFound ? static_cast<int>(ZEL_OK) : fail(ZEL_ERR_INVALID_OBJECT_ID);
}

template <class Work>
void eachPool(PoolSet &set, Work work) {
    guarded(set, [&] {
        for (std::uint32_t i = 0; i < set.count; ++i) work(*set.bySize[i]);
    });
}

}  // namespace

int M_memPartCreate(uint32_t partId, pid_t owner, uint32_t totPools, int locking) {
    if (!asserted(partId < partitions.size(), "realPartId < MaxPartId", source)) return fail(ZEL_ERR_INVALID_OBJECT_ID);
    if (totPools > UINT16_MAX + 1u) return fail(ZEL_ERR_INVALID_OBJECT_ID);
    Partition &partition = partitions[partId];
    const Lock lock(creationLock);
    if (partition.isMade.load(std::memory_order_relaxed)) return fail(ZEL_ERR_OBJECT_UNAVAILABLE);
    if (!partition.fixed.makePlaces(totPools, false)) return fail(ZEL_ERR_NOT_ENOUGH_MEMORY);
    partition.owner = owner;
    partition.fixed.isLocking = partition.variable.isLocking = locking != 0;
    partition.fixed.mutex.init("&(curModPart->modPartFixedSem)");
    partition.variable.mutex.init("&(curModPart->modPartVarSem)");
    partition.fixed.unlockText = "!pthread_mutex_unlock(&(curModPart->modPartFixedSem))";
    partition.variable.unlockText = "!pthread_mutex_unlock(&(curModPart->modPartVarSem))";
    partition.isMade.store(true, std::memory_order_release);
    return ZEL_OK;
}

int M_memPoolCreate(uint32_t poolId, const char *name, uint32_t chunk) {
    Partition *partition = partitionToFill(poolId, chunk);
    if (partition == nullptr) return fail(ZEL_ERR_INVALID_OBJECT_ID);
    if (!asserted(poolNumber(poolId) < partition->fixed.places, "realPoolId < (*curModPart)->totPools", source))
        return fail(ZEL_ERR_INVALID_OBJECT_ID);
    return createPool(partition->fixed, poolId, name, chunk);
}

int M_memVarPoolCreate(uint32_t poolId, const char *name, uint32_t chunk) {
    Partition *partition = partitionToFill(poolId, chunk);
    if (partition == nullptr) return fail(ZEL_ERR_INVALID_OBJECT_ID);
    if (!asserted(poolNumber(poolId) < MAX_VAR_POOLS, "totVarPools <= MAX_VAR_POOLS", source))
        return fail(ZEL_ERR_INVALID_OBJECT_ID);
    PoolSet &set = partition->variable;
    const bool hasPlaces = guarded(set, [&] { return set.places != 0 || set.makePlaces(MAX_VAR_POOLS, true); });
    if (!hasPlaces) return fail(ZEL_ERR_NOT_ENOUGH_MEMORY);
    return createPool(set, poolId, name, chunk);
}

int M_memPoolSetSize(uint32_t poolId, int32_t bytes) {
    return withPool(&Partition::fixed, poolId, [&](Pool &pool) { pool.bound = bytes; });
}

int M_memPoolSetNonDestructMemSize(uint32_t poolId, int isExempt) {
    return withPool(&Partition::fixed, poolId, [&](Pool &pool) { pool.isExempt = isExempt != 0; });
}

int M_memPoolFlush(uint32_t poolId) {
    return withPool(&Partition::fixed, poolId, [](Pool &pool) { pool.flush(); });
}

int M_memPartVarFlush(uint32_t partId) {
    Partition *partition = findPartition(partId);
    if (partition == nullptr) return fail(ZEL_ERR_INVALID_OBJECT_ID);
    eachPool(partition->variable, [](Pool &pool) { pool.flush(); });
    return ZEL_OK;
}

int zel_memPartVarDelete(uint32_t partId) {
    Partition *partition = findPartition(partId);
    if (partition == nullptr) return fail(ZEL_ERR_INVALID_OBJECT_ID);
    PoolSet &set = partition->variable;
    const bool isDeleted = guarded(set, [&] {
        for (std::uint32_t i = 0; i < set.count; ++i)
            if (set.bySize[i]->inUse() != 0) return false;
        for (std::uint32_t i = 0; i < set.count; ++i) set.bySize[i]->clear();
        set.removeAll();
        return true;
    });
    return isDeleted ? static_cast<int>(ZEL_OK) : fail(ZEL_ERR_OBJECT_UNAVAILABLE);
}

int M_sysForceMemBlockFree(uint32_t partId) {
    Partition *partition = findPartition(partId);
    if (partition == nullptr) return fail(ZEL_ERR_INVALID_OBJECT_ID);
    eachPool(partition->fixed, [](Pool &pool) { pool.clear(); });
    eachPool(partition->variable, [](Pool &pool) { pool.clear(); });
    char name[32];
    snprintf(name, sizeof name, "partition %u", static_cast<unsigned>(partId));
    zelTracePrintf(moduleMemory, "sysForceMemBlockFree: All Pools Of %s are                    cleaned Up ", name);
    return ZEL_OK;
}

int M_memPoolGetStats(uint32_t poolId, zelMemPoolStats *stats) {
    return withPool(&Partition::fixed, poolId, [&](const Pool &pool) { *stats = pool.stats(); });
}

int M_memVarPoolGetStats(uint32_t poolId, zelMemPoolStats *stats) {
    return withPool(&Partition::variable, poolId, [&](const Pool &pool) { *stats = pool.stats(); });
}

int M_memPartGetStats(uint32_t partId, zelMemPartStats *stats) {
    Partition *partition = findPartition(partId);
    if (partition == nullptr) return fail(ZEL_ERR_INVALID_OBJECT_ID);
    *stats = {};
    stats->owner = partition->owner;
    stats->locking = partition->fixed.isLocking;
    stats->totPools = partition->fixed.places;
    stats->fixedPools = partition->fixed.count;
    stats->variablePools = partition->variable.count;
    stats->failures = partition->failures;
    const auto add = [&](const Pool &pool) {
        stats->pages += pool.pageCount;
        stats->pageBytes += std::uint64_t{pool.pageCount} * pageBytes(pool.chunkSize);
        stats->chunksInUse += pool.inUse();
        stats->failures += pool.failures;
    };
    eachPool(partition->fixed, add);
    eachPool(partition->variable, add);
    return ZEL_OK;
}
