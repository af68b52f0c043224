// The manager's parsers: they give back what the client wrote, and believe no count that the bytes do not bear out.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <vector>

#include "tests/support/random.h"
#include "zel/ipc.h"
#include "zel/rtm.h"

namespace zel::test {
namespace {

using Bytes = std::vector<std::uint8_t>;

constexpr unsigned typeWord = 12, firstRecord = 148, routesWord = 140;
constexpr std::uint32_t handle = 9;

zelRtmRoute randomRoute(Random &random, int family, std::vector<std::uint8_t> &tlv) {
    zelRtmRoute route{};
    const unsigned size = family == 2 ? 16 : 4;
    const auto fill = [&](std::uint8_t *bytes, std::size_t count) {
        std::generate_n(bytes, count, [&] { return static_cast<std::uint8_t>(random()); });
    };
    fill(route.prefix, size);
    fill(route.mask, size);
    route.vrfId = random();
    route.protocol = static_cast<std::uint8_t>(random());
    route.flags = static_cast<std::uint16_t>(random());
    route.metric = random();
    route.tag = random();
    fill(route.opaque, sizeof route.opaque);
    route.nNextHops = static_cast<std::uint16_t>(random() % 10 == 0 ? random() % 65 : random() % 3);
    for (unsigned hop = 0; hop < route.nNextHops; ++hop) {
        fill(route.hop[hop].addr, size);
        route.hop[hop].ifIndex = random();
        route.hop[hop].vrfId = route.vrfId;
        fill(route.hop[hop].rest, family == 2 ? 4 : 8);
    }
    tlv.resize(random() % 4 == 0 ? random() % (ZEL_RTM_MAX_TLV + 1) : 0);
    fill(tlv.data(), tlv.size());
    route.tlvLen = static_cast<std::uint16_t>(tlv.size());
    route.tlv = tlv.empty() ? nullptr : tlv.data();
    return route;
}

void expectSame(const zelRtmRoute &a, const zelRtmRoute &b) {
    EXPECT_EQ(memcmp(a.prefix, b.prefix, 32), 0);
    EXPECT_EQ(memcmp(&a.vrfId, &b.vrfId, offsetof(zelRtmRoute, hop) - offsetof(zelRtmRoute, vrfId)), 0);
    EXPECT_EQ(memcmp(a.hop, b.hop, a.nNextHops * sizeof a.hop[0]), 0);
    ASSERT_EQ(a.tlvLen, b.tlvLen);
    EXPECT_TRUE(a.tlvLen == 0 || memcmp(a.tlv, b.tlv, a.tlvLen) == 0);
}

// A batch as the client lays it out, of records that come back as they were written.
Bytes makeBatch(Random &random, int family, unsigned routes) {
    Bytes batch(firstRecord);
    zelIpcHdrSet32(batch.data(), 0, ZEL_IPC_MAGIC);
    zelIpcHdrSet32(batch.data(), typeWord, family == 1 ? ZEL_RTM_MSG_UPDATE_MULTICAST : ZEL_RTM_MSG_UPDATE);
    zelIpcHdrSet32(batch.data(), 132, handle);
    zelIpcHdrSet32(batch.data(), 136, handle);
    zelIpcHdrSet32(batch.data(), routesWord, routes);
    batch[145] = static_cast<std::uint8_t>(family);
    for (unsigned i = 0; i < routes; ++i) {
        std::vector<std::uint8_t> tlv;
        const zelRtmRoute route = randomRoute(random, family, tlv);
        std::uint8_t record[3000];
        const int size = zelRtmSerialiseRoute(&route, family, record, sizeof record);
        EXPECT_GT(size, 0);
        const auto length = static_cast<std::size_t>(size);
        zelRtmRoute back;
        memset(&back, 0xee, sizeof back);
        EXPECT_EQ(zelRtmParseRoute(record, length - 1, family, &back), -1);
        EXPECT_EQ(zelRtmParseRoute(record, length, family, &back), size);
        expectSame(route, back);
        std::uint8_t unused[3000];
        EXPECT_EQ(zelRtmSerialiseRoute(&route, family, unused, length - 1), -1);
        batch.insert(batch.end(), {0, 0, 0, static_cast<std::uint8_t>(1 + i % 2)});
        batch.insert(batch.end(), record, record + size);
    }
    return batch;
}

// Reads a batch from a block of exactly its size: the number of routes read, -1 when it was found malformed.
int readAll(const Bytes &bytes, std::size_t length) {
    const auto exact = std::make_unique<std::uint8_t[]>(length);
    if (length) memcpy(exact.get(), bytes.data(), length);
    zelRtmBatch batch;
    if (zelRtmParseBatch(exact.get(), static_cast<int>(length), &batch) != 0) return -1;
    std::uint32_t operation;
    zelRtmRoute route;
    int routes = 0, more;
    while ((more = zelRtmNextRoute(&batch, &operation, &route)) == 1) {
        ++routes;
        // Whatever was believed lies within the message.
        EXPECT_LE(route.nNextHops, ZEL_RTM_MAX_NEXT_HOPS);
        if (route.tlvLen) {
            EXPECT_LE(route.tlv + route.tlvLen, exact.get() + length);
        }
    }
    return more == 0 ? routes : -1;
}

TEST(Batches, mustBeOfOneMindAboutLengthTypeFamilyAndHandle) {
    Random random = seeded();
    for (int family = 0; family <= 2; ++family) {
        const Bytes batch = makeBatch(random, family, 2);
        EXPECT_EQ(readAll(batch, batch.size()), 2);
        for (std::size_t length = 0; length < batch.size(); ++length) ASSERT_EQ(readAll(batch, length), -1) << length;
        Bytes longer = batch;
        longer.push_back(0);
        EXPECT_EQ(readAll(longer, longer.size()), -1);
        const struct {
            const char *what;
            unsigned at;
            int value;
        } rows[] = {
            {"magic", 0, 0},
            {"unicast type and multicast family, or the reverse", 15, family == 1 ? 4 : 5},
            {"no family", 145, 3},
            {"two handles", 139, handle + 1},
            {"a route too few", 143, 1},
            {"a route too many", 143, 3},
            {"no operation", firstRecord + 3, 7},
        };
        for (const auto &row : rows) {
            Bytes bad = batch;
            bad[row.at] = static_cast<std::uint8_t>(row.value);
            EXPECT_EQ(readAll(bad, bad.size()), -1) << row.what;
        }
    }
}

TEST(Batches, areNeverReadBeyondTheirEndWhateverTheirBytes) {
    Random random = seeded();
    const int rounds = isFullRun() ? 200000 : 5000;
    for (int i = 0; i < rounds; ++i) {
        Bytes batch = makeBatch(random, static_cast<int>(random() % 3), 1 + random() % 6);
        for (unsigned change = 1 + random() % 4; change > 0; --change)
            batch[4 + random() % (batch.size() - 4)] = static_cast<std::uint8_t>(random() % 3 == 0 ? 0xff : random());
        readAll(batch, random() % 3 == 0 ? random() % batch.size() : batch.size());
    }
}

TEST(Queries, carryAQuestionThereAndAnAnswerBack) {
    Random random = seeded();
    for (int family = 0; family <= 2; ++family) {
        std::uint8_t query[ZEL_RTM_QUERY_LENGTH];
        const std::uint8_t address[16] = {10, 20, 30, 40, 50, 60, 70, 80};
        EXPECT_EQ(zelRtmBuildQuery(query, ZEL_RTM_MATCH_EXACT, family, address, family == 2 ? 129 : 33), 1);
        ASSERT_EQ(zelRtmBuildQuery(query, ZEL_RTM_MATCH_EXACT, family, address, 24), 0);

        Bytes message(2488);
        zelIpcHdrSet32(message.data(), 0, ZEL_IPC_MAGIC);
        zelIpcHdrSet32(message.data(), typeWord, ZEL_RTM_MSG_RECURSIVE_LOOKUP_TLV);
        memcpy(message.data() + 76, query, sizeof query);
        zelRtmQuery read;
        EXPECT_EQ(zelRtmParseQuery(message.data(), 2487, 0, &read), 1);
        EXPECT_EQ(zelRtmParseQuery(message.data(), 2488, 1, &read), 1);
        ASSERT_EQ(zelRtmParseQuery(message.data(), 2488, 0, &read), 0);
        EXPECT_EQ(read.family, family);
        EXPECT_EQ(read.bits, 24u);
        EXPECT_EQ(memcmp(read.address, address, family == 2 ? 16 : 4), 0);

        std::vector<std::uint8_t> tlv(ZEL_RTM_MAX_TLV, 0xab), unused;
        zelRtmRoute found = randomRoute(random, family, unused);
        found.nNextHops = ZEL_RTM_MAX_NEXT_HOPS;
        found.tlv = tlv.data();
        found.tlvLen = ZEL_RTM_MAX_TLV;
        EXPECT_EQ(zelRtmAnswerRequest(message.data(), &read, &found, 20, &found), 2488);
        zelRtmRoute back;
        std::uint32_t bits = 0;
        ASSERT_EQ(zelRtmParseAnswer(message.data() + 76, &back, &bits), ZEL_RTM_FOUND);
        EXPECT_EQ(bits, 20u);
        EXPECT_EQ(back.nNextHops, ZEL_RTM_MAX_NEXT_HOPS);
        // 64 hops of 28 bytes leave no room for the TLV bytes; they have an area of their own.
        EXPECT_EQ(back.tlvLen, family == 2 ? 0 : ZEL_RTM_MAX_TLV);
        EXPECT_EQ(message[1972] << 8 | message[1973], ZEL_RTM_MAX_TLV);
        EXPECT_EQ(message[2487], 0xab);
        zelRtmAnswerRequest(message.data(), &read, nullptr, 0, nullptr);
        EXPECT_EQ(zelRtmParseAnswer(message.data() + 76, &back, nullptr), ZEL_RTM_NOT_FOUND);
        EXPECT_EQ(message[1973], 0);
    }
}

TEST(Queries, ofAMultiPollEndWhereTheMessageEnds) {
    Bytes message(152 + 2 * 24);
    zelIpcHdrSet32(message.data(), 0, ZEL_IPC_MAGIC);
    zelIpcHdrSet32(message.data(), typeWord, ZEL_RTM_MSG_MULTI_POLL);
    zelIpcHdrSet32(message.data(), 144, 2);
    zelRtmQuery query;
    EXPECT_EQ(zelRtmParseQuery(message.data(), static_cast<int>(message.size()), 1, &query), 0);
    EXPECT_EQ(zelRtmParseQuery(message.data(), static_cast<int>(message.size()), 2, &query), 1);
    EXPECT_EQ(zelRtmParseQuery(message.data(), static_cast<int>(message.size()) - 1, 0, &query), 1);
    zelIpcHdrSet32(message.data(), 144, 0xffffffff);
    EXPECT_EQ(zelRtmParseQuery(message.data(), static_cast<int>(message.size()), 0, &query), 1);
}

}  // namespace
}  // namespace zel::test
