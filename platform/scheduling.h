// The host's scheduler as the kernel sees it. Logical thread priorities are 0 to 255 and decide everything the library
// decides; the host gets them best effort: 0..252 become 1..96, 253..255 become 97..99. Without the privilege, or with
// ZEL_REALTIME=off, threads stay in the time-sharing class and nothing fails.
#pragma once

#include <pthread.h>

namespace zel::platform {

// Whether threads of this process get real-time priorities. Decided once; an EPERM turns it off for good.
bool isRealTime();
// Turns it off for good: the host refused to create a thread with such a priority.
void leaveRealTime();

// The host priority that a logical one becomes.
int hostPriority(int logicalPriority);

// Prepares attributes so that a thread created with them has this priority and policy (SCHED_FIFO or SCHED_RR).
// 0 or an error number.
int setAttributes(pthread_attr_t &attributes, int policy, int logicalPriority);
// Applies a priority to a running thread; 0 or an error number. A thread that has ended is no error.
int applyPriority(pthread_t thread, int policy, int logicalPriority);

// Initialises a mutex: priority-inheriting while real-time scheduling is on. And a condition on the monotonic clock.
int initMutex(pthread_mutex_t &mutex);
int initCondition(pthread_cond_t &condition);

}  // namespace zel::platform
