// Flushes, clears, spanning VLANs, questions, and the address helpers of the multicast client.
#include <algorithm>
#include <cstring>

#include "base/assertion.h"
#include "rtm/mrtm_message.h"

namespace zel::mrtm {
namespace {

bool isKnown(int family) {
    return asserted(isFamily(family), "family == ZEL_MRTM_IPV4 || family == ZEL_MRTM_IPV6", sourceName);
}

void writeVlans(std::uint8_t *at, const std::uint32_t *bitmap) {
    for (std::size_t i = 0; bitmap && i < SpanVlanMessage::mapWords; ++i) wire::store(at + i * 4, bitmap[i]);
}

}  // namespace
}  // namespace zel::mrtm

using namespace zel::mrtm;

int zelMrtmFlushRoutesSwp(uint32_t handle, const zelIpcAddr *ipc, uint32_t queue) {
    return sendQueued(queue, ZEL_MRTM_MSG_FLUSH, FlushMessage::size, ipc,
                      [&](uint8_t *message) { FlushMessage::Handle::set(message, handle); });
}

int zelMrtmClearSend(int family, uint32_t handle, const zelIpcAddr *ipc, uint32_t queue, uint32_t vrfId) {
    if (!isKnown(family)) return 1;
    return sendQueued(queue, ZEL_MRTM_MSG_CLEAR_SEND, ClearSendMessage::size, ipc, [&](uint8_t *message) {
        ClearSendMessage::Handle::set(message, handle);
        ClearSendMessage::Family::set(message, static_cast<uint32_t>(family));
        ClearSendMessage::Vrf::set(message, vrfId);
    });
}

int zelMrtmClearIpRouteSwpAck(int family, uint32_t handle, const zelIpcAddr *ipc, uint32_t queue,
                              uint32_t sequenceWord) {
    if (!isKnown(family)) return 1;
    const uint32_t type = family == ZEL_MRTM_IPV6 ? ZEL_MRTM_MSG_CLEAR_ACK_V6 : ZEL_MRTM_MSG_CLEAR_ACK;
    return sendQueued(queue, type, ClearAckMessage::size, ipc, [&](uint8_t *message) {
        ClearAckMessage::Handle::set(message, handle);
        ClearAckMessage::One::set(message, 1);
        ClearAckMessage::Sequence::set(message, sequenceWord);
    });
}

int zelMrtmKxlSendSpanVlanMsg(uint32_t handle, const zelIpcAddr *ipc, uint32_t queue, const uint32_t *begun,
                              const uint32_t *ended) {
    return sendQueued(queue, ZEL_MRTM_MSG_SPAN_VLANS, SpanVlanMessage::size, ipc, [&](uint8_t *message) {
        SpanVlanMessage::Handle::set(message, handle);
        writeVlans(message + SpanVlanMessage::begun, begun);
        writeVlans(message + SpanVlanMessage::ended, ended);
    });
}

int mrtmBuildAndSendQueryMsg(const zelMrtmQuery *query, const zelIpcAddr *ipc, void *response) {
    using Layout = QueryMessage;
    if (!zel::asserted(query, "query", sourceName) || !response || !isKnown(query->family)) return 1;
    auto *message = static_cast<uint8_t *>(response);
    std::memset(message, 0, Layout::answerSize);
    Layout::Handle::set(message, query->handle);
    Layout::Family::set(message, static_cast<uint32_t>(query->family));
    Layout::Vrf::set(message, query->vrfId);
    std::memcpy(message + Layout::group, query->group, addressSize(query->family));
    std::memcpy(message + Layout::source, query->source, addressSize(query->family));
    Layout::List::set(message, query->list);
    const int received = sendAndReceive(message, ZEL_MRTM_MSG_QUERY, Layout::size, Layout::answerSize, ipc);
    return received < static_cast<int>(Layout::answerSize) || IpcHeader::Status::get(message) != 0;
}

int mrtmFetchBitmapFromQueryResponse(const void *response, uint32_t *bitmap) {
    if (!response || !bitmap || IpcHeader::Status::get(response) != 0) return 1;
    return ifmMapFromBytes(zel::rtm::bytesOf(response) + QueryMessage::bitmap, bitmap) == IFM_OK ? 0 : 1;
}

int zelMrtmGetCounters(const zelIpcAddr *ipc, uint64_t counters[ZEL_MRTM_COUNTERS]) {
    if (!counters) return 1;
    uint8_t message[zel::rtm::countersSize(ZEL_MRTM_COUNTERS)] = {};
    const int received = sendAndReceive(message, ZEL_MRTM_MSG_COUNTERS, IpcHeader::size, sizeof message, ipc);
    if (received < static_cast<int>(sizeof message) || IpcHeader::Status::get(message) != 0) return 1;
    zel::rtm::readCounters(message, counters, ZEL_MRTM_COUNTERS);
    return 0;
}

int mrtm_subnet_cmp(const void *one, const void *other, uint32_t bits) {
    const uint32_t whole = bits / 8, rest = bits % 8;
    const int order = std::memcmp(one, other, whole);
    if (order != 0 || rest == 0) return order;
    const auto cut = [=](const void *address) { return zel::rtm::bytesOf(address)[whole] >> (8 - rest); };
    return cut(one) - cut(other);
}

uint32_t mrtmMasklen2IP(uint32_t bits) {
    return bits == 0 ? 0 : UINT32_MAX << (32 - std::min(bits, 32u));
}

void mrtm_fast_copy(void *to, const void *from, size_t bytes) {
    std::memcpy(to, from, bytes);
}
