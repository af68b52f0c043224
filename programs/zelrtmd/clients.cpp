#include "clients.h"

#include <algorithm>
#include <ctime>

namespace zelrtmd {
namespace {

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

void noteScope(Client &client, const zelRtmRegistration &registration) {
    if (registration.type == ZEL_RTM_MSG_REGISTER_VRF)
        client.vrfs.insert(registration.scope);
    else if (registration.type == ZEL_RTM_MSG_REGISTER_V4V6)
        client.families.insert({ZEL_RTM_IPV4_UNICAST, ZEL_RTM_IPV6_UNICAST});
    else
        client.families.insert(registration.scope);
}

}  // namespace

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

Status Clients::enter(const zelRtmRegistration &registration, std::uint32_t &handle) {
    if (!isName(registration.name)) return Status::badName;
    Client *client = findSame(registration);
    if (!client) {
        const auto free = std::find_if(slots_.begin(), slots_.end(), [](const Client &slot) { return !slot.handle; });
        if (free == slots_.end()) return Status::tableFull;
        client = &*free;
        client->handle = nextHandle(static_cast<std::size_t>(free - slots_.begin()));
        client->name = registration.name;
        client->type = registration.clientType;
        client->address = registration.sourceAddress;
        client->receiveQueue = registration.receiveQueue;
    }
    noteScope(*client, registration);
    handle = client->handle;
    return Status::ok;
}

Client *Clients::find(std::uint32_t handle) {
    const std::uint32_t slot = handle & slotMask;
    if (slot == 0 || slot > slots_.size()) return nullptr;
    Client &client = slots_[slot - 1];
    return client.handle == handle ? &client : nullptr;
}

Client *Clients::findSender(std::uint32_t handle, std::uint32_t address, std::uint32_t sourceQueue) {
    Client *client = find(handle);
    return client && client->address == address && isSameEndpoint(client->receiveQueue, sourceQueue) ? client : nullptr;
}

void Clients::remove(Client &client) {
    client = Client();
}

std::size_t Clients::count() const {
    return static_cast<std::size_t>(
        std::count_if(slots_.begin(), slots_.end(), [](const Client &client) { return client.handle != 0; }));
}

}  // namespace zelrtmd
