// What watchdogs and interval timers share: records in the order of their creation, each under a lock of its own, that
// a service task counts down to calls.
//
// A Record has a Mutex `own`, a link `next`, a type Due, and countDown(): one step, under its lock, which says what is
// to be called now, if anything. The list lock is taken before a record's own. Routines are called with neither held,
// so they may start, cancel, delete and create records, their own included.
#pragma once

#include <new>

#include "kernel/task.h"
#include "platform/scheduling.h"

namespace zel::kernel {

template <class Record>
class CountdownList {
public:
    explicit constexpr CountdownList(const char *lockName) : lock_(LockRank::objectList, lockName) {}

    // Null without memory.
    Record *create() {
        const KernelSection section;
        void *memory = allocate(sizeof(Record));
        if (memory == nullptr) {
            fail(ZEL_ERR_NOT_ENOUGH_MEMORY);
            return nullptr;
        }
        auto *record = new (memory) Record;
        if (platform::initMutex(record->own.native) != 0)
            mutexCallFailed("pthread_mutex_init", record->own.name, __FILE__, __LINE__, __func__);
        const Lock list(lock_);
        *linkTo(nullptr) = record;
        return record;
    }

    // Runs `change` on a listed record with its lock held, or fails.
    template <class Change>
    int with(Record *record, Change change) {
        const KernelSection section;
        Lock list(lock_);
        if (!isListed(record)) {
            list.unlock();
            return fail(ZEL_ERR_INVALID_OBJECT_ID);
        }
        const Lock own(record->own);
        list.unlock();
        change(*record);
        return ZEL_OK;
    }

    int destroy(Record *record) {
        const KernelSection section;
        Lock list(lock_);
        if (!isListed(record)) {
            list.unlock();
            return fail(ZEL_ERR_INVALID_OBJECT_ID);
        }
        *linkTo(record) = record->next;
        ++removals_;
        // Whoever found the record before holds its lock now; nobody finds it any more.
        { const Lock own(record->own); }
        list.unlock();
        pthread_mutex_destroy(&record->own.native);
        release(record);
        return ZEL_OK;
    }

    // Counts every record down once. Ends at a record that was deleted since the last step; the rest wait for the next
    // pass.
    void pass() {
        Position at = begin();
        while (at.record != nullptr)
            if (const auto due = nextDue(at); due.routine != nullptr) due.call();
    }

private:
    struct Position {
        Record *record;
        std::uint64_t removals;  // while they stand still, a listed record stays listed
    };

    Record **linkTo(const Record *record) {
        Record **link = &first_;
        while (*link != nullptr && *link != record) link = &(*link)->next;
        return link;
    }

    bool isListed(const Record *record) { return record != nullptr && *linkTo(record) == record; }

    Position begin() {
        const KernelSection section;
        const Lock list(lock_);
        return {first_, removals_};
    }

    // The first that is due from `at` on, which moves behind it.
    typename Record::Due nextDue(Position &at) {
        const KernelSection section;
        const Lock list(lock_);
        if (at.removals != removals_ && !isListed(at.record)) at.record = nullptr;
        at.removals = removals_;
        while (at.record != nullptr) {
            Record &record = *at.record;
            at.record = record.next;
            const Lock own(record.own);
            if (const auto due = record.countDown(); due.routine != nullptr) return due;
        }
        return {};
    }

    Mutex lock_;
    Record *first_ = nullptr;
    std::uint64_t removals_ = 0;
};

}  // namespace zel::kernel
