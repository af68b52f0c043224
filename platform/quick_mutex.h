// A mutex for sections of some ten nanoseconds: one compare-and-swap to lock and one plain store to unlock.
//
// Whoever finds it locked looks again a few times; then it says that somebody sleeps, makes every thread pass a fence,
// looks once more, and sleeps on what it said. After that fence each unlocker either has not stored yet and then sees
// the sleeper, or has stored and is seen. So the seldom contender pays for both sides. An unlocker takes the word back
// as it wakes all sleepers, lest it wake them again and again until one of them gets a processor.
//
// Where the host has no such fence, and while real-time scheduling asks for priority inheritance, it is a plain host
// mutex.
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
        if (!isQuick_ || !tryLock()) [[unlikely]]
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
    bool tryLock() {
        std::uint32_t open = 0;
        return held_.compare_exchange_strong(open, 1, std::memory_order_acquire, std::memory_order_relaxed);
    }
    void open() {
        held_.store(0, std::memory_order_release);
        std::atomic_signal_fence(std::memory_order_seq_cst);
        if (sleeping_.load(std::memory_order_relaxed) != 0) [[unlikely]]
            wakeSleepers();
    }
    void lockSlowly();
    bool lockSoon();
    void unlockHost();
    void wakeSleepers();

    std::atomic<std::uint32_t> held_{0};
    std::atomic<std::uint32_t> sleeping_{0};  // 1: somebody may be asleep
    bool isQuick_ = false;
    pthread_mutex_t host_ = PTHREAD_MUTEX_INITIALIZER;
    const char *name_ = nullptr;
};

}  // namespace zel::platform
