// A height-balanced search tree over links that stand in the caller's nodes, and its operations by name.
//
// The heights of two children differ by at most one; a node's height is one more than its higher child's, 1 at a leaf.
// Nodes have no parent link: a change remembers the links it came down by, and mends the heights on the way back until
// one stays as it was. Equal keys are refused. Nothing allocates.
//
// A struct says how the operations reach into a node, and TREE_DEFINE makes them for it:
//
//     struct links {
//         using Node = Range;
//         using Key = uint32_t;
//         static Node *&left(Node *node) { return node->left; }       // likewise right
//         static int32_t &height(Node *node) { return node->height; }
//         static int compare(Key key, Node *node);                    // below 0: the key's place is left of the node
//     };
//     TREE_DEFINE(Range, links)
//
//     TREE_INSERT(Range, links)(root, range, range->low);
#pragma once

#include <cstdint>

namespace zel {

template <class Links>
class AvlTree {
public:
    using Node = typename Links::Node;
    using Key = typename Links::Key;
    using Apply = void (*)(Node *node, void *context);

    static Node *find(Node *root, const Key &key) {
        while (root) {
            fetchChildren(root);
            const int order = Links::compare(key, root);
            if (order == 0) break;
            root = order < 0 ? left(root) : right(root);
        }
        return root;
    }

    // The first node, in key order, whose key is greater; null when there is none.
    static Node *findGreater(Node *root, const Key &key) {
        Node *greater = nullptr;
        while (root) {
            fetchChildren(root);
            if (Links::compare(key, root) < 0) {
                greater = root;
                root = left(root);
            } else {
                root = right(root);
            }
        }
        return greater;
    }

    // The leftmost node below `root`, which must not be null.
    static Node *first(Node *root) {
        while (left(root)) root = left(root);
        return root;
    }

    // `node`, whose key is `key`; or the node with an equal key that was there first, with nothing changed.
    static Node *insert(Node *&root, Node *node, const Key &key) {
        Path path;
        Node **place = descend(path, &root, key);
        if (*place) return *place;
        left(node) = right(node) = nullptr;
        Links::height(node) = 1;
        *place = node;
        mend(path);
        return node;
    }

    // The node with that key, which is in the tree no longer; null when there was none.
    static Node *remove(Node *&root, const Key &key) {
        Path path;
        Node **place = descend(path, &root, key);
        Node *node = *place;
        if (!node) return nullptr;
        if (left(node) && right(node))
            replaceBySuccessor(path, place, node);
        else
            *place = left(node) ? left(node) : right(node);
        mend(path);
        left(node) = right(node) = nullptr;
        Links::height(node) = 0;
        return node;
    }

    // Each returns the node that now stands at the top.
    static Node *rotateLeft(Node *node) {
        Node *top = right(node);
        right(node) = left(top);
        left(top) = node;
        measure(node);
        measure(top);
        return top;
    }
    static Node *rotateRight(Node *node) {
        Node *top = left(node);
        left(node) = right(top);
        right(top) = node;
        measure(node);
        measure(top);
        return top;
    }
    static Node *balance(Node *node) {
        const int32_t lean = height(right(node)) - height(left(node));
        if (lean > 1) {
            if (height(left(right(node))) > height(right(right(node)))) right(node) = rotateRight(right(node));
            return rotateLeft(node);
        }
        if (lean < -1) {
            if (height(right(left(node))) > height(left(left(node)))) left(node) = rotateLeft(left(node));
            return rotateRight(node);
        }
        measure(node);
        return node;
    }

    // Every node in key order, or against it; `apply` must not change the tree.
    static void forwardApplyAll(Node *root, Apply apply, void *context) {
        if (!root) return;
        forwardApplyAll(left(root), apply, context);
        apply(root, context);
        forwardApplyAll(right(root), apply, context);
    }
    static void reverseApplyAll(Node *root, Apply apply, void *context) {
        if (!root) return;
        reverseApplyAll(right(root), apply, context);
        apply(root, context);
        reverseApplyAll(left(root), apply, context);
    }

private:
    // A tree of height h has at least 1.6^h nodes, and no address space holds 1.6^92 of them.
    static constexpr int heightLimit = 92;

    // The links that lead from the root down to a place, the place's own not among them.
    struct Path {
        Node **links[heightLimit];
        int length = 0;
        void add(Node **link) { links[length++] = link; }
    };

    static Node *&left(Node *node) { return Links::left(node); }
    static Node *&right(Node *node) { return Links::right(node); }
    static int32_t height(Node *node) { return node ? Links::height(node) : 0; }

    static void measure(Node *node) {
        const int32_t l = height(left(node)), r = height(right(node));
        Links::height(node) = 1 + (l > r ? l : r);
    }

    // Both are asked for before the comparison says which one is needed.
    static void fetchChildren(Node *node) {
        __builtin_prefetch(left(node));
        __builtin_prefetch(right(node));
    }

    // The link that holds the key's node, or the null one where it belongs.
    static Node **descend(Path &path, Node **link, const Key &key) {
        while (Node *node = *link) {
            fetchChildren(node);
            const int order = Links::compare(key, node);
            if (order == 0) break;
            path.add(link);
            link = order < 0 ? &left(node) : &right(node);
        }
        return link;
    }

    // Puts the next node in key order where `node` stands, and ends the path where that one came from.
    static void replaceBySuccessor(Path &path, Node **place, Node *node) {
        path.add(place);
        const int belowPlace = path.length;
        Node **link = &right(node);
        while (left(*link)) {
            path.add(link);
            link = &left(*link);
        }
        Node *successor = *link;
        *link = right(successor);
        left(successor) = left(node);
        right(successor) = right(node);
        Links::height(successor) = Links::height(node);
        *place = successor;
        if (path.length > belowPlace) path.links[belowPlace] = &right(successor);
    }

    static void mend(Path &path) {
        while (path.length > 0) {
            Node *&node = *path.links[--path.length];
            const int32_t before = Links::height(node);
            node = balance(node);
            if (Links::height(node) == before) return;
        }
    }
};

}  // namespace zel

#define TREE_NAME(operation, Node, links) operation##__##Node##__##links
#define TREE_FIND(Node, links) TREE_NAME(TREE_FIND, Node, links)
#define TREE_FIND_GREATER(Node, links) TREE_NAME(TREE_FIND_GREATER, Node, links)
#define TREE_FIRST(Node, links) TREE_NAME(TREE_FIRST, Node, links)
#define TREE_INSERT(Node, links) TREE_NAME(TREE_INSERT, Node, links)
#define TREE_REMOVE(Node, links) TREE_NAME(TREE_REMOVE, Node, links)
#define TREE_ROTL(Node, links) TREE_NAME(TREE_ROTL, Node, links)
#define TREE_ROTR(Node, links) TREE_NAME(TREE_ROTR, Node, links)
#define TREE_BALANCE(Node, links) TREE_NAME(TREE_BALANCE, Node, links)
#define TREE_FORWARD_APPLY_ALL(Node, links) TREE_NAME(TREE_FORWARD_APPLY_ALL, Node, links)
#define TREE_REVERSE_APPLY_ALL(Node, links) TREE_NAME(TREE_REVERSE_APPLY_ALL, Node, links)

// The operations above for one node type and one set of links in it.
#define TREE_DEFINE(Node, links)                                                                                  \
    [[maybe_unused]] constexpr auto TREE_FIND(Node, links) = ::zel::AvlTree<links>::find;                         \
    [[maybe_unused]] constexpr auto TREE_FIND_GREATER(Node, links) = ::zel::AvlTree<links>::findGreater;          \
    [[maybe_unused]] constexpr auto TREE_FIRST(Node, links) = ::zel::AvlTree<links>::first;                       \
    [[maybe_unused]] constexpr auto TREE_INSERT(Node, links) = ::zel::AvlTree<links>::insert;                     \
    [[maybe_unused]] constexpr auto TREE_REMOVE(Node, links) = ::zel::AvlTree<links>::remove;                     \
    [[maybe_unused]] constexpr auto TREE_ROTL(Node, links) = ::zel::AvlTree<links>::rotateLeft;                   \
    [[maybe_unused]] constexpr auto TREE_ROTR(Node, links) = ::zel::AvlTree<links>::rotateRight;                  \
    [[maybe_unused]] constexpr auto TREE_BALANCE(Node, links) = ::zel::AvlTree<links>::balance;                   \
    [[maybe_unused]] constexpr auto TREE_FORWARD_APPLY_ALL(Node, links) = ::zel::AvlTree<links>::forwardApplyAll; \
    [[maybe_unused]] constexpr auto TREE_REVERSE_APPLY_ALL(Node, links) = ::zel::AvlTree<links>::reverseApplyAll;
