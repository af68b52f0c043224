// A sender (service 61) and a receiver (service 76) in one simulated process, with verbs for what tests do to them.
// The receiver is silent unless a test makes it speak.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <deque>
#include <functional>
#include <vector>

#include "ipc/ipc_header.h"
#include "tests/support/simulation.h"
#include "zel/ipc.h"
#include "zel/kernel.h"

namespace zel::test {

inline zelSwpStatus statusOf(uint32_t queue) {
    zelSwpStatus status{};
    EXPECT_EQ(zelSwpGetQueueStatus(queue, &status), 0) << "queue " << queue;
    return status;
}

class World {
public:
    static constexpr int messageLength = 200;

    explicit World(unsigned seed = 1, Faults faults = {}) : network(seed, faults) {
        present = this;
        senderKey = static_cast<uint32_t>(zelIpcOpen(61, 0));
        receiverKey = static_cast<uint32_t>(zelIpcOpen(76, 0));
        for (const uint32_t key : {senderKey, receiverKey}) network.connect(key);
        zelTmeSetTaskEntry(76, 0, ZEL_TME_HERE, zel_sysGetIpAddr());
        network.watch = [this](uint32_t port, const Bytes &bytes) {
            if (port == zel_getQueueId(76, 0, 1)) sentToReceiver.push_back(bytes);
        };
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
    // Enqueues buffers of their own; the result of the last.
    int enqueue(uint32_t queue, int count = 1) {
        int result = 0;
        for (int i = 0; i < count && result == 0; ++i)
            result = zelSwpEnqueue(queue, buffers_.emplace_back().bytes, messageLength);
        return result;
    }
    uint8_t *buffer(int i) { return buffers_[static_cast<size_t>(i)].bytes; }
    // The sequence number of the message sent last.
    uint32_t lastSent() const { return ipc::SwpHeader::SequenceLow::get(sentToReceiver.back().data() + 60); }

    // What the receiver would answer when `last` was the last message in order.
    Bytes acknowledgement(uint32_t queue, uint32_t last, uint32_t result = 1) {
        Bytes ack(124);
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
    int acknowledge(uint32_t queue, uint32_t last) {
        const auto ack = acknowledgement(queue, last);
        return zelSwpProcAck(ack.data(), static_cast<int>(ack.size()), nullptr);
    }
    int dequeueAll(uint32_t queue) {
        int count = 0;
        for (void *message = nullptr; zelSwpDequeue(queue, &message) == 0; ++count) EXPECT_NE(message, nullptr);
        return count;
    }

    void wait(double seconds) {
        zelPlatformSeam()->sleepUntil(zelPlatformSeam()->context, network.now + static_cast<uint64_t>(seconds * 1e9));
    }
    size_t sentWithin(double seconds) {
        const size_t before = sentToReceiver.size();
        wait(seconds);
        return sentToReceiver.size() - before;
    }

    static void note(void *message, int code) {
        present->codes.push_back(code);
        present->lastMessage = message;
        if (present->onNote) present->onNote(code);
    }
    static void noteFree(void *) { ++present->freed; }

    Simulation network;
    uint32_t senderKey = 0, receiverKey = 0;
    std::vector<Bytes> sentToReceiver;
    std::vector<int> codes;  // of the callback
    void *lastMessage = nullptr;
    std::function<void(int)> onNote;
    unsigned freed = 0;

private:
    struct Buffer {
        uint8_t bytes[messageLength] = {};
    };
    std::deque<Buffer> buffers_;
    static inline World *present = nullptr;
};

}  // namespace zel::test
