// Numbered reader/writer locks whose owners are processes.
//
// A lock is one writer word: 0, or who owns it (pid and start time, so a pid that came back is another owner) with one
// of two states. `active`: the owner writes, or is about to look for readers. `closing`: it found readers and waits for
// them to leave; the gate is shut for newcomers, but a thread that reads already may come in again, or its nested read
// and the writer would wait for each other.
//
// Readers count themselves in a block that their process owns: its first threads each on a line of their own, which
// nobody else writes, all further threads together on the common line. Reader and writer meet as Dekker had it: the
// reader counts itself, then looks at the writer word; the writer sets the word, then looks at the counts. Both are
// sequentially consistent, so at least one of them sees the other. A reader that sees `active` withdraws; a writer that
// sees a count goes back to `closing`, and to `active` again before it looks for the last time. An uncontended read is
// one exchange on a line of the thread's own and, when it ends, a plain store.
//
// Holds of a process are alike: any thread may release a read that another one took. It cannot write that thread's
// line, so it takes the hold off the common line, whose counts may thus fall below zero; the process reads as long as
// the sum is above zero, and the owner of a line settles debts with it when it comes by next. A writer adds the parts
// up while others change them, and still never finds too little: from `active` on nobody comes to stay, so lines only
// fall; whatever moves from a line to the common line is added there first; and the common line is read last.
//
// Nothing needs to be undone when a process is killed. Whoever waits looks every 100 ms whether the process it waits
// for exists: a dead writer's word is cleared and leaves a mark when it may have written; a dead reader's slot is
// emptied. Both go by compare-and-exchange of the dead identity, which never comes back. Wake-ups lost with a killed
// releaser cost a waiter one such slice.
//
// A waiter sleeps on `released` (for the writer word) or `drained` (a closing writer, for readers). The flag
// `isAwaited` saves the releaser the call when nobody sleeps; it is set before the word is looked at for the last time.
// A reader that leaves by its plain store can miss a writer that is just closing the gate, which therefore naps briefly
// at first.
#include <errno.h>
#include <pthread.h>
#include <time.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <climits>
#include <cstdint>
#include <numeric>

#include "base/host_check.h"
#include "base/lock_rank.h"
#include "platform/futex.h"
#include "platform/process.h"
#include "platform/seam.h"
#include "platform/segment.h"
#include "zel/platform.h"

namespace zel::platform {
namespace {

constexpr int lockCount = ZEL_SHM_LOCKS;
constexpr std::size_t blockCount = 480;
constexpr unsigned linesPerBlock = 3;
constexpr std::uint64_t sliceNanoseconds = 100'000'000, firstNapNanoseconds = 50'000;
constexpr std::size_t lineBytes = 128;  // two lines: hosts fetch them in pairs

// Locks that are taken under other locks of the library.
constexpr std::uint32_t leafLocks = 1u << ZEL_SHM_LOCK_HISTORY | 1u << ZEL_SHM_LOCK_POLICY_HEAP;

// ---- Words --------------------------------------------------------------------------------------------------------

// A process as one word: 40 bits of start time (centuries), 22 bits of pid (the host's limit), two bits for a state.
using Word = std::uint64_t;
constexpr Word isFree = 0, active = 1, closing = 2, stateMask = 3;
constexpr int pidBits = 22, stateBits = 2;

Word wordOf(const ProcessId &process) {
    return (process.startTime << pidBits | static_cast<Word>(process.pid)) << stateBits;
}

bool isOwnerAlive(Word word) {
    constexpr Word pidMask = (Word{1} << pidBits) - 1;
    return isAlive({static_cast<pid_t>(word >> stateBits & pidMask), word >> (stateBits + pidBits)});
}

struct alignas(lineBytes) Gate {
    std::atomic<Word> writer;
    std::atomic<std::uint32_t> released;
    std::atomic<std::uint32_t> isAwaited;
    std::atomic<std::uint32_t> drained;
    std::atomic<std::uint32_t> isAbandoned;
    std::atomic<std::uint32_t> wasEverRead;  // most locks never are, and their writers need not look for readers
};

struct alignas(lineBytes) Line {
    std::array<std::atomic<std::int32_t>, lockCount> reads;
};

struct Block {
    Line common;
    std::array<Line, linesPerBlock> lines;
};

struct Table {
    std::array<Gate, lockCount> gates;
    std::array<std::atomic<Word>, blockCount> owners;
    alignas(lineBytes) std::atomic<std::size_t> usedBlocks;  // none at or above this number was ever taken
    std::array<Block, blockCount> blocks;
};
static_assert(sizeof(Table) <= sectionBytes[static_cast<std::size_t>(Section::locks)]);
static_assert(std::atomic<Word>::is_always_lock_free);

// ---- This process and its threads ---------------------------------------------------------------------------------

constinit std::atomic<Table *> attachedTable{nullptr};
constinit std::atomic<Word> selfWord{0};
constinit std::atomic<Block *> ownBlock{nullptr};
constinit std::atomic<unsigned> takenLines{0};  // a bit per line of the own block
pthread_key_t lineKey;                          // hands a thread's line back when it ends

struct ThreadState {
    Block *block;                                 // null before the thread's first read
    Line *line;                                   // null: on the common line
    std::array<std::uint16_t, lockCount> nested;  // without a line: how often the thread reads; only a hint
};
__attribute__((tls_model("initial-exec"))) constinit thread_local ThreadState thisThread{};

// A forked child owns nothing of what its parent holds.
void forgetInChild() {
    selfWord = 0;
    ownBlock = nullptr;
    takenLines = 0;
    thisThread = ThreadState{};
}

// What the thread still holds goes to the common line.
void handBackLine(void *) {
    const ThreadState &thread = thisThread;
    if (thread.line == nullptr) return;
    for (std::size_t lock = 0; lock < lockCount; ++lock) {
        thread.block->common.reads[lock].fetch_add(thread.line->reads[lock].load());
        thread.line->reads[lock].store(0);
    }
    takenLines.fetch_and(~(1u << (thread.line - thread.block->lines.data())));
    thisThread = ThreadState{};
}

void prepareProcess() {
    pthread_atfork(nullptr, nullptr, forgetInChild);
    hostCheck(pthread_key_create(&lineKey, handBackLine) == 0, "pthread_key_create (shared locks)");
}

Table *attachTable() {
    static pthread_once_t once = PTHREAD_ONCE_INIT;
    pthread_once(&once, prepareProcess);
    const int savedErrno = errno;
    auto *table = sysSectionAs<Table>(Section::locks);
    if (table == nullptr) return nullptr;
    errno = savedErrno;
    attachedTable.store(table, std::memory_order_release);
    return table;
}

Table *table() {
    Table *known = attachedTable.load(std::memory_order_acquire);
    return known != nullptr ? known : attachTable();
}

Word self() {
    Word word = selfWord.load(std::memory_order_relaxed);
    if (word == 0) {
        word = wordOf(thisProcess());
        selfWord.store(word, std::memory_order_relaxed);
    }
    return word;
}

// ---- Blocks -------------------------------------------------------------------------------------------------------

// Makes the block of `owner` this process's, and empties it; false when somebody else was faster.
bool seizeBlock(Table &locks, std::size_t index, Word owner) {
    if (!locks.owners[index].compare_exchange_strong(owner, self())) return false;
    Block &block = locks.blocks[index];
    for (auto &reads : block.common.reads) reads.store(0);
    for (auto &line : block.lines)
        for (auto &reads : line.reads) reads.store(0);
    return true;
}

Block *claimBlock(Table &locks) {
    for (std::size_t i = 0; i < blockCount; ++i) {
        const Word owner = locks.owners[i].load();
        if (owner == self() || (owner != 0 && isOwnerAlive(owner)) || !seizeBlock(locks, i, owner)) continue;
        std::size_t used = locks.usedBlocks.load();
        while (used <= i && !locks.usedBlocks.compare_exchange_weak(used, i + 1)) {
        }
        return &locks.blocks[i];
    }
    return nullptr;
}

Block *blockOfProcess(Table &locks) {
    if (Block *own = ownBlock.load()) return own;
    Block *claimed = claimBlock(locks), *known = nullptr;
    if (claimed == nullptr || ownBlock.compare_exchange_strong(known, claimed)) return claimed;
    locks.owners[static_cast<std::size_t>(claimed - locks.blocks.data())].store(0);
    return known;  // another thread's claim came first
}

// Finds the calling thread a place to count in; false when the table is full of living processes.
bool join(Table &locks) {
    thisThread.block = blockOfProcess(locks);
    if (thisThread.block == nullptr) return false;
    for (unsigned i = 0; i < linesPerBlock; ++i) {
        if ((takenLines.fetch_or(1u << i) >> i & 1) != 0) continue;
        thisThread.line = &thisThread.block->lines[i];
        hostCheck(pthread_setspecific(lineKey, thisThread.line) == 0, "pthread_setspecific (shared locks)");
        break;
    }
    return true;
}

std::int32_t readsOf(const Block &block, std::size_t lock) {
    std::int32_t sum = 0;
    for (const auto &line : block.lines) sum += line.reads[lock].load();
    return sum + block.common.reads[lock].load();
}

bool hasReaders(const Table &locks, std::size_t lock) {
    if (locks.gates[lock].wasEverRead.load() == 0) return false;
    const std::size_t used = locks.usedBlocks.load();
    for (std::size_t i = 0; i < used; ++i)
        if (readsOf(locks.blocks[i], lock) > 0) return true;
    return false;
}

void emptyBlocksOfDeadReaders(Table &locks, std::size_t lock) {
    const std::size_t used = locks.usedBlocks.load();
    for (std::size_t i = 0; i < used; ++i) {
        const Word owner = locks.owners[i].load();
        if (readsOf(locks.blocks[i], lock) == 0 || owner == 0 || isOwnerAlive(owner)) continue;
        if (seizeBlock(locks, i, owner)) locks.owners[i].store(0);
    }
}

// ---- Waiting ------------------------------------------------------------------------------------------------------

// Locks live outside simulated time.
std::uint64_t hostMonotonic() {
    timespec time{};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return static_cast<std::uint64_t>(time.tv_sec) * nanosecondsPerSecond + static_cast<std::uint64_t>(time.tv_nsec);
}

// The time until a waiter looks again for the dead, however often it is woken meanwhile.
class Slice {
public:
    std::uint64_t end() const { return end_; }
    bool isOver() {
        const std::uint64_t time = hostMonotonic();
        if (time < end_) return false;
        end_ = time + sliceNanoseconds;
        return true;
    }

private:
    std::uint64_t end_ = hostMonotonic() + sliceNanoseconds;
};

// The writer word was changed in favour of those who wait for it.
void wakeWaiters(Gate &gate) {
    if (gate.isAwaited.load() == 0) return;
    gate.isAwaited.store(0);
    gate.released.fetch_add(1);
    futexWake(gate.released, INT_MAX, true);
}

void freeFromDeadWriter(Gate &gate) {
    Word word = gate.writer.load();
    if (word == isFree || isOwnerAlive(word)) return;
    // The mark goes first: between the two steps we may be killed. A word that changed after its owner was found dead
    // was freed, and marked, by another waiter.
    if ((word & stateMask) == active && gate.writer.load() == word) gate.isAbandoned.store(1);
    if (gate.writer.compare_exchange_strong(word, isFree)) wakeWaiters(gate);
}

bool mayPass(Word word, bool isNested) {
    return word == isFree || (isNested && (word & stateMask) == closing);
}

// Sleeps for a while, or not at all when the lock can be had.
void awaitRelease(Gate &gate, Slice &slice, bool isNested) {
    const std::uint32_t event = gate.released.load();
    gate.isAwaited.store(1);
    if (mayPass(gate.writer.load(), isNested)) return;
    futexWait(gate.released, event, slice.end(), true);
    if (slice.isOver()) freeFromDeadWriter(gate);
}

// ---- Reading ------------------------------------------------------------------------------------------------------

void wakeClosingWriter(Gate &gate) {
    if ((gate.writer.load() & stateMask) != closing) return;
    gate.drained.fetch_add(1);
    futexWake(gate.drained, INT_MAX, true);
}

// Pays what the process owes on the common line with this thread's reads that others released.
void settle(const ThreadState &thread, std::size_t lock) {
    auto &common = thread.block->common.reads[lock];
    auto &own = thread.line->reads[lock];
    std::int32_t debt = common.load();
    const std::int32_t payment = std::min(-debt, own.load());
    if (payment > 0 && common.compare_exchange_strong(debt, debt + payment)) own.fetch_sub(payment);
}

// Counts one more read of the calling thread; whether it reads already.
bool addRead(ThreadState &thread, std::size_t lock) {
    if (thread.line == nullptr) {
        thread.block->common.reads[lock].fetch_add(1);
        return thread.nested[lock]++ != 0;
    }
    if (thread.block->common.reads[lock].load(std::memory_order_relaxed) < 0) [[unlikely]]
        settle(thread, lock);
    auto &own = thread.line->reads[lock];
    const std::int32_t before = own.load(std::memory_order_relaxed);
    own.exchange(before + 1);
    return before != 0;
}

void withdrawRead(ThreadState &thread, std::size_t lock) {
    Line &line = thread.line != nullptr ? *thread.line : thread.block->common;
    line.reads[lock].fetch_sub(1);
    if (thread.line == nullptr) --thread.nested[lock];
}

// The read is counted and the lock has a writer: stays, or withdraws and comes back until it may stay.
void passGate(Gate &gate, std::size_t lock, bool isNested) {
    ThreadState &thread = thisThread;
    // A thread without a line does not learn that others released its reads.
    isNested = isNested && readsOf(*thread.block, lock) > 1;
    if (!isNested) thread.nested[lock] = 1;
    Slice slice;
    while (!mayPass(gate.writer.load(), isNested)) {
        withdrawRead(thread, lock);
        wakeClosingWriter(gate);
        while (!mayPass(gate.writer.load(), isNested)) awaitRelease(gate, slice, isNested);
        addRead(thread, lock);
    }
}

bool releaseOwnRead(const ThreadState &thread, std::size_t lock) {
    if (thread.line == nullptr || thread.block->common.reads[lock].load(std::memory_order_relaxed) < 0) return false;
    auto &own = thread.line->reads[lock];
    const std::int32_t before = own.load(std::memory_order_relaxed);
    if (before > 0) own.store(before - 1, std::memory_order_release);
    return before > 0;
}

using Parts = std::array<std::int32_t, linesPerBlock + 1>;

Parts partsOf(const Block &block, std::size_t lock) {
    Parts parts{};
    for (std::size_t i = 0; i < linesPerBlock; ++i) parts[i] = block.lines[i].reads[lock].load();
    parts[linesPerBlock] = block.common.reads[lock].load();
    return parts;
}

// Whether the process reads. Others may take and release meanwhile, so a sum that says no counts only when its parts
// stand still.
bool isRead(const Block &block, std::size_t lock) {
    Parts parts = partsOf(block, lock);
    for (;;) {
        if (std::accumulate(parts.begin(), parts.end(), 0) > 0) return true;
        const Parts again = partsOf(block, lock);
        if (again == parts) return false;
        parts = again;
    }
}

bool releaseReadOfProcess(ThreadState &thread, std::size_t lock) {
    Block *block = ownBlock.load();
    if (block == nullptr) return false;
    auto &common = block->common.reads[lock];
    std::int32_t before = common.load();
    do {
        if (!isRead(*block, lock)) return false;
    } while (!common.compare_exchange_weak(before, before - 1));
    if (thread.line == nullptr && thread.nested[lock] != 0) --thread.nested[lock];
    return true;
}

// ---- Writing ------------------------------------------------------------------------------------------------------

// The lock is this process's: lets the readers leave that came before it.
void drainReaders(Table &locks, Gate &gate, std::size_t lock) {
    if (!hasReaders(locks, lock)) return;  // before the clock is asked
    Slice slice;
    while (hasReaders(locks, lock)) {
        gate.writer.store(self() | closing);
        wakeWaiters(gate);
        for (std::uint64_t nap = firstNapNanoseconds;; nap *= 2) {
            const std::uint32_t event = gate.drained.load();
            if (!hasReaders(locks, lock)) break;
            futexWait(gate.drained, event, std::min(hostMonotonic() + nap, slice.end()), true);
            if (slice.isOver()) emptyBlocksOfDeadReaders(locks, lock);
            nap = std::min(nap, sliceNanoseconds);
        }
        gate.writer.store(self() | active);
    }
}

int fail(int error) {
    errno = error;
    return -1;
}

bool isNumber(int lock) {
    return lock >= 0 && lock < lockCount;
}

}  // namespace
}  // namespace zel::platform

using namespace zel;
using namespace zel::platform;

#define ZEL_WEAK __attribute__((weak))

ZEL_WEAK int ZEL_InitShmSem(void) {
    return table() != nullptr ? 0 : -1;
}

ZEL_WEAK int ZEL_ShmReadLock(int number) {
    if (!isNumber(number)) return fail(EINVAL);
    const auto lock = static_cast<std::size_t>(number);
    Table *locks = table();
    if (locks == nullptr) return -1;
    ThreadState &thread = thisThread;
    if (thread.block == nullptr && !join(*locks)) return fail(ENOSPC);
    checkNoRankHeld(leafLocks >> number & 1);
    pthread_testcancel();

    Gate &gate = locks->gates[lock];
    if (gate.wasEverRead.load(std::memory_order_relaxed) == 0) gate.wasEverRead.store(1);
    const bool isNested = addRead(thread, lock);
    if (gate.writer.load() != isFree) [[unlikely]]
        passGate(gate, lock, isNested);
    return 0;
}

ZEL_WEAK int ZEL_ShmReadUnLock(int number) {
    if (!isNumber(number)) return fail(EINVAL);
    const auto lock = static_cast<std::size_t>(number);
    Table *locks = table();
    if (locks == nullptr) return -1;
    ThreadState &thread = thisThread;
    if (!releaseOwnRead(thread, lock) && !releaseReadOfProcess(thread, lock)) return fail(EPERM);
    wakeClosingWriter(locks->gates[lock]);
    return 0;
}

ZEL_WEAK int ZEL_ShmWriteLock(int number) {
    if (!isNumber(number)) return fail(EINVAL);
    const auto lock = static_cast<std::size_t>(number);
    Table *locks = table();
    if (locks == nullptr) return -1;
    checkNoRankHeld(leafLocks >> number & 1);
    pthread_testcancel();

    Gate &gate = locks->gates[lock];
    Word word = isFree;
    if (!gate.writer.compare_exchange_strong(word, self() | active)) {
        Slice slice;
        do {
            awaitRelease(gate, slice, false);
            word = isFree;
        } while (!gate.writer.compare_exchange_strong(word, self() | active));
    }
    drainReaders(*locks, gate, lock);
    return 0;
}

ZEL_WEAK int ZEL_ShmWriteUnLock(int number) {
    if (!isNumber(number)) return fail(EINVAL);
    Table *locks = table();
    if (locks == nullptr) return -1;
    Gate &gate = locks->gates[static_cast<std::size_t>(number)];
    Word word = self() | active;
    if (!gate.writer.compare_exchange_strong(word, isFree)) return fail(EPERM);
    wakeWaiters(gate);
    return 0;
}

ZEL_WEAK int ZEL_ShmLockPass(int number, pid_t next) {
    if (!isNumber(number)) return fail(EINVAL);
    Table *locks = table();
    if (locks == nullptr) return -1;
    Gate &gate = locks->gates[static_cast<std::size_t>(number)];
    Word word = self() | active;
    if (gate.writer.load() != word) return fail(EPERM);
    const ProcessId process = processWithPid(next);
    if (process.pid == 0) return fail(ESRCH);
    return gate.writer.compare_exchange_strong(word, wordOf(process) | active) ? 0 : fail(EPERM);
}

ZEL_WEAK int ZEL_ShmLock(int number) {
    return ZEL_ShmWriteLock(number);
}

ZEL_WEAK int ZEL_ShmUnLock(int number) {
    return ZEL_ShmWriteUnLock(number);
}

int zelShmLockWasAbandoned(int number) {
    if (!isNumber(number)) return fail(EINVAL);
    Table *locks = table();
    if (locks == nullptr) return -1;
    Gate &gate = locks->gates[static_cast<std::size_t>(number)];
    if (gate.writer.load() != (self() | active)) return fail(EPERM);
    return gate.isAbandoned.exchange(0) != 0 ? 1 : 0;
}
