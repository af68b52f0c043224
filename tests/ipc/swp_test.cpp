// Sliding-window queues: the decisions as tables, and the queues themselves over a simulated network.
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstring>
#include <tuple>

#include "ipc/swp_core.h"
#include "ipc/swp_table.h"
#include "tests/ipc/swp_world.h"
#include "tests/support/child.h"
#include "tests/support/eventually.h"

namespace zel::test {
namespace {

using namespace zel::ipc;
using namespace zel::ipc::swp;

// ---- Decisions ------------------------------------------------------------------------------------------------------

TEST(SwpNumbers, ReceiverChecksSequence) {
    constexpr Sequence carry = 1ull << 32;
    // Expected, received, result, expected afterwards; the first message, and a restart, open the list.
    const Sequence rows[][4] = {{0, 0, 1, 1},
                                {9, 0, 1, 1},
                                {5, 5, 1, 6},
                                {5, 4, 2, 5},
                                {5, 1, 2, 5},
                                {5, 6, 4, 5},
                                {0, 3, 4, 0},
                                {carry - 1, carry - 1, 1, carry},
                                {carry, carry - 1, 2, carry},
                                {carry, carry, 1, carry + 1}};
    for (const auto &[expected, received, result, after] : rows) {
        uint8_t message[124] = {}, overLink[90] = {};
        SwpHeader::SequenceHigh::set(message + 60, highHalf(received));
        SwpHeader::SequenceLow::set(message + 60, lowHalf(received));
        memcpy(overLink + 26, message + 60, 64);
        for (const bool isLink : {false, true}) {
            zelSwpSeq count{highHalf(expected), lowHalf(expected)};
            EXPECT_EQ(zelSwpCkSeqNo(isLink ? overLink : message, &count, isLink ? -1 : 124), static_cast<int>(result));
            EXPECT_EQ(joined(count.high, count.low), after);
            EXPECT_EQ(zelSwpCkSeqNo(message, &count, 123), 4);
        }
    }
    uint32_t high = 0, low = UINT32_MAX;
    swp64BitIncr(&high, &low);
    EXPECT_EQ(swp64BitCmp(high, low, 1, 0), 0);
    EXPECT_EQ(swp64BitCmp(0, 5, 1, 0), 1) << "the second is greater";
    EXPECT_EQ(swp64BitCmp(1, 0, 0, 5), 2);
    EXPECT_STREQ(zelSwpGetErr(16), "SWP failure - no more timeouts");
    EXPECT_EQ(zelSwpGetErr(17), nullptr);
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

// ---- Queues -------------------------------------------------------------------------------------------------------

class SwpQueue : public testing::Test {
protected:
    World world;
};

TEST_F(SwpQueue, NineHundredAndNoMore) {
    uint32_t queue = 0;
    const auto create = [&](uint32_t seconds = 1, int budget = 5, zelSwpUserCb callback = World::note, int peer = 76) {
        return zelSwpQueueCreate(61, 0, peer, 0, 0, 0, seconds, static_cast<uint8_t>(budget), callback, &queue);
    };
    for (const int result : {create(0), create(1, 0), create(1, 256), create(1, 5, nullptr)}) EXPECT_EQ(result, 4);
    EXPECT_EQ(create(1, 5, World::note, 77), 4) << "a peer that never comes up";
    for (uint32_t i = 1; i <= 900; ++i) {
        ASSERT_EQ(create(), 0);
        ASSERT_EQ(queue, i) << "a failed creation gives its block back";
    }
    EXPECT_EQ(create(), 4);
    const zelSwpStatus status = statusOf(1);
    EXPECT_EQ(std::tie(status.window, status.capacity, status.maxMemory), std::tuple(8u, 64u, 52428800u));
    EXPECT_STREQ(status.receiverName, "RTM0");
    EXPECT_EQ(zelSwpQueueRemove(450), 0);
    EXPECT_EQ(zelSwpQueueRemove(450), 4);
    ASSERT_EQ(create(), 0);
    EXPECT_EQ(queue, 450u);
}

ZEL_CHILD(swpHoldQueues) {
    World world;
    for (int i = 0; i < 3; ++i) world.create(8);
    for (;;) pause();
}

TEST_F(SwpQueue, OtherProcessesMayOnlyLook) {
    ASSERT_EQ(world.create(8), 1u);
    const Child child = Child::start("swpHoldQueues");
    ASSERT_TRUE(eventually(20, [] { return zelSwpIsQueueAlive(4) == 1; }));
    const auto isRefused = [&](uint32_t queue) {
        return world.enqueue(queue) == 4 && zelSwpQueueFlush(queue) == 4 && zelSwpQueueRemove(queue) == 4;
    };
    EXPECT_TRUE(isRefused(4));
    EXPECT_EQ(statusOf(4).pid, child.pid());
    EXPECT_EQ(zelSwpQueueGetLen(4), 0);
    EXPECT_EQ(world.create(8), 5u) << "blocks of a living process stay";
    auto &startTime = sharedQueue(*sharedTable(), 1).owner.startTime;
    ++startTime;
    EXPECT_TRUE(isRefused(1)) << "of a dead process that had the same pid";
    --startTime;
    child.signal(SIGKILL);
    ASSERT_TRUE(eventually(20, [] { return zelSwpIsQueueAlive(4) == 0; }));
    EXPECT_EQ(world.create(8), 2u) << "blocks of a dead one are taken";
    EXPECT_EQ(world.enqueue(2), 0);
}

// ---- Enqueue and acknowledge ----------------------------------------------------------------------------------------

TEST_F(SwpQueue, NumbersAndBuffersThatAreNone) {
    const uint32_t queue = world.create(8);
    uint8_t message[124] = {};
    void *got = message;
    for (const uint32_t bad : {0u, 901u, 2u, UINT32_MAX}) {
        for (const int result : {zelSwpEnqueue(bad, message, 124), zelSwpDequeue(bad, &got), zelSwpQueueFlush(bad),
                                 zelSwpQueueRemove(bad), swpRetrans(bad, 0), zelSwpSetMwpQWinSize(bad, 4)})
            EXPECT_EQ(result, 4);
        EXPECT_EQ(zelSwpQueueGetLen(bad), -1);
        EXPECT_EQ(zelSwpIsQueueAlive(bad), 0);
    }
    EXPECT_EQ(zelSwpEnqueue(queue, nullptr, 124), 4);
    EXPECT_EQ(zelSwpEnqueue(queue, message, 123), 4) << "no room for the headers";
    EXPECT_EQ(world.codes, std::vector<int>{14});
    EXPECT_EQ(zelSwpDequeue(queue, &got), 15) << "empty";
    EXPECT_EQ(zelSwpEnqueue(queue, message, 124), 0);
    EXPECT_EQ(zelSwpDequeue(queue, &got), 15) << "not acknowledged";
}

TEST_F(SwpQueue, WindowLetsEightGoAndTheRestFollow) {
    const uint32_t queue = world.create(20);
    ASSERT_EQ(world.enqueue(queue, 12), 0);
    EXPECT_EQ(world.lastSent(), 7u);
    EXPECT_EQ(world.acknowledge(queue, 3), 0);
    EXPECT_EQ(world.lastSent(), 11u) << "four released, four sent";
    EXPECT_EQ(world.dequeueAll(queue), 4);
    EXPECT_EQ(zelSwpSetMwpQWinSize(queue, 0), 4);
    EXPECT_EQ(zelSwpSetMwpQWinSize(queue, 2), 0);
    ASSERT_EQ(world.enqueue(queue), 0);
    EXPECT_EQ(world.acknowledge(queue, 10), 0);
    EXPECT_EQ(statusOf(queue).inFlight, 2u) << "a smaller window holds back";
}

// How often a system error was raised, among the last ones kept.
auto systemErrors(uint32_t event) {
    zelSysErrRecord records[64];
    return std::count_if(records, records + zelSysErrGetLast(records, 64),
                         [&](const zelSysErrRecord &record) { return record.event == event; });
}

TEST_F(SwpQueue, FullByCountAndByMemory) {
    const uint32_t queue = world.create(3);
    ASSERT_EQ(world.enqueue(queue, 3), 0);
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(SwpHeader::Link::get(world.buffer(i) + 60), i == 2 ? 0u : static_cast<uint32_t>(i) + 2)
            << "the slot of the next message, counted from 1";
    EXPECT_EQ(world.codes, std::vector<int>{7}) << "told by the message that fills the queue and is in it";
    EXPECT_EQ(world.enqueue(queue), 7);
    EXPECT_EQ(world.codes.size(), 1u) << "a refused message is told by the result alone";
    EXPECT_EQ(statusOf(queue).drops, 1u);
    for (const int passed : {0, 9, 1}) {
        world.wait(passed);
        EXPECT_EQ(world.acknowledge(queue, world.lastSent()), 0);
        EXPECT_EQ(world.dequeueAll(queue), 3);
        ASSERT_EQ(world.enqueue(queue, 3), 0);
        EXPECT_EQ(systemErrors(0x8013), passed == 1 ? 2 : 1) << "once in ten seconds";
    }
    EXPECT_EQ(zelSwpQueueFlush(queue), 0);
    EXPECT_EQ(zelSwpSetMaxMemoryAllowed(queue, 2 * World::messageLength), 0);
    ASSERT_EQ(world.enqueue(queue, 2), 0);
    EXPECT_EQ(world.enqueue(queue), 7);
    EXPECT_EQ(statusOf(queue).peakMemory, 3u * World::messageLength);
    EXPECT_EQ(zelSwpSetMaxMemoryAllowed(queue, 0), 0) << "no limit";
    EXPECT_EQ(world.enqueue(queue), 0);
}

TEST_F(SwpQueue, FailedSendLeavesNothingBehind) {
    const uint32_t queue = world.create(8);
    ASSERT_EQ(world.enqueue(queue), 0);
    world.network.failSends = 1;
    EXPECT_EQ(world.enqueue(queue), 4);
    EXPECT_EQ(zelSwpQueueGetLen(queue), 1);
    EXPECT_EQ(statusOf(queue).memory, World::messageLength);
    ASSERT_EQ(world.enqueue(queue), 0);
    EXPECT_EQ(world.lastSent(), 1u) << "the refused message used up no number";
    EXPECT_EQ(world.acknowledge(queue, 1), 0);
    EXPECT_EQ(world.dequeueAll(queue), 2);
}

// Deleted in the middle of the send, it leaves when the message is in the queue with all that belongs to it.
TEST_F(SwpQueue, DeletedTaskLeavesNoQueueHalfChanged) {
    ASSERT_EQ(world.create(8), 1u);
    world.network.watch = [](uint32_t, const Bytes &) {
        pthread_cancel(pthread_self());
        pthread_testcancel();
    };
    const auto body = [](void *sender) -> void * {
        for (;;) static_cast<World *>(sender)->enqueue(1);
    };
    pthread_t task;
    ASSERT_EQ(pthread_create(&task, nullptr, body, &world), 0);
    pthread_join(task, nullptr);
    world.network.watch = {};
    const zelSwpStatus status = statusOf(1);
    EXPECT_EQ(std::tie(status.queued, status.inFlight), std::tuple(1u, 1u));
    EXPECT_EQ(status.memory, World::messageLength);
    EXPECT_EQ(world.enqueue(1), 0);
}

TEST_F(SwpQueue, AcknowledgementsThatAreNone) {
    const uint32_t queue = world.create(8);
    ASSERT_EQ(world.enqueue(queue, 4), 0);
    const auto good = world.acknowledgement(queue, 1);
    for (size_t length = 0; length < good.size(); ++length) {
        const Bytes cut(good.begin(), good.begin() + static_cast<long>(length));
        EXPECT_EQ(zelSwpProcAck(cut.data(), static_cast<int>(length), nullptr), 4);
    }
    const auto changed = [&](auto field, size_t at, uint32_t value) {
        auto ack = good;
        decltype(field)::set(ack.data() + at, value);
        return zelSwpProcAck(ack.data(), static_cast<int>(ack.size()), nullptr);
    };
    EXPECT_EQ(changed(IpcHeader::PacketType{}, 0, 0), 4);
    EXPECT_EQ(changed(IpcHeader::Magic{}, 0, 1), 4);
    for (const uint32_t bad : {0u, 901u, 2u, UINT32_MAX}) EXPECT_EQ(changed(SwpHeader::Queue{}, 60, bad), 4);
    EXPECT_EQ(changed(SwpHeader::Result{}, 60, 3), 4);
    EXPECT_EQ(changed(IpcHeader::SourceAddress{}, 0, 0x7f000063), 5) << "from another address";
    EXPECT_EQ(changed(IpcHeader::SourceQueue{}, 0, zel_getQueueId(77, 0, 1)), 5) << "from another task";
    EXPECT_EQ(changed(SwpHeader::SequenceLow{}, 60, 4), 5) << "beyond the last sent";
    EXPECT_EQ(statusOf(queue).refusedAcks, 3u);
    EXPECT_EQ(world.dequeueAll(queue), 0) << "nothing of that released a message";
}

TEST_F(SwpQueue, AnswersComeWhereTheEndpointWantsThem) {
    const auto source = [&] {
        EXPECT_EQ(world.enqueue(world.create(1)), 0);
        return IpcHeader::SourceAddress::get(world.sentToReceiver.back().data());
    };
    EXPECT_EQ(zelIpcUseSecondaryAddress(12 << 7, 1), -1);
    EXPECT_EQ(zelIpcUseSecondaryAddress(world.senderKey, 1), 0);
    EXPECT_EQ(source(), zel_sysGetIpAddr()) << "there is no secondary address";
    zelIpcSetSecondaryAddress("127.9.8.7");
    EXPECT_EQ(source(), 0x7f090807u);
    EXPECT_EQ(zelIpcUseSecondaryAddress(world.senderKey, 0), 0);
    EXPECT_EQ(source(), zel_sysGetIpAddr());
}

// ---- Time-outs ------------------------------------------------------------------------------------------------------

TEST_F(SwpQueue, TimerResendsTheHeadThenTheFlight) {
    const uint32_t queue = world.create(64, 3, 50);
    ASSERT_EQ(world.enqueue(queue, 4), 0);
    EXPECT_EQ(world.sentWithin(2), 0u) << "the interval is three seconds";
    EXPECT_EQ(world.sentWithin(2), 1u) << "message 0 goes alone";
    ASSERT_EQ(world.acknowledge(queue, 0), 0);
    EXPECT_EQ(statusOf(queue).budget, 50u) << "the acknowledgement restored the budget";
    EXPECT_EQ(world.sentWithin(2), 0u);
    EXPECT_EQ(world.sentWithin(2), 3u) << "then all in flight";
    EXPECT_EQ(statusOf(queue).largestPass, 3u);
    for (const int headOnly : {1, 0}) {
        world.network.failSends = 1;
        EXPECT_EQ(swpRetrans(queue, headOnly), 10);
    }
    EXPECT_EQ(world.sentWithin(20), 0u) << "the timer was stopped";
    EXPECT_EQ(swpRetrans(queue, 0), 0);
    world.network.failSends = 1;
    EXPECT_EQ(world.sentWithin(7), 3u) << "a time-out that cannot send tries again";
    ASSERT_EQ(world.acknowledge(queue, 3), 0);
    EXPECT_EQ(world.sentWithin(20), 0u) << "nothing unacknowledged, nothing resent";
}

// The timer fires on the seconds of its task, and sends nothing before the interval has passed.
TEST_F(SwpQueue, EarlyTimerOnlyRearmsAndTheBudgetEnds) {
    const auto routine = [](uint32_t which) { swpRetrans(which, 1); };
    uint32_t queue = 0;
    ASSERT_EQ(zelMwpQueueCreate_p(61, 0, 76, 0, 8, 8, 1, 2, World::note, 1, routine, &queue), 0);
    world.wait(0.9);
    ASSERT_EQ(world.enqueue(queue, 2), 0);
    EXPECT_EQ(world.sentWithin(0.5), 0u) << "fired 0.1 s after the send";
    EXPECT_EQ(world.sentWithin(1), 1u) << "a private routine resends the head alone";
    EXPECT_EQ(world.sentWithin(20), 1u);
    EXPECT_EQ(world.codes, std::vector<int>{9});
    EXPECT_EQ(world.lastMessage, world.buffer(0));
    EXPECT_EQ(swpRetrans(queue, 1), 4);
    EXPECT_EQ(world.sentToReceiver.size(), 4u) << "nothing is sent any more";
}

// ---- Flush, remove, callbacks ---------------------------------------------------------------------------------------

TEST_F(SwpQueue, FlushBeginsANewStream) {
    const uint32_t queue = world.create(20);
    swpFifoQueue[queue].free = World::noteFree;
    ASSERT_EQ(world.enqueue(queue, 10), 0);
    ASSERT_EQ(world.acknowledge(queue, 1), 0);
    const auto late = world.acknowledgement(queue, 5);
    EXPECT_EQ(zelSwpQueueFlush(queue), 0);
    EXPECT_EQ(world.freed, 10u);
    EXPECT_TRUE(world.codes.empty());
    EXPECT_EQ(statusOf(queue).memory, 0u);
    EXPECT_EQ(world.sentWithin(5), 0u);
    ASSERT_EQ(world.enqueue(queue, 7), 0);
    EXPECT_EQ(world.lastSent(), 6u);
    EXPECT_EQ(zelSwpProcAck(late.data(), static_cast<int>(late.size()), nullptr), 5);
    EXPECT_EQ(world.dequeueAll(queue), 0) << "an answer to the old stream releases nothing of the new one";
}

TEST_F(SwpQueue, RemoveWithItsTimerRunning) {
    const uint32_t queue = world.create(8);
    swpFifoQueue[queue].free = World::noteFree;
    ASSERT_EQ(world.enqueue(queue), 0);
    EXPECT_EQ(zelSwpQueueRemove(queue), 0);
    EXPECT_EQ(world.freed, 1u);
    EXPECT_EQ(world.sentWithin(5), 0u);
    EXPECT_EQ(world.create(1), queue);
    EXPECT_EQ(swpFifoQueue[queue].free, nullptr) << "the next owner starts without hooks";
    // A callback may use the queue: full, it is flushed; full again and unanswered, it is removed.
    world.onNote = [&](int code) {
        if (world.codes.size() == 1) zelSwpQueueFlush(queue);
        if (code == 9) zelSwpQueueRemove(queue);
    };
    ASSERT_EQ(world.enqueue(queue), 0);
    EXPECT_EQ(zelSwpQueueGetLen(queue), 0);
    ASSERT_EQ(world.enqueue(queue), 0);
    world.wait(20);
    EXPECT_EQ(zelSwpIsQueueAlive(queue), 0);
}

// ---- Receiver -------------------------------------------------------------------------------------------------------

class SwpReceiver : public SwpQueue {
protected:
    ~SwpReceiver() override { zelSwpReceiverDestroy(receiver); }
    // A message of the sender's queue of that number.
    int accept(uint32_t queue, uint32_t stream, uint32_t sequence, int length = 124) {
        Bytes message(static_cast<size_t>(length));
        const auto set = [&](auto field, size_t at, uint32_t value) {
            if (at + decltype(field)::end <= message.size()) decltype(field)::set(message.data() + at, value);
        };
        set(IpcHeader::Magic{}, 0, IpcHeader::magic);
        set(IpcHeader::SourceAddress{}, 0, zel_sysGetIpAddr());
        set(IpcHeader::SourceQueue{}, 0, zel_getQueueId(61, 0, 1));
        set(SwpHeader::Queue{}, 60, queue);
        set(SwpHeader::Stream{}, 60, stream);
        set(SwpHeader::SequenceLow{}, 60, sequence);
        return zelSwpReceiverAccept(receiver, message.data(), length);
    }
    zelSwpReceiverStats stats() {
        zelSwpReceiverStats stats{};
        EXPECT_EQ(zelSwpReceiverGetStats(receiver, &stats), 0);
        return stats;
    }
    zelSwpReceiver *receiver = zelSwpReceiverCreate(world.receiverKey, 2, 1);
};

TEST_F(SwpReceiver, TellsStreamsApart) {
    const struct {
        uint32_t stream, sequence;
        int result;
    } rows[] = {
        {5, 3, 4},                                   // its beginning was never seen
        {5, 0, 1}, {5, 1, 1}, {5, 0, 2}, {5, 3, 4},  // message 0 replayed, a gap
        {6, 0, 1}, {7, 0, 1}, {7, 1, 1}, {7, 9, 4},  //
        {8, 1, 4}, {5, 0, 2}, {6, 4, 2}, {7, 2, 1},  // an unknown one, and two that were flushed, disturb nothing
        {0, 0, 1}, {0, 1, 1}, {0, 0, 1},             // a sender without stream numbers restarts with message 0
    };
    for (const auto &[stream, sequence, result] : rows)
        EXPECT_EQ(accept(1, stream, sequence), result) << stream << " " << sequence;
    const zelSwpReceiverStats seen = stats();
    EXPECT_EQ(std::tie(seen.accepted, seen.duplicates, seen.gaps), std::tuple(9u, 1u, 2u));
    EXPECT_EQ(std::tie(seen.unknown, seen.stale, seen.streams), std::tuple(2u, 2u, 5u));
    EXPECT_EQ(seen.acksSent, 14u) << "all but those of flushed streams";
}

TEST_F(SwpReceiver, RefusesWhatIsNoneAndForgetsTheLongestSilent) {
    for (int length = 0; length < 124; ++length) EXPECT_EQ(accept(1, 5, 0, length), 4);
    for (const uint32_t source : {0u, 901u, 10u, 11u, 12u, 11u, 13u, 11u}) accept(source, 5, 0);
    EXPECT_EQ(stats().malformed, 126u);
    EXPECT_EQ(stats().forgotten, 2u);
    EXPECT_EQ(stats().duplicates, 2u) << "source 11 was kept";
}

// ---- The link between chassis ---------------------------------------------------------------------------------------

TEST_F(SwpQueue, CarriesTheHeaderBehindItsOwn) {
    constexpr uint8_t extra = 6;  // bytes of the link's header behind its length field
    constexpr int header = 26 + extra, length = header + 64 + 20;
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0, ends), 0);
    uint32_t queue = 0;
    ASSERT_EQ(zelMwpIclQueueCreate(61, 0, 76, 0, 8, 8, 1, 5, World::note, &queue), 0);
    uint8_t messages[3][length] = {};
    for (auto &message : messages) message[3] = 0xab, message[25] = extra;
    EXPECT_EQ(zelSwpEnqueue(queue, messages[0], length), 4) << "the link is down";
    zelSwpSetIclLink(1);
    zelSwpSetIclRawSocket(ends[0]);
    EXPECT_EQ(zelSwpEnqueue(queue, messages[0], header + 63), 4) << "too short for the header";
    for (int i = 0; i < 2; ++i) ASSERT_EQ(zelSwpEnqueue(queue, messages[i], length), 0);

    zelSwpSetIclRawSocket(ends[1]);  // now the other side speaks
    zelSwpSeq expected{};
    for (uint32_t i = 0; i < 2; ++i) {
        uint8_t got[300];
        ASSERT_EQ(recv(ends[1], got, sizeof got, MSG_DONTWAIT), length);
        EXPECT_EQ(got[3], 0xab) << "the link's header goes out as it is";
        EXPECT_EQ(SwpHeader::SequenceLow::get(got + header), i);
        EXPECT_EQ(zelSwpCkSeqNo(got + extra, &expected, -1), 1);
        EXPECT_EQ(zelSwpReceiverAck(0, got, -1, &expected, 1), 0);
        ASSERT_EQ(recv(ends[0], got, sizeof got, MSG_DONTWAIT), header + 64);
        EXPECT_EQ(zelSwpProcAck(got, header + 64, nullptr), 0);
    }
    EXPECT_EQ(world.dequeueAll(queue), 2);
    EXPECT_EQ(world.acknowledge(queue, 1), 5) << "a queue over the link believes no datagram";
    while (send(ends[1], "full", 4, MSG_DONTWAIT) == 4) {
    }
    EXPECT_EQ(zelSwpEnqueue(queue, messages[2], length), 4) << "waits for nobody";
    for (const int end : ends) close(end);
}

}  // namespace
}  // namespace zel::test
