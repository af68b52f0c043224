// Life of a sliding-window queue on the sender's side, once it is created: enqueue, dequeue, flush, remove, tune.
//
// A queue's messages stand in a ring of fixed capacity, in the order of their sequence numbers:
//
//     head ............ acknowledged ............ sent ............ next
//      | waits to be     |  in flight              | waits for the   |
//      | dequeued        |                         | window          |
//
// A message belongs to the queue from a successful zelSwpEnqueue until zelSwpDequeue returns it or the free hook of the
// queue gets it; a refused message never was in the queue and used up no sequence number. The user's routines, the
// callback and the free hook, run with no lock held and may use the queue.
#include "ipc/swp_queue.h"

#include "ipc/swp_send.h"
#include "platform/seam.h"

namespace zel::ipc::swp {
namespace {

// ---- The ring -------------------------------------------------------------------------------------------------------

bool isFull(const HeldQueue &queue) {
    const SharedQueue &shared = queue.shared();
    const bool isOverMemory = shared.maxMemory != 0 && shared.counters.memory >= shared.maxMemory;
    return queue.queued() >= shared.capacity || isOverMemory;
}

// The word that chains a message to the next one: the next one's place in the ring, from 1; 0 at the end.
void setLink(HeldQueue &queue, Sequence sequence, bool hasNext) {
    const Slot &slot = queue.slotOf(sequence);
    const auto place = hasNext ? &queue.slotOf(sequence + 1) - queue.own().slots + 1 : 0;
    SwpHeader::Link::set(swpHeader(slot), static_cast<std::uint32_t>(place));
}

// False when the message is too short to be chained.
bool append(HeldQueue &queue, void *message, std::size_t length) {
    const std::size_t offset = headerOffset(message, length, queue.shared().isIcl != 0);
    if (offset == 0) return false;
    Window &window = queue.window();
    const Sequence sequence = window.next++;
    queue.slotOf(sequence) = {message, static_cast<std::uint32_t>(length), static_cast<std::uint32_t>(offset)};
    stamp(queue, sequence);
    if (sequence != queue.shared().head) setLink(queue, sequence - 1, true);
    return true;
}

void unlinkTail(HeldQueue &queue) {
    Window &window = queue.window();
    --window.next;
    if (window.next != queue.shared().head) setLink(queue, window.next - 1, false);
}

void countMemory(HeldQueue &queue, std::size_t length) {
    Counters &counters = queue.counters();
    counters.memory += length;
    if (counters.memory > counters.peakMemory) counters.peakMemory = counters.memory;
    if (queue.queued() > counters.peakQueued) counters.peakQueued = queue.queued();
}

void tellFull(HeldQueue &queue, void *message, Notice &notice) {
    SharedQueue &shared = queue.shared();
    const std::uint64_t now = platform::now();
    const bool mayReport = shared.lastReport == 0 || secondsLeft(now, shared.lastReport, zelSwp_log_limit) == 0;
    if (mayReport) {
        shared.lastReport = now;
        notice.report(eventQueueFull, queue.number(), "SWP: zelSwpEnqueue");
    }
    notice.tell(queue, message, ZEL_SWP_QUEUE_FULL);
}

int refuseInsertion(HeldQueue &queue, void *message, Notice &notice) {
    notice.report(eventInsert, queue.number(), "zelSwpEnqueue: SWP_FAILURE_FIFO_INSERT error q=%ld src=%s dst=%s",
                  static_cast<long>(queue.number()), queue.shared().sender.name, queue.shared().receiver.name);
    notice.tell(queue, message, ZEL_SWP_INSERT_FAILED);
    return ZEL_SWP_FAILURE;
}

bool fitsWindow(const HeldQueue &queue) {
    const Window &window = queue.window();
    return window.next - window.acknowledged <= queue.shared().windowSize;
}

int enqueue(HeldQueue &queue, void *message, std::size_t length, Notice &notice) {
    if (isFull(queue)) {
        ++queue.counters().drops;
        return ZEL_SWP_QUEUE_FULL;
    }
    if (!append(queue, message, length)) return refuseInsertion(queue, message, notice);
    if (fitsWindow(queue)) {
        const bool isSent = sendWaiting(queue);
        if (!isSent) unlinkTail(queue);
        if (inFlight(queue.window()) > 0) restartTimer(queue);
        if (!isSent) return ZEL_SWP_FAILURE;
    }
    countMemory(queue, length);
    if (isFull(queue)) tellFull(queue, message, notice);
    ++queue.counters().enqueued;
    return ZEL_SWP_SUCCESS;
}

void *popHead(HeldQueue &queue) {
    SharedQueue &shared = queue.shared();
    PrivateQueue &own = queue.own();
    const Slot slot = own.slots[own.headSlot];
    own.slots[own.headSlot] = {};
    own.headSlot = own.headSlot + 1 == shared.capacity ? 0 : own.headSlot + 1;
    ++shared.head;
    shared.counters.memory -= slot.length;
    return slot.message;
}

// ---- Emptying -------------------------------------------------------------------------------------------------------

// Messages taken out of a queue under its lock, given to its free hook afterwards. Walks a ring as the queue left it.
class Discarded {
public:
    void take(std::uint32_t queue, Slot *slots, std::uint32_t capacity, std::uint32_t first, std::uint32_t count) {
        free_ = swpFifoQueue[queue].free;
        slots_ = slots;
        capacity_ = capacity;
        first_ = first;
        count_ = count;
    }
    void release() {
        for (std::uint32_t i = 0; free_ != nullptr && i < count_; ++i) {
            const std::uint64_t place = std::uint64_t{first_} + i;
            free_(slots_[place < capacity_ ? place : place - capacity_].message);
        }
        zelMC_free(sourceTag, __LINE__, slots_);
    }

private:
    void (*free_)(void *) = nullptr;
    Slot *slots_ = nullptr;
    std::uint32_t capacity_ = 0;
    std::uint32_t first_ = 0;
    std::uint32_t count_ = 0;
};

// Empties the queue into `discarded` and leaves it with the ring `slots`.
void empty(HeldQueue &queue, Slot *slots, Discarded &discarded) {
    SharedQueue &shared = queue.shared();
    PrivateQueue &own = queue.own();
    discarded.take(queue.number(), own.slots, shared.capacity, own.headSlot, queue.queued());
    own.slots = slots;
    own.headSlot = 0;
    shared.head = 0;
    shared.window = {};
    shared.counters.memory = 0;
}

std::uint32_t capacityOf(std::uint32_t queue) {
    const HeldQueue held(queue);
    return held ? held.shared().capacity : 0;
}

// Runs `action` on the held queue with a ring as large as its own, which is made before the lock is taken; what the
// action leaves in `discarded` is released after it. Fails when there is no memory or no such queue, or no longer.
template <typename Action>
int withSpareRing(std::uint32_t queue, Action action) {
    const std::uint32_t capacity = capacityOf(queue);
    if (capacity == 0) return ZEL_SWP_FAILURE;
    auto *slots = static_cast<Slot *>(zelMC_calloc(sourceTag, __LINE__, capacity, sizeof(Slot)));
    if (slots == nullptr) return ZEL_SWP_FAILURE;
    Discarded discarded;
    discarded.take(queue, slots, capacity, 0, 0);
    int result = ZEL_SWP_FAILURE;
    if (HeldQueue held(queue); held && held.shared().capacity == capacity) {
        action(held, slots, discarded);
        result = ZEL_SWP_SUCCESS;
    }
    discarded.release();
    return result;
}

// Trims the waiting messages; takes those to be dropped into `dropped`, and returns how many. The others move up.
std::uint32_t trimWaiting(HeldQueue &queue, Trim trim, void *context, Slot *dropped) {
    Window &window = queue.window();
    std::uint32_t count = 0;
    Sequence kept = window.sent;
    for (Sequence sequence = window.sent; sequence < window.next; ++sequence) {
        Slot slot = queue.slotOf(sequence);
        const std::uint32_t length = trim(slot.message, slot.length, context);
        queue.counters().memory -= slot.length - length;
        if (length == 0) {
            dropped[count++] = slot;
            continue;
        }
        slot.length = length;
        queue.slotOf(kept) = slot;
        stamp(queue, kept++);
    }
    window.next = kept;
    for (Sequence sequence = window.sent > queue.shared().head ? window.sent - 1 : window.sent; sequence < kept;
         ++sequence)
        setLink(queue, sequence, sequence + 1 < kept);
    return count;
}

}  // namespace

int trimUnsent(std::uint32_t queue, Trim trim, void *context) {
    return withSpareRing(queue, [&](HeldQueue &held, Slot *dropped, Discarded &discarded) {
        const std::uint32_t count = trimWaiting(held, trim, context, dropped);
        discarded.take(queue, dropped, held.shared().capacity, 0, count);
    });
}

}  // namespace zel::ipc::swp

using namespace zel::ipc::swp;

int zelSwpEnqueue(uint32_t queue, void *message, int length) {
    zel::kernel::cancellationPoint();
    if (message == nullptr || length < 0) return ZEL_SWP_FAILURE;
    Notice notice;
    int result = ZEL_SWP_FAILURE;
    if (HeldQueue held(queue); held) result = enqueue(held, message, static_cast<size_t>(length), notice);
    notice.deliver();
    return result;
}

int zelSwpDequeue(uint32_t queue, void **message) {
    if (message == nullptr) return ZEL_SWP_FAILURE;
    *message = nullptr;
    HeldQueue held(queue);
    if (!held) return ZEL_SWP_FAILURE;
    if (held.shared().head == held.window().acknowledged) return ZEL_SWP_DELETE_FAILED;
    *message = popHead(held);
    return ZEL_SWP_SUCCESS;
}

int zelSwpQueueFlush(uint32_t queue) {
    return withSpareRing(queue, [](HeldQueue &held, Slot *slots, Discarded &discarded) {
        empty(held, slots, discarded);
        held.shared().stream = newStream(*sharedTable());
        held.shared().budget = held.shared().budgetInitial;
    });
}

int zelSwpQueueRemove(uint32_t queue) {
    Discarded discarded;
    {
        HeldQueue held(queue);
        if (!held) return ZEL_SWP_FAILURE;
        PrivateQueue &own = held.own();
        vx2bsdTimerDelete(own.timer);
        own.timer = nullptr;
        own.isTimerArmed = false;
        empty(held, nullptr, discarded);
        swpFifoQueue[queue] = {};
        held.shared().state.store(blockFree, std::memory_order_release);
    }
    discarded.release();
    return ZEL_SWP_SUCCESS;
}

int zelSwpSetMwpQWinSize(uint32_t queue, int window) {
    if (window <= 0) return ZEL_SWP_FAILURE;
    HeldQueue held(queue);
    if (!held) return ZEL_SWP_FAILURE;
    held.shared().windowSize = static_cast<uint32_t>(window);
    sendWaiting(held);
    if (inFlight(held.window()) > 0) restartTimer(held);
    return ZEL_SWP_SUCCESS;
}

int zelSwpSetMaxMemoryAllowed(uint32_t queue, uint32_t bytes) {
    HeldQueue held(queue);
    if (!held) return ZEL_SWP_FAILURE;
    held.shared().maxMemory = bytes;
    return ZEL_SWP_SUCCESS;
}
