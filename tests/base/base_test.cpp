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
    const std::string endless(5000, 'x');
    EXPECT_DEATH(hostCheck(false, endless.c_str()), "base_test.cpp:[0-9]+: ");
}

TEST(LockDeathTest, AFailedCallNamesTheLock) {
    Mutex mutex(LockRank::taskList, "&task_list_lock");
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_ERRORCHECK);
    pthread_mutex_init(&mutex.native, &attributes);
    // Within the statement: it runs in another process, and an error-checking mutex knows its thread.
    EXPECT_DEATH(
        {
            pthread_mutex_lock(&mutex.native);
            Lock lock(mutex);
        },
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
