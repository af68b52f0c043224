// Message queues: what each call answers, the order of messages against a model, waiting, deletion, queues that hold
// nothing, and a stream between tasks that come and go.
#include <array>
#include <chrono>
#include <cstring>
#include <deque>
#include <string>

#include "tests/kernel/tasks.h"
#include "tests/support/printed.h"
#include "tests/support/random.h"

using namespace zel::test;

namespace {

int send(zelMsgQId queue, const std::string &text, int ticks = ZEL_NO_WAIT, int priority = ZEL_MSG_NORMAL) {
    return msgQSend(queue, text.data(), static_cast<uint32_t>(text.size()), ticks, priority);
}

// The next message; "-" and the error number when there is none.
std::string receive(zelMsgQId queue, int ticks = ZEL_NO_WAIT) {
    char buffer[256];
    const int length = msgQReceive(queue, buffer, sizeof buffer, ticks);
    if (length >= 0) return std::string(buffer, static_cast<std::size_t>(length));
    return "-" + std::to_string(errnoGet());
}

const std::string unavailable = "-" + std::to_string(ZEL_ERR_OBJECT_UNAVAILABLE);
const std::string timedOut = "-" + std::to_string(ZEL_ERR_TIMEOUT);
const std::string deleted = "-" + std::to_string(ZEL_ERR_OBJECT_DELETED);

struct Receiver {
    explicit Receiver(zelMsgQId queue) : task([this, queue] { got = receive(queue, WAIT_FOREVER); }) {}
    std::string got = "nothing yet";
    TestTask task;
};

struct Sender {
    explicit Sender(zelMsgQId queue, std::string text) : task([queue, text] { send(queue, text, WAIT_FOREVER); }) {}
    TestTask task;
};

void expectRefused(zelMsgQId queue) {
    char byte = 0;
    EXPECT_FAILS_WITH(ZEL_ERR_INVALID_OBJECT_ID, msgQSend(queue, &byte, 1u << 31, 0, 0));
    EXPECT_FAILS_WITH(ZEL_ERR_INVALID_OBJECT_ID, msgQReceive(queue, &byte, 0, 0));
    EXPECT_FAILS_WITH(ZEL_ERR_INVALID_OBJECT_ID, msgQNumMsgs(queue));
    EXPECT_FAILS_WITH(ZEL_ERR_INVALID_OBJECT_ID, msgQDelete(queue));
}

TEST(MsgQCreate, AnyOtherAddressIsRefusedUnreadAndSoIsWhatNoHostCanHold) {
    for (const auto &[messages, length] : {std::pair{-1, 4}, {4, -1}, {INT32_MAX, INT32_MAX}, {INT32_MIN, INT32_MIN}})
        EXPECT_EQ(msgQCreate(messages, length, 0), nullptr);
    EXPECT_EQ(errno, ZEL_ERR_NOT_ENOUGH_MEMORY);
    const zelMsgQId queue = msgQCreate(2, 0, ZEL_MSGQ_FIFO);
    const auto address = reinterpret_cast<std::uintptr_t>(queue);
    char onStack[512] = {};
    for (const std::uintptr_t garbage :
         {std::uintptr_t{0}, std::uintptr_t{1}, UINTPTR_MAX, address + 1, address + 64, address - 64, address + 4096,
          address - 4096, address ^ ~(UINTPTR_MAX >> 1), reinterpret_cast<std::uintptr_t>(onStack)})
        expectRefused(reinterpret_cast<zelMsgQId>(garbage));
    EXPECT_EQ(msgQSend(queue, nullptr, 0, ZEL_NO_WAIT, ZEL_MSG_NORMAL), ZEL_OK);
    EXPECT_FAILS_WITH(ZEL_ERR_INVALID_MSG_LENGTH, send(queue, "x"));
    EXPECT_EQ(msgQReceive(queue, nullptr, 0, ZEL_NO_WAIT), 0) << "an empty message, not a failure";
    EXPECT_EQ(msgQDelete(queue), ZEL_OK);
    expectRefused(queue);
}

TEST(MsgQ, ChecksLengthThenFullnessAndWaitsAsLongAsItIsTold) {
    const zelMsgQId queue = msgQCreate(3, 8, ZEL_MSGQ_FIFO);
    char buffer[16];
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(receive(queue, 5), timedOut);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(100));
    EXPECT_EQ(receive(queue, -2), timedOut);
    errno = 0;
    for (const char *text : {"1", "22", "12345678"}) EXPECT_EQ(send(queue, text, WAIT_FOREVER), ZEL_OK);
    EXPECT_EQ(msgQNumMsgs(queue), 3);
    EXPECT_EQ(errno, 0) << "success leaves it alone";
    EXPECT_FAILS_WITH(ZEL_ERR_OBJECT_UNAVAILABLE, send(queue, "x"));
    EXPECT_FAILS_WITH(ZEL_ERR_TIMEOUT, send(queue, "x", 2));
    EXPECT_FAILS_WITH(ZEL_ERR_TIMEOUT, send(queue, "x", -2));
    EXPECT_FAILS_WITH(ZEL_ERR_INVALID_MSG_LENGTH, send(queue, "123456789"));
    EXPECT_FAILS_WITH(ZEL_ERR_INVALID_MSG_LENGTH, msgQSend(queue, "", UINT32_MAX, 0, 0));
    // The message would fit, the longest would not.
    EXPECT_FAILS_WITH(ZEL_ERR_INVALID_MSG_LENGTH, msgQReceive(queue, buffer, 7, 0));
    EXPECT_EQ(receive(queue, -2), "1");
}

// Random sends, urgent sends and receives against a double-ended queue, with messages of every length.
TEST(MsgQ, AgreesWithAModel) {
    Random random = seeded();
    for (int round = 0; round < 20; ++round) {
        const unsigned messages = 1 + random() % 7, longest = random() % 200;
        const zelMsgQId queue = msgQCreate(static_cast<int>(messages), static_cast<int>(longest), 0);
        std::deque<std::string> model;
        for (int i = 0; i < 3000; ++i) {
            const bool isUrgent = random() % 3 == 0;
            if (random() % 2 == 0) {
                const std::string text(random() % (longest + 1), static_cast<char>(random()));
                const bool fits = model.size() < messages;
                ASSERT_EQ(send(queue, text, ZEL_NO_WAIT, isUrgent ? ZEL_MSG_URGENT : ZEL_MSG_NORMAL) == ZEL_OK, fits);
                if (fits) model.insert(isUrgent ? model.begin() : model.end(), text);
            } else if (model.empty()) {
                ASSERT_EQ(receive(queue), unavailable);
            } else {
                ASSERT_EQ(receive(queue), model.front());
                model.pop_front();
            }
            ASSERT_EQ(msgQNumMsgs(queue), static_cast<int>(model.size()));
        }
        ASSERT_EQ(msgQDelete(queue), ZEL_OK);
    }
}

// ---- Waiting ----

TEST(MsgQOrder, SeveralMessagesWakeSeveralTasks) {
    for (const int options : {ZEL_MSGQ_FIFO, ZEL_MSGQ_PRIORITY}) {
        const zelMsgQId queue = msgQCreate(8, 8, options);
        std::deque<Receiver> receivers;
        std::deque<Sender> senders;
        for (int i = 0; i < 8; ++i) ASSERT_TRUE(receivers.emplace_back(queue).task.pends());
        for (int i = 0; i < 8; ++i) EXPECT_EQ(send(queue, "m"), ZEL_OK);
        for (Receiver &receiver : receivers) EXPECT_TRUE(receiver.task.ends());
        for (int i = 0; i < 8; ++i) send(queue, std::to_string(i));
        for (int i = 8; i < 16; ++i) ASSERT_TRUE(senders.emplace_back(queue, std::to_string(i)).task.pends());
        for (int i = 0; i < 16; ++i) {
            const std::string text = receive(queue, WAIT_FOREVER);
            EXPECT_TRUE(options == ZEL_MSGQ_PRIORITY || text == std::to_string(i)) << text << " as " << i;
        }
    }
}

// The task whose turn it is is deleted with the message, or the room, before it: the next one goes on.
TEST(MsgQOrder, DeletedTaskPassesItsTurnOn) {
    for (const bool isFull : {false, true}) {
        const zelMsgQId queue = msgQCreate(1, 8, ZEL_MSGQ_FIFO);
        if (isFull) send(queue, "full");
        std::deque<TestTask> tasks;
        for (int i = 0; i < 2; ++i) {
            tasks.emplace_back(
                [&] { isFull ? void(send(queue, "x", WAIT_FOREVER)) : void(receive(queue, WAIT_FOREVER)); });
            ASSERT_TRUE(tasks.back().pends());
        }
        taskSuspend(tasks[0].id());
        EXPECT_TRUE(isFull ? receive(queue) == "full" : send(queue, "x") == ZEL_OK);
        EXPECT_FALSE(tasks[1].hasEnded());
        tasks[0].remove();
        EXPECT_TRUE(tasks[1].ends());
        EXPECT_EQ(msgQNumMsgs(queue), isFull ? 1 : 0);
    }
}

TEST(MsgQOfNone, PassesOneMessageFromASenderToAWaitingReceiver) {
    const zelMsgQId queue = msgQCreate(0, 8, ZEL_MSGQ_FIFO);
    EXPECT_FAILS_WITH(ZEL_ERR_OBJECT_UNAVAILABLE, send(queue, "x"));
    EXPECT_FAILS_WITH(ZEL_ERR_TIMEOUT, send(queue, "x", 1));
    EXPECT_EQ(receive(queue), unavailable);
    EXPECT_EQ(receive(queue, 1), timedOut);
    Receiver receiver(queue);
    ASSERT_TRUE(receiver.task.pends());
    taskSuspend(receiver.task.id());
    EXPECT_EQ(send(queue, "a"), ZEL_OK);
    EXPECT_FAILS_WITH(ZEL_ERR_OBJECT_UNAVAILABLE, send(queue, "b"));  // does not overwrite the first
    EXPECT_EQ(msgQNumMsgs(queue), 1);
    taskResume(receiver.task.id());
    EXPECT_TRUE(receiver.task.ends());
    EXPECT_EQ(receiver.got, "a");
    std::deque<Sender> senders;
    for (const char *text : {"c", "d"}) ASSERT_TRUE(senders.emplace_back(queue, text).task.pends());
    for (const char *text : {"c", "d"}) EXPECT_EQ(receive(queue, WAIT_FOREVER), text);
    for (const Sender &sender : senders) EXPECT_TRUE(sender.task.ends());
}

// ---- Deletion ----

std::string shown() {
    return printedBy([] { EXPECT_EQ(msgQInfo(), ZEL_OK); });
}

// While a suspended task waits in it; also when the deleter is itself deleted.
TEST(MsgQDelete, DyingQueueSaysSoUntilItIsGone) {
    for (const bool isFull : {false, true}) {
        const zelMsgQId queue = msgQCreate(1, 8, ZEL_MSGQ_FIFO);
        if (isFull) send(queue, "x");
        TestTask waiter([&] {
            if (isFull)
                EXPECT_FAILS_WITH(ZEL_ERR_OBJECT_DELETED, send(queue, "y", 100000));
            else
                EXPECT_EQ(receive(queue, WAIT_FOREVER), deleted);
        });
        ASSERT_TRUE(waiter.pends());
        taskSuspend(waiter.id());
        TestTask deleter([&] { msgQDelete(queue); });
        ASSERT_TRUE(deleter.pends());
        EXPECT_FAILS_WITH(ZEL_ERR_OBJECT_DELETED, send(queue, "x", WAIT_FOREVER));
        EXPECT_EQ(receive(queue, WAIT_FOREVER), deleted);
        EXPECT_FAILS_WITH(ZEL_ERR_OBJECT_DELETED, msgQDelete(queue));
        EXPECT_FAILS_WITH(ZEL_ERR_OBJECT_DELETED, msgQNumMsgs(queue));
        EXPECT_NE(shown().find("KIL last send"), std::string::npos);
        EXPECT_FALSE(deleter.hasEnded());
        if (isFull) deleter.remove();
        taskResume(waiter.id());
        EXPECT_TRUE(waiter.ends() && deleter.ends());
        expectRefused(queue);
    }
}

TEST(MsgQInfo, ShowsQueuesInOrderOfCreation) {
    EXPECT_EQ(shown(), " -- no message queues currently allocated --");
    const zelMsgQId first = msgQCreate(4, 4, ZEL_MSGQ_PRIORITY), last = msgQCreate(4, 4, ZEL_MSGQ_FIFO);
    send(first, "b", 0, ZEL_MSG_URGENT);
    char expected[200];
    snprintf(expected, sizeof expected,
             "msgQid %p count     1 Prio order URG last send\nmsgQid %p count     0 FIFO order SND last send\n",
             static_cast<void *>(first), static_cast<void *>(last));
    EXPECT_EQ(shown(), expected);
}

// ---- Streams ----

// Producers and consumers that time out, and visitors that are deleted: no message is lost, doubled, overtaken or torn.
TEST(MsgQStream, DeliversEachMessageOnceAndWhole) {
    struct Message {
        std::uint32_t producer, number;
        std::array<std::uint32_t, 14> filling;
    };
    const std::uint32_t each = isFullRun() ? 1'000'000 : 5'000;
    for (const int options : {ZEL_MSGQ_FIFO, ZEL_MSGQ_PRIORITY}) {
        const zelMsgQId queue = msgQCreate(8, sizeof(Message), options);
        std::array<std::atomic<std::uint64_t>, 3> counts{}, sums{};
        std::deque<TestTask> producers, consumers;
        for (std::uint32_t p = 0; p < 3; ++p)
            producers.emplace_back([&, p] {
                for (std::uint32_t i = 1; i <= each;) {
                    Message message{p, i, {}};
                    message.filling.fill(p ^ i);
                    if (msgQSend(queue, reinterpret_cast<char *>(&message), sizeof message, 1, 0) == ZEL_OK) ++i;
                }
            });
        for (int c = 0; c < 2; ++c)
            consumers.emplace_back([&] {
                Message message;
                std::array<std::uint32_t, 3> newest{};
                for (int length = 0; length >= 0 || errnoGet() == ZEL_ERR_TIMEOUT;) {
                    length = msgQReceive(queue, reinterpret_cast<char *>(&message), sizeof message, 1);
                    if (length <= 0) continue;  // nothing, or a visitor's
                    for (const std::uint32_t filling : message.filling)
                        EXPECT_EQ(filling, message.producer ^ message.number);
                    EXPECT_GT(message.number, newest[message.producer]) << "overtaken";
                    newest[message.producer] = message.number;
                    ++counts[message.producer];
                    sums[message.producer] += message.number;
                }
            });
        for (int i = 0; i < 20; ++i) TestTask([&] { msgQSend(queue, nullptr, 0, WAIT_FOREVER, 7), taskDelay(1000); });
        for (auto &producer : producers) ASSERT_TRUE(eventually(100, [&] { return producer.hasEnded(); }));
        ASSERT_TRUE(eventually(patience, [&] { return msgQNumMsgs(queue) == 0; }));
        EXPECT_EQ(msgQDelete(queue), ZEL_OK);
        for (auto &consumer : consumers) ASSERT_TRUE(consumer.ends());
        for (std::size_t p = 0; p < 3; ++p) {
            EXPECT_EQ(counts[p], each);
            EXPECT_EQ(sums[p], std::uint64_t{each} * (each + 1) / 2);
        }
    }
}

TEST(MsgQStream, DeletesRaceWithEveryOtherCall) {
    std::atomic<zelMsgQId> queue{msgQCreate(2, 8, ZEL_MSGQ_FIFO)};
    Gate over;
    std::deque<TestTask> tasks;
    for (int t = 0; t < 4; ++t)
        tasks.emplace_back([&, t] {
            char buffer[8] = {};
            while (!over.isOpen()) t < 2 ? msgQSend(queue, buffer, 8, 1, t) : msgQReceive(queue, buffer, 8, 1);
        });
    for (int i = 0; i < (isFullRun() ? 20'000 : 100); ++i) {
        const zelMsgQId old = queue.exchange(msgQCreate(i % 3, 8, i % 2));
        ASSERT_EQ(msgQDelete(old), ZEL_OK);
        if (i % 10 == 0) taskDelay(0);
    }
    over.open();
    for (auto &task : tasks) EXPECT_TRUE(task.ends());
}

}  // namespace
