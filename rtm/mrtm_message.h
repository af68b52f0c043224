// Layouts of the messages between multicast route table manager and clients, and how the client sends them.
#pragma once

#include "rtm/client.h"
#include "zel/mrtm.h"

namespace zel::mrtm {

using ipc::IpcHeader;

struct RegistrationMessage {
    using Handle = wire::Field<std::uint32_t, 60>;
    static constexpr std::size_t name = 64;
    using ClientType = wire::Field<std::uint32_t, 84>;
    using Argument = wire::Field<std::uint32_t, 88>;
    using ReceiveQueue = wire::Field<std::uint32_t, 92>;
    using Service = wire::Field<std::uint32_t, 96>;
    using TaskKey = wire::Field<std::uint32_t, 100>;
    using Instance = wire::Field<std::uint32_t, 104>;
    using Spare = wire::Field<std::uint32_t, 108>;
    using Extra = wire::Field<std::uint32_t, 112>;
    static constexpr std::size_t size = 128;
};

struct DeregistrationMessage {
    using Handle = wire::Field<std::uint32_t, 60>;
    static constexpr std::size_t size = 64;
};

// Records begin three bytes before the end of what counts as the head, so three zero bytes follow the last one.
struct BatchMessage {
    using Handle = wire::Field<std::uint32_t, 128>;
    using Routes = wire::Field<std::uint32_t, 136>;
    using FamilyIndex = wire::Field<std::uint8_t, 140>;
    static constexpr std::size_t records = 141;
    static constexpr std::size_t head = 144;
    static constexpr std::size_t capacity = ZEL_MRTM_MAX_MESSAGE;
    static constexpr std::uint32_t mostRoutes = MRTM_MAX_REQS;
};
using OperationWord = wire::Field<std::uint32_t, 0>;
constexpr std::size_t operationSize = 4;

struct FlushMessage {
    using Handle = wire::Field<std::uint32_t, 124>;
    static constexpr std::size_t size = 128;
};

struct ClearSendMessage {
    using Handle = wire::Field<std::uint32_t, 128>;
    using Family = wire::Field<std::uint32_t, 132>;
    using Vrf = wire::Field<std::uint32_t, 136>;
    static constexpr std::size_t size = 140;
};

struct ClearAckMessage {
    using Handle = wire::Field<std::uint32_t, 128>;
    using One = wire::Field<std::uint32_t, 140>;
    using Sequence = wire::Field<std::uint32_t, 148>;
    static constexpr std::size_t size = 192;
};

struct ClearMessage {
    using Handle = wire::Field<std::uint32_t, 60>;
    using Vrf = wire::Field<std::uint32_t, 64>;
    using Sequence = wire::Field<std::uint32_t, 68>;
    using Family = wire::Field<std::uint32_t, 72>;
    static constexpr std::size_t size = 76;
};

struct SpanVlanMessage {
    using Handle = wire::Field<std::uint32_t, 128>;
    static constexpr std::size_t begun = 144;
    static constexpr std::size_t mapWords = 128;
    static constexpr std::size_t ended = begun + mapWords * 4;
    static constexpr std::size_t size = ended + mapWords * 4;
};
static_assert(SpanVlanMessage::size == 1168);

struct QueryMessage {
    using Handle = wire::Field<std::uint32_t, 60>;
    using Family = wire::Field<std::uint32_t, 64>;
    using Vrf = wire::Field<std::uint32_t, 68>;
    static constexpr std::size_t group = 72;
    static constexpr std::size_t source = 88;
    using List = wire::Field<std::uint32_t, 104>;
    static constexpr std::size_t size = 132;
    static constexpr std::size_t bitmap = 64;  // of the answer
    static constexpr std::size_t answerSize = bitmap + IFM_IFLIST_BYTES;
};
static_assert(QueryMessage::answerSize == ZEL_MRTM_QUERY_ANSWER_LENGTH);

// A record is four addresses, and behind them the same 1320 bytes in both families.
constexpr bool isFamily(int family) {
    return family == ZEL_MRTM_IPV4 || family == ZEL_MRTM_IPV6;
}
constexpr std::size_t addressSize(int family) {
    return family == ZEL_MRTM_IPV6 ? 16 : 4;
}
struct RecordTail {
    using Flags = wire::Field<std::uint32_t, 0>;
    using State = wire::Field<std::uint32_t, 4>;
    using ListKind = wire::Field<std::uint32_t, 8>;
    using Vrf = wire::Field<std::uint32_t, 12>;
    using Interface = wire::Field<std::uint32_t, 16>;
    static constexpr std::size_t opaque = 20;
    static constexpr std::size_t opaqueSize = 60;
    static constexpr std::size_t lists = 80;
    static constexpr std::size_t size = lists + 2 * IFM_IFLIST_BYTES;
};
constexpr std::size_t tailOffset(int family) {
    return 4 * addressSize(family);
}
constexpr std::size_t recordSize(int family) {
    return tailOffset(family) + RecordTail::size;
}
static_assert(recordSize(ZEL_MRTM_IPV4) == ZEL_MRTM_ROUTE_LENGTH);
static_assert(recordSize(ZEL_MRTM_IPV6) == ZEL_MRTM_ROUTE_LENGTH_V6);
constexpr std::size_t batchSize(int family, std::size_t routes) {
    return BatchMessage::head + routes * (operationSize + recordSize(family));
}
static_assert(batchSize(ZEL_MRTM_IPV6, BatchMessage::mostRoutes) <= BatchMessage::capacity);

constexpr std::uint32_t updateType(int family) {
    return family == ZEL_MRTM_IPV6 ? ZEL_MRTM_MSG_UPDATE_V6 : ZEL_MRTM_MSG_UPDATE;
}
constexpr bool isOperation(std::uint32_t operation) {
    return operation >= ZEL_MRTM_ADD && operation <= ZEL_MRTM_CHANGE;
}
constexpr bool isListKind(std::uint32_t kind) {
    return kind == ZEL_MRTM_LISTS_OF_ALL || kind == ZEL_MRTM_LIST_OF_PORTS;
}

constexpr char sourceName[] = "mrtm_api";
constexpr std::uint32_t traceModule = 83;  // MRTM

// Whether the message is a batch whose count and family agree with its length.
bool isBatch(const void *message, std::size_t length);

// Header of a request to the manager, from the caller's own entry in the task table and its receive queue. False when
// the manager's address is not known; the rest is filled all the same.
bool buildIpcHeader(void *message, std::uint32_t type, std::size_t length, const zelIpcAddr &ipc);
std::uint32_t receiveQueueOf(const zelIpcAddr &ipc);
// Sends a request and waits for its answer, which replaces it; bytes received, at most `room`, or -1.
int sendAndReceive(void *message, std::uint32_t type, std::size_t length, std::size_t room, const zelIpcAddr *ipc);

// A message of zeros with its header; null without memory or address.
std::uint8_t *makeQueued(std::uint32_t queue, std::uint32_t type, std::size_t length, const zelIpcAddr *ipc);
// Makes one and puts it on the queue, with what `fill` writes into it: 0 or 1.
template <class Fill>
int sendQueued(std::uint32_t queue, std::uint32_t type, std::size_t length, const zelIpcAddr *ipc, Fill fill) {
    std::uint8_t *message = makeQueued(queue, type, length, ipc);
    if (!message) return 1;
    fill(message);
    return rtm::enqueue(queue, message, length, sourceName);
}

}  // namespace zel::mrtm
