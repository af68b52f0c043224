// A client of a route table manager that only the test plays: its endpoint, the network between them, and a queue whose
// buffers are counted.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>

#include "tests/support/fake_network.h"
#include "tests/support/reports.h"
#include "zel/ipc.h"
#include "zel/rtm.h"

namespace zel::test {

class ManagerClient : public testing::Test {
protected:
    static constexpr int service = 61;
    static constexpr std::uint32_t key = service << 7;

    explicit ManagerClient(int itsManager) : manager(itsManager) {
        EXPECT_EQ(zelIpcOpen(service, 0), static_cast<int>(key));
        EXPECT_EQ(zelTmeSetTaskEntry(manager, 0, ZEL_TME_REMOTE, 0x7f000002), 0);
        EXPECT_EQ(zelTmeSetTaskEntry(service, 0, ZEL_TME_HERE, zel_sysGetIpAddr()), 0);
    }
    ~ManagerClient() override {
        zelSwpQueueRemove(queue);
        EXPECT_EQ(buffersOut, 0);
    }

    void makeQueue(std::uint32_t capacity, std::uint32_t window) {
        if (queue) zelSwpQueueRemove(queue);
        const auto ignore = [](void *, int) {};
        EXPECT_EQ(zelSwpQueueCreate(service, 0, manager, 0, capacity, window, 1, 1, ignore, &queue), 0);
        swpFifoQueue[queue] = hooks;
    }
    // The manager's answer to each request: the request with these words changed, cut to `length`.
    void answers(std::uint32_t status, std::uint32_t newHandle, std::size_t length = 8192) {
        network.onSend = [=, this](const Sent &sent) {
            Bytes answer = sent.bytes;
            answer[4] = ZEL_IPC_RSP;
            zelIpcHdrSet32(answer.data(), 20, status);
            zelIpcHdrSet32(answer.data(), 60, newHandle);
            answer.resize(std::min(length, answer.size()));
            network.arrive(Key_getSocketFd(key | 2), answer);
        };
    }

    // Handed out by the queue's hooks and not returned. Not zeroed, so that bytes nobody wrote show.
    static inline int buffersOut = 0;
    static constexpr zelSwpFifoHooks hooks = {
        [](std::uint32_t bytes) { return ++buffersOut, memset(malloc(bytes), 0xa5, bytes); },
        [](void *block) { --buffersOut, free(block); }};

    const int manager;
    FakeNetwork network;
    const zelIpcAddr ipc{service, key, 0, 0, 5};
    std::uint32_t queue = 0;
    void *pending = nullptr;  // the batch that is being filled
};

}  // namespace zel::test
