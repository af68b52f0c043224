#include "platform/segment.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "platform/environment.h"
#include "tests/support/child.h"
#include "tests/support/eventually.h"
#include "zel/platform.h"

namespace zel::test {
namespace {

using platform::Section;

constexpr std::size_t abiOffset = 12, magicOffset = 0;

int openSys() {
    return shm_open(platform::segmentName("sys").c_str(), O_RDWR, 0);
}

// attach: the errno of an attempt to use the system segment, 0 when it works.
ZEL_CHILD(attach) {
    return platform::sysSection(Section::globals) != nullptr ? 0 : errno;
}
int attachInChild() {
    return Child::start("attach").wait();
}

ZEL_CHILD(copyUp) {
    auto *bytes = platform::sysSectionAs<char>(Section::globals);
    bytes[1] = static_cast<char>(bytes[0] + 1);
    auto *last = platform::sysSectionAs<char>(Section::linkState);
    last[65535] = 'z';
    return 0;
}

TEST(Segment, ProcessesSeeTheSameBytes) {
    auto *bytes = platform::sysSectionAs<char>(Section::globals);
    ASSERT_NE(bytes, nullptr);
    EXPECT_EQ(bytes[0], 0);
    bytes[0] = 'a';
    EXPECT_EQ(Child::start("copyUp").wait(), 0);
    EXPECT_EQ(bytes[1], 'b');
    EXPECT_EQ(platform::sysSectionAs<char>(Section::linkState)[65535], 'z');
}

TEST(Segment, SectionsAreAlignedAndApart) {
    std::uintptr_t end = 0;
    for (std::size_t i = 0; i < platform::sectionBytes.size(); ++i) {
        const auto begin = reinterpret_cast<std::uintptr_t>(platform::sysSection(static_cast<Section>(i)));
        EXPECT_EQ(begin % 4096, 0u);
        EXPECT_GE(begin, end);
        end = begin + platform::sectionBytes[i];
    }
}

TEST(Segment, ItIsClosedToOthersWhateverTheMask) {
    umask(0077);
    ASSERT_NE(platform::sysSection(Section::locks), nullptr);
    const int fd = openSys();
    struct stat status {};
    ASSERT_EQ(fstat(fd, &status), 0);
    EXPECT_EQ(status.st_mode & 0777u, 0660u);
    fchmod(fd, 0666);
    EXPECT_EQ(attachInChild(), EACCES);
    fchmod(fd, 0660);
    EXPECT_EQ(attachInChild(), 0);
    close(fd);
}

TEST(Segment, AForeignOwnerIsRefused) {
    ASSERT_EQ(attachInChild(), 0);
    const int fd = openSys();
    if (fchown(fd, 12345, static_cast<gid_t>(-1)) != 0) GTEST_SKIP() << "cannot give files away";
    EXPECT_EQ(attachInChild(), EACCES);
    close(fd);
}

TEST(Segment, AnotherSizeOrLayoutIsRefused) {
    ASSERT_EQ(attachInChild(), 0);
    const int fd = openSys();
    struct stat status {};
    fstat(fd, &status);
    ASSERT_EQ(ftruncate(fd, status.st_size + 4096), 0);
    EXPECT_EQ(attachInChild(), EINVAL);
    ASSERT_EQ(ftruncate(fd, 4096), 0);
    EXPECT_EQ(attachInChild(), EINVAL);
    ASSERT_EQ(ftruncate(fd, status.st_size), 0);
    EXPECT_EQ(attachInChild(), 0);
    for (const std::size_t offset : {magicOffset, magicOffset + 8, abiOffset}) {  // magic, version, layout
        char byte = 0;
        const auto at = static_cast<off_t>(offset);
        ASSERT_EQ(pread(fd, &byte, 1, at), 1);
        const char other = static_cast<char>(byte ^ 0x41);
        ASSERT_EQ(pwrite(fd, &other, 1, at), 1);
        EXPECT_EQ(attachInChild(), offset == magicOffset ? EINVAL : EPROTO);
        ASSERT_EQ(pwrite(fd, &byte, 1, at), 1);
    }
    EXPECT_EQ(attachInChild(), 0);
    close(fd);
}

// A creator that died before it published the header leaves something that the next one makes anew.
TEST(Segment, AHalfMadeSegmentIsMadeAnew) {
    for (const off_t bytes : {0, 100, 4096, 1 << 20}) {
        zelPlatformUnlinkSegments();
        const int fd = shm_open(platform::segmentName("sys").c_str(), O_RDWR | O_CREAT, 0600);
        ASSERT_GE(fd, 0);
        ASSERT_EQ(ftruncate(fd, bytes), 0);
        if (bytes > 100) {
            EXPECT_EQ(pwrite(fd, "junk", 4, bytes - 4), 4);
        }
        EXPECT_EQ(attachInChild(), 0) << bytes;
        close(fd);
    }
    EXPECT_EQ(platform::sysSectionAs<char>(Section::globals)[0], 0);
}

// Whoever waited for a segment that was unlinked meanwhile takes the one that its name means now.
TEST(Segment, AnUnlinkedSegmentIsNotTaken) {
    const int old = shm_open(platform::segmentName("sys").c_str(), O_RDWR | O_CREAT, 0660);
    ASSERT_EQ(flock(old, LOCK_EX), 0);
    Child child = Child::start("attach");
    EXPECT_FALSE(eventually(0.2, [&] { return kill(child.pid(), 0) != 0; }));  // time to get to the lock
    ASSERT_EQ(zelPlatformUnlinkSegments(), 0);
    flock(old, LOCK_UN);
    EXPECT_EQ(child.wait(), 0);
    EXPECT_EQ(zelPlatformHasSegments(), 1);
    struct stat status {};
    fstat(old, &status);
    EXPECT_EQ(status.st_size, 0);
    close(old);
}

TEST(Segment, CreatorsThatComeTogetherAgree) {
    std::vector<Child> children;
    for (int i = 0; i < 8; ++i) children.push_back(Child::start("attach"));
    for (auto &child : children) EXPECT_EQ(child.wait(), 0);
    EXPECT_EQ(attachInChild(), 0);
}

// ---- The policy segment -------------------------------------------------------------------------------------------

struct Root {
    std::atomic<int> go;
    std::atomic<char *> text, reply;
    std::atomic<std::size_t> bytes;
};

Root *attachPolicy(bool create) {
    return static_cast<Root *>(platform::attachPolicySegment(create));
}

// policyPeer: reads through pointers of another process, answers with one of its own, and watches the segment grow.
ZEL_CHILD(policyPeer) {
    Root *root = attachPolicy(false);
    if (root == nullptr) return errno;
    if (strcmp(root->text.load(), "written elsewhere") != 0) return 201;
    auto *reply = static_cast<char *>(zelMC_MM_malloc("test", __LINE__, 100));
    strcpy(reply, "answered");
    root->reply = reply;
    if (!eventually(20, [&] { return root->go == 1; })) return 202;
    const std::size_t last = root->bytes - 1;
    if (platform::policySegmentBytes() != root->bytes) return 203;
    return reinterpret_cast<volatile char *>(platform::policyAddress)[last] == 'G' ? 0 : 204;
}

TEST(PolicySegment, PointersMeanTheSameInAllProcesses) {
    EXPECT_EQ(zelMC_MM_malloc("test", __LINE__, 10), nullptr);
    EXPECT_EQ(attachPolicy(false), nullptr);
    EXPECT_EQ(errno, ENOENT);
    Root *root = attachPolicy(true);
    ASSERT_NE(root, nullptr);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(root), platform::policyAddress + platform::policyRootOffset);
    EXPECT_EQ(platform::policySegmentBytes(), platform::policyStepBytes);
    auto *text = static_cast<char *>(zelMC_MM_malloc("test", __LINE__, 100));
    ASSERT_NE(text, nullptr);
    strcpy(text, "written elsewhere");
    root->text = text;
    Child child = Child::start("policyPeer");
    ASSERT_TRUE(eventually(20, [&] { return root->reply != nullptr; }));
    EXPECT_STREQ(root->reply.load(), "answered");
    ASSERT_TRUE(platform::growPolicySegment(platform::policyStepBytes + 1));
    EXPECT_EQ(platform::policySegmentBytes(), 2 * platform::policyStepBytes);
    root->bytes = platform::policySegmentBytes();
    reinterpret_cast<volatile char *>(platform::policyAddress)[root->bytes - 1] = 'G';
    root->go = 1;
    EXPECT_EQ(child.wait(), 0);
    EXPECT_FALSE(platform::growPolicySegment(platform::policyReservedBytes + 1));
    EXPECT_EQ(errno, ENOMEM);
}

TEST(PolicySegment, AnOccupiedAddressIsRefused) {
    void *wanted = reinterpret_cast<void *>(platform::policyAddress + 4096);
    ASSERT_EQ(mmap(wanted, 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED_NOREPLACE, -1, 0), wanted);
    EXPECT_EQ(attachPolicy(true), nullptr);
    EXPECT_EQ(errno, EEXIST);
    EXPECT_FALSE(platform::isPolicySegmentAttached());
}

// Blocks keep their bytes and do not overlap, whatever is allocated, resized and freed around them.
TEST(PolicyHeap, RandomUseKeepsEveryBlocksBytes) {
    ASSERT_NE(attachPolicy(true), nullptr);
    const auto seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::minstd_rand random(seed);
    std::map<unsigned char *, std::pair<std::size_t, unsigned char>> blocks;
    const auto isWhole = [&](auto &entry) {
        for (std::size_t i = 0; i < entry.second.first; ++i)
            if (entry.first[i] != entry.second.second) return false;
        return reinterpret_cast<std::uintptr_t>(entry.first) % 16 == 0;
    };
    for (int step = 0; step < 20'000; ++step) {
        const std::size_t bytes = random() % (random() % 16 == 0 ? 20'000 : 200);
        const auto fill = static_cast<unsigned char>(step % 251 + 1);
        if (blocks.empty() || random() % 5 < 2) {
            auto *block = static_cast<unsigned char *>(zelMC_MM_malloc("test", __LINE__, bytes));
            ASSERT_NE(block, nullptr);
            memset(block, fill, bytes);
            ASSERT_TRUE(blocks.emplace(block, std::pair(bytes, fill)).second);
            continue;
        }
        auto entry = blocks.lower_bound(blocks.begin()->first + random() % (1 << 16));
        if (entry == blocks.end()) entry = blocks.begin();
        ASSERT_TRUE(isWhole(*entry)) << "step " << step;
        auto [block, content] = *entry;
        blocks.erase(entry);
        if (random() % 2 == 0) {
            zelMC_MM_free("test", __LINE__, block);
            continue;
        }
        auto *moved = static_cast<unsigned char *>(zelMC_MM_realloc("test", __LINE__, block, bytes));
        ASSERT_NE(moved, nullptr);
        for (std::size_t i = 0; i < std::min(bytes, content.first); ++i) ASSERT_EQ(moved[i], content.second);
        memset(moved, fill, bytes);
        ASSERT_TRUE(blocks.emplace(moved, std::pair(bytes, fill)).second);
    }
    for (auto &entry : blocks) EXPECT_TRUE(isWhole(entry));
}

TEST(PolicyHeap, ItsEdges) {
    ASSERT_NE(attachPolicy(true), nullptr);
    auto *first = static_cast<char *>(zelMC_MM_malloc("test", __LINE__, 500));
    memset(first, 'x', 500);
    zelMC_MM_free("test", __LINE__, first);
    auto *zeroed = static_cast<char *>(zelMC_MM_calloc("test", __LINE__, 5, 100));
    EXPECT_EQ(zeroed, first);  // freed blocks serve again
    for (int i = 0; i < 500; ++i) ASSERT_EQ(zeroed[i], 0);
    EXPECT_EQ(zelMC_MM_calloc("test", __LINE__, SIZE_MAX / 2, 3), nullptr);
    EXPECT_EQ(zelMC_MM_malloc("test", __LINE__, SIZE_MAX), nullptr);
    EXPECT_EQ(zelMC_MM_malloc("test", __LINE__, platform::policyReservedBytes), nullptr);
    auto *large = static_cast<char *>(zelMC_MM_malloc("test", __LINE__, 2 * platform::policyStepBytes));
    ASSERT_NE(large, nullptr);
    large[2 * platform::policyStepBytes - 1] = 1;
    zelMC_MM_free("test", __LINE__, nullptr);
    EXPECT_EQ(ZEL_ShmWriteUnLock(ZEL_SHM_LOCK_POLICY_HEAP), -1);
}

TEST(PolicyHeapDeathTest, AFreeThatCannotBeRightAborts) {
    ASSERT_NE(attachPolicy(true), nullptr);
    void *block = zelMC_MM_malloc("test", __LINE__, 10);
    zelMC_MM_free("test", __LINE__, block);
    EXPECT_DEATH(zelMC_MM_free("test", __LINE__, block), "policy heap: allocated block");
    int local = 0;
    EXPECT_DEATH(zelMC_MM_free("test", __LINE__, &local), "policy heap: link within the segment");
}

// allocateForEver: until killed.
ZEL_CHILD(allocateForEver) {
    Root *root = attachPolicy(false);
    if (root == nullptr) return errno;
    for (int i = 0;; ++i) {
        const auto bytes = static_cast<std::size_t>(i % 500 + 1);
        auto *block = static_cast<char *>(zelMC_MM_malloc("test", __LINE__, bytes));
        if (block == nullptr) return 205;
        memset(block, 'k', bytes);
        zelMC_MM_free("test", __LINE__, block);
        if (i == 10) ++root->go;
    }
}

TEST(PolicyHeap, ItStaysWholeWhenUsersAreKilled) {
    Root *root = attachPolicy(true);
    ASSERT_NE(root, nullptr);
    for (int kill = 1; kill <= 10; ++kill) {
        Child child = Child::start("allocateForEver");
        ASSERT_TRUE(eventually(20, [&] { return root->go == kill; }));
        child.signal(SIGKILL);
        EXPECT_EQ(child.wait(), 256 + SIGKILL);
        std::map<void *, int> blocks;
        for (int i = 0; i < 500; ++i) {
            void *block = zelMC_MM_calloc("test", __LINE__, 1, static_cast<std::size_t>(i % 500 + 1));
            ASSERT_NE(block, nullptr);
            EXPECT_EQ(++blocks[block], 1);
        }
        for (auto &[block, count] : blocks) zelMC_MM_free("test", __LINE__, block);
    }
}

}  // namespace
}  // namespace zel::test
