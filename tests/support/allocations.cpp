// Takes the place of the global new and delete.
#include "tests/support/allocations.h"

#include <atomic>
#include <cstdlib>
#include <new>

#include "zel/platform.h"

namespace zel::test {
namespace {

std::atomic<uint64_t> news, failing;

void *allocate(size_t bytes) {
    if (++news == failing) return nullptr;
    void *block = malloc(bytes);
    if (block == nullptr) abort();
    return block;
}

}  // namespace

uint64_t allocationsSoFar() {
    static zelMemCheckSite sites[ZEL_MEM_CHECK_SITES];
    uint64_t total = news;
    for (int i = zelMemCheckGetSites(sites, ZEL_MEM_CHECK_SITES) - 1; i >= 0; --i) total += sites[i].allocations;
    return total;
}

bool failNewAt(uint64_t nth) {
    const uint64_t now = news, last = failing.exchange(nth != 0 ? now + nth : 0);
    return last != 0 && last <= now;
}

}  // namespace zel::test

void *operator new(size_t bytes) {
    void *block = zel::test::allocate(bytes);
    if (block == nullptr) throw std::bad_alloc();
    return block;
}
void *operator new(size_t bytes, const std::nothrow_t &) noexcept {
    return zel::test::allocate(bytes);
}
void operator delete(void *block) noexcept {
    free(block);
}
void operator delete(void *block, size_t) noexcept {
    free(block);
}
