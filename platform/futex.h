// Waiting on a word. Not a cancellation point, allocates nothing, and is safe in a signal handler.
#pragma once

#include <atomic>
#include <cstdint>

namespace zel::platform {

// Waits while `word` equals `expected`, at most until `deadline` (monotonic nanoseconds, UINT64_MAX without limit).
// False when the deadline passed; true otherwise, also without a cause. `isShared`: processes wait on the word.
bool futexWait(const std::atomic<std::uint32_t> &word, std::uint32_t expected, std::uint64_t deadline,
               bool isShared = false);
// Wakes at most `count` waiters.
void futexWake(const std::atomic<std::uint32_t> &word, int count, bool isShared = false);

}  // namespace zel::platform
