// Any datagram at a request queue and at a response queue: it is delivered, or counted as dropped, and the wait ends at
// its deadline. The first two bytes choose what is waited for and how large the buffer is; the rest is the datagram.
#include "fuzz/support/fuzz.h"
#include "tests/support/fake_network.h"
#include "zel/kernel.h"

namespace {

using zel::fuzz::require;
using zel::test::Bytes;
using zel::test::FakeNetwork;

std::uint64_t accountedFor(std::uint32_t key) {
    zelIpcQueueStats stats{};
    require(zelIpcGetQueueStats(key, &stats) == 0);
    return stats.received + stats.droppedShort + stats.droppedMagic + stats.droppedMismatch + stats.droppedLateAck +
           stats.droppedDuplicate;
}

struct World {
    World() {
        zelTraceInit();
        key = static_cast<std::uint32_t>(zelIpcOpen(76, 0));
    }
    FakeNetwork network;
    std::uint32_t key;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    static World world;
    if (size < 2) return 0;
    const Bytes datagram(data + 2, data + size);
    const std::uint32_t type = data[0] & 3, transaction = data[0] >> 2 & 3;
    Bytes buffer(60 + data[1] % 64u);
    const int capacity = static_cast<int>(buffer.size());
    FakeNetwork &network = world.network;

    const std::uint64_t before = accountedFor(world.key);
    const std::uint64_t begin = network.now;
    network.arrive(Key_getSocketFd(world.key), datagram);
    const int received = zelIpcRecv(world.key, buffer.data(), capacity, 1, type, transaction);
    require(received <= capacity && (received == -1 || received >= 60));
    require(network.now - begin == (received == -1 ? 1'000'000'000u : 0u));
    require(accountedFor(world.key) == before + 1);
    if (received > 0) zelIpcReply(world.key, buffer.data(), received);

    const std::uint64_t answers = accountedFor(world.key | 2);
    network.arrive(Key_getSocketFd(world.key | 2), datagram);
    Bytes request(60);
    zelIpcHdrSet32(request.data(), 32, transaction);
    const int answered =
        zelIpcSendWaitWithRetry(world.key, request.data(), buffer.data(), 60, capacity, 1, type, transaction, 0);
    require(answered <= capacity && (answered == -1 || answered >= 60));
    require(accountedFor(world.key | 2) == answers + 1);
    network.sent.clear();
    return 0;
}
