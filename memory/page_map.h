// From any address to the page that may contain it, without a look at what stands there: a pointer to be freed may
// point anywhere, and a header that was written over must not lead anywhere.
//
// Addresses are divided into granules of 16 KiB. A page is larger than that, so a granule knows at most two: the one
// that begins in it and the one that covers its first byte. Tables of granules are made when a page first needs them
// and stay. A page is entered and removed under its pool's lock; anybody may look up at any time.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>

namespace zel::memory {

struct Page;

constexpr bool isWide = sizeof(void *) == 8;
constexpr unsigned granuleBits = 14, tableBits = isWide ? 18 : 10, addressBits = isWide ? 48 : 32;
constexpr std::size_t granuleBytes = std::size_t{1} << granuleBits, granulesPerTable = std::size_t{1} << tableBits;

struct Granule {
    std::atomic<std::uintptr_t> begins;
    std::atomic<std::uintptr_t> covers;
};
using GranuleTable = std::array<Granule, granulesPerTable>;

extern std::array<std::atomic<GranuleTable *>, std::size_t{1} << (addressBits - granuleBits - tableBits)> granuleTables;

// False when memory is short, or the addresses are beyond what the map covers; then nothing is entered.
bool enterPage(const Page *page, std::size_t bytes);
void removePage(const Page *page, std::size_t bytes);

// The page whose granules contain the address, null when there is none. The address may yet lie behind its end.
inline Page *pageAt(const void *pointer) {
    const auto address = reinterpret_cast<std::uintptr_t>(pointer);
    const std::uintptr_t number = address >> granuleBits >> tableBits;
    if (number >= granuleTables.size()) [[unlikely]]
        return nullptr;
    GranuleTable *table = granuleTables[number].load(std::memory_order_acquire);
    if (!table) [[unlikely]]
        return nullptr;
    const Granule &granule = (*table)[address >> granuleBits & (granulesPerTable - 1)];
    const std::uintptr_t begins = granule.begins.load(std::memory_order_acquire);
    const std::uintptr_t covers = granule.covers.load(std::memory_order_acquire);
    return reinterpret_cast<Page *>(address - begins < granuleBytes ? begins : covers);
}

}  // namespace zel::memory
