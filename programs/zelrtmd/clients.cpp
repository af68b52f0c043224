#include "clients.h"

namespace zelrtmd {
namespace {

bool noteScope(Client &client, const zelRtmRegistration &registration) {
    if (registration.type == ZEL_RTM_MSG_REGISTER_VRF) return client.note({ZEL_RTM_FACT_VRF, registration.scope});
    if (registration.type != ZEL_RTM_MSG_REGISTER_V4V6) return client.note({ZEL_RTM_FACT_FAMILY, registration.scope});
    return client.note({ZEL_RTM_FACT_FAMILY, ZEL_RTM_IPV4_UNICAST}) &&
           client.note({ZEL_RTM_FACT_FAMILY, ZEL_RTM_IPV6_UNICAST});
}

}  // namespace

bool Client::note(const Fact &fact) {
    if (facts.size() >= ZEL_RTM_MAX_CLIENT_FACTS && !facts.contains(fact)) return false;
    facts.insert(fact);
    return true;
}

bool Client::accepts(int family, std::uint32_t clientType) const {
    return facts.contains({ZEL_RTM_FACT_ACCEPTS, static_cast<std::uint32_t>(family), clientType});
}

zelRtmStatus Clients::enter(const zelRtmRegistration &registration, std::uint32_t &handle) {
    Client *client = nullptr;
    const zelRtmStatus status = ClientTable::enter(
        {0, registration.name, registration.clientType, registration.sourceAddress, registration.receiveQueue}, client);
    if (status != ZEL_RTM_STATUS_OK) return status;
    handle = client->handle;
    return noteScope(*client, registration) ? ZEL_RTM_STATUS_OK : ZEL_RTM_STATUS_TABLE_FULL;
}

}  // namespace zelrtmd
