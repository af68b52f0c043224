// What is asked of a received datagram, and the verdict: a pure function of its bytes.
#pragma once

#include <cstddef>
#include <cstdint>

#include "ipc/endpoint.h"

namespace zel::ipc {

struct Wanted {
    std::uint32_t type = 0;
    std::uint32_t transaction = 0;
    bool isAny() const { return type == 0 && transaction == 0; }
    bool isParticular() const { return type != 0 && transaction != 0; }
};

enum class Form { tooShort, wrongMagic, message };

// Whether the datagram is an IPC message at all. Only its first 60 bytes are read.
Form formOf(const void *datagram, std::size_t length);
bool isWanted(const void *message, const Wanted &wanted);

// Before an answer is asked for: drops what has piled up in its queue, unread, where that could push the answer out.
// Looks at most once a tick, so a quick succession of requests does not pay for it. Call with the turn to read.
void makeRoom(Queue &queue);

// Counts a message that is handed to the caller, reports one that did not fit; the bytes copied.
int deliver(Queue &queue, const void *message, std::size_t length, int size);

}  // namespace zel::ipc
