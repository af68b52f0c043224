// One task on each route processor, and the same program: the primary hands slots out and tells its standby of each
// before it answers; the standby takes that in, and when the link says that the primary is gone, goes on in its place.
//
// What the two tell each other goes directly, as messages between the two tasks; a question that came over the link is
// answered over the link. Two processors that both live but lost each other would both be primary: keeping that from
// happening takes more than a demonstration.
#include "slots.h"

#include <arpa/inet.h>
#include <getopt.h>

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "programs/support/program.h"
#include "zel/platform.h"
#include "zel/resmgr.h"

namespace zeldemo {
namespace {

constexpr unsigned messageTypeWord = 12;
constexpr unsigned sourceAddressWord = 40;
constexpr unsigned sourceQueueWord = 44;
constexpr unsigned requestWord = ZEL_IRC_MIN_MESSAGE;
constexpr unsigned resultWord = requestWord + 4;
constexpr unsigned slotWord = requestWord + 8;
constexpr unsigned takenWord = requestWord + 12;
constexpr unsigned roleWord = requestWord + 16;
constexpr unsigned copiedWord = requestWord + 20;
constexpr unsigned routeOffset = requestWord + 24;
constexpr std::size_t routeSize = 16;
static_assert(routeOffset + routeSize == SlotMessage::length);

constexpr std::uint32_t syncType = 0x7d02;
constexpr int syncRoom = ZEL_IPC_HDR_LEN + ZEL_RES_MAX_SYNC;
constexpr int receiveSeconds = 1;
constexpr std::uint32_t client = 0, database = 0;

struct Options {
    bool isPrimary = false;
    std::uint32_t peer = ZEL_IPC_NO_ADDRESS;
};

// For the transport, which is given no context.
std::uint32_t ownKey;
std::uint32_t peerAddress;

int sendToPeer(const void *message, std::uint32_t length) {
    std::uint8_t datagram[syncRoom] = {};
    zelIpcHdrSet32(datagram, messageTypeWord, syncType);
    zelIpcSetSourceHeader(datagram, 0, slotService, 0);
    zelIpcSetTargetHeader(datagram, peerAddress, 0, slotService, 0);
    memcpy(datagram + ZEL_IPC_HDR_LEN, message, length);
    return zelIpcNonGuaranteedSend(ownKey, datagram, static_cast<int>(ZEL_IPC_HDR_LEN + length));
}

struct Key {
    explicit Key(const std::string &route) { route.copy(bytes, sizeof bytes - 1); }
    char bytes[routeSize] = {};
};

std::int32_t slotOf(const Key &key) {
    std::uint8_t digest[ZEL_RES_DIGEST_SIZE];
    if (resMgmtLibFormMd5Key(key.bytes, sizeof key.bytes, digest) != ZEL_RES_OK) return -1;
    const zelResEntry *entry = resMgmtLibFindObjectEntry(gaResMgmtDb[database], digest, key.bytes);
    return entry ? entry->objectIndex : -1;
}

bool isFromPeer(const std::uint8_t *message) {
    return zelIpcHdrGet32(message, messageTypeWord) == syncType &&
           zelIpcHdrGet32(message, sourceAddressWord) == peerAddress;
}

bool isCopied() {
    return (gaResMgmtDb[database]->stateFlags & ZEL_RES_DB_COPIED) != 0;
}

class Slots {
public:
    Slots(std::uint32_t key, const Options &options);
    ~Slots() { resMgmtLibTerminate(); }
    Slots(const Slots &) = delete;
    Slots &operator=(const Slots &) = delete;
    int run();

private:
    void watchLink();
    void carryOut(SlotMessage &question) const;
    void answer(std::uint8_t *message, int length) const;

    bool isPrimary_;
    bool wasUp_ = false;
};

Slots::Slots(std::uint32_t key, const Options &options) : isPrimary_(options.isPrimary) {
    ownKey = key;
    peerAddress = options.peer;
    zelPlatformSetPrimaryRpm(isPrimary_);
    resMgmtLibRegisterClient(client, slotService, 0, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                             nullptr, 0, 0, 0);
    resMgmtLibSetTransport(sendToPeer, nullptr);
    const zelResDbParams params = {database, "route slots", 0, routeSize, firstSlot, lastSlot, lastSlot - firstSlot + 1,
                                   0};
    resMgmtLibProcDbCreate(client, &params, firstSlot, lastSlot);
}

// Each question is also an occasion to look at the link.
int Slots::run() {
    if (!gaResMgmtDb[database]) return 1;
    std::uint8_t message[syncRoom];
    while (!zel::programs::isStopping()) {
        const int length = zelIpcRecv(ownKey | ZEL_IPC_QUEUE_REQUEST, message, sizeof message, receiveSeconds, 0, 0);
        if (length > 0 && isFromPeer(message)) {
            resMgmtLibRecvSync(message + ZEL_IPC_HDR_LEN, static_cast<std::uint32_t>(length - ZEL_IPC_HDR_LEN),
                               ZEL_RES_LINK_HA);
            continue;
        }
        watchLink();
        if (length == SlotMessage::length && zelIpcHdrGet32(message, messageTypeWord) == SlotMessage::type)
            answer(message, length);
    }
    return 0;
}

// The standby asks for everything until it has it: the primary's task may come up later than the link.
void Slots::watchLink() {
    const bool isUp = irc_isLinkUp();
    if (!isPrimary_ && isUp && !isCopied()) resMgmtLibRequestAllData(ZEL_RES_LINK_HA);
    if (!isPrimary_ && !isUp && wasUp_) {
        isPrimary_ = true;
        zelPlatformSetPrimaryRpm(1);
        resMgmtLibProcessPendingRequests(gaResMgmtDb[database]);
        printf("zeldemo: the peer is lost; the standby hands out slots from now on\n");
    }
    wasUp_ = isUp;
}

void Slots::carryOut(SlotMessage &question) const {
    const Key key(question.route);
    const zelResKey wanted = {key.bytes, sizeof key.bytes, 0, 0};
    question.result = ZEL_RES_OK;
    if (question.request == SlotRequest::find) question.slot = slotOf(key);
    if (question.request == SlotRequest::add)
        question.result = resMgmtApiAddObject(client, database, &wanted, nullptr, 0, &question.slot);
    if (question.request == SlotRequest::drop)
        question.result = resMgmtApiDelObject(client, database, key.bytes, sizeof key.bytes);
    question.taken = gaResMgmtDb[database]->cfgInfo.used_count;
    question.isPrimary = isPrimary_;
    question.isCopied = isCopied();
}

void Slots::answer(std::uint8_t *message, int length) const {
    SlotMessage question = SlotMessage::read(message);
    carryOut(question);
    question.write(message);
    zelIrcMessage parsed;
    if (zelIrcParse(message, length, &parsed) != 0) {
        zelIpcReply(ownKey, message, length);
        return;
    }
    const std::uint32_t queue = zelIpcHdrGet32(message, sourceQueueWord);
    Irc_setIrcHeader(message + ZEL_IRC_HDR_OFFSET, queue, ZEL_IRC_ANSWER,
                     static_cast<std::uint16_t>(zelIpcGetServiceFromSvce(queue)),
                     static_cast<std::uint16_t>(zelIpcGetInstanceFromSvce(queue)),
                     static_cast<std::uint32_t>(length - ZEL_IRC_MIN_MESSAGE));
    zelIrcPeerRpmSend(slotService, 0, message, length, 0, nullptr);
}

constexpr option longOptions[] = {
    {slotOption + 2, required_argument, nullptr, 's'},
    {"peer", required_argument, nullptr, 'p'},
    {nullptr, 0, nullptr, 0},
};

bool parseOptions(int argc, char **argv, Options &options) {
    in_addr peer{};
    for (int option; (option = getopt_long(argc, argv, "+", longOptions, nullptr)) != -1;) {
        if (option == 's') options.isPrimary = strcmp(optarg, "primary") == 0;
        if (option == '?' || (option == 'p' && inet_pton(AF_INET, optarg, &peer) != 1)) return false;
    }
    options.peer = ntohl(peer.s_addr);
    return options.peer != 0;
}

}  // namespace

void SlotMessage::write(std::uint8_t *message) const {
    zelIpcHdrSet32(message, messageTypeWord, type);
    zelIpcHdrSet32(message, requestWord, static_cast<std::uint32_t>(request));
    zelIpcHdrSet32(message, resultWord, static_cast<std::uint32_t>(result));
    zelIpcHdrSet32(message, slotWord, static_cast<std::uint32_t>(slot));
    zelIpcHdrSet32(message, takenWord, taken);
    zelIpcHdrSet32(message, roleWord, isPrimary);
    zelIpcHdrSet32(message, copiedWord, isCopied);
    memset(message + routeOffset, 0, routeSize);
    memcpy(message + routeOffset, route.data(), std::min(route.size(), routeSize - 1));
}

SlotMessage SlotMessage::read(const std::uint8_t *message) {
    SlotMessage result;
    result.request = static_cast<SlotRequest>(zelIpcHdrGet32(message, requestWord));
    const char *route = reinterpret_cast<const char *>(message + routeOffset);
    result.route.assign(route, strnlen(route, routeSize - 1));
    result.result = static_cast<int>(zelIpcHdrGet32(message, resultWord));
    result.slot = static_cast<std::int32_t>(zelIpcHdrGet32(message, slotWord));
    result.taken = zelIpcHdrGet32(message, takenWord);
    result.isPrimary = zelIpcHdrGet32(message, roleWord) != 0;
    result.isCopied = zelIpcHdrGet32(message, copiedWord) != 0;
    return result;
}

int runSlots(int argc, char **argv) {
    return zel::programs::runProgram("tSlots", argc, argv, [](int count, char **words) {
        return zel::programs::runTask<Slots>(count, words, parseOptions,
                                             "usage: zeldemo --slots ROLE --peer ADDRESS IDENTITY\n");
    });
}

}  // namespace zeldemo
