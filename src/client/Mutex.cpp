#include "velka/Mutex.h"

#include "velka/Assert.h"

namespace velka {

Mutex::Mutex() {
    pthread_mutexattr_t attr;
    pthread_mutexattr_init(&attr);
    pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_RECURSIVE);
    pthread_mutex_init(&mutex_, &attr);
    pthread_mutexattr_destroy(&attr);
}

Mutex::~Mutex() { pthread_mutex_destroy(&mutex_); }

void Mutex::lock() {
    int ret = pthread_mutex_lock(&mutex_);
    VELKA_ASSERT(ret == 0);
}

void Mutex::unlock() {
    int ret = pthread_mutex_unlock(&mutex_);
    VELKA_ASSERT(ret == 0);
}

}  // namespace velka
