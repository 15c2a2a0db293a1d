#include "HlsSession.h"

#include <openssl/evp.h>

#include <algorithm>
#include <cinttypes>
#include <cstring>

#include "HlsSessionShared.h"
#include "HttpRequestOptions.h"
#include "HttpTask.h"
#include "LogLine.h"

namespace velka {

using namespace hls;

HlsSession::HlsSession(const std::string& url, const HttpOptions& options)
    : url_(url),
      options_(options),
      phase_(kStarting),
      bandwidthBps_(0),
      fmp4_(false),
      variant_(0),
      upVotes_(0),
      live_(false),
      nextSequence_(0),
      lastListed_(-1),
      liveOffset_(0),
      livePart_(0),
      liveChosenFor_(-1),
      liveSeconds_(0),
      nextReloadMs_(0),
      lastAdvanceMs_(0),
      useClock_(0),
      current_(0),
      openDecided_(false),
      dirty_(false),
      opened_(0),
      openOk_(false),
      readDone_(0),
      destroyed_(nullptr),
      released_(false),
      length_(0),
      cachePercent_(0),
      error_(0),
      readPos_(0) {
    initCurl();
    // The session's connections live in a pool of its own: kept alive from
    // one fetch to the next, and closed when the session goes. Both handles
    // are only used on the worker, so the pool needs no lock.
    share_ = curl_share_init();
    if (share_ != nullptr) curl_share_setopt(share_, CURLSHOPT_SHARE, CURL_LOCK_DATA_CONNECT);
    for (HlsFetch* fetch : {&control_, &segment_}) {
        fetch->owner = this;
        fetch->curl = curl_easy_init();
        if (fetch->curl == nullptr) continue;
        CURL* curl = fetch->curl;
        if (share_ != nullptr) curl_easy_setopt(curl, CURLOPT_SHARE, share_);
        curl_easy_setopt(curl, CURLOPT_FOLLOWLOCATION, 1L);
        curl_easy_setopt(curl, CURLOPT_MAXREDIRS, kMaxRedirects);
        curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, &HlsSession::write_cb);
        curl_easy_setopt(curl, CURLOPT_WRITEDATA, fetch);
        curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT, kConnectTimeoutSeconds);
        curl_easy_setopt(curl, CURLOPT_LOW_SPEED_LIMIT, kStallBytesPerSecond);
        curl_easy_setopt(curl, CURLOPT_LOW_SPEED_TIME, kStallSeconds);
        curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
        curl_easy_setopt(curl, CURLOPT_PROTOCOLS_STR, kProtocols);
        curl_easy_setopt(curl, CURLOPT_REDIR_PROTOCOLS_STR, kProtocols);
        fetch->headers = applyHttpOptions(curl, options_);
    }
}

HlsSegmentBuffer::~HlsSegmentBuffer() { EVP_CIPHER_CTX_free(cipher); }

HlsSession::~HlsSession() {
    logPrint("HlsFile: session %p destroyed\n", static_cast<void*>(this));
    for (HlsFetch* fetch : {&control_, &segment_}) {
        if (fetch->curl != nullptr) curl_easy_cleanup(fetch->curl);
        curl_slist_free_all(fetch->headers);
    }
    if (share_ != nullptr) curl_share_cleanup(share_);
    if (destroyed_ != nullptr) destroyed_->post();
}

// --- The caller's side ---------------------------------------------------------------------

bool HlsSession::open(uint32_t limitMs, std::string* why, bool* withWorker) {
    *withWorker = false;
    if (control_.curl == nullptr || segment_.curl == nullptr) {
        *why = "no libcurl handle";
        delete this;
        return false;
    }
    if (url_.compare(0, 7, "http://") != 0 && url_.compare(0, 8, "https://") != 0) {
        *why = "not an http:// or https:// URL";
        delete this;
        return false;
    }
    if (!addHttpWorkerClient(this)) {
        *why = "the HTTP worker has stopped";
        delete this;
        return false;
    }
    *withWorker = true;
    if (!opened_.timedWait(limitMs)) {
        // The worker goes on until the owner releases the session.
        *why = "not open after " + std::to_string(limitMs) + " ms";
        return false;
    }
    if (!openOk_) *why = openWhy_;
    return openOk_;
}

void HlsSession::release(Semaphore* destroyed) {
    // Stored before released_ is published: the worker reads it after the flag.
    destroyed_ = destroyed;
    released_ = true;
    wakeHttpWorker();
}

HlsRequest* HlsSession::readAsync(char* buffer, uint32_t length, File::AsyncCallback& callback) {
    if (error_ != 0 || released_ || !workerRunning_) return nullptr;
    HlsRequest* request = new HlsRequest{buffer, length, length, false, &callback};
    {
        Mutex::Autolock lock(mutex_);
        requests_.push_back(request);
    }
    wakeHttpWorker();
    // The request may already be completed and freed; only its address is returned.
    return request;
}

namespace {
class HlsReadCallback : public File::AsyncCallback {
public:
    explicit HlsReadCallback(Semaphore& done) : result(0), done_(done) {}
    void complete(VelkaStatus status, uint32_t length) override {
        result = status == kStatusError ? -1 : static_cast<int>(length);
        done_.post();
    }
    int result;

private:
    Semaphore& done_;
};
}  // namespace

int HlsSession::read(char* buffer, uint32_t length) {
    HlsReadCallback callback(readDone_);
    if (readAsync(buffer, length, callback) == nullptr) return -1;
    readDone_.wait();
    return callback.result;
}

int HlsSession::cancel(HlsRequest* request) {
    Mutex::Autolock lock(mutex_);
    for (HlsRequest* queued : requests_) {
        if (queued == request) {
            // A live stream cannot give back bytes it has handed out (its
            // segments are gone once read): a read already partly filled
            // completes normally.
            if (live_ && queued->remaining < queued->length) return -1;
            queued->cancelled = true;
            wakeHttpWorker();
            return 0;
        }
    }
    return -1;
}

int64_t HlsSession::seek(int64_t offset, File::Whence whence) {
    Mutex::Autolock lock(mutex_);
    const int64_t length = length_;
    if (length < 0) return whence != File::kSeekSet && offset != 0 ? -1 : 0;
    int64_t target;
    if (whence == File::kSeekSet) {
        target = offset;
    } else if (whence == File::kSeekCurrent) {
        target = offset > length ? length : readPos_ + offset;
    } else {
        target = offset > 0 ? length : length + offset;
    }
    target = std::max<int64_t>(0, std::min(target, length));
    readPos_ = target;
    return target;
}

int64_t HlsSession::tell() {
    Mutex::Autolock lock(mutex_);
    return readPos_;
}

// --- Transfers, on the worker ---------------------------------------------------------------

size_t HlsSession::write_cb(char* data, size_t size, size_t count, void* fetchArg) {
    HlsFetch* fetch = static_cast<HlsFetch*>(fetchArg);
    return fetch->owner->accept(fetch, data, size * count);
}

size_t HlsSession::accept(HlsFetch* fetch, const char* data, size_t size) {
    if (released_ || !workerRunning_) return size + 1;
    curl_easy_getinfo(fetch->curl, CURLINFO_RESPONSE_CODE, &fetch->status);
    // A body of the wrong kind (an error page, the whole resource for a range).
    if (fetch->status != (fetch->rangeRequest ? 206 : 200)) return size + 1;
    if (fetch->kind == HlsFetch::kSegment) {
        HlsSegmentBuffer* buffer = bufferFor(*fetch);
        if (buffer == nullptr) return size + 1;
        appendSegmentBytes(buffer, data, size);
        if (!live_) scanBoxes(static_cast<int>(fetch->index), buffer);
    } else {
        if (fetch->body.size() + size > kMaxControlBytes) return size + 1;
        fetch->body.append(data, size);
    }
    fetch->received += static_cast<int64_t>(size);
    fetch->retries = 0;
    dirty_ = true;
    return size;
}

void HlsSession::start(HlsFetch* fetch, HlsFetch::Kind kind, int index, const std::string& url,
                       int64_t rangeOffset, int64_t rangeLength) {
    stop(fetch);
    fetch->kind = kind;
    fetch->index = index;
    fetch->url = url;
    fetch->rangeOffset = rangeOffset;
    fetch->rangeLength = rangeLength;
    fetch->received = 0;
    fetch->retries = 0;
    fetch->variant = -1;
    fetch->startMs = monotonicMs();
    fetch->body.clear();
    restart(fetch);
}

void HlsSession::restart(HlsFetch* fetch) {
    if (fetch->running) curl_multi_remove_handle(multiHandle_, fetch->curl);
    if (fetch->kind != HlsFetch::kSegment) {
        // Small bodies: fetched again whole.
        fetch->received = 0;
        fetch->body.clear();
    }
    const int64_t from = (fetch->rangeOffset < 0 ? 0 : fetch->rangeOffset) + fetch->received;
    char range[64] = "";
    if (fetch->rangeLength > 0) {
        snprintf(range, sizeof range, "%" PRId64 "-%" PRId64, from,
                 fetch->rangeOffset + fetch->rangeLength - 1);
    } else if (from > 0) {
        snprintf(range, sizeof range, "%" PRId64 "-", from);
    }
    fetch->rangeRequest = range[0] != 0;
    curl_easy_setopt(fetch->curl, CURLOPT_URL, fetch->url.c_str());
    curl_easy_setopt(fetch->curl, CURLOPT_RANGE, fetch->rangeRequest ? range : nullptr);
    fetch->done = false;
    fetch->result = CURLE_OK;
    fetch->status = 0;
    logPrint("HlsFile: GET %s%s%s\n", fetch->url.c_str(), fetch->rangeRequest ? " range " : "",
             range);
    if (curl_multi_add_handle(multiHandle_, fetch->curl) == CURLM_OK) {
        fetch->running = true;
        runningCount_ += 1;
    } else {
        fetch->done = true;
        fetch->result = CURLE_FAILED_INIT;
        dirty_ = true;
    }
}

void HlsSession::stop(HlsFetch* fetch) {
    if (fetch->running) curl_multi_remove_handle(multiHandle_, fetch->curl);
    fetch->running = false;
    fetch->done = false;
    fetch->kind = HlsFetch::kIdle;
    fetch->index = -1;
}

bool HlsSession::transferDone(CURL* curl, CURLcode code) {
    HlsFetch* fetch = curl == control_.curl ? &control_ : curl == segment_.curl ? &segment_ : nullptr;
    if (fetch == nullptr) return false;
    curl_multi_remove_handle(multiHandle_, curl);
    curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &fetch->status);
    fetch->running = false;
    fetch->done = true;
    fetch->result = code;
    dirty_ = true;
    return true;
}

void HlsSession::removeTransfers() {
    stop(&control_);
    stop(&segment_);
}

// A finished transfer: true when it succeeded; a failed one is restarted
// (kMaxRetries in a row) and false is returned with fetch->done still set
// only when it failed for good.
bool HlsSession::handleFinished(HlsFetch* fetch) {
    const long expected = fetch->rangeRequest ? 206 : 200;
    bool ok = fetch->result == CURLE_OK && fetch->status == expected;
    if (ok && fetch->rangeLength > 0 && fetch->received != fetch->rangeLength) ok = false;
    if (ok) return true;
    logPrint("HlsFile: %s failed: libcurl %d, status %ld, %" PRId64 " bytes\n", fetch->url.c_str(),
             static_cast<int>(fetch->result), fetch->status, fetch->received);
    if (fetch->retries < kMaxRetries && !released_) {
        fetch->retries += 1;
        restart(fetch);
        return false;
    }
    return false;
}

// --- Serving, on the worker -----------------------------------------------------------------

void HlsSession::serve() {
    Mutex::Autolock lock(mutex_);
    dirty_ = false;
    if (released_) {
        while (!requests_.empty()) complete(requests_.front(), kStatusCancelled, 0);
        if (!openDecided_) finishOpen(false, "closed");
        return;
    }
    if (phase_ != kReady && phase_ != kFailed) advanceOpen();
    if (phase_ == kReady) handleControlWhileReady();
    if (segment_.kind == HlsFetch::kSegment && segment_.done) {
        const int64_t index = segment_.index;
        HlsSegmentBuffer* buffer = bufferFor(segment_);
        if (handleFinished(&segment_)) {
            const uint64_t elapsedMs = std::max<uint64_t>(1, monotonicMs() - segment_.startMs);
            throughputBps_.push_back(static_cast<double>(segment_.received) * 8 * 1000 /
                                     static_cast<double>(elapsedMs));
            if (throughputBps_.size() > kThroughputSamples) throughputBps_.pop_front();
            stop(&segment_);
            if (buffer != nullptr) finishSegment(buffer, index);
            if (phase_ == kFirstSegment) layOut();
        } else if (segment_.done) {
            stop(&segment_);
            const std::string why = "segment " + std::to_string(index) + " failed for good";
            if (phase_ == kFirstSegment) {
                finishOpen(false, why);
            } else if (live_) {
                // Live goes on with the next segment; what the reader already
                // has of this one stays, the demuxer resynchronises.
                logPrint("HlsFile: %s: skipped\n", why.c_str());
                if (!liveQueue_.empty() && liveQueue_.back().first == index) {
                    if (liveQueue_.size() == 1 && liveOffset_ > 0) {
                        finishSegment(liveQueue_.back().second.get(), index);
                    } else {
                        liveQueue_.pop_back();
                    }
                }
            } else {
                // Fails the reader only once it reaches this segment: what
                // comes before it is still served.
                logPrint("HlsFile: %s\n", why.c_str());
                buffers_.erase(static_cast<int>(index));
                failedSegments_.insert(static_cast<int>(index));
            }
        }
    }
    if (phase_ == kReady) {
        if (live_) {
            scheduleLive();
        } else {
            scheduleSegments();
        }
    }
    serveRequests();
    updateCachePercent();
}

void HlsSession::finishSegment(HlsSegmentBuffer* buffer, int64_t index) {
    if (buffer->cipher != nullptr) {
        const size_t before = buffer->data.size();
        buffer->data.resize(before + 32);
        int out = 0;
        if (EVP_DecryptFinal_ex(buffer->cipher, reinterpret_cast<unsigned char*>(&buffer->data[before]),
                                &out) != 1) {
            logPrint("HlsFile: segment %" PRId64 " does not decrypt (bad padding)\n", index);
            out = 0;
        }
        buffer->data.resize(before + static_cast<size_t>(out));
        EVP_CIPHER_CTX_free(buffer->cipher);
        buffer->cipher = nullptr;
        if (!live_) scanBoxes(static_cast<int>(index), buffer);
    }
    timeline_.rewrite(&buffer->data, &buffer->ts, true);
    if (live_) liveCc_ = buffer->ts.lastCc;
    buffer->complete = true;
    const int64_t span = span_.empty() || live_ ? 0 : span_[static_cast<size_t>(index)];
    logPrint("HlsFile: segment %" PRId64 ": %zu bytes, span %" PRId64 "\n", index,
             buffer->data.size(), span);
    if (span > 0 && media_.segments[static_cast<size_t>(index)].mapIndex < 0 &&
        static_cast<int64_t>(buffer->data.size()) > span) {
        logPrint("HlsFile: segment %" PRId64 " outgrows its span of %" PRId64 " bytes: cut at %" PRId64
                 "\n", index, span, span);
    }
}

HlsSegmentBuffer* HlsSession::bufferFor(const HlsFetch& fetch) {
    if (live_) {
        for (auto& entry : liveQueue_) {
            if (entry.first == fetch.index) return entry.second.get();
        }
        return nullptr;
    }
    const auto it = buffers_.find(static_cast<int>(fetch.index));
    return it == buffers_.end() ? nullptr : it->second.get();
}

void HlsSession::fail(int code, const std::string& why) {
    logPrint("HlsFile: %s\n", why.c_str());
    error_ = code;
    phase_ = kFailed;
    stop(&segment_);
}

long HlsSession::nextPassMs() {
    // A release seen after this pass's serve() still needs its own pass.
    if (dirty_ || released_) return 0;
    if (!live_ || phase_ != kReady) return -1;
    // The next reload; a waiting reader's stall check comes with it, at
    // least every half target duration.
    const uint64_t now = monotonicMs();
    const uint64_t half = static_cast<uint64_t>(media_.targetDurationSeconds * 500) + 1;
    uint64_t wait = nextReloadMs_ > now ? nextReloadMs_ - now : 0;
    if (wait > half) wait = half;
    return static_cast<long>(std::max<uint64_t>(wait, 1));
}

void HlsSession::complete(HlsRequest* request, VelkaStatus status, uint32_t length) {
    // The callback may queue the next read (recursive lock); the front stays
    // this one until it is popped.
    request->callback->complete(status, length);
    requests_.pop_front();
    delete request;
}

}  // namespace velka
