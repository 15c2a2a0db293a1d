#ifndef VELKA_SRC_TAILFETCH_H
#define VELKA_SRC_TAILFETCH_H

// A second transfer of an HttpTask for the end of the stream. Demuxers read
// the end of a file right after its start (an MP4 index stored last, an
// MPEG-TS's last timestamps) and come back to the start at once. Restarting
// the main transfer for that would throw away the ring and cost a new
// connection twice; this fetch brings the end over a connection of its own,
// with an open-ended range that ends with the stream, while the main
// transfer keeps the start. Everything runs on the HTTP worker, on the
// worker's multi handle.

#define CURL_DISABLE_DEPRECATION 1
#include <curl/curl.h>

#include "velka/HttpOptions.h"

#include <cstdint>
#include <vector>

namespace velka {

class TailFetch {
public:
    // Fetches [from, length) of `url` over `multi`; `owner` becomes the
    // handle's private pointer (the worker finds the task through it).
    // Every request carries the host's options, like the main transfer's.
    TailFetch(CURLM* multi, const char* url, int64_t from, int64_t length, void* owner,
              const HttpOptions& options);
    ~TailFetch();  // takes the transfer out of the multi handle if it runs
    TailFetch(const TailFetch&) = delete;
    TailFetch& operator=(const TailFetch&) = delete;

    CURL* curl() const { return curl_; }
    int64_t from() const { return from_; }
    // One past the last byte that arrived.
    int64_t arrived() const { return from_ + static_cast<int64_t>(received_); }
    // The transfer ended before bringing all its bytes (or never started):
    // the reader must go back to the main transfer.
    bool failed() const { return failed_; }
    // Copies `count` arrived bytes from stream offset `at`.
    void copy(int64_t at, char* dest, uint32_t count) const;
    // The worker saw the transfer end with `code`.
    void finished(CURLcode code);

private:
    static size_t tail_fetch_write_cb(char* data, size_t size, size_t count, void* fetch);

    CURLM* multi_;
    CURL* curl_;
    curl_slist* headers_;  // the options' extra headers, freed with the handle
    int64_t from_;
    std::vector<char> bytes_;  // the whole of [from, length), filled in order
    size_t received_;
    bool inMulti_;
    bool failed_;
};

}  // namespace velka

#endif  // VELKA_SRC_TAILFETCH_H
