// The sender's shell: what goes out, when, and the timer behind it. All of it runs with the queue's lock held.
#pragma once

#include "ipc/ipc_header.h"
#include "ipc/swp_table.h"

namespace zel::ipc::swp {

// Where the sliding-window header stands in a message: behind the IPC header, or behind the link's own header.
constexpr std::size_t iclFixedLength = 26;
using IclLength = wire::Field<std::uint16_t, 24>;  // of what follows the fixed part of the link's header
std::size_t headerOffset(const void *message, std::size_t length, bool isIcl);  // 0 when the message is too short
inline std::uint8_t *swpHeader(const Slot &slot) {
    return static_cast<std::uint8_t *>(slot.message) + slot.headerOffset;
}

// Writes what the queue decides about a message: its number, sequence, stream and length; the link is 0.
void stamp(const HeldQueue &queue, Sequence sequence);

// Sends every message that the window lets go and that never left; false when one could not be sent.
bool sendWaiting(HeldQueue &queue);
// Resends [acknowledged, sent); false when one could not be sent.
bool resendFlight(HeldQueue &queue);
// swpRetrans of a held queue.
int retransmit(HeldQueue &queue, bool headOnly, Notice &notice);

// Starts the interval anew.
bool restartTimer(HeldQueue &queue);
void stopTimer(HeldQueue &queue);
void onTimer(zelIntervalTimerId timer, intptr_t queue);

// Sends on the inter-chassis link; false while it is down or when the send fails.
bool sendOnIcl(const void *message, std::size_t length);
std::uint32_t iclInterface();

}  // namespace zel::ipc::swp
