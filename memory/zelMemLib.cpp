// Blocks of memory partitions: taking one and giving it back.
//
// The plain case, a block of a given pool where everything is as it should be, does nothing but take or give it. All
// else is done, or tried again, step by step: what keeps it from succeeding is found with the pools guarded, and said
// once they are no longer. A pool that has to grow asks the usage check in between, unguarded, because the check is the
// host program's.
#include <cerrno>

#include "memory/trace.h"
#include "platform/accounting.h"
#include "zel/kernel.h"
#include "zel/platform.h"

using namespace zel;
using namespace zel::memory;
using kernel::fail;

constinit std::atomic<std::uint32_t> zel::memory::debugMask{0};

namespace {

constexpr char moduleName[] = "zelMemMgmt", allocName[] = "zel_memBlockAlloc", takeName[] = "AllocChnk",
               freeName[] = "zel_memBlockFree";
constexpr int atTheHead = 0;  // where pages are inserted, in traces

// ---- Reports and traces ----

unsigned shown(const void *address) {
    return static_cast<unsigned>(reinterpret_cast<std::uintptr_t>(address));
}

intptr_t wordOf(const void *text) {
    return reinterpret_cast<intptr_t>(text);
}

// Whose pools a call is about, as errors name it: the pool identifier as it was given.
void reportFailure(std::uint32_t poolId, std::uint32_t size, bool isPartition) {
    if (poolId != SYS_LOG_POOL) {
        zelSysErr(0, 0, ZEL_EVENT_MEMORY, 4, wordOf(moduleName), wordOf(allocName), static_cast<intptr_t>(poolId),
                  static_cast<intptr_t>(size));
    } else if (isPartition) {
        zelErrorPrintf(moduleMemory, "%d (SYS_LOG_POOL) No fit found for %d", static_cast<int>(poolId),
                       static_cast<int>(size));
    } else {
        zelErrorPrintf(moduleMemory, "%d (SYS_LOG_POOL) partition does not exist", static_cast<int>(poolId));
    }
}

// ---- Allocation ----

struct Request {
    bool isVariable;
    std::uint32_t poolId, size, tag;
    std::uint32_t taker;  // 0: nobody counts
};

constexpr std::uint32_t nibble(std::uint32_t tag) {
    return tag >> 28;
}

Pool *choose(const PoolSet &set, const Request &request) {
    if (request.isVariable)
        return asserted(set.count <= MAX_VAR_POOLS, "totVarPools <= MAX_VAR_POOLS", source)
                   ? set.smallestFor(request.size)
                   : nullptr;
    if (request.poolId == ZEL_MEM_BEST_FIT) return set.smallestFor(request.size);
    Pool *pool = poolAt(set, poolNumber(request.poolId));
    return pool && pool->chunkSize >= request.size ? pool : nullptr;
}

// One try, with the pools guarded, and what stood in its way. The pool may be deleted once they no longer are.
struct Try {
    std::byte *block = nullptr;
    bool hasPool = false;
    bool isExempt = false;
    std::uint32_t poolId = 0, pageSize = 0;
    Finding finding;
    bool needsPage = false;
    bool isNewPage = false;
    const Page *page = nullptr;  // of the block, for traces
    std::uint32_t freeInPage = 0, inUse = 0, pageCount = 0;
};

void take(Pool &pool, Try &result, const Request &request) {
    const Page *page = pool.freePages.head;
    result.block = pool.take(request.tag);
    if (result.block == nullptr) {
        if (page != nullptr) result.finding = pool.examineNext();
        return;
    }
    if (request.taker != 0) pool.rememberTaker(*pageAt(result.block), result.block, request.taker);
    result.page = page;
    result.freeInPage = pool.freeIn(*page);
    result.inUse = pool.inUse();
    result.pageCount = pool.pageCount;
}

Try tryOnce(const PoolSet &set, const Request &request, bool mayGrow) {
    Try result;
    Pool *pool = choose(set, request);
    if (pool == nullptr) return result;
    result.hasPool = true;
    result.isExempt = pool->isExempt;
    result.poolId = pool->id;
    result.pageSize = pageBytes(pool->chunkSize);
    if (pool->freePages.head == nullptr) {
        if (!pool->mayGrow()) return result;
        result.needsPage = !mayGrow;
        if (!mayGrow || !pool->grow()) return result;
        result.isNewPage = true;
    }
    take(*pool, result, request);
    return result;
}

// True when the pool is exempt or the check allows it; says so when it does not.
bool isPageAllowed(const Try &result) {
    const zelTaskId task = taskIdSelf();
    if (result.isExempt || zelMemUsageCheck(task, result.poolId, result.pageSize) != 0) return true;
    const char *name = task != 0 ? taskName(task) : nullptr;
    zelErrorPrintf(moduleMemory, "Mem req by task: %s, size: %d retStatus: %s ", name != nullptr ? name : "Unk",
                   static_cast<int>(result.pageSize), "DENIED");
    return false;
}

void traceAllocation(const Request &request, const Try &result) {
    if (request.poolId == ZEL_MEM_BEST_FIT || request.isVariable)
        trace("findPool: size: %d, poolId is %d\r\n", static_cast<int>(request.size),
              static_cast<int>(poolNumber(result.poolId)));
    if (result.isNewPage) {
        trace("Alloc: New Page Added, Page %x\r\n", shown(result.page));
        trace("Inserted Page int Free List %x, direction is %d\r\n", shown(result.page), atTheHead);
    }
    if (result.freeInPage == 0) trace("Deleted Page From Free List, Page: %x\r\n", shown(result.page));
    trace("Alloc: PartId: %d, PoolId: %d, Chnks: %d, Pages: %d\r\n", static_cast<int>(partitionNumber(result.poolId)),
          static_cast<int>(poolNumber(result.poolId)), static_cast<int>(result.inUse),
          static_cast<int>(result.pageCount));
}

void reportTaken(const Finding &finding) {
    zelSysErr(0, 0, ZEL_EVENT_MEMORY, 5, wordOf(moduleName), wordOf(takeName), wordOf(finding.part),
              wordOf("Block Not Allocated"), wordOf(finding.header));
    zelErrorPrintf(moduleMemory, "Allocation: curPage: %x, actPage: %x, chnkHdr: %x\r\n", shown(finding.page),
                   shown(finding.computedPage), shown(finding.header));
    _zelAssert(finding.assertion, source, __LINE__);
}

PoolSet &setFor(Partition &partition, const Request &request) {
    return request.isVariable ? partition.variable : partition.fixed;
}

// For the pool that was chosen, if it is still there, or for the partition.
void countFailure(Partition &partition, const Request &request, const Try &result) {
    PoolSet &set = setFor(partition, request);
    guarded(set, [&] {
        Pool *pool = result.hasPool ? poolAt(set, poolNumber(result.poolId)) : nullptr;
        (pool != nullptr ? pool->failures : partition.failures).fetch_add(1, std::memory_order_relaxed);
    });
}

void *refuse(Partition *partition, const Request &request, const Try &result) {
    if (partition != nullptr) countFailure(*partition, request, result);
    if (result.finding.assertion != nullptr) {
        reportTaken(result.finding);
    } else {
        reportFailure(request.poolId, request.size, partition != nullptr);
    }
    errno = result.hasPool ? ZEL_ERR_NOT_ENOUGH_MEMORY : ZEL_ERR_INVALID_OBJECT_ID;
    return nullptr;
}

// Every case but the plain one below.
[[gnu::noinline]] void *allocateStepwise(const Request &request) {
    Partition *partition = partitionOf(request.poolId);
    Try result;
    if (partition != nullptr) {
        PoolSet &set = setFor(*partition, request);
        result = guarded(set, [&] { return tryOnce(set, request, false); });
        if (result.needsPage && isPageAllowed(result))
            result = guarded(set, [&] { return tryOnce(set, request, true); });
    }
    if (result.block == nullptr) return refuse(partition, request, result);
    if (isTracing()) traceAllocation(request, result);
    return result.block;
}

// A fixed pool that no shortcut leads to.
[[gnu::noinline]] void *allocateFixed(std::uint32_t poolId, std::uint32_t size, std::uint32_t tag) {
    Pool *pool = fixedPool(poolId);
    if (pool && size <= pool->chunkSize && !isTracing()) {
        if (pool->lockMark == 0) shortcutTo(poolId).store(pool, std::memory_order_release);
        void *block = guarded(*pool->set, [&] { return pool->take(nibble(tag)); });
        if (block) return block;
    }
    return allocateStepwise({false, poolId, size, nibble(tag), 0});
}

void *allocateCounted(const char *tag, int line, Request request) {
    const std::uint32_t site = platform::siteOf(tag, line);
    request.taker = takerOf(site);
    void *block = allocateStepwise(request);
    if (block != nullptr)
        platform::noteAllocated(site, sizeOf(load<std::uint64_t>(static_cast<const std::byte *>(block) - headerBytes)));
    return block;
}

// ---- Free ----

// A block that cannot be freed: says why, unguarded.
[[gnu::noinline]] int refuseBlock(void *addr, const Finding &finding) {
    if (finding.part != nullptr)
        zelSysErr(0, 0, ZEL_EVENT_MEMORY, 5, wordOf(moduleName), wordOf(freeName), wordOf(finding.part),
                  wordOf("Block Addr Not Freed"), wordOf(addr));
    if (finding.page != nullptr)
        zelErrorPrintf(moduleMemory, "Free: curPage: %x, chnkHdr: %x\r\n", shown(finding.computedPage),
                       shown(finding.header));
    _zelAssert(finding.assertion, source, __LINE__);
    return fail(ZEL_ERR_INVALID_OBJECT_ID);
}

// Does the work with the page that the address is in, guarded, and found there again: until then another thread may
// flush it, and then this is no block.
template <class Work>
void withPage(void *addr, Work work) {
    const PageEntry entry = entryAt(addr);
    if (entry.page() == nullptr) return;
    if (entry.mark() == 0) return work(*entry.page());
    locked(lockedSet(entry.mark()), [&] {
        if (entryAt(addr) == entry) work(*entry.page());
    });
}

// What became of a block, with what is to be counted and traced of it.
struct Return {
    Finding finding{"chnkHdr->chnkMarker == Blk_Magic_front", "Header"};
    std::uint32_t taker = 0, chunkSize = 0, inUse = 0, pageCount = 0;
    const Page *page = nullptr;  // not to be looked at
    bool isBack = false;
};

Return giveBack(Page &page, std::byte *data) {
    Pool &pool = *page.pool;
    Return result;
    result.isBack = page.firstFree == noChunk;
    result.finding = pool.give(page, data) ? Finding{} : pool.examineGiven(page, data);
    if (result.finding.assertion != nullptr) return result;
    result.taker = pool.forgetTaker(page, indexOf(load<std::uint64_t>(data - headerBytes)));
    result.chunkSize = pool.chunkSize;
    result.inUse = pool.inUse();
    result.pageCount = pool.pageCount;
    result.page = &page;
    return result;
}

void traceFree(const Return &result) {
    if (result.isBack) trace("Inserted Page int Free List %x, direction is %d\r\n", shown(result.page), atTheHead);
    const char *name = taskIdSelf() != 0 ? taskName(0) : nullptr;
    trace("Free TName: %s, Pages: %d, Chnks: %d\r\n", name != nullptr ? name : "Unk",
          static_cast<int>(result.pageCount), static_cast<int>(result.inUse));
}

// Every case but the plain one below.
[[gnu::noinline]] int releaseStepwise(void *addr) {
    if (!asserted(addr != nullptr, "addr != NULL", source)) return fail(ZEL_ERR_INVALID_OBJECT_ID);
    Return result;
    withPage(addr, [&](Page &page) { result = giveBack(page, static_cast<std::byte *>(addr)); });
    if (result.finding.assertion != nullptr) return refuseBlock(addr, result.finding);
    if (result.taker != 0) platform::noteFreed(siteOfTaker(result.taker), result.chunkSize);
    if (isTracing()) traceFree(result);
    return ZEL_OK;
}

// A block of a page that is not plain, or is outside the window.
[[gnu::noinline]] int releaseGuarded(void *addr) {
    if (isTracing()) return releaseStepwise(addr);
    bool isGiven = false;
    withPage(addr, [&](Page &page) {
        isGiven =
            !page.isCounted.load(std::memory_order_relaxed) && page.pool->give(page, static_cast<std::byte *>(addr));
    });
    return isGiven ? static_cast<int>(ZEL_OK) : releaseStepwise(addr);
}

inline int release(void *addr) {
    Page *page = pageInWindow(addr);
    Pool *pool = page ? page->plainPool.load(std::memory_order_relaxed) : nullptr;
    if (pool && pool->give(*page, static_cast<std::byte *>(addr))) [[likely]]
        return ZEL_OK;
    return releaseGuarded(addr);
}

int releaseCounted(const char *tag, int line, void *addr) {
    const int result = release(addr);
    if (result != ZEL_OK) platform::sites[platform::siteOf(tag, line)].badFrees.fetch_add(1);
    return result;
}

}  // namespace

__attribute__((weak)) int zelMemUsageCheck(zelTaskId, uint32_t, uint32_t) {
    return 1;
}

void *M_memBlockAlloc(uint32_t poolId, uint32_t size, uint32_t tag) {
    Pool *pool = shortcutTo(poolId).load(std::memory_order_acquire);
    if (pool && pool->id == poolId && size <= pool->chunkSize) [[likely]]
        if (void *block = pool->take(nibble(tag))) [[likely]]
            return block;
    return allocateFixed(poolId, size, tag);
}

int M_memBlockFree(uint32_t, void *addr) {
    return release(addr);
}

void *M_memBlockVarAlloc(uint32_t poolId, uint32_t size, uint32_t tag) {
    return allocateStepwise({true, poolId, size, nibble(tag), 0});
}

int M_memBlockVarFree(uint32_t, void *addr) {
    return release(addr);
}

void *M_sysMalloc(size_t bytes) {
    return zelMC_malloc(source, __LINE__, bytes);
}

void *M_sysCalloc(size_t count, size_t bytes) {
    return zelMC_calloc(source, __LINE__, count, bytes);
}

void M_sysMemfree(void *block) {
    zelMC_free(source, __LINE__, block);
}

void *zelMC_M_memBlockAlloc(const char *tag, int line, uint32_t poolId, uint32_t size, uint32_t blockTag) {
    return allocateCounted(tag, line, {false, poolId, size, nibble(blockTag), 0});
}

int zelMC_M_memBlockFree(const char *tag, int line, uint32_t, void *addr) {
    return releaseCounted(tag, line, addr);
}

void *zelMC_M_memBlockVarAlloc(const char *tag, int line, uint32_t poolId, uint32_t size, uint32_t blockTag) {
    return allocateCounted(tag, line, {true, poolId, size, nibble(blockTag), 0});
}

int zelMC_M_memBlockVarFree(const char *tag, int line, uint32_t, void *addr) {
    return releaseCounted(tag, line, addr);
}

void *zelMC_M_sysMalloc(const char *tag, int line, size_t bytes) {
    return zelMC_malloc(tag, line, bytes);
}

void *zelMC_M_sysCalloc(const char *tag, int line, size_t count, size_t bytes) {
    return zelMC_calloc(tag, line, count, bytes);
}

void zelMC_M_sysMemfree(const char *tag, int line, void *block) {
    zelMC_free(tag, line, block);
}

void zelMemSetDebug(uint32_t mask) {
    debugMask.store(mask, std::memory_order_relaxed);
    openPageWindow(!isTracing());
    for (auto &shortcut : shortcuts) shortcut.store(nullptr, std::memory_order_relaxed);
}
