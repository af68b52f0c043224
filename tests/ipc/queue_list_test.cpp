// Queue lists: binding, the words a list writes, and the receiving side's check.
#include <gtest/gtest.h>

#include "tests/ipc/swp_world.h"

namespace zel::test {
namespace {

using ipc::SwpHeader;

class QueueList : public testing::Test {
protected:
    zelSwpQList *make(uint32_t queues, uint32_t groups, uint32_t capacity = 64, uint32_t window = 0) {
        zelSwpQList *list = nullptr;
        EXPECT_EQ(zelSwpQListCreate(61, 0, 76, 0, capacity, window, 1, 5, World::note, queues, groups, 51, &list), 0);
        return list;
    }
    uint32_t queueOf(zelSwpQList *list, uint32_t group) {
        uint32_t queue = 0;
        EXPECT_EQ(zelSWPQListGetQHandle(list, group, &queue), 0);
        return queue;
    }
    struct Message {
        uint8_t bytes[140] = {};
    };
    int enqueue(zelSwpQList *list, uint32_t group) {
        messages_.emplace_back();
        return zelSWPQListEnqueue(list, group, messages_.back().bytes, sizeof(Message));
    }
    World world;
    std::deque<Message> messages_;
};

TEST_F(QueueList, Refuses) {
    zelSwpQList *list = nullptr;
    const auto create = [&](uint32_t queues, uint32_t groups, uint32_t seconds = 1) {
        return zelSwpQListCreate(61, 0, 76, 0, 2, 8, seconds, 5, World::note, queues, groups, 51, &list);
    };
    EXPECT_EQ(create(0, 3), 4);
    EXPECT_EQ(create(3, 0), 4);
    EXPECT_EQ(create(4, 3), 4) << "more queues than groups";
    EXPECT_EQ(create(3, 3, 0), 4) << "a queue that cannot be made";
    EXPECT_EQ(create(901, 901), 4) << "more than there are";
    EXPECT_EQ(list, nullptr);
    EXPECT_EQ(zelSwpIsQueueAlive(1), 0) << "queues made before the failing one are removed";
    ASSERT_EQ(create(2, 3), 0);
    uint8_t message[132] = {};
    EXPECT_EQ(zelSWPQListEnqueue(nullptr, 0, message, 132), 4);
    EXPECT_EQ(zelSWPQListEnqueue(list, 0, nullptr, 132), 4);
    EXPECT_EQ(zelSWPQListEnqueue(list, 0, message, 131), 4);
    EXPECT_EQ(zelSWPQListEnqueue(list, 0, message, 132), 4) << "never bound";
    EXPECT_TRUE(world.sentToReceiver.empty());
    for (uint32_t group = 0; group < 3; ++group) zelSWPQListAddMsgGroup(list, group);
    EXPECT_EQ(enqueue(list, 0), 0);
    EXPECT_EQ(enqueue(list, 2), 0);
    EXPECT_EQ(enqueue(list, 0), 7) << "the queue's result passes through";
    EXPECT_EQ(zelSwpQListGetLen(list), 2);
    EXPECT_EQ(zelSwpQListGetQLen(list, 0), 2);
    EXPECT_EQ(zelSwpQListGetQLen(list, 2), -1);
    EXPECT_EQ(zelSwpQListFlush(list), 0);
    EXPECT_EQ(zelSwpQListGetLen(list), 0);
    zelSwpQListRemove(list);
}

TEST_F(QueueList, GroupsSpreadEvenlyAndRebindingDrifts) {
    zelSwpQList *list = make(3, 4);
    for (uint32_t group = 0; group < 4; ++group) EXPECT_EQ(zelSWPQListAddMsgGroup(list, group), 0);
    EXPECT_EQ(queueOf(list, 0), 1u);
    EXPECT_EQ(queueOf(list, 1), 2u);
    EXPECT_EQ(queueOf(list, 2), 3u);
    EXPECT_EQ(queueOf(list, 3), 1u) << "ties go to the lowest index";
    EXPECT_EQ(zelSWPQListAddMsgGroup(list, 4), 4);
    EXPECT_EQ(zelSWPQListAddMsgGroup(list, 0), 0);
    EXPECT_EQ(queueOf(list, 0), 2u) << "chosen again; queue 1 keeps its count of 2";
    int bindings = 0;
    while (bindings < 100 && zelSWPQListAddMsgGroup(list, 0) == 0) ++bindings;
    EXPECT_EQ(bindings, 10) << "refused once every queue carries more groups than there are";

    EXPECT_EQ(zelSWPQListRemoveMsgGroup(list, 1), 0);
    EXPECT_EQ(zelSWPQListRemoveMsgGroup(list, 1), 4);
    EXPECT_EQ(zelSWPQListRemoveMsgGroup(list, 9), 4);
    EXPECT_EQ(zelSWPQListAddMsgGroup(list, 1), 0) << "its place is free again";
    EXPECT_EQ(queueOf(list, 1), 2u);
    EXPECT_EQ(zelSwpQListRemove(list), 0);
    EXPECT_EQ(zelSwpIsQueueAlive(1), 0);
}

TEST_F(QueueList, ReceivingSideTrustsNoIndex) {
    zelSwpQList *list = make(2, 2);
    zelSwpExpSeqList *expected = zelSwpQListCreateExpSeqList(2);
    for (uint32_t group = 0; group < 2; ++group) zelSWPQListAddMsgGroup(list, group);
    for (const uint32_t group : {0u, 1u, 0u, 1u}) ASSERT_EQ(enqueue(list, group), 0);
    const auto sent = world.sentToReceiver;
    const auto check = [&](const Simulation::Bytes &message, int length = 140) {
        return zelSwpQListCkSeqAndAck(world.receiverKey, message.data(), expected, length);
    };
    EXPECT_EQ(check(sent[0]), 1);
    EXPECT_EQ(check(sent[3]), 4) << "message 0 of the second queue is missing";
    EXPECT_EQ(check(sent[1]), 1);
    EXPECT_EQ(check(sent[0]), 2) << "a replay of message 0";
    EXPECT_EQ(check(sent[2]), 1);
    EXPECT_EQ(check(sent[3], 131), 4);
    auto forged = sent[3];
    for (const uint32_t index : {2u, 3u, 0x7fffffffu, UINT32_MAX}) {
        zelIpcHdrSet32(forged.data(), 124, index);
        EXPECT_EQ(check(forged), 4);
    }
    world.network.failSends(1);
    EXPECT_EQ(check(sent[3]), 11) << "not acknowledged, not taken";
    EXPECT_EQ(check(sent[3]), 1);
    zelSwpQListRemoveExpSeqList(expected);
    zelSwpQListRemove(list);
}

TEST_F(QueueList, FlushingAGroupLeavesNoGap) {
    zelSwpQList *list = make(1, 3, 64, 2);
    for (uint32_t group = 0; group < 3; ++group) zelSWPQListAddMsgGroup(list, group);
    const uint32_t queue = queueOf(list, 0);
    swpFifoQueue[queue].free = World::noteFree;
    for (const uint32_t group : {1u, 0u, 1u, 0u, 2u, 1u, 1u, 0u}) ASSERT_EQ(enqueue(list, group), 0);
    EXPECT_EQ(zelSwpQListFlushGroup(list, 1), 0);
    EXPECT_EQ(world.freed.size(), 3u) << "the one in flight stays";
    EXPECT_EQ(zelSwpQueueGetLen(queue), 5);
    EXPECT_EQ(statusOf(queue).memory, 5u * sizeof(Message));
    ASSERT_EQ(enqueue(list, 2), 0);
    EXPECT_EQ(zelSwpQListFlushGroup(list, 3), 4);

    // All that is left arrives without a gap, each message with its group.
    std::vector<uint32_t> groups;
    zelSwpReceiver *receiver = zelSwpReceiverCreate(world.receiverKey, 0, 1);
    for (size_t i = 0; i < world.sentToReceiver.size(); ++i) {
        const auto message = world.sentToReceiver[i];
        ASSERT_EQ(zelSwpReceiverAccept(receiver, message.data(), static_cast<int>(message.size())), 1) << i;
        groups.push_back(zelIpcHdrGet32(message.data(), 128));
        ASSERT_EQ(world.acknowledge(queue, static_cast<uint32_t>(i), 1), 0);
        world.dequeueAll(queue);
    }
    EXPECT_EQ(groups, (std::vector<uint32_t>{1, 0, 0, 2, 0, 2}));
    EXPECT_EQ(zelSwpQueueGetLen(queue), 0);
    zelSwpReceiverDestroy(receiver);
    zelSwpQListRemove(list);
}

}  // namespace
}  // namespace zel::test
