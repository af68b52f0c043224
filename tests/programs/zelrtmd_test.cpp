// The route table manager as a process, seen by clients: this process owns the endpoints of two of them.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <list>
#include <memory>
#include <string>
#include <vector>

#include "tests/programs/program.h"
#include "tests/support/random.h"
#include "zel/ipc.h"
#include "zel/rtm.h"

using zel::test::Program;

namespace {

using Bytes = std::vector<std::uint8_t>;

constexpr unsigned typeWord = 12, statusWord = 20, handleWord = 60, indexWord = 148;
constexpr std::size_t pollQuery = 152;

zelRtmRoute makeRoute(const char *prefix, unsigned bits, const char *hop, int family = 0) {
    zelRtmRoute route{};
    inet_pton(family == 2 ? AF_INET6 : AF_INET, prefix, route.prefix);
    inet_pton(family == 2 ? AF_INET6 : AF_INET, hop, route.hop[0].addr);
    for (unsigned i = 0; i < bits; ++i) route.mask[i / 8] |= static_cast<std::uint8_t>(0x80 >> i % 8);
    route.nNextHops = 1;
    route.distance = 100;
    route.hop[0].ifIndex = 1;
    return route;
}

// A client of the manager with an endpoint and a queue of its own.
class Client {
public:
    explicit Client(int service) : address{static_cast<std::uint32_t>(service), 0, 0, 0, 0} {
        key = static_cast<std::uint32_t>(zelIpcOpen(service, 0));
        address.taskKey = key;
        EXPECT_EQ(zelSwpQueueCreate(
                      service, 0, ZEL_RTM_SERVICE, 0, 0, 0, 5, 5, [](void *, int) {}, &queue),
                  0);
    }
    ~Client() {
        zelSwpQueueRemove(queue);
        zelIpcClose(key);
    }
    Client(const Client &) = delete;
    Client &operator=(const Client &) = delete;

    bool enter(const char *name = "client") {
        return zelRtmV4V6Register(address.service, 0, name, &handle, &address) == 0;
    }
    // Waits until everything queued is acknowledged; keeps what else comes.
    void settle() {
        for (int tries = 0; zelSwpQueueGetLen(queue) > 0 && tries < 20; ++tries) receive();
        EXPECT_EQ(zelSwpQueueGetLen(queue), 0);
    }
    void receive() {
        Bytes buffer(8192);
        const int length = zelIpcRecv(key | 1, buffer.data(), static_cast<int>(buffer.size()), 2, 0, 0);
        if (length <= 0) return;
        std::uint32_t acknowledged;
        buffer.resize(static_cast<std::size_t>(length));
        if (zelSwpProcAck(buffer.data(), length, &acknowledged) != 0) others.push_back(buffer);
        while (zelRtmUpdateRouteSwpAck(queue) == 0) continue;
    }
    // The next message of a type that is no acknowledgement; empty when none comes.
    Bytes next(std::uint32_t type) {
        for (int tries = 0; tries < 10; ++tries) {
            for (auto at = others.begin(); at != others.end(); ++at)
                if (zelIpcHdrGet32(at->data(), typeWord) == type) {
                    Bytes found = *at;
                    others.erase(at);
                    return found;
                }
            receive();
        }
        return {};
    }
    void update(std::uint32_t operation, const zelRtmRoute &route, int family = 0, std::uint32_t vrf = 0) {
        EXPECT_EQ(zelRtmUpdateRoute(handle, operation, &route, nullptr, &address, queue, 1, family, nullptr, vrf), 0);
        settle();
    }
    void add(const zelRtmRoute &route, int family = 0, std::uint32_t vrf = 0) {
        update(ZEL_RTM_ADD, route, family, vrf);
    }

    // The first next hop of the answer, "none" without a route, with the prefix length behind: "10.9.9.9/8".
    std::string answerText(const std::uint8_t *query, int family) {
        zelRtmRoute route;
        std::uint32_t bits = 0;
        if (zelRtmParseAnswer(query, &route, &bits) != ZEL_RTM_FOUND) return "none";
        char text[64];
        return std::string(rtm_inet_ntop(family, route.hop[0].addr, text, sizeof text)) + "/" + std::to_string(bits);
    }
    std::string lookUp(const char *what, int exactBits = -1, int family = 0, std::uint32_t vrf = 0) {
        std::uint8_t query[ZEL_RTM_QUERY_LENGTH];
        build(query, what, exactBits, family);
        EXPECT_EQ(zelRtmRouteLookupIPv4(handle, 1, &address, vrf, query), 0);
        return answerText(query, family);
    }
    static void build(void *query, const char *what, int exactBits = -1, int family = 0) {
        std::uint8_t bytes[16];
        inet_pton(family == 2 ? AF_INET6 : AF_INET, what, bytes);
        const unsigned bits = exactBits >= 0 ? static_cast<unsigned>(exactBits) : family == 2 ? 128u : 32u;
        zelRtmBuildQuery(query, exactBits >= 0 ? ZEL_RTM_MATCH_EXACT : ZEL_RTM_MATCH_LONGEST, family, bytes, bits);
    }

    std::uint32_t key = 0;
    zelIpcAddr address;
    std::uint32_t queue = 0;
    std::uint32_t handle = 0;
    std::list<Bytes> others;
};

class Zelrtmd : public testing::Test {
protected:
    Zelrtmd() {
        EXPECT_TRUE(manager.says("RTM(76/0) is ready"));
        a = std::make_unique<Client>(61);
        b = std::make_unique<Client>(60);
        EXPECT_TRUE(a->enter());
        EXPECT_TRUE(b->enter());
    }
    ~Zelrtmd() override {
        a.reset();
        b.reset();
        manager.signal(SIGTERM);
        EXPECT_EQ(manager.wait(), 0) << manager.output();
        EXPECT_TRUE(manager.says("RTM(76/0), process ", 1));
        EXPECT_TRUE(manager.says("ended with status 0"));
    }
    std::uint64_t counter(int which) {
        std::uint64_t counters[ZEL_RTM_COUNTERS] = {};
        EXPECT_EQ(zelRtmGetCounters(&a->address, counters), 0);
        return counters[which];
    }

    Program manager{"zeltmed", {"--spawn", "RTM zelrtmd --max-clients 3"}};
    std::unique_ptr<Client> a, b;
};

TEST_F(Zelrtmd, registersNamedClientsWhileThereIsRoom) {
    const std::uint32_t before = a->handle;
    EXPECT_NE(before, b->handle);
    EXPECT_TRUE(a->enter());
    EXPECT_EQ(a->handle, before);
    std::uint32_t handle = 5;
    EXPECT_EQ(zelRtmRegister(1, 0, "", &handle, &a->address), 1);
    EXPECT_EQ(zelRtmRegister(1, 0, "tab\there", &handle, &a->address), 1);
    EXPECT_EQ(handle, 5u);
    EXPECT_EQ(zelRtmRegister_vrf(1, 7, "third", &handle, &a->address), 0);
    EXPECT_EQ(zelRtmRegisterNonRtProtoClient(1, 0, "fourth", &handle, &a->address), 1);
    EXPECT_EQ(counter(ZEL_RTM_COUNT_CLIENTS), 3u);
    EXPECT_EQ(zelRtmDeregister(handle, &a->address), 0);
    EXPECT_EQ(zelRtmDeregister(handle, &a->address), 1);
    EXPECT_EQ(zelRtmSendRegister(26, 0, "one-way", &a->address), 0);
    const Bytes answer = a->next(ZEL_RTM_MSG_REGISTER_ONE_WAY);
    ASSERT_FALSE(answer.empty());
    EXPECT_EQ(zelIpcHdrGet32(answer.data(), statusWord), 0u);
    EXPECT_NE(zelIpcHdrGet32(answer.data(), handleWord), 0u);
}

TEST_F(Zelrtmd, prefersTheNearerOfSeveralClientsAndForgetsWithThem) {
    zelRtmRoute wide = makeRoute("10.0.0.0", 8, "1.1.1.1"), narrow = makeRoute("10.1.0.0", 16, "2.2.2.2");
    a->add(wide);
    a->add(narrow);
    EXPECT_EQ(b->lookUp("10.1.2.3"), "2.2.2.2/16");
    EXPECT_EQ(b->lookUp("10.2.2.3"), "1.1.1.1/8");
    EXPECT_EQ(b->lookUp("10.1.0.0", 16), "2.2.2.2/16");
    EXPECT_EQ(b->lookUp("10.1.0.0", 15), "none");
    EXPECT_EQ(b->lookUp("11.0.0.1"), "none");

    zelRtmRoute better = makeRoute("10.1.0.0", 16, "3.3.3.3");
    better.distance = 50;
    b->add(better);
    EXPECT_EQ(a->lookUp("10.1.2.3"), "3.3.3.3/16");
    EXPECT_EQ(counter(ZEL_RTM_COUNT_ROUTES), 3u);
    EXPECT_EQ(counter(ZEL_RTM_COUNT_PREFIXES), 2u);
    better = makeRoute("10.1.0.0", 16, "4.4.4.4");
    better.metric = 9;  // now the other one's metric decides
    b->add(better);
    EXPECT_EQ(a->lookUp("10.1.2.3"), "2.2.2.2/16");
    a->update(ZEL_RTM_DELETE, narrow);
    EXPECT_EQ(a->lookUp("10.1.2.3"), "4.4.4.4/16");
    a->update(ZEL_RTM_DELETE, narrow);
    EXPECT_EQ(counter(ZEL_RTM_COUNT_UNKNOWN_DELETES), 1u);
    EXPECT_EQ(zelRtmDeregister(b->handle, &b->address), 0);
    EXPECT_EQ(a->lookUp("10.1.2.3"), "1.1.1.1/8");
    const std::uint64_t refused = counter(ZEL_RTM_COUNT_REFUSED);
    b->add(better);  // under a handle that is no more
    EXPECT_EQ(counter(ZEL_RTM_COUNT_REFUSED), refused + 1);
    EXPECT_EQ(a->lookUp("10.1.2.3"), "1.1.1.1/8");
}

TEST_F(Zelrtmd, keepsFamiliesAndVrfsApart) {
    const zelRtmRoute six = makeRoute("2001:db8::", 32, "2001:db8::1", 2), four = makeRoute("10.0.0.0", 8, "1.1.1.1");
    zelRtmRoute inVrf = makeRoute("10.0.0.0", 8, "5.5.5.5");
    inVrf.vrfId = 5;
    a->add(six, 2);
    a->add(four);
    a->add(makeRoute("10.0.0.0", 8, "9.9.9.9"), 1);
    a->add(inVrf, 0, 5);
    EXPECT_EQ(a->lookUp("2001:db8::7", -1, 2), "2001:db8::1/32");
    EXPECT_EQ(a->lookUp("10.1.1.1", -1, 1), "9.9.9.9/8");
    EXPECT_EQ(a->lookUp("10.1.1.1", -1, 0, 5), "5.5.5.5/8");
    EXPECT_EQ(counter(ZEL_RTM_COUNT_TABLES), 4u);

    EXPECT_EQ(zelRtmFlushVRFRoutesAFSwp(a->handle, &a->address, a->queue, 5, 0), 0);
    a->settle();
    EXPECT_EQ(a->lookUp("10.1.1.1", -1, 0, 5), "none");
    EXPECT_EQ(a->lookUp("10.1.1.1"), "1.1.1.1/8");
    EXPECT_EQ(zelRtmFlushRoutesAFSwp(a->handle, &a->address, a->queue, 1), 0);
    EXPECT_EQ(zelRtmFlushRoutesSwp(b->handle, &b->address, b->queue), 0);  // not b's to flush
    a->settle();
    b->settle();
    EXPECT_EQ(a->lookUp("10.1.1.1", -1, 1), "none");
    EXPECT_EQ(a->lookUp("10.1.1.1"), "1.1.1.1/8");
    EXPECT_EQ(zelRtmDeregisterAddrFamily(a->handle, 2, &a->address), 0);
    EXPECT_EQ(a->lookUp("2001:db8::7", -1, 2), "none");
    EXPECT_EQ(zelRtmFlushRoutes(a->handle, &a->address), 0);
    EXPECT_EQ(a->lookUp("10.1.1.1"), "none");
}

TEST_F(Zelrtmd, followsNextHopsUntilOneHasAnInterface) {
    zelRtmRoute far = makeRoute("10.0.0.0", 8, "20.0.0.1"), middle = makeRoute("20.0.0.0", 8, "30.0.0.1");
    far.hop[0].ifIndex = middle.hop[0].ifIndex = 0;
    std::uint8_t tlv[] = {1, 2, 3, 4, 5};
    far.tlv = tlv;
    far.tlvLen = sizeof tlv;
    a->add(far);
    a->add(middle);
    std::uint8_t query[ZEL_RTM_QUERY_LENGTH], area[ZEL_RTM_TLV_AREA];
    Client::build(query, "10.1.1.1");
    EXPECT_EQ(zelRtmRecurRouteLookupIPv4(a->handle, 1, &a->address, 0, query), 0);
    EXPECT_EQ(a->answerText(query, 0), "none");  // nothing leads to 30.0.0.1
    a->add(makeRoute("30.0.0.0", 24, "30.0.0.254"));
    Client::build(query, "10.1.1.1");
    EXPECT_EQ(zelRtmRecurRouteLookupIPv4Tlv(a->handle, 1, &a->address, 0, query, area), 0);
    EXPECT_EQ(a->answerText(query, 0), "30.0.0.254/24");
    EXPECT_EQ(area[1], sizeof tlv);
    EXPECT_EQ(memcmp(area + 2, tlv, sizeof tlv), 0);
    zelRtmRoute loop = makeRoute("40.0.0.0", 8, "40.1.1.1");
    loop.hop[0].ifIndex = 0;
    a->add(loop);
    Client::build(query, "40.1.1.1");
    EXPECT_EQ(zelRtmRecurRouteLookupIPv4(a->handle, 1, &a->address, 0, query), 0);
    EXPECT_EQ(a->answerText(query, 0), "none");
}

TEST_F(Zelrtmd, answersPollsAtOnceAndWhenTheAnswerChanges) {
    std::uint8_t query[ZEL_RTM_QUERY_LENGTH];
    Client::build(query, "10.1.1.1");
    EXPECT_EQ(zelRtmPollRouteLookupIPv4(a->handle, ZEL_RTM_POLL_START, &a->address, a->queue, 0, query), 0);
    Bytes answer = a->next(ZEL_RTM_MSG_POLL);
    ASSERT_EQ(answer.size(), 2048u);
    EXPECT_EQ(a->answerText(answer.data() + pollQuery, 0), "none");
    b->add(makeRoute("10.0.0.0", 8, "1.1.1.1"));
    answer = a->next(ZEL_RTM_MSG_POLL);
    ASSERT_FALSE(answer.empty());
    EXPECT_EQ(a->answerText(answer.data() + pollQuery, 0), "1.1.1.1/8");
    b->add(makeRoute("11.0.0.0", 8, "1.1.1.1"));  // changes nothing for the poll
    EXPECT_EQ(counter(ZEL_RTM_COUNT_POLL_ANSWERS), 2u);
    EXPECT_EQ(zelRtmPollRouteLookupIPv4(a->handle, ZEL_RTM_POLL_STOP, &a->address, a->queue, 0, query), 0);
    a->settle();
    b->add(makeRoute("10.1.0.0", 16, "2.2.2.2"));
    EXPECT_EQ(counter(ZEL_RTM_COUNT_POLL_ANSWERS), 2u);

    std::uint8_t two[2 * ZEL_RTM_QUERY_HEAD];
    memcpy(two, query, ZEL_RTM_QUERY_HEAD);
    Client::build(query, "11.0.0.0", 8);
    memcpy(two + ZEL_RTM_QUERY_HEAD, query, ZEL_RTM_QUERY_HEAD);
    EXPECT_EQ(zelRtmPollMultiRouteLookupIPv4(a->handle, 1, &a->address, a->queue, 0, 2, two), 0);
    for (const char *expected : {"2.2.2.2/16", "1.1.1.1/8"}) {
        answer = a->next(ZEL_RTM_MSG_MULTI_POLL);
        ASSERT_EQ(answer.size(), 2048u);
        EXPECT_EQ(a->answerText(answer.data() + pollQuery, 0), expected);
    }
    EXPECT_EQ(zelIpcHdrGet32(answer.data(), indexWord), 1u);
    EXPECT_EQ(zelRtmFlushPollerRoutesSwp(a->handle, &a->address, a->queue), 0);
    a->settle();
    EXPECT_EQ(zelRtmFlushRoutes(b->handle, &b->address), 0);
    EXPECT_EQ(counter(ZEL_RTM_COUNT_POLL_ANSWERS), 4u);
}

TEST_F(Zelrtmd, asksTheOwnersOfClearedRoutesToSendThemAgain) {
    b->add(makeRoute("10.0.0.0", 8, "1.1.1.1"));
    EXPECT_EQ(zelRtmFibClear(a->handle, 0, &a->address), 0);
    EXPECT_EQ(a->lookUp("10.1.1.1"), "none");
    const Bytes request = b->next(ZEL_RTM_MSG_CLEAR);
    std::uint32_t handle, vrf, sequence;
    ASSERT_EQ(zelRtmParseClear(request.data(), static_cast<int>(request.size()), &handle, &vrf, &sequence), 0);
    EXPECT_EQ(handle, b->handle);
    EXPECT_EQ(zelRtmClearIpRouteSwpAck(handle, &b->address, b->queue, sequence + 1), 0);
    b->settle();
    EXPECT_EQ(counter(ZEL_RTM_COUNT_CLEAR_ACKS), 0u);
    EXPECT_EQ(zelRtmClearIpRouteSwpAck(handle, &b->address, b->queue, sequence), 0);
    b->settle();
    EXPECT_EQ(counter(ZEL_RTM_COUNT_CLEAR_ACKS), 1u);
    EXPECT_TRUE(a->others.empty());
}

TEST_F(Zelrtmd, takesRedistributionRulesAndQualifiersBackOnlyWhenTheyWereGiven) {
    const std::uint32_t bgp = 61;
    EXPECT_EQ(zelRtmRedistTgtClientReject_opts(a->handle, &a->address, &bgp), 1);
    EXPECT_EQ(zelRtmRedistTgtClientAccept_opts(a->handle, &a->address, &bgp), 0);
    EXPECT_EQ(zelRtmRedistTgtClientRejectAF_opts(a->handle, &a->address, 2, &bgp), 1);
    EXPECT_EQ(zelRtmRedistTgtClientReject_opts(a->handle, &a->address, &bgp), 0);
    EXPECT_EQ(zelRtmRedistTgtClientMsg_opts(a->handle, 9, &a->address, &bgp), 1);
    EXPECT_EQ(zelRtmRedistTgtClientAccept_opts(12345, &a->address, &bgp), 1);
    EXPECT_EQ(zelRtmDeRegisterClientQualifier(a->handle, 1, 2, &a->address), 1);
    EXPECT_EQ(zelRtmRegisterClientQualifier(a->handle, 1, 2, &a->address), 0);
    EXPECT_EQ(zelRtmDeRegisterClientQualifier(a->handle, 1, 2, &a->address), 0);
}

TEST_F(Zelrtmd, dumpsEveryRouteOnceInOrder) {
    Client &client = *a;
    void *pending = nullptr;
    for (unsigned i = 0; i < 500; ++i) {
        const std::string prefix = "10." + std::to_string(i / 250) + "." + std::to_string(i % 250) + ".0";
        const zelRtmRoute route = makeRoute(prefix.c_str(), 24, "1.1.1.1");
        for (Client *owner : {a.get(), b.get()}) {
            if (owner == b.get() && i % 3 != 0) continue;
            void **batch = owner == a.get() ? &pending : nullptr;
            EXPECT_EQ(zelRtmUpdateRoute(owner->handle, ZEL_RTM_ADD, &route, batch, &owner->address, owner->queue, 1, 0,
                                        nullptr, 0),
                      0);
            if (!batch) owner->settle();
        }
    }
    EXPECT_EQ(zelRtmUpdateRoute(a->handle, ZEL_RTM_ADD, nullptr, &pending, &a->address, a->queue, 1, 0, nullptr, 0), 0);
    a->settle();
    const auto dump = std::make_unique<zelRtmDump>();
    zelRtmDumpBegin(dump.get(), 0, 0);
    std::uint32_t handle;
    zelRtmRoute route;
    unsigned routes = 0, ofB = 0;
    Bytes last;
    while (zelRtmDumpNext(dump.get(), &client.address, &handle, &route) == 1) {
        const Bytes prefix(route.prefix, route.prefix + 4);
        if (handle == a->handle)
            EXPECT_LT(last, prefix);
        else
            EXPECT_EQ(last, prefix);
        last = prefix;
        ++routes;
        ofB += handle == b->handle;
        // What goes while it is read does not disturb what follows.
        if (routes == 100) a->update(ZEL_RTM_DELETE, route);
    }
    EXPECT_EQ(routes, 500u + 167u);
    EXPECT_EQ(ofB, 167u);
}

TEST_F(Zelrtmd, outlivesRandomAndMutatedMessages) {
    auto random = zel::test::seeded();
    const int plain = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_addr.s_addr = htonl(zel_sysGetIpAddr());
    const int rounds = zel::test::isFullRun() ? 100000 : 4000;
    for (int i = 0; i < rounds; ++i) {
        Bytes message(random() % 3 == 0 ? random() % 61 : random() % 2600);
        for (auto &byte : message) byte = static_cast<std::uint8_t>(random() % 4 == 0 ? random() : 0);
        if (message.size() >= 60 && random() % 8 != 0) {
            zelIpcHdrSet32(message.data(), 0, ZEL_IPC_MAGIC);
            zelIpcHdrSet32(message.data(), typeWord, 0x3200 + random() % 0x100);
            zelIpcHdrSet32(message.data(), 40, zel_sysGetIpAddr());
            zelIpcHdrSet32(message.data(), 44, a->key | 2);
            if (message.size() > 148) {  // queue 1, first message of a stream, a known handle
                zelIpcHdrSet32(message.data(), 60, random() % 2 ? 1 : a->handle);
                zelIpcHdrSet32(message.data(), 64, 0);
                zelIpcHdrSet32(message.data(), 68, 0);
                zelIpcHdrSet32(message.data(), 76, random());
                zelIpcHdrSet32(message.data(), 132, a->handle);
                zelIpcHdrSet32(message.data(), 136, a->handle);
            }
        }
        to.sin_port = htons(static_cast<std::uint16_t>(zel_getQueueId(ZEL_RTM_SERVICE, 0, i % 8 ? 1 : 2)));
        sendto(plain, message.data(), message.size(), 0, reinterpret_cast<sockaddr *>(&to), sizeof to);
        if (i % 50 == 0) counter(ZEL_RTM_COUNT_CLIENTS);  // answered: it keeps up, nothing is dropped unread
    }
    close(plain);
    EXPECT_GT(counter(ZEL_RTM_COUNT_MALFORMED) + counter(ZEL_RTM_COUNT_REFUSED), 0u);
    EXPECT_TRUE(a->enter());
    zelSwpQueueFlush(a->queue);
    a->add(makeRoute("10.0.0.0", 8, "1.1.1.1"));
    EXPECT_EQ(a->lookUp("10.1.1.1"), "1.1.1.1/8");
}

}  // namespace
