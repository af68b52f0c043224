#include "memory/pool.h"

#include <new>

#include "platform/accounting.h"
#include "zel/platform.h"

namespace zel::memory {
namespace {

constexpr std::uint32_t mostPages = UINT16_MAX;

const std::byte *bytesOf(const Page &page) {
    return reinterpret_cast<const std::byte *>(&page);
}

// The page that a header says it belongs to.
const void *computedPage(const std::byte *at, std::uint64_t header, std::uint32_t stride) {
    return reinterpret_cast<const void *>(reinterpret_cast<std::uintptr_t>(at) - indexOf(header) * stride -
                                          firstHeader);
}

}  // namespace

// The published size, or what the slots take here when that is more, with the last slot's trailer and the sites.
std::uint32_t Pool::hostPageBytes() const {
    const std::uint32_t siteBytes = total * static_cast<std::uint32_t>(sizeof(std::uint16_t));
    return std::max(pageBytes(chunkSize), siteOffset() + siteBytes);
}

bool Pool::mayGrow() const {
    if (pageCount >= mostPages) return false;
    const std::uint64_t held = std::uint64_t{pageCount} * pageBytes(chunkSize);
    return isExempt || bound < 0 || held < static_cast<std::uint64_t>(bound);
}

bool Pool::grow() {
    void *memory = zelMC_malloc(source, __LINE__, hostPageBytes() + granuleBytes);
    if (memory == nullptr) return false;
    const auto address = reinterpret_cast<std::uintptr_t>(memory);
    auto *page = reinterpret_cast<Page *>((address + granuleBytes - 1) / granuleBytes * granuleBytes);
    cut(*page, memory);
    if (!enterPage(page, hostPageBytes(), lockMark)) {
        zelMC_free(source, __LINE__, memory);
        return false;
    }
    pages.pushFront(*page);
    freePages.pushFront(*page);
    ++pageCount;
    return true;
}

void Pool::cut(Page &page, void *memory) {
    new (&page) Page{};
    page.pool = this;
    page.plainPool = this;
    page.memory = memory;
    std::memset(sites(page), 0, total * sizeof(std::uint16_t));
    auto *header = reinterpret_cast<std::byte *>(&page) + firstHeader;
    for (std::uint32_t i = 0; i < total; ++i, header += stride) {
        store(header, makeHeader(unusedMarker, i, chunkSize));
        store(header + headerBytes, i + 1 < total ? (i + 1) * stride : noChunk);
        store(header + trailer, unusedMarker);
    }
}

void Pool::dropPage(Page &page) {
    pages.remove(page);
    if (page.firstFree != noChunk) freePages.remove(page);
    --pageCount;
    removePage(&page, hostPageBytes());
    zelMC_free(source, __LINE__, page.memory);
}

void Pool::flush() {
    for (Page *page = pages.head, *next; page != nullptr; page = next) {
        next = page->all.next;
        if (page->used == 0) dropPage(*page);
    }
}

void Pool::clear() {
    while (Page *page = pages.head) {
        for (std::uint32_t i = 0; page->isCounted && i < total; ++i) {
            if (const std::uint32_t taker = forgetTaker(*page, i)) platform::noteFreed(siteOfTaker(taker), chunkSize);
        }
        dropPage(*page);
    }
    belowHighWater = highWater;
}

void Pool::rememberTaker(Page &page, const std::byte *data, std::uint32_t taker) const {
    const auto noted = static_cast<std::uint16_t>(taker);
    page.isCounted = true;
    page.plainPool = nullptr;
    std::memcpy(sites(page) + indexOf(load<std::uint64_t>(data - headerBytes)) * sizeof noted, &noted, sizeof noted);
}

std::uint32_t Pool::forgetTaker(Page &page, std::uint32_t index) const {
    std::uint16_t taker = 0;
    std::byte *at = sites(page) + index * sizeof taker;
    if (page.isCounted) std::memcpy(&taker, at, sizeof taker);
    if (taker != 0) std::memset(at, 0, sizeof taker);
    return taker <= platform::siteCapacity ? taker : 0;  // the last chunk's data ends shortly before
}

Finding Pool::examineNext() const {
    const Page &page = *freePages.head;
    if (page.firstFree == noChunk) return {"(*curPage)->headFreeChnk != CHNKLNKSNULL", "Header/Trailer", &page, &page};
    Finding finding{"curPage == actPage", "Header/Trailer", &page};
    if (page.firstFree >= slotsBytes) return finding;
    const std::byte *at = bytesOf(page) + firstHeader + page.firstFree;
    const auto header = load<std::uint64_t>(at);
    finding.header = at;
    finding.computedPage = computedPage(at, header, stride);
    if (markerOf(header) == 0 || sizeOf(header) == 0) {
        finding.assertion = "(chnkHdr->chnkMarker != 0 ) && (chnkLen != 0)";
    } else if (markerOf(header) != unusedMarker) {
        finding.assertion = "chnkHdr->chnkMarker == Unused_Magic_front";
    }
    return finding;
}

Finding Pool::examineGiven(const Page &page, const std::byte *data) const {
    const std::byte *at = data - headerBytes;
    const auto offset = static_cast<std::size_t>(at - bytesOf(page)) - firstHeader;
    const auto header = offset < slotsBytes ? load<std::uint64_t>(at) : 0;
    if (markerOf(header) == unusedMarker) return {"chnkHdr->chnkMarker != Unused_Magic_front"};
    if (markerOf(header) != allocatedMarker) return {"chnkHdr->chnkMarker == Blk_Magic_front", "Header"};
    if (indexOf(header) * stride != offset || sizeOf(header) != chunkSize)
        return {"(curPool->chnkSz) == chnkLen", nullptr, &page, computedPage(at, header, stride), at};
    const auto end = load<std::uint32_t>(at + trailer);
    if (end != unusedMarker && end != allocatedMarker) return {"isTrailerGood == TRUE", "Trailer"};
    return {"(curPage->chnkStats.freeChnks) <= (curPage->chnkStats.totChnks)"};
}

zelMemPoolStats Pool::stats() const {
    zelMemPoolStats stats{};
    std::memcpy(stats.name, name, sizeof name);
    stats.creator = creator;
    stats.chunkSize = chunkSize;
    stats.chunksPerPage = total;
    stats.pageBytes = pageBytes(chunkSize);
    stats.pages = pageCount;
    stats.chunksInUse = inUse();
    stats.highWater = highWater;
    stats.failures = failures;
    stats.bound = bound;
    stats.isExempt = isExempt;
    return stats;
}

}  // namespace zel::memory
