#include <gtest/gtest.h>

#include <csignal>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "tests/kernel/tasks.h"
#include "tests/kernel/trace_support.h"
#include "tests/support/child.h"

using zel::test::Child;
using zel::test::eventually;
using zel::test::History;
using zel::test::StandingClock;

namespace {

// An entry that a writer finished: a text that reports "writer N line M", or a repeat line.
bool isWhole(const char *text) {
    int writer = -1, line = -1, end = 0;
    const char *body = strstr(text, "writer");
    return body != nullptr && sscanf(body, "writer %d line %d.\r\n%n", &writer, &line, &end) == 2 &&
           strlen(body) == static_cast<size_t>(end);
}

}  // namespace

TEST(History, EntryHasFixedPlacesAndBigEndianWords) {
    zelTraceInit();
    uint8_t *buffer = pTraceHistory[0];
    memset(buffer + 24012, 'x', 400);
    EXPECT_EQ(WriteStringToHistory("short", 0x01020304, 5, 0), 0);
    WriteStringToHistory(std::string(250, 'y').c_str(), 7, 6, 0);
    const uint8_t words[] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 2, 1, 2, 3, 4, 0, 0, 0, 7};
    EXPECT_EQ(memcmp(buffer, words, sizeof words), 0);
    const uint8_t levels[] = {0, 0, 0, 5, 0, 0, 0, 6};
    EXPECT_EQ(memcmp(buffer + 12012, levels, sizeof levels), 0);
    std::string first(200, '\0');
    first.replace(0, 5, "short");
    first.replace(197, 2, "\r\n");
    const std::string second = std::string(197, 'y') + "\r\n" + '\0';
    EXPECT_EQ(std::string(reinterpret_cast<char *>(buffer) + 24012, 400), first + second);
}

TEST(History, RepeatsWithinASecondAreCounted) {
    StandingClock clock;
    zelTraceInit();
    for (int i = 0; i < 3; ++i) zelErrorPrintf(5, "again");
    const History history(0);
    EXPECT_EQ(history.index(), 2u);
    EXPECT_STREQ(history.text(1), "\t - Repeated 2 times.\r\n");
    EXPECT_EQ(history.module(2), 5u) << "a rewritten line is noted at the index";
    EXPECT_EQ(lastMsgCount[0], 2u);
    // What differs behind the 199th character counts as the same; hardware levels are compared among themselves.
    const std::string prefix(200, 'p');
    zelErrorPrintf(5, "%s1", prefix.c_str());
    zelHwErrorPrintf(5, "hardware");
    zelErrorPrintf(5, "%s2", prefix.c_str());
    zelHwErrorPrintf(5, "hardware");
    for (const auto &[buffer, entry] : {std::pair{0, 3u}, {2, 1u}})
        EXPECT_STREQ(History(buffer).text(entry), "\t - Repeated 1 time.\r\n");
    clock.moveTo(StandingClock::second + 1);
    zelHwErrorPrintf(5, "hardware");
    EXPECT_EQ(History(2).index(), 3u);
    EXPECT_NE(strstr(History(2).text(2), ":21] ****** HW ERR: IPC"), nullptr);
}

TEST(History, WrapsAfterThreeThousandEntries) {
    zelTraceInit();
    History history(2);
    for (int i = 0; i < 2999; ++i) WriteStringToHistory("text", 1, 9, 0);
    EXPECT_EQ(history.index(), 2999u);
    EXPECT_EQ(history.wrapped(), 0u);
    WriteStringToHistory("last", 1, 9, 0);
    EXPECT_EQ(history.index(), 0u);
    EXPECT_EQ(history.wrapped(), 1u);
    WriteStringToHistory("last", 8, 9, 2);
    EXPECT_STREQ(history.text(2999), "\t - Repeated 2 times.\r\n");
    EXPECT_EQ(history.module(0), 8u);
    EXPECT_STREQ(history.text(0), "text");
    WriteStringToHistory("first", 1, 9, 0);
    EXPECT_STREQ(history.text(0), "first");

    // An index that another process destroyed does no harm.
    history.setIndex(0xfffffff0u);
    WriteStringToHistory("found back", 1, 9, 0);
    EXPECT_STREQ(history.text(0), "found back");
    EXPECT_EQ(history.index(), 1u);
}

ZEL_CHILD(historyWriter) {
    zelTraceInit();
    for (int line = 0; line < atoi(argv[0]); ++line) zelErrorPrintf(4, "writer 2 line %d.", line);
    return 0;
}

TEST(History, IsSharedByTheProcessesOfACpu) {
    zelTraceInit();
    constexpr int lines = 400;
    Child child = Child::start("historyWriter", {std::to_string(lines)});
    std::vector<std::thread> threads;
    for (int writer = 3; writer < 6; ++writer)
        threads.emplace_back([writer] {
            for (int line = 0; line < lines; ++line) zelErrorPrintf(4, "writer %d line %d.", writer, line);
        });
    for (auto &thread : threads) thread.join();
    EXPECT_EQ(child.wait(), 0);
    const History history(0);
    EXPECT_EQ(history.index(), 4u * lines);
    for (uint32_t i = 0; i < history.index(); ++i) ASSERT_TRUE(isWhole(history.text(i))) << i << history.text(i);
}

TEST(History, OutlivesWritersThatAreKilledDeletedOrSuspended) {
    zelTraceInit();
    std::uint32_t before = 0;
    const auto isWritten = [&] { return History(0).index() != before; };
    for (int round = 0; round < 20; ++round) {
        before = History(0).index();
        if (round % 4 == 0) {
            Child child = Child::start("historyWriter", {"100000000"});
            ASSERT_TRUE(eventually(20, isWritten));
            child.signal(SIGKILL);
            EXPECT_EQ(child.wait(), 256 + SIGKILL);
        } else {
            zel::test::TestTask printer([] {
                for (int line = 0;; ++line) zelErrorPrintf(4, "writer 1 line %d.", line), taskDelay(0);
            });
            ASSERT_TRUE(eventually(20, isWritten));
            if (round % 2 == 0) taskSuspend(printer.id());
            zelHwErrorPrintf(4, "round %d", round);
        }
        zelHwErrorPrintf(4, "after round %d", round);
    }
    EXPECT_EQ(History(2).index(), 35u);
}
