// What queue lists need of a queue beside the exported calls.
#pragma once

#include <cstdint>

#include "zel/ipc.h"

namespace zel::ipc::swp {

// Drops the messages that never left and that `isDropped` names for `group`; those behind them move up and are numbered
// anew, so that the receiver sees no gap. The dropped ones go to the queue's free hook.
using IsDropped = bool (*)(const void *message, std::uint32_t length, std::uint32_t group);
int dropUnsent(std::uint32_t queue, IsDropped isDropped, std::uint32_t group);

}  // namespace zel::ipc::swp
