// Walks through the radix tree: in the order of keys, within a sub-tree, by version, and to the printer.
//
// A walk takes its next entry before it calls the visitor for this one: the visitor may remove that, and only nodes
// without an entry go with it. The node behind a sub-tree stays, whatever is removed inside it.
#include <cstdio>

#include "containers/zelRadixTree.h"

namespace zel::containers {
namespace {

zelRadixNode *rootOf(const zelRadix *tree) {
    return zelRadixNodeAt(tree, tree->rtt_root);
}

// From `node` on and before `end`.
zelRadixEntry *liveFrom(const zelRadix *tree, const zelRadixNode *node, const zelRadixNode *end) {
    while (node != end && !isLive(node)) node = nextNode(tree, node);
    return node != end ? node->rtn_entry : nullptr;
}

void walk(zelRadix *tree, zelRadixNode *top, zelRadixVisitFn visit, void *context) {
    const zelRadixNode *end = nodeBehind(tree, top);
    zelRadixEntry *entry = liveFrom(tree, top, end);
    while (entry) {
        zelRadixEntry *next = liveFrom(tree, nextNode(tree, entry->rtn), end);
        if (visit(entry, context) != 0) return;
        entry = next;
    }
}

zelRadixEntry *changedFrom(const zelRadix *tree, const zelRadixNode *node, std::uint32_t since) {
    while (node) {
        if (node->rtn_entry && isLater(node->rtn_entry->rth_change.version, since)) return node->rtn_entry;
        node = mayHoldLater(tree, numberOf(tree, node), since) ? nextNode(tree, node) : nodeBehind(tree, node);
    }
    return nullptr;
}

void printEntry(const zelRadix *tree, const zelRadixNode *node, zelRadixTextFn text) {
    for (std::uint32_t above = numberAbove(tree, node); above; above = numberAbove(tree, at(tree, above))) printf("  ");
    if (text) {
        printf("  %s", text(node->rtn_entry));
    } else {
        printf("  ");
        for (std::uint32_t byte = 0; byte * 8 < node->rtn_bit; ++byte) printf("%02x", keyOf(node)[byte]);
        printf("/%u", static_cast<unsigned>(node->rtn_bit));
    }
    puts(isMarked(node) ? " deleted" : "");
}

}  // namespace
}  // namespace zel::containers

using namespace zel::containers;

zelRadixEntry *zelRadixGetNext(zelRadix *tree, zelRadixEntry *entry) {
    if (!isTree(tree)) return nullptr;
    if (!entry) return liveFrom(tree, rootOf(tree), nullptr);
    return isGiven(tree, entry->rtn, "rtn") ? liveFrom(tree, nextNode(tree, entry->rtn), nullptr) : nullptr;
}

void zelRadixWalk(zelRadix *tree, zelRadixVisitFn visit, void *context) {
    if (isTree(tree) && canVisit(visit) && tree->rtt_root) walk(tree, rootOf(tree), visit, context);
}

zelRadixNode *_zelRadixGetSubTree(zelRadix *tree, const void *key, uint32_t bitlen) {
    if (!isTree(tree) || !key) return nullptr;
    const auto *bytes = static_cast<const uint8_t *>(key);
    uint32_t number = tree->rtt_root;
    while (number && at(tree, number)->rtn_bit < bitlen) number = childToward(tree, at(tree, number), bytes);
    zelRadixNode *top = zelRadixNodeAt(tree, number);
    return top && agree(keyOf(withEntry(tree, top)), bytes, bitlen) ? top : nullptr;
}

void zelRadixWalkSubTree(zelRadix *tree, zelRadixNode *node, zelRadixVisitFn visit, void *context) {
    if (isTree(tree) && canVisit(visit) && isGiven(tree, node, "rtn")) walk(tree, node, visit, context);
}

int zelRadixNodeIsLeaf(zelRadix *tree, zelRadixNode *node) {
    if (!isTree(tree) || !isGiven(tree, node, "rtn")) return 0;
    return !anyChild(node);
}

void zelRadixVersionWalk(zelRadix *tree, uint32_t since, zelRadixVisitFn visit, void *context) {
    if (!isTree(tree) || !canVisit(visit)) return;
    zelRadixEntry *entry = changedFrom(tree, rootOf(tree), since);
    while (entry) {
        zelRadixEntry *next = changedFrom(tree, nextNode(tree, entry->rtn), since);
        if (visit(entry, context) != 0) return;
        entry = next;
    }
}

void zelRadixPrint(zelRadix *tree, zelRadixTextFn text) {
    zelRadixMaxPrint(tree, text, UINT32_MAX);
}

void zelRadixMaxPrint(zelRadix *tree, zelRadixTextFn text, uint32_t max) {
    if (!isTree(tree)) return;
    printf("radix tree \"%s\": up to %u bits, %u nodes, %u inserts, %u released, version %u\n", tree->rtt_name,
           static_cast<unsigned>(tree->rtt_maxbits), tree->rtt_nodes, tree->rtt_inserts, tree->rtt_released,
           tree->rtt_version);
    uint32_t entries = 0;
    for (const zelRadixNode *node = rootOf(tree); node; node = nextNode(tree, node))
        if (node->rtn_entry && ++entries <= max) printEntry(tree, node, text);
    if (entries > max) printf("  and %u more\n", entries - max);
}
