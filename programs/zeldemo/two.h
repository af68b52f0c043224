// The demonstration with two route processors.
#pragma once

#include <string>

namespace zeldemo {

// Before the library is first used.
void prepareTwo();
// Runs in a task: the exit status.
int demonstrateTwo(const std::string &table);

}  // namespace zeldemo
