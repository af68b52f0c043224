/*
 * The kernel interface: start-up, printing, assertions and logging; tasks; semaphores; message queues and byte rings;
 * ticks, watchdogs and interval timers. Each task is one POSIX thread with a control block.
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

int vx2bsdLibInit(void);
int init_system(void);
int vx2bsd_start(uint32_t startExcTask, uint32_t startTimerTask, uint32_t excPriority, uint32_t timerPriority);
int kernelTimeSlice(int32_t ticks);
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

/* State bits of a task; it is ready when (state & 0x8F) is 0. */
#define ZEL_TASK_PENDING 0x01u
#define ZEL_TASK_DELAYED 0x02u
#define ZEL_TASK_SUSPENDED 0x04u
#define ZEL_TASK_NOT_ACTIVATED 0x80u

/* Task control block. Callers of taskInit supply the memory and never touch the fields. */
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

typedef void (*zelDeleteHook)(zelTaskId tid, intptr_t arg);

zelTaskId taskSpawn(const char *name, int priority, int options, int stackSize, zelTaskEntry entry, intptr_t a1,
                    intptr_t a2, intptr_t a3, intptr_t a4, intptr_t a5, intptr_t a6, intptr_t a7, intptr_t a8,
                    intptr_t a9, intptr_t a10);
int taskInit(zelTcb *tcb, const char *name, int priority, int options, char *stackBase, int stackSize,
             zelTaskEntry entry, intptr_t a1, intptr_t a2, intptr_t a3, intptr_t a4, intptr_t a5, intptr_t a6,
             intptr_t a7, intptr_t a8, intptr_t a9, intptr_t a10);
int taskActivate(zelTaskId tid);
int taskDelete(zelTaskId tid);
int taskDeleteForce(zelTaskId tid);
int taskRestart(zelTaskId tid);
int taskSuspend(zelTaskId tid);
int taskResume(zelTaskId tid);
int taskDelay(int ticks);
int taskPrioritySet(zelTaskId tid, int priority);
int taskPriorityGet(zelTaskId tid, int *priority);
int taskLock(void);
int taskUnlock(void);
int taskSafe(void);
int taskUnsafe(void);
zelTaskId taskIdSelf(void);
int taskIdVerify(zelTaskId tid);
int taskIdListGet(zelTaskId ids[], int maxIds);
char *taskName(zelTaskId tid);
zelTaskId taskNameToId(const char *name);
zelTcb *taskTcb(zelTaskId tid);
int taskInfoGet(zelTaskId tid, zelTaskDesc *desc);
int taskIsReady(zelTaskId tid);
int taskIsSuspended(zelTaskId tid);
int taskDeleteHookAdd(zelDeleteHook hook);
int taskDeleteHookDelete(zelDeleteHook hook);
void taskDeleteHookInit(void);

/* ==== Semaphores ================================================================================================== */

#define ZEL_SEM_FIFO 0x0
#define ZEL_SEM_PRIORITY 0x1
#define ZEL_SEM_DELETE_SAFE 0x4
#define ZEL_SEM_INVERSION_SAFE 0x8

zelSemId semBCreate(int options, int initialState);
zelSemId semCCreate(int options, int initialCount);
zelSemId semMCreate(int options);
int semTake(zelSemId id, int timeoutTicks);
int semGive(zelSemId id);
int semFlush(zelSemId id);
int semDelete(zelSemId id);
int semInfo(zelSemId id);

/* ==== Message queues ============================================================================================== */

#define ZEL_MSG_NORMAL 0
#define ZEL_MSG_URGENT 1
#define ZEL_MSGQ_FIFO 0
#define ZEL_MSGQ_PRIORITY 1

zelMsgQId msgQCreate(int maxMsgs, int maxMsgLength, int options);
int msgQDelete(zelMsgQId queue);
int msgQSend(zelMsgQId queue, const char *buffer, uint32_t nBytes, int timeoutTicks, int priority);
int msgQReceive(zelMsgQId queue, char *buffer, uint32_t maxNBytes, int timeoutTicks);
int msgQNumMsgs(zelMsgQId queue);
int msgQInfo(void);

/* ==== Byte rings ================================================================================================== */

zelRingId rngCreate(int nBytes);
void rngDelete(zelRingId ring);
void rngFlush(zelRingId ring);
int rngBufPut(zelRingId ring, const char *buffer, int nBytes);
int rngBufGet(zelRingId ring, char *buffer, int maxBytes);
int rngIsEmpty(zelRingId ring);
int rngIsFull(zelRingId ring);
int rngFreeBytes(zelRingId ring);
int rngNBytes(zelRingId ring);
void rngMoveAhead(zelRingId ring, int n);
void rngPutAhead(zelRingId ring, char byte, int offset);

/* ==== Ticks, watchdogs, interval timers =========================================================================== */

extern uint64_t vxAbsTicksAdd;
extern int32_t vxAbsTicksSign;

int sysClkRateGet(void);
uint64_t tick64Get(void);
uint64_t zelTickGet(void);
void tick64Set(uint32_t high, uint32_t low);
void tickSet(uint32_t value);

typedef void (*zelWdogRoutine)(intptr_t parameter);
zelWdogId wdCreate(void);
int wdStart(zelWdogId watchdog, int delayTicks, zelWdogRoutine routine, intptr_t parameter);
int wdCancel(zelWdogId watchdog);
int wdDelete(zelWdogId watchdog);

typedef void (*zelIntervalRoutine)(zelIntervalTimerId timer, intptr_t argument);
int vx2bsdTimerLibInit(void);
zelIntervalTimerId vx2bsdTimerCreate(void);
int vx2bsdTimerConnect(zelIntervalTimerId timer, zelIntervalRoutine routine, intptr_t argument);
int vx2bsdTimerStart(zelIntervalTimerId timer, int seconds, zelIntervalRoutine routine, intptr_t argument, int flags);
int vx2bsdTimerSetTime(zelIntervalTimerId timer, int seconds, int flags);
int vx2bsdTimerCancel(zelIntervalTimerId timer);
int vx2bsdTimerDelete(zelIntervalTimerId timer);

/* One pass over the watchdogs, and over the interval timers; the service tasks call them, and simulations do. */
void process_timer_list(void);
void process_vx2bsd_timer_list(void);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
