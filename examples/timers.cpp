// A task whose loop is driven by its timers: it greets a neighbour every 100 ms and takes it for dead when there was no
// answer for half a second. The neighbour of this example answers three times.
#include <cstdio>

#include "zel/kernel.h"

using Word = intptr_t;
static zelTmrHead timers;
static zelTimer *silence;
static bool isAlive = true;

static void takeForDead(Word) {
    puts("the neighbour is dead");
    isAlive = false;
}

static void greet(Word neighbour) {
    static int greetings = 0;
    if (++greetings > 3) return;
    printf("neighbour %d answers greeting %d\n", static_cast<int>(neighbour), greetings);
    zelTickTimerSet(silence, 0, 25, takeForDead, &timers);  // starts anew
}

static int watch(Word finished, Word, Word, Word, Word, Word, Word, Word, Word, Word) {
    zelTmrHeadInit(&timers, nullptr, nullptr, 0, 0);
    zelTickTimerCreate(greet, 7, 0, 5, ZEL_TIMER_PERIODIC, &timers);
    silence = zelTickTimerCreate(takeForDead, 0, 0, 25, 0, &timers);
    while (isAlive) {
        taskDelay(1);
        zelProcTimers(&timers);
    }
    zelTimerDelete(silence, &timers);  // it has fired: no longer in the head
    zelTmrFlushAll(&timers);
    return semGive(static_cast<zelSemId>(finished));
}

int main() {
    vx2bsdLibInit();
    const zelSemId finished = semBCreate(ZEL_SEM_FIFO, 0);
    taskSpawn("tWatch", 100, 0, 0, watch, static_cast<Word>(finished), 0, 0, 0, 0, 0, 0, 0, 0, 0);
    return semTake(finished, 60 * sysClkRateGet());
}
