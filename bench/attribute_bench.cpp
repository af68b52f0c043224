// Attributes of routes: results that are known already, and the Internet table through a prefix list, an AS-path list
// and a community list, each route asked of all three.
#include <absl/container/flat_hash_map.h>
#include <arpa/inet.h>
#include <regex.h>

#include <algorithm>
#include <charconv>
#include <cstring>
#include <fstream>
#include <memory>
#include <random>
#include <shared_mutex>
#include <sstream>
#include <string>
#include <vector>

#include "base/wire.h"
#include "bench/support/row.h"
#include "tests/support/table.h"
#include "zel/aclmgr.h"
#include "zel/policy.h"

namespace {

using namespace zel::bench;
using zel::test::column;

// ---- The table ------------------------------------------------------------------------------------------------------

struct Route {
    uint32_t address = 0, mask = 0;
    std::string path;      // the attribute
    std::string pathText;  // what its peers have instead
    std::vector<uint32_t> communities;
    std::string communityText;
};

uint32_t numberOf(std::string_view text) {
    uint32_t number = 0;
    std::from_chars(text.data(), text.data() + text.size(), number);
    return number;
}

uint32_t communityOf(std::string_view text) {
    return numberOf(text) << 16 | numberOf(text.substr(text.find(':') + 1));
}

std::vector<uint32_t> wordsOf(const std::string &text, uint32_t (*valueOf)(std::string_view)) {
    std::vector<uint32_t> values;
    std::istringstream words(text);
    for (std::string word; words >> word;) values.push_back(valueOf(word));
    return values;
}

// One sequence of AS numbers.
std::string attributeOf(const std::vector<uint32_t> &numbers) {
    std::string bytes(2 + 4 * numbers.size(), '\0');
    auto *at = reinterpret_cast<uint8_t *>(bytes.data());
    at[0] = 2;
    at[1] = static_cast<uint8_t>(numbers.size());
    for (size_t i = 0; i < numbers.size(); ++i) zel::wire::store<uint32_t>(at + 2 + 4 * i, numbers[i]);
    return bytes;
}

Route routeOf(std::string_view row) {
    Route route;
    const std::string_view prefix = column(row);
    const size_t slash = prefix.find('/');
    in_addr address{};
    inet_pton(AF_INET, std::string(prefix.substr(0, slash)).c_str(), &address);
    const uint32_t length = numberOf(prefix.substr(slash + 1));
    route.address = ntohl(address.s_addr);
    route.mask = length ? ~0u << (32 - length) : 0;
    column(row);
    route.pathText = column(row);
    if (route.pathText.find('{') != std::string::npos) route.pathText.clear();  // sets are left out
    route.path = attributeOf(wordsOf(route.pathText, numberOf));
    route.communityText = column(row);
    route.communities = wordsOf(route.communityText, communityOf);
    return route;
}

const std::vector<Route> &routes() {
    static const auto table = [] {
        std::vector<Route> rows;
        zel::test::eachRow("rib4_full_2015-10.txt.xz", [&](std::string_view row) { rows.push_back(routeOf(row)); });
        return rows;
    }();
    return table;
}

// ---- The lists ------------------------------------------------------------------------------------------------------

constexpr size_t prefixes = 1000, expressions = 20, communityEntries = 20;

// Of the table's own routes; every third entry takes longer prefixes too, every fifth denies.
const std::vector<zelAclPrefixEntry> &prefixEntries() {
    static const auto made = [] {
        std::mt19937 random(1);
        std::vector<zelAclPrefixEntry> list;
        for (size_t i = 0; i < prefixes; ++i) {
            const Route &route = routes()[1 + random() % (routes().size() - 1)];
            zelAclPrefixEntry entry{};
            entry.sequence = static_cast<uint16_t>(i + 1);
            entry.action = i % 5 == 4;
            entry.le = i % 3 == 0 ? 32 : 0;
            zel::wire::store<uint32_t>(entry.address, route.address);
            zel::wire::store<uint32_t>(entry.mask, route.mask);
            list.push_back(entry);
        }
        return list;
    }();
    return made;
}

std::vector<std::vector<std::string>> rowsOf(const char *file) {
    std::ifstream in(std::string(ZEL_DATA_DIR "/") + file);
    std::vector<std::vector<std::string>> rows;
    for (std::string line; std::getline(in, line);) {
        if (line.starts_with('#')) continue;
        std::istringstream columns(line);
        rows.emplace_back();
        for (std::string text; std::getline(columns, text, '\t');) rows.back().push_back(text);
    }
    return rows;
}

struct Rule {
    uint8_t action;
    std::string pattern;  // empty: values
    std::vector<uint32_t> values;
};

// Operators' expressions that do not match every path.
const std::vector<Rule> &pathRules() {
    static const auto made = [] {
        std::vector<Rule> rules;
        for (const auto &row : rowsOf("aspath_regex.txt"))
            if (rules.size() < expressions && row[3].find_first_of("0123456789") != std::string::npos)
                rules.push_back({row[2] == "deny", row[3], {}});
        return rules;
    }();
    return made;
}

// Operators' expressions first, then values.
const std::vector<Rule> &communityRules() {
    static const auto made = [] {
        std::vector<Rule> rules;
        for (const bool areExpanded : {true, false})
            for (const auto &row : rowsOf("community_lists.txt")) {
                if (rules.size() == communityEntries || areExpanded != (row[2] == "expanded")) continue;
                const uint8_t action = row[3] == "deny";
                if (areExpanded)
                    rules.push_back({action, row[4], {}});
                else
                    rules.push_back({action, "", wordsOf(row[4], communityOf)});
            }
        return rules;
    }();
    return made;
}

// What each list permitted.
struct Tally {
    size_t prefix = 0, path = 0, community = 0;
    bool operator==(const Tally &) const = default;
};

class Ours {
public:
    Ours() {
        zelAclMgr *manager = zelAclMgrOpen(ZEL_ACLMGR_PRIMARY);
        std::vector<zelAclAspEntry> paths;
        for (const Rule &rule : pathRules()) paths.push_back({0, rule.action, rule.pattern.c_str()});
        std::vector<zelAclCommEntry> communities;
        for (const Rule &rule : communityRules()) {
            const bool isExpanded = !rule.pattern.empty();
            communities.push_back({0, rule.action, static_cast<uint8_t>(isExpanded ? 2 : 1), 0, 0, 0,
                                   static_cast<uint32_t>(rule.values.size()), rule.values.data(),
                                   isExpanded ? rule.pattern.c_str() : nullptr});
        }
        if (!manager || zelAclMgrSetPrefixList(manager, "bench", 1, prefixEntries().data(), prefixes) ||
            zelAclMgrSetAspList(manager, "bench", paths.data(), expressions) ||
            zelAclMgrSetCommList(manager, "bench", communities.data(), communityEntries))
            return;
        zelAclMgrClose(manager);
        prefix_ = ipPrefixListFind("bench", nullptr, 1);
        path_ = bgpAspListFind("bench");
        community_ = bgpCommListFind("bench");
    }
    bool isMade() const { return prefix_ && path_ && community_; }

    Tally tally() const {
        Tally tally;
        for (const Route &route : routes()) {
            tally.prefix += prefixListCheckWithHandle(prefix_, route.address, route.mask) == 0;
            tally.path += bgpAccessASPMatch(path_, route.path.data(), static_cast<int>(route.path.size())) == 0;
            tally.community += bgpAccessCommMatch(community_, route.communities.data(),
                                                  static_cast<int>(route.communities.size())) == 0;
        }
        return tally;
    }

private:
    zelPrefixList *prefix_ = nullptr;
    zelAspList *path_ = nullptr;
    zelCommList *community_ = nullptr;
};

const Ours &lists() {
    static const Ours made;
    return made;
}

class Regex {
public:
    explicit Regex(const std::string &pattern) {
        std::string text;
        for (const char mark : pattern) mark == '_' ? text += "(^|[,{}() ]|$)" : text += mark;
        regcomp(&compiled_, text.c_str(), REG_EXTENDED | REG_NOSUB);
    }
    ~Regex() { regfree(&compiled_); }
    Regex(const Regex &) = delete;
    bool matches(const std::string &text) const { return regexec(&compiled_, text.c_str(), 0, nullptr, 0) == 0; }

private:
    regex_t compiled_;
};

// Entry by entry, over texts that are there already.
class Linear {
public:
    Linear() {
        for (size_t i = 0; i < prefixes; ++i) {
            const zelAclPrefixEntry &entry = prefixEntries()[i];
            const auto mask = zel::wire::load<uint32_t>(entry.mask);
            chain_.push_back({zel::wire::load<uint32_t>(entry.address), mask,
                              static_cast<uint32_t>(__builtin_popcount(mask)), entry.le, entry.action, 0});
        }
        for (const Rule &rule : pathRules()) paths_.push_back(std::make_unique<Regex>(rule.pattern));
        for (const Rule &rule : communityRules())
            communities_.push_back(rule.pattern.empty() ? nullptr : std::make_unique<Regex>(rule.pattern));
    }

    Tally tally() {
        Tally tally;
        for (const Route &route : routes()) {
            tally.prefix += permitsPrefix(route);
            tally.path += permitsPath(route);
            tally.community += permitsCommunities(route);
        }
        return tally;
    }

private:
    struct Entry {
        uint32_t address, mask, length;
        uint8_t le, action;
        uint32_t hits;
    };

    bool permitsPrefix(const Route &route) {
        const auto length = static_cast<uint32_t>(__builtin_popcount(route.mask));
        for (Entry &entry : chain_) {
            if ((route.address & entry.mask) != entry.address) continue;
            if (entry.le ? length < entry.length || length > entry.le : length != entry.length) continue;
            ++entry.hits;
            return entry.action == 0;
        }
        return false;
    }
    bool permitsPath(const Route &route) const {
        for (size_t i = 0; i < paths_.size(); ++i)
            if (paths_[i]->matches(route.pathText)) return pathRules()[i].action == 0;
        return false;
    }
    bool permitsCommunities(const Route &route) const {
        for (size_t i = 0; i < communities_.size(); ++i) {
            const Rule &rule = communityRules()[i];
            const auto has = [&](uint32_t value) {
                return std::find(route.communities.begin(), route.communities.end(), value) != route.communities.end();
            };
            if (communities_[i] ? communities_[i]->matches(route.communityText)
                                : std::all_of(rule.values.begin(), rule.values.end(), has))
                return rule.action == 0;
        }
        return false;
    }

    std::vector<Entry> chain_;
    std::vector<std::unique_ptr<Regex>> paths_, communities_;
};

const Tally &rightTally() {
    static const Tally tally = Linear().tally();
    return tally;
}

// As in a routing process that has just begun: the cache is empty at first, and has room for what the table has.
void oursTable(benchmark::State &state) {
    const Ours &ours = lists();
    if (!ours.isMade() || rightTally().path == 0) return state.SkipWithError("no lists");
    Tally tally;
    for (auto _ : state) {
        if (aclRegexOptzInit(1, 1, 1 << 17, 64) != 0) return state.SkipWithError("no cache");
        tally = ours.tally();
        aclRegexOptzClose();
    }
    if (tally != rightTally()) state.SkipWithError("verdicts differ");
}

void linearTable(benchmark::State &state) {
    static Linear linear;
    for (auto _ : state) benchmark::DoNotOptimize(linear.tally());
}

ZEL_ROW("the bundled table through a prefix list of 1,000, an AS-path list of 20 and a community list of 20", "ms",
        time)
    .ours(oursTable)
    .peer("linear evaluation", linearTable, 0.1)
    .once();

// ---- A result that is known -----------------------------------------------------------------------------------------

constexpr size_t askedPaths = 1024;

// Paths of the table, each of another one.
const std::vector<const Route *> &asked() {
    static const auto chosen = [] {
        std::vector<const Route *> some;
        for (size_t i = 0; some.size() < askedPaths; i += routes().size() / (2 * askedPaths))
            if (some.empty() || some.back()->path != routes()[i].path) some.push_back(&routes()[i]);
        return some;
    }();
    return chosen;
}

template <class Result>
void eachKnown(benchmark::State &state, Result result) {
    size_t expression = 0, path = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(result(expression, asked()[path]->path));
        path = (path + 1) % askedPaths;
        if (path == 0) expression = (expression + 1) % expressions;
    }
}

void oursKnown(benchmark::State &state) {
    if (!lists().isMade()) return state.SkipWithError("no lists");
    zelRegex *all[expressions];
    aclWriteLock();
    for (size_t i = 0; i < expressions; ++i) all[i] = zelbgp_regcomp(pathRules()[i].pattern.c_str());
    aclWriteUnlock();
    if (!all[0] || aclRegexOptzInit(1, 1, 4 * askedPaths, 64) != 0) return state.SkipWithError("no cache");
    const auto result = [&](size_t expression, const std::string &path) {
        return zelbgp_regexec(all[expression], nullptr, path.data(), static_cast<int>(path.size()), 1, 1);
    };
    for (size_t i = 0; i < expressions; ++i)
        for (const Route *route : asked()) result(i, route->path);
    eachKnown(state, result);
    aclRegexOptzClose();
    aclWriteLock();
    for (zelRegex *expression : all) zelbgp_regex_free(expression);
    aclWriteUnlock();
}

// One look-up finds the results of all expressions.
void mapKnown(benchmark::State &state) {
    std::shared_mutex lock;
    absl::flat_hash_map<std::string, std::vector<int>> known;
    for (const Route *route : asked()) known[route->path] = std::vector<int>(expressions, 1);
    eachKnown(state, [&](size_t expression, const std::string &path) {
        const std::shared_lock guard(lock);
        return known.find(path)->second[expression];
    });
}

ZEL_ROW("cached result", "ns", time).ours(oursKnown).peer("absl::flat_hash_map hit + read-lock pair", mapKnown, 1.0);

}  // namespace
