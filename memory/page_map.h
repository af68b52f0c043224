// From any address to the page that may contain it, without a look at what stands there: a pointer to be freed may
// point anywhere, and a header that was written over must not lead anywhere.
//
// Pages begin at multiples of 1024 bytes, so each granule of that size belongs to one page at most and knows it. Tables
// of granules are made when a page first needs them and stay. A page is entered and removed under its pool's lock;
// anybody may look up at any time. What is found may be flushed the next moment, by another thread, unless that lock is
// held; the low bits of an entry, the mark, therefore say whose it is without a look at the page.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>

namespace zel::memory {

struct Page;

constexpr bool isWide = sizeof(void *) == 8;
constexpr unsigned granuleBits = 10, tableBits = isWide ? 23 : 15, addressBits = isWide ? 48 : 32;
constexpr std::size_t granuleBytes = std::size_t{1} << granuleBits, granulesPerTable = std::size_t{1} << tableBits;

using GranuleTable = std::array<std::atomic<std::uintptr_t>, granulesPerTable>;

// Which lock a page is under: the partition and which of its sets. 0 where its users take turns by themselves.
constexpr std::uintptr_t isLockedMark = 512;
constexpr std::uintptr_t lockMark(std::uint32_t partition, bool isVariable) {
    return isLockedMark | partition << 1 | (isVariable ? 1u : 0u);
}
static_assert(lockMark(255, true) < granuleBytes);

// The table that most pages are in, the first one made, for looking up in a few instructions. Closed while blocks are
// traced, so that each call takes the long way.
struct PageWindow {
    std::atomic<std::uintptr_t> granules;  // how many are open: none, or all of the table
    std::uintptr_t start;                  // address of the first one
    GranuleTable *table;
};
extern PageWindow pageWindow;
void openPageWindow(bool isOpen);

// False when memory is short, or the addresses are beyond what the map covers; then nothing is entered.
bool enterPage(Page *page, std::size_t bytes, std::uintptr_t mark);
void removePage(Page *page, std::size_t bytes);

// The page that the address is in, or lies shortly behind; null when there is none.
struct PageEntry {
    std::uintptr_t word;

    Page *page() const { return reinterpret_cast<Page *>(word & ~(granuleBytes - 1)); }
    std::uintptr_t mark() const { return word & (granuleBytes - 1); }
    bool operator==(const PageEntry &) const = default;
};
PageEntry entryAt(const void *pointer);
inline Page *pageAt(const void *pointer) {
    return entryAt(pointer).page();
}
// The same from the window alone, of pages without a mark.
inline Page *pageInWindow(const void *pointer) {
    const std::uintptr_t granule = (reinterpret_cast<std::uintptr_t>(pointer) - pageWindow.start) >> granuleBits;
    if (granule >= pageWindow.granules.load(std::memory_order_acquire)) [[unlikely]]
        return nullptr;
    const PageEntry entry{(*pageWindow.table)[granule].load(std::memory_order_acquire)};
    return entry.mark() == 0 ? entry.page() : nullptr;
}

}  // namespace zel::memory
