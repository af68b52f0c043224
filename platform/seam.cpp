// The host's side of the seam: the monotonic clock, waits that hold one absolute deadline, UDP datagrams.
//
// sleepUntil and waitReadable are cancellation points, so a deleted task leaves from there; nothing of ours is held
// meanwhile. A signal ends either wait early with EINTR; the caller, who knows its deadline, decides whether to wait
// on.
#include "platform/seam.h"

#include <errno.h>
#include <poll.h>
#include <sys/random.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

namespace zel::platform {
namespace {

timespec timespecOf(std::uint64_t nanoseconds) {
    timespec time{};
    time.tv_sec = static_cast<time_t>(nanoseconds / nanosecondsPerSecond);
    time.tv_nsec = static_cast<long>(nanoseconds % nanosecondsPerSecond);
    return time;
}

std::uint64_t hostNow(void *) {
    timespec time{};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return static_cast<std::uint64_t>(time.tv_sec) * nanosecondsPerSecond + static_cast<std::uint64_t>(time.tv_nsec);
}

std::int64_t hostWallClock(void *) {
    return static_cast<std::int64_t>(time(nullptr));
}

int hostSleepUntil(void *, std::uint64_t deadline) {
    // Some 34 years: what a 32-bit time_t surely holds, and as good as without limit.
    constexpr std::uint64_t longest = nanosecondsPerSecond << 30;
    const timespec end = timespecOf(deadline < longest ? deadline : longest);
    return clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &end, nullptr);
}

int hostWaitReadable(void *, int fd, std::uint64_t deadline) {
    timespec left{};
    if (deadline != forever) {
        const std::uint64_t time = hostNow(nullptr);
        if (deadline > time) left = timespecOf(deadline - time);
    }
    pollfd entry{fd, POLLIN, 0};
    const int ready = ppoll(&entry, 1, deadline == forever ? nullptr : &left, nullptr);
    if (ready <= 0) return ready;
    if ((entry.revents & POLLNVAL) != 0) {
        errno = EBADF;
        return -1;
    }
    return 1;  // an error on the socket, too, is read from it
}

ssize_t hostSendDatagram(void *, int fd, const iovec *parts, int count, const sockaddr_in *to) {
    msghdr message{};
    message.msg_name = const_cast<sockaddr_in *>(to);
    message.msg_namelen = sizeof *to;
    message.msg_iov = const_cast<iovec *>(parts);
    message.msg_iovlen = static_cast<decltype(message.msg_iovlen)>(count);
    return sendmsg(fd, &message, MSG_NOSIGNAL);
}

ssize_t hostReceiveDatagram(void *, int fd, void *buffer, size_t size, int flags, sockaddr_in *from) {
    socklen_t length = sizeof *from;
    return recvfrom(fd, buffer, size, flags, reinterpret_cast<sockaddr *>(from), from != nullptr ? &length : nullptr);
}

std::uint64_t hostRandomBits(void *) {
    std::uint64_t bits = 0;
    if (getrandom(&bits, sizeof bits, 0) == static_cast<ssize_t>(sizeof bits)) return bits;
    return (hostNow(nullptr) * 0x9e3779b97f4a7c15u) ^ static_cast<std::uint64_t>(getpid());
}

constinit const zelHostSeam hostSeam = {
    .context = nullptr,
    .now = hostNow,
    .wallClock = hostWallClock,
    .sleepUntil = hostSleepUntil,
    .waitReadable = hostWaitReadable,
    .sendDatagram = hostSendDatagram,
    .receiveDatagram = hostReceiveDatagram,
    .randomBits = hostRandomBits,
    .simulated = 0,
};

constinit zelHostSeam replacement{};
}  // namespace

constinit std::atomic<const zelHostSeam *> seamInForce{&hostSeam};

bool isHostSeam() {
    return &seam() == &hostSeam;
}

std::uint64_t nowInTicks() {
    if (!isHostSeam()) return now() / nanosecondsPerTick;
    timespec time;
    clock_gettime(CLOCK_MONOTONIC, &time);
    return static_cast<std::uint64_t>(time.tv_sec) * ticksPerSecond +
           static_cast<std::uint32_t>(time.tv_nsec) / static_cast<std::uint32_t>(nanosecondsPerTick);
}

}  // namespace zel::platform

using namespace zel::platform;

void zelPlatformSetSeam(const zelHostSeam *newSeam) {
    if (newSeam != nullptr) replacement = *newSeam;
    seamInForce.store(newSeam != nullptr ? &replacement : &hostSeam, std::memory_order_release);
}

const zelHostSeam *zelPlatformSeam(void) {
    return &seam();
}
