#include "base/host_check.h"

#include <execinfo.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

namespace zel {

void hostCheckFailed(const char *text, const char *file, int line, const char *function) {
    // One write of our own: standard output may be the stream whose lock failed.
    char message[512];
    const int length =
        snprintf(message, sizeof message, "%s:%d: %s: Assertion '%s' failed.\n", file, line, function, text);
    if (length > 0) {
        const auto bytes =
            static_cast<size_t>(length) < sizeof message ? static_cast<size_t>(length) : sizeof message - 1;
        if (write(STDERR_FILENO, message, bytes) < 0) { /* nothing is left to tell it to */
        }
    }
    void *frames[64];
    backtrace_symbols_fd(frames, backtrace(frames, 64), STDERR_FILENO);
    abort();
}

}  // namespace zel
