// Socket buffers, broadcast and counters of a queue.
#include <cerrno>

#include "ipc/endpoint.h"
#include "kernel/task.h"
#include "platform/datagram.h"

namespace zel::ipc {
namespace {

using platform::SocketBuffer;

int failWith(int *error, int cause) {
    if (error) *error = cause;
    return kernel::fail(cause);
}

// The effective size, kept in the descriptor.
int &bytesOf(zelIpcQueueDesc &descriptor, SocketBuffer which) {
    return which == SocketBuffer::send ? descriptor.sendBufferBytes : descriptor.recvBufferBytes;
}

int setLimit(std::uint32_t key, int bytes, int *error, SocketBuffer which) {
    Queue *queue = findOpenQueue(key);
    if (!queue) return failWith(error, errno);
    Lock lock(endpointLock);
    const int socket = queue->descriptor.socket;
    if (!platform::setBufferBytes(socket, which, bytes)) return failWith(error, errno);
    const int effective = platform::bufferBytes(socket, which);
    if (effective < 0) return failWith(error, errno);
    bytesOf(queue->descriptor, which) = effective;
    return ZEL_OK;
}

int getLimit(std::uint32_t key, int *error, SocketBuffer which) {
    Queue *queue = findOpenQueue(key);
    if (!queue) return failWith(error, errno);
    Lock lock(endpointLock);
    return bytesOf(queue->descriptor, which);
}

int setBroadcast(std::uint32_t key, bool isOn) {
    Queue *queue = findOpenQueue(key);
    return queue && platform::setBroadcast(queue->socket.load(), isOn) ? ZEL_OK : ZEL_ERROR;
}

std::uint64_t dropsOf(const Queue &queue) {
    Lock lock(endpointLock);
    return queue.descriptor.inUse ? platform::droppedByHost(queue.descriptor.socket) : queue.counters.droppedByHost;
}

}  // namespace
}  // namespace zel::ipc

using namespace zel::ipc;

int zelIpcSetSendBufferLimit(uint32_t key, int bytes, int *error) {
    return setLimit(key, bytes, error, SocketBuffer::send);
}

int zelIpcSetRecvBufferLimit(uint32_t key, int bytes, int *error) {
    return setLimit(key, bytes, error, SocketBuffer::receive);
}

int zelIpcGetSendBufferLimit(uint32_t key, int *error) {
    return getLimit(key, error, SocketBuffer::send);
}

int zelIpcGetRecvBufferLimit(uint32_t key, int *error) {
    return getLimit(key, error, SocketBuffer::receive);
}

int zelIpcEnableBroadcast(uint32_t key) {
    return setBroadcast(key, true);
}

int zelIpcDisableBroadcast(uint32_t key) {
    return setBroadcast(key, false);
}

int zelIpcGetQueueStats(uint32_t key, zelIpcQueueStats *stats) {
    const Endpoint *endpoint = findEndpoint(key);
    if (!endpoint || !stats) return zel::kernel::fail(EINVAL);
    const Queue &queue = endpoint->queues[queueNamedBy(key)];
    const Counters &counters = queue.counters;
    *stats = {.sent = counters.sent,
              .sendFailures = counters.sendFailures,
              .received = counters.received,
              .droppedShort = counters.droppedShort,
              .droppedMagic = counters.droppedMagic,
              .droppedMismatch = counters.droppedMismatch,
              .droppedLateAck = counters.droppedLateAck,
              .droppedDuplicate = counters.droppedDuplicate,
              .droppedByHost = dropsOf(queue),
              .truncated = counters.truncated};
    return ZEL_OK;
}
