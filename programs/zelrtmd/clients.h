// The clients of the route table manager, and what holds for each.
#pragma once

#include <compare>
#include <cstdint>
#include <set>

#include "programs/support/client_table.h"
#include "zel/rtm.h"

namespace zelrtmd {

// Something that holds for a client, as clients see it: a ZEL_RTM_FACT and its two words.
struct Fact {
    std::uint32_t what;
    std::uint32_t first;
    std::uint32_t second = 0;
    auto operator<=>(const Fact &) const = default;
};

struct Client : zel::programs::ClientRecord {
    std::set<Fact> facts;

    // False when there is no room for another one.
    bool note(const Fact &fact);
    bool accepts(int family, std::uint32_t clientType) const;
};

class Clients : public zel::programs::ClientTable<Client> {
public:
    using ClientTable::ClientTable;

    // The same name from the same queue gets the handle it had, and what it registers for is added.
    zelRtmStatus enter(const zelRtmRegistration &registration, std::uint32_t &handle);
};

}  // namespace zelrtmd
