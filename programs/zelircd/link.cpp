#include "link.h"

#include <utility>

namespace zelircd {
namespace {

constexpr Link::Messages nothing{{}, 0};

constexpr Link::Messages say(std::uint32_t type) {
    return {{type}, 1};
}

}  // namespace

Link::Messages Link::tick(std::uint64_t now) {
    if (!isUp_) return say(ZEL_IRC_HELLO);
    if (now - lastHeard_ < lossTime_) return say(ZEL_IRC_KEEP_ALIVE);
    isUp_ = false;
    return {{ZEL_IRC_DOWN, ZEL_IRC_HELLO}, 2};
}

Link::Messages Link::take(const zelIrcMessage &message, std::uint64_t now) {
    lastHeard_ = now;
    switch (message.type) {
        case ZEL_IRC_HELLO:
            return takeHello(message.stateWord);
        case ZEL_IRC_HELLO_NAME:
            isNamed_ = true;
            peerVersion_ = message.stateWord;
            memcpy(peerName_, message.name, sizeof peerName_);
            return proveUp();
        case ZEL_IRC_UP:
            return proveUp();
        case ZEL_IRC_DOWN: {
            const bool wasUp = std::exchange(isUp_, false);
            return wasUp ? say(ZEL_IRC_HELLO) : nothing;
        }
        default:
            return nothing;
    }
}

// A peer that we meet for the first time gets our hello as well, so that it need not wait for the next interval. We
// know it then, so this ends.
Link::Messages Link::takeHello(std::uint32_t epoch) {
    if (epoch == peerEpoch_) return say(ZEL_IRC_HELLO_NAME);
    forget();
    peerEpoch_ = epoch;
    return {{ZEL_IRC_HELLO, ZEL_IRC_HELLO_NAME}, 2};
}

// The peer hears us. When it has not said who it is, the next tick's hello asks: an answer to answers would have no
// end.
Link::Messages Link::proveUp() {
    if (isUp_ || !isNamed_) return nothing;
    isUp_ = true;
    return say(ZEL_IRC_UP);
}

void Link::forget() {
    isUp_ = false;
    isNamed_ = false;
}

Link::Messages Link::end() {
    return std::exchange(isUp_, false) ? say(ZEL_IRC_DOWN) : nothing;
}

}  // namespace zelircd
