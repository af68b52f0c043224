// See swp_core.h. Two of the decisions deserve their reasons.
//
// Fast resend. A receiver drops what follows a gap and answers each such message with result 4, repeating its last
// cumulative number. The first repeat makes the sender resend everything in flight; the others, up to a window full,
// are echoes of the same loss, and resending on each of them multiplies the traffic until nothing gets through. So one
// resend per flight: later repeats are ignored until an acknowledgement passes what was in flight then, or the timer
// fires. Whatever is lost in the resent flight waits for the timer.
//
// A receiver without state. It answers with stream 0. That is a plain gap while message 0 may still be under way, and a
// restarted receiver once message 0 had been acknowledged. Datagrams overtake each other, so an answer provoked before
// message 0 arrived may come in after its acknowledgement; it would look like a restart. Data messages therefore carry
// a mark while their sender has not seen message 0 acknowledged, and the answer returns it.
#include "ipc/swp_core.h"

#include "zel/ipc.h"

namespace zel::ipc::swp {

int checkSequence(Sequence received, Sequence &expected) {
    if (received == 0) expected = 0;
    if (received == expected) {
        ++expected;
        return ZEL_SWP_MATCHED;
    }
    return received < expected ? ZEL_SWP_DUPLICATE : ZEL_SWP_FAILURE;
}

namespace {

bool isPast(const Stream &known, std::uint32_t number) {
    for (const auto past : known.past)
        if (past == number) return true;
    return false;
}

}  // namespace

Arrival classify(const Stream &known, std::uint32_t number, Sequence received) {
    const bool isPresent = known.expected != 0 && known.number == number;
    if (isPresent && received != 0) return Arrival::continues;
    // Without a stream number a replayed message 0 cannot be told from a restarted sender: believe in the restart.
    if (isPresent && number != 0) return Arrival::replayed;
    if (number != 0 && isPast(known, number)) return Arrival::stale;
    return received == 0 ? Arrival::begins : Arrival::unknown;
}

void beginStream(Stream &known, std::uint32_t number) {
    if (known.number != number) {
        for (std::size_t i = Stream::pastCount - 1; i > 0; --i) known.past[i] = known.past[i - 1];
        known.past[0] = known.number;
    }
    known.number = number;
    known.expected = 0;
}

namespace {

AckVerdict judgeGap(const Window &window) {
    const bool isEcho = window.acknowledged < window.resentBelow;
    return inFlight(window) == 0 || isEcho ? AckVerdict::repeated : AckVerdict::gap;
}

AckVerdict judgeUnknown(const Window &window, const Acknowledgement &ack) {
    if (window.acknowledged == 0) return judgeGap(window);
    return ack.isEarly ? AckVerdict::older : AckVerdict::receiverLost;
}

}  // namespace

AckVerdict judge(const Window &window, std::uint32_t stream, const Acknowledgement &ack) {
    if (ack.answered != 0 && ack.answered != stream) return AckVerdict::otherStream;
    if (ack.stream == 0 && ack.result == ZEL_SWP_FAILURE) return judgeUnknown(window, ack);
    if (ack.stream != 0 && ack.stream != stream) return AckVerdict::otherStream;
    if (ack.receivedBelow > window.sent) return AckVerdict::beyond;
    if (ack.receivedBelow < window.acknowledged) return AckVerdict::older;
    if (ack.receivedBelow > window.acknowledged) return AckVerdict::progress;
    return ack.result == ZEL_SWP_FAILURE ? judgeGap(window) : AckVerdict::repeated;
}

std::uint32_t secondsLeft(std::uint64_t now, std::uint64_t start, std::uint32_t interval) {
    constexpr std::uint64_t second = 1'000'000'000;
    const std::uint64_t due = start + interval * second;
    return now >= due ? 0 : static_cast<std::uint32_t>((due - now + second - 1) / second);
}

}  // namespace zel::ipc::swp

void swp64BitIncr(uint32_t *high, uint32_t *low) {
    if (++*low == 0) ++*high;
}

int swp64BitCmp(uint32_t aHigh, uint32_t aLow, uint32_t bHigh, uint32_t bLow) {
    const auto a = zel::ipc::swp::joined(aHigh, aLow);
    const auto b = zel::ipc::swp::joined(bHigh, bLow);
    if (a == b) return 0;
    return b > a ? 1 : 2;
}
