// The bundled rule sets as access-list entries, and packets to ask them about.
#pragma once

#include <arpa/inet.h>

#include <charconv>
#include <cstring>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "tests/support/table.h"
#include "zel/aclmgr.h"

namespace zel::test {

struct Packet {
    uint32_t source, destination;
    uint16_t sourcePort, destinationPort;
};

inline uint32_t number(std::string_view text) {
    uint32_t value = 0;
    std::from_chars(text.data(), text.data() + text.size(), value);
    return value;
}

inline uint32_t ipv4(std::string_view text) {
    in_addr address{};
    inet_pton(AF_INET, std::string(text).c_str(), &address);
    return ntohl(address.s_addr);
}

// ADDRESS/LENGTH as an address and a wildcard.
inline void readPrefix(std::string_view text, uint32_t *address, uint32_t *wildcard) {
    const size_t slash = text.find('/');
    *address = ipv4(text.substr(0, slash));
    *wildcard = static_cast<uint32_t>((uint64_t{1} << (32 - number(text.substr(slash + 1)))) - 1);
}

inline uint8_t operatorFor(uint32_t low, uint32_t high) {
    if (low == 0) return high == 65535 ? 255 : 3;
    return low == high ? 1 : high == 65535 ? 2 : 5;
}

// One side's ports, from `low` to `high`, as operator, port and upper bound.
inline void setPorts(uint32_t low, uint32_t high, uint8_t *portOperator, uint16_t *port, uint16_t *end) {
    *portOperator = operatorFor(low, high);
    *port = static_cast<uint16_t>(*portOperator == 3 ? high : low);
    *end = static_cast<uint16_t>(high);
}

// Generated rules carry no action: odd rows deny.
inline std::vector<zelAclIpEntry> classBenchRules(const std::string &name) {
    std::vector<zelAclIpEntry> rules;
    eachRow(name, [&](std::string_view row) {
        zelAclIpEntry &rule = rules.emplace_back();
        rule.sequence = static_cast<uint32_t>(rules.size());
        rule.action = rules.size() % 2 == 0;
        readPrefix(column(row), &rule.source, &rule.sourceWildcard);
        readPrefix(column(row), &rule.destination, &rule.destinationWildcard);
        uint32_t bounds[4];
        for (uint32_t &bound : bounds) bound = number(column(row));
        setPorts(bounds[0], bounds[1], &rule.sourceOperator, &rule.sourcePort, &rule.sourcePortEnd);
        setPorts(bounds[2], bounds[3], &rule.destinationOperator, &rule.destinationPort, &rule.destinationPortEnd);
        rule.protocol = static_cast<uint8_t>(number(column(row)));
    });
    return rules;
}

inline std::vector<Packet> classBenchTrace(const std::string &name) {
    std::vector<Packet> packets;
    eachRow(name, [&](std::string_view row) {
        uint32_t words[4];
        for (uint32_t &word : words) word = number(column(row));
        packets.push_back({words[0], words[1], static_cast<uint16_t>(words[2]), static_cast<uint16_t>(words[3])});
    });
    return packets;
}

// Packets drawn from rules; one in four is of no rule but by chance.
template <class Random>
Packet packetFor(const std::vector<zelAclIpEntry> &rules, Random &random) {
    const auto any = [&] { return static_cast<uint32_t>(random()); };
    const zelAclIpEntry &rule = rules[any() % rules.size()];
    if (any() % 4 == 0) return {any(), any(), static_cast<uint16_t>(any()), static_cast<uint16_t>(any())};
    const auto port = [&](uint16_t named) { return any() % 2 != 0 ? named : static_cast<uint16_t>(any()); };
    return {(rule.source & ~rule.sourceWildcard) | (any() & rule.sourceWildcard),
            (rule.destination & ~rule.destinationWildcard) | (any() & rule.destinationWildcard), port(rule.sourcePort),
            port(rule.destinationPort)};
}

// The campus lists by name; wildcards with holes among them.
inline std::map<std::string, std::vector<zelAclIpEntry>> campusLists() {
    std::map<std::string, std::vector<zelAclIpEntry>> lists;
    eachRow("acl_campus.txt.xz", [&](std::string_view row) {
        std::vector<zelAclIpEntry> &list = lists[std::string(column(row))];
        zelAclIpEntry &entry = list.emplace_back();
        entry.sequence = static_cast<uint32_t>(list.size());
        entry.kind = column(row) == "std";
        entry.action = column(row) == "deny";
        entry.protocol = static_cast<uint8_t>(number(column(row)));
        for (uint32_t *word : {&entry.source, &entry.sourceWildcard, &entry.destination, &entry.destinationWildcard})
            *word = ipv4(column(row));
        const auto ports = [&](uint8_t *portOperator, uint16_t *port, uint16_t *end) {
            const std::string_view text = column(row);
            const uint32_t low = number(column(row)), high = number(column(row));
            if (text == "any") return setPorts(0, 65535, portOperator, port, end);
            if (text == "gt") return setPorts(low + 1, 65535, portOperator, port, end);
            setPorts(low, text == "range" ? high : low, portOperator, port, end);
        };
        ports(&entry.sourceOperator, &entry.sourcePort, &entry.sourcePortEnd);
        ports(&entry.destinationOperator, &entry.destinationPort, &entry.destinationPortEnd);
    });
    return lists;
}

inline void readPrefix6(std::string_view text, uint8_t address[16], uint8_t mask[16]) {
    const size_t slash = text.find('/');
    inet_pton(AF_INET6, std::string(text.substr(0, slash)).c_str(), address);
    memset(mask, 0, 16);
    for (uint32_t bit = 0; bit < number(text.substr(slash + 1)); ++bit)
        mask[bit / 8] |= static_cast<uint8_t>(0x80 >> bit % 8);
}

inline std::map<std::string, std::vector<zelAclIpv6Entry>> deviceLists6() {
    std::map<std::string, std::vector<zelAclIpv6Entry>> lists;
    eachRow("acl6_devices.txt.xz", [&](std::string_view row) {
        std::vector<zelAclIpv6Entry> &list = lists[std::string(column(row))];
        zelAclIpv6Entry &entry = list.emplace_back();
        entry.sequence = static_cast<uint32_t>(list.size());
        entry.action = column(row) == "deny";
        column(row);
        readPrefix6(column(row), entry.source, entry.sourceMask);
        readPrefix6(column(row), entry.destination, entry.destinationMask);
    });
    return lists;
}

}  // namespace zel::test
