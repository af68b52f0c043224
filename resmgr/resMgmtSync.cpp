// What goes out: to the standby, to the KXL secondary, and from the secondary to the KXL primary.
//
// A message describes an entry as it is, never a step, so that one that arrives twice does no harm and a later one
// makes up for one that was lost. Everything about an index goes to the standby before it goes anywhere else.
//
// A complete copy stands between two marks; what was not confirmed between them is not there any more. The secondary
// does not copy to the primary: it repeats its requests, with the indexes it has already, between the same marks.
#include "resmgr/sync.h"

namespace zel::resmgr {
namespace {

std::uint16_t atMost16(std::uint32_t count) {
    return static_cast<std::uint16_t>(count < UINT16_MAX ? count : UINT16_MAX);
}

// The sequence number is used up also when sending fails: the receiver sees that something is missing.
void writeHeader(std::uint8_t *message, int link, std::uint16_t subcommand, std::uint32_t databaseId,
                 std::uint32_t clientId, std::size_t length) {
    SyncHeader::Magic::set(message, ZEL_RES_SYNC_MAGIC);
    SyncHeader::Version::set(message, ZEL_RES_SYNC_VERSION);
    SyncHeader::Subcommand::set(message, subcommand);
    SyncHeader::Database::set(message, static_cast<std::uint8_t>(databaseId));
    SyncHeader::Client::set(message, static_cast<std::uint8_t>(clientId));
    SyncHeader::Length::set(message, static_cast<std::uint16_t>(length));
    SyncHeader::Sequence::set(message, ++gResMgrTcb.sent[link]);
}

int sendBytes(int link, const zelResClient *client, const void *message, std::size_t length) {
    if (link == ZEL_RES_LINK_KXL) return resMgmtLibSendKxlSyncBuf(client, message, static_cast<std::uint32_t>(length));
    if (!hasLink(link)) return -1;
    const int result = gResMgrTcb.send[link](message, static_cast<std::uint32_t>(length));
    if (result != 0) ++gResMgrTcb.sendFailures[link];
    return result;
}

bool canSend(int link, const zelResClient *client) {
    return hasLink(link) || (link == ZEL_RES_LINK_KXL && client && client->kxlSend);
}

int sendMark(int link, std::uint16_t subcommand, const zelResDb *db, std::uint8_t status) {
    const zelResClient *client = db ? db->clients->client : nullptr;
    if (!canSend(link, client)) return -1;
    std::uint8_t message[SyncMark::size] = {};
    writeHeader(message, link, subcommand, db ? db->params.databaseId : 0, client ? client->clientId : 0,
                sizeof message);
    SyncBody::Index::set(message, static_cast<std::uint32_t>(db ? db->lastAllocated : -1));
    SyncBody::Status::set(message, status);
    SyncMark::LastFreed::set(message, static_cast<std::uint32_t>(db ? db->lastFreed : -1));
    return sendBytes(link, client, message, sizeof message);
}

// `range` is null for a database without any.
int sendConfig(const zelResDb *db, const zelResRange *range) {
    std::uint8_t message[SyncConfig::size] = {};
    const zelResClient *client = db->clients->client;
    writeHeader(message, ZEL_RES_LINK_HA, ZEL_RES_SYNC_DB_CONFIG, db->params.databaseId, client->clientId,
                sizeof message);
    SyncConfig::Start::set(message, static_cast<std::uint32_t>(range ? range->start : 0));
    SyncConfig::End::set(message, static_cast<std::uint32_t>(range ? range->end : -1));
    SyncConfig::Size::set(message, range ? range->size : 0);
    SyncConfig::Flags::set(message, db->params.flags);
    SyncConfig::KeyLength::set(message, static_cast<std::uint16_t>(db->params.keyLength));
    SyncConfig::PeerFlags::set(message, db->params.peerFlags);
    SyncConfig::IsInitial::set(message, range && range->isInitial ? 1 : 0);
    std::memcpy(message + SyncConfig::name, db->params.name, ZEL_RES_NAME_SIZE);
    return sendBytes(ZEL_RES_LINK_HA, client, message, sizeof message);
}

bool concernsPeer(const zelResDb *db, const zelResEntry *entry) {
    return (db->params.peerFlags & ZEL_RES_PEER_MARKED_ONLY) == 0 || is(entry, ZEL_RES_MARKED);
}

// What the secondary asks for again: `all` includes what it has.
int repeatRequests(zelResDb *db, bool all, int &failures) {
    int sent = 0;
    forEachEntry(db, [&](zelResEntry *entry) {
        int result;
        if (is(entry, ZEL_RES_DELETING))
            result = sendDeleteRequest(db, entry);
        else if (entry->refCount > 0 && (all || is(entry, ZEL_RES_WAITING)))
            result = sendAddRequest(db, entry);
        else
            return;
        ++(result == 0 ? sent : failures);
    });
    return sent;
}

void copyToStandby(zelResDb *db, int &failures) {
    failures += sendMark(ZEL_RES_LINK_HA, ZEL_RES_SYNC_ALL_BEGIN, db, ZEL_RES_SYNC_PRESENT) != 0;
    failures += resMgmtLibHASyncDbCfg(db) != 0;
    forEachEntry(db, [&](zelResEntry *entry) { failures += resMgmtLibHASyncObjEntry(db, entry) != 0; });
    failures += sendMark(ZEL_RES_LINK_HA, ZEL_RES_SYNC_ALL_END, db, ZEL_RES_SYNC_PRESENT) != 0;
}

void copyToPeer(zelResDb *db, int &failures) {
    if (!isPeerAware(db)) return;
    failures += sendMark(ZEL_RES_LINK_KXL, ZEL_RES_SYNC_ALL_BEGIN, db, ZEL_RES_SYNC_PRESENT) != 0;
    if (isSecondary(db))
        repeatRequests(db, true, failures);
    else
        forEachEntry(db, [&](zelResEntry *entry) {
            if (entry->objectIndex != -1 && concernsPeer(db, entry))
                failures += resMgmtLibKxlSyncObjEntry(db, entry) != 0;
        });
    failures += sendMark(ZEL_RES_LINK_KXL, ZEL_RES_SYNC_ALL_END, db, ZEL_RES_SYNC_PRESENT) != 0;
}

}  // namespace

// Numbers begin anywhere, so that those of a process that died are not taken for its successor's.
void numberRequest(zelResDb *db, zelResEntry *entry) {
    if (!isSecondary(db)) return;
    const zelHostSeam *host = zelPlatformSeam();
    std::uint32_t &last = gResMgrTcb.requests;
    if (last == 0) last = static_cast<std::uint32_t>(host->randomBits(host->context));
    entry->request = ++last;
}

zelResSync describe(zelResDb &db, const zelResEntry *entry) {
    zelResSync subject = {};
    subject.db = &db;
    subject.client = clientOf(&db, entry);
    subject.index = entry->objectIndex;
    subject.flags = entry->statusFlag & ZEL_RES_MARKED;
    std::memcpy(subject.digest, entry->digest, ZEL_RES_DIGEST_SIZE);
    subject.key = {zelResEntryKey(entry), entry->keyLen, entry->word1, entry->word2};
    subject.request = entry->request;
    return subject;
}

int sendEntry(int link, std::uint16_t subcommand, const zelResSync &subject) {
    if (!canSend(link, subject.client)) return -1;
    std::uint8_t message[ZEL_RES_MAX_SYNC];
    const std::uint32_t keyLen = subject.key.keyLen;
    const std::size_t length = SyncBody::sizeWithout + keyLen;
    writeHeader(message, link, subcommand, subject.db->params.databaseId, subject.client->clientId, length);
    SyncBody::Index::set(message, static_cast<std::uint32_t>(subject.index));
    SyncBody::Status::set(message, subject.status);
    SyncBody::Flags::set(message, subject.flags);
    SyncBody::Units::set(message, subject.units);
    std::memcpy(message + SyncBody::digest, subject.digest, ZEL_RES_DIGEST_SIZE);
    SyncBody::KeyLength::set(message, static_cast<std::uint16_t>(keyLen));
    if (keyLen > 0) std::memcpy(message + SyncBody::key, subject.key.key, keyLen);
    SyncBody::Word1::set(message + SyncBody::key + keyLen, subject.key.word1);
    SyncBody::Word2::set(message + SyncBody::key + keyLen, subject.key.word2);
    SyncBody::Request::set(message + SyncBody::key + keyLen, subject.request);
    return sendBytes(link, subject.client, message, length);
}

int sendAddRequest(zelResDb *db, const zelResEntry *entry) {
    zelResSync subject = describe(*db, entry);
    if (is(entry, ZEL_RES_WAITING)) subject.index = -1;
    subject.units = atMost16(entry->refCount);
    return sendEntry(ZEL_RES_LINK_KXL, ZEL_RES_SYNC_ADD_REQ, subject);
}

int sendDeleteRequest(zelResDb *db, const zelResEntry *entry) {
    return sendEntry(ZEL_RES_LINK_KXL, ZEL_RES_SYNC_DEL_REQ, describe(*db, entry));
}

void announce(zelResDb *db, zelResEntry *entry) {
    resMgmtLibHASyncObjEntry(db, entry);
    if (!isSecondary(db))
        resMgmtLibKxlSyncObjEntry(db, entry);
    else if (entry->objectIndex != -1 && !is(entry, ZEL_RES_WAITING) && !is(entry, ZEL_RES_DELETING))
        sendAddRequest(db, entry);
}

void announceGone(const zelResSync &subject) {
    zelResSync gone = subject;
    gone.status = ZEL_RES_SYNC_GONE;
    if (isPrimary()) sendEntry(ZEL_RES_LINK_HA, ZEL_RES_SYNC_OBJECT, gone);
    if (isPeerAware(gone.db) && allocatesHere(gone.db)) sendEntry(ZEL_RES_LINK_KXL, ZEL_RES_SYNC_OBJECT, gone);
}

}  // namespace zel::resmgr

using namespace zel::resmgr;

void resMgmtLibSetTransport(zelResSendFn standbySend, zelResSendFn kxlSend) {
    gResMgrTcb.send[ZEL_RES_LINK_HA] = standbySend;
    gResMgrTcb.send[ZEL_RES_LINK_KXL] = kxlSend;
}

int resMgmtLibHASyncDbCfg(zelResDb *db) {
    if (!db || !isPrimary() || !hasLink(ZEL_RES_LINK_HA)) return -1;
    int result = 0;
    zelDLLNode *node = zelDLLGetFirst(&db->ranges);
    if (!node) return sendConfig(db, nullptr);
    for (; node; node = zelDLLGetNext(&db->ranges, node))
        if (sendConfig(db, reinterpret_cast<zelResRange *>(node)) != 0) result = -1;
    return result;
}

int resMgmtLibHASyncObjEntry(zelResDb *db, zelResEntry *entry) {
    if (!db || !entry || !isPrimary() || !hasLink(ZEL_RES_LINK_HA)) return -1;
    zelResSync subject = describe(*db, entry);
    subject.flags = entry->statusFlag & ZEL_RES_SYNC_FLAGS;
    if (entry->pending) subject.flags |= ZEL_RES_SYNC_PENDING;
    if (entry->isKxlRequest) subject.flags |= ZEL_RES_SYNC_KXL_HELD;
    subject.units = atMost16(entry->refCount);
    const int result = sendEntry(ZEL_RES_LINK_HA, ZEL_RES_SYNC_OBJECT, subject);
    if (result == 0) entry->haRefCount = entry->refCount;
    return result;
}

int resMgmtLibKxlSyncObjEntry(zelResDb *db, zelResEntry *entry) {
    if (!db || !entry || entry->objectIndex == -1 || !isPeerAware(db) || !concernsPeer(db, entry)) return -1;
    if (!allocatesHere(db)) return -1;
    zelResSync subject = describe(*db, entry);
    if (entry->isKxlRequest) subject.flags |= ZEL_RES_SYNC_KXL_HELD;
    subject.units = entry->kxlUnits;
    const bool isAnswer = entry->isKxlRequest != 0;
    return sendEntry(ZEL_RES_LINK_KXL, isAnswer ? ZEL_RES_SYNC_ADD_RESP : ZEL_RES_SYNC_OBJECT, subject);
}

int resMgmtLibSendKxlSyncBuf(const zelResClient *client, const void *message, uint32_t length) {
    const zelResSendFn send = client && client->kxlSend ? client->kxlSend : gResMgrTcb.send[ZEL_RES_LINK_KXL];
    if (!send) return -1;
    const int result = send(message, length);
    if (result != 0) ++gResMgrTcb.sendFailures[ZEL_RES_LINK_KXL];
    return result;
}

int resMgmtLibRequestAllData(int link) {
    if (link != ZEL_RES_LINK_HA && link != ZEL_RES_LINK_KXL) return -1;
    return sendMark(link, ZEL_RES_SYNC_ALL_BEGIN, nullptr, ZEL_RES_SYNC_WANTED);
}

int resMgmtLibSyncAllDataToPeer(int link) {
    if (!isPrimary() || (link != ZEL_RES_LINK_HA && link != ZEL_RES_LINK_KXL)) return -1;
    int failures = 0;
    for (zelResDb *db : gaResMgmtDb)
        if (db) link == ZEL_RES_LINK_HA ? copyToStandby(db, failures) : copyToPeer(db, failures);
    return failures == 0 ? 0 : -1;
}

int resMgmtLibResendPendingReqs(zelResDb *db) {
    int failures = 0;
    return db && isSecondary(db) ? repeatRequests(db, false, failures) : 0;
}

int resMgmtLibResendAllKxlPendingReqs(void) {
    int sent = 0;
    for (zelResDb *db : gaResMgmtDb) sent += resMgmtLibResendPendingReqs(db);
    return sent;
}
