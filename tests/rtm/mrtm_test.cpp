// Multicast batches: when one leaves, what happens to the caller's record, what is reported, and whose every buffer is.
#include "zel/mrtm.h"

#include <algorithm>

#include "tests/rtm/client.h"

namespace zel::test {
namespace {

constexpr std::uint32_t handle = 77;
constexpr unsigned routesWord = 136;

class Multicast : public ManagerClient {
protected:
    Multicast() : ManagerClient(ZEL_MRTM_SERVICE) {
        makeQueue(3, 8);
        route.listKind = ZEL_MRTM_LISTS_OF_ALL;
        route.lists[0][0] = route.lists[1][500] = 1;
    }
    ~Multicast() override { zelMrtmDropPending(&pending, queue); }
    int update(std::uint32_t operation = ZEL_MRTM_ADD, int family = ZEL_MRTM_IPV4) {
        zelMrtmWriteRoute(family == ZEL_MRTM_IPV4 ? 1 : 3, &route, record.data());
        return zelMrtmUpdateRouteIPv4(family, handle, operation, record.data(), &pending, &ipc, queue);
    }
    int push() { return zelMrtmUpdateRouteIPv4(2, handle, ZEL_MRTM_DELETE, nullptr, &pending, &ipc, queue); }
    std::uint32_t routes() const { return zelIpcHdrGet32(pending, routesWord); }
    // Of the caller's IPv4 record.
    const std::uint8_t *firstList() const { return record.data() + 16 + 80; }

    zelMrtmRoute route{};
    Bytes record = Bytes(ZEL_MRTM_ROUTE_LENGTH_V6);
};

TEST_F(Multicast, theFifthRouteSendsABatchAndASixthIsRefused) {
    for (const int family : {ZEL_MRTM_IPV4, ZEL_MRTM_IPV6}) {
        network.sent.clear();
        for (std::uint32_t i = 1; i <= MRTM_MAX_REQS; ++i) {
            ASSERT_EQ(update(i % 3 + 1, family), 0);
            ASSERT_EQ(pending == nullptr, i == MRTM_MAX_REQS);
        }
        ASSERT_EQ(network.sent.size(), 1u);
        const Bytes &sent = network.sent[0].bytes;
        EXPECT_EQ(sent.size(), family == ZEL_MRTM_IPV4 ? 144 + 5 * 1340u : 144 + 5 * 1388u);
        EXPECT_TRUE(sent.end()[-1] == 0 && sent.end()[-2] == 0 && sent.end()[-3] == 0);
        zelMrtmBatch batch;
        zelMrtmRoute read;
        ASSERT_EQ(zelMrtmParseBatch(sent.data(), static_cast<int>(sent.size()), &batch), 0);
        std::uint32_t operation, i = 0;
        while (zelMrtmNextRoute(&batch, &operation, &read) == 1) EXPECT_EQ(operation, ++i % 3 + 1);
        EXPECT_EQ(i, 5u);
    }
    ASSERT_EQ(update(), 0);
    zelIpcHdrSet32(pending, routesWord, MRTM_MAX_REQS);
    const Bytes before(static_cast<std::uint8_t *>(pending), static_cast<std::uint8_t *>(pending) + 8192);
    EXPECT_EQ(update(), 1);
    EXPECT_EQ(lastAssertion(), "update->n_routes < MRTM_MAX_REQS");
    EXPECT_EQ(memcmp(pending, before.data(), before.size()), 0);
}

TEST_F(Multicast, whatIsWrongWithACallLeavesTheBatchAlone) {
    EXPECT_EQ(push(), 0);
    EXPECT_EQ(buffersOut, 0) << "nothing held, nothing to do";
    ASSERT_EQ(update(), 0);
    for (std::uint32_t operation : {0u, 4u}) EXPECT_EQ(update(operation), 1);
    for (int family : {0, 2, 4, int{ZEL_MRTM_IPV6}}) EXPECT_EQ(update(ZEL_MRTM_ADD, family), 1);
    EXPECT_EQ(lastAssertion(), "family of the batch");
    EXPECT_EQ(routes(), 1u);
    void *none = nullptr;
    EXPECT_EQ(zelMrtmUpdateRouteIPv4(1, handle, ZEL_MRTM_ADD, record.data(), &none, nullptr, queue), 1);
    EXPECT_EQ(lastAssertion(), "ipc");
    EXPECT_EQ(zelMrtmFlushRoutesSwp(handle, nullptr, queue), 1);
    EXPECT_TRUE(network.sent.empty());
}

TEST_F(Multicast, listsAreCompressedInTheCallersRecordByTheirKind) {
    const struct {
        std::uint32_t kind, operation;
        bool first, second;  // compressed
        bool isReported;
    } rows[] = {{1, ZEL_MRTM_ADD, true, true, false},     {1, ZEL_MRTM_DELETE, true, true, false},
                {2, ZEL_MRTM_CHANGE, true, false, false}, {3, ZEL_MRTM_DELETE, false, false, false},
                {3, ZEL_MRTM_ADD, false, false, true},    {0, ZEL_MRTM_CHANGE, false, false, true}};
    int reports = 0;
    for (const auto &[kind, operation, first, second, isReported] : rows) {
        route.listKind = kind;
        ASSERT_EQ(update(operation), 0);
        EXPECT_EQ(firstList()[0] == 0x4c, first) << kind;
        EXPECT_EQ(firstList()[IFM_IFLIST_BYTES] == 0x4c, second) << kind;
        EXPECT_EQ(reportedAssertions(), reports += isReported);
    }
}

TEST_F(Multicast, anActiveRouteWithASourceMustHaveAPimFlagAndGoesAllTheSame) {
    const struct {
        std::uint32_t state, flags;
        bool hasSource, isReported;
    } rows[] = {{1, 0, true, true},   {1, 2, true, false}, {1, 8, true, false}, {1, 0x40, true, false},
                {1, 4, false, false}, {0, 0, true, false}, {2, 0, true, false}, {1, 0x80, true, true}};
    int reports = 0;
    for (const int family : {ZEL_MRTM_IPV4, ZEL_MRTM_IPV6})
        for (const auto &[state, flags, hasSource, isReported] : rows) {
            route.state = state;
            route.flags = flags;
            route.group[0] = 239;  // no part of the source
            route.source[3] = hasSource;
            EXPECT_EQ(update(ZEL_MRTM_ADD, family), 0);
            zelMrtmDropPending(&pending, queue);
            EXPECT_EQ(reportedAssertions(), reports += isReported) << state << " " << flags;
        }
    EXPECT_EQ(lastAssertion(), "MRTM_IS_SET_BIT_PIM_L(route->rtp.flags)");
}

// Only the plain failure is told; every buffer that was not taken comes back.
TEST_F(Multicast, aFullQueueLosesTheBatchInSilence) {
    for (int i = 0; i < 4; ++i) {
        ASSERT_EQ(update(), 0);
        EXPECT_EQ(push(), 0);
    }
    EXPECT_EQ(pending, nullptr);
    EXPECT_EQ(buffersOut, 3);
    EXPECT_EQ(network.sent.size(), 3u);
    EXPECT_NE(zelMrtmUpdateRouteSwpAck(queue), 0) << "nothing is acknowledged";
    zelSwpQueueFlush(queue);
    network.failSends = 1;
    ASSERT_EQ(update(), 0);
    EXPECT_EQ(push(), 1);
    EXPECT_EQ(pending, nullptr);
    EXPECT_EQ(buffersOut, 0);
    EXPECT_EQ(zelMrtmUpdateRouteIPv4(1, handle, ZEL_MRTM_ADD, record.data(), nullptr, &ipc, 900), 1) << "no queue";
}

TEST_F(Multicast, routesOfAVrfLeaveTheBatchesThatWereNeverSent) {
    makeQueue(8, 1);
    const auto batch = [&](std::vector<std::uint32_t> vrfs) {
        for (const std::uint32_t vrf : vrfs) {
            route.vrfId = vrf;
            ASSERT_EQ(update(), 0);
        }
        ASSERT_EQ(push(), 0);
    };
    batch({1, 2});  // leaves at once
    batch({1, 2, 1, 3});
    batch({1, 1});
    ASSERT_EQ(zelMrtmFlushRoutesSwp(handle, &ipc, queue), 0);
    batch({1, 4});
    zelSwpStatus before{}, after{};
    zelSwpGetQueueStatus(queue, &before);
    EXPECT_EQ(zelMrtmSwpQueueFlushVrf(queue, 1), 0);
    EXPECT_EQ(buffersOut, 4) << "the batch without routes has gone";
    zelSwpGetQueueStatus(queue, &after);
    EXPECT_EQ(before.memory - after.memory, 2 * 1340u + (144 + 2 * 1340u) + 1340u);
    EXPECT_EQ(zelMrtmSwpQueueFlushVrf(900, 1), 1);

    ASSERT_EQ(network.sent.size(), 1u);
    zelSwpSetMwpQWinSize(queue, 8);
    ASSERT_EQ(network.sent.size(), 4u);
    const std::vector<std::vector<std::uint32_t>> expected{{1, 2}, {2, 3}, {}, {4}};
    for (std::uint32_t i = 0; i < 4; ++i) {
        const Bytes &sent = network.sent[i].bytes;
        EXPECT_EQ(zelIpcHdrGet32(sent.data(), 68), i) << "no gap in the sequence";
        EXPECT_EQ(zelIpcHdrGet32(sent.data(), 8), sent.size());
        zelMrtmBatch read;
        if (expected[i].empty()) continue;
        ASSERT_EQ(zelMrtmParseBatch(sent.data(), static_cast<int>(sent.size()), &read), 0);
        std::vector<std::uint32_t> vrfs;
        std::uint32_t operation;
        while (zelMrtmNextRoute(&read, &operation, &route) == 1) vrfs.push_back(route.vrfId);
        EXPECT_EQ(vrfs, expected[i]);
    }
}

TEST_F(Multicast, requestsFailOnSilenceAStatusAndWhatIsTooShort) {
    std::uint32_t given = 1234;
    const auto registerUs = [&](const char *name) { return zelMrtmRegister(8, 0, name, &given, &ipc); };
    EXPECT_EQ(registerUs(nullptr), 1);
    EXPECT_TRUE(network.sent.empty());
    EXPECT_EQ(zelMrtmDeregister(1, &ipc), 1);
    EXPECT_NEAR(network.seconds(), 25, 1);
    const struct {
        std::uint32_t status;
        std::size_t length;
        int result;
    } rows[] = {{0, 60, 1}, {7, 128, 1}, {0, 128, 0}};
    for (const auto &[status, length, result] : rows) {
        answers(status, 55, length);
        EXPECT_EQ(registerUs("client"), result);
        EXPECT_EQ(given, result ? 1234u : 55u);
        Bytes response(ZEL_MRTM_QUERY_ANSWER_LENGTH);
        const zelMrtmQuery query{1, ZEL_MRTM_IPV4, 0, {}, {}, 0};
        EXPECT_EQ(mrtmBuildAndSendQueryMsg(&query, &ipc, response.data()), 1) << "too short for a bitmap";
    }
}

TEST(MulticastHelpers, compareSubnetsAndMakeMasks) {
    const std::uint8_t one[4] = {10, 1, 0x80, 0}, other[4] = {10, 1, 0xc0, 0};
    EXPECT_EQ(mrtm_subnet_cmp(one, other, 17), 0);
    EXPECT_LT(mrtm_subnet_cmp(one, other, 18), 0);
    EXPECT_GT(mrtm_subnet_cmp(other, one, 32), 0);
    EXPECT_EQ(mrtm_subnet_cmp(one, other, 0), 0);
    EXPECT_EQ(mrtmMasklen2IP(0), 0u);
    EXPECT_EQ(mrtmMasklen2IP(24), 0xffffff00u);
    EXPECT_EQ(mrtmMasklen2IP(33), 0xffffffffu);
}

}  // namespace
}  // namespace zel::test
