// Numbered locks between processes.
#include <pthread.h>
#include <sys/mman.h>

#include "bench/support/row.h"
#include "zel/platform.h"

namespace {

constexpr int benchedLock = 9;

void numberedReadPair(benchmark::State &state) {
    for (auto _ : state) {
        ZEL_ShmReadLock(benchedLock);
        ZEL_ShmReadUnLock(benchedLock);
    }
}

// One lock for all threads of the row, on a page of its own that a child would share.
pthread_rwlock_t *sharedRwlock() {
    static pthread_rwlock_t *const lock = [] {
        void *page = mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        auto *made = static_cast<pthread_rwlock_t *>(page);
        pthread_rwlockattr_t attributes;
        pthread_rwlockattr_init(&attributes);
        pthread_rwlockattr_setpshared(&attributes, PTHREAD_PROCESS_SHARED);
        pthread_rwlock_init(made, &attributes);
        pthread_rwlockattr_destroy(&attributes);
        return made;
    }();
    return lock;
}

void rwlockReadPair(benchmark::State &state) {
    pthread_rwlock_t *lock = sharedRwlock();
    for (auto _ : state) {
        pthread_rwlock_rdlock(lock);
        pthread_rwlock_unlock(lock);
    }
}

ZEL_ROW("numbered lock, read pair, 1 thread", "ns", time)
    .ours(numberedReadPair)
    .peer("process-shared pthread_rwlock", rwlockReadPair, 1.0, 0.5);

ZEL_ROW("numbered lock, read pair, 2 threads", "ns", time)
    .threads(2)
    .ours(numberedReadPair)
    .peer("process-shared pthread_rwlock", rwlockReadPair, 0.7, 0.5);

}  // namespace
