#include "clients.h"

#include <algorithm>
#include <ctime>

#include "zel/ipc.h"

namespace zelrtmd {
namespace {

constexpr unsigned sourceAddressWord = 40;
constexpr unsigned sourceQueueWord = 44;
constexpr std::uint32_t slotBits = 8;
constexpr std::uint32_t slotMask = (1u << slotBits) - 1;

// Printable and not empty.
bool isName(const std::string &name) {
    return !name.empty() && std::all_of(name.begin(), name.end(), [](char c) { return c > ' ' && c < 0x7f; });
}

// Queue ids of one endpoint differ in their type bits alone.
bool isSameEndpoint(std::uint32_t a, std::uint32_t b) {
    return a >> 2 == b >> 2;
}

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

Clients::Clients(std::size_t most)
    : slots_(std::min<std::size_t>(most, slotMask)), generation_(static_cast<std::uint32_t>(time(nullptr))) {}

Client *Clients::findSame(const zelRtmRegistration &registration) {
    for (Client &client : slots_)
        if (client.handle && client.name == registration.name && client.address == registration.sourceAddress &&
            client.receiveQueue == registration.receiveQueue)
            return &client;
    return nullptr;
}

std::uint32_t Clients::nextHandle(std::size_t slot) {
    ++generation_;
    return generation_ << slotBits | static_cast<std::uint32_t>(slot + 1);
}

zelRtmStatus Clients::enter(const zelRtmRegistration &registration, std::uint32_t &handle) {
    if (!isName(registration.name)) return ZEL_RTM_STATUS_BAD_NAME;
    Client *client = findSame(registration);
    if (!client) {
        const auto free = std::find_if(slots_.begin(), slots_.end(), [](const Client &slot) { return !slot.handle; });
        if (free == slots_.end()) return ZEL_RTM_STATUS_TABLE_FULL;
        client = &*free;
        client->handle = nextHandle(static_cast<std::size_t>(free - slots_.begin()));
        client->name = registration.name;
        client->type = registration.clientType;
        client->address = registration.sourceAddress;
        client->receiveQueue = registration.receiveQueue;
    }
    handle = client->handle;
    return noteScope(*client, registration) ? ZEL_RTM_STATUS_OK : ZEL_RTM_STATUS_TABLE_FULL;
}

Client *Clients::find(std::uint32_t handle) {
    const std::uint32_t slot = handle & slotMask;
    if (slot == 0 || slot > slots_.size()) return nullptr;
    Client &client = slots_[slot - 1];
    return client.handle == handle ? &client : nullptr;
}

Client *Clients::findSender(std::uint32_t handle, const void *message) {
    Client *client = find(handle);
    return client && client->address == zelIpcHdrGet32(message, sourceAddressWord) &&
                   isSameEndpoint(client->receiveQueue, zelIpcHdrGet32(message, sourceQueueWord))
               ? client
               : nullptr;
}

bool Clients::isAnyAt(std::uint32_t address) const {
    return std::any_of(slots_.begin(), slots_.end(),
                       [=](const Client &client) { return client.handle && client.address == address; });
}

const Client *Clients::next(std::uint32_t &slot) const {
    while (slot < slots_.size() && slots_[slot].handle == 0) ++slot;
    return slot < slots_.size() ? &slots_[slot] : nullptr;
}

void Clients::remove(Client &client) {
    client = Client();
}

std::size_t Clients::count() const {
    return static_cast<std::size_t>(
        std::count_if(slots_.begin(), slots_.end(), [](const Client &client) { return client.handle != 0; }));
}

}  // namespace zelrtmd
