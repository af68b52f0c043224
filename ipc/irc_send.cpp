// A task's side of the link: a message is handed to the link service of this CPU, addressed so that the answer comes to
// the queue that the sender chose.
//
// The order of the steps shows from outside: a link that is down is told before anything is opened, and a message that
// is too long has had its header written when it is refused.
#include <algorithm>
#include <cerrno>
#include <climits>

#include "ipc/ipc_transport.h"
#include "ipc/irc_header.h"
#include "ipc/irc_state.h"
#include "ipc/response_turn.h"
#include "kernel/task.h"
#include "platform/seam.h"
#include "zel/platform.h"

namespace zel::ipc {
namespace {

// A message on its way to the link service.
struct Outgoing {
    int service;
    int instance;
    void *message;
    int length;
    int queueType;
};

struct Answer {
    void *buffer;
    int size;
    int timeoutSec;
    std::uint64_t deadline;
    Wanted wanted;
};

int refuse(int error) {
    return kernel::fail(error);
}

// Stores the cause of a failed call where the caller wants it.
int tell(int result, int *error) {
    if (error) *error = result == ZEL_ERROR ? errno : 0;
    return result;
}

// The link is up and the sender's endpoint open: its key, else -1.
int findSender(const Outgoing &outgoing) {
    kernel::cancellationPoint();
    if (!irc_isLinkUp()) {
        zelErrorPrintf(linkModule, "zelIrcPeerRpmSend:  Can't send. Link to peer is not up.");
        return refuse(ENOLINK);
    }
    const int key = zelIpcOpen(outgoing.service, outgoing.instance);
    if (key != ZEL_ERROR) return key;
    const int error = errno;
    zelErrorPrintf(linkModule, "zelIrcPeerRpmSend: Failed to get task ipckey for serv: %d inst %d", outgoing.service,
                   outgoing.instance);
    return refuse(error);
}

int fillHeader(const Outgoing &outgoing) {
    void *message = outgoing.message;
    const std::uint32_t slot = zelSysGetSlotId(), address = zel_sysGetIpAddr();
    IpcHeader::SourceSlot::set(message, slot);
    IpcHeader::SourceAddress::set(message, address);
    if (outgoing.queueType < 0 || outgoing.queueType > 2) {
        zelErrorPrintf(linkModule, "zelIrcPeerRpmSend: Incorrect qType passed.");
        return refuse(EINVAL);
    }
    // Queue types begin with the request queue at 1.
    IpcHeader::SourceQueue::set(message, zel_getQueueId(outgoing.service, outgoing.instance, outgoing.queueType + 1));
    IpcHeader::TargetSlot::set(message, slot);
    IpcHeader::TargetAddress::set(message, address);
    IpcHeader::TargetQueue::set(message, zel_getQueueId(ZEL_IRC_SERVICE, linkInstance(), timerQueue));
    zelIpcHdrSet32(message, IpcHeader::CommandType::offset, 0);
    IpcHeader::Length::set(message, static_cast<std::uint32_t>(outgoing.length));
    return ZEL_OK;
}

// Fills the header and sends, plainly also where delivery is guaranteed.
int handOver(const Outgoing &outgoing, int key) {
    if (!outgoing.message) return refuse(EINVAL);
    if (outgoing.length < static_cast<int>(IpcHeader::size)) return refuse(EMSGSIZE);
    if (fillHeader(outgoing) == ZEL_ERROR) return ZEL_ERROR;
    if (outgoing.length > ZEL_IRC_MAX_MESSAGE) {
        zelErrorPrintf(linkModule, "zelIrcPeerRpmSend: Irc_SendIRC Failed: payload is too big %d.", outgoing.length);
        return refuse(EMSGSIZE);
    }
    const std::uint32_t queue = static_cast<std::uint32_t>(key) | requestQueue;
    if (zelIpcNonGuaranteedSend(queue, outgoing.message, outgoing.length) == ZEL_OK) return ZEL_OK;
    const int error = errno;
    zelErrorPrintf(linkModule, "zelIrcPeerRpmSend: Irc_SendIRC Failed.  servicename/%d", outgoing.instance);
    return refuse(error);
}

int reportSend(std::uint32_t type) {
    const int error = errno;
    zelErrorPrintf(linkModule, "zelIrcPeerRpmSendWait : Error in Irc send to peer mtype : %d.", static_cast<int>(type));
    return refuse(error);
}

int reportReceive(std::uint32_t type) {
    const int error = errno;
    zelErrorPrintf(linkModule, "zelIrcPeerRpmSendWait : Error in Irc receive from peer mtype : %d.",
                   static_cast<int>(type));
    return refuse(error);
}

int send(const Outgoing &outgoing) {
    const int key = findSender(outgoing);
    return key == ZEL_ERROR ? ZEL_ERROR : handOver(outgoing, key);
}

std::uint64_t deadlineOf(int timeoutSec) {
    return timeoutSec < 0 ? platform::forever : platform::deadlineAfterSeconds(static_cast<std::uint64_t>(timeoutSec));
}

int ticksOf(int timeoutSec) {
    return timeoutSec < 0 ? WAIT_FOREVER
                          : std::min(timeoutSec, INT_MAX / platform::ticksPerSecond) * platform::ticksPerSecond;
}

// The turn is taken before the request leaves, so that no other task of the endpoint reads the answer.
int exchange(const Outgoing &outgoing, int sender, Endpoint &endpoint, const Answer &answer) {
    const int seconds = answer.timeoutSec;
    ResponseTurn turn(endpoint, ticksOf(seconds));
    if (!turn.isTaken()) return reportReceive(answer.wanted.type);
    makeRoom(endpoint.queues[responseQueue]);
    if (handOver(outgoing, sender) == ZEL_ERROR) return turn.done(reportSend(answer.wanted.type));
    const int length = awaitResponse(endpoint, answer.buffer, answer.size, seconds, answer.deadline, answer.wanted);
    return turn.done(length == ZEL_ERROR ? reportReceive(answer.wanted.type) : length);
}

// Without a place to wait the message goes all the same, and then the wait fails.
int sendWithoutWait(const Outgoing &outgoing, int sender, std::uint32_t type, int error) {
    if (handOver(outgoing, sender) == ZEL_ERROR) return reportSend(type);
    errno = error;
    return reportReceive(type);
}

}  // namespace
}  // namespace zel::ipc

using namespace zel::ipc;

int zelIrcPeerRpmSend(int service, int instance, void *message, int length, int queueType, int *error) {
    return tell(send({service, instance, message, length, queueType}), error);
}

int zelIrcPeerRpmBetterSend(int service, int instance, void *message, int length, int queueType, int *error) {
    const Outgoing outgoing{service, instance, message, length, queueType};
    const int result = send(outgoing);
    if (result == ZEL_OK || (errno != ENOBUFS && errno != EAGAIN)) return tell(result, error);
    taskDelay(1);
    return tell(send(outgoing), error);
}

int zelIrcPeerRpmSendWait(uint32_t key, int service, int instance, void *message, int length, int queueType,
                          uint32_t type, void *reply, int replyLength, int timeoutSec, uint32_t transaction,
                          int *error) {
    const Outgoing outgoing{service, instance, message, length, queueType};
    const Answer answer{reply, replyLength, timeoutSec, deadlineOf(timeoutSec), {type, transaction}};
    if (!message || !reply) zelErrorPrintf(linkModule, "zelIrcPeerRpmSendWait : Send/receive payload is NULL");
    const int sender = findSender(outgoing);
    if (sender == ZEL_ERROR) return tell(reportSend(type), error);
    if (message && length >= ZEL_IPC_HDR_LEN && !answer.wanted.isAny()) {
        IpcHeader::MessageType::set(message, type);
        IpcHeader::Transaction::set(message, transaction);
    }
    Endpoint *endpoint = isValidWait(reply, replyLength, timeoutSec) ? findOpenExchange(key) : nullptr;
    return tell(
        endpoint ? exchange(outgoing, sender, *endpoint, answer) : sendWithoutWait(outgoing, sender, type, errno),
        error);
}

struct zelIpcQueueDesc *Irc_icdpGet(uint32_t key) {
    Queue *queue = findOpenQueue((key & ~3u) | requestQueue);
    return queue ? &queue->descriptor : nullptr;
}
