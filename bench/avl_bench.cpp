// The tree of byte keys against an intrusive tree of the same kind, with keys of 16 random bytes; and how the step to
// the next node grows with the tree.
#include <algorithm>
#include <array>
#include <boost/intrusive/avltree.hpp>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "bench/support/row.h"
#include "zel/containers.h"

namespace {

constexpr uint32_t keyBytes = 16;

struct Ours {
    zelAvlNode node;
    uint8_t key[keyBytes];
};

struct Theirs : boost::intrusive::avl_set_base_hook<> {
    uint8_t key[keyBytes];
    bool operator<(const Theirs &other) const { return memcmp(key, other.key, keyBytes) < 0; }
};

struct ByKey {
    bool operator()(const uint8_t *key, const Theirs &node) const { return memcmp(key, node.key, keyBytes) < 0; }
    bool operator()(const Theirs &node, const uint8_t *key) const { return memcmp(node.key, key, keyBytes) < 0; }
};

// Nodes with random keys, and an order in which they are asked for that is not the one they lie in.
template <class Node>
struct Nodes {
    explicit Nodes(size_t count) : nodes(count), order(count) {
        std::mt19937 random(1);
        for (size_t i = 0; i < count; ++i) {
            for (auto &byte : nodes[i].key) byte = static_cast<uint8_t>(random());
            order[i] = &nodes[i];
        }
        std::shuffle(order.begin(), order.end(), random);
    }
    std::vector<Node> nodes;
    std::vector<Node *> order;
};

struct OurTree : Nodes<Ours> {
    using Nodes::Nodes;
    void insert(Ours *item) { zelAvlInsertNode(&control, &item->node, &root); }
    void remove(Ours *item) { zelAvlRemoveNode(&control, &item->node, &root); }
    const void *find(const uint8_t *key) { return zelAvlGetExact(&control, key, &root); }
    const void *next(Ours *item) { return zelAvlGetNext(&control, &item->node, &root); }
    avlcb control{keyBytes, nullptr};
    zelAvlNode *root = nullptr;
};

struct TheirTree : Nodes<Theirs> {
    using Nodes::Nodes;
    ~TheirTree() { tree.clear(); }
    void insert(Theirs *item) { tree.insert_unique(*item); }
    void remove(Theirs *item) { tree.erase(tree.find(item->key, ByKey{})); }
    const void *find(const uint8_t *key) { return &*tree.find(key, ByKey{}); }
    boost::intrusive::avltree<Theirs> tree;
};

template <class Tree>
Tree &filled(size_t count) {
    static std::unique_ptr<Tree> tree;
    if (!tree || tree->nodes.size() != count) {
        tree = std::make_unique<Tree>(count);
        for (auto &item : tree->nodes) tree->insert(&item);
    }
    return *tree;
}

template <class Tree>
void findIn(benchmark::State &state, size_t count) {
    auto &tree = filled<Tree>(count);
    size_t at = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(tree.find(tree.order[at]->key));
        if (++at == count) at = 0;
    }
}

// Builds whole trees or takes them apart; only the one or the other is measured.
template <class Tree>
void build(benchmark::State &state, size_t count) {
    Tree tree(count);
    for (auto _ : state) {
        for (auto *item : tree.order) tree.insert(item);
        state.PauseTiming();
        for (auto &item : tree.nodes) tree.remove(&item);
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(count));
}

template <class Tree>
void takeApart(benchmark::State &state, size_t count) {
    Tree tree(count);
    for (auto _ : state) {
        state.PauseTiming();
        for (auto &item : tree.nodes) tree.insert(&item);
        state.ResumeTiming();
        for (auto *item : tree.order) tree.remove(item);
    }
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(count));
}

void step(benchmark::State &state, size_t count) {
    auto &tree = filled<OurTree>(count);
    size_t at = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(tree.next(tree.order[at]));
        if (++at == count) at = 0;
    }
}

// A row per size. The step to the next node has the look-up in the same tree beside it: both go down once.
[[maybe_unused]] const bool rows = [] {
    using zel::bench::Function;
    using Measure = void (*)(benchmark::State &, size_t);
    struct Operation {
        std::string name;
        Measure ours, theirs;
        const char *peer;
        double bar;
    };
    static const Operation operations[] = {
        {"find", findIn<OurTree>, findIn<TheirTree>, "boost::intrusive::avltree", 1.0},
        {"insert", build<OurTree>, build<TheirTree>, "boost::intrusive::avltree", 1.0},
        {"remove", takeApart<OurTree>, takeApart<TheirTree>, "boost::intrusive::avltree", 1.0},
        {"GetNext", step, findIn<OurTree>, "find in the same tree", 2.0},
    };
    for (const auto &operation : operations)
        for (const size_t count : {1000u, 100000u, 1000000u}) {
            const auto sized = [count](Measure measure) -> Function {
                return [=](benchmark::State &state) { measure(state, count); };
            };
            zel::bench::addRow(("AVL " + operation.name + ", " + std::to_string(count) + " nodes").c_str(), "ns",
                               zel::bench::Kind::time)
                .ours(sized(operation.ours))
                .peer(operation.peer, sized(operation.theirs), operation.bar);
        }
    return true;
}();

}  // namespace
