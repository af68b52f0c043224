// Two switches of two route processors each, in one process: the tables of each are swapped in when it is its turn, and
// messages wait in queues until the test delivers them. Applications add and delete keys, some of them on both
// switches, while route processors and whole switches die; a ledger knows who was given which index.
#include <gtest/gtest.h>

#include <deque>
#include <functional>
#include <map>
#include <set>
#include <vector>

#include "tests/resmgr/audit.h"
#include "tests/resmgr/ledger.h"
#include "tests/support/random.h"
#include "tests/support/reports.h"
#include "zel/platform.h"

namespace zel::test {
namespace {

using Bytes = std::vector<uint8_t>;

struct Node {
    zelResClient *clients[ZEL_RES_CLIENTS] = {};
    zelResDb *databases[ZEL_RES_DATABASES] = {};
    zelResTcb state = {};
    std::deque<Bytes> arrived[ZEL_RES_LINKS];
    uint32_t ofSwitch = 0;
    bool isAlive = false;
};

class World;
World *world = nullptr;

class World {
public:
    World(Random &generator, double lossShare, int32_t size) : random(generator), loss(lossShare), capacity(size) {
        world = this;
        for (uint32_t i = 0; i < 4; ++i) nodes[i].ofSwitch = i / 2;
        for (uint32_t i = 0; i < 4; ++i) start(i);
        gain();
    }
    ~World() {
        for (Node &node : nodes) run(node, resMgmtLibTerminate);
        zelPlatformSetPrimaryRpm(1);
    }

    // ---- Nodes

    bool isPrimary(const Node &node) const { return &node == &nodes[active[node.ofSwitch]]; }
    Node &primary(uint32_t of) { return nodes[active[of]]; }
    Node &standby(uint32_t of) { return nodes[active[of] ^ 1]; }

    void swapIn(Node &node) {
        std::copy_n(node.clients, ZEL_RES_CLIENTS, gaResMgmtClientDb);
        std::copy_n(node.databases, ZEL_RES_DATABASES, gaResMgmtDb);
        gResMgrTcb = node.state;
        current = &node;
        zelPlatformSetPrimaryRpm(isPrimary(node));
    }
    void swapOut() {
        std::copy_n(gaResMgmtClientDb, ZEL_RES_CLIENTS, current->clients);
        std::copy_n(gaResMgmtDb, ZEL_RES_DATABASES, current->databases);
        current->state = gResMgrTcb;
    }
    template <class Body>
    void run(Node &node, Body body) {
        swapIn(node);
        body();
        swapOut();
    }

    void start(uint32_t number) {
        Node &node = nodes[number];
        node.isAlive = true;
        for (auto &queue : node.arrived) queue.clear();
        run(node, [] {
            resMgmtLibTerminate();
            registerTestClient([](zelResDb *, zelResEntry *entry, const void *, uint32_t) { world->serve(entry); },
                               [] { return world->current->ofSwitch == world->kxlPrimary ? 1 : 2; });
            resMgmtLibSetTransport([](const void *bytes, uint32_t length) { return world->toStandby(bytes, length); },
                                   [](const void *bytes, uint32_t length) { return world->toPeer(bytes, length); });
            createDatabase(1, world->capacity, ZEL_RES_PEER_AWARE);
        });
    }

    // ---- Messages

    int toStandby(const void *bytes, uint32_t length) {
        Node &other = nodes[(current - nodes) ^ 1];
        return post(other, ZEL_RES_LINK_HA, bytes, length);
    }
    int toPeer(const void *bytes, uint32_t length) {
        std::uniform_real_distribution<double> share(0, 1);
        if (share(random) < loss) return 0;
        return post(primary(current->ofSwitch ^ 1), ZEL_RES_LINK_KXL, bytes, length);
    }
    static int post(Node &to, int link, const void *bytes, uint32_t length) {
        if (!to.isAlive) return -1;
        const auto *from = static_cast<const uint8_t *>(bytes);
        to.arrived[link].emplace_back(from, from + length);
        return 0;
    }
    bool deliver(Node &node, int link) {
        if (!node.isAlive || node.arrived[link].empty()) return false;
        const Bytes message = node.arrived[link].front();
        node.arrived[link].pop_front();
        run(node, [&] { resMgmtLibRecvSync(message.data(), static_cast<uint32_t>(message.size()), link); });
        return true;
    }
    void deliverAll() {
        for (bool isBusy = true; isBusy;) {
            isBusy = false;
            for (Node &node : nodes)
                for (const int link : {ZEL_RES_LINK_HA, ZEL_RES_LINK_KXL})
                    while (deliver(node, link)) isBusy = true;
        }
    }

    // ---- Applications

    void serve(const zelResEntry *entry) {
        if (isPrimary(*current)) ledger.give(current->ofSwitch, numberOf(entry), entry->objectIndex);
    }
    void add(uint32_t of, uint32_t number) {
        run(primary(of), [&] {
            int32_t index;
            const int result = addKey(number, &index);
            ASSERT_TRUE(result == 0 || result == -3) << result;
            ++ledger.wanted[of][number];
            if (result == 0) ledger.give(of, number, index);
        });
    }
    void drop(uint32_t of, uint32_t number) {
        const auto wanted = ledger.wanted[of].find(number);
        if (wanted == ledger.wanted[of].end()) return;
        if (--wanted->second == 0) {
            ledger.wanted[of].erase(wanted);
            ledger.held[of].erase(number);
        }
        run(primary(of), [&] { EXPECT_EQ(resMgmtApiDelObject(client, database, &number, sizeof number), 0); });
    }

    // ---- Deaths

    void greet(uint32_t of) {
        run(primary(of), [] {
            resMgmtLibSyncAllDataToPeer(ZEL_RES_LINK_KXL);
            resMgmtLibResendAllKxlPendingReqs();
        });
    }
    void gain() {
        for (const uint32_t of : {kxlPrimary, kxlPrimary ^ 1}) greet(of);
    }
    void killStandby(uint32_t of) {
        start(active[of] ^ 1);
        run(standby(of), [] { resMgmtLibRequestAllData(ZEL_RES_LINK_HA); });
    }
    // What the dead one sent has arrived; what was sent to it is lost.
    void killPrimary(uint32_t of) {
        while (deliver(standby(of), ZEL_RES_LINK_HA)) continue;
        if ((standby(of).databases[database]->stateFlags & ZEL_RES_DB_COPIED) == 0) return;
        active[of] ^= 1;
        killStandby(of);
        run(primary(of), [] { resMgmtLibProcessPendingRequests(gaResMgmtDb[database]); });
        greet(of);
        greet(of ^ 1);
    }
    // The other switch allocates from now on; this one comes back as the secondary and learns what the other one has.
    void killSwitch(uint32_t of) {
        while (deliver(primary(of ^ 1), ZEL_RES_LINK_KXL)) continue;
        ledger.held[of].clear();
        ledger.wanted[of].clear();
        kxlPrimary = of ^ 1;
        for (const uint32_t number : {2 * of, 2 * of + 1}) nodes[number].isAlive = false;
        run(primary(of ^ 1), [] { resMgmtLibClearKxlPeerDependencies(gaResMgmtDb[database]); });
        for (const uint32_t number : {2 * of, 2 * of + 1}) start(number);
        run(primary(of), [] { resMgmtLibRequestAllData(ZEL_RES_LINK_KXL); });
        run(standby(of), [] { resMgmtLibRequestAllData(ZEL_RES_LINK_HA); });
    }

    // ---- Audits

    std::map<uint32_t, int32_t> tableOf(Node &node) {
        std::map<uint32_t, int32_t> table;
        run(node, [&] {
            EXPECT_EQ(audit(), "");
            EXPECT_EQ(gResMgrTcb.conflicts, 0u);
            const zelResEntry *entry = nullptr;
            while ((entry = resMgmtLibNextObjectEntry(gaResMgmtDb[database], entry)) != nullptr) {
                EXPECT_EQ(entry->statusFlag & ZEL_RES_DELETING, 0);
                table[numberOf(entry)] = entry->objectIndex;
            }
        });
        return table;
    }
    // Everything has arrived: the four tables hold what the ledger says and nothing else; who waits, waits because the
    // database is full.
    void check() {
        const double lossBefore = std::exchange(loss, 0.0);
        deliverAll();
        if (lossBefore > 0) gain();
        deliverAll();
        loss = lossBefore;
        std::set<uint32_t> all;
        for (uint32_t of = 0; of < switches; ++of) {
            EXPECT_EQ(tableOf(primary(of)), tableOf(standby(of)));
            for (const auto &[number, count] : ledger.wanted[of]) {
                const auto held = ledger.held[of].find(number);
                EXPECT_EQ(tableOf(primary(of))[number], held == ledger.held[of].end() ? -1 : held->second);
                all.insert(number);
            }
        }
        std::map<uint32_t, int32_t> primaryTable = tableOf(primary(kxlPrimary));
        EXPECT_EQ(primaryTable.size(), all.size());
        std::size_t waiting = 0;
        for (const auto &[number, index] : primaryTable) waiting += index == -1;
        EXPECT_EQ(all.size() - waiting, std::min(all.size(), static_cast<std::size_t>(capacity)));
        const std::map<uint32_t, int32_t> secondaryTable = tableOf(primary(kxlPrimary ^ 1));
        for (const auto &[number, index] : secondaryTable) EXPECT_EQ(index, primaryTable[number]);
        for (const auto &[number, index] : primaryTable) EXPECT_TRUE(index == -1 || secondaryTable.count(number) == 1);
    }

    Random &random;
    double loss;
    int32_t capacity;
    Node nodes[4];
    uint32_t active[switches] = {0, 2};
    uint32_t kxlPrimary = 0;
    Node *current = nullptr;
    Ledger ledger;
};

struct Faults {
    double loss;
    int32_t capacity;
};
class TwoSwitches : public testing::TestWithParam<Faults> {};

TEST_P(TwoSwitches, NeverGiveAnIndexToTwoKeys) {
    Random random = seeded();
    World all(random, GetParam().loss, GetParam().capacity);
    const int rounds = isFullRun() ? 3000 : 300;
    for (int round = 0; round < rounds && !testing::Test::HasFailure(); ++round) {
        const uint32_t of = random() % 2;
        for (uint32_t steps = random() % 200; steps > 0; --steps) {
            const uint32_t side = random() % 2,
                           number = random() % 3 == 0 ? random() % 20 : 100 + random() % 60 + side * 100;
            const uint32_t choice = random() % 8;
            if (choice < 2) all.add(side, number);
            if (choice == 2) all.drop(side, number);
            if (choice > 2) all.deliver(all.nodes[random() % 4], static_cast<int>(random() % 2));
        }
        const uint32_t death = random() % 4;
        if (death == 0) all.killStandby(of);
        if (death == 1) all.killPrimary(of);
        if (death == 2) all.killSwitch(of);
        if (random() % 3 == 0) all.check();
    }
    all.check();
}

INSTANTIATE_TEST_SUITE_P(Faults, TwoSwitches,
                         testing::Values(Faults{0, 500}, Faults{0, 60}, Faults{0.05, 500}, Faults{0.2, 60}));

// ---- What is refused ------------------------------------------------------------------------------------------------

Bytes lastSent;
int keep(const void *bytes, uint32_t length) {
    const auto *from = static_cast<const uint8_t *>(bytes);
    lastSent.assign(from, from + length);
    return 0;
}

// Whoever dies in the callback that gives an index to its owner: the standby knows it, and that it may have to be given
// again.
TEST(Order, TheStandbyIsToldBeforeTheOwner) {
    static int role;
    static Bytes known;
    role = ZEL_RES_KXL_SECONDARY;
    registerTestClient([](zelResDb *, zelResEntry *, const void *, uint32_t) { known = lastSent; },
                       [] { return role; });
    resMgmtLibSetTransport(keep, nullptr);
    createDatabase(50, 59, ZEL_RES_PEER_AWARE);
    int32_t index;
    EXPECT_EQ(addKey(1, &index), -3);
    role = 1;
    resMgmtLibProcessPendingRequests(gaResMgmtDb[database]);
    ASSERT_GT(known.size(), 24u);
    EXPECT_EQ(known[19], 50);
    EXPECT_EQ(known[21] & ZEL_RES_SYNC_PENDING, ZEL_RES_SYNC_PENDING);
    EXPECT_EQ(lastSent[21] & ZEL_RES_SYNC_PENDING, 0);
    resMgmtLibTerminate();
}

// A standby that has an entry from its primary.
class Refusal : public testing::Test {
protected:
    Refusal() {
        registerTestClient(nullptr, nullptr);
        resMgmtLibSetTransport(keep, nullptr);
        createDatabase(0, 99, ZEL_RES_PEER_AWARE);
        int32_t index;
        addKey(7, &index);
        object = lastSent;
        resMgmtLibRequestAllData(ZEL_RES_LINK_HA);
        wanted = lastSent;
        zelPlatformSetPrimaryRpm(0);
    }
    ~Refusal() override {
        zelPlatformSetPrimaryRpm(1);
        resMgmtLibTerminate();
    }
    static int take(const Bytes &message, int link = ZEL_RES_LINK_HA) {
        return resMgmtLibRecvSync(message.data(), static_cast<uint32_t>(message.size()), link);
    }
    Bytes object, wanted;
};

TEST_F(Refusal, MalformedMessagesAreCountedAndChangeNothing) {
    EXPECT_EQ(take(object), 0);
    uint32_t refused = 0;
    const auto refuses = [&](Bytes message, std::size_t at, int value) {
        if (at < message.size()) message[at] = static_cast<uint8_t>(value);
        EXPECT_EQ(take(message), -1) << at;
        EXPECT_EQ(gResMgrTcb.refused, ++refused) << at;
    };
    // Magic, version, subcommand, database, client, length, index beyond the range, status, flags, length of the key,
    // and a byte of the key itself, which the digest belongs to.
    for (const std::size_t at : {0u, 5u, 8u, 9u, 11u, 17u, 20u, 41u, 42u}) refuses(object, at, 77);
    refuses(object, 21, ZEL_RES_STALE);
    for (const int subcommand : {0, 1, 4, 6, 7, 8, 9}) refuses(object, 7, subcommand);
    refuses(object, 16, 255);
    refuses(wanted, 7, ZEL_RES_SYNC_ALL_END);
    refuses({}, 0, 0);
    EXPECT_EQ(resMgmtLibRecvSync(nullptr, 16, ZEL_RES_LINK_HA), -1);
    EXPECT_EQ(resMgmtLibRecvSync(object.data(), 16, ZEL_RES_LINKS), -1);
    for (std::size_t length = 0; length < object.size(); ++length) {
        Bytes cut(object.begin(), object.begin() + static_cast<std::ptrdiff_t>(length));
        EXPECT_EQ(take(cut), -1);
        if (length < 12) continue;
        cut[11] = static_cast<uint8_t>(length);
        EXPECT_EQ(take(cut), -1);
    }
    gRmLibDebug = 1;
    testing::internal::CaptureStdout();
    object[7] = 99;
    take(object, ZEL_RES_LINK_KXL);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "resMgmtLibRecvSync(): Invalid KXL Sync subcmd 99.\r\n");
    gRmLibDebug = 0;
    EXPECT_EQ(audit(), "");
    EXPECT_EQ(gaResMgmtDb[database]->entryCount, 1u);
    EXPECT_EQ(entryOf(7)->objectIndex, 0);
}

TEST_F(Refusal, MessagesForAnotherRoleAreUntimely) {
    EXPECT_EQ(take(wanted), -1);  // a standby has nothing to copy
    EXPECT_EQ(take(object, ZEL_RES_LINK_KXL), -1);
    zelPlatformSetPrimaryRpm(1);
    EXPECT_EQ(take(object), -1);
    EXPECT_EQ(take(object, ZEL_RES_LINK_KXL), -1);  // the KXL primary is told nothing
    EXPECT_EQ(gResMgrTcb.untimely, 4u);
    EXPECT_EQ(take(wanted), 0);
}

// A standby whose first copy was cut short does not know which indexes are free.
TEST_F(Refusal, AnIncompleteCopyHandsOutNothing) {
    wanted[20] = ZEL_RES_SYNC_PRESENT;
    wanted[8] = database;
    EXPECT_EQ(take(wanted), 0);
    int32_t index;
    EXPECT_EQ(resMgmtLibGetFreeObjectIndex(gaResMgmtDb[database], nullptr, &index), -1);
    EXPECT_EQ(take(object), 0);
    wanted[7] = ZEL_RES_SYNC_ALL_END;
    wanted[15] = static_cast<uint8_t>(object[15] + 1);
    EXPECT_EQ(take(wanted), 0);
    EXPECT_NE(gaResMgmtDb[database]->stateFlags & ZEL_RES_DB_INCOMPLETE, 0u);  // the numbers do not follow
}

}  // namespace
}  // namespace zel::test
