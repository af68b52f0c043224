// What the sources of the radix tree share: nodes and their numbers, keys, and the steps of a walk.
#pragma once

#include <atomic>
#include <cstdint>
#include <type_traits>

#include "base/assertion.h"
#include "zel/containers.h"

namespace zel::containers {

inline constexpr char radixSource[] = "zelRadix";

inline bool isTree(const zelRadix *tree, const char *source = radixSource, int line = __builtin_LINE()) {
    return asserted(tree, "rtt", source, line) &&
           asserted(tree->rtt_magic == ZEL_RADIX_MAGIC, "rtt->rtt_magic == 0xdeadbeef", source, line);
}

// A null argument is a miss in any case; it is reported while the tree is strict.
inline bool isGiven(const zelRadix *tree, const void *argument, const char *text, const char *source = radixSource,
                    int line = __builtin_LINE()) {
    return argument || (tree->rtt_strict && asserted(false, text, source, line));
}

inline bool canVisit(zelRadixVisitFn visit, const char *source = radixSource, int line = __builtin_LINE()) {
    return asserted(visit, "callback", source, line);
}

// The one store that shows look-ups what was written before it, also if this process dies right behind it; what follows
// it in the program is written later.
template <typename T>
void publish(T &place, std::type_identity_t<T> value) {
    std::atomic_signal_fence(std::memory_order_seq_cst);
    __atomic_store_n(&place, value, __ATOMIC_RELEASE);
    std::atomic_signal_fence(std::memory_order_seq_cst);
}

// ---- Keys -----------------------------------------------------------------------------------------------------------

// Whether two keys agree in their first `bits` bits. No byte behind those is read, here and below.
bool agree(const std::uint8_t *a, const std::uint8_t *b, std::uint32_t bits);
// The first bit in which two keys differ, `limit` when they agree up to there.
std::uint32_t firstDifference(const std::uint8_t *a, const std::uint8_t *b, std::uint32_t limit);

// ---- Nodes ----------------------------------------------------------------------------------------------------------

// Numbers of nodes are never 0 where a node is asked for.
inline zelRadixNode *at(const zelRadix *tree, std::uint32_t number) {
    return &tree->rtt_slabs[number / ZEL_RADIX_SLAB][number % ZEL_RADIX_SLAB];
}

inline bool isMarked(const zelRadixNode *node) {
    return node->rtn_flags & ZEL_RADIX_DELETED;
}

inline bool isLive(const zelRadixNode *node) {
    return node->rtn_entry && !isMarked(node);
}

inline const std::uint8_t *keyOf(const zelRadixNode *node) {
    return node->rtn_entry->rth_key;
}

inline bool goesRight(const zelRadixNode *node, const std::uint8_t *key) {
    return key[node->rtn_bit >> 3] & node->rtn_mask;
}

// Both children are fetched while the key bit between them is found. (Node 0 is in no tree, but in memory.)
inline std::uint32_t childToward(const zelRadix *tree, const zelRadixNode *node, const std::uint8_t *key) {
    __builtin_prefetch(at(tree, node->rtn_left));
    __builtin_prefetch(at(tree, node->rtn_right));
    return goesRight(node, key) ? node->rtn_right : node->rtn_left;
}

inline std::uint32_t anyChild(const zelRadixNode *node) {
    return node->rtn_left ? node->rtn_left : node->rtn_right;
}

// The node or one below it that has an entry, whose key begins with all the bits the node stands for.
const zelRadixNode *withEntry(const zelRadix *tree, const zelRadixNode *node);
// The nearest ancestor with an entry, 0 when none has.
std::uint32_t numberAbove(const zelRadix *tree, const zelRadixNode *node);
// The number of a node that is known by its address.
std::uint32_t numberOf(const zelRadix *tree, const zelRadixNode *node);

// 0 when there is no memory.
std::uint32_t makeNode(zelRadix *tree, std::uint32_t bit);
void dropNode(zelRadix *tree, std::uint32_t number);
// Gives back all blocks but the first `kept`; no node may be in use.
void releaseSlabs(zelRadix *tree, std::uint32_t kept);

// ---- Order: a node, then its left, then its right sub-tree; null at the end -----------------------------------------

zelRadixNode *nextNode(const zelRadix *tree, const zelRadixNode *node);
// The first node behind the whole sub-tree of this one.
zelRadixNode *nodeBehind(const zelRadix *tree, const zelRadixNode *node);

// ---- Side index: zelRadixIndex.cpp ----------------------------------------------------------------------------------

inline std::uint32_t slotOf(const std::uint8_t *key, std::uint32_t indexBits) {
    const std::uint32_t two = static_cast<std::uint32_t>(key[0]) << 8 | key[1];
    return indexBits == 16 ? two : (two << 8 | key[2]) >> (24 - indexBits);
}

inline bool isIndexed(const zelRadix *tree, std::uint32_t bitlen) {
    return tree->rtt_index && bitlen >= tree->rtt_index_bits;
}

// Builds the index of a tree that has become large, if it is one that has it by itself.
void indexWhenLarge(zelRadix *tree);
void dropIndex(zelRadix *tree);
// Fills the index anew, in the memory that it has.
void refillIndex(zelRadix *tree);
// The node was linked in, or took an entry; `key` leads to it.
void indexNode(zelRadix *tree, std::uint32_t number, const std::uint8_t *key);
// The node lost its entry: still in place.
void unindexEntry(zelRadix *tree, std::uint32_t number, const std::uint8_t *key);
// The node is about to go, and the heir, or nothing, to take its place.
void unindexNode(zelRadix *tree, std::uint32_t number, std::uint32_t heir, const std::uint8_t *key);

// ---- Versions: zelRadical.cpp ---------------------------------------------------------------------------------------

// Takes the entry out of its node and of the change list, and the node out of the tree if nothing needs it.
void takeOut(zelRadix *tree, zelRadixEntry *entry);
// The entry changed; noted while versions are on.
void noteChange(zelRadix *tree, zelRadixEntry *entry);
void forgetChange(zelRadix *tree, zelRadixEntry *entry);
// A marked entry that is out of the tree goes to the owner.
void handOver(zelRadix *tree, zelRadixEntry *entry);
// Notes anew which versions entries have; of the list of changes only the marked entries remain.
void restartChanges(zelRadix *tree);
// What is below a new node is below it.
void inheritNewest(zelRadix *tree, std::uint32_t number, std::uint32_t child);
bool isLater(std::uint32_t version, std::uint32_t than);
// Whether the sub-tree may hold changes after `since`.
bool mayHoldLater(const zelRadix *tree, std::uint32_t number, std::uint32_t since);

}  // namespace zel::containers
