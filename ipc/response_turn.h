// The right to read an endpoint's response queue: its ipc_rspq_sem, taken for one exchange.
#pragma once

#include "ipc/endpoint.h"

namespace zel::ipc {

// Taken without limit of time. A task deleted in the middle of its exchange gives it back while it unwinds; every other
// way gives it by done(), which reports.
class ResponseTurn {
public:
    explicit ResponseTurn(const Endpoint &endpoint);
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

}  // namespace zel::ipc
