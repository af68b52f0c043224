// Clients of a manager of routes: this process owns the endpoints of two of them.
#pragma once

#include <gtest/gtest.h>
#include <signal.h>

#include <atomic>
#include <cstdlib>
#include <list>
#include <memory>
#include <string>
#include <vector>

#include "tests/programs/program.h"
#include "tests/programs/stranger.h"
#include "zel/rtm.h"

namespace zel::test {

using Bytes = std::vector<std::uint8_t>;

inline std::atomic<int> streamEnded = 0;  // why
inline int messagesOut = 0;               // of the queues' hooks, that did not come back

// An endpoint with a queue to the manager.
class ManagerClient {
public:
    // `release` frees what the queue has acknowledged, and is 0 while there is more.
    ManagerClient(int service, int manager, std::uint32_t retransmitSeconds, std::uint8_t retransmissions,
                  int (*release)(std::uint32_t))
        : key(static_cast<std::uint32_t>(zelIpcOpen(service, 0))),
          address{static_cast<std::uint32_t>(service), 0, 0, 0, 0},
          release_(release) {
        address.taskKey = key;
        const auto note = [](void *, int code) { streamEnded = code; };
        EXPECT_EQ(zelSwpQueueCreate(service, 0, manager, 0, 0, 0, retransmitSeconds, retransmissions, note, &queue), 0);
        swpFifoQueue[queue] = {[](std::uint32_t bytes) { return ++messagesOut, malloc(bytes); },
                               [](void *message) { --messagesOut, free(message); }};
    }
    virtual ~ManagerClient() {
        zelSwpQueueRemove(queue);
        zelIpcClose(key);
    }
    ManagerClient(const ManagerClient &) = delete;
    ManagerClient &operator=(const ManagerClient &) = delete;

    // Takes up an acknowledgement, or keeps what else comes; false when nothing comes for two seconds.
    bool receive() {
        Bytes buffer(8192);
        const int length = zelIpcRecv(key | 1, buffer.data(), static_cast<int>(buffer.size()), 2, 0, 0);
        if (length <= 0) return false;
        buffer.resize(static_cast<std::size_t>(length));
        if (zelIpcHdrGet32(buffer.data(), packetTypeWord) == ZEL_SWP_ACK_PACKET) {
            zelSwpProcAck(buffer.data(), length, nullptr);
            while (release_(queue) == 0) continue;
        } else {
            keep(buffer);
        }
        return true;
    }
    // Waits until everything queued is acknowledged, or the stream has ended.
    void settle() {
        while (zelSwpQueueGetLen(queue) > 0 && streamEnded == 0) receive();
    }
    // The next message that was kept, if it is of that type.
    Bytes next(std::uint32_t type) {
        while (others.empty() && receive()) continue;
        if (others.empty() || zelIpcHdrGet32(others.front().data(), typeWord) != type) return {};
        const Bytes found = others.front();
        others.pop_front();
        return found;
    }

    std::uint32_t key, queue = 0, handle = 0;
    zelIpcAddr address;
    void *pending = nullptr;
    std::list<Bytes> others;

protected:
    static constexpr unsigned typeWord = 12, packetTypeWord = 24;
    virtual void keep(const Bytes &message) { others.push_back(message); }

private:
    int (*release_)(std::uint32_t);
};

// A manager under the task manager with two clients, which end with a whole stream and without a message lost.
template <class Client>
class ManagerTest : public testing::Test {
protected:
    ManagerTest(const char *ready, const std::vector<std::string> &arguments) : manager("zeltmed", arguments) {
        EXPECT_TRUE(manager.says(ready));
        for (auto [client, service] : {std::pair(&a, 61), std::pair(&b, 60)}) {
            *client = std::make_unique<Client>(service);
            EXPECT_TRUE((*client)->enter());
        }
    }
    ~ManagerTest() override {
        a.reset();
        b.reset();
        EXPECT_EQ(messagesOut, 0);
        EXPECT_EQ(streamEnded, 0);
        manager.signal(SIGTERM);
        EXPECT_EQ(manager.wait(), 0) << manager.output();
        EXPECT_TRUE(manager.says("ended with status 0"));
    }
    std::uint64_t counter(int which) {
        std::uint64_t counters[Client::counters] = {};
        EXPECT_EQ(Client::getCounters(&a->address, counters), 0);
        return counters[which];
    }

    Program manager;
    std::unique_ptr<Client> a, b;
};

}  // namespace zel::test
