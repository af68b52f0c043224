// The seam carries every datagram while it is replaced. While the host's own is in force the calls go straight to the
// host: an exchange is two system calls, and each layer between would be measurable.
#include "platform/datagram.h"

#include <linux/sock_diag.h>
#include <netinet/udp.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <bit>
#include <cerrno>
#include <cstring>

#include "platform/cancellation.h"
#include "platform/seam.h"

#ifndef SO_MEMINFO
#define SO_MEMINFO 55
#endif
#ifndef UDP_SEGMENT
#define UDP_SEGMENT 103
#endif

namespace zel::platform {
namespace {

// Bounds a count against senders that are faster than it.
constexpr int maxCountedDatagrams = 65536;

int optionOf(SocketBuffer which) {
    return which == SocketBuffer::send ? SO_SNDBUF : SO_RCVBUF;
}

bool setOption(int socket, int option, int value) {
    return setsockopt(socket, SOL_SOCKET, option, &value, sizeof value) == 0;
}

using Memory = std::array<std::uint32_t, SK_MEMINFO_VARS>;

// What the host knows of the socket's buffers; all zero when it does not tell.
Memory memoryOf(int socket) {
    Memory memory{};
    socklen_t size = sizeof memory;
    getsockopt(socket, SOL_SOCKET, SO_MEMINFO, memory.data(), &size);
    return memory;
}

// ---- Many datagrams in one call -------------------------------------------------------------------------------------
//
// The host cuts one long datagram into segments of a given length, the last of which may be shorter. Worth it where the
// segments need no fragments of their own, that is on the loopback interface. An emulator of a host of the other byte
// order hands the length over as it stands, so it is left to the common order.

constexpr std::size_t longestBurst = 65'507;
constexpr int mostSegments = 16;
std::atomic<bool> hostCanSegment{std::endian::native == std::endian::little};

bool isLoopback(const sockaddr_in &to) {
    return ntohl(to.sin_addr.s_addr) >> 24 == 127;
}

// How many of the messages can leave as segments of one datagram.
int burstLength(const iovec *messages, int count) {
    const std::size_t length = messages[0].iov_len;
    std::size_t total = length;
    int burst = 1;
    while (burst < count && burst < mostSegments && messages[burst - 1].iov_len == length &&
           messages[burst].iov_len <= length && total + messages[burst].iov_len <= longestBurst)
        total += messages[burst++].iov_len;
    return burst;
}

bool sendSegmented(int socket, const iovec *messages, int count, const sockaddr_in &to) {
    alignas(cmsghdr) unsigned char control[CMSG_SPACE(sizeof(std::uint16_t))] = {};
    msghdr message{};
    message.msg_name = const_cast<sockaddr_in *>(&to);
    message.msg_namelen = sizeof to;
    message.msg_iov = const_cast<iovec *>(messages);
    message.msg_iovlen = static_cast<std::size_t>(count);
    message.msg_control = control;
    message.msg_controllen = sizeof control;
    cmsghdr *segment = CMSG_FIRSTHDR(&message);
    segment->cmsg_level = IPPROTO_UDP;
    segment->cmsg_type = UDP_SEGMENT;
    segment->cmsg_len = CMSG_LEN(sizeof(std::uint16_t));
    const auto length = static_cast<std::uint16_t>(messages[0].iov_len);
    memcpy(CMSG_DATA(segment), &length, sizeof length);
    if (sendmsg(socket, &message, 0) >= 0) return true;
    if (errno == EINVAL || errno == EIO || errno == EOPNOTSUPP) hostCanSegment.store(false, std::memory_order_relaxed);
    return false;
}

}  // namespace

int openDatagramSocket() {
    return socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, IPPROTO_UDP);
}

bool bindDatagramSocket(int socket, std::uint32_t address, std::uint16_t port) {
    const sockaddr_in local = socketAddress(address, port);
    return bind(socket, reinterpret_cast<const sockaddr *>(&local), sizeof local) == 0;
}

void wakeReaders(int socket) {
    const int error = errno;
    shutdown(socket, SHUT_RDWR);  // reports that the socket is not connected, and does it nevertheless
    errno = error;
}

void closeDatagramSocket(int socket) {
    const int error = errno;
    const NoCancellation closing;
    close(socket);
    errno = error;
}

int bufferBytes(int socket, SocketBuffer which) {
    int bytes = 0;
    socklen_t size = sizeof bytes;
    return getsockopt(socket, SOL_SOCKET, optionOf(which), &bytes, &size) == 0 ? bytes : -1;
}

bool setBufferBytes(int socket, SocketBuffer which, int bytes) {
    return setOption(socket, optionOf(which), bytes);
}

bool setBroadcast(int socket, bool isOn) {
    return setOption(socket, SO_BROADCAST, isOn ? 1 : 0);
}

std::uint64_t droppedByHost(int socket) {
    // The same counter as SO_RXQ_OVFL, asked for when it is wanted instead of carried by every datagram.
    return memoryOf(socket)[SK_MEMINFO_DROPS];
}

bool isHalfFull(int socket) {
    const Memory memory = memoryOf(socket);
    return memory[SK_MEMINFO_RMEM_ALLOC] > memory[SK_MEMINFO_RCVBUF] / 2;
}

int countWaitingDatagrams(int socket) {
    char byte = 0;
    const auto peek = [&] { return recv(socket, &byte, sizeof byte, MSG_PEEK | MSG_DONTWAIT | MSG_TRUNC) >= 0; };
    // With a peek offset each peek starts behind the datagrams peeked before.
    if (!setOption(socket, SO_PEEK_OFF, 0)) return peek() ? 1 : 0;
    int count = 0;
    while (count < maxCountedDatagrams && peek()) ++count;
    setOption(socket, SO_PEEK_OFF, -1);
    return count;
}

sockaddr_in socketAddress(std::uint32_t address, std::uint16_t port) {
    sockaddr_in result{};
    result.sin_family = AF_INET;
    result.sin_addr.s_addr = htonl(address);
    result.sin_port = htons(port);
    return result;
}

ssize_t sendDatagram(int socket, const iovec *parts, int count, const sockaddr_in &to) {
    if (!isHostSeam()) return seam().sendDatagram(seam().context, socket, parts, count, &to);
    if (count == 1)
        return sendto(socket, parts->iov_base, parts->iov_len, 0, reinterpret_cast<const sockaddr *>(&to), sizeof to);
    msghdr message{};
    message.msg_name = const_cast<sockaddr_in *>(&to);
    message.msg_namelen = sizeof to;
    message.msg_iov = const_cast<iovec *>(parts);
    message.msg_iovlen = static_cast<std::size_t>(count);
    return sendmsg(socket, &message, 0);
}

int sendDatagrams(int socket, const iovec *messages, int count, const sockaddr_in &to) {
    const bool maySegment = isHostSeam() && isLoopback(to) && hostCanSegment.load(std::memory_order_relaxed);
    int sent = 0;
    while (sent < count) {
        const iovec *next = messages + sent;
        const int burst = maySegment ? burstLength(next, count - sent) : 1;
        if (burst > 1 && sendSegmented(socket, next, burst, to)) {
            sent += burst;
            continue;
        }
        if (sendDatagram(socket, next, 1, to) != static_cast<ssize_t>(next->iov_len)) break;
        ++sent;
    }
    return sent;
}

ssize_t receiveWaiting(int socket, void *buffer, std::size_t size) {
    sockaddr_in from{};
    return seam().receiveDatagram(seam().context, socket, buffer, size, MSG_DONTWAIT | MSG_TRUNC, &from);
}

ssize_t peekWaiting(int socket, void *buffer, std::size_t size) {
    sockaddr_in from{};
    return seam().receiveDatagram(seam().context, socket, buffer, size, MSG_DONTWAIT | MSG_PEEK, &from);
}

bool canBlockInReceive() {
    return isHostSeam();
}

bool setReceiveTimeout(int socket, int seconds) {
    const timeval limit{seconds, 0};
    return setsockopt(socket, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit) == 0;
}

ssize_t receiveBlocking(int socket, void *buffer, std::size_t size) {
    return recv(socket, buffer, size, MSG_TRUNC);
}

}  // namespace zel::platform
