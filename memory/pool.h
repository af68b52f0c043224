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
    Pool *pool;
    std::uint32_t firstFree;  // offset of a header, noChunk at the end of the chain
    std::uint16_t total;
    std::uint16_t free;
    bool isCounted;  // some chunk was taken for a line of source
};
constexpr char source[] = "zelMemLib";  // as assertions and allocations name it
constexpr std::uint32_t noChunk = 0;
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
    std::uint32_t chunkSize, stride, trailer;
    std::uint32_t slotsBytes;  // of a page, all strides
    std::uint32_t pageCount, inUse, highWater;
    std::int32_t bound;
    bool isExempt;
    bool isLocking;
    char name[ZEL_MEM_POOL_NAME];
    std::uint32_t id;
    zelTaskId creator;
    PoolSet *set;
    std::atomic<std::uint32_t> failures;

    // A chunk's data; null when there is no page, or the next chunk is not as it should be.
    std::byte *take(std::uint32_t tag);
    // False when the data is no allocated chunk of this page.
    bool give(Page &page, std::byte *data);
    // The site that a chunk is counted for, and an end to that: 0 when it is not.
    void rememberTaker(Page &page, const std::byte *data, std::uint32_t site) const;
    std::uint32_t forgetTaker(Page &page, const std::byte *data) const;
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

private:
    std::uint32_t siteOffset() const { return firstHeader + slotsBytes + wordBytes; }
    std::uint32_t hostPageBytes() const;
    std::byte *sites(Page &page) const { return reinterpret_cast<std::byte *>(&page) + siteOffset(); }
    void cut(Page &page);
    void dropPage(Page &page);
    bool isSlot(std::uint32_t offset, std::uint32_t word) const;
};

inline bool Pool::isSlot(std::uint32_t offset, std::uint32_t word) const {
    return firstHeader + indexOf(word) * stride == offset && sizeOf(word) == chunkSize;
}

inline std::byte *Pool::take(std::uint32_t tag) {
    Page *page = freePages.head;
    if (!page) [[unlikely]]
        return nullptr;
    const std::uint32_t offset = page->firstFree;
    if (offset - firstHeader >= slotsBytes) [[unlikely]]
        return nullptr;
    std::byte *header = reinterpret_cast<std::byte *>(page) + offset;
    const std::uint32_t word = load(header + wordBytes);
    if (load(header) != unusedMarker || !isSlot(offset, word)) [[unlikely]]
        return nullptr;
    page->firstFree = load(header + headerBytes);
    store(header, allocatedMarker);
    store(header + wordBytes, (word & ~0xfu) | tag);
    if (--page->free == 0) [[unlikely]]
        freePages.remove(*page);
    if (++inUse > highWater) highWater = inUse;
    return header + headerBytes;
}

inline bool Pool::give(Page &page, std::byte *data) {
    std::byte *header = data - headerBytes;
    const auto offset = static_cast<std::size_t>(header - reinterpret_cast<std::byte *>(&page));
    if (offset - firstHeader >= slotsBytes) [[unlikely]]
        return false;
    const std::uint32_t word = load(header + wordBytes);
    if (load(header) != allocatedMarker || !isSlot(static_cast<std::uint32_t>(offset), word)) [[unlikely]]
        return false;
    const std::uint32_t end = load(header + trailer);
    if ((end != unusedMarker && end != allocatedMarker) || page.free >= page.total) [[unlikely]]
        return false;
    store(header, unusedMarker);
    store(data, page.firstFree);
    page.firstFree = static_cast<std::uint32_t>(offset);
    if (page.free++ == 0) [[unlikely]]
        freePages.pushFront(page);
    --inUse;
    return true;
}

}  // namespace zel::memory
