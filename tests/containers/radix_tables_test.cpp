// The radix tree with the tables of the Internet, against an oracle that knows nothing of trees: a hash table per
// prefix length, asked from the longest to the shortest.
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <charconv>
#include <cstring>
#include <unordered_map>

#include "tests/containers/radix_records.h"
#include "tests/support/failing_allocator.h"
#include "tests/support/random.h"
#include "tests/support/table.h"

namespace zel::test {
namespace {

struct Route {
    zelRadixEntry entry;
    uint8_t key[16];
    uint32_t bits;
    bool isInside;
};

struct Family {
    const char *file;
    int number;
    uint32_t bits;
    long rows;
    size_t prefixes;  // some rows repeat one
};

class Table : public testing::TestWithParam<Family> {
protected:
    ~Table() override {
        zelRadixDestroy(tree);
        EXPECT_EQ(FailingAllocator::live(), 0);
    }

    static std::string masked(const uint8_t *key, uint32_t bits) {
        std::string bytes(reinterpret_cast<const char *>(key), (bits + 7) / 8);
        if (bits % 8) bytes.back() = static_cast<char>(key[bits / 8] & (0xff00 >> bits % 8));
        return bytes;
    }

    void load() {
        const long rows = eachRow(GetParam().file, [this](std::string_view row) {
            const std::string_view prefix = column(row);
            const size_t slash = prefix.find('/');
            auto route = std::make_unique<Route>();
            inet_pton(GetParam().number, std::string(prefix.substr(0, slash)).c_str(), route->key);
            std::from_chars(prefix.data() + slash + 1, prefix.data() + prefix.size(), route->bits);
            route->entry.rth_addr = route->key;
            add(std::move(route));
        });
        EXPECT_EQ(routes.size(), GetParam().prefixes);
        EXPECT_EQ(rows, GetParam().rows);
        EXPECT_EQ(tree->rtt_inserts, rows);
    }

    void add(std::unique_ptr<Route> route) {
        Route *&known = oracle[route->bits][masked(route->key, route->bits)];
        zelRadixEntry *stands = zelRadixInsert(tree, &route->entry, route->bits);
        ASSERT_EQ(stands, known ? &known->entry : &route->entry);
        if (known) return;
        known = route.get();
        route->isInside = true;
        routes.push_back(std::move(route));
    }

    void remove(Route &route) {
        if (!route.isInside) return;
        zelRadixRemove(tree, &route.entry);
        oracle[route.bits].erase(masked(route.key, route.bits));
        route.isInside = false;
    }

    zelRadixEntry *best(const uint8_t *key, uint32_t upTo) const {
        for (uint32_t bits = upTo + 1; bits-- > 0;) {
            if (oracle[bits].empty()) continue;
            const auto at = oracle[bits].find(masked(key, bits));
            if (at != oracle[bits].end()) return &at->second->entry;
        }
        return nullptr;
    }

    void check() {
        SCOPED_TRACE(tree->rtt_index ? "with an index" : "without an index");
        const size_t step = isFullRun() ? 1 : routes.size() / 20000 + 1;
        for (size_t i = random() % step; i < routes.size(); i += step) {
            Route &route = *routes[i];
            ASSERT_EQ(zelRadixGetExact(tree, route.key, route.bits), route.isInside ? &route.entry : nullptr);
            uint8_t inside[16], anywhere[16];
            for (uint32_t byte = 0; byte < 16; ++byte) {
                anywhere[byte] = static_cast<uint8_t>(random());
                const int kept = std::clamp(static_cast<int>(route.bits) - static_cast<int>(8 * byte), 0, 8);
                inside[byte] = static_cast<uint8_t>(route.key[byte] | (anywhere[byte] & (0xff >> kept)));
            }
            const uint32_t bits = GetParam().bits;
            ASSERT_EQ(zelRadixGetBest(tree, inside, bits), best(inside, bits));
            ASSERT_EQ(zelRadixGetBest(tree, anywhere, bits), best(anywhere, bits));
            ASSERT_EQ(zelRadixGetBest(tree, inside, route.bits), best(inside, route.bits));
            zelRadixEntry *shorter = route.bits ? best(route.key, route.bits - 1) : nullptr;
            if (route.isInside) {
                ASSERT_EQ(zelRadixGetParent(tree, &route.entry), shorter);
            }
        }
    }

    void checkOrder() {
        std::vector<Route *> inside;
        for (const auto &route : routes)
            if (route->isInside) inside.push_back(route.get());
        std::sort(inside.begin(), inside.end(), [](const Route *a, const Route *b) {
            const int order = memcmp(a->key, b->key, sizeof a->key);
            return order ? order < 0 : a->bits < b->bits;
        });
        const auto seen = walked(tree);
        ASSERT_EQ(seen.size(), inside.size());
        for (size_t i = 0; i < seen.size(); ++i) ASSERT_EQ(seen[i], &inside[i]->entry);
    }

    Random random = seeded();
    zelRadix *tree = zelRadixCreate("table", static_cast<uint16_t>(GetParam().bits), nullptr, nullptr, nullptr);
    std::vector<std::unique_ptr<Route>> routes;
    std::unordered_map<std::string, Route *> oracle[129];
};

TEST_P(Table, agreesWithTheOracleWholeAndHalfAndOnItsWayOut) {
    load();
    EXPECT_EQ(tree->rtt_index_bits, 16);  // it is large enough to have one of its own
    for (const uint32_t indexBits : {16, 24, 0}) {
        ASSERT_EQ(zelRadixSetIndex(tree, indexBits), 0);
        check();
    }
    checkOrder();
    zelRadixSetIndex(tree, 24);
    for (auto &route : routes)
        if (random() % 2) remove(*route);
    check();
    checkOrder();
    zelRadixSetIndex(tree, 16);
    for (auto &route : routes) remove(*route);
    EXPECT_EQ(tree->rtt_nodes, 0u);
    for (uint32_t slot = 0; slot < 65536; ++slot) ASSERT_EQ(tree->rtt_index[slot], 0u);
}

INSTANTIATE_TEST_SUITE_P(Internet, Table,
                         testing::Values(Family{"rib4_full_2015-10.txt.xz", AF_INET, 32, 577737, 577706},
                                         Family{"rib6_full_2015-11_origin.txt.xz", AF_INET6, 128, 27693, 27693}));

}  // namespace
}  // namespace zel::test
