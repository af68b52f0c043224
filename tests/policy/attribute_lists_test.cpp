// AS-path and community lists over a shared segment: verdicts against oracles, expressions that are shared, and the
// cache of results.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <future>
#include <iterator>
#include <map>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "base/wire.h"
#include "policy/attribute_layout.h"
#include "policy/expression.h"
#include "tests/policy/manager.h"
#include "tests/policy/patterns.h"
#include "tests/support/random.h"
#include "tests/support/table.h"
#include "zel/platform.h"
#include "zel/policy.h"

namespace zel::test {
namespace {

using Words = std::vector<std::uint32_t>;

class PolicyLists : public ManagerTest {
protected:
    ~PolicyLists() override { aclRegexOptzClose(); }
    void setAsp(const char *name, const std::vector<zelAclAspEntry> &entries) {
        EXPECT_EQ(zelAclMgrSetAspList(manager, name, entries.data(), static_cast<std::uint32_t>(entries.size())), 0u);
    }
    void setComm(const char *name, const std::vector<zelAclCommEntry> &entries) {
        EXPECT_EQ(zelAclMgrSetCommList(manager, name, entries.data(), static_cast<std::uint32_t>(entries.size())), 0u);
    }
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

Words numbersOf(const std::string &path) {
    std::istringstream text(path);
    return {std::istream_iterator<std::uint32_t>(text), {}};
}

bool oneIn(Random &random, std::uint32_t count) {
    return random() % count == 0;
}

int check(const zelAspList *list, const Words &path) {
    const auto bytes = pathOf(path);
    return bgpAccessASPMatch(list, bytes.data(), static_cast<int>(bytes.size()));
}

// ---- AS paths -------------------------------------------------------------------------------------------------------

TEST_F(PolicyLists, WhatNoPathMatches) {
    setAsp("list", {{5, 7, "^$"}, {10, 0, "_1_"}});
    setAsp("none", {});
    const zelAspList *list = bgpAspListFind("list");
    EXPECT_EQ(bgp_as_path_match(list, "", nullptr), 1) << "any deny is 1";
    EXPECT_EQ(bgp_as_path_match(list, "2", nullptr), 1) << "nothing matches";
    EXPECT_EQ(check(bgpAspListFind("none"), {2}), 0);
    EXPECT_EQ(bgpAspListFind("other"), nullptr);
    EXPECT_EQ(bgp_as_path_match(nullptr, "1", nullptr) + bgpAccessASPMatch(nullptr, "", 1), 0);
    EXPECT_EQ(bgp_as_path_match(list, nullptr, nullptr), 0);
    EXPECT_EQ(bgpAccessASPMatch(list, "", 0) + bgpAccessASPMatch(list, nullptr, 4), 0);
    for (const char *pattern : {"(1", "((((x{1,100}){1,100}){1,50}){1,10})"}) {
        const zelAclAspEntry refused{0, 0, pattern};
        EXPECT_EQ(zelAclMgrAddAspEntry(manager, "list", &refused), 0x39000014u);
    }
}

// Each list of expressions that operators use, over real paths, with and without the cache: the first expression that
// matches decides.
TEST_F(PolicyLists, OperatorsListsAreDecidedByTheFirstMatch) {
    std::map<std::string, std::vector<std::pair<std::uint8_t, std::unique_ptr<Judged>>>> lists;
    for (const auto &row : rowsOf(ZEL_DATA_DIR "/aspath_regex.txt")) {
        if (row.size() < 4 || !Judged(row[3])) continue;
        const std::string name = row[0] + "/" + row[1];
        const zelAclAspEntry entry{0, row[2] == "deny", row[3].c_str()};
        ASSERT_EQ(zelAclMgrAddAspEntry(manager, name.c_str(), &entry), 0u);
        lists[name].emplace_back(entry.action, std::make_unique<Judged>(row[3]));
    }
    ASSERT_GT(lists.size(), 10u);
    std::vector<std::string> paths;
    eachRow("rib4_full_2015-10.txt.xz", [&, row = 0](std::string_view text) mutable {
        if (row++ % (isFullRun() ? 50 : 1000) != 0) return;
        column(text), column(text);
        const std::string path(column(text));
        if (!path.empty() && path.find('{') == path.npos) paths.push_back(path);
    });
    ASSERT_GT(paths.size(), 400u);
    for (const bool isCached : {false, true}) {
        ASSERT_EQ(isCached ? aclRegexOptzInit(4, 1, 100, 40) : 0, 0) << "less room than there is to keep";
        for (const auto &[name, entries] : lists)
            for (const std::string &path : paths) {
                const auto decides = std::find_if(entries.begin(), entries.end(),
                                                  [&](const auto &entry) { return entry.second->matches(path); });
                const int verdict = decides == entries.end() ? 1 : decides->first;
                const zelAspList *list = bgpAspListFind(name.c_str());
                for (int again = 0; again < 2; ++again) ASSERT_EQ(check(list, numbersOf(path)), verdict) << path;
                ASSERT_EQ(bgp_as_path_match(list, path.c_str(), nullptr), verdict) << name << ": " << path;
            }
    }
    EXPECT_EQ(aclRegexOptzCacheSizeGet(), 100u);
}

// ---- Communities ----------------------------------------------------------------------------------------------------

// Standard entries alone: all values that one needs must be there, and exactly those when asked so.
int oracleVerdict(const std::vector<zelAclCommEntry> &entries, const Words &route, bool exactly) {
    const std::set<std::uint32_t> has(route.begin(), route.end());
    for (const zelAclCommEntry &entry : entries) {
        std::set<std::uint32_t> needs(entry.values, entry.values + entry.count);
        if (entry.noExport) needs.insert(0xffffff01);
        if (entry.noAdvertise) needs.insert(0xffffff02);
        if (entry.localAs) needs.insert(0xffffff03);
        const bool areThere = std::includes(has.begin(), has.end(), needs.begin(), needs.end());
        if (areThere && (!exactly || has == needs)) return entry.action;
    }
    return entries.empty() ? 0 : 1;
}

TEST_F(PolicyLists, CommunitiesAgreeWithAnOracle) {
    Random random = seeded();
    const Words pool{1, 2, 3, 1 << 16, 65000u << 16 | 7, 0xffffff01, 0xffffff02, 0xffffff03};
    const auto some = [&](std::uint32_t most) {
        Words words;
        for (std::uint32_t n = random() % (most + 1); n > 0; --n) words.push_back(pool[random() % pool.size()]);
        return words;
    };
    for (int round = 0; round < (isFullRun() ? 2000 : 200); ++round) {
        std::vector<Words> values(random() % 6);
        std::vector<zelAclCommEntry> entries;
        for (Words &needed : values) {
            needed = some(3);
            zelAclCommEntry &entry = entries.emplace_back(zelAclCommEntry{});
            entry.sequence = static_cast<std::uint32_t>(entries.size());
            entry.action = static_cast<std::uint8_t>(oneIn(random, 9) ? 9 : random() % 2);
            entry.kind = 1;
            entry.noExport = oneIn(random, 4);
            entry.noAdvertise = oneIn(random, 4);
            entry.localAs = oneIn(random, 4);
            entry.count = static_cast<std::uint32_t>(needed.size());
            entry.values = needed.data();
        }
        setComm("random", entries);
        const zelCommList *list = bgpCommListFind("random");
        for (int query = 0; query < 500; ++query) {
            const Words route = some(5);
            const int count = static_cast<int>(route.size());
            ASSERT_EQ(bgpAccessCommMatch(list, route.data(), count), oracleVerdict(entries, route, false));
            const int exactly = oracleVerdict(entries, route, true);
            ASSERT_EQ(bgpAccessCommMatchExact(list, route.data(), count), exactly);
            ASSERT_EQ(bgp_comm_match_exact("random", route.data(), count), static_cast<std::uint32_t>(exactly));
        }
    }
    EXPECT_EQ(bgp_commlist_match("unknown", nullptr, 0), 0x39000001u);
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
    EXPECT_EQ(zelAclMgrResequence(manager, ZEL_ACLMGR_ASPATH, "list", 1, 1), 0u);
    EXPECT_EQ(zelbgp_regex_references(expression), 4u);
    EXPECT_EQ(zelAclMgrRemoveList(manager, ZEL_ACLMGR_ASPATH, "list"), 0u);
    EXPECT_EQ(zelbgp_regex_references(expression), 2u);
    EXPECT_EQ(audit().expressions, 1u) << "still referred to";
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
    EXPECT_EQ(audit().expressions, 0u);
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

// Attributes of every length, also such as do not fit into a node; results in several words.
TEST_F(PolicyLists, TheCacheTellsAttributesAndExpressionsApart) {
    ASSERT_EQ(aclRegexOptzInit(1, 1, 2000, 130), 0);
    std::set<std::uint32_t> nodes;
    std::size_t opened = 0;
    for (std::size_t length = 0; length < 200; ++length)
        for (std::size_t changed = 0; changed <= length; changed += 1 + length / 4) {
            std::vector<std::uint8_t> bytes(length + 1);
            bytes[changed] = 1;
            for (const std::uint32_t type : {1u, 2u}) {
                const std::uint32_t node = aclRegexOptzCacheOpen(type, bytes.data(), length);
                nodes.insert(node);
                ++opened;
                ASSERT_EQ(aclRegexOptzCacheOpen(type, bytes.data(), length), node);
            }
        }
    EXPECT_EQ(nodes.size(), opened);
    std::vector<zelRegex *> expressions;
    for (std::uint32_t i = 0; i < 130; ++i) expressions.push_back(compile(("_" + std::to_string(i) + "_").c_str()));
    for (int again = 0; again < 2; ++again)
        for (std::uint32_t i = 0; i < 130; ++i) {
            const auto path = pathOf({i / 2, i});
            for (std::uint32_t asked = 0; asked < 130; ++asked)
                ASSERT_EQ(zelbgp_regexec(expressions[asked], nullptr, path.data(), 10, 1, 1) == 0,
                          asked == i || asked == i / 2);
        }
    for (zelRegex *expression : expressions) release(expression);
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
    EXPECT_EQ(audit().expressions, 4u) << "those of the list";
}

// Whatever somebody wrote into lists and expressions, checks and readings end.
TEST_F(PolicyLists, ChecksSurviveAnyListsAndExpressions) {
    Random random = seeded();
    const std::uint32_t values[] = {1, 2, 3};
    setAsp("a", {{5, 0, "_1_"}, {10, 1, "^(2|3)*$"}, {15, 0, "(1)\\1"}});
    setComm("c", {{5, 0, 1, 0, 1, 0, 3, values, nullptr},
                  {10, 1, 2, 0, 0, 0, 0, nullptr, "_1_"},
                  {15, 0, 1, 0, 0, 0, 1, values, nullptr}});
    const zelAspList *paths = bgpAspListFind("a");
    const zelCommList *communities = bgpCommListFind("c");
    struct Part {
        std::uint8_t *begin;
        std::vector<std::uint8_t> was;
        Part(const void *at, std::size_t bytes)
            : begin(static_cast<std::uint8_t *>(const_cast<void *>(at))), was(begin, begin + bytes) {}
    };
    const policy::Bytes images[] = {imageOf(paths, policy::Kind::asPath),
                                    imageOf(communities, policy::Kind::community)};
    std::vector<Part> parts;
    for (const policy::Bytes &image : images) parts.emplace_back(image.begin, image.bytes);
    std::uint32_t count = 0;
    for (const auto *entry = policy::entriesOf<policy::AspEntry>(images[0], count); count > 0; --count, ++entry)
        parts.emplace_back(policy::expressionAt(entry->expression), sizeof(zelRegex) + 8);
    for (int round = 0; round < (isFullRun() ? 100'000 : 5'000); ++round) {
        for (std::uint32_t writes = random() % 4 + 1; writes > 0; --writes) {
            const Part &part = parts[random() % parts.size()];
            const std::uint8_t bytes[] = {0, 1, 0xff, 0x7f, static_cast<std::uint8_t>(random())};
            part.begin[random() % part.was.size()] = bytes[random() % 5];
        }
        bgp_as_path_match(paths, "3 1 2", nullptr);
        bgpAccessCommMatch(communities, values, 2);
        bgpAccessCommMatchExact(communities, values, 1);
        zelAclAspEntry aspEntries[4];
        for (int i = std::min(zelAclMgrGetAspEntries(manager, "a", aspEntries, 4), 4); i-- > 0;)
            EXPECT_LE(strlen(aspEntries[i].pattern), 1024u);
        zelAclCommEntry commEntries[4];
        std::uint32_t room[8];
        zelAclMgrGetCommEntries(manager, "c", commEntries, 4, room, 8);
        for (const Part &part : parts) memcpy(part.begin, part.was.data(), part.was.size());
    }
    // What was compiled of a damaged pattern goes with its expression's number; others are decided as ever.
    setAsp("b", {{5, 0, "^3_1(_2)$"}});
    EXPECT_EQ(bgp_as_path_match(bgpAspListFind("b"), "3 1 2", nullptr), 0);
    setComm("d", {{5, 0, 2, 0, 0, 0, 0, nullptr, "^0:1 (0:2)$"}});
    EXPECT_EQ(bgpAccessCommMatch(bgpCommListFind("d"), values, 2), 0);
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
    EXPECT_EQ(audit().expressions + roots.clients, 0u);
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
