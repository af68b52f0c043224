// The invariants of the containers. Each check looks at one container alone, fails the test where it is not whole, and
// tells what it holds, in its order.
#pragma once

#include <gtest/gtest.h>

#include <bit>
#include <cstring>
#include <vector>

#include "containers/cart_wheel.h"
#include "containers/free_index.h"
#include "zel/containers.h"

namespace zel::test {

using Records = std::vector<void *>;

// ---- Lists: neighbours point at each other, and both ends are closed ----

inline std::vector<zelDLLNode *> checkList(zelDLL &list) {
    std::vector<zelDLLNode *> nodes;
    EXPECT_TRUE(!list.headSent.prev && !list.tailSent.next);
    zelDLLNode *before = &list.headSent;
    for (zelDLLNode *at = before->next; at && at->prev == before && at != &list.tailSent; before = at, at = at->next)
        nodes.push_back(at);
    EXPECT_TRUE(before->next == &list.tailSent && list.tailSent.prev == before);
    return nodes;
}

// The first node knows the length and the last node.
inline std::vector<intptr_t> checkPositions(const zelListNode *list) {
    std::vector<intptr_t> data;
    const zelListNode *last = nullptr;
    for (const zelListNode *at = list; at && (at == list || at->prev == last); last = at, at = at->next)
        data.push_back(at->data);
    EXPECT_TRUE(!last || (!last->next && list->prev == last && list->count == data.size()));
    return data;
}

// ---- Hash table ----

inline void checkHash(zelHash &table) {
    size_t records = 0;
    for (int32_t i = 0; i < table.hh_size; ++i) {
        zelHashBucket &bucket = table.hh_buckets[i];
        EXPECT_EQ(bucket.h_curnum, checkList(bucket.h_list).size());
        EXPECT_TRUE(bucket.h_curnum <= bucket.h_hwm && bucket.h_hwm <= bucket.h_hits);
        records += bucket.h_curnum;
    }
    EXPECT_EQ(table.hh_curnum, records);
}

// ---- Red-black tree ----

// Links and colours below `node`; the black height, -1 on error.
inline int checkRBNodes(const zelRBTree &tree, const zelRBNode *node, const zelRBNode *parent, Records &inOrder,
                        Records &preOrder) {
    if (node == &tree.rbtt_nil) return 0;
    const bool isRed = node->rbtn_colour == ZEL_RBTREE_RED;
    if (node->rbtn_parent != parent || (isRed && parent->rbtn_colour == ZEL_RBTREE_RED)) return -1;
    preOrder.push_back(node->rbtn_data);
    const int leftHeight = checkRBNodes(tree, node->rbtn_left, node, inOrder, preOrder);
    inOrder.push_back(node->rbtn_data);
    const int rightHeight = checkRBNodes(tree, node->rbtn_right, node, inOrder, preOrder);
    return leftHeight == rightHeight && leftHeight >= 0 ? leftHeight + !isRed : -1;
}

// Walks go by the same order.
inline Records checkRBTree(zelRBTree &tree) {
    const zelRBNode &nil = tree.rbtt_nil;
    EXPECT_TRUE(nil.rbtn_left == &nil && nil.rbtn_right == &nil && nil.rbtn_parent == &nil);
    EXPECT_TRUE(nil.rbtn_colour == ZEL_RBTREE_BLACK && tree.rbtt_root->rbtn_colour == ZEL_RBTREE_BLACK);
    Records orders[2];
    EXPECT_GE(checkRBNodes(tree, tree.rbtt_root, &nil, orders[0], orders[ZEL_RBTREE_PREORDER]), 0);
    for (const uint32_t flags : {0u, ZEL_RBTREE_PREORDER}) {
        Records walked;
        const auto note = [](zelRBTree *, void *data, void *all) {
            static_cast<Records *>(all)->push_back(data);
            return 0;
        };
        EXPECT_EQ(zelRBTreeWalk(&tree, nullptr, note, 0, flags, &walked), nullptr);
        EXPECT_EQ(walked, orders[flags]);
    }
    EXPECT_EQ(tree.numinodes, orders[0].size());
    EXPECT_EQ(tree.rbtt_inserts - tree.rbtt_removes, tree.numinodes);
    EXPECT_EQ(tree.rbtt_allocs - tree.rbtt_releases, tree.numinodes);
    return orders[0];
}

// ---- Height-balanced trees, and what rests on one ----

template <class Node>
int32_t checkHeights(Node *node, std::vector<Node *> &inOrder) {
    if (!node) return 0;
    const int32_t left = checkHeights(node->left, inOrder);
    inOrder.push_back(node);
    const int32_t right = checkHeights(node->right, inOrder);
    EXPECT_LE(abs(left - right), 1);
    EXPECT_EQ(node->height, 1 + std::max(left, right));
    return node->height;
}

inline std::vector<zelAvlNode *> checkAvl(zelAvlNode *root, uint32_t keyLength) {
    std::vector<zelAvlNode *> nodes;
    checkHeights(root, nodes);
    for (size_t i = 0; i < nodes.size(); ++i) {
        EXPECT_EQ(nodes[i]->keyLen, keyLength);
        EXPECT_TRUE(i == 0 || memcmp(zelAvlKey(nodes[i - 1]), zelAvlKey(nodes[i]), keyLength) < 0);
    }
    return nodes;
}

// Ranges ascend and do not touch, and the tree finds the ranges of the list.
inline std::vector<zelFreeIndexRange *> checkFreeIndex(zelFreeIndexList &list) {
    std::vector<zelFreeIndexRange *> ranges, inTree;
    uint32_t free = 0;
    for (zelDLLNode *node : checkList(list.free_ranges)) {
        auto *range = reinterpret_cast<zelFreeIndexRange *>(node);
        EXPECT_TRUE(list.free_min <= range->low && range->low <= range->high && range->high <= list.free_max);
        EXPECT_TRUE(ranges.empty() || uint64_t{ranges.back()->high} + 1 < range->low);
        free += range->high - range->low + 1;
        ranges.push_back(range);
    }
    checkHeights(list.free_root, inTree);
    EXPECT_EQ(inTree, ranges);
    EXPECT_EQ(list.free_used + free, list.free_total);
    return ranges;
}

// ---- Cart wheel ----

struct WheelContents {
    std::vector<Records> due;  // by the ticks until they fire, from the next one on
    size_t free = 0;
};

// Buckets are rings whose timers know them; an empty one may be marked, a full one must be.
inline WheelContents checkWheel(const zelcwTimerCB &wheel) {
    WheelContents contents;
    for (uint32_t tick = 0; tick < wheel.tmrNumBuckets; ++tick) {
        const uint32_t i = (wheel.cursor + tick) & (wheel.tmrNumBuckets - 1);
        const auto &bucket = wheel.buckets[i];
        Records &timers = contents.due.emplace_back();
        const zelcwTimer *last = &bucket.ends;
        for (zelcwTimer *at = bucket.first(); at != &bucket.ends && at->prev == last; last = at, at = at->next) {
            EXPECT_EQ(at->bucket, &bucket);
            timers.push_back(at);
        }
        EXPECT_TRUE(last->next == &bucket.ends && bucket.last() == last);
        EXPECT_TRUE(timers.empty() || (wheel.mayHold[i / 64] >> i % 64 & 1));
    }
    for (const zelcwTimer *at = wheel.freeList; at; at = at->next, ++contents.free)
        EXPECT_TRUE(!at->prev && !at->bucket);
    return contents;
}

// ---- Table of large keys: the index ascends, and names exactly the slots in use ----

inline std::vector<const zelLargeKeyElem *> checkLargeKeys(const zelLargeKeyHead &head) {
    std::vector<const zelLargeKeyElem *> entries;
    for (int32_t position = 0; position < head.numElems; ++position) {
        const int32_t slot = head.index[position];
        const zelLargeKeyElem &entry = head.elemInfo[slot];
        EXPECT_TRUE(entry.position == position && entry.refCount > 0);
        EXPECT_TRUE(head.slotBitmap[slot / 32] & 0x80000000u >> slot % 32);
        EXPECT_TRUE(entries.empty() || zelBitmapCompare(entries.back()->key, entry.key, head.keySize) < 0);
        entries.push_back(&entry);
    }
    int used = 0;
    for (int32_t word = 0; word <= head.maxElems / 32; ++word) used += std::popcount(head.slotBitmap[word]);
    EXPECT_EQ(head.numElems, used);
    const int32_t free = zelBitmapGetNextUnset(head.slotBitmap, static_cast<uint32_t>(head.maxElems), -1);
    EXPECT_TRUE(free == -1 || head.lowestFree <= free);
    return entries;
}

// ---- Radix tree ----

// A sub-tree: parent links, growing bits, masks, forks with two children, and entries that know their node and lie
// under every prefix above them. How many nodes it has.
inline uint32_t checkRadixNodes(const zelRadix &tree, uint32_t number, uint32_t parent) {
    if (!number) return 0;
    const zelRadixNode *node = zelRadixNodeAt(&tree, number), *above = zelRadixNodeAt(&tree, parent);
    EXPECT_EQ(node->rtn_parent, parent);
    EXPECT_EQ(node->rtn_mask, 0x80 >> (node->rtn_bit % 8));
    EXPECT_TRUE(!above || node->rtn_bit > above->rtn_bit);
    EXPECT_TRUE(node->rtn_entry || (node->rtn_left && node->rtn_right && !node->rtn_flags));
    if (node->rtn_entry) {
        EXPECT_EQ(node->rtn_entry->rtn, node);
        for (uint32_t below = number; above; below = zelRadixNodeAt(&tree, below)->rtn_parent) {
            const bool isSet = node->rtn_entry->rth_key[above->rtn_bit / 8] & above->rtn_mask;
            EXPECT_EQ(below == above->rtn_right, isSet);
            above = zelRadixNodeAt(&tree, above->rtn_parent);
        }
    }
    return 1 + checkRadixNodes(tree, node->rtn_left, number) + checkRadixNodes(tree, node->rtn_right, number);
}

// Every number ever given out is a node of the tree, or unused.
inline void checkRadix(const zelRadix &tree) {
    EXPECT_EQ(checkRadixNodes(tree, tree.rtt_root, 0), tree.rtt_nodes);
    uint32_t unused = 0;
    for (uint32_t number = tree.rtt_spare; number && unused < tree.rtt_fresh; ++unused)
        number = zelRadixNodeAt(&tree, number)->rtn_parent;
    EXPECT_EQ(1 + tree.rtt_nodes + unused, tree.rtt_fresh);
}

}  // namespace zel::test
