// Send-and-wait and replies.
#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>

#include "tests/ipc/peer.h"
#include "tests/support/child.h"
#include "tests/support/fake_network.h"

using namespace zel::test;

namespace {

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
    network.onSend = [&](const Sent &) { arrive(response.bytes()); };
    EXPECT_EQ(sendWait(4, 0), 64);
    // With neither type nor transaction whatever comes first is the answer, except an acknowledgement.
    request = requestTo(76, 0, 100);
    response.type = 1234;
    response.length = 500;
    Message ack = response;
    ack.command = ZEL_IPC_GACK_FIRST;
    network.onSend = [&](const Sent &) {
        arrive(ack.bytes());
        arrive(response.bytes());
    };
    EXPECT_EQ(sendWait(4, 0), 100) << "cut to the buffer";
    EXPECT_EQ(zelIpcHdrGet32(request.data(), 12), 1234u);
    EXPECT_EQ(statsOf(bgp | 2).truncated, 1u);
}

TEST_F(Exchange, TimeOutsOfZeroBelowZeroAndNone) {
    EXPECT_EQ(sendWait(0, 5), -1);
    EXPECT_EQ(network.sent.size(), 1u);
    EXPECT_DOUBLE_EQ(network.seconds(), 0);
    network.onSend = [&](const Sent &) {
        for (int second = 0; second < 100; ++second) arrive(response.bytes(), std::chrono::seconds(second));
    };
    EXPECT_EQ(sendWait(10, 5), -1);
    EXPECT_EQ(errno, ETIMEDOUT);
    EXPECT_DOUBLE_EQ(network.seconds(), 10) << "whatever arrives";
    EXPECT_EQ(sendWait(-2, 5), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(network.sent.size(), 2u) << "refused before it is sent";
    response.type = 5;
    response.transaction = 7;
    network.onSend = [&](const Sent &) { arrive(response.bytes(), std::chrono::hours(1000)); };
    request = requestTo(76, 7, 100);
    EXPECT_EQ(sendWait(-1, 5), 64);
    network.sendError = ENETDOWN;
    EXPECT_EQ(sendWait(-1, 5), -1) << "nothing to wait for";
    EXPECT_EQ(errno, ENETDOWN);
}

TEST_F(Exchange, RetriesSendTheSameRequestAgain) {
    const struct {
        int retries, answeredAttempt, result, attempts;
    } rows[] = {{-1, 0, -1, 0}, {0, 1, -1, 1}, {0, 0, 64, 1}, {3, 2, 64, 3}, {3, 9, -1, 4}};
    response.type = 0x31;
    response.transaction = 0x32;
    const Bytes before = request;
    for (const auto &row : rows) {
        network.sent.clear();
        network.onSend = [&](const Sent &) {
            if (static_cast<int>(network.sent.size()) == row.answeredAttempt + 1) arrive(response.bytes());
        };
        Bytes answer(100);
        EXPECT_EQ(zelIpcSendWaitWithRetry(bgp, request.data(), answer.data(), 64, 100, 2, 0x31, 0x32, row.retries),
                  row.result);
        EXPECT_EQ(network.sent.size(), static_cast<std::size_t>(row.attempts));
        for (const Sent &sent : network.sent) EXPECT_EQ(sent.bytes, network.sent.front().bytes);
        EXPECT_EQ(request, before);
    }
}

// A guaranteed request is acknowledged once: by receiving it, else by the reply.
TEST_F(Exchange, ReplyAcknowledgesWhatWasNotReceived) {
    Message asked{.command = ZEL_IPC_GSEND, .sequence = 12, .sourceQueue = rtm | 1, .targetQueue = bgp | 1};
    const Bytes before = asked.bytes();
    Bytes bytes = before;
    ASSERT_EQ(zelIpcReply(bgp, bytes.data(), 64), 0);
    EXPECT_EQ(bytes, before) << "left alone";
    asked.sequence = 13;
    network.arrive(Key_getSocketFd(bgp), asked.bytes());
    ASSERT_EQ(receive(bgp, bytes, 0), 64);
    ASSERT_EQ(zelIpcReply(bgp, bytes.data(), 64), 0);
    ASSERT_EQ(network.sent.size(), 4u);
    for (const std::size_t i : {0u, 2u}) {
        EXPECT_EQ(network.sent[i].bytes[4], ZEL_IPC_GACK);
        EXPECT_EQ(network.sent[i].bytes.size(), 60u);
        EXPECT_EQ(network.sent[i + 1].bytes[4], ZEL_IPC_RSP);
        EXPECT_EQ(network.sent[i + 1].port, rtm | 1) << "a requester may name any of its queues";
    }
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

TEST(Request, IsAnsweredByAnotherProcessInEverySize) {
    ASSERT_NE(zelIpcOpen(61, 0), -1);
    const Child child = Child::start("server");
    ASSERT_TRUE(eventually(20, [] { return zelTaskIsDuplicate(76, 0, nullptr) == 1; }));
    const int sizes[] = {64, 65, 1500, 8192, 8999};
    for (std::uint32_t i = 0; i < 200; ++i) {
        Bytes buffer = requestTo(76, i, 9000);
        zelIpcHdrSet32(buffer.data(), 60, i);
        ASSERT_EQ(zelIpcSendWait(bgp, buffer.data(), sizes[i % 5], 9000, 20, 0x99), sizes[i % 5]);
        ASSERT_EQ(zelIpcHdrGet32(buffer.data(), 60), i + 1);
        EXPECT_EQ(buffer[4], ZEL_IPC_RSP);
    }
    EXPECT_EQ(statsOf(bgp).sent, 200u);
    EXPECT_EQ(statsOf(bgp | 2).received, 200u);
}

}  // namespace
