// The software playback engine, driven through its control interface by a
// pull source written here: pread on a media file generated with ffmpeg, its
// asynchronous reads completed on the calling thread, on a completion thread
// before pb_read_async returns, or later; with options to refuse, fail or hold
// reads. The source checks the engine's side of the pull contract (app tag and
// pull handle passed unchanged, valid origins, every accepted read completed
// exactly once, no pb_abort after a completion, no read outstanding at
// pb_close). At speed 1 the engine decodes and presents, off screen and into
// a null sink (or SDL's disk driver): what it decoded, showed and gave the
// sound device is compared with FFmpeg's decode of the same clips.

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <deque>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <SDL2/SDL.h>

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
};

class TestSource {
public:
    struct Report {
        int closes = 0;
        uint64_t accepted = 0, completed = 0, cancelled = 0, aborts = 0;
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
        } else if (index % 3 == 1) {  // on the completion thread, before returning
            s->queue_.push_back(r);
            s->condition_.notify_all();
            const uint64_t target = s->doneReturned_ + 1;
            s->condition_.wait(lock, [&] { return s->doneReturned_ >= target || s->quit_; });
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
        std::lock_guard<std::mutex> lock(e->mutex_);
        e->wrongTag += tag != e;
        e->list_.emplace_back(event, data);
        e->condition_.notify_all();
        return 0;
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
    // The position a listener holds when `marker` arrives for the n-th time:
    // the last CUR_TIME_UPDATE before it (-1: none).
    intptr_t timeAt(IMTK_PB_CTRL_EVENT_T marker, size_t n) {
        std::lock_guard<std::mutex> lock(mutex_);
        intptr_t time = -1;
        for (const auto& e : list_) {
            if (e.first == IMTK_PB_CTRL_EVENT_CUR_TIME_UPDATE) time = e.second;
            if (e.first == marker && --n == 0) return time;
        }
        return -1;
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
};

Events* Events::current_ = nullptr;

// Media generated once for the suite.
struct Media {
    testing_support::TempDir dir;
    std::string longMp4 = dir.file("long.mp4");   // 10 s, a key frame every second, ~1.3 MB
    std::string garbage = dir.file("garbage.bin");
    std::string empty = dir.file("empty.bin");
    // For presenting, small enough for the armhf suite under the emulator.
    std::string h264 = dir.file("h264.mp4");    // 2 s 320x180 H.264, AAC stereo 48 kHz
    std::string flash = dir.file("flash.mp4");  // 3 s: a white picture and a beep at each second;
                                                // key frames every 1.6 s
    std::string grey = dir.file("grey.mp4");    // 1 s 320x180 grey, pictures only
    std::string tone = dir.file("tone.m4a");    // 1 s of sound only
    std::string noVideoCodec = dir.file("novideo.mkv");  // pictures in a codec nobody decodes
    std::string noAudioCodec = dir.file("noaudio.mkv");  // sound in a codec nobody decodes
    std::string corrupt = dir.file("corrupt.ts");        // H.264 with a damaged stretch
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
    const std::string av10 =
        "ffmpeg -nostdin -v error -y -f lavfi -i "
        "testsrc=duration=10:size=320x240:rate=25,noise=alls=30:allf=t "
        "-f lavfi -i sine=duration=10 -c:v mpeg4 -b:v 1M -g 25 -c:a aac ";
    const std::string ff = "ffmpeg -nostdin -v error -y ";
    const std::string small = "-f lavfi -i testsrc2=duration=2:size=320x180:rate=25 "
                              "-f lavfi -i sine=duration=2:sample_rate=48000 -ac 2 "
                              "-c:v libx264 -preset veryfast -g 25 -pix_fmt yuv420p -c:a aac ";
    const std::string flash =
        "-f lavfi -i color=c=black:size=320x180:rate=25:duration=3 -f lavfi -i "
        "sine=frequency=1000:duration=3:sample_rate=48000 -vf \"drawbox=c=white:t=fill:"
        "enable='lt(mod(t,1),0.04)'\" -af \"volume=volume=0:enable='gte(mod(t,1),0.04)'\" "
        "-c:v libx264 -preset veryfast -g 40 -pix_fmt yuv420p -c:a aac ";
    if (!run(av10 + m.longMp4) ||
        !run(ff + small + m.h264) || !run(ff + flash + m.flash) ||
        !run(ff + "-f lavfi -i color=c=gray:size=320x180:rate=25:duration=1 -c:v libx264 "
                  "-pix_fmt yuv420p " + m.grey) ||
        !run(ff + "-f lavfi -i sine=duration=1 -c:a aac " + m.tone) ||
        !run(ff + small + "-f mpegts " + m.corrupt) ||
        !run(ff + small + m.dir.file("av.mkv"))) {
        m.why = "ffmpeg failed to generate the test media";
        return;
    }
    // Matroska names codecs by text: an unknown name leaves one stream
    // without a decoder. The damage: a stretch in the middle of the stream.
    const std::string mkv = testing_support::readAll(m.dir.file("av.mkv"));
    const auto renamed = [&](const std::string& from, const std::string& to) {
        std::string bytes = mkv;
        bytes.replace(bytes.find(from), to.size(), to);
        return std::vector<char>(bytes.begin(), bytes.end());
    };
    m.dir.write("novideo.mkv", renamed("V_MPEG4/ISO/AVC", "V_XYZZY/ISO/AVC"));
    m.dir.write("noaudio.mkv", renamed("A_AAC", "A_XYZ"));
    std::string ts = testing_support::readAll(m.corrupt);
    for (size_t i = ts.size() / 2; i < ts.size() / 2 + 4000; ++i) {
        if (i % 188 > 8) ts[i] = static_cast<char>(i * 7);  // payload only, headers kept
    }
    m.dir.write("corrupt.ts", std::vector<char>(ts.begin(), ts.end()));
    std::string text;
    for (int i = 0; i < 2000; ++i) {
        text += "line " + std::to_string(i) + " of a shopping list, not a medium\n";
    }
    m.dir.write("garbage.bin", std::vector<char>(text.begin(), text.end()));
    m.dir.write("empty.bin", {});
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

    // Ends a row of a table: the instance is closed and checked, the engine starts afresh.
    void nextRow(uint32_t speed) {
        closeAndCheckReads();
        ctl::reset();
        ctl::setSpeed(speed);
    }

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

// What is not a medium, or a source refusing or failing reads, fails the
// probe (Play refused), ends the playback in an error, or fails a seek.
TEST_F(MtkPbEngine, NoMediumOrAFailingSourceFailsTheProbeThePlaybackOrTheSeek) {
    enum Stage { kProbe, kPlayback, kSeek };
    struct Row {
        const std::string* path;
        uint64_t refuseFrom, failFrom;
        Stage stage;
    };
    const Row rows[] = {
        {&media->garbage, kNever, kNever, kProbe}, {&media->empty, kNever, kNever, kProbe},
        {&media->h264, 0, kNever, kProbe},         {&media->h264, kNever, 0, kProbe},
        {&media->longMp4, 8, kNever, kPlayback},   {&media->longMp4, kNever, 8, kPlayback},
        {&media->longMp4, kNever, 0, kSeek},  // failing once the probe is done
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(::testing::Message() << *row.path << " row " << (&row - rows));
        SourceOptions options;
        options.refuseFrom = row.refuseFrom;
        options.failFrom = row.failFrom;
        open(*row.path, row.stage == kSeek ? SourceOptions() : options);
        if (row.stage == kProbe) {
            EXPECT_NE(IMTK_PB_ERROR_CODE_OK, IMtkPb_Ctrl_GetMediaInfo(handle_, nullptr));
            EXPECT_NE(IMTK_PB_ERROR_CODE_OK, IMtkPb_Ctrl_Play(handle_, 0));
            EXPECT_EQ(0u, events_.count(IMTK_PB_CTRL_EVENT_PLAYED));
        } else if (row.stage == kPlayback) {
            const size_t errors = events_.count(IMTK_PB_CTRL_EVENT_PLAYBACK_ERROR);
            play();
            ASSERT_TRUE(events_.waitFor(IMTK_PB_CTRL_EVENT_PLAYBACK_ERROR, errors + 1));
        } else {
            ASSERT_EQ(IMTK_PB_ERROR_CODE_OK, IMtkPb_Ctrl_GetMediaInfo(handle_, nullptr));
            source_->setOptions(options);
            ASSERT_EQ(IMTK_PB_ERROR_CODE_OK, IMtkPb_Ctrl_TimeSeek(handle_, 7));
            EXPECT_EQ(-1, seekDone(1));
        }
        EXPECT_EQ(0u, events_.count(IMTK_PB_CTRL_EVENT_EOS));
        nextRow(0);
    }
}

// A stop while Play probes aborts the probe's read: Play fails, no error.
TEST_F(MtkPbEngine, StopWhileProbingFailsPlay) {
    SourceOptions options;
    options.holdFrom = 0;
    open(media->longMp4, options);
    std::atomic<int32_t> playResult{IMTK_PB_ERROR_CODE_OK};
    std::thread player([&] { playResult = IMtkPb_Ctrl_Play(handle_, 0); });
    const bool held = source_->waitHeld(1);
    if (!held) source_->releaseHeld();
    EXPECT_EQ(IMTK_PB_ERROR_CODE_OK, IMtkPb_Ctrl_Stop(handle_));
    player.join();
    ASSERT_TRUE(held);
    EXPECT_NE(IMTK_PB_ERROR_CODE_OK, playResult);
    EXPECT_EQ(0u, events_.count(IMTK_PB_CTRL_EVENT_PLAYED));
    EXPECT_EQ(0u, events_.count(IMTK_PB_CTRL_EVENT_PLAYBACK_ERROR));
    closeAndCheckReads();
}

TEST_F(MtkPbEngine, StopEndsAPendingSeekAsFailedAndPlayStartsOver) {
    SourceOptions options;
    options.holdFrom = 12;
    open(media->longMp4, options);
    play();
    ASSERT_TRUE(source_->waitHeld(1));
    ASSERT_EQ(IMTK_PB_ERROR_CODE_OK, IMtkPb_Ctrl_TimeSeek(handle_, 4));
    ASSERT_EQ(IMTK_PB_ERROR_CODE_OK, IMtkPb_Ctrl_Stop(handle_));
    // The held read was aborted and its completion had come before Stop returned.
    const TestSource::Report r = source_->report();
    EXPECT_EQ(0, r.outstanding());
    EXPECT_EQ(1u, r.aborts);
    EXPECT_EQ(1u, r.cancelled);
    EXPECT_EQ(-1, seekDone(1));
    EXPECT_EQ(0u, position());

    source_->releaseHeld();
    ctl::reset();
    ctl::setSpeed(0);
    play();
    ASSERT_TRUE(events_.waitFor(IMTK_PB_CTRL_EVENT_EOS));
    EXPECT_NE(ctl::kFnvOffsetBasis, ctl::packetChecksum());
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

// The box's start-up calls succeed, or return what is forced (the player and
// playback suites force the instance's calls and inject its notifications).
TEST_F(MtkPbEngine, StartUpCallsReturnWhatIsForced) {
    RTOS_CONFIG_T config{};
    void* address = nullptr;
    size_t size = 12 * 1024 * 1024;
    for (int32_t forced : {0, 5}) {
        if (forced != 0) {
            for (ctl::Op op : {ctl::Op::kRtosInit, ctl::Op::kHandleInit, ctl::Op::kOsInit,
                               ctl::Op::kRpcInitClient, ctl::Op::kRpcStartClient}) {
                ctl::setResult(op, forced);
            }
        }
        EXPECT_EQ(forced, x_rtos_init(&config));
        EXPECT_EQ(forced, handle_init(4096, &address, &size));
        EXPECT_EQ(forced, os_init(address, size));
        EXPECT_EQ(forced, c_rpc_init_client());
        EXPECT_EQ(forced, c_rpc_start_client());
    }
    EXPECT_EQ(2u, ctl::calls(ctl::Op::kRpcStartClient));
}

// A notification injected for one instance reaches its callback; an unknown
// instance is refused.
TEST_F(MtkPbEngine, InjectedNotificationsReachTheNamedInstanceOnly) {
    open(media->h264);
    EXPECT_TRUE(ctl::inject(IMTK_PB_CTRL_EVENT_GET_BUF_READY, 5, handle_));
    EXPECT_FALSE(ctl::inject(IMTK_PB_CTRL_EVENT_EOS, 0, handle_ + 1000));
    ASSERT_TRUE(ctl::waitForNotifications(IMTK_PB_CTRL_EVENT_GET_BUF_READY, 1, kWaitMs));
    EXPECT_EQ(std::vector<intptr_t>{5}, events_.data(IMTK_PB_CTRL_EVENT_GET_BUF_READY));
    EXPECT_EQ(0u, events_.count(IMTK_PB_CTRL_EVENT_EOS));
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
    TestSource source(media->h264);
    PullSourceParams params = source.params();
    ASSERT_EQ(IMTK_PB_ERROR_CODE_OK, IMtkPb_Ctrl_Open(&handle, 2, 2, "network"));
    EXPECT_EQ(IMTK_PB_ERROR_CODE_INV_STATE, IMtkPb_Ctrl_Play(handle, 0));  // no source yet
    params.mode = 1;
    EXPECT_EQ(IMTK_PB_ERROR_CODE_INV_ARG, IMtkPb_Ctrl_SetEngineParam(handle, &params));
    params.mode = IMTK_PB_CTRL_PULL_MODE_ASYNC;
    EXPECT_EQ(IMTK_PB_ERROR_CODE_OK, IMtkPb_Ctrl_SetEngineParam(handle, &params));
    EXPECT_EQ(IMTK_PB_ERROR_CODE_INV_STATE, IMtkPb_Ctrl_SetEngineParam(handle, &params));
    const EngineRect whole{0, 0, 1000, 1000};
    EXPECT_EQ(IMTK_PB_ERROR_CODE_INV_ARG, IMtkPb_Ctrl_SetDisplayRectangle(handle, &whole, nullptr));
    EXPECT_EQ(IMTK_PB_ERROR_CODE_OK, IMtkPb_Ctrl_Close(handle));
    EXPECT_EQ(IMTK_PB_ERROR_CODE_INV_HANDLE, IMtkPb_Ctrl_Close(handle));
    EXPECT_EQ(IMTK_PB_ERROR_CODE_INV_HANDLE, IMtkPb_Ctrl_GetCurrentPos(handle, nullptr, nullptr));
    EXPECT_EQ(1, source.report().closes);
}

// ---- Presenting: what a viewer sees and hears at speed 1 ---------------------

constexpr int kScreenWidth = 1280, kScreenHeight = 720;

// What `command` writes on its standard output.
std::string output(const std::string& command) {
    const std::string path = media->dir.file("output.bin");
    EXPECT_TRUE(run(command + " > " + path)) << command;
    return testing_support::readAll(path);
}

// A rectangle of screen pixels.
struct PixelRect {
    int x, y, w, h;
};

class MtkPbPresenting : public MtkPbEngine {
protected:
    void SetUp() override {
        MtkPbEngine::SetUp();
        setenv("MTKPB_VIDEO", "offscreen", 1);
        setenv("MTKPB_AUDIO", "null", 1);
        ctl::setSpeed(1);
    }
    void TearDown() override {
        const EngineRect whole{0, 0, 1000, 1000};
        if (handle_ != 0) IMtkPb_Ctrl_SetDisplayRectangle(handle_, &whole, &whole);
        MtkPbEngine::TearDown();
    }
    void playToTheEnd(const std::string& path) {
        const size_t ends = events_.count(IMTK_PB_CTRL_EVENT_EOS);
        open(path);
        play();
        ASSERT_TRUE(events_.waitFor(IMTK_PB_CTRL_EVENT_EOS, ends + 1));
    }
    ctl::Picture picture() {
        ctl::Picture p;
        EXPECT_TRUE(ctl::lastPicture(&p));
        return p;
    }
    // Waits until a picture at or after `ms` of media time has been shown.
    void shownFrom(int64_t ms) {
        ASSERT_TRUE(ctl::waitUntil(
            [&] {
                const std::vector<ctl::Presented> shown = ctl::presented();
                return !shown.empty() && shown.back().timeMs >= ms;
            },
            kWaitMs));
    }
    // The screen is read back (composed in software) only where a test looks at it.
    ctl::Picture pictureFrom(int64_t ms) {
        ctl::Picture p;
        EXPECT_TRUE(ctl::waitUntil([&] { return ctl::lastPicture(&p) && p.timeMs >= ms; }, kWaitMs));
        return p;
    }
};

// H.264 decoding is bit-exact: every picture decoded, in order and with its
// time, is the one FFmpeg decodes.
TEST_F(MtkPbPresenting, DecodedPicturesAreFfmpegsDecodeWithTheirTimes) {
    ctl::setFrameHashing(true);
    playToTheEnd(media->h264);
    std::vector<std::string> expected;
    double msPerTick = 0;
    for (const std::string& line : testing_support::lines(output(
             "ffmpeg -nostdin -v error -i " + media->h264 + " -an -fps_mode passthrough -f framemd5 -"))) {
        int num = 0, den = 0;
        if (std::sscanf(line.c_str(), "#tb 0: %d/%d", &num, &den) == 2) msPerTick = 1000.0 * num / den;
        if (line.empty() || line[0] == '#') continue;
        // stream, dts, pts, duration, size, md5
        std::vector<std::string> fields;
        for (const std::string& f : testing_support::lines(line, ',')) {
            fields.push_back(f.substr(f.find_first_not_of(' ')));
        }
        expected.push_back(std::to_string(std::llround(std::stoll(fields[2]) * msPerTick)) + " ms " + fields[5]);
    }
    std::vector<std::string> decoded;
    for (const ctl::DecodedFrame& f : ctl::decodedFrames()) {
        decoded.push_back(std::to_string(std::llround(1000.0 * f.pts * f.timeBaseNum / f.timeBaseDen)) + " ms " +
                          f.md5);
    }
    ASSERT_EQ(50u, expected.size());
    EXPECT_EQ(expected, decoded);
}

// At 1:1 (a 320x180 picture in a quarter of the 1280x720 screen) the screen
// shows the picture converted as BT.601 says, within 4 per channel; paused,
// picture and clock hold; played again, they go on to the end.
TEST_F(MtkPbPresenting, PausedPictureIsTheDecodedOneAndPauseHoldsPictureAndClock) {
    ctl::setScreenCapture(true);
    open(media->h264);
    const EngineRect whole{0, 0, 1000, 1000}, quarter{250, 250, 250, 250};
    ASSERT_EQ(IMTK_PB_ERROR_CODE_OK, IMtkPb_Ctrl_SetDisplayRectangle(handle_, &whole, &quarter));
    play();
    pictureFrom(600);
    ASSERT_EQ(IMTK_PB_ERROR_CODE_OK, IMtkPb_Ctrl_Pause(handle_));
    const uint32_t at = position();
    // The picture due at the paused clock may reach the screen a moment after
    // the pause (a presenter running late on a loaded machine); then it stays.
    ctl::waitUntil([&] { return picture().timeMs + 60 >= int64_t(at); }, kWaitMs);
    const ctl::Picture paused = picture();
    EXPECT_FALSE(ctl::waitUntil([&] { return picture().count != paused.count; }, 400));
    EXPECT_EQ(at, position());
    EXPECT_NEAR(double(paused.timeMs), double(at), 60);

    const std::string yuv = output("ffmpeg -nostdin -v error -i " + media->h264 +
                                   " -an -f rawvideo -pix_fmt yuv420p -");
    const int w = 320, h = 180, frameSize = w * h * 3 / 2;
    const size_t index = static_cast<size_t>(paused.timeMs / 40);
    ASSERT_GE(yuv.size(), (index + 1) * frameSize);
    const uint8_t* y = reinterpret_cast<const uint8_t*>(yuv.data()) + index * frameSize;
    const uint8_t *u = y + w * h, *v = u + w * h / 4;
    int worst = 0;
    for (int row = 0; row < h; ++row) {
        for (int col = 0; col < w; ++col) {
            const double Y = 1.164 * (y[row * w + col] - 16);
            const double U = u[(row / 2) * (w / 2) + col / 2] - 128.0, V = v[(row / 2) * (w / 2) + col / 2] - 128.0;
            const double rgb[3] = {Y + 1.596 * V, Y - 0.391 * U - 0.813 * V, Y + 2.018 * U};
            const uint8_t* shown = &paused.rgb[((row + 180) * kScreenWidth + col + 320) * 3];
            for (int c = 0; c < 3; ++c) {
                const int want = static_cast<int>(std::lround(std::min(255.0, std::max(0.0, rgb[c]))));
                worst = std::max(worst, std::abs(want - shown[c]));
            }
        }
    }
    EXPECT_LE(worst, 4);

    // A seek while paused: its position is reported by the time it is done,
    // so a listener holding reports back while paused resumes from there.
    ASSERT_EQ(IMTK_PB_ERROR_CODE_OK, IMtkPb_Ctrl_TimeSeek(handle_, 1));
    EXPECT_EQ(1000, seekDone(1));
    EXPECT_EQ(1000, events_.timeAt(IMTK_PB_CTRL_EVENT_TIMESEEK_DONE, 1));
    play();
    ASSERT_TRUE(events_.waitFor(IMTK_PB_CTRL_EVENT_EOS));
    EXPECT_GT(picture().timeMs, 1000);
    EXPECT_GE(events_.data(IMTK_PB_CTRL_EVENT_CUR_TIME_UPDATE).back(), 1900);
}

// The picture fills the output rectangle as far as its aspect ratio allows
// (letterboxed), centred; black everywhere else.
TEST_F(MtkPbPresenting, PictureTakesExactlyTheDisplayRectangleWithItsAspectKept) {
    struct Row {
        EngineRect output;
        PixelRect expected;
    };
    const Row rows[] = {
        {{0, 0, 1000, 1000}, {0, 0, 1280, 720}},
        {{100, 500, 300, 300}, {128, 360, 384, 216}},       // off-centre, the clip's aspect ratio
        {{600, 100, 200, 800}, {768, 360 - 72, 256, 144}},  // tall: letter boxes above and below
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.output.x);
        ctl::setScreenCapture(true);
        open(media->grey);
        const EngineRect whole{0, 0, 1000, 1000};
        ASSERT_EQ(IMTK_PB_ERROR_CODE_OK, IMtkPb_Ctrl_SetDisplayRectangle(handle_, &whole, &row.output));
        play();
        const ctl::Picture p = pictureFrom(200);
        int left = kScreenWidth, top = kScreenHeight, right = -1, bottom = -1;
        for (int yy = 0; yy < kScreenHeight; ++yy) {
            for (int xx = 0; xx < kScreenWidth; ++xx) {
                const uint8_t* px = &p.rgb[(yy * kScreenWidth + xx) * 3];
                if (px[0] + px[1] + px[2] < 30) continue;
                left = std::min(left, xx), right = std::max(right, xx);
                top = std::min(top, yy), bottom = std::max(bottom, yy);
            }
        }
        const PixelRect& e = row.expected;
        EXPECT_NEAR(e.x, left, 1);
        EXPECT_NEAR(e.y, top, 1);
        EXPECT_NEAR(e.x + e.w - 1, right, 1);
        EXPECT_NEAR(e.y + e.h - 1, bottom, 1);
        closeAndCheckReads();
        // Closed, the screen goes black.
        const ctl::Picture blank = picture();
        EXPECT_EQ(-1, blank.timeMs);
        EXPECT_EQ(std::vector<uint8_t>(p.rgb.size(), 0), blank.rgb);
        ctl::reset();
        ctl::setSpeed(1);
    }
}

// What the sound device is given (SDL's disk driver writes it to a file) is
// FFmpeg's decode of the clip, converted to 16 bits, sample for sample.
TEST_F(MtkPbPresenting, SoundGivenToTheDeviceIsFfmpegsDecodeSampleForSample) {
    const std::string heard = media->dir.file("heard.raw");
    setenv("MTKPB_AUDIO", "device", 1);
    setenv("SDL_AUDIODRIVER", "disk", 1);
    setenv("SDL_DISKAUDIOFILE", heard.c_str(), 1);
    playToTheEnd(media->h264);
    closeAndCheckReads();
    unsetenv("SDL_AUDIODRIVER");
    const std::string ours = testing_support::readAll(heard);
    const std::string reference =
        output("ffmpeg -nostdin -v error -i " + media->h264 + " -vn -f s16le -ac 2 -ar 48000 -");
    // Aligned at the first sample that is not silence.
    const auto firstSound = [](const std::string& pcm) {
        const int16_t* s = reinterpret_cast<const int16_t*>(pcm.data());
        size_t i = 0;
        while (i < pcm.size() / 2 && std::abs(s[i]) < 64) ++i;
        return i * 2;
    };
    const size_t ourStart = firstSound(ours), referenceStart = firstSound(reference);
    ASSERT_GT(reference.size(), 48000u * 4);
    ASSERT_LT(referenceStart, reference.size());
    const size_t length = reference.size() - referenceStart;
    ASSERT_GE(ours.size(), ourStart + length);
    // The reference is the host's FFmpeg: under emulation the engine runs the
    // box's build of the same float decoder, whose last bit may round the
    // other way; on the host both are the same code and agree exactly.
    const int kToleranceLsb = testing_support::kEmulated ? 1 : 0;
    const int16_t* a = reinterpret_cast<const int16_t*>(ours.data() + ourStart);
    const int16_t* b = reinterpret_cast<const int16_t*>(reference.data() + referenceStart);
    int maxDiff = 0;
    size_t differing = 0;
    for (size_t i = 0; i < length / 2; ++i) {
        const int d = std::abs(int(a[i]) - int(b[i]));
        maxDiff = std::max(maxDiff, d);
        differing += d != 0;
    }
    EXPECT_LE(maxDiff, kToleranceLsb) << differing << " of " << length / 2 << " samples differ";
}

// On a clip with a white picture and a beep at each second, every picture is
// put on the screen when the sound heard is at its media time (within 40 ms),
// over the clip and after a seek; the end comes after the last sample.
TEST_F(MtkPbPresenting, PicturesFollowTheSoundWithin40MsAlsoAfterASeek) {
    open(media->flash);
    const auto start = std::chrono::steady_clock::now();
    play();
    shownFrom(1100);
    ASSERT_EQ(IMTK_PB_ERROR_CODE_OK, IMtkPb_Ctrl_TimeSeek(handle_, 2));
    EXPECT_EQ(2000, seekDone(1));
    ASSERT_TRUE(events_.waitFor(IMTK_PB_CTRL_EVENT_EOS));
    const double playedMs =
        std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
    size_t flashes = 0, afterSeek = 0;
    for (const ctl::Presented& p : ctl::presented()) {
        flashes += p.timeMs % 1000 < 40;
        afterSeek += p.timeMs >= 2000;
        if (p.clockMs < 0) continue;  // the first picture after a start or a seek, shown at once
        EXPECT_NEAR(double(p.timeMs), p.clockMs, 40.0) << p.timeMs;
    }
    EXPECT_GE(flashes, 2u);
    EXPECT_GE(afterSeek, 20u);
    // 1.1 s, then the last second after the seek: the end waits for the sound.
    EXPECT_GE(playedMs, 2000);
    EXPECT_GE(events_.data(IMTK_PB_CTRL_EVENT_CUR_TIME_UPDATE).back(), 2950);
}

// Clips with only one kind of stream that can be decoded, and damaged ones,
// play to their end: the pictures there are shown, the sound there is heard.
TEST_F(MtkPbPresenting, PartialAndDamagedMediaPlayWhatTheyCan) {
    struct Row {
        const char* name;
        std::string Media::*path;
        bool pictures;
        int64_t lengthMs;
    };
    const Row rows[] = {
        {"pictures only", &Media::grey, true, 1000},
        {"sound only", &Media::tone, false, 1000},
        {"no picture decoder", &Media::noVideoCodec, false, 2000},
        {"no sound decoder", &Media::noAudioCodec, true, 2000},
        {"damaged", &Media::corrupt, true, 2000},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        const auto start = std::chrono::steady_clock::now();
        playToTheEnd(*media.*row.path);
        const double playedMs =
            std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
        EXPECT_GE(playedMs, row.lengthMs - 100);
        EXPECT_GE(events_.data(IMTK_PB_CTRL_EVENT_CUR_TIME_UPDATE).back(), row.lengthMs - 100);
        EXPECT_EQ(0u, events_.count(IMTK_PB_CTRL_EVENT_PLAYBACK_ERROR));
        const std::vector<ctl::Presented> shown = ctl::presented();
        if (row.pictures) {
            EXPECT_GE(shown.size(), size_t(row.lengthMs / 40 / 2));
            EXPECT_GE(shown.back().timeMs, row.lengthMs - 100);
        } else {
            EXPECT_EQ(0u, shown.size());
        }
        nextRow(1);
    }
}

// The viewer closing the screen's window ends the playback: end of stream.
TEST_F(MtkPbPresenting, ClosingTheWindowEndsPlayback) {
    open(media->h264);
    play();
    shownFrom(200);
    SDL_Event quit{};
    quit.type = SDL_QUIT;
    ASSERT_EQ(1, SDL_PushEvent(&quit));
    ASSERT_TRUE(events_.waitFor(IMTK_PB_CTRL_EVENT_EOS));
    EXPECT_LT(events_.data(IMTK_PB_CTRL_EVENT_CUR_TIME_UPDATE).back(), 1500);
    closeAndCheckReads();
}

}  // namespace
