// Multicast batches: five routes each, put together record by record, to a receiver that counts them, against messages
// of the same size. The routes' lists are compressed when they are sent for the first time, and stay so.
#include <array>
#include <cstdlib>
#include <vector>

#include "bench/sliding_window.h"
#include "bench/support/row.h"
#include "zel/mrtm.h"

namespace {

using namespace zel::bench;
using zel::test::Child;

constexpr size_t batchBytes = 144 + MRTM_MAX_REQS * (4 + ZEL_MRTM_ROUTE_LENGTH);
constexpr int patience = 10;
constexpr uint32_t buffers = 2 * window;

// The manager of multicast routes stands for the receiver of the bare streams.
ZEL_CHILD(benchMulticastReceiver) {
    const auto key = static_cast<uint32_t>(zelIpcOpen(ZEL_MRTM_SERVICE, 0));
    zelSwpReceiver *receiver = zelSwpReceiverCreate(key, 0, ackInterval);
    int error = 0;
    zelIpcSetRecvBufferLimit(key | ZEL_IPC_QUEUE_REQUEST, receiveBuffer, &error);
    static uint8_t message[ZEL_MRTM_MAX_MESSAGE];
    uint64_t routes = 0;
    for (;;) {
        const int length = zelIpcRecv(key, message, sizeof message, -1, 0, 0);
        zelMrtmBatch batch;
        if (length < 0) return 1;
        if (zelSwpReceiverAccept(receiver, message, length) != ZEL_SWP_MATCHED) continue;
        if (zelMrtmParseBatch(message, length, &batch) == 0) routes += batch.routes;
        benchmark::DoNotOptimize(routes);
    }
}

// Batches in buffers of a pool, as many as the stream beside it has.
class MulticastPusher {
public:
    MulticastPusher() : child_(Child::start("benchMulticastReceiver")) {
        vx2bsd_start(0, 1, 100, 100);
        key_ = static_cast<uint32_t>(zelIpcOpen(senderService, 0));
        us_ = {senderService, key_, 0, 0, 0};
        zelTmeSetTaskEntry(senderService, 0, ZEL_TME_HERE, zel_sysGetIpAddr());
        zelTmeSetTaskEntry(ZEL_MRTM_SERVICE, 0, ZEL_TME_HERE, zel_sysGetIpAddr());
        zelSwpQueueCreate(
            senderService, 0, ZEL_MRTM_SERVICE, 0, buffers + 1, window, 1, 255, [](void *, int) {}, &queue_);
        swpFifoQueue[queue_] = {take, giveBack};
        for (size_t i = 0; i < buffers; ++i) giveBack(malloc(ZEL_MRTM_MAX_MESSAGE));
        for (int tries = 0; !isBound(ZEL_MRTM_SERVICE) && tries < 1'000; ++tries) usleep(1'000);
        makeRecords();
    }
    ~MulticastPusher() {
        zelMrtmDropPending(&pending_, queue_);
        zelSwpQueueRemove(queue_);
        zelIpcClose(key_);
        while (void *buffer = take(0)) free(buffer);
    }
    MulticastPusher(const MulticastPusher &) = delete;
    MulticastPusher &operator=(const MulticastPusher &) = delete;

    bool send() {
        while (free_.empty())
            if (!collect()) return false;
        for (Record &record : records_)
            if (zelMrtmUpdateRouteIPv4(ZEL_MRTM_IPV4, 1, ZEL_MRTM_ADD, record.data(), &pending_, &us_, queue_) != 0)
                return false;
        return true;
    }
    bool drain() {
        while (free_.size() < buffers)
            if (!collect()) return false;
        return true;
    }

private:
    using Record = std::array<uint8_t, ZEL_MRTM_ROUTE_LENGTH>;
    static void *take(uint32_t) {
        if (free_.empty()) return nullptr;
        void *buffer = free_.back();
        free_.pop_back();
        return buffer;
    }
    static void giveBack(void *buffer) { free_.push_back(buffer); }

    void makeRecords() {
        zelMrtmRoute route{};
        route.listKind = ZEL_MRTM_LISTS_OF_ALL;
        for (int i = 0; i < 8; ++i) route.lists[i % 2][i * 70] = 0x11;
        for (Record &record : records_) {
            ++route.group[3];
            zelMrtmWriteRoute(ZEL_MRTM_IPV4, &route, record.data());
        }
    }
    bool collect() {
        uint8_t message[256];
        const int length = zelIpcRecv(key_, message, sizeof message, patience, 0, 0);
        if (length < 0) return false;
        zelSwpProcAck(message, length, nullptr);
        while (zelMrtmUpdateRouteSwpAck(queue_) == 0) continue;
        return true;
    }

    static inline std::vector<void *> free_;
    Child child_;
    uint32_t key_ = 0;
    uint32_t queue_ = 0;
    zelIpcAddr us_{};
    void *pending_ = nullptr;
    std::array<Record, MRTM_MAX_REQS> records_;
};

struct Ready : SlidingWindow {
    Ready() : SlidingWindow(batchBytes, 1, buffers) {}
};

// Messages are new here as well: their bytes are copied in.
struct SameSize : Ready {
    bool send() { return Ready::send(content_.data()); }

private:
    std::vector<uint8_t> content_ = std::vector<uint8_t>(batchBytes, 1);
};

template <class Stream>
void stream(benchmark::State &state) {
    Stream sender;
    for (auto _ : state)
        if (!sender.send()) return state.SkipWithError("the stream stopped");
    sender.drain();
}

ZEL_ROW("multicast batches, messages/s", "messages/s", rate)
    .ours(stream<MulticastPusher>)
    .peer("sliding-window stream of the same size", stream<SameSize>, 0.95)
    .peer("the same stream of messages nobody writes", stream<Ready>);

}  // namespace
