#include <fcntl.h>
#include <sys/select.h>
#include <unistd.h>

#include <cstdio>

#include "HttpTask.h"
#include "HttpWorkerClient.h"
#include "LibraryExit.h"
#include "velka/HttpTaskThread.h"
#include "LogLine.h"

namespace velka {

std::atomic<bool> workerRunning_(false);
int pausedCount_ = 0;
CURLM* multiHandle_ = nullptr;
int runningCount_ = 0;
uint64_t arrivals_ = 0;
std::atomic<HttpTaskThread*> worker_(nullptr);

namespace {

// A paused transfer is resumed only with more than this free in its ring, so
// that not every small read resumes it.
constexpr unsigned int kResumeFreeBytes = 32 * 1024;
// select() limit when libcurl names none, and the nap when it has no socket.
constexpr int kIdlePassMs = 100;
constexpr long kMaxConnects = 32;

thread_local bool onWorker_ = false;

}  // namespace

void initCurl() {
    // A function-local static: initialised once, other callers wait for it.
    static const CURLcode ret = curl_global_init(CURL_GLOBAL_ALL);
    (void)ret;
}

bool onHttpWorker() { return onWorker_; }

bool addHttpWorkerClient(HttpWorkerClient* client) {
    HttpTaskThread* worker = HttpTaskThread::instance();
    {
        Mutex::Autolock lock(worker->tasksLock_);
        if (!workerRunning_) return false;
        worker->clients_.push_back(client);
    }
    worker->wake();
    return true;
}

void wakeHttpWorker() { HttpTaskThread::instance()->wake(); }

void HttpTaskThread::wake() {
    wakeup_.post();
    // On the worker itself (a completion queueing the next read) there is no
    // wait to cut short; elsewhere one byte in the pipe is enough for any
    // number of wakes.
    if (onWorker_ || wakePipe_[1] == -1 || wakeQueued_.exchange(true)) return;
    const char byte = 1;
    if (write(wakePipe_[1], &byte, 1) != 1) wakeQueued_ = false;
}

HttpTaskThread* HttpTaskThread::instance() {
    // Built once; other first callers wait for it. The pointer has nothing to
    // destroy at exit, so late callers still find the worker.
    static HttpTaskThread* const taskSingleton = [] {
        HttpTaskThread* worker = new HttpTaskThread();
        tearDownAfterPlayback(&HttpTaskThread::tearDown);
        return worker;
    }();
    return taskSingleton;
}

HttpTaskThread::HttpTaskThread()
    : pending_(0),
      thread_(nullptr),
      wakeup_(0),
      wakePipe_{-1, -1},
      wakeQueued_(false),
      wokenPasses_(0),
      timedOutPasses_(0) {
    logPuts("---HttpTaskThread ----");
    // Without the pipe the worker still runs; waits just end at their time-out.
    if (pipe2(wakePipe_, O_NONBLOCK | O_CLOEXEC) != 0) wakePipe_[0] = wakePipe_[1] = -1;
    initCurl();
    multiHandle_ = curl_multi_init();
    curl_multi_setopt(multiHandle_, CURLMOPT_MAXCONNECTS, kMaxConnects);
    thread_ = new Thread(*this, false, "HttpTaskThread", 40, 2048);
    // Set before the thread starts rather than when the loop starts: a
    // tear-down that comes before the new thread first runs must still end it.
    workerRunning_ = true;
    thread_->start();
}

HttpTaskThread::PassCounts HttpTaskThread::passCounts() {
    HttpTaskThread* worker = instance();
    return {worker->wokenPasses_.load(), worker->timedOutPasses_.load()};
}

// At process exit, after Playback. Tasks still owned by an open HttpFile stay
// as they are; new tasks and reads are refused from now on.
void HttpTaskThread::tearDown() {
    HttpTaskThread* worker = instance();
    {
        Mutex::Autolock lock(worker->tasksLock_);
        workerRunning_ = false;  // running transfers abort at their next progress report
    }
    worker->wake();
    delete worker->thread_;  // waits for run() to return
    worker->thread_ = nullptr;
    curl_multi_cleanup(multiHandle_);
    multiHandle_ = nullptr;
    // The wake pipe stays open: a late close() may still wake() the worker,
    // and the process is ending.
}

void HttpTaskThread::run() {
    onWorker_ = true;
    logPuts("http task thread start");
    while (workerRunning_) {
        // Serve, then walk the tasks: start, resume, drop.
        {
            Mutex::Autolock lock(tasksLock_);
            // By index: a completion may add to tasks_ (recursive lock).
            for (size_t i = 0; i < tasks_.size(); ++i) {
                tasks_[i]->dealAsyncs();
                tasks_[i]->shareLink();
            }
            for (size_t i = 0; i < tasks_.size();) {
                HttpTask* task = tasks_[i];
                if (task->inMulti_) {
                    if (task->removed_) {
                        logPrint("task removed %p\n", static_cast<void*>(task));
                        task->inMulti_ = false;
                        curl_multi_remove_handle(multiHandle_, task->curl_);
                        dropTask(i);
                        continue;
                    }
                    if (task->paused_) {
                        const unsigned int space = task->ring_->space();
                        if (space > kResumeFreeBytes) {
                            logPrint("task unpaused %p left %d\n", static_cast<void*>(task),
                                   static_cast<int>(space));
                            task->paused_ = false;
                            pausedCount_ -= 1;
                            // May hand over the kept block at once (write_cb).
                            curl_easy_pause(task->curl_, CURLPAUSE_CONT);
                        }
                        logPrint("curl running count %d pause count %d\n", runningCount_,
                               pausedCount_);
                    }
                } else if (task->removed_) {
                    logPrint("task removed 2 %p\n", static_cast<void*>(task));
                    dropTask(i);
                    continue;
                } else if (task->length_ == 0 && !task->infoPublished_) {
                    // Not started yet. A task whose first response failed or
                    // ended empty is not started again: its open fails.
                    if (curl_multi_add_handle(multiHandle_, task->curl_) == CURLM_OK) {
                        logPuts("task start add ok");
                        task->inMulti_ = true;
                    }
                }
                ++i;
            }
            serveClients();
        }

        performAndSelect(multiHandle_);

        // Finished transfers, without a lock.
        int queued = 0;
        while (CURLMsg* message = curl_multi_info_read(multiHandle_, &queued)) {
            if (message->msg != CURLMSG_DONE) continue;
            CURL* curl = message->easy_handle;
            const CURLcode code = message->data.result;
            char* privateData = nullptr;
            curl_easy_getinfo(curl, CURLINFO_PRIVATE, &privateData);
            if (clientTransferDone(curl, code)) continue;
            HttpTask* task = reinterpret_cast<HttpTask*>(privateData);
            if (curl != task->curl_) {
                task->tailFetchDone(curl, code);  // the task's second transfer
                continue;
            }
            if (code == CURLE_WRITE_ERROR) {
                task->error_ = CURLE_WRITE_ERROR;  // the task refused the response status
            } else if (code != CURLE_OK) {
                // The first body bytes and the end of the transfer can come in
                // one pass, before the task info was published: the length is
                // known all the same, so publish it and retry like any other
                // transfer that fails after it.
                if (task->downloadPos_ > 0) task->notifyTaskInfo();
                if (task->length_ > 0 && task->retries_ <= 1 && !task->removed_ &&
                    workerRunning_) {
                    // From where the download stood, with a range.
                    task->retries_ += 1;
                    task->continueDownload();
                    continue;
                }
                task->error_ = code;
            }
            logPrint("--------Task end ----------- %p\n", static_cast<void*>(task));
            curl_multi_remove_handle(multiHandle_, curl);
            task->inMulti_ = false;
            task->ended_ = true;
            task->notifyTaskInfo();
        }

        bool idle;
        long clientMs = -1;
        {
            Mutex::Autolock lock(tasksLock_);
            for (HttpTask* task : tasks_) task->notifyTaskInfo();
            for (HttpWorkerClient* client : clients_) {
                const long ms = client->nextPassMs();
                if (ms >= 0 && (clientMs < 0 || ms < clientMs)) clientMs = ms;
            }
            Mutex::Autolock pendingLock(pendingLock_);
            // Nothing to serve and every transfer paused (or none running).
            idle = pending_ == 0 && runningCount_ == pausedCount_ && clientMs != 0;
        }
        if (idle) {
            if (clientMs < 0) {
                wakeup_.wait();
            } else {
                wakeup_.timedWait(static_cast<uint32_t>(clientMs));
            }
        }
    }

    // Leaving at process exit: tasks already released are still destroyed, so
    // that their requests complete and nothing of them is left behind.
    Mutex::Autolock lock(tasksLock_);
    for (size_t i = 0; i < tasks_.size();) {
        HttpTask* task = tasks_[i];
        if (!task->removed_) {
            ++i;
            continue;
        }
        if (task->inMulti_) curl_multi_remove_handle(multiHandle_, task->curl_);
        dropTask(i);
    }
    serveClients();
}

void HttpTaskThread::serveClients() {
    // By index: a completion may add a client (recursive lock).
    for (size_t i = 0; i < clients_.size();) {
        HttpWorkerClient* client = clients_[i];
        const bool released = client->released();
        client->serve();  // a released client completes its queue as cancelled
        if (released) {
            clients_.erase(clients_.begin() + static_cast<std::ptrdiff_t>(i));
            client->removeTransfers();
            delete client;
            continue;
        }
        ++i;
    }
}

bool HttpTaskThread::clientTransferDone(void* curl, int code) {
    Mutex::Autolock lock(tasksLock_);
    for (HttpWorkerClient* client : clients_) {
        if (client->transferDone(static_cast<CURL*>(curl), static_cast<CURLcode>(code))) return true;
    }
    return false;
}

void HttpTaskThread::dropTask(size_t index) {
    HttpTask* task = tasks_[index];
    tasks_.erase(tasks_.begin() + static_cast<std::ptrdiff_t>(index));
    if (task->paused_) pausedCount_ -= 1;
    // Every accepted request completes once, also for a task its owner let go.
    task->cancelAll();
    delete task;
}

int HttpTaskThread::performAndSelect(void* multiArg) {
    CURLM* multi = static_cast<CURLM*>(multiArg);
    const uint64_t arrivalsBefore = arrivals_;
    while (curl_multi_perform(multi, &runningCount_) == CURLM_CALL_MULTI_PERFORM) {
    }
    if (runningCount_ == 0) return 0;
    // Bytes that just arrived are served before any wait: the last bytes of
    // a transfer may be followed by nothing that would end the wait.
    if (arrivals_ != arrivalsBefore) return runningCount_;

    fd_set readSet, writeSet, exceptSet;
    FD_ZERO(&readSet);
    FD_ZERO(&writeSet);
    FD_ZERO(&exceptSet);
    int maxFd = 0;
    curl_multi_fdset(multi, &readSet, &writeSet, &exceptSet, &maxFd);
    long timeoutMs = 0;
    if (maxFd == -1) {
        // No socket to wait for (every transfer paused or between
        // connections): a nap, which wake() cuts short.
        timeoutMs = kIdlePassMs;
    } else {
        curl_multi_timeout(multi, &timeoutMs);
        // libcurl may name many seconds (nearly 20 with a transfer whose
        // server went quiet): one stalled stream would hold the stall checks
        // of every other stream that long. Never wait longer than when it
        // names none.
        if (timeoutMs < 0 || timeoutMs > kIdlePassMs) timeoutMs = kIdlePassMs;
    }
    // A request, task or release from another thread ends the wait at once
    // instead of waiting for the next byte of some transfer.
    FD_SET(wakePipe_[0], &readSet);
    if (wakePipe_[0] > maxFd) maxFd = wakePipe_[0];
    struct timeval limit;
    limit.tv_sec = timeoutMs / 1000;
    limit.tv_usec = (timeoutMs % 1000) * 1000;
    const int ret = select(maxFd + 1, &readSet, &writeSet, &exceptSet, &limit);
    if (ret > 0 && FD_ISSET(wakePipe_[0], &readSet)) {
        // Drained first, cleared after: a wake() that finds the flag set
        // before the clear is served by the pass that follows anyway, and one
        // after it writes a byte the drain can no longer eat. Cleared first,
        // a byte written between the clear and the drain would be eaten and
        // leave the flag set over an empty pipe, and no wake() would write again.
        char drain[64];
        while (read(wakePipe_[0], drain, sizeof drain) > 0) {
        }
        wakeQueued_ = false;
        wokenPasses_ += 1;
    } else if (ret == 0) {
        timedOutPasses_ += 1;
    }
    if (ret < 0) logPrint("Select multiple IO failed %d\n", ret);
    return runningCount_;
}

}  // namespace velka
