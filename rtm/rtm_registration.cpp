// Registration and deregistration. Every registration is the same 168 bytes under another type; the answer is the same
// message with status and handle filled in.
#include <cstring>

#include "base/assertion.h"
#include "rtm/rtm_message.h"

namespace zel::rtm {
namespace {

constexpr std::uint32_t oneWayClientType = 26;
constexpr std::uint16_t optionOfOneWayClient = 2;

void fillRegistration(std::uint8_t *message, std::uint32_t clientType, std::uint32_t scope, const char *name,
                      const zelIpcAddr &ipc) {
    using Layout = RegistrationMessage;
    std::memset(message, 0, Layout::size);
    std::memcpy(message + Layout::name, name, strnlen(name, ZEL_RTM_NAME_LENGTH));
    Layout::ClientType::set(message, clientType);
    Layout::Scope::set(message, scope);
    Layout::ReceiveQueue::set(
        message, zel_getQueueId(static_cast<int>(ipc.service), static_cast<int>(ipc.instance), requestQueueType));
    Layout::Service::set(message, ipc.service);
    Layout::TaskKey::set(message, ipc.taskKey);
    Layout::Instance::set(message, ipc.instance);
    Layout::Spare::set(message, ipc.spare);
    Layout::Option::set(message, clientType == oneWayClientType ? optionOfOneWayClient : std::uint16_t{0});
}

int registerClient(std::uint32_t type, std::uint32_t clientType, std::uint32_t scope, const char *name,
                   std::uint32_t *handle, const zelIpcAddr *ipc) {
    if (!name || !handle || !asserted(ipc, "ipc", sourceName)) return 1;
    std::uint8_t message[RegistrationMessage::size];
    fillRegistration(message, clientType, scope, name, *ipc);
    const int received = sendAndReceive(message, type, sizeof message, sizeof message, ipc);
    if (received < static_cast<int>(RegistrationMessage::Handle::end)) return 1;
    if (IpcHeader::Status::get(message) != 0) return 1;
    *handle = RegistrationMessage::Handle::get(message);
    return 0;
}

int sendHandle(std::uint32_t type, std::uint32_t handle, const zelIpcAddr *ipc) {
    std::uint8_t message[ShortMessage::deregisterSize] = {};
    ShortMessage::Handle::set(message, handle);
    return request(message, type, sizeof message, ipc);
}

int sendQualifier(std::uint32_t type, std::uint32_t handle, std::uint32_t kind, std::uint32_t value,
                  const zelIpcAddr *ipc) {
    std::uint8_t message[ShortMessage::qualifierSize] = {};
    ShortMessage::Handle::set(message, handle);
    ShortMessage::Option::set(message, kind);
    ShortMessage::QualifierValue::set(message, value);
    return request(message, type, sizeof message, ipc);
}

}  // namespace
}  // namespace zel::rtm

using namespace zel::rtm;

// The calls differ in their names and types alone.
#define ZEL_RTM_REGISTRATION(call, type)                                                                       \
    int call(uint32_t clientType, uint32_t scope, const char *name, uint32_t *handle, const zelIpcAddr *ipc) { \
        return registerClient(type, clientType, scope, name, handle, ipc);                                     \
    }
ZEL_RTM_REGISTRATION(zelRtmRegister, ZEL_RTM_MSG_REGISTER)
ZEL_RTM_REGISTRATION(zelRtmRegisterAddrFamily, ZEL_RTM_MSG_REGISTER)
ZEL_RTM_REGISTRATION(zelRtmRegister_vrf, ZEL_RTM_MSG_REGISTER_VRF)
ZEL_RTM_REGISTRATION(zelRtmRegisterAddrFamily_vrf, ZEL_RTM_MSG_REGISTER_VRF)
ZEL_RTM_REGISTRATION(zelRtmRegisterNonRtProtoClient, ZEL_RTM_MSG_REGISTER_NON_ROUTING)
ZEL_RTM_REGISTRATION(zelRtmFibRegister, ZEL_RTM_MSG_REGISTER)
ZEL_RTM_REGISTRATION(zelRtmV4V6Register, ZEL_RTM_MSG_REGISTER_V4V6)
#undef ZEL_RTM_REGISTRATION

int zelRtmSendRegister(uint32_t clientType, uint32_t addressFamily, const char *name, const zelIpcAddr *ipc) {
    if (!name || !zel::asserted(ipc, "ipc", sourceName)) return 1;
    const int key = zelGetTaskKeyFromServiceAndInst(static_cast<int>(ipc->service), static_cast<int>(ipc->instance));
    std::uint8_t message[RegistrationMessage::size];
    fillRegistration(message, clientType, addressFamily, name, *ipc);
    const uint32_t type = clientType == oneWayClientType ? ZEL_RTM_MSG_REGISTER_ONE_WAY : ZEL_RTM_MSG_REGISTER;
    if (key < 0 || !buildIpcHeader(message, type, sizeof message)) return 1;
    return zelIpcSend(static_cast<uint32_t>(key), message, sizeof message) == 0 ? 0 : 1;
}

int zelRtmDeregister(uint32_t handle, const zelIpcAddr *ipc) {
    return sendHandle(ZEL_RTM_MSG_DEREGISTER, handle, ipc);
}

int zelRtmV4V6Deregister(uint32_t handle, const zelIpcAddr *ipc) {
    return sendHandle(ZEL_RTM_MSG_DEREGISTER_V4V6, handle, ipc);
}

int zelRtmDeregisterAddrFamily(uint32_t handle, uint32_t addressFamily, const zelIpcAddr *ipc) {
    std::uint8_t message[ShortMessage::deregisterFamilySize] = {};
    ShortMessage::Handle::set(message, handle);
    ShortMessage::Family::set(message, addressFamily);
    return request(message, ZEL_RTM_MSG_DEREGISTER_AF, sizeof message, ipc);
}

int zelRtmRegisterClientQualifier(uint32_t handle, uint32_t kind, uint32_t value, const zelIpcAddr *ipc) {
    return sendQualifier(ZEL_RTM_MSG_REGISTER_QUALIFIER, handle, kind, value, ipc);
}

int zelRtmDeRegisterClientQualifier(uint32_t handle, uint32_t kind, uint32_t value, const zelIpcAddr *ipc) {
    return sendQualifier(ZEL_RTM_MSG_DEREGISTER_QUALIFIER, handle, kind, value, ipc);
}

int zelRtmFlushRoutes(uint32_t handle, const zelIpcAddr *ipc) {
    return sendHandle(ZEL_RTM_MSG_FLUSH, handle, ipc);
}

int zelRtmFibClear(uint32_t handle, uint32_t vrfId, const zelIpcAddr *ipc) {
    std::uint8_t message[RegistrationMessage::size] = {};
    RegistrationMessage::Handle::set(message, handle);
    RegistrationMessage::Scope::set(message, vrfId);
    return request(message, ZEL_RTM_MSG_FIB_CLEAR, sizeof message, ipc);
}
