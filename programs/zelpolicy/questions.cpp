#include "questions.h"

#include <arpa/inet.h>

#include <algorithm>
#include <charconv>
#include <cstring>

#include "programs/support/attributes.h"
#include "programs/support/options.h"
#include "programs/support/policy_text.h"

namespace zelpolicy {
namespace {

using zel::programs::Lists;
using zel::programs::PolicyConfig;
using zel::programs::textOf;

std::uint32_t wordOf(const std::uint8_t *bytes) {
    std::uint32_t word;
    memcpy(&word, bytes, sizeof word);
    return ntohl(word);
}

bool complain(std::string &error, const std::string &what) {
    error = what;
    return false;
}

// Says what decided: an entry, the end of the list, or that there is none.
template <class Entry, class Text>
void explain(Answer &answer, const Lists<Entry> &lists, const Text &text) {
    const auto list = lists.find(answer.list);
    if (list == lists.end()) {
        answer.why = "there is no such list, which permits";
    } else if (list->second.empty()) {
        answer.why = "the list has no entries, which permits";
    } else if (answer.sequence == 0) {
        answer.why = "no entry matches, which denies";
    } else {
        const auto entry = std::find_if(list->second.begin(), list->second.end(),
                                        [&](const Entry &there) { return there.sequence == answer.sequence; });
        if (entry != list->second.end()) answer.entry = text(*entry);
        answer.why = "the first entry that matches";
    }
}

bool answerAcl(const Words &words, const PolicyConfig &lists, Answer &answer, std::string &error) {
    Prefix source, destination;
    if (words.size() < 2 || words.size() > 3 || !readPrefix(words[1], source) ||
        !readPrefix(words.size() == 3 ? words[2] : words[1], destination) || source.family != destination.family)
        return complain(error, "acl NAME SOURCE [DESTINATION]: two addresses of one family");
    if (source.family == ZEL_POLICY_IPV4) {
        const std::uint32_t from = wordOf(source.address), to = words.size() == 3 ? wordOf(destination.address) : 0;
        const zelIpAcl *list = ipAccessListFind(words[0].c_str());
        answer.verdict = ipAccessListCheckWithHandle(list, from, to);
        answer.sequence = ipAccessListEntry(list, from, to);
        explain(answer, lists.ip, [](const auto &entry) { return textOf(entry); });
    } else {
        const zelIpAcl *list = aclV6AccessListFind(words[0].c_str());
        answer.verdict = aclV6AccessListCheckWithHandle(list, source.address, destination.address);
        answer.sequence = aclV6AccessListEntry(list, source.address);
        explain(answer, lists.ipv6, [](const auto &entry) { return textOf(entry); });
        if (answer.sequence != 0) answer.why += "; source and destination of an entry are both held against the source";
    }
    return true;
}

bool answerUdp(const Words &words, const PolicyConfig &lists, Answer &answer, std::string &error) {
    Prefix source, destination;
    std::uint16_t sourcePort = 0, destinationPort = 0;
    using zel::programs::readNumber;
    if (words.size() != 5 || !readPrefix(words[1], source) || !readPrefix(words[3], destination) ||
        source.family != ZEL_POLICY_IPV4 || destination.family != ZEL_POLICY_IPV4 ||
        !readNumber<std::uint16_t>(words[2].c_str(), 0, UINT16_MAX, sourcePort) ||
        !readNumber<std::uint16_t>(words[4].c_str(), 0, UINT16_MAX, destinationPort))
        return complain(error, "udp NAME SOURCE PORT DESTINATION PORT: IPv4 addresses and ports");
    const std::uint32_t from = wordOf(source.address), to = wordOf(destination.address);
    const zelIpAcl *list = ipAccessListFind(words[0].c_str());
    answer.verdict = ipUdpAccessListCheck(words[0].c_str(), from, 0, to, 0, sourcePort, destinationPort);
    answer.sequence = ipUdpAccessListEntry(list, from, to, sourcePort, destinationPort);
    explain(answer, lists.ip, [](const auto &entry) { return textOf(entry); });
    if (answer.sequence != 0)
        answer.why += " of those for UDP; a wildcard of all ones asks for another address, one of zeroes for none";
    return true;
}

bool answerPrefix(const Words &words, const PolicyConfig &lists, Answer &answer, std::string &error) {
    Prefix prefix;
    if (words.size() != 2 || !readPrefix(words[1], prefix)) return complain(error, "prefix NAME ADDRESS/LENGTH");
    zelPrefixList *list = ipPrefixListFind(words[0].c_str(), nullptr, prefix.family);
    answer.verdict = prefixListCheckNew(list, words[0].c_str(), prefix.address, prefix.length, prefix.family, nullptr);
    answer.sequence = prefixListEntry(list, prefix.address, prefix.length, prefix.family);
    explain(answer, prefix.family == ZEL_POLICY_IPV4 ? lists.prefix : lists.prefix6, [&](const auto &entry) {
        answer.hits = entry.hits;
        return textOf(entry, prefix.family);
    });
    if (answer.sequence != 0) answer.why = "the lowest sequence number of the entries that match";
    return true;
}

std::string joined(const Words &words, std::size_t from) {
    std::string text;
    for (std::size_t i = from; i < words.size(); ++i) text += (i > from ? " " : "") + words[i];
    return text;
}

bool answerPath(const Words &words, const PolicyConfig &lists, Answer &answer, std::string &error) {
    if (words.empty()) return complain(error, "aspath NAME [AS-NUMBER...]");
    const std::string path = joined(words, 1);
    const zelAspList *list = bgpAspListFind(words[0].c_str());
    answer.verdict = static_cast<std::uint32_t>(bgp_as_path_match(list, path.c_str(), nullptr));
    answer.sequence = bgpAspListTextEntry(list, path.c_str());
    explain(answer, lists.paths, [](const auto &entry) { return textOf(entry); });
    return true;
}

bool readCommunities(const std::string &text, std::vector<std::uint32_t> &values) {
    std::string numbers = text;
    for (const auto &[name, number] :
         {std::pair{"no-export", "65535:65281"}, {"no-advertise", "65535:65282"}, {"local-AS", "65535:65283"}})
        for (std::size_t at; (at = numbers.find(name)) != numbers.npos;) numbers.replace(at, strlen(name), number);
    zel::programs::Attributes attributes;
    if (!zel::programs::encodeAttributes("", numbers, attributes)) return false;
    for (std::size_t at = 4; at + 4 <= attributes.length; at += 4) values.push_back(wordOf(attributes.bytes + at));
    return true;
}

bool answerCommunity(const Words &words, const PolicyConfig &lists, Answer &answer, std::string &error) {
    std::vector<std::uint32_t> values;
    if (words.empty() || !readCommunities(joined(words, 1), values))
        return complain(error, "community NAME [HIGH:LOW...]");
    const zelCommList *list = bgpCommListFind(words[0].c_str());
    answer.verdict = bgp_commlist_match(words[0].c_str(), values.data(), static_cast<int>(values.size()));
    answer.sequence = bgpCommListEntry(list, values.data(), static_cast<int>(values.size()));
    explain(answer, lists.communities, [](const auto &entry) { return textOf(entry); });
    if (list == nullptr) answer.why = "there is no such list, which for communities denies";
    return true;
}

// NAME PREFIX [next-hop ADDRESS] [path "1 2 3"] [communities "1:1 2:2"]
bool answerMap(const Words &words, const PolicyConfig &lists, Answer &answer, std::string &error) {
    const char *usage = "routemap NAME PREFIX [next-hop ADDRESS] [path TEXT] [communities TEXT]";
    Prefix prefix, nextHop;
    std::vector<std::uint32_t> values;
    zelPolicyRoute route{};
    if (words.size() < 2 || words.size() % 2 != 0 || !readPrefix(words[1], prefix)) return complain(error, usage);
    route.family = prefix.family;
    memcpy(route.address, prefix.address, sizeof route.address);
    route.length = prefix.length;
    for (std::size_t i = 2; i < words.size(); i += 2) {
        if (words[i] == "next-hop" && readPrefix(words[i + 1], nextHop)) {
            route.nextHopFamily = nextHop.family;
            memcpy(route.nextHop, nextHop.address, sizeof route.nextHop);
        } else if (words[i] == "path") {
            route.pathText = words[i + 1].c_str();
        } else if (words[i] != "communities" || !readCommunities(words[i + 1], values)) {
            return complain(error, usage);
        }
    }
    route.communities = values.data();
    route.communityCount = static_cast<int>(values.size());
    const zelRouteMap *map = ipRouteMapFind(words[0].c_str());
    answer.verdict = ipRoutemapCheckWithHandleV4_V6(map, &route, nullptr);
    answer.sequence = ipRoutemapSequence(map, &route);
    explain(answer, lists.maps, [](const auto &entry) { return textOf(entry); });
    if (answer.sequence != 0) answer.why = "the first sequence of which every clause matches";
    return true;
}

}  // namespace

bool readPrefix(const std::string &text, Prefix &prefix) {
    const std::size_t slash = text.find('/');
    const std::string address = text.substr(0, slash);
    const bool isIpv4 = inet_pton(AF_INET, address.c_str(), prefix.address) == 1;
    if (!isIpv4 && inet_pton(AF_INET6, address.c_str(), prefix.address) != 1) return false;
    prefix.family = isIpv4 ? ZEL_POLICY_IPV4 : ZEL_POLICY_IPV6;
    const std::uint8_t most = isIpv4 ? 32 : 128;
    prefix.length = most;
    return slash == text.npos ||
           zel::programs::readNumber<std::uint8_t>(text.c_str() + slash + 1, 0, most, prefix.length);
}

bool answer(const std::string &command, const Words &arguments, const PolicyConfig &lists, Answer &answer,
            std::string &error) {
    static constexpr struct {
        const char *name;
        bool (*answer)(const Words &, const PolicyConfig &, Answer &, std::string &);
    } commands[] = {{"acl", answerAcl},
                    {"udp", answerUdp},
                    {"prefix", answerPrefix},
                    {"aspath", answerPath},
                    {"community", answerCommunity},
                    {"routemap", answerMap}};
    if (!arguments.empty()) answer.list = arguments[0];
    for (const auto &known : commands)
        if (command == known.name) return known.answer(arguments, lists, answer, error);
    return complain(error, "there is no question \"" + command + "\"");
}

}  // namespace zelpolicy
