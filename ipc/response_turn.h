// The right to read an endpoint's response queue: its ipc_rspq_sem, taken for one exchange.
#pragma once

#include "ipc/endpoint.h"
#include "ipc/ipc_receive.h"

namespace zel::ipc {

// Taken without limit of time unless a number of ticks is given. A task deleted in the middle of its exchange gives it
// back while it unwinds; every other way gives it by done(), which reports. Not taken: errno is EBADF, or ETIMEDOUT.
class ResponseTurn {
public:
    explicit ResponseTurn(const Endpoint &endpoint, int ticks = WAIT_FOREVER);
    ~ResponseTurn() {
        if (isTaken_) semGive(semaphore_);
    }
    ResponseTurn(const ResponseTurn &) = delete;
    ResponseTurn &operator=(const ResponseTurn &) = delete;

    bool isTaken() const { return isTaken_; }
    // Ends the exchange; returns `result`, or -1 when the turn cannot be given back.
    int done(int result);

private:
    const zelSemId semaphore_;
    bool isTaken_ = false;
};

// For whoever has the turn: the next such message on the response queue, as zelIpcRecvOnRspQ, but not beyond
// `deadline`.
int awaitResponse(Endpoint &endpoint, void *buffer, int size, int timeoutSec, std::uint64_t deadline,
                  const Wanted &wanted);

}  // namespace zel::ipc
