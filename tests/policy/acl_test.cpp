// Access lists: verdicts against the oracle, for random lists and those of operators, with the instructions of every
// processor that runs here; images that hold anything.
#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <utility>

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
    const uint32_t ip = oracleIp(entries.ip, p);
    EXPECT_EQ(policy::entryIp(list.image(), p.source, p.destination), decidedBy);
    const uint32_t udp = oracleUdp(entries.ip, p);
    EXPECT_EQ(policy::entryUdp(list.image(), {p.source, p.destination, p.sourcePort, p.destinationPort}), decidedBy);
    seen.insert(udp);
    withEverySearch([&] {
        EXPECT_EQ(list.ip(p), ip) << std::hex << p.source << ' ' << p.destination;
        EXPECT_EQ(list.udp(p), udp) << std::hex << p.source << ' ' << p.destination << std::dec << ' ' << p.sourcePort
                                    << ' ' << p.destinationPort;
    });
}

void expectSameVerdicts6(const AclList &list, const AclEntries &entries, const uint8_t *source, Verdicts &seen) {
    const uint32_t both = oracle6(entries.ipv6, source, false);
    EXPECT_EQ(policy::entry6(list.image(), source), decidedBy);
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
    zelAclIpEntry nothing = {};  // its operator is none
    nothing.protocol = 17;
    nothing.sourceOperator = 6;
    const AclList list(AclEntries{{3, nothing}, {}});
    const uint32_t head = list.acl()->ip.head;
    policy::IpRecord::Next::set(reinterpret_cast<uint8_t *>(list.acl()) + head, head);
    EXPECT_EQ(list.udp({1, 2, 3, 4}), 1u);
    EXPECT_FALSE(aclmgr::isWholeAclImage(list.image()));
}

}  // namespace
}  // namespace zel::test
