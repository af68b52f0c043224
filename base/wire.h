// Byte layouts written once, as typed fields of big-endian words.
//
// A layout is a struct of Field aliases; nothing overlays a struct on a buffer, so fields may stand at any offset and
// hosts of either byte order and any alignment rule read the same bytes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <type_traits>

namespace zel::wire {

template <class T>
T load(const void *at) {
    static_assert(std::is_unsigned_v<T>);
    const auto *bytes = static_cast<const std::uint8_t *>(at);
    T value = 0;
    for (std::size_t i = 0; i < sizeof(T); ++i)
        value = static_cast<T>((static_cast<std::uint64_t>(value) << 8) | bytes[i]);
    return value;
}

template <class T>
void store(void *at, T value) {
    static_assert(std::is_unsigned_v<T>);
    auto *bytes = static_cast<std::uint8_t *>(at);
    for (std::size_t i = 0; i < sizeof(T); ++i)
        bytes[i] = static_cast<std::uint8_t>(static_cast<std::uint64_t>(value) >> (8 * (sizeof(T) - 1 - i)));
}

// An unsigned word of type T at byte `Offset` of a message; the caller guarantees the bytes.
template <class T, std::size_t Offset>
struct Field {
    using Type = T;
    static constexpr std::size_t offset = Offset;
    static constexpr std::size_t end = Offset + sizeof(T);
    static T get(const void *message) { return load<T>(static_cast<const std::uint8_t *>(message) + Offset); }
    static void set(void *message, T value) { store<T>(static_cast<std::uint8_t *>(message) + Offset, value); }
};

}  // namespace zel::wire
