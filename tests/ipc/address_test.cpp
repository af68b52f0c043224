// Queue ids, and opening and closing endpoints.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>

#include <cerrno>

#include "tests/ipc/peer.h"
#include "tests/support/child.h"
#include "tests/support/fake_network.h"

using namespace zel::test;

namespace {

int openDescriptors() {
    int count = 0;
    for (int fd = 0; fd < 1024; ++fd) count += fcntl(fd, F_GETFD) != -1 ? 1 : 0;
    return count;
}

TEST(QueueId, FollowsServiceInstanceAndType) {
    struct Row {
        int service, instance, type;
        std::uint32_t queueId;
    };
    const Row rows[] = {
        {10, 3, 1, 0x050d},   {10, 47, 1, 0x053d},      {10, 48, 1, 0xa701}, {10, 4144, 2, 0xa702},
        {10, 4145, 1, 0x545}, {10, -1, 3, 0x57f},       {13, 31, 0, 0x6fc},  {363, 31, 3, 0xb5ff},
        {334, 0, 1, 0xa701},  {512 + 10, 3, 1, 0x050d}, {10, 3, 5, 0x050d},  {10, 31 + 32, 1, 0xa701},
    };
    for (const Row &row : rows)
        EXPECT_EQ(zel_getQueueId(row.service, row.instance, row.type), row.queueId)
            << row.service << " " << row.instance << " " << row.type;
}

TEST(QueueId, OfTheVariantFoldsServicesInsteadOfInstances) {
    EXPECT_EQ(zel_getQueueIdInPE(10, 48, 1), 0x501u);
    EXPECT_EQ(zel_getQueueIdInPE(10, 4145, 1), 0x545u);
    EXPECT_EQ(zel_getQueueIdInPE(366 + 54, 2, 2), ((366u + 54) << 7 & 0xff80) | 2 << 2 | 2) << "no row to look at";
    zelPlatformSetType(9);
    EXPECT_EQ(zel_getQueueId(54, 2, 2), 54u << 7 | 2 << 2 | 2) << "type 9 alone is no variant";
    zelPlatformSetVirtualSingle(1);
    EXPECT_EQ(zel_getQueueId(54, 2, 2), 0xa702u);
    zelPlatformSetVirtualSingle(0);
    zelPlatformSetType(6);
    EXPECT_EQ(zel_getQueueId(194, 0, 1), 0xa701u);
    ASSERT_NE(zelIpcOpen(334, 0), -1);
    EXPECT_EQ(zel_getQueueId(54, 2, 2), 54u << 7 | 2 << 2 | 2) << "the relay itself talks to the folded services";
}

TEST(Endpoint, OpensOnceAndClosesOnce) {
    const int before = openDescriptors();
    EXPECT_EQ(Key_getSocketFd(rtm), -1);
    ASSERT_EQ(zelIpcOpen(76, 0), static_cast<int>(rtm));
    EXPECT_EQ(openDescriptors(), before + 2);
    const int fd = Key_getSocketFd(rtm);
    EXPECT_NE(fd, Key_getSocketFd(rtm | 2));
    EXPECT_EQ(Key_getRspQueue(rtm | 1), rtm | 3) << "the type is put on top of what is there";
    EXPECT_EQ(Key_getTmrQueue(rtm), 0u);
    EXPECT_EQ(zelIpcOpen(76, 0), static_cast<int>(rtm));
    EXPECT_EQ(Key_getSocketFd(rtm), fd) << "open already";
    EXPECT_EQ(zelIpcOpenTmrQueue(rtm), static_cast<int>(rtm));
    EXPECT_EQ(Key_getTmrQueue(rtm), rtm | 3);

    int error = 0;
    EXPECT_GE(zelIpcGetRecvBufferLimit(rtm, &error), 129024);
    ASSERT_EQ(zelIpcSetRecvBufferLimit(rtm, 40000, &error), 0);
    EXPECT_LT(zelIpcGetRecvBufferLimit(rtm, &error), 129024);
    EXPECT_GE(zelIpcGetRecvBufferLimit(rtm | 2, &error), 129024) << "the other queue";

    EXPECT_EQ(zelIpcClose(rtm), 0);
    EXPECT_EQ(openDescriptors(), before);
    EXPECT_EQ(Key_getSocketFd(rtm | 3), -1);
    EXPECT_EQ(zelIpcClose(rtm), -1);
    EXPECT_EQ(zelIpcOpen(76, 0), static_cast<int>(rtm));
}

TEST(Endpoint, RefusesWhatIsOutsideTheTable) {
    const int rows[][2] = {{12, 0}, {364, 0}, {-1, 0}, {1 << 20, 0}, {76, -1}, {76, 32}, {76, 48}};
    for (const auto &row : rows) {
        errno = 0;
        EXPECT_EQ(zelIpcOpen(row[0], row[1]), -1) << row[0] << " " << row[1];
        EXPECT_EQ(errno, EINVAL);
    }
    int error = 0;
    for (const std::uint32_t key : {12u << 7, 364u << 7, 0xffffffffu}) {
        EXPECT_EQ(zelIpcClose(key), -1);
        EXPECT_EQ(zelIpcSetRecvBufferLimit(key, 4096, &error), -1);
        EXPECT_EQ(Key_getSocketFd(key), -1);
    }
    for (const int gap : {-1, 12, 252, 366}) EXPECT_STREQ(zelTaskGetServiceName(gap), "Unknown");
    zelIpcSetSecondaryAddress("no address");
    EXPECT_EQ(zel_ipcSOpen(9000, 17, 1), -1);
    EXPECT_EQ(zel_ipcSOpen(9000, 6, 0), -1) << "no such protocol";
    const zelTmeGlobals invalid{ZEL_IPC_NO_ADDRESS, 0, {0, 0}};
    ASSERT_EQ(zelTmeSetGlobals(&invalid), 0);
    EXPECT_EQ(zelIpcOpen(76, 0), -1);
}

// Six attempts, ten ticks apart; and half open is not open.
TEST(Endpoint, WaitsForAPortInUseAndThenGivesUp) {
    FakeNetwork network;
    const int before = openDescriptors();
    {
        const Peer taken(rtm | 2);
        EXPECT_EQ(zelIpcOpen(76, 0), -1);
        EXPECT_EQ(errno, EADDRINUSE);
        EXPECT_DOUBLE_EQ(network.seconds(), 1.0);
        EXPECT_EQ(Key_getReqQueue(rtm), 0u);
        EXPECT_EQ(zelIpcClose(rtm), -1);
    }
    EXPECT_LE(openDescriptors(), before + 1);
    EXPECT_EQ(zelIpcOpen(76, 0), static_cast<int>(rtm));
}

TEST(Endpoint, TaskDeletedWhileItWaitsForAPortLeavesNothing) {
    ASSERT_NE(zelIpcOpen(61, 0), -1);
    const Peer taken(rtm | 2);
    const int before = openDescriptors();
    Task opener([] { return zelIpcOpen(76, 0); });
    ASSERT_TRUE(eventually(10, [&] { return openDescriptors() > before; }));
    EXPECT_EQ(taskDelete(opener.id()), 0);
    EXPECT_EQ(openDescriptors(), before);
}

TEST(TaskKey, IsTheFirstEndpointThatTheTaskOwns) {
    EXPECT_EQ(zelGetMyTaskKey(), -1);
    ASSERT_NE(zelIpcOpen(76, 0), -1);
    EXPECT_EQ(zelGetMyTaskKey(), static_cast<int>(rtm));
    ASSERT_NE(zelIpcOpen(61, 0), -1);
    EXPECT_EQ(zelGetMyTaskKey(), static_cast<int>(bgp)) << "table order, not order of opening";
    Task beyond([] { return zelIpcOpen(61, 5) == -1 ? 0 : zelGetMyTaskKey(); });
    EXPECT_EQ(beyond.result(), -1) << "an instance that its service does not have";
    Task other([] { return zelIpcOpen(13, 4) == -1 ? 0 : zelGetMyTaskKey(); });
    EXPECT_EQ(other.result(), 13 << 7 | 4 << 2);
    zelIpcClose(bgp);
    EXPECT_EQ(zelGetMyTaskKey(), static_cast<int>(bgp)) << "closing does not take the ownership away";
}

ZEL_CHILD(holdEndpoint) {
    if (zelIpcOpen(76, 0) == -1) return 1;
    for (;;) pause();
}

TEST(TaskKey, OfAKilledProcessIsTakenOver) {
    const Child holder = Child::start("holdEndpoint");
    int owner = -1;
    ASSERT_TRUE(eventually(20, [&] { return zelTaskIsDuplicate(76, 0, &owner) == 1; }));
    EXPECT_EQ(zelProcIdByKey(rtm), holder.pid());
    EXPECT_EQ(zelGetMyTaskKey(), -1) << "same task id, other process";
    holder.signal(SIGKILL);
    ASSERT_TRUE(eventually(20, [&] { return zelTaskIsDuplicate(76, 0, &owner) == 0; }));
    EXPECT_EQ(zelTaskGetByServiceAndInstance(76, 0), -1);
    ASSERT_EQ(zelIpcOpen(76, 0), static_cast<int>(rtm));
    EXPECT_EQ(zelGetMyTaskKey(), static_cast<int>(rtm));
    EXPECT_EQ(zelProcIdByKey(rtm), getpid());
}

TEST(Endpoint, ForkedChildHasNone) {
    ASSERT_NE(zelIpcOpen(76, 0), -1);
    const int fd = Key_getSocketFd(rtm);
    const pid_t child = fork();
    if (child == 0) _exit(Key_getSocketFd(rtm) == -1 && fcntl(fd, F_GETFD) == -1 && zelGetMyTaskKey() == -1 ? 0 : 1);
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(WEXITSTATUS(status), 0);
    EXPECT_EQ(Key_getSocketFd(rtm), fd);
}

}  // namespace
