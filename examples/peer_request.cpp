// A request to a task of the peer route processor. Two processes play the two, each with an address and shared memory
// of its own. On a switch zelircd is the link service; here a task that carries messages stands in for it.
#include <sys/wait.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "zel/irc.h"
#include "zel/kernel.h"
#include "zel/platform.h"

using Word = intptr_t;
constexpr int asker = 61, shouter = 76;  // two services
constexpr uint32_t messageType = 0x51, transaction = 1;

// The address of this process and its peer, 127.x.y.1 and 127.x.y.2.
static uint32_t addressOf(int which) {
    return 127u << 24 | (static_cast<uint32_t>(getpid()) & 0xffff) << 8 | static_cast<uint32_t>(which);
}

// The task on the peer: answers in capitals, in place.
static int answerOnce(uint32_t address, int isReady) {
    uint8_t message[ZEL_IRC_MAX_MESSAGE];
    zelPlatformSetIpcAddress(address);
    const int key = zelIpcOpen(shouter, 0);
    if (key == ZEL_ERROR || write(isReady, "!", 1) != 1) return 1;
    const int length = zelIpcRecv(static_cast<uint32_t>(key), message, sizeof message, 10, 0, 0);
    for (int i = ZEL_IRC_MIN_MESSAGE; i < length; ++i) message[i] = static_cast<uint8_t>(toupper(message[i]));
    const int result = zelIpcReply(static_cast<uint32_t>(key), message, length);
    zelPlatformUnlinkSegments();
    return result == ZEL_OK ? 0 : 1;
}

static int carry(Word key, Word, Word, Word, Word, Word, Word, Word, Word, Word) {
    uint8_t message[ZEL_IRC_MAX_MESSAGE];
    zelIrcMessage parsed;
    for (;;) {
        const int length =
            zelIpcRecv(static_cast<uint32_t>(key) | ZEL_IPC_QUEUE_TIMER, message, sizeof message, WAIT_FOREVER, 0, 0);
        if (length > 0 && zelIrcParse(message, length, &parsed) == 0)
            zelIrcForward(static_cast<uint32_t>(key), message, length, &parsed);
    }
}

static void setLink(uint32_t status, uint32_t peer) {
    zelIrcLinkState state = {};
    state.status = status;
    state.peerAddress = peer;
    zelIrcSetLinkState(&state);
}

static int ask(uint32_t key, const char *question) {
    uint8_t message[200] = {}, answer[200] = {};
    const auto length = static_cast<uint32_t>(strlen(question)) + 1;
    Irc_setIrcHeader(message + ZEL_IRC_HDR_OFFSET, key, ZEL_IRC_REQUEST, shouter, 0, length);
    memcpy(message + ZEL_IRC_MIN_MESSAGE, question, length);
    int error = 0;
    if (zelIrcPeerRpmSendWait(key, asker, 0, message, static_cast<int>(ZEL_IRC_MIN_MESSAGE + length), 1, messageType,
                              answer, sizeof answer, 10, transaction, &error) == ZEL_ERROR)
        return error;
    printf("%s -> %s\n", question, reinterpret_cast<char *>(answer) + ZEL_IRC_MIN_MESSAGE);
    return 0;
}

int main() {
    const uint32_t peer = addressOf(2);
    int ready[2];
    char prefix[32], byte;
    snprintf(prefix, sizeof prefix, "example%d", static_cast<int>(getpid()));
    zelPlatformSetShmPrefix(prefix);
    if (pipe(ready) != 0) return 1;
    const pid_t child = fork();  // before anything of the library runs
    if (child == 0) return answerOnce(peer, ready[1]);
    zelPlatformSetIpcAddress(addressOf(1));

    vx2bsdLibInit();
    zelTraceInit();
    const int service = zelIpcOpen(ZEL_IRC_SERVICE, 0), key = zelIpcOpen(asker, 0);
    zelIpcOpenTmrQueue(static_cast<uint32_t>(service));
    taskSpawn("tCarry", 100, 0, 0, carry, service, 0, 0, 0, 0, 0, 0, 0, 0, 0);
    setLink(ZEL_IRC_LINK_UP, peer);

    int status = read(ready[0], &byte, 1) == 1 ? ask(static_cast<uint32_t>(key), "hello, peer") : 1;
    setLink(ZEL_IRC_LINK_DOWN, peer);
    if (ask(static_cast<uint32_t>(key), "are you there?") == ENOLINK) puts("the link is down");
    waitpid(child, nullptr, 0);
    zelPlatformUnlinkSegments();
    return status;
}
