#include "platform/futex.h"

#include <errno.h>
#include <linux/futex.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include "platform/seam.h"

namespace zel::platform {
namespace {

// On 32-bit hosts the plain call takes a 32-bit time; the one for 64-bit times has a number of its own.
#if defined(SYS_futex_time64)
constexpr long futexCall = sizeof(time_t) > sizeof(long) ? SYS_futex_time64 : SYS_futex;
#else
constexpr long futexCall = SYS_futex;
#endif

long futex(const std::atomic<std::uint32_t> &word, int operation, bool isShared, std::uint32_t value,
           const timespec *deadline) {
    static_assert(sizeof word == sizeof(std::uint32_t) && std::atomic<std::uint32_t>::is_always_lock_free);
    return syscall(futexCall, &word, operation | (isShared ? 0 : FUTEX_PRIVATE_FLAG), value, deadline, nullptr,
                   FUTEX_BITSET_MATCH_ANY);
}

}  // namespace

bool futexWait(const std::atomic<std::uint32_t> &word, std::uint32_t expected, std::uint64_t deadline, bool isShared) {
    const int savedErrno = errno;
    timespec end{};
    end.tv_sec = static_cast<time_t>(deadline / nanosecondsPerSecond);
    end.tv_nsec = static_cast<long>(deadline % nanosecondsPerSecond);
    // Unlike the plain wait, the one with a bit set takes an absolute time of the monotonic clock.
    const bool timedOut =
        futex(word, FUTEX_WAIT_BITSET, isShared, expected, deadline == forever ? nullptr : &end) != 0 &&
        errno == ETIMEDOUT;
    errno = savedErrno;
    return !timedOut;
}

void futexWake(const std::atomic<std::uint32_t> &word, int count, bool isShared) {
    const int savedErrno = errno;
    futex(word, FUTEX_WAKE, isShared, static_cast<std::uint32_t>(count), nullptr);
    errno = savedErrno;
}

}  // namespace zel::platform
