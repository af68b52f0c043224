/*
 * Inter-process communication: addressing, send and receive, the task manager client and its manager side,
 * sliding-window queues and queue lists.
 *
 * IPC addresses are uint32_t in host order, 0xffffffff when invalid; header words are big-endian on the wire and are
 * read and written with zelIpcHdrGet32 and zelIpcHdrSet32. Keys are (service << 7) | (instance << 2) | queue type.
 */
#ifndef ZEL_IPC_H
#define ZEL_IPC_H

#include <stddef.h>
#include <stdint.h>
#include <sys/time.h>
#include <sys/types.h>

#include "zel/types.h"

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* ==== Addressing ================================================================================================== */

/*
 * An endpoint is a (service, instance) of this CPU, opened by a task: a request queue, a response queue, and a timer
 * queue when one is asked for. A queue is a UDP socket bound to this CPU's IPC address and the port that its queue id
 * is. Operations take the endpoint's key; where they need one queue it is the one that key AND 3 names, and a bare key
 * stands for the request queue. Sockets belong to the process that opened them: a forked child has none, an executed
 * program inherits none.
 *
 * Any task may use every endpoint of its process. Closing one while other tasks use it makes their waits fail.
 */

typedef uint32_t zelIpcKey_t;

#define ZEL_IPC_HDR_LEN 60
#define ZEL_IPC_MAGIC 0xfeedbeafu
#define ZEL_IPC_ENDPOINT_MAGIC 0xfeedbeadu
#define ZEL_IPC_NO_ADDRESS 0xffffffffu
#define ZEL_IPC_MIN_SERVICE 13
#define ZEL_IPC_MAX_SERVICE 363
#define ZEL_IPC_MAX_INSTANCES 32

/* Command types, byte 4 of the header. */
enum {
    ZEL_IPC_DEF = 0,         /* plain send */
    ZEL_IPC_GACK = 6,        /* acknowledges GSEND */
    ZEL_IPC_GSEND = 7,       /* guaranteed send */
    ZEL_IPC_GACK_FIRST = 8,  /* acknowledges GSEND_FIRST */
    ZEL_IPC_GSEND_FIRST = 9, /* guaranteed send that starts a target's sequence numbers */
    ZEL_IPC_ACK = 10,        /* acknowledges GRT: the header alone */
    ZEL_IPC_GRT = 11,        /* asks for an ACK when byte 5 is not 0 */
    ZEL_IPC_RSP = 12,        /* reply */
    ZEL_IPC_REQ = 13         /* request of a send-and-wait */
};

enum { ZEL_IPC_QUEUE_NONE = 0, ZEL_IPC_QUEUE_REQUEST = 1, ZEL_IPC_QUEUE_RESPONSE = 2, ZEL_IPC_QUEUE_TIMER = 3 };

/* Big-endian words of a header or message at byte offset `off`; the caller guarantees off + 4 bytes. */
uint32_t zelIpcHdrGet32(const void *hdr, unsigned off);
void zelIpcHdrSet32(void *hdr, unsigned off, uint32_t value);

/* The command's name, "UNKNOWN" for others; static text. */
const char *zelIpcGetCmdTypeName(int command);
/* Number of service numbers, 366. */
int maxService(void);

/* The queue id, which is the UDP port, of (service, instance, type). Nothing is refused: the service keeps 9 bits, the
 * instance 5; instances 48 to 4144 name relayed peers and give the relay's queue. On the platform variant (type 6, or 9
 * with a single virtual instance) the rules of zel_getQueueIdInPE hold: relayed instances count as 0, and services
 * whose queues are folded onto the relay give its queue to every task but the relay. */
uint32_t zel_getQueueId(int service, int instance, int type);
uint32_t zel_getQueueIdInPE(int service, int instance, int type);

/* The key with its queue type OR-ed in when that queue of this process is open, else 0. Key_getTmrQueue also clears bit
 * 0 of the endpoint's timer flags; Key_getAllQueue does not look whether the request queue is open. */
uint32_t Key_getReqQueue(uint32_t key);
uint32_t Key_getRspQueue(uint32_t key);
uint32_t Key_getTmrQueue(uint32_t key);
uint32_t Key_getAllQueue(uint32_t key);
/* The socket of the queue, for poll; -1 when it is not open. It stays the library's. */
int Key_getSocketFd(uint32_t key);

/* Fields of a key; only the ...FromSvce forms mask the service to 9 bits. */
uint32_t zelIpcGetService(uint32_t key);
uint32_t zelIpcGetServiceFromSvce(uint32_t key);
uint32_t zelIpcGetInstance(uint32_t key);
uint32_t zelIpcGetInstanceFromSvce(uint32_t key);

/* Write slot, address and queue id of one end into a header: the source with this CPU's address and the response queue,
 * the target with the request queue (or, ToRspQ, the response queue) of (service, instance). Return the queue id. */
uint32_t zelIpcSetSourceHeader(void *hdr, uint32_t slot, int service, int instance);
uint32_t zelIpcSetTargetHeader(void *hdr, uint32_t ipAddress, uint32_t slot, int service, int instance);
uint32_t zelIpcSetTargetHeaderToRspQ(void *hdr, uint32_t ipAddress, uint32_t slot, int service, int instance);
/* Stores slot and queue id of the source; 0, or -1 when the header has no magic. */
int zelIpcGetSourceHeader(const void *hdr, uint32_t *slot, uint32_t *queueId);
/* Does nothing and returns 0. */
int zelIpcGetTargetHeader(const void *hdr, uint32_t *slot, uint32_t *queueId);

/* Opens request and response queue of an endpoint and returns its key; at once when both are open. The calling task
 * becomes the owner unless a living process owns the endpoint. Waits up to a second for a port that is in use. -1 with
 * errno: EINVAL (service outside 13..363, instance outside 0..31), EADDRINUSE, EADDRNOTAVAIL (no IPC address), ENOMEM,
 * or what the host's call left. Nothing stays open after a failure. */
int zelIpcOpen(int service, int instance);
/* Opens the timer queue; returns the key, or -1 as zelIpcOpen. */
int zelIpcOpenTmrQueue(uint32_t key);
/* Closes every queue of the endpoint, after a running send-and-wait has ended. Owner and name stay in the endpoint's
 * record. 0, or -1 with EINVAL, or EBADF when nothing is open. */
int zelIpcClose(uint32_t key);
/* Sets this process's secondary address from dotted text; a null or bad text makes it invalid. Returns 0. */
int zelIpcSetSecondaryAddress(const char *text);
/* Whether the sliding-window queues that this endpoint creates from now on name the secondary address as their source
 * while it is valid. Acknowledgements then go there, and the task reads them from a socket of its own: zel_ipcSOpen for
 * the request queue's id with `secondary` 1. 0, or -1 with EINVAL. */
int zelIpcUseSecondaryAddress(uint32_t key, int isUsed);
/* Stores the calling task's key, -1 when it has none, and reports a service that differs from `service` unless that is
 * 0. Returns 0. */
int getIpcKey(int service, int unused, int *key);
/* The calling task's service, 255 when it has none. */
int getSrvcId(void);

/* One queue of an endpoint; all zero when it is not in use. */
struct zelIpcQueueDesc {
    int inUse;
    int socket;
    int sendBufferBytes; /* effective, as the host reports them */
    int recvBufferBytes;
    zelSemId responseSemaphore; /* ipc_rspq_sem, of a response queue */
};

/* One record of the endpoint table that the processes of a CPU share. For reading only, and words change meanwhile. */
struct zelIpcEndpoint {
    uint32_t magic;       /* ZEL_IPC_ENDPOINT_MAGIC from the first opening on */
    uint32_t ownerTaskId; /* all ones: none */
    uint32_t pid;         /* of the owner */
    char name[32];        /* of the owner */
    uint32_t flags;       /* ZEL_IPC_FLAG_... */
    uint32_t pending;
    uint32_t service;
    uint32_t instance;
    uint32_t openMask; /* bits 0, 1, 2: request, response, timer queue */
    uint32_t state;    /* 1 while a queue is open */
    uint32_t timerFlags;
    uint32_t startTimeHigh; /* of the owner's process; with the pid it names the process for good */
    uint32_t startTimeLow;
    uint32_t spawnedPid; /* process that was started for this endpoint, while it has not claimed it */
    uint32_t reserved[11];
};

#define ZEL_IPC_FLAG_STARTING 0x1u
#define ZEL_IPC_FLAG_NAMED 0x4u
#define ZEL_IPC_FLAG_STARTED 0x8u
#define ZEL_IPC_FLAG_LOCK5_HELD 0x20000u /* the spawner took shared lock 5 for this task */
#define ZEL_IPC_FLAG_SECONDARY 0x80000u  /* see zelIpcUseSecondaryAddress; a new owner starts without */

/* A socket of protocol 17 (UDP) bound to `port` of this CPU's address, or of the secondary one when `secondary` is 1;
 * the caller closes it. -1 with errno as zelIpcOpen. */
int zel_ipcSOpen(int port, int protocol, int secondary);
/* The same into a descriptor that is not in use (EBUSY otherwise), with the buffer sizes. 0 or -1. */
int zel_ipcCreateLink(struct zelIpcQueueDesc *descriptor, uint32_t queueId);

/* ==== Send and receive ============================================================================================ */

/*
 * A message is a buffer that begins with the 60-byte header; its length counts the header. It travels as one datagram
 * to the address at byte 52 and the port in bytes 58..59. Unless a call says otherwise it stays the caller's and may be
 * used again when the call returns; sends stamp header words in place, so it must be writable.
 *
 * Times are whole seconds: -1 waits without limit, 0 not at all; anything below is refused. A wait ends at its deadline
 * whatever arrives meanwhile, and is a cancellation point. Sends return 0 or -1, receives the bytes copied (60 or more)
 * or -1; errno tells why: EINVAL (a service outside 13..363, a null pointer, a buffer below 60 bytes, a bad time),
 * EBADF (the queue is not open, or was closed during the wait), EMSGSIZE (a message below 60 bytes, or longer than a
 * datagram), ETIMEDOUT, or the host's reason.
 *
 * Headers are believed: replies and acknowledgements go where a message says it comes from. Keep the IPC network
 * private.
 */

/* Sends by guaranteed delivery when that is switched on, the key is the calling task's own and matches the source in
 * the header, both addresses lie in 127.0.0.0/8, the two tasks differ, neither service is exempt (24, 26, 37, 102, 106,
 * 253, 254, and 334 as target) and the target table has room; else plainly. */
int zelIpcSend(uint32_t key, void *message, int length);
/* One datagram. Stamps the magic and, when the source queue at byte 44 is 0, the key's response queue as the source. */
int zelIpcNonGuaranteedSend(uint32_t key, void *message, int length);
/* Sends from the request queue and waits a second for the acknowledgement on the response queue, at most three times;
 * other datagrams that arrive there are lost. May block up to three seconds beside the wait for the response queue.
 * `options` is not used. */
int zelIpcGuaranteedSend(uint32_t key, void *message, int length, int options);

/* Receives a message of this type and transaction, or any message when both are 0; others are dropped. Answers
 * guaranteed messages and those that ask for an acknowledgement at once, also ones it then drops; a guaranteed message
 * that was delivered before is only answered again. A message longer than `size` is cut. */
int zelIpcRecv(uint32_t key, void *buffer, int size, int timeoutSec, uint32_t msgType, uint32_t transaction);
/* The receiving half of zelIpcSendWait. */
int zelIpcRecvOnRspQ(uint32_t key, void *buffer, int size, int timeoutSec, uint32_t msgType, uint32_t transaction);
/* Sends `message`, whose header is that of the request it answers, to the request's source. The buffer is not changed.
 * Acknowledges a guaranteed request that was not read by zelIpcRecv. */
int zelIpcReply(uint32_t key, void *message, int length);

/* Sends a request and waits for the response of the same type and transaction (byte 32), which overwrites `buffer`:
 * `sendLen` bytes go, up to `recvLen` come. `msgType` 0 keeps the type in the header; with transaction 0 as well the
 * first message is the response. Source address and queue are stamped. Unread datagrams that fill more than half of the
 * response queue are dropped first, so that they cannot push the response out. Tasks that share an endpoint take turns,
 * without limit of time. On -1 the buffer may hold a datagram that was dropped. Safe to delete: the turn is given back.
 */
int zelIpcSendWait(uint32_t key, void *buffer, int sendLen, int recvLen, int timeoutSec, uint32_t msgType);
/* The same from one buffer to another, with type and transaction given, made up to retries + 1 times within one turn
 * until it succeeds; each time waits `timeoutSec`. */
int zelIpcSendWaitWithRetry(uint32_t key, const void *sendBuffer, void *recvBuffer, int sendLen, int recvLen,
                            int timeoutSec, uint32_t msgType, uint32_t transaction, int retries);

/* Socket buffers of a queue in bytes. The host may round, double or cap what is set; the getters return what it made of
 * it. -1 with the cause in *error (may be null) and in errno. */
int zelIpcSetSendBufferLimit(uint32_t key, int bytes, int *error);
int zelIpcSetRecvBufferLimit(uint32_t key, int bytes, int *error);
int zelIpcGetSendBufferLimit(uint32_t key, int *error);
int zelIpcGetRecvBufferLimit(uint32_t key, int *error);

/* The switch of guaranteed delivery in this process, 0 at first. */
int zelIsIpcGuaranteedEnabled(void);
void zelIpcGuaranteedEnDis(int flag);
/* 0 when the target is new and the table of 1024 is full. */
int zelIsIpcGDbUpdPossible(uint32_t key, uint32_t targetQueueId);
/* The record of a target, created when it is new; null when the table is full. Of a queue id that was sent to at
 * several addresses it is the one at this CPU's. 23 bytes, most significant byte first: acknowledged sends, second
 * attempts, third attempts, failed sends, average milliseconds (4 each), next sequence number (2), flags (bit 0x40: the
 * next is a first send). It lives as long as the process. */
uint8_t *zelGuaranteedIpcGetTargetDBPtr(uint32_t key, uint32_t targetQueueId);
/* Book-keeping of a send in its record; the caller serialises. */
void zelGuaranteedIpcUpdRetryAttemptCntr(uint8_t *record, int attempt);
void zelGuaranteedIpcSendSuccess(uint8_t *record, uint32_t milliseconds, int ackType);
void zelGuaranteedIpcSendFailed(uint8_t *record);
/* Stores how long an attempt waits for its acknowledgement: a second. 0, or -1 for null. */
int zelIpcGrnteedSetTimeout(struct timeval *wait, int attempt);

/* Copies the next datagram without taking it: bytes copied, 0 when there is none. Does not block. */
int zelIpcPeekMsg(uint32_t key, void *buffer, int size);
/* How many datagrams wait in the queue; -1 when it is not open. Empty datagrams may be missed. */
int zelIpcGetNumMsgs(uint32_t key);
/* Lets the queue's socket send to broadcast addresses, or not. 0 or -1. */
int zelIpcEnableBroadcast(uint32_t key);
int zelIpcDisableBroadcast(uint32_t key);

/* Keep the headers of the last 256 messages of this process, or stop; print them, oldest first, a trace line each. */
void zelEnableIpcHistoryLogging(void);
void zelDisableIpcHistoryLogging(void);
void dumpIpcHistoryLogging(void);

typedef struct {
    uint64_t sent;
    uint64_t sendFailures;
    uint64_t received;
    uint64_t droppedShort;     /* fewer than 60 bytes */
    uint64_t droppedMagic;     /* wrong magic */
    uint64_t droppedMismatch;  /* another type or transaction, or not the acknowledgement waited for */
    uint64_t droppedLateAck;   /* guaranteed acknowledgement nobody waits for */
    uint64_t droppedDuplicate; /* guaranteed message delivered before */
    uint64_t droppedByHost;    /* socket buffer full, as the host reports */
    uint64_t truncated;        /* longer than the caller's buffer */
} zelIpcQueueStats;
/* Counters of a queue in this process since it was opened, also after it was closed. 0, or -1 with EINVAL. */
int zelIpcGetQueueStats(uint32_t key, zelIpcQueueStats *stats);

/* ==== Task manager client ========================================================================================= */

/* The first call of a spawned task. The last eight arguments are its identity: service, instance, parent service,
 * parent instance, task index (decimal), and three more. Opens the endpoint, makes the calling task its owner, releases
 * shared lock 5 when the spawner took it for this task, and empties the last five arguments, in the process listing
 * too. Returns the key; -1 after a report, with errno as zelIpcOpen, or EINVAL for fewer than eight arguments. */
int zelTaskStartup(int argc, char **argv);
/* Reports to the task manager (service 13) that the task is up. 0 or -1; without guaranteed delivery a missing task
 * manager is not noticed. */
int zelTaskReady(uint32_t key);

/* The key of the first endpoint, by service and instance, that the calling task owns, -1 without one. Only instances
 * that the service may have are looked at. */
int zelGetMyTaskKey(void);
/* Fields of a key; -1 after a report when its service is none. */
int zelTaskGetServiceByKey(uint32_t key);
int zelTaskGetInstanceByKey(uint32_t key);
/* The key as it is, after a report when its service is none. */
int zelTaskGetIpcKey(uint32_t key);
/* Task id and process id of the key's owner; -1 for a key without endpoint. */
int zelTaskIdSelf(uint32_t key);
int zelProcIdByKey(uint32_t key);
/* The key of (service, instance), -1 outside the table. */
int zelGetTaskKeyFromServiceAndInst(int service, int instance);
/* The owner's task id, -1 without one; an owner whose process is gone is none. */
int zelTaskGetByServiceAndInstance(int service, int instance);
/* 1 and the owner's task id, else 0 and 0. `taskId` may be null. */
int zelTaskIsDuplicate(int service, int instance, int *taskId);
/* The first endpoint that this task of this process owns, null without one. */
const struct zelIpcEndpoint *zelTaskAlreadyExists(int taskId);

/* Where a peer can be reached, ZEL_IPC_NO_ADDRESS when that is not known; *error (may be null) is 0 or 2. A peer is
 * looked up in the CPU's task table; instances 48 to 4144 are at the relay's master. On the platform variant every
 * other peer is on this CPU. */
uint32_t zel_tmeGetPeerIpAddrByName(int service, int instance, int *error);
/* The same, waiting for a peer that has not come up: a hundred tries within 112 seconds. */
uint32_t zel_tmeGetTaskIpAddrByName(int service, int instance, int *error);

/* The first process whose command name equals the first 16 characters of `name`, as far as the host keeps them; 0
 * without one. */
int zelTmeGetPidByName(const char *name);
/* Copies the task's name, cut to `size`, and returns `buffer`; "Unknown", copied as well, for no task. 0 is the calling
 * task. */
const char *zelTaskGetName(int taskId, char *buffer, int size);
/* The service's name, "Unknown" for a number without one; static text. */
const char *zelTaskGetServiceName(int service);

/* What the task manager published: this CPU's address (the platform's until then), its system instance, and the
 * addresses of the master route processors 0 and 1 (all ones for others). */
uint32_t zel_sysGetIpAddr(void);
uint32_t zel_sysGetInstance(void);
uint32_t getMasterRpmIpAddr(int which);

/* ==== Task manager side =========================================================================================== */

/* For the one task manager of a CPU. What it writes is seen by every process of the CPU; nothing here blocks, except
 * zelTmeSpawn. */

/* States of a task-table entry. */
enum { ZEL_TME_NONE = 0, ZEL_TME_HERE = 1, ZEL_TME_DOWN = 2, ZEL_TME_REMOTE = 3 };

/* Where a task runs. The address decides whether the entry is found (neither 0 nor all ones), and is where the task is
 * only when the state is ZEL_TME_REMOTE. */
typedef struct {
    uint32_t state;
    uint32_t address;
} zelTmeTaskEntry;

typedef struct {
    uint32_t ipAddress; /* this CPU's; 0 = the platform's */
    uint32_t instance;  /* the CPU's system instance */
    uint32_t masterAddress[2];
} zelTmeGlobals;

/* 0, or -1 with EINVAL for a service or instance outside the table. */
int zelTmeSetTaskEntry(int service, int instance, uint32_t state, uint32_t address);
int zelTmeGetTaskEntry(int service, int instance, zelTmeTaskEntry *entry);
int zelTmeSetGlobals(const zelTmeGlobals *globals);
/* Clears the task-table entries and endpoint records of a dead process, and the mark of a task that died before it had
 * its endpoint; returns how many endpoints it owned. A process that lives keeps everything. */
int zelTmeForget(pid_t pid);
/* Starts `path` as task (service, instance): the eight identity arguments behind `args` (null-terminated, may be null),
 * shared lock 5 taken for it and the flag for it set. Waits while another task is between its start and its endpoint.
 * Returns its process id, which the caller reaps, or -1 with errno. */
pid_t zelTmeSpawn(const char *path, char *const args[], int service, int instance, int parentService,
                  int parentInstance);
typedef struct {
    int service;
    int instance;
    uint32_t ownerTaskId;
    pid_t pid;
    uint32_t flags;
    uint32_t openMask;
    char name[32];
} zelTmeEndpoint;
/* Walks the endpoint table: stores the next open endpoint at or behind *cursor (0 to begin) and returns 1; 0 at the
 * end. Endpoints that a dead process left open are among them until they are forgotten. */
int zelTmeNextEndpoint(uint32_t *cursor, zelTmeEndpoint *endpoint);

/* ==== Sliding-window queues ======================================================================================= */

/*
 * An ordered, acknowledged, retransmitted stream of messages from one task to another.
 *
 * Sender. A message is a buffer of at least 124 bytes: the IPC header, of which the owner fills command, type and
 * packet type, then 64 bytes that belong to the queue, then the body. zelSwpEnqueue numbers it and sends it at once
 * when the window allows. The buffer belongs to the queue until zelSwpDequeue returns it. Acknowledgements come as
 * messages of 124 bytes, packet type ZEL_SWP_ACK_PACKET, to the sender's request queue (its timer queue, if so
 * created); the sending task receives them and hands each to zelSwpProcAck, then dequeues what was released:
 *
 *     length = zelIpcRecv(key, buffer, sizeof buffer, -1, 0, 0);
 *     if (zelIpcHdrGet32(buffer, 24) == ZEL_SWP_ACK_PACKET) {
 *         zelSwpProcAck(buffer, length, &queue);
 *         while (zelSwpDequeue(queue, &message) == ZEL_SWP_SUCCESS) release(message);
 *     }
 *
 * Time-outs need the timer task (vx2bsd_start). What was not acknowledged within the interval is resent from the oldest
 * on, which costs one of the queue's retransmissions; a gap that the receiver reports is resent at once, which costs
 * none. Progress restores the retransmissions. When none are left the callback is told and the queue stays as it is.
 *
 * Receiver. One zelSwpReceiver per task takes every stream message and says which to deliver. (zelSwpCkSeqNo and
 * zelSwpReceiverAck are the plain parts of it, for receivers that keep a counter per sender themselves: they cannot
 * tell a replayed message 0 from a restarted sender.)
 *
 * Streams are numbered, anew at each creation and flush. A receiver that was restarted answers that it does not know
 * the stream; the sender's callback then gets ZEL_SWP_SEQ_FAILURE, once, and the application registers again, flushes
 * the queue and resends.
 *
 * Layout behind the IPC header (byte 60; over the inter-chassis link behind the link's own header of 26 + L bytes, L
 * being the 16-bit word at its byte 24), big-endian words:
 *     +0 sender's queue number   +4, +8 sequence number, high and low   +12 result of the check (acknowledgements)
 *     +16 stream, 0 = unknown    +20 stream of the message answered (acknowledgements)
 *     +24 flags: 1 sent before message 0 was acknowledged (echoed), 2 another message follows at once
 *     +40 ring slot of the next queued message, from 1; 0 at the end    +44 length, copied to byte 8 of the IPC header
 * An acknowledgement names the last message received in order (all ones: none), and so acknowledges all before it.
 *
 * A queue belongs to the process that created it; others may look at it. Any task of that process may use it, and the
 * callback and hooks run with no lock held and may use it too. Calls do not block, except creation; a deleted task
 * leaves them before zelSwpEnqueue took the message, or when the call is done.
 */

#define ZEL_SWP_MAX_QUEUES 900
#define ZEL_SWP_HDR_LEN 64
#define ZEL_SWP_MIN_MESSAGE 124
#define ZEL_SWP_ACK_PACKET 0x53574143u
/* A receive buffer of the default size holds 15 datagrams of 8192 bytes: a window above 12 can lose messages there. */
#define ZEL_SWP_DEFAULT_WINDOW 8
#define ZEL_SWP_DEFAULT_CAPACITY 64
#define ZEL_SWP_DEFAULT_MAX_MEMORY 52428800u

/* Results of the calls, and codes of the callback. */
enum {
    ZEL_SWP_SUCCESS = 0,
    ZEL_SWP_MATCHED = 1,   /* check: the message waited for */
    ZEL_SWP_DUPLICATE = 2, /* check: received before */
    ZEL_SWP_SEQ_ERROR = 3,
    ZEL_SWP_FAILURE = 4, /* also of the check: a message is missing before this one */
    ZEL_SWP_ACK_FAILURE = 5,
    ZEL_SWP_SEQ_FAILURE = 6, /* callback: the receiver lost the stream */
    ZEL_SWP_QUEUE_FULL = 7,
    ZEL_SWP_TIMER_EXPIRED = 8,
    ZEL_SWP_NO_RETRANS = 9,
    ZEL_SWP_SEND_FAILED = 10,
    ZEL_SWP_RECEIVER_SEND_FAILED = 11,
    ZEL_SWP_TIMER_RESET = 12,
    ZEL_SWP_TIMER_CANCEL = 13,
    ZEL_SWP_INSERT_FAILED = 14,
    ZEL_SWP_DELETE_FAILED = 15,
    ZEL_SWP_NO_TIMEOUTS = 16
};

/* Told of: 6 the receiver lost the stream, 9 no retransmissions left (with the oldest message), 7 the queue is full
 * now, 14 a message could not be queued (with that message). A message told of with 6, 7 or 9 is still the queue's. */
typedef void (*zelSwpUserCb)(void *message, int code);

typedef struct {
    uint32_t high;
    uint32_t low;
} zelSwpSeq;

typedef struct {
    void *(*alloc)(uint32_t bytes); /* for message owners; the queues allocate no messages */
    void (*free)(void *block); /* gets the messages that a flush or removal drops; null leaves them to their owner */
} zelSwpFifoHooks;

/* Buffer hooks of this process, indexed by queue number; row 0 is unused. Set after creation; removal clears them. */
extern zelSwpFifoHooks swpFifoQueue[ZEL_SWP_MAX_QUEUES + 1];
/* Seconds between two reports of a full queue, 10 at first. */
extern uint32_t zelSwp_log_limit;
/* 0 silent; 1 tells why something was refused, and of duplicates; 2 also of restarted streams. */
extern uint32_t zelSwp_debug;

typedef struct {
    uint32_t inUse;
    pid_t pid;
    uint32_t window;
    uint32_t capacity;
    uint32_t queued;   /* acknowledged messages that were not dequeued included */
    uint32_t inFlight; /* sent and not acknowledged */
    zelSwpSeq head;    /* oldest unacknowledged */
    zelSwpSeq next;    /* sequence number of the next message enqueued */
    uint32_t stream;
    uint32_t peakQueued;
    uint64_t enqueued;
    uint64_t sent; /* first transmissions */
    uint64_t retransmitted;
    uint64_t retransmissionPasses; /* by the timer or swpRetrans */
    uint64_t fastResends;          /* after a reported gap */
    uint32_t largestPass;
    uint64_t acknowledged;
    uint64_t drops;       /* refused because the queue was full */
    uint64_t refusedAcks; /* of another source or stream, or beyond what was sent */
    uint64_t failedSends;
    uint64_t memory; /* bytes of the messages queued */
    uint64_t peakMemory;
    uint64_t maxMemory;     /* 0: no limit */
    uint32_t budget;        /* retransmissions left */
    uint32_t budgetInitial; /* and after progress */
    char senderName[32];    /* service name and instance */
    char receiverName[32];
} zelSwpStatus;

/* ---- Create ---- */

/* Creates a queue and stores its number, 1 to 900; 0 or 4. The sender's endpoint must be open in this process before
 * anything is sent. `capacity` messages (0: 64), `window` in flight at most (0: 8), `timeOutSec` at least 1,
 * `retransCount` 1 to 255. Waits up to 112 seconds for a receiver that the task table does not know yet. */
int zelSwpQueueCreate(int senderService, int senderInstance, int receiverService, int receiverInstance,
                      uint32_t capacity, uint32_t window, uint32_t timeOutSec, uint8_t retransCount,
                      zelSwpUserCb callback, uint32_t *queue);
/* The same with queue ids in place of the computed ones where they are not 0. */
int zelSwpQueueCreateQs(int senderService, int senderInstance, int receiverService, int receiverInstance,
                        uint32_t capacity, uint32_t window, uint32_t timeOutSec, uint8_t retransCount,
                        zelSwpUserCb callback, uint32_t senderReqQueue, uint32_t senderTmrQueue,
                        uint32_t receiverReqQueue, uint32_t *queue);
/* The same with acknowledgements to the sender's timer queue, and with a time-out routine of the creator's (null: the
 * standard one), which runs in the timer task and usually calls swpRetrans. */
int zelMwpQueueCreate_p(int senderService, int senderInstance, int receiverService, int receiverInstance,
                        uint32_t capacity, uint32_t window, uint32_t timeOutSec, uint8_t retransCount,
                        zelSwpUserCb callback, int ackViaTimerQueue, void (*timeoutFn)(uint32_t queue),
                        uint32_t *queue);
/* A queue over the inter-chassis link. Messages begin with the link's own header, which is sent as it is. */
int zelMwpIclQueueCreate(int senderService, int senderInstance, int receiverService, int receiverInstance,
                         uint32_t capacity, uint32_t window, uint32_t timeOutSec, uint8_t retransCount,
                         zelSwpUserCb callback, uint32_t *queue);

/* ---- Send ---- */

/* Queues a message and sends it if the window allows. 0; 7 when the queue is full by count or memory; 4 for a bad
 * queue or buffer and when sending failed. Whatever is not 0: the message is not in the queue. */
int zelSwpEnqueue(uint32_t queue, void *message, int length);
/* Takes the oldest message out if it is acknowledged: 0 and the message, which is the caller's again; 15 when there is
 * none, 4 for a bad queue. */
int zelSwpDequeue(uint32_t queue, void **message);
/* Takes in an acknowledgement and stores the queue it is for (`queue` may be null). 0, also when it says nothing new; 5
 * when it is older than another or not believed; 6 when the receiver lost the stream; 4 when it is none. */
int zelSwpProcAck(const void *ack, int length, uint32_t *queue);
/* Drops all messages, tells no callback, and begins a new stream at 0. 0 or 4. */
int zelSwpQueueFlush(uint32_t queue);
/* Resends the oldest message (with `headOnly`, and while it is message 0), or all in flight: 0; 4 without
 * retransmissions left; 10 when sending failed, and when it was all in flight, then the timer is stopped until the next
 * message or acknowledgement. */
int swpRetrans(uint32_t queue, int headOnly);
/* Ends the queue with its timer and drops its messages. 0 or 4. */
int zelSwpQueueRemove(uint32_t queue);

/* ---- Receive, the plain parts ---- */

/* Checks the sequence number of a message against the count, and advances it: 1, 2 or 4. Message 0 always restarts the
 * count. A length of -1: the sliding-window header stands at byte 26, so a message of the inter-chassis link is named
 * by its address + L. */
int zelSwpCkSeqNo(const void *message, zelSwpSeq *expected, int length);
/* Answers a message with the count after the check and its result (1, 2 or 4), from the endpoint `key` (ignored when
 * length is -1: over the link, `message` being the whole message, with up to 512 bytes of link header). 0; 11 when it
 * could not be sent; 4 for bad arguments. */
int zelSwpReceiverAck(uint32_t key, const void *message, int length, const zelSwpSeq *expected, int result);
/* (high, low) + 1, and the order of two: 1 when b is greater than a, 2 when less, 0 when equal. */
void swp64BitIncr(uint32_t *high, uint32_t *low);
int swp64BitCmp(uint32_t aHigh, uint32_t aLow, uint32_t bHigh, uint32_t bLow);

/* ---- Receive ---- */

/* The receiving side of a task: what it knows of each source (address, source queue, sender's queue number). Calls on
 * one receiver must be serialised. */
typedef struct zelSwpReceiver zelSwpReceiver;

typedef struct {
    uint64_t accepted;
    uint64_t duplicates;
    uint64_t gaps;
    uint64_t unknown;   /* of a stream whose beginning this receiver does not know */
    uint64_t stale;     /* of a stream that was replaced; not answered */
    uint64_t malformed; /* no stream message at all; not answered */
    uint64_t streams;   /* begun */
    uint64_t forgotten; /* sources dropped for want of room */
    uint64_t acksSent;
    uint64_t ackFailures;
    uint32_t sources; /* known now */
} zelSwpReceiverStats;

/* A receiver whose messages arrive at `key` (with type 3: the timer queue) and that answers from there. At most
 * `maxSources` sources (0: 1024); beyond that the one silent longest is forgotten, as if this side had restarted.
 * `ackInterval` up to 1 answers every message; with n an in-order message is answered at the latest with the n-th, and
 * at once when no other is waiting or announced. Null without memory. */
zelSwpReceiver *zelSwpReceiverCreate(uint32_t key, uint32_t maxSources, uint32_t ackInterval);
/* Judges a stream message and answers its sender: 1 deliver it; 2 or 4 drop it. */
int zelSwpReceiverAccept(zelSwpReceiver *receiver, const void *message, int length);
/* The same in two steps, for receivers whose answer means that a message has been dealt with: the check, which answers
 * only what is to be dropped, and after a result of 1 the answer (0, or 4 when none is due), before the next check. The
 * header of the message must be unchanged in between. */
int zelSwpReceiverCheck(zelSwpReceiver *receiver, const void *message, int length);
int zelSwpReceiverAnswer(zelSwpReceiver *receiver, const void *message);
/* Sends the answers held back. With an interval above 1, to be called after any message that was not given to
 * zelSwpReceiverAccept or Check and before waiting for the next. */
int zelSwpReceiverFlush(zelSwpReceiver *receiver);
int zelSwpReceiverGetStats(const zelSwpReceiver *receiver, zelSwpReceiverStats *stats);
void zelSwpReceiverDestroy(zelSwpReceiver *receiver);

/* ---- Look at and tune ---- */

/* Messages queued; -1 for a bad queue. */
int zelSwpQueueGetLen(uint32_t queue);
/* 1 when the queue exists and its owner runs. */
int zelSwpIsQueueAlive(uint32_t queue);
/* The window, -1 for a bad queue; and a new one of at least 1: 0 or 4. A larger one sends at once what it lets go. */
int zelSwpGetMwpQWinSize(uint32_t queue);
int zelSwpSetMwpQWinSize(uint32_t queue, int window);
/* Bytes of queued messages from which on the queue is full; 0 without limit. 0 or 4. */
int zelSwpSetMaxMemoryAllowed(uint32_t queue, uint32_t bytes);
int zelSwpGetQueueStatus(uint32_t queue, zelSwpStatus *status);
/* On standard output. */
void zelSwpPrintq(uint32_t queue);
void zelSwpPrintAllq(void);
/* The text of a result, null for others. */
const char *zelSwpGetErr(int code);

/* ---- Inter-chassis link of this process ---- */

void zelSwpSetIclLink(int isUp);
void zelSwpSetIclifIndex(uint32_t ifIndex);
/* The socket that messages over the link are sent on, one by one and without waiting; it stays the caller's. */
void zelSwpSetIclRawSocket(int fd);
int icl_isLinkUp(void);

/* ==== Queue lists ================================================================================================= */

/*
 * The traffic of one sender to one receiver over several sliding-window queues. Each group of messages is bound to one
 * queue, so that it stays in order, while groups travel side by side. Messages are at least 132 bytes long: the list
 * writes the index of the queue at byte 124 and the group at byte 128 (big-endian words).
 *
 * Results are those of the queues. The creator serialises binding, flushing and removing a list; enqueueing by several
 * tasks is safe. Why something was refused is told while zelSwp_debug is not 0.
 */
typedef struct zelSwpQList zelSwpQList;

/* The state of a receiving side that keeps it by the queue's index; one for each sender. (A zelSwpReceiver serves lists
 * as well, and any number of senders.) */
typedef struct zelSwpExpSeqList zelSwpExpSeqList;

/* Creates a list of `numQueues` queues for the groups 0 to numGroups - 1, of which there must be as many at least; the
 * other arguments are those of zelSwpQueueCreate. 0 or 4. `moduleId` is the trace module of its diagnostics. */
int zelSwpQListCreate(int senderService, int senderInstance, int receiverService, int receiverInstance,
                      uint32_t capacity, uint32_t window, uint32_t timeOutSec, uint8_t retransCount,
                      zelSwpUserCb callback, uint32_t numQueues, uint32_t numGroups, uint32_t moduleId,
                      zelSwpQList **list);
/* Binds a group to the queue that carries the fewest, the first of them. Binding it again chooses again, and the queue
 * it had keeps its count. 0 or 4. */
int zelSWPQListAddMsgGroup(zelSwpQList *list, uint32_t group);
/* Unbinds a group; its messages stay where they are. 0 or 4. */
int zelSWPQListRemoveMsgGroup(zelSwpQList *list, uint32_t group);
/* Marks and enqueues a message of a bound group; as zelSwpEnqueue. */
int zelSWPQListEnqueue(zelSwpQList *list, uint32_t group, void *message, int length);
/* The queue that carries a group. 0 or 4. */
int zelSWPQListGetQHandle(zelSwpQList *list, uint32_t group, uint32_t *queue);
/* Flushes every queue. 0 or 4. */
int zelSwpQListFlush(zelSwpQList *list);
/* Drops the messages of a bound group that were never sent; those in flight stay. 0 or 4. */
int zelSwpQListFlushGroup(zelSwpQList *list, uint32_t group);
/* Removes every queue and the list. 0, or 4 when a queue could not be removed; the list is gone all the same. */
int zelSwpQListRemove(zelSwpQList *list);
/* Messages in the list, and in its queue of that index; -1 when there is none. */
int zelSwpQListGetLen(zelSwpQList *list);
int zelSwpQListGetQLen(zelSwpQList *list, uint32_t index);
void zelSwpQListPrint(zelSwpQList *list);

/* Null for 0 or more than 900 queues, or without memory. */
zelSwpExpSeqList *zelSwpQListCreateExpSeqList(uint32_t numQueues);
void zelSwpQListRemoveExpSeqList(zelSwpExpSeqList *expected);
/* Checks a message against the count of its queue and answers the sender: 1 deliver it; 2, 4 or 11 drop it (11: the
 * answer could not be sent, and the message counts as not received). An index beyond the list is 4. */
int zelSwpQListCkSeqAndAck(uint32_t key, const void *message, zelSwpExpSeqList *expected, int length);
void zelSwpQListExpSeqListPrint(const zelSwpExpSeqList *expected);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

/* The link to the peer route processor is part of this family. */
#include "zel/irc.h"

#endif
