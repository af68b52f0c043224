// The clients of a manager: who registered, under which handle.
//
// A client has a slot; its handle is the slot and a generation, which begins with the time in milliseconds, so that
// handles of an earlier life of the manager, even of one a moment ago, are not taken for present ones.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "zel/ipc.h"
#include "zel/rtm.h"

namespace zel::programs {

struct ClientRecord {
    std::uint32_t handle = 0;  // 0: the slot is free
    std::string name;
    std::uint32_t type = 0;
    std::uint32_t address = 0;
    std::uint32_t receiveQueue = 0;
};

// Printable and not empty.
bool isClientName(const std::string &name);
// Whether the header of a message says that the client sent it.
bool isSender(const ClientRecord &client, const void *message);

// `Client` is derived from ClientRecord.
template <class Client>
class ClientTable {
public:
    explicit ClientTable(std::size_t most)
        : slots_(std::min<std::size_t>(most, slotMask)), generation_(milliseconds()) {}

    // The client of that name at that queue, or a new one.
    zelRtmStatus enter(const ClientRecord &who, Client *&client) {
        if (!isClientName(who.name)) return ZEL_RTM_STATUS_BAD_NAME;
        client = findIf([&](const Client &slot) {
            return slot.handle && slot.name == who.name && slot.address == who.address &&
                   slot.receiveQueue == who.receiveQueue;
        });
        if (client) return ZEL_RTM_STATUS_OK;
        client = findIf([](const Client &slot) { return !slot.handle; });
        if (!client) return ZEL_RTM_STATUS_TABLE_FULL;
        static_cast<ClientRecord &>(*client) = who;
        client->handle = ++generation_ << slotBits | static_cast<std::uint32_t>(client - slots_.data() + 1);
        return ZEL_RTM_STATUS_OK;
    }
    Client *find(std::uint32_t handle) {
        const std::uint32_t slot = handle & slotMask;
        if (slot == 0 || slot > slots_.size()) return nullptr;
        Client &client = slots_[slot - 1];
        return client.handle == handle ? &client : nullptr;
    }
    // As find, but only for a message that came from the client's own endpoint.
    Client *findSender(std::uint32_t handle, const void *message) {
        Client *client = find(handle);
        return client && isSender(*client, message) ? client : nullptr;
    }
    bool isAnyAt(std::uint32_t address) const {
        return std::any_of(slots_.begin(), slots_.end(),
                           [=](const Client &client) { return client.handle && client.address == address; });
    }
    void remove(Client &client) { client = Client(); }
    std::size_t count() const {
        return static_cast<std::size_t>(
            std::count_if(slots_.begin(), slots_.end(), [](const Client &client) { return client.handle != 0; }));
    }
    // The client in this slot or the next one that has any, whose number is stored; null behind the last.
    const Client *next(std::uint32_t &slot) const {
        while (slot < slots_.size() && slots_[slot].handle == 0) ++slot;
        return slot < slots_.size() ? &slots_[slot] : nullptr;
    }

private:
    static constexpr std::uint32_t slotBits = 8;
    static constexpr std::uint32_t slotMask = (1u << slotBits) - 1;

    template <class Condition>
    Client *findIf(Condition holds) {
        const auto at = std::find_if(slots_.begin(), slots_.end(), holds);
        return at == slots_.end() ? nullptr : &*at;
    }

    static std::uint32_t milliseconds() {
        const auto now = std::chrono::system_clock::now().time_since_epoch();
        return static_cast<std::uint32_t>(std::chrono::duration_cast<std::chrono::milliseconds>(now).count());
    }

    std::vector<Client> slots_;
    std::uint32_t generation_;
};

}  // namespace zel::programs
