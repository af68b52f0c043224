// The radix tree: a path-compressed binary trie over keys of any number of bits.
//
// A node stands for the first `rtn_bit` bits of every key below it and tests the bit behind them. Invariants: a child's
// rtn_bit is greater than its parent's; a node without an entry forks, that is, has both children. So every missing
// child hangs on a node with an entry, and whatever an insertion walks into has a key to compare with.
//
// Nothing recurses: keys may have 1,120 bits. Insertion is one descent by the bits of the new key alone, one comparison
// of whole keys at the bottom, and a climb to where they part. A descent never compares what lies between the tested
// bits, so look-ups verify the key of the node they settle on. At nodes that are at least as long as the key, a descent
// goes on without reading key bits, which the key may not have.
//
// A marked entry hides the shorter prefixes from best match on purpose: readers of the old version must not see a route
// change its meaning before the version passes.
#include <bit>
#include <cstring>

#include "base/assertion.h"
#include "zel/containers.h"
#include "zel/platform.h"

namespace {

constexpr char source[] = "zelRadix";
constexpr uint32_t longestKey = 0xffff;

bool isTree(const zelRadix *tree, int line = __builtin_LINE()) {
    return zel::asserted(tree, "rtt", source, line) &&
           zel::asserted(tree->rtt_magic == ZEL_RADIX_MAGIC, "rtt->rtt_magic == 0xdeadbeef", source, line);
}

// A null argument is a miss in any case; it is reported while the tree is strict.
bool isGiven(const zelRadix *tree, const void *argument, const char *text, int line = __builtin_LINE()) {
    return argument || (tree->rtt_strict && zel::asserted(false, text, source, line));
}

bool isTooLong(const zelRadix *tree, uint32_t bitlen) {
    return bitlen > longestKey || (tree->rtt_strict && bitlen > tree->rtt_maxbits);
}

bool isMarked(const zelRadixNode *node) {
    return node->rtn_flags & ZEL_RADIX_DELETED;
}

bool isLive(const zelRadixNode *node) {
    return node->rtn_entry && !isMarked(node);
}

const uint8_t *keyOf(const zelRadixNode *node) {
    return node->rtn_entry->rth_key;
}

bool goesRight(const zelRadixNode *node, const uint8_t *key) {
    return key[node->rtn_bit >> 3] & node->rtn_mask;
}

zelRadixNode *childToward(const zelRadixNode *node, const uint8_t *key) {
    return goesRight(node, key) ? node->rtn_right : node->rtn_left;
}

zelRadixNode *anyChild(const zelRadixNode *node) {
    return node->rtn_left ? node->rtn_left : node->rtn_right;
}

// Whether two keys agree in their first `bits` bits; no byte behind those is read.
bool agree(const uint8_t *a, const uint8_t *b, uint32_t bits) {
    const uint32_t whole = bits >> 3, rest = bits & 7;
    for (uint32_t i = 0; i < whole; ++i)
        if (a[i] != b[i]) return false;
    return rest == 0 || ((a[whole] ^ b[whole]) >> (8 - rest)) == 0;
}

// The first bit in which two keys differ, `limit` when they agree up to there.
uint32_t firstDifference(const uint8_t *a, const uint8_t *b, uint32_t limit) {
    for (uint32_t at = 0; at * 8 < limit; ++at) {
        const auto difference = static_cast<uint8_t>(a[at] ^ b[at]);
        if (difference) {
            const uint32_t bit = at * 8 + static_cast<uint32_t>(std::countl_zero(difference));
            return bit < limit ? bit : limit;
        }
    }
    return limit;
}

zelRadixNode *makeNode(zelRadix *tree, uint32_t bit) {
    auto *node = static_cast<zelRadixNode *>(tree->rtt_alloc(sizeof(zelRadixNode)));
    if (!node) return nullptr;
    memset(node, 0, sizeof *node);
    node->rtn_bit = static_cast<uint16_t>(bit);
    node->rtn_mask = static_cast<uint8_t>(0x80u >> (bit & 7));
    ++tree->rtt_nodes;
    return node;
}

void dropNode(zelRadix *tree, zelRadixNode *node) {
    --tree->rtt_nodes;
    tree->rtt_free(node);
}

void settle(zelRadixNode *node, zelRadixEntry *entry) {
    node->rtn_entry = entry;
    entry->rtn = node;
}

// Puts `replacement`, which may be null, where `node` hangs.
void replaceInParent(zelRadix *tree, zelRadixNode *node, zelRadixNode *replacement) {
    zelRadixNode *parent = node->rtn_parent;
    if (!parent)
        tree->rtt_root = replacement;
    else if (parent->rtn_right == node)
        parent->rtn_right = replacement;
    else if (zel::asserted(parent->rtn_left == node, "rtn_prev->rtn_left == rtn", source))
        parent->rtn_left = replacement;
    if (replacement) replacement->rtn_parent = parent;
}

void hang(zelRadixNode *parent, zelRadixNode *child, bool onTheRight) {
    (onTheRight ? parent->rtn_right : parent->rtn_left) = child;
    child->rtn_parent = parent;
}

bool hasRoomOn(const zelRadixNode *node, bool theRight) {
    return theRight ? zel::asserted(!node->rtn_right, "!(rtn->rtn_right)", source)
                    : zel::asserted(!node->rtn_left, "!(rtn->rtn_left)", source);
}

// The node, always with an entry, whose key the new key is compared with.
zelRadixNode *comparand(zelRadixNode *node, const uint8_t *key, uint32_t bitlen) {
    while (node->rtn_bit < bitlen || !node->rtn_entry) {
        zelRadixNode *next = node->rtn_bit < bitlen ? childToward(node, key) : anyChild(node);
        if (!next) break;
        node = next;
    }
    return node;
}

// The node for this very prefix exists: it has a live entry, a marked one, or only forks.
zelRadixEntry *takeNode(zelRadix *tree, zelRadixNode *node, zelRadixEntry *entry) {
    zelRadixEntry *old = node->rtn_entry;
    if (isLive(node)) {
        old->rtn = node;  // `entry` may be this very one, its links just cleared
        return old;
    }
    if (old && old != entry) {
        old->rtn = nullptr;
        old->rth_key = nullptr;
        ++tree->rtt_released;
        if (tree->rtt_deleted) tree->rtt_deleted(old);
    }
    node->rtn_flags &= static_cast<uint8_t>(~ZEL_RADIX_DELETED);
    settle(node, entry);
    return entry;
}

zelRadixEntry *addBelow(zelRadix *tree, zelRadixNode *node, zelRadixEntry *entry, uint32_t bitlen) {
    const bool right = goesRight(node, entry->rth_key);
    if (!hasRoomOn(node, right)) return nullptr;
    zelRadixNode *leaf = makeNode(tree, bitlen);
    if (!leaf) return nullptr;
    hang(node, leaf, right);
    settle(leaf, entry);
    return entry;
}

zelRadixEntry *addAbove(zelRadix *tree, zelRadixNode *node, const uint8_t *keyBelow, zelRadixEntry *entry,
                        uint32_t bitlen) {
    zelRadixNode *above = makeNode(tree, bitlen);
    if (!above) return nullptr;
    replaceInParent(tree, node, above);
    hang(above, node, goesRight(above, keyBelow));
    settle(above, entry);
    return entry;
}

zelRadixEntry *addFork(zelRadix *tree, zelRadixNode *node, uint32_t fork, zelRadixEntry *entry, uint32_t bitlen) {
    if (!zel::asserted(fork < bitlen, "dbit < bitlen", source)) return nullptr;
    zelRadixNode *leaf = makeNode(tree, bitlen);
    if (!leaf) return nullptr;
    zelRadixNode *glue = makeNode(tree, fork);
    if (!glue) {
        dropNode(tree, leaf);
        return nullptr;
    }
    const bool right = goesRight(glue, entry->rth_key);
    replaceInParent(tree, node, glue);
    hang(glue, leaf, right);
    hang(glue, node, !right);
    settle(leaf, entry);
    return entry;
}

zelRadixEntry *addRoot(zelRadix *tree, zelRadixEntry *entry, uint32_t bitlen) {
    zelRadixNode *root = makeNode(tree, bitlen);
    if (!root) return nullptr;
    tree->rtt_root = root;
    settle(root, entry);
    return entry;
}

// Removes a node that lost its entry, and the fork above it that thereby lost a branch.
void collapse(zelRadix *tree, zelRadixNode *node) {
    while (node && !node->rtn_entry && !(node->rtn_left && node->rtn_right)) {
        zelRadixNode *parent = node->rtn_parent;
        replaceInParent(tree, node, anyChild(node));
        dropNode(tree, node);
        node = parent;
    }
}

// The next node of the walk in which a node comes before its left, and that before its right sub-tree.
zelRadixNode *nextNode(zelRadixNode *node) {
    if (zelRadixNode *child = anyChild(node)) return child;
    for (; node->rtn_parent; node = node->rtn_parent) {
        zelRadixNode *parent = node->rtn_parent;
        if (parent->rtn_left == node && parent->rtn_right) return parent->rtn_right;
    }
    return nullptr;
}

zelRadixEntry *firstLiveFrom(zelRadixNode *node) {
    while (node && !isLive(node)) node = nextNode(node);
    return node ? node->rtn_entry : nullptr;
}

zelRadixEntry *entryAbove(const zelRadixNode *node) {
    do node = node->rtn_parent;
    while (node && !node->rtn_entry);
    return node ? node->rtn_entry : nullptr;
}

}  // namespace

zelRadix *zelRadixCreate(const char *name, uint16_t maxbits, zelAllocFn allocFn, zelFreeFn freeFn,
                         zelRadixDeletedFn deletedFn) {
    if (!zel::asserted(name, "rtt_name", source)) return nullptr;
    auto *tree = static_cast<zelRadix *>(zelMC_calloc(source, __LINE__, 1, sizeof(zelRadix)));
    if (!tree) return nullptr;
    strncpy(tree->rtt_name, name, ZEL_RADIX_NAME_LENGTH);
    tree->rtt_maxbits = maxbits;
    tree->rtt_strict = 1;
    tree->rtt_alloc = allocFn ? allocFn : zelRadixMalloc;
    tree->rtt_free = freeFn ? freeFn : zelRadixFree;
    tree->rtt_deleted = deletedFn;
    zelDLLInit(&tree->rtt_changes);
    tree->rtt_magic = ZEL_RADIX_MAGIC;
    return tree;
}

zelRadixEntry *zelRadixInsert(zelRadix *tree, zelRadixEntry *entry, uint32_t bitlen) {
    if (!isTree(tree) || !isGiven(tree, entry, "rth")) return nullptr;
    if (!zel::asserted(entry->rth_addr, "rth->rth_addr", source)) return nullptr;
    ++tree->rtt_inserts;
    if (isTooLong(tree, bitlen)) return nullptr;
    if (tree->rtt_strict) {
        entry->rtn = nullptr;
        entry->rth_link = nullptr;
    }
    entry->rth_key = entry->rth_addr;
    if (!tree->rtt_root) return addRoot(tree, entry, bitlen);

    zelRadixNode *node = comparand(tree->rtt_root, entry->rth_key, bitlen);
    const uint8_t *met = keyOf(node);
    const uint32_t fork = firstDifference(met, entry->rth_key, node->rtn_bit < bitlen ? node->rtn_bit : bitlen);
    while (node->rtn_parent && node->rtn_parent->rtn_bit >= fork) node = node->rtn_parent;
    if (node->rtn_bit == fork)
        return fork == bitlen ? takeNode(tree, node, entry) : addBelow(tree, node, entry, bitlen);
    if (fork == bitlen) return addAbove(tree, node, met, entry, bitlen);
    return addFork(tree, node, fork, entry, bitlen);
}

void zelRadixRemove(zelRadix *tree, zelRadixEntry *entry) {
    if (!isTree(tree) || !isGiven(tree, entry, "rth")) return;
    zelRadixNode *node = entry->rtn;
    if (!isGiven(tree, node, "rtn") || node->rtn_entry != entry) return;
    if (tree->rtt_versioning) {
        node->rtn_flags |= ZEL_RADIX_DELETED;
        return;
    }
    entry->rtn = nullptr;
    entry->rth_key = nullptr;
    node->rtn_entry = nullptr;
    node->rtn_flags &= static_cast<uint8_t>(~ZEL_RADIX_DELETED);
    collapse(tree, node);
}

zelRadixEntry *zelRadixGetExact(zelRadix *tree, const void *key, uint32_t bitlen) {
    if (!isTree(tree) || isTooLong(tree, bitlen)) return nullptr;
    const auto *bytes = static_cast<const uint8_t *>(key);
    zelRadixNode *node = tree->rtt_root;
    while (node && node->rtn_bit < bitlen) node = childToward(node, bytes);
    if (!node || node->rtn_bit != bitlen || !isLive(node)) return nullptr;
    return agree(keyOf(node), bytes, bitlen) ? node->rtn_entry : nullptr;
}

zelRadixEntry *zelRadixGetBest(zelRadix *tree, const void *key, uint32_t bitlen) {
    if (!isTree(tree) || isTooLong(tree, bitlen) || !tree->rtt_root) return nullptr;
    const auto *bytes = static_cast<const uint8_t *>(key);
    zelRadixNode *node = tree->rtt_root;
    while (node->rtn_bit < bitlen) {
        zelRadixNode *next = childToward(node, bytes);
        if (!next) break;
        node = next;
    }
    for (; node; node = node->rtn_parent)
        if (node->rtn_entry && node->rtn_bit <= bitlen && agree(keyOf(node), bytes, node->rtn_bit))
            return isMarked(node) ? nullptr : node->rtn_entry;
    return nullptr;
}

zelRadixEntry *zelRadixGetLessSpecific(zelRadix *tree, zelRadixEntry *entryHead, zelRadixNode *node) {
    if (!isTree(tree)) return nullptr;
    if (!node) {
        if (!isGiven(tree, entryHead, "rth")) return nullptr;
        node = entryHead->rtn;
    }
    return isGiven(tree, node, "rtn") ? entryAbove(node) : nullptr;
}

zelRadixEntry *zelRadixGetParent(zelRadix *tree, zelRadixEntry *entry) {
    return zelRadixGetLessSpecific(tree, entry, nullptr);
}

zelRadixEntry *zelRadixGetNext(zelRadix *tree, zelRadixEntry *entry) {
    if (!isTree(tree)) return nullptr;
    if (!entry) return firstLiveFrom(tree->rtt_root);
    return isGiven(tree, entry->rtn, "rtn") ? firstLiveFrom(nextNode(entry->rtn)) : nullptr;
}

void zelRadixWalk(zelRadix *tree, int (*visit)(zelRadixEntry *entry, void *context), void *context) {
    if (!isTree(tree)) return;
    zelRadixEntry *entry = firstLiveFrom(tree->rtt_root);
    while (entry) {
        // Taken first: the visitor may remove `entry`, and only nodes without an entry go with it.
        zelRadixEntry *next = firstLiveFrom(nextNode(entry->rtn));
        if (visit(entry, context) != 0) return;
        entry = next;
    }
}

int zelRadixNodeIsLeaf(zelRadix *tree, zelRadixNode *node) {
    if (!isTree(tree) || !isGiven(tree, node, "rtn")) return 0;
    return !anyChild(node);
}

void zelRadixDestroy(zelRadix *tree) {
    if (!isTree(tree)) return;
    zelRadixNode *node = tree->rtt_root;
    while (node) {
        if (zelRadixNode *child = anyChild(node)) {
            node = child;
            continue;
        }
        zelRadixNode *parent = node->rtn_parent;
        if (parent) (parent->rtn_left == node ? parent->rtn_left : parent->rtn_right) = nullptr;
        dropNode(tree, node);
        node = parent;
    }
    tree->rtt_magic = 0;
    zelMC_free(source, __LINE__, tree);
}

void *zelRadixMalloc(size_t bytes) {
    return zelMC_malloc(source, __LINE__, bytes);
}

void zelRadixFree(void *node) {
    zelMC_free(source, __LINE__, node);
}
