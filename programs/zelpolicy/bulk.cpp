#include "bulk.h"

#include <algorithm>
#include <map>
#include <memory>
#include <span>

#include "programs/support/policy_apply.h"
#include "programs/support/policy_route.h"
#include "programs/support/policy_text.h"
#include "programs/support/program.h"
#include "programs/support/table_file.h"

namespace zelpolicy {
namespace {

using zel::programs::PolicyConfig;
using zel::programs::PolicyRoute;
using zel::programs::Row;
using zel::programs::TableFile;

constexpr std::size_t rowsAtOnce = 256;  // some 100 us of checks, for which a writer waits

// One list, as it is asked: the verdict, and which entry gave it.
class Asked {
public:
    explicit Asked(const BulkList &list) : list_(list) {}
    virtual ~Asked() = default;
    virtual std::uint32_t verdict(const PolicyRoute &route) = 0;
    virtual std::uint32_t decides(const PolicyRoute &route) = 0;
    // The kind of the entries that decide about a route: prefix and access lists have chains of either family.
    std::string entryKind(const zelPolicyRoute &route) const {
        const bool hasFamilies = list_.kind == "prefix" || list_.kind == "acl";
        return list_.kind + (hasFamilies && route.family == ZEL_POLICY_IPV6 ? "6" : "");
    }
    const BulkList &list() const { return list_; }

private:
    BulkList list_;
};

class AskedPrefix : public Asked {
public:
    using Asked::Asked;
    std::uint32_t verdict(const PolicyRoute &asked) override {
        const zelPolicyRoute &route = asked.route();
        return prefixListCheckNew(find(route), list().name.c_str(), route.address, route.length, route.family, nullptr);
    }
    std::uint32_t decides(const PolicyRoute &asked) override {
        const zelPolicyRoute &route = asked.route();
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
    std::uint32_t verdict(const PolicyRoute &asked) override {
        const zelPolicyRoute &route = asked.route();
        if (route.family == ZEL_POLICY_IPV6) return aclV6AccessListCheckWithHandle(list_, route.address, route.address);
        return ipAccessListCheckWithHandle(list_, asked.word(), 0);
    }
    std::uint32_t decides(const PolicyRoute &asked) override {
        const zelPolicyRoute &route = asked.route();
        if (route.family == ZEL_POLICY_IPV6) return aclV6AccessListEntry(list_, route.address);
        return ipAccessListEntry(list_, asked.word(), 0);
    }

private:
    const zelIpAcl *list_ = ipAccessListFind(list().name.c_str());
};

class AskedPath : public Asked {
public:
    using Asked::Asked;
    std::uint32_t verdict(const PolicyRoute &asked) override {
        const zelPolicyRoute &route = asked.route();
        return static_cast<std::uint32_t>(bgpAccessASPMatch(list_, route.path, route.pathLength));
    }
    std::uint32_t decides(const PolicyRoute &asked) override {
        const zelPolicyRoute &route = asked.route();
        return bgpAspListEntry(list_, route.path, route.pathLength);
    }

private:
    const zelAspList *list_ = bgpAspListFind(list().name.c_str());
};

class AskedCommunity : public Asked {
public:
    using Asked::Asked;
    std::uint32_t verdict(const PolicyRoute &asked) override {
        const zelPolicyRoute &route = asked.route();
        return static_cast<std::uint32_t>(bgpAccessCommMatch(list_, route.communities, route.communityCount));
    }
    std::uint32_t decides(const PolicyRoute &asked) override {
        const zelPolicyRoute &route = asked.route();
        return bgpCommListEntry(list_, route.communities, route.communityCount);
    }

private:
    const zelCommList *list_ = bgpCommListFind(list().name.c_str());
};

class AskedMap : public Asked {
public:
    using Asked::Asked;
    std::uint32_t verdict(const PolicyRoute &asked) override {
        const zelPolicyRoute &route = asked.route();
        return ipRoutemapCheckWithHandleV4_V6(map_, &route, nullptr);
    }
    std::uint32_t decides(const PolicyRoute &asked) override { return ipRoutemapSequence(map_, &asked.route()); }

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

// Counts in the making.
class Counting {
public:
    Counting(const std::vector<BulkList> &lists, BulkResult &result) : result_(result), decided_(lists.size()) {
        for (const BulkList &list : lists) result_.lists.push_back({list, 0, 0, {}});
    }

    // All under one read lock: handles are good so long.
    void count(const TableFile &table, std::span<const Row> rows) {
        const zel::programs::PolicyReadLock lock;
        std::vector<std::unique_ptr<Asked>> asked;
        for (const BulkCounts &counts : result_.lists) asked.push_back(ask(counts.list));
        for (const Row &row : rows)
            if (!row.isWithdrawal) count(table, row, asked);
    }

    void finish(const PolicyConfig &texts) {
        for (std::size_t i = 0; i < decided_.size(); ++i) {
            BulkCounts &counts = result_.lists[i];
            for (const auto &[entry, routes] : decided_[i])
                counts.entries.push_back(
                    {entry.second, textOfEntry(texts, entry.first, counts.list.name, entry.second), routes});
        }
    }

private:
    void count(const TableFile &table, const Row &row, const std::vector<std::unique_ptr<Asked>> &asked) {
        route_.take(table, row);
        ++result_.routes;
        bool isPermitted = true;
        const double before = zel::programs::monotonicSeconds();
        verdicts_.clear();
        for (const auto &list : asked) verdicts_.push_back(list->verdict(route_));
        result_.seconds += zel::programs::monotonicSeconds() - before;
        for (std::size_t i = 0; i < asked.size(); ++i) {
            ++(verdicts_[i] == 0 ? result_.lists[i].permitted : result_.lists[i].denied);
            ++decided_[i][{asked[i]->entryKind(route_.route()), asked[i]->decides(route_)}];
            isPermitted = isPermitted && verdicts_[i] == 0;
        }
        result_.permittedByAll += isPermitted ? 1 : 0;
    }

    BulkResult &result_;
    std::vector<std::map<std::pair<std::string, std::uint32_t>, unsigned long>> decided_;
    PolicyRoute route_;
    std::vector<std::uint32_t> verdicts_;
};

}  // namespace

bool runBulk(const std::string &file, const std::vector<BulkList> &lists, const PolicyConfig &texts, BulkResult &result,
             std::string &error) {
    for (const BulkList &list : lists) {
        if (ask(list)) continue;
        error = "no list of the kind \"" + list.kind + "\" can be asked about routes";
        return false;
    }
    TableFile table;
    if (!zel::programs::readTable(file, table)) {
        error = file + " cannot be read";
        return false;
    }
    result.unreadable = table.unreadable;
    Counting counting(lists, result);
    const std::span<const Row> rows = table.rows;
    for (std::size_t from = 0; from < rows.size(); from += rowsAtOnce)
        counting.count(table, rows.subspan(from, std::min(rowsAtOnce, rows.size() - from)));
    counting.finish(texts);
    return true;
}

}  // namespace zelpolicy
