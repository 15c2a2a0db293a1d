// The pull callbacks and the completion of asynchronous reads.

#include "PullSource.h"

#include <algorithm>
#include <condition_variable>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <map>
#include <mutex>
#include <new>
#include <string>

#include "velka/Assert.h"
#include "velka/FileFactory.h"
#include "LogLine.h"
#include "velka/LocalFile.h"

namespace velka {

namespace {

// The source a callback answers from (see PullSource.h).
File* sourceOf(IMTK_PULL_HANDLE_T hPullSrc) {
    File* file = tempFile_;
    return file != nullptr ? file : reinterpret_cast<File*>(hPullSrc);
}

// How many leading bytes of a read buffer the read line shows.
const uint32_t kShownBytes = 4;

// Bounced reads whose completion the engine has not had yet, by request
// handle. A read leaves when its completion is claimed, by complete() or by
// withdraw(), whichever comes first; only the claimer calls the engine. While
// a read is listed its source has not freed its request record, so no two
// listed reads share a handle. Built once and never destroyed: a source may
// complete a late read while the process exits.
struct OwedReads {
    std::mutex mutex;  // guards reads
    std::map<void*, PlaybackCallback*> reads;
};

OwedReads& owedReads() {
    static OwedReads* const owed = new OwedReads;
    return *owed;
}

// Blocking reads of network sources and the engine stops that end them.
// Built once and never destroyed: Playback stops the engine at unload.
struct BlockingReads {
    std::mutex mutex;                  // guards the members and those of every BlockingRead
    std::condition_variable changed;   // a read completed, or a stop began
    int stopping = 0;                  // engine stops and closes under way
    uint64_t stops = 0;                // engine stops and closes begun so far
};

BlockingReads& blockingReads() {
    static BlockingReads* const reads = new BlockingReads;
    return *reads;
}

// One blocking read made asynchronous into a buffer of its own. The waiting
// pb_read frees it, or, when a stop made it give up, the late completion.
class BlockingRead final : public File::AsyncCallback {
public:
    explicit BlockingRead(uint32_t count) : buffer(new (std::nothrow) char[count]) {}

    // On the source's completion thread, possibly before readAsync has returned.
    void complete(VelkaStatus completed, uint32_t bytes) override {
        BlockingReads& reads = blockingReads();
        bool abandoned;
        {
            std::lock_guard<std::mutex> lock(reads.mutex);
            status = completed;
            length = bytes;
            done = true;
            abandoned = this->abandoned;
        }
        // Not abandoned: the waiting pb_read may free it from here on.
        if (abandoned) {
            delete this;
        } else {
            reads.changed.notify_all();
        }
    }

    const std::unique_ptr<char[]> buffer;  // the source's destination
    VelkaStatus status = kStatusError;
    uint32_t length = 0;
    bool done = false;       // complete() has run
    bool abandoned = false;  // pb_read gave up on it
};

// A blocking read of a source that may hold it for as long as the network
// stalls: bytes read, or -1, also when an engine stop began meanwhile.
int readUnlessStopped(File* source, uint8_t* destination, uint32_t count) {
    BlockingReads& reads = blockingReads();
    uint64_t stops;
    {
        std::lock_guard<std::mutex> lock(reads.mutex);
        if (reads.stopping != 0) return -1;
        stops = reads.stops;
    }
    BlockingRead* read = new BlockingRead(count);
    if (read->buffer == nullptr || source->readAsync(read->buffer.get(), count, *read) == nullptr) {
        delete read;
        return -1;
    }
    std::unique_lock<std::mutex> lock(reads.mutex);
    reads.changed.wait(lock, [&] { return read->done || reads.stops != stops; });
    if (!read->done) {
        read->abandoned = true;  // its completion frees it
        return -1;
    }
    lock.unlock();
    int n = -1;
    if (read->status == kStatusOk || read->status == kStatusEndOfFile) {
        const uint32_t length = std::min(read->length, count);
        std::memcpy(destination, read->buffer.get(), length);
        n = static_cast<int>(length);
    }
    delete read;
    return n;
}

}  // namespace

PlaybackCallback::PlaybackCallback(IMtkPb_Ctrl_PullReadAsyncNfy done, void* tag)
    : request_(nullptr),
      handedOff_(0),
      done_(done),
      tag_(tag),
      engineBuffer_(nullptr),
      count_(0) {}

char* PlaybackCallback::bounce(uint8_t* engineBuffer, uint32_t count) {
    bounce_.reset(new (std::nothrow) char[count]);
    engineBuffer_ = engineBuffer;
    count_ = count;
    return bounce_.get();
}

void PlaybackCallback::handOff(void* request) {
    request_ = request;
    if (bounce_) {
        OwedReads& owed = owedReads();
        std::lock_guard<std::mutex> lock(owed.mutex);
        owed.reads[request] = this;
    }
    handedOff_.post();
}

// On an engine thread, inside pb_abort. The callback itself stays for the
// source's late completion, which frees it with its bounce buffer.
bool PlaybackCallback::withdraw(void* request, IMtkPb_Ctrl_PullReadAsyncNfy* done, void** tag) {
    OwedReads& owed = owedReads();
    std::lock_guard<std::mutex> lock(owed.mutex);
    auto it = owed.reads.find(request);
    if (it == owed.reads.end()) return false;
    // Once unlisted, the callback may be gone at any moment.
    *done = it->second->done_;
    *tag = it->second->tag_;
    owed.reads.erase(it);
    return true;
}

// On the source's completion thread, possibly before readAsync has returned.
void PlaybackCallback::complete(VelkaStatus status, uint32_t length) {
    // Deliver only once pb_read_async has stored this request's handle.
    handedOff_.wait();
    logPrint("complete condition %d len %d\n", static_cast<int>(status), static_cast<int>(length));
    void* request = request_;
    if (bounce_) {
        bool claimed = false;
        {
            OwedReads& owed = owedReads();
            std::lock_guard<std::mutex> lock(owed.mutex);
            auto it = owed.reads.find(request);
            if (it != owed.reads.end() && it->second == this) {
                owed.reads.erase(it);
                claimed = true;
            }
        }
        if (!claimed) {
            // The engine had this read completed, cancelled, at its abort.
            delete this;
            return;
        }
        if (status == kStatusOk || status == kStatusEndOfFile) {
            std::memcpy(engineBuffer_, bounce_.get(), std::min(length, count_));
        }
    }
    switch (status) {
        case kStatusOk:
            done_(IMTK_PB_PULL_READ_DONE, tag_, request, length);
            break;
        case kStatusEndOfFile:
            logPrint("file end len %d\n", static_cast<int>(length));
            done_(IMTK_PB_PULL_READ_DONE, tag_, request, length);
            break;
        case kStatusCancelled:
            done_(IMTK_PB_PULL_READ_CANCELLED, tag_, request, 0);
            break;
        default:
            done_(IMTK_PB_PULL_READ_FAILED, tag_, request, 0);
            break;
    }
    logPrint("task complete %p length %d\n", static_cast<void*>(this), static_cast<int>(length));
    delete this;
}

void beginEngineStop() {
    BlockingReads& reads = blockingReads();
    {
        std::lock_guard<std::mutex> lock(reads.mutex);
        reads.stopping++;
        reads.stops++;
    }
    reads.changed.notify_all();
}

void endEngineStop() {
    BlockingReads& reads = blockingReads();
    std::lock_guard<std::mutex> lock(reads.mutex);
    reads.stopping--;
}

IMTK_PB_CB_ERROR_CODE_T pb_open(IMTK_PB_HANDLE_T hHandle, IMTK_PULL_HANDLE_T* phPullSrc,
                                void* pvAppTag) {
    (void)hHandle;
    VELKA_ASSERT(phPullSrc != NULL && pvAppTag != NULL);
    if (tempFile_ != nullptr) {
        logPrint("using tmp file\n");
        // A non-null placeholder; the callbacks use the tmp file.
        *phPullSrc = reinterpret_cast<IMTK_PULL_HANDLE_T>(phPullSrc);
        return IMTK_PB_CB_ERROR_CODE_OK;
    }
    // The tag points to the URL only while Playback::open runs; the new file
    // keeps its own copy.
    File* file = FileFactory::createFile(*static_cast<const std::string*>(pvAppTag));
    if (file->open() != 0) {
        logPrint("pb_open open fail\n");
        delete file;
        return IMTK_PB_CB_ERROR_CODE_NOT_OK;
    }
    logPrint("pb_open success \n");
    *phPullSrc = reinterpret_cast<IMTK_PULL_HANDLE_T>(file);
    return IMTK_PB_CB_ERROR_CODE_OK;
}

IMTK_PB_CB_ERROR_CODE_T pb_close(IMTK_PULL_HANDLE_T hPullSrc, void* pvAppTag) {
    logPrint("pb_close %p %p\n", reinterpret_cast<void*>(hPullSrc), pvAppTag);
    currentTime_ = -1;
    if (tempFile_ != nullptr) {
        // Playback::close closes the tmp file.
        logPrint("using tmp file close\n");
        return IMTK_PB_CB_ERROR_CODE_OK;
    }
    File* file = reinterpret_cast<File*>(hPullSrc);
    file->close();
    delete file;
    return IMTK_PB_CB_ERROR_CODE_OK;
}

IMTK_PB_CB_ERROR_CODE_T pb_read(IMTK_PULL_HANDLE_T hPullSrc, void* pvAppTag, uint8_t* pu1DstBuf,
                                uint32_t u4Count, uint32_t* pu4Read) {
    logPrint("pb_read %p %p\n", reinterpret_cast<void*>(hPullSrc), pvAppTag);
    File* source = sourceOf(hPullSrc);
    // The engine cannot abort a blocking read, and waits for it when it
    // stops: only a local file's read is sure to end on its own.
    int n = dynamic_cast<LocalFile*>(source) != nullptr
                ? source->read(reinterpret_cast<char*>(pu1DstBuf), u4Count)
                : readUnlessStopped(source, pu1DstBuf, u4Count);
    // Show only bytes that were asked for and read; zeros in place of the rest.
    uint32_t filled = n > 0 ? static_cast<uint32_t>(n) : 0;
    if (filled > u4Count) filled = u4Count;
    unsigned int shown[kShownBytes] = {0, 0, 0, 0};
    for (uint32_t i = 0; i < kShownBytes && i < filled; ++i) shown[i] = pu1DstBuf[i];
    logPrint("file dest %p readed %d count %d data %x%x%x%x \n", static_cast<void*>(pu1DstBuf), n,
           static_cast<int>(u4Count), shown[0], shown[1], shown[2], shown[3]);
    if (n < 0) {
        *pu4Read = 0;
        return IMTK_PB_CB_ERROR_CODE_NOT_OK;
    }
    // 0 bytes at the end of the stream is a success.
    *pu4Read = static_cast<uint32_t>(n);
    return IMTK_PB_CB_ERROR_CODE_OK;
}

IMTK_PB_CB_ERROR_CODE_T pb_read_async(IMTK_PULL_HANDLE_T hPullSrc, void* pvAppTag,
                                      uint8_t* pu1DstBuf, uint32_t u4Count,
                                      IMtkPb_Ctrl_PullReadAsyncNfy pfnNfy, void* pvNfyTag,
                                      IMTK_PULL_REQ_HANDLE_T* phReq) {
    logPrint("pb_read asyc %d %p\n", static_cast<int>(hPullSrc), pvAppTag);
    File* source = sourceOf(hPullSrc);
    PlaybackCallback* callback = new PlaybackCallback(pfnNfy, pvNfyTag);
    logPrint("create playback read async task\n");
    char* destination = reinterpret_cast<char*>(pu1DstBuf);
    // Every source but a local file may hold a read past the engine's abort
    // (see PlaybackCallback): a copy per read is cheap next to network rates.
    if (dynamic_cast<LocalFile*>(source) == nullptr) {
        destination = callback->bounce(pu1DstBuf, u4Count);
        if (destination == nullptr) {
            logPrint("file readAsync fail\n");
            delete callback;
            return IMTK_PB_CB_ERROR_CODE_NOT_OK;
        }
    }
    void* request = source->readAsync(destination, u4Count, *callback);
    logPrint("file readAsync dest %p task %p len %d req %p\n", static_cast<void*>(pu1DstBuf),
           static_cast<void*>(callback), static_cast<int>(u4Count), request);
    if (request == nullptr) {
        // A refused read never completes.
        logPrint("file readAsync fail\n");
        delete callback;
        return IMTK_PB_CB_ERROR_CODE_NOT_OK;
    }
    *phReq = request;
    // From here on the completion may run and destroy the callback.
    callback->handOff(request);
    return IMTK_PB_CB_ERROR_CODE_OK;
}

IMTK_PB_CB_ERROR_CODE_T pb_abort(IMTK_PULL_HANDLE_T hPullSrc, void* pvAppTag,
                                 IMTK_PULL_REQ_HANDLE_T hReq) {
    logPrint("pb_abort %d %p\n", static_cast<int>(hPullSrc), pvAppTag);
    File* source = sourceOf(hPullSrc);
    IMtkPb_Ctrl_PullReadAsyncNfy done;
    void* tag;
    if (PlaybackCallback::withdraw(hReq, &done, &tag)) {
        // A bounced read completes toward the engine here, cancelled, however
        // long its source still holds it; the source's own completion of it
        // only frees the callback. It is withdrawn before the source is asked:
        // a source may complete reads under the lock its cancel takes, while
        // the engine holds a completion until this abort has returned.
        source->cancel(hReq);
        done(IMTK_PB_PULL_READ_CANCELLED, tag, hReq, 0);
        return IMTK_PB_CB_ERROR_CODE_OK;
    }
    // A bounced read whose completion is under way ends on its own.
    if (dynamic_cast<LocalFile*>(source) == nullptr) return IMTK_PB_CB_ERROR_CODE_NOT_OK;
    // A local file completes its reads with no lock held; a cancelled read
    // still completes once, cancelled.
    return source->cancel(hReq) == 0 ? IMTK_PB_CB_ERROR_CODE_OK : IMTK_PB_CB_ERROR_CODE_NOT_OK;
}

IMTK_PB_CB_ERROR_CODE_T pb_seek(IMTK_PULL_HANDLE_T hPullSrc, void* pvAppTag, int64_t i8Offset,
                                uint8_t u1Origin, uint64_t* pu8CurPos) {
    logPrint("pb_seek %d %p\n", static_cast<int>(hPullSrc), pvAppTag);
    File::Whence whence = File::kSeekSet;
    switch (u1Origin) {
        case IMTK_PB_PULL_SEEK_SET:
            whence = File::kSeekSet;
            break;
        case IMTK_PB_PULL_SEEK_CUR:
            whence = File::kSeekCurrent;
            break;
        case IMTK_PB_PULL_SEEK_END:
            whence = File::kSeekEnd;
            break;
        default:
            // The engine knows no other origin.
            VELKA_ASSERT(0);
    }
    int64_t position = sourceOf(hPullSrc)->seek(i8Offset, whence);
    logPrint("pb_seek pos %lld from %d off %lld\n", static_cast<long long>(position),
           static_cast<int>(whence), static_cast<long long>(i8Offset));
    // A source refuses a seek it cannot serve (one from the end of a stream
    // of unknown length) with -1; no source gives another negative position.
    if (position == -1) {
        *pu8CurPos = 0;
        return IMTK_PB_CB_ERROR_CODE_NOT_OK;
    }
    *pu8CurPos = static_cast<uint64_t>(position);
    return IMTK_PB_CB_ERROR_CODE_OK;
}

IMTK_PB_CB_ERROR_CODE_T pb_available(IMTK_PULL_HANDLE_T hPullSrc, void* pvAppTag,
                                     uint64_t* pu8Avail) {
    logPrint("pb_available %d %p\n", static_cast<int>(hPullSrc), pvAppTag);
    int64_t available = sourceOf(hPullSrc)->available();
    if (available < 0) {
        *pu8Avail = 0;
        return IMTK_PB_CB_ERROR_CODE_NOT_OK;
    }
    *pu8Avail = static_cast<uint64_t>(available);
    logPrint("pb_available %lld\n", static_cast<long long>(available));
    return IMTK_PB_CB_ERROR_CODE_OK;
}

}  // namespace velka
