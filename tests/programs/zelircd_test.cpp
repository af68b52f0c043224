// The link between two route processors: two link services as processes, each on a CPU of its own; this process is a
// task of one of them, a child one of the other.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <cstdlib>
#include <deque>
#include <filesystem>
#include <memory>
#include <string>

#include "programs/zelircd/link.h"
#include "tests/ipc/peer.h"
#include "tests/programs/program.h"
#include "tests/programs/stranger.h"
#include "tests/support/random.h"
#include "zel/irc.h"

using namespace zel::test;
using zelircd::Link;

namespace {

using Words = std::vector<std::string>;

constexpr std::uint32_t overTheLink = 1;  // second word of the payload: how to answer

std::string dotted(std::uint32_t address) {
    return inet_ntoa({htonl(address)});
}
void useAddress(std::uint32_t address) {
    setenv("ZEL_IPC_ADDR", dotted(address).c_str(), 1);
}
void unlinkSegments(std::uint32_t address) {
    shm_unlink(("/" + std::string(getenv("ZEL_SHM_PREFIX")) + "-" + dotted(address) + "-sys").c_str());
}
Words linkService(std::uint32_t peer) {
    return {"--peer", dotted(peer), "--interval", "60", "36", "0", "13", "0", "0", "0", "0", "0"};
}

Bytes request(std::uint32_t number, std::uint32_t how = 0, std::size_t length = 144) {
    Bytes bytes(length);
    Stranger::address(bytes, 0, bgp | 2);
    Irc_setIrcHeader(bytes.data() + 60, bgp, ZEL_IRC_REQUEST, 76, 0, static_cast<std::uint32_t>(length - 136));
    zelIpcHdrSet32(bytes.data(), 136, number);
    zelIpcHdrSet32(bytes.data(), 140, how);
    return bytes;
}

// Whether one more than the number comes back.
bool isAdded(std::uint32_t number, std::uint32_t how = 0, std::size_t length = 144) {
    Bytes bytes = request(number, how, length), reply(9000);
    const int size = static_cast<int>(length);
    return zelIrcPeerRpmSendWait(bgp, 61, 0, bytes.data(), size, 1, 7, reply.data(), 9000, 1, number, nullptr) ==
               size &&
           zelIpcHdrGet32(reply.data(), 136) == number + 1;
}
bool linkCarries() {
    return eventually(20, [] { return irc_isLinkUp() && isAdded(1); });
}
bool linkGoesDown() {
    return eventually(5, [] { return !irc_isLinkUp(); });
}

ZEL_CHILD(adder) {
    if (zelIpcOpen(76, 0) != static_cast<int>(rtm)) return 1;
    for (Bytes buffer(9000);;) {
        const int length = receive(rtm | 1, buffer, -1);
        zelIpcHdrSet32(buffer.data(), 136, zelIpcHdrGet32(buffer.data(), 136) + 1);
        if (zelIpcHdrGet32(buffer.data(), 140) != overTheLink) {
            zelIpcReply(rtm, buffer.data(), length);
            continue;
        }
        Irc_setIrcHeader(buffer.data() + 60, zelIpcHdrGet32(buffer.data(), 44), ZEL_IRC_ANSWER, 61, 0,
                         static_cast<std::uint32_t>(length - 136));
        zelIrcPeerRpmSend(76, 0, buffer.data(), length, 0, nullptr);
    }
}

class Zelircd : public testing::Test {
protected:
    Zelircd() {
        zelTraceInit();
        EXPECT_EQ(zelIpcOpen(61, 0), static_cast<int>(bgp));
        for (unsigned i : {0u, 1u}) start(i);
        adder = std::make_unique<Child>(Child::start("adder"));
        EXPECT_TRUE(linkCarries());
    }
    ~Zelircd() override {
        for (auto &service : services) {
            service->signal(SIGTERM);
            EXPECT_EQ(service->wait(), 0) << service->output();
        }
        unlinkSegments(cpus[1]);
    }
    void start(unsigned i) {
        useAddress(cpus[i]);
        services[i] = std::make_unique<Program>("zelircd", linkService(cpus[1 - i]));
    }
    static std::uint64_t counter(int which) {
        std::uint64_t counters[ZEL_IRC_COUNTERS] = {};
        EXPECT_EQ(zelIrcGetCounters(counters), 0);
        return counters[which];
    }

    const std::uint32_t cpus[2] = {zelPlatformIpcAddress(), zelPlatformIpcAddress() ^ 0x00800000};
    std::unique_ptr<Program> services[2];
    std::unique_ptr<Child> adder;
};

TEST_F(Zelircd, carriesRequestsAndAnswersToTheQueueThatTheSenderChose) {
    EXPECT_TRUE(zelGetPeerRpmIpAddr() == cpus[1] && ircGetHAComptWithPeerRpm() == 1);
    ASSERT_NE(zelIpcOpenTmrQueue(bgp), -1);
    for (std::uint32_t how : {0u, overTheLink}) {
        for (std::size_t length : {144u, 8192u}) EXPECT_TRUE(isAdded(7, how, length)) << how << " " << length;
        for (int queueType = 0; queueType < 3; ++queueType) {
            Bytes bytes = request(20, how), buffer(300);
            ASSERT_EQ(zelIrcPeerRpmSend(61, 0, bytes.data(), 144, queueType, nullptr), 0);
            EXPECT_EQ(receive(bgp | static_cast<unsigned>(queueType + 1), buffer), 144);
            EXPECT_EQ(zelIpcHdrGet32(buffer.data(), 136), 21u);
        }
    }
    EXPECT_TRUE(eventually(5, [] { return counter(ZEL_IRC_COUNT_FORWARDED) >= 11; }));
    EXPECT_EQ(counter(ZEL_IRC_COUNT_MALFORMED) + counter(ZEL_IRC_COUNT_REFUSED), 0u);
    useAddress(cpus[0]);
    EXPECT_NE(Program::run("zelircd", {"--status"}).output.find("link up, compatible"), std::string::npos);
    EXPECT_EQ(Program::run("zelircd", linkService(cpus[0])).status, 2) << "its own peer";
}

// Killed, or stopped and let go again, on either side and on both, while a task keeps asking.
TEST_F(Zelircd, losesTheLinkInBoundedTimeAndFindsItAgain) {
    std::atomic<bool> isOver{false};
    std::atomic<int> answered{0};
    Task asking([&] {
        std::uint64_t slowest = 0;
        for (std::uint32_t number = 100; !isOver; ++number) {
            const std::uint64_t begin = tick64Get();
            const bool isGood = isAdded(number);
            slowest = std::max(slowest, tick64Get() - begin);
            answered += isGood;
            if (!isGood) taskDelay(1);
        }
        return static_cast<int>(slowest);
    });
    for (unsigned round = isFullRun() ? 120 : 6; round > 0; --round) {
        const unsigned victims = 1 + round % 3;
        const bool isKilled = round % 2 == 0;
        for (unsigned i : {0u, 1u})
            if (victims >> i & 1) services[i]->signal(isKilled ? SIGKILL : SIGSTOP);
        EXPECT_TRUE(linkGoesDown()) << victims << " " << isKilled;
        for (unsigned i : {0u, 1u}) {
            if ((victims >> i & 1) == 0) continue;
            services[i]->signal(SIGCONT);
            if (isKilled) start(i);
        }
        const int before = answered;
        EXPECT_TRUE(eventually(20, [&] { return answered > before; })) << victims << " " << isKilled;
    }
    isOver = true;
    EXPECT_LT(asking.result(), 150) << "ticks: no request waits past its second";
}

TEST_F(Zelircd, refusesAndCountsWhatItCannotCarry) {
    const Stranger stranger;
    const auto counts = [&](int which, int queueType, const Bytes &bytes) {
        const std::uint64_t before = counter(which);
        stranger.send(36, queueType, bytes);
        return eventually(5, [&] { return counter(which) > before; });
    };
    for (int queueType : {1, 3}) {
        Bytes good = request(1), control(136);
        zelIpcHdrSet32(good.data(), 40, cpus[queueType == 1]);
        Bytes longer = good, foreign = good, forItself = good;
        longer.push_back(0);
        zelIpcHdrSet32(foreign.data(), 40, cpus[0] + 5);
        zelIpcHdrSet32(forItself.data(), 76, 36 << 16);
        Stranger::address(control, 0, bgp | 2);
        zelIpcHdrSet32(control.data(), 40, cpus[queueType == 1]);
        Irc_setIrcHeader(control.data() + 60, bgp, ZEL_IRC_DOWN, 36, 0, 0);
        EXPECT_TRUE(counts(ZEL_IRC_COUNT_MALFORMED, queueType, longer));
        for (const Bytes &bytes : {foreign, forItself, control})
            EXPECT_TRUE(counts(ZEL_IRC_COUNT_REFUSED, queueType, bytes)) << queueType;
    }
    EXPECT_TRUE(irc_isLinkUp() && isAdded(9));
    services[1]->signal(SIGKILL);
    EXPECT_TRUE(linkGoesDown());
    EXPECT_TRUE(counts(ZEL_IRC_COUNT_LINK_DOWN, 3, request(1)));
    start(1);
    EXPECT_TRUE(linkCarries());
}

ZEL_CHILD(observer) {
    if (argv[0] == std::string("down")) return linkGoesDown() ? 0 : 1;
    return zelIpcOpen(61, 0) == static_cast<int>(bgp) && linkCarries() ? 0 : 1;
}

// Two hosts, as far as the network goes.
TEST(Zelircds, ofTwoHostsLoseAndFindTheLinkWithTheNetwork) {
    constexpr std::uint32_t cpus[2] = {0x0a4d0001, 0x0a4d0002};
    const std::string self = std::filesystem::read_symlink("/proc/self/exe"), id = std::to_string(getpid());
    const std::string hosts[2] = {"zela" + id, "zelb" + id};
    const auto ip = [](const std::string &what) { return system(("ip " + what + " >/dev/null 2>&1").c_str()) == 0; };
    const auto start = [&](unsigned i, Words words, const Words &more = {}) {
        useAddress(cpus[i]);
        words.insert(words.begin(), {"/dev/null", "/usr/bin/env", "ip", "netns", "exec", hosts[i]});
        words.insert(words.end(), more.begin(), more.end());
        return Child::start("program", words);
    };
    bool isMade = ip("netns add " + hosts[0]) && ip("netns add " + hosts[1]) &&
                  ip("-n " + hosts[0] + " link add veth0 type veth peer name veth0 netns " + hosts[1]);
    for (unsigned i : {0u, 1u})
        isMade = isMade && ip("-n " + hosts[i] + " addr add " + dotted(cpus[i]) + "/24 dev veth0") &&
                 ip("-n " + hosts[i] + " link set lo up") && ip("-n " + hosts[i] + " link set veth0 up");
    if (isMade) {
        const Child first = start(0, {ZEL_PROGRAM_DIR "/zelircd"}, linkService(cpus[1]));
        const Child second = start(1, {ZEL_PROGRAM_DIR "/zelircd"}, linkService(cpus[0]));
        const Child adder = start(1, {self, "--child", "adder"});
        EXPECT_EQ(start(0, {self, "--child", "observer", "up"}).wait(), 0);
        ip("-n " + hosts[1] + " link set veth0 down");
        for (unsigned i : {0u, 1u}) EXPECT_EQ(start(i, {self, "--child", "observer", "down"}).wait(), 0);
        ip("-n " + hosts[1] + " link set veth0 up");
        EXPECT_EQ(start(0, {self, "--child", "observer", "up"}).wait(), 0);
    }
    for (unsigned i : {0u, 1u}) {
        ip("netns del " + hosts[i]);
        unlinkSegments(cpus[i]);
    }
    if (!isMade) GTEST_SKIP() << "no network namespaces here";
}

// Two state machines over a network that loses, delays and reorders, with restarts: whatever happened, a few intervals
// without loss bring both up, and silence brings each down.
TEST(Link, comesUpFromAnyStateAndGoesDownInSilence) {
    constexpr std::uint64_t interval = 100;
    struct Side {
        std::unique_ptr<Link> link;
        std::uint32_t epoch = 0;
        std::deque<zelIrcMessage> arriving;
    } sides[2];
    auto random = seeded();
    std::uint32_t lastEpoch = 0;
    std::uint64_t now = 0;
    const auto restart = [&](Side &side) {
        side.link = std::make_unique<Link>(3 * interval, 1);
        side.epoch = ++lastEpoch;
    };
    const auto send = [&](Side &side, const Link::Messages &messages) {
        for (int i = 0; i < messages.count; ++i)
            sides[&side == sides].arriving.push_back(
                {messages.types[i], 36, 0, 0, messages.types[i] == ZEL_IRC_HELLO ? side.epoch : 1, "side"});
    };
    const auto deliver = [&](Side &side, std::size_t at, bool isLost) {
        const zelIrcMessage message = side.arriving[at];
        side.arriving.erase(side.arriving.begin() + static_cast<long>(at));
        if (!isLost) send(side, side.link->take(message, now));
    };
    const auto passInterval = [&](bool isLost) {
        now += interval;
        for (Side &side : sides) send(side, side.link->tick(now));
        for (int left = 100; left > 0; --left)
            if (Side &side = sides[left % 2]; !side.arriving.empty()) deliver(side, 0, isLost);
    };
    for (Side &side : sides) restart(side);
    for (int round = isFullRun() ? 300'000 : 30'000; round > 0; --round) {
        for (auto steps = random() % 20; steps > 0; --steps) {
            Side &side = sides[random() % 2];
            if (random() % 16 == 0) restart(side);
            if (random() % 2 || side.arriving.empty())
                send(side, side.link->tick(now += random() % (2 * interval)));
            else
                deliver(side, random() % side.arriving.size(), random() % 3 == 0);
        }
        for (int i = 0; i < 6; ++i) passInterval(false);
        ASSERT_TRUE(sides[0].arriving.empty() && sides[1].arriving.empty()) << "no talk without end";
        ASSERT_TRUE(sides[0].link->isUp() && sides[1].link->isUp() && sides[0].link->isCompatible());
        for (int i = 0; i < 3 && round % 4 == 0; ++i) passInterval(true);
        ASSERT_EQ(sides[0].link->isUp() || sides[1].link->isUp(), round % 4 != 0);
    }
}

}  // namespace
