// The segment and its root, lists by name, and images put in place.
#include "aclmgr/store.h"

#include <cerrno>
#include <cstring>
#include <memory>

#include "aclmgr/census.h"
#include "aclmgr/draft.h"
#include "base/host_check.h"
#include "zel/platform.h"

namespace zel::aclmgr {
namespace {

void *allocateForTree(std::size_t bytes) {
    return zelMC_MM_malloc(source, __LINE__, bytes);
}

void freeOfTree(void *block) {
    zelMC_MM_free(source, __LINE__, block);
}

constexpr const char *treeNames[policy::kindCount] = {"IP access lists",  "IPv4 prefix lists", "IPv6 prefix lists",
                                                      "AS-path lists",    "community lists",   "route maps",
                                                      "MAC access lists", "DHCP snooping",     "DHCP helper lists"};

// Roots are zero in a new segment, and half done when their maker was killed: nobody has put a list into them yet.
void prepare(policy::Root &root) {
    if (root.magic.load() == policy::Root::readyMagic) return;
    for (policy::ControlBlock *tables : {&root.aclNode, &root.acl2CB})
        for (std::size_t i = 0; i < policy::kindCount; ++i) startTree(*tables, static_cast<Kind>(i));
    root.magic.store(policy::Root::readyMagic, std::memory_order_release);
}

Bytes imageAt(Link link) {
    const auto *image = at<Image>(link);
    if (image == nullptr || image->magic != Image::validMagic) return {};
    const std::size_t bytes = image->bytes;
    if (bytes < sizeof(Image) || at<Image>(link, bytes) == nullptr) return {};
    return {reinterpret_cast<const std::uint8_t *>(image), bytes};
}

// Makes the image of a list with entries; 0: no memory.
Link makeImage(Kind kind, const ImageBuilder &builder) {
    const std::size_t bytes = builder.bytes();
    if (bytes > UINT32_MAX) return 0;
    std::unique_ptr<void, void (*)(void *)> block(zelMC_MM_calloc(source, __LINE__, 1, bytes), freeOfTree);
    auto *image = static_cast<Image *>(block.get());
    if (image == nullptr) return 0;
    *image = {Image::validMagic, static_cast<std::uint32_t>(bytes), kind, builder.entries()};
    builder.write(image);
    return policy::linkTo(block.release());
}

ListNode *nodeAt(Link link) {
    return const_cast<ListNode *>(at<ListNode>(link));
}

// The node that was spare longest, taken off the chain.
ListNode *takeSpare(policy::Root &root) {
    ListNode *node = nodeAt(root.firstSpare);
    if (node == nullptr) return nullptr;
    root.firstSpare = node->nextSpare;
    if (root.firstSpare == 0) root.lastSpare = 0;
    node->nextSpare = 0;
    return node;
}

ListNode *newNode(policy::Root &root) {
    auto *node = static_cast<ListNode *>(zelMC_MM_calloc(source, __LINE__, 1, sizeof(ListNode)));
    if (node == nullptr) return nullptr;
    node->nextNode = root.nodes.load(std::memory_order_relaxed);
    root.nodes.store(policy::linkTo(node), std::memory_order_release);
    return node;
}

}  // namespace

const void *believedBlock(std::uintptr_t address, std::size_t bytes, std::size_t alignment) {
    const auto *block = reinterpret_cast<const void *>(address);
    return address % alignment == 0 && zelPolicyIsInHeap(block, bytes) != 0 ? block : nullptr;
}

Bytes imageOf(const ListNode &list) {
    const Bytes image = imageAt(list.image.load(std::memory_order_acquire));
    return image && image.header()->kind == list.kind ? image : Bytes{};
}

void startTree(policy::ControlBlock &tables, Kind kind) {
    const auto i = static_cast<std::size_t>(kind);
    zelRadixInit(&tables.trees[i], treeNames[i], policy::nameBits, allocateForTree, freeOfTree, nullptr);
}

zelRadix &own(zelRadix &names) {
    names.rtt_alloc = allocateForTree;
    names.rtt_free = freeOfTree;
    names.rtt_deleted = nullptr;
    return names;
}

void keepSpare(policy::Root &root, ListNode &node) {
    node.nextSpare = 0;
    const Link link = policy::linkTo(&node);
    ListNode *last = nodeAt(root.lastSpare);
    (last != nullptr ? last->nextSpare : root.firstSpare) = link;
    root.lastSpare = link;
}

void dropImage(Link link) {
    const Bytes image = imageAt(link);
    if (!image) return;
    const ListOperations *operations = operationsOf(image.header()->kind);
    if (operations != nullptr && operations->drop != nullptr) operations->drop(image);
    auto *header = const_cast<Image *>(image.header());
    header->magic = 0;
    zelMC_MM_free(source, __LINE__, header);
}

// ---- Readings -------------------------------------------------------------------------------------------------------

const ListNode *Reading::find(zelAclMgrKind kind, const char *name) const {
    const Kind tree = rowOf(kind)->kind;
    return findIn(manager_.tables->trees[static_cast<std::size_t>(tree)], tree, name);
}

// ---- Changes --------------------------------------------------------------------------------------------------------

WriteLock::WriteLock() {
    hostCheck(ZEL_ShmWriteLock(ZEL_SHM_LOCK_POLICY) == 0, "policy tables: lock");
}

WriteLock::~WriteLock() {
    hostCheck(ZEL_ShmWriteUnLock(ZEL_SHM_LOCK_POLICY) == 0, "policy tables: unlock");
}

// Asking the lock clears its mark, so the segment keeps it: a repair that finds no memory is still due.
Change::Change(const zelAclMgr &manager) : manager_(manager) {
    if (zelShmLockWasAbandoned(ZEL_SHM_LOCK_POLICY) == 1) root().isRepairDue.store(1);
    if (root().isRepairDue.load() != 0) repair(root());
    root().isRepairDue.store(0);
    prepare(root());
}

zelRadix &Change::names(Kind kind) const {
    return manager_.tables->trees[static_cast<std::size_t>(kind)];
}

// Before a change at that name: a tree that somebody else wrote to is repaired.
void Change::makeSound(Kind kind, const char *name) {
    if (!isWaySound(names(kind), kind, name)) repair(root());
}

ListNode *Change::find(const KindRow *row, const char *name) const {
    return row != nullptr ? findIn(names(row->kind), row->kind, name) : nullptr;
}

// A node in no tree yet, with the name and no image.
ListNode *Change::makeNode(Kind kind, const char *name) {
    ListNode *node = takeSpare(root());
    if (node == nullptr) node = newNode(root());
    if (node == nullptr) return nullptr;
    node->entry = {};
    node->entry.rth_addr = reinterpret_cast<const std::uint8_t *>(node->name);
    memset(node->name, 0, sizeof node->name);
    memcpy(node->name, name, strnlen(name, policy::nameLength));
    node->kind = kind;
    node->isOfSecond = manager_.tables == &root().acl2CB;
    node->image.store(0);
    return node;
}

std::uint32_t Change::set(const KindRow *row, const char *name, const ImageBuilder &builder) {
    if (row == nullptr || name == nullptr || *name == 0) return codeValueRange;
    if (strlen(name) > policy::nameLength) return row->nameTooLong;
    makeSound(row->kind, name);
    const std::unique_ptr<const ImageBuilder, void (*)(const ImageBuilder *)> leftovers(
        &builder, [](const ImageBuilder *used) { used->abandon(); });
    const std::uint32_t refusal = builder.prepare();
    const Link image = refusal == 0 && builder.entries() != 0 ? makeImage(row->kind, builder) : 0;
    if (refusal != 0) return refusal;
    if (builder.entries() != 0 && image == 0) return row->noMemory;
    if (ListNode *list = find(row, name)) {
        dropImage(list->image.exchange(image, std::memory_order_acq_rel));
        return 0;
    }
    ListNode *list = makeNode(row->kind, name);
    if (list != nullptr) {
        list->image.store(image, std::memory_order_release);
        list->magic = ListNode::validMagic;
        if (zelRadixInsert(&own(names(row->kind)), &list->entry, policy::nameBits) == &list->entry) return 0;
        list->magic = 0;
        keepSpare(root(), *list);
    }
    dropImage(image);
    return row->noMemory;
}

void Change::remove(ListNode &list) {
    makeSound(list.kind, list.name);
    if (findIn(names(list.kind), list.kind, list.name) != &list) return;
    zelRadixRemove(&own(names(list.kind)), &list.entry);
    list.magic = 0;
    dropImage(list.image.exchange(0, std::memory_order_acq_rel));
    keepSpare(root(), list);
}

}  // namespace zel::aclmgr

using namespace zel::aclmgr;

namespace {

zelAclMgr *open(zelAclMgrTables tables, bool mayWrite) {
    if (tables != ZEL_ACLMGR_PRIMARY && tables != ZEL_ACLMGR_SECOND) return errno = EINVAL, nullptr;
    if (ZEL_InitShmSem() != 0) return nullptr;
    auto *root = static_cast<zel::policy::Root *>(zelPolicyAttachSegment(mayWrite ? 1 : 0));
    if (root == nullptr) return nullptr;
    auto *manager = static_cast<zelAclMgr *>(zelMC_calloc(source, __LINE__, 1, sizeof(zelAclMgr)));
    if (manager == nullptr) return nullptr;
    *manager = {root, tables == ZEL_ACLMGR_PRIMARY ? &root->aclNode : &root->acl2CB, mayWrite};
    return manager;
}

}  // namespace

zelAclMgr *zelAclMgrOpen(zelAclMgrTables tables) {
    const zel::platform::NoCancellation guard;
    zelAclMgr *manager = open(tables, true);
    if (manager == nullptr) return nullptr;
    const auto repairAndPrepare = [](const zelAclMgr &opened) {
        const Change change(opened);
        return 0u;
    };
    if (changing(manager, true, codeNoMemory, repairAndPrepare) == 0) return manager;
    zelAclMgrClose(manager);
    return errno = ENOMEM, nullptr;
}

zelAclMgr *zelAclMgrOpenToRead(zelAclMgrTables tables) {
    const zel::platform::NoCancellation guard;
    zelAclMgr *manager = open(tables, false);
    if (manager == nullptr || manager->root->magic.load() == zel::policy::Root::readyMagic) return manager;
    zelAclMgrClose(manager);
    return errno = ENOENT, nullptr;
}

void zelAclMgrClose(zelAclMgr *manager) {
    zelMC_free(source, __LINE__, manager);
}
