// Guaranteed delivery: the decision, the three attempts, the acknowledger in all his moods, and the duplicate filter.
#include "ipc/guaranteed.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>

#include "tests/ipc/peer.h"
#include "tests/support/fake_network.h"

using namespace zel::test;
using std::chrono::milliseconds;

namespace {

Bytes messageTo(std::uint32_t queueId, std::uint32_t type = 0x44) {
    return Message{.type = type, .targetQueue = queueId}.bytes();
}

// What a receiver of `sent` answers.
Message ackOf(const Sent &sent) {
    Message ack;
    ack.command = sent.bytes[4] == ZEL_IPC_GSEND_FIRST ? ZEL_IPC_GACK_FIRST : ZEL_IPC_GACK;
    ack.sequence = static_cast<std::uint16_t>(sent.bytes[6] << 8 | sent.bytes[7]);
    ack.type = zelIpcHdrGet32(sent.bytes.data(), 12);
    ack.sourceQueue = zelIpcHdrGet32(sent.bytes.data(), 56);
    ack.targetQueue = zelIpcHdrGet32(sent.bytes.data(), 44);
    ack.length = 60;
    return ack;
}

// The record of a target, written as it is kept: five counters, sequence, flags.
Bytes record(std::uint32_t acknowledged, std::uint32_t second, std::uint32_t third, std::uint32_t failed,
             std::uint32_t average, std::uint16_t sequence, std::uint8_t flags) {
    Bytes bytes(20);
    unsigned offset = 0;
    for (const std::uint32_t word : {acknowledged, second, third, failed, average}) {
        zelIpcHdrSet32(bytes.data(), offset, word);
        offset += 4;
    }
    bytes.push_back(static_cast<std::uint8_t>(sequence >> 8));
    bytes.push_back(static_cast<std::uint8_t>(sequence));
    bytes.push_back(flags);
    return bytes;
}

class Guaranteed : public testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(zelIpcOpen(61, 0), static_cast<int>(bgp)); }
    int send(std::uint32_t type = 0x44) {
        Bytes bytes = messageTo(rtm | 1, type);
        return zelIpcGuaranteedSend(bgp, bytes.data(), 64, 0);
    }
    Bytes targetRecord() const {
        const std::uint8_t *bytes = zelGuaranteedIpcGetTargetDBPtr(bgp, rtm | 1);
        return Bytes(bytes, bytes + 23);
    }
    void answer(const Message &ack, milliseconds delay = {}) {
        network.arrive(Key_getSocketFd(bgp | 2), ack.bytes(), delay);
    }

    FakeNetwork network;
};

TEST_F(Guaranteed, RightAcknowledger) {
    network.onSend = [&](const Sent &sent) { answer(ackOf(sent), milliseconds(30)); };
    EXPECT_EQ(send(), 0);
    ASSERT_EQ(network.sent.size(), 1u);
    EXPECT_EQ(network.sent[0].bytes[4], ZEL_IPC_GSEND_FIRST);
    EXPECT_EQ(targetRecord(), record(1, 0, 0, 0, 30, 1, 0));
    network.onSend = [&](const Sent &sent) { answer(ackOf(sent), milliseconds(13)); };
    EXPECT_EQ(send(), 0);
    EXPECT_EQ(network.sent[1].bytes[4], ZEL_IPC_GSEND);
    EXPECT_EQ(network.sent[1].bytes[7], 1);
    EXPECT_EQ(targetRecord(), record(2, 0, 0, 0, 21, 2, 0));
}

TEST_F(Guaranteed, SilentAcknowledger) {
    EXPECT_EQ(send(), -1);
    EXPECT_DOUBLE_EQ(network.seconds(), 3);
    ASSERT_EQ(network.sent.size(), 3u);
    EXPECT_EQ(network.sent[0].bytes, network.sent[2].bytes);
    EXPECT_EQ(targetRecord(), record(0, 1, 1, 1, 0, 1, 0x40));
    // The first send has not been acknowledged yet, so the next is a first send again, with its own number.
    network.onSend = [&](const Sent &sent) { answer(ackOf(sent)); };
    EXPECT_EQ(send(), 0);
    EXPECT_EQ(network.sent[3].bytes[4], ZEL_IPC_GSEND_FIRST);
    EXPECT_EQ(network.sent[3].bytes[7], 1);
    EXPECT_EQ(targetRecord(), record(1, 1, 1, 1, 0, 2, 0));
    // A later failure does not make the next one a first send; one to send takes no time.
    network.onSend = nullptr;
    network.sendError = ENETDOWN;
    EXPECT_EQ(send(), -1);
    EXPECT_EQ(targetRecord(), record(1, 2, 2, 2, 0, 3, 0));
    EXPECT_DOUBLE_EQ(network.seconds(), 3);
}

// An answer to the first attempt that comes during the second is as good as one to the second.
TEST_F(Guaranteed, LateAcknowledger) {
    network.onSend = [&](const Sent &sent) {
        if (network.sent.size() == 1) answer(ackOf(sent), milliseconds(1250));
    };
    EXPECT_EQ(send(), 0);
    EXPECT_EQ(network.sent.size(), 2u);
    EXPECT_EQ(targetRecord(), record(1, 1, 0, 0, 250, 1, 0));
    // One that comes after all attempts is drained by the next message.
    network.onSend = [&](const Sent &sent) {
        if (network.sent.size() == 3) answer(ackOf(sent), milliseconds(3500));
    };
    EXPECT_EQ(send(), -1);
    network.onSend = [&](const Sent &sent) { answer(ackOf(sent), milliseconds(600)); };
    EXPECT_EQ(send(), 0);
    EXPECT_EQ(statsOf(bgp | 2).droppedMismatch, 1u);
}

TEST_F(Guaranteed, WrongAcknowledger) {
    network.onSend = [&](const Sent &sent) {
        Message wrong[] = {ackOf(sent), ackOf(sent), ackOf(sent), ackOf(sent)};
        wrong[0].command = ZEL_IPC_GACK;
        wrong[1].sequence = 99;
        wrong[2].type = 1;
        wrong[3].sourceQueue = 77 << 7 | 1;
        for (const Message &ack : wrong) answer(ack);
        Bytes elsewhere = ackOf(sent).bytes();
        zelIpcHdrSet32(elsewhere.data(), 40, 0x7f000099);
        network.arrive(Key_getSocketFd(bgp | 2), elsewhere);
        network.arrive(Key_getSocketFd(bgp | 2), Bytes(59));
    };
    EXPECT_EQ(send(), -1);
    EXPECT_DOUBLE_EQ(network.seconds(), 3);
    EXPECT_EQ(statsOf(bgp | 2).droppedMismatch, 18u);
    // Too many of them end the attempt early.
    network.onSend = [&](const Sent &) {
        if (network.sent.size() == 4)
            for (int i = 0; i < 150; ++i) network.arrive(Key_getSocketFd(bgp | 2), Bytes(60));
    };
    EXPECT_EQ(send(), -1);
    EXPECT_DOUBLE_EQ(network.seconds(), 3 + 2);
    // Any queue of the target may answer.
    network.onSend = [&](const Sent &sent) {
        Message ack = ackOf(sent);
        ack.sourceQueue = rtm | 3;
        answer(ack);
    };
    EXPECT_EQ(send(), 0);
}

TEST_F(Guaranteed, SequenceNumbersAndAveragesAtTheirEnds) {
    std::uint8_t *bytes = zelGuaranteedIpcGetTargetDBPtr(bgp, rtm | 1);
    bytes[20] = bytes[21] = 0xff;
    network.onSend = [&](const Sent &sent) { answer(ackOf(sent)); };
    EXPECT_EQ(send(), 0);
    EXPECT_EQ(send(), 0);
    EXPECT_EQ(send(), 0);
    EXPECT_EQ(network.sent[0].bytes[4], ZEL_IPC_GSEND);
    EXPECT_EQ(network.sent[1].bytes[4], ZEL_IPC_GSEND_FIRST) << "number 0 again";
    EXPECT_EQ(network.sent[2].bytes[4], ZEL_IPC_GSEND);
    Bytes other = record(0, 0, 0, 0, 7, 0xffff, 0x41);
    zelGuaranteedIpcUpdRetryAttemptCntr(other.data(), 0);
    zelGuaranteedIpcUpdRetryAttemptCntr(other.data(), 3);
    zelGuaranteedIpcSendSuccess(other.data(), 0xfffffffe, ZEL_IPC_GACK);
    EXPECT_EQ(other, record(1, 0, 0, 0, 0xfffffffe, 0, 0x41)) << "the first sample is stored as it is";
    zelGuaranteedIpcSendSuccess(other.data(), 0xffffffff, ZEL_IPC_GACK_FIRST);
    EXPECT_EQ(other, record(2, 0, 0, 0, 0xfffffffe, 1, 0x01));
}

TEST_F(Guaranteed, TargetsOfAllAddressesFitUntilTheTableIsFull) {
    network.onSend = [&](const Sent &sent) {
        Bytes ack = ackOf(sent).bytes();
        zelIpcHdrSet32(ack.data(), 40, sent.address);
        network.arrive(Key_getSocketFd(bgp | 2), ack);
    };
    for (std::uint32_t i = 0; i < 1024; ++i) {
        ASSERT_NE(zelIsIpcGDbUpdPossible(bgp, 0x1000 + i), 0);
        Bytes bytes = messageTo(0x1000 + i);
        zelIpcHdrSet32(bytes.data(), 52, 0x7f000000 + i % 2);
        ASSERT_EQ(zelIpcGuaranteedSend(bgp, bytes.data(), 64, 0), 0);
    }
    EXPECT_EQ(zelIsIpcGDbUpdPossible(bgp, rtm | 1), 0);
    EXPECT_NE(zelIsIpcGDbUpdPossible(bgp, 0x1000), 0) << "known";
    EXPECT_EQ(send(), -1);
    // The general send falls back to plain delivery.
    zelIpcGuaranteedEnDis(1);
    Bytes bytes = messageTo(rtm | 1);
    EXPECT_EQ(zelIpcSend(bgp, bytes.data(), 64), 0);
    EXPECT_EQ(network.sent.back().bytes[4], ZEL_IPC_DEF);
}

// Which sends become guaranteed: each row changes one thing of a message that would.
TEST_F(Guaranteed, GeneralSendChoosesByEveryCondition) {
    ASSERT_NE(zelIpcOpen(76, 0), -1);
    ASSERT_NE(zelIpcOpen(61, 1), -1);
    struct Row {
        const char *what;
        bool isGuaranteed;
        int enabled = 1;
        std::uint32_t key = bgp;
        std::uint32_t source = bgp | 2;
        std::uint32_t target = rtm | 1;
        std::uint32_t sourceAddress = 0x7f000005;
        std::uint32_t targetAddress = 0x7f000006;
    };
    const Row rows[] = {
        {.what = "to another service", .isGuaranteed = true},
        {.what = "source to be filled in", .isGuaranteed = true, .source = 0},
        {.what = "switched off", .isGuaranteed = false, .enabled = 0},
        {.what = "another key than the task's", .isGuaranteed = false, .key = rtm, .source = rtm | 2, .target = 0x2001},
        {.what = "source of another task", .isGuaranteed = false, .source = 62 << 7 | 2},
        {.what = "target never guaranteed", .isGuaranteed = false, .target = 106 << 7 | 1},
        {.what = "relay", .isGuaranteed = false, .target = 0xa701},
        {.what = "same queue", .isGuaranteed = false, .target = bgp | 2},
        {.what = "same task", .isGuaranteed = false, .target = bgp | 1},
        {.what = "other instance", .isGuaranteed = true, .target = bgp | 1 << 2 | 1},
        {.what = "source elsewhere", .isGuaranteed = false, .sourceAddress = 0x0a000001},
        {.what = "target elsewhere", .isGuaranteed = false, .targetAddress = 0x80000001},
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
    struct Row {
        std::uint32_t queueId;
        std::uint8_t command;
        std::uint16_t sequence;
        double second;
        bool isDuplicate;
    };
    const Row rows[] = {
        {rtm | 2, 9, 0, 0.0, false}, {rtm | 2, 9, 0, 1.0, true},
        {rtm | 1, 9, 0, 2.0, true},  {rtm | 2, 9, 0, 3.0, false},  // a sender that began anew
        {rtm | 2, 7, 1, 3.1, false}, {rtm | 2, 7, 1, 3.2, true},
        {rtm | 2, 7, 1, 900, true},  {rtm | 2, 7, 5, 901, false},  // others were lost for good
        {rtm | 2, 7, 4, 902, false}, {bgp | 2, 7, 4, 902, false},  // another source
        {rtm | 2, 9, 4, 903, true},  {rtm | 2, 7, 4, 2000, true},
    };
    for (const Row &row : rows)
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

TEST(GuaranteedReceive, DeliversOnceAndAcknowledgesEachTime) {
    ASSERT_NE(zelIpcOpen(76, 0), -1);
    const Peer sender(bgp | 2);
    const Message message{.command = ZEL_IPC_GSEND, .sequence = 0x1234, .sourceQueue = bgp | 2, .targetQueue = rtm | 1};
    for (int i = 0; i < 3; ++i) sender.send(message.bytes(), rtm | 1);
    Bytes buffer(100);
    EXPECT_EQ(receive(rtm, buffer), 64);
    EXPECT_EQ(receive(rtm, buffer, 0), -1);
    for (int i = 0; i < 3; ++i) {
        const Bytes ack = sender.receive();
        ASSERT_EQ(ack.size(), 60u);
        EXPECT_EQ(ack[4], ZEL_IPC_GACK);
        EXPECT_EQ(ack[6], 0x12);
        EXPECT_EQ(ack[7], 0x34);
    }
    EXPECT_EQ(statsOf(rtm).droppedDuplicate, 2u);
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
