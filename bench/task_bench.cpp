// Tasks and ticks against plain threads and the host's clock.
#include <pthread.h>
#include <sched.h>

#include <atomic>
#include <ctime>

#include "bench/peers/self.h"
#include "bench/support/row.h"
#include "zel/kernel.h"

namespace {

// ---- From the creation of a task to the end of its thread, as its creator sees it ----

int taskBody(intptr_t, intptr_t, intptr_t, intptr_t, intptr_t, intptr_t, intptr_t, intptr_t, intptr_t, intptr_t) {
    return 0;
}

void spawnToExit(benchmark::State &state) {
    vx2bsdLibInit();
    for (auto _ : state) {
        const zelTaskId tid = taskSpawn("bench", 100, 0, 0, taskBody, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0);
        if (tid == ZEL_ERROR) return state.SkipWithError("no task");
        while (taskIdVerify(tid) == ZEL_OK) sched_yield();
    }
}

void *threadBody(void *) {
    return nullptr;
}

void createAndJoin(benchmark::State &state) {
    for (auto _ : state) {
        pthread_t thread;
        if (pthread_create(&thread, nullptr, threadBody, nullptr) != 0) return state.SkipWithError("no thread");
        pthread_join(thread, nullptr);
    }
}

ZEL_ROW("taskSpawn to exit", "us", time).ours(spawnToExit).peer("pthread_create + join", createAndJoin, 1.15);

// ---- Who am I ----

template <class Loop>
void inTask(benchmark::State &state, Loop loop) {
    struct Work {
        benchmark::State &state;
        Loop loop;
        std::atomic<bool> isDone{false};
    } work{state, loop};
    vx2bsdLibInit();
    taskSpawn(
        "bench", 100, 0, 0,
        [](intptr_t at, intptr_t, intptr_t, intptr_t, intptr_t, intptr_t, intptr_t, intptr_t, intptr_t, intptr_t) {
            auto &mine = *reinterpret_cast<Work *>(at);
            mine.loop(mine.state);
            mine.isDone = true;
            return 0;
        },
        reinterpret_cast<intptr_t>(&work), 0, 0, 0, 0, 0, 0, 0, 0, 0);
    while (!work.isDone) {
        const timespec pause{0, 1'000'000};
        nanosleep(&pause, nullptr);
    }
}

void idSelf(benchmark::State &state) {
    inTask(state, [](benchmark::State &mine) {
        for (auto _ : mine) benchmark::DoNotOptimize(taskIdSelf());
    });
}

void threadLocal(benchmark::State &state) {
    peerSetSelf(1);
    for (auto _ : state) benchmark::DoNotOptimize(peerSelf());
}

ZEL_ROW("taskIdSelf", "ns", time).ours(idSelf).peer("thread_local of another shared library", threadLocal, 1.5, 1.0);

// ---- What time is it ----

void ticks(benchmark::State &state) {
    for (auto _ : state) benchmark::DoNotOptimize(tick64Get());
}

void clockRead(benchmark::State &state) {
    for (auto _ : state) {
        timespec time;
        clock_gettime(CLOCK_MONOTONIC, &time);
        benchmark::DoNotOptimize(time);
    }
}

ZEL_ROW("tick64Get", "ns", time).ours(ticks).peer("clock_gettime", clockRead, 1.1, 0.6);

}  // namespace
