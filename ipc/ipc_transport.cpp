#include "ipc/ipc_transport.h"

#include <cerrno>

#include "ipc/ipc_header.h"
#include "ipc/ipc_history.h"
#include "kernel/task.h"
#include "platform/datagram.h"

namespace zel::ipc {
namespace {

std::uint64_t deadlineOf(int timeoutSec) {
    if (timeoutSec < 0) return platform::forever;
    if (timeoutSec == 0) return 0;
    return platform::deadlineAfterSeconds(static_cast<std::uint64_t>(timeoutSec));
}

bool sendParts(Queue &queue, const iovec *parts, int count, std::size_t length, std::uint32_t address,
               std::uint16_t port) {
    const sockaddr_in to = platform::socketAddress(address, port);
    const ssize_t sent = platform::sendDatagram(queue.socket.load(std::memory_order_acquire), parts, count, to);
    if (sent != static_cast<ssize_t>(length)) {
        Counters::add(queue.counters.sendFailures);
        return false;
    }
    Counters::add(queue.counters.sent);
    if (isHistoryOn()) recordHistory(Direction::sent, queue.queueId, parts->iov_base, length);
    return true;
}

}  // namespace

bool sendMessage(Queue &queue, const void *header, const void *payload, std::size_t payloadLength,
                 std::uint32_t address, std::uint16_t port) {
    const iovec parts[] = {{const_cast<void *>(header), IpcHeader::size}, {const_cast<void *>(payload), payloadLength}};
    return sendParts(queue, parts, payloadLength > 0 ? 2 : 1, IpcHeader::size + payloadLength, address, port);
}

bool sendMessage(Queue &queue, const void *message, std::size_t length, std::uint32_t address, std::uint16_t port) {
    const iovec whole{const_cast<void *>(message), length};
    return sendParts(queue, &whole, 1, length, address, port);
}

int sendMessages(Queue &queue, const iovec *messages, int count, std::uint32_t address, std::uint16_t port) {
    const sockaddr_in to = platform::socketAddress(address, port);
    const int sent = platform::sendDatagrams(queue.socket.load(std::memory_order_acquire), messages, count, to);
    queue.counters.sent.fetch_add(static_cast<std::uint64_t>(sent), std::memory_order_relaxed);
    if (sent < count) Counters::add(queue.counters.sendFailures);
    for (int i = 0; isHistoryOn() && i < sent; ++i)
        recordHistory(Direction::sent, queue.queueId, messages[i].iov_base, messages[i].iov_len);
    return sent;
}

Wait::Wait(Queue &queue, int timeoutSec)
    : queue_(queue),
      socket_(queue.socket.load(std::memory_order_acquire)),
      timeoutSec_(timeoutSec),
      deadline_(deadlineOf(timeoutSec)),
      mayBlock_(queue.receivers.fetch_add(1, std::memory_order_acq_rel) == 0 && timeoutSec != 0 &&
                platform::canBlockInReceive()) {}

// A blocking read ends only by its own time-out, and a tick more or less does not matter to whole seconds.
void Wait::endBy(std::uint64_t deadline) {
    if (deadline >= deadline_ || deadline_ - deadline <= platform::nanosecondsPerTick) return;
    deadline_ = deadline;
    mayBlock_ = false;
}

bool Wait::prepareBlocking() {
    if (!mayBlock_) return false;
    mayBlock_ = false;
    const int limit = timeoutSec_ < 0 ? 0 : timeoutSec_;
    if (queue_.receiveTimeout == limit) return true;
    if (!platform::setReceiveTimeout(socket_, limit)) return false;
    queue_.receiveTimeout = limit;
    return true;
}

bool Wait::isClosed() const {
    return queue_.socket.load(std::memory_order_acquire) != socket_;
}

ssize_t Wait::next(void *buffer, std::size_t size) {
    const int before = errno;
    const bool hasBlocked = prepareBlocking();
    ssize_t length = hasBlocked ? platform::receiveBlocking(socket_, buffer, size) : -1;
    const bool hasFailed = hasBlocked && length < 0 && errno != EINTR && errno != EAGAIN;
    if (length < 0 && !hasFailed) length = nextByClock(buffer, size);
    if (length < 0) return -1;
    // Reads of a queue that is being closed come back empty.
    if (length == 0 && isClosed()) return kernel::fail(EBADF);
    errno = before;
    return length;
}

ssize_t Wait::nextByClock(void *buffer, std::size_t size) {
    for (;;) {
        if (isClosed()) return kernel::fail(EBADF);
        const ssize_t length = platform::receiveWaiting(socket_, buffer, size);
        if (length >= 0 || (errno != EAGAIN && errno != EINTR)) return length;
        if (platform::now() >= deadline_) return kernel::fail(ETIMEDOUT);
        const auto &seam = platform::seam();
        hasWaitFailed_ = seam.waitReadable(seam.context, socket_, deadline_) < 0 && errno != EINTR;
        if (hasWaitFailed_) return -1;
    }
}

bool isValidWait(const void *buffer, int size, int timeoutSec) {
    if (buffer && size >= static_cast<int>(IpcHeader::size) && timeoutSec >= -1) return true;
    errno = EINVAL;
    return false;
}

}  // namespace zel::ipc
