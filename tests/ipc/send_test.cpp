// Plain sending and receiving over real sockets: what is delivered, what is dropped and counted, and how long it takes.
// (Any bytes at all are the receive fuzzer's business.)
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <thread>

#include "tests/ipc/peer.h"
#include "tests/support/fake_network.h"

using namespace zel::test;

namespace {

// An open endpoint and a plain socket in the place of another one's response queue.
class Receive : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(zelIpcOpen(76, 0), static_cast<int>(rtm));
        ASSERT_TRUE(peer.isBound());
    }
    void send(const Message &message) const { peer.send(message.bytes(), rtm | 1); }
    static Message message(std::uint32_t type = 0, std::uint32_t transaction = 0, std::uint8_t command = ZEL_IPC_DEF) {
        return {.command = command,
                .type = type,
                .transaction = transaction,
                .sourceQueue = bgp | 2,
                .targetQueue = rtm | 1};
    }
    static void startAndSettle(const Task &task) {
        ASSERT_TRUE(eventually(10, [&] { return task.hasStarted(); }));
        std::this_thread::sleep_for(std::chrono::milliseconds(20));  // let it reach the wait: both ways must work
    }

    Peer peer{bgp | 2};
    Bytes buffer = Bytes(1000);
};

TEST_F(Receive, DropsAreCountedByReason) {
    peer.send(Bytes(59, 0xff), rtm | 1);
    peer.send(Bytes(), rtm | 1);
    peer.send(Bytes(60, 0xff), rtm | 1);
    send(message(7, 8));
    send(message(1, 2, ZEL_IPC_GACK_FIRST));
    Message large = message(1, 2);
    large.length = 5000;
    send(large);
    errno = 4711;
    EXPECT_EQ(receive(rtm, buffer, 10, 1, 2), 1000);
    EXPECT_EQ(errno, 4711) << "success leaves it alone";
    const zelIpcQueueStats stats = statsOf(rtm);
    EXPECT_EQ(stats.droppedShort, 2u);
    EXPECT_EQ(stats.droppedMagic, 1u);
    EXPECT_EQ(stats.droppedMismatch, 1u);
    EXPECT_EQ(stats.droppedLateAck, 1u);
    EXPECT_EQ(stats.truncated, 1u);
    EXPECT_EQ(stats.received, 1u);
    send(large);
    EXPECT_EQ(receive(rtm, buffer, 0), 1000) << "cut the same without waiting";
}

TEST_F(Receive, MatchesTypeAndTransactionTogether) {
    const struct {
        std::uint32_t wantedType, wantedTransaction, type, transaction;
        std::uint8_t command;
        bool isTaken;
    } rows[] = {
        {0, 0, 5, 6, ZEL_IPC_DEF, true},  {5, 6, 5, 6, ZEL_IPC_RSP, true},   {5, 6, 5, 7, ZEL_IPC_DEF, false},
        {5, 0, 5, 6, ZEL_IPC_DEF, false}, {5, 0, 5, 0, ZEL_IPC_DEF, true},   {0, 6, 5, 6, ZEL_IPC_DEF, false},
        {0, 6, 0, 6, ZEL_IPC_GACK, true}, {5, 6, 5, 6, ZEL_IPC_GACK, false}, {0, 0, 5, 6, ZEL_IPC_GACK_FIRST, true},
    };
    for (const auto &row : rows) {
        send(message(row.type, row.transaction, row.command));
        const int length = receive(rtm, buffer, 0, row.wantedType, row.wantedTransaction);
        EXPECT_EQ(length, row.isTaken ? 64 : -1) << row.wantedType << " " << row.wantedTransaction << " <- " << row.type
                                                 << " " << row.transaction << " " << int{row.command};
    }
}

TEST_F(Receive, AcknowledgesBeforeItLooksWhetherTheMessageIsWanted) {
    Message asked = message(5, 6, ZEL_IPC_GRT);
    send(asked);
    EXPECT_EQ(receive(rtm, buffer, 0), 64) << "no flag: no acknowledgement";
    EXPECT_TRUE(peer.receive(20).empty());
    asked.flag = 2;
    send(asked);
    EXPECT_EQ(receive(rtm, buffer, 0, 9, 9), -1);
    EXPECT_EQ(peer.receive().size(), 60u);
}

TEST_F(Receive, RefusalsNameTheError) {
    Bytes huge(65508);
    zelIpcSetTargetHeader(huge.data(), zelPlatformIpcAddress(), 0, 76, 0);
    void *const data = buffer.data();
    const struct {
        const char *what;
        std::function<int()> call;
        int error;
    } rows[] = {
        {"short buffer", [&] { return zelIpcRecv(rtm, data, 59, 0, 0, 0); }, EINVAL},
        {"negative wait", [&] { return receive(rtm, buffer, -2); }, EINVAL},
        {"not open", [&] { return receive(77 << 7, buffer, 0); }, EBADF},
        {"no such service", [&] { return receive(12 << 7, buffer, 0); }, EINVAL},
        {"nothing there", [&] { return receive(rtm, buffer, 0); }, ETIMEDOUT},
        {"send: no header", [&] { return zelIpcSend(rtm, data, 59); }, EMSGSIZE},
        {"send: larger than a datagram", [&] { return zelIpcSend(rtm, huge.data(), 65508); }, EMSGSIZE},
        {"request: no room for an answer", [&] { return zelIpcSendWait(rtm, data, 64, 59, 1, 0); }, EINVAL},
        {"reply: no header", [&] { return zelIpcReply(rtm, data, 59); }, EMSGSIZE},
        {"guaranteed: no header", [&] { return zelIpcGuaranteedSend(rtm, data, 59, 0); }, EMSGSIZE},
    };
    for (const auto &row : rows) {
        errno = 0;
        EXPECT_EQ(row.call(), -1) << row.what;
        EXPECT_EQ(errno, row.error) << row.what;
    }
    EXPECT_EQ(statsOf(rtm).sendFailures, 1u) << "the others were not tried";
}

// Junk that keeps coming makes the deadline no later; nor does another receiver's longer wait.
TEST_F(Receive, EndsAtItsDeadlineUnderSteadyJunk) {
    std::atomic<bool> stop{false};
    std::thread junk([&] {
        while (!stop) {
            peer.send(Bytes(60, 1), rtm | 1);
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
    });
    const std::uint64_t begin = tick64Get();
    EXPECT_EQ(receive(rtm, buffer, 1), -1);
    EXPECT_EQ(errno, ETIMEDOUT);
    EXPECT_THAT(tick64Get() - begin, testing::AllOf(testing::Ge(49u), testing::Lt(20u * 50)));
    stop = true;
    junk.join();
    EXPECT_GT(statsOf(rtm).droppedMagic, 2u);
}

TEST_F(Receive, EndsAtItsDeadlineBesideALongerWait) {
    Bytes other(100);
    Task longer([&] { return receive(rtm, other, 60); });
    startAndSettle(longer);
    const std::uint64_t begin = tick64Get();
    EXPECT_EQ(receive(rtm, buffer, 1), -1);
    EXPECT_LT(tick64Get() - begin, 20u * 50);
    send(message());
    EXPECT_EQ(longer.result(), 64);
}

TEST_F(Receive, LooksWithoutTaking) {
    EXPECT_EQ(zelIpcPeekMsg(rtm, buffer.data(), 1000), 0);
    send(message(1));
    send(message(2));
    ASSERT_TRUE(eventually(10, [] { return zelIpcGetNumMsgs(rtm) == 2; }));
    EXPECT_EQ(zelIpcGetNumMsgs(rtm), 2) << "counting takes nothing";
    EXPECT_EQ(zelIpcPeekMsg(rtm, buffer.data(), 40), 40);
    for (const std::uint32_t type : {1u, 2u}) {
        EXPECT_EQ(receive(rtm, buffer), 64);
        EXPECT_EQ(zelIpcHdrGet32(buffer.data(), 12), type);
    }
}

TEST_F(Receive, CountsWhatTheHostDrops) {
    int error = 0;
    ASSERT_EQ(zelIpcSetRecvBufferLimit(rtm, 4096, &error), 0);
    Message large = message();
    large.length = 2000;
    for (int i = 0; i < 50; ++i) send(large);
    unsigned received = 0;
    while (receive(rtm, buffer, 0) > 0) ++received;
    EXPECT_GT(received, 0u);
    EXPECT_EQ(statsOf(rtm).droppedByHost + received, 50u);
    zelIpcClose(rtm);
    EXPECT_EQ(statsOf(rtm).droppedByHost + received, 50u) << "kept after closing";
}

TEST_F(Receive, SuspendedTaskReadsNothingAndADeletedOneIsGone) {
    Task waiting([this] { return receive(rtm, buffer, 60); });
    ASSERT_TRUE(eventually(10, [&] { return waiting.hasStarted(); }));
    for (int i = 0; i < 20; ++i) {
        ASSERT_EQ(taskSuspend(waiting.id()), 0);
        ASSERT_EQ(taskResume(waiting.id()), 0);
    }
    ASSERT_EQ(taskSuspend(waiting.id()), 0);
    send(message());
    EXPECT_FALSE(eventually(0.1, [&] { return waiting.isDone(); }));
    ASSERT_EQ(taskResume(waiting.id()), 0);
    EXPECT_EQ(waiting.result(), 64);

    Task deleted([this] { return receive(rtm, buffer, -1); });
    startAndSettle(deleted);
    EXPECT_EQ(taskDelete(deleted.id()), 0);
    send(message());
    EXPECT_EQ(receive(rtm, buffer), 64) << "the next receiver is the only one again";
}

TEST_F(Receive, ClosingEndsTheWait) {
    Task waiting([this] { return receive(rtm, buffer, 60) == -1 ? errno : 0; });
    startAndSettle(waiting);
    EXPECT_EQ(zelIpcClose(rtm), 0);
    EXPECT_EQ(waiting.result(), EBADF);
    EXPECT_EQ(zelIpcOpen(76, 0), static_cast<int>(rtm)) << "the port is free";
}

TEST(Send, LeavesByTheQueueThatTheKeyNamesAndIsRecorded) {
    ASSERT_NE(zelIpcOpen(76, 0), -1);
    ASSERT_NE(zelIpcOpenTmrQueue(rtm), -1);
    ASSERT_EQ(zelTraceInit(), 0);
    FakeNetwork network;
    Bytes bytes = Message{}.bytes();
    for (const std::uint32_t type : {0u, 1u, 2u, 3u}) {
        ASSERT_EQ(zelIpcSend(rtm | type, bytes.data(), 64), 0);
        EXPECT_EQ(network.sent.back().fd, Key_getSocketFd(rtm | type));
    }
    EXPECT_EQ(statsOf(rtm).sent, 2u);
    // The history keeps the last 256.
    zelEnableIpcHistoryLogging();
    for (std::uint32_t i = 0; i < 300; ++i) {
        zelIpcHdrSet32(bytes.data(), 12, i);
        zelIpcSend(rtm, bytes.data(), 64);
    }
    zelDisableIpcHistoryLogging();
    zelIpcSend(rtm, bytes.data(), 64);
    testing::internal::CaptureStdout();
    g_EnableLocalPrinting = 1;
    dumpIpcHistoryLogging();
    g_EnableLocalPrinting = 0;
    const std::string text = testing::internal::GetCapturedStdout();
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 256);
    EXPECT_EQ(text.find("type 43 "), std::string::npos);
    EXPECT_NE(text.find("type 44 "), std::string::npos);
}

}  // namespace
