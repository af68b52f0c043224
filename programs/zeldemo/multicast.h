// A client of the multicast route table manager.
#pragma once

#include <cstdint>

#include "zel/mrtm.h"

namespace zeldemo {

class MulticastClient {
public:
    // The endpoint must stay open.
    explicit MulticastClient(const zelIpcAddr &address) : address_(address) {}
    ~MulticastClient();
    MulticastClient(const MulticastClient &) = delete;
    MulticastClient &operator=(const MulticastClient &) = delete;

    bool open();
    bool add(const zelMrtmRoute &route);
    // Sends what is pending, and waits until everything is acknowledged.
    bool settle(double seconds);
    // What the manager has as the first list of the route's group and source.
    bool fetch(const zelMrtmRoute &route, std::uint32_t (&map)[IFM_IFLIST_MAP_WORDS]) const;

private:
    const zelIpcAddr &address_;
    std::uint32_t queue_ = 0;
    bool isOpen_ = false;
    std::uint32_t handle_ = 0;
    void *pending_ = nullptr;
};

}  // namespace zeldemo
