// See swp_table.h.
#include "ipc/swp_table.h"

#include <cstdarg>
#include <cstdio>

#include "platform/seam.h"

zelSwpFifoHooks swpFifoQueue[ZEL_SWP_MAX_QUEUES + 1];
uint32_t zelSwp_log_limit = 10;
uint32_t zelSwp_debug = 0;

namespace zel::ipc::swp {
namespace {

PrivateQueue privateQueues[ZEL_SWP_MAX_QUEUES + 1];

bool isInUse(const SharedQueue &shared) {
    return shared.state.load(std::memory_order_acquire) == blockInUse;
}

bool isOurs(const SharedQueue &shared) {
    return shared.owner == platform::thisProcess();
}

}  // namespace

SharedTable *sharedTable() {
    static std::atomic<SharedTable *> attached{nullptr};
    SharedTable *table = attached.load(std::memory_order_acquire);
    if (table == nullptr) {
        table = platform::sysSectionAs<SharedTable>(platform::Section::swpQueues);
        attached.store(table, std::memory_order_release);
    }
    return table;
}

bool isQueueNumber(std::uint32_t queue) {
    return queue >= 1 && queue <= ZEL_SWP_MAX_QUEUES;
}

SharedQueue &sharedQueue(SharedTable &table, std::uint32_t queue) {
    return table.queues[queue - 1];
}

PrivateQueue &privateQueue(std::uint32_t queue) {
    return privateQueues[queue];
}

std::uint32_t newStream(SharedTable &table) {
    // A table that is created anew must not repeat what receivers on other CPUs remember: begin anywhere.
    std::uint32_t none = 0;
    const auto &seam = platform::seam();
    table.lastStream.compare_exchange_strong(none, static_cast<std::uint32_t>(seam.randomBits(seam.context)) | 1);
    for (;;) {
        const std::uint32_t stream = table.lastStream.fetch_add(1) + 1;
        if (stream != 0) return stream;
    }
}

HeldQueue::HeldQueue(std::uint32_t queue, Named named) : number_(queue) {
    SharedTable *table = isQueueNumber(queue) ? sharedTable() : nullptr;
    if (table == nullptr) return;
    SharedQueue &shared = sharedQueue(*table, queue);
    if (!isInUse(shared)) return;
    if (!isOurs(shared)) {
        if (named == Named::byCaller) _zelAssert("pSwpQueue->pid == globalPid", sourceTag, __LINE__);
        return;
    }
    PrivateQueue &own = privateQueue(queue);
    lock_.emplace(own.lock, LockRank::swpQueue, "swp queue");
    // It may have been removed, and even made anew elsewhere, before the lock was ours.
    if (!isInUse(shared) || !isOurs(shared)) {
        lock_.reset();
        return;
    }
    shared_ = &shared;
    own_ = &own;
}

Slot &HeldQueue::slotOf(Sequence sequence) const {
    const std::uint64_t place = own_->headSlot + (sequence - shared_->head);
    const std::uint32_t capacity = shared_->capacity;
    return own_->slots[place < capacity ? place : place - capacity];
}

void reportSystemError(Event event, const char *text, std::uint32_t queue) {
    zelSysErr(0, 0, event, 1, static_cast<intptr_t>(queue), reinterpret_cast<intptr_t>(text));
    zelErrorPrintf(moduleIpc, "%s\r\n", text);
}

void Notice::report(Event event, std::uint32_t queue, const char *format, ...) {
    va_list args;
    va_start(args, format);
    vsnprintf(text_, sizeof text_, format, args);
    va_end(args);
    hasReport_ = true;
    event_ = event;
    queue_ = queue;
}

void Notice::tell(const HeldQueue &queue, void *message, int code) {
    callback_ = queue.own().callback;
    message_ = message;
    code_ = code;
}

void Notice::deliver() const {
    if (hasReport_) reportSystemError(event_, text_, queue_);
    if (callback_ != nullptr) callback_(message_, code_);
}

}  // namespace zel::ipc::swp
