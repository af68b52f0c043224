// A stretch in which the calling thread is neither stopped nor deleted, and after which its error number is what it
// was.
//
// Printing uses it throughout: reports come from anywhere, also from places that must not lose the thread half-way, and
// a numbered lock whose holder was cancelled or suspended would stop every process of the CPU.
#pragma once

#include <pthread.h>

#include <cerrno>

#include "kernel/task.h"

namespace zel::kernel {

class Uninterrupted {
public:
    Uninterrupted() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &savedState_); }
    ~Uninterrupted() { pthread_setcancelstate(savedState_, nullptr); }
    Uninterrupted(const Uninterrupted &) = delete;
    Uninterrupted &operator=(const Uninterrupted &) = delete;

private:
    struct ErrorNumber {
        int saved = errno;
        ~ErrorNumber() { errno = saved; }
    };

    ErrorNumber errorNumber_;  // first, so that nothing runs after it is restored
    KernelSection section_;
    int savedState_ = 0;
};

}  // namespace zel::kernel
