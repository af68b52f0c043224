// Address helpers per family, and the index of a redirection target.
#include <arpa/inet.h>

#include <algorithm>
#include <bit>
#include <cstdio>
#include <cstring>

#include "base/assertion.h"
#include "rtm/route_record.h"
#include "rtm/rtm_message.h"

namespace zel::rtm {
namespace {

bool isEveryByte(int family, const void *address, std::uint8_t value) {
    const auto *bytes = static_cast<const std::uint8_t *>(address);
    return std::all_of(bytes, bytes + addressSize(family), [value](std::uint8_t byte) { return byte == value; });
}

}  // namespace
}  // namespace zel::rtm

using namespace zel::rtm;

const char *rtm_inet_ntop4(const void *address, char *text, size_t size) {
    const auto *bytes = static_cast<const uint8_t *>(address);
    snprintf(text, size, "%u.%u.%u.%u", bytes[0], bytes[1], bytes[2], bytes[3]);
    return text;
}

const char *rtm_inet_ntop(int family, const void *address, char *text, size_t size) {
    if (family != ZEL_RTM_IPV6_UNICAST) return rtm_inet_ntop4(address, text, size);
    char full[INET6_ADDRSTRLEN];
    inet_ntop(AF_INET6, address, full, sizeof full);
    snprintf(text, size, "%s", full);
    return text;
}

int rtm_mask2plen(int family, const void *mask) {
    const auto *bytes = static_cast<const uint8_t *>(mask);
    int bits = 0;
    for (size_t i = 0; i < addressSize(family); ++i) {
        bits += std::countl_one(bytes[i]);
        if (bytes[i] != 0xff) break;
    }
    return bits;
}

int rtmAF_IsAddrZero(int family, const void *address) {
    return isEveryByte(family, address, 0);
}

int rtmAF_IsAddrNonZero(int family, const void *address) {
    return !isEveryByte(family, address, 0);
}

int rtmAF_IsAddrAllOnes(int family, const void *address) {
    return isEveryByte(family, address, 0xff);
}

int rtmAF_IsDefaultRoute(int family, const void *prefix, const void *mask) {
    return rtmAF_IsAddrZero(family, prefix) && rtmAF_IsAddrZero(family, mask);
}

int rtmIpRedirGetArrayIndex(int kind, uint32_t number) {
    constexpr int firstLag = RTM_MAX_VLANS + 1;
    constexpr int firstSlot = firstLag + RTM_MAX_LAGS + 1;
    const auto index = static_cast<int>(number);
    switch (kind) {
        case ZEL_RTM_REDIR_VLAN:
            return zel::asserted(number <= RTM_MAX_VLANS, "vlanId <= RTM_MAX_VLANS", sourceName) ? index : -1;
        case ZEL_RTM_REDIR_LAG:
            return zel::asserted(number <= RTM_MAX_LAGS, "lagId <= RTM_MAX_LAGS", sourceName) ? firstLag + index : -1;
        case ZEL_RTM_REDIR_SLOT:
            return zel::asserted(number < RTM_MAX_LINECARDS, "slot < RTM_MAX_LINECARDS", sourceName) ? firstSlot + index
                                                                                                     : -1;
        default:
            return -1;
    }
}
