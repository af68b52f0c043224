// The side index of the radix tree: for every value of the first `bits` key bits, the number of the node where a
// look-up of at least as many bits begins.
//
// That is the highest of the nodes that stand for these bits and maybe more; where there is none, the longest prefix
// that covers them all, which then is the answer to any best match here; else 0. So each slot changes only with a node
// or entry on its own way, and a short prefix changes the slots below it that named the next shorter one.
#include <cstring>

#include "containers/zelRadixTree.h"

namespace zel::containers {
namespace {

constexpr std::uint32_t fewestBits = 16, mostBits = 24;
constexpr std::uint32_t bitsByItself = 16;
constexpr std::uint32_t nodesWhenLarge = 32768;

// The first slot of a prefix shorter than the index, read no further than the prefix.
std::uint32_t firstSlot(const std::uint8_t *key, std::uint32_t bit, std::uint32_t indexBits) {
    std::uint32_t bits = 0;
    for (std::uint32_t byte = 0; byte < 3; ++byte) bits = bits << 8 | (byte * 8 < bit ? key[byte] : 0u);
    return bit == 0 ? 0 : (bits & ~(0xffffffu >> bit)) >> (24 - indexBits);
}

void replaceBelow(zelRadix *tree, const zelRadixNode *node, const std::uint8_t *key, std::uint32_t from,
                  std::uint32_t to) {
    std::uint32_t *slot = tree->rtt_index + firstSlot(key, node->rtn_bit, tree->rtt_index_bits);
    const std::uint32_t *end = slot + (std::size_t{1} << (tree->rtt_index_bits - node->rtn_bit));
    for (; slot < end; ++slot)
        if (*slot == from) *slot = to;
}

bool isLong(const zelRadix *tree, const zelRadixNode *node) {
    return node->rtn_bit >= tree->rtt_index_bits;
}

bool buildIndex(zelRadix *tree, std::uint32_t bits) {
    const std::size_t bytes = sizeof(std::uint32_t) << bits;
    auto *index = static_cast<std::uint32_t *>(tree->rtt_alloc(bytes));
    if (!index) return false;
    memset(index, 0, bytes);
    dropIndex(tree);
    tree->rtt_index = index;
    tree->rtt_index_bits = static_cast<std::uint8_t>(bits);
    zelRadixNode *node = zelRadixNodeAt(tree, tree->rtt_root);
    while (node) {
        indexNode(tree, numberOf(tree, node), keyOf(withEntry(tree, node)));
        node = isLong(tree, node) ? nodeBehind(tree, node) : nextNode(tree, node);
    }
    return true;
}

}  // namespace

void indexNode(zelRadix *tree, std::uint32_t number, const std::uint8_t *key) {
    if (!tree->rtt_index) return;
    const zelRadixNode *node = at(tree, number);
    if (!isLong(tree, node)) {
        if (node->rtn_entry) replaceBelow(tree, node, key, numberAbove(tree, node), number);
        return;
    }
    std::uint32_t &slot = tree->rtt_index[slotOf(key, tree->rtt_index_bits)];
    const zelRadixNode *there = zelRadixNodeAt(tree, slot);
    if (!there || !isLong(tree, there) || there->rtn_bit > node->rtn_bit) slot = number;
}

void unindexEntry(zelRadix *tree, std::uint32_t number, const std::uint8_t *key) {
    if (!tree->rtt_index) return;
    const zelRadixNode *node = at(tree, number);
    if (!isLong(tree, node)) replaceBelow(tree, node, key, number, numberAbove(tree, node));
}

void unindexNode(zelRadix *tree, std::uint32_t number, std::uint32_t heir, const std::uint8_t *key) {
    if (!tree->rtt_index) return;
    const zelRadixNode *node = at(tree, number);
    if (!isLong(tree, node)) return;
    std::uint32_t &slot = tree->rtt_index[slotOf(key, tree->rtt_index_bits)];
    if (slot == number) slot = heir ? heir : numberAbove(tree, node);
}

void indexWhenLarge(zelRadix *tree) {
    if (tree->rtt_nodes < nodesWhenLarge || tree->rtt_index || tree->rtt_index_chosen) return;
    if (tree->rtt_alloc == zelRadixMalloc) buildIndex(tree, bitsByItself);
}

void dropIndex(zelRadix *tree) {
    std::uint32_t *index = tree->rtt_index;
    tree->rtt_index = nullptr;
    if (index) tree->rtt_free(index);
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
