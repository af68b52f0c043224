// The multicast route table manager: routes of its clients, the VLANs that span to the KXL peer, and questions about
// both.
#pragma once

#include <cstdint>
#include <optional>

#include "programs/support/client_table.h"
#include "programs/support/manager.h"
#include "table.h"
#include "zel/mrtm.h"

namespace zelmrtmd {

struct Options {
    std::size_t mostClients = 64;
};

class Manager : public zel::programs::Manager {
public:
    Manager(std::uint32_t key, const Options &options);

private:
    using Client = zel::programs::ClientRecord;

    bool isQueued(std::uint32_t type) const override { return zelMrtmIsQueued(type) != 0; }
    bool isFromClient(const std::uint8_t *message, int length) override { return findSender(message, length); }
    void takeQueued(std::uint32_t type, const std::uint8_t *message, int length) override;
    void answer(std::uint32_t type, std::uint8_t *message, int length) override;
    bool followUp() override;

    Client *findSender(const std::uint8_t *message, int length);
    void takeBatch(const std::uint8_t *message, int length);
    void apply(std::uint32_t operation, const zelMrtmBatch &batch, const zelMrtmRoute &route);
    void takeRequest(const zelMrtmRequest &request);
    void takeSpanVlans(const std::uint8_t *message, int length);
    void withdraw(std::uint32_t handle);
    void clear(int family, std::uint32_t vrf);
    void sendClear(const zel::programs::ClearRequests::Request &request);

    void registerClient(std::uint8_t *message, int length);
    void deregisterClient(std::uint8_t *message, int length);
    void answerQuery(std::uint8_t *message, int length);
    void answerCounters(std::uint8_t *message);

    zel::programs::ClientTable<Client> clients_;
    zel::programs::ClearRequests clears_;
    Table table_;
    std::uint32_t spanVlans_[IFM_VLAN_BITMAP_WORDS] = {};
    std::uint64_t counts_[ZEL_MRTM_COUNTERS] = {};
};

}  // namespace zelmrtmd
