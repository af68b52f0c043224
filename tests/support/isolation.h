// What every test and benchmark program does first: run a child's body when it was started as one, and take an IPC
// address and a memory prefix of its own, so that programs run side by side.
#pragma once

#include <optional>

namespace zel::test {

// The exit code of the child whose name stands in `--child NAME ...`; nothing when this is no child.
std::optional<int> runChildIfAsked(int argc, char **argv);
void isolateProcess();

}  // namespace zel::test
