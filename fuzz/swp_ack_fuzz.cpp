// Any bytes as an acknowledgement at a sender with a full window, as a message at a receiver, and as a list's message:
// nothing is released that was not sent, what is queued stays accounted for, and answers go out one for one at most.
// The first byte says to whom, the second which header words are made good, so that the rest is reached.
#include <algorithm>
#include <array>

#include "fuzz/support/fuzz.h"
#include "tests/support/fake_network.h"
#include "zel/kernel.h"

namespace {

using zel::fuzz::require;
using zel::test::Bytes;
using zel::test::FakeNetwork;

constexpr int messageBytes = 140;
constexpr std::uint32_t capacity = 12;

struct World {
    World() {
        zelTraceInit();
        zelSwp_log_limit = 1'000'000'000;
        senderKey = static_cast<std::uint32_t>(zelIpcOpen(61, 0));
        receiverKey = static_cast<std::uint32_t>(zelIpcOpen(76, 0));
        zelTmeSetTaskEntry(76, 0, ZEL_TME_HERE, zel_sysGetIpAddr());
        require(zelSwpQueueCreate(
                    61, 0, 76, 0, capacity, 8, 1, 255, [](void *, int) {}, &queue) == 0);
        for (auto &buffer : buffers) free.push_back(buffer.data());
        receiver = zelSwpReceiverCreate(receiverKey, 4, 3);
        expected = zelSwpQListCreateExpSeqList(3);
        require(receiver != nullptr && expected != nullptr);
    }

    zelSwpStatus status() const {
        zelSwpStatus now{};
        require(zelSwpGetQueueStatus(queue, &now) == 0);
        return now;
    }
    void refill() {
        while (!free.empty()) {
            if (zelSwpEnqueue(queue, free.back(), messageBytes) != 0) return;
            free.pop_back();
        }
    }
    void collect() {
        for (void *message = nullptr; zelSwpDequeue(queue, &message) == 0;) {
            require(std::find(free.begin(), free.end(), message) == free.end());
            free.push_back(message);
        }
    }

    FakeNetwork network;
    std::uint32_t senderKey, receiverKey, queue = 0;
    zelSwpReceiver *receiver;
    zelSwpExpSeqList *expected;
    std::array<std::array<std::uint8_t, messageBytes>, capacity> buffers{};
    std::vector<void *> free;
};

void mend(Bytes &bytes, unsigned bits, const World &world) {
    const zel::fuzz::Word words[] = {{0, ZEL_IPC_MAGIC},          {24, ZEL_SWP_ACK_PACKET},
                                     {40, zel_sysGetIpAddr()},    {44, zel_getQueueId(76, 0, 1)},
                                     {60, world.queue},           {64, 0},
                                     {76, world.status().stream}, {80, 0}};
    zel::fuzz::mend(bytes, bits, words);
}

void asAcknowledgement(World &world, const Bytes &bytes) {
    world.refill();
    world.network.sent.clear();
    const zelSwpStatus before = world.status();
    const int result = zelSwpProcAck(bytes.data(), static_cast<int>(bytes.size()), nullptr);
    const zelSwpStatus after = world.status();
    require(result == 0 || result == 4 || result == 5 || result == 6);
    require(after.acknowledged - before.acknowledged <= before.inFlight);
    require(result == 0 || after.acknowledged == before.acknowledged);
    require(after.inFlight <= 8 && after.queued == before.queued);
    require(after.memory == std::uint64_t{after.queued} * messageBytes);
    require(world.network.sent.size() <= 8);
    world.collect();
    require(world.status().queued == before.queued - (after.acknowledged - before.acknowledged));
}

void asMessage(World &world, const Bytes &bytes) {
    zelSwpReceiverStats before{}, after{};
    zelSwpReceiverGetStats(world.receiver, &before);
    const int result = zelSwpReceiverAccept(world.receiver, bytes.data(), static_cast<int>(bytes.size()));
    zelSwpReceiverFlush(world.receiver);
    zelSwpReceiverGetStats(world.receiver, &after);
    require(result == 1 || result == 2 || result == 4);
    require(after.accepted - before.accepted == (result == 1 ? 1u : 0u));
    require(after.sources <= 4 && world.network.sent.size() <= 1);
}

void asListMessage(World &world, const Bytes &bytes) {
    const int result =
        zelSwpQListCkSeqAndAck(world.receiverKey, bytes.data(), world.expected, static_cast<int>(bytes.size()));
    require(result == 1 || result == 2 || result == 4);
    require(world.network.sent.size() <= 1);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    static World world;
    if (size < 2) return 0;
    Bytes bytes(data + 2, data + size);
    world.network.sent.clear();
    mend(bytes, data[1], world);
    void (*const targets[])(World &, const Bytes &) = {asAcknowledgement, asMessage, asListMessage};
    targets[data[0] % 3](world, bytes);
    return 0;
}
