// Keeps a stretch of code from being a cancellation point: for library internals that call the host with something
// open or half done, and for calls that are not documented as places where a task may be deleted.
#pragma once

#include <pthread.h>

namespace zel::platform {

class NoCancellation {
public:
    NoCancellation() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &before_); }
    ~NoCancellation() { pthread_setcancelstate(before_, nullptr); }
    NoCancellation(const NoCancellation &) = delete;
    NoCancellation &operator=(const NoCancellation &) = delete;

private:
    int before_ = PTHREAD_CANCEL_ENABLE;
};

}  // namespace zel::platform
