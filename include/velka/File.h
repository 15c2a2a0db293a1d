#ifndef VELKA_FILE_H
#define VELKA_FILE_H

#include <cstdint>
#include <string>

#include "velka/NonCopyable.h"
#include "velka/Status.h"

namespace velka {

// A byte-stream media source with blocking and asynchronous reads. The pull
// source answers the playback engine's open, read, seek, size and abort
// requests from one of these.
//
// Calling order: construct with the URL; open(); any of the operations;
// close(); destroy through a pointer to File.
//
// Asynchronous reads: an accepted request (non-null handle) completes exactly
// once through its callback, possibly before readAsync() has returned, on a
// thread of the source's choosing. A refused request (null) never calls the
// callback. The callback object must live until complete() has been called;
// complete() may destroy it. The handle is valid until complete() returns, and
// cancel() is only called for a request whose completion is not yet delivered.
// A completed read advances the position by its length, so consecutive
// asynchronous reads continue one another.
//
// Cancelling never loses bytes. A read that cancel() answered 0 for completes
// with kStatusCancelled and 0 bytes and leaves the position where the read
// began, even when the source had already filled part of its buffer: the
// next read delivers those bytes again. A read the source can no longer
// abandon makes cancel() answer -1 and completes normally with its bytes.
// A read standing at the end completes with kStatusEndOfFile and 0 bytes.
//
// The position-based operations require a successful open(); misuse (an
// operation on a file that is not open, a null request to cancel()) is a
// broken precondition, asserted by the sources. Failures are results only.
class File : private NonCopyable {
public:
    // The values are the POSIX seek origins.
    enum Whence : int32_t {
        kSeekSet = 0,      // from the start
        kSeekCurrent = 1,  // from the current position
        kSeekEnd = 2,      // from the end
    };

    // Receives the completion of one asynchronous read.
    class AsyncCallback {
    public:
        // status: kStatusOk, kStatusEndOfFile, kStatusCancelled or kStatusError.
        virtual void complete(VelkaStatus status, uint32_t length) = 0;
        virtual ~AsyncCallback() {}
    };

    explicit File(const std::string& url) : url_(url) {}

    // 0 on success, -1 on failure.
    virtual int open() = 0;
    // Releases what open() acquired; returns 0.
    virtual int close() = 0;
    // Blocking read at the current position: bytes read, 0 at the end, < 0 on failure.
    virtual int read(char* buffer, uint32_t count) = 0;
    // Starts a read of up to `count` bytes at the current position. Returns a
    // request handle, or null when the request was refused.
    virtual void* readAsync(char* buffer, uint32_t count, AsyncCallback& callback) = 0;
    // Asks the source to abandon an accepted request (never null). 0 when it
    // was cancelled (it still completes once, with kStatusCancelled and 0
    // bytes, and takes no bytes from the stream), -1 otherwise.
    virtual int cancel(void* request) = 0;
    // The new position, or -1.
    virtual int64_t seek(int64_t offset, Whence whence) = 0;
    virtual int64_t tell() = 0;
    // The total length in bytes.
    virtual int64_t length() = 0;
    // Bytes from the current position to the end (length minus position);
    // negative on failure.
    virtual int64_t available() = 0;
    // How full the source's own buffer is, 0 to 100 (100 without a buffer).
    virtual int cachePercent() = 0;
    // The current error code, 0 when none.
    virtual int error() = 0;
    // Destroys through a pointer to File, normally after close().
    virtual ~File() {}

protected:
    std::string url_;
};

}  // namespace velka

#endif  // VELKA_FILE_H
