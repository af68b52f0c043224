// Images of IP access lists.
//
// An image is a function of the entries and of its place. So whether one is whole needs no list of rules: its entries,
// made into an image again, must give the same bytes.
//
// The compiled forms bring what the three checks ask to one shape, and drop entries that can never decide: those that
// no packet matches, and those that ask the same as one before them. What remains of a chain may be nothing; then the
// form has no block, and every packet is denied.
#include "aclmgr/acl_image.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <map>
#include <optional>
#include <set>
#include <utility>

namespace zel::aclmgr {
namespace {

using platform::ColumnLayout;
using policy::AclChain;
using policy::AclColumns;
using policy::AclImage;
using policy::IpRecord;
using policy::Ipv6Record;
using Word = ColumnTest::Word;
using Port = ColumnTest::Port;
using WordOrder = std::array<std::uint8_t, 4>;

// Chains of fewer entries are walked faster than searched.
constexpr std::size_t columnsFrom = 4;
constexpr std::size_t cacheLine = 64;
constexpr std::uint8_t deny = 1;

// ---- Compiling ------------------------------------------------------------------------------------------------------

Word masked(std::uint32_t address, std::uint32_t mask) {
    return {mask, address & mask, false};
}

Word udpWord(std::uint32_t address, std::uint32_t wildcard) {
    if (wildcard == UINT32_MAX) return {UINT32_MAX, address, true};
    return wildcard == 0 ? Word{} : masked(address, ~wildcard);
}

constexpr Port portsBetween(int first, int last) {
    return {static_cast<std::uint16_t>(first), static_cast<std::uint16_t>(last - first)};
}

// The ports that an operator passes, if any.
std::optional<Port> portsOf(std::uint8_t portOperator, std::uint16_t port, std::uint16_t end) {
    switch (portOperator) {
        case policy::portEqual:
            return portsBetween(port, port);
        case policy::portAtLeast:
            return portsBetween(port, UINT16_MAX);
        case policy::portAtMost:
            return portsBetween(0, port);
        case policy::portDiffers:
            return portsBetween(port + 1, port + UINT16_MAX);  // around the end of the numbers
        case policy::portRange:
            return port <= end ? std::optional(portsBetween(port, end)) : std::nullopt;
        case policy::portAny:
            return Port{};
        default:
            return std::nullopt;
    }
}

std::optional<ColumnTest> ipTest(const zelAclIpEntry &entry) {
    ColumnTest test;
    test.words[0] = masked(entry.source, ~entry.sourceWildcard);
    if (entry.kind != policy::standardEntry) test.words[1] = masked(entry.destination, ~entry.destinationWildcard);
    return test;
}

std::optional<ColumnTest> udpTest(const zelAclIpEntry &entry) {
    if (entry.kind == policy::standardEntry || entry.protocol != policy::udpProtocol) return std::nullopt;
    const auto source = portsOf(entry.sourceOperator, entry.sourcePort, entry.sourcePortEnd);
    const auto destination = portsOf(entry.destinationOperator == 0 ? policy::portAny : entry.destinationOperator,
                                     entry.destinationPort, entry.destinationPortEnd);
    if (!source || !destination) return std::nullopt;
    ColumnTest test;
    test.words[0] = udpWord(entry.source, entry.sourceWildcard);
    test.words[1] = udpWord(entry.destination, entry.destinationWildcard);
    test.ports[0] = *source;
    test.ports[1] = *destination;
    return test;
}

// Both of the entry's addresses are held against the packet's source: one test, unless they contradict each other.
std::optional<ColumnTest> ipv6Test(const zelAclIpv6Entry &entry) {
    ColumnTest test;
    for (std::size_t k = 0; k < 4; ++k) {
        const auto wordOf = [k](const std::uint8_t *bytes) { return wire::load<std::uint32_t>(bytes + 4 * k); };
        const Word source = masked(wordOf(entry.source), wordOf(entry.sourceMask));
        const Word destination = masked(wordOf(entry.destination), wordOf(entry.destinationMask));
        if (((source.value ^ destination.value) & source.mask & destination.mask) != 0) return std::nullopt;
        test.words[k] = {source.mask | destination.mask, source.value | destination.value, false};
    }
    return test;
}

template <class Entry>
ColumnEntries compile(const std::vector<Entry> &entries, std::optional<ColumnTest> (*testOf)(const Entry &)) {
    ColumnEntries compiled;
    if (entries.size() < columnsFrom) return compiled;
    std::set<ColumnTest> seen;
    for (const Entry &entry : entries)
        if (const auto test = testOf(entry); test && seen.insert(*test).second)
            compiled.push_back({*test, entry.action});
    return compiled;
}

// How many entries pass a word of the query, summed over the queries that the entries themselves make likely.
std::uint64_t weightOf(const ColumnEntries &entries, std::size_t word) {
    std::map<Word, std::uint64_t> groups;
    std::uint64_t weight = 0;
    for (const ColumnEntry &entry : entries) {
        const Word &asked = entry.test.words[word];
        if (asked.mask == 0 || asked.isTurned)
            weight += entries.size();
        else
            ++groups[asked];
    }
    for (const auto &[asked, count] : groups) weight += count * count;
    return weight;
}

// The words, the one first that fewest entries pass.
WordOrder orderOf(const ColumnEntries &entries, std::size_t words) {
    std::array<std::uint64_t, 4> weights = {};
    for (std::size_t k = 0; k < words; ++k) weights[k] = weightOf(entries, k);
    WordOrder order = {0, 1, 2, 3};
    std::stable_sort(order.begin(), order.begin() + static_cast<std::ptrdiff_t>(words),
                     [&](std::uint8_t a, std::uint8_t b) { return weights[a] < weights[b]; });
    return order;
}

ColumnLayout layoutOf(const ColumnEntries &entries, std::size_t words, bool isFlow) {
    return {words, isFlow, (entries.size() + platform::columnLanes - 1) / platform::columnLanes};
}

// ---- Writing --------------------------------------------------------------------------------------------------------

// Bytes of an image under construction, handed out one behind the other.
class Places {
public:
    explicit Places(Image *at) : begin_(reinterpret_cast<std::uint8_t *>(at)) {}
    std::uint32_t take(std::size_t bytes, std::size_t alignment) {
        const auto address = reinterpret_cast<std::uintptr_t>(begin_) + end_;
        const std::size_t place = end_ + (alignment - address % alignment) % alignment;
        end_ = place + bytes;
        return static_cast<std::uint32_t>(place);
    }
    std::uint8_t *at(std::size_t place) const { return begin_ + place; }

private:
    std::uint8_t *begin_;
    std::size_t end_ = sizeof(AclImage);
};

template <class T>
void put(std::uint8_t *column, std::size_t index, T value) {
    memcpy(column + index * sizeof value, &value, sizeof value);
}

void turnLane(std::uint8_t *turned, std::size_t index) {
    std::uint16_t lanes;
    turned += index / platform::columnLanes * sizeof lanes;
    memcpy(&lanes, turned, sizeof lanes);
    put(turned, 0, static_cast<std::uint16_t>(lanes | 1u << index % platform::columnLanes));
}

void putEntry(std::uint8_t *columns, const ColumnLayout &at, std::size_t index, const ColumnEntry &entry,
              const WordOrder &order) {
    for (std::size_t k = 0; k < at.words; ++k) {
        const Word &word = entry.test.words[order[k]];
        put(columns + at.masks(k), index, word.mask);
        put(columns + at.values(k), index, word.value);
        if (word.isTurned) turnLane(columns + at.turned(k), index);
    }
    for (std::size_t k = 0; at.isFlow && k < 2; ++k) {
        put(columns + at.lows(k), index, entry.test.ports[k].low);
        put(columns + at.spans(k), index, entry.test.ports[k].span);
    }
    put(columns + at.actions(), index, entry.action);
}

AclColumns putColumns(Places &places, const ColumnEntries &entries, const ColumnLayout &at) {
    const WordOrder order = orderOf(entries, at.words);
    const std::uint32_t begin = places.take(at.bytes(), cacheLine);
    std::uint8_t *columns = places.at(begin);
    for (std::size_t i = 0; i < entries.size(); ++i) putEntry(columns, at, i, entries[i], order);
    for (std::size_t i = entries.size(); i < at.blocks * platform::columnLanes; ++i)
        put(columns + at.values(0), i, std::uint32_t{1});  // under a mask of 0: no entry
    put(columns + at.actions(), at.blocks * platform::columnLanes, deny);
    return {begin, static_cast<std::uint32_t>(at.blocks), {order[0], order[1], order[2], order[3]}};
}

// Calls `visit` with each field of a record and the member of the entry that it holds.
template <class Entry, class Visit>
void eachField(Entry &entry, Visit visit) {
    visit(IpRecord::Action(), entry.action);
    visit(IpRecord::Source(), entry.source);
    visit(IpRecord::SourceWildcard(), entry.sourceWildcard);
    visit(IpRecord::Destination(), entry.destination);
    visit(IpRecord::DestinationWildcard(), entry.destinationWildcard);
    visit(IpRecord::Protocol(), entry.protocol);
    visit(IpRecord::Kind(), entry.kind);
    visit(IpRecord::SourceOperator(), entry.sourceOperator);
    visit(IpRecord::DestinationOperator(), entry.destinationOperator);
    visit(IpRecord::SourcePort(), entry.sourcePort);
    visit(IpRecord::SourcePortEnd(), entry.sourcePortEnd);
    visit(IpRecord::DestinationPort(), entry.destinationPort);
    visit(IpRecord::DestinationPortEnd(), entry.destinationPortEnd);
}

void putRecord(std::uint8_t *record, const zelAclIpEntry &entry) {
    eachField(entry, [&](auto field, auto value) { field.set(record, value); });
}

void putRecord(std::uint8_t *record, const zelAclIpv6Entry &entry) {
    Ipv6Record::Action::set(record, entry.action);
    memcpy(record + Ipv6Record::source, entry.source, sizeof entry.source);
    memcpy(record + Ipv6Record::sourceMask, entry.sourceMask, sizeof entry.sourceMask);
    memcpy(record + Ipv6Record::destination, entry.destination, sizeof entry.destination);
    memcpy(record + Ipv6Record::destinationMask, entry.destinationMask, sizeof entry.destinationMask);
}

template <class Record, class Entry>
AclChain putChain(Places &places, const std::vector<Entry> &entries) {
    if (entries.empty()) return {};
    const std::uint32_t sequences = places.take(entries.size() * sizeof(std::uint32_t), alignof(std::uint32_t));
    const std::uint32_t head = places.take(entries.size() * Record::size, 1);
    for (std::size_t i = 0; i < entries.size(); ++i) {
        const std::size_t place = head + i * Record::size;
        const bool isLast = i + 1 == entries.size();
        Record::Next::set(places.at(place), isLast ? 0 : static_cast<std::uint32_t>(place + Record::size));
        putRecord(places.at(place), entries[i]);
        put(places.at(sequences), i, entries[i].sequence);
    }
    return {head, static_cast<std::uint32_t>(entries.size()), sequences};
}

// ---- Reading --------------------------------------------------------------------------------------------------------

void getRecord(const std::uint8_t *record, zelAclIpEntry *entry) {
    eachField(*entry, [&](auto field, auto &value) { value = field.get(record); });
}

void getRecord(const std::uint8_t *record, zelAclIpv6Entry *entry) {
    entry->action = Ipv6Record::Action::get(record);
    memcpy(entry->source, record + Ipv6Record::source, sizeof entry->source);
    memcpy(entry->sourceMask, record + Ipv6Record::sourceMask, sizeof entry->sourceMask);
    memcpy(entry->destination, record + Ipv6Record::destination, sizeof entry->destination);
    memcpy(entry->destinationMask, record + Ipv6Record::destinationMask, sizeof entry->destinationMask);
}

template <class Record, class Entry>
bool readChain(const Bytes &image, const AclChain &chain, std::vector<Entry> *entries) {
    entries->clear();
    const std::size_t count = policy::readOnce(chain.entries);
    const auto *sequences = policy::inside<std::uint32_t>(image, chain.sequences, count);
    if (sequences == nullptr) return false;
    std::uint32_t next = chain.head;
    for (std::size_t i = 0; i < count; ++i) {
        const void *record = policy::inside(image, next, Record::size);
        if (next == 0 || record == nullptr) return false;
        Entry &entry = entries->emplace_back();
        entry.sequence = sequences[i];
        getRecord(static_cast<const std::uint8_t *>(record), &entry);
        next = Record::Next::get(record);
    }
    return next == 0;
}

}  // namespace

AclImageMaker::AclImageMaker(AclEntries entries)
    : entries_(std::move(entries)),
      ip_(compile(entries_.ip, ipTest)),
      udp_(compile(entries_.ip, udpTest)),
      ipv6_(compile(entries_.ipv6, ipv6Test)) {}

std::size_t AclImageMaker::bytes() const {
    const std::size_t ip = entries_.ip.size() * (IpRecord::size + sizeof(std::uint32_t)),
                      ipv6 = entries_.ipv6.size() * (Ipv6Record::size + sizeof(std::uint32_t)),
                      columns = layoutOf(ip_, 2, false).bytes() + layoutOf(udp_, 2, true).bytes() +
                                layoutOf(ipv6_, 4, false).bytes();
    return sizeof(AclImage) + ip + ipv6 + columns + 2 * alignof(std::uint32_t) + 3 * cacheLine;
}

void AclImageMaker::write(Image *at) const {
    auto *list = reinterpret_cast<AclImage *>(at);
    Places places(at);
    list->ip = putChain<IpRecord>(places, entries_.ip);
    list->ipv6 = putChain<Ipv6Record>(places, entries_.ipv6);
    if (entries_.ip.size() >= columnsFrom) {
        list->ipColumns = putColumns(places, ip_, layoutOf(ip_, 2, false));
        list->udpColumns = putColumns(places, udp_, layoutOf(udp_, 2, true));
    }
    if (entries_.ipv6.size() >= columnsFrom) list->ipv6Columns = putColumns(places, ipv6_, layoutOf(ipv6_, 4, false));
}

bool readAclImage(const Bytes &image, AclEntries *entries) {
    const auto *list = policy::inside<AclImage>(image, 0);
    return list != nullptr && readChain<IpRecord>(image, list->ip, &entries->ip) &&
           readChain<Ipv6Record>(image, list->ipv6, &entries->ipv6);
}

bool isWholeAclImage(const Bytes &image) {
    AclEntries entries;
    if (!readAclImage(image, &entries) || image.header()->entries != entries.ip.size() + entries.ipv6.size())
        return false;
    const AclImageMaker maker(entries);
    if (maker.bytes() != image.bytes) return false;
    std::vector<std::uint8_t> again(image.bytes + cacheLine);
    const auto address = [](const std::uint8_t *bytes) { return reinterpret_cast<std::uintptr_t>(bytes); };
    std::uint8_t *begin = again.data() + (address(image.begin) - address(again.data())) % cacheLine;
    maker.write(reinterpret_cast<Image *>(begin));
    return memcmp(begin + sizeof(Image), image.begin + sizeof(Image), image.bytes - sizeof(Image)) == 0;
}

}  // namespace zel::aclmgr
