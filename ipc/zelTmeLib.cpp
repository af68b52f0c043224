// The task manager client: how a spawned task takes its place, reports ready, and finds its peers.
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "ipc/endpoint.h"
#include "ipc/ipc_header.h"
#include "ipc/task_table.h"
#include "kernel/task.h"
#include "platform/arguments.h"
#include "platform/process.h"
#include "platform/seam.h"
#include "zel/platform.h"

namespace zel::ipc {
namespace {

constexpr int identityArguments = 8;
constexpr int blankedArguments = 5;
constexpr int spawnLock = 5;
constexpr int noSuchPeer = 2;
constexpr int peerTries = 100;
constexpr std::uint32_t traceOwnKey = 1u << 28;
constexpr std::uint32_t tracePeers = 0x20;

struct ReadyReport : IpcHeader {
    using TaskId = wire::Field<std::uint32_t, IpcHeader::size>;
    using Process = wire::Field<std::uint32_t, TaskId::end>;
    using Service = wire::Field<std::uint32_t, Process::end>;
    static constexpr std::size_t size = Service::end;
    static constexpr std::uint32_t messageType = 1601;
    static constexpr std::uint32_t packetType = 15;
};
static_assert(ReadyReport::size == 72);

struct Identity {
    int service, instance, parentService, parentInstance, taskIndex;
};

// Decimal text, -1 for anything else.
int numberOf(const char *text) {
    if (!text || *text == '\0') return -1;
    char *end = nullptr;
    const long value = strtol(text, &end, 10);
    return *end == '\0' && value >= 0 && value <= INT_MAX ? static_cast<int>(value) : -1;
}

Identity identityOf(char *const *last8) {
    return {numberOf(last8[0]), numberOf(last8[1]), numberOf(last8[2]), numberOf(last8[3]), numberOf(last8[4])};
}

// The spawner names this process the lock's owner when it has started it, which may be a moment from now.
void releaseSpawnLock() {
    const std::uint64_t deadline = platform::deadlineAfterSeconds(1);
    while (ZEL_ShmWriteUnLock(spawnLock) != 0 && errno == EPERM && platform::now() < deadline)
        platform::seam().sleepUntil(platform::seam().context, platform::now() + platform::nanosecondsPerTick / 20);
}

void releaseSpawnLockOf(zelIpcEndpoint *record) {
    if (!record || (loadWord(record->flags) & ZEL_IPC_FLAG_LOCK5_HELD) == 0) return;
    clearBits(record->flags, ZEL_IPC_FLAG_LOCK5_HELD);
    releaseSpawnLock();
}

void registerTask(zelIpcEndpoint &record, const Identity &identity) {
    setBits(record.flags, ZEL_IPC_FLAG_STARTING);
    setName(record, selfName());
    storeWord(record.pending, 0);
    setBits(record.flags, ZEL_IPC_FLAG_NAMED);
    setProcess(record);
    storeWord(record.ownerTaskId, thisTaskId());
    forgetCachedKeys();
    if (isTraceOn(taskManagerModule))
        zelTracePrintf(taskManagerModule,
                       "%s: svc(%d) inst(%d) parentSvc(%d) parentInst(%d) taskIdx(%d): tskSvc(%d) tskInst(%d) "
                       "p_cpid(%d) p_procId(%d) p_pstate(%#x)",
                       selfName(), identity.service, identity.instance, identity.parentService, identity.parentInstance,
                       identity.taskIndex, static_cast<int>(loadWord(record.service)),
                       static_cast<int>(loadWord(record.instance)), static_cast<int>(loadWord(record.pid)),
                       static_cast<int>(thisTaskId()), loadWord(record.flags));
    releaseSpawnLockOf(&record);
    setBits(record.flags, ZEL_IPC_FLAG_STARTED);
}

int reportStartupFailure(const Identity &identity) {
    static constexpr char text[] = "Failed to open sockets for %s on task startup";  // the log formats it later
    const int error = errno;
    const char *name = zelTaskGetServiceName(identity.service);
    releaseSpawnLockOf(sharedRecord(identity.service, identity.instance));
    zelLogMsg("TME", 2, "TASK_STARTUP_FAIL", text, reinterpret_cast<intptr_t>(name), 0, 0, 0, 0, 0);
    zelErrorPrintf(taskManagerModule, text, name);
    const bool isStarted = false;
    zelAssert(isStarted, "zelTmeLib");
    return kernel::fail(error);
}

bool isGoodKey(std::uint32_t key) {
    if (isValidKey(key)) return true;
    zelErrorPrintf(taskManagerModule, "Invalid Key: 0x%x\r\n", key);
    return false;
}

// The key's record if the endpoint has ever been opened, else null.
const zelIpcEndpoint *openedRecord(std::uint32_t key) {
    const zelIpcEndpoint *record = sharedRecord(key);
    return record && loadWord(record->magic) == ZEL_IPC_ENDPOINT_MAGIC ? record : nullptr;
}

// The owned record of (service, instance), else null.
const zelIpcEndpoint *ownedRecord(int service, int instance) {
    const zelIpcEndpoint *record = sharedRecord(service, instance);
    return record && isOwned(*record) ? record : nullptr;
}

std::uint32_t found(std::uint32_t address, int *error) {
    const bool isFound = isKnownAddress(address);
    if (error) *error = isFound ? 0 : noSuchPeer;
    return isFound ? address : ZEL_IPC_NO_ADDRESS;
}

// On the platform variant the relay serves the relayed peers, and all others run beside the caller.
std::uint32_t variantPeer(int instance) {
    return isRelayedInstance(instance) ? zel_getPeMasterIpAddr(instance) : zel_sysGetIpAddr();
}

std::uint32_t tabledPeer(int service, int instance) {
    const auto *word = taskEntry(service, instance);
    const zelTmeTaskEntry entry = word ? unpackEntry(word->load(std::memory_order_acquire)) : zelTmeTaskEntry{};
    const bool isFound = isKnownAddress(entry.address);
    if (isTraceOn(taskManagerModule, tracePeers))
        zelTracePrintf(taskManagerModule, "%s - serv:%d, inst:%d, tp:%X, ipaddr:%X, INV:%X, found:%d",
                       "zel_tmeGetPeerIpAddrByName", service, instance, entry.state, entry.address, ZEL_IPC_NO_ADDRESS,
                       isFound ? 1 : 0);
    if (!isFound) return ZEL_IPC_NO_ADDRESS;
    return entry.state == ZEL_TME_REMOTE ? entry.address : zel_sysGetIpAddr();
}

}  // namespace
}  // namespace zel::ipc

using namespace zel::ipc;

int zelTaskStartup(int argc, char **argv) {
    if (argc < identityArguments || !argv) return zel::kernel::fail(EINVAL);
    const Identity identity = identityOf(argv + argc - identityArguments);
    const int key = zelIpcOpen(identity.service, identity.instance);
    if (key == ZEL_ERROR) return reportStartupFailure(identity);
    for (int i = argc - blankedArguments; i < argc; ++i) zel::platform::blankArgument(argv[i]);
    zelIpcEndpoint *record = sharedRecord(identity.service, identity.instance);
    if (record) registerTask(*record, identity);
    return key;
}

int zelTaskReady(uint32_t key) {
    uint8_t report[ReadyReport::size] = {};
    const int service = serviceOf(key);
    IpcHeader::Magic::set(report, IpcHeader::magic);
    IpcHeader::MessageType::set(report, ReadyReport::messageType);
    IpcHeader::PacketType::set(report, ReadyReport::packetType);
    zelIpcSetSourceHeader(report, 0, service, instanceOf(key));
    zelIpcSetTargetHeader(report, zel_sysGetIpAddr(), 0, taskManagerService, static_cast<int>(zel_sysGetInstance()));
    ReadyReport::TaskId::set(report, thisTaskId());
    ReadyReport::Process::set(report, static_cast<uint32_t>(zel::platform::thisProcess().pid));
    ReadyReport::Service::set(report, static_cast<uint32_t>(service));
    return zelIpcSend(key | requestQueue, report, sizeof report) == ZEL_OK ? ZEL_OK : ZEL_ERROR;
}

int zelGetMyTaskKey() {
    const int key = keyOfThisTask();
    if (key != ZEL_ERROR && isTraceOn(taskManagerModule, traceOwnKey))
        zelTracePrintf(taskManagerModule, "zelGetMyTaskKey: Name: %15s, service: %3d, instance: %3d, pkey: %7d",
                       selfName(), serviceOf(static_cast<uint32_t>(key)), instanceOf(static_cast<uint32_t>(key)), key);
    return key;
}

int zelTaskGetServiceByKey(uint32_t key) {
    return isGoodKey(key) ? serviceOf(key) : ZEL_ERROR;
}

int zelTaskGetInstanceByKey(uint32_t key) {
    return isGoodKey(key) ? instanceOf(key) : ZEL_ERROR;
}

int zelTaskGetIpcKey(uint32_t key) {
    if (!isValidKey(key)) zelErrorPrintf(taskManagerModule, "Invalid service / inst\r\n");
    return static_cast<int>(key);
}

int zelTaskIdSelf(uint32_t key) {
    if (!isValidKey(key)) {
        zelErrorPrintf(taskManagerModule, "Invalid service / inst\r\n");
        return ZEL_ERROR;
    }
    const zelIpcEndpoint *record = openedRecord(key);
    return record ? static_cast<int>(loadWord(record->ownerTaskId)) : ZEL_ERROR;
}

int zelProcIdByKey(uint32_t key) {
    const zelIpcEndpoint *record = isGoodKey(key) ? openedRecord(key) : nullptr;
    return record ? static_cast<int>(loadWord(record->pid)) : ZEL_ERROR;
}

int zelGetTaskKeyFromServiceAndInst(int service, int instance) {
    return isValidService(service) && isValidInstance(instance) ? instance * 4 | service * 128 : ZEL_ERROR;
}

int zelTaskGetByServiceAndInstance(int service, int instance) {
    const zelIpcEndpoint *record = ownedRecord(service, instance);
    return record ? static_cast<int>(loadWord(record->ownerTaskId)) : ZEL_ERROR;
}

int zelTaskIsDuplicate(int service, int instance, int *taskId) {
    const zelIpcEndpoint *record = ownedRecord(service, instance);
    if (taskId) *taskId = record ? static_cast<int>(loadWord(record->ownerTaskId)) : 0;
    return record ? 1 : 0;
}

const struct zelIpcEndpoint *zelTaskAlreadyExists(int taskId) {
    for (int service = 0; service < serviceCount; ++service)
        for (int instance = 0; instance < scannedInstances(service); ++instance) {
            const zelIpcEndpoint *record = sharedRecord(service, instance);
            if (belongsTo(record, static_cast<uint32_t>(taskId))) return record;
        }
    return nullptr;
}

uint32_t zel_tmeGetPeerIpAddrByName(int service, int instance, int *error) {
    if (service < 0 || instance < 0) return found(ZEL_IPC_NO_ADDRESS, error);
    if (isPlatformVariant()) return found(variantPeer(instance), error);
    if (isRelayedInstance(instance)) return found(zel_getPeMasterIpAddr(instance), error);
    const uint32_t address = found(tabledPeer(service, instance), error);
    if (address == ZEL_IPC_NO_ADDRESS)
        zelErrorPrintf(taskManagerModule, "Error: zel_tmeGetPeerIpAddrByName failed service %d(%s) inst %d \r\n",
                       service, zelTaskGetServiceName(service), instance);
    return address;
}

uint32_t zel_tmeGetTaskIpAddrByName(int service, int instance, int *error) {
    for (int tries = 1; tries <= peerTries; ++tries) {
        int cause = 0;
        const uint32_t address = zel_tmeGetPeerIpAddrByName(service, instance, &cause);
        if (error) *error = cause;
        if (address != ZEL_IPC_NO_ADDRESS && cause != noSuchPeer) return address;
        const int wait = tries / 10 * 10 + 10;
        zelWarningPrintf(taskManagerModule, "failed to get IpAddr, wait = %d, service =%d, err= %d, ipaddr= 0x%x", wait,
                         service, cause, address);
        taskDelay(wait);
    }
    zelWarningPrintf(taskManagerModule, "No entry found in task table for service %s", zelTaskGetServiceName(service));
    return ZEL_IPC_NO_ADDRESS;
}

int zelTmeGetPidByName(const char *name) {
    if (!name) return 0;
    const int error = errno;
    const pid_t pid = zel::platform::findProcessByName(name);
    errno = error;
    return static_cast<int>(pid);
}

const char *zelTaskGetName(int taskId, char *buffer, int size) {
    const char *name = taskName(taskId);
    if (!buffer || size <= 0) return "Unknown";
    snprintf(buffer, static_cast<size_t>(size), "%s", name ? name : "Unknown");
    return name ? buffer : "Unknown";
}
