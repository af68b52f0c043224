// Streams between real processes over real sockets, straight and through a relay that loses datagrams.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/child.h"
#include "tests/support/eventually.h"
#include "tests/support/random.h"
#include "zel/ipc.h"
#include "zel/kernel.h"
#include "zel/platform.h"

namespace zel::test {
namespace {

constexpr int messageBytes = 1024;
constexpr uint32_t endOfTest = 999;
constexpr uint32_t capacity = 64;

struct Message {
    uint8_t bytes[messageBytes] = {};

    void fill(uint32_t number) {
        zelIpcHdrSet32(bytes, 132, number);
        memset(bytes + 136, static_cast<int>(number % 251), messageBytes - 136);
    }
    bool isWhole(uint32_t number, int length) const {
        if (length != messageBytes || zelIpcHdrGet32(bytes, 132) != number) return false;
        for (int i = 136; i < messageBytes; ++i)
            if (bytes[i] != number % 251) return false;
        return true;
    }
};

// Takes the stream in; ends well when all that was expected had come, in order, once, when the sender says it is over.
ZEL_CHILD(swpReceive) {
    const auto total = static_cast<uint32_t>(atol(argv[0]));
    const auto interval = static_cast<uint32_t>(atol(argv[1]));
    const int key = zelIpcOpen(76, 0);
    if (key < 0) return 2;
    zelSwpReceiver *receiver = zelSwpReceiverCreate(static_cast<uint32_t>(key), 0, interval);
    uint32_t delivered = 0;
    Message message;
    for (;;) {
        const int length = zelIpcRecv(static_cast<uint32_t>(key), message.bytes, messageBytes, 60, 0, 0);
        if (length < 0) return 3;
        if (zelIpcHdrGet32(message.bytes, 12) == endOfTest) break;
        if (zelSwpReceiverAccept(receiver, message.bytes, length) != ZEL_SWP_MATCHED) continue;
        if (!message.isWhole(delivered, length)) return 4;
        ++delivered;
    }
    zelSwpReceiverDestroy(receiver);
    zelIpcClose(static_cast<uint32_t>(key));
    return delivered == total ? 0 : 5;
}

class Sender {
public:
    explicit Sender(uint32_t relayData = 0, uint32_t relayAcks = 0) : buffers_(capacity + 1) {
        vx2bsd_start(0, 1, 100, 100);
        key = static_cast<uint32_t>(zelIpcOpen(61, 0));
        zelTmeSetTaskEntry(76, 0, ZEL_TME_HERE, zel_sysGetIpAddr());
        EXPECT_EQ(zelSwpQueueCreateQs(61, 0, 76, 0, capacity, 8, 1, 255, onFailure, relayAcks, 0, relayData, &queue),
                  0);
    }
    ~Sender() {
        zelSwpQueueRemove(queue);
        zelIpcClose(key);
    }

    // False when acknowledgements stay out for 30 seconds.
    bool send(uint32_t total) {
        uint32_t next = 0;
        for (uint32_t released = 0; released < total;) {
            for (; next < total; ++next) {
                Message &message = buffers_[next % buffers_.size()];
                if (zelSwpQueueGetLen(queue) == static_cast<int>(capacity)) break;
                message.fill(next);
                if (zelSwpEnqueue(queue, message.bytes, messageBytes) != 0) return false;
            }
            uint8_t ack[200];
            const int length = zelIpcRecv(key, ack, sizeof ack, 30, 0, 0);
            if (length < 0) return false;
            zelSwpProcAck(ack, length, nullptr);
            for (void *message = nullptr; zelSwpDequeue(queue, &message) == 0;) ++released;
        }
        return true;
    }
    void sayItIsOver() {
        Message message;
        zelIpcSetTargetHeader(message.bytes, zel_sysGetIpAddr(), 0, 76, 0);
        zelIpcHdrSet32(message.bytes, 12, endOfTest);
        EXPECT_EQ(zelIpcNonGuaranteedSend(key, message.bytes, 64), 0);
    }

    uint32_t key = 0;
    uint32_t queue = 0;

private:
    static void onFailure(void *, int code) { EXPECT_EQ(code, ZEL_SWP_QUEUE_FULL); }
    std::vector<Message> buffers_;
};

bool isOpen(int service) {
    return zelTaskIsDuplicate(service, 0, nullptr) == 1;
}

class SwpStream : public testing::TestWithParam<uint32_t> {};

TEST_P(SwpStream, BetweenTwoProcesses) {
    const uint32_t total = isFullRun() ? 1'000'000 : 20'000;
    Child receiver = Child::start("swpReceive", {std::to_string(total), std::to_string(GetParam())});
    ASSERT_TRUE(eventually(30, [] { return isOpen(76); }));
    Sender sender;
    ASSERT_TRUE(sender.send(total));
    sender.sayItIsOver();
    EXPECT_EQ(receiver.wait(), 0);
    zelSwpStatus status{};
    EXPECT_EQ(zelSwpGetQueueStatus(sender.queue, &status), 0);
    EXPECT_EQ(status.acknowledged, total);
    EXPECT_EQ(status.refusedAcks, 0u);
}

INSTANTIATE_TEST_SUITE_P(AckEvery, SwpStream, testing::Values(1u, 4u));

// Tasks that enqueue side by side, one that takes in acknowledgements, one that tunes, and the timer task.
TEST(SwpThreads, ManyUseOneQueue) {
    constexpr uint32_t producers = 3, each = 2'000, total = producers * each;
    Sender sender;
    const auto receiverKey = static_cast<uint32_t>(zelIpcOpen(76, 0));
    const uint32_t queue = sender.queue;
    swpFifoQueue[queue].free = free;

    zelSwpReceiver *receiver = zelSwpReceiverCreate(receiverKey, 0, 2);
    std::atomic<uint32_t> released{0};
    std::atomic<bool> isOver{false};
    std::vector<std::thread> threads;
    for (uint32_t i = 0; i < producers; ++i)
        threads.emplace_back([&] {
            for (uint32_t sent = 0; sent < each;) {
                void *message = calloc(1, 200);
                if (zelSwpEnqueue(queue, message, 200) == 0) {
                    ++sent;
                    continue;
                }
                free(message);
                std::this_thread::yield();
            }
        });
    threads.emplace_back([&] {
        uint8_t message[200];
        uint32_t accepted = 0;
        while (accepted < total) {
            const int length = zelIpcRecv(receiverKey, message, sizeof message, 20, 0, 0);
            ASSERT_GT(length, 0);
            if (zelSwpReceiverAccept(receiver, message, length) == 1) ++accepted;
        }
    });
    threads.emplace_back([&] {
        for (int window = 4; !isOver; window = window == 4 ? 12 : 4) {
            zelSwpSetMwpQWinSize(queue, window);
            zelSwpStatus status{};
            zelSwpGetQueueStatus(queue, &status);
            EXPECT_LE(status.queued, capacity);
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    });
    while (released < total) {
        uint8_t ack[200];
        const int length = zelIpcRecv(sender.key, ack, sizeof ack, 20, 0, 0);
        ASSERT_GT(length, 0);
        zelSwpProcAck(ack, length, nullptr);
        for (void *message = nullptr; zelSwpDequeue(queue, &message) == 0; ++released) free(message);
    }
    isOver = true;
    for (auto &thread : threads) thread.join();
    zelSwpReceiverDestroy(receiver);
    zelIpcClose(receiverKey);
}

// Forwards between two ports of its own and the two ends, and loses some of it in both directions.
ZEL_CHILD(swpRelay) {
    const double loss = atof(argv[0]);
    std::mt19937 random(static_cast<unsigned>(atol(argv[1])));
    const uint32_t targets[] = {zel_getQueueId(76, 0, 1), zel_getQueueId(61, 0, 1)};
    pollfd ends[2];
    for (int i = 0; i < 2; ++i) ends[i] = {Key_getSocketFd(static_cast<uint32_t>(zelIpcOpen(87 + i, 0))), POLLIN, 0};
    for (;;) {
        if (poll(ends, 2, -1) < 0) return 2;
        for (int i = 0; i < 2; ++i) {
            if (ends[i].revents == 0) continue;
            uint8_t bytes[8192];
            const ssize_t length = recv(ends[i].fd, bytes, sizeof bytes, 0);
            if (length < 0 || std::uniform_real_distribution<>(0, 1)(random) < loss) continue;
            sockaddr_in to{};
            to.sin_family = AF_INET;
            to.sin_port = htons(static_cast<uint16_t>(targets[i]));
            to.sin_addr.s_addr = htonl(zel_sysGetIpAddr());
            sendto(ends[i].fd, bytes, static_cast<size_t>(length), 0, reinterpret_cast<sockaddr *>(&to), sizeof to);
        }
    }
}

TEST(SwpRelay, OnePercentIsLostOnTheWay) {
    const uint32_t total = isFullRun() ? 20'000 : 200;
    const Child relay = Child::start("swpRelay", {"0.01", std::to_string(seeded()())});
    Child receiver = Child::start("swpReceive", {std::to_string(total), "1"});
    ASSERT_TRUE(eventually(30, [] { return isOpen(76) && isOpen(87) && isOpen(88); }));
    Sender sender(zel_getQueueId(87, 0, 1), zel_getQueueId(88, 0, 1));
    ASSERT_TRUE(sender.send(total));
    sender.sayItIsOver();
    EXPECT_EQ(receiver.wait(), 0);
}

}  // namespace
}  // namespace zel::test
