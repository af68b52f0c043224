// The read side of the lock of the policy tables, from its begin to the end of the scope.
#pragma once

#include <cstdint>

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

// What a plain check says under the read lock. Where the lock cannot be had the check goes on without it: it believes
// nothing that it reads, and no made-up verdict would be better.
template <class... Parameters, class... Arguments>
std::uint32_t lockedCheck(std::uint32_t (*check)(Parameters...), Arguments... arguments) {
    const ReadLock lock;
    return check(arguments...);
}

}  // namespace zel::policy
