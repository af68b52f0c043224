// The route table manager as a process, seen by clients: this process owns the endpoints of two of them.
#include <arpa/inet.h>
#include <poll.h>

#include <cstring>
#include <map>

#include "tests/programs/manager_client.h"
#include "zel/rtm.h"

namespace {

using namespace zel::test;

using Told = std::map<std::string, std::string>;  // next hop by prefix

constexpr unsigned statusWord = 20, handleWord = 60, indexWord = 148;
constexpr std::size_t pollQuery = 152;

std::string text(int family, const void *address, int bits = -1) {
    char buffer[64];
    return rtm_inet_ntop(family, address, buffer, sizeof buffer) + (bits < 0 ? "" : "/" + std::to_string(bits));
}

zelRtmRoute makeRoute(const char *prefix, unsigned bits, const char *hop, int family = 0, std::uint32_t vrf = 0) {
    zelRtmRoute route{};
    inet_pton(family == 2 ? AF_INET6 : AF_INET, prefix, route.prefix);
    inet_pton(family == 2 ? AF_INET6 : AF_INET, hop, route.hop[0].addr);
    for (unsigned i = 0; i < bits; ++i) route.mask[i / 8] |= static_cast<std::uint8_t>(0x80 >> i % 8);
    route.nNextHops = 1;
    route.distance = 100;
    route.hop[0].ifIndex = 1;
    route.vrfId = vrf;
    return route;
}

Bytes makeQuery(const char *what, int exactBits = -1, int family = 0) {
    Bytes query(ZEL_RTM_QUERY_LENGTH);
    std::uint8_t bytes[16];
    inet_pton(family == 2 ? AF_INET6 : AF_INET, what, bytes);
    const std::uint32_t match = exactBits >= 0 ? ZEL_RTM_MATCH_EXACT : ZEL_RTM_MATCH_LONGEST;
    zelRtmBuildQuery(query.data(), match, family, bytes, exactBits >= 0 ? static_cast<unsigned>(exactBits) : 32u);
    return query;
}

// Keeps the routes it is told in a table.
class Client : public ManagerClient {
public:
    static constexpr auto getCounters = zelRtmGetCounters;
    static constexpr int counters = ZEL_RTM_COUNTERS;

    explicit Client(int service) : ManagerClient(service, ZEL_RTM_SERVICE, 5, 5, zelRtmUpdateRouteSwpAck) { restart(); }
    ~Client() override { zelSwpReceiverDestroy(receiver); }

    // Knows nothing any more of what it was told.
    void restart() {
        zelSwpReceiverDestroy(receiver);
        receiver = zelSwpReceiverCreate(key, 0, 1);
        told.clear();
    }
    bool enter() { return zelRtmV4V6Register(address.service, 0, "client", &handle, &address) == 0; }
    void keep(const Bytes &message) override {
        if (zelIpcHdrGet32(message.data(), typeWord) != ZEL_RTM_MSG_UPDATE)
            others.push_back(message);
        else if (zelSwpReceiverAccept(receiver, message.data(), static_cast<int>(message.size())) == ZEL_SWP_MATCHED)
            takeTold(message);
    }
    void takeTold(const Bytes &message) {
        zelRtmBatch batch;
        std::uint32_t operation;
        zelRtmRoute route;
        ASSERT_EQ(zelRtmParseBatch(message.data(), static_cast<int>(message.size()), &batch), 0);
        EXPECT_EQ(batch.handle, handle);
        while (zelRtmNextRoute(&batch, &operation, &route) == 1) {
            const std::string prefix = text(batch.family, route.prefix, rtm_mask2plen(batch.family, route.mask)) +
                                       (route.vrfId ? " vrf " + std::to_string(route.vrfId) : "");
            told.erase(prefix);
            if (operation == ZEL_RTM_ADD) told[prefix] = text(batch.family, route.hop[0].addr);
        }
    }
    bool hears(const Told &expected) {
        while (told != expected && receive()) continue;
        return told == expected;
    }
    void update(std::uint32_t operation, const zelRtmRoute &route, int family = 0) {
        EXPECT_EQ(zelRtmUpdateRoute(handle, operation, &route, nullptr, &address, queue, 1, family, nullptr, 0), 0);
        settle();
    }
    void add(const zelRtmRoute &route, int family = 0) { update(ZEL_RTM_ADD, route, family); }

    // The first next hop of the answer, "none" without a route, with the prefix length behind: "10.9.9.9/8".
    static std::string answerText(const std::uint8_t *query, int family = 0) {
        zelRtmRoute route;
        std::uint32_t bits = 0;
        return zelRtmParseAnswer(query, &route, &bits) == ZEL_RTM_FOUND
                   ? text(family, route.hop[0].addr, static_cast<int>(bits))
                   : "none";
    }
    using Question = decltype(zelRtmRouteLookupIPv4);
    std::string lookUp(const char *what, int exactBits = -1, int family = 0, std::uint32_t vrf = 0,
                       Question *question = zelRtmRouteLookupIPv4) {
        Bytes query = makeQuery(what, exactBits, family);
        EXPECT_EQ(question(handle, 1, &address, vrf, query.data()), 0);
        return answerText(query.data(), family);
    }

    zelSwpReceiver *receiver = nullptr;
    Told told;
};

class Zelrtmd : public ManagerTest<Client> {
protected:
    Zelrtmd() : ManagerTest("RTM(76/0) is ready", {"--spawn", "RTM zelrtmd --max-clients 3"}) {}
};

TEST_F(Zelrtmd, registersNamedClientsWhileThereIsRoomAndShowsThem) {
    const std::uint32_t before = a->handle;
    EXPECT_TRUE(a->enter());
    EXPECT_TRUE(a->handle == before && a->handle != b->handle);
    std::uint32_t handle = 5;
    for (const char *name : {"", "tab\there"}) EXPECT_EQ(zelRtmRegister(1, 0, name, &handle, &a->address), 1);
    EXPECT_EQ(handle, 5u);
    EXPECT_EQ(zelRtmRegister_vrf(1, 7, "third", &handle, &a->address), 0);
    EXPECT_EQ(zelRtmRegisterNonRtProtoClient(1, 0, "fourth", &handle, &a->address), 1);

    EXPECT_EQ(zelRtmDeRegisterClientQualifier(handle, 1, 2, &a->address), 1);
    for (std::uint32_t value = 1; value <= ZEL_RTM_MAX_CLIENT_FACTS; ++value)
        EXPECT_EQ(zelRtmRegisterClientQualifier(handle, 1, value, &a->address), value == ZEL_RTM_MAX_CLIENT_FACTS);
    EXPECT_EQ(zelRtmDeRegisterClientQualifier(handle, 1, 2, &a->address), 0);
    std::uint32_t cursor = 0;
    zelRtmClient client;
    for (const char *name : {"client", "client", "third"}) {
        ASSERT_EQ(zelRtmNextClient(&a->address, &cursor, &client), 1);
        EXPECT_STREQ(client.name, name);
    }
    EXPECT_TRUE(client.handle == handle && client.receiveQueue == zel_getQueueId(61, 0, 1));
    ASSERT_EQ(client.nFacts, ZEL_RTM_MAX_CLIENT_FACTS - 1u);
    const zelRtmClientFact &vrf = client.facts[0], &qualifier = client.facts[2];
    EXPECT_TRUE(vrf.what == ZEL_RTM_FACT_VRF && vrf.first == 7);
    EXPECT_TRUE(qualifier.what == ZEL_RTM_FACT_QUALIFIER && qualifier.first == 1 && qualifier.second == 3);
    EXPECT_EQ(zelRtmNextClient(&a->address, &cursor, &client), 0);

    EXPECT_EQ(zelRtmDeregister(handle, &b->address), 1) << "only a client's own endpoint speaks for it";
    for (int result : {0, 1}) EXPECT_EQ(zelRtmDeregister(handle, &a->address), result);
    EXPECT_EQ(counter(ZEL_RTM_COUNT_CLIENTS), 2u);
    EXPECT_EQ(zelRtmSendRegister(26, 0, "one-way", &a->address), 0);
    const Bytes answer = a->next(ZEL_RTM_MSG_REGISTER_ONE_WAY);
    ASSERT_FALSE(answer.empty());
    EXPECT_EQ(zelIpcHdrGet32(answer.data(), statusWord), 0u);
    EXPECT_NE(zelIpcHdrGet32(answer.data(), handleWord), 0u);
}

TEST_F(Zelrtmd, prefersTheNearerOfSeveralClientsAndForgetsWithThem) {
    const zelRtmRoute wide = makeRoute("10.0.0.0", 8, "1.1.1.1"), narrow = makeRoute("10.1.0.0", 16, "2.2.2.2");
    a->add(wide);
    a->add(narrow);
    EXPECT_EQ(b->lookUp("10.1.2.3"), "2.2.2.2/16");
    EXPECT_EQ(b->lookUp("10.2.2.3"), "1.1.1.1/8");
    EXPECT_EQ(b->lookUp("10.1.0.0", 16), "2.2.2.2/16");
    EXPECT_EQ(b->lookUp("10.1.0.0", 15) + b->lookUp("11.0.0.1"), "nonenone");

    zelRtmRoute other = makeRoute("10.1.0.0", 16, "3.3.3.3");
    other.distance = 50;
    b->add(other);
    EXPECT_EQ(a->lookUp("10.1.2.3"), "3.3.3.3/16");
    EXPECT_EQ(counter(ZEL_RTM_COUNT_ROUTES), 3u);
    EXPECT_EQ(counter(ZEL_RTM_COUNT_PREFIXES), 2u);
    other.distance = narrow.distance;
    other.metric = 9;
    b->add(other);
    EXPECT_EQ(a->lookUp("10.1.2.3"), "2.2.2.2/16");
    for (std::uint64_t unknown : {0u, 1u}) {
        a->update(ZEL_RTM_DELETE, narrow);
        EXPECT_EQ(counter(ZEL_RTM_COUNT_UNKNOWN_DELETES), unknown);
        EXPECT_EQ(a->lookUp("10.1.2.3"), "3.3.3.3/16");
    }
    EXPECT_EQ(zelRtmDeregister(b->handle, &b->address), 0);
    b->add(other);  // under a handle that is no more
    EXPECT_EQ(counter(ZEL_RTM_COUNT_REFUSED), 1u);
    EXPECT_EQ(a->lookUp("10.1.2.3"), "1.1.1.1/8");
}

TEST_F(Zelrtmd, doesNotAcknowledgeAStreamOfAClientOfItsPredecessor) {
    b->handle += 256;
    const zelRtmRoute route = makeRoute("10.0.0.0", 8, "1.1.1.1");
    EXPECT_EQ(zelRtmUpdateRoute(b->handle, 1, &route, nullptr, &b->address, b->queue, 1, 0, nullptr, 0), 0);
    EXPECT_TRUE(b->enter());
    EXPECT_EQ(counter(ZEL_RTM_COUNT_REFUSED), 1u);
    EXPECT_EQ(zelIpcGetNumMsgs(b->key | 1), 0);
}

TEST_F(Zelrtmd, keepsFamiliesAndVrfsApart) {
    a->add(makeRoute("2001:db8::", 32, "2001:db8::1", 2), 2);
    a->add(makeRoute("10.0.0.0", 8, "1.1.1.1"));
    a->add(makeRoute("10.0.0.0", 8, "9.9.9.9"), 1);
    a->add(makeRoute("10.0.0.0", 8, "5.5.5.5", 0, 5));
    EXPECT_EQ(counter(ZEL_RTM_COUNT_TABLES), 4u);
    const auto all = [&] {
        return a->lookUp("10.1.1.1") + " " + a->lookUp("10.1.1.1", -1, 1) + " " + a->lookUp("2001:db8::7", -1, 2) +
               " " + a->lookUp("10.1.1.1", -1, 0, 5);
    };
    EXPECT_EQ(all(), "1.1.1.1/8 9.9.9.9/8 2001:db8::1/32 5.5.5.5/8");
    EXPECT_EQ(zelRtmFlushVRFRoutesAFSwp(a->handle, &a->address, a->queue, 5, 0), 0);
    a->settle();
    EXPECT_EQ(all(), "1.1.1.1/8 9.9.9.9/8 2001:db8::1/32 none");
    EXPECT_EQ(zelRtmFlushRoutesAFSwp(a->handle, &a->address, a->queue, 1), 0);
    EXPECT_EQ(zelRtmFlushRoutesSwp(b->handle, &b->address, b->queue), 0);  // not b's to flush
    a->settle();
    b->settle();
    EXPECT_EQ(all(), "1.1.1.1/8 none 2001:db8::1/32 none");
    EXPECT_EQ(zelRtmDeregisterAddrFamily(a->handle, 2, &a->address), 0);
    EXPECT_EQ(all(), "1.1.1.1/8 none none none");
    EXPECT_EQ(zelRtmFlushRoutes(a->handle, &a->address), 0);
    EXPECT_EQ(all(), "none none none none");
}

TEST_F(Zelrtmd, followsNextHopsUntilOneHasAnInterface) {
    zelRtmRoute far = makeRoute("10.0.0.0", 8, "20.0.0.1"), middle = makeRoute("20.0.0.0", 8, "30.0.0.1"),
                loop = makeRoute("40.0.0.0", 8, "40.1.1.1");
    far.hop[0].ifIndex = middle.hop[0].ifIndex = loop.hop[0].ifIndex = 0;
    std::uint8_t tlv[] = {1, 2, 3, 4, 5};
    far.tlv = tlv;
    far.tlvLen = sizeof tlv;
    for (const zelRtmRoute &route : {far, middle, loop}) a->add(route);
    EXPECT_EQ(a->lookUp("10.1.1.1", -1, 0, 0, zelRtmRecurRouteLookupIPv4), "none");  // nothing leads to 30.0.0.1
    EXPECT_EQ(a->lookUp("40.1.1.1", -1, 0, 0, zelRtmRecurRouteLookupIPv4), "none");
    a->add(makeRoute("30.0.0.0", 24, "30.0.0.254"));
    Bytes query = makeQuery("10.1.1.1");
    std::uint8_t area[ZEL_RTM_TLV_AREA];
    EXPECT_EQ(zelRtmRecurRouteLookupIPv4Tlv(a->handle, 1, &a->address, 0, query.data(), area), 0);
    EXPECT_EQ(Client::answerText(query.data()), "30.0.0.254/24");
    EXPECT_EQ(area[1], sizeof tlv);
    EXPECT_EQ(memcmp(area + 2, tlv, sizeof tlv), 0);
}

TEST_F(Zelrtmd, answersPollsAtOnceAndWhenTheAnswerChanges) {
    const auto poll = [&](std::uint32_t subcommand, const Bytes &query) {
        EXPECT_EQ(zelRtmPollRouteLookupIPv4(a->handle, subcommand, &a->address, a->queue, 0, query.data()), 0);
        a->settle();
    };
    const auto pollMany = [&](std::uint32_t subcommand, const Bytes &queries) {
        const int count = static_cast<int>(queries.size()) / ZEL_RTM_QUERY_HEAD;
        EXPECT_EQ(
            zelRtmPollMultiRouteLookupIPv4(a->handle, subcommand, &a->address, a->queue, 0, count, queries.data()), 0);
        a->settle();
    };
    const auto hears = [&](std::uint32_t type, const char *expected) {
        const Bytes answer = a->next(type);
        ASSERT_EQ(answer.size(), 2048u);
        EXPECT_EQ(Client::answerText(answer.data() + pollQuery), expected);
        EXPECT_EQ(zelIpcHdrGet32(answer.data(), indexWord), std::string(expected) == "1.1.1.1/8" ? 1u : 0u);
    };
    const Bytes query = makeQuery("10.1.1.1"), exact = makeQuery("11.0.0.0", 8);
    const Bytes second(exact.begin(), exact.begin() + ZEL_RTM_QUERY_HEAD);
    Bytes two(query.begin(), query.begin() + ZEL_RTM_QUERY_HEAD);
    two.insert(two.end(), second.begin(), second.end());
    poll(ZEL_RTM_POLL_START, query);
    hears(ZEL_RTM_MSG_POLL, "none");
    b->add(makeRoute("10.0.0.0", 8, "2.2.2.2"));
    hears(ZEL_RTM_MSG_POLL, "2.2.2.2/8");
    b->add(makeRoute("11.0.0.0", 8, "1.1.1.1"));  // changes nothing for the poll
    poll(ZEL_RTM_POLL_STOP, query);
    b->add(makeRoute("10.1.0.0", 16, "3.3.3.3"));
    EXPECT_EQ(counter(ZEL_RTM_COUNT_POLL_ANSWERS), 2u);

    pollMany(ZEL_RTM_POLL_START, two);
    hears(ZEL_RTM_MSG_MULTI_POLL, "3.3.3.3/16");
    hears(ZEL_RTM_MSG_MULTI_POLL, "1.1.1.1/8");
    pollMany(ZEL_RTM_POLL_STOP, second);
    EXPECT_EQ(zelRtmFlushRoutes(b->handle, &b->address), 0);
    hears(ZEL_RTM_MSG_MULTI_POLL, "none");
    EXPECT_EQ(zelRtmFlushPollerRoutesSwp(a->handle, &a->address, a->queue), 0);
    a->settle();
    b->add(makeRoute("10.0.0.0", 8, "2.2.2.2"));
    EXPECT_EQ(counter(ZEL_RTM_COUNT_POLL_ANSWERS), 5u);
}

TEST_F(Zelrtmd, asksTheOwnersOfClearedRoutesUntilTheyAcknowledge) {
    b->add(makeRoute("10.0.0.0", 8, "1.1.1.1"));
    EXPECT_EQ(zelRtmFibClear(a->handle, 0, &a->address), 0);
    EXPECT_EQ(a->lookUp("10.1.1.1"), "none");
    std::uint32_t handle, vrf, sequence;
    pollfd news{Key_getSocketFd(b->key | 1), POLLIN, 0};
    for (int time = 0; time < 2; ++time) {
        // Clears of other tables meanwhile do not hold it up.
        EXPECT_TRUE(
            eventually(10, [&] { return zelRtmFibClear(a->handle, 9, &a->address) == 0 && poll(&news, 1, 100) == 1; }));
        const Bytes request = b->next(ZEL_RTM_MSG_CLEAR);
        ASSERT_EQ(zelRtmParseClear(request.data(), static_cast<int>(request.size()), &handle, &vrf, &sequence), 0);
        EXPECT_EQ(handle, b->handle);
    }
    for (std::uint32_t wrong : {1u, 0u, 0u}) {
        EXPECT_EQ(zelRtmClearIpRouteSwpAck(handle, &b->address, b->queue, sequence + wrong), 0);
        b->settle();
    }
    EXPECT_EQ(counter(ZEL_RTM_COUNT_CLEAR_ACKS), 1u);
    EXPECT_EQ(counter(ZEL_RTM_COUNT_REFUSED), 2u);
    EXPECT_TRUE(a->others.empty());
}

TEST_F(Zelrtmd, tellsATargetTheRoutesItAccepts) {
    const std::uint32_t bgp = 61, ospf = 60;
    EXPECT_EQ(zelRtmRedistTgtClientAccept_opts(b->handle, &b->address, &bgp), 1) << "nobody knows where b is";
    ASSERT_EQ(zelTmeSetTaskEntry(60, 0, ZEL_TME_HERE, zel_sysGetIpAddr()), 0);
    Told expected{{"10.0.0.0/8 vrf 5", "5.5.5.5"}};
    const zelRtmRoute changed = makeRoute("10.0.1.0", 24, "7.7.7.7");
    for (int i = 0; i < 2000; ++i) {  // more than the windows that the manager queues
        const std::string prefix = "10." + std::to_string(i / 250) + "." + std::to_string(i % 250) + ".0";
        const zelRtmRoute route = makeRoute(prefix.c_str(), 24, "1.1.1.1");
        zelRtmUpdateRoute(a->handle, ZEL_RTM_ADD, &route, &a->pending, &a->address, a->queue, 1, 0, nullptr, 0);
        expected[prefix + "/24"] = "1.1.1.1";
    }
    zelRtmUpdateRoute(a->handle, ZEL_RTM_ADD, nullptr, &a->pending, &a->address, a->queue, 1, 0, nullptr, 0);
    a->add(makeRoute("10.0.0.0", 8, "5.5.5.5", 0, 5));
    a->add(makeRoute("2001:db8::", 32, "2001:db8::1", 2), 2);
    zelRtmRoute own = makeRoute("10.0.0.0", 24, "9.9.9.9");
    own.distance = 1;
    b->add(own);
    for (const std::uint32_t &type : {ospf, bgp})
        EXPECT_EQ(zelRtmRedistTgtClientAccept_opts(b->handle, &b->address, &type), 0);
    ASSERT_TRUE(b->hears(expected)) << "what is there, but its own";

    a->add(changed);
    expected["10.0.1.0/24"] = "7.7.7.7";
    a->update(ZEL_RTM_DELETE, makeRoute("10.0.2.0", 24, "1.1.1.1"));
    expected.erase("10.0.2.0/24");
    EXPECT_EQ(zelRtmRedistTgtClientAcceptAF_opts(b->handle, &b->address, 2, &bgp), 0);
    expected["2001:db8::/32"] = "2001:db8::1";
    ASSERT_TRUE(b->hears(expected)) << "what changes";
    b->restart();
    a->add(changed);
    ASSERT_TRUE(b->hears(expected)) << "everything on a new stream";
    b->told.clear();
    EXPECT_EQ(zelRtmRedistRestart(b->handle, &b->address, b->queue, 5), 0);
    ASSERT_TRUE(b->hears({{"10.0.0.0/8 vrf 5", "5.5.5.5"}}));

    b->told = expected;
    for (int result : {0, 1}) EXPECT_EQ(zelRtmRedistTgtClientRejectAF_opts(b->handle, &b->address, 2, &bgp), result);
    EXPECT_EQ(zelRtmRedistTgtClientMsg_opts(b->handle, 9, &b->address, &bgp), 1);
    EXPECT_EQ(zelRtmFlushVRFRoutesAFSwp(a->handle, &a->address, a->queue, 5, 0), 0);
    a->settle();
    expected.erase("2001:db8::/32");
    expected.erase("10.0.0.0/8 vrf 5");
    ASSERT_TRUE(b->hears(expected));
    EXPECT_EQ(zelRtmRedistDeleteRules(b->handle, &b->address, b->queue), 0);
    ASSERT_TRUE(b->hears({}));
    const std::uint64_t told = counter(ZEL_RTM_COUNT_REDISTRIBUTED);
    a->add(makeRoute("10.0.1.0", 24, "2.2.2.2"));
    EXPECT_EQ(counter(ZEL_RTM_COUNT_REDISTRIBUTED), told);

    if (!isFullRun()) return;
    const auto queues = [] {
        int count = 0;
        for (std::uint32_t number = 1; number <= ZEL_SWP_MAX_QUEUES; ++number) count += zelSwpIsQueueAlive(number) == 1;
        return count;
    };
    EXPECT_EQ(zelRtmRedistTgtClientAccept_opts(b->handle, &b->address, &bgp), 0);
    EXPECT_TRUE(eventually(20, [&] { return queues() == 2; })) << "whoever is silent is left alone";
}

// Each page here ends behind the prefix that was read last, which goes before the next page is asked for.
TEST_F(Zelrtmd, dumpsGoOnBehindWhatIsNoLongerThere) {
    const std::vector<zelRtmRoute> routes{makeRoute("10.0.0.0", 8, "1.1.1.1"), makeRoute("10.0.0.0", 9, "1.1.1.1"),
                                          makeRoute("11.0.0.0", 8, "1.1.1.1")};
    for (const zelRtmRoute &route : routes) a->add(route);
    const auto dump = std::make_unique<zelRtmDump>();
    zelRtmDumpBegin(dump.get(), 0, 0);
    std::uint32_t handle;
    zelRtmRoute route;
    for (const zelRtmRoute &expected : routes) {
        ASSERT_EQ(zelRtmDumpNext(dump.get(), &b->address, &handle, &route), 1);
        EXPECT_EQ(memcmp(route.prefix, expected.prefix, 32), 0);
        a->update(ZEL_RTM_DELETE, route);
        dump->left = 0;
    }
    EXPECT_EQ(zelRtmDumpNext(dump.get(), &b->address, &handle, &route), 0);
}

TEST_F(Zelrtmd, outlivesRandomMessagesAndDoesNotTalkToItself) {
    auto random = seeded();
    const Stranger stranger;
    const int rounds = isFullRun() ? 100000 : 4000;
    for (int i = 0; i < rounds; ++i) {
        Bytes message = Stranger::anything(random, 0x3200 + random() % 0x100, a->key | 2);
        if (message.size() > 148) {  // queue 1, first message of a stream, a known handle
            zelIpcHdrSet32(message.data(), 60, random() % 2 ? 1 : a->handle);
            zelIpcHdrSet32(message.data(), 64, 0);
            zelIpcHdrSet32(message.data(), 68, 0);
            zelIpcHdrSet32(message.data(), 76, random());
            zelIpcHdrSet32(message.data(), 132, a->handle);
            zelIpcHdrSet32(message.data(), 136, a->handle);
        }
        stranger.send(ZEL_RTM_SERVICE, i % 8 ? 1 : 2, message);
        if (i % 50 == 0) counter(ZEL_RTM_COUNT_CLIENTS);  // answered: it keeps up, nothing is dropped unread
    }
    EXPECT_GT(counter(ZEL_RTM_COUNT_MALFORMED) + counter(ZEL_RTM_COUNT_REFUSED), 0u);
    for (const std::uint32_t type : {0x32aau, ZEL_RTM_MSG_UPDATE + 0u}) {
        const std::uint64_t before = counter(ZEL_RTM_COUNT_REFUSED) + counter(ZEL_RTM_COUNT_GAPS);
        Bytes inItsName(200);
        Stranger::address(inItsName, type, zel_getQueueId(ZEL_RTM_SERVICE, 0, 1));
        zelIpcHdrSet32(inItsName.data(), 52, zel_sysGetIpAddr());
        zelIpcHdrSet32(inItsName.data(), 56, zel_getQueueId(ZEL_RTM_SERVICE, 0, 1));
        zelIpcHdrSet32(inItsName.data(), 60, 2);
        zelIpcHdrSet32(inItsName.data(), 68, 7);
        stranger.send(ZEL_RTM_SERVICE, 1, inItsName);
        for (int i = 0; i < 100; ++i) counter(ZEL_RTM_COUNT_CLIENTS);
        EXPECT_EQ(counter(ZEL_RTM_COUNT_REFUSED) + counter(ZEL_RTM_COUNT_GAPS), before + 1);
    }
    EXPECT_TRUE(a->enter());
    zelSwpQueueFlush(a->queue);
    a->add(makeRoute("10.0.0.0", 8, "1.1.1.1"));
    EXPECT_EQ(a->lookUp("10.1.1.1"), "1.1.1.1/8");
}

}  // namespace
