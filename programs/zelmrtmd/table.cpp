#include "table.h"

#include <unistd.h>

#include <cstring>
#include <new>

#include "zel/memory.h"

namespace zelmrtmd {

struct Table::Entry {
    Key key;
    std::uint8_t record[ZEL_MRTM_ROUTE_LENGTH_V6];

    int family() const { return key[0]; }
    std::uint32_t vrf() const { return zelIpcHdrGet32(key.data(), 1); }
    std::uint32_t handle() const { return zelIpcHdrGet32(key.data(), keySize - 4); }
};

namespace {

constexpr std::uint32_t partition = ZEL_MRTM_SERVICE;
constexpr std::uint32_t pool = partition << 16;

std::size_t recordLength(int family) {
    return family == ZEL_MRTM_IPV6 ? ZEL_MRTM_ROUTE_LENGTH_V6 : ZEL_MRTM_ROUTE_LENGTH;
}

int compareKeys(zelRBTree *tree, const void *probe, const void *data) {
    return std::memcmp(probe, data, tree->rbtt_keyLength);
}

}  // namespace

Table::Table() : tree_(zelRBTreeCreate("multicast routes", 0, keySize, nullptr, nullptr, compareKeys)) {
    M_memPartCreate(partition, getpid(), 1, 0);
    M_memPoolCreate(pool, "multicast routes", sizeof(Entry));
    if (!tree_) throw std::bad_alloc();
}

Table::~Table() {
    removeOf(0, std::nullopt, std::nullopt);
    zelRBTreeDestroy(tree_);
    M_memPoolFlush(pool);
}

Table::Key Table::makeKey(int family, std::uint32_t vrf, const std::uint8_t *group, const std::uint8_t *source,
                          std::uint32_t handle) {
    Key key;
    key[0] = static_cast<std::uint8_t>(family);
    zelIpcHdrSet32(key.data(), 1, vrf);
    std::memcpy(key.data() + 5, group, 16);
    std::memcpy(key.data() + 21, source, 16);
    zelIpcHdrSet32(key.data(), keySize - 4, handle);
    return key;
}

Table::Entry *Table::findEntry(int family, std::uint32_t handle, const zelMrtmRoute &route) const {
    const Key key = makeKey(family, route.vrfId, route.group, route.source, handle);
    return static_cast<Entry *>(zelRBTreeGetExact(tree_, key.data()));
}

Change Table::change(int family, std::uint32_t handle, const zelMrtmRoute &route, const std::uint8_t *record) {
    Entry *entry = findEntry(family, handle, route);
    if (!entry) return Change::unknown;
    std::memcpy(entry->record, record, recordLength(family));
    return Change::replaced;
}

Change Table::add(int family, std::uint32_t handle, const zelMrtmRoute &route, const std::uint8_t *record) {
    if (change(family, handle, route, record) == Change::replaced) return Change::replaced;
    auto *entry = static_cast<Entry *>(M_memBlockAlloc(pool, sizeof(Entry), 0));
    if (!entry) return Change::refused;
    entry->key = makeKey(family, route.vrfId, route.group, route.source, handle);
    std::memcpy(entry->record, record, recordLength(family));
    if (!zelRBTreeInsert(tree_, entry)) {
        M_memBlockFree(pool, entry);
        return Change::refused;
    }
    ++routes_;
    return Change::added;
}

Change Table::remove(int family, std::uint32_t handle, const zelMrtmRoute &route) {
    const Key key = makeKey(family, route.vrfId, route.group, route.source, handle);
    void *entry = zelRBTreeRemove(tree_, key.data());
    if (!entry) return Change::unknown;
    M_memBlockFree(pool, entry);
    --routes_;
    return Change::removed;
}

std::set<std::uint32_t> Table::removeOf(std::uint32_t handle, std::optional<int> family,
                                        std::optional<std::uint32_t> vrf) {
    std::set<std::uint32_t> owners;
    for (auto *entry = static_cast<Entry *>(zelRBTreeGetFirst(tree_)); entry;) {
        Entry *here = entry;
        entry = static_cast<Entry *>(zelRBTreeGetNext(tree_, here));
        const bool isMeant = (handle == 0 || here->handle() == handle) &&
                             here->family() == family.value_or(here->family()) &&
                             here->vrf() == vrf.value_or(here->vrf());
        if (!isMeant) continue;
        owners.insert(here->handle());
        zelRBTreeRemove(tree_, here);
        M_memBlockFree(pool, here);
        --routes_;
    }
    return owners;
}

bool Table::find(const zelMrtmQuery &query, zelMrtmRoute &route) const {
    const Key least = makeKey(query.family, query.vrfId, query.group, query.source, 0);
    const auto *entry = static_cast<const Entry *>(zelRBTreeGetExactOrNext(tree_, least.data()));
    if (!entry || std::memcmp(entry->key.data(), least.data(), keySize - 4) != 0) return false;
    return zelMrtmReadRoute(query.family, entry->record, &route) > 0;
}

}  // namespace zelmrtmd
