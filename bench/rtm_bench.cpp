// Routes: appended to a batch, streamed to a manager that only counts them, and carried all the way into the manager's
// table.
#include <arpa/inet.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

#include "bench/bare_stream.h"
#include "bench/support/row.h"
#include "programs/support/table_file.h"
#include "programs/zelrtmd/manager.h"
#include "tests/support/eventually.h"
#include "zel/ipc.h"
#include "zel/kernel.h"
#include "zel/rtm.h"

namespace {

using namespace zel::bench;
using zel::programs::Row;
using zel::programs::TableFile;
using zel::test::Child;

constexpr unsigned routesPerBatch = 78;
constexpr unsigned batchHead = 148, routeBytes = 80;
constexpr unsigned lengthWord = 8, routesWord = 140;
constexpr int patience = 10;

zelRtmRoute makeRoute(std::uint32_t number) {
    zelRtmRoute route{};
    const std::uint32_t prefix = htonl(number << 8);
    std::memcpy(route.prefix, &prefix, sizeof prefix);
    std::memset(route.mask, 0xff, 3);
    route.nNextHops = 1;
    route.hop[0].addr[0] = 10;
    route.hop[0].ifIndex = 1;
    return route;
}

// ---- One route into a batch -----------------------------------------------------------------------------------------

void appendOurs(benchmark::State &state) {
    const zelIpcAddr us{senderService, senderService << 7, 0, 0, 0};
    zelTmeSetTaskEntry(receiverService, 0, ZEL_TME_HERE, zel_sysGetIpAddr());
    zelRtmRoute route = makeRoute(1);
    void *pending = nullptr;
    unsigned routes = 0;
    for (auto _ : state) {
        ++route.metric;
        zelRtmUpdateRoute(1, ZEL_RTM_ADD, &route, &pending, &us, 1, 1, ZEL_RTM_IPV4_UNICAST, nullptr, 0);
        if (++routes < routesPerBatch - 1) continue;
        zelIpcHdrSet32(pending, lengthWord, batchHead);
        zelIpcHdrSet32(pending, routesWord, 0);
        routes = 0;
    }
    zelRtmDropPending(&pending, 1, nullptr, 0);
}

void put32(std::uint8_t *at, std::uint32_t value) {
    value = htonl(value);
    std::memcpy(at, &value, sizeof value);
}

void put16(std::uint8_t *at, std::uint16_t value) {
    value = htons(value);
    std::memcpy(at, &value, sizeof value);
}

// The same bytes, by somebody who knows that there is one next hop and nothing can be wrong.
[[gnu::noinline]] void storeRoute(std::uint8_t *batch, const zelRtmRoute &route) {
    const std::uint32_t fill = zelIpcHdrGet32(batch, lengthWord);
    std::uint8_t *at = batch + fill;
    put32(at, ZEL_RTM_ADD);
    std::memcpy(at + 4, route.prefix, 4);
    std::memcpy(at + 8, route.mask, 4);
    put32(at + 12, route.vrfId);
    put16(at + 16, route.nNextHops);
    put16(at + 18, route.tlvLen);
    at[20] = route.protocol;
    at[21] = route.distance;
    put16(at + 22, route.flags);
    put32(at + 24, route.metric);
    put32(at + 28, route.tag);
    std::memcpy(at + 32, route.opaque, sizeof route.opaque);
    std::memcpy(at + 60, route.hop[0].addr, 4);
    put32(at + 64, route.hop[0].ifIndex);
    put32(at + 68, route.vrfId);
    std::memcpy(at + 72, route.hop[0].rest, 8);
    zelIpcHdrSet32(batch, lengthWord, fill + routeBytes);
    zelIpcHdrSet32(batch, routesWord, zelIpcHdrGet32(batch, routesWord) + 1);
}

void appendByHand(benchmark::State &state) {
    const auto batch = std::make_unique<std::uint8_t[]>(ZEL_RTM_MAX_MESSAGE);
    zelRtmRoute route = makeRoute(1);
    zelIpcHdrSet32(batch.get(), lengthWord, batchHead);
    unsigned routes = 0;
    for (auto _ : state) {
        ++route.metric;
        storeRoute(batch.get(), route);
        benchmark::ClobberMemory();
        if (++routes < routesPerBatch - 1) continue;
        zelIpcHdrSet32(batch.get(), lengthWord, batchHead);
        zelIpcHdrSet32(batch.get(), routesWord, 0);
        routes = 0;
    }
}

ZEL_ROW("route append, one next hop", "ns", time)
    .ours(appendOurs)
    .peer("hand-written stores of the same bytes", appendByHand, 2.0, 1.3);

// ---- Routes acknowledged --------------------------------------------------------------------------------------------

// A manager that registers nobody and counts what it gets.
ZEL_CHILD(benchCountingManager) {
    const auto key = static_cast<std::uint32_t>(zelIpcOpen(receiverService, 0));
    zelSwpReceiver *receiver = zelSwpReceiverCreate(key, 0, ackInterval);
    static std::uint8_t message[ZEL_RTM_MAX_MESSAGE];
    std::uint64_t routes = 0;
    for (;;) {
        const int length = zelIpcRecv(key, message, sizeof message, -1, 0, 0);
        zelRtmBatch batch;
        if (length < 0) return 1;
        if (zelSwpReceiverAccept(receiver, message, length) != ZEL_SWP_MATCHED) continue;
        if (zelRtmParseBatch(message, length, &batch) == 0) routes += batch.routes;
        benchmark::DoNotOptimize(routes);
    }
}

ZEL_CHILD(benchTableManager) {
    const auto key = static_cast<std::uint32_t>(zelIpcOpen(receiverService, 0));
    return zelrtmd::Manager(key, {}).run();
}

// A client that pushes routes to the manager in a child.
class Pusher {
public:
    explicit Pusher(const char *manager) : child_(Child::start(manager)) {
        vx2bsd_start(0, 1, 100, 100);
        key_ = static_cast<std::uint32_t>(zelIpcOpen(senderService, 0));
        us_ = {senderService, key_, 0, 0, 0};
        zelTmeSetTaskEntry(receiverService, 0, ZEL_TME_HERE, zel_sysGetIpAddr());
        zelSwpQueueCreate(
            senderService, 0, receiverService, 0, 0, window, 1, 255, [](void *, int) {}, &queue_);
        swpFifoQueue[queue_] = {[](std::uint32_t bytes) { return malloc(bytes); }, free};
        isUp_ = zel::test::eventually(10, [] { return isBound(receiverService); });
    }
    ~Pusher() {
        zelRtmDropPending(&pending_, queue_, nullptr, 0);
        zelSwpQueueRemove(queue_);
        zelIpcClose(key_);
    }
    Pusher(const Pusher &) = delete;
    Pusher &operator=(const Pusher &) = delete;

    bool isUp() const { return isUp_; }
    bool enter() { return zelRtmV4V6Register(1, 0, "bench", &handle_, &us_) == 0; }
    std::uint64_t routesThere() {
        std::uint64_t counters[ZEL_RTM_COUNTERS] = {};
        zelRtmGetCounters(&us_, counters);
        return counters[ZEL_RTM_COUNT_ROUTES];
    }
    // Appends a route, null to send what is pending; waits while two windows are queued.
    bool push(const zelRtmRoute *route) {
        const bool isDone = zelRtmUpdateRoute(handle_, ZEL_RTM_ADD, route, &pending_, &us_, queue_, 1,
                                              ZEL_RTM_IPV4_UNICAST, nullptr, 0) == 0;
        return pending_ ? isDone : isDone && await(2 * window);
    }
    bool await(int most) {
        while (zelSwpQueueGetLen(queue_) > most) {
            std::uint8_t message[256];
            const int length = zelIpcRecv(key_, message, sizeof message, patience, 0, 0);
            if (length < 0) return false;
            zelSwpProcAck(message, length, nullptr);
            while (zelRtmUpdateRouteSwpAck(queue_) == 0) continue;
        }
        return true;
    }
    bool flush() { return zelRtmFlushRoutes(handle_, &us_) == 0; }

private:
    Child child_;
    bool isUp_ = false;
    std::uint32_t key_ = 0;
    std::uint32_t queue_ = 0;
    std::uint32_t handle_ = 1;
    zelIpcAddr us_{};
    void *pending_ = nullptr;
};

void routesAcknowledged(benchmark::State &state) {
    Pusher pusher("benchCountingManager");
    if (!pusher.isUp()) return state.SkipWithError("no manager");
    zelRtmRoute route = makeRoute(1);
    for (auto _ : state)
        for (unsigned i = 0; i < routesPerBatch; ++i) {
            ++route.metric;
            if (!pusher.push(&route)) return state.SkipWithError("the stream stopped");
        }
    pusher.await(0);
    state.SetItemsProcessed(state.iterations() * routesPerBatch);
}

void rawMessages(benchmark::State &state) {
    BareStream stream(batchHead + routesPerBatch * routeBytes);
    zel::test::eventually(10, [] { return isBound(receiverService); });
    for (auto _ : state)
        if (!stream.send()) return state.SkipWithError("the stream stopped");
    stream.drain();
    state.SetItemsProcessed(state.iterations() * routesPerBatch);
}

ZEL_ROW("routes acknowledged by a manager that only counts them", "routes/s", rate)
    .ours(routesAcknowledged)
    .peer("raw messages/s x routes per batch", rawMessages, 0.75, 0.9);

// ---- The whole road -------------------------------------------------------------------------------------------------

const TableFile &bundledTable() {
    static const TableFile table = [] {
        TableFile read;
        readTable(ZEL_DATA_DIR "/rib4_full_2015-10.txt.xz", read);
        return read;
    }();
    return table;
}

// A row without its attributes.
void fill(const Row &row, zelRtmRoute &route) {
    routeOfRow(bundledTable(), row, route);
    route.tlvLen = 0;
}

void wholeRoad(benchmark::State &state) {
    Pusher pusher("benchTableManager");
    if (!pusher.isUp() || bundledTable().rows.empty() || !pusher.enter()) return state.SkipWithError("no manager");
    zelRtmRoute route = makeRoute(1);
    for (auto _ : state) {
        for (const Row &row : bundledTable().rows) {
            fill(row, route);
            if (!pusher.push(&route)) return state.SkipWithError("the stream stopped");
        }
        pusher.push(nullptr);
        pusher.await(0);
    }
    if (pusher.routesThere() == 0) state.SkipWithError("the routes did not arrive");
}

void insertedInProcess(benchmark::State &state) {
    if (bundledTable().rows.empty()) return state.SkipWithError("no table");
    zelRtmRoute route = makeRoute(1);
    for (auto _ : state) {
        zelrtmd::Table table(ZEL_RTM_IPV4_UNICAST, 0);
        std::uint8_t record[routeBytes];
        for (const Row &row : bundledTable().rows) {
            fill(row, route);
            const int length = zelRtmSerialiseRoute(&route, ZEL_RTM_IPV4_UNICAST, record, sizeof record);
            table.add(1, route, record, static_cast<std::uint32_t>(length));
        }
        state.PauseTiming();  // the table goes without being measured
        benchmark::DoNotOptimize(table.routes());
        table.removeOf(0);
        state.ResumeTiming();
    }
}

ZEL_ROW("the whole road into the manager's table, the bundled table", "ms", time)
    .once()
    .ours(wholeRoad)
    .peer("the same table inserted in process", insertedInProcess, 1.5, 1.2);

}  // namespace
