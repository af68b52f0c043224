#include <gtest/gtest.h>

#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "tests/kernel/trace_support.h"

using zel::test::History;
using zel::test::StandingClock;

namespace {

int printAt(uint32_t level, uint32_t module, const char *format, ...) {
    va_list args;
    va_start(args, format);
    const int result = zelMsgPrintf(level, module, format, args);
    va_end(args);
    return result;
}

struct LevelRow {
    uint32_t level;
    const char *kind;  // null: nothing is printed
    int buffer;
    uint32_t storedLevel;
};

constexpr LevelRow levelRows[] = {
    {0, nullptr, 0, 0},
    {1, nullptr, 0, 0},
    {2, "", 0, 2},
    {3, "****** ERROR ", 0, 3},
    {4, "***** WARNING ", 0, 4},
    {5, "**** NVRAM_MSG: ", 0, 5},
    {6, "EVT: ", 0, 6},
    {7, nullptr, 0, 0},
    {8, nullptr, 0, 0},
    {9, "HW EVT: ", 2, 9},
    {10, "##### HW WARN: ", 2, 10},
    {11, "HW: ", 2, 11},
    {12, "****** HW ERR: ", 2, 12},
    {13, "HW EVT: ", 0, 9},
    {14, "HW: ", 0, 11},
    {15, "****** HW ERR: ", 0, 12},
    {16, "##### HW WARN: ", 0, 10},
    {17, nullptr, 0, 0},
    {0xffffffffu, nullptr, 0, 0},
};

class Levels : public testing::TestWithParam<LevelRow> {};

}  // namespace

TEST_P(Levels, PrintTheirHeaderAndLandInTheirBuffer) {
    const StandingClock clock;
    ASSERT_EQ(zelTraceInit(), 0);
    const LevelRow row = GetParam();
    zelTracePrintOn();
    testing::internal::CaptureStdout();
    EXPECT_EQ(printAt(row.level, 51, "%d routes, %s", 7, "done"), 0);
    const std::string printed = testing::internal::GetCapturedStdout();
    if (row.kind == nullptr) {
        EXPECT_EQ(printed, "");
        EXPECT_EQ(History(0).index() + History(2).index(), 0u);
        return;
    }
    const std::string expected =
        "[11/14 22:13:20] " + std::string(row.kind) + "RTM-((null)):CPBLOB:0: 7 routes, done\r\n";
    EXPECT_EQ(printed, expected);
    const History history(row.buffer);
    EXPECT_EQ(history.index(), 1u);
    EXPECT_EQ(History(2 - row.buffer).index(), 0u);
    EXPECT_EQ(history.text(0), expected);
    EXPECT_EQ(history.module(0), 51u);
    EXPECT_EQ(history.level(0), row.storedLevel);
}

INSTANTIATE_TEST_SUITE_P(Print, Levels, testing::ValuesIn(levelRows),
                         [](const auto &row) { return "level" + std::to_string(row.param.level); });

TEST(Print, EveryPrinterHasItsLevel) {
    const StandingClock clock;
    zelTraceInit();
    zelTracePrintf(3, "%s", "a");
    zelErrorPrintf(3, "b");
    zelWarningPrintf(3, "c");
    zelNvramPrintf(3, "d");
    zelHwTracePrintf(3, "e");
    zelAllTracePrintf(3, "f");
    zelHwErrorPrintf(3, "g");
    zelAllErrorPrintf(3, "h");
    zelHwWarningPrintf(3, "i");
    zelAllWarningPrintf(3, "j");
    zelHwEventPrintf(3, "k");
    zelAllEventPrintf(3, "l");
    const auto levels = [](int buffer) {
        std::vector<uint32_t> result;
        const History history(buffer);
        for (uint32_t i = 0; i < history.index(); ++i) result.push_back(history.level(i));
        return result;
    };
    EXPECT_EQ(levels(0), (std::vector<uint32_t>{2, 3, 4, 5}));
    EXPECT_EQ(levels(2), (std::vector<uint32_t>{11, 11, 12, 12, 10, 10, 9, 9}));

    zelHwTraceFlag = 0;
    zelTracePrintOn();
    testing::internal::CaptureStdout();
    zelHwErrorPrintf(3, "silent");
    zelAllEventPrintf(3, "silent");
    zelHwTraceFlag = 1;
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_EQ(History(2).index(), 8u);
}

TEST(Print, BeforeInitialisationGoesToStandardOutput) {
    const StandingClock clock;
    const std::string message = "[11/14 22:13:20] ****** ERROR ?\?\?-((null)):CPBLOB:0: early\r\n";
    const std::string remark = "ZEL_TRACE or ZEL_ERROR called even before trace init.\r";
    testing::internal::CaptureStdout();
    zelErrorPrintf(142, "early");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), message + remark);
    zelTracePrintOn();
    testing::internal::CaptureStdout();
    zelErrorPrintf(0, "early");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), message + message + remark);
    EXPECT_EQ(wrap_modtraceflags(5), 0u);
    zelSetModuleTraceFlag(5, 1);
    zelTraceInit();
    EXPECT_EQ(wrap_modtraceflags(5), 0u);
    EXPECT_EQ(History(0).index(), 0u);
}

TEST(Print, HistoryIsAttachedAtTheFirstMessageWithoutIt) {
    const StandingClock clock;
    static uint32_t flags[ZEL_TRACE_MODULES];
    moduleTraceFlags = flags;
    testing::internal::CaptureStdout();
    zelErrorPrintf(1, "first");
    zelErrorPrintf(1, "second");
    EXPECT_EQ(
        testing::internal::GetCapturedStdout(),
        "Trace history is null.. somthing bad.. [11/14 22:13:20] ****** ERROR SYS-((null)):CPBLOB:0: first\r\n\n");
    EXPECT_EQ(History(0).index(), 2u);
}

TEST(Print, TextLongerThanTheBufferIsCutAndReported) {
    const StandingClock clock;
    zelTraceInit();
    const std::string header = "[11/14 22:13:20] IPC-((null)):CPBLOB:0: ";
    const std::string fits(1197 - header.size(), 'x');
    zelTracePrintOn();
    testing::internal::CaptureStdout();
    zelTracePrintf(5, "%s", fits.c_str());
    EXPECT_EQ(testing::internal::GetCapturedStdout(), header + fits + "\r\n");
    testing::internal::CaptureStdout();
    zelTracePrintf(5, "%sy", fits.c_str());
    const std::string banner = "\r\n+++++++++++++++++++++++++++++++++++++++++++++\r\n\r";
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              banner + "Error: The IPC trace string is longer than 1200 !\r\n" + banner + header + fits + "\r\n");
}

TEST(Print, FixedTextKeepsAllButItsFirstPercent) {
    const StandingClock clock;
    zelTraceInit();
    zelTracePrintStr(5, ("50% of %d" + std::string(300, 'z')).c_str());
    EXPECT_STREQ(lastMsg[0],
                 ("[11/14 22:13:20] IPC-((null)):CPBLOB:0: 50! of %d" + std::string(199 - 49, 'z')).c_str());
}

TEST(Print, ModuleWordKeepsPlainTracesOutOfTheHistory) {
    const StandingClock clock;
    zelTraceInit();
    zelSetModuleTraceFlag(5, 0x80000021u);
    EXPECT_EQ(wrap_modtraceflags(5), 0x21u);
    zelTracePrintf(5, "not recorded");
    zelErrorPrintf(5, "recorded");
    zelTracePrintf(6, "recorded");
    EXPECT_EQ(History(0).index(), 2u);
    testing::internal::CaptureStdout();
    zelSetModuleTraceFlag(0, 1);
    zelSetModuleTraceFlag(142, 1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Invalid module id 0 \r\nInvalid module id 142 \r\n");
    EXPECT_EQ(wrap_modtraceflags(0), 0u);
    EXPECT_EQ(wrap_modtraceflags(142), 0u);
}

TEST(Print, ModulesAreFoundByName) {
    EXPECT_EQ(zelTraceGetModuleIdFromName("sys"), 1u);
    EXPECT_EQ(zelTraceGetModuleIdFromName("Dhcpv6Relay"), 102u);
    EXPECT_EQ(zelTraceGetModuleIdFromName("CRYPTOMGR"), 139u);
    EXPECT_EQ(zelTraceGetModuleIdFromName(nullptr), 0u);
    testing::internal::CaptureStdout();
    EXPECT_EQ(zelTraceGetModuleIdFromName("?\?\?"), 0u);
    const std::string printed = testing::internal::GetCapturedStdout();
    EXPECT_EQ(printed.rfind("Invalid module.\r\nValid modules: SYS   RAM   ", 0), 0u);
    EXPECT_NE(printed.find("PHONEHOME   CRYPTOMGR   "), std::string::npos);
}

TEST(Print, ErrorNumberSurvivesEveryReport) {
    zelTraceInit();
    testing::internal::CaptureStdout();
    zelTracePrintOn();
    errnoSet(ZEL_ERR_TIMEOUT);
    zelErrorPrintf(1, "%s", "text");
    _zelAssert("a == b", "zelLL", 12);
    WriteStringToHistory("text", 1, 3, 0);
    EXPECT_EQ(errnoGet(), ZEL_ERR_TIMEOUT);
    testing::internal::GetCapturedStdout();
}

TEST(Assert, ReportsCallerAndGoesOn) {
    const StandingClock clock;
    zelTraceInit();
    errno = 0;
    zelAssert(1 + 1 == 2, "print_test");
    EXPECT_EQ(History(0).index(), 0u);
    _zelAssert("100%% sure", "zelRBTree", 77);
    EXPECT_STREQ(lastMsg[0],
                 "[11/14 22:13:20] ****** ERROR SYS-((null)):CPBLOB:0: Unk: *** ASSERTION-FAILED *** Expression "
                 "'100% sure' at zelRBTree/77 (task id 0x3d0001).\r\n\r\n");

    const auto assertingTask = [](intptr_t, intptr_t, intptr_t, intptr_t, intptr_t, intptr_t, intptr_t, intptr_t,
                                  intptr_t, intptr_t) {
        zelAssert(2 > 3, "print_test");
        return zelErrorPrintf(2, "still here");
    };
    ASSERT_EQ(taskSpawn("tChecker", 100, 0, 0, assertingTask, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0), 1);
    while (taskNameToId("tChecker") != ZEL_ERROR) taskDelay(1);
    EXPECT_NE(strstr(History(0).text(1),
                     "SYS-(tChecker):CPBLOB:0: tChecker: *** ASSERTION-FAILED *** Expression "
                     "'2 > 3' at print_test/"),
              nullptr);
    EXPECT_NE(strstr(History(0).text(1), "(task id 0x1).\r\n"), nullptr);
    EXPECT_STREQ(History(0).text(2), "[11/14 22:13:20] ****** ERROR RAM-(tChecker):CPBLOB:0: still here\r\n");
}
