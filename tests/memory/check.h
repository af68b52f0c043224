// The invariants of a pool: its lists, chains and counters agree.
#pragma once

#include <gtest/gtest.h>

#include "memory/pool.h"

namespace zel::test {

inline void checkPool(const memory::Pool &inspected) {
    uint32_t pages = 0, freePages = 0, chunks = 0;
    for (memory::Page *page = inspected.pages.head; page; page = page->all.next, ++pages) {
        uint32_t chained = 0;
        const auto *first = reinterpret_cast<const std::byte *>(page) + memory::firstHeader;
        for (uint32_t at = page->firstFree; at != memory::noChunk;
             at = memory::load<uint32_t>(first + at + 8), ++chained)
            ASSERT_EQ(memory::load<uint32_t>(first + at), memory::unusedMarker);
        ASSERT_EQ(chained, inspected.freeIn(*page));
        ASSERT_EQ(memory::pageAt(first + inspected.slotsBytes), page);
        ASSERT_TRUE(page->all.next || page == inspected.pages.tail);
        chunks += page->used;
        freePages += chained != 0;
    }
    for (const memory::Page *page = inspected.freePages.head; page; page = page->withFree.next, --freePages)
        ASSERT_NE(page->firstFree, memory::noChunk);
    ASSERT_EQ(freePages, 0u);
    ASSERT_EQ(pages, inspected.stats().pages);
    ASSERT_EQ(chunks, inspected.stats().chunksInUse);
}

}  // namespace zel::test
