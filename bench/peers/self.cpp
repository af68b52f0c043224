// What a program would write for the identity of its threads: a thread_local behind a function of a shared library.
#include "self.h"

namespace {
thread_local long self = 0;
}

long peerSelf() {
    return self;
}

void peerSetSelf(long value) {
    self = value;
}
