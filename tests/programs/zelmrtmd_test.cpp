// The multicast route table manager as a process, seen by clients whose endpoints this process owns.
#include "tests/programs/manager_client.h"
#include "zel/kernel.h"
#include "zel/mrtm.h"

namespace {

using namespace zel::test;

constexpr std::uint32_t vrf = 3;

// Group 239.0.0.`group`, outgoing interfaces at these positions.
zelMrtmRoute makeRoute(std::uint8_t group, std::vector<int> positions, std::uint32_t itsVrf = vrf) {
    zelMrtmRoute route{};
    route.group[0] = 239;
    route.group[3] = group;
    route.source[0] = 10;
    route.listKind = ZEL_MRTM_LISTS_OF_ALL;
    route.vrfId = itsVrf;
    for (const int position : positions)
        route.lists[0][position / 8] |= static_cast<std::uint8_t>(0x80 >> position % 8);
    return route;
}

class Client : public ManagerClient {
public:
    static constexpr auto getCounters = zelMrtmGetCounters;
    static constexpr int counters = ZEL_MRTM_COUNTERS;

    explicit Client(int service) : ManagerClient(service, ZEL_MRTM_SERVICE, 1, 2, zelMrtmUpdateRouteSwpAck) {
        EXPECT_EQ(zelTmeSetTaskEntry(service, 0, ZEL_TME_HERE, zel_sysGetIpAddr()), 0);
    }
    bool enter() { return zelMrtmRegister(8, 1, "client", &handle, &address) == 0; }
    void update(std::uint32_t operation, const zelMrtmRoute &route, int family = ZEL_MRTM_IPV4) {
        Bytes record(ZEL_MRTM_ROUTE_LENGTH_V6);
        zelMrtmWriteRoute(family, &route, record.data());
        EXPECT_EQ(zelMrtmUpdateRouteIPv4(family, handle, operation, record.data(), &pending, &address, queue), 0);
    }
    void push() {
        EXPECT_EQ(zelMrtmUpdateRouteIPv4(1, handle, ZEL_MRTM_ADD, nullptr, &pending, &address, queue), 0);
        settle();
    }
    void addNow(const zelMrtmRoute &route, int family = ZEL_MRTM_IPV4) {
        update(ZEL_MRTM_ADD, route, family);
        push();
    }
    // The positions that the manager has for a route's list, "none" without such a route.
    std::string lookUp(const zelMrtmRoute &route, int family = ZEL_MRTM_IPV4, std::uint32_t list = 0) {
        zelMrtmQuery query{handle, family, route.vrfId, {}, {}, list};
        std::copy_n(route.group, 16, query.group);
        std::copy_n(route.source, 16, query.source);
        Bytes response(ZEL_MRTM_QUERY_ANSWER_LENGTH);
        std::uint32_t map[IFM_IFLIST_MAP_WORDS];
        if (mrtmBuildAndSendQueryMsg(&query, &address, response.data()) != 0) return "none";
        EXPECT_EQ(mrtmFetchBitmapFromQueryResponse(response.data(), map), 0);
        std::string positions;
        for (unsigned position = 0; position < IFM_IFLIST_POSITIONS; ++position)
            if (map[position / 32] & 0x80000000u >> position % 32) positions += std::to_string(position) + " ";
        return positions;
    }
};

class Zelmrtmd : public ManagerTest<Client> {
protected:
    Zelmrtmd() : ManagerTest("MRTM(139/0) is ready", {"--respawn", "--spawn", "MRTM zelmrtmd --max-clients 3"}) {}
};

TEST_F(Zelmrtmd, registersNamedClientsWhileThereIsRoom) {
    const std::uint32_t before = a->handle;
    EXPECT_TRUE(a->enter());
    EXPECT_TRUE(a->handle == before && a->handle != b->handle);
    std::uint32_t handle = 5;
    for (const char *name : {"", "tab\there"}) EXPECT_EQ(zelMrtmRegister(1, 0, name, &handle, &a->address), 1);
    EXPECT_EQ(handle, 5u);
    EXPECT_EQ(zelMrtmResAgtRegisterAsyncRspQ(1, 0, "agent", &a->address), 0);
    Bytes answer(256);
    const int length = zelIpcRecvOnRspQ(a->key, answer.data(), 256, 5, 0, 0);
    EXPECT_EQ(zelMrtmReadRegistrationAnswer(answer.data(), length, &handle), 0);
    EXPECT_EQ(zelMrtmAclRegister(1, 0, "fourth", &handle, &a->address), 1);
    EXPECT_EQ(zelMrtmDeregister(handle, &b->address), 1) << "only a client's own endpoint speaks for it";
    for (int result : {0, 1}) EXPECT_EQ(zelMrtmDeregister(handle, &a->address), result);
    EXPECT_EQ(zelMrtmRegisterAsync(1, 0, "a name of 20 letters", &handle, &a->address), 1) << "blanks";
    EXPECT_EQ(zelMrtmRegisterAsync(1, 0, "a-name-of-20-letters", &handle, &a->address), 0);
    EXPECT_EQ(counter(ZEL_MRTM_COUNT_CLIENTS), 3u);
}

TEST_F(Zelmrtmd, keepsRoutesByFamilyVrfAndClientAndAnswersForTheirLists) {
    const zelMrtmRoute one = makeRoute(1, {0, 714, 4939}), other = makeRoute(1, {7}, 9);
    for (std::uint8_t group = 1; group <= 4; ++group) a->update(ZEL_MRTM_ADD, makeRoute(group, {group}));
    a->update(ZEL_MRTM_ADD, one);  // the fifth: the batch leaves
    EXPECT_EQ(a->pending, nullptr);
    a->settle();
    a->addNow(other);
    a->addNow(makeRoute(1, {33}), ZEL_MRTM_IPV6);
    b->addNow(makeRoute(1, {1, 2}));
    EXPECT_EQ(a->lookUp(one) + a->lookUp(other) + a->lookUp(one, ZEL_MRTM_IPV6), "0 714 4939 7 33 ");
    EXPECT_EQ(a->lookUp(one, ZEL_MRTM_IPV4, 1) + a->lookUp(makeRoute(5, {})), "none");
    EXPECT_EQ(counter(ZEL_MRTM_COUNT_ROUTES), 7u);
    EXPECT_EQ(counter(ZEL_MRTM_COUNT_REPLACED), 1u);
    EXPECT_EQ(counter(ZEL_MRTM_COUNT_BATCHES), 4u);

    a->update(ZEL_MRTM_CHANGE, makeRoute(1, {5, 6}));
    a->update(ZEL_MRTM_CHANGE, makeRoute(99, {}));  // which is not there
    a->update(ZEL_MRTM_DELETE, other);
    a->push();
    EXPECT_EQ(a->lookUp(one) + a->lookUp(other), "5 6 none");
    EXPECT_EQ(counter(ZEL_MRTM_COUNT_UNKNOWN), 1u);
    EXPECT_EQ(zelMrtmFlushRoutesSwp(a->handle, &a->address, a->queue), 0);
    a->settle();
    EXPECT_EQ(b->lookUp(one) + b->lookUp(one, ZEL_MRTM_IPV6), "1 2 none");
    EXPECT_EQ(counter(ZEL_MRTM_COUNT_ROUTES), 1u);

    std::uint32_t begun[IFM_VLAN_BITMAP_WORDS] = {}, ended[IFM_VLAN_BITMAP_WORDS] = {};
    for (std::uint32_t vlan : {0u, 100u, 4094u}) ifmVlanIfListAddVlanId(begun, vlan);
    ifmVlanIfListAddVlanId(ended, 100);
    const std::uint32_t *gone[] = {nullptr, ended, begun};
    for (std::uint64_t left : {3u, 2u, 0u}) {
        EXPECT_EQ(zelMrtmKxlSendSpanVlanMsg(a->handle, &a->address, a->queue, begun,
                                            gone[left == 3   ? 0
                                                 : left == 2 ? 1
                                                             : 2]),
                  0);
        a->settle();
        EXPECT_EQ(counter(ZEL_MRTM_COUNT_SPAN_VLANS), left);
    }
}

TEST_F(Zelmrtmd, asksTheOwnersOfClearedRoutesUntilTheyAcknowledge) {
    b->addNow(makeRoute(1, {1}));
    b->addNow(makeRoute(1, {1}), ZEL_MRTM_IPV6);
    EXPECT_EQ(zelMrtmClearSend(ZEL_MRTM_IPV4, a->handle, &a->address, a->queue, vrf), 0);
    a->settle();
    EXPECT_EQ(a->lookUp(makeRoute(1, {})) + a->lookUp(makeRoute(1, {}), ZEL_MRTM_IPV6), "none1 ");
    zelMrtmRequest clear{};
    for (int time = 0; time < 2; ++time) {
        const Bytes request = b->next(ZEL_MRTM_MSG_CLEAR);
        ASSERT_EQ(zelMrtmParseClear(request.data(), static_cast<int>(request.size()), &clear), 0);
        EXPECT_TRUE(clear.handle == b->handle && clear.vrfId == vrf && clear.family == ZEL_MRTM_IPV4);
    }
    for (std::uint32_t wrong : {1u, 0u, 0u}) {
        EXPECT_EQ(zelMrtmClearIpRouteSwpAck(1, b->handle, &b->address, b->queue, clear.sequenceWord + wrong), 0);
        b->settle();
    }
    EXPECT_EQ(counter(ZEL_MRTM_COUNT_CLEAR_ACKS), 1u);
    EXPECT_EQ(counter(ZEL_MRTM_COUNT_REFUSED), 2u);
}

// The manager that comes back knows nobody: the client hears of it, registers again and sends everything again.
TEST_F(Zelmrtmd, startedAnewGetsEverythingAgainFromItsClients) {
    vx2bsd_start(0, 1, 100, 100);
    a->addNow(makeRoute(1, {1}));
    const auto mrtm = zelGetTaskKeyFromServiceAndInst(ZEL_MRTM_SERVICE, 0);
    kill(zelProcIdByKey(static_cast<std::uint32_t>(mrtm)), SIGKILL);
    ASSERT_TRUE(manager.says("MRTM(139/0) is ready", 2));
    const std::uint32_t before = a->handle;
    a->addNow(makeRoute(2, {2}));
    EXPECT_EQ(streamEnded, ZEL_SWP_SEQ_FAILURE);
    zelSwpQueueFlush(a->queue);
    streamEnded = 0;
    a->addNow(makeRoute(2, {2}));  // under the handle of another life
    EXPECT_EQ(streamEnded, ZEL_SWP_NO_RETRANS);
    zelSwpQueueFlush(a->queue);
    streamEnded = 0;
    ASSERT_TRUE(a->enter());
    EXPECT_NE(a->handle, before);
    for (std::uint8_t group = 1; group <= 2; ++group) a->addNow(makeRoute(group, {group}));
    EXPECT_EQ(a->lookUp(makeRoute(1, {})) + a->lookUp(makeRoute(2, {})), "1 2 ");
    EXPECT_EQ(counter(ZEL_MRTM_COUNT_ROUTES), 2u);
}

TEST_F(Zelmrtmd, outlivesRandomMessagesAndDoesNotTalkToItself) {
    auto random = seeded();
    const Stranger stranger;
    const int rounds = isFullRun() ? 100000 : 4000;
    constexpr std::uint32_t types[] = {0x3cf1, 0x3cf2, 0x3cf3, 0x3cf4, 0x3cf6, 0x3cf7, 0x3cfe,
                                       0x3d18, 0x3d19, 0x3d1d, 0x3d35, 0x3d3c, 0x3df0, 0x3caa};
    for (int i = 0; i < rounds; ++i) {
        const std::uint32_t type = types[random() % std::size(types)];
        Bytes message = Stranger::anything(random, type, a->key | 2);
        if (message.size() > 144) {  // queue 1, first message of a stream, a known handle, a plausible batch
            for (unsigned word : {64u, 68u}) zelIpcHdrSet32(message.data(), word, 0);
            // The client keeps its place: a random name with luck would take it.
            const std::uint32_t handle = type == ZEL_MRTM_MSG_DEREGISTER ? a->handle + 1 : a->handle;
            for (unsigned word : {60u, 124u, 128u}) zelIpcHdrSet32(message.data(), word, handle);
            zelIpcHdrSet32(message.data(), 76, random());
            zelIpcHdrSet32(message.data(), 136, static_cast<std::uint32_t>(message.size() / 1340));
            message[140] = static_cast<std::uint8_t>(random() % 2 ? 1 : 3);
            const std::size_t record = message[140] == 1 ? 1340 : 1388;
            if (random() % 2) message.resize(144 + message.size() / 1340 * record);
        }
        stranger.send(ZEL_MRTM_SERVICE, i % 8 ? 1 : 2, message);
        if (i % 50 == 0) counter(ZEL_MRTM_COUNT_CLIENTS);  // answered: it keeps up, nothing is dropped unread
    }
    EXPECT_GT(counter(ZEL_MRTM_COUNT_MALFORMED), 0u);
    EXPECT_GT(counter(ZEL_MRTM_COUNT_REFUSED), 0u);
    ASSERT_TRUE(a->enter());
    zelSwpQueueFlush(a->queue);
    zelMrtmFlushRoutesSwp(a->handle, &a->address, a->queue);
    a->addNow(makeRoute(1, {1}));
    EXPECT_EQ(a->lookUp(makeRoute(1, {})), "1 ");
}

}  // namespace
