#include "velka/Semaphore.h"

#include <cerrno>
#include <cstdio>
#include <ctime>

#include "Posix.h"
#include "velka/Assert.h"
#include "LogLine.h"

namespace velka {

Semaphore::Semaphore(unsigned int count) : count_(count) {
    pthread_mutex_init(&mutex_, nullptr);
    initMonotonicCondition(&cond_);
}

Semaphore::~Semaphore() {
    pthread_cond_destroy(&cond_);
    pthread_mutex_destroy(&mutex_);
}

void Semaphore::wait() {
    pthread_mutex_lock(&mutex_);
    while (count_ == 0) {
        if (pthread_cond_wait(&cond_, &mutex_) != 0) {
            logPuts("Wait fail");
            VELKA_ASSERT(0);
        }
    }
    --count_;
    pthread_mutex_unlock(&mutex_);
}

bool Semaphore::tryWait() {
    pthread_mutex_lock(&mutex_);
    bool taken = count_ > 0;
    if (taken) --count_;
    pthread_mutex_unlock(&mutex_);
    return taken;
}

bool Semaphore::timedWait(unsigned int ms) {
    pthread_mutex_lock(&mutex_);
    const struct timespec deadline = monotonicDeadlineAfter(ms);
    for (;;) {
        if (count_ > 0) {
            --count_;
            pthread_mutex_unlock(&mutex_);
            return true;
        }
        int ret = pthread_cond_timedwait(&cond_, &mutex_, &deadline);
        if (ret == ETIMEDOUT) {
            pthread_mutex_unlock(&mutex_);
            return false;
        }
        if (ret != 0) {
            pthread_mutex_unlock(&mutex_);
            logPuts("timedWait fail");
            VELKA_ASSERT(0);
        }
    }
}

void Semaphore::post() {
    pthread_mutex_lock(&mutex_);
    ++count_;
    if (pthread_cond_signal(&cond_) != 0) {
        pthread_mutex_unlock(&mutex_);
        logPuts("post fail");
        VELKA_ASSERT(0);
    }
    pthread_mutex_unlock(&mutex_);
}

}  // namespace velka
