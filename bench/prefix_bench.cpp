// Prefix lists made of routes of the Internet table, asked for other routes of it, against the walk over a linear list
// that ends at the first match.
#include <arpa/inet.h>

#include <algorithm>
#include <charconv>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "bench/support/row.h"
#include "tests/support/table.h"
#include "zel/aclmgr.h"
#include "zel/policy.h"

namespace {

using namespace zel::bench;

struct Route {
    uint32_t address, mask;
};

const std::vector<Route> &routes() {
    static const std::vector<Route> table = [] {
        std::vector<Route> rows;
        zel::test::eachRow("rib4_full_2015-10.txt.xz", [&](std::string_view row) {
            const std::string_view text = zel::test::column(row);
            const size_t slash = text.find('/');
            in_addr address{};
            unsigned length = 0;
            inet_pton(AF_INET, std::string(text.substr(0, slash)).c_str(), &address);
            std::from_chars(text.data() + slash + 1, text.data() + text.size(), length);
            rows.push_back({ntohl(address.s_addr), length ? ~0u << (32 - length) : 0});
        });
        std::shuffle(rows.begin(), rows.end(), std::mt19937(1));
        return rows;
    }();
    return table;
}

// Every third entry takes longer prefixes too; every fifth denies.
template <uint32_t count>
const std::vector<zelAclPrefixEntry> &entries() {
    static const std::vector<zelAclPrefixEntry> made = [] {
        std::vector<zelAclPrefixEntry> list;
        for (uint32_t i = 0; i < count; ++i) {
            const Route &route = routes()[i];
            zelAclPrefixEntry entry{};
            entry.sequence = static_cast<uint16_t>(i + 1);
            entry.action = i % 5 == 4;
            entry.le = i % 3 == 0 ? 32 : 0;
            const uint32_t address = htonl(route.address), mask = htonl(route.mask);
            memcpy(entry.address, &address, sizeof address);
            memcpy(entry.mask, &mask, sizeof mask);
            list.push_back(entry);
        }
        return list;
    }();
    return made;
}

constexpr size_t queries = 1 << 16;

template <class Check>
void eachRoute(benchmark::State &state, Check check) {
    const Route *asked = routes().data() + 100'000;
    size_t i = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(check(asked[i].address, asked[i].mask));
        i = (i + 1) % queries;
    }
}

template <uint32_t count>
void ours(benchmark::State &state) {
    static zelPrefixList *list = [] {
        zelAclMgr *manager = zelAclMgrOpen(ZEL_ACLMGR_PRIMARY);
        const std::string name = "list of " + std::to_string(count);
        if (!manager || zelAclMgrSetPrefixList(manager, name.c_str(), ZEL_POLICY_IPV4, entries<count>().data(), count))
            return static_cast<zelPrefixList *>(nullptr);
        zelAclMgrClose(manager);
        return ipPrefixListFind(name.c_str(), nullptr, ZEL_POLICY_IPV4);
    }();
    if (!list) return state.SkipWithError("no list");
    eachRoute(state, [](uint32_t address, uint32_t mask) { return prefixListCheckWithHandle(list, address, mask); });
}

// The list as a chain in the order of its sequence numbers; the records lie one behind the other.
struct Linear {
    const Linear *next;
    uint16_t sequence;
    uint8_t ge, le, action, length;
    uint32_t address, mask;
    mutable uint32_t hits;

    bool accepts(uint32_t asked) const {
        if (le == 0) return ge == 0 ? asked == length : ge <= asked;
        return (ge != 0 ? ge : length) <= asked && asked <= le;
    }
};

template <uint32_t count>
void linear(benchmark::State &state) {
    std::vector<Linear> list(count);
    for (uint32_t i = 0; i < count; ++i) {
        const zelAclPrefixEntry &entry = entries<count>()[i];
        const auto length = static_cast<uint8_t>(__builtin_popcount(routes()[i].mask));
        list[i] = {i + 1 < count ? &list[i + 1] : nullptr,
                   entry.sequence,
                   entry.ge,
                   entry.le,
                   entry.action,
                   length,
                   routes()[i].address,
                   routes()[i].mask,
                   0};
    }
    eachRoute(state, [&](uint32_t address, uint32_t mask) -> uint32_t {
        const auto length = static_cast<uint32_t>(__builtin_popcount(mask));
        for (const Linear *entry = list.data(); entry; entry = entry->next) {
            if ((address & entry->mask) != entry->address || !entry->accepts(length)) continue;
            ++entry->hits;
            return entry->action;
        }
        return 1;
    });
}

ZEL_ROW("prefix list of 10 entries", "ns", time).ours(ours<10>).peer("linear list", linear<10>);
ZEL_ROW("prefix list of 100 entries", "ns", time).ours(ours<100>).peer("linear list", linear<100>);
ZEL_ROW("prefix list of 1,000 entries", "ns", time).ours(ours<1'000>).peer("linear list", linear<1'000>, 0.05, 0.03);
ZEL_ROW("prefix list of 10,000 entries", "ns", time)
    .ours(ours<10'000>)
    .peer("linear list", linear<10'000>)
    .peer("one of 100", ours<100>, 2.0);

}  // namespace
