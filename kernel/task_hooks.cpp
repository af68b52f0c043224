// Delete hooks: called with the id of each task that is deleted, while its description can still be read.
#include <algorithm>
#include <iterator>

#include "kernel/task_private.h"

namespace zel::kernel {
namespace {

// The table has a slot that is never used, as its callers have always known it.
constexpr std::size_t hookSlots = 64;
constexpr std::size_t usableHooks = hookSlots - 1;

// Under taskListLock; the newest hook stands first.
zelDeleteHook taskDeleteTable[hookSlots];
std::size_t taskDeleteNumHooks = 0;

}  // namespace

void runDeleteHooks(zelTaskId tid, std::intptr_t argument) {
    zelDeleteHook hooks[hookSlots];
    {
        const Lock list(taskListLock);
        std::copy(std::begin(taskDeleteTable), std::end(taskDeleteTable), hooks);
    }
    for (const zelDeleteHook hook : hooks)
        if (hook != nullptr) hook(tid, argument);
}

}  // namespace zel::kernel

using namespace zel;
using namespace zel::kernel;

// The table is clear from the start.
void taskDeleteHookInit(void) {}

int taskDeleteHookAdd(zelDeleteHook hook) {
    const KernelSection section;
    const Lock list(taskListLock);
    if (taskDeleteNumHooks == usableHooks) return ZEL_ERR_DELETE_HOOK_TABLE_FULL;
    std::copy_backward(taskDeleteTable, taskDeleteTable + taskDeleteNumHooks, taskDeleteTable + taskDeleteNumHooks + 1);
    taskDeleteTable[0] = hook;
    ++taskDeleteNumHooks;
    return ZEL_OK;
}

int taskDeleteHookDelete(zelDeleteHook hook) {
    const KernelSection section;
    const Lock list(taskListLock);
    zelDeleteHook *const end = taskDeleteTable + taskDeleteNumHooks;
    zelDeleteHook *const found = std::find(taskDeleteTable, end, hook);
    if (found == end) return ZEL_ERR_DELETE_HOOK_NOT_FOUND;
    std::copy(found + 1, end, found);
    end[-1] = nullptr;
    --taskDeleteNumHooks;
    return ZEL_OK;
}
