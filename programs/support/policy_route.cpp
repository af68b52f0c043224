#include "policy_route.h"

#include <arpa/inet.h>

#include <cstring>

namespace zel::programs {
namespace {

constexpr unsigned pathType = 1, communitiesType = 2;
constexpr std::size_t headSize = 4, wordSize = 4;

std::uint32_t wordAt(const std::uint8_t *bytes) {
    std::uint32_t word;
    memcpy(&word, bytes, sizeof word);
    return ntohl(word);
}

}  // namespace

void PolicyRoute::take(const TableFile &table, const Row &row) {
    route_ = {};
    communities_.clear();
    route_.family = route_.nextHopFamily = row.family == ZEL_RTM_IPV6_UNICAST ? ZEL_POLICY_IPV6 : ZEL_POLICY_IPV4;
    memcpy(route_.address, row.prefix, sizeof route_.address);
    memcpy(route_.nextHop, row.nextHop, sizeof route_.nextHop);
    route_.length = row.bits;
    const std::uint8_t *at = table.store.data() + row.attributes, *end = at + row.attributesLength;
    while (static_cast<std::size_t>(end - at) >= headSize) {
        const std::size_t type = std::size_t{at[0]} << 8 | at[1], length = std::size_t{at[2]} << 8 | at[3];
        const std::uint8_t *value = at + headSize;
        if (type == pathType) {
            route_.path = value;
            route_.pathLength = static_cast<int>(length);
        }
        for (std::size_t i = 0; type == communitiesType && i + wordSize <= length; i += wordSize)
            communities_.push_back(wordAt(value + i));
        at = value + length;
    }
    route_.communities = communities_.data();
    route_.communityCount = static_cast<int>(communities_.size());
}

std::uint32_t PolicyRoute::word() const {
    return wordAt(route_.address);
}

}  // namespace zel::programs
