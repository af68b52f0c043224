// What every place in the source has allocated: blocks and bytes by tag and line, cheap enough to stay on.
//
// A place is a site: the tag's address and the line, numbered in order of first use. Each thread counts in a ledger of
// its own with plain loads and stores, and whoever asks adds the ledgers up; a thread that ends leaves its ledger, and
// all that stands in it, to a later one. Only for the peak do threads have to know of each other: a ledger that has
// gone further than foldBytes from where it was carries its bytes over to the site.
//
// Nothing here waits or locks, so it may be used anywhere, also by a child of fork and by a thread that is suspended in
// the middle. Where memory is short, counts go to the sites directly.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>

#include "zel/platform.h"

namespace zel::platform {

constexpr std::uint32_t siteCapacity = ZEL_MEM_CHECK_SITES;
constexpr std::intptr_t foldBytes = 65536;

struct Tally {
    std::atomic<std::uint64_t> allocations;
    std::atomic<std::uint64_t> frees;
    std::atomic<std::intptr_t> bytes;
    std::atomic<std::intptr_t> high;  // of bytes, since they were carried over
};

struct alignas(128) Site {
    const char *tag;  // with the line, what the site is found by
    int line;
    std::uint32_t next;         // site of the same bucket, 0 at the end
    std::atomic<bool> isReady;  // the members above, and `text`, are in place
    char text[ZEL_MEM_CHECK_TAG];
    Tally shared;  // carried over from the ledgers
    std::atomic<std::intptr_t> peak;
    std::atomic<std::uint64_t> badFrees;
};

// Zero pages of the host's, of which only those are ever real that hold counts.
struct Ledger {
    std::array<Tally, siteCapacity> tallies;
    std::atomic<bool> isTaken;
    Ledger *next;
};

// Site 0 stands for all that no longer found a place in the table.
extern std::array<Site, siteCapacity> sites;
extern std::array<std::atomic<std::uint16_t>, siteCapacity> siteBuckets;
extern constinit thread_local Ledger *ownLedger __attribute__((tls_model("initial-exec")));

std::uint32_t addSite(const char *tag, int line, std::uint32_t bucket);
// The calling thread's ledger when it has none yet; null when memory is short.
Ledger *takeLedger();
void noteInSite(Site &site, std::intptr_t blocks, std::intptr_t bytes);
void carryOver(Site &site, Tally &tally);

inline std::uint32_t siteOf(const char *tag, int line) {
    const auto address = static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(tag));
    const std::uint32_t mixed = address * 0x9e3779b1u + static_cast<std::uint32_t>(line) * 0x85ebca6bu;
    const std::uint32_t bucket = mixed / (UINT32_MAX / siteCapacity + 1);
    for (std::uint32_t i = siteBuckets[bucket].load(std::memory_order_acquire); i != 0; i = sites[i].next)
        if (sites[i].tag == tag && sites[i].line == line) [[likely]]
            return i;
    return addSite(tag, line, bucket);
}

inline Tally *tallyOf(std::uint32_t site) {
    Ledger *ledger = ownLedger;
    if (!ledger) [[unlikely]]
        ledger = takeLedger();
    return ledger ? &ledger->tallies[site] : nullptr;
}

// Adds to a word that only the calling thread writes.
template <class T>
T addAlone(std::atomic<T> &word, T value) {
    const T sum = word.load(std::memory_order_relaxed) + value;
    word.store(sum, std::memory_order_relaxed);
    return sum;
}

inline void noteAllocated(std::uint32_t site, std::size_t size) {
    const auto bytes = static_cast<std::intptr_t>(size);
    Tally *tally = tallyOf(site);
    if (!tally) return noteInSite(sites[site], 1, bytes);
    addAlone(tally->allocations, std::uint64_t{1});
    const std::intptr_t now = addAlone(tally->bytes, bytes);
    if (now <= tally->high.load(std::memory_order_relaxed)) return;
    tally->high.store(now, std::memory_order_relaxed);
    if (now > foldBytes) carryOver(sites[site], *tally);
}

inline void noteFreed(std::uint32_t site, std::size_t size) {
    const auto bytes = static_cast<std::intptr_t>(size);
    Tally *tally = tallyOf(site);
    if (!tally) return noteInSite(sites[site], -1, -bytes);
    addAlone(tally->frees, std::uint64_t{1});
    if (addAlone(tally->bytes, -bytes) < -foldBytes) carryOver(sites[site], *tally);
}

}  // namespace zel::platform
