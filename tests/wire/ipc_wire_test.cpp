// Messages of addressing, send and receive, and the task manager client.
#include "tests/wire/wire.h"

using zel::test::Bytes;
using zel::test::comeFromPeer;
using zel::test::numberedMessage;
using zel::test::Wire;

namespace {

// To instance 0 of service 76 on the peer.
Bytes outgoing() {
    Bytes bytes = numberedMessage(68);
    zelIpcHdrSet32(bytes.data(), 4, 4);
    zelIpcHdrSet32(bytes.data(), 44, 0);
    zelIpcSetTargetHeader(bytes.data(), Wire::peer, 3, 76, 0);
    return bytes;
}

Bytes incoming(std::uint8_t command, std::uint8_t flag = 0) {
    Bytes bytes = numberedMessage(68);
    bytes[4] = command;
    bytes[5] = flag;
    zelIpcHdrSet32(bytes.data(), 36, 2);
    comeFromPeer(bytes, 2);
    return bytes;
}

bool receive(const Bytes &bytes) {
    Bytes buffer(100);
    Wire::network().arrive(Key_getSocketFd(Wire::key), bytes);
    return zelIpcRecv(Wire::key, buffer.data(), 100, 0, 0, 0) == static_cast<int>(bytes.size());
}

using Send = int (*)(std::uint32_t key, void *message, int length);

bool sends(Send send, Bytes bytes = outgoing()) {
    return send(Wire::key, bytes.data(), static_cast<int>(bytes.size())) == 0;
}

// Nobody acknowledges.
bool sendsGuaranteed() {
    Bytes bytes = outgoing();
    return zelIpcGuaranteedSend(Wire::key, bytes.data(), static_cast<int>(bytes.size()), 0) == -1;
}

const Wire rows[] = {
    {"plain_send", [] { return sends(zelIpcNonGuaranteedSend); }},
    {"plain_send_with_source",  // which stays
     [] {
         Bytes bytes = outgoing();
         zelIpcHdrSet32(bytes.data(), 44, zel_getQueueId(Wire::service, Wire::instance, 3));
         return sends(zelIpcSend, bytes);
     }},
    {"guaranteed_send_first", sendsGuaranteed},
    {"guaranteed_send_next",
     [] {
         std::uint8_t *record = zelGuaranteedIpcGetTargetDBPtr(Wire::key, zel_getQueueId(76, 0, 1));
         zelGuaranteedIpcSendSuccess(record, 1, ZEL_IPC_GACK_FIRST);
         return sendsGuaranteed();
     }},
    {"guaranteed_ack", [] { return receive(incoming(ZEL_IPC_GSEND)); }},
    {"guaranteed_ack_first",
     [] {
         Bytes bytes = incoming(ZEL_IPC_GSEND_FIRST);
         bytes[7] = 9;  // another number, or it would repeat the message of the row before
         return receive(bytes);
     }},
    {"ack", [] { return receive(incoming(ZEL_IPC_GRT, 1)); }},
    {"reply", [] { return sends(zelIpcReply, incoming(ZEL_IPC_REQ)); }},
    {"request",
     [] {
         Bytes bytes = outgoing();
         return zelIpcSendWait(Wire::key, bytes.data(), static_cast<int>(bytes.size()), 60, 0, 0x51) == -1;
     }},
    {"request_with_retry",
     [] {
         const Bytes bytes = outgoing();
         std::uint8_t response[60];
         return zelIpcSendWaitWithRetry(Wire::key, bytes.data(), response, static_cast<int>(bytes.size()), 60, 0, 0x52,
                                        0x53, 1) == -1;
     }},
    {"task_ready", [] { return zelTaskReady(Wire::key) == 0; }},
};

}  // namespace
