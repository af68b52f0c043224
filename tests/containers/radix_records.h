// Entries for tests of the radix tree, and the check of its invariants. Keys are also written as text of their bits:
// the order of these texts is the order of the tree, a prefix before what it covers.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "zel/containers.h"

namespace zel::test {

// The key lies in a block of exactly its size, so that reading one byte too many is seen by the sanitizers.
struct RadixRecord {
    zelRadixEntry entry{};
    std::unique_ptr<uint8_t[]> key;
    uint32_t bits = 0;
    std::string text;
};

inline std::unique_ptr<RadixRecord> radixRecord(const std::vector<uint8_t> &bytes, uint32_t bits) {
    auto record = std::make_unique<RadixRecord>();
    const size_t size = (bits + 7) / 8;
    record->key = std::make_unique<uint8_t[]>(size);
    std::copy_n(bytes.begin(), size, record->key.get());
    record->bits = bits;
    for (uint32_t i = 0; i < bits; ++i) record->text += bytes[i / 8] & (0x80 >> (i % 8)) ? '1' : '0';
    record->entry.rth_addr = record->key.get();
    return record;
}

// Checks a sub-tree of RadixRecords and counts its nodes: parent links, growing bits, masks, forks with two children,
// and entries that know their node and lie under every prefix above them.
inline uint32_t checkRadixNodes(const zelRadix *tree, uint32_t number, uint32_t parent) {
    if (!number) return 0;
    const zelRadixNode *node = zelRadixNodeAt(tree, number), *above = zelRadixNodeAt(tree, parent);
    EXPECT_EQ(node->rtn_parent, parent);
    EXPECT_EQ(node->rtn_mask, 0x80 >> (node->rtn_bit % 8));
    EXPECT_TRUE(!above || node->rtn_bit > above->rtn_bit);
    EXPECT_TRUE(node->rtn_entry || (node->rtn_left && node->rtn_right));
    if (node->rtn_entry) {
        const auto *record = reinterpret_cast<const RadixRecord *>(node->rtn_entry);
        EXPECT_EQ(node->rtn_entry->rtn, node);
        EXPECT_EQ(record->bits, node->rtn_bit);
        for (uint32_t below = number; above; below = zelRadixNodeAt(tree, below)->rtn_parent) {
            EXPECT_EQ(below == above->rtn_right, record->text[above->rtn_bit] == '1');
            above = zelRadixNodeAt(tree, above->rtn_parent);
        }
    }
    return 1 + checkRadixNodes(tree, node->rtn_left, number) + checkRadixNodes(tree, node->rtn_right, number);
}

inline void checkRadixTree(const zelRadix *tree) {
    ASSERT_EQ(checkRadixNodes(tree, tree->rtt_root, 0), tree->rtt_nodes);
}

inline std::vector<zelRadixEntry *> walked(zelRadix *tree) {
    std::vector<zelRadixEntry *> entries;
    const auto note = [](zelRadixEntry *entry, void *all) {
        return static_cast<std::vector<zelRadixEntry *> *>(all)->push_back(entry), 0;
    };
    zelRadixWalk(tree, note, &entries);
    return entries;
}

}  // namespace zel::test
