#ifndef VELKA_HTTPFILE_H
#define VELKA_HTTPFILE_H

#include <cstdint>
#include <string>

#include "velka/File.h"
#include "velka/HttpOptions.h"

namespace velka {

class HttpTask;

// The File for http:// and https:// URLs, which a host application constructs
// itself (FileFactory never picks it). open() starts one HttpTask, which
// downloads the resource into a 16 MiB ring on the one HttpTaskThread and
// answers reads out of that ring: reads that follow the download come from
// memory, a seek back that the ring still covers or a short seek forward costs
// no new request, nor does one the running download reaches sooner than a new
// request would answer on this link; a jump to the stream's end region while
// the download runs fetches the end over a second connection and keeps the
// ring; any other seek restarts the download with an open-ended byte range.
// URLs containing ".rmvb" also get a cache of their last 32 KiB.
//
// Asynchronous reads complete on the worker thread, strictly in the order they
// were issued, each exactly once, possibly before readAsync() has returned.
// complete() runs with the worker's locks held (they are recursive), so it may
// issue the next read of the same file but must not block for long.
//
// No lock of its own: the owner opens, uses and closes it from its threads.
class HttpFile : public File {
public:
    // Stores the URL and the request options (for every request the file
    // makes); nothing else happens until open().
    explicit HttpFile(const std::string& url, const HttpOptions& options = HttpOptions());
    // Closes the file when it is still open, so that nothing goes on
    // downloading for an owner that is gone.
    ~HttpFile() override;

    // Blocks until the server has answered with the first body bytes (or the
    // transfer has failed) and, for ".rmvb" URLs, until the tail is fetched.
    // -1 when the URL is not http or https, the server cannot be reached or
    // answers with an error, or the response ends before its first byte.
    int open() override;
    // Releases the task. Requests still queued complete with kStatusCancelled
    // on the worker before close() returns (unless close() is called from a
    // completion, on the worker itself, where they complete right after it).
    int close() override;
    // Blocks until the request is served: the bytes read, 0 at the end, -1
    // once the download has failed for good.
    int read(char* buffer, uint32_t length) override;
    // Null once the download has failed for good.
    void* readAsync(char* buffer, uint32_t length, AsyncCallback& callback) override;
    int cancel(void* request) override;
    // Moves the read position only; the download follows when the next request
    // is served. Refused (-1, or 0 for kSeekSet and for offset 0) when the
    // server gave no length.
    int64_t seek(int64_t offset, Whence whence) override;
    int64_t tell() override;
    // The content length of the first response; -1 when the server gave none.
    int64_t length() override;
    int64_t available() override;
    // How much of the first 512 KiB ahead (or of the whole resource, when
    // smaller) the ring holds, 0 to 100.
    int cachePercent() override;
    // Always 0: failures show in the results of the reads.
    int error() override;
    // The Content-Type of the first response, "" without one (or while the
    // file is not open).
    std::string contentType() const;

private:
    HttpOptions options_;
    HttpTask* task_;  // null while the file is not open
};

}  // namespace velka

#endif  // VELKA_HTTPFILE_H
