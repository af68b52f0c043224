// Creation of sliding-window queues. All variants end in create(): a block of the shared table is reserved, its peer
// looked up, which may take minutes and is done without a lock, and the block published when all that belongs to the
// queue is there.
#include <cstdio>
#include <new>

#include "ipc/endpoint.h"
#include "ipc/swp_table.h"
#include "zel/platform.h"

namespace zel::ipc::swp {
namespace {

// Everything a creator may choose; queue ids of 0 stand for the computed ones.
struct Creation {
    struct Name {
        int service = 0;
        int instance = 0;
        std::uint32_t requestQueue = 0;
        std::uint32_t timerQueue = 0;
    };
    Name sender = {};
    Name receiver = {};
    std::uint32_t capacity = 0;
    std::uint32_t window = 0;
    std::uint32_t timeOutSec = 0;
    std::uint8_t retransCount = 0;
    zelSwpUserCb callback = nullptr;
    bool ackViaTimerQueue = false;
    void (*timeOutRoutine)(std::uint32_t queue) = nullptr;
    bool isIcl = false;
    std::uint32_t *queue = nullptr;
};

bool areUsable(const Creation &wanted) {
    const bool areUsable =
        wanted.timeOutSec != 0 && wanted.retransCount != 0 && wanted.callback != nullptr && wanted.queue != nullptr;
    if (!areUsable && zelSwp_debug != 0)
        zelErrorPrintf(moduleIpc, "SWP QUEUE CREATE ERROR: sender %d %d receiver %d %d timeOutInt %#x usrCb %#x\r\n",
                       wanted.sender.service, wanted.sender.instance, wanted.receiver.service, wanted.receiver.instance,
                       wanted.timeOutSec, static_cast<unsigned>(reinterpret_cast<std::uintptr_t>(wanted.callback)));
    return areUsable;
}

// A block is also free when the process that owned it is gone. A scan asks the host about each owner once in a row.
class OwnerCheck {
public:
    bool isGone(const platform::ProcessId &owner) {
        if (owner == platform::thisProcess()) return false;
        if (owner != asked_) {
            asked_ = owner;
            isAlive_ = platform::isAlive(owner);
        }
        return !isAlive_;
    }

private:
    platform::ProcessId asked_;
    bool isAlive_ = false;
};

std::uint32_t firstFree(SharedTable &table) {
    OwnerCheck owners;
    for (std::uint32_t queue = 1; queue <= ZEL_SWP_MAX_QUEUES; ++queue) {
        const SharedQueue &shared = sharedQueue(table, queue);
        if (shared.state.load(std::memory_order_acquire) == blockFree || owners.isGone(shared.owner)) return queue;
    }
    return 0;
}

std::uint32_t reserve(SharedTable &table) {
    const kernel::Uninterrupted uninterrupted;
    if (ZEL_ShmWriteLock(tableLock) != 0) return 0;
    const std::uint32_t queue = firstFree(table);
    if (queue != 0) {
        auto *shared = new (&sharedQueue(table, queue)) SharedQueue{};
        shared->owner = platform::thisProcess();
        shared->state.store(blockReserved, std::memory_order_release);
    }
    ZEL_ShmWriteUnLock(tableLock);
    return queue;
}

// A block under construction. It is free again unless it is published, also when the creating task is deleted while it
// waits for its peer.
class Reservation {
public:
    explicit Reservation(SharedTable &table) : table_(table), queue_(reserve(table)) {}
    ~Reservation() {
        if (queue_ != 0 && !isPublished_) state().store(blockFree, std::memory_order_release);
    }
    Reservation(const Reservation &) = delete;
    Reservation &operator=(const Reservation &) = delete;

    std::uint32_t queue() const { return queue_; }
    void publish() {
        const kernel::Uninterrupted uninterrupted;
        const bool isLocked = ZEL_ShmWriteLock(tableLock) == 0;
        state().store(blockInUse, std::memory_order_release);
        isPublished_ = true;
        if (isLocked) ZEL_ShmWriteUnLock(tableLock);
    }

private:
    std::atomic<std::uint32_t> &state() { return sharedQueue(table_, queue_).state; }
    SharedTable &table_;
    const std::uint32_t queue_;
    bool isPublished_ = false;
};

void nameEnd(End &end, const Creation::Name &wanted) {
    end.service = wanted.service;
    end.instance = wanted.instance;
    snprintf(end.name, sizeof end.name, "%s%d", zelTaskGetServiceName(wanted.service), wanted.instance);
}

void describe(SharedQueue &shared, const Creation &wanted) {
    nameEnd(shared.sender, wanted.sender);
    nameEnd(shared.receiver, wanted.receiver);
    shared.isIcl = wanted.isIcl ? 1 : 0;
    shared.usesTimerQueue = wanted.ackViaTimerQueue ? 1 : 0;
    shared.capacity = wanted.capacity != 0 ? wanted.capacity : ZEL_SWP_DEFAULT_CAPACITY;
    shared.windowSize = wanted.window != 0 ? wanted.window : ZEL_SWP_DEFAULT_WINDOW;
    shared.timeOutSec = wanted.timeOutSec;
    shared.budget = shared.budgetInitial = wanted.retransCount;
    shared.maxMemory = ZEL_SWP_DEFAULT_MAX_MEMORY;
    shared.ownerTask = static_cast<std::uint32_t>(taskIdSelf());
}

// The sender's address, the receiver's, and the three queue ids. Waits for a receiver that is not up yet; a queue over
// the link has no peer on this side to wait for.
bool address(SharedQueue &shared, const Creation &wanted) {
    const auto orElse = [](std::uint32_t given, const Creation::Name &end, int type) {
        return given != 0 ? given : zel_getQueueId(end.service, end.instance, type);
    };
    shared.sender.address = sourceAddressOf(wanted.sender.service, wanted.sender.instance);
    shared.sender.requestQueue = orElse(wanted.sender.requestQueue, wanted.sender, ZEL_IPC_QUEUE_REQUEST);
    shared.sender.timerQueue = orElse(wanted.sender.timerQueue, wanted.sender, ZEL_IPC_QUEUE_TIMER);
    shared.receiver.requestQueue = orElse(wanted.receiver.requestQueue, wanted.receiver, ZEL_IPC_QUEUE_REQUEST);
    if (wanted.isIcl) return true;

    int error = 0;
    shared.receiver.address = zel_tmeGetTaskIpAddrByName(wanted.receiver.service, wanted.receiver.instance, &error);
    if (shared.receiver.address != ZEL_IPC_NO_ADDRESS) return true;
    zelErrorPrintf(moduleIpc,
                   "zelSwpQueueCreate_internal: Failed to get peer IP for receiver service %d inst %d rc %d (source "
                   "service %d inst %d)\r\n",
                   wanted.receiver.service, wanted.receiver.instance, error, wanted.sender.service,
                   wanted.sender.instance);
    if (zelSwp_debug != 0)
        zelErrorPrintf(moduleIpc, "SWPQ_CREATE_ERROR(IP UNREACH): sender %d(%s) %d receiver %d(%s) %d \r\n",
                       wanted.sender.service, zelTaskGetServiceName(wanted.sender.service), wanted.sender.instance,
                       wanted.receiver.service, zelTaskGetServiceName(wanted.receiver.service),
                       wanted.receiver.instance);
    return false;
}

bool allocate(std::uint32_t capacity, const Creation &wanted, std::uint32_t queue, Slot *&slots,
              zelIntervalTimerId &timer) {
    timer = vx2bsdTimerCreate();
    slots = static_cast<Slot *>(zelMC_calloc(sourceTag, __LINE__, capacity, sizeof(Slot)));
    if (timer != nullptr && slots != nullptr) return true;
    if (timer != nullptr) vx2bsdTimerDelete(timer);
    zelMC_free(sourceTag, __LINE__, slots);
    reportSystemError(eventTimer, "SWP: zelSwpQueueCreate_internal", queue);
    zelErrorPrintf(moduleIpc, "SWP QUEUE CREATE ERROR: line %d sender %d %d receiver %d %d\r\n", __LINE__,
                   wanted.sender.service, wanted.sender.instance, wanted.receiver.service, wanted.receiver.instance);
    return false;
}

void installPrivatePart(PrivateQueue &own, const Creation &wanted, Slot *slots, zelIntervalTimerId timer) {
    const Lock lock(own.lock, LockRank::swpQueue, "swp queue");
    own.slots = slots;
    own.headSlot = 0;
    own.callback = wanted.callback;
    own.timeOutRoutine = wanted.timeOutRoutine;
    own.timer = timer;
    own.isTimerArmed = false;
    own.lastRestart = 0;
}

bool complete(SharedTable &table, std::uint32_t queue, const Creation &wanted) {
    SharedQueue &shared = sharedQueue(table, queue);
    Slot *slots = nullptr;
    zelIntervalTimerId timer = nullptr;
    describe(shared, wanted);
    if (!address(shared, wanted) || !allocate(shared.capacity, wanted, queue, slots, timer)) return false;
    shared.stream = newStream(table);
    installPrivatePart(privateQueue(queue), wanted, slots, timer);
    return true;
}

int refuseForWantOfBlock(SharedTable &table, const Creation &wanted) {
    reportSystemError(eventTableFull, "SWP: zelSwpQueueCreate_internal");
    table.failedCreations.fetch_add(1);
    if (zelSwp_debug != 0)
        zelErrorPrintf(moduleIpc, "SWPQ_CREATE_ERROR: sender %d(%s) %d receiver %d(%s) %d\r\n", wanted.sender.service,
                       zelTaskGetServiceName(wanted.sender.service), wanted.sender.instance, wanted.receiver.service,
                       zelTaskGetServiceName(wanted.receiver.service), wanted.receiver.instance);
    return ZEL_SWP_FAILURE;
}

int create(const Creation &wanted) {
    if (!areUsable(wanted)) return ZEL_SWP_FAILURE;
    SharedTable *table = sharedTable();
    if (table == nullptr) return ZEL_SWP_FAILURE;
    Reservation block(*table);
    if (block.queue() == 0) return refuseForWantOfBlock(*table, wanted);
    if (!complete(*table, block.queue(), wanted)) return ZEL_SWP_FAILURE;
    block.publish();
    *wanted.queue = block.queue();
    return ZEL_SWP_SUCCESS;
}

}  // namespace
}  // namespace zel::ipc::swp

using namespace zel::ipc::swp;

namespace {

Creation creationOf(Creation::Name sender, Creation::Name receiver, uint32_t capacity, uint32_t window,
                    uint32_t timeOutSec, uint8_t retransCount, zelSwpUserCb callback, uint32_t *queue) {
    return {.sender = sender,
            .receiver = receiver,
            .capacity = capacity,
            .window = window,
            .timeOutSec = timeOutSec,
            .retransCount = retransCount,
            .callback = callback,
            .queue = queue};
}

}  // namespace

int zelSwpQueueCreate(int senderService, int senderInstance, int receiverService, int receiverInstance,
                      uint32_t capacity, uint32_t window, uint32_t timeOutSec, uint8_t retransCount,
                      zelSwpUserCb callback, uint32_t *queue) {
    return zelSwpQueueCreateQs(senderService, senderInstance, receiverService, receiverInstance, capacity, window,
                               timeOutSec, retransCount, callback, 0, 0, 0, queue);
}

int zelSwpQueueCreateQs(int senderService, int senderInstance, int receiverService, int receiverInstance,
                        uint32_t capacity, uint32_t window, uint32_t timeOutSec, uint8_t retransCount,
                        zelSwpUserCb callback, uint32_t senderReqQueue, uint32_t senderTmrQueue,
                        uint32_t receiverReqQueue, uint32_t *queue) {
    return create(creationOf({senderService, senderInstance, senderReqQueue, senderTmrQueue},
                             {receiverService, receiverInstance, receiverReqQueue}, capacity, window, timeOutSec,
                             retransCount, callback, queue));
}

int zelMwpQueueCreate_p(int senderService, int senderInstance, int receiverService, int receiverInstance,
                        uint32_t capacity, uint32_t window, uint32_t timeOutSec, uint8_t retransCount,
                        zelSwpUserCb callback, int ackViaTimerQueue, void (*timeoutFn)(uint32_t), uint32_t *queue) {
    Creation wanted = creationOf({senderService, senderInstance}, {receiverService, receiverInstance}, capacity, window,
                                 timeOutSec, retransCount, callback, queue);
    wanted.ackViaTimerQueue = ackViaTimerQueue != 0;
    wanted.timeOutRoutine = timeoutFn;
    return create(wanted);
}

int zelMwpIclQueueCreate(int senderService, int senderInstance, int receiverService, int receiverInstance,
                         uint32_t capacity, uint32_t window, uint32_t timeOutSec, uint8_t retransCount,
                         zelSwpUserCb callback, uint32_t *queue) {
    Creation wanted = creationOf({senderService, senderInstance}, {receiverService, receiverInstance}, capacity, window,
                                 timeOutSec, retransCount, callback, queue);
    wanted.isIcl = true;
    return create(wanted);
}
