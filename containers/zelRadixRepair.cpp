// Repair of a radix tree whose writer died in the middle of a change.
//
// What look-ups see changes with one store at a time, so it is a tree at every instant: a new fork is linked in with
// both children, and an old one leaves with the node whose removal it does not survive. At most a fork is still marked
// deleted for an entry that it lost. All the rest is written anew from that.
//
// First the links are proved to be those of a tree, by two marks in each node that nothing else looks at, so that a
// loop is found and nothing is changed. The rest goes through the nodes by their numbers. Each store leaves look-ups as
// right as they were: if this writer dies as well, the next one starts over.
#include "containers/zelRadixTree.h"

namespace zel::containers {
namespace {

constexpr std::uint8_t reachedMark = 4;  // a link leads to the node
constexpr std::uint8_t passedMark = 8;   // and its own links have been followed

void clearMarks(zelRadix *tree) {
    for (std::uint32_t number = 1; number < tree->rtt_fresh; ++number)
        at(tree, number)->rtn_flags &= static_cast<std::uint8_t>(~(reachedMark | passedMark));
}

bool isReached(const zelRadixNode *node) {
    return node->rtn_flags & reachedMark;
}

// Follows a link from a node that tests bit `above`; false when it does not lead to a longer node, or one that another
// link leads to.
bool reach(zelRadix *tree, std::uint32_t number, int above) {
    if (!number) return true;
    if (number >= tree->rtt_fresh) return false;
    zelRadixNode *node = at(tree, number);
    if (isReached(node) || node->rtn_bit <= above) return false;
    node->rtn_flags |= reachedMark;
    return true;
}

bool pass(zelRadix *tree, zelRadixNode *node) {
    node->rtn_flags |= passedMark;
    if (!node->rtn_entry && !(node->rtn_left && node->rtn_right)) return false;
    return reach(tree, node->rtn_left, node->rtn_bit) && reach(tree, node->rtn_right, node->rtn_bit);
}

bool isWaiting(const zelRadixNode *node) {
    return (node->rtn_flags & (reachedMark | passedMark)) == reachedMark;
}

// Marks all nodes of the tree. Rounds over all numbers take the place of a stack; each follows whole branches down.
bool isSound(zelRadix *tree) {
    if (!reach(tree, tree->rtt_root, -1)) return false;
    for (bool goesOn = true; goesOn;) {
        goesOn = false;
        for (std::uint32_t number = 1; number < tree->rtt_fresh; ++number) {
            zelRadixNode *node = at(tree, number);
            for (; node && isWaiting(node); node = zelRadixNodeAt(tree, anyChild(node))) {
                if (!pass(tree, node)) return false;
                goesOn = true;
            }
        }
    }
    return true;
}

void relink(zelRadix *tree, std::uint32_t number) {
    zelRadixNode *node = at(tree, number);
    for (const std::uint32_t child : {node->rtn_left, node->rtn_right})
        if (child) at(tree, child)->rtn_parent = number;
    if (zelRadixEntry *entry = node->rtn_entry) {
        entry->rtn = node;
        entry->rth_key = entry->rth_addr;
    }
    node->rtn_flags &= node->rtn_entry ? ZEL_RADIX_DELETED : 0;
}

// An entry that still takes this for its node is not in it.
void discard(zelRadix *tree, std::uint32_t number) {
    zelRadixNode *node = at(tree, number);
    node->rtn_entry = nullptr;
    node->rtn_flags = 0;
    node->rtn_parent = tree->rtt_spare;
    tree->rtt_spare = number;
}

void relinkAll(zelRadix *tree) {
    tree->rtt_nodes = tree->rtt_spare = 0;
    if (tree->rtt_root) at(tree, tree->rtt_root)->rtn_parent = 0;
    for (std::uint32_t number = tree->rtt_fresh; --number > 0;) {
        if (isReached(at(tree, number))) {
            relink(tree, number);
            ++tree->rtt_nodes;
        } else {
            discard(tree, number);
        }
    }
}

}  // namespace
}  // namespace zel::containers

using namespace zel::containers;

int zelRadixRepair(zelRadix *tree) {
    if (!isTree(tree)) return -1;
    clearMarks(tree);
    if (!isSound(tree)) {
        clearMarks(tree);
        return -1;
    }
    relinkAll(tree);
    if (tree->rtt_nodes == 0) releaseSlabs(tree, 1);
    restartChanges(tree);
    refillIndex(tree);
    return 0;
}
