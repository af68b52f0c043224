// The task manager's side: what it publishes, and how it starts tasks and clears up after them.
//
// A task is started under shared lock 5. The spawner takes it, marks the task's endpoint, starts the process and names
// it the owner; the task releases it when it has its endpoint. So only one task at a time is between its start and its
// endpoint. A task that dies in between leaves the lock to the next taker by the rule for dead owners.
#include <spawn.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <vector>

#include "ipc/endpoint.h"
#include "ipc/task_table.h"
#include "kernel/task.h"
#include "zel/platform.h"

namespace zel::ipc {
namespace {

constexpr int spawnLock = 5;

// Behind the arguments of the program: service, instance, parent service, parent instance, task index and three more.
std::vector<std::string> argumentsOf(const char *path, char *const args[], int service, int instance, int parentService,
                                     int parentInstance) {
    std::vector<std::string> texts{path};
    for (int i = 0; args && args[i]; ++i) texts.emplace_back(args[i]);
    const int taskIndex = static_cast<int>(keyOf(service, instance));
    for (const int number : {service, instance, parentService, parentInstance, taskIndex, 0, 0, 0})
        texts.push_back(std::to_string(number));
    return texts;
}

// The process id, or -1 with errno.
pid_t start(const char *path, std::vector<std::string> &texts) {
    std::vector<char *> argv;
    for (std::string &text : texts) argv.push_back(text.data());
    argv.push_back(nullptr);
    pid_t pid = -1;
    const int error = posix_spawn(&pid, path, nullptr, nullptr, argv.data(), environ);
    return error == 0 ? pid : kernel::fail(error);
}

pid_t startUnderLock(zelIpcEndpoint &record, const char *path, std::vector<std::string> &texts) {
    setBits(record.flags, ZEL_IPC_FLAG_LOCK5_HELD);
    const pid_t pid = start(path, texts);
    if (pid == ZEL_ERROR) {
        const int error = errno;
        clearBits(record.flags, ZEL_IPC_FLAG_LOCK5_HELD);
        ZEL_ShmWriteUnLock(spawnLock);
        return kernel::fail(error);
    }
    storeWord(record.spawnedPid, static_cast<std::uint32_t>(pid));
    // The task waits for this before it releases the lock.
    if (ZEL_ShmLockPass(spawnLock, pid) != 0) ZEL_ShmWriteUnLock(spawnLock);
    return pid;
}

void clearRecord(zelIpcEndpoint &record) {
    storeWord(record.magic, 0);
    storeWord(record.ownerTaskId, noOwner);
    for (std::uint32_t *word : {&record.pid, &record.startTimeHigh, &record.startTimeLow, &record.flags,
                                &record.pending, &record.openMask, &record.state, &record.timerFlags})
        storeWord(*word, 0);
    setName(record, "");
}

// Whether the record was the dead process's. One that a living process holds under the same pid is another's.
bool forgetRecord(zelIpcEndpoint &record, pid_t pid) {
    const auto word = static_cast<std::uint32_t>(pid);
    if (loadWord(record.spawnedPid) == word) {
        storeWord(record.spawnedPid, 0);
        clearBits(record.flags, ZEL_IPC_FLAG_LOCK5_HELD);
    }
    if (loadWord(record.magic) != ZEL_IPC_ENDPOINT_MAGIC || loadWord(record.pid) != word || isOwned(record))
        return false;
    clearRecord(record);
    return true;
}

}  // namespace
}  // namespace zel::ipc

using namespace zel::ipc;
using zel::kernel::fail;

int zelTmeSetTaskEntry(int service, int instance, uint32_t state, uint32_t address) {
    auto *word = isValidService(service) ? taskEntry(service, instance) : nullptr;
    if (!word) return fail(EINVAL);
    word->store(packEntry({state, address}), std::memory_order_release);
    return ZEL_OK;
}

int zelTmeGetTaskEntry(int service, int instance, zelTmeTaskEntry *entry) {
    const auto *word = taskEntry(service, instance);
    if (!word || !entry) return fail(EINVAL);
    *entry = unpackEntry(word->load(std::memory_order_acquire));
    return ZEL_OK;
}

int zelTmeSetGlobals(const zelTmeGlobals *values) {
    Globals *shared = globals();
    if (!shared || !values) return fail(values ? errno : EINVAL);
    shared->ipAddress.store(values->ipAddress, std::memory_order_release);
    shared->instance.store(values->instance, std::memory_order_release);
    for (int i = 0; i < 2; ++i) shared->masterAddress[i].store(values->masterAddress[i], std::memory_order_release);
    return ZEL_OK;
}

int zelTmeForget(pid_t pid) {
    int endpoints = 0;
    for (int service = 0; service < serviceCount; ++service)
        for (int instance = 0; instance < instanceCount; ++instance) {
            zelIpcEndpoint *record = sharedRecord(service, instance);
            if (!record || !forgetRecord(*record, pid)) continue;
            taskEntry(service, instance)->store(0, std::memory_order_release);
            ++endpoints;
        }
    return endpoints;
}

pid_t zelTmeSpawn(const char *path, char *const args[], int service, int instance, int parentService,
                  int parentInstance) {
    zelIpcEndpoint *record = isValidService(service) ? sharedRecord(service, instance) : nullptr;
    if (!record || !path) return fail(EINVAL);
    std::vector<std::string> texts = argumentsOf(path, args, service, instance, parentService, parentInstance);
    if (ZEL_ShmWriteLock(spawnLock) != 0) return ZEL_ERROR;
    return startUnderLock(*record, path, texts);
}

int zelTmeNextEndpoint(uint32_t *cursor, zelTmeEndpoint *endpoint) {
    for (; *cursor < static_cast<uint32_t>(serviceCount * instanceCount); ++*cursor) {
        const auto index = static_cast<int>(*cursor);
        const zelIpcEndpoint *record = sharedRecord(index / instanceCount, index % instanceCount);
        if (!record || loadWord(record->magic) != ZEL_IPC_ENDPOINT_MAGIC || loadWord(record->openMask) == 0) continue;
        endpoint->service = index / instanceCount;
        endpoint->instance = index % instanceCount;
        endpoint->ownerTaskId = loadWord(record->ownerTaskId);
        endpoint->pid = static_cast<pid_t>(loadWord(record->pid));
        endpoint->flags = loadWord(record->flags);
        endpoint->openMask = loadWord(record->openMask);
        copyName(*record, endpoint->name);
        ++*cursor;
        return 1;
    }
    return 0;
}
