/*
 * Route table manager client: registration and control requests, batched route updates, look-ups and flushes.
 *
 * All operations return 0 on success and 1 on failure unless they say otherwise. The client keeps no state of its own
 * but the debug mask and a counter; a pending batch belongs to its caller, who must not use it from two threads at
 * once. Addresses in routes are in network byte order, every other field in host order.
 */
#ifndef ZEL_RTM_H
#define ZEL_RTM_H

#include <stddef.h>
#include <stdint.h>

#include "zel/ipc.h"
#include "zel/types.h"

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

#define ZEL_RTM_SERVICE 76
#define ZEL_RTM_MAX_NEXT_HOPS 64
#define ZEL_RTM_MAX_TLV 514
#define ZEL_RTM_QUEUE_LIST 901u

enum { ZEL_RTM_ADD = 1, ZEL_RTM_DELETE = 2 };
enum { ZEL_RTM_IPV4_UNICAST = 0, ZEL_RTM_IPV4_MULTICAST = 1, ZEL_RTM_IPV6_UNICAST = 2 };

typedef struct {
    uint32_t service;
    uint32_t taskKey;
    uint32_t instance;
    uint32_t spare;
    uint32_t extra;
} zelIpcAddr;

/* IPv4 addresses use the first four bytes of `addr`. */
typedef struct {
    uint8_t addr[16];
    uint32_t ifIndex;
    uint32_t vrfId;
    uint8_t rest[8];
} zelRtmNextHop;

typedef struct {
    uint8_t prefix[16];
    uint8_t mask[16];
    uint32_t vrfId;
    uint16_t nNextHops;
    uint16_t tlvLen;
    uint8_t protocol;
    uint8_t distance;
    uint16_t flags;
    uint32_t metric;
    uint32_t tag;
    uint8_t opaque[28];
    zelRtmNextHop hop[ZEL_RTM_MAX_NEXT_HOPS];
    const uint8_t *tlv; /* tlvLen bytes, the caller's */
} zelRtmRoute;

extern uint32_t rtmapidebug;
extern uint32_t rtm_api_bad_route_counter;

int zelRtmRegister(uint32_t clientType, uint32_t addressFamily, const char *name, uint32_t *handle,
                   const zelIpcAddr *ipc);
int zelRtmDeregister(uint32_t handle, const zelIpcAddr *ipc);
int zelRtmUpdateRoute(uint32_t handle, uint32_t operation, const zelRtmRoute *route, void **pending,
                      const zelIpcAddr *ipc, uint32_t queue, uint8_t source, int family, zelSwpQList *list,
                      uint32_t vrfId);
int zelRtmUpdateRouteSwpAck(uint32_t queue);
int zelRtmPollRouteLookupIPv4(uint32_t handle, uint32_t subcommand, const zelIpcAddr *ipc, uint32_t queue,
                              uint32_t vrfId, const void *query);
int zelRtmFlushRoutesSwp(uint32_t handle, const zelIpcAddr *ipc, uint32_t queue);
int zelRtmClearIpRouteSwpAck(uint32_t handle, const zelIpcAddr *ipc, uint32_t queue, uint32_t sequenceWord);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
