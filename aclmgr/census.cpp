// Everything that the roots of the segment lead to.
#include "aclmgr/census.h"

#include <algorithm>
#include <cstring>

#include "aclmgr/draft.h"
#include "policy/tree_reader.h"

namespace zel::aclmgr {
namespace {

template <class T>
const T *believed(const void *address, std::size_t bytes = sizeof(T)) {
    return static_cast<const T *>(believedBlock(reinterpret_cast<std::uintptr_t>(address), bytes, alignof(T)));
}

// ---- Trees ----------------------------------------------------------------------------------------------------------

bool isListOf(const ListNode *list, Kind kind) {
    return list != nullptr && list->magic == ListNode::validMagic && list->kind == kind &&
           list->name[policy::nameLength] == 0 && list->entry.rth_addr == reinterpret_cast<const uint8_t *>(list->name);
}

// No tree of names has versions or a side index.
bool isPlain(const zelRadix &tree) {
    return tree.rtt_magic == ZEL_RADIX_MAGIC && tree.rtt_maxbits == policy::nameBits && tree.rtt_versioning == 0 &&
           tree.rtt_index == nullptr;
}

bool hasNoVersions(const zelRadix &tree) {
    const std::size_t count = tree.rtt_slab_count;
    if (believed<void *>(tree.rtt_newest, count * sizeof(void *)) == nullptr) return false;
    return std::all_of(tree.rtt_newest, tree.rtt_newest + count, [](const auto *newest) { return newest == nullptr; });
}

// The blocks of nodes and the tables that lead to them can be read.
bool hasNodes(const zelRadix &tree) {
    const std::size_t count = tree.rtt_slab_count;
    if (!isPlain(tree) || tree.rtt_fresh == 0 || tree.rtt_slab_room < count) return false;
    if (count == 0) return tree.rtt_fresh == 1;
    if (tree.rtt_fresh > count * ZEL_RADIX_SLAB) return false;
    if (believed<void *>(tree.rtt_slabs, 2 * std::size_t{tree.rtt_slab_room} * sizeof(void *)) == nullptr) return false;
    return hasNoVersions(tree) && std::all_of(tree.rtt_slabs, tree.rtt_slabs + count, [](const zelRadixNode *slab) {
               return believed<zelRadixNode>(slab, ZEL_RADIX_SLAB * sizeof(zelRadixNode)) != nullptr;
           });
}

struct NameKey {
    std::uint8_t bytes[policy::nameLength] = {};
    explicit NameKey(const char *name) { memcpy(bytes, name, strnlen(name, sizeof bytes)); }
};

// An insertion takes two nodes at most.
bool hasSpares(const zelRadix &tree) {
    const std::uint32_t first = tree.rtt_spare;
    return first == 0 || (first < tree.rtt_fresh && zelRadixNodeAt(&tree, first)->rtn_parent < tree.rtt_fresh);
}

bool isForkWhole(const zelRadixNode &node, std::uint32_t fresh) {
    return node.rtn_bit < policy::nameBits && node.rtn_mask == 0x80u >> (node.rtn_bit & 7) && node.rtn_left != 0 &&
           node.rtn_left < fresh && node.rtn_right != 0 && node.rtn_right < fresh;
}

bool isLeafWhole(const zelRadixNode &node, Kind kind) {
    const auto *list = believed<ListNode>(node.rtn_entry);
    return isListOf(list, kind) && list->entry.rtn == &node && list->entry.rth_key == list->entry.rth_addr &&
           node.rtn_bit == policy::nameBits && (node.rtn_left | node.rtn_right) == 0;
}

// Follows the links of a tree. Prefixes grow longer on every way down, and no more nodes are looked at than there are.
class TreeWalk {
public:
    TreeWalk(const zelRadix &tree, Kind kind) : tree_(tree), kind_(kind) {}

    TreeCensus run() {
        TreeCensus census;
        census.isSound = hasNodes(tree_) && push(tree_.rtt_root, 0, 0);
        while (census.isSound && !waiting_.empty()) {
            const std::uint32_t number = waiting_.back();
            waiting_.pop_back();
            census.isSound = pass(number, census.lists);
        }
        census.isTidy = census.isSound && isTidy_ && tree_.rtt_nodes == seen_;
        return census;
    }

private:
    bool push(std::uint32_t number, std::uint32_t above, std::uint32_t leastBit) {
        if (number == 0) return true;
        if (number >= tree_.rtt_fresh || ++seen_ >= tree_.rtt_fresh) return false;
        const zelRadixNode *node = zelRadixNodeAt(&tree_, number);
        isTidy_ = isTidy_ && node->rtn_parent == above;
        waiting_.push_back(number);
        return node->rtn_bit >= leastBit && node->rtn_bit <= policy::nameBits;
    }

    bool pass(std::uint32_t number, std::vector<ListNode *> &lists) {
        const zelRadixNode *node = zelRadixNodeAt(&tree_, number);
        if (node->rtn_entry == nullptr)
            return node->rtn_left != 0 && node->rtn_right != 0 && push(node->rtn_left, number, node->rtn_bit + 1u) &&
                   push(node->rtn_right, number, node->rtn_bit + 1u);
        auto *list = const_cast<ListNode *>(believed<ListNode>(node->rtn_entry));
        if (!isListOf(list, kind_) || node->rtn_bit != policy::nameBits || (node->rtn_left | node->rtn_right) != 0)
            return false;
        isTidy_ = isTidy_ && list->entry.rtn == node;
        lists.push_back(list);
        return true;
    }

    const zelRadix &tree_;
    const Kind kind_;
    std::vector<std::uint32_t> waiting_;
    std::uint32_t seen_ = 0;
    bool isTidy_ = true;
};

void addBlocks(const zelRadix &tree, std::vector<const void *> &blocks) {
    if (!hasNodes(tree) || tree.rtt_slabs == nullptr) return;
    blocks.push_back(tree.rtt_slabs);
    blocks.insert(blocks.end(), tree.rtt_slabs, tree.rtt_slabs + tree.rtt_slab_count);
}

// ---- Lists ----------------------------------------------------------------------------------------------------------

// The image, or nothing when it is not what the list says; no image is right for a list without entries.
bool countImage(const ListNode &list, Census &census) {
    const Link link = list.image.load();
    if (link == 0) return true;
    const Bytes image = imageOf(list);
    if (!image) return false;
    census.images.push_back(image);
    census.blocks.push_back(image.begin);
    const ListOperations *operations = operationsOf(list.kind);
    return image.header()->entries != 0 &&
           (operations == nullptr || operations->isWhole == nullptr || operations->isWhole(image));
}

}  // namespace

TreeCensus countTree(const zelRadix &tree, Kind kind) {
    return TreeWalk(tree, kind).run();
}

ListNode *findIn(const zelRadix &tree, Kind kind, const char *name) {
    if (name == nullptr || !hasNodes(tree)) return nullptr;
    const NameKey key(name);
    std::uint32_t number = tree.rtt_root, least = 0;
    while (number != 0 && number < tree.rtt_fresh) {
        const zelRadixNode *node = zelRadixNodeAt(&tree, number);
        if (node->rtn_bit < least || node->rtn_bit > policy::nameBits) return nullptr;
        if (node->rtn_bit == policy::nameBits) {
            auto *list = const_cast<ListNode *>(believed<ListNode>(node->rtn_entry));
            return isListOf(list, kind) && memcmp(list->name, key.bytes, sizeof key.bytes) == 0 ? list : nullptr;
        }
        least = node->rtn_bit + 1u;
        number = policy::childOnTheWay(*node, node->rtn_bit, key.bytes);
    }
    return nullptr;
}

bool isWaySound(const zelRadix &tree, Kind kind, const char *name) {
    if (!hasNodes(tree) || !hasSpares(tree)) return false;
    const NameKey key(name);
    std::uint32_t number = tree.rtt_root, above = 0, least = 0;
    while (number != 0) {
        if (number >= tree.rtt_fresh) return false;
        const zelRadixNode *node = zelRadixNodeAt(&tree, number);
        if (node->rtn_parent != above || node->rtn_bit < least) return false;
        if (node->rtn_entry != nullptr) return isLeafWhole(*node, kind);
        if (!isForkWhole(*node, tree.rtt_fresh)) return false;
        least = node->rtn_bit + 1u;
        above = number;
        number = policy::childOnTheWay(*node, node->rtn_bit, key.bytes);
    }
    return true;  // an empty tree, since every fork has both children
}

std::vector<ListNode *> allNodes(const policy::Root &root) {
    std::vector<ListNode *> nodes;
    const std::size_t most = platform::policyReservedBytes / sizeof(ListNode);
    auto *node = const_cast<ListNode *>(at<ListNode>(root.nodes.load()));
    for (; node != nullptr && nodes.size() < most; node = const_cast<ListNode *>(at<ListNode>(node->nextNode)))
        nodes.push_back(node);
    return nodes;
}

Census takeCensus(policy::Root &root) {
    Census census;
    forEachTree(root, [&census](const zelRadix &tree, const policy::ControlBlock &, Kind kind) {
        const TreeCensus counted = countTree(tree, kind);
        if (!counted.isTidy) ++census.brokenTrees;
        census.lists.insert(census.lists.end(), counted.lists.begin(), counted.lists.end());
        addBlocks(tree, census.blocks);
    });
    for (const ListNode *list : census.lists)
        if (!countImage(*list, census)) ++census.brokenLists;
    census.nodes = allNodes(root);
    census.blocks.insert(census.blocks.end(), census.lists.begin(), census.lists.end());
    census.blocks.insert(census.blocks.end(), census.nodes.begin(), census.nodes.end());
    std::sort(census.blocks.begin(), census.blocks.end());
    census.blocks.erase(std::unique(census.blocks.begin(), census.blocks.end()), census.blocks.end());
    return census;
}

}  // namespace zel::aclmgr
