// Everything that the roots of the segment lead to, found without believing anything that is read there.
#pragma once

#include <cstdint>
#include <vector>

#include "aclmgr/store.h"

namespace zel::aclmgr {

// A tree of names as its links have it.
struct TreeCensus {
    std::vector<ListNode *> lists;
    bool isSound = false;  // what look-ups see is a tree of lists, each under its own name
    bool isTidy = false;   // and what they do not see agrees with it
};
TreeCensus countTree(const zelRadix &tree, Kind kind);
// The list of that name, or null; also where links are not those of a tree.
ListNode *findIn(const zelRadix &tree, Kind kind, const char *name);
// Whether all that an insertion or removal at that name follows, down and up again, is as it should be.
bool isWaySound(const zelRadix &tree, Kind kind, const char *name);

struct Census {
    std::vector<ListNode *> lists;
    std::vector<ListNode *> nodes;     // of lists, removed ones too
    std::vector<Bytes> images;         // of the lists with entries
    std::vector<const void *> blocks;  // of the heap that all this takes, in ascending order
    std::uint32_t brokenTrees = 0, brokenLists = 0;
};
Census takeCensus(policy::Root &root);

// All nodes ever made, as far as their links can be followed.
std::vector<ListNode *> allNodes(const policy::Root &root);

// Calls `visit` with each tree of names, the tables it is of, and its kind.
template <class Visit>
void forEachTree(policy::Root &root, const Visit &visit) {
    for (policy::ControlBlock *tables : {&root.aclNode, &root.acl2CB})
        for (std::size_t i = 0; i < policy::kindCount; ++i) visit(tables->trees[i], *tables, static_cast<Kind>(i));
}

}  // namespace zel::aclmgr
