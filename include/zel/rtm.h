/*
 * Route table manager client: registration and control requests, batched route updates, look-ups, flushes and
 * redistribution; and, for programs that are the manager, the other side of the same messages.
 *
 * All operations return 0 on success and 1 on failure unless they say otherwise. "Synchronous" operations send one
 * request from the caller's request queue and wait up to 25 seconds for the answer; they must run in a task of the
 * process that opened the endpoint. "Queued" operations put one message on the caller's sliding-window queue and do not
 * wait for the manager; their answers, where there are any, come as messages to the caller's request queue. Queue
 * ZEL_RTM_QUEUE_LIST selects a queue list where an operation takes one.
 *
 * Buffers of queued messages come from the queue's alloc hook and return to its free hook (swpFifoQueue, zel/ipc.h); a
 * queue without hooks gets blocks of zelMC_malloc, which flushing or removing the queue does not free.
 *
 * The client keeps no state of its own but the debug mask and a counter. A pending batch belongs to its caller, who
 * must not use it from two threads at once; everything else may be called by several. Two requests made within one 20
 * ms tick share a transaction number, so a late answer to the first can be taken for the second when their types are
 * equal.
 *
 * Addresses in structures are in network byte order, every other field in host order. Words of messages are big-endian
 * at the byte offsets given; bytes not named are zero.
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
#define ZEL_RTM_NAME_LENGTH 40
#define ZEL_RTM_MAX_MESSAGE 8192

enum { ZEL_RTM_ADD = 1, ZEL_RTM_DELETE = 2 };
enum { ZEL_RTM_IPV4_UNICAST = 0, ZEL_RTM_IPV4_MULTICAST = 1, ZEL_RTM_IPV6_UNICAST = 2 };

/* Message types, at byte 12 of the header. */
enum {
    ZEL_RTM_MSG_REGISTER = 0x3201,
    ZEL_RTM_MSG_REGISTER_NON_ROUTING = 0x3202,
    ZEL_RTM_MSG_DEREGISTER = 0x3203,
    ZEL_RTM_MSG_UPDATE = 0x3204,           /* families 0 and 2 */
    ZEL_RTM_MSG_UPDATE_MULTICAST = 0x3205, /* family 1 */
    ZEL_RTM_MSG_LOOKUP = 0x320C,
    ZEL_RTM_MSG_RECURSIVE_LOOKUP = 0x320D,
    ZEL_RTM_MSG_RECURSIVE_LOOKUP_TLV = 0x320E,
    ZEL_RTM_MSG_POLL = 0x320F,
    ZEL_RTM_MSG_MULTI_POLL = 0x3210,
    ZEL_RTM_MSG_MULTI_POLL_STOP = 0x3211,
    ZEL_RTM_MSG_CLEAR = 0x3214, /* manager to client */
    ZEL_RTM_MSG_CLEAR_ACK = 0x3215,
    ZEL_RTM_MSG_REDISTRIBUTE = 0x321C,    /* families 0 and 1 */
    ZEL_RTM_MSG_REDISTRIBUTE_V6 = 0x321D, /* family 2 */
    ZEL_RTM_MSG_REGISTER_ONE_WAY = 0x3220,
    ZEL_RTM_MSG_CLEAR_ACK_AF = 0x3222,
    ZEL_RTM_MSG_RECURSIVE_LOOKUP_V6 = 0x3223,
    ZEL_RTM_MSG_MULTI_POLL_V6 = 0x3225,
    ZEL_RTM_MSG_MULTI_POLL_V6_STOP = 0x3229,
    ZEL_RTM_MSG_FLUSH = 0x322D,
    ZEL_RTM_MSG_FLUSH_QUEUED = 0x322E,
    ZEL_RTM_MSG_FLUSH_QUEUED_MULTICAST = 0x322F,
    ZEL_RTM_MSG_FLUSH_POLLER = 0x3230,
    ZEL_RTM_MSG_FLUSH_POLLER_MULTICAST = 0x3231,
    ZEL_RTM_MSG_FLUSH_POLLER_V6 = 0x3232,
    ZEL_RTM_MSG_FLUSH_QUEUED_V6 = 0x3233,
    ZEL_RTM_MSG_DEFAULT_INFO = 0x3234,
    ZEL_RTM_MSG_DEFAULT_INFO_V6 = 0x3235,
    ZEL_RTM_MSG_DEREGISTER_AF = 0x3237,
    ZEL_RTM_MSG_REDISTRIBUTE_DELETE = 0x323C,
    ZEL_RTM_MSG_REGISTER_VRF = 0x323F,
    ZEL_RTM_MSG_FIB_CLEAR = 0x3240,
    ZEL_RTM_MSG_ISIS_TAG = 0x3249,
    ZEL_RTM_MSG_FLUSH_VRF = 0x3251,
    ZEL_RTM_MSG_FLUSH_VRF_MULTICAST = 0x3252,
    ZEL_RTM_MSG_FLUSH_VRF_V6 = 0x3253,
    ZEL_RTM_MSG_REDISTRIBUTE_RESTART = 0x3254,
    ZEL_RTM_MSG_VRF_DELETE_ACK = 0x3258,
    ZEL_RTM_MSG_REGISTER_QUALIFIER = 0x325C,
    ZEL_RTM_MSG_DEREGISTER_QUALIFIER = 0x325D,
    ZEL_RTM_MSG_REGISTER_V4V6 = 0x3269,
    ZEL_RTM_MSG_DEREGISTER_V4V6 = 0x326A,
    ZEL_RTM_MSG_COUNTERS = 0x32F0,
    ZEL_RTM_MSG_DUMP = 0x32F1,
    ZEL_RTM_MSG_CLIENTS = 0x32F2
};

/* Status words of answers. */
typedef enum {
    ZEL_RTM_STATUS_OK = 0,
    ZEL_RTM_STATUS_BAD_NAME = 1,       /* empty, or not printable */
    ZEL_RTM_STATUS_TABLE_FULL = 2,     /* no room for another client, or for another fact about this one */
    ZEL_RTM_STATUS_UNKNOWN_CLIENT = 3, /* the handle is not the sender's */
    ZEL_RTM_STATUS_BAD_REQUEST = 4,
    ZEL_RTM_STATUS_UNREACHABLE = 5 /* redistribution: the client is not in the task table */
} zelRtmStatus;

/* The caller's IPC address, passed to every operation; `extra` travels in registrations of zel/mrtm.h alone. */
typedef struct {
    uint32_t service;
    uint32_t taskKey;
    uint32_t instance;
    uint32_t spare;
    uint32_t extra;
} zelIpcAddr;

/* IPv4 addresses use the first four bytes of `addr`. Of `rest`, 8 bytes travel in IPv4 and the first 4 in IPv6 routes,
 * as the caller filled them. */
typedef struct {
    uint8_t addr[16];
    uint32_t ifIndex;
    uint32_t vrfId;
    uint8_t rest[8];
} zelRtmNextHop;

/* Only the first nNextHops hops are read or written. */
typedef struct {
    uint8_t prefix[16];
    uint8_t mask[16];
    uint32_t vrfId;
    uint16_t nNextHops;
    uint16_t tlvLen;
    uint8_t protocol;
    uint8_t distance; /* the manager prefers the smaller */
    uint16_t flags;
    uint32_t metric; /* and, among equals, the smaller metric */
    uint32_t tag;
    uint8_t opaque[28];
    zelRtmNextHop hop[ZEL_RTM_MAX_NEXT_HOPS];
    const uint8_t *tlv; /* tlvLen bytes, at most ZEL_RTM_MAX_TLV, the caller's */
} zelRtmRoute;

/* 0x1 traces queued batches and counts bad routes, 0x2 traces look-ups, 0x4 prints failures, 0x1000 every route. */
extern uint32_t rtmapidebug;
/* Routes added, while 0x1 is set, whose first next hop has neither an address nor an interface. */
extern uint32_t rtm_api_bad_route_counter;

/* ==== Registration ================================================================================================
 *
 * Synchronous, 168 bytes: 60 u32 handle (0; the answer carries the assigned one); 64 name, 40 bytes, cut without a
 * terminator, zero-padded; 108 u32 client type; 116 u32 address family or VRF; 128 u32 the client's receive queue;
 * 132 u32 service, task key, instance, spare of `ipc`; 160 u16 option, 2 for client type 26.
 * The answer's status word (byte 20) is 0 when the client was accepted; otherwise the call fails and *handle is left
 * as it was. A null name fails without sending. Registering again under the same name from the same queue returns the
 * handle that the client had.
 * A stream that begins with a handle which the manager does not know is not acknowledged, so that a client of a manager
 * that was started anew learns of it: from its queue's callback, with code 6 in mid-stream and 9 at the beginning.
 */
int zelRtmRegister(uint32_t clientType, uint32_t addressFamily, const char *name, uint32_t *handle,
                   const zelIpcAddr *ipc);
int zelRtmRegisterAddrFamily(uint32_t clientType, uint32_t addressFamily, const char *name, uint32_t *handle,
                             const zelIpcAddr *ipc);
int zelRtmRegister_vrf(uint32_t clientType, uint32_t vrfId, const char *name, uint32_t *handle, const zelIpcAddr *ipc);
int zelRtmRegisterAddrFamily_vrf(uint32_t clientType, uint32_t vrfId, const char *name, uint32_t *handle,
                                 const zelIpcAddr *ipc);
int zelRtmRegisterNonRtProtoClient(uint32_t clientType, uint32_t addressFamily, const char *name, uint32_t *handle,
                                   const zelIpcAddr *ipc);
int zelRtmFibRegister(uint32_t clientType, uint32_t addressFamily, const char *name, uint32_t *handle,
                      const zelIpcAddr *ipc);
/* For both unicast families. */
int zelRtmV4V6Register(uint32_t clientType, uint32_t addressFamily, const char *name, uint32_t *handle,
                       const zelIpcAddr *ipc);
/* One way: sends the registration (type 0x3220 for client type 26) and does not wait. The manager's answer, the same
 * message with handle and status, comes to the client's receive queue. */
int zelRtmSendRegister(uint32_t clientType, uint32_t addressFamily, const char *name, const zelIpcAddr *ipc);

/* Synchronous, 64 bytes: 60 u32 handle. The client's routes go with it. */
int zelRtmDeregister(uint32_t handle, const zelIpcAddr *ipc);
int zelRtmV4V6Deregister(uint32_t handle, const zelIpcAddr *ipc);
/* Synchronous, 68 bytes: 60 u32 handle, 64 u32 family. The client's routes of that family go. */
int zelRtmDeregisterAddrFamily(uint32_t handle, uint32_t addressFamily, const zelIpcAddr *ipc);
/* Synchronous, 72 bytes: 60 u32 handle, 64 u32 kind, 68 u32 value: a mark that the manager keeps with the client and
 * shows to those who ask for its clients. */
int zelRtmRegisterClientQualifier(uint32_t handle, uint32_t kind, uint32_t value, const zelIpcAddr *ipc);
int zelRtmDeRegisterClientQualifier(uint32_t handle, uint32_t kind, uint32_t value, const zelIpcAddr *ipc);

/* ==== Route updates ===============================================================================================
 *
 * A batch is one message of at most 8192 bytes: 132 and 136 u32 handle; 140 u32 number of routes; 144 u8 `source`;
 * 145 u8 family; from 148 one record per route: u32 operation, then
 *   prefix and mask (4 + 4 bytes, IPv6 16 + 16); u32 VRF; u16 next hops; u16 TLV bytes; u8 protocol; u8 distance;
 *   u16 flags; u32 metric; u32 tag; 28 opaque bytes;
 *   per next hop the address (4 or 16), u32 interface, u32 VRF, rest (8 or 4); then the TLV bytes.
 * The VRF of the route (that of the call when the route names none) is written into the fixed part and every hop.
 */

/* Adds or withdraws one route, queued. With `pending` null the route is sent at once, alone. Otherwise *pending holds
 * the batch (null to begin): the route is appended, and the batch is sent and *pending cleared once it has 6338 bytes
 * (IPv6: 5802). With `route` null, what *pending holds is sent; nothing happens when it holds nothing. `operation` must
 * be ZEL_RTM_ADD or ZEL_RTM_DELETE in every case, else 1 and *pending is untouched. With ZEL_RTM_QUEUE_LIST as `queue`,
 * `list` carries the batch on the queue of group `vrfId`. 0; 1 for any failure; 2 when the queue is full. When the
 * message could not be queued, the batch is freed and *pending cleared: its routes are lost to the manager, and the
 * caller must send them again. More than 64 next hops, more than 514 TLV bytes or another family fail before anything
 * is touched. */
int zelRtmUpdateRoute(uint32_t handle, uint32_t operation, const zelRtmRoute *route, void **pending,
                      const zelIpcAddr *ipc, uint32_t queue, uint8_t source, int family, zelSwpQList *list,
                      uint32_t vrfId);
/* Frees what *pending holds, unsent, and clears it; for callers that start over. */
void zelRtmDropPending(void **pending, uint32_t queue, zelSwpQList *list, uint32_t vrfId);
/* Takes one acknowledged message off `queue` and frees it; the result of zelSwpDequeue, 0 when one was taken. */
int zelRtmUpdateRouteSwpAck(uint32_t queue);

/* ==== Look-ups ====================================================================================================
 *
 * A query is 1896 bytes, and the answer comes in the same place: 0 u32 kind of match; 4 u8 family; 5 u8 prefix bits;
 * 6 u16 result (0 in a query); 8 the address, 16 bytes; 24 the route found: the record of a batch without its
 * operation. The TLV bytes are there when they fit, else their length reads 0.
 * Around it, a synchronous request of 1972 bytes has 60 u32 handle, 64 u32 subcommand, 68 u32 VRF, 72 u32 1, 76 the
 * query. zelRtmBuildQuery and zelRtmParseAnswer spare callers the layout.
 */
#define ZEL_RTM_QUERY_LENGTH 1896
#define ZEL_RTM_TLV_AREA 516 /* u16 length and 514 bytes */

enum { ZEL_RTM_MATCH_LONGEST = 1, ZEL_RTM_MATCH_EXACT = 2 };
enum { ZEL_RTM_NOT_FOUND = 0, ZEL_RTM_FOUND = 1 };
/* Subcommands of polls: look up now and at every change, or stop that. Synchronous look-ups take ZEL_RTM_POLL_START. */
enum { ZEL_RTM_POLL_START = 1, ZEL_RTM_POLL_STOP = 2 };

/* Fills a query (1896 bytes); `address` has 4 bytes, 16 in family 2; `bits` is the prefix length for exact matches. 0,
 * or 1 for an unknown kind or family or too many bits. */
int zelRtmBuildQuery(void *query, uint32_t match, int family, const void *address, uint32_t bits);
/* Reads an answer: ZEL_RTM_FOUND with *route and *bits (the prefix length found; may be null) filled,
 * ZEL_RTM_NOT_FOUND, or -1 when it is malformed. route->tlv points into `answer`. */
int zelRtmParseAnswer(const void *answer, zelRtmRoute *route, uint32_t *bits);

/* Synchronous; `query` is replaced by the answer. A recursive look-up follows next hops that are no neighbours
 * (interface 0) until one has an interface, and answers the route of that last step. */
int zelRtmRouteLookupIPv4(uint32_t handle, uint32_t subcommand, const zelIpcAddr *ipc, uint32_t vrfId, void *query);
int zelRtmRecurRouteLookupIPv4(uint32_t handle, uint32_t subcommand, const zelIpcAddr *ipc, uint32_t vrfId,
                               void *query);
/* Also stores the TLV area of the route asked for (ZEL_RTM_TLV_AREA bytes), which need not be the last step's. */
int zelRtmRecurRouteLookupIPv4Tlv(uint32_t handle, uint32_t subcommand, const zelIpcAddr *ipc, uint32_t vrfId,
                                  void *query, void *tlvArea);
int zelRtmRecurRouteLookupIPv6(uint32_t handle, uint32_t subcommand, const zelIpcAddr *ipc, uint32_t vrfId,
                               void *query);

/* Queued, 2048 bytes: 132 u32 handle, 136 u32 subcommand, 140 u32 VRF, 144 u32 1, 152 the query. The answer is a
 * message of the same type and layout to the client's receive queue, sent once, now and whenever the answer changes,
 * until ZEL_RTM_POLL_STOP. A subcommand or kind of match outside 1 and 2 is logged and sent all the same. */
int zelRtmPollRouteLookupIPv4(uint32_t handle, uint32_t subcommand, const zelIpcAddr *ipc, uint32_t queue,
                              uint32_t vrfId, const void *query);
/* Queued: as above with 144 u32 `count`, and from 152 the first 24 bytes of `count` queries (at most
 * ZEL_RTM_MAX_MULTI_POLL, else 1). One answer of 2048 bytes each, with the query's index at 148. */
#define ZEL_RTM_MAX_MULTI_POLL 335
#define ZEL_RTM_QUERY_HEAD 24
int zelRtmPollMultiRouteLookupIPv4(uint32_t handle, uint32_t subcommand, const zelIpcAddr *ipc, uint32_t queue,
                                   uint32_t vrfId, int count, const void *queries);
int zelRtmPollMultiRouteLookupIPv6(uint32_t handle, uint32_t subcommand, const zelIpcAddr *ipc, uint32_t queue,
                                   uint32_t vrfId, int count, const void *queries);

/* ==== Flushes and clears ==========================================================================================
 *
 * A flush withdraws routes, a poller flush ends polls, of one client. Queued ones have 140 bytes: 132 u32 handle, 136
 * u32 VRF (poller flush per VRF, else 0); the per-VRF flush has 144 with the VRF at 140. The type names the family; the
 * forms without a family are for IPv4 unicast.
 */
int zelRtmFlushRoutes(uint32_t handle, const zelIpcAddr *ipc); /* synchronous, every family; 64 bytes */
int zelRtmFlushRoutesSwp(uint32_t handle, const zelIpcAddr *ipc, uint32_t queue);
int zelRtmFlushRoutesAFSwp(uint32_t handle, const zelIpcAddr *ipc, uint32_t queue, int family);
int zelRtmFlushVRFRoutesAFSwp(uint32_t handle, const zelIpcAddr *ipc, uint32_t queue, uint32_t vrfId, int family);
int zelRtmFlushPollerRoutesSwp(uint32_t handle, const zelIpcAddr *ipc, uint32_t queue);
int zelRtmFlushPollerRoutesAFSwp(uint32_t handle, const zelIpcAddr *ipc, uint32_t queue, int family);
int zelRtmFlushPollerVRFRoutesAFSwp(uint32_t handle, const zelIpcAddr *ipc, uint32_t queue, uint32_t vrfId, int family);
/* Synchronous, 168 bytes: 60 u32 handle, 116 u32 VRF. The manager withdraws every client's routes of that VRF and asks
 * each owner, by a clear request of 72 bytes to its receive queue (60 u32 handle, 64 u32 VRF, 68 u32 sequence word), to
 * acknowledge and to send its routes again; it asks again each second, five times in all. Fails when the answer's
 * status is not 0. */
int zelRtmFibClear(uint32_t handle, uint32_t vrfId, const zelIpcAddr *ipc);
/* Queued, 180 bytes: 132 u32 handle, 144 u32 1, 148 u32 family, 152 u32 the request's sequence word. */
int zelRtmClearIpRouteSwpAck(uint32_t handle, const zelIpcAddr *ipc, uint32_t queue, uint32_t sequenceWord);
int zelRtmClearIpRouteSwpAckAF(uint32_t handle, const zelIpcAddr *ipc, uint32_t queue, uint32_t sequenceWord,
                               int family);
/* Queued, 140 bytes: 132 u32 handle, 136 u32 VRF: the client has let go of a deleted VRF. */
int zelRtmVrfDeleteAck(uint32_t handle, const zelIpcAddr *ipc, uint32_t queue, uint32_t vrfId);

/* ==== Redistribution and the rest =================================================================================
 *
 * A target client names types of clients whose routes it takes. For each prefix of the family, in every VRF, it gets
 * the preferred one of the routes that clients of these types have, its own never: at once what is there, later what
 * changes, and a withdrawal (operation 2, without next hops) when none is left or a rule is taken back. They come in
 * batches like those of route updates, with the target's handle, down a sliding-window queue of the manager to the
 * target's receive queue; a zelSwpReceiver takes them, zelRtmParseBatch and zelRtmNextRoute read them. A prefix that
 * changes faster than the target acknowledges is told in its last state. A target that lost the stream, and so what it
 * was told, gets everything again on a new one; one that acknowledges nothing for ten seconds gets no more until it
 * accepts or restarts.
 *
 * Synchronous, 76 bytes: 60 u32 handle of the target client, 64 u32 option, 68 u32 family, 72 u32 *value: the client
 * type whose routes the target takes. Fails when the answer's status is not 0: rejecting a type that was not accepted,
 * for instance, or accepting as a client that the task table does not know. A null `ipc` is reported by assertion.
 */
enum { ZEL_RTM_REDIST_ACCEPT = 1, ZEL_RTM_REDIST_REJECT = 2 };
int zelRtmRedistTgtClientMsg_opts(uint32_t handle, uint32_t option, const zelIpcAddr *ipc, const uint32_t *value);
int zelRtmRedistTgtClientAccept_opts(uint32_t handle, const zelIpcAddr *ipc, const uint32_t *value);
int zelRtmRedistTgtClientReject_opts(uint32_t handle, const zelIpcAddr *ipc, const uint32_t *value);
int zelRtmRedistTgtClientMsgAF_opts(uint32_t handle, uint32_t option, const zelIpcAddr *ipc, int family,
                                    const uint32_t *value);
int zelRtmRedistTgtClientAcceptAF_opts(uint32_t handle, const zelIpcAddr *ipc, int family, const uint32_t *value);
int zelRtmRedistTgtClientRejectAF_opts(uint32_t handle, const zelIpcAddr *ipc, int family, const uint32_t *value);
/* Queued, 136 bytes: 128 u32 option (0: every rule, else that client type), 132 u32 handle. */
int zelRtmRedistDeleteRules(uint32_t handle, const zelIpcAddr *ipc, uint32_t queue);
int zelRtmRedistDeleteRules_opts(uint32_t handle, uint32_t option, const zelIpcAddr *ipc, uint32_t queue);
/* Queued, 176 bytes: 132 u32 handle, 136 u32 VRF: the target asks for all that its rules select there once more. */
int zelRtmRedistRestart(uint32_t handle, const zelIpcAddr *ipc, uint32_t queue, uint32_t vrfId);

typedef struct {
    uint8_t prefix[4];
    uint8_t mask[4];
    uint32_t tag;
    uint32_t level;
} zelRtmIsisTag;
/* Queued, 164 bytes: 132 u32 handle, 136 u32 VRF, 140 prefix, 144 mask, 148 u32 tag, 152 u32 level. */
int zelRtmIsisTagInfo(uint32_t handle, const zelIpcAddr *ipc, uint32_t queue, uint32_t vrfId, const zelRtmIsisTag *tag);
/* Neither this nor the tag information changes routes; zelrtmd takes no notice of them.
 * Queued, 152 bytes: 132 u32 handle, 136 u32 family, 140 u32 VRF, 144 u32 originate (1) or not (0), 148 u32 metric. */
int zelRtmUpdateDefaultInfo(uint32_t handle, const zelIpcAddr *ipc, uint32_t queue, int family, uint32_t vrfId,
                            uint32_t originate, uint32_t metric);

/* ==== Questions about the manager =================================================================================
 *
 * Answered to this CPU and to CPUs of registered clients.
 *
 * Counters, synchronous: the request is the bare header; the answer has ZEL_RTM_COUNTERS u64 words from byte 60.
 */
enum {
    ZEL_RTM_COUNT_CLIENTS,
    ZEL_RTM_COUNT_TABLES,
    ZEL_RTM_COUNT_PREFIXES,
    ZEL_RTM_COUNT_ROUTES,  /* several clients may have one for a prefix */
    ZEL_RTM_COUNT_BATCHES, /* accepted in order */
    ZEL_RTM_COUNT_ADDS,
    ZEL_RTM_COUNT_DELETES,
    ZEL_RTM_COUNT_REPLACED, /* adds of a prefix that the client had already */
    ZEL_RTM_COUNT_UNKNOWN_DELETES,
    ZEL_RTM_COUNT_DUPLICATES, /* messages of a stream received before */
    ZEL_RTM_COUNT_GAPS,       /* messages of a stream ahead of their turn */
    ZEL_RTM_COUNT_MALFORMED,
    ZEL_RTM_COUNT_REFUSED, /* requests answered with a status, and messages of unknown clients */
    ZEL_RTM_COUNT_LOOKUPS, /* synchronous ones */
    ZEL_RTM_COUNT_POLL_ANSWERS,
    ZEL_RTM_COUNT_FLUSHES,
    ZEL_RTM_COUNT_CLEAR_ACKS,
    ZEL_RTM_COUNT_DROPPED_BY_HOST,
    ZEL_RTM_COUNT_REDISTRIBUTED, /* routes and withdrawals told to targets */
    ZEL_RTM_COUNTERS
};
int zelRtmGetCounters(const zelIpcAddr *ipc, uint64_t counters[ZEL_RTM_COUNTERS]);

/* Table dump, synchronous, page by page in the order of prefixes. Request, 92 bytes: 60 u32 family, 64 u32 VRF, 68 u32
 * bits and 72 16 bytes of the last prefix already seen (bits 255 to begin), 88 u32 0. Answer: 60 as asked, 88 u32
 * number of records, from 92 the records: u32 handle of the client, then the record of a batch without its operation;
 * all routes of a prefix stand together, the preferred one first. A page without records is the end. */
typedef struct {
    int family;
    uint32_t vrfId;
    uint32_t bits; /* 255 to begin */
    uint8_t prefix[16];
    /* private: the page and what was read of it */
    uint32_t left;
    uint32_t offset;
    uint32_t length;
    uint8_t page[ZEL_RTM_MAX_MESSAGE];
} zelRtmDump;
void zelRtmDumpBegin(zelRtmDump *dump, int family, uint32_t vrfId);
/* Stores the next route and its client's handle, asking for a new page when needed: 1; 0 at the end; -1 on failure.
 * route->tlv points into the dump until the next call. */
int zelRtmDumpNext(zelRtmDump *dump, const zelIpcAddr *ipc, uint32_t *handle, zelRtmRoute *route);

/* Clients, synchronous, one by one. Request, 64 bytes: 60 u32 cursor. Answer: 60 u32 the next cursor (0: there is no
 * such client any more), 64 u32 handle, 68 name, 40 bytes, 108 u32 client type, 112 u32 address, 116 u32 receive queue,
 * 120 u32 number of facts, from 124 the facts, three u32 each. */
#define ZEL_RTM_MAX_CLIENT_FACTS 64
enum {
    ZEL_RTM_FACT_FAMILY = 1,    /* family, 0: registered for it */
    ZEL_RTM_FACT_VRF = 2,       /* VRF, 0 */
    ZEL_RTM_FACT_QUALIFIER = 3, /* kind, value */
    ZEL_RTM_FACT_ACCEPTS = 4    /* family, client type whose routes it takes */
};
typedef struct {
    uint32_t what;
    uint32_t first;
    uint32_t second;
} zelRtmClientFact;
typedef struct {
    uint32_t handle;
    char name[ZEL_RTM_NAME_LENGTH + 1];
    uint32_t clientType;
    uint32_t address;
    uint32_t receiveQueue;
    uint32_t nFacts;
    zelRtmClientFact facts[ZEL_RTM_MAX_CLIENT_FACTS];
} zelRtmClient;
/* Stores the client at *cursor (0 to begin) or behind it, and moves the cursor on: 1; 0 when there is none; -1 on
 * failure. */
int zelRtmNextClient(const zelIpcAddr *ipc, uint32_t *cursor, zelRtmClient *client);

/* ==== Manager side ================================================================================================
 *
 * Reading what clients send, and building what they read. Nothing here trusts a message: every count is checked against
 * `length`, the bytes received. Parsers return 0, or 1 for a message of another type, too short, or malformed.
 */

/* 1 for messages that clients send down a sliding-window queue, 0 for all others. */
int zelRtmIsQueued(uint32_t type);

typedef struct {
    uint32_t type;
    uint32_t handle;
    char name[ZEL_RTM_NAME_LENGTH + 1];
    uint32_t clientType;
    uint32_t scope; /* address family, or VRF for type 0x323F */
    uint32_t receiveQueue;
    uint32_t sourceAddress;
    zelIpcAddr address;
    uint16_t option;
} zelRtmRegistration;
int zelRtmParseRegistration(const void *message, int length, zelRtmRegistration *registration);

/* A batch as it is read; keep `message` alive meanwhile. */
typedef struct {
    uint32_t handle;
    uint32_t routes; /* as the batch says */
    uint8_t source;
    int family;
    const uint8_t *record; /* what zelRtmNextRoute read last: the record without its operation, in the message */
    uint32_t recordLength;
    /* private */
    const uint8_t *message;
    uint32_t offset;
    uint32_t length;
    uint32_t left;
} zelRtmBatch;
int zelRtmParseBatch(const void *message, int length, zelRtmBatch *batch);
/* Reads the next record: 1; 0 behind the last one when nothing is left over; -1 for a malformed batch. */
int zelRtmNextRoute(zelRtmBatch *batch, uint32_t *operation, zelRtmRoute *route);

/* Writes a route as a record without operation; bytes written, -1 when it does not fit `room` or is no valid route. */
int zelRtmSerialiseRoute(const zelRtmRoute *route, int family, void *record, size_t room);
/* Reads such a record; bytes read, -1 when it does not lie within `length` or is no valid route. */
int zelRtmParseRoute(const void *record, size_t length, int family, zelRtmRoute *route);

/* Every request with a handle and few words: deregistrations, flushes, redistribution, acknowledgements and so on, and
 * the question for a client, with the cursor as handle. Fields that the type does not have are 0. */
typedef struct {
    uint32_t type;
    uint32_t handle;
    int family;
    uint32_t vrfId;
    uint32_t option;
    uint32_t value;
    uint32_t sequenceWord;
} zelRtmRequest;
int zelRtmParseRequest(const void *message, int length, zelRtmRequest *request);

/* One question of a look-up message; a multi poll has several. */
typedef struct {
    uint32_t type;
    uint32_t handle;
    uint32_t subcommand;
    uint32_t vrfId;
    uint32_t count;
    uint32_t index;
    uint32_t match;
    int family;
    uint32_t bits;
    uint8_t address[16];
} zelRtmQuery;
/* Reads question `index` of a look-up or poll of any type. */
int zelRtmParseQuery(const void *message, int length, uint32_t index, zelRtmQuery *query);
/* Turns `answer`, of ZEL_RTM_QUERY_LENGTH bytes, into the answer to `query`; null is "not found". */
void zelRtmWriteAnswer(void *answer, const zelRtmQuery *query, const zelRtmRoute *route, uint32_t bits);
/* The message that carries it. Synchronous: `message` is the request, answered in place, the TLV area from `tlvOf`
 * where the type has one. Polls: a new message of 2048 bytes to (`address`, `receiveQueue`). Both return the length. */
int zelRtmAnswerRequest(void *message, const zelRtmQuery *query, const zelRtmRoute *route, uint32_t bits,
                        const zelRtmRoute *tlvOf);
int zelRtmBuildPollAnswer(void *message, const zelRtmQuery *query, const zelRtmRoute *route, uint32_t bits,
                          uint32_t address, uint32_t receiveQueue);
/* Status (byte 20) of an answer; registrations also carry the handle. */
void zelRtmSetStatus(void *message, uint32_t status);
void zelRtmAnswerRegistration(void *message, uint32_t handle, uint32_t status);
/* The answer to ZEL_RTM_MSG_COUNTERS; `message` has ZEL_RTM_MAX_MESSAGE bytes, begins with the request's header;
 * returns the length. */
int zelRtmAnswerCounters(void *message, const uint64_t counters[ZEL_RTM_COUNTERS]);
/* The answer to ZEL_RTM_MSG_CLIENTS, to a buffer as above; null when there is no client. */
int zelRtmAnswerClient(void *message, uint32_t nextCursor, const zelRtmClient *client);
/* A page of a table dump: parse the request, append routes to the same buffer of ZEL_RTM_MAX_MESSAGE bytes, finish. A
 * copy of the structure marks a place to fall back to, so that the routes of one prefix stay together. */
typedef struct {
    int family;
    uint32_t vrfId;
    uint32_t bits; /* 255 to begin */
    uint8_t prefix[16];
    uint32_t records;
    uint32_t length;
} zelRtmDumpPage;
int zelRtmParseDump(const void *message, int length, zelRtmDumpPage *page);
/* 1, or 0 when the route does not fit on the page any more. */
int zelRtmDumpAppend(void *message, zelRtmDumpPage *page, uint32_t handle, const zelRtmRoute *route);
/* The length of the finished answer. */
int zelRtmDumpFinish(void *message, const zelRtmDumpPage *page);
/* A clear request, 72 bytes; returns the length. */
int zelRtmBuildClear(void *message, uint32_t handle, uint32_t vrfId, uint32_t sequenceWord, uint32_t address,
                     uint32_t receiveQueue);
/* Client side of it: 0 and the words, or 1. */
int zelRtmParseClear(const void *message, int length, uint32_t *handle, uint32_t *vrfId, uint32_t *sequenceWord);

/* ==== Address helpers =============================================================================================
 *
 * Addresses have 4 bytes, 16 in family ZEL_RTM_IPV6_UNICAST. The texts go to `text` (`size` bytes), which is returned.
 */
const char *rtm_inet_ntop(int family, const void *address, char *text, size_t size);
const char *rtm_inet_ntop4(const void *address, char *text, size_t size);
/* Number of leading one bits. */
int rtm_mask2plen(int family, const void *mask);
int rtmAF_IsAddrZero(int family, const void *address);
int rtmAF_IsAddrNonZero(int family, const void *address);
int rtmAF_IsAddrAllOnes(int family, const void *address);
/* Prefix and mask are all zero. */
int rtmAF_IsDefaultRoute(int family, const void *prefix, const void *mask);

/* Index of a VLAN (0 to 4096), LAG (0 to 129) or slot (0 to 13) in one array of all of them, in that order; -1 after a
 * report when it is out of range. */
#define RTM_MAX_VLANS 4096
#define RTM_MAX_LAGS 129
#define RTM_MAX_LINECARDS 14
enum { ZEL_RTM_REDIR_VLAN = 0, ZEL_RTM_REDIR_LAG = 1, ZEL_RTM_REDIR_SLOT = 2 };
int rtmIpRedirGetArrayIndex(int kind, uint32_t number);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

/* The multicast client is part of this family. */
#include "zel/mrtm.h"

#endif
