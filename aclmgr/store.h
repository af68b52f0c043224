// The store behind the calls of the writer: the segment and its root, lists by name, and images put in place.
//
// Whoever changes lists makes a draft of the whole list (aclmgr/draft.h), then, under a `Change`, has it written into
// an image and put in place of the one before:
//
//     PrefixDraft draft(entries, count);
//     if (const std::uint32_t code = draft.check()) return code;
//     Change change(*manager);
//     return change.set(ZEL_ACLMGR_PREFIX, name, draft);
//
// A change is one store: in the list node, or, for a new list and for one that goes, in the tree of names. What a
// killed writer leaves beyond that (blocks that nothing reaches, links that only writers follow, counts) is for
// `repair`, which the next Change runs before anything else.
//
// Whoever only reads has a `Reading`, follows what checks follow, and finds whole lists whatever is to be repaired.
#pragma once

#include <cstddef>
#include <cstdint>

#include "base/assertion.h"
#include "platform/cancellation.h"
#include "policy/read_lock.h"
#include "policy/tables.h"
#include "zel/aclmgr.h"

struct zelAclMgr {
    zel::policy::Root *root;
    zel::policy::ControlBlock *tables;
    bool mayWrite;
};

namespace zel::aclmgr {

using policy::Bytes;
using policy::Image;
using policy::Kind;
using policy::Link;
using policy::ListNode;

// All blocks of the policy heap that lists are made of stand under this tag.
inline constexpr char source[] = "zelAclMgr";

// What a kind of list is to the store; see aclmgr/draft.h. Null for a number that names no kind.
struct KindRow;
const KindRow *rowOf(zelAclMgrKind kind);

// What every call asks first.
inline bool isManager(const zelAclMgr *manager, int line = __builtin_LINE()) {
    return asserted(manager != nullptr, "manager", source, line);
}

// An image in the making.
class ImageBuilder {
public:
    virtual ~ImageBuilder() = default;
    // Of the list; without any it has no image.
    virtual std::uint32_t entries() const = 0;
    // Before anything changes: takes what the image will refer to outside itself. 0, or the code of why not.
    virtual std::uint32_t prepare() const { return 0; }
    // Gives back what was taken and is not the image's.
    virtual void abandon() const {}
    // Of the image, its header included; an upper bound will do.
    virtual std::size_t bytes() const = 0;
    // Fills the zeroed block behind the header, at its place for good. A reference that the image takes to something
    // outside becomes the image's, and is dropped with it.
    virtual void write(Image *at) const = 0;
};

// The block that a link or a pointer of the segment names, null when its bytes do not lie in the heap.
const void *believedBlock(std::uintptr_t address, std::size_t bytes, std::size_t alignment);
template <class T>
const T *at(Link link, std::size_t bytes = sizeof(T)) {
    return static_cast<const T *>(believedBlock(platform::policyAddress + link, bytes, alignof(T)));
}

// The image of a list, all of its bytes in the heap; empty when the list has no entries.
Bytes imageOf(const ListNode &list);

// The write lock, from the moment it is had to the end of the scope.
class WriteLock {
public:
    WriteLock();
    ~WriteLock();
    WriteLock(const WriteLock &) = delete;
    WriteLock &operator=(const WriteLock &) = delete;
};

// A look at the tables under their read lock. No cancellation point, and it waits while a writer has the lock.
class Reading {
public:
    explicit Reading(const zelAclMgr &manager) : manager_(manager) {}
    Reading(const Reading &) = delete;
    Reading &operator=(const Reading &) = delete;

    const ListNode *find(zelAclMgrKind kind, const char *name) const;

private:
    platform::NoCancellation guard_;
    policy::ReadLock lock_;
    const zelAclMgr &manager_;
};

// A change of the tables under their write lock. What a writer that died in it left is repaired first. No cancellation
// point, and it waits: for writers and readers that hold the lock.
class Change {
public:
    explicit Change(const zelAclMgr &manager);
    Change(const Change &) = delete;
    Change &operator=(const Change &) = delete;

    ListNode *find(const KindRow *row, const char *name) const;
    ListNode *find(zelAclMgrKind kind, const char *name) const { return find(rowOf(kind), name); }
    // Makes the list that of the builder, creating it when there is none of that name. 0, or the code of why nothing
    // changed: no memory, or a name that is none.
    std::uint32_t set(const KindRow *row, const char *name, const ImageBuilder &builder);
    std::uint32_t set(zelAclMgrKind kind, const char *name, const ImageBuilder &builder) {
        return set(rowOf(kind), name, builder);
    }
    void remove(ListNode &list);
    policy::Root &root() const { return *manager_.root; }

private:
    zelRadix &names(Kind kind) const;
    void makeSound(Kind kind, const char *name);
    ListNode *makeNode(Kind kind, const char *name);

    platform::NoCancellation guard_;
    WriteLock lock_;
    const zelAclMgr &manager_;
};

// Frees an image that no list leads to, and drops what it refers to.
void dropImage(Link image);
// Under the write lock: an empty tree of names, made anew; what it held before is forgotten.
void startTree(policy::ControlBlock &tables, Kind kind);
// Under the write lock: gives a tree of names the functions of this process, before it is changed.
zelRadix &own(zelRadix &names);
// Under the write lock: keeps the node of a list that is in no tree for another list.
void keepSpare(policy::Root &root, ListNode &node);
// Under the write lock: puts right what a writer that died in it left; see aclmgr/repair.cpp.
void repair(policy::Root &root);
// Under the write lock: how many faults there are, and which.
std::uint32_t audit(policy::Root &root, zelAclMgrAuditReport &report);

}  // namespace zel::aclmgr
