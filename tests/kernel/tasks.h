// Tasks for tests: a task that runs a callable, a fixture that leaves no task behind, and a task that its scope owns.
#pragma once

#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <cerrno>
#include <functional>

#include "kernel/task_private.h"
#include "tests/support/eventually.h"
#include "zel/kernel.h"

namespace zel::test {

using Body = std::function<void()>;

// Bodies outlive their tasks, which may be restarted or end at any time: they are never freed.
inline intptr_t keep(Body body) {
    static std::atomic<void *> reachable{nullptr};  // also for who looks for leaks
    struct Kept {
        Body body;
        void *next;
    };
    auto *kept = new Kept{std::move(body), nullptr};
    kept->next = reachable.exchange(kept);
    return reinterpret_cast<intptr_t>(&kept->body);
}

inline int runBody(intptr_t body, intptr_t, intptr_t, intptr_t, intptr_t, intptr_t, intptr_t, intptr_t, intptr_t,
                   intptr_t) {
    (*reinterpret_cast<Body *>(body))();
    return 0;
}
inline zelTaskId spawn(Body body, const char *name = nullptr, int priority = 100) {
    return taskSpawn(name, priority, 0, 0, runBody, keep(std::move(body)), 0, 0, 0, 0, 0, 0, 0, 0, 0);
}
inline int init(zelTcb &tcb, Body body, const char *name = nullptr, int priority = 100) {
    return taskInit(&tcb, name, priority, 0, nullptr, 0, runBody, keep(std::move(body)), 0, 0, 0, 0, 0, 0, 0, 0, 0);
}

inline bool exists(zelTaskId tid) {
    return taskTcb(tid) != nullptr;
}
inline bool ends(zelTaskId tid) {
    return eventually(20, [&] { return !exists(tid); });
}
inline int taskCount() {
    zelTaskId ids[64];
    return taskIdListGet(ids, 64);
}
// A field of a task that runs; the value that a new control block has there when it has gone.
template <class T>
T field(zelTaskId tid, T zelTcb::*member) {
    const Lock list(kernel::taskListLock);
    const zelTcb *task = kernel::findTask(tid);
    return task != nullptr ? task->*member : T{};
}

// Lets others run without being a place where a task can be deleted.
inline void breathe() {
    int before = 0;
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &before);
    const timespec pause{0, 20'000};
    nanosleep(&pause, nullptr);
    pthread_setcancelstate(before, nullptr);
}

// Keeps tasks until it is opened: busy, where nothing can end them, or waiting.
class Gate {
public:
    void open() { isOpen_ = true; }
    void close() { isOpen_ = false; }
    bool isOpen() const { return isOpen_; }
    void spin() const {
        while (!isOpen_) breathe();
    }
    void wait() const {
        while (!isOpen_) taskDelay(1);
    }

private:
    std::atomic<bool> isOpen_{false};
};

class KernelTest : public testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(vx2bsdLibInit(), 0); }
    void TearDown() override {
        gate.open();
        stopServices();
        EXPECT_TRUE(eventually(20, [&] { return taskCount() == 0; })) << taskCount() << " tasks are left";
    }
    void startServices() { ASSERT_EQ(vx2bsd_start(1, 1, 0, 0), ZEL_OK); }
    static void stopServices() {
        for (const char *service : {"tExcTask", "tTimerTask"})
            if (const zelTaskId tid = taskNameToId(service); tid != ZEL_ERROR) taskDelete(tid);
    }

    Gate gate;  // opened at the end of the test; tasks that wait for it end before it goes
};

constexpr double patience = 30;

// Runs `body` in a task; deletes the task at the end when it still runs.
class TestTask {
public:
    explicit TestTask(Body body, int priority = 100)
        : id_(spawn([this, body = std::move(body)] { body(), hasEnded_ = true; }, nullptr, priority)) {
        EXPECT_GT(id_, 0);
    }
    TestTask(const TestTask &) = delete;
    TestTask &operator=(const TestTask &) = delete;
    ~TestTask() { remove(); }

    zelTaskId id() const { return id_; }
    bool hasEnded() const { return hasEnded_; }
    bool ends() const {
        return eventually(patience, [&] { return hasEnded(); });
    }
    bool isPending() const { return (field(id_, &zelTcb::state) & ZEL_TASK_PENDING) != 0; }
    // Whether the task comes to pend on an object.
    bool pends() const {
        return eventually(patience, [&] { return isPending(); });
    }
    void remove() {
        if (!hasEnded_.exchange(true)) taskDeleteForce(id_);
    }

private:
    std::atomic<bool> hasEnded_{false};
    zelTaskId id_;
};

}  // namespace zel::test

#define EXPECT_FAILS_WITH(error, call)                              \
    do {                                                            \
        errno = 0;                                                  \
        EXPECT_EQ(static_cast<intptr_t>(call), ZEL_ERROR) << #call; \
        EXPECT_EQ(errno, (error)) << #call;                         \
    } while (false)
