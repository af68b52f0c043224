// What every send shares.
#pragma once

#include <cstdint>

#include "ipc/endpoint.h"

namespace zel::ipc {

// Stamps the magic, and the caller's own response queue as the source of a message that names none.
void completeHeader(std::uint32_t key, void *message);
// Whether a message is there and has a header; else false with errno.
bool isMessage(const void *message, int length);

}  // namespace zel::ipc
