// The two shared segments of a CPU.
//
// `sys` holds no pointers and maps anywhere. It is divided into sections of fixed place and size; a section's bytes are
// zero when the segment is created, and every user of one makes all-zero a valid initial state, so nobody has to
// initialise anything and whoever comes first creates the segment.
//
// `policy` holds pointers and maps at one fixed address in every process.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>

namespace zel::platform {

enum class Section { locks, history, globals, taskTable, endpoints, swpQueues, linkState, count };

constexpr std::array<std::size_t, static_cast<std::size_t>(Section::count)> sectionBytes = {
    256 * 1024,      // locks: state words and reader slots of the numbered locks
    3 * 624'640,     // history: three trace buffers of 624012 bytes
    64 * 1024,       // globals: task-manager globals
    366 * 32 * 8,    // taskTable: one 64-bit entry per service and instance
    366 * 32 * 128,  // endpoints: shared half of the endpoint records
    901 * 640,       // swpQueues: scalars of the sliding-window queues
    64 * 1024,       // linkState: link to the peer route processor
};

// The section's address in this process, attaching (and creating) the segment at first use; null with errno when the
// segment cannot be had. Sections are aligned to 4096 bytes.
void *sysSection(Section section);

template <class T>
T *sysSectionAs(Section section) {
    return static_cast<T *>(sysSection(section));
}

// Where the policy segment is mapped in every process, and its reserved size.
constexpr std::uintptr_t policyAddress =
    sizeof(void *) == 8 ? static_cast<std::uintptr_t>(0x550000000000ULL) : 0x60000000;
constexpr std::size_t policyReservedBytes = sizeof(void *) == 8 ? 1024u * 1024 * 1024 : 256u * 1024 * 1024;
constexpr std::size_t policyStepBytes = 16u * 1024 * 1024;

// How the policy segment is divided: its header, the heap's lists, the root of the policy tables (zero when the segment
// is created), the heap's blocks.
constexpr std::size_t policyHeapOffset = 4096, policyHeapBytes = 4096;
constexpr std::size_t policyRootOffset = policyHeapOffset + policyHeapBytes, policyRootBytes = 64 * 1024;
constexpr std::size_t policyBlocksOffset = policyRootOffset + policyRootBytes;

// Maps the policy segment, creating it when `create` is set: the root of the policy tables, or null with errno (ENOENT:
// it does not exist; EEXIST: something else lies at its address).
void *attachPolicySegment(bool create);
// Grows the segment by whole steps until its first `bytes` are backed; false with errno (ENOMEM, ENOSPC).
bool growPolicySegment(std::size_t bytes);
bool isPolicySegmentAttached();
// Backed bytes from the segment's begin on.
std::size_t policySegmentBytes();

// Bytes from the segment's begin on that this process has seen backed by its file, whatever its header says; they stay
// so, since the file only grows.
extern std::atomic<std::size_t> policyBackedBytes;
bool isPolicyBackedNow(std::size_t bytes);  // asks the host

// Whether bytes lie in the blocks of the heap, so that reading them does not fault.
inline bool isInPolicyHeap(std::uintptr_t address, std::size_t bytes) {
    const std::uintptr_t offset = address - policyAddress;
    if (offset < policyBlocksOffset || offset > policyReservedBytes || bytes > policyReservedBytes - offset)
        return false;
    return offset + bytes <= policyBackedBytes.load(std::memory_order_relaxed) || isPolicyBackedNow(offset + bytes);
}

}  // namespace zel::platform
