// Synchronous requests: what the caller makes of each kind of answer.
#include <gtest/gtest.h>

#include <cstring>

#include "tests/support/fake_network.h"
#include "tests/support/reports.h"
#include "zel/ipc.h"
#include "zel/rtm.h"

namespace zel::test {
namespace {

constexpr int service = 61;
constexpr std::uint32_t key = service << 7;
constexpr unsigned statusWord = 20, handleWord = 60;

class Requests : public testing::Test {
protected:
    Requests() {
        EXPECT_EQ(zelIpcOpen(service, 0), static_cast<int>(key));
        EXPECT_EQ(zelTmeSetTaskEntry(ZEL_RTM_SERVICE, 0, ZEL_TME_HERE, zel_sysGetIpAddr()), 0);
    }
    // The manager's answer to the next request: the request with these words changed, cut to `length`.
    void answers(std::uint32_t status, std::uint32_t newHandle, std::size_t length = 8192) {
        network.onSend = [=, this](const Sent &sent) {
            Bytes answer = sent.bytes;
            answer[4] = ZEL_IPC_RSP;
            zelIpcHdrSet32(answer.data(), statusWord, status);
            if (answer.size() >= handleWord + 4) zelIpcHdrSet32(answer.data(), handleWord, newHandle);
            answer.resize(std::min(length, answer.size()));
            network.arrive(Key_getSocketFd(key | 2), answer);
        };
    }
    int registerUs(const char *name = "client") { return zelRtmRegister(5, 0, name, &handle, &ipc); }

    FakeNetwork network;
    const zelIpcAddr ipc{service, key, 0, 0, 0};
    std::uint32_t handle = 1234;
};

TEST_F(Requests, registrationStoresTheHandleOnlyWhenItIsAccepted) {
    answers(7, 55);
    EXPECT_EQ(registerUs(), 1);
    answers(0, 55, 60);  // no room for a handle
    EXPECT_EQ(registerUs(), 1);
    EXPECT_EQ(handle, 1234u);
    answers(0, 55);
    EXPECT_EQ(registerUs(), 0);
    EXPECT_EQ(handle, 55u);
}

TEST_F(Requests, whatCannotBeSentIsNotSent) {
    EXPECT_EQ(registerUs(nullptr), 1);
    EXPECT_EQ(zelRtmRegister(5, 0, "client", &handle, nullptr), 1);
    EXPECT_EQ(lastAssertion(), "ipc");
    const std::uint32_t value = 1;
    EXPECT_EQ(zelRtmRedistTgtClientAccept_opts(1, nullptr, &value), 1);
    EXPECT_EQ(zelTmeSetTaskEntry(ZEL_RTM_SERVICE, 0, ZEL_TME_NONE, 0), 0);  // nobody knows where the manager is
    EXPECT_EQ(registerUs(), 1);
    EXPECT_TRUE(network.sent.empty());
}

TEST_F(Requests, silenceAndAStatusFail) {
    EXPECT_EQ(zelRtmDeregister(1, &ipc), 1);
    EXPECT_NEAR(network.seconds(), 25, 1);
    const std::uint32_t value = 1;
    for (const std::uint32_t status : {0u, 4u}) {
        answers(status, 1);
        EXPECT_EQ(zelRtmFibClear(1, 0, &ipc), status ? 1 : 0);
        EXPECT_EQ(zelRtmRedistTgtClientMsg_opts(1, 2, &ipc, &value), status ? 1 : 0);
        EXPECT_EQ(zelRtmFlushRoutes(1, &ipc), status ? 1 : 0);
    }
}

TEST(Helpers, knowAddressesOfBothFamilies) {
    char text[64];
    const std::uint8_t six[16] = {0x20, 1, 0xd, 0xb8}, behindFour[16] = {0, 0, 0, 0, 1};
    EXPECT_STREQ(rtm_inet_ntop(2, six, text, sizeof text), "2001:db8::");
    EXPECT_STREQ(rtm_inet_ntop(1, six, text, sizeof text), "32.1.13.184");
    EXPECT_TRUE(rtmAF_IsAddrZero(0, behindFour));
    EXPECT_TRUE(rtmAF_IsAddrNonZero(2, behindFour));
    std::uint8_t ones[16];
    memset(ones, 0xff, sizeof ones);
    ones[15] = 0xfe;
    EXPECT_FALSE(rtmAF_IsAddrAllOnes(2, ones));
    EXPECT_EQ(rtm_mask2plen(2, ones), 127);
    const std::uint8_t holed[4] = {0xff, 0x80, 0xff, 0};
    EXPECT_EQ(rtm_mask2plen(0, holed), 9);
    // Redirection targets share one array.
    EXPECT_EQ(rtmIpRedirGetArrayIndex(ZEL_RTM_REDIR_VLAN, 4096), 4096);
    EXPECT_EQ(rtmIpRedirGetArrayIndex(ZEL_RTM_REDIR_LAG, 0), 4097);
    EXPECT_EQ(rtmIpRedirGetArrayIndex(ZEL_RTM_REDIR_SLOT, 13), 4097 + 130 + 13);
    EXPECT_EQ(rtmIpRedirGetArrayIndex(ZEL_RTM_REDIR_VLAN, 4097), -1);
    EXPECT_EQ(rtmIpRedirGetArrayIndex(ZEL_RTM_REDIR_LAG, 130), -1);
    EXPECT_EQ(rtmIpRedirGetArrayIndex(ZEL_RTM_REDIR_SLOT, 14), -1);
}

}  // namespace
}  // namespace zel::test
