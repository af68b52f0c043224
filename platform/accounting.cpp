#include "platform/accounting.h"

#include <pthread.h>

#include <algorithm>
#include <cstring>

#include "platform/zero_pages.h"

namespace zel::platform {

constinit std::array<Site, siteCapacity> sites{};
constinit std::array<std::atomic<std::uint16_t>, siteCapacity> siteBuckets{};
constinit thread_local Ledger *ownLedger = nullptr;

namespace {

constinit std::atomic<std::uint32_t> sitesTaken{1};
constinit std::atomic<Ledger *> ledgers{nullptr};  // only ever grows
// Bytes on their way from a ledger to a site would be counted twice, or not at all: sums are taken while both agree.
constinit std::atomic<std::uint32_t> foldsBegun{0}, foldsEnded{0};
constexpr int triesOfASum = 100;  // a thread may be suspended between the two

// ---- Sites ----

std::uint32_t takeSite() {
    std::uint32_t site = sitesTaken.load();
    while (site < siteCapacity && !sitesTaken.compare_exchange_weak(site, site + 1)) {
    }
    return site < siteCapacity ? site : 0;
}

std::uint32_t findSite(const char *tag, int line, std::uint32_t first) {
    while (first != 0 && !(sites[first].tag == tag && sites[first].line == line)) first = sites[first].next;
    return first;
}

// ---- Ledgers ----

void leaveLedger(void *ledger) {
    ownLedger = nullptr;
    static_cast<Ledger *>(ledger)->isTaken.store(false, std::memory_order_release);
}

// The key whose destructor gives a thread's ledger back; made once, without a lock. 0 when the host has none left.
constinit std::atomic<std::uint64_t> keyPlusOne{0};
std::uint64_t ledgerKey() {
    std::uint64_t made = keyPlusOne.load();
    pthread_key_t key = 0;
    if (made != 0 || pthread_key_create(&key, leaveLedger) != 0) return made;
    if (keyPlusOne.compare_exchange_strong(made, std::uint64_t{key} + 1)) return std::uint64_t{key} + 1;
    pthread_key_delete(key);
    return made;
}

Ledger *adoptLedger() {
    for (Ledger *ledger = ledgers.load(); ledger != nullptr; ledger = ledger->next)
        if (!ledger->isTaken.load(std::memory_order_relaxed) && !ledger->isTaken.exchange(true)) return ledger;
    return nullptr;
}

Ledger *newLedger() {
    auto *ledger = static_cast<Ledger *>(zeroPages(sizeof(Ledger)));
    if (ledger == nullptr) return nullptr;
    ledger->isTaken.store(true);
    ledger->next = ledgers.load();
    while (!ledgers.compare_exchange_weak(ledger->next, ledger)) {
    }
    return ledger;
}

void raisePeak(Site &site, std::intptr_t bytes) {
    std::intptr_t peak = site.peak.load();
    while (bytes > peak && !site.peak.compare_exchange_weak(peak, bytes)) {
    }
}

// ---- Sums ----

// What a site holds, from all ledgers. For the peak each ledger's own is added to what the others hold now.
void sumUp(std::uint32_t index, zelMemCheckSite &sum) {
    const Site &site = sites[index];
    std::uint64_t allocations = site.shared.allocations.load(), frees = site.shared.frees.load();
    std::intptr_t bytes = site.shared.bytes.load(), rise = 0;
    for (Ledger *ledger = ledgers.load(); ledger != nullptr; ledger = ledger->next) {
        const Tally &tally = ledger->tallies[index];
        allocations += tally.allocations.load(std::memory_order_relaxed);
        frees += tally.frees.load(std::memory_order_relaxed);
        const std::intptr_t own = tally.bytes.load(std::memory_order_relaxed);
        bytes += own;
        rise = std::max(rise, tally.high.load(std::memory_order_relaxed) - own);
    }
    sum.allocations = allocations;
    sum.liveBlocks = static_cast<std::int64_t>(allocations - frees);
    sum.liveBytes = bytes;
    sum.peakBytes = std::max(site.peak.load(), bytes + rise);
    sum.badFrees = site.badFrees.load();
}

void describe(std::uint32_t index, zelMemCheckSite &sum) {
    const Site &site = sites[index];
    const bool isNamed = site.isReady.load(std::memory_order_acquire);
    sum.line = isNamed ? site.line : 0;
    strncpy(sum.tag, index == 0 ? "others" : isNamed ? site.text : "", sizeof sum.tag);
    for (int i = 0; i < triesOfASum; ++i) {
        const std::uint32_t ended = foldsEnded.load();
        sumUp(index, sum);
        if (foldsBegun.load() == ended) return;
    }
}

}  // namespace

std::uint32_t addSite(const char *tag, int line, std::uint32_t bucket) {
    std::uint16_t first = siteBuckets[bucket].load(std::memory_order_acquire);
    if (const std::uint32_t site = findSite(tag, line, first); site != 0) return site;
    const std::uint32_t taken = takeSite();
    if (taken == 0) return 0;
    Site &site = sites[taken];
    site.tag = tag;
    site.line = line;
    strncpy(site.text, tag != nullptr ? tag : "?", sizeof site.text - 1);
    do {
        // Another thread may have come with the same place; then this row stays empty for good.
        if (const std::uint32_t same = findSite(tag, line, first); same != 0) return same;
        site.next = first;
    } while (!siteBuckets[bucket].compare_exchange_weak(first, static_cast<std::uint16_t>(taken)));
    site.isReady.store(true, std::memory_order_release);
    return taken;
}

Ledger *takeLedger() {
    const std::uint64_t key = ledgerKey();
    Ledger *ledger = key != 0 ? adoptLedger() : nullptr;
    if (key != 0 && ledger == nullptr) ledger = newLedger();
    if (ledger == nullptr) return nullptr;
    if (pthread_setspecific(static_cast<pthread_key_t>(key - 1), ledger) != 0) {
        leaveLedger(ledger);
        return nullptr;
    }
    return ownLedger = ledger;
}

void noteInSite(Site &site, std::intptr_t blocks, std::intptr_t bytes) {
    (blocks > 0 ? site.shared.allocations : site.shared.frees).fetch_add(1);
    raisePeak(site, site.shared.bytes.fetch_add(bytes) + bytes);
}

void carryOver(Site &site, Tally &tally) {
    foldsBegun.fetch_add(1);
    const std::intptr_t before = site.shared.bytes.fetch_add(tally.bytes.load());
    raisePeak(site, before + tally.high.load());
    tally.bytes.store(0);
    tally.high.store(0);
    foldsEnded.fetch_add(1);
}

}  // namespace zel::platform

using namespace zel::platform;

int zelMemCheckGetSites(zelMemCheckSite *to, int capacity) {
    const auto count = static_cast<int>(sitesTaken.load());
    for (int i = 0; i < std::min(count, capacity); ++i) describe(static_cast<std::uint32_t>(i), to[i]);
    return count;
}

int zelMemCheckGrowth(const zelMemCheckSite *before, int beforeCount, zelMemCheckSite *now, int nowCount) {
    int grown = 0;
    for (int i = 0; i < nowCount; ++i) {
        zelMemCheckSite site = now[i];
        if (i < beforeCount) {
            site.allocations -= before[i].allocations;
            site.badFrees -= before[i].badFrees;
            site.liveBlocks -= before[i].liveBlocks;
            site.liveBytes -= before[i].liveBytes;
        }
        if (site.liveBlocks > 0 || site.liveBytes > 0) now[grown++] = site;
    }
    return grown;
}
