#include "programs/support/program.h"

#include <pthread.h>
#include <signal.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <ctime>

#include "zel/ipc.h"
#include "zel/kernel.h"
#include "zel/platform.h"

namespace zel::programs {
namespace {

constexpr int bodyPriority = 100;
constexpr timespec signalPoll{0, 20'000'000};
constexpr unsigned messageTypeWord = 12;

std::atomic<bool> stopping = false;
bool takesHangups = false;
std::atomic<bool> hungUp = false;
std::atomic<bool> hasEnded = false;
std::atomic<std::uint32_t> wakeKey = 0;

struct Work {
    Body body;
    int argc;
    char **argv;
    int status;
};

int bodyTask(intptr_t argument, intptr_t, intptr_t, intptr_t, intptr_t, intptr_t, intptr_t, intptr_t, intptr_t,
             intptr_t) {
    auto *work = reinterpret_cast<Work *>(argument);
    work->status = work->body(work->argc, work->argv);
    hasEnded.store(true, std::memory_order_release);
    return 0;
}

void wake() {
    const std::uint32_t key = wakeKey;
    if (key == 0) return;
    std::uint8_t header[ZEL_IPC_HDR_LEN] = {};
    zelIpcHdrSet32(header, messageTypeWord, wakeType);
    zelIpcSetTargetHeader(header, zel_sysGetIpAddr(), 0, static_cast<int>(zelIpcGetService(key)),
                          static_cast<int>(zelIpcGetInstance(key)));
    zelIpcNonGuaranteedSend(key, header, sizeof header);
}

// Waits for the body's end, and passes on what signals ask for meanwhile.
void superviseBody(const sigset_t &signals) {
    while (!hasEnded.load(std::memory_order_acquire)) {
        const int signal = sigtimedwait(&signals, nullptr, &signalPoll);
        if (signal < 0) continue;
        (signal == SIGHUP ? hungUp : stopping) = true;
        wake();
    }
}

}  // namespace

int runProgram(const char *taskName, int argc, char **argv, Body body) {
    setvbuf(stdout, nullptr, _IOLBF, 0);
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGINT);
    if (takesHangups) sigaddset(&signals, SIGHUP);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    zelPlatformInstallCrashHandler();
    if (vx2bsdLibInit() != 0 || vx2bsd_start(1, 1, 0, 0) != ZEL_OK || zelTraceInit() != ZEL_OK) {
        fprintf(stderr, "%s: the kernel layer cannot be started\n", argv[0]);
        return 1;
    }
    Work work{body, argc, argv, 1};
    if (taskSpawn(taskName, bodyPriority, 0, 0, bodyTask, reinterpret_cast<intptr_t>(&work), 0, 0, 0, 0, 0, 0, 0, 0,
                  0) == ZEL_ERROR) {
        fprintf(stderr, "%s: the task cannot be spawned\n", argv[0]);
        return 1;
    }
    superviseBody(signals);
    return work.status;
}

bool isStopping() {
    return stopping;
}

void takeHangups() {
    takesHangups = true;
}

bool wasHungUp() {
    return hungUp.exchange(false);
}

void wakeOnStop(std::uint32_t key) {
    wakeKey = key;
}

void useHeap(std::uint32_t queue) {
    swpFifoQueue[queue] = {[](std::uint32_t bytes) { return malloc(bytes); }, free};
}

double monotonicSeconds() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

}  // namespace zel::programs
