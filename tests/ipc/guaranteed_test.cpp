// Guaranteed delivery: the decision, the three attempts, the acknowledger in all his moods, and the duplicate filter.
#include "ipc/guaranteed.h"

#include <gtest/gtest.h>

#include <array>
#include <cerrno>
#include <chrono>

#include "tests/ipc/peer.h"
#include "tests/support/fake_network.h"

using namespace zel::test;

namespace {

Bytes messageTo(std::uint32_t queueId) {
    return Message{.type = 0x44, .targetQueue = queueId}.bytes();
}

// What a receiver of `sent` answers.
Bytes ackOf(const Sent &sent) {
    Bytes ack(sent.bytes.begin(), sent.bytes.begin() + 60);
    --ack[4];
    for (const unsigned end : {40u, 44u}) zelIpcHdrSet32(ack.data(), end, zelIpcHdrGet32(sent.bytes.data(), end + 12));
    return ack;
}

// The record of a target, written as it is kept: acknowledged, second and third attempts, failed, average milliseconds.
Bytes record(std::array<std::uint32_t, 5> counters, std::uint16_t sequence, std::uint8_t flags) {
    Bytes bytes(20);
    for (unsigned i = 0; i < 5; ++i) zelIpcHdrSet32(bytes.data(), 4 * i, counters[i]);
    bytes.push_back(static_cast<std::uint8_t>(sequence >> 8));
    bytes.push_back(static_cast<std::uint8_t>(sequence));
    bytes.push_back(flags);
    return bytes;
}

class Guaranteed : public testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(zelIpcOpen(61, 0), static_cast<int>(bgp)); }
    int send() {
        Bytes bytes = messageTo(rtm | 1);
        return zelIpcGuaranteedSend(bgp, bytes.data(), 64, 0);
    }
    void arrive(const Bytes &bytes, int delay = 0) {
        network.arrive(Key_getSocketFd(bgp | 2), bytes, std::chrono::milliseconds(delay));
    }

    FakeNetwork network;
};

TEST_F(Guaranteed, CountsWhatItsTargetsAnswer) {
    constexpr int never = -1;
    const struct {
        const char *what;
        int delays[3];  // milliseconds from each attempt to its answer
        std::uint8_t command, sequence;
        int result;
        std::size_t attempts;
        double seconds;
        Bytes record;
        int sendError = 0;
    } rows[] = {
        {"silent", {never, never, never}, 9, 0, -1, 3, 3, record({0, 1, 1, 1, 0}, 1, 0x40)},
        {"right; still a first send", {30}, 9, 1, 0, 1, 0.03, record({1, 1, 1, 1, 30}, 2, 0)},
        {"right", {13}, 7, 2, 0, 1, 0.013, record({2, 1, 1, 1, 21}, 3, 0)},
        {"answers during the next attempt", {1250, never}, 7, 3, 0, 2, 1.25, record({3, 2, 1, 1, 135}, 4, 0)},
        {"answers after the last attempt", {3500, never, never}, 7, 4, -1, 3, 3, record({3, 3, 2, 2, 135}, 5, 0)},
        {"right, behind the late answer", {601}, 7, 5, 0, 1, 0.601, record({4, 3, 2, 2, 368}, 6, 0)},
        {"cannot be sent to", {}, 7, 6, -1, 0, 0, record({4, 4, 3, 3, 368}, 7, 0), ENETDOWN},
        {"right; a failure makes no first send", {0}, 7, 7, 0, 1, 0, record({5, 4, 3, 3, 184}, 8, 0)},
    };
    for (const auto &row : rows) {
        const double begin = network.seconds();
        network.sent.clear();
        network.sendError = row.sendError;
        network.onSend = [&](const Sent &sent) {
            const int delay = row.delays[network.sent.size() - 1];
            if (delay != never) arrive(ackOf(sent), delay);
        };
        EXPECT_EQ(send(), row.result) << row.what;
        EXPECT_NEAR(network.seconds() - begin, row.seconds, 1e-6) << row.what;
        EXPECT_EQ(network.sent.size(), row.attempts) << row.what;
        for (const Sent &sent : network.sent) {
            EXPECT_EQ(sent.bytes[4], row.command) << row.what;
            EXPECT_EQ(sent.bytes[7], row.sequence) << row.what;
        }
        const std::uint8_t *kept = zelGuaranteedIpcGetTargetDBPtr(bgp, rtm | 1);
        EXPECT_EQ(Bytes(kept, kept + 23), row.record) << row.what;
    }
    EXPECT_EQ(statsOf(bgp | 2).droppedMismatch, 1u) << "the late one";
}

TEST_F(Guaranteed, DrainsWhatIsNotTheAcknowledgement) {
    network.onSend = [&](const Sent &sent) {
        // Command, sequence, type, source address, source queue.
        for (const unsigned offset : {4u, 7u, 15u, 43u, 46u}) {
            Bytes ack = ackOf(sent);
            ack[offset] = static_cast<std::uint8_t>(ack[offset] + 1);
            arrive(ack);
        }
        arrive(Bytes(59));
    };
    EXPECT_EQ(send(), -1);
    EXPECT_DOUBLE_EQ(network.seconds(), 3);
    EXPECT_EQ(statsOf(bgp | 2).droppedMismatch, 18u);
    // Too many of them end the attempt early.
    network.onSend = [&](const Sent &) {
        for (int i = 0; i < 150 && network.sent.size() == 4; ++i) arrive(Bytes(60));
    };
    EXPECT_EQ(send(), -1);
    EXPECT_DOUBLE_EQ(network.seconds(), 3 + 2);
    // Any queue of the target may answer.
    network.onSend = [&](const Sent &sent) {
        Bytes ack = ackOf(sent);
        ack[47] |= 3;
        arrive(ack);
    };
    EXPECT_EQ(send(), 0);
}

TEST_F(Guaranteed, SequenceNumbersAndAveragesAtTheirEnds) {
    std::uint8_t *bytes = zelGuaranteedIpcGetTargetDBPtr(bgp, rtm | 1);
    bytes[20] = bytes[21] = 0xff;
    network.onSend = [&](const Sent &sent) { arrive(ackOf(sent)); };
    for (const std::uint8_t command : {ZEL_IPC_GSEND, ZEL_IPC_GSEND_FIRST, ZEL_IPC_GSEND}) {
        EXPECT_EQ(send(), 0);
        EXPECT_EQ(network.sent.back().bytes[4], command) << "number 0 is a first one again";
    }
    Bytes other = record({0, 0, 0, 0, 7}, 0xffff, 0x41);
    zelGuaranteedIpcSendSuccess(other.data(), 0xfffffffe, ZEL_IPC_GACK);
    EXPECT_EQ(other, record({1, 0, 0, 0, 0xfffffffe}, 0, 0x41)) << "the first sample is stored as it is";
    zelGuaranteedIpcSendSuccess(other.data(), 0xffffffff, ZEL_IPC_GACK_FIRST);
    EXPECT_EQ(other, record({2, 0, 0, 0, 0xfffffffe}, 1, 0x01));
}

TEST_F(Guaranteed, TargetsOfAllAddressesFitUntilTheTableIsFull) {
    network.onSend = [&](const Sent &sent) { arrive(ackOf(sent)); };
    for (std::uint32_t i = 0; i < 1024; ++i) {
        ASSERT_NE(zelIsIpcGDbUpdPossible(bgp, 0x1000 + i), 0);
        Bytes bytes = messageTo(0x1000 + i);
        zelIpcHdrSet32(bytes.data(), 52, 0x7f000000 + i % 2);
        ASSERT_EQ(zelIpcGuaranteedSend(bgp, bytes.data(), 64, 0), 0);
    }
    EXPECT_EQ(zelIsIpcGDbUpdPossible(bgp, rtm | 1), 0);
    EXPECT_NE(zelIsIpcGDbUpdPossible(bgp, 0x1000), 0) << "known";
    EXPECT_EQ(send(), -1);
    // The general send falls back to plain delivery, also to a known queue of another address.
    zelIpcGuaranteedEnDis(1);
    for (const std::uint32_t target : {rtm | 1, 0x1000u}) {
        Bytes bytes = messageTo(target);
        EXPECT_EQ(zelIpcSend(bgp, bytes.data(), 64), 0);
        EXPECT_EQ(network.sent.back().bytes[4], ZEL_IPC_DEF);
    }
}

// Which sends become guaranteed: each row changes one thing of a message that would.
TEST_F(Guaranteed, GeneralSendChoosesByEveryCondition) {
    ASSERT_NE(zelIpcOpen(76, 0), -1);
    ASSERT_NE(zelIpcOpen(61, 1), -1);
    const struct Row {
        const char *what;
        bool isGuaranteed = false;
        int enabled = 1;
        std::uint32_t key = bgp, source = bgp | 2, target = rtm | 1;
        std::uint32_t sourceAddress = 0x7f000005, targetAddress = 0x7f000006;
    } rows[] = {
        {.what = "to another service", .isGuaranteed = true},
        {.what = "source to be filled in", .isGuaranteed = true, .source = 0},
        {.what = "to another instance", .isGuaranteed = true, .target = bgp | 1 << 2 | 1},
        {.what = "switched off", .enabled = 0},
        {.what = "another key than the task's", .key = rtm, .source = rtm | 2, .target = 0x2001},
        {.what = "source of another task", .source = 62 << 7 | 2},
        {.what = "target never guaranteed", .target = 106 << 7 | 1},
        {.what = "relay", .target = 0xa701},
        {.what = "same queue", .target = bgp | 2},
        {.what = "same task", .target = bgp | 1},
        {.what = "source elsewhere", .sourceAddress = 0x0a000001},
        {.what = "target elsewhere", .targetAddress = 0x80000001},
    };
    for (const Row &row : rows) {
        network.sent.clear();
        zelIpcGuaranteedEnDis(row.enabled);
        Bytes bytes = Message{.sourceQueue = row.source, .targetQueue = row.target}.bytes();
        zelIpcHdrSet32(bytes.data(), 40, row.sourceAddress);
        zelIpcHdrSet32(bytes.data(), 52, row.targetAddress);
        EXPECT_EQ(zelIpcSend(row.key, bytes.data(), 64), row.isGuaranteed ? -1 : 0) << row.what;
        EXPECT_EQ(network.sent.size(), row.isGuaranteed ? 3u : 1u) << row.what;
    }
}

TEST(DuplicateFilter, TellsRepetitionsFromNewMessages) {
    zel::ipc::DuplicateFilter filter;
    const struct {
        std::uint32_t queueId;
        std::uint8_t command;
        std::uint16_t sequence;
        double second;
        bool isDuplicate;
    } rows[] = {
        {rtm | 2, 9, 0, 0.0, false}, {rtm | 2, 9, 0, 1.0, true},
        {rtm | 1, 9, 0, 2.0, true},  {rtm | 2, 9, 0, 3.0, false},  // a sender that began anew
        {rtm | 2, 7, 1, 3.1, false}, {rtm | 2, 7, 1, 3.2, true},
        {rtm | 2, 7, 1, 900, true},  {rtm | 2, 7, 5, 901, false},  // others were lost for good
        {rtm | 2, 7, 4, 902, false}, {bgp | 2, 7, 4, 902, false},  // another source
        {rtm | 2, 9, 4, 903, true},  {rtm | 2, 7, 4, 2000, true},
    };
    for (const auto &row : rows)
        EXPECT_EQ(filter.isDuplicate(0x7f000001, row.queueId, row.command, row.sequence,
                                     static_cast<std::uint64_t>(row.second * 1e9)),
                  row.isDuplicate)
            << row.queueId << " " << int{row.command} << " " << row.sequence << " at " << row.second;
    EXPECT_TRUE(filter.wasNoted(0x7f000001, rtm | 1, 4));
    EXPECT_FALSE(filter.wasNoted(0x7f000002, rtm | 1, 4));
    // More sources than places: the one heard of longest ago makes room.
    for (std::uint32_t i = 0; i < 100; ++i)
        EXPECT_FALSE(filter.isDuplicate(i, rtm, 7, 3, std::uint64_t{3000 + i} * 1'000'000'000));
    EXPECT_FALSE(filter.wasNoted(0x7f000001, rtm, 4));
    EXPECT_TRUE(filter.wasNoted(99, rtm, 3));
}

TEST(GuaranteedReceive, TwoTasksOverRealSockets) {
    ASSERT_NE(zelIpcOpen(61, 0), -1);
    ASSERT_NE(zelIpcOpen(76, 0), -1);
    zelIpcGuaranteedEnDis(1);
    constexpr int count = 200;
    Task receiver([] {
        Bytes buffer(100);
        int received = 0;
        while (received < count && receive(rtm, buffer, 20) == 64) ++received;
        return received;
    });
    Bytes bytes = messageTo(rtm | 1);
    for (int i = 0; i < count; ++i) ASSERT_EQ(zelIpcSend(bgp, bytes.data(), 64), 0);
    EXPECT_EQ(receiver.result(), count);
}

}  // namespace
