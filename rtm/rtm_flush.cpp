// Flushes of routes and polls, and acknowledgements: queued messages of a handle and a word or two.
#include "base/assertion.h"
#include "rtm/route_record.h"
#include "rtm/rtm_message.h"
#include "zel/kernel.h"

namespace zel::rtm {
namespace {

// The type per family, in the order of the family indexes.
using Types = std::uint32_t[3];
constexpr Types flushTypes = {ZEL_RTM_MSG_FLUSH_QUEUED, ZEL_RTM_MSG_FLUSH_QUEUED_MULTICAST,
                              ZEL_RTM_MSG_FLUSH_QUEUED_V6};
constexpr Types flushVrfTypes = {ZEL_RTM_MSG_FLUSH_VRF, ZEL_RTM_MSG_FLUSH_VRF_MULTICAST, ZEL_RTM_MSG_FLUSH_VRF_V6};
constexpr Types pollerTypes = {ZEL_RTM_MSG_FLUSH_POLLER, ZEL_RTM_MSG_FLUSH_POLLER_MULTICAST,
                               ZEL_RTM_MSG_FLUSH_POLLER_V6};

bool isKnown(int family) {
    return asserted(isFamily(family), "family < 3", sourceName);
}

int sendFlush(std::uint32_t type, std::uint32_t handle, std::uint32_t queue, std::uint32_t vrf) {
    return sendQueued(queue, type, QueuedMessage::flushSize, handle,
                      [&](std::uint8_t *message) { QueuedMessage::Vrf136::set(message, vrf); });
}

int sendClearAck(std::uint32_t type, std::uint32_t handle, std::uint32_t queue, std::uint32_t sequence, int family) {
    return sendQueued(queue, type, ClearAckMessage::size, handle, [&](std::uint8_t *message) {
        ClearAckMessage::One::set(message, 1);
        ClearAckMessage::Family::set(message, static_cast<std::uint32_t>(family));
        ClearAckMessage::Sequence::set(message, sequence);
    });
}

}  // namespace
}  // namespace zel::rtm

using namespace zel::rtm;

int zelRtmFlushRoutesSwp(uint32_t handle, const zelIpcAddr *, uint32_t queue) {
    if (isDebugging(debugFailures))
        zelTracePrintf(traceModule, "\r\nRTMAPI:zelRtmFlushRoutesSwp rtmh %d q %d FLUSH_CLIENT_ROUTES_SWP line %d",
                       static_cast<int>(handle), static_cast<int>(queue), __LINE__);
    return sendFlush(ZEL_RTM_MSG_FLUSH_QUEUED, handle, queue, 0);
}

int zelRtmFlushRoutesAFSwp(uint32_t handle, const zelIpcAddr *, uint32_t queue, int family) {
    return isKnown(family) ? sendFlush(flushTypes[family], handle, queue, 0) : 1;
}

int zelRtmFlushVRFRoutesAFSwp(uint32_t handle, const zelIpcAddr *, uint32_t queue, uint32_t vrfId, int family) {
    if (!isKnown(family)) return 1;
    return sendQueued(queue, flushVrfTypes[family], QueuedMessage::flushVrfSize, handle,
                      [&](std::uint8_t *message) { QueuedMessage::Vrf140::set(message, vrfId); });
}

int zelRtmFlushPollerRoutesSwp(uint32_t handle, const zelIpcAddr *, uint32_t queue) {
    return sendFlush(ZEL_RTM_MSG_FLUSH_POLLER, handle, queue, 0);
}

int zelRtmFlushPollerRoutesAFSwp(uint32_t handle, const zelIpcAddr *, uint32_t queue, int family) {
    return isKnown(family) ? sendFlush(pollerTypes[family], handle, queue, 0) : 1;
}

int zelRtmFlushPollerVRFRoutesAFSwp(uint32_t handle, const zelIpcAddr *, uint32_t queue, uint32_t vrfId, int family) {
    return isKnown(family) ? sendFlush(pollerTypes[family], handle, queue, vrfId) : 1;
}

int zelRtmClearIpRouteSwpAck(uint32_t handle, const zelIpcAddr *, uint32_t queue, uint32_t sequenceWord) {
    return sendClearAck(ZEL_RTM_MSG_CLEAR_ACK, handle, queue, sequenceWord, ZEL_RTM_IPV4_UNICAST);
}

int zelRtmClearIpRouteSwpAckAF(uint32_t handle, const zelIpcAddr *, uint32_t queue, uint32_t sequenceWord, int family) {
    if (!isKnown(family)) return 1;
    const uint32_t type = family == ZEL_RTM_IPV4_UNICAST ? ZEL_RTM_MSG_CLEAR_ACK : ZEL_RTM_MSG_CLEAR_ACK_AF;
    return sendClearAck(type, handle, queue, sequenceWord, family);
}

int zelRtmVrfDeleteAck(uint32_t handle, const zelIpcAddr *, uint32_t queue, uint32_t vrfId) {
    return sendFlush(ZEL_RTM_MSG_VRF_DELETE_ACK, handle, queue, vrfId);
}
