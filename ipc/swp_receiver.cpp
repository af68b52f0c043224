// The receiving side of sliding-window queues for programs: every stream message goes through zelSwpReceiverCheck,
// which says whether to deliver it, and zelSwpReceiverAnswer, which answers the sender once it has been dealt with; or
// through zelSwpReceiverAccept, which is both.
//
// A source is (address, source queue, sender's queue number); each has one present stream and remembers the last few
// that it replaced, so that datagrams of a flushed stream that arrive late neither disturb the present one nor are
// answered. Sources stand in a table of fixed size with hash chains; when it is full, the source that was silent
// longest is forgotten, and its sender learns that from the answer to its next message.
//
// Acknowledgements may be held back: with an interval of n, the answer to an in-order message waits while fewer than n
// are unanswered and another datagram is in the socket, or on its way as the message says. Whoever would find the
// socket empty sends what is held, so a sender with a full window does not wait for an answer that nobody thinks of.
#include <algorithm>
#include <cstring>

#include "ipc/swp_ack.h"
#include "ipc/swp_core.h"
#include "platform/seam.h"
#include "zel/ipc.h"

namespace zel::ipc::swp {
namespace {

constexpr const char *tag = "zelSwpReceiver";
constexpr std::uint32_t defaultSources = 1024;
constexpr std::uint32_t mostSources = 1u << 20;
constexpr std::uint32_t none = UINT32_MAX;

struct SourceKey {
    std::uint32_t address;
    std::uint32_t sourceQueue;
    std::uint32_t queue;
    bool operator==(const SourceKey &) const = default;
};

struct Source {
    SourceKey key;
    Stream stream;
    std::uint32_t nextInChain;
    std::uint32_t held;  // in-order messages that were not answered yet
    std::uint64_t lastUse;
    std::uint8_t answer[SwpHeader::endInMessage];  // to the last of them
};

std::uint32_t hashOf(const SourceKey &key) {
    std::uint64_t mix = (static_cast<std::uint64_t>(key.address) << 32 | key.sourceQueue) * 0x9e3779b97f4a7c15u;
    mix ^= key.queue * 0xc2b2ae3d27d4eb4fu;
    return static_cast<std::uint32_t>(mix >> 32) ^ static_cast<std::uint32_t>(mix);
}

SourceKey keyOf(const void *message) {
    const auto *header = static_cast<const std::uint8_t *>(message) + SwpHeader::offsetInMessage;
    return {IpcHeader::SourceAddress::get(message), IpcHeader::SourceQueue::get(message),
            SwpHeader::Queue::get(header)};
}

}  // namespace
}  // namespace zel::ipc::swp

using namespace zel::ipc;
using namespace zel::ipc::swp;

struct zelSwpReceiver {
    uint32_t key;
    uint32_t interval;
    uint32_t capacity;
    uint32_t used;
    uint32_t holding;  // sources with an answer held back
    uint32_t bucketMask;
    uint64_t uses;
    zelSwpReceiverStats stats;
    uint32_t *buckets;  // index of a chain's first source
    Source *sources;
};

namespace {

// ---- Sources --------------------------------------------------------------------------------------------------------

uint32_t &chainOf(zelSwpReceiver &receiver, const SourceKey &key) {
    return receiver.buckets[hashOf(key) & receiver.bucketMask];
}

void unchain(zelSwpReceiver &receiver, uint32_t index) {
    uint32_t *at = &chainOf(receiver, receiver.sources[index].key);
    while (*at != index) at = &receiver.sources[*at].nextInChain;
    *at = receiver.sources[index].nextInChain;
}

uint32_t longestSilent(const zelSwpReceiver &receiver) {
    uint32_t oldest = 0;
    for (uint32_t i = 1; i < receiver.used; ++i)
        if (receiver.sources[i].lastUse < receiver.sources[oldest].lastUse) oldest = i;
    return oldest;
}

void sendHeld(zelSwpReceiver &receiver);

uint32_t freeSource(zelSwpReceiver &receiver) {
    if (receiver.used < receiver.capacity) return receiver.used++;
    sendHeld(receiver);
    const uint32_t index = longestSilent(receiver);
    unchain(receiver, index);
    ++receiver.stats.forgotten;
    return index;
}

Source *findSource(zelSwpReceiver &receiver, const SourceKey &key) {
    for (uint32_t i = chainOf(receiver, key); i != none; i = receiver.sources[i].nextInChain)
        if (receiver.sources[i].key == key) return &receiver.sources[i];
    return nullptr;
}

Source &addSource(zelSwpReceiver &receiver, const SourceKey &key) {
    const uint32_t index = freeSource(receiver);
    uint32_t &chain = chainOf(receiver, key);
    Source &source = receiver.sources[index];
    source = {};
    source.key = key;
    source.nextInChain = chain;
    chain = index;
    return source;
}

// ---- Answers --------------------------------------------------------------------------------------------------------

void sendAnswer(zelSwpReceiver &receiver, uint8_t *answer) {
    const bool isSent = zelIpcNonGuaranteedSend(receiver.key, answer, static_cast<int>(SwpHeader::endInMessage)) == 0;
    ++(isSent ? receiver.stats.acksSent : receiver.stats.ackFailures);
}

void sendHeldOf(zelSwpReceiver &receiver, Source &source) {
    source.held = 0;
    --receiver.holding;
    sendAnswer(receiver, source.answer);
}

void sendHeld(zelSwpReceiver &receiver) {
    for (uint32_t i = 0; receiver.holding > 0 && i < receiver.used; ++i)
        if (receiver.sources[i].held > 0) sendHeldOf(receiver, receiver.sources[i]);
}

// Whether another message is in the socket, or on its way as its sender says. Should that one be lost, the sender's
// timer resends both, and the first of them is answered at once.
bool isMoreComing(const zelSwpReceiver &receiver, const void *message) {
    const auto *header = static_cast<const uint8_t *>(message) + SwpHeader::offsetInMessage;
    if ((SwpHeader::Flags::get(header) & SwpHeader::moreFollows) != 0) return true;
    const auto &seam = zel::platform::seam();
    const int fd = Key_getSocketFd(receiver.key);
    return fd >= 0 && seam.waitReadable(seam.context, fd, 0) == 1;
}

// Acknowledgements are cumulative: an answer takes the place of one that is held back for the same source. The answer
// to a message that is delivered waits for zelSwpReceiverAnswer.
void holdAnswer(zelSwpReceiver &receiver, Source &source, const void *message, const Checked &checked) {
    buildAcknowledgement(message, checked.expected, checked.result, source.answer);
    if (source.held++ == 0) ++receiver.holding;
    if (checked.result != ZEL_SWP_MATCHED) sendHeldOf(receiver, source);
}

// To a message of a stream that this receiver knows nothing of; what it holds for the source stands.
void answerUnknown(zelSwpReceiver &receiver, const void *message) {
    std::uint8_t bytes[SwpHeader::endInMessage];
    buildAcknowledgement(message, 0, ZEL_SWP_FAILURE, bytes);
    sendAnswer(receiver, bytes);
}

// ---- Messages -------------------------------------------------------------------------------------------------------

void count(zelSwpReceiverStats &stats, const Checked &checked) {
    if (checked.arrival == Arrival::begins) ++stats.streams;
    if (checked.arrival == Arrival::stale) {
        ++stats.stale;
    } else if (checked.arrival == Arrival::unknown) {
        ++stats.unknown;
    } else if (checked.result == ZEL_SWP_MATCHED) {
        ++stats.accepted;
    } else {
        ++(checked.result == ZEL_SWP_DUPLICATE ? stats.duplicates : stats.gaps);
    }
}

int checkFrom(zelSwpReceiver &receiver, const SourceKey &key, const void *message, int length) {
    Source *source = findSource(receiver, key);
    Stream unknownSource;
    const Checked checked = check(source != nullptr ? source->stream : unknownSource, message, length);
    count(receiver.stats, checked);
    if (checked.arrival == Arrival::stale) return checked.result;
    if (checked.arrival == Arrival::unknown) {
        answerUnknown(receiver, message);
        return checked.result;
    }
    if (source == nullptr) {
        source = &addSource(receiver, key);
        source->stream = unknownSource;
    }
    source->lastUse = ++receiver.uses;
    holdAnswer(receiver, *source, message, checked);
    return checked.result;
}

bool isStreamMessage(const void *message, int length) {
    if (message == nullptr || length < static_cast<int>(SwpHeader::endInMessage)) return false;
    const SourceKey key = keyOf(message);
    return IpcHeader::Magic::get(message) == IpcHeader::magic && key.queue >= 1 && key.queue <= ZEL_SWP_MAX_QUEUES &&
           key.sourceQueue != 0;
}

uint32_t powerOfTwoFrom(uint32_t value) {
    uint32_t power = 1;
    while (power < value) power <<= 1;
    return power;
}

}  // namespace

zelSwpReceiver *zelSwpReceiverCreate(uint32_t key, uint32_t maxSources, uint32_t ackInterval) {
    const uint32_t capacity = maxSources == 0 ? defaultSources : std::min(maxSources, mostSources);
    const uint32_t buckets = powerOfTwoFrom(capacity);
    auto *receiver = static_cast<zelSwpReceiver *>(zelMC_calloc(tag, __LINE__, 1, sizeof(zelSwpReceiver)));
    if (receiver == nullptr) return nullptr;
    receiver->sources = static_cast<Source *>(zelMC_calloc(tag, __LINE__, capacity, sizeof(Source)));
    receiver->buckets = static_cast<uint32_t *>(zelMC_malloc(tag, __LINE__, buckets * sizeof(uint32_t)));
    if (receiver->sources == nullptr || receiver->buckets == nullptr) {
        zelSwpReceiverDestroy(receiver);
        return nullptr;
    }
    receiver->key = key;
    receiver->interval = ackInterval;
    receiver->capacity = capacity;
    receiver->bucketMask = buckets - 1;
    for (uint32_t i = 0; i < buckets; ++i) receiver->buckets[i] = none;
    return receiver;
}

int zelSwpReceiverCheck(zelSwpReceiver *receiver, const void *message, int length) {
    if (receiver == nullptr) return ZEL_SWP_FAILURE;
    if (isStreamMessage(message, length)) return checkFrom(*receiver, keyOf(message), message, length);
    ++receiver->stats.malformed;
    return ZEL_SWP_FAILURE;
}

int zelSwpReceiverAnswer(zelSwpReceiver *receiver, const void *message) {
    if (receiver == nullptr || message == nullptr) return ZEL_SWP_FAILURE;
    Source *source = findSource(*receiver, keyOf(message));
    if (source == nullptr || source->held == 0) return ZEL_SWP_FAILURE;
    if (source->held >= receiver->interval) {
        sendHeldOf(*receiver, *source);
    } else if (!isMoreComing(*receiver, message)) {
        sendHeld(*receiver);
    }
    return ZEL_SWP_SUCCESS;
}

int zelSwpReceiverAccept(zelSwpReceiver *receiver, const void *message, int length) {
    const int result = zelSwpReceiverCheck(receiver, message, length);
    if (result == ZEL_SWP_MATCHED) zelSwpReceiverAnswer(receiver, message);
    return result;
}

int zelSwpReceiverFlush(zelSwpReceiver *receiver) {
    if (receiver == nullptr) return ZEL_SWP_FAILURE;
    sendHeld(*receiver);
    return ZEL_SWP_SUCCESS;
}

int zelSwpReceiverGetStats(const zelSwpReceiver *receiver, zelSwpReceiverStats *stats) {
    if (receiver == nullptr || stats == nullptr) return ZEL_SWP_FAILURE;
    *stats = receiver->stats;
    stats->sources = receiver->used;
    return ZEL_SWP_SUCCESS;
}

void zelSwpReceiverDestroy(zelSwpReceiver *receiver) {
    if (receiver == nullptr) return;
    zelMC_free(tag, __LINE__, receiver->sources);
    zelMC_free(tag, __LINE__, receiver->buckets);
    zelMC_free(tag, __LINE__, receiver);
}
