// Access lists in the shared tables against a walk over the same entries as packed records, for packets that no entry
// matches and for packets drawn from the rules; and against a classifier made for this, packet by packet.
#include <netinet/in.h>
#include <rte_acl.h>
#include <rte_eal.h>
#include <sched.h>

#include <algorithm>
#include <array>
#include <bit>
#include <random>
#include <string>
#include <vector>

#include "bench/support/row.h"
#include "tests/support/acl_rules.h"
#include "zel/aclmgr.h"
#include "zel/policy.h"

namespace {

using namespace zel::bench;
using zel::test::Packet;
using Rules = std::vector<zelAclIpEntry>;
using Rules6 = std::vector<zelAclIpv6Entry>;
using Address6 = std::array<uint8_t, 16>;

constexpr size_t packetCount = 4096;

// ---- The walk -------------------------------------------------------------------------------------------------------

template <class T>
T load(const uint8_t *at) {
    T value;
    memcpy(&value, at, sizeof value);
    return sizeof value == 4 ? static_cast<T>(ntohl(value)) : static_cast<T>(ntohs(static_cast<uint16_t>(value)));
}
template <class T>
void append(std::vector<uint8_t> &bytes, T value) {
    for (int shift = 8 * (static_cast<int>(sizeof value) - 1); shift >= 0; shift -= 8)
        bytes.push_back(static_cast<uint8_t>(value >> shift));
}

// Records: next, action, source, wildcard, destination, wildcard, protocol, kind, operators, ports.
struct Chain {
    std::vector<uint8_t> bytes{0};

    explicit Chain(const Rules &rules) {
        for (const zelAclIpEntry &rule : rules) {
            append(bytes, static_cast<uint32_t>(&rule == &rules.back() ? 0 : bytes.size() + 33));
            append(bytes, rule.action);
            for (const uint32_t word : {rule.source, rule.sourceWildcard, rule.destination, rule.destinationWildcard})
                append(bytes, word);
            for (const uint8_t byte : {rule.protocol, rule.kind, rule.sourceOperator, rule.destinationOperator})
                append(bytes, byte);
            for (const uint16_t port :
                 {rule.sourcePort, rule.sourcePortEnd, rule.destinationPort, rule.destinationPortEnd})
                append(bytes, port);
        }
    }
    explicit Chain(const Rules6 &rules) {
        for (const zelAclIpv6Entry &rule : rules) {
            append(bytes, static_cast<uint32_t>(&rule == &rules.back() ? 0 : bytes.size() + 69));
            append(bytes, rule.action);
            for (const uint8_t *field : {rule.source, rule.sourceMask, rule.destination, rule.destinationMask})
                bytes.insert(bytes.end(), field, field + 16);
        }
    }

    template <class Match>
    uint32_t walk(Match matches) const {
        for (uint32_t next = 1; next != 0;) {
            const uint8_t *record = bytes.data() + next;
            if (matches(record)) return record[4];
            next = load<uint32_t>(record);
        }
        return 1;
    }
};

bool equalUnder(const uint8_t *entry, uint32_t address) {
    const uint32_t wildcard = load<uint32_t>(entry + 4);
    return (address & ~wildcard) == (load<uint32_t>(entry) & ~wildcard);
}

uint32_t walkIp(const Chain &chain, const Packet &p) {
    return chain.walk([&](const uint8_t *record) {
        return equalUnder(record + 5, p.source) && (record[22] == 1 || equalUnder(record + 13, p.destination));
    });
}

bool passesAddress(const uint8_t *entry, uint32_t address) {
    const uint32_t wildcard = load<uint32_t>(entry + 4);
    if (wildcard == UINT32_MAX) return address != load<uint32_t>(entry);
    return wildcard == 0 || (address & ~wildcard) == (load<uint32_t>(entry) & ~wildcard);
}

bool passesPort(uint8_t code, const uint8_t *ports, uint16_t port) {
    switch (code) {
        case 1:
            return port == load<uint16_t>(ports);
        case 2:
            return port >= load<uint16_t>(ports);
        case 3:
            return port <= load<uint16_t>(ports);
        case 4:
            return port != load<uint16_t>(ports);
        case 5:
            return load<uint16_t>(ports) <= port && port <= load<uint16_t>(ports + 2);
        default:
            return code == 255;
    }
}

uint32_t walkUdp(const Chain &chain, const Packet &p) {
    return chain.walk([&](const uint8_t *record) {
        return record[22] != 1 && record[21] == 17 && passesAddress(record + 5, p.source) &&
               passesAddress(record + 13, p.destination) && passesPort(record[23], record + 25, p.sourcePort) &&
               (record[24] == 0 || passesPort(record[24], record + 29, p.destinationPort));
    });
}

bool covers(const uint8_t *entry, const uint8_t *address) {
    for (int i = 0; i < 16; ++i)
        if ((address[i] & entry[16 + i]) != (entry[i] & entry[16 + i])) return false;
    return true;
}

uint32_t walk6(const Chain &chain, const uint8_t *source) {
    return chain.walk([&](const uint8_t *record) { return covers(record + 5, source) && covers(record + 37, source); });
}

// ---- Lists and packets ----------------------------------------------------------------------------------------------

enum class Check { ip, udp };
enum class Asked { misses, trace };

// Rules as the UDP check wants them: all of that protocol. A host entry would pass every host there, so it becomes a
// pair of hosts.
Rules forUdp(Rules rules) {
    for (zelAclIpEntry &rule : rules) {
        rule.protocol = 17;
        for (uint32_t *wildcard : {&rule.sourceWildcard, &rule.destinationWildcard})
            if (*wildcard == 0) *wildcard = 1;
    }
    return rules;
}

const Rules &allRules(Check check) {
    static const Rules plain = [] {
        Rules rules = zel::test::classBenchRules("classbench_acl1_10k.txt.xz");
        const Rules more = zel::test::classBenchRules("classbench_fw1_10k.txt.xz");
        rules.insert(rules.end(), more.begin(), more.end());
        return rules;
    }();
    static const Rules udp = forUdp(plain);
    return check == Check::ip ? plain : udp;
}

uint32_t walkOf(Check check, const Chain &chain, const Packet &packet) {
    return check == Check::ip ? walkIp(chain, packet) : walkUdp(chain, packet);
}

zelAclMgr *manager() {
    static zelAclMgr *const opened = zelAclMgrOpen(ZEL_ACLMGR_PRIMARY);
    return opened;
}

Packet anyPacket(std::mt19937 &random) {
    return {static_cast<uint32_t>(random()), static_cast<uint32_t>(random()), static_cast<uint16_t>(random()),
            static_cast<uint16_t>(random())};
}

// A list of `count` rules with packets to ask it about, as our list and as a chain.
struct Scene {
    Rules rules;
    std::vector<Packet> packets;
    Chain chain{Rules{}};
    const zelIpAcl *list = nullptr;

    Scene(Check check, Asked asked, size_t count) {
        std::mt19937 random(1);
        if (asked == Asked::misses) {
            std::generate_n(std::back_inserter(packets), packetCount, [&] { return anyPacket(random); });
            takeRulesThatMiss(check, count);
        } else {
            takeTrace(check, count, random);
        }
        for (size_t i = 0; i < rules.size(); ++i) rules[i].sequence = static_cast<uint32_t>(i + 1);
        chain = Chain(rules);
        const std::string name = "list" + std::to_string(++made);
        zelAclMgrSetIpList(manager(), name.c_str(), rules.data(), static_cast<uint32_t>(rules.size()));
        list = ipAccessListFind(name.c_str());
    }
    void takeRulesThatMiss(Check check, size_t count) {
        for (const zelAclIpEntry &rule : allRules(check)) {
            Rules one{rule};
            one[0].action = 0;
            const Chain alone(one);
            if (std::none_of(packets.begin(), packets.end(),
                             [&](const Packet &packet) { return walkOf(check, alone, packet) == 0; }))
                rules.push_back(rule);
            if (rules.size() == count) return;
        }
    }
    // The traces that come with the sets of 1,000; packets drawn from the rules for others.
    void takeTrace(Check check, size_t count, std::mt19937 &random) {
        rules = allRules(check);
        if (count == 1000) rules = zel::test::classBenchRules("classbench_cs_acl_1k.txt.xz");
        if (count == 1000 && check == Check::udp) rules = forUdp(rules);
        rules.resize(count);
        if (count == 1000) packets = zel::test::classBenchTrace("classbench_cs_acl_1k_trace.txt.xz");
        if (count == 1000) std::shuffle(packets.begin(), packets.end(), random);
        packets.resize(count == 1000 ? packetCount : 0);
        while (packets.size() < packetCount) packets.push_back(zel::test::packetFor(rules, random));
    }
    static inline int made = 0;
};

template <Check check, Asked asked, size_t count>
const Scene &scene() {
    static const Scene made(check, asked, count);
    return made;
}

template <Check check>
uint32_t ask(const Scene &scene, const Packet &p) {
    if (check == Check::ip) return ipAccessListCheckWithHandle(scene.list, p.source, p.destination);
    return ipUdpFilterCheck(p.source, p.destination, p.sourcePort, p.destinationPort, scene.list);
}

template <class Each, class Ask>
void eachPacket(benchmark::State &state, const std::vector<Each> &packets, Ask askAbout) {
    size_t i = 0;
    for (auto _ : state) benchmark::DoNotOptimize(askAbout(packets[i++ % packetCount]));
}

template <Check check, Asked asked, size_t count>
void ours(benchmark::State &state) {
    const Scene &on = scene<check, asked, count>();
    for (const Packet &packet : on.packets)
        if (ask<check>(on, packet) != walkOf(check, on.chain, packet)) return state.SkipWithError("another verdict");
    eachPacket(state, on.packets, [&](const Packet &packet) { return ask<check>(on, packet); });
}

template <Check check, Asked asked, size_t count>
void naive(benchmark::State &state) {
    const Scene &on = scene<check, asked, count>();
    eachPacket(state, on.packets, [&](const Packet &packet) {
        return check == Check::ip ? walkIp(on.chain, packet) : walkUdp(on.chain, packet);
    });
}

// ---- The classifier -------------------------------------------------------------------------------------------------

// What it reads of a packet, in network order; its first field is a byte.
struct Header {
    uint8_t protocol;
    uint8_t unused[3];
    uint32_t source, destination;
};
RTE_ACL_RULE_DEF(ClassifierRule, 3);

bool startClassifier() {
    static const bool started = [] {
        cpu_set_t cpus;
        sched_getaffinity(0, sizeof cpus, &cpus);
        char program[] = "bench_policy", huge[] = "--no-huge", pci[] = "--no-pci", memory[] = "-m", megabytes[] = "512",
             telemetry[] = "--no-telemetry", quiet[] = "--log-level=error";
        char *arguments[] = {program, huge, pci, telemetry, memory, megabytes, quiet};
        const bool result = rte_eal_init(static_cast<int>(std::size(arguments)), arguments) >= 0;
        sched_setaffinity(0, sizeof cpus, &cpus);
        return result;
    }();
    return started;
}

uint8_t bitsOf(uint32_t wildcard) {
    return static_cast<uint8_t>(32 - std::popcount(wildcard));
}

rte_acl_ctx *makeClassifier(const Rules &rules) {
    if (!startClassifier()) return nullptr;
    rte_acl_param parameters{"acl", SOCKET_ID_ANY, RTE_ACL_RULE_SZ(3), static_cast<uint32_t>(rules.size())};
    static int contexts = 0;
    const std::string name = "acl" + std::to_string(++contexts);
    parameters.name = name.c_str();
    rte_acl_ctx *context = rte_acl_create(&parameters);
    if (context == nullptr) return nullptr;
    std::vector<ClassifierRule> all;
    for (const zelAclIpEntry &rule : rules) {
        ClassifierRule &made = all.emplace_back();
        memset(&made, 0, sizeof made);
        made.data = {1, static_cast<int32_t>(rules.size() - all.size() + 1), 2u + rule.action};
        made.field[1].value.u32 = rule.source;
        made.field[1].mask_range.u32 = bitsOf(rule.sourceWildcard);
        made.field[2].value.u32 = rule.destination;
        made.field[2].mask_range.u32 = bitsOf(rule.destinationWildcard);
    }
    rte_acl_config configuration{};
    configuration.num_categories = 1;
    configuration.num_fields = 3;
    configuration.defs[0] = {RTE_ACL_FIELD_TYPE_BITMASK, 1, 0, 0, 0};
    configuration.defs[1] = {RTE_ACL_FIELD_TYPE_MASK, 4, 1, 1, offsetof(Header, source)};
    configuration.defs[2] = {RTE_ACL_FIELD_TYPE_MASK, 4, 2, 2, offsetof(Header, destination)};
    const auto *first = reinterpret_cast<const rte_acl_rule *>(all.data());
    const bool isBuilt = rte_acl_add_rules(context, first, static_cast<uint32_t>(all.size())) == 0 &&
                         rte_acl_build(context, &configuration) == 0;
    return isBuilt ? context : nullptr;
}

uint32_t classify(const rte_acl_ctx *context, const Packet &packet) {
    const Header header = {0, {}, htonl(packet.source), htonl(packet.destination)};
    const auto *data = reinterpret_cast<const uint8_t *>(&header);
    uint32_t result = 0;
    rte_acl_classify(context, &data, &result, 1, 1);
    return result == 0 ? 1 : result - 2;
}

template <Asked asked, size_t count>
void classifier(benchmark::State &state) {
    const Scene &on = scene<Check::ip, asked, count>();
    static const rte_acl_ctx *const context = makeClassifier(on.rules);
    if (context == nullptr) return state.SkipWithError("no classifier");
    for (const Packet &packet : on.packets)
        if (classify(context, packet) != walkIp(on.chain, packet)) return state.SkipWithError("another verdict");
    eachPacket(state, on.packets, [](const Packet &packet) { return classify(context, packet); });
}

template <Check check, Asked asked, size_t count>
Row &addIpRow(double bar) {
    const std::string name = std::string(check == Check::ip ? "IPv4" : "UDP") + " check, " + std::to_string(count) +
                             (asked == Asked::misses ? " entries, misses" : " entries, trace");
    Row &row = addRow(name.c_str(), "ns", Kind::time);
    row.ours(ours<check, asked, count>).peer("walk", naive<check, asked, count>, bar);
    return row;
}

template <size_t count>
void addIpRows(double bar) {
    Row &misses = addIpRow<Check::ip, Asked::misses, count>(bar),
        &trace = addIpRow<Check::ip, Asked::trace, count>(bar);
    addIpRow<Check::udp, Asked::misses, count>(bar);
    addIpRow<Check::udp, Asked::trace, count>(bar);
    if (count > 300) return;
    misses.peer("rte_acl", classifier<Asked::misses, count>, noBar, 1.0);
    trace.peer("rte_acl", classifier<Asked::trace, count>, noBar, 1.0);
}

// ---- IPv6 -----------------------------------------------------------------------------------------------------------

// Prefixes of the Internet as sources, of any destination; one address in two is in one of them.
struct Scene6 {
    Rules6 rules;
    std::vector<Address6> sources{packetCount};
    Chain chain{Rules6{}};
    const zelIpAcl *list = nullptr;

    explicit Scene6(size_t count) {
        std::mt19937 random(1);
        zel::test::eachRow("rib6_full_2015-11_origin.txt.xz", [&](std::string_view row) {
            zelAclIpv6Entry &rule = rules.emplace_back();
            zel::test::readPrefix6(zel::test::column(row), rule.source, rule.sourceMask);
        });
        std::shuffle(rules.begin(), rules.end(), random);
        rules.resize(count);
        for (size_t i = 0; i < count; ++i) {
            rules[i].sequence = static_cast<uint32_t>(i + 1);
            rules[i].action = i % 2;
        }
        for (Address6 &source : sources) {
            const zelAclIpv6Entry &rule = rules[random() % count];
            const bool isInside = random() % 2 == 0;
            for (size_t i = 0; i < 16; ++i) {
                const auto byte = static_cast<uint8_t>(random());
                source[i] = isInside ? (byte & ~rule.sourceMask[i]) | rule.source[i] : i < 2 ? rule.source[i] : byte;
            }
        }
        chain = Chain(rules);
        const std::string name = "six" + std::to_string(count);
        zelAclMgrSetIpv6List(manager(), name.c_str(), rules.data(), static_cast<uint32_t>(count));
        list = aclV6AccessListFind(name.c_str());
    }
};

template <size_t count>
const Scene6 &scene6() {
    static const Scene6 made(count);
    return made;
}

template <size_t count>
void ours6(benchmark::State &state) {
    const Scene6 &on = scene6<count>();
    for (const Address6 &source : on.sources)
        if (aclV6FilterCheck(source.data(), nullptr, on.list) != walk6(on.chain, source.data()))
            return state.SkipWithError("another verdict");
    eachPacket(state, on.sources,
               [&](const Address6 &source) { return aclV6FilterCheck(source.data(), nullptr, on.list); });
}

template <size_t count>
void naive6(benchmark::State &state) {
    const Scene6 &on = scene6<count>();
    eachPacket(state, on.sources, [&](const Address6 &source) { return walk6(on.chain, source.data()); });
}

// ---- Under the lock -------------------------------------------------------------------------------------------------

void withLock(benchmark::State &state) {
    const Scene &on = scene<Check::ip, Asked::trace, 100>();
    eachPacket(state, on.packets,
               [&](const Packet &p) { return ipAccessListCheckWithHandleExt(on.list, p.source, p.destination); });
}

void insideLock(benchmark::State &state) {
    const Scene &on = scene<Check::ip, Asked::trace, 100>();
    eachPacket(state, on.packets, [&](const Packet &p) {
        aclReadLock();
        const uint32_t verdict = ipAccessListCheckWithHandle(on.list, p.source, p.destination);
        aclReadUnlock();
        return verdict;
    });
}

[[maybe_unused]] const bool registered = [] {
    addIpRows<10>(1.0);
    addIpRows<100>(0.2);
    addIpRows<300>(0.2);
    addIpRows<1000>(0.2);
    addIpRows<10000>(0.2);
    return true;
}();

ZEL_ROW("IPv6 check, 100 entries", "ns", time).ours(ours6<100>).peer("walk", naive6<100>, 0.3);
ZEL_ROW("IPv6 check, 1,000 entries", "ns", time).ours(ours6<1000>).peer("walk", naive6<1000>, 0.3);
ZEL_ROW("IPv4 check with Ext, 100 entries", "ns", time)
    .ours(withLock)
    .peer("plain check in a read-lock pair", insideLock, 1.1);

}  // namespace
