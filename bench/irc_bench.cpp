// A request to a task of the peer route processor, by way of the link service, against one to a task of this CPU: one
// stop more, since the answer comes back directly.
#include <arpa/inet.h>
#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cstdlib>
#include <optional>
#include <string>
#include <vector>

#include "bench/support/row.h"
#include "tests/support/child.h"
#include "tests/support/eventually.h"
#include "zel/irc.h"
#include "zel/platform.h"

using zel::test::Child;
using zel::test::eventually;

namespace {

constexpr int clientService = 61;
constexpr int serverService = 76;
constexpr int bytes = 200;
constexpr int patience = 25;
constexpr std::uint32_t type = 2;
constexpr std::uint32_t transaction = 1;

std::string dotted(std::uint32_t address) {
    return inet_ntoa({htonl(address)});
}

// Answers what comes, after a word to the client at the address in its argument.
ZEL_CHILD(echo) {
    const int opened = zelIpcOpen(serverService, 0);
    if (opened == -1) return 1;
    const auto key = static_cast<std::uint32_t>(opened);
    std::vector<std::uint8_t> buffer(ZEL_IRC_MAX_MESSAGE);
    zelIpcSetTargetHeader(buffer.data(), ntohl(inet_addr(argv[0])), 0, clientService, 0);
    zelIpcNonGuaranteedSend(key, buffer.data(), ZEL_IPC_HDR_LEN);
    for (;;) {
        const int length = zelIpcRecv(key, buffer.data(), ZEL_IRC_MAX_MESSAGE, -1, 0, 0);
        if (length > 0) zelIpcReply(key, buffer.data(), length);
    }
}

bool hearsEcho(std::uint32_t key) {
    std::uint8_t header[ZEL_IPC_HDR_LEN];
    return zelIpcRecv(key, header, sizeof header, patience, 0, 0) > 0;
}

// The link service, whose reports are not the benchmark's.
ZEL_CHILD(link) {
    const int sink = open("/dev/null", O_WRONLY);
    if (sink < 0 || dup2(sink, STDOUT_FILENO) < 0) return 126;
    execl(ZEL_PROGRAM_DIR "/zelircd", "zelircd", "--peer", argv[0], "36", "0", "13", "0", "0", "0", "0", "0", nullptr);
    return 127;
}

// The peer route processor, as long as this lives.
class Peer {
public:
    Peer() : own_(zelPlatformIpcAddress()) {
        const std::uint32_t peer = own_ ^ 0x00800000;
        setenv("ZEL_IPC_ADDR", dotted(peer).c_str(), 1);
        echo_.emplace(Child::start("echo", {dotted(own_)}));
        there_.emplace(Child::start("link", {dotted(own_)}));
        setenv("ZEL_IPC_ADDR", dotted(own_).c_str(), 1);
        here_.emplace(Child::start("link", {dotted(peer)}));
    }
    // Ends in order, so that the next one does not find a link that seems up.
    ~Peer() {
        here_->signal(SIGTERM);
        here_->wait();
    }
    Peer(const Peer &) = delete;
    Peer &operator=(const Peer &) = delete;

private:
    const std::uint32_t own_;
    std::optional<Child> echo_, there_, here_;
};

void overTheLink(benchmark::State &state) {
    const int opened = zelIpcOpen(clientService, 0);
    const Peer peer;
    const auto key = static_cast<std::uint32_t>(opened);
    std::vector<std::uint8_t> message(bytes), reply(bytes);
    Irc_setIrcHeader(message.data() + ZEL_IRC_HDR_OFFSET, key, ZEL_IRC_REQUEST, serverService, 0,
                     bytes - ZEL_IRC_MIN_MESSAGE);
    if (opened == -1 || !hearsEcho(key) || !eventually(patience, irc_isLinkUp)) return state.SkipWithError("no peer");
    for (auto _ : state)
        if (zelIrcPeerRpmSendWait(key, clientService, 0, message.data(), bytes, 1, type, reply.data(), bytes, patience,
                                  transaction, nullptr) != bytes)
            return state.SkipWithError("no answer");
}

void onThisCpu(benchmark::State &state) {
    const int opened = zelIpcOpen(clientService, 0);
    const auto key = static_cast<std::uint32_t>(opened);
    const Child server = Child::start("echo", {dotted(zelPlatformIpcAddress())});
    if (opened == -1 || !hearsEcho(key)) return state.SkipWithError("no server");
    std::vector<std::uint8_t> message(bytes);
    for (auto _ : state) {
        zelIpcSetTargetHeader(message.data(), zelPlatformIpcAddress(), 0, serverService, 0);
        zelIpcHdrSet32(message.data(), 32, transaction);
        if (zelIpcSendWait(key, message.data(), bytes, bytes, patience, type) != bytes)
            return state.SkipWithError("no answer");
    }
}

ZEL_ROW("request to the peer route processor and back", "us", time)
    .ours(overTheLink)
    .peer("a local send-and-wait", onThisCpu, 2.5);

}  // namespace
