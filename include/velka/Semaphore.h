#ifndef VELKA_SEMAPHORE_H
#define VELKA_SEMAPHORE_H

#include <pthread.h>
#include <cstdint>

#include "velka/NonCopyable.h"

namespace velka {

// Counting semaphore with blocking, non-blocking and timed waits. Any number
// of threads may post and wait at once; each post lets one waiter proceed.
// Timed waits run on the monotonic clock, so a step of the wall clock neither
// ends them early nor stretches them.
class Semaphore : private NonCopyable {
public:
    explicit Semaphore(unsigned int count);
    ~Semaphore();

    void wait();
    bool tryWait();
    // True if a unit was taken, false when `ms` milliseconds ran out first.
    bool timedWait(unsigned int ms);
    void post();

private:
    pthread_mutex_t mutex_;  // guards count_ (not recursive)
    pthread_cond_t cond_;
    uint32_t count_;
};

}  // namespace velka

#endif  // VELKA_SEMAPHORE_H
