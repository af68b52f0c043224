// A stream of messages to another process through sliding-window queues: one queue, or a list of several.
#pragma once

#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <vector>

#include "bench/bare_stream.h"
#include "tests/support/child.h"
#include "zel/ipc.h"
#include "zel/kernel.h"

namespace zel::bench {

// Room for the windows of several queues, as the managers have it.
constexpr int receiveBuffer = 8 << 20;

ZEL_CHILD(benchSwpReceiver) {
    const auto key = static_cast<uint32_t>(zelIpcOpen(receiverService, 0));
    zelSwpReceiver *receiver = zelSwpReceiverCreate(key, 0, ackInterval);
    int error = 0;
    zelIpcSetRecvBufferLimit(key | ZEL_IPC_QUEUE_REQUEST, receiveBuffer, &error);
    static uint8_t message[8192];
    for (;;) {
        const int length = zelIpcRecv(key, message, sizeof message, -1, 0, 0);
        if (length < 0) return 1;
        benchmark::DoNotOptimize(zelSwpReceiverAccept(receiver, message, length));
    }
}

class SlidingWindow {
public:
    explicit SlidingWindow(size_t messageBytes, uint32_t queues = 1, uint32_t buffers = 64)
        : child_(test::Child::start("benchSwpReceiver")),
          buffers_(buffers, std::vector<uint8_t>(messageBytes)),
          queues_(queues) {
        vx2bsd_start(0, 1, 100, 100);
        key_ = static_cast<uint32_t>(zelIpcOpen(senderService, 0));
        zelTmeSetTaskEntry(receiverService, 0, ZEL_TME_HERE, zel_sysGetIpAddr());
        const auto ignore = [](void *, int) {};
        if (queues > 1)
            zelSwpQListCreate(senderService, 0, receiverService, 0, buffers + 1, window, 1, 255, ignore, queues, queues,
                              5, &list_);
        else
            zelSwpQueueCreate(senderService, 0, receiverService, 0, buffers + 1, window, 1, 255, ignore, &queue_);
        for (uint32_t group = 0; list_ && group < queues; ++group) zelSWPQListAddMsgGroup(list_, group);
        for (auto &buffer : buffers_) free_.push_back(buffer.data());
        for (int tries = 0; !isBound(receiverService) && tries < 1'000; ++tries) usleep(1'000);
    }
    ~SlidingWindow() {
        if (list_)
            zelSwpQListRemove(list_);
        else
            zelSwpQueueRemove(queue_);
        zelIpcClose(key_);
    }
    SlidingWindow(const SlidingWindow &) = delete;
    SlidingWindow &operator=(const SlidingWindow &) = delete;

    // Sends a message; with `content`, which is as long as one, behind its headers.
    bool send(const uint8_t *content = nullptr) {
        while (free_.empty())
            if (!collect()) return false;
        uint8_t *message = free_.back();
        free_.pop_back();
        if (content) memcpy(message + headers, content + headers, buffers_[0].size() - headers);
        const auto length = static_cast<int>(buffers_[0].size());
        if (!list_) return zelSwpEnqueue(queue_, message, length) == 0;
        group_ = group_ + 1 == queues_ ? 0 : group_ + 1;
        return zelSWPQListEnqueue(list_, group_, message, length) == 0;
    }
    bool drain() {
        while (free_.size() < buffers_.size())
            if (!collect()) return false;
        return true;
    }

private:
    static constexpr size_t headers = ZEL_SWP_MIN_MESSAGE;

    bool collect() {
        uint8_t ack[256];
        const int length = zelIpcRecv(key_, ack, sizeof ack, 10, 0, 0);
        if (length < 0) return false;
        uint32_t queue = 0;
        zelSwpProcAck(ack, length, &queue);
        for (void *message = nullptr; zelSwpDequeue(queue, &message) == 0;)
            free_.push_back(static_cast<uint8_t *>(message));
        return true;
    }

    test::Child child_;
    std::vector<std::vector<uint8_t>> buffers_;
    std::vector<uint8_t *> free_;
    uint32_t queues_;
    uint32_t key_ = 0;
    uint32_t queue_ = 0;
    uint32_t group_ = 0;
    zelSwpQList *list_ = nullptr;
};

}  // namespace zel::bench
