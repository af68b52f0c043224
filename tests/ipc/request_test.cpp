// Send-and-wait and replies.
#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <thread>

#include "tests/ipc/peer.h"
#include "tests/support/child.h"
#include "tests/support/fake_network.h"

using namespace zel::test;

namespace {

constexpr std::uint32_t rtm = 76 << 7;
constexpr std::uint32_t bgp = 61 << 7;

Bytes requestTo(int service, std::uint32_t transaction = 0, std::size_t length = 64) {
    Bytes bytes(length);
    zelIpcSetTargetHeader(bytes.data(), zelPlatformIpcAddress(), 0, service, 0);
    zelIpcHdrSet32(bytes.data(), 32, transaction);
    return bytes;
}

// Answers `count` requests on a queue; a request without payload is no request.
int serve(std::uint32_t key, int count) {
    Bytes buffer(9000);
    for (int i = 0; i < count; ++i) {
        const int length = zelIpcRecv(key, buffer.data(), static_cast<int>(buffer.size()), 20, 0, 0);
        if (length <= 60) return -1;
        zelIpcHdrSet32(buffer.data(), 60, zelIpcHdrGet32(buffer.data(), 60) + 1);
        if (zelIpcReply(key, buffer.data(), length) != 0) return -1;
    }
    return count;
}

// The exchange of simulated time: what is sent is answered by the test.
class Exchange : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(zelIpcOpen(61, 0), static_cast<int>(bgp));
        response.command = ZEL_IPC_RSP;
        response.sourceQueue = rtm | 1;
        response.targetQueue = bgp | 2;
    }
    int responseQueue() const { return Key_getSocketFd(bgp | 2); }
    void arrive(const Bytes &bytes, std::chrono::seconds delay = {}) { network.arrive(responseQueue(), bytes, delay); }
    int sendWait(int timeoutSec, std::uint32_t type) {
        return zelIpcSendWait(bgp, request.data(), 64, static_cast<int>(request.size()), timeoutSec, type);
    }

    FakeNetwork network;
    Message response;
    Bytes request = requestTo(76, 7, 100);
};

TEST(Request, IsAnsweredByAnotherTaskInEverySize) {
    ASSERT_NE(zelIpcOpen(76, 0), -1);
    ASSERT_NE(zelIpcOpen(61, 0), -1);
    const int sizes[] = {64, 65, 1500, 8192, 8999};
    Task server([&] { return serve(rtm, 5); });
    for (const int size : sizes) {
        Bytes buffer = requestTo(76, 0x123, 9000);
        zelIpcHdrSet32(buffer.data(), 60, 41);
        ASSERT_EQ(zelIpcSendWait(bgp, buffer.data(), size, 9000, 20, 0x99), size);
        EXPECT_EQ(zelIpcHdrGet32(buffer.data(), 60), 42u);
        EXPECT_EQ(zelIpcHdrGet32(buffer.data(), 12), 0x99u);
        EXPECT_EQ(buffer[4], ZEL_IPC_RSP);
    }
    EXPECT_EQ(server.result(), 5);
    EXPECT_EQ(statsOf(bgp).sent, 5u);
    EXPECT_EQ(statsOf(bgp | 2).received, 5u);
}

TEST(Request, TasksOfOneEndpointNeverTakeEachOthersAnswers) {
    ASSERT_NE(zelIpcOpen(76, 0), -1);
    ASSERT_NE(zelIpcOpen(61, 0), -1);
    constexpr int rounds = 300;
    const auto client = [](std::uint32_t type) {
        Bytes buffer = requestTo(76, type);
        for (int i = 0; i < rounds; ++i) {
            zelIpcSetTargetHeader(buffer.data(), zelPlatformIpcAddress(), 0, 76, 0);
            zelIpcHdrSet32(buffer.data(), 60, type * 1000);
            if (zelIpcSendWait(bgp, buffer.data(), 64, 64, 20, type) != 64) return i;
            if (zelIpcHdrGet32(buffer.data(), 60) != type * 1000 + 1) return -i;
        }
        return rounds;
    };
    Task server([&] { return serve(rtm, 3 * rounds); });
    Task a([&] { return client(1); }), b([&] { return client(2); }), c([&] { return client(3); });
    EXPECT_EQ(a.result(), rounds);
    EXPECT_EQ(b.result(), rounds);
    EXPECT_EQ(c.result(), rounds);
    EXPECT_EQ(server.result(), 3 * rounds);
    EXPECT_EQ(statsOf(bgp | 2).droppedMismatch, 0u);
}

TEST_F(Exchange, SkipsAcknowledgementsJunkAndOtherAnswers) {
    response.type = 5;
    response.transaction = 7;
    Message other = response;
    other.transaction = 8;
    Message ack = response;
    ack.command = ZEL_IPC_GACK;
    network.onSend = [&](const Sent &) {
        arrive(Bytes(20));
        arrive(Bytes(80, 9));
        arrive(other.bytes(), std::chrono::seconds(1));
        arrive(ack.bytes(), std::chrono::seconds(2));
        arrive(response.bytes(), std::chrono::seconds(3));
    };
    EXPECT_EQ(sendWait(4, 5), 64);
    EXPECT_DOUBLE_EQ(network.seconds(), 3);
    const zelIpcQueueStats stats = statsOf(bgp | 2);
    EXPECT_EQ(stats.droppedShort, 1u);
    EXPECT_EQ(stats.droppedMagic, 1u);
    EXPECT_EQ(stats.droppedMismatch, 1u);
    EXPECT_EQ(stats.droppedLateAck, 1u);
}

TEST_F(Exchange, TypeZeroKeepsTheHeadersType) {
    zelIpcHdrSet32(request.data(), 12, 0x77);
    response.type = 0x77;
    response.transaction = 7;
    network.onSend = [&](const Sent &sent) {
        EXPECT_EQ(zelIpcHdrGet32(sent.bytes.data(), 12), 0x77u);
        arrive(response.bytes());
    };
    EXPECT_EQ(sendWait(4, 0), 64);
    // With neither type nor transaction whatever comes first is the answer, except an acknowledgement.
    request = requestTo(76, 0, 100);
    response.type = 1234;
    response.transaction = 99;
    Message ack = response;
    ack.command = ZEL_IPC_GACK_FIRST;
    network.onSend = [&](const Sent &) {
        arrive(ack.bytes());
        arrive(response.bytes());
    };
    EXPECT_EQ(sendWait(4, 0), 64);
    EXPECT_EQ(zelIpcHdrGet32(request.data(), 12), 1234u);
}

TEST_F(Exchange, GivesUpAtTheDeadlineWhateverArrives) {
    network.onSend = [&](const Sent &) {
        for (int second = 0; second < 100; ++second) arrive(response.bytes(), std::chrono::seconds(second));
    };
    EXPECT_EQ(sendWait(10, 5), -1);
    EXPECT_EQ(errno, ETIMEDOUT);
    EXPECT_DOUBLE_EQ(network.seconds(), 10);
}

TEST_F(Exchange, TimeOutsOfZeroBelowZeroAndNone) {
    EXPECT_EQ(sendWait(0, 5), -1);
    EXPECT_EQ(network.sent.size(), 1u);
    EXPECT_DOUBLE_EQ(network.seconds(), 0);
    EXPECT_EQ(sendWait(-2, 5), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(network.sent.size(), 1u) << "refused before it is sent";
    response.type = 5;
    response.transaction = 7;
    network.onSend = [&](const Sent &) { arrive(response.bytes(), std::chrono::hours(1000)); };
    request = requestTo(76, 7, 100);
    EXPECT_EQ(sendWait(-1, 5), 64);
}

TEST_F(Exchange, RetriesSendTheSameRequestAgain) {
    struct Row {
        int retries, answeredAttempt, result, attempts;
    };
    const Row rows[] = {{-1, 0, -1, 0}, {0, 1, -1, 1}, {0, 0, 64, 1}, {3, 2, 64, 3}, {3, 9, -1, 4}};
    for (const Row &row : rows) {
        network.sent.clear();
        response.type = 0x31;
        response.transaction = 0x32;
        network.onSend = [&](const Sent &) {
            if (static_cast<int>(network.sent.size()) == row.answeredAttempt + 1) arrive(response.bytes());
        };
        Bytes answer(100);
        const Bytes before = request;
        EXPECT_EQ(zelIpcSendWaitWithRetry(bgp, request.data(), answer.data(), 64, 100, 2, 0x31, 0x32, row.retries),
                  row.result);
        EXPECT_EQ(network.sent.size(), static_cast<std::size_t>(row.attempts));
        for (const Sent &sent : network.sent) EXPECT_EQ(sent.bytes, network.sent.front().bytes);
        EXPECT_EQ(request, before);
    }
}

TEST_F(Exchange, AnswerLargerThanTheBufferIsCut) {
    response.length = 500;
    request = requestTo(76, 0, 100);
    network.onSend = [&](const Sent &) { arrive(response.bytes()); };
    EXPECT_EQ(sendWait(4, 0), 100);
    EXPECT_EQ(statsOf(bgp | 2).truncated, 1u);
}

TEST_F(Exchange, RefusesBadCalls) {
    Bytes answer(100);
    EXPECT_EQ(zelIpcSendWait(bgp, nullptr, 64, 64, 1, 0), -1);
    EXPECT_EQ(zelIpcSendWait(bgp, request.data(), 59, 64, 1, 0), -1);
    EXPECT_EQ(zelIpcSendWait(bgp, request.data(), 64, 59, 1, 0), -1);
    EXPECT_EQ(zelIpcSendWait(rtm, request.data(), 64, 64, 1, 0), -1) << "not open";
    EXPECT_EQ(zelIpcSendWait(12 << 7, request.data(), 64, 64, 1, 0), -1);
    EXPECT_EQ(zelIpcRecvOnRspQ(bgp, answer.data(), 10, 1, 0, 0), -1);
    EXPECT_TRUE(network.sent.empty());
    network.sendError = ENETDOWN;
    EXPECT_EQ(sendWait(4, 0), -1);
    EXPECT_EQ(errno, ENETDOWN);
    EXPECT_DOUBLE_EQ(network.seconds(), 0) << "nothing to wait for";
}

TEST_F(Exchange, ReceiveHalfAlone) {
    response.type = 5;
    response.transaction = 6;
    Message other = response;
    other.type = 4;
    arrive(other.bytes());
    arrive(response.bytes());
    Bytes answer(100);
    EXPECT_EQ(zelIpcRecvOnRspQ(bgp, answer.data(), 100, 1, 5, 6), 64);
    EXPECT_EQ(zelIpcHdrGet32(answer.data(), 12), 5u);
}

TEST_F(Exchange, RepliesGoToTheSourceAndLeaveTheRequestAlone) {
    Message asked;
    asked.sourceQueue = rtm | 1;  // a requester may name any of its queues
    asked.targetQueue = bgp | 1;
    const Bytes before = asked.bytes();
    Bytes bytes = before;
    ASSERT_EQ(zelIpcReply(bgp, bytes.data(), 64), 0);
    ASSERT_EQ(zelIpcReply(bgp, bytes.data(), 64), 0);
    EXPECT_EQ(bytes, before);
    ASSERT_EQ(network.sent.size(), 2u);
    EXPECT_EQ(network.sent[0].bytes, network.sent[1].bytes);
    EXPECT_EQ(network.sent[0].port, rtm | 1);
    EXPECT_EQ(zelIpcReply(bgp, nullptr, 64), -1);
    EXPECT_EQ(zelIpcReply(rtm, bytes.data(), 64), -1);
    EXPECT_EQ(zelIpcReply(bgp, bytes.data(), 59), -1);
}

// A guaranteed request is acknowledged once: by receiving it, else by the reply.
TEST_F(Exchange, ReplyAcknowledgesWhatWasNotReceived) {
    Message asked;
    asked.command = ZEL_IPC_GSEND;
    asked.sequence = 12;
    asked.sourceQueue = rtm | 2;
    asked.targetQueue = bgp | 1;
    Bytes bytes = asked.bytes();
    ASSERT_EQ(zelIpcReply(bgp, bytes.data(), 64), 0);
    ASSERT_EQ(network.sent.size(), 2u);
    EXPECT_EQ(network.sent[0].bytes[4], ZEL_IPC_GACK);
    EXPECT_EQ(network.sent[0].bytes.size(), 60u);
    EXPECT_EQ(network.sent[1].bytes[4], ZEL_IPC_RSP);
    asked.sequence = 13;
    network.arrive(Key_getSocketFd(bgp), asked.bytes());
    ASSERT_EQ(receive(bgp, bytes, 0), 64);
    ASSERT_EQ(zelIpcReply(bgp, bytes.data(), 64), 0);
    ASSERT_EQ(network.sent.size(), 4u);
    EXPECT_EQ(network.sent[2].bytes[4], ZEL_IPC_GACK);
    EXPECT_EQ(network.sent[3].bytes[4], ZEL_IPC_RSP);
}

TEST(Request, DeletedWaiterGivesTheResponseQueueBack) {
    ASSERT_NE(zelIpcOpen(61, 0), -1);
    const Peer silent(rtm | 1);
    for (int round = 0; round < 5; ++round) {
        Task waiting([] {
            Bytes buffer = requestTo(76, 1);
            return zelIpcSendWait(bgp, buffer.data(), 64, 64, -1, 1);
        });
        ASSERT_EQ(silent.receive().size(), 64u);
        Task queued([] {
            Bytes buffer = requestTo(76, 2);
            return zelIpcSendWait(bgp, buffer.data(), 64, 64, 30, 2);
        });
        ASSERT_TRUE(eventually(10, [&] { return queued.hasStarted(); }));
        EXPECT_EQ(taskDelete(waiting.id()), 0);
        Bytes asked = silent.receive();
        ASSERT_EQ(asked.size(), 64u) << "the next one's turn";
        silent.send(asked, bgp | 2);
        EXPECT_EQ(queued.result(), 64);
    }
}

TEST(Request, ClosingWaitsForARunningExchange) {
    ASSERT_NE(zelIpcOpen(61, 0), -1);
    const Peer slow(rtm | 1);
    Task waiting([] {
        Bytes buffer = requestTo(76, 1);
        return zelIpcSendWait(bgp, buffer.data(), 64, 64, 30, 1);
    });
    const Bytes asked = slow.receive();
    Task closing([] { return zelIpcClose(bgp); });
    EXPECT_FALSE(eventually(0.1, [&] { return closing.isDone(); }));
    slow.send(asked, bgp | 2);
    EXPECT_EQ(waiting.result(), 64);
    EXPECT_EQ(closing.result(), 0);
}

ZEL_CHILD(server) {
    if (zelIpcOpen(76, 0) == -1) return 1;
    for (;;) serve(rtm, 1);
}

TEST(Request, IsAnsweredByAnotherProcess) {
    ASSERT_NE(zelIpcOpen(61, 0), -1);
    const Child child = Child::start("server");
    ASSERT_TRUE(eventually(20, [] { return zelTaskIsDuplicate(76, 0, nullptr) == 1; }));
    for (std::uint32_t i = 1; i < 200; ++i) {
        Bytes buffer = requestTo(76, i);
        zelIpcHdrSet32(buffer.data(), 60, i);
        ASSERT_EQ(zelIpcSendWait(bgp, buffer.data(), 64, 64, 20, i), 64);
        ASSERT_EQ(zelIpcHdrGet32(buffer.data(), 60), i + 1);
    }
}

}  // namespace
