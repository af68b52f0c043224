// Sends what it likes to any queue of this CPU, from a socket of no endpoint.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <vector>

#include "tests/support/random.h"
#include "zel/ipc.h"

namespace zel::test {

class Stranger {
public:
    using Bytes = std::vector<std::uint8_t>;

    Stranger() : socket_(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {}
    ~Stranger() { close(socket_); }
    Stranger(const Stranger &) = delete;
    Stranger &operator=(const Stranger &) = delete;

    void send(int service, int queueType, const Bytes &message) const {
        sockaddr_in to{};
        to.sin_family = AF_INET;
        to.sin_addr.s_addr = htonl(zel_sysGetIpAddr());
        to.sin_port = htons(static_cast<std::uint16_t>(zel_getQueueId(service, 0, queueType)));
        sendto(socket_, message.data(), message.size(), 0, reinterpret_cast<sockaddr *>(&to), sizeof to);
    }
    // Mostly zeros, a third of them too short for a header; seven of eight of the others have one that names `source`.
    static Bytes anything(Random &random, std::uint32_t type, std::uint32_t source) {
        Bytes message(random() % 3 == 0 ? random() % 61 : random() % 2600);
        for (auto &byte : message) byte = static_cast<std::uint8_t>(random() % 4 == 0 ? random() : 0);
        if (message.size() >= ZEL_IPC_HDR_LEN && random() % 8 != 0) address(message, type, source);
        return message;
    }
    static void address(Bytes &message, std::uint32_t type, std::uint32_t source) {
        zelIpcHdrSet32(message.data(), 0, ZEL_IPC_MAGIC);
        zelIpcHdrSet32(message.data(), 12, type);
        zelIpcHdrSet32(message.data(), 40, zel_sysGetIpAddr());
        zelIpcHdrSet32(message.data(), 44, source);
    }

private:
    int socket_;
};

}  // namespace zel::test
