#include "table.h"

#include <cstdlib>
#include <cstring>
#include <new>

namespace zelrtmd {
namespace {

void *allocate(std::size_t bytes) {
    void *block = malloc(bytes);
    if (!block) throw std::bad_alloc();
    return block;
}

Path *makePath(std::uint32_t handle, const zelRtmRoute &route, const std::uint8_t *record, std::uint32_t length) {
    auto *path = static_cast<Path *>(allocate(sizeof(Path) + length));
    path->handle = handle;
    path->metric = route.metric;
    path->distance = route.distance;
    path->length = static_cast<std::uint16_t>(length);
    std::memcpy(path->record(), record, length);
    return path;
}

bool isPreferred(const Path &a, const Path &b) {
    if (a.distance != b.distance) return a.distance < b.distance;
    if (a.metric != b.metric) return a.metric < b.metric;
    return a.handle < b.handle;
}

// Takes the client's path off the list; null when it has none.
Path *takePath(Path **list, std::uint32_t handle) {
    for (; *list; list = &(*list)->next) {
        if ((*list)->handle != handle) continue;
        Path *path = *list;
        *list = path->next;
        return path;
    }
    return nullptr;
}

void insertPath(Path **list, Path *path) {
    while (*list && isPreferred(**list, *path)) list = &(*list)->next;
    path->next = *list;
    *list = path;
}

Prefix *prefixOf(zelRadixEntry *entry) {
    return reinterpret_cast<Prefix *>(entry);
}

// Clears the bits behind the prefix length, which a sloppy client may have set.
void maskKey(std::uint8_t *key, std::uint32_t bits, std::uint32_t addressBits) {
    if (bits == addressBits) return;
    const std::uint32_t whole = bits / 8;
    key[whole] &= static_cast<std::uint8_t>(0xff00 >> bits % 8);
    std::memset(key + whole + 1, 0, addressBits / 8 - whole - 1);
}

struct Removal {
    Table *table;
    std::uint32_t handle;
    std::set<std::uint32_t> owners;
};

}  // namespace

Table::Table(int family, std::uint32_t vrf, Watcher watcher)
    : family_(family),
      vrf_(vrf),
      addressBits_(family == ZEL_RTM_IPV6_UNICAST ? 128 : 32),
      watcher_(std::move(watcher)),
      tree_(zelRadixCreate("routes", static_cast<std::uint16_t>(addressBits_), nullptr, nullptr, nullptr)),
      spare_(makePrefix()) {
    if (!tree_) throw std::bad_alloc();
}

Table::~Table() {
    watcher_ = {};
    removeOf(0);
    zelRadixDestroy(tree_);
    free(spare_);
}

Prefix *Table::makePrefix() const {
    auto *prefix = static_cast<Prefix *>(allocate(sizeof(Prefix) + addressSize()));
    prefix->entry = {};
    prefix->entry.rth_addr = prefix->key();
    prefix->paths = nullptr;
    return prefix;
}

void Table::watch(const Prefix &prefix, std::uint32_t owner) const {
    if (watcher_) watcher_(*this, prefix.key(), prefix.bits, owner);
}

void Table::drop(Prefix *prefix) {
    zelRadixRemove(tree_, &prefix->entry);
    free(prefix);
    --prefixes_;
}

Change Table::add(std::uint32_t handle, const zelRtmRoute &route, const std::uint8_t *record, std::uint32_t length) {
    const auto bits = static_cast<std::uint32_t>(rtm_mask2plen(family_, route.mask));
    std::memcpy(spare_->key(), route.prefix, addressSize());
    maskKey(spare_->key(), bits, addressBits_);
    spare_->bits = static_cast<std::uint8_t>(bits);
    zelRadixEntry *entry = zelRadixInsert(tree_, &spare_->entry, bits);
    if (!entry) return Change::refused;
    Prefix *prefix = prefixOf(entry);
    if (prefix == spare_) {
        spare_ = makePrefix();
        ++prefixes_;
    }
    Path *old = takePath(&prefix->paths, handle);
    insertPath(&prefix->paths, makePath(handle, route, record, length));
    free(old);
    routes_ += !old;
    watch(*prefix, handle);
    return old ? Change::replaced : Change::added;
}

Change Table::remove(std::uint32_t handle, const zelRtmRoute &route) {
    const auto bits = static_cast<std::uint32_t>(rtm_mask2plen(family_, route.mask));
    zelRadixEntry *entry = zelRadixGetExact(tree_, route.prefix, bits);
    if (!entry) return Change::unknown;
    Prefix *prefix = prefixOf(entry);
    Path *path = takePath(&prefix->paths, handle);
    if (!path) return Change::unknown;
    free(path);
    --routes_;
    watch(*prefix, handle);
    if (!prefix->paths) drop(prefix);
    return Change::removed;
}

int Table::dropPathsOf(zelRadixEntry *entry, void *context) {
    auto *removal = static_cast<Removal *>(context);
    Table &table = *removal->table;
    Prefix *prefix = prefixOf(entry);
    while (prefix->paths) {
        Path *path = takePath(&prefix->paths, removal->handle ? removal->handle : prefix->paths->handle);
        if (!path) return 0;
        removal->owners.insert(path->handle);
        --table.routes_;
        table.watch(*prefix, path->handle);
        free(path);
    }
    table.drop(prefix);
    return 0;
}

std::set<std::uint32_t> Table::removeOf(std::uint32_t handle) {
    Removal removal{this, handle, {}};
    zelRadixWalk(tree_, dropPathsOf, &removal);
    return removal.owners;
}

const Prefix *Table::longestMatch(const void *address) const {
    return prefixOf(zelRadixGetBest(tree_, address, addressBits_));
}

const Prefix *Table::exactMatch(const void *address, std::uint32_t bits) const {
    return prefixOf(zelRadixGetExact(tree_, address, bits));
}

const Prefix *Table::behind(const void *address, std::uint32_t bits) {
    if (bits > addressBits_) return prefixOf(zelRadixGetNext(tree_, nullptr));
    if (zelRadixEntry *here = zelRadixGetExact(tree_, address, bits)) return prefixOf(zelRadixGetNext(tree_, here));
    // It went meanwhile: the spare stands in its place for a moment.
    std::memcpy(spare_->key(), address, addressSize());
    if (!zelRadixInsert(tree_, &spare_->entry, bits)) return nullptr;
    zelRadixEntry *following = zelRadixGetNext(tree_, &spare_->entry);
    zelRadixRemove(tree_, &spare_->entry);
    return prefixOf(following);
}

const Prefix *Table::next(const Prefix &prefix) const {
    return prefixOf(zelRadixGetNext(tree_, const_cast<zelRadixEntry *>(&prefix.entry)));
}

}  // namespace zelrtmd
