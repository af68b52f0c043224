#include "programs/support/manager.h"

#include <algorithm>
#include <cstdio>
#include <vector>

#include "programs/support/client_table.h"
#include "programs/support/program.h"

namespace zel::programs {
namespace {

constexpr unsigned commandByte = 4;
constexpr unsigned messageTypeWord = 12;
constexpr unsigned packetTypeWord = 24;
constexpr unsigned sourceAddressWord = 40;
constexpr unsigned sourceQueueWord = 44;
constexpr unsigned sequenceWord = 64;  // two words
constexpr int requestQueue = 1;
constexpr int receiveSeconds = 1;
constexpr std::size_t mostBytes = 65536;
// Room for the windows of many sources at once.
constexpr int receiveBuffer = 8 << 20;
constexpr std::uint32_t acknowledgementInterval = ZEL_SWP_DEFAULT_WINDOW;

constexpr int mostClearsSent = 5;
constexpr std::uint32_t secondsBetweenClears = 1;

}  // namespace

bool isClientName(const std::string &name) {
    return !name.empty() && std::all_of(name.begin(), name.end(), [](char c) { return c > ' ' && c < 0x7f; });
}

// Queue ids of one endpoint differ in their type bits alone.
bool isSender(const ClientRecord &client, const void *message) {
    return client.address == zelIpcHdrGet32(message, sourceAddressWord) &&
           client.receiveQueue >> 2 == zelIpcHdrGet32(message, sourceQueueWord) >> 2;
}

// ---- The loop -------------------------------------------------------------------------------------------------------

Manager::Manager(std::uint32_t key, const char *program)
    : key_(key), receiver_(zelSwpReceiverCreate(key, 0, acknowledgementInterval)) {
    int error = 0;
    if (zelIpcSetRecvBufferLimit(key | requestQueue, receiveBuffer, &error) != 0)
        fprintf(stderr, "%s: the receive buffer stays small (error %d)\n", program, error);
}

Manager::~Manager() {
    zelSwpReceiverDestroy(receiver_);
}

int Manager::run() {
    if (!receiver_) return 1;
    std::vector<std::uint8_t> buffer(mostBytes);
    int wait = receiveSeconds;
    while (!isStopping()) {
        const int length = zelIpcRecv(key_ | requestQueue, buffer.data(), static_cast<int>(buffer.size()), wait, 0, 0);
        if (length > 0)
            dispatch(buffer.data(), length);
        else
            zelSwpReceiverFlush(receiver_);  // what waited for more was followed by something that was no message
        wait = followUp() ? ZEL_NO_WAIT : receiveSeconds;
    }
    return 0;
}

// Acknowledgements and answers are told apart first: nothing that we send is ever answered, so that nobody can make us
// talk to ourselves by sending in our name.
void Manager::dispatch(std::uint8_t *message, int length) {
    const std::uint32_t type = zelIpcHdrGet32(message, messageTypeWord);
    const bool isAcknowledgement = zelIpcHdrGet32(message, packetTypeWord) == ZEL_SWP_ACK_PACKET;
    if (!isAcknowledgement && isQueued(type)) {
        if (beginsForNobody(message, length)) return;
        if (zelSwpReceiverCheck(receiver_, message, length) != ZEL_SWP_MATCHED) return;
        takeQueued(type, message, length);
        zelSwpReceiverAnswer(receiver_, message);
        return;
    }
    if (isAcknowledgement)
        takeAcknowledgement(message, length);
    else if (type != wakeType && message[commandByte] != ZEL_IPC_RSP)
        answer(type, message, length);
    // The queued message before it may have left its acknowledgement to the one that it saw waiting.
    zelSwpReceiverFlush(receiver_);
}

// The first message of a stream whose client is unknown: it registered with a manager that is gone, and would believe
// that this one has its routes if we acknowledged them. Without an answer it will register again.
bool Manager::beginsForNobody(const std::uint8_t *message, int length) {
    if (length < ZEL_SWP_MIN_MESSAGE || isFromClient(message, length)) return false;
    if (zelIpcHdrGet32(message, sequenceWord) != 0 || zelIpcHdrGet32(message, sequenceWord + 4) != 0) return false;
    ++refused_;
    return true;
}

void Manager::reply(std::uint8_t *message, int length) const {
    zelIpcReply(key_, message, length);
}

void Manager::refuse(std::uint8_t *message, int length, zelRtmStatus status) {
    ++refused_;
    zelRtmSetStatus(message, static_cast<std::uint32_t>(status));
    reply(message, length);
}

zelSwpReceiverStats Manager::streams() const {
    zelSwpReceiverStats stats{};
    zelSwpReceiverGetStats(receiver_, &stats);
    return stats;
}

std::uint64_t Manager::droppedByHost() const {
    zelIpcQueueStats stats{};
    zelIpcGetQueueStats(key_ | requestQueue, &stats);
    return stats.droppedByHost;
}

// ---- Clear requests -------------------------------------------------------------------------------------------------

ClearRequests::Pending::Pending(ClearRequests &itsOwner, const Request &itsRequest)
    : owner(itsOwner),
      request(itsRequest),
      timer(zelTimerCreate(askAgain, reinterpret_cast<intptr_t>(this), secondsBetweenClears, ZEL_TIMER_PERIODIC,
                           &owner.timers_)) {}

ClearRequests::Pending::~Pending() {
    zelTimerDelete(timer, &owner.timers_);
}

ClearRequests::ClearRequests(Send send) : send_(std::move(send)) {
    zelTmrHeadInit(&timers_, nullptr, nullptr, 0, 0);
}

void ClearRequests::ask(std::uint32_t handle, int family, std::uint32_t vrf) {
    send_(pending_.emplace_back(*this, Request{handle, family, vrf, ++sequence_}).request);
}

void ClearRequests::askAgain(intptr_t argument) {
    auto &due = *reinterpret_cast<Pending *>(argument);
    if (due.sent++ < mostClearsSent) return due.owner.send_(due.request);
    due.owner.pending_.remove_if([&](const Pending &other) { return &other == &due; });
}

bool ClearRequests::acknowledge(std::uint32_t handle, std::uint32_t sequence) {
    return pending_.remove_if([=](const Pending &pending) {
        return pending.request.handle == handle && pending.request.sequence == sequence;
    }) > 0;
}

void ClearRequests::forget(std::uint32_t handle) {
    pending_.remove_if([=](const Pending &pending) { return pending.request.handle == handle; });
}

}  // namespace zel::programs
