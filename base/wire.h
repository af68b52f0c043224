// Byte layouts written once, as typed fields of big-endian words.
//
// A layout is a struct of Field aliases; nothing overlays a struct on a buffer, so fields may stand at any offset and
// hosts of either byte order and any alignment rule read the same bytes.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>

namespace zel::wire {

template <class T>
constexpr T swapBytes(T value) {
    if constexpr (sizeof(T) == 2) return __builtin_bswap16(value);
    if constexpr (sizeof(T) == 4) return __builtin_bswap32(value);
    if constexpr (sizeof(T) == 8) return __builtin_bswap64(value);
    return value;
}

template <class T>
constexpr T bigEndian(T value) {
    static_assert(std::is_unsigned_v<T>);
    return std::endian::native == std::endian::big ? value : swapBytes(value);
}

template <class T>
T load(const void *at) {
    T value;
    std::memcpy(&value, at, sizeof value);
    return bigEndian(value);
}

template <class T>
void store(void *at, T value) {
    const T bytes = bigEndian(value);
    std::memcpy(at, &bytes, sizeof bytes);
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
