// The tree of byte keys against a std::map, and the named operations over a node type of the test's own.
#include <functional>
#include <map>
#include <string>

#include "base/avl_tree.h"
#include "tests/containers/check.h"
#include "tests/support/failing_allocator.h"
#include "tests/support/random.h"
#include "tests/support/reports.h"

namespace zel::test {
namespace {

// The block ends with the key, so that reading one byte too many is seen by the sanitizers.
zelAvlNode *makeNode(const std::string &key) {
    auto *node = static_cast<zelAvlNode *>(FailingAllocator::allocate(sizeof(zelAvlNode) + key.size()));
    *node = {nullptr, nullptr, -1, 99};
    memcpy(zelAvlKey(node), key.data(), key.size());
    return node;
}

size_t released = 0;

void release(zelAvlNode *node) {
    ++released;
    FailingAllocator::release(node);
}

struct Keys {
    const char *name;
    uint32_t length;
    std::function<std::string(Random &, int step)> make;
};

std::string bigEndian(uint32_t number) {
    return {static_cast<char>(number >> 24), static_cast<char>(number >> 16), static_cast<char>(number >> 8),
            static_cast<char>(number)};
}

std::string bytes(Random &random, size_t length, const char *alphabet, unsigned letters) {
    std::string key;
    while (key.size() < length) key += alphabet[random() % letters];
    return key;
}

class RandomAvl : public testing::TestWithParam<Keys> {
protected:
    ~RandomAvl() override {
        zelAvlDeleteTree(&control, &root);
        EXPECT_EQ(root, nullptr);
        EXPECT_EQ(released, control.release ? model.size() : 0);
        EXPECT_EQ(FailingAllocator::live(), 0);
    }

    void insert(const std::string &key) {
        zelAvlNode *node = makeNode(key);
        const auto [at, isNew] = model.emplace(key, node);
        ASSERT_EQ(zelAvlInsertNode(&control, node, &root), at->second);
        ASSERT_EQ(node->keyLen, control.keyLen);
        if (!isNew) FailingAllocator::release(node);
    }

    void remove(const std::string &key) {
        zelAvlNode *likeIt = makeNode(key);
        const auto at = model.find(key);
        zelAvlNode *removed = zelAvlRemoveNode(&control, likeIt, &root);
        ASSERT_EQ(removed, at == model.end() ? nullptr : at->second);
        FailingAllocator::release(likeIt);
        if (!removed) return;
        ASSERT_TRUE(!removed->left && !removed->right);
        FailingAllocator::release(removed);
        model.erase(at);
    }

    void find(const std::string &key) {
        const auto at = model.find(key);
        ASSERT_EQ(zelAvlGetExact(&control, std::vector<char>(key.begin(), key.end()).data(), &root),
                  at == model.end() ? nullptr : at->second);
    }

    void check() {
        zelAvlNode *node = nullptr;
        for (zelAvlNode *inTree : checkAvl(root, control.keyLen)) {
            node = zelAvlGetNext(&control, node, &root);
            ASSERT_EQ(node, inTree);
            ASSERT_EQ(node, model.at({reinterpret_cast<char *>(zelAvlKey(node)), control.keyLen}));
        }
        ASSERT_EQ(zelAvlGetNext(&control, node, &root), model.empty() ? root : nullptr);
    }

    Random random = seeded();
    avlcb control{GetParam().length, GetParam().length % 2 ? release : nullptr};
    zelAvlNode *root = nullptr;
    std::map<std::string, zelAvlNode *> model;
};

TEST_P(RandomAvl, agreesWithAMap) {
    const int steps = isFullRun() ? 1000000 : 100000;
    for (int step = 0; step < steps && !HasFatalFailure(); ++step) {
        const std::string key = GetParam().make(random, step);
        const bool grows = step / 10000 % 2 == 0;
        random() % 10 < (grows ? 8u : 2u) ? insert(key) : remove(key);
        find(GetParam().make(random, step / 2));
        if (model.size() <= 64 || step % 1000 == 0) check();
    }
}

// Steps of ten thousand come back to where they began, so that what grew also shrinks.
INSTANTIATE_TEST_SUITE_P(
    Keys, RandomAvl,
    testing::Values(
        Keys{"equal", 1, [](Random &, int) { return "="; }},
        Keys{"short", 3, [](Random &r, int) { return bytes(r, 3, "\0\1\x7f\x80\xff", 5); }},
        Keys{"odd", 7, [](Random &r, int) { return bytes(r, 7, "\0\x80\xff", 3); }},
        Keys{"atTheEnd", 19, [](Random &r, int) { return std::string(16, '\xff') + bytes(r, 3, "\xfe\xff", 2); }},
        Keys{"ascending", 4, [](Random &, int s) { return bigEndian(uint32_t(s) % 10000); }},
        Keys{"descending", 12, [](Random &, int s) { return "longlong" + bigEndian(~(uint32_t(s) % 10000)); }}),
    [](const auto &keys) { return keys.param.name; });

// ---- The calls that no random run reaches ----

TEST(Avl, reportsWhatIsMissing) {
    avlcb control{4, nullptr};
    zelAvlNode *root = nullptr;
    EXPECT_EQ(zelAvlInsertNode(&control, nullptr, &root), nullptr);
    EXPECT_EQ(zelAvlRemoveNode(&control, nullptr, &root), nullptr);
    EXPECT_EQ(zelAvlGetExact(&control, nullptr, &root), nullptr);
    EXPECT_EQ(reportedAssertions(), 0);
    expectReports({
        {"avlcb", [&] { return !zelAvlInsertNode(nullptr, nullptr, &root); }},
        {"ptree", [&] { return zelAvlDeleteTree(&control, nullptr), true; }},
        {"tree", [&] { return !zelAvlGetNext(&control, nullptr, nullptr); }},
    });
}

struct Number {
    Number *sides[2];
    int32_t height;
    int value;
};
struct links {
    using Node = Number;
    using Key = int;
    static Node *&left(Node *node) { return node->sides[0]; }
    static Node *&right(Node *node) { return node->sides[1]; }
    static int32_t &height(Node *node) { return node->height; }
    static int compare(Key key, Node *node) { return key - node->value; }
};
TREE_DEFINE(Number, links)

TEST(AvlOperations, applyInBothOrdersAndBalanceWhatRotationsTilted) {
    Number numbers[7] = {}, *root = nullptr;
    for (int i = 0; i < 7; ++i) TREE_INSERT__Number__links(root, &numbers[i], numbers[i].value = i);
    EXPECT_EQ(root->value, 3);
    root = TREE_ROTL(Number, links)(TREE_ROTR(Number, links)(TREE_ROTL(Number, links)(root)));
    EXPECT_EQ(root->value, 5);
    EXPECT_EQ(root->height, 4);
    root = TREE_BALANCE(Number, links)(root);
    EXPECT_EQ(root->value, 3);
    EXPECT_EQ(root->height, 3);
    std::vector<int> values;
    const auto note = [](Number *node, void *all) { static_cast<std::vector<int> *>(all)->push_back(node->value); };
    TREE_FORWARD_APPLY_ALL(Number, links)(root, note, &values);
    TREE_REVERSE_APPLY_ALL(Number, links)(root, note, &values);
    EXPECT_EQ(values, (std::vector{0, 1, 2, 3, 4, 5, 6, 6, 5, 4, 3, 2, 1, 0}));
}

}  // namespace
}  // namespace zel::test
