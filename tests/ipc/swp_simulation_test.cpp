// Streams over a bad network: everything arrives, in order, once. Sender and receiver are the calls that programs make;
// the network, the clock and the timer task are simulated.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <memory>
#include <utility>

#include "tests/ipc/swp_world.h"
#include "tests/support/random.h"

namespace zel::test {
namespace {

constexpr unsigned messageBytes = 140, counterAt = 132;
constexpr uint32_t capacity = 64;
constexpr Faults aBitOfAll{.loss = 0.01, .duplication = 0.05, .reordering = 0.05};

// A stream from service 61 to service 76 of messages that carry their own number.
class Stream {
public:
    Stream(World &world, uint32_t total, uint32_t window = 8, uint32_t ackInterval = 1)
        : world_(world), total_(total), buffers_(capacity + 1) {
        world.network.watch = {};
        zelSwp_log_limit = 1'000'000'000;
        EXPECT_EQ(zelSwpQueueCreate(61, 0, 76, 0, capacity, window, 1, 255, World::note, &queue), 0);
        startReceiver(ackInterval);
        world.network.onArrival[zel_getQueueId(76, 0, 1)] = [this] { receive(); };
        world.network.onArrival[zel_getQueueId(61, 0, 1)] = [this] { processAcks(); };
    }

    // False when not everything arrived within that many seconds.
    bool run(uint64_t seconds) {
        produce();
        return world_.network.runUntil([this] { return highest == total_ && released == total_; }, seconds);
    }
    void startReceiver(uint32_t ackInterval) {
        receiver_.reset(zelSwpReceiverCreate(world_.receiverKey, 0, ackInterval));
    }
    // What an application does that hears of a lost receiver: all that was not acknowledged, in a new stream.
    void resendUnacknowledged() {
        EXPECT_EQ(zelSwpQueueFlush(queue), 0);
        next = released;
        produce();
    }
    zelSwpReceiverStats stats() const {
        zelSwpReceiverStats stats{};
        zelSwpReceiverGetStats(receiver_.get(), &stats);
        return stats;
    }

    uint32_t queue = 0;
    uint32_t next = 0;      // to be enqueued
    uint32_t released = 0;  // acknowledged and dequeued
    uint32_t highest = 0;   // one above the highest delivered
    uint32_t missing = 0, repeated = 0;
    std::function<void(uint32_t number)> onDelivery;

private:
    struct Destroy {
        void operator()(zelSwpReceiver *receiver) const { zelSwpReceiverDestroy(receiver); }
    };

    void produce() {
        while (next < total_) {
            uint8_t *message = buffers_[next % buffers_.size()].data();
            zelIpcHdrSet32(message, counterAt, next);
            if (zelSwpEnqueue(queue, message, messageBytes) != 0) return;
            ++next;
        }
    }
    void receive() {
        uint8_t message[messageBytes];
        for (int length; (length = zelIpcRecv(world_.receiverKey, message, sizeof message, 0, 0, 0)) > 0;) {
            if (zelSwpReceiverAccept(receiver_.get(), message, length) != 1) continue;
            const uint32_t number = zelIpcHdrGet32(message, counterAt);
            if (number > highest) ++missing;
            if (number < highest) ++repeated;
            highest = std::max(highest, number + 1);
            if (onDelivery) onDelivery(number);
        }
    }
    void processAcks() {
        uint8_t ack[messageBytes];
        for (int length; (length = zelIpcRecv(world_.senderKey, ack, sizeof ack, 0, 0, 0)) > 0;)
            zelSwpProcAck(ack, length, nullptr);
        for (void *message = nullptr; zelSwpDequeue(queue, &message) == 0; ++released)
            EXPECT_EQ(zelIpcHdrGet32(message, counterAt), released);
        produce();
    }

    World &world_;
    const uint32_t total_;
    std::vector<std::array<uint8_t, messageBytes>> buffers_;
    std::unique_ptr<zelSwpReceiver, Destroy> receiver_;
};

struct Case {
    int lossPercent;
    uint32_t window, ackInterval;
};

class SwpSimulation : public testing::TestWithParam<Case> {};

TEST_P(SwpSimulation, AllDeliveredInOrderOnce) {
    const auto &[lossPercent, window, ackInterval] = GetParam();
    const unsigned first = seeded()();
    const unsigned seeds = isFullRun() ? 10 : 3;
    for (unsigned seed = first; seed != first + seeds; ++seed) {
        const uint32_t total = !isFullRun() ? 4'000 : seed == first ? 1'000'000 : 100'000;
        World world(seed, {.loss = lossPercent / 100.0, .duplication = 0.05, .reordering = 0.05});
        Stream stream(world, total, window, ackInterval);
        ASSERT_TRUE(stream.run(10ull * total)) << "delivered " << stream.highest;
        EXPECT_EQ(stream.missing + stream.repeated, 0u);
        EXPECT_TRUE(std::all_of(world.codes.begin(), world.codes.end(), [](int code) { return code == 7; }))
            << "only ever told that the queue is full";
        const zelSwpStatus status = statusOf(stream.queue);
        EXPECT_EQ(status.sent, total);
        EXPECT_EQ(status.memory, 0u);
        EXPECT_EQ(stream.stats().accepted, total);
        // Every loss costs at most a flight, and what is only overtaken is not resent again and again.
        EXPECT_LT(status.retransmitted, (world.network.lost + world.network.carried / 10 + 10) * window);
    }
}

INSTANTIATE_TEST_SUITE_P(Losses, SwpSimulation,
                         testing::Values(Case{1, 1, 1}, Case{1, 8, 1}, Case{1, 14, 1}, Case{10, 1, 1}, Case{10, 8, 1},
                                         Case{10, 14, 1}, Case{30, 1, 1}, Case{30, 8, 1}, Case{30, 14, 1},
                                         Case{10, 8, 4}));

TEST(SwpRecovery, OneLossCostsOneFlight) {
    World world;
    Stream stream(world, 5'000);
    world.network.watch = [&](uint32_t port, const Bytes &) {
        const bool isUnlucky = port == zel_getQueueId(76, 0, 1) && stream.next % 1'000 == 500;
        world.network.faults.loss = isUnlucky ? 1 : 0;
    };
    ASSERT_TRUE(stream.run(60));
    EXPECT_GT(world.network.lost, 0u);
    EXPECT_LE(statusOf(stream.queue).retransmitted, 8 * world.network.lost);
    EXPECT_EQ(stream.missing + stream.repeated, 0u);
}

TEST(SwpRecovery, RestartedReceiverIsNoticed) {
    World world(seeded()(), aBitOfAll);
    Stream stream(world, 3'000);
    stream.onDelivery = [&, isDue = true](uint32_t number) mutable {
        if (number == 1'500 && std::exchange(isDue, false)) stream.startReceiver(1);
    };
    int restarts = 0;
    world.onNote = [&](int code) {
        if (code == ZEL_SWP_SEQ_FAILURE && ++restarts > 0) stream.resendUnacknowledged();
    };
    ASSERT_TRUE(stream.run(3'600));
    EXPECT_EQ(restarts, 1) << "told once, whatever was in flight";
    EXPECT_EQ(stream.missing, 0u);
    EXPECT_LE(stream.repeated, 64u) << "at most what was not yet acknowledged comes twice";
}

TEST(SwpRecovery, AReplayedMessageZeroDisturbsNothing) {
    World world;
    Stream stream(world, 2'000);
    Bytes first;
    world.network.watch = [&](uint32_t port, const Bytes &bytes) {
        if (port != zel_getQueueId(76, 0, 1)) return;
        if (first.empty()) first = bytes;
        if (stream.next % 50 == 0) world.network.inject(port, first);
    };
    ASSERT_TRUE(stream.run(600));
    EXPECT_EQ(stream.missing + stream.repeated, 0u);
    EXPECT_GT(stream.stats().duplicates, 5u);
    EXPECT_EQ(stream.stats().streams, 1u);
}

}  // namespace
}  // namespace zel::test
