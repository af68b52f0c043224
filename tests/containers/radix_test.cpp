// The radix tree against a naive oracle: a sorted map from the key's bits, written as text, to the entry. The text
// order of bits is the order of the tree, a prefix before what it covers.
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <memory>
#include <vector>

#include "tests/support/random.h"
#include "tests/support/reports.h"
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

std::string bitText(const uint8_t *key, uint32_t bits) {
    std::string text;
    for (uint32_t i = 0; i < bits; ++i) text += key[i / 8] & (0x80 >> (i % 8)) ? '1' : '0';
    return text;
}

std::unique_ptr<Record> makeRecord(const std::vector<uint8_t> &bytes, uint32_t bits) {
    auto record = std::make_unique<Record>();
    const size_t size = (bits + 7) / 8;
    record->key = std::make_unique<uint8_t[]>(size);
    std::copy_n(bytes.begin(), size, record->key.get());
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
        std::vector<zelRadixEntry *> expected, next, walked;
        for (auto &[text, state] : model)
            if (!state.isMarked) expected.push_back(&state.record->entry);
        for (zelRadixEntry *e = nullptr; (e = zelRadixGetNext(tree, e)) != nullptr;) next.push_back(e);
        ASSERT_EQ(next, expected);
        const auto note = [](zelRadixEntry *entry, void *all) {
            return static_cast<std::vector<zelRadixEntry *> *>(all)->push_back(entry), 0;
        };
        zelRadixWalk(tree, note, &walked);
        ASSERT_EQ(walked, expected);
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
    for (int i = 0; i < 2; ++i) {  // the second time it is in no tree, and left alone
        zelRadixRemove(tree, &first.entry);
        EXPECT_EQ(tree->rtt_nodes, 0u);
    }
}

TEST_F(SmallTree, refusesLongKeysWhileStrict) {
    Record &tooLong = *records.emplace_back(makeRecord({10, 0, 0, 0, 0x80}, 33));
    for (const bool isStrict : {true, false}) {
        tree->rtt_strict = isStrict;
        zelRadixEntry *expected = isStrict ? nullptr : &tooLong.entry;
        EXPECT_EQ(zelRadixInsert(tree, &tooLong.entry, 33), expected);
        EXPECT_EQ(zelRadixGetBest(tree, tooLong.key.get(), 33), expected);
    }
    EXPECT_EQ(zelRadixInsert(tree, &tooLong.entry, 65537), nullptr);
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
    Record &keyless = record("10.0.0.0", 8);
    keyless.entry.rth_addr = nullptr;
    const int before = reportedAssertions();
    EXPECT_EQ(zelRadixInsert(tree, nullptr, 8), nullptr);
    EXPECT_EQ(zelRadixInsert(tree, &keyless.entry, 8), nullptr);
    EXPECT_EQ(zelRadixNodeIsLeaf(tree, nullptr), 0);
    EXPECT_EQ(zelRadixGetBest(nullptr, "", 0), nullptr);
    EXPECT_EQ(zelRadixCreate(nullptr, 32, nullptr, nullptr, nullptr), nullptr);
    tree->rtt_magic = 1;
    EXPECT_EQ(zelRadixGetNext(tree, nullptr), nullptr);
    EXPECT_EQ(lastAssertion(), "rtt->rtt_magic == 0xdeadbeef");
    EXPECT_EQ(reportedAssertions(), before + 6);
    tree->rtt_magic = ZEL_RADIX_MAGIC;
}

TEST_F(SmallTree, aWalkMayRemoveWhatItVisitsAndStopsWhenTold) {
    for (const char *address : {"10.0.0.0", "10.64.0.0", "10.128.0.0", "10.192.0.0"}) {
        Record &some = record(address, 10);
        zelRadixInsert(tree, &some.entry, 10);
    }
    static zelRadix *walked = tree;
    int left = 3;
    const auto removeIt = [](zelRadixEntry *entry, void *count) {
        zelRadixRemove(walked, entry);
        return --*static_cast<int *>(count) == 0 ? 1 : 0;
    };
    zelRadixWalk(tree, removeIt, &left);
    EXPECT_EQ(left, 0);
    EXPECT_EQ(zelRadixGetNext(tree, nullptr), &records.back()->entry);
    EXPECT_EQ(zelRadixNodeIsLeaf(tree, records.back()->entry.rtn), 1);
    EXPECT_EQ(tree->rtt_nodes, 1u);
}

}  // namespace
}  // namespace zel::test
