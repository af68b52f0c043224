// A radix tree in shared memory whose writers die: killed at any moment, or stopped behind every instruction.
#include <signal.h>
#include <sys/ptrace.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cstring>
#include <memory>
#include <thread>

#include "platform/segment.h"
#include "tests/containers/check.h"
#include "tests/support/child.h"
#include "tests/support/eventually.h"
#include "tests/support/random.h"
#include "zel/platform.h"

namespace zel::test {
namespace {

constexpr uint32_t prefixes = 96, none = UINT32_MAX;
enum State : int { out, in, marked };

// The prefix that is changed, and what it is to become.
struct Change {
    uint32_t prefix;
    State next;
};

struct Record {
    zelRadixEntry entry;
    uint8_t key[4];
    uint32_t prefix;
};

// What the processes share. Each prefix has two records to stand for it.
struct World {
    zelRadix tree;
    std::atomic<Change> current;
    std::atomic<State> states[prefixes];
    std::atomic<int> changes;
    uint32_t values[prefixes];  // their addresses, in full, and how many bits of them count
    uint32_t bits[prefixes];
    Record records[2][prefixes];
    size_t used;
    alignas(16) char heap[1 << 15];
    uint32_t index[1 << 16];
};

World *world;

// Gives nothing out twice but the one index, and so loses nothing when a process dies in it.
void *allocate(size_t bytes) {
    if (bytes == sizeof world->index) return world->index;
    void *block = world->heap + world->used;
    world->used += (bytes + 15) / 16 * 16;
    return world->used <= sizeof world->heap ? block : nullptr;
}

void becomeTheWriter() {
    world->tree.rtt_alloc = allocate;
    world->tree.rtt_free = [](void *) {};
    world->tree.rtt_deleted = nullptr;
}

zelRadixEntry *exact(uint32_t prefix) {
    return zelRadixGetExact(&world->tree, world->records[0][prefix].key, world->bits[prefix]);
}

// One prefix is marked at most, so that no change is about any but the current one.
void change(Random &random, bool isIndexed) {
    zelRadix *tree = &world->tree;
    if (isIndexed && random() % 200 == 0) zelRadixSetIndex(tree, random() % 2 * 16);
    const uint32_t last = world->current.load().prefix;
    const uint32_t prefix = world->states[last] == marked ? last : random() % prefixes;
    const State state = world->states[prefix];
    const bool isReleased = state == marked && random() % 2;
    const State next = isReleased ? out : state != in ? in : tree->rtt_versioning ? marked : out;
    world->current = {prefix, next};
    if (isReleased)
        zelRadicalNextVersion(tree);
    else if (state == in)
        zelRadixRemove(tree, exact(prefix));
    else
        zelRadixInsert(tree, &world->records[random() % 2][prefix].entry, world->bits[prefix]);
    world->states[prefix] = next;
    ++world->changes;
}

// radixWriter WORLD SEED KIND: changes the tree until it dies.
ZEL_CHILD(radixWriter) {
    if (argc != 3 || !platform::attachPolicySegment(false)) return 2;
    world = reinterpret_cast<World *>(strtoull(argv[0], nullptr, 0));
    becomeTheWriter();
    Random random{std::mt19937(static_cast<unsigned>(strtoul(argv[1], nullptr, 0)))};
    const bool isTraced = strcmp(argv[2], "traced") == 0;
    if (isTraced && ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) != 0) return 77;
    if (isTraced) raise(SIGSTOP);
    for (;;) change(random, !isTraced);
}

class DyingWriter : public testing::Test {
protected:
    using States = std::array<State, prefixes>;

    DyingWriter() {
        platform::attachPolicySegment(true);
        world = static_cast<World *>(zelMC_MM_calloc("test", __LINE__, 1, sizeof(World)));
        zelRadixInit(&world->tree, "shared", 32, allocate, nullptr, nullptr);
        for (uint32_t i = 0; i < prefixes; ++i) addPrefix(i);
        for (uint32_t i = 0; i < prefixes; i += 2) {
            zelRadixInsert(&world->tree, &world->records[0][i].entry, world->bits[i]);
            world->states[i] = in;
        }
    }
    ~DyingWriter() override { zelMC_MM_free("test", __LINE__, world); }

    // Each another one; they nest, and many have the length of the index or one more or less.
    void addPrefix(uint32_t i) {
        const uint32_t bits = world->bits[i] = i % 3 ? 15 + random() % 3 : random() % 33;
        world->values[i] = 0x0a0a0a0a ^ (random() & random() & random());
        for (uint32_t other = 0; other < i; ++other)
            if (world->bits[other] == bits && covers(other, world->values[i])) return addPrefix(i);
        for (auto &twins : world->records) {
            twins[i].prefix = i;
            for (int byte = 0; byte < 4; ++byte)
                twins[i].key[byte] = static_cast<uint8_t>(world->values[i] >> (24 - 8 * byte));
            twins[i].entry.rth_addr = twins[i].key;
        }
    }
    static bool covers(uint32_t prefix, uint32_t value) {
        return world->bits[prefix] == 0 || (value ^ world->values[prefix]) >> (32 - world->bits[prefix]) == 0;
    }
    static uint32_t prefixOf(const zelRadixEntry *entry) {
        return entry ? reinterpret_cast<const Record *>(entry)->prefix : none;
    }

    // What the links to children reach.
    static void reach(uint32_t number, int above, States &states) {
        ASSERT_LT(number, world->tree.rtt_fresh);
        const zelRadixNode *node = zelRadixNodeAt(&world->tree, number);
        if (!node) return;
        ASSERT_GT(node->rtn_bit, above);
        ASSERT_TRUE(node->rtn_entry || (node->rtn_left && node->rtn_right));
        if (node->rtn_entry) {
            ASSERT_EQ(node->rtn_entry->rtn, node);
            states[prefixOf(node->rtn_entry)] = node->rtn_flags & ZEL_RADIX_DELETED ? marked : in;
        }
        reach(node->rtn_left, node->rtn_bit, states);
        reach(node->rtn_right, node->rtn_bit, states);
    }
    static States reached() {
        States states{};
        reach(world->tree.rtt_root, -1, states);
        return states;
    }

    static uint32_t best(const States &states, uint32_t value) {
        uint32_t best = none;
        for (uint32_t i = 0; i < prefixes; ++i)
            if (states[i] != out && covers(i, value) && (best == none || world->bits[i] > world->bits[best])) best = i;
        return best == none || states[best] == marked ? none : best;
    }

    // Where a change may be half done, each look-up sees it done or not.
    static void checkLookUps(bool mayBeHalfDone) {
        const States states = reached();
        const auto [current, next] = world->current.load();
        std::array<States, 2> seen{states, states};
        if (mayBeHalfDone) {
            seen[0][current] = world->states[current];
            seen[1][current] = next;
            EXPECT_TRUE(states == seen[0] || states == seen[1]);
        }
        for (uint32_t i = 0; i < prefixes; ++i) {
            const uint32_t found = prefixOf(zelRadixGetBest(&world->tree, world->records[0][i].key, 32));
            EXPECT_TRUE(found == best(seen[0], world->values[i]) || found == best(seen[1], world->values[i])) << i;
            if (mayBeHalfDone && i == current) continue;
            EXPECT_EQ(states[i], mayBeHalfDone ? world->states[i].load() : states[i]);
            EXPECT_EQ(prefixOf(exact(i)), states[i] == in ? i : none);
        }
    }

    static void repair() {
        becomeTheWriter();
        ASSERT_EQ(zelRadixRepair(&world->tree), 0);
        checkRadix(world->tree);
        checkLookUps(false);
        int versions = 0;
        for (zelRadixEntry *entry = nullptr; (entry = zelRadixGetNext(&world->tree, entry)) != nullptr;)
            versions += entry->rth_change.version != 0;
        const auto count = [](zelRadixEntry *entry, void *left) {
            return *static_cast<int *>(left) -= !(entry->rtn->rtn_flags & ZEL_RADIX_DELETED), 0;
        };
        zelRadixVersionWalk(&world->tree, 0, count, &versions);
        EXPECT_EQ(versions, 0);
    }
    static void goOn() {
        zelRadicalNextVersion(&world->tree);  // lets the marked one go
        checkRadix(world->tree);
        const States states = reached();
        for (uint32_t i = 0; i < prefixes; ++i) {
            EXPECT_NE(states[i], marked);
            world->states[i] = states[i];
        }
    }

    Child start(const char *kind) {
        return Child::start("radixWriter",
                            {std::to_string(reinterpret_cast<uintptr_t>(world)), std::to_string(random()), kind});
    }

    Random random = seeded();
};

TEST_F(DyingWriter, leavesATreeToLookUpInAndToRepair) {
    for (uint32_t kill = 0; kill < (isFullRun() ? 200u : 20u) && !HasFailure(); ++kill) {
        world->tree.rtt_versioning = kill % 2;
        const int before = world->changes;
        Child writer = start("free");
        ASSERT_TRUE(eventually(30, [&] { return world->changes > before + 1000; }));
        std::this_thread::sleep_for(std::chrono::microseconds(random() % 2000));
        writer.signal(SIGKILL);
        EXPECT_EQ(writer.wait(), 256 + SIGKILL);
        checkLookUps(true);
        repair();
        goOn();
    }
}

// Each state that a writer goes through is repaired, and put back for it to go on.
TEST_F(DyingWriter, mayStopBehindAnyInstruction) {
#ifdef __SANITIZE_THREAD__
    GTEST_SKIP() << "too many instructions where every access is watched";
#endif
    constexpr size_t bytes = offsetof(World, index);
    const std::unique_ptr<char[]> image(new char[bytes]());
    for (const uint32_t versioning : {0u, 1u}) {
        world->tree.rtt_versioning = versioning;
        Child writer = start("traced");
        int status = 0;
        ASSERT_EQ(waitpid(writer.pid(), &status, 0), writer.pid());
        if (!WIFSTOPPED(status)) GTEST_SKIP() << "nothing can be traced here";
        const int last = world->changes + (isFullRun() ? 200 : 20);
        while (world->changes < last && !HasFailure()) {
            ptrace(PTRACE_SINGLESTEP, writer.pid(), nullptr, nullptr);
            ASSERT_EQ(waitpid(writer.pid(), &status, 0), writer.pid());
            if (memcmp(image.get(), static_cast<void *>(world), bytes) == 0) continue;
            memcpy(image.get(), static_cast<void *>(world), bytes);
            checkLookUps(true);
            repair();
            memcpy(static_cast<void *>(world), image.get(), bytes);
        }
        writer.signal(SIGKILL);
        EXPECT_EQ(writer.wait(), 256 + SIGKILL);
        repair();
        goOn();
    }
}

TEST_F(DyingWriter, isNotRepairedWhereLinksFormNoTree) {
    becomeTheWriter();
    zelRadix *tree = &world->tree;
    tree->rtt_versioning = 1;
    zelRadicalWalk *walk = zelRadicalWalkConstructor(tree);
    for (uint32_t i = 0; i < prefixes; ++i) zelRadixInsert(tree, &world->records[0][i].entry, world->bits[i]);
    zelRadicalNextVersion(tree);
    std::vector<uint32_t *> links{&tree->rtt_root};
    for (uint32_t number = 1; number < tree->rtt_fresh; ++number)
        for (uint32_t *link : {&zelRadixNodeAt(tree, number)->rtn_left, &zelRadixNodeAt(tree, number)->rtn_right})
            if (*link) links.push_back(link);
    const std::unique_ptr<char[]> image(new char[sizeof(World)]);
    for (uint32_t *link : links)
        for (const uint32_t wrong : {tree->rtt_root, tree->rtt_fresh, UINT32_MAX}) {
            const uint32_t right = *link;
            if (wrong == right) continue;
            *link = wrong;
            memcpy(image.get(), static_cast<void *>(world), sizeof(World));
            EXPECT_EQ(zelRadixRepair(tree), -1);
            EXPECT_EQ(memcmp(image.get(), static_cast<void *>(world), sizeof(World)), 0);
            *link = right;
        }
    repair();
    const auto stop = [](zelRadixEntry *, void *) { return 1; };
    EXPECT_EQ(zelRadicalWalkChangeList(walk, stop, nullptr, 0), 0u);
    zelRadicalWalkDestructor(walk);
    for (uint32_t i = 0; i < prefixes; ++i) zelRadixRemove(tree, &world->records[0][i].entry);
    zelRadicalNextVersion(tree);
    EXPECT_EQ(tree->rtt_nodes, 0u);
    repair();
}

}  // namespace
}  // namespace zel::test
