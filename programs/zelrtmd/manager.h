// The route table manager: its tables, by family and VRF, and what its clients ask of it.
#pragma once

#include <cstdint>
#include <list>
#include <optional>
#include <set>
#include <vector>

#include "clients.h"
#include "programs/support/manager.h"
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

class Manager : public zel::programs::Manager {
public:
    Manager(std::uint32_t key, const Options &options);

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

    bool isQueued(std::uint32_t type) const override { return zelRtmIsQueued(type) != 0; }
    bool isFromClient(const std::uint8_t *message, int length) override;
    void takeQueued(std::uint32_t type, const std::uint8_t *message, int length) override;
    void answer(std::uint32_t type, std::uint8_t *message, int length) override;
    void takeAcknowledgement(const std::uint8_t *message, int length) override;
    bool followUp() override;
    void answerQuestion(std::uint32_t type, std::uint8_t *message, int length);

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
    void sendClear(const zel::programs::ClearRequests::Request &request);
    zelRtmStatus redistribute(const zelRtmRequest &request, Client &client);
    void showClient(std::uint8_t *message, int length);
    void dump(std::uint8_t *message, int length);

    // lookup.cpp
    void answerLookup(std::uint8_t *message, int length);
    void takePoll(const std::uint8_t *message, int length);
    Found resolve(const zelRtmQuery &query);
    bool tell(Poller &poller, bool always);
    void tellPollers();

    Options options_;
    Clients clients_;
    Tables tables_;
    Redistribution redistribution_;
    Table *lastTable_ = nullptr;
    std::list<Poller> pollers_;
    bool tablesChanged_ = false;
    zel::programs::ClearRequests clears_;
    std::uint64_t counts_[ZEL_RTM_COUNTERS] = {};
};

}  // namespace zelrtmd
