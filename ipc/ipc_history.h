// The last datagrams of this process, kept while history logging is on.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

namespace zel::ipc {

enum class Direction { sent, received };

extern std::atomic<bool> historyOn;

inline bool isHistoryOn() {
    return historyOn.load(std::memory_order_relaxed);
}
// Keeps time, direction, queue, length and header of a message (60 bytes are read).
void recordHistory(Direction direction, std::uint32_t queueId, const void *header, std::size_t length);

}  // namespace zel::ipc
