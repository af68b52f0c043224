// The manager's side of the multicast messages, and the record of a route in both directions.
//
// Messages come from anywhere: type and length are checked first, and a batch must have exactly the length that its
// count of routes asks for, so that nothing in it needs to be measured again.
#include <cstring>
#include <initializer_list>

#include "rtm/mrtm_message.h"

namespace zel::mrtm {
namespace {

using rtm::bytesOf;
using rtm::hasHeader;

bool isRegistration(std::uint32_t type) {
    return type == ZEL_MRTM_MSG_REGISTER || type == ZEL_MRTM_MSG_REGISTER_TYPE_8 || type == ZEL_MRTM_MSG_REGISTER_AGENT;
}

// Where a queued message has its handle, and its least length; no length for other messages.
struct QueuedLayout {
    std::size_t handle;
    std::size_t size;
};
QueuedLayout queuedLayoutOf(std::uint32_t type) {
    switch (type) {
        case ZEL_MRTM_MSG_UPDATE:
        case ZEL_MRTM_MSG_UPDATE_V6:
            return {BatchMessage::Handle::offset, BatchMessage::head};
        case ZEL_MRTM_MSG_CLEAR_ACK:
        case ZEL_MRTM_MSG_CLEAR_ACK_V6:
            return {ClearAckMessage::Handle::offset, ClearAckMessage::size};
        case ZEL_MRTM_MSG_CLEAR_SEND:
            return {ClearSendMessage::Handle::offset, ClearSendMessage::size};
        case ZEL_MRTM_MSG_FLUSH:
            return {FlushMessage::Handle::offset, FlushMessage::size};
        case ZEL_MRTM_MSG_SPAN_VLANS:
            return {SpanVlanMessage::Handle::offset, SpanVlanMessage::size};
        default:
            return {0, 0};
    }
}

void readVlans(const std::uint8_t *at, std::uint32_t *bitmap) {
    for (std::size_t i = 0; i < SpanVlanMessage::mapWords; ++i) bitmap[i] = wire::load<std::uint32_t>(at + i * 4);
    bitmap[SpanVlanMessage::mapWords] = 0;
}

bool areListsSound(const zelMrtmRoute &route) {
    std::uint32_t map[IFM_IFLIST_MAP_WORDS];
    return ifmMapFromBytes(route.lists[0], map) == IFM_OK && ifmMapFromBytes(route.lists[1], map) == IFM_OK;
}

}  // namespace
}  // namespace zel::mrtm

using namespace zel::mrtm;

// ---- Records --------------------------------------------------------------------------------------------------------

int zelMrtmWriteRoute(int family, const zelMrtmRoute *route, void *record) {
    if (!isFamily(family)) return -1;
    auto *at = static_cast<uint8_t *>(record);
    for (const uint8_t *address : {route->group, route->source, route->rendezvous, route->upstream}) {
        std::memcpy(at, address, addressSize(family));
        at += addressSize(family);
    }
    RecordTail::Flags::set(at, route->flags);
    RecordTail::State::set(at, route->state);
    RecordTail::ListKind::set(at, route->listKind);
    RecordTail::Vrf::set(at, route->vrfId);
    RecordTail::Interface::set(at, route->ifIndex);
    std::memcpy(at + RecordTail::opaque, route->opaque, RecordTail::opaqueSize);
    std::memcpy(at + RecordTail::lists, route->lists, sizeof route->lists);
    return static_cast<int>(recordSize(family));
}

int zelMrtmReadRoute(int family, const void *record, zelMrtmRoute *route) {
    if (!isFamily(family)) return -1;
    *route = {};
    const uint8_t *at = bytesOf(record);
    for (uint8_t *address : {route->group, route->source, route->rendezvous, route->upstream}) {
        std::memcpy(address, at, addressSize(family));
        at += addressSize(family);
    }
    route->flags = RecordTail::Flags::get(at);
    route->state = RecordTail::State::get(at);
    route->listKind = RecordTail::ListKind::get(at);
    route->vrfId = RecordTail::Vrf::get(at);
    route->ifIndex = RecordTail::Interface::get(at);
    std::memcpy(route->opaque, at + RecordTail::opaque, RecordTail::opaqueSize);
    std::memcpy(route->lists, at + RecordTail::lists, sizeof route->lists);
    return static_cast<int>(recordSize(family));
}

// ---- What clients send ----------------------------------------------------------------------------------------------

int zelMrtmIsQueued(uint32_t type) {
    return queuedLayoutOf(type).size > 0;
}

int zelMrtmParseHandle(const void *message, int length, uint32_t *handle) {
    if (!hasHeader(message, length, IpcHeader::size)) return 1;
    const QueuedLayout layout = queuedLayoutOf(IpcHeader::MessageType::get(message));
    if (layout.size == 0 || length < static_cast<int>(layout.size)) return 1;
    *handle = zel::wire::load<uint32_t>(bytesOf(message) + layout.handle);
    return 0;
}

int zelMrtmParseRegistration(const void *message, int length, zelMrtmRegistration *registration) {
    using Layout = RegistrationMessage;
    if (!hasHeader(message, length, Layout::size)) return 1;
    *registration = {};
    registration->type = IpcHeader::MessageType::get(message);
    if (!isRegistration(registration->type)) return 1;
    registration->handle = Layout::Handle::get(message);
    std::memcpy(registration->name, bytesOf(message) + Layout::name, ZEL_MRTM_NAME_LENGTH);
    registration->clientType = Layout::ClientType::get(message);
    registration->argument = Layout::Argument::get(message);
    registration->receiveQueue = Layout::ReceiveQueue::get(message);
    registration->sourceAddress = IpcHeader::SourceAddress::get(message);
    registration->address = {Layout::Service::get(message), Layout::TaskKey::get(message),
                             Layout::Instance::get(message), Layout::Spare::get(message), Layout::Extra::get(message)};
    return 0;
}

int zelMrtmParseBatch(const void *message, int length, zelMrtmBatch *batch) {
    if (!hasHeader(message, length, BatchMessage::head) || !isBatch(message, static_cast<size_t>(length))) return 1;
    *batch = {};
    batch->handle = BatchMessage::Handle::get(message);
    batch->routes = batch->left = BatchMessage::Routes::get(message);
    batch->family = BatchMessage::FamilyIndex::get(message);
    batch->recordLength = static_cast<uint32_t>(recordSize(batch->family));
    batch->next = bytesOf(message) + BatchMessage::records;
    return 0;
}

int zelMrtmNextRoute(zelMrtmBatch *batch, uint32_t *operation, zelMrtmRoute *route) {
    if (batch->left == 0) return 0;
    *operation = OperationWord::get(batch->next);
    batch->record = batch->next + operationSize;
    batch->next = batch->record + batch->recordLength;
    --batch->left;
    zelMrtmReadRoute(batch->family, batch->record, route);
    const bool isWithdrawal = *operation == ZEL_MRTM_DELETE;
    return isOperation(*operation) && (isWithdrawal || (isListKind(route->listKind) && areListsSound(*route))) ? 1 : -1;
}

int zelMrtmParseRequest(const void *message, int length, zelMrtmRequest *request) {
    if (!hasHeader(message, length, IpcHeader::size)) return 1;
    *request = {};
    request->type = IpcHeader::MessageType::get(message);
    if (request->type == ZEL_MRTM_MSG_DEREGISTER) {
        if (length < static_cast<int>(DeregistrationMessage::size)) return 1;
        request->handle = DeregistrationMessage::Handle::get(message);
        return 0;
    }
    if (zelMrtmParseHandle(message, length, &request->handle) != 0) return 1;
    switch (request->type) {
        case ZEL_MRTM_MSG_FLUSH:
            return 0;
        case ZEL_MRTM_MSG_CLEAR_SEND:
            request->family = static_cast<int>(ClearSendMessage::Family::get(message));
            request->vrfId = ClearSendMessage::Vrf::get(message);
            return isFamily(request->family) ? 0 : 1;
        case ZEL_MRTM_MSG_CLEAR_ACK:
        case ZEL_MRTM_MSG_CLEAR_ACK_V6:
            request->family = request->type == ZEL_MRTM_MSG_CLEAR_ACK ? ZEL_MRTM_IPV4 : ZEL_MRTM_IPV6;
            request->sequenceWord = ClearAckMessage::Sequence::get(message);
            return 0;
        default:
            return 1;
    }
}

int zelMrtmParseSpanVlans(const void *message, int length, uint32_t *begun, uint32_t *ended) {
    if (!hasHeader(message, length, SpanVlanMessage::size)) return 1;
    if (IpcHeader::MessageType::get(message) != ZEL_MRTM_MSG_SPAN_VLANS) return 1;
    readVlans(bytesOf(message) + SpanVlanMessage::begun, begun);
    readVlans(bytesOf(message) + SpanVlanMessage::ended, ended);
    return 0;
}

int zelMrtmParseQuery(const void *message, int length, zelMrtmQuery *query) {
    using Layout = QueryMessage;
    if (!hasHeader(message, length, Layout::size)) return 1;
    if (IpcHeader::MessageType::get(message) != ZEL_MRTM_MSG_QUERY) return 1;
    *query = {};
    query->handle = Layout::Handle::get(message);
    query->family = static_cast<int>(Layout::Family::get(message));
    query->vrfId = Layout::Vrf::get(message);
    query->list = Layout::List::get(message);
    if (!isFamily(query->family) || query->list > 1) return 1;
    std::memcpy(query->group, bytesOf(message) + Layout::group, addressSize(query->family));
    std::memcpy(query->source, bytesOf(message) + Layout::source, addressSize(query->family));
    return 0;
}

// ---- What the manager sends -----------------------------------------------------------------------------------------

int zelMrtmAnswerRegistration(void *message, uint32_t handle, uint32_t status) {
    RegistrationMessage::Handle::set(message, handle);
    IpcHeader::Status::set(message, status);
    return static_cast<int>(RegistrationMessage::size);
}

int zelMrtmAnswerQuery(void *message, const zelMrtmQuery *query, const zelMrtmRoute *route) {
    uint32_t map[IFM_IFLIST_MAP_WORDS];
    if (!route || ifmMapFromBytes(route->lists[query->list & 1], map) != IFM_OK) {
        IpcHeader::Status::set(message, ZEL_RTM_STATUS_BAD_REQUEST);
        return static_cast<int>(QueryMessage::Handle::end);
    }
    IpcHeader::Status::set(message, ZEL_RTM_STATUS_OK);
    ifmMapToBytes(map, static_cast<uint8_t *>(message) + QueryMessage::bitmap);
    return static_cast<int>(QueryMessage::answerSize);
}

int zelMrtmAnswerCounters(void *message, const uint64_t counters[ZEL_MRTM_COUNTERS]) {
    return zel::rtm::writeCounters(message, counters, ZEL_MRTM_COUNTERS);
}

int zelMrtmBuildClear(void *message, const zelMrtmRequest *clear, uint32_t address, uint32_t receiveQueue) {
    zel::rtm::addressTo(message, ZEL_MRTM_MSG_CLEAR, ClearMessage::size, address, receiveQueue);
    ClearMessage::Handle::set(message, clear->handle);
    ClearMessage::Vrf::set(message, clear->vrfId);
    ClearMessage::Sequence::set(message, clear->sequenceWord);
    ClearMessage::Family::set(message, static_cast<uint32_t>(clear->family));
    return static_cast<int>(ClearMessage::size);
}

int zelMrtmParseClear(const void *message, int length, zelMrtmRequest *clear) {
    if (!hasHeader(message, length, ClearMessage::size)) return 1;
    *clear = {};
    clear->type = IpcHeader::MessageType::get(message);
    clear->handle = ClearMessage::Handle::get(message);
    clear->vrfId = ClearMessage::Vrf::get(message);
    clear->sequenceWord = ClearMessage::Sequence::get(message);
    clear->family = static_cast<int>(ClearMessage::Family::get(message));
    return clear->type == ZEL_MRTM_MSG_CLEAR && isFamily(clear->family) ? 0 : 1;
}
