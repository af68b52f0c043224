// Clients, databases, ranges, the choice of an index, entries and requests of one process.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <set>
#include <vector>

#include "tests/resmgr/audit.h"
#include "tests/support/failing_allocator.h"
#include "tests/support/random.h"
#include "tests/support/reports.h"
#include "zel/platform.h"

namespace zel::test {
namespace {

struct Served {
    uint32_t number;
    int32_t index;
    std::string cookie;
    bool isRemote;
};
std::vector<Served> served;
int peerRole = 1;

void serve(zelResEntry *entry, const void *cookie, uint32_t length, bool isRemote) {
    served.push_back({numberOf(entry), entry->objectIndex, {static_cast<const char *>(cookie), length}, isRemote});
}

// What the library says at that debug level.
template <class Body>
std::string printedBy(uint32_t level, Body body) {
    gRmLibDebug = level;
    testing::internal::CaptureStdout();
    body();
    gRmLibDebug = 0;
    return testing::internal::GetCapturedStdout();
}

class Resources : public testing::Test {
protected:
    ~Resources() override {
        printedBy(0, resMgmtLibTerminate);
        EXPECT_EQ(FailingAllocator::live(), 0);
    }
    static int registerClient(uint32_t id, zelResMarkedFn isMarked = nullptr, zelResAllocFn alloc = nullptr) {
        return resMgmtLibRegisterClient(
            id, 175, 0, alloc, alloc ? FailingAllocator::release : nullptr, nullptr,
            [](zelResDb *, zelResEntry *entry, const void *cookie, uint32_t length) {
                serve(entry, cookie, length, false);
            },
            [](zelResDb *, zelResEntry *entry, const void *cookie, uint32_t length) {
                serve(entry, cookie, length, true);
            },
            [] { return peerRole; }, isMarked, nullptr, 7, 8, 9);
    }
    zelResDb *db() const { return gaResMgmtDb[database]; }
    int32_t take() const {
        int32_t index = -1;
        return resMgmtLibGetFreeObjectIndex(db(), nullptr, &index) == 0 ? index : -1;
    }
    int add(uint32_t number, int32_t *index = nullptr, const char *cookie = "") const {
        int32_t ignored;
        return addKey(number, index ? index : &ignored, cookie);
    }
    int drop(uint32_t number) const { return resMgmtApiDelObject(client, database, &number, sizeof number); }
};

// ---- Clients and databases ------------------------------------------------------------------------------------------

TEST_F(Resources, ClientsAreRegisteredOnceWithTheirLastHooks) {
    static std::vector<std::pair<uint32_t, uint32_t>> asked;
    const auto hook = [](uint32_t size, uint32_t tag) {
        asked.emplace_back(size, tag);
        return FailingAllocator::allocate(size);
    };
    EXPECT_EQ(registerClient(3), -1);
    EXPECT_EQ(registerClient(1, nullptr, hook), 0);
    EXPECT_EQ(asked, (std::vector<std::pair<uint32_t, uint32_t>>{{104, 8252}}));
    const zelResClient *record = gaResMgmtClientDb[1];
    EXPECT_EQ(printedBy(2, [] { EXPECT_EQ(registerClient(1), 0); }),
              "resMgmtLibRegisterClient(): client Id: 1 already registered.\r\n");
    EXPECT_EQ(gaResMgmtClientDb[1], record);
    EXPECT_EQ(record->alloc, nullptr);
    EXPECT_EQ(gResMgrTcb.clientsRegistered, 1u);
}

TEST_F(Resources, DatabasesAreCheckedCreatedAndJoined) {
    registerClient(1);
    registerClient(2);
    const auto create = [](uint32_t by, uint8_t id, uint32_t flags = 0, int32_t end = 9) {
        zelResDbParams params = {id, "test", flags, 4, 0, 9, 10, 0};
        return resMgmtLibProcDbCreate(by, &params, 0, end);
    };
    const auto addRange = [](int32_t start, int32_t end) {
        return resMgmtLibInitFreeIndexList(gaResMgmtDb[5], start, end, 0, nullptr);
    };
    const auto refused = [&] {
        for (const int result : {create(1, 6), create(0, 5), create(3, 5), create(1, 5, 0, 10),
                                 create(1, 5, ZEL_RES_DB_NOTIFY), create(1, 5, ZEL_RES_DB_MARKS)})
            EXPECT_EQ(result, -1);
        for (const uint32_t by : {1u, 1u, 2u}) EXPECT_EQ(create(by, 5), 0);
        for (const int result : {addRange(9, 12), addRange(20, 19)}) EXPECT_EQ(result, -1);
    };
    EXPECT_EQ(printedBy(3, refused),
              "resMgmtLibProcDbCreate(): Invalid Resource Id: 6.\r\n"
              "resMgmtLibProcDbCreate(): size 10 mismatch with index range. \r\n"
              "resMgmtLibProcDbCreate(): Invalid callback function registered.\r\n"
              "resMgmtLibProcDbCreate(): Invalid callback function registered.\r\n"
              "resMgmtLibProcDbCreate(): DB Id: 5 created by Client ID: 1 already.\r\n"
              "resMgmtLibInitFreeIndexList(): Index range overlaps with existing range - start: 9, end: 12.\r\n"
              "resMgmtLibInitFreeIndexList(): Invalid range passed. size 0\r\n");
    EXPECT_EQ(addRange(-5, 5), -1);
    EXPECT_EQ(gaResMgmtDb[5]->clients->next->client, gaResMgmtClientDb[2]);
    EXPECT_EQ(gaResMgmtClientDb[2]->databases->db, gaResMgmtDb[5]);
    EXPECT_EQ(gResMgrTcb.databasesCreated, 1u);

    zelResDbParams without = {4, "without", 0, 4, 0, 0, 0, 0};
    for (const uint32_t by : {1u, 2u}) EXPECT_EQ(resMgmtLibProcDbCreate(by, &without, 0, 0), -3);
    EXPECT_EQ(gaResMgmtDb[4]->stateFlags, 1u);
}

// Every allocation of a life fails in turn: nothing leaks, and the second try succeeds.
TEST_F(Resources, WithoutMemoryNothingChanges) {
    const auto hook = [](uint32_t size, uint32_t) { return FailingAllocator::allocate(size); };
    const auto needsTwo = [](unsigned nth, auto call) {
        FailingAllocator::failAt(nth);
        const int result = call();
        const bool isShort = FailingAllocator::hasFailed();
        FailingAllocator::failAt(0);
        if (isShort) {
            EXPECT_TRUE(result == -5 || result == -1);
        }
        EXPECT_EQ(isShort ? call() : result, -3);
    };
    for (unsigned nth = 1; nth < 6; ++nth) {
        peerRole = 1;
        EXPECT_EQ(registerClient(1, nullptr, hook), 0);
        needsTwo(nth, [] {
            const int result = createDatabase(0, 9, ZEL_RES_PEER_AWARE);
            return result == 0 ? -3 : result;
        });
        peerRole = ZEL_RES_KXL_SECONDARY;
        needsTwo(nth, [this] { return add(1, nullptr, "cookie"); });
        EXPECT_EQ(audit(), "");
        resMgmtLibTerminate();
        EXPECT_EQ(FailingAllocator::live(), 0);
    }
    peerRole = 1;
}

TEST_F(Resources, TracesNameWhatFailed) {
    const auto hook = [](uint32_t size, uint32_t) { return FailingAllocator::allocate(size); };
    const auto traces = [](const std::string &line, auto call, unsigned withoutMemory = 0) {
        FailingAllocator::failAt(withoutMemory);
        const std::string printed = printedBy(3, call);
        EXPECT_NE(printed.find(line + "\r\n"), std::string::npos) << printed;
    };
    registerClient(1, nullptr, hook);
    const std::string creating = "resMgmtLibProcDbCreate(): Adding ", adding = "resMgmtLibProcObjectEntryAdd(): ";
    const auto create = [] { createDatabase(0, 0); };
    traces(creating + "client to Db list failed. Client Id: 1, DB Id: 2.", create, 2);
    traces(creating + "Db to client list failed. Client Id: 1, DB Id: 2.", create, 3);
    create();
    traces(
        adding + "Memory Alloc failed for pObjEntry.", [this] { add(1); }, 1);
    ASSERT_EQ(add(1), 0);
    traces(adding + "Object will be cleaned up. ", [this] { add(2); });
    traces(adding + "Failure to insert the object entry into MD5 tree. ", [this] {
        const uint32_t number = 1;
        const zelResKey key = keyOf(number);
        resMgmtLibProcObjectEntryAdd(gaResMgmtClientDb[1], db(), entryOf(1)->digest, &key, 0, 0, nullptr);
    });
    db()->params.peerFlags = ZEL_RES_PEER_AWARE;
    traces(adding + "Object will be added to pending. ", [this] { add(3); });
    peerRole = ZEL_RES_KXL_SECONDARY;
    char line[200];
    snprintf(line, sizeof line, "rmLibCanLocalAllocateObjIndex(): KXL Secondary. pDb: %p, pClient: %p.",
             static_cast<void *>(db()), static_cast<void *>(gaResMgmtClientDb[1]));
    traces(line, [this] { rmLibCanLocalAllocateObjIndex(gaResMgmtClientDb[1], db()); });
    peerRole = 1;
    EXPECT_EQ(audit(), "");
}

// ---- Indexes --------------------------------------------------------------------------------------------------------

// The model below has the rules; these are the words.
TEST_F(Resources, SaysWhenOnlyTheIndexFreedLastOrNoneIsLeft) {
    registerClient(1);
    createDatabase(10, 11);
    EXPECT_EQ(take(), 10);
    EXPECT_EQ(take(), 11);
    resMgmtLibReleaseObjectIndex(db(), 11);
    EXPECT_EQ(printedBy(2, [this] { EXPECT_EQ(take(), 11); }),
              "resMgmtLibGetFreeObjectIndex(): Last freed objIndex: 11 is the only one available.\r\n");
    EXPECT_EQ(printedBy(1, [this] { EXPECT_EQ(take(), -1); }),
              "resMgmtLibGetNextFreeIndex(): Range fully used. usedCount: 2.\r\n"
              "resMgmtLibGetNextFreeIndex(): Range fully used. usedCount: 2.\r\n"
              "resMgmtLibGetFreeObjectIndex(): Returning error.\r\n");
}

TEST_F(Resources, FreeingTwiceIsReportedAndCountsNothing) {
    registerClient(1);
    createDatabase(0, 40);
    for (const auto &[index, result] : {std::pair{33, 0}, {33, -1}, {41, -1}})
        EXPECT_EQ(resMgmtLibSetObjectIndex(db(), index), result);
    EXPECT_EQ(take(), 0);
    for (const auto &[index, result] : {std::pair{33, 0}, {33, -1}, {41, -1}})
        EXPECT_EQ(resMgmtLibReleaseObjectIndex(db(), index), result);
    EXPECT_EQ(reportedAssertions(), 1);
    EXPECT_EQ(db()->cfgInfo.used_count, 1u);
    db()->cfgInfo.used_count = db()->currentRange->usedCount = 0;
    EXPECT_EQ(resMgmtLibReleaseObjectIndex(db(), 0), 0);
    EXPECT_EQ(reportedAssertions(), 3);
    EXPECT_EQ(lastAssertion(), "pLinkNode->usedCount >0");
    EXPECT_EQ(db()->cfgInfo.used_count, 0u);
}

// The rules again, in the plain words of a set of free indexes for each range.
struct Model {
    std::vector<std::set<int32_t>> free;
    std::vector<int32_t> first;
    int32_t lastAllocated = -1, lastFreed = -1;
    std::size_t current = SIZE_MAX;

    int32_t choose() {
        if (current != SIZE_MAX) {
            const auto next = free[current].upper_bound(lastAllocated);
            if (next != free[current].end() && *next != lastFreed) return *next;
        }
        for (current = 0; current < free.size(); ++current)
            for (const int32_t index : free[current])
                if (index != lastFreed) return index;
        for (current = 0; current < free.size(); ++current)
            if (free[current].count(lastFreed)) return lastFreed;
        return -1;
    }
    int32_t take() {
        const std::size_t before = current;
        const int32_t index = choose();
        if (index == -1) return current = before, -1;
        free[current].erase(index);
        return lastAllocated = index;
    }
    std::set<int32_t> *rangeOf(int32_t index) {
        for (std::size_t i = 0; i < free.size(); ++i)
            if (index >= first[2 * i] && index <= first[2 * i + 1]) return &free[i];
        return nullptr;
    }
};

TEST_F(Resources, RandomOperationsAgreeWithAModel) {
    Random random = seeded();
    const std::vector<int32_t> bounds = {100, 163, 0, 0, 40, 50, 1000, 1299, 7, 38};
    registerClient(1);
    createDatabase(bounds[0], bounds[1]);
    Model model;
    model.first = bounds;
    for (std::size_t i = 0; i < bounds.size(); i += 2) {
        if (i > 0) {
            ASSERT_EQ(resMgmtLibInitFreeIndexList(db(), bounds[i], bounds[i + 1], 0, nullptr), 0);
        }
        model.free.emplace_back();
        for (int32_t index = bounds[i]; index <= bounds[i + 1]; ++index) model.free.back().insert(index);
    }
    std::map<uint32_t, std::pair<int32_t, uint32_t>> held;  // by key: index, references
    for (int step = 0; step < 100000 && !HasFailure(); ++step) {
        const uint32_t number = random() % 600;
        const auto entry = held.find(number);
        const bool grows = step / 4000 % 2 == 0;
        if (random() % 10 < (grows ? 7u : 3u)) {
            int32_t index;
            const int32_t expected = entry != held.end() ? entry->second.first : model.take();
            ASSERT_EQ(add(number, &index), expected == -1 ? -4 : 0);
            ASSERT_EQ(index, expected);
            if (expected != -1) held[number] = {index, entry != held.end() ? entry->second.second + 1 : 1};
        } else if (random() % 8 == 0 && entry == held.end()) {
            int rc;
            uint8_t digest[16];
            const zelResKey key = keyOf(number);
            const auto index = static_cast<int32_t>(random() % 1310);
            std::set<int32_t> *range = model.rangeOf(index);
            const bool isFree = range && range->erase(index);
            resMgmtLibFormMd5Key(&number, sizeof number, digest);
            resMgmtLibProcObjectEntryAdd(gaResMgmtClientDb[client], db(), digest, &key, 1, index, &rc);
            ASSERT_EQ(rc, isFree ? 0 : -4);
            if (isFree) held[number] = {index, 1};
        } else {
            ASSERT_EQ(drop(number), entry != held.end() ? 0 : -1);
            if (entry == held.end() || --entry->second.second > 0) continue;
            model.lastFreed = entry->second.first;
            model.rangeOf(model.lastFreed)->insert(model.lastFreed);
            held.erase(entry);
        }
        if (step % 1000 == 0) {
            ASSERT_EQ(audit(), "");
            ASSERT_EQ(db()->entryCount, held.size());
        }
    }
    for (const auto &[number, rest] : held) EXPECT_EQ(entryOf(number)->objectIndex, rest.first);
}

// ---- Entries and requests -------------------------------------------------------------------------------------------

// The random operations below have the rest of an entry's life.
TEST_F(Resources, AnEntryIsFiledUnderTheDigestOfItsKeyAlone) {
    registerClient(1);
    createDatabase(0, 9);
    uint8_t digest[16];
    EXPECT_EQ(resMgmtLibFormMd5Key("abc", 3, digest), 0);
    EXPECT_EQ(memcmp(digest, "\x90\x01\x50\x98\x3c\xd2\x4f\xb0\xd6\x96\x3f\x7d\x28\xe1\x7f\x72", 16), 0);
    const uint32_t number = 5, other = 6;
    const zelResKey key = keyOf(number), wrong = {&number, 3, 0, 0}, clash = keyOf(other);
    int rc = 1;
    const auto file = [&](const zelResKey *given) {
        return resMgmtLibProcObjectEntryAdd(gaResMgmtClientDb[client], db(), digest, given, 0, 0, &rc);
    };
    EXPECT_TRUE(!file(nullptr) && !file(&wrong));
    zelResEntry *entry = file(&key);
    EXPECT_EQ(rc, 0);
    EXPECT_EQ(resMgmtLibFindObjectEntry(db(), digest, &number), entry);
    EXPECT_EQ(resMgmtLibFindObjectEntry(db(), digest, &other), nullptr);
    EXPECT_EQ(file(&clash), nullptr);
    EXPECT_EQ(rc, -1);
    EXPECT_EQ(audit(), "");
}

TEST_F(Resources, AnEntryThatLosesItsIndexWaitsForAnother) {
    registerClient(1);
    createDatabase(0, 9, ZEL_RES_PEER_AWARE);
    ASSERT_EQ(add(1), 0);
    entryOf(1)->kxlUnits = 1;
    EXPECT_EQ(resMgmtLibDeleteObjectIndex(db(), entryOf(1)), -1);
    entryOf(1)->kxlUnits = 0;
    EXPECT_EQ(resMgmtLibDeleteObjectIndex(db(), entryOf(1)), 0);
    EXPECT_EQ(audit(), "");
    EXPECT_EQ(add(1, nullptr, "c"), -3);
    served.clear();
    resMgmtLibProcessPendingRequests(db());
    ASSERT_EQ(served.size(), 1u);
    EXPECT_EQ(served[0].index, 1);
}

TEST_F(Resources, TheRightToAllocateFollowsTheRoles) {
    registerClient(1);
    createDatabase(0, 1, ZEL_RES_PEER_AWARE);
    zelResClient *user = gaResMgmtClientDb[client];
    EXPECT_EQ(rmLibCanLocalAllocateObjIndex(nullptr, db()), -1);
    EXPECT_EQ(rmLibCanLocalAllocateObjIndex(user, db()), 1);
    peerRole = ZEL_RES_KXL_SECONDARY;
    EXPECT_EQ(rmLibCanLocalAllocateObjIndex(user, db()), 0);
    db()->params.peerFlags = 0;
    EXPECT_EQ(rmLibCanLocalAllocateObjIndex(user, db()), 1);
    zelPlatformSetPrimaryRpm(0);
    EXPECT_EQ(rmLibCanLocalAllocateObjIndex(user, db()), 0);
    EXPECT_EQ(add(1), -4);
    zelPlatformSetPrimaryRpm(1);
    peerRole = 1;
}

// Also while a callback adds, deletes its own entry, and serves again.
TEST_F(Resources, RequestsAreServedInTheirOrderAsFarAsIndexesGo) {
    registerClient(1);
    createDatabase(0, 3, ZEL_RES_PEER_AWARE);
    for (uint32_t number = 0; number < 4; ++number) EXPECT_EQ(add(number), 0);
    for (uint32_t number = 10; number < 15; ++number) EXPECT_EQ(add(number, nullptr, "c"), -3);
    EXPECT_EQ(resMgmtLibAddPendingReq(client, db(), entryOf(12), "c", 1, ZEL_RES_PENDING_REMOTE), 0);
    EXPECT_EQ(db()->pendingDuplicates, 1u);
    EXPECT_EQ(db()->pendingAdded, 5u);
    EXPECT_EQ(add(14, nullptr, "another"), -3);
    EXPECT_EQ(drop(11), 0);
    resMgmtLibProcessPendingRequests(db());
    EXPECT_TRUE(served.empty());
    EXPECT_EQ(drop(3), 0);
    EXPECT_EQ(drop(2), 0);
    ASSERT_EQ(served.size(), 3u);
    EXPECT_EQ(served[0].number, 10u);
    EXPECT_EQ(served[0].index, 3);
    EXPECT_EQ(served[0].cookie, "c");
    EXPECT_EQ(served[1].number, 12u);
    EXPECT_FALSE(served[1].isRemote);
    EXPECT_TRUE(served[2].isRemote);
    EXPECT_EQ(audit(), "");

    gaResMgmtClientDb[client]->pendingServed = [](zelResDb *from, zelResEntry *entry, const void *, uint32_t) {
        const uint32_t number = numberOf(entry);
        served.push_back({number, entry->objectIndex, "", false});
        resMgmtApiDelObject(client, database, &number, sizeof number);
        resMgmtLibProcessPendingRequests(from);
    };
    served.clear();
    EXPECT_EQ(drop(0), 0);
    EXPECT_EQ(served.size(), 3u);  // 13, and both requests of 14 with the same index
    EXPECT_EQ(audit(), "");
    EXPECT_EQ(db()->entryCount, 3u);
}

// The loop ends with the last free index, also before a request whose entry has one by now; a deletion by key answers
// that too, after those whose turn it was.
TEST_F(Resources, AFullDatabaseEndsTheLoopOverTheRequests) {
    registerClient(1);
    createDatabase(0, 1, ZEL_RES_PEER_AWARE);
    for (const uint32_t number : {1u, 2u}) EXPECT_EQ(add(number), 0);
    EXPECT_EQ(add(10, nullptr, "a") + add(11, nullptr, "b") + add(10, nullptr, "c"), -9);
    served.clear();
    EXPECT_EQ(resMgmtLibProcObjectEntryDel(gaResMgmtClientDb[client], db(), entryOf(1)), 0);
    resMgmtLibProcessPendingRequests(db());
    ASSERT_EQ(served.size(), 1u);
    EXPECT_EQ(served[0].cookie, "a");
    EXPECT_EQ(drop(2), 0);
    ASSERT_EQ(served.size(), 3u);
    EXPECT_EQ(served[1].cookie + served[2].cookie, "bc");
    EXPECT_EQ(served[2].index, served[0].index);
    EXPECT_EQ(zelDLLGetFirst(&db()->pending), nullptr);
    EXPECT_EQ(audit(), "");
}

// The peer's request is answered out of any loop; what serves requests meanwhile leaves that one alone.
TEST_F(Resources, ARequestBeingAnsweredIsNotServedAgain) {
    registerClient(1, nullptr, [](uint32_t size, uint32_t) { return FailingAllocator::allocate(size); });
    createDatabase(0, 9, ZEL_RES_PEER_AWARE);
    static int answers;
    answers = 0;
    gaResMgmtClientDb[client]->remoteAllocated = [](zelResDb *from, zelResEntry *, const void *, uint32_t) {
        ++answers;
        resMgmtLibProcessPendingRequests(from);
    };
    const uint32_t number = 7;
    zelResSync asked{db(), gaResMgmtClientDb[client], 5, ZEL_RES_SYNC_PRESENT, 0, 1, {}, keyOf(number), 1};
    resMgmtLibFormMd5Key(&number, sizeof number, asked.digest);
    EXPECT_EQ(resMgmtLibProcObjAddReqFromKxlPeer(&asked), 0);
    EXPECT_EQ(answers, 1);
    EXPECT_EQ(entryOf(7)->objectIndex, 5);
    EXPECT_EQ(entryOf(7)->pending, nullptr);
    EXPECT_EQ(audit(), "");
}

TEST_F(Resources, DumpsShowTheTables) {
    registerClient(1);
    createDatabase(5, 9);
    add(0x01020304);
    const std::string printed = printedBy(0, [] {
        gRmKeyDmp = 1;
        entryOf(0);
        gRmKeyDmp = 0;
        for (const auto dump : {rmLibHelp, rmLibDumpAllClient, rmLibDumpAllResourceDb, rmLibDumpGlobalTcb}) dump();
        for (const auto dump : {rmLibDumpObjIndexTree, rmLibDumpMd5NodeTree}) dump(database);
        rmLibDumpDbCounters(0);
    });
    for (const char *line : {"Client Key: 00 00 00 00\nMD5 Key: f1 d3 ff 84 43 29 77 32 86 2d f2 1d c4 e5 72 62\n",
                             "Client 1: service 175, instance 0, words 0x7 0x8 0x9, databases 2\n",
                             "  1 of 5 used, last allocated 5, last freed -1\n  range 5..9: 1 of 5 used, initial\n",
                             "  index 5, status 0x0, references 1, of the peer 0\n", "No database 0\n"})
        EXPECT_NE(printed.find(line), std::string::npos) << line;
}

}  // namespace
}  // namespace zel::test
