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

#include <algorithm>
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

void buildIpcHeader(const SharedQueue &queue, void *message, std::uint32_t tick) {
    IpcHeader::Magic::set(message, IpcHeader::magic);
    const auto *header = static_cast<std::uint8_t *>(message) + SwpHeader::offsetInMessage;
    IpcHeader::Length::set(message, SwpHeader::Length::get(header));
    IpcHeader::Status::set(message, 0);
    IpcHeader::Transaction::set(message, tick);
    IpcHeader::SourceSlot::set(message, 0);
    IpcHeader::SourceAddress::set(message, queue.sender.address);
    IpcHeader::SourceQueue::set(message, queue.usesTimerQueue ? queue.sender.timerQueue : queue.sender.requestQueue);
    IpcHeader::TargetSlot::set(message, 0);
    IpcHeader::TargetAddress::set(message, queue.receiver.address);
    IpcHeader::TargetQueue::set(message, queue.receiver.requestQueue);
}

// Everything but the last is marked, so that the receiver need not answer it at once.
void prepare(const HeldQueue &queue, const Slot &slot, bool isLast, std::uint32_t tick) {
    SwpHeader::Flags::set(swpHeader(slot), (queue.window().acknowledged == 0 ? SwpHeader::early : 0) |
                                               (isLast ? 0 : SwpHeader::moreFollows));
    if (!queue.shared().isIcl) buildIpcHeader(queue.shared(), slot.message, tick);
}

// Plain delivery on the sender's request queue, without a word: nothing is printed under a queue's lock.
std::uint32_t sendPlainly(const SharedQueue &queue, const iovec *messages, std::uint32_t count) {
    Queue *from = findOpenQueue(keyOf(queue.sender.service, queue.sender.instance));
    if (from == nullptr) return 0;
    const int sent = sendMessages(*from, messages, static_cast<int>(count), queue.receiver.address,
                                  static_cast<std::uint16_t>(queue.receiver.requestQueue));
    return static_cast<std::uint32_t>(sent);
}

std::uint32_t sendAllOnIcl(const iovec *messages, std::uint32_t count) {
    std::uint32_t sent = 0;
    while (sent < count && sendOnIcl(messages[sent].iov_base, messages[sent].iov_len)) ++sent;
    return sent;
}

// Sends the messages from `first` up to `end`, as many as a window usually has at a time: how many left, 0 on failure.
std::uint32_t transmit(HeldQueue &queue, Sequence first, Sequence end) {
    constexpr std::uint32_t mostAtOnce = 16;
    iovec messages[mostAtOnce];
    const auto count = static_cast<std::uint32_t>(std::min<Sequence>(end - first, mostAtOnce));
    const auto tick = static_cast<std::uint32_t>(tick64Get());
    for (std::uint32_t i = 0; i < count; ++i) {
        const Slot &slot = queue.slotOf(first + i);
        prepare(queue, slot, first + i + 1 == end, tick);
        messages[i] = {slot.message, slot.length};
    }
    const std::uint32_t sent =
        queue.shared().isIcl ? sendAllOnIcl(messages, count) : sendPlainly(queue.shared(), messages, count);
    if (sent < count) ++queue.counters().failedSends;
    return sent;
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
    const Sequence head = queue.window().acknowledged;
    if (transmit(queue, head, head + 1) == 0) return ZEL_SWP_SEND_FAILED;
    ++queue.counters().retransmitted;
    ++queue.counters().passes;
    return restartTimer(queue) ? ZEL_SWP_SUCCESS : ZEL_SWP_SEND_FAILED;
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
        const std::uint32_t sent = transmit(queue, window.sent, limit);
        if (sent == 0) return false;
        window.sent += sent;
        queue.counters().sent += sent;
    }
    return true;
}

bool resendFlight(HeldQueue &queue) {
    const Window &window = queue.window();
    for (Sequence next = window.acknowledged; next < window.sent;) {
        const std::uint32_t sent = transmit(queue, next, window.sent);
        if (sent == 0) return false;
        next += sent;
        queue.counters().retransmitted += sent;
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
    if (HeldQueue queue(static_cast<std::uint32_t>(number), Named::byMessage); queue) {
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
        // A host that is out of buffers now may have some later: the interval runs on, until the budget ends.
        if (routine == nullptr && retransmit(queue, false, notice) == ZEL_SWP_SEND_FAILED) restartTimer(queue);
    }
    if (routine != nullptr) routine(static_cast<std::uint32_t>(number));
    notice.deliver();
}

std::uint32_t iclInterface() {
    return iclIfIndex.load();
}

bool sendOnIcl(const void *message, std::size_t length) {
    if (!icl_isLinkUp()) return false;
    ssize_t sent;
    do {
        sent = send(iclSocket.load(), message, length, MSG_NOSIGNAL | MSG_DONTWAIT);
    } while (sent < 0 && errno == EINTR);
    return sent == static_cast<ssize_t>(length);
}

}  // namespace zel::ipc::swp

int swpRetrans(uint32_t queue, int headOnly) {
    using namespace zel::ipc::swp;
    Notice notice;
    int result = ZEL_SWP_FAILURE;
    if (HeldQueue held(queue); held) result = retransmit(held, headOnly != 0, notice);
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
