// The one guard for pthread mutexes: checked always, ranked in debug builds, movable, and safe to unwind through when a
// task is cancelled. Its destructor only unlocks.
#pragma once

#include <pthread.h>

#include <cstdio>

#include "base/host_check.h"
#include "base/lock_rank.h"

namespace zel {

// A pthread mutex with its rank and the name that a failed call is reported under, for instance "&task_list_lock".
struct Mutex {
    pthread_mutex_t native = PTHREAD_MUTEX_INITIALIZER;
    LockRank rank;
    const char *name;
    constexpr Mutex(LockRank lockRank, const char *lockName) : rank(lockRank), name(lockName) {}
    Mutex(const Mutex &) = delete;
    Mutex &operator=(const Mutex &) = delete;
};

[[noreturn]] inline void mutexCallFailed(const char *call, const char *name, const char *file, int line,
                                         const char *function) {
    char text[200];
    snprintf(text, sizeof text, "!%s (%s)", call, name);
    hostCheckFailed(text, file, line, function);
}

class Lock {
public:
    explicit Lock(Mutex &mutex, const char *file = __builtin_FILE(), int line = __builtin_LINE(),
                  const char *function = __builtin_FUNCTION())
        : Lock(mutex.native, mutex.rank, mutex.name, file, line, function) {}

    Lock(pthread_mutex_t &mutex, LockRank rank, const char *name, const char *file = __builtin_FILE(),
         int line = __builtin_LINE(), const char *function = __builtin_FUNCTION())
        : mutex_(&mutex), rank_(rank), name_(name) {
        lock(file, line, function);
    }

    Lock(Lock &&other) : mutex_(other.mutex_), rank_(other.rank_), name_(other.name_), isHeld_(other.isHeld_) {
        other.isHeld_ = false;
    }
    Lock(const Lock &) = delete;
    Lock &operator=(const Lock &) = delete;
    Lock &operator=(Lock &&) = delete;

    ~Lock() {
        if (isHeld_) unlock();
    }

    void lock(const char *file = __builtin_FILE(), int line = __builtin_LINE(),
              const char *function = __builtin_FUNCTION()) {
        if (pthread_mutex_lock(mutex_) != 0) mutexCallFailed("pthread_mutex_lock", name_, file, line, function);
        noteLockTaken(rank_, name_);
        isHeld_ = true;
    }

    void unlock(const char *file = __builtin_FILE(), int line = __builtin_LINE(),
                const char *function = __builtin_FUNCTION()) {
        isHeld_ = false;
        noteLockReleased(rank_);
        if (pthread_mutex_unlock(mutex_) != 0) mutexCallFailed("pthread_mutex_unlock", name_, file, line, function);
    }

    bool isHeld() const { return isHeld_; }

private:
    pthread_mutex_t *mutex_;
    LockRank rank_;
    const char *name_;
    bool isHeld_ = false;
};

}  // namespace zel
