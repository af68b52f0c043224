// What a wheel is made of.
#pragma once

#include <cstdint>

#include "zel/containers.h"

namespace zel::containers {

// The timers that fire in one tick, in the order in which they were started, behind a node of no timer: a ring, so that
// no end is ever tested for.
struct WheelBucket {
    zelcwTimer ends;

    zelcwTimer *first() const { return ends.next; }
    zelcwTimer *last() const { return ends.prev; }
    bool isEmpty() const { return ends.next == &ends; }
};

}  // namespace zel::containers

struct zelcwTimerCB {
    uint32_t tickCount;
    uint32_t cursor;  // the bucket that the next tick fires
    uint32_t tmrNumBuckets;
    uint32_t freeListSize;
    uint32_t growth;
    uint32_t tmrSize;
    zel::containers::WheelBucket *buckets;
    zelcwTimer *freeList;  // linked by `next`
    intptr_t ownerWord;
    zelAllocFn allocFn;
    zelFreeFn freeFn;
    zelcwTimerFn tmrExpiryHandler;
    zelcwTimerFn printFn;
    uint64_t *mayHold;  // a bit for each bucket; a bucket whose bit is clear is empty
};
