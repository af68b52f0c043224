// Clients and databases: registration, creation and joining, and the calls by ids and keys.
//
// A database belongs to no client: its memory comes from the hooks of the client that created it, copied, so that they
// stay the same when that client registers again with others. A client's own record is released as it was allocated.
#include "resmgr/resources.h"

zelResClient *gaResMgmtClientDb[ZEL_RES_CLIENTS];
zelResDb *gaResMgmtDb[ZEL_RES_DATABASES];
zelResTcb gResMgrTcb;
uint32_t gRmLibDebug;
uint32_t gRmKeyDmp;

namespace zel::resmgr {
namespace {

static_assert(sizeof(zelResClient) <= ZEL_RES_CLIENT_SIZE);

struct Hooks {
    zelResAllocFn alloc;
    zelFreeFn release;
};
Hooks clientHooks[ZEL_RES_CLIENTS];  // with which each record was allocated

using Link = zelResLink;

bool addLink(zelResLink *&list, zelResClient *client, zelResDb *db) {
    auto *link = static_cast<Link *>(allocate(*db, ZEL_RES_TAG_LINK, sizeof(Link)));
    if (!link) return false;
    *link = {nullptr, client, db};
    Link **end = &list;
    while (*end) end = &(*end)->next;
    *end = link;
    return true;
}

void removeLink(zelResLink *&list, const zelResClient *client, const zelResDb *db) {
    Link **place = &list;
    while (*place && ((*place)->client != client || (*place)->db != db)) place = &(*place)->next;
    Link *link = *place;
    if (!link) return;
    *place = link->next;
    release(*db, link);
}

bool isLinked(const zelResClient *client, const zelResDb *db) {
    for (const Link *link = db->clients; link; link = link->next)
        if (link->client == client) return true;
    return false;
}

bool linkBothWays(zelResClient *client, zelResDb *db) {
    const int clientId = client->clientId, databaseId = db->params.databaseId;
    if (!addLink(db->clients, client, db)) {
        trace(errors, "%s(): Adding client to Db list failed. Client Id: %d, DB Id: %d.\r\n", "resMgmtLibProcDbCreate",
              clientId, databaseId);
        return false;
    }
    if (addLink(client->databases, client, db)) return true;
    trace(errors, "%s(): Adding Db to client list failed. Client Id: %d, DB Id: %d.\r\n", "resMgmtLibProcDbCreate",
          clientId, databaseId);
    removeLink(db->clients, client, db);
    return false;
}

bool mayCreate(const zelResClient *client, const zelResDbParams &params, std::int32_t start, std::int32_t end) {
    constexpr const char *caller = "resMgmtLibProcDbCreate";
    if (params.databaseId >= ZEL_RES_DATABASES) {
        trace(errors, "%s(): Invalid Resource Id: %d.\r\n", caller, params.databaseId);
        return false;
    }
    if (!client) return false;
    if (params.size > 0 && std::int64_t{end} - start + 1 != params.size) {
        trace(errors, "%s(): size %d mismatch with index range. \r\n", caller, params.size);
        return false;
    }
    if (((params.flags & ZEL_RES_DB_NOTIFY) && !client->indexChanged) ||
        ((params.flags & ZEL_RES_DB_MARKS) && !client->isMarked)) {
        trace(errors, "%s(): Invalid callback function registered.\r\n", caller);
        return false;
    }
    return params.keyLength <= ZEL_RES_MAX_KEY;
}

void releaseEntry(zelResDb *db, zelResEntry *entry) {
    while (zelResPending *request = entry->pending) {
        entry->pending = request->nextOfEntry;
        release(*db, request);
    }
    release(*db, entry);
}

void destroyDatabase(zelResDb *db) {
    while (zelResEntry *entry = db->entriesByDigest) {
        DigestTree::remove(db->entriesByDigest, entry->digest);
        releaseEntry(db, entry);
    }
    for (zelDLLNode *range = zelDLLGetFirst(&db->ranges), *next; range; range = next) {
        next = zelDLLGetNext(&db->ranges, range);
        release(*db, range);
    }
    while (Link *link = db->clients) {
        removeLink(link->client->databases, link->client, db);
        removeLink(db->clients, link->client, db);
    }
    gaResMgmtDb[db->params.databaseId] = nullptr;
    release(*db, db);
}

int join(zelResClient *client, zelResDb *db) {
    if (isLinked(client, db)) {
        trace(events, "%s(): DB Id: %d created by Client ID: %d already.\r\n", "resMgmtLibProcDbCreate",
              db->params.databaseId, client->clientId);
        return ZEL_RES_OK;
    }
    if (!linkBothWays(client, db)) return ZEL_RES_ERROR;
    return zelDLLGetFirst(&db->ranges) ? ZEL_RES_OK : ZEL_RES_NO_INDEX_YET;
}

int fillDatabase(zelResClient *client, zelResDb *db, std::int32_t start, std::int32_t end) {
    if (!linkBothWays(client, db)) return ZEL_RES_ERROR;
    if (db->params.size > 0) return resMgmtLibInitFreeIndexList(db, start, end, 1, nullptr);
    db->stateFlags |= ZEL_RES_DB_WITHOUT_RANGE;
    return ZEL_RES_NO_INDEX_YET;
}

int create(zelResClient *client, const zelResDbParams &params, std::int32_t start, std::int32_t end) {
    auto *db = static_cast<zelResDb *>(allocate(*client, ZEL_RES_TAG_DATABASE, sizeof(zelResDb)));
    if (!db) return ZEL_RES_NO_MEMORY;
    db->params = params;
    db->params.name[ZEL_RES_NAME_SIZE - 1] = '\0';
    zelDLLInit(&db->ranges);
    zelDLLInit(&db->pending);
    db->lastAllocated = db->lastFreed = -1;
    db->alloc = client->alloc;
    db->release = client->release;
    gaResMgmtDb[params.databaseId] = db;
    const int result = fillDatabase(client, db, start, end);
    if (result != ZEL_RES_OK && result != ZEL_RES_NO_INDEX_YET) {
        destroyDatabase(db);
        return result;
    }
    ++gResMgrTcb.databasesCreated;
    resMgmtLibHASyncDbCfg(db);
    return result;
}

}  // namespace

zelResClient *clientAt(std::uint32_t id) {
    return id < ZEL_RES_CLIENTS ? gaResMgmtClientDb[id] : nullptr;
}

zelResDb *databaseAt(std::uint32_t id) {
    return id < ZEL_RES_DATABASES ? gaResMgmtDb[id] : nullptr;
}

bool allocatesHere(zelResDb *db) {
    for (const Link *link = db->clients; link; link = link->next)
        if (link->client->peerRole) return rmLibCanLocalAllocateObjIndex(link->client, db) == 1;
    return isPrimary();
}

bool isSecondary(zelResDb *db) {
    return isPrimary() && isPeerAware(db) && !allocatesHere(db);
}

zelResClient *clientOf(const zelResDb *db, const zelResEntry *entry) {
    zelResClient *asker = entry->pending ? clientAt(entry->pending->clientId) : nullptr;
    return asker ? asker : db->clients->client;
}

}  // namespace zel::resmgr

using namespace zel::resmgr;

int resMgmtLibRegisterClient(uint32_t clientId, uint16_t service, uint16_t instance, zelResAllocFn allocHook,
                             zelFreeFn freeHook, zelResIndexChangedFn indexChanged, zelResPendingFn pendingServed,
                             zelResPendingFn remoteAllocated, zelResPeerRoleFn peerRole, zelResMarkedFn isMarked,
                             zelResSendFn kxlSend, uint32_t word1, uint32_t word2, uint32_t word3) {
    if (clientId >= ZEL_RES_CLIENTS) return ZEL_RES_ERROR;
    zelResClient *client = gaResMgmtClientDb[clientId];
    if (client) {
        trace(events, "%s(): client Id: %d already registered.\r\n", __func__, static_cast<int>(clientId));
    } else {
        clientHooks[clientId] = {allocHook, freeHook};
        client = static_cast<zelResClient *>(allocate(clientHooks[clientId], ZEL_RES_TAG_CLIENT, ZEL_RES_CLIENT_SIZE));
        if (!client) return ZEL_RES_NO_MEMORY;
        gaResMgmtClientDb[clientId] = client;
        ++gResMgrTcb.clientsRegistered;
    }
    *client = {static_cast<uint8_t>(clientId),
               {},
               service,
               instance,
               {word1, word2, word3},
               indexChanged,
               pendingServed,
               remoteAllocated,
               peerRole,
               isMarked,
               kxlSend,
               allocHook,
               freeHook,
               client->databases};
    return ZEL_RES_OK;
}

int resMgmtLibProcDbCreate(uint32_t clientId, const zelResDbParams *params, int32_t start, int32_t end) {
    zelResClient *client = clientAt(clientId);
    if (!params || !mayCreate(client, *params, start, end)) return ZEL_RES_ERROR;
    zelResDb *db = gaResMgmtDb[params->databaseId];
    return db ? join(client, db) : create(client, *params, start, end);
}

void resMgmtLibTerminate(void) {
    for (zelResDb *db : gaResMgmtDb)
        if (db) destroyDatabase(db);
    for (uint32_t id = 0; id < ZEL_RES_CLIENTS; ++id) {
        if (gaResMgmtClientDb[id]) release(clientHooks[id], gaResMgmtClientDb[id]);
        gaResMgmtClientDb[id] = nullptr;
    }
    gResMgrTcb = {};
}

int resMgmtApiAddObject(uint32_t clientId, uint32_t databaseId, const zelResKey *key, const void *cookie,
                        uint32_t cookieLen, int32_t *index) {
    zelResClient *client = clientAt(clientId);
    zelResDb *db = databaseAt(databaseId);
    uint8_t digest[ZEL_RES_DIGEST_SIZE];
    if (!client || !db || !key || !index || key->keyLen != db->params.keyLength) return ZEL_RES_ERROR;
    if (resMgmtLibFormMd5Key(key->key, key->keyLen, digest) != ZEL_RES_OK) return ZEL_RES_ERROR;
    *index = -1;
    int result = ZEL_RES_ERROR;
    zelResEntry *entry = resMgmtLibFindObjectEntry(db, digest, key->key);
    if (entry)
        result = resMgmtLibRefObjectEntry(client, db, entry);
    else
        entry = resMgmtLibProcObjectEntryAdd(client, db, digest, key, 0, 0, &result);
    if (result == ZEL_RES_OK) *index = entry->objectIndex;
    if (result != ZEL_RES_NO_INDEX_YET) return result;
    const int queued = resMgmtLibAddPendingReq(clientId, db, entry, cookie, cookieLen, ZEL_RES_PENDING_LOCAL);
    if (queued == ZEL_RES_OK) return result;
    resMgmtLibProcObjectEntryDel(client, db, entry);
    return queued;
}

int resMgmtApiDelObject(uint32_t clientId, uint32_t databaseId, const void *key, uint32_t keyLen) {
    zelResDb *db = databaseAt(databaseId);
    uint8_t digest[ZEL_RES_DIGEST_SIZE];
    if (!db || keyLen != db->params.keyLength || resMgmtLibFormMd5Key(key, keyLen, digest) != ZEL_RES_OK)
        return ZEL_RES_ERROR;
    zelResEntry *entry = resMgmtLibFindObjectEntry(db, digest, key);
    if (!entry || entry->refCount == 0) return ZEL_RES_ERROR;
    const int result = resMgmtLibProcObjectEntryDel(clientAt(clientId), db, entry);
    serveRequests(db);
    return result;
}
