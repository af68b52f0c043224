// What fuzzers share: the claim that ends a run, and messages made good so that the code behind the first checks is
// reached.
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

#include "zel/ipc.h"

namespace zel::fuzz {

inline void require(bool holds, int line = __builtin_LINE()) {
    if (holds) return;
    fprintf(stderr, "line %d does not hold\n", line);
    abort();
}

struct Word {
    unsigned offset;
    std::uint32_t value;
};

// Makes good the words that `bits` name, as far as they are there.
template <std::size_t count>
void mend(std::vector<std::uint8_t> &bytes, unsigned bits, const Word (&words)[count]) {
    for (std::size_t i = 0; i < count; ++i)
        if ((bits >> i & 1) != 0 && bytes.size() >= words[i].offset + 4)
            zelIpcHdrSet32(bytes.data(), words[i].offset, words[i].value);
}

// All but the first byte, in a block of exactly its size; as a message of `type`, when there is room and type is not 0.
inline std::unique_ptr<std::uint8_t[]> messageOf(const std::uint8_t *data, std::size_t size, std::uint32_t type) {
    auto message = std::make_unique<std::uint8_t[]>(size - 1);
    if (size > 1) memcpy(message.get(), data + 1, size - 1);
    if (type != 0 && size > ZEL_IPC_HDR_LEN) {
        zelIpcHdrSet32(message.get(), 0, ZEL_IPC_MAGIC);
        zelIpcHdrSet32(message.get(), 12, type);
    }
    return message;
}

}  // namespace zel::fuzz
