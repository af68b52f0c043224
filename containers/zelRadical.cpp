// Versions of the radix tree, and the list of changes.
//
// The list holds each entry that changed, once, at the place of its last change: its front is oldest, and versions do
// not fall along it. A walk is a place in the same list. What lies in front of all walks has been seen by everybody; as
// far as its version is closed it leaves the list, and a marked entry leaves the tree with it.
//
// Beside every node stands the newest version of its sub-tree, for walks that pass over what did not change. The column
// of a block of nodes is made when a version is first noted there; where there is none, nothing changed. A tree that
// was once refused the memory for a column passes over nothing any more.
#include <cstring>

#include "containers/zelRadixTree.h"

namespace zel::containers {
namespace {

constexpr char source[] = "zelRadical";

zelRadixChange *changeOf(zelDLLNode *link) {
    return reinterpret_cast<zelRadixChange *>(link);
}

zelRadixEntry *entryOf(zelRadixChange *change) {
    return reinterpret_cast<zelRadixEntry *>(reinterpret_cast<char *>(change) - offsetof(zelRadixEntry, rth_change));
}

std::uint32_t *newestOf(const zelRadix *tree, std::uint32_t number) {
    std::uint32_t *column = tree->rtt_newest[number / ZEL_RADIX_SLAB];
    return column ? &column[number % ZEL_RADIX_SLAB] : nullptr;
}

// Null when there is no memory.
std::uint32_t *makeNewest(zelRadix *tree, std::uint32_t number) {
    if (std::uint32_t *newest = newestOf(tree, number)) return newest;
    constexpr std::size_t bytes = ZEL_RADIX_SLAB * sizeof(std::uint32_t);
    void *column = tree->rtt_alloc(bytes);
    if (!column) {
        tree->rtt_newest_lost = 1;
        return nullptr;
    }
    publish(tree->rtt_newest[number / ZEL_RADIX_SLAB], static_cast<std::uint32_t *>(memset(column, 0, bytes)));
    return newestOf(tree, number);
}

// The newest version of a sub-tree is that of all sub-trees around it, or older. False when there is no memory.
bool raise(zelRadix *tree, std::uint32_t number, std::uint32_t version) {
    for (; number; number = at(tree, number)->rtn_parent) {
        std::uint32_t *newest = makeNewest(tree, number);
        if (!newest) return false;
        if (!isLater(version, *newest)) break;
        *newest = version;
    }
    return true;
}

bool isClosed(const zelRadix *tree, const zelRadixChange *change) {
    return change->version != tree->rtt_version;
}

bool append(zelRadix *tree, zelRadixEntry *entry) {
    forgetChange(tree, entry);
    entry->rth_change.version = tree->rtt_version;
    zelDLLInsertAtBack(&tree->rtt_changes, &entry->rth_change.link);
    return raise(tree, numberOf(tree, entry->rtn), tree->rtt_version);
}

void clearNewest(zelRadix *tree) {
    for (std::uint32_t i = 0; i < tree->rtt_slab_count; ++i)
        if (tree->rtt_newest[i]) memset(tree->rtt_newest[i], 0, ZEL_RADIX_SLAB * sizeof(std::uint32_t));
}

// Notes an entry anew that is in no list.
bool restartChange(zelRadix *tree, const zelRadixNode *node) {
    zelRadixChange &change = node->rtn_entry->rth_change;
    change.link = {};
    if (isMarked(node)) return append(tree, node->rtn_entry);
    return change.version == 0 || raise(tree, numberOf(tree, node), change.version);
}

// Lets go of what everybody has seen.
void releasePassed(zelRadix *tree) {
    while (zelDLLNode *first = zelDLLGetFirst(&tree->rtt_changes)) {
        zelRadixChange *change = changeOf(first);
        if (change->isWalk || !isClosed(tree, change)) return;
        zelRadixEntry *entry = entryOf(change);
        if (isMarked(entry->rtn)) {
            takeOut(tree, entry);
            handOver(tree, entry);
        } else {
            forgetChange(tree, entry);
        }
    }
}

bool isEntryOf(const zelRadix *tree, const zelRadixEntry *entry, int line = __builtin_LINE()) {
    return isTree(tree, source, line) && isGiven(tree, entry, "rth", source, line) &&
           isGiven(tree, entry->rtn, "rtn", source, line);
}

}  // namespace

// 0 is no version: nothing is earlier, and it is later than nothing.
bool isLater(std::uint32_t version, std::uint32_t than) {
    return version != 0 && (than == 0 || static_cast<std::int32_t>(version - than) > 0);
}

bool mayHoldLater(const zelRadix *tree, std::uint32_t number, std::uint32_t since) {
    if (tree->rtt_newest_lost) return true;
    const std::uint32_t *newest = newestOf(tree, number);
    return newest && isLater(*newest, since);
}

void inheritNewest(zelRadix *tree, std::uint32_t number, std::uint32_t child) {
    const std::uint32_t *below = newestOf(tree, child);
    if (!below || *below == 0) return;
    if (std::uint32_t *newest = makeNewest(tree, number)) *newest = *below;
}

void noteChange(zelRadix *tree, zelRadixEntry *entry) {
    if (tree->rtt_versioning) append(tree, entry);
}

void forgetChange(zelRadix *tree, zelRadixEntry *entry) {
    if (entry->rth_change.link.next) zelDLLRemove(&tree->rtt_changes, &entry->rth_change.link);
}

void handOver(zelRadix *tree, zelRadixEntry *entry) {
    entry->rtn = nullptr;
    entry->rth_key = nullptr;
    ++tree->rtt_released;
    if (tree->rtt_deleted) tree->rtt_deleted(entry);
}

// Until all is noted, version walks pass over nothing.
void restartChanges(zelRadix *tree) {
    zelDLLInit(&tree->rtt_changes);
    ++tree->rtt_repairs;
    publish(tree->rtt_newest_lost, 1);
    clearNewest(tree);
    bool isComplete = true;
    for (const zelRadixNode *node = zelRadixNodeAt(tree, tree->rtt_root); node; node = nextNode(tree, node))
        if (node->rtn_entry && !restartChange(tree, node)) isComplete = false;
    if (isComplete) publish(tree->rtt_newest_lost, 0);
}

}  // namespace zel::containers

using namespace zel::containers;

struct zelRadicalWalk {
    zelRadixChange place;  // what lies in front of it in the list has been visited
    zelRadix *tree;
    std::uint32_t repairs;  // a repair since then has taken the walk off the list
};

void zelRadixSetVersion(zelRadix *tree, zelRadixEntry *entry, uint32_t version) {
    if (!isEntryOf(tree, entry) || entry->rth_change.link.next) return;
    entry->rth_change.version = version;
    raise(tree, numberOf(tree, entry->rtn), version);
}

void zelRadicalAppendToChangeList(zelRadix *tree, zelRadixEntry *entry) {
    if (isEntryOf(tree, entry)) append(tree, entry);
}

uint32_t zelRadicalNextVersion(zelRadix *tree) {
    if (!isTree(tree, source)) return 0;
    if (++tree->rtt_version == 0) tree->rtt_version = 1;
    releasePassed(tree);
    return tree->rtt_version;
}

zelRadicalWalk *zelRadicalWalkConstructor(zelRadix *tree) {
    if (!isTree(tree, source)) return nullptr;
    auto *walk = static_cast<zelRadicalWalk *>(tree->rtt_alloc(sizeof(zelRadicalWalk)));
    if (!walk) return nullptr;
    *walk = {{{nullptr, nullptr}, 0, 1}, tree, tree->rtt_repairs};
    zelDLLInsertAtBack(&tree->rtt_changes, &walk->place.link);
    return walk;
}

void zelRadicalWalkDestructor(zelRadicalWalk *walk) {
    if (!zel::asserted(walk, "walk", source)) return;
    zelRadix *tree = walk->tree;
    if (walk->repairs == tree->rtt_repairs) zelDLLRemove(&tree->rtt_changes, &walk->place.link);
    tree->rtt_free(walk);
    releasePassed(tree);
}

uint32_t zelRadicalWalkChangeList(zelRadicalWalk *walk, zelRadixVisitFn visit, void *context, uint32_t max) {
    if (!zel::asserted(walk, "walk", source) || !canVisit(visit, source)) return 0;
    if (walk->repairs != walk->tree->rtt_repairs) return 0;
    zelDLL *changes = &walk->tree->rtt_changes;
    uint32_t visited = 0;
    while (max == 0 || visited < max) {
        zelDLLNode *next = &walk->place.link;
        do next = zelDLLGetNext(changes, next);
        while (next && changeOf(next)->isWalk);
        if (!next || !isClosed(walk->tree, changeOf(next))) break;
        zelDLLRemove(changes, &walk->place.link);
        zelDLLInsertAfter(changes, next, &walk->place.link);
        ++visited;
        if (visit(entryOf(changeOf(next)), context) != 0) break;
    }
    releasePassed(walk->tree);
    return visited;
}
