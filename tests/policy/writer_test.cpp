// The store of the policy tables: lists come, change and go by one store each; a writer that dies leaves whole lists to
// the checks, and nothing to the next writer that it cannot put right.
#include <gtest/gtest.h>
#include <sys/ptrace.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <functional>
#include <future>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "aclmgr/draft.h"
#include "tests/policy/manager.h"
#include "tests/support/allocations.h"
#include "tests/support/child.h"
#include "tests/support/eventually.h"
#include "tests/support/random.h"
#include "zel/platform.h"
#include "zel/policy.h"

namespace zel::test {
namespace {

using aclmgr::Change;
using policy::Image;

// ---- Lists of words -------------------------------------------------------------------------------------------------

// Lists of a kind that nothing else makes.
constexpr policy::Kind wordKind = policy::Kind::macAcl;
constexpr aclmgr::KindRow wordRow{wordKind, 1, 2, 3, nullptr};

// A list of `count` words, all the same.
class Words : public aclmgr::ImageBuilder {
public:
    Words(std::uint32_t count, int word) : count_(count), word_(word) {}
    std::uint32_t entries() const override { return count_; }
    std::size_t bytes() const override { return sizeof(Image) + count_ * sizeof(int); }
    void write(Image *at) const override { std::fill_n(reinterpret_cast<int *>(at + 1), count_, word_); }

private:
    std::uint32_t count_;
    int word_;
};

std::uint32_t put(const zelAclMgr &manager, const char *name, std::uint32_t count, int word) {
    return Change(manager).set(&wordRow, name, Words(count, word));
}

void remove(const zelAclMgr &manager, const char *name) {
    Change change(manager);
    if (policy::ListNode *list = change.find(&wordRow, name)) change.remove(*list);
}

constexpr int missing = -1, mixed = -2;

// The word of a list as a check finds it: 0 for one without entries.
int wordOf(const char *name) {
    const policy::Root *root = policy::root();
    if (root == nullptr) return missing;
    const policy::ListNode *list = policy::findList(root->aclNode, wordKind, name);
    if (list == nullptr) return missing;
    const policy::Bytes image = policy::imageOf(list, wordKind);
    if (!image) return 0;
    const std::uint32_t count = image.header()->entries;
    const int *words = policy::inside<int>(image, sizeof(Image), count);
    return words != nullptr && std::cmp_equal(std::count(words, words + count, *words), count) ? *words : mixed;
}

constexpr std::uint32_t listCount = 16;
std::string listName(std::uint32_t number) {
    return "list " + std::to_string(number % listCount);
}

// The bytes of the segment that are in use, and of the heap's lock, which a stopped writer may hold.
class Memory {
public:
    Memory() {
        for (const Bytes part : parts()) bytes_.insert(bytes_.end(), part.begin(), part.end());
    }
    bool isStill() const {
        const std::uint8_t *saved = bytes_.data();
        for (const Bytes part : segment()) {
            if (memcmp(part.data(), saved, part.size()) != 0) return false;
            saved += part.size();
        }
        return true;
    }
    void restore() const {
        auto saved = bytes_.begin();
        for (const Bytes part : parts()) {
            std::copy_n(saved, part.size(), part.begin());
            saved += static_cast<std::ptrdiff_t>(part.size());
        }
    }
    // Writes a word, some other one's value or a random one, somewhere.
    static void scribble(Random &random) {
        const auto anyWord = [&random]() -> std::uint32_t & {
            const Bytes part = segment()[random() % 3];
            return reinterpret_cast<std::uint32_t *>(part.data())[random() % (part.size() / sizeof(std::uint32_t))];
        };
        anyWord() = random() % 2 == 0 ? anyWord() : random();
    }
    static void freeHeapLock() { std::ranges::fill(parts()[3], std::uint8_t{0}); }  // as when its holder is found dead

private:
    using Bytes = std::span<std::uint8_t>;
    static constexpr std::size_t lockBytes = 128, blockBytes = 16 * 1024;
    static std::array<Bytes, 3> segment() {
        auto *begin = reinterpret_cast<std::uint8_t *>(platform::policyAddress);
        return {Bytes{begin + platform::policyHeapOffset, 2048},
                {begin + platform::policyRootOffset, sizeof(policy::Root)},
                {begin + platform::policyBlocksOffset, blockBytes}};
    }
    static std::array<Bytes, 4> parts() {
        auto *locks = static_cast<std::uint8_t *>(platform::sysSection(platform::Section::locks));
        const auto [heap, root, blocks] = segment();
        return {heap, root, blocks, {locks + ZEL_SHM_LOCK_POLICY_HEAP * lockBytes, lockBytes}};
    }
    std::vector<std::uint8_t> bytes_;
};

// ---- Lists under their names ----------------------------------------------------------------------------------------

class PolicyWriter : public ManagerTest {};

TEST_F(PolicyWriter, ListsComeChangeAndGo) {
    const std::string longest(140, 'x');
    for (const auto &[name, count] : {std::pair<std::string, std::uint32_t>{"a", 1}, {"b", 1000}, {longest, 1}})
        EXPECT_EQ(put(*manager, name.c_str(), count, 11), 0u);
    EXPECT_EQ(put(*second, "a", 1, 44), 0u);
    EXPECT_EQ(put(*manager, "", 1, 1), aclmgr::codeValueRange);
    EXPECT_EQ(put(*manager, (longest + 'x').c_str(), 1, 1), 3u);
    EXPECT_EQ(put(*manager, "b", 400'000'000, 22), 2u);
    EXPECT_EQ(wordOf("b"), 11);
    policy::ListNode *list = Change(*manager).find(&wordRow, "a");
    EXPECT_EQ(put(*manager, "a", 2, 33), 0u);
    EXPECT_EQ(Change(*manager).find(&wordRow, "a"), list) << "a handle stays good while its list does";
    EXPECT_EQ(put(*manager, "a", 0, 0), 0u);
    EXPECT_EQ(wordOf("a"), 0);

    remove(*manager, "a");
    EXPECT_FALSE(policy::imageOf(list, wordKind)) << "a stale handle finds no list";
    EXPECT_EQ(put(*manager, "c", 1, 55), 0u);
    EXPECT_EQ(Change(*manager).find(&wordRow, "c"), list) << "memory of nodes is used again";
    const zelAclMgrAuditReport report = audit();
    EXPECT_TRUE(report.lists == 4 && report.images == 4 && report.spareNodes == 0);
}

// ---- Access lists, by the public calls ------------------------------------------------------------------------------

// A list of `count` entries with the action `count`: the first matches the source 1, the last the source 2, those
// between neither.
std::uint32_t setAccessList(zelAclMgr *manager, const char *name, std::uint32_t count) {
    std::vector<zelAclIpEntry> entries(count);
    for (std::uint32_t i = 0; i < count; ++i) {
        entries[i].sequence = 10 * (i + 1);
        entries[i].action = static_cast<std::uint8_t>(count);
        entries[i].kind = 1;
        entries[i].source = i == 0 ? 1 : i + 1 == count ? 2 : 100 + i;
    }
    return zelAclMgrSetIpList(manager, name, entries.data(), count);
}

// As a plain check finds it: how many entries the list has, missing, or mixed when its entries do not agree.
int countOf(const char *name) {
    const zelIpAcl *list = ipAccessListFind(name);
    if (list == nullptr) return missing;
    const std::uint32_t first = ipAccessListCheckWithHandle(list, 1, 0), last = ipAccessListCheckWithHandle(list, 2, 0);
    return first == last ? static_cast<int>(first) : mixed;
}

// The same with prefix lists, of addresses; a list that is missing counts as empty.
std::uint32_t setPrefixList(zelAclMgr *manager, const char *name, std::uint32_t count) {
    std::vector<zelAclPrefixEntry> entries(count);
    for (std::uint32_t i = 0; i < count; ++i) {
        entries[i].sequence = static_cast<std::uint16_t>(10 * (i + 1));
        entries[i].action = static_cast<std::uint8_t>(count);
        entries[i].address[3] = static_cast<std::uint8_t>(i == 0 ? 1 : i + 1 == count ? 2 : 3 + i);
        std::fill_n(entries[i].mask, 4, std::uint8_t{0xff});
    }
    return zelAclMgrSetPrefixList(manager, name, ZEL_POLICY_IPV4, entries.data(), count);
}

int countOfPrefixes(const char *name) {
    const std::uint32_t first = prefixListCheck(name, 1, UINT32_MAX), last = prefixListCheck(name, 2, UINT32_MAX);
    return first == last ? static_cast<int>(first) : mixed;
}

// And with AS-path lists, whose expressions all of them share: the action is whether the count is odd.
std::uint32_t setPathList(zelAclMgr *manager, const char *name, std::uint32_t count) {
    std::vector<std::string> patterns(count % 20 + 2);
    std::vector<zelAclAspEntry> entries;
    for (std::uint32_t i = 0; i < patterns.size(); ++i) {
        patterns[i] = "_" + std::to_string(i == 0 ? 1 : i + 1 == patterns.size() ? 2 : 100 + i) + "_";
        entries.push_back({i + 1, static_cast<std::uint8_t>(count % 2), patterns[i].c_str()});
    }
    return zelAclMgrSetAspList(manager, name, entries.data(), static_cast<std::uint32_t>(entries.size()));
}

int oddnessOfPaths(const char *name) {
    const zelAspList *list = bgpAspListFind(name);
    const int first = bgp_as_path_match(list, "1", nullptr), last = bgp_as_path_match(list, "2", nullptr);
    return first == last ? first : mixed;
}

// And with community lists, of which every other entry has an expression. As a code, a list that is missing is empty.
std::uint32_t setCommunityList(zelAclMgr *manager, const char *name, std::uint32_t count) {
    std::vector<std::uint32_t> values(count);
    std::vector<zelAclCommEntry> entries;
    for (std::uint32_t i = 0; i < count; ++i) {
        values[i] = i == 0 ? 1 : i + 1 == count ? 2 : 100 + i;
        const bool isExpanded = i % 2 == 1 && i + 1 != count;
        entries.push_back({i + 1, static_cast<std::uint8_t>(count), static_cast<std::uint8_t>(isExpanded ? 2 : 1), 0, 0,
                           0, isExpanded ? 0u : 1u, &values[i], isExpanded ? "^9" : nullptr});
    }
    return zelAclMgrSetCommList(manager, name, entries.data(), count);
}

int countOfCommunities(const char *name) {
    const std::uint32_t one = 1, two = 2;
    const std::uint32_t first = bgp_commlist_match(name, &one, 1), last = bgp_commlist_match(name, &two, 1);
    return first != last ? mixed : first == 0x39000001 ? 0 : static_cast<int>(first);
}

// And with route maps: the first sequence takes a route by its next hop, the last one by its prefix, others none.
std::uint32_t setMap(zelAclMgr *manager, const char *name, std::uint32_t count) {
    const char *const none[] = {"no such list", "nor this one"};
    std::vector<zelAclClause> clauses(count, {ZEL_ACLMGR_MATCH_COMMUNITY, 2, none});
    clauses.back().match = ZEL_ACLMGR_MATCH_PREFIX;
    clauses.front().match = ZEL_ACLMGR_MATCH_NEXT_HOP;
    std::vector<zelAclMapEntry> entries;
    for (std::uint32_t i = 0; i < count; ++i)
        entries.push_back({i + 1, static_cast<std::uint8_t>(count), count > 1, &clauses[i]});
    return zelAclMgrSetMapList(manager, name, entries.data(), count);
}

int countOfMap(const char *name) {
    zelPolicyRoute hop{}, prefix{};
    hop.nextHopFamily = prefix.family = ZEL_POLICY_IPV4;
    const zelRouteMap *map = ipRouteMapFind(name);
    const std::uint32_t first = ipRoutemapCheckWithHandleV4_V6(map, &hop, nullptr),
                        last = ipRoutemapCheckWithHandleV4_V6(map, &prefix, nullptr);
    return first == last ? static_cast<int>(first) : mixed;
}

struct TestedKind {
    zelAclMgrKind kind;
    std::uint32_t (*set)(zelAclMgr *manager, const char *name, std::uint32_t count);
    int (*check)(const char *name);
};
constexpr TestedKind testedKinds[] = {{ZEL_ACLMGR_IP, setAccessList, countOf},
                                      {ZEL_ACLMGR_PREFIX, setPrefixList, countOfPrefixes},
                                      {ZEL_ACLMGR_ASPATH, setPathList, oddnessOfPaths},
                                      {ZEL_ACLMGR_COMMUNITY, setCommunityList, countOfCommunities},
                                      {ZEL_ACLMGR_ROUTE_MAP, setMap, countOfMap}};

TEST_F(PolicyWriter, EditsOfAnyKind) {
    const auto sequences = [&] {
        std::vector<zelAclIpEntry> entries(8);
        entries.resize(static_cast<std::size_t>(zelAclMgrGetIpEntries(manager, "a", entries.data(), 8)));
        std::vector<std::uint32_t> numbers;
        for (const zelAclIpEntry &entry : entries) numbers.push_back(entry.sequence);
        return numbers;
    };
    using Numbers = std::vector<std::uint32_t>;
    EXPECT_EQ(setAccessList(manager, "b", 2), 0u);
    EXPECT_EQ(setAccessList(manager, "a", 4), 0u);
    EXPECT_EQ(zelAclMgrRemoveEntry(manager, ZEL_ACLMGR_IP, "a", 20), 0u);
    EXPECT_EQ(zelAclMgrRemoveEntry(manager, ZEL_ACLMGR_IP, "a", 20), 0x3900002au);
    EXPECT_EQ(sequences(), (Numbers{10, 30, 40}));
    EXPECT_EQ(zelAclMgrResequence(manager, ZEL_ACLMGR_IP, "a", UINT32_MAX - 10, 5), 0u);
    for (const auto &[first, step] : {std::pair{0u, 5u}, {5u, 0u}, {UINT32_MAX - 10, 6u}, {1u, UINT32_MAX}})
        EXPECT_EQ(zelAclMgrResequence(manager, ZEL_ACLMGR_IP, "a", first, step), 0x3900002du);
    EXPECT_EQ(sequences(), (Numbers{UINT32_MAX - 10, UINT32_MAX - 5, UINT32_MAX}));
    EXPECT_EQ(countOf("a"), 4);

    char names[2][ZEL_POLICY_NAME + 1];
    EXPECT_EQ(zelAclMgrGetNames(manager, ZEL_ACLMGR_IPV6, names, 1), 2);
    EXPECT_STREQ(names[0], "a");
    EXPECT_EQ(zelAclMgrGetNames(manager, static_cast<zelAclMgrKind>(7), names, 2), -1);
    EXPECT_EQ(zelAclMgrRemoveList(manager, ZEL_ACLMGR_IPV6, "a"), 0x39000001u) << "only IPv4 entries";
    const zelAclIpv6Entry any{};
    EXPECT_EQ(zelAclMgrAddIpv6Entry(manager, "a", &any), 0u);
    EXPECT_EQ(zelAclMgrRemoveList(manager, ZEL_ACLMGR_IP, "a"), 0u);
    EXPECT_EQ(zelAclMgrRemoveList(manager, ZEL_ACLMGR_IP, "a"), 0x39000001u);
    EXPECT_NE(countOf("a"), missing) << "the IPv6 entries stay";
    EXPECT_EQ(zelAclMgrRemoveList(manager, ZEL_ACLMGR_IPV6, "a"), 0u);
    EXPECT_EQ(countOf("a"), missing);
    EXPECT_EQ(zelAclMgrRemoveEntry(manager, ZEL_ACLMGR_IP, "b", 10), 0u);
    EXPECT_EQ(zelAclMgrRemoveEntry(manager, ZEL_ACLMGR_IP, "b", 20), 0u);
    EXPECT_EQ(countOf("b"), 0) << "an empty list is a list";
    EXPECT_EQ(zelAclMgrRemoveList(manager, ZEL_ACLMGR_IP, "b"), 0u);
    EXPECT_EQ(audit().lists, 0u);
}

TEST_F(PolicyWriter, PlainChecksOfAnyKindTakeNoLockAndAllocateNothing) {
    for (const TestedKind &tested : testedKinds) EXPECT_EQ(tested.set(manager, "a", 7), 0u);
    const Change change(*manager);
    std::async(std::launch::async, [] {
        for (const TestedKind &tested : testedKinds) tested.check("a");  // compiles
        const std::uint64_t before = allocationsSoFar();
        for (const TestedKind &tested : testedKinds)
            EXPECT_EQ(tested.check("a"), tested.kind == ZEL_ACLMGR_ASPATH ? 1 : 7) << tested.kind;
        EXPECT_EQ(allocationsSoFar(), before);
    }).get();
}

TEST(PolicyReader, NeitherCreatesNorRepairsNorWaitsForReaders) {
    EXPECT_EQ(zelAclMgrOpenToRead(ZEL_ACLMGR_PRIMARY), nullptr);
    EXPECT_EQ(errno, ENOENT);
    zelAclMgr *manager = zelAclMgrOpen(ZEL_ACLMGR_PRIMARY), *reader = zelAclMgrOpenToRead(ZEL_ACLMGR_PRIMARY);
    ASSERT_NE(reader, nullptr);
    for (const TestedKind &tested : testedKinds) EXPECT_EQ(tested.set(manager, "a", 7), 0u);
    manager->root->isRepairDue = 1;
    EXPECT_EQ(aclReadLock(), 0);
    char names[1][ZEL_POLICY_NAME + 1];
    EXPECT_EQ(zelAclMgrGetNames(reader, ZEL_ACLMGR_ROUTE_MAP, names, 1), 1);
    EXPECT_EQ(zelAclMgrGetIpEntries(reader, "a", nullptr, 0), 7);
    EXPECT_EQ(zelAclMgrGetPrefixEntries(reader, "a", ZEL_POLICY_IPV4, nullptr, 0), 7);
    EXPECT_EQ(zelAclMgrGetAspEntries(reader, "a", nullptr, 0), 9);
    EXPECT_EQ(zelAclMgrGetCommEntries(reader, "a", nullptr, 0, nullptr, 0), 7);
    EXPECT_EQ(zelAclMgrGetMapEntries(reader, "a", nullptr, 0), 7);
    EXPECT_EQ(aclReadUnlock(), 0);
    for (const TestedKind &tested : testedKinds) EXPECT_EQ(tested.set(reader, "a", 1), aclmgr::codeValueRange);
    EXPECT_EQ(zelAclMgrRemoveList(reader, ZEL_ACLMGR_IP, "a"), aclmgr::codeValueRange);
    EXPECT_EQ(zelAclMgrAudit(reader, nullptr), UINT32_MAX);
    EXPECT_EQ(manager->root->isRepairDue, 1u);
    EXPECT_EQ(zelAclMgrAudit(manager, nullptr), 0u);
    zelAclMgrClose(reader);
    zelAclMgrClose(manager);
}

TEST_F(PolicyWriter, WhatIsNotGivenIsRefused) {
    for (zelAclMgr *given : {manager, static_cast<zelAclMgr *>(nullptr)}) {
        for (const std::uint32_t code :
             {zelAclMgrSetIpList(given, "a", nullptr, 1), zelAclMgrSetIpv6List(given, "a", nullptr, 1),
              zelAclMgrSetPrefixList(given, "a", 1, nullptr, 1), zelAclMgrSetAspList(given, "a", nullptr, 1),
              zelAclMgrSetCommList(given, "a", nullptr, 1), zelAclMgrSetMapList(given, "a", nullptr, 1),
              zelAclMgrAddIpEntry(given, "a", nullptr), zelAclMgrAddIpv6Entry(given, "a", nullptr),
              zelAclMgrAddPrefixEntry(given, "a", 1, nullptr), zelAclMgrAddAspEntry(given, "a", nullptr),
              zelAclMgrAddCommEntry(given, "a", nullptr), zelAclMgrAddMapEntry(given, "a", nullptr),
              zelAclMgrSetIpList(given, nullptr, nullptr, 0), zelAclMgrSetPrefixList(given, nullptr, 1, nullptr, 0),
              zelAclMgrRemoveList(given, ZEL_ACLMGR_IP, nullptr)})
            EXPECT_EQ(code, aclmgr::codeValueRange);
        zelAclMgrSetIpList(given, "a", nullptr, 0);
        zelAclMgrSetPrefixList(given, "a", 1, nullptr, 0);
        zelAclMgrSetAspList(given, "a", nullptr, 0);
        zelAclMgrSetCommList(given, "a", nullptr, 0);
        zelAclMgrSetMapList(given, "a", nullptr, 0);
        const int empty = given != nullptr ? 0 : -1;
        for (const int capacity : {0, 1})
            for (const int count :
                 {zelAclMgrGetIpEntries(given, "a", nullptr, capacity),
                  zelAclMgrGetIpv6Entries(given, "a", nullptr, capacity),
                  zelAclMgrGetPrefixEntries(given, "a", 1, nullptr, capacity),
                  zelAclMgrGetAspEntries(given, "a", nullptr, capacity),
                  zelAclMgrGetCommEntries(given, "a", nullptr, capacity, nullptr, 0),
                  zelAclMgrGetMapEntries(given, "a", nullptr, capacity),
                  zelAclMgrGetNames(given, ZEL_ACLMGR_IP, nullptr, capacity) - (given != nullptr && capacity == 0)})
                EXPECT_EQ(count, capacity == 0 ? empty : -1);
        EXPECT_EQ(zelAclMgrAudit(given, nullptr), given != nullptr ? 0 : UINT32_MAX);
    }
    zelAclMgrClose(nullptr);
}

// Each `new` of a call fails in turn: the call says so, changes nothing and loses nothing, and a repair stays due.
TEST_F(PolicyWriter, WithoutMemoryNothingChanges) {
    const zelAclIpEntry ip[5] = {};
    zelAclPrefixEntry prefixes[3] = {};
    prefixes[1].mask[0] = prefixes[2].mask[3] = 0xff;
    const zelAclAspEntry paths[] = {{1, 0, "_7_"}, {2, 0, "^8"}};
    const std::uint32_t value = 7;
    const zelAclCommEntry communities[] = {{1, 0, 1, 0, 0, 0, 1, &value, nullptr}, {2, 0, 2, 0, 0, 0, 0, nullptr, "7"}};
    const char *name = "a";
    const zelAclClause clause = {ZEL_ACLMGR_MATCH_PREFIX, 1, &name};
    const zelAclMapEntry sequence = {1, 0, 1, &clause};
    const auto repairAndOpen = [&]() -> std::uint32_t {
        manager->root->isRepairDue = 1;
        zelAclMgr *other = zelAclMgrOpen(ZEL_ACLMGR_PRIMARY);
        EXPECT_EQ(manager->root->isRepairDue, other == nullptr ? 1u : 0u);
        zelAclMgrClose(other);
        return other != nullptr ? 0 : ENOMEM;
    };
    const std::pair<std::uint32_t, std::function<std::uint32_t()>> calls[] = {
        {0x39000003, [&] { return zelAclMgrSetIpList(manager, "a", ip, 5); }},
        {0x39000022, [&] { return zelAclMgrSetPrefixList(manager, "a", 1, prefixes, 3); }},
        {0x39000013, [&] { return zelAclMgrSetAspList(manager, "a", paths, 2); }},
        {0x39000018, [&] { return zelAclMgrSetCommList(manager, "a", communities, 2); }},
        {0x39000007, [&] { return zelAclMgrSetMapList(manager, "a", &sequence, 1); }},
        {0x3900001c, [&] { return zelAclMgrResequence(manager, ZEL_ACLMGR_ASPATH, "a", 5, 5); }},
        {ENOMEM, repairAndOpen}};
    for (const auto &[noMemory, call] : calls) {
        int refusals = 0;
        bool hasFailed = true;
        for (std::uint64_t nth = 1; hasFailed; ++nth) {
            failNewAt(nth);
            const std::uint32_t code = call();
            hasFailed = failNewAt(0);
            EXPECT_TRUE(code == 0 || (hasFailed && code == noMemory)) << std::hex << code << " not " << noMemory;
            refusals += code != 0;
            audit();
            ASSERT_FALSE(HasFailure());
        }
        EXPECT_GT(refusals, 0) << std::hex << noMemory;
    }
    EXPECT_EQ(audit().lists, 5u);
    for (int kind = ZEL_ACLMGR_IP; kind <= ZEL_ACLMGR_ROUTE_MAP; ++kind)
        zelAclMgrRemoveList(manager, static_cast<zelAclMgrKind>(kind), "a");
    EXPECT_EQ(audit().lists + audit().expressions, 0u) << "a reference was lost";
}

// Whatever somebody wrote into the segment, audits and checks end; and links of names that form no tree are made anew.
TEST_F(PolicyWriter, AnAuditBelievesNothing) {
    for (std::uint32_t i = 0; i < listCount; ++i) put(*manager, listName(i).c_str(), 5, static_cast<int>(i));
    Random random = seeded();
    zelAclMgrAuditReport report;
    zelRadix &tree = manager->tables->trees[static_cast<std::size_t>(wordKind)];
    tree.rtt_slabs[0][tree.rtt_root].rtn_left = tree.rtt_root;
    EXPECT_NE(aclmgr::audit(*manager->root, report), 0u);
    EXPECT_EQ(report.brokenTrees, 1u);
    aclmgr::repair(*manager->root);
    EXPECT_EQ(aclmgr::audit(*manager->root, report), 0u);
    EXPECT_EQ(wordOf(listName(3).c_str()), 3);
    for (int round = 0; round < (isFullRun() ? 100'000 : 3'000); ++round) {
        const Memory whole;
        for (std::uint32_t writes = random() % 3 + 1; writes > 0; --writes) Memory::scribble(random);
        aclmgr::audit(*manager->root, report);
        for (std::uint32_t i = 0; i < listCount; ++i) wordOf(listName(i).c_str());
        whole.restore();
    }
    EXPECT_EQ(aclmgr::audit(*manager->root, report), 0u);
}

// Writers believe no tree of names either: what they would follow is looked at before they change anything.
TEST_F(PolicyWriter, AWriterGoesOnInATreeThatSomebodyWroteTo) {
    for (std::uint32_t i = 0; i < listCount; ++i) put(*manager, listName(i).c_str(), 5, static_cast<int>(i));
    remove(*manager, listName(4).c_str());
    Random random = seeded();
    zelRadix &tree = manager->tables->trees[static_cast<std::size_t>(wordKind)];
    const Memory whole;
    for (int round = 0; round < (isFullRun() ? 100'000 : 3'000); ++round) {
        const std::span<std::uint32_t> header(reinterpret_cast<std::uint32_t *>(&tree), sizeof tree / 4),
            nodes(reinterpret_cast<std::uint32_t *>(tree.rtt_slabs[0]), 40 * sizeof(zelRadixNode) / 4);
        for (std::uint32_t writes = random() % 3 + 1; writes > 0; --writes) {
            const auto &part = random() % 2 == 0 ? header : nodes;
            const std::uint32_t values[] = {random(), random() % 40, UINT32_MAX, 0};
            part[random() % part.size()] = values[random() % 4];
        }
        put(*manager, "new", 1, 77);
        remove(*manager, listName(random()).c_str());
        put(*manager, listName(random()).c_str(), 1, 78);
        whole.restore();
    }
}

// ---- A writer that dies ---------------------------------------------------------------------------------------------

void setPaths(zelAclMgr *manager, const char *pattern, std::uint32_t count) {
    const zelAclAspEntry entries[] = {{1, 0, pattern}, {2, 0, pattern}};
    zelAclMgrSetAspList(manager, "paths", entries, count);
}

// changer: stops, makes changes of every sort, and stops again.
ZEL_CHILD(changer) {
    zelAclMgr *manager = zelAclMgrOpen(ZEL_ACLMGR_PRIMARY);
    if (manager == nullptr || ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) != 0) return 1;
    raise(SIGSTOP);
    put(*manager, "new", 3, 3);
    put(*manager, "kept", 4, 4);
    remove(*manager, "old");
    put(*manager, "newer", 5, 5);
    remove(*manager, "new");
    setPaths(manager, "_1_", 2);
    if (isFullRun()) setPaths(manager, "_2_", 1);  // compiling takes many instructions
    zelAclMgrRemoveList(manager, ZEL_ACLMGR_ASPATH, "paths");
    raise(SIGSTOP);
    _exit(0);
}

// repairer: the same with a repair.
ZEL_CHILD(repairer) {
    auto *root = static_cast<policy::Root *>(zelPolicyAttachSegment(0));
    if (root == nullptr || ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) != 0) return 1;
    raise(SIGSTOP);
    aclmgr::repair(*root);
    raise(SIGSTOP);
    _exit(0);
}

// A child that runs one instruction after the other from its first stop to its next.
class Stepped {
public:
    explicit Stepped(const char *name) : child_(Child::start(name)) {
        int status = 0;
        isStopped_ = waitpid(child_.pid(), &status, 0) == child_.pid() && WIFSTOPPED(status);
    }
    bool isStopped() const { return isStopped_; }
    // False when it stopped by itself.
    bool step() const {
        int status = 0;
        return ptrace(PTRACE_SINGLESTEP, child_.pid(), nullptr, nullptr) == 0 &&
               waitpid(child_.pid(), &status, 0) == child_.pid() && WIFSTOPPED(status) && WSTOPSIG(status) == SIGTRAP;
    }

private:
    Child child_;
    bool isStopped_;
};

using ListWords = std::vector<int>;
ListWords words() {
    return {wordOf("kept"), wordOf("old"), wordOf("new"), wordOf("newer")};
}

// Blocks of the heap that were handed out under no tag that is known.
std::uint64_t blocksOfOthers() {
    zelPolicyHeapReport report;
    EXPECT_EQ(zelPolicyHeapSweep(aclmgr::source, nullptr, 0, 0, &report), 0);
    return report.others;
}

// The state of the segment were the writer to die now: each list is the one before or after its change, and a repair
// leaves no fault and no list changed. Puts the segment back. Whether there was something to repair.
bool hasToBeRepaired(policy::Root &root, const Memory &memory) {
    const std::vector<ListWords> legal = {{1, 4}, {2, missing}, {3, missing}, {5, missing}};
    const ListWords found = words();
    for (std::size_t i = 0; i < legal.size(); ++i)
        EXPECT_EQ(std::count(legal[i].begin(), legal[i].end(), found[i]), 1) << "list " << i << ": " << found[i];
    Memory::freeHeapLock();
    zelAclMgrAuditReport report;
    const bool hasFaults = aclmgr::audit(root, report) != 0;
    aclmgr::repair(root);
    EXPECT_EQ(aclmgr::audit(root, report), 0u);
    EXPECT_EQ(blocksOfOthers(), report.expressions);
    EXPECT_EQ(words(), found);
    memory.restore();
    return hasFaults;
}

// The writer is looked at after each instruction that wrote to the segment; so is one that repairs what it left.
TEST(PolicyWriterKilled, AtAnyInstruction) {
#ifdef __SANITIZE_THREAD__
    GTEST_SKIP() << "too many instructions where every access is watched";
#endif
    zelAclMgr *manager = zelAclMgrOpen(ZEL_ACLMGR_PRIMARY);
    ASSERT_NE(manager, nullptr);
    put(*manager, "kept", 1, 1);
    put(*manager, "old", 2, 2);
    setPaths(manager, "_1_", 1);
    std::vector<Memory> states;
    int faulty = 0, repairStates = 0;
    const Stepped changer("changer");
    if (!changer.isStopped()) GTEST_SKIP() << "no child can be traced here";
    for (Memory last; changer.step() && !HasFailure();) {
        if (last.isStill()) continue;
        states.push_back(last = Memory());
        faulty += hasToBeRepaired(*manager->root, last);
    }
    EXPECT_EQ(words(), (ListWords{4, missing, missing, 5}));
    EXPECT_GT(faulty, 50);
    for (std::size_t i = 0; i < states.size() && !HasFailure(); i += isFullRun() ? 5 : 80) {
        states[i].restore();
        Memory::freeHeapLock();
        const Stepped repairer("repairer");
        for (Memory last; repairer.step() && !HasFailure();) {
            if (last.isStill()) continue;
            last = Memory();
            hasToBeRepaired(*manager->root, last);
            ++repairStates;
        }
    }
    printf("%zu states, %d of them to be repaired; %d more in repairs\n", states.size(), faulty, repairStates);
    states.back().restore();
    zelAclMgrClose(manager);
}

// What the processes of the test that follows tell each other, behind the root of the tables.
constexpr int readerCount = 4, longest = 200;
struct Board {
    std::atomic<std::uint64_t> changes, checks[readerCount];
    std::atomic<int> illegal;
};
Board &board() {
    static_assert(sizeof(policy::Root) <= 32 * 1024);
    return *reinterpret_cast<Board *>(platform::policyAddress + platform::policyRootOffset + 32 * 1024);
}

// writer: changes lists until it is killed.
ZEL_CHILD(writer) {
    zelAclMgr *manager = zelAclMgrOpen(ZEL_ACLMGR_PRIMARY);
    Random random{std::mt19937(static_cast<unsigned>(getpid()))};
    for (;; ++board().changes) {
        const std::string name = listName(random());
        const TestedKind &tested = testedKinds[random() % std::size(testedKinds)];
        if (random() % 4 == 0)
            zelAclMgrRemoveList(manager, tested.kind, name.c_str());
        else if (tested.set(manager, name.c_str(), random() % longest + 1) != 0)
            return 1;
    }
}

// reader N: checks lists until it is killed.
ZEL_CHILD(reader) {
    if (zelPolicyAttachSegment(0) == nullptr) return 1;
    for (auto &checks = board().checks[atoi(argv[0])];; ++checks) {
        const std::string name = listName(static_cast<std::uint32_t>(checks));
        if (aclReadLock() != 0) return 2;
        for (const TestedKind &tested : testedKinds) {
            const int count = tested.check(name.c_str());
            if (count == mixed || count > longest) ++board().illegal;
        }
        aclReadUnlock();
    }
}

TEST(PolicyWriterKilled, ReadersGoOnAndNothingIsLost) {
    zelAclMgr *manager = zelAclMgrOpen(ZEL_ACLMGR_PRIMARY);
    ASSERT_NE(manager, nullptr);
    const auto bytesInUse = [&] {
        zelAclMgrAuditReport report;
        EXPECT_EQ(zelAclMgrAudit(manager, &report), 0u);
        return report.bytes;
    };
    const auto eachList = [&](const auto &visit) {
        for (std::uint32_t i = 0; i < listCount; ++i)
            for (const TestedKind &tested : testedKinds) EXPECT_EQ(visit(tested, listName(i)), 0u);
    };
    const auto setAll = [&] {
        eachList(
            [&](const TestedKind &tested, const std::string &name) { return tested.set(manager, name.c_str(), 1); });
    };
    const auto removeAll = [&] {
        eachList([&](const TestedKind &tested, const std::string &name) {
            return zelAclMgrRemoveList(manager, tested.kind, name.c_str());
        });
    };
    setAll();
    removeAll();
    const std::uint64_t bytesOfNodes = bytesInUse();

    Random random = seeded();
    std::vector<Child> readers;
    const auto startReader = [&](int i) { return Child::start("reader", {std::to_string(i)}); };
    for (int i = 0; i < readerCount; ++i) readers.push_back(startReader(i));
    const auto allAdvance = [] {
        std::uint64_t before[readerCount];
        std::copy(std::begin(board().checks), std::end(board().checks), before);
        return eventually(5, [&] {
            return std::equal(before, before + readerCount, board().checks,
                              [](std::uint64_t was, const auto &is) { return is > was; });
        });
    };
    int abandoned = 0;
    for (int round = 0; round < (isFullRun() ? 200 : 20); ++round) {
        const std::uint64_t goal = board().changes + random() % 500;
        Child writer = Child::start("writer");
        ASSERT_TRUE(eventually(20, [&] { return board().changes > goal; }));
        writer.signal(SIGKILL);
        EXPECT_EQ(writer.wait(), 256 + SIGKILL);
        Child &victim = readers[random() % readerCount];
        victim.signal(SIGKILL);
        EXPECT_EQ(victim.wait(), 256 + SIGKILL);
        victim = startReader(static_cast<int>(&victim - readers.data()));
        ASSERT_TRUE(allAdvance()) << "round " << round;
        ASSERT_EQ(ZEL_ShmWriteLock(ZEL_SHM_LOCK_POLICY), 0);
        if (zelShmLockWasAbandoned(ZEL_SHM_LOCK_POLICY) == 1) {
            ++abandoned;
            aclmgr::repair(*manager->root);
        }
        ASSERT_EQ(ZEL_ShmWriteUnLock(ZEL_SHM_LOCK_POLICY), 0);
        bytesInUse();
    }
    EXPECT_EQ(board().illegal, 0);
    printf("%d writers died with the lock; %llu changes\n", abandoned,
           static_cast<unsigned long long>(board().changes.load()));
    EXPECT_GT(abandoned, 0);
    setAll();
    removeAll();
    EXPECT_EQ(bytesInUse(), bytesOfNodes);
    zelAclMgrClose(manager);
}

}  // namespace
}  // namespace zel::test
