// Ranges, indexes and entries.
//
// Invariants. An index is marked used in its range's bitmap, and counted in the range and the database, exactly while
// an entry has it or the owner took it by hand. An entry stands in the tree of digests, and in the tree of indexes
// while it has one; nobody else may have the same. It stays while somebody wants it: references here, the KXL secondary
// (kxlUnits), the KXL primary (ZEL_RES_PEER_HELD, on the secondary), or a deletion that the primary has not confirmed.
//
// An index that was freed is not taken again while another one is free. Only one freed index is remembered, and taking
// it does not forget it; and the search looks behind it only once in each range. All of that is enough for its purpose.
#include <openssl/evp.h>

#include <algorithm>

#include "base/assertion.h"
#include "resmgr/resources.h"
#include "resmgr/sync.h"

namespace zel::resmgr {
namespace {

constexpr std::uint32_t wordBits = 32, allUsed = UINT32_MAX;

std::uint32_t maskOf(std::uint32_t bit) {
    return 0x80000000u >> (bit % wordBits);
}

bool isUsed(const zelResRange *range, std::uint32_t bit) {
    return (range->bitmap[bit / wordBits] & maskOf(bit)) != 0;
}

// Eight words at a time: whether all of them are full does not depend on the order of bytes.
bool areFull(const std::uint32_t *words) {
    std::uint64_t pairs[4];
    std::memcpy(pairs, words, sizeof pairs);
    return (pairs[0] & pairs[1] & pairs[2] & pairs[3]) == UINT64_MAX;
}

// The first clear bit from `from` on, or the number of bits.
std::uint32_t firstClear(const zelResRange *range, std::uint32_t from) {
    if (from >= range->size) return range->size;
    std::uint32_t word = from / wordBits;
    std::uint32_t clear = ~range->bitmap[word] & (allUsed >> (from % wordBits));
    if (clear == 0) {
        const std::uint32_t words = range->size / wordBits + 1;
        for (++word; word + 8 <= words && areFull(range->bitmap + word);) word += 8;
        while (word < words && range->bitmap[word] == allUsed) ++word;
        if (word == words) return range->size;
        clear = ~range->bitmap[word];
    }
    return std::min(word * wordBits + static_cast<std::uint32_t>(__builtin_clz(clear)), range->size);
}

bool isIndexRange(std::int32_t start, std::int32_t end) {
    return start >= 0 && end >= start && std::int64_t{end} - start < INT32_MAX;
}

zelResRange *asRange(zelDLLNode *node) {
    return reinterpret_cast<zelResRange *>(node);
}

template <class Visit>
zelResRange *findRange(const zelResDb *db, Visit holds) {
    auto *ranges = const_cast<zelDLL *>(&db->ranges);
    zelDLLNode *node = zelDLLGetFirst(ranges);
    while (node && !holds(asRange(node))) node = zelDLLGetNext(ranges, node);
    return asRange(node);
}

void markUsed(zelResDb *db, zelResRange *range, std::int32_t index) {
    const auto bit = static_cast<std::uint32_t>(index - range->start);
    range->bitmap[bit / wordBits] |= maskOf(bit);
    ++range->usedCount;
    ++db->cfgInfo.used_count;
}

// The place of a free index and the range it stands in.
struct Choice {
    std::int32_t index = -1;
    zelResRange *range = nullptr;
};

Choice inCurrentRange(const zelResDb *db) {
    if (!db->currentRange) return {};
    const std::int32_t index = resMgmtLibGetNextFreeIndex(db->currentRange, db->lastAllocated);
    return index == db->lastFreed ? Choice{} : Choice{index, db->currentRange};
}

// In the first range that has another index than the one freed last; else that one.
Choice inAnyRange(const zelResDb *db) {
    Choice reused;
    Choice fresh;
    findRange(db, [&](zelResRange *range) {
        fresh = {resMgmtLibGetNextFreeIndex(range, -1), range};
        if (fresh.index == -1 || fresh.index != db->lastFreed) return fresh.index != -1;
        reused = fresh;
        fresh.index = resMgmtLibGetNextFreeIndex(range, fresh.index);
        return fresh.index != -1;
    });
    if (fresh.index != -1) return fresh;
    if (reused.index != -1)
        trace(events, "%s(): Last freed objIndex: %d is the only one available.\r\n", "resMgmtLibGetFreeObjectIndex",
              reused.index);
    return reused;
}

bool isRequest(const zelResClient *client, const zelResDb *db, const std::uint8_t *digest, const zelResKey *key) {
    return client && db && digest && key && key->keyLen == db->params.keyLength && (key->key || key->keyLen == 0);
}

// Step by step what gives a new entry its index; the result of the whole addition.
int assignIndex(zelResClient *client, zelResDb *db, zelResEntry *entry, bool isGiven, std::int32_t given) {
    if (isGiven) {
        if (resMgmtLibSetObjectIndex(db, given) != ZEL_RES_OK) return ZEL_RES_NO_INDEX;
    } else if (rmLibCanLocalAllocateObjIndex(client, db) == 1 && rmLibIsLocalObjIndexAvail(db)) {
        if (resMgmtLibGetFreeObjectIndex(db, client, &given) != ZEL_RES_OK) return ZEL_RES_NO_INDEX;
    } else if (db->params.peerFlags == 0) {
        trace(errors, "%s(): Object will be cleaned up. \r\n", "resMgmtLibProcObjectEntryAdd");
        return ZEL_RES_NO_INDEX;
    } else {
        trace(events, "%s(): Object will be added to pending. \r\n", "resMgmtLibProcObjectEntryAdd");
        set(entry, ZEL_RES_WAITING);
        return ZEL_RES_NO_INDEX_YET;
    }
    if (fileIndex(db, entry, given)) return ZEL_RES_OK;
    resMgmtLibReleaseObjectIndex(db, given);
    return ZEL_RES_ERROR;
}

// On the secondary an entry whose last reference went, and of which the primary has to be told.
void letGo(zelResDb *db, zelResEntry *entry) {
    const bool isAsked = is(entry, ZEL_RES_DELETING);
    clear(entry, ZEL_RES_WAITING);
    set(entry, ZEL_RES_DELETING);
    if (!isAsked) numberRequest(db, entry);
    announce(db, entry);
    if (!isAsked) sendDeleteRequest(db, entry);
}

bool digestWith(EVP_MD_CTX *context, const EVP_MD *kind, const void *key, std::size_t length, std::uint8_t *md5) {
    return EVP_DigestInit_ex(context, kind, nullptr) == 1 && EVP_DigestUpdate(context, key, length) == 1 &&
           EVP_DigestFinal_ex(context, md5, nullptr) == 1;
}

}  // namespace

zelResRange *rangeOf(const zelResDb *db, std::int32_t index) {
    return findRange(db, [index](const zelResRange *range) { return range->start <= index && index <= range->end; });
}

bool isIndexUsed(const zelResDb *db, std::int32_t index) {
    const zelResRange *range = rangeOf(db, index);
    return range && isUsed(range, static_cast<std::uint32_t>(index - range->start));
}

int fileEntry(zelResDb *db, const std::uint8_t *digest, const zelResKey &key, zelResEntry *&entry) {
    entry = static_cast<zelResEntry *>(allocate(*db, ZEL_RES_TAG_ENTRY, sizeof(zelResEntry) + key.keyLen));
    if (!entry) {
        trace(errors, "%s(): Memory Alloc failed for pObjEntry.\r\n", "resMgmtLibProcObjectEntryAdd");
        return ZEL_RES_NO_MEMORY;
    }
    entry->objectIndex = -1;
    entry->keyLen = key.keyLen;
    entry->word1 = key.word1;
    entry->word2 = key.word2;
    if (key.keyLen > 0) std::memcpy(entry + 1, key.key, key.keyLen);
    std::memcpy(entry->digest, digest, ZEL_RES_DIGEST_SIZE);
    if (DigestTree::insert(db->entriesByDigest, entry, entry->digest) == entry) {
        ++db->entryCount;
        return ZEL_RES_OK;
    }
    trace(errors, "%s(): Failure to insert the object entry into MD5 tree. \r\n", "resMgmtLibProcObjectEntryAdd");
    release(*db, entry);
    entry = nullptr;
    return ZEL_RES_ERROR;
}

bool fileIndex(zelResDb *db, zelResEntry *entry, std::int32_t index) {
    entry->objectIndex = index;
    if (IndexTree::insert(db->entriesByIndex, entry, index) == entry) return true;
    entry->objectIndex = -1;
    return false;
}

bool giveIndex(zelResDb *db, zelResEntry *entry, std::int32_t index) {
    if (resMgmtLibSetObjectIndex(db, index) != ZEL_RES_OK) return false;
    if (fileIndex(db, entry, index)) return true;
    resMgmtLibReleaseObjectIndex(db, index);
    return false;
}

void freeIndexOf(zelResDb *db, zelResEntry *entry) {
    if (entry->objectIndex == -1) return;
    IndexTree::remove(db->entriesByIndex, entry->objectIndex);
    resMgmtLibReleaseObjectIndex(db, entry->objectIndex);
    entry->objectIndex = -1;
}

void discard(zelResDb *db, zelResEntry *entry) {
    dropRequests(db, entry, ZEL_RES_PENDING_LOCAL | ZEL_RES_PENDING_REMOTE);
    freeIndexOf(db, entry);
    DigestTree::remove(db->entriesByDigest, entry->digest);
    --db->entryCount;
    release(*db, entry);
}

void remove(zelResDb *db, zelResEntry *entry) {
    if (!hasLink(ZEL_RES_LINK_HA) && !isPeerAware(db)) return discard(db, entry);
    std::uint8_t key[ZEL_RES_MAX_KEY];
    zelResSync subject = describe(*db, entry);
    std::memcpy(key, zelResEntryKey(entry), entry->keyLen);
    subject.key.key = key;
    discard(db, entry);
    announceGone(subject);
}

}  // namespace zel::resmgr

using namespace zel::resmgr;

// ---- Ranges and indexes ---------------------------------------------------------------------------------------------

int resMgmtLibInitFreeIndexList(zelResDb *db, int32_t start, int32_t end, int isInitial, zelResRange **outRange) {
    if (!db) return ZEL_RES_ERROR;
    if (!isIndexRange(start, end)) {
        trace(errors, "%s(): Invalid range passed. size %d\r\n", __func__, static_cast<int>(int64_t{end} - start + 1));
        return ZEL_RES_ERROR;
    }
    if (findRange(db, [&](const zelResRange *range) { return start <= range->end && range->start <= end; })) {
        trace(errors, "%s(): Index range overlaps with existing range - start: %ld, end: %ld.\r\n", __func__,
              static_cast<long>(start), static_cast<long>(end));
        return ZEL_RES_ERROR;
    }
    const auto size = static_cast<uint32_t>(end - start) + 1;
    const std::size_t bitmapBytes = (size / wordBits + 1) * sizeof(uint32_t);
    auto *range = static_cast<zelResRange *>(allocate(*db, ZEL_RES_TAG_RANGE, sizeof(zelResRange) + bitmapBytes));
    if (!range) return ZEL_RES_NO_MEMORY;
    *range = {{}, start, end, size, 0, isInitial != 0, reinterpret_cast<uint32_t *>(range + 1)};
    zelDLLInsertAtBack(&db->ranges, &range->node);
    db->cfgInfo.capacity += size;
    if (outRange) *outRange = range;
    if (!isInitial) resMgmtLibHASyncDbCfg(db);
    return ZEL_RES_OK;
}

int rmLibCanLocalAllocateObjIndex(zelResClient *client, zelResDb *db) {
    if (!client || !db) return -1;
    if (!isPrimary()) return 0;
    if (!isPeerAware(db) || !client->peerRole || client->peerRole() != ZEL_RES_KXL_SECONDARY) return 1;
    trace(errors, "%s(): KXL Secondary. pDb: %p, pClient: %p.\r\n", __func__, static_cast<void *>(db),
          static_cast<void *>(client));
    return 0;
}

int rmLibIsLocalObjIndexAvail(const zelResDb *db) {
    return db && db->cfgInfo.used_count < db->cfgInfo.capacity;
}

int32_t resMgmtLibGetNextFreeIndex(const zelResRange *range, int32_t prev) {
    if (!range) return -1;
    if (range->usedCount == range->size) {
        trace(errors, "%s(): Range fully used. usedCount: %ld.\r\n", __func__, static_cast<long>(range->usedCount));
        return -1;
    }
    const bool isBefore = prev < range->start;
    const uint32_t from = isBefore ? 0 : static_cast<uint32_t>(prev - range->start) + 1;
    const uint32_t bit = firstClear(range, from);
    if (bit < range->size) return range->start + static_cast<int32_t>(bit);
    trace(errors, "%s(): Free index unavailable in range. \r\n", __func__);
    return -1;
}

int resMgmtLibGetFreeObjectIndex(zelResDb *db, zelResClient *, int32_t *index) {
    if (!db || !index) return ZEL_RES_ERROR;
    Choice choice;
    if ((db->stateFlags & ZEL_RES_DB_INCOMPLETE) == 0) {
        choice = inCurrentRange(db);
        if (choice.index == -1) choice = inAnyRange(db);
    }
    if (choice.index == -1) {
        trace(errors, "%s(): Returning error.\r\n", __func__);
        return ZEL_RES_ERROR;
    }
    db->lastAllocated = choice.index;
    db->currentRange = choice.range;
    markUsed(db, choice.range, choice.index);
    *index = choice.index;
    return ZEL_RES_OK;
}

int resMgmtLibSetObjectIndex(zelResDb *db, int32_t index) {
    zelResRange *range = db ? rangeOf(db, index) : nullptr;
    if (!range || isUsed(range, static_cast<uint32_t>(index - range->start))) return ZEL_RES_ERROR;
    markUsed(db, range, index);
    return ZEL_RES_OK;
}

int resMgmtLibReleaseObjectIndex(zelResDb *db, int32_t index) {
    zelResRange *range = db ? rangeOf(db, index) : nullptr;
    if (!range) return ZEL_RES_ERROR;
    const auto bit = static_cast<uint32_t>(index - range->start);
    if (!zel::asserted(isUsed(range, bit), "the index is used", sourceName)) return ZEL_RES_ERROR;
    range->bitmap[bit / wordBits] &= ~maskOf(bit);
    if (zel::asserted(db->cfgInfo.used_count > 0, "pDb->cfgInfo.used_count >0", sourceName)) --db->cfgInfo.used_count;
    if (zel::asserted(range->usedCount > 0, "pLinkNode->usedCount >0", sourceName)) --range->usedCount;
    db->lastFreed = index;
    return ZEL_RES_OK;
}

// ---- Entries --------------------------------------------------------------------------------------------------------

// The library's own context: fetching the digest for each key costs more than the digest.
int resMgmtLibFormMd5Key(const void *key, uint32_t keyLen, uint8_t md5[ZEL_RES_DIGEST_SIZE]) {
    static EVP_MD *const kind = EVP_MD_fetch(nullptr, "MD5", nullptr);
    static EVP_MD_CTX *const context = EVP_MD_CTX_new();
    if (!md5 || (!key && keyLen > 0) || !kind || !context) return ZEL_RES_ERROR;
    if (!digestWith(context, kind, key, keyLen, md5)) return ZEL_RES_ERROR;
    if (gRmKeyDmp) {
        dumpBytes("Client Key", key, keyLen);
        dumpBytes("MD5 Key", md5, ZEL_RES_DIGEST_SIZE);
    }
    return ZEL_RES_OK;
}

zelResEntry *resMgmtLibFindObjectEntry(const zelResDb *db, const uint8_t md5[ZEL_RES_DIGEST_SIZE], const void *key) {
    if (!db || !md5) return nullptr;
    zelResEntry *entry = DigestTree::find(db->entriesByDigest, md5);
    return entry && key && std::memcmp(zelResEntryKey(entry), key, entry->keyLen) != 0 ? nullptr : entry;
}

zelResEntry *resMgmtLibFindObjectIndex(const zelResDb *db, int32_t index) {
    return db ? IndexTree::find(db->entriesByIndex, index) : nullptr;
}

zelResEntry *resMgmtLibNextObjectEntry(const zelResDb *db, const zelResEntry *entry) {
    if (!db || !db->entriesByDigest) return nullptr;
    if (!entry) return DigestTree::first(db->entriesByDigest);
    return DigestTree::findGreater(db->entriesByDigest, entry->digest);
}

zelResEntry *resMgmtLibProcObjectEntryAdd(zelResClient *client, zelResDb *db,
                                          const uint8_t md5Digest[ZEL_RES_DIGEST_SIZE], const zelResKey *clientKey,
                                          int useGivenIndex, int32_t givenIndex, int *rc) {
    int ignored;
    int &result = rc ? *rc : ignored;
    result = ZEL_RES_ERROR;
    if (!isRequest(client, db, md5Digest, clientKey)) return nullptr;
    zelResEntry *entry = nullptr;
    result = fileEntry(db, md5Digest, *clientKey, entry);
    if (!entry) return nullptr;
    result = assignIndex(client, db, entry, useGivenIndex != 0, givenIndex);
    if (result != ZEL_RES_OK && result != ZEL_RES_NO_INDEX_YET) {
        discard(db, entry);
        return nullptr;
    }
    entry->refCount = 1;
    if ((db->params.flags & ZEL_RES_DB_MARKS) && client->isMarked && client->isMarked(db, entry))
        set(entry, ZEL_RES_MARKED);
    numberRequest(db, entry);
    announce(db, entry);
    return entry;
}

int resMgmtLibRefObjectEntry(zelResClient *client, zelResDb *db, zelResEntry *entry) {
    if (!client || !db || !entry || entry->refCount == UINT16_MAX) return ZEL_RES_ERROR;
    const bool isFirst = entry->refCount++ == 0;
    const bool isHandedOut = entry->objectIndex != -1 && rmLibCanLocalAllocateObjIndex(client, db) == 1;
    if (isFirst && !isHandedOut) set(entry, ZEL_RES_WAITING);
    if (isFirst && !is(entry, ZEL_RES_DELETING)) numberRequest(db, entry);
    resMgmtLibHASyncObjEntry(db, entry);
    return is(entry, ZEL_RES_WAITING) ? ZEL_RES_NO_INDEX_YET : ZEL_RES_OK;
}

int resMgmtLibProcObjectEntryDel(zelResClient *client, zelResDb *db, zelResEntry *entry) {
    if (!client || !db || !entry) return ZEL_RES_ERROR;
    if (!zel::asserted(entry->refCount > 0, "pObjEntry->refCount >0", sourceName)) return ZEL_RES_ERROR;
    if (--entry->refCount == 0) {
        dropRequests(db, entry, ZEL_RES_PENDING_LOCAL);
        if (isSecondary(db)) {
            letGo(db, entry);
            return ZEL_RES_OK;
        }
        if (entry->kxlUnits == 0) {
            remove(db, entry);
            return ZEL_RES_OK;
        }
    }
    resMgmtLibHASyncObjEntry(db, entry);
    return ZEL_RES_OK;
}

int resMgmtLibDeleteObjectIndex(zelResDb *db, zelResEntry *entry) {
    if (!db || !entry || entry->kxlUnits > 0 || is(entry, ZEL_RES_PEER_HELD)) return ZEL_RES_ERROR;
    if (entry->objectIndex == -1) return ZEL_RES_OK;
    freeIndexOf(db, entry);
    set(entry, ZEL_RES_WAITING);
    resMgmtLibHASyncObjEntry(db, entry);
    return ZEL_RES_OK;
}
