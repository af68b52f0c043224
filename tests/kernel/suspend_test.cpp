// Suspension: the task does nothing more on return, wherever it was, and nothing else is held up.
#include <unistd.h>

#include "tests/kernel/tasks.h"
#include "tests/support/random.h"

namespace zel::test {
namespace {

class Suspend : public KernelTest {
protected:
    static int rounds() { return isFullRun() ? 1000 : 200; }
    // Reads `counter` often enough for a running task to be seen.
    static bool standsStill(const std::atomic<std::uint64_t> &counter) {
        const std::uint64_t stopped = counter;
        for (int i = 0; i < 20; ++i) {
            breathe();
            if (counter != stopped) return false;
        }
        return true;
    }
    bool goesOn(std::uint64_t seen) {
        return eventually(20, [&] { return counter > seen; });
    }
    Body counting = [this] {
        while (!gate.isOpen()) ++counter;
    };
    std::atomic<std::uint64_t> counter{0};
};

TEST_F(Suspend, ABusyTaskStandsStillOnReturn) {
    const zelTaskId tid = spawn(counting);
    EXPECT_EQ(taskResume(tid), ZEL_OK);  // it runs already
    for (int i = 0; i < rounds(); ++i) {
        ASSERT_EQ(taskSuspend(tid) + taskSuspend(tid), ZEL_OK);  // does not count
        ASSERT_TRUE(standsStill(counter)) << i;
        ASSERT_EQ(taskIsSuspended(tid), 1);
        ASSERT_EQ(taskIsReady(tid), 0);
        const std::uint64_t seen = counter;
        ASSERT_EQ(taskResume(tid), ZEL_OK);
        ASSERT_EQ(taskIsSuspended(tid), 0);
        ASSERT_TRUE(i % 50 != 0 || goesOn(seen));
    }
}

TEST_F(Suspend, ATaskInAndOutOfTheKernelStandsStillAndHoldsNothing) {
    const zelWdogId watchdog = wdCreate();
    zelTaskDesc description;
    const Body calls[] = {
        [] { taskLock(), taskUnlock(); },
        [] { taskDelay(0); },
        [&] { wdStart(watchdog, 1, nullptr, 0), wdCancel(watchdog); },
        [&] { taskInfoGet(taskIdSelf(), &description); },
    };
    for (const Body &call : calls) {
        TestTask task([&] {
            for (; !gate.isOpen(); ++counter) call();
        });
        for (int i = 0; i < rounds() / 4; ++i) {
            ASSERT_EQ(taskSuspend(task.id()), ZEL_OK);
            ASSERT_TRUE(standsStill(counter)) << i;
            // Whoever needs the same locks gets them.
            ASSERT_EQ(wdDelete(wdCreate()), ZEL_OK);
            ASSERT_EQ(wdCancel(watchdog), ZEL_OK);
            ASSERT_EQ(taskResume(task.id()), ZEL_OK);
        }
        ASSERT_TRUE(goesOn(counter));
        gate.open();
        ASSERT_TRUE(task.ends());
        gate.close();
    }
    EXPECT_EQ(wdDelete(watchdog), ZEL_OK);
}

TEST_F(Suspend, ADelayedTaskStaysSuspendedBeyondItsDelay) {
    const zelTaskId tid = spawn([&] {
        while (!gate.isOpen()) {
            taskDelay(1);
            ++counter;
        }
    });
    for (int i = 0; i < 20; ++i) {
        ASSERT_TRUE(goesOn(counter));
        ASSERT_EQ(taskSuspend(tid), ZEL_OK);
        const std::uint64_t stopped = counter;
        taskDelay(3);
        ASSERT_EQ(counter, stopped);
        ASSERT_EQ(taskIsSuspended(tid), 1) << "the end of the delay zeroed the state of a stopped task";
        ASSERT_EQ(taskResume(tid), ZEL_OK);
    }
}

TEST_F(Suspend, ATaskMaySuspendItself) {
    TestTask task([&] {
        for (int i = 0; i < 3; ++i, ++counter) taskSuspend(i == 1 ? taskIdSelf() : 0);
    });
    for (std::uint64_t i = 0; i < 3; ++i) {
        ASSERT_TRUE(eventually(20, [&] { return counter == i && taskIsSuspended(task.id()) == 1; }));
        EXPECT_EQ(taskResume(task.id()), ZEL_OK);
    }
    EXPECT_TRUE(task.ends());
}

TEST_F(Suspend, ASuspendedTaskCanBeDeletedWhereverItStopped) {
    const Body bodies[] = {
        [] {
            for (;;) taskDelay(1);
        },
        [] {
            for (;;) taskUnsafe();
        },
        [] {
            taskSafe();
            for (;;) taskSuspend(0);
        },
#ifndef __SANITIZE_THREAD__  // that tool loses track of a thread that is cancelled inside a signal handler
        [] {
            for (;;) usleep(100);
        },
#endif
    };
    for (const Body &body : bodies) {
        for (int i = 0; i < 20; ++i) {
            const zelTaskId tid = spawn(body);
            if (i % 2 == 0) taskDelay(0);
            ASSERT_EQ(taskSuspend(tid), ZEL_OK);
            ASSERT_EQ(taskDeleteForce(tid), ZEL_OK);
        }
    }
}

TEST_F(Suspend, ATaskThatWaitsForAnObjectTakesItWhenItIsResumed) {
    const zelSemId semaphore = semBCreate(ZEL_SEM_FIFO, 0);
    const zelSemId mutex = semMCreate(ZEL_SEM_PRIORITY | ZEL_SEM_INVERSION_SAFE);
    const zelMsgQId empty = msgQCreate(1, 8, ZEL_MSGQ_FIFO), full = msgQCreate(1, 8, ZEL_MSGQ_PRIORITY);
    char message[8] = "message", received[8];
    bool isOwned = false;
    const struct {
        const char *name;
        Body wait;
        Body serve;
    } rows[] = {
        {"semaphore", [&] { counter += semTake(semaphore, WAIT_FOREVER) == ZEL_OK; }, [&] { semGive(semaphore); }},
        {"mutex", [&] { counter += semTake(mutex, WAIT_FOREVER) == ZEL_OK && semGive(mutex) == ZEL_OK; },
         [&] { isOwned = semGive(mutex) != ZEL_OK; }},
        {"receive", [&] { counter += msgQReceive(empty, received, 8, WAIT_FOREVER) == 8; },
         [&] { msgQSend(empty, message, 8, ZEL_NO_WAIT, ZEL_MSG_NORMAL); }},
        {"send", [&] { counter += msgQSend(full, message, 8, WAIT_FOREVER, ZEL_MSG_URGENT) == ZEL_OK; },
         [&] { msgQReceive(full, received, 8, ZEL_NO_WAIT); }},
    };
    for (const auto &row : rows) {
        for (int i = 0; i < rounds() / 10; ++i) {
            if (!isOwned) isOwned = semTake(mutex, ZEL_NO_WAIT) == ZEL_OK;
            msgQSend(full, message, 8, ZEL_NO_WAIT, ZEL_MSG_NORMAL);
            counter = 0;
            const zelTaskId tid = spawn(row.wait, row.name);
            ASSERT_TRUE(i % 2 == 0 || eventually(20, [&] { return field(tid, &zelTcb::state) == 1; })) << row.name;
            ASSERT_EQ(taskSuspend(tid), ZEL_OK);
            row.serve();
            breathe();
            ASSERT_EQ(counter, 0u) << row.name;
            ASSERT_EQ(taskResume(tid), ZEL_OK);
            ASSERT_TRUE(ends(tid)) << row.name;
            ASSERT_EQ(counter, 1u) << row.name;
        }
    }
    EXPECT_EQ(semDelete(semaphore) + semDelete(mutex) + msgQDelete(empty) + msgQDelete(full), ZEL_OK);
}

TEST_F(Suspend, TwoTasksMaySuspendEachOther) {
    for (int i = 0; i < 50; ++i) {
        std::atomic<zelTaskId> ids[2] = {0, 0};
        const auto body = [&](int other) {
            while (ids[other] == 0) breathe();
            taskSuspend(ids[other]);
            ++counter;
        };
        ids[0] = spawn([&] { body(1); });
        ids[1] = spawn([&] { body(0); });
        // Neither hangs half-way: whoever is suspended can be resumed and ends.
        ASSERT_TRUE(eventually(20, [&] {
            for (const auto &id : ids) taskResume(id);
            return !exists(ids[0]) && !exists(ids[1]);
        }));
    }
    EXPECT_EQ(counter, 100u);
}

TEST_F(Suspend, ManySuspendersAndDeletersAtOnce) {
    std::atomic<bool> isOver{false};
    std::atomic<zelTaskId> target{30000};  // nobody yet
    const auto attack = [&] {
        while (!isOver) {
            if (taskSuspend(target) != ZEL_OK) breathe();
            taskResume(target);
        }
    };
    const zelTaskId attackers[] = {spawn(attack), spawn(attack)};
    for (int i = 0; i < 100; ++i) {
        const zelTaskId tid = spawn([&] {
            for (;;) {
                taskUnsafe();
                ++counter;
            }
        });
        target = tid;
        breathe();
        ASSERT_EQ(taskDelete(tid), ZEL_OK);
    }
    isOver = true;
    for (const zelTaskId tid : attackers) ASSERT_TRUE(ends(tid));
}

}  // namespace
}  // namespace zel::test
