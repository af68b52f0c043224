// Requests that wait for an index: of clients here, and of the KXL peer.
//
// A request stands in its database's list, in the order in which requests came, and in a chain at its entry, so that
// neither an answer nor a deletion walks the list. While its callbacks run it is marked as visited, and whoever removes
// it leaves that to the visitor: callbacks may add and delete as they like.
//
// The standby is told of an index before the request's owner is, and again when the request has been answered. A
// process that takes over between the two answers once more; no request is lost and no index unknown.
#include "resmgr/sync.h"

namespace zel::resmgr {
namespace {

constexpr std::uint8_t askedFor = ZEL_RES_PENDING_LOCAL | ZEL_RES_PENDING_REMOTE;
constexpr std::uint8_t visited = 0x80;

using Request = zelResPending;

Request *asRequest(zelDLLNode *node) {
    return reinterpret_cast<Request *>(node);
}

Request *firstOf(zelResDb *db) {
    return asRequest(zelDLLGetFirst(&db->pending));
}
Request *nextOf(zelResDb *db, Request *request) {
    return asRequest(zelDLLGetNext(&db->pending, &request->node));
}

const void *cookieOf(const Request *request) {
    return request->cookieLen > 0 ? request + 1 : nullptr;
}

Request *findRequest(const zelResEntry *entry, std::uint32_t clientId, const void *cookie, std::uint32_t length) {
    Request *request = entry->pending;
    while (request && (request->clientId != clientId || request->cookieLen != length ||
                       (length > 0 && std::memcmp(request + 1, cookie, length) != 0)))
        request = request->nextOfEntry;
    return request;
}

void unchain(Request *request) {
    Request **place = &request->entry->pending;
    while (*place != request) place = &(*place)->nextOfEntry;
    *place = request->nextOfEntry;
    request->entry = nullptr;
}

// Takes a request off its entry, and out of the list unless its visitor does so.
void dismiss(zelResDb *db, Request *request) {
    unchain(request);
    if (request->flags & visited) return;
    zelDLLRemove(&db->pending, &request->node);
    release(*db, request);
}

// False when the request is gone, perhaps with its entry.
bool serveLocally(zelResDb *db, Request *request, const zelResClient *client) {
    if ((request->flags & ZEL_RES_PENDING_LOCAL) == 0) return true;
    request->flags &= static_cast<std::uint8_t>(~ZEL_RES_PENDING_LOCAL);
    if (client->pendingServed) client->pendingServed(db, request->entry, cookieOf(request), request->cookieLen);
    return request->entry != nullptr;
}

bool servePeer(zelResDb *db, Request *request, const zelResClient *client) {
    if ((request->flags & ZEL_RES_PENDING_REMOTE) == 0) return true;
    resMgmtLibKxlSyncObjEntry(db, request->entry);
    request->flags &= static_cast<std::uint8_t>(~ZEL_RES_PENDING_REMOTE);
    if (client->remoteAllocated) client->remoteAllocated(db, request->entry, nullptr, 0);
    return request->entry != nullptr;
}

// Runs what a visited request asks for. False when it is gone; a request that asks for nothing any more is taken off
// its entry.
bool serve(zelResDb *db, Request *request, const zelResClient *client) {
    if (!serveLocally(db, request, client) || !servePeer(db, request, client)) return false;
    if ((request->flags & askedFor) == 0) unchain(request);
    return true;
}

Request *leave(zelResDb *db, Request *request) {
    Request *next = nextOf(db, request);
    request->flags &= static_cast<std::uint8_t>(~visited);
    if (!request->entry) {
        zelDLLRemove(&db->pending, &request->node);
        release(*db, request);
    }
    return next;
}

// False when there is no index for the entry.
bool allocateIndex(zelResDb *db, zelResClient *client, zelResEntry *entry) {
    std::int32_t index;
    if (resMgmtLibGetFreeObjectIndex(db, client, &index) != ZEL_RES_OK) return false;
    return fileIndex(db, entry, index);
}

// When the KXL peer asked it hears with its answer, else now.
void tellOfIndex(zelResDb *db, zelResEntry *entry) {
    if (entry->isKxlRequest)
        resMgmtLibHASyncObjEntry(db, entry);
    else
        announce(db, entry);
}

// One request of a client that may allocate; false when the rest has to wait.
bool process(zelResDb *db, Request *request, zelResClient *client) {
    zelResEntry *entry = request->entry;
    const bool isNew = entry->objectIndex == -1;
    if (isNew && !allocateIndex(db, client, entry)) return false;
    clear(entry, ZEL_RES_WAITING);
    if (isNew) tellOfIndex(db, entry);
    if (isNew && (entry->pending != request || request->nextOfEntry)) db->hasAnswerable = 1;
    request->flags |= visited;
    if (serve(db, request, client)) resMgmtLibHASyncObjEntry(db, entry);
    return true;
}

// Null for a client that is gone or may not allocate, and for a request that is being answered further out.
zelResClient *allocatorOf(zelResDb *db, const Request *request) {
    zelResClient *client = (request->flags & visited) ? nullptr : clientAt(request->clientId);
    return client && rmLibCanLocalAllocateObjIndex(client, db) == 1 ? client : nullptr;
}

bool isFull(const zelResDb *db) {
    return db->cfgInfo.used_count >= db->cfgInfo.capacity;
}

}  // namespace

int queueRequest(std::uint32_t clientId, zelResDb *db, zelResEntry *entry, const void *cookie, std::uint32_t cookieLen,
                 std::uint8_t flags, bool &isNew) {
    Request *request = findRequest(entry, clientId, cookie, cookieLen);
    isNew = !request;
    if (request) {
        request->flags |= flags & askedFor;
        ++db->pendingDuplicates;
        return ZEL_RES_OK;
    }
    if (cookieLen > UINT32_MAX - sizeof(Request)) return ZEL_RES_NO_MEMORY;
    request = static_cast<Request *>(allocate(*db, ZEL_RES_TAG_PENDING, sizeof(Request) + cookieLen));
    if (!request) return ZEL_RES_NO_MEMORY;
    request->entry = entry;
    request->cookieLen = cookieLen;
    request->clientId = static_cast<std::uint8_t>(clientId);
    request->flags = flags & askedFor;
    if (cookieLen > 0) std::memcpy(request + 1, cookie, cookieLen);
    Request **end = &entry->pending;
    while (*end) end = &(*end)->nextOfEntry;
    *end = request;
    zelDLLInsertAtBack(&db->pending, &request->node);
    ++db->pendingAdded;
    return ZEL_RES_OK;
}

void dropRequests(zelResDb *db, zelResEntry *entry, unsigned flags) {
    for (Request *request = entry->pending; request;) {
        Request *next = request->nextOfEntry;
        request->flags &= static_cast<std::uint8_t>(~flags);
        if ((request->flags & askedFor) == 0) dismiss(db, request);
        request = next;
    }
}

void serveEntry(zelResDb *db, zelResEntry *entry) {
    while (Request *request = entry->pending) {
        if (request->flags & visited) return;
        const zelResClient *client = clientAt(request->clientId);
        request->flags |= visited;
        const bool isThere = serve(db, request, client);
        const bool isAnswered = !request->entry;
        leave(db, request);
        if (!isThere) return;
        resMgmtLibHASyncObjEntry(db, entry);
        if (!isAnswered) return;
    }
}

void serveRequests(zelResDb *db) {
    resMgmtLibProcessPendingRequests(db);
    if (!db->hasAnswerable || db->isServing) return;
    db->isServing = 1;
    db->hasAnswerable = 0;
    for (Request *request = firstOf(db); request;) {
        zelResClient *client = allocatorOf(db, request);
        const bool isAnswerable = client && request->entry->objectIndex != -1;
        if (isAnswerable) process(db, request, client);
        request = isAnswerable ? leave(db, request) : nextOf(db, request);
    }
    db->isServing = 0;
}

}  // namespace zel::resmgr

using namespace zel::resmgr;

int resMgmtLibAddPendingReq(uint32_t clientId, zelResDb *db, zelResEntry *entry, const void *cookie, uint32_t cookieLen,
                            uint8_t flags) {
    if (!clientAt(clientId) || !db || !entry || (cookieLen > 0 && !cookie)) return ZEL_RES_ERROR;
    bool isNew = false;
    const int result = queueRequest(clientId, db, entry, cookie, cookieLen, flags, isNew);
    if (!isNew || result != ZEL_RES_OK) return result;
    resMgmtLibHASyncObjEntry(db, entry);
    if (isSecondary(db) && is(entry, ZEL_RES_WAITING) && !is(entry, ZEL_RES_DELETING)) sendAddRequest(db, entry);
    return ZEL_RES_OK;
}

void resMgmtLibProcessPendingRequests(zelResDb *db) {
    if (!db || db->isServing || !rmLibIsLocalObjIndexAvail(db)) return;
    db->isServing = 1;
    for (Request *request = firstOf(db); request;) {
        if (zelResClient *client = allocatorOf(db, request)) {
            if (!process(db, request, client)) break;
            request = leave(db, request);
        } else {
            request = nextOf(db, request);
        }
        if (isFull(db)) break;
    }
    db->isServing = 0;
}
