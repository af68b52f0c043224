// The source of routes: what it leaves in the manager after a table and a recording of real updates, and what it makes
// of messages that are not for it.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <memory>
#include <string>
#include <tuple>

#include "programs/support/table_file.h"
#include "tests/programs/program.h"
#include "tests/support/random.h"
#include "zel/ipc.h"
#include "zel/rtm.h"

using zel::programs::Row;
using zel::programs::TableFile;
using zel::test::eventually;
using zel::test::Program;

namespace {

constexpr int ownService = 60;
constexpr int sourceService = 61;
constexpr unsigned typeWord = 12;

std::string updatesFile() {
    return ZEL_DATA_DIR "/updates_2016-08.txt.xz";
}

// The first rows of a table, enough to make neighbours of what the updates change.
class SmallTable {
public:
    SmallTable() {
        char path[] = "/tmp/zel_routes_XXXXXX";
        const int fd = mkstemp(path);
        EXPECT_GE(fd, 0);
        close(fd);
        path_ = path;
        std::ofstream(path_)
            << "0.0.0.0/0|9.9.9.9|1|\n2001:7fb:ff00::/48|2001:db8::1|2|3:4\n10.0.0.0/8|8.8.8.8|5 6|7:8\n";
    }
    ~SmallTable() { unlink(path_.c_str()); }
    SmallTable(const SmallTable &) = delete;
    SmallTable &operator=(const SmallTable &) = delete;
    const std::string &path() const { return path_; }

private:
    std::string path_;
};

using Key = std::tuple<int, std::string, int>;  // family, prefix bytes, bits

Key keyOf(const Row &row) {
    return {row.family, std::string(reinterpret_cast<const char *>(row.prefix), sizeof row.prefix), row.bits};
}

// What stands after all rows have been played in their order.
std::map<Key, const Row *> played(const TableFile &table) {
    std::map<Key, const Row *> present;
    for (const Row &row : table.rows)
        if (row.isWithdrawal)
            present.erase(keyOf(row));
        else
            present[keyOf(row)] = &row;
    return present;
}

class Zelroutes : public testing::Test {
protected:
    explicit Zelroutes(const std::string &more = "")
        : manager("zeltmed", {"--spawn", "RTM zelrtmd", "--spawn", "BGP zelroutes --table " + table.path() + more}) {
        EXPECT_TRUE(manager.says("BGP(61/0) is ready"));
        us.service = ownService;
        us.taskKey = static_cast<std::uint32_t>(zelIpcOpen(ownService, 0));
    }
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

    SmallTable table;
    Program manager;
    zelIpcAddr us{};
};

class ZelroutesWithUpdates : public Zelroutes {
protected:
    ZelroutesWithUpdates() : Zelroutes(" --updates " + updatesFile()) {}
};

TEST_F(ZelroutesWithUpdates, leavesWhatTheRecordingLeaves) {
    TableFile all;
    ASSERT_TRUE(readTable(table.path(), all));
    ASSERT_TRUE(readTable(updatesFile(), all));
    ASSERT_EQ(all.rows.size(), 41212u + 3);
    const auto present = played(all);
    ASSERT_TRUE(eventually(
        30, [&] { return counter(ZEL_RTM_COUNT_ADDS) + counter(ZEL_RTM_COUNT_DELETES) == all.rows.size(); }));
    EXPECT_EQ(counter(ZEL_RTM_COUNT_PREFIXES), present.size());
    auto expected = present.begin();
    for (int family : {ZEL_RTM_IPV4_UNICAST, ZEL_RTM_IPV6_UNICAST}) {
        const auto dump = std::make_unique<zelRtmDump>();
        zelRtmDumpBegin(dump.get(), family, 0);
        std::uint32_t handle;
        zelRtmRoute route, wanted;
        while (zelRtmDumpNext(dump.get(), &us, &handle, &route) == 1) {
            ASSERT_NE(expected, present.end());
            routeOfRow(all, *expected->second, wanted);
            ASSERT_EQ(memcmp(route.prefix, wanted.prefix, sizeof route.prefix), 0);
            ASSERT_EQ(memcmp(route.mask, wanted.mask, sizeof route.mask), 0);
            EXPECT_EQ(memcmp(route.hop[0].addr, wanted.hop[0].addr, 16), 0);
            ASSERT_EQ(route.tlvLen, wanted.tlvLen);
            EXPECT_TRUE(route.tlvLen == 0 || memcmp(route.tlv, wanted.tlv, route.tlvLen) == 0);
            ++expected;
        }
    }
    EXPECT_EQ(expected, present.end());
}

TEST_F(Zelroutes, sendsItsRoutesAgainWhenTheyAreCleared) {
    ASSERT_TRUE(eventually(30, [&] { return counter(ZEL_RTM_COUNT_PREFIXES) == 3; }));
    std::uint32_t handle = 0;
    ASSERT_EQ(zelRtmRegister(1, 0, "operator", &handle, &us), 0);
    EXPECT_EQ(zelRtmFibClear(handle, 0, &us), 0);
    EXPECT_TRUE(eventually(30, [&] { return counter(ZEL_RTM_COUNT_PREFIXES) == 3; }));
    EXPECT_EQ(counter(ZEL_RTM_COUNT_CLEAR_ACKS), 1u);
}

TEST_F(Zelroutes, outlivesRandomMessages) {
    ASSERT_TRUE(eventually(30, [&] { return counter(ZEL_RTM_COUNT_PREFIXES) == 3; }));
    auto random = zel::test::seeded();
    const int plain = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_addr.s_addr = htonl(zel_sysGetIpAddr());
    for (int i = 0; i < 3000; ++i) {
        std::vector<std::uint8_t> message(i < 122 ? static_cast<unsigned>(i / 2) : random() % 300);
        for (auto &byte : message) byte = static_cast<std::uint8_t>(random() % 4 == 0 ? random() : 0);
        if (message.size() >= 60 && random() % 4 != 0) {
            zelIpcHdrSet32(message.data(), 0, ZEL_IPC_MAGIC);
            zelIpcHdrSet32(message.data(), typeWord, random() % 2 ? ZEL_RTM_MSG_CLEAR : ZEL_RTM_MSG_UPDATE);
            zelIpcHdrSet32(message.data(), 24, 0x53574143);
            zelIpcHdrSet32(message.data(), 40, zel_sysGetIpAddr());
            zelIpcHdrSet32(message.data(), 44, zel_getQueueId(ZEL_RTM_SERVICE, 0, 1));
        }
        to.sin_port = htons(static_cast<std::uint16_t>(zel_getQueueId(sourceService, 0, i % 32 ? 1 : 2)));
        sendto(plain, message.data(), message.size(), 0, reinterpret_cast<sockaddr *>(&to), sizeof to);
        if (i % 100 == 0) counter(ZEL_RTM_COUNT_CLIENTS);
    }
    close(plain);
    std::uint32_t handle = 0;
    ASSERT_EQ(zelRtmRegister(1, 0, "operator", &handle, &us), 0);
    EXPECT_EQ(zelRtmFibClear(handle, 0, &us), 0);
    EXPECT_TRUE(eventually(30, [&] { return counter(ZEL_RTM_COUNT_PREFIXES) == 3; }));
}

}  // namespace
