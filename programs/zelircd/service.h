// The tasks of the link service: the body waits for the peer, one for messages of tasks here, one for the next tick.
#pragma once

#include <cstdint>

#include "carrier.h"

namespace zelircd {

class Service {
public:
    Service(std::uint32_t key, const Options &options);
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
    zelTaskId spawn(const char *name, int priority, zelTaskEntry entry);

    const std::uint32_t key_;
    const Options options_;
    Carrier carrier_;
    zelTaskId carrying_ = ZEL_ERROR;
    zelTaskId beating_ = ZEL_ERROR;
};

}  // namespace zelircd
