// Sliding-window queues: the decisions as tables, and the queues themselves over a simulated network.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <tuple>

#include "ipc/ipc_header.h"
#include "ipc/swp_core.h"
#include "tests/ipc/swp_world.h"
#include "tests/support/child.h"

namespace zel::test {
namespace {

using namespace zel::ipc;
using namespace zel::ipc::swp;

// ---- Decisions ------------------------------------------------------------------------------------------------------

TEST(SwpNumbers, ReceiverChecksSequence) {
    struct {
        zelSwpSeq expected;
        uint32_t high, low;
        int result;
        zelSwpSeq after;
    } const rows[] = {
        {{0, 0}, 0, 0, 1, {0, 1}},  // the first
        {{0, 9}, 0, 0, 1, {0, 1}},  // a restart
        {{0, 5}, 0, 5, 1, {0, 6}},          {{0, 5}, 0, 4, 2, {0, 5}}, {{0, 5}, 0, 1, 2, {0, 5}},
        {{0, 5}, 0, 6, 4, {0, 5}},          {{0, 0}, 0, 3, 4, {0, 0}}, {{0, 0xffffffff}, 0, 0xffffffff, 1, {1, 0}},
        {{1, 0}, 0, 0xffffffff, 2, {1, 0}}, {{1, 0}, 1, 0, 1, {1, 1}},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.expected.low);
        uint8_t message[124] = {}, overLink[90] = {};
        SwpHeader::SequenceHigh::set(message + 60, row.high);
        SwpHeader::SequenceLow::set(message + 60, row.low);
        memcpy(overLink + 26, message + 60, 64);
        zelSwpSeq expected = row.expected, expectedOverLink = row.expected;
        EXPECT_EQ(zelSwpCkSeqNo(message, &expected, sizeof message), row.result);
        EXPECT_EQ(zelSwpCkSeqNo(overLink, &expectedOverLink, -1), row.result);
        EXPECT_EQ(std::tie(expected.high, expected.low), std::tie(row.after.high, row.after.low));
        EXPECT_EQ(expectedOverLink.low, row.after.low);
        EXPECT_EQ(zelSwpCkSeqNo(message, &expected, 123), 4);
    }
}

TEST(SwpNumbers, AcknowledgementsAreJudged) {
    constexpr uint32_t stream = 77;
    // acknowledged, sent, next, resentBelow
    const Window fresh{0, 8, 20, 0}, running{10, 18, 30, 0}, recovering{10, 18, 30, 18}, idle{10, 10, 10, 0};
    const Window recoveredPart{15, 20, 30, 18}, recoveredAll{18, 24, 30, 18};
    struct {
        const char *what;
        Window window;
        Acknowledgement ack;
        AckVerdict verdict;
    } const rows[] = {
        {"releases one", running, {11, 1, stream, stream}, AckVerdict::progress},
        {"releases all in flight", running, {18, 1, stream, stream}, AckVerdict::progress},
        {"beyond what was sent", running, {19, 1, stream, stream}, AckVerdict::beyond},
        {"overtaken", running, {9, 1, stream, stream}, AckVerdict::older},
        {"a gap that releases is progress", running, {12, 4, stream, stream}, AckVerdict::progress},
        {"a duplicate's answer repeats", running, {10, 2, stream, stream}, AckVerdict::repeated},
        {"a gap repeats", running, {10, 4, stream, stream}, AckVerdict::gap},
        {"its echo", recovering, {10, 4, stream, stream}, AckVerdict::repeated},
        {"a second gap within the flight resent", recoveredPart, {15, 4, stream, stream}, AckVerdict::repeated},
        {"a new gap behind it", recoveredAll, {18, 4, stream, stream}, AckVerdict::gap},
        {"nothing in flight to resend", idle, {10, 4, stream, stream}, AckVerdict::repeated},
        {"of a flushed stream", running, {11, 1, stream - 1, stream - 1}, AckVerdict::otherStream},
        {"nothing received, in a flushed stream", running, {0, 4, 0, stream - 1}, AckVerdict::otherStream},
        {"message 0 is missing", fresh, {0, 4, 0, stream}, AckVerdict::gap},
        {"receiver restarted", running, {0, 4, 0, stream}, AckVerdict::receiverLost},
        {"the same, not saying what it answers", running, {0, 4, 0, 0}, AckVerdict::receiverLost},
        {"answer from before message 0 arrived", running, {0, 4, 0, stream, true}, AckVerdict::older},
    };
    for (const auto &row : rows) EXPECT_EQ(judge(row.window, stream, row.ack), row.verdict) << row.what;
}

TEST(SwpNumbers, StreamsAreToldApart) {
    Stream known;
    EXPECT_EQ(classify(known, 5, 3), Arrival::unknown);
    EXPECT_EQ(classify(known, 5, 0), Arrival::begins);
    for (const uint32_t stream : {5u, 6u, 7u}) {
        beginStream(known, stream);
        known.expected = 1;
    }
    EXPECT_EQ(classify(known, 7, 0), Arrival::replayed);
    EXPECT_EQ(classify(known, 7, 9), Arrival::continues);
    EXPECT_EQ(classify(known, 8, 0), Arrival::begins);
    EXPECT_EQ(classify(known, 8, 1), Arrival::unknown);
    EXPECT_EQ(classify(known, 5, 0), Arrival::stale) << "must not bring back a stream that was flushed";
    EXPECT_EQ(classify(known, 6, 4), Arrival::stale);
    beginStream(known, 0);
    known.expected = 4;
    EXPECT_EQ(classify(known, 0, 0), Arrival::begins) << "a sender without stream numbers restarts with message 0";
}

// ---- Queues -------------------------------------------------------------------------------------------------------

class SwpQueue : public testing::Test {
protected:
    World world;
};

TEST_F(SwpQueue, NineHundredAndNoMore) {
    uint32_t queue = 0;
    const auto create = [&](uint32_t seconds, int budget, zelSwpUserCb callback, int peer = 76) {
        return zelSwpQueueCreate(61, 0, peer, 0, 0, 0, seconds, static_cast<uint8_t>(budget), callback, &queue);
    };
    EXPECT_EQ(create(0, 5, World::note), 4);
    EXPECT_EQ(create(1, 0, World::note), 4);
    EXPECT_EQ(create(1, 256, World::note), 4);
    EXPECT_EQ(create(1, 5, nullptr), 4);
    EXPECT_EQ(create(1, 5, World::note, 77), 4) << "a peer that never comes up";
    for (uint32_t i = 1; i <= 900; ++i) {
        ASSERT_EQ(create(1, 5, World::note), 0);
        ASSERT_EQ(queue, i) << "a failed creation gives its block back";
    }
    EXPECT_EQ(create(1, 5, World::note), 4);
    EXPECT_EQ(statusOf(1).window, 8u);
    EXPECT_EQ(statusOf(1).capacity, 64u);
    EXPECT_EQ(statusOf(1).maxMemory, 52428800u);
    EXPECT_STREQ(statusOf(1).receiverName, "RTM0");
    EXPECT_EQ(zelSwpQueueRemove(450), 0);
    EXPECT_EQ(zelSwpQueueRemove(450), 4);
    ASSERT_EQ(create(1, 5, World::note), 0);
    EXPECT_EQ(queue, 450u);
}

ZEL_CHILD(swpHoldQueues) {
    World world;
    for (int i = 0; i < 3; ++i) world.create(8);
    printf("ready\n");
    fflush(stdout);
    for (;;) pause();
}

TEST_F(SwpQueue, OtherProcessesMayOnlyLook) {
    ASSERT_EQ(world.create(8), 1u);
    const Child child = Child::start("swpHoldQueues");
    ASSERT_TRUE(eventually(20, [] { return zelSwpIsQueueAlive(4) == 1; }));
    uint8_t message[200] = {};
    EXPECT_EQ(zelSwpEnqueue(4, message, sizeof message), 4);
    EXPECT_EQ(zelSwpQueueFlush(4), 4);
    EXPECT_EQ(zelSwpQueueRemove(4), 4);
    EXPECT_EQ(statusOf(4).pid, child.pid());
    EXPECT_EQ(zelSwpQueueGetLen(4), 0);
    EXPECT_EQ(world.create(8), 5u) << "blocks of a living process stay";
    child.signal(SIGKILL);
    ASSERT_TRUE(eventually(20, [] { return zelSwpIsQueueAlive(4) == 0; }));
    EXPECT_EQ(world.create(8), 2u) << "blocks of a dead one are taken";
    EXPECT_EQ(world.create(8), 3u);
    EXPECT_EQ(zelSwpEnqueue(2, message, sizeof message), 0);
}

// ---- Enqueue and acknowledge ----------------------------------------------------------------------------------------

TEST_F(SwpQueue, NumbersAndBuffersThatAreNone) {
    const uint32_t queue = world.create(8);
    uint8_t message[124] = {};
    void *got = message;
    for (const uint32_t bad : {0u, 901u, 2u, UINT32_MAX}) {
        EXPECT_EQ(zelSwpEnqueue(bad, message, sizeof message), 4);
        EXPECT_EQ(zelSwpDequeue(bad, &got), 4);
        EXPECT_EQ(zelSwpQueueFlush(bad), 4);
        EXPECT_EQ(zelSwpQueueRemove(bad), 4);
        EXPECT_EQ(swpRetrans(bad, 0), 4);
        EXPECT_EQ(zelSwpQueueGetLen(bad), -1);
        EXPECT_EQ(zelSwpIsQueueAlive(bad), 0);
        EXPECT_EQ(zelSwpSetMwpQWinSize(bad, 4), 4);
        EXPECT_EQ(zelSwpSetMaxMemoryAllowed(bad, 4), 4);
        zelSwpPrintq(bad);
    }
    EXPECT_EQ(got, nullptr);
    EXPECT_EQ(zelSwpEnqueue(queue, nullptr, 124), 4);
    EXPECT_EQ(zelSwpEnqueue(queue, message, 123), 4) << "no room for the headers";
    EXPECT_EQ(world.codes, std::vector<int>{14});
    EXPECT_EQ(zelSwpDequeue(queue, &got), 15) << "empty";
    EXPECT_EQ(zelSwpEnqueue(queue, message, 124), 0);
    EXPECT_EQ(zelSwpDequeue(queue, &got), 15) << "not acknowledged";
}

TEST_F(SwpQueue, WindowLetsEightGoAndTheRestFollow) {
    const uint32_t queue = world.create(20);
    for (int i = 0; i < 12; ++i) ASSERT_EQ(world.enqueue(queue), 0);
    EXPECT_EQ(statusOf(queue).inFlight, 8u);
    EXPECT_EQ(world.sentToReceiver.size(), 8u);
    EXPECT_EQ(world.acknowledge(queue, 3, 1), 0);
    EXPECT_EQ(statusOf(queue).inFlight, 8u);
    EXPECT_EQ(statusOf(queue).sent, 12u) << "four released, four sent";
    EXPECT_EQ(world.dequeueAll(queue), 4);
    EXPECT_EQ(zelSwpQueueGetLen(queue), 8);
    for (size_t i = 0; i < world.sentToReceiver.size(); ++i)
        EXPECT_EQ(SwpHeader::SequenceLow::get(world.sentToReceiver[i].data() + 60), i);
    EXPECT_EQ(zelSwpSetMwpQWinSize(queue, 0), 4);
    EXPECT_EQ(zelSwpSetMwpQWinSize(queue, 2), 0);
    ASSERT_EQ(world.enqueue(queue), 0);
    EXPECT_EQ(world.acknowledge(queue, 10, 1), 0);
    EXPECT_EQ(statusOf(queue).inFlight, 2u) << "a smaller window holds back";
}

TEST_F(SwpQueue, FullByCountAndByMemory) {
    const uint32_t queue = world.create(3);
    const auto fill = [&] {
        for (uint32_t i = 0; i < 3; ++i) ASSERT_EQ(world.enqueue(queue), 0);
    };
    uint32_t acknowledged = UINT32_MAX;
    const auto drain = [&] {
        EXPECT_EQ(world.acknowledge(queue, acknowledged += 3, 1), 0);
        EXPECT_EQ(world.dequeueAll(queue), 3);
    };
    fill();
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(SwpHeader::Link::get(world.buffer(i) + 60), i == 2 ? 0u : static_cast<uint32_t>(i) + 2)
            << "the slot of the next message, counted from 1";
    EXPECT_EQ(world.codes, std::vector<int>{7}) << "told by the message that fills the queue and is in it";
    EXPECT_EQ(world.enqueue(queue), 7);
    EXPECT_EQ(world.codes.size(), 1u) << "a refused message is told by the result alone";
    EXPECT_EQ(statusOf(queue).drops, 1u);
    drain();
    EXPECT_EQ(statusOf(queue).memory, 0u);
    for (const int passed : {0, 9, 1}) {
        world.wait(passed);
        fill();
        drain();
        EXPECT_EQ(systemErrors(0x8013), passed == 1 ? 2 : 1) << "once in ten seconds";
    }
    EXPECT_EQ(world.codes.size(), 4u);

    EXPECT_EQ(zelSwpSetMaxMemoryAllowed(queue, 2 * World::messageLength), 0);
    ASSERT_EQ(world.enqueue(queue), 0);
    ASSERT_EQ(world.enqueue(queue), 0);
    EXPECT_EQ(world.enqueue(queue), 7);
    EXPECT_EQ(statusOf(queue).peakMemory, 3u * World::messageLength);
    EXPECT_EQ(zelSwpSetMaxMemoryAllowed(queue, 0), 0) << "no limit";
    EXPECT_EQ(world.enqueue(queue), 0);
}

TEST_F(SwpQueue, FailedSendLeavesNothingBehind) {
    const uint32_t queue = world.create(8);
    ASSERT_EQ(world.enqueue(queue), 0);
    world.network.failSends(1);
    EXPECT_EQ(world.enqueue(queue), 4);
    EXPECT_EQ(zelSwpQueueGetLen(queue), 1);
    EXPECT_EQ(statusOf(queue).memory, World::messageLength);
    ASSERT_EQ(world.enqueue(queue), 0);
    EXPECT_EQ(SwpHeader::SequenceLow::get(world.sentToReceiver.back().data() + 60), 1u)
        << "the refused message used up no number";
    EXPECT_EQ(world.acknowledge(queue, 1, 1), 0);
    EXPECT_EQ(world.dequeueAll(queue), 2);
}

TEST_F(SwpQueue, AcknowledgementsThatAreNone) {
    const uint32_t queue = world.create(8);
    for (int i = 0; i < 4; ++i) ASSERT_EQ(world.enqueue(queue), 0);
    auto good = world.acknowledgement(queue, 1, 1);
    uint32_t named = 0;
    for (size_t length = 0; length < good.size(); ++length)
        EXPECT_EQ(zelSwpProcAck(Simulation::Bytes(good.begin(), good.begin() + static_cast<long>(length)).data(),
                                static_cast<int>(length), &named),
                  4);
    const auto changed = [&](auto field, size_t at, uint32_t value) {
        auto ack = good;
        decltype(field)::set(ack.data() + at, value);
        return zelSwpProcAck(ack.data(), static_cast<int>(ack.size()), &named);
    };
    EXPECT_EQ(changed(IpcHeader::PacketType{}, 0, 0), 4);
    EXPECT_EQ(changed(IpcHeader::Magic{}, 0, 1), 4);
    for (const uint32_t bad : {0u, 901u, 2u, UINT32_MAX}) EXPECT_EQ(changed(SwpHeader::Queue{}, 60, bad), 4);
    EXPECT_EQ(changed(SwpHeader::Result{}, 60, 3), 4);
    EXPECT_EQ(named, 0u);
    EXPECT_EQ(statusOf(queue).refusedAcks, 0u);
    EXPECT_EQ(changed(IpcHeader::SourceAddress{}, 0, 0x7f000063), 5) << "from another address";
    EXPECT_EQ(changed(IpcHeader::SourceQueue{}, 0, zel_getQueueId(77, 0, 1)), 5) << "from another task";
    EXPECT_EQ(changed(SwpHeader::SequenceLow{}, 60, 4), 5) << "beyond the last sent";
    EXPECT_EQ(changed(SwpHeader::Stream{}, 60, 1), 5) << "of another stream";
    EXPECT_EQ(named, queue);
    EXPECT_EQ(statusOf(queue).refusedAcks, 4u);
    EXPECT_EQ(world.dequeueAll(queue), 0) << "nothing of that released a message";
    EXPECT_EQ(zelSwpProcAck(good.data(), static_cast<int>(good.size()), nullptr), 0);
    EXPECT_EQ(world.dequeueAll(queue), 2);
    EXPECT_EQ(world.acknowledge(queue, 0, 1), 5) << "older";
    EXPECT_EQ(world.dequeueAll(queue), 0);
}

// ---- Time-outs ------------------------------------------------------------------------------------------------------

TEST_F(SwpQueue, TimerResendsTheHeadThenTheFlight) {
    const uint32_t queue = world.create(64, 3);
    for (int i = 0; i < 4; ++i) ASSERT_EQ(world.enqueue(queue), 0);
    EXPECT_EQ(world.sentWithin(2), 0u) << "the interval is three seconds";
    EXPECT_EQ(world.sentWithin(2), 1u) << "message 0 goes alone";
    ASSERT_EQ(world.acknowledge(queue, 0, 1), 0);
    EXPECT_EQ(world.sentWithin(2), 0u);
    EXPECT_EQ(world.sentWithin(2), 3u) << "then all in flight";
    EXPECT_EQ(statusOf(queue).largestPass, 3u);
    EXPECT_EQ(statusOf(queue).budget, 4u) << "the acknowledgement restored the budget";
    ASSERT_EQ(world.acknowledge(queue, 3, 1), 0);
    EXPECT_EQ(world.sentWithin(20), 0u) << "nothing unacknowledged, nothing resent";
}

// The timer fires on the seconds of its task, and sends nothing before the interval has passed.
TEST_F(SwpQueue, EarlyTimerOnlyRearms) {
    const auto routine = [](uint32_t which) { swpRetrans(which, 1); };
    uint32_t queue = 0;
    ASSERT_EQ(zelMwpQueueCreate_p(61, 0, 76, 0, 8, 8, 1, 5, World::note, 1, routine, &queue), 0);
    const uint32_t other = world.create(64, 1);
    world.wait(0.9);
    ASSERT_EQ(world.enqueue(other), 0);
    EXPECT_EQ(world.sentWithin(0.5), 0u) << "fired 0.1 s after the send";
    EXPECT_EQ(world.sentWithin(1), 1u);
    ASSERT_EQ(world.acknowledge(other, 0, 1), 0);
    ASSERT_EQ(world.enqueue(queue), 0);
    ASSERT_EQ(world.enqueue(queue), 0);
    EXPECT_EQ(IpcHeader::SourceQueue::get(world.sentToReceiver.back().data()), zel_getQueueId(61, 0, 3));
    EXPECT_EQ(world.sentWithin(2), 1u) << "a private routine resends the head alone";
}

TEST_F(SwpQueue, BudgetEnds) {
    const uint32_t queue = world.create(8, 1, 2);
    ASSERT_EQ(world.enqueue(queue), 0);
    EXPECT_EQ(world.sentWithin(20), 2u);
    EXPECT_EQ(world.codes, std::vector<int>{9});
    EXPECT_EQ(world.messages.back(), world.buffer(0));
    EXPECT_EQ(swpRetrans(queue, 1), 4);
    EXPECT_EQ(world.sentToReceiver.size(), 3u) << "nothing is sent any more";
    EXPECT_EQ(world.acknowledge(queue, 0, 1), 0);
    EXPECT_EQ(statusOf(queue).budget, 2u);
}

TEST_F(SwpQueue, ResendingThatFailsSaysSo) {
    const uint32_t queue = world.create(8, 1, 50);
    for (int i = 0; i < 3; ++i) ASSERT_EQ(world.enqueue(queue), 0);
    ASSERT_EQ(world.acknowledge(queue, 0, 1), 0);
    world.network.failSends(1);
    EXPECT_EQ(swpRetrans(queue, 1), 10);
    world.network.failSends(1);
    EXPECT_EQ(swpRetrans(queue, 0), 10);
    EXPECT_EQ(world.sentWithin(20), 0u) << "the timer was stopped";
    EXPECT_EQ(swpRetrans(queue, 0), 0);
    world.network.failSends(1);
    EXPECT_GE(world.sentWithin(4), 2u) << "a time-out that cannot send tries again";
}

// ---- Flush, remove, callbacks ---------------------------------------------------------------------------------------

TEST_F(SwpQueue, FlushBeginsANewStream) {
    const uint32_t queue = world.create(20);
    swpFifoQueue[queue].free = World::noteFree;
    for (int i = 0; i < 10; ++i) ASSERT_EQ(world.enqueue(queue), 0);
    ASSERT_EQ(world.acknowledge(queue, 1, 1), 0);
    const auto late = world.acknowledgement(queue, 5, 1);
    const uint32_t before = statusOf(queue).stream;
    EXPECT_EQ(zelSwpQueueFlush(queue), 0);
    EXPECT_EQ(world.freed.size(), 10u);
    EXPECT_TRUE(world.codes.empty());
    EXPECT_EQ(zelSwpQueueGetLen(queue), 0);
    EXPECT_EQ(statusOf(queue).memory, 0u);
    EXPECT_NE(statusOf(queue).stream, before);
    EXPECT_EQ(world.sentWithin(5), 0u);
    for (int i = 0; i < 7; ++i) ASSERT_EQ(world.enqueue(queue), 0);
    EXPECT_EQ(SwpHeader::SequenceLow::get(world.sentToReceiver.back().data() + 60), 6u);
    EXPECT_EQ(zelSwpProcAck(late.data(), static_cast<int>(late.size()), nullptr), 5);
    EXPECT_EQ(world.dequeueAll(queue), 0) << "an answer to the old stream releases nothing of the new one";
}

TEST_F(SwpQueue, RemoveWithItsTimerRunning) {
    const uint32_t queue = world.create(8);
    swpFifoQueue[queue].free = World::noteFree;
    ASSERT_EQ(world.enqueue(queue), 0);
    EXPECT_EQ(zelSwpQueueRemove(queue), 0);
    EXPECT_EQ(world.freed.size(), 1u);
    EXPECT_EQ(world.sentWithin(5), 0u);
    EXPECT_EQ(world.create(1), queue);
    EXPECT_EQ(swpFifoQueue[queue].free, nullptr) << "the next owner starts without hooks";
    // A callback may use the queue: the first message fills it, the second finds nobody.
    world.onNote = [&](int code) { EXPECT_EQ(code == 7 ? zelSwpQueueFlush(queue) : zelSwpQueueRemove(queue), 0); };
    ASSERT_EQ(world.enqueue(queue), 0);
    EXPECT_EQ(zelSwpQueueGetLen(queue), 0);
    world.onNote = [&](int code) {
        if (code == 9) zelSwpQueueRemove(queue);
    };
    ASSERT_EQ(world.enqueue(queue), 0);
    world.wait(20);
    EXPECT_EQ(zelSwpIsQueueAlive(queue), 0);
}

// ---- Receiver -------------------------------------------------------------------------------------------------------

TEST_F(SwpQueue, ReplayedMessageZeroIsADuplicate) {
    const uint32_t queue = world.create(8);
    zelSwpReceiver *receiver = zelSwpReceiverCreate(world.receiverKey, 0, 1);
    for (int i = 0; i < 3; ++i) ASSERT_EQ(world.enqueue(queue), 0);
    zelSwpQueueFlush(queue);
    ASSERT_EQ(world.enqueue(queue), 0);
    const struct {
        size_t message;  // 3 begins the new stream
        int result;
    } rows[] = {{1, 4}, {0, 1}, {1, 1}, {0, 2}, {1, 2}, {2, 1}, {3, 1}, {0, 2}};
    for (const auto &[i, result] : rows) {
        const auto &message = world.sentToReceiver[i];
        EXPECT_EQ(zelSwpReceiverAccept(receiver, message.data(), static_cast<int>(message.size())), result) << i;
    }
    zelSwpReceiverStats stats{};
    EXPECT_EQ(zelSwpReceiverGetStats(receiver, &stats), 0);
    EXPECT_EQ(stats.accepted, 4u);
    EXPECT_EQ(stats.stale, 1u);
    EXPECT_EQ(stats.streams, 2u);
    zelSwpReceiverDestroy(receiver);
}

TEST_F(SwpQueue, RefusesWhatIsNoStreamMessage) {
    const uint32_t queue = world.create(8);
    zelSwpReceiver *receiver = zelSwpReceiverCreate(world.receiverKey, 2, 1);
    ASSERT_EQ(world.enqueue(queue), 0);
    const auto good = world.sentToReceiver[0];
    for (int length = 0; length < 124; ++length)
        EXPECT_EQ(zelSwpReceiverAccept(receiver, Simulation::Bytes(good.begin(), good.begin() + length).data(), length),
                  4);
    // Two that are none, and more sources than there is room for: the one silent longest makes room.
    for (const uint32_t source : {0u, 901u, 10u, 11u, 12u, 11u, 13u, 11u}) {
        auto message = good;
        SwpHeader::Queue::set(message.data() + 60, source);
        zelSwpReceiverAccept(receiver, message.data(), static_cast<int>(message.size()));
    }
    zelSwpReceiverStats stats{};
    zelSwpReceiverGetStats(receiver, &stats);
    EXPECT_EQ(stats.malformed, 126u);
    EXPECT_EQ(stats.forgotten, 2u);
    EXPECT_EQ(stats.duplicates, 2u) << "source 11 was kept";
    zelSwpReceiverDestroy(receiver);
}

// ---- The link between chassis ---------------------------------------------------------------------------------------

TEST_F(SwpQueue, CarriesTheHeaderBehindItsOwn) {
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0, ends), 0);
    uint32_t queue = 0;
    ASSERT_EQ(zelMwpIclQueueCreate(61, 0, 76, 0, 8, 8, 1, 5, World::note, &queue), 0);
    constexpr uint8_t extra = 6;  // bytes of the link's header behind its length field
    uint8_t messages[2][26 + extra + 64 + 20] = {};
    for (auto &message : messages) {
        message[3] = 0xab;
        message[25] = extra;
    }
    EXPECT_EQ(zelSwpEnqueue(queue, messages[0], sizeof messages[0]), 4) << "the link is down";
    EXPECT_EQ(zelSwpQueueGetLen(queue), 0);
    zelSwpSetIclLink(1);
    zelSwpSetIclRawSocket(ends[0]);
    EXPECT_EQ(icl_isLinkUp(), 1);
    EXPECT_EQ(zelSwpEnqueue(queue, messages[0], 26 + extra + 63), 4) << "too short for the header";
    ASSERT_EQ(zelSwpEnqueue(queue, messages[0], sizeof messages[0]), 0);
    ASSERT_EQ(zelSwpEnqueue(queue, messages[1], sizeof messages[1]), 0);

    zelSwpSetIclRawSocket(ends[1]);  // now the other side speaks
    zelSwpSeq expected{};
    for (int i = 0; i < 2; ++i) {
        uint8_t got[300];
        ASSERT_EQ(recv(ends[1], got, sizeof got, MSG_DONTWAIT), static_cast<ssize_t>(sizeof messages[0]));
        EXPECT_EQ(got[3], 0xab) << "the link's header goes out as it is";
        EXPECT_EQ(SwpHeader::SequenceLow::get(got + 26 + extra), static_cast<uint32_t>(i));
        EXPECT_EQ(zelSwpCkSeqNo(got + extra, &expected, -1), 1);
        EXPECT_EQ(zelSwpReceiverAck(0, got, -1, &expected, 1), 0);
        ASSERT_EQ(recv(ends[0], got, sizeof got, MSG_DONTWAIT), 26 + extra + 64);
        EXPECT_EQ(zelSwpProcAck(got, 26 + extra + 64, nullptr), 0);
    }
    EXPECT_EQ(world.dequeueAll(queue), 2);
    const auto overUdp = world.acknowledgement(queue, 1, 1);
    EXPECT_EQ(zelSwpProcAck(overUdp.data(), static_cast<int>(overUdp.size()), nullptr), 5)
        << "a queue over the link believes no datagram";
    zelSwpSetIclLink(0);
    close(ends[0]);
    close(ends[1]);
}

}  // namespace
}  // namespace zel::test
