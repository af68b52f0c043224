// The pairing heap against a set of the same order.
#include "base/pairing_heap.h"

#include <gtest/gtest.h>

#include <set>
#include <vector>

#include "tests/support/random.h"

namespace zel::test {
namespace {

struct Record {
    HeapLinks<Record> links;
    uint32_t key;
};

bool isSmaller(const Record &a, const Record &b) {
    return a.key != b.key ? a.key < b.key : &a < &b;
}

// Counts the records below and at `parent`; each knows its place, and none comes before its parent.
size_t checkBelow(const Record *root) {
    size_t count = 0;
    std::vector<const Record *> parents{root};
    for (; !parents.empty(); ++count) {
        const Record *parent = parents.back(), *previous = parent;
        parents.pop_back();
        for (const Record *at = parent->links.child; at; previous = at, at = at->links.next) {
            EXPECT_EQ(at->links.previous, previous);
            EXPECT_TRUE(isSmaller(*parent, *at));
            parents.push_back(at);
        }
    }
    return count;
}

// Keys from a range of this size: 1 makes all equal. Or, for 0, ascending ones.
class RandomHeap : public testing::TestWithParam<uint32_t> {};

TEST_P(RandomHeap, AgreesWithASet) {
    Random random = seeded();
    Record *root = nullptr;
    PairingHeap<Record, &Record::links, isSmaller> heap(root);
    std::vector<Record> records(1000);
    std::vector<Record *> idle;
    for (Record &record : records) idle.push_back(&record);
    std::set<Record *, bool (*)(Record *, Record *)> model([](Record *a, Record *b) { return isSmaller(*a, *b); });
    const int steps = isFullRun() ? 1'000'000 : 100'000;
    for (int step = 0; step < steps && !testing::Test::HasFailure(); ++step) {
        const bool grows = step % 10'000 < 4000 || model.size() < 10;
        if (!idle.empty() && random() % 8 < (grows ? 6 : 2)) {
            Record *record = idle[random() % idle.size()];
            std::erase(idle, record);
            record->key = GetParam() ? random() % GetParam() : static_cast<uint32_t>(step);
            heap.insert(*record);
            model.insert(record);
        } else if (!model.empty()) {
            Record *record = random() % 2 ? heap.first() : records.data() + random() % records.size();
            if (model.erase(record) == 0) continue;
            heap.remove(*record);
            idle.push_back(record);
        }
        ASSERT_EQ(heap.first(), model.empty() ? nullptr : *model.begin());
        if (root && (model.size() <= 64 || step % 1000 == 0)) {
            ASSERT_EQ(checkBelow(root), model.size());
            ASSERT_TRUE(!root->links.previous && !root->links.next);
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Keys, RandomHeap, testing::Values(0, 1, 30, 1u << 31));

}  // namespace
}  // namespace zel::test
