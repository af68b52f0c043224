// Semaphores: ids, what take and give answer, order of waiting, flush, deletion, and what happens when tasks are
// suspended or deleted in the middle of all that.
#include <array>
#include <chrono>
#include <deque>
#include <set>
#include <string>

#include "kernel/semaphore_word.h"
#include "tests/kernel/tasks.h"
#include "tests/support/printed.h"
#include "tests/support/random.h"

using namespace zel::test;
using namespace zel::kernel;

namespace {

void expectRefused(zelSemId id) {
    EXPECT_FAILS_WITH(ZEL_ERR_INVALID_OBJECT_ID, semTake(id, ZEL_NO_WAIT));
    for (const auto call : {semGive, semFlush, semInfo, semDelete})
        EXPECT_FAILS_WITH(ZEL_ERR_INVALID_OBJECT_ID, call(id));
}

std::string shown(zelSemId id) {
    return printedBy([=] { EXPECT_EQ(semInfo(id), ZEL_OK); });
}

// A task that takes once and tells how it went.
struct Taker {
    explicit Taker(zelSemId id, int ticks = WAIT_FOREVER, int priority = 100)
        : task([this, id, ticks] { error = semTake(id, ticks) == ZEL_OK ? 0 : errnoGet(); }, priority) {}
    std::atomic<int> error{-1};
    TestTask task;
};

TEST(SemaphoreId, CountsRoundTheTableAndIsNeverTheSameAgain) {
    const zelSemId first = semBCreate(ZEL_SEM_FIFO, 0);
    EXPECT_EQ(first, 2304u);
    EXPECT_EQ(semCCreate(ZEL_SEM_FIFO, 0), 2305u);
    EXPECT_EQ(semDelete(first), ZEL_OK);
    EXPECT_EQ(semMCreate(ZEL_SEM_FIFO), 2306u);
    for (const zelSemId id : {first, zelSemId{0}, zelSemId{1}, zelSemId{2303}, zelSemId{2307}, zelSemId{2305} * 2,
                              static_cast<zelSemId>(2305 + (std::uint64_t{2304} << 22)), UINTPTR_MAX, UINTPTR_MAX / 2})
        expectRefused(id);

    std::set<zelSemId> ids{2305, 2306};
    while (ids.size() < semaphoreSlots) {
        const zelSemId id = semCCreate(ZEL_SEM_FIFO, 1);
        ASSERT_NE(id, 0u);
        ASSERT_TRUE(ids.insert(id).second);
    }
    EXPECT_TRUE(ids.count(2304 * 2)) << "slot 0 in its second generation";
    errno = 0;
    EXPECT_EQ(semBCreate(0, 0), 0u);
    EXPECT_EQ(errno, ZEL_ERR_NOT_ENOUGH_MEMORY);
    EXPECT_EQ(semDelete(3000), ZEL_OK);
    EXPECT_EQ(semBCreate(0, 0), 3000u + 2304) << "the only free slot, however far the search has to go";
}

TEST(SemaphoreId, GenerationsWrap) {
    EXPECT_EQ(nextGeneration(5, 0x3ffffe, UINT64_MAX), 0x3fffffu);
    EXPECT_EQ(nextGeneration(5, 0x3fffff, UINT64_MAX), 0u);
    EXPECT_EQ(nextGeneration(0, 0x3fffff, UINT64_MAX), 1u) << "0 is never an id";
    // 2^32 / 2304 = 1864135.11: the last ids that fit a 32-bit word.
    EXPECT_EQ(nextGeneration(255, 1864134, UINT32_MAX), 1864135u);
    EXPECT_EQ(nextGeneration(255, 1864135, UINT32_MAX), 0u);
    EXPECT_EQ(nextGeneration(256, 1864134, UINT32_MAX), 0u);
}

// One call of semTake on a semaphore nobody waits for, after some gives.
TEST(SemTake, AnswersByTokensAndTime) {
    const struct {
        const char *what;
        zelSemId semaphore;
        int gives, ticks;
        int error;  // 0: the take succeeds and leaves the error number alone
        int atLeastMilliseconds;
    } rows[] = {
        {"full binary, any state but 0", semBCreate(ZEL_SEM_FIFO, -7), 0, WAIT_FOREVER, 0, 0},
        {"empty binary", semBCreate(ZEL_SEM_FIFO, 0), 0, ZEL_NO_WAIT, ZEL_ERR_OBJECT_UNAVAILABLE, 0},
        {"empty binary, 5 ticks", semBCreate(ZEL_SEM_PRIORITY, 0), 0, 5, ZEL_ERR_TIMEOUT, 100},
        {"empty binary, time before now", semBCreate(ZEL_SEM_FIFO, 0), 0, -2, ZEL_ERR_TIMEOUT, 0},
        {"binary, given twice", semBCreate(ZEL_SEM_FIFO, 0), 2, -2, 0, 0},
        {"counting -1, given once", semCCreate(ZEL_SEM_PRIORITY, -1), 1, 1, ZEL_ERR_TIMEOUT, 20},
        {"counting -1, given three times", semCCreate(ZEL_SEM_PRIORITY, -1), 3, 1, 0, 0},
        {"free mutex, all options", semMCreate(0xffff), 0, ZEL_NO_WAIT, 0, 0},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.what);
        const auto start = std::chrono::steady_clock::now();
        errno = 0;
        for (int i = 0; i < row.gives; ++i) EXPECT_EQ(semGive(row.semaphore), ZEL_OK);
        EXPECT_EQ(row.gives < 2 ? ZEL_OK : semTake(row.semaphore, ZEL_NO_WAIT), ZEL_OK) << "no ceiling";
        EXPECT_EQ(semTake(row.semaphore, row.ticks), row.error == 0 ? ZEL_OK : ZEL_ERROR);
        EXPECT_EQ(errno, row.error);
        EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(row.atLeastMilliseconds));
        EXPECT_EQ(semDelete(row.semaphore), ZEL_OK);
    }
}

// ---- Mutexes ----

TEST(SemMutex, OnlyTheOwnerRecursesAndGives) {
    const zelSemId id = semMCreate(ZEL_SEM_DELETE_SAFE | ZEL_SEM_INVERSION_SAFE);
    const std::int32_t &safeCount = currentTask().safeCount;
    EXPECT_FAILS_WITH(ZEL_ERR_INVALID_SEM_OPERATION, semGive(id));  // a free mutex has no owner
    for (int i = 0; i < 3; ++i) EXPECT_EQ(semTake(id, WAIT_FOREVER), ZEL_OK);
    TestTask stranger([&] {
        EXPECT_FAILS_WITH(ZEL_ERR_INVALID_SEM_OPERATION, semGive(id));
        EXPECT_FAILS_WITH(ZEL_ERR_OBJECT_UNAVAILABLE, semTake(id, ZEL_NO_WAIT));
    });
    EXPECT_TRUE(stranger.ends());
    Taker next(id);
    EXPECT_TRUE(next.task.pends());
    EXPECT_NE(shown(id).find("held 3 times, illegal gives 2"), std::string::npos);
    for (int i = 0; i < 3; ++i) {
        EXPECT_TRUE(next.task.isPending()) << i << " of 3 gives";
        EXPECT_EQ(safeCount, 1);
        EXPECT_EQ(semGive(id), ZEL_OK);
    }
    EXPECT_EQ(safeCount, 0);
    EXPECT_TRUE(next.task.ends());
    EXPECT_FAILS_WITH(ZEL_ERR_INVALID_SEM_OPERATION, semGive(id));  // the other task owns it now, although it ended
    EXPECT_FAILS_WITH(ZEL_ERR_INVALID_SEM_OPERATION, semFlush(id));
    EXPECT_EQ(semDelete(id), ZEL_OK);
    const zelSemId own = semMCreate(ZEL_SEM_DELETE_SAFE);
    EXPECT_EQ(semTake(own, WAIT_FOREVER) + semTake(own, WAIT_FOREVER), ZEL_OK);
    EXPECT_EQ(semDelete(own), ZEL_OK);
    EXPECT_EQ(safeCount, 0) << "an owner that deletes its mutex leaves its section";
}

TEST(SemMutex, StaysWithADeletedOwnerAndNotWithItsAddress) {
    const zelSemId id = semMCreate(ZEL_SEM_PRIORITY | ZEL_SEM_INVERSION_SAFE);
    zelTcb tcb;
    const Body bodies[] = {[&] { EXPECT_EQ(semTake(id, WAIT_FOREVER), ZEL_OK); },
                           [&] {
                               EXPECT_FAILS_WITH(ZEL_ERR_INVALID_SEM_OPERATION, semGive(id));
                               EXPECT_FAILS_WITH(ZEL_ERR_TIMEOUT, semTake(id, 1));
                           }};
    for (const Body &body : bodies) {
        ASSERT_EQ(init(tcb, body) + taskActivate(tcb.id), ZEL_OK);
        ASSERT_TRUE(ends(tcb.id));
    }
}

TEST(SemMutex, WaiterRaisesTheOwnerUntilItsLastGive) {
    const struct {
        int options, ticks;
        bool raises;
    } rows[] = {{ZEL_SEM_PRIORITY | ZEL_SEM_INVERSION_SAFE, WAIT_FOREVER, true},
                {ZEL_SEM_FIFO | ZEL_SEM_INVERSION_SAFE, 1000, true},
                {ZEL_SEM_PRIORITY | ZEL_SEM_INVERSION_SAFE, ZEL_NO_WAIT, false},
                {ZEL_SEM_PRIORITY, WAIT_FOREVER, false}};
    TestTask owner([&] {
        const auto priority = [] { return field(taskIdSelf(), &zelTcb::currentPriority); };
        const int own = priority();
        for (const auto &row : rows) {
            const zelSemId id = semMCreate(row.options);
            EXPECT_EQ(semTake(id, WAIT_FOREVER) + semTake(id, WAIT_FOREVER), ZEL_OK);
            Taker waiter(id, row.ticks, 10);
            EXPECT_TRUE(row.ticks == ZEL_NO_WAIT ? waiter.task.ends() : waiter.task.pends());
            for (int gives = 0; gives < 2; ++gives) {
                EXPECT_EQ(priority(), row.raises ? 254 - 10 : own) << gives << " gives";
                semGive(id);
            }
            EXPECT_EQ(priority(), own);
            EXPECT_TRUE(waiter.task.ends());
        }
    });
    EXPECT_TRUE(owner.ends());
}

// ---- Order ----

// A suspended waiter with a token to take: in order of arrival it blocks those behind it until it goes on, which counts
// more than its deadline, or is deleted; in priority order it blocks nobody.
TEST(SemOrder, SuspendedWaiterHoldsUpOnlyAQueueInOrderOfArrival) {
    const struct { bool isFifo, isDeleted; } rows[] = {{true, false}, {true, true}, {false, false}};
    for (const auto &row : rows) {
        const zelSemId id = semCCreate(row.isFifo ? ZEL_SEM_FIFO : ZEL_SEM_PRIORITY, 0);
        Taker high(id, 25, 10);
        ASSERT_TRUE(high.task.pends());
        Taker low(id, WAIT_FOREVER, 200);
        ASSERT_TRUE(low.task.pends());
        ASSERT_EQ(taskSuspend(high.task.id()), ZEL_OK);
        EXPECT_EQ(semGive(id), ZEL_OK);
        if (row.isFifo) {
            EXPECT_FAILS_WITH(ZEL_ERR_OBJECT_UNAVAILABLE, semTake(id, ZEL_NO_WAIT));  // two are ahead
            EXPECT_FAILS_WITH(ZEL_ERR_TIMEOUT, semTake(id, 26));
            EXPECT_FALSE(low.task.hasEnded());
        } else {
            EXPECT_TRUE(low.task.ends());
        }
        if (row.isDeleted) {
            high.task.remove();
        } else {
            EXPECT_EQ(semGive(id), ZEL_OK);
            EXPECT_FALSE(high.task.hasEnded());
            EXPECT_EQ(taskResume(high.task.id()), ZEL_OK);
        }
        EXPECT_TRUE(high.task.ends() && low.task.ends());
        EXPECT_EQ(low.error, 0);
        EXPECT_EQ(high.error, row.isDeleted ? -1 : 0);
        EXPECT_FAILS_WITH(ZEL_ERR_OBJECT_UNAVAILABLE, semTake(id, ZEL_NO_WAIT));
        EXPECT_EQ(semDelete(id), ZEL_OK) << "no waiter is left behind";
    }
}

// ---- Flush and deletion ----

// While a suspended waiter keeps a deletion open, the id is dead to everybody. A flush that came first ends first, and
// flushers and deleters may be deleted themselves.
TEST(SemDelete, IsOverWhenTheLastWaiterHasLeft) {
    for (const bool isFlushed : {true, false}) {
        const zelSemId id = semCCreate(ZEL_SEM_PRIORITY, 0);
        Taker waiter(id);
        ASSERT_TRUE(waiter.task.pends());
        ASSERT_EQ(taskSuspend(waiter.task.id()), ZEL_OK);
        std::deque<TestTask> flushers, deleters;
        for (int i = 0; isFlushed && i < 2; ++i) {
            flushers.emplace_back([&] { EXPECT_EQ(semFlush(id), ZEL_OK); });
            ASSERT_TRUE(flushers.back().pends());
        }
        if (isFlushed) flushers.front().remove();
        ASSERT_TRUE(deleters.emplace_back([&] { EXPECT_EQ(semDelete(id), ZEL_OK); }).pends());
        expectRefused(id);
        EXPECT_FALSE(deleters.front().hasEnded());
        if (!isFlushed) deleters.front().remove();
        EXPECT_EQ(taskResume(waiter.task.id()), ZEL_OK);
        EXPECT_TRUE(waiter.task.ends() && deleters.front().ends());
        for (const TestTask &flusher : flushers) EXPECT_TRUE(flusher.ends());
        EXPECT_EQ(waiter.error, isFlushed ? 0 : ZEL_ERR_INVALID_OBJECT_ID);
    }
    for (std::uint32_t i = 0; i < semaphoreSlots; ++i)
        ASSERT_NE(semBCreate(0, 0), 0u) << "both slots are free again, " << i << " created";
}

// ---- Races ----

// Wherever a deletion or a restart reaches a task that takes and gives a delete-safe mutex: it does not end as the
// owner or inside its section, and starts again safe as often as it is owner.
TEST(SemRaces, DeletionAndRestartMeetADeleteSafeMutex) {
    const zelSemId id = semMCreate(ZEL_SEM_DELETE_SAFE);
    for (int round = 0; round < (isFullRun() ? 4'000 : 200); ++round) {
        std::atomic<bool> runs{false};
        const zelTaskId tid = spawn([&] {
            while (semGive(id) == ZEL_OK) {
            }
            EXPECT_EQ(field(taskIdSelf(), &zelTcb::safeCount), 0);
            for (runs = true;; semGive(id)) {
                semTake(id, WAIT_FOREVER);
                if (round % 2 == 0) pthread_testcancel();
            }
        });
        for (int restarts = 0; restarts < round % 2 * 5; ++restarts) {
            taskDelay(0);
            ASSERT_EQ(taskRestart(tid), ZEL_OK);
        }
        eventually(1, [&] { return runs.load(); });
        ASSERT_EQ(taskDelete(tid), ZEL_OK);
        ASSERT_EQ(semTake(id, ZEL_NO_WAIT), ZEL_OK) << round;
        ASSERT_EQ(semGive(id), ZEL_OK);
    }
}

// Tasks take, give, flush, create and delete the same few semaphores at random; a mutex guards a plain counter.
TEST(SemRaces, HammeringKeepsExclusionAndHangsNobody) {
    Random seeds = seeded();
    const int rounds = isFullRun() ? 200'000 : 2'000;
    const zelSemId mutex = semMCreate(ZEL_SEM_FIFO | ZEL_SEM_INVERSION_SAFE);
    long counted = 0;
    std::array<std::atomic<zelSemId>, 3> shared{};
    for (auto &id : shared) id = semCCreate(ZEL_SEM_FIFO, 1);
    const auto hammer = [&](unsigned seed) {
        Random random{std::mt19937(seed)};
        for (int i = 0; i < rounds; ++i) {
            std::atomic<zelSemId> &id = shared[random() % shared.size()];
            const unsigned choice = random() % 16;
            if (choice == 0) {
                if (semDelete(id) == ZEL_OK) id = semBCreate(static_cast<int>(random() % 2), 1);
            } else if (choice == 1) {
                semFlush(id);
            } else if (semTake(id, static_cast<int>(random() % 2)) == ZEL_OK) {
                semGive(id);
            }
            EXPECT_EQ(semTake(mutex, WAIT_FOREVER), ZEL_OK);
            ++counted;
            EXPECT_EQ(semGive(mutex), ZEL_OK);
        }
    };
    std::deque<TestTask> tasks;
    for (int t = 0; t < 4; ++t) tasks.emplace_back([&, seed = seeds()] { hammer(seed); }, 50 * t);
    for (auto &task : tasks) EXPECT_TRUE(eventually(100, [&] { return task.hasEnded(); }));
    EXPECT_EQ(counted, 4L * rounds);
}

// Waiters that come back at once are released by each flush, and a semaphore far too low for any to get a token counts
// each give, also beside a flusher that just leaves.
TEST(SemRaces, FlushesReleaseAllAndLoseNoGive) {
    constexpr long depth = -2'000'000'000;
    const zelSemId id = semCCreate(ZEL_SEM_FIFO, depth);
    EXPECT_EQ(semFlush(id), ZEL_OK) << "nobody waits";
    std::atomic<int> waiting{3};
    std::deque<TestTask> waiters;
    for (int w = 0; w < 3; ++w)
        waiters.emplace_back([&] {
            for (int i = isFullRun() ? 40'000 : 500; i > 0; --i) EXPECT_EQ(semTake(id, WAIT_FOREVER), ZEL_OK);
            --waiting;
        });
    TestTask flusher([&] {
        while (waiting > 0) semFlush(id);
    });
    long gives = 0;
    for (; !flusher.hasEnded(); ++gives) semGive(id);
    EXPECT_NE(shown(id).find("count " + std::to_string(depth + gives) + ' '), std::string::npos);
}

}  // namespace
