// What queue lists and owners of messages need of a queue beside the exported calls.
#pragma once

#include <cstdint>

#include "zel/ipc.h"

namespace zel::ipc::swp {

// Cuts the messages that never left to the length that `trim` gives them, at most the one they have; 0 drops one, and
// it goes to the queue's free hook. Those behind it move up and are numbered anew, so that the receiver sees no gap.
// `trim` may change a message behind its sliding-window header; it runs under the queue's lock and must not print.
using Trim = std::uint32_t (*)(void *message, std::uint32_t length, void *context);
int trimUnsent(std::uint32_t queue, Trim trim, void *context);

}  // namespace zel::ipc::swp
