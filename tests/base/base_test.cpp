#include <gtest/gtest.h>

#include <cstdint>
#include <string>

#include "base/host_check.h"
#include "base/lock.h"
#include "base/wire.h"
#include "zel/platform.h"

namespace zel::test {
namespace {

TEST(Wire, FieldsAreBigEndianAtAnyOffset) {
    using Half = wire::Field<std::uint16_t, 1>;
    using Word = wire::Field<std::uint32_t, Half::end>;
    using Long = wire::Field<std::uint64_t, Word::end>;
    std::uint8_t message[16] = {0xee};
    Long::set(message, 0x08090a0b0c0d0e0f);
    Word::set(message, 0x84050607);
    Half::set(message, 0x8203);
    EXPECT_EQ(memcmp(message, "\xee\x82\3\x84\5\6\7\x08\x09\x0a\x0b\x0c\x0d\x0e\x0f", sizeof message), 0);
    EXPECT_EQ(Half::get(message), 0x8203);
    EXPECT_EQ(Word::get(message), 0x84050607u);
    EXPECT_EQ(Long::get(message), 0x08090a0b0c0d0e0fu);
}

TEST(HostCheckDeathTest, TheTextIsPrintedLiterally) {
    EXPECT_DEATH(hostCheck(false, "!call (%s %n &lock)"),
                 "base_test.cpp:[0-9]+: .*Assertion '!call .%s %n &lock.' failed");
    EXPECT_DEATH(hostCheck(false, std::string(5000, 'x').c_str()), "base_test.cpp:[0-9]+: ");
    EXPECT_DEATH(mutexCallFailed("pthread_mutex_lock", "&task_list_lock", "file", 1, "function"),
                 "Assertion '!pthread_mutex_lock .&task_list_lock.' failed");
}

#ifndef NDEBUG
TEST(LockRankDeathTest, ADebugBuildStopsAtTheFirstViolation) {
    Mutex outer(LockRank::objectList, "&outer_lock"), inner(LockRank::taskList, "&inner_lock");
    {
        Lock first(outer), second(inner);
        first.unlock();  // not the last one taken; the inner one still counts
        EXPECT_DEATH(Lock third(outer), "lock order: &outer_lock .rank 20. taken while rank 70 is held");
    }
    Lock again(outer);  // nothing is left of the locks that were released
    Mutex sibling(LockRank::objectList, "&sibling_lock");
    EXPECT_DEATH(Lock second(sibling), "lock order: &sibling_lock");
    EXPECT_DEATH(ZEL_ShmWriteLock(ZEL_SHM_LOCK_SWP), "lock order: shared lock taken while rank 20 is held");
    EXPECT_EQ(ZEL_ShmWriteLock(ZEL_SHM_LOCK_HISTORY), 0);
    EXPECT_EQ(ZEL_ShmWriteUnLock(ZEL_SHM_LOCK_HISTORY), 0);
}
#endif

}  // namespace
}  // namespace zel::test
