// The seam's host functions, scheduling, identity, system errors and the crash handler.
#include <errno.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <string>
#include <thread>

#include "platform/environment.h"
#include "platform/scheduling.h"
#include "platform/seam.h"
#include "tests/support/child.h"
#include "tests/support/eventually.h"
#include "zel/platform.h"

namespace zel::test {
namespace {

using platform::now;
using platform::seam;

constexpr std::uint64_t milliseconds = 1'000'000;

TEST(Seam, WaitsEndAtTheirDeadlineAndNotBefore) {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    for (const bool isSleep : {true, false}) {
        const std::uint64_t deadline = now() + 20 * milliseconds;
        EXPECT_EQ(isSleep ? seam().sleepUntil(nullptr, deadline) : seam().waitReadable(nullptr, ends[0], deadline), 0);
        EXPECT_GE(now(), deadline);
    }
    EXPECT_EQ(seam().waitReadable(nullptr, ends[0], 0), 0);  // long past: looks, and does not wait
    EXPECT_EQ(write(ends[1], "x", 1), 1);
    for (const std::uint64_t deadline : {std::uint64_t{0}, platform::forever})
        EXPECT_EQ(seam().waitReadable(nullptr, ends[0], deadline), 1);
    close(ends[0]);
    EXPECT_EQ(seam().waitReadable(nullptr, ends[0], now()), -1);
    EXPECT_EQ(errno, EBADF);
}

// What ended it.
int waitForEver(bool isSleep) {
    if (isSleep) return seam().sleepUntil(nullptr, platform::forever);
    int ends[2];
    return pipe(ends) == 0 && seam().waitReadable(nullptr, ends[0], platform::forever) == -1 ? errno : 0;
}

TEST(Seam, SignalsAndCancellationEndAWait) {
    struct sigaction action {};
    action.sa_handler = [](int) {};
    action.sa_flags = SA_RESTART;
    sigaction(SIGUSR1, &action, nullptr);
    for (bool isSleep : {true, false}) {
        std::atomic<int> error{-1};
        std::thread waiter([&] { error = waitForEver(isSleep); });
        EXPECT_TRUE(eventually(20, [&] {
            pthread_kill(waiter.native_handle(), SIGUSR1);
            return error != -1;
        }));
        waiter.join();
        EXPECT_EQ(error, EINTR);

        std::thread deleted([&] { waitForEver(isSleep); });
        pthread_cancel(deleted.native_handle());
        deleted.join();  // or never
    }
}

TEST(Scheduling, PrioritiesKeepTheirOrderOnTheHost) {
    EXPECT_EQ(platform::hostPriority(-1), 1);
    EXPECT_EQ(platform::hostPriority(252), 96);
    EXPECT_EQ(platform::hostPriority(1000), 99);
    for (int i = 0; i < 255; ++i) EXPECT_LE(platform::hostPriority(i) + (i >= 252), platform::hostPriority(i + 1)) << i;
}

// realTime: with the privilege threads get what was asked for; without it nothing fails.
ZEL_CHILD(realTime) {
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    if (platform::setAttributes(attributes, SCHED_RR, 100) != 0) return 1;
    pthread_t thread;
    const auto body = [](void *) -> void * { return pause(), nullptr; };
    if (pthread_create(&thread, &attributes, body, nullptr) != 0) return 2;
    if (platform::applyPriority(thread, SCHED_FIFO, 254) != 0) return 3;
    int policy = -1;
    sched_param parameters{};
    pthread_getschedparam(thread, &policy, &parameters);
    if (argc > 0 && platform::isRealTime()) return 4;
    if (sched_getscheduler(0) != SCHED_OTHER) return 5;  // the caller keeps its own
    if (!platform::isRealTime()) return policy == SCHED_OTHER ? 0 : 6;
    return policy == SCHED_FIFO && parameters.sched_priority == 98 ? 0 : 7;
}

TEST(Scheduling, RealTimeIsBestEffort) {
    EXPECT_EQ(Child::start("realTime", {"off"}).wait(), 0);
    unsetenv("ZEL_REALTIME");
    EXPECT_EQ(Child::start("realTime").wait(), 0);
}

TEST(Identity, AddressAndPrefixAreFixedAtFirstUse) {
    const auto fails = [](int result, int error) { return result == -1 && errno == error; };
    for (const char *bad : {"", "a/b", "12345678901234567890123456789012"})
        EXPECT_TRUE(fails(zelPlatformSetShmPrefix(bad), EINVAL));
    EXPECT_EQ(zelPlatformSetShmPrefix("own"), 0);
    for (const std::uint32_t address : {0x7f070809u, 0x7f010203u}) EXPECT_EQ(zelPlatformSetIpcAddress(address), 0);
    EXPECT_EQ(platform::segmentName("sys"), "/own-127.1.2.3-sys");
    EXPECT_TRUE(fails(zelPlatformSetIpcAddress(0x7f07080b), EBUSY));
    EXPECT_TRUE(fails(zelPlatformSetShmPrefix("other"), EBUSY));
}

TEST(Identity, AnAddressThatIsNoneIsAllOnes) {
    setenv("ZEL_IPC_ADDR", "127.0.0.1.5", 1);
    EXPECT_EQ(zelPlatformIpcAddress(), 0xffffffffu);
}

TEST(SystemErrors, AFloodIsOneLineAndTheLast64AreKept) {
    zelSysErrRecord records[70];
    EXPECT_EQ(zelSysErrGetLast(records, 70), 0);
    testing::internal::CaptureStderr();
    for (int i = 0; i < 100; ++i)
        zelSysErr(1, 2, i % 2 == 0 ? 0x8006 : 0x8007, 2, static_cast<intptr_t>(i), static_cast<intptr_t>(0xabc));
    zelSysErr(1, 2, 0x9000, 99, intptr_t{1}, intptr_t{2}, intptr_t{3}, intptr_t{4}, intptr_t{5}, intptr_t{6},
              intptr_t{7}, intptr_t{8});
    const std::string text = testing::internal::GetCapturedStderr();
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 3) << text;
    EXPECT_NE(text.find("0x8006 slot 1 port 2 0x0 0xabc\n"), std::string::npos) << text;
    ASSERT_EQ(zelSysErrGetLast(records, 70), 64);
    EXPECT_EQ(records[0].words[0], 37);
    EXPECT_EQ(records[63].event, 0x9000u);
    EXPECT_EQ(records[63].wordCount, 8);
}

TEST(CrashHandlerDeathTest, ACrashPrintsABacktraceAndIsStillTheCrash) {
    for (const int number : {SIGSEGV, SIGABRT})
        EXPECT_EXIT((zelPlatformInstallCrashHandler(), raise(number)), testing::KilledBySignal(number),
                    number == SIGSEGV ? "crash: signal 11, backtrace:" : "crash: signal 06, backtrace:");
}

}  // namespace
}  // namespace zel::test
