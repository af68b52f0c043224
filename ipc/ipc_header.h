// The 60-byte header that opens every IPC message, and the 64-byte sliding-window header behind it.
#pragma once

#include <cstdint>

#include "base/wire.h"

namespace zel::ipc {

struct IpcHeader {
    using Magic = wire::Field<std::uint32_t, 0>;
    using CommandType = wire::Field<std::uint8_t, 4>;
    using AckFlag = wire::Field<std::uint8_t, 5>;
    using Sequence = wire::Field<std::uint16_t, 6>;
    using Length = wire::Field<std::uint32_t, 8>;
    using MessageType = wire::Field<std::uint32_t, 12>;
    using Owner16 = wire::Field<std::uint32_t, 16>;
    using Status = wire::Field<std::uint32_t, 20>;
    using PacketType = wire::Field<std::uint32_t, 24>;
    using Owner28 = wire::Field<std::uint32_t, 28>;
    using Transaction = wire::Field<std::uint32_t, 32>;
    using SourceSlot = wire::Field<std::uint32_t, 36>;
    using SourceAddress = wire::Field<std::uint32_t, 40>;
    using SourceQueue = wire::Field<std::uint32_t, 44>;
    using TargetSlot = wire::Field<std::uint32_t, 48>;
    using TargetAddress = wire::Field<std::uint32_t, 52>;
    using TargetQueue = wire::Field<std::uint32_t, 56>;
    using TargetPort = wire::Field<std::uint16_t, 58>;
    static constexpr std::size_t size = 60;
    static constexpr std::uint32_t magic = 0xfeedbeaf;
};

static_assert(IpcHeader::TargetQueue::end == IpcHeader::size);

// Stands at byte 60 of a message; offsets are from the start of this header.
struct SwpHeader {
    using Queue = wire::Field<std::uint32_t, 0>;
    using SequenceHigh = wire::Field<std::uint32_t, 4>;
    using SequenceLow = wire::Field<std::uint32_t, 8>;
    using Result = wire::Field<std::uint32_t, 12>;
    using Stream = wire::Field<std::uint32_t, 16>;
    using Answered = wire::Field<std::uint32_t, 20>;  // acknowledgement: stream of the message answered
    using Flags = wire::Field<std::uint32_t, 24>;
    using Link = wire::Field<std::uint32_t, 40>;
    using Length = wire::Field<std::uint32_t, 44>;
    static constexpr std::size_t size = 64;
    static constexpr std::size_t offsetInMessage = IpcHeader::size;
    static constexpr std::size_t endInMessage = offsetInMessage + size;
    static constexpr std::uint32_t early = 1;        // sent before message 0 was known to be acknowledged; echoed
    static constexpr std::uint32_t moreFollows = 2;  // the next message of the stream leaves at once
    static constexpr std::uint32_t acknowledgementPacket = 0x53574143;  // packet type of an acknowledgement
};

}  // namespace zel::ipc
