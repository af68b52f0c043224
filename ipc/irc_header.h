// The 76-byte header of a message over the link to the peer route processor. It stands at byte 60 of the message;
// offsets are from the start of this header.
#pragma once

#include <cstdint>

#include "base/wire.h"
#include "ipc/ipc_header.h"
#include "zel/irc.h"

namespace zel::ipc {

struct IrcHeader {
    using Magic = wire::Field<std::uint32_t, 0>;
    using Sequence = wire::Field<std::uint32_t, 4>;
    using Reserved8 = wire::Field<std::uint32_t, 8>;
    using Class = wire::Field<std::uint32_t, 12>;
    using Service = wire::Field<std::uint16_t, 16>;
    using Instance = wire::Field<std::uint16_t, 18>;
    using PayloadLength = wire::Field<std::uint32_t, 20>;
    using Type = wire::Field<std::uint32_t, 24>;
    using SenderKey = wire::Field<std::uint32_t, 28>;
    using StateWord = wire::Field<std::uint32_t, 32>;
    using Reserved36 = wire::Field<std::uint32_t, 36>;
    using Reserved40 = wire::Field<std::uint32_t, 40>;
    static constexpr std::size_t name = Reserved40::end;
    static constexpr std::size_t size = name + ZEL_IRC_NAME_SIZE;
    static constexpr std::size_t offsetInMessage = IpcHeader::size;
    static constexpr std::size_t endInMessage = offsetInMessage + size;
    static constexpr std::uint32_t magic = ZEL_IRC_MAGIC;
    static constexpr std::uint32_t controlClass = 1;
    static constexpr std::uint32_t dataClass = 2;
};
static_assert(IrcHeader::size == ZEL_IRC_HDR_LEN && IrcHeader::endInMessage == ZEL_IRC_MIN_MESSAGE);

constexpr std::uint32_t linkModule = 3;  // of traces and reports

// The class that a message of this type belongs to, 0 for what is no type.
constexpr std::uint32_t classOf(std::uint32_t type) {
    switch (type) {
        case ZEL_IRC_DATA:
        case ZEL_IRC_REQUEST:
        case ZEL_IRC_ANSWER:
            return IrcHeader::dataClass;
        case ZEL_IRC_HELLO:
        case ZEL_IRC_HELLO_NAME:
        case ZEL_IRC_UP:
        case ZEL_IRC_DOWN:
        case ZEL_IRC_KEEP_ALIVE:
            return IrcHeader::controlClass;
        default:
            return 0;
    }
}

inline std::uint8_t *ircHeaderOf(void *message) {
    return static_cast<std::uint8_t *>(message) + IrcHeader::offsetInMessage;
}
inline const std::uint8_t *ircHeaderOf(const void *message) {
    return static_cast<const std::uint8_t *>(message) + IrcHeader::offsetInMessage;
}

}  // namespace zel::ipc
