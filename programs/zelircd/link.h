// The state of the link, as a function of what the peer says and of time.
//
// A side that is down says hello, with the epoch that tells this run of it from the one before, once an interval. A
// hello is answered with version and name; so whoever gets that answer hears the peer and is heard, and is up. A side
// that is up sends keep-alives. It goes down when it has heard nothing for the loss time, when the peer says so, and
// when the peer's epoch changes: then it was restarted, and knows nothing of us.
//
// No clock and no socket here: calls return what is to be sent.
#pragma once

#include <cstdint>
#include <cstring>

#include "zel/irc.h"

namespace zelircd {

class Link {
public:
    // Types of messages to send now, in order.
    struct Messages {
        std::uint32_t types[2];
        int count;
    };

    // Times are nanoseconds.
    Link(std::uint64_t lossTime, std::uint32_t version) : lossTime_(lossTime), version_(version) {}

    // To be called once an interval.
    Messages tick(std::uint64_t now);
    // Takes a message of the peer's link service.
    Messages take(const zelIrcMessage &message, std::uint64_t now);
    // We end.
    Messages end();

    bool isUp() const { return isUp_; }
    bool isCompatible() const { return isNamed_ && peerVersion_ == version_; }
    const char *peerName() const { return peerName_; }

private:
    Messages takeHello(std::uint32_t epoch);
    Messages proveUp();
    void forget();

    const std::uint64_t lossTime_;
    const std::uint32_t version_;
    bool isUp_ = false;
    std::uint64_t lastHeard_ = 0;
    std::uint32_t peerEpoch_ = 0;
    bool isNamed_ = false;  // of this epoch
    std::uint32_t peerVersion_ = 0;
    char peerName_[ZEL_IRC_NAME_SIZE] = {};
};

}  // namespace zelircd
