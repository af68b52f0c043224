// Messages of sliding-window queues and lists, and their acknowledgements. Ticks, streams and the numbers of queues
// depend on what ran before.
#include <array>

#include "tests/wire/wire.h"

using zel::test::Bytes;
using zel::test::Wire;

namespace {

constexpr int messageBytes = 140;

struct Message {
    std::array<std::uint8_t, messageBytes> bytes{};
    Message() {
        for (unsigned offset = 0; offset < messageBytes; offset += 4)
            zelIpcHdrSet32(bytes.data(), offset, 0xa0000000 | offset);
    }
};

void ignore(void *, int) {}

// A queue to service 76 on the peer, for one row.
class Queue {
public:
    explicit Queue(bool answersToTimerQueue = false) {
        zelTmeSetTaskEntry(76, 0, ZEL_TME_REMOTE, Wire::peer);
        zelMwpQueueCreate_p(Wire::service, Wire::instance, 76, 0, 8, 8, 1, 5, ignore, answersToTimerQueue, nullptr,
                            &number_);
    }
    ~Queue() { zelSwpQueueRemove(number_); }
    bool send(Message &message) { return zelSwpEnqueue(number_, message.bytes.data(), messageBytes) == 0; }

private:
    std::uint32_t number_ = 0;
};

// Message `low` of the peer's queue 7 and stream 0x1234, to our request queue; what we answer is the row's message.
int answer(zelSwpReceiver *receiver, std::uint32_t low) {
    Message message;
    std::uint8_t *bytes = message.bytes.data();
    zelIpcHdrSet32(bytes, 0, ZEL_IPC_MAGIC);
    zelIpcHdrSet32(bytes, 40, Wire::peer);
    zelIpcHdrSet32(bytes, 44, zel_getQueueId(76, 0, 1));
    zelIpcSetTargetHeader(bytes, Wire::address, 1, Wire::service, Wire::instance);
    zelIpcHdrSet32(bytes, 60, 7);
    zelIpcHdrSet32(bytes, 64, 0);
    zelIpcHdrSet32(bytes, 68, low);
    zelIpcHdrSet32(bytes, 76, 0x1234);
    zelIpcHdrSet32(bytes, 84, 3);
    return zelSwpReceiverAccept(receiver, bytes, messageBytes);
}

struct Receiver {
    zelSwpReceiver *handle = zelSwpReceiverCreate(Wire::key, 0, 1);
    ~Receiver() { zelSwpReceiverDestroy(handle); }
};

}  // namespace

WIRE_ROW(swp_data_first) {
    Queue queue;
    Message message;
    return queue.send(message);
}

WIRE_ROW(swp_data_second) {
    Queue queue;
    Message first, second;
    return queue.send(first) && queue.send(second);
}

WIRE_ROW(swp_data_answered_to_timer_queue) {
    Queue queue(true);
    Message message;
    return queue.send(message);
}

WIRE_ROW(swp_list_data) {
    zelTmeSetTaskEntry(76, 0, ZEL_TME_REMOTE, Wire::peer);
    zelSwpQList *list = nullptr;
    Message message;
    const bool isSent =
        zelSwpQListCreate(Wire::service, Wire::instance, 76, 0, 8, 8, 1, 5, ignore, 2, 9, 5, &list) == 0 &&
        zelSWPQListAddMsgGroup(list, 0) == 0 && zelSWPQListAddMsgGroup(list, 8) == 0 &&
        zelSWPQListEnqueue(list, 8, message.bytes.data(), messageBytes) == 0;
    return zelSwpQListRemove(list) == 0 && isSent;
}

WIRE_ROW(swp_ack_matched) {
    const Receiver receiver;
    return answer(receiver.handle, 0) == 1 && answer(receiver.handle, 1) == 1;
}

WIRE_ROW(swp_ack_duplicate) {
    const Receiver receiver;
    return answer(receiver.handle, 0) == 1 && answer(receiver.handle, 0) == 2;
}

WIRE_ROW(swp_ack_gap) {
    const Receiver receiver;
    return answer(receiver.handle, 0) == 1 && answer(receiver.handle, 2) == 4;
}

WIRE_ROW(swp_ack_unknown_stream) {
    const Receiver receiver;
    return answer(receiver.handle, 2) == 4;
}
