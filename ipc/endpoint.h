// Endpoints: the table of records that all processes of a CPU share, and the sockets of this process.
//
// A record says who owns (service, instance): task, process, name, flags. It is what others look up. Sockets,
// semaphores and counters belong to the process that opened them and stand in its private half. Whether an endpoint is
// open is judged on the private half, since another process's sockets are of no use here.
#pragma once

#include <atomic>
#include <cstdint>

#include "base/lock.h"
#include "ipc/ipc_address.h"
#include "platform/process.h"
#include "zel/ipc.h"
#include "zel/kernel.h"

namespace zel::ipc {

constexpr std::uint32_t traceModule = 5;
constexpr std::uint32_t taskManagerModule = 4;
constexpr std::uint32_t noOwner = 0xffffffff;

// Bits of the queue-open mask.
constexpr std::uint32_t openBit(std::uint32_t queueType) {
    return 1u << (queueType - 1);
}
constexpr std::uint32_t exchangeOpen = 3;  // request and response queue

// ---- The shared half ----

inline std::uint32_t loadWord(const std::uint32_t &word) {
    return __atomic_load_n(&word, __ATOMIC_ACQUIRE);
}
inline void storeWord(std::uint32_t &word, std::uint32_t value) {
    __atomic_store_n(&word, value, __ATOMIC_RELEASE);
}
inline void setBits(std::uint32_t &word, std::uint32_t bits) {
    __atomic_fetch_or(&word, bits, __ATOMIC_ACQ_REL);
}
inline void clearBits(std::uint32_t &word, std::uint32_t bits) {
    __atomic_fetch_and(&word, ~bits, __ATOMIC_ACQ_REL);
}

// The record of (service, instance), null outside the table or without shared memory.
zelIpcEndpoint *sharedRecord(int service, int instance);
zelIpcEndpoint *sharedRecord(std::uint32_t key);
// False for a record never opened, without owner, or left behind by a process that is gone.
bool isOwned(const zelIpcEndpoint &record);
bool isOwnedByThisProcess(const zelIpcEndpoint &record);
platform::ProcessId ownerOf(const zelIpcEndpoint &record);
// Whether the record is that of a task of this process.
bool belongsTo(const zelIpcEndpoint *record, std::uint32_t taskId);
// Records this process as the owner's, and the endpoint as claimed.
void setProcess(zelIpcEndpoint &record);
// The address that sliding-window queues of this sender name as their source: the secondary one where it is asked for.
std::uint32_t sourceAddressOf(int service, int instance);
// Makes the calling task the owner of the record.
void claim(zelIpcEndpoint &record, int service, int instance);
void setName(zelIpcEndpoint &record, const char *name);
void copyName(const zelIpcEndpoint &record, char (&name)[32]);

// ---- The private half ----

struct Counters {
    std::atomic<std::uint64_t> sent, sendFailures, received, droppedShort, droppedMagic, droppedMismatch,
        droppedLateAck, droppedDuplicate, truncated;
    std::uint64_t droppedByHost = 0;  // of the socket closed last; an open one is asked

    static void add(std::atomic<std::uint64_t> &counter) { counter.fetch_add(1, std::memory_order_relaxed); }
    void clear();
};

struct Queue {
    std::atomic<int> socket{-1};
    std::uint32_t queueId = 0;
    std::atomic<int> receivers{0};
    int receiveTimeout = 0;        // set on the socket, whole seconds; belongs to the one receiver
    std::uint64_t roomSeenAt = 0;  // when makeRoom looked; belongs to whoever has the turn
    zelIpcQueueDesc descriptor{};  // guarded by endpointLock
    Counters counters{};
};

class DuplicateFilter;

struct Endpoint {
    int service = 0;
    int instance = 0;
    std::atomic<std::uint32_t> openMask{0};
    std::atomic<zelSemId> responseSemaphore{0};
    int highestSocket = -1;
    ServiceRow row{};
    DuplicateFilter *filter = nullptr;  // guarded by guaranteedLock
    Queue queues[queueTypes];

    std::uint32_t key() const { return keyOf(service, instance); }
    bool isOpen(std::uint32_t queueType) const {
        return (openMask.load(std::memory_order_acquire) & openBit(queueType)) != 0;
    }
};

// Guards opening and closing: descriptors, masks, and the table's growth. Calls nothing that waits.
extern Mutex endpointLock;

// The endpoint of a key, null when this process never opened it.
Endpoint *findEndpoint(std::uint32_t key);
// The same, created at first use; null without memory.
Endpoint *obtainEndpoint(int service, int instance);
// The open queue that `key` names; null with EINVAL for a bad key, EBADF when the queue is not open.
Queue *findOpenQueue(std::uint32_t key);
Endpoint *findOpenExchange(std::uint32_t key);

// ---- The calling task ----

// Key of the first endpoint, in table order, that the calling task of this process owns; -1 when there is none.
int keyOfThisTask();
// To be called after a record of this process changed its owner.
void forgetCachedKeys();
std::uint32_t thisTaskId();
// The calling task's name for reports; leaves errno alone, which they report too.
const char *selfName();
// Name of the service that a queue id belongs to.
const char *nameOfQueue(std::uint32_t queueId);

bool isTraceOn(std::uint32_t module, std::uint32_t bits = 0x7fffffff);

}  // namespace zel::ipc
