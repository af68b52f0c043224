// Redistribution: routes of some clients to other clients, the targets, that asked for those of certain types.
//
// What has to be told is kept as prefixes, not as routes. When there is room in a target's queue, the route of the next
// prefix is looked up as it is then, and told; so a prefix that changes often is told in its last state, the order of
// changes does not matter, and telling one twice does no harm. Prefixes that changed stand in a set of the target; what
// a rule that comes or goes concerns is found by walking the tables, from a place that survives their changes.
//
// A target's batches go down a sliding-window queue to its receive queue, with the same client calls that sources use.
#pragma once

#include <array>
#include <cstdint>
#include <list>
#include <map>
#include <optional>
#include <set>

#include "clients.h"
#include "table.h"

namespace zelrtmd {

class Redistribution {
public:
    Redistribution(std::uint32_t key, Clients &clients, const Tables &tables);
    ~Redistribution();
    Redistribution(const Redistribution &) = delete;
    Redistribution &operator=(const Redistribution &) = delete;

    zelRtmStatus accept(Client &target, int family, std::uint32_t clientType);
    zelRtmStatus reject(Client &target, int family, std::uint32_t clientType);
    // Takes back every rule for a type, for all types when it is 0.
    void dropRules(Client &target, std::uint32_t clientType);
    void restart(const Client &target, std::uint32_t vrf);
    void forget(std::uint32_t handle);

    // A route of this client came or went.
    void note(const Table &table, const std::uint8_t *key, std::uint32_t bits, std::uint32_t owner);
    void takeAcknowledgement(const std::uint8_t *message, int length);
    // Sends what targets have room for; true when there is more to do at once.
    bool serve();
    std::uint64_t told() const { return told_; }

private:
    struct Place {
        int family;
        std::uint32_t vrf;
        std::uint32_t bits;
        std::array<std::uint8_t, 16> prefix;
        auto operator<=>(const Place &) const = default;
    };
    // Through the tables of a family, or the one of a VRF, for prefixes that a client of that type has a route for.
    struct Walk {
        std::uint32_t clientType;
        std::optional<std::uint32_t> onlyVrf;
        Place at;  // the last prefix seen
    };
    struct Target {
        std::uint32_t handle = 0;
        std::uint32_t queue = 0;
        void *pending = nullptr;
        int pendingFamily = 0;
        std::set<Place> changed;
        std::list<Walk> walks;
        double lastProgress = 0;  // on the monotonic clock
        bool isBroken = false;    // a batch could not be queued
    };

    zelRtmStatus open(const Client &client);
    void close(Target &target);
    void walk(const Client &client, int family, std::uint32_t clientType, std::optional<std::uint32_t> onlyVrf);
    void walkAll(const Client &client, std::optional<std::uint32_t> onlyVrf);
    bool fill(Target &target);
    bool tellNext(Target &target);
    const Prefix *advance(Walk &walk) const;
    bool concerns(const Walk &walk, const Prefix &prefix) const;
    void tell(Target &target, const Place &place);
    void push(Target &target, std::uint32_t operation, const zelRtmRoute *route, int family);
    void pushPending(Target &target);
    const Path *select(const Client &target, int family, const Prefix *prefix) const;

    zelIpcAddr address_;
    Clients &clients_;
    const Tables &tables_;
    std::map<std::uint32_t, Target> targets_;  // by handle; those with a queue
    std::uint64_t told_ = 0;
};

}  // namespace zelrtmd
