// The sending side of guaranteed delivery: up to three attempts of one second each, and what is kept of each target.
//
// The sender waits on its response queue, under its turn there, so it takes nobody's acknowledgement; whatever else
// comes in meanwhile is lost. Records of targets are never removed, and there is room for 1,024.
#include <array>
#include <atomic>
#include <cerrno>
#include <cstring>

#include "ipc/guaranteed.h"
#include "ipc/ipc_header.h"
#include "ipc/ipc_receive.h"
#include "ipc/ipc_send.h"
#include "ipc/ipc_transport.h"
#include "ipc/response_turn.h"
#include "kernel/task.h"

namespace zel::ipc {
namespace {

// The counters of one target, byte by byte.
struct TargetRecord {
    using Acknowledged = wire::Field<std::uint32_t, 0>;
    using SecondAttempts = wire::Field<std::uint32_t, 4>;
    using ThirdAttempts = wire::Field<std::uint32_t, 8>;
    using Failed = wire::Field<std::uint32_t, 12>;
    using AverageMilliseconds = wire::Field<std::uint32_t, 16>;
    using NextSequence = wire::Field<std::uint16_t, 20>;
    using Flags = wire::Field<std::uint8_t, 22>;
    static constexpr std::size_t size = 23;
    static constexpr std::uint8_t firstSend = 0x40;
};
static_assert(TargetRecord::Flags::end == TargetRecord::size);

struct Target {
    std::uint8_t record[TargetRecord::size];
    std::uint32_t sender;  // key without queue type
    std::uint32_t queueId;
    std::uint32_t address;
};

constexpr std::size_t maxTargets = 1024;
constexpr std::size_t longestAck = 1500;
constexpr int maxDrained = 100;

std::atomic<int> isEnabled{0};

// Guarded by guaranteedLock; a record's bytes belong to whoever has the sender's turn.
std::array<Target, maxTargets> targets;
std::size_t targetCount = 0;

constexpr std::uint32_t anyAddress = 0;

Target *findTarget(std::uint32_t key, std::uint32_t queueId, std::uint32_t address) {
    for (std::size_t i = 0; i < targetCount; ++i) {
        Target &target = targets[i];
        if (target.sender == taskOf(key) && target.queueId == queueId &&
            (address == anyAddress || target.address == address))
            return &target;
    }
    return nullptr;
}

std::uint8_t *addTarget(std::uint32_t key, std::uint32_t queueId, std::uint32_t address) {
    if (targetCount == maxTargets) return nullptr;
    targets[targetCount] = {{}, taskOf(key), queueId, address};
    return targets[targetCount++].record;
}

std::uint8_t *targetRecord(std::uint32_t key, std::uint32_t queueId, std::uint32_t address) {
    Lock lock(guaranteedLock);
    Target *known = findTarget(key, queueId, address);
    return known ? known->record : addTarget(key, queueId, address);
}

template <class Counter>
void increment(std::uint8_t *record) {
    Counter::set(record, static_cast<typename Counter::Type>(Counter::get(record) + 1));
}

// One guaranteed message on its way.
struct Delivery {
    Endpoint &endpoint;
    const std::uint8_t *message;
    std::size_t length;
    std::uint8_t expectedAck;

    const char *peer() const { return nameOfQueue(IpcHeader::TargetQueue::get(message)); }
    const char *command() const { return zelIpcGetCmdTypeName(IpcHeader::CommandType::get(message)); }
    int type() const { return static_cast<int>(IpcHeader::MessageType::get(message)); }
    int packetType() const { return static_cast<int>(IpcHeader::PacketType::get(message)); }
    int sequence() const { return IpcHeader::Sequence::get(message); }
};

// Stamps the header; the acknowledgement to expect.
std::uint8_t stampGuaranteed(void *message, std::uint8_t *record) {
    const std::uint16_t sequence = TargetRecord::NextSequence::get(record);
    std::uint8_t flags = TargetRecord::Flags::get(record);
    if (sequence == 0) TargetRecord::Flags::set(record, flags |= TargetRecord::firstSend);
    const bool isFirst = (flags & TargetRecord::firstSend) != 0;
    IpcHeader::Magic::set(message, IpcHeader::magic);
    IpcHeader::AckFlag::set(message, 0);
    IpcHeader::Sequence::set(message, sequence);
    IpcHeader::CommandType::set(message, isFirst ? ZEL_IPC_GSEND_FIRST : ZEL_IPC_GSEND);
    return isFirst ? ZEL_IPC_GACK_FIRST : ZEL_IPC_GACK;
}

bool isFromTarget(const void *ack, const void *message) {
    return taskOf(IpcHeader::SourceQueue::get(ack)) == taskOf(IpcHeader::TargetQueue::get(message)) &&
           IpcHeader::SourceAddress::get(ack) == IpcHeader::TargetAddress::get(message);
}

bool isAcknowledgement(const Delivery &delivery, const void *datagram, std::size_t length) {
    return formOf(datagram, length) == Form::message && IpcHeader::CommandType::get(datagram) == delivery.expectedAck &&
           IpcHeader::MessageType::get(datagram) == IpcHeader::MessageType::get(delivery.message) &&
           IpcHeader::Sequence::get(datagram) == IpcHeader::Sequence::get(delivery.message) &&
           isFromTarget(datagram, delivery.message);
}

bool sendOnce(const Delivery &delivery) {
    if (sendMessage(delivery.endpoint.queues[requestQueue], delivery.message, delivery.length,
                    IpcHeader::TargetAddress::get(delivery.message), IpcHeader::TargetPort::get(delivery.message)))
        return true;
    zelErrorPrintf(traceModule, "%s: sendto failed on REQ Q errno %d cmd %s, msg type %d, mpktType %d, seqNo %d to %s",
                   selfName(), errno, delivery.command(), delivery.type(), delivery.packetType(), delivery.sequence(),
                   delivery.peer());
    return false;
}

void reportNoAck(const Delivery &delivery, int attempt, bool hasWaitFailed) {
    if (errno == ETIMEDOUT)
        zelErrorPrintf(traceModule,
                       "%s recv NO ACK for Sendcmd %s, type %d mPktType %d, seqNo %d try %d to task %s. Will retry.",
                       selfName(), delivery.command(), delivery.type(), delivery.packetType(), delivery.sequence(),
                       attempt, delivery.peer());
    else
        zelErrorPrintf(traceModule,
                       hasWaitFailed ? "%s select failed on RSP Q errno: %dwhen wait for ACK, Sendcmd %s, type %d, "
                                       "mPktType %d, seqNo %d to %s"
                                     : "%s: recvfrom failed on RSP Q errno: %d when wait for ACK cmd %s type %d , "
                                       "mPktType %d, seqNo %d to %s",
                       selfName(), errno, delivery.command(), delivery.type(), delivery.packetType(),
                       delivery.sequence(), delivery.peer());
}

// Reads the response queue until the acknowledgement, the end of the wait, or too much else.
bool awaitAcknowledgement(const Delivery &delivery, int attempt) {
    Queue &queue = delivery.endpoint.queues[responseQueue];
    timeval limit{};
    zelIpcGrnteedSetTimeout(&limit, attempt);
    Wait wait(queue, static_cast<int>(limit.tv_sec));
    std::uint8_t datagram[longestAck];
    for (int drained = 0; drained < maxDrained; ++drained) {
        const ssize_t length = wait.next(datagram, sizeof datagram);
        if (length < 0) {
            reportNoAck(delivery, attempt, wait.hasWaitFailed());
            return false;
        }
        if (isAcknowledgement(delivery, datagram, static_cast<std::size_t>(length))) {
            Counters::add(queue.counters.received);
            return true;
        }
        Counters::add(queue.counters.droppedMismatch);
    }
    zelWarningPrintf(traceModule,
                     "ERROR: IPCG: Drained more than max unknownmsgs from RSP Q in retry %d, will try again to send",
                     attempt);
    return false;
}

int succeed(const Delivery &delivery, std::uint8_t *record, std::uint64_t sentAt) {
    const std::uint64_t milliseconds = (platform::now() - sentAt) / 1'000'000;
    zelGuaranteedIpcSendSuccess(record, static_cast<std::uint32_t>(milliseconds), delivery.expectedAck);
    return ZEL_OK;
}

int giveUp(const Delivery &delivery, std::uint8_t *record) {
    zelErrorPrintf(traceModule, "%s: msg to %s exceed max tries, cmd %s type %d pktype %d seqNo %d. Give up.",
                   selfName(), delivery.peer(), delivery.command(), delivery.type(), delivery.packetType(),
                   delivery.sequence());
    zelGuaranteedIpcSendFailed(record);
    return kernel::fail(ETIMEDOUT);
}

int deliverGuaranteed(const Delivery &delivery, std::uint8_t *record) {
    makeRoom(delivery.endpoint.queues[responseQueue]);
    for (int attempt = 0; attempt < guaranteedAttempts; ++attempt) {
        zelGuaranteedIpcUpdRetryAttemptCntr(record, attempt);
        const std::uint64_t sentAt = platform::now();
        if (sendOnce(delivery) && awaitAcknowledgement(delivery, attempt)) return succeed(delivery, record, sentAt);
    }
    return giveUp(delivery, record);
}

}  // namespace

bool hasRoomFor(std::uint32_t key, std::uint32_t queueId, std::uint32_t address) {
    Lock lock(guaranteedLock);
    return targetCount < maxTargets || findTarget(key, queueId, address) != nullptr;
}

}  // namespace zel::ipc

using namespace zel::ipc;

int zelIsIpcGuaranteedEnabled() {
    return isEnabled.load(std::memory_order_relaxed);
}

void zelIpcGuaranteedEnDis(int flag) {
    isEnabled.store(flag, std::memory_order_relaxed);
}

int zelIsIpcGDbUpdPossible(uint32_t key, uint32_t targetQueueId) {
    return hasRoomFor(key, targetQueueId, anyAddress) ? 1 : 0;
}

uint8_t *zelGuaranteedIpcGetTargetDBPtr(uint32_t key, uint32_t targetQueueId) {
    const uint32_t own = zel_sysGetIpAddr();
    zel::Lock lock(guaranteedLock);
    Target *known = findTarget(key, targetQueueId, own);
    if (!known) known = findTarget(key, targetQueueId, anyAddress);
    return known ? known->record : addTarget(key, targetQueueId, own);
}

void zelGuaranteedIpcUpdRetryAttemptCntr(uint8_t *record, int attempt) {
    if (attempt == 1) increment<TargetRecord::SecondAttempts>(record);
    if (attempt == 2) increment<TargetRecord::ThirdAttempts>(record);
}

void zelGuaranteedIpcSendSuccess(uint8_t *record, uint32_t ms, int ackType) {
    const uint64_t average = TargetRecord::AverageMilliseconds::get(record);
    const bool isFirstSample = TargetRecord::Acknowledged::get(record) == 0;
    const auto newAverage = static_cast<uint32_t>(isFirstSample ? ms : (average + ms) / 2);
    TargetRecord::AverageMilliseconds::set(record, newAverage);
    increment<TargetRecord::Acknowledged>(record);
    increment<TargetRecord::NextSequence>(record);
    if (ackType != ZEL_IPC_GACK_FIRST) return;
    const unsigned flags = TargetRecord::Flags::get(record) & ~unsigned{TargetRecord::firstSend};
    TargetRecord::Flags::set(record, static_cast<uint8_t>(flags));
}

void zelGuaranteedIpcSendFailed(uint8_t *record) {
    increment<TargetRecord::Failed>(record);
    increment<TargetRecord::NextSequence>(record);
}

int zelIpcGrnteedSetTimeout(struct timeval *wait, int) {
    if (!wait) return ZEL_ERROR;
    *wait = {guaranteedWaitSec, 0};
    return ZEL_OK;
}

int zelIpcGuaranteedSend(uint32_t key, void *message, int length, int) {
    Endpoint *endpoint = findOpenExchange(key);
    if (!endpoint || !isMessage(message, length)) {
        zelErrorPrintf(traceModule, "zelIpcGuaranteedSend: Invalid input");
        return ZEL_ERROR;
    }
    completeHeader(key, message);
    const uint32_t target = IpcHeader::TargetQueue::get(message);
    uint8_t *record = targetRecord(key, target, IpcHeader::TargetAddress::get(message));
    if (!record) {
        zelErrorPrintf(traceModule, "IPC Send failed, DB ptr is NULL, mtype %d ipcKey %d, REQ so %d",
                       static_cast<int>(IpcHeader::MessageType::get(message)), static_cast<int>(key),
                       endpoint->queues[requestQueue].socket.load());
        return zel::kernel::fail(ENOMEM);
    }
    ResponseTurn turn(*endpoint);
    if (!turn.isTaken()) return ZEL_ERROR;
    const uint8_t ack = stampGuaranteed(message, record);
    return turn.done(
        deliverGuaranteed({*endpoint, static_cast<uint8_t *>(message), static_cast<size_t>(length), ack}, record));
}
