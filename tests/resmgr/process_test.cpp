// Three processes over UDP on the loopback: the two route processors of the KXL primary, and the secondary switch. They
// add and delete keys, some of them on both switches, and report what they were given; one after the other is killed in
// the middle of that, replaced, and audited.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "tests/resmgr/audit.h"
#include "tests/resmgr/ledger.h"
#include "tests/support/child.h"
#include "tests/support/eventually.h"
#include "tests/support/random.h"
#include "zel/platform.h"

namespace zel::test {
namespace {

constexpr uint8_t nodes = 3, secondary = 2, auditor = 9, nobody = 255;
constexpr int32_t capacity = 90;

class Port {
public:
    explicit Port(uint8_t number) : fd_(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        const int room = 1 << 20;
        if (setsockopt(fd_, SOL_SOCKET, SO_RCVBUFFORCE, &room, sizeof room) != 0)
            setsockopt(fd_, SOL_SOCKET, SO_RCVBUF, &room, sizeof room);
        const sockaddr_in own = address(number);
        isBound_ = bind(fd_, reinterpret_cast<const sockaddr *>(&own), sizeof own) == 0;
    }
    ~Port() { close(fd_); }
    Port(const Port &) = delete;
    Port &operator=(const Port &) = delete;
    bool isBound() const { return isBound_; }

    int send(uint8_t number, const void *bytes, std::size_t length) const {
        const sockaddr_in to = address(number);
        const auto sent = sendto(fd_, bytes, length, 0, reinterpret_cast<const sockaddr *>(&to), sizeof to);
        return sent == static_cast<ssize_t>(length) ? 0 : -1;
    }
    std::vector<uint8_t> receive(long nanoseconds) const {
        pollfd entry{fd_, POLLIN, 0};
        const timespec limit{0, nanoseconds};
        if (ppoll(&entry, 1, &limit, nullptr) != 1) return {};
        std::vector<uint8_t> bytes(8192);
        const ssize_t length = recv(fd_, bytes.data(), bytes.size(), 0);
        bytes.resize(length > 0 ? static_cast<std::size_t>(length) : 0);
        return bytes;
    }

private:
    static sockaddr_in address(uint8_t number) {
        sockaddr_in result{};
        result.sin_family = AF_INET;
        result.sin_addr.s_addr = htonl(zelPlatformIpcAddress());
        result.sin_port = htons(static_cast<uint16_t>(21000 + number));
        return result;
    }
    int fd_;
    bool isBound_ = false;
};

// What the auditor tells a node, and what it is to do at once.
enum class Task : uint8_t { none, copyFromPrimary, copyFromPeer, takeOver, greetPeer, forgetPeer, showTable };
struct Orders {
    char kind = 'O';
    bool isPrimary = false;
    uint8_t standby = nobody, peer = nobody;
    bool isActive = false;
    Task task = Task::none;
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
std::unique_ptr<Port> port;

int carry(uint8_t to, int link, const void *bytes, uint32_t length) {
    if (to == nobody) return -1;
    std::vector<uint8_t> datagram = {'S', static_cast<uint8_t>(link)};
    const auto *from = static_cast<const uint8_t *>(bytes);
    datagram.insert(datagram.end(), from, from + length);
    return port->send(to, datagram.data(), datagram.size());
}

void report(char kind, uint32_t number, int32_t index) {
    Report message{kind, self, "", {{number, index, 1}}};
    port->send(auditor, &message, message.length(1));
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
    if (!onlyHandedOut) port->send(auditor, &message, message.length(count));
}

void obey(const Orders &given) {
    orders = given;
    zelPlatformSetPrimaryRpm(orders.isPrimary);
    switch (orders.task) {
        case Task::copyFromPrimary:
            resMgmtLibRequestAllData(ZEL_RES_LINK_HA);
            break;
        case Task::copyFromPeer:
            resMgmtLibRequestAllData(ZEL_RES_LINK_KXL);
            break;
        case Task::takeOver:
            showTable(true);
            resMgmtLibProcessPendingRequests(gaResMgmtDb[database]);
            [[fallthrough]];
        case Task::greetPeer:
            resMgmtLibSyncAllDataToPeer(ZEL_RES_LINK_KXL);
            break;
        case Task::forgetPeer:
            resMgmtLibClearKxlPeerDependencies(gaResMgmtDb[database]);
            break;
        case Task::showTable:
            showTable(false);
            break;
        case Task::none:
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
    const zelResKey key = keyOf(number);
    int32_t index;
    if (resMgmtApiAddObject(client, database, &key, "cookie", 6, &index) == 0) report('G', number, index);
}

ZEL_CHILD(resourceNode) {
    self = static_cast<uint8_t>(atoi(argv[0]));
    port = std::make_unique<Port>(self);
    Random random = seeded();
    resMgmtLibRegisterClient(
        client, 175, self, nullptr, nullptr, nullptr,
        [](zelResDb *, zelResEntry *entry, const void *, uint32_t) {
            if (orders.isPrimary) report('G', numberOf(entry), entry->objectIndex);
        },
        nullptr, [] { return self == secondary ? 2 : 1; }, nullptr, nullptr, 0, 0, 0);
    resMgmtLibSetTransport([](const void *b, uint32_t n) { return carry(orders.standby, ZEL_RES_LINK_HA, b, n); },
                           [](const void *b, uint32_t n) { return carry(orders.peer, ZEL_RES_LINK_KXL, b, n); });
    createDatabase(1, capacity, ZEL_RES_PEER_AWARE);
    zelPlatformSetPrimaryRpm(0);
    report('U', 0, 0);
    for (;;) {
        const std::vector<uint8_t> datagram = port->receive(500'000);
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
        for (const uint8_t number : {uint8_t{0}, uint8_t{1}, secondary}) tell(number, Task::none);
        tell(standby(), Task::copyFromPrimary);
    }

    uint8_t standby() const { return active ^ 1; }
    static uint32_t switchOf(uint8_t node) { return node == secondary; }

    void start(uint8_t number) {
        children[number] = std::make_unique<Child>(Child::start("resourceNode", {std::to_string(number)}));
        isUp[number] = false;
        ASSERT_TRUE(eventually(20, [&] { return hear(), isUp[number]; }));
    }
    void tell(uint8_t number, Task task) {
        Orders given;
        given.isPrimary = number != standby();
        if (number != secondary) given.standby = number ^ 1;
        given.peer = number == secondary ? active : secondary;
        given.isActive = isActive;
        given.task = task;
        inbox.send(number, &given, sizeof given);
    }
    // Takes what has been reported so far, or comes within a millisecond.
    void hear() {
        for (auto bytes = inbox.receive(1'000'000); !bytes.empty(); bytes = inbox.receive(0)) {
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
        tell(active, Task::takeOver);
        tell(secondary, Task::greetPeer);
        start(dead);
        tell(dead, Task::copyFromPrimary);
    }
    void killStandby() {
        kill(standby());
        start(standby());
        tell(standby(), Task::copyFromPrimary);
    }
    void killPeer() {
        kill(secondary);
        ledger.held[1].clear();
        tell(active, Task::forgetPeer);
        start(secondary);
        tell(secondary, Task::copyFromPeer);
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
        for (uint8_t number = 0; number < nodes; ++number) tell(number, Task::showTable);
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
        for (uint8_t number = 0; number < nodes; ++number) tell(number, Task::none);
    }

    Port inbox{auditor};
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
