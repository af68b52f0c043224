// The tasks of the link service: the body waits for the peer, one for messages of tasks here, one for the next tick.
#pragma once

#include <atomic>
#include <cstdint>

#include "carrier.h"

namespace zelircd {

class Service {
public:
    Service(std::uint32_t key, const Options &options);
    // Wakes the tasks, waits for their end, and tells the peer.
    ~Service();
    Service(const Service &) = delete;
    Service &operator=(const Service &) = delete;

    // Serves until the program is asked to stop.
    int run();

private:
    using Word = intptr_t;
    static int carry(Word self, Word, Word, Word, Word, Word, Word, Word, Word, Word);
    static int beat(Word self, Word, Word, Word, Word, Word, Word, Word, Word, Word);
    bool openQueues();
    bool spawn(const char *name, int priority, zelTaskEntry entry);
    void wakeCarrying();

    const std::uint32_t key_;
    const Options options_;
    Carrier carrier_;
    const zelSemId stop_;   // ends the beat
    const zelSemId ended_;  // given by each task at its end
    int tasks_ = 0;
    std::atomic<bool> isOver_{false};
};

}  // namespace zelircd
