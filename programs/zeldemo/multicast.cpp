#include "multicast.h"

#include <algorithm>

#include "programs/support/program.h"
#include "zel/ipc.h"

namespace zeldemo {
namespace {

constexpr std::uint32_t clientType = 8;
constexpr std::uint32_t retransmitSeconds = 1;
constexpr std::uint8_t retransmissions = 5;
constexpr int receiveSeconds = 1;
constexpr int acknowledgementRoom = 256;

}  // namespace

MulticastClient::~MulticastClient() {
    if (!isOpen_) return;
    if (pending_) zelMrtmDropPending(&pending_, queue_);
    zelSwpQueueRemove(queue_);
}

bool MulticastClient::open() {
    isOpen_ = zelSwpQueueCreate(
                  static_cast<int>(address_.service), 0, ZEL_MRTM_SERVICE, 0, 0, 0, retransmitSeconds, retransmissions,
                  [](void *, int) {}, &queue_) == ZEL_SWP_SUCCESS;
    if (!isOpen_) return false;
    zel::programs::useHeap(queue_);
    return zelMrtmRegister(clientType, 0, "demo", &handle_, &address_) == 0;
}

bool MulticastClient::add(const zelMrtmRoute &route) {
    std::uint8_t record[ZEL_MRTM_ROUTE_LENGTH];
    zelMrtmWriteRoute(ZEL_MRTM_IPV4, &route, record);
    return zelMrtmUpdateRouteIPv4(ZEL_MRTM_IPV4, handle_, ZEL_MRTM_ADD, record, &pending_, &address_, queue_) == 0;
}

bool MulticastClient::settle(double seconds) {
    if (zelMrtmUpdateRouteIPv4(ZEL_MRTM_IPV4, handle_, ZEL_MRTM_ADD, nullptr, &pending_, &address_, queue_) != 0)
        return false;
    const double deadline = zel::programs::monotonicSeconds() + seconds;
    std::uint8_t message[acknowledgementRoom];
    while (zelSwpQueueGetLen(queue_) > 0 && zel::programs::monotonicSeconds() < deadline) {
        const int length =
            zelIpcRecv(address_.taskKey | ZEL_IPC_QUEUE_REQUEST, message, sizeof message, receiveSeconds, 0, 0);
        if (length > 0) zelSwpProcAck(message, length, nullptr);
        while (zelMrtmUpdateRouteSwpAck(queue_) == 0) continue;
    }
    return zelSwpQueueGetLen(queue_) == 0;
}

bool MulticastClient::fetch(const zelMrtmRoute &route, std::uint32_t (&map)[IFM_IFLIST_MAP_WORDS]) const {
    zelMrtmQuery query{handle_, ZEL_MRTM_IPV4, route.vrfId, {}, {}, 0};
    std::copy_n(route.group, sizeof query.group, query.group);
    std::copy_n(route.source, sizeof query.source, query.source);
    std::uint8_t response[ZEL_MRTM_QUERY_ANSWER_LENGTH];
    return mrtmBuildAndSendQueryMsg(&query, &address_, response) == 0 &&
           mrtmFetchBitmapFromQueryResponse(response, map) == 0;
}

}  // namespace zeldemo
