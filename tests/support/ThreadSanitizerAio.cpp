// A stand-in for the C library's POSIX asynchronous reads, linked into test
// programs of ThreadSanitizer builds only.
//
// glibc runs each asynchronous request on a helper thread and each
// SIGEV_THREAD notification on a thread that it creates through its own
// internal pthread_create, which ThreadSanitizer cannot intercept: the first
// malloc on such a thread crashes inside the sanitizer. These definitions take
// the place of aio_read, aio_error, aio_return and aio_cancel for the whole
// program (the executable's symbols come first in the lookup), and run the
// requests and their notifications on threads the sanitizer sees being
// created, so the code around the reads is still checked for races.
//
// Semantics kept: a request reads at its own offset; aio_error answers
// EINPROGRESS until the request is finished; a request not yet started can be
// cancelled (AIO_CANCELED, and it then finishes with ECANCELED), a running one
// cannot (AIO_NOTCANCELED), a finished one answers AIO_ALLDONE; the
// notification function runs once per request, on a new thread, after the
// results are set. Only SIGEV_THREAD and SIGEV_NONE notifications are
// supported.

#include <aio.h>
#include <unistd.h>

#include <cerrno>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>
#include <unordered_map>

namespace {

enum class Stage { kQueued, kRunning, kCancelled };

// All state lives on the heap and is never destroyed: the worker may still
// wait on it while the program exits.
struct Shared {
    std::mutex mutex;  // guards everything below and the result fields of listed aiocbs
    std::condition_variable wake;
    std::deque<struct aiocb*> queue;                        // submitted, not yet taken
    std::unordered_map<const struct aiocb*, Stage> pending;  // submitted, not yet finished
    bool workerStarted = false;
};

Shared& shared() {
    static Shared* state = new Shared;
    return *state;
}

// One worker serves the requests in submission order, as glibc serves the
// requests of one descriptor, so a request queued behind a long one can still
// be cancelled. Each notification runs on a thread of its own.
void work() {
    Shared& s = shared();
    for (;;) {
        std::unique_lock<std::mutex> lock(s.mutex);
        s.wake.wait(lock, [&s] { return !s.queue.empty(); });
        struct aiocb* cb = s.queue.front();
        s.queue.pop_front();
        Stage& stage = s.pending[cb];
        const bool cancelled = stage == Stage::kCancelled;
        if (!cancelled) stage = Stage::kRunning;
        lock.unlock();
        ssize_t result = -1;
        int error = ECANCELED;
        if (!cancelled) {
            result = pread(cb->aio_fildes, const_cast<void*>(cb->aio_buf), cb->aio_nbytes,
                           cb->aio_offset);
            error = result < 0 ? errno : 0;
        }
        // The notification may free the request: copy its event first.
        const struct sigevent event = cb->aio_sigevent;
        lock.lock();
        cb->__error_code = error;
        cb->__return_value = result;
        s.pending.erase(cb);
        lock.unlock();
        if (event.sigev_notify == SIGEV_THREAD) {
            std::thread([event] { event.sigev_notify_function(event.sigev_value); }).detach();
        }
    }
}

}  // namespace

extern "C" {

int aio_read(struct aiocb* cb) {
    if (cb->aio_sigevent.sigev_notify != SIGEV_THREAD &&
        cb->aio_sigevent.sigev_notify != SIGEV_NONE) {
        errno = EINVAL;
        return -1;
    }
    Shared& s = shared();
    std::lock_guard<std::mutex> lock(s.mutex);
    if (!s.workerStarted) {
        std::thread(work).detach();
        s.workerStarted = true;
    }
    s.pending[cb] = Stage::kQueued;
    cb->__error_code = EINPROGRESS;
    s.queue.push_back(cb);
    s.wake.notify_one();
    return 0;
}

int aio_error(const struct aiocb* cb) {
    std::lock_guard<std::mutex> lock(shared().mutex);
    return shared().pending.count(cb) != 0 ? EINPROGRESS : cb->__error_code;
}

ssize_t aio_return(struct aiocb* cb) {
    std::lock_guard<std::mutex> lock(shared().mutex);
    return cb->__return_value;
}

// Cancelling every request of a descriptor (a null request) is not needed.
int aio_cancel(int fd, struct aiocb* cb) {
    if (cb == nullptr || cb->aio_fildes != fd) {
        errno = cb == nullptr ? ENOSYS : EBADF;
        return -1;
    }
    std::lock_guard<std::mutex> lock(shared().mutex);
    auto it = shared().pending.find(cb);
    if (it == shared().pending.end()) return AIO_ALLDONE;
    if (it->second == Stage::kRunning) return AIO_NOTCANCELED;
    it->second = Stage::kCancelled;
    return AIO_CANCELED;
}

}  // extern "C"
