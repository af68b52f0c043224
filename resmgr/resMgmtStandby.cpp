// At the standby: it believes the primary. An entry is as the message says, and whoever else has its index loses it.
// Requests come along without their cookies, so that they are answered after a switch-over too.
#include "resmgr/sync.h"

namespace zel::resmgr {
namespace {

// One request stands for all of the primary's.
void takeRequest(const zelResSync &message, zelResEntry *entry) {
    std::uint8_t flags = 0;
    if ((message.flags & ZEL_RES_SYNC_PENDING) != 0) {
        if (entry->refCount > 0) flags |= ZEL_RES_PENDING_LOCAL;
        if (entry->isKxlRequest) flags |= ZEL_RES_PENDING_REMOTE;
    }
    dropRequests(message.db, entry, (ZEL_RES_PENDING_LOCAL | ZEL_RES_PENDING_REMOTE) & ~unsigned{flags});
    bool isNew;
    if (flags != 0 && (!entry->pending || entry->pending->flags != flags))
        queueRequest(message.client->clientId, message.db, entry, nullptr, 0, flags, isNew);
}

// Somebody wants the entry, and it has an index unless it waits.
bool isSound(const zelResSync &message) {
    constexpr unsigned holders = unsigned{ZEL_RES_SYNC_KXL_HELD} | ZEL_RES_PEER_HELD | ZEL_RES_DELETING;
    const bool isWanted = message.units > 0 || (message.flags & holders) != 0;
    const bool mayLackIndex = (message.flags & (ZEL_RES_WAITING | ZEL_RES_DELETING)) != 0;
    return isWanted && (message.index != -1 || mayLackIndex);
}

zelResDbParams readParams(const std::uint8_t *message) {
    zelResDbParams params = {};
    params.databaseId = SyncHeader::Database::get(message);
    std::memcpy(params.name, message + SyncConfig::name, ZEL_RES_NAME_SIZE);
    params.flags = SyncConfig::Flags::get(message);
    params.keyLength = SyncConfig::KeyLength::get(message);
    params.startIndex = asIndex(SyncConfig::Start::get(message));
    params.endIndex = asIndex(SyncConfig::End::get(message));
    params.size = asIndex(SyncConfig::Size::get(message));
    params.peerFlags = SyncConfig::PeerFlags::get(message);
    return params;
}

bool hasRange(const zelResDb *db, std::int32_t start, std::int32_t end) {
    const zelResRange *range = rangeOf(db, start);
    return range && range->start == start && range->end == end;
}

int createAsTold(std::uint32_t clientId, const zelResDbParams &params) {
    const int result = resMgmtLibProcDbCreate(clientId, &params, params.startIndex, params.endIndex);
    if (result != ZEL_RES_OK && result != ZEL_RES_NO_INDEX_YET) return refuse();
    if (gResMgrTcb.copying[ZEL_RES_LINK_HA] != 0) gaResMgmtDb[params.databaseId]->stateFlags |= ZEL_RES_DB_INCOMPLETE;
    return ZEL_RES_OK;
}

}  // namespace

int takeConfig(const std::uint8_t *message, std::uint32_t length) {
    if (length != SyncConfig::size || !std::memchr(message + SyncConfig::name, 0, ZEL_RES_NAME_SIZE)) return refuse();
    const zelResDbParams params = readParams(message);
    if (params.size > 0 && std::int64_t{params.endIndex} - params.startIndex + 1 != params.size) return refuse();
    zelResDb *db = databaseAt(params.databaseId);
    if (!db) return createAsTold(SyncHeader::Client::get(message), params);
    if (db->params.keyLength != params.keyLength || db->params.peerFlags != params.peerFlags) return refuse();
    if (params.size <= 0 || hasRange(db, params.startIndex, params.endIndex)) return ZEL_RES_OK;
    const int isInitial = SyncConfig::IsInitial::get(message);
    const int result = resMgmtLibInitFreeIndexList(db, params.startIndex, params.endIndex, isInitial, nullptr);
    return result == ZEL_RES_OK ? ZEL_RES_OK : refuse();
}

int takeObject(const zelResSync &message) {
    zelResDb *db = message.db;
    if (message.status == ZEL_RES_SYNC_GONE) {
        if (zelResEntry *entry = find(message)) discard(db, entry);
        return ZEL_RES_OK;
    }
    if (!isSound(message) || isTakenByHand(db, message.index)) return refuse();
    zelResEntry *entry = findOrFile(message);
    if (!entry) return ZEL_RES_ERROR;
    entry->word1 = message.key.word1;
    entry->word2 = message.key.word2;
    entry->refCount = entry->haRefCount = message.units;
    entry->request = message.request;
    if (asIndex(entry->request - gResMgrTcb.requests) > 0) gResMgrTcb.requests = entry->request;
    entry->isKxlRequest = (message.flags & ZEL_RES_SYNC_KXL_HELD) != 0;
    entry->kxlUnits = entry->isKxlRequest;
    entry->statusFlag = message.flags & (ZEL_RES_STALE - 1);
    if (message.index == -1)
        freeIndexOf(db, entry);
    else
        moveTo(db, entry, message.index);
    takeRequest(message, entry);
    return ZEL_RES_OK;
}

}  // namespace zel::resmgr
