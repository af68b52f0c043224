// Keys, queue ids, header words, and opening and closing endpoints.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>

#include <cerrno>
#include <cstring>

#include "tests/ipc/peer.h"
#include "tests/support/child.h"
#include "tests/support/fake_network.h"

using namespace zel::test;

namespace {

constexpr std::uint32_t rtm = 76 << 7;
constexpr int bgp = 61;

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
    EXPECT_EQ(zel_getQueueIdInPE(54, 2, 2), 0xa702u);
    EXPECT_EQ(zel_getQueueIdInPE(366 + 54, 2, 2), ((366u + 54) << 7 & 0xff80) | 2 << 2 | 2) << "no row to look at";
    zelPlatformSetType(9);
    EXPECT_EQ(zel_getQueueId(54, 2, 2), 54u << 7 | 2 << 2 | 2) << "type 9 alone is no variant";
    zelPlatformSetVirtualSingle(1);
    EXPECT_EQ(zel_getQueueId(54, 2, 2), 0xa702u);
    zelPlatformSetVirtualSingle(0);
    zelPlatformSetType(6);
    EXPECT_EQ(zel_getQueueId(194, 0, 1), 0xa701u);
    // The relay itself talks to the folded services.
    ASSERT_NE(zelIpcOpen(334, 0), -1);
    EXPECT_EQ(getSrvcId(), 334);
    EXPECT_EQ(zel_getQueueId(54, 2, 2), 54u << 7 | 2 << 2 | 2);
}

TEST(Key, FieldsAreMaskedOnlyWhereTheNameSaysSo) {
    const std::uint32_t key = 0x1a70d;
    EXPECT_EQ(zelIpcGetService(key), 0x34eu);
    EXPECT_EQ(zelIpcGetServiceFromSvce(key), 0x14eu);
    EXPECT_EQ(zelIpcGetInstance(key), 3u);
    EXPECT_EQ(zelIpcGetInstanceFromSvce(key), 3u);
    EXPECT_EQ(maxService(), 366);
}

TEST(Header, NamesBothEnds) {
    Bytes header(60);
    EXPECT_EQ(zelIpcSetSourceHeader(header.data(), 7, bgp, 0), 0x1e82u);
    EXPECT_EQ(zelIpcSetTargetHeader(header.data(), 0x0a000001, 8, 76, 1), 0x2605u);
    std::uint32_t slot = 0, queueId = 0;
    EXPECT_EQ(zelIpcGetSourceHeader(header.data(), &slot, &queueId), -1) << "no magic";
    zelIpcHdrSet32(header.data(), 0, ZEL_IPC_MAGIC);
    EXPECT_EQ(zelIpcGetSourceHeader(header.data(), &slot, &queueId), 0);
    EXPECT_EQ(slot, 7u);
    EXPECT_EQ(queueId, 0x1e82u);
    EXPECT_EQ(zelIpcGetTargetHeader(header.data(), &slot, &queueId), 0);
    EXPECT_EQ(slot, 7u) << "does nothing";
    EXPECT_EQ(zelIpcSetTargetHeaderToRspQ(header.data(), 0x0a000001, 8, 76, 1), 0x2606u);
    EXPECT_EQ(header[58], 0x26);
    EXPECT_EQ(header[59], 0x06);
}

TEST(Header, CommandNames) {
    EXPECT_STREQ(zelIpcGetCmdTypeName(9), "GUARANTEED_SEND_FIRST");
    EXPECT_STREQ(zelIpcGetCmdTypeName(13), "REQ");
    EXPECT_STREQ(zelIpcGetCmdTypeName(5), "UNKNOWN");
    EXPECT_STREQ(zelIpcGetCmdTypeName(-1), "UNKNOWN");
}

TEST(Service, NamesKeepTheirSpelling) {
    EXPECT_STREQ(zelTaskGetServiceName(13), "TME");
    EXPECT_STREQ(zelTaskGetServiceName(190), "CALL-HOME");
    EXPECT_STREQ(zelTaskGetServiceName(239), "svceAgnt");
    EXPECT_STREQ(zelTaskGetServiceName(290), "iSCSI_OPT");
    EXPECT_STREQ(zelTaskGetServiceName(363), "L2RLY");
    for (const int gap : {-1, 0, 12, 252, 255, 260, 327, 364, 366}) EXPECT_STREQ(zelTaskGetServiceName(gap), "Unknown");
}

TEST(Endpoint, OpensOnceAndClosesOnce) {
    const int before = openDescriptors();
    EXPECT_EQ(Key_getReqQueue(rtm), 0u);
    EXPECT_EQ(Key_getSocketFd(rtm), -1);
    ASSERT_EQ(zelIpcOpen(76, 0), static_cast<int>(rtm));
    EXPECT_EQ(openDescriptors(), before + 2);
    const int fd = Key_getSocketFd(rtm);
    EXPECT_EQ(fd, Key_getSocketFd(rtm | 1));
    EXPECT_NE(fd, Key_getSocketFd(rtm | 2));
    EXPECT_EQ(Key_getReqQueue(rtm), rtm | 1);
    EXPECT_EQ(Key_getRspQueue(rtm | 1), rtm | 3) << "the type is put on top of what is there";
    EXPECT_EQ(Key_getTmrQueue(rtm), 0u);
    EXPECT_EQ(Key_getAllQueue(77 << 7), 77u << 7 | 1) << "unchecked";
    EXPECT_EQ(zelIpcOpen(76, 0), static_cast<int>(rtm));
    EXPECT_EQ(Key_getSocketFd(rtm), fd);
    EXPECT_EQ(zelIpcOpenTmrQueue(rtm), static_cast<int>(rtm));
    EXPECT_EQ(Key_getTmrQueue(rtm), rtm | 3);
    EXPECT_EQ(zelIpcClose(rtm), 0);
    EXPECT_EQ(Key_getSocketFd(rtm | 3), -1);
    EXPECT_EQ(zelIpcClose(rtm), -1);
    EXPECT_EQ(zelIpcClose(77 << 7), -1) << "never opened";
    EXPECT_EQ(zelIpcOpen(76, 0), static_cast<int>(rtm));
}

TEST(Endpoint, RefusesServicesAndInstancesOutsideTheTable) {
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
        EXPECT_EQ(error, EINVAL);
        EXPECT_EQ(zelIpcGetSendBufferLimit(key, &error), -1);
        EXPECT_EQ(Key_getRspQueue(key), 0u);
        EXPECT_EQ(Key_getSocketFd(key), -1);
    }
}

TEST(Endpoint, KeepsTheBufferSizesThatTheHostGrants) {
    ASSERT_NE(zelIpcOpen(76, 0), -1);
    int error = 0;
    EXPECT_GE(zelIpcGetRecvBufferLimit(rtm, &error), 129024);
    EXPECT_GE(zelIpcGetSendBufferLimit(rtm | 2, &error), 32768);
    ASSERT_EQ(zelIpcSetRecvBufferLimit(rtm, 40000, &error), 0);
    EXPECT_GE(zelIpcGetRecvBufferLimit(rtm, &error), 40000);
    EXPECT_LT(zelIpcGetRecvBufferLimit(rtm, &error), 129024);
    EXPECT_GE(zelIpcGetRecvBufferLimit(rtm | 2, &error), 129024) << "the other queue";
    EXPECT_EQ(zelIpcGetRecvBufferLimit(rtm | 3, &error), -1) << "timer queue not open";
    EXPECT_EQ(error, EBADF);
}

// Six attempts, ten ticks apart.
TEST(Endpoint, WaitsForAPortInUseAndThenGivesUp) {
    FakeNetwork network;
    const Peer taken(rtm | 1);
    ASSERT_TRUE(taken.isBound());
    EXPECT_EQ(zelIpcOpen(76, 0), -1);
    EXPECT_EQ(errno, EADDRINUSE);
    EXPECT_DOUBLE_EQ(network.seconds(), 1.0);
}

TEST(Endpoint, HalfOpenIsNotOpen) {
    FakeNetwork network;
    const int before = openDescriptors();
    {
        const Peer taken(rtm | 2);
        EXPECT_EQ(zelIpcOpen(76, 0), -1);
        EXPECT_EQ(Key_getReqQueue(rtm), 0u);
        EXPECT_EQ(zelIpcClose(rtm), -1);
    }
    EXPECT_LE(openDescriptors(), before + 1);
    EXPECT_EQ(zelIpcOpen(76, 0), static_cast<int>(rtm));
}

TEST(Endpoint, TaskDeletedWhileItWaitsForAPortLeavesNothing) {
    ASSERT_NE(zelIpcOpen(bgp, 0), -1);
    const Peer taken(rtm | 2);
    const int before = openDescriptors();
    Task opener([] { return zelIpcOpen(76, 0); });
    ASSERT_TRUE(eventually(10, [&] { return openDescriptors() > before; }));
    EXPECT_EQ(taskDelete(opener.id()), 0);
    EXPECT_EQ(openDescriptors(), before);
}

TEST(Endpoint, SocketIsRefusedWithoutAnAddress) {
    EXPECT_EQ(zel_ipcSOpen(9000, 6, 0), -1);
    EXPECT_EQ(errno, EINVAL);
    zelIpcSetSecondaryAddress(nullptr);
    EXPECT_EQ(zel_ipcSOpen(9000, 17, 1), -1);
    zelIpcSetSecondaryAddress("no address");
    EXPECT_EQ(zel_ipcSOpen(9000, 17, 1), -1);
    in_addr own{htonl(zelPlatformIpcAddress())};
    zelIpcSetSecondaryAddress(inet_ntoa(own));
    const int fd = zel_ipcSOpen(9000, 17, 1);
    EXPECT_GE(fd, 0);
    close(fd);
    const zelTmeGlobals invalid{ZEL_IPC_NO_ADDRESS, 0, {0, 0}};
    ASSERT_EQ(zelTmeSetGlobals(&invalid), 0);
    EXPECT_EQ(zelIpcOpen(76, 0), -1);
}

TEST(Endpoint, LinkNeedsAFreeDescriptor) {
    zelIpcQueueDesc descriptor{};
    ASSERT_EQ(zel_ipcCreateLink(&descriptor, 0x2601), 0);
    EXPECT_GE(descriptor.recvBufferBytes, 129024);
    const int fd = descriptor.socket;
    EXPECT_EQ(zel_ipcCreateLink(&descriptor, 0x2602), -1);
    EXPECT_EQ(descriptor.socket, fd);
    close(fd);
}

TEST(TaskKey, IsTheFirstEndpointThatTheTaskOwns) {
    int key = 0;
    EXPECT_EQ(zelGetMyTaskKey(), -1);
    EXPECT_EQ(getIpcKey(0, 0, &key), 0);
    EXPECT_EQ(key, -1);
    EXPECT_EQ(getSrvcId(), 255);
    ASSERT_NE(zelIpcOpen(76, 0), -1);
    EXPECT_EQ(zelGetMyTaskKey(), static_cast<int>(rtm));
    ASSERT_NE(zelIpcOpen(bgp, 0), -1);
    EXPECT_EQ(zelGetMyTaskKey(), bgp << 7) << "table order, not order of opening";
    EXPECT_EQ(getSrvcId(), bgp);
    // Another task has another key, and one beyond its service's instances has none.
    Task beyond([] { return zelIpcOpen(bgp, 5) == -1 ? 0 : zelGetMyTaskKey(); });
    EXPECT_EQ(beyond.result(), -1);
    Task other([] { return zelIpcOpen(13, 4) == -1 ? 0 : zelGetMyTaskKey(); });
    EXPECT_EQ(other.result(), 13 << 7 | 4 << 2);
    // Closing does not take the ownership away.
    zelIpcClose(bgp << 7);
    EXPECT_EQ(zelGetMyTaskKey(), bgp << 7);
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
    {
        FakeNetwork network;
        EXPECT_EQ(zelIpcOpen(76, 0), -1) << "its ports are in use";
    }
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
