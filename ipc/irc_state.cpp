// The link state that the link service of a CPU publishes for all its processes, and what it counts.
//
// Every word is stored by itself; the status comes last, so whoever sees the link up sees who is at its other end. "Up"
// is a claim with an end: the service renews it with each keep-alive, and a reader that finds it run out takes the link
// for down. So no process has to be asked whether the service lives.
#include "ipc/irc_state.h"

#include <algorithm>
#include <atomic>
#include <cerrno>

#include "ipc/task_table.h"
#include "kernel/task.h"
#include "platform/seam.h"
#include "platform/segment.h"
#include "zel/irc.h"

namespace zel::ipc {
namespace {

constexpr std::uint64_t nanosecondsPerMillisecond = 1'000'000;

struct LinkState {
    std::atomic<std::uint64_t> validUntil;  // of the status 1; 0 without limit
    std::atomic<std::uint64_t> counters[ZEL_IRC_COUNTERS];
    std::atomic<std::uint32_t> status, peerAddress, instance, isCompatible, epoch, version;
    std::atomic<char> name[ZEL_IRC_NAME_SIZE];
};
static_assert(sizeof(LinkState) <= platform::sectionBytes[static_cast<std::size_t>(platform::Section::linkState)]);

LinkState *linkState() {
    return platform::sysSectionAs<LinkState>(platform::Section::linkState);
}

std::uint32_t statusOf(const LinkState &shared) {
    const std::uint32_t status = shared.status.load(std::memory_order_acquire);
    if (status != ZEL_IRC_LINK_UP) return status;
    const std::uint64_t end = shared.validUntil.load(std::memory_order_acquire);
    return end == 0 || platform::now() < end ? status : static_cast<std::uint32_t>(ZEL_IRC_LINK_DOWN);
}

void setName(LinkState &shared, const char *name) {
    bool hasEnded = false;
    for (std::size_t i = 0; i < ZEL_IRC_NAME_SIZE; ++i) {
        hasEnded = hasEnded || name[i] == '\0' || i + 1 == ZEL_IRC_NAME_SIZE;
        shared.name[i].store(hasEnded ? '\0' : name[i], std::memory_order_relaxed);
    }
}

}  // namespace

int linkInstance() {
    const LinkState *shared = linkState();
    return shared ? static_cast<int>(shared->instance.load(std::memory_order_acquire)) : 0;
}

}  // namespace zel::ipc

using namespace zel::ipc;

int zelIrcSetLinkState(const zelIrcLinkState *state) {
    LinkState *shared = linkState();
    if (!shared || !state) return zel::kernel::fail(shared ? EINVAL : errno);
    shared->peerAddress.store(state->peerAddress);
    shared->instance.store(state->instance);
    shared->isCompatible.store(state->isCompatible);
    shared->epoch.store(state->epoch);
    shared->version.store(state->version);
    setName(*shared, state->name);
    shared->validUntil.store(state->validMilliseconds == 0
                                 ? 0
                                 : zel::platform::now() + state->validMilliseconds * nanosecondsPerMillisecond);
    shared->status.store(state->status, std::memory_order_release);
    return ZEL_OK;
}

int zelIrcGetLinkState(zelIrcLinkState *state) {
    const LinkState *shared = linkState();
    if (!shared || !state) return zel::kernel::fail(shared ? EINVAL : errno);
    *state = {statusOf(*shared),
              zelGetPeerRpmIpAddr(),
              shared->instance,
              shared->isCompatible,
              shared->epoch.load(),
              shared->version,
              {},
              0};
    for (std::size_t i = 0; i + 1 < ZEL_IRC_NAME_SIZE; ++i)
        state->name[i] = shared->name[i].load(std::memory_order_relaxed);
    return ZEL_OK;
}

uint32_t zelGetIrcLinkStatus() {
    const LinkState *shared = linkState();
    return shared ? statusOf(*shared) : static_cast<uint32_t>(ZEL_IRC_LINK_UNKNOWN);
}

int irc_isLinkUp() {
    return zelGetIrcLinkStatus() == ZEL_IRC_LINK_UP ? 1 : 0;
}

uint32_t zelGetPeerRpmIpAddr() {
    const LinkState *shared = linkState();
    const uint32_t address = shared ? shared->peerAddress.load(std::memory_order_acquire) : 0;
    return isKnownAddress(address) ? address : ZEL_IPC_NO_ADDRESS;
}

int ircGetHAComptWithPeerRpm() {
    const LinkState *shared = linkState();
    return shared && shared->isCompatible.load(std::memory_order_acquire) != 0 ? 1 : 0;
}

void zelIrcCount(int counter, uint32_t times) {
    LinkState *shared = counter >= 0 && counter < ZEL_IRC_COUNTERS ? linkState() : nullptr;
    if (shared) shared->counters[counter].fetch_add(times, std::memory_order_relaxed);
}

int zelIrcGetCounters(uint64_t *counters) {
    const LinkState *shared = linkState();
    if (!shared || !counters) return zel::kernel::fail(shared ? EINVAL : errno);
    std::copy(std::begin(shared->counters), std::end(shared->counters), counters);
    return ZEL_OK;
}
