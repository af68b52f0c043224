// The red-black tree against the ordered map of the standard library and an intrusive red-black tree: records of one
// shape with a 32-bit key, inserted, looked for and removed each in a random order of its own.
//
// Finding and walking read a word of every record they reach: that is what they are called for, and with the library's
// tree a record does not lie beside its links. Both change nothing, so one tree serves all turns: a large one takes
// much longer to fill than to measure.
#include <algorithm>
#include <boost/intrusive/set.hpp>
#include <map>
#include <memory>
#include <random>
#include <vector>

#include "bench/support/row.h"
#include "zel/containers.h"

namespace {

using Keys = std::vector<uint32_t>;

struct Body {
    uint32_t key = 0;
    uint32_t value = 0;
    uint64_t more[3] = {};
};

const Keys &shuffledKeys(size_t count, unsigned seed) {
    static std::map<std::pair<size_t, unsigned>, Keys> made;
    Keys &keys = made[{count, seed}];
    if (!keys.empty()) return keys;
    std::mt19937 random(1);
    while (keys.size() < count) {
        while (keys.size() < count) keys.push_back(static_cast<uint32_t>(random()));
        std::sort(keys.begin(), keys.end());
        keys.erase(std::unique(keys.begin(), keys.end()), keys.end());
    }
    std::shuffle(keys.begin(), keys.end(), std::mt19937(seed));
    return keys;
}

class OurTree {
public:
    explicit OurTree(const Keys &keys) : records_(keys.size()) {
        for (size_t i = 0; i < keys.size(); ++i) records_[i].key = keys[i];
    }
    ~OurTree() {
        while (void *record = zelRBTreeGetFirst(tree_)) zelRBTreeRemove(tree_, record);
        zelRBTreeDestroy(tree_);
    }
    void insert(size_t i) { zelRBTreeInsert(tree_, &records_[i]); }
    void remove(uint32_t key) { zelRBTreeRemove(tree_, &key); }
    uint32_t find(uint32_t key) { return static_cast<Body *>(zelRBTreeGetExact(tree_, &key))->value; }
    uint32_t walk() {
        uint32_t sum = 0;
        const auto add = [](zelRBTree *, void *record, void *total) {
            *static_cast<uint32_t *>(total) += static_cast<Body *>(record)->value;
            return 0;
        };
        zelRBTreeWalk(tree_, nullptr, add, 0, 0, &sum);
        return sum;
    }

private:
    zelRBTree *tree_ = zelRBTreeCreate("bench", offsetof(Body, key), 4, nullptr, nullptr, _RBTCompareUL);
    std::vector<Body> records_;
};

class StandardMap {
public:
    explicit StandardMap(const Keys &keys) : keys_(keys) {}
    void insert(size_t i) { map_.emplace(keys_[i], Body{keys_[i], 0, {}}); }
    void remove(uint32_t key) { map_.erase(key); }
    uint32_t find(uint32_t key) { return map_.find(key)->second.value; }
    uint32_t walk() {
        uint32_t sum = 0;
        for (const auto &[key, body] : map_) sum += body.value;
        return sum;
    }

private:
    const Keys &keys_;
    std::map<uint32_t, Body> map_;
};

class IntrusiveTree {
public:
    explicit IntrusiveTree(const Keys &keys) : records_(keys.size()) {
        for (size_t i = 0; i < keys.size(); ++i) records_[i].key = keys[i];
    }
    ~IntrusiveTree() { set_.clear(); }
    void insert(size_t i) { set_.insert(records_[i]); }
    void remove(uint32_t key) { set_.erase(set_.find(key, ByKey{})); }
    uint32_t find(uint32_t key) { return set_.find(key, ByKey{})->value; }
    uint32_t walk() {
        uint32_t sum = 0;
        for (const auto &record : set_) sum += record.value;
        return sum;
    }

private:
    struct Record : boost::intrusive::set_base_hook<>, Body {
        bool operator<(const Record &other) const { return key < other.key; }
    };
    struct ByKey {
        bool operator()(uint32_t a, const Record &b) const { return a < b.key; }
        bool operator()(const Record &a, uint32_t b) const { return a.key < b; }
    };
    std::vector<Record> records_;
    boost::intrusive::multiset<Record> set_;
};

template <class Tree>
std::unique_ptr<Tree> filled(const Keys &keys) {
    auto tree = std::make_unique<Tree>(keys);
    for (size_t i = 0; i < keys.size(); ++i) tree->insert(i);
    return tree;
}

// The full tree of that size; one at a time of each kind.
template <class Tree>
Tree &standing(size_t count) {
    static std::unique_ptr<Tree> tree;
    static size_t size = 0;
    if (size != count) {
        tree.reset();
        tree = filled<Tree>(shuffledKeys(count, 2));
        size = count;
    }
    return *tree;
}

template <class Tree>
void find(benchmark::State &state, size_t count) {
    const Keys &asked = shuffledKeys(count, 3);
    Tree &tree = standing<Tree>(count);
    size_t at = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(tree.find(asked[at]));
        if (++at == count) at = 0;
    }
}

// In a large tree these many of its records, which are spread over all of it, come and go; the others stay.
constexpr size_t moving = 100000;

enum class Timed { insert, remove };

template <class Tree>
void move(benchmark::State &state, size_t count, Timed timed) {
    const Keys &keys = shuffledKeys(count, 2);
    Tree &tree = standing<Tree>(count);
    for (auto _ : state) {
        if (timed == Timed::insert) state.PauseTiming();
        for (size_t i = count - moving; i < count; ++i) tree.remove(keys[i]);
        timed == Timed::insert ? state.ResumeTiming() : state.PauseTiming();
        for (size_t i = count - moving; i < count; ++i) tree.insert(i);
        if (timed == Timed::remove) state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(moving));
}

// From an empty tree to a full one.
template <class Tree>
void insert(benchmark::State &state, size_t count) {
    if (count > moving) return move<Tree>(state, count, Timed::insert);
    const Keys &keys = shuffledKeys(count, 2);
    for (auto _ : state) {
        state.PauseTiming();
        auto tree = std::make_unique<Tree>(keys);
        state.ResumeTiming();
        for (size_t i = 0; i < count; ++i) tree->insert(i);
        state.PauseTiming();
        tree.reset();
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(count));
}

// From a full tree to an empty one.
template <class Tree>
void remove(benchmark::State &state, size_t count) {
    if (count > moving) return move<Tree>(state, count, Timed::remove);
    const Keys &keys = shuffledKeys(count, 2), &asked = shuffledKeys(count, 3);
    for (auto _ : state) {
        state.PauseTiming();
        const auto tree = filled<Tree>(keys);
        state.ResumeTiming();
        for (const uint32_t key : asked) tree->remove(key);
    }
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(count));
}

template <class Tree>
void walk(benchmark::State &state, size_t count) {
    Tree &tree = standing<Tree>(count);
    for (auto _ : state) benchmark::DoNotOptimize(tree.walk());
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(count));
}

#define TREE_ROW(operation, size, text, bar, stretch)                                           \
    ZEL_ROW("zelRBTree " #operation ", " text, "ns", time)                                      \
        .ours([](auto &state) { operation<OurTree>(state, size); })                             \
        .peer(                                                                                  \
            "std::map", [](auto &state) { operation<StandardMap>(state, size); }, bar, stretch) \
        .peer(                                                                                  \
            "boost::intrusive::rbtree", [](auto &state) { operation<IntrusiveTree>(state, size); }, bar, stretch)

TREE_ROW(find, 1000, "1,000 records", zel::bench::noBar, zel::bench::noBar);
TREE_ROW(find, 100000, "100,000 records", 1.0, 0.5);
TREE_ROW(find, 1000000, "1,000,000 records", 1.0, 0.5);
TREE_ROW(insert, 1000, "1,000 records", 1.1, 0.9);
TREE_ROW(insert, 100000, "100,000 records", 1.1, 0.9);
TREE_ROW(insert, 1000000, "1,000,000 records", 1.1, 0.9).once();
TREE_ROW(remove, 1000, "1,000 records", 1.1, 0.9);
TREE_ROW(remove, 100000, "100,000 records", 1.1, 0.9);
TREE_ROW(remove, 1000000, "1,000,000 records", 1.1, 0.9).once();
TREE_ROW(walk, 1000, "a step among 1,000", 1.1, 0.9);
TREE_ROW(walk, 100000, "a step among 100,000", 1.1, 0.9);
TREE_ROW(walk, 1000000, "a step among 1,000,000", 1.1, 0.9);

}  // namespace
