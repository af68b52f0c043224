// Messages of the multicast route table manager's client, and what that manager sends by itself.
#include <cstdlib>

#include "tests/wire/wire.h"
#include "zel/ipc.h"
#include "zel/mrtm.h"

using zel::test::Wire;

namespace {

constexpr std::uint32_t handle = 0xc1c2c3c4, vrf = 0xd1d2d3d4, value = 0xb1b2b3b4;
const zelIpcAddr us = {Wire::service, Wire::key, 0, 0xa5a5a5a5, 0xeeeeeeee};

// The manager runs on the peer, and the task table has us somewhere else than we are: the send paths put that right.
void enterTasks() {
    zelTmeSetTaskEntry(ZEL_MRTM_SERVICE, 0, ZEL_TME_REMOTE, Wire::peer);
    zelTmeSetTaskEntry(Wire::service, 0, ZEL_TME_REMOTE, 0xc0000203);
}

std::uint32_t queue() {
    enterTasks();
    std::uint32_t number = 0;
    zelSwpQueueCreate(
        Wire::service, Wire::instance, ZEL_MRTM_SERVICE, 0, 0, 0, 1, 1, [](void *, int) {}, &number);
    // Not zeroed: what leaves was written.
    swpFifoQueue[number] = {[](std::uint32_t bytes) { return memset(malloc(bytes), 0x5a, bytes); }, free};
    return number;
}

// Nobody answers: a request that was sent fails after its 25 seconds.
template <class Call, class... Arguments>
bool isUnanswered(Call call, Arguments... arguments) {
    enterTasks();
    return call(arguments...) == 1;
}

template <class Register>
bool registers(Register call, std::uint32_t clientType, const char *name) {
    static std::uint32_t unused;
    return isUnanswered(call, clientType, 0xf1f2f3f4, name, &unused, &us);
}

// Every byte of the addresses and words differs from its neighbours.
zelMrtmRoute route(std::uint32_t kind) {
    zelMrtmRoute made{};
    std::uint8_t next = 1;
    for (std::uint8_t *address : {made.group, made.source, made.rendezvous, made.upstream})
        for (int i = 0; i < 16; ++i) address[i] = next++;
    for (std::uint8_t &byte : made.opaque) byte = next++;
    made.flags = 0x91929308;
    made.state = ZEL_MRTM_STATE_ACTIVE;
    made.listKind = kind;
    made.vrfId = vrf;
    made.ifIndex = 0xe1e2e3e4;
    made.lists[0][0] = 0x81;
    made.lists[0][105] = 0x13;  // port channel 129, and VLANs 3 and 4
    made.lists[1][617] = 0x10;
    return made;
}

bool update(int family, std::uint32_t operation, std::uint32_t kind, int routes = 1) {
    const std::uint32_t to = queue();
    const zelMrtmRoute made = route(kind);
    std::uint8_t record[ZEL_MRTM_ROUTE_LENGTH_V6];
    void *pending = nullptr;
    for (int i = 0; i < routes; ++i) {
        zelMrtmWriteRoute(family, &made, record);
        if (zelMrtmUpdateRouteIPv4(family, handle, operation, record, &pending, &us, to) != 0) return false;
    }
    return zelMrtmUpdateRouteIPv4(family, handle, operation, nullptr, &pending, &us, to) == 0;
}

template <class Fill>
bool sends(Fill fill) {
    std::uint8_t message[ZEL_MRTM_MAX_MESSAGE] = {};
    return zelIpcNonGuaranteedSend(Wire::key, message, fill(message)) == 0;
}

const Wire rows[] = {
    {"mrtm_register", [] { return registers(zelMrtmRegister, 5, "short"); }},
    {"mrtm_register_type_8", [] { return registers(zelMrtmRegister, 8, "a name of 20 letters"); }},
    {"mrtm_register_acl", [] { return registers(zelMrtmAclRegister, 8, "sixteen letters!"); }},
    {"mrtm_register_async", [] { return registers(zelMrtmRegisterAsync, 5, "short"); }},
    {"mrtm_register_agent",
     [] {
         enterTasks();
         return zelMrtmResAgtRegisterAsyncRspQ(5, 0xf1f2f3f4, "agent", &us) == 0;
     }},
    {"mrtm_deregister", [] { return isUnanswered(zelMrtmDeregister, handle, &us); }},
    {"mrtm_update_v4", [] { return update(ZEL_MRTM_IPV4, ZEL_MRTM_ADD, ZEL_MRTM_LISTS_OF_ALL); }},
    {"mrtm_update_v4_two", [] { return update(ZEL_MRTM_IPV4, ZEL_MRTM_CHANGE, ZEL_MRTM_LIST_OF_PORTS, 2); }},
    {"mrtm_update_v6", [] { return update(ZEL_MRTM_IPV6, ZEL_MRTM_DELETE, 9); }},
    {"mrtm_flush", [] { return zelMrtmFlushRoutesSwp(handle, &us, queue()) == 0; }},
    {"mrtm_clear_send", [] { return zelMrtmClearSend(ZEL_MRTM_IPV6, handle, &us, queue(), vrf) == 0; }},
    {"mrtm_clear_ack", [] { return zelMrtmClearIpRouteSwpAck(ZEL_MRTM_IPV4, handle, &us, queue(), value) == 0; }},
    {"mrtm_clear_ack_v6", [] { return zelMrtmClearIpRouteSwpAck(ZEL_MRTM_IPV6, handle, &us, queue(), value) == 0; }},
    {"mrtm_span_vlans",
     [] {
         std::uint32_t begun[IFM_VLAN_BITMAP_WORDS] = {0x01020304}, ended[IFM_VLAN_BITMAP_WORDS] = {};
         ended[127] = 0xf1f2f3f4;
         ended[128] = 0xffffffff;  // VLAN 4096, which the message does not have
         return zelMrtmKxlSendSpanVlanMsg(handle, &us, queue(), begun, ended) == 0;
     }},
    {"mrtm_query",
     [] {
         const zelMrtmRoute of = route(1);
         zelMrtmQuery query{handle, ZEL_MRTM_IPV4, vrf, {}, {}, 1};
         std::copy_n(of.group, 16, query.group);
         std::copy_n(of.source, 16, query.source);
         std::uint8_t response[ZEL_MRTM_QUERY_ANSWER_LENGTH];
         return isUnanswered(mrtmBuildAndSendQueryMsg, &query, &us, static_cast<void *>(response));
     }},
    {"mrtm_query_answer",
     [] {
         return sends([](std::uint8_t *message) {
             zelMrtmRoute found = route(1);
             ifmCompressIFList(found.lists[0]);
             const zelMrtmQuery query{handle, ZEL_MRTM_IPV4, vrf, {}, {}, 0};
             return zelMrtmAnswerQuery(message, &query, &found);
         });
     }},
    {"mrtm_clear",
     [] {
         return sends([](std::uint8_t *message) {
             const zelMrtmRequest clear{0, handle, ZEL_MRTM_IPV6, vrf, value};
             return zelMrtmBuildClear(message, &clear, Wire::peer, zel_getQueueId(76, 0, 1));
         });
     }},
    {"mrtm_counters",
     [] {
         static std::uint64_t counters[ZEL_MRTM_COUNTERS];
         return isUnanswered(zelMrtmGetCounters, &us, counters);
     }},
};

}  // namespace
