// How (service, instance) becomes a queue id, and how header words name both ends of a message.
//
// Nothing here refuses a number: services are masked to 9 bits and instances to 5, so that every caller gets some port.
// Opening an endpoint is where bounds are enforced.
#include "ipc/ipc_address.h"

#include "ipc/endpoint.h"
#include "ipc/ipc_header.h"
#include "kernel/task.h"
#include "zel/ipc.h"
#include "zel/kernel.h"
#include "zel/platform.h"

using namespace zel::ipc;

namespace zel::ipc {
namespace {

constexpr std::uint32_t relayQueues = static_cast<std::uint32_t>(relayService) << 7;
static_assert(relayQueues == 0xa700);

std::uint32_t packQueueId(int service, int instance, int type) {
    return ((static_cast<std::uint32_t>(service) << 7) & 0xff80) |
           ((static_cast<std::uint32_t>(instance) << 2) & 0x7c) | (static_cast<std::uint32_t>(type) & 3);
}

std::uint32_t relayQueueId(int type) {
    return relayQueues | (static_cast<std::uint32_t>(type) & 3);
}

bool isFoldedService(int service) {
    return service >= 0 && service < serviceCount &&
           (services[static_cast<std::size_t>(service)].flags & foldsOntoRelay) != 0;
}

std::uint32_t setTarget(void *hdr, std::uint32_t ipAddress, std::uint32_t slot, std::uint32_t queueId) {
    IpcHeader::TargetSlot::set(hdr, slot);
    IpcHeader::TargetAddress::set(hdr, ipAddress);
    IpcHeader::TargetQueue::set(hdr, queueId);
    return queueId;
}

}  // namespace

bool isPlatformVariant() {
    const int platform = getPlatformType();
    return platform == 6 || (platform == 9 && ZELIsVirtualSingle() != 0);
}

}  // namespace zel::ipc

uint32_t zelIpcHdrGet32(const void *hdr, unsigned off) {
    return zel::wire::load<std::uint32_t>(static_cast<const std::uint8_t *>(hdr) + off);
}

void zelIpcHdrSet32(void *hdr, unsigned off, uint32_t value) {
    zel::wire::store<std::uint32_t>(static_cast<std::uint8_t *>(hdr) + off, value);
}

const char *zelIpcGetCmdTypeName(int command) {
    switch (command) {
        case ZEL_IPC_DEF:
            return "DEF";
        case ZEL_IPC_GACK:
            return "GUARANTEED_ACK";
        case ZEL_IPC_GSEND:
            return "GUARANTEED_SEND";
        case ZEL_IPC_GACK_FIRST:
            return "GUARANTEED_ACK_FIRST";
        case ZEL_IPC_GSEND_FIRST:
            return "GUARANTEED_SEND_FIRST";
        case ZEL_IPC_ACK:
            return "ACK";
        case ZEL_IPC_GRT:
            return "GRT";
        case ZEL_IPC_RSP:
            return "RSP";
        case ZEL_IPC_REQ:
            return "REQ";
        default:
            return "UNKNOWN";
    }
}

uint32_t zel_getQueueId(int service, int instance, int type) {
    if (isPlatformVariant()) return zel_getQueueIdInPE(service, instance, type);
    if (isRelayedInstance(instance)) return relayQueueId(type);
    return packQueueId(service, instance, type);
}

uint32_t zel_getQueueIdInPE(int service, int instance, int type) {
    // The relay itself must reach the folded services under their own queue ids.
    if (isFoldedService(service) && getSrvcId() != relayService) return relayQueueId(type);
    return packQueueId(service, isRelayedInstance(instance) ? 0 : instance, type);
}

uint32_t zelIpcGetService(uint32_t key) {
    return key >> 7;
}

uint32_t zelIpcGetServiceFromSvce(uint32_t key) {
    return (key >> 7) & 0x1ff;
}

uint32_t zelIpcGetInstance(uint32_t key) {
    return (key & 124) >> 2;
}

uint32_t zelIpcGetInstanceFromSvce(uint32_t key) {
    return (key >> 2) & 31;
}

uint32_t zelIpcSetSourceHeader(void *hdr, uint32_t slot, int service, int instance) {
    const uint32_t queueId = zel_getQueueId(service, instance, responseQueue);
    IpcHeader::SourceSlot::set(hdr, slot);
    IpcHeader::SourceAddress::set(hdr, zel_sysGetIpAddr());
    IpcHeader::SourceQueue::set(hdr, queueId);
    return queueId;
}

uint32_t zelIpcSetTargetHeader(void *hdr, uint32_t ipAddress, uint32_t slot, int service, int instance) {
    return setTarget(hdr, ipAddress, slot, zel_getQueueId(service, instance, requestQueue));
}

uint32_t zelIpcSetTargetHeaderToRspQ(void *hdr, uint32_t ipAddress, uint32_t slot, int service, int instance) {
    return setTarget(hdr, ipAddress, slot, zel_getQueueId(service, instance, responseQueue));
}

int zelIpcGetSourceHeader(const void *hdr, uint32_t *slot, uint32_t *queueId) {
    if (IpcHeader::Magic::get(hdr) != IpcHeader::magic) {
        zelErrorPrintf(traceModule, "\n\nzelIpcGetSourceHeader - MAGIC ERROR");
        return ZEL_ERROR;
    }
    *slot = IpcHeader::SourceSlot::get(hdr);
    *queueId = IpcHeader::SourceQueue::get(hdr);
    return ZEL_OK;
}

int zelIpcGetTargetHeader(const void *, uint32_t *, uint32_t *) {
    return ZEL_OK;
}

int getIpcKey(int service, int, int *key) {
    *key = zelGetMyTaskKey();
    const int registered = getSrvcId();
    if (service != 0 && service != registered)
        zelErrorPrintf(traceModule, "%s: Task:%s svc mismatch %d(%s) <==> %d(%s), pKey:%d\r\n", __func__, selfName(),
                       service, zelTaskGetServiceName(service), registered, zelTaskGetServiceName(registered), *key);
    return ZEL_OK;
}

int getSrvcId() {
    constexpr int noService = 255;
    const int key = zelGetMyTaskKey();
    if (key == ZEL_ERROR) return noService;
    const int service = serviceOf(static_cast<std::uint32_t>(key));
    return service != 0 ? service : noService;
}
