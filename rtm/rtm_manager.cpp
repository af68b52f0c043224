// The manager's side of the messages: what programs that are the manager read, and what they answer with.
//
// Messages come from anywhere, so every parser checks type and length first, and counts inside a message against the
// bytes received. The layouts are those the client writes with.
#include <cstring>

#include "rtm/route_record.h"
#include "rtm/rtm_message.h"

namespace zel::rtm {
namespace {

bool isRegistration(std::uint32_t type) {
    switch (type) {
        case ZEL_RTM_MSG_REGISTER:
        case ZEL_RTM_MSG_REGISTER_NON_ROUTING:
        case ZEL_RTM_MSG_REGISTER_ONE_WAY:
        case ZEL_RTM_MSG_REGISTER_VRF:
        case ZEL_RTM_MSG_REGISTER_V4V6:
            return true;
        default:
            return false;
    }
}

// Where the small requests keep their words, as byte offsets; nowhere: the field is 0.
constexpr std::uint8_t nowhere = 0;
constexpr std::int8_t inWord = -1;
struct RequestLayout {
    std::uint32_t type;
    std::size_t size;
    std::size_t handle;
    std::int8_t family;  // the type's own, or inWord: at familyAt
    std::size_t familyAt = nowhere;
    std::size_t vrf = nowhere;
    std::size_t option = nowhere;
    std::size_t value = nowhere;
    std::size_t sequence = nowhere;
};

constexpr std::size_t direct = ShortMessage::Handle::offset;
constexpr std::size_t queued = QueuedMessage::Handle::offset;
constexpr std::size_t vrf136 = QueuedMessage::Vrf136::offset;
constexpr std::size_t vrf140 = QueuedMessage::Vrf140::offset;

constexpr RequestLayout deregistration(std::uint32_t type) {
    return {type, ShortMessage::deregisterSize, direct, 0};
}
constexpr RequestLayout qualifier(std::uint32_t type) {
    return {.type = type,
            .size = ShortMessage::qualifierSize,
            .handle = direct,
            .family = 0,
            .option = ShortMessage::Option::offset,
            .value = ShortMessage::QualifierValue::offset};
}
constexpr RequestLayout redistribution(std::uint32_t type) {
    return {.type = type,
            .size = ShortMessage::redistributionSize,
            .handle = direct,
            .family = inWord,
            .familyAt = ShortMessage::TargetFamily::offset,
            .option = ShortMessage::Option::offset,
            .value = ShortMessage::Value::offset};
}
constexpr RequestLayout flush(std::uint32_t type, std::int8_t family) {
    return {type, QueuedMessage::flushSize, queued, family};
}
constexpr RequestLayout pollerFlush(std::uint32_t type, std::int8_t family) {
    return {.type = type, .size = QueuedMessage::flushSize, .handle = queued, .family = family, .vrf = vrf136};
}
constexpr RequestLayout vrfFlush(std::uint32_t type, std::int8_t family) {
    return {.type = type, .size = QueuedMessage::flushVrfSize, .handle = queued, .family = family, .vrf = vrf140};
}
constexpr RequestLayout clearAck(std::uint32_t type) {
    return {.type = type,
            .size = ClearAckMessage::size,
            .handle = queued,
            .family = inWord,
            .familyAt = ClearAckMessage::Family::offset,
            .sequence = ClearAckMessage::Sequence::offset};
}
constexpr RequestLayout defaultInfo(std::uint32_t type) {
    return {.type = type,
            .size = DefaultInfoMessage::size,
            .handle = queued,
            .family = inWord,
            .familyAt = DefaultInfoMessage::Family::offset,
            .vrf = DefaultInfoMessage::Vrf::offset,
            .option = DefaultInfoMessage::Originate::offset,
            .value = DefaultInfoMessage::Metric::offset};
}

constexpr RequestLayout requests[] = {
    deregistration(ZEL_RTM_MSG_DEREGISTER),
    deregistration(ZEL_RTM_MSG_DEREGISTER_V4V6),
    deregistration(ZEL_RTM_MSG_FLUSH),
    {.type = ZEL_RTM_MSG_CLIENTS,
     .size = ClientMessage::questionSize,
     .handle = ClientMessage::Cursor::offset,
     .family = 0},
    {.type = ZEL_RTM_MSG_DEREGISTER_AF,
     .size = ShortMessage::deregisterFamilySize,
     .handle = direct,
     .family = inWord,
     .familyAt = ShortMessage::Family::offset},
    qualifier(ZEL_RTM_MSG_REGISTER_QUALIFIER),
    qualifier(ZEL_RTM_MSG_DEREGISTER_QUALIFIER),
    redistribution(ZEL_RTM_MSG_REDISTRIBUTE),
    redistribution(ZEL_RTM_MSG_REDISTRIBUTE_V6),
    {.type = ZEL_RTM_MSG_FIB_CLEAR,
     .size = RegistrationMessage::size,
     .handle = direct,
     .family = 0,
     .vrf = RegistrationMessage::Scope::offset},
    flush(ZEL_RTM_MSG_FLUSH_QUEUED, ZEL_RTM_IPV4_UNICAST),
    flush(ZEL_RTM_MSG_FLUSH_QUEUED_MULTICAST, ZEL_RTM_IPV4_MULTICAST),
    flush(ZEL_RTM_MSG_FLUSH_QUEUED_V6, ZEL_RTM_IPV6_UNICAST),
    vrfFlush(ZEL_RTM_MSG_FLUSH_VRF, ZEL_RTM_IPV4_UNICAST),
    vrfFlush(ZEL_RTM_MSG_FLUSH_VRF_MULTICAST, ZEL_RTM_IPV4_MULTICAST),
    vrfFlush(ZEL_RTM_MSG_FLUSH_VRF_V6, ZEL_RTM_IPV6_UNICAST),
    pollerFlush(ZEL_RTM_MSG_FLUSH_POLLER, ZEL_RTM_IPV4_UNICAST),
    pollerFlush(ZEL_RTM_MSG_FLUSH_POLLER_MULTICAST, ZEL_RTM_IPV4_MULTICAST),
    pollerFlush(ZEL_RTM_MSG_FLUSH_POLLER_V6, ZEL_RTM_IPV6_UNICAST),
    clearAck(ZEL_RTM_MSG_CLEAR_ACK),
    clearAck(ZEL_RTM_MSG_CLEAR_ACK_AF),
    {.type = ZEL_RTM_MSG_VRF_DELETE_ACK,
     .size = QueuedMessage::flushSize,
     .handle = queued,
     .family = 0,
     .vrf = vrf136},
    {.type = ZEL_RTM_MSG_REDISTRIBUTE_DELETE,
     .size = QueuedMessage::deleteRulesSize,
     .handle = queued,
     .family = 0,
     .option = QueuedMessage::Option::offset},
    {.type = ZEL_RTM_MSG_REDISTRIBUTE_RESTART,
     .size = QueuedMessage::restartSize,
     .handle = queued,
     .family = 0,
     .vrf = vrf136},
    {.type = ZEL_RTM_MSG_ISIS_TAG,
     .size = IsisTagMessage::size,
     .handle = queued,
     .family = 0,
     .vrf = vrf136,
     .option = IsisTagMessage::Level::offset,
     .value = IsisTagMessage::Tag::offset},
    defaultInfo(ZEL_RTM_MSG_DEFAULT_INFO),
    defaultInfo(ZEL_RTM_MSG_DEFAULT_INFO_V6),
};

const RequestLayout *layoutOf(std::uint32_t type) {
    for (const RequestLayout &layout : requests)
        if (layout.type == type) return &layout;
    return nullptr;
}

std::uint32_t wordAt(const void *message, std::size_t offset) {
    return offset == nowhere ? 0 : wire::load<std::uint32_t>(bytesOf(message) + offset);
}

bool isUpdate(std::uint32_t type) {
    return type == ZEL_RTM_MSG_UPDATE || type == ZEL_RTM_MSG_UPDATE_MULTICAST;
}

bool isPoll(std::uint32_t type) {
    return type == ZEL_RTM_MSG_POLL || type == ZEL_RTM_MSG_MULTI_POLL || type == ZEL_RTM_MSG_MULTI_POLL_STOP ||
           type == ZEL_RTM_MSG_MULTI_POLL_V6 || type == ZEL_RTM_MSG_MULTI_POLL_V6_STOP;
}

bool isLookup(std::uint32_t type) {
    return type == ZEL_RTM_MSG_LOOKUP || type == ZEL_RTM_MSG_RECURSIVE_LOOKUP ||
           type == ZEL_RTM_MSG_RECURSIVE_LOOKUP_TLV || type == ZEL_RTM_MSG_RECURSIVE_LOOKUP_V6;
}

std::size_t lookupSize(std::uint32_t type) {
    return type == ZEL_RTM_MSG_RECURSIVE_LOOKUP_TLV ? LookupMessage::sizeWithTlv : LookupMessage::size;
}

// The head of question `index`; null when the message does not have it.
const std::uint8_t *findQuestion(const void *message, int length, std::uint32_t index, zelRtmQuery &query) {
    if (isLookup(query.type) && index == 0 && length >= static_cast<int>(lookupSize(query.type))) {
        query.handle = LookupMessage::Handle::get(message);
        query.subcommand = LookupMessage::Subcommand::get(message);
        query.vrfId = LookupMessage::Vrf::get(message);
        query.count = 1;
        return bytesOf(message) + LookupMessage::query;
    }
    if (!isPoll(query.type) || length < static_cast<int>(PollMessage::query)) return nullptr;
    query.handle = QueuedMessage::Handle::get(message);
    query.subcommand = PollMessage::Subcommand::get(message);
    query.vrfId = PollMessage::Vrf::get(message);
    query.count = PollMessage::Count::get(message);
    const std::size_t room = (static_cast<std::size_t>(length) - PollMessage::query) / Query::head;
    if (index >= query.count || query.count > room) return nullptr;
    return bytesOf(message) + PollMessage::query + index * Query::head;
}

// A route whose TLV bytes are left out when they do not fit.
void writeFound(std::uint8_t *record, const zelRtmRoute &route, int family) {
    constexpr std::size_t room = Query::size - Query::head;
    if (recordSize(route, family) <= room) {
        writeRecord(route, family, route.vrfId, record);
        return;
    }
    writeRecord(route, family, route.vrfId, record, WithTlv::no);
}

}  // namespace
}  // namespace zel::rtm

using namespace zel::rtm;

int zelRtmIsQueued(uint32_t type) {
    const RequestLayout *layout = layoutOf(type);
    return isUpdate(type) || isPoll(type) || (layout && layout->handle == queued);
}

int zelRtmParseRegistration(const void *message, int length, zelRtmRegistration *registration) {
    using Layout = RegistrationMessage;
    if (!hasHeader(message, length, Layout::size)) return 1;
    *registration = {};
    registration->type = IpcHeader::MessageType::get(message);
    if (!isRegistration(registration->type)) return 1;
    registration->handle = Layout::Handle::get(message);
    std::memcpy(registration->name, bytesOf(message) + Layout::name, ZEL_RTM_NAME_LENGTH);
    registration->clientType = Layout::ClientType::get(message);
    registration->scope = Layout::Scope::get(message);
    registration->receiveQueue = Layout::ReceiveQueue::get(message);
    registration->sourceAddress = IpcHeader::SourceAddress::get(message);
    registration->address = {Layout::Service::get(message), Layout::TaskKey::get(message),
                             Layout::Instance::get(message), Layout::Spare::get(message), 0};
    registration->option = Layout::Option::get(message);
    return 0;
}

int zelRtmParseBatch(const void *message, int length, zelRtmBatch *batch) {
    if (!hasHeader(message, length, BatchMessage::routes)) return 1;
    const uint32_t type = IpcHeader::MessageType::get(message);
    const int family = BatchMessage::FamilyIndex::get(message);
    if (!isUpdate(type) || !isFamily(family) ||
        (family == ZEL_RTM_IPV4_MULTICAST) != (type == ZEL_RTM_MSG_UPDATE_MULTICAST))
        return 1;
    batch->handle = BatchMessage::Handle::get(message);
    if (batch->handle != BatchMessage::HandleAgain::get(message)) return 1;
    batch->routes = batch->left = BatchMessage::Routes::get(message);
    batch->source = BatchMessage::Source::get(message);
    batch->family = family;
    batch->message = bytesOf(message);
    batch->offset = BatchMessage::routes;
    batch->record = nullptr;
    batch->recordLength = 0;
    batch->length = static_cast<uint32_t>(length);
    return 0;
}

int zelRtmNextRoute(zelRtmBatch *batch, uint32_t *operation, zelRtmRoute *route) {
    const std::size_t left = batch->length - batch->offset;
    if (batch->left == 0) return left == 0 ? 0 : -1;
    if (left < operationSize) return -1;
    const uint8_t *at = batch->message + batch->offset;
    *operation = OperationWord::get(at);
    if (*operation != ZEL_RTM_ADD && *operation != ZEL_RTM_DELETE) return -1;
    const std::size_t size = readRecord(at + operationSize, left - operationSize, batch->family, *route);
    if (size == 0) return -1;
    batch->record = at + operationSize;
    batch->recordLength = static_cast<uint32_t>(size);
    batch->offset += static_cast<uint32_t>(operationSize + size);
    --batch->left;
    return 1;
}

int zelRtmSerialiseRoute(const zelRtmRoute *route, int family, void *record, size_t room) {
    if (!isFamily(family) || !isValid(*route) || recordSize(*route, family) > room) return -1;
    auto *at = static_cast<uint8_t *>(record);
    return static_cast<int>(writeRecord(*route, family, route->vrfId, at) - at);
}

int zelRtmParseRoute(const void *record, size_t length, int family, zelRtmRoute *route) {
    if (!isFamily(family)) return -1;
    const std::size_t size = readRecord(bytesOf(record), length, family, *route);
    return size ? static_cast<int>(size) : -1;
}

int zelRtmParseRequest(const void *message, int length, zelRtmRequest *request) {
    if (!hasHeader(message, length, IpcHeader::size)) return 1;
    const RequestLayout *layout = layoutOf(IpcHeader::MessageType::get(message));
    if (!layout || length < static_cast<int>(layout->size)) return 1;
    request->type = layout->type;
    request->handle = wordAt(message, layout->handle);
    request->family = layout->family == inWord ? static_cast<int>(wordAt(message, layout->familyAt)) : layout->family;
    request->vrfId = wordAt(message, layout->vrf);
    request->option = wordAt(message, layout->option);
    request->value = wordAt(message, layout->value);
    request->sequenceWord = wordAt(message, layout->sequence);
    return isFamily(request->family) ? 0 : 1;
}

int zelRtmParseQuery(const void *message, int length, uint32_t index, zelRtmQuery *query) {
    if (!hasHeader(message, length, IpcHeader::size)) return 1;
    *query = {};
    query->type = IpcHeader::MessageType::get(message);
    query->index = index;
    const uint8_t *head = findQuestion(message, length, index, *query);
    if (!head) return 1;
    query->match = Query::Match::get(head);
    query->family = Query::FamilyIndex::get(head);
    query->bits = Query::Bits::get(head);
    std::memcpy(query->address, head + Query::address, sizeof query->address);
    return isFamily(query->family) && query->bits <= addressBits(query->family) ? 0 : 1;
}

void zelRtmWriteAnswer(void *answer, const zelRtmQuery *query, const zelRtmRoute *route, uint32_t bits) {
    auto *at = static_cast<uint8_t *>(answer);
    std::memset(at, 0, Query::size);
    Query::Match::set(at, query->match);
    Query::FamilyIndex::set(at, static_cast<uint8_t>(query->family));
    Query::Bits::set(at, static_cast<uint8_t>(route ? bits : query->bits));
    Query::Result::set(at, route ? ZEL_RTM_FOUND : ZEL_RTM_NOT_FOUND);
    std::memcpy(at + Query::address, query->address, sizeof query->address);
    if (route && isValid(*route)) writeFound(at + Query::head, *route, query->family);
}

int zelRtmAnswerRequest(void *message, const zelRtmQuery *query, const zelRtmRoute *route, uint32_t bits,
                        const zelRtmRoute *tlvOf) {
    auto *at = static_cast<uint8_t *>(message);
    zelRtmWriteAnswer(at + LookupMessage::query, query, route, bits);
    IpcHeader::Status::set(at, 0);
    if (query->type == ZEL_RTM_MSG_RECURSIVE_LOOKUP_TLV) {
        std::memset(at + LookupMessage::size, 0, ZEL_RTM_TLV_AREA);
        if (tlvOf && isValid(*tlvOf) && tlvOf->tlvLen > 0) {
            LookupMessage::TlvLength::set(at, tlvOf->tlvLen);
            std::memcpy(at + LookupMessage::TlvLength::end, tlvOf->tlv, tlvOf->tlvLen);
        }
    }
    return static_cast<int>(lookupSize(query->type));
}

int zelRtmBuildPollAnswer(void *message, const zelRtmQuery *query, const zelRtmRoute *route, uint32_t bits,
                          uint32_t address, uint32_t receiveQueue) {
    addressTo(message, query->type, PollMessage::size, address, receiveQueue);
    QueuedMessage::Handle::set(message, query->handle);
    PollMessage::Subcommand::set(message, query->subcommand);
    PollMessage::Vrf::set(message, query->vrfId);
    PollMessage::Count::set(message, query->count);
    PollMessage::Index::set(message, query->index);
    zelRtmWriteAnswer(static_cast<uint8_t *>(message) + PollMessage::query, query, route, bits);
    return static_cast<int>(PollMessage::size);
}

int zelRtmBuildClear(void *message, uint32_t handle, uint32_t vrfId, uint32_t sequenceWord, uint32_t address,
                     uint32_t receiveQueue) {
    addressTo(message, ZEL_RTM_MSG_CLEAR, ClearMessage::size, address, receiveQueue);
    ClearMessage::Handle::set(message, handle);
    ClearMessage::Vrf::set(message, vrfId);
    ClearMessage::Sequence::set(message, sequenceWord);
    return static_cast<int>(ClearMessage::size);
}

int zelRtmParseClear(const void *message, int length, uint32_t *handle, uint32_t *vrfId, uint32_t *sequenceWord) {
    if (!hasHeader(message, length, ClearMessage::size)) return 1;
    if (IpcHeader::MessageType::get(message) != ZEL_RTM_MSG_CLEAR) return 1;
    *handle = ClearMessage::Handle::get(message);
    *vrfId = ClearMessage::Vrf::get(message);
    *sequenceWord = ClearMessage::Sequence::get(message);
    return 0;
}

void zelRtmSetStatus(void *message, uint32_t status) {
    IpcHeader::Status::set(message, status);
}

void zelRtmAnswerRegistration(void *message, uint32_t handle, uint32_t status) {
    RegistrationMessage::Handle::set(message, handle);
    IpcHeader::Status::set(message, status);
}
