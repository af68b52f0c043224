// The two switches of a pair.
//
// The secondary believes the primary about indexes, and itself about references. It hands out an index only when the
// primary has said that it knows of the reference (ZEL_RES_SYNC_KXL_HELD), also where it sees the primary's own entry
// already; and an entry that it let go of keeps its index until the primary has confirmed, because until then the index
// may be in use there. One that is wanted again meanwhile is asked for when the confirmation has come. An index that it
// has handed out and the primary does not know of is offered again; the primary takes it or answers with another one.
// Every question has a number that its answer repeats: one to a question that was asked and given up before is not
// taken for the answer to the next.
//
// The primary believes the secondary about its references alone. Requests may come again: the number of references is
// absolute, so nothing is counted twice.
#include "resmgr/sync.h"

namespace zel::resmgr {
namespace {

bool isHandedOut(const zelResEntry *entry) {
    return entry->refCount > 0 && entry->objectIndex != -1 && !is(entry, ZEL_RES_WAITING);
}

void notifyChange(zelResDb *db, zelResEntry *entry) {
    if ((db->params.flags & ZEL_RES_DB_NOTIFY) == 0) return;
    std::uint8_t digest[ZEL_RES_DIGEST_SIZE];
    std::memcpy(digest, entry->digest, sizeof digest);
    for (const zelResLink *link = db->clients; link; link = link->next) {
        if (DigestTree::find(db->entriesByDigest, digest) != entry) return;  // a callback deleted it
        if (link->client->indexChanged) link->client->indexChanged(db, entry);
    }
}

// An entry whose index is not valid any more asks for one, and its owners learn of that.
void waitAgain(zelResDb *db, zelResEntry *entry) {
    ++gResMgrTcb.conflicts;
    set(entry, ZEL_RES_WAITING);
    numberRequest(db, entry);
    resMgmtLibAddPendingReq(clientOf(db, entry)->clientId, db, entry, nullptr, 0, ZEL_RES_PENDING_LOCAL);
    notifyChange(db, entry);
}

// ---- At the secondary -----------------------------------------------------------------------------------------------

// The primary has the entry no longer, or never had.
void loseObject(zelResDb *db, zelResEntry *entry) {
    if (entry->refCount == 0) return remove(db, entry);
    clear(entry, ZEL_RES_PEER_HELD | ZEL_RES_STALE);
    if (!isHandedOut(entry)) return withdraw(db, entry);
    resMgmtLibHASyncObjEntry(db, entry);
    sendAddRequest(db, entry);
}

// The primary knows that the entry is ours.
void takeOurs(zelResDb *db, zelResEntry *entry, bool hasMoved) {
    if (entry->refCount == 0 || is(entry, ZEL_RES_DELETING)) {
        const bool isAsked = is(entry, ZEL_RES_DELETING);
        set(entry, ZEL_RES_DELETING);
        if (!isAsked) numberRequest(db, entry);
        resMgmtLibHASyncObjEntry(db, entry);
        if (!isAsked) sendDeleteRequest(db, entry);
        return;
    }
    clear(entry, ZEL_RES_WAITING);
    resMgmtLibHASyncObjEntry(db, entry);
    if (hasMoved) {
        ++gResMgrTcb.conflicts;
        return notifyChange(db, entry);
    }
    serveEntry(db, entry);
}

// The primary has the entry, and does not know that it is ours too, if it is.
void takeTheirs(zelResDb *db, zelResEntry *entry, bool hasMoved) {
    resMgmtLibHASyncObjEntry(db, entry);
    if (hasMoved)
        waitAgain(db, entry);
    else if (isHandedOut(entry))
        sendAddRequest(db, entry);
}

// ---- At the primary -------------------------------------------------------------------------------------------------

// The secondary's references go. False when the entry went with them.
bool dropHold(zelResDb *db, zelResEntry *entry) {
    entry->isKxlRequest = 0;
    entry->kxlUnits = 0;
    clear(entry, ZEL_RES_STALE);
    dropRequests(db, entry, ZEL_RES_PENDING_REMOTE);
    if (entry->refCount == 0) {
        remove(db, entry);
        return false;
    }
    resMgmtLibHASyncObjEntry(db, entry);
    return true;
}

// The index that the secondary has already, if that is free here, else any.
int giveToPeer(const zelResSync &message, zelResEntry *entry) {
    zelResDb *db = message.db;
    set(entry, ZEL_RES_WAITING);
    if (resMgmtLibAddPendingReq(message.client->clientId, db, entry, nullptr, 0, ZEL_RES_PENDING_REMOTE) !=
        ZEL_RES_OK) {
        dropHold(db, entry);
        return ZEL_RES_ERROR;
    }
    const bool isAdopted = message.index != -1 && giveIndex(db, entry, message.index);
    if (isAdopted) clear(entry, ZEL_RES_WAITING);
    resMgmtLibHASyncObjEntry(db, entry);
    isAdopted ? serveEntry(db, entry) : serveRequests(db);
    return ZEL_RES_OK;
}

void answerDeletion(const zelResSync &message, const zelResEntry *entry) {
    zelResSync answer = message;
    const bool isThere = entry && entry->objectIndex != -1;
    answer.index = isThere ? entry->objectIndex : -1;
    answer.status = isThere ? ZEL_RES_SYNC_PRESENT : ZEL_RES_SYNC_GONE;
    answer.flags = 0;
    answer.units = 0;
    sendEntry(ZEL_RES_LINK_KXL, ZEL_RES_SYNC_DEL_RESP, answer);
}

}  // namespace

void withdraw(zelResDb *db, zelResEntry *entry) {
    const bool wasHandedOut = isHandedOut(entry);
    freeIndexOf(db, entry);
    clear(entry, ZEL_RES_PEER_HELD | ZEL_RES_STALE);
    set(entry, ZEL_RES_WAITING);
    resMgmtLibHASyncObjEntry(db, entry);
    if (wasHandedOut) waitAgain(db, entry);
}

void dropUnconfirmed(zelResDb *db) {
    const bool isPrimarySwitch = allocatesHere(db);
    forEachEntry(db, [&](zelResEntry *entry) {
        if (!is(entry, ZEL_RES_STALE)) return;
        isPrimarySwitch ? void(dropHold(db, entry)) : loseObject(db, entry);
    });
    if (isPrimarySwitch) serveRequests(db);
}

}  // namespace zel::resmgr

using namespace zel::resmgr;

int resMgmtLibProcObjAddReqFromKxlPeer(const zelResSync *message) {
    if (!message || !message->db || !message->client) return ZEL_RES_ERROR;
    if (message->units == 0 || message->status != ZEL_RES_SYNC_PRESENT) return refuse();
    zelResDb *db = message->db;
    zelResEntry *entry = findOrFile(*message);
    if (!entry) return ZEL_RES_ERROR;
    entry->isKxlRequest = 1;
    entry->kxlUnits = message->units;
    entry->request = message->request;
    clear(entry, ZEL_RES_STALE);
    set(entry, ZEL_RES_MARKED);
    if (entry->objectIndex != -1) {
        resMgmtLibHASyncObjEntry(db, entry);
        resMgmtLibKxlSyncObjEntry(db, entry);
        return ZEL_RES_OK;
    }
    return giveToPeer(*message, entry);
}

int resMgmtLibProcObjDelReqFromKxlPeer(const zelResSync *message) {
    if (!message || !message->db || !message->client) return ZEL_RES_ERROR;
    zelResEntry *entry = find(*message);
    if (entry && !dropHold(message->db, entry)) entry = nullptr;
    answerDeletion(*message, entry);
    serveRequests(message->db);
    return ZEL_RES_OK;
}

int resMgmtLibProcObjAddRespFromKxlPeer(const zelResSync *message) {
    if (!message || !message->db || !message->client) return ZEL_RES_ERROR;
    zelResDb *db = message->db;
    if (message->status == ZEL_RES_SYNC_GONE) {
        if (zelResEntry *entry = find(*message)) loseObject(db, entry);
        return ZEL_RES_OK;
    }
    if (message->index == -1 || isTakenByHand(db, message->index)) return refuse();
    zelResEntry *entry = findOrFile(*message);
    if (!entry) return ZEL_RES_ERROR;
    const bool hasMoved = isHandedOut(entry) && entry->objectIndex != message->index;
    moveTo(db, entry, message->index);
    clear(entry, ZEL_RES_STALE);
    set(entry, ZEL_RES_PEER_HELD);
    entry->statusFlag |= message->flags & ZEL_RES_MARKED;
    const bool isAnswer = message->request == entry->request || entry->refCount == 0 || is(entry, ZEL_RES_DELETING);
    isAnswer && (message->flags & ZEL_RES_SYNC_KXL_HELD) ? takeOurs(db, entry, hasMoved)
                                                         : takeTheirs(db, entry, hasMoved);
    return ZEL_RES_OK;
}

int resMgmtLibProcObjDelRespFromKxlPeer(const zelResSync *message) {
    if (!message || !message->db) return ZEL_RES_ERROR;
    zelResDb *db = message->db;
    const bool isGone = message->status == ZEL_RES_SYNC_GONE;
    if (!isGone && (message->index == -1 || isTakenByHand(db, message->index))) return refuse();
    zelResEntry *entry = find(*message);
    if (!entry || !is(entry, ZEL_RES_DELETING) || entry->request != message->request) return ZEL_RES_OK;
    clear(entry, ZEL_RES_DELETING | ZEL_RES_STALE);
    if (isGone && entry->refCount == 0) {
        remove(db, entry);
        return ZEL_RES_OK;
    }
    if (isGone) {
        freeIndexOf(db, entry);
        clear(entry, ZEL_RES_PEER_HELD);
    } else {
        moveTo(db, entry, message->index);
        set(entry, ZEL_RES_PEER_HELD);
    }
    if (entry->refCount > 0) numberRequest(db, entry);
    resMgmtLibHASyncObjEntry(db, entry);
    if (entry->refCount > 0) sendAddRequest(db, entry);
    return ZEL_RES_OK;
}

int resMgmtLibClearKxlPeerDependencies(zelResDb *db) {
    if (!db || !isPrimary()) return ZEL_RES_ERROR;
    forEachEntry(db, [db](zelResEntry *entry) {
        clear(entry, ZEL_RES_PEER_HELD | ZEL_RES_DELETING | ZEL_RES_STALE);
        if (is(entry, ZEL_RES_WAITING)) freeIndexOf(db, entry);
        dropHold(db, entry);
    });
    serveRequests(db);
    return ZEL_RES_OK;
}
