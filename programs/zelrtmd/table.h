// The routes of one family and VRF: a radix tree of prefixes, and per prefix one route for each client that has one,
// the preferred first. Routes are kept as the records they came in. All tables of the process share one memory
// partition, numbered as the service is, so that they need one thread; a pool holds 1 GB, what it has no room for is
// refused.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <utility>

#include "zel/containers.h"
#include "zel/rtm.h"

namespace zelrtmd {

struct Path {
    Path *next;
    std::uint32_t handle;
    std::uint32_t metric;
    std::uint16_t length;
    std::uint8_t distance;

    // The record, `length` bytes, lies behind.
    std::uint8_t *record() { return reinterpret_cast<std::uint8_t *>(this + 1); }
    const std::uint8_t *record() const { return reinterpret_cast<const std::uint8_t *>(this + 1); }
};

struct Prefix {
    zelRadixEntry entry;
    Path *paths;
    std::uint8_t bits;

    // The key, 4 or 16 bytes, lies behind.
    std::uint8_t *key() { return reinterpret_cast<std::uint8_t *>(this + 1); }
    const std::uint8_t *key() const { return reinterpret_cast<const std::uint8_t *>(this + 1); }
};

enum class Change { added, replaced, removed, unknown, refused };

class Table {
public:
    // Hears of every route that came or went: its prefix, and whose it is.
    using Watcher =
        std::function<void(const Table &, const std::uint8_t *key, std::uint32_t bits, std::uint32_t owner)>;

    Table(int family, std::uint32_t vrf, Watcher watcher = {});
    ~Table();
    Table(const Table &) = delete;
    Table &operator=(const Table &) = delete;

    // The client's route for a prefix; a later one replaces the earlier. `record` is the route as it came.
    Change add(std::uint32_t handle, const zelRtmRoute &route, const std::uint8_t *record, std::uint32_t length);
    Change remove(std::uint32_t handle, const zelRtmRoute &route);
    // Every route of a client, of all clients for handle 0: the handles of those that had any.
    std::set<std::uint32_t> removeOf(std::uint32_t handle);

    const Prefix *longestMatch(const void *address) const;
    const Prefix *exactMatch(const void *address, std::uint32_t bits) const;
    // The first prefix behind (address, bits) in the order of keys; more bits than an address has begin.
    const Prefix *behind(const void *address, std::uint32_t bits);
    const Prefix *next(const Prefix &prefix) const;

    int family() const { return family_; }
    std::uint32_t vrf() const { return vrf_; }
    std::size_t addressSize() const { return addressBits_ / 8; }
    std::uint64_t prefixes() const { return prefixes_; }
    std::uint64_t routes() const { return routes_; }

private:
    Prefix *makePrefix() const;
    Prefix *findOrMake(const std::uint8_t *key, std::uint32_t bits);
    void drop(Prefix *prefix);
    void watch(const Prefix &prefix, std::uint32_t owner) const;
    static int dropPathsOf(zelRadixEntry *entry, void *removal);

    int family_;
    std::uint32_t vrf_;
    std::uint32_t addressBits_;
    Watcher watcher_;
    zelRadix *tree_;
    Prefix *spare_;  // the next prefix to be inserted, so that one descent both finds and inserts
    std::uint64_t prefixes_ = 0;
    std::uint64_t routes_ = 0;
};

using Tables = std::map<std::pair<int, std::uint32_t>, std::unique_ptr<Table>>;  // by family and VRF

}  // namespace zelrtmd
