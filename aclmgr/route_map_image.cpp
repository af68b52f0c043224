// Route maps: the calls, and their images. Everything in an image stands where the next thing of its kind goes, in the
// order of the draft.
#include "aclmgr/route_map_image.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "policy/route_map_layout.h"

namespace zel::aclmgr {
namespace {

constexpr std::uint32_t codeEntryExists = 0x39000009, codeTwoKinds = 0x3900002b;

bool isName(const char *name) {
    return name != nullptr && *name != '\0' && strnlen(name, policy::nameLength + 1) <= policy::nameLength;
}

bool isMatch(std::uint32_t match) {
    return match >= ZEL_ACLMGR_MATCH_PREFIX && match <= ZEL_ACLMGR_MATCH_COMMUNITY_EXACT;
}

bool isClause(const zelAclClause &clause) {
    return isMatch(policy::matchOf(clause)) && clause.count != 0 && clause.names != nullptr &&
           std::all_of(clause.names, clause.names + clause.count, isName);
}

bool asksFor(const zelAclMapEntry &entry, zelAclMatch match) {
    return std::any_of(entry.clauses, entry.clauses + entry.count,
                       [match](const zelAclClause &clause) { return clause.match == match; });
}

// How much of everything an image takes, and where the next of each goes.
struct Places {
    std::size_t entries = 0, clauses = 0, names = 0, letters = policy::nameLength;

    explicit Places(const std::vector<MapItem> &items) : entries(items.size()) {
        for (const MapItem &item : items) {
            clauses += item.clauses.size();
            for (const MapItem::Clause &clause : item.clauses) {
                names += clause.names.size();
                for (const std::string &name : clause.names) letters += name.size() + 1;
            }
        }
    }
    std::size_t clausesAt() const { return sizeof(Image) + entries * sizeof(zelAclMapEntry); }
    std::size_t namesAt() const { return clausesAt() + clauses * sizeof(zelAclClause); }
    std::size_t lettersAt() const { return namesAt() + names * sizeof(const char *); }
    std::size_t bytes() const { return lettersAt() + letters; }
};
static_assert(sizeof(Image) % alignof(zelAclMapEntry) == 0 && sizeof(zelAclMapEntry) % alignof(zelAclClause) == 0);

// Whoever reads entries back takes names as they stand.
bool isTerminated(const Bytes &image, const char *name) {
    const auto left = static_cast<std::size_t>(reinterpret_cast<const char *>(image.begin) + image.bytes - name);
    return memchr(name, 0, std::min(left, policy::nameLength + 1)) != nullptr;
}

// Visits the entries, clauses and names that lie in the image; whether these were all.
template <class Entry, class Clause, class Name>
bool walk(const Bytes &image, Entry onEntry, Clause onClause, Name onName) {
    std::uint32_t entryCount = 0, clauseCount = 0, nameCount = 0;
    const zelAclMapEntry *entries = policy::mapEntriesOf(image, entryCount);
    std::size_t left = image.bytes;  // whatever the links say, there are not more names and clauses than bytes
    for (std::uint32_t i = 0; entries != nullptr && i < entryCount; ++i) {
        const zelAclClause *clauses = policy::clausesOf(image, entries[i], clauseCount);
        if (clauses == nullptr) return false;
        onEntry(entries[i]);
        for (std::uint32_t j = 0; j < clauseCount; ++j) {
            const char *const *names = policy::namesOf(image, clauses[j], nameCount);
            if (names == nullptr || !isMatch(policy::matchOf(clauses[j])) || nameCount >= left) return false;
            left -= nameCount + 1;
            onClause(clauses[j]);
            for (std::uint32_t k = 0; k < nameCount; ++k) {
                const char *name = policy::nameAt(image, names[k]);
                if (name == nullptr || !isTerminated(image, name)) return false;
                onName(name);
            }
        }
    }
    return entries != nullptr;
}

std::unique_ptr<MapDraft> readItems(const Bytes &image) {
    auto draft = std::make_unique<MapDraft>();
    if (!image) return draft;
    std::vector<MapItem> &items = draft->items;
    walk(
        image,
        [&](const zelAclMapEntry &entry) {
            items.push_back({entry.sequence, entry.action, {}});
        },
        [&](const zelAclClause &clause) {
            items.back().clauses.push_back({clause.match, {}});
        },
        [&](const char *name) { items.back().clauses.back().names.emplace_back(name); });
    return draft;
}

std::unique_ptr<Draft> readMap(const Bytes &image) {
    return readItems(image);
}

}  // namespace

std::uint32_t MapDraft::take(const zelAclMapEntry &entry) {
    if (entry.count != 0 && entry.clauses == nullptr) return codeValueRange;
    if (!std::all_of(entry.clauses, entry.clauses + entry.count, isClause)) return codeValueRange;
    if (asksFor(entry, ZEL_ACLMGR_MATCH_PREFIX) && asksFor(entry, ZEL_ACLMGR_MATCH_ADDRESS)) return codeTwoKinds;
    MapItem item{entry.sequence, entry.action, {}};
    for (const zelAclClause *clause = entry.clauses; clause < entry.clauses + entry.count; ++clause)
        item.clauses.push_back({clause->match, {clause->names, clause->names + clause->count}});
    const std::uint32_t code = add(std::move(item));
    return code == codeSequenceExists ? codeEntryExists : code;
}

std::size_t MapDraft::bytes() const {
    return Places(items).bytes();
}

void MapDraft::write(Image *at) const {
    const Places places(items);
    auto *begin = reinterpret_cast<std::uint8_t *>(at);
    auto *entry = reinterpret_cast<zelAclMapEntry *>(begin + sizeof(Image));
    auto *clause = reinterpret_cast<zelAclClause *>(begin + places.clausesAt());
    auto *name = reinterpret_cast<const char **>(begin + places.namesAt());
    auto *letters = reinterpret_cast<char *>(begin + places.lettersAt());
    for (const MapItem &item : items) {
        *entry++ = {item.sequence, item.action, static_cast<std::uint32_t>(item.clauses.size()), clause};
        for (const MapItem::Clause &from : item.clauses) {
            *clause++ = {from.match, static_cast<std::uint32_t>(from.names.size()), name};
            for (const std::string &text : from.names) {
                *name++ = letters;
                memcpy(letters, text.c_str(), text.size() + 1);
                letters += text.size() + 1;
            }
        }
    }
}

bool isWholeMap(const Bytes &image) {
    std::uint32_t last = 0;
    bool isInOrder = true;
    return walk(
               image,
               [&](const zelAclMapEntry &entry) {
                   isInOrder = isInOrder && entry.sequence > last;
                   last = entry.sequence;
               },
               [](const zelAclClause &) {}, [](const char *) {}) &&
           isInOrder;
}

const ListOperations mapOperations{readMap, isWholeMap, nullptr, MapDraft::lastSequence};

}  // namespace zel::aclmgr

using namespace zel::aclmgr;

uint32_t zelAclMgrSetMapList(zelAclMgr *manager, const char *name, const zelAclMapEntry *entries, uint32_t count) {
    return changing(manager, entries != nullptr || count == 0, rowOf(ZEL_ACLMGR_ROUTE_MAP)->noMemory,
                    [&](const zelAclMgr &given) {
                        MapDraft draft;
                        for (uint32_t i = 0; i < count; ++i)
                            if (const uint32_t code = draft.take(entries[i])) return code;
                        Change change(given);
                        return change.set(ZEL_ACLMGR_ROUTE_MAP, name, draft);
                    });
}

uint32_t zelAclMgrAddMapEntry(zelAclMgr *manager, const char *name, const zelAclMapEntry *entry) {
    return changing(manager, entry != nullptr, rowOf(ZEL_ACLMGR_ROUTE_MAP)->noMemory, [&](const zelAclMgr &given) {
        Change change(given);
        const ListNode *list = change.find(ZEL_ACLMGR_ROUTE_MAP, name);
        const auto draft = readItems(list != nullptr ? imageOf(*list) : Bytes{});
        if (const uint32_t code = draft->take(*entry)) return code;
        return change.set(ZEL_ACLMGR_ROUTE_MAP, name, *draft);
    });
}

int zelAclMgrGetMapEntries(zelAclMgr *manager, const char *name, zelAclMapEntry *entries, int capacity) {
    return reading(manager, entries != nullptr || capacity <= 0, [&](const zelAclMgr &given) {
        const Reading look(given);
        const ListNode *list = look.find(ZEL_ACLMGR_ROUTE_MAP, name);
        if (list == nullptr) return -1;
        const Bytes image = imageOf(*list);
        if (!image || !isWholeMap(image)) return 0;
        uint32_t count = 0;
        const zelAclMapEntry *from = zel::policy::mapEntriesOf(image, count);
        std::copy_n(from, std::min(count, static_cast<uint32_t>(std::max(capacity, 0))), entries);
        return static_cast<int>(count);
    });
}
