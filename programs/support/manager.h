// A manager of routes: one task that receives, one message at a time.
//
// Queued messages go through the stream receiver first, which acknowledges them and drops what came before or too
// early; requests are answered in place. What they mean is the derived class's; it believes nothing that the library's
// parsers have not checked.
#pragma once

#include <cstdint>
#include <functional>
#include <list>

#include "zel/ipc.h"
#include "zel/kernel.h"
#include "zel/rtm.h"

namespace zel::programs {

class Manager {
public:
    Manager(std::uint32_t key, const char *program);
    virtual ~Manager();
    Manager(const Manager &) = delete;
    Manager &operator=(const Manager &) = delete;

    // Serves until the program is asked to stop: the exit status.
    int run();

protected:
    virtual bool isQueued(std::uint32_t type) const = 0;
    // Whether a queued message names a client as its sender.
    virtual bool isFromClient(const std::uint8_t *message, int length) = 0;
    virtual void takeQueued(std::uint32_t type, const std::uint8_t *message, int length) = 0;
    // Answers a request, with reply() or refuse().
    virtual void answer(std::uint32_t type, std::uint8_t *message, int length) = 0;
    virtual void takeAcknowledgement(const std::uint8_t *, int) {}
    // What a message, or time, has brought about for others; true when there is more of that at once.
    virtual bool followUp() = 0;

    void reply(std::uint8_t *message, int length) const;
    void refuse(std::uint8_t *message, int length, zelRtmStatus status);

    std::uint32_t key() const { return key_; }
    zelSwpReceiverStats streams() const;
    std::uint64_t droppedByHost() const;

    std::uint64_t refused_ = 0;  // requests answered with a status, and messages of unknown clients

private:
    void dispatch(std::uint8_t *message, int length);
    bool beginsForNobody(const std::uint8_t *message, int length);

    std::uint32_t key_;
    zelSwpReceiver *receiver_;
};

// Requests to clients to send again what was thrown away. They are single datagrams, so one that nobody acknowledged
// may have been lost: it is sent again each second, five times in all.
class ClearRequests {
public:
    struct Request {
        std::uint32_t handle;
        int family;
        std::uint32_t vrf;
        std::uint32_t sequence;
    };
    using Send = std::function<void(const Request &)>;

    explicit ClearRequests(Send send);
    ClearRequests(const ClearRequests &) = delete;
    ClearRequests &operator=(const ClearRequests &) = delete;

    void ask(std::uint32_t handle, int family, std::uint32_t vrf);
    // False when nothing like that was asked.
    bool acknowledge(std::uint32_t handle, std::uint32_t sequence);
    void forget(std::uint32_t handle);
    // Sends again what is due.
    void process() { zelProcTimers(&timers_); }

private:
    // A request and the timer that repeats it.
    struct Pending {
        Pending(ClearRequests &owner, const Request &request);
        ~Pending();
        Pending(const Pending &) = delete;
        Pending &operator=(const Pending &) = delete;

        ClearRequests &owner;
        Request request;
        int sent = 1;  // times
        zelTimer *timer;
    };
    static void askAgain(intptr_t pending);

    Send send_;
    zelTmrHead timers_{};
    std::list<Pending> pending_;
    std::uint32_t sequence_ = 0;
};

}  // namespace zel::programs
