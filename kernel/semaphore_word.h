// The id arithmetic of semaphores, and the one word in which a semaphore that nobody waits for lives.
//
// An id is slot + generation x 2304. Each slot has one 64-bit word that holds everything an uncontended take or give
// has to know and change, so that one compare-and-swap validates the id and moves the token:
//
//     63 .. 42   generation
//     41 .. 36   flags
//     35 ..  0   binary and counting: tokens, signed; mutex: the owner's serial, 0 when free (a process would have to
//                start tasks for days on end to come to a serial of more bits)
//
// While `engaged` is set the word belongs to the holder of the slot's lock, and every fast path falls through to it.
#pragma once

#include <cstdint>

namespace zel::kernel {

constexpr std::uint32_t semaphoreSlots = 2304;
constexpr std::uint32_t lastGeneration = 0x3fffff;

constexpr std::uint64_t semaphoreId(std::uint32_t slot, std::uint32_t generation) {
    return slot + static_cast<std::uint64_t>(generation) * semaphoreSlots;
}

// The generation of the slot's next id: wraps to 0, early where ids would outgrow the host's words, and leaves out the
// id 0, which means failure.
constexpr std::uint32_t nextGeneration(std::uint32_t slot, std::uint32_t generation,
                                       std::uint64_t largestId = UINTPTR_MAX) {
    std::uint32_t next = generation >= lastGeneration ? 0 : generation + 1;
    if (semaphoreId(slot, next) > largestId) next = 0;
    return semaphoreId(slot, next) == 0 ? 1 : next;
}

namespace word {

constexpr int generationShift = 42;
constexpr int valueBits = 36;
constexpr std::uint64_t valueMask = (std::uint64_t{1} << valueBits) - 1;

constexpr std::uint64_t flag(int number) {
    return std::uint64_t{1} << (valueBits + number);
}
constexpr std::uint64_t alive = flag(0);
constexpr std::uint64_t engaged = flag(1);  // somebody waits, or a call works under the slot's lock
constexpr std::uint64_t mutex = flag(2);
constexpr std::uint64_t recursed = flag(3);  // the owner holds the mutex more than once
constexpr std::uint64_t deleteSafe = flag(4);
constexpr std::uint64_t inversionSafe = flag(5);

constexpr std::uint64_t make(std::uint32_t generation, std::uint64_t flags, std::int64_t value) {
    return (static_cast<std::uint64_t>(generation) << generationShift) | flags |
           (static_cast<std::uint64_t>(value) & valueMask);
}
constexpr bool isLive(std::uint64_t word, std::uint64_t id) {
    return (word >> generationShift) == id / semaphoreSlots && (word & alive) != 0;
}
constexpr bool isIdle(std::uint64_t word, std::uint64_t id) {
    return isLive(word, id) && (word & engaged) == 0;
}
constexpr bool isMutex(std::uint64_t word) {
    return (word & mutex) != 0;
}
constexpr std::int64_t tokens(std::uint64_t word) {
    return static_cast<std::int64_t>(word << (64 - valueBits)) >> (64 - valueBits);
}
constexpr std::uint64_t owner(std::uint64_t word) {
    return word & valueMask;
}
constexpr std::uint64_t withValue(std::uint64_t word, std::uint64_t value) {
    return (word & ~valueMask) | (value & valueMask);
}

// Whether a token can be had, and the word after the task with this serial has taken it.
constexpr bool hasToken(std::uint64_t word) {
    return isMutex(word) ? owner(word) == 0 : tokens(word) >= 1;
}
constexpr std::uint64_t taken(std::uint64_t word, std::uint64_t serial) {
    return withValue(word, isMutex(word) ? serial : word - 1);
}
// The word after a give; of a mutex, after its owner's last.
constexpr std::uint64_t given(std::uint64_t word) {
    return withValue(word, isMutex(word) ? 0 : word + 1);
}

}  // namespace word
}  // namespace zel::kernel
