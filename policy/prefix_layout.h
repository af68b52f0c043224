// The image of a prefix list: one block that holds a radix tree of prefixes, what its nodes lead to, and the chain of
// entries whose mask is no prefix.
//
// The tree is a zelRadix, and any of its look-ups may be asked. Its nodes lie one behind the other, so that a check
// finds one by its number and needs no pointer: what it reads are numbers and offsets from the image's begin, 0 for
// none, and each is held against a size before it is followed.
//
// Two arrays spare a check most of the way. `nearest` says for every node which prefix stands at it or next above it,
// so nobody climbs over forks. `index` says for every value of some leading bits what a query that begins so comes to:
// the highest of the nodes that stand for these bits and more; where there is none or that one has nothing below it,
// the longest prefix there; or nothing. So it holds for queries of any length: whoever wants a shorter prefix than it
// leads to goes up from there.
#pragma once

#include <bit>

#include "base/wire.h"
#include "policy/tables.h"

namespace zel::policy {

using Offset = std::uint32_t;

// An entry of the list. Its address and mask follow, each as wide as the family's addresses, in network order.
struct PrefixEntry {
    Offset next;  // chain: the next PrefixEntry; tree: the PrefixNode of the next shorter prefix that covers this one
    std::uint16_t extras;  // how many more entries name the same prefix
    std::uint16_t sequence;
    std::atomic<std::uint32_t> hits;
    std::uint8_t ge, le;  // 0: not given
    std::uint8_t action;
    std::uint8_t length;
    Offset extra;  // of the first of them
};

// A prefix that stands in the list more than once has its first entry in the node and the others here, in their order.
struct ExtraCondition {
    std::atomic<std::uint32_t> hits;
    std::uint16_t sequence;
    std::uint8_t action, ge, le;
};

struct PrefixNode {
    zelRadixEntry head;
    std::uint32_t number;  // of its node in the tree
    PrefixEntry entry;
};

struct PrefixImage {
    Image header;
    std::uint32_t width;  // of an address, in bytes
    std::uint32_t prefixes;
    std::uint32_t nodeRoom;  // numbers of nodes are below
    Offset nodes, nearest, index;
    std::uint8_t indexFrom, indexBits;  // the key bits that `index` goes by
    Offset records;                     // the prefixes, one behind the other
    Offset chain;
    zelRadix tree;
};

// Values of the index: 0, the offset of a PrefixNode, or the number of a node, which makes it odd.
inline constexpr std::uint32_t mostIndexBits = 20;
constexpr Offset toNode(std::uint32_t number) {
    return number << 1 | 1;
}
constexpr bool leadsToNode(Offset place) {
    return place & 1;
}
constexpr std::uint32_t nodeOf(Offset place) {
    return place >> 1;
}

inline std::uint32_t widthOf(int family) {
    return family == ZEL_POLICY_IPV4 ? 4 : family == ZEL_POLICY_IPV6 ? 16 : 0;
}
inline Kind prefixKind(int family) {
    return family == ZEL_POLICY_IPV6 ? Kind::prefix6 : Kind::prefix4;
}

// Steps from one record to the next.
constexpr std::size_t strideOf(std::size_t record, std::uint32_t width) {
    return record + 2 * width;
}
inline const std::uint8_t *addressOf(const PrefixEntry &entry) {
    return reinterpret_cast<const std::uint8_t *>(&entry + 1);
}

// Addresses as numbers, the way both sides of the index and of a descent read them.
template <std::uint32_t Width>
struct Key;

template <>
struct Key<4> {
    std::uint32_t word;
    explicit Key(std::uint32_t number) : word(number) {}
    explicit Key(const std::uint8_t *bytes) : word(wire::load<std::uint32_t>(bytes)) {}
    bool bit(std::uint32_t at) const { return word << at >> 31; }
    // `count` bits from the bit `from` on; count is not 0.
    std::uint32_t bits(std::uint32_t from, std::uint32_t count) const { return word << from >> (32 - count); }
    // How many leading bits are the same.
    std::uint32_t common(const std::uint8_t *bytes) const {
        return static_cast<std::uint32_t>(std::countl_zero(word ^ Key(bytes).word));
    }
    bool isUnder(const std::uint8_t *address, const std::uint8_t *mask) const {
        return (word & Key(mask).word) == Key(address).word;
    }
    static bool isZero(const std::uint8_t *bytes) { return Key(bytes).word == 0; }
};

template <>
struct Key<16> {
    std::uint64_t high, low;
    explicit Key(const std::uint8_t *bytes)
        : high(wire::load<std::uint64_t>(bytes)), low(wire::load<std::uint64_t>(bytes + 8)) {}
    bool bit(std::uint32_t at) const { return (at < 64 ? high : low) << (at & 63) >> 63; }
    std::uint32_t bits(std::uint32_t from, std::uint32_t count) const {
        const std::uint64_t top = from == 0 ? high : from < 64 ? high << from | low >> (64 - from) : low << (from - 64);
        return static_cast<std::uint32_t>(top >> (64 - count));
    }
    std::uint32_t common(const std::uint8_t *bytes) const {
        const Key other(bytes);
        return static_cast<std::uint32_t>(high != other.high ? std::countl_zero(high ^ other.high)
                                                             : 64 + std::countl_zero(low ^ other.low));
    }
    bool isUnder(const std::uint8_t *address, const std::uint8_t *mask) const {
        const Key wanted(address), compared(mask);
        return (high & compared.high) == wanted.high && (low & compared.low) == wanted.low;
    }
    static bool isZero(const std::uint8_t *bytes) { return (Key(bytes).high | Key(bytes).low) == 0; }
};

// The length of a mask in bits, 255 when its one bits do not all stand before its zero bits.
inline std::uint8_t lengthOfMask(const std::uint8_t *mask, std::uint32_t width) {
    std::uint32_t length = 0;
    while (length < 8 * width && mask[length / 8] & 0x80u >> length % 8) ++length;
    for (std::uint32_t bit = length; bit < 8 * width; ++bit)
        if (mask[bit / 8] & 0x80u >> bit % 8) return 255;
    return static_cast<std::uint8_t>(length);
}

inline std::uint8_t lengthOfMask(std::uint32_t mask) {
    const auto ones = static_cast<std::uint8_t>(std::countl_one(mask));
    return (std::uint64_t{mask} << ones & UINT32_MAX) == 0 ? ones : std::uint8_t{255};
}

}  // namespace zel::policy
