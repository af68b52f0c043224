// Synchronous requests: what the caller makes of each kind of answer.
#include "tests/rtm/client.h"

namespace zel::test {
namespace {

class Requests : public ManagerClient {
protected:
    Requests() : ManagerClient(ZEL_RTM_SERVICE) {}
    int registerUs(const char *name = "client") { return zelRtmRegister(5, 0, name, &handle, &ipc); }

    const std::uint32_t value = 1;
    std::uint32_t handle = 1234;
};

TEST_F(Requests, failOnSilenceAStatusAndWhatIsTooShort) {
    EXPECT_EQ(zelRtmDeregister(1, &ipc), 1);
    EXPECT_NEAR(network.seconds(), 25, 1);
    answers(0, 55, 60);  // no room for a handle
    EXPECT_EQ(registerUs(), 1);
    for (const std::uint32_t status : {7u, 0u}) {
        answers(status, 55);
        EXPECT_EQ(registerUs(), status ? 1 : 0);
        EXPECT_EQ(handle, status ? 1234u : 55u);
        EXPECT_EQ(zelRtmFibClear(1, 0, &ipc), status ? 1 : 0);
        EXPECT_EQ(zelRtmRedistTgtClientMsg_opts(1, 2, &ipc, &value), status ? 1 : 0);
        EXPECT_EQ(zelRtmFlushRoutes(1, &ipc), status ? 1 : 0);
    }
}

TEST_F(Requests, thatCannotBeSentAreNot) {
    EXPECT_EQ(registerUs(nullptr), 1);
    EXPECT_EQ(zelRtmRegister(5, 0, "client", &handle, nullptr), 1);
    EXPECT_EQ(zelRtmRedistTgtClientAccept_opts(1, nullptr, &value), 1);
    EXPECT_EQ(lastAssertion(), "ipc");
    EXPECT_EQ(reportedAssertions(), 2);
    EXPECT_EQ(zelTmeSetTaskEntry(ZEL_RTM_SERVICE, 0, ZEL_TME_NONE, 0), 0);  // nobody knows where the manager is
    EXPECT_EQ(registerUs(), 1);
    EXPECT_TRUE(network.sent.empty());
}

TEST(Helpers, knowAddressesOfBothFamilies) {
    char text[64];
    const std::uint8_t six[16] = {0x20, 1, 0xd, 0xb8}, behindFour[16] = {0, 0, 0, 0, 1}, holed[4] = {0xff, 0x80, 0xff};
    EXPECT_STREQ(rtm_inet_ntop(2, six, text, sizeof text), "2001:db8::");
    EXPECT_STREQ(rtm_inet_ntop(1, six, text, sizeof text), "32.1.13.184");
    EXPECT_TRUE(rtmAF_IsAddrZero(0, behindFour) && rtmAF_IsAddrNonZero(2, behindFour));
    EXPECT_TRUE(rtmAF_IsDefaultRoute(0, behindFour, behindFour) && !rtmAF_IsDefaultRoute(2, behindFour, behindFour));
    std::uint8_t ones[16];
    std::fill_n(ones, 16, 0xff);
    EXPECT_TRUE(rtmAF_IsAddrAllOnes(2, ones));
    ones[15] = 0xfe;
    EXPECT_FALSE(rtmAF_IsAddrAllOnes(2, ones));
    EXPECT_EQ(rtm_mask2plen(2, ones), 127);
    EXPECT_EQ(rtm_mask2plen(0, holed), 9);
    // Redirection targets share one array.
    const struct {
        int kind;
        std::uint32_t number;
        int index;
    } rows[] = {
        {ZEL_RTM_REDIR_VLAN, 4096, 4096}, {ZEL_RTM_REDIR_LAG, 0, 4097}, {ZEL_RTM_REDIR_SLOT, 13, 4097 + 130 + 13},
        {ZEL_RTM_REDIR_VLAN, 4097, -1},   {ZEL_RTM_REDIR_LAG, 130, -1}, {ZEL_RTM_REDIR_SLOT, 14, -1}};
    for (const auto &[kind, number, index] : rows) EXPECT_EQ(rtmIpRedirGetArrayIndex(kind, number), index);
}

}  // namespace
}  // namespace zel::test
