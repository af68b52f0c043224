#include "manager.h"

#include <cstdio>

#include "programs/support/program.h"

namespace zelrtmd {
namespace {

constexpr unsigned commandByte = 4;
constexpr unsigned messageTypeWord = 12;
constexpr unsigned packetTypeWord = 24;
constexpr unsigned sourceAddressWord = 40;
constexpr unsigned sequenceWord = 64;  // two words
constexpr unsigned handleWord = 132;   // of queued messages
constexpr int requestQueue = 1;
constexpr int receiveSeconds = 1;
constexpr std::size_t mostBytes = 65536;
constexpr std::size_t mostTables = 1024;
// Room for the windows of many sources at once.
constexpr int receiveBuffer = 8 << 20;
constexpr std::uint32_t acknowledgementInterval = ZEL_SWP_DEFAULT_WINDOW;

}  // namespace

Manager::Manager(std::uint32_t key, const Options &options)
    : key_(key),
      options_(options),
      receiver_(zelSwpReceiverCreate(key, 0, acknowledgementInterval)),
      clients_(options.mostClients),
      redistribution_(key, clients_, tables_) {
    zelTmrHeadInit(&timers_, nullptr, nullptr, 0, 0);
    int error = 0;
    if (zelIpcSetRecvBufferLimit(key | requestQueue, receiveBuffer, &error) != 0)
        fprintf(stderr, "zelrtmd: the receive buffer stays small (error %d)\n", error);
}

Manager::~Manager() {
    zelSwpReceiverDestroy(receiver_);
}

int Manager::run() {
    if (!receiver_) return 1;
    std::vector<std::uint8_t> buffer(mostBytes);
    int wait = receiveSeconds;
    while (!zel::programs::isStopping()) {
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
    if (!isAcknowledgement && zelRtmIsQueued(type)) {
        if (beginsForNobody(message, length)) return;
        if (zelSwpReceiverCheck(receiver_, message, length) != ZEL_SWP_MATCHED) return;
        takeQueued(type, message, length);
        zelSwpReceiverAnswer(receiver_, message);
        return;
    }
    if (isAcknowledgement)
        redistribution_.takeAcknowledgement(message, length);
    else if (type != zel::programs::wakeType && message[commandByte] != ZEL_IPC_RSP)
        answer(type, message, length);
    // The queued message before it may have left its acknowledgement to the one that it saw waiting.
    zelSwpReceiverFlush(receiver_);
}

// The first message of a stream whose client is unknown: it registered with a manager that is gone, and would believe
// that this one has its routes if we acknowledged them. Without an answer it will register again.
bool Manager::beginsForNobody(const std::uint8_t *message, int length) {
    const auto least = static_cast<int>(handleWord + sizeof(std::uint32_t));
    if (length < least || clients_.findSender(zelIpcHdrGet32(message, handleWord), message)) return false;
    if (zelIpcHdrGet32(message, sequenceWord) != 0 || zelIpcHdrGet32(message, sequenceWord + 4) != 0) return false;
    ++counts_[ZEL_RTM_COUNT_REFUSED];
    return true;
}

// What a message, or time, has brought about for others; true when there is more of that at once.
bool Manager::followUp() {
    if (tablesChanged_ && !pollers_.empty()) tellPollers();
    tablesChanged_ = false;
    zelProcTimers(&timers_);
    return redistribution_.serve();
}

void Manager::takeQueued(std::uint32_t type, const std::uint8_t *message, int length) {
    zelRtmRequest request;
    if (type == ZEL_RTM_MSG_UPDATE || type == ZEL_RTM_MSG_UPDATE_MULTICAST) return takeBatch(message, length);
    if (zelRtmParseRequest(message, length, &request) != 0) return takePoll(message, length);
    if (Client *client = clients_.findSender(request.handle, message))
        takeQueuedRequest(request, *client);
    else
        ++counts_[ZEL_RTM_COUNT_REFUSED];
}

void Manager::answer(std::uint32_t type, std::uint8_t *message, int length) {
    zelRtmRequest request;
    switch (type) {
        case ZEL_RTM_MSG_REGISTER:
        case ZEL_RTM_MSG_REGISTER_NON_ROUTING:
        case ZEL_RTM_MSG_REGISTER_ONE_WAY:
        case ZEL_RTM_MSG_REGISTER_VRF:
        case ZEL_RTM_MSG_REGISTER_V4V6:
            return registerClient(message, length);
        case ZEL_RTM_MSG_LOOKUP:
        case ZEL_RTM_MSG_RECURSIVE_LOOKUP:
        case ZEL_RTM_MSG_RECURSIVE_LOOKUP_TLV:
        case ZEL_RTM_MSG_RECURSIVE_LOOKUP_V6:
            return answerLookup(message, length);
        case ZEL_RTM_MSG_DUMP:
        case ZEL_RTM_MSG_CLIENTS:
        case ZEL_RTM_MSG_COUNTERS:
            return answerQuestion(type, message, length);
        default:
            if (zelRtmParseRequest(message, length, &request) == 0) return answerRequest(request, message, length);
            refuse(message, ZEL_IPC_HDR_LEN, ZEL_RTM_STATUS_BAD_REQUEST);
    }
}

// These answers are longer than their questions: strangers elsewhere get none, nor those in whose name they ask.
void Manager::answerQuestion(std::uint32_t type, std::uint8_t *message, int length) {
    const std::uint32_t from = zelIpcHdrGet32(message, sourceAddressWord);
    if (from != zel_sysGetIpAddr() && !clients_.isAnyAt(from))
        return refuse(message, ZEL_IPC_HDR_LEN, ZEL_RTM_STATUS_UNKNOWN_CLIENT);
    if (type == ZEL_RTM_MSG_DUMP) return dump(message, length);
    if (type == ZEL_RTM_MSG_CLIENTS) return showClient(message, length);
    sumUp();
    reply(message, zelRtmAnswerCounters(message, counts_));
}

void Manager::reply(std::uint8_t *message, int length) {
    zelIpcReply(key_, message, length);
}

void Manager::refuse(std::uint8_t *message, int length, zelRtmStatus status) {
    ++counts_[ZEL_RTM_COUNT_REFUSED];
    zelRtmSetStatus(message, static_cast<std::uint32_t>(status));
    reply(message, length);
}

// ---- Batches --------------------------------------------------------------------------------------------------------

void Manager::takeBatch(const std::uint8_t *message, int length) {
    zelRtmBatch batch;
    if (zelRtmParseBatch(message, length, &batch) != 0) {
        ++counts_[ZEL_RTM_COUNT_MALFORMED];
        return;
    }
    const Client *client = clients_.findSender(batch.handle, message);
    if (!client) {
        ++counts_[ZEL_RTM_COUNT_REFUSED];
        return;
    }
    ++counts_[ZEL_RTM_COUNT_BATCHES];
    std::uint32_t operation;
    zelRtmRoute route;
    int more;
    while ((more = zelRtmNextRoute(&batch, &operation, &route)) == 1) apply(operation, client->handle, batch, route);
    if (more < 0) ++counts_[ZEL_RTM_COUNT_MALFORMED];
}

void Manager::apply(std::uint32_t operation, std::uint32_t handle, const zelRtmBatch &batch, const zelRtmRoute &route) {
    const bool isAdd = operation == ZEL_RTM_ADD;
    ++counts_[isAdd ? ZEL_RTM_COUNT_ADDS : ZEL_RTM_COUNT_DELETES];
    if (options_.onlyCounts) return;
    Table *table = isAdd ? findOrMake(batch.family, route.vrfId) : find(batch.family, route.vrfId);
    if (!table) return count(isAdd ? Change::refused : Change::unknown);
    count(isAdd ? table->add(handle, route, batch.record, batch.recordLength) : table->remove(handle, route));
}

void Manager::count(Change change) {
    if (change == Change::replaced) ++counts_[ZEL_RTM_COUNT_REPLACED];
    if (change == Change::unknown) ++counts_[ZEL_RTM_COUNT_UNKNOWN_DELETES];
    if (change == Change::refused) ++counts_[ZEL_RTM_COUNT_REFUSED];
}

Table *Manager::find(int family, std::uint32_t vrf) {
    if (lastTable_ && lastTable_->family() == family && lastTable_->vrf() == vrf) return lastTable_;
    const auto at = tables_.find({family, vrf});
    return at == tables_.end() ? nullptr : lastTable_ = at->second.get();
}

Table *Manager::findOrMake(int family, std::uint32_t vrf) {
    if (Table *table = find(family, vrf)) return table;
    if (tables_.size() >= mostTables) return nullptr;
    const auto watcher = [this](const Table &table, const std::uint8_t *key, std::uint32_t bits, std::uint32_t owner) {
        tablesChanged_ = true;
        redistribution_.note(table, key, bits, owner);
    };
    auto &slot = tables_[{family, vrf}] = std::make_unique<Table>(family, vrf, watcher);
    return lastTable_ = slot.get();
}

void Manager::sumUp() {
    zelSwpReceiverStats streams{};
    zelSwpReceiverGetStats(receiver_, &streams);
    zelIpcQueueStats queue{};
    zelIpcGetQueueStats(key_ | requestQueue, &queue);
    counts_[ZEL_RTM_COUNT_CLIENTS] = clients_.count();
    counts_[ZEL_RTM_COUNT_TABLES] = tables_.size();
    counts_[ZEL_RTM_COUNT_PREFIXES] = counts_[ZEL_RTM_COUNT_ROUTES] = 0;
    for (const auto &[id, table] : tables_) {
        counts_[ZEL_RTM_COUNT_PREFIXES] += table->prefixes();
        counts_[ZEL_RTM_COUNT_ROUTES] += table->routes();
    }
    counts_[ZEL_RTM_COUNT_DUPLICATES] = streams.duplicates;
    counts_[ZEL_RTM_COUNT_GAPS] = streams.gaps + streams.unknown;
    counts_[ZEL_RTM_COUNT_DROPPED_BY_HOST] = queue.droppedByHost;
    counts_[ZEL_RTM_COUNT_REDISTRIBUTED] = redistribution_.told();
}

}  // namespace zelrtmd
