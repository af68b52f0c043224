// What the environment says, and the names that follow from it. Read once, ignored in set-user-id programs.
#pragma once

#include <sys/types.h>

#include <string>

namespace zel::platform {

// The value of a variable, null when it is not set or the program runs with raised privileges.
const char *environment(const char *name);

// The name of one of this CPU's shared segments, as shm_open takes it. Fixes the address and the prefix.
std::string segmentName(const char *kind);

// The group that owns shared segments; -1 when none was asked for or it does not exist.
gid_t segmentGroup();
constexpr gid_t noGroup = static_cast<gid_t>(-1);

}  // namespace zel::platform
