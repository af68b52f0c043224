// The checking allocator's default: the C library's heap, with a header in front of each block that says which place in
// the source asked for how much.
//
// The header ends in a check word made of all it says and of where it stands. A block whose check word does not fit is
// not given to the heap: it was freed before, never came from here, or was written to in front of its first byte.
// Whoever frees a block takes the check word away first, in one step, so of two threads with the same block one is
// refused. Whoever is refused is told on standard error, which is all that may be done here: callers hold
// locks, and printing allocates.
//
// Headers of foreign blocks and of blocks freed before are read on purpose, hence outside the sanitizers' sight.
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>

#include "platform/accounting.h"
#include "platform/cancellation.h"
#include "zel/platform.h"

namespace zel::platform {
namespace {

constexpr std::uint64_t allocatedMagic = 0x5a4c4d43c3a53c5a;
constexpr int siteShift = 48;

struct alignas(std::max_align_t) BlockHeader {
    std::uint64_t what;   // site and bytes
    std::uint64_t check;  // of `what` and of where it stands

    std::uint32_t site() const { return static_cast<std::uint32_t>(what >> siteShift); }
    std::size_t bytes() const { return static_cast<std::size_t>(what & ((std::uint64_t{1} << siteShift) - 1)); }
};
constexpr std::uint64_t mostBytes =
    std::min<std::uint64_t>(PTRDIFF_MAX, std::uint64_t{1} << siteShift) - sizeof(BlockHeader) - 1;

std::uint64_t checkOf(const BlockHeader *header, std::uint64_t what) {
    return what ^ reinterpret_cast<std::uintptr_t>(header) ^ allocatedMagic;
}

// Makes a block of memory from the heap; null stays null.
inline void *makeBlock(void *memory, std::size_t bytes, std::uint32_t site) {
    if (memory == nullptr) [[unlikely]]
        return nullptr;
    auto *header = static_cast<BlockHeader *>(memory);
    header->what = std::uint64_t{site} << siteShift | bytes;
    header->check = checkOf(header, header->what);
    noteAllocated(site, bytes);
    return header + 1;
}

void *tooLarge() {
    errno = ENOMEM;
    return nullptr;
}

// A block on its way to the heap no longer passes for one, wherever the heap leaves it: true for the one caller who
// makes it so. Only what looks like a block is written to.
__attribute__((no_sanitize("address"))) __attribute__((no_sanitize("thread"))) bool claim(BlockHeader *header) {
    if (reinterpret_cast<std::uintptr_t>(header) % alignof(BlockHeader) != 0) return false;
    std::uint64_t check = checkOf(header, header->what);
    return header->check == check &&
           __atomic_compare_exchange_n(&header->check, &check, 0, false, __ATOMIC_ACQ_REL, __ATOMIC_RELAXED);
}

__attribute__((cold)) void reportBadFree(const char *tag, int line, const void *block) {
    const NoCancellation guard;
    const int savedErrno = errno;
    sites[siteOf(tag, line)].badFrees.fetch_add(1);
    char text[200];
    const int length = snprintf(text, sizeof text,
                                "%s/%d: %p is no allocated block, was freed before, or was written to in front of its "
                                "first byte; it is not freed\n",
                                tag != nullptr ? tag : "?", line, block);
    if (length > 0 && write(STDERR_FILENO, text, static_cast<std::size_t>(length)) < 0) { /* nobody listens */
    }
    errno = savedErrno;
}

// The header of a block that is now the caller's to free, null with a report otherwise.
BlockHeader *headerToFree(const char *tag, int line, void *block) {
    BlockHeader *header = static_cast<BlockHeader *>(block) - 1;
    if (claim(header)) [[likely]]
        return header;
    reportBadFree(tag, line, block);
    return nullptr;
}

}  // namespace
}  // namespace zel::platform

using namespace zel::platform;

void *zelMemCheckMalloc(const char *tag, int line, size_t bytes) {
    if (bytes > mostBytes) return tooLarge();
    return makeBlock(malloc(bytes + sizeof(BlockHeader)), bytes, siteOf(tag, line));
}

void *zelMemCheckCalloc(const char *tag, int line, size_t count, size_t bytes) {
    size_t total = 0;
    if (__builtin_mul_overflow(count, bytes, &total) || total > mostBytes) return tooLarge();
    return makeBlock(calloc(1, total + sizeof(BlockHeader)), total, siteOf(tag, line));
}

void *zelMemCheckRealloc(const char *tag, int line, void *block, size_t bytes) {
    if (block == nullptr) return zelMemCheckMalloc(tag, line, bytes);
    BlockHeader *header = bytes <= mostBytes ? headerToFree(tag, line, block) : nullptr;
    if (header == nullptr) return tooLarge();
    const BlockHeader before = *header;
    void *memory = realloc(header, bytes + sizeof(BlockHeader));
    if (memory == nullptr) {
        header->check = checkOf(header, header->what);
        return nullptr;
    }
    noteFreed(before.site(), before.bytes());
    return makeBlock(memory, bytes, siteOf(tag, line));
}

void zelMemCheckFree(const char *tag, int line, void *block) {
    if (block == nullptr) return;
    BlockHeader *header = headerToFree(tag, line, block);
    if (header == nullptr) return;
    noteFreed(header->site(), header->bytes());
    free(header);
}

__attribute__((weak, alias("zelMemCheckMalloc"))) void *zelMC_malloc(const char *tag, int line, size_t bytes);
__attribute__((weak, alias("zelMemCheckCalloc"))) void *zelMC_calloc(const char *tag, int line, size_t count,
                                                                     size_t bytes);
__attribute__((weak, alias("zelMemCheckRealloc"))) void *zelMC_realloc(const char *tag, int line, void *block,
                                                                       size_t bytes);
__attribute__((weak, alias("zelMemCheckFree"))) void zelMC_free(const char *tag, int line, void *block);
