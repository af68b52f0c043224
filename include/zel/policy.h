/*
 * Routing policy, evaluated in place: access lists, prefix lists, AS-path and community lists, route maps.
 *
 * The lists live in a segment of memory that all processes of a CPU share; their writer fills it (zel/aclmgr.h, or the
 * daemon zelaclmgrd). A check sends no message and copies nothing: it finds the list by name, or takes its handle,
 * walks what is there and returns a verdict. A process attaches the segment with its first check; as long as there is
 * none, no list exists, and it looks again once a second.
 *
 * Verdicts. 0 permits, anything else denies; test for zero only. A list that does not exist or has no entries permits,
 * a list in which nothing matches denies.
 *
 * Who must serialise. The tables are guarded by the shared reader/writer lock 0. The plain checks take no lock,
 * allocate nothing and never block: their caller holds the read lock, which alone keeps handles and lists from going
 * away. The forms that end in Ext take the read lock themselves; they block while a writer has it, and are no business
 * of a thread that has the write lock. Any number of threads and processes check at once.
 *
 * Forms that begin with m_ use the second set of tables; but those that begin with m_ and end in Ext use the first one,
 * because isAclSupportedOnRp2 says so.
 *
 * Addresses passed as numbers are in host order, addresses passed as bytes in network order. `family` is 1 for IPv4 (4
 * bytes) and 2 for IPv6 (16 bytes).
 */
#ifndef ZEL_POLICY_H
#define ZEL_POLICY_H

#include <stddef.h>
#include <stdint.h>

#include "zel/containers.h"

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* Lists in the shared tables. A handle is good as long as the read lock is held or the list exists; it stays the same
 * when entries change. */
typedef struct zelIpAcl zelIpAcl;
typedef struct zelPrefixList zelPrefixList;
typedef struct zelAspList zelAspList;
typedef struct zelCommList zelCommList;
typedef struct zelRouteMap zelRouteMap;
/* A compiled expression, shared by all processes. */
typedef struct zelRegex zelRegex;

enum { ZEL_POLICY_IPV4 = 1, ZEL_POLICY_IPV6 = 2 };
/* Characters of a list's name that count. */
enum { ZEL_POLICY_NAME = 140 };

/* ==== Access lists ================================================================================================
 *
 * The first entry that matches decides, and its action is the verdict. What a match is depends on the check; lists in
 * the field rely on these differences.
 *
 * IPv4: source and, except in standard entries, destination equal the entry's wherever the wildcard has 0 bits.
 * Protocol and ports of entries are ignored.
 *
 * UDP: standard entries, and those of any protocol but 17, are passed over. A wildcard of all ones passes every address
 * but the entry's own, a wildcard of 0 passes every address, others as in the IPv4 check. Port operators 1 to 5 and 255
 * are =, >=, <=, !=, from port to upper bound, and any; operator 0 fails a source port and passes a destination port;
 * others fail both.
 *
 * IPv6: the packet's source equals the entry's source wherever the source mask has 1 bits, and the packet's source (not
 * its destination) equals the entry's destination wherever the destination mask has 1 bits. `destination` is never
 * read and may be null.
 */

/* Source and destination of a packet. */
typedef struct {
    uint32_t src, dst;
} zelIpPair;

/* The list of that name, null when there is none. IPv4 and IPv6 entries of one name are in one list. The m_ forms look
 * into the second set of tables. */
zelIpAcl *ipAccessListFind(const char *name);
zelIpAcl *aclV6AccessListFind(const char *name);
zelIpAcl *m_ipAccessListFind(const char *name);
zelIpAcl *m_aclV6AccessListFind(const char *name);

/* Verdict on an IPv4 packet, by the name of a list, by its handle, and as the others evaluate it. A null name, list or
 * handle permits; `pair` is not null. */
uint32_t ipAccessListCheck(const char *name, uint32_t source, uint32_t destination);
uint32_t ipAccessListCheckWithHandle(const zelIpAcl *list, uint32_t source, uint32_t destination);
uint32_t ipFilterCheck(const zelIpPair *pair, const zelIpAcl *list);
uint32_t m_ipAccessListCheck(const char *name, uint32_t source, uint32_t destination);
uint32_t m_ipAccessListCheckWithHandle(const zelIpAcl *list, uint32_t source, uint32_t destination);

/* Verdict on a UDP datagram. `unused1` and `unused2` are not looked at. */
uint32_t ipUdpAccessListCheck(const char *name, uint32_t source, uint32_t unused1, uint32_t destination,
                              uint32_t unused2, uint16_t sourcePort, uint16_t destinationPort);
uint32_t ipUdpAccessListCheckWithHandle(const zelIpAcl *list, uint32_t source, uint32_t destination,
                                        uint16_t sourcePort, uint16_t destinationPort);
uint32_t ipUdpFilterCheck(uint32_t source, uint32_t destination, uint16_t sourcePort, uint16_t destinationPort,
                          const zelIpAcl *list);
uint32_t m_ipUdpAccessListCheck(const char *name, uint32_t source, uint32_t unused1, uint32_t destination,
                                uint32_t unused2, uint16_t sourcePort, uint16_t destinationPort);
uint32_t m_ipUdpAccessListCheckWithHandle(const zelIpAcl *list, uint32_t source, uint32_t destination,
                                          uint16_t sourcePort, uint16_t destinationPort);

/* Verdict on an IPv6 packet. `source` is not null. aclV6FilterCheckOnlySrc asks for the entry's source alone. */
uint32_t aclV6AccessListCheck(const char *name, const uint8_t source[16], const uint8_t destination[16]);
uint32_t aclV6AccessListCheckWithHandle(const zelIpAcl *list, const uint8_t source[16], const uint8_t destination[16]);
uint32_t aclV6FilterCheck(const uint8_t *source, const uint8_t *destination, const zelIpAcl *list);
uint32_t aclV6FilterCheckOnlySrc(const uint8_t *source, const uint8_t *destination, const zelIpAcl *list);
uint32_t m_aclV6AccessListCheck(const char *name, const uint8_t source[16], const uint8_t destination[16]);
uint32_t m_aclV6AccessListCheckWithHandle(const zelIpAcl *list, const uint8_t source[16],
                                          const uint8_t destination[16]);

/* The same under the read lock; may block. When the lock cannot be had (ZEL_ShmReadLock) they check without it. */
uint32_t ipAccessListCheckExt(const char *name, uint32_t source, uint32_t destination);
uint32_t ipAccessListCheckWithHandleExt(const zelIpAcl *list, uint32_t source, uint32_t destination);
uint32_t ipUdpAccessListCheckExt(const char *name, uint32_t source, uint32_t unused1, uint32_t destination,
                                 uint32_t unused2, uint16_t sourcePort, uint16_t destinationPort);
uint32_t m_ipAccessListCheckExt(const char *name, uint32_t source, uint32_t destination);
uint32_t m_ipAccessListCheckWithHandleExt(const zelIpAcl *list, uint32_t source, uint32_t destination);
uint32_t m_ipUdpAccessListCheckExt(const char *name, uint32_t source, uint32_t unused1, uint32_t destination,
                                   uint32_t unused2, uint16_t sourcePort, uint16_t destinationPort);

/* Whether forms with m_ and Ext use the second set of tables: 0, they do not. */
int isAclSupportedOnRp2(void);

/* ==== The lock of the tables ======================================================================================
 *
 * All of them take or release shared lock 0, with the results and errors of ZEL_ShmReadLock and its companions
 * (zel/platform.h); the lock calls may block.
 */

int aclReadLock(void);
int acl2ReadLock(void);
int aclReadLockExt(void);
int acl2ReadLockExt(void);
int aclReadUnlock(void);
int acl2ReadUnlock(void);
int aclReadUnlockExt(void);
int acl2ReadUnlockExt(void);
int aclWriteLock(void);
int acl2WriteLock(void);
int acl2WriteLockExt(void);
int aclWriteUnlock(void);
int acl2WriteUnlock(void);
int acl2WriteUnlockExt(void);

/* ==== For the manager of the tables =============================================================================== */

/* The trees of names of MAC access lists, DHCP-snooping lists and DHCP-helper lists, empty in this system; null while
 * there are no tables. */
zelRadix *aclMgrIpMacAclGetTreeHndle(void);
zelRadix *aclMgrDhcpSnoopGetTreeHndle(void);
zelRadix *aclMgrDhcpHelperGetTreeHndle(void);

/* The text of a code (0x39000001 to 0x390000C6), for an operator: "% Error:", the message and a line end, at most 255
 * characters. Behind the code stand the arguments that its message asks for: a string (%s) or an int (%d) each. Empty
 * for other codes. The text is good until the next call from any thread. */
const char *aclRetCodeToStr(uint32_t code, ...);

/* ==== Prefix lists ================================================================================================
 *
 * A list belongs to one family; an IPv4 and an IPv6 list may have the same name. The entry with the lowest sequence
 * number among those that accept decides, and its hit count goes up. An entry accepts a prefix that its own covers and
 * whose length is right: without bounds, the same length; otherwise at least `ge` bits, or without `ge` as many as the
 * entry has, and at most `le` bits, or without `le` as many as there are.
 *
 * Entries whose mask is no prefix are outside that order: only the first of them whose masked address matches counts,
 * whatever the length asked for.
 *
 * A mask that is no prefix asks for a length that no entry has; so does a length beyond the family's. Another `family`
 * than 1 and 2, or a list of the other one: the list is unknown by name, and denies as a handle unless it is empty. */

/* A list as route maps and routing protocols name it: by handle or, when that is null, by name. */
typedef struct {
    zelPrefixList *node;
    const char *name;
} zelPrefixListName;

/* The list of that name, or null. `tree` holds the names of the family; null takes that of the first set of tables. */
zelPrefixList *ipPrefixListFind(const char *name, zelRadix *tree, int family);

/* IPv4, address and mask as numbers. */
uint32_t prefixListCheck(const char *name, uint32_t address, uint32_t mask);
uint32_t prefixListCheckWithHandle(zelPrefixList *list, uint32_t address, uint32_t mask);
uint32_t prefixFilterCheck(uint32_t address, uint32_t mask, zelPrefixList *list);
/* Either family, address and mask as bytes. */
uint32_t prefixListCheckv4_v6(const char *name, const uint8_t *address, const uint8_t *mask, int family);
uint32_t prefixListCheckWithHandlev4_v6(zelPrefixList *list, const uint8_t *address, const uint8_t *mask, int family);
uint32_t prefixFilterCheckv4_v6(const uint8_t *address, const uint8_t *mask, zelPrefixList *list, int family);
/* The address has its number of bytes, 4 or 16, in front, which also says the family; 1 for any other number. The list
 * is that of `node` or, when it is null, of `name`. */
uint32_t prefixListCheck2(zelPrefixList *node, const char *name, const uint8_t *address, uint8_t length);
/* The check that all others come to. When `node` is null the list is found by `name` and `tree`, as above. */
uint32_t prefixListCheckNew(zelPrefixList *node, const char *name, const uint8_t *address, uint8_t length, int family,
                            zelRadix *tree);
uint32_t prefixListCheckNew1(const zelPrefixListName *list, const uint8_t *address, uint8_t length, int family);
uint32_t bgp_match_addr(const zelPrefixListName *list, const uint8_t *address, uint8_t length, int family);

uint32_t prefixListCheckExt(const char *name, uint32_t address, uint32_t mask);
uint32_t prefixListCheckWithHandleExt(zelPrefixList *list, uint32_t address, uint32_t mask);
uint32_t prefixListCheckv4_v6Ext(const char *name, const uint8_t *address, const uint8_t *mask, int family);
uint32_t prefixListCheckWithHandlev4_v6Ext(zelPrefixList *list, const uint8_t *address, const uint8_t *mask,
                                           int family);
uint32_t prefixListCheckNew_Ext(zelPrefixList *node, const char *name, const uint8_t *address, uint8_t length,
                                int family, zelRadix *tree);

uint32_t m_prefixListCheck(const char *name, uint32_t address, uint32_t mask);
uint32_t m_prefixListCheckWithHandle(zelPrefixList *list, uint32_t address, uint32_t mask);
uint32_t m_prefixListCheckv4_v6(const char *name, const uint8_t *address, const uint8_t *mask, int family);
uint32_t m_prefixListCheckWithHandlev4_v6(zelPrefixList *list, const uint8_t *address, const uint8_t *mask, int family);
uint32_t m_prefixListCheckExt(const char *name, uint32_t address, uint32_t mask);
uint32_t m_prefixListCheckWithHandleExt(zelPrefixList *list, uint32_t address, uint32_t mask);
uint32_t m_prefixListCheckv4_v6Ext(const char *name, const uint8_t *address, const uint8_t *mask, int family);
uint32_t m_prefixListCheckWithHandlev4_v6Ext(zelPrefixList *list, const uint8_t *address, const uint8_t *mask,
                                             int family);

/* The length of a mask, 255 when it is no prefix; null is a mask of none. */
uint8_t acl_host_order_mask2plen(uint32_t mask);
uint8_t acl_mask2plen(const uint8_t mask[16]);
/* 1 when a condition accepts a prefix of `length` bits, else 0: one with `prefixLength` bits, 255 for a mask that is no
 * prefix, and bounds `ge` and `le`, 0 where not given. `isDefault`: its address and mask are all zero, and `le` alone
 * at all the family's bits then accepts any length. `width` is that of an address in bytes. */
int prefixListCmpEntInfo(int isDefault, uint8_t length, uint8_t prefixLength, uint8_t ge, uint8_t le, uint32_t width);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
