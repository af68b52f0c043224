#include "policy_text.h"

#include <arpa/inet.h>

#include <bit>
#include <cstring>

namespace zel::programs {
namespace {

constexpr std::uint8_t udp = 17, tcp = 6;

std::string actionOf(std::uint8_t action) {
    return action == 0 ? "permit" : "deny";
}

std::string dotted(std::uint32_t word) {
    const std::uint32_t bytes = htonl(word);
    char text[INET_ADDRSTRLEN];
    return inet_ntop(AF_INET, &bytes, text, sizeof text);
}

std::string address6(const std::uint8_t *bytes) {
    char text[INET6_ADDRSTRLEN];
    return inet_ntop(AF_INET6, bytes, text, sizeof text);
}

std::string rangeOf(std::uint32_t address, std::uint32_t wildcard) {
    if (wildcard == UINT32_MAX && address == 0) return "any";
    if (wildcard == 0) return "host " + dotted(address);
    return dotted(address) + ' ' + dotted(wildcard);
}

// Leading ones, or nothing of use for a mask with holes.
unsigned lengthOf(const std::uint8_t *mask, std::size_t width) {
    unsigned length = 0;
    for (std::size_t i = 0; i < width; ++i) {
        length += static_cast<unsigned>(std::countl_one(mask[i]));
        if (mask[i] != 0xff) break;
    }
    return length;
}

bool isPrefix(const std::uint8_t *mask, std::size_t width) {
    unsigned ones = 0;
    for (std::size_t i = 0; i < width; ++i) ones += static_cast<unsigned>(std::popcount(mask[i]));
    return ones == lengthOf(mask, width);
}

std::string range6(const std::uint8_t *address, const std::uint8_t *mask) {
    const unsigned length = lengthOf(mask, 16);
    if (!isPrefix(mask, 16)) return address6(address) + ' ' + address6(mask);
    return length == 0 ? "any" : address6(address) + '/' + std::to_string(length);
}

std::string portsOf(std::uint8_t operation, std::uint16_t port, std::uint16_t end) {
    switch (operation) {
        case 1:
            return " eq " + std::to_string(port);
        case 2:
            return " gt " + std::to_string(port - 1);
        case 3:
            return " lt " + std::to_string(port + 1);
        case 4:
            return " neq " + std::to_string(port);
        case 5:
            return " range " + std::to_string(port) + ' ' + std::to_string(end);
        default:
            return "";
    }
}

std::string protocolOf(std::uint8_t protocol) {
    return protocol == 0 ? "ip" : protocol == udp ? "udp" : protocol == tcp ? "tcp" : std::to_string(protocol);
}

template <class Entry, class Write>
void writeLists(std::string &out, const char *head, const Lists<Entry> &lists, const Write &write) {
    for (const auto &[name, list] : lists) {
        out += std::string(head) + ' ' + name + '\n';
        for (const Entry &entry : list) out += " seq " + std::to_string(entry.sequence) + ' ' + write(entry) + '\n';
        out += "!\n";
    }
}

// Lists of two kinds that are told apart by their first entry.
template <class Entry, class Is>
Lists<Entry> only(const Lists<Entry> &lists, const Is &is) {
    Lists<Entry> some;
    for (const auto &[name, list] : lists)
        if (is(list)) some.emplace(name, list);
    return some;
}

template <class Entry, class Write>
void writeTwoKinds(std::string &out, const char *head, const char *otherHead, const Lists<Entry> &lists,
                   std::uint8_t otherKind, const Write &write) {
    const auto isOther = [otherKind](const auto &list) { return !list.empty() && list.front().kind == otherKind; };
    writeLists(out, head, only(lists, [&](const auto &list) { return !isOther(list); }), write);
    writeLists(out, otherHead, only(lists, isOther), write);
}

void writeMaps(std::string &out, const Lists<MapEntry> &maps) {
    for (const auto &[name, map] : maps)
        for (const MapEntry &entry : map) {
            out += "route-map " + name + ' ' + actionOf(entry.action) + ' ' + std::to_string(entry.sequence) + '\n';
            for (const MapEntry::Clause &clause : entry.clauses) out += ' ' + textOf(clause) + '\n';
            out += "!\n";
        }
}

template <class Entry, class Write>
std::string find(const Lists<Entry> &lists, const std::string &name, std::uint32_t sequence, const Write &write) {
    const auto list = lists.find(name);
    if (list == lists.end()) return "";
    for (const Entry &entry : list->second)
        if (entry.sequence == sequence) return write(entry);
    return "";
}

}  // namespace

std::string textOfEntry(const PolicyConfig &lists, const std::string &kind, const std::string &name,
                        std::uint32_t sequence) {
    const auto text = [](const auto &entry) { return textOf(entry); };
    const auto prefix = [](int family) { return [family](const auto &entry) { return textOf(entry, family); }; };
    std::string entry = "no entry";
    if (sequence != 0)
        entry = kind == "acl"         ? find(lists.ip, name, sequence, text)
                : kind == "acl6"      ? find(lists.ipv6, name, sequence, text)
                : kind == "prefix"    ? find(lists.prefix, name, sequence, prefix(ZEL_POLICY_IPV4))
                : kind == "prefix6"   ? find(lists.prefix6, name, sequence, prefix(ZEL_POLICY_IPV6))
                : kind == "aspath"    ? find(lists.paths, name, sequence, text)
                : kind == "community" ? find(lists.communities, name, sequence, text)
                                      : find(lists.maps, name, sequence, text);
    return kind + (sequence != 0 ? " seq " + std::to_string(sequence) : "") + ' ' + entry;
}

std::string textOf(const MapEntry &entry) {
    std::string text = actionOf(entry.action);
    for (const MapEntry::Clause &clause : entry.clauses) text += "; " + textOf(clause);
    return text;
}

std::string textOf(const zelAclIpEntry &entry) {
    const std::string source = rangeOf(entry.source, entry.sourceWildcard);
    if (entry.kind == 1) return actionOf(entry.action) + ' ' + source;
    return actionOf(entry.action) + ' ' + protocolOf(entry.protocol) + ' ' + source +
           portsOf(entry.sourceOperator, entry.sourcePort, entry.sourcePortEnd) + ' ' +
           rangeOf(entry.destination, entry.destinationWildcard) +
           portsOf(entry.destinationOperator, entry.destinationPort, entry.destinationPortEnd);
}

std::string textOf(const zelAclIpv6Entry &entry) {
    return actionOf(entry.action) + ' ' + range6(entry.source, entry.sourceMask) + ' ' +
           range6(entry.destination, entry.destinationMask);
}

std::string textOf(const zelAclPrefixEntry &entry, int family) {
    const bool isIpv4 = family == ZEL_POLICY_IPV4;
    const std::size_t width = isIpv4 ? 4 : 16;
    std::uint32_t word, mask;
    memcpy(&word, entry.address, sizeof word);
    memcpy(&mask, entry.mask, sizeof mask);
    std::string text = actionOf(entry.action) + ' ' + (isIpv4 ? dotted(ntohl(word)) : address6(entry.address));
    if (isPrefix(entry.mask, width))
        text += '/' + std::to_string(lengthOf(entry.mask, width));
    else
        text += ' ' + (isIpv4 ? dotted(ntohl(mask)) : address6(entry.mask));
    if (entry.ge != 0) text += " ge " + std::to_string(entry.ge);
    if (entry.le != 0) text += " le " + std::to_string(entry.le);
    return text;
}

std::string textOf(const PathEntry &entry) {
    return actionOf(entry.action) + ' ' + entry.pattern;
}

std::string textOfCommunity(std::uint32_t value) {
    return std::to_string(value >> 16) + ':' + std::to_string(value & 0xffff);
}

std::string textOf(const CommunityEntry &entry) {
    std::string text = actionOf(entry.action);
    if (entry.kind == 2) return text + ' ' + entry.pattern;
    for (const std::uint32_t value : entry.values) text += ' ' + textOfCommunity(value);
    if (entry.localAs) text += " local-AS";
    if (entry.noAdvertise) text += " no-advertise";
    if (entry.noExport) text += " no-export";
    return text;
}

std::string textOf(const MapEntry::Clause &clause) {
    static constexpr const char *heads[] = {"",
                                            "match ip address prefix-list",
                                            "match ip address",
                                            "match ip next-hop",
                                            "match as-path",
                                            "match community",
                                            "match community"};
    std::string text = heads[clause.match];
    for (const std::string &name : clause.names) text += ' ' + name;
    if (clause.match == ZEL_ACLMGR_MATCH_COMMUNITY_EXACT) text += " exact-match";
    return text;
}

std::string textOf(const PolicyConfig &config, bool hits) {
    std::string out;
    const auto prefixText = [hits](int family) {
        return [hits, family](const zelAclPrefixEntry &entry) {
            return textOf(entry, family) + (hits ? "\n! hits " + std::to_string(entry.hits) : "");
        };
    };
    const auto text = [](const auto &entry) { return textOf(entry); };
    writeTwoKinds(out, "ip access-list extended", "ip access-list standard", config.ip, 1, text);
    writeLists(out, "ipv6 access-list", config.ipv6, text);
    writeLists(out, "ip prefix-list", config.prefix, prefixText(ZEL_POLICY_IPV4));
    writeLists(out, "ipv6 prefix-list", config.prefix6, prefixText(ZEL_POLICY_IPV6));
    writeLists(out, "ip as-path access-list", config.paths, text);
    writeTwoKinds(out, "ip community-list standard", "ip community-list expanded", config.communities, 2, text);
    writeMaps(out, config.maps);
    return out;
}

}  // namespace zel::programs
