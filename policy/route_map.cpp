// Route maps: the first sequence of which every clause matches decides; a clause matches when one of its lists permits.
//
// The lists of a clause are found by name at every check, since they come and go without the map. What they say is
// taken as it is: a prefix list, an access list or an AS-path list that does not exist permits, and so matches, while a
// community list that does not exist matches nothing.
#include <cstring>

#include "base/wire.h"
#include "policy/prefix_layout.h"
#include "policy/route_map_layout.h"
#include "zel/policy.h"

namespace zel::policy {
namespace {

constexpr std::uint32_t permit = 0, deny = 1;

// An access list over an address: as a source, with the mask where extended entries look for the destination.
bool isPermitted(const char *name, int family, const std::uint8_t *address, std::uint32_t length) {
    const zelIpAcl *list = ipAccessListFind(name);
    if (family == ZEL_POLICY_IPV6) return aclV6FilterCheckOnlySrc(address, nullptr, list) == permit;
    const std::uint32_t mask = length == 0 ? 0 : UINT32_MAX << (32 - length);
    return ipAccessListCheckWithHandle(list, wire::load<std::uint32_t>(address), mask) == permit;
}

bool isPathPermitted(const char *name, const zelPolicyRoute &route) {
    const zelAspList *list = bgpAspListFind(name);
    return (route.path != nullptr ? bgpAccessASPMatch(list, route.path, route.pathLength)
                                  : bgp_as_path_match(list, route.pathText, nullptr)) == 0;
}

bool isPermittedBy(const char *name, std::uint32_t match, const zelPolicyRoute &route) {
    const std::uint32_t bits = 8 * widthOf(route.family), nextHopBits = 8 * widthOf(route.nextHopFamily);
    switch (match) {
        case ZEL_ACLMGR_MATCH_PREFIX:
            return bits != 0 &&
                   prefixListCheckNew(nullptr, name, route.address, route.length, route.family, nullptr) == permit;
        case ZEL_ACLMGR_MATCH_ADDRESS:
            return bits != 0 && route.length <= bits && isPermitted(name, route.family, route.address, route.length);
        case ZEL_ACLMGR_MATCH_NEXT_HOP:
            return nextHopBits != 0 && isPermitted(name, route.nextHopFamily, route.nextHop, nextHopBits);
        case ZEL_ACLMGR_MATCH_ASPATH:
            return isPathPermitted(name, route);
        case ZEL_ACLMGR_MATCH_COMMUNITY:
            return bgp_commlist_match(name, route.communities, route.communityCount) == permit;
        case ZEL_ACLMGR_MATCH_COMMUNITY_EXACT:
            return bgp_comm_match_exact(name, route.communities, route.communityCount) == permit;
        default:
            return false;
    }
}

class Walk {
public:
    Walk(const Bytes &image, const zelPolicyRoute &route)
        : image_(image), route_(route), left_(image.bytes / sizeof(const char *)) {}

    // The sequence that decides, or null.
    const zelAclMapEntry *firstMatch() {
        if (!image_) return nullptr;
        std::uint32_t count = 0;
        const zelAclMapEntry *entries = mapEntriesOf(image_, count);
        for (std::uint32_t i = 0; entries != nullptr && i < count; ++i)
            if (matches(entries[i])) return &entries[i];
        return nullptr;
    }

private:
    bool matches(const zelAclMapEntry &entry) {
        std::uint32_t count = 0;
        const zelAclClause *clauses = clausesOf(image_, entry, count);
        for (std::uint32_t i = 0; clauses != nullptr && i < count; ++i)
            if (!matches(clauses[i])) return false;
        return clauses != nullptr;
    }
    bool matches(const zelAclClause &clause) {
        std::uint32_t count = 0;
        const char *const *names = namesOf(image_, clause, count);
        for (std::uint32_t i = 0; names != nullptr && i < count && left_ != 0; ++i) {
            --left_;
            const char *name = nameAt(image_, names[i]);
            if (name != nullptr && isPermittedBy(name, matchOf(clause), route_)) return true;
        }
        return false;
    }

    const Bytes image_;
    const zelPolicyRoute &route_;
    std::size_t left_;  // names that may still be looked up: in a whole image each has a pointer of its own
};

const zelAclMapEntry *firstMatch(const zelRouteMap *map, const zelPolicyRoute *route) {
    return route != nullptr ? Walk(imageOf(map, Kind::routeMap), *route).firstMatch() : nullptr;
}

// Where the number stands, or would have to.
std::uint32_t *placeOf(const zelRmapPermittedSeqList &list, std::uint32_t sequence) {
    std::uint32_t *place = list.sequences + list.count;
    while (place != list.sequences && place[-1] >= sequence) --place;
    return place;
}

}  // namespace
}  // namespace zel::policy

using namespace zel::policy;

zelRouteMap *ipRouteMapFind(const char *name) {
    Root *tables = root();
    return tables != nullptr ? static_cast<zelRouteMap *>(findList(tables->aclNode, Kind::routeMap, name)) : nullptr;
}

uint32_t ipRoutemapCheckWithHandleV4_V6(const zelRouteMap *map, const zelPolicyRoute *route,
                                        zelRmapPermittedSeqList *permitted) {
    if (map == nullptr || readOnce(map->magic) != ListNode::validMagic) return permit;
    if (map->image.load(std::memory_order_relaxed) == 0) return permit;
    const zelAclMapEntry *entry = firstMatch(map, route);
    if (entry == nullptr) return deny;
    const std::uint32_t action = readOnce(entry->action);
    if (action == permit && permitted != nullptr) rmapAddEntSeqToPermittedSeqList(permitted, readOnce(entry->sequence));
    return action;
}

uint32_t ipRoutemapSequence(const zelRouteMap *map, const zelPolicyRoute *route) {
    const zelAclMapEntry *entry = firstMatch(map, route);
    return entry != nullptr ? readOnce(entry->sequence) : 0;
}

int rmapAddEntSeqToPermittedSeqList(zelRmapPermittedSeqList *list, uint32_t sequence) {
    if (list == nullptr) return -1;
    if (rmapEntSeqInPermittedSeqList(list, sequence)) return 0;
    if (list->count >= list->capacity) return -1;
    uint32_t *place = placeOf(*list, sequence), *end = list->sequences + list->count;
    memmove(place + 1, place, static_cast<size_t>(end - place) * sizeof *place);
    *place = sequence;
    ++list->count;
    return 0;
}

int rmapEntSeqInPermittedSeqList(const zelRmapPermittedSeqList *list, uint32_t sequence) {
    if (list == nullptr) return 0;
    const uint32_t *place = placeOf(*list, sequence);
    return place != list->sequences + list->count && *place == sequence;
}

int rmapEntSeqLessThanLastPermittedSeq(const zelRmapPermittedSeqList *list, uint32_t sequence) {
    return list != nullptr && list->count != 0 && sequence < list->sequences[list->count - 1];
}
