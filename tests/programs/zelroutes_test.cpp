// The source of routes: what it leaves in the manager after a table and a recording of real updates, and what it makes
// of messages that are not for it.
#include <gtest/gtest.h>
#include <signal.h>

#include <map>
#include <memory>
#include <string>

#include "programs/support/table_file.h"
#include "tests/programs/program.h"
#include "tests/programs/stranger.h"
#include "zel/ipc.h"
#include "zel/rtm.h"

using zel::programs::Row;
using zel::programs::TableFile;
using zel::test::eventually;
using zel::test::Program;
using zel::test::Stranger;
using zel::test::TextFile;

namespace {

constexpr int ownService = 60;
constexpr int sourceService = 61;
constexpr const char *updatesFile = ZEL_DATA_DIR "/updates_2016-08.txt.xz";

template <class Value>
std::string bytesOf(const Value &value) {
    return std::string(reinterpret_cast<const char *>(&value), sizeof value);
}

// What a table holds: next hop and attributes by family, prefix and mask.
using Content = std::map<std::string, std::string>;

void note(Content &content, int family, const zelRtmRoute &route, bool isWithdrawal) {
    const std::string key = std::to_string(family) + bytesOf(route.prefix) + bytesOf(route.mask);
    content.erase(key);
    if (!isWithdrawal)
        content[key] =
            bytesOf(route.hop[0].addr) + std::string(reinterpret_cast<const char *>(route.tlv), route.tlvLen);
}

class Zelroutes : public testing::Test {
protected:
    explicit Zelroutes(const std::string &more = "")
        : manager("zeltmed",
                  {"--respawn", "--spawn", "RTM zelrtmd", "--spawn", "BGP zelroutes --table " + table.path() + more}) {
        EXPECT_TRUE(manager.says("BGP(61/0) is ready"));
        us.service = ownService;
        us.taskKey = static_cast<std::uint32_t>(zelIpcOpen(ownService, 0));
        enter();
    }
    void enter() { EXPECT_EQ(zelRtmRegister(1, 0, "operator", &handle, &us), 0); }
    ~Zelroutes() override {
        zelIpcClose(us.taskKey);
        manager.signal(SIGTERM);
        EXPECT_EQ(manager.wait(), 0) << manager.output();
        EXPECT_TRUE(manager.says("ended with status 0", 2));
    }
    std::uint64_t counter(int which) const {
        std::uint64_t counters[ZEL_RTM_COUNTERS] = {};
        zelRtmGetCounters(&us, counters);
        return counters[which];
    }
    bool allIsThere() const {
        return eventually(30, [&] { return counter(ZEL_RTM_COUNT_PREFIXES) == 3; });
    }

    TextFile table{"0.0.0.0/0|9.9.9.9|1|\n2001:7fb:ff00::/48|2001:db8::1|2|3:4\n10.0.0.0/8|8.8.8.8|5 6|7:8\n"};
    Program manager;
    zelIpcAddr us{};
    std::uint32_t handle = 0;
};

class ZelroutesWithUpdates : public Zelroutes {
protected:
    ZelroutesWithUpdates() : Zelroutes(std::string(" --updates ") + updatesFile) {}
};

class ZelroutesOfSeveralVrfs : public Zelroutes {
protected:
    ZelroutesOfSeveralVrfs() : Zelroutes(" --vrfs 5 --queues 3") {}
    // VRF by VRF what 10.1.1.1 leads to.
    std::string lookUpAll() const {
        std::string hops;
        for (std::uint32_t vrf = 0; vrf < 6; ++vrf) {
            std::uint8_t query[ZEL_RTM_QUERY_LENGTH];
            const std::uint8_t address[4] = {10, 1, 1, 1};
            zelRtmRoute route;
            zelRtmBuildQuery(query, ZEL_RTM_MATCH_LONGEST, 0, address, 32);
            const bool isThere = zelRtmRouteLookupIPv4(handle, ZEL_RTM_POLL_START, &us, vrf, query) == 0 &&
                                 zelRtmParseAnswer(query, &route, nullptr) == ZEL_RTM_FOUND && route.vrfId == vrf;
            hops += isThere ? std::to_string(route.hop[0].addr[0]) + " " : "none";
        }
        return hops;
    }
    static int queuesUsed() {
        int count = 0;
        zelSwpStatus status;
        for (std::uint32_t queue = 1; queue <= ZEL_SWP_MAX_QUEUES; ++queue)
            count += zelSwpGetQueueStatus(queue, &status) == 0 && status.inUse && status.acknowledged > 0;
        return count;
    }
};

TEST_F(ZelroutesOfSeveralVrfs, spreadThemOverAQueueListIntoATableEachAlsoAfterTheManagerDied) {
    const auto allIsThereNow = [&] { return counter(ZEL_RTM_COUNT_PREFIXES) == 3 * 5; };
    ASSERT_TRUE(eventually(30, allIsThereNow));
    EXPECT_EQ(counter(ZEL_RTM_COUNT_TABLES), 5u * 2);
    EXPECT_EQ(lookUpAll(), "8 8 8 8 8 none");
    EXPECT_TRUE(eventually(10, [] { return queuesUsed() == 3; }));
    const auto rtm = zelGetTaskKeyFromServiceAndInst(ZEL_RTM_SERVICE, 0);
    kill(zelProcIdByKey(static_cast<std::uint32_t>(rtm)), SIGKILL);
    ASSERT_TRUE(manager.says("RTM(76/0) is ready", 2));
    ASSERT_TRUE(eventually(60, allIsThereNow));
    enter();
    EXPECT_EQ(lookUpAll(), "8 8 8 8 8 none");
}

TEST_F(ZelroutesWithUpdates, leavesWhatTheRecordingLeaves) {
    TableFile all;
    ASSERT_TRUE(readTable(table.path(), all) && readTable(updatesFile, all));
    ASSERT_EQ(all.rows.size(), 41212u + 3);
    Content expected, found;
    zelRtmRoute route;
    for (const Row &row : all.rows) {
        routeOfRow(all, row, route);
        note(expected, row.family, route, row.isWithdrawal);
    }
    ASSERT_TRUE(eventually(
        30, [&] { return counter(ZEL_RTM_COUNT_ADDS) + counter(ZEL_RTM_COUNT_DELETES) == all.rows.size(); }));
    EXPECT_EQ(counter(ZEL_RTM_COUNT_PREFIXES), expected.size());
    for (int family : {ZEL_RTM_IPV4_UNICAST, ZEL_RTM_IPV6_UNICAST}) {
        const auto dump = std::make_unique<zelRtmDump>();
        zelRtmDumpBegin(dump.get(), family, 0);
        for (std::uint32_t owner; zelRtmDumpNext(dump.get(), &us, &owner, &route) == 1;)
            note(found, family, route, false);
    }
    EXPECT_TRUE(found == expected);
}

TEST_F(Zelroutes, outlivesRandomMessagesAndSendsItsRoutesAgainWhenTheyAreCleared) {
    ASSERT_TRUE(allIsThere());
    auto random = zel::test::seeded();
    const Stranger stranger;
    for (int i = 0; i < 3000; ++i) {
        auto message = Stranger::anything(random, random() % 2 ? ZEL_RTM_MSG_CLEAR : ZEL_RTM_MSG_UPDATE,
                                          zel_getQueueId(ZEL_RTM_SERVICE, 0, 1));
        if (message.size() >= ZEL_IPC_HDR_LEN) zelIpcHdrSet32(message.data(), 24, ZEL_SWP_ACK_PACKET);
        stranger.send(sourceService, i % 32 ? 1 : 2, message);
        if (i % 100 == 0) counter(ZEL_RTM_COUNT_CLIENTS);
    }
    EXPECT_EQ(zelRtmFibClear(handle, 0, &us), 0);
    EXPECT_TRUE(allIsThere());
    EXPECT_TRUE(eventually(30, [&] { return counter(ZEL_RTM_COUNT_CLEAR_ACKS) == 1; }));
}

}  // namespace
