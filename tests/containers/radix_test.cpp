// The radix tree: random operations and the tables of the Internet beside the model, and what deserves a name.
#include <arpa/inet.h>

#include <charconv>

#include "tests/containers/radix_model.h"
#include "tests/support/reports.h"
#include "tests/support/table.h"

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

struct Table {
    const char *file;
    int family;
    uint32_t bits;
    long rows;
    size_t prefixes;  // some rows repeat one
};

class InternetTable : public testing::TestWithParam<Table> {
protected:
    void load() {
        const long rows = eachRow(GetParam().file, [this](std::string_view row) {
            const std::string_view prefix = column(row);
            const size_t slash = prefix.find('/');
            std::vector<uint8_t> key(16);
            uint32_t bits = 0;
            inet_pton(GetParam().family, std::string(prefix.substr(0, slash)).c_str(), key.data());
            std::from_chars(prefix.data() + slash + 1, prefix.data() + prefix.size(), bits);
            model.insert(std::make_unique<Record>(key, bits));
            // Once it is large it has an index of its own.
            EXPECT_EQ(model.tree->rtt_index != nullptr, model.tree->rtt_nodes >= 32768);
        });
        EXPECT_EQ(rows, GetParam().rows);
        EXPECT_EQ(model.tree->rtt_inserts, rows);
        EXPECT_EQ(model.states.size(), GetParam().prefixes);
    }

    // Addresses inside some of the prefixes, and anywhere.
    void check() {
        const uint32_t bits = GetParam().bits, stride = isFullRun() ? 5 : 50;
        uint32_t next = random() % stride;
        for (const auto &[text, state] : model.states) {
            if (next-- > 0) continue;
            next = stride - 1;
            model.checkAncestors(state);
            model.checkLookUps(*state.record);
            for (const uint32_t kept : {state.record->bits, 0u}) {
                std::vector<uint8_t> address(16);
                for (auto &byte : address) byte = static_cast<uint8_t>(random());
                for (uint32_t bit = 0; bit < kept; ++bit) {
                    const auto mask = static_cast<uint8_t>(0x80 >> bit % 8);
                    address[bit / 8] = static_cast<uint8_t>((address[bit / 8] & ~mask) | (text[bit] == '1' ? mask : 0));
                }
                model.checkLookUps(Record(address, bits));
            }
            if (HasFailure()) return;
        }
    }

    Random random = seeded();
    RadixModel model{GetParam().bits};
};

TEST_P(InternetTable, agreesWithTheModelWholeAndHalfAndOnItsWayOut) {
    load();
    for (const uint32_t indexBits : {16u, 24u, 0u}) {
        ASSERT_EQ(zelRadixSetIndex(model.tree, indexBits), 0);
        check();
    }
    model.checkWhole(0);
    zelRadixSetIndex(model.tree, 24);
    for (const uint32_t share : {2u, 1u}) {
        model.tree->rtt_versioning = share == 2;  // the first half is marked, seen, and let go
        for (auto at = model.states.begin(), next = at; at != model.states.end(); at = next) {
            ++next;
            if (random() % share == 0) model.remove(at);
        }
        check();
        if (share == 2) model.nextVersion();
        check();
        model.checkWhole(0);
    }
    EXPECT_EQ(model.tree->rtt_nodes, 0u);
    const uint32_t *index = model.tree->rtt_index;
    EXPECT_EQ(std::count(index, index + (1 << 24), 0u), 1 << 24);
}

INSTANTIATE_TEST_SUITE_P(Bundled, InternetTable,
                         testing::Values(Table{"rib4_full_2015-10.txt.xz", AF_INET, 32, 577737, 577706},
                                         Table{"rib6_full_2015-11_origin.txt.xz", AF_INET6, 128, 27693, 27693}));

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
    zelRadixSetVersion(tree, &records[200]->entry, 7);
    zelRadixSetVersion(tree, &records[201]->entry, 3);
    // A version that is not handed on upward is not found: the walk does not look at the entries themselves.
    records[100]->entry.rth_change.version = 9;
    // A new fork above a change, though nothing changes itself.
    zelRadixRemove(tree, &records[201]->entry);
    zelRadixInsert(tree, &records[201]->entry, 8);
    for (const auto &[since, expected] : {std::pair{6u, Entries{&records[200]->entry}}, std::pair{7u, Entries{}}}) {
        Entries visited;
        zelRadixVersionWalk(tree, since, collect, &visited);
        EXPECT_EQ(visited, expected);
    }
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

TEST(RadixEntry, withoutAVersionIsNeverLater) {
    zelRadix *tree = zelRadixCreate("versions", 32, nullptr, nullptr, nullptr);
    zelRadixEntry unchanged = wildEntry(), changed = wildEntry();
    zelRadixInsert(tree, &unchanged, 8);
    zelRadixInsert(tree, &changed, 16);
    zelRadixSetVersion(tree, &changed, 0x80000002);
    const auto note = [](zelRadixEntry *entry, void *seen) {
        return static_cast<std::vector<zelRadixEntry *> *>(seen)->push_back(entry), 0;
    };
    for (const uint32_t since : {0u, 0x80000000u, 0x80000001u, 0x80000002u}) {
        std::vector<zelRadixEntry *> seen;
        zelRadixVersionWalk(tree, since, note, &seen);
        EXPECT_EQ(seen, std::vector(since < 0x80000002 ? 1u : 0u, &changed)) << since;
    }
    tree->rtt_version = UINT32_MAX;
    EXPECT_EQ(zelRadicalNextVersion(tree), 1u);
    zelRadixDestroy(tree);
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
