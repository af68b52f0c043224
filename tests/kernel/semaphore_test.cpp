// Semaphores: ids, the decision tables of take and give, order of waiting, flush, deletion, and what happens when tasks
// are suspended or deleted in the middle of all that.
#include <gtest/gtest.h>

#include <array>
#include <chrono>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "kernel/semaphore_word.h"
#include "tests/kernel/test_task.h"
#include "tests/support/random.h"

using namespace zel::test;
using namespace zel::kernel;

namespace {

constexpr int untouched = 4711;

// The error number a call leaves behind; `untouched` when it left it alone.
template <class Call>
int errorOf(Call call) {
    errnoSet(untouched);
    call();
    return errnoGet();
}

void expectRefused(zelSemId id) {
    EXPECT_EQ(errorOf([&] { EXPECT_EQ(semTake(id, ZEL_NO_WAIT), ZEL_ERROR); }), ZEL_ERR_INVALID_OBJECT_ID) << id;
    EXPECT_EQ(errorOf([&] { EXPECT_EQ(semGive(id), ZEL_ERROR); }), ZEL_ERR_INVALID_OBJECT_ID) << id;
    EXPECT_EQ(errorOf([&] { EXPECT_EQ(semFlush(id), ZEL_ERROR); }), ZEL_ERR_INVALID_OBJECT_ID) << id;
    EXPECT_EQ(errorOf([&] { EXPECT_EQ(semInfo(id), ZEL_ERROR); }), ZEL_ERR_INVALID_OBJECT_ID) << id;
    EXPECT_EQ(errorOf([&] { EXPECT_EQ(semDelete(id), ZEL_ERROR); }), ZEL_ERR_INVALID_OBJECT_ID) << id;
}

// A task that takes once and tells how it went.
struct Taker {
    explicit Taker(zelSemId id, int ticks = WAIT_FOREVER, int priority = 100)
        : task(
              [this, id, ticks] {
                  result = semTake(id, ticks);
                  error = result == ZEL_OK ? 0 : errnoGet();
              },
              priority) {}
    std::atomic<int> result{untouched};
    std::atomic<int> error{untouched};
    TestTask task;
};

TEST(SemaphoreId, CountsRoundTheTableAndIsNeverTheSameAgain) {
    const zelSemId first = semBCreate(ZEL_SEM_FIFO, 0);
    EXPECT_EQ(first, 2304u);
    EXPECT_EQ(semCCreate(ZEL_SEM_FIFO, 0), 2305u);
    EXPECT_EQ(semDelete(first), ZEL_OK);
    expectRefused(first);
    EXPECT_EQ(semMCreate(ZEL_SEM_FIFO), 2306u);

    std::set<zelSemId> ids{2305, 2306};
    while (ids.size() < semaphoreSlots) {
        const zelSemId id = semCCreate(ZEL_SEM_FIFO, 1);
        ASSERT_NE(id, 0u);
        ASSERT_TRUE(ids.insert(id).second);
    }
    EXPECT_TRUE(ids.count(2304 * 2)) << "slot 0 in its second generation";
    EXPECT_EQ(errorOf([] { EXPECT_EQ(semBCreate(0, 0), 0u); }), ZEL_ERR_NOT_ENOUGH_MEMORY);
    expectRefused(first);
    EXPECT_EQ(semDelete(3000), ZEL_OK);
    EXPECT_EQ(semBCreate(0, 0), 3000u + 2304) << "the only free slot, however far the search has to go";
}

TEST(SemaphoreId, GarbageIsRefused) {
    ASSERT_EQ(semBCreate(ZEL_SEM_FIFO, 1), 2304u);
    for (const zelSemId id : {zelSemId{0}, zelSemId{1}, zelSemId{2303}, zelSemId{2305}, zelSemId{2304} * 2,
                              static_cast<zelSemId>(2304 + (std::uint64_t{2304} << 22)), UINTPTR_MAX, UINTPTR_MAX / 2})
        expectRefused(id);
    EXPECT_EQ(semTake(2304, ZEL_NO_WAIT), ZEL_OK);
}

TEST(SemaphoreId, GenerationsWrap) {
    EXPECT_EQ(nextGeneration(0, 0), 1u);
    EXPECT_EQ(nextGeneration(5, 0x3ffffe, UINT64_MAX), 0x3fffffu);
    EXPECT_EQ(nextGeneration(5, 0x3fffff, UINT64_MAX), 0u);
    EXPECT_EQ(nextGeneration(0, 0x3fffff, UINT64_MAX), 1u) << "0 is never an id";
    // 2^32 / 2304 = 1864135.11: the last ids that fit a 32-bit word.
    EXPECT_EQ(nextGeneration(255, 1864134, UINT32_MAX), 1864135u);
    EXPECT_EQ(nextGeneration(255, 1864135, UINT32_MAX), 0u);
    EXPECT_EQ(nextGeneration(256, 1864134, UINT32_MAX), 0u);
    EXPECT_EQ(nextGeneration(0, 1864135, UINT32_MAX), 1u);
}

TEST(SemaphoreWord, KeepsSignedTokensApartFromTheFlags) {
    std::uint64_t state = word::make(0x3fffff, word::alive, -1);
    for (int tokens = -1; tokens < 3; ++tokens, state = word::given(state)) {
        EXPECT_EQ(word::tokens(state), tokens);
        EXPECT_EQ(word::hasToken(state), tokens > 0);
        EXPECT_TRUE(word::isIdle(state, semaphoreId(7, 0x3fffff)));
    }
    EXPECT_FALSE(word::isIdle(state | word::engaged, semaphoreId(7, 0x3fffff)));
    EXPECT_FALSE(word::isLive(state & ~word::alive, semaphoreId(7, 0x3fffff)));
}

// One call of semTake on a semaphore nobody waits for.
struct TakeRow {
    const char *what;
    zelSemId (*create)();
    int ticks;
    int error;  // 0: the take succeeds and leaves the error number alone
    int atLeastMilliseconds;
};

const TakeRow takeRows[] = {
    {"full binary", [] { return semBCreate(ZEL_SEM_FIFO, 1); }, ZEL_NO_WAIT, 0, 0},
    {"full binary, any state but 0", [] { return semBCreate(ZEL_SEM_FIFO, -7); }, WAIT_FOREVER, 0, 0},
    {"empty binary", [] { return semBCreate(ZEL_SEM_FIFO, 0); }, ZEL_NO_WAIT, ZEL_ERR_OBJECT_UNAVAILABLE, 0},
    {"empty binary, 5 ticks", [] { return semBCreate(ZEL_SEM_PRIORITY, 0); }, 5, ZEL_ERR_TIMEOUT, 100},
    {"empty binary, time before now", [] { return semBCreate(ZEL_SEM_FIFO, 0); }, -2, ZEL_ERR_TIMEOUT, 0},
    {"full binary, time before now", [] { return semBCreate(ZEL_SEM_FIFO, 1); }, -2, 0, 0},
    {"counting 2", [] { return semCCreate(ZEL_SEM_PRIORITY, 2); }, 1, 0, 0},
    {"counting 0", [] { return semCCreate(ZEL_SEM_PRIORITY, 0); }, ZEL_NO_WAIT, ZEL_ERR_OBJECT_UNAVAILABLE, 0},
    {"counting -1", [] { return semCCreate(ZEL_SEM_PRIORITY, -1); }, 1, ZEL_ERR_TIMEOUT, 20},
    {"free mutex", [] { return semMCreate(ZEL_SEM_PRIORITY); }, ZEL_NO_WAIT, 0, 0},
    {"free mutex, all options", [] { return semMCreate(0xffff); }, ZEL_NO_WAIT, 0, 0},
};

TEST(SemTake, AnswersByTokensAndTime) {
    for (const TakeRow &row : takeRows) {
        SCOPED_TRACE(row.what);
        const zelSemId id = row.create();
        const auto start = std::chrono::steady_clock::now();
        const int error = errorOf([&] { EXPECT_EQ(semTake(id, row.ticks), row.error == 0 ? ZEL_OK : ZEL_ERROR); });
        const auto spent = std::chrono::steady_clock::now() - start;
        EXPECT_EQ(error, row.error == 0 ? untouched : row.error);
        EXPECT_GE(spent, std::chrono::milliseconds(row.atLeastMilliseconds));
        if (semDelete(id) != ZEL_OK) ADD_FAILURE() << "could not be deleted";
    }
    EXPECT_EQ(taskUnsafe(), ZEL_OK);
}

TEST(SemGive, BinaryHasNoCeiling) {
    const zelSemId id = semBCreate(ZEL_SEM_FIFO, 0);
    EXPECT_EQ(semGive(id), ZEL_OK);
    EXPECT_EQ(semGive(id), ZEL_OK);
    EXPECT_EQ(semTake(id, ZEL_NO_WAIT), ZEL_OK);
    EXPECT_EQ(semTake(id, ZEL_NO_WAIT), ZEL_OK);
    EXPECT_EQ(semTake(id, ZEL_NO_WAIT), ZEL_ERROR);
}

TEST(SemGive, NegativeCountIsPaidOffFirst) {
    const zelSemId id = semCCreate(ZEL_SEM_FIFO, -2);
    Taker taker(id);
    ASSERT_TRUE(taker.task.pends());
    EXPECT_EQ(semGive(id), ZEL_OK);
    EXPECT_EQ(semGive(id), ZEL_OK);
    EXPECT_FALSE(taker.task.hasEnded());
    EXPECT_EQ(semGive(id), ZEL_OK);
    EXPECT_TRUE(taker.task.ends());
    EXPECT_EQ(taker.result, ZEL_OK);
}

// ---- Mutexes ----

TEST(SemMutex, OnlyTheOwnerRecursesAndGives) {
    for (const int options : {ZEL_SEM_FIFO, ZEL_SEM_PRIORITY | ZEL_SEM_DELETE_SAFE | ZEL_SEM_INVERSION_SAFE}) {
        const zelSemId id = semMCreate(options);
        EXPECT_EQ(errorOf([&] { semGive(id); }), ZEL_ERR_INVALID_SEM_OPERATION) << "a free mutex has no owner";
        for (int i = 0; i < 3; ++i) EXPECT_EQ(semTake(id, WAIT_FOREVER), ZEL_OK);
        TestTask stranger([&] {
            EXPECT_EQ(errorOf([&] { EXPECT_EQ(semGive(id), ZEL_ERROR); }), ZEL_ERR_INVALID_SEM_OPERATION);
            EXPECT_EQ(errorOf([&] { EXPECT_EQ(semTake(id, 0), ZEL_ERROR); }), ZEL_ERR_OBJECT_UNAVAILABLE);
        });
        EXPECT_TRUE(stranger.ends());
        Taker next(id);
        EXPECT_TRUE(next.task.pends());
        testing::internal::CaptureStdout();
        EXPECT_EQ(semInfo(id), ZEL_OK);
        EXPECT_NE(testing::internal::GetCapturedStdout().find("held 3 times, illegal gives 2"), std::string::npos);
        for (int i = 0; i < 3; ++i) {
            EXPECT_TRUE(next.task.isPending()) << i << " of 3 gives";
            EXPECT_EQ(errorOf([&] { EXPECT_EQ(semGive(id), ZEL_OK); }), untouched);
        }
        EXPECT_TRUE(next.task.ends());
        EXPECT_EQ(errorOf([&] { semGive(id); }), ZEL_ERR_INVALID_SEM_OPERATION) << "the other task owns it now";
        EXPECT_EQ(errorOf([&] { EXPECT_EQ(semFlush(id), ZEL_ERROR); }), ZEL_ERR_INVALID_SEM_OPERATION);
        EXPECT_EQ(semDelete(id), ZEL_OK);
    }
}

TEST(SemMutex, BinaryDoesNotRecurse) {
    const zelSemId id = semBCreate(ZEL_SEM_FIFO, 1);
    EXPECT_EQ(semTake(id, WAIT_FOREVER), ZEL_OK);
    EXPECT_EQ(errorOf([&] { EXPECT_EQ(semTake(id, ZEL_NO_WAIT), ZEL_ERROR); }), ZEL_ERR_OBJECT_UNAVAILABLE);
    TestTask stranger([&] { EXPECT_EQ(semGive(id), ZEL_OK); });
    EXPECT_TRUE(stranger.ends());
    EXPECT_EQ(semTake(id, ZEL_NO_WAIT), ZEL_OK);
}

TEST(SemMutex, StaysWithADeletedOwnerAndNotWithItsAddress) {
    const zelSemId id = semMCreate(ZEL_SEM_PRIORITY | ZEL_SEM_INVERSION_SAFE);
    const zelSemId never = semBCreate(ZEL_SEM_FIFO, 0);
    static zelTcb tcb;
    static std::atomic<int> step{0};
    const auto body = [](intptr_t mutex, intptr_t wait, intptr_t isSecond, intptr_t, intptr_t, intptr_t, intptr_t,
                         intptr_t, intptr_t, intptr_t) {
        const auto sem = static_cast<zelSemId>(mutex);
        if (isSecond) {
            EXPECT_EQ(errorOf([&] { EXPECT_EQ(semGive(sem), ZEL_ERROR); }), ZEL_ERR_INVALID_SEM_OPERATION);
            EXPECT_EQ(errorOf([&] { EXPECT_EQ(semTake(sem, 1), ZEL_ERROR); }), ZEL_ERR_TIMEOUT);
        } else {
            EXPECT_EQ(semTake(sem, WAIT_FOREVER), ZEL_OK);
        }
        ++step;
        return semTake(static_cast<zelSemId>(wait), WAIT_FOREVER);
    };
    for (int round = 0; round < 2; ++round) {
        ASSERT_EQ(taskInit(&tcb, "owner", 10, 0, nullptr, 0, body, static_cast<intptr_t>(id),
                           static_cast<intptr_t>(never), round, 0, 0, 0, 0, 0, 0, 0),
                  ZEL_OK);
        ASSERT_EQ(taskActivate(reinterpret_cast<zelTaskId>(&tcb)), ZEL_OK);
        ASSERT_TRUE(eventually(patience, [&] { return step == round + 1; }));
        ASSERT_EQ(taskDeleteForce(reinterpret_cast<zelTaskId>(&tcb)), ZEL_OK);
    }
}

TEST(SemMutex, WaiterRaisesTheOwnerUntilItsLastGive) {
    struct Row {
        int options;
        int ticks;
        bool raises;
    };
    for (const Row &row : {Row{ZEL_SEM_PRIORITY | ZEL_SEM_INVERSION_SAFE, WAIT_FOREVER, true},
                           Row{ZEL_SEM_FIFO | ZEL_SEM_INVERSION_SAFE, 1000, true},
                           Row{ZEL_SEM_PRIORITY | ZEL_SEM_INVERSION_SAFE, ZEL_NO_WAIT, false},
                           Row{ZEL_SEM_PRIORITY, WAIT_FOREVER, false}}) {
        const zelSemId id = semMCreate(row.options);
        const zelSemId go = semBCreate(ZEL_SEM_FIFO, 0);
        TestTask owner(
            [&] {
                semTake(id, WAIT_FOREVER);
                semTake(id, WAIT_FOREVER);
                for (int i = 0; i < 3; ++i) {
                    semTake(go, WAIT_FOREVER);
                    if (i < 2) semGive(id);
                }
            },
            200);
        ASSERT_TRUE(owner.pends());
        const int own = owner.currentPriority();
        Taker waiter(id, row.ticks, 10);
        ASSERT_TRUE(row.ticks == ZEL_NO_WAIT ? waiter.task.ends() : waiter.task.pends());
        EXPECT_EQ(owner.currentPriority(), row.raises ? 254 - 10 : own);
        semGive(go);
        ASSERT_TRUE(eventually(patience, [&] { return owner.isPending(); }));
        EXPECT_EQ(owner.currentPriority(), row.raises ? 254 - 10 : own) << "given once of twice";
        semGive(go);
        ASSERT_TRUE(waiter.task.ends());
        ASSERT_TRUE(eventually(patience, [&] { return owner.currentPriority() == own; }));
        semGive(go);
        EXPECT_TRUE(owner.ends());
        EXPECT_EQ(semDelete(id), ZEL_OK);
    }
}

TEST(SemMutex, DeleteSafeOwnerIsDeletedAfterItsLastGive) {
    const zelSemId id = semMCreate(ZEL_SEM_PRIORITY | ZEL_SEM_DELETE_SAFE);
    const zelSemId go = semBCreate(ZEL_SEM_FIFO, 0);
    for (const bool deletesMutex : {false, true}) {
        TestTask owner([&] {
            semTake(id, WAIT_FOREVER);
            semTake(id, WAIT_FOREVER);
            semTake(go, WAIT_FOREVER);
            if (deletesMutex) {
                semDelete(id);
            } else {
                semGive(id);
                semTake(go, WAIT_FOREVER);
                semGive(id);
            }
            for (;;) taskDelay(1);
        });
        ASSERT_TRUE(owner.pends());
        std::atomic<bool> isDeleted{false};
        TestTask deleter([&] { isDeleted = taskDelete(owner.id()) == ZEL_OK; });
        ASSERT_TRUE(eventually(patience, [&] { return owner.deletersWaiting() == 1; }));
        semGive(go);
        if (!deletesMutex) {
            ASSERT_TRUE(owner.pends());
            EXPECT_FALSE(isDeleted) << "one give of two";
            semGive(go);
        }
        EXPECT_TRUE(deleter.ends());
        EXPECT_TRUE(isDeleted);
    }
}

// ---- Order ----

TEST(SemOrder, FirstComeFirstServedAndNobodyOvertakes) {
    const zelSemId id = semCCreate(ZEL_SEM_FIFO, 0);
    std::vector<std::unique_ptr<Taker>> takers;
    for (int i = 0; i < 4; ++i) {
        takers.push_back(std::make_unique<Taker>(id, WAIT_FOREVER, 200 - 50 * i));
        ASSERT_TRUE(takers.back()->task.pends());
    }
    for (int served = 1; served <= 4; ++served) {
        EXPECT_EQ(semGive(id), ZEL_OK);
        EXPECT_TRUE(takers[static_cast<std::size_t>(served - 1)]->task.ends());
        for (std::size_t i = 0; i < 4; ++i) EXPECT_EQ(takers[i]->task.hasEnded(), static_cast<int>(i) < served);
    }
}

TEST(SemOrder, SeveralTokensServeSeveralWaiters) {
    for (const int options : {ZEL_SEM_FIFO, ZEL_SEM_PRIORITY}) {
        const zelSemId id = semCCreate(options, 0);
        std::vector<std::unique_ptr<Taker>> takers;
        for (int i = 0; i < 8; ++i) takers.push_back(std::make_unique<Taker>(id));
        for (auto &taker : takers) ASSERT_TRUE(taker->task.pends());
        for (int i = 0; i < 8; ++i) semGive(id);
        for (auto &taker : takers) EXPECT_TRUE(taker->task.ends());
        EXPECT_EQ(semTake(id, ZEL_NO_WAIT), ZEL_ERROR) << "none is left over";
    }
}

// A suspended waiter with a token to take: in order of arrival it blocks those behind it, in priority order not.
TEST(SemOrder, SuspendedWaiterHoldsUpOnlyAQueueInOrderOfArrival) {
    for (const bool isFifo : {true, false}) {
        const zelSemId id = semCCreate(isFifo ? ZEL_SEM_FIFO : ZEL_SEM_PRIORITY, 0);
        Taker high(id, WAIT_FOREVER, 10);
        ASSERT_TRUE(high.task.pends());
        Taker low(id, WAIT_FOREVER, 200);
        ASSERT_TRUE(low.task.pends());
        ASSERT_EQ(taskSuspend(high.task.id()), ZEL_OK);
        EXPECT_EQ(semGive(id), ZEL_OK);
        if (isFifo) {
            EXPECT_EQ(errorOf([&] { semTake(id, ZEL_NO_WAIT); }), ZEL_ERR_OBJECT_UNAVAILABLE) << "two are ahead";
            EXPECT_EQ(errorOf([&] { semTake(id, 2); }), ZEL_ERR_TIMEOUT);
            EXPECT_FALSE(low.task.hasEnded());
            EXPECT_EQ(semGive(id), ZEL_OK);
        } else {
            EXPECT_TRUE(low.task.ends());
            EXPECT_EQ(semGive(id), ZEL_OK);
        }
        EXPECT_FALSE(high.task.hasEnded());
        EXPECT_EQ(taskResume(high.task.id()), ZEL_OK);
        EXPECT_TRUE(high.task.ends());
        EXPECT_TRUE(low.task.ends());
        EXPECT_EQ(high.result, ZEL_OK);
        EXPECT_EQ(low.result, ZEL_OK);
    }
}

// The head of the queue leaves with a token before it, or before one comes: the next one gets it.
TEST(SemOrder, TokenOfAWaiterThatLeavesGoesToTheNext) {
    for (const bool isDeleted : {true, false}) {
        const zelSemId id = semBCreate(ZEL_SEM_FIFO, 0);
        Taker head(id, isDeleted ? WAIT_FOREVER : 1);
        ASSERT_TRUE(head.task.pends() || !isDeleted);
        Taker next(id);
        ASSERT_TRUE(next.task.pends());
        if (isDeleted) {
            ASSERT_EQ(taskSuspend(head.task.id()), ZEL_OK);
            semGive(id);
            EXPECT_FALSE(next.task.hasEnded());
            head.task.remove();
        } else {
            ASSERT_TRUE(head.task.ends());
            EXPECT_EQ(head.error, ZEL_ERR_TIMEOUT);
            semGive(id);
        }
        EXPECT_TRUE(next.task.ends());
        EXPECT_EQ(next.result, ZEL_OK);
        EXPECT_EQ(semTake(id, ZEL_NO_WAIT), ZEL_ERROR);
        EXPECT_EQ(semDelete(id), ZEL_OK) << "no waiter is left behind";
    }
}

// Resumed after its deadline, a waiter looks for a token before it looks at the time.
TEST(SemOrder, TokenCountsMoreThanTheDeadline) {
    const zelSemId id = semBCreate(ZEL_SEM_FIFO, 0);
    Taker lucky(id, 25);
    ASSERT_TRUE(lucky.task.pends());
    ASSERT_EQ(taskSuspend(lucky.task.id()), ZEL_OK);
    taskDelay(26);
    semGive(id);
    taskResume(lucky.task.id());
    EXPECT_TRUE(lucky.task.ends());
    EXPECT_EQ(lucky.result, ZEL_OK);
}

// ---- Flush ----

TEST(SemFlush, ReleasesEachWaiterOnceHoweverSoonItComesBack) {
    const zelSemId id = semBCreate(ZEL_SEM_FIFO, 0);
    EXPECT_EQ(semFlush(id), ZEL_OK) << "nobody waits";
    std::array<std::atomic<int>, 3> released{};
    std::vector<std::unique_ptr<TestTask>> tasks;
    for (auto &count : released)
        tasks.push_back(std::make_unique<TestTask>([&] {
            while (semTake(id, WAIT_FOREVER) == ZEL_OK) ++count;
        }));
    for (int round = 1; round <= 100; ++round) {
        for (auto &task : tasks) ASSERT_TRUE(task->pends());
        ASSERT_TRUE(eventually(patience, [&] {
            for (auto &count : released)
                if (count != round - 1) return false;
            return true;
        }));
        ASSERT_EQ(semFlush(id), ZEL_OK);
    }
    EXPECT_EQ(semTake(id, ZEL_NO_WAIT), ZEL_ERROR) << "a flush leaves no token";
    EXPECT_EQ(semDelete(id), ZEL_OK);
    for (auto &task : tasks) EXPECT_TRUE(task->ends());
}

TEST(SemFlush, WaitsForASuspendedWaiterAndCanBeDeletedMeanwhile) {
    const zelSemId id = semBCreate(ZEL_SEM_PRIORITY, 0);
    Taker waiter(id);
    ASSERT_TRUE(waiter.task.pends());
    ASSERT_EQ(taskSuspend(waiter.task.id()), ZEL_OK);
    TestTask cancelled([&] { semFlush(id); }), patient([&] { semFlush(id); });
    ASSERT_TRUE(cancelled.pends());
    ASSERT_TRUE(patient.pends());
    cancelled.remove();
    EXPECT_FALSE(patient.hasEnded());
    EXPECT_EQ(taskResume(waiter.task.id()), ZEL_OK);
    EXPECT_TRUE(patient.ends());
    EXPECT_TRUE(waiter.task.ends());
    EXPECT_EQ(waiter.result, ZEL_OK);
}

// ---- Deletion ----

TEST(SemDelete, TurnsEveryWaiterAway) {
    for (const int options : {ZEL_SEM_FIFO, ZEL_SEM_PRIORITY}) {
        const zelSemId id = semMCreate(options);
        semTake(id, WAIT_FOREVER);
        std::vector<std::unique_ptr<Taker>> takers;
        for (const int ticks : {WAIT_FOREVER, 10000, WAIT_FOREVER})
            takers.push_back(std::make_unique<Taker>(id, ticks));
        for (auto &taker : takers) ASSERT_TRUE(taker->task.pends());
        EXPECT_EQ(semDelete(id), ZEL_OK);
        for (auto &taker : takers) {
            EXPECT_TRUE(taker->task.ends());
            EXPECT_EQ(taker->error, ZEL_ERR_INVALID_OBJECT_ID);
        }
        expectRefused(id);
    }
}

// While a suspended waiter keeps a deletion open, the id is dead to everybody, and the deleter may itself be deleted.
TEST(SemDelete, IdIsDeadBeforeTheLastWaiterHasLeft) {
    for (const bool deleterIsDeleted : {false, true}) {
        const zelSemId id = semCCreate(ZEL_SEM_FIFO, 0);
        Taker waiter(id);
        ASSERT_TRUE(waiter.task.pends());
        ASSERT_EQ(taskSuspend(waiter.task.id()), ZEL_OK);
        std::atomic<int> result{untouched};
        TestTask deleter([&] { result = semDelete(id); });
        ASSERT_TRUE(deleter.pends());
        expectRefused(id);
        if (deleterIsDeleted) deleter.remove();
        EXPECT_EQ(result, untouched);
        EXPECT_EQ(taskResume(waiter.task.id()), ZEL_OK);
        EXPECT_TRUE(waiter.task.ends());
        EXPECT_EQ(waiter.error, ZEL_ERR_INVALID_OBJECT_ID);
        EXPECT_TRUE(deleter.ends());
    }
    for (std::uint32_t i = 0; i < semaphoreSlots; ++i)
        ASSERT_NE(semBCreate(0, 0), 0u) << "both slots are free again, " << i << " created";
}

TEST(SemDelete, FlusherLeavesBeforeItsSemaphoreGoes) {
    const zelSemId id = semCCreate(ZEL_SEM_FIFO, 0);
    Taker waiter(id);
    ASSERT_TRUE(waiter.task.pends());
    taskSuspend(waiter.task.id());
    std::atomic<int> flushed{untouched}, deleted{untouched};
    TestTask flusher([&] { flushed = semFlush(id); });
    ASSERT_TRUE(flusher.pends());
    TestTask deleter([&] { deleted = semDelete(id); });
    ASSERT_TRUE(deleter.pends());
    taskResume(waiter.task.id());
    EXPECT_TRUE(flusher.ends() && deleter.ends() && waiter.task.ends());
    EXPECT_EQ(flushed, ZEL_OK);
    EXPECT_EQ(deleted, ZEL_OK);
    EXPECT_EQ(waiter.result, ZEL_OK) << "the flush came first";
}

// ---- Deleting tasks ----

TEST(SemTasks, LoopOnUncontendedTakesCanBeDeletedAndSuspended) {
    const zelSemId id = semBCreate(ZEL_SEM_FIFO, 1);
    const int deletions = isFullRun() ? 10'000 : 200;
    for (int i = 0; i < deletions; ++i) {
        std::atomic<std::uint64_t> rounds{0};
        TestTask loop([&] {
            for (;;) {
                semTake(id, WAIT_FOREVER);
                semGive(id);
                ++rounds;
            }
        });
        ASSERT_TRUE(eventually(patience, [&] { return rounds > 0; }));
        if (i % 20 == 0) {
            ASSERT_EQ(taskSuspend(loop.id()), ZEL_OK);
            const std::uint64_t seen = rounds;
            taskDelay(1);
            EXPECT_EQ(rounds, seen);
        }
        loop.remove();
        // Deleted between take and give, it kept the token.
        semTake(id, ZEL_NO_WAIT);
        ASSERT_EQ(semGive(id), ZEL_OK);
    }
}

// Tasks take, give, flush, create and delete the same few semaphores at random; a mutex guards a plain counter.
TEST(SemTasks, HammeringKeepsExclusionAndHangsNobody) {
    Random seeds = seeded();
    const int rounds = isFullRun() ? 200'000 : 2'000;
    const zelSemId mutex = semMCreate(ZEL_SEM_FIFO | ZEL_SEM_INVERSION_SAFE);
    long counted = 0;
    std::array<std::atomic<zelSemId>, 3> shared{};
    for (auto &id : shared) id = semCCreate(ZEL_SEM_FIFO, 1);
    std::vector<std::unique_ptr<TestTask>> tasks;
    for (unsigned t = 0; t < 4; ++t)
        tasks.push_back(std::make_unique<TestTask>(
            [&, number = seeds()] {
                Random random{std::mt19937(number)};
                for (int i = 0; i < rounds; ++i) {
                    std::atomic<zelSemId> &id = shared[random() % shared.size()];
                    switch (random() % 16) {
                        case 0:
                            if (semDelete(id) == ZEL_OK) id = semBCreate(static_cast<int>(random() % 2), 1);
                            break;
                        case 1:
                            semFlush(id);
                            break;
                        default:
                            if (semTake(id, static_cast<int>(random() % 2)) == ZEL_OK) semGive(id);
                    }
                    EXPECT_EQ(semTake(mutex, WAIT_FOREVER), ZEL_OK);
                    ++counted;
                    EXPECT_EQ(semGive(mutex), ZEL_OK);
                }
            },
            static_cast<int>(50 * t)));
    for (auto &task : tasks) EXPECT_TRUE(eventually(100, [&] { return task->hasEnded(); }));
    EXPECT_EQ(counted, 4L * rounds);
}

}  // namespace
