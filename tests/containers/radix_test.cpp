// The radix tree against a naive oracle: a sorted map from the key's bits, written as text, to the entry. The text
// order of bits is the order of the tree, a prefix before what it covers.
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <memory>
#include <unordered_map>
#include <vector>

#include "tests/support/random.h"
#include "tests/support/reports.h"
#include "tests/support/table.h"
#include "zel/containers.h"

namespace zel::test {
namespace {

// The key lies in a block of exactly its size, so that reading one byte too many is seen by the sanitizers.
struct Record {
    zelRadixEntry entry{};
    std::unique_ptr<uint8_t[]> key;
    uint32_t bits = 0;
    std::string text;
};

std::unique_ptr<uint8_t[]> exactKey(const uint8_t *bytes, uint32_t bits) {
    const size_t size = (bits + 7) / 8;
    auto key = std::make_unique<uint8_t[]>(size);
    if (size) memcpy(key.get(), bytes, size);
    return key;
}

std::string bitText(const uint8_t *key, uint32_t bits) {
    std::string text;
    for (uint32_t i = 0; i < bits; ++i) text += key[i / 8] & (0x80 >> (i % 8)) ? '1' : '0';
    return text;
}

std::unique_ptr<Record> makeRecord(const std::vector<uint8_t> &bytes, uint32_t bits) {
    auto record = std::make_unique<Record>();
    record->key = exactKey(bytes.data(), bits);
    record->bits = bits;
    record->text = bitText(bytes.data(), bits);
    record->entry.rth_addr = record->key.get();
    return record;
}

// Checks the sub-tree and counts its nodes: parent links, growing bits, masks, forks with two children, and entries
// that know their node and lie under every prefix above them.
uint32_t checkNodes(const zelRadixNode *node, const zelRadixNode *parent) {
    if (!node) return 0;
    EXPECT_EQ(node->rtn_parent, parent);
    EXPECT_EQ(node->rtn_mask, 0x80 >> (node->rtn_bit % 8));
    EXPECT_TRUE(!parent || node->rtn_bit > parent->rtn_bit);
    EXPECT_TRUE(node->rtn_entry || (node->rtn_left && node->rtn_right));
    if (node->rtn_entry) {
        const auto *record = reinterpret_cast<const Record *>(node->rtn_entry);
        EXPECT_EQ(node->rtn_entry->rtn, node);
        EXPECT_EQ(record->bits, node->rtn_bit);
        const zelRadixNode *below = node;
        for (const zelRadixNode *above = parent; above; below = above, above = above->rtn_parent)
            EXPECT_EQ(below == above->rtn_right, record->text[above->rtn_bit] == '1');
    }
    return 1 + checkNodes(node->rtn_left, node) + checkNodes(node->rtn_right, node);
}

void checkTree(const zelRadix *tree) {
    ASSERT_EQ(checkNodes(tree->rtt_root, nullptr), tree->rtt_nodes);
}

class RandomTree : public testing::TestWithParam<uint32_t> {
protected:
    struct State {
        std::unique_ptr<Record> record;
        bool isMarked = false;
    };

    ~RandomTree() override { zelRadixDestroy(tree); }

    // Few distinct bytes, so that prefixes repeat, nest and part at every bit.
    std::unique_ptr<Record> randomRecord() {
        std::vector<uint8_t> bytes(maxbits / 8 + 1);
        for (auto &byte : bytes) byte = static_cast<uint8_t>(random() % 5 == 0 ? random() : 0xa0);
        return makeRecord(bytes, random() % 6 == 0 ? maxbits : random() % (maxbits + 1));
    }

    void insert() {
        auto record = randomRecord();
        zelRadixEntry *entry = &record->entry;
        zelRadixEntry *stands = zelRadixInsert(tree, entry, record->bits);
        State &state = model[record->text];
        if (state.record && !state.isMarked) {
            ASSERT_EQ(stands, &state.record->entry);
            return;
        }
        ASSERT_EQ(stands, entry);
        released += state.isMarked;
        state = {std::move(record), false};
    }

    void remove() {
        if (model.empty()) return;
        auto at = std::next(model.begin(), static_cast<long>(random() % model.size()));
        zelRadixRemove(tree, &at->second.record->entry);
        if (tree->rtt_versioning)
            at->second.isMarked = true;
        else
            model.erase(at);
    }

    zelRadixEntry *expectedCover(const std::string &probe, bool hidesWhenMarked) const {
        for (size_t length = probe.size() + 1; length-- > 0;) {
            const auto at = model.find(probe.substr(0, length));
            if (at != model.end()) return hidesWhenMarked && at->second.isMarked ? nullptr : &at->second.record->entry;
        }
        return nullptr;
    }

    void lookUp() {
        auto probe = randomRecord();
        ASSERT_EQ(zelRadixGetBest(tree, probe->key.get(), probe->bits), expectedCover(probe->text, true));
        const auto at = model.find(probe->text);
        zelRadixEntry *exact = at == model.end() || at->second.isMarked ? nullptr : &at->second.record->entry;
        ASSERT_EQ(zelRadixGetExact(tree, probe->key.get(), probe->bits), exact);
        if (model.empty()) return;
        auto &some = std::next(model.begin(), static_cast<long>(random() % model.size()))->second.record;
        zelRadixEntry *shorter =
            some->bits == 0 ? nullptr : expectedCover(some->text.substr(0, some->text.size() - 1), false);
        ASSERT_EQ(zelRadixGetParent(tree, &some->entry), shorter);
        ASSERT_EQ(zelRadixGetLessSpecific(tree, nullptr, some->entry.rtn), shorter);
    }

    void checkOrder() {
        std::vector<zelRadixEntry *> expected, visited;
        for (auto &[text, state] : model)
            if (!state.isMarked) expected.push_back(&state.record->entry);
        for (zelRadixEntry *e = nullptr; (e = zelRadixGetNext(tree, e)) != nullptr;) visited.push_back(e);
        ASSERT_EQ(visited, expected);
        visited.clear();
        zelRadixWalk(
            tree,
            [](zelRadixEntry *entry, void *context) {
                static_cast<std::vector<zelRadixEntry *> *>(context)->push_back(entry);
                return 0;
            },
            &visited);
        ASSERT_EQ(visited, expected);
    }

    const uint32_t maxbits = GetParam();
    Random random = seeded();
    zelRadix *tree = zelRadixCreate("random", static_cast<uint16_t>(GetParam()), nullptr, nullptr, nullptr);
    std::map<std::string, State> model;
    uint32_t released = 0;
};

TEST_P(RandomTree, agreesWithTheOracle) {
    const int steps = (isFullRun() ? 60000 : 20000) / (maxbits > 128 ? 8 : 1);
    for (int step = 0; step < steps; ++step) {
        // Long phases of growth and decay; now and then removals only mark, as they do for readers of versions.
        const bool grows = (step / 1500) % 2 == 0;
        if (random() % 500 == 0) tree->rtt_versioning = !tree->rtt_versioning;
        random() % 10 < (grows ? 7u : 3u) ? insert() : remove();
        lookUp();
        if (model.size() <= 64 || step % 1000 == 0) {
            checkTree(tree);
            checkOrder();
        }
        if (HasFatalFailure()) return;
    }
    EXPECT_EQ(tree->rtt_released, released);
    tree->rtt_versioning = 0;
    while (!model.empty()) remove();
    EXPECT_EQ(tree->rtt_root, nullptr);
    EXPECT_EQ(tree->rtt_nodes, 0u);
}

INSTANTIATE_TEST_SUITE_P(KeyLengths, RandomTree, testing::Values(7, 32, 128, 1120));

// Node memory that runs out after a number of blocks.
int blocksLeft = 0, blocksOut = 0;
void *rationed(size_t bytes) {
    if (blocksLeft == 0) return nullptr;
    --blocksLeft;
    ++blocksOut;
    return malloc(bytes);
}
void giveBack(void *block) {
    --blocksOut;
    free(block);
}
zelRadixEntry *handedOver = nullptr;

class SmallTree : public testing::Test {
protected:
    ~SmallTree() override {
        zelRadixDestroy(tree);
        EXPECT_EQ(blocksOut, 0);
    }
    Record &record(const char *address, uint32_t bits) {
        std::vector<uint8_t> bytes(4);
        inet_pton(AF_INET, address, bytes.data());
        records.push_back(makeRecord(bytes, bits));
        return *records.back();
    }
    zelRadixEntry *best(const char *address) {
        uint8_t bytes[4];
        inet_pton(AF_INET, address, bytes);
        return zelRadixGetBest(tree, bytes, 32);
    }
    zelRadix *tree = (blocksLeft = 100, zelRadixCreate("small", 32, rationed, giveBack,
                                                       [](zelRadixEntry *entry) { handedOver = entry; }));
    std::vector<std::unique_ptr<Record>> records;
};

TEST_F(SmallTree, aMarkedPrefixHidesShorterOnesUntilItIsReplaced) {
    Record &wide = record("10.0.0.0", 8), &narrow = record("10.1.0.0", 16), &again = record("10.1.0.0", 16);
    zelRadixInsert(tree, &wide.entry, 8);
    zelRadixInsert(tree, &narrow.entry, 16);
    tree->rtt_versioning = 1;
    zelRadixRemove(tree, &narrow.entry);
    EXPECT_EQ(best("10.1.2.3"), nullptr);
    EXPECT_EQ(best("10.2.2.3"), &wide.entry);
    EXPECT_EQ(zelRadixInsert(tree, &again.entry, 16), &again.entry);
    EXPECT_EQ(handedOver, &narrow.entry);
    EXPECT_EQ(narrow.entry.rth_key, nullptr);
    EXPECT_EQ(best("10.1.2.3"), &again.entry);
    // A marked entry that comes back itself is simply live again.
    handedOver = nullptr;
    zelRadixRemove(tree, &again.entry);
    EXPECT_EQ(zelRadixInsert(tree, &again.entry, 16), &again.entry);
    EXPECT_EQ(best("10.1.2.3"), &again.entry);
    EXPECT_EQ(handedOver, nullptr);
}

TEST_F(SmallTree, anEntryInsertedTwiceCanStillBeRemoved) {
    Record &first = record("10.0.0.0", 8);
    zelRadixInsert(tree, &first.entry, 8);
    EXPECT_EQ(zelRadixInsert(tree, &first.entry, 8), &first.entry);
    EXPECT_EQ(tree->rtt_inserts, 2u);
    zelRadixRemove(tree, &first.entry);
    EXPECT_EQ(best("10.1.2.3"), nullptr);
    zelRadixRemove(tree, &first.entry);  // in no tree: left alone
    EXPECT_EQ(tree->rtt_nodes, 0u);
}

TEST_F(SmallTree, refusesLongKeysWhileStrict) {
    std::vector<uint8_t> bytes{10, 0, 0, 0, 0x80};
    auto tooLong = makeRecord(bytes, 33);
    EXPECT_EQ(zelRadixInsert(tree, &tooLong->entry, 33), nullptr);
    EXPECT_EQ(zelRadixGetBest(tree, bytes.data(), 33), nullptr);
    tree->rtt_strict = 0;
    EXPECT_EQ(zelRadixInsert(tree, &tooLong->entry, 33), &tooLong->entry);
    EXPECT_EQ(zelRadixGetBest(tree, bytes.data(), 33), &tooLong->entry);
    EXPECT_EQ(zelRadixInsert(tree, &tooLong->entry, 65537), nullptr);
}

TEST_F(SmallTree, anInsertWithoutMemoryLeavesTheTreeAsItWas) {
    Record &a = record("10.0.0.0", 16), &b = record("11.0.0.0", 16);
    blocksLeft = 1;
    EXPECT_EQ(zelRadixInsert(tree, &a.entry, 16), &a.entry);
    for (blocksLeft = 0; blocksLeft < 2; ++blocksLeft) {
        const int had = blocksLeft;  // a new leaf needs a fork, too
        EXPECT_EQ(zelRadixInsert(tree, &b.entry, 16), nullptr) << had;
        blocksLeft = had;
        checkTree(tree);
        EXPECT_EQ(best("10.0.1.1"), &a.entry);
        EXPECT_EQ(best("11.0.1.1"), nullptr);
    }
    EXPECT_EQ(zelRadixInsert(tree, &b.entry, 16), &b.entry);
}

TEST_F(SmallTree, reportsWhatIsMissing) {
    EXPECT_EQ(zelRadixInsert(tree, nullptr, 8), nullptr);
    EXPECT_EQ(lastAssertion(), "rth");
    Record &keyless = record("10.0.0.0", 8);
    keyless.entry.rth_addr = nullptr;
    EXPECT_EQ(zelRadixInsert(tree, &keyless.entry, 8), nullptr);
    EXPECT_EQ(lastAssertion(), "rth->rth_addr");
    EXPECT_EQ(zelRadixNodeIsLeaf(tree, nullptr), 0);
    EXPECT_EQ(lastAssertion(), "rtn");
    EXPECT_EQ(zelRadixGetBest(nullptr, "", 0), nullptr);
    EXPECT_EQ(lastAssertion(), "rtt");
    EXPECT_EQ(zelRadixCreate(nullptr, 32, nullptr, nullptr, nullptr), nullptr);
    EXPECT_EQ(lastAssertion(), "rtt_name");
    tree->rtt_magic = 1;
    EXPECT_EQ(zelRadixGetNext(tree, nullptr), nullptr);
    EXPECT_EQ(lastAssertion(), "rtt->rtt_magic == 0xdeadbeef");
    tree->rtt_magic = ZEL_RADIX_MAGIC;
}

TEST_F(SmallTree, aWalkMayRemoveWhatItVisitsAndStopsWhenTold) {
    for (const char *address : {"10.0.0.0", "10.64.0.0", "10.128.0.0", "10.192.0.0"}) {
        Record &some = record(address, 10);
        zelRadixInsert(tree, &some.entry, 10);
    }
    static zelRadix *walked = tree;
    int left = 3;
    zelRadixWalk(
        tree,
        [](zelRadixEntry *entry, void *context) {
            zelRadixRemove(walked, entry);
            return --*static_cast<int *>(context) == 0 ? 1 : 0;
        },
        &left);
    EXPECT_EQ(left, 0);
    EXPECT_EQ(zelRadixGetNext(tree, nullptr), &records.back()->entry);
    EXPECT_EQ(zelRadixNodeIsLeaf(tree, records.back()->entry.rtn), 1);
    EXPECT_EQ(tree->rtt_nodes, 1u);
}

// A complete Internet table: every prefix is found, addresses get the longest match that probing every length in a hash
// table gives, the walk is in order, and removal in random order leaves nothing behind.
TEST(RealTable, holdsACompleteInternetTable) {
    struct Route {
        zelRadixEntry entry{};
        uint8_t key[4] = {};
        uint32_t bits = 0;
    };
    zelRadix *tree = zelRadixCreate("table", 32, nullptr, nullptr, nullptr);
    std::vector<std::unique_ptr<Route>> routes;
    std::unordered_map<uint64_t, Route *> oracle;
    const auto oracleKey = [](uint32_t address, uint32_t bits) {
        return (static_cast<uint64_t>(bits ? address >> (32 - bits) << (32 - bits) : 0) << 8) | bits;
    };
    long repeated = 0;
    const long rows = eachRow("rib4_full_2015-10.txt.xz", [&](std::string_view row) {
        std::string prefix(column(row));
        const size_t slash = prefix.find('/');
        auto route = std::make_unique<Route>();
        route->bits = static_cast<uint32_t>(std::stoul(prefix.substr(slash + 1)));
        inet_pton(AF_INET, prefix.substr(0, slash).c_str(), route->key);
        route->entry.rth_addr = route->key;
        uint32_t address;
        memcpy(&address, route->key, 4);
        auto [at, isNew] = oracle.try_emplace(oracleKey(ntohl(address), route->bits), route.get());
        repeated += !isNew;
        ASSERT_EQ(zelRadixInsert(tree, &route->entry, route->bits), &at->second->entry);
        if (isNew) routes.push_back(std::move(route));
    });
    ASSERT_EQ(rows, 577737);
    EXPECT_EQ(oracle.size(), 577706u);
    EXPECT_EQ(repeated, 31);

    Random random = seeded();
    for (int i = 0; i < 100000; ++i) {
        const auto &near = routes[random() % routes.size()];
        uint32_t address, noise = random();
        memcpy(&address, near->key, 4);
        address = ntohl(address) ^ (noise >> (random() % 33 == 0 ? 0 : near->bits % 32));
        Route *expected = nullptr;
        for (uint32_t bits = 33; bits-- > 0 && !expected;)
            if (const auto at = oracle.find(oracleKey(address, bits)); at != oracle.end()) expected = at->second;
        const uint32_t key = htonl(address);
        ASSERT_EQ(zelRadixGetBest(tree, &key, 32), &expected->entry);
    }
    zelRadixEntry *before = nullptr;
    size_t walked = 0;
    for (zelRadixEntry *e = nullptr; (e = zelRadixGetNext(tree, e)) != nullptr; before = e, ++walked) {
        if (!before) continue;
        const auto *a = reinterpret_cast<Route *>(before), *b = reinterpret_cast<Route *>(e);
        const int order = memcmp(a->key, b->key, 4);
        ASSERT_TRUE(order < 0 || (order == 0 && a->bits < b->bits));
    }
    EXPECT_EQ(walked, routes.size());
    std::shuffle(routes.begin(), routes.end(), random);
    for (auto &route : routes) {
        ASSERT_EQ(zelRadixGetExact(tree, route->key, route->bits), &route->entry);
        zelRadixRemove(tree, &route->entry);
        route.reset();
    }
    EXPECT_EQ(tree->rtt_nodes, 0u);
    zelRadixDestroy(tree);
}

}  // namespace
}  // namespace zel::test
