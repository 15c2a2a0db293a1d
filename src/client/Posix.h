#ifndef VELKA_SRC_POSIX_H
#define VELKA_SRC_POSIX_H

// Small POSIX helpers shared by the threading primitives.

#include <pthread.h>

#include <ctime>

namespace velka {

inline void initRecursiveMutex(pthread_mutex_t* mutex) {
    pthread_mutexattr_t attr;
    pthread_mutexattr_init(&attr);
    pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_RECURSIVE);
    pthread_mutex_init(mutex, &attr);
    pthread_mutexattr_destroy(&attr);
}

// Timed waits run on the monotonic clock: a box sets its wall clock at boot
// (it has no battery clock, then network time comes), and a 32-bit time_t
// ends in 2038. A deadline on the wall clock would pass at once or lie years
// ahead when the clock steps.
inline void initMonotonicCondition(pthread_cond_t* cond) {
    pthread_condattr_t attr;
    pthread_condattr_init(&attr);
    pthread_condattr_setclock(&attr, CLOCK_MONOTONIC);
    pthread_cond_init(cond, &attr);
    pthread_condattr_destroy(&attr);
}

// The absolute CLOCK_MONOTONIC time `ms` milliseconds from now, for waits on
// a condition made by initMonotonicCondition. Whole seconds of the
// nanosecond sum are carried, so tv_nsec stays below 1e9 (a 999 ms wait must
// not fail).
inline struct timespec monotonicDeadlineAfter(unsigned int ms) {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    ts.tv_sec += ms / 1000;
    ts.tv_nsec += static_cast<long>(ms % 1000) * 1000000L;
    if (ts.tv_nsec >= 1000000000L) {
        ts.tv_sec += ts.tv_nsec / 1000000000L;
        ts.tv_nsec %= 1000000000L;
    }
    return ts;
}

}  // namespace velka

#endif  // VELKA_SRC_POSIX_H
