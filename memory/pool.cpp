#include "memory/pool.h"

#include "platform/accounting.h"
#include "zel/platform.h"

namespace zel::memory {
namespace {

constexpr std::uint32_t mostPages = UINT16_MAX;

const std::byte *bytesOf(const Page &page) {
    return reinterpret_cast<const std::byte *>(&page);
}

// The page that a header says it belongs to.
const void *computedPage(const std::byte *header, std::uint32_t word, std::uint32_t stride) {
    return reinterpret_cast<const void *>(reinterpret_cast<std::uintptr_t>(header) - indexOf(word) * stride -
                                          firstHeader);
}

}  // namespace

// The published size, or what the slots take here when that is more, with the last slot's trailer and the sites.
std::uint32_t Pool::hostPageBytes() const {
    const std::uint32_t siteBytes = chunksPerPage(chunkSize) * static_cast<std::uint32_t>(sizeof(std::uint16_t));
    return std::max(pageBytes(chunkSize), siteOffset() + siteBytes);
}

bool Pool::mayGrow() const {
    if (pageCount >= mostPages) return false;
    const std::uint64_t held = std::uint64_t{pageCount} * pageBytes(chunkSize);
    return isExempt || bound < 0 || held < static_cast<std::uint64_t>(bound);
}

bool Pool::grow() {
    void *memory = zelMC_malloc(source, __LINE__, hostPageBytes());
    if (memory == nullptr) return false;
    auto *page = static_cast<Page *>(memory);
    if (!enterPage(page, hostPageBytes())) {
        zelMC_free(source, __LINE__, memory);
        return false;
    }
    cut(*page);
    pages.pushFront(*page);
    freePages.pushFront(*page);
    ++pageCount;
    return true;
}

void Pool::cut(Page &page) {
    const std::uint32_t total = chunksPerPage(chunkSize);
    page = Page{};
    page.pool = this;
    page.total = page.free = static_cast<std::uint16_t>(total);
    page.firstFree = firstHeader;
    std::memset(sites(page), 0, total * sizeof(std::uint16_t));
    auto *header = reinterpret_cast<std::byte *>(&page) + firstHeader;
    for (std::uint32_t i = 0; i < total; ++i, header += stride) {
        store(header, unusedMarker);
        store(header + wordBytes, chunkWord(i, chunkSize, 0));
        store(header + headerBytes, i + 1 < total ? firstHeader + (i + 1) * stride : noChunk);
        store(header + trailer, unusedMarker);
    }
}

void Pool::dropPage(Page &page) {
    pages.remove(page);
    if (page.free != 0) freePages.remove(page);
    --pageCount;
    removePage(&page, hostPageBytes());
    zelMC_free(source, __LINE__, &page);
}

void Pool::flush() {
    for (Page *page = pages.head, *next; page != nullptr; page = next) {
        next = page->all.next;
        if (page->free == page->total) dropPage(*page);
    }
}

void Pool::clear() {
    while (Page *page = pages.head) {
        for (std::uint32_t i = 0; page->isCounted && i < page->total; ++i) {
            const auto *data = bytesOf(*page) + firstHeader + i * stride + headerBytes;
            if (const std::uint32_t taker = forgetTaker(*page, data)) platform::noteFreed(taker, chunkSize);
        }
        dropPage(*page);
    }
    inUse = 0;
}

void Pool::rememberTaker(Page &page, const std::byte *data, std::uint32_t site) const {
    const auto taker = static_cast<std::uint16_t>(site);
    page.isCounted = true;
    std::memcpy(sites(page) + indexOf(load(data - wordBytes)) * sizeof taker, &taker, sizeof taker);
}

std::uint32_t Pool::forgetTaker(Page &page, const std::byte *data) const {
    std::uint16_t taker = 0;
    std::byte *at = sites(page) + indexOf(load(data - wordBytes)) * sizeof taker;
    if (page.isCounted) std::memcpy(&taker, at, sizeof taker);
    if (taker != 0) std::memset(at, 0, sizeof taker);
    return taker;
}

Finding Pool::examineNext() const {
    const Page &page = *freePages.head;
    if (page.firstFree == noChunk) return {"(*curPage)->headFreeChnk != CHNKLNKSNULL", "Header/Trailer", &page, &page};
    const std::byte *header = bytesOf(page) + page.firstFree;
    Finding finding{"curPage == actPage", "Header/Trailer", &page, nullptr, header};
    if (page.firstFree - firstHeader >= slotsBytes) return finding;
    const std::uint32_t marker = load(header), word = load(header + wordBytes);
    finding.computedPage = computedPage(header, word, stride);
    if (marker == 0 || sizeOf(word) == 0) {
        finding.assertion = "(chnkHdr->chnkMarker != 0 ) && (chnkLen != 0)";
    } else if (marker != unusedMarker) {
        finding.assertion = "chnkHdr->chnkMarker == Unused_Magic_front";
    }
    return finding;
}

Finding Pool::examineGiven(const Page &page, const std::byte *data) const {
    const std::byte *header = data - headerBytes;
    const auto offset = static_cast<std::size_t>(header - bytesOf(page));
    const bool isInside = offset - firstHeader < slotsBytes;
    const std::uint32_t marker = isInside ? load(header) : 0, word = isInside ? load(header + wordBytes) : 0;
    if (marker == unusedMarker) return {"chnkHdr->chnkMarker != Unused_Magic_front"};
    if (marker != allocatedMarker) return {"chnkHdr->chnkMarker == Blk_Magic_front", "Header"};
    if (!isSlot(static_cast<std::uint32_t>(offset), word))
        return {"(curPool->chnkSz) == chnkLen", nullptr, &page, computedPage(header, word, stride), header};
    const std::uint32_t end = load(header + trailer);
    if (end != unusedMarker && end != allocatedMarker) return {"isTrailerGood == TRUE", "Trailer"};
    return {"(curPage->chnkStats.freeChnks) <= (curPage->chnkStats.totChnks)"};
}

zelMemPoolStats Pool::stats() const {
    zelMemPoolStats stats{};
    std::memcpy(stats.name, name, sizeof name);
    stats.creator = creator;
    stats.chunkSize = chunkSize;
    stats.chunksPerPage = chunksPerPage(chunkSize);
    stats.pageBytes = pageBytes(chunkSize);
    stats.pages = pageCount;
    stats.chunksInUse = inUse;
    stats.highWater = highWater;
    stats.failures = failures;
    stats.bound = bound;
    stats.isExempt = isExempt;
    return stats;
}

}  // namespace zel::memory
