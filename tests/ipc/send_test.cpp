// Plain sending and receiving over real sockets: what is delivered, what is dropped and counted, and how long it takes.
#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <thread>

#include "tests/ipc/peer.h"
#include "tests/support/child.h"
#include "tests/support/fake_network.h"
#include "tests/support/random.h"

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
    static Message message(std::uint32_t type = 0, std::uint32_t transaction = 0) {
        return {.type = type, .transaction = transaction, .sourceQueue = bgp | 2, .targetQueue = rtm | 1};
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
    Message lateAck = message(1, 2);
    lateAck.command = ZEL_IPC_GACK_FIRST;
    send(lateAck);
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
    struct Row {
        std::uint32_t wantedType, wantedTransaction, type, transaction;
        std::uint8_t command;
        bool isTaken;
    };
    const Row rows[] = {
        {0, 0, 5, 6, ZEL_IPC_DEF, true},  {5, 6, 5, 6, ZEL_IPC_DEF, true},   {5, 6, 5, 7, ZEL_IPC_DEF, false},
        {5, 0, 5, 6, ZEL_IPC_DEF, false}, {5, 0, 5, 0, ZEL_IPC_DEF, true},   {0, 6, 5, 6, ZEL_IPC_DEF, false},
        {0, 6, 0, 6, ZEL_IPC_GACK, true}, {5, 6, 5, 6, ZEL_IPC_GACK, false}, {0, 0, 5, 6, ZEL_IPC_GACK_FIRST, true},
        {5, 6, 5, 6, ZEL_IPC_RSP, true},
    };
    for (const Row &row : rows) {
        Message sent = message(row.type, row.transaction);
        sent.command = row.command;
        send(sent);
        const int length = receive(rtm, buffer, 0, row.wantedType, row.wantedTransaction);
        EXPECT_EQ(length, row.isTaken ? 64 : -1) << row.wantedType << " " << row.wantedTransaction << " <- " << row.type
                                                 << " " << row.transaction << " " << int{row.command};
    }
}

TEST_F(Receive, AcknowledgesBeforeItLooksWhetherTheMessageIsWanted) {
    Message asked = message(5, 6);
    asked.command = ZEL_IPC_GRT;
    send(asked);
    EXPECT_EQ(receive(rtm, buffer, 0), 64) << "no flag: no acknowledgement";
    EXPECT_TRUE(peer.receive(20).empty());
    asked.flag = 2;
    send(asked);
    EXPECT_EQ(receive(rtm, buffer, 0, 9, 9), -1);
    const Bytes ack = peer.receive();
    ASSERT_EQ(ack.size(), 60u);
    EXPECT_EQ(ack[4], ZEL_IPC_ACK);
    EXPECT_EQ(zelIpcHdrGet32(ack.data(), 32), 6u);
    EXPECT_EQ(statsOf(rtm).droppedMismatch, 1u);
}

TEST_F(Receive, RefusalsNameTheError) {
    Bytes huge(65508);
    zelIpcSetTargetHeader(huge.data(), zelPlatformIpcAddress(), 0, 76, 0);
    struct Row {
        const char *what;
        std::function<int()> call;
        int error;  // 0: any
    };
    const Row rows[] = {
        {"short buffer", [&] { return zelIpcRecv(rtm, buffer.data(), 59, 0, 0, 0); }, EINVAL},
        {"no buffer", [] { return zelIpcRecv(rtm, nullptr, 100, 0, 0, 0); }, EINVAL},
        {"negative wait", [&] { return receive(rtm, buffer, -2); }, EINVAL},
        {"not open", [&] { return receive(77 << 7, buffer, 0); }, EBADF},
        {"no such service", [&] { return receive(12 << 7, buffer, 0); }, EINVAL},
        {"nothing there", [&] { return receive(rtm, buffer, 0); }, ETIMEDOUT},
        {"send: not open", [&] { return zelIpcSend(77 << 7, buffer.data(), 64); }, EBADF},
        {"send: no such service", [&] { return zelIpcNonGuaranteedSend(12 << 7, buffer.data(), 64); }, EINVAL},
        {"request: no message", [] { return zelIpcSendWait(rtm, nullptr, 64, 64, 1, 0); }, 0},
        {"request: no room for an answer", [&] { return zelIpcSendWait(rtm, buffer.data(), 64, 59, 1, 0); }, 0},
        {"request: not open", [&] { return zelIpcSendWait(bgp, buffer.data(), 64, 64, 1, 0); }, 0},
        {"reply: not open", [&] { return zelIpcReply(bgp, buffer.data(), 64); }, 0},
        {"reply: no header", [&] { return zelIpcReply(rtm, buffer.data(), 59); }, 0},
        {"guaranteed: no header", [&] { return zelIpcGuaranteedSend(rtm, buffer.data(), 59, 0); }, 0},
        {"guaranteed: not open", [&] { return zelIpcGuaranteedSend(bgp, buffer.data(), 64, 0); }, 0},
        {"send: no header", [&] { return zelIpcSend(rtm, buffer.data(), 59); }, EMSGSIZE},
        {"send: larger than a datagram", [&] { return zelIpcSend(rtm, huge.data(), 65508); }, EMSGSIZE},
    };
    for (const Row &row : rows) {
        errno = 0;
        EXPECT_EQ(row.call(), -1) << row.what;
        EXPECT_EQ(row.error == 0 ? 0 : errno, row.error) << row.what;
    }
    EXPECT_EQ(statsOf(rtm).sendFailures, 1u) << "the others were not tried";
}

// One deadline each: neither junk that keeps coming nor another receiver's longer wait makes it later.
TEST_F(Receive, EndsAtItsDeadlineUnderSteadyJunk) {
    Bytes other(100);
    Task longer([&] { return receive(rtm, other, 60); });
    startAndSettle(longer);
    std::atomic<bool> stop{false};
    std::thread junk([&] {
        while (!stop) {
            peer.send(Bytes(60, 1), rtm | 1);
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
    });
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(receive(rtm, buffer, 1), -1);
    EXPECT_EQ(errno, ETIMEDOUT);
    const auto took = std::chrono::steady_clock::now() - begin;
    stop = true;
    junk.join();
    EXPECT_GE(took, std::chrono::milliseconds(999));
    EXPECT_LT(took, std::chrono::seconds(20));
    EXPECT_GT(statsOf(rtm).droppedMagic, 2u);
    send(message());
    EXPECT_EQ(longer.result(), 64);
}

// Every length that can hold part of a header, with and without the magic, and mutations of real messages: each is
// delivered or counted, and no read goes beyond the datagram (the sanitizers look).
TEST_F(Receive, SurvivesWhateverArrives) {
    Random random = seeded();
    std::vector<Bytes> datagrams;
    for (std::size_t length = 0; length <= 60; ++length)
        for (const bool isMagic : {false, true}) {
            Bytes bytes(length);
            for (auto &byte : bytes) byte = static_cast<std::uint8_t>(random());
            if (isMagic && length >= 4) zelIpcHdrSet32(bytes.data(), 0, ZEL_IPC_MAGIC);
            datagrams.push_back(bytes);
        }
    for (int i = 0; i < (isFullRun() ? 200'000 : 2'000); ++i) {
        Message seed = message(random() % 3, random() % 3);
        seed.command = static_cast<std::uint8_t>(random() % 14);
        seed.length = 60 + random() % 100;
        Bytes bytes = seed.bytes();
        for (unsigned changes = random() % 4; changes > 0; --changes)
            bytes[random() % bytes.size()] = static_cast<std::uint8_t>(random());
        if (random() % 8 == 0) bytes.resize(random() % 61);
        datagrams.push_back(bytes);
    }
    FakeNetwork network;
    int delivered = 0;
    for (const Bytes &bytes : datagrams) {
        network.arrive(Key_getSocketFd(rtm), bytes);
        Bytes small(60 + random() % 60);
        delivered += receive(rtm, small, 1, random() % 2, random() % 2) > 0 ? 1 : 0;
    }
    EXPECT_DOUBLE_EQ(network.seconds(), static_cast<double>(datagrams.size()) - delivered);
    const zelIpcQueueStats stats = statsOf(rtm);
    EXPECT_EQ(stats.received, static_cast<unsigned>(delivered));
    EXPECT_EQ(stats.received + stats.droppedShort + stats.droppedMagic + stats.droppedMismatch + stats.droppedLateAck +
                  stats.droppedDuplicate,
              datagrams.size());
}

TEST_F(Receive, LooksWithoutTaking) {
    EXPECT_EQ(zelIpcPeekMsg(rtm, buffer.data(), 1000), 0);
    send(message(1));
    send(message(2));
    ASSERT_TRUE(eventually(10, [] { return zelIpcGetNumMsgs(rtm) == 2; }));
    EXPECT_EQ(zelIpcGetNumMsgs(rtm), 2) << "counting takes nothing";
    EXPECT_EQ(zelIpcPeekMsg(rtm, buffer.data(), 40), 40);
    EXPECT_EQ(zelIpcPeekMsg(rtm, buffer.data(), 1000), 64);
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

TEST_F(Receive, TaskDeletedWhileItWaitsIsGone) {
    Task waiting([this] { return receive(rtm, buffer, -1); });
    startAndSettle(waiting);
    EXPECT_EQ(taskDelete(waiting.id()), 0);
    EXPECT_FALSE(waiting.isDone());
    send(message());
    EXPECT_EQ(receive(rtm, buffer), 64) << "the next receiver is the only one again";
}

TEST_F(Receive, SuspendedTaskReadsNothingUntilItIsResumed) {
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
    int found = 0;
    for (auto at = text.find("SEND"); at != std::string::npos; at = text.find("SEND", at + 1)) ++found;
    EXPECT_EQ(found, 256);
    EXPECT_EQ(text.find("type 43 "), std::string::npos);
    EXPECT_NE(text.find("type 44 "), std::string::npos);
}

// Another CPU: another address, and shared memory of its own.
ZEL_CHILD(otherCpu) {
    const auto target = static_cast<std::uint32_t>(strtoul(argv[0], nullptr, 10));
    if (zelIpcOpen(76, 0) != static_cast<int>(rtm) || zelTaskIsDuplicate(61, 0, nullptr) != 0) return 1;
    Bytes request(64);
    zelIpcSetTargetHeader(request.data(), target, 0, 61, 0);
    zelIpcHdrSet32(request.data(), 32, 77);
    const int length = zelIpcSendWait(rtm, request.data(), 64, 64, 20, 5);
    return length == 64 && zelIpcHdrGet32(request.data(), 60) == 0xabcd ? 0 : 2;
}

TEST(Send, ReachesAnotherCpuThatUsesTheSamePorts) {
    const std::uint32_t own = zelPlatformIpcAddress();
    ASSERT_NE(zelIpcOpen(61, 0), -1);
    ASSERT_NE(zelIpcOpen(76, 0), -1);
    in_addr other{htonl(own ^ 0x00800000)};
    setenv("ZEL_IPC_ADDR", inet_ntoa(other), 1);
    Child child = Child::start("otherCpu", {std::to_string(own)});
    Bytes buffer(64);
    ASSERT_EQ(receive(bgp, buffer, 20), 64);
    EXPECT_EQ(zelIpcHdrGet32(buffer.data(), 40), own ^ 0x00800000);
    zelIpcHdrSet32(buffer.data(), 60, 0xabcd);
    EXPECT_EQ(zelIpcReply(bgp, buffer.data(), 64), 0);
    EXPECT_EQ(child.wait(), 0);
}

}  // namespace
