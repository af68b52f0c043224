/*
 * Containers. None of them locks: whoever shares one between tasks serialises access to it. They hold the caller's
 * pointers and never free the caller's data.
 */
#ifndef ZEL_CONTAINERS_H
#define ZEL_CONTAINERS_H

#include <stddef.h>
#include <stdint.h>

#include "zel/types.h"

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* ==== Intrusive doubly linked list ================================================================================ */

#define zelDLL_MAGIC 0x7e1d17e1u

typedef struct zelDLLNode {
    struct zelDLLNode *next;
    struct zelDLLNode *prev;
} zelDLLNode;

/* The head embeds its two sentinels, so a head must not be moved by copying. */
typedef struct {
    uint32_t dll_magic;
    zelDLLNode headSent;
    zelDLLNode tailSent;
} zelDLL;

void zelDLLInit(zelDLL *head);
zelDLLNode *zelDLLGetFirst(zelDLL *head);
zelDLLNode *zelDLLGetLast(zelDLL *head);
zelDLLNode *zelDLLGetNext(zelDLL *head, zelDLLNode *node);
zelDLLNode *zelDLLGetPrev(zelDLL *head, zelDLLNode *node);
void zelDLLInsertAtFront(zelDLL *head, zelDLLNode *node);
void zelDLLInsertAtBack(zelDLL *head, zelDLLNode *node);
void zelDLLInsertAfter(zelDLL *head, zelDLLNode *after, zelDLLNode *node);
void zelDLLInsertBefore(zelDLL *head, zelDLLNode *before, zelDLLNode *node);
void zelDLLRemove(zelDLL *head, zelDLLNode *node);

/* ==== Allocating list with positions ============================================================================== */

typedef struct zelListNode {
    struct zelListNode *prev;
    struct zelListNode *next;
    intptr_t data;
    uint32_t count;
} zelListNode;

int listAdd(zelListNode **list, int position, intptr_t data);
int listAddBegin(zelListNode **list, intptr_t data);
int listAddEnd(zelListNode **list, intptr_t data);
int listAddPos(zelListNode **list, int position, intptr_t data);
zelListNode *listDelete(zelListNode **list, int position);
intptr_t listGet(zelListNode *list, int position);
int listLength(zelListNode *list);
int listFindLong(zelListNode *list, int32_t value, int length);

/* ==== Radix tree ================================================================================================== */

#define ZEL_RADIX_MAGIC 0xdeadbeefu
#define ZEL_RADIX_NAME_LENGTH 50

typedef struct zelRadix zelRadix;
typedef struct zelRadixNode zelRadixNode;

/* Stands first in the caller's record. The caller sets rth_addr before inserting; the rest belongs to the tree. */
typedef struct zelRadixEntry {
    zelRadixNode *rtn;
    const uint8_t *rth_addr;
    struct zelRadixEntry *rth_link;
    uint32_t rth_version;
    uint32_t rth_flags;
    const uint8_t *rth_key;
} zelRadixEntry;

struct zelRadixNode {
    zelRadixNode *rtn_left;
    zelRadixNode *rtn_right;
    zelRadixNode *rtn_parent;
    uint16_t rtn_bit;
    uint8_t rtn_mask;
    uint8_t rtn_flags;
    uint32_t rtn_walk[2];
    zelRadixEntry *rtn_entry;
};

typedef void (*zelRadixDeletedFn)(zelRadixEntry *entry);

zelRadix *zelRadixCreate(const char *name, uint16_t maxbits, zelAllocFn allocFn, zelFreeFn freeFn,
                         zelRadixDeletedFn deletedFn);
zelRadixEntry *zelRadixInsert(zelRadix *tree, zelRadixEntry *entry, uint32_t bitlen);
void zelRadixRemove(zelRadix *tree, zelRadixEntry *entry);
zelRadixEntry *zelRadixGetExact(zelRadix *tree, const void *key, uint32_t bitlen);
zelRadixEntry *zelRadixGetBest(zelRadix *tree, const void *key, uint32_t bitlen);
zelRadixEntry *zelRadixGetLessSpecific(zelRadix *tree, zelRadixEntry *entryHead, zelRadixNode *node);
zelRadixEntry *zelRadixGetParent(zelRadix *tree, zelRadixEntry *entry);
zelRadixEntry *zelRadixGetNext(zelRadix *tree, zelRadixEntry *entry);
void zelRadixWalk(zelRadix *tree, int (*visit)(zelRadixEntry *entry, void *context), void *context);
int zelRadixNodeIsLeaf(zelRadix *tree, zelRadixNode *node);
void zelRadixDestroy(zelRadix *tree);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
