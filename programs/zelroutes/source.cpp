#include "source.h"

#include <cinttypes>
#include <cstdio>

#include "programs/support/program.h"
#include "zel/kernel.h"
#include "zel/policy.h"

namespace zelroutes {
namespace {

using zel::programs::isStopping;
using zel::programs::Row;

constexpr unsigned messageTypeWord = 12;
constexpr int requestQueue = 1;
constexpr int receiverInstance = 0;
constexpr std::size_t mostBytes = 65536;
// Messages that wait in the queue, in windows: enough that the window never runs dry.
constexpr int windowsQueued = 2;
constexpr std::uint32_t retransmitSeconds = 1;
constexpr std::uint8_t retransmissions = 5;
constexpr int retryTicks = 25;
constexpr int waitSeconds = 1;
constexpr std::uint32_t traceModule = 51;  // RTM
// The cache of results: our bit, and room for the AS paths of a table of the Internet.
constexpr std::uint32_t cacheClient = 1, cachedPaths = 100'000, cachedExpressions = 60;

// Set by the queue's callback, which runs in the timer task or under a call of ours: the code that ended the stream.
std::atomic<int> streamEnded = 0;

void noteTrouble(void *, int code) {
    if (code == ZEL_SWP_NO_RETRANS || code == ZEL_SWP_SEQ_FAILURE) streamEnded = code;
}

}  // namespace

Source::Source(std::uint32_t key, const Options &options) : key_(key), options_(options), buffer_(mostBytes) {
    address_.service = zelIpcGetServiceFromSvce(key);
    address_.instance = zelIpcGetInstanceFromSvce(key);
    address_.taskKey = key;
    route_.protocol = static_cast<std::uint8_t>(address_.service);
    route_.distance = options.distance;
    route_.hop[0].ifIndex = options.interface;
    lanes_.resize(options.vrfs);
    for (Lane &lane : lanes_) lane.vrf = static_cast<std::uint32_t>(&lane - lanes_.data());
}

Source::~Source() {
    dropPending();
    removeQueues();
}

int Source::run() {
    if (!load() || !makeQueues() || !connect()) return isStopping() ? 0 : 1;
    if (pushUntilDone() && !options_.quits) watch();
    return 0;
}

// False when the program is asked to stop before everything is acknowledged.
bool Source::pushUntilDone() {
    const double begin = zel::programs::monotonicSeconds();
    for (Push result; (result = pushAll()) != Push::done;)
        if (result == Push::stopped || !startOver()) return false;
    seconds_ = zel::programs::monotonicSeconds() - begin;
    report();
    return true;
}

bool Source::load() {
    std::vector<std::string> files{options_.table};
    files.insert(files.end(), options_.updates.begin(), options_.updates.end());
    for (const std::string &file : files)
        if (!readTable(file, table_)) {
            fprintf(stderr, "zelroutes: %s cannot be read\n", file.c_str());
            return false;
        }
    if (table_.unreadable > 0) printf("zelroutes: %lu lines are no routes\n", table_.unreadable);
    if (table_.communitiesCut > 0)
        printf("zelroutes: %lu communities of %lu routes do not fit beside the AS path and are left out\n",
               table_.communitiesCut, table_.routesCut);
    if (table_.pathsCut > 0) printf("zelroutes: %lu AS paths are too long and are cut\n", table_.pathsCut);
    if (!options_.filter.isEmpty()) filter();
    return true;
}

// Results of expressions are kept by AS path: most routes share theirs with others.
void Source::filter() {
    const std::size_t rows = table_.rows.size();
    const double begin = zel::programs::monotonicSeconds();
    aclRegexOptzInit(cacheClient, 1, cachedPaths, cachedExpressions);
    decided_ = filterTable(table_, options_.filter);
    aclRegexOptzClose();
    filterSeconds_ = zel::programs::monotonicSeconds() - begin;
    printf("zelroutes: policy permits %zu of %zu routes (%.3f s)\n", table_.rows.size(), rows, filterSeconds_);
    for (const auto &[entry, routes] : decided_)
        printf("zelroutes: %s entry %u took %lu routes\n", entry.first.c_str(), entry.second, routes);
}

// The look-up of the manager's address inside may wait for the manager to come up.
bool Source::makeQueues() {
    int result;
    if (options_.queues > 0)
        result = makeList();
    else
        result = zelSwpQueueCreate(static_cast<int>(address_.service), static_cast<int>(address_.instance),
                                   ZEL_RTM_SERVICE, receiverInstance, 0, options_.window, retransmitSeconds,
                                   retransmissions, noteTrouble, &queues_.emplace_back());
    if (result == ZEL_SWP_SUCCESS) {
        for (const std::uint32_t queue : queues_) zel::programs::useHeap(queue);
        return true;
    }
    queues_.clear();
    fprintf(stderr, "zelroutes: no queue to the route table manager (%s)\n", zelSwpGetErr(result));
    return false;
}

// A list with a group for each VRF; the first VRFs take one queue each, and so all of them.
int Source::makeList() {
    const int result =
        zelSwpQListCreate(static_cast<int>(address_.service), static_cast<int>(address_.instance), ZEL_RTM_SERVICE,
                          receiverInstance, 0, options_.window, retransmitSeconds, retransmissions, noteTrouble,
                          options_.queues, options_.vrfs, traceModule, &list_);
    if (result != ZEL_SWP_SUCCESS) return result;
    for (const Lane &lane : lanes_) {
        std::uint32_t queue = 0;
        if (zelSWPQListAddMsgGroup(list_, lane.vrf) != ZEL_SWP_SUCCESS) return ZEL_SWP_FAILURE;
        zelSWPQListGetQHandle(list_, lane.vrf, &queue);
        if (lane.vrf < options_.queues) queues_.push_back(queue);
    }
    return ZEL_SWP_SUCCESS;
}

void Source::removeQueues() {
    if (list_)
        zelSwpQListRemove(list_);
    else if (!queues_.empty())
        zelSwpQueueRemove(queues_.front());
}

bool Source::registerOnce() {
    const std::string name = "routes-" + std::to_string(address_.service);
    return zelRtmV4V6Register(address_.service, ZEL_RTM_IPV4_UNICAST, name.c_str(), &handle_, &address_) == 0;
}

// Registers, as often as it takes.
bool Source::connect() {
    while (!isStopping()) {
        if (registerOnce()) return true;
        taskDelay(retryTicks);
    }
    return false;
}

std::uint32_t Source::operationOf(const Row &row) const {
    return row.isWithdrawal ? ZEL_RTM_DELETE : ZEL_RTM_ADD;
}

Source::Push Source::pushAll() {
    for (Lane &lane : lanes_) lane.next = lane.batchBegin = 0;
    for (bool isLeft = true; isLeft;) {
        isLeft = false;
        for (Lane &lane : lanes_) {
            if (lane.next == table_.rows.size()) continue;
            const Push result = pushRow(lane);
            if (result != Push::done) return result;
            isLeft = true;
        }
    }
    for (Lane &lane : lanes_)
        if (const Push result = flushPending(lane); result != Push::done) return result;
    return awaitRoom(0);
}

int Source::update(Lane &lane, std::uint32_t operation, const zelRtmRoute *route) {
    return zelRtmUpdateRoute(handle_, operation, route, &lane.pending, &address_,
                             list_ ? ZEL_RTM_QUEUE_LIST : queues_.front(), static_cast<std::uint8_t>(address_.service),
                             lane.family, list_, lane.vrf);
}

// Appends the lane's next row; the batch may leave with it, or be lost to a full queue: then its rows come again. Waits
// while enough is queued.
Source::Push Source::pushRow(Lane &lane) {
    const Row &row = table_.rows[lane.next];
    if (lane.pending && row.family != lane.family) {
        const Push result = flushPending(lane);
        if (result != Push::done) return result;
        lane.batchBegin = lane.next;
    }
    routeOfRow(table_, row, route_);
    lane.family = row.family;
    const int result = update(lane, operationOf(row), &route_);
    ++lane.next;
    if (lane.pending) return Push::done;
    if (result == 1) {
        streamEnded = ZEL_SWP_FAILURE;
        return Push::startOver;
    }
    if (result == 0) {
        lane.batchBegin = lane.next;
    } else {
        lane.next = lane.batchBegin;
        ++queueFull_;
    }
    return awaitRoom(roomForMore());
}

Source::Push Source::flushPending(Lane &lane) {
    if (!lane.pending) return Push::done;
    if (update(lane, ZEL_RTM_ADD, nullptr) != 0) streamEnded = ZEL_SWP_FAILURE;
    return awaitRoom(roomForMore());
}

void Source::dropPending() {
    for (Lane &lane : lanes_)
        if (lane.pending)
            zelRtmDropPending(&lane.pending, list_ ? ZEL_RTM_QUEUE_LIST : queues_.front(), list_, lane.vrf);
}

int Source::roomForMore() const {
    return windowsQueued * zelSwpGetMwpQWinSize(queues_.front()) * static_cast<int>(queues_.size());
}

int Source::queued() const {
    return list_ ? zelSwpQListGetLen(list_) : zelSwpQueueGetLen(queues_.front());
}

// Takes acknowledgements until at most that many messages are queued.
Source::Push Source::awaitRoom(int most) {
    for (;;) {
        if (isStopping()) return Push::stopped;
        if (mustStartOver()) return Push::startOver;
        if (queued() <= most) return Push::done;
        receive(waitSeconds);
    }
}

bool Source::mustStartOver() const {
    return wasCleared_ || streamEnded != 0;
}

bool Source::startOver() {
    const bool streamLives = streamEnded == 0;
    wasCleared_ = false;
    dropPending();
    if (streamLives) return true;
    printf("zelroutes: %u: the route table manager %s; registering again\n", address_.service,
           streamEnded == ZEL_SWP_SEQ_FAILURE ? "started anew" : "does not answer");
    ++recoveries_;
    streamEnded = 0;
    for (const std::uint32_t queue : queues_) zelSwpQueueFlush(queue);
    if (!connect()) return false;
    zelRtmFlushRoutesAFSwp(handle_, &address_, queues_.front(), ZEL_RTM_IPV4_UNICAST);
    zelRtmFlushRoutesAFSwp(handle_, &address_, queues_.front(), ZEL_RTM_IPV6_UNICAST);
    // On another queue routes could overtake the flushes.
    return queues_.size() == 1 || awaitRoom(0) != Push::stopped;
}

// One message, or nothing within that time.
bool Source::receive(int seconds) {
    const int length = zelIpcRecv(key_ | requestQueue, buffer_.data(), static_cast<int>(buffer_.size()), seconds, 0, 0);
    if (length <= 0) return false;
    takeMessage(buffer_.data(), length);
    return true;
}

void Source::takeMessage(const std::uint8_t *message, int length) {
    std::uint32_t queue, clearHandle, clearVrf, sequence;
    if (zelIpcHdrGet32(message, messageTypeWord) == zel::programs::wakeType) return;
    if (zelRtmParseClear(message, length, &clearHandle, &clearVrf, &sequence) == 0) {
        if (clearHandle == handle_) {
            zelRtmClearIpRouteSwpAck(handle_, &address_, queues_.front(), sequence);
            wasCleared_ = true;
        }
        return;
    }
    if (zelSwpProcAck(message, length, &queue) != ZEL_SWP_SUCCESS) return;
    while (zelRtmUpdateRouteSwpAck(queue) == 0) continue;
}

// What the demonstration reads: one "name value" per line.
void Source::report() {
    if (options_.report.empty()) return;
    zelSwpStatus status{};
    for (const std::uint32_t queue : queues_) {
        zelSwpStatus one{};
        zelSwpGetQueueStatus(queue, &one);
        status.enqueued += one.enqueued;
        status.sent += one.sent;
        status.retransmitted += one.retransmitted;
    }
    const std::string partial = options_.report + ".part";
    FILE *file = fopen(partial.c_str(), "we");
    if (!file) return;
    fprintf(file,
            "rows %zu\nbatches %" PRIu64 "\ndatagrams %" PRIu64 "\nretransmitted %" PRIu64
            "\nqueue-full %lu\nrecoveries %lu\nseconds %.3f\n",
            table_.rows.size(), status.enqueued, status.sent + status.retransmitted, status.retransmitted, queueFull_,
            recoveries_, seconds_);
    if (!options_.filter.isEmpty()) fprintf(file, "filter-seconds %.3f\n", filterSeconds_);
    for (const auto &[entry, routes] : decided_)
        fprintf(file, "%s:%u %lu\n", entry.first.c_str(), entry.second, routes);
    fclose(file);
    rename(partial.c_str(), options_.report.c_str());
}

// Everything is there. Keeps it there: an idle stream tells nothing about the other side, so now and then something
// harmless goes down it, the end of polls that this client does not have. A manager that was started anew answers that
// it does not know the stream, and one that is gone does not answer at all.
void Source::watch() {
    while (!isStopping()) {
        if (!receive(waitSeconds)) zelRtmFlushPollerRoutesSwp(handle_, &address_, queues_.front());
        if (mustStartOver() && startOver()) pushUntilDone();
    }
}

}  // namespace zelroutes
