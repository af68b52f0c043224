// Synchronisation messages of resource indexes. They have no IPC header of their own: the transport of this test puts
// them into the network as they are.
#include <cstring>

#include "tests/wire/wire.h"
#include "zel/resmgr.h"

using zel::test::Wire;

namespace {

constexpr std::uint8_t key[5] = {0xe1, 0xe2, 0xe3, 0xe4, 0xe5};
int peerRole = 1;

int carry(const void *message, std::uint32_t length) {
    const auto *bytes = static_cast<const std::uint8_t *>(message);
    Wire::network().sent.push_back({0, 0, 0, 0, {bytes, bytes + length}});
    return 0;
}

int ignore(const void *, std::uint32_t) {
    return 0;
}

zelResDb *database() {
    return gaResMgmtDb[3];
}

// A client with a database, of which messages on one link are looked at; the last one is the row's.
bool sends(int watched, int role, void (*body)()) {
    peerRole = role;
    resMgmtLibTerminate();
    resMgmtLibRegisterClient(
        2, 175, 0, nullptr, nullptr, nullptr, nullptr, nullptr, [] { return peerRole; }, nullptr, nullptr, 0, 0, 0);
    const zelResDbParams params = {3, "a database", 0, sizeof key, 100, 199, 100, ZEL_RES_PEER_AWARE};
    if (resMgmtLibProcDbCreate(2, &params, 100, 199) != 0) return false;
    gResMgrTcb.sent[watched] = 0x51525354;
    gResMgrTcb.requests = 0x61626364;
    resMgmtLibSetTransport(watched == ZEL_RES_LINK_HA ? carry : ignore, watched == ZEL_RES_LINK_KXL ? carry : ignore);
    body();
    resMgmtLibTerminate();
    return true;
}

void add() {
    const zelResKey wanted = {key, sizeof key, 0x71727374, 0x81828384};
    std::int32_t index;
    resMgmtApiAddObject(2, 3, &wanted, nullptr, 0, &index);
}

void remove() {
    resMgmtApiDelObject(2, 3, key, sizeof key);
}

// What the other switch asked: its own message comes back to us in the other role.
void askAsPeer(bool thenDelete) {
    peerRole = ZEL_RES_KXL_SECONDARY;
    add();
    if (thenDelete) remove();
    auto question = Wire::network().sent.back().bytes;
    peerRole = 1;
    resMgmtLibClearKxlPeerDependencies(database());
    if (!thenDelete) remove();
    Wire::network().sent.clear();
    resMgmtLibRecvSync(question.data(), static_cast<std::uint32_t>(question.size()), ZEL_RES_LINK_KXL);
}

constexpr int ha = ZEL_RES_LINK_HA, kxl = ZEL_RES_LINK_KXL, secondary = ZEL_RES_KXL_SECONDARY;

const Wire rows[] = {
    {"res_add_request", [] { return sends(kxl, secondary, add); }},
    {"res_add_response", [] { return sends(kxl, 1, [] { askAsPeer(false); }); }},
    {"res_delete_request",
     [] {
         return sends(kxl, secondary, [] {
             add();
             remove();
         });
     }},
    {"res_delete_response", [] { return sends(kxl, 1, [] { askAsPeer(true); }); }},
    {"res_object", [] { return sends(ha, 1, add); }},
    {"res_object_gone",
     [] {
         return sends(ha, 1, [] {
             add();
             remove();
         });
     }},
    {"res_object_to_peer", [] { return sends(kxl, 1, add); }},
    {"res_object_waiting", [] { return sends(ha, secondary, add); }},
    {"res_database", [] { return sends(ha, 1, [] { resMgmtLibHASyncDbCfg(database()); }); }},
    {"res_all_begin",
     [] {
         return sends(ha, 1, [] {
             resMgmtLibSyncAllDataToPeer(ZEL_RES_LINK_HA);
             Wire::network().sent.resize(1);
         });
     }},
    {"res_all_wanted", [] { return sends(kxl, 1, [] { resMgmtLibRequestAllData(ZEL_RES_LINK_KXL); }); }},
    {"res_all_end",
     [] {
         return sends(kxl, 1, [] {
             add();
             remove();
             resMgmtLibSyncAllDataToPeer(ZEL_RES_LINK_KXL);
         });
     }},
};

}  // namespace
