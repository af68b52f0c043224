// The trace history: three buffers of 3000 entries in shared memory, read by other processes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "base/wire.h"

namespace zel::kernel {

// Layout of one buffer; every word is big-endian. The first word is left alone.
struct HistoryBuffer {
    using Wrapped = wire::Field<std::uint32_t, 4>;
    using Index = wire::Field<std::uint32_t, 8>;  // of the entry written next
    static constexpr std::uint32_t entries = 3000;
    static constexpr std::size_t textBytes = 200;
    static constexpr std::size_t modulesOffset = 12;
    static constexpr std::size_t levelsOffset = modulesOffset + 4 * entries;
    static constexpr std::size_t textsOffset = levelsOffset + 4 * entries;
    static constexpr std::size_t size = textsOffset + textBytes * entries;

    static std::uint8_t *module(std::uint8_t *buffer, std::uint32_t entry) {
        return buffer + modulesOffset + 4 * entry;
    }
    static std::uint8_t *level(std::uint8_t *buffer, std::uint32_t entry) { return buffer + levelsOffset + 4 * entry; }
    static char *text(std::uint8_t *buffer, std::uint32_t entry) {
        return reinterpret_cast<char *>(buffer + textsOffset + textBytes * entry);
    }
};

// Sets pTraceHistory to the buffers of this CPU, or to buffers of this process where no shared memory can be had.
void attachHistory();

// Records a message: as an entry, or as a repeat of the one before it in its buffer. The caller is Uninterrupted.
void recordInHistory(std::string_view text, std::uint32_t moduleId, std::uint32_t level);

}  // namespace zel::kernel
