// Ids, names, descriptions, control blocks, priorities, the task lock, delete hooks.
#include "kernel/task.h"

#include <pthread.h>

#include <cstring>
#include <string>
#include <vector>

#include "tests/kernel/tasks.h"
#include "zel/platform.h"

// The checking allocator, as a host program replaces it: fails on demand.
static std::atomic<bool> memoryIsShort{false};
static std::atomic<int> blocksOfTasks{0};

void *zelMC_malloc(const char *, int, size_t bytes) {
    return malloc(bytes);
}
void *zelMC_calloc(const char *tag, int, size_t count, size_t bytes) {
    if (memoryIsShort) return nullptr;
    if (strcmp(tag, "ltaskLib") == 0) ++blocksOfTasks;
    return calloc(count, bytes);
}
void zelMC_free(const char *tag, int, void *block) {
    if (strcmp(tag, "ltaskLib") == 0) --blocksOfTasks;
    free(block);
}

namespace zel::test {
namespace {

class Task : public KernelTest {};

TEST_F(Task, IdsCountUpFromOneAndComeBackAfterTheHighest) {
    const auto wait = [&] { gate.wait(); };
    for (zelTaskId id = 1; id <= 3; ++id) EXPECT_EQ(spawn(wait), id);
    zelTcb own;
    ASSERT_EQ(init(own, wait), ZEL_OK);  // an address: takes no part
    EXPECT_EQ(taskDelete(3), ZEL_OK);
    EXPECT_EQ(spawn(wait), 3);
    EXPECT_EQ(taskDelete(1), ZEL_OK);
    EXPECT_EQ(spawn(wait), 4);  // one above the highest, not the lowest free

    zelTaskId ids[8] = {};
    EXPECT_EQ(taskIdListGet(ids, 8), 4);
    const std::vector<zelTaskId> inOrderOfCreation{2, reinterpret_cast<zelTaskId>(&own), 3, 4};
    EXPECT_EQ(std::vector<zelTaskId>(ids, ids + 4), inOrderOfCreation);
    EXPECT_EQ(taskIdListGet(ids, 2), 2);
    EXPECT_EQ(taskIdListGet(ids, 0), 0);
    EXPECT_EQ(taskDelete(own.id), ZEL_OK);
    {
        zelTcb *last = taskTcb(4);
        const Lock list(kernel::taskListLock);
        last->id = 0xFFFF;
    }
    // At the end of the ids the lowest free one is taken.
    EXPECT_EQ(spawn(wait), 1);
    EXPECT_EQ(spawn(wait), 4);
}

TEST_F(Task, CallsTheEntryWithAllTenArgumentsAndAnErrorNumberOfZero) {
    static intptr_t seen[11];
    const zelTaskEntry entry = [](intptr_t a, intptr_t b, intptr_t c, intptr_t d, intptr_t e, intptr_t f, intptr_t g,
                                  intptr_t h, intptr_t i, intptr_t j) {
        const intptr_t all[11] = {a, b, c, d, e, f, g, h, i, j, errno};
        memcpy(seen, all, sizeof seen);
        return 0;
    };
    EXPECT_TRUE(ends(taskSpawn("args", 0, 0, 0, entry, INTPTR_MIN, 2, 3, 4, 5, 6, 7, 8, 9, INTPTR_MAX)));
    const intptr_t expected[11] = {INTPTR_MIN, 2, 3, 4, 5, 6, 7, 8, 9, INTPTR_MAX, 0};
    EXPECT_EQ(memcmp(seen, expected, sizeof seen), 0);
}

TEST_F(Task, NamesAreCopiedWholeAndDefaultToTheId) {
    const auto wait = [&] { gate.wait(); };
    std::string name(200, 'n');
    const zelTaskId longOne = spawn(wait, name.c_str());
    name.assign(name.size(), 'x');
    EXPECT_EQ(taskName(longOne), std::string(200, 'n'));
    const zelTaskId unnamed = spawn(wait), first = spawn(wait, "twin");
    spawn(wait, "twin");
    EXPECT_EQ(taskName(unnamed), "t" + std::to_string(unnamed));
    EXPECT_EQ(taskNameToId("twin"), first);
}

TEST_F(Task, ZeroMeansTheCallingTask) {
    const auto askItself = [] {
        zelTaskDesc desc;
        int priority = 0;
        EXPECT_EQ(taskInfoGet(0, &desc) + taskPriorityGet(0, &priority), ZEL_OK);
        EXPECT_EQ(desc.td_id, taskIdSelf());
        EXPECT_EQ(desc.td_priority, 77);
        EXPECT_EQ(priority, 77);
        EXPECT_STREQ(desc.td_name, "self");
        EXPECT_EQ(desc.td_entry, runBody);
        // A delay clears the whole state word.
        taskTcb(0)->state = 0x49;
        EXPECT_EQ(taskDelay(0), ZEL_OK);
        EXPECT_EQ(taskTcb(0)->state, 0u);
    };
    EXPECT_TRUE(ends(spawn(askItself, "self", 77)));
}

TEST_F(Task, AThreadThatIsNoTaskMayUseTheCalls) {
    const auto use = [](void *) -> void * {
        EXPECT_EQ(taskIdSelf(), 0);
        EXPECT_EQ(taskLock() + taskLock() + taskUnlock() + taskUnlock() + taskUnlock(), 0);
        EXPECT_EQ(taskSafe() + taskUnsafe() + taskUnsafe(), 0);
        EXPECT_EQ(taskDelay(1) + taskDelay(0), 0);
        return nullptr;
    };
    use(nullptr);
    pthread_t thread;
    ASSERT_EQ(pthread_create(&thread, nullptr, use, nullptr), 0);
    pthread_join(thread, nullptr);
    EXPECT_EQ(taskCount(), 0);
}

TEST_F(Task, UnknownIdsAreRefused) {
    int priority = 0;
    zelTaskDesc desc;
    // 0 as well: the caller is no task.
    for (const zelTaskId tid : {zelTaskId{0}, zelTaskId{-1}, zelTaskId{4711}, reinterpret_cast<zelTaskId>(&priority)}) {
        for (const auto call : {taskIdVerify, taskActivate, taskRestart, taskSuspend, taskResume})
            EXPECT_FAILS_WITH(ZEL_ERR_INVALID_OBJECT_ID, call(tid));
        for (const auto call : {taskDelete, taskDeleteForce}) EXPECT_FAILS_WITH(ZEL_ERR_OBJECT_DELETED, call(tid));
        EXPECT_FAILS_WITH(ZEL_ERR_INVALID_OBJECT_ID, taskPrioritySet(tid, 1));
        EXPECT_FAILS_WITH(ZEL_ERR_INVALID_OBJECT_ID, taskPriorityGet(tid, &priority));
        desc = {1, nullptr, 1, nullptr};
        EXPECT_FAILS_WITH(ZEL_ERR_INVALID_OBJECT_ID, taskInfoGet(tid, &desc));
        EXPECT_EQ(desc.td_id + desc.td_priority, 0) << "cleared also when it fails";
        EXPECT_EQ(taskName(tid), nullptr);
        EXPECT_EQ(taskIsReady(tid) + taskIsSuspended(tid), 0);
    }
    EXPECT_FAILS_WITH(ZEL_ERR_INVALID_OBJECT_ID, taskNameToId("nobody"));
    EXPECT_FAILS_WITH(ZEL_ERR_INVALID_OBJECT_ID,
                      taskInit(nullptr, "none", 1, 0, nullptr, 0, runBody, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0));
}

TEST_F(Task, ACallersControlBlockCanBeActivatedEndedAndUsedAgain) {
    zelTcb tcb;
    memset(&tcb, 0xa5, sizeof tcb);
    for (int round = 1; round <= 3; ++round) {
        std::atomic<int> runs{0};
        const auto run = [&] {
            ++runs;
            gate.wait();
        };
        ASSERT_EQ(init(tcb, run, "static", 50), ZEL_OK);
        EXPECT_EQ(tcb.state, ZEL_TASK_NOT_ACTIVATED);
        EXPECT_FAILS_WITH(ZEL_ERR_OBJECT_UNAVAILABLE, init(tcb, [] {}));  // listed already
        EXPECT_EQ(taskSuspend(tcb.id), ZEL_OK);
        EXPECT_FAILS_WITH(ZEL_ERR_OBJECT_DELETED, taskResume(tcb.id));
        EXPECT_EQ(taskSuspend(tcb.id), ZEL_OK);
        EXPECT_EQ(taskActivate(tcb.id), ZEL_OK);
        EXPECT_EQ(taskActivate(tcb.id), ZEL_OK);  // no second thread
        gate.open();
        EXPECT_TRUE(ends(tcb.id));
        EXPECT_EQ(runs, 1);
        gate.close();
    }
    // Without a thread it stays as it was: first more stack than there are addresses, then never activated.
    ASSERT_EQ(init(tcb, [] {}), ZEL_OK);
    ASSERT_EQ(pthread_attr_setstacksize(&tcb.attr, SIZE_MAX / 8 * 7 & ~size_t{0xffff}), 0);
    EXPECT_FAILS_WITH(ZEL_ERR_NOT_ENOUGH_MEMORY, taskActivate(tcb.id));
    ASSERT_EQ(pthread_attr_setstacksize(&tcb.attr, 1 << 20), 0);
    EXPECT_EQ(taskActivate(tcb.id), ZEL_OK);
    EXPECT_TRUE(ends(tcb.id));
    ASSERT_EQ(init(tcb, [] { FAIL(); }), ZEL_OK);
    EXPECT_EQ(taskDelete(tcb.id), ZEL_OK);
}

TEST_F(Task, ShortMemoryIsReportedAndNothingIsLeftBehind) {
    const int blocksBefore = blocksOfTasks;
    memoryIsShort = true;
    EXPECT_FAILS_WITH(ZEL_ERR_TCB_ALLOCATION, spawn([] {}));
    zelTcb tcb;
    EXPECT_FAILS_WITH(ZEL_ERR_NOT_ENOUGH_MEMORY, init(
                                                     tcb, [] {}, "named"));
    errno = 0;
    EXPECT_EQ(wdCreate(), nullptr);
    EXPECT_EQ(errno, ZEL_ERR_NOT_ENOUGH_MEMORY);
    EXPECT_EQ(vx2bsdTimerCreate(), nullptr);
    memoryIsShort = false;
    EXPECT_EQ(taskCount(), 0);
    for (int i = 0; i < 50; ++i) EXPECT_TRUE(ends(spawn([] {})));
    EXPECT_TRUE(eventually(20, [&] { return blocksOfTasks == blocksBefore; }));
}

TEST_F(Task, EachKernelPriorityBecomesAThreadPriority) {
    const struct {
        int kernel;
        int thread;
        int error;
    } rows[] = {{0, 254, 0},        {1, 253, 0},       {100, 154, 0},           {254, 0, 0},
                {255, 0, 0},        {300, 0, 0x30065}, {INT32_MAX, 0, 0x30065}, {-1, 254, 0},
                {INT32_MIN, 254, 0}};
    const zelTaskId settable = spawn([&] { gate.wait(); });
    for (const auto &row : rows) {
        errno = 0;
        const zelTaskId tid = spawn([&] { gate.wait(); }, nullptr, row.kernel);
        ASSERT_GT(tid, 0) << row.kernel;  // an illegal one is reported, and accepted
        EXPECT_EQ(errno, row.error) << row.kernel;
        EXPECT_EQ(taskTcb(tid)->prv_priority.sched_priority, row.thread) << row.kernel;
        errno = 0;
        EXPECT_EQ(taskPrioritySet(settable, row.kernel), ZEL_OK);
        EXPECT_EQ(errno, row.error) << row.kernel;
        EXPECT_EQ(field(settable, &zelTcb::currentPriority), row.thread) << row.kernel;
        int priority = 12345;
        EXPECT_EQ(taskPriorityGet(settable, &priority), ZEL_OK);
        EXPECT_EQ(priority, row.kernel);  // as given
    }
}

TEST_F(Task, TheTaskLockBoostsUntilTheLastUnlock) {
    const zelTaskId tid = spawn([] {
        const zelTcb *self = taskTcb(0);
        const auto inherit = [&](int priority) {
            zelTcb high{};
            high.currentPriority = priority;
            kernel::inheritPriority(self->serial, high);
        };
        const std::pair<Body, int> stepsAndPriorities[] = {
            {[] { taskLock(); }, 255},
            {[] { taskLock(), taskUnlock(); }, 255},
            {[] { taskUnlock(); }, 154},
            {[&] { inherit(200); }, 200},
            {[&] { inherit(180); }, 200},                       // only ever raises
            {[] { taskUnlock(); }, 154},                        // a surplus one drops what was inherited
            {[] { taskLock(), taskPrioritySet(0, 10); }, 244},  // overrides a boost
            {[] { taskUnlock(); }, 244},
        };
        for (const auto &[step, priority] : stepsAndPriorities) {
            step();
            EXPECT_EQ(self->currentPriority, priority) << &step - &stepsAndPriorities[0].first;
        }
    });
    EXPECT_TRUE(ends(tid));
    kernel::inheritPriority(999999, zelTcb{});  // an owner that has gone
}

std::vector<std::string> hookCalls;

void firstHook(zelTaskId tid, intptr_t argument) {
    hookCalls.push_back("first " + std::string(taskName(tid)) + std::to_string(argument));
}
void secondHook(zelTaskId tid, intptr_t) {
    hookCalls.push_back("second " + std::string(taskName(tid)));
    taskDeleteHookDelete(secondHook);  // the table may be changed by its hooks
}

TEST_F(Task, HooksRunNewestFirstWhileTheTaskCanStillBeDescribed) {
    taskDeleteHookInit();
    EXPECT_EQ(taskDeleteHookAdd(firstHook) + taskDeleteHookAdd(secondHook), 0);
    EXPECT_EQ(taskDelete(spawn([] { Gate().wait(); }, "deleted")), ZEL_OK);
    EXPECT_TRUE(ends(spawn([] {}, "returned")));  // runs them too
    EXPECT_EQ(hookCalls, (std::vector<std::string>{"second deleted", "first deleted0", "first returned0"}));
    EXPECT_EQ(taskDeleteHookDelete(firstHook), 0);
    EXPECT_EQ(taskDeleteHookDelete(firstHook), 0x30066);

    const zelDeleteHook nothing = [](zelTaskId, intptr_t) {};
    for (int i = 0; i < 63; ++i) ASSERT_EQ(taskDeleteHookAdd(nothing), 0);
    EXPECT_EQ(taskDeleteHookAdd(nothing), 0x30067);
    for (int i = 0; i < 63; ++i) ASSERT_EQ(taskDeleteHookDelete(nothing), 0);
}

}  // namespace
}  // namespace zel::test
