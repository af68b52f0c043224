#include "platform/process.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <string>

#include "tests/support/child.h"
#include "tests/support/eventually.h"

namespace zel::test {
namespace {

using platform::findProcessByName;
using platform::isAlive;
using platform::ProcessId;
using platform::processWithPid;
using platform::thisProcess;

// A name with what breaks a parser that stops at the first parenthesis or space.
constexpr const char *oddName = ") (Z 1 (";

ZEL_CHILD(sleeper) {
    if (argc > 0) prctl(PR_SET_NAME, argv[0]);
    pause();
    return 0;
}

ZEL_CHILD(mainThreadEnds) {
    pthread_t other;
    pthread_create(
        &other, nullptr, [](void *) -> void * { return pause(), nullptr; }, nullptr);
    pthread_exit(nullptr);
}

bool isZombie(pid_t pid) {
    std::ifstream file("/proc/" + std::to_string(pid) + "/stat");
    const std::string text{std::istreambuf_iterator<char>(file), {}};
    return text.find(") Z ", text.rfind(')')) != std::string::npos;
}

TEST(Process, NeitherZombiesNorPidsThatCameBackAreAlive) {
    Child child = Child::start("sleeper");
    const ProcessId process = processWithPid(child.pid());
    EXPECT_TRUE(isAlive(process));
    EXPECT_FALSE(isAlive({process.pid, process.startTime + 1}));
    EXPECT_FALSE(isAlive({}));
    EXPECT_FALSE(isAlive({-1, 0}));
    child.signal(SIGKILL);
    EXPECT_TRUE(eventually(10, [&] { return isZombie(child.pid()); }));
    EXPECT_FALSE(isAlive(process));
    EXPECT_EQ(processWithPid(child.pid()), ProcessId{});
    EXPECT_EQ(child.wait(), 256 + SIGKILL);
    EXPECT_FALSE(isAlive(process));
}

TEST(Process, AProcessWhoseMainThreadEndedLives) {
    Child child = Child::start("mainThreadEnds");
    const ProcessId process = processWithPid(child.pid());
    ASSERT_TRUE(eventually(10, [&] { return isZombie(child.pid()); }));
    EXPECT_TRUE(isAlive(process));
}

TEST(Process, NamesAreComparedAsFarAsTheHostKeepsThem) {
    const std::string name = oddName + std::to_string(getpid()) + "_longer_than_kept";
    Child first = Child::start("sleeper", {name}), second = Child::start("sleeper", {name});
    const pid_t lower = std::min(first.pid(), second.pid());
    EXPECT_TRUE(eventually(10, [&] { return findProcessByName(name.c_str()) == lower; }));
    EXPECT_EQ(findProcessByName((name.substr(0, 15) + "other tail").c_str()), lower);
    EXPECT_EQ(findProcessByName(name.substr(0, 14).c_str()), 0);
    EXPECT_EQ(findProcessByName(""), 0);
    const ProcessId odd = processWithPid(lower);  // the name does not shift the start time
    EXPECT_GE(odd.startTime, thisProcess().startTime);
    EXPECT_LT(odd.startTime, thisProcess().startTime + 100'000);
    EXPECT_TRUE(isAlive(odd));
}

}  // namespace
}  // namespace zel::test
