// The route record: how one route travels in batches, answers and table dumps.
//
// A record is the fixed part, the next hops and the TLV bytes; a batch puts an operation word in front. Per family only
// the size of an address differs, and with it everything behind. Both directions are written here once, over the same
// fields, so that what one side counts the other side counts.
#pragma once

#include <cstring>

#include "base/wire.h"
#include "zel/rtm.h"

namespace zel::rtm {

constexpr bool isFamily(int family) {
    return family >= ZEL_RTM_IPV4_UNICAST && family <= ZEL_RTM_IPV6_UNICAST;
}
constexpr std::size_t addressSize(int family) {
    return family == ZEL_RTM_IPV6_UNICAST ? 16 : 4;
}
constexpr std::uint32_t addressBits(int family) {
    return static_cast<std::uint32_t>(addressSize(family)) * 8;
}

// Offsets from the start of the record; prefix and mask stand at its front.
template <std::size_t Address>
struct Record {
    using Vrf = wire::Field<std::uint32_t, 2 * Address>;
    using NextHops = wire::Field<std::uint16_t, 2 * Address + 4>;
    using TlvLength = wire::Field<std::uint16_t, 2 * Address + 6>;
    using Protocol = wire::Field<std::uint8_t, 2 * Address + 8>;
    using Distance = wire::Field<std::uint8_t, 2 * Address + 9>;
    using Flags = wire::Field<std::uint16_t, 2 * Address + 10>;
    using Metric = wire::Field<std::uint32_t, 2 * Address + 12>;
    using Tag = wire::Field<std::uint32_t, 2 * Address + 16>;
    static constexpr std::size_t opaque = 2 * Address + 20;
    static constexpr std::size_t opaqueSize = 28;
    static constexpr std::size_t fixed = opaque + opaqueSize;

    using HopInterface = wire::Field<std::uint32_t, Address>;
    using HopVrf = wire::Field<std::uint32_t, Address + 4>;
    static constexpr std::size_t hopRest = Address + 8;
    static constexpr std::size_t hopRestSize = Address == 4 ? 8 : 4;
    static constexpr std::size_t hop = hopRest + hopRestSize;
};

using Record4 = Record<4>;
using Record6 = Record<16>;
static_assert(Record4::fixed == 56 && Record4::hop == 20);
static_assert(Record6::fixed == 80 && Record6::hop == 28);

using OperationWord = wire::Field<std::uint32_t, 0>;
constexpr std::size_t operationSize = 4;

constexpr std::size_t largestRecord(std::size_t fixed, std::size_t hop) {
    return operationSize + fixed + ZEL_RTM_MAX_NEXT_HOPS * hop + ZEL_RTM_MAX_TLV;
}

inline bool isValid(const zelRtmRoute &route) {
    return route.nNextHops <= ZEL_RTM_MAX_NEXT_HOPS && route.tlvLen <= ZEL_RTM_MAX_TLV &&
           (route.tlvLen == 0 || route.tlv != nullptr);
}

inline std::size_t recordSize(const zelRtmRoute &route, int family) {
    const bool isWide = family == ZEL_RTM_IPV6_UNICAST;
    return (isWide ? Record6::fixed : Record4::fixed) + route.nNextHops * (isWide ? Record6::hop : Record4::hop) +
           route.tlvLen;
}

enum class WithTlv { yes, no };

// Writes a valid route at `at`, which has recordSize() bytes; `vrf` goes into the fixed part and into every hop.
template <std::size_t Address>
inline std::uint8_t *writeRecord(const zelRtmRoute &route, std::uint32_t vrf, std::uint8_t *at,
                                 WithTlv withTlv = WithTlv::yes) {
    using Layout = Record<Address>;
    std::memcpy(at, route.prefix, Address);
    std::memcpy(at + Address, route.mask, Address);
    Layout::Vrf::set(at, vrf);
    Layout::NextHops::set(at, route.nNextHops);
    const std::uint16_t tlvLength = withTlv == WithTlv::yes ? route.tlvLen : std::uint16_t{0};
    Layout::TlvLength::set(at, tlvLength);
    Layout::Protocol::set(at, route.protocol);
    Layout::Distance::set(at, route.distance);
    Layout::Flags::set(at, route.flags);
    Layout::Metric::set(at, route.metric);
    Layout::Tag::set(at, route.tag);
    std::memcpy(at + Layout::opaque, route.opaque, Layout::opaqueSize);
    at += Layout::fixed;
    for (unsigned i = 0; i < route.nNextHops; ++i, at += Layout::hop) {
        const zelRtmNextHop &hop = route.hop[i];
        std::memcpy(at, hop.addr, Address);
        Layout::HopInterface::set(at, hop.ifIndex);
        Layout::HopVrf::set(at, vrf);
        std::memcpy(at + Layout::hopRest, hop.rest, Layout::hopRestSize);
    }
    if (tlvLength) std::memcpy(at, route.tlv, tlvLength);
    return at + tlvLength;
}

inline std::uint8_t *writeRecord(const zelRtmRoute &route, int family, std::uint32_t vrf, std::uint8_t *at,
                                 WithTlv withTlv = WithTlv::yes) {
    return family == ZEL_RTM_IPV6_UNICAST ? writeRecord<16>(route, vrf, at, withTlv)
                                          : writeRecord<4>(route, vrf, at, withTlv);
}

// Reads a record that lies within `length` bytes: its size, or 0 when it does not, or counts too much.
template <std::size_t Address>
inline std::size_t readRecord(const std::uint8_t *at, std::size_t length, zelRtmRoute &route) {
    using Layout = Record<Address>;
    if (length < Layout::fixed) return 0;
    route.nNextHops = Layout::NextHops::get(at);
    route.tlvLen = Layout::TlvLength::get(at);
    if (route.nNextHops > ZEL_RTM_MAX_NEXT_HOPS || route.tlvLen > ZEL_RTM_MAX_TLV) return 0;
    const std::size_t size = Layout::fixed + route.nNextHops * Layout::hop + route.tlvLen;
    if (length < size) return 0;
    std::memset(route.prefix, 0, 2 * sizeof route.prefix);
    std::memcpy(route.prefix, at, Address);
    std::memcpy(route.mask, at + Address, Address);
    route.vrfId = Layout::Vrf::get(at);
    route.protocol = Layout::Protocol::get(at);
    route.distance = Layout::Distance::get(at);
    route.flags = Layout::Flags::get(at);
    route.metric = Layout::Metric::get(at);
    route.tag = Layout::Tag::get(at);
    std::memcpy(route.opaque, at + Layout::opaque, Layout::opaqueSize);
    at += Layout::fixed;
    for (unsigned i = 0; i < route.nNextHops; ++i, at += Layout::hop) {
        zelRtmNextHop &hop = route.hop[i];
        std::memset(&hop, 0, sizeof hop);
        std::memcpy(hop.addr, at, Address);
        hop.ifIndex = Layout::HopInterface::get(at);
        hop.vrfId = Layout::HopVrf::get(at);
        std::memcpy(hop.rest, at + Layout::hopRest, Layout::hopRestSize);
    }
    route.tlv = route.tlvLen ? at : nullptr;
    return size;
}

inline std::size_t readRecord(const std::uint8_t *at, std::size_t length, int family, zelRtmRoute &route) {
    return family == ZEL_RTM_IPV6_UNICAST ? readRecord<16>(at, length, route) : readRecord<4>(at, length, route);
}

static_assert(offsetof(zelRtmRoute, mask) == offsetof(zelRtmRoute, prefix) + 16);

}  // namespace zel::rtm
