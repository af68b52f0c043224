#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "tests/programs/program.h"
#include "tests/support/random.h"
#include "zel/ipc.h"
#include "zel/kernel.h"
#include "zel/platform.h"

using zel::test::Child;
using zel::test::eventually;
using zel::test::Program;

namespace {

std::string thisProgram() {
    char path[PATH_MAX];
    const ssize_t length = readlink("/proc/self/exe", path, sizeof path);
    return {path, static_cast<std::size_t>(length)};
}

// A --spawn argument that starts the worker below as `role`.
std::string worker(const std::string &role, const std::string &behaviour) {
    return role + " " + thisProgram() + " --child worker " + behaviour;
}

int workerTask(intptr_t argc, intptr_t argv, intptr_t, intptr_t, intptr_t, intptr_t, intptr_t, intptr_t, intptr_t,
               intptr_t) {
    auto **words = reinterpret_cast<char **>(argv);
    const std::string behaviour = words[0];
    const int key = zelTaskStartup(static_cast<int>(argc), words);
    if (key == ZEL_ERROR || zelTaskReady(static_cast<uint32_t>(key)) != ZEL_OK) _exit(99);
    if (behaviour == "leave") {
        usleep(300'000);
        _exit(atoi(words[1]));
    }
    if (behaviour == "close") zelIpcClose(static_cast<uint32_t>(key));
    if (behaviour == "stubborn") signal(SIGTERM, SIG_IGN);
    for (;;) pause();
}

Program::Result list() {
    return Program::run("zeltmed", {"list"});
}

bool isListed(const std::string &text) {
    return list().output.find(text) != std::string::npos;
}

pid_t processOf(int service, int instance) {
    const int key = zelGetTaskKeyFromServiceAndInst(service, instance);
    return zelProcIdByKey(static_cast<uint32_t>(key));
}

bool isGone(pid_t pid) {
    return kill(pid, 0) != 0 && errno == ESRCH;
}

// Sends to a queue of the task manager from a socket of no endpoint.
class Sender {
public:
    Sender() : socket_(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {}
    ~Sender() { close(socket_); }
    Sender(const Sender &) = delete;
    Sender &operator=(const Sender &) = delete;

    void send(int queueType, const void *data, std::size_t bytes) const {
        sockaddr_in to{};
        to.sin_family = AF_INET;
        to.sin_addr.s_addr = htonl(zelPlatformIpcAddress());
        to.sin_port = htons(static_cast<uint16_t>(zel_getQueueId(ZEL_IPC_MIN_SERVICE, 0, queueType)));
        EXPECT_EQ(sendto(socket_, data, bytes, 0, reinterpret_cast<sockaddr *>(&to), sizeof to),
                  static_cast<ssize_t>(bytes));
    }

private:
    int socket_;
};

struct Report {
    unsigned char bytes[72] = {};
    Report(int service, int instance, uint32_t address, pid_t pid, int claimedService) {
        zelIpcHdrSet32(bytes, 0, ZEL_IPC_MAGIC);
        zelIpcHdrSet32(bytes, 12, 1601);
        zelIpcHdrSet32(bytes, 40, address);
        zelIpcHdrSet32(bytes, 44, zel_getQueueId(service, instance, ZEL_IPC_QUEUE_RESPONSE));
        zelIpcHdrSet32(bytes, 64, static_cast<uint32_t>(pid));
        zelIpcHdrSet32(bytes, 68, static_cast<uint32_t>(claimedService));
    }
};

}  // namespace

ZEL_CHILD(worker) {
    if (strcmp(argv[0], "outlive") == 0) prctl(PR_SET_PDEATHSIG, 0);  // its parent
    vx2bsdLibInit();
    vx2bsd_start(1, 1, 0, 0);
    if (taskSpawn("tWorker", 100, 0, 0, workerTask, argc, reinterpret_cast<intptr_t>(argv), 0, 0, 0, 0, 0, 0, 0, 0) ==
        ZEL_ERROR)
        return 98;
    for (;;) pause();
}

TEST(Zeltmed, EntersListsAndEndsItsTasks) {
    Program manager("zeltmed", {"--spawn", worker("TEST_TSK", "stay"), "--remote", "RTM:0=10.1.2.3", "--spawn",
                                worker("RIP", "stubborn")});
    ASSERT_TRUE(manager.says("TEST_TSK(87/0) is ready"));
    ASSERT_TRUE(manager.says("RIP(70/0) is ready"));
    const pid_t first = processOf(87, 0), second = processOf(70, 0);
    const Program::Result table = list();
    EXPECT_EQ(table.status, 0);
    for (const char *row : {"13      TME", "87      TEST_TSK", "tWorker", "remote     10.1.2.3"})
        EXPECT_NE(table.output.find(row), std::string::npos) << row << "\n" << table.output;
    const Program::Result json = Program::run("zeltmed", {"list", "--json"});
    EXPECT_NE(json.output.find("{\"service\": 87, \"name\": \"TEST_TSK\", \"instance\": 0, \"state\": \"here\""),
              std::string::npos)
        << json.output;
    int error = -1;
    EXPECT_EQ(zel_tmeGetPeerIpAddrByName(76, 0, &error), 0x0a010203u);
    EXPECT_EQ(zel_tmeGetPeerIpAddrByName(87, 0, &error), zelPlatformIpcAddress());

    manager.signal(SIGTERM);
    EXPECT_EQ(manager.wait(), 0);
    EXPECT_TRUE(isGone(first));
    EXPECT_TRUE(isGone(second)) << "a task that ignores SIGTERM is killed";
    EXPECT_EQ(zelPlatformHasSegments(), 0);
    EXPECT_EQ(list().status, 1);
    EXPECT_EQ(zelPlatformHasSegments(), 0) << "looking creates nothing";
}

TEST(Zeltmed, ClearsWhatADeadProcessLeaves) {
    Program manager("zeltmed", {"--spawn", worker("TEST_TSK", "stay"), "--spawn", worker("RIP", "stay"), "--spawn",
                                worker("ISIS", "close")});
    ASSERT_TRUE(manager.says("ISIS(68/0) is ready"));
    kill(processOf(87, 0), SIGKILL);
    EXPECT_TRUE(manager.says("was ended by signal 9"));
    EXPECT_FALSE(isListed("TEST_TSK"));
    EXPECT_TRUE(isListed("RIP"));
    int error = 0, owner = 0;
    EXPECT_EQ(zel_tmeGetPeerIpAddrByName(87, 0, &error), ZEL_IPC_NO_ADDRESS);
    EXPECT_EQ(error, 2);
    EXPECT_EQ(zelTaskIsDuplicate(87, 0, &owner), 0);
}

TEST(Zeltmed, RespawnsWhatASignalEnded) {
    Program manager("zeltmed", {"--respawn", "--spawn", worker("RIP", "stay")});
    for (int life = 1; life <= 2; ++life) {
        ASSERT_TRUE(manager.says("RIP(70/0) is ready", life));
        kill(processOf(70, 0), SIGKILL);
    }
    ASSERT_TRUE(manager.says("RIP(70/0) is ready", 3));
    manager.signal(SIGINT);
    EXPECT_EQ(manager.wait(), 0);
}

TEST(Zeltmed, EndsWithTheTasksItWaitsFor) {
    Program manager("zeltmed",
                    {"--until", "RIP", "--until", "ISIS:0", "--spawn", "OSPF /bin/false", "--spawn",
                     worker("RIP", "leave 0"), "--spawn", worker("ISIS", "leave 7"), "--spawn", worker("BGP", "stay")});
    EXPECT_EQ(manager.wait(), 7);
    EXPECT_TRUE(manager.says("OSPF(60/0), process"));
    EXPECT_EQ(zelPlatformHasSegments(), 0);
}

TEST(Zeltmed, RunsOnceForACpu) {
    Program manager("zeltmed");
    ASSERT_TRUE(manager.says("ready on"));
    const Program::Result second = Program::run("zeltmed", {});
    EXPECT_EQ(second.status, 1);
    EXPECT_NE(second.output.find("runs on"), std::string::npos);
    EXPECT_EQ(Program::run("zeltmed", {"clean"}).status, 1);
    EXPECT_EQ(list().status, 0) << "the first one is undisturbed";

    const Program elsewhere("zeltmed", {"--address", "127.255.0.9"});
    EXPECT_TRUE(elsewhere.says("ready on 127.255.0.9"));
}

TEST(Zeltmed, FindsTheTasksOfAManagerThatWasKilled) {
    pid_t task = 0;
    {
        Program killed("zeltmed", {"--spawn", worker("RIP", "outlive"), "--remote", "RTM=10.1.2.3"});
        ASSERT_TRUE(killed.says("RIP(70/0) is ready"));
        task = processOf(70, 0);
        killed.signal(SIGKILL);
        killed.wait();
    }
    EXPECT_EQ(list().status, 1);
    Program manager("zeltmed");
    ASSERT_TRUE(manager.says("ready on"));
    EXPECT_TRUE(isListed("70      RIP"));
    EXPECT_FALSE(isListed("RTM")) << "what the killed one was told is forgotten";
    kill(task, SIGKILL);
    EXPECT_TRUE(manager.says("process " + std::to_string(task) + " has ended, 1 endpoint cleared"));
    EXPECT_FALSE(isListed("RIP"));
    manager.signal(SIGKILL);
    manager.wait();
    EXPECT_EQ(zelPlatformHasSegments(), 1);
    EXPECT_EQ(Program::run("zeltmed", {"clean"}).status, 0);
    EXPECT_EQ(zelPlatformHasSegments(), 0);
}

TEST(Zeltmed, CountsAndOutlivesMalformedDatagrams) {
    Program manager("zeltmed");
    ASSERT_TRUE(manager.says("ready on"));
    const Sender sender;
    for (const int queue : {ZEL_IPC_QUEUE_REQUEST, ZEL_IPC_QUEUE_RESPONSE})
        for (const uint32_t magic : {ZEL_IPC_MAGIC, 0xdeadbeefu})
            for (std::size_t length = 0; length <= 60; ++length) {
                unsigned char message[64] = {};
                zelIpcHdrSet32(message, 0, magic);
                sender.send(queue, message, length);
            }
    EXPECT_TRUE(eventually(30, [] { return isListed("TME"); }));
    manager.signal(SIGTERM);
    EXPECT_EQ(manager.wait(), 0);
    EXPECT_TRUE(manager.says("0 tasks entered, 2 messages refused, datagrams dropped: 240 too short, 2 without magic"));
}

// Random messages under good headers: whatever they ask for, the manager goes on.
TEST(Zeltmed, OutlivesRandomMessages) {
    Program manager("zeltmed");
    ASSERT_TRUE(manager.says("ready on"));
    const Sender sender;
    zel::test::Random random = zel::test::seeded();
    const int rounds = zel::test::isFullRun() ? 200 : 10;
    for (int round = 0; round < rounds; ++round) {
        for (int i = 0; i < 50; ++i) {
            unsigned char message[400];
            for (unsigned char &byte : message) byte = static_cast<unsigned char>(random());
            zelIpcHdrSet32(message, 0, ZEL_IPC_MAGIC);
            if (i % 2 == 0) zelIpcHdrSet32(message, 12, 1601);
            if (i % 3 == 0) zelIpcHdrSet32(message, 40, zelPlatformIpcAddress());
            message[4] = static_cast<unsigned char>(random() % 16);
            sender.send(ZEL_IPC_QUEUE_REQUEST + i % 2, message, random() % sizeof message);
        }
        ASSERT_EQ(list().status, 0);
    }
    const Child task = Child::start("worker", {"stay", "70", "0", "13", "0", "0", "0", "0", "0"});
    EXPECT_TRUE(manager.says("RIP(70/0) is ready, process " + std::to_string(task.pid())));
    manager.signal(SIGTERM);
    EXPECT_EQ(manager.wait(), 0);
}

TEST(Zeltmed, KillsATaskThatDoesNotStartUp) {
    if (!zel::test::isFullRun()) GTEST_SKIP() << "takes ten seconds";
    Program manager("zeltmed",
                    {"--until", "ISIS", "--spawn", "RIP /bin/sleep 1000", "--spawn", worker("ISIS", "leave 0")});
    EXPECT_EQ(manager.wait(), 0);
    EXPECT_TRUE(manager.says("RIP(70/0) has not started up"));
    EXPECT_TRUE(manager.says("was ended by signal 9"));
}

TEST(Zeltmed, SpawnsOnWhenATaskHasClosedItsEndpointAgain) {
    Program manager("zeltmed",
                    {"--spawn", worker("ISIS", "close"), "--until", "RIP", "--spawn", worker("RIP", "leave 3")});
    EXPECT_EQ(manager.wait(), 3);
    EXPECT_EQ(manager.output().find("has not started up"), std::string::npos);
}

TEST(Zeltmed, BelievesNoReportThatIsNotTrue) {
    Program manager("zeltmed", {"--spawn", worker("RIP", "stay")});
    ASSERT_TRUE(manager.says("RIP(70/0) is ready"));
    const uint32_t here = zelPlatformIpcAddress();
    const pid_t owner = processOf(70, 0);
    const Sender sender;
    const auto report = [&](const Report &forged, std::size_t bytes) {
        sender.send(ZEL_IPC_QUEUE_REQUEST, forged.bytes, bytes);
    };
    report(Report(76, 0, here, getpid(), 76), 72);     // an endpoint nobody opened
    report(Report(70, 0, here, getpid(), 70), 72);     // another process's endpoint
    report(Report(70, 0, 0x0a000001, owner, 70), 72);  // another CPU's task
    report(Report(70, 0, here, owner, 71), 72);        // two services
    report(Report(70, 0, here, owner, 70), 71);        // cut
    report(Report(70, 0, here, -1, 70), 72);
    report(Report(12, 0, here, owner, 12), 72);
    EXPECT_TRUE(eventually(30, [] { return isListed("RIP"); }));
    EXPECT_FALSE(isListed("RTM"));
    manager.signal(SIGTERM);
    EXPECT_EQ(manager.wait(), 0);
    EXPECT_TRUE(manager.says("1 tasks entered, 7 messages refused"));
}

TEST(Zeltmed, RefusesACommandLineItCannotMakeSenseOf) {
    const std::vector<std::vector<std::string>> lines = {
        {"frobnicate"},
        {"list", "twice"},
        {"--spawn", "RTM"},
        {"--spawn", "NOSUCH /bin/true"},
        {"--spawn", "RTM:32 /bin/true"},
        {"--spawn", "12 /bin/true"},
        {"--spawn", "RTM $(id)"},
        {"--spawn", "RTM no-such-program-anywhere"},
        {"--remote", "RTM"},
        {"--remote", "RTM=10.1.2"},
        {"--until", "RTM"},
        {"--instance", "29"},
        {"--no-such-option"},
    };
    for (const auto &line : lines) {
        const Program::Result result = Program::run("zeltmed", line);
        EXPECT_EQ(result.status, 2) << line.back() << "\n" << result.output;
    }
    EXPECT_EQ(zelPlatformHasSegments(), 0);
    EXPECT_EQ(Program::run("zeltmed", {"--help"}).status, 0);
}
