#ifndef VELKA_HTTPTASKTHREAD_H
#define VELKA_HTTPTASKTHREAD_H

#include <atomic>
#include <cstdint>
#include <vector>

#include "velka/Mutex.h"
#include "velka/NonCopyable.h"
#include "velka/Semaphore.h"
#include "velka/Thread.h"

namespace velka {

class HttpTask;
class HttpWorkerClient;

// The one worker of the HTTP source. It owns the libcurl multi handle and, in
// one loop on the thread "HttpTaskThread", serves the queued reads of every
// HttpTask, starts new transfers, resumes paused ones once their ring has room,
// lets libcurl move data, retries transfers that failed after the stream's
// length was known, publishes task info and destroys the tasks their owners
// released. It waits on wakeup_ when there is nothing to do.
//
// Built by the first HttpTask and never freed; torn down at process exit,
// after the playback adaptor has closed its medium, and from then on it
// refuses new tasks and reads.
//
// Lock order: tasksLock_, then a task's mutex_, then pendingLock_. Completion
// callbacks run on the worker with the first two held.
class HttpTaskThread : public Thread::Runnable, private NonCopyable {
public:
    // The singleton, built and started on the first call; safe from any thread.
    static HttpTaskThread* instance();

    // The worker loop; runs on "HttpTaskThread".
    void run() override;

    // How the worker's waits in select() ended so far: cut short by a wake()
    // or run to their time-out. For tests and diagnostics.
    struct PassCounts {
        uint64_t woken;
        uint64_t timedOut;
    };
    static PassCounts passCounts();

private:
    friend class HttpTask;
    friend bool addHttpWorkerClient(HttpWorkerClient* client);
    friend void wakeHttpWorker();

    HttpTaskThread();
    // At process exit: stops the loop and releases the multi handle.
    static void tearDown();

    // Posts wakeup_ and ends a select() under way; any thread.
    void wake();
    // One libcurl pass over every transfer, then a select() on their sockets
    // and the wake pipe for at most libcurl's own time-out, 100 ms at most.
    // On the worker.
    int performAndSelect(void* multi);
    // Takes `task` out of tasks_ (at `index`) and destroys it, its queued
    // requests completed as cancelled first. On the worker, tasksLock_ held.
    void dropTask(size_t index);
    // Serves every HttpWorkerClient and deletes the released ones; on the
    // worker, tasksLock_ held.
    void serveClients();
    // Hands a finished transfer to the client that added it; false when it is
    // an HttpTask's. On the worker.
    bool clientTransferDone(void* curl, int code);

    int pending_;          // accepted, not yet completed requests of all tasks
    Thread* thread_;       // runs run(); owned
    std::vector<HttpTask*> tasks_;  // live tasks in creation order
    std::vector<HttpWorkerClient*> clients_;  // other sources on this worker (HlsFile); tasksLock_
    Mutex tasksLock_;      // guards tasks_; held while serving, walking and publishing
    Mutex pendingLock_;    // guards pending_
    Semaphore wakeup_;     // wakes the loop: new task, new request, release, exit
    int wakePipe_[2];      // read end in every select(); written by wake()
    std::atomic<bool> wakeQueued_;  // a byte is in the pipe: no need to write another
    std::atomic<uint64_t> wokenPasses_;     // selects a wake() ended
    std::atomic<uint64_t> timedOutPasses_;  // selects that ran to their time-out
};

}  // namespace velka

#endif  // VELKA_HTTPTASKTHREAD_H
