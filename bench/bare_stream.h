// A stream of datagrams over bare sockets with a window and an acknowledgement every so many messages: what the streams
// of the library are compared with.
#pragma once

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <vector>

#include "tests/support/child.h"
#include "zel/ipc.h"

namespace zel::bench {

constexpr int ackBytes = 124;
constexpr int window = 8;
constexpr int ackInterval = window;
constexpr int senderService = 61;
constexpr int receiverService = 76;

inline sockaddr_in addressOf(int service) {
    sockaddr_in name{};
    name.sin_family = AF_INET;
    name.sin_port = htons(static_cast<uint16_t>(zel_getQueueId(service, 0, ZEL_IPC_QUEUE_REQUEST)));
    name.sin_addr.s_addr = htonl(zel_sysGetIpAddr());
    return name;
}

inline bool isBound(int service) {
    const int probe = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const sockaddr_in name = addressOf(service);
    const bool isTaken = bind(probe, reinterpret_cast<const sockaddr *>(&name), sizeof name) != 0;
    close(probe);
    return isTaken;
}

inline int bareSocket(int service) {
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const sockaddr_in name = addressOf(service);
    const int bytes = 129024;
    setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &bytes, sizeof bytes);
    const timeval limit{10, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    // The probe of isBound has the port for a moment.
    for (int tries = 0; tries < 1'000; ++tries) {
        if (bind(fd, reinterpret_cast<const sockaddr *>(&name), sizeof name) == 0) return fd;
        usleep(1'000);
    }
    return -1;
}

inline bool bareSend(int fd, const void *bytes, size_t length, int service) {
    const sockaddr_in to = addressOf(service);
    return sendto(fd, bytes, length, 0, reinterpret_cast<const sockaddr *>(&to), sizeof to) ==
           static_cast<ssize_t>(length);
}

ZEL_CHILD(benchBareReceiver) {
    const int fd = bareSocket(receiverService);
    if (fd < 0) return 1;
    static uint8_t message[8192], ack[ackBytes];
    for (unsigned count = 0;;) {
        if (recv(fd, message, sizeof message, 0) < 0) continue;
        if (++count % ackInterval == 0 && !bareSend(fd, ack, sizeof ack, senderService)) return 1;
    }
}

class BareStream {
public:
    explicit BareStream(size_t messageBytes)
        : child_(test::Child::start("benchBareReceiver")), fd_(bareSocket(senderService)), message_(messageBytes) {}
    ~BareStream() { close(fd_); }
    BareStream(const BareStream &) = delete;
    BareStream &operator=(const BareStream &) = delete;

    bool send() {
        while (inFlight_ == window)
            if (!collect()) return false;
        ++inFlight_;
        return bareSend(fd_, message_.data(), message_.size(), receiverService);
    }
    bool drain() {
        while (inFlight_ >= ackInterval)
            if (!collect()) return false;
        return true;
    }

private:
    bool collect() {
        uint8_t ack[256];
        if (recv(fd_, ack, sizeof ack, 0) < 0) return false;
        inFlight_ -= ackInterval;
        return true;
    }

    test::Child child_;
    int fd_;
    int inFlight_ = 0;
    std::vector<uint8_t> message_;
};

}  // namespace zel::bench
