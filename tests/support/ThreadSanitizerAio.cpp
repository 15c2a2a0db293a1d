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
#include <pthread.h>
#include <unistd.h>

#include <cerrno>
#include <condition_variable>
#include <deque>
#include <mutex>
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

void* notify(void* arg) {
    struct sigevent* event = static_cast<struct sigevent*>(arg);
    event->sigev_notify_function(event->sigev_value);
    delete event;
    return nullptr;
}

bool startDetached(void* (*function)(void*), void* arg) {
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
    pthread_t thread;
    int ret = pthread_create(&thread, &attr, function, arg);
    pthread_attr_destroy(&attr);
    return ret == 0;
}

// One worker serves the requests in submission order, as glibc serves the
// requests of one descriptor, so a request queued behind a long one can still
// be cancelled. Each notification runs on a thread of its own.
void* work(void*) {
    Shared& s = shared();
    for (;;) {
        struct aiocb* cb;
        bool cancelled;
        {
            std::unique_lock<std::mutex> lock(s.mutex);
            s.wake.wait(lock, [&s] { return !s.queue.empty(); });
            cb = s.queue.front();
            s.queue.pop_front();
            Stage& stage = s.pending[cb];
            cancelled = stage == Stage::kCancelled;
            if (!cancelled) stage = Stage::kRunning;
        }
        int error = ECANCELED;
        ssize_t result = -1;
        if (!cancelled) {
            result = pread(cb->aio_fildes, const_cast<void*>(cb->aio_buf), cb->aio_nbytes,
                           cb->aio_offset);
            error = result < 0 ? errno : 0;
        }
        // The notification may free the request: copy its event first.
        struct sigevent* event = new struct sigevent(cb->aio_sigevent);
        {
            std::lock_guard<std::mutex> lock(s.mutex);
            cb->__error_code = error;
            cb->__return_value = result;
            s.pending.erase(cb);
        }
        if (event->sigev_notify != SIGEV_THREAD || !startDetached(notify, event)) {
            delete event;
        }
    }
    return nullptr;
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
        if (!startDetached(work, nullptr)) {
            errno = EAGAIN;
            return -1;
        }
        s.workerStarted = true;
    }
    s.pending[cb] = Stage::kQueued;
    cb->__error_code = EINPROGRESS;
    s.queue.push_back(cb);
    s.wake.notify_one();
    return 0;
}

int aio_error(const struct aiocb* cb) {
    Shared& s = shared();
    std::lock_guard<std::mutex> lock(s.mutex);
    if (s.pending.count(cb) != 0) return EINPROGRESS;
    return cb->__error_code;
}

ssize_t aio_return(struct aiocb* cb) {
    Shared& s = shared();
    std::lock_guard<std::mutex> lock(s.mutex);
    return cb->__return_value;
}

int aio_cancel(int fd, struct aiocb* cb) {
    if (cb == nullptr) {
        errno = ENOSYS;  // cancelling every request of a descriptor is not needed
        return -1;
    }
    if (cb->aio_fildes != fd) {
        errno = EBADF;
        return -1;
    }
    Shared& s = shared();
    std::lock_guard<std::mutex> lock(s.mutex);
    auto it = s.pending.find(cb);
    if (it == s.pending.end()) return AIO_ALLDONE;
    if (it->second == Stage::kRunning) return AIO_NOTCANCELED;
    it->second = Stage::kCancelled;
    return AIO_CANCELED;
}

}  // extern "C"
