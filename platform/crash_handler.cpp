#include <execinfo.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include "zel/platform.h"

namespace {

constexpr int crashSignals[] = {SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGABRT};
constexpr int deepestTrace = 64;

void printBacktrace(int number) {
    char text[] = "crash: signal 00, backtrace:\n";
    text[14] = static_cast<char>('0' + number / 10 % 10);
    text[15] = static_cast<char>('0' + number % 10);
    if (write(STDERR_FILENO, text, sizeof text - 1) >= 0) {
        void *frames[deepestTrace];
        backtrace_symbols_fd(frames, backtrace(frames, deepestTrace), STDERR_FILENO);
    }
    // The default action stands again (SA_RESETHAND) and comes when the handler returns.
    raise(number);
}

}  // namespace

void zelPlatformInstallCrashHandler(void) {
    // The first backtrace of a process loads code and allocates, which a handler must not.
    void *frame;
    backtrace(&frame, 1);
    struct sigaction action {};
    action.sa_handler = printBacktrace;
    action.sa_flags = static_cast<int>(SA_RESETHAND);
    sigemptyset(&action.sa_mask);
    for (const int number : crashSignals) sigaction(number, &action, nullptr);
}
