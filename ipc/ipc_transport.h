// One datagram out, one datagram in, with the counters and the history that go with them.
#pragma once

#include <netinet/in.h>
#include <sys/uio.h>

#include <cstddef>
#include <cstdint>

#include "ipc/endpoint.h"
#include "platform/seam.h"

namespace zel::ipc {

// Sends header and payload as one datagram to a queue: whether the host took it whole. errno tells why not.
bool sendMessage(Queue &queue, const void *header, const void *payload, std::size_t payloadLength,
                 std::uint32_t address, std::uint16_t port);
// The same for a message in one piece.
bool sendMessage(Queue &queue, const void *message, std::size_t length, std::uint32_t address, std::uint16_t port);
// The same for several messages to one queue, in order; how many the host took.
int sendMessages(Queue &queue, const iovec *messages, int count, std::uint32_t address, std::uint16_t port);

// One wait on a queue: one deadline, however many datagrams are dropped and however often it is interrupted.
//
// A blocking read with the time-out set on the socket is the cheapest wait there is. It is used for the first datagram
// of the only receiver; whoever comes second, or goes on after a dropped datagram, waits for what is left by the clock.
class Wait {
public:
    // Whole seconds; -1 waits without limit, 0 not at all.
    Wait(Queue &queue, int timeoutSec);
    ~Wait() { queue_.receivers.fetch_sub(1, std::memory_order_acq_rel); }
    Wait(const Wait &) = delete;
    Wait &operator=(const Wait &) = delete;

    // The next datagram: its whole length, also when that exceeds `size`. -1 with errno: ETIMEDOUT at the deadline,
    // EBADF when the queue was closed meanwhile.
    ssize_t next(void *buffer, std::size_t size);
    // Ends the wait no later than at this deadline.
    void endBy(std::uint64_t deadline);
    // Whether the last failure was that of waiting, not of reading.
    bool hasWaitFailed() const { return hasWaitFailed_; }

private:
    bool prepareBlocking();
    bool isClosed() const;
    ssize_t nextByClock(void *buffer, std::size_t size);

    Queue &queue_;
    const int socket_;
    const int timeoutSec_;
    std::uint64_t deadline_;
    bool mayBlock_;
    bool hasWaitFailed_ = false;
};

// Checks what every wait checks; false with EINVAL.
bool isValidWait(const void *buffer, int size, int timeoutSec);

}  // namespace zel::ipc
