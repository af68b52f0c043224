// A multicast routing process hands its routes to the manager in one batch; here the manager is a task of the same
// program, so both sides are shown. The interfaces of a route travel compressed.
#include <cstdio>
#include <cstdlib>

#include "zel/kernel.h"
#include "zel/mrtm.h"
#include "zel/platform.h"

using Word = intptr_t;
constexpr int clientService = 61;
static zelSemId managerIsUp;

static void showBatch(const uint8_t *message, int length) {
    zelMrtmBatch batch;
    uint32_t operation, map[IFM_IFLIST_MAP_WORDS];
    zelMrtmRoute route;
    if (zelMrtmParseBatch(message, length, &batch) != 0) return;
    printf("the manager receives %u routes in %d bytes\n", batch.routes, length);
    while (zelMrtmNextRoute(&batch, &operation, &route) == 1) {
        ifmIfList members;
        char name[IFM_NAME_SIZE];
        IFM_IFLIST_INIT(&members);
        ifmMapFromBytes(route.lists[0], map);
        ifmIfListFromMap(&members, map);
        printf("  239.1.1.%u to %u interfaces, the first %s\n", route.group[3], IFM_IFLIST_COUNT(&members),
               ifmIfIndexToName(IFM_IFLIST_NEXT(&members, 0), name));
        IFM_IFLIST_DESTROY(&members);
    }
}

// Registers whoever asks, takes batches, and ends with the first request of another kind.
static int manager(Word, Word, Word, Word, Word, Word, Word, Word, Word, Word) {
    const auto key = static_cast<uint32_t>(zelIpcOpen(ZEL_MRTM_SERVICE, 0));
    zelSwpReceiver *receiver = zelSwpReceiverCreate(key, 0, 1);
    semGive(managerIsUp);
    static uint8_t message[ZEL_MRTM_MAX_MESSAGE];
    for (;;) {
        const int length = zelIpcRecv(key, message, sizeof message, 10, 0, 0);
        zelMrtmRegistration registration;
        if (length < 0) break;
        if (zelMrtmIsQueued(zelIpcHdrGet32(message, 12))) {
            if (zelSwpReceiverCheck(receiver, message, length) != ZEL_SWP_MATCHED) continue;
            showBatch(message, length);
            zelSwpReceiverAnswer(receiver, message);  // acknowledged when it has been dealt with
        } else if (zelMrtmParseRegistration(message, length, &registration) == 0) {
            printf("%s registers as client type %u\n", registration.name, registration.clientType);
            zelIpcReply(key, message, zelMrtmAnswerRegistration(message, 7, ZEL_RTM_STATUS_OK));
        } else {
            zelRtmSetStatus(message, ZEL_RTM_STATUS_OK);
            zelIpcReply(key, message, length);
            break;
        }
    }
    zelSwpReceiverDestroy(receiver);
    return 0;
}

static void fillRoute(zelMrtmRoute *route, uint8_t group) {
    *route = zelMrtmRoute{};
    const uint8_t address[4] = {239, 1, 1, group};
    mrtm_fast_copy(route->group, address, sizeof address);
    route->listKind = ZEL_MRTM_LISTS_OF_ALL;
    uint32_t map[IFM_IFLIST_MAP_WORDS];
    ifmIfList members;
    IFM_IFLIST_INIT(&members);
    IFM_IFLIST_ADD(&members, ifmCreateIfIndex(IFM_TYPE_PORT_CHANNEL, 0, 0, group));
    for (uint16_t vlan = 100; vlan < 150; ++vlan) IFM_IFLIST_ADD(&members, ifmCreateIfIndex(IFM_TYPE_VLAN, 0, 0, vlan));
    ifmIfListToMap(&members, map);
    ifmMapToBytes(map, route->lists[0]);
    IFM_IFLIST_DESTROY(&members);
}

// Takes the manager's acknowledgements until nothing is queued.
static void settle(uint32_t key, uint32_t queue) {
    uint8_t answer[256];
    for (int length; zelSwpQueueGetLen(queue) > 0 && (length = zelIpcRecv(key, answer, sizeof answer, 10, 0, 0)) > 0;) {
        zelSwpProcAck(answer, length, nullptr);
        while (zelMrtmUpdateRouteSwpAck(queue) == 0) continue;
    }
}

int main() {
    vx2bsdLibInit();
    vx2bsd_start(0, 1, 100, 100);
    // The task manager's work: who runs where.
    zelTmeSetTaskEntry(clientService, 0, ZEL_TME_HERE, zel_sysGetIpAddr());
    zelTmeSetTaskEntry(ZEL_MRTM_SERVICE, 0, ZEL_TME_HERE, zel_sysGetIpAddr());
    managerIsUp = semBCreate(ZEL_SEM_FIFO, 0);
    taskSpawn("tMrtm", 100, 0, 0, manager, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0);
    semTake(managerIsUp, WAIT_FOREVER);

    const auto key = static_cast<uint32_t>(zelIpcOpen(clientService, 0));
    const zelIpcAddr us = {clientService, key, 0, 0, 0};
    uint32_t queue = 0, handle = 0;
    zelSwpQueueCreate(
        clientService, 0, ZEL_MRTM_SERVICE, 0, 0, 0, 1, 5, [](void *, int) {}, &queue);
    swpFifoQueue[queue] = {[](uint32_t bytes) { return malloc(bytes); }, free};
    if (zelMrtmRegister(8, 0, "PIM", &handle, &us) != 0) return 1;
    printf("the client has handle %u\n", handle);

    void *batch = nullptr;
    for (uint8_t group = 1; group <= 3; ++group) {
        zelMrtmRoute route;
        uint8_t record[ZEL_MRTM_ROUTE_LENGTH];
        fillRoute(&route, group);
        zelMrtmWriteRoute(ZEL_MRTM_IPV4, &route, record);
        zelMrtmUpdateRouteIPv4(ZEL_MRTM_IPV4, handle, ZEL_MRTM_ADD, record, &batch, &us, queue);
    }
    zelMrtmUpdateRouteIPv4(ZEL_MRTM_IPV4, handle, ZEL_MRTM_ADD, nullptr, &batch, &us, queue);  // what is pending leaves
    settle(key, queue);
    printf("everything is acknowledged, %d messages left\n", zelSwpQueueGetLen(queue));
    const int result = zelMrtmDeregister(handle, &us);
    zelPlatformUnlinkSegments();
    return result;
}
