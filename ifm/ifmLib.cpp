// The interface index, positions in interface bitmaps, and VLAN bitmaps.
//
// Encoders and most decoders are a few shifts; their bodies stand in the public header, where compilers may place them
// in line, and this source gives each its one ordinary definition. The two ways in which a slot and a port are found
// differ on purpose: the slot goes by the type, the port by the layout.
//
// A bitmap of interfaces has first 54 places for each slot up to position 714, which is port 12 of slot 13, then port
// channels from 1 on, then VLANs from 1 on; the extended numbering goes on with tunnels.
#define ZEL_IFM_LINKAGE
#include <initializer_list>

#include "zel/ifm.h"

namespace {

constexpr uint32_t managementCard = 200;
constexpr uint32_t physicalPortField = 0x3ffu << 7;
constexpr uint32_t extenderPortField = 0x7fu << 9;
constexpr uint32_t numberField = 0x3fffu << 9;
constexpr int firstExtenderSlot = 48;
constexpr int slotsPerExtender = 16;

constexpr uint32_t vlanEnd = 4095;  // behind those that can be added and deleted
constexpr uint32_t lastAsked = 4096;

// A row of positions that stand for the numbers 1 and up of one logical type.
struct NumberedRange {
    int first;
    int end;
    uint32_t type;
};

constexpr NumberedRange lagRange = {IFM_IFLIST_PHYSICAL_END, IFM_IFLIST_LAG_END, IFM_TYPE_PORT_CHANNEL};
constexpr NumberedRange vlanRange = {IFM_IFLIST_LAG_END, IFM_IFLIST_POSITIONS, IFM_TYPE_VLAN};
constexpr NumberedRange tunnelRange = {IFM_IFLIST_POSITIONS, IFM_EXT_IFLIST_POSITIONS, IFM_TYPE_TUNNEL};

int infoInRanges(int pos, ifmIfInfo *info, const NumberedRange *ranges, int count) {
    for (const NumberedRange *range = ranges; range < ranges + count; ++range) {
        if (pos < range->first || pos >= range->end) continue;
        *info = {range->type, 0, 0, static_cast<uint32_t>(pos - range->first + 1), 0};
        return IFM_OK;
    }
    return IFM_ERROR;
}

int positionIn(const NumberedRange &range, uint32_t number) {
    const bool isInside = number >= 1 && number <= static_cast<uint32_t>(range.end - range.first);
    return isInside ? range.first + static_cast<int>(number) - 1 : IFM_ERROR;
}

// The slot as the layout holds it, whatever the type: a position comes back to the slot it was made of.
int physicalPosition(uint32_t ifIndex) {
    const int slot = static_cast<int>(ifIndex >> 20 & 0x3f) - 1;
    const uint32_t port = ifmIfIndexToPortId(ifIndex);
    if (slot < 0 || port >= IFM_PORTS_PER_SLOT || ifmIfIndexToPeFlag(ifIndex)) return IFM_ERROR;
    const int pos = ifmSlotPortToIfPos(slot, static_cast<int>(port));
    return pos < IFM_IFLIST_PHYSICAL_END ? pos : IFM_ERROR;
}

uint32_t bitOf(uint32_t vlanId) {
    return 0x80000000u >> (vlanId % 32);
}

}  // namespace

int ifmGetIfIndexToLogicalSlotId(uint32_t ifIndex) {
    const int slot = ifmIfIndexToSlotId(ifIndex);
    if (!ifmIfIndexToPeFlag(ifIndex)) return slot;
    return static_cast<int>(ifmIfIndexToPeId(ifIndex)) * slotsPerExtender + slot + firstExtenderSlot;
}

uint32_t ifmIfIndexToCardType(uint32_t ifIndex) {
    if (ifIndex == 0 || !ifmIfIndexToPlFlag(ifIndex)) return 0;
    if (ifmIfIndexToIfType(ifIndex) == IFM_TYPE_MANAGEMENT) return managementCard;
    const zelCardTable *cards = zelPlatformCardTable();
    return cards->cardType(cards->context, ifmIfIndexToSlotId(ifIndex));
}

uint32_t ifmIfIndexResetPort(uint32_t ifIndex) {
    if (!ifmIfIndexToPlFlag(ifIndex)) return ifIndex;
    return ifIndex & ~(ifmIfIndexToPeFlag(ifIndex) ? extenderPortField : physicalPortField);
}

uint32_t ifmIfIndexResetPortIfNum(uint32_t ifIndex) {
    return ifmIfIndexToPlFlag(ifIndex) ? ifmIfIndexResetPort(ifIndex) : ifIndex & ~numberField;
}

uint32_t ifmGetIfIndexWithNewType(uint32_t ifIndex, uint32_t type) {
    return (ifIndex & ~0x7fu) | (type & 0x7fu);
}

int ifmSlotPortToIfPos(int slot, int port) {
    return slot * IFM_PORTS_PER_SLOT + port;
}

int ifmPhysIfUnit(uint32_t ifIndex) {
    return ifmSlotPortToIfPos(ifmIfIndexToSlotId(ifIndex), static_cast<int>((ifIndex & physicalPortField) >> 7));
}

int ifmIfPosToIfInfo(int pos, ifmIfInfo *info) {
    if (!info || pos < 0) return IFM_ERROR;
    if (pos < IFM_IFLIST_PHYSICAL_END) {
        const auto position = static_cast<uint32_t>(pos);
        *info = {0, position / IFM_PORTS_PER_SLOT, position % IFM_PORTS_PER_SLOT, 0, 1};
        return IFM_OK;
    }
    const NumberedRange ranges[] = {lagRange, vlanRange};
    return infoInRanges(pos, info, ranges, 2);
}

int ifmExtIfPosToIfInfo(int pos, ifmIfInfo *info) {
    if (pos < tunnelRange.first) return ifmIfPosToIfInfo(pos, info);
    return info ? infoInRanges(pos, info, &tunnelRange, 1) : IFM_ERROR;
}

int ifmIfIndexToIfPos(uint32_t ifIndex) {
    if (ifmIfIndexToPlFlag(ifIndex)) return physicalPosition(ifIndex);
    for (const NumberedRange &range : {lagRange, vlanRange})
        if (ifmIfIndexToIfType(ifIndex) == range.type) return positionIn(range, ifmIfIndexToIfNum(ifIndex));
    return IFM_ERROR;
}

int ifmIfIndexToExtIfPos(uint32_t ifIndex) {
    const bool isTunnel = !ifmIfIndexToPlFlag(ifIndex) && ifmIfIndexToIfType(ifIndex) == tunnelRange.type;
    return isTunnel ? positionIn(tunnelRange, ifmIfIndexToIfNum(ifIndex)) : ifmIfIndexToIfPos(ifIndex);
}

void ifmVlanIfListAddVlanId(uint32_t *bitmap, uint32_t vlanId) {
    if (vlanId < vlanEnd) bitmap[vlanId / 32] |= bitOf(vlanId);
}

void ifmVlanIfListDelVlanId(uint32_t *bitmap, uint32_t vlanId) {
    if (vlanId < vlanEnd) bitmap[vlanId / 32] &= ~bitOf(vlanId);
}

uint32_t ifmVlanIfListHasVlanId(const uint32_t *bitmap, uint32_t vlanId) {
    return vlanId <= lastAsked && (bitmap[vlanId / 32] & bitOf(vlanId)) != 0;
}

const char *ifmPrintError(int result) {
    switch (result) {
        case IFM_OK:
            return "no error";
        case IFM_ERROR:
            return "failed";
        case IFM_ERR_TYPE:
            return "an interface of this type cannot be in a list";
        case IFM_ERR_NO_MEMORY:
            return "out of memory";
        case IFM_ERR_NO_MEMBER:
            return "the interface is not in the list";
        case IFM_ERR_FORMAT:
            return "not a compressed list";
        case IFM_ERR_SIZE:
            return "the buffer is too small";
        default:
            return "unknown error";
    }
}
