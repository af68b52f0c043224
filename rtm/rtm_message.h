// Layouts of the messages between route table manager and clients, and how the client sends them.
#pragma once

#include <cstdint>

#include "rtm/client.h"

namespace zel::rtm {

struct RegistrationMessage {
    using Handle = wire::Field<std::uint32_t, 60>;
    static constexpr std::size_t name = 64;
    using ClientType = wire::Field<std::uint32_t, 108>;
    using Scope = wire::Field<std::uint32_t, 116>;  // address family or VRF
    using ReceiveQueue = wire::Field<std::uint32_t, 128>;
    using Service = wire::Field<std::uint32_t, 132>;
    using TaskKey = wire::Field<std::uint32_t, 136>;
    using Instance = wire::Field<std::uint32_t, 140>;
    using Spare = wire::Field<std::uint32_t, 144>;
    using Option = wire::Field<std::uint16_t, 160>;
    static constexpr std::size_t size = 168;
};

// Requests with a handle behind the header and few words.
struct ShortMessage {
    using Handle = wire::Field<std::uint32_t, 60>;
    using Family = wire::Field<std::uint32_t, 64>;  // deregistration of a family
    using Option = wire::Field<std::uint32_t, 64>;  // redistribution; qualifier kind
    using QualifierValue = wire::Field<std::uint32_t, 68>;
    using TargetFamily = wire::Field<std::uint32_t, 68>;
    using Value = wire::Field<std::uint32_t, 72>;
    static constexpr std::size_t deregisterSize = 64;
    static constexpr std::size_t deregisterFamilySize = 68;
    static constexpr std::size_t qualifierSize = 72;
    static constexpr std::size_t redistributionSize = 76;
};

struct ClearMessage {
    using Handle = wire::Field<std::uint32_t, 60>;
    using Vrf = wire::Field<std::uint32_t, 64>;
    using Sequence = wire::Field<std::uint32_t, 68>;
    static constexpr std::size_t size = 72;
};

// Queued messages: behind the IPC header come the sliding-window header and two words of queue lists.
struct QueuedMessage {
    using Option = wire::Field<std::uint32_t, 128>;  // redistribution rules, which no queue list carries
    using Handle = wire::Field<std::uint32_t, 132>;
    using Vrf136 = wire::Field<std::uint32_t, 136>;
    using Vrf140 = wire::Field<std::uint32_t, 140>;
    static constexpr std::size_t deleteRulesSize = 136;
    static constexpr std::size_t flushSize = 140;
    static constexpr std::size_t flushVrfSize = 144;
    static constexpr std::size_t restartSize = 176;
};

struct ClearAckMessage {
    using One = wire::Field<std::uint32_t, 144>;
    using Family = wire::Field<std::uint32_t, 148>;
    using Sequence = wire::Field<std::uint32_t, 152>;
    static constexpr std::size_t size = 180;
};

struct IsisTagMessage {
    static constexpr std::size_t prefix = 140;
    static constexpr std::size_t mask = 144;
    using Tag = wire::Field<std::uint32_t, 148>;
    using Level = wire::Field<std::uint32_t, 152>;
    static constexpr std::size_t size = 164;
};

struct DefaultInfoMessage {
    using Family = wire::Field<std::uint32_t, 136>;
    using Vrf = wire::Field<std::uint32_t, 140>;
    using Originate = wire::Field<std::uint32_t, 144>;
    using Metric = wire::Field<std::uint32_t, 148>;
    static constexpr std::size_t size = 152;
};

struct BatchMessage {
    using Handle = wire::Field<std::uint32_t, 132>;
    using HandleAgain = wire::Field<std::uint32_t, 136>;
    using Routes = wire::Field<std::uint32_t, 140>;
    using Source = wire::Field<std::uint8_t, 144>;
    using FamilyIndex = wire::Field<std::uint8_t, 145>;
    static constexpr std::size_t routes = 148;
    static constexpr std::size_t capacity = ZEL_RTM_MAX_MESSAGE;
    static constexpr std::size_t threshold4 = 6338;
    static constexpr std::size_t threshold6 = 5802;
};

// The head of a query; the answer's record stands behind it.
struct Query {
    using Match = wire::Field<std::uint32_t, 0>;
    using FamilyIndex = wire::Field<std::uint8_t, 4>;
    using Bits = wire::Field<std::uint8_t, 5>;
    using Result = wire::Field<std::uint16_t, 6>;
    static constexpr std::size_t address = 8;
    static constexpr std::size_t head = ZEL_RTM_QUERY_HEAD;
    static constexpr std::size_t size = ZEL_RTM_QUERY_LENGTH;
};

struct LookupMessage {
    using Handle = wire::Field<std::uint32_t, 60>;
    using Subcommand = wire::Field<std::uint32_t, 64>;
    using Vrf = wire::Field<std::uint32_t, 68>;
    using One = wire::Field<std::uint32_t, 72>;
    static constexpr std::size_t query = 76;
    static constexpr std::size_t size = query + Query::size;
    using TlvLength = wire::Field<std::uint16_t, size>;
    static constexpr std::size_t sizeWithTlv = size + ZEL_RTM_TLV_AREA;
};
static_assert(LookupMessage::size == 1972 && LookupMessage::sizeWithTlv == 2488);

struct PollMessage {
    using Subcommand = wire::Field<std::uint32_t, 136>;
    using Vrf = wire::Field<std::uint32_t, 140>;
    using Count = wire::Field<std::uint32_t, 144>;
    using Index = wire::Field<std::uint32_t, 148>;  // in answers
    static constexpr std::size_t query = 152;
    static constexpr std::size_t size = query + Query::size;
};
static_assert(PollMessage::size == 2048);
static_assert(PollMessage::query + ZEL_RTM_MAX_MULTI_POLL * Query::head <= ZEL_RTM_MAX_MESSAGE);

struct DumpMessage {
    using FamilyIndex = wire::Field<std::uint32_t, 60>;
    using Vrf = wire::Field<std::uint32_t, 64>;
    using Bits = wire::Field<std::uint32_t, 68>;
    static constexpr std::size_t prefix = 72;
    using Records = wire::Field<std::uint32_t, 88>;
    static constexpr std::size_t records = 92;
    static constexpr std::uint32_t fromTheStart = 255;
};

struct ClientMessage {
    using Cursor = wire::Field<std::uint32_t, 60>;
    using Handle = wire::Field<std::uint32_t, 64>;
    static constexpr std::size_t name = 68;
    using ClientType = wire::Field<std::uint32_t, 108>;
    using Address = wire::Field<std::uint32_t, 112>;
    using ReceiveQueue = wire::Field<std::uint32_t, 116>;
    using FactCount = wire::Field<std::uint32_t, 120>;
    static constexpr std::size_t facts = 124;
    static constexpr std::size_t factSize = 12;
    static constexpr std::size_t questionSize = 64;
    static constexpr std::size_t largest = facts + ZEL_RTM_MAX_CLIENT_FACTS * factSize;
};

constexpr char sourceName[] = "rtm_api";
constexpr std::uint32_t traceModule = 51;  // RTM

enum Debug : std::uint32_t {
    debugBatches = 0x1,
    debugLookups = 0x2,
    debugFailures = 0x4,
    debugEveryRoute = 0x1000,
};

inline bool isDebugging(Debug what) {
    return (rtmapidebug & what) != 0;
}

// Header of a request to the manager: everything but what the send path stamps. False when the manager's address is not
// known; the rest is filled all the same.
bool buildIpcHeader(void *message, std::uint32_t type, std::size_t length);

// Sends a request and waits for its answer, which replaces it; bytes received, at most `room`, or -1.
int sendAndReceive(void *message, std::uint32_t type, std::size_t length, std::size_t room, const zelIpcAddr *ipc);
// The same for requests whose answer is a status alone: 0 when that is 0.
int request(void *message, std::uint32_t type, std::size_t length, const zelIpcAddr *ipc);

// A zeroed buffer with the header filled, and the handle where queued messages have it.
std::uint8_t *makeQueued(std::uint32_t queue, std::uint32_t type, std::size_t length, std::uint32_t handle);
// Makes one and puts it on the queue, with what `fill` writes into the message: 0 or 1.
template <class Fill>
int sendQueued(std::uint32_t queue, std::uint32_t type, std::size_t length, std::uint32_t handle, Fill fill) {
    std::uint8_t *message = makeQueued(queue, type, length, handle);
    if (!message) return 1;
    fill(message);
    return enqueue(queue, message, length, sourceName);
}

}  // namespace zel::rtm
