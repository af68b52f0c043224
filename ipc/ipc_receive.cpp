// Receiving on a queue. Whatever arrives is judged in a fixed order: length, magic, a request for an acknowledgement,
// guaranteed delivery, a late acknowledgement, and last whether the caller waits for it. So a message that asks for an
// acknowledgement gets it although the caller then drops the message.
#include "ipc/ipc_receive.h"

#include <algorithm>
#include <cerrno>

#include "ipc/guaranteed.h"
#include "ipc/ipc_header.h"
#include "ipc/ipc_history.h"
#include "ipc/ipc_transport.h"
#include "kernel/task.h"
#include "platform/datagram.h"

namespace zel::ipc {

// More small datagrams than a buffer of the default size holds; a bound against senders that go on.
constexpr int mostDropped = 512;

Form formOf(const void *datagram, std::size_t length) {
    if (length < IpcHeader::size) return Form::tooShort;
    return IpcHeader::Magic::get(datagram) == IpcHeader::magic ? Form::message : Form::wrongMagic;
}

bool isWanted(const void *message, const Wanted &wanted) {
    return wanted.isAny() || (IpcHeader::MessageType::get(message) == wanted.type &&
                              IpcHeader::Transaction::get(message) == wanted.transaction);
}

int deliver(Queue &queue, const void *message, std::size_t length, int size) {
    Counters::add(queue.counters.received);
    if (isHistoryOn()) recordHistory(Direction::received, queue.queueId, message, length);
    if (length <= static_cast<std::size_t>(size)) return static_cast<int>(length);
    Counters::add(queue.counters.truncated);
    zelWarningPrintf(traceModule, "recv msg on sock %d len %zu: cut to %d bytes", queue.socket.load(), length, size);
    return size;
}

void makeRoom(Queue &queue) {
    const std::uint64_t now = platform::now();
    if (now - queue.roomSeenAt < platform::nanosecondsPerTick) return;
    queue.roomSeenAt = now;
    const int socket = queue.socket.load(std::memory_order_acquire);
    if (!platform::isHalfFull(socket)) return;
    const int before = errno;
    std::uint8_t byte;
    for (int i = 0; i < mostDropped && platform::receiveWaiting(socket, &byte, 1) >= 0; ++i)
        Counters::add(queue.counters.droppedMismatch);
    errno = before;
}

namespace {

bool isIpcMessage(Queue &queue, const void *datagram, std::size_t length) {
    switch (formOf(datagram, length)) {
        case Form::message:
            return true;
        case Form::tooShort:
            Counters::add(queue.counters.droppedShort);
            zelWarningPrintf(traceModule, "GrtRecv: recv msg NON IPC msg on sock %d len %d: too short",
                             queue.socket.load(), static_cast<int>(length));
            return false;
        case Form::wrongMagic:
            Counters::add(queue.counters.droppedMagic);
            zelWarningPrintf(traceModule, "GrtRecv: received non IPC msg on sock %d magic %x, magic no match",
                             queue.socket.load(), IpcHeader::Magic::get(datagram));
            return false;
    }
    return false;
}

void acknowledgeIfAsked(Queue &queue, const void *message) {
    const std::uint8_t flag = IpcHeader::AckFlag::get(message);
    if (flag == 0 || IpcHeader::CommandType::get(message) != ZEL_IPC_GRT) return;
    if (!sendAnswer(queue, message, ZEL_IPC_ACK, false))
        zelErrorPrintf(traceModule, "GrtRecv: sendto failed for ACK type %d trans %d flag %d to %s",
                       static_cast<int>(IpcHeader::MessageType::get(message)),
                       static_cast<int>(IpcHeader::Transaction::get(message)), flag,
                       nameOfQueue(IpcHeader::SourceQueue::get(message)));
}

bool isDeliveredAlready(Endpoint &endpoint, Queue &queue, const void *message) {
    if (!isGuaranteedSend(IpcHeader::CommandType::get(message))) return false;
    const bool isDuplicate = noteGuaranteed(endpoint, message);
    acknowledgeGuaranteed(queue, message);
    if (isDuplicate) Counters::add(queue.counters.droppedDuplicate);
    return isDuplicate;
}

bool isLateAck(Queue &queue, const void *message, const Wanted &wanted) {
    if (!wanted.isParticular() || !isGuaranteedAck(IpcHeader::CommandType::get(message))) return false;
    Counters::add(queue.counters.droppedLateAck);
    return true;
}

bool isMismatch(Queue &queue, const void *message, const Wanted &wanted) {
    if (isWanted(message, wanted)) return false;
    Counters::add(queue.counters.droppedMismatch);
    zelWarningPrintf(traceModule, "GrtRecv: recv msg mismatch type %d vs %d or trans %d vs %d. Drop it",
                     static_cast<int>(IpcHeader::MessageType::get(message)), static_cast<int>(wanted.type),
                     static_cast<int>(IpcHeader::Transaction::get(message)), static_cast<int>(wanted.transaction));
    return true;
}

bool isForCaller(Endpoint &endpoint, Queue &queue, const void *datagram, std::size_t length, const Wanted &wanted) {
    if (!isIpcMessage(queue, datagram, length)) return false;
    acknowledgeIfAsked(queue, datagram);
    return !isDeliveredAlready(endpoint, queue, datagram) && !isLateAck(queue, datagram, wanted) &&
           !isMismatch(queue, datagram, wanted);
}

int reportFailure(Queue &queue, int timeoutSec, bool hasWaitFailed) {
    if (errno == ETIMEDOUT) {
        // Whoever only looks expects to find nothing.
        if (timeoutSec > 0) zelTracePrintf(traceModule, "GrtRecv: select timeout for %d sec", timeoutSec);
    } else {
        zelErrorPrintf(traceModule,
                       hasWaitFailed ? "GrtRecv: select failed on sock %d errno %d"
                                     : "GrtRecv: recvfrom failed on sock %d, errno %d",
                       queue.socket.load(), errno);
    }
    return ZEL_ERROR;
}

int refuse(std::uint32_t key) {
    zelErrorPrintf(traceModule, "GrtRecv: Task: %s, SVC:%d, Inst:%d, Invalid sock passed, errno: %d", selfName(),
                   serviceOf(key), instanceOf(key), errno);
    return ZEL_ERROR;
}

}  // namespace
}  // namespace zel::ipc

using namespace zel::ipc;

int zelIpcRecv(uint32_t key, void *buffer, int size, int timeoutSec, uint32_t msgType, uint32_t transaction) {
    zel::kernel::cancellationPoint();
    if (!isValidWait(buffer, size, timeoutSec)) return ZEL_ERROR;
    Queue *queue = findOpenQueue(key);
    if (!queue) return refuse(key);
    Endpoint &endpoint = *findEndpoint(key);
    const Wanted wanted{msgType, transaction};
    Wait wait(*queue, timeoutSec);
    for (;;) {
        const ssize_t length = wait.next(buffer, static_cast<size_t>(size));
        if (length < 0) return reportFailure(*queue, timeoutSec, wait.hasWaitFailed());
        const auto bytes = static_cast<size_t>(length);
        if (isForCaller(endpoint, *queue, buffer, bytes, wanted)) return deliver(*queue, buffer, bytes, size);
    }
}

int zelIpcPeekMsg(uint32_t key, void *buffer, int size) {
    if (!buffer || size <= 0) return 0;
    Queue *queue = findOpenQueue(key);
    if (!queue) return 0;
    const int error = errno;
    const ssize_t length = zel::platform::peekWaiting(queue->socket.load(), buffer, static_cast<size_t>(size));
    errno = error;
    return length > 0 ? static_cast<int>(std::min<ssize_t>(length, size)) : 0;
}

int zelIpcGetNumMsgs(uint32_t key) {
    Queue *queue = findOpenQueue(key);
    if (!queue) return ZEL_ERROR;
    const int error = errno;
    const int count = zel::platform::countWaitingDatagrams(queue->socket.load());
    errno = error;
    return count;
}
