// The invariants of a radix tree.
#pragma once

#include <gtest/gtest.h>

#include "zel/containers.h"

namespace zel::test {

// Checks a sub-tree and counts its nodes: parent links, growing bits, masks, forks with two children, and entries that
// know their node and lie under every prefix above them.
inline uint32_t checkRadixNodes(const zelRadix *tree, uint32_t number, uint32_t parent) {
    if (!number) return 0;
    const zelRadixNode *node = zelRadixNodeAt(tree, number), *above = zelRadixNodeAt(tree, parent);
    EXPECT_EQ(node->rtn_parent, parent);
    EXPECT_EQ(node->rtn_mask, 0x80 >> (node->rtn_bit % 8));
    EXPECT_TRUE(!above || node->rtn_bit > above->rtn_bit);
    EXPECT_TRUE(node->rtn_entry || (node->rtn_left && node->rtn_right && !node->rtn_flags));
    if (node->rtn_entry) {
        EXPECT_EQ(node->rtn_entry->rtn, node);
        for (uint32_t below = number; above; below = zelRadixNodeAt(tree, below)->rtn_parent) {
            const bool isSet = node->rtn_entry->rth_key[above->rtn_bit / 8] & above->rtn_mask;
            EXPECT_EQ(below == above->rtn_right, isSet);
            above = zelRadixNodeAt(tree, above->rtn_parent);
        }
    }
    return 1 + checkRadixNodes(tree, node->rtn_left, number) + checkRadixNodes(tree, node->rtn_right, number);
}

// The whole tree: every number ever given out is a node of it, or unused.
inline void checkRadixTree(const zelRadix *tree) {
    EXPECT_EQ(checkRadixNodes(tree, tree->rtt_root, 0), tree->rtt_nodes);
    uint32_t unused = 0;
    for (uint32_t number = tree->rtt_spare; number && unused < tree->rtt_fresh; ++unused)
        number = zelRadixNodeAt(tree, number)->rtn_parent;
    EXPECT_EQ(1 + tree->rtt_nodes + unused, tree->rtt_fresh);
}

}  // namespace zel::test
