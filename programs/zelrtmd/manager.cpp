#include "manager.h"

namespace zelrtmd {
namespace {

constexpr unsigned sourceAddressWord = 40;
constexpr unsigned handleWord = 132;  // of queued messages
constexpr std::size_t mostTables = 1024;

}  // namespace

Manager::Manager(std::uint32_t key, const Options &options)
    : zel::programs::Manager(key, "zelrtmd"),
      options_(options),
      clients_(options.mostClients),
      redistribution_(key, clients_, tables_),
      clears_([this](const auto &request) { sendClear(request); }) {}

bool Manager::isFromClient(const std::uint8_t *message, int length) {
    return length >= static_cast<int>(handleWord + sizeof(std::uint32_t)) &&
           clients_.findSender(zelIpcHdrGet32(message, handleWord), message);
}

void Manager::takeAcknowledgement(const std::uint8_t *message, int length) {
    redistribution_.takeAcknowledgement(message, length);
}

bool Manager::followUp() {
    if (tablesChanged_ && !pollers_.empty()) tellPollers();
    tablesChanged_ = false;
    clears_.process();
    return redistribution_.serve();
}

void Manager::takeQueued(std::uint32_t type, const std::uint8_t *message, int length) {
    zelRtmRequest request;
    if (type == ZEL_RTM_MSG_UPDATE || type == ZEL_RTM_MSG_UPDATE_MULTICAST) return takeBatch(message, length);
    if (zelRtmParseRequest(message, length, &request) != 0) return takePoll(message, length);
    if (Client *client = clients_.findSender(request.handle, message))
        takeQueuedRequest(request, *client);
    else
        ++refused_;
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

// ---- Batches --------------------------------------------------------------------------------------------------------

void Manager::takeBatch(const std::uint8_t *message, int length) {
    zelRtmBatch batch;
    if (zelRtmParseBatch(message, length, &batch) != 0) {
        ++counts_[ZEL_RTM_COUNT_MALFORMED];
        return;
    }
    const Client *client = clients_.findSender(batch.handle, message);
    if (!client) {
        ++refused_;
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
    if (change == Change::refused) ++refused_;
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
    const zelSwpReceiverStats received = streams();
    counts_[ZEL_RTM_COUNT_CLIENTS] = clients_.count();
    counts_[ZEL_RTM_COUNT_TABLES] = tables_.size();
    counts_[ZEL_RTM_COUNT_PREFIXES] = counts_[ZEL_RTM_COUNT_ROUTES] = 0;
    for (const auto &[id, table] : tables_) {
        counts_[ZEL_RTM_COUNT_PREFIXES] += table->prefixes();
        counts_[ZEL_RTM_COUNT_ROUTES] += table->routes();
    }
    counts_[ZEL_RTM_COUNT_DUPLICATES] = received.duplicates;
    counts_[ZEL_RTM_COUNT_GAPS] = received.gaps + received.unknown;
    counts_[ZEL_RTM_COUNT_DROPPED_BY_HOST] = droppedByHost();
    counts_[ZEL_RTM_COUNT_REFUSED] = refused_;
    counts_[ZEL_RTM_COUNT_REDISTRIBUTED] = redistribution_.told();
}

}  // namespace zelrtmd
