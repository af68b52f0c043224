// The task manager itself; runs in a task.
#pragma once

#include "options.h"

namespace zeltmed {

// Manages until a signal or --until ends it: the program's exit status.
int manage(const Options &options);

// The descriptor that a write wakes and ends manage(), for signal handlers; valid before manage() is called.
void prepareEnd();

}  // namespace zeltmed
