#include "velka/LocalFile.h"

#include <aio.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>

#include "velka/Assert.h"

namespace velka {

namespace {

// One asynchronous read in flight. Its address is the request handle that
// readAsync() returns and cancel() takes; aio_complete_cb frees it once the
// callback has returned.
struct LocalAioRequest {
    struct aiocb cb;
    File::AsyncCallback* callback;
};

// Positions are 32-bit inside LocalFile: an offset reaches the system as its
// low 32 bits, and a position the system gives back is widened by sign.
// A position past 2 GiB cannot be told in 32 bits, so it reads as a failure,
// as the 32-bit system call reports it.
off_t toSystemOffset(int64_t offset) {
    return static_cast<off_t>(static_cast<int32_t>(static_cast<uint32_t>(offset)));
}

int64_t fromSystemOffset(off_t position) {
    int64_t wide = position;
    if (wide > INT32_MAX) return -1;
    return static_cast<int64_t>(static_cast<int32_t>(wide));
}

// Runs on a notification thread the system creates for each finished read.
void aio_complete_cb(union sigval value) {
    LocalAioRequest* request = static_cast<LocalAioRequest*>(value.sival_ptr);
    int err = aio_error(&request->cb);
    if (err == 0) {
        ssize_t n = aio_return(&request->cb);
        // Advance before the callback: a readAsync() issued from inside
        // complete() starts right after these bytes.
        lseek(request->cb.aio_fildes, toSystemOffset(n), SEEK_CUR);
        uint32_t got = static_cast<uint32_t>(n);
        if (static_cast<size_t>(n) >= request->cb.aio_nbytes) {
            request->callback->complete(kStatusOk, got);
        } else {
            request->callback->complete(kStatusEndOfFile, got);
        }
    } else if (err == ECANCELED) {
        request->callback->complete(kStatusCancelled, 0);
    } else {
        printf("aio_complete_cb fail %d\n", err);
        request->callback->complete(kStatusError, 0);
    }
    // complete() may have destroyed the callback object; only the record is
    // touched from here on.
    delete request;
}

}  // namespace

LocalFile::LocalFile(const std::string& url) : File(url), fd_(-1), length_(-1), error_(0) {}

LocalFile::~LocalFile() {
    if (fd_ != -1) {
        ::close(fd_);
    }
}

int LocalFile::open() {
    VELKA_ASSERT(url_.find("file://") == 0);
    std::string path = url_.substr(7);
    int fd = ::open(path.c_str(), O_RDONLY);
    printf("local file open %s fd %d\n", path.c_str(), fd);
    if (fd <= 0) {
        // Descriptor 0 counts as a failure too; it is not kept.
        if (fd == 0) ::close(fd);
        return -1;
    }
    struct stat st;
    // The size must fit the 32-bit size query; larger files fail as that
    // query does.
    if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode) || static_cast<int64_t>(st.st_size) > INT32_MAX) {
        ::close(fd);
        return -1;
    }
    fd_ = fd;
    length_ = static_cast<int64_t>(static_cast<int32_t>(st.st_size));
    return 0;
}

int LocalFile::close() {
    if (fd_ != -1) {
        ::close(fd_);
        fd_ = -1;
    }
    return 0;
}

int LocalFile::read(char* buffer, uint32_t count) {
    VELKA_ASSERT(fd_ != -1);
    printf("local file read length %d fd %d\n", static_cast<int>(count), fd_);
    return static_cast<int>(::read(fd_, buffer, count));
}

void* LocalFile::readAsync(char* buffer, uint32_t count, AsyncCallback& callback) {
    VELKA_ASSERT(fd_ != -1);
    LocalAioRequest* request = new LocalAioRequest();  // zero-filled
    request->cb.aio_fildes = fd_;
    request->cb.aio_buf = buffer;
    request->cb.aio_nbytes = count;
    int32_t offset = static_cast<int32_t>(tell());
    request->cb.aio_offset = offset;
    printf("local file readAsync length %d off %d fd %d %p\n", static_cast<int>(count), offset,
           fd_, static_cast<void*>(request));
    request->cb.aio_sigevent.sigev_notify = SIGEV_THREAD;
    request->cb.aio_sigevent.sigev_notify_function = aio_complete_cb;
    request->cb.aio_sigevent.sigev_notify_attributes = nullptr;
    request->cb.aio_sigevent.sigev_value.sival_ptr = request;
    request->callback = &callback;
    // Once submitted, the request may complete and be freed on another
    // thread before aio_read() returns: it is not touched again here.
    if (aio_read(&request->cb) != 0) {
        printf("free aio %p", static_cast<void*>(request));
        delete request;
        return nullptr;
    }
    return request;
}

int LocalFile::cancel(void* request) {
    LocalAioRequest* asyncReq = static_cast<LocalAioRequest*>(request);
    VELKA_ASSERT(asyncReq != NULL);
    printf("local file cancel fd %d\n", fd_);
    // A cancelled request still completes, once, with kStatusCancelled on its
    // notification thread; any other answer leaves it to complete normally.
    if (aio_cancel(fd_, &asyncReq->cb) == AIO_CANCELED) {
        return 0;
    }
    return -1;
}

int64_t LocalFile::seek(int64_t offset, Whence whence) {
    VELKA_ASSERT(fd_ != -1);
    printf("local file seek whence %d off %lld fd %d\n", static_cast<int>(whence),
           static_cast<long long>(offset), fd_);
    // The Whence values are the POSIX origins.
    return fromSystemOffset(lseek(fd_, toSystemOffset(offset), static_cast<int>(whence)));
}

int64_t LocalFile::tell() {
    VELKA_ASSERT(fd_ != -1);
    printf("local file tell fd %d\n", fd_);
    return fromSystemOffset(lseek(fd_, 0, SEEK_CUR));
}

int64_t LocalFile::length() {
    printf("local file length fd %d len %lld\n", fd_, static_cast<long long>(length_));
    VELKA_ASSERT(fd_ != -1);
    return length_;
}

int64_t LocalFile::available() {
    VELKA_ASSERT(fd_ != -1);
    printf("local file available fd %d\n", fd_);
    int64_t total = length();
    int64_t position = tell();
    if (position == -1) {
        puts("local file available fail");
        return -1;
    }
    int64_t remaining = total - position;
    printf("local file available %lld\n", static_cast<long long>(remaining));
    return remaining;
}

int LocalFile::cachePercent() {
    return 100;
}

int LocalFile::error() {
    return error_;
}

}  // namespace velka
