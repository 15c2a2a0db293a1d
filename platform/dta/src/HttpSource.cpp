// HTTP and HTTPS for the download engine: one libcurl transfer at a time,
// driven from the task's download thread through a multi handle of its own,
// so that a wait for the network can give up when the task is closed or a
// seek leaves the buffered window. Nothing is shared with other tasks.
//
// open() starts a transfer (with a byte range after a seek) and waits for its
// first body byte or its end; fetch() hands out what arrived and drives the
// transfer while there is nothing. The bytes a server sends between two
// fetch() calls are kept in `pending_`; the transfer is driven only while
// `pending_` is empty, and pauses when one turn brings more than
// kMaxPendingBytes (a fast server on a near link can fill megabytes at once).

#include <curl/curl.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "Source.h"

namespace bctidta {

namespace {

// How long one wait for the network lasts before the interrupt is looked at.
const int kPollMs = 100;
// A server that sends nothing for this long has failed.
const long kStallSeconds = 30;
const long kConnectSeconds = 15;
const long kMaxRedirects = 10;
const size_t kMaxPendingBytes = 256 * 1024;

class HttpSource : public Source {
public:
    HttpSource(const std::string& url, const std::atomic<bool>& interrupted)
        : url_(url), interrupted_(interrupted) {
        static std::once_flag initialised;
        std::call_once(initialised, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
        multi_ = curl_multi_init();
        errorBuffer_[0] = '\0';
    }

    ~HttpSource() override {
        endTransfer();
        if (multi_ != nullptr) curl_multi_cleanup(multi_);
    }

    int open(int64_t offset, int64_t* totalLength) override {
        endTransfer();
        reason_.clear();
        if (multi_ == nullptr || (easy_ = curl_easy_init()) == nullptr) {
            reason_ = "out of memory";
            return -ENOMEM;
        }
        errorBuffer_[0] = '\0';
        curl_easy_setopt(easy_, CURLOPT_URL, url_.c_str());
        curl_easy_setopt(easy_, CURLOPT_WRITEFUNCTION, &HttpSource::onBody);
        curl_easy_setopt(easy_, CURLOPT_WRITEDATA, this);
        curl_easy_setopt(easy_, CURLOPT_ERRORBUFFER, errorBuffer_);
        curl_easy_setopt(easy_, CURLOPT_NOSIGNAL, 1L);
        curl_easy_setopt(easy_, CURLOPT_FOLLOWLOCATION, 1L);
        curl_easy_setopt(easy_, CURLOPT_MAXREDIRS, kMaxRedirects);
        curl_easy_setopt(easy_, CURLOPT_PROTOCOLS_STR, "http,https");
        curl_easy_setopt(easy_, CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
        curl_easy_setopt(easy_, CURLOPT_CONNECTTIMEOUT, kConnectSeconds);
        curl_easy_setopt(easy_, CURLOPT_LOW_SPEED_LIMIT, 1L);
        curl_easy_setopt(easy_, CURLOPT_LOW_SPEED_TIME, kStallSeconds);
        const std::string range = std::to_string(offset) + "-";
        if (offset > 0) curl_easy_setopt(easy_, CURLOPT_RANGE, range.c_str());
        if (curl_multi_add_handle(multi_, easy_) != CURLM_OK) {
            curl_easy_cleanup(easy_);
            easy_ = nullptr;
            reason_ = "cannot start the transfer";
            return -EIO;
        }

        // Up to the first body byte, or the end of a transfer that has none.
        while (pending_.empty() && !done_) {
            int rc = step();
            if (rc != 0) return rc;
        }
        long status = 0;
        curl_easy_getinfo(easy_, CURLINFO_RESPONSE_CODE, &status);
        if (done_ && result_ != CURLE_OK) return failure(result_);
        if (status != 200 && status != 206) {
            reason_ = "HTTP " + std::to_string(status);
            return status == 404 || status == 410   ? -ENOENT
                   : status == 401 || status == 403 ? -EACCES
                                                    : -EIO;
        }
        curl_off_t length = -1;
        curl_easy_getinfo(easy_, CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &length);
        if (status == 206) {
            *totalLength = length >= 0 ? offset + length : -1;
        } else {
            // The whole resource although a range was asked for: what lies
            // before `offset` is dropped as it comes.
            *totalLength = length;
            const size_t dropped = static_cast<size_t>(
                std::min<int64_t>(offset, static_cast<int64_t>(pending_.size())));
            pending_.erase(pending_.begin(), pending_.begin() + static_cast<ptrdiff_t>(dropped));
            skip_ = offset - static_cast<int64_t>(dropped);
        }
        return 0;
    }

    int64_t fetch(char* buffer, uint32_t count) override {
        while (taken_ == pending_.size()) {
            pending_.clear();
            taken_ = 0;
            if (done_) return result_ == CURLE_OK ? 0 : failure(result_);
            int rc = step();
            if (rc != 0) return rc;
        }
        const size_t n = std::min<size_t>(count, pending_.size() - taken_);
        std::memcpy(buffer, pending_.data() + taken_, n);
        taken_ += n;
        return static_cast<int64_t>(n);
    }

    std::string reason() const override { return reason_; }

private:
    static size_t onBody(char* data, size_t size, size_t count, void* self) {
        HttpSource* source = static_cast<HttpSource*>(self);
        size_t n = size * count;
        if (source->pending_.size() >= kMaxPendingBytes) {
            // Given again, in full, once the transfer is resumed.
            source->paused_ = true;
            return CURL_WRITEFUNC_PAUSE;
        }
        const size_t skipped = static_cast<size_t>(std::min<int64_t>(source->skip_, static_cast<int64_t>(n)));
        source->skip_ -= static_cast<int64_t>(skipped);
        source->pending_.insert(source->pending_.end(), data + skipped, data + n);
        return n;
    }

    // One turn of the transfer: whatever the network has now, else a short
    // wait for it. 0, or -EINTR when the task wants the thread back.
    int step() {
        if (interrupted_.load()) {
            reason_ = "interrupted";
            return -EINTR;
        }
        if (paused_) {
            paused_ = false;
            curl_easy_pause(easy_, CURLPAUSE_CONT);  // may deliver at once
            if (pending_.size() > taken_) return 0;
        }
        int running = 0;
        CURLMcode mc = curl_multi_perform(multi_, &running);
        if (mc != CURLM_OK) {
            reason_ = curl_multi_strerror(mc);
            return -EIO;
        }
        int left = 0;
        while (CURLMsg* message = curl_multi_info_read(multi_, &left)) {
            if (message->msg == CURLMSG_DONE) {
                done_ = true;
                result_ = message->data.result;
            }
        }
        if (!done_ && pending_.size() == taken_) {
            curl_multi_poll(multi_, nullptr, 0, kPollMs, nullptr);
        }
        return 0;
    }

    int failure(CURLcode code) {
        reason_ = errorBuffer_[0] != '\0' ? errorBuffer_ : curl_easy_strerror(code);
        switch (code) {
            case CURLE_COULDNT_RESOLVE_HOST:
            case CURLE_COULDNT_RESOLVE_PROXY:
                return -EHOSTUNREACH;
            case CURLE_COULDNT_CONNECT:
                return -ECONNREFUSED;
            case CURLE_OPERATION_TIMEDOUT:
                return -ETIMEDOUT;
            case CURLE_RECV_ERROR:
                return -ECONNRESET;
            case CURLE_UNSUPPORTED_PROTOCOL:
                return -EPROTONOSUPPORT;
            default:
                return -EIO;
        }
    }

    void endTransfer() {
        if (easy_ != nullptr) {
            curl_multi_remove_handle(multi_, easy_);
            curl_easy_cleanup(easy_);
            easy_ = nullptr;
        }
        pending_.clear();
        taken_ = 0;
        skip_ = 0;
        paused_ = false;
        done_ = false;
        result_ = CURLE_OK;
    }

    const std::string url_;
    const std::atomic<bool>& interrupted_;
    CURLM* multi_ = nullptr;
    CURL* easy_ = nullptr;
    char errorBuffer_[CURL_ERROR_SIZE];
    std::string reason_;
    std::vector<char> pending_;  // received, not yet fetched from `taken_` on
    size_t taken_ = 0;
    int64_t skip_ = 0;  // bytes still to drop from the front of the body
    bool paused_ = false;  // by onBody, until pending_ is taken
    bool done_ = false;
    CURLcode result_ = CURLE_OK;
};

}  // namespace

std::unique_ptr<Source> makeHttpSource(const std::string& url, const std::atomic<bool>& interrupted) {
    return std::unique_ptr<Source>(new HttpSource(url, interrupted));
}

}  // namespace bctidta
