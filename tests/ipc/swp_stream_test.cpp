// Streams between real processes over real sockets, straight and through a relay that loses datagrams.
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "platform/datagram.h"
#include "tests/support/child.h"
#include "tests/support/eventually.h"
#include "tests/support/random.h"
#include "zel/ipc.h"
#include "zel/kernel.h"
#include "zel/platform.h"

namespace zel::test {
namespace {

constexpr int messageBytes = 1024;
constexpr uint32_t endOfTest = 999, capacity = 64;

// Carries its number at both ends of its body.
struct Message {
    uint8_t bytes[messageBytes] = {};
    void fill(uint32_t number) {
        for (const unsigned at : {132u, messageBytes - 4u}) zelIpcHdrSet32(bytes, at, number);
    }
    bool isWhole(uint32_t number) const {
        return zelIpcHdrGet32(bytes, 132) == number && zelIpcHdrGet32(bytes, messageBytes - 4) == number;
    }
};

// swpReceive TOTAL INTERVAL [all alike]: takes the stream in until the sender says that it is over; ends well when all
// that was expected had come, in order, once.
ZEL_CHILD(swpReceive) {
    const auto total = static_cast<uint32_t>(atol(argv[0]));
    const auto interval = static_cast<uint32_t>(atol(argv[1]));
    const auto key = static_cast<uint32_t>(zelIpcOpen(76, 0));
    zelSwpReceiver *receiver = zelSwpReceiverCreate(key, 0, interval);
    Message message;
    uint32_t delivered = 0;
    for (;;) {
        const int length = zelIpcRecv(key, message.bytes, messageBytes, 60, 0, 0);
        if (length < 0) return 3;
        if (zelIpcHdrGet32(message.bytes, 12) == endOfTest) break;
        if (zelSwpReceiverAccept(receiver, message.bytes, length) != ZEL_SWP_MATCHED) continue;
        if (length != messageBytes || !message.isWhole(argc > 2 ? 0 : delivered)) return 4;
        ++delivered;
    }
    zelSwpReceiverDestroy(receiver);
    return delivered == total ? 0 : 5;
}

Child startReceiver(uint32_t total, std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), std::to_string(total));
    Child receiver = Child::start("swpReceive", arguments);
    EXPECT_TRUE(eventually(30, [] { return zelTaskIsDuplicate(76, 0, nullptr) == 1; }));
    return receiver;
}

class Sender {
public:
    explicit Sender(uint32_t relayData = 0, uint32_t relayAcks = 0) {
        vx2bsd_start(0, 1, 100, 100);
        key = static_cast<uint32_t>(zelIpcOpen(61, 0));
        zelTmeSetTaskEntry(76, 0, ZEL_TME_HERE, zel_sysGetIpAddr());
        const auto onFailure = [](void *, int code) { EXPECT_EQ(code, ZEL_SWP_QUEUE_FULL); };
        EXPECT_EQ(zelSwpQueueCreateQs(61, 0, 76, 0, capacity, 8, 1, 255, onFailure, relayAcks, 0, relayData, &queue),
                  0);
    }
    ~Sender() {
        zelSwpQueueRemove(queue);
        zelIpcClose(key);
    }

    // Waits for an acknowledgement that releases messages, and gives them to `free`; how many, 0 after 30 seconds.
    uint32_t release(void (*free)(void *) = nullptr) {
        uint8_t ack[200];
        uint32_t released = 0;
        while (released == 0) {
            const int length = zelIpcRecv(key, ack, sizeof ack, 30, 0, 0);
            if (length < 0) return 0;
            zelSwpProcAck(ack, length, nullptr);
            for (void *message = nullptr; zelSwpDequeue(queue, &message) == 0; ++released)
                if (free) free(message);
        }
        return released;
    }
    bool send(uint32_t total) {
        std::vector<Message> buffers(capacity + 1);
        for (uint32_t next = 0, released = 0, more = 1; released < total; released += more) {
            for (; next < total && zelSwpQueueGetLen(queue) < static_cast<int>(capacity); ++next) {
                Message &message = buffers[next % buffers.size()];
                message.fill(next);
                if (zelSwpEnqueue(queue, message.bytes, messageBytes) != 0) return false;
            }
            more = release();
            if (more == 0) return false;
        }
        return true;
    }
    // Ends the receiver; how it ended.
    int end(Child &receiver) {
        Message over;
        zelIpcSetTargetHeader(over.bytes, zel_sysGetIpAddr(), 0, 76, 0);
        zelIpcHdrSet32(over.bytes, 12, endOfTest);
        EXPECT_EQ(zelIpcNonGuaranteedSend(key, over.bytes, 64), 0);
        return receiver.wait();
    }

    uint32_t key = 0, queue = 0;
};

class SwpStream : public testing::TestWithParam<const char *> {};

TEST_P(SwpStream, BetweenTwoProcesses) {
    const uint32_t total = isFullRun() ? 1'000'000 : 20'000;
    Child receiver = startReceiver(total, {GetParam()});
    Sender sender;
    ASSERT_TRUE(sender.send(total));
    EXPECT_EQ(sender.end(receiver), 0);
    zelSwpStatus status{};
    EXPECT_EQ(zelSwpGetQueueStatus(sender.queue, &status), 0);
    EXPECT_EQ(status.acknowledged, total);
    EXPECT_EQ(status.refusedAcks, 0u);
}

INSTANTIATE_TEST_SUITE_P(AckEvery, SwpStream, testing::Values("1", "4"));

// Tasks that enqueue side by side, one that takes in acknowledgements, one that tunes, and the timer task.
TEST(SwpThreads, ManyUseOneQueue) {
    constexpr uint32_t producers = 3, each = 2'000, total = producers * each;
    Child receiver = startReceiver(total, {"2", "all alike"});
    Sender sender;
    std::atomic<bool> isOver{false};
    std::vector<std::thread> threads;
    for (uint32_t i = 0; i < producers; ++i)
        threads.emplace_back([&] {
            for (uint32_t sent = 0; sent < each; ++sent)
                for (void *message = calloc(1, messageBytes); zelSwpEnqueue(sender.queue, message, messageBytes) != 0;)
                    std::this_thread::yield();
        });
    threads.emplace_back([&] {
        for (int window = 4; !isOver; window = 16 - window) {
            zelSwpSetMwpQWinSize(sender.queue, window);
            EXPECT_LE(zelSwpQueueGetLen(sender.queue), static_cast<int>(capacity));
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    });
    for (uint32_t released = 0, more = 1; released < total; released += more)
        ASSERT_GT(more = sender.release(free), 0u);
    isOver = true;
    for (auto &thread : threads) thread.join();
    EXPECT_EQ(sender.end(receiver), 0);
}

// Forwards between two ports of its own and the two ends, and loses some of it in both directions.
ZEL_CHILD(swpRelay) {
    std::mt19937 random(static_cast<unsigned>(atol(argv[1])));
    std::bernoulli_distribution isLost(atof(argv[0]));
    pollfd ends[2];
    for (int i = 0; i < 2; ++i) ends[i] = {Key_getSocketFd(static_cast<uint32_t>(zelIpcOpen(87 + i, 0))), POLLIN, 0};
    for (;;) {
        if (poll(ends, 2, -1) < 0) return 2;
        for (int i = 0; i < 2; ++i) {
            uint8_t bytes[8192];
            const ssize_t length = recv(ends[i].fd, bytes, sizeof bytes, MSG_DONTWAIT);
            if (length < 0 || isLost(random)) continue;
            const uint32_t target = zel_getQueueId(i == 0 ? 76 : 61, 0, 1);
            const auto to = platform::socketAddress(zel_sysGetIpAddr(), static_cast<uint16_t>(target));
            sendto(ends[i].fd, bytes, static_cast<size_t>(length), 0, reinterpret_cast<const sockaddr *>(&to),
                   sizeof to);
        }
    }
}

TEST(SwpRelay, OnePercentIsLostOnTheWay) {
    const uint32_t total = isFullRun() ? 20'000 : 200;
    const Child relay = Child::start("swpRelay", {"0.01", std::to_string(seeded()())});
    Child receiver = startReceiver(total, {"1"});
    for (const int end : {87, 88})
        ASSERT_TRUE(eventually(30, [&] { return zelTaskIsDuplicate(end, 0, nullptr) == 1; }));
    Sender sender(zel_getQueueId(87, 0, 1), zel_getQueueId(88, 0, 1));
    ASSERT_TRUE(sender.send(total));
    EXPECT_EQ(sender.end(receiver), 0);
}

}  // namespace
}  // namespace zel::test
