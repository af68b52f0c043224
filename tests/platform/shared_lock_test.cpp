#include <errno.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <optional>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "platform/process.h"
#include "platform/segment.h"
#include "tests/support/child.h"
#include "tests/support/eventually.h"
#include "zel/platform.h"

namespace zel::test {
namespace {

using platform::Section;

constexpr int churners = 4, churnedLocks = 3;

// What parent and children share beside the locks.
struct Board {
    std::atomic<int> ready, go, holds, stop;
    volatile int counter;
    std::array<std::atomic<pid_t>, churnedLocks> writerInside;
    std::array<std::atomic<unsigned>, churners> progress;
    std::atomic<int> violations;
};

Board &board() {
    return *platform::sysSectionAs<Board>(Section::linkState);
}

bool isFull() {
    return getenv("ZEL_TEST_FULL") != nullptr;
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
        : lock_(lock), mode_(mode), thread_([this] {
              take(lock_, mode_);
              holds = true;
              while (!mayLeave) sched_yield();
              EXPECT_EQ(leave(lock_, mode_), 0);
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
    void release() { mayLeave = true; }

    std::atomic<bool> holds{false}, mayLeave{false};  // `holds` stays set

private:
    int lock_;
    char mode_;
    std::thread thread_;
};

bool canTake(int lock, char mode) {
    Holder holder(lock, mode);
    return holder.getsIt();
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

ZEL_CHILD(count) {
    for (int i = atoi(argv[0]); i > 0; --i) {
        ZEL_ShmWriteLock(3);
        board().counter = board().counter + 1;
        ZEL_ShmWriteUnLock(3);
    }
    return 0;
}

TEST(SharedLock, CountsOfProcessesAndThreadsAddUp) {
    constexpr int rounds = 20'000;
    board().counter = 0;
    std::vector<Child> children;
    for (int i = 0; i < 3; ++i) children.push_back(Child::start("count", {std::to_string(rounds)}));
    std::vector<std::thread> threads;
    for (int i = 0; i < 2; ++i)
        threads.emplace_back([] {
            for (int j = 0; j < rounds; ++j) {
                ZEL_ShmLock(3);
                board().counter = board().counter + 1;
                ZEL_ShmUnLock(3);
            }
        });
    for (auto &thread : threads) thread.join();
    for (auto &child : children) EXPECT_EQ(child.wait(60), 0);
    EXPECT_EQ(board().counter, 5 * rounds);
}

TEST(SharedLock, ReadersShareAndAWriterWaitsForThemAll) {
    Child child = startHolder(1, "r");
    Holder reader(1, 'r');
    ASSERT_TRUE(reader.getsIt());
    Holder writer(1, 'w');
    EXPECT_TRUE(writer.keepsWaiting());
    reader.release();
    EXPECT_TRUE(writer.keepsWaiting());
    board().go = 1;
    EXPECT_EQ(child.wait(), 0);
    EXPECT_TRUE(writer.getsIt());
    Holder late(1, 'r'), second(1, 'w');
    EXPECT_TRUE(late.keepsWaiting());
    EXPECT_FALSE(second.holds);
    writer.release();
    late.release();
    second.release();
    EXPECT_TRUE(late.getsIt());
    EXPECT_TRUE(second.getsIt());
}

TEST(SharedLock, OnlyAReaderPassesAWaitingWriter) {
    ASSERT_EQ(ZEL_ShmReadLock(1), 0);
    Holder writer(1, 'w');
    EXPECT_TRUE(writer.keepsWaiting());
    Holder newcomer(1, 'r');
    EXPECT_TRUE(newcomer.keepsWaiting());
    EXPECT_EQ(ZEL_ShmReadLock(1), 0);
    EXPECT_EQ(ZEL_ShmReadUnLock(1), 0);
    EXPECT_FALSE(writer.holds);
    EXPECT_EQ(ZEL_ShmReadUnLock(1), 0);
    EXPECT_TRUE(writer.getsIt());
    EXPECT_FALSE(newcomer.holds);
    writer.release();
    EXPECT_TRUE(newcomer.getsIt());
}

TEST(SharedLock, AnotherThreadMayRelease) {
    for (const char mode : {'r', 'w'}) {
        ASSERT_EQ(take(2, mode), 0);
        int result = -1;
        std::thread([&] { result = leave(2, mode); }).join();
        EXPECT_EQ(result, 0);
        EXPECT_TRUE(canTake(2, 'w'));
        EXPECT_EQ(leave(2, mode), -1);
        EXPECT_EQ(errno, EPERM);
    }
}

// Threads use different slots; what one of them leaves may have been counted in another's.
TEST(SharedLock, ReadsReleasedCrosswiseLeaveNothingBehind) {
    std::vector<std::thread> threads;
    for (int i = 0; i < 6; ++i) threads.emplace_back([] { EXPECT_EQ(ZEL_ShmReadLock(2), 0); });
    for (auto &thread : threads) thread.join();
    for (int i = 0; i < 6; ++i) EXPECT_EQ(ZEL_ShmReadUnLock(2), 0);
    EXPECT_EQ(ZEL_ShmReadUnLock(2), -1);
    EXPECT_TRUE(canTake(2, 'w'));
}

// Reads are taken and released by whichever thread comes by, more threads than have lines of their own, some of them
// ending; still no writer gets in beside a read, and none is left behind.
TEST(SharedLock, WritersStayOutWhileThreadsReleaseEachOthersReads) {
    constexpr int rounds = 3000;
    std::atomic<int> reads{0}, violations{0};
    const auto release = [&] {
        int seen = reads;
        while (seen > 0 && !reads.compare_exchange_weak(seen, seen - 1)) {
        }
        if (seen > 0 && ZEL_ShmReadUnLock(2) != 0) ++violations;
    };
    const auto readAndRelease = [&](unsigned seed) {
        std::minstd_rand random(seed);
        for (int i = 0; i < rounds; ++i) {
            if (random() % 32 == 0) {
                std::thread([] { ZEL_ShmReadLock(2); }).join();  // ends, and its read goes on
            } else {
                ZEL_ShmReadLock(2);
            }
            ++reads;
            if (random() % 4 == 0) sched_yield();
            release();
        }
    };
    const auto write = [&] {
        for (int i = 0; i < rounds / 4; ++i) {
            ZEL_ShmWriteLock(2);
            if (reads != 0) ++violations;
            ZEL_ShmWriteUnLock(2);
            sched_yield();
        }
    };
    std::vector<std::thread> threads;
    for (unsigned i = 1; i <= 6; ++i) threads.emplace_back(readAndRelease, i);
    for (int i = 0; i < 2; ++i) threads.emplace_back(write);
    for (auto &thread : threads) thread.join();
    EXPECT_EQ(violations, 0);
    EXPECT_EQ(ZEL_ShmReadUnLock(2), -1);
    EXPECT_TRUE(canTake(2, 'w'));
}

// A hold that another thread released must not let its taker in beside an active writer.
TEST(SharedLock, AThreadWhoseReadWasReleasedElsewhereIsANewcomer) {
    ASSERT_EQ(ZEL_ShmReadLock(2), 0);
    std::thread([] { EXPECT_EQ(ZEL_ShmReadUnLock(2), 0); }).join();
    Child writer = startHolder(2, "w");
    std::atomic<bool> isReading{false};
    std::thread opener([&] {
        EXPECT_FALSE(eventually(0.15, [&] { return isReading.load(); }));
        board().go = 1;
    });
    EXPECT_EQ(ZEL_ShmReadLock(2), 0);
    isReading = true;
    EXPECT_EQ(board().go, 1);
    opener.join();
    EXPECT_EQ(ZEL_ShmReadUnLock(2), 0);
}

TEST(SharedLock, WhoDoesNotHoldCannotRelease) {
    Child child = startHolder(6, "w");
    EXPECT_EQ(ZEL_ShmWriteUnLock(6), -1);
    EXPECT_EQ(errno, EPERM);
    EXPECT_EQ(ZEL_ShmReadUnLock(6), -1);
    EXPECT_EQ(errno, EPERM);
    EXPECT_EQ(ZEL_ShmLockPass(6, getpid()), -1);
    EXPECT_EQ(errno, EPERM);
    EXPECT_EQ(zelShmLockWasAbandoned(6), -1);
    EXPECT_EQ(errno, EPERM);
    Holder writer(6, 'w');
    EXPECT_TRUE(writer.keepsWaiting());
    board().go = 1;
    EXPECT_TRUE(writer.getsIt());
    EXPECT_EQ(child.wait(), 0);
}

TEST(SharedLock, UnknownNumbersAreRefused) {
    for (const int lock : {-1, static_cast<int>(ZEL_SHM_LOCKS)}) {
        errno = 0;
        for (const int result :
             {ZEL_ShmReadLock(lock), ZEL_ShmReadUnLock(lock), ZEL_ShmWriteLock(lock), ZEL_ShmWriteUnLock(lock),
              ZEL_ShmLockPass(lock, getpid()), zelShmLockWasAbandoned(lock)})
            EXPECT_EQ(result, -1);
        EXPECT_EQ(errno, EINVAL);
    }
    errno = 17;
    EXPECT_EQ(ZEL_ShmReadLock(31), 0);
    EXPECT_EQ(ZEL_ShmReadUnLock(31), 0);
    EXPECT_EQ(errno, 17);
}

// receive: waits to be told, releases lock 5, which was passed to it.
ZEL_CHILD(receive) {
    board().ready = 1;
    while (board().go == 0) usleep(1000);
    return ZEL_ShmWriteUnLock(5) == 0 ? 0 : errno;
}

TEST(SharedLock, APassedLockIsReleasedByItsNewOwner) {
    ASSERT_EQ(ZEL_ShmWriteLock(5), 0);
    Child child = Child::start("receive");
    ASSERT_EQ(ZEL_ShmLockPass(5, child.pid()), 0);
    EXPECT_EQ(ZEL_ShmWriteUnLock(5), -1);
    EXPECT_EQ(errno, EPERM);
    Holder next(5, 'w');
    EXPECT_TRUE(next.keepsWaiting());
    board().go = 1;
    EXPECT_EQ(child.wait(), 0);
    EXPECT_TRUE(next.getsIt());
}

TEST(SharedLock, ALockCannotBePassedToTheDead) {
    ASSERT_EQ(ZEL_ShmWriteLock(5), 0);
    Child child = Child::start("receive");
    child.signal(SIGKILL);
    siginfo_t info;
    ASSERT_EQ(waitid(P_PID, static_cast<id_t>(child.pid()), &info, WEXITED | WNOWAIT), 0);
    EXPECT_EQ(ZEL_ShmLockPass(5, child.pid()), -1);
    EXPECT_EQ(errno, ESRCH);
    EXPECT_EQ(ZEL_ShmWriteUnLock(5), 0);
}

TEST(SharedLock, ALockPassedToAChildThatIsKilledIsRecovered) {
    ASSERT_EQ(ZEL_ShmWriteLock(5), 0);
    Child child = Child::start("receive");
    ASSERT_EQ(ZEL_ShmLockPass(5, child.pid()), 0);
    child.signal(SIGKILL);
    EXPECT_EQ(child.wait(), 256 + SIGKILL);
    EXPECT_TRUE(canTake(5, 'w'));
}

// spawn PASS: takes lock 5, starts a receiver that outlives it, passes the lock when told so, and is killed.
ZEL_CHILD(spawn) {
    if (ZEL_ShmWriteLock(5) != 0) return 1;
    const pid_t pid = fork();
    if (pid == 0) {
        board().ready = 1;
        eventually(60, [] { return board().go != 0; });
        board().stop = ZEL_ShmWriteUnLock(5) == 0 ? 1 : errno + 1000;
        _exit(0);
    }
    if (*argv[0] == 'y' && ZEL_ShmLockPass(5, pid) != 0) return 2;
    ++board().holds;
    pause();
    return 0;
}

TEST(SharedLock, AHandOverWhoseSpawnerIsKilledIsRecovered) {
    for (const bool isPassed : {false, true}) {
        board().ready = board().go = board().holds = board().stop = 0;
        Child spawner = Child::start("spawn", {isPassed ? "y" : "n"});
        ASSERT_TRUE(eventually(20, [] { return board().ready == 1 && board().holds == 1; }));
        spawner.signal(SIGKILL);
        EXPECT_EQ(spawner.wait(), 256 + SIGKILL);
        if (isPassed) {
            Holder waiting(5, 'w');
            EXPECT_TRUE(waiting.keepsWaiting());  // the receiver lives and owns it
            board().go = 1;
            EXPECT_TRUE(waiting.getsIt());
        } else {
            EXPECT_TRUE(canTake(5, 'w'));
            board().go = 1;
        }
        ASSERT_TRUE(eventually(20, [] { return board().stop != 0; }));
        EXPECT_EQ(board().stop, isPassed ? 1 : EPERM + 1000);
    }
}

TEST(SharedLock, OnlyADeadWriterLeavesAMark) {
    Child reader = startHolder(7, "r");
    reader.signal(SIGKILL);
    reader.wait();
    ASSERT_EQ(ZEL_ShmWriteLock(7), 0);
    EXPECT_EQ(zelShmLockWasAbandoned(7), 0);
    EXPECT_EQ(ZEL_ShmWriteUnLock(7), 0);

    Child writer = startHolder(7, "w");
    writer.signal(SIGKILL);
    writer.wait();
    EXPECT_TRUE(canTake(7, 'r'));  // a reader frees the lock, but the mark waits for a writer
    ASSERT_EQ(ZEL_ShmWriteLock(7), 0);
    EXPECT_EQ(zelShmLockWasAbandoned(7), 1);
    EXPECT_EQ(zelShmLockWasAbandoned(7), 0);
    EXPECT_EQ(ZEL_ShmWriteUnLock(7), 0);
}

// A writer that is killed while it waits for readers has written nothing, and its gate opens again.
TEST(SharedLock, AWriterKilledBeforeItsTurnLeavesAnOpenGate) {
    ASSERT_EQ(ZEL_ShmReadLock(7), 0);
    Child writer = Child::start("hold", {"7", "w"});
    std::optional<Holder> newcomer;
    ASSERT_TRUE(eventually(20, [&] {  // until the gate is closed to others
        newcomer.emplace(7, 'r');
        newcomer->release();
        return newcomer->keepsWaiting();
    }));
    writer.signal(SIGKILL);
    writer.wait();
    EXPECT_TRUE(newcomer->getsIt());
    EXPECT_EQ(ZEL_ShmReadUnLock(7), 0);
    ASSERT_EQ(ZEL_ShmWriteLock(7), 0);
    EXPECT_EQ(zelShmLockWasAbandoned(7), 0);
    EXPECT_EQ(ZEL_ShmWriteUnLock(7), 0);
}

TEST(SharedLock, AForkedChildHoldsNothing) {
    ASSERT_EQ(ZEL_ShmReadLock(8), 0);
    ASSERT_EQ(ZEL_ShmWriteLock(9), 0);
    const pid_t pid = fork();
    if (pid == 0) {
        const bool holdsNothing = ZEL_ShmReadUnLock(8) == -1 && ZEL_ShmWriteUnLock(9) == -1;
        const bool canRead = ZEL_ShmReadLock(8) == 0;  // and ends with it
        _exit(holdsNothing && canRead ? 0 : 1);
    }
    int status = -1;
    waitpid(pid, &status, 0);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(ZEL_ShmReadUnLock(8), 0);
    EXPECT_EQ(ZEL_ShmWriteUnLock(9), 0);
    EXPECT_TRUE(canTake(8, 'w'));
}

// A thread that loops on uncontended locks can be cancelled, and then holds nothing.
TEST(SharedLock, CancellationComesBeforeAnythingIsTaken) {
    for (const char mode : {'r', 'w'}) {
        static std::atomic<char> chosen;
        static std::atomic<int> rounds;
        chosen = mode;
        rounds = 0;
        pthread_t thread;
        ASSERT_EQ(pthread_create(
                      &thread, nullptr,
                      [](void *) -> void * {
                          for (;; ++rounds) {
                              take(10, chosen);
                              leave(10, chosen);
                          }
                      },
                      nullptr),
                  0);
        ASSERT_TRUE(eventually(20, [] { return rounds > 10; }));
        pthread_cancel(thread);
        void *result = nullptr;
        pthread_join(thread, &result);
        EXPECT_EQ(result, PTHREAD_CANCELED);
        EXPECT_TRUE(canTake(10, 'w'));
    }
}

// ---- Kills --------------------------------------------------------------------------------------------------------

// churn INDEX SEED: takes locks in all modes at random, and checks that nobody alive is where nobody may be.
ZEL_CHILD(churn) {
    const auto index = static_cast<std::size_t>(atoi(argv[0]));
    std::minstd_rand random(static_cast<unsigned>(atoi(argv[1])));
    Board &shared = board();
    const auto isSomebodyInside = [&](std::size_t lock) {
        const pid_t pid = shared.writerInside[lock];
        return pid != 0 && platform::processWithPid(pid).pid != 0;
    };
    while (shared.stop == 0) {
        const std::size_t lock = random() % churnedLocks;
        const int number = static_cast<int>(lock) + 11;
        if (random() % 3 == 0) {
            ZEL_ShmWriteLock(number);
            if (isSomebodyInside(lock)) ++shared.violations;
            shared.writerInside[lock] = getpid();
            for (auto i = random() % 40; i > 0; --i) sched_yield();
            shared.writerInside[lock] = 0;
            ZEL_ShmWriteUnLock(number);
        } else {
            const auto nested = random() % 2;
            for (std::size_t i = 0; i <= nested; ++i) {
                ZEL_ShmReadLock(number);
                if (isSomebodyInside(lock)) ++shared.violations;
                for (auto j = random() % 20; j > 0; --j) sched_yield();
            }
            for (std::size_t i = 0; i <= nested; ++i) ZEL_ShmReadUnLock(number);
        }
        ++shared.progress[index];
    }
    return 0;
}

TEST(SharedLock, TheOthersGoOnWhenAHolderIsKilled) {
    const int kills = isFull() ? 200 : 20;
    const double deadline = isFull() ? 1.0 : 5.0;
    std::minstd_rand random(20260401);
    std::vector<std::optional<Child>> children(churners);
    const auto start = [&](std::size_t i) {
        const unsigned before = board().progress[i];
        children[i].emplace(Child::start("churn", {std::to_string(i), std::to_string(random())}));
        ASSERT_TRUE(eventually(20, [&] { return board().progress[i] != before; }));
    };
    for (std::size_t i = 0; i < churners; ++i) start(i);
    double longest = 0;
    for (int kill = 0; kill < kills; ++kill) {
        const std::size_t victim = random() % churners;
        std::array<unsigned, churners> before;
        children[victim]->signal(SIGKILL);
        children[victim]->wait();
        for (std::size_t i = 0; i < churners; ++i) before[i] = board().progress[i];
        const auto killed = std::chrono::steady_clock::now();
        EXPECT_TRUE(eventually(deadline,
                               [&] {
                                   // Several rounds over few locks: each survivor has passed the lock that the victim
                                   // may have held.
                                   for (std::size_t i = 0; i < churners; ++i)
                                       if (i != victim && board().progress[i] - before[i] < 10) return false;
                                   return true;
                               }))
            << "kill " << kill;
        longest = std::max(longest, std::chrono::duration<double>(std::chrono::steady_clock::now() - killed).count());
        children[victim].reset();
        start(victim);
    }
    board().stop = 1;
    for (auto &child : children) EXPECT_EQ(child->wait(), 0);
    EXPECT_EQ(board().violations, 0);
    RecordProperty("longestSeconds", std::to_string(longest));
}

// Each lock and mode by itself: the holder is surely inside when it is killed.
TEST(SharedLock, AHolderOfAnyLockInAnyModeMayDie) {
    const int kills = isFull() ? 200 : 20;
    for (int i = 0; i < kills; ++i) {
        const int lock = (i * 5 + 1) % ZEL_SHM_LOCKS;
        Child child = startHolder(lock, i % 2 == 0 ? "w" : "r");
        child.signal(SIGKILL);
        child.wait();
        EXPECT_TRUE(canTake(lock, i % 3 == 0 && i % 2 == 0 ? 'r' : 'w')) << "lock " << lock;
    }
}

}  // namespace
}  // namespace zel::test
