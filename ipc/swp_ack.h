// What the receiver's helpers share with the plain acknowledgement calls.
#pragma once

#include "ipc/ipc_header.h"
#include "ipc/swp_core.h"

namespace zel::ipc::swp {

// Writes the 124 bytes that answer `message` (at least as long); `expected` is the receiver's count after the check, 0
// when it has no state.
void buildAcknowledgement(const void *message, Sequence expected, int result, std::uint8_t *answer);

// A message of at least 124 bytes judged against what is known of its stream, which it advances: the result, the count
// to answer with, and what kind of arrival it was. A stale one is not answered.
struct Checked {
    int result;
    Sequence expected;
    Arrival arrival;
};
Checked check(Stream &known, const void *message, int length);
// The same with the answer sent. A message whose acknowledgement cannot be sent counts as not received: 11.
int checkAndAcknowledge(std::uint32_t key, const void *message, int length, Stream &known);

// Duplicates and gaps that zelSwpCkSeqNo has seen in this process.
std::uint64_t duplicateCount();
std::uint64_t gapCount();

}  // namespace zel::ipc::swp
