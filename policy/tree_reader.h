// Look-ups in a radix tree of the policy segment that believe nothing they read there: every node, entry and key must
// lie in the segment, and no walk is longer than a path can be. In a whole tree they answer what zelRadixGetExact and
// zelRadixGetBest do.
#pragma once

#include <cstdint>

#include "policy/tables.h"

namespace zel::policy {

inline const zelRadixNode *nodeAt(const zelRadix &tree, std::uint32_t number) {
    if (number == 0) return nullptr;
    const auto slabs = reinterpret_cast<std::uintptr_t>(readOnce(tree.rtt_slabs));
    const auto *slab = believed<zelRadixNode *>(slabs + number / ZEL_RADIX_SLAB * sizeof(zelRadixNode *));
    if (slab == nullptr) return nullptr;
    const auto nodes = reinterpret_cast<std::uintptr_t>(readOnce(*slab));
    return believed<zelRadixNode>(nodes + number % ZEL_RADIX_SLAB * sizeof(zelRadixNode));
}

// The node's record of type T, which begins with a zelRadixEntry; null also for a node that only forks.
template <class T>
const T *entryAt(const zelRadixNode &node) {
    return believed<T>(reinterpret_cast<std::uintptr_t>(readOnce(node.rtn_entry)));
}

// The child on the way to a key, 0 where the way ends. `bit` is the node's, and within the key.
inline std::uint32_t childOnTheWay(const zelRadixNode &node, std::uint32_t bit, const std::uint8_t *key) {
    return key[bit >> 3] & (0x80u >> (bit & 7)) ? readOnce(node.rtn_right) : readOnce(node.rtn_left);
}

// The node of exactly this prefix that is not marked deleted. Whether its key agrees is for the caller to see: he knows
// where the keys of these entries lie.
inline const zelRadixNode *exactNode(const zelRadix &tree, const std::uint8_t *key, std::uint32_t bits) {
    const zelRadixNode *node = nodeAt(tree, readOnce(tree.rtt_root));
    std::uint32_t least = 0;  // bits grow on every way down, so that links that form a loop end here
    while (node != nullptr) {
        const std::uint32_t bit = readOnce(node->rtn_bit);
        if (bit < least) return nullptr;
        if (bit >= bits) return bit == bits && !(node->rtn_flags & ZEL_RADIX_DELETED) ? node : nullptr;
        least = bit + 1;
        node = nodeAt(tree, childOnTheWay(*node, bit, key));
    }
    return nullptr;
}

}  // namespace zel::policy
