// The software playback engine, driven through its control interface by a
// pull source written here: pread on a media file generated with ffmpeg, its
// asynchronous reads completed on the calling thread, on a completion thread
// before pb_read_async returns, or later; with options to refuse, fail or hold
// reads. The source checks the engine's side of the pull contract (app tag and
// pull handle passed unchanged, valid origins, every accepted read completed
// exactly once, no pb_abort after a completion, no read outstanding at
// pb_close).

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <deque>
#include <functional>
#include <memory>
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
#include "TestSupport.h"
#include "mtk_rpc.h"
#include "mtkpb_control.h"

namespace {

namespace ctl = mtkpb::control;

// Bound of every wait for the engine; generous for sanitizer builds.
constexpr uint32_t kWaitMs = 30000;
constexpr uint64_t kNever = UINT64_MAX;

// What the pull source does with the reads, by index (0 = the first read).
struct SourceOptions {
    uint64_t refuseFrom = kNever;  // reads with this index and later are refused
    uint64_t failFrom = kNever;    // ... complete with -1
    uint64_t holdFrom = kNever;    // ... are held until aborted or released
    bool cancelInline = false;     // complete an aborted held read inside pb_abort
};

class TestSource {
public:
    struct Report {
        int opens = 0, closes = 0;
        uint64_t accepted = 0, completed = 0, cancelled = 0, completedBeforeReturn = 0, aborts = 0;
        int64_t outstandingAtClose = -1;
        std::vector<std::string> faults;  // breaches of the pull contract by the engine
        // Accepted reads whose completion has not been delivered yet.
        int64_t outstanding() const { return int64_t(accepted - completed - cancelled); }
    };

    explicit TestSource(const std::string& path, SourceOptions options = SourceOptions())
        : fd_(::open(path.c_str(), O_RDONLY)), options_(options) {
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
        // The engine reads with pb_read_async only, and finds the size by a seek to the end.
        return PullSourceParams{IMTK_PB_CTRL_PULL_MODE_ASYNC, this, pb_open, pb_close, nullptr,
                                pb_read_async, pb_abort, pb_seek, nullptr};
    }

    Report report() {
        std::lock_guard<std::mutex> lock(mutex_);
        return report_;
    }

    bool waitHeld(size_t n) {
        std::unique_lock<std::mutex> lock(mutex_);
        return condition_.wait_for(lock, std::chrono::milliseconds(kWaitMs),
                                   [&] { return held_.size() >= n; });
    }

    // Completes the held reads and stops holding new ones.
    void releaseHeld() {
        std::lock_guard<std::mutex> lock(mutex_);
        options_.holdFrom = kNever;
        queue_.insert(queue_.end(), held_.begin(), held_.end());
        held_.clear();
        condition_.notify_all();
    }

    void setOptions(const SourceOptions& options) {
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
        bool doneCalled = false;  // the completion function is being or was called
    };

    IMTK_PULL_HANDLE_T pullHandle() const { return reinterpret_cast<uintptr_t>(this) ^ 0x5eed; }

    // Checks what every callback receives; returns with mutex_ held.
    static TestSource* enter(std::unique_lock<std::mutex>* lock, IMTK_PULL_HANDLE_T pull, void* tag,
                             bool opening = false) {
        TestSource* s = current_;
        *lock = std::unique_lock<std::mutex>(s->mutex_);
        if (tag != s) s->report_.faults.push_back("wrong app tag");
        if (!opening && pull != s->pullHandle()) s->report_.faults.push_back("wrong pull handle");
        if (!opening && !s->open_) s->report_.faults.push_back("call while closed");
        return s;
    }

    static IMTK_PB_CB_ERROR_CODE_T pb_open(IMTK_PB_HANDLE_T, IMTK_PULL_HANDLE_T* pull, void* tag) {
        std::unique_lock<std::mutex> lock;
        TestSource* s = enter(&lock, 0, tag, true);
        s->report_.opens++;
        if (s->fd_ < 0) return IMTK_PB_CB_ERROR_CODE_NOT_OK;
        s->open_ = true;
        s->position_ = 0;
        *pull = s->pullHandle();
        return IMTK_PB_CB_ERROR_CODE_OK;
    }

    static IMTK_PB_CB_ERROR_CODE_T pb_close(IMTK_PULL_HANDLE_T pull, void* tag) {
        std::unique_lock<std::mutex> lock;
        TestSource* s = enter(&lock, pull, tag);
        s->report_.closes++;
        s->report_.outstandingAtClose = s->report_.outstanding();
        s->open_ = false;
        return IMTK_PB_CB_ERROR_CODE_OK;
    }

    static IMTK_PB_CB_ERROR_CODE_T pb_read_async(IMTK_PULL_HANDLE_T pull, void* tag,
                                                 uint8_t* buffer, uint32_t count,
                                                 IMtkPb_Ctrl_PullReadAsyncNfy done, void* doneTag,
                                                 IMTK_PULL_REQ_HANDLE_T* request) {
        std::unique_lock<std::mutex> lock;
        TestSource* s = enter(&lock, pull, tag);
        const uint64_t index = s->readIndex_++;
        if (index >= s->options_.refuseFrom) return IMTK_PB_CB_ERROR_CODE_NOT_OK;
        Request* r = new Request{buffer, count, done, doneTag};
        s->live_.insert(r);
        s->report_.accepted++;
        *request = nullptr;  // written last: the completion may come first
        if (index >= s->options_.holdFrom) {
            s->held_.push_back(r);
            s->condition_.notify_all();
        } else if (index % 3 == 0) {  // on this thread, before returning
            lock.unlock();
            s->complete(r);
            lock.lock();
            s->report_.completedBeforeReturn++;
        } else if (index % 3 == 1) {  // on the completion thread, before returning
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

    static IMTK_PB_CB_ERROR_CODE_T pb_abort(IMTK_PULL_HANDLE_T pull, void* tag,
                                            IMTK_PULL_REQ_HANDLE_T request) {
        std::unique_lock<std::mutex> lock;
        TestSource* s = enter(&lock, pull, tag);
        Request* r = static_cast<Request*>(request);
        if (s->live_.count(r) == 0) {
            s->report_.faults.push_back("abort after the completion returned");
            return IMTK_PB_CB_ERROR_CODE_NOT_OK;
        }
        if (r->doneCalled || r->cancelled) return IMTK_PB_CB_ERROR_CODE_NOT_OK;
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

    static IMTK_PB_CB_ERROR_CODE_T pb_seek(IMTK_PULL_HANDLE_T pull, void* tag, int64_t offset,
                                           uint8_t origin, uint64_t* position) {
        std::unique_lock<std::mutex> lock;
        TestSource* s = enter(&lock, pull, tag);
        const int64_t bases[] = {0, s->position_, s->size_};
        if (origin < IMTK_PB_PULL_SEEK_SET || origin > IMTK_PB_PULL_SEEK_END) {
            s->report_.faults.push_back("bad seek origin");
            return IMTK_PB_CB_ERROR_CODE_NOT_OK;
        }
        const int64_t target = bases[origin - IMTK_PB_PULL_SEEK_SET] + offset;
        if (target < 0) return IMTK_PB_CB_ERROR_CODE_NOT_OK;
        s->position_ = target;
        *position = static_cast<uint64_t>(target);
        return IMTK_PB_CB_ERROR_CODE_OK;
    }

    // Delivers one completion, with mutex_ released (the engine may call
    // pb_abort meanwhile).
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
                const ssize_t n = pread(fd_, r->destination, r->count, position_);
                result = n < 0 ? IMTK_PB_PULL_READ_FAILED : IMTK_PB_PULL_READ_DONE;
                length = n < 0 ? 0 : static_cast<uint32_t>(n);
                position_ += length;
            }
            r->doneCalled = true;
            (result == IMTK_PB_PULL_READ_CANCELLED ? report_.cancelled : report_.completed)++;
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
    const int fd_;
    int64_t size_ = 0;

    std::mutex mutex_;  // guards everything below
    std::condition_variable condition_;
    SourceOptions options_;
    bool open_ = false;
    int64_t position_ = 0;
    uint64_t readIndex_ = 0, readsCompleted_ = 0, doneReturned_ = 0;
    std::set<Request*> live_;  // accepted, completion not yet returned
    std::vector<Request*> held_;
    std::deque<Request*> queue_;
    bool quit_ = false;
    Report report_;
    std::thread completer_;
};

TestSource* TestSource::current_ = nullptr;

// The notifications, in the order they arrived.
class Events {
public:
    Events() { current_ = this; }
    ~Events() { current_ = nullptr; }

    static int32_t callback(IMTK_PB_CTRL_EVENT_T event, void* tag, intptr_t data) {
        Events* e = current_;
        std::function<void(IMTK_PB_CTRL_EVENT_T)> hook;
        {
            std::lock_guard<std::mutex> lock(e->mutex_);
            e->wrongTag += tag != e;
            hook = e->hook_;
        }
        if (hook) hook(event);
        std::lock_guard<std::mutex> lock(e->mutex_);
        e->list_.emplace_back(event, data);
        e->condition_.notify_all();
        return 0;
    }

    // Called on the notification thread before an event is recorded.
    void setHook(std::function<void(IMTK_PB_CTRL_EVENT_T)> hook) {
        std::lock_guard<std::mutex> lock(mutex_);
        hook_ = std::move(hook);
    }
    bool waitFor(IMTK_PB_CTRL_EVENT_T event, size_t count = 1) {
        std::unique_lock<std::mutex> lock(mutex_);
        return condition_.wait_for(lock, std::chrono::milliseconds(kWaitMs),
                                   [&] { return dataLocked(event).size() >= count; });
    }
    std::vector<intptr_t> data(IMTK_PB_CTRL_EVENT_T event) {
        std::lock_guard<std::mutex> lock(mutex_);
        return dataLocked(event);
    }
    size_t count(IMTK_PB_CTRL_EVENT_T event) { return data(event).size(); }
    std::vector<std::pair<IMTK_PB_CTRL_EVENT_T, intptr_t>> all() {
        std::lock_guard<std::mutex> lock(mutex_);
        return list_;
    }

    std::atomic<int> wrongTag{0};

private:
    std::vector<intptr_t> dataLocked(IMTK_PB_CTRL_EVENT_T event) const {
        std::vector<intptr_t> out;
        for (const auto& e : list_) {
            if (e.first == event) out.push_back(e.second);
        }
        return out;
    }

    static Events* current_;
    std::mutex mutex_;
    std::condition_variable condition_;
    std::vector<std::pair<IMTK_PB_CTRL_EVENT_T, intptr_t>> list_;
    std::function<void(IMTK_PB_CTRL_EVENT_T)> hook_;
};

Events* Events::current_ = nullptr;

// Media generated once for the suite.
struct Media {
    testing_support::TempDir dir;
    std::string mp4 = dir.file("av.mp4");         // 3 s, index at the end
    std::string ts = dir.file("av.ts");           // 3 s MPEG-TS
    std::string longMp4 = dir.file("long.mp4");   // 10 s, a key frame every second, ~1.3 MB
    std::string garbage = dir.file("garbage.bin");
    std::string empty = dir.file("empty.bin");
    std::string why;  // empty when everything is there
};

std::unique_ptr<Media> media;

bool run(const std::string& command) { return std::system(command.c_str()) == 0; }

void makeMedia() {
    media = std::make_unique<Media>();
    Media& m = *media;
    if (!run("ffmpeg -version >/dev/null 2>&1")) {
        m.why = "ffmpeg not found on PATH; the engine tests need it to generate media";
        return;
    }
    const std::string av3 =
        "ffmpeg -nostdin -v error -y -f lavfi -i testsrc=duration=3:size=160x120:rate=25 "
        "-f lavfi -i sine=duration=3 -c:v mpeg4 -c:a aac ";
    const std::string av10 =
        "ffmpeg -nostdin -v error -y -f lavfi -i "
        "testsrc=duration=10:size=320x240:rate=25,noise=alls=30:allf=t "
        "-f lavfi -i sine=duration=10 -c:v mpeg4 -b:v 1M -g 25 -c:a aac ";
    if (!run(av3 + m.mp4) || !run(av3 + "-f mpegts " + m.ts) || !run(av10 + m.longMp4)) {
        m.why = "ffmpeg failed to generate the test media";
    }
    std::string text;
    for (int i = 0; i < 2000; ++i) {
        text += "line " + std::to_string(i) + " of a shopping list, not a medium\n";
    }
    m.dir.write("garbage.bin", std::vector<char>(text.begin(), text.end()));
    m.dir.write("empty.bin", {});
}

// The packets of `path` read directly with libavformat, hashed the way the
// engine's control documents it.
struct Demuxed {
    uint64_t checksum = ctl::kFnvOffsetBasis;
    uint64_t packets = 0;
};

Demuxed demuxDirectly(const std::string& path) {
    Demuxed d;
    AVFormatContext* format = nullptr;
    if (avformat_open_input(&format, path.c_str(), nullptr, nullptr) < 0) return d;
    AVPacket* packet = av_packet_alloc();
    const bool probed = avformat_find_stream_info(format, nullptr) >= 0;
    while (probed && av_read_frame(format, packet) >= 0) {
        d.checksum = ctl::fnv1a64(d.checksum, packet->data, static_cast<size_t>(packet->size));
        d.packets++;
        av_packet_unref(packet);
    }
    av_packet_free(&packet);
    avformat_close_input(&format);
    return d;
}

class MtkPbEngine : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        if (media == nullptr) makeMedia();
    }

    void SetUp() override {
        if (!media->why.empty()) GTEST_SKIP() << media->why;
        ctl::reset();
        ctl::setSpeed(0);
    }

    void TearDown() override {
        if (handle_ != 0) {
            ctl::clearResult(ctl::Op::kClose);
            EXPECT_EQ(IMTK_PB_ERROR_CODE_OK, IMtkPb_Ctrl_Close(handle_));
        }
        EXPECT_EQ(0, events_.wrongTag);
        EXPECT_EQ(0u, ctl::counters().protocolErrors);
        source_.reset();
        ctl::reset();
    }

    // Opens an instance over `path`, registers the recorder and hands over the source.
    void open(const std::string& path, SourceOptions options = SourceOptions()) {
        source_ = std::make_unique<TestSource>(path, options);
        ASSERT_EQ(IMTK_PB_ERROR_CODE_OK, IMtkPb_Ctrl_Open(&handle_, 2, 2, "network"));
        ASSERT_EQ(IMTK_PB_ERROR_CODE_OK,
                  IMtkPb_Ctrl_RegCallback(handle_, &events_, Events::callback));
        PullSourceParams params = source_->params();
        ASSERT_EQ(IMTK_PB_ERROR_CODE_OK, IMtkPb_Ctrl_SetEngineParam(handle_, &params));
    }

    // Closes the instance and checks that every read was completed exactly
    // once before pb_close, with none outstanding.
    void closeAndCheckReads() {
        ASSERT_EQ(IMTK_PB_ERROR_CODE_OK, IMtkPb_Ctrl_Close(handle_));
        handle_ = 0;
        const TestSource::Report r = source_->report();
        EXPECT_EQ(std::vector<std::string>(), r.faults);
        EXPECT_EQ(1, r.closes);
        EXPECT_EQ(0, r.outstandingAtClose);
        EXPECT_EQ(0, r.outstanding());
        EXPECT_EQ(ctl::counters().readsIssued, ctl::counters().readsCompleted);
        EXPECT_EQ(0u, ctl::readsOutstanding());
    }

    void play() { ASSERT_EQ(IMTK_PB_ERROR_CODE_OK, IMtkPb_Ctrl_Play(handle_, 0)); }

    uint32_t position() {
        uint32_t ms = UINT32_MAX;
        uint64_t bytes = 0;
        EXPECT_EQ(IMTK_PB_ERROR_CODE_OK, IMtkPb_Ctrl_GetCurrentPos(handle_, &ms, &bytes));
        return ms;
    }

    // The position the last time seek landed on, -1 for a failed one.
    intptr_t seekDone(size_t seeks) {
        EXPECT_TRUE(events_.waitFor(IMTK_PB_CTRL_EVENT_TIMESEEK_DONE, seeks));
        const std::vector<intptr_t> done = events_.data(IMTK_PB_CTRL_EVENT_TIMESEEK_DONE);
        return done.empty() ? INTPTR_MIN : done.back();
    }

    IMTK_PB_HANDLE_T handle_ = 0;
    std::unique_ptr<TestSource> source_;
    Events events_;
};

struct Medium {
    const char* name;
    std::string Media::*path;
};

void PrintTo(const Medium& m, std::ostream* os) { *os << m.name; }

class MtkPbEngineMedia : public MtkPbEngine, public ::testing::WithParamInterface<Medium> {
protected:
    const std::string& path() { return *media.*GetParam().path; }
};

TEST_P(MtkPbEngineMedia, MediaInfoReportsDurationThroughPullSourceOnly) {
    open(path());
    IMTK_PB_CTRL_MEDIA_INFO_T info{};
    ASSERT_EQ(IMTK_PB_ERROR_CODE_OK, IMtkPb_Ctrl_GetMediaInfo(handle_, &info));
    EXPECT_NEAR(3000, static_cast<int>(info.durationMs), 150);
    EXPECT_EQ(1u, info.videoStreams);
    EXPECT_EQ(1u, info.audioStreams);
    EXPECT_EQ(160u, info.width);
    EXPECT_EQ(120u, info.height);
    struct stat st {};
    ASSERT_EQ(0, stat(path().c_str(), &st));
    EXPECT_EQ(static_cast<uint64_t>(st.st_size), info.size);
    // The duration is announced before the call returns.
    EXPECT_EQ(std::vector<intptr_t>{static_cast<intptr_t>(info.durationMs)},
              events_.data(IMTK_PB_CTRL_EVENT_TOTAL_TIME_UPDATE));
    EXPECT_EQ(1, source_->report().opens);
    EXPECT_GT(source_->report().completedBeforeReturn, 0u);
    closeAndCheckReads();
}

// Played at 20 times real time, then again after the end as fast as the data comes.
TEST_P(MtkPbEngineMedia, PlaysTheFilesPacketsToTheEndWithIncreasingTimeUpdates) {
    const Demuxed expected = demuxDirectly(path());
    ASSERT_GT(expected.packets, 100u);
    ctl::setSpeed(20);
    open(path());
    play();  // probes on its own
    ASSERT_TRUE(events_.waitFor(IMTK_PB_CTRL_EVENT_EOS));
    EXPECT_EQ(expected.packets, ctl::counters().packets);
    EXPECT_EQ(expected.checksum, ctl::packetChecksum());

    const auto all = events_.all();
    const auto firstOf = [&](IMTK_PB_CTRL_EVENT_T event) {
        return std::find_if(all.begin(), all.end(),
                            [&](const auto& e) { return e.first == event; });
    };
    EXPECT_LT(firstOf(IMTK_PB_CTRL_EVENT_PLAYED), firstOf(IMTK_PB_CTRL_EVENT_CUR_TIME_UPDATE));
    EXPECT_EQ(IMTK_PB_CTRL_EVENT_EOS, all.back().first);
    const std::vector<intptr_t> times = events_.data(IMTK_PB_CTRL_EVENT_CUR_TIME_UPDATE);
    ASSERT_GE(times.size(), 8u);  // one every 250 ms of 3 s
    for (size_t i = 1; i < times.size(); ++i) EXPECT_LT(times[i - 1], times[i]) << i;
    EXPECT_LE(times.front(), 250);
    EXPECT_GE(times.back(), 2700);
    EXPECT_GE(position(), 2700u);

    ctl::setSpeed(0);
    play();
    ASSERT_TRUE(events_.waitFor(IMTK_PB_CTRL_EVENT_EOS, 2));
    EXPECT_EQ(2 * expected.packets, ctl::counters().packets) << "Play after the end demuxes afresh";
    EXPECT_EQ(0u, events_.count(IMTK_PB_CTRL_EVENT_PLAYBACK_ERROR));
    closeAndCheckReads();
    EXPECT_EQ(source_->report().accepted, ctl::counters().readsIssued);
}

INSTANTIATE_TEST_SUITE_P(Media, MtkPbEngineMedia,
                         ::testing::Values(Medium{"Mp4IndexAtEnd", &Media::mp4},
                                           Medium{"MpegTs", &Media::ts}),
                         [](const auto& info) { return std::string(info.param.name); });

TEST_F(MtkPbEngine, MediaInfoFailsOnWhatIsNotAMediumOrWhenTheSourceFails) {
    SourceOptions refuse, fail;
    refuse.refuseFrom = 0;
    fail.failFrom = 0;
    const std::pair<const std::string*, SourceOptions> cases[] = {
        {&media->garbage, {}}, {&media->empty, {}}, {&media->mp4, refuse}, {&media->mp4, fail}};
    for (const auto& c : cases) {
        SCOPED_TRACE(*c.first);
        open(*c.first, c.second);
        EXPECT_NE(IMTK_PB_ERROR_CODE_OK, IMtkPb_Ctrl_GetMediaInfo(handle_, nullptr));
        EXPECT_NE(IMTK_PB_ERROR_CODE_OK, IMtkPb_Ctrl_Play(handle_, 0));
        EXPECT_EQ(0u, events_.count(IMTK_PB_CTRL_EVENT_PLAYED));
        closeAndCheckReads();
        ctl::reset();
    }
}

TEST_F(MtkPbEngine, PauseHoldsAndTimeSeekLandsNearTheTargetOrReportsMinusOne) {
    ctl::setSpeed(1);  // slow enough that playback is still early when Pause comes
    open(media->longMp4);
    play();
    ASSERT_TRUE(events_.waitFor(IMTK_PB_CTRL_EVENT_CUR_TIME_UPDATE));
    // Paused, at most the packet being read when Pause came gets through, and
    // the position stays where each seek lands.
    ASSERT_EQ(IMTK_PB_ERROR_CODE_OK, IMtkPb_Ctrl_Pause(handle_));
    const uint64_t atPause = ctl::counters().packets;
    EXPECT_FALSE(ctl::waitUntil([&] { return ctl::counters().packets > atPause + 1; }, 300));
    size_t seeks = 0;
    for (intptr_t target : {6, 2, 9, 0}) {
        SCOPED_TRACE(target);
        ASSERT_EQ(IMTK_PB_ERROR_CODE_OK,
                  IMtkPb_Ctrl_TimeSeek(handle_, static_cast<uint32_t>(target)));
        const intptr_t landed = seekDone(++seeks);
        // A key frame every second: at most a second before the target.
        EXPECT_LE(landed, target * 1000 + 100);
        EXPECT_GE(landed, target * 1000 - 1000);
        EXPECT_EQ(static_cast<uint32_t>(landed), position());
    }
    // Beyond the end: accepted, reported as failed, the position unchanged.
    ASSERT_EQ(IMTK_PB_ERROR_CODE_OK, IMtkPb_Ctrl_TimeSeek(handle_, 60));
    EXPECT_EQ(-1, seekDone(++seeks));
    EXPECT_EQ(0u, position());
    ctl::setSpeed(0);
    play();
    ASSERT_TRUE(events_.waitFor(IMTK_PB_CTRL_EVENT_EOS));
    EXPECT_EQ(2u, events_.count(IMTK_PB_CTRL_EVENT_PLAYED));
    EXPECT_GE(events_.data(IMTK_PB_CTRL_EVENT_CUR_TIME_UPDATE).back(), 9500);
    closeAndCheckReads();
}

TEST_F(MtkPbEngine, TimeSeekFailsWhenTheSourceFailsDuringTheSeek) {
    open(media->longMp4);
    ASSERT_EQ(IMTK_PB_ERROR_CODE_OK, IMtkPb_Ctrl_GetMediaInfo(handle_, nullptr));
    SourceOptions fail;
    fail.failFrom = 0;
    source_->setOptions(fail);
    ASSERT_EQ(IMTK_PB_ERROR_CODE_OK, IMtkPb_Ctrl_TimeSeek(handle_, 7));
    EXPECT_EQ(-1, seekDone(1));
    closeAndCheckReads();
}

TEST_F(MtkPbEngine, TimeSeekFromInsidePlayedNotification) {
    ctl::setSpeed(1);
    open(media->longMp4);
    const IMTK_PB_HANDLE_T handle = handle_;
    std::atomic<int32_t> seekResult{1};
    events_.setHook([&](IMTK_PB_CTRL_EVENT_T event) {
        if (event == IMTK_PB_CTRL_EVENT_PLAYED) seekResult = IMtkPb_Ctrl_TimeSeek(handle, 5);
    });
    play();
    const intptr_t landed = seekDone(1);
    EXPECT_EQ(IMTK_PB_ERROR_CODE_OK, seekResult);
    EXPECT_GE(landed, 4000);
    EXPECT_LE(landed, 5100);
    events_.setHook(nullptr);
    ctl::setSpeed(0);
    ASSERT_TRUE(events_.waitFor(IMTK_PB_CTRL_EVENT_EOS));
    // After the seek, time updates continue from the new position.
    EXPECT_GE(events_.data(IMTK_PB_CTRL_EVENT_CUR_TIME_UPDATE).back(), 9500);
    closeAndCheckReads();
}

struct AbortCase {
    const char* name;
    bool close;         // Close without Stop first
    bool cancelInline;  // the source completes the aborted read inside pb_abort
    uint64_t holdFrom;  // the read that is held; 0 holds the probe of Play
};

void PrintTo(const AbortCase& c, std::ostream* os) { *os << c.name; }

class MtkPbEngineAbort : public MtkPbEngine, public ::testing::WithParamInterface<AbortCase> {};

TEST_P(MtkPbEngineAbort, OutstandingReadIsAbortedAndCompletedOnceBeforeReturn) {
    const AbortCase& c = GetParam();
    SourceOptions options;
    options.holdFrom = c.holdFrom;
    options.cancelInline = c.cancelInline;
    open(media->longMp4, options);
    std::atomic<int32_t> playResult{1};
    std::thread player([&] { playResult = IMtkPb_Ctrl_Play(handle_, 0); });
    const bool held = source_->waitHeld(1);
    if (!held) source_->releaseHeld();
    const bool probing = c.holdFrom == 0;
    if (!probing) player.join();
    if (c.close) {
        closeAndCheckReads();
    } else {
        EXPECT_EQ(IMTK_PB_ERROR_CODE_OK, IMtkPb_Ctrl_Stop(handle_));
        const TestSource::Report r = source_->report();
        EXPECT_EQ(0, r.outstanding());
        EXPECT_EQ(1u, r.aborts);
        EXPECT_EQ(1u, r.cancelled);
        EXPECT_EQ(0, r.closes);
    }
    if (probing) player.join();
    ASSERT_TRUE(held);
    if (!c.close) closeAndCheckReads();
    // An aborted probe fails Play; an aborted playback is no error.
    EXPECT_EQ(probing, playResult != IMTK_PB_ERROR_CODE_OK);
    EXPECT_EQ(probing ? 0u : 1u, events_.count(IMTK_PB_CTRL_EVENT_PLAYED));
    EXPECT_EQ(1u, ctl::counters().readsAborted);
    EXPECT_EQ(1u, ctl::counters().readsCancelled);
    EXPECT_EQ(0u, events_.count(IMTK_PB_CTRL_EVENT_EOS));
    EXPECT_EQ(0u, events_.count(IMTK_PB_CTRL_EVENT_PLAYBACK_ERROR));
}

INSTANTIATE_TEST_SUITE_P(
    Abort, MtkPbEngineAbort,
    ::testing::Values(AbortCase{"StopWhileProbing", false, false, 0},
                      AbortCase{"StopWhilePlaying", false, false, 12},
                      AbortCase{"StopWhilePlayingCancelInline", false, true, 12},
                      AbortCase{"CloseWhilePlaying", true, false, 12},
                      AbortCase{"CloseWhilePlayingCancelInline", true, true, 13}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(MtkPbEngine, StopEndsAPendingSeekAsFailedAndPlayStartsOver) {
    SourceOptions options;
    options.holdFrom = 12;
    open(media->longMp4, options);
    play();
    ASSERT_TRUE(source_->waitHeld(1));
    ASSERT_EQ(IMTK_PB_ERROR_CODE_OK, IMtkPb_Ctrl_TimeSeek(handle_, 4));
    ASSERT_EQ(IMTK_PB_ERROR_CODE_OK, IMtkPb_Ctrl_Stop(handle_));
    EXPECT_EQ(-1, seekDone(1));
    EXPECT_EQ(0u, position());

    source_->releaseHeld();
    ctl::reset();
    ctl::setSpeed(0);
    play();
    ASSERT_TRUE(events_.waitFor(IMTK_PB_CTRL_EVENT_EOS));
    EXPECT_EQ(demuxDirectly(media->longMp4).checksum, ctl::packetChecksum());
    closeAndCheckReads();
}

TEST_F(MtkPbEngine, HeldSourceReportsUnderflowThenBufferHighWhenReleased) {
    SourceOptions options;
    options.holdFrom = 12;
    open(media->longMp4, options);
    play();
    ASSERT_TRUE(events_.waitFor(IMTK_PB_CTRL_EVENT_BUFFER_UNDERFLOW));
    EXPECT_EQ(0u, events_.count(IMTK_PB_CTRL_EVENT_BUFFER_HIGH));
    source_->releaseHeld();
    ASSERT_TRUE(events_.waitFor(IMTK_PB_CTRL_EVENT_BUFFER_HIGH));
    ASSERT_TRUE(events_.waitFor(IMTK_PB_CTRL_EVENT_EOS));
    EXPECT_EQ(1u, events_.count(IMTK_PB_CTRL_EVENT_BUFFER_UNDERFLOW));
    closeAndCheckReads();
}

TEST_F(MtkPbEngine, FailingSourceDuringPlaybackReportsPlaybackError) {
    SourceOptions refuse, fail;
    refuse.refuseFrom = 8;
    fail.failFrom = 8;
    size_t errors = 0;
    for (const SourceOptions& options : {refuse, fail}) {
        open(media->longMp4, options);
        play();
        ASSERT_TRUE(events_.waitFor(IMTK_PB_CTRL_EVENT_PLAYBACK_ERROR, ++errors));
        closeAndCheckReads();
        ctl::reset();
        ctl::setSpeed(0);
    }
    EXPECT_EQ(0u, events_.count(IMTK_PB_CTRL_EVENT_EOS));
}

TEST_F(MtkPbEngine, ForcedResultsReplaceTheOperationUntilCleared) {
    ctl::setResult(ctl::Op::kOpen, -9);
    IMTK_PB_HANDLE_T handle = 0;
    EXPECT_EQ(-9, IMtkPb_Ctrl_Open(&handle, 2, 2, "network"));
    EXPECT_EQ(0u, handle);
    ctl::clearResult(ctl::Op::kOpen);

    open(media->mp4);
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
    play();
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

    // The start-up calls of the box.
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
    open(media->mp4);
    const IMTK_PB_HANDLE_T handle = handle_;
    std::atomic<int> positions{0};
    events_.setHook([&](IMTK_PB_CTRL_EVENT_T) {
        uint32_t ms = 0;
        positions += IMtkPb_Ctrl_GetCurrentPos(handle, &ms, nullptr) == IMTK_PB_ERROR_CODE_OK;
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
    const auto all = events_.all();
    ASSERT_EQ(7u, all.size());
    for (size_t i = 0; i < 6; ++i) EXPECT_EQ(injected[i], all[i]);
    EXPECT_EQ(7, positions);
    EXPECT_EQ(1u, ctl::notifications(99));  // counted with the numbers >= 16
    EXPECT_EQ(1u, ctl::notifications(IMTK_PB_CTRL_EVENT_TIMESEEK_DONE));
    closeAndCheckReads();
}

TEST_F(MtkPbEngine, BadHandlesArgumentsAndSourcesAreRefused) {
    IMTK_PB_HANDLE_T handle = 0;
    EXPECT_NE(IMTK_PB_ERROR_CODE_OK, IMtkPb_Ctrl_Open(&handle, 1, 2, "network"));
    EXPECT_NE(IMTK_PB_ERROR_CODE_OK, IMtkPb_Ctrl_Open(nullptr, 2, 2, "network"));
    EXPECT_EQ(IMTK_PB_ERROR_CODE_INV_HANDLE, IMtkPb_Ctrl_Play(12345678, 0));
    EXPECT_EQ(IMTK_PB_ERROR_CODE_INV_HANDLE, IMtkPb_Ctrl_Close(12345678));
    {
        // pb_open fails: the source is refused and never closed.
        TestSource missing(media->dir.file("missing.mp4"));
        PullSourceParams params = missing.params();
        ASSERT_EQ(IMTK_PB_ERROR_CODE_OK, IMtkPb_Ctrl_Open(&handle, 2, 2, "network"));
        EXPECT_NE(IMTK_PB_ERROR_CODE_OK, IMtkPb_Ctrl_SetEngineParam(handle, &params));
        EXPECT_NE(IMTK_PB_ERROR_CODE_OK, IMtkPb_Ctrl_Play(handle, 0));
        EXPECT_EQ(IMTK_PB_ERROR_CODE_OK, IMtkPb_Ctrl_Close(handle));
        EXPECT_EQ(0, missing.report().closes);
    }
    TestSource source(media->mp4);
    PullSourceParams params = source.params();
    ASSERT_EQ(IMTK_PB_ERROR_CODE_OK, IMtkPb_Ctrl_Open(&handle, 2, 2, "network"));
    EXPECT_EQ(IMTK_PB_ERROR_CODE_INV_STATE, IMtkPb_Ctrl_Play(handle, 0));  // no source yet
    params.mode = 1;
    EXPECT_EQ(IMTK_PB_ERROR_CODE_INV_ARG, IMtkPb_Ctrl_SetEngineParam(handle, &params));
    params.mode = IMTK_PB_CTRL_PULL_MODE_ASYNC;
    EXPECT_EQ(IMTK_PB_ERROR_CODE_OK, IMtkPb_Ctrl_SetEngineParam(handle, &params));
    EXPECT_EQ(IMTK_PB_ERROR_CODE_INV_STATE, IMtkPb_Ctrl_SetEngineParam(handle, &params));
    const EngineRect whole{0, 0, 1000, 1000}, corner{500, 250, 400, 300};
    EXPECT_EQ(IMTK_PB_ERROR_CODE_INV_ARG, IMtkPb_Ctrl_SetDisplayRectangle(handle, &whole, nullptr));
    EXPECT_EQ(IMTK_PB_ERROR_CODE_OK, IMtkPb_Ctrl_SetDisplayRectangle(handle, &whole, &corner));
    EngineRect full{}, output{};
    ASSERT_TRUE(ctl::displayRectangles(&full, &output));
    EXPECT_EQ(0, std::memcmp(&whole, &full, sizeof full));
    EXPECT_EQ(0, std::memcmp(&corner, &output, sizeof output));
    EXPECT_EQ(IMTK_PB_ERROR_CODE_OK, IMtkPb_Ctrl_Close(handle));
    EXPECT_EQ(IMTK_PB_ERROR_CODE_INV_HANDLE, IMtkPb_Ctrl_Close(handle));
    EXPECT_EQ(IMTK_PB_ERROR_CODE_INV_HANDLE, IMtkPb_Ctrl_GetCurrentPos(handle, nullptr, nullptr));
    EXPECT_EQ(1, source.report().closes);
}

}  // namespace
