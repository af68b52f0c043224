// The radix tree: a path-compressed binary trie over keys of any number of bits.
//
// A node stands for the first `rtn_bit` bits of every key below it and tests the bit behind them. Invariants: a child's
// rtn_bit is greater than its parent's; a node without an entry forks, that is, has both children. So every missing
// child hangs on a node with an entry, and whatever an insertion walks into has a key to compare with.
//
// Nothing recurses: keys may have 1,120 bits. Insertion is one descent by the bits of the new key alone, one comparison
// of whole keys at the bottom, and a climb to where they part. A descent never compares what lies between the tested
// bits, so look-ups compare the key of the node they settle on: once, since the first bit that differs also says how
// short a prefix must be to cover the key. At nodes that are at least as long as the key, a descent goes on without
// reading key bits, which the key may not have.
//
// A marked entry hides the shorter prefixes from best match on purpose: readers of the old version must not see a route
// change its meaning before the version passes.
//
// A tree in shared memory may lose its writer at any moment. Insertion and removal therefore change what look-ups
// descend by with one store (see `publish`): look-ups after the writer's death find a whole tree, each with that change
// or without it. Parent links climb past no entry but the one that comes or goes. The rest - counts, the order that
// walks take from parent links, unused nodes, the list of changes, the place of that one change in the side index - may
// be half done: zelRadixRepair puts it right for the next writer.
#include <cstring>

#include "containers/zelRadixTree.h"
#include "zel/platform.h"

namespace zel::containers {
namespace {

constexpr std::uint32_t longestKey = 0xffff;

bool isTooLong(const zelRadix *tree, std::uint32_t bitlen) {
    return bitlen > longestKey || (tree->rtt_strict && bitlen > tree->rtt_maxbits);
}

bool isProbe(const zelRadix *tree, const void *key, std::uint32_t bitlen, int line = __builtin_LINE()) {
    return isTree(tree, radixSource, line) && key && !isTooLong(tree, bitlen);
}

// ---- Insertion ------------------------------------------------------------------------------------------------------

void settle(zelRadix *tree, std::uint32_t number, zelRadixEntry *entry) {
    zelRadixNode *node = at(tree, number);
    entry->rtn = node;
    entry->rth_key = entry->rth_addr;
    entry->rth_change = {};
    publish(node->rtn_entry, entry);
}

// The link that leads to the node.
std::uint32_t *linkTo(zelRadix *tree, std::uint32_t number) {
    const std::uint32_t above = at(tree, number)->rtn_parent;
    if (!above) return &tree->rtt_root;
    zelRadixNode *parent = at(tree, above);
    if (parent->rtn_right == number) return &parent->rtn_right;
    return asserted(parent->rtn_left == number, "rtn_prev->rtn_left == rtn", radixSource) ? &parent->rtn_left : nullptr;
}

// Links `upper`, which has its other child already, in between `number` and its parent.
bool linkAbove(zelRadix *tree, std::uint32_t number, std::uint32_t upper, bool onItsRight) {
    std::uint32_t *link = linkTo(tree, number);
    if (!link) return false;
    zelRadixNode *node = at(tree, number), *above = at(tree, upper);
    (onItsRight ? above->rtn_right : above->rtn_left) = number;
    above->rtn_parent = node->rtn_parent;
    inheritNewest(tree, upper, number);
    publish(*link, upper);
    node->rtn_parent = upper;
    return true;
}

// The node, always with an entry, whose key the new key is compared with.
std::uint32_t comparand(const zelRadix *tree, const std::uint8_t *key, std::uint32_t bitlen) {
    std::uint32_t number = isIndexed(tree, bitlen) ? tree->rtt_index[slotOf(key, tree->rtt_index_bits)] : 0;
    if (!number) number = tree->rtt_root;
    for (;;) {
        const zelRadixNode *node = at(tree, number);
        if (node->rtn_bit >= bitlen && node->rtn_entry) return number;
        const std::uint32_t next = node->rtn_bit < bitlen ? childToward(tree, node, key) : anyChild(node);
        if (!next) return number;
        number = next;
    }
}

// The node for this very prefix exists: it has a live entry, a marked one, or only forks. While a marked one is handed
// over, its node stays marked: there is a key to compare with, and look-ups miss.
zelRadixEntry *takeNode(zelRadix *tree, std::uint32_t number, zelRadixEntry *entry) {
    zelRadixNode *node = at(tree, number);
    zelRadixEntry *old = node->rtn_entry;
    if (isLive(node)) return old;
    if (old != entry) {
        if (old) forgetChange(tree, old);
        settle(tree, number, entry);
        if (old) handOver(tree, old);
        if (!old) indexNode(tree, number, entry->rth_key);
    }
    node->rtn_flags &= static_cast<std::uint8_t>(~ZEL_RADIX_DELETED);
    return entry;
}

zelRadixEntry *addBelow(zelRadix *tree, std::uint32_t number, zelRadixEntry *entry, std::uint32_t bitlen) {
    zelRadixNode *node = at(tree, number);
    const bool right = goesRight(node, entry->rth_addr);
    if (right ? !asserted(!node->rtn_right, "!(rtn->rtn_right)", radixSource)
              : !asserted(!node->rtn_left, "!(rtn->rtn_left)", radixSource))
        return nullptr;
    const std::uint32_t leaf = makeNode(tree, bitlen);
    if (!leaf) return nullptr;
    at(tree, leaf)->rtn_parent = number;
    settle(tree, leaf, entry);
    publish(right ? node->rtn_right : node->rtn_left, leaf);
    indexNode(tree, leaf, entry->rth_key);
    return entry;
}

zelRadixEntry *addAbove(zelRadix *tree, std::uint32_t number, const std::uint8_t *keyBelow, zelRadixEntry *entry,
                        std::uint32_t bitlen) {
    const std::uint32_t above = makeNode(tree, bitlen);
    if (!above) return nullptr;
    settle(tree, above, entry);
    if (!linkAbove(tree, number, above, goesRight(at(tree, above), keyBelow))) return nullptr;
    indexNode(tree, above, entry->rth_key);
    return entry;
}

zelRadixEntry *addFork(zelRadix *tree, std::uint32_t number, std::uint32_t fork, zelRadixEntry *entry,
                       std::uint32_t bitlen) {
    if (!asserted(fork < bitlen, "dbit < bitlen", radixSource)) return nullptr;
    const std::uint32_t leaf = makeNode(tree, bitlen);
    if (!leaf) return nullptr;
    const std::uint32_t glue = makeNode(tree, fork);
    if (!glue) {
        dropNode(tree, leaf);
        return nullptr;
    }
    zelRadixNode *node = at(tree, glue);
    const bool right = goesRight(node, entry->rth_addr);
    (right ? node->rtn_right : node->rtn_left) = leaf;
    at(tree, leaf)->rtn_parent = glue;
    settle(tree, leaf, entry);
    if (!linkAbove(tree, number, glue, !right)) return nullptr;
    indexNode(tree, leaf, entry->rth_key);
    indexNode(tree, glue, entry->rth_key);
    return entry;
}

zelRadixEntry *addRoot(zelRadix *tree, zelRadixEntry *entry, std::uint32_t bitlen) {
    const std::uint32_t root = makeNode(tree, bitlen);
    if (!root) return nullptr;
    settle(tree, root, entry);
    publish(tree->rtt_root, root);
    indexNode(tree, root, entry->rth_key);
    return entry;
}

// The entry that now stands for the prefix.
zelRadixEntry *place(zelRadix *tree, zelRadixEntry *entry, std::uint32_t bitlen) {
    if (!tree->rtt_root) return addRoot(tree, entry, bitlen);
    const std::uint8_t *key = entry->rth_addr;
    std::uint32_t number = comparand(tree, key, bitlen);
    const zelRadixNode *node = at(tree, number);
    const std::uint8_t *met = keyOf(node);
    const std::uint32_t fork = firstDifference(met, key, node->rtn_bit < bitlen ? node->rtn_bit : bitlen);
    while (node->rtn_parent && at(tree, node->rtn_parent)->rtn_bit >= fork) {
        number = node->rtn_parent;
        node = at(tree, number);
    }
    if (node->rtn_bit == fork)
        return fork == bitlen ? takeNode(tree, number, entry) : addBelow(tree, number, entry, bitlen);
    if (fork == bitlen) return addAbove(tree, number, met, entry, bitlen);
    return addFork(tree, number, fork, entry, bitlen);
}

// ---- Removal --------------------------------------------------------------------------------------------------------

// Puts the heir, a child or nothing, in the place of a node. `key` led to it.
void unlink(zelRadix *tree, std::uint32_t number, std::uint32_t heir, const std::uint8_t *key) {
    std::uint32_t *link = linkTo(tree, number);
    if (!link) return;
    unindexNode(tree, number, heir, key);
    if (heir) at(tree, heir)->rtn_parent = at(tree, number)->rtn_parent;
    publish(*link, heir);
    dropNode(tree, number);
}

// Takes away a node's entry: the node stays if it forks, and a fork above it that loses a branch goes with it.
void emptyNode(zelRadix *tree, std::uint32_t number, const std::uint8_t *key) {
    zelRadixNode *node = at(tree, number);
    const zelRadixNode *parent = zelRadixNodeAt(tree, node->rtn_parent);
    if (node->rtn_left && node->rtn_right) {
        publish(node->rtn_entry, nullptr);
        node->rtn_flags &= static_cast<std::uint8_t>(~ZEL_RADIX_DELETED);
    } else if (anyChild(node) || !parent || parent->rtn_entry) {
        unlink(tree, number, anyChild(node), key);
    } else {
        unindexNode(tree, number, 0, key);
        unlink(tree, node->rtn_parent, parent->rtn_left == number ? parent->rtn_right : parent->rtn_left, key);
        dropNode(tree, number);
    }
}

// ---- Best match -----------------------------------------------------------------------------------------------------

// The node with an entry, at or above `node`, that stands for at most `bits` bits.
const zelRadixNode *shorterThan(const zelRadix *tree, const zelRadixNode *node, std::uint32_t bits) {
    while (node && !(node->rtn_entry && node->rtn_bit <= bits)) node = zelRadixNodeAt(tree, node->rtn_parent);
    return node;
}

// Whether the node is the answer where the index, which compared `known` bits, led to it: it has an entry, and nothing
// longer follows. One comparison for both ways, since which of them it is nobody could predict.
bool endsHere(const zelRadixNode *node, std::uint32_t known) {
    const bool hasChildren = node->rtn_left | node->rtn_right;
    return 2u * node->rtn_bit + hasChildren <= 2 * known;
}

// The longest prefix with an entry, live or marked, that covers the key. The way down remembers the last entry it met
// and has its head fetched, and the key that mostly lies behind it.
const zelRadixNode *bestNode(const zelRadix *tree, const std::uint8_t *key, std::uint32_t bitlen) {
    std::uint32_t number = tree->rtt_root, known = 0;
    if (isIndexed(tree, bitlen)) {
        known = tree->rtt_index_bits;
        number = tree->rtt_index[slotOf(key, known)];
    }
    if (!number) return nullptr;
    const zelRadixNode *node = at(tree, number), *top = node, *best = nullptr;
    if (endsHere(node, known)) return node;
    while (node->rtn_bit <= bitlen) {
        if (node->rtn_entry) {
            best = node;
            __builtin_prefetch(node->rtn_entry);
            __builtin_prefetch(node->rtn_entry + 1);
        }
        if (node->rtn_bit == bitlen) break;
        number = childToward(tree, node, key);
        if (!number) break;
        node = at(tree, number);
    }
    if (!best) return shorterThan(tree, top, known);
    if (best->rtn_bit <= known) return best;
    return shorterThan(tree, best, firstDifference(keyOf(best), key, best->rtn_bit));
}

zelRadixEntry *entryUnlessMarked(const zelRadixNode *node) {
    return node && !isMarked(node) ? node->rtn_entry : nullptr;
}

}  // namespace

void takeOut(zelRadix *tree, zelRadixEntry *entry) {
    const std::uint8_t *key = entry->rth_key;
    const std::uint32_t number = numberOf(tree, entry->rtn);
    forgetChange(tree, entry);
    unindexEntry(tree, number, key);
    emptyNode(tree, number, key);
    entry->rtn = nullptr;
    entry->rth_key = nullptr;
}

}  // namespace zel::containers

using namespace zel::containers;

zelRadix *zelRadixCreate(const char *name, uint16_t maxbits, zelAllocFn allocFn, zelFreeFn freeFn,
                         zelRadixDeletedFn deletedFn) {
    if (!zel::asserted(name, "rtt_name", radixSource)) return nullptr;
    auto *tree = static_cast<zelRadix *>(zelMC_calloc(radixSource, __LINE__, 1, sizeof(zelRadix)));
    if (tree) zelRadixInit(tree, name, maxbits, allocFn, freeFn, deletedFn);
    return tree;
}

void zelRadixDestroy(zelRadix *tree) {
    if (!isTree(tree)) return;
    zelRadixUninit(tree);
    zelMC_free(radixSource, __LINE__, tree);
}

int zelRadixInit(zelRadix *tree, const char *name, uint16_t maxbits, zelAllocFn allocFn, zelFreeFn freeFn,
                 zelRadixDeletedFn deletedFn) {
    if (!zel::asserted(tree, "rtt", radixSource) || !zel::asserted(name, "rtt_name", radixSource)) return -1;
    memset(tree, 0, sizeof *tree);
    strncpy(tree->rtt_name, name, ZEL_RADIX_NAME_LENGTH);
    tree->rtt_maxbits = maxbits;
    tree->rtt_strict = 1;
    tree->rtt_alloc = allocFn ? allocFn : zelRadixMalloc;
    tree->rtt_free = freeFn ? freeFn : zelRadixFree;
    tree->rtt_deleted = deletedFn;
    tree->rtt_version = 1;
    tree->rtt_fresh = 1;
    zelDLLInit(&tree->rtt_changes);
    tree->rtt_magic = ZEL_RADIX_MAGIC;
    return 0;
}

void zelRadixUninit(zelRadix *tree) {
    if (!isTree(tree)) return;
    tree->rtt_magic = 0;
    dropIndex(tree);
    releaseSlabs(tree, 0);
    if (tree->rtt_slabs) tree->rtt_free(tree->rtt_slabs);
}

zelRadixEntry *zelRadixInsert(zelRadix *tree, zelRadixEntry *entry, uint32_t bitlen) {
    if (!isTree(tree) || !isGiven(tree, entry, "rth")) return nullptr;
    if (!zel::asserted(entry->rth_addr, "rth->rth_addr", radixSource)) return nullptr;
    ++tree->rtt_inserts;
    zelRadixEntry *stands = isTooLong(tree, bitlen) ? nullptr : place(tree, entry, bitlen);
    if (stands == entry) {
        noteChange(tree, entry);
        indexWhenLarge(tree);
    } else if (tree->rtt_strict) {
        entry->rtn = nullptr;
        entry->rth_change = {};
    }
    return stands;
}

void zelRadixRemove(zelRadix *tree, zelRadixEntry *entry) {
    if (!isTree(tree) || !isGiven(tree, entry, "rth")) return;
    zelRadixNode *node = entry->rtn;
    if (!isGiven(tree, node, "rtn") || node->rtn_entry != entry) return;
    if (!tree->rtt_versioning) return takeOut(tree, entry);
    if (isMarked(node)) return;
    node->rtn_flags |= ZEL_RADIX_DELETED;
    noteChange(tree, entry);
}

zelRadixEntry *zelRadixGetExact(zelRadix *tree, const void *key, uint32_t bitlen) {
    if (!isProbe(tree, key, bitlen)) return nullptr;
    const auto *bytes = static_cast<const uint8_t *>(key);
    uint32_t number = isIndexed(tree, bitlen) ? tree->rtt_index[slotOf(bytes, tree->rtt_index_bits)] : tree->rtt_root;
    while (number && at(tree, number)->rtn_bit < bitlen) number = childToward(tree, at(tree, number), bytes);
    const zelRadixNode *node = zelRadixNodeAt(tree, number);
    if (!node || node->rtn_bit != bitlen || !isLive(node)) return nullptr;
    return agree(keyOf(node), bytes, bitlen) ? node->rtn_entry : nullptr;
}

zelRadixEntry *zelRadixGetBest(zelRadix *tree, const void *key, uint32_t bitlen) {
    if (!isProbe(tree, key, bitlen)) return nullptr;
    return entryUnlessMarked(bestNode(tree, static_cast<const uint8_t *>(key), bitlen));
}

zelRadixEntry *zelRadixGetNextBest(zelRadix *tree, zelRadixEntry *entry) {
    if (!isTree(tree) || !isGiven(tree, entry, "rth") || !isGiven(tree, entry->rtn, "rtn")) return nullptr;
    return entryUnlessMarked(zelRadixNodeAt(tree, numberAbove(tree, entry->rtn)));
}

zelRadixEntry *zelRadixGetBestAndPrev(zelRadix *tree, const void *key, uint32_t bitlen, zelRadixEntry **prev) {
    zelRadixEntry *best = zelRadixGetBest(tree, key, bitlen);
    if (prev) *prev = best ? zelRadixGetNextBest(tree, best) : nullptr;
    return best;
}

zelRadixEntry *zelRadixGetLessSpecific(zelRadix *tree, zelRadixEntry *entryHead, zelRadixNode *node) {
    if (!isTree(tree)) return nullptr;
    if (!node) {
        if (!isGiven(tree, entryHead, "rth")) return nullptr;
        node = entryHead->rtn;
    }
    if (!isGiven(tree, node, "rtn")) return nullptr;
    const uint32_t number = numberAbove(tree, node);
    return number ? at(tree, number)->rtn_entry : nullptr;
}

zelRadixEntry *zelRadixGetParent(zelRadix *tree, zelRadixEntry *entry) {
    return zelRadixGetLessSpecific(tree, entry, nullptr);
}

void *zelRadixMalloc(size_t bytes) {
    return zelMC_malloc(radixSource, __LINE__, bytes);
}

void zelRadixFree(void *node) {
    zelMC_free(radixSource, __LINE__, node);
}
