#include "velka/Thread.h"

#include <sched.h>
#include <signal.h>

#include <cerrno>
#include <cstdio>
#include <ctime>
#include <exception>

#include "Posix.h"
#include "velka/Assert.h"
#include "LogLine.h"

namespace velka {

Thread::Thread(Runnable& runnable, bool detached, const std::string& name, int priority,
               int stackSize)
    : runnable_(runnable),
      detached_(detached),
      name_(name),
      priority_(priority),
      stackSize_(stackSize),
      state_(INIT),
      thread_(),
      hasThread_(false) {
    initRecursiveMutex(&stateLock_);
    initMonotonicCondition(&finished_);
    initRecursiveMutex(&startLock_);
}

Thread::~Thread() {
    wait(0);
    pthread_mutex_destroy(&startLock_);
    pthread_cond_destroy(&finished_);
    pthread_mutex_destroy(&stateLock_);
}

void Thread::start() {
    pthread_mutex_lock(&stateLock_);
    VELKA_ASSERT(state_ != RUNNING);
    // A restart straight from FINISHED: the previous platform thread has left
    // run() and is about to exit. Join it now so that its handle is not lost.
    if (state_ == FINISHED) joinThread();
    state_ = RUNNING;

    pthread_attr_t attr;
    pthread_attr_init(&attr);
    if (detached_) pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
    // A size below the platform minimum is refused and the default stack stays.
    pthread_attr_setstacksize(&attr, static_cast<size_t>(stackSize_));
    pthread_attr_setschedpolicy(&attr, SCHED_RR);
    struct sched_param param = {};
    param.sched_priority = priority_;
    pthread_attr_setschedparam(&attr, &param);
    // The inherit-scheduler attribute stays at the platform default, so an
    // unprivileged process still gets its thread.

    pthread_mutex_lock(&startLock_);
    int ret = pthread_create(&thread_, &attr, &Thread::localstart, this);
    hasThread_ = (ret == 0);
    pthread_mutex_unlock(&startLock_);

    pthread_attr_destroy(&attr);
    if (ret != 0) state_ = TERMINATED;
    pthread_mutex_unlock(&stateLock_);
}

void* Thread::localstart(void* thread) {
    static_cast<Thread*>(thread)->localstart();
    return nullptr;
}

void Thread::localstart() {
    // Go on only once start() has stored thread_ (the deadlock check of wait()
    // compares against it).
    pthread_mutex_lock(&startLock_);
    pthread_mutex_unlock(&startLock_);

    // Shown by ps, top and debuggers; the system keeps the first 15 characters.
    pthread_setname_np(pthread_self(), name_.substr(0, 15).c_str());

    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &set, nullptr);

    try {
        runnable_.run();
    } catch (const std::exception& e) {
        logPrint("exception in create thread %s n message: %s\n", name_.c_str(), e.what());
    } catch (...) {
        logPrint("unknown exception in create thread %s\n", name_.c_str());
    }

    // Once FINISHED is published the owner may join and destroy a joinable
    // Thread, so nothing of *this is touched after the unlock except by a
    // detached thread, which owns itself.
    const bool detached = detached_;
    pthread_mutex_lock(&stateLock_);
    state_ = FINISHED;
    pthread_cond_broadcast(&finished_);
    pthread_mutex_unlock(&stateLock_);

    // The destructor runs on this thread: its wait(0) finds thread_ to be the
    // caller and returns kStatusDeadlock without joining.
    if (detached) delete this;
}

VelkaStatus Thread::wait(int ms) {
    pthread_mutex_lock(&stateLock_);
    if (hasThread_ && pthread_equal(thread_, pthread_self())) {
        pthread_mutex_unlock(&stateLock_);
        return kStatusDeadlock;
    }
    int ret = 0;
    if (state_ == RUNNING) {
        if (ms > 0) {
            struct timespec deadline = monotonicDeadlineAfter(static_cast<unsigned int>(ms));
            while (state_ == RUNNING && ret == 0) {
                ret = pthread_cond_timedwait(&finished_, &stateLock_, &deadline);
            }
        } else {
            while (state_ == RUNNING && ret == 0) {
                ret = pthread_cond_wait(&finished_, &stateLock_);
            }
        }
    }
    if (state_ == FINISHED) {
        joinThread();
        state_ = TERMINATED;
    }
    pthread_mutex_unlock(&stateLock_);

    if (ret == ETIMEDOUT) return kStatusTimeout;
    if (ret == EINTR) return kStatusInterrupted;
    return kStatusOk;
}

void Thread::joinThread() {
    // A detached platform thread cannot be joined; it ends on its own.
    if (hasThread_ && !detached_) {
        pthread_join(thread_, nullptr);
        hasThread_ = false;
    }
}

VelkaStatus Thread::setPriority(int priority) {
    pthread_mutex_lock(&stateLock_);
    int ret = -1;
    if (hasThread_) {
        struct sched_param param = {};
        param.sched_priority = priority;
        ret = pthread_setschedparam(thread_, SCHED_RR, &param);
    }
    if (ret == 0) priority_ = priority;
    pthread_mutex_unlock(&stateLock_);
    return ret == 0 ? kStatusOk : kStatusError;
}

Thread::State Thread::state() {
    pthread_mutex_lock(&stateLock_);
    State state = state_;
    pthread_mutex_unlock(&stateLock_);
    return state;
}

VelkaStatus Thread::sleep(int ms) {
    if (ms < 0) return kStatusError;
    struct timespec ts;
    ts.tv_sec = ms / 1000;
    ts.tv_nsec = static_cast<long>(ms % 1000) * 1000000L;
    if (nanosleep(&ts, nullptr) == 0) return kStatusOk;
    return errno == EINTR ? kStatusInterrupted : kStatusError;
}

VelkaStatus Thread::yield() { return sched_yield() == 0 ? kStatusOk : kStatusError; }

}  // namespace velka
