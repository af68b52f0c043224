// Memory of the host's that reads as zeros and costs nothing until it is written to; for tables that stay for good.
#pragma once

#include <sys/mman.h>

#include <cstddef>

namespace zel::platform {

// Null when the host has none left.
inline void *zeroPages(std::size_t bytes) {
    void *pages = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    return pages != MAP_FAILED ? pages : nullptr;
}
inline void giveBackZeroPages(void *pages, std::size_t bytes) {
    munmap(pages, bytes);
}

}  // namespace zel::platform
