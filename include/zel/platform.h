/*
 * What a host supplies, with Linux defaults for all of it: platform queries, the checking allocator, the system-error
 * sink, the numbered locks shared by processes, and the seam through which the library reads the clock, waits, and
 * moves datagrams.
 *
 * A host program replaces a default in one of two ways: functions marked "weak" it may simply define itself; values and
 * the seam it sets by a call before the library is first used.
 *
 * Environment variables, read once at first use and ignored in set-user-id programs:
 *   ZEL_IPC_ADDR     this CPU's IPC address, dotted IPv4 (default 127.0.0.1)
 *   ZEL_SHM_PREFIX   first part of the names of shared segments (default "zel")
 *   ZEL_SHM_GROUP    name of the group that owns the segments (default: the creator's)
 *   ZEL_REALTIME     "off" keeps every task in the host's time-sharing class
 */
#ifndef ZEL_PLATFORM_H
#define ZEL_PLATFORM_H

#include <netinet/in.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>
#include <sys/uio.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* ---- The seam ---------------------------------------------------------------------------------------------------- */

/* Everything through which time passes and datagrams move. Times are nanoseconds of the monotonic clock. Functions may
 * be called by any thread; `context` is the pointer set beside them. The two waits must be cancellation points, so that
 * tasks can be deleted in them; the host's functions that move datagrams are, too. */
typedef struct {
    void *context;
    /* The monotonic clock, nanoseconds. */
    uint64_t (*now)(void *context);
    /* Wall-clock seconds since 1970, for time stamps only. */
    int64_t (*wallClock)(void *context);
    /* Sleeps until `deadline`; returns 0, or EINTR when a signal ended the sleep early. */
    int (*sleepUntil)(void *context, uint64_t deadline);
    /* Waits until `fd` can be read; UINT64_MAX waits without limit. 1 readable, 0 deadline passed, -1 with errno (EINTR
     * when a signal ended the wait early). An error that is pending on a socket makes it readable. */
    int (*waitReadable)(void *context, int fd, uint64_t deadline);
    /* As sendmsg to `to`: bytes sent, or -1 with errno. */
    ssize_t (*sendDatagram)(void *context, int fd, const struct iovec *parts, int count, const struct sockaddr_in *to);
    /* As recvfrom: bytes received (truncated to `size`), or -1 with errno. `flags` as of recvfrom. */
    ssize_t (*receiveDatagram)(void *context, int fd, void *buffer, size_t size, int flags, struct sockaddr_in *from);
    /* 64 random bits; not for secrets. */
    uint64_t (*randomBits)(void *context);
    /* Non-zero when time is simulated: one thread, service tasks are not started, and a wait inside the kernel that
     * nothing can end is a sleep until its deadline. */
    int simulated;
} zelHostSeam;

/* Replaces the seam by a copy of `seam`, all of whose functions must be set; null restores the host's. Call it before
 * any other thread of the library runs. */
void zelPlatformSetSeam(const zelHostSeam *seam);
/* The seam in force; never null. */
const zelHostSeam *zelPlatformSeam(void);

/* ---- Identity of this CPU, card and platform --------------------------------------------------------------------- */

/* This CPU's IPC address, host order; all ones when the environment names none. A process belongs to one address, fixed
 * at first use. */
uint32_t zelPlatformIpcAddress(void);
/* Sets the address before first use; 0, or -1 with EBUSY once another one has been used. */
int zelPlatformSetIpcAddress(uint32_t address);
/* Sets the first part of the names of shared segments before first use (1 to 31 characters, no '/'); 0, or -1 with
 * EINVAL, or EBUSY once another one has been used. A variable that would be refused here is ignored. */
int zelPlatformSetShmPrefix(const char *prefix);

/* Weak queries with their defaults; the setters below change what the defaults answer, at any time. The slot of the
 * card is asked under both names. */
int getPlatformType(void);                    /* 0 */
int ZELIsVirtualSingle(void);                 /* 0 */
uint32_t zelSysGetSlotId(void);               /* 0 */
int bcm_stk_get_local_rpm_slotid(void);       /* 0 */
uint32_t zel_getPeMasterIpAddr(int instance); /* 0: no master known */
int zelSysIsPrimaryRpm(void);                 /* 1: this is the primary route processor, 0: its standby */

void zelPlatformSetType(int type);
void zelPlatformSetVirtualSingle(int isVirtualSingle);
void zelPlatformSetSlotId(uint32_t slot);
void zelPlatformSetPeMasterAddress(uint32_t address);
void zelPlatformSetPrimaryRpm(int isPrimary);

/* What is known of the cards in the slots. A null function takes the default's answer. */
typedef struct {
    void *context;
    /* The type of the card in a slot; by default 0, no card. */
    uint32_t (*cardType)(void *context, int slot);
    /* The interface type of a port; by default 3, GigabitEthernet. */
    uint32_t (*portType)(void *context, int slot, uint32_t port);
    /* Writes a port as users name it, with its zero at most `size` bytes (16); the texts of a slot's ports differ, also
     * without regard to case, and none is empty. By default port + 1 in decimal. */
    void (*portText)(void *context, int slot, uint32_t port, char *text, size_t size);
    /* Non-zero: management ports are named by number, port + 1, whatever portText says. */
    int hasFourPartNames;
} zelCardTable;

/* Replaces the card table by a copy of `table`; null restores the default. Call it before any other thread of the
 * library runs. */
void zelPlatformSetCardTable(const zelCardTable *table);
/* The card table in force, all of its functions set; never null. */
const zelCardTable *zelPlatformCardTable(void);

/* ---- The checking allocator -------------------------------------------------------------------------------------- */

/* Weak; a program replaces all four or none. `tag` names the source, `line` the caller's line: a string that does not
 * change and stays. Blocks are aligned as those of malloc, also of 0 bytes, and zelMC_free alone releases them. Null
 * with ENOMEM: no memory. They never wait for each other, and are no cancellation points. */
void *zelMC_malloc(const char *tag, int line, size_t bytes);
void *zelMC_calloc(const char *tag, int line, size_t count, size_t bytes);
void *zelMC_realloc(const char *tag, int line, void *block, size_t bytes);
void zelMC_free(const char *tag, int line, void *block);

/* What they do by default, also for replacements that only add to it: blocks of the C library's heap, with 16 bytes in
 * front that tell who asked for how much. Freeing or resizing what is no block, was freed before, or was written to in
 * front of its first byte is refused: everything stays as it is, standard error gets a line, and the caller's line
 * counts it; the resized block is null. What was freed before is recognised as long as the heap keeps its memory and
 * has not handed it out again; a large block, which the heap unmaps, faults when freed twice. */
void *zelMemCheckMalloc(const char *tag, int line, size_t bytes);
void *zelMemCheckCalloc(const char *tag, int line, size_t count, size_t bytes);
void *zelMemCheckRealloc(const char *tag, int line, void *block, size_t bytes);
void zelMemCheckFree(const char *tag, int line, void *block);

enum { ZEL_MEM_CHECK_TAG = 32, ZEL_MEM_CHECK_SITES = 4096 };

/* What one line of a source holds, of zelMC_ blocks and of pool blocks taken through a zelMC_ call. */
typedef struct {
    char tag[ZEL_MEM_CHECK_TAG]; /* cut at 31 characters */
    int line;
    uint64_t allocations; /* ever */
    int64_t liveBlocks;   /* not freed yet, by whomsoever */
    int64_t liveBytes;
    int64_t peakBytes; /* highest liveBytes; with several threads off by at most 64 KiB for each */
    uint64_t badFrees; /* refused */
} zelMemCheckSite;

/* Copies what the first `capacity` lines of source hold, in order of their first allocation, and returns how many there
 * are, ZEL_MEM_CHECK_SITES at most; a line keeps its place. The first place stands for all lines that came when the
 * table was full; one without a tag holds nothing. While other threads allocate, lines are from slightly different
 * moments. */
int zelMemCheckGetSites(zelMemCheckSite *sites, int capacity);
/* What was allocated between two such moments and is still there: leaves in `now` the lines that hold more than
 * `before`, with the differences (the peak stays that of `now`), and returns how many. */
int zelMemCheckGrowth(const zelMemCheckSite *before, int beforeCount, zelMemCheckSite *now, int nowCount);

/* The same in the policy segment, shared by all processes that attached it and at the same address in each of them;
 * weak. Null while this process has not attached the segment, and when it is full. Takes shared lock 31; a process
 * killed inside loses at most the block in hand (zelPolicyHeapSweep finds it). A block that is freed twice, or was
 * never allocated, aborts. */
void *zelMC_MM_malloc(const char *tag, int line, size_t bytes);
void *zelMC_MM_calloc(const char *tag, int line, size_t count, size_t bytes);
void *zelMC_MM_realloc(const char *tag, int line, void *block, size_t bytes);
void zelMC_MM_free(const char *tag, int line, void *block);

/* ---- System errors ----------------------------------------------------------------------------------------------- */

/* Weak. Reports system error `event` with `n` words of detail (each an intptr_t); returns 0. By default prints one
 * line on standard error, at most one a second for an event, and keeps the last 64. Any thread may call it, holding no
 * lock of the library. */
int zelSysErr(int slot, int port, uint32_t event, int n, ...);

enum { ZEL_SYSERR_WORDS = 8 };

/* A system error as the default keeps it. */
typedef struct {
    uint64_t time; /* monotonic nanoseconds */
    uint32_t event;
    int slot;
    int port;
    int wordCount; /* words kept of those given, at most ZEL_SYSERR_WORDS */
    intptr_t words[ZEL_SYSERR_WORDS];
} zelSysErrRecord;

/* Copies the last system errors of this process, the oldest of them first, at most `capacity` (and 64); how many. */
int zelSysErrGetLast(zelSysErrRecord *records, int capacity);

/* ---- Numbered locks between the processes of a CPU --------------------------------------------------------------- */

/* Reader/writer locks in shared memory, owned by processes and not by threads: a lock that one thread took may be
 * released by another one of its process, and the write side by another process once it was passed to it. They survive
 * SIGKILL of any holder: those who wait go on within a second.
 *
 * Calls return 0, or -1 with errno: EINVAL, no such lock; EPERM, this process does not hold the lock that way (nothing
 * changed); and whatever kept the segment from being attached. The functions are weak, except zelShmLockWasAbandoned.
 *
 * Taking a lock may block, and is a cancellation point before anything is taken, never later. No lock of the kernel may
 * be held. A thread may take a read lock again that it holds, also while a writer waits. Taking for writing what the
 * same thread holds, either way, waits for ever. */
enum {
    ZEL_SHM_LOCK_POLICY = 0,       /* the policy tables */
    ZEL_SHM_LOCK_SWP = 2,          /* creation of sliding-window queues */
    ZEL_SHM_LOCK_HISTORY = 4,      /* the trace history; may be taken under any other lock */
    ZEL_SHM_LOCK_SPAWN = 5,        /* passed by a spawner to the task's process */
    ZEL_SHM_LOCK_POLICY_HEAP = 31, /* the policy segment's heap; may be taken under any other lock */
    ZEL_SHM_LOCKS = 32
};

/* Attaches the locks, creating them when this process is the first. Optional: the other calls do so themselves. */
int ZEL_InitShmSem(void);

/* Any number of processes and threads read together. ENOSPC: too many processes read (some 480). */
int ZEL_ShmReadLock(int lock);
int ZEL_ShmReadUnLock(int lock);

/* One writer, and no reader. From the moment it waits, readers that hold nothing wait behind it. */
int ZEL_ShmWriteLock(int lock);
int ZEL_ShmWriteUnLock(int lock);
/* The same under their older names. */
int ZEL_ShmLock(int lock);
int ZEL_ShmUnLock(int lock);

/* Makes the process `next` the owner of a write lock that this process holds; only `next` can release it then, and if
 * it dies the lock is recovered. ESRCH: there is no such process, and the lock stays with the caller. */
int ZEL_ShmLockPass(int lock, pid_t next);

/* For the holder of a write lock: 1 when a writer died holding it since the last such question, so that what the lock
 * guards may have to be repaired; else 0. Asking clears the mark. */
int zelShmLockWasAbandoned(int lock);

/* ---- Shared segments --------------------------------------------------------------------------------------------- */

/* Two segments of shared memory belong to a CPU. Whoever needs one first creates it, with mode 0660; one that a user
 * other than this one or the superuser owns (unless it belongs to the group of ZEL_SHM_GROUP), or that others may use,
 * is refused with EACCES; one of another size with EINVAL; one that a differently built library made with EPROTO. */

/* Unlinks this CPU's shared segments; processes that map them keep them, later ones make new ones. 0, also when there
 * are none, or -1 with errno. */
int zelPlatformUnlinkSegments(void);
/* 1 when this CPU's segment of the system exists, 0 when not; creates nothing. */
int zelPlatformHasSegments(void);

/* ---- The policy segment ------------------------------------------------------------------------------------------ */

/* For the writer of the policy tables. Maps the segment, at the same address in every process, creating it when
 * `create` is not 0. The root of the tables: 64 KiB, zero in a new segment; or null with errno (ENOENT: there is none;
 * EEXIST: something else lies at its address). It stays mapped. May block while another process creates it. */
void *zelPolicyAttachSegment(int create);
/* 1 when the bytes lie in that part of the segment from which zelMC_MM_ serves, so that reading them does not fault. */
int zelPolicyIsInHeap(const void *address, size_t bytes);

/* What the heap holds under one tag. Bytes are those that blocks take up. */
typedef struct {
    uint64_t blocks; /* in use */
    uint64_t bytes;
    uint64_t lostBlocks; /* handed out under the tag but not in use, or nobody's and in no list of free blocks */
    uint64_t lostBytes;
    uint64_t strays; /* said to be in use, and no block of that tag */
    uint64_t others; /* handed out under other tags */
} zelPolicyHeapReport;

/* Compares the heap with what the owner `tag` uses of it: the `count` blocks `inUse`, in ascending order. Counts what
 * was lost when processes were killed, and when `recovers` is not 0 makes it free again. The caller sees to it that
 * nobody else allocates under the tag. 0, or -1 with errno: ENXIO, not attached; EBADMSG, the heap was written to:
 * blocks do not follow each other, and what lies behind was not looked at, or lists do not hold free blocks. Takes
 * shared lock 31. */
int zelPolicyHeapSweep(const char *tag, const void *const *inUse, size_t count, int recovers,
                       zelPolicyHeapReport *report);

/* ---- Crashes ----------------------------------------------------------------------------------------------------- */

/* Installs handlers that print a backtrace on SIGSEGV, SIGBUS, SIGILL, SIGFPE and SIGABRT and then let the default
 * action happen. Opt-in; the library never calls it itself. */
void zelPlatformInstallCrashHandler(void);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
