// The peer-to-peer engine: each started task downloads its stream piece by
// piece into the engine's store on a download thread of its own, readers take
// whatever the store holds, and one event thread hands progress to the
// listener.
//
// Locks: the one engine mutex_ guards the task table, every task's state and
// store, the event queue and the download settings. Sources are read, the
// listener is called and threads are joined with it released, so a listener
// may call the engine and a stop never waits for a lock its thread holds.

#include <pthread.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <new>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "ControlState.h"
#include "Source.h"
#include "ems.h"
#include "ems_control.h"

namespace ems {

namespace {

using control::Call;
using Clock = std::chrono::steady_clock;

// The unit of download: small, so that a limited rate shows as a steady
// trickle of pieces.
const uint32_t kPieceBytes = 16 * 1024;
// What a task downloads before it reports "buffering done" and "playing".
const int64_t kStartupBufferBytes = 256 * 1024;

struct Task {
    Task(int i, const std::string& u) : index(i), url(u) {}

    const int index;
    const std::string url;
    std::atomic<bool> cancel{false};  // set once to end the download, also mid-piece

    // Guarded by the engine's mutex_.
    int32_t state = EMS_TASK_ADDED;
    bool starting = false;  // ems_start_task() is opening the stream
    int64_t length = -1;
    std::vector<char> store;      // the whole stream, filled piece by piece
    std::set<int64_t> missing;    // pieces not yet in the store
    int64_t downloaded = 0;       // bytes in the store
    int64_t wanted = 0;           // where the last read asked: the download goes on from there
    bool active = false;          // the download thread has work in hand
    bool startupReported = false; // "buffering done" and "playing" have been sent
    int bufferingPercent = -1;    // last percentage sent
    std::unique_ptr<Source> source;  // used by the download thread once started
    std::thread thread;
};

uint64_t rateFromEnvironment() {
    const char* text = std::getenv("EMS_DOWNLOAD_RATE");
    if (text == nullptr || *text == '\0') return 0;
    char* end = nullptr;
    unsigned long long value = std::strtoull(text, &end, 10);
    return *end == '\0' ? value : 0;
}

class Engine {
public:
    Engine() : rate_(rateFromEnvironment()) {}

    int init(const char* workDir) {
        struct stat st;
        if (workDir == nullptr || stat(workDir, &st) != 0 || !S_ISDIR(st.st_mode)) {
            return EMS_ERR_ARGUMENT;
        }
        detail::noteInitDirectory(workDir);
        return EMS_OK;
    }

    int uninit() {
        std::map<int, std::shared_ptr<Task>> tasks;
        std::thread events;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            if (eventThread_.get_id() == std::this_thread::get_id()) return EMS_ERR_STATE;
            tasks.swap(tasks_);
        }
        for (auto& entry : tasks) stop(*entry.second, EMS_TASK_STOPPED);
        {
            std::lock_guard<std::mutex> lock(mutex_);
            eventsEnding_ = true;  // the event thread delivers what is queued, then ends
            changed_.notify_all();
            events.swap(eventThread_);
        }
        if (events.joinable()) events.join();
        listener_.store(nullptr);
        return EMS_OK;
    }

    int setListener(ems_event_listener listener) {
        listener_.store(listener);
        return EMS_OK;
    }

    int addTask(const char* url) {
        if (url == nullptr) return EMS_ERR_ARGUMENT;
        std::lock_guard<std::mutex> lock(mutex_);
        const int index = nextIndex_++;
        tasks_[index] = std::make_shared<Task>(index, url);
        return index;
    }

    int startTask(int index) {
        std::shared_ptr<Task> task;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            task = find(index);
            if (!task) return EMS_ERR_TASK;
            if (task->state != EMS_TASK_ADDED || task->starting) return EMS_ERR_STATE;
            task->starting = true;
        }
        // Opening may take a while (a connection): no lock held.
        std::unique_ptr<Source> source = makeSource(task->url);
        int64_t length = -1;
        const int rc = source ? source->open(&length) : -EPROTONOSUPPORT;

        std::lock_guard<std::mutex> lock(mutex_);
        task->starting = false;
        if (task->cancel) return EMS_ERR_STATE;  // stopped or deleted meanwhile
        post(*task, EMS_EVENT_CONNECTING, 0);
        if (rc == 0) {
            try {
                task->store.resize(static_cast<size_t>(length));
            } catch (const std::bad_alloc&) {
                task->state = EMS_TASK_BROKEN;
                post(*task, EMS_EVENT_STORAGE_FAILED, 0);
                return EMS_ERR_SOURCE;
            }
        } else {
            task->state = EMS_TASK_BROKEN;
            post(*task, EMS_EVENT_URL_NOT_FOUND, 0);
            return EMS_ERR_SOURCE;
        }
        for (int percent : {0, 50, 100}) post(*task, EMS_EVENT_REQUESTING_MEDIA_INFO, percent);
        post(*task, EMS_EVENT_MEDIA_INFO_OK, 0);
        task->length = length;
        for (int64_t piece = 0; piece * kPieceBytes < length; ++piece) {
            task->missing.insert(task->missing.end(), piece);
        }
        task->state = EMS_TASK_DOWNLOADING;
        task->source = std::move(source);
        task->active = true;
        task->thread = std::thread(&Engine::download, this, task);
        // Named here rather than by the thread, so that the name is there on return.
        pthread_setname_np(task->thread.native_handle(), "ems-download");
        return EMS_OK;
    }

    int stopTask(int index) {
        std::shared_ptr<Task> task;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            task = find(index);
            if (!task) return EMS_ERR_TASK;
        }
        stop(*task, EMS_TASK_STOPPED);
        return EMS_OK;
    }

    int delTask(int index) {
        std::shared_ptr<Task> task;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            auto it = tasks_.find(index);
            if (it == tasks_.end()) return EMS_ERR_TASK;
            task = it->second;
            tasks_.erase(it);
        }
        stop(*task, EMS_TASK_STOPPED);
        return EMS_OK;
    }

    int getStatus(int index, ems_task_status* status) {
        if (status == nullptr) return EMS_ERR_ARGUMENT;
        std::lock_guard<std::mutex> lock(mutex_);
        std::shared_ptr<Task> task = find(index);
        if (!task) return EMS_ERR_TASK;
        ems_task_status record;
        memset(&record, 0, sizeof record);
        record.downloaded = task->downloaded;
        record.total_length = task->length;
        record.state = task->state;
        record.percent = task->length > 0 ? static_cast<int32_t>(task->downloaded * 100 / task->length)
                         : task->length == 0 ? 100
                                             : 0;
        memcpy(status, &record, sizeof record);
        return EMS_OK;
    }

    int readData(int index, char* buffer, uint32_t count, int64_t position) {
        if ((buffer == nullptr && count != 0) || position < 0) return EMS_ERR_ARGUMENT;
        std::lock_guard<std::mutex> lock(mutex_);
        std::shared_ptr<Task> task = find(index);
        if (!task) return EMS_ERR_TASK;
        if (task->state == EMS_TASK_ADDED || task->state == EMS_TASK_STOPPED) return EMS_ERR_STATE;
        if (task->length < 0) return EMS_ERR_SOURCE;  // it never started
        if (position >= task->length) return 0;
        if (task->wanted != position) {
            task->wanted = position;
            changed_.notify_all();
        }
        const int64_t end =
            std::min(task->length, position + std::min<int64_t>(count, INT_MAX));
        int64_t at = position;
        while (at < end) {
            const int64_t piece = at / kPieceBytes;
            if (task->missing.count(piece) != 0) break;
            const int64_t n = std::min(end, (piece + 1) * kPieceBytes) - at;
            memcpy(buffer + (at - position), task->store.data() + at, static_cast<size_t>(n));
            at += n;
        }
        if (at == position && task->state == EMS_TASK_BROKEN) return EMS_ERR_SOURCE;
        return static_cast<int>(at - position);
    }

    // Control.
    void setRate(uint64_t bytesPerSecond) {
        std::lock_guard<std::mutex> lock(mutex_);
        rate_ = bytesPerSecond;
        changed_.notify_all();
    }

    void setPaused(bool paused) {
        std::lock_guard<std::mutex> lock(mutex_);
        paused_ = paused;
        changed_.notify_all();
    }

    bool inject(int index, int32_t type, int32_t param, uint32_t timeoutMs) {
        std::unique_lock<std::mutex> lock(mutex_);
        if (listener_.load() == nullptr) return false;
        const ems_event event = {type, param, 0, 0};
        const uint64_t ticket = post(index, event);
        return changed_.wait_for(lock, std::chrono::milliseconds(timeoutMs),
                                 [this, ticket] { return delivered_ >= ticket; });
    }

    bool waitForIdle(uint32_t timeoutMs) {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_for(lock, std::chrono::milliseconds(timeoutMs), [this] {
            for (auto& entry : tasks_) {
                if (entry.second->active) return false;
            }
            return events_.empty() && !delivering_;
        });
    }

    int taskCount() {
        std::lock_guard<std::mutex> lock(mutex_);
        return static_cast<int>(tasks_.size());
    }

private:
    struct QueuedEvent {
        int taskIndex;
        ems_event event;
    };

    // Caller holds mutex_.
    std::shared_ptr<Task> find(int index) {
        auto it = tasks_.find(index);
        return it == tasks_.end() ? nullptr : it->second;
    }

    // Ends the task's download and waits for its thread. Caller holds no lock.
    void stop(Task& task, int32_t state) {
        std::thread thread;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            task.cancel = true;
            task.state = state;
            changed_.notify_all();
            thread.swap(task.thread);
        }
        if (thread.joinable()) thread.join();
    }

    // Caller holds mutex_. Queues an event for the event thread, which is
    // started on first need; the ticket of the event.
    uint64_t post(int taskIndex, const ems_event& event) {
        events_.push_back({taskIndex, event});
        if (!eventThread_.joinable()) {
            eventsEnding_ = false;
            eventThread_ = std::thread(&Engine::deliverEvents, this);
            pthread_setname_np(eventThread_.native_handle(), "ems-events");
        }
        changed_.notify_all();
        return ++queued_;
    }

    void post(const Task& task, int32_t type, int32_t param) {
        const ems_event event = {type, param, static_cast<int32_t>(task.downloaded / 1024), 0};
        post(task.index, event);
    }

    // Runs on the event thread: one event at a time, in order, no lock held
    // while the listener runs.
    void deliverEvents() {
        std::unique_lock<std::mutex> lock(mutex_);
        for (;;) {
            changed_.wait(lock, [this] { return eventsEnding_ || !events_.empty(); });
            if (events_.empty()) return;
            const QueuedEvent next = events_.front();
            events_.pop_front();
            delivering_ = true;
            lock.unlock();
            const ems_event_listener listener = listener_.load();
            if (listener != nullptr) listener(next.taskIndex, next.event);
            lock.lock();
            delivering_ = false;
            ++delivered_;
            changed_.notify_all();
        }
    }

    // Caller holds mutex_. The piece to fetch next: the first missing one from
    // where the reader is, else the first missing one; -1 when none is.
    static int64_t nextPiece(const Task& task) {
        if (task.missing.empty()) return -1;
        auto it = task.missing.lower_bound(task.wanted / kPieceBytes);
        return it != task.missing.end() ? *it : *task.missing.begin();
    }

    // Caller holds mutex_. The start-up progress: buffering percentages of
    // the first kStartupBufferBytes, then "buffering done" and "playing".
    void reportStartup(Task& task) {
        if (task.startupReported) return;
        const int64_t target = std::min(task.length, kStartupBufferBytes);
        const int percent =
            target == 0 ? 100 : static_cast<int>(std::min<int64_t>(100, task.downloaded * 100 / target));
        if (percent != task.bufferingPercent) {
            task.bufferingPercent = percent;
            post(task, EMS_EVENT_BUFFERING, percent);
        }
        if (percent == 100) {
            task.startupReported = true;
            post(task, EMS_EVENT_BUFFERING_DONE, 0);
            post(task, EMS_EVENT_PLAYING, 0);
        }
    }

    // Runs on the task's download thread until the store is full, the task
    // is stopped or the stream cannot be read.
    void download(std::shared_ptr<Task> task) {
        std::vector<char> piece(kPieceBytes);
        std::unique_lock<std::mutex> lock(mutex_);
        reportStartup(*task);
        while (!task->cancel) {
            if (paused_) {
                changed_.wait(lock);
                continue;
            }
            const int64_t next = nextPiece(*task);
            if (next < 0) {
                task->state = EMS_TASK_COMPLETE;
                break;
            }
            const int64_t offset = next * kPieceBytes;
            const uint32_t n = static_cast<uint32_t>(std::min<int64_t>(kPieceBytes, task->length - offset));
            lock.unlock();
            const int64_t rc = task->source->readAt(piece.data(), n, offset, task->cancel);
            lock.lock();
            if (task->cancel) break;
            if (rc < 0) {
                task->state = EMS_TASK_BROKEN;
                post(*task, EMS_EVENT_WAIT_DATA_TIMEOUT, 0);
                break;
            }
            memcpy(task->store.data() + offset, piece.data(), n);
            task->missing.erase(next);
            task->downloaded += n;
            reportStartup(*task);
            changed_.notify_all();
            if (rate_ != 0) {
                const auto pause = std::chrono::microseconds(n * 1000000ull / rate_);
                changed_.wait_until(lock, Clock::now() + pause, [&task] { return task->cancel.load(); });
            }
        }
        task->active = false;
        changed_.notify_all();
    }

    std::atomic<ems_event_listener> listener_{nullptr};

    std::mutex mutex_;
    std::condition_variable changed_;  // any change below, a delivered event, a new setting
    std::map<int, std::shared_ptr<Task>> tasks_;
    int nextIndex_ = 0;
    uint64_t rate_;        // bytes per second of each download, 0 = unlimited
    bool paused_ = false;  // no piece is fetched while set

    std::deque<QueuedEvent> events_;
    uint64_t queued_ = 0;     // events ever queued: the last ticket
    uint64_t delivered_ = 0;  // events handed to the listener (or dropped without one)
    bool delivering_ = false;
    bool eventsEnding_ = false;
    std::thread eventThread_;
};

Engine& engine() {
    // Never destroyed: tasks and threads may outlive every static destructor.
    static Engine* instance = new Engine;
    return *instance;
}

}  // namespace

namespace detail {

void resetDownloadSettings() {
    engine().setRate(rateFromEnvironment());
    engine().setPaused(false);
}

}  // namespace detail

namespace control {

void setDownloadRate(uint64_t bytesPerSecond) { engine().setRate(bytesPerSecond); }
void pauseDownloads(bool paused) { engine().setPaused(paused); }
bool injectEvent(int taskIndex, int32_t type, int32_t param, uint32_t timeoutMs) {
    return engine().inject(taskIndex, type, param, timeoutMs);
}
bool waitForDownloadsIdle(uint32_t timeoutMs) { return engine().waitForIdle(timeoutMs); }
int taskCount() { return engine().taskCount(); }

}  // namespace control
}  // namespace ems

extern "C" {

int ems_init(const char* work_dir) {
    int forced;
    if (ems::detail::enter(ems::control::kInit, -1, &forced)) return forced;
    return ems::engine().init(work_dir);
}

int ems_uninit(void) {
    int forced;
    if (ems::detail::enter(ems::control::kUninit, -1, &forced)) return forced;
    return ems::engine().uninit();
}

int ems_event_listener_func(ems_event_listener listener) {
    int forced;
    if (ems::detail::enter(ems::control::kListener, -1, &forced)) return forced;
    return ems::engine().setListener(listener);
}

int ems_add_task(const char* url, int /*mode*/, int /*options*/) {
    int forced;
    if (ems::detail::enter(ems::control::kAddTask, -1, &forced)) return forced;
    return ems::engine().addTask(url);
}

int ems_start_task(int task_index, int /*options*/) {
    int forced;
    if (ems::detail::enter(ems::control::kStartTask, task_index, &forced)) return forced;
    return ems::engine().startTask(task_index);
}

int ems_stop_task(int task_index) {
    int forced;
    if (ems::detail::enter(ems::control::kStopTask, task_index, &forced)) return forced;
    return ems::engine().stopTask(task_index);
}

int ems_del_task(int task_index) {
    int forced;
    if (ems::detail::enter(ems::control::kDelTask, task_index, &forced)) return forced;
    return ems::engine().delTask(task_index);
}

int ems_get_task_status(int task_index, struct ems_task_status* status) {
    int forced;
    if (ems::detail::enter(ems::control::kGetTaskStatus, task_index, &forced)) return forced;
    return ems::engine().getStatus(task_index, status);
}

int ems_readdata(int task_index, char* buffer, uint32_t count, int64_t position, int64_t* hint) {
    ems::detail::noteRead(task_index, count, position, hint);
    int forced;
    if (ems::detail::enter(ems::control::kReadData, task_index, &forced)) return forced;
    return ems::engine().readData(task_index, buffer, count, position);
}

}  // extern "C"
