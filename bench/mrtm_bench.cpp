// Multicast batches: five routes each, put together record by record, to a receiver that counts them, against messages
// of the same size that are ready to go.
#include <array>
#include <cstdlib>
#include <cstring>

#include "bench/sliding_window.h"
#include "bench/support/row.h"
#include "zel/mrtm.h"

namespace {

using namespace zel::bench;
using zel::test::Child;

constexpr size_t batchBytes = 144 + MRTM_MAX_REQS * (4 + ZEL_MRTM_ROUTE_LENGTH);
constexpr int patience = 10;

// The manager of multicast routes stands for the receiver of the bare streams.
ZEL_CHILD(benchMulticastReceiver) {
    const auto key = static_cast<uint32_t>(zelIpcOpen(ZEL_MRTM_SERVICE, 0));
    zelSwpReceiver *receiver = zelSwpReceiverCreate(key, 0, ackInterval);
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

class MulticastPusher {
public:
    MulticastPusher() : child_(Child::start("benchMulticastReceiver")) {
        vx2bsd_start(0, 1, 100, 100);
        key_ = static_cast<uint32_t>(zelIpcOpen(senderService, 0));
        us_ = {senderService, key_, 0, 0, 0};
        zelTmeSetTaskEntry(senderService, 0, ZEL_TME_HERE, zel_sysGetIpAddr());
        zelTmeSetTaskEntry(ZEL_MRTM_SERVICE, 0, ZEL_TME_HERE, zel_sysGetIpAddr());
        zelSwpQueueCreate(
            senderService, 0, ZEL_MRTM_SERVICE, 0, 0, window, 1, 255, [](void *, int) {}, &queue_);
        swpFifoQueue[queue_] = {[](uint32_t bytes) { return malloc(bytes); }, free};
        for (int tries = 0; !isBound(ZEL_MRTM_SERVICE) && tries < 1'000; ++tries) usleep(1'000);
        makeRecords();
    }
    ~MulticastPusher() {
        zelMrtmDropPending(&pending_, queue_);
        zelSwpQueueRemove(queue_);
        zelIpcClose(key_);
    }
    MulticastPusher(const MulticastPusher &) = delete;
    MulticastPusher &operator=(const MulticastPusher &) = delete;

    // One batch; the lists of its routes are new, so they are compressed every time.
    bool send() {
        for (Record &record : records_) {
            fresh_ = record;
            if (zelMrtmUpdateRouteIPv4(ZEL_MRTM_IPV4, 1, ZEL_MRTM_ADD, fresh_.data(), &pending_, &us_, queue_) != 0)
                return false;
        }
        return await(2 * window);
    }
    bool drain() { return await(0); }

private:
    using Record = std::array<uint8_t, ZEL_MRTM_ROUTE_LENGTH>;

    void makeRecords() {
        zelMrtmRoute route{};
        route.listKind = ZEL_MRTM_LISTS_OF_ALL;
        for (int i = 0; i < 8; ++i) route.lists[i % 2][i * 70] = 0x11;
        for (Record &record : records_) {
            ++route.group[3];
            zelMrtmWriteRoute(ZEL_MRTM_IPV4, &route, record.data());
        }
    }
    bool await(int most) {
        while (zelSwpQueueGetLen(queue_) > most) {
            uint8_t message[256];
            const int length = zelIpcRecv(key_, message, sizeof message, patience, 0, 0);
            if (length < 0) return false;
            zelSwpProcAck(message, length, nullptr);
            while (zelMrtmUpdateRouteSwpAck(queue_) == 0) continue;
        }
        return true;
    }

    Child child_;
    uint32_t key_ = 0;
    uint32_t queue_ = 0;
    zelIpcAddr us_{};
    void *pending_ = nullptr;
    std::array<Record, MRTM_MAX_REQS> records_;
    Record fresh_;
};

struct SameSize : SlidingWindow {
    SameSize() : SlidingWindow(batchBytes) {}
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
    .peer("sliding-window stream of the same size", stream<SameSize>, 0.95);

}  // namespace
