// A stream of messages of 6.3 KB between two processes: through a sliding-window queue or a list of them, through bare
// sockets with the same window and as many acknowledgements, and through ZeroMQ.
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>
#include <zmq.hpp>

#include "bench/bare_stream.h"
#include "bench/sliding_window.h"
#include "bench/support/row.h"
#include "tests/support/child.h"
#include "zel/ipc.h"
#include "zel/kernel.h"
#include "zel/platform.h"

namespace {

using namespace zel::bench;
using zel::test::Child;

constexpr int messageBytes = 6338;  // a full batch of routes

// ---- Sliding-window queues ------------------------------------------------------------------------------------------

struct OneQueue : SlidingWindow {
    OneQueue() : SlidingWindow(messageBytes) {}
};

struct ListOfFour : SlidingWindow {
    ListOfFour() : SlidingWindow(messageBytes, 4) {}
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

// ---- The rows -------------------------------------------------------------------------------------------------------

template <class Stream>
void stream(benchmark::State &state) {
    Stream sender;
    if constexpr (std::is_same_v<Stream, Bare>)
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
    .ours(stream<OneQueue>)
    .peer("raw sendto/recv, same window and acknowledgements", stream<Bare>, 0.9, 2.5)
    .peer("ZeroMQ push/pull over ipc", stream<PushPull>, 1.0, 1.5);

ZEL_ROW("queue list of 4 queues, messages/s to one receiver", "messages/s", rate)
    .ours(stream<ListOfFour>)
    .peer("one queue", stream<OneQueue>, 1.0);

}  // namespace
