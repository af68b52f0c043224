// A clock and a network that exist only in the test: time passes when somebody waits, and every datagram is the test's.
//
//     FakeNetwork network;
//     network.onSend = [&](const Sent &sent) { network.arrive(fd, answer(sent.bytes), 400ms); };
//     zelIpcSendWait(...);  // a wait of hours takes no time
#pragma once

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <functional>
#include <vector>

#include "zel/platform.h"

namespace zel::test {

using Bytes = std::vector<std::uint8_t>;

struct Sent {
    int fd;
    std::uint32_t address;
    std::uint16_t port;
    std::uint64_t at;
    Bytes bytes;
};

class FakeNetwork {
public:
    FakeNetwork() {
        zelHostSeam seam = *zelPlatformSeam();
        seam.context = this;
        seam.now = [](void *self) { return of(self).now; };
        seam.wallClock = [](void *self) { return static_cast<std::int64_t>(of(self).now / 1'000'000'000); };
        seam.sleepUntil = [](void *self, std::uint64_t deadline) { return of(self).passUntil(deadline), 0; };
        seam.waitReadable = [](void *self, int fd, std::uint64_t deadline) { return of(self).wait(fd, deadline); };
        seam.sendDatagram = [](void *self, int fd, const iovec *parts, int count, const sockaddr_in *to) {
            return of(self).send(fd, parts, count, *to);
        };
        seam.receiveDatagram = [](void *self, int fd, void *buffer, size_t size, int flags, sockaddr_in *) {
            return of(self).receive(fd, buffer, size, flags);
        };
        seam.simulated = 1;
        zelPlatformSetSeam(&seam);
    }
    virtual ~FakeNetwork() { zelPlatformSetSeam(nullptr); }
    FakeNetwork(const FakeNetwork &) = delete;
    FakeNetwork &operator=(const FakeNetwork &) = delete;

    // A datagram that can be read from `fd` after `delay`.
    void arrive(int fd, Bytes bytes, std::chrono::nanoseconds delay = {}) {
        arrivals_.push_back({fd, now + static_cast<std::uint64_t>(delay.count()), std::move(bytes)});
    }
    double seconds() const { return static_cast<double>(now - start) * 1e-9; }

    static constexpr std::uint64_t start = 1'000'000'000'000;
    std::uint64_t now = start;
    std::vector<Sent> sent;
    std::function<void(const Sent &)> onSend;
    int sendError = 0;  // what sends fail with
    int failSends = 0;  // how many of the next sends fail at the sender, as on a host that is out of buffers

protected:
    virtual void passUntil(std::uint64_t time) { now = std::max(now, time); }
    virtual int wait(int fd, std::uint64_t deadline) {
        const auto first = next(fd);
        const bool comes = first != arrivals_.end() && first->due <= deadline;
        passUntil(comes ? first->due : deadline);
        return comes ? 1 : 0;
    }
    bool isReadable(int fd) {
        const auto first = next(fd);
        return first != arrivals_.end() && first->due <= now;
    }

private:
    struct Arrival {
        int fd;
        std::uint64_t due;
        Bytes bytes;
    };

    static FakeNetwork &of(void *self) { return *static_cast<FakeNetwork *>(self); }

    std::vector<Arrival>::iterator next(int fd) {
        auto best = arrivals_.end();
        for (auto it = arrivals_.begin(); it != arrivals_.end(); ++it)
            if (it->fd == fd && (best == arrivals_.end() || it->due < best->due)) best = it;
        return best;
    }

    ssize_t send(int fd, const iovec *parts, int count, const sockaddr_in &to) {
        if (failSends > 0) return --failSends, errno = ENOBUFS, -1;
        if (sendError != 0) return errno = sendError, -1;
        Sent datagram{fd, ntohl(to.sin_addr.s_addr), ntohs(to.sin_port), now, {}};
        for (int i = 0; i < count; ++i) {
            const auto *bytes = static_cast<const std::uint8_t *>(parts[i].iov_base);
            datagram.bytes.insert(datagram.bytes.end(), bytes, bytes + parts[i].iov_len);
        }
        sent.push_back(datagram);
        if (onSend) onSend(datagram);
        return static_cast<ssize_t>(datagram.bytes.size());
    }

    ssize_t receive(int fd, void *buffer, size_t size, int flags) {
        if (!isReadable(fd)) return errno = EAGAIN, -1;
        const auto first = next(fd);
        const std::size_t length = first->bytes.size();
        if (length > 0) memcpy(buffer, first->bytes.data(), std::min(size, length));
        if ((flags & MSG_PEEK) == 0) arrivals_.erase(first);
        return static_cast<ssize_t>((flags & MSG_TRUNC) != 0 ? length : std::min(size, length));
    }

    std::vector<Arrival> arrivals_;
};

}  // namespace zel::test
