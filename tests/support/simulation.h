// A fake network that carries what is sent to the endpoints connected to it, with faults, and runs the timer task's
// pass once a second of its time. A handler per port plays the task that owns it.
//
//     Simulation network(seed, {.loss = 0.1, .duplication = 0.05, .reordering = 0.1});
//     network.connect(key);
//     network.onArrival[port] = [&] { zelIpcRecv(key, buffer, size, 0, 0, 0); ... };
//     EXPECT_TRUE(network.runUntil([&] { return delivered == wanted; }, 3600));
#pragma once

#include <cstdio>
#include <map>
#include <queue>
#include <random>

#include "tests/support/fake_network.h"
#include "zel/ipc.h"
#include "zel/kernel.h"

namespace zel::test {

struct Faults {
    double loss = 0, duplication = 0;
    double reordering = 0;  // share of datagrams that are overtaken by later ones
};

class Simulation : public FakeNetwork {
public:
    explicit Simulation(unsigned seed, Faults given = {}) : faults(given), random_(seed) {
        printf("simulation seed %u: loss %.2f, duplication %.2f, reordering %.2f\n", seed, faults.loss,
               faults.duplication, faults.reordering);
        onSend = [this](const Sent &datagram) { carry(datagram); };
    }
    void connect(uint32_t key) { sockets_[key | ZEL_IPC_QUEUE_REQUEST] = Key_getSocketFd(key); }
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
    std::uint64_t lost = 0, carried = 0;

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

    bool happens(double share) { return static_cast<double>(random_() >> 11) * 0x1p-53 < share; }
    void carry(const Sent &datagram) {
        sent.clear();
        if (watch) watch(datagram.port, datagram.bytes);
        if (happens(faults.loss)) {
            ++lost;
            return;
        }
        if (happens(faults.duplication)) inject(datagram.port, datagram.bytes);
        inject(datagram.port, datagram.bytes);
    }
    void passUntil(std::uint64_t time) override {
        while (now < time) step(time);
    }
    int wait(int fd, std::uint64_t deadline) override {
        while (!isReadable(fd) && now < deadline) step(deadline);
        return isReadable(fd) ? 1 : 0;
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
        const Datagram datagram = network_.top();
        network_.pop();
        ++carried;
        arrive(sockets_[datagram.port], datagram.bytes);
        if (const auto handler = onArrival.find(datagram.port); handler != onArrival.end()) handler->second();
    }

    std::mt19937_64 random_;
    std::uint64_t nextPass_ = start + second, order_ = 0;
    std::priority_queue<Datagram> network_;
    std::map<std::uint32_t, int> sockets_;
};

}  // namespace zel::test
