// The radix tree: random operations on small and large trees beside the model, and what deserves a name.
#include "tests/containers/radix_model.h"
#include "tests/support/reports.h"

namespace zel::test {
namespace {

using Record = RadixRecord;
using Entries = RadixEntries;

class RandomTree : public testing::TestWithParam<uint32_t> {
protected:
    // Few distinct bytes, so that prefixes repeat, nest and part at every bit.
    std::unique_ptr<Record> randomRecord() {
        std::vector<uint8_t> bytes(maxbits / 8 + 1);
        for (auto &byte : bytes) byte = static_cast<uint8_t>(random() % 5 == 0 ? random() : 0xa0);
        return std::make_unique<Record>(bytes, random() % 6 == 0 ? maxbits : random() % (maxbits + 1));
    }
    RadixModel::Place some() {
        return std::next(model.states.begin(), static_cast<long>(random() % model.states.size()));
    }
    void change(bool grows) {
        const uint32_t dice = random() % 20;
        if (dice == 0)
            model.nextVersion();
        else if (dice == 1)
            random() % 3 ? model.walkOn(random() % 3, random() % 8) : model.startOrEndWalk(random() % 3);
        else if (dice < (grows ? 14u : 8u))
            model.insert(randomRecord());
        else if (!model.states.empty())
            dice == 19 ? model.append(some()) : model.remove(some());
    }

    const uint32_t maxbits = GetParam();
    Random random = seeded();
    RadixModel model{maxbits};
};

TEST_P(RandomTree, agreesWithTheModel) {
    const int steps = (maxbits > 128 ? 10000 : 30000) * (isFullRun() ? 10 : 1);
    for (int step = 0; step < steps && !HasFailure(); ++step) {
        // Long phases of growth and decay, with versions and without, and the index comes and goes.
        if (random() % 500 == 0) model.tree->rtt_versioning = !model.tree->rtt_versioning;
        if (step % 1000 == 0) zelRadixSetIndex(model.tree, step % 5000 == 0 ? 16 + random() % 3 : 0);
        change((step / 1500) % 2 == 0);
        const auto probe = randomRecord();
        model.checkLookUps(*probe);
        if (random() % 8 == 0) model.checkSubTree(*probe);
        if (!model.states.empty()) model.checkAncestors(some()->second);
        if (model.states.size() <= 64 || step % 1000 == 0)
            model.checkWhole(model.open - random() % std::min(model.open, 6u));
    }
    model.tree->rtt_versioning = 0;
    while (!model.states.empty()) model.remove(model.states.begin());
    EXPECT_EQ(model.tree->rtt_nodes, 0u);
    EXPECT_EQ(model.tree->rtt_released, model.handedOver.size());
}

INSTANTIATE_TEST_SUITE_P(KeyLengths, RandomTree, testing::Values(7, 32, 128, 1120));

// As many prefixes as make a tree take an index of its own, most of them of a length that the index tells apart.
TEST(LargeTree, hasAnIndexWholeAndOnItsWayOut) {
    Random random = seeded();
    RadixModel model(32);
    const auto randomRecord = [&](uint32_t bits) {
        return std::make_unique<Record>(
            std::vector<uint8_t>{static_cast<uint8_t>(random() % 4), static_cast<uint8_t>(random()),
                                 static_cast<uint8_t>(random()), 0xa0},
            bits);
    };
    const auto check = [&] {
        for (int i = 0; i < 5'000; ++i) model.checkLookUps(*randomRecord(32));
        for (const auto &[text, state] : model.states)
            if (random() % 20 == 0) model.checkAncestors(state), model.checkLookUps(*state.record);
        model.checkWhole(0);
    };
    while (model.tree->rtt_nodes < 50'000) {
        const bool isOneShort = model.tree->rtt_nodes == 32767;  // the default prefix comes without a fork
        model.insert(randomRecord(isOneShort ? 0 : random() % 8 ? 24 : 8 + random() % 25));
        ASSERT_EQ(model.tree->rtt_index != nullptr, model.tree->rtt_nodes >= 32768);
    }
    for (const uint32_t indexBits : {16u, 0u, 24u}) {
        ASSERT_EQ(zelRadixSetIndex(model.tree, indexBits), 0);
        check();
    }
    for (const uint32_t share : {2u, 1u}) {
        model.tree->rtt_versioning = share == 2;  // the first half is marked, and let go
        for (auto at = model.states.begin(), next = at; at != model.states.end(); at = next) {
            ++next;
            if (random() % share == 0) model.remove(at);
        }
        if (share == 2) model.nextVersion();
        check();
    }
    EXPECT_EQ(model.tree->rtt_nodes, 0u);
    const uint32_t *index = model.tree->rtt_index;
    EXPECT_EQ(std::count(index, index + (1 << 24), 0u), 1 << 24);
}

zelRadixEntry *handedOver = nullptr;

class SmallTree : public testing::Test {
protected:
    ~SmallTree() override {
        zelRadixDestroy(tree);
        EXPECT_EQ(FailingAllocator::live(), 0);
    }
    Record &record(const std::vector<uint8_t> &key, uint32_t bits) {
        return *records.emplace_back(std::make_unique<Record>(key, bits));
    }
    Record &insert(const std::vector<uint8_t> &key, uint32_t bits) {
        Record &added = record(key, bits);
        EXPECT_EQ(zelRadixInsert(tree, &added.entry, bits), &added.entry);
        return added;
    }
    zelRadix *tree = zelRadixCreate("small", 32, FailingAllocator::allocate, FailingAllocator::release,
                                    [](zelRadixEntry *entry) { handedOver = entry; });
    std::vector<std::unique_ptr<Record>> records;
};

TEST_F(SmallTree, anEntryInsertedTwiceCanStillBeRemoved) {
    tree->rtt_versioning = 1;  // it is in the list of changes, which must survive that
    Record &first = insert({10}, 8), &refused = record({10}, 8);
    EXPECT_EQ(zelRadixInsert(tree, &first.entry, 8), &first.entry);
    refused.entry.rtn = first.entry.rtn;
    EXPECT_EQ(zelRadixInsert(tree, &refused.entry, 8), &first.entry);
    EXPECT_EQ(refused.entry.rtn, nullptr);
    EXPECT_EQ(tree->rtt_inserts, 3u);
    // Marked, and back again: nobody lost it.
    zelRadixRemove(tree, &first.entry);
    EXPECT_EQ(zelRadixGetExact(tree, first.key.get(), 8), nullptr);
    EXPECT_EQ(zelRadixInsert(tree, &first.entry, 8), &first.entry);
    EXPECT_EQ(zelRadixGetExact(tree, first.key.get(), 8), &first.entry);
    EXPECT_EQ(handedOver, nullptr);
    tree->rtt_versioning = 0;
    for (int i = 0; i < 2; ++i) {  // the second time it is in no tree, and left alone
        zelRadixRemove(tree, &first.entry);
        EXPECT_EQ(tree->rtt_nodes, 0u);
    }
    EXPECT_EQ(first.entry.rth_key, nullptr);
}

// One allocation after the other fails; what it was for is refused, or done without, and nothing else changes.
TEST_F(SmallTree, withoutMemoryTheTreeStaysAsItWas) {
    for (unsigned nth = 1, failed = true; failed; ++nth) {
        Random random{std::mt19937(1)};
        Entries inside, walked, changed;
        size_t unversioned = 0;
        FailingAllocator::failAt(nth);
        for (int i = 0; i < 700; ++i) {
            Record &some = record(std::vector<uint8_t>(4, static_cast<uint8_t>(random())), 4 + random() % 29);
            some.key[0] = static_cast<uint8_t>(random());
            const uint32_t nodes = tree->rtt_nodes;
            tree->rtt_versioning = i >= 300;
            const bool isIndexed = i == 200 && zelRadixSetIndex(tree, 16) == 0;
            ASSERT_TRUE(i != 200 || isIndexed == (tree->rtt_index != nullptr));
            zelRadixEntry *stands = zelRadixInsert(tree, &some.entry, some.bits);
            if (stands == &some.entry) inside.push_back(stands);
            if (i < 300) unversioned = inside.size();
            if (stands) continue;
            ASSERT_TRUE(FailingAllocator::hasFailed());
            ASSERT_EQ(tree->rtt_nodes, nodes);
            ASSERT_EQ(zelRadixGetExact(tree, some.key.get(), some.bits), nullptr);
        }
        failed = FailingAllocator::hasFailed();
        zelRadixWalk(tree, collect, &walked);
        ASSERT_EQ(walked.size(), inside.size());
        zelRadixVersionWalk(tree, 0, collect, &changed);  // without columns to tell, it passes over nothing
        ASSERT_EQ(changed.size(), inside.size() - unversioned);
        tree->rtt_versioning = 0;
        for (zelRadixEntry *entry : inside) zelRadixRemove(tree, entry);
        zelRadixUninit(tree);
        ASSERT_EQ(FailingAllocator::live(), 1);  // the header
        zelRadixInit(tree, "again", 32, FailingAllocator::allocate, FailingAllocator::release, nullptr);
        records.clear();
    }
}

TEST_F(SmallTree, aVersionWalkPassesOverSubTreesThatDidNotChange) {
    for (int key = 0; key < 256; ++key) insert({static_cast<uint8_t>(key)}, 8);
    constexpr uint32_t late = 0x80000007;
    zelRadixSetVersion(tree, &records[200]->entry, late);
    zelRadixSetVersion(tree, &records[201]->entry, 3);
    // A version that is not handed on upward is not found: the walk does not look at the entries themselves.
    records[100]->entry.rth_change.version = late + 2;
    // A new fork above a change, though nothing changes itself.
    zelRadixRemove(tree, &records[201]->entry);
    zelRadixInsert(tree, &records[201]->entry, 8);
    for (const uint32_t since : {0u, late - 1, late}) {
        Entries visited;
        zelRadixVersionWalk(tree, since, collect, &visited);
        EXPECT_EQ(visited, Entries(since < late ? 1 : 0, &records[200]->entry)) << since;
    }
    tree->rtt_version = UINT32_MAX;
    EXPECT_EQ(zelRadicalNextVersion(tree), 1u);
}

TEST_F(SmallTree, reportsWhatIsMissing) {
    Record &keyless = record({10}, 8), &entry = insert({10}, 8);
    keyless.entry.rth_addr = nullptr;
    zelRadix foreign{};
    zelRadicalWalk *changes = zelRadicalWalkConstructor(tree);
    expectReports({
        {"rth", [&] { return !zelRadixInsert(tree, nullptr, 8); }},
        {"rth->rth_addr", [&] { return !zelRadixInsert(tree, &keyless.entry, 8); }},
        {"rtn", [&] { return zelRadixNodeIsLeaf(tree, nullptr) == 0; }},
        {"rtt", [] { return !zelRadixGetBest(nullptr, "", 0); }},
        {"rtt_name", [] { return !zelRadixCreate(nullptr, 32, nullptr, nullptr, nullptr); }},
        {"rtt->rtt_magic == 0xdeadbeef", [&] { return !zelRadixGetNext(&foreign, nullptr); }},
        {"rtt->rtt_magic == 0xdeadbeef", [&] { return zelRadixRepair(&foreign) == -1; }},
        {"callback", [&] { return zelRadixWalk(tree, nullptr, nullptr), true; }},
        {"callback", [&] { return zelRadixWalkSubTree(tree, entry.entry.rtn, nullptr, nullptr), true; }},
        {"callback", [&] { return zelRadixVersionWalk(tree, 0, nullptr, nullptr), true; }},
        {"callback", [&] { return zelRadicalWalkChangeList(changes, nullptr, nullptr, 0) == 0; }},
    });
    const int before = reportedAssertions();
    EXPECT_EQ(zelRadixGetBest(tree, nullptr, 8), nullptr);
    EXPECT_EQ(zelRadixSetIndex(tree, 15), -1);
    EXPECT_EQ(reportedAssertions(), before);
    zelRadicalWalkDestructor(changes);
}

TEST_F(SmallTree, aWalkMayRemoveWhatItVisitsAndStopsWhenTold) {
    for (const uint32_t second : {0u, 64u, 128u, 192u}) insert({10, static_cast<uint8_t>(second)}, 10);
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
    insert({}, 0);
    insert({10}, 8);
    Record &gone = insert({10, 128}, 9);
    insert({192, 168}, 16);
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

// ---- What happens to one entry ------------------------------------------------------------------------------------

const uint8_t ten[] = {10, 0, 0, 0, 0};

zelRadixEntry wildEntry() {
    zelRadixEntry entry;
    memset(&entry, 0xa5, sizeof entry);
    entry.rth_addr = ten;
    return entry;
}

TEST_F(SmallTree, refusesLongKeysWhileStrict) {
    for (const bool isStrict : {true, false}) {
        tree->rtt_strict = isStrict;
        zelRadixEntry entry = wildEntry();
        EXPECT_EQ(zelRadixInsert(tree, &entry, 65536), nullptr);
        EXPECT_EQ(entry.rtn, isStrict ? nullptr : wildEntry().rtn);
        zelRadixEntry *expected = isStrict ? nullptr : &entry;
        EXPECT_EQ(zelRadixInsert(tree, &entry, 33), expected);
        EXPECT_EQ(zelRadixGetBest(tree, ten, 33), expected);
        zelRadixRemove(tree, &entry);
        EXPECT_TRUE(!entry.rtn && !entry.rth_change.link.next);
    }
}

TEST(RadixEntry, isHandedOverBeforeItsSuccessorIsFound) {
    static zelRadix *tree;
    static int handedOverEntries = 0;
    tree = zelRadixCreate("successor", 32, nullptr, nullptr, [](zelRadixEntry *) {
        ++handedOverEntries;
        EXPECT_EQ(zelRadixGetExact(tree, ten, 8), nullptr);
        EXPECT_EQ(zelRadixGetBest(tree, ten, 32), nullptr);
    });
    tree->rtt_versioning = 1;
    zelRadixEntry first = wildEntry(), second = wildEntry();
    zelRadixInsert(tree, &first, 8);
    zelRadixRemove(tree, &first);
    EXPECT_EQ(zelRadixInsert(tree, &second, 8), &second);
    EXPECT_EQ(handedOverEntries, 1);
    EXPECT_EQ(zelRadixGetExact(tree, ten, 8), &second);
    // The list of changes goes by its entries' versions: nobody sets those.
    zelRadixSetVersion(tree, &second, 77);
    EXPECT_EQ(second.rth_change.version, 1u);
    zelRadixDestroy(tree);
}

}  // namespace
}  // namespace zel::test
