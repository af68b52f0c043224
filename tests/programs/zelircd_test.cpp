// The link between two route processors: two link services as processes, each on a CPU of its own; this process is a
// task of one of them, a child one of the other.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <cstdlib>
#include <cstring>
#include <deque>
#include <filesystem>
#include <memory>
#include <optional>
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

Bytes request(std::uint32_t type, std::uint32_t number, std::uint32_t how = 0, std::size_t length = 144) {
    Bytes bytes(length);
    Irc_setIrcHeader(bytes.data() + ZEL_IRC_HDR_OFFSET, bgp, type, 76, 0, static_cast<std::uint32_t>(length - 136));
    zelIpcHdrSet32(bytes.data(), 136, number);
    zelIpcHdrSet32(bytes.data(), 140, how);
    return bytes;
}

// The number that came back, one more than was sent; 0 for none.
std::uint32_t ask(std::uint32_t number, std::uint32_t how = 0, std::size_t length = 144) {
    Bytes bytes = request(ZEL_IRC_REQUEST, number, how, length), reply(9000);
    const int received = zelIrcPeerRpmSendWait(bgp, 61, 0, bytes.data(), static_cast<int>(length), 1, 0x77,
                                               reply.data(), 9000, 1, number, nullptr);
    if (received == -1) return 0;
    EXPECT_EQ(received, static_cast<int>(length));
    return zelIpcHdrGet32(reply.data(), 136);
}

bool isAnswered(std::uint32_t number) {
    return eventually(20, [&] { return irc_isLinkUp() && ask(number) == number + 1; });
}

// Service 76 adds one to the number it gets.
ZEL_CHILD(adder) {
    if (zelIpcOpen(76, 0) != static_cast<int>(rtm)) return 1;
    for (Bytes buffer(9000);;) {
        const int length = receive(rtm | 1, buffer, -1);
        if (length < 144) continue;
        zelIpcHdrSet32(buffer.data(), 136, zelIpcHdrGet32(buffer.data(), 136) + 1);
        if (zelIpcHdrGet32(buffer.data(), 140) == overTheLink) {
            Irc_setIrcHeader(buffer.data() + ZEL_IRC_HDR_OFFSET, zelIpcHdrGet32(buffer.data(), 44), ZEL_IRC_ANSWER, 61,
                             0, static_cast<std::uint32_t>(length - 136));
            zelIrcPeerRpmSend(76, 0, buffer.data(), length, 0, nullptr);
        } else {
            zelIpcReply(rtm, buffer.data(), length);
        }
    }
}

class Zelircd : public testing::Test {
protected:
    Zelircd() {
        zelTraceInit();
        EXPECT_EQ(zelIpcOpen(61, 0), static_cast<int>(bgp));
        useAddress(peer);
        adder.emplace(Child::start("adder"));
        for (std::uint32_t cpu : {own, peer}) start(cpu);
        EXPECT_TRUE(isAnswered(1));
    }
    ~Zelircd() override {
        for (auto *service : {&here, &there}) {
            (*service)->signal(SIGTERM);
            EXPECT_EQ((*service)->wait(), 0) << (*service)->output();
        }
        unlinkSegments(peer);
    }
    std::unique_ptr<Program> &serviceOf(std::uint32_t cpu) { return cpu == own ? here : there; }
    void start(std::uint32_t cpu) {
        useAddress(cpu);
        serviceOf(cpu) = std::make_unique<Program>(
            "zelircd", std::vector<std::string>{"--peer", dotted(cpu == own ? peer : own), "--name", "rp", "--interval",
                                                "60", "36", "0", "13", "0", "0", "0", "0", "0"});
    }
    static std::uint64_t counter(int which) {
        std::uint64_t counters[ZEL_IRC_COUNTERS] = {};
        EXPECT_EQ(zelIrcGetCounters(counters), 0);
        return counters[which];
    }

    const std::uint32_t own = zelPlatformIpcAddress(), peer = own ^ 0x00800000;
    std::optional<Child> adder;
    std::unique_ptr<Program> here, there;
};

TEST_F(Zelircd, carriesRequestsAndAnswersToTheQueueThatTheSenderChose) {
    EXPECT_EQ(zelGetPeerRpmIpAddr(), peer);
    EXPECT_EQ(ircGetHAComptWithPeerRpm(), 1);
    for (std::uint32_t how : {0u, overTheLink})
        for (std::size_t length : {144u, 1000u, 8192u}) EXPECT_EQ(ask(7, how, length), 8u) << how << " " << length;
    ASSERT_NE(zelIpcOpenTmrQueue(bgp), -1);
    for (std::uint32_t how : {0u, overTheLink})
        for (int queueType = 0; queueType < 3; ++queueType) {
            Bytes bytes = request(ZEL_IRC_REQUEST, 20, how), buffer(300);
            ASSERT_EQ(zelIrcPeerRpmSend(61, 0, bytes.data(), 144, queueType, nullptr), 0);
            EXPECT_EQ(receive(bgp | static_cast<unsigned>(queueType + 1), buffer), 144);
            EXPECT_EQ(zelIpcHdrGet32(buffer.data(), 136), 21u);
        }
    EXPECT_TRUE(eventually(5, [] { return counter(ZEL_IRC_COUNT_FORWARDED) >= 13; }));
    EXPECT_EQ(counter(ZEL_IRC_COUNT_MALFORMED) + counter(ZEL_IRC_COUNT_REFUSED), 0u);
    useAddress(own);
    EXPECT_NE(Program::run("zelircd", {"--status"}).output.find("link up, compatible"), std::string::npos);
}

// Killed, or stopped and let go again, on either side and on both, while a task keeps asking.
TEST_F(Zelircd, losesTheLinkInBoundedTimeAndFindsItAgain) {
    std::atomic<bool> isOver{false};
    std::atomic<std::uint32_t> answered{0};
    Task asking([&] {
        int slowest = 0;
        for (std::uint32_t number = 100; !isOver; ++number) {
            const std::uint64_t begin = tick64Get();
            const std::uint32_t answer = ask(number);
            slowest = std::max(slowest, static_cast<int>(tick64Get() - begin));
            if (answer == 0) taskDelay(1);
            answered += answer == number + 1;
            EXPECT_TRUE(answer == 0 || answer == number + 1);
        }
        return slowest;
    });
    auto random = seeded();
    for (int round = isFullRun() ? 100 : 8; round > 0; --round) {
        const std::uint32_t victims = round % 4 == 0 ? 3 : 1 + random() % 2;
        const int how = round % 2 ? SIGKILL : SIGSTOP;
        for (std::uint32_t cpu : {own, peer})
            if (victims & (cpu == own ? 1u : 2u)) serviceOf(cpu)->signal(how);
        EXPECT_TRUE(eventually(5, [] { return !irc_isLinkUp(); })) << victims << " " << how;
        for (std::uint32_t cpu : {own, peer}) {
            if ((victims & (cpu == own ? 1u : 2u)) == 0) continue;
            if (how == SIGSTOP) {
                serviceOf(cpu)->signal(SIGCONT);
            } else {
                EXPECT_EQ(serviceOf(cpu)->wait(), 256 + SIGKILL);
                start(cpu);
            }
        }
        const std::uint32_t before = answered;
        EXPECT_TRUE(eventually(20, [&] { return irc_isLinkUp() && answered > before; })) << victims << " " << how;
    }
    isOver = true;
    EXPECT_LT(asking.result(), 150) << "ticks: no request waits past its second";
}

TEST_F(Zelircd, refusesAndCountsWhatItCannotCarry) {
    const Stranger stranger;
    const auto after = [&](int which, int queueType, Bytes bytes) {
        const std::uint64_t before = counter(which);
        stranger.send(36, queueType, bytes);
        return eventually(5, [&] { return counter(which) > before; }) && counter(which) == before + 1;
    };
    for (int queueType : {1, 3}) {
        Bytes good = request(ZEL_IRC_DATA, 1);
        Stranger::address(good, 0, bgp | 2);
        zelIpcHdrSet32(good.data(), 40, queueType == 1 ? peer : own);
        Bytes longer = good, foreign = good, forItself = good, control(136);
        longer.push_back(0);
        zelIpcHdrSet32(foreign.data(), 40, own + 5);
        zelIpcHdrSet32(forItself.data(), 76, 36 << 16);
        Irc_setIrcHeader(control.data() + 60, bgp, ZEL_IRC_DOWN, 36, 0, 0);
        Stranger::address(control, 0, bgp | 2);
        zelIpcHdrSet32(control.data(), 40, queueType == 1 ? peer : own);
        EXPECT_TRUE(after(ZEL_IRC_COUNT_MALFORMED, queueType, longer));
        for (const Bytes &bytes : {foreign, forItself, control})
            EXPECT_TRUE(after(ZEL_IRC_COUNT_REFUSED, queueType, bytes)) << queueType;
    }
    EXPECT_TRUE(isAnswered(9));
    there->signal(SIGKILL);
    EXPECT_TRUE(eventually(5, [] { return !irc_isLinkUp(); }));
    Bytes late = request(ZEL_IRC_DATA, 1);
    Stranger::address(late, 0, bgp | 2);
    EXPECT_TRUE(after(ZEL_IRC_COUNT_LINK_DOWN, 3, late));
    there->wait();
    start(peer);
    useAddress(own);
    EXPECT_EQ(Program::run("zelircd", {"--peer", dotted(own), "1", "0", "0", "0", "0", "0", "0", "0"}).status, 2);
}

// Exit code 0 when the link comes to be as asked, and carries when it is up.
ZEL_CHILD(observer) {
    if (argv[0] == std::string("down")) return eventually(10, [] { return !irc_isLinkUp(); }) ? 0 : 1;
    return zelIpcOpen(61, 0) == static_cast<int>(bgp) && isAnswered(5) ? 0 : 1;
}

// Two hosts, as far as the network goes.
class TwoHosts : public testing::Test {
protected:
    TwoHosts() {
        isMade = run("netns add " + a) && run("netns add " + b) &&
                 run("-n " + a + " link add veth0 type veth peer name veth0 netns " + b) &&
                 run("-n " + a + " addr add 10.77.0.1/24 dev veth0") &&
                 run("-n " + b + " addr add 10.77.0.2/24 dev veth0") && run("-n " + b + " link set veth0 up") &&
                 run("-n " + a + " link set lo up") && run("-n " + b + " link set lo up") &&
                 run("-n " + a + " link set veth0 up");
    }
    ~TwoHosts() override {
        for (const auto &name : {a, b}) run("netns del " + name);
        for (std::uint32_t address : {0x0a4d0001u, 0x0a4d0002u}) unlinkSegments(address);
    }
    static bool run(const std::string &command) { return system(("ip " + command + " >/dev/null 2>&1").c_str()) == 0; }
    Child start(bool isA, std::vector<std::string> words) const {
        useAddress(isA ? 0x0a4d0001 : 0x0a4d0002);
        words.insert(words.begin(), {"/dev/null", "/usr/bin/env", "ip", "netns", "exec", isA ? a : b});
        return Child::start("program", words);
    }
    Child service(bool isA) const {
        return start(isA, {ZEL_PROGRAM_DIR "/zelircd", "--peer", isA ? "10.77.0.2" : "10.77.0.1", "--interval", "60",
                           "36", "0", "13", "0", "0", "0", "0", "0"});
    }
    Child own(bool isA, const std::vector<std::string> &words) const {
        std::vector<std::string> all{"/proc/self/exe", "--child"};
        all[0] = std::filesystem::read_symlink("/proc/self/exe");
        all.insert(all.end(), words.begin(), words.end());
        return start(isA, all);
    }

    const std::string a = "zela" + std::to_string(getpid()), b = "zelb" + std::to_string(getpid());
    bool isMade = false;
};

TEST_F(TwoHosts, loseAndFindTheLinkWithTheNetwork) {
    if (!isMade) GTEST_SKIP() << "no network namespaces here";
    const Child first = service(true), second = service(false), adder = own(false, {"adder"});
    EXPECT_EQ(own(true, {"observer", "up"}).wait(), 0);
    run("-n " + b + " link set veth0 down");
    for (bool isA : {true, false}) EXPECT_EQ(own(isA, {"observer", "down"}).wait(), 0);
    run("-n " + b + " link set veth0 up");
    EXPECT_EQ(own(true, {"observer", "up"}).wait(), 0);
}

// Two state machines over a network that loses, delays and reorders, with restarts: whatever happened, a few intervals
// without loss bring both up, and silence brings each down.
class TwoLinks {
public:
    explicit TwoLinks(Random &random) : random_(random) {
        for (int side : {0, 1}) restart(side);
    }
    void makeTrouble() {
        for (auto steps = random_() % 20; steps > 0; --steps) {
            const int side = static_cast<int>(random_() % 2);
            const std::size_t waiting = arriving[side].size();
            if (random_() % 16 == 0) restart(side);
            if (random_() % 2 || waiting == 0)
                send(side, link[side]->tick(now += random_() % 200));
            else
                deliver(side, random_() % waiting, random_() % 3 == 0);
        }
    }
    void passInterval(bool isLost) {
        now += 100;
        for (int side : {0, 1}) send(side, link[side]->tick(now));
        for (int left = 100; left > 0; --left)
            if (!arriving[left % 2].empty()) deliver(left % 2, 0, isLost);
    }

    std::unique_ptr<Link> link[2];
    std::deque<zelIrcMessage> arriving[2];

private:
    void restart(int side) {
        link[side] = std::make_unique<Link>(300, 1);
        epoch[side] = ++lastEpoch;
    }
    void send(int from, const Link::Messages &messages) {
        for (int i = 0; i < messages.count; ++i) {
            const std::uint32_t type = messages.types[i];
            arriving[1 - from].push_back({type, 36, 0, 0, type == ZEL_IRC_HELLO ? epoch[from] : 1, "side"});
        }
    }
    void deliver(int side, std::size_t at, bool isLost) {
        const zelIrcMessage message = arriving[side][at];
        arriving[side].erase(arriving[side].begin() + static_cast<long>(at));
        if (!isLost) send(side, link[side]->take(message, now));
    }

    Random &random_;
    std::uint32_t epoch[2], lastEpoch = 0;
    std::uint64_t now = 0;
};

TEST(Link, comesUpFromAnyStateAndGoesDownInSilence) {
    auto random = seeded();
    TwoLinks links(random);
    for (int round = isFullRun() ? 100'000 : 3000; round > 0; --round) {
        links.makeTrouble();
        for (int i = 0; i < 6; ++i) links.passInterval(false);
        ASSERT_TRUE(links.arriving[0].empty() && links.arriving[1].empty()) << "no talk without end";
        ASSERT_TRUE(links.link[0]->isUp() && links.link[1]->isUp() && links.link[0]->isCompatible());
        if (round % 4) continue;
        for (int i = 0; i < 3; ++i) links.passInterval(true);
        ASSERT_FALSE(links.link[0]->isUp() || links.link[1]->isUp());
    }
}

}  // namespace
