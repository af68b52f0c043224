// Layouts of the synchronisation messages, and how they leave.
#pragma once

#include "resmgr/resources.h"

namespace zel::resmgr {

struct SyncHeader {
    using Magic = wire::Field<std::uint32_t, 0>;
    using Version = wire::Field<std::uint16_t, 4>;
    using Subcommand = wire::Field<std::uint16_t, 6>;
    using Database = wire::Field<std::uint8_t, 8>;
    using Client = wire::Field<std::uint8_t, 9>;
    using Length = wire::Field<std::uint16_t, 10>;
    using Sequence = wire::Field<std::uint32_t, 12>;
    static constexpr std::size_t size = 16;
};

// Of entries, and as far as the units of marks.
struct SyncBody {
    using Index = wire::Field<std::uint32_t, 16>;
    using Status = wire::Field<std::uint8_t, 20>;
    using Flags = wire::Field<std::uint8_t, 21>;
    using Units = wire::Field<std::uint16_t, 22>;
    static constexpr std::size_t digest = 24;
    using KeyLength = wire::Field<std::uint16_t, 40>;
    static constexpr std::size_t key = 42;
    // Behind the key.
    using Word1 = wire::Field<std::uint32_t, 0>;
    using Word2 = wire::Field<std::uint32_t, 4>;
    using Request = wire::Field<std::uint32_t, 8>;
    static constexpr std::size_t words = 12;
    static constexpr std::size_t sizeWithout = key + words;  // of the key
};
static_assert(SyncBody::sizeWithout + ZEL_RES_MAX_KEY == ZEL_RES_MAX_SYNC);

struct SyncMark {
    using LastFreed = wire::Field<std::uint32_t, 24>;
    static constexpr std::size_t size = 28;
};

struct SyncConfig {
    using Start = wire::Field<std::uint32_t, 16>;
    using End = wire::Field<std::uint32_t, 20>;
    using Size = wire::Field<std::uint32_t, 24>;
    using Flags = wire::Field<std::uint32_t, 28>;
    using KeyLength = wire::Field<std::uint16_t, 32>;
    using PeerFlags = wire::Field<std::uint8_t, 34>;
    using IsInitial = wire::Field<std::uint8_t, 35>;
    static constexpr std::size_t name = 36;
    static constexpr std::size_t size = name + ZEL_RES_NAME_SIZE;
};

inline bool hasLink(int link) {
    return gResMgrTcb.send[link] != nullptr;
}

// An entry as messages describe it.
zelResSync describe(zelResDb &db, const zelResEntry *entry);
// Sends what is described; 0, or -1 when it was not sent.
int sendEntry(int link, std::uint16_t subcommand, const zelResSync &subject);
// Asks the KXL primary for the entry's index, or tells it which one it has; tells it that the entry is let go of.
int sendAddRequest(zelResDb *db, const zelResEntry *entry);
int sendDeleteRequest(zelResDb *db, const zelResEntry *entry);
// Tells whoever has to know of an entry that is new or has changed. `subject` describes one that is gone.
void announce(zelResDb *db, zelResEntry *entry);
void announceGone(const zelResSync &subject);

// ---- What comes in --------------------------------------------------------------------------------------------------

// Count a message that is not taken; ZEL_RES_ERROR.
int refuse();
int refuseUntimely();
inline std::int32_t asIndex(std::uint32_t word) {
    return static_cast<std::int32_t>(word);
}
// Null when there is none; or, if it is to be made, no memory.
zelResEntry *find(const zelResSync &message);
zelResEntry *findOrFile(const zelResSync &message);
// Gives an entry the index that the primary says it has; whoever else has it loses it. Not for an index that the owner
// took by hand.
void moveTo(zelResDb *db, zelResEntry *entry, std::int32_t index);
bool isTakenByHand(const zelResDb *db, std::int32_t index);
// Takes an index away that the KXL primary gave to another entry.
void withdraw(zelResDb *db, zelResEntry *entry);

// At the standby.
int takeConfig(const std::uint8_t *message, std::uint32_t length);
int takeObject(const zelResSync &message);
// On the KXL link: what the other side has not confirmed between the marks of a copy.
void dropUnconfirmed(zelResDb *db);

}  // namespace zel::resmgr
