#include "velka/DtaFile.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "CBctiDta.h"
#include "EngineTaskThread.h"
#include "EngineWorkDir.h"
#include "LogLine.h"
#include "velka/Assert.h"

namespace velka {

typedef EngineAsyncRequest<DtaFile> DtaAsyncRequest;

// The one worker of all DtaFiles, which also owns the engine's start-up and
// tear-down. Built on first use and never freed; torn down at process exit
// after Playback (LibraryExit.h), from when on it refuses new reads.
class DtaTaskThread : public EngineTaskThread<DtaFile> {
public:
    static DtaTaskThread* instance();

private:
    friend class EngineTaskThread<DtaFile>;  // builds it and registers tearDown()

    DtaTaskThread();
    // At process exit, after Playback: ends the thread, completes what is
    // still queued as cancelled, releases the engine.
    static void tearDown();

    void beginServing() override;
    // One engine read for `request`, unless its file was closed meanwhile.
    VelkaStatus serve(DtaAsyncRequest* request, uint32_t* count) override;
};

namespace {

// Where the engine works; its configuration is copied in when the worker is built.
const char kWorkDir[] = "/tmp/velka";

// How long close() waits for the read in service of its file to end once the
// task is closed. An engine that holds the read longer (a stalled network)
// does not hold close() up: the read completes cancelled when it returns.
const int kCloseGraceMs = 500;

// The engine, set once while the worker is built.
CBctiDta* dtaEngine_ = nullptr;

// The low 32 bits, for the engine's diagnostic lines.
int low32(int64_t value) { return static_cast<int>(static_cast<uint32_t>(value)); }

// Runs on the engine's threads.
int dta_event_handler(CBctiDta* /*engine*/, int32_t event, int32_t param1, int32_t param2,
                      const char* message) {
    logPrint("dta event[%d],param1[%d],param2[%d],message[%s]\n", event, param1, param2,
           message != nullptr ? message : "");
    return 0;
}

}  // namespace

DtaTaskThread* DtaTaskThread::instance() { return theWorker<DtaTaskThread>(); }

DtaTaskThread::DtaTaskThread() {
    prepareEngineWorkDir("/3rd/velka/run/ems.conf", "cp -f /3rd/velka/run/ems.conf /tmp/velka");
    dtaEngine_ = CBctiDta::GetInstance();
    start("DtaTaskThread", dtaEngine_->initEngine(kWorkDir));
}

void DtaTaskThread::tearDown() {
    instance()->stop();
    dtaEngine_->uninitEngine();
    removeEngineWorkDir();
}

void DtaTaskThread::beginServing() { dtaEngine_->setEventCallback(dta_event_handler); }

VelkaStatus DtaTaskThread::serve(DtaAsyncRequest* request, uint32_t* count) {
    int handle;
    {
        Mutex::Autolock lock(mutex_);
        DtaFile* file = request->file;
        if (file == nullptr) return kStatusCancelled;  // closed while this waited for its lock
        if (file->atEnd()) return kStatusEndOfFile;
        handle = file->handle_;
    }

    // Without the queue lock: the engine may hold the read for as long as
    // the network stalls.
    uint64_t n = request->length;
    int ret = dtaEngine_->readData(handle, request->buffer, &n);
    logPrint("dta task handle %ld error %d data %p leng %d read %d\n", static_cast<long>(handle), ret,
           static_cast<void*>(request->buffer), static_cast<int>(request->length),
           low32(static_cast<int64_t>(n)));

    Mutex::Autolock lock(mutex_);
    DtaFile* file = request->file;
    // Closed while the engine held the read: the file may be gone.
    if (file == nullptr) return kStatusCancelled;
    if (ret != 0) return kStatusError;
    // A short count is still a success; the next request continues after it.
    // Nothing at all for a request that wanted bytes is the end of the
    // stream, also of one whose length the engine does not know.
    file->position_ += static_cast<int64_t>(n);
    *count = static_cast<uint32_t>(n);
    return n == 0 && request->length != 0 ? kStatusEndOfFile : kStatusOk;
}

bool DtaFile::atEnd() const {
    const int64_t length = length_;
    return length >= 0 && position_ >= length;
}

DtaFile::DtaFile(const std::string& url)
    : File(url),
      position_(0),
      length_(-1),
      handle_(-1),
      mutex_(std::make_shared<Mutex>()) {}

DtaFile::~DtaFile() {}

int DtaFile::open() {
    DtaTaskThread::instance();
    handle_ = dtaEngine_->openUrl(url_.c_str());
    // On failure the handle stays, so that close() still releases it.
    if (dtaEngine_->startTask(handle_) != 0) return -1;

    DtaTransferInfo info;
    memset(&info, 0, sizeof(info));
    // An engine that cannot answer may leave the record unfilled: the length
    // then stays unknown (-1) rather than becoming 0.
    info.totalLength = -1;
    int ret = dtaEngine_->queryTask(handle_, kDtaInfoTransfer, &info);
    length_ = info.totalLength;
    logPrint("dta open handle %ld error %d length %d\n", static_cast<long>(handle_), ret,
           low32(length_));
    return 0;
}

// No completion of this file comes after close() returns, but for a read
// that the engine still holds after the grace below: its queued requests
// complete cancelled here, and a request in service (which the closed task
// makes fail) is waited for a moment.
int DtaFile::close() {
    logPrint("DtaFile close\n");
    const int handle = handle_;
    if (handle != -1) {
        logPrint("DtaFile close1111\n");
        DtaTaskThread* worker = DtaTaskThread::instance();
        const std::vector<DtaAsyncRequest*> queued = worker->beginClose(this);
        // Closing the task also ends an engine read of it that is waiting for data.
        dtaEngine_->closeTask(handle);
        logPrint("dta close handle %ld\n", static_cast<long>(handle));
        worker->letGo(this, kCloseGraceMs, queued);
        handle_ = -1;
        worker->endClose(this);
    }
    logPrint("DtaFile close success\n");
    return 0;
}

int DtaFile::read(char* buffer, uint32_t length) {
    VELKA_ASSERT(handle_ != -1);
    Mutex::Autolock lock(*mutex_);
    if (atEnd()) return 0;

    const int handle = handle_;
    uint64_t count = length;
    // Blocks this caller, with mutex_ held, for as long as the engine takes.
    int ret = dtaEngine_->readData(handle, buffer, &count);
    logPrint("dta read handle %ld error %d length %d read %d\n", static_cast<long>(handle), ret,
           static_cast<int>(length), low32(static_cast<int64_t>(count)));
    if (ret != 0) return -1;
    position_ += static_cast<int64_t>(count);
    return static_cast<int>(count);
}

void* DtaFile::readAsync(char* buffer, uint32_t length, AsyncCallback& callback) {
    VELKA_ASSERT(handle_ != -1);
    return DtaTaskThread::instance()->enqueue(this, buffer, length, callback);
}

// Only the worker's queue is looked at: the file's mutex_ may be held by the
// worker through an engine read that waits for the network, and the engine's
// stop cancels its reads while that read stalls.
int DtaFile::cancel(void* request) {
    VELKA_ASSERT(handle_ != -1);
    return DtaTaskThread::instance()->cancel(request);
}

// Positions past the end are clamped to length_ - 1; kSeekCurrent may still
// land on length_, and kSeekEnd with offset 0 gives length_. Every seek, a
// clamped one too, tells the engine where the next read starts, so the
// position never leaves [0, length_] and the next read gives the bytes there.
// With the length unknown (-1), seeks from the start or the current position
// land where asked (never below 0) and a seek from the end fails with -1.
// Under mutex_, so that a seek never falls between a read's engine call and
// its position update.
int64_t DtaFile::seek(int64_t offset, Whence whence) {
    Mutex::Autolock lock(*mutex_);
    const int64_t length = length_;
    const int64_t position = position_;
    int64_t target;
    if (whence == kSeekSet) {
        if (offset > 0) {
            target = offset < length || length < 0 ? offset : length - 1;
        } else {
            target = 0;
        }
    } else if (whence == kSeekCurrent) {
        if (offset > 0) {
            int64_t sum;
            const bool overflow = __builtin_add_overflow(position, offset, &sum);
            if (length < 0) {
                if (overflow) return -1;
                target = sum;
            } else {
                target = !overflow && sum <= length ? sum : length - 1;
            }
        } else {
            target = position + offset;  // position_ >= 0, so this cannot overflow
            if (target < 0) target = 0;
        }
    } else {  // kSeekEnd, and every other origin
        if (length < 0) return -1;
        if (offset > 0) {
            target = length - 1;
        } else {
            target = offset < -length ? 0 : length + offset;
        }
    }
    // An empty stream has no last byte to clamp to.
    if (target < 0) target = 0;
    position_ = target;

    const int handle = handle_;
    int ret = dtaEngine_->seekTask(handle, 0, target, 0);
    logPrint("dta seek handle %ld error %d pos %d\n", static_cast<long>(handle), ret, low32(target));
    return target;
}

int64_t DtaFile::tell() { return position_; }

int64_t DtaFile::length() { return length_; }

int64_t DtaFile::available() {
    const int64_t length = length_;
    const int64_t position = position_;
    logPrint("DtaFile::available [%lld][%lld]\n", static_cast<long long>(length),
           static_cast<long long>(position));
    // Unknown length: nothing can be told.
    if (length < 0) return -1;
    return length - position;
}

int DtaFile::cachePercent() {
    const int handle = handle_;
    if (handle <= 0) return 0;
    DtaTransferInfo info;
    memset(&info, 0, sizeof(info));
    int ret = dtaEngine_->queryTask(handle, kDtaInfoTransfer, &info);
    const int percent = info.bufferPercent;
    logPrint("dta handle %ld error %d percent %d\n", static_cast<long>(handle), ret, percent);
    return percent;
}

// Engine states 3 and 4 become the error codes 5 and 6 of the player's error
// event; every other state (also any above 4) is no error.
int DtaFile::error() {
    const int handle = handle_;
    if (handle <= 0) return 0;
    DtaStateInfo info;
    memset(&info, 0, sizeof(info));
    int ret = dtaEngine_->queryTask(handle, kDtaInfoState, &info);
    const int state = info.state;
    logPrint("dta handle %ld error %d percent %d\n", static_cast<long>(handle), ret, state);
    switch (static_cast<uint32_t>(state)) {
        case 3:
            return 5;
        case 4:
            return 6;
        default:
            return 0;
    }
}

}  // namespace velka
