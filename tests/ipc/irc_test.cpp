// A task's side of the link to the peer route processor. (What the link service believes is its fuzzer's business.)
#include "zel/irc.h"

#include <gtest/gtest.h>

#include <cerrno>

#include "tests/ipc/peer.h"
#include "tests/support/fake_network.h"
#include "tests/support/printed.h"

using namespace zel::test;
using std::chrono::seconds;

namespace {

constexpr std::uint32_t linkQueue = 36 << 7 | 2 << 2 | 3;  // of instance 2

void setLink(std::uint32_t status, std::uint32_t milliseconds = 0) {
    const zelIrcLinkState state{status, 0x7f000009, 2, 1, 0xe0e1e2e3, 0x71727374, "route-processor-1", milliseconds};
    ASSERT_EQ(zelIrcSetLinkState(&state), 0);
}

class Irc : public testing::Test {
protected:
    void SetUp() override { setLink(ZEL_IRC_LINK_UP); }
    int send(int length, int queueType = 1) {
        return zelIrcPeerRpmSend(61, 0, message.data(), length, queueType, &error);
    }
    int sendWait(int timeoutSec, void *into) {
        return zelIrcPeerRpmSendWait(bgp, 61, 0, message.data(), 200, 1, 5, into, 300, timeoutSec, 9, &error);
    }
    void answer(std::uint32_t type, std::uint32_t transaction, seconds delay = {}) {
        const Message response{.command = ZEL_IPC_RSP, .type = type, .transaction = transaction, .length = 150};
        network.arrive(Key_getSocketFd(bgp | 2), response.bytes(), delay);
    }
    std::uint32_t word(unsigned offset) const { return zelIpcHdrGet32(message.data(), offset); }

    FakeNetwork network;
    Bytes message = Bytes(9000, 0xaa), reply = Bytes(300);
    int error = 77;
};

// The golden bytes have the rest; a type of no class leaves the word of the class alone.
TEST_F(Irc, HeaderHoldsWhatItsTypeHas) {
    for (const std::uint32_t type : {0u, 4u, 6u, 9u, 13u}) {
        Bytes header(ZEL_IRC_HDR_LEN, 0xaa);
        Irc_setIrcHeader(header.data(), bgp, type, 76, 3, 8);
        EXPECT_EQ(zelIpcHdrGet32(header.data(), 12), type == 4 ? 1 : 0xaaaaaaaa) << type;
        EXPECT_EQ(zelIpcHdrGet32(header.data(), 32), type == 4 ? 0xe0e1e2e3 : 0xaaaaaaaa) << type;
        EXPECT_EQ(Bytes(header.begin() + 44, header.end()), Bytes(32, 0xaa)) << type;
    }
}

TEST_F(Irc, RefusesInThePrescribedOrder) {
    for (std::uint32_t status : {0u, 2u, 3u}) {
        setLink(status);
        EXPECT_EQ(send(200), -1);
        EXPECT_TRUE(error == ENOLINK && Key_getReqQueue(bgp) == 0) << "before anything is opened";
    }
    setLink(ZEL_IRC_LINK_UP);
    EXPECT_EQ(zelIrcPeerRpmSend(12, 0, message.data(), 200, 1, &error), -1);
    for (int queueType : {-1, 3}) EXPECT_EQ(send(9000, queueType), -1);
    EXPECT_TRUE(error == EINVAL && Key_getReqQueue(bgp) == (bgp | 1) && word(56) == 0xaaaaaaaa);
    EXPECT_EQ(send(8193), -1);
    EXPECT_TRUE(error == EMSGSIZE && word(8) == 8193) << "its header is written";
    for (int length : {-1, 59}) EXPECT_EQ(send(length), -1);
    EXPECT_EQ(zelIrcPeerRpmSend(61, 0, nullptr, 200, 1, nullptr), -1);
    EXPECT_TRUE(network.sent.empty());
}

TEST_F(Irc, AddressesTheLinkServiceAndTheQueueForTheAnswer) {
    const std::uint32_t own = zelPlatformIpcAddress();
    zelPlatformSetSlotId(6);
    zelIpcGuaranteedEnDis(1);
    for (std::uint32_t queueType = 0; queueType < 3; ++queueType) {
        ASSERT_EQ(send(8192, static_cast<int>(queueType)), 0);
        ASSERT_TRUE(error == 0 && network.sent.size() == queueType + 1) << "plainly, once";
        const Sent &sent = network.sent.back();
        EXPECT_TRUE(sent.address == own && sent.port == linkQueue && sent.bytes.size() == 8192);
        const std::uint32_t words[] = {6, own, bgp | (queueType + 1), 6, own, linkQueue};
        for (unsigned i = 0; i < 6; ++i) EXPECT_EQ(word(36 + 4 * i), words[i]) << i;
    }
    EXPECT_EQ(Bytes(message.begin() + 60, message.end()), Bytes(8940, 0xaa)) << "the rest is the caller's";
    EXPECT_EQ(Irc_icdpGet(bgp | 3)->socket, Key_getSocketFd(bgp | 1));
    EXPECT_EQ(Irc_icdpGet(rtm), nullptr);

    setLink(ZEL_IRC_LINK_UP, 1500);
    network.now += 1'499'999'999;
    EXPECT_EQ(send(200), 0);
    network.now += 1;
    EXPECT_EQ(send(200), -1) << "the link service fell silent";
    EXPECT_EQ(zelGetIrcLinkStatus(), static_cast<std::uint32_t>(ZEL_IRC_LINK_DOWN));
}

TEST_F(Irc, WaitsForItsAnswerAndNoLonger) {
    network.onSend = [&](const Sent &) {
        answer(5, 8);
        answer(4, 9);
        answer(5, 9, seconds(2));
    };
    EXPECT_EQ(sendWait(3, reply.data()), 150);
    EXPECT_TRUE(error == 0 && zelIpcHdrGet32(reply.data(), 32) == 9 && word(12) == 5 && word(32) == 9);
    network.onSend = nullptr;
    EXPECT_EQ(sendWait(3, reply.data()), -1);
    EXPECT_EQ(error, ETIMEDOUT);
    EXPECT_DOUBLE_EQ(network.seconds(), 5);
    EXPECT_EQ(sendWait(3, nullptr), -1) << "sent, but without a place for the answer";
    EXPECT_TRUE(error == EINVAL && network.sent.size() == 3);
    EXPECT_EQ(zelIrcPeerRpmSendWait(bgp, 61, 0, nullptr, 200, 1, 6, reply.data(), 300, 3, 9, &error), -1);
    network.sendError = ENETUNREACH;
    EXPECT_EQ(sendWait(-1, reply.data()), -1) << "nothing to wait for";
    EXPECT_EQ(error, ENETUNREACH);
    network.sendError = 0;
    for (int failures : {1, 2}) {
        network.failSends = failures;
        EXPECT_EQ(zelIrcPeerRpmBetterSend(61, 0, message.data(), 200, 1, &error), failures == 1 ? 0 : -1);
    }
    EXPECT_DOUBLE_EQ(network.seconds(), 5.04) << "a tick each";
}

TEST_F(Irc, SaysWhatWentWrong) {
    const auto says = [](const std::string &text, auto call) {
        const std::string printed = printedBy(call);
        EXPECT_NE(printed.find("****** ERROR IRC-("), std::string::npos) << printed;
        EXPECT_NE(printed.find(": " + text + "\r\n"), std::string::npos) << printed;
    };
    const std::string name = "zelIrcPeerRpmSend", wait = name + "Wait : ";
    says("Irc_setIrcHeader: unknown irc msg type: 6", [&] { Irc_setIrcHeader(message.data(), 0, 6, 0, 0, 0); });
    says(name + ": Failed to get task ipckey for serv: 12 inst 1",
         [&] { zelIrcPeerRpmSend(12, 1, message.data(), 200, 1, &error); });
    says(name + ": Incorrect qType passed.", [&] { send(200, 3); });
    says(name + ": Irc_SendIRC Failed: payload is too big 8193.", [&] { send(8193); });
    says(wait + "Send/receive payload is NULL", [&] { sendWait(1, nullptr); });
    says(wait + "Error in Irc receive from peer mtype : 5.", [&] { sendWait(1, reply.data()); });
    network.sendError = ENETUNREACH;
    says(name + ": Irc_SendIRC Failed.  servicename/0", [&] { send(200); });
    says(wait + "Error in Irc send to peer mtype : 5.", [&] { sendWait(1, reply.data()); });
    setLink(ZEL_IRC_LINK_DOWN);
    says(name + ":  Can't send. Link to peer is not up.", [&] { send(200); });
}

// Waiting for the turn is part of the time-out, and nothing is sent without it.
TEST(IrcTurn, EndsWithTheTimeOutOfTheRequest) {
    setLink(ZEL_IRC_LINK_UP);
    ASSERT_EQ(zelIpcOpen(61, 0), static_cast<int>(bgp));
    const Peer silent(rtm | 1), service(linkQueue);
    Task longest([] {
        Bytes request = Message{.targetQueue = rtm | 1}.bytes();
        return zelIpcSendWait(bgp, request.data(), 64, 64, 3, 1);
    });
    ASSERT_EQ(silent.receive().size(), 64u) << "it has the turn";
    for (int timeoutSec : {1, 3}) {
        Bytes message(200), reply(300);
        int error = 0;
        const std::uint64_t begin = tick64Get();
        EXPECT_EQ(
            zelIrcPeerRpmSendWait(bgp, 61, 0, message.data(), 200, 1, 5, reply.data(), 300, timeoutSec, 9, &error), -1);
        EXPECT_EQ(error, ETIMEDOUT);
        EXPECT_LT(tick64Get() - begin, static_cast<std::uint64_t>(50 * timeoutSec + 49));
        EXPECT_EQ(service.receive(0).size(), timeoutSec == 1 ? 0u : 200u);
    }
    EXPECT_EQ(longest.result(), -1);
}

TEST_F(Irc, LinkServiceTellsMessagesFromAnythingElse) {
    const auto parses = [](std::uint32_t type, int payload, unsigned spoilt = 0, std::uint32_t value = 0) {
        Bytes bytes(static_cast<std::size_t>(136 + payload));
        Irc_setIrcHeader(bytes.data() + 60, bgp, type, 76, 3, static_cast<std::uint32_t>(payload));
        if (spoilt != 0) zelIpcHdrSet32(bytes.data(), spoilt, value);
        zelIrcMessage parsed;
        return zelIrcParse(bytes.data(), 136 + payload, &parsed) == 0;
    };
    EXPECT_TRUE(parses(2, 0) && parses(3, 8056) && parses(5, 0) && parses(5, 0, 104, 0x78787878));
    EXPECT_FALSE(parses(2, 8057) || parses(4, 4) || parses(6, 0) || parses(5, 0, 132, 0x78787878));
    const struct {
        unsigned offset;
        std::uint32_t value;
    } rows[] = {{60, 0xefefbcbd},    {72, 1},  {72, 3},  {76, 12 << 16}, {76, 364 << 16},
                {76, 76 << 16 | 32}, {80, 63}, {80, 65}, {84, 0},        {84, 12}};
    for (const auto &row : rows) EXPECT_FALSE(parses(2, 64, row.offset, row.value)) << row.offset << " " << row.value;
    EXPECT_EQ(zelIrcSendControl(bgp, ZEL_IRC_DATA), -1);
}

}  // namespace
