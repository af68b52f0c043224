// The links and colours of the red-black tree, which know nothing of keys and records.
#pragma once

#include "zel/containers.h"

namespace zel::containers {

// Hangs `node` as a leaf below `parent`, on whose side there is no child; below nil it becomes the root.
void hangLeaf(zelRBTree *tree, zelRBNode *node, zelRBNode *parent, bool onTheRight);
// Takes `node` out and resets its links.
void spliceOut(zelRBTree *tree, zelRBNode *node);

inline bool isRed(const zelRBNode *node) {
    return node->rbtn_colour == ZEL_RBTREE_RED;
}

inline void resetLinks(zelRBTree *tree, zelRBNode *node) {
    node->rbtn_left = node->rbtn_right = node->rbtn_parent = &tree->rbtt_nil;
}

// The least node below `node`. A walk comes back to what lies right of the way down: meanwhile memory may fetch it.
inline zelRBNode *leftmost(const zelRBTree *tree, zelRBNode *node) {
    while (node->rbtn_left != &tree->rbtt_nil) {
        __builtin_prefetch(node->rbtn_right);
        node = node->rbtn_left;
    }
    return node;
}

}  // namespace zel::containers
