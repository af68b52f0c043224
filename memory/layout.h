// How a page is cut into chunks.
//
// A slot is the 8-byte header and the data, rounded up to whole words; how many slots a page holds follows from its
// published size of 16562 bytes for each 16384 of a chunk. On the host slots stand further apart, so that data is
// aligned, and the page is as much larger. The word behind the data, the trailer, then lies in the gap; where slots
// leave no gap it is the next slot's marker. That is why a trailer may hold either marker, and why it is written only
// when the page is cut.
#pragma once

#include <algorithm>
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

// The second word of a header: index 12 bits, chunk size 16, tag 4.
constexpr std::uint32_t chunkWord(std::uint32_t index, std::uint32_t chunkSize, std::uint32_t tag) {
    return index << 20 | chunkSize << 4 | tag;
}
constexpr std::uint32_t indexOf(std::uint32_t word) {
    return word >> 20;
}
constexpr std::uint32_t sizeOf(std::uint32_t word) {
    return word >> 4 & 0xffff;
}

// Words of a page may be asked for at any address.
inline std::uint32_t load(const std::byte *at) {
    std::uint32_t word;
    std::memcpy(&word, at, sizeof word);
    return word;
}
inline void store(std::byte *at, std::uint32_t word) {
    std::memcpy(at, &word, sizeof word);
}

}  // namespace zel::memory
