// How every request of the multicast client leaves, and the registration among them.
//
// The header names the caller as the task table has it, so a caller that is not listed writes all ones; both send paths
// then stamp this CPU's address and the queue the answer is to come to.
#include "rtm/mrtm_message.h"

#include <cstring>

#include "base/assertion.h"

namespace zel::mrtm {
namespace {

constexpr std::uint32_t typeWithItsOwnMessage = 8;

void fillRegistration(std::uint8_t *message, std::uint32_t clientType, std::uint32_t argument, const char *name,
                      const zelIpcAddr &ipc) {
    using Layout = RegistrationMessage;
    std::memset(message, 0, Layout::size);
    std::memcpy(message + Layout::name, name, strnlen(name, ZEL_MRTM_NAME_LENGTH));  // a word of zeros follows it
    Layout::ClientType::set(message, clientType);
    Layout::Argument::set(message, argument);
    Layout::ReceiveQueue::set(message, receiveQueueOf(ipc));
    Layout::Service::set(message, ipc.service);
    Layout::TaskKey::set(message, ipc.taskKey);
    Layout::Instance::set(message, ipc.instance);
    Layout::Spare::set(message, ipc.spare);
    Layout::Extra::set(message, ipc.extra);
}

int registerClient(std::uint32_t type, std::uint32_t clientType, std::uint32_t argument, const char *name,
                   std::uint32_t *handle, const zelIpcAddr *ipc) {
    if (!name || !handle || !asserted(ipc, "ipc", sourceName)) return 1;
    std::uint8_t message[RegistrationMessage::size];
    fillRegistration(message, clientType, argument, name, *ipc);
    const int received = sendAndReceive(message, type, sizeof message, sizeof message, ipc);
    return received < 0 ? 1 : zelMrtmReadRegistrationAnswer(message, received, handle);
}

}  // namespace

std::uint32_t receiveQueueOf(const zelIpcAddr &ipc) {
    return zel_getQueueId(static_cast<int>(ipc.service), static_cast<int>(ipc.instance), rtm::requestQueueType);
}

bool buildIpcHeader(void *message, std::uint32_t type, std::size_t length, const zelIpcAddr &ipc) {
    int error = 0;
    const std::uint32_t own =
        zel_tmeGetPeerIpAddrByName(static_cast<int>(ipc.service), static_cast<int>(ipc.instance), &error);
    const bool isManagerKnown = rtm::writeHeader(message, type, length, ZEL_MRTM_SERVICE, own);
    IpcHeader::SourceQueue::set(message, receiveQueueOf(ipc));
    return isManagerKnown;
}

int sendAndReceive(void *message, std::uint32_t type, std::size_t length, std::size_t room, const zelIpcAddr *ipc) {
    if (!asserted(ipc, "ipc", sourceName) || !buildIpcHeader(message, type, length, *ipc)) return -1;
    return rtm::exchange(message, length, room, *ipc);
}

std::uint8_t *makeQueued(std::uint32_t queue, std::uint32_t type, std::size_t length, const zelIpcAddr *ipc) {
    if (!asserted(ipc, "ipc", sourceName)) return nullptr;
    auto *message = static_cast<std::uint8_t *>(rtm::allocateFor(queue, length, sourceName));
    if (!message) return nullptr;
    std::memset(message, 0, length);
    buildIpcHeader(message, type, length, *ipc);
    return message;
}

}  // namespace zel::mrtm

using namespace zel::mrtm;

int zelMrtmRegister(uint32_t clientType, uint32_t argument, const char *name, uint32_t *handle, const zelIpcAddr *ipc) {
    const uint32_t type = clientType == typeWithItsOwnMessage ? ZEL_MRTM_MSG_REGISTER_TYPE_8 : ZEL_MRTM_MSG_REGISTER;
    return registerClient(type, clientType, argument, name, handle, ipc);
}

int zelMrtmAclRegister(uint32_t clientType, uint32_t argument, const char *name, uint32_t *handle,
                       const zelIpcAddr *ipc) {
    return registerClient(ZEL_MRTM_MSG_REGISTER, clientType, argument, name, handle, ipc);
}

int zelMrtmRegisterAsync(uint32_t clientType, uint32_t argument, const char *name, uint32_t *handle,
                         const zelIpcAddr *ipc) {
    return registerClient(ZEL_MRTM_MSG_REGISTER, clientType, argument, name, handle, ipc);
}

int zelMrtmResAgtRegisterAsyncRspQ(uint32_t clientType, uint32_t argument, const char *name, const zelIpcAddr *ipc) {
    if (!name || !zel::asserted(ipc, "ipc", sourceName)) return 1;
    const auto service = static_cast<int>(ipc->service), instance = static_cast<int>(ipc->instance);
    const int key = zelGetTaskKeyFromServiceAndInst(service, instance);
    uint8_t message[RegistrationMessage::size];
    fillRegistration(message, clientType, argument, name, *ipc);
    if (key < 0 || !buildIpcHeader(message, ZEL_MRTM_MSG_REGISTER_AGENT, sizeof message, *ipc)) return 1;
    zelIpcSetSourceHeader(message, 0, service, instance);  // the response queue of this CPU, where the answer goes
    return zelIpcSend(static_cast<uint32_t>(key), message, sizeof message) == 0 ? 0 : 1;
}

int zelMrtmReadRegistrationAnswer(const void *answer, int length, uint32_t *handle) {
    if (!zel::rtm::hasHeader(answer, length, RegistrationMessage::Handle::end)) return 1;
    if (!handle || IpcHeader::Status::get(answer) != 0) return 1;
    *handle = RegistrationMessage::Handle::get(answer);
    return 0;
}

int zelMrtmDeregister(uint32_t handle, const zelIpcAddr *ipc) {
    uint8_t message[DeregistrationMessage::size] = {};
    DeregistrationMessage::Handle::set(message, handle);
    const int received = sendAndReceive(message, ZEL_MRTM_MSG_DEREGISTER, sizeof message, sizeof message, ipc);
    return received < static_cast<int>(IpcHeader::size) || IpcHeader::Status::get(message) != 0;
}
