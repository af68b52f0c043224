// A sender (service 61) and a receiver (service 76) in one simulated process, with verbs for what tests do to them.
// The receiver is silent unless a test makes it speak.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <deque>
#include <functional>
#include <vector>

#include "ipc/ipc_header.h"
#include "tests/support/eventually.h"
#include "tests/support/simulation.h"
#include "zel/ipc.h"
#include "zel/kernel.h"

namespace zel::test {

inline zelSwpStatus statusOf(uint32_t queue) {
    zelSwpStatus status{};
    EXPECT_EQ(zelSwpGetQueueStatus(queue, &status), 0) << "queue " << queue;
    return status;
}

// How often a system error was raised, among the last ones kept.
inline int systemErrors(uint32_t event) {
    zelSysErrRecord records[64];
    const int count = zelSysErrGetLast(records, 64);
    int found = 0;
    for (int i = 0; i < count; ++i) found += records[i].event == event ? 1 : 0;
    return found;
}

class World {
public:
    static constexpr int messageLength = 200;

    explicit World(unsigned seed = 1, Faults faults = {}) : network(seed, faults) {
        present = this;
        senderKey = static_cast<uint32_t>(zelIpcOpen(61, 0));
        receiverKey = static_cast<uint32_t>(zelIpcOpen(76, 0));
        zelTmeSetTaskEntry(76, 0, ZEL_TME_HERE, zel_sysGetIpAddr());
        network.watch([this](uint32_t port, const Simulation::Bytes &bytes) {
            if (port == zel_getQueueId(76, 0, 1)) sentToReceiver.push_back(bytes);
        });
    }
    ~World() {
        for (uint32_t queue = 1; queue <= ZEL_SWP_MAX_QUEUES; ++queue) {
            zelSwpStatus status;
            if (zelSwpGetQueueStatus(queue, &status) == 0 && status.pid == getpid()) zelSwpQueueRemove(queue);
        }
        zelIpcClose(senderKey);
        zelIpcClose(receiverKey);
        present = nullptr;
    }

    uint32_t create(uint32_t capacity, uint32_t seconds = 1, uint8_t budget = 5) {
        uint32_t queue = 0;
        EXPECT_EQ(zelSwpQueueCreate(61, 0, 76, 0, capacity, 0, seconds, budget, note, &queue), 0);
        return queue;
    }
    // Enqueues a buffer of its own.
    int enqueue(uint32_t queue) {
        buffers_.emplace_back();
        return zelSwpEnqueue(queue, buffers_.back().bytes, messageLength);
    }
    uint8_t *buffer(int i) { return buffers_[static_cast<size_t>(i)].bytes; }

    // What the receiver would answer when `last` was the last message in order.
    Simulation::Bytes acknowledgement(uint32_t queue, uint32_t last, uint32_t result) {
        Simulation::Bytes ack(124);
        ipc::IpcHeader::Magic::set(ack.data(), ipc::IpcHeader::magic);
        ipc::IpcHeader::PacketType::set(ack.data(), 0x53574143);
        ipc::IpcHeader::SourceAddress::set(ack.data(), zel_sysGetIpAddr());
        ipc::IpcHeader::SourceQueue::set(ack.data(), zel_getQueueId(76, 0, 1));
        ipc::SwpHeader::Queue::set(ack.data() + 60, queue);
        ipc::SwpHeader::SequenceLow::set(ack.data() + 60, last);
        ipc::SwpHeader::Result::set(ack.data() + 60, result);
        ipc::SwpHeader::Stream::set(ack.data() + 60, statusOf(queue).stream);
        return ack;
    }
    int acknowledge(uint32_t queue, uint32_t last, uint32_t result) {
        const auto ack = acknowledgement(queue, last, result);
        uint32_t named = 0;
        const int verdict = zelSwpProcAck(ack.data(), static_cast<int>(ack.size()), &named);
        EXPECT_EQ(named, queue);
        return verdict;
    }
    int dequeueAll(uint32_t queue) {
        int count = 0;
        for (void *message = nullptr; zelSwpDequeue(queue, &message) == 0; ++count) EXPECT_NE(message, nullptr);
        return count;
    }

    void wait(double seconds) {
        const auto end = network.now() + static_cast<uint64_t>(seconds * 1e9);
        zelPlatformSeam()->sleepUntil(zelPlatformSeam()->context, end);
    }
    size_t sentWithin(double seconds) {
        const size_t before = sentToReceiver.size();
        wait(seconds);
        return sentToReceiver.size() - before;
    }

    static void note(void *message, int code) {
        present->codes.push_back(code);
        present->messages.push_back(message);
        if (present->onNote) present->onNote(code);
    }
    static void noteFree(void *message) { present->freed.push_back(message); }

    Simulation network;
    uint32_t senderKey = 0;
    uint32_t receiverKey = 0;
    std::vector<Simulation::Bytes> sentToReceiver;
    std::vector<int> codes;
    std::vector<void *> messages;
    std::vector<void *> freed;
    std::function<void(int)> onNote;

private:
    struct Buffer {
        uint8_t bytes[messageLength] = {};
    };
    std::deque<Buffer> buffers_;
    static inline World *present = nullptr;
};

}  // namespace zel::test
