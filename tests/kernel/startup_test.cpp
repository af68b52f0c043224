// Start-up: the service tasks and their priorities, round-robin, real-time scheduling where the host grants it.
#include <sched.h>

#include <cstdlib>

#include "platform/scheduling.h"
#include "tests/kernel/tasks.h"
#include "tests/support/child.h"

namespace zel::test {
namespace {

class StartUp : public KernelTest {};

TEST(StartUpLate, ATaskThatComesBeforeTheLibraryTouchesNoForeignKey) {
    pthread_key_t key;
    ASSERT_EQ(pthread_key_create(&key, nullptr), 0);  // so that key 0 is taken, if not by this one
    std::atomic<bool> isUnderItsKey{false}, isUnderKeyZero{true};
    EXPECT_TRUE(ends(spawn([&] {
        isUnderItsKey = pthread_getspecific(kernel::vx2bsdKey) == taskTcb(0);
        isUnderKeyZero = pthread_getspecific(0) == taskTcb(0);
    })));
    EXPECT_TRUE(isUnderItsKey);
    EXPECT_FALSE(isUnderKeyZero);
    pthread_key_delete(key);
}

TEST_F(StartUp, TheServiceTasksRunAboveAllOthers) {
    EXPECT_EQ(vx2bsdLibInit() + init_system() + vx2bsd_start(0, 0, 1, 1), 0);
    EXPECT_EQ(taskCount(), 0);
    // Given priorities are mapped one higher than those of other tasks.
    const struct {
        std::uint32_t given[2];
        int becomes[2];
    } rows[] = {{{0, 0}, {254, 253}}, {{10, 4000}, {245, 0}}};
    for (const auto &row : rows) {
        ASSERT_EQ(vx2bsd_start(1, 0, row.given[0], row.given[1]), ZEL_OK);
        EXPECT_EQ(taskNameToId("tTimerTask"), ZEL_ERROR);
        ASSERT_EQ(vx2bsd_start(0, 1, row.given[0], row.given[1]), ZEL_OK);
        EXPECT_EQ(field(taskNameToId("tExcTask"), &zelTcb::currentPriority), row.becomes[0]);
        EXPECT_EQ(field(taskNameToId("tTimerTask"), &zelTcb::currentPriority), row.becomes[1]);
        EXPECT_FAILS_WITH(ZEL_ERR_OBJECT_UNAVAILABLE, vx2bsd_start(1, 1, 0, 0));
        const zelTaskId first = spawn([] {});
        EXPECT_EQ(first, 1);  // they take no small id
        EXPECT_TRUE(ends(first));
        stopServices();
    }
}

// Policy and host priority of a task, as the host sees them.
std::pair<int, int> hostScheduling(zelTaskId tid) {
    int policy = -1;
    sched_param parameters{};
    pthread_getschedparam(field(tid, &zelTcb::pthrid), &policy, &parameters);
    return {policy, parameters.sched_priority};
}

// Runs with real-time scheduling where that is granted; the tasks sleep, so that nothing else of the host is held up.
ZEL_CHILD(realTimeTasks) {
    vx2bsdLibInit();
    if (!platform::isRealTime()) return 77;
    Gate gate;
    const zelTaskId tid = spawn([&] { gate.wait(); }, "rt", 100);
    const auto expect = [&](int policy, int logical) {
        return hostScheduling(tid) == std::pair{policy, platform::hostPriority(logical)} ? 0 : 1;
    };
    int bad = expect(SCHED_FIFO, 154);
    taskPrioritySet(tid, 0);
    bad |= expect(SCHED_FIFO, 254) << 1;
    kernelTimeSlice(1);
    bad |= expect(SCHED_RR, 254) << 2;
    taskRestart(tid);
    bad |= expect(SCHED_RR, 254) << 3;
    kernelTimeSlice(0);
    bad |= expect(SCHED_FIFO, 254) << 4;
    gate.open();
    return bad | (ends(tid) ? 0 : 1 << 5);
}

TEST(RealTime, PrioritiesReachTheHost) {
    unsetenv("ZEL_REALTIME");
    Child child = Child::start("realTimeTasks");
    const int result = child.wait();
    if (result == 77) GTEST_SKIP() << "this host grants no real-time priorities";
    EXPECT_EQ(result, 0);
}

}  // namespace
}  // namespace zel::test
