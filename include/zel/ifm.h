/*
 * Interfaces: the 32-bit interface index, its names, the dense positions of interface bitmaps, VLAN bitmaps, and lists
 * of interfaces.
 *
 * Everything but the lists is a pure function of its arguments and of the card table of zel/platform.h; any task may
 * call it at any time, and nothing here blocks. A list is not locked: its owner serialises.
 */
#ifndef ZEL_IFM_H
#define ZEL_IFM_H

#include <stddef.h>
#include <stdint.h>

#include "zel/containers.h"
#include "zel/platform.h"
#include "zel/types.h"

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* ==== Interface index =============================================================================================
 *
 * Bit 30 chooses the layout; bit 31 is zero. A field that does not fit is cut to its width, and decoders do not
 * validate: each reads its bits whatever the layout, unless its line says otherwise.
 *
 *   logical        1 in bit 30; type in bits 29-23, number in bits 22-9
 *   physical       slot + 1 in bits 25-20, port in bits 16-7, type in bits 6-0
 *   port extender  1 in bit 29; extender in bits 28-20, slot in bits 19-16, port in bits 15-9, type in bits 6-0
 *
 * The index 0 names no interface.
 */

/* Interface types. Those with bit 0x10 are logical. */
enum {
    IFM_TYPE_MANAGEMENT = 1,
    IFM_TYPE_FAST_ETHERNET = 2,
    IFM_TYPE_GIGABIT_ETHERNET = 3,
    IFM_TYPE_TEN_GIGABIT_ETHERNET = 4,
    IFM_TYPE_FORTY_GIGABIT_ETHERNET = 5,
    IFM_TYPE_FIBRE_CHANNEL = 6,
    IFM_TYPE_PE_GIGABIT_ETHERNET = 7,
    IFM_TYPE_PE_TEN_GIGABIT_ETHERNET = 8,
    IFM_TYPE_PE_FORTY_GIGABIT_ETHERNET = 9,
    IFM_TYPE_TEN_GIGABIT_ETHERNET_2 = 10,
    IFM_TYPE_TWENTY_GIGABIT_ETHERNET = 11,
    IFM_TYPE_TWENTY_FIVE_GIGABIT_ETHERNET = 12,
    IFM_TYPE_FIFTY_GIGABIT_ETHERNET = 13,
    IFM_TYPE_HUNDRED_GIGABIT_ETHERNET = 14,
    IFM_TYPE_TUNNEL = 18,
    IFM_TYPE_NULL = 19,
    IFM_TYPE_LOOPBACK = 20,
    IFM_TYPE_PORT_CHANNEL = 22,
    IFM_TYPE_VLAN = 24,
    IFM_TYPE_VIRTUAL_PORT = 25
};

/* Bodies stand in the header, so that a compiler can place them in line; the library holds one ordinary definition of
 * each. */
#ifndef ZEL_IFM_LINKAGE
#define ZEL_IFM_LINKAGE extern inline __attribute__((__gnu_inline__))
#endif

/* Encoders. A physical slot of 63 wraps to 0 and cannot be told from no slot. The unnamed arguments are ignored. */
uint32_t ifmCreateLogicalIfIndex(uint32_t type, uint16_t slot, uint16_t port, uint16_t number);
uint32_t ifmCreatePhysicalIfIndex(uint32_t type, uint16_t slot, uint16_t port, uint16_t unused);
uint32_t ifmCreatePeIfIndex(uint32_t type, uint16_t slot, uint16_t port, uint16_t extender);
/* Logical when the type has bit 0x10, a port extender's for types 7 and 8 (`number` is the extender), else physical;
 * also for type 9. */
uint32_t ifmCreateIfIndex(uint32_t type, uint16_t slot, uint16_t port, uint16_t number);

/* Decoders. */
uint32_t ifmIfIndexToIfType(uint32_t ifIndex); /* from the field of the index's layout */
uint32_t ifmIfIndexToPlFlag(uint32_t ifIndex); /* 1 physical (port extenders included), 0 logical */
uint32_t ifmIfIndexToPeFlag(uint32_t ifIndex); /* 1 port extender; 0 for every logical index */
uint32_t ifmIfIndexToPeId(uint32_t ifIndex);
/* By type, not by layout: bits 19-16 for types 7, 8 and 9 - so the slot of a physical index of type 9 is lost - else
 * bits 25-20 minus 1, which is -1 for no slot. */
int ifmIfIndexToSlotId(uint32_t ifIndex);
uint32_t ifmIfIndexToPortId(uint32_t ifIndex); /* by layout */
uint32_t ifmIfIndexToChasId(uint32_t ifIndex); /* bits 28-26 */
uint32_t ifmIfIndexToModId(uint32_t ifIndex);  /* bits 19-17 */
/* The number of a logical index, under three names. */
uint32_t ifmIfIndexToIfNum(uint32_t ifIndex);
uint32_t ifmIfIndexToVlanId(uint32_t ifIndex);
uint32_t ifmIfIndexToVrfId(uint32_t ifIndex);
/* Slot as the system counts it: those of port extenders follow the chassis' own, 16 for each extender, from 48 on. */
int ifmGetIfIndexToLogicalSlotId(uint32_t ifIndex);
/* Card type in the interface's slot: 0 for index 0 and logical ones, 200 for type 1, else the card table's answer. */
uint32_t ifmIfIndexToCardType(uint32_t ifIndex);

/* The index with its port cleared; a logical one has none and comes back as it is. */
uint32_t ifmIfIndexResetPort(uint32_t ifIndex);
/* The index with its port, or a logical one with its number, cleared. */
uint32_t ifmIfIndexResetPortIfNum(uint32_t ifIndex);
/* The index with bits 6-0 replaced: for physical and port-extender indexes. */
uint32_t ifmGetIfIndexWithNewType(uint32_t ifIndex, uint32_t type);

#define ZEL_IFM_LOGICAL 0x40000000u
#define ZEL_IFM_EXTENDER 0x20000000u

ZEL_IFM_LINKAGE uint32_t ifmCreateLogicalIfIndex(uint32_t type, uint16_t slot, uint16_t port, uint16_t number) {
    (void)slot;
    (void)port;
    return ZEL_IFM_LOGICAL | (type & 0x7fu) << 23 | (number & 0x3fffu) << 9;
}
ZEL_IFM_LINKAGE uint32_t ifmCreatePhysicalIfIndex(uint32_t type, uint16_t slot, uint16_t port, uint16_t unused) {
    (void)unused;
    return ((slot + 1u) & 0x3fu) << 20 | (port & 0x3ffu) << 7 | (type & 0x7fu);
}
ZEL_IFM_LINKAGE uint32_t ifmCreatePeIfIndex(uint32_t type, uint16_t slot, uint16_t port, uint16_t extender) {
    return ZEL_IFM_EXTENDER | (extender & 0x1ffu) << 20 | (slot & 0xfu) << 16 | (port & 0x7fu) << 9 | (type & 0x7fu);
}
ZEL_IFM_LINKAGE uint32_t ifmCreateIfIndex(uint32_t type, uint16_t slot, uint16_t port, uint16_t number) {
    if (type & 0x10u) return ifmCreateLogicalIfIndex(type, slot, port, number);
    if (type == IFM_TYPE_PE_GIGABIT_ETHERNET || type == IFM_TYPE_PE_TEN_GIGABIT_ETHERNET)
        return ifmCreatePeIfIndex(type, slot, port, number);
    return ifmCreatePhysicalIfIndex(type, slot, port, number);
}

ZEL_IFM_LINKAGE uint32_t ifmIfIndexToIfType(uint32_t ifIndex) {
    return (ifIndex & ZEL_IFM_LOGICAL ? ifIndex >> 23 : ifIndex) & 0x7fu;
}
ZEL_IFM_LINKAGE uint32_t ifmIfIndexToPlFlag(uint32_t ifIndex) {
    return !(ifIndex & ZEL_IFM_LOGICAL);
}
ZEL_IFM_LINKAGE uint32_t ifmIfIndexToPeFlag(uint32_t ifIndex) {
    return (ifIndex & (ZEL_IFM_LOGICAL | ZEL_IFM_EXTENDER)) == ZEL_IFM_EXTENDER;
}
ZEL_IFM_LINKAGE uint32_t ifmIfIndexToPeId(uint32_t ifIndex) {
    return ifIndex >> 20 & 0x1ffu;
}
ZEL_IFM_LINKAGE int ifmIfIndexToSlotId(uint32_t ifIndex) {
    const uint32_t type = ifmIfIndexToIfType(ifIndex);
    if (type >= IFM_TYPE_PE_GIGABIT_ETHERNET && type <= IFM_TYPE_PE_FORTY_GIGABIT_ETHERNET)
        return (int)(ifIndex >> 16 & 0xfu);
    return (int)(ifIndex >> 20 & 0x3fu) - 1;
}
ZEL_IFM_LINKAGE uint32_t ifmIfIndexToPortId(uint32_t ifIndex) {
    return ifmIfIndexToPeFlag(ifIndex) ? ifIndex >> 9 & 0x7fu : ifIndex >> 7 & 0x3ffu;
}
ZEL_IFM_LINKAGE uint32_t ifmIfIndexToChasId(uint32_t ifIndex) {
    return ifIndex >> 26 & 7u;
}
ZEL_IFM_LINKAGE uint32_t ifmIfIndexToModId(uint32_t ifIndex) {
    return ifIndex >> 17 & 7u;
}
ZEL_IFM_LINKAGE uint32_t ifmIfIndexToIfNum(uint32_t ifIndex) {
    return ifIndex >> 9 & 0x3fffu;
}
ZEL_IFM_LINKAGE uint32_t ifmIfIndexToVlanId(uint32_t ifIndex) {
    return ifmIfIndexToIfNum(ifIndex);
}
ZEL_IFM_LINKAGE uint32_t ifmIfIndexToVrfId(uint32_t ifIndex) {
    return ifmIfIndexToIfNum(ifIndex);
}

/* ==== Names =======================================================================================================
 *
 * The type's name, a blank, and "number" for a logical index, "slot/port" for a physical one, "extender/slot/port" for
 * a port extender's. Ports are printed as the card table writes them, from 1 on by default; the slot of type 1 as
 * slot - 13. A type without a name is "Unknown", index 0 "Invalid".
 */

/* Enough for every name. */
#define IFM_NAME_SIZE 64

/* Write the short ("Te 0/3") or the long name ("TenGigabitEthernet 0/3") into a buffer of at least IFM_NAME_SIZE bytes
 * and return it; null, after an assertion, without a buffer. */
char *ifmIfIndexToName(uint32_t ifIndex, char *ifNameBuf);
char *ifmIfIndexToLName(uint32_t ifIndex, char *ifLNameBuf);
/* The index that ifmIfIndexToLName prints that way; 0 when none does. Letters match in either case, and the blank may
 * be missing or repeated. Of two types with one name (4 and 10) the lower one is meant. Names of three numbers belong
 * to types 7, 8 and 9; in the physical layout these are printed with another slot than their own, which does not come
 * back. */
uint32_t zelIfmLNameToIfIndex(const char *name);

/* ==== Positions in interface bitmaps ============================================================================== */

enum {
    IFM_PORTS_PER_SLOT = 54,
    IFM_IFLIST_PHYSICAL_END = 715,   /* 0 to 714: physical ports, slot x 54 + port */
    IFM_IFLIST_LAG_END = 844,        /* 715 to 843: port channels 1 to 129 */
    IFM_IFLIST_POSITIONS = 4940,     /* 844 to 4939: VLANs 1 to 4096 */
    IFM_EXT_IFLIST_POSITIONS = 21324 /* 4940 to 21323: tunnels 1 to 16384 */
};

typedef struct {
    uint32_t type; /* 0 for a physical port: positions do not tell its type */
    uint32_t slot;
    uint32_t port;
    uint32_t num;
    uint32_t physical; /* 1 physical: slot and port hold; 0 logical: type and num hold */
} ifmIfInfo;

int ifmSlotPortToIfPos(int slot, int port);
/* Slot x 54 + the port field of the physical layout. */
int ifmPhysIfUnit(uint32_t ifIndex);
/* What stands at a position; 0, or -1 for a position that does not exist, with `info` untouched. The extended form
 * knows the tunnels as well. */
int ifmIfPosToIfInfo(int pos, ifmIfInfo *info);
int ifmExtIfPosToIfInfo(int pos, ifmIfInfo *info);
/* The other way: the position of an index, -1 when it has none (port extenders, ports and numbers out of range). The
 * slot is the one in the layout, also for type 9. */
int ifmIfIndexToIfPos(uint32_t ifIndex);
int ifmIfIndexToExtIfPos(uint32_t ifIndex);

static inline int IFM_IFLIST_POS_TO_IFINFO(int pos, ifmIfInfo *info) {
    return ifmIfPosToIfInfo(pos, info);
}
static inline int IFM_EXT_IFLIST_POS_TO_IFINFO(int pos, ifmIfInfo *info) {
    return ifmExtIfPosToIfInfo(pos, info);
}
#define IFM_IFLIST_POS_TO_IFINFO IFM_IFLIST_POS_TO_IFINFO
#define IFM_EXT_IFLIST_POS_TO_IFINFO IFM_EXT_IFLIST_POS_TO_IFINFO

/* ==== VLAN bitmaps ================================================================================================
 *
 * VLAN v is bit 0x80000000 >> (v % 32) of word v / 32. The bounds of the three calls differ on purpose: 4095 and 4096
 * are never added or deleted, and 4096 can be asked for, so a bitmap has IFM_VLAN_BITMAP_WORDS words.
 */

#define IFM_VLAN_BITMAP_WORDS 129

void ifmVlanIfListAddVlanId(uint32_t *bitmap, uint32_t vlanId);
void ifmVlanIfListDelVlanId(uint32_t *bitmap, uint32_t vlanId);
/* 1 or 0; 0 for a VLAN above 4096. */
uint32_t ifmVlanIfListHasVlanId(const uint32_t *bitmap, uint32_t vlanId);

/* 1 when the words 0 to bits / 32 are all zero: one word more than `bits` fill when they end with a word. */
static inline uint32_t IFM_IS_BMP_EMPTY(const uint32_t *bitmap, uint32_t bits) {
    uint32_t word;
    for (word = 0; word <= bits / 32; ++word)
        if (bitmap[word]) return 0;
    return 1;
}
#define IFM_IS_BMP_EMPTY IFM_IS_BMP_EMPTY

/* ==== Interface lists =============================================================================================
 *
 * A set of interfaces: physical ports (port extenders' as well), port channels and VLANs. The caller owns the structure
 * and reads it freely; it changes through the calls only. Iteration is in ascending order of the index, which puts
 * physical ports first, then port channels, then VLANs.
 */

/* Results of the list calls; ifmPrintError gives their texts. */
enum {
    IFM_OK = 0,
    IFM_ERROR = -1,
    IFM_ERR_TYPE = -2,      /* neither a physical port, a port channel nor a VLAN from 0 to 4094 */
    IFM_ERR_NO_MEMORY = -3, /* nothing changed */
    IFM_ERR_NO_MEMBER = -4,
    IFM_ERR_FORMAT = -5, /* not a compressed list */
    IFM_ERR_SIZE = -6    /* the room given does not suffice */
};

typedef struct {
    zelRBTree *physical; /* records that are one uint32_t, the index */
    zelRBTree *lag;
    uint32_t vlans[IFM_VLAN_BITMAP_WORDS];
} ifmIfList;

/* Makes `list` an empty list; IFM_ERR_NO_MEMORY with `list` unusable. IFM_IFLIST_DESTROY ends it. */
int ifmIfListInit(ifmIfList *list);
void ifmIfListDestroy(ifmIfList *list);
/* Adds an interface; a member stays one. */
int ifmIfListAdd(ifmIfList *list, uint32_t ifIndex);
/* Takes one out; IFM_ERR_NO_MEMBER. */
int ifmIfListDel(ifmIfList *list, uint32_t ifIndex);
/* 1 or 0. */
uint32_t ifmIfListHas(const ifmIfList *list, uint32_t ifIndex);
uint32_t ifmIfListCount(const ifmIfList *list);
/* The least member above `ifIndex`, which need not be one; 0 starts; 0 at the end. */
uint32_t ifmIfListNext(const ifmIfList *list, uint32_t ifIndex);
void ifmIfListClear(ifmIfList *list);
/* Gives `to` the members of `from`; on IFM_ERR_NO_MEMORY it keeps those it had. */
int ifmIfListCopy(ifmIfList *to, const ifmIfList *from);
/* 1 when both have the same members. */
uint32_t ifmIfListEqual(const ifmIfList *one, const ifmIfList *other);

static inline int IFM_IFLIST_INIT(ifmIfList *list) {
    return ifmIfListInit(list);
}
static inline void IFM_IFLIST_DESTROY(ifmIfList *list) {
    ifmIfListDestroy(list);
}
static inline int IFM_IFLIST_ADD(ifmIfList *list, uint32_t ifIndex) {
    return ifmIfListAdd(list, ifIndex);
}
static inline int IFM_IFLIST_DEL(ifmIfList *list, uint32_t ifIndex) {
    return ifmIfListDel(list, ifIndex);
}
static inline uint32_t IFM_IFLIST_HAS(const ifmIfList *list, uint32_t ifIndex) {
    return ifmIfListHas(list, ifIndex);
}
static inline uint32_t IFM_IFLIST_COUNT(const ifmIfList *list) {
    return ifmIfListCount(list);
}
static inline uint32_t IFM_IFLIST_NEXT(const ifmIfList *list, uint32_t ifIndex) {
    return ifmIfListNext(list, ifIndex);
}
static inline void IFM_IFLIST_CLEAR(ifmIfList *list) {
    ifmIfListClear(list);
}
static inline int IFM_IFLIST_COPY(ifmIfList *to, const ifmIfList *from) {
    return ifmIfListCopy(to, from);
}
static inline uint32_t IFM_IFLIST_EQUAL(const ifmIfList *one, const ifmIfList *other) {
    return ifmIfListEqual(one, other);
}
#define IFM_IFLIST_INIT IFM_IFLIST_INIT
#define IFM_IFLIST_DESTROY IFM_IFLIST_DESTROY
#define IFM_IFLIST_ADD IFM_IFLIST_ADD
#define IFM_IFLIST_DEL IFM_IFLIST_DEL
#define IFM_IFLIST_HAS IFM_IFLIST_HAS
#define IFM_IFLIST_COUNT IFM_IFLIST_COUNT
#define IFM_IFLIST_NEXT IFM_IFLIST_NEXT
#define IFM_IFLIST_CLEAR IFM_IFLIST_CLEAR
#define IFM_IFLIST_COPY IFM_IFLIST_COPY
#define IFM_IFLIST_EQUAL IFM_IFLIST_EQUAL

/* ---- Position maps and their compressed form --------------------------------------------------------------------- */

/* A list as a bitmap of positions: position p is bit 0x80000000 >> (p % 32) of word p / 32. */
#define IFM_IFLIST_MAP_WORDS 155

/* Fills a map of IFM_IFLIST_MAP_WORDS words from a list; returns the number of members that have no position and are
 * left out. */
int ifmIfListToMap(const ifmIfList *list, uint32_t *map);
/* Adds what a map holds to a list. The types of physical ports come from the card table. VLANs above 4094 are no
 * members, as ever. IFM_ERR_NO_MEMORY with some of them added. */
int ifmIfListFromMap(ifmIfList *list, const uint32_t *map);

/* Room that a compressed bitmap of `bits` bits needs at most, bytes. */
#define IFM_COMPRESSED_SIZE(bits) (((bits) + 31) / 32 * 4 + ((bits) + 31) / 32 / 16 + 1)

/* Compresses a bitmap of `bits` bits, (bits + 31) / 32 words, into `size` bytes at `out`; the bytes written, or
 * IFM_ERR_SIZE. The form is the same on every host: runs of up to 64 bytes, most significant byte of a word first. A
 * byte 0x00 + n stands for n + 1 zero bytes, 0x40 + n for n + 1 bytes 0xff, 0x80 + n is followed by n + 1 bytes as they
 * are; n is below 64. */
int ifmBitmapCompress(const uint32_t *bitmap, uint32_t bits, uint8_t *out, size_t size);
/* The other way; 0, or IFM_ERR_FORMAT with `bitmap` in any state when the bytes do not make exactly `bits` bits,
 * rounded up to words. Never writes beyond them. */
int ifmBitmapUncompress(const uint8_t *in, size_t length, uint32_t *bitmap, uint32_t bits);

/* ---- Maps in messages -------------------------------------------------------------------------------------------- */

/* A map as it travels: position p is bit 0x80 >> (p % 8) of byte p / 8, which is also a map's words, big-endian.
 * Compressed: u16 mark 0x4c43, u16 n, then n times u16 index of a word and the u32 word, for each word that is not 0,
 * all big-endian; zero bytes; and the mark again at the end, where no position is. */
#define IFM_IFLIST_BYTES 620

/* Compresses such a map in place; one with more than 102 words that are not 0 stays as it is, and so does one that is
 * compressed. Bits that are no positions go. The bytes that count, IFM_IFLIST_BYTES for a map that stays;
 * IFM_ERR_FORMAT for a compressed list that counts too much. */
int ifmCompressIFList(void *list);
/* The same for a list of physical ports and port channels alone: positions of VLANs go as well. */
int ifmCompressPhyLagIFList(void *list);
/* Makes it a plain map again; IFM_OK, also for one that is, or IFM_ERR_FORMAT with the list untouched: words out of
 * order or range, a count that does not fit, bits that are no positions. */
int ifmUncompressIFList(void *list);
/* Between maps and what travels, which may be compressed; IFM_OK, or IFM_ERR_FORMAT with `map` in any state. */
void ifmMapToBytes(const uint32_t *map, void *list);
int ifmMapFromBytes(const void *list, uint32_t *map);

/* The text of a result of this family. The caller does not free it. */
const char *ifmPrintError(int result);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
