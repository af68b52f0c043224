// One thread, a virtual clock and a datagram network with faults, over the host seam. Endpoints are opened as always;
// what they send goes through the network instead of the host, and what arrives is read by the same calls. A handler
// per port plays the task that owns it.
//
//     Simulation world(seed, {.loss = 0.1, .duplication = 0.05, .reordering = 0.1});
//     world.onArrival(port, [&] { zelIpcRecv(key, buffer, size, 0, 0, 0); ... });
//     EXPECT_TRUE(world.runUntil([&] { return delivered == wanted; }, 3600));
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <queue>
#include <random>
#include <vector>

#include "zel/platform.h"

namespace zel::test {

struct Faults {
    double loss = 0;
    double duplication = 0;
    double reordering = 0;  // share of datagrams that are overtaken by later ones
};

class Simulation {
public:
    using Bytes = std::vector<std::uint8_t>;

    explicit Simulation(unsigned seed, Faults faults = {});  // one at a time
    ~Simulation();
    Simulation(const Simulation &) = delete;
    Simulation &operator=(const Simulation &) = delete;

    void onArrival(std::uint32_t port, std::function<void()> handler) { handlers_[port] = std::move(handler); }
    void setFaults(Faults faults) { faults_ = faults; }
    // Runs until the condition holds; false when that many virtual seconds pass, or nothing happens any more.
    bool runUntil(const std::function<bool()> &condition, std::uint64_t seconds);
    // Puts a datagram on the network beside what the endpoints send.
    void inject(std::uint32_t port, Bytes bytes);
    // Shows each datagram as it is sent, before faults befall it.
    void watch(std::function<void(std::uint32_t port, const Bytes &)> watcher) { watcher_ = std::move(watcher); }
    // The next sends fail at the sender, as on a host that is out of buffers.
    void failSends(int count) { failingSends_ = count; }

    std::uint64_t now() const { return now_; }
    std::uint64_t lost() const { return lost_; }
    std::uint64_t carried() const { return carried_; }

private:
    struct Datagram {
        std::uint64_t time;
        std::uint64_t order;
        std::uint32_t port;
        Bytes bytes;
        bool operator<(const Datagram &other) const {
            return time != other.time ? time > other.time : order > other.order;
        }
    };
    zelHostSeam makeSeam();
    bool happens(double share);
    void send(std::uint32_t port, Bytes bytes);
    void schedule(std::uint32_t port, Bytes bytes);
    void step(std::uint64_t limit);
    std::uint32_t portOf(int fd);

    std::mt19937_64 random_;
    Faults faults_;
    std::uint64_t now_ = 1'000'000'000;
    std::uint64_t nextPass_ = 2'000'000'000;
    std::uint64_t order_ = 0;
    std::uint64_t lost_ = 0;
    std::uint64_t carried_ = 0;
    int failingSends_ = 0;
    std::priority_queue<Datagram> network_;
    std::map<std::uint32_t, std::queue<Bytes>> inboxes_;
    std::map<std::uint32_t, std::function<void()>> handlers_;
    std::map<int, std::uint32_t> ports_;
    std::function<void(std::uint32_t, const Bytes &)> watcher_;
};

}  // namespace zel::test
