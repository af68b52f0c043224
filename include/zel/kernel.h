/*
 * The kernel interface: start-up, printing, assertions and logging; tasks; semaphores; message queues and byte rings;
 * ticks, watchdogs and interval timers; the timer library. Each task is one POSIX thread with a control block.
 *
 * Any thread may call everything here unless a function says otherwise; a thread that is no task may use every wait.
 * Calls that may block are cancellation points on entry, also when they do not wait.
 */
#ifndef ZEL_KERNEL_H
#define ZEL_KERNEL_H

#include <pthread.h>
#include <sched.h>
#include <stdarg.h>
#include <stddef.h>
#include <stdint.h>

#include "zel/types.h"

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* ==== Start-up ==================================================================================================== */

/* A process calls vx2bsdLibInit before anything else of the kernel, then vx2bsd_start once, then spawns its tasks. */

/* Prepares the library: the key under which each thread keeps its control block, and the handler of SIGRTMAX - 1, which
 * the library reserves. 0, or the host's error number. May be called often; only the first call does anything. */
int vx2bsdLibInit(void);
/* Does nothing; 0. */
int init_system(void);
/* Starts the service tasks asked for (non-zero): tExcTask, which goes through the watchdogs once a tick, and
 * tTimerTask, which goes through the interval timers once a second. A priority p other than 0 becomes the thread
 * priority 255 - p, one above that of other tasks; 0 means 254 for tExcTask and 253 for tTimerTask. ZEL_OK; ZEL_ERROR
 * with OBJECT_UNAVAILABLE when one of them was started before. In simulated time nothing is started: whoever moves the
 * clock calls the passes. */
int vx2bsd_start(uint32_t startExcTask, uint32_t startTimerTask, uint32_t excPriority, uint32_t timerPriority);
/* Round-robin scheduling for all tasks, present and future, when `ticks` is not 0; first-in-first-out otherwise. The
 * slice is the host's. ZEL_OK. */
int kernelTimeSlice(int32_t ticks);
/* The same for tasks created later only; and what is in force: 1 or 0. */
void enableRoundRobin(void);
void disableRoundRobin(void);
uint8_t roundRobinIsEnabled(void);
extern uint8_t round_robin_enabled;

/* ==== Printing ====================================================================================================
 *
 * Every message has a module id (0 to 141; what lies above prints as module 0) and a level. It reads
 *
 *     [month/day hour:minute:second] KIND MODULE-(task):CPBLOB:slot: text
 *
 * followed by a line end, 1199 characters at most; a longer one is cut and reported on standard output. It is printed
 * on standard output when local printing is on, and recorded in the trace history, where a repeat of the message
 * before it, within the same second, is counted in a line of its own.
 *
 * Any thread may print. A print is no cancellation point, leaves the error number alone, allocates nothing, and blocks
 * only for other writers of the history. A print inside a kernel call never happens under that call's locks; callers
 * likewise print with no lock of the library held.
 */

#define ZEL_TRACE_MODULES 142
#define ZEL_TRACE_BUFFERS 3
#define ZEL_TRACE_BUFFER_BYTES 624012

/* A word for each module; null until zelTraceInit. Bits 0 to 30 are the module's trace categories; bit 31 keeps its
 * plain traces (level 2) out of the history. */
extern uint32_t *moduleTraceFlags;
/* 1: messages are printed on standard output as well. Initially 0. */
extern uint8_t g_EnableLocalPrinting;
/* 0 silences the hardware and "All" printers. Initially 1. */
extern uint32_t zelHwTraceFlag;
/* The last message of each history buffer, cut at 199 characters, and how often it was repeated. */
extern char lastMsg[ZEL_TRACE_BUFFERS][200];
extern uint32_t lastMsgCount[ZEL_TRACE_BUFFERS];
/* The history: three buffers shared by all processes of the CPU, at addresses of each process's own (index 1 is not
 * used). Null until zelTraceInit or the first message. All words of a buffer are 32 bits, big-endian:
 *      4  1 once the index has wrapped
 *      8  index of the entry written next, 0 to 2999
 *     12  module id of each of the 3000 entries
 *  12012  level of each entry
 *  24012  text of each entry, 200 bytes, NUL-terminated
 * Shared lock 4 is held while an entry is written; readers take it too. */
extern uint8_t **pTraceHistory;

/* Makes this process record: attaches the history, and sets moduleTraceFlags to words that are initially 0. Until then
 * messages go to standard output with a remark. Where no shared memory can be had, the history is the process's own.
 * Returns 0; may be called again. */
int zelTraceInit(void);

/* The one formatter and router. Levels 2 to 6 and 9 to 16 print, every other level does nothing. `args` is used up.
 * Returns 0. */
int zelMsgPrintf(uint32_t level, uint32_t moduleId, const char *format, va_list args);
/* Levels 2 to 5; return 0. */
int zelTracePrintf(uint32_t moduleId, const char *format, ...) __attribute__((format(printf, 2, 3)));
int zelErrorPrintf(uint32_t moduleId, const char *format, ...) __attribute__((format(printf, 2, 3)));
int zelWarningPrintf(uint32_t moduleId, const char *format, ...) __attribute__((format(printf, 2, 3)));
int zelNvramPrintf(uint32_t moduleId, const char *format, ...) __attribute__((format(printf, 2, 3)));
/* Levels 11, 12, 10 and 9, while zelHwTraceFlag is not 0; an "All" printer is the same as its hardware twin. */
void zelHwTracePrintf(uint32_t moduleId, const char *format, ...) __attribute__((format(printf, 2, 3)));
void zelAllTracePrintf(uint32_t moduleId, const char *format, ...) __attribute__((format(printf, 2, 3)));
void zelHwErrorPrintf(uint32_t moduleId, const char *format, ...) __attribute__((format(printf, 2, 3)));
void zelAllErrorPrintf(uint32_t moduleId, const char *format, ...) __attribute__((format(printf, 2, 3)));
void zelHwWarningPrintf(uint32_t moduleId, const char *format, ...) __attribute__((format(printf, 2, 3)));
void zelAllWarningPrintf(uint32_t moduleId, const char *format, ...) __attribute__((format(printf, 2, 3)));
void zelHwEventPrintf(uint32_t moduleId, const char *format, ...) __attribute__((format(printf, 2, 3)));
void zelAllEventPrintf(uint32_t moduleId, const char *format, ...) __attribute__((format(printf, 2, 3)));
/* Prints at most 199 characters of `text` at level 2, its first "%" replaced by "!". Returns 0. */
int zelTracePrintStr(uint32_t moduleId, const char *text);

/* Turn local printing on (returns 1) and off (returns 0). */
int zelTracePrintOn(void);
int zelTracePrintOff(void);
/* Sets the trace word of a module, 1 to 141; another id is reported on standard output. No effect before zelTraceInit.
 */
void zelSetModuleTraceFlag(uint32_t moduleId, uint32_t flags);
/* The module's trace word without bit 31; 0 before zelTraceInit and for an id out of range. */
uint32_t wrap_modtraceflags(uint32_t moduleId);
/* The module of this name, in either case; 0 for null, and for a name that no module has, with the names on standard
 * output. */
uint32_t zelTraceGetModuleIdFromName(const char *name);
/* Says on standard output that hardware tracing is built in. */
void ZELTracePrintHWEnabled(void);

/* Records `text`, cut at 197 characters: as a new entry when `repeatCount` is 0, else as a line that says how often the
 * entry before was repeated. Levels 13 to 16 are stored as 9, 11, 12 and 10. Returns 0. */
int WriteStringToHistory(const char *text, uint32_t moduleId, uint32_t level, uint32_t repeatCount);
/* The history buffer of a level: 2 for levels 9 to 12, else 0. */
int getBufferIndex(uint32_t level);
/* As fprintf to standard error. */
int printErr(const char *format, ...) __attribute__((format(printf, 1, 2)));

/* ==== Assertions and the error number =============================================================================
 *
 * A failed assertion is printed as an error of module SYS, raised as system error 0x8006, and returns: the caller goes
 * on, or leaves with its failure value. The error number is the thread's errno.
 */

/* The expression's text takes part in a printf format: "%%" prints one "%". */
void _zelAssert(const char *expression, const char *file, int line);
/* Reports a false `expression` and goes on. `file` is the source's name without path and extension. */
#define zelAssert(expression, file) ((expression) ? (void)0 : _zelAssert(#expression, (file), __LINE__))
int errnoGet(void);
/* Returns 0. */
int errnoSet(int value);

/* ==== Message logging =============================================================================================
 *
 * Callers queue a message, the task tLogTask formats it and writes it to up to five descriptors, with the sender's task
 * id, module, severity and mnemonic in front. The format and whatever its arguments point to must outlive the call,
 * and the arguments are six words: integers and pointers of word size.
 */

#define ZEL_LOG_RECORD_RESULT 108
#define ZEL_LOG_MAX_FDS 5

/* 0 until logging is started. */
extern zelTaskId logTaskId;
extern zelMsgQId logMsgQId;
/* A descriptor that the next logFdSet removes; -1 when there is none. */
extern int logFdFromRlogin;
/* Messages that could not be queued. */
extern uint32_t logMsgsLost;

/* Starts logging with room for `maxMsgs` messages and `fd` as first descriptor (as logFdSet). 0, or -1 when it runs
 * already or a queue, task or semaphore cannot be had. */
int logInit(int fd, int maxMsgs);
/* The descriptors stay the caller's: delete one before closing it. These calls block while a message is written; 0, or
 * -1 when logging is not started, five are held (add), or `fd` is not held (delete; one occurrence is removed). */
int logFdAdd(int fd);
int logFdDelete(int fd);
/* Replaces the descriptor set before, and the remote-login descriptor. */
int logFdSet(int fd);
/* Queue a message; block while the queue is full. 108, or -1 when it could not be queued. logMsg is module "Zelnet",
 * severity 1, mnemonic "GEN_MSG"; module names are cut at 19 characters, mnemonics at 49. */
int logMsg(const char *format, intptr_t a1, intptr_t a2, intptr_t a3, intptr_t a4, intptr_t a5, intptr_t a6);
int zelLogMsg(const char *moduleName, uint32_t severity, const char *mnemonic, const char *format, intptr_t a1,
              intptr_t a2, intptr_t a3, intptr_t a4, intptr_t a5, intptr_t a6);

/* ==== Tasks ======================================================================================================= */

/*
 * A task is one POSIX thread with a control block in the process's task list. Errors below are those of zel/types.h;
 * "unknown" is INVALID_OBJECT_ID unless said otherwise, and a tid of 0 means the calling task. In a thread that is no
 * task, 0 is unknown; everything else may be called there, waits included.
 *
 * Deletion and restart cancel the thread. It leaves at its next cancellation point of the host, or of this library:
 * calls that may wait are cancellation points on entry, also when they need not wait. It unwinds, so destructors and
 * cleanup handlers run, still as the task. A task that computes without ever calling anything cannot be deleted, and
 * its deleter waits.
 *
 * Suspension stops a task where it holds nothing of the kernel's. It may still hold what is its own or the C library's,
 * for instance the allocator's lock: suspending a task that may be allocating or printing can block whoever does so
 * next.
 */

/* State bits of a task; it is ready when (state & 0x8F) is 0. */
#define ZEL_TASK_PENDING 0x01u
#define ZEL_TASK_DELAYED 0x02u
#define ZEL_TASK_SUSPENDED 0x04u
#define ZEL_TASK_NOT_ACTIVATED 0x80u

/* Task control block. Callers of taskInit supply the memory, keep it until the task has gone, and never touch the
 * fields. */
typedef struct zelTcb {
    zelTaskId id;
    char *name;
    pthread_t pthrid;
    pthread_attr_t attr;
    struct sched_param prv_priority;
    zelTaskEntry entry;
    intptr_t args[10];
    uint32_t isStatic;
    int options;
    uint32_t state;
    int priority;
    struct zelTcb **waitList;
    struct zelTcb *nextWaiter;
    int32_t safeCount;
    pthread_mutex_t tdelete_lock;
    pthread_cond_t tdelete_cond;
    pthread_mutex_t dbcst_lock;
    pthread_cond_t dbcst_cond;
    uint32_t deletersWaiting;
    struct zelTcb *next;
    int32_t lockCount;
    /* Private to the kernel from here on. */
    uint64_t serial;           /* never used twice in a process; tells this task from a later one at the same place */
    struct zelTcb *watchers;   /* tasks that wait for this one to change: to end, to leave its delete-safe section */
    zelWdogId restartWatchdog; /* started when the thread of a task that restarts itself has ended */
    int32_t currentPriority;   /* logical thread priority now: own, boosted or inherited */
    uint32_t lifeFlags;
    uint32_t pins; /* others that use pthrid with no lock held */
    uint32_t parkWord;
    uint32_t suspendWord;
    uint32_t suspendAck;
    uint32_t kernelDepth;
    uint32_t giveWay;
    uintptr_t reserved[4];
} zelTcb;

typedef struct {
    zelTaskId td_id;
    char *td_name;
    int td_priority;
    zelTaskEntry td_entry;
} zelTaskDesc;

/* Called with the task's id and 0. */
typedef void (*zelDeleteHook)(zelTaskId tid, intptr_t arg);

/* ---- Creation ---- */

/* Creates a task and starts it: it calls entry(a1, ..., a10) and is deleted when that returns. `name` is copied whole;
 * null names it "t" and its id. `priority` is 0 (highest) to 255; what is above counts as 255 and is reported as
 * ILLEGAL_PRIORITY in the error number although the call succeeds. `options` is kept and not interpreted, `stackSize`
 * is not applied. The id, one above the largest in use below 0x10000 (beyond that the lowest free one), or -1:
 * TCB_ALLOCATION (no memory, no id), NOT_ENOUGH_MEMORY (no thread). */
zelTaskId taskSpawn(const char *name, int priority, int options, int stackSize, zelTaskEntry entry, intptr_t a1,
                    intptr_t a2, intptr_t a3, intptr_t a4, intptr_t a5, intptr_t a6, intptr_t a7, intptr_t a8,
                    intptr_t a9, intptr_t a10);
/* The same in two steps and in the caller's memory, whose address is the id: prepared by taskInit, started by
 * taskActivate. The memory may be used again once the task is unknown. ZEL_OK, or ZEL_ERROR: INVALID_OBJECT_ID (null),
 * OBJECT_UNAVAILABLE (in the list already), NOT_ENOUGH_MEMORY. */
int taskInit(zelTcb *tcb, const char *name, int priority, int options, char *stackBase, int stackSize,
             zelTaskEntry entry, intptr_t a1, intptr_t a2, intptr_t a3, intptr_t a4, intptr_t a5, intptr_t a6,
             intptr_t a7, intptr_t a8, intptr_t a9, intptr_t a10);
/* No effect on an active task. ZEL_OK, or ZEL_ERROR: unknown, NOT_ENOUGH_MEMORY (no thread; may be tried again). */
int taskActivate(zelTaskId tid);

/* ---- End and restart; all may block ---- */

/* Deletes a task, after waiting until it is not delete-safe. Returns when its thread has ended and the delete hooks
 * have run (earlier to a caller that unwinds from its own end); does not return for the caller itself. Of several
 * deleters one succeeds. ZEL_OK, or ZEL_ERROR: OBJECT_DELETED (unknown, or another deleter was first),
 * OBJECT_UNAVAILABLE (the caller itself, while delete-safe). */
int taskDelete(zelTaskId tid);
/* The same without regard to delete safety. */
int taskDeleteForce(zelTaskId tid);
/* Ends the task's thread and starts it again from its entry routine, with the same arguments; a task that restarts
 * itself is started by the exception task and does not return from here. Its safe count is kept, its task lock is not.
 * ZEL_OK, or ZEL_ERROR: unknown (also: deleted meanwhile), OBJECT_UNAVAILABLE (itself, without an exception task),
 * NOT_ENOUGH_MEMORY. */
int taskRestart(zelTaskId tid);

/* Makes the calling task delete-safe, and takes that back; the calls nest. A task whose deletion or restart was decided
 * before ends in taskSafe. taskUnsafe may block: where deleters wait, the last one hands the task over to them, and
 * does not return then; a C++ destructor that calls it is noexcept(false). ZEL_OK. */
int taskSafe(void);
int taskUnsafe(void);

/* Hooks run for each task that is deleted or returns, the newest first, in the deleter's thread (after the end of the
 * task's own) or at the end of the task itself. No lock is held; the task can still be described. 0, or as the result:
 * DELETE_HOOK_TABLE_FULL (63 hooks), DELETE_HOOK_NOT_FOUND. A hook may stand in the table several times. */
int taskDeleteHookAdd(zelDeleteHook hook);
int taskDeleteHookDelete(zelDeleteHook hook);
/* Does nothing: the table is clear from the start. */
void taskDeleteHookInit(void);

/* ---- Running ---- */

/* Stops a task until taskResume; does not count. It does nothing more when the call returns (at most a second later,
 * which only a task that blocks SIGRTMAX - 1 needs); a task that waits in the kernel takes nothing until it is resumed.
 * A task that was not activated only gets the mark. ZEL_OK, or ZEL_ERROR: unknown. */
int taskSuspend(zelTaskId tid);
/* Resuming a task that runs is fine. ZEL_OK, or ZEL_ERROR: unknown, OBJECT_DELETED (not activated). */
int taskResume(zelTaskId tid);
/* Sleeps `ticks` of 20 ms; 0 or less yields. Clears the task's whole state word at the end. May block; ZEL_OK. */
int taskDelay(int ticks);

/* The kernel priority, 0 to 255; an illegal one as in taskSpawn. Takes the place of a boost or of an inherited
 * priority. ZEL_OK, or ZEL_ERROR: unknown. */
int taskPrioritySet(zelTaskId tid, int priority);
int taskPriorityGet(zelTaskId tid, int *priority);
/* Boosts the calling task above all priorities until as many unlocks; it excludes nobody. An unlock at count 0 gives
 * the task its own priority back, too, in place of an inherited one. ZEL_OK. */
int taskLock(void);
int taskUnlock(void);

/* ---- Inspection; none of these blocks ---- */

/* The calling task; 0 in a thread that is no task. */
zelTaskId taskIdSelf(void);
int taskIdVerify(zelTaskId tid);
/* Stores the ids of at most `maxIds` tasks, in order of creation; how many. */
int taskIdListGet(zelTaskId ids[], int maxIds);
/* The task's own copy of its name, valid while the task exists; null when it has none or is unknown. */
char *taskName(zelTaskId tid);
/* The oldest task of that name, or -1: unknown. */
zelTaskId taskNameToId(const char *name);
/* The control block, valid while the task exists; null when unknown. */
zelTcb *taskTcb(zelTaskId tid);
/* Clears the description, then fills it; the name is the task's own copy. ZEL_OK, or ZEL_ERROR: unknown. */
int taskInfoGet(zelTaskId tid, zelTaskDesc *desc);
/* 1 or 0; 0 also when unknown. */
int taskIsReady(zelTaskId tid);
int taskIsSuspended(zelTaskId tid);

/* ==== Semaphores ================================================================================================== */

/* Binary, counting and mutual-exclusion semaphores. An id is never given out again while its slot's generation has not
 * gone round (4194304 times), so the id of a deleted semaphore is refused. At most 2304 live at a time in a process.
 * Calls serialise themselves. */

/* Options. In order of arrival only the task that has waited longest is served; in priority order every task that was
 * woken may take, so a low one is not held up by a high one that is suspended. */
#define ZEL_SEM_FIFO 0x0
#define ZEL_SEM_PRIORITY 0x1
/* Mutexes only: the owner cannot be deleted with taskDelete; the owner runs at the priority of a higher waiter until
 * the last give of any such mutex. */
#define ZEL_SEM_DELETE_SAFE 0x4
#define ZEL_SEM_INVERSION_SAFE 0x8

/* An id, or 0 with ZEL_ERR_NOT_ENOUGH_MEMORY. A binary semaphore starts with one token unless `initialState` is 0; it
 * has no ceiling, given twice it can be taken twice. A counting one may start below 0. They keep only
 * ZEL_SEM_PRIORITY. */
zelSemId semBCreate(int options, int initialState);
zelSemId semCCreate(int options, int initialCount);
/* A mutex, free. Its owner may take it again and then gives it as often; nobody else can give it. A task that ends
 * keeps the mutexes it owns. */
zelSemId semMCreate(int options);

/* Takes a token, waiting at most `timeoutTicks`; may block, and is a cancellation point on entry. A negative time-out
 * other than WAIT_FOREVER has passed already. Errors: ZEL_ERR_OBJECT_UNAVAILABLE without waiting, ZEL_ERR_TIMEOUT,
 * ZEL_ERR_INVALID_OBJECT_ID also when the semaphore is deleted meanwhile. A flush ends the wait with ZEL_OK and without
 * a token. */
int semTake(zelSemId id, int timeoutTicks);
/* Gives a token. Never waits, but for the last give of a delete-safe mutex, which lets waiting deleters go first and
 * may be where the caller ends, as taskUnsafe. ZEL_ERR_INVALID_SEM_OPERATION: a mutex that the caller does not own; the
 * attempt is counted. */
int semGive(zelSemId id);
/* Ends the wait of every task that waits now, and returns when they have left. ZEL_ERR_INVALID_SEM_OPERATION: a mutex.
 * May block. */
int semFlush(zelSemId id);
/* Ends the id at once and every wait for it with an error, and returns when the waiters have left. An owner that
 * deletes its mutex leaves its delete-safe section; another task's is left as it is. May block. */
int semDelete(zelSemId id);
/* Prints the semaphore's fields. */
int semInfo(zelSemId id);

/* ==== Message queues ============================================================================================== */

/* Bounded queues of messages of bounded length, copied in and out, between the tasks of a process. An id is an address,
 * looked up before it is used: any other address is refused, but that of a deleted queue may come back for a new one.
 * At most 8192 queues live at a time. Calls serialise themselves. */

#define ZEL_MSG_NORMAL 0
#define ZEL_MSG_URGENT 1
/* In which order waiting tasks are served, as for semaphores. */
#define ZEL_MSGQ_FIFO 0
#define ZEL_MSGQ_PRIORITY 1

/* A queue for `maxMsgs` messages of at most `maxMsgLength` bytes; null with ZEL_ERR_NOT_ENOUGH_MEMORY. A queue of no
 * messages takes one only while a receiver waits. */
zelMsgQId msgQCreate(int maxMsgs, int maxMsgLength, int options);
/* Ends every wait with ZEL_ERR_OBJECT_DELETED, returns when the waiters have left, and frees the queue with what it
 * holds. May block. Errors of this and the following calls: ZEL_ERR_INVALID_OBJECT_ID, and ZEL_ERR_OBJECT_DELETED while
 * a deletion still waits. */
int msgQDelete(zelMsgQId queue);
/* Copies a message to the tail, or to the head when `priority` is ZEL_MSG_URGENT; waits at most `timeoutTicks` for
 * room. Errors, in this order: as above, ZEL_ERR_INVALID_MSG_LENGTH, ZEL_ERR_OBJECT_UNAVAILABLE without waiting,
 * ZEL_ERR_TIMEOUT. May block; a cancellation point on entry. */
int msgQSend(zelMsgQId queue, const char *buffer, uint32_t nBytes, int timeoutTicks, int priority);
/* Copies the oldest message to `buffer`: its length, or ZEL_ERROR. `maxNBytes` must be at least the queue's longest
 * message, whatever waits there, else ZEL_ERR_INVALID_MSG_LENGTH. Otherwise as msgQSend. */
int msgQReceive(zelMsgQId queue, char *buffer, uint32_t maxNBytes, int timeoutTicks);
/* Messages now held. */
int msgQNumMsgs(zelMsgQId queue);
/* Prints a line for each queue. */
int msgQInfo(void);

/* ==== Byte rings ================================================================================================== */

/* A ring of bytes between one writer and one reader, in different tasks, without a lock. Create, flush and delete are
 * for one task alone; rngBufPut, rngMoveAhead and rngPutAhead are the writer's, rngBufGet is the reader's. Nothing is
 * checked, nothing blocks. */

/* A ring that holds `nBytes`; null when memory is short or the size is negative. */
zelRingId rngCreate(int nBytes);
void rngDelete(zelRingId ring);
void rngFlush(zelRingId ring);
/* The bytes moved: as many as fit, or as are there. */
int rngBufPut(zelRingId ring, const char *buffer, int nBytes);
int rngBufGet(zelRingId ring, char *buffer, int maxBytes);
int rngIsEmpty(zelRingId ring);
int rngIsFull(zelRingId ring);
int rngFreeBytes(zelRingId ring);
int rngNBytes(zelRingId ring);
/* Puts a byte `offset` places behind the next one to write, where nobody sees it until rngMoveAhead has written `n`
 * bytes at once. Places are counted round the ring; neither looks whether there is room. */
void rngMoveAhead(zelRingId ring, int n);
void rngPutAhead(zelRingId ring, char byte, int offset);

/* ==== Ticks, watchdogs, interval timers =========================================================================== */

/* A tick is 20 ms. The counter is computed from the monotonic clock when it is read, plus an offset; it starts near the
 * host's uptime. */

/* The offset: added when the sign is 0, subtracted when it is -1. */
extern uint64_t vxAbsTicksAdd;
extern int32_t vxAbsTicksSign;

/* 50. */
int sysClkRateGet(void);
/* The tick counter; both are the same. */
uint64_t tick64Get(void);
uint64_t zelTickGet(void);
/* Makes the counter read (high << 32) + low, or `value`, now. */
void tick64Set(uint32_t high, uint32_t low);
void tickSet(uint32_t value);

/* Watchdogs: one call each, by the exception task at its next pass, once a tick. No kernel lock is held; the routine
 * may start, cancel, delete and create watchdogs, itself included, but while it waits all others wait too. A pass ends
 * early when a routine deletes the watchdog that is next; the others have their turn in the next pass. */
typedef void (*zelWdogRoutine)(intptr_t parameter);
/* Null with NOT_ENOUGH_MEMORY. */
zelWdogId wdCreate(void);
/* The watchdog fires at the next pass: `delayTicks` is not used. On one that runs, only routine and parameter are
 * replaced. A null routine is never called. ZEL_OK, or ZEL_ERROR: unknown. */
int wdStart(zelWdogId watchdog, int delayTicks, zelWdogRoutine routine, intptr_t parameter);
/* ZEL_OK, also for one that does not run, or ZEL_ERROR: unknown. A routine that is being called is not waited for. */
int wdCancel(zelWdogId watchdog);
int wdDelete(zelWdogId watchdog);

/* Interval timers: counted down by the timer task once a second, so that n seconds take more than n - 1. The routine is
 * called as those of watchdogs are, with the timer and its argument. */
typedef void (*zelIntervalRoutine)(zelIntervalTimerId timer, intptr_t argument);
/* ZEL_OK; timers may be created before, too. */
int vx2bsdTimerLibInit(void);
/* Null with NOT_ENOUGH_MEMORY. */
zelIntervalTimerId vx2bsdTimerCreate(void);
/* All: ZEL_OK, or ZEL_ERROR: unknown. `seconds` of 0 or less count as 1; bit 0 of `flags` makes the timer periodic. A
 * periodic timer without a routine stops when it runs out. Connect replaces what is called, SetTime the rest. */
int vx2bsdTimerConnect(zelIntervalTimerId timer, zelIntervalRoutine routine, intptr_t argument);
int vx2bsdTimerStart(zelIntervalTimerId timer, int seconds, zelIntervalRoutine routine, intptr_t argument, int flags);
int vx2bsdTimerSetTime(zelIntervalTimerId timer, int seconds, int flags);
int vx2bsdTimerCancel(zelIntervalTimerId timer);
int vx2bsdTimerDelete(zelIntervalTimerId timer);

/* One pass over the watchdogs, and over the interval timers; the service tasks call them, and simulations do. */
void process_timer_list(void);
void process_vx2bsd_timer_list(void);

/* ==== Timer library ===============================================================================================
 *
 * Timers with a delay, for tasks: a task owns a timer head, keeps its timers there in the order of their expiry, and
 * calls zelProcTimers from its own loop, at best once a tick; that calls the callbacks of the timers that are due. A
 * head without a guard belongs to one task. With a guard, other tasks may create, set, enable, disable and delete its
 * timers meanwhile; the calls then wait for each other, and are cancellation points on entry. The guard is not held
 * during a callback, which may do all of this, too, its own timer included. A task that leaves in a callback leaves
 * its timer unlinked.
 *
 * A timer is linked, and fires when it is due, from its creation, setting or enabling until it fires or is disabled. A
 * periodic one is linked again after its callback, with the callback that fired, when it is still enabled and not
 * linked then: one that its own callback set keeps what was set, unless that unlinked it again. Calls return 0 unless
 * described otherwise, or -1 without effect when the head, the timer or the callback is null, the head is destroyed, or
 * its guard was deleted; those that create return null.
 */

/* Time in ticks, high word first. */
typedef struct {
    uint32_t high;
    uint32_t low;
} zelTick_t;

typedef struct zelTimer zelTimer;
typedef struct zelTmrHead zelTmrHead;
typedef void (*zelTmrCb)(intptr_t argument);

/* The type of a timer: any other value than this one fires once. */
#define ZEL_TIMER_PERIODIC 3

/* Where a head's records come from: `size` bytes, aligned for pointers, or null; what follows is what the timer is
 * created with. And where they go. Neither is called with the guard held. */
typedef void *(*zelTmrAllocFn)(size_t size, zelTmrCb callback, intptr_t argument, uint32_t seconds, uint32_t ticks,
                               int type, zelTmrHead *head);
typedef void (*zelTmrFreeFn)(void *record);

#define ZEL_TMR_TREES 64

/* Supplied by the caller, who may change the limit; the rest belongs to the library. */
struct zelTmrHead {
    zelTimer *trees[ZEL_TMR_TREES]; /* each for the expiries that have its index as remainder */
    zelSemId guard;                 /* 0 without one */
    uint32_t limit;                 /* the most callbacks of one call; 0 for any number */
    zelTmrAllocFn allocRoutine;
    zelTmrFreeFn releaseRoutine;
    uint32_t linked;   /* timers in the trees */
    uint64_t earliest; /* none of them expires before this tick */
    zelTimer *firing;  /* those whose callback runs */
};

/* Makes an empty head; null routines mean zelTimerLibMalloc and zelTimerLibFree, which use the checking allocator. -1
 * also when the guard, a semaphore, cannot be had. */
int zelTmrHeadInit(zelTmrHead *head, zelTmrAllocFn allocRoutine, zelTmrFreeFn releaseRoutine, int withGuard,
                   uint32_t limit);
/* Deletes the guard and clears the head. Timers that were not flushed are disabled but not released: their owner may
 * enable them in a head that was made since, delete them there when it has the same release routine, or release them.
 * Records that are linked must be there until then. A guard that is held is forced open: no other task may be inside a
 * call for the head, or begin one before the head is made again; one that waits for the guard has it before, or fails.
 * May block. */
int zelTmrHeadDestroy(zelTmrHead *head);
/* Deletes every timer that is linked, or that comes back after the callback which runs. */
int zelTmrFlushAll(zelTmrHead *head);
/* 1 when no timer is linked, the head is null or destroyed, or its guard was deleted; else 0. */
int zelTmrTreeEmpty(zelTmrHead *head);

/* A new timer that calls callback(argument) after `seconds` and `ticks`; it is counted from the tick that has begun.
 * Null also without memory. */
zelTimer *zelTimerCreate(zelTmrCb callback, intptr_t argument, uint32_t seconds, int type, zelTmrHead *head);
zelTimer *zelTickTimerCreate(zelTmrCb callback, intptr_t argument, uint32_t seconds, uint32_t ticks, int type,
                             zelTmrHead *head);
/* Starts a timer, linked or not, with a new period and callback; argument and type stay. zelTimerSet is for whole
 * seconds: it sets the ticks to 0. */
int zelTimerSet(zelTimer *timer, uint32_t seconds, zelTmrCb callback, zelTmrHead *head);
int zelTickTimerSet(zelTimer *timer, uint32_t seconds, uint32_t ticks, zelTmrCb callback, zelTmrHead *head);
/* Enabling starts the timer with the period it has; -1 when it is linked already. */
int zelTimerEnable(zelTimer *timer, zelTmrHead *head);
int zelTimerDisable(zelTimer *timer, zelTmrHead *head);
/* Unlinks and releases the timer. Also a one-shot timer that fired stays the owner's until this. */
int zelTimerDelete(zelTimer *timer, zelTmrHead *head);
/* The steps of the calls above: counts the expiry from now and puts the timer in its place, -1 when it is linked
 * already; and takes it out. A periodic timer that is taken out in its own callback comes back after it. */
int zelTimerLink(zelTimer *timer, zelTmrHead *head);
int zelTimerUnlink(zelTimer *timer, zelTmrHead *head);

/* Calls the callbacks of the timers that are due now, in the order of their expiry, those of one tick in the order of
 * their records' addresses; how many. What becomes due meanwhile waits for the next call; a periodic timer counts its
 * next period from the end of its callback. One with a period of 0 fires again and again until the tick has passed.
 * One task at a time calls this for a head. -1 for a null head only: one that is destroyed, or whose guard was deleted,
 * has nothing due. */
int zelProcTimers(zelTmrHead *head);
/* The same with the time read again after each callback, so that it ends when nothing is due any more, or after
 * `maxFired` callbacks or as many as the head's limit, whichever is less and not 0; with neither, a periodic timer with
 * a period of 0 keeps it for ever. Once more than `yieldAfter` callbacks were called, it yields after each, unless that
 * is 0 or `thread` is null. */
int zelProcTimersThread(zelTmrHead *head, uint32_t yieldAfter, uint32_t maxFired, void *thread);
/* Weak; does nothing. A library of cooperative threads defines it. */
void zelThreadYield(void *thread);

/* The order of timers: negative, 0 or positive as `a` comes before, is, or comes after `b`. Null comes first. */
int zelTmrCompare(const zelTimer *a, const zelTimer *b);
void *zelTimerLibMalloc(size_t size, zelTmrCb callback, intptr_t argument, uint32_t seconds, uint32_t ticks, int type,
                        zelTmrHead *head);
void zelTimerLibFree(void *record);

/* ---- The timer tick ---- */

/* Timers count the tick counter plus an offset of their own. */
extern uint64_t zelTimerTickOffset;
uint64_t zelTimerTickGet(void);
/* Makes the timer tick read (high << 32) + low now, and prints it on standard output. Timers that are linked keep
 * their expiry. */
void zelTimerTickSet(uint32_t high, uint32_t low);
/* Sets it to the number that a file begins with, decimal, 0x hexadecimal or 0 octal, and says so on standard output;
 * does nothing when the file cannot be read. */
void zelTimerInitTick(const char *path);

/* ---- Arithmetic of ticks and seconds ----
 *
 * 0, or -1: `out` is null, the divisor is 0 (both leave `out` alone), or the result has overflown (`out` holds its low
 * bits). A difference is the distance, whichever operand is larger. A product counts as overflown when it is smaller
 * than an operand, as 0 times 5 is, and an overflow that leaves it larger than both passes. */
int zeltick_add_tick(zelTick_t a, zelTick_t b, zelTick_t *out);
int zeltick_sub_tick(zelTick_t a, zelTick_t b, zelTick_t *out);
int zeltick_mul_tick(zelTick_t a, zelTick_t b, zelTick_t *out);
int zeltick_div_tick(zelTick_t a, zelTick_t b, zelTick_t *out);
int zeltick_add_sec(uint32_t a, uint32_t b, uint32_t *out);
int zeltick_sub_sec(uint32_t a, uint32_t b, uint32_t *out);
int zeltick_mul_sec(uint32_t a, uint32_t b, uint32_t *out);
int zeltick_div_sec(uint32_t a, uint32_t b, uint32_t *out);
/* The seconds in a number of ticks. */
uint64_t zeltick_to_sec(uint32_t high, uint32_t low);
/* The tick counter in seconds; all ones once its high word is above 49. */
uint32_t zelSecGet(void);

/* Sleeps `seconds` and (`milliseconds` modulo 1000) milliseconds. A signal ends the sleep unless `resumeOnSignal` is
 * non-zero; a suspension of the task does not. 0, or -1 with EINTR. Blocks; a cancellation point. */
int zelSleep(uint32_t seconds, uint32_t milliseconds, int resumeOnSignal);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
