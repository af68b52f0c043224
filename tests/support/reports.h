// Counts the assertions that a piece of code reports, and keeps the text of the last one.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace zel::test {

int reportedAssertions();
std::string lastAssertion();

// Each call returns true and reports that one assertion.
inline void expectReports(const std::vector<std::pair<std::string, std::function<bool()>>> &calls) {
    for (const auto &[text, call] : calls) {
        const int before = reportedAssertions();
        EXPECT_TRUE(call()) << text;
        EXPECT_EQ(reportedAssertions(), before + 1) << text;
        EXPECT_EQ(lastAssertion(), text);
    }
}

}  // namespace zel::test
