// The tables of the policy segment, as their writer leaves them and the checks read them.
//
// Names lead to list nodes through one radix tree for each kind of list; a list node leads to the list's image. An
// image is one block of the policy heap that holds a whole list: its entries and everything made from them to find a
// match fast. Images never change (but for hit counts): whoever edits a list builds another image aside, stores its
// place in the list node with one store, and frees the old one. So a check that has read that place once sees one state
// of the list, entries and fast forms alike, and a writer that is killed at any instruction leaves the old list or the
// new one.
//
// Everything here is at the same address in every process, yet links are offsets from the segment's begin, except those
// of the radix trees. A process that may write the segment may write anything into it, so a check believes no link
// before it has been found to lie in the segment, and no count before it has been held against the image's size.
//
// Writers hold the write side of ZEL_SHM_LOCK_POLICY; so may whoever reads hold its read side, and must as long as he
// wants what he found to stay.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "platform/process.h"
#include "platform/segment.h"
#include "zel/containers.h"
#include "zel/policy.h"

namespace zel::policy {

// The kinds of list that have a tree of names of their own.
enum class Kind : std::uint8_t { ipAcl, prefix4, prefix6, asPath, community, routeMap, macAcl, dhcpSnoop, dhcpHelper };
inline constexpr std::size_t kindCount = 9;

// Names are compared as zero-padded strings of 140 bytes.
inline constexpr std::size_t nameLength = 140;
inline constexpr std::uint32_t nameBits = nameLength * 8;

// An offset from the begin of the policy segment; 0 is none.
using Link = std::uint32_t;

// Begins every image; aligned for all that stands in one.
struct alignas(std::uint64_t) Image {
    static constexpr std::uint32_t validMagic = 0x7a696d67;
    std::uint32_t magic;
    std::uint32_t bytes;  // of the whole block, this header included
    Kind kind;
    std::uint32_t entries;  // of the list; an image has at least one
};

// One list. Its place is kept as long as the list exists, whatever becomes of its entries. The memory of a removed list
// only becomes a list again, the one removed longest ago first: who holds on to a stale handle finds no magic there, or
// another list.
struct ListNode {
    static constexpr std::uint32_t validMagic = 0x7a6c7374;
    zelRadixEntry entry;  // in the tree of names; the key is `name`
    std::uint32_t magic;  // cleared when the list is removed
    Kind kind;
    bool isOfSecond;  // set of tables
    char name[nameLength + 1];
    std::atomic<Link> image;  // 0: the list has no entries
    Link nextNode;            // of all nodes ever made
    Link nextSpare;           // of those whose lists were removed
};

// One set of tables: a tree of names for each kind.
struct ControlBlock {
    zelRadix trees[kindCount];
};

// What the expressions share; see policy/expression.h for the records.
struct ExpressionRoots {
    std::atomic<Link> live;                 // all expressions, linked through their `next`
    std::atomic<std::uint32_t> clients;     // bits of the processes that cache results
    std::atomic<std::uint32_t> lastNumber;  // numbers of expressions are not used again
    platform::ProcessId owners[32];         // of the clients' bits
};

// Stands at the root of the policy segment; all zero until a writer has prepared it.
struct Root {
    static constexpr std::uint32_t readyMagic = 0x7a616331;
    std::atomic<std::uint32_t> magic;  // written last
    ControlBlock aclNode;
    ControlBlock acl2CB;
    ExpressionRoots expressions;
    std::atomic<Link> nodes;  // for writers: the list nodes made last, and the removed ones from the oldest on
    Link firstSpare, lastSpare;
    std::atomic<std::uint32_t> isRepairDue;  // a writer died in a change, and nobody has put right yet what it left
};
static_assert(sizeof(Root) <= platform::policyRootBytes);

// A pointer or number of the segment, read once: it may change at any moment.
template <class T>
T readOnce(const T &value) {
    return __atomic_load_n(&value, __ATOMIC_ACQUIRE);
}

// The root, attaching the segment at first use; null while there is none, or none that a writer has prepared. A process
// that finds none looks again at most once a second.
Root *root();

// The object that a pointer of the segment names, or null when it does not lie in the heap part of it, or is
// misaligned.
template <class T>
// NOLINTNEXTLINE(bugprone-sizeof-expression): of a tree's slabs pointers are read, whose own size is meant
const T *believed(std::uintptr_t address, std::size_t bytes = sizeof(T)) {
    return address % alignof(T) == 0 && platform::isInPolicyHeap(address, bytes) ? reinterpret_cast<const T *>(address)
                                                                                 : nullptr;
}
template <class T>
const T *at(Link link, std::size_t bytes = sizeof(T)) {
    return believed<T>(platform::policyAddress + link, bytes);
}
inline Link linkTo(const void *object) {
    return static_cast<Link>(reinterpret_cast<std::uintptr_t>(object) - platform::policyAddress);
}

// The list of that name, or null.
ListNode *findList(const ControlBlock &tables, Kind kind, const char *name);
ListNode *findList(const zelRadix *names, Kind kind, const char *name);

// An image as a check holds it: its size was read once and lies in the segment with all its bytes.
struct Bytes {
    const std::uint8_t *begin = nullptr;
    std::size_t bytes = 0;
    const Image *header() const { return reinterpret_cast<const Image *>(begin); }
    explicit operator bool() const { return begin != nullptr; }
};

// The image of a list; none when the list has no entries, is not of that kind, or says what is not to be believed.
Bytes imageOf(const ListNode *list, Kind kind);

// Bytes of an image by their distance from its begin, null when they are not all inside.
inline const void *inside(const Bytes &image, std::size_t offset, std::size_t bytes) {
    const bool isInside = offset <= image.bytes && bytes <= image.bytes - offset;
    return isInside ? image.begin + offset : nullptr;
}
template <class T>
const T *inside(const Bytes &image, std::size_t offset, std::size_t count = 1) {
    return offset % alignof(T) == 0 && count <= image.bytes / sizeof(T)
               ? static_cast<const T *>(inside(image, offset, count * sizeof(T)))
               : nullptr;
}

}  // namespace zel::policy

// The handles of the public interface.
struct zelIpAcl : zel::policy::ListNode {};
struct zelPrefixList : zel::policy::ListNode {};
struct zelAspList : zel::policy::ListNode {};
struct zelCommList : zel::policy::ListNode {};
struct zelRouteMap : zel::policy::ListNode {};
