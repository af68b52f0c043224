// Carries messages over the link and keeps the published link state: everything that the link service does with a
// message or at a tick, but for waiting.
//
// Two tasks carry, one for each direction, and a third ticks; the link's state is guarded by a semaphore. Whatever is
// not wholly a link message, or does not come from where it may come from, is dropped and counted.
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
    // The link service's endpoint is open.
    Carrier(std::uint32_t key, const Options &options);
    ~Carrier();
    Carrier(const Carrier &) = delete;
    Carrier &operator=(const Carrier &) = delete;

    // A message of a task of this CPU.
    void takeFromHere(void *message, int length);
    // A message of the peer, or of its link service; by one task.
    void takeFromPeer(void *message, int length);
    // Once an interval.
    void tick();
    void end();

    bool isUp() const { return link_.isUp(); }

private:
    bool isForTask(const zelIrcMessage &message) const;
    void countMissing(std::uint32_t sequence);
    template <class Step>
    void advance(Step step);
    void publish();
    void report(bool wasUp) const;

    const std::uint32_t key_;
    const Options options_;
    const std::uint32_t epoch_;
    const zelSemId guard_;
    Link link_;  // but for what any task may ask: under guard_
    std::uint32_t lastSequence_ = 0;
};

}  // namespace zelircd
