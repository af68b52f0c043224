// Records are published by one store: the magic goes out while the rest is rewritten, and comes back last. A record
// keeps its owner when its queues are closed; it becomes free when the owner's process is gone, which pid and start
// time tell together.
#include "ipc/endpoint.h"

#include <pthread.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <new>

#include "platform/datagram.h"
#include "platform/segment.h"
#include "zel/platform.h"

namespace zel::ipc {

Mutex endpointLock{LockRank::module, "&ipc_endpoint_lock"};

namespace {

struct EndpointTable {
    zelIpcEndpoint records[serviceCount][instanceCount];
};
static_assert(sizeof(zelIpcEndpoint) == 128);
static_assert(sizeof(EndpointTable) <= platform::sectionBytes[static_cast<std::size_t>(platform::Section::endpoints)]);

struct Instances {
    Endpoint endpoints[instanceCount];
};

std::atomic<Instances *> privateTable[serviceCount];

struct OwnKey {
    std::uint32_t epoch = 0;
    int key = ZEL_ERROR;
};
thread_local OwnKey ownKey;
std::atomic<std::uint32_t> ownershipEpoch{1};

int scanForKey(std::uint32_t taskId) {
    for (int service = 0; service < serviceCount; ++service) {
        // Only this process's own endpoints can belong to its tasks.
        if (!privateTable[service].load(std::memory_order_acquire)) continue;
        for (int instance = 0; instance < scannedInstances(service); ++instance)
            if (belongsTo(sharedRecord(service, instance), taskId)) return static_cast<int>(keyOf(service, instance));
    }
    return ZEL_ERROR;
}

// A forked child owns none of its parent's endpoints, and must not keep their ports.
void dropEndpoints() {
    endpointLock.native = PTHREAD_MUTEX_INITIALIZER;
    for (auto &row : privateTable) {
        Instances *instances = row.load(std::memory_order_relaxed);
        if (!instances) continue;
        row.store(nullptr, std::memory_order_relaxed);
        for (Endpoint &endpoint : instances->endpoints)
            for (Queue &queue : endpoint.queues)
                if (const int socket = queue.socket.load(std::memory_order_relaxed); socket >= 0) close(socket);
    }
    forgetCachedKeys();
}

Instances *createInstances(int service) {
    static const int registered = pthread_atfork(nullptr, nullptr, dropEndpoints);
    static_cast<void>(registered);
    void *memory = zelMC_malloc("zelIpcLib", __LINE__, sizeof(Instances));
    if (!memory) return nullptr;
    auto *instances = new (memory) Instances;
    for (int instance = 0; instance < instanceCount; ++instance) {
        instances->endpoints[instance].service = service;
        instances->endpoints[instance].instance = instance;
    }
    privateTable[service].store(instances, std::memory_order_release);
    return instances;
}

}  // namespace

zelIpcEndpoint *sharedRecord(int service, int instance) {
    if (service < 0 || service >= serviceCount || !isValidInstance(instance)) return nullptr;
    auto *table = platform::sysSectionAs<EndpointTable>(platform::Section::endpoints);
    return table ? &table->records[service][instance] : nullptr;
}

zelIpcEndpoint *sharedRecord(std::uint32_t key) {
    return key >> 7 < serviceCount ? sharedRecord(serviceOf(key), instanceOf(key)) : nullptr;
}

platform::ProcessId ownerOf(const zelIpcEndpoint &record) {
    const auto startTime =
        (static_cast<std::uint64_t>(loadWord(record.startTimeHigh)) << 32) | loadWord(record.startTimeLow);
    return {static_cast<pid_t>(loadWord(record.pid)), startTime};
}

void setProcess(zelIpcEndpoint &record) {
    const platform::ProcessId self = platform::thisProcess();
    storeWord(record.pid, static_cast<std::uint32_t>(self.pid));
    storeWord(record.startTimeHigh, static_cast<std::uint32_t>(self.startTime >> 32));
    storeWord(record.startTimeLow, static_cast<std::uint32_t>(self.startTime));
    storeWord(record.spawnedPid, 0);
}

bool isOwned(const zelIpcEndpoint &record) {
    if (loadWord(record.magic) != ZEL_IPC_ENDPOINT_MAGIC || loadWord(record.ownerTaskId) == noOwner) return false;
    return isOwnedByThisProcess(record) || platform::isAlive(ownerOf(record));
}

bool isOwnedByThisProcess(const zelIpcEndpoint &record) {
    return ownerOf(record) == platform::thisProcess();
}

bool belongsTo(const zelIpcEndpoint *record, std::uint32_t taskId) {
    return record && loadWord(record->magic) == ZEL_IPC_ENDPOINT_MAGIC && loadWord(record->ownerTaskId) == taskId &&
           isOwnedByThisProcess(*record);
}

void claim(zelIpcEndpoint &record, int service, int instance) {
    storeWord(record.magic, 0);
    setProcess(record);
    storeWord(record.service, static_cast<std::uint32_t>(service));
    storeWord(record.instance, static_cast<std::uint32_t>(instance));
    setName(record, selfName());
    storeWord(record.ownerTaskId, thisTaskId());
    storeWord(record.magic, ZEL_IPC_ENDPOINT_MAGIC);
    forgetCachedKeys();
}

void setName(zelIpcEndpoint &record, const char *name) {
    bool ended = false;
    for (std::size_t i = 0; i < sizeof record.name; ++i) {
        ended = ended || name[i] == '\0' || i + 1 == sizeof record.name;
        __atomic_store_n(&record.name[i], ended ? '\0' : name[i], __ATOMIC_RELAXED);
    }
}

void copyName(const zelIpcEndpoint &record, char (&name)[32]) {
    for (std::size_t i = 0; i < sizeof name; ++i) name[i] = __atomic_load_n(&record.name[i], __ATOMIC_RELAXED);
    name[sizeof name - 1] = '\0';
}

void Counters::clear() {
    for (auto *counter : {&sent, &sendFailures, &received, &droppedShort, &droppedMagic, &droppedMismatch,
                          &droppedLateAck, &droppedDuplicate, &truncated})
        counter->store(0, std::memory_order_relaxed);
    droppedByHost = 0;
}

Endpoint *findEndpoint(std::uint32_t key) {
    if (key >> 7 >= serviceCount) return nullptr;
    Instances *instances = privateTable[key >> 7].load(std::memory_order_acquire);
    return instances ? &instances->endpoints[instanceOf(key)] : nullptr;
}

Endpoint *obtainEndpoint(int service, int instance) {
    Lock lock(endpointLock);
    if (Endpoint *known = findEndpoint(keyOf(service, instance))) return known;
    Instances *instances = createInstances(service);
    return instances ? &instances->endpoints[instance] : nullptr;
}

Queue *findOpenQueue(std::uint32_t key) {
    const std::uint32_t type = queueNamedBy(key);
    Endpoint *endpoint = isValidKey(key) ? findEndpoint(key) : nullptr;
    if (endpoint && endpoint->isOpen(type)) return &endpoint->queues[type];
    errno = isValidKey(key) ? EBADF : EINVAL;
    return nullptr;
}

Endpoint *findOpenExchange(std::uint32_t key) {
    Endpoint *endpoint = isValidKey(key) ? findEndpoint(key) : nullptr;
    if (endpoint && (endpoint->openMask.load(std::memory_order_acquire) & exchangeOpen) == exchangeOpen)
        return endpoint;
    errno = isValidKey(key) ? EBADF : EINVAL;
    return nullptr;
}

int keyOfThisTask() {
    const std::uint32_t epoch = ownershipEpoch.load(std::memory_order_acquire);
    const std::uint32_t taskId = thisTaskId();
    if (ownKey.epoch == epoch) {
        if (ownKey.key == ZEL_ERROR) return ZEL_ERROR;
        if (belongsTo(sharedRecord(static_cast<std::uint32_t>(ownKey.key)), taskId)) return ownKey.key;
    }
    ownKey = {epoch, scanForKey(taskId)};
    return ownKey.key;
}

void forgetCachedKeys() {
    ownershipEpoch.fetch_add(1, std::memory_order_acq_rel);
}

std::uint32_t thisTaskId() {
    return static_cast<std::uint32_t>(taskIdSelf());
}

const char *selfName() {
    const int error = errno;
    const char *name = taskName(0);
    errno = error;
    return name ? name : "Unknown";
}

const char *nameOfQueue(std::uint32_t queueId) {
    return zelTaskGetServiceName(static_cast<int>((queueId & 0xffff) >> 7));
}

bool isTraceOn(std::uint32_t module, std::uint32_t bits) {
    return (wrap_modtraceflags(module) & bits) != 0;
}

}  // namespace zel::ipc
