// Semaphores: binary, counting and mutual exclusion, named by ids that a deleted semaphore's successor never repeats.
//
// A semaphore is a slot of a fixed table and an allocated control block. The slot is never freed: it holds the lock and
// the word of kernel/semaphore_word.h, so a stale or invented id can be judged at any time without touching freed
// memory and without a list lock. Uncontended takes and gives are one compare-and-swap on that word. Everything else
// works under the slot's lock: HeldSemaphore sets `engaged`, which shuts the fast path, and clears it when it lets go
// with nobody waiting, be it for a token or for others to leave. While a task waits the flag stays: every give finds
// the waiters, and whoever comes back to the lock after parking has the word to itself.
//
// Waiting. A task joins the wait list before it looks for a token, so that in first-in-first-out order nobody is
// overtaken. A give wakes the task whose turn it is; in priority order all of them, for every woken waiter may take.
// Whoever leaves the list with a token left over wakes the next, whether it took one, ran out of time or was cancelled.
//
// Flush raises the epoch: those that joined under an older one return without a token, and the flusher waits until they
// have left. A task that takes again at once waits as a newcomer, so a flush ends however busy its waiters are.
//
// Deletion invalidates the id first, then waits until everybody has left. Whoever is last to leave a dead semaphore
// frees it; that is its deleter, unless the deleter was itself cancelled.
//
// Deliberate: a binary semaphore has no ceiling; only mutexes recurse; a deleted task's mutex stays owned, and since
// owners are told apart by serial a later task at the same address is not taken for it; inheritance is one level deep
// and every last give of an inversion-safe mutex drops it.
#include <atomic>
#include <cstdio>
#include <new>
#include <optional>
#include <utility>

#include "kernel/semaphore_word.h"
#include "kernel/task.h"
#include "platform/scheduling.h"
#include "platform/seam.h"

namespace zel::kernel {
namespace {

constexpr std::uint32_t typeBinary = 0x00;
constexpr std::uint32_t typeMutex = 0x10;
constexpr std::uint32_t typeCounting = 0x20;
constexpr std::uint32_t plainOptions = ZEL_SEM_PRIORITY;
constexpr std::uint32_t mutexOptions = 0xf;

constexpr char lockText[] = "&(v2pt_sema4_array[sema4%V2PT_MAX_SEMID_IDX].sem->sema4_lock)";

// The control block: all that only the holder of the slot's lock needs.
struct Semaphore {
    std::uint32_t typeAndOptions;
    zelSemId id;
    WaitList waiters{};
    WaitList drainers{};  // flushers and the deleter, waiting for waiters to leave
    std::uint32_t waiterCount = 0;
    std::uint32_t drainerCount = 0;
    std::uint32_t flushEpoch = 0;
    std::uint32_t draining = 0;  // waiters of older epochs that have not left yet
    std::uint32_t extraHolds = 0;
    std::uint32_t illegalGives = 0;
    const Tcb *lastIllegalGiver = nullptr;  // for display only

    bool isMutex() const { return (typeAndOptions & 0xf0) == typeMutex; }
    bool isPriorityOrder() const { return (typeAndOptions & ZEL_SEM_PRIORITY) != 0; }
    bool isInversionSafe() const { return isMutex() && (typeAndOptions & ZEL_SEM_INVERSION_SAFE) != 0; }
};

struct alignas(64) Slot {
    std::atomic<std::uint64_t> word;
    pthread_mutex_t lock;
    Semaphore *block;          // null when the slot is free; written under listLock
    std::uint32_t generation;  // guarded by listLock
    bool isLockReady;          // guarded by listLock
};

Mutex listLock{LockRank::objectList, "&sema4_list_lock"};
Slot slots[semaphoreSlots];
std::uint32_t nextSlot = 0;  // where the search for a free slot starts; guarded by listLock

Slot &slotOf(zelSemId id) {
    return slots[id % semaphoreSlots];
}

// Makes the slot free again. Nobody can reach the block any more.
void retire(Slot &slot) {
    Semaphore *block;
    {
        Lock list(listLock);
        block = std::exchange(slot.block, nullptr);
    }
    release(block);
}

// A live semaphore whose lock the caller holds, or nothing.
class HeldSemaphore {
public:
    HeldSemaphore() = default;
    HeldSemaphore(Slot &slot, Lock &&lock) : slot_(&slot), lock_(std::move(lock)) {
        slot.word.fetch_or(word::engaged, std::memory_order_acquire);
    }
    HeldSemaphore(const HeldSemaphore &) = delete;
    HeldSemaphore &operator=(const HeldSemaphore &) = delete;
    ~HeldSemaphore() { letGo(); }

    explicit operator bool() const { return slot_ != nullptr; }
    Semaphore *operator->() const { return slot_->block; }
    Lock &lock() { return *lock_; }

    std::uint64_t word() const { return slot_->word.load(std::memory_order_relaxed); }
    void setWord(std::uint64_t word) { slot_->word.store(word, std::memory_order_relaxed); }
    bool isDead() const { return (word() & word::alive) == 0; }
    bool isOwnedBy(const Tcb &task) const { return word::isMutex(word()) && word::owner(word()) == task.serial; }

    // Lets the task take whose turn it is.
    void wakeNext() {
        const WaitList &waiters = slot_->block->waiters;
        if (waiters.isEmpty()) return;
        const bool isAlone = waiters.head->nextWaiter == nullptr;
        if (slot_->block->isPriorityOrder() && !isAlone)
            unparkAll(waiters);
        else
            unparking_.mark(*waiters.head);
    }

    void letGo() {
        if (!lock_ || !lock_->isHeld()) return;
        const bool isDeserted = slot_->block->waiters.isEmpty() && slot_->block->drainers.isEmpty();
        const bool isOver = isDeserted && isDead();
        if (isDeserted) slot_->word.store(word() & ~word::engaged, std::memory_order_release);
        lock_->unlock();
        if (isOver) retire(*slot_);
    }

private:
    Slot *slot_ = nullptr;
    Unparking unparking_;  // before the lock: wakes when that is released
    std::optional<Lock> lock_;
};

HeldSemaphore find(zelSemId id) {
    Slot &slot = slotOf(id);
    if (word::isLive(slot.word.load(std::memory_order_acquire), id)) {
        Lock lock(slot.lock, LockRank::object, lockText);
        if (word::isLive(slot.word.load(std::memory_order_acquire), id)) return {slot, std::move(lock)};
    }
    return {};
}

// ---- Creation ----

// A free slot, searched round the table from the one after the last taken; null when all are in use.
Slot *findFreeSlot() {
    for (std::uint32_t i = 0; i < semaphoreSlots; ++i) {
        Slot &slot = slots[(nextSlot + i) % semaphoreSlots];
        if (slot.block == nullptr) return &slot;
    }
    return nullptr;
}

// Gives the block a slot and an id; 0 when the table is full.
zelSemId publish(Semaphore &block, std::uint64_t flags, std::int64_t value) {
    Lock list(listLock);
    Slot *slot = findFreeSlot();
    if (slot == nullptr) return 0;
    const auto index = static_cast<std::uint32_t>(slot - slots);
    if (!slot->isLockReady) hostCheck(platform::initMutex(slot->lock) == 0, "!pthread_mutex_init (&(sem->sema4_lock))");
    slot->isLockReady = true;
    slot->generation = nextGeneration(index, slot->generation);
    slot->block = &block;
    block.id = static_cast<zelSemId>(semaphoreId(index, slot->generation));
    slot->word.store(word::make(slot->generation, flags, value), std::memory_order_release);
    nextSlot = (index + 1) % semaphoreSlots;
    return block.id;
}

zelSemId create(std::uint32_t typeAndOptions, std::uint64_t flags, std::int64_t value) {
    KernelSection section;
    void *memory = allocate(sizeof(Semaphore));
    if (memory == nullptr) return 0;
    auto *block = new (memory) Semaphore{typeAndOptions, 0};
    const zelSemId id = publish(*block, flags | word::alive, value);
    if (id == 0) release(memory);
    return id;
}

zelSemId createOrFail(std::uint32_t typeAndOptions, std::uint64_t flags, std::int64_t value) {
    const zelSemId id = create(typeAndOptions, flags, value);
    if (id == 0) fail(ZEL_ERR_NOT_ENOUGH_MEMORY);
    return id;
}

// ---- Giving ----

// What a task owes after its last give of a mutex. The waiters were woken before: leaving delete safety may block, and
// the task may be deleted there.
void afterGive(std::uint64_t word) {
    if (word & word::deleteSafe) leaveDeleteSafety();
    if (word & word::inversionSafe) {
        taskLock();
        taskUnlock();
    }
}

bool giveAtOnce(zelSemId id) {
    std::atomic<std::uint64_t> &state = slotOf(id).word;
    std::uint64_t word = state.load(std::memory_order_relaxed);
    do {
        if (!word::isIdle(word, id)) return false;
        if (word::isMutex(word) && (word & word::recursed || word::owner(word) != currentTask().serial)) return false;
    } while (
        !state.compare_exchange_weak(word, word::given(word), std::memory_order_release, std::memory_order_relaxed));
    afterGive(word);
    return true;
}

int refuseForeignGive(HeldSemaphore &sem, const Tcb &task) {
    ++sem->illegalGives;
    sem->lastIllegalGiver = &task;
    return ZEL_ERR_INVALID_SEM_OPERATION;
}

// Sets `owed` to the word before a mutex's last give.
int giveUnderLock(zelSemId id, std::uint64_t &owed) {
    HeldSemaphore sem = find(id);
    if (!sem) return ZEL_ERR_INVALID_OBJECT_ID;
    if (sem->isMutex() && !sem.isOwnedBy(currentTask())) return refuseForeignGive(sem, currentTask());
    if (sem->extraHolds > 0) {
        if (--sem->extraHolds == 0) sem.setWord(sem.word() & ~word::recursed);
        return 0;
    }
    owed = sem.word();
    sem.setWord(word::given(owed));
    if (word::hasToken(sem.word())) sem.wakeNext();
    return 0;
}

int giveSlowly(zelSemId id) {
    KernelSection section;
    std::uint64_t owed = 0;
    const int error = giveUnderLock(id, owed);
    afterGive(owed);
    return error;
}

// ---- Taking ----

// What a task does that got a delete-safe mutex for the first time. One that is deleted here does not die as its owner.
void afterTake(zelSemId id, std::uint64_t word) {
    if ((word & word::deleteSafe) == 0) return;
    struct GiveBack {
        const zelSemId id;
        bool isSafe;
        ~GiveBack() {
            std::uint64_t owed = 0;
            if (!isSafe) giveUnderLock(id, owed);
        }
    } unlessSafe{id, false};
    taskSafe();
    unlessSafe.isSafe = true;
}

bool takeAtOnce(zelSemId id) {
    std::atomic<std::uint64_t> &state = slotOf(id).word;
    std::uint64_t word = state.load(std::memory_order_relaxed);
    std::uint64_t next;
    do {
        if (!word::isIdle(word, id) || !word::hasToken(word)) return false;
        next = word::taken(word, word::isMutex(word) ? currentTask().serial : 0);
    } while (!state.compare_exchange_weak(word, next, std::memory_order_acquire, std::memory_order_relaxed));
    afterTake(id, word);
    return true;
}

// The caller's stay on the wait list. Leaving settles what others wait for, also when a cancelled task unwinds.
class Waiting {
public:
    Waiting(HeldSemaphore &sem, Tcb &task) : sem_(sem), task_(task), epoch_(sem->flushEpoch) {
        joinWaitList(sem->waiters, task);
        ++sem->waiterCount;
    }
    Waiting(const Waiting &) = delete;
    Waiting &operator=(const Waiting &) = delete;
    ~Waiting() {
        leaveWaitList(sem_->waiters, task_);
        --sem_->waiterCount;
        if (isFlushed()) --sem_->draining;
        if (sem_->draining == 0 || sem_.isDead()) unparkAll(sem_->drainers);
        if (word::hasToken(sem_.word())) sem_.wakeNext();
    }

    bool isFlushed() const { return epoch_ != sem_->flushEpoch; }
    bool isTurn() const { return isTurnOf(sem_->waiters, task_, sem_->isPriorityOrder()); }

private:
    HeldSemaphore &sem_;
    Tcb &task_;
    const std::uint32_t epoch_;
};

// Waits for a token and takes it; 0 or an error number.
int waitForToken(HeldSemaphore &sem, Tcb &task, int ticks) {
    const std::uint64_t deadline = ticks == WAIT_FOREVER ? platform::forever : platform::deadlineAfterTicks(ticks);
    Waiting stay(sem, task);
    if (ticks != 0 && sem->isInversionSafe() && word::owner(sem.word()) != 0)
        inheritPriority(word::owner(sem.word()), task);
    bool isOutOfTime = ticks == 0 || ticks < WAIT_FOREVER;
    for (;;) {
        if (stay.isFlushed()) return 0;
        if (sem.isDead()) return ZEL_ERR_INVALID_OBJECT_ID;
        if (word::hasToken(sem.word()) && stay.isTurn()) break;
        if (isOutOfTime) return ticks == 0 ? ZEL_ERR_OBJECT_UNAVAILABLE : ZEL_ERR_TIMEOUT;
        isOutOfTime = park(sem.lock(), deadline) == Parked::timedOut;
    }
    sem.setWord(word::taken(sem.word(), task.serial));
    return 0;
}

// Sets `gained` to the word of a mutex that the caller now holds for the first time.
int takeUnderLock(zelSemId id, int ticks, std::uint64_t &gained) {
    HeldSemaphore sem = find(id);
    if (!sem) return ZEL_ERR_INVALID_OBJECT_ID;
    Tcb &task = currentTask();
    if (sem.isOwnedBy(task)) {
        ++sem->extraHolds;
        sem.setWord(sem.word() | word::recursed);
        return 0;
    }
    const int error = waitForToken(sem, task, ticks);
    if (sem.isOwnedBy(task)) gained = sem.word();
    return error;
}

int takeSlowly(zelSemId id, int ticks) {
    KernelSection section;
    std::uint64_t gained = 0;
    const int error = takeUnderLock(id, ticks, gained);
    afterTake(id, gained);
    return error;
}

// ---- Flushing and deleting ----

// The caller's stay among those that wait until waiters have left.
class Draining {
public:
    Draining(HeldSemaphore &sem, Tcb &task) : sem_(sem), task_(task) {
        joinWaitList(sem->drainers, task);
        ++sem->drainerCount;
    }
    Draining(const Draining &) = delete;
    Draining &operator=(const Draining &) = delete;
    ~Draining() {
        leaveWaitList(sem_->drainers, task_);
        --sem_->drainerCount;
        unparkAll(sem_->drainers);
    }

private:
    HeldSemaphore &sem_;
    Tcb &task_;
};

int flush(zelSemId id) {
    KernelSection section;
    HeldSemaphore sem = find(id);
    if (!sem) return ZEL_ERR_INVALID_OBJECT_ID;
    if (sem->isMutex()) return ZEL_ERR_INVALID_SEM_OPERATION;
    if (sem->waiters.isEmpty()) return 0;
    ++sem->flushEpoch;
    sem->draining = sem->waiterCount;
    unparkAll(sem->waiters);
    Draining stay(sem, currentTask());
    while (sem->draining > 0) park(sem.lock(), platform::forever);
    return 0;
}

// Sets `owed` to the word of a mutex that the caller holds.
int destroyUnderLock(zelSemId id, std::uint64_t &owed) {
    HeldSemaphore sem = find(id);
    if (!sem) return ZEL_ERR_INVALID_OBJECT_ID;
    if (sem.isOwnedBy(currentTask())) owed = sem.word();
    sem.setWord(sem.word() & ~word::alive);
    unparkAll(sem->waiters);
    Draining stay(sem, currentTask());
    while (sem->waiterCount > 0 || sem->drainerCount > 1) park(sem.lock(), platform::forever);
    return 0;
}

int destroy(zelSemId id) {
    KernelSection section;
    std::uint64_t owed = 0;
    const int error = destroyUnderLock(id, owed);
    afterGive(owed);
    return error;
}

int result(int error) {
    return error == 0 ? ZEL_OK : fail(error);
}

}  // namespace
}  // namespace zel::kernel

using namespace zel::kernel;

zelSemId semBCreate(int options, int initialState) {
    return createOrFail(typeBinary | (static_cast<std::uint32_t>(options) & plainOptions), 0, initialState != 0);
}

zelSemId semCCreate(int options, int initialCount) {
    return createOrFail(typeCounting | (static_cast<std::uint32_t>(options) & plainOptions), 0, initialCount);
}

zelSemId semMCreate(int options) {
    const std::uint32_t kept = static_cast<std::uint32_t>(options) & mutexOptions;
    const std::uint64_t safety =
        (kept & ZEL_SEM_DELETE_SAFE ? word::deleteSafe : 0) | (kept & ZEL_SEM_INVERSION_SAFE ? word::inversionSafe : 0);
    return createOrFail(typeMutex | kept, word::mutex | safety, 0);
}

int semTake(zelSemId id, int timeoutTicks) {
    cancellationPoint();
    if (takeAtOnce(id)) return ZEL_OK;
    return result(takeSlowly(id, timeoutTicks));
}

int semGive(zelSemId id) {
    if (giveAtOnce(id)) return ZEL_OK;
    return result(giveSlowly(id));
}

int semFlush(zelSemId id) {
    cancellationPoint();
    return result(flush(id));
}

int semDelete(zelSemId id) {
    cancellationPoint();
    return result(destroy(id));
}

// ---- Display ----

namespace zel::kernel {
namespace {

struct Picture {
    Semaphore block;
    std::uint64_t word;
};

std::optional<Picture> picture(zelSemId id) {
    KernelSection section;
    HeldSemaphore sem = find(id);
    if (!sem) return std::nullopt;
    return Picture{*sem.operator->(), sem.word()};
}

const char *typeName(const Semaphore &block) {
    switch (block.typeAndOptions & 0xf0) {
        case typeMutex:
            return "mutex";
        case typeCounting:
            return "counting";
        default:
            return "binary";
    }
}

}  // namespace
}  // namespace zel::kernel

int semInfo(zelSemId id) {
    const std::optional<Picture> seen = picture(id);
    if (!seen) return fail(ZEL_ERR_INVALID_OBJECT_ID);
    const Semaphore &block = seen->block;
    printf("semId %#jx type %s order %s count %jd waiting %u\n", static_cast<std::uintmax_t>(id), typeName(block),
           block.isPriorityOrder() ? "Prio" : "FIFO",
           static_cast<std::intmax_t>(block.isMutex() ? word::hasToken(seen->word) : word::tokens(seen->word)),
           block.waiterCount);
    if (block.isMutex())
        printf("  options %#x owner serial %ju held %u times, illegal gives %u, last by %p\n",
               block.typeAndOptions & mutexOptions, static_cast<std::uintmax_t>(word::owner(seen->word)),
               word::owner(seen->word) == 0 ? 0 : block.extraHolds + 1, block.illegalGives,
               static_cast<const void *>(block.lastIllegalGiver));
    return ZEL_OK;
}
