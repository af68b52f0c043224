// Entry of every test program: gives the process an IPC address and a memory prefix of its own, so that tests run side
// by side, and runs a child's body instead of the tests when asked to.
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>

#include "tests/support/child.h"
#include "tests/support/eventually.h"
#include "zel/platform.h"

extern char **environ;

namespace zel::test {
namespace {

std::map<std::string, ChildBody> &bodies() {
    static std::map<std::string, ChildBody> all;
    return all;
}

void isolate() {
    const int pid = static_cast<int>(getpid());
    char text[64];
    snprintf(text, sizeof text, "127.%d.%d.%d", 1 + (pid >> 16) % 250, (pid >> 8) & 255, 1 + (pid & 255) % 254);
    setenv("ZEL_IPC_ADDR", text, 0);
    snprintf(text, sizeof text, "zeltest%d", pid);
    setenv("ZEL_SHM_PREFIX", text, 0);
}

}  // namespace

ChildRegistration::ChildRegistration(const char *name, ChildBody body) {
    bodies()[name] = body;
}

Child Child::start(const std::string &name, const std::vector<std::string> &args) {
    std::string self = "/proc/self/exe", flag = "--child", title = name;
    std::vector<std::string> copies = args;
    std::vector<char *> argv{self.data(), flag.data(), title.data()};
    for (auto &arg : copies) argv.push_back(arg.data());
    argv.push_back(nullptr);
    pid_t pid = -1;
    EXPECT_EQ(posix_spawn(&pid, self.c_str(), nullptr, nullptr, argv.data(), environ), 0);
    return Child(pid);
}

void Child::signal(int number) const {
    if (pid_ > 0) kill(pid_, number);
}

int Child::wait(int seconds) {
    int status = 0;
    const bool ended = eventually(seconds, [&] { return waitpid(pid_, &status, WNOHANG) == pid_; });
    EXPECT_TRUE(ended) << "child " << pid_ << " did not end";
    if (!ended) {
        kill(pid_, SIGKILL);
        waitpid(pid_, &status, 0);
    }
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 256 + WTERMSIG(status);
}

Child::~Child() {
    if (pid_ <= 0) return;
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
}

}  // namespace zel::test

int main(int argc, char **argv) {
    using namespace zel::test;
    if (argc >= 3 && strcmp(argv[1], "--child") == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        const auto body = bodies().find(argv[2]);
        if (body == bodies().end()) return 127;
        return body->second(argc - 3, argv + 3);
    }
    isolate();
    testing::InitGoogleTest(&argc, argv);
    const int result = RUN_ALL_TESTS();
    zelPlatformUnlinkSegments();
    return result;
}
