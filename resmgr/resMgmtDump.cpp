// Tracing, and dumps for the debugger's shell.
#include <cstdarg>
#include <cstdio>

#include "resmgr/resources.h"
#include "zel/kernel.h"

namespace zel::resmgr {
namespace {

constexpr std::uint32_t traceModule = 41;  // RESMGR

template <class Visit>
int withDatabase(std::uint32_t id, Visit visit) {
    if (zelResDb *db = databaseAt(id))
        visit(db);
    else
        printf("No database %u\n", id);
    return ZEL_RES_OK;
}

void printClient(const zelResClient *client) {
    printf("Client %u: service %u, instance %u, words 0x%x 0x%x 0x%x, databases", client->clientId, client->service,
           client->instance, client->words[0], client->words[1], client->words[2]);
    for (const zelResLink *link = client->databases; link; link = link->next)
        printf(" %u", link->db->params.databaseId);
    printf("\n");
}

void printRanges(const zelResDb *db) {
    auto *ranges = const_cast<zelDLL *>(&db->ranges);
    for (zelDLLNode *node = zelDLLGetFirst(ranges); node; node = zelDLLGetNext(ranges, node)) {
        const auto *range = reinterpret_cast<const zelResRange *>(node);
        printf("  range %d..%d: %u of %u used%s\n", range->start, range->end, range->usedCount, range->size,
               range->isInitial ? ", initial" : "");
    }
}

void printDatabase(const zelResDb *db) {
    printf("Database %u \"%s\": flags 0x%x, peer flags 0x%x, key length %u, state 0x%x, clients", db->params.databaseId,
           db->params.name, db->params.flags, db->params.peerFlags, db->params.keyLength, db->stateFlags);
    for (const zelResLink *link = db->clients; link; link = link->next) printf(" %u", link->client->clientId);
    printf("\n  %u of %u used, last allocated %d, last freed %d\n", db->cfgInfo.used_count, db->cfgInfo.capacity,
           db->lastAllocated, db->lastFreed);
    printRanges(db);
}

void printEntry(const zelResEntry *entry) {
    printf("  index %d, status 0x%x, references %u, of the peer %u%s\n", entry->objectIndex, entry->statusFlag,
           entry->refCount, entry->kxlUnits, entry->pending ? ", request pending" : "");
    dumpBytes("    Client Key", zelResEntryKey(entry), entry->keyLen);
    dumpBytes("    MD5 Key", entry->digest, ZEL_RES_DIGEST_SIZE);
}

}  // namespace

void trace(Trace what, const char *format, ...) {
    if ((gRmLibDebug & what) == 0) return;
    char text[256];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    if (!moduleTraceFlags || !g_EnableLocalPrinting) fputs(text, stdout);
    if (!moduleTraceFlags) return;
    what == errors ? zelErrorPrintf(traceModule, "%s", text) : zelTracePrintf(traceModule, "%s", text);
}

void dumpBytes(const char *label, const void *bytes, std::size_t length) {
    printf("%s:", label);
    for (std::size_t i = 0; i < length; ++i) printf(" %02x", static_cast<const std::uint8_t *>(bytes)[i]);
    printf("\n");
}

}  // namespace zel::resmgr

using namespace zel::resmgr;

int rmLibHelp(void) {
    puts(
        "rmLibDumpAllClient                 the registered clients\n"
        "rmLibDumpAllResourceDb             the databases\n"
        "rmLibDumpDbNode(database)          one database\n"
        "rmLibDumpObjIndexTree(database)    its entries by index\n"
        "rmLibDumpMd5NodeTree(database)     its entries by digest\n"
        "rmLibDumpDbCounters(database)      its counters; rmLibClearDbCounters clears them\n"
        "rmLibDumpGlobalTcb                 counters of the process\n"
        "gRmLibDebug                        1 traces errors, 2 events\n"
        "gRmKeyDmp                          1 dumps keys and their digests");
    return ZEL_RES_OK;
}

int rmLibDumpAllClient(void) {
    for (const zelResClient *client : gaResMgmtClientDb)
        if (client) printClient(client);
    return ZEL_RES_OK;
}

int rmLibDumpAllResourceDb(void) {
    for (const zelResDb *db : gaResMgmtDb)
        if (db) printDatabase(db);
    return ZEL_RES_OK;
}

int rmLibDumpDbNode(uint32_t databaseId) {
    return withDatabase(databaseId, printDatabase);
}

int rmLibDumpObjIndexTree(uint32_t databaseId) {
    return withDatabase(databaseId, [](zelResDb *db) {
        if (!db->entriesByIndex) return;
        for (zelResEntry *entry = IndexTree::first(db->entriesByIndex); entry;
             entry = IndexTree::findGreater(db->entriesByIndex, entry->objectIndex))
            printEntry(entry);
    });
}

int rmLibDumpMd5NodeTree(uint32_t databaseId) {
    return withDatabase(databaseId, [](zelResDb *db) { forEachEntry(db, printEntry); });
}

int rmLibDumpDbCounters(uint32_t databaseId) {
    return withDatabase(databaseId, [](zelResDb *db) {
        printf("Database %u: %u entries, %u requests pending ever, %u duplicates\n", db->params.databaseId,
               db->entryCount, db->pendingAdded, db->pendingDuplicates);
    });
}

int rmLibClearDbCounters(uint32_t databaseId) {
    return withDatabase(databaseId, [](zelResDb *db) { db->pendingAdded = db->pendingDuplicates = 0; });
}

int rmLibDumpGlobalTcb(void) {
    const zelResTcb &state = gResMgrTcb;
    printf("%u clients registered, %u databases created; messages: %u refused, %u untimely; %u conflicts\n",
           state.clientsRegistered, state.databasesCreated, state.refused, state.untimely, state.conflicts);
    for (int link = 0; link < ZEL_RES_LINKS; ++link)
        printf("%s: sent %u, failures %u, received %u, gaps %u\n", link == ZEL_RES_LINK_HA ? "Standby" : "KXL peer",
               state.sent[link], state.sendFailures[link], state.received[link], state.gaps[link]);
    return ZEL_RES_OK;
}
