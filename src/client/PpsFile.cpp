#include "velka/PpsFile.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "EngineTaskThread.h"
#include "EngineWorkDir.h"
#include "LogLine.h"
#include "ems.h"
#include "velka/Assert.h"

namespace velka {

// The engine's event listener; runs on the engine's threads.
int ems_event_handler(int taskIndex, ems_event event);

typedef EngineAsyncRequest<PpsFile> PpsAsyncRequest;

// The one worker of all PpsFiles, which also owns the engine's start-up and
// tear-down. Built on first use and never freed; torn down at process exit
// after Playback (LibraryExit.h), from when on it refuses new reads.
class PpsTaskThread : public EngineTaskThread<PpsFile> {
public:
    static PpsTaskThread* instance();

private:
    friend class EngineTaskThread<PpsFile>;  // builds it and registers tearDown()

    PpsTaskThread();
    // At process exit, after Playback: ends the thread, completes what is
    // still queued as cancelled, releases the engine.
    static void tearDown();

    // One engine read for `request`.
    VelkaStatus serve(PpsAsyncRequest* request, uint32_t* count) override;
};

// The task status record as the engine fills it: 24 bytes, the total length
// at bytes 8-15.
typedef ems_task_status PpsTaskStatus;
static_assert(sizeof(PpsTaskStatus) == 24, "the engine fills 24 bytes");
static_assert(__builtin_offsetof(PpsTaskStatus, total_length) == 8, "total length at byte 8");

namespace {

// Where the engine works; its configuration is copied in when the worker is built.
const char kWorkDir[] = "/tmp/velka";

// What every read passes the engine in its last argument; the engine's
// meaning of it is its own.
const int64_t kReadHint = 15;

// Written by the event listener on the engine's threads, read without a lock
// by every PpsFile: the last buffering percentage (close() resets it) and the
// last error code (never reset).
std::atomic<int> ppsCachePercent_(0);
std::atomic<int> ppsErrorCode_(0);

// What an engine event does besides its line.
enum EventEffect {
    kEffectNone,
    kEffectCachePercent,  // ppsCachePercent_ = the event's parameter
    kEffectCacheFull,     // ppsCachePercent_ = 100
    kEffectStop,          // stop the event's task
    kEffectStopError2,    // ppsErrorCode_ = 2, stop the event's task
    kEffectStopError4,    // ppsErrorCode_ = 4, stop the event's task
};

struct EventRow {
    const char* text;           // after "[ems_callback]: "
    const char* percentSuffix;  // non-null: the line is text, the parameter, "%", this
    EventEffect effect;
};

// Indexed by the event type. Several lines end in a blank, as the engine's
// own documentation words them.
const EventRow kEventRows[] = {
    {"server connecting timeout.", nullptr, kEffectStopError2},  // 0
    {"can not find server. ", nullptr, kEffectNone},
    {"no response from server. ", nullptr, kEffectNone},
    {"server invalid. ", nullptr, kEffectNone},
    {"client version too low. ", nullptr, kEffectNone},
    {"client name error.", nullptr, kEffectNone},  // 5
    {"url not found.", nullptr, kEffectNone},
    {"service does not exist.", nullptr, kEffectNone},
    {"out of service area.", nullptr, kEffectNone},
    {"loading media info error.", nullptr, kEffectNone},
    {"index info error.", nullptr, kEffectNone},  // 10
    {"no index.", nullptr, kEffectNone},
    {"no media found.", nullptr, kEffectNone},
    {"multi instance running.", nullptr, kEffectNone},
    {"preparing media info ", ".", kEffectNone},
    {"requesting media info ", ".", kEffectNone},  // 15
    {"requesting index info ", ".", kEffectNone},
    {"playing.", nullptr, kEffectNone},
    {"buffering ", "...", kEffectCachePercent},
    {"connecting to server...", nullptr, kEffectNone},
    {"media is ready.", nullptr, kEffectNone},  // 20
    {"parsing server info.", nullptr, kEffectNone},
    {"get media info successfully.", nullptr, kEffectNone},
    {"buffing done.", nullptr, kEffectCacheFull},
    {"prepare media.", nullptr, kEffectNone},
    {"access storage failed.", nullptr, kEffectNone},  // 25
    {"Quit progress!", nullptr, kEffectStop},
    {"Wait data timeout!", nullptr, kEffectStopError4},
    {"updating ", "...", kEffectNone},
    {"updating failed", nullptr, kEffectStopError2},
    {"updating successed", nullptr, kEffectNone},  // 30
};
const int kEventTypes = static_cast<int>(sizeof kEventRows / sizeof kEventRows[0]);
static_assert(sizeof kEventRows / sizeof kEventRows[0] == 31, "event types 0 to 30");

}  // namespace

int ems_event_handler(int taskIndex, ems_event event) {
    const int type = event.type;
    if (type < 0 || type >= kEventTypes) {
        logPuts("[ems_callback]: unknown event.");
        return 0;
    }
    const EventRow& row = kEventRows[type];
    if (row.percentSuffix != nullptr) {
        logPrint("[ems_callback]: %s%d%%%s\n", row.text, event.param, row.percentSuffix);
    } else {
        logPrint("[ems_callback]: %s\n", row.text);
    }
    // An event of no particular task changes nothing.
    if (taskIndex < 0) return 0;
    switch (row.effect) {
        case kEffectNone:
            break;
        case kEffectCachePercent:
            ppsCachePercent_ = event.param;
            break;
        case kEffectCacheFull:
            ppsCachePercent_ = 100;
            break;
        case kEffectStopError2:
        case kEffectStopError4:
            ppsErrorCode_ = row.effect == kEffectStopError2 ? 2 : 4;
            ems_stop_task(taskIndex);
            break;
        case kEffectStop:
            ems_stop_task(taskIndex);
            break;
    }
    return 0;
}

PpsTaskThread* PpsTaskThread::instance() { return theWorker<PpsTaskThread>(); }

PpsTaskThread::PpsTaskThread() {
    prepareEngineWorkDir("/3rd/velka/ems.conf", "cp -f /3rd/velka/ems.conf /tmp/velka");
    const int initResult = ems_init(kWorkDir);
    ems_event_listener_func(ems_event_handler);
    start("PpsTaskThread", initResult);
}

void PpsTaskThread::tearDown() {
    instance()->stop();
    ems_uninit();
    removeEngineWorkDir();
}

VelkaStatus PpsTaskThread::serve(PpsAsyncRequest* request, uint32_t* count) {
    PpsFile* file = request->file;
    if (file->position_ == file->length_) return kStatusEndOfFile;

    const int taskIndex = file->taskIndex_;
    int64_t hint = kReadHint;
    const int ret = ems_readdata(taskIndex, request->buffer, request->length, file->position_, &hint);
    logPrint("task index %d data %p leng %d ret %d\n", taskIndex,
           static_cast<void*>(request->buffer), static_cast<int>(request->length), ret);
    if (ret < 0) return kStatusError;
    // 0: that part has not arrived yet; the caller asks again later.
    file->position_ += ret;
    *count = static_cast<uint32_t>(ret);
    return kStatusOk;
}

PpsFile::PpsFile(const std::string& url)
    : File(url), position_(0), length_(-1), taskIndex_(-1), error_(0),
      mutex_(std::make_shared<Mutex>()) {}

PpsFile::~PpsFile() {}

int PpsFile::open() {
    PpsTaskThread::instance();
    const int taskIndex = ems_add_task(url_.c_str(), 0, 0);
    if (taskIndex < 0) {
        logPuts("------Add task failed!");
        return -1;
    }
    logPrint("open task index %d\n", taskIndex);
    if (ems_start_task(taskIndex, 0) < 0) {
        logPrint("------Can not start task %d!\n", taskIndex);
        // A task that did not start is not left behind.
        ems_stop_task(taskIndex);
        ems_del_task(taskIndex);
        return -1;
    }
    taskIndex_ = taskIndex;

    PpsTaskStatus status;
    memset(&status, 0, sizeof status);
    if (ems_get_task_status(taskIndex, &status) == 0) {
        length_ = status.total_length;
    } else {
        logPuts("------Can not get task info!");
    }
    logPrint("file length %lld\n", static_cast<long long>(length_));
    return 0;
}

int PpsFile::close() {
    logPrint("close task index %d\n", taskIndex_.load());
    Mutex::Autolock lock(*mutex_);
    const int taskIndex = taskIndex_;
    if (taskIndex != -1) {
        ems_stop_task(taskIndex);
        ems_del_task(taskIndex);
        taskIndex_ = -1;
    }
    ppsCachePercent_ = 0;
    return 0;
}

int PpsFile::read(char* buffer, uint32_t length) {
    VELKA_ASSERT(taskIndex_ != -1);
    Mutex::Autolock lock(*mutex_);
    if (position_ == length_) return 0;
    int64_t hint = kReadHint;
    // 0 when that part has not arrived yet: the engine never waits.
    const int ret = ems_readdata(taskIndex_, buffer, length, position_, &hint);
    if (ret > 0) position_ += ret;
    return ret;
}

void* PpsFile::readAsync(char* buffer, uint32_t length, AsyncCallback& callback) {
    VELKA_ASSERT(taskIndex_ != -1);
    return PpsTaskThread::instance()->enqueue(this, buffer, length, callback);
}

int PpsFile::cancel(void* request) {
    Mutex::Autolock lock(*mutex_);
    VELKA_ASSERT(taskIndex_ != -1);
    return PpsTaskThread::instance()->cancel(request);
}

// The result always lies within 0 and length_ (the end itself included). The
// engine is not told: every read carries its position.
int64_t PpsFile::seek(int64_t offset, Whence whence) {
    Mutex::Autolock lock(*mutex_);
    VELKA_ASSERT(taskIndex_ != -1);
    const int64_t length = length_;
    // With the length unknown (-1) there is nothing to clamp to: seeks from
    // the start or the current position land where asked (never below 0),
    // and a seek from the end fails with -1, leaving the position.
    const bool known = length >= 0;
    int64_t target;
    if (whence == kSeekSet) {
        if (offset > 0) {
            target = known && offset > length ? length : offset;
        } else {
            target = 0;
        }
    } else if (whence == kSeekCurrent) {
        if (offset > 0) {
            int64_t sum;
            const bool overflow = __builtin_add_overflow(position_, offset, &sum);
            if (!known && overflow) return -1;
            target = known && (overflow || sum > length) ? length : sum;
        } else {
            target = position_ + offset;  // position_ >= 0, so this cannot overflow
            if (target < 0) target = 0;
        }
    } else if (!known) {
        return -1;
    } else {  // kSeekEnd, and every other origin
        if (offset > 0) {
            target = length;
        } else {
            target = offset < -length ? 0 : length + offset;
        }
    }
    position_ = target;
    return target;
}

int64_t PpsFile::tell() {
    Mutex::Autolock lock(*mutex_);
    VELKA_ASSERT(taskIndex_ != -1);
    return position_;
}

int64_t PpsFile::length() {
    Mutex::Autolock lock(*mutex_);
    VELKA_ASSERT(taskIndex_ != -1);
    return length_;
}

int64_t PpsFile::available() {
    Mutex::Autolock lock(*mutex_);
    VELKA_ASSERT(taskIndex_ != -1);
    // Unknown length: nothing can be told.
    if (length_ < 0) return -1;
    return length_ - position_;
}

int PpsFile::cachePercent() { return ppsCachePercent_; }

int PpsFile::error() {
    error_ = ppsErrorCode_.load();
    return error_;
}

}  // namespace velka
