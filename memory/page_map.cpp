#include "memory/page_map.h"

#include "platform/zero_pages.h"

namespace zel::memory {

constinit std::array<std::atomic<GranuleTable *>, std::size_t{1} << (addressBits - granuleBits - tableBits)>
    granuleTables{};

namespace {

// Made by whoever comes first, also when two pools grow at once. Null without memory.
GranuleTable *tableOf(std::uintptr_t address) {
    const std::uintptr_t number = address >> granuleBits >> tableBits;
    if (number >= granuleTables.size()) return nullptr;
    GranuleTable *table = granuleTables[number].load(std::memory_order_acquire);
    if (table != nullptr) return table;
    auto *made = static_cast<GranuleTable *>(platform::zeroPages(sizeof(GranuleTable)));
    if (made == nullptr) return nullptr;
    if (granuleTables[number].compare_exchange_strong(table, made)) return made;
    platform::giveBackZeroPages(made, sizeof(GranuleTable));
    return table;
}

// Calls `each` with every granule of a page, the one it begins in first; false when a table cannot be had.
template <class Each>
bool eachGranule(const Page *page, std::size_t bytes, Each each) {
    const auto begin = reinterpret_cast<std::uintptr_t>(page);
    for (std::uintptr_t number = begin >> granuleBits; number <= (begin + bytes - 1) >> granuleBits; ++number) {
        GranuleTable *table = tableOf(number << granuleBits);
        if (table == nullptr) return false;
        each((*table)[number & (granulesPerTable - 1)], number == begin >> granuleBits);
    }
    return true;
}

void setGranules(const Page *page, std::size_t bytes, std::uintptr_t value) {
    eachGranule(page, bytes, [&](Granule &granule, bool isFirst) {
        (isFirst ? granule.begins : granule.covers).store(value, std::memory_order_release);
    });
}

}  // namespace

bool enterPage(const Page *page, std::size_t bytes) {
    if (!eachGranule(page, bytes, [](Granule &, bool) {})) return false;
    setGranules(page, bytes, reinterpret_cast<std::uintptr_t>(page));
    return true;
}

void removePage(const Page *page, std::size_t bytes) {
    setGranules(page, bytes, 0);
}

}  // namespace zel::memory
