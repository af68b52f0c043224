// Deletion: where it reaches a task, delete safety, deleters that meet.
#include <pthread.h>
#include <unistd.h>

#include "tests/kernel/tasks.h"
#include "tests/support/random.h"

namespace zel::test {
namespace {

std::atomic<int> hooked{0};
void countHook(zelTaskId, intptr_t) {
    ++hooked;
}

class TaskDelete : public KernelTest {
protected:
    void SetUp() override {
        KernelTest::SetUp();
        taskDeleteHookAdd(countHook);
    }
    void TearDown() override {
        KernelTest::TearDown();
        taskDeleteHookDelete(countHook);
    }
};

struct Guard {
    std::atomic<int> &unwound;
    ~Guard() { unwound += taskIdSelf() != 0 ? 1 : 100; }  // still a task
};

// Also while it is suspended there.
TEST_F(TaskDelete, ReachesATaskWhereverItMayWait) {
    const zelSemId semaphore = semCCreate(ZEL_SEM_FIFO, 0), free = semCCreate(ZEL_SEM_FIFO, 1'000'000);
    const zelMsgQId empty = msgQCreate(4, 4, ZEL_MSGQ_FIFO), none = msgQCreate(0, 4, ZEL_MSGQ_PRIORITY);
    const zelMsgQId queue = msgQCreate(4, 4, ZEL_MSGQ_FIFO);
    char message[4] = "";
    const struct {
        const char *name;
        Body call;  // again and again
    } places[] = {
        {"long delays", [] { taskDelay(1000000); }},
        {"waits for a semaphore", [&] { semTake(semaphore, WAIT_FOREVER); }},
        {"waits for a message", [&] { msgQReceive(empty, message, 4, WAIT_FOREVER); }},
        {"waits for room", [&] { msgQSend(none, message, 4, 1000000, ZEL_MSG_NORMAL); }},
        {"yields", [] { taskDelay(0); }},
        {"calls that need not wait", [] { taskUnsafe(); }},
        {"failing deletions", [] { taskDelete(4711); }},
        {"uncontended takes and gives", [&] { semTake(free, WAIT_FOREVER), semGive(free); }},
        {"messages at hand",
         [&] {
             msgQSend(queue, message, 4, ZEL_NO_WAIT, ZEL_MSG_NORMAL);
             msgQReceive(queue, message, 4, ZEL_NO_WAIT);
         }},
        {"suspensions of itself", [] { taskSuspend(0); }},
#ifndef __SANITIZE_THREAD__  // that tool loses track of a thread that is cancelled inside a signal handler
        {"sleeps of the host", [] { usleep(100); }},
#endif
    };
    std::atomic<int> entered{0}, unwound{0};
    for (const auto &place : places) {
        for (int round = 0; round < (isFullRun() ? 1000 : 24); ++round) {
            const int before = entered;
            const zelTaskId tid = spawn([&] {
                const Guard guard{unwound};
                ++entered;
                for (;;) place.call();
            });
            if (round % 2 == 0) {
                ASSERT_TRUE(eventually(20, [&] { return entered > before; }));
                eventually(0.003, [&] { return field(tid, &zelTcb::state) != 0; });
            }
            const int suspended = round % 3 == 0 ? taskSuspend(tid) : ZEL_OK;
            ASSERT_EQ(suspended, ZEL_OK);
            ASSERT_EQ(taskDelete(tid), ZEL_OK) << place.name;
            ASSERT_FALSE(exists(tid)) << place.name;
            ASSERT_EQ(unwound, entered) << place.name;
        }
    }
    EXPECT_EQ(semDelete(semaphore) + semDelete(free) + msgQDelete(empty) + msgQDelete(none) + msgQDelete(queue),
              ZEL_OK);
}

TEST_F(TaskDelete, WaitsForASafeTaskUntilItsLastUnsafe) {
    std::atomic<int> step{0};
    const zelTaskId victim = spawn([&] {
        taskSafe();
        taskSafe();
        step = 1;
        gate.wait();
        taskUnsafe();
        taskDelay(2);
        step = 2;
        taskUnsafe();  // handed over here
        step = 3;
        for (;;) taskDelay(1);
    });
    ASSERT_TRUE(eventually(20, [&] { return step == 1; }));
    std::atomic<int> errors[3] = {-1, -1, -1};
    zelTaskId deleters[3];
    for (int i = 0; i < 3; ++i) deleters[i] = spawn([&, i] { errors[i] = taskDelete(victim) == ZEL_OK ? 0 : errno; });
    ASSERT_TRUE(eventually(20, [&] { return field(victim, &zelTcb::deletersWaiting) == 3; }));
    EXPECT_EQ(taskDelete(deleters[2]), ZEL_OK);  // a deleter may be deleted while it waits
    EXPECT_EQ(field(victim, &zelTcb::deletersWaiting), 2u);
    gate.open();
    EXPECT_TRUE(ends(victim));
    EXPECT_EQ(step, 2);
    EXPECT_TRUE(ends(deleters[0]) && ends(deleters[1]));
    EXPECT_EQ(errors[0] + errors[1], ZEL_ERR_OBJECT_DELETED);  // and 0: one of them deleted it
}

// Also where the task cannot be caught at its end: as a forced deletion unwinds it, and with cancellation off.
TEST_F(TaskDelete, ASafeSectionMayEndInAnyWayWhileADeleterWaits) {
    struct Section {
        Section() { taskSafe(); }
        ~Section() noexcept(false) { taskUnsafe(); }
    };
    std::atomic<bool> isThrough{false};
    const struct {
        Body body;
        bool isForced;
        int error;  // the deleter's
    } rows[] = {{[&] {
                     taskSafe();
                     EXPECT_FAILS_WITH(ZEL_ERR_OBJECT_UNAVAILABLE, taskDelete(0));
                     EXPECT_FAILS_WITH(ZEL_ERR_OBJECT_UNAVAILABLE, taskDelete(taskIdSelf()));
                     gate.wait();
                 },
                 false, ZEL_ERR_OBJECT_DELETED},
                {[&] {
                     const Section section;
                     taskDelay(1000000);
                 },
                 true, ZEL_ERR_OBJECT_DELETED},
                {[&] {
                     pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
                     {
                         const Section section;
                         gate.wait();
                     }
                     isThrough = true;
                     pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, nullptr);
                     taskDelay(1000000);
                 },
                 false, 0}};
    for (const auto &row : rows) {
        gate.close();
        std::atomic<int> error{-1};
        const zelTaskId victim = spawn(row.body);
        ASSERT_TRUE(eventually(20, [&] { return field(victim, &zelTcb::safeCount) == 1; }));
        const zelTaskId deleter = spawn([&] { error = taskDelete(victim) == ZEL_OK ? 0 : errno; });
        ASSERT_TRUE(eventually(20, [&] { return field(victim, &zelTcb::deletersWaiting) == 1; }));
        row.isForced ? void(taskDeleteForce(victim)) : gate.open();
        EXPECT_TRUE(ends(victim) && ends(deleter));
        EXPECT_EQ(error, row.error);
    }
    EXPECT_TRUE(isThrough);
}

TEST_F(TaskDelete, ATaskEndsItselfInEveryWay) {
    std::atomic<int> unwound{0};
    const Body ways[] = {[] { taskDelete(0); }, [] { taskDeleteForce(0); }, [] { taskDelete(taskIdSelf()); },
                         [] { pthread_exit(nullptr); }, [] {}};
    for (const Body &way : ways) {
        EXPECT_TRUE(ends(spawn([&] {
            const Guard guard{unwound};
            way();
        })));
    }
    EXPECT_EQ(unwound, 5);
    EXPECT_EQ(hooked, 5);
}

// Two tasks delete, restart or suspend each other at the same moment: neither hangs half-way.
TEST_F(TaskDelete, OrRestartOrSuspensionOfEachOther) {
    startServices();
    for (const auto &call : {taskDelete, taskRestart, taskSuspend}) {
        for (int round = 0; round < 50; ++round) {
            std::atomic<zelTaskId> ids[2] = {0, 0};
            std::atomic<int> started{0};
            Gate start;
            const auto body = [&](int other) {
                if (++started > 2) return;  // a second run ends
                start.spin();
                call(ids[other]);
            };
            ids[0] = spawn([&] { body(1); });
            ids[1] = spawn([&] { body(0); });
            ASSERT_TRUE(eventually(20, [&] { return started == 2; }));
            start.open();
            ASSERT_TRUE(eventually(20, [&] {
                for (const auto &id : ids) taskResume(id);
                return !exists(ids[0]) && !exists(ids[1]);
            })) << round;
        }
    }
}

// Its deleter waits for it, or comes to it as it unwinds.
TEST_F(TaskDelete, AVictimWhoseDeleterIsDeletedReapsItself) {
    struct Owner {
        zelTaskId child;
        ~Owner() { taskDelete(child); }
    };
    for (const bool isUnwinding : {false, true}) {
        gate.close();
        hooked = 0;
        std::atomic<bool> isBusy{false};
        const zelTaskId victim = spawn([&] {
            isBusy = true;
            gate.spin();
        });
        ASSERT_TRUE(eventually(20, [&] { return isBusy.load(); }));
        const zelTaskId deleter = spawn([&] {
            if (!isUnwinding) taskDelete(victim);
            const Owner owner{victim};
            taskDelay(1000000);
        });
        if (isUnwinding)
            ASSERT_TRUE(eventually(20, [&] { return field(deleter, &zelTcb::state) == ZEL_TASK_DELAYED; }));
        else
            ASSERT_TRUE(eventually(20, [&] { return (field(victim, &zelTcb::lifeFlags) & kernel::lifeEnding) != 0; }));
        EXPECT_EQ(taskDelete(deleter), ZEL_OK);  // although the victim is out of reach
        EXPECT_TRUE(exists(victim));
        EXPECT_FAILS_WITH(ZEL_ERR_OBJECT_DELETED, taskDelete(victim));  // no second one
        EXPECT_EQ(hooked, 1);
        gate.open();
        EXPECT_TRUE(ends(victim));
        EXPECT_EQ(hooked, 2);
    }
}

TEST_F(TaskDelete, OfManyDeletersAndTheTaskItselfExactlyOneReaps) {
    const int rounds = isFullRun() ? 2000 : 150;
    for (int round = 0; round < rounds; ++round) {
        std::atomic<int> winners{0};
        std::atomic<bool> isOver{false};
        const zelTaskId victim = spawn([round, &isOver] {
            if (round % 3 != 0) taskDelay(0);
            isOver = true;
        });
        const auto attack = [&] { winners += taskDelete(victim) == ZEL_OK ? 1 : 0; };
        const zelTaskId attackers[] = {spawn(attack), spawn(attack)};
        for (const zelTaskId tid : attackers) ASSERT_TRUE(ends(tid));
        ASSERT_TRUE(ends(victim));
        ASSERT_LE(winners, 1);
        ASSERT_EQ(hooked, 3 * (round + 1));
    }
}

}  // namespace
}  // namespace zel::test
