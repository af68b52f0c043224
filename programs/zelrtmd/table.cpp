#include "table.h"

#include <unistd.h>

#include <cstring>
#include <new>

#include "zel/memory.h"

namespace zelrtmd {
namespace {

// ---- Memory ---------------------------------------------------------------------------------------------------------

// All tables share one partition: a pool of prefixes for each length of address, and pools of routes by size.
constexpr std::uint32_t partition = ZEL_RTM_SERVICE;
constexpr std::uint32_t partitionPools = partition << 16;
enum Pool : std::uint32_t { prefixes4 = partitionPools, prefixes6, endOfPools };
constexpr std::uint32_t smallestRoute = 100;  // with what stands around it, a chunk is a multiple of 16 bytes
constexpr std::uint32_t largestRoute = sizeof(Path) + ZEL_RTM_MAX_MESSAGE;

// Whoever makes prefixes first makes them.
struct Pools {
    Pools();
};

Pools::Pools() {
    M_memPartCreate(partition, getpid(), endOfPools - partitionPools, 0);
    M_memPoolCreate(prefixes4, "IPv4 prefixes", sizeof(Prefix) + 4);
    M_memPoolCreate(prefixes6, "IPv6 prefixes", sizeof(Prefix) + 16);
    std::uint32_t pool = partitionPools;
    for (std::uint32_t size = smallestRoute; M_memVarPoolCreate(pool++, "routes", size) == 0 && size < largestRoute;)
        size += (size / 8 + 15) / 16 * 16;
}

void release(void *block) {
    if (block) M_memBlockFree(partitionPools, block);
}

void giveBackPages() {
    M_memPoolFlush(prefixes4);
    M_memPoolFlush(prefixes6);
    M_memPartVarFlush(partition);
}

// ---- Prefixes and their paths ---------------------------------------------------------------------------------------

// Null without memory, as the prefix below.
Path *makePath(std::uint32_t handle, const zelRtmRoute &route, const std::uint8_t *record, std::uint32_t length) {
    auto *path = static_cast<Path *>(M_memBlockVarAlloc(partitionPools, sizeof(Path) + length, 0));
    if (!path) return nullptr;
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
    if (!tree_ || !spare_) throw std::bad_alloc();
}

Table::~Table() {
    watcher_ = {};
    removeOf(0);
    zelRadixDestroy(tree_);
    release(spare_);
    giveBackPages();
}

Prefix *Table::makePrefix() const {
    static const Pools pools;
    const auto size = static_cast<std::uint32_t>(sizeof(Prefix) + addressSize());
    auto *prefix = static_cast<Prefix *>(M_memBlockAlloc(addressBits_ == 32 ? prefixes4 : prefixes6, size, 0));
    if (!prefix) return nullptr;
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
    release(prefix);
    --prefixes_;
}

// Null without memory.
Prefix *Table::findOrMake(const std::uint8_t *key, std::uint32_t bits) {
    std::memcpy(spare_->key(), key, addressSize());
    maskKey(spare_->key(), bits, addressBits_);
    spare_->bits = static_cast<std::uint8_t>(bits);
    Prefix *prefix = prefixOf(zelRadixInsert(tree_, &spare_->entry, bits));
    if (prefix != spare_) return prefix;
    Prefix *following = makePrefix();
    if (following) {
        spare_ = following;
        ++prefixes_;
        return prefix;
    }
    zelRadixRemove(tree_, &spare_->entry);
    return nullptr;
}

Change Table::add(std::uint32_t handle, const zelRtmRoute &route, const std::uint8_t *record, std::uint32_t length) {
    Path *path = makePath(handle, route, record, length);
    const auto bits = static_cast<std::uint32_t>(rtm_mask2plen(family_, route.mask));
    Prefix *prefix = path ? findOrMake(route.prefix, bits) : nullptr;
    if (!prefix) {
        release(path);
        return Change::refused;
    }
    Path *old = takePath(&prefix->paths, handle);
    insertPath(&prefix->paths, path);
    release(old);
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
    release(path);
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
        release(path);
    }
    table.drop(prefix);
    return 0;
}

std::set<std::uint32_t> Table::removeOf(std::uint32_t handle) {
    Removal removal{this, handle, {}};
    zelRadixWalk(tree_, dropPathsOf, &removal);
    giveBackPages();
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
