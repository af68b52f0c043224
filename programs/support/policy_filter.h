// A table filtered through policy lists of this CPU, in place: a route stays when every list permits it.
#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "programs/support/table_file.h"

namespace zel::programs {

// Lists by name; an empty name asks nothing.
struct PolicyFilter {
    std::string prefixes, paths, communities;

    bool isEmpty() const { return prefixes.empty() && paths.empty() && communities.empty(); }
};

// How many routes each entry decided: by kind of list ("prefix", "prefix6", "aspath", "community") and sequence number,
// 0 for those that no entry matched. A route that one list denied was not asked of the next.
using PolicyCounts = std::map<std::pair<std::string, std::uint32_t>, unsigned long>;

// Takes the routes that a list denies out of the table; withdrawals stay. The read lock of the lists is held for some
// hundred routes at a time.
PolicyCounts filterTable(TableFile &table, const PolicyFilter &filter);

}  // namespace zel::programs
