// The manager's parsers: they give back what the client wrote, and believe no count that the bytes do not bear out.
// (That no bytes whatever lead them astray is the fuzzer's business.)
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

Bytes makeMessage(std::size_t length, std::uint32_t type) {
    Bytes message(length);
    zelIpcHdrSet32(message.data(), 0, ZEL_IPC_MAGIC);
    zelIpcHdrSet32(message.data(), typeWord, type);
    return message;
}

// Random through and through; the TLV bytes are the caller's.
zelRtmRoute randomRoute(Random &random, unsigned hops, const Bytes &tlv) {
    zelRtmRoute route;
    std::generate_n(reinterpret_cast<std::uint8_t *>(&route), sizeof route,
                    [&] { return static_cast<std::uint8_t>(random()); });
    route.nNextHops = static_cast<std::uint16_t>(hops);
    route.tlvLen = static_cast<std::uint16_t>(tlv.size());
    route.tlv = tlv.data();
    return route;
}

Bytes serialise(const zelRtmRoute &route, int family) {
    Bytes record(3000);
    const int size = zelRtmSerialiseRoute(&route, family, record.data(), record.size());
    record.resize(static_cast<std::size_t>(size));
    EXPECT_EQ(zelRtmSerialiseRoute(&route, family, Bytes(3000).data(), record.size() - 1), -1);
    return record;
}

// A batch as the client lays it out, of records that come back as they were written.
Bytes makeBatch(Random &random, int family, unsigned routes) {
    Bytes batch = makeMessage(firstRecord, family == 1 ? ZEL_RTM_MSG_UPDATE_MULTICAST : ZEL_RTM_MSG_UPDATE);
    zelIpcHdrSet32(batch.data(), 132, handle);
    zelIpcHdrSet32(batch.data(), 136, handle);
    zelIpcHdrSet32(batch.data(), routesWord, routes);
    batch[145] = static_cast<std::uint8_t>(family);
    for (unsigned i = 0; i < routes; ++i) {
        const Bytes record =
            serialise(randomRoute(random, i == 1 ? ZEL_RTM_MAX_NEXT_HOPS : i, Bytes(i * 7, 0xcd)), family);
        zelRtmRoute back;
        EXPECT_EQ(zelRtmParseRoute(record.data(), record.size() - 1, family, &back), -1);
        EXPECT_EQ(zelRtmParseRoute(record.data(), record.size(), family, &back), static_cast<int>(record.size()));
        EXPECT_EQ(serialise(back, family), record);
        batch.insert(batch.end(), {0, 0, 0, static_cast<std::uint8_t>(1 + i % 2)});
        batch.insert(batch.end(), record.begin(), record.end());
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
    while ((more = zelRtmNextRoute(&batch, &operation, &route)) == 1) ++routes;
    return more == 0 ? routes : -1;
}

TEST(Batches, mustBeOfOneMindAboutLengthTypeFamilyAndHandle) {
    Random random = seeded();
    for (int family = 0; family <= 2; ++family) {
        const Bytes batch = makeBatch(random, family, 3);
        EXPECT_EQ(readAll(batch, batch.size()), 3);
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
            {"a route too few", 143, 2},
            {"a route too many", 143, 4},
            {"no operation", firstRecord + 3, 7},
        };
        for (const auto &row : rows) {
            Bytes bad = batch;
            bad[row.at] = static_cast<std::uint8_t>(row.value);
            EXPECT_EQ(readAll(bad, bad.size()), -1) << row.what;
        }
    }
}

TEST(Queries, carryAQuestionThereAndAnAnswerBack) {
    Random random = seeded();
    for (int family = 0; family <= 2; ++family) {
        Bytes message = makeMessage(2488, ZEL_RTM_MSG_RECURSIVE_LOOKUP_TLV);
        const std::uint8_t address[16] = {10, 20, 30, 40, 50, 60, 70, 80};
        EXPECT_EQ(zelRtmBuildQuery(message.data() + 76, ZEL_RTM_MATCH_EXACT, family, address, family == 2 ? 129 : 33),
                  1);
        ASSERT_EQ(zelRtmBuildQuery(message.data() + 76, ZEL_RTM_MATCH_EXACT, family, address, 24), 0);
        zelRtmQuery read;
        EXPECT_EQ(zelRtmParseQuery(message.data(), 2487, 0, &read), 1);
        EXPECT_EQ(zelRtmParseQuery(message.data(), 2488, 1, &read), 1);
        ASSERT_EQ(zelRtmParseQuery(message.data(), 2488, 0, &read), 0);
        EXPECT_EQ(read.family, family);
        EXPECT_EQ(read.bits, 24u);
        EXPECT_EQ(memcmp(read.address, address, family == 2 ? 16 : 4), 0);

        const Bytes tlv(ZEL_RTM_MAX_TLV, 0xab);
        const zelRtmRoute found = randomRoute(random, ZEL_RTM_MAX_NEXT_HOPS, tlv);
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
    // Those of a multi poll end where the message ends.
    Bytes poll = makeMessage(152 + 2 * ZEL_RTM_QUERY_HEAD, ZEL_RTM_MSG_MULTI_POLL);
    const auto parse = [&](std::uint32_t count, std::uint32_t index, std::size_t missing) {
        zelRtmQuery query;
        zelIpcHdrSet32(poll.data(), 144, count);
        return zelRtmParseQuery(poll.data(), static_cast<int>(poll.size() - missing), index, &query);
    };
    EXPECT_EQ(parse(2, 1, 0), 0);
    EXPECT_EQ(parse(2, 2, 0), 1);
    EXPECT_EQ(parse(2, 0, 1), 1);
    EXPECT_EQ(parse(0xffffffff, 0, 0), 1);
}

}  // namespace
}  // namespace zel::test
