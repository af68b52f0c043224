#include "carrier.h"

#include <cstdio>
#include <cstring>

#include "zel/ipc.h"
#include "zel/platform.h"

namespace zelircd {
namespace {

constexpr unsigned sourceAddressWord = 40;
constexpr unsigned sourceQueueWord = 44;
constexpr std::uint32_t millisecondsPerTick = 20;
constexpr std::uint64_t nanosecondsPerTick = 20'000'000;

std::uint64_t now() {
    const zelHostSeam *seam = zelPlatformSeam();
    return seam->now(seam->context);
}

// Differs from run to run, and is not 0.
std::uint32_t newEpoch() {
    const zelHostSeam *seam = zelPlatformSeam();
    return static_cast<std::uint32_t>(seam->randomBits(seam->context)) | 1u;
}

bool isOfTask(const zelIrcMessage &message) {
    return message.type <= ZEL_IRC_ANSWER;
}

class Guard {
public:
    explicit Guard(zelSemId semaphore) : semaphore_(semaphore) { semTake(semaphore_, WAIT_FOREVER); }
    ~Guard() { semGive(semaphore_); }
    Guard(const Guard &) = delete;
    Guard &operator=(const Guard &) = delete;

private:
    const zelSemId semaphore_;
};

}  // namespace

Carrier::Carrier(std::uint32_t key, const Options &options, Report report)
    : key_(key),
      options_(options),
      report_(report),
      epoch_(newEpoch()),
      guard_(semMCreate(ZEL_SEM_PRIORITY)),
      link_(options.intervalTicks * options.lossIntervals * nanosecondsPerTick, options.version) {
    publish();
}

Carrier::~Carrier() {
    semDelete(guard_);
}

void Carrier::takeFromHere(void *message, int length) {
    zelIrcMessage parsed;
    if (zelIrcParse(message, length, &parsed) != 0) return zelIrcCount(ZEL_IRC_COUNT_MALFORMED, 1);
    // Nobody speaks for the link service but itself.
    const bool isForTask = isOfTask(parsed) && parsed.service != ZEL_IRC_SERVICE;
    if (!isForTask || zelIpcHdrGet32(message, sourceAddressWord) != zel_sysGetIpAddr())
        return zelIrcCount(ZEL_IRC_COUNT_REFUSED, 1);
    // What is published also ends when this process was stopped: what waited meanwhile is too old to go.
    if (!irc_isLinkUp()) return zelIrcCount(ZEL_IRC_COUNT_LINK_DOWN, 1);
    const bool isSent = zelIrcForward(key_, message, length, &parsed) == 0;
    zelIrcCount(isSent ? ZEL_IRC_COUNT_FORWARDED : ZEL_IRC_COUNT_FAILED, 1);
}

void Carrier::takeFromPeer(const void *message, int length) {
    zelIrcMessage parsed;
    if (zelIrcParse(message, length, &parsed) != 0) return zelIrcCount(ZEL_IRC_COUNT_MALFORMED, 1);
    const bool isOfService = zelIpcGetServiceFromSvce(zelIpcHdrGet32(message, sourceQueueWord)) == ZEL_IRC_SERVICE;
    if (isOfTask(parsed) || !isOfService || zelIpcHdrGet32(message, sourceAddressWord) != options_.peer)
        return zelIrcCount(ZEL_IRC_COUNT_REFUSED, 1);
    zelIrcCount(ZEL_IRC_COUNT_CONTROL, 1);
    advance([&](std::uint64_t time) { return link_.take(parsed, time); });
}

void Carrier::tick() {
    advance([this](std::uint64_t time) { return link_.tick(time); });
}

void Carrier::end() {
    advance([this](std::uint64_t) { return link_.end(); });
}

// One step of the link: its new state is published before the peer learns of it.
template <class Step>
void Carrier::advance(Step step) {
    bool wasUp, isUp;
    {
        const Guard guard(guard_);
        wasUp = link_.isUp();
        const Link::Messages messages = step(now());
        isUp = link_.isUp();
        publish();
        for (int i = 0; i < messages.count; ++i)
            if (zelIrcSendControl(key_, messages.types[i]) != 0) zelIrcCount(ZEL_IRC_COUNT_FAILED, 1);
    }
    if (isUp == wasUp) return;
    zelIrcCount(isUp ? ZEL_IRC_COUNT_UPS : ZEL_IRC_COUNT_LOSSES, 1);
    report_(options_, isUp ? link_.peerName() : nullptr);
}

void Carrier::publish() {
    zelIrcLinkState state{};
    state.status = link_.isUp() ? ZEL_IRC_LINK_UP : ZEL_IRC_LINK_DOWN;
    state.peerAddress = options_.peer;
    state.instance = zelIpcGetInstance(key_);
    state.isCompatible = link_.isCompatible();
    state.epoch = epoch_;
    state.version = options_.version;
    snprintf(state.name, sizeof state.name, "%s", options_.name.c_str());
    state.validMilliseconds = options_.intervalTicks * options_.lossIntervals * millisecondsPerTick;
    zelIrcSetLinkState(&state);
}

}  // namespace zelircd
