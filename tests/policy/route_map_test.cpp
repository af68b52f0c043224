// Route maps: verdicts and permitted sequences against a plain reading of the entries; what each clause asks of a list;
// images that hold anything.
#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <set>
#include <string>

#include "base/wire.h"
#include "policy/tables.h"
#include "tests/policy/manager.h"
#include "tests/support/random.h"
#include "zel/policy.h"

namespace zel::policy {
namespace {

using Names = std::vector<const char *>;
struct Clause {
    zelAclMatch match;
    Names names;
};
struct Sequence {
    uint32_t number;
    uint8_t action;
    std::vector<Clause> clauses;
};

zelPolicyRoute routeOf(uint32_t address, uint8_t length, uint32_t nextHop = 0) {
    zelPolicyRoute route{};
    route.family = route.nextHopFamily = ZEL_POLICY_IPV4;
    route.length = length;
    wire::store(route.address, address);
    wire::store(route.nextHop, nextHop);
    route.pathText = "";
    return route;
}

class RouteMap : public test::ManagerTest {
protected:
    uint32_t set(const std::vector<Sequence> &sequences, const char *name = "map") {
        std::vector<std::vector<zelAclClause>> clauses;
        std::vector<zelAclMapEntry> entries;
        for (const Sequence &sequence : sequences) {
            auto &made = clauses.emplace_back();
            for (const Clause &clause : sequence.clauses)
                made.push_back({clause.match, static_cast<uint32_t>(clause.names.size()), clause.names.data()});
            entries.push_back(
                {sequence.number, sequence.action, static_cast<uint32_t>(made.size()), clauses.back().data()});
        }
        return zelAclMgrSetMapList(manager, name, entries.data(), static_cast<uint32_t>(entries.size()));
    }
    uint32_t check(const zelPolicyRoute &route) {
        return ipRoutemapCheckWithHandleV4_V6(ipRouteMapFind("map"), &route, nullptr);
    }
    bool matches(zelAclMatch match, const char *list, const zelPolicyRoute &route) {
        EXPECT_EQ(set({{10, 0, {{match, {list}}}}}), 0u);
        return check(route) == 0;
    }

    void setPrefixes(const char *name, uint32_t address, uint8_t bits, uint8_t le = 0, uint8_t ge = 0) {
        zelAclPrefixEntry entry{};
        entry.sequence = 5;
        entry.ge = ge;
        entry.le = le;
        wire::store(entry.address, address);
        wire::store(entry.mask, bits == 0 ? 0 : UINT32_MAX << (32 - bits));
        ASSERT_EQ(zelAclMgrSetPrefixList(manager, name, ZEL_POLICY_IPV4, &entry, 1), 0u);
    }
    void setAccess(const char *name, uint32_t source, uint32_t sourceWildcard, uint32_t destination = 0,
                   uint32_t destinationWildcard = UINT32_MAX) {
        zelAclIpEntry entry{};
        entry.sequence = 5;
        entry.source = source;
        entry.sourceWildcard = sourceWildcard;
        entry.destination = destination;
        entry.destinationWildcard = destinationWildcard;
        ASSERT_EQ(zelAclMgrSetIpList(manager, name, &entry, 1), 0u);
    }
    void setPath(const char *name, const char *pattern) {
        const zelAclAspEntry entry{5, 0, pattern};
        ASSERT_EQ(zelAclMgrSetAspList(manager, name, &entry, 1), 0u);
    }
    void setCommunity(const char *name, uint32_t value) {
        const zelAclCommEntry entry{5, 0, 1, 0, 0, 0, 1, &value, nullptr};
        ASSERT_EQ(zelAclMgrSetCommList(manager, name, &entry, 1), 0u);
    }
};

TEST_F(RouteMap, WithoutAMapOrSequencesEverythingPasses) {
    const zelPolicyRoute route = routeOf(0x0a000000, 8);
    EXPECT_EQ(ipRoutemapCheckWithHandleV4_V6(nullptr, &route, nullptr), 0u);
    ASSERT_EQ(set({}), 0u);
    EXPECT_EQ(check(route), 0u);
    ASSERT_EQ(set({{10, 7, {}}}), 0u);
    EXPECT_EQ(check(route), 7u) << "without clauses it matches, and its action is told as it stands";
    EXPECT_EQ(ipRoutemapCheckWithHandleV4_V6(ipRouteMapFind("map"), nullptr, nullptr), 1u);
}

TEST_F(RouteMap, WhatClausesAsk) {
    zelPolicyRoute route = routeOf(0x0a010000, 16, 0xc0000201);
    setAccess("network and mask", 0x0a010000, 0, 0xffff0000, 0);
    setAccess("host", 0xc0000201, 0, UINT32_MAX, 0);
    EXPECT_TRUE(matches(ZEL_ACLMGR_MATCH_ADDRESS, "network and mask", route));
    EXPECT_FALSE(matches(ZEL_ACLMGR_MATCH_ADDRESS, "host", route));
    EXPECT_TRUE(matches(ZEL_ACLMGR_MATCH_NEXT_HOP, "host", route));
    EXPECT_FALSE(matches(ZEL_ACLMGR_MATCH_NEXT_HOP, "network and mask", route));
    setAccess("any", 0, UINT32_MAX);
    EXPECT_TRUE(matches(ZEL_ACLMGR_MATCH_ADDRESS, "any", route));
    route.length = 33;
    EXPECT_FALSE(matches(ZEL_ACLMGR_MATCH_ADDRESS, "any", route));
    route.nextHopFamily = 0;
    EXPECT_FALSE(matches(ZEL_ACLMGR_MATCH_NEXT_HOP, "host", route));

    setPath("through 100", "_100_");
    route.pathText = "7";
    const uint8_t path[] = {2, 1, 0, 0, 0, 100};  // goes before the text
    route.path = path;
    route.pathLength = sizeof path;
    EXPECT_TRUE(matches(ZEL_ACLMGR_MATCH_ASPATH, "through 100", route));

    for (const zelAclMatch match : {ZEL_ACLMGR_MATCH_PREFIX, ZEL_ACLMGR_MATCH_ASPATH})
        EXPECT_TRUE(matches(match, "none", route));
    EXPECT_FALSE(matches(ZEL_ACLMGR_MATCH_COMMUNITY, "none", route));

    // IPv6: the source alone counts.
    zelAclIpv6Entry entry{};
    entry.sequence = 5;
    entry.source[0] = entry.sourceMask[0] = entry.destination[0] = entry.destinationMask[0] = 0xff;
    entry.source[0] = 0x20;
    ASSERT_EQ(zelAclMgrSetIpv6List(manager, "six", &entry, 1), 0u);
    route.family = ZEL_POLICY_IPV6;
    route.address[0] = 0x20;
    EXPECT_TRUE(matches(ZEL_ACLMGR_MATCH_ADDRESS, "six", route));
    route.address[0] = 0x21;
    EXPECT_FALSE(matches(ZEL_ACLMGR_MATCH_ADDRESS, "six", route));
    route.family = 3;
    EXPECT_FALSE(matches(ZEL_ACLMGR_MATCH_ADDRESS, "six", route));
    EXPECT_FALSE(matches(ZEL_ACLMGR_MATCH_PREFIX, "none", route));
}

TEST_F(RouteMap, EntriesComeBackAndRefusalsChangeNothing) {
    const std::string longest(140, 'n'), longer(141, 'n');
    const Clause prefix{ZEL_ACLMGR_MATCH_PREFIX, {"a", longest.c_str()}}, access{ZEL_ACLMGR_MATCH_ADDRESS, {"b"}};
    ASSERT_EQ(set({{20, 1, {prefix, {ZEL_ACLMGR_MATCH_NEXT_HOP, {"c"}}}}, {10, 0, {}}}), 0u);
    const char *const name = "d";
    const zelAclClause path{ZEL_ACLMGR_MATCH_ASPATH, 1, &name};
    const zelAclMapEntry more{0, 7, 1, &path};
    ASSERT_EQ(zelAclMgrAddMapEntry(manager, "map", &more), 0u);
    EXPECT_EQ(set({{5, 0, {prefix, access}}}), 0x3900002bu);
    EXPECT_EQ(set({{5, 0, {prefix}}, {5, 0, {}}}), 0x39000009u);
    EXPECT_EQ(set({{5, 0, {{ZEL_ACLMGR_MATCH_PREFIX, {}}}}}), 0x3900002fu);
    EXPECT_EQ(set({{5, 0, {{ZEL_ACLMGR_MATCH_PREFIX, {longer.c_str()}}}}}), 0x3900002fu);
    EXPECT_EQ(set({{5, 0, {{static_cast<zelAclMatch>(7), {"a"}}}}}), 0x3900002fu);
    EXPECT_EQ(set({}, longer.c_str()), 0x39000069u);
    zelAclMapEntry entries[4];
    ASSERT_EQ(zelAclMgrGetMapEntries(manager, "map", entries, 4), 3);
    EXPECT_EQ(entries[0].sequence * 1000 + entries[1].sequence, 10020u);
    EXPECT_EQ(entries[2].sequence * 10 + entries[2].action, 257u);
    ASSERT_EQ(entries[1].count, 2u);
    EXPECT_EQ(entries[1].clauses[0].names[1], longest);
    EXPECT_EQ(entries[1].clauses[1].match, ZEL_ACLMGR_MATCH_NEXT_HOP);
    EXPECT_STREQ(entries[2].clauses[0].names[0], "d");
    EXPECT_EQ(zelAclMgrGetMapEntries(manager, "none", entries, 4), -1);
    EXPECT_EQ(zelAclMgrRemoveEntry(manager, ZEL_ACLMGR_ROUTE_MAP, "map", 20), 0u);
    EXPECT_EQ(zelAclMgrGetMapEntries(manager, "map", nullptr, 0), 2);
}

TEST(RouteMapSequences, AscendWithoutRepeats) {
    uint32_t numbers[4];
    zelRmapPermittedSeqList list{numbers, 4, 0};
    EXPECT_FALSE(rmapEntSeqLessThanLastPermittedSeq(&list, 0));
    for (const uint32_t number : {30u, 10u, 20u, 10u, 30u, 40u})
        EXPECT_EQ(rmapAddEntSeqToPermittedSeqList(&list, number), 0);
    EXPECT_EQ(rmapAddEntSeqToPermittedSeqList(&list, 20), 0);
    EXPECT_EQ(rmapAddEntSeqToPermittedSeqList(&list, 15), -1);
    EXPECT_EQ(std::vector(numbers, numbers + list.count), (std::vector<uint32_t>{10, 20, 30, 40}));
    EXPECT_TRUE(rmapEntSeqInPermittedSeqList(&list, 20) && !rmapEntSeqInPermittedSeqList(&list, 25));
    EXPECT_TRUE(rmapEntSeqLessThanLastPermittedSeq(&list, 39) && !rmapEntSeqLessThanLastPermittedSeq(&list, 40));
    EXPECT_EQ(rmapAddEntSeqToPermittedSeqList(nullptr, 1), -1);
}

// ---- Random maps, whole and damaged ---------------------------------------------------------------------------------

// The prefix list of a number permits whatever has at least that many bits, the path list whatever has that number in
// it, and the community list likewise.
class RandomRouteMap : public RouteMap {
protected:
    static constexpr const char *names[] = {"0", "8", "16", "24", "32"};
    static constexpr zelAclMatch matches[] = {ZEL_ACLMGR_MATCH_PREFIX, ZEL_ACLMGR_MATCH_ASPATH,
                                              ZEL_ACLMGR_MATCH_COMMUNITY, ZEL_ACLMGR_MATCH_COMMUNITY_EXACT};
    struct Route : zelPolicyRoute {
        std::string path;
        std::vector<uint32_t> values;
        const zelPolicyRoute *get() {
            pathText = path.c_str();
            communities = values.data();
            communityCount = static_cast<int>(values.size());
            return this;
        }
    };
    test::Random random = test::seeded();

    RandomRouteMap() {
        for (const char *name : names) {
            setPrefixes(name, 0, 0, 32, static_cast<uint8_t>(atoi(name)));
            setPath(name, ("_" + std::string(name) + "_").c_str());
            setCommunity(name, static_cast<uint32_t>(atoi(name)));
        }
    }
    std::vector<Sequence> randomMap() {
        std::vector<Sequence> map(1 + random() % 6);
        uint32_t number = 0;
        for (Sequence &sequence : map) {
            sequence.number = number += 1 + random() % 10;
            sequence.action = random() % 2;
            for (uint32_t clauses = random() % 4; clauses > 0; --clauses) {
                Clause &clause = sequence.clauses.emplace_back(Clause{matches[random() % 4], {}});
                for (uint32_t count = 1 + random() % 3; count > 0; --count)
                    clause.names.push_back(names[1 + random() % 4]);
            }
        }
        return map;
    }
    Route randomRoute() {
        Route route{routeOf(random(), static_cast<uint8_t>(random() % 33)), "7", {}};
        for (const char *name : names) {
            if (random() % 2) route.path += std::string(" ") + name;
            if (random() % 3 == 0) route.values.push_back(static_cast<uint32_t>(atoi(name)));
        }
        return route;
    }

    static bool permits(zelAclMatch match, const char *name, const Route &route) {
        const int number = atoi(name);
        if (match == ZEL_ACLMGR_MATCH_PREFIX) return route.length >= number;
        if (match == ZEL_ACLMGR_MATCH_ASPATH)
            return (route.path + ' ').find(" " + std::string(name) + " ") != std::string::npos;
        const std::set<uint32_t> values(route.values.begin(), route.values.end());
        return values.contains(static_cast<uint32_t>(number)) &&
               (match == ZEL_ACLMGR_MATCH_COMMUNITY || values.size() == 1);
    }
    static const Sequence *oracle(const std::vector<Sequence> &map, const Route &route) {
        for (const Sequence &sequence : map) {
            bool all = true;
            for (const Clause &clause : sequence.clauses) {
                bool any = false;
                for (const char *name : clause.names) any |= permits(clause.match, name, route);
                all &= any;
            }
            if (all) return &sequence;
        }
        return nullptr;
    }
};

TEST_F(RandomRouteMap, DecideAsTheirEntriesSay) {
    for (int round = 0; round < (test::isFullRun() ? 5'000 : 500); ++round) {
        const std::vector<Sequence> map = randomMap();
        ASSERT_EQ(set(map), 0u);
        uint32_t numbers[6];
        zelRmapPermittedSeqList permitted{numbers, 6, 0};
        std::set<uint32_t> expected;
        for (int i = 0; i < 200; ++i) {
            Route route = randomRoute();
            const Sequence *decides = oracle(map, route);
            if (decides && decides->action == 0) expected.insert(decides->number);
            ASSERT_EQ(ipRoutemapCheckWithHandleV4_V6(ipRouteMapFind("map"), route.get(), &permitted),
                      decides ? decides->action : 1u);
            ASSERT_EQ(ipRoutemapSequence(ipRouteMapFind("map"), route.get()), decides ? decides->number : 0u);
        }
        ASSERT_EQ(std::set<uint32_t>(numbers, numbers + permitted.count), expected);
        ASSERT_EQ(permitted.count, expected.size());
    }
}

// Sequences that share their clauses, all of which match but the last, are not walked once each.
TEST_F(RandomRouteMap, AWalkIsNoLongerThanTheImage) {
    const Clause clause{ZEL_ACLMGR_MATCH_PREFIX, {"0"}}, fails{ZEL_ACLMGR_MATCH_COMMUNITY, {"none"}};
    std::vector<Sequence> map{{1, 0, std::vector<Clause>(1000, clause)}};
    map[0].clauses.push_back(fails);
    for (uint32_t number = 2; number <= 1000; ++number) map.push_back({number, 0, {}});
    ASSERT_EQ(set(map), 0u);
    const Bytes image = imageOf(ipRouteMapFind("map"), Kind::routeMap);
    auto *entries = const_cast<zelAclMapEntry *>(inside<zelAclMapEntry>(image, sizeof(Image), map.size()));
    for (size_t i = 1; i < map.size(); ++i)
        entries[i].count = entries[0].count, entries[i].clauses = entries[0].clauses;
    EXPECT_EQ(check(routeOf(0, 0)), 1u);
    zelAclPrefixEntry asked;
    zelAclMapEntry entry;
    ASSERT_EQ(zelAclMgrGetPrefixEntries(manager, "0", ZEL_POLICY_IPV4, &asked, 1), 1);
    EXPECT_LE(asked.hits, image.bytes / sizeof(char *));
    ASSERT_EQ(set({{1, 0, {fails}}}), 0u);
    EXPECT_EQ(zelAclMgrGetMapEntries(manager, "map", &entry, 1), 1);
    memset(const_cast<char *>(entry.clauses[0].names[0]), 'x', 141);
    EXPECT_EQ(zelAclMgrGetMapEntries(manager, "map", &entry, 1), 0) << "a name without an end";
    ASSERT_EQ(set({}), 0u);
}

TEST_F(RandomRouteMap, ChecksOfDamagedImagesEnd) {
    for (int round = 0; round < 100; ++round) {
        ASSERT_EQ(set(randomMap()), 0u);
        const Bytes image = imageOf(ipRouteMapFind("map"), Kind::routeMap);
        const std::vector<uint8_t> whole(image.begin, image.begin + image.bytes);
        auto *bytes = const_cast<uint8_t *>(image.begin);
        for (int variant = 0; variant < 50; ++variant) {
            for (uint32_t damage = 0; damage <= random() % 6; ++damage)
                bytes[12 + random() % (image.bytes - 12)] ^=
                    static_cast<uint8_t>(random() % 3 ? 1u << random() % 8 : random());
            for (int i = 0; i < 4; ++i) check(*randomRoute().get());
            zelAclMapEntry entries[8];
            zelAclMgrGetMapEntries(manager, "map", entries, 8);
            memcpy(bytes, whole.data(), whole.size());
        }
    }
}

}  // namespace
}  // namespace zel::policy
