// What keeps the red-black tree balanced: insertion and removal of nodes at a known place, by rotation and recolouring.
//
// The algorithms are the textbook's with a shared nil sentinel, told once for both of their mirror images: `side` is
// where the trouble is. The sentinel is black and never rotated; while a removal climbs from it, its parent link tells
// where it hangs.
//
// Removal moves nodes, not records: a node stays with its record for life.
#include "containers/zelRBTreeBalance.h"

namespace zel::containers {
namespace {

enum Side { left, right };

Side opposite(Side side) {
    return side == left ? right : left;
}

zelRBNode *&link(zelRBNode *node, Side side) {
    return side == left ? node->rbtn_left : node->rbtn_right;
}

// Puts `replacement` where `node` hangs.
void replaceInParent(zelRBTree *tree, zelRBNode *node, zelRBNode *replacement) {
    zelRBNode *parent = node->rbtn_parent;
    if (parent == &tree->rbtt_nil)
        tree->rbtt_root = replacement;
    else
        link(parent, node == parent->rbtn_left ? left : right) = replacement;
    replacement->rbtn_parent = parent;
}

// Lowers `node` to one side, and raises its child from the other.
template <Side side>
void lower(zelRBTree *tree, zelRBNode *node) {
    zelRBNode *raised = link(node, opposite(side)), *between = link(raised, side);
    link(node, opposite(side)) = between;
    if (between != &tree->rbtt_nil) between->rbtn_parent = node;
    replaceInParent(tree, node, raised);
    link(raised, side) = node;
    node->rbtn_parent = raised;
}

void RBTreeRotateLeft(zelRBTree *tree, zelRBNode *node) {
    lower<left>(tree, node);
}

void RBTreeRotateRight(zelRBTree *tree, zelRBNode *node) {
    lower<right>(tree, node);
}

void rotate(zelRBTree *tree, zelRBNode *node, Side side) {
    side == left ? RBTreeRotateLeft(tree, node) : RBTreeRotateRight(tree, node);
}

Side sideOf(const zelRBNode *node) {
    return node == node->rbtn_parent->rbtn_left ? left : right;
}

// `node` is red; its parent may be red, too.
void repairRed(zelRBTree *tree, zelRBNode *node) {
    while (isRed(node->rbtn_parent)) {
        zelRBNode *parent = node->rbtn_parent, *above = parent->rbtn_parent;
        const Side side = sideOf(parent);
        zelRBNode *uncle = link(above, opposite(side));
        above->rbtn_colour = ZEL_RBTREE_RED;
        if (isRed(uncle)) {
            parent->rbtn_colour = uncle->rbtn_colour = ZEL_RBTREE_BLACK;
            node = above;
            continue;
        }
        if (sideOf(node) != side) {
            rotate(tree, parent, side);
            parent = node;
        }
        parent->rbtn_colour = ZEL_RBTREE_BLACK;
        rotate(tree, above, opposite(side));
        break;
    }
    tree->rbtt_root->rbtn_colour = ZEL_RBTREE_BLACK;
}

// Every way through `node`, which may be nil, lacks a black node.
void repairBlack(zelRBTree *tree, zelRBNode *node) {
    while (node != tree->rbtt_root && !isRed(node)) {
        zelRBNode *parent = node->rbtn_parent;
        const Side side = sideOf(node), far = opposite(side);
        zelRBNode *sibling = link(parent, far);
        if (isRed(sibling)) {
            sibling->rbtn_colour = ZEL_RBTREE_BLACK;
            parent->rbtn_colour = ZEL_RBTREE_RED;
            rotate(tree, parent, side);
            sibling = link(parent, far);
        }
        if (!isRed(sibling->rbtn_left) && !isRed(sibling->rbtn_right)) {
            sibling->rbtn_colour = ZEL_RBTREE_RED;
            node = parent;
            continue;
        }
        if (!isRed(link(sibling, far))) {
            sibling->rbtn_colour = ZEL_RBTREE_RED;
            rotate(tree, sibling, far);
            sibling = link(parent, far);
        }
        sibling->rbtn_colour = parent->rbtn_colour;
        parent->rbtn_colour = link(sibling, far)->rbtn_colour = ZEL_RBTREE_BLACK;
        rotate(tree, parent, side);
        return;
    }
    node->rbtn_colour = ZEL_RBTREE_BLACK;
}

// Puts `node` where `old` stands, in its colour.
void takePlace(zelRBTree *tree, zelRBNode *node, zelRBNode *old) {
    replaceInParent(tree, old, node);
    node->rbtn_colour = old->rbtn_colour;
    node->rbtn_left = old->rbtn_left;
    node->rbtn_right = old->rbtn_right;
    node->rbtn_left->rbtn_parent = node->rbtn_right->rbtn_parent = node;
}

}  // namespace

void hangLeaf(zelRBTree *tree, zelRBNode *node, zelRBNode *parent, bool onTheRight) {
    resetLinks(tree, node);
    node->rbtn_colour = ZEL_RBTREE_RED;
    node->rbtn_parent = parent;
    if (parent == &tree->rbtt_nil)
        tree->rbtt_root = node;
    else
        link(parent, onTheRight ? right : left) = node;
    repairRed(tree, node);
}

// A node with two children gives its place to its successor, which has no left child and so is easily spliced out.
void spliceOut(zelRBTree *tree, zelRBNode *node) {
    zelRBNode *nil = &tree->rbtt_nil;
    const bool hasBoth = node->rbtn_left != nil && node->rbtn_right != nil;
    zelRBNode *spliced = hasBoth ? leftmost(tree, node->rbtn_right) : node;
    zelRBNode *below = spliced->rbtn_left != nil ? spliced->rbtn_left : spliced->rbtn_right;
    const bool losesBlack = !isRed(spliced);
    replaceInParent(tree, spliced, below);
    // Where the successor was the right child, this hangs `below` on it, nil or not.
    if (spliced != node) takePlace(tree, spliced, node);
    if (losesBlack) repairBlack(tree, below);
    resetLinks(tree, nil);
    resetLinks(tree, node);
}

}  // namespace zel::containers
