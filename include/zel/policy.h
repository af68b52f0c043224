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
 * handle permits; no entry matches a null `pair`. */
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

/* Verdict on an IPv6 packet. No entry matches a null `source`. aclV6FilterCheckOnlySrc asks for the entry's source
 * alone. */
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

/* ==== Which entry decides ==========================================================================================
 *
 * The sequence number of the entry that decides what the check of the same list would answer, 0 when none does; for
 * whoever has to explain a verdict. No hit is counted, and long lists are walked: these are slower than the checks. The
 * caller holds the read lock. */

uint32_t ipAccessListEntry(const zelIpAcl *list, uint32_t source, uint32_t destination);
uint32_t ipUdpAccessListEntry(const zelIpAcl *list, uint32_t source, uint32_t destination, uint16_t sourcePort,
                              uint16_t destinationPort);
uint32_t aclV6AccessListEntry(const zelIpAcl *list, const uint8_t *source);
uint32_t prefixListEntry(const zelPrefixList *list, const uint8_t *address, uint8_t length, int family);
/* By the text of the path, or by its attribute. */
uint32_t bgpAspListTextEntry(const zelAspList *list, const char *pathText);
uint32_t bgpAspListEntry(const zelAspList *list, const void *pathAttribute, int length);
uint32_t bgpCommListEntry(const zelCommList *list, const uint32_t *communities, int count);

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
 * No entry matches a null address or a null mask.
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

/* The length of a mask, 255 when it is no prefix, or null. */
uint8_t acl_host_order_mask2plen(uint32_t mask);
uint8_t acl_mask2plen(const uint8_t mask[16]);
/* 1 when a condition accepts a prefix of `length` bits, else 0: one with `prefixLength` bits, 255 for a mask that is no
 * prefix, and bounds `ge` and `le`, 0 where not given. `isDefault`: its address and mask are all zero, and `le` alone
 * at all the family's bits then accepts any length. `width` is that of an address in bytes. */
int prefixListCmpEntInfo(int isDefault, uint8_t length, uint8_t prefixLength, uint8_t ge, uint8_t le, uint32_t width);

/* ==== AS-path and community lists ================================================================================= */

/* Names of lists as in the other families: the caller holds the read lock. Null: no such list. */
zelAspList *bgpAspListFind(const char *name);
zelCommList *bgpCommListFind(const char *name);

/* The verdict of an AS-path list: 0 permit, 1 deny. The first entry whose expression matches decides. No list, no path
 * and a path of no bytes are permitted. The first form is given the attribute, whose text is made when it is needed and
 * whose results may come from the cache; the second one the text (which may be empty) and does without the attribute.
 */
int bgpAccessASPMatch(const zelAspList *list, const void *pathAttribute, int length);
int bgp_as_path_match(const zelAspList *list, const char *pathText, const void *pathAttribute);

/* The verdict of a community list over a route's communities, in host order, AS number in the upper half. An expanded
 * entry matches when its expression matches their text (see aclAttributeText), a standard one when the route has all of
 * its values; the action of the first that matches is the verdict, 1 when none does. By name an unknown list is the
 * code 0x39000001. */
int bgpAccessCommMatch(const zelCommList *list, const uint32_t *communities, int count);
uint32_t bgp_commlist_match(const char *name, const uint32_t *communities, int count);
/* The same, but a standard entry matches only a route that has no other communities than its values, in any order and
 * number. */
int bgpAccessCommMatchExact(const zelCommList *list, const uint32_t *communities, int count);
uint32_t bgp_comm_match_exact(const char *name, const uint32_t *communities, int count);

/* ==== Expressions =================================================================================================
 *
 * POSIX extended expressions in which every underscore stands for "(^|[,{}() ]|$)". One record for each pattern, shared
 * by all lists and processes, with a count of references; each process compiles it for itself when it first matches.
 *
 * So the first match of an expression in a process allocates, and threads that compile at the same time take turns.
 * Later matches allocate only for texts of 2 KiB and more, for the few patterns that the C library has to match, and,
 * with the cache, for attributes that are new to it and longer than some 70 bytes. No match is a place where a task is
 * deleted, unless a text hook or the debug prints make it one.
 */

/* The expression of a pattern with one reference more. Null: the pattern does not compile, or would take too much to
 * compile (more than 1,024 characters, intervals within intervals beyond 10,000, groups 100 deep); there are no tables
 * yet; no memory. The caller holds the write lock. */
zelRegex *zelbgp_regcomp(const char *pattern);
/* Whether a pattern is one that zelbgp_regcomp takes: 0, or -1 and in `error`, at most `errorBytes` long, why not.
 * Needs no tables and no lock. */
int aclPatternCheck(const char *pattern, char *error, size_t errorBytes);
/* Drops one reference. The last one deletes the expression, at once or, when processes cache results, once they have
 * given up theirs. The caller holds the write lock. */
void zelbgp_regex_free(zelRegex *expression);
/* For the writer of lists, whose references are counted apart: the same expression without one more; and its end, when
 * nothing refers to it. The caller holds the write lock, from before the first to behind the second. */
zelRegex *zelbgp_regex_for_list(const char *pattern);
void zelbgp_regex_collect(zelRegex *expression);
/* 0 when the expression matches, -1 without an expression, else another value. It is matched with `text`, or with the
 * text of the attribute when that is null. With an attribute the type is 1 (AS path), 2 (communities) or 2048; any
 * other answers 0. `useCache` lets the result come from the cache, if that is open and enabled, or go there. The caller
 * holds the read lock; compiles when this process has not matched with the expression before. */
int zelbgp_regexec(zelRegex *expression, const char *text, const void *attribute, int length, uint32_t type,
                   int useCache);
/* The pattern as it was written, and the references. */
const char *zelbgp_regex_pattern(const zelRegex *expression);
uint32_t zelbgp_regex_references(const zelRegex *expression);

/* Writes the text of an attribute, at most `size` bytes with its zero, and returns its length without, which may be
 * more; -1 for a type that has none. An AS path (type 1) is a row of segments (u8 kind, u8 count, the numbers as u32):
 * numbers separated by blanks, sets as {a,b}, confederations as (a b) and [a,b]. Communities (type 2) are u32 words:
 * "high:low" separated by blanks, or no-export, no-advertise, local-AS. All big-endian. */
int aclAttributeText(uint32_t type, const void *attribute, size_t length, char *text, size_t size);
/* Replaces that: a text, or null for none, that `release` gives back. Both null restore it. Before any check. */
typedef char *(*zelAttributeTextFn)(const void *attribute, size_t length, uint32_t type);
void aclRegexSetTextHook(zelAttributeTextFn make, zelFreeFn release);

/* ==== The cache of results ========================================================================================
 *
 * A process may keep what expressions said of attributes, "BGP regex optz cache". Its bit tells it from the other
 * processes that do. Results of attributes that were not asked for lately make room for new ones.
 *
 * One thread at a time opens and closes it. The checks, whose callers hold the read lock, find what is known without a
 * lock of their own; they keep what is new, as the other calls do all, under a lock of the process that is held for
 * moments. The switches may be thrown at any time.
 */

extern uint32_t aclRegexOptzInitialized;
extern uint32_t aclRegexOptzEnabled;
extern uint32_t aclRegexOptzDebug;
extern uint32_t aclRegexOptzClientId; /* this process's bit */
extern uint32_t aclRegexPendingDelete;

/* Opens the cache with room for that many attributes (at most about a million) and expressions (at most 1,023), and
 * with `join` makes the bit known to the others, so that expressions wait for this process before they are deleted;
 * takes the write lock for that. 0, also when the cache is open already; -1: no bit, sizes, memory or, to join, tables.
 */
int aclRegexOptzInit(uint32_t clientBit, int join, uint32_t attributes, uint32_t expressions);
/* Gives everything up. Takes the write lock. */
void aclRegexOptzClose(void);
int aclRegexOptzIsEnabled(void);
/* Switches the use of the cache, and says so on standard output. */
void aclRegexOptzToggle(void);
void aclRegexOptzDebugToggle(void);
/* While the verify flag is on, results from the cache are computed again and differences printed. */
void aclRegexOptzVerifyFlagToggle(void);
int aclRegexOptzVerify(void);

/* The parts of the cache. The node of an attribute, made when there is none; 0 without memory. A node that made room
 * for another one is known no more. */
uint32_t aclRegexOptzCacheOpen(uint32_t type, const void *attribute, size_t length);
/* Keeps a result of zelbgp_regexec under the index of the expression. 0, or -1: no such node, or not its index. */
int aclRegexOptzCacheInsert(zelRegex *expression, uint32_t node, uint32_t index, int result);
/* 0 when the result is known, else -1. */
int aclRegexOptzCacheGet(uint32_t node, uint32_t index, int *result);
/* Forgets all results of the expression in this process. */
void aclRegexOptzCacheDelete(zelRegex *expression);
/* Attributes in the cache. */
uint32_t aclRegexOptzCacheSizeGet(void);
/* Gives up the results of expressions that wait for deletion, and those of processes that died with their bit, and
 * deletes the expressions of which nobody has any. Takes the write lock; call it from time to time. */
void aclRegexPeriodicCacheCleanup(void);

/* zelbgp_regcomp under the write lock, which is still held when an expression is returned, so that the caller can put
 * it to use; when there is none the lock was released. */
zelRegex *aclRegexOptzHandleComp(const char *pattern);
/* zelbgp_regex_free for a caller that holds the write lock, which is released. */
void aclRegexOptzHandleFree(zelRegex *expression);
/* Position of the highest bit, 0 for none. */
int aclRegexOptzGetClientIndex(uint32_t clientBit);

/* ==== Route maps ==================================================================================================
 *
 * A map is a row of sequences. The first one of which every clause matches decides, by its action; a clause matches
 * when one of the lists it names permits, and a sequence without clauses matches every route. Lists that do not exist
 * answer as their checks do: a community list that does not exist matches nothing, any other matches. Lists are those
 * of the first set of tables.
 *
 * Access lists see the route's address as the source and its mask as the destination, or the next hop and a mask of all
 * ones; of IPv6 entries the source alone counts. */

typedef struct {
    int family; /* 1 or 2; else clauses about the address match nothing */
    uint8_t address[16];
    uint8_t length;
    int nextHopFamily; /* likewise, for clauses about the next hop */
    uint8_t nextHop[16];
    const char *pathText; /* the AS path as text, for a route that has no attribute */
    const void *path;     /* the AS path as attribute, or null */
    int pathLength;
    const uint32_t *communities; /* in host order */
    int communityCount;
} zelPolicyRoute;

/* Numbers of sequences that permitted, ascending, each once. The caller provides room and serialises; begins with a
 * count of 0. */
typedef struct {
    uint32_t *sequences;
    uint32_t capacity;
    uint32_t count;
} zelRmapPermittedSeqList;

/* The map of that name, or null. The caller holds the read lock. */
zelRouteMap *ipRouteMapFind(const char *name);
/* The verdict of a map about a route: 0 for no map, or an empty one; 1 when no sequence matches. When a sequence
 * permits its number goes into `permitted`, unless that is null or full. */
uint32_t ipRoutemapCheckWithHandleV4_V6(const zelRouteMap *map, const zelPolicyRoute *route,
                                        zelRmapPermittedSeqList *permitted);
/* The number of the sequence that decides about the route, 0 when none does. */
uint32_t ipRoutemapSequence(const zelRouteMap *map, const zelPolicyRoute *route);

/* 0 when the number is in the list now, -1: there is no room, or no list. */
int rmapAddEntSeqToPermittedSeqList(zelRmapPermittedSeqList *list, uint32_t sequence);
/* 1 when the number is in the list, else 0. */
int rmapEntSeqInPermittedSeqList(const zelRmapPermittedSeqList *list, uint32_t sequence);
/* 1 when the number is less than the greatest in the list, else 0, also when the list is empty. */
int rmapEntSeqLessThanLastPermittedSeq(const zelRmapPermittedSeqList *list, uint32_t sequence);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
