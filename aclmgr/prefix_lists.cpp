// The calls that set, extend and read prefix lists.
#include <algorithm>

#include "aclmgr/prefix_image.h"

namespace zel::aclmgr {
namespace {

bool hasAddresses(int family) {
    return policy::widthOf(family) != 0;
}

zelAclMgrKind prefixKind(int family) {
    return family == ZEL_POLICY_IPV6 ? ZEL_ACLMGR_PREFIX6 : ZEL_ACLMGR_PREFIX;
}

template <class Tables>
std::unique_ptr<PrefixDraft> readList(const Tables &tables, const char *name, int family) {
    const ListNode *list = tables.find(prefixKind(family), name);
    return list != nullptr ? readPrefixes(imageOf(*list), family) : nullptr;
}

}  // namespace
}  // namespace zel::aclmgr

using namespace zel::aclmgr;

uint32_t zelAclMgrSetPrefixList(zelAclMgr *manager, const char *name, int family, const zelAclPrefixEntry *entries,
                                uint32_t count) {
    const bool isComplete = entries != nullptr || count == 0;
    return changing(manager, isComplete && hasAddresses(family), rowOf(prefixKind(family))->noMemory,
                    [&](const zelAclMgr &given) {
                        PrefixDraft draft(family);
                        for (uint32_t i = 0; i < count; ++i)
                            if (const uint32_t code = draft.take(entries[i])) return code;
                        Change change(given);
                        if (const auto before = readList(change, name, family)) draft.keepHits(*before);
                        return change.set(prefixKind(family), name, draft);
                    });
}

uint32_t zelAclMgrAddPrefixEntry(zelAclMgr *manager, const char *name, int family, const zelAclPrefixEntry *entry) {
    return changing(manager, entry != nullptr && hasAddresses(family), rowOf(prefixKind(family))->noMemory,
                    [&](const zelAclMgr &given) {
                        Change change(given);
                        auto draft = readList(change, name, family);
                        if (!draft) draft = std::make_unique<PrefixDraft>(family);
                        if (const uint32_t code = draft->take(*entry)) return code;
                        return change.set(prefixKind(family), name, *draft);
                    });
}

int zelAclMgrGetPrefixEntries(zelAclMgr *manager, const char *name, int family, zelAclPrefixEntry *entries,
                              int capacity) {
    const bool isComplete = entries != nullptr || capacity <= 0;
    return reading(manager, isComplete && hasAddresses(family), [&](const zelAclMgr &given) {
        const Reading look(given);
        const auto draft = readList(look, name, family);
        if (!draft) return -1;
        const auto room = static_cast<std::size_t>(std::max(capacity, 0));
        std::copy_n(draft->items.begin(), std::min(draft->items.size(), room), entries);
        return static_cast<int>(draft->items.size());
    });
}
