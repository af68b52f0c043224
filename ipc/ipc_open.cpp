// Opening and closing endpoints.
//
// A queue is a socket bound to the port that its queue id is. Sockets are made without a lock, since binding may wait a
// second for a port in use; the finished ones are installed under the endpoint lock. Until a socket is installed a
// guard owns it, so that a task deleted while it waits leaves no port taken.
#include <arpa/inet.h>
#include <netinet/in.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "ipc/endpoint.h"
#include "ipc/guaranteed.h"
#include "kernel/task.h"
#include "platform/cancellation.h"
#include "platform/datagram.h"
#include "platform/seam.h"
#include "zel/platform.h"

namespace zel::ipc {
namespace {

constexpr int receiveBufferBytes = 129024;
constexpr int sendBufferBytes = 32768;
constexpr int bindRetries = 5;
constexpr int bindRetryTicks = 10;

std::atomic<std::uint32_t> secondaryAddress{ZEL_IPC_NO_ADDRESS};

class OwnedSocket {
public:
    explicit OwnedSocket(int socket) : socket_(socket) {}
    ~OwnedSocket() {
        if (socket_ >= 0) platform::closeDatagramSocket(socket_);
    }
    OwnedSocket(const OwnedSocket &) = delete;
    OwnedSocket &operator=(const OwnedSocket &) = delete;
    int get() const { return socket_; }
    int release() { return std::exchange(socket_, -1); }

private:
    int socket_;
};

std::uint32_t localAddress(bool isSecondary) {
    const std::uint32_t address = isSecondary ? secondaryAddress.load() : zel_sysGetIpAddr();
    if (address == ZEL_IPC_NO_ADDRESS)
        zelErrorPrintf(traceModule, isSecondary ? "zel_ipcSOpen: Secondary IP addr is INVALID"
                                                : "zel_ipcSOpen: local Cpu IP addr is INVALID");
    return address;
}

bool bindWithRetries(int socket, std::uint32_t address, int port) {
    const int before = errno;
    for (int retries = 0;; ++retries) {
        if (platform::bindDatagramSocket(socket, address, static_cast<std::uint16_t>(port))) {
            errno = before;
            return true;
        }
        if (errno != EADDRINUSE || retries == bindRetries) return false;
        zelErrorPrintf(traceModule, "%s: errno: %d,PORT IN USE - Will retry bind() after a delay", selfName(), errno);
        taskDelay(bindRetryTicks);
    }
}

bool readBufferSizes(zelIpcQueueDesc &descriptor) {
    descriptor.recvBufferBytes = platform::bufferBytes(descriptor.socket, platform::SocketBuffer::receive);
    if (descriptor.recvBufferBytes < 0) {
        zelErrorPrintf(traceModule, "%s: errno: %d getsockop for rcvBuf failed", selfName(), errno);
        return false;
    }
    descriptor.sendBufferBytes = platform::bufferBytes(descriptor.socket, platform::SocketBuffer::send);
    if (descriptor.sendBufferBytes < 0) {
        zelErrorPrintf(traceModule, "%s: errno: %d getsockop for sndBuf failed", selfName(), errno);
        return false;
    }
    return true;
}

// The record is looked up before endpointLock is taken, since that may attach the segment.
void mirrorOpenState(zelIpcEndpoint *record, std::uint32_t mask) {
    if (!record) return;
    storeWord(record->openMask, mask);
    storeWord(record->state, mask != 0 ? 1 : 0);
}

class OwnedLink {
public:
    OwnedLink() = default;
    ~OwnedLink() {
        if (descriptor.inUse) platform::closeDatagramSocket(descriptor.socket);
    }
    OwnedLink(const OwnedLink &) = delete;
    OwnedLink &operator=(const OwnedLink &) = delete;
    zelIpcQueueDesc descriptor{};
};

std::uint32_t queueIdOf(const Endpoint &endpoint, std::uint32_t type) {
    return zel_getQueueId(endpoint.service, endpoint.instance, static_cast<int>(type));
}

void installQueue(Endpoint &endpoint, std::uint32_t type, OwnedLink &link) {
    const std::uint32_t queueId = queueIdOf(endpoint, type);
    zelIpcEndpoint *record = sharedRecord(endpoint.service, endpoint.instance);
    Lock lock(endpointLock);
    Queue &queue = endpoint.queues[type];
    queue.counters.clear();
    queue.receiveTimeout = 0;
    queue.queueId = queueId;
    queue.descriptor = std::exchange(link.descriptor, {});
    endpoint.highestSocket = std::max(endpoint.highestSocket, queue.descriptor.socket);
    queue.socket.store(queue.descriptor.socket, std::memory_order_release);
    mirrorOpenState(record, endpoint.openMask.fetch_or(openBit(type), std::memory_order_acq_rel) | openBit(type));
}

// The socket's number may go to another socket only when nobody reads from it. Readers leave at once, unless they are
// suspended; those are not waited for.
void awaitReaders(const Queue &queue, int socket) {
    platform::wakeReaders(socket);
    const zelHostSeam &seam = platform::seam();
    const std::uint64_t deadline = platform::deadlineAfterSeconds(1);
    while (queue.receivers.load(std::memory_order_acquire) > 0 && platform::now() < deadline)
        seam.sleepUntil(seam.context, platform::now() + platform::nanosecondsPerTick / 20);
}

// Takes a queue out of the endpoint, so that no new operation finds it, then closes its socket.
void removeQueue(Endpoint &endpoint, std::uint32_t type) {
    OwnedLink removed;
    zelIpcEndpoint *record = sharedRecord(endpoint.service, endpoint.instance);
    Queue &queue = endpoint.queues[type];
    {
        Lock lock(endpointLock);
        const std::uint32_t mask =
            endpoint.openMask.fetch_and(~openBit(type), std::memory_order_acq_rel) & ~openBit(type);
        mirrorOpenState(record, mask);
        removed.descriptor = std::exchange(queue.descriptor, {});
        if (removed.descriptor.inUse) queue.counters.droppedByHost = platform::droppedByHost(removed.descriptor.socket);
        queue.socket.store(-1, std::memory_order_release);
    }
    if (removed.descriptor.inUse) awaitReaders(queue, removed.descriptor.socket);
}

bool isExchangeOpen(const Endpoint &endpoint) {
    return endpoint.isOpen(requestQueue) && endpoint.isOpen(responseQueue);
}

bool createLink(const Endpoint &endpoint, std::uint32_t type, OwnedLink &link) {
    if (zel_ipcCreateLink(&link.descriptor, queueIdOf(endpoint, type)) == ZEL_OK) return true;
    zelErrorPrintf(traceModule, "Failed to create %s socket fd for %s", type == requestQueue ? "request" : "response",
                   selfName());
    return false;
}

bool createResponseSemaphore(OwnedLink &link) {
    link.descriptor.responseSemaphore = semBCreate(ZEL_SEM_PRIORITY, 1);
    if (link.descriptor.responseSemaphore != 0) return true;
    zelErrorPrintf(traceModule, "Failed to create ipc_rspq_sem for %s", selfName());
    return false;
}

// Nothing is installed before everything is there: a half open endpoint could neither be closed nor opened again.
bool openExchange(Endpoint &endpoint) {
    OwnedLink request, response;
    if (!createLink(endpoint, requestQueue, request) || !createLink(endpoint, responseQueue, response) ||
        !openFilter(endpoint) || !createResponseSemaphore(response))
        return false;
    endpoint.responseSemaphore.store(response.descriptor.responseSemaphore, std::memory_order_release);
    installQueue(endpoint, requestQueue, request);
    installQueue(endpoint, responseQueue, response);
    return true;
}

void recordOwner(Endpoint &endpoint) {
    zelIpcEndpoint *record = sharedRecord(endpoint.service, endpoint.instance);
    if (!record) return;
    if (!isOwned(*record)) {
        if (isTraceOn(traceModule))
            zelTracePrintf(traceModule, "New service %d(%s) by existing task %d(%s)", endpoint.service,
                           zelTaskGetServiceName(endpoint.service), static_cast<int>(thisTaskId()), selfName());
        claim(*record, endpoint.service, endpoint.instance);
        endpoint.row = services[static_cast<std::size_t>(endpoint.service)];
        clearBits(record->flags, ZEL_IPC_FLAG_SECONDARY);
    }
    mirrorOpenState(record, endpoint.openMask.load(std::memory_order_acquire));
}

// Waits for a running exchange to end; false when another task closed the endpoint meanwhile.
bool closeExchange(Endpoint &endpoint) {
    const zelSemId semaphore = endpoint.responseSemaphore.load(std::memory_order_acquire);
    if (semTake(semaphore, WAIT_FOREVER) != ZEL_OK) return false;
    const platform::NoCancellation closing;  // half closed, it could not be closed again
    closeFilter(endpoint);
    removeQueue(endpoint, requestQueue);
    removeQueue(endpoint, responseQueue);
    semDelete(semaphore);
    return true;
}

}  // namespace

std::uint32_t sourceAddressOf(int service, int instance) {
    const zelIpcEndpoint *record = sharedRecord(service, instance);
    const bool asksForSecondary = record && (loadWord(record->flags) & ZEL_IPC_FLAG_SECONDARY) != 0;
    const std::uint32_t secondary = asksForSecondary ? secondaryAddress.load() : ZEL_IPC_NO_ADDRESS;
    return secondary != ZEL_IPC_NO_ADDRESS ? secondary : zel_sysGetIpAddr();
}

}  // namespace zel::ipc

using namespace zel::ipc;
using zel::kernel::fail;

int zelIpcSetSecondaryAddress(const char *text) {
    in_addr address{};
    const bool isAddress = text && inet_aton(text, &address) != 0;
    secondaryAddress.store(isAddress ? ntohl(address.s_addr) : ZEL_IPC_NO_ADDRESS);
    return ZEL_OK;
}

int zelIpcUseSecondaryAddress(uint32_t key, int isUsed) {
    zelIpcEndpoint *record = isValidKey(key) ? sharedRecord(key) : nullptr;
    if (!record) return fail(EINVAL);
    if (isUsed)
        setBits(record->flags, ZEL_IPC_FLAG_SECONDARY);
    else
        clearBits(record->flags, ZEL_IPC_FLAG_SECONDARY);
    return ZEL_OK;
}

int zel_ipcSOpen(int port, int protocol, int secondary) {
    if (protocol != IPPROTO_UDP) return fail(EINVAL);
    const uint32_t address = localAddress(secondary == 1);
    if (address == ZEL_IPC_NO_ADDRESS) return fail(EADDRNOTAVAIL);
    OwnedSocket socket(zel::platform::openDatagramSocket());
    if (socket.get() < 0) {
        zelErrorPrintf(traceModule, "%s: errno: %d, zel_ipcSOpen: socket open failed", selfName(), errno);
        return ZEL_ERROR;
    }
    zel::platform::setBufferBytes(socket.get(), zel::platform::SocketBuffer::receive, receiveBufferBytes);
    zel::platform::setBufferBytes(socket.get(), zel::platform::SocketBuffer::send, sendBufferBytes);
    if (!bindWithRetries(socket.get(), address, port)) {
        zelErrorPrintf(traceModule, "%s: errno: %d Binding to the socket failed for port %d protocol %d ", selfName(),
                       errno, port, protocol);
        return ZEL_ERROR;
    }
    return socket.release();
}

int zel_ipcCreateLink(struct zelIpcQueueDesc *descriptor, uint32_t queueId) {
    if (!descriptor) return fail(EINVAL);
    if (descriptor->inUse) {
        zelErrorPrintf(traceModule, "%s: zel_ipcSOpen: icdp is already in use so: %d, icdp: %x", selfName(),
                       descriptor->socket, static_cast<unsigned>(reinterpret_cast<uintptr_t>(descriptor)));
        return fail(EBUSY);
    }
    OwnedLink link;
    link.descriptor.socket = zel_ipcSOpen(static_cast<int>(queueId & 0xffff), IPPROTO_UDP, 0);
    if (link.descriptor.socket == ZEL_ERROR) {
        zelErrorPrintf(traceModule, "%s: zel_ipcCreateLink: zel_ipcSOpen failed", selfName());
        return ZEL_ERROR;
    }
    link.descriptor.inUse = 1;
    if (!readBufferSizes(link.descriptor)) return ZEL_ERROR;
    *descriptor = std::exchange(link.descriptor, {});
    return ZEL_OK;
}

int zelIpcOpen(int service, int instance) {
    if (!isValidService(service) || !isValidInstance(instance)) return fail(EINVAL);
    if (!sharedRecord(service, instance)) return ZEL_ERROR;  // nobody could find the endpoint
    Endpoint *endpoint = obtainEndpoint(service, instance);
    if (!endpoint) return fail(ENOMEM);
    const int key = static_cast<int>(endpoint->key());
    if (isExchangeOpen(*endpoint)) return key;
    const int before = errno;
    // Another task of this process may have opened the endpoint while this one waited for the ports.
    if (openExchange(*endpoint))
        recordOwner(*endpoint);
    else if (!isExchangeOpen(*endpoint))
        return ZEL_ERROR;
    errno = before;
    return key;
}

int zelIpcOpenTmrQueue(uint32_t key) {
    if (!isValidKey(key)) return fail(EINVAL);
    Endpoint *endpoint = obtainEndpoint(serviceOf(key), instanceOf(key));
    if (!endpoint) return fail(ENOMEM);
    if (endpoint->isOpen(timerQueue)) return static_cast<int>(endpoint->key());
    OwnedLink link;
    if (zel_ipcCreateLink(&link.descriptor, queueIdOf(*endpoint, timerQueue)) == ZEL_ERROR) return ZEL_ERROR;
    installQueue(*endpoint, timerQueue, link);
    recordOwner(*endpoint);
    return static_cast<int>(endpoint->key());
}

int zelIpcClose(uint32_t key) {
    if (!isValidKey(key)) return fail(EINVAL);
    Endpoint *endpoint = findEndpoint(key);
    if (!endpoint || endpoint->openMask.load() == 0) return fail(EBADF);
    if (isExchangeOpen(*endpoint) && !closeExchange(*endpoint)) return fail(EBADF);
    if (endpoint->isOpen(timerQueue)) removeQueue(*endpoint, timerQueue);
    return ZEL_OK;
}

uint32_t Key_getReqQueue(uint32_t key) {
    const Endpoint *endpoint = findEndpoint(key);
    return endpoint && endpoint->isOpen(requestQueue) ? key | requestQueue : 0;
}

uint32_t Key_getRspQueue(uint32_t key) {
    const Endpoint *endpoint = findEndpoint(key);
    return endpoint && endpoint->isOpen(responseQueue) ? key | responseQueue : 0;
}

uint32_t Key_getTmrQueue(uint32_t key) {
    if (zelIpcEndpoint *record = sharedRecord(key)) clearBits(record->timerFlags, 1);
    const Endpoint *endpoint = findEndpoint(key);
    return endpoint && endpoint->isOpen(timerQueue) ? key | timerQueue : 0;
}

uint32_t Key_getAllQueue(uint32_t key) {
    return key | requestQueue;
}

int Key_getSocketFd(uint32_t key) {
    const Queue *queue = findOpenQueue(key);
    return queue ? queue->socket.load(std::memory_order_acquire) : ZEL_ERROR;
}
