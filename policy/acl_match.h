// The checks of access lists over one image, which may hold anything. An empty image permits.
#pragma once

#include "policy/tables.h"

namespace zel::policy {

struct Datagram {
    std::uint32_t source, destination;
    std::uint16_t sourcePort, destinationPort;
};

std::uint32_t checkIp(const Bytes &image, std::uint32_t source, std::uint32_t destination);
std::uint32_t checkUdp(const Bytes &image, const Datagram &datagram);
std::uint32_t check6(const Bytes &image, const std::uint8_t *source);
std::uint32_t checkSource6(const Bytes &image, const std::uint8_t *source);

// The sequence number of the entry that decides, 0 when none does.
std::uint32_t entryIp(const Bytes &image, std::uint32_t source, std::uint32_t destination);
std::uint32_t entryUdp(const Bytes &image, const Datagram &datagram);
std::uint32_t entry6(const Bytes &image, const std::uint8_t *source);

}  // namespace zel::policy
