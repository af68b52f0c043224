// Restart: of another task, of oneself through the exception task, and what happens when it meets deletions.
#include <string>

#include "tests/kernel/tasks.h"

namespace zel::test {
namespace {

class TaskRestart : public KernelTest {
protected:
    std::atomic<int> runs{0};
    bool hasRun(int times) {
        return eventually(20, [&] { return runs == times; });
    }
};

TEST_F(TaskRestart, KeepsWhatTheTaskIsAndReplacesItsThread) {
    const zelTaskId tid = spawn(
        [&] {
            taskLock();
            taskSafe();
            errno = 0;
            ++runs;
            for (;;) taskDelay(1);
        },
        "again", 42);
    ASSERT_TRUE(hasRun(1));
    const zelTcb *tcb = taskTcb(tid);
    EXPECT_EQ(field(tid, &zelTcb::currentPriority), 255);
    taskPrioritySet(tid, 30);
    EXPECT_EQ(taskRestart(tid), ZEL_OK);
    EXPECT_TRUE(hasRun(2));
    EXPECT_EQ(taskTcb(tid), tcb);
    EXPECT_EQ(std::string(taskName(tid)), "again");
    EXPECT_EQ(field(tid, &zelTcb::lockCount), 1);  // starts at nothing, or the boost would never come back
    EXPECT_EQ(field(tid, &zelTcb::safeCount), 2);  // kept
    EXPECT_EQ(field(tid, &zelTcb::prv_priority).sched_priority, 224);
    EXPECT_EQ(taskDeleteForce(tid), ZEL_OK);
}

TEST_F(TaskRestart, ASuspendedTaskRunsAgain) {
    const zelTaskId tid = spawn([&] {
        ++runs;
        for (;;) taskDelay(1);
    });
    ASSERT_TRUE(hasRun(1));
    EXPECT_EQ(taskSuspend(tid), ZEL_OK);
    EXPECT_EQ(taskRestart(tid), ZEL_OK);
    EXPECT_TRUE(hasRun(2));
    EXPECT_EQ(taskIsSuspended(tid), 0);
    EXPECT_EQ(taskDelete(tid), ZEL_OK);
}

TEST_F(TaskRestart, OneselfNeedsTheExceptionTask) {
    std::atomic<int> error{0};
    const zelTaskId tid = spawn([&] { error = taskRestart(0) == ZEL_ERROR ? errno : -1; });
    EXPECT_TRUE(ends(tid));
    EXPECT_EQ(error, ZEL_ERR_OBJECT_UNAVAILABLE);
}

TEST_F(TaskRestart, OfOneself) {
    startServices();
    std::atomic<zelTaskId> id{0};
    struct Guard {
        std::atomic<int> &unwound;
        ~Guard() { ++unwound; }
    };
    std::atomic<int> unwound{0};
    const zelTaskId tid = spawn([&] {
        const Guard guard{unwound};
        id = taskIdSelf();
        if (++runs < 5) taskRestart(runs % 2 == 0 ? 0 : taskIdSelf());
    });
    EXPECT_TRUE(hasRun(5));
    EXPECT_TRUE(ends(tid));
    EXPECT_EQ(id, tid);
    EXPECT_EQ(unwound, 5);
}

TEST_F(TaskRestart, ADeletionWinsOverARestart) {
    startServices();
    for (int round = 0; round < 100; ++round) {
        std::atomic<bool> isSelf{round % 2 == 0};
        const zelTaskId tid = spawn([&] {
            if (isSelf) taskRestart(0);
            for (;;) taskDelay(1);
        });
        std::atomic<bool> isOver{false};
        const zelTaskId restarter = spawn([&] {
            for (int i = 0; i < 10; ++i) taskRestart(tid);
            isOver = true;
        });
        taskDelay(0);
        ASSERT_EQ(taskDelete(tid), ZEL_OK) << round;
        ASSERT_FALSE(exists(tid));
        ASSERT_TRUE(ends(restarter));
        ASSERT_TRUE(isOver);
    }
}

TEST_F(TaskRestart, ADeletedRestarterLeavesTheRestToTheExceptionTask) {
    startServices();
    const zelTaskId tid = spawn([&] {
        ++runs;
        gate.spin();
    });
    ASSERT_TRUE(hasRun(1));
    const zelTaskId restarter = spawn([&] { taskRestart(tid); });
    taskDelay(2);
    EXPECT_EQ(taskDelete(restarter), ZEL_OK);
    EXPECT_EQ(runs, 1);
    gate.open();
    EXPECT_TRUE(hasRun(2));
    EXPECT_TRUE(ends(tid));
}

TEST_F(TaskRestart, TwoTasksMayRestartEachOther) {
    startServices();
    for (int round = 0; round < 25; ++round) {
        std::atomic<zelTaskId> ids[2] = {0, 0};
        std::atomic<int> started{0};
        Gate start;
        const auto body = [&](int other) {
            if (++started > 2) return;  // a second run ends
            start.spin();
            taskRestart(ids[other]);
            for (;;) taskDelay(1);
        };
        ids[0] = spawn([&] { body(1); });
        ids[1] = spawn([&] { body(0); });
        ASSERT_TRUE(eventually(20, [&] { return started == 2; }));
        start.open();
        ASSERT_TRUE(eventually(20, [&] { return started > 2; })) << round;
        // The one that got through first may wait still.
        for (const auto &id : ids)
            if (exists(id)) taskDelete(id);
        ASSERT_TRUE(ends(ids[0]) && ends(ids[1])) << round;
    }
}

}  // namespace
}  // namespace zel::test
