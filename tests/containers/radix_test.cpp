// The radix tree against a naive oracle: a sorted map from the text of the key's bits to the entry.
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <map>

#include "tests/containers/radix_records.h"
#include "tests/support/failing_allocator.h"
#include "tests/support/random.h"
#include "tests/support/reports.h"

namespace zel::test {
namespace {

using Record = RadixRecord;
using Entries = std::vector<zelRadixEntry *>;

class RandomTree : public testing::TestWithParam<uint32_t> {
protected:
    struct State {
        std::unique_ptr<Record> record;
        bool isMarked = false;
    };

    ~RandomTree() override {
        zelRadixDestroy(tree);
        EXPECT_EQ(FailingAllocator::live(), 0);
    }

    // Few distinct bytes, so that prefixes repeat, nest and part at every bit.
    std::unique_ptr<Record> randomRecord() {
        std::vector<uint8_t> bytes(maxbits / 8 + 1);
        for (auto &byte : bytes) byte = static_cast<uint8_t>(random() % 5 == 0 ? random() : 0xa0);
        return radixRecord(bytes, random() % 6 == 0 ? maxbits : random() % (maxbits + 1));
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
        auto at = some();
        zelRadixRemove(tree, &at->second.record->entry);
        if (tree->rtt_versioning)
            at->second.isMarked = true;
        else
            model.erase(at);
    }

    std::map<std::string, State>::iterator some() {
        return std::next(model.begin(), static_cast<long>(random() % model.size()));
    }

    // The entry of the longest prefix of `probe`; of those shorter than it, without `itself`.
    const State *cover(std::string probe, bool itself) const {
        if (!itself && probe.empty()) return nullptr;
        if (!itself) probe.pop_back();
        for (auto at = model.upper_bound(probe); at != model.begin(); at = model.upper_bound(probe)) {
            const auto &[text, state] = *--at;
            if (probe.starts_with(text)) return &state;
            probe.resize(
                static_cast<size_t>(std::mismatch(probe.begin(), probe.end(), text.begin()).first - probe.begin()));
        }
        return nullptr;
    }
    static zelRadixEntry *entryOf(const State *state, bool hidesWhenMarked) {
        return !state || (hidesWhenMarked && state->isMarked) ? nullptr : &state->record->entry;
    }

    void lookUp() {
        auto probe = randomRecord();
        zelRadixEntry *best = entryOf(cover(probe->text, true), true), *prev = nullptr;
        ASSERT_EQ(zelRadixGetBest(tree, probe->key.get(), probe->bits), best);
        ASSERT_EQ(zelRadixGetBestAndPrev(tree, probe->key.get(), probe->bits, &prev), best);
        ASSERT_EQ(prev, best ? zelRadixGetNextBest(tree, best) : nullptr);
        const auto at = model.find(probe->text);
        ASSERT_EQ(zelRadixGetExact(tree, probe->key.get(), probe->bits),
                  at == model.end() ? nullptr : entryOf(&at->second, true));
        if (random() % 8 == 0) checkSubTree(*probe);
        if (model.empty()) return;
        const auto &[text, state] = *some();
        const State *shorter = cover(text, false);
        ASSERT_EQ(zelRadixGetParent(tree, &state.record->entry), entryOf(shorter, false));
        ASSERT_EQ(zelRadixGetLessSpecific(tree, nullptr, state.record->entry.rtn), entryOf(shorter, false));
        ASSERT_EQ(zelRadixGetNextBest(tree, &state.record->entry), entryOf(shorter, true));
    }

    void checkSubTree(const Record &probe) {
        zelRadixNode *top = _zelRadixGetSubTree(tree, probe.key.get(), probe.bits);
        auto at = model.lower_bound(probe.text);
        const auto isBelow = [&] { return at != model.end() && at->first.starts_with(probe.text); };
        ASSERT_EQ(top != nullptr, isBelow());
        if (!top) return;
        Entries expected, seen;
        for (; isBelow(); ++at)
            if (!at->second.isMarked) expected.push_back(&at->second.record->entry);
        const auto note = [](zelRadixEntry *entry, void *all) {
            return static_cast<Entries *>(all)->push_back(entry), 0;
        };
        zelRadixWalkSubTree(tree, top, note, &seen);
        ASSERT_EQ(seen, expected);
    }

    void checkOrder() {
        Entries expected, next;
        for (auto &[text, state] : model)
            if (!state.isMarked) expected.push_back(&state.record->entry);
        for (zelRadixEntry *e = nullptr; (e = zelRadixGetNext(tree, e)) != nullptr;) next.push_back(e);
        ASSERT_EQ(next, expected);
        ASSERT_EQ(walked(tree), expected);
    }

    const uint32_t maxbits = GetParam();
    Random random = seeded();
    zelRadix *tree = zelRadixCreate("random", static_cast<uint16_t>(GetParam()), nullptr, nullptr, nullptr);
    std::map<std::string, State> model;
    uint32_t released = 0;
};

TEST_P(RandomTree, agreesWithTheOracle) {
    const int steps = (maxbits > 128 ? 10000 : 30000) * (isFullRun() ? 10 : 1);
    for (int step = 0; step < steps; ++step) {
        // Long phases of growth and decay; now and then removals only mark, and the index comes and goes.
        const bool grows = (step / 1500) % 2 == 0;
        if (random() % 500 == 0) tree->rtt_versioning = !tree->rtt_versioning;
        if (step % 1000 == 0) zelRadixSetIndex(tree, step % 5000 == 0 ? 16 + random() % 3 : 0);
        random() % 10 < (grows ? 7u : 3u) ? insert() : remove();
        lookUp();
        if (model.size() <= 64 || step % 1000 == 0) {
            checkRadixTree(tree);
            checkOrder();
        }
        if (HasFatalFailure()) return;
    }
    EXPECT_EQ(tree->rtt_released, released);
    tree->rtt_versioning = 0;
    while (!model.empty()) remove();
    EXPECT_EQ(tree->rtt_root, 0u);
    EXPECT_EQ(tree->rtt_nodes, 0u);
}

INSTANTIATE_TEST_SUITE_P(KeyLengths, RandomTree, testing::Values(7, 32, 128, 1120));

zelRadixEntry *handedOver = nullptr;

class SmallTree : public testing::Test {
protected:
    ~SmallTree() override {
        zelRadixDestroy(tree);
        EXPECT_EQ(FailingAllocator::live(), 0);
    }
    Record &record(const char *address, uint32_t bits) {
        std::vector<uint8_t> bytes(4);
        inet_pton(AF_INET, address, bytes.data());
        records.push_back(radixRecord(bytes, bits));
        return *records.back();
    }
    Record &insert(const char *address, uint32_t bits) {
        Record &added = record(address, bits);
        EXPECT_EQ(zelRadixInsert(tree, &added.entry, bits), &added.entry);
        return added;
    }
    zelRadixEntry *best(const char *address) {
        uint8_t bytes[4];
        inet_pton(AF_INET, address, bytes);
        return zelRadixGetBest(tree, bytes, 32);
    }
    zelRadix *tree = zelRadixCreate("small", 32, FailingAllocator::allocate, FailingAllocator::release,
                                    [](zelRadixEntry *entry) { handedOver = entry; });
    std::vector<std::unique_ptr<Record>> records;
};

TEST_F(SmallTree, aMarkedPrefixHidesShorterOnesUntilItIsReplaced) {
    Record &wide = insert("10.0.0.0", 8), &narrow = insert("10.1.0.0", 16);
    tree->rtt_versioning = 1;
    zelRadixRemove(tree, &narrow.entry);
    EXPECT_EQ(best("10.1.2.3"), nullptr);
    EXPECT_EQ(best("10.2.2.3"), &wide.entry);
    Record &again = insert("10.1.0.0", 16);
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
    tree->rtt_versioning = 1;  // it is in the list of changes, which must survive that
    Record &first = insert("10.0.0.0", 8), &refused = record("10.0.0.0", 8);
    EXPECT_EQ(zelRadixInsert(tree, &first.entry, 8), &first.entry);
    refused.entry.rtn = first.entry.rtn;
    EXPECT_EQ(zelRadixInsert(tree, &refused.entry, 8), &first.entry);
    EXPECT_EQ(refused.entry.rtn, nullptr);
    EXPECT_EQ(tree->rtt_inserts, 3u);
    tree->rtt_versioning = 0;
    for (int i = 0; i < 2; ++i) {  // the second time it is in no tree, and left alone
        zelRadixRemove(tree, &first.entry);
        EXPECT_EQ(tree->rtt_nodes, 0u);
    }
    zelRadicalNextVersion(tree);
}

TEST_F(SmallTree, refusesLongKeysWhileStrict) {
    Record &tooLong = *records.emplace_back(radixRecord({10, 0, 0, 0, 0x80}, 33));
    for (const bool isStrict : {true, false}) {
        tree->rtt_strict = isStrict;
        zelRadixEntry *expected = isStrict ? nullptr : &tooLong.entry;
        EXPECT_EQ(zelRadixInsert(tree, &tooLong.entry, 33), expected);
        EXPECT_EQ(zelRadixGetBest(tree, tooLong.key.get(), 33), expected);
    }
    EXPECT_EQ(zelRadixInsert(tree, &tooLong.entry, 65537), nullptr);
}

// One allocation after the other fails; what it was for is refused, or done without, and nothing else changes.
TEST_F(SmallTree, withoutMemoryTheTreeStaysAsItWas) {
    for (unsigned nth = 1, failed = true; failed; ++nth) {
        Random random{std::mt19937(1)};
        Entries inside;
        size_t unversioned = 0;
        FailingAllocator::failAt(nth);
        for (int i = 0; i < 700; ++i) {
            const uint32_t bits = 4 + random() % 29, address = htonl(random() & (0xffffffffu << (32 - bits)));
            std::vector<uint8_t> bytes(4);
            memcpy(bytes.data(), &address, 4);
            Record &some = *records.emplace_back(radixRecord(bytes, bits));
            const uint32_t nodes = tree->rtt_nodes;
            tree->rtt_versioning = i >= 300;
            const bool isIndexed = i == 200 && zelRadixSetIndex(tree, 16) == 0;
            ASSERT_TRUE(i != 200 || isIndexed == (tree->rtt_index != nullptr));
            zelRadixEntry *stands = zelRadixInsert(tree, &some.entry, bits);
            if (stands == &some.entry) inside.push_back(stands);
            if (i < 300) unversioned = inside.size();
            if (stands) continue;
            ASSERT_TRUE(FailingAllocator::hasFailed());
            ASSERT_EQ(tree->rtt_nodes, nodes);
            ASSERT_EQ(zelRadixGetExact(tree, bytes.data(), bits), nullptr);
            ASSERT_EQ(walked(tree).size(), inside.size());
        }
        failed = FailingAllocator::hasFailed();
        checkRadixTree(tree);
        ASSERT_EQ(walked(tree).size(), inside.size());
        size_t changed = 0;  // without columns to tell, the walk passes over nothing
        zelRadixVersionWalk(
            tree, 0, [](auto, void *count) { return ++*static_cast<size_t *>(count), 0; }, &changed);
        ASSERT_EQ(changed, inside.size() - unversioned);
        tree->rtt_versioning = 0;
        for (zelRadixEntry *entry : inside) zelRadixRemove(tree, entry);
        zelRadixUninit(tree);
        ASSERT_EQ(FailingAllocator::live(), 1);  // the header
        zelRadixInit(tree, "again", 32, FailingAllocator::allocate, FailingAllocator::release, nullptr);
        records.clear();
    }
}

TEST_F(SmallTree, nestsAndPartsAtEveryBit) {
    tree->rtt_maxbits = 1120;
    std::vector<uint8_t> ones(140, 0xff), lastBit = ones;
    lastBit.back() = 0xfe;
    const auto add = [&](const std::vector<uint8_t> &key, uint32_t bits) {
        zelRadixEntry *entry = &records.emplace_back(radixRecord(key, bits))->entry;
        ASSERT_EQ(zelRadixInsert(tree, entry, bits), entry);
    };
    add(lastBit, 1120);
    for (uint32_t bits = 1120; bits > 560; --bits) add(ones, bits);
    for (uint32_t bits = 0; bits <= 560; ++bits) add(ones, bits);
    checkRadixTree(tree);
    ASSERT_EQ(tree->rtt_nodes, 1122u);
    for (const auto &some : records) {
        ASSERT_EQ(zelRadixGetBest(tree, some->key.get(), some->bits), &some->entry);
        zelRadixEntry *parent = zelRadixGetParent(tree, &some->entry);
        ASSERT_EQ(parent ? reinterpret_cast<Record *>(parent)->bits + 1 : 0, some->bits);
    }
    for (size_t i = 0; i < records.size(); i += 2) zelRadixRemove(tree, &records[i]->entry);
    checkRadixTree(tree);
    for (size_t i = 1; i < records.size(); i += 2) zelRadixRemove(tree, &records[i]->entry);
    EXPECT_EQ(tree->rtt_nodes, 0u);
    EXPECT_EQ(FailingAllocator::live(), 3);  // header, table and one block
}

TEST_F(SmallTree, reportsWhatIsMissing) {
    Record &keyless = record("10.0.0.0", 8);
    keyless.entry.rth_addr = nullptr;
    const int before = reportedAssertions();
    EXPECT_EQ(zelRadixInsert(tree, nullptr, 8), nullptr);
    EXPECT_EQ(zelRadixInsert(tree, &keyless.entry, 8), nullptr);
    EXPECT_EQ(lastAssertion(), "rth->rth_addr");
    EXPECT_EQ(zelRadixNodeIsLeaf(tree, nullptr), 0);
    EXPECT_EQ(lastAssertion(), "rtn");
    EXPECT_EQ(zelRadixGetBest(nullptr, "", 0), nullptr);
    EXPECT_EQ(zelRadixCreate(nullptr, 32, nullptr, nullptr, nullptr), nullptr);
    tree->rtt_magic = 1;
    EXPECT_EQ(zelRadixGetNext(tree, nullptr), nullptr);
    EXPECT_EQ(lastAssertion(), "rtt->rtt_magic == 0xdeadbeef");
    EXPECT_EQ(reportedAssertions(), before + 6);
    tree->rtt_magic = ZEL_RADIX_MAGIC;
    EXPECT_EQ(zelRadixGetBest(tree, nullptr, 8), nullptr);
    EXPECT_EQ(zelRadixSetIndex(tree, 15), -1);
    EXPECT_EQ(reportedAssertions(), before + 6);
}

TEST_F(SmallTree, aWalkMayRemoveWhatItVisitsAndStopsWhenTold) {
    for (const char *address : {"10.0.0.0", "10.64.0.0", "10.128.0.0", "10.192.0.0"}) insert(address, 10);
    static zelRadix *walkedTree = tree;
    int left = 3;
    const auto removeIt = [](zelRadixEntry *entry, void *count) {
        zelRadixRemove(walkedTree, entry);
        return --*static_cast<int *>(count) == 0 ? 1 : 0;
    };
    zelRadixWalkSubTree(tree, zelRadixNodeAt(tree, tree->rtt_root), removeIt, &left);
    EXPECT_EQ(left, 0);
    EXPECT_EQ(zelRadixGetNext(tree, nullptr), &records.back()->entry);
    EXPECT_EQ(zelRadixNodeIsLeaf(tree, records.back()->entry.rtn), 1);
    EXPECT_EQ(tree->rtt_nodes, 1u);
}

TEST_F(SmallTree, printsEntriesBelowWhatCoversThem) {
    insert("0.0.0.0", 0);
    insert("10.0.0.0", 8);
    Record &gone = insert("10.128.0.0", 9);
    insert("192.168.0.0", 16);
    tree->rtt_versioning = 1;
    zelRadixRemove(tree, &gone.entry);
    testing::internal::CaptureStdout();
    zelRadixPrint(tree, nullptr);
    zelRadixMaxPrint(
        tree, [](zelRadixEntry *) { return "text"; }, 1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "radix tree \"small\": up to 32 bits, 4 nodes, 4 inserts, 0 released, version 1\n"
              "  /0\n    0a/8\n      0a80/9 deleted\n    c0a8/16\n"
              "radix tree \"small\": up to 32 bits, 4 nodes, 4 inserts, 0 released, version 1\n"
              "  text\n  and 3 more\n");
}

}  // namespace
}  // namespace zel::test
