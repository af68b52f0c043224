// Streams over a bad network: everything arrives, in order, once. Sender and receiver are the calls that programs make;
// the network, the clock and the timer task are simulated.
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>

#include "tests/ipc/swp_world.h"
#include "tests/support/random.h"

namespace zel::test {
namespace {

constexpr unsigned messageBytes = 140;
constexpr unsigned counterAt = 132;

// A stream from service 61 to service 76 of messages that carry their own number.
class Stream {
public:
    Stream(World &world, uint32_t total, int window, uint32_t capacity, uint32_t ackInterval)
        : world_(world), total_(total), buffers_(capacity + 1) {
        world.network.watch({});
        zelSwp_log_limit = 1'000'000'000;
        EXPECT_EQ(zelSwpQueueCreate(61, 0, 76, 0, capacity, static_cast<uint32_t>(window), 1, 255, World::note, &queue),
                  0);
        receiver_.reset(zelSwpReceiverCreate(world.receiverKey, 0, ackInterval));
        world.network.onArrival(zel_getQueueId(76, 0, 1), [this] { receive(); });
        world.network.onArrival(zel_getQueueId(61, 0, 1), [this] { processAcks(); });
    }

    bool run(uint64_t seconds) {
        produce();
        return world_.network.runUntil([this] { return isDone(); }, seconds);
    }
    bool isDone() const { return delivered == total_ && zelSwpQueueGetLen(queue) == 0; }
    void produce() {
        while (next < total_) {
            uint8_t *message = buffers_[next % buffers_.size()].bytes;
            zelIpcHdrSet32(message, counterAt, next);
            if (zelSwpEnqueue(queue, message, messageBytes) != 0) return;
            ++next;
        }
    }
    void restartReceiver() { receiver_.reset(zelSwpReceiverCreate(world_.receiverKey, 0, 1)); }
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
    uint32_t next = 0;       // to be enqueued
    uint32_t released = 0;   // acknowledged and dequeued
    uint32_t delivered = 0;  // in order
    uint32_t outOfOrder = 0;
    std::function<void(uint32_t number)> onDelivery;

private:
    struct Buffer {
        uint8_t bytes[messageBytes] = {};
    };
    struct Destroy {
        void operator()(zelSwpReceiver *receiver) const { zelSwpReceiverDestroy(receiver); }
    };

    void receive() {
        uint8_t message[messageBytes];
        while (const int length = zelIpcRecv(world_.receiverKey, message, sizeof message, 0, 0, 0)) {
            if (length < 0) return;
            if (zelSwpReceiverAccept(receiver_.get(), message, length) != 1) continue;
            const uint32_t number = zelIpcHdrGet32(message, counterAt);
            if (number == delivered)
                ++delivered;
            else
                ++outOfOrder;
            if (onDelivery) onDelivery(number);
        }
    }
    void processAcks() {
        uint8_t ack[messageBytes];
        while (const int length = zelIpcRecv(world_.senderKey, ack, sizeof ack, 0, 0, 0)) {
            if (length < 0) break;
            zelSwpProcAck(ack, length, nullptr);
        }
        for (void *message = nullptr; zelSwpDequeue(queue, &message) == 0; ++released)
            EXPECT_EQ(zelIpcHdrGet32(message, counterAt), released);
        produce();
    }

    World &world_;
    uint32_t total_;
    std::vector<Buffer> buffers_;
    std::unique_ptr<zelSwpReceiver, Destroy> receiver_;
};

struct Case {
    double loss;
    int window;
    uint32_t ackInterval;
};

class SwpSimulation : public testing::TestWithParam<Case> {};

TEST_P(SwpSimulation, AllDeliveredInOrderOnce) {
    const Case &given = GetParam();
    const unsigned first = seeded()();
    const unsigned seeds = isFullRun() ? 10 : 3;
    for (unsigned seed = first; seed != first + seeds; ++seed) {
        const uint32_t total = !isFullRun() ? 4'000 : seed == first ? 1'000'000 : 100'000;
        World world(seed, {.loss = given.loss, .duplication = 0.05, .reordering = 0.05});
        Stream stream(world, total, given.window, 64, given.ackInterval);
        ASSERT_TRUE(stream.run(10ull * total)) << "delivered " << stream.delivered;
        EXPECT_EQ(stream.outOfOrder, 0u);
        EXPECT_TRUE(std::all_of(world.codes.begin(), world.codes.end(), [](int code) { return code == 7; }))
            << "only ever told that the queue is full";
        const zelSwpStatus status = statusOf(stream.queue);
        EXPECT_EQ(status.acknowledged, total);
        EXPECT_EQ(status.sent, total);
        EXPECT_EQ(status.memory, 0u);
        EXPECT_EQ(stream.stats().accepted, total);
        // Every loss costs at most a flight, and what is only overtaken is not resent again and again.
        const auto flights = world.network.lost() + world.network.carried() / 10 + 10;
        EXPECT_LT(status.retransmitted, flights * static_cast<uint64_t>(given.window));
    }
}

INSTANTIATE_TEST_SUITE_P(Losses, SwpSimulation,
                         testing::Values(Case{0.01, 1, 1}, Case{0.01, 8, 1}, Case{0.01, 14, 1}, Case{0.10, 1, 1},
                                         Case{0.10, 8, 1}, Case{0.10, 14, 1}, Case{0.30, 1, 1}, Case{0.30, 8, 1},
                                         Case{0.30, 14, 1}, Case{0.10, 8, 4}),
                         [](const testing::TestParamInfo<Case> &given) {
                             return "Loss" + std::to_string(static_cast<int>(given.param.loss * 100)) + "Window" +
                                    std::to_string(given.param.window) + "AckEvery" +
                                    std::to_string(given.param.ackInterval);
                         });

TEST(SwpRecovery, OneLossCostsOneFlight) {
    World world(1);
    Stream stream(world, 5'000, 8, 64, 1);
    world.network.watch([&](uint32_t port, const Simulation::Bytes &) {
        const bool isUnlucky = port == zel_getQueueId(76, 0, 1) && stream.next % 1'000 == 500;
        world.network.setFaults({.loss = isUnlucky ? 1.0 : 0.0});
    });
    ASSERT_TRUE(stream.run(60));
    const zelSwpStatus status = statusOf(stream.queue);
    EXPECT_GT(world.network.lost(), 0u);
    EXPECT_LE(status.retransmitted, 8 * world.network.lost());
    EXPECT_EQ(stream.outOfOrder, 0u);
}

TEST(SwpRecovery, RestartedReceiverIsNoticed) {
    World world(seeded()(), {.loss = 0.01, .duplication = 0.05, .reordering = 0.05});
    Stream stream(world, 3'000, 8, 64, 1);
    int restarts = 0;
    uint32_t highest = 0, missing = 0;
    bool isRestartDue = true;
    stream.onDelivery = [&](uint32_t number) {
        if (number > highest + 1) ++missing;
        highest = std::max(highest, number);
        if (number != 1'500 || !isRestartDue) return;
        isRestartDue = false;
        stream.restartReceiver();
    };
    world.onNote = [&](int code) {
        if (code != ZEL_SWP_SEQ_FAILURE) return;
        ++restarts;
        stream.resendUnacknowledged();
    };
    stream.produce();
    ASSERT_TRUE(
        world.network.runUntil([&] { return highest == 2'999 && zelSwpQueueGetLen(stream.queue) == 0; }, 3'600));
    EXPECT_EQ(restarts, 1) << "told once, whatever was in flight";
    EXPECT_EQ(missing, 0u);
    EXPECT_LE(stream.outOfOrder, 64u) << "at most what was not yet acknowledged comes twice";
}

TEST(SwpRecovery, ReplaysAndOldStreamsDisturbNothing) {
    World world(1);
    Stream stream(world, 2'000, 8, 64, 1);
    Simulation::Bytes first;
    world.network.watch([&](uint32_t port, const Simulation::Bytes &bytes) {
        if (port != zel_getQueueId(76, 0, 1)) return;
        if (first.empty()) first = bytes;
        if (stream.next % 50 == 0) world.network.inject(port, first);
    });
    ASSERT_TRUE(stream.run(600));
    EXPECT_EQ(stream.outOfOrder, 0u);
    EXPECT_GT(stream.stats().duplicates, 5u);
    EXPECT_EQ(stream.stats().streams, 1u);
}

}  // namespace
}  // namespace zel::test
