// Messages of the route table manager's client, and what the manager sends by itself.
#include <cstdlib>
#include <cstring>

#include "tests/wire/wire.h"
#include "zel/ipc.h"
#include "zel/rtm.h"

using zel::test::Wire;

namespace {

constexpr std::uint32_t handle = 0xc1c2c3c4;
constexpr std::uint32_t vrf = 0xd1d2d3d4;
const zelIpcAddr us = {61, Wire::key, 0, 0xa5a5a5a5, 0xeeeeeeee};
const std::uint32_t value = 0xb1b2b3b4;

// A new queue to the manager.
std::uint32_t queue() {
    std::uint32_t number = 0;
    zelSwpQueueCreate(
        Wire::service, Wire::instance, ZEL_RTM_SERVICE, 0, 0, 0, 1, 1, [](void *, int) {}, &number);
    swpFifoQueue[number] = {[](std::uint32_t bytes) { return calloc(1, bytes); }, free};
    return number;
}

// Nobody answers: a request that was sent fails after its 25 seconds.
bool isUnanswered(int result) {
    return result == 1;
}

std::uint32_t newHandle = 0;

// Every byte of the route differs from its neighbours; the second hop and the TLV bytes follow the first.
zelRtmRoute route(int family, std::uint16_t hops, std::uint16_t tlvLength) {
    static std::uint8_t tlv[8];
    const auto count = [](std::uint8_t *bytes, int size, unsigned from) {
        for (int i = 0; i < size; ++i) bytes[i] = static_cast<std::uint8_t>(from++);
    };
    const int size = family == ZEL_RTM_IPV6_UNICAST ? 16 : 4;
    zelRtmRoute made{};
    count(tlv, 8, 0xe0);
    count(made.prefix, size, 0x10);
    count(made.mask, size, 0x30);
    count(made.opaque, sizeof made.opaque, 0xa0);
    for (unsigned hop = 0; hop < hops; ++hop) {
        count(made.hop[hop].addr, size, 0x50 + 32 * hop);
        made.hop[hop].ifIndex = 0x91929394 + hop;
        count(made.hop[hop].rest, 8, 0xc0);
    }
    made.vrfId = vrf;
    made.nNextHops = hops;
    made.tlvLen = tlvLength;
    made.protocol = 0x21;
    made.distance = 0x22;
    made.flags = 0x2324;
    made.metric = 0x25262728;
    made.tag = 0x292a2b2c;
    made.tlv = tlv;
    return made;
}

bool update(std::uint32_t operation, int family, std::uint16_t hops, std::uint16_t tlvLength) {
    const zelRtmRoute made = route(family, hops, tlvLength);
    return zelRtmUpdateRoute(handle, operation, &made, nullptr, &us, queue(), 0x77, family, nullptr, vrf) == 0;
}

const void *query(int family, std::uint32_t match = ZEL_RTM_MATCH_LONGEST) {
    static std::uint8_t bytes[ZEL_RTM_QUERY_LENGTH];
    const std::uint8_t address[16] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};
    zelRtmBuildQuery(bytes, match, family, address, 24);
    return bytes;
}
void *question(int family) {
    return const_cast<void *>(query(family));
}

// ---- Registration ---------------------------------------------------------------------------------------------------

constexpr char name[] = "a name of more than forty characters, cut";

template <class Register>
bool registers(Register call, std::uint32_t clientType) {
    return isUnanswered(call(clientType, 0xf1f2f3f4, name, &newHandle, &us));
}

const Wire registrations[] = {
    {"rtm_register", [] { return registers(zelRtmRegister, 5); }},
    {"rtm_register_26", [] { return registers(zelRtmRegister, 26); }},
    {"rtm_register_af", [] { return registers(zelRtmRegisterAddrFamily, 5); }},
    {"rtm_register_fib", [] { return registers(zelRtmFibRegister, 5); }},
    {"rtm_register_non_rt", [] { return registers(zelRtmRegisterNonRtProtoClient, 5); }},
    {"rtm_register_vrf", [] { return registers(zelRtmRegister_vrf, 5); }},
    {"rtm_register_af_vrf", [] { return registers(zelRtmRegisterAddrFamily_vrf, 5); }},
    {"rtm_register_v4v6", [] { return registers(zelRtmV4V6Register, 5); }},
    {"rtm_register_one_way", [] { return zelRtmSendRegister(5, 1, "short", &us) == 0; }},
    {"rtm_register_one_way_26", [] { return zelRtmSendRegister(26, 1, "short", &us) == 0; }},
    {"rtm_deregister", [] { return isUnanswered(zelRtmDeregister(handle, &us)); }},
    {"rtm_deregister_v4v6", [] { return isUnanswered(zelRtmV4V6Deregister(handle, &us)); }},
    {"rtm_deregister_af", [] { return isUnanswered(zelRtmDeregisterAddrFamily(handle, 2, &us)); }},
    {"rtm_qualifier", [] { return isUnanswered(zelRtmRegisterClientQualifier(handle, 3, value, &us)); }},
    {"rtm_qualifier_off", [] { return isUnanswered(zelRtmDeRegisterClientQualifier(handle, 3, value, &us)); }},
};

// ---- Updates and look-ups -------------------------------------------------------------------------------------------

const Wire updates[] = {
    {"rtm_update_v4", [] { return update(ZEL_RTM_ADD, ZEL_RTM_IPV4_UNICAST, 1, 0); }},
    {"rtm_update_v4_2hops_tlv", [] { return update(ZEL_RTM_DELETE, ZEL_RTM_IPV4_UNICAST, 2, 5); }},
    {"rtm_update_v4_multicast", [] { return update(ZEL_RTM_ADD, ZEL_RTM_IPV4_MULTICAST, 1, 0); }},
    {"rtm_update_v6_2hops_tlv", [] { return update(ZEL_RTM_ADD, ZEL_RTM_IPV6_UNICAST, 2, 8); }},
    {"rtm_update_pending",
     [] {
         void *pending = nullptr;
         const zelRtmRoute made = route(0, 0, 0);
         const std::uint32_t to = queue();
         for (std::uint32_t operation : {ZEL_RTM_ADD, ZEL_RTM_DELETE})
             zelRtmUpdateRoute(handle, operation, &made, &pending, &us, to, 1, 0, nullptr, vrf);
         return zelRtmUpdateRoute(handle, ZEL_RTM_ADD, nullptr, &pending, &us, to, 1, 0, nullptr, vrf) == 0 && !pending;
     }},
    {"rtm_lookup", [] { return isUnanswered(zelRtmRouteLookupIPv4(handle, 1, &us, vrf, question(0))); }},
    {"rtm_lookup_recursive", [] { return isUnanswered(zelRtmRecurRouteLookupIPv4(handle, 2, &us, vrf, question(1))); }},
    {"rtm_lookup_recursive_v6",
     [] { return isUnanswered(zelRtmRecurRouteLookupIPv6(handle, 1, &us, vrf, question(2))); }},
    {"rtm_lookup_recursive_tlv",
     [] {
         std::uint8_t area[ZEL_RTM_TLV_AREA];
         return isUnanswered(zelRtmRecurRouteLookupIPv4Tlv(handle, 1, &us, vrf, question(0), area));
     }},
    {"rtm_poll", [] { return zelRtmPollRouteLookupIPv4(handle, 2, &us, queue(), vrf, query(0)) == 0; }},
    {"rtm_poll_multi",
     [] {
         std::uint8_t two[2 * ZEL_RTM_QUERY_HEAD];
         std::memcpy(two, query(0), ZEL_RTM_QUERY_HEAD);
         std::memcpy(two + ZEL_RTM_QUERY_HEAD, query(0, ZEL_RTM_MATCH_EXACT), ZEL_RTM_QUERY_HEAD);
         return zelRtmPollMultiRouteLookupIPv4(handle, 1, &us, queue(), vrf, 2, two) == 0;
     }},
    {"rtm_poll_multi_stop",
     [] { return zelRtmPollMultiRouteLookupIPv4(handle, 2, &us, queue(), vrf, 1, query(0)) == 0; }},
    {"rtm_poll_multi_v6",
     [] { return zelRtmPollMultiRouteLookupIPv6(handle, 1, &us, queue(), vrf, 1, query(2)) == 0; }},
    {"rtm_poll_multi_v6_stop",
     [] { return zelRtmPollMultiRouteLookupIPv6(handle, 2, &us, queue(), vrf, 1, query(2)) == 0; }},
};

// ---- What the manager sends -----------------------------------------------------------------------------------------

std::uint32_t clientQueue() {
    return zel_getQueueId(61, 0, 1);
}

// Sends what `build` makes of a buffer of zeros, whose length it returns.
bool sends(int (*build)(void *message)) {
    std::uint8_t message[ZEL_RTM_MAX_MESSAGE] = {};
    return zelIpcNonGuaranteedSend(Wire::key, message, build(message)) == 0;
}

// ---- Flushes, redistribution, questions -----------------------------------------------------------------------------

const Wire others[] = {
    {"rtm_flush", [] { return isUnanswered(zelRtmFlushRoutes(handle, &us)); }},
    {"rtm_flush_queued", [] { return zelRtmFlushRoutesSwp(handle, &us, queue()) == 0; }},
    {"rtm_flush_queued_multicast", [] { return zelRtmFlushRoutesAFSwp(handle, &us, queue(), 1) == 0; }},
    {"rtm_flush_queued_v6", [] { return zelRtmFlushRoutesAFSwp(handle, &us, queue(), 2) == 0; }},
    {"rtm_flush_vrf", [] { return zelRtmFlushVRFRoutesAFSwp(handle, &us, queue(), vrf, 0) == 0; }},
    {"rtm_flush_vrf_multicast", [] { return zelRtmFlushVRFRoutesAFSwp(handle, &us, queue(), vrf, 1) == 0; }},
    {"rtm_flush_vrf_v6", [] { return zelRtmFlushVRFRoutesAFSwp(handle, &us, queue(), vrf, 2) == 0; }},
    {"rtm_flush_poller", [] { return zelRtmFlushPollerRoutesSwp(handle, &us, queue()) == 0; }},
    {"rtm_flush_poller_multicast", [] { return zelRtmFlushPollerRoutesAFSwp(handle, &us, queue(), 1) == 0; }},
    {"rtm_flush_poller_vrf_v6", [] { return zelRtmFlushPollerVRFRoutesAFSwp(handle, &us, queue(), vrf, 2) == 0; }},
    {"rtm_fib_clear", [] { return isUnanswered(zelRtmFibClear(handle, vrf, &us)); }},
    {"rtm_clear_ack", [] { return zelRtmClearIpRouteSwpAck(handle, &us, queue(), value) == 0; }},
    {"rtm_clear_ack_v6", [] { return zelRtmClearIpRouteSwpAckAF(handle, &us, queue(), value, 2) == 0; }},
    {"rtm_vrf_delete_ack", [] { return zelRtmVrfDeleteAck(handle, &us, queue(), vrf) == 0; }},
    {"rtm_redist", [] { return isUnanswered(zelRtmRedistTgtClientMsg_opts(handle, 9, &us, &value)); }},
    {"rtm_redist_accept", [] { return isUnanswered(zelRtmRedistTgtClientAccept_opts(handle, &us, &value)); }},
    {"rtm_redist_reject_v6", [] { return isUnanswered(zelRtmRedistTgtClientRejectAF_opts(handle, &us, 2, &value)); }},
    {"rtm_redist_delete", [] { return zelRtmRedistDeleteRules(handle, &us, queue()) == 0; }},
    {"rtm_redist_restart", [] { return zelRtmRedistRestart(handle, &us, queue(), vrf) == 0; }},
    {"rtm_isis_tag",
     [] {
         const zelRtmIsisTag tag = {{1, 2, 3, 4}, {5, 6, 7, 8}, 0x11121314, 0x15161718};
         return zelRtmIsisTagInfo(handle, &us, queue(), vrf, &tag) == 0;
     }},
    {"rtm_default_info", [] { return zelRtmUpdateDefaultInfo(handle, &us, queue(), 1, vrf, 1, value) == 0; }},
    {"rtm_default_info_v6", [] { return zelRtmUpdateDefaultInfo(handle, &us, queue(), 2, vrf, 0, value) == 0; }},
    {"rtm_counters",
     [] {
         std::uint64_t counters[ZEL_RTM_COUNTERS];
         return isUnanswered(zelRtmGetCounters(&us, counters));
     }},
    {"rtm_dump",
     [] {
         static zelRtmDump dump;
         zelRtmRoute unused;
         zelRtmDumpBegin(&dump, 2, vrf);
         return zelRtmDumpNext(&dump, &us, &newHandle, &unused) == -1;
     }},
    {"rtm_clients",
     [] {
         std::uint32_t cursor = 5;
         zelRtmClient unused;
         return zelRtmNextClient(&us, &cursor, &unused) == -1;
     }},
    {"rtm_clear",
     [] {
         return sends(
             [](void *message) { return zelRtmBuildClear(message, handle, vrf, value, Wire::peer, clientQueue()); });
     }},
    {"rtm_poll_answer",
     [] {
         return sends([](void *message) {
             const zelRtmQuery asked = {ZEL_RTM_MSG_POLL, handle, 1, vrf, 1, 0, 1, 0, 32, {1, 2, 3, 4}};
             const zelRtmRoute found = route(0, 1, 5);
             return zelRtmBuildPollAnswer(message, &asked, &found, 24, Wire::peer, clientQueue());
         });
     }},
    {"rtm_clients_answer",
     [] {
         return sends([](void *message) {
             const zelRtmClient client = {handle, "name", 61, Wire::peer, 0x1e81, 1, {{4, 2, value}}};
             return zelRtmAnswerClient(message, 6, &client);
         });
     }},
    {"rtm_dump_answer",
     [] {
         return sends([](void *message) {
             zelRtmDumpPage page = {0, vrf, 255, {}, 0, 92};
             const zelRtmRoute shown = route(0, 1, 5);
             return zelRtmDumpAppend(message, &page, handle, &shown) ? zelRtmDumpFinish(message, &page) : 0;
         });
     }},
};

}  // namespace
