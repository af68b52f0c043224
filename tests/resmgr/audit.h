// What the tests of this folder share: keys of four bytes, a client with one database, and an audit of its tables.
#pragma once

#include <bit>
#include <cstdint>
#include <cstring>
#include <string>

#include "zel/resmgr.h"

namespace zel::test {

constexpr uint32_t client = 1, database = 2;

inline zelResKey keyOf(const uint32_t &number) {
    return {&number, sizeof number, number, ~number};
}

inline uint32_t numberOf(const zelResEntry *entry) {
    uint32_t number;
    memcpy(&number, zelResEntryKey(entry), sizeof number);
    return number;
}

inline zelResEntry *entryOf(uint32_t number) {
    uint8_t digest[ZEL_RES_DIGEST_SIZE];
    resMgmtLibFormMd5Key(&number, sizeof number, digest);
    return resMgmtLibFindObjectEntry(gaResMgmtDb[database], digest, &number);
}

inline int createDatabase(int32_t start, int32_t end, uint8_t peerFlags = 0, uint32_t flags = 0) {
    zelResDbParams params = {database, "test", flags, sizeof(uint32_t), start, end, end - start + 1, peerFlags};
    return resMgmtLibProcDbCreate(client, &params, start, end);
}

// The client: what is called when a request is served, and what says which role the switch has.
inline int registerTestClient(zelResPendingFn served, zelResPeerRoleFn role) {
    return resMgmtLibRegisterClient(client, 175, 0, nullptr, nullptr, nullptr, served, nullptr, role, nullptr, nullptr,
                                    0, 0, 0);
}

inline int addKey(uint32_t number, int32_t *index, const std::string &cookie = "cookie") {
    const zelResKey key = keyOf(number);
    return resMgmtApiAddObject(client, database, &key, cookie.data(), static_cast<uint32_t>(cookie.size()), index);
}

// What is wrong with the tables, nothing when all is well: every index used has an entry and every entry its index,
// once; counts agree; no entry is left that nobody wants, no request without entry.
inline std::string audit(const zelResDb *db = gaResMgmtDb[database]) {
    uint32_t entries = 0, withIndex = 0, requests = 0, chained = 0, used = 0, bits = 0, capacity = 0;
    for (zelResEntry *entry = resMgmtLibNextObjectEntry(db, nullptr); entry;
         entry = resMgmtLibNextObjectEntry(db, entry)) {
        const std::string name = "entry " + std::to_string(numberOf(entry));
        ++entries;
        withIndex += entry->objectIndex != -1;
        for (zelResPending *request = entry->pending; request; request = request->nextOfEntry) ++chained;
        if (entry->objectIndex != -1 && resMgmtLibFindObjectIndex(db, entry->objectIndex) != entry)
            return name + " is not the one that has its index";
        const bool isWaiting = (entry->statusFlag & (ZEL_RES_WAITING | ZEL_RES_DELETING)) != 0;
        if (entry->objectIndex == -1 && !isWaiting) return name + " neither has an index nor waits";
        if (!entry->refCount && !entry->kxlUnits && !(entry->statusFlag & (ZEL_RES_PEER_HELD | ZEL_RES_DELETING)))
            return name + " is wanted by nobody";
        if ((entry->kxlUnits > 0) != (entry->isKxlRequest != 0)) return name + " is half the peer's";
    }
    auto *lists = const_cast<zelResDb *>(db);
    for (zelDLLNode *node = zelDLLGetFirst(&lists->ranges); node; node = zelDLLGetNext(&lists->ranges, node)) {
        const auto *range = reinterpret_cast<zelResRange *>(node);
        capacity += range->size;
        used += range->usedCount;
        for (uint32_t word = 0; word <= range->size / 32; ++word)
            bits += static_cast<uint32_t>(std::popcount(range->bitmap[word]));
    }
    for (zelDLLNode *node = zelDLLGetFirst(&lists->pending); node; node = zelDLLGetNext(&lists->pending, node)) {
        ++requests;
        if (!reinterpret_cast<zelResPending *>(node)->entry) return "a request without entry";
    }
    if (entries != db->entryCount) return "the count of entries";
    if (requests != chained) return "a request in the list or at the entry alone";
    if (bits != withIndex || used != bits || db->cfgInfo.used_count != bits) return "the count of used indexes";
    return capacity == db->cfgInfo.capacity ? "" : "the capacity";
}

}  // namespace zel::test
