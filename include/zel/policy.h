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

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
