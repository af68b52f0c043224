#include "rtm/client.h"

#include <cstring>

#include "zel/kernel.h"
#include "zel/platform.h"

namespace zel::rtm {
namespace {

constexpr int answerSeconds = 25;
constexpr int managerInstance = 0;

const zelSwpFifoHooks &hooksOf(std::uint32_t queue) {
    return swpFifoQueue[queue <= ZEL_SWP_MAX_QUEUES ? queue : 0];
}

}  // namespace

bool writeHeader(void *message, std::uint32_t type, std::size_t length, int service, std::uint32_t sourceAddress) {
    int error = 0;
    const std::uint32_t manager = zel_tmeGetPeerIpAddrByName(service, managerInstance, &error);
    std::memset(message, 0, IpcHeader::size);
    IpcHeader::Magic::set(message, IpcHeader::magic);
    IpcHeader::Length::set(message, static_cast<std::uint32_t>(length));
    IpcHeader::MessageType::set(message, type);
    IpcHeader::PacketType::set(message, requestMark);
    IpcHeader::Transaction::set(message, static_cast<std::uint32_t>(zelTickGet()));
    IpcHeader::SourceAddress::set(message, sourceAddress);
    IpcHeader::TargetAddress::set(message, manager);
    IpcHeader::TargetQueue::set(message, zel_getQueueId(service, managerInstance, requestQueueType));
    return error == 0 && manager != ZEL_IPC_NO_ADDRESS;
}

void addressTo(void *message, std::uint32_t type, std::size_t length, std::uint32_t to, std::uint32_t queue) {
    std::memset(message, 0, length);
    IpcHeader::Magic::set(message, IpcHeader::magic);
    IpcHeader::Length::set(message, static_cast<std::uint32_t>(length));
    IpcHeader::MessageType::set(message, type);
    IpcHeader::TargetAddress::set(message, to);
    IpcHeader::TargetQueue::set(message, queue);
}

int exchange(void *message, std::size_t length, std::size_t room, const zelIpcAddr &ipc) {
    const int key = zelGetTaskKeyFromServiceAndInst(static_cast<int>(ipc.service), static_cast<int>(ipc.instance));
    if (key < 0) return -1;
    return zelIpcSendWait(static_cast<std::uint32_t>(key), message, static_cast<int>(length), static_cast<int>(room),
                          answerSeconds, IpcHeader::MessageType::get(message));
}

void *allocateFor(std::uint32_t queue, std::size_t bytes, const char *tag) {
    const auto hook = hooksOf(queue).alloc;
    return hook ? hook(static_cast<std::uint32_t>(bytes)) : zelMC_malloc(tag, __LINE__, bytes);
}

void release(std::uint32_t queue, void *message, const char *tag) {
    const auto hook = hooksOf(queue).free;
    if (hook)
        hook(message);
    else
        zelMC_free(tag, __LINE__, message);
}

int enqueue(std::uint32_t queue, void *message, std::size_t length, const char *tag) {
    if (zelSwpEnqueue(queue, message, static_cast<int>(length)) == ZEL_SWP_SUCCESS) return 0;
    release(queue, message, tag);
    return 1;
}

int releaseAcknowledged(std::uint32_t queue, const char *tag) {
    void *message = nullptr;
    const int result = zelSwpDequeue(queue, &message);
    if (result != ZEL_SWP_SUCCESS || !message) return result ? result : ZEL_SWP_DELETE_FAILED;
    using ipc::SwpHeader;
    const auto *header = bytesOf(message) + SwpHeader::offsetInMessage;
    release(SwpHeader::Queue::get(header), message, tag);
    return 0;
}

void readCounters(const void *message, std::uint64_t *counters, std::size_t count) {
    for (std::size_t i = 0; i < count; ++i)
        counters[i] = wire::load<std::uint64_t>(bytesOf(message) + countersOffset + i * sizeof *counters);
}

int writeCounters(void *message, const std::uint64_t *counters, std::size_t count) {
    auto *at = static_cast<std::uint8_t *>(message);
    IpcHeader::Status::set(at, 0);
    for (std::size_t i = 0; i < count; ++i) wire::store(at + countersOffset + i * sizeof *counters, counters[i]);
    return static_cast<int>(countersSize(count));
}

}  // namespace zel::rtm
