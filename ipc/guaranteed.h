// Guaranteed delivery: when it applies, and what the receiving side keeps to answer each message once.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "base/lock.h"
#include "ipc/endpoint.h"

namespace zel::ipc {

// Guards every endpoint's filter and the target database.
extern Mutex guaranteedLock;

constexpr int guaranteedAttempts = 3;
constexpr int guaranteedWaitSec = 1;

constexpr bool isGuaranteedSend(std::uint8_t command) {
    return command == ZEL_IPC_GSEND || command == ZEL_IPC_GSEND_FIRST;
}
constexpr bool isGuaranteedAck(std::uint8_t command) {
    return command == ZEL_IPC_GACK || command == ZEL_IPC_GACK_FIRST;
}

// False when the target is new and the table of targets is full.
bool hasRoomFor(std::uint32_t key, std::uint32_t queueId, std::uint32_t address);

// The last message of each source, so that a repetition is acknowledged again but not delivered again.
//
// A first send starts a source's numbers afresh. Repeated with the same number it is a duplicate only as long as its
// sender still retries: after that it is a sender that began anew.
class DuplicateFilter {
public:
    // Notes the message; true when it was delivered before.
    bool isDuplicate(std::uint32_t address, std::uint32_t queueId, std::uint8_t command, std::uint16_t sequence,
                     std::uint64_t now);
    // Whether this was the last message noted from its source.
    bool wasNoted(std::uint32_t address, std::uint32_t queueId, std::uint16_t sequence) const;

private:
    struct Source {
        bool inUse = false;
        std::uint16_t sequence = 0;
        std::uint32_t address = 0;
        std::uint32_t task = 0;
        std::uint64_t notedAt = 0;
    };
    const Source *find(std::uint32_t address, std::uint32_t queueId) const;
    Source &obtain(std::uint32_t address, std::uint32_t queueId);

    std::array<Source, 64> sources_;
};

// Gives the endpoint its filter (false without memory), and takes it away.
bool openFilter(Endpoint &endpoint);
void closeFilter(Endpoint &endpoint);

// Notes a guaranteed message; true when it was delivered before.
bool noteGuaranteed(Endpoint &endpoint, const void *message);
// Whether it is the last that was noted from its source.
bool wasNoted(Endpoint &endpoint, const void *message);
// Answers a guaranteed message on the queue it came in by.
void acknowledgeGuaranteed(Queue &queue, const void *message);

// Sends back the header alone: type, transaction and sequence repeated, source and target exchanged.
bool sendAnswer(Queue &queue, const void *message, std::uint8_t command, bool repeatSequence);
// Exchanges source and target of a header.
void swapEnds(void *header);

}  // namespace zel::ipc
