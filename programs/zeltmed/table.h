// The task table of this CPU as a user sees it, and the shared memory around it.
#pragma once

#include "options.h"

namespace zeltmed {

// The process of this CPU's task manager, 0 when none runs.
int runningManager();
// Print the table, and unlink the shared memory; the program's exit status.
int list(const Options &options);
int clean();

}  // namespace zeltmed
