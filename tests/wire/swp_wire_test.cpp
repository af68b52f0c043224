// Messages of sliding-window queues and lists, and their acknowledgements. Ticks, streams and the numbers of queues
// depend on what ran before.
#include <initializer_list>
#include <utility>

#include "tests/wire/wire.h"

using zel::test::Bytes;
using zel::test::comeFromPeer;
using zel::test::numberedMessage;
using zel::test::Wire;

namespace {

constexpr int messageBytes = 140;

void ignore(void *, int) {}

// Message `low` of the peer's queue 7 and stream 0x1234, to our request queue; what we answer is the row's message.
int answer(zelSwpReceiver *receiver, std::uint32_t low) {
    Bytes bytes = numberedMessage(messageBytes);
    comeFromPeer(bytes, 1);
    const std::pair<unsigned, std::uint32_t> words[] = {{60, 7}, {64, 0}, {68, low}, {76, 0x1234}, {84, 3}};
    for (const auto &[offset, value] : words) zelIpcHdrSet32(bytes.data(), offset, value);
    return zelSwpReceiverAccept(receiver, bytes.data(), messageBytes);
}

// What is answered last, when these messages of the peer's stream come one after the other.
bool answers(std::initializer_list<std::pair<std::uint32_t, int>> messages) {
    zelSwpReceiver *receiver = zelSwpReceiverCreate(Wire::key, 0, 1);
    bool isAsExpected = true;
    for (const auto &[low, result] : messages) isAsExpected = isAsExpected && answer(receiver, low) == result;
    zelSwpReceiverDestroy(receiver);
    return isAsExpected;
}

// Enqueues that many messages to service 76 on the peer.
bool sends(int count, int answersToTimerQueue = 0) {
    std::uint32_t queue = 0;
    zelMwpQueueCreate_p(Wire::service, Wire::instance, 76, 0, 8, 8, 1, 5, ignore, answersToTimerQueue, nullptr, &queue);
    Bytes messages[2] = {numberedMessage(messageBytes), numberedMessage(messageBytes)};
    bool areSent = true;
    for (int i = 0; i < count; ++i) areSent = zelSwpEnqueue(queue, messages[i].data(), messageBytes) == 0 && areSent;
    return zelSwpQueueRemove(queue) == 0 && areSent;
}

bool sendsOnAList() {
    zelSwpQList *list = nullptr;
    Bytes message = numberedMessage(messageBytes);
    const bool isSent =
        zelSwpQListCreate(Wire::service, Wire::instance, 76, 0, 8, 8, 1, 5, ignore, 2, 9, 5, &list) == 0 &&
        zelSWPQListAddMsgGroup(list, 0) == 0 && zelSWPQListAddMsgGroup(list, 8) == 0 &&
        zelSWPQListEnqueue(list, 8, message.data(), messageBytes) == 0;
    return zelSwpQListRemove(list) == 0 && isSent;
}

const Wire rows[] = {
    {"swp_data_first", [] { return sends(1); }},
    {"swp_data_second", [] { return sends(2); }},
    {"swp_data_answered_to_timer_queue", [] { return sends(1, 1); }},
    {"swp_list_data", sendsOnAList},
    {"swp_ack_matched",
     [] {
         return answers({{0, 1}, {1, 1}});
     }},
    {"swp_ack_duplicate",
     [] {
         return answers({{0, 1}, {0, 2}});
     }},
    {"swp_ack_gap",
     [] {
         return answers({{0, 1}, {2, 4}});
     }},
    {"swp_ack_unknown_stream",
     [] {
         return answers({{2, 4}});
     }},
};

}  // namespace
