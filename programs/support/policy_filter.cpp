#include "policy_filter.h"

#include <algorithm>

#include "programs/support/policy_route.h"
#include "zel/policy.h"

namespace zel::programs {
namespace {

constexpr std::size_t rowsAtOnce = 512;

// Lists as they are while the read lock is held.
class Lists {
public:
    Lists(const PolicyFilter &filter, PolicyCounts &counts) : filter_(filter), counts_(counts) {
        aclReadLock();
        prefixes_[0] = ipPrefixListFind(filter.prefixes.c_str(), nullptr, ZEL_POLICY_IPV4);
        prefixes_[1] = ipPrefixListFind(filter.prefixes.c_str(), nullptr, ZEL_POLICY_IPV6);
        paths_ = bgpAspListFind(filter.paths.c_str());
        communities_ = bgpCommListFind(filter.communities.c_str());
    }
    ~Lists() { aclReadUnlock(); }
    Lists(const Lists &) = delete;
    Lists &operator=(const Lists &) = delete;

    bool permit(const zelPolicyRoute &route) {
        return (filter_.prefixes.empty() || permitPrefix(route)) && (filter_.paths.empty() || permitPath(route)) &&
               (filter_.communities.empty() || permitCommunities(route));
    }

private:
    bool permitPrefix(const zelPolicyRoute &route) {
        const bool isIpv6 = route.family == ZEL_POLICY_IPV6;
        zelPrefixList *list = prefixes_[isIpv6];
        ++counts_[{isIpv6 ? "prefix6" : "prefix", prefixListEntry(list, route.address, route.length, route.family)}];
        return prefixListCheckNew(list, nullptr, route.address, route.length, route.family, nullptr) == 0;
    }
    bool permitPath(const zelPolicyRoute &route) {
        ++counts_[{"aspath", bgpAspListEntry(paths_, route.path, route.pathLength)}];
        return bgpAccessASPMatch(paths_, route.path, route.pathLength) == 0;
    }
    bool permitCommunities(const zelPolicyRoute &route) {
        ++counts_[{"community", bgpCommListEntry(communities_, route.communities, route.communityCount)}];
        return bgpAccessCommMatch(communities_, route.communities, route.communityCount) == 0;
    }

    const PolicyFilter &filter_;
    PolicyCounts &counts_;
    zelPrefixList *prefixes_[2];
    const zelAspList *paths_;
    const zelCommList *communities_;
};

}  // namespace

PolicyCounts filterTable(TableFile &table, const PolicyFilter &filter) {
    PolicyCounts counts;
    if (filter.isEmpty()) return counts;
    PolicyRoute route;
    auto kept = table.rows.begin();
    for (std::size_t begin = 0; begin < table.rows.size(); begin += rowsAtOnce) {
        Lists lists(filter, counts);
        const std::size_t end = std::min(begin + rowsAtOnce, table.rows.size());
        for (std::size_t i = begin; i < end; ++i) {
            route.take(table, table.rows[i]);
            if (table.rows[i].isWithdrawal || lists.permit(route.route())) *kept++ = table.rows[i];
        }
    }
    table.rows.erase(kept, table.rows.end());
    return counts;
}

}  // namespace zel::programs
