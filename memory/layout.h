// How a page is cut into chunks.
//
// A slot is the 8-byte header and the data, rounded up to whole words; how many slots a page holds follows from its
// published size of 16562 bytes for each 16384 of a chunk. On the host slots stand further apart, so that data is
// aligned, and the page is as much larger. The word behind the data, the trailer, then lies in the gap; where slots
// leave no gap it is the next slot's marker. That is why a trailer may hold either marker, and why it is written only
// when the page is cut.
#pragma once

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace zel::memory {

constexpr std::uint32_t allocatedMarker = 0xcef, unusedMarker = 0xdca;
constexpr std::uint32_t chunkSizeLimit = 65536, mostChunks = 4096;
constexpr std::uint32_t pageUnit = 16384, pageUnitBytes = pageUnit + 178, pageOverhead = 32;
constexpr std::uint32_t headerBytes = 8, wordBytes = 4, alignment = 2 * sizeof(void *);

constexpr std::uint32_t roundUp(std::uint32_t value, std::uint32_t to) {
    return (value + to - 1) / to * to;
}

constexpr std::uint32_t pageBytes(std::uint32_t chunkSize) {
    return pageUnitBytes * std::max(1u, roundUp(chunkSize, pageUnit) / pageUnit);
}
constexpr std::uint32_t slotBytes(std::uint32_t chunkSize) {
    return (chunkSize + 11) / wordBytes * wordBytes;
}
constexpr std::uint32_t chunksPerPage(std::uint32_t chunkSize) {
    return (pageBytes(chunkSize) - pageOverhead) / slotBytes(chunkSize);
}
static_assert(pageBytes(16384) == 16562 && pageBytes(16385) == 33124 && chunksPerPage(0) < mostChunks);

// From a header to the trailer. A free chunk's first data word is a link, so there is one even in a chunk of size 0.
constexpr std::uint32_t trailerOffset(std::uint32_t chunkSize) {
    return headerBytes + std::max(wordBytes, roundUp(chunkSize, wordBytes));
}
// From one header to the next.
constexpr std::uint32_t stride(std::uint32_t chunkSize) {
    return roundUp(trailerOffset(chunkSize), alignment);
}

// A header: the marker, then a word of index (12 bits), chunk size (16) and tag (4). It is read and written as the one
// 64-bit word that the two are in memory.
constexpr bool isMarkerLow = std::endian::native == std::endian::little;
constexpr unsigned tagShift = isMarkerLow ? 32 : 0, sizeShift = tagShift + 4, indexShift = tagShift + 20;

constexpr std::uint64_t makeHeader(std::uint32_t marker, std::uint32_t index, std::uint32_t chunkSize) {
    return std::uint64_t{marker} << (isMarkerLow ? 0 : 32) | std::uint64_t{index} << indexShift |
           std::uint64_t{chunkSize} << sizeShift;
}
constexpr std::uint64_t tagMask = std::uint64_t{0xf} << tagShift, indexMask = std::uint64_t{0xfff} << indexShift;

// What turns the header of a free chunk into that of an allocated one, and back.
constexpr std::uint64_t freeToUsed = makeHeader(allocatedMarker, 0, 0) - makeHeader(unusedMarker, 0, 0);

constexpr std::uint32_t markerOf(std::uint64_t header) {
    return static_cast<std::uint32_t>(header >> (isMarkerLow ? 0 : 32));
}
constexpr std::uint32_t indexOf(std::uint64_t header) {
    return static_cast<std::uint32_t>((header & indexMask) >> indexShift);
}
constexpr std::uint32_t sizeOf(std::uint64_t header) {
    return static_cast<std::uint32_t>(header >> sizeShift & 0xffff);
}

// Words of a page may be asked for at any address.
template <class Word>
Word load(const std::byte *at) {
    Word word;
    std::memcpy(&word, at, sizeof word);
    return word;
}
template <class Word>
void store(std::byte *at, Word word) {
    std::memcpy(at, &word, sizeof word);
}

}  // namespace zel::memory
