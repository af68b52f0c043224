// Sending, resending and the timer of a sliding-window queue.
//
// A queue's interval is whole seconds, and its kernel timer counts passes of a service task that runs once a second; a
// timer started just before a pass would fire early by almost a second. And a timer that is restarted for each message
// would cost more than the message. So a restart only notes the time; the kernel timer runs on, and when it fires this
// side looks at the clock: idle when nothing is unacknowledged, armed again for the rest when the interval is not over.
//
// The datagrams of a queue leave in order because they leave under its lock.
#include "ipc/swp_send.h"

#include <sys/socket.h>

#include <cerrno>

#include "ipc/ipc_transport.h"
#include "platform/seam.h"

namespace zel::ipc::swp {
namespace {

std::atomic<int> iclIsUp{0};
std::atomic<int> iclSocket{-1};
std::atomic<std::uint32_t> iclIfIndex{0};

bool isRoomFor(std::size_t offset, std::size_t length) {
    return offset + SwpHeader::size <= length;
}

void buildIpcHeader(const SharedQueue &queue, void *message) {
    IpcHeader::Magic::set(message, IpcHeader::magic);
    const auto *header = static_cast<std::uint8_t *>(message) + SwpHeader::offsetInMessage;
    IpcHeader::Length::set(message, SwpHeader::Length::get(header));
    IpcHeader::Status::set(message, 0);
    IpcHeader::Transaction::set(message, static_cast<std::uint32_t>(tick64Get()));
    IpcHeader::SourceSlot::set(message, 0);
    IpcHeader::SourceAddress::set(message, queue.sender.address);
    IpcHeader::SourceQueue::set(message, queue.usesTimerQueue ? queue.sender.timerQueue : queue.sender.requestQueue);
    IpcHeader::TargetSlot::set(message, 0);
    IpcHeader::TargetAddress::set(message, queue.receiver.address);
    IpcHeader::TargetQueue::set(message, queue.receiver.requestQueue);
}

// Plain delivery on the sender's request queue, without a word: nothing is printed under a queue's lock.
bool sendPlainly(const SharedQueue &queue, const Slot &slot) {
    Queue *from = findOpenQueue(keyOf(queue.sender.service, queue.sender.instance));
    return from != nullptr && sendMessage(*from, slot.message, slot.length, queue.receiver.address,
                                          static_cast<std::uint16_t>(queue.receiver.requestQueue));
}

// `isLast`: nothing else leaves right behind it, so that a receiver may have to answer now.
bool transmit(HeldQueue &queue, Sequence sequence, bool isLast = true) {
    const Slot &slot = queue.slotOf(sequence);
    SwpHeader::Flags::set(swpHeader(slot), (queue.window().acknowledged == 0 ? SwpHeader::early : 0) |
                                               (isLast ? 0 : SwpHeader::moreFollows));
    bool isSent;
    if (queue.shared().isIcl) {
        isSent = sendOnIcl(slot.message, slot.length);
    } else {
        buildIpcHeader(queue.shared(), slot.message);
        isSent = sendPlainly(queue.shared(), slot);
    }
    if (!isSent) ++queue.counters().failedSends;
    return isSent;
}

bool isAllAcknowledged(const Window &window) {
    return window.acknowledged == window.next;
}

bool armTimer(HeldQueue &queue, std::uint32_t seconds) {
    PrivateQueue &own = queue.own();
    own.isTimerArmed = vx2bsdTimerStart(own.timer, static_cast<int>(seconds), onTimer,
                                        static_cast<intptr_t>(queue.number()), 0) == ZEL_OK;
    return own.isTimerArmed;
}

void reportExhausted(const HeldQueue &queue, Notice &notice) {
    const SharedQueue &shared = queue.shared();
    notice.report(eventNoRetransmissions, queue.number(), "swpRetrans: q=%ld %s%d to %s%d",
                  static_cast<long>(queue.number()), zelTaskGetServiceName(shared.sender.service),
                  shared.sender.instance, zelTaskGetServiceName(shared.receiver.service), shared.receiver.instance);
    const Window &window = shared.window;
    notice.tell(queue, isAllAcknowledged(window) ? nullptr : queue.slotOf(window.acknowledged).message,
                ZEL_SWP_NO_RETRANS);
}

int resendHead(HeldQueue &queue) {
    if (!transmit(queue, queue.window().acknowledged)) return ZEL_SWP_SEND_FAILED;
    ++queue.counters().retransmitted;
    ++queue.counters().passes;
    restartTimer(queue);
    return ZEL_SWP_SUCCESS;
}

int resendAll(HeldQueue &queue, Notice &notice) {
    const auto count = static_cast<std::uint32_t>(inFlight(queue.window()));
    if (!resendFlight(queue) || !sendWaiting(queue)) {
        stopTimer(queue);
        return ZEL_SWP_SEND_FAILED;
    }
    if (!restartTimer(queue)) {
        notice.report(eventTimer, queue.number(), "SWP: swpRetrans");
        return ZEL_SWP_FAILURE;
    }
    Counters &counters = queue.counters();
    ++counters.passes;
    if (count > counters.largestPass) counters.largestPass = count;
    return ZEL_SWP_SUCCESS;
}

}  // namespace

std::size_t headerOffset(const void *message, std::size_t length, bool isIcl) {
    if (!isIcl) return isRoomFor(SwpHeader::offsetInMessage, length) ? SwpHeader::offsetInMessage : 0;
    if (length < iclFixedLength) return 0;
    const std::size_t offset = iclFixedLength + IclLength::get(message);
    return isRoomFor(offset, length) ? offset : 0;
}

void stamp(const HeldQueue &queue, Sequence sequence) {
    const Slot &slot = queue.slotOf(sequence);
    std::uint8_t *header = swpHeader(slot);
    SwpHeader::Queue::set(header, queue.number());
    SwpHeader::SequenceHigh::set(header, highHalf(sequence));
    SwpHeader::SequenceLow::set(header, lowHalf(sequence));
    SwpHeader::Result::set(header, 0);
    SwpHeader::Stream::set(header, queue.shared().stream);
    SwpHeader::Link::set(header, 0);
    SwpHeader::Length::set(header, slot.length);
}

bool sendWaiting(HeldQueue &queue) {
    Window &window = queue.window();
    const Sequence limit = sendLimit(window, queue.shared().windowSize);
    while (window.sent < limit) {
        if (!transmit(queue, window.sent, window.sent + 1 == limit)) return false;
        ++window.sent;
        ++queue.counters().sent;
    }
    return true;
}

bool resendFlight(HeldQueue &queue) {
    const Window &window = queue.window();
    for (Sequence sequence = window.acknowledged; sequence < window.sent; ++sequence) {
        if (!transmit(queue, sequence, sequence + 1 == window.sent)) return false;
        ++queue.counters().retransmitted;
    }
    return true;
}

int retransmit(HeldQueue &queue, bool headOnly, Notice &notice) {
    const Window &window = queue.window();
    if (queue.shared().budget == 0) {
        reportExhausted(queue, notice);
        return ZEL_SWP_FAILURE;
    }
    if (isAllAcknowledged(window)) return ZEL_SWP_SUCCESS;
    --queue.shared().budget;
    const bool isHeadAlone = inFlight(window) > 0 && (headOnly || window.acknowledged == 0);
    return isHeadAlone ? resendHead(queue) : resendAll(queue, notice);
}

bool restartTimer(HeldQueue &queue) {
    queue.own().lastRestart = platform::now();
    return queue.own().isTimerArmed || armTimer(queue, queue.shared().timeOutSec);
}

void stopTimer(HeldQueue &queue) {
    queue.own().isTimerArmed = false;
    vx2bsdTimerCancel(queue.own().timer);
}

void onTimer(zelIntervalTimerId timer, intptr_t number) {
    Notice notice;
    void (*routine)(std::uint32_t) = nullptr;
    if (HeldQueue queue = find(static_cast<std::uint32_t>(number), Named::byMessage); queue) {
        if (queue.own().timer != timer) return;
        queue.own().isTimerArmed = false;
        if (isAllAcknowledged(queue.window())) return;
        const std::uint32_t left = secondsLeft(platform::now(), queue.own().lastRestart, queue.shared().timeOutSec);
        if (left > 0) {
            armTimer(queue, left);
            return;
        }
        queue.window().resentBelow = 0;
        routine = queue.own().timeOutRoutine;
        if (routine == nullptr) retransmit(queue, false, notice);
    }
    if (routine != nullptr) routine(static_cast<std::uint32_t>(number));
    notice.deliver();
}

bool sendOnIcl(const void *message, std::size_t length) {
    if (!icl_isLinkUp()) return false;
    ssize_t sent;
    do {
        sent = send(iclSocket.load(), message, length, MSG_NOSIGNAL);
    } while (sent < 0 && errno == EINTR);
    return sent == static_cast<ssize_t>(length);
}

}  // namespace zel::ipc::swp

int swpRetrans(uint32_t queue, int headOnly) {
    using namespace zel::ipc::swp;
    Notice notice;
    int result = ZEL_SWP_FAILURE;
    if (HeldQueue held = find(queue); held) result = retransmit(held, headOnly != 0, notice);
    notice.deliver();
    return result;
}

void zelSwpSetIclLink(int isUp) {
    zel::ipc::swp::iclIsUp.store(isUp);
}

void zelSwpSetIclifIndex(uint32_t ifIndex) {
    zel::ipc::swp::iclIfIndex.store(ifIndex);
}

void zelSwpSetIclRawSocket(int fd) {
    zel::ipc::swp::iclSocket.store(fd);
}

int icl_isLinkUp(void) {
    return zel::ipc::swp::iclIsUp.load();
}
