#include "policy_apply.h"

#include <algorithm>
#include <array>
#include <memory>
#include <tuple>

namespace zel::programs {
namespace {

auto fieldsOf(const zelAclIpEntry &e) {
    return std::make_tuple(e.sequence, e.action, e.kind, e.protocol, e.sourceOperator, e.destinationOperator, e.source,
                           e.sourceWildcard, e.destination, e.destinationWildcard, e.sourcePort, e.sourcePortEnd,
                           e.destinationPort, e.destinationPortEnd);
}
auto fieldsOf(const zelAclIpv6Entry &e) {
    return std::make_tuple(e.sequence, e.action, std::to_array(e.source), std::to_array(e.sourceMask),
                           std::to_array(e.destination), std::to_array(e.destinationMask));
}
auto fieldsOf(const zelAclPrefixEntry &e) {
    return std::make_tuple(e.sequence, e.action, e.ge, e.le, std::to_array(e.address), std::to_array(e.mask));
}
template <class Entry>
const Entry &fieldsOf(const Entry &entry) {
    return entry;
}

template <class Entry>
bool areSame(const std::vector<Entry> &a, const std::vector<Entry> &b) {
    return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                      [](const Entry &x, const Entry &y) { return fieldsOf(x) == fieldsOf(y); });
}

// All entries that a call reads back: it is asked again when there were more than there was room.
template <class Entry, class Get>
std::vector<Entry> all(const Get &get) {
    std::vector<Entry> entries;
    for (int count = get(entries.data(), 0); count > static_cast<int>(entries.size());
         count = get(entries.data(), static_cast<int>(entries.size())))
        entries.resize(static_cast<std::size_t>(count));
    return entries;
}

using Name = char[ZEL_POLICY_NAME + 1];

std::vector<std::string> namesOf(zelAclMgr *manager, zelAclMgrKind kind) {
    const int count = zelAclMgrGetNames(manager, kind, nullptr, 0);
    if (count <= 0) return {};
    const auto names = std::make_unique<Name[]>(static_cast<std::size_t>(count));
    const int now = zelAclMgrGetNames(manager, kind, names.get(), count);
    std::vector<std::string> texts;
    for (int i = 0; i < std::min(count, now); ++i) texts.emplace_back(names[static_cast<std::size_t>(i)]);
    return texts;
}

// ---- Reading and writing one list of each kind
// ------------------------------------------------------------------------

std::vector<zelAclIpEntry> read(zelAclMgr *manager, const char *name, const zelAclIpEntry *) {
    return all<zelAclIpEntry>([&](auto *at, int room) { return zelAclMgrGetIpEntries(manager, name, at, room); });
}
std::uint32_t write(zelAclMgr *manager, const char *name, const std::vector<zelAclIpEntry> &list, zelAclMgrKind) {
    return zelAclMgrSetIpList(manager, name, list.data(), static_cast<std::uint32_t>(list.size()));
}

std::vector<zelAclIpv6Entry> read(zelAclMgr *manager, const char *name, const zelAclIpv6Entry *) {
    return all<zelAclIpv6Entry>([&](auto *at, int room) { return zelAclMgrGetIpv6Entries(manager, name, at, room); });
}
std::uint32_t write(zelAclMgr *manager, const char *name, const std::vector<zelAclIpv6Entry> &list, zelAclMgrKind) {
    return zelAclMgrSetIpv6List(manager, name, list.data(), static_cast<std::uint32_t>(list.size()));
}

std::vector<zelAclPrefixEntry> readPrefixes(zelAclMgr *manager, const char *name, int family) {
    return all<zelAclPrefixEntry>(
        [&](auto *at, int room) { return zelAclMgrGetPrefixEntries(manager, name, family, at, room); });
}
std::uint32_t write(zelAclMgr *manager, const char *name, const std::vector<zelAclPrefixEntry> &list,
                    zelAclMgrKind kind) {
    const int family = kind == ZEL_ACLMGR_PREFIX6 ? ZEL_POLICY_IPV6 : ZEL_POLICY_IPV4;
    return zelAclMgrSetPrefixList(manager, name, family, list.data(), static_cast<std::uint32_t>(list.size()));
}

// Patterns and names that are read back are good until the list changes: they are copied at once.
std::vector<PathEntry> read(zelAclMgr *manager, const char *name, const PathEntry *) {
    std::vector<PathEntry> list;
    for (const auto &entry :
         all<zelAclAspEntry>([&](auto *at, int room) { return zelAclMgrGetAspEntries(manager, name, at, room); }))
        list.push_back({entry.sequence, entry.action, entry.pattern});
    return list;
}
std::uint32_t write(zelAclMgr *manager, const char *name, const std::vector<PathEntry> &list, zelAclMgrKind) {
    std::vector<zelAclAspEntry> entries;
    for (const PathEntry &entry : list) entries.push_back({entry.sequence, entry.action, entry.pattern.c_str()});
    return zelAclMgrSetAspList(manager, name, entries.data(), static_cast<std::uint32_t>(entries.size()));
}

std::vector<CommunityEntry> read(zelAclMgr *manager, const char *name, const CommunityEntry *) {
    std::vector<std::uint32_t> values(1024);
    const auto get = [&](zelAclCommEntry *at, int room) {
        return zelAclMgrGetCommEntries(manager, name, at, room, values.data(),
                                       static_cast<std::uint32_t>(values.size()));
    };
    const auto isCut = [](const zelAclCommEntry &entry) { return entry.count != 0 && !entry.values; };
    auto entries = all<zelAclCommEntry>(get);
    while (std::any_of(entries.begin(), entries.end(), isCut)) {
        values.resize(values.size() * 2);
        entries = all<zelAclCommEntry>(get);
    }
    std::vector<CommunityEntry> list;
    for (const auto &entry : entries)
        list.push_back({entry.sequence,
                        entry.action,
                        entry.kind,
                        entry.localAs != 0,
                        entry.noAdvertise != 0,
                        entry.noExport != 0,
                        {entry.values, entry.values + entry.count},
                        entry.pattern ? entry.pattern : ""});
    return list;
}
std::uint32_t write(zelAclMgr *manager, const char *name, const std::vector<CommunityEntry> &list, zelAclMgrKind) {
    std::vector<zelAclCommEntry> entries;
    for (const CommunityEntry &entry : list)
        entries.push_back({entry.sequence, entry.action, entry.kind, entry.localAs, entry.noAdvertise, entry.noExport,
                           static_cast<std::uint32_t>(entry.values.size()), entry.values.data(),
                           entry.kind == 2 ? entry.pattern.c_str() : nullptr});
    return zelAclMgrSetCommList(manager, name, entries.data(), static_cast<std::uint32_t>(entries.size()));
}

std::vector<MapEntry> read(zelAclMgr *manager, const char *name, const MapEntry *) {
    std::vector<MapEntry> list;
    for (const auto &entry :
         all<zelAclMapEntry>([&](auto *at, int room) { return zelAclMgrGetMapEntries(manager, name, at, room); })) {
        list.push_back({entry.sequence, entry.action, {}});
        for (const zelAclClause *clause = entry.clauses; clause < entry.clauses + entry.count; ++clause)
            list.back().clauses.push_back({clause->match, {clause->names, clause->names + clause->count}});
    }
    return list;
}
std::uint32_t write(zelAclMgr *manager, const char *name, const std::vector<MapEntry> &list, zelAclMgrKind) {
    std::vector<std::vector<const char *>> names;
    std::vector<std::vector<zelAclClause>> clauses;
    std::vector<zelAclMapEntry> entries;
    for (const MapEntry &entry : list) {
        clauses.emplace_back();
        for (const MapEntry::Clause &clause : entry.clauses) {
            names.emplace_back();
            for (const std::string &named : clause.names) names.back().push_back(named.c_str());
            clauses.back().push_back(
                {clause.match, static_cast<std::uint32_t>(names.back().size()), names.back().data()});
        }
        entries.push_back(
            {entry.sequence, entry.action, static_cast<std::uint32_t>(clauses.back().size()), clauses.back().data()});
    }
    return zelAclMgrSetMapList(manager, name, entries.data(), static_cast<std::uint32_t>(entries.size()));
}

// ---- Differences ----------------------------------------------------------------------------------------------------

void fail(Applied &applied, const std::string &name, std::uint32_t code) {
    if (code != 0) applied.failures.push_back(name + ": " + textOfCode(code, name));
}

template <class Entry>
void apply(zelAclMgr *manager, zelAclMgrKind kind, const Lists<Entry> &wanted, const Lists<Entry> &there,
           Applied &applied) {
    for (const auto &[name, list] : wanted) {
        const auto before = there.find(name);
        if (before != there.end() && areSame(before->second, list)) {
            ++applied.kept;
            continue;
        }
        const std::uint32_t code = write(manager, name.c_str(), list, kind);
        fail(applied, name, code);
        if (code == 0) ++(before == there.end() ? applied.created : applied.changed);
    }
    for (const auto &[name, list] : there) {
        if (wanted.contains(name)) continue;
        const std::uint32_t code = zelAclMgrRemoveList(manager, kind, name.c_str());
        fail(applied, name, code);
        if (code == 0) ++applied.removed;
    }
}

template <class Entry>
Lists<Entry> readLists(zelAclMgr *manager, zelAclMgrKind kind) {
    Lists<Entry> lists;
    for (const std::string &name : namesOf(manager, kind))
        lists[name] = read(manager, name.c_str(), static_cast<const Entry *>(nullptr));
    return lists;
}

PolicyConfig readTables(zelAclMgr *manager) {
    const PolicyReadLock lock;
    PolicyConfig config;
    config.ip = readLists<zelAclIpEntry>(manager, ZEL_ACLMGR_IP);
    config.ipv6 = readLists<zelAclIpv6Entry>(manager, ZEL_ACLMGR_IPV6);
    for (const std::string &name : namesOf(manager, ZEL_ACLMGR_PREFIX))
        config.prefix[name] = readPrefixes(manager, name.c_str(), ZEL_POLICY_IPV4);
    for (const std::string &name : namesOf(manager, ZEL_ACLMGR_PREFIX6))
        config.prefix6[name] = readPrefixes(manager, name.c_str(), ZEL_POLICY_IPV6);
    config.paths = readLists<PathEntry>(manager, ZEL_ACLMGR_ASPATH);
    config.communities = readLists<CommunityEntry>(manager, ZEL_ACLMGR_COMMUNITY);
    config.maps = readLists<MapEntry>(manager, ZEL_ACLMGR_ROUTE_MAP);
    return config;
}

// An access list is one list with two chains, and shows as both kinds: one without entries counts as the kind that is
// wanted, else as that which the other chain is not, else as IPv4.
void tellApart(PolicyConfig &there, const PolicyConfig &wanted) {
    const auto isWanted = [](const auto &lists, const std::string &name) { return lists.contains(name); };
    std::erase_if(there.ip, [&](const auto &list) {
        const bool isOther = !there.ipv6[list.first].empty() || isWanted(wanted.ipv6, list.first);
        return list.second.empty() && isOther && !isWanted(wanted.ip, list.first);
    });
    std::erase_if(there.ipv6, [&](const auto &list) {
        return list.second.empty() && there.ip.contains(list.first) && !isWanted(wanted.ipv6, list.first);
    });
}

}  // namespace

PolicyConfig readPolicyTables(zelAclMgr *manager) {
    PolicyConfig config = readTables(manager);
    tellApart(config, {});
    return config;
}

// Lists come before the maps that name them, and go after them.
Applied applyPolicyConfig(zelAclMgr *manager, const PolicyConfig &config) {
    PolicyConfig there = readTables(manager);
    tellApart(there, config);
    Applied applied;
    apply(manager, ZEL_ACLMGR_IP, config.ip, there.ip, applied);
    apply(manager, ZEL_ACLMGR_IPV6, config.ipv6, there.ipv6, applied);
    apply(manager, ZEL_ACLMGR_PREFIX, config.prefix, there.prefix, applied);
    apply(manager, ZEL_ACLMGR_PREFIX6, config.prefix6, there.prefix6, applied);
    apply(manager, ZEL_ACLMGR_ASPATH, config.paths, there.paths, applied);
    apply(manager, ZEL_ACLMGR_COMMUNITY, config.communities, there.communities, applied);
    apply(manager, ZEL_ACLMGR_ROUTE_MAP, config.maps, there.maps, applied);
    return applied;
}

}  // namespace zel::programs
