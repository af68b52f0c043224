// The red-black tree: nodes that point at the caller's records, in the order of a comparator.
//
// Invariants: the root is black, a red node has no red child, and every way from a node down to a missing child passes
// equally many black nodes; read in order, records do not descend; numinodes counts the nodes. A missing child is the
// tree's nil sentinel, so that nothing tests for null; its data is null, so that whatever finds no node returns null.
//
// Trees with a built-in comparator keep the key in the node, in a form that compares as unsigned for both of them. A
// search then touches one cache line a level, and takes its turns by address arithmetic: of branches, a processor
// guesses half wrong. On 64-bit hosts the key costs no memory, it fills a gap.
//
// Trees with the default allocation take nodes from slabs of their own, and give the slabs back when they are empty.
#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <cstring>

#include "base/assertion.h"
#include "containers/zelRBTreeBalance.h"
#include "zel/containers.h"
#include "zel/platform.h"

namespace {

using namespace zel::containers;

constexpr char source[] = "zelRBTree";
constexpr uint32_t builtInKeyLength = 4;
constexpr uint32_t signBit = 0x80000000u;
constexpr uint32_t printedNodes = 200;
constexpr uint32_t leastSlabNodes = 8, mostSlabNodes = 512;

bool isTree(const zelRBTree *tree, int line = __builtin_LINE()) {
    return zel::asserted(tree, "rbtt", source, line) &&
           zel::asserted(tree->rbtt_magic == ZEL_RBTREE_MAGIC, "rbtt->rbtt_magic == 0xdeadbeef", source, line);
}

bool isGiven(const zelRBTree *tree, const void *data, int line = __builtin_LINE()) {
    if (data) [[likely]]
        return true;
    if (tree->rbtt_checking) return zel::asserted(false, "data", source, line);
    return !tree->rbtt_kind || zel::asserted(false, "one", source, line);
}

// Without checking, a look-up misses a null key only when it comes to compare it.
bool isProbe(const zelRBTree *tree, const void *key, int line = __builtin_LINE()) {
    if (key) [[likely]]
        return true;
    return (tree->rbtt_checking || tree->numinodes) && isGiven(tree, key, line);
}

// ---- Keys -----------------------------------------------------------------------------------------------------------

template <class Word>
Word keyAt(const zelRBTree *tree, const void *record) {
    Word key;
    memcpy(&key, static_cast<const char *>(record) + tree->rbtt_keyOffset, sizeof key);
    return key;
}

template <class Word>
int compareWords(const zelRBTree *tree, const void *one, const void *two) {
    if (!isTree(tree) || !zel::asserted(one, "one", source) || !zel::asserted(two, "two", source)) return 0;
    const auto a = keyAt<Word>(tree, one), b = keyAt<Word>(tree, two);
    return (a > b) - (a < b);
}

// The key as nodes hold it: with its sign bit turned over, a signed word compares as an unsigned one.
uint32_t nodeKey(const zelRBTree *tree, const void *record) {
    if (!tree->rbtt_kind) return 0;
    const auto key = keyAt<uint32_t>(tree, record);
    return tree->rbtt_kind & ZEL_RBTREE_UNSIGNED ? key : key ^ signBit;
}

// ---- Search ---------------------------------------------------------------------------------------------------------

// What is searched for, compared with a node: negative, zero or positive.
struct ByKey {
    uint32_t key;
    int64_t operator()(const zelRBNode *node) const { return int64_t{key} - int64_t{node->rbtn_key}; }
};
struct ByComparator {
    zelRBTree *tree;
    const void *probe;
    int operator()(const zelRBNode *node) const { return tree->rbtt_compare(tree, probe, node->rbtn_data); }
};

template <class Search>
auto withOrder(zelRBTree *tree, const void *probe, Search search) {
    if (tree->rbtt_kind) return search(ByKey{nodeKey(tree, probe)});
    return search(ByComparator{tree, probe});
}

// Reads a link by address arithmetic. Compilers that see where the offset comes from make a branch of it.
zelRBNode *child(const zelRBNode *node, bool onTheRight) {
    constexpr size_t toLeft = offsetof(zelRBNode, rbtn_left), toRight = offsetof(zelRBNode, rbtn_right);
    size_t offset = toLeft + onTheRight * (toRight - toLeft);
    asm("" : "+r"(offset));
    return *reinterpret_cast<zelRBNode *const *>(reinterpret_cast<const char *>(node) + offset);
}

// Where a search ends; nil where there is no such node.
struct Place {
    zelRBNode *equal;      // the equal node nearest to the root
    zelRBNode *passed[2];  // the nodes where the search last went left, and right
    // Without an equal node: the least one behind what was searched for, and the greatest before it.
    zelRBNode *behind() const { return passed[0]; }
    zelRBNode *before() const { return passed[1]; }
};

Place locate(zelRBTree *tree, const void *probe) {
    return withOrder(tree, probe, [tree](auto order) {
        zelRBNode *nil = &tree->rbtt_nil, *node = tree->rbtt_root;
        Place place{nil, {nil, nil}};
        while (node != nil) {
            const auto side = order(node);
            if (side == 0) {
                place.equal = node;
                break;
            }
            place.passed[side > 0] = node;
            node = child(node, side > 0);
        }
        return place;
    });
}

zelRBNode *locateOrNext(zelRBTree *tree, const void *probe) {
    const Place place = locate(tree, probe);
    return place.equal != &tree->rbtt_nil ? place.equal : place.behind();
}

// The end of the descent that never stops at an equal node and passes it on the right.
struct Leaf {
    zelRBNode *parent;
    bool onTheRight;
};

Leaf locateLeaf(zelRBTree *tree, const void *data) {
    return withOrder(tree, data, [tree](auto order) {
        zelRBNode *nil = &tree->rbtt_nil, *node = tree->rbtt_root;
        Leaf leaf{nil, false};
        while (node != nil) {
            leaf = {node, order(node) >= 0};
            node = child(node, leaf.onTheRight);
        }
        return leaf;
    });
}

// ---- Steps from node to node ----------------------------------------------------------------------------------------

zelRBNode *first(zelRBTree *tree) {
    return tree->numinodes ? leftmost(tree, tree->rbtt_root) : &tree->rbtt_nil;
}

zelRBNode *successor(const zelRBTree *tree, zelRBNode *node) {
    if (node->rbtn_right != &tree->rbtt_nil) return leftmost(tree, node->rbtn_right);
    zelRBNode *parent = node->rbtn_parent;
    while (parent != &tree->rbtt_nil && node == parent->rbtn_right) {
        node = parent;
        parent = node->rbtn_parent;
    }
    return parent;
}

zelRBNode *successorInPreOrder(const zelRBTree *tree, zelRBNode *node) {
    const zelRBNode *nil = &tree->rbtt_nil;
    if (node->rbtn_left != nil) return node->rbtn_left;
    if (node->rbtn_right != nil) return node->rbtn_right;
    zelRBNode *parent = node->rbtn_parent;
    for (; parent != nil; node = parent, parent = node->rbtn_parent)
        if (node == parent->rbtn_left && parent->rbtn_right != nil) return parent->rbtn_right;
    return parent;
}

int depthOf(const zelRBTree *tree, const zelRBNode *node) {
    int depth = 0;
    for (; node != tree->rbtt_root; node = node->rbtn_parent) ++depth;
    return depth;
}

void printNode(const zelRBTree *tree, const zelRBNode *node, const char *(*print)(void *data)) {
    static constexpr char bars[] = "| | | | | | | | | | | | | | | | ";  // two columns a level; 200 nodes have 15 levels
    const int depth = depthOf(tree, node);
    char depthText[12];
    snprintf(depthText, sizeof depthText, "%d", depth);
    printf("\t\t%.*s+-%s%s+", 2 * depth, bars, depthText, isRed(node) ? "R" : "B");
    if (node->rbtn_data)
        printf("--[%s\n", print(node->rbtn_data));
    else
        printf("\n");
}

// ---- Allocation -----------------------------------------------------------------------------------------------------

// A slab is its link to the next one, followed by nodes. Slabs grow with the tree.
struct Slab {
    Slab *next;
};

bool addSlab(zelRBTree *tree) {
    const uint32_t count = std::clamp(tree->numinodes, leastSlabNodes, mostSlabNodes);
    auto *slab = static_cast<Slab *>(tree->rbtt_alloc(sizeof(Slab) + count * sizeof(zelRBNode)));
    if (!slab) return false;
    slab->next = static_cast<Slab *>(tree->rbtt_slabs);
    tree->rbtt_slabs = slab;
    auto *nodes = reinterpret_cast<zelRBNode *>(slab + 1);
    for (uint32_t i = 0; i < count; ++i) nodes[i].rbtn_right = i + 1 < count ? &nodes[i + 1] : nullptr;
    tree->rbtt_spare = nodes;
    return true;
}

void dropSlabs(zelRBTree *tree) {
    tree->rbtt_spare = nullptr;
    while (auto *slab = static_cast<Slab *>(tree->rbtt_slabs)) {
        tree->rbtt_slabs = slab->next;
        tree->rbtt_free(slab);
    }
}

bool hasSlabs(const zelRBTree *tree) {
    return tree->rbtt_alloc == zelRBTreeMalloc && tree->rbtt_free == zelRBTreeFree;
}

zelRBNode *takeNode(zelRBTree *tree) {
    if (!hasSlabs(tree)) return static_cast<zelRBNode *>(tree->rbtt_alloc(sizeof(zelRBNode)));
    if (!tree->rbtt_spare && !addSlab(tree)) return nullptr;
    zelRBNode *node = tree->rbtt_spare;
    tree->rbtt_spare = node->rbtn_right;
    return node;
}

void releaseNode(zelRBTree *tree, zelRBNode *node) {
    ++tree->rbtt_releases;
    if (!hasSlabs(tree)) return tree->rbtt_free(node);
    node->rbtn_right = tree->rbtt_spare;
    tree->rbtt_spare = node;
    if (tree->numinodes == 0) dropSlabs(tree);
}

zelRBNode *makeNode(zelRBTree *tree, void *data) {
    zelRBNode *node = takeNode(tree);
    if (!node) return nullptr;
    ++tree->rbtt_allocs;
    node->rbtn_key = nodeKey(tree, data);
    node->rbtn_data = data;
    return node;
}

uint32_t kindOf(zelRBTreeCompareFn compare) {
    if (compare == _RBTCompareUL) return ZEL_RBTREE_UNSIGNED;
    return compare == _RBTCompareI ? ZEL_RBTREE_SIGNED : 0;
}

// Fills a header of zero bytes.
zelRBTree *prepare(zelRBTree *tree, const char *name, uint32_t keyOffset, uint32_t keyLength, zelAllocFn allocFn,
                   zelFreeFn freeFn, zelRBTreeCompareFn compareFn) {
    if (!tree) return nullptr;
    strncpy(tree->rbtt_name, name, ZEL_RBTREE_NAME_LENGTH);
    tree->rbtt_kind = kindOf(compareFn);
    tree->rbtt_keyOffset = keyOffset;
    tree->rbtt_keyLength = tree->rbtt_kind ? builtInKeyLength : keyLength;
    tree->rbtt_root = &tree->rbtt_nil;
    tree->rbtt_checking = 1;
    tree->rbtt_compare = compareFn;
    tree->rbtt_alloc = allocFn ? allocFn : zelRBTreeMalloc;
    tree->rbtt_free = freeFn ? freeFn : zelRBTreeFree;
    tree->rbtt_nil.rbtn_colour = ZEL_RBTREE_BLACK;
    resetLinks(tree, &tree->rbtt_nil);
    tree->rbtt_magic = ZEL_RBTREE_MAGIC;
    return tree;
}

bool canCreate(const char *name, zelRBTreeCompareFn compareFn, int line = __builtin_LINE()) {
    return zel::asserted(name, "rbtt_name", source, line) && zel::asserted(compareFn, "rbtt_compare", source, line);
}

}  // namespace

int _RBTCompareUL(zelRBTree *tree, const void *one, const void *two) {
    return compareWords<uint32_t>(tree, one, two);
}

int _RBTCompareI(zelRBTree *tree, const void *one, const void *two) {
    return compareWords<int32_t>(tree, one, two);
}

zelRBTree *zelRBTreeCreate(const char *name, uint32_t keyOffset, uint32_t keyLength, zelAllocFn allocFn,
                           zelFreeFn freeFn, zelRBTreeCompareFn compareFn) {
    if (!canCreate(name, compareFn)) return nullptr;
    auto *header = static_cast<zelRBTree *>(zelMC_calloc(source, __LINE__, 1, sizeof(zelRBTree)));
    return prepare(header, name, keyOffset, keyLength, allocFn, freeFn, compareFn);
}

void zelRBTreeDestroy(zelRBTree *tree) {
    if (!isTree(tree)) return;
    tree->rbtt_magic = 0;
    zelMC_free(source, __LINE__, tree);
}

zelRBTree *zelRBTreeShmCreate(const char *name, uint32_t keyOffset, uint32_t keyLength, zelAllocFn allocFn,
                              zelFreeFn freeFn, zelRBTreeCompareFn compareFn) {
    if (!canCreate(name, compareFn)) return nullptr;
    auto *header = static_cast<zelRBTree *>(zelMC_MM_calloc(source, __LINE__, 1, sizeof(zelRBTree)));
    return prepare(header, name, keyOffset, keyLength, allocFn, freeFn, compareFn);
}

void zelRBTreeShmDestroy(zelRBTree *tree) {
    if (!isTree(tree)) return;
    tree->rbtt_magic = 0;
    zelMC_MM_free(source, __LINE__, tree);
}

int zelRBTreeInsert(zelRBTree *tree, void *data) {
    if (!isTree(tree) || !isGiven(tree, data)) return 0;
    zelRBNode *node = makeNode(tree, data);
    if (!node) return 0;
    const Leaf leaf = locateLeaf(tree, data);
    hangLeaf(tree, node, leaf.parent, leaf.onTheRight);
    ++tree->numinodes;
    ++tree->rbtt_inserts;
    return 1;
}

void *zelRBTreeRemove(zelRBTree *tree, const void *key) {
    if (!isTree(tree) || !isProbe(tree, key)) return nullptr;
    zelRBNode *node = locate(tree, key).equal;
    if (node == &tree->rbtt_nil) return nullptr;
    void *data = node->rbtn_data;
    spliceOut(tree, node);
    --tree->numinodes;
    ++tree->rbtt_removes;
    releaseNode(tree, node);
    return data;
}

void *zelRBTreeGetExact(zelRBTree *tree, const void *key) {
    if (!isTree(tree) || !isProbe(tree, key)) return nullptr;
    return locate(tree, key).equal->rbtn_data;
}

void *zelRBTreeGetFirst(zelRBTree *tree) {
    return isTree(tree) ? first(tree)->rbtn_data : nullptr;
}

void *zelRBTreeGetExactOrNext(zelRBTree *tree, const void *key) {
    if (!isTree(tree) || !isProbe(tree, key)) return nullptr;
    return locateOrNext(tree, key)->rbtn_data;
}

void *zelRBTreeGetExactOrPrev(zelRBTree *tree, const void *key) {
    if (!isTree(tree) || !isProbe(tree, key)) return nullptr;
    const Place place = locate(tree, key);
    return (place.equal != &tree->rbtt_nil ? place.equal : place.before())->rbtn_data;
}

void *zelRBTreeGetNext(zelRBTree *tree, const void *key) {
    if (!isTree(tree) || !(key || tree->rbtt_checking) || !isProbe(tree, key)) return nullptr;
    const Place place = locate(tree, key);
    return (place.equal != &tree->rbtt_nil ? successor(tree, place.equal) : place.behind())->rbtn_data;
}

void *zelRBTreeWalk(zelRBTree *tree, const void *start, int (*visit)(zelRBTree *tree, void *data, void *arg),
                    uint32_t maximum, uint32_t flags, void *arg) {
    if (!isTree(tree) || !zel::asserted(visit, "callback", source)) return nullptr;
    const bool preOrder = flags & ZEL_RBTREE_PREORDER;
    zelRBNode *node = start ? locateOrNext(tree, start) : preOrder ? tree->rbtt_root : first(tree);
    for (uint32_t visited = 1; node != &tree->rbtt_nil; ++visited) {
        zelRBNode *next = preOrder ? successorInPreOrder(tree, node) : successor(tree, node);
        if (visit(tree, node->rbtn_data, arg) != 0 || visited == maximum) return node->rbtn_data;
        node = next;
    }
    return nullptr;
}

void zelRBTreePrint(zelRBTree *tree, const char *(*print)(void *data)) {
    if (!isTree(tree) || !zel::asserted(print || !tree->rbtt_checking, "print_fn", source) || !print) return;
    printf("\tRed-Black tree %s: %lu numinodes.", tree->rbtt_name, static_cast<unsigned long>(tree->numinodes));
    if (tree->numinodes == 0 || tree->numinodes > printedNodes) {
        printf(tree->numinodes ? " (too large to print)\n" : " (empty)\n");
        return;
    }
    printf("\n");
    for (zelRBNode *node = first(tree); node != &tree->rbtt_nil; node = successor(tree, node))
        printNode(tree, node, print);
}

void zelRBTreeDebug(zelRBTree *tree, int on) {
    if (isTree(tree)) tree->rbtt_checking = on == 1;
}

void *zelRBTreeMalloc(size_t bytes) {
    return zelMC_malloc(source, __LINE__, bytes);
}

void zelRBTreeFree(void *node) {
    zelMC_free(source, __LINE__, node);
}
