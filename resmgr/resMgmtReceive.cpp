// What comes in: a message is checked whole before anything is done - its form, that it fits the database, and that
// this process has the role it is for.
//
// Sequence numbers tell of lost messages; everything is asked for then, once, and again when no copy has begun after a
// while. A copy of which something was lost confirms what it holds and ends nothing.
#include "resmgr/sync.h"

namespace zel::resmgr {
namespace {

constexpr std::uint32_t askAgainAfter = 64;  // messages

bool isFramed(const void *message, std::uint32_t length, int link) {
    return message && (link == ZEL_RES_LINK_HA || link == ZEL_RES_LINK_KXL) && length >= SyncHeader::size &&
           SyncHeader::Magic::get(message) == ZEL_RES_SYNC_MAGIC &&
           SyncHeader::Version::get(message) == ZEL_RES_SYNC_VERSION && SyncHeader::Length::get(message) == length;
}

// The standby has nothing to copy to the primary.
bool mayAsk(int link) {
    return link == ZEL_RES_LINK_KXL || !isPrimary();
}

void noteSequence(std::uint32_t sequence, int link, bool isBegin) {
    zelResTcb &state = gResMgrTcb;
    const bool isNext = sequence == state.received[link] + 1;
    state.received[link] = sequence;
    if (state.asking[link] > 0) --state.asking[link];
    if (isNext) return;
    ++state.gaps[link];
    state.copying[link] = 0;
    if (isBegin || state.asking[link] > 0 || !mayAsk(link)) return;
    state.asking[link] = askAgainAfter;
    resMgmtLibRequestAllData(link);
}

// ---- Entries --------------------------------------------------------------------------------------------------------

// False when the message is malformed or contradicts the database.
bool parse(const std::uint8_t *message, std::uint32_t length, zelResSync &parsed) {
    const zelResDb *db = databaseAt(SyncHeader::Database::get(message));
    parsed.db = databaseAt(SyncHeader::Database::get(message));
    parsed.client = clientAt(SyncHeader::Client::get(message));
    if (!db || !parsed.client || length != SyncBody::sizeWithout + db->params.keyLength) return false;
    const std::uint8_t *key = message + SyncBody::key;
    const std::uint32_t keyLen = SyncBody::KeyLength::get(message);
    if (keyLen != db->params.keyLength) return false;
    parsed.index = asIndex(SyncBody::Index::get(message));
    parsed.status = SyncBody::Status::get(message);
    parsed.flags = SyncBody::Flags::get(message);
    parsed.units = SyncBody::Units::get(message);
    std::memcpy(parsed.digest, message + SyncBody::digest, ZEL_RES_DIGEST_SIZE);
    parsed.key = {key, keyLen, SyncBody::Word1::get(key + keyLen), SyncBody::Word2::get(key + keyLen)};
    parsed.request = SyncBody::Request::get(key + keyLen);
    const zelResEntry *entry = find(parsed);
    return parsed.status <= ZEL_RES_SYNC_GONE && (parsed.flags & ~ZEL_RES_SYNC_FLAGS) == 0 &&
           (parsed.index == -1 || rangeOf(db, parsed.index)) &&
           (!entry || std::memcmp(zelResEntryKey(entry), key, keyLen) == 0);
}

using Handler = int (*)(const zelResSync *message);
struct PeerMessage {
    Handler handle;
    bool isForPrimary;
};

// By subcommand; an object of the primary is taken as an answer is.
constexpr PeerMessage peerMessages[] = {{nullptr, false},
                                        {resMgmtLibProcObjAddReqFromKxlPeer, true},
                                        {resMgmtLibProcObjAddRespFromKxlPeer, false},
                                        {resMgmtLibProcObjDelReqFromKxlPeer, true},
                                        {resMgmtLibProcObjDelRespFromKxlPeer, false},
                                        {resMgmtLibProcObjAddRespFromKxlPeer, false}};

int takeEntry(const std::uint8_t *message, std::uint32_t length, int link) {
    zelResSync parsed;
    if (!parse(message, length, parsed)) return refuse();
    if (link == ZEL_RES_LINK_HA) return isPrimary() ? refuseUntimely() : takeObject(parsed);
    if (!isPeerAware(parsed.db)) return refuse();
    const PeerMessage &kind = peerMessages[SyncHeader::Subcommand::get(message)];
    const bool isTimely = isPrimary() && allocatesHere(parsed.db) == kind.isForPrimary;
    return isTimely ? kind.handle(&parsed) : refuseUntimely();
}

// ---- Marks ----------------------------------------------------------------------------------------------------------

// What the copy has to confirm.
bool isCopied(zelResDb *db, const zelResEntry *entry) {
    if (!isPrimary()) return true;
    return allocatesHere(db) ? entry->isKxlRequest != 0 : is(entry, ZEL_RES_PEER_HELD);
}

void beginCopy(zelResDb *db) {
    if (!isPrimary() && (db->stateFlags & ZEL_RES_DB_COPIED) == 0) db->stateFlags |= ZEL_RES_DB_INCOMPLETE;
    forEachEntry(db, [db](zelResEntry *entry) {
        if (isCopied(db, entry)) set(entry, ZEL_RES_STALE);
    });
}

void endCopy(zelResDb *db, const std::uint8_t *message) {
    if (isPrimary()) return dropUnconfirmed(db);
    forEachEntry(db, [db](zelResEntry *entry) {
        if (is(entry, ZEL_RES_STALE)) discard(db, entry);
    });
    db->lastAllocated = asIndex(SyncBody::Index::get(message));
    db->lastFreed = asIndex(SyncMark::LastFreed::get(message));
    db->currentRange = rangeOf(db, db->lastAllocated);
    db->stateFlags = (db->stateFlags | ZEL_RES_DB_COPIED) & ~unsigned{ZEL_RES_DB_INCOMPLETE};
}

// A copy of a database that is not there yet begins all the same: its parameters come next.
int takeMark(const std::uint8_t *message, int link, bool isBegin) {
    const std::uint8_t databaseId = SyncHeader::Database::get(message);
    zelResDb *db = databaseAt(databaseId);
    const bool comesFromPrimary = link == ZEL_RES_LINK_HA;
    if (databaseId >= ZEL_RES_DATABASES || (!db && !(comesFromPrimary && isBegin))) return refuse();
    if (comesFromPrimary == isPrimary()) return refuseUntimely();
    if (!comesFromPrimary && !isPeerAware(db)) return refuse();
    const bool isWhole = gResMgrTcb.copying[link] == databaseId + 1u;
    gResMgrTcb.copying[link] = isBegin ? databaseId + 1u : 0;
    if (isBegin) gResMgrTcb.asking[link] = 0;
    if (isBegin && db) beginCopy(db);
    if (!isBegin && isWhole) endCopy(db, message);
    return ZEL_RES_OK;
}

int takeBeginOrEnd(const std::uint8_t *message, std::uint32_t length, int link, bool isBegin) {
    if (length != SyncMark::size) return refuse();
    const std::uint8_t status = SyncBody::Status::get(message);
    if (status == ZEL_RES_SYNC_PRESENT) return takeMark(message, link, isBegin);
    if (status != ZEL_RES_SYNC_WANTED || !isBegin) return refuse();
    if (!isPrimary()) return refuseUntimely();
    resMgmtLibSyncAllDataToPeer(link);
    return ZEL_RES_OK;
}

bool isWanted(const std::uint8_t *message, std::uint32_t length) {
    return length == SyncMark::size && SyncBody::Status::get(message) == ZEL_RES_SYNC_WANTED;
}

}  // namespace

int refuse() {
    ++gResMgrTcb.refused;
    return ZEL_RES_ERROR;
}

int refuseUntimely() {
    ++gResMgrTcb.untimely;
    return ZEL_RES_ERROR;
}

zelResEntry *find(const zelResSync &message) {
    return resMgmtLibFindObjectEntry(message.db, message.digest, nullptr);
}

zelResEntry *findOrFile(const zelResSync &message) {
    zelResEntry *entry = find(message);
    if (!entry) fileEntry(message.db, message.digest, message.key, entry);
    return entry;
}

bool isTakenByHand(const zelResDb *db, std::int32_t index) {
    return isIndexUsed(db, index) && !resMgmtLibFindObjectIndex(db, index);
}

void moveTo(zelResDb *db, zelResEntry *entry, std::int32_t index) {
    if (entry->objectIndex == index) return;
    freeIndexOf(db, entry);
    if (zelResEntry *holder = resMgmtLibFindObjectIndex(db, index)) {
        if (isPrimary() && holder->refCount > 0)
            withdraw(db, holder);
        else
            remove(db, holder);
    }
    giveIndex(db, entry, index);
    db->lastAllocated = index;
    db->currentRange = rangeOf(db, index);
}

}  // namespace zel::resmgr

using namespace zel::resmgr;

int resMgmtLibRecvSync(const void *message, uint32_t length, int link) {
    if (!isFramed(message, length, link)) return refuse();
    const auto *bytes = static_cast<const uint8_t *>(message);
    const uint16_t subcommand = SyncHeader::Subcommand::get(bytes);
    const bool isBegin = subcommand == ZEL_RES_SYNC_ALL_BEGIN && !isWanted(bytes, length);
    noteSequence(SyncHeader::Sequence::get(bytes), link, isBegin);
    const bool isPeers = subcommand >= ZEL_RES_SYNC_ADD_REQ && subcommand <= ZEL_RES_SYNC_DEL_RESP;
    if (subcommand == ZEL_RES_SYNC_OBJECT || (isPeers && link == ZEL_RES_LINK_KXL))
        return takeEntry(bytes, length, link);
    if (subcommand == ZEL_RES_SYNC_ALL_BEGIN || subcommand == ZEL_RES_SYNC_ALL_END)
        return takeBeginOrEnd(bytes, length, link, subcommand == ZEL_RES_SYNC_ALL_BEGIN);
    if (subcommand == ZEL_RES_SYNC_DB_CONFIG && link == ZEL_RES_LINK_HA)
        return isPrimary() ? refuseUntimely() : takeConfig(bytes, length);
    trace(errors, "%s(): Invalid KXL Sync subcmd %d.\r\n", __func__, subcommand);
    return refuse();
}
