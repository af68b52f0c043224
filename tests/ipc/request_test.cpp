// Send-and-wait and replies.
#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>

#include "tests/ipc/peer.h"
#include "tests/support/child.h"
#include "tests/support/fake_network.h"

using namespace zel::test;
using std::chrono::seconds;

namespace {

Bytes requestTo(std::uint32_t transaction = 0, std::size_t length = 64) {
    Bytes bytes(length);
    zelIpcSetTargetHeader(bytes.data(), zelPlatformIpcAddress(), 0, 76, 0);
    zelIpcHdrSet32(bytes.data(), 32, transaction);
    return bytes;
}

// One request of the endpoint bgp to rtm on this CPU.
int ask(std::uint32_t type, int timeoutSec) {
    Bytes buffer = requestTo(type);
    return zelIpcSendWait(bgp, buffer.data(), 64, 64, timeoutSec, type);
}

// Answers `count` requests on a queue.
int serve(std::uint32_t key, int count) {
    Bytes buffer(9000);
    for (int i = 0; i < count; ++i)
        if (zelIpcReply(key, buffer.data(), receive(key, buffer, 20)) != 0) return i;
    return count;
}

// The exchange of simulated time: what is sent is answered by the test.
class Exchange : public testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(zelIpcOpen(61, 0), static_cast<int>(bgp)); }
    void arrive(const Bytes &bytes, seconds delay = {}) { network.arrive(Key_getSocketFd(bgp | 2), bytes, delay); }
    int sendWait(int timeoutSec, std::uint32_t type) {
        return zelIpcSendWait(bgp, request.data(), 64, static_cast<int>(request.size()), timeoutSec, type);
    }

    FakeNetwork network;
    Message response{
        .command = ZEL_IPC_RSP, .type = 5, .transaction = 7, .sourceQueue = rtm | 1, .targetQueue = bgp | 2};
    Bytes request = requestTo(7, 100);
};

TEST_F(Exchange, SkipsAcknowledgementsJunkAndOtherAnswers) {
    Message other = response, ack = response;
    other.transaction = 8;
    ack.command = ZEL_IPC_GACK;
    network.onSend = [&](const Sent &) {
        arrive(Bytes(20));
        arrive(Bytes(80, 9));
        arrive(other.bytes(), seconds(1));
        arrive(ack.bytes(), seconds(2));
        arrive(response.bytes(), seconds(3));
    };
    zelIpcHdrSet32(request.data(), 12, 5);
    EXPECT_EQ(sendWait(4, 0), 64) << "the header's own type";
    EXPECT_DOUBLE_EQ(network.seconds(), 3);
    const zelIpcQueueStats stats = statsOf(bgp | 2);
    EXPECT_EQ(stats.droppedShort + stats.droppedMagic + stats.droppedMismatch + stats.droppedLateAck, 4u);
    // With neither type nor transaction whatever comes first is the answer, except an acknowledgement.
    request = requestTo(0, 100);
    other.length = 500;
    network.onSend = [&](const Sent &) {
        arrive(ack.bytes());
        arrive(other.bytes());
    };
    EXPECT_EQ(sendWait(4, 0), 100) << "cut to the buffer";
    EXPECT_EQ(zelIpcHdrGet32(request.data(), 32), 8u);
    for (const Message &message : {other, response}) arrive(message.bytes());
    EXPECT_EQ(zelIpcRecvOnRspQ(bgp, request.data(), 100, 0, 5, 7), 64) << "the receiving half";
}

TEST_F(Exchange, TimeOutsOfZeroBelowZeroAndNone) {
    EXPECT_EQ(sendWait(0, 5), -1);
    EXPECT_EQ(network.sent.size(), 1u);
    EXPECT_DOUBLE_EQ(network.seconds(), 0);
    EXPECT_EQ(sendWait(-2, 5), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(network.sent.size(), 1u) << "refused before it is sent";
    network.onSend = [&](const Sent &) {
        for (int second = 0; second < 100; ++second) arrive(Bytes(64), seconds(second));
    };
    EXPECT_EQ(sendWait(10, 5), -1);
    EXPECT_EQ(errno, ETIMEDOUT);
    EXPECT_DOUBLE_EQ(network.seconds(), 10) << "whatever arrives";
    network.onSend = [&](const Sent &) { arrive(response.bytes(), std::chrono::hours(1000)); };
    request = requestTo(7, 100);
    EXPECT_EQ(sendWait(-1, 5), 64);
    network.sendError = ENETDOWN;
    EXPECT_EQ(sendWait(-1, 5), -1) << "nothing to wait for";
    EXPECT_EQ(errno, ENETDOWN);
}

TEST_F(Exchange, RetriesSendTheSameRequestAgain) {
    const struct {
        int retries, answeredAttempt, result, attempts;
    } rows[] = {{-1, 0, -1, 0}, {0, 1, -1, 1}, {0, 0, 64, 1}, {3, 2, 64, 3}, {3, 9, -1, 4}};
    const Bytes before = request;
    for (const auto &row : rows) {
        network.sent.clear();
        network.onSend = [&](const Sent &) {
            if (static_cast<int>(network.sent.size()) == row.answeredAttempt + 1) arrive(response.bytes());
        };
        Bytes answer(100);
        EXPECT_EQ(zelIpcSendWaitWithRetry(bgp, request.data(), answer.data(), 64, 100, 2, 5, 7, row.retries),
                  row.result);
        EXPECT_EQ(network.sent.size(), static_cast<std::size_t>(row.attempts));
        for (const Sent &sent : network.sent) EXPECT_EQ(sent.bytes, network.sent.front().bytes);
        EXPECT_EQ(request, before);
    }
}

// A guaranteed request is acknowledged by receiving it, else by the reply.
TEST_F(Exchange, ReplyAcknowledgesWhatWasNotReceived) {
    Message asked{.command = ZEL_IPC_GSEND, .sequence = 12, .sourceQueue = rtm | 1, .targetQueue = bgp | 1};
    const Bytes before = asked.bytes();
    Bytes bytes = before, buffer(64);
    const auto received = [&](std::uint16_t sequence) {
        asked.sequence = sequence;
        network.arrive(Key_getSocketFd(bgp), asked.bytes());
        return receive(bgp, buffer, 0);
    };
    ASSERT_EQ(zelIpcReply(bgp, bytes.data(), 64), 0);
    EXPECT_EQ(bytes, before) << "left alone";
    ASSERT_EQ(received(13), 64);
    ASSERT_EQ(zelIpcReply(bgp, buffer.data(), 64), 0);
    ASSERT_EQ(network.sent.size(), 4u);
    for (const std::size_t i : {0u, 2u}) {
        EXPECT_EQ(network.sent[i].bytes[4], ZEL_IPC_GACK);
        EXPECT_EQ(network.sent[i].bytes.size(), 60u);
        EXPECT_EQ(network.sent[i + 1].bytes[4], ZEL_IPC_RSP);
        EXPECT_EQ(network.sent[i + 1].port, rtm | 1) << "a requester may name any of its queues";
    }
    bytes = buffer;
    ASSERT_EQ(received(14), 64);
    ASSERT_EQ(zelIpcReply(bgp, bytes.data(), 64), 0);
    network.sent.clear();
    EXPECT_EQ(received(14), -1) << "the late reply to 13 does not make it new";
    EXPECT_EQ(network.sent.size(), 1u) << "acknowledged all the same";
    EXPECT_EQ(statsOf(bgp).droppedDuplicate, 1u);
}

class Request : public testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(zelIpcOpen(61, 0), static_cast<int>(bgp)); }
};

TEST_F(Request, TasksOfOneEndpointNeverTakeEachOthersAnswers) {
    ASSERT_NE(zelIpcOpen(76, 0), -1);
    constexpr int rounds = 300;
    const auto client = [](std::uint32_t type) {
        for (int i = 0; i < rounds; ++i)
            if (ask(type, 20) != 64) return i;
        return rounds;
    };
    Task server([&] { return serve(rtm, 3 * rounds); });
    Task a([&] { return client(1); }), b([&] { return client(2); }), c([&] { return client(3); });
    for (Task *task : {&a, &b, &c}) EXPECT_EQ(task->result(), rounds);
    EXPECT_EQ(server.result(), 3 * rounds);
    EXPECT_EQ(statsOf(bgp | 2).droppedMismatch, 0u);
}

// The answerer runs before the asker goes on: nothing of what piled up has been read yet.
TEST_F(Request, IsAnsweredAlthoughItsResponseQueueWasFull) {
    static const Peer peer(rtm | 1);
    for (const std::size_t length : {8000, 60})
        for (int i = 0; i < 100; ++i) peer.send(Bytes(length), bgp | 2);
    zelHostSeam seam = *zelPlatformSeam();
    seam.sendDatagram = [](void *, int, const iovec *, int, const sockaddr_in *) -> ssize_t {
        peer.send(Message{.type = 1, .transaction = 1}.bytes(), bgp | 2);
        return 64;
    };
    zelPlatformSetSeam(&seam);
    EXPECT_EQ(ask(1, 2), 64);
    zelPlatformSetSeam(nullptr);
    EXPECT_GT(statsOf(bgp | 2).droppedByHost, 0u);
}

TEST_F(Request, DeletedWaiterGivesTheResponseQueueBack) {
    const Peer silent(rtm | 1);
    for (int round = 0; round < 5; ++round) {
        Task waiting([] { return ask(1, -1); });
        ASSERT_EQ(silent.receive().size(), 64u);
        Task queued([] { return ask(2, 30); });
        ASSERT_TRUE(eventually(10, [&] { return queued.hasStarted(); }));
        EXPECT_EQ(taskDelete(waiting.id()), 0);
        const Bytes asked = silent.receive();
        ASSERT_EQ(asked.size(), 64u) << "the next one's turn";
        silent.send(asked, bgp | 2);
        EXPECT_EQ(queued.result(), 64);
    }
}

TEST_F(Request, ClosingWaitsForARunningExchange) {
    const Peer slow(rtm | 1);
    Task waiting([] { return ask(1, 30); });
    const Bytes asked = slow.receive();
    Task closing([] { return zelIpcClose(bgp); });
    EXPECT_FALSE(eventually(0.1, [&] { return closing.isDone(); }));
    slow.send(asked, bgp | 2);
    EXPECT_EQ(waiting.result(), 64);
    EXPECT_EQ(closing.result(), 0);
}

// Another CPU: another address with the same ports, and shared memory of its own.
ZEL_CHILD(otherCpu) {
    if (zelIpcOpen(76, 0) != static_cast<int>(rtm) || zelTaskIsDuplicate(61, 0, nullptr) != 0) return 1;
    for (;;) serve(rtm, 1);
}

TEST_F(Request, IsAnsweredByAnotherCpuInEverySize) {
    ASSERT_NE(zelIpcOpen(76, 0), -1);
    const std::uint32_t other = zelPlatformIpcAddress() ^ 0x00800000;
    setenv("ZEL_IPC_ADDR", inet_ntoa({htonl(other)}), 1);
    const Child child = Child::start("otherCpu");
    const int sizes[] = {64, 65, 1500, 8192, 8999};
    for (std::uint32_t i = 0; i < 200; ++i) {
        Bytes buffer(9000);
        zelIpcSetTargetHeader(buffer.data(), other, 0, 76, 0);
        zelIpcHdrSet32(buffer.data(), 60, i);
        // The first ones may go out before the child is there.
        const int length = zelIpcSendWaitWithRetry(bgp, buffer.data(), buffer.data(), sizes[i % 5], 9000, 1, 0x99,
                                                   i + 1, i == 0 ? 20 : 0);
        ASSERT_EQ(length, sizes[i % 5]);
        ASSERT_EQ(zelIpcHdrGet32(buffer.data(), 60), i);
        EXPECT_EQ(zelIpcHdrGet32(buffer.data(), 40), other);
    }
    EXPECT_EQ(statsOf(bgp | 2).received, 200u);
}

}  // namespace
