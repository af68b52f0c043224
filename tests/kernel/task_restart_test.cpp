// Restart: of another task, of oneself through the exception task, and what happens when it meets deletions.
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
            ++runs;
            for (;;) taskDelay(1);
        },
        "again", 42);
    ASSERT_TRUE(hasRun(1));
    EXPECT_EQ(field(tid, &zelTcb::currentPriority), 255);
    taskPrioritySet(tid, 30);
    EXPECT_EQ(taskSuspend(tid), ZEL_OK);
    EXPECT_EQ(taskRestart(tid), ZEL_OK);
    EXPECT_TRUE(hasRun(2));
    EXPECT_EQ(taskIsSuspended(tid), 0);
    EXPECT_STREQ(taskName(tid), "again");
    EXPECT_EQ(field(tid, &zelTcb::lockCount), 1);  // starts at nothing, or the boost would never come back
    EXPECT_EQ(field(tid, &zelTcb::safeCount), 2);  // kept
    EXPECT_EQ(field(tid, &zelTcb::prv_priority).sched_priority, 224);
    EXPECT_EQ(taskDeleteForce(tid), ZEL_OK);
}

TEST_F(TaskRestart, OfOneselfNeedsTheExceptionTask) {
    EXPECT_TRUE(ends(spawn([] { EXPECT_FAILS_WITH(ZEL_ERR_OBJECT_UNAVAILABLE, taskRestart(0)); })));
    startServices();
    std::atomic<zelTaskId> id{0};
    const zelTaskId tid = spawn([&] {
        id = taskIdSelf();
        if (++runs < 5) taskRestart(runs % 2 == 0 ? 0 : taskIdSelf());
    });
    EXPECT_TRUE(hasRun(5));
    EXPECT_TRUE(ends(tid));
    EXPECT_EQ(id, tid);
}

TEST_F(TaskRestart, ADeletionWinsOverARestart) {
    startServices();
    for (int round = 0; round < 100; ++round) {
        const zelTaskId tid = spawn([round] {
            if (round % 2 == 0) taskRestart(0);
            for (;;) taskDelay(1);
        });
        const zelTaskId restarter = spawn([&] {
            for (int i = 0; i < 10; ++i) taskRestart(tid);
        });
        taskDelay(0);
        ASSERT_EQ(taskDelete(tid), ZEL_OK) << round;
        ASSERT_FALSE(exists(tid));
        ASSERT_TRUE(ends(restarter));
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

}  // namespace
}  // namespace zel::test
