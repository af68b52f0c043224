// Messages of addressing, send and receive, and the task manager client.
#include <array>
#include <cstring>

#include "tests/wire/wire.h"

using zel::test::Bytes;
using zel::test::Wire;

namespace {

// A message of 68 bytes whose every header word is a different number, addressed to instance 0 of service 76 on the
// peer, from there when `isRequest`.
Bytes message(std::uint8_t command = 0, std::uint8_t flag = 0) {
    Bytes bytes(68);
    for (unsigned offset = 4; offset < 68; offset += 4) zelIpcHdrSet32(bytes.data(), offset, 0xa0000000 | offset);
    bytes[4] = command;
    bytes[5] = flag;
    return bytes;
}

Bytes outgoing() {
    Bytes bytes = message();
    zelIpcHdrSet32(bytes.data(), 44, 0);
    zelIpcSetTargetHeader(bytes.data(), Wire::peer, 3, 76, 0);
    return bytes;
}

// A message of the peer to our request queue.
Bytes incoming(std::uint8_t command, std::uint8_t flag = 0) {
    Bytes bytes = message(command, flag);
    zelIpcHdrSet32(bytes.data(), 0, ZEL_IPC_MAGIC);
    zelIpcSetTargetHeader(bytes.data(), Wire::address, 1, Wire::service, Wire::instance);
    zelIpcHdrSet32(bytes.data(), 36, 2);
    zelIpcHdrSet32(bytes.data(), 40, Wire::peer);
    zelIpcHdrSet32(bytes.data(), 44, zel_getQueueId(76, 0, 2));
    return bytes;
}

bool receive(const Bytes &bytes) {
    std::array<std::uint8_t, 100> buffer;
    Wire::network().arrive(Key_getSocketFd(Wire::key), bytes);
    return zelIpcRecv(Wire::key, buffer.data(), buffer.size(), 0, 0, 0) == static_cast<int>(bytes.size());
}

}  // namespace

WIRE_ROW(plain_send) {
    Bytes bytes = outgoing();
    return zelIpcNonGuaranteedSend(Wire::key, bytes.data(), static_cast<int>(bytes.size())) == 0;
}

// The source that the owner of a message has named stays.
WIRE_ROW(plain_send_with_source) {
    Bytes bytes = outgoing();
    zelIpcHdrSet32(bytes.data(), 44, zel_getQueueId(Wire::service, Wire::instance, 3));
    return zelIpcSend(Wire::key, bytes.data(), static_cast<int>(bytes.size())) == 0;
}

WIRE_ROW(guaranteed_send_first) {
    Bytes bytes = outgoing();
    return zelIpcGuaranteedSend(Wire::key, bytes.data(), static_cast<int>(bytes.size()), 0) == -1;
}

WIRE_ROW(guaranteed_send_next) {
    Bytes bytes = outgoing();
    std::uint8_t *record = zelGuaranteedIpcGetTargetDBPtr(Wire::key, zel_getQueueId(76, 0, 1));
    zelGuaranteedIpcSendSuccess(record, 1, ZEL_IPC_GACK_FIRST);
    return zelIpcGuaranteedSend(Wire::key, bytes.data(), static_cast<int>(bytes.size()), 0) == -1;
}

WIRE_ROW(guaranteed_ack) {
    return receive(incoming(ZEL_IPC_GSEND));
}

WIRE_ROW(guaranteed_ack_first) {
    Bytes bytes = incoming(ZEL_IPC_GSEND_FIRST);
    bytes[7] = 9;  // another number, or it would repeat the message of the row before
    return receive(bytes);
}

WIRE_ROW(ack) {
    return receive(incoming(ZEL_IPC_GRT, 1));
}

WIRE_ROW(reply) {
    Bytes bytes = incoming(ZEL_IPC_REQ);
    return zelIpcReply(Wire::key, bytes.data(), static_cast<int>(bytes.size())) == 0;
}

WIRE_ROW(request) {
    Bytes bytes = outgoing();
    return zelIpcSendWait(Wire::key, bytes.data(), static_cast<int>(bytes.size()), 60, 0, 0x51) == -1;
}

WIRE_ROW(request_with_retry) {
    const Bytes bytes = outgoing();
    std::array<std::uint8_t, 60> response;
    return zelIpcSendWaitWithRetry(Wire::key, bytes.data(), response.data(), static_cast<int>(bytes.size()), 60, 0,
                                   0x52, 0x53, 1) == -1;
}

WIRE_ROW(task_ready) {
    return zelTaskReady(Wire::key) == 0;
}
