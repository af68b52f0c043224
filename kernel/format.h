// Formatting of what most messages consist of, in a fraction of the host's time for it.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <optional>

namespace zel::kernel {

// Writes at most `room` characters, without a NUL, and returns how many. Nothing when the format holds more than plain
// %d %i %u %x %c %s %% (with l, ll or z before a number), or the text does not fit: then the host formats it, from a
// copy of `args`, which are used up.
std::optional<std::size_t> formatSimply(char *to, std::size_t room, const char *format, va_list args);

}  // namespace zel::kernel
