// The tree of byte keys: the balanced tree of base/avl_tree.h over nodes that carry their key behind them.
//
// Comparisons decide on the first eight key bytes, read as one number, wherever those differ; so a search costs no call
// per node. The successor of a node without a right child is found from the root, by key: nodes know no parent.
//
// The key length is the control block's. It is written into nodes on insertion and removal, also into a node that is
// then refused as a duplicate, and into a template; the copy is for those who look at a node without a control block.
#include <cstring>

#include "base/assertion.h"
#include "base/avl_tree.h"
#include "base/wire.h"
#include "zel/containers.h"
#include "zel/platform.h"

namespace {

constexpr char source[] = "zelAvl";

bool isGiven(const avlcb *control, zelAvlNode **root, const char *rootText, int line = __builtin_LINE()) {
    return zel::asserted(control, "avlcb", source, line) && zel::asserted(root, rootText, source, line);
}

// The first bytes of a key as a number that orders like them; short keys are not read behind their end.
uint64_t headOf(const uint8_t *key, uint32_t length) {
    using zel::wire::load;
    if (length >= 8) [[likely]]
        return load<uint64_t>(key);
    if (length >= 4) return uint64_t{load<uint32_t>(key)} << 32 | load<uint32_t>(key + length - 4);
    uint64_t head = 0;
    for (uint32_t i = 0; i < length; ++i) head = head << 8 | key[i];
    return head;
}

struct Key {
    const uint8_t *bytes;
    uint32_t length;
    uint64_t head;
};

Key makeKey(const avlcb *control, const void *bytes) {
    const auto *key = static_cast<const uint8_t *>(bytes);
    return {key, control->keyLen, headOf(key, control->keyLen)};
}

struct links {
    using Node = zelAvlNode;
    using Key = ::Key;
    static Node *&left(Node *node) { return node->left; }
    static Node *&right(Node *node) { return node->right; }
    static int32_t &height(Node *node) { return node->height; }
    static int compare(const Key &key, Node *node) {
        const uint8_t *other = zelAvlKey(node);
        const uint64_t otherHead = headOf(other, key.length);
        if (key.head != otherHead) return key.head < otherHead ? -1 : 1;
        return key.length <= 8 ? 0 : memcmp(key.bytes + 8, other + 8, key.length - 8);
    }
};

TREE_DEFINE(zelAvlNode, links)

}  // namespace

zelAvlNode *zelAvlInsertNode(avlcb *control, zelAvlNode *node, zelAvlNode **root) {
    if (!isGiven(control, root, "ptree") || !node) return nullptr;
    node->keyLen = control->keyLen;
    return TREE_INSERT(zelAvlNode, links)(*root, node, makeKey(control, zelAvlKey(node)));
}

zelAvlNode *zelAvlRemoveNode(avlcb *control, zelAvlNode *node, zelAvlNode **root) {
    if (!isGiven(control, root, "ptree") || !node) return nullptr;
    node->keyLen = control->keyLen;
    return TREE_REMOVE(zelAvlNode, links)(*root, makeKey(control, zelAvlKey(node)));
}

zelAvlNode *zelAvlGetExact(avlcb *control, const void *key, zelAvlNode **root) {
    if (!isGiven(control, root, "tree") || !key) return nullptr;
    return TREE_FIND(zelAvlNode, links)(*root, makeKey(control, key));
}

zelAvlNode *zelAvlGetNext(avlcb *control, zelAvlNode *node, zelAvlNode **root) {
    if (!isGiven(control, root, "tree") || !*root) return nullptr;
    if (!node) return TREE_FIRST(zelAvlNode, links)(*root);
    if (node->right) return TREE_FIRST(zelAvlNode, links)(node->right);
    return TREE_FIND_GREATER(zelAvlNode, links)(*root, makeKey(control, zelAvlKey(node)));
}

void zelAvlDeleteTree(avlcb *control, zelAvlNode **root) {
    if (!isGiven(control, root, "ptree")) return;
    while (zelAvlNode *node = *root) {
        TREE_REMOVE(zelAvlNode, links)(*root, makeKey(control, zelAvlKey(node)));
        if (control->release)
            control->release(node);
        else
            zelMC_free(source, __LINE__, node);
    }
}
