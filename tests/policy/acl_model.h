// Access lists judged entry by entry as they were given, and random ones full of corners.
#pragma once

#include <cstdint>
#include <cstring>
#include <memory>
#include <vector>

#include "aclmgr/acl_image.h"
#include "policy/acl_match.h"
#include "tests/support/acl_rules.h"
#include "tests/support/random.h"

namespace zel::test {

// ---- The oracle -----------------------------------------------------------------------------------------------------

// The sequence number of the entry that decided the last answer of an oracle, 0 when none did.
inline uint32_t decidedBy = 0;

template <class Entry, class Match>
uint32_t firstMatch(const std::vector<Entry> &entries, Match matches) {
    decidedBy = 0;
    for (const Entry &entry : entries)
        if (matches(entry)) return decidedBy = entry.sequence, entry.action;
    return entries.empty() ? 0 : 1;
}

inline uint32_t oracleIp(const std::vector<zelAclIpEntry> &entries, const Packet &p) {
    return firstMatch(entries, [&](const zelAclIpEntry &e) {
        return (p.source & ~e.sourceWildcard) == (e.source & ~e.sourceWildcard) &&
               (e.kind == 1 || (p.destination & ~e.destinationWildcard) == (e.destination & ~e.destinationWildcard));
    });
}

inline uint32_t oracleUdp(const std::vector<zelAclIpEntry> &entries, const Packet &p) {
    const auto address = [](uint32_t packet, uint32_t entry, uint32_t wildcard) {
        if (wildcard == 0xffffffff) return packet != entry;
        if (wildcard == 0) return true;
        return (packet & ~wildcard) == (entry & ~wildcard);
    };
    const auto port = [](int code, int packet, int low, int high) {
        const bool passes[] = {packet == low, packet >= low, packet <= low, packet != low,
                               low <= packet && packet <= high};
        return code == 255 || (code >= 1 && code <= 5 && passes[code - 1]);
    };
    return firstMatch(entries, [&](const zelAclIpEntry &e) {
        return e.kind != 1 && e.protocol == 17 && address(p.source, e.source, e.sourceWildcard) &&
               address(p.destination, e.destination, e.destinationWildcard) &&
               port(e.sourceOperator, p.sourcePort, e.sourcePort, e.sourcePortEnd) &&
               (e.destinationOperator == 0 ||
                port(e.destinationOperator, p.destinationPort, e.destinationPort, e.destinationPortEnd));
    });
}

inline uint32_t oracle6(const std::vector<zelAclIpv6Entry> &entries, const uint8_t *source, bool onlySource) {
    const auto covers = [&](const uint8_t *address, const uint8_t *mask) {
        for (int i = 0; i < 16; ++i)
            if ((source[i] & mask[i]) != (address[i] & mask[i])) return false;
        return true;
    };
    return firstMatch(entries, [&](const zelAclIpv6Entry &e) {
        return covers(e.source, e.sourceMask) && (onlySource || covers(e.destination, e.destinationMask));
    });
}

// ---- Images in memory of exactly their size -------------------------------------------------------------------------

class AclList {
public:
    explicit AclList(const aclmgr::AclEntries &entries) {
        const aclmgr::AclImageMaker maker(entries);
        bytes_ = maker.bytes();
        block_.reset(new uint8_t[bytes_]());
        *header() = {policy::Image::validMagic, static_cast<uint32_t>(bytes_), policy::Kind::ipAcl,
                     static_cast<uint32_t>(entries.ip.size() + entries.ipv6.size())};
        maker.write(header());
    }
    policy::Image *header() const { return reinterpret_cast<policy::Image *>(block_.get()); }
    policy::AclImage *acl() const { return reinterpret_cast<policy::AclImage *>(block_.get()); }
    // Leaves nothing but the chains.
    void dropColumns() const { acl()->ipColumns = acl()->udpColumns = acl()->ipv6Columns = {}; }
    policy::Bytes image() const { return {block_.get(), bytes_}; }
    uint32_t ip(const Packet &p) const { return policy::checkIp(image(), p.source, p.destination); }
    uint32_t udp(const Packet &p) const {
        return policy::checkUdp(image(), {p.source, p.destination, p.sourcePort, p.destinationPort});
    }

private:
    size_t bytes_;
    std::unique_ptr<uint8_t[]> block_;
};

// ---- Random lists, and queries that are near them -------------------------------------------------------------------

template <class Value, size_t count>
Value oneOf(Random &random, const Value (&values)[count]) {
    return values[random() % count];
}

inline uint32_t someAddress(Random &random) {
    return oneOf<uint32_t>(random, {0, 0x0a000001, 0x0a000101, 0xc0a80001, 0xffffffff, random(), random() & 0x0f});
}
inline uint16_t somePort(Random &random) {
    return oneOf<uint16_t>(random, {0, 1, 53, 54, 1024, 65534, 65535, static_cast<uint16_t>(random())});
}

inline zelAclIpEntry someEntry(Random &random, uint32_t sequence) {
    const auto wildcard = [&] {
        return oneOf<uint32_t>(random, {0, 0, 0xff, 0xffff, 0xff00, 0x00ffff00, 0xfffffffe, 0xffffffff, random()});
    };
    const auto code = [&] { return oneOf<uint8_t>(random, {0, 1, 2, 3, 4, 5, 6, 254, 255, 255}); };
    zelAclIpEntry entry = {};
    entry.sequence = sequence;
    entry.action = oneOf<uint8_t>(random, {0, 1, 7, 255});
    entry.kind = oneOf<uint8_t>(random, {0, 0, 0, 1, 2});
    entry.protocol = oneOf<uint8_t>(random, {0, 6, 17, 17, 17});
    entry.sourceOperator = code();
    entry.destinationOperator = code();
    entry.source = someAddress(random);
    entry.sourceWildcard = wildcard();
    entry.destination = someAddress(random);
    entry.destinationWildcard = wildcard();
    for (uint16_t *port : {&entry.sourcePort, &entry.sourcePortEnd, &entry.destinationPort, &entry.destinationPortEnd})
        *port = somePort(random);
    return entry;
}

inline Packet somePacket(Random &random) {
    return {someAddress(random), someAddress(random), somePort(random), somePort(random)};
}

inline void someAddress6(Random &random, uint8_t address[16]) {
    memset(address, 0, 16);
    address[0] = 0x20;
    for (int i = random() % 4 == 0 ? 0 : 14; i < 16; ++i) address[i] = static_cast<uint8_t>(random() % 3);
}

inline zelAclIpv6Entry someEntry6(Random &random, uint32_t sequence) {
    zelAclIpv6Entry entry = {};
    entry.sequence = sequence;
    entry.action = oneOf<uint8_t>(random, {0, 1, 7, 255});
    const auto half = [&](uint8_t *address, uint8_t *mask) {
        someAddress6(random, address);
        const uint32_t bits = oneOf<uint32_t>(random, {0, 8, 112, 120, 127, 128, random() % 129});
        for (uint32_t bit = 0; bit < bits; ++bit) mask[bit / 8] |= static_cast<uint8_t>(0x80 >> bit % 8);
        if (random() % 8 == 0) mask[random() % 16] = static_cast<uint8_t>(random());  // a hole
    };
    half(entry.source, entry.sourceMask);
    half(entry.destination, entry.destinationMask);
    return entry;
}

inline aclmgr::AclEntries someList(Random &random, uint32_t ip, uint32_t ipv6) {
    aclmgr::AclEntries list;
    for (uint32_t i = 1; i <= ip; ++i) list.ip.push_back(someEntry(random, 10 * i));
    for (uint32_t i = 1; i <= ipv6; ++i) list.ipv6.push_back(someEntry6(random, 10 * i));
    return list;
}

}  // namespace zel::test
