#include <gtest/gtest.h>

#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <string>
#include <vector>

#include "tests/kernel/tasks.h"
#include "tests/kernel/trace_support.h"
#include "tests/support/printed.h"

using namespace zel::test;

namespace {

int printAt(uint32_t level, uint32_t module, const char *format, ...) {
    va_list args;
    va_start(args, format);
    const int result = zelMsgPrintf(level, module, format, args);
    va_end(args);
    return result;
}

class Print : public testing::Test {
    const StandingClock clock_;
};

}  // namespace

TEST_F(Print, EachLevelHasItsHeaderAndItsBuffer) {
    const struct {
        uint32_t level;
        const char *kind;  // null: nothing is printed
        int buffer;
        uint32_t storedLevel;
    } rows[] = {{1, nullptr, 0, 0},
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
                {0xffffffffu, nullptr, 0, 0}};
    ASSERT_EQ(zelTraceInit(), 0);
    EXPECT_EQ(zelTracePrintOn(), 1);
    uint32_t entries[3] = {};
    for (const auto &row : rows) {
        SCOPED_TRACE(row.level);
        const std::string text = printedBy([&] { printAt(row.level, 51, "%d routes, %s", 7, "done"); });
        if (row.kind != nullptr) {
            const History history(row.buffer);
            const uint32_t entry = entries[row.buffer]++;
            EXPECT_EQ(text, std::string("[11/14 22:13:20] ") + row.kind + "RTM-((null)):CPBLOB:0: 7 routes, done\r\n");
            EXPECT_EQ(history.text(entry), text);
            EXPECT_EQ(history.module(entry), 51u);
            EXPECT_EQ(history.level(entry), row.storedLevel);
        }
        EXPECT_EQ(text.empty(), row.kind == nullptr);
        EXPECT_EQ(History(0).index(), entries[0]);
        EXPECT_EQ(History(2).index(), entries[2]);
    }
}

TEST_F(Print, EveryPrinterHasItsLevel) {
    zelTraceInit();
    zelTracePrintf(3, "%s", "a"), zelErrorPrintf(3, "b"), zelWarningPrintf(3, "c"), zelNvramPrintf(3, "d");
    zelHwTracePrintf(3, "e"), zelHwErrorPrintf(3, "f"), zelHwWarningPrintf(3, "g"), zelHwEventPrintf(3, "h");
    zelAllTracePrintf(3, "i"), zelAllErrorPrintf(3, "j"), zelAllWarningPrintf(3, "k"), zelAllEventPrintf(3, "l");
    zelHwTraceFlag = 0;
    zelHwErrorPrintf(3, "silent"), zelAllEventPrintf(3, "silent");
    zelHwTraceFlag = 1;
    const auto levels = [](const History &history) {
        std::vector<uint32_t> result;
        for (uint32_t i = 0; i < history.index(); ++i) result.push_back(history.level(i));
        return result;
    };
    EXPECT_EQ(levels(History(0)), (std::vector<uint32_t>{2, 3, 4, 5}));
    EXPECT_EQ(levels(History(2)), (std::vector<uint32_t>{11, 12, 10, 9, 11, 12, 10, 9}));
}

TEST_F(Print, BeforeInitialisationGoesToStandardOutput) {
    const std::string message = "[11/14 22:13:20] ****** ERROR ?\?\?-((null)):CPBLOB:0: early\r\n";
    const std::string remark = "ZEL_TRACE or ZEL_ERROR called even before trace init.\r";
    EXPECT_EQ(printedBy([] { zelErrorPrintf(142, "early"); }), message + remark);
    zelTracePrintOn();
    EXPECT_EQ(printedBy([] { zelErrorPrintf(0, "early"); }), message + message + remark);
    zelTracePrintOff();
    // With words but no history it is attached at the first message.
    static uint32_t flags[ZEL_TRACE_MODULES];
    moduleTraceFlags = flags;
    EXPECT_EQ(printedBy([] { zelErrorPrintf(0, "early"), zelErrorPrintf(1, "second"); }),
              "Trace history is null.. somthing bad.. " + message + "\n");
    EXPECT_EQ(History(0).index(), 2u);
}

TEST_F(Print, TextLongerThanTheBufferIsCutAndReported) {
    zelTraceInit();
    const std::string header = "[11/14 22:13:20] IPC-((null)):CPBLOB:0: ";
    const std::string fits(1197 - header.size(), 'x');
    zelTracePrintOn();
    EXPECT_EQ(printedBy([&] { zelTracePrintf(5, "%s", fits.c_str()); }), header + fits + "\r\n");
    const std::string banner = "\r\n+++++++++++++++++++++++++++++++++++++++++++++\r\n\r";
    EXPECT_EQ(printedBy([&] { zelTracePrintf(5, "%sy", fits.c_str()); }),
              banner + "Error: The IPC trace string is longer than 1200 !\r\n" + banner + header + fits + "\r\n");
    zelTracePrintOff();
    // A fixed text is cut at 199 and loses its first percent alone.
    zelTracePrintStr(5, ("50% of %d" + std::string(300, 'z')).c_str());
    EXPECT_EQ(lastMsg[0], header + "50! of %d" + std::string(199 - 49, 'z'));
}

TEST_F(Print, ModuleWordKeepsPlainTracesOutOfTheHistory) {
    zelTraceInit();
    zelSetModuleTraceFlag(5, 0x80000021u);
    EXPECT_EQ(wrap_modtraceflags(5), 0x21u);
    zelTracePrintf(5, "not recorded");
    zelErrorPrintf(5, "recorded"), zelTracePrintf(6, "recorded");
    EXPECT_EQ(History(0).index(), 2u);
    EXPECT_EQ(printedBy([] { zelSetModuleTraceFlag(0, 1), zelSetModuleTraceFlag(142, 1); }),
              "Invalid module id 0 \r\nInvalid module id 142 \r\n");
    for (const char *name : {"rtm", "RTM", "cryptoMGR"})
        EXPECT_EQ(zelTraceGetModuleIdFromName(name), *name == 'c' ? 139u : 51u);
    const std::string names = printedBy([] { EXPECT_EQ(zelTraceGetModuleIdFromName("rt"), 0u); });
    EXPECT_EQ(names.rfind("Invalid module.\r\nValid modules: SYS   RAM   ", 0), 0u);
    EXPECT_EQ(zelTraceGetModuleIdFromName(nullptr), 0u);
}

TEST_F(Print, AssertReportsCallerAndGoesOn) {
    zelTraceInit();
    zelAssert(1 + 1 == 2, "print_test");
    EXPECT_EQ(History(0).index(), 0u);
    errnoSet(ZEL_ERR_TIMEOUT);
    _zelAssert("100%% sure", "zelRBTree", 77);
    EXPECT_EQ(errnoGet(), ZEL_ERR_TIMEOUT);
    EXPECT_STREQ(lastMsg[0],
                 "[11/14 22:13:20] ****** ERROR SYS-((null)):CPBLOB:0: Unk: *** ASSERTION-FAILED *** Expression "
                 "'100% sure' at zelRBTree/77 (task id 0x3d0001).\r\n\r\n");
    const zelTaskId tid = zel::test::spawn(
        [] {
            zelAssert(2 > 3, "print_test");
            zelErrorPrintf(2, "still here");
        },
        "tChecker");
    ASSERT_TRUE(zel::test::ends(tid));
    EXPECT_NE(strstr(History(0).text(1),
                     "SYS-(tChecker):CPBLOB:0: tChecker: *** ASSERTION-FAILED *** Expression '2 > 3' at print_test/"),
              nullptr);
    EXPECT_NE(strstr(History(0).text(1), "(task id 0x1).\r\n"), nullptr);
    EXPECT_STREQ(History(0).text(2), "[11/14 22:13:20] ****** ERROR RAM-(tChecker):CPBLOB:0: still here\r\n");
}
