// Versions, the list of changes and its walks, against a model in which every change has a number of its own.
#include <gtest/gtest.h>

#include <map>

#include "tests/containers/radix_records.h"
#include "tests/support/failing_allocator.h"
#include "tests/support/random.h"

namespace zel::test {
namespace {

using Record = RadixRecord;
using Entries = std::vector<zelRadixEntry *>;

Entries handedOver;

class Versions : public testing::Test {
protected:
    struct Item {
        std::unique_ptr<Record> record;
        bool isMarked = false;
        uint64_t change = 0;
        uint32_t version = 0;
    };
    struct Walk {
        zelRadicalWalk *handle;
        uint64_t seen;
    };

    Versions() { tree->rtt_versioning = 1; }
    ~Versions() override {
        for (Walk &walk : walks) zelRadicalWalkDestructor(walk.handle);
        zelRadixDestroy(tree);
        EXPECT_EQ(FailingAllocator::live(), 0);
    }

    void note(Item &item) {
        item.change = ++changes;
        item.version = open;
    }

    void insert() {
        auto record = radixRecord({static_cast<uint8_t>(random())}, random() % 7);
        Item &item = items[record->text];
        if (item.record && !item.isMarked) return;
        ASSERT_EQ(zelRadixInsert(tree, &record->entry, record->bits), &record->entry);
        if (item.record) expectedHandedOver.push_back(&item.record->entry);
        retired.push_back(std::move(item.record));
        item = {std::move(record), false, 0, 0};
        note(item);
    }

    void touch(bool removes) {
        if (items.empty()) return;
        Item &item = std::next(items.begin(), static_cast<long>(random() % items.size()))->second;
        removes ? zelRadixRemove(tree, &item.record->entry) : zelRadicalAppendToChangeList(tree, &item.record->entry);
        if (removes && item.isMarked) return;
        item.isMarked |= removes;
        note(item);
    }

    void nextVersion() {
        ++open;
        letGo();
        ASSERT_EQ(zelRadicalNextVersion(tree), open);
    }

    void startOrEndWalk() {
        if (walks.size() < 3) return walks.push_back({zelRadicalWalkConstructor(tree), changes});
        const auto ended = walks.begin() + random() % 3;
        zelRadicalWalkDestructor(ended->handle);
        walks.erase(ended);
        letGo();
    }

    void walkOn() {
        if (walks.empty()) return;
        Walk &walk = walks[random() % walks.size()];
        const size_t max = random() % 8;
        Entries expected, visited;
        for (const Item *item : byChange()) {
            if (item->change <= walk.seen || item->version == open || (max && expected.size() == max)) continue;
            expected.push_back(&item->record->entry);
            walk.seen = item->change;
        }
        const uint32_t count = zelRadicalWalkChangeList(walk.handle, collect, &visited, static_cast<uint32_t>(max));
        ASSERT_EQ(visited, expected);
        ASSERT_EQ(count, expected.size());
        letGo();
    }

    // Marked items whose version is closed, and that every walk has seen, leave the tree.
    void letGo() {
        uint64_t seen = UINT64_MAX;
        for (const Walk &walk : walks) seen = std::min(seen, walk.seen);
        for (const Item *item : byChange()) {
            if (!item->isMarked || item->version == open || item->change > seen) continue;
            expectedHandedOver.push_back(&item->record->entry);
            const auto at = items.find(item->record->text);
            retired.push_back(std::move(at->second.record));
            items.erase(at);
        }
    }

    std::vector<const Item *> byChange() const {
        std::vector<const Item *> sorted;
        for (const auto &[text, item] : items) sorted.push_back(&item);
        std::sort(sorted.begin(), sorted.end(), [](auto *a, auto *b) { return a->change < b->change; });
        return sorted;
    }

    void check() {
        checkRadixTree(tree);
        ASSERT_EQ(handedOver, expectedHandedOver);
        ASSERT_EQ(tree->rtt_released, handedOver.size());
        const uint32_t since = open - random() % std::min(open, 6u);
        Entries expected, visited;
        for (const auto &[text, item] : items)
            if (item.version > since) expected.push_back(&item.record->entry);
        zelRadixVersionWalk(tree, since, collect, &visited);
        ASSERT_EQ(visited, expected);
    }

    static int collect(zelRadixEntry *entry, void *all) {
        static_cast<Entries *>(all)->push_back(entry);
        return 0;
    }

    Random random = seeded();
    zelRadix *tree = zelRadixCreate("versions", 8, FailingAllocator::allocate, FailingAllocator::release,
                                    [](zelRadixEntry *entry) { handedOver.push_back(entry); });
    std::map<std::string, Item> items;
    std::vector<Walk> walks;
    std::vector<std::unique_ptr<Record>> retired;
    Entries expectedHandedOver;
    uint64_t changes = 0;
    uint32_t open = 1;
};

TEST_F(Versions, agreeWithTheModel) {
    const int steps = isFullRun() ? 100000 : 10000;
    for (int step = 0; step < steps && !HasFatalFailure(); ++step) {
        const uint32_t dice = random() % 20;
        if (dice < 7)
            insert();
        else if (dice < 13)
            touch(dice < 11);
        else if (dice < 15)
            nextVersion();
        else if (dice < 16)
            startOrEndWalk();
        else
            walkOn();
        check();
    }
}

TEST_F(Versions, walkPassesOverSubTreesThatDidNotChange) {
    tree->rtt_versioning = 0;
    std::vector<std::unique_ptr<Record>> records;
    for (int key = 0; key < 256; ++key) {
        records.push_back(radixRecord({static_cast<uint8_t>(key)}, 8));
        zelRadixInsert(tree, &records.back()->entry, 8);
    }
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

}  // namespace
}  // namespace zel::test
