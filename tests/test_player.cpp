// The player's state machine as a listener sees it, driven through the real
// Playback and the software playback engine (results forced and
// notifications injected through its control interface).

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "IMtkPb_Ctrl.h"
#include "mtkpb_control.h"
#include "support/PlayerTestSupport.h"
#include "velka/MediaPlayer.h"

namespace {

using namespace velka_test;
using mtkpb::control::Op;
using velka::kStatusError;
using velka::kStatusInvalidArgument;
using velka::kStatusInvalidState;
using velka::kStatusOk;
using velka::kStatusOutOfRange;

const Event kOpening = stateEvent(MediaPlayer::kStateOpening);
const Event kOpened = stateEvent(MediaPlayer::kStateOpened);
const Event kPlaying = stateEvent(MediaPlayer::kStatePlaying);
const Event kPaused = stateEvent(MediaPlayer::kStatePaused);
const Event kStopped = stateEvent(MediaPlayer::kStateStopped);
const Event kClosed = stateEvent(MediaPlayer::kStateClosed);
const Event kSeeking = stateEvent(MediaPlayer::kStateSeeking);
const Event kEndOfStream = {MediaPlayer::kEventEndOfStream, 0};
// LocalFile reports no error code of its own, so engine errors carry 0.
const Event kError = {MediaPlayer::kEventError, 0};
const Event kOpenFailed = {MediaPlayer::kEventError, 0};

Events concat(Events a, const Events& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

// True when the engine has no instance open (inject needs one).
bool noEngineInstance() { return !mtkpb::control::inject(IMTK_PB_CTRL_EVENT_STEP_DONE, 0); }

class PlayerTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_FALSE(media().dir.empty()) << "ffmpeg could not make the test media";
        mtkpb::control::reset();
        mtkpb::control::setSpeed(1);
        ASSERT_TRUE(noEngineInstance()) << "an earlier test left an engine instance open";
        descriptors_ = openDescriptors();
        player_.reset(new MediaPlayer);
        player_->addListener(log_);
        // The long clip: nothing reaches its end while a test runs.
        url_ = Media::url(media().longClip);
    }

    void TearDown() override {
        player_.reset();
        mtkpb::control::reset();
        EXPECT_TRUE(noEngineInstance());
        EXPECT_EQ(descriptors_, openDescriptors()) << "descriptors leaked";
    }

    // Waits for as many transitions as expected and compares them all.
    void expectTransitions(const Events& expected) {
        EXPECT_TRUE(log_.waitForTransitions(expected.size()))
            << "got only " << ::testing::PrintToString(log_.transitions());
        EXPECT_EQ(expected, log_.transitions());
    }

    void openAndPlay() {
        ASSERT_EQ(kStatusOk, player_->open(url_));
        // play() clears a pause left over in the process-wide Playback.
        ASSERT_EQ(kStatusOk, player_->play(0));
        expectTransitions({kOpening, kOpened, kPlaying});
    }

    int descriptors_ = 0;
    std::string url_;
    EventLog log_;
    std::unique_ptr<MediaPlayer> player_;
};

TEST_F(PlayerTest, NewPlayerIsClosedAndRefusesEveryCommandButOpen) {
    EXPECT_EQ(MediaPlayer::kStateClosed, player_->state());
    EXPECT_EQ("", player_->url());

    const MediaPlayer::OutputScreen screen = {0, 0, 1000, 1000};
    EXPECT_EQ(kStatusInvalidState, player_->play(0));
    EXPECT_EQ(kStatusInvalidState, player_->pause());
    EXPECT_EQ(kStatusInvalidState, player_->unPause());
    EXPECT_EQ(kStatusInvalidState, player_->stop());
    EXPECT_EQ(kStatusInvalidState, player_->timeSeek(1000));
    EXPECT_EQ(kStatusInvalidState, player_->display(screen));
    player_->close();
    EventLog stranger;
    EXPECT_EQ(kStatusOk, player_->removeListener(stranger));
    EXPECT_EQ(kStatusInvalidArgument, player_->open(""));
    EXPECT_EQ(MediaPlayer::kStateClosed, player_->state());
    EXPECT_EQ(0u, mtkpb::control::calls(Op::kOpen)) << "a refused command reached the engine";

    // None of the above queued anything: the first events are open's.
    ASSERT_EQ(kStatusOk, player_->open(url_));
    expectTransitions({kOpening, kOpened});
    player_->close();
    expectTransitions({kOpening, kOpened, kClosed});
}

TEST_F(PlayerTest, OpenIsRefusedWithEmptyUrlOrWhenNotClosed) {
    ASSERT_EQ(kStatusOk, player_->open(url_));
    EXPECT_EQ(MediaPlayer::kStateOpened, player_->state());
    EXPECT_EQ(url_, player_->url());

    EXPECT_EQ(kStatusInvalidArgument, player_->open(""));
    EXPECT_EQ(kStatusInvalidState, player_->open(Media::url(media().mp4)));
    EXPECT_EQ(url_, player_->url());
    EXPECT_EQ(MediaPlayer::kStateOpened, player_->state());
    EXPECT_EQ(1u, mtkpb::control::calls(Op::kOpen));

    expectTransitions({kOpening, kOpened});
    player_->close();
    expectTransitions({kOpening, kOpened, kClosed});
}

TEST_F(PlayerTest, CommandsFollowTheTransitionTable) {
    ASSERT_EQ(kStatusOk, player_->open(url_));
    EXPECT_EQ(MediaPlayer::kStateOpened, player_->state());
    EXPECT_EQ(kStatusInvalidState, player_->pause()) << "pause needs playing";
    EXPECT_EQ(kStatusInvalidState, player_->unPause()) << "unPause needs paused";
    Events expected = {kOpening, kOpened};
    expectTransitions(expected);

    struct Step {
        const char* what;
        std::function<velka::VelkaStatus(MediaPlayer&)> command;
        MediaPlayer::State after;
        Events events;
    };
    const std::vector<Step> steps = {
        {"play", [](MediaPlayer& p) { return p.play(0); }, MediaPlayer::kStatePlaying, {kPlaying}},
        {"timeSeek while playing", [](MediaPlayer& p) { return p.timeSeek(2000); },
         MediaPlayer::kStatePlaying, {kSeeking, kPlaying}},
        {"pause", [](MediaPlayer& p) { return p.pause(); }, MediaPlayer::kStatePaused, {kPaused}},
        {"timeSeek while paused", [](MediaPlayer& p) { return p.timeSeek(1000); },
         MediaPlayer::kStatePaused, {kSeeking, kPaused}},
        {"unPause", [](MediaPlayer& p) { return p.unPause(); }, MediaPlayer::kStatePlaying,
         {kPlaying}},
        {"play while playing", [](MediaPlayer& p) { return p.play(0); },
         MediaPlayer::kStatePlaying, {kPlaying}},
        {"stop", [](MediaPlayer& p) { return p.stop(); }, MediaPlayer::kStateStopped, {kStopped}},
        {"stop while stopped", [](MediaPlayer& p) { return p.stop(); },
         MediaPlayer::kStateStopped, {kStopped}},
        {"timeSeek while stopped", [](MediaPlayer& p) { return p.timeSeek(0); },
         MediaPlayer::kStateStopped, {kSeeking, kStopped}},
        {"play while stopped", [](MediaPlayer& p) { return p.play(0); },
         MediaPlayer::kStatePlaying, {kPlaying}},
    };
    for (const Step& step : steps) {
        SCOPED_TRACE(step.what);
        EXPECT_EQ(kStatusOk, step.command(*player_));
        EXPECT_EQ(step.after, player_->state());
        expected = concat(expected, step.events);
        expectTransitions(expected);
    }
    EXPECT_EQ(2u, mtkpb::control::calls(Op::kStop)) << "stop while stopped calls the engine again";
    EXPECT_EQ(3u, mtkpb::control::calls(Op::kTimeSeek));

    player_->close();
    EXPECT_EQ(MediaPlayer::kStateClosed, player_->state());
    expectTransitions(concat(expected, {kClosed}));
    EXPECT_EQ(1u, mtkpb::control::calls(Op::kClose));
    player_->close();
    EXPECT_EQ(1u, mtkpb::control::calls(Op::kClose)) << "close on a closed player does nothing";
}

// Every step of Playback::open that can fail: the player announces the error
// alone, ends closed, and neither a source nor an engine instance is left.
struct OpenFailure {
    const char* name;
    bool missingFile;   // the source cannot be opened
    bool garbage;       // the engine does not recognise the medium
    bool forceFailure;  // force `op` to fail
    Op op;
    bool engineClosed;  // the failure needs the engine instance closed
};

void PrintTo(const OpenFailure& row, std::ostream* os) { *os << row.name; }

class OpenFailureTest : public PlayerTest, public ::testing::WithParamInterface<OpenFailure> {};

TEST_P(OpenFailureTest, LeavesNothingBehindAndAnnouncesTheError) {
    const OpenFailure& row = GetParam();
    std::string url = row.missingFile ? Media::url(media().dir + "/no-such-file.mp4")
                      : row.garbage   ? Media::url(media().garbage)
                                      : url_;
    if (row.forceFailure) mtkpb::control::setResult(row.op, IMTK_PB_ERROR_CODE_NOT_OK);

    EXPECT_EQ(kStatusError, player_->open(url));
    EXPECT_EQ(MediaPlayer::kStateClosed, player_->state());
    EXPECT_EQ(url, player_->url());
    EXPECT_EQ(row.engineClosed ? 1u : 0u, mtkpb::control::calls(Op::kClose));
    if (row.missingFile) {
        EXPECT_EQ(0u, mtkpb::control::calls(Op::kOpen));
    }
    EXPECT_TRUE(noEngineInstance());
    EXPECT_EQ(descriptors_, openDescriptors()) << "the source was not destroyed";
    expectTransitions({kOpening, kOpenFailed});

    // Nothing left behind stands in the way of the next open.
    mtkpb::control::clearResult(row.op);
    ASSERT_EQ(kStatusOk, player_->open(url_));
    expectTransitions({kOpening, kOpenFailed, kOpening, kOpened});
    player_->close();
    expectTransitions({kOpening, kOpenFailed, kOpening, kOpened, kClosed});
}

INSTANTIATE_TEST_SUITE_P(
    EveryStep, OpenFailureTest,
    ::testing::Values(OpenFailure{"SourceOpen", true, false, false, Op::kOpen, false},
                      OpenFailure{"EngineOpen", false, false, true, Op::kOpen, false},
                      OpenFailure{"RegCallback", false, false, true, Op::kRegCallback, true},
                      OpenFailure{"SetEngineParam", false, false, true, Op::kSetEngineParam, true},
                      OpenFailure{"GetMediaInfo", false, false, true, Op::kGetMediaInfo, true},
                      OpenFailure{"UnknownMedium", false, true, false, Op::kOpen, true}),
    [](const ::testing::TestParamInfo<OpenFailure>& info) { return info.param.name; });

// End of stream and errors reported by the engine, in each state a player
// polls in. A trailing timeSeek marks the end of what the poll queued.
struct EngineEvent {
    const char* name;
    MediaPlayer::State state;  // playing, paused or stopped
    IMTK_PB_CTRL_EVENT_T event;
    intptr_t data;
    Event reported;
};

void PrintTo(const EngineEvent& row, std::ostream* os) { *os << row.name; }

class EngineEventTest : public PlayerTest, public ::testing::WithParamInterface<EngineEvent> {};

TEST_P(EngineEventTest, StopsThePlayerUnlessAlreadyStopped) {
    const EngineEvent& row = GetParam();
    openAndPlay();
    Events expected = {kOpening, kOpened, kPlaying};
    if (row.state == MediaPlayer::kStatePaused) {
        ASSERT_EQ(kStatusOk, player_->pause());
        expected.push_back(kPaused);
    } else if (row.state == MediaPlayer::kStateStopped) {
        ASSERT_EQ(kStatusOk, player_->stop());
        expected.push_back(kStopped);
    }
    expectTransitions(expected);

    ASSERT_TRUE(mtkpb::control::inject(row.event, row.data));
    ASSERT_TRUE(log_.waitForEvent(row.reported)) << "not reported";
    EXPECT_EQ(MediaPlayer::kStateStopped, player_->state());
    ASSERT_EQ(kStatusOk, player_->timeSeek(0));

    expected.push_back(row.reported);
    if (row.state != MediaPlayer::kStateStopped) expected.push_back(kStopped);
    expected.push_back(kSeeking);
    expected.push_back(kStopped);
    expectTransitions(expected);
    player_->close();
}

INSTANTIATE_TEST_SUITE_P(
    EveryPollingState, EngineEventTest,
    ::testing::Values(
        EngineEvent{"EosWhilePlaying", MediaPlayer::kStatePlaying, IMTK_PB_CTRL_EVENT_EOS, 0,
                    kEndOfStream},
        EngineEvent{"EosWhilePaused", MediaPlayer::kStatePaused, IMTK_PB_CTRL_EVENT_EOS, 0,
                    kEndOfStream},
        EngineEvent{"EosWhileStopped", MediaPlayer::kStateStopped, IMTK_PB_CTRL_EVENT_EOS, 0,
                    kEndOfStream},
        EngineEvent{"ErrorWhilePlaying", MediaPlayer::kStatePlaying,
                    IMTK_PB_CTRL_EVENT_PLAYBACK_ERROR, 0, kError},
        EngineEvent{"ErrorWhilePaused", MediaPlayer::kStatePaused,
                    IMTK_PB_CTRL_EVENT_PLAYBACK_ERROR, 0, kError},
        EngineEvent{"ErrorWhileStopped", MediaPlayer::kStateStopped,
                    IMTK_PB_CTRL_EVENT_PLAYBACK_ERROR, 0, kError},
        EngineEvent{"FailedSeekWhilePlaying", MediaPlayer::kStatePlaying,
                    IMTK_PB_CTRL_EVENT_TIMESEEK_DONE, -1, kError}),
    [](const ::testing::TestParamInfo<EngineEvent>& info) { return info.param.name; });

TEST_F(PlayerTest, SecondEndOfStreamWhileStoppedIsReportedAlone) {
    openAndPlay();
    for (int i = 0; i < 2; ++i) {
        ASSERT_TRUE(mtkpb::control::inject(IMTK_PB_CTRL_EVENT_EOS, 0));
        ASSERT_TRUE(mtkpb::control::waitForNotifications(IMTK_PB_CTRL_EVENT_EOS, i + 1,
                                                         kEventWaitMs));
        ASSERT_TRUE(log_.waitForTransitions(5 + i));
    }
    ASSERT_EQ(kStatusOk, player_->timeSeek(0));
    expectTransitions({kOpening, kOpened, kPlaying, kEndOfStream, kStopped, kEndOfStream,
                       kSeeking, kStopped});
    player_->close();
}

TEST_F(PlayerTest, CloseOvertakesQueuedEvents) {
    // Hold the dispatch thread inside notify() so that events pile up.
    std::mutex mutex;
    std::condition_variable released;
    bool holding = false;
    bool release = false;
    log_.setHook([&](const Event& event) {
        if (!(event == kOpened)) return;
        std::unique_lock<std::mutex> lock(mutex);
        holding = true;
        released.notify_all();
        released.wait_for(lock, std::chrono::milliseconds(kEventWaitMs), [&] { return release; });
    });

    ASSERT_EQ(kStatusOk, player_->open(url_));
    {
        std::unique_lock<std::mutex> lock(mutex);
        ASSERT_TRUE(released.wait_for(lock, std::chrono::milliseconds(kEventWaitMs),
                                      [&] { return holding; }));
    }
    ASSERT_EQ(kStatusOk, player_->play(0));
    ASSERT_EQ(kStatusOk, player_->pause());
    ASSERT_EQ(kStatusOk, player_->unPause());
    player_->close();
    {
        std::lock_guard<std::mutex> lock(mutex);
        release = true;
    }
    released.notify_all();
    expectTransitions({kOpening, kOpened, kClosed, kPlaying, kPaused, kPlaying});
    log_.setHook(nullptr);
}

TEST_F(PlayerTest, RefusedPlayAndUnPauseChangeNothing) {
    ASSERT_EQ(kStatusOk, player_->open(url_));
    mtkpb::control::setResult(Op::kPlay, IMTK_PB_ERROR_CODE_NOT_OK);
    EXPECT_EQ(kStatusError, player_->play(0));
    EXPECT_EQ(MediaPlayer::kStateOpened, player_->state());
    mtkpb::control::clearResult(Op::kPlay);
    ASSERT_EQ(kStatusOk, player_->play(0));
    ASSERT_EQ(kStatusOk, player_->pause());

    mtkpb::control::setResult(Op::kPlay, IMTK_PB_ERROR_CODE_NOT_OK);
    EXPECT_EQ(kStatusInvalidState, player_->unPause());
    EXPECT_EQ(MediaPlayer::kStatePaused, player_->state());
    mtkpb::control::clearResult(Op::kPlay);

    ASSERT_EQ(kStatusOk, player_->stop());
    expectTransitions({kOpening, kOpened, kPlaying, kPaused, kStopped});
    player_->close();
}

TEST_F(PlayerTest, StopAndPauseReportWhatPlaybackAnswers) {
    openAndPlay();
    // pause changes the state before asking the engine, whose answer Playback ignores.
    mtkpb::control::setResult(Op::kPause, IMTK_PB_ERROR_CODE_NOT_OK);
    EXPECT_EQ(kStatusOk, player_->pause());
    EXPECT_EQ(MediaPlayer::kStatePaused, player_->state());
    mtkpb::control::setResult(Op::kStop, IMTK_PB_ERROR_CODE_NOT_OK);
    EXPECT_EQ(kStatusError, player_->stop());
    EXPECT_EQ(MediaPlayer::kStateStopped, player_->state());
    mtkpb::control::reset();
    expectTransitions({kOpening, kOpened, kPlaying, kPaused, kStopped});
    player_->close();
}

TEST_F(PlayerTest, DisplayPassesOnlyRectanglesOnTheScreen) {
    ASSERT_EQ(kStatusOk, player_->open(url_));
    struct Row {
        MediaPlayer::OutputScreen screen;
        velka::VelkaStatus result;
    };
    const Row rows[] = {
        {{0, 0, 1000, 1000}, kStatusOk},   {{999, 999, 1, 1}, kStatusOk},
        {{100, 200, 300, 400}, kStatusOk}, {{1000, 0, 10, 10}, kStatusOutOfRange},
        {{0, 1000, 10, 10}, kStatusOutOfRange}, {{0, 0, 0, 10}, kStatusOutOfRange},
        {{0, 0, 10, 0}, kStatusOutOfRange},     {{0, 0, 1001, 10}, kStatusOutOfRange},
        {{0, 0, 10, 1001}, kStatusOutOfRange},  {{-1, 0, 10, 10}, kStatusOutOfRange},
        {{0, 0, -5, 10}, kStatusOutOfRange},
    };
    for (const Row& row : rows) {
        const MediaPlayer::OutputScreen& s = row.screen;
        SCOPED_TRACE(::testing::Message() << s.x << "," << s.y << "," << s.width << ","
                                          << s.height);
        uint64_t before = mtkpb::control::calls(Op::kSetDisplayRectangle);
        EXPECT_EQ(row.result, player_->display(s));
        EngineRect full = {};
        EngineRect output = {};
        if (row.result == kStatusOk) {
            EXPECT_EQ(before + 1, mtkpb::control::calls(Op::kSetDisplayRectangle));
            ASSERT_TRUE(mtkpb::control::displayRectangles(&full, &output));
            EXPECT_EQ(0u, full.x);
            EXPECT_EQ(0u, full.y);
            EXPECT_EQ(1000u, full.width);
            EXPECT_EQ(1000u, full.height);
            EXPECT_EQ(static_cast<uint32_t>(s.x), output.x);
            EXPECT_EQ(static_cast<uint32_t>(s.y), output.y);
            EXPECT_EQ(static_cast<uint32_t>(s.width), output.width);
            EXPECT_EQ(static_cast<uint32_t>(s.height), output.height);
        } else {
            EXPECT_EQ(before, mtkpb::control::calls(Op::kSetDisplayRectangle));
        }
    }
    mtkpb::control::setResult(Op::kSetDisplayRectangle, IMTK_PB_ERROR_CODE_NOT_OK);
    EXPECT_EQ(kStatusError, player_->display({0, 0, 1000, 1000}));
    player_->close();
}

TEST_F(PlayerTest, TimeUpdatesReachTheLatestPollingPlayerOnly) {
    // A closed player never polls, so every engine event goes to the open one.
    EventLog closedLog;
    MediaPlayer closedPlayer;
    closedPlayer.addListener(closedLog);

    openAndPlay();
    // Stopped: the engine sends no positions of its own any more.
    ASSERT_EQ(kStatusOk, player_->stop());
    const int kUpdates = 4;
    for (int i = 0; i < kUpdates; ++i) {
        const Event update = {MediaPlayer::kEventTimeUpdate, 123400 + i};
        ASSERT_TRUE(mtkpb::control::inject(IMTK_PB_CTRL_EVENT_CUR_TIME_UPDATE, update.param));
        ASSERT_TRUE(log_.waitForEvent(update)) << "update " << i << " lost";
    }
    EXPECT_TRUE(closedLog.events().empty());
    player_->close();
}

// ---------------------------------------------------------------------------
// Listeners

TEST_F(PlayerTest, ListenerAddedTwiceIsNotifiedTwiceUntilRemovedOnce) {
    EventLog twice;
    player_->addListener(twice);
    player_->addListener(twice);
    ASSERT_EQ(kStatusOk, player_->open(url_));
    expectTransitions({kOpening, kOpened});
    ASSERT_TRUE(twice.waitForTransitions(4));
    EXPECT_EQ((Events{kOpening, kOpening, kOpened, kOpened}), twice.transitions());

    EXPECT_EQ(kStatusOk, player_->removeListener(twice));
    ASSERT_EQ(kStatusOk, player_->play(0));
    expectTransitions({kOpening, kOpened, kPlaying});
    ASSERT_TRUE(twice.waitForTransitions(5));
    player_->removeListener(twice);
    player_->close();
    expectTransitions({kOpening, kOpened, kPlaying, kClosed});
    EXPECT_EQ((Events{kOpening, kOpening, kOpened, kOpened, kPlaying}), twice.transitions());
}

TEST_F(PlayerTest, ListenersChangedFromInsideNotifyKeepTheDeliveryIntact) {
    // Registered in order: log_ (by the fixture), first, second, third.
    EventLog first, second, third, late;
    player_->addListener(first);
    player_->addListener(second);
    player_->addListener(third);
    // On kOpened: `first` removes itself, `second` removes `third` and adds
    // `late`. The listener after the removed one is not skipped; `third`,
    // removed before its turn, does not get kOpened; `late` gets it.
    first.setHook([&](const Event& e) {
        if (e == kOpened) player_->removeListener(first);
    });
    second.setHook([&](const Event& e) {
        if (!(e == kOpened)) return;
        player_->removeListener(third);
        player_->addListener(late);
    });

    ASSERT_EQ(kStatusOk, player_->open(url_));
    ASSERT_EQ(kStatusOk, player_->play(0));
    expectTransitions({kOpening, kOpened, kPlaying});
    ASSERT_TRUE(second.waitForTransitions(3));
    ASSERT_TRUE(late.waitForTransitions(2));
    EXPECT_EQ((Events{kOpening, kOpened}), first.transitions());
    EXPECT_EQ((Events{kOpening, kOpened, kPlaying}), second.transitions());
    EXPECT_EQ((Events{kOpening}), third.transitions());
    EXPECT_EQ((Events{kOpened, kPlaying}), late.transitions());
    player_->removeListener(second);
    player_->removeListener(late);
    player_->close();
}

TEST_F(PlayerTest, ListenerMayIssueCommandsFromInsideNotify) {
    std::mutex mutex;
    std::vector<velka::VelkaStatus> results;
    log_.setHook([&](const Event& e) {
        velka::VelkaStatus result;
        if (e == kOpened) {
            result = player_->play(0);
        } else if (e == kPlaying) {
            result = player_->pause();
        } else if (e == kPaused) {
            result = player_->stop();
        } else {
            return;
        }
        std::lock_guard<std::mutex> lock(mutex);
        results.push_back(result);
    });
    ASSERT_EQ(kStatusOk, player_->open(url_));
    expectTransitions({kOpening, kOpened, kPlaying, kPaused, kStopped});
    log_.setHook(nullptr);
    {
        std::lock_guard<std::mutex> lock(mutex);
        EXPECT_EQ((std::vector<velka::VelkaStatus>{kStatusOk, kStatusOk, kStatusOk}), results);
    }
    player_->close();
}

TEST(PlayerLifetime, DestructorReturnsWithinAboutHalfASecond) {
    // The dispatch thread sleeps 500 ms between polls of an empty queue, so
    // the destructor may wait that long. 2 s leaves room for a loaded
    // two-core machine while still catching a destructor that waits for
    // something else (a lost wake-up, a second poll, a hang).
    const auto kBound = std::chrono::milliseconds(2000);
    for (int i = 0; i < 3; ++i) {
        auto start = std::chrono::steady_clock::now();
        {
            MediaPlayer player;
        }
        EXPECT_LT(std::chrono::steady_clock::now() - start, kBound);
    }
}

}  // namespace
