// Redistribution between clients, and what some protocols tell the manager beside their routes.
#include <cstring>

#include "base/assertion.h"
#include "rtm/route_record.h"
#include "rtm/rtm_message.h"

namespace zel::rtm {
namespace {

int sendTarget(std::uint32_t handle, std::uint32_t option, const zelIpcAddr *ipc, int family,
               const std::uint32_t *value) {
    if (!asserted(ipc, "ipc", sourceName) || !asserted(value, "value", sourceName)) return 1;
    if (!asserted(isFamily(family), "family < 3", sourceName)) return 1;
    std::uint8_t message[ShortMessage::redistributionSize] = {};
    ShortMessage::Handle::set(message, handle);
    ShortMessage::Option::set(message, option);
    ShortMessage::TargetFamily::set(message, static_cast<std::uint32_t>(family));
    ShortMessage::Value::set(message, *value);
    const std::uint32_t type = family == ZEL_RTM_IPV6_UNICAST ? ZEL_RTM_MSG_REDISTRIBUTE_V6 : ZEL_RTM_MSG_REDISTRIBUTE;
    return request(message, type, sizeof message, ipc);
}

}  // namespace
}  // namespace zel::rtm

using namespace zel::rtm;

int zelRtmRedistTgtClientMsg_opts(uint32_t handle, uint32_t option, const zelIpcAddr *ipc, const uint32_t *value) {
    return sendTarget(handle, option, ipc, ZEL_RTM_IPV4_UNICAST, value);
}

int zelRtmRedistTgtClientAccept_opts(uint32_t handle, const zelIpcAddr *ipc, const uint32_t *value) {
    return sendTarget(handle, ZEL_RTM_REDIST_ACCEPT, ipc, ZEL_RTM_IPV4_UNICAST, value);
}

int zelRtmRedistTgtClientReject_opts(uint32_t handle, const zelIpcAddr *ipc, const uint32_t *value) {
    return sendTarget(handle, ZEL_RTM_REDIST_REJECT, ipc, ZEL_RTM_IPV4_UNICAST, value);
}

int zelRtmRedistTgtClientMsgAF_opts(uint32_t handle, uint32_t option, const zelIpcAddr *ipc, int family,
                                    const uint32_t *value) {
    return sendTarget(handle, option, ipc, family, value);
}

int zelRtmRedistTgtClientAcceptAF_opts(uint32_t handle, const zelIpcAddr *ipc, int family, const uint32_t *value) {
    return sendTarget(handle, ZEL_RTM_REDIST_ACCEPT, ipc, family, value);
}

int zelRtmRedistTgtClientRejectAF_opts(uint32_t handle, const zelIpcAddr *ipc, int family, const uint32_t *value) {
    return sendTarget(handle, ZEL_RTM_REDIST_REJECT, ipc, family, value);
}

int zelRtmRedistDeleteRules(uint32_t handle, const zelIpcAddr *ipc, uint32_t queue) {
    return zelRtmRedistDeleteRules_opts(handle, 0, ipc, queue);
}

int zelRtmRedistDeleteRules_opts(uint32_t handle, uint32_t option, const zelIpcAddr *, uint32_t queue) {
    return sendQueued(queue, ZEL_RTM_MSG_REDISTRIBUTE_DELETE, QueuedMessage::deleteRulesSize, handle,
                      [&](std::uint8_t *message) { QueuedMessage::Option::set(message, option); });
}

int zelRtmRedistRestart(uint32_t handle, const zelIpcAddr *, uint32_t queue, uint32_t vrfId) {
    return sendQueued(queue, ZEL_RTM_MSG_REDISTRIBUTE_RESTART, QueuedMessage::restartSize, handle,
                      [&](std::uint8_t *message) { QueuedMessage::Vrf136::set(message, vrfId); });
}

int zelRtmIsisTagInfo(uint32_t handle, const zelIpcAddr *, uint32_t queue, uint32_t vrfId, const zelRtmIsisTag *tag) {
    if (!zel::asserted(tag, "tag", sourceName)) return 1;
    return sendQueued(queue, ZEL_RTM_MSG_ISIS_TAG, IsisTagMessage::size, handle, [&](std::uint8_t *message) {
        QueuedMessage::Vrf136::set(message, vrfId);
        std::memcpy(message + IsisTagMessage::prefix, tag->prefix, sizeof tag->prefix);
        std::memcpy(message + IsisTagMessage::mask, tag->mask, sizeof tag->mask);
        IsisTagMessage::Tag::set(message, tag->tag);
        IsisTagMessage::Level::set(message, tag->level);
    });
}

int zelRtmUpdateDefaultInfo(uint32_t handle, const zelIpcAddr *, uint32_t queue, int family, uint32_t vrfId,
                            uint32_t originate, uint32_t metric) {
    if (!zel::asserted(isFamily(family), "family < 3", sourceName)) return 1;
    const uint32_t type = family == ZEL_RTM_IPV6_UNICAST ? ZEL_RTM_MSG_DEFAULT_INFO_V6 : ZEL_RTM_MSG_DEFAULT_INFO;
    return sendQueued(queue, type, DefaultInfoMessage::size, handle, [&](std::uint8_t *message) {
        DefaultInfoMessage::Family::set(message, static_cast<uint32_t>(family));
        DefaultInfoMessage::Vrf::set(message, vrfId);
        DefaultInfoMessage::Originate::set(message, originate);
        DefaultInfoMessage::Metric::set(message, metric);
    });
}
