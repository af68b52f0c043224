// A stream of messages of 6.3 KB between two processes: through a sliding-window queue, through bare sockets with the
// same window and as many acknowledgements, and through ZeroMQ.
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>
#include <zmq.hpp>

#include "bench/bare_stream.h"
#include "bench/support/row.h"
#include "tests/support/child.h"
#include "zel/ipc.h"
#include "zel/kernel.h"
#include "zel/platform.h"

namespace {

using namespace zel::bench;
using zel::test::Child;

constexpr int messageBytes = 6338;  // a full batch of routes
constexpr uint32_t capacity = 64;

// ---- Sliding-window queue -------------------------------------------------------------------------------------------

ZEL_CHILD(benchSwpReceiver) {
    const auto key = static_cast<uint32_t>(zelIpcOpen(receiverService, 0));
    zelSwpReceiver *receiver = zelSwpReceiverCreate(key, 0, ackInterval);
    static uint8_t message[8192];
    for (;;) {
        const int length = zelIpcRecv(key, message, sizeof message, -1, 0, 0);
        if (length < 0) return 1;
        benchmark::DoNotOptimize(zelSwpReceiverAccept(receiver, message, length));
    }
}

class SlidingWindow {
public:
    SlidingWindow() : child_(Child::start("benchSwpReceiver")), buffers_(capacity, std::vector<uint8_t>(messageBytes)) {
        vx2bsd_start(0, 1, 100, 100);
        key_ = static_cast<uint32_t>(zelIpcOpen(senderService, 0));
        zelTmeSetTaskEntry(receiverService, 0, ZEL_TME_HERE, zel_sysGetIpAddr());
        zelSwpQueueCreate(
            senderService, 0, receiverService, 0, capacity + 1, window, 1, 255, [](void *, int) {}, &queue_);
        for (auto &buffer : buffers_) free_.push_back(buffer.data());
    }
    ~SlidingWindow() {
        zelSwpQueueRemove(queue_);
        zelIpcClose(key_);
    }
    bool send() {
        while (free_.empty())
            if (!collect()) return false;
        void *message = free_.back();
        free_.pop_back();
        return zelSwpEnqueue(queue_, message, messageBytes) == 0;
    }
    bool drain() {
        while (free_.size() < capacity)
            if (!collect()) return false;
        return true;
    }

private:
    bool collect() {
        uint8_t ack[256];
        const int length = zelIpcRecv(key_, ack, sizeof ack, 10, 0, 0);
        if (length < 0) return false;
        zelSwpProcAck(ack, length, nullptr);
        for (void *message = nullptr; zelSwpDequeue(queue_, &message) == 0;) free_.push_back(message);
        return true;
    }

    Child child_;
    std::vector<std::vector<uint8_t>> buffers_;
    std::vector<void *> free_;
    uint32_t key_ = 0;
    uint32_t queue_ = 0;
};

// ---- Bare sockets ---------------------------------------------------------------------------------------------------

struct Bare : BareStream {
    Bare() : BareStream(messageBytes) {}
};

// ---- ZeroMQ ---------------------------------------------------------------------------------------------------------

std::string zmqEndpoint(int pid) {
    return "ipc:///tmp/zelbench" + std::to_string(pid);
}

ZEL_CHILD(benchZmqReceiver) {
    zmq::context_t context(1);
    zmq::socket_t socket(context, zmq::socket_type::pull);
    socket.connect(zmqEndpoint(atoi(argv[0])));
    for (zmq::message_t message;;)
        if (!socket.recv(message)) return 1;
}

class PushPull {
public:
    PushPull() : context_(1), socket_(context_, zmq::socket_type::push) {
        socket_.set(zmq::sockopt::linger, 0);
        socket_.set(zmq::sockopt::sndtimeo, 10'000);
        socket_.bind(zmqEndpoint(getpid()));
        child_.push_back(Child::start("benchZmqReceiver", {std::to_string(getpid())}));
    }
    ~PushPull() {
        socket_.close();
        unlink(zmqEndpoint(getpid()).c_str() + strlen("ipc://"));
    }
    bool send() { return socket_.send(zmq::buffer(message_), zmq::send_flags::none).has_value(); }
    bool drain() { return true; }

private:
    zmq::context_t context_;
    zmq::socket_t socket_;
    std::vector<uint8_t> message_ = std::vector<uint8_t>(messageBytes);
    std::vector<Child> child_;
};

// ---- The row --------------------------------------------------------------------------------------------------------

template <class Stream>
void stream(benchmark::State &state) {
    Stream sender;
    if constexpr (!std::is_same_v<Stream, PushPull>)
        for (int tries = 0; !isBound(receiverService) && tries < 1'000; ++tries) usleep(1'000);
    for (int i = 0; i < 200; ++i) sender.send();
    for (auto _ : state) {
        if (sender.send()) continue;
        state.SkipWithError("the stream stopped");
        break;
    }
    sender.drain();
}

ZEL_ROW("sliding-window stream of 6.3 KB messages", "messages/s", rate)
    .ours(stream<SlidingWindow>)
    .peer("raw sendto/recv, same window and acknowledgements", stream<Bare>, 0.9, 2.5)
    .peer("ZeroMQ push/pull over ipc", stream<PushPull>, 1.0, 1.5);

}  // namespace
