/*
 * Multicast route table manager client: registration, batched multicast routes with compressed interface lists,
 * flushes, clears and queries; and, for programs that are the manager, the other side of the same messages.
 *
 * As with zel/rtm.h, operations return 0 on success and 1 on failure unless they say otherwise; "synchronous" ones wait
 * up to 25 seconds for the answer, in a task of the process that opened the endpoint, and "queued" ones put one message
 * on the caller's sliding-window queue, whose hooks its buffers come from and return to. Every operation that builds a
 * message takes the caller's address, and a null one is reported by assertion. Messages carry the address that the task
 * table has for the caller, all ones when it is not listed; the send paths replace it by this CPU's.
 *
 * The client keeps no state. A pending batch belongs to its caller, who must not use it from two threads at once.
 *
 * Families are ZEL_MRTM_IPV4 and ZEL_MRTM_IPV6. Addresses in structures are in network byte order, every other field in
 * host order. Words of messages and records are big-endian at the byte offsets given; bytes not named are zero.
 */
#ifndef ZEL_MRTM_H
#define ZEL_MRTM_H

#include <stddef.h>
#include <stdint.h>

#include "zel/ifm.h"
#include "zel/ipc.h"
#include "zel/rtm.h"
#include "zel/types.h"

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

#define ZEL_MRTM_SERVICE 139
#define ZEL_MRTM_NAME_LENGTH 16
#define MRTM_MAX_REQS 5 /* routes of a batch */
#define ZEL_MRTM_MAX_MESSAGE 8192

enum { ZEL_MRTM_IPV4 = 1, ZEL_MRTM_IPV6 = 3 };
/* Operations of a batch. A change applies to a route that is there. */
enum { ZEL_MRTM_ADD = 1, ZEL_MRTM_DELETE = 2, ZEL_MRTM_CHANGE = 3 };

/* Message types, at byte 12 of the header. */
enum {
    ZEL_MRTM_MSG_REGISTER = 0x3CF1,
    ZEL_MRTM_MSG_DEREGISTER = 0x3CF2,
    ZEL_MRTM_MSG_REGISTER_AGENT = 0x3CF3,
    ZEL_MRTM_MSG_UPDATE = 0x3CF4, /* ZEL_MRTM_IPV4 */
    ZEL_MRTM_MSG_CLEAR = 0x3CF5,  /* manager to client */
    ZEL_MRTM_MSG_CLEAR_ACK = 0x3CF6,
    ZEL_MRTM_MSG_CLEAR_SEND = 0x3CF7,
    ZEL_MRTM_MSG_FLUSH = 0x3CFE,
    ZEL_MRTM_MSG_REGISTER_TYPE_8 = 0x3D18,
    ZEL_MRTM_MSG_CLEAR_ACK_V6 = 0x3D19,
    ZEL_MRTM_MSG_UPDATE_V6 = 0x3D1D,
    ZEL_MRTM_MSG_SPAN_VLANS = 0x3D35,
    ZEL_MRTM_MSG_QUERY = 0x3D3C,
    ZEL_MRTM_MSG_COUNTERS = 0x3DF0
};

/* ==== Registration ================================================================================================
 *
 * 128 bytes: 60 u32 handle (0; the answer carries the assigned one); 64 name, 16 bytes, cut without a terminator, and
 * 80 u32 0 behind it; 84 u32 client type; 88 u32 `argument`; 92 u32 the client's receive queue; 96 u32 service, task
 * key, instance, spare and extra of `ipc`.
 * The answer's status word (byte 20, a zelRtmStatus) is 0 when the client was accepted; otherwise the call fails and
 * *handle is left as it was. A null name fails without sending. Registering again under the same name from the same
 * queue returns the handle that the client had. A manager that was started anew does not acknowledge streams of clients
 * of its predecessor: their queues' callbacks hear of it with code 6 in mid-stream and 9 at the beginning.
 */

/* Synchronous. Client type 8 has a message type of its own. */
int zelMrtmRegister(uint32_t clientType, uint32_t argument, const char *name, uint32_t *handle, const zelIpcAddr *ipc);
/* Synchronous, with the message type of all other clients. */
int zelMrtmAclRegister(uint32_t clientType, uint32_t argument, const char *name, uint32_t *handle,
                       const zelIpcAddr *ipc);
int zelMrtmRegisterAsync(uint32_t clientType, uint32_t argument, const char *name, uint32_t *handle,
                         const zelIpcAddr *ipc);
/* One way: sends the registration and does not wait. The answer, the same message with handle and status, comes to the
 * caller's response queue, where zelIpcRecvOnRspQ takes it as any message (type and transaction 0) and
 * zelMrtmReadRegistrationAnswer reads it. */
int zelMrtmResAgtRegisterAsyncRspQ(uint32_t clientType, uint32_t argument, const char *name, const zelIpcAddr *ipc);
/* Reads such an answer: 0 and the handle, 1 when it is none or refuses. */
int zelMrtmReadRegistrationAnswer(const void *answer, int length, uint32_t *handle);
/* Synchronous, 64 bytes: 60 u32 handle. The client's routes go with it. */
int zelMrtmDeregister(uint32_t handle, const zelIpcAddr *ipc);

/* ==== Routes ======================================================================================================
 *
 * A route is a record of 1336 bytes (IPv6: 1384): group, source, rendezvous point and upstream neighbour (4 or 16 bytes
 * each); u32 flags; u32 state; u32 list kind; u32 VRF; u32 incoming interface; 60 bytes of the protocols' own; two
 * lists of interfaces, 620 bytes each, as zel/ifm.h describes them. zelMrtmWriteRoute and zelMrtmReadRoute spare
 * callers the layout.
 */
#define ZEL_MRTM_ROUTE_LENGTH 1336
#define ZEL_MRTM_ROUTE_LENGTH_V6 1384

/* Kinds of lists: two of any interfaces, or a first one of physical ports and port channels alone. */
enum { ZEL_MRTM_LISTS_OF_ALL = 1, ZEL_MRTM_LIST_OF_PORTS = 2 };
enum { ZEL_MRTM_STATE_ACTIVE = 1 };
/* An active route with a source and without ZEL_MRTM_FLAG_STATIC must have one of the other two. */
enum { ZEL_MRTM_FLAG_STATIC = 0x2, ZEL_MRTM_FLAG_PIM_LOCAL = 0x8, ZEL_MRTM_FLAG_PIM_REMOTE = 0x40 };

/* IPv4 addresses use the first four bytes of 16. */
typedef struct {
    uint8_t group[16];
    uint8_t source[16];
    uint8_t rendezvous[16];
    uint8_t upstream[16];
    uint32_t flags;
    uint32_t state;
    uint32_t listKind;
    uint32_t vrfId;
    uint32_t ifIndex;
    uint8_t opaque[60];
    uint8_t lists[2][IFM_IFLIST_BYTES];
} zelMrtmRoute;
/* Both return the length of the record, -1 for an unknown family. Lists are copied as they are. */
int zelMrtmWriteRoute(int family, const zelMrtmRoute *route, void *record);
int zelMrtmReadRoute(int family, const void *record, zelMrtmRoute *route);

/* A batch, queued, is one message: 128 u32 handle; 136 u32 number of routes, at most MRTM_MAX_REQS; 140 u8 family; from
 * 141 per route u32 operation and the record; and three zero bytes.
 *
 * Puts a record into a batch. Its lists are compressed first, in place, so the caller's record changes: both for list
 * kind 1, the first for kind 2; another kind is reported by assertion, unless it is a withdrawal, and copied as it is.
 * A flag that is missing is reported by assertion, and the route goes all the same. With `pending` null the route is
 * sent at once, alone; otherwise *pending holds the batch (null to begin), which is sent and *pending cleared with its
 * fifth route. A held batch that is full is reported by assertion and left alone. With `record` null, what *pending
 * holds is sent; nothing happens when it holds nothing. The operation must be one of the three in every case, else 1
 * and *pending is untouched. 0; 1 for any failure. A batch that could not be queued is freed and *pending cleared, and
 * its routes are lost to the manager; a full queue (result 7 of zelSwpEnqueue) is among these and returns 0
 * nevertheless: look at the queue's length or its drops to know. */
int zelMrtmUpdateRouteIPv4(int family, uint32_t handle, uint32_t operation, void *record, void **pending,
                           const zelIpcAddr *ipc, uint32_t queue);
/* Frees what *pending holds, unsent, and clears it; for callers that start over. */
void zelMrtmDropPending(void **pending, uint32_t queue);
/* Takes one acknowledged message off `queue` and frees it; the result of zelSwpDequeue, 0 when one was taken. */
int zelMrtmUpdateRouteSwpAck(uint32_t queue);
/* Takes the routes of a VRF out of the batches of `queue` that were never sent; batches that become empty go. Tells of
 * messages that are no batches, or empty ones, which stay. 0, or 1 for a bad queue. */
int zelMrtmSwpQueueFlushVrf(uint32_t queue, uint32_t vrfId);

/* ==== Flushes and clears ========================================================================================== */

/* Queued, 128 bytes: 124 u32 handle. Withdraws every route of the client. */
int zelMrtmFlushRoutesSwp(uint32_t handle, const zelIpcAddr *ipc, uint32_t queue);
/* Queued, 140 bytes: 128 u32 handle, 132 u32 family, 136 u32 VRF. The manager withdraws every client's routes of that
 * VRF and asks each owner, by a clear request of 76 bytes to its receive queue (60 u32 handle, 64 u32 VRF, 68 u32
 * sequence word, 72 u32 family), to acknowledge and to send its routes again; it asks again each second, five times. */
int zelMrtmClearSend(int family, uint32_t handle, const zelIpcAddr *ipc, uint32_t queue, uint32_t vrfId);
/* Queued, 192 bytes: 128 u32 handle, 140 u32 1, 148 u32 the request's sequence word. */
int zelMrtmClearIpRouteSwpAck(int family, uint32_t handle, const zelIpcAddr *ipc, uint32_t queue,
                              uint32_t sequenceWord);

/* ==== The rest ====================================================================================================
 *
 * Queued, 1168 bytes: 128 u32 handle; 144 and 656 maps of 512 bytes of the VLANs 0 to 4095, bit 0x80 >> (v % 8) of byte
 * v / 8: those that span to the KXL peer from now on, and those that no longer do. `begun` and `ended` are VLAN bitmaps
 * (zel/ifm.h) of IFM_VLAN_BITMAP_WORDS words; null is an empty one. */
int zelMrtmKxlSendSpanVlanMsg(uint32_t handle, const zelIpcAddr *ipc, uint32_t queue, const uint32_t *begun,
                              const uint32_t *ended);

/* Query, synchronous, 132 bytes: 60 u32 handle, 64 u32 family, 68 u32 VRF, 72 group and 88 source, 16 bytes each, 104
 * u32 which list, 0 or 1. The answer has a bitmap from byte 64: the list as a plain position map of 620 bytes. */
typedef struct {
    uint32_t handle;
    int family;
    uint32_t vrfId;
    uint8_t group[16];
    uint8_t source[16];
    uint32_t list;
} zelMrtmQuery;
#define ZEL_MRTM_QUERY_ANSWER_LENGTH 684
/* Stores the answer in `response`, of ZEL_MRTM_QUERY_ANSWER_LENGTH bytes. Fails when no client has such a route. */
int mrtmBuildAndSendQueryMsg(const zelMrtmQuery *query, const zelIpcAddr *ipc, void *response);
/* The map of IFM_IFLIST_MAP_WORDS words in an answer; 1 when there is none. */
int mrtmFetchBitmapFromQueryResponse(const void *response, uint32_t *bitmap);

/* Counters, synchronous: the request is the bare header; the answer has ZEL_MRTM_COUNTERS u64 words from byte 60. */
enum {
    ZEL_MRTM_COUNT_CLIENTS,
    ZEL_MRTM_COUNT_ROUTES,
    ZEL_MRTM_COUNT_BATCHES, /* accepted in order */
    ZEL_MRTM_COUNT_ADDS,
    ZEL_MRTM_COUNT_DELETES,
    ZEL_MRTM_COUNT_CHANGES,
    ZEL_MRTM_COUNT_REPLACED, /* adds of a route that the client had already */
    ZEL_MRTM_COUNT_UNKNOWN,  /* deletes and changes of a route that it had not */
    ZEL_MRTM_COUNT_DUPLICATES,
    ZEL_MRTM_COUNT_GAPS,
    ZEL_MRTM_COUNT_MALFORMED,
    ZEL_MRTM_COUNT_REFUSED,
    ZEL_MRTM_COUNT_QUERIES,
    ZEL_MRTM_COUNT_FLUSHES,
    ZEL_MRTM_COUNT_CLEAR_ACKS,
    ZEL_MRTM_COUNT_SPAN_VLANS, /* that span to the KXL peer now */
    ZEL_MRTM_COUNT_DROPPED_BY_HOST,
    ZEL_MRTM_COUNTERS
};
int zelMrtmGetCounters(const zelIpcAddr *ipc, uint64_t counters[ZEL_MRTM_COUNTERS]);

/* ==== Manager side ================================================================================================
 *
 * Reading what clients send, and building what they read. Nothing here trusts a message: every count is checked against
 * `length`, the bytes received. Parsers return 0, or 1 for a message of another type, too short, or malformed.
 * zelRtmSetStatus writes the status of any answer.
 */

/* 1 for messages that clients send down a sliding-window queue, 0 for all others. */
int zelMrtmIsQueued(uint32_t type);
/* The handle of any queued message; 1 when it has none. */
int zelMrtmParseHandle(const void *message, int length, uint32_t *handle);

typedef struct {
    uint32_t type;
    uint32_t handle;
    char name[ZEL_MRTM_NAME_LENGTH + 1];
    uint32_t clientType;
    uint32_t argument;
    uint32_t receiveQueue;
    uint32_t sourceAddress;
    zelIpcAddr address;
} zelMrtmRegistration;
int zelMrtmParseRegistration(const void *message, int length, zelMrtmRegistration *registration);
/* Turns the request into its answer; returns the length. */
int zelMrtmAnswerRegistration(void *message, uint32_t handle, uint32_t status);

/* A batch as it is read; keep `message` alive meanwhile. */
typedef struct {
    uint32_t handle;
    uint32_t routes;
    int family;
    const uint8_t *record; /* what zelMrtmNextRoute read last, in the message */
    uint32_t recordLength;
    /* private */
    const uint8_t *next;
    uint32_t left;
} zelMrtmBatch;
/* The length must be exactly that of the routes it counts. */
int zelMrtmParseBatch(const void *message, int length, zelMrtmBatch *batch);
/* Reads the next record: 1; 0 behind the last one; -1 for one of an unknown operation, list kind (but for withdrawals)
 * or with malformed lists, behind which reading may go on. */
int zelMrtmNextRoute(zelMrtmBatch *batch, uint32_t *operation, zelMrtmRoute *route);

/* Deregistrations, flushes and clears. Fields that the type does not have are 0. */
typedef struct {
    uint32_t type;
    uint32_t handle;
    int family;
    uint32_t vrfId;
    uint32_t sequenceWord;
} zelMrtmRequest;
int zelMrtmParseRequest(const void *message, int length, zelMrtmRequest *request);

/* Both bitmaps have IFM_VLAN_BITMAP_WORDS words. */
int zelMrtmParseSpanVlans(const void *message, int length, uint32_t *begun, uint32_t *ended);

int zelMrtmParseQuery(const void *message, int length, zelMrtmQuery *query);
/* Turns the query into its answer, in a buffer of ZEL_MRTM_MAX_MESSAGE bytes; returns the length. A null route, or one
 * with a malformed list, is answered by a status alone. */
int zelMrtmAnswerQuery(void *message, const zelMrtmQuery *query, const zelMrtmRoute *route);
/* The answer to ZEL_MRTM_MSG_COUNTERS, likewise. */
int zelMrtmAnswerCounters(void *message, const uint64_t counters[ZEL_MRTM_COUNTERS]);

/* A clear request; returns the length. And the client's side of it: 0 and the words, or 1. */
int zelMrtmBuildClear(void *message, const zelMrtmRequest *clear, uint32_t address, uint32_t receiveQueue);
int zelMrtmParseClear(const void *message, int length, zelMrtmRequest *clear);

/* ==== Address helpers ============================================================================================= */

/* Order of the first `bits` bits of two addresses: negative, 0, positive. */
int mrtm_subnet_cmp(const void *one, const void *other, uint32_t bits);
/* The mask of a prefix length, in host order: 24 gives 0xffffff00; all ones above 32. */
uint32_t mrtmMasklen2IP(uint32_t bits);
/* memcpy by another name, for blocks that do not overlap. */
void mrtm_fast_copy(void *to, const void *from, size_t bytes);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
