#include "HttpTask.h"

#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "HttpRequestOptions.h"
#include "velka/Assert.h"
#include "LogLine.h"
#include "TailFetch.h"

namespace velka {

namespace {

// Ring sizes tried in turn when a task is built.
constexpr unsigned int kRingBytes[] = {16 * 1024 * 1024, 8 * 1024 * 1024, 4 * 1024 * 1024};
// Bytes of the stream's end kept aside for ".rmvb" URLs, whose players read
// the index at the end of the file while they play its start.
constexpr int kTailCacheBytes = 32 * 1024;
// A transfer that receives nothing for longer than this while not paused is
// restarted (the check runs at libcurl's progress reports, about once a second).
constexpr uint32_t kStallSeconds = 14;
// A forward seek into bytes not yet downloaded waits for them when the gap is
// at most this big: cheaper than a new request.
constexpr int64_t kMaxWaitGapBytes = 128 * 1024;
// A reader that jumps to within this much of the end, and into the stream's
// last 1/kTailFetchShare, while the main transfer runs gets the end over a
// second transfer (TailFetch.h). An MP4 index stored last is a few hundred
// KiB for an hour of video; a jump to the middle of a short stream is an
// ordinary seek.
constexpr int64_t kTailFetchMaxBytes = 4 * 1024 * 1024;
constexpr int64_t kTailFetchShare = 8;
// A forward seek further than kMaxWaitGapBytes also waits while the running
// transfer brings the gap sooner than this many round trips: what a restart
// costs (the new connection's handshake, its request, and the old
// connection's bytes still on their way).
constexpr int kRestartRoundTrips = 3;
// A stream the ring holds whole, which the running transfer brings to its end
// within this time, is served like a download: a forward seek waits for the
// transfer however far it goes. A restart would throw the ring away and leave
// the bytes in between behind, and a reader that seeks about in a short
// stream comes back for them; waiting costs at most this long, once.
constexpr int64_t kWholeStreamWaitMs = 6000;
// cachePercent() counts up to this much of the stream ahead of the reader.
constexpr int64_t kCacheThresholdBytes = 512 * 1024;
// libcurl's receive buffer, the largest block it hands to write_cb. Must stay
// at most the free space that resumes a paused transfer (32 KiB).
constexpr long kReceiveBytes = 32 * 1024;
constexpr long kConnectTimeoutSeconds = 20;
constexpr long kTailTimeoutSeconds = 40;
constexpr long kMaxRedirects = 10;
constexpr long kDnsCacheSeconds = 3600;
// Transfers and redirects stay on these schemes.
const char kProtocols[] = "http,https";

uint32_t monotonicSeconds() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<uint32_t>(static_cast<double>(ts.tv_sec) +
                                 static_cast<double>(ts.tv_nsec) / 1e9);
}

// "%lld-" of `offset`: an open-ended byte range.
void formatRange(char (&range)[128], int64_t offset) {
    memset(range, 0, sizeof range);
    snprintf(range, sizeof range - 1, "%lld-", static_cast<long long>(offset));
}

// libcurl's verbose lines, marked as libcurl marks them ("* " for its own
// text, "< " and "> " for headers in and out), go where the library's own
// lines go. Bodies are not shown.
int debug_cb(CURL* /*curl*/, curl_infotype type, char* data, size_t size, void* /*user*/) {
    const char* mark = nullptr;
    if (type == CURLINFO_TEXT) mark = "* ";
    if (type == CURLINFO_HEADER_IN) mark = "< ";
    if (type == CURLINFO_HEADER_OUT) mark = "> ";
    if (mark == nullptr) return 0;
    std::string text(mark);
    text.append(data, size);
    logWrite(text.data(), text.size());
    return 0;
}

// Set on every handle after its own options: libcurl's verbose lines go to
// the library's log, and neither the URL nor a redirect may lead to another
// scheme than http or https.
void setCommonOptions(CURL* curl) {
    curl_easy_setopt(curl, CURLOPT_DEBUGFUNCTION, &debug_cb);
    curl_easy_setopt(curl, CURLOPT_PROTOCOLS_STR, kProtocols);
    curl_easy_setopt(curl, CURLOPT_REDIR_PROTOCOLS_STR, kProtocols);
}

// Where the tail fetch collects its bytes.
struct TailSink {
    char* storage;
    int received;
    int capacity;
};

size_t tail_write_cb(char* data, size_t size, size_t count, void* sinkArg) {
    TailSink* sink = static_cast<TailSink*>(sinkArg);
    const size_t n = size * count;
    if (!workerRunning_) return n + 1;
    if (static_cast<size_t>(sink->received) + n > static_cast<size_t>(sink->capacity)) {
        logPuts("out of cache");
        return n + 1;
    }
    memcpy(sink->storage + sink->received, data, n);
    sink->received += static_cast<int>(n);
    return n;
}

}  // namespace

void HttpAsyncCallback::complete(VelkaStatus status, uint32_t length) {
    logPrint("HttpAsyncCallback, complete condition %d length %d\n", static_cast<int>(status),
           static_cast<int>(length));
    result_ = static_cast<int>(length);
    task_->semaphore_.post();
}

// --- Creation and release ---------------------------------------------------------------

HttpTask::HttpTask(RingBuffer* ring, CURL* curl)
    : length_(0),
      downloadPos_(0),
      readPos_(0),
      lastProgress_(0.0),
      curl_(curl),
      tailCache_(nullptr),
      tailSize_(0),
      ring_(ring),
      error_(0),
      removed_(false),
      inMulti_(false),
      paused_(false),
      yielded_(false),
      rangeRequest_(false),
      ended_(false),
      infoPublished_(false),
      infoOk_(false),
      lastProgressTime_(0),
      retries_(0),
      answered_(false),
      tailFetch_(nullptr),
      tailFetchFailed_(false),
      destroyed_(nullptr),
      semaphore_(0),
      headers_(nullptr) {
    worker_ = HttpTaskThread::instance();
}

HttpTask* HttpTask::create(const std::string& url, const HttpOptions& options) {
    RingBuffer* ring = new RingBuffer();
    bool allocated = false;
    for (unsigned int size : kRingBytes) {
        if ((allocated = ring->allocate(size))) break;
    }
    if (!allocated) {
        delete ring;
        return nullptr;
    }
    initCurl();
    CURL* curl = curl_easy_init();
    if (curl == nullptr) {
        delete ring;
        return nullptr;
    }
    HttpTask* task = new HttpTask(ring, curl);
    task->options_ = options;
    task->setCurlOptions(url);

    HttpTaskThread* worker = worker_;
    {
        Mutex::Autolock lock(worker->tasksLock_);
        // At process exit the worker starts no more transfers.
        if (!workerRunning_) {
            delete task;
            return nullptr;
        }
        worker->tasks_.push_back(task);
    }
    worker->wake();

    // From here on the task belongs to the worker; only the fields published
    // with the semaphore are read.
    task->waitForTaskInfoReady();
    if (!task->infoOk_) {
        // Failed, or the response ended without a byte of body.
        logPrint("worker remove task %p\n", static_cast<void*>(task));
        task->removed_ = true;
        worker->wake();
        logPuts("HttpFile::open fail 3");
        return nullptr;
    }
    // Without a tail cache the task works all the same.
    if (url.find(".rmvb") != std::string::npos && task->length_ != -1) {
        task->cacheTail(url, kTailCacheBytes);
    }
    return task;
}

void HttpTask::remove(HttpTask* task, Semaphore* destroyed) {
    logPrint("worker remove task %p\n", static_cast<void*>(task));
    // Stored before removed_ is published: the worker reads it after seeing the flag.
    task->destroyed_ = destroyed;
    task->removed_ = true;
    worker_.load()->wake();
}

HttpTask::~HttpTask() {
    logPrint("destroy task %p\n", static_cast<void*>(this));
    delete tailFetch_;
    if (curl_ != nullptr) curl_easy_cleanup(curl_);
    curl_slist_free_all(headers_);
    if (tailCache_ != nullptr) free(tailCache_);
    delete ring_;
    if (destroyed_ != nullptr) destroyed_->post();
}

void HttpTask::setCurlOptions(const std::string& url) {
    curl_easy_setopt(curl_, CURLOPT_VERBOSE, 1L);
    curl_easy_setopt(curl_, CURLOPT_FOLLOWLOCATION, 1L);
    curl_easy_setopt(curl_, CURLOPT_MAXREDIRS, kMaxRedirects);
    curl_easy_setopt(curl_, CURLOPT_PROGRESSFUNCTION, &HttpTask::progress_cb);
    curl_easy_setopt(curl_, CURLOPT_WRITEFUNCTION, &HttpTask::write_cb);
    curl_easy_setopt(curl_, CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl_, CURLOPT_PROGRESSDATA, this);
    curl_easy_setopt(curl_, CURLOPT_WRITEDATA, this);
    curl_easy_setopt(curl_, CURLOPT_PRIVATE, this);
    curl_easy_setopt(curl_, CURLOPT_NOPROGRESS, 0L);
    curl_easy_setopt(curl_, CURLOPT_CONNECTTIMEOUT, kConnectTimeoutSeconds);
    // No fresh connection per request: one whose transfer ended cleanly
    // serves the next range request, a round trip less on a real link.
    curl_easy_setopt(curl_, CURLOPT_DNS_CACHE_TIMEOUT, kDnsCacheSeconds);
    // Blocks of up to kReceiveBytes: half the receive calls of libcurl's
    // default, and still no larger than the free space that resumes a paused
    // transfer, so a resumed transfer's block always fits.
    curl_easy_setopt(curl_, CURLOPT_BUFFERSIZE, kReceiveBytes);
    setCommonOptions(curl_);
    headers_ = applyHttpOptions(curl_, options_);
}

void HttpTask::waitForTaskInfoReady() {
    logPuts("get task info wait");
    semaphore_.wait();
    logPrint("get task info end status %d length %lld\n", error_.load(),
           static_cast<long long>(length_));
}

int HttpTask::cacheTail(const std::string& url, int size) {
    if (length_ <= size) return 0;
    logPuts("create tail cache");
    tailCache_ = static_cast<char*>(malloc(static_cast<size_t>(size)));
    if (tailCache_ == nullptr) return 14;
    TailSink sink = {tailCache_, 0, size};
    CURL* curl = curl_easy_init();
    if (curl == nullptr) {
        free(tailCache_);
        tailCache_ = nullptr;
        return 14;
    }
    char range[128];
    formatRange(range, length_ - size);
    curl_easy_setopt(curl, CURLOPT_VERBOSE, 1L);
    curl_easy_setopt(curl, CURLOPT_FOLLOWLOCATION, 1L);
    curl_easy_setopt(curl, CURLOPT_MAXREDIRS, kMaxRedirects);
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, &tail_write_cb);
    curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, &sink);
    curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT, kConnectTimeoutSeconds);
    curl_easy_setopt(curl, CURLOPT_TIMEOUT, kTailTimeoutSeconds);
    curl_easy_setopt(curl, CURLOPT_RANGE, range);
    setCommonOptions(curl);
    curl_slist* headers = applyHttpOptions(curl, options_);

    const CURLcode ret = curl_easy_perform(curl);
    curl_slist_free_all(headers);
    long status = 0;
    curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status);
    // All `size` bytes, from a 206: a 200 would have been the whole resource.
    if (ret == CURLE_OK && status == 206 && sink.received == size) {
        curl_easy_cleanup(curl);
        tailSize_ = size;
        return 0;
    }
    logPrint("tail error perform %d, readed %d\n", static_cast<int>(ret), sink.received);
    free(tailCache_);
    tailCache_ = nullptr;
    curl_easy_cleanup(curl);
    return 1;
}

// --- The download, on the worker ---------------------------------------------------------

size_t HttpTask::write_cb(char* data, size_t size, size_t count, void* task) {
    const size_t n = size * count;
    // libcurl hands over at most CURL_MAX_WRITE_SIZE bytes at a time.
    if (n > UINT32_MAX - 1) return n + 1;
    return static_cast<HttpTask*>(task)->feedBuffer(data, static_cast<uint32_t>(n));
}

uint32_t HttpTask::feedBuffer(char* data, uint32_t size) {
    long status = 0;
    curl_easy_getinfo(curl_, CURLINFO_RESPONSE_CODE, &status);
    // A body of the wrong kind (the whole resource for a range, or an error
    // page) is refused; libcurl ends the transfer with CURLE_WRITE_ERROR.
    if (status != (rangeRequest_ ? 206 : 200)) return size + 1;
    retries_ = 0;
    if (!answered_) {
        answered_ = true;
        curl_off_t requested = 0, answered = 0;
        curl_easy_getinfo(curl_, CURLINFO_PRETRANSFER_TIME_T, &requested);
        curl_easy_getinfo(curl_, CURLINFO_STARTTRANSFER_TIME_T, &answered);
        link_.roundTrip(static_cast<int64_t>(answered - requested));
    }
    if (size > ring_->space()) {
        link_.restart();
        // libcurl keeps the block and offers it again once resumed: the ring
        // is never written in part.
        paused_ = true;
        clearTimeoutCheck();
        pausedCount_ += 1;
        return CURL_WRITEFUNC_PAUSE;
    }
    ring_->write(data, size);
    downloadPos_ += size;
    arrivals_ += 1;
    link_.arrived(size);
    return size;
}

int HttpTask::progress_cb(void* task, double /*dltotal*/, double dlnow, double /*ultotal*/,
                          double /*ulnow*/) {
    if (!workerRunning_) return 1;
    return static_cast<HttpTask*>(task)->checkProgress(dlnow);
}

int HttpTask::checkProgress(double downloaded) {
    if (removed_) return 1;
    const uint32_t now = monotonicSeconds();
    if (downloaded != lastProgress_ || lastProgressTime_ == 0 || paused_ || yielded_) {
        lastProgress_ = downloaded;
        lastProgressTime_ = now;
        return 0;
    }
    if (now - lastProgressTime_ <= kStallSeconds) return 0;
    logPrint("cur time %u last time %u\n", now, lastProgressTime_);
    return 1;
}

void HttpTask::clearTimeoutCheck() {
    lastProgressTime_ = 0;
    lastProgress_ = 0.0;
}

// Posts semaphore_ once per task, whatever the outcome: a later post would
// wake a synchronous read before its request is done.
void HttpTask::notifyTaskInfo() {
    if (length_ != 0 || infoPublished_) return;
    if (error_ != 0) {
        logPrint("notify task info fail %d\n", error_.load());
    } else if (downloadPos_ > 0) {
        double contentLength = -1;
        curl_easy_getinfo(curl_, CURLINFO_CONTENT_LENGTH_DOWNLOAD, &contentLength);
        // The first transfer has no range: this is the whole resource's length.
        length_ = static_cast<int64_t>(contentLength);
        const char* type = nullptr;
        curl_easy_getinfo(curl_, CURLINFO_CONTENT_TYPE, &type);
        if (type != nullptr) contentType_ = type;
        logPrint("notify task info ready %lld\n", static_cast<long long>(length_));
        infoOk_ = length_ != 0;
    } else {
        long status = 0;
        curl_easy_getinfo(curl_, CURLINFO_RESPONSE_CODE, &status);
        // An error status without a body, or any response that ended before
        // its first body byte: the open fails.
        if (status < 400 && !ended_) return;
        logPrint("notify task info fail response %d without body\n", static_cast<int>(status));
    }
    infoPublished_ = true;
    semaphore_.post();
}

void HttpTask::resetRange() {
    downloadPos_ = readPos_;
    ring_->reset();
    continueDownload();
}

void HttpTask::continueDownload() {
    if (yielded_) {
        curl_easy_pause(curl_, CURLPAUSE_CONT);
        yielded_ = false;
    }
    curl_multi_remove_handle(multiHandle_, curl_);
    if (downloadPos_ != 0) {
        char range[128];
        formatRange(range, downloadPos_);
        curl_easy_setopt(curl_, CURLOPT_RANGE, range);
        rangeRequest_ = true;
    } else {
        curl_easy_setopt(curl_, CURLOPT_RANGE, static_cast<char*>(nullptr));
        rangeRequest_ = false;
    }
    clearTimeoutCheck();
    inMulti_ = true;
    ended_ = false;
    answered_ = false;
    link_.restart();
    if (paused_) {
        paused_ = false;
        pausedCount_ -= 1;
        logPrint("continue when paused %d\n", pausedCount_);
    }
    runningCount_ += 1;
    curl_multi_add_handle(multiHandle_, curl_);
}

// --- Requests from callers ----------------------------------------------------------------

AsyncRequest* HttpTask::readAsync(char* buffer, uint32_t length, File::AsyncCallback& callback) {
    // A released task takes nothing new: its queue is being completed; nor
    // does any task once the worker is torn down at process exit.
    if (error_ != 0 || removed_ || !workerRunning_) return nullptr;
    AsyncRequest* request = new AsyncRequest{buffer, length, length, false, &callback};
    logPrint("readAsyncTask length %d callback %p req %p\n", static_cast<int>(length),
           static_cast<void*>(&callback), static_cast<void*>(request));
    {
        Mutex::Autolock lock(mutex_);
        requests_.push_back(request);
    }
    HttpTaskThread* worker = worker_;
    {
        Mutex::Autolock lock(worker->pendingLock_);
        worker->pending_ += 1;
    }
    worker->wake();
    // The request may already be completed and freed; only its address is returned.
    return request;
}

int HttpTask::read(char* buffer, uint32_t length) {
    if (error_ != 0) return -1;
    HttpAsyncCallback callback(this);
    if (readAsync(buffer, length, callback) == nullptr) return -1;
    logPuts("readTask wait");
    semaphore_.wait();
    logPrint("readTask end %d\n", callback.result_);
    return callback.result_;
}

int HttpTask::cancelAsync(AsyncRequest* request) {
    Mutex::Autolock lock(mutex_);
    for (AsyncRequest* queued : requests_) {
        if (queued == request) {
            // It completes as cancelled when it reaches the front.
            queued->cancelled = true;
            return 0;
        }
    }
    return -1;
}

int64_t HttpTask::seek(int64_t offset, File::Whence whence) {
    Mutex::Autolock lock(mutex_);
    const int64_t length = length_;
    if (length == -1) {
        // Without a length there is nowhere to go but where the reader stands.
        return whence != File::kSeekSet && offset != 0 ? -1 : 0;
    }
    int64_t target;
    if (whence == File::kSeekSet) {
        target = offset < 0 ? 0 : (offset > length ? length : offset);
    } else if (whence == File::kSeekCurrent) {
        if (offset > 0) {
            int64_t sum;
            target = __builtin_add_overflow(readPos_, offset, &sum) || sum > length ? length : sum;
        } else {
            target = readPos_ + offset;  // readPos_ >= 0: cannot overflow
            if (target < 0) target = 0;
        }
    } else {
        if (offset > 0) {
            target = length;
        } else {
            target = offset >= -length ? length + offset : 0;
        }
    }
    readPos_ = target;
    return target;
}

int64_t HttpTask::tell() {
    Mutex::Autolock lock(mutex_);
    return readPos_;
}

int HttpTask::cachePercent() {
    const int64_t length = length_;
    if (length <= 0) return 0;
    const int64_t threshold = length < kCacheThresholdBytes ? length : kCacheThresholdBytes;
    const int64_t held = ring_->length();
    if (held >= threshold) return 100;
    return static_cast<int>(held * 100 / threshold);
}

// --- Serving, on the worker ---------------------------------------------------------------

void HttpTask::dealAsyncs() {
    if (length_ == 0) {
        logPuts("no length now ");
        return;
    }
    Mutex::Autolock lock(mutex_);
    while (!requests_.empty()) {
        AsyncRequest* request = requests_.front();
        // A released task's transfer may fail on its way out (its progress
        // callback aborts it): its requests are cancelled, not failed.
        if (request->cancelled || removed_) {
            logPuts("cancel request");
            // A cancelled read gives back what it had received (the download
            // may have run dry in the middle of it): the next read starts
            // where this one began, and the ring steps back to it.
            readPos_ -= request->length - request->remaining;
            notifyComplete(request, kStatusCancelled, 0);
            continue;
        }
        if (error_ != 0) {
            logPuts("open fail");
            notifyComplete(request, kStatusError, 0);
            continue;
        }
        const int64_t length = length_;
        const int64_t left = length - readPos_;
        if (tailCache_ != nullptr && left >= 0 && left < tailSize_) {
            getDataFromTailCache(request, left);
            continue;
        }
        if (length > 0 && left <= 0) {
            // Standing at the end: there is nothing to fetch, and a range
            // from the length would be answered 416.
            notifyComplete(request, kStatusEndOfFile, request->length - request->remaining);
            continue;
        }
        if (tailFetch_ != nullptr && readPos_ >= tailFetch_->from()) {
            const TailServe served = serveFromTailFetch(request);
            if (served == kTailServed) continue;
            if (served == kTailWait) return;
        }
        const uint32_t n = ring_->length();
        const int64_t ringStart = downloadPos_ - n;
        if (ringStart != readPos_) {
            ajustReadPosition(ringStart);
            return;  // a later pass tries again
        }
        // Without a length, the stream ends where the finished transfer ended.
        const bool allDownloaded = downloadPos_ == length || (length < 0 && !inMulti_);
        if (n == 0) {
            if (left == 0 || allDownloaded) {
                notifyComplete(request, kStatusEndOfFile, request->length - request->remaining);
                continue;
            }
            if (!inMulti_) {
                // The transfer ended short of the length without an error: start
                // again from here, twice in a row at most, as for a failure.
                if (retries_ <= 1) {
                    retries_ += 1;
                    continueDownload();
                } else {
                    error_ = CURLE_PARTIAL_FILE;
                }
            }
            return;  // wait for data
        }
        if (n >= request->remaining) {
            feedAsync(request, request->remaining);
            logPrint("async read to %lld\n", static_cast<long long>(readPos_));
            notifyComplete(request, kStatusOk, request->length);
            continue;
        }
        if (allDownloaded) {
            logPrint("EOF %p fifolen %d async length %d\n", static_cast<void*>(request->buffer),
                   static_cast<int>(n), static_cast<int>(request->length));
            feedAsync(request, n);
            notifyComplete(request, kStatusEndOfFile, request->length - request->remaining);
            continue;
        }
        // A partial delivery: the request stays at the front for the rest.
        feedAsync(request, n);
        return;
    }
}

void HttpTask::ajustReadPosition(int64_t ringStart) {
    const int64_t distance = readPos_ - ringStart;
    if (distance == 0) return;
    if (distance < 0) {
        const int64_t back = -distance;
        if (back < (int64_t(1) << 32) && ring_->backwardSeek(static_cast<uint32_t>(back)) != 0) {
            logPrint("back seek in buffer ok %lld %lld\n", static_cast<long long>(ringStart),
                   static_cast<long long>(readPos_));
        } else {
            logPuts("back seek in buffer fail, reset request");
            resetRange();
        }
        return;
    }
    if (readPos_ <= downloadPos_) {
        logPrint("skip %lld, pos %lld\n", static_cast<long long>(readPos_),
               static_cast<long long>(downloadPos_));
        ring_->skip(static_cast<uint32_t>(distance));
        return;
    }
    // Not downloaded yet. The gap counts from the ring start: its bytes must
    // all pass through the ring.
    const bool room = distance <= static_cast<int64_t>(ring_->space());
    if (room && distance <= kMaxWaitGapBytes) {
        logPrint("seek forward %lld, pos %lld wait gap %lld\n", static_cast<long long>(readPos_),
               static_cast<long long>(downloadPos_), static_cast<long long>(distance));
        return;
    }
    if (startTailFetch()) return;
    // The running transfer brings a farther gap when it comes sooner than a
    // restart's answer. Without figures yet (a transfer's first tens of
    // milliseconds) the choice waits for them; a later pass makes it.
    const bool running = inMulti_ && !paused_;
    const int64_t length = length_;
    const bool whole = length > 0 && length <= static_cast<int64_t>(ring_->size()) &&
                       link_.arrivesWithin(length - downloadPos_, kWholeStreamWaitMs);
    if (room && running &&
        (!link_.known() || whole || link_.reachesSooner(readPos_ - downloadPos_, kRestartRoundTrips))) {
        logPrint("seek forward %lld, pos %lld wait gap %lld\n", static_cast<long long>(readPos_),
               static_cast<long long>(downloadPos_), static_cast<long long>(distance));
        return;
    }
    logPrint("reseek forward %lld, pos %lld\n", static_cast<long long>(readPos_),
           static_cast<long long>(downloadPos_));
    resetRange();
}

bool HttpTask::startTailFetch() {
    const int64_t length = length_;
    // Only while the main transfer runs: it keeps the start the reader
    // comes back to. A paused or ended one has nothing more to bring.
    const int64_t left = length - readPos_;
    if (length <= 0 || left > kTailFetchMaxBytes || left > length / kTailFetchShare ||
        !inMulti_ || paused_ || tailCache_ != nullptr || tailFetchFailed_) {
        return false;
    }
    char* url = nullptr;
    curl_easy_getinfo(curl_, CURLINFO_EFFECTIVE_URL, &url);
    if (url == nullptr) return false;
    delete tailFetch_;  // one that began after readPos_
    tailFetch_ = new TailFetch(multiHandle_, url, readPos_, length, this, options_);
    if (tailFetch_->failed()) {
        delete tailFetch_;
        tailFetch_ = nullptr;
        return false;
    }
    // The worker goes on passing until libcurl counts the new transfer.
    runningCount_ += 1;
    logPrint("fetch tail %lld, pos %lld\n", static_cast<long long>(readPos_),
             static_cast<long long>(downloadPos_));
    return true;
}

HttpTask::TailServe HttpTask::serveFromTailFetch(AsyncRequest* request) {
    const int64_t here = tailFetch_->arrived() - readPos_;
    if (here > 0) {
        const uint32_t count = here < static_cast<int64_t>(request->remaining)
                                   ? static_cast<uint32_t>(here)
                                   : request->remaining;
        tailFetch_->copy(readPos_, request->buffer, count);
        request->buffer += count;
        request->remaining -= count;
        readPos_ += count;
    }
    if (request->remaining == 0) {
        logPrint("async read to %lld\n", static_cast<long long>(readPos_));
        notifyComplete(request, kStatusOk, request->length);
        return kTailServed;
    }
    if (readPos_ >= length_) {
        notifyComplete(request, kStatusEndOfFile, request->length - request->remaining);
        return kTailServed;
    }
    if (!tailFetch_->failed()) return kTailWait;
    // The rest comes through the main transfer.
    logPrint("tail fetch failed at %lld\n", static_cast<long long>(readPos_));
    delete tailFetch_;
    tailFetch_ = nullptr;
    tailFetchFailed_ = true;
    return kTailGone;
}

void HttpTask::shareLink() {
    Mutex::Autolock lock(mutex_);
    // A reader at the tail waits for the tail fetch alone: the main transfer
    // would take half the link meanwhile for bytes the reader wants later,
    // if at all (a demuxer reads the end for the duration, then goes back).
    const bool tailRunning = tailFetch_ != nullptr && !tailFetch_->failed() && tailFetch_->arrived() < length_;
    const bool yield = tailRunning && readPos_ >= tailFetch_->from() && inMulti_ && !paused_;
    if (yield == yielded_) return;
    logPrint("main transfer %s for the tail\n", yield ? "paused" : "resumed");
    yielded_ = yield;
    link_.restart();
    curl_easy_pause(curl_, yield ? CURLPAUSE_RECV : CURLPAUSE_CONT);
}

void HttpTask::tailFetchDone(CURL* curl, CURLcode code) {
    if (tailFetch_ != nullptr && tailFetch_->curl() == curl) tailFetch_->finished(code);
}

void HttpTask::feedAsync(AsyncRequest* request, uint32_t count) {
    ring_->read(request->buffer, count);
    request->buffer += count;
    request->remaining -= count;
    readPos_ += count;
}

void HttpTask::getDataFromTailCache(AsyncRequest* request, int64_t left) {
    logPrint("get from tail cache offset %lld len %d\n", static_cast<long long>(readPos_),
           static_cast<int>(request->length));
    const uint32_t count =
        left < static_cast<int64_t>(request->remaining) ? static_cast<uint32_t>(left)
                                                        : request->remaining;
    readPos_ += count;
    memcpy(request->buffer, tailCache_ + (tailSize_ - left), count);
    notifyComplete(request, kStatusOk, request->length - request->remaining + count);
    logPuts("get from tail cache end");
}

void HttpTask::notifyComplete(AsyncRequest* request, VelkaStatus status, uint32_t length) {
    // The callback may queue the next request (recursive locks); the front
    // stays this one until it is popped below.
    request->callback->complete(status, length);
    requests_.pop_front();
    delete request;
    HttpTaskThread* worker = worker_;
    {
        Mutex::Autolock lock(worker->pendingLock_);
        worker->pending_ -= 1;
    }
    // Balances the post of readAsync().
    worker->wakeup_.tryWait();
}

void HttpTask::cancelAll() {
    Mutex::Autolock lock(mutex_);
    while (!requests_.empty()) {
        logPuts("cancel request");
        notifyComplete(requests_.front(), kStatusCancelled, 0);
    }
}

}  // namespace velka
