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
//
// Also kept, a fault of glibc's: the requests of one descriptor queue behind
// each other, only the first of them is runnable, and cancelling that first
// one before it has started makes the next the first without making it
// runnable, so it is never served and never finishes.

#include <aio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>
#include <unordered_map>

namespace {

enum class Stage { kQueued, kRunning };

// All state lives on the heap and is never destroyed: the worker may still
// wait on it while the program exits.
struct Shared {
    std::mutex mutex;  // guards everything below and the result fields of listed aiocbs
    std::condition_variable wake;
    // The first request of each descriptor, made runnable, not yet taken.
    std::deque<struct aiocb*> runnable;
    // Per descriptor, its unfinished requests in submission order.
    std::unordered_map<int, std::deque<struct aiocb*>> chains;
    std::unordered_map<const struct aiocb*, Stage> pending;  // submitted, not yet finished
    bool workerStarted = false;
};

Shared& shared() {
    static Shared* state = new Shared;
    return *state;
}

// Sets the results and removes `cb` from its descriptor's chain; the next
// request of the chain becomes runnable when `advance` is set. Returns the
// request's event, copied before the notification may free the request.
// Caller holds the mutex.
struct sigevent finishLocked(Shared& s, struct aiocb* cb, int error, ssize_t result, bool advance) {
    cb->__error_code = error;
    cb->__return_value = result;
    s.pending.erase(cb);
    std::deque<struct aiocb*>& chain = s.chains[cb->aio_fildes];
    chain.erase(std::find(chain.begin(), chain.end(), cb));
    if (advance && !chain.empty()) {
        s.runnable.push_back(chain.front());
        s.wake.notify_one();
    }
    if (chain.empty()) s.chains.erase(cb->aio_fildes);
    return cb->aio_sigevent;
}

void notify(const struct sigevent& event) {
    if (event.sigev_notify == SIGEV_THREAD) {
        std::thread([event] { event.sigev_notify_function(event.sigev_value); }).detach();
    }
}

// One worker serves the runnable requests in the order they became runnable.
// Each notification runs on a thread of its own.
void work() {
    Shared& s = shared();
    for (;;) {
        std::unique_lock<std::mutex> lock(s.mutex);
        s.wake.wait(lock, [&s] { return !s.runnable.empty(); });
        struct aiocb* cb = s.runnable.front();
        s.runnable.pop_front();
        s.pending[cb] = Stage::kRunning;
        lock.unlock();
        ssize_t result = pread(cb->aio_fildes, const_cast<void*>(cb->aio_buf), cb->aio_nbytes,
                               cb->aio_offset);
        const int error = result < 0 ? errno : 0;
        lock.lock();
        const struct sigevent event = finishLocked(s, cb, error, result, true);
        lock.unlock();
        notify(event);
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
    std::deque<struct aiocb*>& chain = s.chains[cb->aio_fildes];
    chain.push_back(cb);
    if (chain.size() == 1) {
        s.runnable.push_back(cb);
        s.wake.notify_one();
    }
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
    Shared& s = shared();
    std::unique_lock<std::mutex> lock(s.mutex);
    auto it = s.pending.find(cb);
    if (it == s.pending.end()) return AIO_ALLDONE;
    if (it->second == Stage::kRunning) return AIO_NOTCANCELED;
    auto runnable = std::find(s.runnable.begin(), s.runnable.end(), cb);
    if (runnable != s.runnable.end()) s.runnable.erase(runnable);
    // As glibc: the request behind a cancelled first one is not made runnable.
    const struct sigevent event = finishLocked(s, cb, ECANCELED, -1, false);
    lock.unlock();
    notify(event);
    return AIO_CANCELED;
}

}  // extern "C"
