// The seam's host functions, futexes, scheduling, identity, system errors and the crash handler.
#include <arpa/inet.h>
#include <errno.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

#include "platform/environment.h"
#include "platform/futex.h"
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
    const std::uint64_t deadline = now() + 20 * milliseconds;
    EXPECT_EQ(seam().waitReadable(nullptr, ends[0], deadline), 0);
    EXPECT_GE(now(), deadline);
    const std::uint64_t next = now() + 20 * milliseconds;
    EXPECT_EQ(seam().sleepUntil(nullptr, next), 0);
    EXPECT_GE(now(), next);
    EXPECT_EQ(seam().waitReadable(nullptr, ends[0], 0), 0);  // long past: looks, and does not wait
    EXPECT_EQ(write(ends[1], "x", 1), 1);
    EXPECT_EQ(seam().waitReadable(nullptr, ends[0], 0), 1);
    EXPECT_EQ(seam().waitReadable(nullptr, ends[0], platform::forever), 1);
    close(ends[0]);
    EXPECT_EQ(seam().waitReadable(nullptr, ends[0], now()), -1);
    EXPECT_EQ(errno, EBADF);
}

TEST(Seam, ASignalEndsAWaitWithEintr) {
    struct sigaction action {};
    action.sa_handler = [](int) {};
    action.sa_flags = SA_RESTART;
    sigaction(SIGUSR1, &action, nullptr);
    for (const bool isSleep : {true, false}) {
        std::atomic<int> error{-1};
        std::thread waiter([&] {
            if (isSleep) {
                error = seam().sleepUntil(nullptr, platform::forever);
                return;
            }
            int ends[2];
            ASSERT_EQ(pipe(ends), 0);
            ASSERT_EQ(seam().waitReadable(nullptr, ends[0], platform::forever), -1);
            error = errno;
        });
        EXPECT_TRUE(eventually(20, [&] {
            pthread_kill(waiter.native_handle(), SIGUSR1);
            return error != -1;
        }));
        waiter.join();
        EXPECT_EQ(error, EINTR);
    }
}

TEST(Seam, WaitsAreCancellationPoints) {
    for (const bool isSleep : {true, false}) {
        pthread_t thread;
        ASSERT_EQ(pthread_create(
                      &thread, nullptr,
                      [](void *sleeps) -> void * {
                          if (sleeps != nullptr) seam().sleepUntil(nullptr, platform::forever);
                          int ends[2];
                          if (pipe(ends) == 0) seam().waitReadable(nullptr, ends[0], platform::forever);
                          return nullptr;
                      },
                      isSleep ? &thread : nullptr),
                  0);
        pthread_cancel(thread);
        void *result = nullptr;
        pthread_join(thread, &result);
        EXPECT_EQ(result, PTHREAD_CANCELED);
    }
}

TEST(Seam, DatagramsTellTheirSender) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(zelPlatformIpcAddress());
    socklen_t length = sizeof address;
    const int socketFd = socket(AF_INET, SOCK_DGRAM, 0);
    ASSERT_EQ(bind(socketFd, reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
    ASSERT_EQ(getsockname(socketFd, reinterpret_cast<sockaddr *>(&address), &length), 0);
    char head[] = "head", tail[] = "tail", buffer[16] = "";
    const iovec parts[] = {{head, 4}, {tail, 4}};
    EXPECT_EQ(seam().sendDatagram(nullptr, socketFd, parts, 2, &address), 8);
    ASSERT_EQ(seam().waitReadable(nullptr, socketFd, now() + 5'000 * milliseconds), 1);
    sockaddr_in from{};
    EXPECT_EQ(seam().receiveDatagram(nullptr, socketFd, buffer, 6, MSG_DONTWAIT, &from), 6);
    EXPECT_STREQ(buffer, "headta");
    EXPECT_EQ(from.sin_port, address.sin_port);
    EXPECT_EQ(seam().receiveDatagram(nullptr, socketFd, buffer, 6, MSG_DONTWAIT, nullptr), -1);
    EXPECT_EQ(errno, EAGAIN);
    close(socketFd);
}

TEST(Seam, AReplacementIsCopiedAndCanBeTakenBack) {
    {
        zelHostSeam simulated = *zelPlatformSeam();
        simulated.now = [](void *) -> std::uint64_t { return 42; };
        zelPlatformSetSeam(&simulated);
        simulated.now = nullptr;
    }
    EXPECT_EQ(now(), 42u);
    EXPECT_EQ(platform::deadlineAfterTicks(1), 42u + 20 * milliseconds);
    EXPECT_EQ(platform::deadlineAfterTicks(-5), 42u);
    zelPlatformSetSeam(nullptr);
    EXPECT_NE(now(), 42u);
    EXPECT_NE(seam().randomBits(nullptr), seam().randomBits(nullptr));
}

TEST(Futex, WaitsForAChangeOrTheDeadline) {
    std::atomic<std::uint32_t> word{1};
    errno = 17;
    EXPECT_FALSE(platform::futexWait(word, 1, now() + 5 * milliseconds));
    EXPECT_FALSE(platform::futexWait(word, 1, 0));
    EXPECT_TRUE(platform::futexWait(word, 2, 0));
    EXPECT_EQ(errno, 17);
    std::thread waker([&] {
        word = 2;
        platform::futexWake(word, 1);
    });
    while (word == 1) platform::futexWait(word, 1, platform::forever);
    waker.join();
}

TEST(Scheduling, PrioritiesKeepTheirOrderOnTheHost) {
    EXPECT_EQ(platform::hostPriority(-1), 1);
    EXPECT_EQ(platform::hostPriority(0), 1);
    EXPECT_EQ(platform::hostPriority(252), 96);
    for (int i = 0; i < 3; ++i) EXPECT_EQ(platform::hostPriority(253 + i), 97 + i);
    EXPECT_EQ(platform::hostPriority(1000), 99);
    for (int i = 0; i < 255; ++i) EXPECT_LE(platform::hostPriority(i), platform::hostPriority(i + 1));
}

// realTime: with the privilege threads get what was asked for; without it nothing fails.
ZEL_CHILD(realTime) {
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    if (platform::setAttributes(attributes, SCHED_RR, 100) != 0) return 1;
    pthread_t thread;
    static std::atomic<bool> isOver{false};
    const auto body = [](void *) -> void * {
        while (!isOver) usleep(1000);
        return nullptr;
    };
    if (pthread_create(&thread, &attributes, body, nullptr) != 0) return 2;
    if (platform::applyPriority(thread, SCHED_FIFO, 254) != 0) return 3;
    int policy = -1;
    sched_param parameters{};
    pthread_getschedparam(thread, &policy, &parameters);
    isOver = true;
    pthread_join(thread, nullptr);
    const bool isOn = platform::isRealTime();
    if (argc > 0 && isOn) return 4;
    const int ownPolicy = sched_getscheduler(0);
    if (ownPolicy != SCHED_OTHER) return 5;
    return isOn ? (policy == SCHED_FIFO && parameters.sched_priority == 98 ? 0 : 6) : (policy == SCHED_OTHER ? 0 : 7);
}

TEST(Scheduling, RealTimeIsBestEffort) {
    EXPECT_EQ(Child::start("realTime", {"off"}).wait(), 0);
    unsetenv("ZEL_REALTIME");
    EXPECT_EQ(Child::start("realTime").wait(), 0);
}

TEST(Identity, TheAddressIsFixedAtFirstUse) {
    EXPECT_EQ(zelPlatformSetIpcAddress(0x7f070809), 0);
    EXPECT_EQ(zelPlatformSetIpcAddress(0x7f07080a), 0);
    EXPECT_EQ(zelPlatformIpcAddress(), 0x7f07080au);
    EXPECT_EQ(zelPlatformSetIpcAddress(0x7f07080a), 0);
    EXPECT_EQ(zelPlatformSetIpcAddress(0x7f07080b), -1);
    EXPECT_EQ(errno, EBUSY);
}

TEST(Identity, ThePrefixNamesTheSegments) {
    for (const char *bad : {"", "a/b", "12345678901234567890123456789012"}) {
        EXPECT_EQ(zelPlatformSetShmPrefix(bad), -1);
        EXPECT_EQ(errno, EINVAL);
    }
    const std::string prefix = "zeltest-own-" + std::to_string(getpid());
    EXPECT_EQ(zelPlatformSetShmPrefix(prefix.c_str()), 0);
    EXPECT_EQ(zelPlatformSetIpcAddress(0x7f010203), 0);
    EXPECT_EQ(platform::segmentName("sys"), "/" + prefix + "-127.1.2.3-sys");
    EXPECT_EQ(zelPlatformSetShmPrefix("other"), -1);
    EXPECT_EQ(errno, EBUSY);
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
    ASSERT_EQ(zelSysErrGetLast(records, 1), 1);
    EXPECT_EQ(records[0].event, 0x9000u);
}

TEST(CrashHandlerDeathTest, ACrashPrintsABacktraceAndIsStillTheCrash) {
    const auto crash = [](int number) {
        zelPlatformInstallCrashHandler();
        raise(number);
    };
    EXPECT_EXIT(crash(SIGSEGV), testing::KilledBySignal(SIGSEGV), "crash: signal 11, backtrace:");
    EXPECT_EXIT(crash(SIGABRT), testing::KilledBySignal(SIGABRT), "crash: signal 06, backtrace:");
}

}  // namespace
}  // namespace zel::test
