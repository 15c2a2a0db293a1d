#ifndef VELKA_SRC_HTTPTASK_H
#define VELKA_SRC_HTTPTASK_H

// One HTTP stream: a libcurl transfer into a RingBuffer and the FIFO of
// asynchronous reads answered out of it. Private to the library; HttpFile is
// its public face and HttpTaskThread its worker.

// The progress callback and the content length are taken in libcurl's
// floating-point form, which newer libcurl headers mark deprecated.
#define CURL_DISABLE_DEPRECATION 1
#include <curl/curl.h>

#include <atomic>
#include <cstdint>
#include <deque>
#include <string>

#include "LinkEstimate.h"
#include "velka/File.h"
#include "velka/HttpOptions.h"
#include "velka/HttpTaskThread.h"
#include "velka/Mutex.h"
#include "velka/RingBuffer.h"
#include "velka/Semaphore.h"

namespace velka {

class HttpTask;
class TailFetch;

// One pending readAsync. Its address is the request handle; notifyComplete()
// frees it right after its callback ran.
struct AsyncRequest {
    char* buffer;       // where the next delivered byte goes; advances with partial deliveries
    uint32_t length;    // bytes asked for
    uint32_t remaining; // bytes still to deliver
    bool cancelled;     // set by cancelAsync() under the task's mutex_
    File::AsyncCallback* callback;  // told the outcome exactly once
};

// Completes the synchronous read(): keeps the length and wakes the reader.
class HttpAsyncCallback : public File::AsyncCallback {
public:
    explicit HttpAsyncCallback(HttpTask* task) : result_(0), task_(task) {}
    void complete(VelkaStatus status, uint32_t length) override;

    int result_;
    HttpTask* task_;
};

// State shared by every task and the worker (defined with the worker).
// Set when the worker loop starts, cleared at process exit; while it is clear
// the progress and tail callbacks abort their transfers.
extern std::atomic<bool> workerRunning_;
extern int pausedCount_;       // transfers paused on a full ring; worker only
extern CURLM* multiHandle_;    // created with the worker
extern int runningCount_;      // libcurl's running count, plus one per restart since; worker only
extern uint64_t arrivals_;     // body blocks a task's transfers took; worker only
extern std::atomic<HttpTaskThread*> worker_;  // stored by every task's constructor

// libcurl's global initialisation, done once before the first handle; any thread.
void initCurl();
// True on the worker thread (completion callbacks run there).
bool onHttpWorker();

class HttpTask {
public:
    // Builds the task, has the worker start its download and waits for the
    // task info; fetches the tail cache of ".rmvb" URLs. Null on failure.
    static HttpTask* create(const std::string& url, const HttpOptions& options = HttpOptions());
    // Hands the task back to the worker, which completes its queued requests
    // as cancelled and destroys it at its next pass. With `destroyed`, posts
    // it once the task is gone.
    static void remove(HttpTask* task, Semaphore* destroyed = nullptr);

    // The reader's side; callers' threads.
    AsyncRequest* readAsync(char* buffer, uint32_t length, File::AsyncCallback& callback);
    int read(char* buffer, uint32_t length);
    int cancelAsync(AsyncRequest* request);
    int64_t seek(int64_t offset, File::Whence whence);
    int64_t tell();
    int64_t length() const { return length_; }
    // The first response's Content-Type ("" without one); set before create() returns.
    const std::string& contentType() const { return contentType_; }
    int cachePercent();
    int error() { return 0; }

private:
    friend class HttpTaskThread;
    friend class HttpAsyncCallback;

    HttpTask(RingBuffer* ring, CURL* curl);
    ~HttpTask();  // on the worker

    // Download half; everything but setCurlOptions, waitForTaskInfoReady and
    // cacheTail runs on the worker.
    void setCurlOptions(const std::string& url);
    void waitForTaskInfoReady();
    int cacheTail(const std::string& url, int size);
    void notifyTaskInfo();
    void resetRange();
    void continueDownload();
    void clearTimeoutCheck();
    int checkProgress(double downloaded);
    static int progress_cb(void* task, double dltotal, double dlnow, double ultotal, double ulnow);
    static size_t write_cb(char* data, size_t size, size_t count, void* task);
    uint32_t feedBuffer(char* data, uint32_t size);

    // Serving half; on the worker, tasksLock_ held.
    void dealAsyncs();
    void ajustReadPosition(int64_t ringStart);
    void feedAsync(AsyncRequest* request, uint32_t count);
    void notifyComplete(AsyncRequest* request, VelkaStatus status, uint32_t length);
    void getDataFromTailCache(AsyncRequest* request, int64_t left);
    // Completes every queued request as cancelled; for a task being dropped.
    void cancelAll();
    // The end of the stream over a second transfer (TailFetch.h), for a
    // reader that jumps there while the main transfer brings the start.
    bool startTailFetch();
    enum TailServe { kTailServed, kTailWait, kTailGone };
    TailServe serveFromTailFetch(AsyncRequest* request);
    // The worker saw the tail fetch's transfer `curl` end with `code`.
    void tailFetchDone(CURL* curl, CURLcode code);
    // After serving: pauses the main transfer while a reader waits for the
    // tail fetch, and resumes it once the reader left the tail or the fetch
    // ended.
    void shareLink();

    // 0 until the task info is known; then the first response's content
    // length, -1 when it gave none. Written by the worker, read by callers.
    std::atomic<int64_t> length_;
    int64_t downloadPos_;   // one past the last byte accepted into the ring; worker
    int64_t readPos_;       // next byte for a request; guarded by mutex_
    double lastProgress_;   // downloaded figure at the last progress change; worker
    CURL* curl_;            // the main transfer; owned
    char* tailCache_;       // the last tailSize_ bytes of the stream, or null
    int tailSize_;          // set by create() before any request exists
    RingBuffer* ring_;      // owned; written by the worker, length() read by callers
    std::atomic<int> error_;      // libcurl code of the transfer that failed for good; 0 while none
    std::atomic<bool> removed_;   // the owner let go; the worker destroys the task
    bool inMulti_;          // the easy handle is in the multi handle; worker
    bool paused_;           // paused on a full ring; worker
    bool yielded_;          // paused while a reader waits for the tail fetch; worker
    bool rangeRequest_;     // the current transfer asked for a range: 206 expected; worker
    bool ended_;            // a transfer ended (for good or until a restart); worker
    bool infoPublished_;    // semaphore_ was posted for the task info; worker
    // The open's verdict, written once before semaphore_ is posted for the
    // task info: the transfer may fail for good right after (and error_ be
    // set) before the opener wakes, and that failure belongs to the reads.
    bool infoOk_;
    uint32_t lastProgressTime_;  // monotonic seconds of the last progress change; 0 = not armed
    uint32_t retries_;      // restarts since data was last accepted; worker
    LinkEstimate link_;     // round trip and rate seen by the main transfer; worker
    bool answered_;         // the current transfer delivered its first block; worker
    TailFetch* tailFetch_;  // owned, or null; worker
    bool tailFetchFailed_;  // one failed: the main transfer serves the end from now on; worker
    Semaphore* destroyed_;  // posted by the destructor when the owner waits for it
    Semaphore semaphore_;   // task info ready (or failed); a synchronous read done
    Mutex mutex_;           // guards requests_, readPos_ and everything dealAsyncs() does
    std::deque<AsyncRequest*> requests_;  // served strictly from the front
    HttpOptions options_;   // the host's request options; set by create()
    std::string contentType_;  // written once before semaphore_ is posted for the task info
    curl_slist* headers_;   // options_' extra headers for curl_; owned
};

}  // namespace velka

#endif  // VELKA_SRC_HTTPTASK_H
