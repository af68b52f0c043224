// The image of an IP access list: its IPv4 and IPv6 entries as packed records in two chains, beside them what the
// manager keeps of entries and no check reads, and behind them the compiled forms of long chains.
//
// Records are big-endian and stand at any alignment. Offsets, `next` among them, count from the image's begin; 0 is
// none. The records alone say what a list means. A compiled form holds, in the columns of platform/column_search.h,
// what is left of a chain when entries that cannot match are dropped and what they ask is brought to one shape; a
// search in it has the outcome of a walk along the chain.
#pragma once

#include "base/wire.h"
#include "platform/column_search.h"
#include "policy/tables.h"

namespace zel::policy {

struct IpRecord {
    using Next = wire::Field<std::uint32_t, 0>;
    using Action = wire::Field<std::uint8_t, 4>;
    using Source = wire::Field<std::uint32_t, 5>;
    using SourceWildcard = wire::Field<std::uint32_t, 9>;  // 1 bits are not compared
    using Destination = wire::Field<std::uint32_t, 13>;
    using DestinationWildcard = wire::Field<std::uint32_t, 17>;
    using Protocol = wire::Field<std::uint8_t, 21>;
    using Kind = wire::Field<std::uint8_t, 22>;
    using SourceOperator = wire::Field<std::uint8_t, 23>;
    using DestinationOperator = wire::Field<std::uint8_t, 24>;
    using SourcePort = wire::Field<std::uint16_t, 25>;
    using SourcePortEnd = wire::Field<std::uint16_t, 27>;
    using DestinationPort = wire::Field<std::uint16_t, 29>;
    using DestinationPortEnd = wire::Field<std::uint16_t, 31>;
    static constexpr std::size_t size = 33;
};

struct Ipv6Record {
    using Next = wire::Field<std::uint32_t, 0>;
    using Action = wire::Field<std::uint8_t, 4>;
    static constexpr std::size_t source = 5, sourceMask = 21;  // 1 bits of a mask are compared
    static constexpr std::size_t destination = 37, destinationMask = 53;
    static constexpr std::size_t size = 69;
};

// Kinds, protocols and operators of entries.
inline constexpr std::uint8_t standardEntry = 1, udpProtocol = 17;
inline constexpr std::uint8_t portEqual = 1, portAtLeast = 2, portAtMost = 3, portDiffers = 4, portRange = 5,
                              portAny = 255;

struct AclChain {
    std::uint32_t head;       // of the first record
    std::uint32_t entries;    // in the chain
    std::uint32_t sequences;  // their sequence numbers, 32 bits each
};

// A compiled form; column k asks word order[k] of the query, so that the word comes first which fewest entries pass.
struct AclColumns {
    std::uint32_t begin;  // 0: the chain is short, walk it
    std::uint32_t blocks;
    std::uint8_t order[4];
};

struct AclImage {
    Image image;
    AclChain ip, ipv6;
    AclColumns ipColumns, udpColumns, ipv6Columns;
};

}  // namespace zel::policy
