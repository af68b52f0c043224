// Three processes over UDP on the loopback: the two route processors of the KXL primary, and the secondary switch. They
// add and delete keys, some of them on both switches, and report what they were given; one after the other is killed in
// the middle of that, replaced, and audited.
#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "tests/ipc/peer.h"
#include "tests/resmgr/audit.h"
#include "tests/resmgr/ledger.h"
#include "tests/support/child.h"
#include "tests/support/random.h"

namespace zel::test {
namespace {

constexpr uint8_t nodes = 3, secondary = 2, auditor = 9, nobody = 255;
constexpr int32_t capacity = 90;

constexpr uint32_t portOf(uint8_t node) {
    return 21000u + node;
}

// What the auditor tells a node, and what it is to do at once.
enum class Duty : uint8_t { none, copyFromPrimary, copyFromPeer, takeOver, greetPeer, forgetPeer, showTable };
struct Orders {
    char kind = 'O';
    bool isPrimary = false;
    uint8_t standby = nobody, peer = nobody;
    bool isActive = false;
    Duty duty = Duty::none;
};

// What a node tells the auditor: that an index was given for a key, that a key is let go of, or its whole table.
struct Row {
    uint32_t number;
    int32_t index;
    uint32_t isHeld;
};
struct Report {
    char kind;
    uint8_t node;
    char fault[62];
    Row rows[200];
    std::size_t length(std::size_t count) const { return offsetof(Report, rows) + count * sizeof(Row); }
};

// ---- A node ---------------------------------------------------------------------------------------------------------

uint8_t self;
Orders orders;
std::unique_ptr<Peer> socket;

int carry(uint8_t to, int link, const void *bytes, uint32_t length) {
    if (to == nobody) return -1;
    std::vector<uint8_t> datagram = {'S', static_cast<uint8_t>(link)};
    const auto *from = static_cast<const uint8_t *>(bytes);
    datagram.insert(datagram.end(), from, from + length);
    socket->send(datagram, portOf(to));
    return 0;
}

void tellAuditor(const Report &message, std::size_t count) {
    const auto *bytes = reinterpret_cast<const uint8_t *>(&message);
    socket->send({bytes, bytes + message.length(count)}, portOf(auditor));
}

void report(char kind, uint32_t number, int32_t index) {
    Report message{kind, self, "", {{number, index, 1}}};
    tellAuditor(message, 1);
}

bool isHandedOut(const zelResEntry *entry) {
    return entry->refCount > 0 && entry->objectIndex != -1 && (entry->statusFlag & ZEL_RES_WAITING) == 0;
}

void showTable(bool onlyHandedOut) {
    Report message{'T', self, "", {}};
    const std::string fault = audit();
    strncpy(message.fault, fault.c_str(), sizeof message.fault - 1);
    std::size_t count = 0;
    const zelResEntry *entry = nullptr;
    while ((entry = resMgmtLibNextObjectEntry(gaResMgmtDb[database], entry)) != nullptr) {
        if (onlyHandedOut && isHandedOut(entry)) report('G', numberOf(entry), entry->objectIndex);
        message.rows[count++] = {numberOf(entry), entry->objectIndex, isHandedOut(entry)};
    }
    if (!onlyHandedOut) tellAuditor(message, count);
}

void obey(const Orders &given) {
    orders = given;
    zelPlatformSetPrimaryRpm(orders.isPrimary);
    switch (orders.duty) {
        case Duty::copyFromPrimary:
            resMgmtLibRequestAllData(ZEL_RES_LINK_HA);
            break;
        case Duty::copyFromPeer:
            resMgmtLibRequestAllData(ZEL_RES_LINK_KXL);
            break;
        case Duty::takeOver:
            showTable(true);
            resMgmtLibProcessPendingRequests(gaResMgmtDb[database]);
            [[fallthrough]];
        case Duty::greetPeer:
            resMgmtLibSyncAllDataToPeer(ZEL_RES_LINK_KXL);
            break;
        case Duty::forgetPeer:
            resMgmtLibClearKxlPeerDependencies(gaResMgmtDb[database]);
            break;
        case Duty::showTable:
            showTable(false);
            break;
        case Duty::none:
            break;
    }
}

// One key more or less: 40 of the switch's own, and 20 that both switches use.
void act(Random &random) {
    const uint32_t choice = random() % 60, number = choice < 20 ? choice : choice + (self == secondary ? 200 : 100);
    const zelResEntry *entry = entryOf(number);
    if (entry && entry->refCount > 0) {
        report('R', number, 0);
        resMgmtApiDelObject(client, database, &number, sizeof number);
        return;
    }
    int32_t index;
    if (addKey(number, &index) == 0) report('G', number, index);
}

ZEL_CHILD(resourceNode) {
    self = static_cast<uint8_t>(atoi(argv[0]));
    socket = std::make_unique<Peer>(portOf(self));
    Random random = seeded();
    registerTestClient(
        [](zelResDb *, zelResEntry *entry, const void *, uint32_t) {
            if (orders.isPrimary) report('G', numberOf(entry), entry->objectIndex);
        },
        [] { return self == secondary ? 2 : 1; });
    resMgmtLibSetTransport([](const void *b, uint32_t n) { return carry(orders.standby, ZEL_RES_LINK_HA, b, n); },
                           [](const void *b, uint32_t n) { return carry(orders.peer, ZEL_RES_LINK_KXL, b, n); });
    createDatabase(1, capacity, ZEL_RES_PEER_AWARE);
    zelPlatformSetPrimaryRpm(0);
    report('U', 0, 0);
    for (;;) {
        const std::vector<uint8_t> datagram = socket->receive(1);
        if (datagram.size() == sizeof(Orders) && datagram[0] == 'O') {
            Orders given;
            memcpy(static_cast<void *>(&given), datagram.data(), sizeof given);
            obey(given);
        } else if (datagram.size() > 2 && datagram[0] == 'S') {
            resMgmtLibRecvSync(datagram.data() + 2, static_cast<uint32_t>(datagram.size()) - 2, datagram[1]);
        } else if (orders.isActive && orders.isPrimary) {
            act(random);
        }
    }
}

// ---- The auditor ----------------------------------------------------------------------------------------------------

class Auditor : public testing::Test {
protected:
    Auditor() {
        for (uint8_t number = 0; number < nodes; ++number) start(number);
        for (const uint8_t number : {uint8_t{0}, uint8_t{1}, secondary}) tell(number, Duty::none);
        tell(standby(), Duty::copyFromPrimary);
    }

    uint8_t standby() const { return active ^ 1; }
    static uint32_t switchOf(uint8_t node) { return node == secondary; }

    void start(uint8_t number) {
        children[number] = std::make_unique<Child>(Child::start("resourceNode", {std::to_string(number)}));
        isUp[number] = false;
        ASSERT_TRUE(eventually(20, [&] { return hear(), isUp[number]; }));
    }
    void tell(uint8_t number, Duty duty) {
        Orders given;
        given.isPrimary = number != standby();
        if (number != secondary) given.standby = number ^ 1;
        given.peer = number == secondary ? active : secondary;
        given.isActive = isActive;
        given.duty = duty;
        const auto *bytes = reinterpret_cast<const uint8_t *>(&given);
        inbox.send({bytes, bytes + sizeof given}, portOf(number));
    }
    // Takes what has been reported so far, or comes within a millisecond.
    void hear() {
        for (auto bytes = inbox.receive(1); !bytes.empty(); bytes = inbox.receive(0)) {
            Report message{};
            memcpy(static_cast<void *>(&message), bytes.data(), bytes.size());
            const Row &row = message.rows[0];
            const uint32_t of = switchOf(message.node);
            if (message.kind == 'U') isUp[message.node] = true;
            if (message.kind == 'G') ++grants, ledger.give(of, row.number, row.index);
            if (message.kind == 'R') ledger.held[of].erase(row.number);
            if (message.kind == 'T') tables[message.node] = {message, bytes.size()};
        }
    }
    // Without a word: what it reported before is heard first.
    void kill(uint8_t number) {
        children[number]->signal(SIGKILL);
        children[number]->wait();
        hear();
    }

    void killPrimary() {
        const uint8_t dead = active;
        kill(dead);
        active = standby();
        tell(active, Duty::takeOver);
        tell(secondary, Duty::greetPeer);
        start(dead);
        tell(dead, Duty::copyFromPrimary);
    }
    void killStandby() {
        kill(standby());
        start(standby());
        tell(standby(), Duty::copyFromPrimary);
    }
    void killPeer() {
        kill(secondary);
        ledger.held[1].clear();
        tell(active, Duty::forgetPeer);
        start(secondary);
        tell(secondary, Duty::copyFromPeer);
    }

    std::map<uint32_t, int32_t> rowsOf(uint8_t number, bool onlyHeld) {
        std::map<uint32_t, int32_t> result;
        const auto &[message, size] = tables[number];
        EXPECT_STREQ(message.fault, "");
        for (std::size_t i = 0; message.length(i) < size; ++i)
            if (!onlyHeld || message.rows[i].isHeld) result[message.rows[i].number] = message.rows[i].index;
        return result;
    }
    // The tables agree with each other and with the ledger, and nothing is left that nobody holds.
    bool isConsistent() {
        tables.clear();
        for (uint8_t number = 0; number < nodes; ++number) tell(number, Duty::showTable);
        if (!eventually(5, [&] { return hear(), tables.size() == nodes; })) return false;
        const auto ours = rowsOf(active, false), theirs = rowsOf(secondary, false);
        std::set<uint32_t> all;
        for (const auto &side : ledger.held)
            for (const auto &[number, index] : side) all.insert(number);
        const auto withIndex = std::count_if(ours.begin(), ours.end(), [](auto &row) { return row.second != -1; });
        return rowsOf(active, true) == ledger.held[0] && rowsOf(secondary, true) == ledger.held[1] &&
               rowsOf(standby(), false) == ours && static_cast<std::size_t>(withIndex) == all.size() &&
               std::all_of(theirs.begin(), theirs.end(),
                           [&](auto &row) { return ours.count(row.first) && ours.at(row.first) == row.second; });
    }
    void setActive(bool on) {
        isActive = on;
        for (uint8_t number = 0; number < nodes; ++number) tell(number, Duty::none);
    }

    Peer inbox{portOf(auditor)};
    std::unique_ptr<Child> children[nodes];
    bool isUp[nodes] = {};
    bool isActive = false;
    uint8_t active = 0;
    Ledger ledger;
    long grants = 0;
    std::map<uint8_t, std::pair<Report, std::size_t>> tables;
};

TEST_F(Auditor, FindsNoIndexTwiceWhoeverIsKilled) {
    ASSERT_TRUE(inbox.isBound());
    Random random = seeded();
    ASSERT_TRUE(eventually(10, [&] { return isConsistent(); }));
    const int rounds = isFullRun() ? 200 : 20;
    for (int round = 0; round < rounds && !HasFailure(); ++round) {
        setActive(true);
        for (uint32_t wait = 5 + random() % 40; wait > 0; --wait) hear();
        const uint32_t victim = random() % 3;
        if (victim == 0) killPrimary();
        if (victim == 1) killStandby();
        if (victim == 2) killPeer();
        setActive(false);
        EXPECT_TRUE(eventually(10, [&] { return isConsistent(); })) << "round " << round << ", victim " << victim;
    }
    EXPECT_GT(grants, rounds * 10);
    printf("%ld indexes given\n", grants);
}

}  // namespace
}  // namespace zel::test
