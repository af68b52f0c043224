// The multicast routes: a tree in the order of family, VRF, group, source and client, so that all that clients have for
// one group and source stand together. Routes are kept as the records they came in, in a memory partition numbered as
// the service is, so that they need one thread.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <optional>
#include <set>

#include "zel/containers.h"
#include "zel/mrtm.h"

namespace zelmrtmd {

enum class Change { added, replaced, removed, unknown, refused };

class Table {
public:
    Table();
    ~Table();
    Table(const Table &) = delete;
    Table &operator=(const Table &) = delete;

    // The client's route for a group and source; a later one replaces the earlier. `record` is the route as it came.
    Change add(int family, std::uint32_t handle, const zelMrtmRoute &route, const std::uint8_t *record);
    // The same for one that must be there.
    Change change(int family, std::uint32_t handle, const zelMrtmRoute &route, const std::uint8_t *record);
    Change remove(int family, std::uint32_t handle, const zelMrtmRoute &route);
    // Every route of a client, of all clients for handle 0, in that family and VRF: the handles of those that had any.
    std::set<std::uint32_t> removeOf(std::uint32_t handle, std::optional<int> family, std::optional<std::uint32_t> vrf);
    // The route of the client that registered first of those that have one.
    bool find(const zelMrtmQuery &query, zelMrtmRoute &route) const;
    std::uint64_t routes() const { return routes_; }

private:
    // Big-endian, so that the order of keys is that of their bytes.
    static constexpr std::size_t keySize = 1 + 4 + 16 + 16 + 4;
    using Key = std::array<std::uint8_t, keySize>;
    struct Entry;

    static Key makeKey(int family, std::uint32_t vrf, const std::uint8_t *group, const std::uint8_t *source,
                       std::uint32_t handle);
    Entry *findEntry(int family, std::uint32_t handle, const zelMrtmRoute &route) const;

    zelRBTree *tree_;
    std::uint64_t routes_ = 0;
};

}  // namespace zelmrtmd
