// The red-black tree against std::multimap. Records and probes lie in blocks of exactly their size with the key at an
// odd offset, so that the sanitizers see every byte read too many and every read that assumes alignment.
#include <map>
#include <memory>
#include <utility>

#include "platform/segment.h"
#include "tests/containers/check.h"
#include "tests/support/child.h"
#include "tests/support/failing_allocator.h"
#include "tests/support/printed.h"
#include "tests/support/random.h"
#include "tests/support/reports.h"
#include "zel/platform.h"

namespace zel::test {
namespace {

constexpr uint32_t keyOffset = 3;

using Block = std::unique_ptr<char[]>;

Block record(uint32_t key) {
    Block block(new char[keyOffset + sizeof key]{});
    memcpy(&block[keyOffset], &key, sizeof key);
    return block;
}

uint32_t keyOf(const void *data) {
    uint32_t key;
    memcpy(&key, static_cast<const char *>(data) + keyOffset, sizeof key);
    return key;
}

int compareDescending(zelRBTree *, const void *probe, const void *data) {
    return keyOf(probe) < keyOf(data) ? 7 : keyOf(probe) > keyOf(data) ? -7 : 0;
}

struct Order {
    zelRBTreeCompareFn compare;
    int64_t (*rank)(uint32_t key);  // ascends in the order of the tree
};
const Order orders[] = {
    {_RBTCompareUL, [](uint32_t key) { return int64_t{key}; }},
    {_RBTCompareI, [](uint32_t key) { return int64_t{static_cast<int32_t>(key)}; }},
    {compareDescending, [](uint32_t key) { return -int64_t{key}; }},
};

// Keys that collide, that run up or down, and that lie at the ends of the ranges or differ in the last bit.
uint32_t (*const patterns[])(Random &random, uint32_t step) = {
    [](Random &random, uint32_t) { return random(); },
    [](Random &random, uint32_t) { return random() % 32; },
    [](Random &, uint32_t step) { return step; },
    [](Random &, uint32_t step) { return ~step; },
    [](Random &random, uint32_t) { return (random() % 2 ? 0x7ffffff0u : 0xfffffff0u) + random() % 32; },
};

class RandomRBTree : public testing::TestWithParam<std::tuple<size_t, size_t>> {
protected:
    const Order &order = orders[std::get<0>(GetParam())];
    uint32_t (*const nextKey)(Random &, uint32_t) = patterns[std::get<1>(GetParam())];
    Random random = seeded();
    // Nodes one by one, or in slabs of the tree's own.
    const bool hasSlabs = std::get<1>(GetParam()) % 2 == 0;
    zelRBTree *tree = zelRBTreeCreate("random", keyOffset, 4, hasSlabs ? nullptr : FailingAllocator::allocate,
                                      hasSlabs ? nullptr : FailingAllocator::release, order.compare);
    std::multimap<int64_t, Block> model;

    ~RandomRBTree() override {
        zelRBTreeDestroy(tree);
        EXPECT_EQ(FailingAllocator::live(), 0);
    }

    // A record of the model or none, from the one at `position` on.
    void *dataAt(decltype(model)::iterator position) {
        return position == model.end() ? nullptr : position->second.get();
    }

    void insert(uint32_t key) {
        Block block = record(key);
        FailingAllocator::failAt(random() % 16 == 0);
        const int isInserted = zelRBTreeInsert(tree, block.get());
        ASSERT_EQ(isInserted, !FailingAllocator::hasFailed());
        if (isInserted) model.emplace(order.rank(key), std::move(block));
    }

    // Among equal ones the tree chooses.
    auto find(const void *data, int64_t rank) {
        auto [at, end] = model.equal_range(rank);
        while (at != end && at->second.get() != data) ++at;
        return at == end ? model.end() : at;
    }

    void remove(uint32_t key) {
        void *removed = zelRBTreeRemove(tree, record(key).get());
        ASSERT_EQ(removed != nullptr, model.count(order.rank(key)) > 0);
        if (!removed) return;
        const auto at = find(removed, order.rank(key));
        ASSERT_NE(at, model.end());
        model.erase(at);
    }

    void lookUp(uint32_t key) {
        const Block probe = record(key);
        const int64_t rank = order.rank(key);
        void *exact = zelRBTreeGetExact(tree, probe.get());
        const auto at = find(exact, rank), behind = model.upper_bound(rank), from = model.lower_bound(rank);
        ASSERT_EQ(exact != nullptr, behind != from);
        ASSERT_TRUE(!exact || at != model.end());
        ASSERT_EQ(zelRBTreeGetExactOrNext(tree, probe.get()), exact ? exact : dataAt(behind));
        void *before = from == model.begin() ? nullptr : std::prev(from)->second.get();
        ASSERT_EQ(zelRBTreeGetExactOrPrev(tree, probe.get()), exact ? exact : before);
        ASSERT_EQ(zelRBTreeGetNext(tree, probe.get()), dataAt(exact ? std::next(at) : behind));
        ASSERT_EQ(zelRBTreeGetFirst(tree), dataAt(model.begin()));
    }

    void check() {
        Records expected;
        for (const auto &[rank, block] : model) expected.push_back(block.get());
        EXPECT_EQ(checkRBTree(*tree), expected);
    }
};

TEST_P(RandomRBTree, agreesWithTheModel) {
    const uint32_t steps = (isFullRun() ? 1'000'000 : 100'000) / static_cast<uint32_t>(std::size(patterns));
    for (uint32_t step = 0; step < steps; ++step) {
        // Small trees for a while, then one that grows and decays.
        const bool grows = step < steps / 4 ? step % 100 < 55 : step < steps * 5 / 8;
        const uint32_t key = nextKey(random, step);
        if (random() % 4 < (grows ? 3u : 1u))
            insert(key);
        else if (random() % 2 && !model.empty())
            remove(keyOf(zelRBTreeGetExactOrNext(tree, record(key).get()) ?: zelRBTreeGetFirst(tree)));
        else
            remove(key);
        lookUp(nextKey(random, step));
        if (model.size() <= 64 || step % 1000 == 0) check();
        if (HasFatalFailure()) return;
    }
    while (!model.empty() && !HasFatalFailure()) remove(keyOf(zelRBTreeGetFirst(tree)));
    check();
    EXPECT_EQ(FailingAllocator::live(), 1) << "an empty tree has its header alone";
}

INSTANTIATE_TEST_SUITE_P(OrdersAndPatterns, RandomRBTree,
                         testing::Combine(testing::Range(size_t{0}, std::size(orders)),
                                          testing::Range(size_t{0}, std::size(patterns))));

// ---- Walks and the listing ----------------------------------------------------------------------------------------

class SmallRBTree : public testing::Test {
protected:
    zelRBTree *tree = zelRBTreeCreate("small", keyOffset, 9, nullptr, nullptr, _RBTCompareUL);
    std::vector<Block> blocks;
    std::vector<uint32_t> visited;
    uint32_t stopAt = 0;

    ~SmallRBTree() override {
        while (void *data = zelRBTreeGetFirst(tree)) zelRBTreeRemove(tree, data);
        zelRBTreeDestroy(tree);
        EXPECT_EQ(FailingAllocator::live(), 0);
    }
    void *insert(uint32_t key) {
        blocks.push_back(record(key));
        EXPECT_EQ(zelRBTreeInsert(tree, blocks.back().get()), 1);
        return blocks.back().get();
    }
    static int visit(zelRBTree *, void *data, void *arg) {
        auto *self = static_cast<SmallRBTree *>(arg);
        self->visited.push_back(keyOf(data));
        return keyOf(data) == self->stopAt ? -1 : 0;
    }
    // The key at which a walk from `start` (0: the beginning) stopped, 0 at the end.
    uint32_t walk(uint32_t start, uint32_t maximum, uint32_t flags) {
        visited.clear();
        const Block probe = start ? record(start) : nullptr;
        void *last = zelRBTreeWalk(tree, probe.get(), visit, maximum, flags, this);
        return last ? keyOf(last) : 0;
    }
    std::string printed() {
        const auto text = [](void *data) -> const char * {
            static std::string key;
            return (key = "key " + std::to_string(keyOf(data))).c_str();
        };
        return printedBy([&] { zelRBTreePrint(tree, text); });
    }
};

using Keys = std::vector<uint32_t>;

TEST_F(SmallRBTree, walksStopWhereToldAndResume) {
    EXPECT_EQ(walk(0, 0, 0) + walk(5, 0, ZEL_RBTREE_PREORDER) + walk(0, 0, ZEL_RBTREE_PREORDER), 0u);
    EXPECT_TRUE(visited.empty());
    for (uint32_t key = 1; key <= 10; ++key) insert(key * 10);  // 40 is the root, over 20 and 60; 80 is below 60
    EXPECT_EQ(walk(15, 4, ZEL_RBTREE_PREORDER), 60u);
    EXPECT_EQ(visited, (Keys{20, 10, 30, 60})) << "a sub-tree, then what follows it";
    stopAt = 50;
    EXPECT_EQ(walk(35, 0, 0), 50u);
    EXPECT_EQ(visited, (Keys{40, 50}));
    EXPECT_EQ(walk(50, 1, 0), 50u);
    EXPECT_EQ(visited, (Keys{50})) << "resuming visits the record again";
    EXPECT_EQ(walk(91, 1, 0), 100u) << "ended by the count, and at the end";
    EXPECT_EQ(walk(101, 0, 0), 0u);
}

TEST_F(SmallRBTree, theListingIsDrawnInKeyOrder) {
    EXPECT_EQ(printed(), "\tRed-Black tree small: 0 numinodes. (empty)\n");
    for (const uint32_t key : {1u, 2u, 3u, 4u}) insert(key);
    zelRBTreeDebug(tree, 2);
    void *hidden = std::exchange(tree->rbtt_root->rbtn_data, nullptr);
    EXPECT_EQ(printed(),
              "\tRed-Black tree small: 4 numinodes.\n"
              "\t\t| +-1B+--[key 1\n"
              "\t\t+-0B+\n"
              "\t\t| +-1B+--[key 3\n"
              "\t\t| | +-2R+--[key 4\n");
    tree->rbtt_root->rbtn_data = hidden;
    for (uint32_t key = 5; key <= 201; ++key) insert(key);
    EXPECT_EQ(printed(), "\tRed-Black tree small: 201 numinodes. (too large to print)\n");
}

// ---- Creation, and bad arguments ----------------------------------------------------------------------------------

TEST_F(SmallRBTree, goesWithoutItsNodes) {
    insert(5);
    void *nodes = tree->rbtt_slabs;
    zelRBTreeDestroy(tree);
    EXPECT_EQ(FailingAllocator::live(), 1);
    zelRBTreeFree(nodes);
    FailingAllocator::failAt(1);
    EXPECT_EQ(zelRBTreeCreate("none", 0, 4, nullptr, nullptr, _RBTCompareUL), nullptr);
    tree = zelRBTreeCreate("next", keyOffset, 4, nullptr, nullptr, _RBTCompareUL);
}

TEST_F(SmallRBTree, namesAreCutAndBuiltInKeysHaveOneWord) {
    const std::string name(60, 'n');
    zelRBTree *other = zelRBTreeCreate(name.c_str(), 1, 9, nullptr, nullptr, compareDescending);
    EXPECT_EQ(other->rbtt_name, name.substr(0, 50));
    EXPECT_TRUE(other->rbtt_keyLength == 9 && other->rbtt_kind == 0);
    EXPECT_TRUE(tree->rbtt_keyLength == 4 && tree->rbtt_kind == ZEL_RBTREE_UNSIGNED);
    zelRBTreeDestroy(other);
}

TEST_F(SmallRBTree, reportsBadArgumentsAndMisses) {
    void *some = insert(5);
    zelRBTree foreign{};
    expectReports({
        {"data", [&] { return zelRBTreeInsert(tree, nullptr) == 0; }},
        {"data", [&] { return !zelRBTreeRemove(tree, nullptr); }},
        {"data", [&] { return !zelRBTreeGetNext(tree, nullptr); }},
        {"print_fn", [&] { return zelRBTreePrint(tree, nullptr), true; }},
        {"rbtt", [&] { return !zelRBTreeGetFirst(nullptr); }},
        {"rbtt->rbtt_magic == 0xdeadbeef", [&] { return !zelRBTreeWalk(&foreign, nullptr, visit, 0, 0, this); }},
        {"rbtt_name", [] { return !zelRBTreeCreate(nullptr, 0, 4, nullptr, nullptr, _RBTCompareI); }},
        {"rbtt_compare", [] { return !zelRBTreeShmCreate("x", 0, 4, nullptr, nullptr, nullptr); }},
        {"one", [&] { return _RBTCompareUL(tree, nullptr, some) == 0; }},
        {"two", [&] { return _RBTCompareI(tree, some, nullptr) == 0; }},
        // With checking off, the built-in comparator still refuses what it would have to read.
        {"one", [&] { return zelRBTreeDebug(tree, 0), !zelRBTreeGetExact(tree, nullptr); }},
    });
    EXPECT_EQ(checkRBTree(*tree), Records{some});
    const int before = reportedAssertions();  // without checking, only what would be compared is missed
    EXPECT_EQ(zelRBTreeGetNext(tree, nullptr), nullptr);
    EXPECT_EQ(zelRBTreeRemove(tree, some), some);
    EXPECT_EQ(zelRBTreeGetExactOrPrev(tree, nullptr), nullptr);
    EXPECT_EQ(reportedAssertions(), before);
    EXPECT_EQ(zelRBTreeInsert(tree, nullptr), 0);
    EXPECT_EQ(lastAssertion(), "one");
}

// ---- Shared memory ------------------------------------------------------------------------------------------------

void *sharedNode(size_t bytes) {
    return zelMC_MM_malloc("test", __LINE__, bytes);
}
void releaseShared(void *node) {
    zelMC_MM_free("test", __LINE__, node);
}

// treeReader ADDRESS: finds in the tree of another process what it put there.
ZEL_CHILD(treeReader) {
    if (argc != 1 || !platform::attachPolicySegment(false)) return 2;
    auto *tree = reinterpret_cast<zelRBTree *>(strtoull(argv[0], nullptr, 0));
    void *found = zelRBTreeGetExact(tree, record(77).get());
    return found && keyOf(found) == 77 && zelRBTreeGetNext(tree, found) == nullptr ? 0 : 1;
}

TEST(SharedRBTree, isReadByAnotherProcess) {
    const auto create = [] {
        return zelRBTreeShmCreate("shared", keyOffset, 4, sharedNode, releaseShared, _RBTCompareI);
    };
    EXPECT_EQ(create(), nullptr) << "no shared memory yet";
    ASSERT_NE(platform::attachPolicySegment(true), nullptr);
    zelRBTree *tree = create();
    ASSERT_NE(tree, nullptr);
    for (const uint32_t key : {1u, 77u, 0x80000000u}) {
        void *data = sharedNode(keyOffset + 4);
        memcpy(data, record(key).get(), keyOffset + 4);
        ASSERT_EQ(zelRBTreeInsert(tree, data), 1);
    }
    EXPECT_EQ(Child::start("treeReader", {std::to_string(reinterpret_cast<uintptr_t>(tree))}).wait(), 0);
    while (void *data = zelRBTreeGetFirst(tree)) releaseShared(zelRBTreeRemove(tree, data));
    zelRBTreeShmDestroy(tree);
    EXPECT_EQ(tree->rbtt_magic, 0u);
}

}  // namespace
}  // namespace zel::test
