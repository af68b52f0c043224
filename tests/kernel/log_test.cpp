#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include <string>

#include "tests/kernel/tasks.h"

using zel::test::eventually;

namespace {

// A pipe that collects what the log task writes.
class LogPipe {
public:
    LogPipe() {
        EXPECT_EQ(pipe2(fds_, O_CLOEXEC), 0);
        fcntl(fds_[0], F_SETFL, O_NONBLOCK);
    }
    ~LogPipe() {
        closeReader();
        close(fds_[1]);
    }
    LogPipe(const LogPipe &) = delete;
    LogPipe &operator=(const LogPipe &) = delete;

    int fd() const { return fds_[1]; }
    void closeReader() {
        if (fds_[0] >= 0) close(fds_[0]);
        fds_[0] = -1;
    }
    // Waits until what was written so far ends with `end`.
    bool endsWith(const std::string &end) {
        return eventually(20, [&] {
            char chunk[4096];
            for (ssize_t n; (n = read(fds_[0], chunk, sizeof chunk)) > 0;) text_.append(chunk, static_cast<size_t>(n));
            return text_.size() >= end.size() && text_.compare(text_.size() - end.size(), end.size(), end) == 0;
        });
    }
    const std::string &text() const { return text_; }

private:
    int fds_[2] = {-1, -1};
    std::string text_;
};

intptr_t word(const char *text) {
    return reinterpret_cast<intptr_t>(text);
}

}  // namespace

TEST(Log, RefusesBeforeItIsStarted) {
    EXPECT_EQ(logMsg("lost\n", 0, 0, 0, 0, 0, 0), -1);
    EXPECT_EQ(logMsgsLost, 1u);
    EXPECT_EQ(logFdAdd(1) + logFdDelete(1) + logFdSet(1) + logInit(1, -1), -4);
    EXPECT_EQ(logTaskId, 0);
}

TEST(Log, FormatsWhatIsQueuedLosesNothingAndStartsOnce) {
    LogPipe pipe;
    ASSERT_EQ(logInit(pipe.fd(), 2), 0);
    EXPECT_EQ(logInit(pipe.fd(), 2), -1);
    EXPECT_EQ(taskNameToId("tLogTask"), logTaskId);
    std::string lines;
    for (int i = 0; i < 200; ++i) {
        ASSERT_EQ(logMsg("line %d\n", i, 0, 0, 0, 0, 0), ZEL_LOG_RECORD_RESULT);
        lines += "0x0 Zelnet-1-GEN_MSG: line " + std::to_string(i) + "\n";
    }
    EXPECT_TRUE(pipe.endsWith(lines));
    EXPECT_EQ(pipe.text(), lines);
    logMsg("%d %s %x %c %ld %s\n", -5, word("two"), 0xabc, 'd', 1234567890, word("six"));
    EXPECT_TRUE(pipe.endsWith("0x0 Zelnet-1-GEN_MSG: -5 two abc d 1234567890 six\n"));
    const std::string name(30, 'n'), mnemonic(60, 'm'), longText(5000, 'l');
    EXPECT_EQ(zelLogMsg(name.c_str(), 6, mnemonic.c_str(), "%s|", word(longText.c_str()), 0, 0, 0, 0, 0),
              ZEL_LOG_RECORD_RESULT);
    EXPECT_TRUE(pipe.endsWith("0x0 " + std::string(19, 'n') + "-6-" + std::string(49, 'm') + ": " + longText + "|"));
    EXPECT_EQ(logMsgsLost, 0u);
}

TEST(Log, HoldsFiveDescriptorsInOrder) {
    LogPipe first, second;
    ASSERT_EQ(logInit(first.fd(), 8), 0);
    for (const int fd : {second.fd(), second.fd(), 100, 101}) EXPECT_EQ(logFdAdd(fd), 0);
    EXPECT_EQ(logFdAdd(102), -1);
    EXPECT_EQ(logFdDelete(102), -1);
    EXPECT_EQ(logFdDelete(second.fd()), 0);
    logMsg("once\n", 0, 0, 0, 0, 0, 0);
    EXPECT_TRUE(first.endsWith("once\n"));
    EXPECT_TRUE(second.endsWith("once\n"));
    EXPECT_EQ(second.text().find("once"), second.text().rfind("once"));

    // The descriptor set before and the remote login's make room for the one set now.
    logFdFromRlogin = 100;
    EXPECT_EQ(logFdSet(second.fd()), 0);
    EXPECT_EQ(logFdFromRlogin, -1);
    EXPECT_EQ(logFdDelete(first.fd()), -1);
    EXPECT_EQ(logFdDelete(100), -1);
    EXPECT_EQ(logFdSet(first.fd()), 0);
    EXPECT_EQ(logFdDelete(first.fd()), 0);
}

// One that cannot be written, one that is none, and one that does not block.
TEST(Log, WritesWhatEachDescriptorTakes) {
    LogPipe broken, whole;
    ASSERT_EQ(logInit(broken.fd(), 8), 0);
    fcntl(whole.fd(), F_SETFL, O_NONBLOCK);
    EXPECT_EQ(logFdAdd(-7) + logFdAdd(whole.fd()), 0);
    broken.closeReader();
    const std::string longText(300'000, 'w');  // a pipe holds 65536 bytes
    logMsg("%s|", word(longText.c_str()), 0, 0, 0, 0, 0);
    EXPECT_TRUE(whole.endsWith(": " + longText + "|"));
}

TEST(Log, GoesOnWhenATaskIsDeletedThatChangesTheDescriptors) {
    LogPipe pipe;
    ASSERT_EQ(logInit(pipe.fd(), 8), 0);
    for (int i = 0; i < 200; ++i) {
        const zelTaskId tid = zel::test::spawn([] {
            for (;;) logFdAdd(-7), logFdDelete(-7);
        });
        if (i % 2 == 0) taskDelay(0);
        ASSERT_EQ((i % 4 == 0 ? taskDeleteForce : taskDelete)(tid), ZEL_OK);
        logFdDelete(-7);
    }
    logMsg("still here\n", 0, 0, 0, 0, 0, 0);
    EXPECT_TRUE(pipe.endsWith("still here\n"));
}
