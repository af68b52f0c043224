// Everything that the link service does with a message or at a tick, but for waiting: messages of tasks here go to the
// tasks of the peer that they are for; those of the peer's link service, and the ticks, move the link, and its state is
// published.
//
// One task carries, one listens to the peer, one ticks; the link is guarded by a semaphore. Whatever is not wholly a
// link message, or does not come from where it may come from, is dropped and counted.
#pragma once

#include <cstdint>
#include <string>

#include "link.h"
#include "zel/kernel.h"

namespace zelircd {

struct Options {
    std::uint32_t peer = ZEL_IPC_NO_ADDRESS;
    std::string name;
    std::uint32_t intervalTicks = 25;
    std::uint32_t lossIntervals = 3;
    std::uint32_t version = 1;
};

class Carrier {
public:
    // Told when the link came up, by that name of the peer, or went down: with null. By any of the tasks.
    using Report = void (*)(const Options &options, const char *peerName);

    // The link service's endpoint is open.
    Carrier(std::uint32_t key, const Options &options, Report report);
    ~Carrier();
    Carrier(const Carrier &) = delete;
    Carrier &operator=(const Carrier &) = delete;

    // A message of a task of this CPU.
    void takeFromHere(void *message, int length);
    // A message of the peer's link service.
    void takeFromPeer(const void *message, int length);
    // Once an interval.
    void tick();
    void end();

private:
    template <class Step>
    void advance(Step step);
    void publish();

    const std::uint32_t key_;
    const Options options_;
    const Report report_;
    const std::uint32_t epoch_;
    const zelSemId guard_;
    Link link_;  // under guard_
};

}  // namespace zelircd
