#include "platform/quick_mutex.h"

#include <climits>

#include "base/lock.h"
#include "platform/futex.h"
#include "platform/process_fence.h"
#include "platform/scheduling.h"
#include "platform/seam.h"

namespace zel::platform {
namespace {

constexpr int fewestPauses = 32, mostPauses = 128;

void pauseFor(int pauses) {
    for (int i = 0; i < pauses; ++i) {
#if defined(__x86_64__) || defined(__i386__)
        __builtin_ia32_pause();
#else
        std::atomic_signal_fence(std::memory_order_seq_cst);
#endif
    }
}

}  // namespace

// The holder needs no longer than this, if it runs at all; the longer the pauses, the more it gets done undisturbed.
bool QuickMutex::lockSoon() {
    for (int pauses = fewestPauses; pauses <= mostPauses; pauses *= 2) {
        pauseFor(pauses);
        if (held_.load(std::memory_order_relaxed) == 0 && tryLock()) return true;
    }
    return false;
}

void QuickMutex::init(const char *name) {
    name_ = name;
    isQuick_ = !isRealTime() && fenceAllThreads();
    hostCheck(initMutex(host_) == 0, "!pthread_mutex_init");
}

void QuickMutex::lockSlowly() {
    if (!isQuick_) {
        if (pthread_mutex_lock(&host_) != 0) mutexCallFailed("pthread_mutex_lock", name_, __FILE__, __LINE__, __func__);
        return;
    }
    while (!lockSoon()) {
        sleeping_.store(1);
        fenceAllThreads();
        if (tryLock()) return;
        futexWait(sleeping_, 1, forever);
    }
}

void QuickMutex::unlockHost() {
    if (pthread_mutex_unlock(&host_) != 0) mutexCallFailed("pthread_mutex_unlock", name_, __FILE__, __LINE__, __func__);
}

void QuickMutex::wakeSleepers() {
    if (sleeping_.exchange(0) != 0) futexWake(sleeping_, INT_MAX);
}

}  // namespace zel::platform
