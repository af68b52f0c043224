// The calls that set, extend and read IP access lists, and what edits and audits need of them.
#include <algorithm>

#include "aclmgr/acl_image.h"

namespace zel::aclmgr {
namespace {

template <class Entry>
struct Chain;
template <>
struct Chain<zelAclIpEntry> {
    using Draft = IpDraft;
    static constexpr zelAclMgrKind kind = ZEL_ACLMGR_IP;
};
template <>
struct Chain<zelAclIpv6Entry> {
    using Draft = Ipv6Draft;
    static constexpr zelAclMgrKind kind = ZEL_ACLMGR_IPV6;
};

// The list as it is; an empty draft when there is none of that name.
template <class Entry>
typename Chain<Entry>::Draft read(const ListNode *list) {
    return typename Chain<Entry>::Draft(list != nullptr ? imageOf(*list) : Bytes{});
}

template <class Entry>
std::uint32_t edit(const zelAclMgr &manager, const char *name, bool clears, const Entry *entries, std::uint32_t count) {
    Change change(manager);
    auto draft = read<Entry>(change.find(Chain<Entry>::kind, name));
    if (clears) draft.clear();
    for (std::uint32_t i = 0; i < count; ++i)
        if (const std::uint32_t code = draft.add(entries[i])) return code;
    return change.set(Chain<Entry>::kind, name, draft);
}

template <class Entry>
std::uint32_t setList(const zelAclMgr *manager, const char *name, const Entry *entries, std::uint32_t count) {
    return changing(manager, entries != nullptr || count == 0, rowOf(Chain<Entry>::kind)->noMemory,
                    [&](const zelAclMgr &given) { return edit(given, name, true, entries, count); });
}

template <class Entry>
std::uint32_t addEntry(const zelAclMgr *manager, const char *name, const Entry *entry) {
    return changing(manager, entry != nullptr, rowOf(Chain<Entry>::kind)->noMemory,
                    [&](const zelAclMgr &given) { return edit(given, name, false, entry, 1); });
}

template <class Entry>
int getEntries(const zelAclMgr *manager, const char *name, Entry *entries, int capacity) {
    return reading(manager, entries != nullptr || capacity <= 0, [&](const zelAclMgr &given) {
        const Reading look(given);
        const ListNode *list = look.find(Chain<Entry>::kind, name);
        const auto draft = read<Entry>(list);
        if (list == nullptr || (draft.items.empty() && draft.entries() != 0)) return -1;
        std::copy_n(draft.items.begin(), std::min(draft.items.size(), static_cast<std::size_t>(std::max(capacity, 0))),
                    entries);
        return static_cast<int>(draft.items.size());
    });
}

template <class Draft>
std::unique_ptr<aclmgr::Draft> readDraft(const Bytes &image) {
    return std::make_unique<Draft>(image);
}

}  // namespace

const ListOperations ipOperations{readDraft<IpDraft>, isWholeAclImage, nullptr, IpDraft::lastSequence};
const ListOperations ipv6Operations{readDraft<Ipv6Draft>, isWholeAclImage, nullptr, Ipv6Draft::lastSequence};

}  // namespace zel::aclmgr

using namespace zel::aclmgr;

uint32_t zelAclMgrSetIpList(zelAclMgr *manager, const char *name, const zelAclIpEntry *entries, uint32_t count) {
    return setList(manager, name, entries, count);
}
uint32_t zelAclMgrSetIpv6List(zelAclMgr *manager, const char *name, const zelAclIpv6Entry *entries, uint32_t count) {
    return setList(manager, name, entries, count);
}

uint32_t zelAclMgrAddIpEntry(zelAclMgr *manager, const char *name, const zelAclIpEntry *entry) {
    return addEntry(manager, name, entry);
}
uint32_t zelAclMgrAddIpv6Entry(zelAclMgr *manager, const char *name, const zelAclIpv6Entry *entry) {
    return addEntry(manager, name, entry);
}

int zelAclMgrGetIpEntries(zelAclMgr *manager, const char *name, zelAclIpEntry *entries, int capacity) {
    return getEntries(manager, name, entries, capacity);
}
int zelAclMgrGetIpv6Entries(zelAclMgr *manager, const char *name, zelAclIpv6Entry *entries, int capacity) {
    return getEntries(manager, name, entries, capacity);
}
