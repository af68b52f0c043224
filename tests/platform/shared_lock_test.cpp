#include <errno.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cstdlib>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "platform/process.h"
#include "platform/segment.h"
#include "tests/support/child.h"
#include "tests/support/eventually.h"
#include "tests/support/random.h"
#include "zel/platform.h"

namespace zel::test {
namespace {

constexpr int churners = 4, churnedLocks = 3;

// What parent and children share beside the locks.
struct Board {
    std::atomic<int> ready, go, holds, result, stop, violations;
    std::array<std::atomic<pid_t>, churnedLocks> writerInside;
    std::array<std::atomic<unsigned>, churners> progress;
};

Board &board() {
    return *platform::sysSectionAs<Board>(platform::Section::linkState);
}

int take(int lock, char mode) {
    return mode == 'w' ? ZEL_ShmWriteLock(lock) : ZEL_ShmReadLock(lock);
}
int leave(int lock, char mode) {
    return mode == 'w' ? ZEL_ShmWriteUnLock(lock) : ZEL_ShmReadUnLock(lock);
}

// A thread that takes a lock, says so, and holds it until told to leave.
class Holder {
public:
    Holder(int lock, char mode)
        : thread_([this, lock, mode] {
              take(lock, mode);
              holds = true;
              while (!mayLeave) sched_yield();
              EXPECT_EQ(leave(lock, mode), 0);
          }) {}
    ~Holder() {
        mayLeave = true;
        thread_.join();
    }
    bool getsIt() const {
        return eventually(20, [this] { return holds.load(); });
    }
    // That nothing happens can only be watched for a while.
    bool keepsWaiting() const {
        return !eventually(0.15, [this] { return holds.load(); });
    }

    std::atomic<bool> holds{false}, mayLeave{false};  // `holds` stays set

private:
    std::thread thread_;
};

bool canTake(int lock, char mode) {
    return Holder(lock, mode).getsIt();
}

void killIt(Child &child) {
    child.signal(SIGKILL);
    EXPECT_EQ(child.wait(), 256 + SIGKILL);
}

// hold LOCK MODE: takes the lock and keeps it until `go` is set.
ZEL_CHILD(hold) {
    const int lock = atoi(argv[0]);
    const char mode = *argv[1];
    if (take(lock, mode) != 0) return 1;
    ++board().holds;
    while (board().go == 0) usleep(1000);
    return leave(lock, mode) == 0 ? 0 : 2;
}

Child startHolder(int lock, const char *mode) {
    const int before = board().holds;
    Child child = Child::start("hold", {std::to_string(lock), mode});
    EXPECT_TRUE(eventually(20, [&] { return board().holds == before + 1; }));
    return child;
}

TEST(SharedLock, AWriterWaitsForAllReadersAndKeepsOthersOut) {
    Child child = startHolder(1, "r");
    ASSERT_EQ(ZEL_ShmReadLock(1), 0);
    Holder writer(1, 'w');
    EXPECT_TRUE(writer.keepsWaiting());
    Holder newcomer(1, 'r'), second(1, 'w');
    EXPECT_TRUE(newcomer.keepsWaiting());
    EXPECT_EQ(ZEL_ShmReadLock(1), 0);  // who reads already passes a writer that waits
    EXPECT_EQ(ZEL_ShmReadUnLock(1), 0);
    EXPECT_EQ(ZEL_ShmReadUnLock(1), 0);
    EXPECT_TRUE(writer.keepsWaiting());
    board().go = 1;
    EXPECT_EQ(child.wait(), 0);
    EXPECT_TRUE(writer.getsIt());
    EXPECT_TRUE(newcomer.keepsWaiting());
    EXPECT_FALSE(second.holds);
    writer.mayLeave = newcomer.mayLeave = second.mayLeave = true;
    EXPECT_TRUE(newcomer.getsIt());
    EXPECT_TRUE(second.getsIt());
}

// Reads are taken and released by whichever thread comes by, more threads than have lines of their own, some of them
// ending; still no writer gets in beside a read or another writer, and no read is left behind.
TEST(SharedLock, WritersStayOutWhileThreadsReleaseEachOthersReads) {
    constexpr int rounds = 3000;
    std::atomic<int> reads{0}, violations{0};
    int writes = 0;
    const auto readAndRelease = [&](unsigned seed) {
        std::minstd_rand random(seed);
        for (int i = 0; i < rounds; ++i) {
            if (random() % 32 == 0)
                std::thread([] { ZEL_ShmReadLock(2); }).join();  // ends, and its read goes on
            else
                ZEL_ShmReadLock(2);
            ++reads;
            if (random() % 4 == 0) sched_yield();
            --reads;
            if (ZEL_ShmReadUnLock(2) != 0) ++violations;
        }
    };
    const auto write = [&] {
        for (int i = 0; i < rounds / 4; ++i) {
            ZEL_ShmWriteLock(2);
            if (reads != 0) ++violations;
            ++writes;
            ZEL_ShmWriteUnLock(2);
            sched_yield();
        }
    };
    Random seeds = seeded();
    std::vector<std::thread> threads;
    for (int i = 0; i < 6; ++i) threads.emplace_back(readAndRelease, seeds());
    for (int i = 0; i < 2; ++i) threads.emplace_back(write);
    for (auto &thread : threads) thread.join();
    EXPECT_EQ(violations, 0);
    EXPECT_EQ(writes, rounds / 2);
    EXPECT_EQ(ZEL_ShmReadUnLock(2), -1);
    EXPECT_TRUE(canTake(2, 'w'));
}

// A hold that another thread released must not let its taker in beside an active writer.
TEST(SharedLock, AThreadWhoseReadWasReleasedElsewhereIsANewcomer) {
    ASSERT_EQ(ZEL_ShmReadLock(2), 0);
    std::thread([] { EXPECT_EQ(ZEL_ShmReadUnLock(2), 0); }).join();
    Holder writer(2, 'w');
    ASSERT_TRUE(writer.getsIt());
    std::atomic<bool> isReading{false};
    std::thread opener([&] {
        EXPECT_FALSE(eventually(0.15, [&] { return isReading.load(); }));
        writer.mayLeave = true;
    });
    EXPECT_EQ(ZEL_ShmReadLock(2), 0);
    isReading = true;
    opener.join();
}

TEST(SharedLock, WhatCannotBeReleasedIsRefused) {
    const Child child = startHolder(6, "w");
    const auto isRefused = [](int lock, int error) {
        const auto fails = [error](int result) { return result == -1 && std::exchange(errno, 0) == error; };
        return fails(ZEL_ShmReadUnLock(lock)) && fails(ZEL_ShmWriteUnLock(lock)) &&
               fails(ZEL_ShmLockPass(lock, getpid())) && fails(zelShmLockWasAbandoned(lock));
    };
    EXPECT_TRUE(isRefused(6, EPERM));
    EXPECT_TRUE(isRefused(-1, EINVAL));
    EXPECT_TRUE(isRefused(ZEL_SHM_LOCKS, EINVAL));
    EXPECT_EQ(ZEL_ShmReadLock(ZEL_SHM_LOCKS), -1);
    EXPECT_EQ(ZEL_ShmWriteLock(-1), -1);
    ASSERT_EQ(ZEL_ShmLock(4), 0);
    std::thread([] { EXPECT_EQ(ZEL_ShmWriteUnLock(4), 0); }).join();  // by any thread of the process
    EXPECT_TRUE(isRefused(4, EPERM));
}

TEST(SharedLock, ALockIsPassedToTheLivingAndRecoveredWhenTheyAreKilled) {
    ASSERT_EQ(ZEL_ShmWriteLock(5), 0);
    Child zombie = Child::start("hold", {"1", "r"});
    zombie.signal(SIGKILL);
    siginfo_t info;
    ASSERT_EQ(waitid(P_PID, static_cast<id_t>(zombie.pid()), &info, WEXITED | WNOWAIT), 0);
    EXPECT_EQ(ZEL_ShmLockPass(5, zombie.pid()), -1);
    EXPECT_EQ(errno, ESRCH);
    Child child = startHolder(1, "r");
    ASSERT_EQ(ZEL_ShmLockPass(5, child.pid()), 0);
    EXPECT_EQ(ZEL_ShmWriteUnLock(5), -1);
    killIt(child);
    EXPECT_TRUE(canTake(5, 'w'));
}

// spawn PASS: takes lock 5, starts a receiver that outlives it, passes the lock when told so, and is killed.
ZEL_CHILD(spawn) {
    if (ZEL_ShmWriteLock(5) != 0 || ZEL_ShmReadLock(8) != 0) return 1;
    const pid_t pid = fork();
    if (pid == 0) {
        ++board().ready;
        eventually(60, [] { return board().go != 0; });
        board().result = ZEL_ShmReadUnLock(8) == 0 ? -1 : ZEL_ShmWriteUnLock(5) == 0 ? 1 : errno + 1000;
        _exit(0);
    }
    if (*argv[0] == 'y' && ZEL_ShmLockPass(5, pid) != 0) return 2;
    ++board().ready;
    pause();
    return 0;
}

TEST(SharedLock, AHandOverWhoseSpawnerIsKilledIsRecovered) {
    for (const bool isPassed : {false, true}) {
        board().ready = board().go = board().result = 0;
        Child spawner = Child::start("spawn", {isPassed ? "y" : "n"});
        ASSERT_TRUE(eventually(20, [] { return board().ready == 2; }));
        killIt(spawner);
        Holder waiting(5, 'w');
        if (isPassed) {
            EXPECT_TRUE(waiting.keepsWaiting());  // the receiver lives and owns it
            board().go = 1;
        }
        EXPECT_TRUE(waiting.getsIt());
        board().go = 1;
        ASSERT_TRUE(eventually(20, [] { return board().result != 0; }));
        EXPECT_EQ(board().result, isPassed ? 1 : EPERM + 1000);
    }
}

TEST(SharedLock, OnlyADeadWriterLeavesAMark) {
    const auto isMarked = [] {
        EXPECT_EQ(ZEL_ShmWriteLock(7), 0);
        const int result = zelShmLockWasAbandoned(7);
        EXPECT_EQ(zelShmLockWasAbandoned(7), 0);
        EXPECT_EQ(ZEL_ShmWriteUnLock(7), 0);
        return result;
    };
    Child reader = startHolder(7, "r");
    killIt(reader);
    EXPECT_EQ(isMarked(), 0);
    Child writer = startHolder(7, "w");
    killIt(writer);
    EXPECT_TRUE(canTake(7, 'r'));  // a reader frees the lock, but the mark waits for a writer
    EXPECT_EQ(isMarked(), 1);

    // A writer that is killed while it waits for readers has written nothing, and its gate opens again.
    ASSERT_EQ(ZEL_ShmReadLock(7), 0);
    Child waiting = Child::start("hold", {"7", "w"});
    std::optional<Holder> newcomer;
    ASSERT_TRUE(eventually(20, [&] {  // until the gate is closed to others
        newcomer.emplace(7, 'r');
        newcomer->mayLeave = true;
        return newcomer->keepsWaiting();
    }));
    killIt(waiting);
    EXPECT_TRUE(newcomer->getsIt());
    EXPECT_EQ(ZEL_ShmReadUnLock(7), 0);
    EXPECT_EQ(isMarked(), 0);
}

// A thread that loops on uncontended locks can be cancelled, and then holds nothing.
TEST(SharedLock, CancellationComesBeforeAnythingIsTaken) {
    static std::atomic<int> rounds;
    for (char mode : {'r', 'w'}) {
        rounds = 0;
        const auto loop = [](void *way) -> void * {
            for (const char m = *static_cast<char *>(way);; ++rounds) take(10, m), leave(10, m);
        };
        pthread_t thread;
        ASSERT_EQ(pthread_create(&thread, nullptr, loop, &mode), 0);
        EXPECT_TRUE(eventually(20, [] { return rounds > 10; }));
        pthread_cancel(thread);
        pthread_join(thread, nullptr);
        EXPECT_TRUE(canTake(10, 'w'));
    }
}

// ---- Kills --------------------------------------------------------------------------------------------------------

// churn INDEX SEED: takes locks in all modes at random, and checks that nobody alive is where nobody may be.
ZEL_CHILD(churn) {
    std::minstd_rand random(static_cast<unsigned>(strtoul(argv[1], nullptr, 10)));
    Board &shared = board();
    for (; shared.stop == 0; ++shared.progress[static_cast<std::size_t>(atoi(argv[0]))]) {
        const std::size_t which = random() % churnedLocks;
        const int lock = static_cast<int>(which) + 11;
        const bool isWriter = random() % 3 == 0;
        const auto depth = isWriter ? 1 : 1 + random() % 2;
        for (unsigned i = 0; i < depth; ++i) take(lock, isWriter ? 'w' : 'r');
        const pid_t inside = shared.writerInside[which];
        if (inside != 0 && inside != getpid() && platform::processWithPid(inside).pid != 0) ++shared.violations;
        if (isWriter) shared.writerInside[which] = getpid();
        for (auto i = random() % 40; i > 0; --i) sched_yield();
        if (isWriter) shared.writerInside[which] = 0;
        for (unsigned i = 0; i < depth; ++i) leave(lock, isWriter ? 'w' : 'r');
    }
    return 0;
}

// Long runs, on a host of their own, ask for a second; elsewhere survivors that never go on are told from a busy host.
TEST(SharedLock, TheOthersGoOnWhenAHolderIsKilled) {
    const int kills = isFullRun() ? 200 : 20;
    const double deadline = isFullRun() ? 1 : 20;
    Random random = seeded();
    std::vector<std::optional<Child>> children(churners);
    const auto progressOf = [](std::size_t i) { return board().progress[i].load(); };
    const auto start = [&](std::size_t i) {
        const unsigned before = progressOf(i);
        children[i].emplace(Child::start("churn", {std::to_string(i), std::to_string(random())}));
        ASSERT_TRUE(eventually(20, [&] { return progressOf(i) != before; }));
    };
    for (std::size_t i = 0; i < churners; ++i) start(i);
    for (int kill = 0; kill < kills; ++kill) {
        const std::size_t victim = random() % churners;
        killIt(*children[victim]);
        std::array<unsigned, churners> before;
        for (std::size_t i = 0; i < churners; ++i) before[i] = progressOf(i);
        const auto goOn = [&] {  // ten rounds: each has passed the lock that the victim may have held
            for (std::size_t i = 0; i < churners; ++i)
                if (i != victim && progressOf(i) - before[i] < 10) return false;
            return true;
        };
        EXPECT_TRUE(eventually(deadline, goOn)) << "kill " << kill;
        children[victim].reset();
        start(victim);
    }
    board().stop = 1;
    for (auto &child : children) EXPECT_EQ(child->wait(), 0);
    EXPECT_EQ(board().violations, 0);
}

}  // namespace
}  // namespace zel::test
