// Child processes of tests: the test program starts itself again with `--child NAME ARGS...` and runs the body that was
// registered under that name. Children die with the parent.
//
//     ZEL_CHILD(holder) { ...; return 0; }          // int argc, char **argv: what follows the name
//     Child child = Child::start("holder", {"5"});
//     EXPECT_EQ(child.wait(), 0);
#pragma once

#include <sys/types.h>

#include <string>
#include <utility>
#include <vector>

namespace zel::test {

using ChildBody = int (*)(int argc, char **argv);

struct ChildRegistration {
    ChildRegistration(const char *name, ChildBody body);
};

class Child {
public:
    static Child start(const std::string &name, const std::vector<std::string> &args = {});
    Child(Child &&other) : pid_(other.pid_) { other.pid_ = -1; }
    Child(const Child &) = delete;
    Child &operator=(const Child &) = delete;
    Child &operator=(Child &&other) {
        std::swap(pid_, other.pid_);
        return *this;
    }
    ~Child();  // kills and reaps a child that still runs

    pid_t pid() const { return pid_; }
    void signal(int number) const;
    static constexpr int stillRunning = 512;
    // Waits for the end: the exit code, or 256 + the signal's number. A child that takes longer than `seconds` is
    // killed, and the result is stillRunning.
    int wait(int seconds = 30);

private:
    explicit Child(pid_t pid) : pid_(pid) {}
    pid_t pid_;
};

}  // namespace zel::test

#define ZEL_CHILD(name)                                                                \
    static int childBody_##name(int argc, char **argv);                                \
    static const zel::test::ChildRegistration childOf_##name(#name, childBody_##name); \
    static int childBody_##name([[maybe_unused]] int argc, [[maybe_unused]] char **argv)
