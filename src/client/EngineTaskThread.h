#ifndef VELKA_SRC_CLIENT_ENGINETASKTHREAD_H
#define VELKA_SRC_CLIENT_ENGINETASKTHREAD_H

// The request queue and worker thread that the sources over an outside engine
// (DtaFile, PpsFile) share: asynchronous reads are queued as records and
// served, one at a time and oldest first, by one process-wide thread, which
// completes each exactly once with no lock held.

#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <memory>
#include <vector>

#include "LibraryExit.h"
#include "velka/File.h"
#include "velka/Mutex.h"
#include "velka/Semaphore.h"
#include "velka/Thread.h"

namespace velka {

// One queued asynchronous read. Its address is the request handle; the worker
// frees it after completing it.
template <typename FileT>
struct EngineAsyncRequest {
    // Not owned. Cleared under the worker's mutex_ when the file is closed
    // while the engine still holds this request's read.
    FileT* file;
    char* buffer;                   // not owned
    uint32_t length;
    bool cancelled;                 // written under the worker's mutex_ while queued
    File::AsyncCallback* callback;  // not owned; completed exactly once
};

// FileT gives the worker its `std::shared_ptr<Mutex> mutex_`, held across
// each engine read of the file. The worker takes a share of it with each
// request, so a file let go by close() (see letGo()) may be destroyed while
// the engine still holds its read.
//
// Locks: a file's mutex_ before the worker's mutex_; the worker takes the
// queue lock only for short steps and never calls out while it holds it.
template <typename FileT>
class EngineTaskThread : public Thread::Runnable {
public:
    typedef EngineAsyncRequest<FileT> Request;

    // Runs on the worker thread.
    void run() override {
        workerThread_ = pthread_self();
        // When the engine failed to initialise it serves nothing. Its requests
        // still complete, in order, each with kStatusError (kStatusCancelled
        // when cancelled) and without an engine call, so that no caller waits
        // for a completion that never comes.
        const bool engineUsable = initResult_ == 0;
        if (engineUsable) beginServing();

        while (running_) {
            Request* request = nullptr;
            std::shared_ptr<Mutex> fileLock;
            {
                Mutex::Autolock lock(mutex_);
                if (!requests_.empty()) {
                    request = requests_.front();
                    requests_.pop_front();
                    inService_ = request;
                    fileLock = request->file->mutex_;
                }
            }
            if (request == nullptr) {
                wakeup_.wait();
                continue;
            }

            VelkaStatus status;
            uint32_t count = 0;
            if (request->cancelled) {
                status = kStatusCancelled;
            } else if (!engineUsable) {
                status = kStatusError;
            } else {
                Mutex::Autolock lock(*fileLock);
                status = serve(request, &count);
            }
            // No lock held: the callback may queue the next read at once.
            request->callback->complete(status, count);
            // Out of service before it is freed: letGo() looks at the request
            // in service under mutex_.
            {
                Mutex::Autolock lock(mutex_);
                inService_ = nullptr;
            }
            delete request;
            served_.notify_all();
        }
    }

    // readAsync: queues a read and returns its handle, or null when refused
    // (the file is being closed, or the worker was torn down at process exit).
    void* enqueue(FileT* file, char* buffer, uint32_t length, File::AsyncCallback& callback) {
        Request* request = new Request{file, buffer, length, false, &callback};
        {
            Mutex::Autolock lock(mutex_);
            if (tornDown_ || std::find(closing_.begin(), closing_.end(), file) != closing_.end()) {
                delete request;
                return nullptr;
            }
            requests_.push_back(request);
        }
        wakeup_.post();
        // The request may already be completed and freed; only its address is returned.
        return request;
    }

    // cancel: 0 when `request` was still queued (it stays queued and completes
    // with kStatusCancelled); -1 when the worker has taken it or it has
    // completed, in which case it completes normally.
    int cancel(void* request) {
        Mutex::Autolock lock(mutex_);
        for (Request* queued : requests_) {
            if (queued == request) {
                queued->cancelled = true;
                return 0;
            }
        }
        return -1;
    }

    // close(), first step: refuses new reads of `file` and takes its queued
    // requests off the queue; endClose() completes them.
    std::vector<Request*> beginClose(FileT* file) {
        std::vector<Request*> queued;
        Mutex::Autolock lock(mutex_);
        closing_.push_back(file);
        for (auto it = requests_.begin(); it != requests_.end();) {
            if ((*it)->file == file) {
                queued.push_back(*it);
                it = requests_.erase(it);
            } else {
                ++it;
            }
        }
        return queued;
    }

    // close(), once the engine task is closed: waits up to `graceMs` for the
    // read in service of `file` to end; a read the engine holds longer is let
    // go: it completes cancelled whenever the engine returns it and never
    // touches the file again. From inside a completion of this worker that
    // completion itself cannot be waited for. Then completes `queued`
    // cancelled: they are younger than the read in service.
    void letGo(FileT* file, int graceMs, const std::vector<Request*>& queued) {
        if (!pthread_equal(workerThread_.load(), pthread_self())) {
            Mutex::Autolock lock(mutex_);
            auto readElsewhere = [this, file] {
                return inService_ == nullptr || inService_->file != file;
            };
            if (!served_.wait_for(mutex_, std::chrono::milliseconds(graceMs), readElsewhere)) {
                inService_->file = nullptr;
            }
        }
        for (Request* request : queued) {
            request->callback->complete(kStatusCancelled, 0);
            delete request;
        }
    }

    // close(), last step: `file` takes reads again.
    void endClose(FileT* file) {
        Mutex::Autolock lock(mutex_);
        closing_.erase(std::find(closing_.begin(), closing_.end(), file));
    }

protected:
    // The one Worker of the process, built by its constructor on the first
    // call; other first callers wait for it. Worker::tearDown() runs at
    // process exit after Playback (LibraryExit.h). Never freed, so callers
    // later still find it, torn down.
    template <typename Worker>
    static Worker* theWorker() {
        static Worker* const worker = [] {
            Worker* built = new Worker();
            tearDownAfterPlayback(&Worker::tearDown);
            return built;
        }();
        return worker;
    }

    EngineTaskThread()
        : running_(false), tornDown_(false), initResult_(0), thread_(nullptr), wakeup_(0),
          inService_(nullptr), workerThread_(pthread_t()) {}

    // Starts the worker thread `name`, once the engine gave `initResult`.
    void start(const char* name, int initResult) {
        initResult_ = initResult;
        thread_ = new Thread(*this, false, name, kWorkerPriority, kWorkerStackBytes);
        // Set before the thread starts rather than by run(): a tear-down that
        // comes before the new thread is first scheduled must still end it.
        running_ = true;
        thread_->start();
    }

    // At process exit, before the engine is released: ends the thread and
    // completes what is still queued as cancelled (every accepted read
    // completes once, also those the worker did not reach); from then on
    // reads are refused.
    void stop() {
        {
            Mutex::Autolock lock(mutex_);
            tornDown_ = true;
            running_ = false;
        }
        wakeup_.post();
        delete thread_;  // waits for run() to return
        thread_ = nullptr;
        std::deque<Request*> left;
        {
            Mutex::Autolock lock(mutex_);
            left.swap(requests_);
        }
        for (Request* request : left) {
            request->callback->complete(kStatusCancelled, 0);
            delete request;
        }
    }

    // On the worker, once, before the first request, when the engine is usable.
    virtual void beginServing() {}

    // On the worker, with the file's mutex_ held: one engine read for
    // `request`; sets *count to the bytes delivered.
    virtual VelkaStatus serve(Request* request, uint32_t* count) = 0;

    // The worker thread: below playback, which it feeds only through the
    // hardware engine's pull callbacks.
    static const int kWorkerPriority = 40;
    static const int kWorkerStackBytes = 2048;

    std::atomic<bool> running_;  // cleared at tear-down
    bool tornDown_;              // reads are refused from tear-down on; under mutex_
    int initResult_;             // the engine's initialisation result; non-zero = unusable
    Thread* thread_;             // owned
    // Guards requests_, inService_ and its file, closing_ and tornDown_.
    Mutex mutex_;
    Semaphore wakeup_;              // posted once per queued request and once at tear-down
    std::deque<Request*> requests_;  // oldest first
    std::vector<const FileT*> closing_;  // files whose close() runs: their reads are refused
    // The request taken off the queue and not yet completed and freed; null
    // when none.
    Request* inService_;
    std::condition_variable_any served_;   // notified whenever inService_ is cleared
    std::atomic<pthread_t> workerThread_;  // the thread running run(), once it runs
};

}  // namespace velka

#endif  // VELKA_SRC_CLIENT_ENGINETASKTHREAD_H
