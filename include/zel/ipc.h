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

typedef uint32_t zelIpcKey_t;

#define ZEL_IPC_HDR_LEN 60
#define ZEL_IPC_MAGIC 0xfeedbeafu
#define ZEL_IPC_ENDPOINT_MAGIC 0xfeedbeadu
#define ZEL_IPC_NO_ADDRESS 0xffffffffu
#define ZEL_IPC_MIN_SERVICE 13
#define ZEL_IPC_MAX_SERVICE 363
#define ZEL_IPC_MAX_INSTANCES 32

enum {
    ZEL_IPC_DEF = 0,
    ZEL_IPC_GACK = 6,
    ZEL_IPC_GSEND = 7,
    ZEL_IPC_GACK_FIRST = 8,
    ZEL_IPC_GSEND_FIRST = 9,
    ZEL_IPC_ACK = 10,
    ZEL_IPC_GRT = 11,
    ZEL_IPC_RSP = 12,
    ZEL_IPC_REQ = 13
};

enum { ZEL_IPC_QUEUE_NONE = 0, ZEL_IPC_QUEUE_REQUEST = 1, ZEL_IPC_QUEUE_RESPONSE = 2, ZEL_IPC_QUEUE_TIMER = 3 };

/* Big-endian words of a header or message at byte offset `off`; the caller guarantees off + 4 bytes. */
uint32_t zelIpcHdrGet32(const void *hdr, unsigned off);
void zelIpcHdrSet32(void *hdr, unsigned off, uint32_t value);

const char *zelIpcGetCmdTypeName(int command);
int maxService(void);
uint32_t zel_getQueueId(int service, int instance, int type);
uint32_t zel_getQueueIdInPE(int service, int instance, int type);
uint32_t Key_getReqQueue(uint32_t key);
uint32_t Key_getRspQueue(uint32_t key);
uint32_t Key_getTmrQueue(uint32_t key);
uint32_t Key_getAllQueue(uint32_t key);
int Key_getSocketFd(uint32_t key);
uint32_t zelIpcGetService(uint32_t key);
uint32_t zelIpcGetServiceFromSvce(uint32_t key);
uint32_t zelIpcGetInstance(uint32_t key);
uint32_t zelIpcGetInstanceFromSvce(uint32_t key);
uint32_t zelIpcSetSourceHeader(void *hdr, uint32_t slot, int service, int instance);
uint32_t zelIpcSetTargetHeader(void *hdr, uint32_t ipAddress, uint32_t slot, int service, int instance);
uint32_t zelIpcSetTargetHeaderToRspQ(void *hdr, uint32_t ipAddress, uint32_t slot, int service, int instance);
int zelIpcGetSourceHeader(const void *hdr, uint32_t *slot, uint32_t *queueId);
int zelIpcGetTargetHeader(const void *hdr, uint32_t *slot, uint32_t *queueId);

int zelIpcOpen(int service, int instance);
int zelIpcOpenTmrQueue(uint32_t key);
int zelIpcClose(uint32_t key);
int zelIpcSetSecondaryAddress(const char *text);
int getIpcKey(int service, int unused, int *key);
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
#define ZEL_IPC_FLAG_CLOSING 0x80000u

int zel_ipcSOpen(int port, int protocol, int secondary);
int zel_ipcCreateLink(struct zelIpcQueueDesc *descriptor, uint32_t queueId);

/* ==== Send and receive ============================================================================================ */

int zelIpcSend(uint32_t key, void *message, int length);
int zelIpcNonGuaranteedSend(uint32_t key, void *message, int length);
int zelIpcGuaranteedSend(uint32_t key, void *message, int length, int options);
int zelIpcRecv(uint32_t key, void *buffer, int size, int timeoutSec, uint32_t msgType, uint32_t transaction);
int zelIpcRecvOnRspQ(uint32_t key, void *buffer, int size, int timeoutSec, uint32_t msgType, uint32_t transaction);
int zelIpcReply(uint32_t key, void *message, int length);
int zelIpcSendWait(uint32_t key, void *buffer, int sendLen, int recvLen, int timeoutSec, uint32_t msgType);
int zelIpcSendWaitWithRetry(uint32_t key, const void *sendBuffer, void *recvBuffer, int sendLen, int recvLen,
                            int timeoutSec, uint32_t msgType, uint32_t transaction, int retries);
int zelIpcSetSendBufferLimit(uint32_t key, int bytes, int *error);
int zelIpcSetRecvBufferLimit(uint32_t key, int bytes, int *error);
int zelIpcGetSendBufferLimit(uint32_t key, int *error);
int zelIpcGetRecvBufferLimit(uint32_t key, int *error);
int zelIsIpcGuaranteedEnabled(void);
void zelIpcGuaranteedEnDis(int flag);
int zelIsIpcGDbUpdPossible(uint32_t key, uint32_t targetQueueId);
uint8_t *zelGuaranteedIpcGetTargetDBPtr(uint32_t key, uint32_t targetQueueId);
void zelGuaranteedIpcUpdRetryAttemptCntr(uint8_t *record, int attempt);
void zelGuaranteedIpcSendSuccess(uint8_t *record, uint32_t milliseconds, int ackType);
void zelGuaranteedIpcSendFailed(uint8_t *record);
int zelIpcGrnteedSetTimeout(struct timeval *wait, int attempt);
int zelIpcPeekMsg(uint32_t key, void *buffer, int size);
int zelIpcGetNumMsgs(uint32_t key);
int zelIpcEnableBroadcast(uint32_t key);
int zelIpcDisableBroadcast(uint32_t key);
void zelEnableIpcHistoryLogging(void);
void zelDisableIpcHistoryLogging(void);
void dumpIpcHistoryLogging(void);

/* Counters of the queue named by key AND 3 (a bare key: its request queue) since it was opened, in this process. */
typedef struct {
    uint64_t sent;
    uint64_t sendFailures;
    uint64_t received;
    uint64_t droppedShort;     /* fewer than 60 bytes */
    uint64_t droppedMagic;     /* wrong magic */
    uint64_t droppedMismatch;  /* another type or transaction */
    uint64_t droppedLateAck;   /* guaranteed acknowledgement nobody waits for */
    uint64_t droppedDuplicate; /* guaranteed message delivered before */
    uint64_t droppedByHost;    /* socket buffer full, as the host reports */
    uint64_t truncated;        /* longer than the caller's buffer */
} zelIpcQueueStats;
int zelIpcGetQueueStats(uint32_t key, zelIpcQueueStats *stats);

/* ==== Task manager client ========================================================================================= */

int zelTaskStartup(int argc, char **argv);
int zelTaskReady(uint32_t key);
int zelGetMyTaskKey(void);
int zelTaskGetServiceByKey(uint32_t key);
int zelTaskGetInstanceByKey(uint32_t key);
int zelTaskGetIpcKey(uint32_t key);
int zelTaskIdSelf(uint32_t key);
int zelProcIdByKey(uint32_t key);
int zelGetTaskKeyFromServiceAndInst(int service, int instance);
int zelTaskGetByServiceAndInstance(int service, int instance);
int zelTaskIsDuplicate(int service, int instance, int *taskId);
const struct zelIpcEndpoint *zelTaskAlreadyExists(int taskId);
uint32_t zel_tmeGetPeerIpAddrByName(int service, int instance, int *error);
uint32_t zel_tmeGetTaskIpAddrByName(int service, int instance, int *error);
int zelTmeGetPidByName(const char *name);
const char *zelTaskGetName(int taskId, char *buffer, int size);
const char *zelTaskGetServiceName(int service);
uint32_t zel_sysGetIpAddr(void);
uint32_t zel_sysGetInstance(void);
uint32_t getMasterRpmIpAddr(int which);

/* ==== Task manager side =========================================================================================== */

/* States of a task-table entry. */
enum { ZEL_TME_NONE = 0, ZEL_TME_HERE = 1, ZEL_TME_DOWN = 2, ZEL_TME_REMOTE = 3 };

typedef struct {
    uint32_t state;
    uint32_t address;
} zelTmeTaskEntry;

typedef struct {
    uint32_t ipAddress; /* this CPU's; 0 = the platform's */
    uint32_t instance;  /* the CPU's system instance */
    uint32_t masterAddress[2];
} zelTmeGlobals;

int zelTmeSetTaskEntry(int service, int instance, uint32_t state, uint32_t address);
int zelTmeGetTaskEntry(int service, int instance, zelTmeTaskEntry *entry);
int zelTmeSetGlobals(const zelTmeGlobals *globals);
/* Clears the task-table entries and endpoint records of a dead process; returns how many endpoints it owned. */
int zelTmeForget(pid_t pid);
/* Starts `path` as task (service, instance): the eight identity arguments behind `args` (null-terminated, may be null),
 * lock 5 taken for it and flag 0x20000 set. Returns its process id, or -1 with errno. */
pid_t zelTmeSpawn(const char *path, char *const args[], int service, int instance, int parentService,
                  int parentInstance);
/* Walks the endpoint table: stores the next open endpoint at or behind *cursor (0 to begin) and returns 1; 0 at the
 * end. */
typedef struct {
    int service;
    int instance;
    uint32_t ownerTaskId;
    pid_t pid;
    uint32_t flags;
    uint32_t openMask;
    char name[32];
} zelTmeEndpoint;
int zelTmeNextEndpoint(uint32_t *cursor, zelTmeEndpoint *endpoint);

/* ==== Sliding-window queues ======================================================================================= */

#define ZEL_SWP_MAX_QUEUES 900
#define ZEL_SWP_HDR_LEN 64
#define ZEL_SWP_DEFAULT_WINDOW 8
#define ZEL_SWP_DEFAULT_CAPACITY 64
#define ZEL_SWP_DEFAULT_MAX_MEMORY 52428800u

enum {
    ZEL_SWP_SUCCESS = 0,
    ZEL_SWP_MATCHED = 1,
    ZEL_SWP_DUPLICATE = 2,
    ZEL_SWP_SEQ_ERROR = 3,
    ZEL_SWP_FAILURE = 4,
    ZEL_SWP_ACK_FAILURE = 5,
    ZEL_SWP_SEQ_FAILURE = 6,
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

typedef void (*zelSwpUserCb)(void *message, int code);

typedef struct {
    uint32_t high;
    uint32_t low;
} zelSwpSeq;

typedef struct {
    void *(*alloc)(uint32_t bytes);
    void (*free)(void *block);
} zelSwpFifoHooks;

/* Buffer hooks of this process, indexed by queue number; row 0 is unused. */
extern zelSwpFifoHooks swpFifoQueue[ZEL_SWP_MAX_QUEUES + 1];
/* Seconds between two reports of a full queue. */
extern uint32_t zelSwp_log_limit;
/* 0 silent; 1 tells why a creation was refused and of duplicates; 2 also of restarted streams. */
extern uint32_t zelSwp_debug;

typedef struct {
    uint32_t inUse;
    pid_t pid;
    uint32_t window;
    uint32_t capacity;
    uint32_t queued;
    uint32_t inFlight;
    zelSwpSeq head; /* oldest unacknowledged */
    zelSwpSeq next; /* sequence number of the next message enqueued */
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
    uint64_t memory;
    uint64_t peakMemory;
    uint64_t maxMemory;
    uint32_t budget;
    uint32_t budgetInitial;
    char senderName[32];
    char receiverName[32];
} zelSwpStatus;

int zelSwpQueueCreate(int senderService, int senderInstance, int receiverService, int receiverInstance,
                      uint32_t capacity, uint32_t window, uint32_t timeOutSec, uint8_t retransCount,
                      zelSwpUserCb callback, uint32_t *queue);
int zelSwpQueueCreateQs(int senderService, int senderInstance, int receiverService, int receiverInstance,
                        uint32_t capacity, uint32_t window, uint32_t timeOutSec, uint8_t retransCount,
                        zelSwpUserCb callback, uint32_t senderReqQueue, uint32_t senderTmrQueue,
                        uint32_t receiverReqQueue, uint32_t *queue);
int zelMwpQueueCreate_p(int senderService, int senderInstance, int receiverService, int receiverInstance,
                        uint32_t capacity, uint32_t window, uint32_t timeOutSec, uint8_t retransCount,
                        zelSwpUserCb callback, int ackViaTimerQueue, void (*timeoutFn)(uint32_t queue),
                        uint32_t *queue);
int zelMwpIclQueueCreate(int senderService, int senderInstance, int receiverService, int receiverInstance,
                         uint32_t capacity, uint32_t window, uint32_t timeOutSec, uint8_t retransCount,
                         zelSwpUserCb callback, uint32_t *queue);
int zelSwpEnqueue(uint32_t queue, void *message, int length);
int zelSwpDequeue(uint32_t queue, void **message);
int zelSwpProcAck(const void *ack, int length, uint32_t *queue);
int zelSwpReceiverAck(uint32_t key, const void *message, int length, const zelSwpSeq *expected, int result);
int zelSwpCkSeqNo(const void *message, zelSwpSeq *expected, int length);
void swp64BitIncr(uint32_t *high, uint32_t *low);
int swp64BitCmp(uint32_t aHigh, uint32_t aLow, uint32_t bHigh, uint32_t bLow);
int zelSwpQueueFlush(uint32_t queue);
int zelSwpQueueRemove(uint32_t queue);
int zelSwpQueueGetLen(uint32_t queue);
int zelSwpIsQueueAlive(uint32_t queue);
int zelSwpGetMwpQWinSize(uint32_t queue);
int zelSwpSetMwpQWinSize(uint32_t queue, int window);
int zelSwpGetQueueStatus(uint32_t queue, zelSwpStatus *status);
int zelSwpSetMaxMemoryAllowed(uint32_t queue, uint32_t bytes);
void zelSwpPrintq(uint32_t queue);
void zelSwpPrintAllq(void);
const char *zelSwpGetErr(int code);
int swpRetrans(uint32_t queue, int headOnly);
void zelSwpSetIclLink(int isUp);
void zelSwpSetIclifIndex(uint32_t ifIndex);
void zelSwpSetIclRawSocket(int fd);
int icl_isLinkUp(void);

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
zelSwpReceiver *zelSwpReceiverCreate(uint32_t key, uint32_t maxSources, uint32_t ackInterval);
int zelSwpReceiverAccept(zelSwpReceiver *receiver, const void *message, int length);
int zelSwpReceiverFlush(zelSwpReceiver *receiver);
int zelSwpReceiverGetStats(const zelSwpReceiver *receiver, zelSwpReceiverStats *stats);
void zelSwpReceiverDestroy(zelSwpReceiver *receiver);

/* ==== Queue lists ================================================================================================= */

typedef struct zelSwpQList zelSwpQList;
typedef struct zelSwpExpSeqList zelSwpExpSeqList;

int zelSwpQListCreate(int senderService, int senderInstance, int receiverService, int receiverInstance,
                      uint32_t capacity, uint32_t window, uint32_t timeOutSec, uint8_t retransCount,
                      zelSwpUserCb callback, uint32_t numQueues, uint32_t numGroups, uint32_t moduleId,
                      zelSwpQList **list);
int zelSWPQListAddMsgGroup(zelSwpQList *list, uint32_t group);
int zelSWPQListRemoveMsgGroup(zelSwpQList *list, uint32_t group);
int zelSWPQListEnqueue(zelSwpQList *list, uint32_t group, void *message, int length);
int zelSWPQListGetQHandle(zelSwpQList *list, uint32_t group, uint32_t *queue);
int zelSwpQListFlush(zelSwpQList *list);
int zelSwpQListFlushGroup(zelSwpQList *list, uint32_t group);
int zelSwpQListRemove(zelSwpQList *list);
int zelSwpQListGetLen(zelSwpQList *list);
int zelSwpQListGetQLen(zelSwpQList *list, uint32_t index);
void zelSwpQListPrint(zelSwpQList *list);
zelSwpExpSeqList *zelSwpQListCreateExpSeqList(uint32_t numQueues);
void zelSwpQListRemoveExpSeqList(zelSwpExpSeqList *expected);
int zelSwpQListCkSeqAndAck(uint32_t key, const void *message, zelSwpExpSeqList *expected, int length);
void zelSwpQListExpSeqListPrint(const zelSwpExpSeqList *expected);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
