#include "platform/process_fence.h"

#include <linux/membarrier.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>

namespace zel::platform {
namespace {

long membarrier(int command) {
    const int savedErrno = errno;
    const long result = syscall(SYS_membarrier, command, 0, 0);
    errno = savedErrno;
    return result;
}

}  // namespace

bool fenceAllThreads() {
    static const bool isRegistered = membarrier(MEMBARRIER_CMD_REGISTER_PRIVATE_EXPEDITED) == 0;
    return isRegistered && membarrier(MEMBARRIER_CMD_PRIVATE_EXPEDITED) == 0;
}

}  // namespace zel::platform
