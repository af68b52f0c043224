#include "redistribution.h"

#include <algorithm>
#include <cstring>

#include "programs/support/program.h"
#include "zel/ipc.h"

namespace zelrtmd {
namespace {

constexpr std::uint32_t retransmitSeconds = 1;
constexpr std::uint8_t patienceSeconds = 10;  // without an acknowledgement
constexpr int windowsQueued = 2;
constexpr unsigned mostPrefixesAtOnce = 2000;  // so that a long walk leaves room for other messages
constexpr std::uint32_t behindAllBits = 255;

// Whether the task table knows the client where it says it is.
bool isReachable(const Client &client, int service, int instance) {
    zelTmeTaskEntry entry{};
    if (zelTmeGetTaskEntry(service, instance, &entry) != 0) return false;
    const bool isRemote = entry.state == ZEL_TME_REMOTE;
    return (isRemote || entry.state == ZEL_TME_HERE) &&
           client.address == (isRemote ? entry.address : zel_sysGetIpAddr()) &&
           client.receiveQueue == zel_getQueueId(service, instance, ZEL_IPC_QUEUE_REQUEST);
}

}  // namespace

Redistribution::Redistribution(std::uint32_t key, Clients &clients, const Tables &tables)
    : address_{ZEL_RTM_SERVICE, key, 0, 0, 0}, clients_(clients), tables_(tables) {}

Redistribution::~Redistribution() {
    for (auto &[handle, target] : targets_) close(target);
}

// ---- Rules ----------------------------------------------------------------------------------------------------------

zelRtmStatus Redistribution::accept(Client &target, int family, std::uint32_t clientType) {
    if (const zelRtmStatus status = open(target); status != ZEL_RTM_STATUS_OK) return status;
    if (!target.note({ZEL_RTM_FACT_ACCEPTS, static_cast<std::uint32_t>(family), clientType}))
        return ZEL_RTM_STATUS_TABLE_FULL;
    walk(target, family, clientType, std::nullopt);
    return ZEL_RTM_STATUS_OK;
}

zelRtmStatus Redistribution::reject(Client &target, int family, std::uint32_t clientType) {
    if (!target.facts.erase({ZEL_RTM_FACT_ACCEPTS, static_cast<std::uint32_t>(family), clientType}))
        return ZEL_RTM_STATUS_BAD_REQUEST;
    walk(target, family, clientType, std::nullopt);
    return ZEL_RTM_STATUS_OK;
}

void Redistribution::dropRules(Client &target, std::uint32_t clientType) {
    const auto facts = target.facts;
    for (const Fact &fact : facts)
        if (fact.what == ZEL_RTM_FACT_ACCEPTS && (clientType == 0 || clientType == fact.second))
            reject(target, static_cast<int>(fact.first), fact.second);
}

void Redistribution::restart(const Client &target, std::uint32_t vrf) {
    if (open(target) == ZEL_RTM_STATUS_OK) walkAll(target, vrf);
}

void Redistribution::forget(std::uint32_t handle) {
    const auto at = targets_.find(handle);
    if (at == targets_.end()) return;
    close(at->second);
    targets_.erase(at);
}

// ---- Streams --------------------------------------------------------------------------------------------------------

zelRtmStatus Redistribution::open(const Client &client) {
    if (targets_.contains(client.handle)) return ZEL_RTM_STATUS_OK;
    const auto service = static_cast<int>(zelIpcGetServiceFromSvce(client.receiveQueue));
    const auto instance = static_cast<int>(zelIpcGetInstanceFromSvce(client.receiveQueue));
    std::uint32_t queue = 0;
    // Who has no entry in the task table would be waited for. Trouble shows in acknowledgements, or in their absence.
    if (!isReachable(client, service, instance)) return ZEL_RTM_STATUS_UNREACHABLE;
    const auto ignore = [](void *, int) {};
    if (zelSwpQueueCreate(ZEL_RTM_SERVICE, 0, service, instance, 0, 0, retransmitSeconds, patienceSeconds, ignore,
                          &queue) != ZEL_SWP_SUCCESS)
        return ZEL_RTM_STATUS_UNREACHABLE;
    zel::programs::useHeap(queue);
    Target &target = targets_[client.handle];
    target.handle = client.handle;
    target.queue = queue;
    return ZEL_RTM_STATUS_OK;
}

void Redistribution::close(Target &target) {
    zelRtmDropPending(&target.pending, target.queue, nullptr, 0);
    zelSwpQueueRemove(target.queue);
}

void Redistribution::takeAcknowledgement(const std::uint8_t *message, int length) {
    std::uint32_t queue = 0;
    const int verdict = zelSwpProcAck(message, length, &queue);
    const auto at = std::find_if(targets_.begin(), targets_.end(),
                                 [=](const auto &target) { return target.second.queue == queue; });
    if (at == targets_.end()) return;
    Target &target = at->second;
    while (zelRtmUpdateRouteSwpAck(queue) == 0) target.lastProgress = zel::programs::monotonicSeconds();
    const Client *client = clients_.find(target.handle);
    if (verdict != ZEL_SWP_SEQ_FAILURE || !client) return;
    // The target does not know the stream any more: everything once more, on a new one.
    zelRtmDropPending(&target.pending, queue, nullptr, 0);
    zelSwpQueueFlush(queue);
    walkAll(*client, std::nullopt);
}

// ---- What to tell ---------------------------------------------------------------------------------------------------

// From the beginning; a walk of the same kind that is under way begins anew.
void Redistribution::walk(const Client &client, int family, std::uint32_t clientType,
                          std::optional<std::uint32_t> onlyVrf) {
    const auto at = targets_.find(client.handle);
    if (at == targets_.end()) return;
    std::list<Walk> &walks = at->second.walks;
    walks.remove_if([&](const Walk &walk) {
        return walk.at.family == family && walk.clientType == clientType && walk.onlyVrf == onlyVrf;
    });
    walks.push_back({clientType, onlyVrf, {family, onlyVrf.value_or(0), behindAllBits, {}}});
}

void Redistribution::walkAll(const Client &client, std::optional<std::uint32_t> onlyVrf) {
    for (const Fact &fact : client.facts)
        if (fact.what == ZEL_RTM_FACT_ACCEPTS) walk(client, static_cast<int>(fact.first), fact.second, onlyVrf);
}

void Redistribution::note(const Table &table, const std::uint8_t *key, std::uint32_t bits, std::uint32_t owner) {
    if (targets_.empty()) return;
    const Client *of = clients_.find(owner);
    for (auto &[handle, target] : targets_) {
        const Client *client = clients_.find(handle);
        if (!of || !client || handle == owner || !client->accepts(table.family(), of->type)) continue;
        Place place{table.family(), table.vrf(), bits, {}};
        std::memcpy(place.prefix.data(), key, table.addressSize());
        target.changed.insert(place);
    }
}

// The next prefix of the walk, null at its end.
const Prefix *Redistribution::advance(Walk &walk) const {
    for (auto table = tables_.lower_bound({walk.at.family, walk.at.vrf});
         table != tables_.end() && table->first.first == walk.at.family; ++table) {
        const std::uint32_t vrf = table->first.second;
        if (walk.onlyVrf && vrf != *walk.onlyVrf) return nullptr;
        if (vrf != walk.at.vrf) walk.at = {walk.at.family, vrf, behindAllBits, {}};
        if (const Prefix *prefix = table->second->behind(walk.at.prefix.data(), walk.at.bits)) {
            walk.at.bits = prefix->bits;
            std::memcpy(walk.at.prefix.data(), prefix->key(), table->second->addressSize());
            return prefix;
        }
    }
    return nullptr;
}

bool Redistribution::concerns(const Walk &walk, const Prefix &prefix) const {
    for (const Path *path = prefix.paths; path; path = path->next) {
        const Client *owner = clients_.find(path->handle);
        if (owner && owner->type == walk.clientType) return true;
    }
    return false;
}

// ---- Telling --------------------------------------------------------------------------------------------------------

bool Redistribution::serve() {
    if (targets_.empty()) return false;
    const double now = zel::programs::monotonicSeconds();
    bool hasMore = false;
    for (auto at = targets_.begin(); at != targets_.end();) {
        Target &target = (at++)->second;
        if (zelSwpQueueGetLen(target.queue) == 0) target.lastProgress = now;
        if (target.isBroken || now - target.lastProgress > patienceSeconds)
            forget(target.handle);
        else
            hasMore |= fill(target);
    }
    return hasMore;
}

// Tells what there is room for; true when it leaves off to let others in.
bool Redistribution::fill(Target &target) {
    const int most = windowsQueued * zelSwpGetMwpQWinSize(target.queue);
    for (unsigned i = 0; zelSwpQueueGetLen(target.queue) < most; ++i) {
        if (i == mostPrefixesAtOnce) return true;
        if (tellNext(target)) continue;
        pushPending(target);
        return false;
    }
    return false;
}

// Deals with one prefix; false when there is none.
bool Redistribution::tellNext(Target &target) {
    if (!target.changed.empty()) {
        tell(target, target.changed.extract(target.changed.begin()).value());
        return true;
    }
    if (target.walks.empty()) return false;
    Walk &walk = target.walks.front();
    const Prefix *prefix = advance(walk);
    if (!prefix)
        target.walks.pop_front();
    else if (concerns(walk, *prefix))
        tell(target, walk.at);
    return true;
}

const Path *Redistribution::select(const Client &target, int family, const Prefix *prefix) const {
    for (const Path *path = prefix ? prefix->paths : nullptr; path; path = path->next) {
        const Client *owner = clients_.find(path->handle);
        if (owner && owner != &target && target.accepts(family, owner->type)) return path;
    }
    return nullptr;
}

void Redistribution::tell(Target &target, const Place &place) {
    const auto table = tables_.find({place.family, place.vrf});
    const Client *client = clients_.find(target.handle);
    if (table == tables_.end() || !client) return;
    const Path *path = select(*client, place.family, table->second->exactMatch(place.prefix.data(), place.bits));
    zelRtmRoute route;
    if (!path || zelRtmParseRoute(path->record(), path->length, place.family, &route) < 0) {
        route = {};
        std::memcpy(route.prefix, place.prefix.data(), sizeof route.prefix);
        for (unsigned bit = 0; bit < place.bits; ++bit)
            route.mask[bit / 8] |= static_cast<std::uint8_t>(0x80 >> bit % 8);
        route.vrfId = place.vrf;
    }
    if (target.pendingFamily != place.family) pushPending(target);
    push(target, path ? ZEL_RTM_ADD : ZEL_RTM_DELETE, &route, place.family);
    ++told_;
}

// Into the batch, which leaves when it is full; without a route, it leaves.
void Redistribution::push(Target &target, std::uint32_t operation, const zelRtmRoute *route, int family) {
    target.pendingFamily = family;
    if (zelRtmUpdateRoute(target.handle, operation, route, &target.pending, &address_, target.queue, ZEL_RTM_SERVICE,
                          family, nullptr, 0) != 0)
        target.isBroken = true;
}

void Redistribution::pushPending(Target &target) {
    push(target, ZEL_RTM_ADD, nullptr, target.pendingFamily);
}

}  // namespace zelrtmd
