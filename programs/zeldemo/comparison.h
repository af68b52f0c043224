// What the manager's tables must be after every source has pushed a file: for each prefix, the last row that names it,
// once per source.
#pragma once

#include <cstdint>
#include <vector>

#include "programs/support/table_file.h"
#include "zel/rtm.h"

namespace zeldemo {

class Expected {
public:
    explicit Expected(const zel::programs::TableFile &table);

    std::uint64_t prefixes() const { return rows_.size(); }
    bool hasFamily(int family) const;
    // Asks for the whole table and compares: the number of differences, -1 when the manager does not answer.
    // `routes` is how many routes it has.
    long compare(const zelIpcAddr &ipc, std::size_t sources, std::uint64_t &routes) const;

private:
    long compareFamily(const zelIpcAddr &ipc, int family, std::size_t sources, std::uint64_t &routes) const;
    bool isSame(const zel::programs::Row &row, const zelRtmRoute &route) const;

    const zel::programs::TableFile &table_;
    std::vector<const zel::programs::Row *> rows_;  // one per prefix, in the order of the dump
};

}  // namespace zeldemo
