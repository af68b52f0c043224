// The clients of the route table manager: who registered, under which handle, for what.
#pragma once

#include <compare>
#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include "zel/rtm.h"

namespace zelrtmd {

// Something that holds for a client, as clients see it: a ZEL_RTM_FACT and its two words.
struct Fact {
    std::uint32_t what;
    std::uint32_t first;
    std::uint32_t second = 0;
    auto operator<=>(const Fact &) const = default;
};

struct Client {
    std::uint32_t handle = 0;  // 0: the slot is free
    std::string name;
    std::uint32_t type = 0;
    std::uint32_t address = 0;
    std::uint32_t receiveQueue = 0;
    std::set<Fact> facts;

    // False when there is no room for another one.
    bool note(const Fact &fact);
    bool accepts(int family, std::uint32_t clientType) const;
};

class Clients {
public:
    explicit Clients(std::size_t most);

    // The same name from the same queue gets the handle it had, and what it registers for is added.
    zelRtmStatus enter(const zelRtmRegistration &registration, std::uint32_t &handle);
    Client *find(std::uint32_t handle);
    // As find, but only for a message that came from the client's own endpoint.
    Client *findSender(std::uint32_t handle, const void *message);
    bool isAnyAt(std::uint32_t address) const;
    void remove(Client &client);
    std::size_t count() const;
    // The client in this slot or the next one that has any, whose number is stored; null behind the last.
    const Client *next(std::uint32_t &slot) const;

private:
    Client *findSame(const zelRtmRegistration &registration);
    std::uint32_t nextHandle(std::size_t slot);

    std::vector<Client> slots_;
    std::uint32_t generation_;  // so that handles of an earlier life of the manager are not taken for present ones
};

}  // namespace zelrtmd
