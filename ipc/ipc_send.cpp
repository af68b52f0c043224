// Sending: one datagram to the address and port in the header, or guaranteed delivery where both ends are on this CPU
// and both take part.
#include "ipc/ipc_send.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

#include "ipc/guaranteed.h"
#include "ipc/ipc_header.h"
#include "ipc/ipc_transport.h"
#include "kernel/task.h"
#include "zel/platform.h"

namespace zel::ipc {
namespace {

// Services that never take part in guaranteed delivery, as sender or as receiver.
constexpr std::array neverGuaranteed = {24, 26, 37, 102, 106, 253, 254};

bool takesNoPart(int service) {
    return std::find(neverGuaranteed.begin(), neverGuaranteed.end(), service) != neverGuaranteed.end();
}

bool isOwnKey(std::uint32_t key) {
    const int own = keyOfThisTask();
    return own != ZEL_ERROR && taskOf(static_cast<std::uint32_t>(own)) == taskOf(key);
}

bool doServicesTakePart(std::uint32_t source, std::uint32_t target) {
    return !takesNoPart(serviceOf(source)) && !takesNoPart(serviceOf(target)) && serviceOf(target) != relayService &&
           source != target;
}

// Every condition in turn; the first that fails decides.
bool shouldBeGuaranteed(std::uint32_t key, const void *message) {
    if (zelIsIpcGuaranteedEnabled() == 0) return false;
    const std::uint32_t source = IpcHeader::SourceQueue::get(message);
    const std::uint32_t target = IpcHeader::TargetQueue::get(message);
    const std::uint32_t targetAddress = IpcHeader::TargetAddress::get(message);
    return isOwnKey(key) && taskOf(source) == taskOf(key) && hasRoomFor(key, target, targetAddress) &&
           doServicesTakePart(source, target) && isLoopback(IpcHeader::SourceAddress::get(message)) &&
           isLoopback(targetAddress) && taskOf(source) != taskOf(target);
}

// The queue of a checked send; null with errno, after the refusal was printed.
Queue *checkSend(std::uint32_t key, const void *message, int length) {
    Queue *queue = findOpenQueue(key);
    if (queue && isMessage(message, length)) return queue;
    const int error = errno;
    const char *reason = strerror(error);
    if (!queue)
        zelErrorPrintf(traceModule, "Send: Task: %s, Invalid IPC key passed %d, errno: %d, errmsg: %s", selfName(),
                       static_cast<int>(key), error, reason);
    else if (!message)
        zelErrorPrintf(traceModule, "Send: Task: %s, payload is NULL, errno: %d, errmsg: %s", selfName(), error,
                       reason);
    else
        zelErrorPrintf(traceModule, "Send: Task: %s, len: %d, errno: %d, errmsg: %s", selfName(), length, error,
                       reason);
    return nullptr;
}

}  // namespace

void completeHeader(std::uint32_t key, void *message) {
    IpcHeader::Magic::set(message, IpcHeader::magic);
    if (IpcHeader::SourceQueue::get(message) != 0) return;
    zelIpcSetSourceHeader(message, zelSysGetSlotId(), serviceOf(key), instanceOf(key));
}

bool isMessage(const void *message, int length) {
    if (message && length >= static_cast<int>(IpcHeader::size)) return true;
    errno = message ? EMSGSIZE : EINVAL;
    return false;
}

}  // namespace zel::ipc

using namespace zel::ipc;

int zelIpcNonGuaranteedSend(uint32_t key, void *message, int length) {
    Queue *queue = checkSend(key, message, length);
    if (!queue) return ZEL_ERROR;
    if (isTraceOn(traceModule))
        zelTracePrintf(traceModule, "Send: Task: %s, Key: %d, payload: 0x%x, len: %d", selfName(),
                       static_cast<int>(key), static_cast<unsigned>(reinterpret_cast<uintptr_t>(message)), length);
    completeHeader(key, message);
    const uint32_t address = IpcHeader::TargetAddress::get(message);
    const uint16_t port = IpcHeader::TargetPort::get(message);
    if (sendMessage(*queue, message, static_cast<size_t>(length), address, port)) return ZEL_OK;
    const int error = errno;
    zelErrorPrintf(traceModule, "Send: Task: %s, sendto Failed, errno: %d, Tgtip: 0x%x, port %d, errmsg: %s",
                   selfName(), error, address, port, strerror(error));
    return ZEL_ERROR;
}

int zelIpcSend(uint32_t key, void *message, int length) {
    if (zelIsIpcGuaranteedEnabled() == 0 || !isValidKey(key) || !message || length < ZEL_IPC_HDR_LEN)
        return zelIpcNonGuaranteedSend(key, message, length);
    completeHeader(key, message);
    return shouldBeGuaranteed(key, message) ? zelIpcGuaranteedSend(key, message, length, 0)
                                            : zelIpcNonGuaranteedSend(key, message, length);
}
