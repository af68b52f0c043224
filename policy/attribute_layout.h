// Images of AS-path lists and community lists: behind the header one entry after the other, in the order of their
// sequence numbers, then the values of communities.
#pragma once

#include <cstdint>

#include "policy/tables.h"

namespace zel::policy {

struct AspEntry {
    std::uint32_t sequence;
    Link expression;
    std::uint8_t action;
};

// A community as it is kept.
struct Community {
    std::uint16_t high;  // AS number
    std::uint16_t low;
    std::uint32_t value() const { return static_cast<std::uint32_t>(high) << 16 | low; }
};

struct CommEntry {
    static constexpr std::uint8_t standard = 1, expanded = 2;
    std::uint32_t sequence;
    std::uint8_t action;
    std::uint8_t kind;
    std::uint8_t localAs, noAdvertise, noExport;
    std::uint32_t count;   // of values
    std::uint32_t values;  // their distance from the image's begin
    Link expression;
};

inline constexpr std::uint32_t noExportValue = 0xffffff01, noAdvertiseValue = 0xffffff02, localAsValue = 0xffffff03;

// The entries of an image, and how many; 0 when they do not all lie in it.
template <class Entry>
const Entry *entriesOf(const Bytes &image, std::uint32_t &count) {
    count = image ? readOnce(image.header()->entries) : 0;
    const Entry *entries = image ? inside<Entry>(image, sizeof(Image), count) : nullptr;
    if (!entries) count = 0;
    return entries;
}

}  // namespace zel::policy
