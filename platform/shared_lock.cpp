// Numbered reader/writer locks whose owners are processes.
//
// A lock is one writer word: 0, or who owns it (pid and start time, so a pid that came back is another owner) with one
// of two states. `active`: the owner writes, or is about to look for readers. `closing`: it found readers and waits for
// them to leave; the gate is shut for newcomers, but a thread that reads already may come in again, or its nested read
// and the writer would wait for each other.
//
// Readers mark themselves in a slot of their process. A process has up to four slots, so that its threads seldom meet
// on a line; a slot has a count per lock. Reader and writer meet as Dekker had it: the reader counts itself, then looks
// at the writer word; the writer sets the word, then looks at the counts. Both are sequentially consistent, so at least
// one of them sees the other. A reader that sees `active` withdraws; a writer that sees a count goes back to `closing`.
// Between two uncontended reads nothing is shared but the writer word, which nobody changes.
//
// Holds of a process are alike: a read taken by one thread may be released by any other, which takes it off whatever
// slot of the process has one. How deep a thread reads is kept with the thread, as a hint that only decides who passes
// a closing gate; exclusion never depends on it.
//
// Nothing needs to be undone when a process is killed. Whoever waits looks every 100 ms whether the process it waits
// for exists: a dead writer's word is cleared and leaves a mark when it may have written; a dead reader's slot is
// emptied. Both go by compare-and-exchange of the dead identity, which never comes back. Wake-ups lost with a killed
// releaser cost a waiter one such slice.
//
// A waiter sleeps on `released` (for the writer word) or `drained` (a closing writer, for readers). The flag
// `isAwaited` saves the releaser the call when nobody sleeps; it is set before the word is looked at for the last time.
#include <errno.h>
#include <pthread.h>
#include <time.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <climits>
#include <cstdint>

#include "base/lock_rank.h"
#include "platform/futex.h"
#include "platform/process.h"
#include "platform/seam.h"
#include "platform/segment.h"
#include "zel/platform.h"

namespace zel::platform {
namespace {

constexpr int lockCount = ZEL_SHM_LOCKS;
constexpr int slotCount = 1024;
constexpr int slotsPerProcess = 4;
constexpr std::uint64_t sliceNanoseconds = 100'000'000;
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
};

struct alignas(lineBytes) Slot {
    std::array<std::atomic<std::uint32_t>, lockCount> depth;
};

struct Table {
    std::array<Gate, lockCount> gates;
    std::array<std::atomic<Word>, slotCount> slotOwners;
    alignas(lineBytes) std::atomic<int> usedSlots;  // none at or above this number was ever taken
    std::array<Slot, slotCount> slots;
};
static_assert(sizeof(Table) <= sectionBytes[static_cast<std::size_t>(Section::locks)]);
static_assert(std::atomic<Word>::is_always_lock_free);

// ---- This process and its threads ---------------------------------------------------------------------------------

constinit std::atomic<Table *> attachedTable{nullptr};
constinit std::atomic<Word> selfWord{0};
constinit std::array<std::atomic<Slot *>, slotsPerProcess> ownSlots{};
constinit std::atomic<unsigned> threadsSoFar{0};

struct ThreadState {
    Slot *slot;
    std::array<std::uint16_t, lockCount> depth;
};
__attribute__((tls_model("initial-exec"))) constinit thread_local ThreadState thisThread{};

// A forked child owns nothing of what its parent holds.
void forgetInChild() {
    selfWord = 0;
    for (auto &slot : ownSlots) slot = nullptr;
    thisThread = ThreadState{};
}

Table *attachTable() {
    static pthread_once_t once = PTHREAD_ONCE_INIT;
    pthread_once(&once, [] { pthread_atfork(nullptr, nullptr, forgetInChild); });
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

// ---- Slots --------------------------------------------------------------------------------------------------------

// Empties a slot that was `owner`'s and makes it this process's; false when somebody else was faster.
bool seizeSlot(Table &locks, int index, Word owner) {
    const auto i = static_cast<std::size_t>(index);
    if (!locks.slotOwners[i].compare_exchange_strong(owner, self())) return false;
    for (auto &depth : locks.slots[i].depth) depth.store(0);
    return true;
}

Slot *claimSlot(Table &locks) {
    for (int i = 0; i < slotCount; ++i) {
        const Word owner = locks.slotOwners[static_cast<std::size_t>(i)].load();
        if (owner == self() || (owner != 0 && isOwnerAlive(owner)) || !seizeSlot(locks, i, owner)) continue;
        int used = locks.usedSlots.load();
        while (used <= i && !locks.usedSlots.compare_exchange_weak(used, i + 1)) {
        }
        return &locks.slots[static_cast<std::size_t>(i)];
    }
    return nullptr;
}

void giveBackSlot(Table &locks, const Slot *slot) {
    locks.slotOwners[static_cast<std::size_t>(slot - locks.slots.data())].store(0);
}

// The calling thread's slot, claimed at first use; null when the table is full of living processes.
Slot *slotOfThread(Table &locks) {
    auto &own = ownSlots[threadsSoFar.fetch_add(1) % slotsPerProcess];
    if (own.load() == nullptr) {
        Slot *claimed = claimSlot(locks), *none = nullptr;
        if (claimed != nullptr && !own.compare_exchange_strong(none, claimed)) giveBackSlot(locks, claimed);
    }
    thisThread.slot = own.load();
    for (auto &other : ownSlots)
        if (thisThread.slot == nullptr) thisThread.slot = other.load();
    return thisThread.slot;
}

void emptySlotsOfDeadReaders(Table &locks, std::size_t lock) {
    const int used = locks.usedSlots.load();
    for (int i = 0; i < used; ++i) {
        const auto index = static_cast<std::size_t>(i);
        const Word owner = locks.slotOwners[index].load();
        if (locks.slots[index].depth[lock].load() == 0 || owner == 0 || isOwnerAlive(owner)) continue;
        if (seizeSlot(locks, i, owner)) locks.slotOwners[index].store(0);
    }
}

bool hasReaders(const Table &locks, std::size_t lock) {
    const auto used = static_cast<std::size_t>(locks.usedSlots.load());
    for (std::size_t i = 0; i < used; ++i)
        if (locks.slots[i].depth[lock].load() != 0) return true;
    return false;
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

bool takeOff(std::atomic<std::uint32_t> &depth) {
    std::uint32_t count = depth.load(std::memory_order_relaxed);
    while (count != 0)
        if (depth.compare_exchange_weak(count, count - 1)) return true;
    return false;
}

bool takeOffAnySlot(std::size_t lock) {
    for (auto &own : ownSlots)
        if (Slot *slot = own.load(); slot != nullptr && takeOff(slot->depth[lock])) return true;
    return false;
}

// Whether this process reads elsewhere than by the one count just added. A thread whose hold another thread released
// would otherwise pass closing gates for good.
bool readsAlready(std::size_t lock) {
    std::uint32_t holds = 0;
    for (auto &own : ownSlots)
        if (const Slot *slot = own.load()) holds += slot->depth[lock].load();
    return holds > 1;
}

// The count stands in the slot and the lock has a writer: stays, or withdraws and comes back until it may stay.
void passGate(Gate &gate, Slot &slot, std::size_t lock) {
    const bool isNested = thisThread.depth[lock] != 0 && readsAlready(lock);
    if (!isNested) thisThread.depth[lock] = 0;
    Slice slice;
    while (!mayPass(gate.writer.load(), isNested)) {
        slot.depth[lock].fetch_sub(1);
        wakeClosingWriter(gate);
        while (!mayPass(gate.writer.load(), isNested)) awaitRelease(gate, slice, isNested);
        slot.depth[lock].fetch_add(1);
    }
}

// ---- Writing ------------------------------------------------------------------------------------------------------

// The lock is this process's: lets the readers leave that came before it.
void drainReaders(Table &locks, Gate &gate, std::size_t lock) {
    Slice slice;
    while (hasReaders(locks, lock)) {
        gate.writer.store(self() | closing);
        wakeWaiters(gate);
        for (;;) {
            const std::uint32_t event = gate.drained.load();
            if (!hasReaders(locks, lock)) break;
            futexWait(gate.drained, event, slice.end(), true);
            if (slice.isOver()) emptySlotsOfDeadReaders(locks, lock);
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
    Slot *slot = thisThread.slot != nullptr ? thisThread.slot : slotOfThread(*locks);
    if (slot == nullptr) return fail(ENOSPC);
    checkNoRankHeld(leafLocks >> number & 1);
    pthread_testcancel();

    slot->depth[lock].fetch_add(1);
    if (locks->gates[lock].writer.load() != isFree) [[unlikely]]
        passGate(locks->gates[lock], *slot, lock);
    ++thisThread.depth[lock];
    return 0;
}

ZEL_WEAK int ZEL_ShmReadUnLock(int number) {
    if (!isNumber(number)) return fail(EINVAL);
    const auto lock = static_cast<std::size_t>(number);
    Table *locks = table();
    if (locks == nullptr) return -1;
    Slot *slot = thisThread.slot;
    if (!(slot != nullptr && takeOff(slot->depth[lock])) && !takeOffAnySlot(lock)) return fail(EPERM);
    if (thisThread.depth[lock] != 0) --thisThread.depth[lock];
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
