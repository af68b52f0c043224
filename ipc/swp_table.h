// The queue table: scalars in shared memory, so that every process of the CPU can show all queues and a dead owner's
// are found; pointers, callback, timer and lock in a parallel table of this process.
//
// A block's state is one word: free, reserved by a creator that still looks up its peer, in use. Blocks are reserved
// and published under shared lock 2 and freed by one store. Everything else in a block belongs to the process that
// created the queue and is guarded there by the queue's own lock; other processes only look.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <optional>

#include "base/lock.h"
#include "ipc/swp_core.h"
#include "kernel/uninterrupted.h"
#include "platform/process.h"
#include "platform/segment.h"
#include "zel/ipc.h"
#include "zel/kernel.h"

namespace zel::ipc::swp {

constexpr std::uint32_t moduleIpc = 5;
constexpr const char *sourceTag = "zelFlowControl";
constexpr int tableLock = 2;  // shared lock around reserving and publishing a block

enum BlockState : std::uint32_t { blockFree = 0, blockReserved = 1, blockInUse = 2 };

struct Counters {
    std::uint64_t enqueued;
    std::uint64_t sent;  // first transmissions
    std::uint64_t retransmitted;
    std::uint64_t passes;  // retransmissions by the timer
    std::uint64_t fastResends;
    std::uint64_t acknowledged;
    std::uint64_t drops;
    std::uint64_t refusedAcks;
    std::uint64_t failedSends;
    std::uint64_t memory;
    std::uint64_t peakMemory;
    std::uint32_t peakQueued;
    std::uint32_t largestPass;
};

struct End {
    std::int32_t service;
    std::int32_t instance;
    std::uint32_t address;
    std::uint32_t requestQueue;
    std::uint32_t timerQueue;
    char name[32];  // service name and instance
};

struct SharedQueue {
    std::atomic<std::uint32_t> state;
    platform::ProcessId owner;
    std::uint32_t ownerTask;
    End sender;
    End receiver;
    std::uint32_t isIcl;
    std::uint32_t usesTimerQueue;
    std::uint32_t capacity;
    std::uint32_t windowSize;
    std::uint32_t timeOutSec;
    std::uint32_t budget;
    std::uint32_t budgetInitial;
    std::uint32_t stream;
    Sequence head;  // oldest in the queue: acknowledged and not yet dequeued, or window.acknowledged
    Window window;
    Counters counters;
    std::uint64_t maxMemory;
    std::uint64_t lastReport;  // monotonic time of the last report that the queue is full, 0 = none
};

struct SharedTable {
    std::atomic<std::uint32_t> lastStream;
    std::atomic<std::uint32_t> failedCreations;
    alignas(64) SharedQueue queues[ZEL_SWP_MAX_QUEUES];
};
static_assert(sizeof(SharedQueue) <= 640);
static_assert(sizeof(SharedTable) <= platform::sectionBytes[static_cast<std::size_t>(platform::Section::swpQueues)]);

struct Slot {
    void *message;
    std::uint32_t length;
    std::uint32_t headerOffset;  // of the sliding-window header
};

struct PrivateQueue {
    pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
    Slot *slots = nullptr;  // capacity entries; the head's is headSlot
    std::uint32_t headSlot = 0;
    zelSwpUserCb callback = nullptr;
    void (*timeOutRoutine)(std::uint32_t queue) = nullptr;
    zelIntervalTimerId timer = nullptr;
    bool isTimerArmed = false;
    std::uint64_t lastRestart = 0;
    std::uint32_t lostStream = 0;  // the stream whose receiver the user was told to be lost
};

// Null when shared memory cannot be had.
SharedTable *sharedTable();
bool isQueueNumber(std::uint32_t queue);
SharedQueue &sharedQueue(SharedTable &table, std::uint32_t queue);
PrivateQueue &privateQueue(std::uint32_t queue);
// A number that no stream of this CPU had lately; never 0.
std::uint32_t newStream(SharedTable &table);

// Who named a queue: a caller of this process, whose mistake is reported, or a datagram or timer.
enum class Named { byCaller, byMessage };

// A queue of this process with its lock held, or nothing: no such queue, or another process's. Only one may be held at
// a time. A task that is suspended or deleted meanwhile stops when it lets go, so that no queue is left half changed.
class HeldQueue {
public:
    explicit HeldQueue(std::uint32_t queue, Named named = Named::byCaller);
    HeldQueue(const HeldQueue &) = delete;
    HeldQueue &operator=(const HeldQueue &) = delete;
    explicit operator bool() const { return own_ != nullptr; }

    std::uint32_t number() const { return number_; }
    SharedQueue &shared() const { return *shared_; }
    PrivateQueue &own() const { return *own_; }
    Window &window() const { return shared_->window; }
    Counters &counters() const { return shared_->counters; }
    std::uint32_t queued() const { return static_cast<std::uint32_t>(window().next - shared_->head); }
    Slot &slotOf(Sequence sequence) const;

private:
    kernel::Uninterrupted uninterrupted_;
    std::optional<Lock> lock_;
    std::uint32_t number_;
    SharedQueue *shared_ = nullptr;
    PrivateQueue *own_ = nullptr;
};

// System errors of the sliding-window queues.
enum Event : std::uint32_t {
    eventTableFull = 0x8010,
    eventTimer = 0x8011,
    eventInsert = 0x8012,
    eventQueueFull = 0x8013,
    eventNoRetransmissions = 0x8014,
    eventListMemory = 0x8015,
};
// Behind the one word that counts, the queue, a reporter of the host's own finds the text; it lasts as long as the
// call.
void reportSystemError(Event event, const char *text, std::uint32_t queue = 0);

// What is said once the queue's lock is released: a system error, and a call of the user's routine.
class Notice {
public:
    void report(Event event, std::uint32_t queue, const char *format, ...) __attribute__((format(printf, 4, 5)));
    void tell(const HeldQueue &queue, void *message, int code);
    // The last statement that touches a queue: the routine may flush or remove it.
    void deliver() const;

private:
    bool hasReport_ = false;
    Event event_{};
    std::uint32_t queue_ = 0;
    zelSwpUserCb callback_ = nullptr;
    void *message_ = nullptr;
    int code_ = 0;
    char text_[160];
};

}  // namespace zel::ipc::swp
