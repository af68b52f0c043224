#include "memory/page_map.h"

#include "platform/zero_pages.h"

namespace zel::memory {

constinit PageWindow pageWindow{};

namespace {

constinit std::array<std::atomic<GranuleTable *>, std::size_t{1} << (addressBits - granuleBits - tableBits)> tables{};
constinit std::atomic<bool> isWindowTaken{false}, isWindowReady{false}, isWindowOpen{true};

void openWindow(std::uintptr_t number, GranuleTable *table) {
    if (isWindowTaken.exchange(true)) return;
    pageWindow.start = number << tableBits << granuleBits;
    pageWindow.table = table;
    isWindowReady = true;
    pageWindow.granules.store(isWindowOpen ? granulesPerTable : 0, std::memory_order_release);
}

// Made by whoever comes first, also when two pools grow at once. Null without memory.
GranuleTable *makeTable(std::uintptr_t number) {
    auto *made = static_cast<GranuleTable *>(platform::zeroPages(sizeof(GranuleTable)));
    if (made == nullptr) return nullptr;
    GranuleTable *table = nullptr;
    if (!tables[number].compare_exchange_strong(table, made)) {
        platform::giveBackZeroPages(made, sizeof(GranuleTable));
        return table;
    }
    openWindow(number, made);
    return made;
}

// The place of a granule; null when its table does not exist and is not to be made, or cannot be.
std::atomic<std::uintptr_t> *placeOf(std::uintptr_t granule, bool isToBeMade) {
    const std::uintptr_t number = granule >> tableBits;
    if (number >= tables.size()) return nullptr;
    GranuleTable *table = tables[number].load(std::memory_order_acquire);
    if (table == nullptr && isToBeMade) table = makeTable(number);
    return table != nullptr ? &(*table)[granule & (granulesPerTable - 1)] : nullptr;
}

std::uintptr_t granuleOf(const void *pointer) {
    return reinterpret_cast<std::uintptr_t>(pointer) >> granuleBits;
}

}  // namespace

void openPageWindow(bool isOpen) {
    isWindowOpen = isOpen;
    if (isWindowReady) pageWindow.granules.store(isOpen ? granulesPerTable : 0);
}

bool enterPage(Page *page, std::size_t bytes, std::uintptr_t mark) {
    const std::uintptr_t first = granuleOf(page), last = granuleOf(reinterpret_cast<std::byte *>(page) + bytes - 1);
    if (placeOf(first, true) == nullptr || placeOf(last, true) == nullptr) return false;
    for (std::uintptr_t i = first; i <= last; ++i)
        placeOf(i, true)->store(reinterpret_cast<std::uintptr_t>(page) | mark, std::memory_order_release);
    return true;
}

void removePage(Page *page, std::size_t bytes) {
    const std::uintptr_t first = granuleOf(page), last = granuleOf(reinterpret_cast<std::byte *>(page) + bytes - 1);
    for (std::uintptr_t i = first; i <= last; ++i) placeOf(i, true)->store(0, std::memory_order_release);
}

PageEntry entryAt(const void *pointer) {
    const std::atomic<std::uintptr_t> *place = placeOf(granuleOf(pointer), false);
    return {place != nullptr ? place->load(std::memory_order_acquire) : 0};
}

}  // namespace zel::memory
