// The download engine: tasks that stream a resource into their own buffer on
// a thread each, served to readers from that buffer.
//
// Locks: the engine's tasksMutex_ (the handle table), each task's mutex (its
// buffer and state), idleMutex_ (the busy count). Order: a task's mutex before
// idleMutex_; tasksMutex_ is never held while another lock is taken. Events
// are sent with no lock held.

#include <pthread.h>

#include <algorithm>
#include <cerrno>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "CBctiDta.h"
#include "ControlState.h"
#include "Source.h"
#include "bctidta_control.h"

namespace bctidta {

namespace {

// Buffer of a task unless a test asks for another: a few seconds of a
// broadcast stream.
const uint32_t kDefaultBufferBytes = 1024 * 1024;
// Largest single fetch from the transport.
const uint32_t kDefaultChunkBytes = 64 * 1024;

struct Task {
    Task(int h, const std::string& u) : handle(h), url(u) {}

    const int handle;
    const std::string url;

    std::mutex mutex;  // guards everything below
    std::condition_variable changed;
    DtaState state = kDtaStateIdle;
    bool startAnswered = false;  // the download thread has tried to open the resource
    int startResult = kDtaOk;
    std::unique_ptr<Source> source;  // used by the download thread only
    // Set (under mutex) when a wait of the transport is no longer wanted: the
    // task closes, or a seek drops the window. Cleared by the download thread
    // before each transport call.
    std::atomic<bool> interrupted{false};
    std::vector<char> ring;          // byte at stream offset o lives at ring[o % ring.size()]
    uint32_t chunkBytes = kDefaultChunkBytes;
    uint32_t chunkDelayMs = 0;
    int64_t windowStart = 0;  // stream offsets of the buffered bytes: [windowStart, windowEnd)
    int64_t windowEnd = 0;
    int64_t readPos = 0;  // windowStart <= readPos <= windowEnd
    int64_t seekTo = -1;  // where the next read starts when outside the window, else -1
    int64_t totalLength = -1;
    bool endReached = false;  // the transport has nothing after windowEnd
    bool failed = false;
    bool restart = false;         // reopen the transport at windowEnd
    uint64_t generation = 0;      // changes whenever the window is dropped
    bool closing = false;
    bool busy = false;  // the download thread has work in hand
    std::thread thread;

    int64_t buffered() const { return windowEnd - readPos; }
    bool atEnd() const {
        return endReached || (totalLength >= 0 && windowEnd >= totalLength);
    }
};

class DtaEngine final : public CBctiDta {
public:
    DtaEngine() : callback_(nullptr), nextHandle_(1), busyCount_(0) {}

    int initEngine(const char* workDir) override {
        detail::count(detail::kCallInitEngine);
        detail::noteInitDirectory(workDir);
        return detail::settings().initEngineResult;
    }

    int uninitEngine() override {
        detail::count(detail::kCallUninitEngine);
        std::map<int, std::shared_ptr<Task>> tasks;
        {
            std::lock_guard<std::mutex> lock(tasksMutex_);
            tasks.swap(tasks_);
        }
        for (auto& entry : tasks) stop(entry.second);
        callback_.store(nullptr);
        return kDtaOk;
    }

    int openUrl(const char* url) override {
        detail::count(detail::kCallOpenUrl);
        detail::Settings s = detail::settings();
        if (s.openUrlForced) return s.openUrlResult;
        if (url == nullptr) return -1;
        std::lock_guard<std::mutex> lock(tasksMutex_);
        int handle = nextHandle_++;
        tasks_[handle] = std::make_shared<Task>(handle, url);
        return handle;
    }

    int startTask(int handle) override {
        detail::count(detail::kCallStartTask);
        std::shared_ptr<Task> task = find(handle);
        if (!task) return kDtaErrHandle;
        detail::Settings s = detail::settings();

        std::unique_lock<std::mutex> lock(task->mutex);
        if (task->state != kDtaStateIdle || task->thread.joinable()) return kDtaErrState;
        task->ring.resize(s.bufferCapacity != 0 ? s.bufferCapacity : kDefaultBufferBytes);
        task->chunkBytes = s.chunkBytes != 0 ? s.chunkBytes : kDefaultChunkBytes;
        task->chunkDelayMs = s.chunkDelayMs;
        setBusy(*task, true);
        task->thread = std::thread(&DtaEngine::download, this, task, s.startTaskResult);
        task->changed.wait(lock, [&task] { return task->startAnswered; });
        const int result = task->startResult;
        if (result != kDtaOk) {
            // The download thread only sends the failure event and ends: a
            // failed start returns once it has, so that no thread of a task
            // that never ran outlives the caller's next step (its exit, say).
            std::thread ended;
            ended.swap(task->thread);
            lock.unlock();
            if (ended.joinable()) ended.join();
        }
        return result;
    }

    int closeTask(int handle) override {
        detail::count(detail::kCallCloseTask);
        std::shared_ptr<Task> task;
        {
            std::lock_guard<std::mutex> lock(tasksMutex_);
            auto it = tasks_.find(handle);
            if (it == tasks_.end()) return kDtaErrHandle;
            task = it->second;
            tasks_.erase(it);
        }
        stop(task);
        return kDtaOk;
    }

    int seekTask(int handle, int origin, int64_t position, int flags) override {
        detail::count(detail::kCallSeekTask);
        detail::noteSeek(handle, origin, position, flags);
        std::shared_ptr<Task> task = find(handle);
        if (!task) return kDtaErrHandle;
        if (origin != 0 || flags != 0 || position < 0) return kDtaErrArgument;

        std::lock_guard<std::mutex> lock(task->mutex);
        if (!started(*task)) return kDtaErrState;
        if (position >= task->windowStart && position <= task->windowEnd) {
            // Still buffered: the transport goes on where it is.
            task->readPos = position;
            task->seekTo = -1;
        } else {
            // The buffer stays until a read needs the new place: a reader
            // that looks at the end and comes back costs no fetch.
            task->seekTo = position;
        }
        task->changed.notify_all();
        return kDtaOk;
    }

    int readData(int handle, char* buffer, uint64_t* count) override {
        detail::enterRead();
        if (count == nullptr || (buffer == nullptr && *count != 0)) return kDtaErrArgument;
        uint64_t wanted = *count;
        *count = 0;
        std::shared_ptr<Task> task = find(handle);
        if (!task) return kDtaErrHandle;

        detail::Settings s = detail::settings();
        if (s.readDelayMs != 0) std::this_thread::sleep_for(std::chrono::milliseconds(s.readDelayMs));
        if (s.readResult != 0) return s.readResult;
        if (s.readLimit != 0) wanted = std::min<uint64_t>(wanted, s.readLimit);

        std::unique_lock<std::mutex> lock(task->mutex);
        if (!started(*task)) return kDtaErrState;
        if (task->seekTo >= 0) {
            // At or past a known end there is nothing to fetch.
            if (task->totalLength >= 0 && task->seekTo >= task->totalLength) return kDtaOk;
            moveWindow(*task, task->seekTo);
        }
        // The buffer never holds more than its size ahead of the reader.
        const uint64_t waitFor = std::min<uint64_t>(wanted, task->ring.size());
        task->changed.wait(lock, [&task, waitFor] {
            return task->closing || task->failed || task->atEnd() ||
                   static_cast<uint64_t>(task->buffered()) >= waitFor;
        });
        if (task->closing) return kDtaErrHandle;
        uint64_t n = std::min<uint64_t>(wanted, static_cast<uint64_t>(task->buffered()));
        if (n == 0 && task->failed) return kDtaErrSource;
        copyOut(*task, buffer, n);
        task->readPos += static_cast<int64_t>(n);
        task->changed.notify_all();  // room for the download thread
        *count = n;
        return kDtaOk;
    }

    int queryTask(int handle, int kind, void* info) override {
        detail::count(detail::kCallQueryTask);
        std::shared_ptr<Task> task = find(handle);
        if (!task) return kDtaErrHandle;
        if (info == nullptr) return kDtaErrArgument;

        if (kind == kDtaInfoTransfer) {
            DtaTransferInfo record;
            std::memset(&record, 0, sizeof(record));
            const bool lengthHidden = detail::settings().lengthHidden;
            std::lock_guard<std::mutex> lock(task->mutex);
            const bool moved = task->seekTo >= 0;
            record.readPosition = moved ? task->seekTo : task->readPos;
            record.totalLength = lengthHidden ? -1 : task->totalLength;
            record.bufferedBytes = moved ? 0 : task->buffered();
            record.bufferPercent = bufferPercent(*task);
            std::memcpy(info, &record, sizeof(record));
            return kDtaOk;
        }
        if (kind == kDtaInfoState) {
            DtaStateInfo record;
            std::memset(&record, 0, sizeof(record));
            detail::Settings s = detail::settings();
            std::lock_guard<std::mutex> lock(task->mutex);
            record.state = s.stateForced ? s.reportedState : task->state;
            std::memcpy(info, &record, sizeof(record));
            return kDtaOk;
        }
        return kDtaErrKind;
    }

    int setEventCallback(DtaEventCallback callback) override {
        detail::count(detail::kCallSetEventCallback);
        callback_.store(callback);
        return kDtaOk;
    }

    bool waitForIdle(uint32_t timeoutMs) {
        std::unique_lock<std::mutex> lock(idleMutex_);
        return idleChanged_.wait_for(lock, std::chrono::milliseconds(timeoutMs),
                                     [this] { return busyCount_ == 0; });
    }

    int taskCount() {
        std::lock_guard<std::mutex> lock(tasksMutex_);
        return static_cast<int>(tasks_.size());
    }

private:
    std::shared_ptr<Task> find(int handle) {
        std::lock_guard<std::mutex> lock(tasksMutex_);
        auto it = tasks_.find(handle);
        return it == tasks_.end() ? nullptr : it->second;
    }

    static bool started(const Task& task) {
        return task.state != kDtaStateIdle && task.state != kDtaStateOpenFailed;
    }

    // Caller holds task.mutex. The window starts afresh at `position`: the
    // transport is interrupted and reopened there, and a failed task tries again.
    static void moveWindow(Task& task, int64_t position) {
        task.windowStart = task.windowEnd = task.readPos = position;
        task.seekTo = -1;
        task.generation++;
        task.restart = true;
        task.interrupted = true;
        task.endReached = false;
        task.failed = false;
        task.state = kDtaStateRunning;
        task.changed.notify_all();
    }

    // Caller holds task.mutex.
    static int32_t bufferPercent(const Task& task) {
        if (task.ring.empty() || task.seekTo >= 0) return 0;
        int64_t target = static_cast<int64_t>(task.ring.size());
        if (task.totalLength >= 0) target = std::min(target, task.totalLength - task.readPos);
        if (target <= 0) return 100;
        return static_cast<int32_t>(std::min<int64_t>(100, task.buffered() * 100 / target));
    }

    // Caller holds task.mutex; the n bytes at readPos are buffered.
    static void copyOut(const Task& task, char* buffer, uint64_t n) {
        if (n == 0) return;  // a read of nothing may come without a buffer
        const uint64_t size = task.ring.size();
        uint64_t at = static_cast<uint64_t>(task.readPos) % size;
        uint64_t first = std::min(n, size - at);
        std::memcpy(buffer, task.ring.data() + at, first);
        std::memcpy(buffer + first, task.ring.data(), n - first);
    }

    // Caller holds task.mutex; room for n bytes at windowEnd.
    static void copyIn(Task& task, const char* data, uint64_t n) {
        const uint64_t size = task.ring.size();
        uint64_t at = static_cast<uint64_t>(task.windowEnd) % size;
        uint64_t first = std::min(n, size - at);
        std::memcpy(task.ring.data() + at, data, first);
        std::memcpy(task.ring.data(), data + first, n - first);
        task.windowEnd += static_cast<int64_t>(n);
        task.windowStart = std::max(task.windowStart, task.windowEnd - static_cast<int64_t>(size));
    }

    // Caller holds task.mutex.
    void setBusy(Task& task, bool busy) {
        if (task.busy == busy) return;
        task.busy = busy;
        std::lock_guard<std::mutex> lock(idleMutex_);
        busyCount_ += busy ? 1 : -1;
        idleChanged_.notify_all();
    }

    void stop(const std::shared_ptr<Task>& task) {
        std::thread thread;
        {
            std::lock_guard<std::mutex> lock(task->mutex);
            task->closing = true;
            task->interrupted = true;
            task->changed.notify_all();
            thread.swap(task->thread);
        }
        if (thread.joinable()) thread.join();
    }

    void send(int32_t event, int32_t param1, int32_t param2, const char* message) {
        DtaEventCallback callback = callback_.load();
        if (callback == nullptr) return;
        detail::count(detail::kCallEventSent);
        callback(this, event, param1, param2, message);
    }

    // Runs on the task's download thread: opens the resource, answers
    // startTask, then fills the buffer until the task is closed.
    void download(std::shared_ptr<Task> task, int forcedResult) {
        pthread_setname_np(pthread_self(), "dta-download");
        int64_t total = -1;
        int rc;
        std::string reason;
        if (forcedResult != 0) {
            rc = forcedResult;
            reason = "start refused";
        } else {
            task->source = makeSource(task->url, task->interrupted);
            rc = task->source ? task->source->open(0, &total) : -EPROTONOSUPPORT;
            if (rc != 0) reason = failureReason(*task, rc);
        }

        std::unique_lock<std::mutex> lock(task->mutex);
        task->startAnswered = true;
        if (rc != 0) {
            task->state = kDtaStateOpenFailed;
            task->startResult = forcedResult != 0 ? forcedResult : kDtaErrSource;
            task->changed.notify_all();
            lock.unlock();
            send(kDtaEventFailed, task->handle, kDtaStateOpenFailed, reason.c_str());
            lock.lock();
            setBusy(*task, false);
            return;
        }
        task->state = kDtaStateRunning;
        task->totalLength = total;
        task->changed.notify_all();
        lock.unlock();
        send(kDtaEventStarted, task->handle, 0, task->url.c_str());
        lock.lock();

        std::vector<char> chunk(task->chunkBytes);
        for (;;) {
            if (task->closing) break;
            const bool full = task->buffered() >= static_cast<int64_t>(task->ring.size());
            if (!task->restart && (task->atEnd() || task->failed || full)) {
                if (task->atEnd() && task->state == kDtaStateRunning) {
                    task->state = kDtaStateFinished;
                    if (task->totalLength < 0) task->totalLength = task->windowEnd;
                    int32_t length = static_cast<int32_t>(static_cast<uint32_t>(task->totalLength));
                    lock.unlock();
                    send(kDtaEventFinished, task->handle, length, task->url.c_str());
                    lock.lock();
                    continue;
                }
                setBusy(*task, false);
                task->changed.wait(lock);
                setBusy(*task, true);
                continue;
            }

            const uint64_t generation = task->generation;
            if (task->restart) {
                task->restart = false;
                task->interrupted = false;
                const int64_t offset = task->windowEnd;
                lock.unlock();
                rc = task->source->open(offset, &total);
                lock.lock();
                if (generation != task->generation) continue;
                if (rc != 0) {
                    fail(*task, lock, rc);
                } else if (total >= 0) {
                    task->totalLength = total;
                }
                continue;
            }

            const uint32_t want = static_cast<uint32_t>(std::min<int64_t>(
                task->chunkBytes, static_cast<int64_t>(task->ring.size()) - task->buffered()));
            const uint32_t delayMs = task->chunkDelayMs;
            task->interrupted = false;
            lock.unlock();
            int64_t n = task->source->fetch(chunk.data(), want);
            lock.lock();
            if (delayMs != 0) {
                task->changed.wait_for(lock, std::chrono::milliseconds(delayMs),
                                       [&task] { return task->closing; });
            }
            if (generation != task->generation || task->closing) continue;
            if (n < 0) {
                fail(*task, lock, static_cast<int>(n));
            } else if (n == 0) {
                // A reader waiting for more than was left learns of the end.
                task->endReached = true;
                task->changed.notify_all();
            } else {
                // A seek back inside the window while the fetch ran may have
                // taken some of the room; what does not fit is fetched again.
                const uint64_t room =
                    static_cast<uint64_t>(static_cast<int64_t>(task->ring.size()) - task->buffered());
                if (static_cast<uint64_t>(n) > room) {
                    n = static_cast<int64_t>(room);
                    task->restart = true;
                }
                copyIn(*task, chunk.data(), static_cast<uint64_t>(n));
                task->changed.notify_all();
            }
        }
        setBusy(*task, false);
    }

    // On the download thread, with task.mutex held through `lock`.
    void fail(Task& task, std::unique_lock<std::mutex>& lock, int rc) {
        task.failed = true;
        task.state = kDtaStateBroken;
        task.changed.notify_all();
        std::string reason = failureReason(task, rc);
        lock.unlock();
        send(kDtaEventFailed, task.handle, kDtaStateBroken, reason.c_str());
        lock.lock();
    }

    // The transport's own words for a failure, else the errno value's.
    static std::string failureReason(const Task& task, int rc) {
        std::string reason = task.source ? task.source->reason() : std::string();
        return reason.empty() ? std::string(std::strerror(-rc)) : reason;
    }

    std::atomic<DtaEventCallback> callback_;

    std::mutex tasksMutex_;  // guards tasks_, nextHandle_
    std::map<int, std::shared_ptr<Task>> tasks_;
    int nextHandle_;

    std::mutex idleMutex_;  // guards busyCount_
    std::condition_variable idleChanged_;
    int busyCount_;  // download threads with work in hand
};

DtaEngine* engine() {
    // Never destroyed: the engine serves until the very end of the process.
    static DtaEngine* instance = new DtaEngine;
    return instance;
}

}  // namespace

namespace control {

bool waitForDownloadsIdle(uint32_t timeoutMs) { return engine()->waitForIdle(timeoutMs); }

int openTaskCount() { return engine()->taskCount(); }

}  // namespace control
}  // namespace bctidta

CBctiDta* CBctiDta::GetInstance() { return bctidta::engine(); }
