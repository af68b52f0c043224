// What tests of printing share: a clock that stands still, and a reader of the trace history.
#pragma once

#include <cstdlib>
#include <ctime>
#include <string>

#include "base/wire.h"
#include "kernel/history.h"
#include "zel/kernel.h"
#include "zel/platform.h"

namespace zel::test {

// The wall clock stands at 14 November 22:13:20 UTC until it is moved.
class StandingClock {
public:
    StandingClock() : seam_(*zelPlatformSeam()) {
        setenv("TZ", "UTC", 1);
        tzset();
        seam_.wallClock = [](void *) { return second; };
        zelPlatformSetSeam(&seam_);
    }
    ~StandingClock() { zelPlatformSetSeam(nullptr); }
    StandingClock(const StandingClock &) = delete;
    StandingClock &operator=(const StandingClock &) = delete;
    void moveTo(std::int64_t to) { second = to; }

    static inline std::int64_t second = 1'700'000'000;

private:
    zelHostSeam seam_;
};

// Buffer 0 or 2 of the history.
class History {
public:
    explicit History(int buffer) : buffer_(pTraceHistory[buffer]) {}
    // Under the lock: writers may be at work.
    std::uint32_t index() const {
        ZEL_ShmReadLock(ZEL_SHM_LOCK_HISTORY);
        const std::uint32_t index = kernel::HistoryBuffer::Index::get(buffer_);
        ZEL_ShmReadUnLock(ZEL_SHM_LOCK_HISTORY);
        return index;
    }
    void setIndex(std::uint32_t index) { kernel::HistoryBuffer::Index::set(buffer_, index); }
    std::uint32_t wrapped() const { return kernel::HistoryBuffer::Wrapped::get(buffer_); }
    std::uint32_t module(std::uint32_t i) const {
        return wire::load<std::uint32_t>(kernel::HistoryBuffer::module(buffer_, i));
    }
    std::uint32_t level(std::uint32_t i) const {
        return wire::load<std::uint32_t>(kernel::HistoryBuffer::level(buffer_, i));
    }
    const char *text(std::uint32_t i) const { return kernel::HistoryBuffer::text(buffer_, i); }

private:
    std::uint8_t *buffer_;
};

}  // namespace zel::test
