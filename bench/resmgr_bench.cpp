// Resource indexes: an entry comes and goes, against the digest and two maps; the next free index of a range that is
// nearly full, against a scan of words.
#include <openssl/evp.h>

#include <array>
#include <cstring>
#include <map>
#include <vector>

#include "bench/support/row.h"
#include "zel/resmgr.h"

namespace {

constexpr uint32_t client = 0, database = 0, residents = 4096;
constexpr int32_t indexes = 65536;

zelResDb *makeDatabase() {
    resMgmtLibTerminate();
    resMgmtLibRegisterClient(client, 175, 0, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, 0,
                             0, 0);
    const zelResDbParams params = {database, "bench", 0, sizeof(uint64_t), 0, indexes - 1, indexes, 0};
    resMgmtLibProcDbCreate(client, &params, 0, indexes - 1);
    return gaResMgmtDb[database];
}

// ---- Entries --------------------------------------------------------------------------------------------------------

zelResEntry *addEntry(zelResDb *db, uint64_t number) {
    uint8_t digest[ZEL_RES_DIGEST_SIZE];
    const zelResKey key = {&number, sizeof number, 1, 2};
    int rc;
    resMgmtLibFormMd5Key(&number, sizeof number, digest);
    return resMgmtLibProcObjectEntryAdd(gaResMgmtClientDb[client], db, digest, &key, 0, 0, &rc);
}

void addAndDelete(benchmark::State &state) {
    zelResDb *db = makeDatabase();
    for (uint64_t number = 0; number < residents; ++number) addEntry(db, number);
    uint64_t number = residents;
    for (auto _ : state) {
        zelResEntry *entry = addEntry(db, ++number);
        resMgmtLibProcObjectEntryDel(gaResMgmtClientDb[client], db, entry);
    }
    resMgmtLibTerminate();
}

struct Object {
    std::array<uint8_t, 8> key;
    uint32_t words[2];
    int32_t index;
};
using Digest = std::array<uint8_t, 16>;

struct TwoMaps {
    std::map<Digest, Object> byDigest;
    std::map<int32_t, Object *> byIndex;
    Digest add(uint64_t number, int32_t index) {
        Digest digest;
        EVP_Digest(&number, sizeof number, digest.data(), nullptr, EVP_md5(), nullptr);
        Object object{{}, {1, 2}, index};
        memcpy(object.key.data(), &number, sizeof number);
        byIndex[index] = &byDigest.emplace(digest, object).first->second;
        return digest;
    }
    void remove(const Digest &digest, int32_t index) {
        byIndex.erase(index);
        byDigest.erase(digest);
    }
};

void addAndErase(benchmark::State &state) {
    TwoMaps maps;
    for (uint32_t number = 0; number < residents; ++number) maps.add(number, static_cast<int32_t>(number));
    uint64_t number = residents;
    for (auto _ : state) {
        const auto index = static_cast<int32_t>(++number % indexes) + indexes;
        maps.remove(maps.add(number, index), index);
    }
}

ZEL_ROW("resource entry add + delete", "ns", time).ours(addAndDelete).peer("EVP MD5 + two std::map", addAndErase, 1.3);

// ---- Indexes --------------------------------------------------------------------------------------------------------

// Only the last index is free, and the search begins at the first one.
void searchOurs(benchmark::State &state) {
    zelResDb *db = makeDatabase();
    for (int32_t index = 0; index < indexes - 1; ++index) resMgmtLibSetObjectIndex(db, index);
    const auto *range = reinterpret_cast<const zelResRange *>(zelDLLGetFirst(&db->ranges));
    for (auto _ : state) benchmark::DoNotOptimize(resMgmtLibGetNextFreeIndex(range, -1));
    resMgmtLibTerminate();
}

void searchWords(benchmark::State &state) {
    std::vector<uint32_t> words(indexes / 32, UINT32_MAX);
    words.back() = UINT32_MAX - 1;
    for (auto _ : state) {
        benchmark::DoNotOptimize(words.data());
        std::size_t word = 0;
        while (word < words.size() && words[word] == UINT32_MAX) ++word;
        benchmark::DoNotOptimize(word * 32 + static_cast<std::size_t>(__builtin_clz(~words[word])));
    }
}

ZEL_ROW("next free index among 65,536", "ns", time).ours(searchOurs).peer("32-bit word scan", searchWords, 0.6);

}  // namespace
