// Questions about the manager itself: its counters, its clients one by one, and its tables page by page.
//
// A page continues behind the last prefix the client has seen, not behind a position: the table may change between two
// pages, and what was there throughout is seen exactly once.
#include <cstring>

#include "base/assertion.h"
#include "rtm/route_record.h"
#include "rtm/rtm_message.h"

namespace zel::rtm {
namespace {

constexpr std::size_t dumpRequestSize = DumpMessage::records;
using ClientWord = wire::Field<std::uint32_t, 0>;

// Asks for the page behind dump->prefix: false when it does not come or makes no sense.
bool nextPage(zelRtmDump &dump, const zelIpcAddr *ipc) {
    std::uint8_t *page = dump.page;
    std::memset(page, 0, dumpRequestSize);
    DumpMessage::FamilyIndex::set(page, static_cast<std::uint32_t>(dump.family));
    DumpMessage::Vrf::set(page, dump.vrfId);
    DumpMessage::Bits::set(page, dump.bits);
    std::memcpy(page + DumpMessage::prefix, dump.prefix, sizeof dump.prefix);
    const int received = sendAndReceive(page, ZEL_RTM_MSG_DUMP, dumpRequestSize, sizeof dump.page, ipc);
    if (received < static_cast<int>(DumpMessage::records) || IpcHeader::Status::get(page) != 0) return false;
    dump.length = static_cast<std::uint32_t>(received);
    dump.offset = DumpMessage::records;
    dump.left = DumpMessage::Records::get(page);
    return true;
}

void writeFact(std::uint8_t *at, const zelRtmClientFact &fact) {
    wire::store<std::uint32_t>(at, fact.what);
    wire::store<std::uint32_t>(at + 4, fact.first);
    wire::store<std::uint32_t>(at + 8, fact.second);
}

zelRtmClientFact readFact(const std::uint8_t *at) {
    return {wire::load<std::uint32_t>(at), wire::load<std::uint32_t>(at + 4), wire::load<std::uint32_t>(at + 8)};
}

// False when the facts do not lie within the answer.
bool readClient(const std::uint8_t *answer, std::size_t length, zelRtmClient &client) {
    using Layout = ClientMessage;
    if (length < Layout::facts) return false;
    client.nFacts = Layout::FactCount::get(answer);
    if (client.nFacts > ZEL_RTM_MAX_CLIENT_FACTS || length < Layout::facts + client.nFacts * Layout::factSize)
        return false;
    client.handle = Layout::Handle::get(answer);
    std::memcpy(client.name, answer + Layout::name, ZEL_RTM_NAME_LENGTH);
    client.name[ZEL_RTM_NAME_LENGTH] = '\0';
    client.clientType = Layout::ClientType::get(answer);
    client.address = Layout::Address::get(answer);
    client.receiveQueue = Layout::ReceiveQueue::get(answer);
    for (std::uint32_t i = 0; i < client.nFacts; ++i)
        client.facts[i] = readFact(answer + Layout::facts + i * Layout::factSize);
    return true;
}

}  // namespace
}  // namespace zel::rtm

using namespace zel::rtm;

int zelRtmGetCounters(const zelIpcAddr *ipc, uint64_t counters[ZEL_RTM_COUNTERS]) {
    std::uint8_t message[countersSize(ZEL_RTM_COUNTERS)] = {};
    const int received = sendAndReceive(message, ZEL_RTM_MSG_COUNTERS, IpcHeader::size, sizeof message, ipc);
    if (received < static_cast<int>(sizeof message) || IpcHeader::Status::get(message) != 0) return 1;
    readCounters(message, counters, ZEL_RTM_COUNTERS);
    return 0;
}

int zelRtmNextClient(const zelIpcAddr *ipc, uint32_t *cursor, zelRtmClient *client) {
    std::uint8_t message[ClientMessage::largest] = {};
    ClientMessage::Cursor::set(message, *cursor);
    const int received = sendAndReceive(message, ZEL_RTM_MSG_CLIENTS, ClientMessage::questionSize, sizeof message, ipc);
    if (received < static_cast<int>(ClientMessage::questionSize) || IpcHeader::Status::get(message) != 0) return -1;
    *cursor = ClientMessage::Cursor::get(message);
    if (*cursor == 0) return 0;
    return readClient(message, static_cast<std::size_t>(received), *client) ? 1 : -1;
}

void zelRtmDumpBegin(zelRtmDump *dump, int family, uint32_t vrfId) {
    std::memset(dump, 0, offsetof(zelRtmDump, page));
    dump->family = family;
    dump->vrfId = vrfId;
    dump->bits = DumpMessage::fromTheStart;
}

int zelRtmDumpNext(zelRtmDump *dump, const zelIpcAddr *ipc, uint32_t *handle, zelRtmRoute *route) {
    if (!isFamily(dump->family)) return -1;
    if (dump->left == 0) {
        if (!nextPage(*dump, ipc)) return -1;
        if (dump->left == 0) return 0;
    }
    const std::uint8_t *record = dump->page + dump->offset;
    const std::size_t length = dump->length - dump->offset;
    if (length < ClientWord::end) return -1;
    const std::size_t size = readRecord(record + ClientWord::end, length - ClientWord::end, dump->family, *route);
    if (size == 0) return -1;
    *handle = ClientWord::get(record);
    dump->offset += static_cast<uint32_t>(ClientWord::end + size);
    --dump->left;
    std::memcpy(dump->prefix, route->prefix, sizeof dump->prefix);
    dump->bits = static_cast<uint32_t>(rtm_mask2plen(dump->family, route->mask));
    return 1;
}

int zelRtmAnswerCounters(void *message, const uint64_t counters[ZEL_RTM_COUNTERS]) {
    return writeCounters(message, counters, ZEL_RTM_COUNTERS);
}

int zelRtmAnswerClient(void *message, uint32_t nextCursor, const zelRtmClient *client) {
    using Layout = ClientMessage;
    auto *at = static_cast<uint8_t *>(message);
    IpcHeader::Status::set(at, 0);
    Layout::Cursor::set(at, client ? nextCursor : 0);
    if (!client) return static_cast<int>(Layout::questionSize);
    Layout::Handle::set(at, client->handle);
    std::memcpy(at + Layout::name, client->name, ZEL_RTM_NAME_LENGTH);
    Layout::ClientType::set(at, client->clientType);
    Layout::Address::set(at, client->address);
    Layout::ReceiveQueue::set(at, client->receiveQueue);
    Layout::FactCount::set(at, client->nFacts);
    for (uint32_t i = 0; i < client->nFacts; ++i)
        writeFact(at + Layout::facts + i * Layout::factSize, client->facts[i]);
    return static_cast<int>(Layout::facts + client->nFacts * Layout::factSize);
}

int zelRtmParseDump(const void *message, int length, zelRtmDumpPage *page) {
    if (length < static_cast<int>(dumpRequestSize) || IpcHeader::MessageType::get(message) != ZEL_RTM_MSG_DUMP)
        return 1;
    page->family = static_cast<int>(DumpMessage::FamilyIndex::get(message));
    page->vrfId = DumpMessage::Vrf::get(message);
    page->bits = DumpMessage::Bits::get(message);
    std::memcpy(page->prefix, static_cast<const uint8_t *>(message) + DumpMessage::prefix, sizeof page->prefix);
    page->records = 0;
    page->length = DumpMessage::records;
    if (!isFamily(page->family)) return 1;
    return page->bits <= addressBits(page->family) || page->bits == DumpMessage::fromTheStart ? 0 : 1;
}

int zelRtmDumpAppend(void *message, zelRtmDumpPage *page, uint32_t handle, const zelRtmRoute *route) {
    const std::size_t size = ClientWord::end + recordSize(*route, page->family);
    if (!isValid(*route) || page->length + size > ZEL_RTM_MAX_MESSAGE) return 0;
    auto *at = static_cast<uint8_t *>(message) + page->length;
    ClientWord::set(at, handle);
    writeRecord(*route, page->family, route->vrfId, at + ClientWord::end);
    page->length += static_cast<uint32_t>(size);
    ++page->records;
    return 1;
}

int zelRtmDumpFinish(void *message, const zelRtmDumpPage *page) {
    IpcHeader::Status::set(message, 0);
    DumpMessage::Records::set(message, page->records);
    return static_cast<int>(page->length);
}
