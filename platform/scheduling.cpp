// Scheduling, best effort. The right to real-time scheduling is tried once, on the calling thread and undone at once:
// asking only when the first thread is created would be too late for the mutexes made before it.
#include "platform/scheduling.h"

#include <errno.h>
#include <sched.h>
#include <string.h>

#include <atomic>

#include "platform/environment.h"

namespace zel::platform {
namespace {

enum class RealTime : int { undecided, on, off };
constinit std::atomic<RealTime> realTime{RealTime::undecided};

constexpr int highestHostPriority = 99;

bool mayUseRealTime() {
    const char *wish = environment("ZEL_REALTIME");
    if (wish != nullptr && strcmp(wish, "off") == 0) return false;
    int policy = 0;
    sched_param before{}, highest{};
    if (pthread_getschedparam(pthread_self(), &policy, &before) != 0) return false;
    highest.sched_priority = highestHostPriority;
    if (pthread_setschedparam(pthread_self(), SCHED_FIFO, &highest) != 0) return false;
    pthread_setschedparam(pthread_self(), policy, &before);
    return true;
}

}  // namespace

bool isRealTime() {
    if (realTime.load(std::memory_order_relaxed) == RealTime::undecided) {
        const int savedErrno = errno;
        RealTime undecided = RealTime::undecided;
        realTime.compare_exchange_strong(undecided, mayUseRealTime() ? RealTime::on : RealTime::off);
        errno = savedErrno;
    }
    return realTime.load(std::memory_order_relaxed) == RealTime::on;
}

void leaveRealTime() {
    realTime = RealTime::off;
}

int hostPriority(int logicalPriority) {
    if (logicalPriority < 0) return 1;
    if (logicalPriority > 255) return highestHostPriority;
    if (logicalPriority >= 253) return logicalPriority - 156;
    return 1 + logicalPriority * 95 / 252;
}

int setAttributes(pthread_attr_t &attributes, int policy, int logicalPriority) {
    const bool isOn = isRealTime();
    sched_param parameters{};
    parameters.sched_priority = isOn ? hostPriority(logicalPriority) : 0;
    int error = pthread_attr_setinheritsched(&attributes, PTHREAD_EXPLICIT_SCHED);
    if (error == 0) error = pthread_attr_setschedpolicy(&attributes, isOn ? policy : SCHED_OTHER);
    if (error == 0) error = pthread_attr_setschedparam(&attributes, &parameters);
    return error;
}

int applyPriority(pthread_t thread, int policy, int logicalPriority) {
    if (!isRealTime()) return 0;
    sched_param parameters{};
    parameters.sched_priority = hostPriority(logicalPriority);
    const int error = pthread_setschedparam(thread, policy, &parameters);
    if (error == EPERM) realTime = RealTime::off;
    return error == EPERM || error == ESRCH ? 0 : error;
}

int initMutex(pthread_mutex_t &mutex) {
    pthread_mutexattr_t attributes;
    int error = pthread_mutexattr_init(&attributes);
    if (error != 0) return error;
    if (isRealTime()) error = pthread_mutexattr_setprotocol(&attributes, PTHREAD_PRIO_INHERIT);
    if (error == 0) error = pthread_mutex_init(&mutex, &attributes);
    pthread_mutexattr_destroy(&attributes);
    return error;
}

int initCondition(pthread_cond_t &condition) {
    pthread_condattr_t attributes;
    int error = pthread_condattr_init(&attributes);
    if (error != 0) return error;
    error = pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC);
    if (error == 0) error = pthread_cond_init(&condition, &attributes);
    pthread_condattr_destroy(&attributes);
    return error;
}

}  // namespace zel::platform
