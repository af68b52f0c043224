// A mutex for sections of some ten nanoseconds: one compare-and-swap to lock and one plain store to unlock.
//
// Whoever finds it locked looks again a few times; then it announces itself, makes every thread pass a fence, and
// sleeps on the word; after that fence each unlocker either has not stored yet and then sees the announcement, or has
// stored and is seen. So the seldom contender pays for both sides. Where the host has no such fence, and while
// real-time scheduling asks for priority inheritance, it is a plain host mutex.
//
// Not recursive; its memory may outlive its use, but must stay. The caller must not be stopped or cancelled inside.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>

#include "base/host_check.h"

namespace zel::platform {

class QuickMutex {
public:
    // Before first use; `name` is what a failed call is reported under.
    void init(const char *name);

    void lock() {
        std::uint32_t open = 0;
        const bool isOurs =
            isQuick_ && held_.compare_exchange_strong(open, 1, std::memory_order_acquire, std::memory_order_relaxed);
        if (!isOurs) [[unlikely]]
            lockSlowly();
    }

    void unlock() {
        if (!isQuick_) [[unlikely]]
            return unlockHost();
        open();
    }
    // The same, for who reports a failure in words of its own: the host's error number.
    int unlockOrError() {
        if (!isQuick_) [[unlikely]]
            return pthread_mutex_unlock(&host_);
        open();
        return 0;
    }

private:
    void open() {
        held_.store(0, std::memory_order_release);
        std::atomic_signal_fence(std::memory_order_seq_cst);
        if (contenders_.load(std::memory_order_relaxed) != 0) [[unlikely]]
            wakeContender();
    }
    void lockSlowly();
    bool lockSoon();
    void unlockHost();
    void wakeContender();

    std::atomic<std::uint32_t> held_{0};
    std::atomic<std::uint32_t> contenders_{0};
    bool isQuick_ = false;
    pthread_mutex_t host_ = PTHREAD_MUTEX_INITIALIZER;
    const char *name_ = nullptr;
};

}  // namespace zel::platform
