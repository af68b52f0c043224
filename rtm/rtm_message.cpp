// How every request of the client leaves: its header, the synchronous exchange, and the way onto a queue.
//
// The header carries what the manager may read before the message is sent: type, length, the request mark, the tick as
// transaction, this CPU's address, the manager's address and queue. The source queue stays 0: the send path writes the
// response queue for synchronous requests, and the queue's own for queued ones.
//
// A buffer belongs to the queue it is meant for: it comes from that queue's hooks when it has some, and returns there
// when the queue did not take it.
#include "rtm/rtm_message.h"

#include <cstring>

#include "base/assertion.h"
#include "zel/kernel.h"
#include "zel/platform.h"

uint32_t rtmapidebug = 0;
uint32_t rtm_api_bad_route_counter = 0;

namespace zel::rtm {
namespace {

constexpr int answerSeconds = 25;
constexpr std::uint32_t requestMark = 1;
constexpr int managerInstance = 0;
constexpr int requestQueueType = 1;

const zelSwpFifoHooks &hooksOf(std::uint32_t queue) {
    return swpFifoQueue[queue <= ZEL_SWP_MAX_QUEUES ? queue : 0];
}

}  // namespace

bool buildIpcHeader(void *message, std::uint32_t type, std::size_t length) {
    int error = 0;
    const std::uint32_t manager = zel_tmeGetPeerIpAddrByName(ZEL_RTM_SERVICE, managerInstance, &error);
    std::memset(message, 0, IpcHeader::size);
    IpcHeader::Magic::set(message, IpcHeader::magic);
    IpcHeader::Length::set(message, static_cast<std::uint32_t>(length));
    IpcHeader::MessageType::set(message, type);
    IpcHeader::PacketType::set(message, requestMark);
    IpcHeader::Transaction::set(message, static_cast<std::uint32_t>(zelTickGet()));
    IpcHeader::SourceAddress::set(message, zel_sysGetIpAddr());
    IpcHeader::TargetAddress::set(message, manager);
    IpcHeader::TargetQueue::set(message, zel_getQueueId(ZEL_RTM_SERVICE, managerInstance, requestQueueType));
    return error == 0 && manager != ZEL_IPC_NO_ADDRESS;
}

int sendAndReceive(void *message, std::uint32_t type, std::size_t length, std::size_t room, const zelIpcAddr *ipc) {
    if (!asserted(ipc, "ipc", sourceName)) return -1;
    const int key = zelGetTaskKeyFromServiceAndInst(static_cast<int>(ipc->service), static_cast<int>(ipc->instance));
    if (key < 0 || !buildIpcHeader(message, type, length)) return -1;
    const int received = zelIpcSendWait(static_cast<std::uint32_t>(key), message, static_cast<int>(length),
                                        static_cast<int>(room), answerSeconds, type);
    if (received < 0 && isDebugging(debugFailures))
        zelErrorPrintf(traceModule, "RTM request type %#x: no answer\r\n", type);
    return received;
}

int request(void *message, std::uint32_t type, std::size_t length, const zelIpcAddr *ipc) {
    const int received = sendAndReceive(message, type, length, length, ipc);
    return received < static_cast<int>(IpcHeader::size) || IpcHeader::Status::get(message) != 0;
}

void *allocateFor(std::uint32_t queue, std::size_t bytes) {
    const auto hook = hooksOf(queue).alloc;
    return hook ? hook(static_cast<std::uint32_t>(bytes)) : zelMC_malloc(sourceName, __LINE__, bytes);
}

void release(std::uint32_t queue, void *message) {
    const auto hook = hooksOf(queue).free;
    if (hook)
        hook(message);
    else
        zelMC_free(sourceName, __LINE__, message);
}

std::uint8_t *makeQueued(std::uint32_t queue, std::uint32_t type, std::size_t length, std::uint32_t handle) {
    auto *message = static_cast<std::uint8_t *>(allocateFor(queue, length));
    if (!message) return nullptr;
    std::memset(message, 0, length);
    buildIpcHeader(message, type, length);
    QueuedMessage::Handle::set(message, handle);
    return message;
}

int enqueue(std::uint32_t queue, void *message, std::size_t length) {
    if (zelSwpEnqueue(queue, message, static_cast<int>(length)) == ZEL_SWP_SUCCESS) return 0;
    release(queue, message);
    return 1;
}

}  // namespace zel::rtm
