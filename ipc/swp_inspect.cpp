// Looking at queues: result texts, status, lengths, prints. Any process may look at any queue of its CPU. The owner's
// own threads see a queue at rest, under its lock; other processes see words that may be of slightly different moments.
#include <cstdio>
#include <cstring>
#include <iterator>

#include "ipc/swp_ack.h"
#include "ipc/swp_send.h"
#include "ipc/swp_table.h"

namespace zel::ipc::swp {
namespace {

constexpr const char *resultTexts[] = {
    "SWP success",
    "Sequence number matched",
    "Sequence number is one less than expected",
    "Sequence number error",
    "SWP failure",
    "SWP failure - acknowledgement",
    "SWP failure - sequence number",
    "SWP failure - queue is full",
    "SWP failure - timer expiration",
    "SWP failure - no more retransmissions",
    "SWP failure - zelSwpIpcSend failed at sender",
    "SWP failure - zelSwpIpcSend failed at receiver",
    "SWP failure - timer reset",
    "SWP failure - timer cancellation",
    "SWP failure - queue insertion",
    "SWP failure - queue deletion",
    "SWP failure - no more timeouts",
};
static_assert(std::size(resultTexts) == ZEL_SWP_NO_TIMEOUTS + 1);

zelSwpSeq asPair(Sequence value) {
    return {highHalf(value), lowHalf(value)};
}

void fill(const SharedQueue &shared, zelSwpStatus &status) {
    const Counters &counters = shared.counters;
    status = {};
    status.inUse = 1;
    status.pid = shared.owner.pid;
    status.window = shared.windowSize;
    status.capacity = shared.capacity;
    status.queued = static_cast<uint32_t>(shared.window.next - shared.head);
    status.inFlight = static_cast<uint32_t>(inFlight(shared.window));
    status.head = asPair(shared.window.acknowledged);
    status.next = asPair(shared.window.next);
    status.stream = shared.stream;
    status.peakQueued = counters.peakQueued;
    status.enqueued = counters.enqueued;
    status.sent = counters.sent;
    status.retransmitted = counters.retransmitted;
    status.retransmissionPasses = counters.passes;
    status.fastResends = counters.fastResends;
    status.largestPass = counters.largestPass;
    status.acknowledged = counters.acknowledged;
    status.drops = counters.drops;
    status.refusedAcks = counters.refusedAcks;
    status.failedSends = counters.failedSends;
    status.memory = counters.memory;
    status.peakMemory = counters.peakMemory;
    status.maxMemory = shared.maxMemory;
    status.budget = shared.budget;
    status.budgetInitial = shared.budgetInitial;
    memcpy(status.senderName, shared.sender.name, sizeof status.senderName);
    memcpy(status.receiverName, shared.receiver.name, sizeof status.receiverName);
}

bool isInUse(const SharedQueue &shared) {
    return shared.state.load(std::memory_order_acquire) == blockInUse;
}

// The queue's block, whoever owns it; null when the number names none.
SharedQueue *blockInUseOf(std::uint32_t queue) {
    SharedTable *table = isQueueNumber(queue) ? sharedTable() : nullptr;
    if (table == nullptr || !isInUse(sharedQueue(*table, queue))) return nullptr;
    return &sharedQueue(*table, queue);
}

// A queue of another process is read as it stands; one of this process under its lock.
bool look(std::uint32_t queue, zelSwpStatus &status) {
    const SharedQueue *shared = blockInUseOf(queue);
    if (shared == nullptr) return false;
    const HeldQueue held(queue, Named::byMessage);
    if (!isInUse(*shared)) return false;
    fill(*shared, status);
    return true;
}

void print(std::uint32_t queue, const zelSwpStatus &s) {
    printf("queue %u: %.31s -> %.31s pid %ld stream %u\n", queue, s.senderName, s.receiverName,
           static_cast<long>(s.pid), s.stream);
    printf("  queued %u of %u (peak %u), in flight %u, window %u, head %u.%u, next %u.%u\n", s.queued, s.capacity,
           s.peakQueued, s.inFlight, s.window, s.head.high, s.head.low, s.next.high, s.next.low);
    printf("  memory %llu (peak %llu, limit %llu), retransmissions left %u of %u\n",
           static_cast<unsigned long long>(s.memory), static_cast<unsigned long long>(s.peakMemory),
           static_cast<unsigned long long>(s.maxMemory), s.budget, s.budgetInitial);
    printf(
        "  enqueued %llu, sent %llu, acknowledged %llu, retransmitted %llu in %llu passes (largest %u) and %llu fast "
        "resends\n",
        static_cast<unsigned long long>(s.enqueued), static_cast<unsigned long long>(s.sent),
        static_cast<unsigned long long>(s.acknowledged), static_cast<unsigned long long>(s.retransmitted),
        static_cast<unsigned long long>(s.retransmissionPasses), s.largestPass,
        static_cast<unsigned long long>(s.fastResends));
    printf("  dropped %llu, acknowledgements refused %llu, sends failed %llu\n",
           static_cast<unsigned long long>(s.drops), static_cast<unsigned long long>(s.refusedAcks),
           static_cast<unsigned long long>(s.failedSends));
}

}  // namespace
}  // namespace zel::ipc::swp

using namespace zel::ipc::swp;

const char *zelSwpGetErr(int code) {
    return code >= 0 && code < static_cast<int>(std::size(resultTexts)) ? resultTexts[code] : nullptr;
}

int zelSwpGetQueueStatus(uint32_t queue, zelSwpStatus *status) {
    if (status == nullptr) return ZEL_SWP_FAILURE;
    return look(queue, *status) ? ZEL_SWP_SUCCESS : ZEL_SWP_FAILURE;
}

int zelSwpQueueGetLen(uint32_t queue) {
    if (const HeldQueue held(queue, Named::byMessage); held) return static_cast<int>(held.queued());
    zelSwpStatus status;
    return look(queue, status) ? static_cast<int>(status.queued) : ZEL_ERROR;
}

int zelSwpGetMwpQWinSize(uint32_t queue) {
    zelSwpStatus status;
    return look(queue, status) ? static_cast<int>(status.window) : ZEL_ERROR;
}

int zelSwpIsQueueAlive(uint32_t queue) {
    const SharedQueue *shared = blockInUseOf(queue);
    return shared != nullptr && zel::platform::isAlive(shared->owner) ? 1 : 0;
}

void zelSwpPrintq(uint32_t queue) {
    zelSwpStatus status;
    if (look(queue, status))
        print(queue, status);
    else
        printf("queue %u: not in use\n", queue);
}

void zelSwpPrintAllq(void) {
    for (uint32_t queue = 1; queue <= ZEL_SWP_MAX_QUEUES; ++queue) {
        zelSwpStatus status;
        if (look(queue, status)) print(queue, status);
    }
    const SharedTable *table = sharedTable();
    if (table == nullptr) return;
    printf("creations refused for want of a queue: %u; seen here: duplicates %llu, gaps %llu\n",
           table->failedCreations.load(), static_cast<unsigned long long>(duplicateCount()),
           static_cast<unsigned long long>(gapCount()));
    printf("inter-chassis link of this process: %s, interface %u\n", icl_isLinkUp() ? "up" : "down", iclInterface());
}
