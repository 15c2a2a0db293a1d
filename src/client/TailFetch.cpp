#include "TailFetch.h"

#include <cstdio>
#include <cstring>

#include "HttpRequestOptions.h"
#include "HttpTask.h"

namespace velka {

namespace {
constexpr long kConnectTimeoutSeconds = 20;
// The fetch is short; a server that sends nothing for this long has failed
// it, and the reader goes back to the main transfer.
constexpr long kStallSeconds = 15;
constexpr long kMaxRedirects = 10;
}  // namespace

TailFetch::TailFetch(CURLM* multi, const char* url, int64_t from, int64_t length, void* owner,
                     const HttpOptions& options)
    : multi_(multi),
      curl_(curl_easy_init()),
      headers_(nullptr),
      from_(from),
      bytes_(static_cast<size_t>(length - from)),
      received_(0),
      inMulti_(false),
      failed_(false) {
    if (curl_ == nullptr) {
        failed_ = true;
        return;
    }
    char range[64];
    snprintf(range, sizeof range, "%lld-", static_cast<long long>(from));
    curl_easy_setopt(curl_, CURLOPT_URL, url);
    curl_easy_setopt(curl_, CURLOPT_RANGE, range);
    curl_easy_setopt(curl_, CURLOPT_WRITEFUNCTION, &TailFetch::tail_fetch_write_cb);
    curl_easy_setopt(curl_, CURLOPT_WRITEDATA, this);
    curl_easy_setopt(curl_, CURLOPT_PRIVATE, owner);
    curl_easy_setopt(curl_, CURLOPT_FOLLOWLOCATION, 1L);
    curl_easy_setopt(curl_, CURLOPT_MAXREDIRS, kMaxRedirects);
    curl_easy_setopt(curl_, CURLOPT_CONNECTTIMEOUT, kConnectTimeoutSeconds);
    curl_easy_setopt(curl_, CURLOPT_LOW_SPEED_LIMIT, 1L);
    curl_easy_setopt(curl_, CURLOPT_LOW_SPEED_TIME, kStallSeconds);
    curl_easy_setopt(curl_, CURLOPT_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(curl_, CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
    headers_ = applyHttpOptions(curl_, options);
    if (curl_multi_add_handle(multi_, curl_) == CURLM_OK) {
        inMulti_ = true;
    } else {
        failed_ = true;
    }
}

TailFetch::~TailFetch() {
    if (curl_ == nullptr) return;
    if (inMulti_) curl_multi_remove_handle(multi_, curl_);
    curl_easy_cleanup(curl_);
    curl_slist_free_all(headers_);
}

void TailFetch::copy(int64_t at, char* dest, uint32_t count) const {
    memcpy(dest, bytes_.data() + (at - from_), count);
}

void TailFetch::finished(CURLcode code) {
    curl_multi_remove_handle(multi_, curl_);
    inMulti_ = false;
    if (code != CURLE_OK || received_ != bytes_.size()) failed_ = true;
}

size_t TailFetch::tail_fetch_write_cb(char* data, size_t size, size_t count, void* fetchArg) {
    TailFetch* fetch = static_cast<TailFetch*>(fetchArg);
    const size_t n = size * count;
    long status = 0;
    curl_easy_getinfo(fetch->curl_, CURLINFO_RESPONSE_CODE, &status);
    // Only the range asked for, and no more than the stream's length said.
    if (status != 206 || fetch->received_ + n > fetch->bytes_.size()) return n + 1;
    memcpy(fetch->bytes_.data() + fetch->received_, data, n);
    fetch->received_ += n;
    arrivals_ += 1;
    return n;
}

}  // namespace velka
