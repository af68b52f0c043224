// The clients of the route table manager: who registered, under which handle, for what.
#pragma once

#include <cstdint>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "zel/rtm.h"

namespace zelrtmd {

// What a refused request carries in its status word.
enum class Status : std::uint32_t { ok = 0, badName = 1, tableFull = 2, unknownClient = 3, badRequest = 4 };

struct Client {
    std::uint32_t handle = 0;  // 0: the slot is free
    std::string name;
    std::uint32_t type = 0;
    std::uint32_t address = 0;
    std::uint32_t receiveQueue = 0;
    std::set<std::uint32_t> families;
    std::set<std::uint32_t> vrfs;
    std::set<std::pair<std::uint32_t, std::uint32_t>> qualifiers;  // kind, value
    std::set<std::pair<int, std::uint32_t>> accepted;              // family, client type whose routes it takes
    std::uint32_t clearSequence = 0;                               // of an unacknowledged clear request; 0: none
};

class Clients {
public:
    explicit Clients(std::size_t most);

    // The same name from the same queue gets the handle it had, and what it registers for is added.
    Status enter(const zelRtmRegistration &registration, std::uint32_t &handle);
    Client *find(std::uint32_t handle);
    // As find, but only for a message that came from the client's own endpoint.
    Client *findSender(std::uint32_t handle, std::uint32_t address, std::uint32_t sourceQueue);
    void remove(Client &client);

    template <class Visit>
    void each(Visit visit) {
        for (Client &client : slots_)
            if (client.handle) visit(client);
    }
    std::size_t count() const;

private:
    Client *findSame(const zelRtmRegistration &registration);
    std::uint32_t nextHandle(std::size_t slot);

    std::vector<Client> slots_;
    std::uint32_t generation_;  // so that handles of an earlier life of the manager are not taken for present ones
};

}  // namespace zelrtmd
