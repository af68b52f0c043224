// Send-and-wait between two processes against the cheapest exchange the host has, a blocking sendto and recvfrom on
// either side, and against requests and replies of ZeroMQ over tcp.
#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <vector>
#include <zmq.hpp>

#include "bench/support/row.h"
#include "tests/support/child.h"
#include "tests/support/eventually.h"
#include "zel/ipc.h"
#include "zel/platform.h"

using zel::test::Child;
using zel::test::eventually;

namespace {

constexpr int clientService = 61;
constexpr int serverService = 76;
constexpr std::size_t largest = 8192;
constexpr int patience = 25;

// ---- Ours ----

ZEL_CHILD(zelServer) {
    const int key = zelIpcOpen(serverService, 0);
    if (key == -1) return 1;
    std::vector<std::uint8_t> buffer(largest);
    for (;;) {
        const int length = zelIpcRecv(static_cast<std::uint32_t>(key), buffer.data(), largest, -1, 0, 0);
        if (length > 0) zelIpcReply(static_cast<std::uint32_t>(key), buffer.data(), length);
    }
}

void sendWait(benchmark::State &state, int bytes) {
    const int opened = zelIpcOpen(clientService, 0);
    const Child server = Child::start("zelServer");
    const bool isUp = eventually(20, [] { return zelTaskIsDuplicate(serverService, 0, nullptr) == 1; });
    if (opened == -1 || !isUp) return state.SkipWithError("no server");
    const auto key = static_cast<std::uint32_t>(opened);
    std::vector<std::uint8_t> buffer(largest);
    for (auto _ : state) {
        zelIpcSetTargetHeader(buffer.data(), zelPlatformIpcAddress(), 0, serverService, 0);
        zelIpcHdrSet32(buffer.data(), 32, 1);
        if (zelIpcSendWait(key, buffer.data(), bytes, largest, patience, 2) != bytes)
            return state.SkipWithError("no answer");
    }
}

// ---- The bare exchange ----

class Socket {
public:
    Socket() : fd_(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in local = address(0);
        socklen_t size = sizeof local;
        isOpen_ = bind(fd_, reinterpret_cast<const sockaddr *>(&local), size) == 0 &&
                  getsockname(fd_, reinterpret_cast<sockaddr *>(&local), &size) == 0;
        port_ = ntohs(local.sin_port);
    }
    ~Socket() { close(fd_); }
    Socket(const Socket &) = delete;
    Socket &operator=(const Socket &) = delete;

    static sockaddr_in address(int port) {
        sockaddr_in result{};
        result.sin_family = AF_INET;
        result.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        result.sin_port = htons(static_cast<std::uint16_t>(port));
        return result;
    }
    bool isOpen() const { return isOpen_; }
    int port() const { return port_; }
    bool send(const void *bytes, std::size_t length, const sockaddr_in &to) const {
        return sendto(fd_, bytes, length, 0, reinterpret_cast<const sockaddr *>(&to), sizeof to) ==
               static_cast<ssize_t>(length);
    }
    ssize_t receive(void *bytes, std::size_t size, sockaddr_in &from) const {
        socklen_t length = sizeof from;
        return recvfrom(fd_, bytes, size, 0, reinterpret_cast<sockaddr *>(&from), &length);
    }

private:
    int fd_;
    int port_ = 0;
    bool isOpen_ = false;
};

// Says hello to the port in its argument, then sends back what it gets.
ZEL_CHILD(bareServer) {
    const Socket own;
    sockaddr_in client = Socket::address(atoi(argv[0]));
    std::vector<std::uint8_t> buffer(largest);
    own.send(buffer.data(), 1, client);
    for (;;) {
        const ssize_t length = own.receive(buffer.data(), buffer.size(), client);
        if (length < 0 || !own.send(buffer.data(), static_cast<std::size_t>(length), client)) return 1;
    }
}

void bareExchange(benchmark::State &state, int bytes) {
    const Socket own;
    if (!own.isOpen()) return state.SkipWithError("no socket");
    const Child server = Child::start("bareServer", {std::to_string(own.port())});
    std::vector<std::uint8_t> buffer(largest);
    sockaddr_in peer{}, from{};
    own.receive(buffer.data(), buffer.size(), peer);
    const auto length = static_cast<std::size_t>(bytes);
    for (auto _ : state)
        if (!own.send(buffer.data(), length, peer) || own.receive(buffer.data(), buffer.size(), from) != bytes)
            return state.SkipWithError("no answer");
}

// ---- ZeroMQ ----

ZEL_CHILD(zmqServer) {
    zmq::context_t context;
    zmq::socket_t socket(context, zmq::socket_type::rep);
    socket.connect(argv[0]);
    for (;;) {
        zmq::message_t message;
        if (!socket.recv(message)) return 1;
        socket.send(message, zmq::send_flags::none);
    }
}

void zmqExchange(benchmark::State &state, int bytes) {
    zmq::context_t context;
    zmq::socket_t socket(context, zmq::socket_type::req);
    socket.bind("tcp://127.0.0.1:*");
    const Child server = Child::start("zmqServer", {socket.get(zmq::sockopt::last_endpoint)});
    std::vector<std::uint8_t> buffer(largest);
    const auto length = static_cast<std::size_t>(bytes);
    for (auto _ : state) {
        socket.send(zmq::buffer(buffer.data(), length), zmq::send_flags::none);
        const auto answer = socket.recv(zmq::buffer(buffer));
        if (!answer || answer->size != length) return state.SkipWithError("no answer");
    }
}

template <auto exchange, int bytes>
void of(benchmark::State &state) {
    exchange(state, bytes);
}

ZEL_ROW("zelIpcSendWait round trip, 64 B", "us", time)
    .ours(of<sendWait, 64>)
    .peer("blocking sendto/recvfrom ping-pong", of<bareExchange, 64>, 1.15, 1.05)
    .peer("ZeroMQ req/rep over tcp", of<zmqExchange, 64>, 0.4);

ZEL_ROW("zelIpcSendWait round trip, 8 KiB", "us", time)
    .ours(of<sendWait, 8192>)
    .peer("blocking sendto/recvfrom ping-pong", of<bareExchange, 8192>, 1.15, 1.05)
    .peer("ZeroMQ req/rep over tcp", of<zmqExchange, 8192>, 0.4);

}  // namespace
