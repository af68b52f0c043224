// Message queues: messages of limited length, copied in and out of one ring of slots, oldest first; urgent ones go to
// the head.
//
// Control blocks stand in one static table and keep their lock for ever, so a queue id, which is the block's address,
// is judged without a list lock and without touching memory that is not ours: an address inside the table, on a block's
// boundary, of a block that is in use. The list of queues exists for display alone.
//
// Waiting. A task joins the senders' or receivers' wait list only when it has to wait; a queue with room is filled, and
// a message taken, by whoever comes first. The first message in an empty queue, and the first room in a full one, wakes
// the task whose turn it is (in priority order all of them); whoever leaves a wait list while others could go on wakes
// the next, also when it ran out of time or was cancelled. So a wake-up costs a system call only when somebody sleeps.
//
// A queue of no messages passes one message at a time from a sender to a receiver that already waits; a receiver that
// comes to wait there wakes the senders.
//
// Deletion marks the queue, sends every waiter away and waits until the last has left; the last to leave a dying queue
// frees it, which is the deleter unless the deleter was itself cancelled.
#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <optional>
#include <utility>

#include "kernel/task.h"
#include "platform/quick_mutex.h"
#include "platform/seam.h"

using zel::kernel::WaitList;

// A message's length stands in front of its bytes, unaligned.
using MessageLength = std::uint32_t;

// `gone`: the last task has left and is about to free the queue.
enum class QueueState : std::uint8_t { free, live, dying, gone };
enum class LastSend : std::uint8_t { normal = ZEL_MSG_NORMAL, urgent = ZEL_MSG_URGENT };

struct alignas(256) zelMsgQ {
    zel::platform::QuickMutex lock;  // guards every field below down to the list's
    char *head;                      // slot of the oldest message
    char *tail;                      // slot where the next normal message goes
    char *start;
    char *last;
    WaitList receivers;
    WaitList senders;
    WaitList drainers;
    std::uint32_t count;
    std::uint32_t maxMessages;
    std::uint32_t maxLength;
    std::size_t slotBytes;
    bool isPriorityOrder;
    QueueState state;
    LastSend lastSend;
    std::atomic<bool> wasUsed;  // the lock is initialised; written under listLock
    zelMsgQ *next;              // guarded by listLock
};

namespace zel::kernel {
namespace {

using Queue = zelMsgQ;

constexpr std::size_t mostQueues = 8192;
constexpr std::uint64_t largestRing = std::min<std::uint64_t>(PTRDIFF_MAX, std::uint64_t{1} << 39);
constexpr char lockText[] = "&(queue->queue_lock)";

Queue queues[mostQueues];
Mutex listLock{LockRank::objectList, "&mqueue_list_lock"};
Queue *queueList = nullptr;      // in order of creation
std::size_t queuesEverUsed = 0;  // blocks behind this one were never used
Queue *freeBlocks = nullptr;     // oldest first, so that an address comes back late
Queue **freeBlocksEnd = &freeBlocks;

void append(Queue *&list, Queue &queue) {
    Queue **end = &list;
    while (*end != nullptr) end = &(*end)->next;
    queue.next = nullptr;
    *end = &queue;
}

void unlink(Queue *&list, const Queue &queue) {
    Queue **link = &list;
    while (*link != &queue) link = &(*link)->next;
    *link = queue.next;
}

// Guards a queue's lock. The caller is in a kernel section, so it is not stopped inside.
class QueueLock {
public:
    QueueLock() = default;
    explicit QueueLock(Queue &queue) { take(queue); }
    QueueLock(const QueueLock &) = delete;
    QueueLock &operator=(const QueueLock &) = delete;
    ~QueueLock() {
        if (isHeld_) unlock();
    }
    void take(Queue &queue) {
        lock_ = &queue.lock;
        lock();
    }
    void lock() {
        lock_->lock();
        noteLockTaken(LockRank::object, lockText);
        isHeld_ = true;
    }
    void unlock() {
        isHeld_ = false;
        noteLockReleased(LockRank::object);
        lock_->unlock();
    }

private:
    platform::QuickMutex *lock_ = nullptr;
    bool isHeld_ = false;
};

// Any address may be asked for: only those of blocks are looked at.
bool isBlock(const Queue *queue) {
    const auto offset = reinterpret_cast<std::uintptr_t>(queue) - reinterpret_cast<std::uintptr_t>(queues);
    return offset < sizeof queues && offset % sizeof(Queue) == 0;
}

// A queue in use whose lock the caller holds, or nothing.
class HeldQueue {
public:
    explicit HeldQueue(zelMsgQId id) {
        if (!isBlock(id) || !id->wasUsed.load(std::memory_order_acquire)) return;
        lock_.take(*id);
        if (id->state == QueueState::live || id->state == QueueState::dying) queue_ = id;
    }
    HeldQueue(const HeldQueue &) = delete;
    HeldQueue &operator=(const HeldQueue &) = delete;
    ~HeldQueue() {
        if (queue_ != nullptr) letGo();
    }

    explicit operator bool() const { return queue_ != nullptr; }
    Queue *operator->() const { return queue_; }
    Queue &operator*() const { return *queue_; }
    QueueLock &lock() { return lock_; }

    // Let the task go on whose turn it is.
    void wakeReceiver() { wakeNext(queue_->receivers); }
    void wakeSender() { wakeNext(queue_->senders); }
    // Wakes whoever can go on now.
    void passOn();

private:
    void letGo();
    void wakeNext(const WaitList &list);

    Queue *queue_ = nullptr;
    Unparking unparking_;  // before the lock: wakes when that is released
    QueueLock lock_;
};

// Why a queue that was asked for takes no calls: an error number, or 0.
inline int refusalBy(const HeldQueue &queue) {
    if (!queue) return ZEL_ERR_INVALID_OBJECT_ID;
    return queue->state == QueueState::live ? 0 : ZEL_ERR_OBJECT_DELETED;
}

// Frees a queue that everybody has left.
void retire(Queue &queue) {
    char *buffer;
    {
        Lock list(listLock);
        QueueLock lock(queue);
        unlink(queueList, queue);
        queue.state = QueueState::free;
        buffer = std::exchange(queue.start, nullptr);
        queue.next = nullptr;
        *freeBlocksEnd = &queue;
        freeBlocksEnd = &queue.next;
    }
    release(buffer);
}

inline void HeldQueue::letGo() {
    if (queue_->state == QueueState::live) [[likely]]
        return;
    const bool isOver = queue_->state == QueueState::dying && queue_->receivers.isEmpty() &&
                        queue_->senders.isEmpty() && queue_->drainers.isEmpty();
    if (!isOver) return;
    queue_->state = QueueState::gone;
    lock_.unlock();
    retire(*queue_);
}

// ---- Creation ----

Queue *takeBlock() {
    if (freeBlocks == nullptr) return queuesEverUsed < mostQueues ? &queues[queuesEverUsed++] : nullptr;
    Queue *block = freeBlocks;
    freeBlocks = block->next;
    if (freeBlocks == nullptr) freeBlocksEnd = &freeBlocks;
    return block;
}

void setUp(Queue &queue, char *buffer, int maxMessages, int maxLength, int options) {
    queue.maxMessages = static_cast<std::uint32_t>(maxMessages);
    queue.maxLength = static_cast<std::uint32_t>(maxLength);
    queue.slotBytes = queue.maxLength + sizeof(MessageLength);
    queue.head = queue.tail = queue.start = buffer;
    queue.last = buffer + queue.slotBytes * queue.maxMessages;
    queue.count = 0;
    queue.isPriorityOrder = (options & ZEL_MSGQ_PRIORITY) != 0;
    queue.lastSend = LastSend::normal;
    queue.state = QueueState::live;
}

Queue *publish(char *buffer, int maxMessages, int maxLength, int options) {
    Lock list(listLock);
    Queue *queue = takeBlock();
    if (queue == nullptr) return nullptr;
    if (!queue->wasUsed) queue->lock.init(lockText);
    queue->wasUsed.store(true, std::memory_order_release);
    QueueLock lock(*queue);
    setUp(*queue, buffer, maxMessages, maxLength, options);
    append(queueList, *queue);
    return queue;
}

// Bytes of the ring: one slot more than messages. Nothing when no host could hold them.
std::optional<std::size_t> ringBytes(int maxMessages, int maxLength) {
    if (maxMessages < 0 || maxLength < 0) return std::nullopt;
    std::size_t bytes;
    const auto slots = static_cast<std::size_t>(maxMessages) + 1;
    if (__builtin_mul_overflow(slots, static_cast<std::size_t>(maxLength) + sizeof(MessageLength), &bytes))
        return std::nullopt;
    return bytes <= largestRing ? std::optional(bytes) : std::nullopt;
}

Queue *create(int maxMessages, int maxLength, int options) {
    KernelSection section;
    const std::optional<std::size_t> bytes = ringBytes(maxMessages, maxLength);
    char *buffer = bytes ? static_cast<char *>(allocate(*bytes)) : nullptr;
    if (buffer == nullptr) return nullptr;
    Queue *queue = publish(buffer, maxMessages, maxLength, options);
    if (queue == nullptr) release(buffer);
    return queue;
}

// ---- The ring ----

char *slotAfter(const Queue &queue, char *slot) {
    return slot == queue.last ? queue.start : slot + queue.slotBytes;
}

char *slotBefore(const Queue &queue, char *slot) {
    return slot == queue.start ? queue.last : slot - queue.slotBytes;
}

void put(Queue &queue, const char *bytes, MessageLength length, bool isUrgent) {
    char *slot = queue.tail;
    if (isUrgent)
        slot = queue.head = slotBefore(queue, queue.head);
    else
        queue.tail = slotAfter(queue, queue.tail);
    memcpy(slot, &length, sizeof length);
    if (length != 0) memcpy(slot + sizeof length, bytes, length);
    queue.lastSend = isUrgent ? LastSend::urgent : LastSend::normal;
    ++queue.count;
}

MessageLength get(Queue &queue, char *bytes) {
    MessageLength length;
    memcpy(&length, queue.head, sizeof length);
    if (length != 0) memcpy(bytes, queue.head + sizeof length, length);
    queue.head = slotAfter(queue, queue.head);
    --queue.count;
    return length;
}

bool hasRoom(const Queue &queue) {
    if (queue.maxMessages == 0) return !queue.receivers.isEmpty() && queue.count == 0;
    return queue.count < queue.maxMessages;
}

bool hasMessage(const Queue &queue) {
    return queue.count != 0;
}

// ---- Waiting ----

void HeldQueue::wakeNext(const WaitList &list) {
    if (list.isEmpty()) return;
    const bool isAlone = list.head->nextWaiter == nullptr;
    if (queue_->isPriorityOrder && !isAlone)
        unparkAll(list);
    else
        unparking_.mark(*list.head);
}

void HeldQueue::passOn() {
    if (hasMessage(*queue_)) wakeReceiver();
    if (hasRoom(*queue_)) wakeSender();
}

// The caller's stay on one of the wait lists. Leaving settles what others wait for, also when a cancelled task unwinds.
class Waiting {
public:
    Waiting(HeldQueue &queue, WaitList &list, Tcb &task) : queue_(queue), list_(list), task_(task) {
        joinWaitList(list, task);
    }
    Waiting(const Waiting &) = delete;
    Waiting &operator=(const Waiting &) = delete;
    ~Waiting() {
        leaveWaitList(list_, task_);
        if (queue_->state == QueueState::dying)
            unparkAll(queue_->drainers);
        else
            queue_.passOn();
    }

private:
    HeldQueue &queue_;
    WaitList &list_;
    Tcb &task_;
};

// Waits until `isReady` holds and it is the caller's turn, then does `act`; 0 or an error number.
template <class Condition, class Action>
int waitAndDo(HeldQueue &queue, WaitList &list, int ticks, Condition isReady, Action act) {
    if (ticks == ZEL_NO_WAIT) return ZEL_ERR_OBJECT_UNAVAILABLE;
    const std::uint64_t deadline = ticks == WAIT_FOREVER ? platform::forever : platform::deadlineAfterTicks(ticks);
    bool isOutOfTime = ticks < WAIT_FOREVER;
    Tcb &task = currentTask();
    Waiting stay(queue, list, task);
    // At once: what HeldQueue wakes, it wakes when the lock is let go for good.
    if (hasRoom(*queue)) unparkAll(queue->senders);
    for (;;) {
        if (queue->state == QueueState::dying) return ZEL_ERR_OBJECT_DELETED;
        if (isReady(*queue) && isTurnOf(list, task, queue->isPriorityOrder)) break;
        if (isOutOfTime) return ZEL_ERR_TIMEOUT;
        isOutOfTime = park(queue.lock(), deadline) == Parked::timedOut;
    }
    act();
    return 0;
}

int send(zelMsgQId id, const char *bytes, std::uint32_t length, int ticks, bool isUrgent) {
    KernelSection section;
    HeldQueue queue(id);
    if (const int error = refusalBy(queue); error != 0) return error;
    if (length > queue->maxLength) return ZEL_ERR_INVALID_MSG_LENGTH;
    const auto act = [&] {
        put(*queue, bytes, length, isUrgent);
        if (queue->count == 1) queue.wakeReceiver();
    };
    if (!hasRoom(*queue)) return waitAndDo(queue, queue->senders, ticks, hasRoom, act);
    act();
    return 0;
}

int receive(zelMsgQId id, char *bytes, std::uint32_t size, int ticks, MessageLength &length) {
    KernelSection section;
    HeldQueue queue(id);
    if (const int error = refusalBy(queue); error != 0) return error;
    if (size < queue->maxLength) return ZEL_ERR_INVALID_MSG_LENGTH;
    const auto act = [&] {
        length = get(*queue, bytes);
        if (queue->count + 1 >= queue->maxMessages && hasRoom(*queue)) queue.wakeSender();
    };
    if (!hasMessage(*queue)) return waitAndDo(queue, queue->receivers, ticks, hasMessage, act);
    act();
    return 0;
}

// ---- Deletion ----

// The deleter's wait for the others to leave.
class Draining {
public:
    Draining(HeldQueue &queue, Tcb &task) : queue_(queue), task_(task) { joinWaitList(queue->drainers, task); }
    Draining(const Draining &) = delete;
    Draining &operator=(const Draining &) = delete;
    ~Draining() { leaveWaitList(queue_->drainers, task_); }

private:
    HeldQueue &queue_;
    Tcb &task_;
};

int destroy(zelMsgQId id) {
    KernelSection section;
    HeldQueue queue(id);
    if (const int error = refusalBy(queue); error != 0) return error;
    queue->state = QueueState::dying;
    unparkAll(queue->receivers);
    unparkAll(queue->senders);
    Draining stay(queue, currentTask());
    while (!queue->receivers.isEmpty() || !queue->senders.isEmpty()) park(queue.lock(), platform::forever);
    return 0;
}

int result(int error) {
    return error == 0 ? ZEL_OK : fail(error);
}

// ---- Display ----

struct Picture {
    const Queue *queue;
    std::uint32_t count;
    bool isPriorityOrder;
    const char *lastSend;
};

const char *lastSendName(const Queue &queue) {
    if (queue.state == QueueState::dying) return "KIL";
    return queue.lastSend == LastSend::urgent ? "URG" : "SND";
}

std::size_t numberOfQueues() {
    KernelSection section;
    Lock list(listLock);
    std::size_t number = 0;
    for (const Queue *queue = queueList; queue != nullptr; queue = queue->next) ++number;
    return number;
}

// Pictures of the first `most` queues; how many were taken.
std::size_t takePictures(Picture *pictures, std::size_t most) {
    KernelSection section;
    Lock list(listLock);
    std::size_t number = 0;
    for (Queue *queue = queueList; queue != nullptr && number < most; queue = queue->next) {
        QueueLock lock(*queue);
        pictures[number++] = {queue, queue->count, queue->isPriorityOrder, lastSendName(*queue)};
    }
    return number;
}

void print(const Picture &picture) {
    printf("msgQid %p count %5d %4s order %3s last send\n", static_cast<const void *>(picture.queue),
           static_cast<int>(picture.count), picture.isPriorityOrder ? "Prio" : "FIFO", picture.lastSend);
}

}  // namespace
}  // namespace zel::kernel

using namespace zel::kernel;

zelMsgQId msgQCreate(int maxMsgs, int maxMsgLength, int options) {
    Queue *queue = create(maxMsgs, maxMsgLength, options);
    if (queue == nullptr) fail(ZEL_ERR_NOT_ENOUGH_MEMORY);
    return queue;
}

int msgQDelete(zelMsgQId queue) {
    cancellationPoint();
    return result(destroy(queue));
}

int msgQSend(zelMsgQId queue, const char *buffer, uint32_t nBytes, int timeoutTicks, int priority) {
    cancellationPoint();
    return result(send(queue, buffer, nBytes, timeoutTicks, priority == ZEL_MSG_URGENT));
}

int msgQReceive(zelMsgQId queue, char *buffer, uint32_t maxNBytes, int timeoutTicks) {
    cancellationPoint();
    MessageLength length = 0;
    const int error = receive(queue, buffer, maxNBytes, timeoutTicks, length);
    return error == 0 ? static_cast<int>(length) : fail(error);
}

static int countMessages(zelMsgQId id, int &number) {
    KernelSection section;
    HeldQueue queue(id);
    if (const int error = refusalBy(queue); error != 0) return error;
    number = static_cast<int>(queue->count);
    return 0;
}

int msgQNumMsgs(zelMsgQId queue) {
    int number = 0;
    const int error = countMessages(queue, number);
    return error == 0 ? number : fail(error);
}

int msgQInfo(void) {
    const std::size_t room = numberOfQueues();
    if (room == 0) {
        printf(" -- no message queues currently allocated --");
        return ZEL_OK;
    }
    auto *pictures = static_cast<Picture *>(allocate(room * sizeof(Picture)));
    if (pictures == nullptr) return fail(ZEL_ERR_NOT_ENOUGH_MEMORY);
    const std::size_t number = takePictures(pictures, room);
    for (std::size_t i = 0; i < number; ++i) print(pictures[i]);
    release(pictures);
    return ZEL_OK;
}
