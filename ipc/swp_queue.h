// What queue lists and the exported creation calls share.
#pragma once

#include <cstdint>

#include "zel/ipc.h"

namespace zel::ipc::swp {

// Everything a creator may choose; queue ids of 0 stand for the computed ones.
struct Creation {
    struct Name {
        int service = 0;
        int instance = 0;
        std::uint32_t requestQueue = 0;
        std::uint32_t timerQueue = 0;
    };
    Name sender = {};
    Name receiver = {};
    std::uint32_t capacity = 0;
    std::uint32_t window = 0;
    std::uint32_t timeOutSec = 0;
    std::uint8_t retransCount = 0;
    zelSwpUserCb callback = nullptr;
    bool ackViaTimerQueue = false;
    void (*timeOutRoutine)(std::uint32_t queue) = nullptr;
    bool isIcl = false;
    std::uint32_t *queue = nullptr;
};
int create(const Creation &wanted);

// Drops the messages that never left and that `isDropped` names for `group`; those behind them move up and are numbered
// anew, so that the receiver sees no gap. The dropped ones go to the queue's free hook.
using IsDropped = bool (*)(const void *message, std::uint32_t length, std::uint32_t group);
int dropUnsent(std::uint32_t queue, IsDropped isDropped, std::uint32_t group);

}  // namespace zel::ipc::swp
