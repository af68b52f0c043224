/* Every public header in one C program, a platform query of its own, and a call of each floor that needs no set-up. */
#include <stdio.h>
#include <string.h>

#include "zel/containers.h"
#include "zel/ipc.h"
#include "zel/kernel.h"
#include "zel/platform.h"
#include "zel/rtm.h"
#include "zel/types.h"

/* Takes the place of the library's weak default; every trace line names the slot. */
int bcm_stk_get_local_rpm_slotid(void) {
    return 7;
}

static int expect(int holds, const char *what) {
    if (!holds) fprintf(stderr, "consumer: %s\n", what);
    return holds ? 0 : 1;
}

int main(void) {
    zelDLL list;
    zelDLLNode node;
    char buffer[8] = "";
    zelMsgQId queue = msgQCreate(1, sizeof buffer, ZEL_MSGQ_FIFO);
    int failures = 0;

    zelDLLInit(&list);
    zelDLLInsertAtFront(&list, &node);
    failures += expect(zelDLLGetFirst(&list) == &node, "the list lost its node");
    failures += expect(msgQSend(queue, "hello", 6, ZEL_NO_WAIT, ZEL_MSG_NORMAL) == ZEL_OK, "cannot send");
    failures += expect(msgQReceive(queue, buffer, sizeof buffer, ZEL_NO_WAIT) == 6, "cannot receive");
    failures += expect(strcmp(buffer, "hello") == 0, "the message changed");
    failures += expect(zelIpcGetCmdTypeName(ZEL_IPC_REQ) != NULL, "a command type has no name");
    zelTracePrintf(0, "seen from C");
    return failures;
}
