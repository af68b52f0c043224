// Two tasks exchange messages; main waits for a semaphore until they are done.
#include <cstdio>

#include "zel/kernel.h"

using Word = intptr_t;
static zelMsgQId mailbox;
static zelSemId finished;

static int speaker(Word times, Word, Word, Word, Word, Word, Word, Word, Word, Word) {
    char text[32];
    for (Word i = 1; i <= times; ++i) {
        const int length = snprintf(text, sizeof text, "message %d", static_cast<int>(i));
        msgQSend(mailbox, text, static_cast<uint32_t>(length) + 1, WAIT_FOREVER, ZEL_MSG_NORMAL);
    }
    return ZEL_OK;
}

static int listener(Word times, Word, Word, Word, Word, Word, Word, Word, Word, Word) {
    char text[32];
    while (times-- > 0 && msgQReceive(mailbox, text, sizeof text, WAIT_FOREVER) > 0)
        printf("%s received \"%s\"\n", taskName(taskIdSelf()), text);
    return semGive(finished);
}

int main() {
    vx2bsdLibInit();
    mailbox = msgQCreate(4, 32, ZEL_MSGQ_FIFO);
    finished = semBCreate(ZEL_SEM_FIFO, 0);
    taskSpawn("tListener", 100, 0, 0, listener, 3, 0, 0, 0, 0, 0, 0, 0, 0, 0);
    taskSpawn("tSpeaker", 100, 0, 0, speaker, 3, 0, 0, 0, 0, 0, 0, 0, 0, 0);
    const int result = semTake(finished, 10 * sysClkRateGet());
    puts(result == ZEL_OK ? "done" : "timed out");
    return result == ZEL_OK ? 0 : 1;
}
