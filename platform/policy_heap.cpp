// The heap in the policy segment, shared by all processes that map it, under the numbered lock
// ZEL_SHM_LOCK_POLICY_HEAP.
//
// Blocks come in size classes, four to each doubling, so that a block wastes at most a quarter of itself. A freed block
// goes to its class's list and serves only that class; new ones are cut from the end of what is used. Nothing is
// merged: tables of equal entries come and go in the same classes.
//
// A process may be killed in the middle of a call. Each step that others see is one aligned store, made last, so the
// heap stays whole and at most the block in hand is lost; whoever takes over the lock has nothing to repair. Lost
// blocks are found by a sweep: blocks stand one behind the other from the first to the end, each says its size and,
// while it is handed out, who owns it; so whoever knows all that an owner still uses can have the rest back. Offsets,
// not pointers, link the blocks, and an offset that leaves the segment ends in a failed check instead of a wild access.
#include <errno.h>
#include <string.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <bit>
#include <cstdint>
#include <span>

#include "base/host_check.h"
#include "platform/cancellation.h"
#include "platform/segment.h"
#include "zel/platform.h"

namespace zel::platform {
namespace {

constexpr std::size_t smallestBlock = 32, alignment = 16, classesPerDoubling = 4;
constexpr std::size_t classCount = (sizeof(std::size_t) * 8 - 5) * classesPerDoubling;
constexpr std::uint32_t allocatedMagic = 0x7a616c63, freedMagic = 0x7a667265;

// In front of every block; the bytes handed out follow.
struct alignas(alignment) BlockHeader {
    std::atomic<std::uint32_t> magic;
    std::uint32_t sizeClass;
    std::atomic<std::uint64_t> nextFree;  // offset of the next block of a free list; while handed out, the owner
};

// All zero is an empty heap. Offsets count from the segment's begin, so none of a block is 0.
struct Heap {
    std::atomic<std::uint64_t> end;  // of the blocks cut so far; 0 before the first
    std::array<std::atomic<std::uint64_t>, classCount> freeLists;
};
static_assert(sizeof(Heap) <= policyHeapBytes);

// Class 4k + j holds smallestBlock * 2^k * (4 + j) / 4 bytes, header included.
constexpr std::size_t bytesOfClass(std::size_t sizeClass) {
    const std::size_t base = smallestBlock << (sizeClass / classesPerDoubling);
    return base + base / classesPerDoubling * (sizeClass % classesPerDoubling);
}

constexpr std::size_t classOf(std::size_t bytes) {
    if (bytes <= smallestBlock) return 0;
    const auto doubling = static_cast<std::size_t>(std::bit_width((bytes - 1) / smallestBlock / 2));
    const std::size_t base = smallestBlock << doubling, quarter = base / classesPerDoubling;
    return doubling * classesPerDoubling + (bytes - base + quarter - 1) / quarter;
}
static_assert(classOf(33) == 1 && bytesOfClass(1) == 40 && classOf(64) == 4 && classOf(65) == 5);

// Owners are told apart by a hash of their tag.
std::uint64_t ownerOf(const char *tag) {
    std::uint64_t hash = 14695981039346656037u;
    for (; *tag != 0; ++tag) hash = (hash ^ static_cast<std::uint8_t>(*tag)) * 1099511628211u;
    return hash;
}

// What a block of the class takes up.
constexpr std::uint64_t strideOf(std::size_t sizeClass) {
    return (bytesOfClass(sizeClass) + alignment - 1) / alignment * alignment;
}

std::uint8_t *segment() {
    return reinterpret_cast<std::uint8_t *>(policyAddress);
}
Heap &heap() {
    return *reinterpret_cast<Heap *>(segment() + policyHeapOffset);
}

BlockHeader *blockAt(std::uint64_t offset) {
    hostCheck(offset >= policyBlocksOffset && offset % alignment == 0 && offset < heap().end.load(),
              "policy heap: link within the segment");
    return reinterpret_cast<BlockHeader *>(segment() + offset);
}

class HeapLock {
public:
    HeapLock() { hostCheck(ZEL_ShmWriteLock(ZEL_SHM_LOCK_POLICY_HEAP) == 0, "policy heap: lock"); }
    ~HeapLock() { hostCheck(ZEL_ShmWriteUnLock(ZEL_SHM_LOCK_POLICY_HEAP) == 0, "policy heap: unlock"); }
    HeapLock(const HeapLock &) = delete;
    HeapLock &operator=(const HeapLock &) = delete;

private:
    NoCancellation guard_;
};

BlockHeader *takeFree(std::size_t sizeClass) {
    auto &list = heap().freeLists[sizeClass];
    const std::uint64_t offset = list.load();
    if (offset == 0) return nullptr;
    BlockHeader *block = blockAt(offset);
    list.store(block->nextFree.load());
    return block;
}

BlockHeader *cutNew(std::size_t sizeClass) {
    const std::uint64_t begin = std::max<std::uint64_t>(heap().end.load(), policyBlocksOffset);
    const std::uint64_t end = begin + strideOf(sizeClass);
    if (end > policyReservedBytes || !growPolicySegment(static_cast<std::size_t>(end))) return nullptr;
    auto *block = reinterpret_cast<BlockHeader *>(segment() + begin);
    block->sizeClass = static_cast<std::uint32_t>(sizeClass);
    heap().end.store(end);
    return block;
}

void *allocate(const char *tag, std::size_t bytes) {
    if (!isPolicySegmentAttached() || bytes > policyReservedBytes) return nullptr;
    const std::size_t sizeClass = classOf(bytes + sizeof(BlockHeader));
    const HeapLock lock;
    BlockHeader *block = takeFree(sizeClass);
    if (block == nullptr) block = cutNew(sizeClass);
    if (block == nullptr) return nullptr;
    block->nextFree.store(ownerOf(tag));
    block->magic.store(allocatedMagic);
    return block + 1;
}

// The block's header, after a check that it is one that was handed out and not freed since.
BlockHeader *headerOf(void *bytes) {
    const auto offset = reinterpret_cast<std::uintptr_t>(bytes) - policyAddress - sizeof(BlockHeader);
    BlockHeader *block = blockAt(offset);
    hostCheck(block->magic.load() == allocatedMagic && block->sizeClass < classCount, "policy heap: allocated block");
    return block;
}

std::uint64_t offsetOf(const BlockHeader &block) {
    return static_cast<std::uint64_t>(reinterpret_cast<const std::uint8_t *>(&block) - segment());
}

void putOnList(BlockHeader &block) {
    auto &list = heap().freeLists[block.sizeClass];
    block.magic.store(freedMagic);
    block.nextFree.store(list.load());
    list.store(offsetOf(block));
}

void release(void *bytes) {
    const HeapLock lock;
    putOnList(*headerOf(bytes));
}

// ---- Sweeping -------------------------------------------------------------------------------------------------------

// Whether the blocks follow each other up to the end; calls `visit` for each.
template <class Visit>
bool walkBlocks(const Visit &visit) {
    const std::uint64_t end = heap().end.load();
    if (end == 0) return true;
    if (end < policyBlocksOffset || end > policyReservedBytes) return false;
    const auto bytesOfAll = static_cast<std::size_t>(end - policyBlocksOffset);
    if (!isInPolicyHeap(policyAddress + policyBlocksOffset, bytesOfAll)) return false;
    for (std::uint64_t offset = policyBlocksOffset, bytes = 0; offset < end; offset += bytes) {
        auto *block = reinterpret_cast<BlockHeader *>(segment() + offset);
        if (block->sizeClass >= classCount) return false;
        bytes = strideOf(block->sizeClass);
        if (bytes > end - offset) return false;
        visit(*block, bytes);
    }
    return true;
}

struct Sum {
    std::uint64_t blocks = 0, bytes = 0;
    void add(std::uint64_t size) {
        ++blocks;
        bytes += size;
    }
};

// Null where a header cannot be.
const BlockHeader *headerAt(std::uint64_t offset) {
    if (offset > policyReservedBytes || offset % alignment != 0) return nullptr;
    const std::uintptr_t address = policyAddress + static_cast<std::uintptr_t>(offset);
    return isInPolicyHeap(address, sizeof(BlockHeader)) ? reinterpret_cast<const BlockHeader *>(address) : nullptr;
}

// What the free lists hold; a list ends where it goes astray.
Sum listed(std::uint64_t limit) {
    Sum sum;
    for (std::size_t i = 0; i < classCount; ++i) {
        const BlockHeader *block = headerAt(heap().freeLists[i].load());
        for (; block != nullptr && sum.blocks < limit; block = headerAt(block->nextFree.load())) {
            if (block->magic.load() != freedMagic || block->sizeClass != i) break;
            sum.add(strideOf(i));
        }
    }
    return sum;
}

// One walk over all blocks, beside which goes another over those in use.
class Sweep {
public:
    Sweep(const char *tag, std::span<const void *const> inUse, bool recovers)
        : owner_(ownerOf(tag)), inUse_(inUse), recovers_(recovers) {}

    bool run(zelPolicyHeapReport &report) {
        const std::uint64_t total = heap().end.load() / smallestBlock;
        const Sum known = listed(total);
        if (recovers_)
            for (auto &list : heap().freeLists) list.store(0);
        const bool isWhole = walkBlocks([this](BlockHeader &block, std::uint64_t bytes) { visit(block, bytes); });
        report = {used_.blocks,
                  used_.bytes,
                  lost_.blocks + free_.blocks - known.blocks,
                  lost_.bytes + free_.bytes - known.bytes,
                  inUse_.size() - used_.blocks,
                  others_.blocks};
        return isWhole && known.blocks <= free_.blocks;
    }

private:
    void visit(BlockHeader &block, std::uint64_t bytes) {
        const bool isHandedOut = block.magic.load() == allocatedMagic;
        const bool isOwned = isHandedOut && block.nextFree.load() == owner_, isUsed = isOwned && isInUse(&block + 1);
        if (isUsed) used_.add(bytes);
        if (isOwned && !isUsed) lost_.add(bytes);
        if (isHandedOut && !isOwned) others_.add(bytes);
        if (!isHandedOut) free_.add(bytes);
        if (recovers_ && (isOwned ? !isUsed : !isHandedOut)) putOnList(block);
    }

    bool isInUse(const void *bytes) {
        while (next_ < inUse_.size() && inUse_[next_] < bytes) ++next_;
        return next_ < inUse_.size() && inUse_[next_] == bytes;
    }

    const std::uint64_t owner_;
    const std::span<const void *const> inUse_;
    const bool recovers_;
    std::size_t next_ = 0;
    Sum used_, lost_, free_, others_;
};

}  // namespace
}  // namespace zel::platform

using namespace zel::platform;

__attribute__((weak)) void *zelMC_MM_malloc(const char *tag, int, size_t bytes) {
    return allocate(tag, bytes);
}

__attribute__((weak)) void *zelMC_MM_calloc(const char *tag, int, size_t count, size_t bytes) {
    size_t total = 0;
    if (__builtin_mul_overflow(count, bytes, &total)) return nullptr;
    void *block = allocate(tag, total);
    if (block != nullptr) memset(block, 0, total);
    return block;
}

__attribute__((weak)) void *zelMC_MM_realloc(const char *tag, int line, void *old, size_t bytes) {
    if (old == nullptr) return zelMC_MM_malloc(tag, line, bytes);
    if (!isPolicySegmentAttached() || bytes > policyReservedBytes) return nullptr;
    const std::size_t room = bytesOfClass(headerOf(old)->sizeClass) - sizeof(BlockHeader);
    if (bytes <= room) return old;
    void *block = zelMC_MM_malloc(tag, line, bytes);
    if (block == nullptr) return nullptr;
    memcpy(block, old, room);
    zelMC_MM_free(tag, line, old);
    return block;
}

__attribute__((weak)) void zelMC_MM_free(const char *, int, void *block) {
    if (block != nullptr && isPolicySegmentAttached()) release(block);
}

int zelPolicyHeapSweep(const char *tag, const void *const *inUse, size_t count, int recovers,
                       zelPolicyHeapReport *report) {
    if (!isPolicySegmentAttached()) return errno = ENXIO, -1;
    const HeapLock lock;
    if (Sweep(tag, {inUse, count}, recovers != 0).run(*report)) return 0;
    errno = EBADMSG;
    return -1;
}
