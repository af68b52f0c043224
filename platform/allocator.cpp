// The checking allocator's default: the C library's heap. Tags and lines are for host programs that count by them.
#include <stdlib.h>

#include "zel/platform.h"

__attribute__((weak)) void *zelMC_malloc(const char *, int, size_t bytes) {
    return malloc(bytes);
}
__attribute__((weak)) void *zelMC_calloc(const char *, int, size_t count, size_t bytes) {
    return calloc(count, bytes);
}
__attribute__((weak)) void *zelMC_realloc(const char *, int, void *block, size_t bytes) {
    return realloc(block, bytes);
}
__attribute__((weak)) void zelMC_free(const char *, int, void *block) {
    free(block);
}
