// Link messages as bytes, and the link service's sends.
//
// A message carries two addresses. The IPC header names the next stop, first the link service here, then the task on
// the peer; its source stays the sender's, so that an answer finds it directly. The link header names the task that it
// is for, and does not change on the way, but for the number that tells two forwarded messages apart.
#include <atomic>
#include <cerrno>
#include <cstring>

#include "ipc/endpoint.h"
#include "ipc/irc_header.h"
#include "ipc/irc_state.h"
#include "kernel/task.h"
#include "zel/platform.h"

namespace zel::ipc {
namespace {

std::atomic<std::uint32_t> lastSequence{0};

bool isDestination(int service, int instance) {
    return isValidService(service) && isValidInstance(instance);
}

bool hasEnd(const std::uint8_t *header) {
    return header[IrcHeader::name + ZEL_IRC_NAME_SIZE - 1] == '\0';
}

bool isWhole(const std::uint8_t *header, std::size_t payload) {
    const std::uint32_t type = IrcHeader::Type::get(header);
    const std::uint32_t messageClass = classOf(type);
    return IrcHeader::Magic::get(header) == IrcHeader::magic && messageClass != 0 &&
           IrcHeader::Class::get(header) == messageClass && IrcHeader::PayloadLength::get(header) == payload &&
           (messageClass == IrcHeader::dataClass || payload == 0) && (type != ZEL_IRC_HELLO_NAME || hasEnd(header)) &&
           isDestination(IrcHeader::Service::get(header), IrcHeader::Instance::get(header));
}

// An answer goes to the queue that was chosen for it, everything else to the request queue.
std::uint32_t queueFor(const zelIrcMessage &message) {
    if (message.type != ZEL_IRC_ANSWER) return requestQueue;
    const std::uint32_t chosen = typeOf(message.senderKey);
    return chosen == bareKey ? static_cast<std::uint32_t>(responseQueue) : chosen;
}

// Sends to a queue of the peer; -1 with errno also while nobody has said where the peer is.
int sendToPeer(std::uint32_t key, void *message, int length, std::uint32_t queueId) {
    const std::uint32_t peer = zelGetPeerRpmIpAddr();
    if (peer == ZEL_IPC_NO_ADDRESS) return kernel::fail(ENOLINK);
    IpcHeader::TargetSlot::set(message, zelSysGetSlotId());
    IpcHeader::TargetAddress::set(message, peer);
    IpcHeader::TargetQueue::set(message, queueId);
    return zelIpcNonGuaranteedSend(key, message, length);
}

}  // namespace
}  // namespace zel::ipc

using namespace zel::ipc;

void Irc_setIrcHeader(void *header, uint32_t word28, uint32_t type, uint16_t half16, uint16_t half18, uint32_t word20) {
    const uint32_t messageClass = classOf(type);
    IrcHeader::Magic::set(header, IrcHeader::magic);
    IrcHeader::Sequence::set(header, 0);
    IrcHeader::Reserved8::set(header, 0);
    if (messageClass != 0)
        IrcHeader::Class::set(header, messageClass);
    else
        zelErrorPrintf(linkModule, "Irc_setIrcHeader: unknown irc msg type: %d", static_cast<int>(type));
    IrcHeader::Service::set(header, half16);
    IrcHeader::Instance::set(header, half18);
    IrcHeader::PayloadLength::set(header, word20);
    IrcHeader::Type::set(header, type);
    IrcHeader::SenderKey::set(header, word28);
    IrcHeader::Reserved36::set(header, 0);
    IrcHeader::Reserved40::set(header, 0);
    if (type != ZEL_IRC_HELLO && type != ZEL_IRC_HELLO_NAME) return;
    zelIrcLinkState state{};
    zelIrcGetLinkState(&state);
    IrcHeader::StateWord::set(header, type == ZEL_IRC_HELLO ? state.epoch : state.version);
    if (type == ZEL_IRC_HELLO_NAME)
        memcpy(static_cast<uint8_t *>(header) + IrcHeader::name, state.name, sizeof state.name);
}

int zelIrcParse(const void *message, int length, zelIrcMessage *parsed) {
    if (!message || !parsed || length < ZEL_IRC_MIN_MESSAGE || length > ZEL_IRC_MAX_MESSAGE) return ZEL_ERROR;
    const uint8_t *header = ircHeaderOf(message);
    if (!isWhole(header, static_cast<size_t>(length) - IrcHeader::endInMessage)) return ZEL_ERROR;
    *parsed = {IrcHeader::Type::get(header),      IrcHeader::Service::get(header),   IrcHeader::Instance::get(header),
               IrcHeader::SenderKey::get(header), IrcHeader::StateWord::get(header), {}};
    if (parsed->type == ZEL_IRC_HELLO_NAME) memcpy(parsed->name, header + IrcHeader::name, sizeof parsed->name);
    return ZEL_OK;
}

int zelIrcSendControl(uint32_t key, uint32_t type) {
    if (classOf(type) != IrcHeader::controlClass) return zel::kernel::fail(EINVAL);
    uint8_t message[ZEL_IRC_MIN_MESSAGE] = {};
    Irc_setIrcHeader(ircHeaderOf(message), key, type, ZEL_IRC_SERVICE, static_cast<uint16_t>(linkInstance()), 0);
    IpcHeader::Length::set(message, sizeof message);
    zelIpcSetSourceHeader(message, zelSysGetSlotId(), serviceOf(key), instanceOf(key));
    return sendToPeer(key, message, sizeof message, zel_getQueueId(ZEL_IRC_SERVICE, linkInstance(), requestQueue));
}

int zelIrcForward(uint32_t key, void *message, int length, const zelIrcMessage *parsed) {
    if (!message || !parsed) return zel::kernel::fail(EINVAL);
    if (length < ZEL_IRC_MIN_MESSAGE) return zel::kernel::fail(EMSGSIZE);
    IrcHeader::Sequence::set(ircHeaderOf(message), lastSequence.fetch_add(1, std::memory_order_relaxed) + 1);
    return sendToPeer(key, message, length,
                      zel_getQueueId(parsed->service, parsed->instance, static_cast<int>(queueFor(*parsed))));
}
