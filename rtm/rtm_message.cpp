// How every request of the client leaves: its header, the synchronous exchange, and the way onto a queue.
//
// The header carries what the manager may read before the message is sent: type, length, the request mark, the tick as
// transaction, this CPU's address, the manager's address and queue. The source queue stays 0: the send path writes the
// response queue for synchronous requests, and the queue's own for queued ones.
#include "rtm/rtm_message.h"

#include <cstring>

#include "base/assertion.h"
#include "zel/kernel.h"

uint32_t rtmapidebug = 0;
uint32_t rtm_api_bad_route_counter = 0;

namespace zel::rtm {

bool buildIpcHeader(void *message, std::uint32_t type, std::size_t length) {
    return writeHeader(message, type, length, ZEL_RTM_SERVICE, zel_sysGetIpAddr());
}

int sendAndReceive(void *message, std::uint32_t type, std::size_t length, std::size_t room, const zelIpcAddr *ipc) {
    if (!asserted(ipc, "ipc", sourceName)) return -1;
    if (!buildIpcHeader(message, type, length)) return -1;
    const int received = exchange(message, length, room, *ipc);
    if (received < 0 && isDebugging(debugFailures))
        zelErrorPrintf(traceModule, "RTM request type %#x: no answer\r\n", type);
    return received;
}

int request(void *message, std::uint32_t type, std::size_t length, const zelIpcAddr *ipc) {
    const int received = sendAndReceive(message, type, length, length, ipc);
    return received < static_cast<int>(IpcHeader::size) || IpcHeader::Status::get(message) != 0;
}

std::uint8_t *makeQueued(std::uint32_t queue, std::uint32_t type, std::size_t length, std::uint32_t handle) {
    auto *message = static_cast<std::uint8_t *>(allocateFor(queue, length, sourceName));
    if (!message) return nullptr;
    std::memset(message, 0, length);
    buildIpcHeader(message, type, length);
    QueuedMessage::Handle::set(message, handle);
    return message;
}

}  // namespace zel::rtm
