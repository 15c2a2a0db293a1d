// Playback driven directly (no player polls it here), through the software
// playback engine: how notifications become events, time seeks, start
// positions and the tmp file seen by the pull callbacks.

#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <future>
#include <string>

#include "IMtkPb_Ctrl.h"
#include "PullSource.h"
#include "mtkpb_control.h"
#include "support/PlayerTestSupport.h"
#include "velka/Playback.h"

namespace {

using namespace velka_test;
using mtkpb::control::Op;
using velka::kStatusError;
using velka::kStatusOk;
using velka::Playback;

const Event kNone = {MediaPlayer::kEventNone, 0};

bool noEngineInstance() { return !mtkpb::control::inject(IMTK_PB_CTRL_EVENT_STEP_DONE, 0); }

class PlaybackTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_FALSE(media().dir.empty()) << "ffmpeg could not make the test media";
        mtkpb::control::reset();
        mtkpb::control::setSpeed(1);
        ASSERT_TRUE(noEngineInstance());
        descriptors_ = openDescriptors();
        ASSERT_EQ(kStatusOk, playback().open(Media::url(media().longClip)));
        opened_ = true;
    }

    void TearDown() override {
        if (opened_) playback().close();
        mtkpb::control::reset();
        EXPECT_TRUE(noEngineInstance());
        EXPECT_EQ(descriptors_, openDescriptors());
    }

    static Playback& playback() { return Playback::instance_; }

    static Event poll() {
        Event event = kNone;
        playback().getEvent(event);
        return event;
    }

    // Injects a notification and waits until the callback has handled it.
    static void deliver(IMTK_PB_CTRL_EVENT_T event, intptr_t data) {
        uint64_t before = mtkpb::control::notifications(event);
        ASSERT_TRUE(mtkpb::control::inject(event, data));
        ASSERT_TRUE(mtkpb::control::waitForNotifications(event, before + 1, kEventWaitMs));
    }

    // Runs a timeSeek that the engine accepts but does not end by itself.
    std::future<velka::VelkaStatus> startHeldSeek(int ms) {
        mtkpb::control::setResult(Op::kTimeSeek, IMTK_PB_ERROR_CODE_OK);
        uint64_t before = mtkpb::control::calls(Op::kTimeSeek);
        auto seek = std::async(std::launch::async, [ms] { return playback().timeSeek(ms); });
        EXPECT_TRUE(mtkpb::control::waitUntil(
            [before] { return mtkpb::control::calls(Op::kTimeSeek) > before; }, kEventWaitMs));
        return seek;
    }

    static bool finishes(std::future<velka::VelkaStatus>& f) {
        return f.wait_for(std::chrono::milliseconds(kEventWaitMs)) == std::future_status::ready;
    }

    int descriptors_ = 0;
    bool opened_ = false;
};

TEST_F(PlaybackTest, FirstPollAfterOpenReportsNothing) {
    EXPECT_EQ(kNone, poll());
    EXPECT_EQ(kNone, poll());
}

TEST_F(PlaybackTest, ErrorPendingWinsOverTheOpenedNote) {
    deliver(IMTK_PB_CTRL_EVENT_PLAYBACK_ERROR, 0);
    EXPECT_EQ((Event{MediaPlayer::kEventError, 0}), poll());
    EXPECT_EQ(kNone, poll());
    EXPECT_EQ(kNone, poll());
}

TEST_F(PlaybackTest, EachNotificationIsReportedOnce) {
    ASSERT_EQ(kNone, poll());
    struct Row {
        IMTK_PB_CTRL_EVENT_T event;
        intptr_t data;
        Event reported;
    };
    const Row rows[] = {
        {IMTK_PB_CTRL_EVENT_CUR_TIME_UPDATE, 777, {MediaPlayer::kEventTimeUpdate, 777}},
        {IMTK_PB_CTRL_EVENT_EOS, 0, {MediaPlayer::kEventEndOfStream, 0}},
        {IMTK_PB_CTRL_EVENT_PLAYBACK_ERROR, 0, {MediaPlayer::kEventError, 0}},
        {IMTK_PB_CTRL_EVENT_TIMESEEK_DONE, -1, {MediaPlayer::kEventError, 0}},
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
}

TEST_F(PlaybackTest, EndOfStreamDropsTheLastPosition) {
    ASSERT_EQ(kNone, poll());
    deliver(IMTK_PB_CTRL_EVENT_CUR_TIME_UPDATE, 1200);
    deliver(IMTK_PB_CTRL_EVENT_EOS, 0);
    EXPECT_EQ((Event{MediaPlayer::kEventEndOfStream, 0}), poll());
    EXPECT_EQ(kNone, poll());
}

TEST_F(PlaybackTest, PausedPlaybackHoldsPositionsBack) {
    ASSERT_EQ(kNone, poll());
    ASSERT_EQ(kStatusOk, playback().pause());
    deliver(IMTK_PB_CTRL_EVENT_CUR_TIME_UPDATE, 300);
    EXPECT_EQ(kNone, poll());
    // The pause does not hold back an end of stream.
    deliver(IMTK_PB_CTRL_EVENT_EOS, 0);
    EXPECT_EQ((Event{MediaPlayer::kEventEndOfStream, 0}), poll());
    ASSERT_EQ(kStatusOk, playback().unPause());
    // Stopped, the engine sends no positions of its own to mix with this one.
    ASSERT_EQ(kStatusOk, playback().stop());
    deliver(IMTK_PB_CTRL_EVENT_CUR_TIME_UPDATE, 400);
    EXPECT_EQ((Event{MediaPlayer::kEventTimeUpdate, 400}), poll());
}

TEST_F(PlaybackTest, OpenForgetsWhatThePreviousMediumLeftPending) {
    deliver(IMTK_PB_CTRL_EVENT_EOS, 0);
    deliver(IMTK_PB_CTRL_EVENT_PLAYBACK_ERROR, 0);
    playback().close();
    ASSERT_EQ(kStatusOk, playback().open(Media::url(media().longClip)));
    EXPECT_EQ(kNone, poll());
    EXPECT_EQ(kNone, poll());
}

TEST_F(PlaybackTest, DurationIsWhatTheEngineReportedOnOpen) {
    EXPECT_NEAR(kLongSeconds * 1000, playback().duration(), 1000);
}

TEST_F(PlaybackTest, CurrentPtsIsMinusOneWhenTheEngineCannotTell) {
    EXPECT_EQ(0, playback().currentPts());
    mtkpb::control::setResult(Op::kGetCurrentPos, IMTK_PB_ERROR_CODE_NOT_OK);
    EXPECT_EQ(-1, playback().currentPts());
}

TEST_F(PlaybackTest, UnPauseIsRefusedWhileATimeSeekWaits) {
    ASSERT_EQ(kNone, poll());
    ASSERT_EQ(kStatusOk, playback().play(0));
    ASSERT_EQ(kStatusOk, playback().pause());
    auto seek = startHeldSeek(5000);

    uint64_t plays = mtkpb::control::calls(Op::kPlay);
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

TEST_F(PlaybackTest, FailedTimeSeekEndsTheWaitAndReportsAnError) {
    ASSERT_EQ(kNone, poll());
    auto seek = startHeldSeek(3000);
    deliver(IMTK_PB_CTRL_EVENT_TIMESEEK_DONE, -1);
    ASSERT_TRUE(finishes(seek));
    EXPECT_EQ(kStatusOk, seek.get()) << "the failure surfaces as an event, not a result";
    EXPECT_EQ((Event{MediaPlayer::kEventError, 0}), poll());
    EXPECT_EQ(kNone, poll());
}

TEST_F(PlaybackTest, EngineErrorEndsAWaitingTimeSeek) {
    ASSERT_EQ(kNone, poll());
    auto seek = startHeldSeek(3000);
    deliver(IMTK_PB_CTRL_EVENT_PLAYBACK_ERROR, 0);
    ASSERT_TRUE(finishes(seek));
    EXPECT_EQ(kStatusOk, seek.get());
    EXPECT_EQ((Event{MediaPlayer::kEventError, 0}), poll());
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

// play(start) hands whole seconds over and seeks once the engine reports
// that playback started.
struct StartRow {
    int startMs;
    bool seeks;
    int atLeastMs;  // where the engine is right after the seek (key frame every second)
};

class PlayFromTest : public PlaybackTest, public ::testing::WithParamInterface<StartRow> {};

TEST_P(PlayFromTest, SeeksToTheWholeSecondOncePlaying) {
    const StartRow& row = GetParam();
    uint64_t played = mtkpb::control::notifications(IMTK_PB_CTRL_EVENT_PLAYED);
    uint64_t seeksDone = mtkpb::control::notifications(IMTK_PB_CTRL_EVENT_TIMESEEK_DONE);
    ASSERT_EQ(kStatusOk, playback().play(row.startMs));
    ASSERT_TRUE(mtkpb::control::waitForNotifications(IMTK_PB_CTRL_EVENT_PLAYED, played + 1,
                                                     kEventWaitMs));
    // The seek is asked for from inside the PLAYED notification.
    EXPECT_EQ(row.seeks ? 1u : 0u, mtkpb::control::calls(Op::kTimeSeek));
    if (row.seeks) {
        ASSERT_TRUE(mtkpb::control::waitForNotifications(IMTK_PB_CTRL_EVENT_TIMESEEK_DONE,
                                                         seeksDone + 1, kEventWaitMs));
        EXPECT_GE(playback().currentPts(), row.atLeastMs);
    }
    // Once only: the next play starts where it is.
    ASSERT_EQ(kStatusOk, playback().pause());
    ASSERT_EQ(kStatusOk, playback().play(0));
    ASSERT_TRUE(mtkpb::control::waitForNotifications(IMTK_PB_CTRL_EVENT_PLAYED, played + 2,
                                                     kEventWaitMs));
    EXPECT_EQ(row.seeks ? 1u : 0u, mtkpb::control::calls(Op::kTimeSeek));
}

INSTANTIATE_TEST_SUITE_P(StartPositions, PlayFromTest,
                         ::testing::Values(StartRow{0, false, 0}, StartRow{999, false, 0},
                                           StartRow{1500, true, 1000},
                                           StartRow{4000, true, 4000}));

TEST_F(PlaybackTest, PullCallbacksUseTheTmpFileWhileOpen) {
    ASSERT_EQ(kNone, poll());
    // In tmp file mode pb_open hands out a placeholder and opens nothing.
    IMTK_PULL_HANDLE_T handle = 0;
    std::string tag = "unused";
    int descriptors = openDescriptors();
    ASSERT_EQ(0, velka::pb_open(0, &handle, &tag));
    EXPECT_EQ(reinterpret_cast<IMTK_PULL_HANDLE_T>(&handle), handle);
    EXPECT_EQ(descriptors, openDescriptors());

    // Any pull handle reads the tmp file.
    uint64_t size = 0;
    ASSERT_EQ(0, velka::pb_seek(12345, &tag, 0, IMTK_PB_PULL_SEEK_END, &size));
    EXPECT_GT(size, 0u);

    // pb_close leaves it open and forgets the last position.
    deliver(IMTK_PB_CTRL_EVENT_CUR_TIME_UPDATE, 2500);
    EXPECT_EQ(0, velka::pb_close(handle, &tag));
    EXPECT_EQ(kNone, poll()) << "pb_close kept the position";
    uint64_t position = 1;
    ASSERT_EQ(0, velka::pb_seek(handle, &tag, 4, IMTK_PB_PULL_SEEK_SET, &position));
    EXPECT_EQ(4u, position);
    uint8_t bytes[4] = {};
    uint32_t read = 0;
    ASSERT_EQ(0, velka::pb_read(handle, &tag, bytes, sizeof bytes, &read));
    EXPECT_EQ(4u, read);
    EXPECT_EQ(0, std::memcmp(bytes, "ftyp", 4));
}

}  // namespace
