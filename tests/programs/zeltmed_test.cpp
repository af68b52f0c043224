#include <gtest/gtest.h>
#include <signal.h>
#include <sys/prctl.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "tests/ipc/peer.h"
#include "tests/programs/program.h"
#include "tests/support/random.h"

using namespace zel::test;

namespace {

// A --spawn argument that starts the worker below as `role`.
std::string worker(const std::string &role, const std::string &behaviour) {
    return role + " " + std::filesystem::read_symlink("/proc/self/exe").string() + " --child worker " + behaviour;
}

Program::Result list() {
    return Program::run("zeltmed", {"list"});
}

bool isListed(const std::string &text) {
    return list().output.find(text) != std::string::npos;
}

pid_t processOf(int service) {
    return zelProcIdByKey(static_cast<uint32_t>(service) << 7);
}

bool isGone(pid_t pid) {
    return kill(pid, 0) != 0 && errno == ESRCH;
}

// A ready report of (`service`, 0).
Bytes report(uint32_t service, uint32_t address, pid_t pid, uint32_t claimedService) {
    Bytes bytes = Message{.type = 1601, .sourceQueue = service << 7 | 2, .length = 72}.bytes();
    zelIpcHdrSet32(bytes.data(), 40, address);
    zelIpcHdrSet32(bytes.data(), 64, static_cast<uint32_t>(pid));
    zelIpcHdrSet32(bytes.data(), 68, claimedService);
    return bytes;
}

// A manager that is ready, with a socket to send it things from.
struct Manager {
    explicit Manager(const std::vector<std::string> &arguments = {}) : program("zeltmed", arguments) {
        program.says("ready on");
    }
    void send(int queueType, const Bytes &bytes) const {
        sender.send(bytes, zel_getQueueId(ZEL_IPC_MIN_SERVICE, 0, queueType));
    }
    void end() {
        program.signal(SIGTERM);
        EXPECT_EQ(program.wait(), 0);
    }

    Program program;
    Peer sender{0};
};

ZEL_CHILD(worker) {
    const std::string behaviour = argv[0];
    if (behaviour == "outlive") prctl(PR_SET_PDEATHSIG, 0);  // its parent
    Task task([=] {
        const int key = zelTaskStartup(argc, argv);
        if (key == ZEL_ERROR || zelTaskReady(static_cast<uint32_t>(key)) != ZEL_OK) _exit(99);
        if (behaviour == "leave") {
            usleep(300'000);
            _exit(atoi(argv[1]));
        }
        if (behaviour == "close") zelIpcClose(static_cast<uint32_t>(key));
        if (behaviour == "stubborn") signal(SIGTERM, SIG_IGN);
        return 0;
    });
    for (;;) pause();
}

TEST(Zeltmed, EntersListsClearsAndEndsItsTasks) {
    Manager manager({"--spawn", worker("TEST_TSK", "stay"), "--remote", "RTM:0=10.1.2.3", "--spawn",
                     worker("RIP", "stubborn"), "--spawn", worker("ISIS", "stay")});
    for (const char *task : {"TEST_TSK(87/0)", "RIP(70/0)", "ISIS(68/0)"})
        ASSERT_TRUE(manager.program.says(task + std::string(" is ready")));
    const pid_t first = processOf(68), second = processOf(70);
    const std::string table = list().output;
    for (const char *row : {"13      TME", "87      TEST_TSK", "remote     10.1.2.3"})
        EXPECT_NE(table.find(row), std::string::npos) << row << "\n" << table;
    const std::string json = Program::run("zeltmed", {"list", "--json"}).output;
    EXPECT_NE(json.find("{\"service\": 87, \"name\": \"TEST_TSK\", \"instance\": 0, \"state\": \"here\""),
              std::string::npos)
        << json;
    int error = -1;
    EXPECT_EQ(zel_tmeGetPeerIpAddrByName(76, 0, &error), 0x0a010203u);
    EXPECT_EQ(zel_tmeGetPeerIpAddrByName(87, 0, &error), zelPlatformIpcAddress());

    kill(processOf(87), SIGKILL);
    EXPECT_TRUE(manager.program.says("was ended by signal 9"));
    EXPECT_FALSE(isListed("TEST_TSK"));
    EXPECT_EQ(zel_tmeGetPeerIpAddrByName(87, 0, &error), ZEL_IPC_NO_ADDRESS);
    EXPECT_EQ(zelTaskIsDuplicate(87, 0, nullptr), 0);

    manager.end();
    EXPECT_TRUE(isGone(first));
    EXPECT_TRUE(isGone(second)) << "a task that ignores SIGTERM is killed";
    EXPECT_EQ(list().status, 1);
    EXPECT_EQ(zelPlatformHasSegments(), 0) << "looking creates nothing";
}

TEST(Zeltmed, RespawnsWhatASignalEnded) {
    Manager manager({"--respawn", "--spawn", worker("RIP", "stay")});
    for (int life = 1; life <= 2; ++life) {
        ASSERT_TRUE(manager.program.says("RIP(70/0) is ready", life));
        kill(processOf(70), SIGKILL);
    }
    ASSERT_TRUE(manager.program.says("RIP(70/0) is ready", 3));
    manager.program.signal(SIGINT);
    EXPECT_EQ(manager.program.wait(), 0);
}

// A task has started up also when it has ended, or has closed its endpoint again.
TEST(Zeltmed, EndsWithTheTasksItWaitsFor) {
    Program manager(
        "zeltmed", {"--until", "RIP", "--until", "ISIS:0", "--spawn", "OSPF /bin/false", "--spawn",
                    worker("BGP", "close"), "--spawn", worker("RIP", "leave 0"), "--spawn", worker("ISIS", "leave 7")});
    EXPECT_EQ(manager.wait(), 7);
    EXPECT_TRUE(manager.says("OSPF(60/0), process"));
    EXPECT_EQ(manager.output().find("has not started up"), std::string::npos);
    EXPECT_EQ(zelPlatformHasSegments(), 0);
}

TEST(Zeltmed, KillsATaskThatDoesNotStartUp) {
    if (!isFullRun()) GTEST_SKIP() << "takes ten seconds";
    Program manager("zeltmed",
                    {"--until", "ISIS", "--spawn", "RIP /bin/sleep 1000", "--spawn", worker("ISIS", "leave 0")});
    EXPECT_EQ(manager.wait(), 0);
    EXPECT_TRUE(manager.says("RIP(70/0) has not started up"));
    EXPECT_TRUE(manager.says("was ended by signal 9"));
}

TEST(Zeltmed, RunsOnceForACpu) {
    const Manager manager;
    const Program::Result second = Program::run("zeltmed", {});
    EXPECT_EQ(second.status, 1);
    EXPECT_NE(second.output.find("runs on"), std::string::npos);
    EXPECT_EQ(Program::run("zeltmed", {"clean"}).status, 1);
    EXPECT_EQ(list().status, 0) << "the first one is undisturbed";
    const Program elsewhere("zeltmed", {"--address", "127.255.0.9"});
    EXPECT_TRUE(elsewhere.says("ready on 127.255.0.9"));
}

TEST(Zeltmed, FindsTheTasksOfAManagerThatWasKilled) {
    {
        Program killed("zeltmed", {"--spawn", worker("RIP", "outlive"), "--remote", "RTM=10.1.2.3"});
        ASSERT_TRUE(killed.says("RIP(70/0) is ready"));
        killed.signal(SIGKILL);
        killed.wait();
    }
    const pid_t task = processOf(70);
    EXPECT_EQ(list().status, 1);
    Manager manager;
    EXPECT_TRUE(isListed("70      RIP"));
    EXPECT_FALSE(isListed("RTM")) << "what the killed one was told is forgotten";
    kill(task, SIGKILL);
    EXPECT_TRUE(manager.program.says("process " + std::to_string(task) + " has ended, 1 endpoint cleared"));
    EXPECT_FALSE(isListed("RIP"));
    manager.program.signal(SIGKILL);
    manager.program.wait();
    EXPECT_EQ(zelPlatformHasSegments(), 1);
    EXPECT_EQ(Program::run("zeltmed", {"clean"}).status, 0);
    EXPECT_EQ(zelPlatformHasSegments(), 0);
}

TEST(Zeltmed, CountsMalformedDatagramsAndReportsThatAreNotTrue) {
    Manager manager({"--spawn", worker("RIP", "stay")});
    ASSERT_TRUE(manager.program.says("RIP(70/0) is ready"));
    const uint32_t here = zelPlatformIpcAddress();
    const pid_t owner = processOf(70);
    Bytes cut = report(70, here, owner, 70);
    cut.pop_back();
    const Bytes forged[] = {
        report(76, here, getpid(), 76),     // an endpoint nobody opened
        report(70, here, getpid(), 70),     // another process's endpoint
        report(70, 0x0a000001, owner, 70),  // another CPU's task
        report(70, here, owner, 71),        // two services
        report(70, here, -1, 70),          report(12, here, owner, 12), cut,
    };
    for (const Bytes &bytes : forged) manager.send(ZEL_IPC_QUEUE_REQUEST, bytes);
    for (const int queue : {ZEL_IPC_QUEUE_REQUEST, ZEL_IPC_QUEUE_RESPONSE})
        for (const uint32_t magic : {ZEL_IPC_MAGIC, 0xdeadbeefu})
            for (std::size_t length = 0; length <= 60; ++length) {
                Bytes bytes(60);
                zelIpcHdrSet32(bytes.data(), 0, magic);
                bytes.resize(length);
                manager.send(queue, bytes);
            }
    manager.send(ZEL_IPC_QUEUE_REQUEST, report(70, here, owner, 70));
    ASSERT_TRUE(manager.program.says("RIP(70/0) is ready", 2)) << "the last in the queue";
    EXPECT_FALSE(isListed("RTM"));
    manager.end();
    EXPECT_TRUE(
        manager.program.says("2 tasks entered, 9 messages refused, datagrams dropped: 240 too short, 2 without"));
}

// Random messages under good headers: whatever they ask for, the manager goes on.
TEST(Zeltmed, OutlivesRandomMessages) {
    Manager manager;
    Random random = seeded();
    for (int i = isFullRun() ? 10'000 : 500; i > 0; --i) {
        Bytes bytes(400);
        for (auto &byte : bytes) byte = static_cast<uint8_t>(random());
        zelIpcHdrSet32(bytes.data(), 0, ZEL_IPC_MAGIC);
        if (i % 2 == 0) zelIpcHdrSet32(bytes.data(), 12, 1601);
        if (i % 3 == 0) zelIpcHdrSet32(bytes.data(), 40, zelPlatformIpcAddress());
        bytes[4] = static_cast<uint8_t>(random() % 16);
        bytes.resize(random() % bytes.size());
        manager.send(ZEL_IPC_QUEUE_REQUEST + i % 2, bytes);
        if (i % 50 == 0) {
            ASSERT_EQ(list().status, 0);
        }
    }
    const Child task = Child::start("worker", {"stay", "70", "0", "13", "0", "0", "0", "0", "0"});
    EXPECT_TRUE(manager.program.says("RIP(70/0) is ready, process " + std::to_string(task.pid())));
    manager.end();
}

TEST(Zeltmed, RefusesACommandLineItCannotMakeSenseOf) {
    const std::vector<std::vector<std::string>> lines = {{"frobnicate"},
                                                         {"list", "twice"},
                                                         {"--spawn", "RTM"},
                                                         {"--spawn", "NOSUCH /bin/true"},
                                                         {"--spawn", "RTM:32 /bin/true"},
                                                         {"--spawn", "12 /bin/true"},
                                                         {"--spawn", "RTM $(id)"},
                                                         {"--spawn", "RTM no-such-program-anywhere"},
                                                         {"--remote", "RTM=10.1.2"},
                                                         {"--until", "RTM"},
                                                         {"--instance", "29"}};
    for (const auto &line : lines) {
        const Program::Result result = Program::run("zeltmed", line);
        EXPECT_EQ(result.status, 2) << line.back() << "\n" << result.output;
    }
    EXPECT_EQ(zelPlatformHasSegments(), 0);
    EXPECT_EQ(Program::run("zeltmed", {"--help"}).status, 0);
}

}  // namespace
