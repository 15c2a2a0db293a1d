// Playback and its pull callbacks, without a player. Playback is driven
// through the software playback engine: how notifications become events,
// time seeks, start positions and the tmp file the callbacks read. The pull
// callbacks are also called the way the engine calls them over a scripted
// File, which answers for the pull handle while no playback is open.

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "PlayerFixture.h"
#include "PullSource.h"
#include "velka/File.h"
#include "velka/Playback.h"

namespace {

using namespace velka_test;
using mtkpb::control::Op;
using velka::File;
using velka::Playback;
using velka::VelkaStatus;
using velka::kStatusError;
using velka::kStatusOk;

class PlaybackTest : public EngineTest {
protected:
    void SetUp() override {
        EngineTest::SetUp();
        if (HasFatalFailure()) return;
        ASSERT_EQ(kStatusOk, playback().open(Media::url(media().longClip)));
        opened_ = true;
    }

    void TearDown() override {
        if (opened_) playback().close();
        EngineTest::TearDown();
    }

    static Playback& playback() { return Playback::instance_; }

    static Event poll() {
        Event event = kNone;
        playback().getEvent(event);
        return event;
    }

    // Injects a notification and waits until the callback has handled it.
    static void deliver(IMTK_PB_CTRL_EVENT_T event, intptr_t data) {
        const uint64_t before = mtkpb::control::notifications(event);
        ASSERT_TRUE(mtkpb::control::inject(event, data));
        ASSERT_TRUE(mtkpb::control::waitForNotifications(event, before + 1, kEventWaitMs));
    }

    // Runs a timeSeek that the engine accepts but does not end by itself.
    std::future<VelkaStatus> startHeldSeek(int ms) {
        mtkpb::control::setResult(Op::kTimeSeek, IMTK_PB_ERROR_CODE_OK);
        const uint64_t before = mtkpb::control::calls(Op::kTimeSeek);
        auto seek = std::async(std::launch::async, [ms] { return playback().timeSeek(ms); });
        EXPECT_TRUE(mtkpb::control::waitUntil(
            [before] { return mtkpb::control::calls(Op::kTimeSeek) > before; }, kEventWaitMs));
        return seek;
    }

    static bool finishes(std::future<VelkaStatus>& f) {
        return f.wait_for(std::chrono::milliseconds(kEventWaitMs)) == std::future_status::ready;
    }

    bool opened_ = false;
};

TEST_F(PlaybackTest, EachNotificationIsReportedOnce) {
    ASSERT_EQ(kNone, poll()) << "the opened note makes no event";
    struct Row {
        IMTK_PB_CTRL_EVENT_T event;
        intptr_t data;
        Event reported;
    };
    const Row rows[] = {
        {IMTK_PB_CTRL_EVENT_CUR_TIME_UPDATE, 777, {MediaPlayer::kEventTimeUpdate, 777}},
        {IMTK_PB_CTRL_EVENT_EOS, 0, kEndOfStream},
        {IMTK_PB_CTRL_EVENT_PLAYBACK_ERROR, 0, kError},
        {IMTK_PB_CTRL_EVENT_TIMESEEK_DONE, -1, kError},
        // Neither a successful seek's end nor the buffer notes make an event.
        {IMTK_PB_CTRL_EVENT_TIMESEEK_DONE, 4000, kNone},
        {IMTK_PB_CTRL_EVENT_BUFFER_UNDERFLOW, 0, kNone},
        {IMTK_PB_CTRL_EVENT_BUFFER_HIGH, 0, kNone},
        {IMTK_PB_CTRL_EVENT_STEP_DONE, 0, kNone},
        {IMTK_PB_CTRL_EVENT_GET_BUF_READY, 0, kNone},
        {13, 0, kNone},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.event);
        deliver(row.event, row.data);
        EXPECT_EQ(row.reported, poll());
        EXPECT_EQ(kNone, poll());
    }
    // The end of the stream drops the last position.
    deliver(IMTK_PB_CTRL_EVENT_CUR_TIME_UPDATE, 1200);
    deliver(IMTK_PB_CTRL_EVENT_EOS, 0);
    EXPECT_EQ(kEndOfStream, poll());
    EXPECT_EQ(kNone, poll());
}

TEST_F(PlaybackTest, OpenForgetsWhatThePreviousMediumLeftAndAnErrorWinsOverItsNote) {
    deliver(IMTK_PB_CTRL_EVENT_EOS, 0);
    deliver(IMTK_PB_CTRL_EVENT_PLAYBACK_ERROR, 0);
    playback().close();
    ASSERT_EQ(kStatusOk, playback().open(Media::url(media().longClip)));
    EXPECT_EQ(kNone, poll());
    EXPECT_EQ(kNone, poll());

    playback().close();
    ASSERT_EQ(kStatusOk, playback().open(Media::url(media().longClip)));
    deliver(IMTK_PB_CTRL_EVENT_PLAYBACK_ERROR, 0);
    EXPECT_EQ(kError, poll());
    EXPECT_EQ(kNone, poll());
    EXPECT_EQ(kNone, poll());
}

TEST_F(PlaybackTest, PausedPlaybackHoldsPositionsBackButNotTheEnd) {
    ASSERT_EQ(kNone, poll());
    ASSERT_EQ(kStatusOk, playback().pause());
    deliver(IMTK_PB_CTRL_EVENT_CUR_TIME_UPDATE, 300);
    EXPECT_EQ(kNone, poll());
    deliver(IMTK_PB_CTRL_EVENT_EOS, 0);
    EXPECT_EQ(kEndOfStream, poll());
    ASSERT_EQ(kStatusOk, playback().unPause());
    // Stopped, the engine sends no positions of its own to mix with this one.
    ASSERT_EQ(kStatusOk, playback().stop());
    deliver(IMTK_PB_CTRL_EVENT_CUR_TIME_UPDATE, 400);
    EXPECT_EQ((Event{MediaPlayer::kEventTimeUpdate, 400}), poll());
}

TEST_F(PlaybackTest, UnPauseIsRefusedWhileATimeSeekWaits) {
    ASSERT_EQ(kNone, poll());
    ASSERT_EQ(kStatusOk, playback().play(0));
    ASSERT_EQ(kStatusOk, playback().pause());
    auto seek = startHeldSeek(5000);

    const uint64_t plays = mtkpb::control::calls(Op::kPlay);
    EXPECT_EQ(kStatusError, playback().unPause());
    EXPECT_EQ(plays, mtkpb::control::calls(Op::kPlay)) << "the refused unPause reached the engine";
    // While seeking, polls report the source's cache fill (a local file's is 100).
    EXPECT_EQ((Event{MediaPlayer::kEventBuffering, 100}), poll());

    deliver(IMTK_PB_CTRL_EVENT_TIMESEEK_DONE, 5000);
    ASSERT_TRUE(finishes(seek));
    EXPECT_EQ(kStatusOk, seek.get());
    // The seek is over and playback still paused: unPause goes through.
    EXPECT_EQ(kStatusOk, playback().unPause());
    EXPECT_EQ(plays + 1, mtkpb::control::calls(Op::kPlay));
}

TEST_F(PlaybackTest, FailedSeekOrEngineErrorEndsAWaitingTimeSeekWithAnErrorEvent) {
    ASSERT_EQ(kNone, poll());
    for (const auto& end : {std::make_pair(IMTK_PB_CTRL_EVENT_TIMESEEK_DONE, intptr_t{-1}),
                            std::make_pair(IMTK_PB_CTRL_EVENT_PLAYBACK_ERROR, intptr_t{0})}) {
        auto seek = startHeldSeek(3000);
        deliver(end.first, end.second);
        ASSERT_TRUE(finishes(seek));
        EXPECT_EQ(kStatusOk, seek.get()) << "the failure surfaces as an event, not a result";
        EXPECT_EQ(kError, poll());
        EXPECT_EQ(kNone, poll());
    }
}

TEST_F(PlaybackTest, TimeSeekRefusedByTheEngineFailsAtOnce) {
    mtkpb::control::setResult(Op::kTimeSeek, IMTK_PB_ERROR_CODE_NOT_OK);
    EXPECT_EQ(kStatusError, playback().timeSeek(2000));
    // Not left seeking: unPause is not refused.
    ASSERT_EQ(kStatusOk, playback().pause());
    EXPECT_EQ(kStatusOk, playback().unPause());
    // A real seek afterwards waits for its own end.
    mtkpb::control::clearResult(Op::kTimeSeek);
    EXPECT_EQ(kStatusOk, playback().timeSeek(2000));
    EXPECT_GE(playback().currentPts(), 1000);
}

// play(start) hands whole seconds over and seeks, once, when the engine
// reports that playback started. The long clip has a key frame every second.
class PlayFromTest : public PlaybackTest, public ::testing::WithParamInterface<int> {};

TEST_P(PlayFromTest, SeeksToTheWholeSecondOnceWhenPlaying) {
    const int startMs = GetParam();
    const bool seeks = startMs >= 1000;
    ASSERT_EQ(kStatusOk, playback().play(startMs));
    ASSERT_TRUE(mtkpb::control::waitForNotifications(IMTK_PB_CTRL_EVENT_PLAYED, 1, kEventWaitMs));
    // The seek is asked for from inside the PLAYED notification.
    EXPECT_EQ(seeks ? 1u : 0u, mtkpb::control::calls(Op::kTimeSeek));
    if (seeks) {
        ASSERT_TRUE(mtkpb::control::waitForNotifications(IMTK_PB_CTRL_EVENT_TIMESEEK_DONE, 1,
                                                         kEventWaitMs));
        EXPECT_GE(playback().currentPts(), startMs / 1000 * 1000);
    }
    ASSERT_EQ(kStatusOk, playback().pause());
    ASSERT_EQ(kStatusOk, playback().play(0));
    ASSERT_TRUE(mtkpb::control::waitForNotifications(IMTK_PB_CTRL_EVENT_PLAYED, 2, kEventWaitMs));
    EXPECT_EQ(seeks ? 1u : 0u, mtkpb::control::calls(Op::kTimeSeek));
}

INSTANTIATE_TEST_SUITE_P(StartPositions, PlayFromTest, ::testing::Values(999, 1500, 4000));

TEST_F(PlaybackTest, PullCallbacksUseTheTmpFileWhileOpen) {
    ASSERT_EQ(kNone, poll());
    // In tmp file mode pb_open hands out a placeholder and opens nothing.
    IMTK_PULL_HANDLE_T handle = 0;
    std::string tag = "unused";
    const int descriptors = openDescriptors();
    ASSERT_EQ(0, velka::pb_open(0, &handle, &tag));
    EXPECT_EQ(reinterpret_cast<IMTK_PULL_HANDLE_T>(&handle), handle);
    EXPECT_EQ(descriptors, openDescriptors());
    // pb_close leaves it open and forgets the last position.
    deliver(IMTK_PB_CTRL_EVENT_CUR_TIME_UPDATE, 2500);
    EXPECT_EQ(0, velka::pb_close(handle, &tag));
    EXPECT_EQ(kNone, poll()) << "pb_close kept the position";
    // Any pull handle reads the tmp file.
    uint64_t position = 1;
    ASSERT_EQ(0, velka::pb_seek(12345, &tag, 4, IMTK_PB_PULL_SEEK_SET, &position));
    EXPECT_EQ(4u, position);
    uint8_t bytes[4] = {};
    uint32_t read = 0;
    ASSERT_EQ(0, velka::pb_read(handle, &tag, bytes, sizeof bytes, &read));
    EXPECT_EQ(4u, read);
    EXPECT_EQ(0, std::memcmp(bytes, "ftyp", 4));
}

// Outside tmp file mode pb_open creates the source for the URL the tag
// points to, keeping its own copy, and pb_close destroys it.
class PullHandleTest : public EngineTest {};

TEST_F(PullHandleTest, PullOpenWithoutPlaybackMakesItsOwnSourceAndCloseDestroysIt) {
    IMTK_PULL_HANDLE_T handle = 0;
    std::string missing = Media::url(media().dir + "/missing.ts");
    EXPECT_EQ(-1, velka::pb_open(0, &handle, &missing));
    EXPECT_EQ(0u, handle);

    std::unique_ptr<std::string> url(new std::string(Media::url(media().mp4)));
    ASSERT_EQ(0, velka::pb_open(0, &handle, url.get()));
    ASSERT_NE(0u, handle);
    EXPECT_EQ(descriptors_ + 1, openDescriptors());
    url.reset();  // the tag is valid only during the call
    // An MP4 starts with its ftyp box: a 32-bit size, then "ftyp".
    std::string tag = "unused";
    uint8_t head[8] = {};
    uint32_t bytes = 0;
    ASSERT_EQ(0, velka::pb_read(handle, &tag, head, sizeof head, &bytes));
    ASSERT_EQ(8u, bytes);
    EXPECT_EQ(0, std::memcmp(head + 4, "ftyp", 4));
    EXPECT_EQ(0, velka::pb_close(handle, &tag));
}

// ---------------------------------------------------------------------------
// The pull callbacks over a scripted File.

// A File whose answers the test scripts.
class ScriptedFile : public File {
public:
    enum class AsyncMode {
        kHold,           // accept; the test completes it later
        kRefuse,         // return null
        kCompleteFirst,  // complete 40 bytes on another thread before readAsync returns
        kReadAtOnce,     // complete as read() answers, before readAsync returns
    };

    ScriptedFile() : File("scripted://") {}
    ~ScriptedFile() override {
        for (std::thread& t : threads_) t.join();
    }

    int open() override { return 0; }
    int close() override { return 0; }
    // The first min(count, readResult) bytes of "ABCDEFGHIJ", or readResult when negative.
    int read(char* buffer, uint32_t count) override {
        if (readResult < 0) return readResult;
        const uint32_t n = std::min(count, static_cast<uint32_t>(readResult));
        std::memcpy(buffer, "ABCDEFGHIJ", n);
        return static_cast<int>(n);
    }

    void* readAsync(char* buffer, uint32_t count, AsyncCallback& callback) override {
        if (asyncMode == AsyncMode::kRefuse) return nullptr;
        if (asyncMode == AsyncMode::kReadAtOnce) {
            const int n = read(buffer, count);
            callback.complete(n < 0    ? velka::kStatusError
                              : n == 0 ? velka::kStatusEndOfFile
                                       : velka::kStatusOk,
                              n < 0 ? 0 : static_cast<uint32_t>(n));
            return handle();
        }
        {
            std::lock_guard<std::mutex> lock(mutex_);
            pending_.push_back({&callback, buffer, count});
            ++issued_;
            changed_.notify_all();
        }
        if (asyncMode == AsyncMode::kCompleteFirst) {
            completeHeld(velka::kStatusOk, 40);
            // The completion is under way. It must not reach the engine
            // before this request's handle is known; give it a moment to
            // (wrongly) do so. A correct pull source never does, whatever
            // the timing.
            std::unique_lock<std::mutex> lock(mutex_);
            changed_.wait(lock, [this] { return started_ == threads_.size(); });
            completedBeforeReturn = changed_.wait_for(
                lock, std::chrono::milliseconds(200), [this] { return done_ == threads_.size(); });
        }
        return handle();
    }

    // Completes the newest held request on a thread of its own, as a source
    // would: its buffer gets `length` bytes of kFill first (at most as many
    // as asked for).
    void completeHeld(VelkaStatus status, uint32_t length) {
        Pending p;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            p = pending_.back();
            pending_.pop_back();
        }
        threads_.emplace_back([this, p, status, length] {
            count(&started_);
            std::memset(p.buffer, kFill, std::min(length, p.count));
            std::unique_lock<std::mutex> source(sourceLock_, std::defer_lock);
            if (completesUnderLock) source.lock();
            p.callback->complete(status, length);
            if (source.owns_lock()) source.unlock();
            count(&done_);
        });
    }

    // Waits until `n` reads are held (readAsync on another thread).
    bool waitForPending(size_t n) {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_for(lock, std::chrono::milliseconds(kEventWaitMs),
                                 [&] { return pending_.size() >= n; });
    }

    // Waits until `n` completions made by completeHeld() have returned.
    bool waitForCompletions(size_t n) {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_for(lock, std::chrono::milliseconds(kEventWaitMs),
                                 [&] { return done_ >= n; });
    }

    int cancel(void* request) override {
        std::unique_lock<std::mutex> source(sourceLock_, std::defer_lock);
        if (completesUnderLock) source.lock();
        lastCancel = request;
        if (cancelResult != 0) return -1;
        // Cancelled: it still completes once, here before cancel returns.
        AsyncCallback* cb;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            cb = pending_.back().callback;
            pending_.pop_back();
        }
        cb->complete(velka::kStatusCancelled, 0);
        return 0;
    }

    int64_t seek(int64_t offset, Whence whence) override {
        lastOffset = offset;
        lastWhence = whence;
        return seekResult;
    }
    int64_t tell() override { return 0; }
    int64_t length() override { return 0; }
    int64_t available() override { return availableResult; }
    int cachePercent() override { return 100; }
    int error() override { return 0; }

    // The request handle of the newest read.
    void* handle() { return &tokens_[(issued_ + kTokens - 1) % kTokens]; }
    IMTK_PULL_HANDLE_T pullHandle() { return reinterpret_cast<IMTK_PULL_HANDLE_T>(this); }

    int readResult = 0;
    AsyncMode asyncMode = AsyncMode::kHold;
    bool completedBeforeReturn = false;
    int cancelResult = 0;
    // Completions run under the lock cancel() takes, as a network source's may.
    bool completesUnderLock = false;
    void* lastCancel = nullptr;
    int64_t seekResult = 0;
    int64_t availableResult = 0;
    int64_t lastOffset = 0;
    Whence lastWhence = kSeekSet;
    static constexpr uint8_t kFill = 0x5a;  // what a completing source writes

private:
    struct Pending {
        AsyncCallback* callback;
        char* buffer;
        uint32_t count;
    };

    void count(size_t* counter) {
        std::lock_guard<std::mutex> lock(mutex_);
        ++*counter;
        changed_.notify_all();
    }

    static constexpr size_t kTokens = 8;
    std::vector<Pending> pending_;  // accepted and not completed, oldest first; under mutex_
    int tokens_[kTokens] = {};             // their addresses are the request handles, in turn
    size_t issued_ = 0;
    std::vector<std::thread> threads_;  // on the test's thread only
    std::mutex sourceLock_;             // see completesUnderLock
    std::mutex mutex_;                  // guards pending_, started_ and done_
    std::condition_variable changed_;
    size_t started_ = 0;  // completion threads that began
    size_t done_ = 0;     // completion threads whose complete() returned
};

char kTag[] = "app tag";

// What the engine's completion function received.
struct Completion {
    int32_t result;
    IMTK_PULL_REQ_HANDLE_T request;
    uint32_t length;
    IMTK_PULL_REQ_HANDLE_T storedHandle;  // pb_read_async's out handle at that moment
};

class PullSourceTest : public ::testing::Test {
protected:
    // The engine's completion function; the tag is the test.
    // Like the engine, it holds a completion that comes while an abort is
    // under way until the abort has returned (here for at most 2 s).
    static void done(int32_t result, void* tag, IMTK_PULL_REQ_HANDLE_T request, uint32_t length) {
        PullSourceTest* self = static_cast<PullSourceTest*>(tag);
        std::unique_lock<std::mutex> lock(self->mutex_);
        if (self->aborting_ && result == IMTK_PB_PULL_READ_DONE) {
            self->held_ = true;
            self->changed_.notify_all();
            self->heldTooLong_ = !self->changed_.wait_for(lock, std::chrono::seconds(2),
                                                          [self] { return !self->aborting_; });
        }
        self->completions_.push_back({result, request, length, self->request_});
        self->changed_.notify_all();
    }

    IMTK_PB_CB_ERROR_CODE_T readAsync() {
        return velka::pb_read_async(file_.pullHandle(), kTag, buffer_, sizeof buffer_, &done, this,
                                    &request_);
    }

    // The last completion, once exactly `count` have arrived, for the File's request.
    Completion completion(size_t count) {
        std::unique_lock<std::mutex> lock(mutex_);
        changed_.wait_for(lock, std::chrono::milliseconds(kEventWaitMs),
                          [&] { return completions_.size() >= count; });
        EXPECT_EQ(count, completions_.size());
        if (completions_.empty()) return {};
        EXPECT_EQ(file_.handle(), completions_.back().request);
        return completions_.back();
    }

    // Bytes of the engine's buffer that a source wrote.
    size_t filled() const {
        return static_cast<size_t>(std::count(buffer_, buffer_ + sizeof buffer_,
                                              ScriptedFile::kFill));
    }

    std::mutex mutex_;  // guards completions_
    std::condition_variable changed_;
    std::vector<Completion> completions_;
    bool aborting_ = false;     // the test is aborting a read
    bool held_ = false;         // done() holds a completion until the abort returns
    bool heldTooLong_ = false;  // ... and the abort did not return
    IMTK_PULL_REQ_HANDLE_T request_ = nullptr;  // pb_read_async's out handle
    uint8_t buffer_[64] = {};
    ScriptedFile file_;  // last: joins its completion threads before the rest goes
};

TEST_F(PullSourceTest, EachCompletionStatusReachesTheEngineOnce) {
    struct Row {
        VelkaStatus status;
        uint32_t length;
        int32_t result;         // for the engine
        uint32_t engineLength;  // for the engine
    };
    const Row rows[] = {
        {velka::kStatusOk, 64, IMTK_PB_PULL_READ_DONE, 64},
        {velka::kStatusEndOfFile, 10, IMTK_PB_PULL_READ_DONE, 10},
        {velka::kStatusEndOfFile, 0, IMTK_PB_PULL_READ_DONE, 0},
        {velka::kStatusCancelled, 5, IMTK_PB_PULL_READ_CANCELLED, 0},
        {velka::kStatusError, 7, IMTK_PB_PULL_READ_FAILED, 0},
    };
    size_t count = 0;
    for (const Row& row : rows) {
        SCOPED_TRACE(::testing::Message() << row.status << " " << row.length);
        std::memset(buffer_, 0, sizeof buffer_);
        ASSERT_EQ(0, readAsync());
        EXPECT_EQ(file_.handle(), request_);
        file_.completeHeld(row.status, row.length);
        const Completion got = completion(++count);
        EXPECT_EQ(row.result, got.result);
        EXPECT_EQ(row.engineLength, got.length);
        // The engine's buffer holds what was delivered, and only that.
        EXPECT_EQ(row.engineLength, filled());
    }
}

// A source that is not a local file may hold a read it can no longer cancel
// (a network read in service) for as long as the network stalls: the abort
// still completes it toward the engine at once, and the source's late
// completion neither reaches the engine nor writes into its buffer.
TEST_F(PullSourceTest, AbortGivesTheEngineOneAndZeroBytesAtOnceAlsoWhenTheSourceCannotCancel) {
    ASSERT_EQ(0, readAsync());
    EXPECT_EQ(0, velka::pb_abort(file_.pullHandle(), kTag, request_));
    EXPECT_EQ(file_.handle(), file_.lastCancel);
    Completion got = completion(1);
    EXPECT_EQ(IMTK_PB_PULL_READ_CANCELLED, got.result);
    EXPECT_EQ(0u, got.length);

    ASSERT_EQ(0, readAsync());
    file_.cancelResult = -1;
    EXPECT_EQ(0, velka::pb_abort(file_.pullHandle(), kTag, request_));
    EXPECT_EQ(file_.handle(), file_.lastCancel);
    got = completion(2);
    EXPECT_EQ(IMTK_PB_PULL_READ_CANCELLED, got.result);
    EXPECT_EQ(0u, got.length);
    file_.completeHeld(velka::kStatusOk, 32);
    ASSERT_TRUE(file_.waitForCompletions(1));
    std::lock_guard<std::mutex> lock(mutex_);
    EXPECT_EQ(2u, completions_.size());
    EXPECT_EQ(0u, filled());
}

// A network source may complete a read under the lock its cancel takes, and
// the engine holds that completion until its abort of the read has returned:
// the abort then leaves the source alone, and the read completes on its own.
TEST_F(PullSourceTest, AbortLeavesAloneASourceCompletingTheReadUnderItsLock) {
    file_.completesUnderLock = true;
    file_.cancelResult = -1;
    ASSERT_EQ(0, readAsync());
    {
        std::lock_guard<std::mutex> lock(mutex_);
        aborting_ = true;
    }
    file_.completeHeld(velka::kStatusOk, 32);
    {
        std::unique_lock<std::mutex> lock(mutex_);
        ASSERT_TRUE(changed_.wait_for(lock, std::chrono::milliseconds(kEventWaitMs), [this] { return held_; }));
    }
    EXPECT_EQ(-1, velka::pb_abort(file_.pullHandle(), kTag, request_));
    {
        std::lock_guard<std::mutex> lock(mutex_);
        aborting_ = false;
        changed_.notify_all();
    }
    const Completion got = completion(1);
    EXPECT_EQ(IMTK_PB_PULL_READ_DONE, got.result);
    EXPECT_EQ(32u, got.length);
    ASSERT_TRUE(file_.waitForCompletions(1));
    std::lock_guard<std::mutex> lock(mutex_);
    EXPECT_FALSE(heldTooLong_);
}

TEST_F(PullSourceTest, RefusedReadFailsAndNeverCompletes) {
    file_.asyncMode = ScriptedFile::AsyncMode::kRefuse;
    EXPECT_EQ(-1, readAsync());
    EXPECT_EQ(nullptr, request_);
    // Nothing is left behind that would let the next completion overtake
    // its own request handle, and only that one completes.
    file_.asyncMode = ScriptedFile::AsyncMode::kCompleteFirst;
    ASSERT_EQ(0, readAsync());
    EXPECT_FALSE(file_.completedBeforeReturn);
    EXPECT_EQ(file_.handle(), completion(1).storedHandle);
}

// A read that its source completes before readAsync has returned reaches the
// engine only once the engine knows its request handle; with one read
// outstanding, the second waits for its own hand-off, not the first read's.
TEST_F(PullSourceTest, CompletionBeforeReadAsyncReturnsWaitsForItsOwnRequestHandle) {
    ASSERT_EQ(0, readAsync());
    void* const first = request_;
    file_.asyncMode = ScriptedFile::AsyncMode::kCompleteFirst;
    ASSERT_EQ(0, readAsync());
    EXPECT_FALSE(file_.completedBeforeReturn)
        << "the engine heard of the read before it knew the request handle";
    EXPECT_EQ(file_.handle(), request_);
    const Completion second = completion(1);
    EXPECT_EQ(file_.handle(), second.storedHandle);
    EXPECT_EQ(IMTK_PB_PULL_READ_DONE, second.result);
    EXPECT_EQ(40u, second.length);
    EXPECT_NE(first, file_.handle());

    file_.completeHeld(velka::kStatusOk, 8);
    std::unique_lock<std::mutex> lock(mutex_);
    ASSERT_TRUE(changed_.wait_for(lock, std::chrono::milliseconds(kEventWaitMs),
                                  [this] { return completions_.size() == 2; }));
    EXPECT_EQ(first, completions_[1].request);
    EXPECT_EQ(8u, completions_[1].length);
}

TEST_F(PullSourceTest, SeekMapsTheEngineOriginsAndPassesThePositionOn) {
    struct Row {
        uint8_t origin;
        File::Whence whence;
        int64_t answer;  // the File's
        IMTK_PB_CB_ERROR_CODE_T result;
        uint64_t position;
    };
    const Row rows[] = {
        {IMTK_PB_PULL_SEEK_SET, File::kSeekSet, 4, 0, 4},
        {IMTK_PB_PULL_SEEK_CUR, File::kSeekCurrent, 7, 0, 7},
        {IMTK_PB_PULL_SEEK_END, File::kSeekEnd, 10, 0, 10},
        // -1 is the failure; other negative positions are passed on.
        {IMTK_PB_PULL_SEEK_SET, File::kSeekSet, -1, -1, 0},
        {IMTK_PB_PULL_SEEK_SET, File::kSeekSet, -5, 0, static_cast<uint64_t>(int64_t{-5})},
    };
    int64_t offset = -3;
    for (const Row& row : rows) {
        SCOPED_TRACE(::testing::Message() << "origin " << int{row.origin} << " " << row.answer);
        file_.seekResult = row.answer;
        uint64_t position = 12345;
        EXPECT_EQ(row.result,
                  velka::pb_seek(file_.pullHandle(), kTag, ++offset, row.origin, &position));
        EXPECT_EQ(row.whence, file_.lastWhence);
        EXPECT_EQ(offset, file_.lastOffset);
        EXPECT_EQ(row.position, position);
    }
}

TEST_F(PullSourceTest, AvailableReportsTheSourceOrFails) {
    struct Row {
        int64_t available;
        IMTK_PB_CB_ERROR_CODE_T result;
        uint64_t size;
    };
    for (const Row& row : {Row{1234, 0, 1234}, Row{0, 0, 0}, Row{-1, -1, 0}, Row{-7, -1, 0}}) {
        SCOPED_TRACE(row.available);
        file_.availableResult = row.available;
        uint64_t size = 999;
        EXPECT_EQ(row.result, velka::pb_available(file_.pullHandle(), kTag, &size));
        EXPECT_EQ(row.size, size);
    }
}

// The pull callbacks' log lines, checked here once: the read line shows the
// first bytes read, never more than were asked for.
TEST_F(PullSourceTest, BlockingReadReportsBytesAndShowsNoMoreThanRequested) {
    struct Row {
        uint32_t count;
        int readResult;  // the File's
        IMTK_PB_CB_ERROR_CODE_T result;
        uint32_t bytes;
        std::string shown;  // the data field of the log line
    };
    const Row rows[] = {
        {2, 2, 0, 2, "414200"},  // two bytes asked: the rest shows as zeros
        {8, 5, 0, 5, "41424344"},
        {8, 3, 0, 3, "4142430"},  // three bytes read: the rest shows as zeros
        {8, 0, 0, 0, "0000"},     // the end: 0 bytes is a success
        {8, -1, -1, 0, "0000"},   // a failing source
    };
    // A source that is not a local file is read asynchronously (see below).
    file_.asyncMode = ScriptedFile::AsyncMode::kReadAtOnce;
    for (const Row& row : rows) {
        SCOPED_TRACE(row.shown);
        file_.readResult = row.readResult;
        // Exactly `count` bytes, so that a look past them is caught by ASan.
        std::unique_ptr<uint8_t[]> buffer(new uint8_t[row.count]);
        uint32_t bytes = 777;
        ::testing::internal::CaptureStdout();
        EXPECT_EQ(row.result,
                  velka::pb_read(file_.pullHandle(), kTag, buffer.get(), row.count, &bytes));
        const std::string out = ::testing::internal::GetCapturedStdout();
        EXPECT_EQ(row.bytes, bytes);
        EXPECT_NE(std::string::npos, out.find(" readed " + std::to_string(row.readResult) +
                                              " count " + std::to_string(row.count) + " data " +
                                              row.shown + " \n"))
            << out;
    }
}

// The engine has no abort for a blocking read and waits for it when it
// stops, while a network source may hold the read for as long as the network
// stalls: an engine stop makes the read fail at once, and the source's late
// completion writes nothing into the engine's buffer.
TEST_F(PullSourceTest, BlockingReadOfANetworkSourceFailsWhenTheEngineStops) {
    uint32_t bytes = 777;
    std::future<IMTK_PB_CB_ERROR_CODE_T> read = std::async(std::launch::async, [&] {
        return velka::pb_read(file_.pullHandle(), kTag, buffer_, sizeof buffer_, &bytes);
    });
    ASSERT_TRUE(file_.waitForPending(1));
    velka::Playback::instance_.stop();
    const bool gaveUp = read.wait_for(testing_support::kWait) == std::future_status::ready;
    file_.completeHeld(velka::kStatusOk, 32);
    ASSERT_TRUE(gaveUp) << "the blocking read waited through the engine's stop";
    EXPECT_EQ(IMTK_PB_CB_ERROR_CODE_NOT_OK, read.get());
    EXPECT_EQ(0u, bytes);
    ASSERT_TRUE(file_.waitForCompletions(1));
    EXPECT_EQ(0u, filled());
}

TEST(PullSourceDeathTest, BrokenEngineContractStopsTheProcess) {
    testing_support::useThreadsafeDeathTests();
    ScriptedFile file;
    IMTK_PULL_HANDLE_T handle = 0;
    uint64_t position = 0;
    const std::string nonNull = "Assertion `phPullSrc != __null && pvAppTag != __null' failed";
    EXPECT_DEATH(velka::pb_open(0, nullptr, kTag), nonNull);
    EXPECT_DEATH(velka::pb_open(0, &handle, nullptr), nonNull);
    for (uint8_t origin : {0, 4}) {
        EXPECT_DEATH(velka::pb_seek(file.pullHandle(), kTag, 0, origin, &position),
                     "Assertion `0' failed");
    }
}

}  // namespace
