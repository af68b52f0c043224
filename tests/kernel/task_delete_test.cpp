// Deletion: where it reaches a task, delete safety, deleters that meet.
#include <pthread.h>

#include <vector>

#include "base/lock.h"
#include "kernel/task.h"
#include "platform/seam.h"
#include "tests/kernel/tasks.h"

namespace zel::test {
namespace {

class TaskDelete : public KernelTest {};

std::atomic<int> hooked;
void countHook(zelTaskId, intptr_t) {
    ++hooked;
}

// A place in the kernel where a task may wait: the parking of semaphores and queues, without either.
struct Object {
    Mutex lock{LockRank::object, "&object"};
    kernel::WaitList waiters;
    std::atomic<int> leftLocked{0};
    int tokens = 0;

    kernel::Parked wait(std::uint64_t deadline) {
        kernel::cancellationPoint();
        const kernel::KernelSection section;
        Lock held(lock);
        struct Leave {
            Object &object;
            Lock &lock;
            ~Leave() {
                if (lock.isHeld()) ++object.leftLocked;
                kernel::leaveWaitList(object.waiters, kernel::currentTask());
            }
        };
        kernel::joinWaitList(waiters, kernel::currentTask());
        const Leave leave{*this, held};
        while (tokens == 0)
            if (kernel::park(held, deadline) == kernel::Parked::timedOut) return kernel::Parked::timedOut;
        --tokens;
        return kernel::Parked::woken;
    }
    void give() {
        const kernel::KernelSection section;
        const Lock held(lock);
        ++tokens;
        kernel::unparkAll(waiters);
    }
    bool isFree() {
        const kernel::KernelSection section;
        const Lock held(lock);
        return waiters.isEmpty();
    }
};

TEST_F(TaskDelete, ReachesATaskWhereverItMayWait) {
    static Object object;
    static const zelSemId semaphore = semCCreate(ZEL_SEM_FIFO, 1000);
    static const zelMsgQId queue = msgQCreate(4, 4, ZEL_MSGQ_FIFO);
    const struct {
        const char *name;
        Body body;
    } places[] = {
        {"a long delay", [] { taskDelay(1000000); }},
        {"an endless wait", [] { object.wait(platform::forever); }},
        {"a loop of yields",
         [] {
             for (;;) taskDelay(0);
         }},
        {"a loop of short delays",
         [] {
             for (;;) taskDelay(1);
         }},
        {"a loop of calls that need not wait",
         [] {
             for (;;) taskUnsafe();
         }},
        {"a loop of failing deletions",
         [] {
             for (;;) taskDelete(4711);
         }},
        {"a loop of takes and gives",
         [] {
             for (;;) {
                 semTake(semaphore, WAIT_FOREVER);
                 semGive(semaphore);
             }
         }},
        {"a loop of messages",
         [] {
             char message[4] = "";
             for (;;) {
                 msgQSend(queue, message, 4, ZEL_NO_WAIT, ZEL_MSG_NORMAL);
                 msgQReceive(queue, message, 4, ZEL_NO_WAIT);
             }
         }},
        {"a suspended task",
         [] {
             for (;;) {
                 taskSuspend(0);
             }
         }},
    };
    for (const auto &place : places) {
        for (int round = 0; round < 20; ++round) {
            const zelTaskId tid = spawn(place.body, place.name);
            if (round % 2 == 0) eventually(0.003, [&] { return field(tid, &zelTcb::state) != 0; });
            ASSERT_EQ(taskDelete(tid), ZEL_OK) << place.name;
            ASSERT_FALSE(exists(tid)) << place.name;
        }
    }
    EXPECT_TRUE(object.isFree());
    EXPECT_EQ(semDelete(semaphore) + msgQDelete(queue), ZEL_OK);
}

TEST_F(TaskDelete, UnwindsThroughGuardsWithTheObjectLocked) {
    Object object;
    struct Guard {
        std::atomic<int> &unwound;
        ~Guard() { unwound += taskIdSelf() != 0 ? 1 : 100; }  // still a task
    };
    std::atomic<int> unwound{0};
    const zelTaskId tid = spawn([&] {
        const Guard guard{unwound};
        object.wait(platform::forever);
    });
    ASSERT_TRUE(eventually(20, [&] { return !object.isFree(); }));
    EXPECT_EQ(field(tid, &zelTcb::state), ZEL_TASK_PENDING);
    EXPECT_EQ(taskDelete(tid), ZEL_OK);
    EXPECT_EQ(unwound, 1);
    EXPECT_EQ(object.leftLocked, 1);
    EXPECT_TRUE(object.isFree());
}

TEST_F(TaskDelete, AParkEndsByWakeUpOrDeadline) {
    Object object;
    EXPECT_EQ(object.wait(platform::now()), kernel::Parked::timedOut);
    EXPECT_EQ(object.wait(platform::deadlineAfterTicks(1)), kernel::Parked::timedOut);
    const zelTaskId giver = spawn([&] {
        while (object.isFree()) taskDelay(1);
        object.give();
    });
    EXPECT_EQ(object.wait(platform::deadlineAfterSeconds(60)), kernel::Parked::woken);
    EXPECT_TRUE(ends(giver));
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
    std::atomic<int> results[3] = {99, 99, 99};
    std::atomic<int> errors[3] = {0, 0, 0};
    zelTaskId deleters[3];
    for (int i = 0; i < 3; ++i)
        deleters[i] = spawn([&, i] {
            results[i] = taskDelete(victim);
            errors[i] = errno;
        });
    ASSERT_TRUE(eventually(20, [&] { return field(victim, &zelTcb::deletersWaiting) == 3; }));
    EXPECT_EQ(taskDelete(deleters[2]), ZEL_OK);  // a deleter may be deleted while it waits
    EXPECT_EQ(field(victim, &zelTcb::deletersWaiting), 2u);
    gate.open();
    EXPECT_TRUE(ends(victim));
    EXPECT_EQ(step, 2);
    EXPECT_TRUE(ends(deleters[0]) && ends(deleters[1]));
    const int winner = results[0] == ZEL_OK ? 0 : 1;
    EXPECT_EQ(results[winner], ZEL_OK);
    EXPECT_EQ(results[1 - winner], ZEL_ERROR);
    EXPECT_EQ(errors[1 - winner], ZEL_ERR_OBJECT_DELETED);
}

TEST_F(TaskDelete, ATaskThatGoesOnBeingSafeIsDeletedInBetween) {
    std::atomic<bool> wasCaughtSafe{false};
    const zelTaskId victim = spawn([&] {
        struct Caught {
            std::atomic<bool> &flag;
            ~Caught() { flag = field(0, &zelTcb::safeCount) > 0; }
        };
        const Caught caught{wasCaughtSafe};
        for (;;) {
            taskSafe();
            taskDelay(0);
            taskUnsafe();
        }
    });
    taskDelay(2);
    EXPECT_EQ(taskDelete(victim), ZEL_OK);
    EXPECT_FALSE(wasCaughtSafe);
}

TEST_F(TaskDelete, ASafeTaskCannotDeleteItselfButCanBeForcedOrReturn) {
    const zelTaskId tid = spawn([&] {
        taskSafe();
        EXPECT_FAILS_WITH(ZEL_ERR_OBJECT_UNAVAILABLE, taskDelete(0));
        EXPECT_FAILS_WITH(ZEL_ERR_OBJECT_UNAVAILABLE, taskDelete(taskIdSelf()));
        gate.wait();
    });
    ASSERT_TRUE(eventually(20, [&] { return field(tid, &zelTcb::safeCount) == 1; }));
    std::atomic<int> error{0};
    const zelTaskId deleter = spawn([&] { error = taskDelete(tid) == ZEL_ERROR ? errno : -1; });
    ASSERT_TRUE(eventually(20, [&] { return field(tid, &zelTcb::deletersWaiting) == 1; }));
    gate.open();
    EXPECT_TRUE(ends(tid));
    EXPECT_TRUE(ends(deleter));  // released by the task's end
    EXPECT_EQ(error, ZEL_ERR_OBJECT_DELETED);

    const zelTaskId forced = spawn([] {
        taskSafe();
        for (;;) taskDelay(1);
    });
    ASSERT_TRUE(eventually(20, [&] { return field(forced, &zelTcb::safeCount) == 1; }));
    EXPECT_EQ(taskDeleteForce(forced), ZEL_OK);
}

TEST_F(TaskDelete, ATaskEndsItselfInEveryWay) {
    taskDeleteHookAdd(countHook);
    hooked = 0;
    struct Guard {
        std::atomic<int> &unwound;
        ~Guard() { ++unwound; }
    };
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
    taskDeleteHookDelete(countHook);
}

TEST_F(TaskDelete, TwoTasksMayDeleteEachOther) {
    for (int round = 0; round < 100; ++round) {
        std::atomic<zelTaskId> a{0}, b{0};
        std::atomic<int> ready{0};
        const auto meet = [&ready] {
            ++ready;
            while (ready < 2) breathe();
        };
        a = spawn([&] {
            meet();
            while (b == 0) breathe();
            taskDelete(b);
            for (;;) taskDelay(1000000);
        });
        b = spawn([&] {
            meet();
            taskDelete(a);
            for (;;) taskDelay(1000000);
        });
        ASSERT_TRUE(eventually(20, [&] { return !exists(a) || !exists(b); })) << round;
        // One may have been quick enough to survive the other.
        if (exists(a)) taskDelete(a);
        if (exists(b)) taskDelete(b);
        ASSERT_TRUE(ends(a) && ends(b)) << round;
    }
}

TEST_F(TaskDelete, AVictimWhoseDeleterIsDeletedReapsItself) {
    taskDeleteHookAdd(countHook);
    hooked = 0;
    std::atomic<bool> isBusy{false};
    const zelTaskId victim = spawn([&] {
        isBusy = true;
        gate.spin();
    });
    ASSERT_TRUE(eventually(20, [&] { return isBusy.load(); }));
    const zelTaskId deleter = spawn([&] { taskDelete(victim); });
    ASSERT_TRUE(eventually(20, [&] { return (field(victim, &zelTcb::lifeFlags) & kernel::lifeEnding) != 0; }));
    EXPECT_FAILS_WITH(ZEL_ERR_OBJECT_DELETED, taskDelete(victim));  // no second one
    EXPECT_EQ(taskDelete(deleter), ZEL_OK);                         // it waits for the victim, which is out of reach
    EXPECT_TRUE(exists(victim));
    EXPECT_EQ(hooked, 1);
    gate.open();
    EXPECT_TRUE(ends(victim));
    EXPECT_EQ(hooked, 2);
    taskDeleteHookDelete(countHook);
}

TEST_F(TaskDelete, OfManyDeletersAndTheTaskItselfExactlyOneReaps) {
    taskDeleteHookAdd(countHook);
    hooked = 0;
    const int rounds = getenv("ZEL_TEST_FULL") != nullptr ? 2000 : 150;
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
    taskDeleteHookDelete(countHook);
}

}  // namespace
}  // namespace zel::test
