#include "ipc/task_table.h"

#include "platform/segment.h"
#include "zel/platform.h"

namespace zel::ipc {
namespace {

static_assert(sizeof(TaskTable) <= platform::sectionBytes[static_cast<std::size_t>(platform::Section::taskTable)]);
static_assert(std::atomic<std::uint64_t>::is_always_lock_free && sizeof(std::atomic<std::uint64_t>) == 8);

}  // namespace

std::atomic<std::uint64_t> *taskEntry(int service, int instance) {
    if (service < 0 || service >= serviceCount || !isValidInstance(instance)) return nullptr;
    auto *table = platform::sysSectionAs<TaskTable>(platform::Section::taskTable);
    return table ? &table->entries[service][instance] : nullptr;
}

Globals *globals() {
    return platform::sysSectionAs<Globals>(platform::Section::globals);
}

}  // namespace zel::ipc

using namespace zel::ipc;

uint32_t zel_sysGetIpAddr() {
    const Globals *shared = globals();
    const uint32_t address = shared ? shared->ipAddress.load(std::memory_order_acquire) : 0;
    return address != 0 ? address : zelPlatformIpcAddress();
}

uint32_t zel_sysGetInstance() {
    const Globals *shared = globals();
    return shared ? shared->instance.load(std::memory_order_acquire) : 0;
}

uint32_t getMasterRpmIpAddr(int which) {
    const Globals *shared = globals();
    if (!shared || which < 0 || which > 1) return ZEL_IPC_NO_ADDRESS;
    return shared->masterAddress[which].load(std::memory_order_acquire);
}
