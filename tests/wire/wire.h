// Rows of the wire test: each makes the library send one message, and golden.txt holds the bytes it must send.
//
//     const Wire rows[] = {{"task_ready", [] { return zelTaskReady(Wire::key) == 0; }}};
//
// Rows run in one process, in the order of their names, over a network that only records. The row's message is the
// last one sent. Messages carry this CPU's address as 192.0.2.1. In golden.txt a line is `name: hex bytes`; blanks
// count for nothing, 00*12 is 12 times 00, and a dot stands for a hex digit that differs from run to run (process ids).
#pragma once

#include <cstdint>

#include "tests/support/fake_network.h"
#include "zel/ipc.h"

namespace zel::test {

struct Wire {
    static constexpr std::uint32_t address = 0xc0000201;
    static constexpr std::uint32_t peer = 0xc0000202;  // where service 76 is
    static constexpr int service = 61;                 // whose endpoint, with all three queues, is open
    static constexpr int instance = 0;
    static constexpr std::uint32_t key = 61 << 7;
    static FakeNetwork &network();
    // Adds a row at start-up of the program.
    Wire(const char *name, bool (*body)());
};

// A message whose every header word is a different number.
inline Bytes numberedMessage(unsigned length) {
    Bytes bytes(length);
    for (unsigned offset = 0; offset < length; offset += 4) zelIpcHdrSet32(bytes.data(), offset, 0xa0000000 | offset);
    return bytes;
}

// Makes it one from a queue of service 76 on the peer to our request queue.
inline void comeFromPeer(Bytes &bytes, int queueType) {
    zelIpcHdrSet32(bytes.data(), 0, ZEL_IPC_MAGIC);
    zelIpcSetTargetHeader(bytes.data(), Wire::address, 1, Wire::service, Wire::instance);
    zelIpcHdrSet32(bytes.data(), 40, Wire::peer);
    zelIpcHdrSet32(bytes.data(), 44, zel_getQueueId(76, 0, queueType));
}

}  // namespace zel::test
