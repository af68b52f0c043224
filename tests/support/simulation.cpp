#include "tests/support/simulation.h"

#include <arpa/inet.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "zel/kernel.h"

namespace zel::test {
namespace {

constexpr std::uint64_t second = 1'000'000'000;
constexpr std::uint64_t travelTime = 100'000;
constexpr std::uint64_t longWay = 5'000'000;  // of a datagram that is overtaken

Simulation &of(void *context) {
    return *static_cast<Simulation *>(context);
}

}  // namespace

Simulation::Simulation(unsigned seed, Faults faults) : random_(seed), faults_(faults) {
    printf("simulation seed %u: loss %.2f, duplication %.2f, reordering %.2f\n", seed, faults.loss, faults.duplication,
           faults.reordering);
    const zelHostSeam seam = makeSeam();
    zelPlatformSetSeam(&seam);
}

Simulation::~Simulation() {
    zelPlatformSetSeam(nullptr);
}

zelHostSeam Simulation::makeSeam() {
    zelHostSeam seam{};
    seam.context = this;
    seam.simulated = 1;
    seam.now = [](void *context) { return of(context).now_; };
    seam.wallClock = [](void *context) { return static_cast<std::int64_t>(of(context).now_ / second); };
    seam.sleepUntil = [](void *context, std::uint64_t deadline) {
        while (of(context).now_ < deadline) of(context).step(deadline);
        return 0;
    };
    seam.waitReadable = [](void *context, int fd, std::uint64_t deadline) {
        auto &inbox = of(context).inboxes_[of(context).portOf(fd)];
        while (inbox.empty() && of(context).now_ < deadline) of(context).step(deadline);
        return inbox.empty() ? 0 : 1;
    };
    seam.sendDatagram = [](void *context, int, const iovec *parts, int count, const sockaddr_in *to) -> ssize_t {
        Simulation &world = of(context);
        if (world.failingSends_ > 0) {
            --world.failingSends_;
            errno = ENOBUFS;
            return -1;
        }
        Bytes bytes;
        for (int i = 0; i < count; ++i) {
            const auto *from = static_cast<const std::uint8_t *>(parts[i].iov_base);
            bytes.insert(bytes.end(), from, from + parts[i].iov_len);
        }
        const auto length = static_cast<ssize_t>(bytes.size());
        world.send(ntohs(to->sin_port), std::move(bytes));
        return length;
    };
    seam.receiveDatagram = [](void *context, int fd, void *buffer, size_t size, int flags,
                              sockaddr_in *from) -> ssize_t {
        auto &inbox = of(context).inboxes_[of(context).portOf(fd)];
        if (inbox.empty()) {
            errno = EAGAIN;
            return -1;
        }
        const Bytes &bytes = inbox.front();
        const size_t copied = std::min(size, bytes.size());
        memcpy(buffer, bytes.data(), copied);
        if (from != nullptr) *from = {};
        const auto length = static_cast<ssize_t>((flags & MSG_TRUNC) != 0 ? bytes.size() : copied);
        if ((flags & MSG_PEEK) == 0) inbox.pop();
        return length;
    };
    seam.randomBits = [](void *context) { return of(context).random_(); };
    return seam;
}

std::uint32_t Simulation::portOf(int fd) {
    auto [found, isNew] = ports_.try_emplace(fd, 0);
    if (isNew) {
        sockaddr_in name{};
        socklen_t length = sizeof name;
        getsockname(fd, reinterpret_cast<sockaddr *>(&name), &length);
        found->second = ntohs(name.sin_port);
    }
    return found->second;
}

bool Simulation::happens(double share) {
    return static_cast<double>(random_() >> 11) * 0x1p-53 < share;
}

void Simulation::send(std::uint32_t port, Bytes bytes) {
    if (watcher_) watcher_(port, bytes);
    if (happens(faults_.loss)) {
        ++lost_;
        return;
    }
    if (happens(faults_.duplication)) schedule(port, bytes);
    schedule(port, std::move(bytes));
}

void Simulation::schedule(std::uint32_t port, Bytes bytes) {
    std::uint64_t time = now_ + travelTime;
    if (happens(faults_.reordering)) time += random_() % longWay;
    network_.push({time, order_++, port, std::move(bytes)});
}

void Simulation::inject(std::uint32_t port, Bytes bytes) {
    schedule(port, std::move(bytes));
}

// The next thing that happens: a datagram arrives, or the timer task's second has passed; nothing beyond `limit`.
void Simulation::step(std::uint64_t limit) {
    const std::uint64_t arrival = network_.empty() ? UINT64_MAX : network_.top().time;
    const std::uint64_t next = std::min(arrival, nextPass_);
    if (next > limit) {
        now_ = limit;
        return;
    }
    now_ = std::max(now_, next);
    if (nextPass_ <= arrival) {
        nextPass_ += second;
        process_vx2bsd_timer_list();
        return;
    }
    const std::uint32_t port = network_.top().port;
    inboxes_[port].push(std::move(const_cast<Datagram &>(network_.top()).bytes));
    network_.pop();
    ++carried_;
    if (const auto handler = handlers_.find(port); handler != handlers_.end()) handler->second();
}

bool Simulation::runUntil(const std::function<bool()> &condition, std::uint64_t seconds) {
    const std::uint64_t end = now_ + seconds * second;
    while (!condition() && now_ < end) step(end);
    return condition();
}

}  // namespace zel::test
