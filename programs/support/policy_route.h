// A row of a table as the checks of routing policy take it.
#pragma once

#include <vector>

#include "programs/support/table_file.h"
#include "zel/policy.h"

namespace zel::programs {

// The attributes stay in the table.
class PolicyRoute {
public:
    void take(const TableFile &table, const Row &row);
    const zelPolicyRoute &route() const { return route_; }
    // The IPv4 address as a number.
    std::uint32_t word() const;

private:
    zelPolicyRoute route_{};
    std::vector<std::uint32_t> communities_;
};

}  // namespace zel::programs
