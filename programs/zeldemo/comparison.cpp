#include "comparison.h"

#include <algorithm>
#include <cstring>
#include <memory>

namespace zeldemo {
namespace {

using zel::programs::Row;

int order(const Row &a, const Row &b) {
    if (a.family != b.family) return a.family < b.family ? -1 : 1;
    if (const int prefixes = std::memcmp(a.prefix, b.prefix, sizeof a.prefix)) return prefixes;
    return a.bits - b.bits;
}

}  // namespace

Expected::Expected(const zel::programs::TableFile &table) : table_(table) {
    for (const Row &row : table.rows) rows_.push_back(&row);
    std::stable_sort(rows_.begin(), rows_.end(), [](const Row *a, const Row *b) { return order(*a, *b) < 0; });
    // Of equal prefixes the last one in the file counts.
    const auto last =
        std::unique(rows_.rbegin(), rows_.rend(), [](const Row *a, const Row *b) { return order(*a, *b) == 0; });
    rows_.erase(rows_.begin(), last.base());
}

bool Expected::hasFamily(int family) const {
    return std::any_of(rows_.begin(), rows_.end(), [family](const Row *row) { return row->family == family; });
}

bool Expected::isSame(const Row &row, const zelRtmRoute &route) const {
    zelRtmRoute expected;
    routeOfRow(table_, row, expected);
    return std::memcmp(expected.prefix, route.prefix, sizeof route.prefix) == 0 &&
           std::memcmp(expected.mask, route.mask, sizeof route.mask) == 0 && route.nNextHops == 1 &&
           std::memcmp(expected.hop[0].addr, route.hop[0].addr, sizeof route.hop[0].addr) == 0 &&
           expected.tlvLen == route.tlvLen &&
           (route.tlvLen == 0 || std::memcmp(expected.tlv, route.tlv, route.tlvLen) == 0);
}

long Expected::compareFamily(const zelIpcAddr &ipc, int family, std::size_t sources, std::uint64_t &routes) const {
    const auto isThere = [family](const Row *row) { return row->family == family; };
    auto expected = std::find_if(rows_.begin(), rows_.end(), isThere);
    const auto dump = std::make_unique<zelRtmDump>();
    zelRtmDumpBegin(dump.get(), family, 0);
    std::uint32_t handle;
    zelRtmRoute route;
    std::size_t seen = 0;  // routes of the present prefix
    long differences = 0;
    int more;
    while ((more = zelRtmDumpNext(dump.get(), &ipc, &handle, &route)) == 1) {
        ++routes;
        if (expected == rows_.end() || !isThere(*expected) || !isSame(**expected, route)) {
            ++differences;
            continue;
        }
        if (++seen < sources) continue;
        seen = 0;
        ++expected;
    }
    if (more < 0) return -1;
    return differences + std::count_if(expected, rows_.end(), isThere);
}

long Expected::compare(const zelIpcAddr &ipc, std::size_t sources, std::uint64_t &routes) const {
    routes = 0;
    long differences = 0;
    for (int family : {ZEL_RTM_IPV4_UNICAST, ZEL_RTM_IPV6_UNICAST}) {
        const long found = compareFamily(ipc, family, sources, routes);
        if (found < 0) return -1;
        differences += found;
    }
    return differences;
}

}  // namespace zeldemo
