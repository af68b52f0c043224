// What the first writer puts right that comes after one that died, and how an audit tells that nothing is left to do.
//
// Checks see whole lists whatever was half done, so this is about what only writers look at: parent links, counts and
// unused nodes of the trees of names; which list nodes are spare; references of expressions; blocks of the heap that
// nothing leads to. All of it is made anew from what checks see. A repair that is itself cut short leaves the lock's
// mark again, and is begun anew.
//
// A tree whose links are not those of a tree was written to by somebody else. It is built anew from the nodes of lists,
// all of which hang on a chain of their own; meanwhile, and only then, checks may miss lists.
#include <algorithm>
#include <iterator>

#include "aclmgr/attribute_lists.h"
#include "aclmgr/census.h"
#include "aclmgr/draft.h"
#include "zel/platform.h"

namespace zel::aclmgr {
namespace {

void rebuildTree(policy::Root &root, policy::ControlBlock &tables, Kind kind) {
    startTree(tables, kind);
    const bool isSecond = &tables == &root.acl2CB;
    for (ListNode *node : allNodes(root)) {
        if (node->magic != ListNode::validMagic || node->kind != kind || node->isOfSecond != isSecond) continue;
        node->entry = {};
        node->entry.rth_addr = reinterpret_cast<const std::uint8_t *>(node->name);
        zelRadixInsert(&tables.trees[static_cast<std::size_t>(kind)], &node->entry, policy::nameBits);
    }
}

void repairTrees(policy::Root &root) {
    forEachTree(root, [&root](zelRadix &tree, policy::ControlBlock &tables, Kind kind) {
        if (!countTree(tree, kind).isSound || zelRadixRepair(&own(tree)) != 0) rebuildTree(root, tables, kind);
    });
}

// The nodes of lists that are in no tree.
std::vector<ListNode *> idleNodes(const Census &census) {
    std::vector<ListNode *> nodes = census.nodes, lists = census.lists, idle;
    std::sort(nodes.begin(), nodes.end());
    std::sort(lists.begin(), lists.end());
    std::set_difference(nodes.begin(), nodes.end(), lists.begin(), lists.end(), std::back_inserter(idle));
    return idle;
}

void collectSpares(policy::Root &root, const Census &census) {
    root.firstSpare = root.lastSpare = 0;
    for (ListNode *node : idleNodes(census)) {
        node->magic = 0;
        node->image.store(0);
        keepSpare(root, *node);
    }
}

std::uint32_t countSpares(const policy::Root &root, std::size_t most) {
    std::uint32_t count = 0;
    for (const auto *node = at<ListNode>(root.firstSpare); node != nullptr && count < most;
         node = at<ListNode>(node->nextSpare))
        count += node->magic == 0;
    return count;
}

bool sweep(const Census &census, bool recovers, zelPolicyHeapReport &report) {
    return zelPolicyHeapSweep(source, census.blocks.data(), census.blocks.size(), recovers ? 1 : 0, &report) == 0;
}

}  // namespace

void repair(policy::Root &root) {
    if (root.magic.load() != policy::Root::readyMagic) return;
    repairTrees(root);
    const Census census = takeCensus(root);
    collectSpares(root, census);
    repairExpressions(root, census.images);
    zelPolicyHeapReport report;
    sweep(census, true, report);
}

std::uint32_t audit(policy::Root &root, zelAclMgrAuditReport &report) {
    const Census census = takeCensus(root);
    zelPolicyHeapReport heap{};
    const bool isHeapWhole = sweep(census, false, heap);
    report = {};
    report.lists = static_cast<std::uint32_t>(census.lists.size());
    report.images = static_cast<std::uint32_t>(census.images.size());
    report.spareNodes = countSpares(root, census.nodes.size());
    report.blocks = heap.blocks;
    report.bytes = heap.bytes;
    report.brokenTrees = census.brokenTrees;
    report.brokenLists = census.brokenLists;
    report.lostNodes = static_cast<std::uint32_t>(idleNodes(census).size()) - report.spareNodes;
    report.lostBlocks = heap.lostBlocks;
    report.lostBytes = heap.lostBytes;
    report.strays = heap.strays;
    auditExpressions(root, census.images, report);
    const std::uint64_t faults = std::uint64_t{report.brokenTrees} + report.brokenLists + report.lostNodes +
                                 report.wrongReferences + report.lostBlocks + report.strays + (isHeapWhole ? 0 : 1);
    return static_cast<std::uint32_t>(std::min<std::uint64_t>(faults, UINT32_MAX));
}

}  // namespace zel::aclmgr

uint32_t zelAclMgrAudit(zelAclMgr *manager, zelAclMgrAuditReport *report) {
    zelAclMgrAuditReport own{};
    if (report == nullptr) report = &own;
    *report = {};
    const auto look = [&](const zelAclMgr &given) {
        const zel::aclmgr::Change change(given);
        return zel::aclmgr::audit(change.root(), *report);
    };
    const bool mayWrite = manager == nullptr || manager->mayWrite;
    return zel::aclmgr::answer(manager, mayWrite, UINT32_MAX, UINT32_MAX, look, __LINE__);
}
