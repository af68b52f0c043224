// Access lists: verdicts against the oracle, for random lists and those of operators, with the instructions of every
// processor that runs here; the oddities by name; images that hold anything.
#include <gtest/gtest.h>

#include <algorithm>
#include <set>

#include "platform/column_search.h"
#include "tests/policy/acl_model.h"

namespace zel::test {
namespace {

using aclmgr::AclEntries;

// Calls `body` with each way to search in columns, from the plain one on.
template <class Body>
void withEverySearch(Body body) {
    for (size_t i = 0; platform::columnSearchesAt(i) != nullptr; ++i) {
        platform::columnSearches = platform::columnSearchesAt(i);
        SCOPED_TRACE(platform::columnSearches->name);
        body();
    }
}

using Verdicts = std::set<uint32_t>;

void expectSameVerdicts(const AclList &list, const AclEntries &entries, const Packet &p, Verdicts &seen) {
    const uint32_t ip = oracleIp(entries.ip, p), udp = oracleUdp(entries.ip, p);
    seen.insert(udp);
    withEverySearch([&] {
        EXPECT_EQ(list.ip(p), ip) << std::hex << p.source << ' ' << p.destination;
        EXPECT_EQ(list.udp(p), udp) << std::hex << p.source << ' ' << p.destination << std::dec << ' ' << p.sourcePort
                                    << ' ' << p.destinationPort;
    });
}

void expectSameVerdicts6(const AclList &list, const AclEntries &entries, const uint8_t *source, Verdicts &seen) {
    const uint32_t both = oracle6(entries.ipv6, source, false);
    seen.insert(both);
    EXPECT_EQ(policy::checkSource6(list.image(), source), oracle6(entries.ipv6, source, true));
    withEverySearch([&] { EXPECT_EQ(policy::check6(list.image(), source), both); });
}

TEST(AccessList, RandomListsMeanWhatTheirEntriesSay) {
    Random random = seeded();
    Verdicts seen, seen6;
    const uint32_t rounds = isFullRun() ? 10'000 : 1'000;
    for (uint32_t round = 0; round < rounds && !HasFailure(); ++round) {
        const uint32_t length = round % 50 == 49 ? 500 : round % 40;
        const AclEntries entries = someList(random, length, length);
        const AclList list(entries), chains(entries);
        EXPECT_TRUE(aclmgr::isWholeAclImage(list.image()) || length == 0);
        chains.dropColumns();
        for (int i = 0; i < 100; ++i) {
            const Packet packet = somePacket(random);
            expectSameVerdicts(list, entries, packet, seen);
            EXPECT_EQ(chains.udp(packet), list.udp(packet));
            EXPECT_EQ(chains.ip(packet), list.ip(packet));
            uint8_t source[16];
            someAddress6(random, source);
            expectSameVerdicts6(list, entries, source, seen6);
            EXPECT_EQ(policy::check6(chains.image(), source), policy::check6(list.image(), source));
        }
    }
    const Verdicts all = {0, 1, 7, 255};
    EXPECT_EQ(seen, all);
    EXPECT_EQ(seen6, all);
}

void expectSameTrace(const std::vector<zelAclIpEntry> &rules, const std::vector<Packet> &packets) {
    ASSERT_FALSE(rules.empty());
    const AclEntries entries = {rules, {}};
    const AclList list(entries);
    Verdicts seen;
    for (const Packet &packet : packets) expectSameVerdicts(list, entries, packet, seen);
    EXPECT_TRUE(aclmgr::isWholeAclImage(list.image()));
}

TEST(AccessList, OperatorsListsMeanWhatTheirEntriesSay) {
    Random random = seeded();
    const auto packetsFor = [&](const std::vector<zelAclIpEntry> &rules, size_t count) {
        std::vector<Packet> packets(count);
        std::generate(packets.begin(), packets.end(), [&] { return packetFor(rules, random); });
        return packets;
    };
    for (const std::string set : {"cs_acl", "cs_fw"}) {
        const auto packets = classBenchTrace("classbench_" + set + "_1k_trace.txt.xz");
        EXPECT_GT(packets.size(), 10'000u);
        expectSameTrace(classBenchRules("classbench_" + set + "_1k.txt.xz"), packets);
    }
    for (const std::string set : {"acl1", "fw1"}) {
        const auto rules = classBenchRules("classbench_" + set + "_10k.txt.xz");
        expectSameTrace(rules, packetsFor(rules, isFullRun() ? 20'000 : 1'000));
    }
    const auto campus = campusLists();
    EXPECT_EQ(campus.size(), 161u);
    for (const auto &[name, rules] : campus) expectSameTrace(rules, packetsFor(rules, 200));
    const auto devices = deviceLists6();
    EXPECT_EQ(devices.size(), 5u);
    Verdicts seen;
    for (const auto &[name, rules] : devices) {
        const AclEntries entries = {{}, rules};
        const AclList list(entries);
        for (size_t i = 0; i < 40 * rules.size(); ++i) {
            zelAclIpv6Entry from = rules[i % rules.size()];
            uint8_t *source = i % 3 == 0 ? from.destination : from.source;
            if (i % 2 == 0) source[random() % 16] ^= static_cast<uint8_t>(1u << random() % 8);
            expectSameVerdicts6(list, entries, source, seen);
        }
    }
}

// ---- Oddities -------------------------------------------------------------------------------------------------------

zelAclIpEntry udpEntry(uint32_t source, uint32_t wildcard, uint8_t sourceOperator, uint8_t destinationOperator) {
    zelAclIpEntry entry = {};
    entry.protocol = 17;
    entry.sourceOperator = sourceOperator;
    entry.destinationOperator = destinationOperator;
    entry.source = source;
    entry.sourceWildcard = wildcard;
    entry.destinationWildcard = 0;
    return entry;
}

// The verdicts of one entry alone, walked, and among others that match nothing, searched.
template <class Check>
uint32_t verdictOf(const zelAclIpEntry &entry, Check check) {
    zelAclIpEntry never = udpEntry(0x01020304, 0, 6, 255);
    AclEntries one = {{entry}, {}}, many = {{5, never}, {}};
    never.destination = 0x7f7f7f7f;
    for (auto &each : many.ip) each.source = each.destination = 0x7f7f7f7f;
    many.ip.push_back(entry);
    const uint32_t walked = check(AclList(one)), searched = check(AclList(many));
    EXPECT_EQ(walked, searched);
    return walked;
}

TEST(AccessList, ExtremeWildcardsOfUdpTurnAround) {
    const auto udp = [](uint32_t source) {
        return [source](const AclList &list) { return list.udp({source, 2, 3, 4}); };
    };
    EXPECT_EQ(verdictOf(udpEntry(9, 0xffffffff, 255, 255), udp(9)), 1u);
    EXPECT_EQ(verdictOf(udpEntry(9, 0xffffffff, 255, 255), udp(10)), 0u);
    EXPECT_EQ(verdictOf(udpEntry(9, 0, 255, 255), udp(10)), 0u) << "a host entry passes every host";
    EXPECT_EQ(verdictOf(udpEntry(0x100, 0xff, 255, 255), udp(0x1ff)), 0u);
    EXPECT_EQ(verdictOf(udpEntry(0x100, 0xff, 255, 255), udp(0x200)), 1u);
}

TEST(AccessList, PortOperatorsDifferAtTheTwoSides) {
    const auto udp = [](const AclList &list) { return list.udp({1, 2, 0, 0}); };
    for (int code = 0; code < 256; ++code) {
        const auto eachSide = static_cast<uint8_t>(code);
        const bool isPassed = code == 255 || code == 1 || code == 2 || code == 3 || code == 5;  // of port 0 against 0
        EXPECT_EQ(verdictOf(udpEntry(9, 0, eachSide, 255), udp), isPassed ? 0u : 1u) << code;
        EXPECT_EQ(verdictOf(udpEntry(9, 0, 255, eachSide), udp), isPassed || code == 0 ? 0u : 1u) << code;
    }
    zelAclIpEntry range = udpEntry(9, 0, 5, 255);
    range.sourcePort = 10, range.sourcePortEnd = 9;
    EXPECT_EQ(verdictOf(range, udp), 1u) << "a range that ends before it begins";
}

TEST(AccessList, StandardEntriesMatchOnTheSourceAndAreNothingToUdp) {
    zelAclIpEntry entry = udpEntry(9, 0xff, 255, 255);
    entry.destination = 77;
    entry.kind = 1;
    entry.action = 7;
    const auto ip = [](const AclList &list) { return list.ip({9, 1, 0, 0}); };
    const auto udp = [](const AclList &list) { return list.udp({9, 1, 0, 0}); };
    EXPECT_EQ(verdictOf(entry, ip), 7u) << "the action as it stands";
    EXPECT_EQ(verdictOf(entry, udp), 1u);
    entry.kind = 0;
    EXPECT_EQ(verdictOf(entry, ip), 1u);
    EXPECT_EQ(verdictOf(entry, udp), 7u);
    entry.protocol = 0;
    EXPECT_EQ(verdictOf(entry, udp), 1u) << "permit ip any any says nothing about UDP";
}

// ---- Images that hold anything --------------------------------------------------------------------------------------

TEST(AccessList, ChecksSurviveAnyImage) {
    Random random = seeded();
    const int rounds = isFullRun() ? 500'000 : 20'000;
    uint32_t stillWhole = 0;
    for (int round = 0; round < rounds; ++round) {
        const uint32_t length = random() % 40;
        const AclList list(someList(random, length, length));
        auto *bytes = reinterpret_cast<uint8_t *>(list.header());
        for (uint32_t i = 0; i <= random() % 8; ++i) {
            const size_t all = list.image().bytes;
            const size_t range = random() % 2 == 0 ? std::min(sizeof(policy::AclImage), all) : all;
            bytes[random() % range] = oneOf<uint8_t>(random, {0, 1, 0x7f, 0x80, 0xff, static_cast<uint8_t>(random())});
        }
        uint8_t source[16];
        someAddress6(random, source);
        const Packet packet = somePacket(random);
        withEverySearch([&] {
            list.ip(packet);
            list.udp(packet);
            policy::check6(list.image(), source);
            policy::checkSource6(list.image(), source);
        });
        stillWhole += aclmgr::isWholeAclImage(list.image());
    }
    EXPECT_LT(stillWhole, static_cast<uint32_t>(rounds) / 2) << "an audit sees what was changed";
}

TEST(AccessList, AChainThatIsALoopEnds) {
    const AclList list(AclEntries{{3, udpEntry(9, 0, 6, 0)}, {}});
    const uint32_t head = list.acl()->ip.head;
    policy::IpRecord::Next::set(reinterpret_cast<uint8_t *>(list.acl()) + head, head);
    EXPECT_EQ(list.udp({1, 2, 3, 4}), 1u);
    EXPECT_FALSE(aclmgr::isWholeAclImage(list.image()));
}

}  // namespace
}  // namespace zel::test
