#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <utility>

#include "base/host_check.h"
#include "base/lock.h"
#include "base/wire.h"
#include "zel/platform.h"

namespace zel::test {
namespace {

TEST(Wire, FieldsAreBigEndianAtAnyOffset) {
    using Byte = wire::Field<std::uint8_t, 0>;
    using Half = wire::Field<std::uint16_t, 1>;
    using Word = wire::Field<std::uint32_t, 3>;
    using Long = wire::Field<std::uint64_t, 7>;
    static_assert(Byte::end == Half::offset && Half::end == Word::offset && Word::end == Long::offset);
    std::uint8_t message[16];
    memset(message, 0xee, sizeof message);
    Long::set(message, 0x08090a0b0c0d0e0f);
    Byte::set(message, 0x01);
    Word::set(message, 0x84050607);
    Half::set(message, 0x8203);
    const std::uint8_t expected[16] = {0x01, 0x82, 0x03, 0x84, 0x05, 0x06, 0x07, 0x08,
                                       0x09, 0x0a, 0x0b, 0x0c, 0x0d, 0x0e, 0x0f, 0xee};
    EXPECT_EQ(memcmp(message, expected, sizeof message), 0);
    EXPECT_EQ(Byte::get(message), 0x01);
    EXPECT_EQ(Half::get(message), 0x8203);
    EXPECT_EQ(Word::get(message), 0x84050607u);
    EXPECT_EQ(Long::get(message), 0x08090a0b0c0d0e0fu);
}

TEST(HostCheckDeathTest, TheTextIsPrintedLiterally) {
    hostCheck(true, "never printed");
    EXPECT_DEATH(hostCheck(false, "!call (%s %n &lock)"),
                 "base_test.cpp:[0-9]+: .*Assertion '!call .%s %n &lock.' failed");
    const std::string endless(5000, 'x');
    EXPECT_DEATH(hostCheck(false, endless.c_str()), "base_test.cpp:[0-9]+: ");
}

TEST(Lock, AMovedLockIsReleasedOnce) {
    Mutex mutex(LockRank::object, "&object_lock");
    {
        Lock first(mutex);
        EXPECT_EQ(pthread_mutex_trylock(&mutex.native), EBUSY);
        Lock second(std::move(first));
        EXPECT_TRUE(second.isHeld());
        second.unlock();
        second.lock();
    }
    EXPECT_EQ(pthread_mutex_trylock(&mutex.native), 0);
    pthread_mutex_unlock(&mutex.native);
}

TEST(LockDeathTest, AFailedCallNamesTheLock) {
    Mutex mutex(LockRank::taskList, "&task_list_lock");
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_ERRORCHECK);
    pthread_mutex_init(&mutex.native, &attributes);
    // Within the statements: they run in another process, and an error-checking mutex knows its thread.
    EXPECT_DEATH(
        {
            pthread_mutex_lock(&mutex.native);
            Lock lock(mutex);
        },
        "Assertion '!pthread_mutex_lock .&task_list_lock.' failed");
    EXPECT_DEATH(
        {
            Lock lock(mutex);
            pthread_mutex_unlock(&mutex.native);
        },
        "Assertion '!pthread_mutex_unlock .&task_list_lock.' failed");
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
