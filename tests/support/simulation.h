// One thread, a virtual clock and a datagram network with faults, over the host seam. Endpoints are opened as always;
// what they send goes through the network instead of the host, and what arrives is read by the same calls. A handler
// per port plays the task that owns it.
//
//     Simulation world(seed, {.loss = 0.1, .duplication = 0.05, .reordering = 0.1});
//     world.onArrival[port] = [&] { zelIpcRecv(key, buffer, size, 0, 0, 0); ... };
//     EXPECT_TRUE(world.runUntil([&] { return delivered == wanted; }, 3600));
#pragma once

#include <arpa/inet.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <functional>
#include <map>
#include <queue>
#include <random>
#include <vector>

#include "zel/kernel.h"
#include "zel/platform.h"

namespace zel::test {

struct Faults {
    double loss = 0, duplication = 0;
    double reordering = 0;  // share of datagrams that are overtaken by later ones
};

class Simulation {
public:
    using Bytes = std::vector<std::uint8_t>;

    explicit Simulation(unsigned seed, Faults given = {}) : faults(given), random_(seed) {  // one at a time
        printf("simulation seed %u: loss %.2f, duplication %.2f, reordering %.2f\n", seed, faults.loss,
               faults.duplication, faults.reordering);
        zelHostSeam seam{};
        seam.context = this;
        seam.simulated = 1;
        seam.now = [](void *self) { return of(self).now; };
        seam.wallClock = [](void *self) { return static_cast<std::int64_t>(of(self).now / second); };
        seam.sleepUntil = [](void *self, std::uint64_t deadline) {
            while (of(self).now < deadline) of(self).step(deadline);
            return 0;
        };
        seam.waitReadable = [](void *self, int fd, std::uint64_t deadline) {
            const auto &inbox = of(self).inboxOf(fd);
            while (inbox.empty() && of(self).now < deadline) of(self).step(deadline);
            return inbox.empty() ? 0 : 1;
        };
        seam.sendDatagram = [](void *self, int, const iovec *parts, int count, const sockaddr_in *to) {
            return of(self).send(ntohs(to->sin_port), parts, count);
        };
        seam.receiveDatagram = [](void *self, int fd, void *buffer, size_t size, int flags, sockaddr_in *) {
            return of(self).receive(fd, buffer, size, flags);
        };
        seam.randomBits = [](void *self) { return of(self).random_(); };
        zelPlatformSetSeam(&seam);
    }
    ~Simulation() { zelPlatformSetSeam(nullptr); }
    Simulation(const Simulation &) = delete;
    Simulation &operator=(const Simulation &) = delete;

    // Runs until the condition holds; false when that many virtual seconds pass before.
    bool runUntil(const std::function<bool()> &condition, std::uint64_t seconds) {
        const std::uint64_t end = now + seconds * second;
        while (!condition() && now < end) step(end);
        return condition();
    }
    // Puts a datagram on the network beside what the endpoints send.
    void inject(std::uint32_t port, Bytes bytes) {
        const std::uint64_t delay = happens(faults.reordering) ? random_() % (second / 200) : 0;
        network_.push({now + second / 10'000 + delay, order_++, port, std::move(bytes)});
    }

    Faults faults;
    std::map<std::uint32_t, std::function<void()>> onArrival;      // by port
    std::function<void(std::uint32_t port, const Bytes &)> watch;  // sees each datagram sent, before faults befall it
    int failSends = 0;  // the next sends fail at the sender, as on a host that is out of buffers
    std::uint64_t now = second, lost = 0, carried = 0;

private:
    static constexpr std::uint64_t second = 1'000'000'000;
    struct Datagram {
        std::uint64_t time, order;
        std::uint32_t port;
        Bytes bytes;
        bool operator<(const Datagram &other) const {
            return time != other.time ? time > other.time : order > other.order;
        }
    };

    static Simulation &of(void *self) { return *static_cast<Simulation *>(self); }
    bool happens(double share) { return static_cast<double>(random_() >> 11) * 0x1p-53 < share; }
    std::queue<Bytes> &inboxOf(int fd) {
        sockaddr_in name{};
        socklen_t length = sizeof name;
        getsockname(fd, reinterpret_cast<sockaddr *>(&name), &length);
        return inboxes_[ntohs(name.sin_port)];
    }
    ssize_t send(std::uint32_t port, const iovec *parts, int count) {
        if (failSends > 0) return --failSends, errno = ENOBUFS, -1;
        Bytes bytes;
        for (int i = 0; i < count; ++i) {
            const auto *from = static_cast<const std::uint8_t *>(parts[i].iov_base);
            bytes.insert(bytes.end(), from, from + parts[i].iov_len);
        }
        if (watch) watch(port, bytes);
        const auto length = static_cast<ssize_t>(bytes.size());
        if (happens(faults.loss)) return ++lost, length;
        if (happens(faults.duplication)) inject(port, bytes);
        inject(port, std::move(bytes));
        return length;
    }
    ssize_t receive(int fd, void *buffer, size_t size, int flags) {
        auto &inbox = inboxOf(fd);
        if (inbox.empty()) return errno = EAGAIN, -1;
        const size_t whole = inbox.front().size(), copied = std::min(size, whole);
        memcpy(buffer, inbox.front().data(), copied);
        if ((flags & MSG_PEEK) == 0) inbox.pop();
        return static_cast<ssize_t>((flags & MSG_TRUNC) != 0 ? whole : copied);
    }
    // The next thing that happens: a datagram arrives, or the timer task's second has passed; nothing beyond `limit`.
    void step(std::uint64_t limit) {
        const std::uint64_t arrival = network_.empty() ? UINT64_MAX : network_.top().time;
        const std::uint64_t next = std::min(arrival, nextPass_);
        now = std::min(std::max(now, next), limit);
        if (next > limit) return;
        if (nextPass_ <= arrival) {
            nextPass_ += second;
            process_vx2bsd_timer_list();
            return;
        }
        const std::uint32_t port = network_.top().port;
        inboxes_[port].push(network_.top().bytes);
        network_.pop();
        ++carried;
        if (const auto handler = onArrival.find(port); handler != onArrival.end()) handler->second();
    }

    std::mt19937_64 random_;
    std::uint64_t nextPass_ = 2 * second, order_ = 0;
    std::priority_queue<Datagram> network_;
    std::map<std::uint32_t, std::queue<Bytes>> inboxes_;
};

}  // namespace zel::test
