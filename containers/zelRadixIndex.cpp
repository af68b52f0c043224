// The side index of the radix tree: for every value of the first `bits` key bits, the number of the node where a
// look-up of at least as many bits begins.
//
// That is the highest of the nodes that stand for these bits and maybe more; where there is none, the longest prefix
// that covers them all, which then is the answer to any best match here; else 0. So each slot changes only with a node
// or entry on its own way, and a short prefix changes the slots below it that named the next shorter one.
//
// Look-ups see an index from the moment it is whole until before it is changed as a whole.
#include <cstring>

#include "containers/zelRadixTree.h"

namespace zel::containers {
namespace {

constexpr std::uint32_t fewestBits = 16, mostBits = 24;
constexpr std::uint32_t bitsByItself = 16;
constexpr std::uint32_t nodesWhenLarge = 32768;

struct Index {
    std::uint32_t *slots;
    std::uint32_t bits;
};

Index indexOf(const zelRadix *tree) {
    return {tree->rtt_index, tree->rtt_index_bits};
}

// The first slot of a prefix shorter than the index, read no further than the prefix.
std::uint32_t firstSlot(const std::uint8_t *key, std::uint32_t bit, std::uint32_t indexBits) {
    std::uint32_t bits = 0;
    for (std::uint32_t byte = 0; byte < 3; ++byte) bits = bits << 8 | (byte * 8 < bit ? key[byte] : 0u);
    return bit == 0 ? 0 : (bits & ~(0xffffffu >> bit)) >> (24 - indexBits);
}

void replaceBelow(Index index, const zelRadixNode *node, const std::uint8_t *key, std::uint32_t from,
                  std::uint32_t to) {
    std::uint32_t *slot = index.slots + firstSlot(key, node->rtn_bit, index.bits);
    const std::uint32_t *end = slot + (std::size_t{1} << (index.bits - node->rtn_bit));
    for (; slot < end; ++slot)
        if (*slot == from) *slot = to;
}

bool isLong(Index index, const zelRadixNode *node) {
    return node->rtn_bit >= index.bits;
}

void enter(Index index, const zelRadix *tree, std::uint32_t number, const std::uint8_t *key) {
    const zelRadixNode *node = at(tree, number);
    if (!isLong(index, node)) {
        if (node->rtn_entry) replaceBelow(index, node, key, numberAbove(tree, node), number);
        return;
    }
    std::uint32_t &slot = index.slots[slotOf(key, index.bits)];
    const zelRadixNode *there = zelRadixNodeAt(tree, slot);
    if (!there || !isLong(index, there) || there->rtn_bit > node->rtn_bit) slot = number;
}

// The tree has no index as yet.
void fill(Index index, zelRadix *tree) {
    memset(index.slots, 0, sizeof(std::uint32_t) << index.bits);
    zelRadixNode *node = zelRadixNodeAt(tree, tree->rtt_root);
    while (node) {
        enter(index, tree, numberOf(tree, node), keyOf(withEntry(tree, node)));
        node = isLong(index, node) ? nodeBehind(tree, node) : nextNode(tree, node);
    }
    tree->rtt_index_bits = static_cast<std::uint8_t>(index.bits);
    publish(tree->rtt_index, index.slots);
}

bool buildIndex(zelRadix *tree, std::uint32_t bits) {
    auto *slots = static_cast<std::uint32_t *>(tree->rtt_alloc(sizeof(std::uint32_t) << bits));
    if (!slots) return false;
    dropIndex(tree);
    fill({slots, bits}, tree);
    return true;
}

}  // namespace

void indexNode(zelRadix *tree, std::uint32_t number, const std::uint8_t *key) {
    if (tree->rtt_index) enter(indexOf(tree), tree, number, key);
}

void unindexEntry(zelRadix *tree, std::uint32_t number, const std::uint8_t *key) {
    if (!tree->rtt_index) return;
    const zelRadixNode *node = at(tree, number);
    if (!isLong(indexOf(tree), node)) replaceBelow(indexOf(tree), node, key, number, numberAbove(tree, node));
}

void unindexNode(zelRadix *tree, std::uint32_t number, std::uint32_t heir, const std::uint8_t *key) {
    if (!tree->rtt_index) return;
    const zelRadixNode *node = at(tree, number);
    if (!isLong(indexOf(tree), node)) return;
    std::uint32_t &slot = tree->rtt_index[slotOf(key, tree->rtt_index_bits)];
    if (slot == number) slot = heir ? heir : numberAbove(tree, node);
}

void indexWhenLarge(zelRadix *tree) {
    if (tree->rtt_nodes < nodesWhenLarge || tree->rtt_index || tree->rtt_index_chosen) return;
    if (tree->rtt_alloc == zelRadixMalloc) buildIndex(tree, bitsByItself);
}

void dropIndex(zelRadix *tree) {
    std::uint32_t *slots = tree->rtt_index;
    publish(tree->rtt_index, nullptr);
    if (slots) tree->rtt_free(slots);
}

void refillIndex(zelRadix *tree) {
    const Index index = indexOf(tree);
    if (!index.slots) return;
    publish(tree->rtt_index, nullptr);
    fill(index, tree);
}

}  // namespace zel::containers

using namespace zel::containers;

int zelRadixSetIndex(zelRadix *tree, uint32_t bits) {
    if (!isTree(tree)) return -1;
    if (bits != 0 && (bits < fewestBits || bits > mostBits)) return -1;
    if (bits == 0)
        dropIndex(tree);
    else if (!buildIndex(tree, bits))
        return -1;
    tree->rtt_index_chosen = 1;
    return 0;
}
