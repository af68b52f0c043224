#include "manager.h"

#include <bit>

namespace zelmrtmd {
namespace {

constexpr unsigned sourceAddressWord = 40;
constexpr int clearRoom = 128;

}  // namespace

Manager::Manager(std::uint32_t key, const Options &options)
    : zel::programs::Manager(key, "zelmrtmd"),
      clients_(options.mostClients),
      clears_([this](const auto &request) { sendClear(request); }) {}

bool Manager::followUp() {
    clears_.process();
    return false;
}

Manager::Client *Manager::findSender(const std::uint8_t *message, int length) {
    std::uint32_t handle;
    return zelMrtmParseHandle(message, length, &handle) == 0 ? clients_.findSender(handle, message) : nullptr;
}

// ---- Queued messages ------------------------------------------------------------------------------------------------

void Manager::takeQueued(std::uint32_t type, const std::uint8_t *message, int length) {
    zelMrtmRequest request;
    if (!findSender(message, length))
        ++refused_;
    else if (type == ZEL_MRTM_MSG_UPDATE || type == ZEL_MRTM_MSG_UPDATE_V6)
        takeBatch(message, length);
    else if (type == ZEL_MRTM_MSG_SPAN_VLANS)
        takeSpanVlans(message, length);
    else if (zelMrtmParseRequest(message, length, &request) == 0)
        takeRequest(request);
    else
        ++counts_[ZEL_MRTM_COUNT_MALFORMED];
}

void Manager::takeBatch(const std::uint8_t *message, int length) {
    zelMrtmBatch batch;
    if (zelMrtmParseBatch(message, length, &batch) != 0) {
        ++counts_[ZEL_MRTM_COUNT_MALFORMED];
        return;
    }
    ++counts_[ZEL_MRTM_COUNT_BATCHES];
    std::uint32_t operation;
    zelMrtmRoute route;
    for (int more; (more = zelMrtmNextRoute(&batch, &operation, &route)) != 0;)
        if (more == 1)
            apply(operation, batch, route);
        else
            ++counts_[ZEL_MRTM_COUNT_MALFORMED];
}

void Manager::apply(std::uint32_t operation, const zelMrtmBatch &batch, const zelMrtmRoute &route) {
    Change change;
    if (operation == ZEL_MRTM_ADD) {
        ++counts_[ZEL_MRTM_COUNT_ADDS];
        change = table_.add(batch.family, batch.handle, route, batch.record);
        counts_[ZEL_MRTM_COUNT_REPLACED] += change == Change::replaced;
    } else if (operation == ZEL_MRTM_DELETE) {
        ++counts_[ZEL_MRTM_COUNT_DELETES];
        change = table_.remove(batch.family, batch.handle, route);
    } else {
        ++counts_[ZEL_MRTM_COUNT_CHANGES];
        change = table_.change(batch.family, batch.handle, route, batch.record);
    }
    counts_[ZEL_MRTM_COUNT_UNKNOWN] += change == Change::unknown;
    refused_ += change == Change::refused;
}

void Manager::takeRequest(const zelMrtmRequest &request) {
    if (request.type == ZEL_MRTM_MSG_FLUSH) return withdraw(request.handle);
    if (request.type == ZEL_MRTM_MSG_CLEAR_SEND) return clear(request.family, request.vrfId);
    ++(clears_.acknowledge(request.handle, request.sequenceWord) ? counts_[ZEL_MRTM_COUNT_CLEAR_ACKS] : refused_);
}

void Manager::takeSpanVlans(const std::uint8_t *message, int length) {
    std::uint32_t begun[IFM_VLAN_BITMAP_WORDS], ended[IFM_VLAN_BITMAP_WORDS];
    if (zelMrtmParseSpanVlans(message, length, begun, ended) != 0) {
        ++counts_[ZEL_MRTM_COUNT_MALFORMED];
        return;
    }
    for (int i = 0; i < IFM_VLAN_BITMAP_WORDS; ++i) spanVlans_[i] = (spanVlans_[i] | begun[i]) & ~ended[i];
}

void Manager::withdraw(std::uint32_t handle) {
    ++counts_[ZEL_MRTM_COUNT_FLUSHES];
    table_.removeOf(handle, std::nullopt, std::nullopt);
}

// Empties a VRF and asks those whose routes went to send them again.
void Manager::clear(int family, std::uint32_t vrf) {
    ++counts_[ZEL_MRTM_COUNT_FLUSHES];
    for (const std::uint32_t owner : table_.removeOf(0, family, vrf)) clears_.ask(owner, family, vrf);
}

void Manager::sendClear(const zel::programs::ClearRequests::Request &request) {
    const Client *client = clients_.find(request.handle);
    if (!client) return;
    const zelMrtmRequest clear{ZEL_MRTM_MSG_CLEAR, request.handle, request.family, request.vrf, request.sequence};
    std::uint8_t message[clearRoom];
    const int length = zelMrtmBuildClear(message, &clear, client->address, client->receiveQueue);
    zelIpcNonGuaranteedSend(key(), message, length);
}

// ---- Requests -------------------------------------------------------------------------------------------------------

void Manager::answer(std::uint32_t type, std::uint8_t *message, int length) {
    switch (type) {
        case ZEL_MRTM_MSG_REGISTER:
        case ZEL_MRTM_MSG_REGISTER_TYPE_8:
        case ZEL_MRTM_MSG_REGISTER_AGENT:
            return registerClient(message, length);
        case ZEL_MRTM_MSG_DEREGISTER:
            return deregisterClient(message, length);
        case ZEL_MRTM_MSG_QUERY:
            return answerQuery(message, length);
        case ZEL_MRTM_MSG_COUNTERS:
            return answerCounters(message);
        default:
            refuse(message, ZEL_IPC_HDR_LEN, ZEL_RTM_STATUS_BAD_REQUEST);
    }
}

void Manager::registerClient(std::uint8_t *message, int length) {
    zelMrtmRegistration asked;
    if (zelMrtmParseRegistration(message, length, &asked) != 0) {
        ++counts_[ZEL_MRTM_COUNT_MALFORMED];
        return;
    }
    Client *client = nullptr;
    const zelRtmStatus status =
        clients_.enter({0, asked.name, asked.clientType, asked.sourceAddress, asked.receiveQueue}, client);
    const int answered = zelMrtmAnswerRegistration(message, client ? client->handle : 0, status);
    if (status != ZEL_RTM_STATUS_OK) return refuse(message, answered, status);
    reply(message, answered);
}

void Manager::deregisterClient(std::uint8_t *message, int length) {
    zelMrtmRequest request;
    if (zelMrtmParseRequest(message, length, &request) != 0)
        return refuse(message, ZEL_IPC_HDR_LEN, ZEL_RTM_STATUS_BAD_REQUEST);
    Client *client = clients_.findSender(request.handle, message);
    if (!client) return refuse(message, length, ZEL_RTM_STATUS_UNKNOWN_CLIENT);
    withdraw(client->handle);
    clears_.forget(client->handle);
    clients_.remove(*client);
    zelRtmSetStatus(message, ZEL_RTM_STATUS_OK);
    reply(message, length);
}

// The answer is longer than the question: only clients get it, at the address they registered from.
void Manager::answerQuery(std::uint8_t *message, int length) {
    zelMrtmQuery query;
    if (zelMrtmParseQuery(message, length, &query) != 0)
        return refuse(message, ZEL_IPC_HDR_LEN, ZEL_RTM_STATUS_BAD_REQUEST);
    if (!clients_.findSender(query.handle, message))
        return refuse(message, ZEL_IPC_HDR_LEN, ZEL_RTM_STATUS_UNKNOWN_CLIENT);
    ++counts_[ZEL_MRTM_COUNT_QUERIES];
    zelMrtmRoute route;
    reply(message, zelMrtmAnswerQuery(message, &query, table_.find(query, route) ? &route : nullptr));
}

// Strangers elsewhere get none, as above.
void Manager::answerCounters(std::uint8_t *message) {
    const std::uint32_t from = zelIpcHdrGet32(message, sourceAddressWord);
    if (from != zel_sysGetIpAddr() && !clients_.isAnyAt(from))
        return refuse(message, ZEL_IPC_HDR_LEN, ZEL_RTM_STATUS_UNKNOWN_CLIENT);
    const zelSwpReceiverStats received = streams();
    counts_[ZEL_MRTM_COUNT_CLIENTS] = clients_.count();
    counts_[ZEL_MRTM_COUNT_ROUTES] = table_.routes();
    counts_[ZEL_MRTM_COUNT_DUPLICATES] = received.duplicates;
    counts_[ZEL_MRTM_COUNT_GAPS] = received.gaps + received.unknown;
    counts_[ZEL_MRTM_COUNT_REFUSED] = refused_;
    counts_[ZEL_MRTM_COUNT_DROPPED_BY_HOST] = droppedByHost();
    counts_[ZEL_MRTM_COUNT_SPAN_VLANS] = 0;
    for (const std::uint32_t word : spanVlans_)
        counts_[ZEL_MRTM_COUNT_SPAN_VLANS] += static_cast<unsigned>(std::popcount(word));
    reply(message, zelMrtmAnswerCounters(message, counts_));
}

}  // namespace zelmrtmd
