/*
 * Resource indexes: small integers that are unique per resource (slots of a hardware table and the like), survive a
 * switch-over to the standby route processor and agree with a peer switch, the KXL peer of a multi-chassis pair.
 *
 * A process registers its clients, creates or joins databases, and adds and deletes object entries. A database keeps
 * ranges of indexes with a bitmap each, the entries by the MD5 digest of their key and by their index, and the requests
 * that could not be served yet. An entry gets its index here, or, on the KXL secondary, from the peer.
 *
 * Who allocates. Of a database, the primary route processor of one switch: its standby only mirrors it, and so does the
 * KXL secondary, if the database is peer-aware. The index of an entry is handed out here after the standby was told of
 * it, and on the secondary after the primary has noted it down; it becomes free only after everybody who holds it has
 * said so. So whoever dies, at whatever moment, the one that takes over knows each index that was handed out.
 *
 * The tables are the process's own and nothing here locks: the process serialises its calls, callbacks included.
 * Nothing blocks but the transport's send functions, the trace and the caller's own hooks. Callbacks may call
 * everything here except resMgmtLibTerminate.
 *
 * Results are those of the first list below. Tracing is off, see gRmLibDebug; a failed call leaves the database as it
 * was.
 */
#ifndef ZEL_RESMGR_H
#define ZEL_RESMGR_H

#include <stddef.h>
#include <stdint.h>

#include "zel/containers.h"
#include "zel/types.h"

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

enum {
    ZEL_RES_OK = 0,
    ZEL_RES_ERROR = -1,        /* an argument that is none, or a general failure */
    ZEL_RES_NO_INDEX_YET = -3, /* the request waits for the peer; or the database has no range */
    ZEL_RES_NO_INDEX = -4,     /* none could be allocated, or the one asked for is taken */
    ZEL_RES_NO_MEMORY = -5
};

enum {
    ZEL_RES_CLIENTS = 3,   /* client ids 0 to 2 */
    ZEL_RES_DATABASES = 6, /* database ids 0 to 5 */
    ZEL_RES_NAME_SIZE = 32,
    ZEL_RES_DIGEST_SIZE = 16,
    ZEL_RES_MAX_KEY = 1024, /* bytes */
    ZEL_RES_CLIENT_SIZE = 104
};

typedef struct zelResClient zelResClient;
typedef struct zelResDb zelResDb;
typedef struct zelResRange zelResRange;
typedef struct zelResEntry zelResEntry;
typedef struct zelResPending zelResPending;

/* ==== Clients ===================================================================================================== */

/* What an allocation is for, passed to the hook. */
enum {
    ZEL_RES_TAG_CLIENT = 8252,
    ZEL_RES_TAG_DATABASE = 8253,
    ZEL_RES_TAG_LINK = 8254,
    ZEL_RES_TAG_RANGE = 8255,
    ZEL_RES_TAG_ENTRY = 8256,
    ZEL_RES_TAG_PENDING = 8257
};

/* A block of `size` bytes, aligned for any type, whose contents do not matter; null: no memory. It returns to the free
 * hook, a zelFreeFn, and stays where it is when there is none. Without an allocation hook blocks are of the checking
 * allocator, and the free hook is not used. */
typedef void *(*zelResAllocFn)(uint32_t size, uint32_t tag);

/* 1: an index that was handed out for the entry is not valid any more; the entry has another one, or none yet and
 * waits. Called for every client of a database that has ZEL_RES_DB_NOTIFY. */
typedef void (*zelResIndexChangedFn)(zelResDb *db, zelResEntry *entry);
/* 2: a request that waited has its index. 3: the KXL peer was given an index it had asked for; there is no cookie.
 * After a switch-over the cookie of a request is empty: it stays with the process that queued it. */
typedef void (*zelResPendingFn)(zelResDb *db, zelResEntry *entry, const void *cookie, uint32_t cookieLen);
/* 4: ZEL_RES_KXL_SECONDARY, or any other number when this switch allocates. A switch that comes up beside a running
 * peer answers ZEL_RES_KXL_SECONDARY until it has the peer's entries. */
typedef int (*zelResPeerRoleFn)(void);
/* 5: non-zero when the KXL peer must know the entry; asked once, when the entry is added to a database that has
 * ZEL_RES_DB_MARKS. It does not delete the entry. */
typedef int (*zelResMarkedFn)(zelResDb *db, const zelResEntry *entry);
/* 6, and the transport of the process: sends one message, at most ZEL_RES_MAX_SYNC bytes, and returns 0, or -1 when the
 * receiver cannot be reached. Messages arrive in order, or not at all; what was taken and is lost with the sender can
 * make two owners of an index. It does not call the library. */
typedef int (*zelResSendFn)(const void *message, uint32_t length);

enum { ZEL_RES_KXL_SECONDARY = 2 };

/* A registered client. Callers may read everything. */
struct zelResClient {
    uint8_t clientId;
    uint8_t flags[3];
    uint16_t service;
    uint16_t instance;
    uint32_t words[3];
    zelResIndexChangedFn indexChanged;
    zelResPendingFn pendingServed;
    zelResPendingFn remoteAllocated;
    zelResPeerRoleFn peerRole;
    zelResMarkedFn isMarked;
    zelResSendFn kxlSend;
    zelResAllocFn alloc;
    zelFreeFn release;
    struct zelResLink *databases;
};

/* Registers a client, or gives a registered one other hooks, callbacks and words; its databases keep the hooks they
 * were created with. Hooks, callbacks and words may be null or 0. ZEL_RES_ERROR: no such id. */
int resMgmtLibRegisterClient(uint32_t clientId, uint16_t service, uint16_t instance, zelResAllocFn allocHook,
                             zelFreeFn freeHook, zelResIndexChangedFn indexChanged, zelResPendingFn pendingServed,
                             zelResPendingFn remoteAllocated, zelResPeerRoleFn peerRole, zelResMarkedFn isMarked,
                             zelResSendFn kxlSend, uint32_t word1, uint32_t word2, uint32_t word3);
/* Releases every client, database, entry and request, without telling anybody, clears the counters and forgets the
 * transport. */
void resMgmtLibTerminate(void);

/* ==== Databases =================================================================================================== */

/* Bits of a database's flags. */
enum {
    ZEL_RES_DB_NOTIFY = 1, /* its clients have callback 1 */
    ZEL_RES_DB_MARKS = 2   /* its clients have callback 5 */
};
/* Bits of its peer flags. */
enum {
    ZEL_RES_PEER_AWARE = 2,      /* only the KXL primary allocates */
    ZEL_RES_PEER_MARKED_ONLY = 4 /* the KXL peer is told of marked entries only */
};
/* Bits of its state. */
enum {
    ZEL_RES_DB_WITHOUT_RANGE = 1, /* it was created without one */
    ZEL_RES_DB_COPIED = 2,        /* on the standby: its copy is complete */
    ZEL_RES_DB_INCOMPLETE = 4     /* its first copy is under way: it hands out nothing */
};

typedef struct {
    uint8_t databaseId;
    char name[ZEL_RES_NAME_SIZE]; /* zero-terminated */
    uint32_t flags;
    uint32_t keyLength; /* bytes of every client key, at most ZEL_RES_MAX_KEY */
    int32_t startIndex; /* as the caller keeps them; what counts are the arguments of the call */
    int32_t endIndex;
    int32_t size;      /* 0 or less: no range yet */
    uint8_t peerFlags; /* 0: the KXL peer has no part in it */
} zelResDbParams;

/* Indexes `start` to `end`. Index i is bit i - start: word (i - start) / 32, most significant bit first. */
struct zelResRange {
    zelDLLNode node;
    int32_t start;
    int32_t end;
    uint32_t size;
    uint32_t usedCount;
    uint32_t isInitial; /* the range given at creation */
    uint32_t *bitmap;   /* size / 32 + 1 words */
};

/* Callers may read everything, and walk the lists. */
struct zelResDb {
    zelResDbParams params;
    struct zelResLink *clients; /* the creator first */
    zelDLL ranges;              /* zelResRange, in the order in which they came */
    zelDLL pending;             /* zelResPending */
    struct {
        uint32_t capacity;   /* indexes in all ranges */
        uint32_t used_count; /* those taken */
    } cfgInfo;
    int32_t lastAllocated; /* -1: none yet */
    zelResRange *currentRange;
    int32_t lastFreed; /* -1: none yet */
    uint32_t stateFlags;
    uint32_t entryCount;
    uint32_t pendingAdded;
    uint32_t pendingDuplicates;
    zelResAllocFn alloc;
    zelFreeFn release;
    zelResEntry *entriesByDigest;
    zelResEntry *entriesByIndex;
    uint32_t isServing;     /* requests are being served */
    uint32_t hasAnswerable; /* requests may wait whose entries have their index */
};

/* One of the databases of a client, or of the clients of a database. */
struct zelResLink {
    struct zelResLink *next;
    zelResClient *client;
    zelResDb *db;
};

/* Creates a database with the range `start` to `end`, or joins one that is there, whose parameters stay as they are.
 * ZEL_RES_NO_INDEX_YET: done, but the database has no range. ZEL_RES_ERROR: no such id, a client that is not
 * registered, a size that is not end - start + 1, a callback that the flags need is missing, a key that is too long. */
int resMgmtLibProcDbCreate(uint32_t clientId, const zelResDbParams *params, int32_t start, int32_t end);
/* Adds a range, and stores it in *outRange unless that is null. Ranges have no negative indexes and do not overlap. */
int resMgmtLibInitFreeIndexList(zelResDb *db, int32_t start, int32_t end, int isInitial, zelResRange **outRange);

/* 1: this process may allocate; 0: the KXL primary, or the primary route processor does; -1: an argument is missing. */
int rmLibCanLocalAllocateObjIndex(zelResClient *client, zelResDb *db);
/* 1 while some index is not taken. */
int rmLibIsLocalObjIndexAvail(const zelResDb *db);

/* ==== Indexes =====================================================================================================
 *
 * Most callers want entries, below; these calls know nothing of owners, and tell neither the standby nor the KXL peer.
 */

/* The first free index of the range behind `prev`, -1: of all; -1 when there is none. */
int32_t resMgmtLibGetNextFreeIndex(const zelResRange *range, int32_t prev);
/* Takes the next free index: behind the last one taken in its range, else the first of all ranges. The index freed last
 * is taken only when no other is free, so that whoever still holds its old meaning does not see it again at once.
 * `client` may be null. ZEL_RES_ERROR: none is free. */
int resMgmtLibGetFreeObjectIndex(zelResDb *db, zelResClient *client, int32_t *index);
/* Takes this very index; ZEL_RES_ERROR: it is taken, or in no range. */
int resMgmtLibSetObjectIndex(zelResDb *db, int32_t index);
/* Gives an index back. ZEL_RES_ERROR with nothing changed: it is free (by assertion), or in no range. */
int resMgmtLibReleaseObjectIndex(zelResDb *db, int32_t index);

/* ==== Object entries ============================================================================================== */

/* What a client asks for: a key and two words of its own. */
typedef struct {
    const void *key;
    uint32_t keyLen; /* the database's key length */
    uint32_t word1;
    uint32_t word2;
} zelResKey;

/* Bits of an entry's statusFlag. */
enum {
    ZEL_RES_WAITING = 0x01,  /* its index was not handed out here yet */
    ZEL_RES_DELETING = 0x02, /* nobody here wants it; the KXL primary has not confirmed */
    ZEL_RES_MARKED = 0x04,
    ZEL_RES_PEER_HELD = 0x08, /* on the secondary: the KXL primary has it */
    ZEL_RES_STALE = 0x10      /* the copy under way has not confirmed it yet */
};

struct zelResTreeLinks {
    zelResEntry *left;
    zelResEntry *right;
    int32_t height;
};

/* Callers may read everything. The key's bytes stand behind. */
struct zelResEntry {
    struct zelResTreeLinks byDigest;
    struct zelResTreeLinks byIndex;
    uint8_t digest[ZEL_RES_DIGEST_SIZE];
    int32_t objectIndex; /* -1: none yet. Not to be used while the entry is ZEL_RES_WAITING */
    uint8_t statusFlag;
    uint8_t isKxlRequest; /* on the primary: the KXL secondary asked for it, */
    uint16_t kxlUnits;    /* and has that many references */
    uint32_t refCount;    /* references of this switch */
    uint32_t haRefCount;  /* of these, those that the standby knows */
    uint32_t word1;
    uint32_t word2;
    uint32_t keyLen;
    uint32_t request; /* number of the last question to the KXL primary about it; on the primary, of the secondary's */
    zelResPending *pending; /* its requests */
};

static inline const uint8_t *zelResEntryKey(const zelResEntry *entry) {
    return (const uint8_t *)(entry + 1);
}

/* The digest under which a key is filed: MD5. ZEL_RES_ERROR, and no digest, where the cryptographic library refuses. */
int resMgmtLibFormMd5Key(const void *key, uint32_t keyLen, uint8_t md5[ZEL_RES_DIGEST_SIZE]);
/* The entry with that digest and key, or null. A null key looks at the digest alone. */
zelResEntry *resMgmtLibFindObjectEntry(const zelResDb *db, const uint8_t md5[ZEL_RES_DIGEST_SIZE], const void *key);
/* The entry that has an index, or null. */
zelResEntry *resMgmtLibFindObjectIndex(const zelResDb *db, int32_t index);
/* The entry behind `entry` in the order of digests, null: the first; null at the end. Deleting the entry in hand is
 * allowed when the next one was asked for before. */
zelResEntry *resMgmtLibNextObjectEntry(const zelResDb *db, const zelResEntry *entry);

/* Adds an entry with one reference, and with the index `givenIndex` when `useGivenIndex` is not 0, which is not checked
 * with the KXL primary before. The entry belongs to the database. Null with *rc: ZEL_RES_ERROR, an argument is missing
 * or there is an entry with this digest; ZEL_RES_NO_INDEX; ZEL_RES_NO_MEMORY. An entry with ZEL_RES_NO_INDEX_YET waits;
 * the caller queues a request. */
zelResEntry *resMgmtLibProcObjectEntryAdd(zelResClient *client, zelResDb *db,
                                          const uint8_t md5Digest[ZEL_RES_DIGEST_SIZE], const zelResKey *clientKey,
                                          int useGivenIndex, int32_t givenIndex, int *rc);
/* One more reference to an entry that is there: 0, or ZEL_RES_NO_INDEX_YET as above. */
int resMgmtLibRefObjectEntry(zelResClient *client, zelResDb *db, zelResEntry *entry);
/* Takes one reference. With the last one the entry leaves and its index is free, unless the KXL peer holds it; on the
 * secondary that happens when the primary has confirmed. An entry without references is reported by assertion. */
int resMgmtLibProcObjectEntryDel(zelResClient *client, zelResDb *db, zelResEntry *entry);
/* Takes its index from an entry that stays, and waits then: a request brings it another one. ZEL_RES_ERROR: the KXL
 * peer holds the entry, too. */
int resMgmtLibDeleteObjectIndex(zelResDb *db, zelResEntry *entry);

/* ---- By ids and keys: what a program does with the calls above ---- */

/* Adds an entry for a key, or a reference to the one that is there. 0 with the index stored. ZEL_RES_NO_INDEX_YET: a
 * request was queued and callback 2 will bring the index, with a copy of the cookie. */
int resMgmtApiAddObject(uint32_t clientId, uint32_t databaseId, const zelResKey *key, const void *cookie,
                        uint32_t cookieLen, int32_t *index);
/* Takes a reference, and serves requests from what became free. ZEL_RES_ERROR: there is no such entry. */
int resMgmtApiDelObject(uint32_t clientId, uint32_t databaseId, const void *key, uint32_t keyLen);

/* ==== Requests that wait ========================================================================================== */

/* Bits of a request's flags. */
enum {
    ZEL_RES_PENDING_LOCAL = 1, /* callback 2 still has to run */
    ZEL_RES_PENDING_REMOTE = 2 /* the KXL peer asked, and has to be answered */
};

/* Callers may read everything. The cookie stands behind. */
struct zelResPending {
    zelDLLNode node;
    zelResEntry *entry;
    zelResPending *nextOfEntry;
    uint32_t cookieLen;
    uint8_t clientId;
    uint8_t flags;
};

/* Queues a request for an entry, with a copy of the cookie; on the KXL secondary the peer is asked. The same entry,
 * client and cookie once more are counted, and add their flags to the request that is there. */
int resMgmtLibAddPendingReq(uint32_t clientId, zelResDb *db, zelResEntry *entry, const void *cookie, uint32_t cookieLen,
                            uint8_t flags);
/* Serves requests in their order, and stops when no index is free: what stands behind waits then, also a request whose
 * entry got its index by an earlier one. For the owner to call when indexes became free. */
void resMgmtLibProcessPendingRequests(zelResDb *db);

/* ==== Synchronisation =============================================================================================
 *
 * One link leads to the other route processor of this switch, one to the KXL peer. The owner gives a send function for
 * each, and passes what arrives to resMgmtLibRecvSync. Changes go out by themselves; after an interruption, whoever
 * comes back asks for everything (resMgmtLibRequestAllData) and sends what it has (resMgmtLibSyncAllDataToPeer). A
 * receiver that sees by the sequence numbers that messages were lost asks by itself.
 *
 * Messages are big-endian:
 *      0  magic 0x524d4c42      4  version, u16        6  subcommand, u16    8  database, u8    9  client, u8
 *     10  length, u16          12  sequence number of the link
 *     16  index               20  status, u8          21  flags, u8         22  units, u16
 *     24  digest, 16 bytes    40  length of the key, u16                    42  key
 *         behind the key: the two words, and the number of the question
 * Marks of a copy's begin and end have no digest; at 24 stands the index freed last. A database's parameters are, from
 * 16 on: start, end, size, flags, key length (u16), peer flags (u8), initial range (u8), name (32 bytes).
 */

enum { ZEL_RES_LINK_HA = 0, ZEL_RES_LINK_KXL = 1, ZEL_RES_LINKS = 2 };
enum { ZEL_RES_MAX_SYNC = 42 + ZEL_RES_MAX_KEY + 12 };

#define ZEL_RES_SYNC_MAGIC 0x524d4c42u
#define ZEL_RES_SYNC_VERSION 1

/* Subcommands. */
enum {
    ZEL_RES_SYNC_ADD_REQ = 1, /* secondary to primary; the index it has already, or -1 */
    ZEL_RES_SYNC_ADD_RESP = 2,
    ZEL_RES_SYNC_DEL_REQ = 3,
    ZEL_RES_SYNC_DEL_RESP = 4,
    ZEL_RES_SYNC_OBJECT = 5,    /* an entry of the primary, as it is now */
    ZEL_RES_SYNC_DB_CONFIG = 6, /* to the standby */
    ZEL_RES_SYNC_ALL_BEGIN = 7, /* with ZEL_RES_SYNC_WANTED: please send everything */
    ZEL_RES_SYNC_ALL_END = 8    /* with the index allocated last: what was not sent is not there */
};
/* Statuses. */
enum { ZEL_RES_SYNC_PRESENT = 0, ZEL_RES_SYNC_GONE = 1, ZEL_RES_SYNC_WANTED = 2 };
/* Flags: those of statusFlag, and two more. */
enum {
    ZEL_RES_SYNC_PENDING = 0x40,  /* a request for it was not answered yet */
    ZEL_RES_SYNC_KXL_HELD = 0x80, /* the KXL secondary has references */
    ZEL_RES_SYNC_FLAGS = ZEL_RES_WAITING | ZEL_RES_DELETING | ZEL_RES_MARKED | ZEL_RES_PEER_HELD |
                         ZEL_RES_SYNC_PENDING | ZEL_RES_SYNC_KXL_HELD
};

/* A message about an entry, taken apart; the key points into the message. */
typedef struct {
    zelResDb *db;
    zelResClient *client;
    int32_t index;
    uint8_t status;
    uint8_t flags;
    uint16_t units;
    uint8_t digest[ZEL_RES_DIGEST_SIZE];
    zelResKey key;
    uint32_t request; /* the question's number, which its answer repeats */
} zelResSync;

/* Sets how messages leave; null: the link is not there. Of the KXL link, a client's callback 6 goes first. */
void resMgmtLibSetTransport(zelResSendFn standbySend, zelResSendFn kxlSend);
/* Takes a message that arrived on a link. 0, or ZEL_RES_ERROR: it is malformed, contradicts the database, or is not for
 * the role that this process has; it is counted then, and changed nothing. */
int resMgmtLibRecvSync(const void *message, uint32_t length, int link);
/* Asks whoever is at the other end of a link for everything. 0, or -1: not sent. */
int resMgmtLibRequestAllData(int link);
/* Sends everything that the other end of a link should have: to the standby all databases, to the KXL secondary the
 * entries of those that are peer-aware, to the KXL primary what this switch holds, waits for and lets go of. Only the
 * primary route processor sends. 0, or -1: not all of it was sent. */
int resMgmtLibSyncAllDataToPeer(int link);

/* What the calls above do by themselves; each 0, or -1: nothing was sent. */
int resMgmtLibHASyncDbCfg(zelResDb *db);
int resMgmtLibHASyncObjEntry(zelResDb *db, zelResEntry *entry);
int resMgmtLibKxlSyncObjEntry(zelResDb *db, zelResEntry *entry);
/* `client` may be null. */
int resMgmtLibSendKxlSyncBuf(const zelResClient *client, const void *message, uint32_t length);

/* Ask the KXL primary again for what a database, or every one, waits for, and what it lets go of: for the owner to call
 * when the peer becomes reachable, and from time to time where the transport loses messages. How many were sent. */
int resMgmtLibResendPendingReqs(zelResDb *db);
int resMgmtLibResendAllKxlPendingReqs(void);
/* The KXL peer is lost and this switch allocates alone: forgets what only the peer held and serves the requests that
 * waited for it. Not when the peer merely switched over to its standby. */
int resMgmtLibClearKxlPeerDependencies(zelResDb *db);

/* What comes from the KXL peer, by subcommand, once it is known to be well-formed: for resMgmtLibRecvSync. An answer
 * with ZEL_RES_SYNC_GONE says that the primary has the entry no longer. 0 or ZEL_RES_ERROR. */
int resMgmtLibProcObjAddReqFromKxlPeer(const zelResSync *message);
int resMgmtLibProcObjDelReqFromKxlPeer(const zelResSync *message);
int resMgmtLibProcObjAddRespFromKxlPeer(const zelResSync *message);
int resMgmtLibProcObjDelRespFromKxlPeer(const zelResSync *message);

/* ==== State, tracing, dumps ======================================================================================= */

typedef struct {
    uint32_t clientsRegistered;
    uint32_t databasesCreated;
    zelResSendFn send[ZEL_RES_LINKS];
    uint32_t sent[ZEL_RES_LINKS]; /* sequence number of the last message */
    uint32_t received[ZEL_RES_LINKS];
    uint32_t gaps[ZEL_RES_LINKS];    /* messages before which others were lost */
    uint32_t asking[ZEL_RES_LINKS];  /* messages to come before everything is asked for again */
    uint32_t copying[ZEL_RES_LINKS]; /* database id + 1 whose copy arrives, nothing of it lost so far; else 0 */
    uint32_t sendFailures[ZEL_RES_LINKS];
    uint32_t requests;  /* number of the last question to the KXL primary */
    uint32_t refused;   /* messages that were malformed, or contradict the database */
    uint32_t untimely;  /* messages for a role that this process does not have */
    uint32_t conflicts; /* indexes taken from an entry for which they had been handed out */
} zelResTcb;

/* For reading. */
extern zelResClient *gaResMgmtClientDb[ZEL_RES_CLIENTS];
extern zelResDb *gaResMgmtDb[ZEL_RES_DATABASES];
extern zelResTcb gResMgrTcb;
/* Bit 0x1 traces errors, bit 0x2 what happens; each line goes to standard output and to the trace history. Initially
 * 0. */
extern uint32_t gRmLibDebug;
/* Non-zero: keys are dumped in hexadecimal when their digest is formed. */
extern uint32_t gRmKeyDmp;

/* Print on standard output; each returns 0. Databases are named by id. */
int rmLibHelp(void);
int rmLibDumpAllClient(void);
int rmLibDumpAllResourceDb(void);
int rmLibDumpDbNode(uint32_t databaseId);
int rmLibDumpObjIndexTree(uint32_t databaseId);
int rmLibDumpMd5NodeTree(uint32_t databaseId);
int rmLibDumpDbCounters(uint32_t databaseId);
int rmLibClearDbCounters(uint32_t databaseId);
int rmLibDumpGlobalTcb(void);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
