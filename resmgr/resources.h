// What the sources of this folder share: tracing, allocation, roles, the trees of entries, and what one does to an
// entry without telling anybody.
#pragma once

#include <cstring>

#include "base/avl_tree.h"
#include "base/wire.h"
#include "zel/platform.h"
#include "zel/resmgr.h"

namespace zel::resmgr {

constexpr char sourceName[] = "resMgmtLib";

// ---- Tracing --------------------------------------------------------------------------------------------------------

enum Trace : std::uint32_t { errors = 0x1, events = 0x2 };

void trace(Trace what, const char *format, ...) __attribute__((format(printf, 2, 3)));
// Bytes in hexadecimal on standard output.
void dumpBytes(const char *label, const void *bytes, std::size_t length);

// ---- Memory: of a client or a database, each of which has both hooks ------------------------------------------------

// Zeroed; null: no memory.
template <class Owner>
void *allocate(const Owner &owner, std::uint32_t tag, std::size_t bytes) {
    if (!owner.alloc) return zelMC_calloc(sourceName, __LINE__, 1, bytes);
    void *block = owner.alloc(static_cast<std::uint32_t>(bytes), tag);
    return block ? std::memset(block, 0, bytes) : nullptr;
}

template <class Owner>
void release(const Owner &owner, void *block) {
    if (!owner.alloc) return zelMC_free(sourceName, __LINE__, block);
    if (owner.release) owner.release(block);
}

// ---- Tables and roles -----------------------------------------------------------------------------------------------

// Null when there is none.
zelResClient *clientAt(std::uint32_t id);
zelResDb *databaseAt(std::uint32_t id);

inline bool isPrimary() {
    return zelSysIsPrimaryRpm() != 0;
}
inline bool isPeerAware(const zelResDb *db) {
    return (db->params.peerFlags & ZEL_RES_PEER_AWARE) != 0;
}
// This process allocates, whichever client asks.
bool allocatesHere(zelResDb *db);
// This process asks the KXL primary.
bool isSecondary(zelResDb *db);
// The client in whose name messages about an entry go out: whose request waits, else the database's creator.
zelResClient *clientOf(const zelResDb *db, const zelResEntry *entry);

// ---- Entries --------------------------------------------------------------------------------------------------------

struct DigestLinks {
    using Node = zelResEntry;
    using Key = const std::uint8_t *;
    static Node *&left(Node *entry) { return entry->byDigest.left; }
    static Node *&right(Node *entry) { return entry->byDigest.right; }
    static std::int32_t &height(Node *entry) { return entry->byDigest.height; }
    static int compare(Key digest, Node *entry) {
        for (int half = 0; half < ZEL_RES_DIGEST_SIZE; half += 8) {
            const auto mine = wire::load<std::uint64_t>(digest + half);
            const auto theirs = wire::load<std::uint64_t>(entry->digest + half);
            if (mine != theirs) return mine < theirs ? -1 : 1;
        }
        return 0;
    }
};

struct IndexLinks {
    using Node = zelResEntry;
    using Key = std::int32_t;
    static Node *&left(Node *entry) { return entry->byIndex.left; }
    static Node *&right(Node *entry) { return entry->byIndex.right; }
    static std::int32_t &height(Node *entry) { return entry->byIndex.height; }
    static int compare(Key index, Node *entry) { return index < entry->objectIndex ? -1 : index > entry->objectIndex; }
};

using DigestTree = AvlTree<DigestLinks>;
using IndexTree = AvlTree<IndexLinks>;

inline bool is(const zelResEntry *entry, std::uint8_t bit) {
    return (entry->statusFlag & bit) != 0;
}
inline void set(zelResEntry *entry, std::uint8_t bit) {
    entry->statusFlag |= bit;
}
inline void clear(zelResEntry *entry, unsigned bits) {
    entry->statusFlag &= static_cast<std::uint8_t>(~bits);
}

// Gives the questions about an entry that are to come a number of their own, on the secondary.
void numberRequest(zelResDb *db, zelResEntry *entry);

// The range that holds an index, or null.
zelResRange *rangeOf(const zelResDb *db, std::int32_t index);
bool isIndexUsed(const zelResDb *db, std::int32_t index);
// Makes an entry without index and references and files it under its digest: ZEL_RES_ERROR when there is one,
// ZEL_RES_NO_MEMORY.
int fileEntry(zelResDb *db, const std::uint8_t *digest, const zelResKey &key, zelResEntry *&entry);
// Files an entry under an index that is marked used.
bool fileIndex(zelResDb *db, zelResEntry *entry, std::int32_t index);
// Marks this very index used and gives it to an entry that has none.
bool giveIndex(zelResDb *db, zelResEntry *entry, std::int32_t index);
// Gives back the index of an entry, if it has one.
void freeIndexOf(zelResDb *db, zelResEntry *entry);
// Takes an entry out with its index and its requests, and frees it.
void discard(zelResDb *db, zelResEntry *entry);
// The same, and tells the standby and the KXL secondary.
void remove(zelResDb *db, zelResEntry *entry);

// Calls `visit` for every entry in the order of digests; it may discard any.
template <class Visit>
void forEachEntry(zelResDb *db, Visit visit) {
    std::uint8_t digest[ZEL_RES_DIGEST_SIZE];
    for (zelResEntry *entry = resMgmtLibNextObjectEntry(db, nullptr); entry;
         entry = DigestTree::findGreater(db->entriesByDigest, digest)) {
        std::memcpy(digest, entry->digest, sizeof digest);
        visit(entry);
    }
}

// ---- Requests -------------------------------------------------------------------------------------------------------

// The same request as resMgmtLibAddPendingReq, without telling or asking anybody.
int queueRequest(std::uint32_t clientId, zelResDb *db, zelResEntry *entry, const void *cookie, std::uint32_t cookieLen,
                 std::uint8_t flags, bool &isNew);
// Takes these flags from an entry's requests; requests without flags leave.
void dropRequests(zelResDb *db, zelResEntry *entry, unsigned flags);
// Answers the requests of an entry that has its index; it may be gone afterwards.
void serveEntry(zelResDb *db, zelResEntry *entry);
// What an owner's call of resMgmtLibProcessPendingRequests does, and then answers the requests left behind whose
// entries have their index: those need none that is free.
void serveRequests(zelResDb *db);

}  // namespace zel::resmgr
