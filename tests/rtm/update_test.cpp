// Batching of route updates: when a batch leaves, what a caller gets back, and whose every buffer is.
#include "tests/rtm/client.h"

namespace zel::test {
namespace {

constexpr std::uint32_t handle = 77;
constexpr std::uint32_t vrf = 3;
constexpr unsigned fillWord = 8, routesWord = 140, groupWord = 128;

class Updates : public ManagerClient {
protected:
    Updates() : ManagerClient(ZEL_RTM_SERVICE) {
        makeQueue(3, 8);
        route.nNextHops = 1;
        route.hop[0].addr[0] = 10;
    }
    ~Updates() override {
        if (pending) zelRtmDropPending(&pending, queue, nullptr, vrf);
    }

    int update(std::uint32_t operation = ZEL_RTM_ADD, int family = 0) {
        return zelRtmUpdateRoute(handle, operation, &route, &pending, &ipc, queue, 1, family, list, vrf);
    }
    int push() { return zelRtmUpdateRoute(handle, ZEL_RTM_DELETE, nullptr, &pending, &ipc, queue, 1, 0, list, vrf); }
    std::uint32_t fill() const { return zelIpcHdrGet32(pending, fillWord); }

    zelSwpQList *list = nullptr;
    zelRtmRoute route{};
};

TEST_F(Updates, aBatchLeavesWithTheRouteThatCrossesTheThreshold) {
    const struct {
        int family;
        unsigned hops;
        unsigned routes;  // that a batch takes before it leaves
    } rows[] = {{0, 1, 78}, {0, 64, 5}, {1, 0, 104}, {2, 1, 51}, {2, 64, 4}};
    for (const auto &[family, hops, routes] : rows) {
        zelSwpQueueFlush(queue);
        network.sent.clear();
        route.nNextHops = static_cast<std::uint16_t>(hops);
        for (unsigned i = 1; i <= routes; ++i) {
            ASSERT_TRUE(network.sent.empty());
            ASSERT_EQ(update(ZEL_RTM_ADD, family), 0);
            ASSERT_EQ(pending == nullptr, i == routes) << i;
        }
        ASSERT_EQ(network.sent.size(), 1u);
        const Bytes &sent = network.sent[0].bytes;
        EXPECT_EQ(zelIpcHdrGet32(sent.data(), routesWord), routes);
        const std::size_t perRoute = (family == 2 ? 84u : 60u) + hops * (family == 2 ? 28u : 20u);
        EXPECT_EQ(sent.size(), 148 + routes * perRoute);
    }
}

// A batch one byte below the threshold still takes the largest route there is.
TEST_F(Updates, theLargestRouteFitsEveryPendingBatch) {
    static const std::uint8_t tlv[ZEL_RTM_MAX_TLV] = {1, 2, 3};
    route.tlv = tlv;
    for (int family : {0, 2}) {
        const std::uint32_t threshold = family == 2 ? 5802 : 6338, perRoute = family == 2 ? 84 : 60;
        route.nNextHops = 0;
        do {
            const std::uint32_t left = threshold - 1 - (pending ? fill() : 148);
            route.tlvLen = static_cast<std::uint16_t>(left < perRoute + ZEL_RTM_MAX_TLV ? left - perRoute : 100);
            ASSERT_EQ(update(ZEL_RTM_ADD, family), 0);
        } while (fill() != threshold - 1);
        route.nNextHops = ZEL_RTM_MAX_NEXT_HOPS;
        route.tlvLen = ZEL_RTM_MAX_TLV;
        network.sent.clear();
        ASSERT_EQ(update(ZEL_RTM_ADD, family), 0);
        ASSERT_EQ(network.sent.size(), 1u);
        EXPECT_EQ(network.sent[0].bytes.size(), 8191u);
        EXPECT_EQ(pending, nullptr);
    }
}

TEST_F(Updates, whatIsWrongWithACallLeavesTheBatchAlone) {
    ASSERT_EQ(update(), 0);
    const std::uint32_t before = fill();
    for (std::uint32_t operation : {0u, 3u}) {
        EXPECT_EQ(update(operation), 1);
        EXPECT_EQ(zelRtmUpdateRoute(handle, operation, nullptr, &pending, &ipc, queue, 1, 0, nullptr, vrf), 1);
    }
    route.nNextHops = ZEL_RTM_MAX_NEXT_HOPS + 1;
    EXPECT_EQ(update(), 1);
    route.nNextHops = 1;
    route.tlvLen = ZEL_RTM_MAX_TLV + 1;
    EXPECT_EQ(update(), 1);
    route.tlvLen = 0;
    EXPECT_EQ(update(ZEL_RTM_ADD, 3), 1);
    EXPECT_EQ(update(ZEL_RTM_ADD, 2), 1);  // a family that the batch is not of
    ASSERT_NE(pending, nullptr);
    EXPECT_EQ(fill(), before);
    EXPECT_TRUE(network.sent.empty());
    EXPECT_EQ(zelRtmUpdateRoute(handle, ZEL_RTM_ADD, &route, nullptr, &ipc, 900, 1, 0, nullptr, vrf), 1);  // no queue
}

TEST_F(Updates, aFullQueueLosesTheBatchAndSaysSo) {
    EXPECT_EQ(push(), 0);
    EXPECT_TRUE(network.sent.empty()) << "nothing held, nothing to do";
    for (int i = 0; i < 3; ++i) {
        ASSERT_EQ(update(), 0);
        ASSERT_EQ(push(), 0);
    }
    ASSERT_EQ(update(), 0);
    EXPECT_EQ(push(), 2);
    EXPECT_NE(zelRtmUpdateRouteSwpAck(queue), 0) << "nothing is acknowledged";
    EXPECT_EQ(pending, nullptr);
    EXPECT_EQ(buffersOut, 3);
    zelSwpQueueFlush(queue);
    EXPECT_EQ(buffersOut, 0);
}

TEST_F(Updates, routesThatLeadNowhereAreCountedWhileDebugging) {
    for (std::uint32_t mask : {0u, 0x1001u}) {
        rtmapidebug = mask;
        route.hop[0].addr[0] = 0;
        for (std::uint32_t operation : {ZEL_RTM_ADD, ZEL_RTM_DELETE}) EXPECT_EQ(update(operation), 0);
        route.hop[0].ifIndex = 1;
        EXPECT_EQ(update(), 0);
        route.hop[0].ifIndex = 0;
        EXPECT_EQ(rtm_api_bad_route_counter, mask & 1);
    }
    rtmapidebug = 0;
}

TEST_F(Updates, aListCarriesABatchOnTheQueueOfItsVrf) {
    std::uint32_t direct = queue;
    queue = ZEL_RTM_QUEUE_LIST;
    EXPECT_EQ(update(9), 1);
    EXPECT_EQ(update(), 1);  // no list
    ASSERT_EQ(zelSwpQListCreate(
                  service, 0, ZEL_RTM_SERVICE, 0, 4, 8, 1, 1, [](void *, int) {}, 2, 8, 1, &list),
              0);
    EXPECT_EQ(update(), 1);  // the group is not bound
    EXPECT_EQ(pending, nullptr);
    ASSERT_EQ(zelSWPQListAddMsgGroup(list, 1), 0);
    ASSERT_EQ(zelSWPQListAddMsgGroup(list, vrf), 0);
    std::uint32_t carrier = 0;
    ASSERT_EQ(zelSWPQListGetQHandle(list, vrf, &carrier), 0);
    swpFifoQueue[carrier] = hooks;
    ASSERT_EQ(update(), 0);
    EXPECT_EQ(buffersOut, 1);
    ASSERT_EQ(push(), 0);
    ASSERT_EQ(network.sent.size(), 1u);
    EXPECT_EQ(zelIpcHdrGet32(network.sent[0].bytes.data(), groupWord), vrf);
    EXPECT_EQ(zelSwpQListGetQLen(list, 1), 1);
    EXPECT_EQ(zelSwpQListRemove(list), 0);
    queue = direct;
}

}  // namespace
}  // namespace zel::test
