// A stream of messages of 6.3 KB between two processes: through a sliding-window queue, through bare sockets with the
// same window and as many acknowledgements, and through ZeroMQ.
#include <arpa/inet.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>
#include <zmq.hpp>

#include "bench/support/row.h"
#include "tests/support/child.h"
#include "zel/ipc.h"
#include "zel/kernel.h"
#include "zel/platform.h"

namespace {

using zel::test::Child;

constexpr int messageBytes = 6338;  // a full batch of routes
constexpr int ackBytes = 124;
constexpr int window = 8;
constexpr int ackInterval = window;
constexpr uint32_t capacity = 64;
constexpr int senderService = 61;
constexpr int receiverService = 76;

uint16_t portOf(int service) {
    return static_cast<uint16_t>(zel_getQueueId(service, 0, ZEL_IPC_QUEUE_REQUEST));
}

sockaddr_in addressOf(int service) {
    sockaddr_in name{};
    name.sin_family = AF_INET;
    name.sin_port = htons(portOf(service));
    name.sin_addr.s_addr = htonl(zel_sysGetIpAddr());
    return name;
}

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

int bareSocket(int service) {
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const sockaddr_in name = addressOf(service);
    const int bytes = 129024;
    setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &bytes, sizeof bytes);
    const timeval limit{10, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    return bind(fd, reinterpret_cast<const sockaddr *>(&name), sizeof name) == 0 ? fd : -1;
}

bool bareSend(int fd, const void *bytes, size_t length, int service) {
    const sockaddr_in to = addressOf(service);
    return sendto(fd, bytes, length, 0, reinterpret_cast<const sockaddr *>(&to), sizeof to) ==
           static_cast<ssize_t>(length);
}

ZEL_CHILD(benchBareReceiver) {
    const int fd = bareSocket(receiverService);
    static uint8_t message[8192], ack[ackBytes];
    for (unsigned count = 0;;) {
        if (recv(fd, message, sizeof message, 0) < 0) continue;
        if (++count % ackInterval == 0 && !bareSend(fd, ack, sizeof ack, senderService)) return 1;
    }
}

class Bare {
public:
    Bare() : child_(Child::start("benchBareReceiver")), fd_(bareSocket(senderService)), message_(messageBytes) {}
    ~Bare() { close(fd_); }
    bool send() {
        while (inFlight_ == window)
            if (!collect()) return false;
        ++inFlight_;
        return bareSend(fd_, message_.data(), message_.size(), receiverService);
    }
    bool drain() {
        while (inFlight_ >= ackInterval)
            if (!collect()) return false;
        return true;
    }

private:
    bool collect() {
        uint8_t ack[256];
        if (recv(fd_, ack, sizeof ack, 0) < 0) return false;
        inFlight_ -= ackInterval;
        return true;
    }

    Child child_;
    int fd_;
    int inFlight_ = 0;
    std::vector<uint8_t> message_;
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

bool isBound(int service) {
    const int probe = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const sockaddr_in name = addressOf(service);
    const bool isTaken = bind(probe, reinterpret_cast<const sockaddr *>(&name), sizeof name) != 0;
    close(probe);
    return isTaken;
}

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
