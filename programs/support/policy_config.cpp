#include "policy_config.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <fstream>
#include <iterator>
#include <optional>

namespace zel::programs {
namespace {

constexpr std::uint32_t codeNoExpression = 0x39000014, codeIsStandard = 0x3900001a, codeIsExtended = 0x3900001b,
                        codePrefixRange = 0x3900001f, codePrefixSequence = 0x39000025, codeSequence = 0x39000029,
                        codeMixedClauses = 0x3900002b, codeIsStandardCommunity = 0x39000031,
                        codeSequenceRange = 0x3900002d, codeValueRange = 0x3900002f;
constexpr std::uint8_t permit = 0, deny = 1;
constexpr std::uint8_t udp = 17, tcp = 6;
constexpr std::uint8_t anyPort = 255;

struct Word {
    std::string_view text;
    unsigned column;
};

// One line, taken word by word. The first thing that is wrong with it ends its reading.
class Line {
public:
    Line(std::string_view text, unsigned number, std::vector<ConfigProblem> &problems)
        : text_(text), number_(number), problems_(&problems) {
        if (!text_.empty() && text_.back() == '\r') text_.remove_suffix(1);
        skipBlanks();
    }

    bool atEnd() const { return at_ >= text_.size(); }
    bool begins(std::string_view mark) const { return text_.substr(at_).starts_with(mark); }
    bool isBad() const { return isBad_; }

    Word peek() const {
        const std::size_t end = std::min(text_.find_first_of(" \t", at_), text_.size());
        return {text_.substr(at_, end - at_), static_cast<unsigned>(at_ + 1)};
    }
    Word take() {
        const Word word = peek();
        at_ += word.text.size();
        last_ = word.column;
        skipBlanks();
        return word;
    }
    // Takes the next word if it is this one.
    bool takes(std::string_view word) {
        if (peek().text != word) return false;
        take();
        return true;
    }
    std::string_view takeRest() {
        std::string_view rest = text_.substr(at_);
        last_ = static_cast<unsigned>(at_ + 1);
        rest.remove_suffix(rest.size() - (rest.find_last_not_of(" \t") + 1));
        at_ = text_.size();
        return rest;
    }

    // Something is wrong with the next word, or with the last one that was taken.
    std::nullopt_t complain(std::string text) { return complainAt(static_cast<unsigned>(at_ + 1), std::move(text)); }
    std::nullopt_t complainOfLast(std::string text) { return complainAt(last_, std::move(text)); }
    std::nullopt_t complainOfLast(std::uint32_t code, const std::string &name = {}) {
        return complainOfLast(textOfCode(code, name));
    }

private:
    void skipBlanks() { at_ = std::min(text_.find_first_not_of(" \t", at_), text_.size()); }
    std::nullopt_t complainAt(unsigned column, std::string text) {
        if (!isBad_) problems_->push_back({number_, column, std::move(text)});
        isBad_ = true;
        return std::nullopt;
    }

    std::string_view text_;
    std::size_t at_ = 0;
    unsigned number_;
    unsigned last_ = 1;
    bool isBad_ = false;
    std::vector<ConfigProblem> *problems_;
};

// ---- Words ----------------------------------------------------------------------------------------------------------

template <class Number>
bool isNumber(std::string_view text, Number &value) {
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    return error == std::errc() && end == text.data() + text.size();
}

template <class Number>
std::optional<Number> takeNumber(Line &line, Number low, Number high) {
    Number value{};
    if (line.atEnd()) return line.complain("a number is missing");
    if (!isNumber(line.take().text, value)) return line.complainOfLast(codeValueRange);
    if (value < low || value > high) return line.complainOfLast(codeValueRange);
    return value;
}

std::optional<std::uint8_t> takeAction(Line &line) {
    if (line.takes("permit")) return permit;
    if (line.takes("deny")) return deny;
    return line.complain("permit or deny is expected");
}

bool isAddress(std::string_view text, int family, std::uint8_t *bytes) {
    return inet_pton(family, std::string(text).c_str(), bytes) == 1;
}

std::uint32_t wordOf(const std::uint8_t *bytes) {
    std::uint32_t word;
    memcpy(&word, bytes, sizeof word);
    return ntohl(word);
}

std::uint32_t maskOf(unsigned length) {
    return length == 0 ? 0 : ~std::uint32_t{0} << (32 - length);
}

void fillMask(std::uint8_t *mask, unsigned length) {
    for (unsigned i = 0; i < 16; ++i) {
        const unsigned ones = length <= 8 * i ? 0 : std::min(length - 8 * i, 8u);
        mask[i] = static_cast<std::uint8_t>(0xff00u >> ones);
    }
}

// ADDRESS/LENGTH, bits behind the length cleared.
struct Prefix {
    std::uint8_t address[16] = {}, mask[16] = {};
    unsigned length = 0;
};

std::optional<Prefix> prefixFrom(Line &line, std::string_view text, int family) {
    const std::size_t slash = text.find('/');
    const unsigned most = family == AF_INET ? 32 : 128;
    Prefix prefix;
    if (!isAddress(text.substr(0, slash), family, prefix.address)) return line.complainOfLast("this is no address");
    prefix.length = most;
    if (slash != text.npos && (!isNumber(text.substr(slash + 1), prefix.length) || prefix.length > most))
        return line.complainOfLast(codeValueRange);
    fillMask(prefix.mask, prefix.length);
    for (unsigned i = 0; i < 16; ++i) prefix.address[i] &= prefix.mask[i];
    return prefix;
}

// any, host ADDRESS, ADDRESS/LENGTH, ADDRESS WILDCARD, or ADDRESS.
struct Range {
    std::uint32_t address = 0, wildcard = UINT32_MAX;
};

std::optional<Range> takeRange(Line &line) {
    if (line.takes("any")) return Range{};
    const bool isHost = line.takes("host");
    if (line.atEnd()) return line.complain("an address is missing");
    const auto prefix = prefixFrom(line, line.take().text, AF_INET);
    if (!prefix) return std::nullopt;
    Range range{wordOf(prefix->address), ~maskOf(prefix->length)};
    std::uint8_t wildcard[16];
    if (!isHost && prefix->length == 32 && !line.atEnd() && isAddress(line.peek().text, AF_INET, wildcard)) {
        range.wildcard = wordOf(wildcard);
        line.take();
    }
    return range;
}

std::optional<Prefix> takeIpv6Range(Line &line) {
    if (line.takes("any")) return Prefix{};
    line.takes("host");
    if (line.atEnd()) return line.complain("an address is missing");
    return prefixFrom(line, line.take().text, AF_INET6);
}

struct Ports {
    std::uint8_t operation = anyPort;
    std::uint16_t port = 0, end = 0;
};

// [eq|neq|gt|lt N | range N N]
std::optional<Ports> takePorts(Line &line) {
    constexpr std::uint16_t last = UINT16_MAX;
    const std::string_view word = line.peek().text;
    const auto one = [&line](std::uint8_t operation, std::uint16_t low, std::uint16_t high,
                             int shift) -> std::optional<Ports> {
        line.take();
        const auto port = takeNumber<std::uint16_t>(line, low, high);
        if (!port) return std::nullopt;
        return Ports{operation, static_cast<std::uint16_t>(*port + shift), 0};
    };
    if (word == "eq") return one(1, 0, last, 0);
    if (word == "neq") return one(4, 0, last, 0);
    if (word == "gt") return one(2, 0, last - 1, 1);
    if (word == "lt") return one(3, 1, last, -1);
    if (word != "range") return Ports{};
    auto ports = one(5, 0, last, 0);
    if (!ports) return std::nullopt;
    const auto end = takeNumber<std::uint16_t>(line, ports->port, last);
    if (!end) return std::nullopt;
    ports->end = *end;
    return ports;
}

std::optional<std::uint8_t> takeProtocol(Line &line) {
    static constexpr struct {
        const char *name;
        std::uint8_t number;
    } protocols[] = {{"ip", 0},   {"icmp", 1}, {"igmp", 2},  {"tcp", tcp}, {"udp", udp},
                     {"gre", 47}, {"esp", 50}, {"ospf", 89}, {"pim", 103}};
    for (const auto &protocol : protocols)
        if (line.takes(protocol.name)) return protocol.number;
    if (line.atEnd()) return line.complain("a protocol is missing");
    std::uint8_t number = 0;
    if (isNumber(line.take().text, number)) return number;
    return line.complainOfLast("this is no protocol");
}

// ---- Entries --------------------------------------------------------------------------------------------------------

std::optional<zelAclIpEntry> takeStandard(Line &line) {
    const auto action = takeAction(line);
    const auto source = action ? takeRange(line) : std::nullopt;
    if (!source) return std::nullopt;
    zelAclIpEntry entry{};
    entry.action = *action;
    entry.kind = 1;
    entry.source = source->address;
    entry.sourceWildcard = source->wildcard;
    entry.destinationWildcard = UINT32_MAX;
    entry.sourceOperator = entry.destinationOperator = anyPort;
    return entry;
}

std::optional<zelAclIpEntry> takeExtended(Line &line) {
    const auto action = takeAction(line);
    const auto protocol = action ? takeProtocol(line) : std::nullopt;
    const bool hasPorts = protocol && (*protocol == udp || *protocol == tcp);
    const auto source = protocol ? takeRange(line) : std::nullopt;
    const auto sourcePorts = source ? (hasPorts ? takePorts(line) : Ports{}) : std::nullopt;
    const auto destination = sourcePorts ? takeRange(line) : std::nullopt;
    const auto destinationPorts = destination ? (hasPorts ? takePorts(line) : Ports{}) : std::nullopt;
    if (!destinationPorts) return std::nullopt;
    zelAclIpEntry entry{};
    entry.action = *action;
    entry.protocol = *protocol;
    entry.source = source->address;
    entry.sourceWildcard = source->wildcard;
    entry.destination = destination->address;
    entry.destinationWildcard = destination->wildcard;
    entry.sourceOperator = sourcePorts->operation;
    entry.sourcePort = sourcePorts->port;
    entry.sourcePortEnd = sourcePorts->end;
    entry.destinationOperator = destinationPorts->operation;
    entry.destinationPort = destinationPorts->port;
    entry.destinationPortEnd = destinationPorts->end;
    return entry;
}

std::optional<zelAclIpv6Entry> takeIpv6(Line &line) {
    const auto action = takeAction(line);
    line.takes("ipv6");
    const auto source = action ? takeIpv6Range(line) : std::nullopt;
    const auto destination = source ? (line.atEnd() ? Prefix{} : takeIpv6Range(line)) : std::nullopt;
    if (!destination) return std::nullopt;
    zelAclIpv6Entry entry{};
    entry.action = *action;
    memcpy(entry.source, source->address, 16);
    memcpy(entry.sourceMask, source->mask, 16);
    memcpy(entry.destination, destination->address, 16);
    memcpy(entry.destinationMask, destination->mask, 16);
    return entry;
}

// ADDRESS/LENGTH, or in IPv4 ADDRESS MASK with a mask that may have holes.
std::optional<Prefix> takePrefix(Line &line, int family) {
    if (line.atEnd()) return line.complain("a prefix is missing");
    auto prefix = prefixFrom(line, line.take().text, family);
    std::uint8_t mask[16];
    if (!prefix || family != AF_INET || prefix->length != 32 || !isAddress(line.peek().text, AF_INET, mask))
        return prefix;
    line.take();
    for (unsigned i = 0; i < 4; ++i) {
        prefix->mask[i] = mask[i];
        prefix->address[i] &= mask[i];
    }
    return prefix;
}

std::optional<zelAclPrefixEntry> takePrefixEntry(Line &line, int family) {
    const auto action = takeAction(line);
    const auto prefix = action ? takePrefix(line, family) : std::nullopt;
    if (!prefix) return std::nullopt;
    zelAclPrefixEntry entry{};
    entry.action = *action;
    const std::size_t width = family == AF_INET ? 4 : 16;
    memcpy(entry.address, prefix->address, width);
    memcpy(entry.mask, prefix->mask, width);
    const auto most = static_cast<std::uint8_t>(8 * width);
    for (const auto &[word, bound] : {std::pair{"ge", &entry.ge}, {"le", &entry.le}}) {
        if (!line.takes(word)) continue;
        const auto length = takeNumber<std::uint8_t>(line, 0, most);
        if (!length) return std::nullopt;
        *bound = *length;
    }
    if (entry.le != 0 && entry.ge > entry.le) return line.complainOfLast(codePrefixRange);
    return entry;
}

std::optional<std::string> takePattern(Line &line) {
    if (line.atEnd()) return line.complain("an expression is missing");
    std::string pattern(line.takeRest());
    char why[120];
    if (aclPatternCheck(pattern.c_str(), why, sizeof why) == 0) return pattern;
    return line.complainOfLast(textOfCode(codeNoExpression) + " (" + why + ")");
}

std::optional<PathEntry> takePath(Line &line) {
    const auto action = takeAction(line);
    const auto pattern = action ? takePattern(line) : std::nullopt;
    if (!pattern) return std::nullopt;
    return PathEntry{0, *action, *pattern};
}

bool takeCommunity(Line &line, CommunityEntry &entry) {
    if (line.takes("no-export")) return entry.noExport = true;
    if (line.takes("no-advertise")) return entry.noAdvertise = true;
    if (line.takes("local-AS")) return entry.localAs = true;
    const std::string_view text = line.take().text;
    const std::size_t colon = text.find(':');
    std::uint16_t high = 0, low = 0;
    std::uint32_t value = 0;
    if (colon == text.npos ? isNumber(text, value)
                           : isNumber(text.substr(0, colon), high) && isNumber(text.substr(colon + 1), low)) {
        entry.values.push_back(colon == text.npos ? value : std::uint32_t{high} << 16 | low);
        return true;
    }
    line.complainOfLast("this is no community");
    return false;
}

std::optional<CommunityEntry> takeCommunities(Line &line, bool isExpanded) {
    const auto action = takeAction(line);
    if (!action) return std::nullopt;
    CommunityEntry entry;
    entry.action = *action;
    entry.kind = isExpanded ? 2 : 1;
    if (isExpanded) {
        const auto pattern = takePattern(line);
        if (!pattern) return std::nullopt;
        entry.pattern = *pattern;
        return entry;
    }
    if (line.atEnd()) return line.complain("a community is missing");
    while (!line.atEnd())
        if (!takeCommunity(line, entry)) return std::nullopt;
    return entry;
}

std::optional<MapEntry::Clause> takeClause(Line &line) {
    MapEntry::Clause clause{};
    if (line.takes("as-path")) {
        clause.match = ZEL_ACLMGR_MATCH_ASPATH;
    } else if (line.takes("community")) {
        clause.match = ZEL_ACLMGR_MATCH_COMMUNITY;
    } else {
        if (!line.takes("ip") && !line.takes("ipv6"))
            return line.complain("ip, ipv6, as-path or community is expected");
        if (line.takes("next-hop"))
            clause.match = ZEL_ACLMGR_MATCH_NEXT_HOP;
        else if (line.takes("address"))
            clause.match = line.takes("prefix-list") ? ZEL_ACLMGR_MATCH_PREFIX : ZEL_ACLMGR_MATCH_ADDRESS;
        else
            return line.complain("address or next-hop is expected");
    }
    while (!line.atEnd()) clause.names.emplace_back(line.take().text);
    if (clause.match == ZEL_ACLMGR_MATCH_COMMUNITY && !clause.names.empty() && clause.names.back() == "exact-match") {
        clause.names.pop_back();
        clause.match = ZEL_ACLMGR_MATCH_COMMUNITY_EXACT;
    }
    if (clause.names.empty()) return line.complain("the name of a list is missing");
    return clause;
}

// ---- The whole ------------------------------------------------------------------------------------------------------

// Puts an entry where its sequence number belongs, giving it the next multiple of 5 if it has none.
template <class Entry>
void place(Line &line, std::vector<Entry> &list, Entry entry, std::uint32_t sequence, std::uint32_t codeTwice) {
    using Sequence = decltype(Entry::sequence);
    const std::uint64_t number = sequence != 0  ? sequence
                                 : list.empty() ? 5
                                                : (std::uint64_t{list.back().sequence} / 5 + 1) * 5;
    if (number > static_cast<Sequence>(-1)) return void(line.complainOfLast(codeSequenceRange));
    entry.sequence = static_cast<Sequence>(number);
    const auto at = std::lower_bound(list.begin(), list.end(), number,
                                     [](const Entry &a, std::uint64_t b) { return a.sequence < b; });
    if (at != list.end() && at->sequence == number) return void(line.complainOfLast(codeTwice));
    list.insert(at, std::move(entry));
}

class Reader {
public:
    explicit Reader(PolicyConfig &config) : config_(config) {}

    void read(Line &line) {
        if (line.atEnd() || line.begins("!") || line.begins("#") || line.takes("exit") || line.takes("end")) return;
        if (!readHead(line)) readEntry(line);
        if (!line.atEnd() && !line.isBad()) line.complain("nothing is expected here");
    }

private:
    enum class Kind { none, standard, extended, ipv6, prefix, prefix6, path, community, expanded, map };

    // The line that names a list, maybe with an entry behind.
    bool readHead(Line &line) {
        const std::string_view first = line.peek().text;
        if (first != "ip" && first != "ipv6" && first != "route-map") return false;
        line.take();
        kind_ = first == "ip" ? ipKind(line) : first == "ipv6" ? ipv6Kind(line) : Kind::map;
        if (kind_ != Kind::none && takeName(line)) {
            if (kind_ == Kind::map)
                startSequence(line);
            else if (makeList(line) && !line.atEnd())
                readEntry(line);
        }
        if (line.isBad()) kind_ = Kind::none;
        return true;
    }

    Kind ipKind(Line &line) {
        if (line.takes("prefix-list")) return Kind::prefix;
        if (line.takes("access-list")) {
            if (line.takes("standard")) return Kind::standard;
            if (line.takes("extended")) return Kind::extended;
            line.complain("standard or extended is expected");
        } else if (line.takes("as-path")) {
            if (line.takes("access-list")) return Kind::path;
            line.complain("access-list is expected");
        } else if (line.takes("community-list")) {
            if (line.takes("standard")) return Kind::community;
            if (line.takes("expanded")) return Kind::expanded;
            line.complain("standard or expanded is expected");
        } else {
            line.complain("access-list, prefix-list, as-path or community-list is expected");
        }
        return Kind::none;
    }

    Kind ipv6Kind(Line &line) {
        if (line.takes("access-list")) return Kind::ipv6;
        if (line.takes("prefix-list")) return Kind::prefix6;
        line.complain("access-list or prefix-list is expected");
        return Kind::none;
    }

    bool takeName(Line &line) {
        name_ = line.take().text;
        if (name_.empty()) line.complainOfLast("a name is missing");
        if (name_.size() > ZEL_POLICY_NAME) line.complainOfLast("the name is too long (max = 140)");
        return !line.isBad();
    }

    // The list is there from now on, entries or not.
    bool makeList(Line &line) {
        switch (kind_) {
            case Kind::standard:
            case Kind::extended: {
                auto &list = config_.ip[name_];
                const bool isOther = !list.empty() && (list.front().kind == 1) != (kind_ == Kind::standard);
                if (isOther) line.complainOfLast(kind_ == Kind::standard ? codeIsExtended : codeIsStandard, name_);
                break;
            }
            case Kind::ipv6:
                config_.ipv6[name_];
                break;
            case Kind::prefix:
                config_.prefix[name_];
                break;
            case Kind::prefix6:
                config_.prefix6[name_];
                break;
            case Kind::path:
                config_.paths[name_];
                break;
            default: {
                const auto &list = config_.communities[name_];
                const bool isOther = !list.empty() && (list.front().kind == 2) != (kind_ == Kind::expanded);
                if (isOther && kind_ == Kind::expanded) line.complainOfLast(codeIsStandardCommunity);
                if (isOther && kind_ == Kind::community) line.complainOfLast("the list is an expanded one");
            }
        }
        return !line.isBad();
    }

    void startSequence(Line &line) {
        const auto action = takeAction(line);
        const auto number = action ? takeNumber<std::uint32_t>(line, 1, UINT32_MAX) : std::nullopt;
        if (!number) return;
        sequence_ = *number;
        place(line, config_.maps[name_], MapEntry{0, *action, {}}, *number, codeSequence);
    }

    void readEntry(Line &line) {
        if (line.takes("remark") || line.takes("description")) return void(line.takeRest());
        if (kind_ == Kind::none) {
            if (!line.isBad()) line.complain("this belongs to no list");
            return;
        }
        if (kind_ == Kind::map) return readClause(line);
        std::uint32_t sequence = 0;
        if (line.takes("seq")) {
            const auto number = takeNumber<std::uint32_t>(line, 1, UINT32_MAX);
            if (!number) return;
            sequence = *number;
        }
        readListEntry(line, sequence);
    }

    template <class Entry>
    void add(Line &line, Lists<Entry> &lists, std::optional<Entry> entry, std::uint32_t sequence,
             std::uint32_t codeTwice = codeSequence) {
        if (entry && line.atEnd()) place(line, lists[name_], std::move(*entry), sequence, codeTwice);
    }

    void readListEntry(Line &line, std::uint32_t sequence) {
        switch (kind_) {
            case Kind::standard:
                return add(line, config_.ip, takeStandard(line), sequence);
            case Kind::extended:
                return add(line, config_.ip, takeExtended(line), sequence);
            case Kind::ipv6:
                return add(line, config_.ipv6, takeIpv6(line), sequence);
            case Kind::prefix:
                return add(line, config_.prefix, takePrefixEntry(line, AF_INET), sequence, codePrefixSequence);
            case Kind::prefix6:
                return add(line, config_.prefix6, takePrefixEntry(line, AF_INET6), sequence, codePrefixSequence);
            case Kind::path:
                return add(line, config_.paths, takePath(line), sequence);
            default:
                return add(line, config_.communities, takeCommunities(line, kind_ == Kind::expanded), sequence);
        }
    }

    void readClause(Line &line) {
        if (!line.takes("match")) return void(line.complain("match is expected"));
        const auto clause = takeClause(line);
        if (!clause) return;
        for (MapEntry &entry : config_.maps[name_])
            if (entry.sequence == sequence_) addClause(line, entry, *clause);
    }

    static void addClause(Line &line, MapEntry &entry, const MapEntry::Clause &clause) {
        const auto excludes = [&clause](zelAclMatch one, zelAclMatch other) {
            return [&clause, one, other](const MapEntry::Clause &there) {
                return clause.match == one && there.match == other;
            };
        };
        for (const auto &test : {excludes(ZEL_ACLMGR_MATCH_PREFIX, ZEL_ACLMGR_MATCH_ADDRESS),
                                 excludes(ZEL_ACLMGR_MATCH_ADDRESS, ZEL_ACLMGR_MATCH_PREFIX)})
            if (std::any_of(entry.clauses.begin(), entry.clauses.end(), test))
                return void(line.complainOfLast(codeMixedClauses));
        for (MapEntry::Clause &there : entry.clauses)
            if (there.match == clause.match)
                return void(there.names.insert(there.names.end(), clause.names.begin(), clause.names.end()));
        entry.clauses.push_back(clause);
    }

    PolicyConfig &config_;
    Kind kind_ = Kind::none;
    std::string name_;
    std::uint32_t sequence_ = 0;
};

}  // namespace

std::string textOfCode(std::uint32_t code, const std::string &name) {
    std::string text = aclRetCodeToStr(code, name.c_str());
    text.erase(0, text.find_first_not_of(' ', std::min<std::size_t>(text.find(':') + 1, text.size())));
    while (!text.empty() && (text.back() == '\r' || text.back() == '\n')) text.pop_back();
    return text;
}

std::vector<ConfigProblem> readPolicyConfig(std::string_view text, PolicyConfig &config) {
    std::vector<ConfigProblem> problems;
    Reader reader(config);
    for (unsigned number = 1; !text.empty(); ++number) {
        const std::size_t end = std::min(text.find('\n'), text.size());
        Line line(text.substr(0, end), number, problems);
        reader.read(line);
        text.remove_prefix(std::min(end + 1, text.size()));
    }
    return problems;
}

std::vector<ConfigProblem> readPolicyFile(const std::string &file, PolicyConfig &config) {
    std::ifstream in(file, std::ios::binary);
    const std::string text{std::istreambuf_iterator<char>(in), {}};
    if (!in) return {{0, 0, strerror(errno)}};
    return readPolicyConfig(text, config);
}

}  // namespace zel::programs
