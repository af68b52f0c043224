// Suspension: the task does nothing more on return, wherever it was, and nothing else is held up.
#include "tests/kernel/tasks.h"
#include "tests/support/random.h"

namespace zel::test {
namespace {

class Suspend : public KernelTest {
protected:
    static int rounds() { return isFullRun() ? 1000 : 200; }
    // Reads the counter often enough for a running task to be seen.
    bool standsStill() const {
        const std::uint64_t stopped = counter;
        for (int i = 0; i < 20 && counter == stopped; ++i) breathe();
        return counter == stopped;
    }
    bool goesOn() const {
        return eventually(20, [this, seen = counter.load()] { return counter > seen; });
    }
    std::atomic<std::uint64_t> counter{0};
};

TEST_F(Suspend, ATaskStandsStillOnReturnAndHoldsNothing) {
    const zelWdogId watchdog = wdCreate();
    zelTaskDesc description;
    const Body calls[] = {
        [] {},  // busy outside the kernel
        [] { taskLock(), taskUnlock(); },
        [] { taskDelay(0); },
        [&] { wdStart(watchdog, 1, nullptr, 0), wdCancel(watchdog); },
        [&] { taskInfoGet(taskIdSelf(), &description); },
    };
    for (const Body &call : calls) {
        Gate over;
        TestTask task([&] {
            for (; !over.isOpen(); ++counter) call();
        });
        EXPECT_EQ(taskResume(task.id()), ZEL_OK);  // it runs already
        for (int i = 0; i < (&call == calls ? rounds() : rounds() / 4); ++i) {
            ASSERT_EQ(taskSuspend(task.id()) + taskSuspend(task.id()), ZEL_OK);  // does not count
            ASSERT_TRUE(standsStill()) << i;
            ASSERT_EQ(taskIsSuspended(task.id()), 1);
            ASSERT_EQ(taskIsReady(task.id()), 0);
            // Whoever needs the same locks gets them.
            ASSERT_EQ(wdDelete(wdCreate()) + wdCancel(watchdog), ZEL_OK);
            ASSERT_EQ(taskResume(task.id()), ZEL_OK);
            ASSERT_EQ(taskIsSuspended(task.id()), 0);
        }
        ASSERT_TRUE(goesOn());
        over.open();
        ASSERT_TRUE(task.ends());
    }
    EXPECT_EQ(wdDelete(watchdog), ZEL_OK);
}

TEST_F(Suspend, ADelayedTaskStaysSuspendedBeyondItsDelay) {
    TestTask task([&] {
        for (;; ++counter) taskDelay(1);
    });
    for (int i = 0; i < 20; ++i) {
        ASSERT_TRUE(goesOn());
        ASSERT_EQ(taskSuspend(task.id()), ZEL_OK);
        const std::uint64_t stopped = counter;
        taskDelay(3);
        ASSERT_EQ(counter, stopped);
        ASSERT_EQ(taskIsSuspended(task.id()), 1) << "the end of the delay zeroed the state of a stopped task";
        ASSERT_EQ(taskResume(task.id()), ZEL_OK);
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

TEST_F(Suspend, ATaskThatWaitsForAnObjectTakesItWhenItIsResumed) {
    const zelSemId semaphore = semBCreate(ZEL_SEM_FIFO, 0);
    const zelSemId mutex = semMCreate(ZEL_SEM_PRIORITY | ZEL_SEM_INVERSION_SAFE);
    const zelMsgQId empty = msgQCreate(1, 8, ZEL_MSGQ_FIFO), full = msgQCreate(1, 8, ZEL_MSGQ_PRIORITY);
    char message[8] = "message", received[8];
    const struct {
        const char *name;
        Body prepare, wait, serve;
    } rows[] = {
        {"semaphore", [] {}, [&] { counter += semTake(semaphore, WAIT_FOREVER) == ZEL_OK; },
         [&] { semGive(semaphore); }},
        {"mutex", [&] { semTake(mutex, WAIT_FOREVER); },
         [&] { counter += semTake(mutex, WAIT_FOREVER) == ZEL_OK && semGive(mutex) == ZEL_OK; },
         [&] { semGive(mutex); }},
        {"receive", [] {}, [&] { counter += msgQReceive(empty, received, 8, WAIT_FOREVER) == 8; },
         [&] { msgQSend(empty, message, 8, ZEL_NO_WAIT, ZEL_MSG_NORMAL); }},
        {"send", [&] { msgQSend(full, message, 8, ZEL_NO_WAIT, ZEL_MSG_NORMAL); },
         [&] { counter += msgQSend(full, message, 8, WAIT_FOREVER, ZEL_MSG_URGENT) == ZEL_OK; },
         [&] { msgQReceive(full, received, 8, ZEL_NO_WAIT); }},
    };
    for (const auto &row : rows) {
        for (int i = 0; i < rounds() / 10; ++i) {
            row.prepare();
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

TEST_F(Suspend, ManySuspendersAndDeletersAtOnce) {
    std::atomic<zelTaskId> target{30000};  // nobody yet
    const auto attack = [&] {
        while (!gate.isOpen()) {
            if (taskSuspend(target) != ZEL_OK) breathe();
            taskResume(target);
        }
    };
    const zelTaskId attackers[] = {spawn(attack), spawn(attack)};
    for (int i = 0; i < 100; ++i) {
        target = spawn([] {
            for (;;) taskUnsafe();
        });
        breathe();
        ASSERT_EQ(taskDelete(target), ZEL_OK);
    }
    gate.open();
    for (const zelTaskId tid : attackers) ASSERT_TRUE(ends(tid));
}

}  // namespace
}  // namespace zel::test
