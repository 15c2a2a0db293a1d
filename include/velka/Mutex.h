#ifndef VELKA_MUTEX_H
#define VELKA_MUTEX_H

#include <pthread.h>

#include "velka/NonCopyable.h"

namespace velka {

// A recursive lock: the owning thread may lock it again and must unlock it as
// often as it locked it. Every lock of the library is one of these.
class Mutex : private NonCopyable {
public:
    Mutex();
    ~Mutex();

    void lock();
    void unlock();

    // Scoped guard: locks on construction, unlocks at scope end on every way out.
    class Autolock : private NonCopyable {
    public:
        explicit Autolock(Mutex& mutex) : mutex_(mutex) { mutex_.lock(); }
        ~Autolock() { mutex_.unlock(); }

    private:
        Mutex& mutex_;
    };

private:
    pthread_mutex_t mutex_;
};

}  // namespace velka

#endif  // VELKA_MUTEX_H
