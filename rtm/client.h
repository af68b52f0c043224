// What the clients of both route table managers are made of, and what reads their messages on the other side.
//
// A buffer belongs to the queue it is meant for: it comes from that queue's hooks when it has some, else from the heap
// under the client's tag, and returns there when the queue did not take it.
#pragma once

#include <cstdint>

#include "base/wire.h"
#include "ipc/ipc_header.h"
#include "zel/rtm.h"

namespace zel::rtm {

using ipc::IpcHeader;

constexpr int requestQueueType = 1;
constexpr std::uint32_t requestMark = 1;  // as packet type

// Writes a header to the request queue of the manager that is this service, from `sourceAddress`; the rest of it is 0
// or the send path's to stamp. False when the manager's address is not known; it is filled all the same.
bool writeHeader(void *message, std::uint32_t type, std::size_t length, int service, std::uint32_t sourceAddress);
// A header from nobody to a client's receive queue, in `length` zero bytes.
void addressTo(void *message, std::uint32_t type, std::size_t length, std::uint32_t to, std::uint32_t queue);

// Sends a request, its header written, from the caller's endpoint and waits for its answer, which replaces it; bytes
// received, at most `room`, or -1.
int exchange(void *message, std::size_t length, std::size_t room, const zelIpcAddr &ipc);

// A buffer for a message on `queue`; not zeroed, null when there is none.
void *allocateFor(std::uint32_t queue, std::size_t bytes, const char *tag);
void release(std::uint32_t queue, void *message, const char *tag);
// Puts it on the queue: 0, or 1 for a message that was not taken and is released.
int enqueue(std::uint32_t queue, void *message, std::size_t length, const char *tag);
// Takes the oldest acknowledged message off the queue and releases it: the result of zelSwpDequeue.
int releaseAcknowledged(std::uint32_t queue, const char *tag);

// Counters: u64 words behind the header.
constexpr std::size_t countersOffset = IpcHeader::size;
constexpr std::size_t countersSize(std::size_t count) {
    return countersOffset + count * sizeof(std::uint64_t);
}
void readCounters(const void *message, std::uint64_t *counters, std::size_t count);
int writeCounters(void *message, const std::uint64_t *counters, std::size_t count);

inline const std::uint8_t *bytesOf(const void *message) {
    return static_cast<const std::uint8_t *>(message);
}
inline bool hasHeader(const void *message, int length, std::size_t least) {
    return message && length >= static_cast<int>(least) && IpcHeader::Magic::get(message) == IpcHeader::magic;
}

}  // namespace zel::rtm
