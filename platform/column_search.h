// Searches in columns: many entries are compared with a query at a time, with the widest vectors that the processor
// has.
//
// Entries stand in blocks of 16. An entry asks some 32-bit words of the query: it passes a word when the bits that its
// mask selects equal its value. The entry of a flow asks two ports besides, and may turn its answer to a word around; a
// port passes when it is at most `span` behind `low`, counted around the end of the 16 bits. The columns follow each
// other without gaps, in host byte order and at any alignment:
//
//     for each word   masks (32 bits an entry), values (32 bits an entry)
//     for a flow      for each port lows and spans (16 bits an entry each), for each word a bit an entry: turned around
//     actions         8 bits an entry, and 8 for when none passes; no search reads them
//
// The caller has seen that all bytes of the columns may be read; nothing else about them is believed. Lanes of the last
// block that hold no entry ask of their first word what no word gives: mask 0 and value 1.
#pragma once

#include <cstddef>
#include <cstdint>

namespace zel::platform {

constexpr std::size_t columnLanes = 16;

struct ColumnQuery {
    std::uint32_t words[4];
    std::uint16_t ports[2];
};

// Where the columns begin.
struct ColumnLayout {
    std::size_t words;
    bool isFlow;
    std::size_t blocks;
    constexpr std::size_t wordColumn() const { return blocks * columnLanes * sizeof(std::uint32_t); }
    constexpr std::size_t portColumn() const { return blocks * columnLanes * sizeof(std::uint16_t); }
    constexpr std::size_t masks(std::size_t word) const { return 2 * word * wordColumn(); }
    constexpr std::size_t values(std::size_t word) const { return masks(word) + wordColumn(); }
    constexpr std::size_t lows(std::size_t port) const { return masks(words) + 2 * port * portColumn(); }
    constexpr std::size_t spans(std::size_t port) const { return lows(port) + portColumn(); }
    constexpr std::size_t turned(std::size_t word) const { return lows(2) + word * blocks * columnLanes / 8; }
    constexpr std::size_t actions() const { return isFlow ? turned(words) : masks(words); }
    constexpr std::size_t bytes() const { return actions() + blocks * columnLanes + 1; }
};

// The first entry that passes everything it asks, blocks * columnLanes when none does.
using ColumnSearch = std::size_t (*)(const std::uint8_t *columns, std::size_t blocks, const ColumnQuery &query);

struct ColumnSearches {
    const char *name;
    ColumnSearch twoWords, fourWords, flow;  // a flow has two words
};

// The fastest searches of this processor, good from the first constructor on.
extern const ColumnSearches *columnSearches;
// All that run here, the slowest first; null behind the last.
const ColumnSearches *columnSearchesAt(std::size_t index);

}  // namespace zel::platform
