// The task manager client, and the manager's side of it.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>

#include <cerrno>
#include <fstream>
#include <iterator>

#include "tests/ipc/peer.h"
#include "tests/support/child.h"
#include "tests/support/fake_network.h"

using namespace zel::test;

namespace {

zelTmeEndpoint find(int service, int instance) {
    zelTmeEndpoint endpoint{};
    for (std::uint32_t cursor = 0; zelTmeNextEndpoint(&cursor, &endpoint) == 1;)
        if (endpoint.service == service && endpoint.instance == instance) return endpoint;
    return {};
}

// A task as its spawner starts it: `what it does`, then the eight identity arguments.
ZEL_CHILD(spawned) {
    if (argv[0] == std::string("die")) raise(SIGKILL);
    // Service, instance and parent service stay in the listing; the last five arguments go.
    std::string kept;
    for (int i = argc - 8; i < argc - 5; ++i) kept += argv[i] + std::string(1, '\0');
    Task task([=] {
        const int key = zelTaskStartup(argc, argv);
        return key == -1 || zelGetMyTaskKey() != key ? -1 : zelTaskReady(static_cast<std::uint32_t>(key));
    });
    if (task.result() == -1) return 1;
    std::ifstream file("/proc/self/cmdline", std::ios::binary);
    const std::string line{std::istreambuf_iterator<char>(file), {}};
    if (line.find_last_not_of('\0') + 2 != line.rfind(kept) + kept.size()) return 2;
    for (;;) pause();
}

pid_t spawn(const char *role, int service, int instance) {
    char child[] = "--child", name[] = "spawned", what[8] = {};
    strncpy(what, role, sizeof what - 1);
    char *args[] = {child, name, what, nullptr};
    return zelTmeSpawn("/proc/self/exe", args, service, instance, 13, 2);
}

int waitFor(pid_t pid) {
    int status = -1;
    EXPECT_TRUE(eventually(30, [&] { return waitpid(pid, &status, WNOHANG) == pid; }));
    return WIFEXITED(status) ? WEXITSTATUS(status) : 256 + WTERMSIG(status);
}

TEST(Spawn, OneTaskAtATimeIsBetweenStartAndEndpointEvenIfItDiesThere) {
    ASSERT_NE(zelIpcOpen(13, 0), -1);
    pid_t pids[4];
    for (int instance = 0; instance < 4; ++instance) {
        const pid_t dead = spawn("die", 152, instance);
        EXPECT_EQ(waitFor(dead), 256 + SIGKILL);
        EXPECT_EQ(zelTmeForget(dead), 0);
        pids[instance] = spawn("stay", 152, instance);
    }
    for (int instance = 0; instance < 4; ++instance) {
        Bytes report(100);
        ASSERT_EQ(receive(13 << 7, report, 30), 72);
        EXPECT_EQ(zelIpcHdrGet32(report.data(), 60), 1u) << "its first task";
        EXPECT_EQ(zelIpcHdrGet32(report.data(), 64), static_cast<unsigned>(pids[instance])) << "one after the other";
        const zelTmeEndpoint endpoint = find(152, instance);
        EXPECT_EQ(endpoint.pid, pids[instance]);
        EXPECT_EQ(endpoint.flags & (ZEL_IPC_FLAG_STARTED | ZEL_IPC_FLAG_LOCK5_HELD), ZEL_IPC_FLAG_STARTED);
        EXPECT_STREQ(endpoint.name, "tTest");
    }
    // The lock is free although they live. A start that fails does not leave it behind either.
    EXPECT_EQ(ZEL_ShmWriteLock(5), 0);
    EXPECT_EQ(ZEL_ShmWriteUnLock(5), 0);
    EXPECT_EQ(zelTmeSpawn("/no/such/program", nullptr, 61, 0, 13, 0), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(zelTmeSpawn("/proc/self/exe", nullptr, 61, 32, 13, 0), -1);
    EXPECT_EQ(ZEL_ShmWriteLock(5), 0);
    for (const pid_t pid : pids) {
        kill(pid, SIGKILL);
        EXPECT_EQ(waitFor(pid), 256 + SIGKILL);
        EXPECT_EQ(zelTmeForget(pid), 1);
    }
}

// Arguments may be literals, which cannot be written. A failure leaves them, and releases the spawner's lock.
TEST(Startup, BlanksItsArgumentsOnlyOnSuccess) {
    char *arguments[8];
    const auto start = [&](const char *service, const char *instance, int count = 8) {
        const char *const literals[] = {service, instance, "13", "0", "1", "a", "b", "c"};
        for (int i = 0; i < 8; ++i) arguments[i] = const_cast<char *>(literals[i]);
        return zelTaskStartup(count, arguments);
    };
    FakeNetwork network;
    EXPECT_EQ(start("61", "0", 7), -1);
    EXPECT_EQ(start("61", "32"), -1);
    EXPECT_EQ(start("6x", "0"), -1);
    {
        const Peer taken(bgp | 1);
        ASSERT_EQ(ZEL_ShmWriteLock(5), 0);
        ASSERT_NE(zelIpcOpen(62, 0), -1);  // so that its neighbour's record can be found
        auto *record = const_cast<zelIpcEndpoint *>(zelTaskAlreadyExists(0)) + (61 - 62) * 32;
        record->flags |= ZEL_IPC_FLAG_LOCK5_HELD;
        EXPECT_EQ(start("61", "0"), -1);
        EXPECT_EQ(record->flags & ZEL_IPC_FLAG_LOCK5_HELD, 0u);
        EXPECT_EQ(ZEL_ShmWriteUnLock(5), -1) << "released already";
    }
    EXPECT_STREQ(arguments[7], "c");
    EXPECT_EQ(start("61", "0"), static_cast<int>(bgp));
    EXPECT_STREQ(arguments[2], "13");
    for (int i = 3; i < 8; ++i) EXPECT_STREQ(arguments[i], "");
}

TEST(ByKey, FindsTheOwner) {
    int taskId = 7;
    EXPECT_EQ(zelTaskIsDuplicate(76, 0, &taskId), 0);
    EXPECT_EQ(taskId, 0);
    EXPECT_EQ(zelProcIdByKey(rtm), -1);
    Task owner([] { return zelIpcOpen(76, 0); });
    ASSERT_EQ(owner.result(), static_cast<int>(rtm));
    EXPECT_EQ(zelTaskIsDuplicate(76, 0, &taskId), 1);
    EXPECT_EQ(taskId, 1);
    EXPECT_EQ(zelTaskGetByServiceAndInstance(76, 0), 1);
    EXPECT_EQ(zelTaskIdSelf(rtm), 1);
    ASSERT_NE(zelTaskAlreadyExists(1), nullptr);
    EXPECT_EQ(zelTaskAlreadyExists(1)->service, 76u);
    char name[4] = "abc";
    EXPECT_STREQ(zelTaskGetName(99, name, 3), "Unknown");
    EXPECT_STREQ(name, "Un");
    for (const std::uint32_t key : {12u << 7, 364u << 7}) {
        EXPECT_EQ(zelTaskGetServiceByKey(key), -1);
        EXPECT_EQ(zelTaskGetInstanceByKey(key), -1);
        EXPECT_EQ(zelProcIdByKey(key), -1);
        EXPECT_EQ(zelTaskIdSelf(key), -1);
        EXPECT_EQ(zelTaskGetIpcKey(key), static_cast<int>(key)) << "given back although it is none";
    }
    EXPECT_EQ(zelGetTaskKeyFromServiceAndInst(13, 31), 0x6fc);
    EXPECT_EQ(zelGetTaskKeyFromServiceAndInst(13, 32), -1);
}

TEST(Peers, AreFoundByTheTaskTable) {
    const zelTmeGlobals values{0, 3, {0x0a000001, 0x0a000002}};
    ASSERT_EQ(zelTmeSetGlobals(&values), 0);
    EXPECT_EQ(getMasterRpmIpAddr(1), 0x0a000002u);
    const std::uint32_t own = zel_sysGetIpAddr(), none = ZEL_IPC_NO_ADDRESS;
    for (const int which : {-1, 2}) EXPECT_EQ(getMasterRpmIpAddr(which), none);
    const struct {
        std::uint32_t state, address, expected;
    } rows[] = {
        {ZEL_TME_REMOTE, 0x0a000001, 0x0a000001},
        {ZEL_TME_HERE, 0x0a000001, own},
        {ZEL_TME_DOWN, 0x0a000001, own},
        {ZEL_TME_REMOTE, 0, none},
        {ZEL_TME_HERE, none, none},
    };
    int error = 9;
    for (const auto &row : rows) {
        ASSERT_EQ(zelTmeSetTaskEntry(76, 0, row.state, row.address), 0);
        EXPECT_EQ(zel_tmeGetPeerIpAddrByName(76, 0, &error), row.expected);
        EXPECT_EQ(error, row.expected == none ? 2 : 0);
    }
    EXPECT_EQ(zelTmeSetTaskEntry(76, 32, 1, 1), -1);
    for (const auto &[service, instance] : {std::pair{-1, 0}, {76, -1}, {76, 47}, {76, 48}, {76, 4145}, {500, 0}})
        EXPECT_EQ(zel_tmeGetPeerIpAddrByName(service, instance, &error), none) << service << " " << instance;
    FakeNetwork network;
    EXPECT_EQ(zel_tmeGetTaskIpAddrByName(77, 0, &error), none);
    EXPECT_DOUBLE_EQ(network.seconds(), 5600 * 0.02) << "waited for";
    // Behind the relay they are at their master.
    zelPlatformSetPeMasterAddress(0x0a000009);
    EXPECT_EQ(zel_tmeGetPeerIpAddrByName(76, 48, &error), 0x0a000009u);
    EXPECT_EQ(zel_tmeGetPeerIpAddrByName(76, 4144, nullptr), 0x0a000009u);
    EXPECT_EQ(zel_tmeGetPeerIpAddrByName(76, 4145, &error), none);
}

ZEL_CHILD(owner) {
    if (zelIpcOpen(61, 0) == -1 || zelIpcOpen(76, 0) == -1) return 1;
    for (;;) pause();
}

TEST(DeadOwner, LosesWhatItHadToWhoeverOpensOrForgetsIt) {
    ASSERT_NE(zelIpcOpen(62, 0), -1);
    const Child child = Child::start("owner");
    ASSERT_TRUE(eventually(20, [] { return zelTaskIsDuplicate(76, 0, nullptr) == 1; }));
    for (const int service : {61, 62}) zelTmeSetTaskEntry(service, 0, ZEL_TME_HERE, 1);
    EXPECT_EQ(zelProcIdByKey(rtm), child.pid());
    EXPECT_EQ(zelGetMyTaskKey(), 62 << 7) << "same task id, other process";
    EXPECT_EQ(zelTmeForget(child.pid()), 0) << "it lives";
    child.signal(SIGKILL);
    ASSERT_TRUE(eventually(20, [] { return zelTaskGetByServiceAndInstance(76, 0) == -1; }));
    ASSERT_EQ(zelIpcOpen(76, 0), static_cast<int>(rtm));
    EXPECT_EQ(zelProcIdByKey(rtm), getpid());
    EXPECT_EQ(zelTmeForget(child.pid()), 1);
    EXPECT_EQ(zelTmeForget(child.pid()), 0);
    zelTmeTaskEntry entry{};
    zelTmeGetTaskEntry(61, 0, &entry);
    EXPECT_EQ(entry.state, ZEL_TME_NONE);
    zelTmeGetTaskEntry(62, 0, &entry);
    EXPECT_EQ(entry.state, ZEL_TME_HERE);
    EXPECT_EQ(find(61, 0).pid, 0);
    EXPECT_EQ(find(62, 0).pid, getpid());
}

}  // namespace
