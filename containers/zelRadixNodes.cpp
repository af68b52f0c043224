// Nodes of the radix tree: their numbers and memory, their order, and the comparison of keys.
//
// Nodes lie in blocks of ZEL_RADIX_SLAB; number n is node n % ZEL_RADIX_SLAB of block n / ZEL_RADIX_SLAB, and number 0
// is none. A table finds the blocks; its second half is for the words of the version walk, a column beside each block,
// which is there only where versions are used. Unused nodes hang on a list through rtn_parent. Every number below
// rtt_fresh lies in a block of the table at any moment, also when the writer dies: blocks enter the table before they
// count, and leave it before they are freed.
#include <bit>
#include <cstring>

#include "containers/zelRadixTree.h"

namespace zel::containers {
namespace {

constexpr std::uint32_t firstRoom = 4;

// The tables are one block: pointers to the blocks of nodes, then to the columns beside them.
bool widenTables(zelRadix *tree) {
    const std::uint32_t room = tree->rtt_slab_room ? 2 * tree->rtt_slab_room : firstRoom;
    auto *tables = static_cast<void **>(tree->rtt_alloc(2 * room * sizeof(void *)));
    if (!tables) return false;
    memset(tables, 0, 2 * room * sizeof(void *));
    auto *slabs = reinterpret_cast<zelRadixNode **>(tables);
    auto *newest = reinterpret_cast<std::uint32_t **>(tables + room);
    for (std::uint32_t i = 0; i < tree->rtt_slab_count; ++i) {
        slabs[i] = tree->rtt_slabs[i];
        newest[i] = tree->rtt_newest[i];
    }
    zelRadixNode **outgrown = tree->rtt_slabs;
    publish(tree->rtt_newest, newest);
    publish(tree->rtt_slabs, slabs);
    publish(tree->rtt_slab_room, room);
    if (outgrown) tree->rtt_free(outgrown);
    return true;
}

bool addSlab(zelRadix *tree) {
    if (tree->rtt_slab_count == tree->rtt_slab_room && !widenTables(tree)) return false;
    auto *slab = static_cast<zelRadixNode *>(tree->rtt_alloc(ZEL_RADIX_SLAB * sizeof(zelRadixNode)));
    if (!slab) return false;
    tree->rtt_slabs[tree->rtt_slab_count] = slab;
    publish(tree->rtt_slab_count, tree->rtt_slab_count + 1);
    return true;
}

std::uint32_t takeNumber(zelRadix *tree) {
    if (const std::uint32_t number = tree->rtt_spare) {
        tree->rtt_spare = at(tree, number)->rtn_parent;
        return number;
    }
    if (tree->rtt_fresh / ZEL_RADIX_SLAB == tree->rtt_slab_count && !addSlab(tree)) return 0;
    return tree->rtt_fresh++;
}

}  // namespace

bool agree(const std::uint8_t *a, const std::uint8_t *b, std::uint32_t bits) {
    return firstDifference(a, b, bits) == bits;
}

std::uint32_t firstDifference(const std::uint8_t *a, const std::uint8_t *b, std::uint32_t limit) {
    std::uint32_t byte = 0;
    for (std::uint64_t x, y; byte + 8 <= limit / 8; byte += 8) {
        memcpy(&x, a + byte, 8);
        memcpy(&y, b + byte, 8);
        if (x != y) break;
    }
    for (; byte * 8 < limit; ++byte) {
        const auto difference = static_cast<std::uint8_t>(a[byte] ^ b[byte]);
        if (!difference) continue;
        const std::uint32_t bit = byte * 8 + static_cast<std::uint32_t>(std::countl_zero(difference));
        return bit < limit ? bit : limit;
    }
    return limit;
}

const zelRadixNode *withEntry(const zelRadix *tree, const zelRadixNode *node) {
    while (!node->rtn_entry) node = at(tree, anyChild(node));
    return node;
}

std::uint32_t numberAbove(const zelRadix *tree, const zelRadixNode *node) {
    std::uint32_t number = node->rtn_parent;
    while (number && !at(tree, number)->rtn_entry) number = at(tree, number)->rtn_parent;
    return number;
}

std::uint32_t numberOf(const zelRadix *tree, const zelRadixNode *node) {
    if (!node->rtn_parent) return tree->rtt_root;
    const zelRadixNode *parent = at(tree, node->rtn_parent);
    return zelRadixNodeAt(tree, parent->rtn_left) == node ? parent->rtn_left : parent->rtn_right;
}

std::uint32_t makeNode(zelRadix *tree, std::uint32_t bit) {
    const std::uint32_t number = takeNumber(tree);
    if (!number) return 0;
    zelRadixNode *node = at(tree, number);
    *node = {};
    node->rtn_bit = static_cast<std::uint16_t>(bit);
    node->rtn_mask = static_cast<std::uint8_t>(0x80u >> (bit & 7));
    if (std::uint32_t *newest = tree->rtt_newest[number / ZEL_RADIX_SLAB]) newest[number % ZEL_RADIX_SLAB] = 0;
    ++tree->rtt_nodes;
    return number;
}

void dropNode(zelRadix *tree, std::uint32_t number) {
    at(tree, number)->rtn_parent = tree->rtt_spare;
    tree->rtt_spare = number;
    if (--tree->rtt_nodes == 0) releaseSlabs(tree, 1);
}

void releaseSlabs(zelRadix *tree, std::uint32_t kept) {
    tree->rtt_spare = 0;
    publish(tree->rtt_fresh, 1);
    for (std::uint32_t i = tree->rtt_slab_count; i-- > 0;) {
        void *newest = tree->rtt_newest[i];
        publish(tree->rtt_newest[i], nullptr);
        if (newest) tree->rtt_free(newest);
        if (i < kept) continue;
        publish(tree->rtt_slab_count, i);
        tree->rtt_free(tree->rtt_slabs[i]);
    }
}

zelRadixNode *nextNode(const zelRadix *tree, const zelRadixNode *node) {
    const std::uint32_t child = anyChild(node);
    return child ? at(tree, child) : nodeBehind(tree, node);
}

zelRadixNode *nodeBehind(const zelRadix *tree, const zelRadixNode *node) {
    while (node->rtn_parent) {
        const zelRadixNode *parent = at(tree, node->rtn_parent);
        if (parent->rtn_right && at(tree, parent->rtn_right) != node) return at(tree, parent->rtn_right);
        node = parent;
    }
    return nullptr;
}

}  // namespace zel::containers
