// Queue ids, and opening and closing endpoints.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cerrno>

#include "tests/ipc/peer.h"
#include "tests/support/fake_network.h"

using namespace zel::test;

namespace {

int openDescriptors() {
    int count = 0;
    for (int fd = 0; fd < 1024; ++fd) count += fcntl(fd, F_GETFD) != -1 ? 1 : 0;
    return count;
}

TEST(QueueId, FollowsServiceInstanceAndType) {
    const struct {
        int service, instance, type;
        std::uint32_t queueId, onVariant;
    } rows[] = {
        {10, 3, 1, 0x50d, 0x50d},     {10, 47, 1, 0x53d, 0x53d},    {10, 48, 1, 0xa701, 0x501},
        {10, 4144, 2, 0xa702, 0x502}, {10, 4145, 1, 0x545, 0x545},  {10, -1, 3, 0x57f, 0x57f},
        {522, 3, 5, 0x50d, 0x50d},    {363, 31, 3, 0xb5ff, 0xb5ff}, {54, 2, 2, 0x1b0a, 0xa702},
        {420, 2, 2, 0xd20a, 0xd20a},  // no row to look at
    };
    for (const auto &row : rows) {
        EXPECT_EQ(zel_getQueueId(row.service, row.instance, row.type), row.queueId)
            << row.service << " " << row.instance;
        EXPECT_EQ(zel_getQueueIdInPE(row.service, row.instance, row.type), row.onVariant)
            << row.service << " " << row.instance;
    }
    zelPlatformSetType(9);
    EXPECT_EQ(zel_getQueueId(54, 2, 2), 0x1b0au) << "type 9 alone is no variant";
    zelPlatformSetVirtualSingle(1);
    EXPECT_EQ(zel_getQueueId(54, 2, 2), 0xa702u);
    zelPlatformSetVirtualSingle(0);
    zelPlatformSetType(6);
    EXPECT_EQ(zel_getQueueId(54, 2, 2), 0xa702u);
    ASSERT_NE(zelIpcOpen(334, 0), -1);
    EXPECT_EQ(zel_getQueueId(54, 2, 2), 0x1b0au) << "the relay itself talks to the folded services";
}

TEST(Key, IsTakenApartAndKnownToItsTask) {
    EXPECT_EQ(zelIpcGetService(0x1260d), 0x24cu) << "not masked";
    EXPECT_EQ(zelIpcGetServiceFromSvce(0x1260d), 76u);
    EXPECT_EQ(zelIpcGetInstance(0x1260d), 3u);
    int key = 0;
    EXPECT_EQ(getSrvcId(), 255);
    EXPECT_EQ(getIpcKey(76, 0, &key), 0);
    EXPECT_EQ(key, -1);
    ASSERT_NE(zelIpcOpen(76, 0), -1);
    EXPECT_EQ(getIpcKey(77, 0, &key), 0) << "only reported";
    EXPECT_EQ(key, static_cast<int>(rtm));
    EXPECT_EQ(getSrvcId(), 76);
    Bytes header = Message{.sourceQueue = rtm | 2}.bytes();
    std::uint32_t slot = 1, queueId = 1;
    EXPECT_EQ(zelIpcGetSourceHeader(header.data(), &slot, &queueId), 0);
    EXPECT_EQ(queueId, rtm | 2);
    header[3] ^= 1;
    EXPECT_EQ(zelIpcGetSourceHeader(header.data(), &slot, &queueId), -1);
}

TEST(Endpoint, OpensOnceAndClosesOnce) {
    const int before = openDescriptors();
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
    ASSERT_EQ(zelIpcSetRecvBufferLimit(rtm, 40000, &error), 0);
    EXPECT_LT(zelIpcGetRecvBufferLimit(rtm, &error), 129024);
    EXPECT_GE(zelIpcGetRecvBufferLimit(rtm | 2, &error), 129024) << "the other queue";

    EXPECT_EQ(zelIpcClose(rtm), 0);
    EXPECT_EQ(openDescriptors(), before);
    EXPECT_EQ(zelIpcClose(rtm), -1);
    EXPECT_EQ(zelIpcOpen(76, 0), static_cast<int>(rtm));
}

TEST(Endpoint, RefusesWhatIsOutsideTheTable) {
    for (const auto &[service, instance] : {std::pair{12, 0}, {364, 0}, {1 << 20, 0}, {76, -1}, {76, 32}, {76, 48}}) {
        errno = 0;
        EXPECT_EQ(zelIpcOpen(service, instance), -1) << service << " " << instance;
        EXPECT_EQ(errno, EINVAL);
    }
    int error = 0;
    EXPECT_EQ(zelIpcSetRecvBufferLimit(364 << 7, 4096, &error), -1);
    EXPECT_EQ(error, EINVAL);
    EXPECT_EQ(zelIpcClose(0xffffffff), -1);
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

}  // namespace
