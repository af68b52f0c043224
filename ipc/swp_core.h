// The decisions of a sliding-window stream, as functions of values: sequence arithmetic, the receiver's check, what an
// acknowledgement means to the sender, which messages may leave, when a timer is due. No clock, socket or lock here.
//
// A stream is numbered 0, 1, 2, ... in 64 bits. Counts on the sender's side are half-open: [acknowledged, sent) is in
// flight, [sent, next) waits for the window. An acknowledgement is cumulative; on the wire it names the last message
// received in order, here the one behind it, so that "nothing received yet" (all ones on the wire) is simply 0.
#pragma once

#include <cstddef>
#include <cstdint>

namespace zel::ipc::swp {

using Sequence = std::uint64_t;

constexpr Sequence joined(std::uint32_t high, std::uint32_t low) {
    return static_cast<Sequence>(high) << 32 | low;
}
constexpr std::uint32_t highHalf(Sequence value) {
    return static_cast<std::uint32_t>(value >> 32);
}
constexpr std::uint32_t lowHalf(Sequence value) {
    return static_cast<std::uint32_t>(value);
}

// ---- Receiver -------------------------------------------------------------------------------------------------------

// Result 1 and `expected` advanced for the message that was waited for, and for message 0, which restarts the count;
// 2 for an earlier one, 4 for a gap.
int checkSequence(Sequence received, Sequence &expected);

// What a receiver knows of one sender's queue.
struct Stream {
    static constexpr std::size_t pastCount = 4;
    std::uint32_t number = 0;  // 0: none begun, or the sender does not number its streams
    std::uint32_t past[pastCount] = {};
    Sequence expected = 0;  // 0: no state
};

enum class Arrival {
    begins,     // message 0 of a stream not known yet
    continues,  // of the present stream
    replayed,   // message 0 of the present stream, once more
    unknown,    // of a stream whose beginning was never seen, or was forgotten
    stale,      // of a stream that another one replaced
};
Arrival classify(const Stream &known, std::uint32_t number, Sequence received);
void beginStream(Stream &known, std::uint32_t number);

// ---- Sender ---------------------------------------------------------------------------------------------------------

struct Window {
    Sequence acknowledged = 0;
    Sequence sent = 0;
    Sequence next = 0;
    Sequence resentBelow = 0;  // in flight at the last fast resend: reports of the same gap are ignored up to here
};

constexpr std::uint64_t inFlight(const Window &window) {
    return window.sent - window.acknowledged;
}

// One past the last message that a window of `size` lets go.
constexpr Sequence sendLimit(const Window &window, std::uint32_t size) {
    const Sequence limit = window.acknowledged + size;
    return limit < window.next ? limit : window.next;
}

struct Acknowledgement {
    Sequence receivedBelow = 0;
    int result = 0;
    std::uint32_t stream = 0;    // 0: the receiver has no state for the stream
    std::uint32_t answered = 0;  // stream of the message answered, 0 when the receiver does not say
    bool isEarly = false;        // that message left before the sender had seen message 0 acknowledged
};

enum class AckVerdict {
    otherStream,   // about a stream that was flushed
    beyond,        // of a message never sent
    older,         // overtaken by a later acknowledgement
    progress,      // releases messages
    repeated,      // says nothing new
    gap,           // says nothing new, and that a message is missing: resend what is in flight
    receiverLost,  // the receiver had received message 0 and knows nothing of it any more
};
AckVerdict judge(const Window &window, std::uint32_t stream, const Acknowledgement &ack);

// ---- Time -----------------------------------------------------------------------------------------------------------

// Whole seconds, rounded up, until `interval` seconds after `start`; 0 when that moment has come. Nanoseconds.
std::uint32_t secondsLeft(std::uint64_t now, std::uint64_t start, std::uint32_t interval);

}  // namespace zel::ipc::swp
