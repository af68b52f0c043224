#include "platform/segment.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "platform/environment.h"
#include "tests/support/child.h"
#include "tests/support/eventually.h"
#include "tests/support/random.h"
#include "zel/platform.h"

namespace zel::test {
namespace {

using platform::Section;

int openSys(int flags = 0) {
    return shm_open(platform::segmentName("sys").c_str(), O_RDWR | flags, 0600);
}

// attach: the errno of an attempt to use the system segment, 0 when it works.
ZEL_CHILD(attach) {
    return platform::sysSection(Section::globals) != nullptr ? 0 : errno;
}
int attachInChild() {
    return Child::start("attach").wait();
}

// writeEnds: writes the last byte of every section.
ZEL_CHILD(writeEnds) {
    for (std::size_t i = 0; i < platform::sectionBytes.size(); ++i)
        platform::sysSectionAs<char>(static_cast<Section>(i))[platform::sectionBytes[i] - 1] =
            static_cast<char>('a' + i);
    return 0;
}

TEST(Segment, ProcessesThatComeTogetherSeeTheSameBytes) {
    std::vector<Child> children;
    for (int i = 0; i < 8; ++i) children.push_back(Child::start("writeEnds"));
    for (auto &child : children) ASSERT_EQ(child.wait(), 0);
    for (std::size_t i = 0; i < platform::sectionBytes.size(); ++i) {
        const auto *bytes = platform::sysSectionAs<char>(static_cast<Section>(i));
        ASSERT_EQ(reinterpret_cast<std::uintptr_t>(bytes) % 4096, 0u);
        EXPECT_EQ(bytes[0], 0);
        EXPECT_EQ(bytes[platform::sectionBytes[i] - 1], static_cast<char>('a' + i));
    }
}

TEST(Segment, WhatOthersCouldHaveMadeIsRefused) {
    umask(0077);
    ASSERT_EQ(attachInChild(), 0);
    const int fd = openSys();
    struct stat status {};
    ASSERT_EQ(fstat(fd, &status), 0);
    EXPECT_EQ(status.st_mode & 0777u, 0660u);  // whatever the mask
    fchmod(fd, 0666);
    EXPECT_EQ(attachInChild(), EACCES);
    fchmod(fd, 0660);
    for (const off_t size : {status.st_size + 4096, off_t{4096}, status.st_size}) {
        ASSERT_EQ(ftruncate(fd, size), 0);
        EXPECT_EQ(attachInChild(), size == status.st_size ? 0 : EINVAL) << size;
    }
    const std::pair<off_t, int> words[] = {{0, EINVAL}, {8, EPROTO}, {12, EPROTO}};  // magic, version, layout
    for (const auto &[offset, error] : words) {
        char byte = 0;
        ASSERT_EQ(pread(fd, &byte, 1, offset), 1);
        for (const int change : {0x41, 0}) {
            const char other = static_cast<char>(byte ^ change);
            ASSERT_EQ(pwrite(fd, &other, 1, offset), 1);
            EXPECT_EQ(attachInChild(), change != 0 ? error : 0) << offset;
        }
    }
    if (fchown(fd, 12345, static_cast<gid_t>(-1)) == 0) {  // only a privileged test can give it away
        EXPECT_EQ(attachInChild(), EACCES);
    }
    close(fd);
}

// A creator that died before it published the header leaves something that the next one makes anew.
TEST(Segment, AHalfMadeSegmentIsMadeAnew) {
    for (const off_t bytes : {0, 100, 4096, 1 << 20}) {
        zelPlatformUnlinkSegments();
        const int fd = openSys(O_CREAT);
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
    const int old = openSys(O_CREAT);
    ASSERT_EQ(flock(old, LOCK_EX), 0);
    Child child = Child::start("attach");
    EXPECT_FALSE(eventually(0.2, [&] { return kill(child.pid(), 0) != 0; }));  // time to get to the lock
    ASSERT_EQ(zelPlatformUnlinkSegments(), 0);
    flock(old, LOCK_UN);
    EXPECT_EQ(child.wait(), 0);
    EXPECT_EQ(zelPlatformHasSegments(), 1);
    EXPECT_EQ(lseek(old, 0, SEEK_END), 0);  // untouched
    close(old);
}

// ---- The policy segment -------------------------------------------------------------------------------------------

struct Root {
    std::atomic<int> go;
    std::atomic<char *> text;
};

Root *attachPolicy(bool create) {
    return static_cast<Root *>(platform::attachPolicySegment(create));
}

char *allocate(std::size_t bytes) {
    return static_cast<char *>(zelMC_MM_malloc("test", __LINE__, bytes));
}

// policyPeer: reads through a pointer of another process, answers with one of its own, and watches the segment grow.
ZEL_CHILD(policyPeer) {
    Root *root = attachPolicy(false);
    if (root == nullptr) return errno;
    if (strcmp(root->text.load(), "written elsewhere") != 0) return 201;
    root->text = strcpy(allocate(100), "answered");
    if (!eventually(20, [&] { return root->go == 1; })) return 202;
    const std::size_t bytes = platform::policySegmentBytes();
    if (bytes != 2 * platform::policyStepBytes) return 203;
    return reinterpret_cast<volatile char *>(platform::policyAddress)[bytes - 1] == 'G' ? 0 : 204;
}

TEST(PolicySegment, PointersMeanTheSameInAllProcesses) {
    EXPECT_EQ(allocate(10), nullptr);
    EXPECT_EQ(attachPolicy(false), nullptr);
    EXPECT_EQ(errno, ENOENT);
    Root *root = attachPolicy(true);
    ASSERT_NE(root, nullptr);
    char *text = root->text = strcpy(allocate(100), "written elsewhere");
    Child child = Child::start("policyPeer");
    ASSERT_TRUE(eventually(20, [&] { return root->text != text; }));
    EXPECT_STREQ(root->text.load(), "answered");
    ASSERT_TRUE(platform::growPolicySegment(platform::policyStepBytes + 1));
    reinterpret_cast<volatile char *>(platform::policyAddress)[2 * platform::policyStepBytes - 1] = 'G';
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
    Random random = seeded();
    std::map<char *, std::string> blocks;
    for (int step = 0; step < 20'000; ++step) {
        const std::string bytes(random() % (random() % 16 == 0 ? 20'000 : 200), static_cast<char>(step));
        char *block = nullptr;
        if (blocks.empty() || random() % 5 < 2) {
            block = allocate(bytes.size());
        } else {
            auto entry = blocks.lower_bound(blocks.begin()->first + random() % (1 << 16));
            if (entry == blocks.end()) entry = blocks.begin();
            const auto [old, content] = *entry;
            blocks.erase(entry);
            ASSERT_EQ(memcmp(old, content.data(), content.size()), 0) << "step " << step;
            if (random() % 2 == 0) {
                zelMC_MM_free("test", __LINE__, old);
                continue;
            }
            block = static_cast<char *>(zelMC_MM_realloc("test", __LINE__, old, bytes.size()));
            ASSERT_NE(block, nullptr);
            ASSERT_EQ(memcmp(block, content.data(), std::min(bytes.size(), content.size())), 0);
        }
        ASSERT_EQ(reinterpret_cast<std::uintptr_t>(block) % 16, 0u);
        memcpy(block, bytes.data(), bytes.size());
        ASSERT_TRUE(blocks.emplace(block, bytes).second);
    }
    for (const auto &[block, content] : blocks) EXPECT_EQ(memcmp(block, content.data(), content.size()), 0);
}

TEST(PolicyHeapDeathTest, ItsEdges) {
    ASSERT_NE(attachPolicy(true), nullptr);
    char *first = allocate(500);
    memset(first, 'x', 500);
    zelMC_MM_free("test", __LINE__, first);
    auto *zeroed = static_cast<char *>(zelMC_MM_calloc("test", __LINE__, 5, 100));
    EXPECT_EQ(zeroed, first);  // freed blocks serve again
    EXPECT_EQ(std::count(zeroed, zeroed + 500, 0), 500);
    EXPECT_EQ(zelMC_MM_calloc("test", __LINE__, SIZE_MAX / 2, 3), nullptr);
    for (const std::size_t bytes : {SIZE_MAX, platform::policyReservedBytes}) EXPECT_EQ(allocate(bytes), nullptr);
    char *large = allocate(2 * platform::policyStepBytes);
    large[2 * platform::policyStepBytes - 1] = 1;
    zelMC_MM_free("test", __LINE__, nullptr);
    zelMC_MM_free("test", __LINE__, large);
    EXPECT_DEATH(zelMC_MM_free("test", __LINE__, large), "policy heap: allocated block");
    EXPECT_DEATH(zelMC_MM_free("test", __LINE__, &large), "policy heap: link within the segment");
}

// allocateForEver: until killed.
ZEL_CHILD(allocateForEver) {
    Root *root = attachPolicy(false);
    if (root == nullptr) return errno;
    for (int i = 0;; ++i) {
        const auto bytes = static_cast<std::size_t>(i % 500 + 1);
        char *block = allocate(bytes);
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
        std::set<void *> blocks;
        for (std::size_t bytes = 1; bytes <= 500; ++bytes)
            ASSERT_TRUE(blocks.insert(zelMC_MM_calloc("test", __LINE__, 1, bytes)).second);
        ASSERT_EQ(blocks.count(nullptr), 0u);
        for (void *block : blocks) zelMC_MM_free("test", __LINE__, block);
    }
}

}  // namespace
}  // namespace zel::test
