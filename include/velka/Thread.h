#ifndef VELKA_THREAD_H
#define VELKA_THREAD_H

#include <pthread.h>
#include <string>

#include "velka/NonCopyable.h"
#include "velka/Status.h"

namespace velka {

// A named platform thread that runs a Runnable with round-robin scheduling at
// a given priority. The owner starts it, waits for it (which joins) and
// destroys it; the destructor waits without limit for run() to return.
class Thread : private NonCopyable {
public:
    class Runnable {
    public:
        virtual void run() = 0;

    protected:
        ~Runnable() = default;  // never deleted through the interface
    };

    enum State {
        INIT = 0,        // constructed, never started
        RUNNING = 1,     // started; run() has not returned
        FINISHED = 2,    // run() returned or threw; not yet joined
        TERMINATED = 3,  // joined, or the platform thread could not be created
    };

    Thread(Runnable& runnable, bool detached, const std::string& name, int priority,
           int stackSize);
    ~Thread();

    void start();
    // Waits for run() to return and joins. ms > 0 limits the wait; ms <= 0
    // waits without limit. kStatusDeadlock when called from the thread itself.
    VelkaStatus wait(int ms);
    void joinThread();
    VelkaStatus setPriority(int priority);

    static VelkaStatus sleep(int ms);
    static VelkaStatus yield();
    static void* localstart(void* thread);

    // For diagnostics and tests.
    State state();
    const std::string& name() const { return name_; }

private:
    void localstart();

    Runnable& runnable_;
    bool detached_;
    std::string name_;
    int priority_;
    int stackSize_;
    State state_;                 // guarded by stateLock_
    pthread_t thread_;            // guarded by stateLock_
    bool hasThread_;              // thread_ holds a created, not yet joined platform thread
    pthread_mutex_t stateLock_;   // recursive; guards state_, thread_, hasThread_
    pthread_cond_t finished_;     // broadcast when state_ becomes FINISHED
    pthread_mutex_t startLock_;   // recursive; held by start() while the thread is created
};

}  // namespace velka

#endif  // VELKA_THREAD_H
