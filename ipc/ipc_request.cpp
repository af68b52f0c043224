// Send-and-wait, and the reply it waits for.
//
// A request leaves by the request queue and names the response queue as its source; the answer comes in there. Tasks
// that share an endpoint take turns, so that none reads another's response: whatever else arrives meanwhile is for
// nobody, and is dropped.
#include <cerrno>
#include <cstring>

#include "ipc/guaranteed.h"
#include "ipc/ipc_header.h"
#include "ipc/ipc_receive.h"
#include "ipc/ipc_send.h"
#include "ipc/ipc_transport.h"
#include "ipc/response_turn.h"
#include "kernel/task.h"

namespace zel::ipc {

ResponseTurn::ResponseTurn(const Endpoint &endpoint, int ticks)
    : semaphore_(endpoint.responseSemaphore.load(std::memory_order_acquire)) {
    isTaken_ = semTake(semaphore_, ticks) == ZEL_OK;
    const bool isTooLate = !isTaken_ && (errno == ZEL_ERR_TIMEOUT || errno == ZEL_ERR_OBJECT_UNAVAILABLE);
    if (!isTooLate) zelAssert(isTaken_, "zelIpcLib");
    if (!isTaken_) errno = isTooLate ? ETIMEDOUT : EBADF;  // EBADF: the endpoint was closed
}

int ResponseTurn::done(int result) {
    isTaken_ = false;
    const bool isGiven = semGive(semaphore_) == ZEL_OK;
    zelAssert(isGiven, "zelIpcLib");
    return isGiven ? result : ZEL_ERROR;
}

namespace {

// One exchange: what is sent and where, what is waited for and where it goes.
struct Exchange {
    Endpoint &endpoint;
    std::uint8_t header[IpcHeader::size];
    const std::uint8_t *payload;
    std::size_t payloadLength;
    void *response;
    int responseSize;
    int timeoutSec;
    Wanted wanted;
    std::uint64_t deadline = platform::forever;  // where the time-out began before the wait

    const char *peer() const { return nameOfQueue(IpcHeader::TargetQueue::get(header)); }
    int type() const { return static_cast<int>(wanted.type); }
    int transaction() const { return static_cast<int>(wanted.transaction); }
};

void stampRequest(Exchange &exchange, std::uint32_t callersType, std::uint32_t callersTransaction) {
    std::uint8_t *header = exchange.header;
    IpcHeader::Magic::set(header, IpcHeader::magic);
    IpcHeader::CommandType::set(header, ZEL_IPC_REQ);
    IpcHeader::AckFlag::set(header, 0);
    IpcHeader::MessageType::set(header, exchange.wanted.type);
    IpcHeader::Transaction::set(header, exchange.wanted.transaction);
    IpcHeader::SourceAddress::set(header, zel_sysGetIpAddr());
    IpcHeader::SourceQueue::set(header, exchange.endpoint.queues[responseQueue].queueId);
    // A caller that names neither takes whatever answers first.
    if (callersType == 0 && callersTransaction == 0) exchange.wanted = {};
}

bool sendRequest(const Exchange &exchange) {
    const void *header = exchange.header;
    if (sendMessage(exchange.endpoint.queues[requestQueue], header, exchange.payload, exchange.payloadLength,
                    IpcHeader::TargetAddress::get(header), IpcHeader::TargetPort::get(header)))
        return true;
    zelErrorPrintf(traceModule, "SndWait: sendto failed on REQ Q, errno: %d msg type %d trans %d to task %s\r\n", errno,
                   exchange.type(), exchange.transaction(), exchange.peer());
    return false;
}

bool isIpcMessage(const Exchange &exchange, const void *datagram, std::size_t length) {
    const Form form = formOf(datagram, length);
    if (form == Form::message) return true;
    Counters &counters = exchange.endpoint.queues[responseQueue].counters;
    Counters::add(form == Form::tooShort ? counters.droppedShort : counters.droppedMagic);
    const std::uint32_t magic = length >= sizeof magic ? IpcHeader::Magic::get(datagram) : 0;
    zelWarningPrintf(traceModule,
                     "SndWait: recv non IPC msg on RSP Q: len %d mag %x when wait for RSP type %d trans %d from %s. "
                     "Drop it",
                     static_cast<int>(length), magic, exchange.type(), exchange.transaction(), exchange.peer());
    return false;
}

void reportOther(const Exchange &exchange, const void *message) {
    Counters::add(exchange.endpoint.queues[responseQueue].counters.droppedMismatch);
    zelWarningPrintf(
        traceModule,
        "SndWait: recv other msg on RSP Q type %d trans %d cmd %s from %s when wait for RSP type %d trans "
        "%d from %s. Drop it",
        static_cast<int>(IpcHeader::MessageType::get(message)), static_cast<int>(IpcHeader::Transaction::get(message)),
        zelIpcGetCmdTypeName(IpcHeader::CommandType::get(message)), nameOfQueue(IpcHeader::SourceQueue::get(message)),
        exchange.type(), exchange.transaction(), exchange.peer());
}

void traceTaken(const void *message) {
    zelTracePrintf(
        traceModule, "SndWait: recv msg type %d trans %d cmd: %s from %s when wait for any msg. Take it.",
        static_cast<int>(IpcHeader::MessageType::get(message)), static_cast<int>(IpcHeader::Transaction::get(message)),
        zelIpcGetCmdTypeName(IpcHeader::CommandType::get(message)), nameOfQueue(IpcHeader::SourceQueue::get(message)));
}

bool isResponse(const Exchange &exchange, const void *datagram, std::size_t length) {
    if (!isIpcMessage(exchange, datagram, length)) return false;
    if (isGuaranteedAck(IpcHeader::CommandType::get(datagram))) {
        Counters::add(exchange.endpoint.queues[responseQueue].counters.droppedLateAck);
        return false;
    }
    if (!isWanted(datagram, exchange.wanted)) {
        reportOther(exchange, datagram);
        return false;
    }
    if (exchange.wanted.isAny() && isTraceOn(traceModule)) traceTaken(datagram);
    return true;
}

int reportNoResponse(const Exchange &exchange) {
    if (errno != ETIMEDOUT)
        zelErrorPrintf(traceModule, "SndWait: recvfrom failed on RSP Q, errno: %d", errno);
    else if (exchange.timeoutSec == 0)
        zelErrorPrintf(traceModule, "SndWait: No RSP from %s, msg type %d trans %d. Caller no wait. Give up ",
                       exchange.peer(), exchange.type(), exchange.transaction());
    else
        zelErrorPrintf(traceModule, "SndWait timeout. No RSP from %s for %d sec, msg type %d trans %d. Give up",
                       exchange.peer(), exchange.timeoutSec, exchange.type(), exchange.transaction());
    return ZEL_ERROR;
}

int receiveResponse(const Exchange &exchange) {
    Queue &queue = exchange.endpoint.queues[responseQueue];
    Wait wait(queue, exchange.timeoutSec);
    wait.endBy(exchange.deadline);
    for (;;) {
        const ssize_t length = wait.next(exchange.response, static_cast<std::size_t>(exchange.responseSize));
        if (length < 0) return reportNoResponse(exchange);
        const auto bytes = static_cast<std::size_t>(length);
        if (isResponse(exchange, exchange.response, bytes))
            return deliver(queue, exchange.response, bytes, exchange.responseSize);
    }
}

int makeExchange(const Exchange &exchange) {
    makeRoom(exchange.endpoint.queues[responseQueue]);
    return sendRequest(exchange) ? receiveResponse(exchange) : ZEL_ERROR;
}

// The endpoint of a checked request; null with errno, after the refusal was printed.
Endpoint *checkRequest(std::uint32_t key, const void *request, int sendLen, const void *response, int recvLen,
                       int timeoutSec) {
    if (timeoutSec < -1) {
        zelErrorPrintf(traceModule, "SndWait: Invalid Timeout value, tmout=%d. No msg sent by %s", timeoutSec,
                       selfName());
        errno = EINVAL;
        return nullptr;
    }
    if (!isMessage(request, sendLen) || !isValidWait(response, recvLen, timeoutSec)) return nullptr;
    return findOpenExchange(key);
}

Exchange prepare(Endpoint &endpoint, const void *request, int sendLen, void *response, int recvLen, int timeoutSec) {
    Exchange exchange{endpoint,
                      {},
                      static_cast<const std::uint8_t *>(request) + IpcHeader::size,
                      static_cast<std::size_t>(sendLen) - IpcHeader::size,
                      response,
                      recvLen,
                      timeoutSec,
                      {},
                      platform::forever};
    memcpy(exchange.header, request, IpcHeader::size);
    return exchange;
}

}  // namespace

int awaitResponse(Endpoint &endpoint, void *buffer, int size, int timeoutSec, std::uint64_t deadline,
                  const Wanted &wanted) {
    return receiveResponse({endpoint, {}, nullptr, 0, buffer, size, timeoutSec, wanted, deadline});
}

}  // namespace zel::ipc

using namespace zel::ipc;

int zelIpcSendWait(uint32_t key, void *buffer, int sendLen, int recvLen, int timeoutSec, uint32_t msgType) {
    Endpoint *endpoint = checkRequest(key, buffer, sendLen, buffer, recvLen, timeoutSec);
    if (!endpoint) return ZEL_ERROR;
    Exchange exchange = prepare(*endpoint, buffer, sendLen, buffer, recvLen, timeoutSec);
    const uint32_t transaction = IpcHeader::Transaction::get(exchange.header);
    exchange.wanted = {msgType != 0 ? msgType : IpcHeader::MessageType::get(exchange.header), transaction};
    stampRequest(exchange, msgType, transaction);
    ResponseTurn turn(*endpoint);
    return turn.isTaken() ? turn.done(makeExchange(exchange)) : ZEL_ERROR;
}

int zelIpcSendWaitWithRetry(uint32_t key, const void *sendBuffer, void *recvBuffer, int sendLen, int recvLen,
                            int timeoutSec, uint32_t msgType, uint32_t transaction, int retries) {
    if (retries < 0) return zel::kernel::fail(EINVAL);
    Endpoint *endpoint = checkRequest(key, sendBuffer, sendLen, recvBuffer, recvLen, timeoutSec);
    if (!endpoint) return ZEL_ERROR;
    Exchange exchange = prepare(*endpoint, sendBuffer, sendLen, recvBuffer, recvLen, timeoutSec);
    exchange.wanted = {msgType, transaction};
    stampRequest(exchange, msgType, transaction);
    ResponseTurn turn(*endpoint);
    if (!turn.isTaken()) return ZEL_ERROR;
    int result = ZEL_ERROR;
    for (int attempt = 0; attempt <= retries && result == ZEL_ERROR; ++attempt) result = makeExchange(exchange);
    return turn.done(result);
}

int zelIpcRecvOnRspQ(uint32_t key, void *buffer, int size, int timeoutSec, uint32_t msgType, uint32_t transaction) {
    if (!isValidWait(buffer, size, timeoutSec)) return ZEL_ERROR;
    Endpoint *endpoint = findOpenExchange(key);
    if (!endpoint) return ZEL_ERROR;
    ResponseTurn turn(*endpoint);
    if (!turn.isTaken()) return ZEL_ERROR;
    return turn.done(
        awaitResponse(*endpoint, buffer, size, timeoutSec, zel::platform::forever, {msgType, transaction}));
}

int zelIpcReply(uint32_t key, void *message, int length) {
    Queue *queue = findOpenQueue(key);
    if (!queue || !isMessage(message, length)) {
        zelErrorPrintf(traceModule, "Reply: Task: %s, Invalid IPC keypassed, errno: %d", selfName(), errno);
        return ZEL_ERROR;
    }
    // A request that was not read by zelIpcRecv has not been acknowledged yet.
    if (isGuaranteedSend(IpcHeader::CommandType::get(message)) && !wasNoted(*findEndpoint(key), message))
        acknowledgeGuaranteed(*queue, message);
    uint8_t header[IpcHeader::size];
    memcpy(header, message, sizeof header);
    swapEnds(header);
    IpcHeader::Magic::set(header, IpcHeader::magic);
    IpcHeader::CommandType::set(header, ZEL_IPC_RSP);
    IpcHeader::AckFlag::set(header, 0);
    if (sendMessage(*queue, header, static_cast<const uint8_t *>(message) + sizeof header,
                    static_cast<size_t>(length) - sizeof header, IpcHeader::TargetAddress::get(header),
                    IpcHeader::TargetPort::get(header)))
        return ZEL_OK;
    zelErrorPrintf(traceModule, "Reply: Task: %s, sendto Failed, errno: %d", selfName(), errno);
    return ZEL_ERROR;
}
