// Any message at the link service, from a task here or from the peer: it is counted once, and goes to the peer
// unchanged or nowhere. The first byte says from where and lets time pass, the second which words are made good, so
// that the rest is reached.
#include <numeric>

#include "fuzz/support/fuzz.h"
#include "programs/zelircd/carrier.h"
#include "tests/support/fake_network.h"
#include "zel/irc.h"

namespace {

using zel::fuzz::require;
using zel::test::Bytes;
using zel::test::FakeNetwork;
using zel::test::Sent;

constexpr std::uint32_t peer = 0x7f000909;
constexpr std::uint32_t serviceKey = ZEL_IRC_SERVICE << 7;
constexpr std::uint64_t timeStep = 31'250'000;  // a sixteenth of an interval

struct World {
    World() {
        zelTraceInit();
        require(zelIpcOpen(ZEL_IRC_SERVICE, 0) == static_cast<int>(serviceKey));
    }
    FakeNetwork network;
    zelircd::Carrier carrier{
        serviceKey, {.peer = peer, .name = "fuzzed"}, [](const zelircd::Options &, const char *) {}};
};

// How many messages were counted.
std::uint64_t counted() {
    std::uint64_t counters[ZEL_IRC_COUNTERS];
    require(zelIrcGetCounters(counters) == 0);
    return std::accumulate(counters, counters + ZEL_IRC_COUNT_UPS, std::uint64_t{0});
}

void mend(Bytes &bytes, unsigned bits, bool isFromPeer) {
    const std::uint32_t type = bytes.size() >= 88 ? zelIpcHdrGet32(bytes.data(), 84) : 0;
    const zel::fuzz::Word words[] = {{40, isFromPeer ? peer : zel_sysGetIpAddr()},
                                     {44, serviceKey | 2},
                                     {60, ZEL_IRC_MAGIC},
                                     {72, type >= 1 && type <= 3 ? 2u : 1u},
                                     {76, 76 << 16 | 3},
                                     {80, static_cast<std::uint32_t>(bytes.size()) - ZEL_IRC_MIN_MESSAGE}};
    zel::fuzz::mend(bytes, bits, words);
}

void bringUp(World &world) {
    for (const std::uint32_t type : {ZEL_IRC_HELLO, ZEL_IRC_HELLO_NAME}) {
        Bytes bytes(ZEL_IRC_MIN_MESSAGE);
        zelIpcHdrSet32(bytes.data(), 84, type);
        zelIpcHdrSet32(bytes.data(), 92, 1);
        mend(bytes, ~0u, true);
        world.carrier.takeFromPeer(bytes.data(), ZEL_IRC_MIN_MESSAGE);
    }
    require(irc_isLinkUp() == 1);
}

// What the link service says of itself goes to the peer's, at most two messages at a time.
void requireControl(World &world) {
    require(world.network.sent.size() <= 2);
    for (const Sent &sent : world.network.sent)
        require(sent.address == peer && sent.port == (serviceKey | 1) && sent.bytes.size() == ZEL_IRC_MIN_MESSAGE);
}

void fromHere(World &world, Bytes bytes) {
    const Bytes before = bytes;
    world.carrier.takeFromHere(bytes.data(), static_cast<int>(bytes.size()));
    if (world.network.sent.empty()) return;
    const Sent &sent = world.network.sent.front();
    require(world.network.sent.size() == 1 && irc_isLinkUp() == 1 && sent.address == peer);
    require((sent.port & 3) != 0 && sent.port >> 7 != ZEL_IRC_SERVICE && sent.bytes.size() == before.size());
    require(memcmp(sent.bytes.data() + 68, before.data() + 68, before.size() - 68) == 0);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    static World world;
    if (size < 2) return 0;
    const bool isFromPeer = (data[0] & 1) != 0;
    world.network.now += (data[0] >> 1 & 0x1f) * timeStep;
    world.network.sent.clear();
    if ((data[0] & 0x40) != 0) world.carrier.tick();
    requireControl(world);
    if ((data[0] & 0x80) != 0) bringUp(world);

    Bytes bytes(data + 2, data + size);
    mend(bytes, data[1], isFromPeer);
    const std::uint64_t before = counted();
    world.network.sent.clear();
    if (isFromPeer) {
        world.carrier.takeFromPeer(bytes.data(), static_cast<int>(bytes.size()));
        requireControl(world);
    } else {
        fromHere(world, bytes);
    }
    require(counted() == before + 1);
    return 0;
}
