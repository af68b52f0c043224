// What the IPC tests share: a plain socket that plays the other side, messages to send and expect, and tasks whose
// result is waited for.
#pragma once

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <vector>

#include "tests/support/eventually.h"
#include "zel/ipc.h"
#include "zel/kernel.h"
#include "zel/platform.h"

namespace zel::test {

using Bytes = std::vector<std::uint8_t>;

constexpr std::uint32_t rtm = 76 << 7;  // keys of the endpoints that the tests open
constexpr std::uint32_t bgp = 61 << 7;

inline sockaddr_in ownAddress(std::uint32_t port) {
    sockaddr_in result{};
    result.sin_family = AF_INET;
    result.sin_addr.s_addr = htonl(zelPlatformIpcAddress());
    result.sin_port = htons(static_cast<std::uint16_t>(port));
    return result;
}

// A socket on this CPU's address.
class Peer {
public:
    explicit Peer(std::uint32_t port) : fd_(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        const int room = 1 << 20;  // a test may be slower than who sends to it
        if (setsockopt(fd_, SOL_SOCKET, SO_RCVBUFFORCE, &room, sizeof room) != 0)
            setsockopt(fd_, SOL_SOCKET, SO_RCVBUF, &room, sizeof room);
        const sockaddr_in local = ownAddress(port);
        isBound_ = bind(fd_, reinterpret_cast<const sockaddr *>(&local), sizeof local) == 0;
    }
    ~Peer() { close(fd_); }
    Peer(const Peer &) = delete;
    Peer &operator=(const Peer &) = delete;

    bool isBound() const { return isBound_; }
    void send(const Bytes &bytes, std::uint32_t port) const {
        const sockaddr_in to = ownAddress(port);
        sendto(fd_, bytes.data(), bytes.size(), 0, reinterpret_cast<const sockaddr *>(&to), sizeof to);
    }
    // The next datagram; empty when none comes.
    Bytes receive(int milliseconds = 10'000) const {
        pollfd entry{fd_, POLLIN, 0};
        if (poll(&entry, 1, milliseconds) != 1) return {};
        Bytes bytes(65536);
        const ssize_t length = recv(fd_, bytes.data(), bytes.size(), 0);
        bytes.resize(length > 0 ? static_cast<std::size_t>(length) : 0);
        return bytes;
    }

private:
    int fd_;
    bool isBound_ = false;
};

struct Message {
    std::uint8_t command = 0;
    std::uint8_t flag = 0;
    std::uint16_t sequence = 0;
    std::uint32_t type = 0;
    std::uint32_t transaction = 0;
    std::uint32_t sourceQueue = 0;
    std::uint32_t targetQueue = 0;
    std::size_t length = 64;

    // With this CPU as source and target.
    Bytes bytes() const {
        Bytes result(length);
        zelIpcHdrSet32(result.data(), 0, ZEL_IPC_MAGIC);
        result[4] = command;
        result[5] = flag;
        result[6] = static_cast<std::uint8_t>(sequence >> 8);
        result[7] = static_cast<std::uint8_t>(sequence);
        zelIpcHdrSet32(result.data(), 12, type);
        zelIpcHdrSet32(result.data(), 32, transaction);
        zelIpcHdrSet32(result.data(), 40, zelPlatformIpcAddress());
        zelIpcHdrSet32(result.data(), 44, sourceQueue);
        zelIpcHdrSet32(result.data(), 52, zelPlatformIpcAddress());
        zelIpcHdrSet32(result.data(), 56, targetQueue);
        return result;
    }
};

inline zelIpcQueueStats statsOf(std::uint32_t key) {
    zelIpcQueueStats stats{};
    EXPECT_EQ(zelIpcGetQueueStats(key, &stats), 0);
    return stats;
}

inline int receive(std::uint32_t key, Bytes &buffer, int timeoutSec = 10, std::uint32_t type = 0,
                   std::uint32_t transaction = 0) {
    return zelIpcRecv(key, buffer.data(), static_cast<int>(buffer.size()), timeoutSec, type, transaction);
}

// Runs a body in a spawned task.
class Task {
public:
    explicit Task(std::function<int()> body) : body_(std::move(body)) {
        id_ = taskSpawn("tTest", 100, 0, 0, run, reinterpret_cast<intptr_t>(this), 0, 0, 0, 0, 0, 0, 0, 0, 0);
    }
    ~Task() {
        if (!isDone_) taskDeleteForce(id_);
    }
    Task(const Task &) = delete;
    Task &operator=(const Task &) = delete;

    zelTaskId id() const { return id_; }
    bool isDone() const { return isDone_; }
    bool hasStarted() const { return hasStarted_; }
    // The body's result; fails the test when it does not come.
    int result() {
        EXPECT_TRUE(eventually(30, [&] { return isDone_.load(); }));
        return result_;
    }

private:
    static int run(intptr_t self, intptr_t, intptr_t, intptr_t, intptr_t, intptr_t, intptr_t, intptr_t, intptr_t,
                   intptr_t) {
        auto &task = *reinterpret_cast<Task *>(self);
        task.hasStarted_ = true;
        task.result_ = task.body_();
        task.isDone_ = true;
        return 0;
    }

    std::function<int()> body_;
    zelTaskId id_ = -1;
    std::atomic<bool> hasStarted_{false};
    std::atomic<bool> isDone_{false};
    std::atomic<int> result_{0};
};

}  // namespace zel::test
