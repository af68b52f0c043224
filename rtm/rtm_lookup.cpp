// Look-ups: synchronous ones, and polls whose answers come to the client's request queue.
#include <cstring>

#include "base/assertion.h"
#include "rtm/route_record.h"
#include "rtm/rtm_message.h"
#include "zel/kernel.h"

namespace zel::rtm {
namespace {

constexpr char tooMany[] = "%s: number of routes %d %d too high for rtmh %d mlen %d q %d Lookup Request discarded\r\n";

bool isSubcommand(std::uint32_t value) {
    return value == ZEL_RTM_POLL_START || value == ZEL_RTM_POLL_STOP;
}

void traceLookup(std::uint32_t type, std::uint32_t handle, std::uint32_t vrf) {
    if (isDebugging(debugLookups))
        zelTracePrintf(traceModule, "RTM look-up type %#x rtmh %d vrf %u\r\n", type, static_cast<int>(handle), vrf);
}

int lookUp(std::uint32_t type, std::uint32_t handle, std::uint32_t subcommand, const zelIpcAddr *ipc, std::uint32_t vrf,
           void *query, void *tlvArea) {
    if (!asserted(query, "query", sourceName)) return 1;
    const std::size_t length = tlvArea ? LookupMessage::sizeWithTlv : LookupMessage::size;
    std::uint8_t message[LookupMessage::sizeWithTlv] = {};
    LookupMessage::Handle::set(message, handle);
    LookupMessage::Subcommand::set(message, subcommand);
    LookupMessage::Vrf::set(message, vrf);
    LookupMessage::One::set(message, 1);
    std::memcpy(message + LookupMessage::query, query, Query::size);
    traceLookup(type, handle, vrf);
    const int received = sendAndReceive(message, type, length, length, ipc);
    if (received < static_cast<int>(length) || IpcHeader::Status::get(message) != 0) return 1;
    std::memcpy(query, message + LookupMessage::query, Query::size);
    if (tlvArea) std::memcpy(tlvArea, message + LookupMessage::size, ZEL_RTM_TLV_AREA);
    return 0;
}

// `queries` are `length` bytes.
int sendPoll(std::uint32_t type, std::uint32_t handle, std::uint32_t subcommand, std::uint32_t queue, std::uint32_t vrf,
             std::uint32_t count, const void *queries, std::size_t length) {
    traceLookup(type, handle, vrf);
    return sendQueued(queue, type, PollMessage::query + length, handle, [&](std::uint8_t *message) {
        PollMessage::Subcommand::set(message, subcommand);
        PollMessage::Vrf::set(message, vrf);
        PollMessage::Count::set(message, count);
        std::memcpy(message + PollMessage::query, queries, length);
    });
}

int pollMany(const char *function, std::uint32_t startType, std::uint32_t stopType, std::uint32_t handle,
             std::uint32_t subcommand, std::uint32_t queue, std::uint32_t vrf, int count, const void *queries) {
    const std::size_t size = PollMessage::query + Query::head * static_cast<std::size_t>(count > 0 ? count : 0);
    if (count < 1 || count > ZEL_RTM_MAX_MULTI_POLL || !queries) {
        zelErrorPrintf(traceModule, tooMany, function, count, ZEL_RTM_MAX_MULTI_POLL, static_cast<int>(handle),
                       static_cast<int>(size), static_cast<int>(queue));
        return 1;
    }
    const std::uint32_t type = subcommand == ZEL_RTM_POLL_STOP ? stopType : startType;
    return sendPoll(type, handle, subcommand, queue, vrf, static_cast<std::uint32_t>(count), queries,
                    size - PollMessage::query);
}

}  // namespace
}  // namespace zel::rtm

using namespace zel::rtm;

int zelRtmBuildQuery(void *query, uint32_t match, int family, const void *address, uint32_t bits) {
    if (!isFamily(family) || bits > addressBits(family)) return 1;
    if (match != ZEL_RTM_MATCH_LONGEST && match != ZEL_RTM_MATCH_EXACT) return 1;
    auto *at = static_cast<std::uint8_t *>(query);
    std::memset(at, 0, Query::size);
    Query::Match::set(at, match);
    Query::FamilyIndex::set(at, static_cast<std::uint8_t>(family));
    Query::Bits::set(at, static_cast<std::uint8_t>(bits));
    std::memcpy(at + Query::address, address, addressSize(family));
    return 0;
}

int zelRtmParseAnswer(const void *answer, zelRtmRoute *route, uint32_t *bits) {
    const auto *at = static_cast<const std::uint8_t *>(answer);
    const int family = Query::FamilyIndex::get(at);
    if (Query::Result::get(at) == ZEL_RTM_NOT_FOUND) return ZEL_RTM_NOT_FOUND;
    if (Query::Result::get(at) != ZEL_RTM_FOUND || !isFamily(family)) return -1;
    if (!readRecord(at + Query::head, Query::size - Query::head, family, *route)) return -1;
    if (bits) *bits = Query::Bits::get(at);
    return ZEL_RTM_FOUND;
}

int zelRtmRouteLookupIPv4(uint32_t handle, uint32_t subcommand, const zelIpcAddr *ipc, uint32_t vrfId, void *query) {
    return lookUp(ZEL_RTM_MSG_LOOKUP, handle, subcommand, ipc, vrfId, query, nullptr);
}

int zelRtmRecurRouteLookupIPv4(uint32_t handle, uint32_t subcommand, const zelIpcAddr *ipc, uint32_t vrfId,
                               void *query) {
    return lookUp(ZEL_RTM_MSG_RECURSIVE_LOOKUP, handle, subcommand, ipc, vrfId, query, nullptr);
}

int zelRtmRecurRouteLookupIPv4Tlv(uint32_t handle, uint32_t subcommand, const zelIpcAddr *ipc, uint32_t vrfId,
                                  void *query, void *tlvArea) {
    if (!zel::asserted(tlvArea, "tlvArea", sourceName)) return 1;
    return lookUp(ZEL_RTM_MSG_RECURSIVE_LOOKUP_TLV, handle, subcommand, ipc, vrfId, query, tlvArea);
}

int zelRtmRecurRouteLookupIPv6(uint32_t handle, uint32_t subcommand, const zelIpcAddr *ipc, uint32_t vrfId,
                               void *query) {
    return lookUp(ZEL_RTM_MSG_RECURSIVE_LOOKUP_V6, handle, subcommand, ipc, vrfId, query, nullptr);
}

int zelRtmPollRouteLookupIPv4(uint32_t handle, uint32_t subcommand, const zelIpcAddr *, uint32_t queue, uint32_t vrfId,
                              const void *query) {
    if (!zel::asserted(query, "query", sourceName)) return 1;
    const uint32_t match = Query::Match::get(query);
    if (!isSubcommand(subcommand) || (match != ZEL_RTM_MATCH_LONGEST && match != ZEL_RTM_MATCH_EXACT))
        zelErrorPrintf(traceModule, "RTM %s %d rtmh %p q %d subcmd is %d route-subcmd %d\r\n", __func__, __LINE__,
                       reinterpret_cast<void *>(static_cast<std::uintptr_t>(handle)), static_cast<int>(queue),
                       static_cast<int>(subcommand), static_cast<int>(match));
    return sendPoll(ZEL_RTM_MSG_POLL, handle, subcommand, queue, vrfId, 1, query, Query::size);
}

int zelRtmPollMultiRouteLookupIPv4(uint32_t handle, uint32_t subcommand, const zelIpcAddr *, uint32_t queue,
                                   uint32_t vrfId, int count, const void *queries) {
    return pollMany(__func__, ZEL_RTM_MSG_MULTI_POLL, ZEL_RTM_MSG_MULTI_POLL_STOP, handle, subcommand, queue, vrfId,
                    count, queries);
}

int zelRtmPollMultiRouteLookupIPv6(uint32_t handle, uint32_t subcommand, const zelIpcAddr *, uint32_t queue,
                                   uint32_t vrfId, int count, const void *queries) {
    return pollMany(__func__, ZEL_RTM_MSG_MULTI_POLL_V6, ZEL_RTM_MSG_MULTI_POLL_V6_STOP, handle, subcommand, queue,
                    vrfId, count, queries);
}
