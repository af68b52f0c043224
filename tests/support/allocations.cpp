// Takes the place of the global new and delete.
#include "tests/support/allocations.h"

#include <atomic>
#include <cstdlib>
#include <new>

#include "zel/platform.h"

namespace zel::test {
namespace {

std::atomic<uint64_t> news;

}  // namespace

uint64_t allocationsSoFar() {
    static zelMemCheckSite sites[ZEL_MEM_CHECK_SITES];
    uint64_t total = news;
    for (int i = zelMemCheckGetSites(sites, ZEL_MEM_CHECK_SITES) - 1; i >= 0; --i) total += sites[i].allocations;
    return total;
}

}  // namespace zel::test

void *operator new(size_t bytes) {
    ++zel::test::news;
    void *block = malloc(bytes);
    if (block == nullptr) abort();
    return block;
}
void *operator new(size_t bytes, const std::nothrow_t &) noexcept {
    return operator new(bytes);
}
void operator delete(void *block) noexcept {
    free(block);
}
void operator delete(void *block, size_t) noexcept {
    free(block);
}
