// Counts the assertions that a piece of code reports, and keeps the text of the last one.
#pragma once

#include <string>

namespace zel::test {

int reportedAssertions();
std::string lastAssertion();

}  // namespace zel::test
