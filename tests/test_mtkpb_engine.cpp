// The software playback engine, driven through its control interface by a
// pull source written here: pread on a media file generated with ffmpeg,
// asynchronous reads completed on the calling thread, on a completion thread
// before pb_read_async returns, or later; with options to refuse, fail or
// hold reads. The source checks the engine's side of the pull contract (app
// tag and pull handle passed unchanged, valid origins, every accepted read
// completed exactly once, no pb_abort after a completion, no read outstanding
// at pb_close).
#include <gtest/gtest.h>

#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <deque>
#include <functional>
#include <ostream>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

extern "C" {
#include <libavformat/avformat.h>
}

#include "IMtkPb_Ctrl.h"
#include "mtk_rpc.h"
#include "mtkpb_control.h"

namespace ctl = mtkpb::control;

namespace {

// Bound of every wait for the engine; generous for sanitizer builds.
constexpr uint32_t kWaitMs = 30000;
constexpr uint64_t kNever = UINT64_MAX;

// ---------------------------------------------------------------------------
// Pull source
// ---------------------------------------------------------------------------

// What the pull source does with the reads, by index (0 = the first read).
struct SourceOptions {
    uint64_t refuseFrom = kNever;  // reads with this index and later are refused
    uint64_t failFrom = kNever;    // ... complete with -1
    uint64_t holdFrom = kNever;    // ... are held until aborted or released
    bool cancelInline = false;     // complete an aborted read inside pb_abort
};

class TestSource {
public:
    using Options = SourceOptions;

    explicit TestSource(const std::string& path, Options options = Options())
        : url_("file://" + path), options_(options) {
        fd_ = ::open(path.c_str(), O_RDONLY);
        struct stat st {};
        if (fd_ >= 0 && fstat(fd_, &st) == 0) size_ = st.st_size;
        current_ = this;
        completer_ = std::thread([this] { runCompleter(); });
    }

    ~TestSource() {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            quit_ = true;
        }
        condition_.notify_all();
        completer_.join();
        for (Request* r : held_) delete r;  // only if a test failed half-way
        if (fd_ >= 0) ::close(fd_);
        if (current_ == this) current_ = nullptr;
    }

    PullSourceParams params() {
        PullSourceParams p{};
        p.mode = IMTK_PB_CTRL_PULL_MODE_ASYNC;
        p.appTag = tag();
        p.pbOpen = pb_open;
        p.pbClose = pb_close;
        p.pbRead = pb_read;
        p.pbReadAsync = pb_read_async;
        p.pbAbort = pb_abort;
        p.pbSeek = pb_seek;
        p.pbAvailable = pb_available;
        return p;
    }

    void* tag() { return &url_; }

    struct Report {
        int opens = 0;
        int closes = 0;
        uint64_t accepted = 0;
        uint64_t refused = 0;
        uint64_t completed = 0;
        uint64_t cancelled = 0;
        uint64_t completedBeforeReturn = 0;
        uint64_t aborts = 0;
        uint64_t abortsTooLate = 0;
        uint64_t seeks = 0;
        size_t outstanding = 0;
        size_t held = 0;
        // Faults of the engine.
        int wrongTag = 0;
        int wrongPullHandle = 0;
        int badOrigin = 0;
        int abortOfCompleted = 0;
        int callsWhileClosed = 0;
        long outstandingAtClose = -1;
    };

    Report report() {
        std::lock_guard<std::mutex> lock(mutex_);
        Report r = report_;
        r.outstanding = undelivered();
        r.held = held_.size();
        return r;
    }

    // Waits until `n` reads are held.
    bool waitHeld(size_t n) {
        std::unique_lock<std::mutex> lock(mutex_);
        return condition_.wait_for(lock, std::chrono::milliseconds(kWaitMs),
                                   [&] { return held_.size() >= n; });
    }

    // Completes the held reads and stops holding new ones.
    void releaseHeld() {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            options_.holdFrom = kNever;
            for (Request* r : held_) queue_.push_back(r);
            held_.clear();
        }
        condition_.notify_all();
    }

    void setOptions(const Options& options) {
        std::lock_guard<std::mutex> lock(mutex_);
        options_ = options;
    }

private:
    struct Request {
        uint8_t* destination;
        uint32_t count;
        IMtkPb_Ctrl_PullReadAsyncNfy done;
        void* doneTag;
        bool cancelled = false;
        bool doneCalled = false;  // the engine's completion function is being or was called
    };

    static constexpr uintptr_t kPullHandleMark = 0x5eed;

    // Accepted reads whose completion has not been delivered yet; mutex_ held.
    size_t undelivered() const {
        return static_cast<size_t>(
            std::count_if(live_.begin(), live_.end(), [](const Request* r) { return !r->doneCalled; }));
    }

    // Checks what every callback receives; takes mutex_.
    static TestSource* enter(IMTK_PULL_HANDLE_T pull, void* tag, bool checkPull = true) {
        TestSource* s = current_;
        std::lock_guard<std::mutex> lock(s->mutex_);
        if (tag != s->tag()) s->report_.wrongTag++;
        if (checkPull && pull != s->pullHandle()) s->report_.wrongPullHandle++;
        if (checkPull && !s->open_) s->report_.callsWhileClosed++;
        return s;
    }

    IMTK_PULL_HANDLE_T pullHandle() const { return reinterpret_cast<uintptr_t>(this) ^ kPullHandleMark; }

    static IMTK_PB_CB_ERROR_CODE_T pb_open(IMTK_PB_HANDLE_T, IMTK_PULL_HANDLE_T* phPullSrc,
                                           void* pvAppTag) {
        TestSource* s = enter(0, pvAppTag, false);
        std::lock_guard<std::mutex> lock(s->mutex_);
        s->report_.opens++;
        if (s->fd_ < 0) return IMTK_PB_CB_ERROR_CODE_NOT_OK;
        s->open_ = true;
        s->position_ = 0;
        *phPullSrc = s->pullHandle();
        return IMTK_PB_CB_ERROR_CODE_OK;
    }

    static IMTK_PB_CB_ERROR_CODE_T pb_close(IMTK_PULL_HANDLE_T hPullSrc, void* pvAppTag) {
        TestSource* s = enter(hPullSrc, pvAppTag);
        std::lock_guard<std::mutex> lock(s->mutex_);
        s->report_.closes++;
        s->report_.outstandingAtClose = static_cast<long>(s->undelivered());
        s->open_ = false;
        return IMTK_PB_CB_ERROR_CODE_OK;
    }

    static IMTK_PB_CB_ERROR_CODE_T pb_read(IMTK_PULL_HANDLE_T hPullSrc, void* pvAppTag,
                                           uint8_t* buffer, uint32_t count, uint32_t* read) {
        TestSource* s = enter(hPullSrc, pvAppTag);
        std::lock_guard<std::mutex> lock(s->mutex_);
        ssize_t n = pread(s->fd_, buffer, count, s->position_);
        if (n < 0) {
            *read = 0;
            return IMTK_PB_CB_ERROR_CODE_NOT_OK;
        }
        s->position_ += n;
        *read = static_cast<uint32_t>(n);
        return IMTK_PB_CB_ERROR_CODE_OK;
    }

    static IMTK_PB_CB_ERROR_CODE_T pb_read_async(IMTK_PULL_HANDLE_T hPullSrc, void* pvAppTag,
                                                 uint8_t* buffer, uint32_t count,
                                                 IMtkPb_Ctrl_PullReadAsyncNfy done, void* doneTag,
                                                 IMTK_PULL_REQ_HANDLE_T* request) {
        TestSource* s = enter(hPullSrc, pvAppTag);
        std::unique_lock<std::mutex> lock(s->mutex_);
        const uint64_t index = s->readIndex_++;
        if (index >= s->options_.refuseFrom) {
            s->report_.refused++;
            return IMTK_PB_CB_ERROR_CODE_NOT_OK;
        }
        Request* r = new Request{buffer, count, done, doneTag};
        s->live_.insert(r);
        s->report_.accepted++;
        *request = nullptr;  // written last: the completion may come first
        if (index >= s->options_.holdFrom) {
            s->held_.push_back(r);
            s->condition_.notify_all();
        } else if (index % 3 == 0) {
            // On this thread, before returning.
            lock.unlock();
            s->complete(r);
            lock.lock();
            s->report_.completedBeforeReturn++;
        } else if (index % 3 == 1) {
            // On the completion thread, before returning.
            s->queue_.push_back(r);
            s->condition_.notify_all();
            const uint64_t target = s->doneReturned_ + 1;
            s->condition_.wait(lock, [&] { return s->doneReturned_ >= target || s->quit_; });
            s->report_.completedBeforeReturn++;
        } else {
            s->queue_.push_back(r);
            s->condition_.notify_all();
        }
        *request = r;
        return IMTK_PB_CB_ERROR_CODE_OK;
    }

    static IMTK_PB_CB_ERROR_CODE_T pb_abort(IMTK_PULL_HANDLE_T hPullSrc, void* pvAppTag,
                                            IMTK_PULL_REQ_HANDLE_T request) {
        TestSource* s = enter(hPullSrc, pvAppTag);
        std::unique_lock<std::mutex> lock(s->mutex_);
        Request* r = static_cast<Request*>(request);
        if (s->live_.count(r) == 0) {
            s->report_.abortOfCompleted++;  // its completion has already returned
            return IMTK_PB_CB_ERROR_CODE_NOT_OK;
        }
        if (r->doneCalled || r->cancelled) {
            s->report_.abortsTooLate++;
            return IMTK_PB_CB_ERROR_CODE_NOT_OK;
        }
        s->report_.aborts++;
        r->cancelled = true;
        auto held = std::find(s->held_.begin(), s->held_.end(), r);
        if (held != s->held_.end()) {
            s->held_.erase(held);
            if (s->options_.cancelInline) {
                lock.unlock();
                s->complete(r);
                return IMTK_PB_CB_ERROR_CODE_OK;
            }
            s->queue_.push_back(r);
            s->condition_.notify_all();
        }
        // A queued one is completed as cancelled by the completion thread.
        return IMTK_PB_CB_ERROR_CODE_OK;
    }

    static IMTK_PB_CB_ERROR_CODE_T pb_seek(IMTK_PULL_HANDLE_T hPullSrc, void* pvAppTag,
                                           int64_t offset, uint8_t origin, uint64_t* position) {
        TestSource* s = enter(hPullSrc, pvAppTag);
        std::lock_guard<std::mutex> lock(s->mutex_);
        s->report_.seeks++;
        int64_t base;
        switch (origin) {
            case IMTK_PB_PULL_SEEK_SET: base = 0; break;
            case IMTK_PB_PULL_SEEK_CUR: base = s->position_; break;
            case IMTK_PB_PULL_SEEK_END: base = s->size_; break;
            default:
                s->report_.badOrigin++;
                return IMTK_PB_CB_ERROR_CODE_NOT_OK;
        }
        if (base + offset < 0) return IMTK_PB_CB_ERROR_CODE_NOT_OK;
        s->position_ = base + offset;
        *position = static_cast<uint64_t>(s->position_);
        return IMTK_PB_CB_ERROR_CODE_OK;
    }

    static IMTK_PB_CB_ERROR_CODE_T pb_available(IMTK_PULL_HANDLE_T hPullSrc, void* pvAppTag,
                                                uint64_t* available) {
        TestSource* s = enter(hPullSrc, pvAppTag);
        std::lock_guard<std::mutex> lock(s->mutex_);
        *available = static_cast<uint64_t>(std::max<int64_t>(s->size_ - s->position_, 0));
        return IMTK_PB_CB_ERROR_CODE_OK;
    }

    // Delivers one completion; called with mutex_ released (the engine may
    // call pb_abort meanwhile).
    void complete(Request* r) {
        int32_t result = IMTK_PB_PULL_READ_DONE;
        uint32_t length = 0;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            if (r->cancelled) {
                result = IMTK_PB_PULL_READ_CANCELLED;
            } else if (readsCompleted_++ >= options_.failFrom) {
                result = IMTK_PB_PULL_READ_FAILED;
            } else {
                ssize_t n = pread(fd_, r->destination, r->count, position_);
                if (n < 0) {
                    result = IMTK_PB_PULL_READ_FAILED;
                } else {
                    length = static_cast<uint32_t>(n);
                    position_ += n;
                }
            }
            r->doneCalled = true;
            if (result == IMTK_PB_PULL_READ_CANCELLED) {
                report_.cancelled++;
            } else {
                report_.completed++;
            }
        }
        r->done(result, r->doneTag, r, length);
        {
            std::lock_guard<std::mutex> lock(mutex_);
            live_.erase(r);
            doneReturned_++;
        }
        condition_.notify_all();
        delete r;
    }

    void runCompleter() {
        std::unique_lock<std::mutex> lock(mutex_);
        for (;;) {
            condition_.wait(lock, [&] { return quit_ || !queue_.empty(); });
            if (quit_) return;
            Request* r = queue_.front();
            queue_.pop_front();
            lock.unlock();
            complete(r);
            lock.lock();
        }
    }

    static TestSource* current_;

    std::string url_;  // its address is the app tag
    int fd_ = -1;
    int64_t size_ = 0;

    std::mutex mutex_;  // guards everything below
    std::condition_variable condition_;
    Options options_;
    bool open_ = false;
    int64_t position_ = 0;
    uint64_t readIndex_ = 0;
    uint64_t readsCompleted_ = 0;
    std::set<Request*> live_;  // accepted, completion not yet returned
    uint64_t doneReturned_ = 0;
    std::vector<Request*> held_;
    std::deque<Request*> queue_;
    bool quit_ = false;
    Report report_;
    std::thread completer_;
};

TestSource* TestSource::current_ = nullptr;

// ---------------------------------------------------------------------------
// Notifications
// ---------------------------------------------------------------------------

class Events {
public:
    Events() { current_ = this; }
    ~Events() { current_ = nullptr; }

    void* tag() { return this; }

    static int32_t callback(IMTK_PB_CTRL_EVENT_T event, void* tag, intptr_t data) {
        Events* e = current_;
        std::function<void(IMTK_PB_CTRL_EVENT_T, intptr_t)> hook;
        {
            std::lock_guard<std::mutex> lock(e->mutex_);
            if (tag != e->tag()) e->wrongTag_++;
            hook = e->hook_;
        }
        if (hook) hook(event, data);
        {
            std::lock_guard<std::mutex> lock(e->mutex_);
            e->list_.emplace_back(event, data);
        }
        e->condition_.notify_all();
        return 0;
    }

    // Called on the notification thread before an event is recorded.
    void setHook(std::function<void(IMTK_PB_CTRL_EVENT_T, intptr_t)> hook) {
        std::lock_guard<std::mutex> lock(mutex_);
        hook_ = std::move(hook);
    }

    bool waitFor(IMTK_PB_CTRL_EVENT_T event, size_t count = 1) {
        std::unique_lock<std::mutex> lock(mutex_);
        return condition_.wait_for(lock, std::chrono::milliseconds(kWaitMs),
                                   [&] { return countLocked(event) >= count; });
    }

    size_t count(IMTK_PB_CTRL_EVENT_T event) {
        std::lock_guard<std::mutex> lock(mutex_);
        return countLocked(event);
    }

    std::vector<intptr_t> data(IMTK_PB_CTRL_EVENT_T event) {
        std::lock_guard<std::mutex> lock(mutex_);
        std::vector<intptr_t> out;
        for (auto& e : list_) {
            if (e.first == event) out.push_back(e.second);
        }
        return out;
    }

    std::vector<std::pair<IMTK_PB_CTRL_EVENT_T, intptr_t>> all() {
        std::lock_guard<std::mutex> lock(mutex_);
        return list_;
    }

    int wrongTag() {
        std::lock_guard<std::mutex> lock(mutex_);
        return wrongTag_;
    }

private:
    size_t countLocked(IMTK_PB_CTRL_EVENT_T event) const {
        return static_cast<size_t>(std::count_if(list_.begin(), list_.end(),
                                                 [&](auto& e) { return e.first == event; }));
    }

    static Events* current_;
    std::mutex mutex_;
    std::condition_variable condition_;
    std::vector<std::pair<IMTK_PB_CTRL_EVENT_T, intptr_t>> list_;
    std::function<void(IMTK_PB_CTRL_EVENT_T, intptr_t)> hook_;
    int wrongTag_ = 0;
};

Events* Events::current_ = nullptr;

// ---------------------------------------------------------------------------
// Media
// ---------------------------------------------------------------------------

struct Media {
    std::string dir;
    std::string mp4;      // 3 s, index at the end
    std::string ts;       // 3 s MPEG-TS
    std::string longMp4;  // 10 s, a key frame every second, ~1.3 MB (some 40 reads)
    std::string garbage;  // text
    std::string empty;
    bool ready = false;
    std::string why;
};

Media& media() {
    static Media m;
    return m;
}

bool run(const std::string& command) { return std::system(command.c_str()) == 0; }

void makeMedia() {
    Media& m = media();
    if (!run("ffmpeg -version >/dev/null 2>&1")) {
        m.why = "ffmpeg not found on PATH; the engine tests need it to generate media";
        return;
    }
    char dir[] = "/tmp/mtkpb_test_XXXXXX";
    if (mkdtemp(dir) == nullptr) {
        m.why = "cannot create a temporary directory";
        return;
    }
    m.dir = dir;
    m.mp4 = m.dir + "/av.mp4";
    m.ts = m.dir + "/av.ts";
    m.longMp4 = m.dir + "/long.mp4";
    m.garbage = m.dir + "/garbage.bin";
    m.empty = m.dir + "/empty.bin";
    const std::string av3 =
        "ffmpeg -nostdin -v error -y -f lavfi -i testsrc=duration=3:size=160x120:rate=25 "
        "-f lavfi -i sine=duration=3 -c:v mpeg4 -c:a aac ";
    const std::string av10 =
        "ffmpeg -nostdin -v error -y -f lavfi "
        "-i testsrc=duration=10:size=320x240:rate=25,noise=alls=30:allf=t "
        "-f lavfi -i sine=duration=10 -c:v mpeg4 -b:v 1M -g 25 -c:a aac ";
    if (!run(av3 + m.mp4) || !run(av3 + "-f mpegts " + m.ts) || !run(av10 + m.longMp4)) {
        m.why = "ffmpeg failed to generate the test media";
        return;
    }
    FILE* f = std::fopen(m.garbage.c_str(), "w");
    for (int i = 0; f != nullptr && i < 2000; ++i) {
        std::fprintf(f, "line %d of a shopping list, not a medium\n", i);
    }
    if (f != nullptr) std::fclose(f);
    f = std::fopen(m.empty.c_str(), "w");
    if (f != nullptr) std::fclose(f);
    m.ready = true;
}

int64_t fileSize(const std::string& path) {
    struct stat st {};
    return stat(path.c_str(), &st) == 0 ? st.st_size : -1;
}

// The packets of `path` read directly with libavformat, hashed the way the
// engine documents it (FNV-1a 64 over every packet's data in demux order).
struct Demuxed {
    uint64_t checksum = 0xcbf29ce484222325ull;
    uint64_t packets = 0;
};

Demuxed demuxDirectly(const std::string& path) {
    Demuxed d;
    AVFormatContext* format = nullptr;
    if (avformat_open_input(&format, path.c_str(), nullptr, nullptr) < 0) return d;
    if (avformat_find_stream_info(format, nullptr) >= 0) {
        AVPacket* packet = av_packet_alloc();
        while (av_read_frame(format, packet) >= 0) {
            for (int i = 0; i < packet->size; ++i) {
                d.checksum ^= packet->data[i];
                d.checksum *= 0x100000001b3ull;
            }
            d.packets++;
            av_packet_unref(packet);
        }
        av_packet_free(&packet);
    }
    avformat_close_input(&format);
    return d;
}

// ---------------------------------------------------------------------------
// Fixture
// ---------------------------------------------------------------------------

class MtkPbEngine : public ::testing::Test {
protected:
    static void SetUpTestSuite() { makeMedia(); }
    static void TearDownTestSuite() {
        if (!media().dir.empty()) run("rm -rf " + media().dir);
    }

    void SetUp() override {
        if (!media().ready) GTEST_SKIP() << media().why;
        ctl::reset();
        ctl::setSpeed(0);
    }

    void TearDown() override {
        if (handle_ != 0) {
            ctl::clearResult(ctl::Op::kClose);
            EXPECT_EQ(IMTK_PB_ERROR_CODE_OK, IMtkPb_Ctrl_Close(handle_));
        }
        if (source_) {
            TestSource::Report r = source_->report();
            EXPECT_EQ(0, r.wrongTag);
            EXPECT_EQ(0, r.wrongPullHandle);
            EXPECT_EQ(0, r.badOrigin);
            EXPECT_EQ(0, r.abortOfCompleted);
            EXPECT_EQ(0, r.callsWhileClosed);
        }
        EXPECT_EQ(0, events_.wrongTag());
        EXPECT_EQ(0u, ctl::counters().protocolErrors);
        source_.reset();
        ctl::reset();
    }

    // Opens an instance over `path`, registers the recorder and hands over the source.
    void open(const std::string& path, TestSource::Options options = TestSource::Options()) {
        source_ = std::make_unique<TestSource>(path, options);
        ASSERT_EQ(IMTK_PB_ERROR_CODE_OK, IMtkPb_Ctrl_Open(&handle_, 2, 2, "network"));
        ASSERT_NE(0u, handle_);
        ASSERT_EQ(IMTK_PB_ERROR_CODE_OK,
                  IMtkPb_Ctrl_RegCallback(handle_, events_.tag(), Events::callback));
        PullSourceParams params = source_->params();
        ASSERT_EQ(IMTK_PB_ERROR_CODE_OK, IMtkPb_Ctrl_SetEngineParam(handle_, &params));
    }

    // Closes the instance and checks that every read was completed exactly once
    // before pb_close, with none outstanding.
    void closeAndCheckReads() {
        ASSERT_EQ(IMTK_PB_ERROR_CODE_OK, IMtkPb_Ctrl_Close(handle_));
        handle_ = 0;
        TestSource::Report r = source_->report();
        EXPECT_EQ(1, r.closes);
        EXPECT_EQ(0, r.outstandingAtClose);
        EXPECT_EQ(0u, r.outstanding);
        EXPECT_EQ(r.accepted, r.completed + r.cancelled);
        ctl::Counters c = ctl::counters();
        EXPECT_EQ(c.readsIssued, c.readsCompleted);
        EXPECT_EQ(0u, ctl::readsOutstanding());
    }

    uint32_t position() {
        uint32_t ms = UINT32_MAX;
        uint64_t bytes = 0;
        EXPECT_EQ(IMTK_PB_ERROR_CODE_OK, IMtkPb_Ctrl_GetCurrentPos(handle_, &ms, &bytes));
        return ms;
    }

    IMTK_PB_HANDLE_T handle_ = 0;
    std::unique_ptr<TestSource> source_;
    Events events_;
};

struct MediumCase {
    const char* name;
    std::string Media::*path;
};

void PrintTo(const MediumCase& c, std::ostream* os) { *os << c.name; }

const MediumCase kMedia[] = {{"Mp4IndexAtEnd", &Media::mp4}, {"MpegTs", &Media::ts}};

class MtkPbEngineMedia : public MtkPbEngine, public ::testing::WithParamInterface<MediumCase> {
protected:
    const std::string& path() { return media().*(GetParam().path); }
};

std::string mediumName(const ::testing::TestParamInfo<MediumCase>& info) { return info.param.name; }

// ---------------------------------------------------------------------------
// Media information
// ---------------------------------------------------------------------------

TEST_P(MtkPbEngineMedia, MediaInfoReportsDurationThroughPullSourceOnly) {
    open(path());
    IMTK_PB_CTRL_MEDIA_INFO_T info{};
    ASSERT_EQ(IMTK_PB_ERROR_CODE_OK, IMtkPb_Ctrl_GetMediaInfo(handle_, &info));
    EXPECT_NEAR(3000, static_cast<int>(info.durationMs), 150);
    EXPECT_EQ(1u, info.videoStreams);
    EXPECT_EQ(1u, info.audioStreams);
    EXPECT_EQ(160u, info.width);
    EXPECT_EQ(120u, info.height);
    EXPECT_EQ(static_cast<uint64_t>(fileSize(path())), info.size);

    // The duration is announced before the call returns.
    std::vector<intptr_t> total = events_.data(IMTK_PB_CTRL_EVENT_TOTAL_TIME_UPDATE);
    ASSERT_EQ(1u, total.size());
    EXPECT_EQ(static_cast<intptr_t>(info.durationMs), total[0]);

    TestSource::Report r = source_->report();
    EXPECT_EQ(1, r.opens);
    EXPECT_GT(r.accepted, 0u);
    EXPECT_GT(r.completedBeforeReturn, 0u);
    closeAndCheckReads();
}

INSTANTIATE_TEST_SUITE_P(Media, MtkPbEngineMedia, ::testing::ValuesIn(kMedia), mediumName);

TEST_F(MtkPbEngine, MediaInfoFailsOnWhatIsNotAMedium) {
    for (const std::string* path : {&media().garbage, &media().empty}) {
        SCOPED_TRACE(*path);
        open(*path);
        EXPECT_NE(IMTK_PB_ERROR_CODE_OK, IMtkPb_Ctrl_GetMediaInfo(handle_, nullptr));
        EXPECT_NE(IMTK_PB_ERROR_CODE_OK, IMtkPb_Ctrl_Play(handle_, 0));
        EXPECT_EQ(0u, events_.count(IMTK_PB_CTRL_EVENT_PLAYED));
        closeAndCheckReads();
        ctl::reset();
    }
}

TEST_F(MtkPbEngine, MediaInfoFailsWhenTheSourceRefusesOrFailsReads) {
    TestSource::Options refuse;
    refuse.refuseFrom = 0;
    TestSource::Options fail;
    fail.failFrom = 0;
    for (const TestSource::Options& options : {refuse, fail}) {
        open(media().mp4, options);
        EXPECT_NE(IMTK_PB_ERROR_CODE_OK, IMtkPb_Ctrl_GetMediaInfo(handle_, nullptr));
        closeAndCheckReads();
        ctl::reset();
    }
}

TEST_F(MtkPbEngine, SetEngineParamFailsWhenPbOpenFails) {
    source_ = std::make_unique<TestSource>(media().dir + "/missing.mp4");
    ASSERT_EQ(IMTK_PB_ERROR_CODE_OK, IMtkPb_Ctrl_Open(&handle_, 2, 2, "network"));
    PullSourceParams params = source_->params();
    EXPECT_NE(IMTK_PB_ERROR_CODE_OK, IMtkPb_Ctrl_SetEngineParam(handle_, &params));
    EXPECT_NE(IMTK_PB_ERROR_CODE_OK, IMtkPb_Ctrl_Play(handle_, 0));
    ASSERT_EQ(IMTK_PB_ERROR_CODE_OK, IMtkPb_Ctrl_Close(handle_));
    handle_ = 0;
    EXPECT_EQ(0, source_->report().closes);  // nothing was opened
}

// ---------------------------------------------------------------------------
// Playback
// ---------------------------------------------------------------------------

TEST_P(MtkPbEngineMedia, PlaysToEndWithIncreasingTimeUpdates) {
    ctl::setSpeed(20);
    open(path());
    ASSERT_EQ(IMTK_PB_ERROR_CODE_OK, IMtkPb_Ctrl_GetMediaInfo(handle_, nullptr));
    ASSERT_EQ(IMTK_PB_ERROR_CODE_OK, IMtkPb_Ctrl_Play(handle_, 0));
    ASSERT_TRUE(events_.waitFor(IMTK_PB_CTRL_EVENT_EOS));

    auto all = events_.all();
    auto played = std::find_if(all.begin(), all.end(),
                               [](auto& e) { return e.first == IMTK_PB_CTRL_EVENT_PLAYED; });
    auto firstUpdate = std::find_if(all.begin(), all.end(), [](auto& e) {
        return e.first == IMTK_PB_CTRL_EVENT_CUR_TIME_UPDATE;
    });
    ASSERT_NE(all.end(), played);
    EXPECT_LT(played - all.begin(), firstUpdate - all.begin());
    EXPECT_EQ(IMTK_PB_CTRL_EVENT_EOS, all.back().first);
    EXPECT_EQ(1u, events_.count(IMTK_PB_CTRL_EVENT_EOS));

    std::vector<intptr_t> times = events_.data(IMTK_PB_CTRL_EVENT_CUR_TIME_UPDATE);
    ASSERT_GE(times.size(), 8u);  // one every 250 ms of 3 s
    for (size_t i = 1; i < times.size(); ++i) EXPECT_LT(times[i - 1], times[i]) << i;
    EXPECT_LE(times.front(), 250);
    EXPECT_GE(times.back(), 2700);
    EXPECT_GE(position(), 2700u);
    EXPECT_EQ(0u, events_.count(IMTK_PB_CTRL_EVENT_PLAYBACK_ERROR));
    closeAndCheckReads();
}

TEST_P(MtkPbEngineMedia, DemuxedPacketsMatchDirectDemuxOfTheFile) {
    const Demuxed expected = demuxDirectly(path());
    ASSERT_GT(expected.packets, 100u);
    open(path());
    ASSERT_EQ(IMTK_PB_ERROR_CODE_OK, IMtkPb_Ctrl_Play(handle_, 0));  // probes on its own
    ASSERT_TRUE(events_.waitFor(IMTK_PB_CTRL_EVENT_EOS));
    EXPECT_EQ(expected.packets, ctl::counters().packets);
    EXPECT_EQ(expected.checksum, ctl::packetChecksum());
    EXPECT_GT(source_->report().completedBeforeReturn, 0u);
    closeAndCheckReads();
    EXPECT_EQ(source_->report().accepted, ctl::counters().readsIssued);
    EXPECT_EQ(source_->report().accepted, ctl::counters().readsCompleted);
}

TEST_F(MtkPbEngine, PlayAfterTheEndStartsAgain) {
    open(media().mp4);
    ASSERT_EQ(IMTK_PB_ERROR_CODE_OK, IMtkPb_Ctrl_Play(handle_, 0));
    ASSERT_TRUE(events_.waitFor(IMTK_PB_CTRL_EVENT_EOS));
    const uint64_t firstRun = ctl::counters().packets;
    ASSERT_EQ(IMTK_PB_ERROR_CODE_OK, IMtkPb_Ctrl_Play(handle_, 0));
    ASSERT_TRUE(events_.waitFor(IMTK_PB_CTRL_EVENT_EOS, 2));
    EXPECT_EQ(2 * firstRun, ctl::counters().packets);
    closeAndCheckReads();
}

TEST_F(MtkPbEngine, PauseHoldsPlaybackAndPlayResumes) {
    ctl::setSpeed(1);
    open(media().longMp4);
    ASSERT_EQ(IMTK_PB_ERROR_CODE_OK, IMtkPb_Ctrl_Play(handle_, 0));
    ASSERT_TRUE(ctl::waitUntil([] { return ctl::counters().packets >= 20; }, kWaitMs));
    ASSERT_EQ(IMTK_PB_ERROR_CODE_OK, IMtkPb_Ctrl_Pause(handle_));
    // At most the packet being read when Pause came gets through.
    const uint64_t atPause = ctl::counters().packets;
    const uint32_t positionAtPause = position();
    EXPECT_FALSE(ctl::waitUntil([&] { return ctl::counters().packets > atPause + 1; }, 300));
    EXPECT_EQ(0u, events_.count(IMTK_PB_CTRL_EVENT_EOS));
    EXPECT_LE(position(), positionAtPause + 40);

    ctl::setSpeed(0);
    ASSERT_EQ(IMTK_PB_ERROR_CODE_OK, IMtkPb_Ctrl_Play(handle_, 0));
    ASSERT_TRUE(events_.waitFor(IMTK_PB_CTRL_EVENT_EOS));
    EXPECT_EQ(2u, events_.count(IMTK_PB_CTRL_EVENT_PLAYED));
    EXPECT_GE(position(), 9500u);
    closeAndCheckReads();
}

// ---------------------------------------------------------------------------
// Time seek
// ---------------------------------------------------------------------------

TEST_F(MtkPbEngine, TimeSeekLandsNearTheTargetAndReportsDone) {
    ctl::setSpeed(1);  // slow enough that playback is still early when Pause comes
    open(media().longMp4);
    ASSERT_EQ(IMTK_PB_ERROR_CODE_OK, IMtkPb_Ctrl_GetMediaInfo(handle_, nullptr));
    ASSERT_EQ(IMTK_PB_ERROR_CODE_OK, IMtkPb_Ctrl_Play(handle_, 0));
    ASSERT_TRUE(events_.waitFor(IMTK_PB_CTRL_EVENT_CUR_TIME_UPDATE));
    // Paused, the position stays where the seek landed.
    ASSERT_EQ(IMTK_PB_ERROR_CODE_OK, IMtkPb_Ctrl_Pause(handle_));
    size_t seeks = 0;
    for (uint32_t target : {6u, 2u, 9u, 0u}) {
        SCOPED_TRACE(target);
        ASSERT_EQ(IMTK_PB_ERROR_CODE_OK, IMtkPb_Ctrl_TimeSeek(handle_, target));
        ASSERT_TRUE(events_.waitFor(IMTK_PB_CTRL_EVENT_TIMESEEK_DONE, ++seeks));
        const intptr_t landed = events_.data(IMTK_PB_CTRL_EVENT_TIMESEEK_DONE).back();
        // A key frame every second: at most a second before the target.
        EXPECT_LE(landed, static_cast<intptr_t>(target) * 1000 + 100);
        EXPECT_GE(landed, static_cast<intptr_t>(target) * 1000 - 1000);
        EXPECT_EQ(static_cast<uint32_t>(landed), position());
    }
    // Beyond the end: the seek is accepted and reported as failed.
    ASSERT_EQ(IMTK_PB_ERROR_CODE_OK, IMtkPb_Ctrl_TimeSeek(handle_, 60));
    ASSERT_TRUE(events_.waitFor(IMTK_PB_CTRL_EVENT_TIMESEEK_DONE, ++seeks));
    EXPECT_EQ(-1, events_.data(IMTK_PB_CTRL_EVENT_TIMESEEK_DONE).back());

    EXPECT_EQ(0u, position());  // unchanged by the failed seek

    ctl::setSpeed(0);
    ASSERT_EQ(IMTK_PB_ERROR_CODE_OK, IMtkPb_Ctrl_Play(handle_, 0));
    ASSERT_TRUE(events_.waitFor(IMTK_PB_CTRL_EVENT_EOS));
    std::vector<intptr_t> times = events_.data(IMTK_PB_CTRL_EVENT_CUR_TIME_UPDATE);
    EXPECT_GE(times.back(), 9500);
    closeAndCheckReads();
}

TEST_F(MtkPbEngine, TimeSeekFailsWhenTheSourceFailsDuringTheSeek) {
    ctl::setSpeed(1);
    open(media().longMp4);
    ASSERT_EQ(IMTK_PB_ERROR_CODE_OK, IMtkPb_Ctrl_GetMediaInfo(handle_, nullptr));
    TestSource::Options fail;
    fail.failFrom = 0;
    source_->setOptions(fail);
    ASSERT_EQ(IMTK_PB_ERROR_CODE_OK, IMtkPb_Ctrl_TimeSeek(handle_, 7));
    ASSERT_TRUE(events_.waitFor(IMTK_PB_CTRL_EVENT_TIMESEEK_DONE));
    EXPECT_EQ(-1, events_.data(IMTK_PB_CTRL_EVENT_TIMESEEK_DONE).back());
    closeAndCheckReads();
}

TEST_F(MtkPbEngine, TimeSeekFromInsidePlayedNotification) {
    ctl::setSpeed(1);
    open(media().longMp4);
    ASSERT_EQ(IMTK_PB_ERROR_CODE_OK, IMtkPb_Ctrl_GetMediaInfo(handle_, nullptr));
    const IMTK_PB_HANDLE_T handle = handle_;
    std::atomic<int32_t> seekResult{1};
    events_.setHook([&](IMTK_PB_CTRL_EVENT_T event, intptr_t) {
        if (event == IMTK_PB_CTRL_EVENT_PLAYED) seekResult = IMtkPb_Ctrl_TimeSeek(handle, 5);
    });
    ASSERT_EQ(IMTK_PB_ERROR_CODE_OK, IMtkPb_Ctrl_Play(handle_, 0));
    ASSERT_TRUE(events_.waitFor(IMTK_PB_CTRL_EVENT_TIMESEEK_DONE));
    EXPECT_EQ(IMTK_PB_ERROR_CODE_OK, seekResult.load());
    const intptr_t landed = events_.data(IMTK_PB_CTRL_EVENT_TIMESEEK_DONE).back();
    EXPECT_GE(landed, 4000);
    EXPECT_LE(landed, 5100);
    events_.setHook(nullptr);

    ctl::setSpeed(0);
    ASSERT_TRUE(events_.waitFor(IMTK_PB_CTRL_EVENT_EOS));
    // After the seek, time updates continue from the new position.
    std::vector<intptr_t> times = events_.data(IMTK_PB_CTRL_EVENT_CUR_TIME_UPDATE);
    EXPECT_GE(times.back(), 9500);
    closeAndCheckReads();
}

// ---------------------------------------------------------------------------
// Stop and Close
// ---------------------------------------------------------------------------

struct AbortCase {
    const char* name;
    bool close;         // Close without Stop first
    bool cancelInline;  // the source completes the aborted read inside pb_abort
    uint64_t holdFrom;  // the read that is held
};

void PrintTo(const AbortCase& c, std::ostream* os) { *os << c.name; }

class MtkPbEngineAbort : public MtkPbEngine, public ::testing::WithParamInterface<AbortCase> {};

TEST_P(MtkPbEngineAbort, OutstandingReadIsAbortedAndCompletedOnceBeforeReturn) {
    TestSource::Options options;
    options.holdFrom = GetParam().holdFrom;
    options.cancelInline = GetParam().cancelInline;
    open(media().longMp4, options);
    // Play probes first; a read held during the probe keeps it waiting.
    std::atomic<int32_t> playResult{1};
    std::thread player([&] { playResult = IMtkPb_Ctrl_Play(handle_, 0); });
    const bool held = source_->waitHeld(1);
    if (!held) source_->releaseHeld();
    const bool probing = GetParam().holdFrom == 0;
    if (!probing) player.join();

    if (GetParam().close) {
        closeAndCheckReads();
    } else {
        EXPECT_EQ(IMTK_PB_ERROR_CODE_OK, IMtkPb_Ctrl_Stop(handle_));
        TestSource::Report r = source_->report();
        EXPECT_EQ(0u, r.outstanding);
        EXPECT_EQ(0u, r.held);
        EXPECT_EQ(1u, r.aborts);
        EXPECT_EQ(1u, r.cancelled);
        EXPECT_EQ(0, r.closes);
    }
    if (probing) player.join();
    ASSERT_TRUE(held);
    if (!GetParam().close) closeAndCheckReads();

    // An aborted probe fails Play; an aborted playback is no error.
    EXPECT_EQ(probing, playResult != IMTK_PB_ERROR_CODE_OK);
    EXPECT_EQ(probing ? 0u : 1u, events_.count(IMTK_PB_CTRL_EVENT_PLAYED));
    ctl::Counters c = ctl::counters();
    EXPECT_EQ(1u, c.readsAborted);
    EXPECT_EQ(1u, c.readsCancelled);
    EXPECT_EQ(0u, events_.count(IMTK_PB_CTRL_EVENT_EOS));
    EXPECT_EQ(0u, events_.count(IMTK_PB_CTRL_EVENT_PLAYBACK_ERROR));
}

const AbortCase kAbortCases[] = {
    {"StopWhileProbing", false, false, 0},
    {"StopWhilePlaying", false, false, 12},
    {"StopWhilePlayingCancelInline", false, true, 12},
    {"CloseWhilePlaying", true, false, 12},
    {"CloseWhilePlayingCancelInline", true, true, 13},
};

INSTANTIATE_TEST_SUITE_P(Abort, MtkPbEngineAbort, ::testing::ValuesIn(kAbortCases),
                         [](const auto& info) { return std::string(info.param.name); });

TEST_F(MtkPbEngine, StopEndsAPendingSeekAsFailedAndPlayStartsOver) {
    TestSource::Options options;
    options.holdFrom = 12;
    open(media().longMp4, options);
    ASSERT_EQ(IMTK_PB_ERROR_CODE_OK, IMtkPb_Ctrl_Play(handle_, 0));
    ASSERT_TRUE(source_->waitHeld(1));
    ASSERT_EQ(IMTK_PB_ERROR_CODE_OK, IMtkPb_Ctrl_TimeSeek(handle_, 4));
    ASSERT_EQ(IMTK_PB_ERROR_CODE_OK, IMtkPb_Ctrl_Stop(handle_));
    ASSERT_TRUE(events_.waitFor(IMTK_PB_CTRL_EVENT_TIMESEEK_DONE));
    EXPECT_EQ(-1, events_.data(IMTK_PB_CTRL_EVENT_TIMESEEK_DONE).back());
    EXPECT_EQ(0u, position());

    source_->releaseHeld();
    ctl::reset();
    ctl::setSpeed(0);
    ASSERT_EQ(IMTK_PB_ERROR_CODE_OK, IMtkPb_Ctrl_Play(handle_, 0));
    ASSERT_TRUE(events_.waitFor(IMTK_PB_CTRL_EVENT_EOS));
    EXPECT_EQ(demuxDirectly(media().longMp4).checksum, ctl::packetChecksum());
    closeAndCheckReads();
}

TEST_F(MtkPbEngine, StalledSourceReportsUnderflowThenBufferHigh) {
    TestSource::Options options;
    options.holdFrom = 12;
    open(media().longMp4, options);
    ASSERT_EQ(IMTK_PB_ERROR_CODE_OK, IMtkPb_Ctrl_Play(handle_, 0));
    ASSERT_TRUE(source_->waitHeld(1));
    ASSERT_TRUE(events_.waitFor(IMTK_PB_CTRL_EVENT_BUFFER_UNDERFLOW));
    EXPECT_EQ(0u, events_.count(IMTK_PB_CTRL_EVENT_BUFFER_HIGH));
    source_->releaseHeld();
    ASSERT_TRUE(events_.waitFor(IMTK_PB_CTRL_EVENT_BUFFER_HIGH));
    ASSERT_TRUE(events_.waitFor(IMTK_PB_CTRL_EVENT_EOS));
    EXPECT_EQ(1u, events_.count(IMTK_PB_CTRL_EVENT_BUFFER_UNDERFLOW));
    closeAndCheckReads();
}

TEST_F(MtkPbEngine, FailingSourceDuringPlaybackReportsPlaybackError) {
    TestSource::Options refuse;
    refuse.refuseFrom = 8;
    TestSource::Options fail;
    fail.failFrom = 8;
    size_t errors = 0;
    for (const TestSource::Options& options : {refuse, fail}) {
        open(media().longMp4, options);
        ASSERT_EQ(IMTK_PB_ERROR_CODE_OK, IMtkPb_Ctrl_Play(handle_, 0));
        ASSERT_TRUE(events_.waitFor(IMTK_PB_CTRL_EVENT_PLAYBACK_ERROR, ++errors));
        closeAndCheckReads();
        ctl::reset();
        ctl::setSpeed(0);
    }
    EXPECT_EQ(2u, events_.count(IMTK_PB_CTRL_EVENT_PLAYBACK_ERROR));
    EXPECT_EQ(0u, events_.count(IMTK_PB_CTRL_EVENT_EOS));
}

// ---------------------------------------------------------------------------
// Control interface and handles
// ---------------------------------------------------------------------------

TEST_F(MtkPbEngine, ForcedResultsReplaceTheOperationUntilCleared) {
    ctl::setResult(ctl::Op::kOpen, -9);
    IMTK_PB_HANDLE_T handle = 0;
    EXPECT_EQ(-9, IMtkPb_Ctrl_Open(&handle, 2, 2, "network"));
    EXPECT_EQ(0u, handle);
    ctl::clearResult(ctl::Op::kOpen);

    open(media().mp4);
    ctl::setResult(ctl::Op::kGetMediaInfo, -1);
    EXPECT_EQ(-1, IMtkPb_Ctrl_GetMediaInfo(handle_, nullptr));
    EXPECT_EQ(0u, events_.count(IMTK_PB_CTRL_EVENT_TOTAL_TIME_UPDATE));
    ctl::setResult(ctl::Op::kPlay, -7);
    EXPECT_EQ(-7, IMtkPb_Ctrl_Play(handle_, 0));
    ctl::setResult(ctl::Op::kTimeSeek, 3);
    EXPECT_EQ(3, IMtkPb_Ctrl_TimeSeek(handle_, 1));
    EXPECT_EQ(0u, source_->report().accepted);  // nothing reached the source

    ctl::clearResult(ctl::Op::kGetMediaInfo);
    ctl::clearResult(ctl::Op::kPlay);
    ASSERT_EQ(IMTK_PB_ERROR_CODE_OK, IMtkPb_Ctrl_Play(handle_, 0));
    ASSERT_TRUE(events_.waitFor(IMTK_PB_CTRL_EVENT_EOS));
    EXPECT_EQ(0u, events_.count(IMTK_PB_CTRL_EVENT_TIMESEEK_DONE));
    EXPECT_EQ(2u, ctl::calls(ctl::Op::kOpen));
    EXPECT_EQ(2u, ctl::calls(ctl::Op::kPlay));
    EXPECT_EQ(1u, ctl::calls(ctl::Op::kTimeSeek));

    ctl::setResult(ctl::Op::kStop, -2);
    EXPECT_EQ(-2, IMtkPb_Ctrl_Stop(handle_));
    ctl::reset();
    EXPECT_EQ(IMTK_PB_ERROR_CODE_OK, IMtkPb_Ctrl_Stop(handle_));
    closeAndCheckReads();
}

TEST_F(MtkPbEngine, RpcStartUpSucceedsUnlessForced) {
    RTOS_CONFIG_T config{};
    void* address = nullptr;
    size_t size = 12582912;
    EXPECT_EQ(0, x_rtos_init(&config));
    EXPECT_EQ(0, handle_init(4096, &address, &size));
    EXPECT_EQ(0, os_init(address, size));
    EXPECT_EQ(0, c_rpc_init_client());
    EXPECT_GE(c_rpc_start_client(), 0);
    ctl::setResult(ctl::Op::kHandleInit, 5);
    ctl::setResult(ctl::Op::kRpcStartClient, -3);
    EXPECT_EQ(5, handle_init(4096, &address, &size));
    EXPECT_EQ(-3, c_rpc_start_client());
    EXPECT_EQ(2u, ctl::calls(ctl::Op::kRpcStartClient));
}

TEST_F(MtkPbEngine, InjectedNotificationsReachTheCallbackWhichMayCallTheEngine) {
    open(media().mp4);
    const IMTK_PB_HANDLE_T handle = handle_;
    std::atomic<int> posResults{0};
    events_.setHook([&](IMTK_PB_CTRL_EVENT_T, intptr_t) {
        uint32_t ms = 0;
        if (IMtkPb_Ctrl_GetCurrentPos(handle, &ms, nullptr) == IMTK_PB_ERROR_CODE_OK) posResults++;
    });
    const std::pair<IMTK_PB_CTRL_EVENT_T, intptr_t> injected[] = {
        {IMTK_PB_CTRL_EVENT_BUFFER_UNDERFLOW, 0}, {IMTK_PB_CTRL_EVENT_TIMESEEK_DONE, -1},
        {IMTK_PB_CTRL_EVENT_PLAYBACK_ERROR, 0},   {IMTK_PB_CTRL_EVENT_CUR_TIME_UPDATE, 1234},
        {IMTK_PB_CTRL_EVENT_STEP_DONE, 0},        {99, 7},
    };
    for (auto& e : injected) EXPECT_TRUE(ctl::inject(e.first, e.second));  // most recent instance
    EXPECT_TRUE(ctl::inject(IMTK_PB_CTRL_EVENT_GET_BUF_READY, 0, handle_));
    EXPECT_FALSE(ctl::inject(IMTK_PB_CTRL_EVENT_EOS, 0, handle_ + 1000));
    ASSERT_TRUE(ctl::waitForNotifications(IMTK_PB_CTRL_EVENT_GET_BUF_READY, 1, kWaitMs));

    auto all = events_.all();
    ASSERT_EQ(7u, all.size());
    for (size_t i = 0; i < 6; ++i) EXPECT_EQ(injected[i], all[i]);
    EXPECT_EQ(7, posResults.load());
    EXPECT_EQ(1u, ctl::notifications(99));  // counted with the numbers >= 16
    EXPECT_EQ(1u, ctl::notifications(IMTK_PB_CTRL_EVENT_TIMESEEK_DONE));
    closeAndCheckReads();
}

TEST_F(MtkPbEngine, DisplayRectanglesAreKept) {
    open(media().mp4);
    EngineRect full{};
    EXPECT_FALSE(ctl::displayRectangles(&full, nullptr));
    const EngineRect whole{0, 0, 1000, 1000};
    const EngineRect corner{500, 250, 400, 300};
    ASSERT_EQ(IMTK_PB_ERROR_CODE_OK, IMtkPb_Ctrl_SetDisplayRectangle(handle_, &whole, &corner));
    EngineRect output{};
    ASSERT_TRUE(ctl::displayRectangles(&full, &output));
    EXPECT_EQ(0, std::memcmp(&whole, &full, sizeof full));
    EXPECT_EQ(0, std::memcmp(&corner, &output, sizeof output));
    EXPECT_EQ(IMTK_PB_ERROR_CODE_INV_ARG, IMtkPb_Ctrl_SetDisplayRectangle(handle_, &whole, nullptr));
    closeAndCheckReads();
}

TEST_F(MtkPbEngine, BadHandlesAndArgumentsAreRefused) {
    IMTK_PB_HANDLE_T handle = 0;
    EXPECT_NE(IMTK_PB_ERROR_CODE_OK, IMtkPb_Ctrl_Open(&handle, 1, 2, "network"));
    EXPECT_NE(IMTK_PB_ERROR_CODE_OK, IMtkPb_Ctrl_Open(nullptr, 2, 2, "network"));
    EXPECT_EQ(IMTK_PB_ERROR_CODE_INV_HANDLE, IMtkPb_Ctrl_Play(12345678, 0));
    EXPECT_EQ(IMTK_PB_ERROR_CODE_INV_HANDLE, IMtkPb_Ctrl_Close(12345678));

    ASSERT_EQ(IMTK_PB_ERROR_CODE_OK, IMtkPb_Ctrl_Open(&handle, 2, 2, "network"));
    EXPECT_EQ(IMTK_PB_ERROR_CODE_INV_STATE, IMtkPb_Ctrl_Play(handle, 0));  // no source yet
    TestSource source(media().mp4);
    PullSourceParams params = source.params();
    params.mode = 1;
    EXPECT_EQ(IMTK_PB_ERROR_CODE_INV_ARG, IMtkPb_Ctrl_SetEngineParam(handle, &params));
    params.mode = IMTK_PB_CTRL_PULL_MODE_ASYNC;
    EXPECT_EQ(IMTK_PB_ERROR_CODE_OK, IMtkPb_Ctrl_SetEngineParam(handle, &params));
    EXPECT_EQ(IMTK_PB_ERROR_CODE_INV_STATE, IMtkPb_Ctrl_SetEngineParam(handle, &params));
    EXPECT_EQ(IMTK_PB_ERROR_CODE_OK, IMtkPb_Ctrl_Close(handle));
    EXPECT_EQ(IMTK_PB_ERROR_CODE_INV_HANDLE, IMtkPb_Ctrl_Close(handle));
    EXPECT_EQ(IMTK_PB_ERROR_CODE_INV_HANDLE, IMtkPb_Ctrl_GetCurrentPos(handle, nullptr, nullptr));
    EXPECT_EQ(1, source.report().closes);
}

}  // namespace
