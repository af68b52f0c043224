#include "bulk.h"

#include <arpa/inet.h>

#include <cstring>
#include <map>
#include <memory>

#include "programs/support/policy_route.h"
#include "programs/support/policy_text.h"
#include "programs/support/program.h"
#include "programs/support/table_file.h"

namespace zelpolicy {
namespace {

using zel::programs::PolicyConfig;
using zel::programs::Row;
using zel::programs::TableFile;

std::uint32_t wordOf(const std::uint8_t *bytes) {
    std::uint32_t word;
    memcpy(&word, bytes, sizeof word);
    return ntohl(word);
}

// One list, as it is asked: the verdict, and which entry gave it.
class Asked {
public:
    explicit Asked(const BulkList &list) : list_(list) {}
    virtual ~Asked() = default;
    virtual std::uint32_t verdict(const zelPolicyRoute &route) = 0;
    virtual std::uint32_t decides(const zelPolicyRoute &route) = 0;
    const BulkList &list() const { return list_; }

private:
    BulkList list_;
};

class AskedPrefix : public Asked {
public:
    using Asked::Asked;
    std::uint32_t verdict(const zelPolicyRoute &route) override {
        return prefixListCheckNew(find(route), list().name.c_str(), route.address, route.length, route.family, nullptr);
    }
    std::uint32_t decides(const zelPolicyRoute &route) override {
        return prefixListEntry(find(route), route.address, route.length, route.family);
    }

private:
    zelPrefixList *find(const zelPolicyRoute &route) const {
        return ipPrefixListFind(list().name.c_str(), nullptr, route.family);
    }
};

class AskedAcl : public Asked {
public:
    using Asked::Asked;
    std::uint32_t verdict(const zelPolicyRoute &route) override {
        if (route.family == ZEL_POLICY_IPV6) return aclV6AccessListCheckWithHandle(list_, route.address, route.address);
        return ipAccessListCheckWithHandle(list_, wordOf(route.address), 0);
    }
    std::uint32_t decides(const zelPolicyRoute &route) override {
        if (route.family == ZEL_POLICY_IPV6) return aclV6AccessListEntry(list_, route.address);
        return ipAccessListEntry(list_, wordOf(route.address), 0);
    }

private:
    const zelIpAcl *list_ = ipAccessListFind(list().name.c_str());
};

class AskedPath : public Asked {
public:
    using Asked::Asked;
    std::uint32_t verdict(const zelPolicyRoute &route) override {
        return static_cast<std::uint32_t>(bgpAccessASPMatch(list_, route.path, route.pathLength));
    }
    std::uint32_t decides(const zelPolicyRoute &route) override {
        return bgpAspListEntry(list_, route.path, route.pathLength);
    }

private:
    const zelAspList *list_ = bgpAspListFind(list().name.c_str());
};

class AskedCommunity : public Asked {
public:
    using Asked::Asked;
    std::uint32_t verdict(const zelPolicyRoute &route) override {
        return static_cast<std::uint32_t>(bgpAccessCommMatch(list_, route.communities, route.communityCount));
    }
    std::uint32_t decides(const zelPolicyRoute &route) override {
        return bgpCommListEntry(list_, route.communities, route.communityCount);
    }

private:
    const zelCommList *list_ = bgpCommListFind(list().name.c_str());
};

class AskedMap : public Asked {
public:
    using Asked::Asked;
    std::uint32_t verdict(const zelPolicyRoute &route) override {
        return ipRoutemapCheckWithHandleV4_V6(map_, &route, nullptr);
    }
    std::uint32_t decides(const zelPolicyRoute &route) override { return ipRoutemapSequence(map_, &route); }

private:
    const zelRouteMap *map_ = ipRouteMapFind(list().name.c_str());
};

std::unique_ptr<Asked> ask(const BulkList &list) {
    if (list.kind == "prefix") return std::make_unique<AskedPrefix>(list);
    if (list.kind == "acl") return std::make_unique<AskedAcl>(list);
    if (list.kind == "aspath") return std::make_unique<AskedPath>(list);
    if (list.kind == "community") return std::make_unique<AskedCommunity>(list);
    if (list.kind == "routemap") return std::make_unique<AskedMap>(list);
    return nullptr;
}

template <class Entry, class Text>
void name(std::vector<BulkCounts::Entry> &entries, const zel::programs::Lists<Entry> &lists, const std::string &list,
          const Text &text) {
    const auto found = lists.find(list);
    for (BulkCounts::Entry &entry : entries)
        for (const Entry &there : found != lists.end() ? found->second : std::vector<Entry>{})
            if (there.sequence == entry.sequence) {
                entry.action = there.action;
                entry.text = text(there);
            }
}

// Puts the texts of the entries beside what they decided.
void nameEntries(BulkCounts &counts, const PolicyConfig &texts) {
    const auto text = [](const auto &entry) { return zel::programs::textOf(entry); };
    const auto prefix = [](int family) {
        return [family](const auto &entry) { return zel::programs::textOf(entry, family); };
    };
    const std::string &list = counts.list.name;
    if (counts.list.kind == "prefix") {
        name(counts.entries, texts.prefix6, list, prefix(ZEL_POLICY_IPV6));
        name(counts.entries, texts.prefix, list, prefix(ZEL_POLICY_IPV4));
    } else if (counts.list.kind == "acl") {
        name(counts.entries, texts.ipv6, list, text);
        name(counts.entries, texts.ip, list, text);
    } else if (counts.list.kind == "aspath") {
        name(counts.entries, texts.paths, list, text);
    } else if (counts.list.kind == "community") {
        name(counts.entries, texts.communities, list, text);
    } else {
        name(counts.entries, texts.maps, list, [](const auto &) { return std::string("sequence"); });
    }
}

}  // namespace

bool runBulk(const std::string &file, const std::vector<BulkList> &lists, const PolicyConfig &texts, BulkResult &result,
             std::string &error) {
    TableFile table;
    if (!zel::programs::readTable(file, table)) {
        error = file + " cannot be read";
        return false;
    }
    std::vector<std::unique_ptr<Asked>> asked;
    for (const BulkList &list : lists) {
        asked.push_back(ask(list));
        if (!asked.back()) {
            error = "no list of the kind \"" + list.kind + "\" can be asked about routes";
            return false;
        }
        result.lists.push_back({list, 0, 0, {}});
    }
    std::vector<std::map<std::uint32_t, unsigned long>> decided(lists.size());
    result.unreadable = table.unreadable;
    zel::programs::PolicyRoute route;
    aclReadLock();
    for (const Row &row : table.rows) {
        if (row.isWithdrawal) continue;
        route.take(table, row);
        ++result.routes;
        bool isPermitted = true;
        const double before = zel::programs::monotonicSeconds();
        std::vector<std::uint32_t> verdicts;
        for (const auto &list : asked) verdicts.push_back(list->verdict(route.route()));
        result.seconds += zel::programs::monotonicSeconds() - before;
        for (std::size_t i = 0; i < asked.size(); ++i) {
            ++(verdicts[i] == 0 ? result.lists[i].permitted : result.lists[i].denied);
            ++decided[i][asked[i]->decides(route.route())];
            isPermitted = isPermitted && verdicts[i] == 0;
        }
        result.permittedByAll += isPermitted ? 1 : 0;
    }
    aclReadUnlock();
    for (std::size_t i = 0; i < asked.size(); ++i) {
        for (const auto &[sequence, routes] : decided[i]) result.lists[i].entries.push_back({sequence, 0, "", routes});
        nameEntries(result.lists[i], texts);
    }
    return true;
}

}  // namespace zelpolicy
