// Batching of route updates: when a batch leaves, what a caller gets back, and whose every buffer is.
#include <gtest/gtest.h>

#include <cstdlib>
#include <set>

#include "tests/support/fake_network.h"
#include "zel/ipc.h"
#include "zel/rtm.h"

namespace zel::test {
namespace {

constexpr int service = 61;
constexpr std::uint32_t handle = 77;
constexpr std::uint32_t vrf = 3;
constexpr int batchCapacity = 8192;
constexpr unsigned fillWord = 8, routesWord = 140, groupWord = 128;

// Buffers handed out by a queue's hooks and not returned.
std::set<void *> buffersOut;
void *hookAlloc(std::uint32_t bytes) {
    void *block = malloc(bytes);
    buffersOut.insert(block);
    return block;
}
void hookFree(void *block) {
    EXPECT_EQ(buffersOut.erase(block), 1u);
    free(block);
}

class Updates : public testing::Test {
protected:
    Updates() {
        EXPECT_EQ(zelIpcOpen(service, 0), service << 7);
        EXPECT_EQ(zelTmeSetTaskEntry(ZEL_RTM_SERVICE, 0, ZEL_TME_REMOTE, 0x7f000002), 0);
        queue = makeQueue(3);
        route.nNextHops = 1;
        route.hop[0].addr[0] = 10;
    }
    ~Updates() override {
        if (pending) zelRtmDropPending(&pending, queue, nullptr, vrf);
        zelSwpQueueRemove(queue);
        EXPECT_TRUE(buffersOut.empty());
    }

    static std::uint32_t makeQueue(std::uint32_t capacity) {
        std::uint32_t number = 0;
        EXPECT_EQ(zelSwpQueueCreate(
                      service, 0, ZEL_RTM_SERVICE, 0, capacity, 8, 1, 1, [](void *, int) {}, &number),
                  ZEL_SWP_SUCCESS);
        swpFifoQueue[number] = {hookAlloc, hookFree};
        return number;
    }
    int update(std::uint32_t operation = ZEL_RTM_ADD, int family = 0) {
        return zelRtmUpdateRoute(handle, operation, &route, &pending, &ipc, queue, 1, family, list, vrf);
    }
    int push() { return zelRtmUpdateRoute(handle, ZEL_RTM_DELETE, nullptr, &pending, &ipc, queue, 1, 0, list, vrf); }
    std::uint32_t fill() const { return zelIpcHdrGet32(pending, fillWord); }

    FakeNetwork network;
    const zelIpcAddr ipc{service, service << 7, 0, 0, 0};
    std::uint32_t queue = 0;
    zelSwpQList *list = nullptr;
    zelRtmRoute route{};
    void *pending = nullptr;
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

// A batch just below the threshold still takes the largest route there is.
TEST_F(Updates, theLargestRouteFitsEveryPendingBatch) {
    for (int family : {0, 2}) {
        const std::uint32_t threshold = family == 2 ? 5802 : 6338;
        const std::uint32_t perRoute = family == 2 ? 84 : 60;
        route.nNextHops = 0;
        route.tlvLen = 0;
        while (!pending || fill() + perRoute < threshold) ASSERT_EQ(update(ZEL_RTM_ADD, family), 0);
        std::uint8_t tlv[ZEL_RTM_MAX_TLV] = {1, 2, 3};
        route.tlv = tlv;
        const std::uint32_t gap = threshold - 1 - fill();
        if (gap >= perRoute) {
            route.tlvLen = static_cast<std::uint16_t>(gap - perRoute);
            ASSERT_EQ(update(ZEL_RTM_ADD, family), 0);
        }
        route.nNextHops = ZEL_RTM_MAX_NEXT_HOPS;
        route.tlvLen = ZEL_RTM_MAX_TLV;
        const std::size_t before = network.sent.size();
        ASSERT_EQ(update(ZEL_RTM_ADD, family), 0);
        ASSERT_EQ(network.sent.size(), before + 1);
        EXPECT_LT(network.sent.back().bytes.size(), static_cast<std::size_t>(batchCapacity));
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
    EXPECT_EQ(pending, nullptr);
    EXPECT_EQ(buffersOut.size(), 3u);
    zelSwpQueueFlush(queue);
    EXPECT_TRUE(buffersOut.empty());
    EXPECT_EQ(zelRtmUpdateRoute(handle, ZEL_RTM_ADD, &route, nullptr, &ipc, 900, 1, 0, nullptr, vrf), 1);
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
    swpFifoQueue[carrier] = {hookAlloc, hookFree};
    ASSERT_EQ(update(), 0);
    EXPECT_EQ(buffersOut.size(), 1u);
    ASSERT_EQ(push(), 0);
    ASSERT_EQ(network.sent.size(), 1u);
    EXPECT_EQ(zelIpcHdrGet32(network.sent[0].bytes.data(), groupWord), vrf);
    EXPECT_EQ(zelSwpQListGetQLen(list, 1), 1);
    EXPECT_EQ(zelSwpQListRemove(list), 0);
    queue = direct;
}

TEST_F(Updates, anAcknowledgedBatchGoesBackThroughTheHookOfItsQueue) {
    ASSERT_EQ(update(), 0);
    ASSERT_EQ(push(), 0);
    EXPECT_NE(zelRtmUpdateRouteSwpAck(queue), 0);  // not acknowledged yet
    EXPECT_EQ(buffersOut.size(), 1u);
    // The manager's end of the same network answers.
    ASSERT_EQ(zelIpcOpen(ZEL_RTM_SERVICE, 0), ZEL_RTM_SERVICE << 7);
    zelSwpReceiver *receiver = zelSwpReceiverCreate(ZEL_RTM_SERVICE << 7, 0, 1);
    const Bytes batch = network.sent[0].bytes;
    EXPECT_EQ(zelSwpReceiverAccept(receiver, batch.data(), static_cast<int>(batch.size())), ZEL_SWP_MATCHED);
    zelSwpReceiverFlush(receiver);
    zelSwpReceiverDestroy(receiver);
    Bytes acknowledgement = network.sent.back().bytes;
    zelIpcHdrSet32(acknowledgement.data(), 40, 0x7f000002);
    std::uint32_t acknowledged = 0;
    EXPECT_EQ(zelSwpProcAck(acknowledgement.data(), static_cast<int>(acknowledgement.size()), &acknowledged), 0);
    EXPECT_EQ(acknowledged, queue);
    EXPECT_EQ(zelRtmUpdateRouteSwpAck(queue), 0);
    EXPECT_TRUE(buffersOut.empty());
}

}  // namespace
}  // namespace zel::test
