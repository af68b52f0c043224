// The calls around access lists: names, handles, both sets of tables, the lock, the writer's calls, error texts.
#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <future>
#include <string>

#include "policy/tables.h"
#include "tests/policy/acl_model.h"
#include "tests/policy/manager.h"
#include "tests/support/allocations.h"
#include "zel/platform.h"

namespace zel::test {
namespace {

constexpr uint32_t here = 0x0a000001, there = 0x0b000001;
const uint8_t here6[16] = {0x20, 1}, there6[16] = {0x20, 2};

zelAclIpEntry ipEntry(uint32_t sequence, uint8_t action, uint32_t source) {
    zelAclIpEntry entry = {};
    entry.sequence = sequence;
    entry.action = action;
    entry.protocol = 17;
    entry.sourceOperator = entry.destinationOperator = 255;
    entry.source = source;
    entry.sourceWildcard = 0xff;
    return entry;
}

zelAclIpv6Entry ipv6Entry(uint32_t sequence, uint8_t action, const uint8_t *source) {
    zelAclIpv6Entry entry = {};
    entry.sequence = sequence;
    entry.action = action;
    memcpy(entry.source, source, 16);
    memset(entry.sourceMask, 0xff, 16);
    return entry;
}

class AccessListCalls : public ManagerTest {
protected:
    static void setBoth(zelAclMgr *into, const char *name, uint8_t action) {
        const zelAclIpEntry ip = ipEntry(10, action, here);
        const zelAclIpv6Entry ipv6 = ipv6Entry(10, action, here6);
        ASSERT_EQ(zelAclMgrSetIpList(into, name, &ip, 1), 0u);
        ASSERT_EQ(zelAclMgrSetIpv6List(into, name, &ipv6, 1), 0u);
    }
};

// What every plain check says of a packet from `here`, or of one from `there`.
std::vector<uint32_t> plainVerdicts(const char *name, const zelIpAcl *list, bool isHere) {
    const uint32_t from = isHere ? here : there;
    const uint8_t *from6 = isHere ? here6 : there6;
    const zelIpPair pair = {from, 0};
    return {ipAccessListCheck(name, from, 0),
            ipAccessListCheckWithHandle(list, from, 0),
            ipFilterCheck(&pair, list),
            m_ipAccessListCheckWithHandle(list, from, 0),
            ipUdpAccessListCheck(name, from, 9, 0, 9, 1, 1),
            ipUdpAccessListCheckWithHandle(list, from, 0, 1, 1),
            ipUdpFilterCheck(from, 0, 1, 1, list),
            m_ipUdpAccessListCheckWithHandle(list, from, 0, 1, 1),
            aclV6AccessListCheck(name, from6, nullptr),
            aclV6AccessListCheckWithHandle(list, from6, nullptr),
            aclV6FilterCheck(from6, nullptr, list),
            aclV6FilterCheckOnlySrc(from6, nullptr, list),
            m_aclV6AccessListCheckWithHandle(list, from6, nullptr)};
}

std::vector<uint32_t> lockedVerdicts(const char *name, const zelIpAcl *list) {
    return {ipAccessListCheckExt(name, here, 0),
            ipAccessListCheckWithHandleExt(list, here, 0),
            ipUdpAccessListCheckExt(name, here, 9, 0, 9, 1, 1),
            m_ipAccessListCheckExt(name, here, 0),
            m_ipAccessListCheckWithHandleExt(list, here, 0),
            m_ipUdpAccessListCheckExt(name, here, 9, 0, 9, 1, 1)};
}

std::vector<uint32_t> secondVerdicts(const char *name) {
    return {m_ipAccessListCheck(name, here, 0), m_ipUdpAccessListCheck(name, here, 9, 0, 9, 1, 1),
            m_aclV6AccessListCheck(name, here6, nullptr)};
}

std::vector<uint32_t> all(size_t count, uint32_t verdict) {
    return std::vector<uint32_t>(count, verdict);
}

TEST_F(AccessListCalls, NamesHandlesAndSetsOfTables) {
    setBoth(manager, "x", 7);
    setBoth(second, "x", 5);
    const zelIpAcl *list = ipAccessListFind("x");
    EXPECT_EQ(plainVerdicts("x", list, true), all(13, 7));
    EXPECT_EQ(plainVerdicts("x", list, false), all(13, 1));
    EXPECT_EQ(lockedVerdicts("x", list), all(6, 7)) << "m_ and Ext: the first set of tables";
    EXPECT_EQ(secondVerdicts("x"), all(3, 5));
    EXPECT_EQ(isAclSupportedOnRp2(), 0);
    EXPECT_EQ(aclV6AccessListFind("x"), list);
    EXPECT_EQ(m_aclV6AccessListFind("x"), m_ipAccessListFind("x"));
    EXPECT_NE(m_ipAccessListFind("x"), list);
    for (const char *name : {"y", "", static_cast<const char *>(nullptr)}) {
        EXPECT_EQ(ipAccessListFind(name), nullptr);
        EXPECT_EQ(plainVerdicts(name, nullptr, true), all(13, 0));
        EXPECT_EQ(lockedVerdicts(name, nullptr), all(6, 0));
    }
    EXPECT_EQ(ipFilterCheck(nullptr, list) + aclV6FilterCheck(nullptr, here6, list), 2u) << "no entry matches nothing";
    EXPECT_EQ(aclV6FilterCheckOnlySrc(nullptr, nullptr, list) - aclV6AccessListEntry(list, nullptr), 1u);
    EXPECT_EQ(ipFilterCheck(nullptr, nullptr) + aclV6FilterCheck(nullptr, nullptr, nullptr), 0u);
    ASSERT_EQ(zelAclMgrSetIpList(manager, "empty", nullptr, 0), 0u);
    EXPECT_EQ(plainVerdicts("empty", ipAccessListFind("empty"), true), all(13, 0));
    setBoth(manager, std::string(140, 'n').c_str(), 7);
    EXPECT_EQ(ipAccessListCheck(std::string(200, 'n').c_str(), here, 0), 7u) << "140 characters count";
    EXPECT_EQ(ipAccessListCheck(std::string(139, 'n').c_str(), here, 0), 0u);
    for (const zelRadix *tree :
         {aclMgrIpMacAclGetTreeHndle(), aclMgrDhcpSnoopGetTreeHndle(), aclMgrDhcpHelperGetTreeHndle()})
        EXPECT_EQ(tree->rtt_magic == ZEL_RADIX_MAGIC ? tree->rtt_root : 1u, 0u);
}

TEST(AccessListAlone, WithoutTablesNoListExists) {
    EXPECT_EQ(plainVerdicts("x", nullptr, true), all(13, 0));
    EXPECT_EQ(aclMgrIpMacAclGetTreeHndle(), nullptr);
}

TEST_F(AccessListCalls, EntriesComeBackAsTheyWereGiven) {
    Random random = seeded();
    const aclmgr::AclEntries list = someList(random, 30, 30);
    std::vector<zelAclIpEntry> shuffled(list.ip.rbegin(), list.ip.rend());
    ASSERT_EQ(zelAclMgrSetIpList(manager, "x", shuffled.data(), 30), 0u);
    EXPECT_EQ(zelAclMgrGetIpv6Entries(manager, "x", nullptr, 0), -1);
    for (const zelAclIpv6Entry &entry : list.ipv6) ASSERT_EQ(zelAclMgrAddIpv6Entry(manager, "x", &entry), 0u);
    std::vector<zelAclIpEntry> ip(40, zelAclIpEntry{});
    std::vector<zelAclIpv6Entry> ipv6(30, zelAclIpv6Entry{});
    const auto expectSame = [&] {
        ASSERT_EQ(zelAclMgrGetIpEntries(manager, "x", ip.data(), 30), 30);
        ASSERT_EQ(zelAclMgrGetIpv6Entries(manager, "x", ipv6.data(), 30), 30);
        EXPECT_EQ(memcmp(ip.data(), list.ip.data(), 30 * sizeof ip[0]), 0);
        EXPECT_EQ(memcmp(ipv6.data(), list.ipv6.data(), 30 * sizeof ipv6[0]), 0);
    };
    expectSame();
    const zelAclIpEntry again = ipEntry(10, 1, here);
    EXPECT_EQ(zelAclMgrAddIpEntry(manager, "x", &again), 0x39000029u);
    EXPECT_EQ(zelAclMgrSetIpList(manager, "x", &again, 1) | zelAclMgrSetIpList(manager, "x", list.ip.data(), 30), 0u);
    expectSame();
    zelAclIpEntry next = ipEntry(0, 1, here);
    EXPECT_EQ(zelAclMgrAddIpEntry(manager, "x", &next), 0u);
    EXPECT_EQ(zelAclMgrGetIpEntries(manager, "x", ip.data(), 40), 31);
    EXPECT_EQ(ip[30].sequence, 305u);
    next.sequence = UINT32_MAX;
    EXPECT_EQ(zelAclMgrAddIpEntry(manager, "x", &next), 0u);
    next.sequence = 0;
    EXPECT_EQ(zelAclMgrAddIpEntry(manager, "x", &next), 0x3900002du);
    EXPECT_EQ(zelAclMgrAddIpEntry(manager, std::string(141, 'n').c_str(), &next), 0x39000068u);
    EXPECT_EQ(zelAclMgrGetIpEntries(manager, "y", ip.data(), 40), -1);
    EXPECT_EQ(zelAclMgrGetIpEntries(second, "x", ip.data(), 40), -1);
}

TEST_F(AccessListCalls, PlainChecksTakeNoLockAndAllocateNothing) {
    setBoth(manager, "x", 7);
    const zelIpAcl *list = ipAccessListFind("x");
    const auto otherTask = [](auto body) { return std::async(std::launch::async, body); };
    ASSERT_EQ(acl2WriteLockExt(), 0);
    EXPECT_EQ(otherTask([&] { return plainVerdicts("x", list, true); }).get(), all(13, 7));
    const uint64_t before = allocationsSoFar();
    uint32_t verdicts = 7;
    for (int i = 0; i < 1000; ++i)
        verdicts &= ipAccessListCheck("x", here, 0) & ipUdpAccessListCheck("x", here, 0, 0, 0, 1, 1) &
                    aclV6AccessListCheck("x", here6, nullptr) & aclV6FilterCheckOnlySrc(here6, nullptr, list);
    EXPECT_EQ(verdicts, 7u);
    EXPECT_EQ(allocationsSoFar(), before);
    auto locked = otherTask([&] { return lockedVerdicts("x", list); });
    EXPECT_EQ(locked.wait_for(std::chrono::milliseconds(20)), std::future_status::timeout) << "these wait";
    EXPECT_EQ(acl2WriteUnlockExt(), 0);
    EXPECT_EQ(locked.get(), all(6, 7));
}

TEST(AccessListLock, EveryFormTakesOrReleasesOneLock) {
    int (*const take[])() = {aclReadLock, acl2ReadLock, aclReadLockExt, acl2ReadLockExt};
    int (*const leave[])() = {aclReadUnlock, acl2ReadUnlock, aclReadUnlockExt, acl2ReadUnlockExt};
    for (auto call : take) EXPECT_EQ(call(), 0);
    for (auto call : leave) EXPECT_EQ(call(), 0);
    for (auto call : leave) EXPECT_TRUE(call() == -1 && errno == EPERM);
    int (*const write[])() = {aclWriteLock, acl2WriteLock, acl2WriteLockExt};
    int (*const unlock[])() = {aclWriteUnlock, acl2WriteUnlock, acl2WriteUnlockExt};
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(write[i](), 0);
        EXPECT_EQ(unlock[(i + 1) % 3](), 0);
    }
}

TEST(AccessListErrors, EveryTextAsItIsStored) {
    uint64_t hash = 0xcbf29ce484222325;  // FNV-1a over all texts
    for (uint32_t code = 0x39000001; code <= 0x390000c6; ++code) {
        const bool takesNumbers =
            (code >= 0x39000068 && code <= 0x3900006d) || code == 0x39000099 || code == 0x390000ab;
        const char *text = takesNumbers ? aclRetCodeToStr(code, 7, 7) : aclRetCodeToStr(code, "N", "N");
        for (; *text != 0; ++text) hash = (hash ^ static_cast<uint8_t>(*text)) * 0x100000001b3;
    }
    EXPECT_EQ(hash, 0x7aac950f6d38c21eu);
    EXPECT_STREQ(aclRetCodeToStr(0x39000020, "in"), "% Error: Prefix-list in does not exist.\r\n");
    EXPECT_STREQ(aclRetCodeToStr(0x39000049), "% Error: \r\n");
    const std::string last = aclRetCodeToStr(0x390000b0);
    EXPECT_TRUE(last.ends_with("the acl range.\n\r"));
    for (const uint32_t code : {0u, 1u, 0x39000000u, 0x390000c7u, UINT32_MAX}) EXPECT_STREQ(aclRetCodeToStr(code), "");
    const std::string longName(1000, '%');
    const std::string cut = aclRetCodeToStr(0x39000001, longName.c_str());
    EXPECT_EQ(cut, "% Error: Access-list " + longName.substr(0, 255 - 21)) << "an argument is no format, and is cut";
}

}  // namespace
}  // namespace zel::test
