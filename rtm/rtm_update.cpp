// Batched route updates.
//
// A batch is a message under construction; its header's length word is the fill level, so that a pending batch is
// nothing but the buffer. The thresholds leave room for one more largest route (64 next hops and 514 TLV bytes), which
// is why a route that was checked always fits. Everything that can be wrong with a call is found before the batch is
// touched.
//
// Appending is the road every route takes, so it copies only what is counted, and what debugging adds stands aside.
#include <cstdio>
#include <cstring>

#include "base/assertion.h"
#include "rtm/route_record.h"
#include "rtm/rtm_message.h"
#include "zel/kernel.h"

namespace zel::rtm {
namespace {

static_assert(BatchMessage::threshold4 + largestRecord(Record4::fixed, Record4::hop) == BatchMessage::capacity);
static_assert(BatchMessage::threshold6 + largestRecord(Record6::fixed, Record6::hop) == BatchMessage::capacity);

std::size_t fillOf(const void *batch) {
    return IpcHeader::Length::get(batch);
}

std::size_t thresholdOf(int family) {
    return family == ZEL_RTM_IPV6_UNICAST ? BatchMessage::threshold6 : BatchMessage::threshold4;
}

unsigned shortened(const void *pointer) {
    return static_cast<unsigned>(reinterpret_cast<std::uintptr_t>(pointer));
}

std::uint8_t *makeBatch(std::uint32_t queue, std::uint32_t handle, std::uint8_t routeSource, int family) {
    auto *batch = static_cast<std::uint8_t *>(allocateFor(queue, BatchMessage::capacity, sourceName));
    if (!batch) return nullptr;
    std::memset(batch, 0, BatchMessage::routes);
    buildIpcHeader(batch, family == ZEL_RTM_IPV4_MULTICAST ? ZEL_RTM_MSG_UPDATE_MULTICAST : ZEL_RTM_MSG_UPDATE,
                   BatchMessage::routes);
    BatchMessage::Handle::set(batch, handle);
    BatchMessage::HandleAgain::set(batch, handle);
    BatchMessage::Source::set(batch, routeSource);
    BatchMessage::FamilyIndex::set(batch, static_cast<std::uint8_t>(family));
    return batch;
}

// Reports what is wrong with a route, for which `batch` is the buffer at hand or null.
[[gnu::cold]] bool refuseRoute(const zelRtmRoute &route, const void *batch) {
    if (route.nNextHops > ZEL_RTM_MAX_NEXT_HOPS) {
        zelErrorPrintf(traceModule, "Incorrect nnh from protocol [%#x] routes %d mlen %d route [%#x]", shortened(batch),
                       batch ? static_cast<int>(BatchMessage::Routes::get(batch)) : 0,
                       batch ? static_cast<int>(fillOf(batch)) : 0, shortened(&route));
        return asserted(false, "route->nNextHops <= ZEL_RTM_MAX_NEXT_HOPS", sourceName);
    }
    return asserted(false, "route->tlvLen <= ZEL_RTM_MAX_TLV", sourceName);
}

[[gnu::cold]] bool refuseFill(const void *batch) {
    zelErrorPrintf(traceModule, "oversize buffer from protocol [buf: %#x] mlen %ld", shortened(batch),
                   static_cast<long>(fillOf(batch)));
    return asserted(false, "mlen < 8192", sourceName);
}

bool mayAppend(const zelRtmRoute &route, int family, const std::uint8_t *batch) {
    if (!isFamily(family)) return asserted(false, "family < 3", sourceName);
    if (!isValid(route)) return refuseRoute(route, batch);
    if (!batch) return true;
    if (BatchMessage::FamilyIndex::get(batch) != family) return asserted(false, "family of the batch", sourceName);
    const std::size_t end = fillOf(batch) + operationSize + recordSize(route, family);
    return end < BatchMessage::capacity || refuseFill(batch);
}

[[gnu::cold]] void debugRoute(const zelRtmRoute &route, std::uint32_t operation, std::uint32_t handle, int family,
                              std::uint32_t routes) {
    if (isDebugging(debugEveryRoute)) {
        char prefix[64], hop[64] = "none";
        if (route.nNextHops > 0) rtm_inet_ntop(family, route.hop[0].addr, hop, sizeof hop);
        zelTracePrintf(traceModule, "\r\n==== [%x] prefix:%s nh:%s nnh %d [route: %#x] ===", handle,
                       rtm_inet_ntop(family, route.prefix, prefix, sizeof prefix), hop, route.nNextHops,
                       shortened(&route));
    }
    const bool goesNowhere =
        route.nNextHops > 0 && rtmAF_IsAddrZero(family, route.hop[0].addr) && route.hop[0].ifIndex == 0;
    if (!isDebugging(debugBatches) || operation != ZEL_RTM_ADD || !goesNowhere) return;
    ++rtm_api_bad_route_counter;
    zelErrorPrintf(traceModule, "IPADDR AND IFINDEX ARE ZERO %d of %d rtmh %d!!!",
                   static_cast<int>(rtm_api_bad_route_counter), static_cast<int>(routes), static_cast<int>(handle));
}

[[gnu::cold]] void traceBatch(const void *batch) {
    zelTracePrintf(traceModule,
                   "\r\n@@@@ RTMAPI RTM-UPD SWP-ENQ %ld [%x]: [buf:%#x] mlen %ld %ld routes. SZ: rtp:%lu v4fields %lu "
                   "v6fields %lu msghdr %d routeNoNh %d\r\n",
                   static_cast<long>(zelTickGet()), BatchMessage::Handle::get(batch), shortened(batch),
                   static_cast<long>(fillOf(batch)), static_cast<long>(BatchMessage::Routes::get(batch)),
                   static_cast<unsigned long>(operationSize + Record4::fixed),
                   static_cast<unsigned long>(Record4::fixed), static_cast<unsigned long>(Record6::fixed),
                   static_cast<int>(BatchMessage::routes), static_cast<int>(Record4::fixed));
}

void append(std::uint8_t *batch, std::uint32_t operation, const zelRtmRoute &route, int family, std::uint32_t vrf) {
    std::uint8_t *at = batch + fillOf(batch);
    OperationWord::set(at, operation);
    const std::uint8_t *end = writeRecord(route, family, vrf, at + operationSize);
    IpcHeader::Length::set(batch, static_cast<std::uint32_t>(end - batch));
    BatchMessage::Routes::set(batch, BatchMessage::Routes::get(batch) + 1);
}

// Where a batch goes: a queue, or the queue of a group within a list.
struct Destination {
    std::uint32_t queue;
    zelSwpQList *list;
    std::uint32_t group;
};

int send(std::uint8_t *batch, const Destination &to) {
    const auto length = static_cast<int>(fillOf(batch));
    if (isDebugging(debugBatches)) traceBatch(batch);
    const int result =
        to.list ? zelSWPQListEnqueue(to.list, to.group, batch, length) : zelSwpEnqueue(to.queue, batch, length);
    if (result == ZEL_SWP_SUCCESS) return 0;
    release(to.queue, batch, sourceName);
    return result == ZEL_SWP_QUEUE_FULL ? 2 : 1;
}

bool findDestination(std::uint32_t queue, zelSwpQList *list, std::uint32_t handle, std::uint32_t vrf, Destination &to) {
    to = {queue, nullptr, vrf};
    if (queue != ZEL_RTM_QUEUE_LIST) return true;
    to.list = list;
    if (list && zelSWPQListGetQHandle(list, vrf, &to.queue) == ZEL_SWP_SUCCESS) return true;
    if (isDebugging(debugFailures))
        zelErrorPrintf(traceModule, "\r\nRTM Update Route: rtmh %d vrfId %lu Failed", static_cast<int>(handle),
                       static_cast<unsigned long>(vrf));
    return false;
}

}  // namespace
}  // namespace zel::rtm

using namespace zel::rtm;

int zelRtmUpdateRoute(uint32_t handle, uint32_t operation, const zelRtmRoute *route, void **pending, const zelIpcAddr *,
                      uint32_t queue, uint8_t routeSource, int family, zelSwpQList *list, uint32_t vrfId) {
    Destination to;
    if (!findDestination(queue, list, handle, vrfId, to)) return 1;
    if (operation != ZEL_RTM_ADD && operation != ZEL_RTM_DELETE) return 1;

    auto *batch = pending ? static_cast<std::uint8_t *>(*pending) : nullptr;
    if (route) {
        if (!mayAppend(*route, family, batch)) return 1;
        if (!batch) batch = makeBatch(to.queue, handle, routeSource, family);
        if (!batch) return 1;
        append(batch, operation, *route, family, route->vrfId ? route->vrfId : vrfId);
        if (rtmapidebug & (debugBatches | debugEveryRoute))
            debugRoute(*route, operation, handle, family, BatchMessage::Routes::get(batch));
        if (pending && fillOf(batch) < thresholdOf(family)) {
            *pending = batch;
            return 0;
        }
    }
    if (!batch) return 0;
    if (pending) *pending = nullptr;
    return send(batch, to);
}

void zelRtmDropPending(void **pending, uint32_t queue, zelSwpQList *list, uint32_t vrfId) {
    Destination to;
    if (!pending || !*pending || !findDestination(queue, list, 0, vrfId, to)) return;
    release(to.queue, *pending, sourceName);
    *pending = nullptr;
}

int zelRtmUpdateRouteSwpAck(uint32_t queue) {
    return releaseAcknowledged(queue, sourceName);
}
