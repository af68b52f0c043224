// Requests that are sent again until they are answered: each waits on a timer of one wheel.
#include <cstdio>

#include "zel/containers.h"

struct Request {
    zelcwTimer timer;  // first, for the wheel
    char name;
    int attempts;
};

static zelcwTimerCB *wheel;
static constexpr uint32_t patience = 2;  // ticks
static constexpr int mostAttempts = 3;

static void send(Request *request) {
    printf("  send %c, attempt %d\n", request->name, ++request->attempts);
    zelcwStartTimer(wheel, request, patience);
}

static void giveUp(Request *request) {
    printf("  give up %c\n", request->name);
    zelcwFreeTimer(wheel, request);
}

static void onExpiry(void *timer) {
    auto *request = static_cast<Request *>(timer);
    request->attempts < mostAttempts ? send(request) : giveUp(request);
}

static Request *ask(char name) {
    auto *request = static_cast<Request *>(zelcwGetTimer(wheel));
    request->name = name;
    request->attempts = 0;
    send(request);
    return request;
}

static void answered(Request *request) {
    printf("  answer to %c\n", request->name);
    zelcwFreeTimer(wheel, request);
}

int main() {
    wheel = zelcwTimerInit(16, 4, 4, nullptr, nullptr, onExpiry, nullptr, 0, sizeof(Request));
    Request *a = ask('A');
    ask('B');
    for (int tick = 1; zelcwTimerRetNext(wheel) != -1; ++tick) {
        printf("tick %d\n", tick);
        zelcwTimerTick(wheel);
        if (tick == 4) answered(a);
    }
    zelcwTimerUnInit(wheel);
}
