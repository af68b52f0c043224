// Takes the place of the checking allocator: its blocks are FailingAllocator's.
#include <cstring>

#include "tests/support/failing_allocator.h"
#include "zel/platform.h"

using zel::test::FailingAllocator;

void *zelMC_malloc(const char *, int, size_t bytes) {
    return FailingAllocator::allocate(bytes);
}
void *zelMC_calloc(const char *, int, size_t count, size_t bytes) {
    void *block = FailingAllocator::allocate(count * bytes);
    return block ? memset(block, 0, count * bytes) : nullptr;
}
void zelMC_free(const char *, int, void *block) {
    FailingAllocator::release(block);
}
