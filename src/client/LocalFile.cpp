#include "velka/LocalFile.h"

#include <aio.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <thread>

#include "velka/Assert.h"
#include "LogLine.h"

namespace velka {

// One accepted asynchronous read. Its address is the request handle that
// readAsync() returns and cancel() takes; it is freed once complete() has
// returned. cancel() only ever touches a record it finds in the file's
// queue or as the file's submitted request, under the file's lock.
struct LocalFile::Request {
    struct aiocb cb;
    File::AsyncCallback* callback;
    LocalFile* file;
    bool cancelled;  // cancelled while waiting in the file's queue; under the file's mutex_

    // Runs on the notification thread the system creates for each finished read.
    static void finished(Request* request) { request->file->finish(request); }
};

namespace {

// Positions are 32-bit inside LocalFile: an offset reaches the system as its
// low 32 bits, and a position the system gives back is widened by sign.
// A position past 2 GiB cannot be told in 32 bits, so it reads as a failure,
// as the 32-bit system call reports it.
//
// Files of 2 GiB or more: refused by open() on every architecture, the box's
// 32-bit ARM as well as a 64-bit host, so that a file behaves the same on
// both. The whole tree builds with _FILE_OFFSET_BITS=64 (CMakeLists.txt), so
// off_t is 64-bit on 32-bit ARM too: fstat() gives such a file's true size and
// open() refuses it on that size, instead of fstat() failing with EOVERFLOW.
static_assert(sizeof(off_t) == 8, "velka builds with _FILE_OFFSET_BITS=64 (see CMakeLists.txt)");
off_t toSystemOffset(int64_t offset) {
    return static_cast<off_t>(static_cast<int32_t>(static_cast<uint32_t>(offset)));
}

int64_t fromSystemOffset(off_t position) {
    int64_t wide = position;
    if (wide > INT32_MAX) return -1;
    return static_cast<int64_t>(static_cast<int32_t>(wide));
}

void aio_complete_cb(union sigval value) {
    LocalFile::Request::finished(static_cast<LocalFile::Request*>(value.sival_ptr));
}

}  // namespace

LocalFile::LocalFile(const std::string& url)
    : File(url),
      fd_(-1),
      length_(-1),
      error_(0),
      submitted_(nullptr),
      delivering_(false),
      closing_(false) {}

// Waits for outstanding reads, as close() does.
LocalFile::~LocalFile() { LocalFile::close(); }

int LocalFile::open() {
    VELKA_ASSERT(url_.find("file://") == 0);
    std::string path = url_.substr(7);
    // Non-blocking, so that a FIFO without a writer (or a device that waits
    // for a carrier) does not hold the caller: such a file is refused below.
    int fd = ::open(path.c_str(), O_RDONLY | O_NONBLOCK);
    logPrint("local file open %s fd %d\n", path.c_str(), fd);
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
    // A regular file reads the same either way; blocking reads stay blocking.
    int flags = fcntl(fd, F_GETFL);
    if (flags != -1) fcntl(fd, F_SETFL, flags & ~O_NONBLOCK);
    fd_ = fd;
    length_ = static_cast<int64_t>(static_cast<int32_t>(st.st_size));
    return 0;
}

// Every accepted read completes before the descriptor goes: queued reads
// complete cancelled, the submitted one is cancelled if the system still can
// and otherwise waited for.
int LocalFile::close() {
    std::unique_lock<std::mutex> lock(mutex_);
    if (fd_ == -1) return 0;
    closing_ = true;
    for (Request* queued : waiting_) queued->cancelled = true;
    if (submitted_ != nullptr) aio_cancel(fd_, &submitted_->cb);
    // Inside complete() (this thread delivers) nothing is submitted, and the
    // queue behind this completion no longer needs the descriptor.
    if (!(delivering_ && deliverer_ == std::this_thread::get_id())) {
        idle_.wait(lock, [this] { return submitted_ == nullptr && !delivering_; });
    }
    ::close(fd_);
    fd_ = -1;
    closing_ = false;
    return 0;
}

int LocalFile::read(char* buffer, uint32_t count) {
    VELKA_ASSERT(fd_ != -1);
    logPrint("local file read length %d fd %d\n", static_cast<int>(count), fd_);
    return static_cast<int>(::read(fd_, buffer, count));
}

void* LocalFile::readAsync(char* buffer, uint32_t count, AsyncCallback& callback) {
    VELKA_ASSERT(fd_ != -1);
    Request* request = new Request();  // zero-filled
    request->cb.aio_fildes = fd_;
    request->cb.aio_buf = buffer;
    request->cb.aio_nbytes = count;
    request->callback = &callback;
    request->file = this;
    std::lock_guard<std::mutex> lock(mutex_);
    if (closing_) {
        delete request;
        return nullptr;
    }
    if (submitted_ != nullptr || delivering_) {
        // Submitted when the reads before it have completed (see finish()).
        waiting_.push_back(request);
        return request;
    }
    if (!submitLocked(request)) {
        logPrint("free aio %p", static_cast<void*>(request));
        delete request;
        return nullptr;
    }
    // The request may complete on another thread as soon as mutex_ is
    // released; only its address is returned.
    return request;
}

// The C library queues the requests of one descriptor behind each other, and
// its aio_cancel() of the first of them, while no helper thread has taken it
// yet, unlinks it without making the next one runnable: that request is then
// never served and never completes. So the system is given one request of a
// descriptor at a time, and the file keeps the rest in waiting_.
bool LocalFile::submitLocked(Request* request) {
    int32_t offset = static_cast<int32_t>(tell());
    request->cb.aio_offset = offset;
    logPrint("local file readAsync length %d off %d fd %d %p\n",
           static_cast<int>(request->cb.aio_nbytes), offset, fd_, static_cast<void*>(request));
    request->cb.aio_sigevent.sigev_notify = SIGEV_THREAD;
    request->cb.aio_sigevent.sigev_notify_function = aio_complete_cb;
    request->cb.aio_sigevent.sigev_notify_attributes = nullptr;
    request->cb.aio_sigevent.sigev_value.sival_ptr = request;
    if (aio_read(&request->cb) != 0) return false;
    submitted_ = request;
    return true;
}

void LocalFile::deliverLocked(std::unique_lock<std::mutex>& lock, Request* request,
                              VelkaStatus status, uint32_t length) {
    lock.unlock();
    request->callback->complete(status, length);
    // complete() may have destroyed the callback object; only the record is
    // touched from here on.
    delete request;
    lock.lock();
}

void LocalFile::finish(Request* request) {
    std::unique_lock<std::mutex> lock(mutex_);
    VELKA_ASSERT(request == submitted_);
    // The descriptor is still this file's: close() waits for submitted_.
    VelkaStatus status;
    uint32_t got = 0;
    int err = aio_error(&request->cb);
    if (err == 0) {
        ssize_t n = aio_return(&request->cb);
        // Advance before the callback: the next read starts right after these bytes.
        lseek(fd_, toSystemOffset(n), SEEK_CUR);
        got = static_cast<uint32_t>(n);
        status = static_cast<size_t>(n) >= request->cb.aio_nbytes ? kStatusOk : kStatusEndOfFile;
    } else if (err == ECANCELED) {
        status = kStatusCancelled;
    } else {
        logPrint("aio_complete_cb fail %d\n", err);
        status = kStatusError;
    }
    submitted_ = nullptr;
    delivering_ = true;
    deliverer_ = std::this_thread::get_id();
    deliverLocked(lock, request, status, got);

    // The next accepted read goes to the system; cancelled ones, and all of
    // them once close() has begun, complete here without it.
    while (!waiting_.empty()) {
        Request* next = waiting_.front();
        waiting_.pop_front();
        if (next->cancelled || closing_ || fd_ == -1) {
            deliverLocked(lock, next, kStatusCancelled, 0);
        } else if (submitLocked(next)) {
            break;
        } else {
            logPrint("free aio %p", static_cast<void*>(next));
            deliverLocked(lock, next, kStatusError, 0);
        }
    }
    delivering_ = false;
    idle_.notify_all();
}

int LocalFile::cancel(void* request) {
    Request* asyncReq = static_cast<Request*>(request);
    VELKA_ASSERT(asyncReq != NULL);
    logPrint("local file cancel fd %d\n", fd_);
    std::lock_guard<std::mutex> lock(mutex_);
    for (Request* queued : waiting_) {
        if (queued == asyncReq) {
            // It completes, cancelled, once the reads before it have.
            queued->cancelled = true;
            return 0;
        }
    }
    // The system's cancel is safe here: it holds no other request of this
    // descriptor (see submitLocked()). A cancelled request still completes,
    // once, with kStatusCancelled on its notification thread.
    if (asyncReq == submitted_ && aio_cancel(fd_, &asyncReq->cb) == AIO_CANCELED) {
        return 0;
    }
    // Running, or already completed and perhaps freed: not touched.
    return -1;
}

int64_t LocalFile::seek(int64_t offset, Whence whence) {
    VELKA_ASSERT(fd_ != -1);
    logPrint("local file seek whence %d off %lld fd %d\n", static_cast<int>(whence),
           static_cast<long long>(offset), fd_);
    // The Whence values are the POSIX origins.
    return fromSystemOffset(lseek(fd_, toSystemOffset(offset), static_cast<int>(whence)));
}

int64_t LocalFile::tell() {
    VELKA_ASSERT(fd_ != -1);
    logPrint("local file tell fd %d\n", fd_);
    return fromSystemOffset(lseek(fd_, 0, SEEK_CUR));
}

int64_t LocalFile::length() {
    logPrint("local file length fd %d len %lld\n", fd_, static_cast<long long>(length_));
    VELKA_ASSERT(fd_ != -1);
    return length_;
}

int64_t LocalFile::available() {
    VELKA_ASSERT(fd_ != -1);
    logPrint("local file available fd %d\n", fd_);
    int64_t total = length();
    int64_t position = tell();
    if (position == -1) {
        logPuts("local file available fail");
        return -1;
    }
    int64_t remaining = total - position;
    logPrint("local file available %lld\n", static_cast<long long>(remaining));
    return remaining;
}

int LocalFile::cachePercent() {
    return 100;
}

int LocalFile::error() {
    return error_;
}

}  // namespace velka
