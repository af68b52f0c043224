// Programs under test: started from the build's bin folder, their output collected, gone when the test ends.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "tests/support/child.h"
#include "tests/support/eventually.h"

namespace zel::test {

class Program {
public:
    // `name` is a program of this project.
    explicit Program(const std::string &name, const std::vector<std::string> &arguments = {})
        : output_(memfd_create("output", MFD_CLOEXEC)), child_(start(name, arguments)) {}
    ~Program() { close(output_); }
    Program(const Program &) = delete;
    Program &operator=(const Program &) = delete;

    pid_t pid() const { return child_.pid(); }
    void signal(int number) const { child_.signal(number); }
    int wait() { return child_.wait(300); }
    // What it, and whatever it started, has written so far.
    std::string output() const {
        std::string text(static_cast<std::size_t>(lseek(output_, 0, SEEK_END)), '\0');
        const ssize_t length = pread(output_, text.data(), text.size(), 0);
        text.resize(length > 0 ? static_cast<std::size_t>(length) : 0);
        return text;
    }
    // Waits until the output contains `text`, `count` times.
    bool says(const std::string &text, int count = 1) const {
        const bool said = eventually(30, [&] { return occurrences(output(), text) >= count; });
        if (!said) ADD_FAILURE() << "'" << text << "' was not written in:\n" << output();
        return said;
    }

    struct Result {
        int status;
        std::string output;
    };
    // Runs a program to its end.
    static Result run(const std::string &name, const std::vector<std::string> &arguments) {
        Program program(name, arguments);
        const int status = program.wait();
        return {status, program.output()};
    }

private:
    Child start(const std::string &name, const std::vector<std::string> &arguments) const {
        const std::string output = "/proc/" + std::to_string(getpid()) + "/fd/" + std::to_string(output_);
        std::vector<std::string> all{output, std::string(ZEL_PROGRAM_DIR "/") + name};
        all.insert(all.end(), arguments.begin(), arguments.end());
        return Child::start("program", all);
    }

    static int occurrences(const std::string &text, const std::string &part) {
        int count = 0;
        for (std::size_t at = 0; (at = text.find(part, at)) != std::string::npos; at += part.size()) ++count;
        return count;
    }

    int output_;
    Child child_;
};

// A file with that text, while the object lives.
class TextFile {
public:
    explicit TextFile(const std::string &text) {
        const int fd = mkstemp(path_);
        EXPECT_EQ(write(fd, text.data(), text.size()), static_cast<ssize_t>(text.size()));
        close(fd);
    }
    ~TextFile() { unlink(path_); }
    TextFile(const TextFile &) = delete;
    TextFile &operator=(const TextFile &) = delete;
    std::string path() const { return path_; }

private:
    char path_[32] = "/tmp/zel_test_XXXXXX";
};

}  // namespace zel::test
