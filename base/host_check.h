// The check that every floor may use: evaluated in every build, aborts with the given text when it fails.
//
// For calls on the host that must succeed (locks, conditions, thread creation where no error is returned). Text is
// printed literally, so that an operator finds the same words whatever the expression looked like in the source.
#pragma once

namespace zel {

// Prints file, line, function and text with a backtrace on standard error, then aborts.
[[noreturn]] void hostCheckFailed(const char *text, const char *file, int line, const char *function);

inline void hostCheck(bool holds, const char *text, const char *file = __builtin_FILE(), int line = __builtin_LINE(),
                      const char *function = __builtin_FUNCTION()) {
    if (!holds) [[unlikely]]
        hostCheckFailed(text, file, line, function);
}

}  // namespace zel
