// The route table manager: one task that receives, one message at a time.
//
// Queued messages go through the stream receiver first, which acknowledges them and drops what came before or too
// early; requests are answered in place. Every message is checked as a whole by the library's parsers before anything
// is believed.
#pragma once

#include <cstdint>
#include <list>
#include <optional>
#include <set>
#include <vector>

#include "clients.h"
#include "redistribution.h"
#include "table.h"
#include "zel/ipc.h"
#include "zel/kernel.h"
#include "zel/rtm.h"

namespace zelrtmd {

struct Options {
    std::size_t mostClients = 64;
    bool onlyCounts = false;  // routes are counted and forgotten, to measure the road without the table
};

class Manager {
public:
    Manager(std::uint32_t key, const Options &options);
    ~Manager();
    Manager(const Manager &) = delete;
    Manager &operator=(const Manager &) = delete;

    // Serves until the program is asked to stop.
    int run();

private:
    // A question that a client wants answered whenever its answer changes.
    struct Poller {
        zelRtmQuery query;
        std::vector<std::uint8_t> lastAnswer;
    };
    struct Found {
        const Path *path = nullptr;
        const Path *asked = nullptr;  // the first step of a recursive look-up
        std::uint32_t bits = 0;
    };

    // A clear request until it is acknowledged, and the timer that repeats it.
    struct Clear {
        Clear(Manager &manager, std::uint32_t handle, std::uint32_t vrf, std::uint32_t sequence);
        ~Clear();
        Clear(const Clear &) = delete;
        Clear &operator=(const Clear &) = delete;

        Manager &manager;
        std::uint32_t handle;
        std::uint32_t vrf;
        std::uint32_t sequence;
        int sent = 0;  // times
        zelTimer *timer;
    };

    void dispatch(std::uint8_t *message, int length);
    bool beginsForNobody(const std::uint8_t *message, int length);
    bool followUp();
    void takeQueued(std::uint32_t type, const std::uint8_t *message, int length);
    void answer(std::uint32_t type, std::uint8_t *message, int length);
    void answerQuestion(std::uint32_t type, std::uint8_t *message, int length);
    void reply(std::uint8_t *message, int length);
    void refuse(std::uint8_t *message, int length, zelRtmStatus status);

    void takeBatch(const std::uint8_t *message, int length);
    void apply(std::uint32_t operation, std::uint32_t handle, const zelRtmBatch &batch, const zelRtmRoute &route);
    void count(Change change);
    Table *find(int family, std::uint32_t vrf);
    Table *findOrMake(int family, std::uint32_t vrf);
    void sumUp();

    // requests.cpp
    void registerClient(std::uint8_t *message, int length);
    void answerRequest(const zelRtmRequest &request, std::uint8_t *message, int length);
    zelRtmStatus perform(const zelRtmRequest &request, Client &client);
    void takeQueuedRequest(const zelRtmRequest &request, Client &client);
    std::set<std::uint32_t> withdraw(std::uint32_t handle, std::optional<int> family, std::optional<std::uint32_t> vrf);
    void leaveFamily(Client &client, int family);
    void forget(Client &client);
    void dropPollers(std::uint32_t handle, std::optional<int> family, std::optional<std::uint32_t> vrf);
    void clear(std::uint32_t vrf);
    void ask(Clear &clear);
    static void askAgain(intptr_t clear);
    bool takeClearAck(const zelRtmRequest &request);
    zelRtmStatus redistribute(const zelRtmRequest &request, Client &client);
    void showClient(std::uint8_t *message, int length);
    void dump(std::uint8_t *message, int length);

    // lookup.cpp
    void answerLookup(std::uint8_t *message, int length);
    void takePoll(const std::uint8_t *message, int length);
    Found resolve(const zelRtmQuery &query);
    bool tell(Poller &poller, bool always);
    void tellPollers();

    std::uint32_t key_;
    Options options_;
    zelSwpReceiver *receiver_;
    Clients clients_;
    Tables tables_;
    Redistribution redistribution_;
    Table *lastTable_ = nullptr;
    std::list<Poller> pollers_;
    bool tablesChanged_ = false;
    zelTmrHead timers_{};
    std::list<Clear> clears_;
    std::uint32_t clearSequence_ = 0;
    std::uint64_t counts_[ZEL_RTM_COUNTERS] = {};
};

}  // namespace zelrtmd
