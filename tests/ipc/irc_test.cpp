// A task's side of the link to the peer route processor, its headers, and what the link service believes.
#include "zel/irc.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <set>

#include "tests/ipc/peer.h"
#include "tests/support/fake_network.h"

using namespace zel::test;
using std::chrono::seconds;

namespace {

constexpr std::uint32_t linkQueue = 36 << 7 | 3;

class Irc : public testing::Test {
protected:
    void SetUp() override { setLink(ZEL_IRC_LINK_UP); }
    void setLink(std::uint32_t status, std::uint32_t milliseconds = 0) {
        const zelIrcLinkState state{status,     0x7f000009,          2,           1, 0xe0e1e2e3,
                                    0x71727374, "route-processor-1", milliseconds};
        ASSERT_EQ(zelIrcSetLinkState(&state), 0);
    }
    int send(int length, int queueType = 1) {
        return zelIrcPeerRpmSend(61, 0, message.data(), length, queueType, &error);
    }
    int sendWait(std::uint32_t type, int timeoutSec = 3, void *into = nullptr) {
        return zelIrcPeerRpmSendWait(bgp, 61, 0, message.data(), 200, 1, type, into, 300, timeoutSec, 9, &error);
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

// Every byte that a type must not touch stays.
TEST_F(Irc, HeaderHoldsWhatItsTypeHas) {
    for (std::uint32_t type = 0; type < 20; ++type) {
        Bytes header(ZEL_IRC_HDR_LEN, 0xaa);
        Irc_setIrcHeader(header.data(), 0x11121314, type, 0x2122, 0x3132, 0x41424344);
        const bool isControl = std::set<std::uint32_t>{4, 5, 10, 11, 12}.count(type) == 1;
        const std::uint32_t words[] = {
            0xefefbcbc, 0,    0,          isControl ? 1 : type >= 1 && type <= 3 ? 2 : 0xaaaaaaaa,      0x21223132,
            0x41424344, type, 0x11121314, type == 4 ? 0xe0e1e2e3 : type == 5 ? 0x71727374 : 0xaaaaaaaa, 0,
            0};
        for (unsigned i = 0; i < 11; ++i) EXPECT_EQ(zelIpcHdrGet32(header.data(), 4 * i), words[i]) << type << " " << i;
        char name[32];
        memset(name, type == 5 ? 0 : 0xaa, sizeof name);
        if (type == 5) strcpy(name, "route-processor-1");
        EXPECT_EQ(memcmp(header.data() + 44, name, sizeof name), 0) << type;
    }
}

TEST_F(Irc, SendsInThePrescribedOrder) {
    for (std::uint32_t status : {0u, 2u, 3u}) {
        setLink(status);
        EXPECT_EQ(send(200), -1);
        EXPECT_EQ(error, ENOLINK);
        EXPECT_TRUE(Key_getReqQueue(bgp) == 0 && word(8) == 0xaaaaaaaa) << "before anything is opened or written";
    }
    setLink(ZEL_IRC_LINK_UP);
    EXPECT_EQ(zelIrcPeerRpmSend(12, 0, message.data(), 200, 1, &error), -1);
    EXPECT_EQ(error, EINVAL);
    for (int queueType : {-1, 3}) EXPECT_EQ(send(9000, queueType), -1);
    EXPECT_TRUE(error == EINVAL && Key_getReqQueue(bgp) == (bgp | 1) && word(56) == 0xaaaaaaaa);
    EXPECT_EQ(send(8193), -1);
    EXPECT_TRUE(error == EMSGSIZE && word(8) == 8193 && network.sent.empty()) << "its header is written";
    for (int length : {-1, 59}) EXPECT_EQ(send(length), -1);
    EXPECT_EQ(zelIrcPeerRpmSend(61, 0, nullptr, 200, 1, nullptr), -1);
    network.sendError = ENETUNREACH;
    EXPECT_EQ(send(200), -1);
    EXPECT_EQ(error, ENETUNREACH);
    EXPECT_TRUE(network.sent.empty());
}

TEST_F(Irc, AddressesTheLinkServiceAndTheQueueForTheAnswer) {
    zelPlatformSetSlotId(6);
    zelIpcGuaranteedEnDis(1);
    for (int queueType = 0; queueType < 3; ++queueType) {
        message.assign(9000, 0xaa);
        EXPECT_EQ(send(8192, queueType), 0);
        EXPECT_EQ(error, 0);
        ASSERT_EQ(network.sent.size(), 1u) << "plainly, once";
        const Sent sent = network.sent.back();
        EXPECT_TRUE(sent.address == zelPlatformIpcAddress() && sent.port == (linkQueue | 2 << 2) &&
                    sent.bytes.size() == 8192);
        const std::uint32_t own = zelPlatformIpcAddress(),
                            words[] = {6, own, bgp | static_cast<unsigned>(queueType + 1), 6, own, linkQueue | 2 << 2};
        for (unsigned i = 0; i < 6; ++i) EXPECT_EQ(word(36 + 4 * i), words[i]) << i;
        EXPECT_TRUE(word(0) == ZEL_IPC_MAGIC && word(4) == 0 && word(8) == 8192 && word(12) == 0xaaaaaaaa);
        EXPECT_EQ(Bytes(message.begin() + 60, message.end()), Bytes(8940, 0xaa)) << "the rest is the caller's";
        network.sent.clear();
    }
    EXPECT_EQ(Irc_icdpGet(bgp | 3)->socket, Key_getSocketFd(bgp | 1));
    EXPECT_EQ(Irc_icdpGet(rtm), nullptr);
}

TEST_F(Irc, StateOfALinkServiceThatFellSilentIsDown) {
    setLink(ZEL_IRC_LINK_UP, 1500);
    EXPECT_TRUE(irc_isLinkUp() && ircGetHAComptWithPeerRpm() && zelGetPeerRpmIpAddr() == 0x7f000009);
    network.now += 1'499'999'999;
    EXPECT_EQ(send(200), 0);
    network.now += 1;
    EXPECT_EQ(zelGetIrcLinkStatus(), static_cast<std::uint32_t>(ZEL_IRC_LINK_DOWN));
    EXPECT_EQ(send(200), -1);
}

TEST_F(Irc, WaitsForItsAnswerAndNoLonger) {
    network.onSend = [&](const Sent &) {
        answer(5, 8);
        answer(4, 9);
        answer(5, 9, seconds(2));
    };
    EXPECT_EQ(sendWait(5, 3, reply.data()), 150);
    EXPECT_TRUE(error == 0 && zelIpcHdrGet32(reply.data(), 32) == 9 && word(12) == 5 && word(32) == 9);
    EXPECT_DOUBLE_EQ(network.seconds(), 2);
    network.onSend = nullptr;
    EXPECT_EQ(sendWait(6, 3, reply.data()), -1);
    EXPECT_EQ(error, ETIMEDOUT);
    EXPECT_DOUBLE_EQ(network.seconds(), 5);
    network.sent.clear();
    EXPECT_EQ(sendWait(6), -1) << "without a place for the answer";
    EXPECT_TRUE(error == EINVAL && network.sent.size() == 1);
    EXPECT_EQ(zelIrcPeerRpmSendWait(bgp, 61, 0, nullptr, 200, 1, 6, reply.data(), 300, 3, 9, &error), -1);
    network.sendError = ENETUNREACH;
    EXPECT_EQ(sendWait(6, -1, reply.data()), -1) << "nothing to wait for";
    EXPECT_EQ(error, ENETUNREACH);
    network.sendError = 0;
    network.failSends = 1;
    EXPECT_EQ(zelIrcPeerRpmBetterSend(61, 0, message.data(), 200, 1, &error), 0);
    network.failSends = 2;
    EXPECT_EQ(zelIrcPeerRpmBetterSend(61, 0, message.data(), 200, 1, &error), -1);
    EXPECT_EQ(error, ENOBUFS);
    EXPECT_DOUBLE_EQ(network.seconds(), 5.04) << "a tick each";
}

// Waiting for the turn is part of the time-out.
TEST(IrcTurn, EndsWithTheTimeOutOfTheRequest) {
    const zelIrcLinkState state{ZEL_IRC_LINK_UP, 0x7f000009, 0, 1, 1, 1, "", 0};
    ASSERT_EQ(zelIrcSetLinkState(&state), 0);
    ASSERT_EQ(zelIpcOpen(61, 0), static_cast<int>(bgp));
    const Peer silent(rtm | 1), service(linkQueue);
    const auto ask = [](int timeoutSec) {
        Bytes message(200), reply(300);
        int error = 0;
        const uint64_t begin = tick64Get();
        EXPECT_EQ(
            zelIrcPeerRpmSendWait(bgp, 61, 0, message.data(), 200, 1, 5, reply.data(), 300, timeoutSec, 9, &error), -1);
        EXPECT_EQ(error, ETIMEDOUT);
        return static_cast<int>(tick64Get() - begin);
    };
    Task longest([] {
        Bytes request = Message{.targetQueue = rtm | 1}.bytes();
        return zelIpcSendWait(bgp, request.data(), 64, 64, 2, 1);
    });
    ASSERT_EQ(silent.receive().size(), 64u) << "it has the turn";
    Task brief([&] { return ask(1); });
    EXPECT_LT(brief.result(), 99) << "ticks";
    EXPECT_TRUE(service.receive(0).empty()) << "nothing was sent without the turn";
    EXPECT_LT(ask(2), 145) << "of which one second or so for the turn";
    EXPECT_EQ(longest.result(), -1);
}

TEST_F(Irc, LinkServiceTellsMessagesFromAnythingElse) {
    const struct {
        unsigned offset;  // of a word that is spoilt
        std::uint32_t value;
    } rows[] = {{60, 0xefefbcbd}, {72, 1},  {72, 3}, {76, 12 << 16}, {76, 364 << 16}, {76, 76 << 16 | 32},
                {80, 63},         {80, 65}, {84, 0}, {84, 6},        {84, 13},        {84, 12}};
    const auto good = [](std::uint32_t type, int payload) {
        Bytes bytes(static_cast<std::size_t>(136 + payload));
        Irc_setIrcHeader(bytes.data() + 60, bgp, type, 76, 3, static_cast<std::uint32_t>(payload));
        return bytes;
    };
    const auto parse = [](const Bytes &bytes, zelIrcMessage &parsed) {
        return zelIrcParse(bytes.data(), static_cast<int>(bytes.size()), &parsed);
    };
    zelIrcMessage parsed;
    for (int payload : {0, 64, 8056}) ASSERT_EQ(parse(good(2, payload), parsed), 0);
    EXPECT_TRUE(parsed.type == 2 && parsed.service == 76 && parsed.instance == 3 && parsed.senderKey == bgp);
    ASSERT_EQ(parse(good(5, 0), parsed), 0);
    EXPECT_TRUE(parsed.stateWord == 0x71727374 && parsed.name == std::string("route-processor-1"));
    for (const auto &row : rows) {
        Bytes bytes = good(2, 64);
        zelIpcHdrSet32(bytes.data(), row.offset, row.value);
        EXPECT_EQ(parse(bytes, parsed), -1) << row.offset << " " << row.value;
    }
    for (std::uint32_t type : {4u, 5u, 10u, 11u, 12u}) EXPECT_EQ(parse(good(type, 4), parsed), -1) << type;
    EXPECT_EQ(parse(good(2, 8057), parsed), -1);
    Bytes endless = good(5, 0);
    memset(endless.data() + 104, 'x', 32);
    EXPECT_EQ(parse(endless, parsed), -1);
    EXPECT_EQ(zelIrcParse(endless.data(), 135, &parsed), -1);
    EXPECT_EQ(zelIrcSendControl(bgp, ZEL_IRC_DATA), -1);
}

}  // namespace
