// What every send shares.
#pragma once

#include <cstdint>

#include "ipc/endpoint.h"

namespace zel::ipc {

// Stamps the magic, and the caller's own response queue as the source of a message that names none.
void completeHeader(std::uint32_t key, void *message);
// The queue of a checked send; null with errno, after the refusal was printed.
Queue *checkSend(std::uint32_t key, const void *message, int length);

}  // namespace zel::ipc
