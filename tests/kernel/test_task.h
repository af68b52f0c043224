// Tasks for the tests of the kernel's objects: a body that runs in a task of its own, and what can be seen of it.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <functional>
#include <utility>

#include "kernel/task.h"
#include "tests/support/eventually.h"
#include "zel/kernel.h"

namespace zel::test {

constexpr double patience = 30;

// Runs `body` in a task; deletes the task at the end when it still runs.
class TestTask {
public:
    explicit TestTask(std::function<void()> body, int priority = 100) : body_(std::move(body)) {
        id_ = taskSpawn(nullptr, priority, 0, 0, run, reinterpret_cast<intptr_t>(this), 0, 0, 0, 0, 0, 0, 0, 0, 0);
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
    // Whether the task comes to pend on an object.
    bool pends() const {
        return eventually(patience, [&] { return isPending(); });
    }
    bool isPending() const {
        return seen([](const zelTcb &tcb) { return (tcb.state & ZEL_TASK_PENDING) != 0; });
    }
    int currentPriority() const {
        return seen([](const zelTcb &tcb) { return tcb.currentPriority; });
    }
    std::uint32_t deletersWaiting() const {
        return seen([](const zelTcb &tcb) { return tcb.deletersWaiting; });
    }
    void remove() {
        if (!hasEnded_.exchange(true)) taskDeleteForce(id_);
    }

private:
    static int run(intptr_t self, intptr_t, intptr_t, intptr_t, intptr_t, intptr_t, intptr_t, intptr_t, intptr_t,
                   intptr_t) {
        auto &task = *reinterpret_cast<TestTask *>(self);
        task.body_();
        task.hasEnded_ = true;
        return 0;
    }
    template <class Look>
    auto seen(Look look) const -> decltype(look(std::declval<const zelTcb &>())) {
        const zelTcb *tcb = taskTcb(id_);
        if (tcb == nullptr) return {};  // it has ended
        const Lock list(kernel::taskListLock);
        return look(*tcb);
    }

    std::function<void()> body_;
    std::atomic<bool> hasEnded_{false};
    zelTaskId id_ = -1;
};

}  // namespace zel::test
