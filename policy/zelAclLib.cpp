// The checks of access lists over an image of the shared tables.
//
// The first entry that matches decides, by its action as it stands. A chain without entries permits, and one in which
// nothing matches denies. What IPv4, UDP and IPv6 mean by a match differs in ways that lists in the field rely on:
//
// - A wildcard's 1 bits are not compared, a mask's 1 bits are.
// - The IPv4 check looks at addresses alone, whatever an entry says of protocol and ports; a standard entry matches on
//   the source.
// - The UDP check passes over standard entries and those of another protocol, also of "any". It takes the two extreme
//   wildcards in its own way: all ones asks that the address is not the entry's, zero asks nothing. No port operator
//   (0) fails the source and passes the destination.
// - The IPv6 check holds the packet's source against the entry's source and against its destination; nobody asks for
//   the packet's destination.
//
// Long chains are searched in their compiled form, others walked. Nothing that the image says is believed: records and
// columns must lie in it, and a walk takes no more steps than it has room for records.
#include <cstring>

#include "policy/acl_layout.h"
#include "policy/acl_match.h"
#include "policy/tree_reader.h"

namespace zel::policy {
namespace {

using platform::ColumnLayout;

constexpr std::uint32_t permit = 0, deny = 1;

// ---- Walks along the records ----------------------------------------------------------------------------------------

// The image as an access list; null when it is none, or has no such chain.
const AclImage *listOf(const Bytes &image, AclChain AclImage::*chain) {
    const auto *list = inside<AclImage>(image, 0);
    return list != nullptr && readOnce((list->*chain).head) != 0 ? list : nullptr;
}

// The first record that matches, or null; how many stand before it.
template <class Record, class Match>
const std::uint8_t *firstMatch(const Bytes &image, const AclChain &chain, Match matches, std::size_t &before) {
    const std::size_t room = image.bytes / Record::size;
    std::uint32_t next = readOnce(chain.head);
    for (before = 0; next != 0 && before < room; ++before) {
        const auto *record = static_cast<const std::uint8_t *>(inside(image, next, Record::size));
        if (record == nullptr || matches(record)) return record;
        next = Record::Next::get(record);
    }
    return nullptr;
}

template <class Record, class Match>
std::uint32_t walk(const Bytes &image, const AclChain &chain, Match matches) {
    std::size_t before;
    const std::uint8_t *record = firstMatch<Record>(image, chain, matches, before);
    return record != nullptr ? Record::Action::get(record) : deny;
}

template <class Record, class Match>
std::uint32_t sequenceOfMatch(const Bytes &image, const AclChain &chain, Match matches) {
    std::size_t before;
    if (firstMatch<Record>(image, chain, matches, before) == nullptr) return 0;
    const auto *sequences = inside<std::uint32_t>(image, readOnce(chain.sequences), before + 1);
    return sequences != nullptr ? sequences[before] : 0;
}

bool equalUnder(std::uint32_t wildcard, std::uint32_t address, std::uint32_t entry) {
    return ((address ^ entry) & ~wildcard) == 0;
}

bool matchesIp(const std::uint8_t *record, std::uint32_t source, std::uint32_t destination) {
    return equalUnder(IpRecord::SourceWildcard::get(record), source, IpRecord::Source::get(record)) &&
           (IpRecord::Kind::get(record) == standardEntry ||
            equalUnder(IpRecord::DestinationWildcard::get(record), destination, IpRecord::Destination::get(record)));
}

bool passesUdpAddress(std::uint32_t wildcard, std::uint32_t address, std::uint32_t entry) {
    if (wildcard == UINT32_MAX) return address != entry;
    return wildcard == 0 || equalUnder(wildcard, address, entry);
}

bool passesPort(std::uint8_t portOperator, std::uint16_t port, std::uint16_t low, std::uint16_t high) {
    switch (portOperator) {
        case portEqual:
            return port == low;
        case portAtLeast:
            return port >= low;
        case portAtMost:
            return port <= low;
        case portDiffers:
            return port != low;
        case portRange:
            return low <= port && port <= high;
        default:
            return portOperator == portAny;
    }
}

bool matchesUdp(const std::uint8_t *record, const Datagram &datagram) {
    using R = IpRecord;
    if (R::Kind::get(record) == standardEntry || R::Protocol::get(record) != udpProtocol) return false;
    const std::uint8_t destinationOperator = R::DestinationOperator::get(record);
    return passesUdpAddress(R::SourceWildcard::get(record), datagram.source, R::Source::get(record)) &&
           passesUdpAddress(R::DestinationWildcard::get(record), datagram.destination, R::Destination::get(record)) &&
           passesPort(R::SourceOperator::get(record), datagram.sourcePort, R::SourcePort::get(record),
                      R::SourcePortEnd::get(record)) &&
           (destinationOperator == 0 ||
            passesPort(destinationOperator, datagram.destinationPort, R::DestinationPort::get(record),
                       R::DestinationPortEnd::get(record)));
}

// 16 bytes, in an order of bits that is the same for addresses and masks.
struct Address6 {
    std::uint64_t halves[2];
    explicit Address6(const std::uint8_t *bytes) { memcpy(halves, bytes, sizeof halves); }
    bool equals(const Address6 &entry, const Address6 &mask) const {
        return (((halves[0] ^ entry.halves[0]) & mask.halves[0]) | ((halves[1] ^ entry.halves[1]) & mask.halves[1])) ==
               0;
    }
};

bool matchesSource6(const std::uint8_t *record, const Address6 &source) {
    return source.equals(Address6(record + Ipv6Record::source), Address6(record + Ipv6Record::sourceMask));
}
bool matchesDestination6(const std::uint8_t *record, const Address6 &address) {
    return address.equals(Address6(record + Ipv6Record::destination), Address6(record + Ipv6Record::destinationMask));
}

// ---- Searches in the columns ----------------------------------------------------------------------------------------

// The columns of a form; none when the chain has no such form, or the image has no room for it.
template <std::size_t words, bool isFlow>
struct Columns {
    const std::uint8_t *begin = nullptr;
    std::size_t blocks = 0;

    Columns(const Bytes &image, const AclColumns &form) {
        const std::size_t place = readOnce(form.begin), count = readOnce(form.blocks);
        if (place == 0 || count > image.bytes / ColumnLayout{words, isFlow, 1}.bytes()) return;
        begin = static_cast<const std::uint8_t *>(inside(image, place, ColumnLayout{words, isFlow, count}.bytes()));
        blocks = count;
    }
    explicit operator bool() const { return begin != nullptr; }
    // The action of the first entry that a search finds, or the one that stands for none.
    std::uint32_t verdict(platform::ColumnSearch search, const platform::ColumnQuery &query) const {
        return begin[ColumnLayout{words, isFlow, blocks}.actions() + search(begin, blocks, query)];
    }
};

// Two addresses in the order of a form's columns.
platform::ColumnQuery queryOf(const AclColumns &form, std::uint32_t source, std::uint32_t destination) {
    return (form.order[0] & 1) != 0 ? platform::ColumnQuery{{destination, source}, {}}
                                    : platform::ColumnQuery{{source, destination}, {}};
}

}  // namespace

std::uint32_t checkIp(const Bytes &image, std::uint32_t source, std::uint32_t destination) {
    const AclImage *list = listOf(image, &AclImage::ip);
    if (list == nullptr) return permit;
    if (const Columns<2, false> columns(image, list->ipColumns); columns)
        return columns.verdict(platform::columnSearches->twoWords, queryOf(list->ipColumns, source, destination));
    return walk<IpRecord>(image, list->ip,
                          [&](const std::uint8_t *record) { return matchesIp(record, source, destination); });
}

std::uint32_t checkUdp(const Bytes &image, const Datagram &datagram) {
    const AclImage *list = listOf(image, &AclImage::ip);
    if (list == nullptr) return permit;
    if (const Columns<2, true> columns(image, list->udpColumns); columns) {
        platform::ColumnQuery query = queryOf(list->udpColumns, datagram.source, datagram.destination);
        query.ports[0] = datagram.sourcePort;
        query.ports[1] = datagram.destinationPort;
        return columns.verdict(platform::columnSearches->flow, query);
    }
    return walk<IpRecord>(image, list->ip, [&](const std::uint8_t *record) { return matchesUdp(record, datagram); });
}

std::uint32_t check6(const Bytes &image, const std::uint8_t *source) {
    const AclImage *list = listOf(image, &AclImage::ipv6);
    if (list == nullptr || source == nullptr) return list == nullptr ? permit : deny;
    const AclColumns &form = list->ipv6Columns;
    if (const Columns<4, false> columns(image, form); columns) {
        platform::ColumnQuery query = {};
        for (std::size_t k = 0; k < 4; ++k)
            query.words[k] = wire::load<std::uint32_t>(source + (form.order[k] & 3) * 4);
        return columns.verdict(platform::columnSearches->fourWords, query);
    }
    const Address6 address(source);
    return walk<Ipv6Record>(image, list->ipv6, [&](const std::uint8_t *record) {
        return matchesSource6(record, address) && matchesDestination6(record, address);
    });
}

std::uint32_t checkSource6(const Bytes &image, const std::uint8_t *source) {
    const AclImage *list = listOf(image, &AclImage::ipv6);
    if (list == nullptr || source == nullptr) return list == nullptr ? permit : deny;
    const Address6 address(source);
    return walk<Ipv6Record>(image, list->ipv6,
                            [&](const std::uint8_t *record) { return matchesSource6(record, address); });
}

std::uint32_t entryIp(const Bytes &image, std::uint32_t source, std::uint32_t destination) {
    const AclImage *list = listOf(image, &AclImage::ip);
    if (list == nullptr) return 0;
    return sequenceOfMatch<IpRecord>(
        image, list->ip, [&](const std::uint8_t *record) { return matchesIp(record, source, destination); });
}

std::uint32_t entryUdp(const Bytes &image, const Datagram &datagram) {
    const AclImage *list = listOf(image, &AclImage::ip);
    if (list == nullptr) return 0;
    return sequenceOfMatch<IpRecord>(image, list->ip,
                                     [&](const std::uint8_t *record) { return matchesUdp(record, datagram); });
}

std::uint32_t entry6(const Bytes &image, const std::uint8_t *source) {
    const AclImage *list = listOf(image, &AclImage::ipv6);
    if (list == nullptr || source == nullptr) return 0;
    const Address6 address(source);
    return sequenceOfMatch<Ipv6Record>(image, list->ipv6, [&](const std::uint8_t *record) {
        return matchesSource6(record, address) && matchesDestination6(record, address);
    });
}

}  // namespace zel::policy

using namespace zel::policy;

uint32_t ipFilterCheck(const zelIpPair *pair, const zelIpAcl *list) {
    const Bytes image = imageOf(list, Kind::ipAcl);
    if (pair == nullptr) return listOf(image, &AclImage::ip) == nullptr ? permit : deny;
    return checkIp(image, pair->src, pair->dst);
}

uint32_t ipUdpFilterCheck(uint32_t source, uint32_t destination, uint16_t sourcePort, uint16_t destinationPort,
                          const zelIpAcl *list) {
    return checkUdp(imageOf(list, Kind::ipAcl), {source, destination, sourcePort, destinationPort});
}

uint32_t aclV6FilterCheck(const uint8_t *source, const uint8_t *, const zelIpAcl *list) {
    return check6(imageOf(list, Kind::ipAcl), source);
}

uint32_t aclV6FilterCheckOnlySrc(const uint8_t *source, const uint8_t *, const zelIpAcl *list) {
    return checkSource6(imageOf(list, Kind::ipAcl), source);
}

uint32_t ipAccessListEntry(const zelIpAcl *list, uint32_t source, uint32_t destination) {
    return entryIp(imageOf(list, Kind::ipAcl), source, destination);
}

uint32_t ipUdpAccessListEntry(const zelIpAcl *list, uint32_t source, uint32_t destination, uint16_t sourcePort,
                              uint16_t destinationPort) {
    return entryUdp(imageOf(list, Kind::ipAcl), {source, destination, sourcePort, destinationPort});
}

uint32_t aclV6AccessListEntry(const zelIpAcl *list, const uint8_t *source) {
    return entry6(imageOf(list, Kind::ipAcl), source);
}
