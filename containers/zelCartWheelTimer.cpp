// A single-level timing wheel.
//
// A timer fires when the cursor reaches its bucket. A bucket is a ring from the first timer started to the last, so
// stopping a timer takes its neighbours alone. A running timer knows its bucket; an idle one has none and no
// neighbours, except on the free list, which goes through `next`.
//
// The bitmap lets RetNext skip empty buckets. Starting sets a bucket's bit; stopping, which does not know the wheel,
// and expiry leave it, and RetNext clears the bits of empty buckets that it comes across: at most one for each start.
//
// Deliberate: no round counter, 16 bits of a time-out, and a tick that goes on until its bucket is empty, so that a
// handler may fire its timer again within the tick, for ever if it likes.
#include <algorithm>
#include <bit>
#include <cstdio>
#include <cstring>

#include "base/assertion.h"
#include "containers/cart_wheel.h"
#include "zel/platform.h"

namespace zel::containers {
namespace {

constexpr char source[] = "zelCartWheelTimer";
constexpr uint32_t defaultBuckets = 256;
constexpr uint32_t defaultFreeListSize = 100;
constexpr uint32_t defaultGrowth = 50;
constexpr uint32_t ticksThatCount = 0xffff;
constexpr uint32_t bitsPerWord = 64;

bool isWheel(const zelcwTimerCB *wheel, int line = __builtin_LINE()) {
    return asserted(wheel, "tcb", source, line);
}

uint32_t orDefault(uint32_t value, uint32_t valueOfZero) {
    return value != 0 ? value : valueOfZero;
}

// Room for the links, and a multiple of their alignment, which is what allocators that cut up a block go by.
uint32_t recordSizeFor(uint32_t wanted) {
    constexpr uint32_t step = alignof(zelcwTimer);
    const uint32_t size = std::max(wanted, static_cast<uint32_t>(sizeof(zelcwTimer)));
    return size > UINT32_MAX - step ? size : (size + step - 1) / step * step;
}

// A control block with empty buckets, or without where memory is short.
zelcwTimerCB *allocateWheel(uint32_t buckets) {
    const uint32_t words = (buckets + bitsPerWord - 1) / bitsPerWord;
    auto *wheel = static_cast<zelcwTimerCB *>(zelMC_calloc(source, __LINE__, 1, sizeof(zelcwTimerCB)));
    if (!wheel) return nullptr;
    wheel->tmrNumBuckets = buckets;
    wheel->buckets = static_cast<WheelBucket *>(zelMC_calloc(source, __LINE__, buckets, sizeof(WheelBucket)));
    wheel->mayHold = static_cast<uint64_t *>(zelMC_calloc(source, __LINE__, words, sizeof(uint64_t)));
    for (uint32_t i = 0; wheel->buckets && i < buckets; ++i) {
        zelcwTimer &ends = wheel->buckets[i].ends;
        ends.prev = ends.next = &ends;
    }
    return wheel;
}

void releaseWheel(zelcwTimerCB *wheel) {
    zelMC_free(source, __LINE__, wheel->mayHold);
    zelMC_free(source, __LINE__, wheel->buckets);
    zelMC_free(source, __LINE__, wheel);
}

// ---- Buckets ----

void setBit(zelcwTimerCB *wheel, uint32_t bucket) {
    wheel->mayHold[bucket / bitsPerWord] |= uint64_t{1} << bucket % bitsPerWord;
}

void clearBit(zelcwTimerCB *wheel, uint32_t bucket) {
    wheel->mayHold[bucket / bitsPerWord] &= ~(uint64_t{1} << bucket % bitsPerWord);
}

void append(WheelBucket &bucket, zelcwTimer *timer) {
    zelcwTimer *last = bucket.last();
    *timer = {last, &bucket.ends, &bucket};
    last->next = bucket.ends.prev = timer;
}

void remove(zelcwTimer *timer) {
    zelcwTimer *prev = timer->prev, *next = timer->next;
    prev->next = next;
    next->prev = prev;
    *timer = {};
}

void stop(zelcwTimer *timer) {
    if (timer->bucket) remove(timer);
}

zelcwTimer *takeFirst(WheelBucket &bucket) {
    if (bucket.isEmpty()) return nullptr;
    zelcwTimer *timer = bucket.first();
    remove(timer);
    return timer;
}

// Fetches the records of a bucket from both ends at once: they lie anywhere, and each tells where the next one is.
void fetchAll(const WheelBucket &bucket) {
    const zelcwTimer *front = bucket.first(), *back = bucket.last();
    while (front != back && front->next != back) {
        front = front->next;
        back = back->prev;
        __builtin_prefetch(front);
        __builtin_prefetch(back);
    }
}

// The first bucket of [from, to) that holds a timer; `to` when none does.
uint32_t firstHolding(zelcwTimerCB *wheel, uint32_t from, uint32_t to) {
    for (uint32_t at = from; at < to; at = (at / bitsPerWord + 1) * bitsPerWord) {
        uint64_t bits = wheel->mayHold[at / bitsPerWord] >> at % bitsPerWord;
        for (; bits; bits &= bits - 1) {
            const uint32_t bucket = at + static_cast<uint32_t>(std::countr_zero(bits));
            if (bucket >= to) return to;
            if (!wheel->buckets[bucket].isEmpty()) return bucket;
            clearBit(wheel, bucket);
        }
    }
    return to;
}

// ---- Records ----

void pushFree(zelcwTimerCB *wheel, zelcwTimer *record) {
    *record = {nullptr, wheel->freeList, nullptr};
    wheel->freeList = record;
}

zelcwTimer *popFree(zelcwTimerCB *wheel) {
    zelcwTimer *record = wheel->freeList;
    wheel->freeList = record->next;
    record->next = nullptr;
    return record;
}

void releaseFree(zelcwTimerCB *wheel, uint32_t records) {
    for (; records > 0 && wheel->freeList; --records) wheel->freeFn(popFree(wheel));
}

int grow(zelcwTimerCB *wheel, uint32_t records) {
    for (uint32_t added = 0; added < records; ++added) {
        void *record = wheel->allocFn(wheel->tmrSize);
        if (!record) {
            releaseFree(wheel, added);
            return -1;
        }
        memset(record, 0, wheel->tmrSize);
        pushFree(wheel, static_cast<zelcwTimer *>(record));
    }
    return 0;
}

void printRunning(const zelcwTimerCB *wheel) {
    fputs("---------------------------------------------------\r", stdout);
    if (!wheel->printFn) return;
    for (uint32_t i = 0; i < wheel->tmrNumBuckets; ++i)
        for (zelcwTimer *at = wheel->buckets[i].first(); at != &wheel->buckets[i].ends; at = at->next)
            wheel->printFn(at);
}

void printFree(const zelcwTimerCB *wheel) {
    fputs("Free List:\r", stdout);
    if (!wheel->printFn) return;
    for (zelcwTimer *record = wheel->freeList; record; record = record->next) wheel->printFn(record);
}

}  // namespace
}  // namespace zel::containers

using namespace zel;
using namespace zel::containers;

zelcwTimerCB *zelcwTimerInit(uint32_t numBuckets, uint32_t freeListSize, uint32_t growth, zelAllocFn allocFn,
                             zelFreeFn freeFn, zelcwTimerFn expiryHandler, zelcwTimerFn printFn, intptr_t ownerWord,
                             uint32_t recordSize) {
    if (!asserted(expiryHandler, "tmrExpiryHandler", source)) return nullptr;
    if (!asserted((numBuckets & (numBuckets - 1)) == 0, "((((tmrNumBuckets)&((tmrNumBuckets)-1))?0:1))", source))
        return nullptr;
    if (!asserted(recordSize != 0, "(tmrSize != 0)", source)) return nullptr;
    zelcwTimerCB *wheel = allocateWheel(orDefault(numBuckets, defaultBuckets));
    if (!wheel) return nullptr;
    wheel->freeListSize = orDefault(freeListSize, defaultFreeListSize);
    wheel->growth = orDefault(growth, defaultGrowth);
    wheel->tmrSize = recordSizeFor(recordSize);
    wheel->ownerWord = ownerWord;
    wheel->allocFn = allocFn ? allocFn : zelcartWheelTimerMalloc;
    wheel->freeFn = freeFn ? freeFn : zelcartWheelTimerFree;
    wheel->tmrExpiryHandler = expiryHandler;
    wheel->printFn = printFn;
    if (wheel->buckets && wheel->mayHold && grow(wheel, wheel->freeListSize) == 0) return wheel;
    releaseWheel(wheel);
    return nullptr;
}

void zelcwTimerUnInit(zelcwTimerCB *wheel) {
    if (!isWheel(wheel)) return;
    for (uint32_t i = 0; i < wheel->tmrNumBuckets; ++i)
        while (zelcwTimer *timer = takeFirst(wheel->buckets[i])) wheel->freeFn(timer);
    releaseFree(wheel, UINT32_MAX);
    releaseWheel(wheel);
}

void *zelcwGetTimer(zelcwTimerCB *wheel) {
    if (!isWheel(wheel)) return nullptr;
    if (!wheel->freeList && grow(wheel, wheel->growth) != 0) return nullptr;
    return popFree(wheel);
}

void zelcwFreeTimer(zelcwTimerCB *wheel, void *timer) {
    if (!timer || !isWheel(wheel)) return;
    auto *record = static_cast<zelcwTimer *>(timer);
    stop(record);
    pushFree(wheel, record);
}

int zelcwTimerAllocFreeList(zelcwTimerCB *wheel, uint32_t records) {
    return isWheel(wheel) ? grow(wheel, records) : -1;
}

void zelcwStartTimer(zelcwTimerCB *wheel, void *timer, uint32_t ticks) {
    if (!timer || !isWheel(wheel)) return;
    auto *record = static_cast<zelcwTimer *>(timer);
    stop(record);
    const uint32_t bucket = ((ticks & ticksThatCount) + wheel->cursor) & (wheel->tmrNumBuckets - 1);
    append(wheel->buckets[bucket], record);
    setBit(wheel, bucket);
}

void zelcwRestartTimer(zelcwTimerCB *wheel, void *timer, uint32_t ticks) {
    zelcwStartTimer(wheel, timer, ticks);
}

void zelcwStopTimer(void *timer) {
    if (timer) stop(static_cast<zelcwTimer *>(timer));
}

void zelcwTimerTick(zelcwTimerCB *wheel) {
    if (!isWheel(wheel)) return;
    ++wheel->tickCount;
    const uint32_t buckets = wheel->tmrNumBuckets;
    WheelBucket &due = wheel->buckets[wheel->cursor];
    fetchAll(due);
    while (zelcwTimer *timer = takeFirst(due)) wheel->tmrExpiryHandler(timer);
    wheel->cursor = (wheel->cursor + 1) & (buckets - 1);
}

void *zelcwGetNextExpiredTimer(zelcwTimerCB *wheel) {
    return isWheel(wheel) ? takeFirst(wheel->buckets[wheel->cursor]) : nullptr;
}

int zelcwTimerRetNext(zelcwTimerCB *wheel) {
    if (!isWheel(wheel)) return -1;
    const uint32_t cursor = wheel->cursor, buckets = wheel->tmrNumBuckets;
    uint32_t next = firstHolding(wheel, cursor, buckets);
    if (next == buckets) {
        next = firstHolding(wheel, 0, cursor);
        if (next == cursor) return -1;
    }
    return static_cast<int>((next - cursor) & (buckets - 1)) + 1;
}

uint32_t zelcwTimerTickCount(const zelcwTimerCB *wheel) {
    return isWheel(wheel) ? wheel->tickCount : 0;
}

intptr_t zelcwTimerOwner(const zelcwTimerCB *wheel) {
    return isWheel(wheel) ? wheel->ownerWord : 0;
}

void zelcwPrintTimerInfo(zelcwTimerCB *wheel) {
    zelcwPrintOnlyTimerInfo(wheel);
    if (wheel) printFree(wheel);
}

void zelcwPrintOnlyTimerInfo(zelcwTimerCB *wheel) {
    if (wheel)
        printRunning(wheel);
    else
        fputs("tzelcwTimerCB is NULL\r", stdout);
}

void *zelcartWheelTimerMalloc(size_t bytes) {
    return zelMC_malloc(source, __LINE__, bytes);
}

void zelcartWheelTimerFree(void *record) {
    zelMC_free(source, __LINE__, record);
}
