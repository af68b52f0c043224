/*
 * The link to the peer route processor: a chassis has two of them, and a link service (service 36, IRC) on each watches
 * over the other and carries messages from the tasks of its own to the tasks there.
 *
 * Tasks use the first half of this header; the second half is for the link service, which fills the link state that all
 * processes of its CPU share. Any task may call anything here at any time.
 */
#ifndef ZEL_IRC_H
#define ZEL_IRC_H

#include <stdint.h>

#include "zel/ipc.h"

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

#define ZEL_IRC_SERVICE 36
#define ZEL_IRC_MAGIC 0xefefbcbcu
/* The link header stands behind the IPC header; the payload follows it. */
#define ZEL_IRC_HDR_LEN 76
#define ZEL_IRC_HDR_OFFSET ZEL_IPC_HDR_LEN
#define ZEL_IRC_MIN_MESSAGE 136
#define ZEL_IRC_MAX_MESSAGE 8192
#define ZEL_IRC_NAME_SIZE 32

/* Types of link messages: 1 to 3 are those of tasks (class 2), the others pass between the link services (class 1). */
enum {
    ZEL_IRC_DATA = 1,
    ZEL_IRC_REQUEST = 2, /* data that wants an answer */
    ZEL_IRC_ANSWER = 3,
    ZEL_IRC_HELLO = 4,      /* who runs there: the epoch */
    ZEL_IRC_HELLO_NAME = 5, /* answers a hello: version and name */
    ZEL_IRC_UP = 10,        /* the sender hears the peer and is heard */
    ZEL_IRC_DOWN = 11,      /* the sender lost the peer, or ends */
    ZEL_IRC_KEEP_ALIVE = 12
};

/* Values of the link status. */
enum { ZEL_IRC_LINK_UNKNOWN = 0, ZEL_IRC_LINK_UP = 1, ZEL_IRC_LINK_DOWN = 2 };

/* ==== For tasks =================================================================================================== */

/*
 * A message to a task of the peer is an IPC message of 136 to 8192 bytes whose link header, written by the caller,
 * names the task, and whose IPC header, but for message type and transaction, is filled by the send:
 *
 *     Irc_setIrcHeader(message + ZEL_IRC_HDR_OFFSET, key, ZEL_IRC_REQUEST, service, instance, payloadLength);
 *     memcpy(message + ZEL_IRC_MIN_MESSAGE, payload, payloadLength);
 *     length = zelIrcPeerRpmSendWait(key, ownService, ownInstance, message, ZEL_IRC_MIN_MESSAGE + payloadLength, 1,
 *                                    type, reply, sizeof reply, timeoutSec, transaction, &error);
 *
 * It arrives as it was sent, link header included, at the request queue of that task. Who answers it with zelIpcReply
 * reaches the queue that the sender chose: the IPC header still names it. An answer that is wanted over the link is a
 * message of type ZEL_IRC_ANSWER to that task, with word 44 of the request as its word28: the low two bits of that name
 * the queue it goes to, the response queue when they are 0.
 *
 * The link service drops, and counts, what it cannot carry: nobody is told, and a request ends at its time-out.
 */

/* Writes a link header into 76 bytes: all words of it for types 4 and 5, else all but the one at byte 32, and the name
 * at byte 44 only for type 5. `half16` and `half18` are service and instance of the task it is for, `word20` the
 * length of the payload, `word28` the sender's key. A type that is none is reported and leaves the class as it was. */
void Irc_setIrcHeader(void *header, uint32_t word28, uint32_t type, uint16_t half16, uint16_t half18, uint32_t word20);

/* Hands a message to the link service of this CPU, by plain delivery. `service` and `instance` are the sender's own,
 * and its endpoint is opened if it is not; `queueType` is the queue for the answer: 0 request, 1 response, 2 timer
 * queue. Writes bytes 0 to 11 and 36 to 59 of the message, also of one that is then refused for its length. 0, or -1;
 * *error (may be null) gets 0 or the cause, as errno: ENOLINK (the link is not up), EINVAL (null message, bad queue
 * type or service), EMSGSIZE (below 60 or above 8192 bytes), or what zelIpcOpen and zelIpcNonGuaranteedSend leave.
 * Blocks only where zelIpcOpen does. */
int zelIrcPeerRpmSend(int service, int instance, void *message, int length, int queueType, int *error);
/* The same, tried once more after a tick when the host is out of buffers. */
int zelIrcPeerRpmBetterSend(int service, int instance, void *message, int length, int queueType, int *error);
/* Sends, then waits on the response queue of `key`, which is the sender's, for the answer of this type and transaction
 * (any message when both are 0; else both are written into the message). `queueType` 1 brings it there. Takes its turn
 * with the other requests of the endpoint; `timeoutSec`, as of zelIpcSendWait, bounds turn and answer together. The
 * bytes of the answer, or -1 as the send, or with ETIMEDOUT, or EINVAL for a null `reply`: then the message was sent.
 */
int zelIrcPeerRpmSendWait(uint32_t key, int service, int instance, void *message, int length, int queueType,
                          uint32_t type, void *reply, int replyLength, int timeoutSec, uint32_t transaction,
                          int *error);

/* The request queue of an endpoint that this process has open, else null with errno. */
struct zelIpcQueueDesc *Irc_icdpGet(uint32_t key);

/* The link state. A status of 1 holds only as long as the link service renews it, so that it ends also with a link
 * service that was killed or stopped; from then on it is 2. */
uint32_t zelGetIrcLinkStatus(void);
/* 1 when the status is 1. */
int irc_isLinkUp(void);
/* The peer route processor's IPC address, ZEL_IPC_NO_ADDRESS while no link service has named it. */
uint32_t zelGetPeerRpmIpAddr(void);
/* 1 when the peer's link service has named the same version as ours, else 0. */
int ircGetHAComptWithPeerRpm(void);

/* What the link service did since the CPU's shared memory was created. */
enum {
    ZEL_IRC_COUNT_FORWARDED = 0, /* messages of tasks to the peer's */
    ZEL_IRC_COUNT_CONTROL,       /* messages of the peer's link service */
    ZEL_IRC_COUNT_MALFORMED,     /* no link messages; dropped, as are the next three */
    ZEL_IRC_COUNT_REFUSED,       /* of a type or a CPU that may not send there, or for the link service */
    ZEL_IRC_COUNT_LINK_DOWN,     /* came while the link was down */
    ZEL_IRC_COUNT_FAILED,        /* the host did not send them */
    ZEL_IRC_COUNT_UPS,           /* times that the link came up */
    ZEL_IRC_COUNT_LOSSES,        /* times that it went down */
    ZEL_IRC_COUNTERS
};
/* 0, or -1 with errno. */
int zelIrcGetCounters(uint64_t counters[ZEL_IRC_COUNTERS]);

/* ==== For the link service ======================================================================================== */

typedef struct {
    uint32_t status;
    uint32_t peerAddress;
    uint32_t instance; /* of the link service, here and there */
    uint32_t isCompatible;
    uint32_t epoch;   /* goes out in type 4: tells one run of the service from the next */
    uint32_t version; /* goes out in type 5 */
    char name[ZEL_IRC_NAME_SIZE];
    uint32_t validMilliseconds; /* how long the status 1 holds from now on; 0 without limit */
} zelIrcLinkState;

/* Publishes the link state. 0, or -1 with errno. */
int zelIrcSetLinkState(const zelIrcLinkState *state);
/* Reads it; validMilliseconds is 0. 0, or -1 with errno. */
int zelIrcGetLinkState(zelIrcLinkState *state);
/* Adds to one of the counters. */
void zelIrcCount(int counter, uint32_t times);

/* A link header as read. */
typedef struct {
    uint32_t type;
    int service; /* of the task it is for */
    int instance;
    uint32_t senderKey;
    uint32_t stateWord;           /* of types 4 and 5 */
    char name[ZEL_IRC_NAME_SIZE]; /* of type 5 */
} zelIrcMessage;

/* Checks a received message as a whole and reads its link header: 0; -1 when it is no link message: its length, type,
 * class, payload length, destination or name is not what it must be. */
int zelIrcParse(const void *message, int length, zelIrcMessage *parsed);
/* Sends a message of type 4, 5, 10, 11 or 12 from the service's endpoint to the peer's. 0, or -1 with errno. */
int zelIrcSendControl(uint32_t key, uint32_t type);
/* Numbers a message that zelIrcParse has read and sends it to the task on the peer that it is for. 0, or -1 with errno.
 */
int zelIrcForward(uint32_t key, void *message, int length, const zelIrcMessage *parsed);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
