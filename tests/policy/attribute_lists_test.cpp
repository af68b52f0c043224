// AS-path and community lists over a shared segment: verdicts against oracles, expressions that are shared, and the
// cache of results.
#include <gtest/gtest.h>
#include <regex.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <future>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "base/wire.h"
#include "policy/attribute_layout.h"
#include "policy/expression.h"
#include "tests/support/random.h"
#include "tests/support/table.h"
#include "zel/aclmgr.h"
#include "zel/platform.h"
#include "zel/policy.h"

namespace zel::test {
namespace {

using Words = std::vector<std::uint32_t>;

class PolicyLists : public testing::Test {
protected:
    void SetUp() override { ASSERT_NE(manager_, nullptr); }
    ~PolicyLists() override {
        aclRegexOptzClose();
        zelAclMgrAuditReport report;
        EXPECT_EQ(zelAclMgrAudit(manager_, &report), 0u);
        zelAclMgrClose(manager_);
    }

    void setAsp(const char *name, const std::vector<zelAclAspEntry> &entries) {
        EXPECT_EQ(zelAclMgrSetAspList(manager_, name, entries.data(), static_cast<std::uint32_t>(entries.size())), 0u);
    }
    void setComm(const char *name, const std::vector<zelAclCommEntry> &entries) {
        EXPECT_EQ(zelAclMgrSetCommList(manager_, name, entries.data(), static_cast<std::uint32_t>(entries.size())), 0u);
    }

    zelAclMgr *manager_ = zelAclMgrOpen(ZEL_ACLMGR_PRIMARY);
};

struct WriteLock {
    WriteLock() { ZEL_ShmWriteLock(ZEL_SHM_LOCK_POLICY); }
    ~WriteLock() { ZEL_ShmWriteUnLock(ZEL_SHM_LOCK_POLICY); }
};

bool isWriteLocked() {
    return std::async(std::launch::async,
                      [] {
                          const bool isFree = ZEL_ShmWriteUnLock(ZEL_SHM_LOCK_POLICY) != 0;
                          if (!isFree) ZEL_ShmWriteLock(ZEL_SHM_LOCK_POLICY);
                          return !isFree;
                      })
        .get();
}

zelRegex *compile(const char *pattern) {
    const WriteLock lock;
    return zelbgp_regcomp(pattern);
}

void release(zelRegex *expression) {
    const WriteLock lock;
    zelbgp_regex_free(expression);
}

// An AS path of one sequence as an attribute.
std::vector<std::uint8_t> pathOf(const Words &numbers) {
    std::vector<std::uint8_t> bytes{2, static_cast<std::uint8_t>(numbers.size())};
    for (const std::uint32_t number : numbers) {
        bytes.resize(bytes.size() + 4);
        wire::store<std::uint32_t>(bytes.data() + bytes.size() - 4, number);
    }
    return bytes;
}

int check(const zelAspList *list, const Words &path) {
    const auto bytes = pathOf(path);
    return bgpAccessASPMatch(list, bytes.data(), static_cast<int>(bytes.size()));
}

// ---- AS paths -------------------------------------------------------------------------------------------------------

TEST_F(PolicyLists, APathIsDecidedByTheFirstExpressionThatMatches) {
    setAsp("only", {{5, 1, "_100_"}, {10, 0, ".*"}});
    setAsp("none", {});
    const zelAspList *only = bgpAspListFind("only"), *none = bgpAspListFind("none");
    for (const Words &path : {Words{100}, Words{100, 7}, Words{7, 100}, Words{7, 100, 8}})
        EXPECT_EQ(check(only, path), 1);
    EXPECT_EQ(check(only, {1100}), 0);
    EXPECT_EQ(bgp_as_path_match(only, "7 {100,8}", nullptr), 1) << "a set's marks separate too";
    EXPECT_EQ(bgp_as_path_match(only, "", nullptr), 0);
    setAsp("only", {{5, 7, "^$"}, {10, 0, "_1_"}});
    EXPECT_EQ(bgp_as_path_match(only, "", nullptr), 1) << "the handle stays; any deny is 1";
    EXPECT_EQ(bgp_as_path_match(only, "2", nullptr), 1) << "nothing matches";
    EXPECT_EQ(check(none, {2}), 0);
    EXPECT_EQ(bgpAspListFind("other"), nullptr);
    EXPECT_EQ(bgp_as_path_match(nullptr, "1", nullptr) + bgpAccessASPMatch(nullptr, "", 1), 0);
    EXPECT_EQ(bgp_as_path_match(only, nullptr, nullptr) + bgpAccessASPMatch(only, "", 0) +
                  bgpAccessASPMatch(only, nullptr, 4),
              0);
    EXPECT_EQ(zelAclMgrAddAspEntry(manager_, "only", nullptr), 0x3900002fu);
    const zelAclAspEntry bad{0, 0, "(1"};
    EXPECT_EQ(zelAclMgrAddAspEntry(manager_, "only", &bad), 0x39000014u);
    const zelAclAspEntry nested{0, 0, "((((x{1,100}){1,100}){1,50}){1,10})"};
    EXPECT_EQ(zelAclMgrAddAspEntry(manager_, "only", &nested), 0x39000014u);
}

// ---- Communities ----------------------------------------------------------------------------------------------------

TEST_F(PolicyLists, StandardEntriesNeedAllOfTheirValues) {
    const std::uint32_t two[] = {1 << 16 | 1, 2 << 16 | 2};
    setComm("two", {{5, 0, 1, 0, 0, 0, 2, two, nullptr}});
    const zelCommList *list = bgpCommListFind("two");
    const auto verdict = [&](const Words &route) {
        return bgpAccessCommMatch(list, route.data(), static_cast<int>(route.size()));
    };
    EXPECT_EQ(verdict({two[1], 5, two[0]}), 0);
    EXPECT_EQ(verdict({two[1]}), 1);
    EXPECT_EQ(verdict({}), 1);
    EXPECT_EQ(bgpAccessCommMatchExact(list, two, 2), 0);
    const std::uint32_t more[] = {two[0], 5, two[1]}, twice[] = {two[1], two[0], two[1]};
    EXPECT_EQ(bgpAccessCommMatchExact(list, more, 3), 1);
    EXPECT_EQ(bgpAccessCommMatchExact(list, twice, 3), 0);
    EXPECT_EQ(bgp_commlist_match("unknown", two, 2), 0x39000001u);
    EXPECT_EQ(bgp_comm_match_exact("two", more, 3), 1u);
    setComm("two", {{5, 9, 1, 1, 0, 1, 0, nullptr, nullptr},
                    {10, 1, 2, 0, 0, 0, 0, nullptr, "^$"},
                    {15, 0, 1, 0, 0, 0, 0, nullptr, nullptr}});
    EXPECT_EQ(verdict({0xffffff03, 0xffffff01}), 9) << "the action as it stands";
    EXPECT_EQ(verdict({0xffffff03}), 0) << "an entry that asks nothing matches everything";
    EXPECT_EQ(verdict({}), 1);
}

struct CommOracle {
    struct Entry {
        std::uint8_t action;
        Words needed;
    };
    std::vector<Entry> entries;

    int verdict(const Words &route, bool exactly) const {
        if (entries.empty()) return 0;
        for (const Entry &entry : entries) {
            const std::set<std::uint32_t> has(route.begin(), route.end()),
                needs(entry.needed.begin(), entry.needed.end());
            const bool isThere = std::includes(has.begin(), has.end(), needs.begin(), needs.end());
            if (isThere && (!exactly || has == needs)) return entry.action;
        }
        return 1;
    }
};

TEST_F(PolicyLists, CommunitiesAgreeWithAnOracle) {
    Random random = seeded();
    const Words pool{1, 2, 3, 1 << 16, 65000u << 16 | 7, 0xffffff01, 0xffffff02, 0xffffff03};
    const auto some = [&](std::uint32_t most) {
        Words words;
        for (std::uint32_t n = random() % (most + 1); n > 0; --n) words.push_back(pool[random() % pool.size()]);
        return words;
    };
    for (int round = 0; round < (isFullRun() ? 2000 : 200); ++round) {
        CommOracle oracle;
        std::vector<zelAclCommEntry> entries;
        for (std::uint32_t n = random() % 6; n > 0; --n)
            oracle.entries.push_back({static_cast<std::uint8_t>(random() % 3), some(3)});
        std::vector<Words> values(oracle.entries.size());
        for (std::size_t i = 0; i < oracle.entries.size(); ++i) {
            zelAclCommEntry entry{};
            entry.sequence = static_cast<std::uint32_t>(i + 1);
            entry.action = oracle.entries[i].action;
            entry.kind = 1;
            for (const std::uint32_t value : oracle.entries[i].needed) {
                if (value == 0xffffff01 && random() % 2)
                    entry.noExport = 1;
                else if (value == 0xffffff03 && random() % 2)
                    entry.localAs = 1;
                else
                    values[i].push_back(value);
            }
            entry.count = static_cast<std::uint32_t>(values[i].size());
            entry.values = values[i].data();
            entries.push_back(entry);
        }
        setComm("random", entries);
        const zelCommList *list = bgpCommListFind("random");
        for (int query = 0; query < 500; ++query) {
            const Words route = some(5);
            const int count = static_cast<int>(route.size());
            ASSERT_EQ(bgpAccessCommMatch(list, route.data(), count), oracle.verdict(route, false));
            ASSERT_EQ(bgpAccessCommMatchExact(list, route.data(), count), oracle.verdict(route, true));
        }
    }
}

// ---- Real lists, with and without the cache
// --------------------------------------------------------------------------

std::string expanded(const std::string &pattern) {
    std::string text;
    for (const char mark : pattern) mark == '_' ? text += "(^|[,{}() ]|$)" : text += mark;
    return text;
}

// Expressions as the C library has them, which remembers what it said of a text.
class HostExpressions {
public:
    ~HostExpressions() {
        for (auto &[pattern, entry] : entries_) regfree(&entry.compiled);
    }
    bool matches(const std::string &pattern, const std::string &text) {
        Entry &entry = entries_[pattern];
        if (!entry.isCompiled && regcomp(&entry.compiled, expanded(pattern).c_str(), REG_EXTENDED | REG_NOSUB) != 0)
            ADD_FAILURE() << pattern;
        entry.isCompiled = true;
        const auto [known, isNew] = entry.results.try_emplace(text, false);
        if (isNew) known->second = regexec(&entry.compiled, text.c_str(), 0, nullptr, 0) == 0;
        return known->second;
    }

private:
    struct Entry {
        bool isCompiled = false;
        regex_t compiled;
        std::map<std::string, bool> results;
    };
    std::map<std::string, Entry> entries_;
};

// Rows of a file whose columns are separated by tabs.
std::vector<std::vector<std::string>> rowsOf(const char *file) {
    std::ifstream in(std::string(ZEL_DATA_DIR "/") + file);
    std::vector<std::vector<std::string>> rows;
    for (std::string line; std::getline(in, line);) {
        if (line.empty() || line[0] == '#') continue;
        std::istringstream columns(line);
        rows.emplace_back();
        for (std::string column; std::getline(columns, column, '\t');) rows.back().push_back(column);
    }
    return rows;
}

TEST_F(PolicyLists, OperatorsListsAgreeWithTheHostOverRealPaths) {
    std::map<std::string, std::vector<std::pair<std::uint8_t, std::string>>> lists;
    for (const auto &row : rowsOf("aspath_regex.txt"))
        if (row.size() == 4 && aclPatternCheck(row[3].c_str(), nullptr, 0) == 0)
            lists[row[0] + "/" + row[1]].emplace_back(row[2] == "deny", row[3]);
    ASSERT_GT(lists.size(), 10u);
    for (const auto &[name, entries] : lists)
        for (const auto &[action, pattern] : entries) {
            const zelAclAspEntry entry{0, action, pattern.c_str()};
            ASSERT_EQ(zelAclMgrAddAspEntry(manager_, name.c_str(), &entry), 0u);
        }
    std::vector<Words> paths;
    eachRow("rib4_full_2015-10.txt.xz", [&, row = 0](std::string_view text) mutable {
        if (row++ % (isFullRun() ? 50 : 1000) != 0) return;
        column(text), column(text);
        std::istringstream numbers{std::string(column(text))};
        Words path;
        for (std::uint32_t number; numbers >> number;) path.push_back(number);
        if (!path.empty()) paths.push_back(path);
    });
    ASSERT_GT(paths.size(), 400u);
    HostExpressions host;
    for (const bool isCached : {false, true}) {
        ASSERT_EQ(isCached ? aclRegexOptzInit(4, 1, 100, 40) : 0, 0) << "less room than there is to keep";
        for (const auto &[name, entries] : lists) {
            const zelAspList *list = bgpAspListFind(name.c_str());
            for (const Words &path : paths) {
                std::ostringstream text;
                for (const std::uint32_t &number : path) text << (&number == &path.front() ? "" : " ") << number;
                const auto decides = std::find_if(entries.begin(), entries.end(), [&](const auto &entry) {
                    return host.matches(entry.second, text.str());
                });
                const int verdict = decides == entries.end() ? 1 : decides->first;
                ASSERT_EQ(check(list, path), verdict) << name << ": " << text.str();
                ASSERT_EQ(check(list, path), verdict) << "again, " << name << ": " << text.str();
                ASSERT_EQ(bgp_as_path_match(list, text.str().c_str(), nullptr), verdict);
            }
        }
    }
    EXPECT_EQ(aclRegexOptzCacheSizeGet(), 100u);
}

TEST_F(PolicyLists, ExpandedEntriesReadCommunitiesAsText) {
    setComm("text", {{5, 1, 2, 0, 0, 0, 0, nullptr, "_no-export_"}, {10, 0, 2, 0, 0, 0, 0, nullptr, "^65000:(1|2) "}});
    const zelCommList *list = bgpCommListFind("text");
    const auto verdict = [&](const Words &route) {
        return bgpAccessCommMatch(list, route.data(), static_cast<int>(route.size()));
    };
    for (const bool isCached : {false, true}) {
        ASSERT_EQ(isCached ? aclRegexOptzInit(1, 1, 64, 64) : 0, 0);
        for (int again = 0; again < 2; ++again) {
            EXPECT_EQ(verdict({65000u << 16 | 2, 5}), 0);
            EXPECT_EQ(verdict({65000u << 16 | 2}), 1);
            EXPECT_EQ(verdict({65000u << 16 | 2, 0xffffff01}), 1);
            Words many(3000, 7);
            many.front() = 65000u << 16 | 1;
            EXPECT_EQ(verdict(many), 0) << "longer than what is made on the stack";
        }
    }
}

// ---- Expressions ----------------------------------------------------------------------------------------------------

TEST_F(PolicyLists, ExpressionsOfOnePatternAreOne) {
    zelRegex *expression = compile("^65000_");
    ASSERT_NE(expression, nullptr);
    EXPECT_EQ(compile("^65000_"), expression);
    EXPECT_EQ(zelbgp_regex_references(expression), 2u);
    EXPECT_STREQ(zelbgp_regex_pattern(expression), "^65000_");
    setAsp("list", {{5, 0, "^65000_"}, {10, 0, "^65000_"}});
    EXPECT_EQ(zelbgp_regex_references(expression), 4u);
    EXPECT_EQ(zelAclMgrResequence(manager_, ZEL_ACLMGR_ASPATH, "list", 1, 1), 0u);
    EXPECT_EQ(zelbgp_regex_references(expression), 4u);
    EXPECT_EQ(zelAclMgrRemoveList(manager_, ZEL_ACLMGR_ASPATH, "list"), 0u);
    EXPECT_EQ(zelbgp_regex_references(expression), 2u);
    EXPECT_EQ(zelbgp_regexec(expression, "65000 1", nullptr, 0, 0, 0), 0);
    EXPECT_NE(zelbgp_regexec(expression, "1 65000", nullptr, 0, 0, 0), 0);
    EXPECT_EQ(zelbgp_regexec(nullptr, "1", nullptr, 0, 0, 0), -1);
    EXPECT_EQ(zelbgp_regexec(expression, "1", "", 0, 3, 0), 0) << "an unknown type";
    EXPECT_EQ(compile("(^|"), nullptr);
    EXPECT_EQ(compile(nullptr), nullptr);
    EXPECT_EQ(compile(std::string(1025, 'a').c_str()), nullptr);
    release(expression);
    release(expression);
    zelRegex *other = compile("other");
    EXPECT_EQ(zelbgp_regex_references(other), 1u);
    release(other);
}

TEST_F(PolicyLists, ExpressionsWaitForThoseWhoHoldResults) {
    ASSERT_EQ(aclRegexOptzInit(8, 1, 16, 16), 0);
    ASSERT_EQ(aclRegexOptzInit(2, 1, 16, 16), 0) << "once";
    EXPECT_EQ(aclRegexOptzClientId, 8u);
    EXPECT_EQ(aclRegexOptzGetClientIndex(8), 3);
    zelRegex *expression = compile("_1_");
    const auto path = pathOf({1});
    const int length = static_cast<int>(path.size());
    EXPECT_EQ(zelbgp_regexec(expression, nullptr, path.data(), length, 1, 1), 0);
    const std::uint32_t index = expression->cachedIndex[3].load();
    int result = -1;
    const std::uint32_t node = aclRegexOptzCacheOpen(1, path.data(), path.size());
    EXPECT_EQ(aclRegexOptzCacheGet(node, index, &result), 0);
    EXPECT_EQ(result, 0);
    // The cache is believed, until the flag says to look again.
    EXPECT_EQ(aclRegexOptzCacheInsert(expression, node, index, 1), 0);
    EXPECT_EQ(zelbgp_regexec(expression, nullptr, path.data(), length, 1, 1), 1);
    aclRegexOptzVerifyFlagToggle();
    testing::internal::CaptureStdout();
    EXPECT_EQ(zelbgp_regexec(expression, nullptr, path.data(), length, 1, 1), 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Cached result of _1_ differs\r\n");
    EXPECT_EQ(zelbgp_regexec(expression, nullptr, path.data(), length, 1, 0), 0) << "not asked to use it";
    release(expression);
    zelRegex *again = compile("_1_");
    EXPECT_EQ(again, expression) << "taken back from those that wait";
    release(again);
    aclRegexPeriodicCacheCleanup();
    EXPECT_EQ(aclRegexOptzCacheGet(node, index, &result), -1);
    zelAclMgrAuditReport report;
    EXPECT_EQ(zelAclMgrAudit(manager_, &report), 0u);
    EXPECT_EQ(report.expressions, 0u);
    testing::internal::CaptureStdout();
    aclRegexOptzToggle();
    aclRegexOptzToggle();
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "aclRegexOptzEnabled is now DISABLED\r\naclRegexOptzEnabled is now ENABLED\r\n");
}

TEST_F(PolicyLists, HandlesAreMadeAndFreedUnderTheWriteLock) {
    EXPECT_EQ(aclRegexOptzHandleComp("(("), nullptr);
    EXPECT_FALSE(isWriteLocked());
    zelRegex *expression = aclRegexOptzHandleComp("1");
    EXPECT_TRUE(isWriteLocked());
    aclRegexOptzHandleFree(expression);
    EXPECT_FALSE(isWriteLocked());
}

// More expressions than there are indexes, and attributes than there is room, from several threads.
TEST_F(PolicyLists, ThreadsShareACacheThatIsTooSmall) {
    ASSERT_EQ(aclRegexOptzInit(1, 1, 8, 4), 0);
    std::vector<std::string> patterns;
    for (int i = 0; i < 12; ++i) patterns.push_back("_" + std::to_string(i) + "_");
    std::vector<zelAclAspEntry> entries;
    for (const std::string &pattern : patterns)
        entries.push_back({static_cast<std::uint32_t>(entries.size() + 1), 0, pattern.c_str()});
    for (int i = 0; i < 12; ++i) setAsp(std::to_string(i).c_str(), {entries[static_cast<std::size_t>(i)]});
    std::vector<std::thread> threads;
    for (unsigned t = 0; t < 3; ++t)
        threads.emplace_back([t] {
            for (std::uint32_t i = 0; i < 20000; ++i) {
                const std::uint32_t number = (i * 7 + t) % 12, other = (i / 3) % 24;
                const zelAspList *list = bgpAspListFind(std::to_string(number).c_str());
                ASSERT_EQ(check(list, {other}), number == other ? 0 : 1);
            }
        });
    for (auto &thread : threads) thread.join();
}

// Threads match while a writer replaces the list they match with, so that slots and indexes go from one expression to
// the next; waiting expressions are cleaned up, and the switch is thrown.
TEST_F(PolicyLists, ThreadsMatchWhileExpressionsComeAndGo) {
    ASSERT_EQ(aclRegexOptzInit(2, 1, 16, 6), 0);
    const auto listOf = [this](std::uint32_t number) {
        const std::string here = "_" + std::to_string(number) + "_", other = "_" + std::to_string(number + 1) + "_";
        setAsp("list", {{5, 0, here.c_str()}, {10, 0, other.c_str()}, {15, 1, "_9_"}, {20, 0, "_[0-9]{4}_"}});
    };
    listOf(100);
    std::atomic<bool> isOver{false};
    std::vector<std::thread> threads;
    for (unsigned t = 0; t < 3; ++t)
        threads.emplace_back([&isOver, t] {
            for (std::uint32_t i = t; !isOver; ++i) {
                aclReadLock();
                const zelAspList *list = bgpAspListFind("list");
                std::uint32_t count = 0;
                const auto *entry = policy::entriesOf<policy::AspEntry>(imageOf(list, policy::Kind::asPath), count);
                const auto number =
                    static_cast<std::uint32_t>(atoi(zelbgp_regex_pattern(policy::expressionAt(entry->expression)) + 1));
                const std::uint32_t asked = number - 2 + i % 6;
                EXPECT_EQ(check(list, {7, asked}), asked == number || asked == number + 1 ? 0 : 1) << number;
                EXPECT_EQ(check(list, {asked, 9, 1000 + i % 40}), asked == number || asked == number + 1 ? 0 : 1);
                aclReadUnlock();
            }
        });
    for (std::uint32_t i = 1; i < (isFullRun() ? 5000 : 300); ++i) {
        listOf(100 + i * 7 % 40);
        if (i % 5 == 0) aclRegexPeriodicCacheCleanup();
        if (i % 16 < 2) aclRegexOptzToggle();
    }
    isOver = true;
    for (auto &thread : threads) thread.join();
    aclRegexPeriodicCacheCleanup();
    zelAclMgrAuditReport report;
    EXPECT_EQ(zelAclMgrAudit(manager_, &report), 0u);
    EXPECT_EQ(report.expressions, 4u) << "those of the list";
}

// Two records that name one slot take turns in it; nobody matches with what was freed meanwhile.
TEST_F(PolicyLists, RecordsThatNameOneSlotAreBothMatched) {
    zelRegex *records[] = {compile("^1(2|3)*$"), compile("^1(4|5)*$")};
    const std::uint32_t slot = records[1]->slot;
    records[1]->slot = records[0]->slot;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([record = records[t % 2], t] {
            const std::string mine(2000, t % 2 ? '4' : '2'), others(2000, t % 2 ? '2' : '4');
            for (int i = 0; i < 200; ++i) {
                ASSERT_EQ(zelbgp_regexec(record, ("1" + mine).c_str(), nullptr, 0, 0, 0), 0);
                ASSERT_NE(zelbgp_regexec(record, ("1" + others).c_str(), nullptr, 0, 0, 0), 0);
            }
        });
    for (auto &thread : threads) thread.join();
    records[1]->slot = slot;
    for (zelRegex *record : records) release(record);
}

// The bit of a process that died is taken back, so that what waits for it does not wait for ever.
TEST_F(PolicyLists, NothingWaitsForAClientThatDied) {
    zelRegex *expression = compile("_1_");
    policy::ExpressionRoots &roots = policy::root()->expressions;
    roots.clients = expression->clients = 32;
    roots.owners[5] = {platform::thisProcess().pid, 1};
    release(expression);
    EXPECT_EQ(expression->waitsForDeletion.load(), 1u);
    aclRegexPeriodicCacheCleanup();
    zelAclMgrAuditReport report;
    EXPECT_EQ(zelAclMgrAudit(manager_, &report), 0u);
    EXPECT_EQ(report.expressions + roots.clients, 0u);
}

TEST(AttributeText, IsWhatOperatorsWrite) {
    const std::uint8_t path[] = {2, 2, 0, 0, 0, 1, 0, 1, 0, 0, 1, 2, 0, 0, 0, 3, 0,
                                 0, 0, 4, 3, 1, 0, 0, 0, 5, 4, 1, 0, 0, 0, 6, 9, 1};
    char text[64];
    EXPECT_EQ(aclAttributeText(1, path, sizeof path, text, sizeof text), 21);
    EXPECT_STREQ(text, "1 65536 {3,4} (5) [6]");
    EXPECT_EQ(aclAttributeText(1, path, sizeof path, text, 4), 21);
    EXPECT_STREQ(text, "1 6");
    const std::uint8_t communities[] = {0, 1, 0, 2, 255, 255, 255, 3, 255, 255, 255, 4, 9};
    EXPECT_EQ(aclAttributeText(2, communities, sizeof communities, text, sizeof text), 24);
    EXPECT_STREQ(text, "1:2 local-AS 65535:65284");
    EXPECT_EQ(aclAttributeText(7, path, 4, text, sizeof text), -1);
}

}  // namespace
}  // namespace zel::test
