// Queue lists: binding, the words a list writes, and the receiving side's check.
#include <gtest/gtest.h>

#include "tests/ipc/swp_world.h"

namespace zel::test {
namespace {

class QueueList : public testing::Test {
protected:
    ~QueueList() override { zelSwpQListRemove(list); }
    int create(uint32_t queues, uint32_t groups, uint32_t capacity = 64, uint32_t window = 0, uint32_t seconds = 1) {
        return zelSwpQListCreate(61, 0, 76, 0, capacity, window, seconds, 5, World::note, queues, groups, 51, &list);
    }
    void bind(uint32_t groups) {
        for (uint32_t group = 0; group < groups; ++group) EXPECT_EQ(zelSWPQListAddMsgGroup(list, group), 0);
    }
    uint32_t queueOf(uint32_t group) {
        uint32_t queue = 0;
        EXPECT_EQ(zelSWPQListGetQHandle(list, group, &queue), 0);
        return queue;
    }
    int enqueue(uint32_t group, int length = 132) {
        return zelSWPQListEnqueue(list, group, messages_.emplace_back().bytes, length);
    }
    struct Message {
        uint8_t bytes[132] = {};
    };
    World world;
    zelSwpQList *list = nullptr;

private:
    std::deque<Message> messages_;
};

TEST_F(QueueList, Refuses) {
    EXPECT_EQ(create(0, 3), 4);
    EXPECT_EQ(create(3, 0), 4);
    EXPECT_EQ(create(4, 3), 4) << "more queues than groups";
    EXPECT_EQ(create(3, 3, 2, 8, 0), 4) << "a queue that cannot be made";
    EXPECT_EQ(create(901, 901), 4) << "more than there are";
    EXPECT_EQ(list, nullptr);
    EXPECT_EQ(zelSwpIsQueueAlive(1), 0) << "queues made before the failing one are removed";
    ASSERT_EQ(create(2, 3, 2), 0);
    EXPECT_EQ(enqueue(0), 4) << "never bound";
    bind(3);
    EXPECT_EQ(zelSWPQListEnqueue(nullptr, 0, &world, 132), 4);
    EXPECT_EQ(zelSWPQListEnqueue(list, 0, nullptr, 132), 4);
    EXPECT_EQ(enqueue(3), 4);
    EXPECT_EQ(enqueue(0, 131), 4);
    EXPECT_TRUE(world.sentToReceiver.empty());
    EXPECT_EQ(enqueue(0), 0);
    EXPECT_EQ(enqueue(2), 0);
    EXPECT_EQ(enqueue(0), 7) << "the queue's result passes through";
    EXPECT_EQ(zelSwpQListGetLen(list), 2);
    EXPECT_EQ(zelSwpQListGetQLen(list, 0), 2);
    EXPECT_EQ(zelSwpQListGetQLen(list, 2), -1);
    EXPECT_EQ(zelSwpQListFlush(list), 0);
    EXPECT_EQ(zelSwpQListGetLen(list), 0);
}

TEST_F(QueueList, GroupsSpreadEvenlyAndRebindingDrifts) {
    ASSERT_EQ(create(3, 4), 0);
    bind(4);
    for (const uint32_t group : {0u, 1u, 2u, 3u}) EXPECT_EQ(queueOf(group), group % 3 + 1) << "ties go to the lowest";
    EXPECT_EQ(zelSWPQListAddMsgGroup(list, 4), 4);
    EXPECT_EQ(zelSWPQListAddMsgGroup(list, 0), 0);
    EXPECT_EQ(queueOf(0), 2u) << "chosen again; queue 1 keeps its count of 2";
    int bindings = 0;
    while (bindings < 100 && zelSWPQListAddMsgGroup(list, 0) == 0) ++bindings;
    EXPECT_EQ(bindings, 10) << "refused once every queue carries more groups than there are";
    EXPECT_EQ(zelSWPQListRemoveMsgGroup(list, 1), 0);
    EXPECT_EQ(zelSWPQListRemoveMsgGroup(list, 1), 4);
    EXPECT_EQ(zelSWPQListRemoveMsgGroup(list, 9), 4);
    EXPECT_EQ(zelSWPQListAddMsgGroup(list, 1), 0) << "its place is free again";
    EXPECT_EQ(queueOf(1), 2u);
}

TEST_F(QueueList, ReceivingSideTrustsNoIndex) {
    ASSERT_EQ(create(2, 2), 0);
    bind(2);
    zelSwpExpSeqList *expected = zelSwpQListCreateExpSeqList(2);
    for (const uint32_t group : {0u, 1u, 0u, 1u}) ASSERT_EQ(enqueue(group), 0);
    const auto sent = world.sentToReceiver;
    const auto check = [&](const Bytes &message, int length = 132) {
        return zelSwpQListCkSeqAndAck(world.receiverKey, message.data(), expected, length);
    };
    const int rows[][2] = {{0, 1}, {3, 4}, {1, 1}, {0, 2}, {2, 1}};  // the second queue's message 0 is missing at first
    for (const auto &[message, result] : rows) EXPECT_EQ(check(sent[static_cast<size_t>(message)]), result) << message;
    EXPECT_EQ(check(sent[3], 131), 4);
    for (const uint32_t index : {2u, 3u, 0x7fffffffu, UINT32_MAX}) {
        auto forged = sent[3];
        zelIpcHdrSet32(forged.data(), 124, index);
        EXPECT_EQ(check(forged), 4);
    }
    world.network.failSends = 1;
    EXPECT_EQ(check(sent[3]), 11) << "not acknowledged, not taken";
    EXPECT_EQ(check(sent[3]), 1);
    zelSwpQListRemoveExpSeqList(expected);
}

TEST_F(QueueList, FlushingAGroupLeavesNoGap) {
    ASSERT_EQ(create(1, 3, 64, 2), 0);
    bind(3);
    const uint32_t queue = queueOf(0);
    swpFifoQueue[queue].free = World::noteFree;
    for (const uint32_t group : {1u, 0u, 1u, 0u, 2u, 1u, 1u, 0u}) ASSERT_EQ(enqueue(group), 0);
    Message beside;  // not the list's: too short to have a group, and what stands behind it is not its own
    zelIpcHdrSet32(beside.bytes, 128, 1);
    ASSERT_EQ(zelSwpEnqueue(queue, beside.bytes, 124), 0);
    EXPECT_EQ(zelSwpQListFlushGroup(list, 3), 4);
    EXPECT_EQ(zelSwpQListFlushGroup(list, 1), 0);
    EXPECT_EQ(world.freed, 3u) << "the one in flight stays";
    EXPECT_EQ(statusOf(queue).memory, 5u * 132 + 124);
    ASSERT_EQ(enqueue(2), 0);

    // All that is left arrives without a gap, each message with its group.
    std::vector<uint32_t> groups;
    for (uint32_t i = 0; i < world.sentToReceiver.size(); ++i) {
        const auto message = world.sentToReceiver[i];
        EXPECT_EQ(ipc::SwpHeader::SequenceLow::get(message.data() + 60), i);
        groups.push_back(message.size() == 124 ? 9 : zelIpcHdrGet32(message.data(), 128));
        ASSERT_EQ(world.acknowledge(queue, i), 0);
        world.dequeueAll(queue);
    }
    EXPECT_EQ(groups, (std::vector<uint32_t>{1, 0, 0, 2, 0, 9, 2}));
}

}  // namespace
}  // namespace zel::test
