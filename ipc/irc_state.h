// What sends over the link read of the link state.
#pragma once

namespace zel::ipc {

// Instance of the link service, here and at the peer.
int linkInstance();

}  // namespace zel::ipc
