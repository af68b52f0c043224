// The read side of the lock of the policy tables, from its begin to the end of the scope.
#pragma once

#include "zel/platform.h"

namespace zel::policy {

class ReadLock {
public:
    ReadLock() : isHeld_(ZEL_ShmReadLock(ZEL_SHM_LOCK_POLICY) == 0) {}
    ~ReadLock() {
        if (isHeld_) ZEL_ShmReadUnLock(ZEL_SHM_LOCK_POLICY);
    }
    ReadLock(const ReadLock &) = delete;
    ReadLock &operator=(const ReadLock &) = delete;

private:
    const bool isHeld_;
};

}  // namespace zel::policy
