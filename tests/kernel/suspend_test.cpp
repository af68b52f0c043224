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
    std::atomic<std::uint64_t> counter{0};
};

// Also where it waits and what it waits for comes meanwhile: it takes that when it goes on.
TEST_F(Suspend, ATaskStandsStillOnReturnAndHoldsNothing) {
    const zelWdogId watchdog = wdCreate();
    const zelSemId semaphore = semBCreate(ZEL_SEM_FIFO, 0);
    const zelMsgQId empty = msgQCreate(1, 8, ZEL_MSGQ_FIFO), full = msgQCreate(1, 8, ZEL_MSGQ_PRIORITY);
    zelTaskDesc description;
    char message[8] = "message", received[8], receivedHere[8];
    const struct {
        Body call, serve;
    } rows[] = {
        {[] {}, [] {}},  // busy outside the kernel
        {[] { taskLock(), taskUnlock(); }, [] {}},
        {[] { taskDelay(0); }, [] {}},
        {[] { taskDelay(1); }, [] { taskDelay(2); }},  // stays suspended beyond its delay
        {[] { EXPECT_EQ(zelSleep(0, 3, 0), ZEL_OK); }, [] {}},
        {[&] { wdStart(watchdog, 1, nullptr, 0), wdCancel(watchdog); }, [] {}},
        {[&] { taskInfoGet(taskIdSelf(), &description); }, [] {}},
        {[&] { semTake(semaphore, WAIT_FOREVER); }, [&] { semGive(semaphore); }},
        {[&] { msgQReceive(empty, received, 8, WAIT_FOREVER); }, [&] { msgQSend(empty, message, 8, ZEL_NO_WAIT, 0); }},
        {[&] { msgQSend(full, message, 8, WAIT_FOREVER, 0); },
         [&] { msgQReceive(full, receivedHere, 8, ZEL_NO_WAIT); }},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(&row - rows);
        Gate over;
        TestTask task([&] {
            for (; !over.isOpen(); ++counter) row.call();
        });
        EXPECT_EQ(taskResume(task.id()), ZEL_OK);  // it runs already
        for (int i = 0; i < (&row == rows ? rounds() : rounds() / 4); ++i) {
            ASSERT_EQ(taskSuspend(task.id()) + taskSuspend(task.id()), ZEL_OK);  // does not count
            const std::uint64_t stopped = counter;
            row.serve();
            ASSERT_TRUE(standsStill() && counter == stopped) << i;
            ASSERT_EQ(taskIsSuspended(task.id()), 1);
            ASSERT_EQ(taskIsReady(task.id()), 0);
            // Whoever needs the same locks gets them.
            ASSERT_EQ(wdDelete(wdCreate()) + wdCancel(watchdog), ZEL_OK);
            ASSERT_EQ(taskResume(task.id()), ZEL_OK);
            ASSERT_EQ(taskIsSuspended(task.id()), 0);
            ASSERT_TRUE(i % 8 != 0 || eventually(20, [&] { return counter > stopped; }));
        }
        over.open();
        ASSERT_TRUE(eventually(20, [&] { return row.serve(), task.hasEnded(); }));
    }
    EXPECT_EQ(wdDelete(watchdog) + semDelete(semaphore) + msgQDelete(empty) + msgQDelete(full), ZEL_OK);
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
