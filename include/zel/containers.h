/*
 * Containers: the intrusive doubly linked list zelDLL, the allocating list with positions, the red-black tree
 * zelRBTree, the hash table zelHash, the radix tree zelRadix, the timing wheel zelcw, the free-index allocator
 * zelFreeIndex, the tree of byte keys zelAvl, and the table of large keys zelLargeKeyData.
 *
 * None of them locks: whoever shares one between tasks serialises access to it, readers included unless nobody writes.
 * They hold the caller's pointers and never free the caller's data. Nothing here blocks, but for the console of the
 * hash table. A handle is checked in every call, by its magic word where it has one; a call on a bad handle reports an
 * assertion, changes nothing and returns null, 0 or a miss.
 */
#ifndef ZEL_CONTAINERS_H
#define ZEL_CONTAINERS_H

#include <stdarg.h>
#include <stddef.h>
#include <stdint.h>

#include "zel/types.h"

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

void _zelAssert(const char *expression, const char *file, int line);

/* ==== Intrusive doubly linked list ================================================================================
 *
 * Nodes live inside the caller's records; the list hands back their addresses. Insertion and removal take constant time
 * and never allocate. No count is kept, and membership is not checked: removing a node that is in no list, or naming
 * another list's node as the neighbour, is the caller's mistake.
 */

#define zelDLL_MAGIC 0x7e1d17e1u

typedef struct zelDLLNode {
    struct zelDLLNode *next; /* both links are null in a node that was removed */
    struct zelDLLNode *prev;
} zelDLLNode;

/* The head embeds its two sentinels, so a head must not be moved or copied while it is in use. */
typedef struct {
    uint32_t dll_magic;
    zelDLLNode headSent; /* next: first node; prev: always null */
    zelDLLNode tailSent; /* next: always null; prev: last node */
} zelDLL;

/* Makes `head` an empty list; nodes of a list that was there before are forgotten, not unlinked. */
void zelDLLInit(zelDLL *head);
/* The first or last node, null when the list is empty. */
zelDLLNode *zelDLLGetFirst(zelDLL *head);
zelDLLNode *zelDLLGetLast(zelDLL *head);
/* The neighbour of a node of this list, null at the end. */
zelDLLNode *zelDLLGetNext(zelDLL *head, zelDLLNode *node);
zelDLLNode *zelDLLGetPrev(zelDLL *head, zelDLLNode *node);
void zelDLLInsertAtFront(zelDLL *head, zelDLLNode *node);
void zelDLLInsertAtBack(zelDLL *head, zelDLLNode *node);
/* A null neighbour is reported by assertion and nothing is linked. */
void zelDLLInsertAfter(zelDLL *head, zelDLLNode *after, zelDLLNode *node);
void zelDLLInsertBefore(zelDLL *head, zelDLLNode *before, zelDLLNode *node);
/* Unlinks a node of this list and clears both its links. */
void zelDLLRemove(zelDLL *head, zelDLLNode *node);

/* The bodies of the list calls stand here, so that a compiler can place them in line; the library holds one ordinary
 * definition of each. */
#ifndef ZEL_DLL_LINKAGE
#define ZEL_DLL_LINKAGE extern inline __attribute__((__gnu_inline__))
#endif
/* `miss` is what the call returns, after the report, when `condition` does not hold. */
#define ZEL_DLL_REQUIRE(condition, text, miss)   \
    do {                                         \
        if (__builtin_expect(!(condition), 0)) { \
            _zelAssert(text, "zelLL", __LINE__); \
            return miss;                         \
        }                                        \
    } while (0)
#define ZEL_DLL_REQUIRE_HEAD(head, miss) \
    ZEL_DLL_REQUIRE((head) && (head)->dll_magic == zelDLL_MAGIC, "(head)->dll_magic == zelDLL_MAGIC", miss)

ZEL_DLL_LINKAGE void zelDLLInit(zelDLL *head) {
    if (!head) {
        _zelAssert("(head)->dll_magic == zelDLL_MAGIC", "zelLL", __LINE__);
        return;
    }
    head->headSent.next = &head->tailSent;
    head->headSent.prev = NULL;
    head->tailSent.next = NULL;
    head->tailSent.prev = &head->headSent;
    head->dll_magic = zelDLL_MAGIC;
}

ZEL_DLL_LINKAGE zelDLLNode *zelDLLGetFirst(zelDLL *head) {
    ZEL_DLL_REQUIRE_HEAD(head, NULL);
    return head->headSent.next == &head->tailSent ? NULL : head->headSent.next;
}

ZEL_DLL_LINKAGE zelDLLNode *zelDLLGetLast(zelDLL *head) {
    ZEL_DLL_REQUIRE_HEAD(head, NULL);
    return head->tailSent.prev == &head->headSent ? NULL : head->tailSent.prev;
}

ZEL_DLL_LINKAGE zelDLLNode *zelDLLGetNext(zelDLL *head, zelDLLNode *node) {
    ZEL_DLL_REQUIRE_HEAD(head, NULL);
    return node->next == &head->tailSent ? NULL : node->next;
}

ZEL_DLL_LINKAGE zelDLLNode *zelDLLGetPrev(zelDLL *head, zelDLLNode *node) {
    ZEL_DLL_REQUIRE_HEAD(head, NULL);
    return node->prev == &head->headSent ? NULL : node->prev;
}

ZEL_DLL_LINKAGE void zelDLLInsertAtFront(zelDLL *head, zelDLLNode *node) {
    ZEL_DLL_REQUIRE_HEAD(head, );
    node->next = head->headSent.next;
    node->prev = &head->headSent;
    node->next->prev = node;
    head->headSent.next = node;
}

ZEL_DLL_LINKAGE void zelDLLInsertAtBack(zelDLL *head, zelDLLNode *node) {
    ZEL_DLL_REQUIRE_HEAD(head, );
    node->prev = head->tailSent.prev;
    node->next = &head->tailSent;
    node->prev->next = node;
    head->tailSent.prev = node;
}

ZEL_DLL_LINKAGE void zelDLLInsertAfter(zelDLL *head, zelDLLNode *after, zelDLLNode *node) {
    ZEL_DLL_REQUIRE_HEAD(head, );
    ZEL_DLL_REQUIRE(after, "after", );
    node->next = after->next;
    node->prev = after;
    after->next = node;
    node->next->prev = node;
}

ZEL_DLL_LINKAGE void zelDLLInsertBefore(zelDLL *head, zelDLLNode *before, zelDLLNode *node) {
    ZEL_DLL_REQUIRE_HEAD(head, );
    ZEL_DLL_REQUIRE(before, "before", );
    node->prev = before->prev;
    node->next = before;
    before->prev = node;
    node->prev->next = node;
}

ZEL_DLL_LINKAGE void zelDLLRemove(zelDLL *head, zelDLLNode *node) {
    ZEL_DLL_REQUIRE_HEAD(head, );
    node->next->prev = node->prev;
    node->prev->next = node->next;
    node->next = node->prev = NULL;
}

/* ==== Allocating list with positions ==============================================================================
 *
 * The list is a pointer to its first node, null when empty, held by the caller; adding and deleting may change it.
 * Positions count from 1. Nodes come from zelMC_calloc; a node that listDelete hands back is released by the caller
 * with zelMC_free. Reaching a position takes a walk from the front.
 */

typedef struct zelListNode {
    struct zelListNode *prev; /* in the first node: the last one */
    struct zelListNode *next; /* null in the last node */
    intptr_t data;
    uint32_t count; /* nodes in the list; meaningful in the first node only */
} zelListNode;

/* Adds `data` at the end (position < 0), at the front (0), or behind the node at `position` - so position 1 adds behind
 * the first node - or behind the last one when the list is shorter. 0, or a non-zero error number with the list
 * unchanged. */
int listAdd(zelListNode **list, int position, intptr_t data);
int listAddBegin(zelListNode **list, intptr_t data);
int listAddEnd(zelListNode **list, intptr_t data);
/* In an empty list, and for a position below 1, the new node becomes the first one. */
int listAddPos(zelListNode **list, int position, intptr_t data);
/* Unlinks the node at `position` and returns it for the caller to free; null when there is no such position. */
zelListNode *listDelete(zelListNode **list, int position);
/* The datum at `position`, the last one's when negative; 0 at position 0 and behind the end. */
intptr_t listGet(zelListNode *list, int position);
int listLength(zelListNode *list);
/* Takes every datum as an address: the position of the first node where `length` bytes (at most 4) equal the bytes of
 * `value` as it lies in memory; 0 when none does. */
int listFindLong(zelListNode *list, int32_t value, int length);

/* ==== Red-black tree ==============================================================================================
 *
 * An ordered map of caller-owned records, keyed by a field inside each record. The tree owns its nodes, never the
 * records. The key of a record stays unchanged while the record is in a tree. Equal keys are not refused: a new record
 * comes behind the equal ones in key order; whoever needs unique keys looks up first.
 *
 * Wherever a call takes a `key`, it is a record or a template with the key at the tree's key offset. Look-ups return
 * the record, null when none qualifies. Look-ups, insertion and removal take O(log n).
 *
 * A null key or record is reported by assertion while checking is on, and misses. While it is off, trees with a
 * built-in comparator report and refuse it still; a caller's comparator is given the null.
 */

#define ZEL_RBTREE_MAGIC 0xdeadbeefu
#define ZEL_RBTREE_NAME_LENGTH 50
/* Kinds of comparator. */
#define ZEL_RBTREE_UNSIGNED 2
#define ZEL_RBTREE_SIGNED 4
/* Colours of a node. */
#define ZEL_RBTREE_BLACK 0
#define ZEL_RBTREE_RED 1
/* A flag of zelRBTreeWalk: visit a node before its left sub-tree. */
#define ZEL_RBTREE_PREORDER 1u

typedef struct zelRBTree zelRBTree;
typedef struct zelRBNode zelRBNode;

/* Negative, zero or positive as `probe` stands before, beside or behind `data` in the order of the tree. */
typedef int (*zelRBTreeCompareFn)(zelRBTree *tree, const void *probe, const void *data);

/* A missing child, and the parent of the root, is the tree's rbtt_nil, never null. */
struct zelRBNode {
    zelRBNode *rbtn_left;
    zelRBNode *rbtn_right;
    zelRBNode *rbtn_parent;
    uint32_t rbtn_colour;
    uint32_t rbtn_key; /* a built-in comparator's key, so that searches need not visit the record */
    void *rbtn_data;
};

/* Callers may read everything. */
struct zelRBTree {
    uint32_t rbtt_magic; /* 0 once destroyed */
    char rbtt_name[ZEL_RBTREE_NAME_LENGTH + 1];
    uint32_t rbtt_keyOffset; /* bytes from the start of a record */
    uint32_t rbtt_keyLength; /* for the caller's comparator; 4 with a built-in one */
    zelRBNode *rbtt_root;
    int32_t rbtt_checking;
    zelRBTreeCompareFn rbtt_compare;
    zelAllocFn rbtt_alloc;
    zelFreeFn rbtt_free;
    uint32_t numinodes;     /* nodes now in the tree */
    uint32_t rbtt_inserts;  /* insertions ever made */
    uint32_t rbtt_removes;  /* removals ever made */
    uint32_t rbtt_allocs;   /* nodes ever taken, one by one or from a block of many */
    uint32_t rbtt_releases; /* nodes ever given back, likewise */
    zelRBNode rbtt_nil;     /* black; its links point at itself */
    uint32_t rbtt_kind;     /* ZEL_RBTREE_UNSIGNED, ZEL_RBTREE_SIGNED, or 0 for the caller's comparator */
    void *rbtt_slabs;       /* of a tree with the default allocation: where nodes come from, */
    zelRBNode *rbtt_spare;  /* and those that are free */
};

/* The built-in comparators, for records whose key is one 32-bit word in host order; the word need not be aligned. Trees
 * created with them search several times faster than with a caller's comparator that does the same. */
int _RBTCompareUL(zelRBTree *tree, const void *one, const void *two);
int _RBTCompareI(zelRBTree *tree, const void *one, const void *two);

/* Creates an empty tree; the name is cut at 50 characters. Every node comes from one call of `allocFn` and returns to
 * `freeFn`; null takes zelRBTreeMalloc and zelRBTreeFree. With both of these a tree calls them for many nodes at a
 * time, and keeps what it has until it is empty. The header comes from zelMC_calloc. Null: no memory, or no name or
 * comparator (reported by assertion). */
zelRBTree *zelRBTreeCreate(const char *name, uint32_t keyOffset, uint32_t keyLength, zelAllocFn allocFn,
                           zelFreeFn freeFn, zelRBTreeCompareFn compareFn);
/* Frees the header alone. The caller empties the tree first; the memory of nodes that are left is lost. */
void zelRBTreeDestroy(zelRBTree *tree);
/* The same with the header in shared memory, from zelMC_MM_calloc. Links are addresses: only processes that map the
 * memory at the creator's address use the tree. One that they share takes functions that allocate there, too; null ones
 * put nodes into the creator's private memory. It also holds addresses of functions, so processes other than the
 * creator insert, remove, and use a caller's comparator only where the same code is mapped at the same place; look-ups
 * with a built-in comparator do without. Whoever shares the tree serialises access to it. */
zelRBTree *zelRBTreeShmCreate(const char *name, uint32_t keyOffset, uint32_t keyLength, zelAllocFn allocFn,
                              zelFreeFn freeFn, zelRBTreeCompareFn compareFn);
void zelRBTreeShmDestroy(zelRBTree *tree);

/* 1, or 0 with the tree unchanged when there is no memory for a node. */
int zelRBTreeInsert(zelRBTree *tree, void *data);
/* Takes out a record equal to `key` and returns it; of several the one nearest to the root. */
void *zelRBTreeRemove(zelRBTree *tree, const void *key);
/* A record equal to `key`; of several the one nearest to the root. */
void *zelRBTreeGetExact(zelRBTree *tree, const void *key);
/* The least record, null in an empty tree. */
void *zelRBTreeGetFirst(zelRBTree *tree);
/* A record equal to `key`, else the least one behind it, or the greatest one before it. */
void *zelRBTreeGetExactOrNext(zelRBTree *tree, const void *key);
void *zelRBTreeGetExactOrPrev(zelRBTree *tree, const void *key);
/* The record that follows the one which zelRBTreeGetExact finds; without an equal one the least behind `key`. A null
 * key gives null, not the first record. Among equal records this can return to the same one for ever: walk those. */
void *zelRBTreeGetNext(zelRBTree *tree, const void *key);
/* Calls `visit` for the records from the exact-or-next one of `start` on, in key order, or with ZEL_RBTREE_PREORDER in
 * `flags` each before its sub-trees; a null `start` begins at the beginning. Ends early when `visit` returns non-zero,
 * and after `maximum` records unless that is 0. Returns the record visited last when it ended early, from which a later
 * call may resume where keys are unique (that one is visited again), and null when it ran to the end. `visit` must not
 * change the tree. */
void *zelRBTreeWalk(zelRBTree *tree, const void *start, int (*visit)(zelRBTree *tree, void *data, void *arg),
                    uint32_t maximum, uint32_t flags, void *arg);

/* Draws the tree on standard output, unless it has more than 200 nodes: one line for each, in key order, with a bar for
 * every level above it, its depth, R or B, and what `print` says of the record. */
void zelRBTreePrint(zelRBTree *tree, const char *(*print)(void *data));
/* Switches the checking of arguments on (1) or off (anything else); it is on after creation. */
void zelRBTreeDebug(zelRBTree *tree, int on);

/* The default node allocation, on the checking allocator. */
void *zelRBTreeMalloc(size_t bytes);
void zelRBTreeFree(void *node);

/* ==== Hash table ==================================================================================================
 *
 * A chained hash table of caller-owned records, each of which begins with a zelDLLNode. The table does not hash: the
 * caller computes a bucket number, usually with zelHashGetKey, and names it on insertion and look-up. The calls that
 * look for records or step through them keep the current bucket in a cursor, a variable of the caller's; null is none.
 * A null or foreign cursor where a bucket is needed is reported by assertion and nothing happens.
 */

#define zelHASH_MAGIC 0xababbabau

typedef struct zelHashBucket {
    zelDLL h_list;
    uint32_t h_hits;   /* insertions ever made */
    uint32_t h_hwm;    /* the most records it ever held */
    uint32_t h_curnum; /* records now */
} zelHashBucket;

/* Callers may read everything. */
typedef struct zelHash {
    uint32_t hh_magic; /* 0 once destroyed */
    zelHashBucket *hh_buckets;
    int32_t hh_size;    /* number of buckets, a power of two */
    uint32_t hh_curnum; /* records now */
    zelAllocFn hh_alloc;
    zelFreeFn hh_free;
} zelHash;

/* Creates an empty table of `size` buckets, a power of two. Header and buckets come from two calls of `allocFn` and
 * return to `freeFn`; null takes zelHashMalloc and zelHashFree. Null: no memory, or a bad size (reported by
 * assertion). */
zelHash *zelHashCreate(int size, zelAllocFn allocFn, zelFreeFn freeFn);
/* Forgets all records and statistics; frees nothing. A null table is ignored. */
void zelHashInit(zelHash *table);
/* Frees the table. Records still in it are reported by assertion, and left alone. */
void zelHashDestroy(zelHash *table);
/* The bucket for `length` bytes at `key`: the Internet checksum of the key (16-bit big-endian words, one's complement),
 * cut to the size of the table. Tables of more than 65,536 buckets never use the upper ones. 0 without a key. */
uint32_t zelHashGetKey(zelHash *table, const void *key, uint32_t length);
/* Adds a record to bucket `bid`, in front of or behind the others there. Equal records are not looked for. */
void zelHashInsertAtFront(zelHash *table, uint32_t bid, void *record);
void zelHashInsertAtBack(zelHash *table, uint32_t bid, void *record);
/* The first record of bucket `bid` for which `compare`, called with it and the arguments behind `compare`, returns 0;
 * sets the cursor to the bucket. Null with a null cursor when there is none. */
void *zelHashFind(zelHash *table, zelHashBucket **cursor, uint32_t bid, int (*compare)(void *record, va_list arguments),
                  ...);
/* Takes the record out of the cursor's bucket, where it must be. The cursor stays. */
void zelHashRemove(zelHash *table, zelHashBucket **cursor, void *record);
/* The same, with a step to the following record, which is returned: the way to remove while stepping through. */
void *zelHashRemoveAndGetNext(zelHash *table, zelHashBucket **cursor, void *record);
/* Steps through all records, bucket by bucket, in the order of the lists. Null with a null cursor at the end; a null
 * record or cursor starts over. */
void *zelHashGetFirst(zelHash *table, zelHashBucket **cursor);
void *zelHashGetNext(zelHash *table, zelHashBucket **cursor, void *record);
/* The same backwards, with one exception: zelHashGetLast does not look into bucket 0, zelHashGetPrev does. */
void *zelHashGetLast(zelHash *table, zelHashBucket **cursor);
void *zelHashGetPrev(zelHash *table, zelHashBucket **cursor, void *record);
/* The first record of the cursor's bucket, or of the next one that has any; a null cursor starts at the first. */
void *zelHashGetBucketFirst(zelHash *table, zelHashBucket **cursor);
/* The number of records in the table; records, insertions and the high-water mark of one bucket. */
void zelHashStat(zelHash *table, uint32_t bid, uint32_t *total, uint32_t *nodes, uint32_t *hits, uint32_t *hwm);

/* A console for trying a table out, on standard input and output: reads an operation number and, where one is needed, a
 * value; operation 1 lists them. It adds records of its own, of a node and a value, and takes every record in the table
 * for one of those; removed ones return to zelHashFree. Returns at operation 2 or at the end of the input. Blocks on
 * the input. `print` may be null. */
void zelHashAttach(zelHash *table, void (*print)(void *record));
/* The same with a table of 16 buckets that lasts as long as the call. */
void zelHashTest(void);

/* The default allocation, on the checking allocator. */
void *zelHashMalloc(size_t bytes);
void zelHashFree(void *block);

/* ==== Radix tree ==================================================================================================
 *
 * A path-compressed binary trie over byte strings with a length in bits, most significant bit first. An entry is a
 * caller's record that begins with a zelRadixEntry; the tree reads its key in place, so the key bytes stay unchanged
 * and alive while the entry is in the tree. A key of n bits is read no further than its (n + 7) / 8 bytes.
 *
 * Nodes refer to each other by number: they are half as large as with pointers. A node stays where it is while it is in
 * the tree. They come from the tree's allocator in blocks of ZEL_RADIX_SLAB and are reused; blocks go back when the
 * tree is empty again (but for one) or destroyed. All memory of a tree but its header comes from its allocator.
 *
 * Versions, while rtt_versioning is non-zero: every change carries the number of the open version, rtt_version. Removal
 * only marks the entry deleted (ZEL_RADIX_DELETED in its node) and it hides the shorter prefixes; it leaves the tree,
 * and is handed to the deleted-entry callback, when its version is closed and every walk of the change list has passed
 * it, or earlier, when its prefix is inserted again. That callback and the callbacks of walks change the tree only
 * where it is said that they may.
 */

#define ZEL_RADIX_MAGIC 0xdeadbeefu
#define ZEL_RADIX_NAME_LENGTH 50
#define ZEL_RADIX_DELETED 2
#define ZEL_RADIX_SLAB 128

typedef struct zelRadix zelRadix;
typedef struct zelRadixNode zelRadixNode;
typedef struct zelRadicalWalk zelRadicalWalk;

/* A place in the list of changes: an entry's, or a walk's. */
typedef struct {
    zelDLLNode link; /* both null while it is not in the list */
    uint32_t version;
    uint32_t isWalk;
} zelRadixChange;

/* Stands first in the caller's record. The caller sets rth_addr before inserting; the rest belongs to the tree. */
typedef struct zelRadixEntry {
    zelRadixNode *rtn;         /* its node, null while it is in no tree */
    const uint8_t *rth_addr;   /* the key */
    zelRadixChange rth_change; /* the version of its last change, 0 without versions */
    const uint8_t *rth_key;    /* the key as comparisons read it */
} zelRadixEntry;

/* The links are node numbers, 0 for none; zelRadixNodeAt gives the node. */
struct zelRadixNode {
    uint32_t rtn_left;        /* next key bit 0 */
    uint32_t rtn_right;       /* next key bit 1 */
    uint32_t rtn_parent;      /* 0 at the root */
    uint16_t rtn_bit;         /* length of the node's prefix, and index of the key bit it tests */
    uint8_t rtn_mask;         /* 0x80 >> (rtn_bit % 8) */
    uint8_t rtn_flags;        /* ZEL_RADIX_DELETED */
    zelRadixEntry *rtn_entry; /* null in a node that only forks; such a node has both children */
};

typedef void (*zelRadixDeletedFn)(zelRadixEntry *entry);
/* What a walk calls for an entry; non-zero ends the walk. */
typedef int (*zelRadixVisitFn)(zelRadixEntry *entry, void *context);
/* How an entry is printed; the text is used before the next call. */
typedef const char *(*zelRadixTextFn)(zelRadixEntry *entry);

/* Callers may read everything and set rtt_strict and rtt_versioning, and in shared memory the three functions. */
struct zelRadix {
    uint32_t rtt_magic;
    char rtt_name[ZEL_RADIX_NAME_LENGTH + 1];
    uint32_t rtt_root;     /* number of the root, 0 when empty */
    uint32_t rtt_inserts;  /* insert calls */
    uint32_t rtt_nodes;    /* nodes now in the tree */
    uint32_t rtt_released; /* marked entries that left the tree, and were handed to the deleted-entry callback if any */
    uint16_t rtt_maxbits;
    uint8_t
        rtt_strict; /* 1 from creation: keys longer than rtt_maxbits are refused, and a refused entry's links cleared */
    uint8_t rtt_index_bits;   /* key bits of the side index */
    uint8_t rtt_index_chosen; /* the creator decided about the side index */
    uint8_t rtt_newest_lost;  /* rtt_newest is not complete */
    zelAllocFn rtt_alloc;
    zelFreeFn rtt_free;
    zelRadixDeletedFn rtt_deleted;
    uint32_t rtt_versioning;
    uint32_t rtt_version; /* the open version, 1 at first */
    zelDLL rtt_changes;   /* entries by their last change, oldest first, and the walks where they have come to */

    zelRadixNode **rtt_slabs; /* blocks of nodes, by number / ZEL_RADIX_SLAB */
    uint32_t **rtt_newest;    /* likewise, the newest version at or below each node; null: none */
    uint32_t rtt_slab_count;
    uint32_t rtt_slab_room;
    uint32_t rtt_fresh;   /* the first number never used */
    uint32_t rtt_spare;   /* the first unused node, linked through rtn_parent */
    uint32_t rtt_repairs; /* how often the tree was repaired */
    uint32_t *rtt_index;  /* by the first rtt_index_bits bits of a key: where look-ups begin */
};

/* The node of a number, null for 0. */
static inline zelRadixNode *zelRadixNodeAt(const zelRadix *tree, uint32_t number) {
    return number ? &tree->rtt_slabs[number / ZEL_RADIX_SLAB][number % ZEL_RADIX_SLAB] : NULL;
}

/* ---- Life */

/* Creates an empty tree for keys of up to `maxbits` bits. Its memory comes from `allocFn`, which is asked for blocks of
 * any size, and returns to `freeFn`; null takes zelRadixMalloc and zelRadixFree. `deletedFn` may be null. The header
 * comes from zelMC_calloc. Null: no memory, or no name. */
zelRadix *zelRadixCreate(const char *name, uint16_t maxbits, zelAllocFn allocFn, zelFreeFn freeFn,
                         zelRadixDeletedFn deletedFn);
/* Releases the tree's memory; entries are not touched, so they may have been freed before. The caller destructs
 * the walks of the change list first. */
void zelRadixDestroy(zelRadix *tree);
/* The same for a header that the caller provides, in shared memory for one, and keeps where it is. Processes share a
 * tree only when all of them map its memory at the same address and are of the same build, and when `allocFn`, entries
 * and keys are of that memory. Look-ups and walks call no function that the header names. Insertion, removal,
 * zelRadixSetIndex, zelRadixSetVersion, zelRadixRepair, zelRadixUninit and the zelRadical calls do: a process that is
 * about to make them, and was not the last to do so, first sets rtt_alloc, rtt_free and rtt_deleted to its own
 * addresses of these functions. 0, or -1 without a name. */
int zelRadixInit(zelRadix *tree, const char *name, uint16_t maxbits, zelAllocFn allocFn, zelFreeFn freeFn,
                 zelRadixDeletedFn deletedFn);
void zelRadixUninit(zelRadix *tree);
/* For the next writer of a tree in shared memory whose writer died in a change. Until then look-ups - exact, best and
 * next best match, shorter prefixes - answer as with that change or as without it, and nothing else may be called.
 * Rebuilds from the links and entries that they see the parent links, the unused nodes, their number, the entries' way
 * back and the side index, in time proportional to the nodes but for trees of odd shape. The list of changes holds only
 * the marked entries then, as changes of the open version; walks of it that were begun before visit nothing more and
 * can only be destructed. The entry that was on its way in or out may be in or out: zelRadixGetExact tells; out, it may
 * be inserted, whatever its links say. If it was on its way to the deleted-entry callback it may not get there, and
 * memory that was on its way may be lost. The functions are as said at zelRadixInit; what they keep in shared memory
 * has been put right before. Nothing is allocated, unless versions were being noted for the first time. May itself be
 * cut short and called again. 0, or -1 when the links are not those of a tree; then nothing is changed. */
int zelRadixRepair(zelRadix *tree);
/* Gives the tree a side index over the first `bits` key bits, 16 to 24: 4 << bits bytes from its allocator, by which
 * look-ups of at least as many bits skip that part of the way. 0 does without. Where this was not called, a tree with
 * the default allocator indexes 16 bits by itself once it is large. With 24 bits a look-up in a table of 32-bit keys
 * takes two steps, and inserting or removing a short prefix writes 4 bytes for every 24-bit prefix below. 0, or -1: no
 * memory, or other `bits`; then the tree is as before. */
int zelRadixSetIndex(zelRadix *tree, uint32_t bits);

/* ---- Change */

/* Returns the entry now in the tree for this prefix: `entry`, or the live one that was there first, in which case
 * `entry` was not inserted. Null: no memory, or the key is too long. An entry marked deleted that was there is handed
 * to the deleted-entry callback, which leaves the tree alone. */
zelRadixEntry *zelRadixInsert(zelRadix *tree, zelRadixEntry *entry, uint32_t bitlen);
/* Takes the entry out, or marks it deleted while rtt_versioning is set. An entry of no tree is left alone. */
void zelRadixRemove(zelRadix *tree, zelRadixEntry *entry);

/* ---- Look up. A null key is a miss. */

/* The live entry of exactly this prefix, or null. */
zelRadixEntry *zelRadixGetExact(zelRadix *tree, const void *key, uint32_t bitlen);
/* The longest stored prefix that covers the key's first `bitlen` bits, or null; also null when that one is marked
 * deleted, though shorter ones may cover the key. */
zelRadixEntry *zelRadixGetBest(zelRadix *tree, const void *key, uint32_t bitlen);
/* What best match would answer if `entry` were not there; may be asked again with the answer. */
zelRadixEntry *zelRadixGetNextBest(zelRadix *tree, zelRadixEntry *entry);
/* The best match, and in `*prev` the next best; both null when there is none. */
zelRadixEntry *zelRadixGetBestAndPrev(zelRadix *tree, const void *key, uint32_t bitlen, zelRadixEntry **prev);
/* The entry, live or marked, of the nearest ancestor of `node` that has one: the next shorter covering prefix. A null
 * `node` means the node of `entryHead`. */
zelRadixEntry *zelRadixGetLessSpecific(zelRadix *tree, zelRadixEntry *entryHead, zelRadixNode *node);
zelRadixEntry *zelRadixGetParent(zelRadix *tree, zelRadixEntry *entry);

/* ---- Iterate, in the order of keys, a prefix before the longer ones it covers */

/* The live entry behind `entry`; null starts at the first. Null at the end. */
zelRadixEntry *zelRadixGetNext(zelRadix *tree, zelRadixEntry *entry);
/* Visits the live entries. `visit` may remove the entry it is given. */
void zelRadixWalk(zelRadix *tree, zelRadixVisitFn visit, void *context);
/* The top of the sub-tree that holds all entries of this prefix and longer ones it covers; null when there are none. */
zelRadixNode *_zelRadixGetSubTree(zelRadix *tree, const void *key, uint32_t bitlen);
/* Visits the live entries at and below `node`. `visit` may remove the entry it is given. */
void zelRadixWalkSubTree(zelRadix *tree, zelRadixNode *node, zelRadixVisitFn visit, void *context);
/* 1 when the node has no children. */
int zelRadixNodeIsLeaf(zelRadix *tree, zelRadixNode *node);

/* ---- Versions */

/* Visits the entries, live and marked, that changed after the version `since`, and passes over unchanged sub-trees. Of
 * two versions the one less than 2^31 ahead is the later; 0 stands before all of them, and for an entry that has none.
 * `visit` may remove the entry it is given. */
void zelRadixVersionWalk(zelRadix *tree, uint32_t since, zelRadixVisitFn visit, void *context);
/* Gives an entry of the tree a version of the caller's choice, for the walk above. An entry in the list of changes
 * keeps the version of its change. */
void zelRadixSetVersion(zelRadix *tree, zelRadixEntry *entry, uint32_t version);
/* Notes that an entry of the tree changed in the open version. Insertion and removal do so themselves. */
void zelRadicalAppendToChangeList(zelRadix *tree, zelRadixEntry *entry);
/* Closes the open version, and lets go of marked entries that every walk has passed. The new open version. */
uint32_t zelRadicalNextVersion(zelRadix *tree);
/* A walk that sees the changes from now on. Null: no memory. It holds back marked entries until it has passed them. */
zelRadicalWalk *zelRadicalWalkConstructor(zelRadix *tree);
void zelRadicalWalkDestructor(zelRadicalWalk *walk);
/* Goes on through the changes of closed versions, each entry as it now is and once for all its changes so far; visits
 * at most `max` entries (0: no limit). `visit` may change the tree. How many were visited. */
uint32_t zelRadicalWalkChangeList(zelRadicalWalk *walk, zelRadixVisitFn visit, void *context, uint32_t max);

/* ---- Print to standard output: the header, then the entries, indented below the prefixes that cover them, as `text`
 * gives them or, when that is null, the key in hexadecimal; marked ones with "deleted" behind */
void zelRadixPrint(zelRadix *tree, zelRadixTextFn text);
/* At most `max` entries, and how many more there are. */
void zelRadixMaxPrint(zelRadix *tree, zelRadixTextFn text, uint32_t max);

/* The default node allocation, on the checking allocator. */
void *zelRadixMalloc(size_t bytes);
void zelRadixFree(void *node);

/* ==== Cart-wheel timers ===========================================================================================
 *
 * A timing wheel: a ring of buckets, and a cursor that moves on one bucket a tick. Its owner calls zelcwTimerTick from
 * a periodic tick of its own; the wheel has no clock. A timer that is started with t ticks fires in the (t + 1)th
 * following tick, those of one tick in the order in which they were started. There is no round counter: only the low
 * 16 bits of t count, and from the number of buckets on t wraps; choose more buckets than the longest time-out.
 *
 * Records come from the wheel's free list and begin with a zelcwTimer; what is behind belongs to the caller, who finds
 * it zeroed in a new record and as he left it in one that was freed. Starting, stopping and expiring take constant
 * time. The expiry handler gets a timer that is stopped already; it may start, stop and free any timer, this one
 * included. Started again with 0 ticks, it fires again within the same tick.
 */

typedef struct zelcwTimer {
    struct zelcwTimer *prev;
    struct zelcwTimer *next;
    void *bucket; /* null while the timer does not run */
} zelcwTimer;

typedef struct zelcwTimerCB zelcwTimerCB;
typedef void (*zelcwTimerFn)(void *timer);

/* Creates a wheel. 0 buckets mean 256, an initial free list of 0 records means 100, a growth of 0 means 50. Records of
 * `recordSize` bytes come from `allocFn` and return to `freeFn`; null takes zelcartWheelTimerMalloc and
 * zelcartWheelTimerFree. `printFn` may be null. Null: no memory; or, with an assertion, no expiry handler, a number of
 * buckets that is no power of two, or a record size of 0. */
zelcwTimerCB *zelcwTimerInit(uint32_t numBuckets, uint32_t freeListSize, uint32_t growth, zelAllocFn allocFn,
                             zelFreeFn freeFn, zelcwTimerFn expiryHandler, zelcwTimerFn printFn, intptr_t ownerWord,
                             uint32_t recordSize);
/* Releases every record that runs or is free, and the wheel. Records in the caller's hands are not released; free or
 * start them before. Not for the expiry handler. */
void zelcwTimerUnInit(zelcwTimerCB *wheel);

/* The record freed last; null when there is none and no memory for more. */
void *zelcwGetTimer(zelcwTimerCB *wheel);
/* Stops the timer and puts its record on the free list; null is ignored. */
void zelcwFreeTimer(zelcwTimerCB *wheel, void *timer);
/* Adds records to the free list: 0, or -1 without memory, and none was added. */
int zelcwTimerAllocFreeList(zelcwTimerCB *wheel, uint32_t records);

/* A timer that runs is stopped first. Null is ignored. */
void zelcwStartTimer(zelcwTimerCB *wheel, void *timer, uint32_t ticks);
void zelcwRestartTimer(zelcwTimerCB *wheel, void *timer, uint32_t ticks);
/* Null, and a timer that does not run, are left alone. */
void zelcwStopTimer(void *timer);

/* A tick: calls the expiry handler for the timers of the cursor's bucket until it is empty, and moves the cursor. Not
 * for the expiry handler. */
void zelcwTimerTick(zelcwTimerCB *wheel);
/* Stops and returns the timer that the next tick would fire first; null when there is none. */
void *zelcwGetNextExpiredTimer(zelcwTimerCB *wheel);
/* In how many ticks the next timer fires, 1 for the next tick; -1 when none runs. */
int zelcwTimerRetNext(zelcwTimerCB *wheel);

/* The ticks since the wheel was created; the word that its owner gave. */
uint32_t zelcwTimerTickCount(const zelcwTimerCB *wheel);
intptr_t zelcwTimerOwner(const zelcwTimerCB *wheel);
/* Print a line on standard output and pass the timers that run to the print function; the first one does so with the
 * free records, too. */
void zelcwPrintTimerInfo(zelcwTimerCB *wheel);
void zelcwPrintOnlyTimerInfo(zelcwTimerCB *wheel);

/* The default record allocation, on the checking allocator. */
void *zelcartWheelTimerMalloc(size_t bytes);
void zelcartWheelTimerFree(void *record);

/* ==== Free-index allocator ========================================================================================
 *
 * Hands out the lowest free index of a range, or one that is asked for, and takes indexes back. What is free is kept as
 * ascending ranges that never touch, so memory grows with fragmentation and not with the range; every call takes time
 * logarithmic in the number of ranges.
 *
 * Calls return 0, or -1 with the list unchanged.
 */

/* Allocated by the caller; callers may read everything except free_root. */
typedef struct {
    zelDLL free_ranges; /* ascending */
    zelAllocFn free_alloc;
    zelFreeFn free_release;
    uint32_t free_used;  /* indexes handed out or reserved */
    uint32_t free_total; /* indexes in the range, modulo 2^32 */
    uint32_t free_min;
    uint32_t free_max;
    struct zelFreeIndexRange *free_root; /* finds a range without a walk */
} zelFreeIndexList;

/* Makes every index of [minimum, maximum] free. Range records come from `allocFn` and return to `freeFn`; neither may
 * be null. -1: a null argument, maximum below minimum, or no memory. */
int zelFreeIndexListInit(uint32_t minimum, uint32_t maximum, zelAllocFn allocFn, zelFreeFn freeFn,
                         zelFreeIndexList *list);
/* Stores the lowest free index; -1 when none is free, `index` untouched. */
int zelFreeIndexGet(zelFreeIndexList *list, uint32_t *index);
/* Takes this very index; -1 when it is not free, or when its range must be split and there is no memory. */
int zelFreeIndexReserve(zelFreeIndexList *list, uint32_t index);
/* Gives an index back; -1, after a line on standard output, when it is outside the range or free already, and without
 * one when a new range finds no memory. */
int zelFreeIndexRelease(zelFreeIndexList *list, uint32_t index);
/* Releases the range records; nothing is free in the list then. */
int zelFreeIndexListDestroy(zelFreeIndexList *list);
/* Prints the free ranges and the counts on standard output. */
void zelFreeIndexDump(zelFreeIndexList *list);

/* An allocation pair for range records, on the checking allocator. */
void *zelFreeIndexMalloc(size_t bytes);
void zelFreeIndexFree(void *range);

/* ==== AVL tree of byte keys =======================================================================================
 *
 * A height-balanced tree of the caller's nodes, ordered by memcmp of keys of one length. A node is a zelAvlNode, the
 * key bytes right behind it, and the caller's data behind those. The caller keeps the root pointer, null when the tree
 * is empty, and one control block for any number of trees of the same kind. Equal keys are refused. Nothing allocates.
 */

typedef struct zelAvlNode {
    struct zelAvlNode *left;
    struct zelAvlNode *right;
    int32_t height;  /* 1 at a leaf, 0 in a node that was removed */
    uint32_t keyLen; /* bytes; the tree writes it */
} zelAvlNode;

typedef struct {
    uint32_t keyLen;                   /* bytes */
    void (*release)(zelAvlNode *node); /* for zelAvlDeleteTree; null: zelMC_free */
} avlcb;

static inline uint8_t *zelAvlKey(zelAvlNode *node) {
    return (uint8_t *)(node + 1);
}

/* The node now in the tree for this key: `node`, or the one that was there first, in which case nothing was inserted.
 * Null for a null node. */
zelAvlNode *zelAvlInsertNode(avlcb *control, zelAvlNode *node, zelAvlNode **root);
/* Takes out the node that has the key of `node`, and returns it for the caller to free: it need not be `node` itself,
 * which may be a mere template of the key. Null when there is none, and for a null node. */
zelAvlNode *zelAvlRemoveNode(avlcb *control, zelAvlNode *node, zelAvlNode **root);
zelAvlNode *zelAvlGetExact(avlcb *control, const void *key, zelAvlNode **root);
/* The node behind `node`, which must be in the tree, in key order; null starts at the first. Null at the end. Takes
 * logarithmic time. */
zelAvlNode *zelAvlGetNext(avlcb *control, zelAvlNode *node, zelAvlNode **root);
/* Removes every node and hands it to the control block's release function, which may use the tree; where that is null,
 * frees it with zelMC_free, so nodes then are of the checking allocator. */
void zelAvlDeleteTree(avlcb *control, zelAvlNode **root);

/* ==== Table of large keys =========================================================================================
 *
 * A table for a fixed number of entries whose keys are bit strings of one width, any number of bits, most significant
 * bit first in each 32-bit word. Everything is allocated on creation; a sorted index gives look-up by binary search and
 * iteration in key order. Keys are read as (width + 31) / 32 words, bits behind the width do not matter, and the table
 * keeps a copy. An entry is counted: it stays until as many deletions as references have come.
 *
 * An entry is named by its key, or by its position in the index, from 0, which changes as entries come and go. Adding
 * and deleting move the index behind the position: time grows with the number of entries, except at the end.
 */

/* Bits of zelLargeKeySetDbgFlag: what is traced on standard output. */
enum { ZEL_LARGE_KEY_ADD = 1, ZEL_LARGE_KEY_DELETE = 2, ZEL_LARGE_KEY_SEARCH = 4, ZEL_LARGE_KEY_GET_NEXT = 8 };

typedef void (*zelLargeKeyPrintFn)(const uint32_t *key);
typedef void (*zelLargeKeyCallerFn)(void);

/* One slot. */
typedef struct {
    uint32_t *key;
    int32_t refCount;
    int32_t position; /* in the index */
    intptr_t userData;
} zelLargeKeyElem;

/* Allocated by the caller, who may read it. */
typedef struct {
    int32_t *index; /* slot numbers in key order */
    zelLargeKeyElem *elemInfo;
    int32_t numElems;
    int32_t maxElems;
    uint32_t keySize;  /* bits */
    uint32_t keyWords; /* words of storage for each key, the last of them spare when the width fills the others */
    uint32_t dbgFlag;
    zelLargeKeyPrintFn printFn;
    zelLargeKeyCallerFn callerFn;
    uint32_t *slotBitmap; /* slots in use */
    int32_t lowestFree;   /* no slot below it is free */
} zelLargeKeyHead;

/* Makes an empty table; the head's old contents do not matter. `printFn` prints a key where something is traced and may
 * be null; `callerFn` is only kept. 0; -1 with the head zeroed: no memory, or fewer than one entry; -1: no head. */
int zelLargeKeyDataCreate(zelLargeKeyHead *head, uint32_t keyBits, int32_t maxEntries, zelLargeKeyPrintFn printFn,
                          zelLargeKeyCallerFn callerFn);
/* Adds an entry with one reference. An entry that is there stays as it is, its count and data too. 0, or -1: the table
 * is full, or a null key or data (by assertion). */
int zelLargeKeyDataAdd(zelLargeKeyHead *head, const uint32_t *key, intptr_t userData);
/* Takes one reference, and the entry with the last one; stores its data in *userData unless that pointer is null. The
 * references left, or -1 without such a key. */
int zelLargeKeyDataDelete(zelLargeKeyHead *head, const uint32_t *key, intptr_t *userData);
/* The same at a position; a bad one is reported by assertion. */
int zelLargeKeyDataRemove(zelLargeKeyHead *head, int position);
/* One reference more or less of an entry that is there: the references then, or -1 without such a key. */
int zelLargeKeyDataAddRef(zelLargeKeyHead *head, const uint32_t *key);
int largeKeyDataDelRef(zelLargeKeyHead *head, const uint32_t *key);
/* The entry's data, 0 without such a key. */
intptr_t zelLargeKeyDataGet(zelLargeKeyHead *head, const uint32_t *key);
/* The next position behind `position`, -1 to begin with, with the entry's key and data stored where the pointers are
 * not null; -1 behind the last. The key is valid until its entry leaves. */
int zelLargeKeyDataGetNext(zelLargeKeyHead *head, int position, uint32_t **key, intptr_t *userData);
int zelLargeKeyDataCount(zelLargeKeyHead *head);
void zelLargeKeySetDbgFlag(zelLargeKeyHead *head, uint32_t flags);
/* Prints the table's state and each entry on standard output. */
void zelLargeKeyDataDump(zelLargeKeyHead *head);
/* Releases the memory and zeroes the head, to which nothing can be added then; the entries' data is the caller's. */
void zelLargeKeyDataDestroy(zelLargeKeyHead *head);

/* The order of two bit strings: below, above or equal to 0. Bits behind `bits` do not count. */
static inline int zelBitmapCompare(const uint32_t *left, const uint32_t *right, uint32_t bits) {
    const uint32_t words = bits / 32, rest = bits % 32;
    for (uint32_t i = 0; i < words; ++i)
        if (left[i] != right[i]) return left[i] < right[i] ? -1 : 1;
    if (rest == 0) return 0;
    const uint32_t a = left[words] >> (32 - rest), b = right[words] >> (32 - rest);
    return a < b ? -1 : a > b;
}
#define BITMAP_COMPARE_BITMAPS(left, right, bits) zelBitmapCompare(left, right, bits)

/* The first clear bit behind bit `after` (-1: of all) among the first `bits` bits of a bitmap, or -1. For bits below
 * 2^31, as the result is signed. */
static inline int32_t zelBitmapGetNextUnset(const uint32_t *bitmap, uint32_t bits, int32_t after) {
    uint32_t from = (uint32_t)after + 1;
    while (from < bits) {
        const uint32_t clear = ~bitmap[from / 32] & (UINT32_MAX >> (from % 32));
        const uint32_t word = from & ~31u;
        if (clear) {
            const uint32_t bit = word + (uint32_t)__builtin_clz(clear);
            return bit < bits ? (int32_t)bit : -1;
        }
        if (bits - word <= 32) break;
        from = word + 32;
    }
    return -1;
}
#define GET_NEXT_UNSET_BIT_BITMAP(bitmap, bits, after) zelBitmapGetNextUnset(bitmap, bits, after)

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
