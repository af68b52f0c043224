// Acknowledgements: the receiver's check of a message and its answer, and what the answer does at the sender.
//
// The answer is a message of 124 bytes: an IPC header with command 0, the type and transaction of the message answered,
// packet type 0x53574143 and the two ends exchanged, then a sliding-window header with the sender's queue number, the
// last sequence number received in order, the result of the check, and the stream. Over the inter-chassis link the
// link's own header, as received, stands in place of the IPC header.
//
// The sender believes an acknowledgement only when it comes from the queue's receiver and names a message that was
// sent; everything else is counted and changes nothing.
#include "ipc/swp_ack.h"

#include <atomic>
#include <cstring>

#include "ipc/swp_send.h"

namespace zel::ipc::swp {
namespace {

constexpr int sequenceNumbers = 2;  // debug level from which the receiver's count is shown

std::atomic<std::uint64_t> duplicatesSeen{0};
std::atomic<std::uint64_t> gapsSeen{0};

Sequence sequenceIn(const void *header) {
    return joined(SwpHeader::SequenceHigh::get(header), SwpHeader::SequenceLow::get(header));
}

void noteResult(int result, const zelSwpSeq &expected, Sequence received, Sequence before) {
    if (result == ZEL_SWP_FAILURE) gapsSeen.fetch_add(1, std::memory_order_relaxed);
    if (result == ZEL_SWP_DUPLICATE) duplicatesSeen.fetch_add(1, std::memory_order_relaxed);
    if (zelSwp_debug >= sequenceNumbers && received == 0)
        zelTracePrintf(moduleIpc, "ZELSwp CkSeqNo : resetting  expected seq No to %ld.%ld\r\n",
                       static_cast<long>(expected.high), static_cast<long>(expected.low));
    if (zelSwp_debug != 0 && result == ZEL_SWP_DUPLICATE)
        zelTracePrintf(moduleIpc,
                       "Warning!! ZELSwp CkSeqNo : received seq No %ld.%ld is less than expected seq No %ld.%ld \r\n",
                       static_cast<long>(highHalf(received)), static_cast<long>(lowHalf(received)),
                       static_cast<long>(highHalf(before)), static_cast<long>(lowHalf(before)));
}

// ---- Receiver -------------------------------------------------------------------------------------------------------

void answerHeader(const std::uint8_t *asked, std::uint8_t *answer, Sequence expected, int result) {
    const Sequence last = expected - 1;
    SwpHeader::Queue::set(answer, SwpHeader::Queue::get(asked));
    SwpHeader::SequenceHigh::set(answer, highHalf(last));
    SwpHeader::SequenceLow::set(answer, lowHalf(last));
    SwpHeader::Result::set(answer, static_cast<std::uint32_t>(result));
    SwpHeader::Stream::set(answer, expected == 0 ? 0 : SwpHeader::Stream::get(asked));
    SwpHeader::Answered::set(answer, SwpHeader::Stream::get(asked));
    SwpHeader::Flags::set(answer, SwpHeader::Flags::get(asked) & SwpHeader::early);
}

int answerOnIcl(const void *message, const zelSwpSeq &expected, int result) {
    // More than a link's header takes.
    static constexpr std::size_t maxLinkHeader = iclFixedLength + 512;
    std::uint8_t answer[maxLinkHeader + SwpHeader::size] = {};
    const std::size_t offset = iclFixedLength + IclLength::get(message);
    if (offset > maxLinkHeader) return ZEL_SWP_FAILURE;
    std::memcpy(answer, message, offset);
    answerHeader(static_cast<const std::uint8_t *>(message) + offset, answer + offset,
                 joined(expected.high, expected.low), result);
    return sendOnIcl(answer, offset + SwpHeader::size) ? ZEL_SWP_SUCCESS : ZEL_SWP_RECEIVER_SEND_FAILED;
}

// ---- Sender ---------------------------------------------------------------------------------------------------------

// Where the acknowledgement's sliding-window header stands; 0 when it is none.
std::size_t headerOffsetOfAck(const void *ack, std::size_t length) {
    if (length < sizeof(std::uint32_t)) return 0;
    if (IpcHeader::Magic::get(ack) != IpcHeader::magic) return headerOffset(ack, length, true);
    const std::size_t offset = headerOffset(ack, length, false);
    if (offset == 0 || IpcHeader::PacketType::get(ack) != SwpHeader::acknowledgementPacket) return 0;
    return offset;
}

Acknowledgement read(const std::uint8_t *header) {
    return {.receivedBelow = sequenceIn(header) + 1,
            .result = static_cast<int>(SwpHeader::Result::get(header)),
            .stream = SwpHeader::Stream::get(header),
            .answered = SwpHeader::Answered::get(header),
            .isEarly = (SwpHeader::Flags::get(header) & SwpHeader::early) != 0};
}

bool isResult(int result) {
    return result == ZEL_SWP_MATCHED || result == ZEL_SWP_DUPLICATE || result == ZEL_SWP_FAILURE;
}

// Whether it comes from where the queue's messages go.
bool comesFromReceiver(const SharedQueue &queue, const void *ack) {
    const bool isIcl = IpcHeader::Magic::get(ack) != IpcHeader::magic;
    if (isIcl || queue.isIcl) return isIcl && queue.isIcl;
    return IpcHeader::SourceAddress::get(ack) == queue.receiver.address &&
           IpcHeader::SourceQueue::get(ack) == queue.receiver.requestQueue;
}

int release(HeldQueue &queue, Sequence receivedBelow) {
    Window &window = queue.window();
    queue.counters().acknowledged += receivedBelow - window.acknowledged;
    window.acknowledged = receivedBelow;
    queue.shared().budget = queue.shared().budgetInitial;
    sendWaiting(queue);
    if (window.acknowledged != window.next) restartTimer(queue);
    return ZEL_SWP_SUCCESS;
}

int resend(HeldQueue &queue) {
    queue.window().resentBelow = queue.window().sent;
    ++queue.counters().fastResends;
    resendFlight(queue);
    restartTimer(queue);
    return ZEL_SWP_SUCCESS;
}

// The user hears of a lost receiver once per stream; the number of the stream he heard about is remembered.
int tellLost(HeldQueue &queue, Notice &notice) {
    if (queue.own().lostStream != queue.shared().stream) {
        const Window &window = queue.window();
        queue.own().lostStream = queue.shared().stream;
        notice.tell(queue, inFlight(window) > 0 ? queue.slotOf(window.acknowledged).message : nullptr,
                    ZEL_SWP_SEQ_FAILURE);
    }
    return ZEL_SWP_SEQ_FAILURE;
}

int refuse(HeldQueue &queue) {
    ++queue.counters().refusedAcks;
    return ZEL_SWP_ACK_FAILURE;
}

int process(HeldQueue &queue, const Acknowledgement &ack, Notice &notice) {
    switch (judge(queue.window(), queue.shared().stream, ack)) {
        case AckVerdict::progress:
            return release(queue, ack.receivedBelow);
        case AckVerdict::repeated:
            return ZEL_SWP_SUCCESS;
        case AckVerdict::gap:
            return resend(queue);
        case AckVerdict::receiverLost:
            return tellLost(queue, notice);
        case AckVerdict::older:
            return ZEL_SWP_ACK_FAILURE;
        case AckVerdict::otherStream:
        case AckVerdict::beyond:
            break;
    }
    return refuse(queue);
}

}  // namespace

std::uint64_t duplicateCount() {
    return duplicatesSeen.load(std::memory_order_relaxed);
}

std::uint64_t gapCount() {
    return gapsSeen.load(std::memory_order_relaxed);
}

void buildAcknowledgement(const void *message, Sequence expected, int result, std::uint8_t *answer) {
    std::memset(answer, 0, SwpHeader::endInMessage);
    IpcHeader::Magic::set(answer, IpcHeader::magic);
    IpcHeader::MessageType::set(answer, IpcHeader::MessageType::get(message));
    IpcHeader::PacketType::set(answer, SwpHeader::acknowledgementPacket);
    IpcHeader::Length::set(answer, SwpHeader::endInMessage);
    IpcHeader::Transaction::set(answer, IpcHeader::Transaction::get(message));
    IpcHeader::SourceSlot::set(answer, IpcHeader::TargetSlot::get(message));
    IpcHeader::SourceAddress::set(answer, IpcHeader::TargetAddress::get(message));
    IpcHeader::SourceQueue::set(answer, IpcHeader::TargetQueue::get(message));
    IpcHeader::TargetSlot::set(answer, IpcHeader::SourceSlot::get(message));
    IpcHeader::TargetAddress::set(answer, IpcHeader::SourceAddress::get(message));
    IpcHeader::TargetQueue::set(answer, IpcHeader::SourceQueue::get(message));
    answerHeader(static_cast<const std::uint8_t *>(message) + SwpHeader::offsetInMessage,
                 answer + SwpHeader::offsetInMessage, expected, result);
}

Checked check(Stream &known, const void *message, int length) {
    const auto *header = static_cast<const std::uint8_t *>(message) + SwpHeader::offsetInMessage;
    const std::uint32_t number = SwpHeader::Stream::get(header);
    const Arrival arrival = classify(known, number, sequenceIn(header));
    switch (arrival) {
        case Arrival::stale:
        case Arrival::replayed:
            return {ZEL_SWP_DUPLICATE, known.expected, arrival};
        case Arrival::unknown:
            return {ZEL_SWP_FAILURE, 0, arrival};
        case Arrival::begins:
            beginStream(known, number);
            break;
        case Arrival::continues:
            break;
    }
    zelSwpSeq expected = {highHalf(known.expected), lowHalf(known.expected)};
    const int result = zelSwpCkSeqNo(message, &expected, length);
    known.expected = joined(expected.high, expected.low);
    return {result, known.expected, arrival};
}

int checkAndAcknowledge(std::uint32_t key, const void *message, int length, Stream &known) {
    const Checked checked = check(known, message, length);
    if (checked.arrival == Arrival::stale) return checked.result;
    const zelSwpSeq expected = {highHalf(checked.expected), lowHalf(checked.expected)};
    if (zelSwpReceiverAck(key, message, length, &expected, checked.result) == ZEL_SWP_SUCCESS) return checked.result;
    if (checked.result == ZEL_SWP_MATCHED) --known.expected;
    return ZEL_SWP_RECEIVER_SEND_FAILED;
}

}  // namespace zel::ipc::swp

using namespace zel::ipc;
using namespace zel::ipc::swp;

int zelSwpCkSeqNo(const void *message, zelSwpSeq *expected, int length) {
    if (message == nullptr || expected == nullptr) return ZEL_SWP_FAILURE;
    const std::size_t offset = length == -1 ? iclFixedLength : SwpHeader::offsetInMessage;
    if (length != -1 && length < static_cast<int>(SwpHeader::endInMessage)) return ZEL_SWP_FAILURE;
    const Sequence received = sequenceIn(static_cast<const std::uint8_t *>(message) + offset);
    const Sequence before = joined(expected->high, expected->low);
    Sequence wanted = before;
    const int result = checkSequence(received, wanted);
    *expected = {highHalf(wanted), lowHalf(wanted)};
    noteResult(result, *expected, received, before);
    return result;
}

int zelSwpReceiverAck(uint32_t key, const void *message, int length, const zelSwpSeq *expected, int result) {
    if (message == nullptr || expected == nullptr || !isResult(result)) return ZEL_SWP_FAILURE;
    if (length == -1) return answerOnIcl(message, *expected, result);
    if (length < static_cast<int>(SwpHeader::endInMessage)) return ZEL_SWP_FAILURE;
    std::uint8_t answer[SwpHeader::endInMessage];
    buildAcknowledgement(message, joined(expected->high, expected->low), result, answer);
    return zelIpcNonGuaranteedSend(key, answer, sizeof answer) == 0 ? ZEL_SWP_SUCCESS : ZEL_SWP_RECEIVER_SEND_FAILED;
}

int zelSwpProcAck(const void *ack, int length, uint32_t *queue) {
    if (ack == nullptr || length < 0) return ZEL_SWP_FAILURE;
    const std::size_t offset = headerOffsetOfAck(ack, static_cast<std::size_t>(length));
    if (offset == 0) return ZEL_SWP_FAILURE;
    const auto *header = static_cast<const std::uint8_t *>(ack) + offset;
    const std::uint32_t number = SwpHeader::Queue::get(header);
    const Acknowledgement facts = read(header);
    if (!isResult(facts.result)) return ZEL_SWP_FAILURE;
    Notice notice;
    int verdict = ZEL_SWP_FAILURE;
    if (HeldQueue held(number, Named::byMessage); held) {
        if (queue != nullptr) *queue = number;
        verdict = comesFromReceiver(held.shared(), ack) ? process(held, facts, notice) : refuse(held);
    }
    notice.deliver();
    return verdict;
}
