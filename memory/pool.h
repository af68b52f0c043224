// A pool: pages cut into chunks of one size.
//
// A page stands in the list of all pages, and in the list of free pages while it has a free chunk. Its free chunks are
// chained through their first data word, last in, first out; a link is a header's offset from the page. Pages are taken
// from the head of the free pages, leave it with their last chunk, and come back, like new ones, at the head.
//
// Nothing a chunk says is believed: index, size and marker have to agree with where it stands before it is taken or
// given back, and what does not agree changes nothing. The calls in line do that, and only say that something is wrong;
// what it is, is examined apart.
//
// All of it is called with the pool's set guarded (memory/pool_set.h).
#pragma once

#include <atomic>

#include "memory/layout.h"
#include "memory/page_map.h"
#include "zel/memory.h"

namespace zel::memory {

struct Pool;
struct PoolSet;

struct Links {
    Page *next;
    Page *prev;
};

struct Page {
    Links all;
    Links withFree;
    std::uint32_t firstFree;        // its offset from chunk 0, noChunk when none is free
    std::atomic<bool> isCounted;    // some chunk was taken for a line of source
    std::atomic<Pool *> plainPool;  // its pool when nobody counts, else null
    Pool *pool;
    void *memory;        // the block of the heap that it stands in
    std::uint32_t used;  // chunks; apart from firstFree, lest compilers load both at once behind two stores
};
constexpr char source[] = "zelMemLib";  // as assertions and allocations name it
constexpr std::uint32_t noChunk = UINT32_MAX;
// From a page to its first chunk's header, so that the data behind that is aligned.
constexpr std::uint32_t firstHeader = roundUp(sizeof(Page) + headerBytes, alignment) - headerBytes;

template <Links Page::*links>
struct PageList {
    Page *head;
    Page *tail;

    void pushFront(Page &page) {
        page.*links = {head, nullptr};
        (head ? (head->*links).prev : tail) = &page;
        head = &page;
    }
    void remove(Page &page) {
        Page *next = (page.*links).next, *prev = (page.*links).prev;
        (prev ? (prev->*links).next : head) = next;
        (next ? (next->*links).prev : tail) = prev;
    }
};

// For which site a chunk is counted, as pages note it: 0 is nobody, because site 0 counts too, for all that the table
// of sites has no room for.
constexpr std::uint32_t takerOf(std::uint32_t site) {
    return site + 1;
}
constexpr std::uint32_t siteOfTaker(std::uint32_t taker) {
    return taker - 1;
}

// What is wrong with a chunk, and where.
struct Finding {
    const char *assertion = nullptr;
    const char *part = nullptr;  // "Header", "Trailer"; null when only the assertion says it
    const void *page = nullptr;
    const void *computedPage = nullptr;
    const void *header = nullptr;
};

struct Pool {
    PageList<&Page::all> pages;
    PageList<&Page::withFree> freePages;
    std::uint64_t freeHeader, usedHeader;  // of chunk 0, with tag 0
    std::uint32_t chunkSize, stride, trailer;
    std::uint32_t total;  // chunks of a page
    std::size_t slotsBytes;
    std::uint32_t highWater, belowHighWater;  // most chunks in use, and how many fewer are now
    std::uint32_t pageCount;
    std::int32_t bound;
    bool isExempt;
    std::uintptr_t lockMark;  // of its pages, 0 when it does not lock
    char name[ZEL_MEM_POOL_NAME];
    std::uint32_t id;
    zelTaskId creator;
    PoolSet *set;
    std::atomic<std::uint32_t> failures;

    // A chunk's data; null when there is no page, or the next chunk is not as it should be.
    std::byte *take(std::uint32_t tag);
    // False when the data is no allocated chunk of this page.
    bool give(Page &page, std::byte *data);
    // For whom a chunk, just taken, is counted; and an end to that: 0 when it is not, or can no longer be told.
    void rememberTaker(Page &page, const std::byte *data, std::uint32_t taker) const;
    std::uint32_t forgetTaker(Page &page, std::uint32_t index) const;
    // Why they refused.
    Finding examineNext() const;
    Finding examineGiven(const Page &page, const std::byte *data) const;

    // Whether bound and page count allow another page; whether one could be had.
    bool mayGrow() const;
    bool grow();
    // Give the heap the pages with no chunk in use, or all of them.
    void flush();
    void clear();
    zelMemPoolStats stats() const;

    std::uint32_t inUse() const { return highWater - belowHighWater; }
    std::uint32_t freeIn(const Page &page) const { return total - page.used; }

private:
    std::uint32_t siteOffset() const { return firstHeader + total * stride + wordBytes; }
    std::uint32_t hostPageBytes() const;
    std::byte *sites(Page &page) const { return reinterpret_cast<std::byte *>(&page) + siteOffset(); }
    void cut(Page &page, void *memory);
    void raiseHighWater() {
        ++highWater;
        belowHighWater = 0;
    }
    void dropPage(Page &page);
};

inline std::byte *Pool::take(std::uint32_t tag) {
    Page *page = freePages.head;
    if (!page) [[unlikely]]
        return nullptr;
    const std::uint32_t offset = page->firstFree;
    if (offset >= slotsBytes) [[unlikely]]
        return nullptr;
    std::byte *header = reinterpret_cast<std::byte *>(page) + firstHeader + offset;
    const auto word = load<std::uint64_t>(header);
    if ((word & ~indexMask) != freeHeader || indexOf(word) * stride != offset) [[unlikely]]
        return nullptr;
    const auto next = load<std::uint32_t>(header + headerBytes);
    store(header, word + freeToUsed + (std::uint64_t{tag} << tagShift));
    page->firstFree = next;
    ++page->used;
    if (next == noChunk) [[unlikely]]
        freePages.remove(*page);
    if (__builtin_sub_overflow(belowHighWater, 1u, &belowHighWater)) [[unlikely]]
        raiseHighWater();
    return header + headerBytes;
}

inline bool Pool::give(Page &page, std::byte *data) {
    std::byte *header = data - headerBytes;
    const auto offset =
        static_cast<std::size_t>(data - reinterpret_cast<std::byte *>(&page)) - firstHeader - headerBytes;
    if (offset >= slotsBytes) [[unlikely]]
        return false;
    const auto word = load<std::uint64_t>(header);
    if (indexOf(word) * stride != offset || (word & ~(indexMask | tagMask)) != usedHeader) [[unlikely]]
        return false;
    const auto end = load<std::uint32_t>(header + trailer);
    if ((end != unusedMarker && end != allocatedMarker) || page.used == 0) [[unlikely]]
        return false;
    const std::uint32_t next = page.firstFree;
    store(header, (word & ~tagMask) - freeToUsed);
    store(data, next);
    page.firstFree = static_cast<std::uint32_t>(offset);
    --page.used;
    ++belowHighWater;
    if (next == noChunk) [[unlikely]]
        freePages.pushFront(page);
    return true;
}

}  // namespace zel::memory
