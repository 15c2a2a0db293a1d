#include "velka/Mutex.h"

#include "Posix.h"
#include "velka/Assert.h"

namespace velka {

Mutex::Mutex() { initRecursiveMutex(&mutex_); }

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
