/*
 * Memory: partitions of pools of equal-size chunks, each block checked when it is taken and when it comes back; and the
 * listings of the checking allocator (zel/platform.h), which counts what each line of source holds.
 *
 * A partition belongs to a process and holds fixed pools, chosen by number or by best fit, and variable pools, chosen
 * by size alone. A pool grows by pages of the heap, of 16562 bytes for chunks of up to 16384 bytes and as many more for
 * each further 16384, and keeps them until it is flushed. Chunks are handed out last in, first out, and aligned to
 * 16 bytes (8 on a 32-bit host).
 *
 * In front of each block stand 8 bytes, two words of the host's: 0xcef while allocated or 0xdca while free; then, from
 * the top, the chunk's index in its page (12 bits), its size (16) and a tag (4). The word behind the data, at the chunk
 * size rounded up to a multiple of 4, holds 0xcef or 0xdca. A block that does not stand up to this is reported by an
 * assertion, and the call changes nothing; everything else stays usable.
 *
 * A partition made with `locking` may be used by any thread: its fixed and its variable pools each have a mutex, held
 * for moments and released when the thread is cancelled. Otherwise the caller serialises. Nothing here waits for
 * anything else, and only what reports, traces or lists, which is written with nothing held, is a cancellation point.
 *
 * A pool identifier has the partition in its upper 16 bits and the pool in its lower ones. Calls that return an int
 * return 0, or -1 with the error number: ZEL_ERR_INVALID_OBJECT_ID, no such partition or pool, or a bad block;
 * ZEL_ERR_OBJECT_UNAVAILABLE, taken or in use; ZEL_ERR_NOT_ENOUGH_MEMORY.
 */
#ifndef ZEL_MEMORY_H
#define ZEL_MEMORY_H

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#include "zel/types.h"

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* The pool of the system log, in partition 28: the host program creates both. Failures to allocate from it are printed
 * as errors of module MEMMGR; all others are raised as system error ZEL_EVENT_MEMORY, whose words are the addresses of
 * the texts "zelMemMgmt" and of a function's name, then the pool identifier and the size. A damaged chunk raises it
 * with five words: those two, the addresses of a text that says which part is damaged, "Header", "Trailer" or
 * "Header/Trailer", and of one that says what was not done, then the address of the block, or of the header of a chunk
 * that was to be allocated. */
#define SYS_LOG_POOL 0x1c0000u
/* The calling process's partition, and its pool with the smallest chunks that suffice. */
#define ZEL_MEM_BEST_FIT 0xffffffffu
/* Chunks are smaller than this. */
#define MAXCHNKSIZE 65536u
#define ZEL_EVENT_MEMORY 0x8007u
/* Partitions are numbered 0 to 255, the variable pools of one 0 to 254. */
enum { ZEL_MEM_PARTITIONS = 256, MAX_VAR_POOLS = 255, ZEL_MEM_POOL_NAME = 30 };

/* ==== Creation ==================================================================================================== */

/* Makes a partition of `totPools` (at most 65536) fixed pools, none of which exists yet. `owner` is the process whose
 * requests for ZEL_MEM_BEST_FIT it serves; of several partitions of an owner the lowest does. */
int M_memPartCreate(uint32_t partId, pid_t owner, uint32_t totPools, int locking);
/* Makes a fixed pool of chunks of `chunk` bytes, without a page. The name is copied, at most 29 characters. */
int M_memPoolCreate(uint32_t poolId, const char *name, uint32_t chunk);
/* Makes a variable pool; the pool of the identifier is its number among the variable ones. */
int M_memVarPoolCreate(uint32_t poolId, const char *name, uint32_t chunk);

/* Bounds a fixed pool: it takes no further page once its pages come to `bytes`, counted as above; -1, the beginning,
 * sets no bound. */
int M_memPoolSetSize(uint32_t poolId, int32_t bytes);
/* Exempts a fixed pool from its bound and from zelMemUsageCheck (non-zero), or no longer. */
int M_memPoolSetNonDestructMemSize(uint32_t poolId, int isExempt);

/* Weak. Whether `task` (0: a thread that is no task) may take a page of `bytes` for a pool: non-zero allows, as the
 * default always does. Called with no lock held. */
int zelMemUsageCheck(zelTaskId task, uint32_t poolId, uint32_t bytes);

/* ==== Blocks ====================================================================================================== */

/* A block of at least `size` bytes, uninitialised, or null: no such pool, chunks too small, no memory, bound reached,
 * or refused by zelMemUsageCheck. An explicit pool is never replaced by another. The top four bits of `tag` stay
 * with the block. */
void *M_memBlockAlloc(uint32_t poolId, uint32_t size, uint32_t tag);
/* Gives a block back, from any thread. The pool is that of the block, whatever `poolId` says. A block that is not
 * allocated, or was written to beyond its ends, is refused. */
int M_memBlockFree(uint32_t poolId, void *addr);

/* The same from the partition's variable pool with the smallest chunks that suffice; the pool in `poolId` does not
 * matter. */
void *M_memBlockVarAlloc(uint32_t poolId, uint32_t size, uint32_t tag);
int M_memBlockVarFree(uint32_t poolId, void *addr);

/* The heap, through the checking allocator. */
void *M_sysMalloc(size_t bytes);
void *M_sysCalloc(size_t count, size_t bytes);
void M_sysMemfree(void *block);

/* The same calls with the source and line of the caller, under which the checking allocator then counts the block,
 * with its chunk size. `tag` is a string that does not change and stays; either free may give such a block back. */
void *zelMC_M_memBlockAlloc(const char *tag, int line, uint32_t poolId, uint32_t size, uint32_t blockTag);
int zelMC_M_memBlockFree(const char *tag, int line, uint32_t poolId, void *addr);
void *zelMC_M_memBlockVarAlloc(const char *tag, int line, uint32_t poolId, uint32_t size, uint32_t blockTag);
int zelMC_M_memBlockVarFree(const char *tag, int line, uint32_t poolId, void *addr);
void *zelMC_M_sysMalloc(const char *tag, int line, size_t bytes);
void *zelMC_M_sysCalloc(const char *tag, int line, size_t count, size_t bytes);
void zelMC_M_sysMemfree(const char *tag, int line, void *block);

/* ==== Giving pages back =========================================================================================== */

/* Give the heap the pages of a fixed pool, or of a partition's variable pools, of which no chunk is in use. */
int M_memPoolFlush(uint32_t poolId);
int M_memPartVarFlush(uint32_t partId);
/* Removes a partition's variable pools; new ones may be made. Refused, and nothing changes, while a chunk is in use. */
int zel_memPartVarDelete(uint32_t partId);
/* Gives back every page of every pool of the partition, also those in use: blocks still out are lost, and freeing one
 * is refused. The pools stay. Nobody may use the partition meanwhile. */
int M_sysForceMemBlockFree(uint32_t partId);

/* ==== Inspection ================================================================================================== */

typedef struct {
    char name[ZEL_MEM_POOL_NAME];
    zelTaskId creator;      /* 0: a thread that was no task */
    uint32_t chunkSize;     /* bytes */
    uint32_t chunksPerPage; /* of the page size above; not what a host's alignment takes */
    uint32_t pageBytes;
    uint32_t pages;
    uint32_t chunksInUse;
    uint32_t highWater; /* most chunks in use */
    uint32_t failures;  /* requests that got null */
    int32_t bound;      /* bytes, -1 none */
    int isExempt;
} zelMemPoolStats;

typedef struct {
    pid_t owner;
    int locking;
    uint32_t totPools; /* places for fixed pools */
    uint32_t fixedPools;
    uint32_t variablePools;
    uint32_t pages;
    uint64_t pageBytes;
    uint32_t chunksInUse;
    uint32_t failures; /* of its pools, and requests that fitted none */
} zelMemPartStats;

int M_memPoolGetStats(uint32_t poolId, zelMemPoolStats *stats);
int M_memVarPoolGetStats(uint32_t poolId, zelMemPoolStats *stats);
int M_memPartGetStats(uint32_t partId, zelMemPartStats *stats);

/* Print on standard output: the partitions; the pools of one with their pages, of which addresses show the low 32
 * bits. */
void showMemMgrParts(void);
void showMemMgrPools(uint32_t partId);

/* Print what each line of source holds by the checking allocator; and remember that moment (0, or -1 without memory)
 * and print what was allocated since it and is still there. */
void showMemCheck(void);
int showMemCheckMark(void);
void showMemCheckLeaks(void);

/* Sets the debug mask, initially 0. Bit 0x10: pages and chunks that come and go are traced, as events of module
 * MEMMGR. */
void zelMemSetDebug(uint32_t mask);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
