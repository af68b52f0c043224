/*
 * Shared types of every family: results, ids, error numbers, allocation functions.
 *
 * Results. Calls of the kernel interface return ZEL_OK (0) or ZEL_ERROR (-1) and leave the cause in the calling
 * thread's error number (errno; see errnoGet in zel/kernel.h). Creation calls return an id, or 0 on failure. The error
 * number is written last, after every lock is released, and a call that succeeds does not disturb it unless its
 * description says so.
 *
 * Words that may carry a pointer are intptr_t. Time-outs of the kernel interface are in ticks of 20 ms.
 */
#ifndef ZEL_TYPES_H
#define ZEL_TYPES_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

enum { ZEL_OK = 0, ZEL_ERROR = -1 };

/* Time-outs in ticks: wait without limit, and do not wait at all. */
#define WAIT_FOREVER (-1)
#define ZEL_NO_WAIT 0

/* Error numbers: module in the upper 16 bits, code in the lower 16. */
#define ZEL_ERR_INVALID_OBJECT_ID 0x3d0001
#define ZEL_ERR_OBJECT_UNAVAILABLE 0x3d0002
#define ZEL_ERR_OBJECT_DELETED 0x3d0003
#define ZEL_ERR_TIMEOUT 0x3d0004
#define ZEL_ERR_NOT_ENOUGH_MEMORY 0x110001
#define ZEL_ERR_INVALID_SEM_OPERATION 0x160068
#define ZEL_ERR_INVALID_MSG_LENGTH 0x410001
#define ZEL_ERR_ILLEGAL_PRIORITY 0x30065
#define ZEL_ERR_DELETE_HOOK_NOT_FOUND 0x30066
#define ZEL_ERR_DELETE_HOOK_TABLE_FULL 0x30067
#define ZEL_ERR_TCB_ALLOCATION 0x580001

/* A small integer for a spawned task, the control block's address for one prepared with taskInit. 0 names the calling
 * task wherever a call accepts it; -1 is never an id. */
typedef intptr_t zelTaskId;
/* Slot plus generation times 2304; 0 is never an id. */
typedef uintptr_t zelSemId;
/* Opaque control blocks, looked up in their process-wide list before they are used. */
typedef struct zelMsgQ *zelMsgQId;
typedef struct zelWdog *zelWdogId;
typedef struct zelIntTimer *zelIntervalTimerId;
/* A byte ring; the caller passes a pointer that rngCreate returned, it is not looked up. */
typedef struct zelRing *zelRingId;

/* The entry routine of a task: always called with ten argument words. */
typedef int (*zelTaskEntry)(intptr_t a1, intptr_t a2, intptr_t a3, intptr_t a4, intptr_t a5, intptr_t a6, intptr_t a7,
                            intptr_t a8, intptr_t a9, intptr_t a10);

typedef void *(*zelAllocFn)(size_t bytes);
typedef void (*zelFreeFn)(void *block);

#ifdef __cplusplus
}
#endif

#endif
