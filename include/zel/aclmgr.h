/*
 * The writer of the policy tables that zel/policy.h checks: a library of its own, libzelAclMgr. It creates the shared
 * segment, and creates, edits, resequences and removes lists.
 *
 * Lists change as a whole. Every call that changes one builds the changed list aside and puts it in place of the old
 * one in one step, so that a check sees the list before or after the call and never between, even when the writer is
 * killed in it. Setting a list whole is therefore much cheaper than adding its entries one by one. Hit counts of
 * entries that stay as they are stay too.
 *
 * Results. Calls return 0, or a code that aclRetCodeToStr (zel/policy.h) puts into words; a call that fails has changed
 * nothing. Without a manager, entries, or room for as many as it is given the capacity for, a call returns 0x3900002f;
 * those that count return -1, as they do for want of memory. What is given is copied.
 *
 * Who must serialise. Changes and the audit take the write side of the shared lock 0 and give it back: they block while
 * others read, and must not be called by a thread that holds that lock. Any number of processes may write. Whoever
 * takes the lock after a writer that died repairs what it left: memory it had in hand, links and counts that no check
 * needs. Calls that get something take the read side, as checks do; a thread that holds it around several of them sees
 * one state of all lists. A handle is used by one thread at a time.
 */
#ifndef ZEL_ACLMGR_H
#define ZEL_ACLMGR_H

#include <stddef.h>
#include <stdint.h>

#include "zel/policy.h"

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

typedef struct zelAclMgr zelAclMgr;

/* The two sets of tables: that of the plain checks, and that of those that begin with m_. */
typedef enum { ZEL_ACLMGR_PRIMARY = 0, ZEL_ACLMGR_SECOND = 1 } zelAclMgrTables;

/* Kinds of list. Lists of different kinds may have the same name; an IPv4 and an IPv6 access list of one name are two
 * chains of one list. */
typedef enum {
    ZEL_ACLMGR_IP = 0,
    ZEL_ACLMGR_IPV6,
    ZEL_ACLMGR_PREFIX,
    ZEL_ACLMGR_PREFIX6,
    ZEL_ACLMGR_ASPATH,
    ZEL_ACLMGR_COMMUNITY,
    ZEL_ACLMGR_ROUTE_MAP
} zelAclMgrKind;

/* Entries, as given and as read back. Those of a list stand in the order of their sequence numbers, which differ. A
 * sequence number of 0 in an entry that is added means: behind the last, at the next multiple of 5. Numbers are in host
 * order, bytes in network order. `action` is 0 for permit, 1 for deny; another value is kept and answered as it is. */
typedef struct {
    uint32_t sequence;
    uint8_t action;
    uint8_t kind;                                /* 1: standard, matches on the source alone; 0: extended */
    uint8_t protocol;                            /* 17: UDP, the only one that the UDP check looks at; 0: any */
    uint8_t sourceOperator, destinationOperator; /* 1 eq, 2 ge, 3 le, 4 neq, 5 range, 255 any */
    uint32_t source, sourceWildcard;             /* 1 bits of a wildcard are not compared */
    uint32_t destination, destinationWildcard;
    uint16_t sourcePort, sourcePortEnd, destinationPort, destinationPortEnd;
} zelAclIpEntry;

typedef struct {
    uint32_t sequence;
    uint8_t action;
    uint8_t source[16], sourceMask[16]; /* 1 bits of a mask are compared */
    uint8_t destination[16], destinationMask[16];
} zelAclIpv6Entry;

/* Address and mask take the first 4 bytes in an IPv4 list. A mask that is no prefix, or an address with bits behind its
 * mask, makes an entry outside the tree, of which only the first that matches counts. */
typedef struct {
    uint16_t sequence;
    uint8_t action;
    uint8_t ge, le; /* lengths in bits, 0: not given */
    uint8_t address[16], mask[16];
    uint32_t hits; /* read back only */
} zelAclPrefixEntry;

/* The pattern is a POSIX extended expression in which an underscore stands for start, end or a separator. A pattern
 * that was read back is good until the list changes. */
typedef struct {
    uint32_t sequence;
    uint8_t action;
    const char *pattern;
} zelAclAspEntry;

typedef struct {
    uint32_t sequence;
    uint8_t action;
    uint8_t kind;                           /* 1 standard, 2 expanded */
    uint8_t localAs, noAdvertise, noExport; /* standard: non-zero requires it */
    uint32_t count;                         /* of values; 0 in an expanded entry */
    const uint32_t *values;                 /* AS number in the upper half */
    const char *pattern;                    /* expanded: over the communities as text */
} zelAclCommEntry;

/* What one clause of a route map asks; the clause matches when one of its lists permits. */
typedef enum {
    ZEL_ACLMGR_MATCH_PREFIX = 1, /* prefix lists of the route's family */
    ZEL_ACLMGR_MATCH_ADDRESS,    /* access lists, by the route's address */
    ZEL_ACLMGR_MATCH_NEXT_HOP,   /* access lists, by the next hop */
    ZEL_ACLMGR_MATCH_ASPATH,     /* AS-path lists */
    ZEL_ACLMGR_MATCH_COMMUNITY,  /* community lists */
    ZEL_ACLMGR_MATCH_COMMUNITY_EXACT
} zelAclMatch;

typedef struct {
    zelAclMatch match;
    uint32_t count; /* of names, at least 1 */
    const char *const *names;
} zelAclClause;

typedef struct {
    uint32_t sequence;
    uint8_t action;
    uint32_t count; /* of clauses; without any the sequence matches every route */
    const zelAclClause *clauses;
} zelAclMapEntry;

/* ---- Life */

/* Attaches the segment of the tables, creating and preparing it when this is the first writer. Null with errno: EINVAL,
 * `tables` is neither set; ENOMEM; or what kept the segment from being had (see "Shared segments" in zel/platform.h).
 * The lists stay when the handle is closed. */
zelAclMgr *zelAclMgrOpen(zelAclMgrTables tables);
/* A handle for the calls that get something; the others refuse it as they do a null one. Creates and repairs nothing,
 * and never takes the write lock. Null with errno: ENOENT, no writer has prepared the tables; else as above. */
zelAclMgr *zelAclMgrOpenToRead(zelAclMgrTables tables);
void zelAclMgrClose(zelAclMgr *manager);

/* ---- IP access lists: the IPv4 entries and the IPv6 entries of one name, each set, extended and read without touching
 * the others */

/* Makes these the IPv4 (IPv6) entries of the list, whatever they were; creates it. No entries leave none. 0x39000029: a
 * sequence number that two entries have; 0x3900002d: none is left behind the last; 0x39000003: no memory; 0x39000068,
 * 0x3900002f: the name is too long, or none. */
uint32_t zelAclMgrSetIpList(zelAclMgr *manager, const char *name, const zelAclIpEntry *entries, uint32_t count);
uint32_t zelAclMgrSetIpv6List(zelAclMgr *manager, const char *name, const zelAclIpv6Entry *entries, uint32_t count);
/* Adds an entry to the list, creating it. The same codes. */
uint32_t zelAclMgrAddIpEntry(zelAclMgr *manager, const char *name, const zelAclIpEntry *entry);
uint32_t zelAclMgrAddIpv6Entry(zelAclMgr *manager, const char *name, const zelAclIpv6Entry *entry);
/* Copies at most `capacity` entries in the order of their sequence numbers. How many there are; -1: no such list, or
 * one that has only entries of the other kind. */
int zelAclMgrGetIpEntries(zelAclMgr *manager, const char *name, zelAclIpEntry *entries, int capacity);
int zelAclMgrGetIpv6Entries(zelAclMgr *manager, const char *name, zelAclIpv6Entry *entries, int capacity);

/* ---- Prefix lists, of family 1 (IPv4) or 2 (IPv6) */

/* Makes the list of that name hold these entries, whatever it held; creates it. No entries leave an empty list. Entries
 * that stay as they are keep their hit counts. 0x3900001f: bounds beyond the family's bits, or `ge` beyond `le`;
 * 0x39000025: a sequence number that two entries have; 0x3900002d: none is left behind the last; 0x39000022:
 * no memory; 0x3900006a: the name is too long; 0x3900002f: no name, or another family. */
uint32_t zelAclMgrSetPrefixList(zelAclMgr *manager, const char *name, int family, const zelAclPrefixEntry *entries,
                                uint32_t count);
/* Adds an entry to the list, creating it. The same codes. */
uint32_t zelAclMgrAddPrefixEntry(zelAclMgr *manager, const char *name, int family, const zelAclPrefixEntry *entry);
/* Copies at most `capacity` entries, in the order of sequence numbers, with their hits so far. How many there are, -1:
 * no such list. */
int zelAclMgrGetPrefixEntries(zelAclMgr *manager, const char *name, int family, zelAclPrefixEntry *entries,
                              int capacity);

/* ---- Route maps. Codes: 0x39000009 for a sequence number that two entries have; 0x3900002b for an entry that asks for
 * the route by prefix lists and by access lists; 0x3900002f for a clause without names, with one that is too long, or
 * of no kind; else as for prefix lists, 0x39000007 and 0x39000069. The lists that clauses name need not exist. */

/* Makes the map that of these entries, creating it when there is none. */
uint32_t zelAclMgrSetMapList(zelAclMgr *manager, const char *name, const zelAclMapEntry *entries, uint32_t count);
/* Adds one entry, creating the map when there is none. */
uint32_t zelAclMgrAddMapEntry(zelAclMgr *manager, const char *name, const zelAclMapEntry *entry);
/* Copies the first `capacity` entries; how many there are, -1: no such map. Their clauses and names are good until the
 * map changes. */
int zelAclMgrGetMapEntries(zelAclMgr *manager, const char *name, zelAclMapEntry *entries, int capacity);

/* ---- Lists of any kind. Codes: the kind's own for a list that does not exist, 0x3900002A for a sequence number that
 * does not, 0x3900001C for want of memory, 0x3900002F for a kind that there is not, or no name. */

/* Removes the list, and for an access list only the chain of that kind while the other one has entries. */
uint32_t zelAclMgrRemoveList(zelAclMgr *manager, zelAclMgrKind kind, const char *name);
/* Removes one entry; a list that loses its last one stays, empty. */
uint32_t zelAclMgrRemoveEntry(zelAclMgr *manager, zelAclMgrKind kind, const char *name, uint32_t sequence);
/* Numbers the entries anew, from `first` on in steps of `step`, in the order they have. 0x3900002D: a number would be 0
 * or out of range. */
uint32_t zelAclMgrResequence(zelAclMgr *manager, zelAclMgrKind kind, const char *name, uint32_t first, uint32_t step);
/* Copies the names of the first `capacity` lists, in the order of their bytes; how many there are, -1 for a kind that
 * there is not. Lists of both kinds of access list have the same names. */
int zelAclMgrGetNames(zelAclMgr *manager, zelAclMgrKind kind, char (*names)[ZEL_POLICY_NAME + 1], int capacity);

/* ---- AS-path lists. Codes: 0x39000014 for a pattern that is no expression, or one that would take too much */

/* Makes the list that of these entries, creating it when there is none. */
uint32_t zelAclMgrSetAspList(zelAclMgr *manager, const char *name, const zelAclAspEntry *entries, uint32_t count);
/* Adds one entry, creating the list when there is none. */
uint32_t zelAclMgrAddAspEntry(zelAclMgr *manager, const char *name, const zelAclAspEntry *entry);
/* Copies the first `capacity` entries; how many there are, -1: no such list. */
int zelAclMgrGetAspEntries(zelAclMgr *manager, const char *name, zelAclAspEntry *entries, int capacity);

/* ---- Community lists. Codes as for AS-path lists; 0x3900002F for another kind of entry, or one without its values */

uint32_t zelAclMgrSetCommList(zelAclMgr *manager, const char *name, const zelAclCommEntry *entries, uint32_t count);
uint32_t zelAclMgrAddCommEntry(zelAclMgr *manager, const char *name, const zelAclCommEntry *entry);
/* The values of the entries copied stand in `values`; those of an entry that finds no room there are null. */
int zelAclMgrGetCommEntries(zelAclMgr *manager, const char *name, zelAclCommEntry *entries, int capacity,
                            uint32_t *values, uint32_t valueCapacity);

/* ---- Audit */

/* What the segment holds for lists of both sets of tables, and what is wrong with it. */
typedef struct {
    uint32_t lists;
    uint32_t images;     /* of lists with entries */
    uint32_t spareNodes; /* of removed lists, kept for new ones */
    uint32_t expressions;
    uint64_t blocks; /* of the segment's heap that all this takes, and their bytes */
    uint64_t bytes;
    /* Faults */
    uint32_t brokenTrees;     /* of names, with links that are not those of a tree, or do not lead back */
    uint32_t brokenLists;     /* that are not what their tree says, or whose image is not what they say */
    uint32_t lostNodes;       /* neither of a list nor spare */
    uint32_t wrongReferences; /* of expressions: counts that are not those of the lists, or none and yet there */
    uint64_t lostBlocks;      /* that nothing leads to, and their bytes */
    uint64_t lostBytes;
    uint64_t strays; /* blocks in use that the heap does not know as such */
} zelAclMgrAuditReport;

/* Looks through the whole segment, under the write lock and after whatever repair was due; believes nothing it reads.
 * How many faults there are: 0, all is well; UINT32_MAX without a manager, or memory to look. `report` may be null. */
uint32_t zelAclMgrAudit(zelAclMgr *manager, zelAclMgrAuditReport *report);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
