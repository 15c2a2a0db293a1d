// The player as its listeners see it, driven through the real Playback and
// the software playback engine (results forced and notifications injected
// through its control interface): every transition, the listeners, the
// destructor, commands from several threads at once, and media that ffmpeg
// writes during the run played end to end, from local files and over HTTP
// through the download engine (the fault server: a live stream of unknown
// length and a server that fails in the middle).

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

extern "C" {
#include <libavformat/avformat.h>
}

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <future>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "PlayerFixture.h"
#include "bctidta_control.h"
#include "support/FaultServer.h"
#include "velka/HttpFile.h"
#include "velka/MediaPlayer.h"
#include "velka/PpsFile.h"

namespace {

using namespace velka_test;
using mtkpb::control::Op;
using velka::VelkaStatus;
using velka::kStatusError;
using velka::kStatusInvalidArgument;
using velka::kStatusInvalidState;
using velka::kStatusOk;
using velka::kStatusOutOfRange;

class PlayerTest : public EngineTest {
protected:
    void SetUp() override {
        EngineTest::SetUp();
        if (HasFatalFailure()) return;
        player_.reset(new MediaPlayer);
        player_->addListener(log_);
        // The long clip: nothing reaches its end while a test runs.
        url_ = Media::url(media().longClip);
    }

    void TearDown() override {
        player_.reset();
        EngineTest::TearDown();
    }

    // Waits for as many transitions as expected and compares them all.
    void expectTransitions(const Events& expected) {
        EXPECT_TRUE(log_.waitForTransitions(expected.size()))
            << "got only " << ::testing::PrintToString(log_.transitions());
        EXPECT_EQ(expected, log_.transitions());
    }

    std::string url_;
    EventLog log_;  // before player_, which notifies it
    std::unique_ptr<MediaPlayer> player_;
};

// ---------------------------------------------------------------------------
// The transition table, one row per command or engine event in each state.

enum class Trigger {
    kOpen, kOpenEmpty, kOpenMissing, kOpenGarbage, kClose, kPlay, kPause, kUnPause, kStop,
    kSeek, kDisplay, kEngineEos, kEngineError, kEngineSeekFailed,
};
using T = Trigger;

// States are named by the events that announce them.
struct Transition {
    const char* name;
    Event from;  // reached with open, play, then pause or stop
    Trigger trigger;
    VelkaStatus result;
    Event to;
    Events seen;                 // after the events of reaching `from`
    Op failing = Op::kCount;     // forced to fail during the trigger; kCount: none
};

void PrintTo(const Transition& row, std::ostream* os) { *os << row.name; }

const Transition kTransitions[] = {
    {"OpenWhenClosed", kClosed, T::kOpen, kStatusOk, kOpened, {kOpening, kOpened}},
    {"OpenEmptyUrl", kClosed, T::kOpenEmpty, kStatusInvalidArgument, kClosed, {}},
    // A failing open announces the error alone and leaves no source and no
    // engine instance behind, whichever step of Playback::open failed.
    {"OpenSourceFails", kClosed, T::kOpenMissing, kStatusError, kClosed, {kOpening, kError}},
    {"OpenEngineFails", kClosed, T::kOpen, kStatusError, kClosed, {kOpening, kError}, Op::kOpen},
    {"OpenRegCallbackFails", kClosed, T::kOpen, kStatusError, kClosed, {kOpening, kError},
     Op::kRegCallback},
    {"OpenSetEngineParamFails", kClosed, T::kOpen, kStatusError, kClosed, {kOpening, kError},
     Op::kSetEngineParam},
    {"OpenGetMediaInfoFails", kClosed, T::kOpen, kStatusError, kClosed, {kOpening, kError},
     Op::kGetMediaInfo},
    {"OpenUnknownMedium", kClosed, T::kOpenGarbage, kStatusError, kClosed, {kOpening, kError}},
    {"PlayWhenClosed", kClosed, T::kPlay, kStatusInvalidState, kClosed, {}},
    {"PauseWhenClosed", kClosed, T::kPause, kStatusInvalidState, kClosed, {}},
    {"UnPauseWhenClosed", kClosed, T::kUnPause, kStatusInvalidState, kClosed, {}},
    {"StopWhenClosed", kClosed, T::kStop, kStatusInvalidState, kClosed, {}},
    {"SeekWhenClosed", kClosed, T::kSeek, kStatusInvalidState, kClosed, {}},
    {"DisplayWhenClosed", kClosed, T::kDisplay, kStatusInvalidState, kClosed, {}},
    {"CloseWhenClosed", kClosed, T::kClose, kStatusOk, kClosed, {}},
    {"OpenWhenOpened", kOpened, T::kOpen, kStatusInvalidState, kOpened, {}},
    {"OpenEmptyUrlWhenOpened", kOpened, T::kOpenEmpty, kStatusInvalidArgument, kOpened, {}},
    {"PlayWhenOpened", kOpened, T::kPlay, kStatusOk, kPlaying, {kPlaying}},
    {"PlayRefusedByTheEngine", kOpened, T::kPlay, kStatusError, kOpened, {}, Op::kPlay},
    {"PauseWhenOpened", kOpened, T::kPause, kStatusInvalidState, kOpened, {}},
    {"UnPauseWhenOpened", kOpened, T::kUnPause, kStatusInvalidState, kOpened, {}},
    {"StopWhenOpened", kOpened, T::kStop, kStatusOk, kStopped, {kStopped}},
    {"SeekWhenOpened", kOpened, T::kSeek, kStatusOk, kOpened, {kSeeking, kOpened}},
    {"DisplayWhenOpened", kOpened, T::kDisplay, kStatusOk, kOpened, {}},
    {"DisplayRefusedByTheEngine", kOpened, T::kDisplay, kStatusError, kOpened, {},
     Op::kSetDisplayRectangle},
    {"PlayWhilePlaying", kPlaying, T::kPlay, kStatusOk, kPlaying, {kPlaying}},
    {"PauseWhilePlaying", kPlaying, T::kPause, kStatusOk, kPaused, {kPaused}},
    // Playback::pause ignores the engine's answer.
    {"PauseRefusedByTheEngine", kPlaying, T::kPause, kStatusOk, kPaused, {kPaused}, Op::kPause},
    {"UnPauseWhilePlaying", kPlaying, T::kUnPause, kStatusInvalidState, kPlaying, {}},
    {"StopWhilePlaying", kPlaying, T::kStop, kStatusOk, kStopped, {kStopped}},
    {"SeekWhilePlaying", kPlaying, T::kSeek, kStatusOk, kPlaying, {kSeeking, kPlaying}},
    {"EosWhilePlaying", kPlaying, T::kEngineEos, kStatusOk, kStopped, {kEndOfStream, kStopped}},
    {"ErrorWhilePlaying", kPlaying, T::kEngineError, kStatusOk, kStopped, {kError, kStopped}},
    {"FailedSeekWhilePlaying", kPlaying, T::kEngineSeekFailed, kStatusOk, kStopped,
     {kError, kStopped}},
    {"CloseWhilePlaying", kPlaying, T::kClose, kStatusOk, kClosed, {kClosed}},
    {"UnPauseWhenPaused", kPaused, T::kUnPause, kStatusOk, kPlaying, {kPlaying}},
    {"UnPauseRefusedByTheEngine", kPaused, T::kUnPause, kStatusInvalidState, kPaused, {},
     Op::kPlay},
    {"PlayWhenPaused", kPaused, T::kPlay, kStatusOk, kPlaying, {kPlaying}},
    {"PauseWhenPaused", kPaused, T::kPause, kStatusInvalidState, kPaused, {}},
    {"StopWhenPaused", kPaused, T::kStop, kStatusOk, kStopped, {kStopped}},
    {"SeekWhenPaused", kPaused, T::kSeek, kStatusOk, kPaused, {kSeeking, kPaused}},
    {"EosWhenPaused", kPaused, T::kEngineEos, kStatusOk, kStopped, {kEndOfStream, kStopped}},
    {"ErrorWhenPaused", kPaused, T::kEngineError, kStatusOk, kStopped, {kError, kStopped}},
    // Stop when stopped repeats the event and the engine call, whose answer it gives.
    {"StopWhenStopped", kStopped, T::kStop, kStatusError, kStopped, {kStopped}, Op::kStop},
    {"PlayWhenStopped", kStopped, T::kPlay, kStatusOk, kPlaying, {kPlaying}},
    {"SeekWhenStopped", kStopped, T::kSeek, kStatusOk, kStopped, {kSeeking, kStopped}},
    {"EosWhenStopped", kStopped, T::kEngineEos, kStatusOk, kStopped, {kEndOfStream}},
    {"ErrorWhenStopped", kStopped, T::kEngineError, kStatusOk, kStopped, {kError}},
};

class TransitionTest : public PlayerTest, public ::testing::WithParamInterface<Transition> {
protected:
    // Takes the player to `state`; the events that took, once delivered.
    Events reach(const Event& state) {
        Events seen;
        if (!(state == kClosed)) {
            EXPECT_EQ(kStatusOk, player_->open(url_));
            seen = {kOpening, kOpened};
        }
        if (!(state == kClosed || state == kOpened)) {
            EXPECT_EQ(kStatusOk, player_->play(0));
            seen.push_back(kPlaying);
        }
        if (state == kPaused || state == kStopped) {
            EXPECT_EQ(kStatusOk, state == kPaused ? player_->pause() : player_->stop());
            seen.push_back(state);
        }
        EXPECT_TRUE(log_.waitForTransitions(seen.size()));
        return seen;
    }

    // An engine notification, then the wait until the listener has its event.
    VelkaStatus engine(IMTK_PB_CTRL_EVENT_T event, intptr_t data, const Event& reported) {
        if (!mtkpb::control::inject(event, data)) return kStatusError;
        return log_.waitForEvent(reported) ? kStatusOk : kStatusError;
    }

    // Sets `opened` to the URL an open is given.
    VelkaStatus apply(const Transition& row, std::string* opened) {
        const Event& first = row.seen.empty() ? kNone : row.seen.front();
        switch (row.trigger) {
            case T::kOpen: return player_->open(*opened = url_);
            case T::kOpenEmpty: return player_->open("");
            case T::kOpenMissing:
                return player_->open(*opened = Media::url(media().dir + "/no-such-file.mp4"));
            case T::kOpenGarbage: return player_->open(*opened = Media::url(media().garbage));
            case T::kClose: player_->close(); return kStatusOk;
            case T::kPlay: return player_->play(0);
            case T::kPause: return player_->pause();
            case T::kUnPause: return player_->unPause();
            case T::kStop: return player_->stop();
            case T::kSeek: return player_->timeSeek(1000);
            case T::kDisplay: return player_->display({0, 0, 1000, 1000});
            case T::kEngineEos: return engine(IMTK_PB_CTRL_EVENT_EOS, 0, first);
            case T::kEngineError: return engine(IMTK_PB_CTRL_EVENT_PLAYBACK_ERROR, 0, first);
            case T::kEngineSeekFailed: return engine(IMTK_PB_CTRL_EVENT_TIMESEEK_DONE, -1, first);
        }
        return kStatusError;
    }
};

TEST_P(TransitionTest, GivesItsResultStateAndEventsAndNothingElse) {
    const Transition& row = GetParam();
    Events expected = reach(row.from);
    const std::string urlBefore = player_->url();
    std::string opened;
    const bool forced = row.failing != Op::kCount;

    if (forced) mtkpb::control::setResult(row.failing, IMTK_PB_ERROR_CODE_NOT_OK);
    EXPECT_EQ(row.result, apply(row, &opened));
    if (forced) mtkpb::control::clearResult(row.failing);
    EXPECT_EQ(row.to.param, player_->state());
    EXPECT_EQ(row.from == kClosed && !opened.empty() ? opened : urlBefore, player_->url());
    if (row.to == kClosed) {
        EXPECT_TRUE(noEngineInstance());
        EXPECT_TRUE(descriptorsBack()) << "the source was not destroyed";
    }

    // A command that queues after everything the row queued: nothing else
    // came in between, and nothing left behind stands in its way.
    expected.insert(expected.end(), row.seen.begin(), row.seen.end());
    if (row.to == kClosed) {
        ASSERT_EQ(kStatusOk, player_->open(url_));
        expected.insert(expected.end(), {kOpening, kOpened});
    } else {
        ASSERT_EQ(kStatusOk, player_->timeSeek(0));
        expected.insert(expected.end(), {kSeeking, row.to});
    }
    expectTransitions(expected);
}

INSTANTIATE_TEST_SUITE_P(EveryRow, TransitionTest, ::testing::ValuesIn(kTransitions),
                         [](const ::testing::TestParamInfo<Transition>& info) {
                             return info.param.name;
                         });

// ---------------------------------------------------------------------------

TEST_F(PlayerTest, CloseOvertakesQueuedEvents) {
    // The dispatch thread is held inside notify() so that events pile up.
    std::promise<void> holding, release;
    std::shared_future<void> released = release.get_future().share();
    log_.setHook([&](const Event& event) {
        if (!(event == kOpened)) return;
        holding.set_value();
        released.wait_for(std::chrono::milliseconds(kEventWaitMs));
    });
    ASSERT_EQ(kStatusOk, player_->open(url_));
    ASSERT_EQ(std::future_status::ready,
              holding.get_future().wait_for(std::chrono::milliseconds(kEventWaitMs)));
    ASSERT_EQ(kStatusOk, player_->play(0));
    ASSERT_EQ(kStatusOk, player_->pause());
    ASSERT_EQ(kStatusOk, player_->unPause());
    player_->close();
    release.set_value();
    expectTransitions({kOpening, kOpened, kClosed, kPlaying, kPaused, kPlaying});
}

TEST_F(PlayerTest, DisplayPassesOnlyRectanglesOnTheScreen) {
    auto text = [](const auto& r) {  // an OutputScreen or an EngineRect
        return ::testing::PrintToString(std::vector<int64_t>{r.x, r.y, r.width, r.height});
    };
    ASSERT_EQ(kStatusOk, player_->open(url_));
    for (const MediaPlayer::OutputScreen& s :
         {MediaPlayer::OutputScreen{0, 0, 1000, 1000}, {999, 999, 1, 1}, {100, 200, 300, 400}}) {
        EXPECT_EQ(kStatusOk, player_->display(s)) << text(s);
        EngineRect full = {}, output = {};
        ASSERT_TRUE(mtkpb::control::displayRectangles(&full, &output));
        EXPECT_EQ(text(EngineRect{0, 0, 1000, 1000}), text(full));
        EXPECT_EQ(text(s), text(output));
    }
    const uint64_t calls = mtkpb::control::calls(Op::kSetDisplayRectangle);
    for (const MediaPlayer::OutputScreen& s :
         {MediaPlayer::OutputScreen{1000, 0, 10, 10}, {0, 1000, 10, 10}, {0, 0, 0, 10},
          {0, 0, 10, 0}, {0, 0, 1001, 10}, {0, 0, 10, 1001}, {-1, 0, 10, 10}, {0, 0, -5, 10}}) {
        EXPECT_EQ(kStatusOutOfRange, player_->display(s)) << text(s);
    }
    EXPECT_EQ(calls, mtkpb::control::calls(Op::kSetDisplayRectangle)) << "reached the engine";
}

// The box has one playback engine. While the first player holds it, a
// second player's open is refused and goes back to closed; the first plays
// to its end untouched and alone hears the engine; once the first has
// closed, the second opens and plays.
TEST_F(PlayerTest, SecondPlayerIsRefusedWhileTheFirstHoldsTheEngineAndOpensAfterItClosed) {
    mtkpb::control::setSpeed(4);
    EventLog secondLog;
    MediaPlayer second;
    second.addListener(secondLog);
    ASSERT_EQ(kStatusOk, player_->open(Media::url(media().mp4)));
    ASSERT_EQ(kStatusOk, player_->play(0));
    ASSERT_TRUE(log_.waitForTimeUpdate()) << "the first player does not play";

    EXPECT_EQ(kStatusInvalidState, second.open(Media::url(media().ts)));
    EXPECT_EQ(MediaPlayer::kStateClosed, second.state());
    for (auto refused : {&MediaPlayer::play, &MediaPlayer::timeSeek}) {
        EXPECT_EQ(kStatusInvalidState, (second.*refused)(0));
    }
    EXPECT_EQ(kStatusInvalidState, second.stop());
    second.close();
    ASSERT_TRUE(secondLog.waitForTransitions(2));

    ASSERT_TRUE(log_.waitForEvent(kStopped, 60000))
        << "never stopped: " << ::testing::PrintToString(log_.events());
    expectTransitions({kOpening, kOpened, kPlaying, kEndOfStream, kStopped});
    const mtkpb::control::Counters counters = mtkpb::control::counters();
    EXPECT_EQ(0u, counters.protocolErrors);
    EXPECT_EQ(0u, counters.readsFailed);
    // The engine's notifications while stopped still reach only the holder.
    const Event update = {MediaPlayer::kEventTimeUpdate, 123400};
    ASSERT_TRUE(mtkpb::control::inject(IMTK_PB_CTRL_EVENT_CUR_TIME_UPDATE, update.param));
    ASSERT_TRUE(log_.waitForEvent(update));
    EXPECT_EQ((Events{kOpening, kClosed}), secondLog.events());

    player_->close();
    ASSERT_EQ(kStatusOk, second.open(Media::url(media().ts)));
    ASSERT_EQ(kStatusOk, second.play(0));
    ASSERT_TRUE(secondLog.waitForTransitions(5));
    EXPECT_EQ(kStatusInvalidState, player_->open(url_));
    second.close();
    ASSERT_TRUE(secondLog.waitForTransitions(6));
    EXPECT_EQ((Events{kOpening, kClosed, kOpening, kOpened, kPlaying, kClosed}),
              secondLog.transitions());
    EXPECT_TRUE(noEngineInstance());
}

// ---------------------------------------------------------------------------
// Listeners

TEST_F(PlayerTest, ListenerAddedTwiceIsNotifiedTwiceUntilRemovedOnce) {
    EventLog twice, stranger;
    player_->addListener(twice);
    player_->addListener(twice);
    EXPECT_EQ(kStatusOk, player_->removeListener(stranger));
    ASSERT_EQ(kStatusOk, player_->open(url_));
    ASSERT_TRUE(twice.waitForTransitions(4));
    EXPECT_EQ(kStatusOk, player_->removeListener(twice));
    ASSERT_EQ(kStatusOk, player_->play(0));
    ASSERT_TRUE(twice.waitForTransitions(5));
    player_->removeListener(twice);
    expectTransitions({kOpening, kOpened, kPlaying});
    EXPECT_EQ((Events{kOpening, kOpening, kOpened, kOpened, kPlaying}), twice.transitions());
}

TEST_F(PlayerTest, ListenersMayChangeTheListAndIssueCommandsFromInsideNotify) {
    // Registered in order: log_ (by the fixture), first, second, third. On
    // kOpened `first` removes itself, `second` removes `third` and adds
    // `late`: the listener after a removed one is not skipped, `third` does
    // not get kOpened, `late` does. `second` answers kOpened, kPlaying and
    // kPaused with play, pause and stop.
    EventLog first, second, third, late;
    player_->addListener(first);
    player_->addListener(second);
    player_->addListener(third);
    first.setHook([&](const Event& e) {
        if (e == kOpened) player_->removeListener(first);
    });
    std::promise<std::vector<VelkaStatus>> results;
    std::vector<VelkaStatus> issued;  // on the dispatch thread only
    second.setHook([&](const Event& e) {
        if (e == kOpened) {
            player_->removeListener(third);
            player_->addListener(late);
            issued.push_back(player_->play(0));
        }
        if (e == kPlaying) issued.push_back(player_->pause());
        if (e == kPaused) {
            issued.push_back(player_->stop());
            results.set_value(issued);
        }
    });
    ASSERT_EQ(kStatusOk, player_->open(url_));
    std::future<std::vector<VelkaStatus>> got = results.get_future();
    ASSERT_EQ(std::future_status::ready, got.wait_for(std::chrono::milliseconds(kEventWaitMs)));
    EXPECT_EQ((std::vector<VelkaStatus>{kStatusOk, kStatusOk, kStatusOk}), got.get());
    ASSERT_TRUE(late.waitForTransitions(4));
    player_->removeListener(second);
    player_->removeListener(late);
    const Events all = {kOpening, kOpened, kPlaying, kPaused, kStopped};
    expectTransitions(all);
    EXPECT_EQ((Events{kOpening, kOpened}), first.transitions());
    EXPECT_EQ(all, second.transitions());
    EXPECT_EQ((Events{kOpening}), third.transitions());
    EXPECT_EQ((Events(all.begin() + 1, all.end())), late.transitions());
}

// ---------------------------------------------------------------------------
// Commands from several threads at once on two players, which contend for the
// one engine, with listeners that come and go and one that issues commands
// itself while they run: every thread ends (no deadlock), every result is one
// the command may give, and Playback stays usable. Meant to run under both
// sanitizers too.

TEST_F(PlayerTest, CommandsOnTwoPlayersFromSeveralThreadsNeitherDeadlockNorRace) {
    mtkpb::control::setSpeed(0);
    const std::string url = Media::url(media().mp4);
    MediaPlayer& player = *player_;
    EventLog otherLog;  // before other, which notifies it
    MediaPlayer other;
    EventLog commander;  // lock order: listener lock, then player lock
    commander.setHook([&player](const Event& e) {
        if (e.id == MediaPlayer::kEventEndOfStream) player.timeSeek(0);
        if (e == kOpened) player.display({0, 0, 500, 500});
    });
    player.addListener(commander);
    other.addListener(otherLog);

    // Each command with whether kStatusError may come besides kStatusOk and
    // kStatusInvalidState; drawn so that a player is mostly open and playing.
    using Command = std::pair<bool, std::function<VelkaStatus(MediaPlayer&)>>;
    const Command open = {true, [&](MediaPlayer& p) { return p.open(url); }};
    const Command play = {true, [](MediaPlayer& p) { return p.play(0); }};
    const Command playFrom = {true, [](MediaPlayer& p) { return p.play(1500); }};
    const Command pause = {false, [](MediaPlayer& p) { return p.pause(); }};
    const Command unPause = {false, [](MediaPlayer& p) { return p.unPause(); }};
    const Command stop = {true, [](MediaPlayer& p) { return p.stop(); }};
    const Command seek = {false, [](MediaPlayer& p) { return p.timeSeek(1000); }};
    const Command display = {true, [](MediaPlayer& p) { return p.display({10, 10, 900, 900}); }};
    const Command query = {false, [](MediaPlayer& p) {
        p.currentPts();
        p.duration();
        p.state();
        return kStatusOk;
    }};
    const Command close = {false, [](MediaPlayer& p) { p.close(); return kStatusOk; }};
    // The engine reports the end while commands run.
    const Command end = {false, [](MediaPlayer&) {
        mtkpb::control::inject(IMTK_PB_CTRL_EVENT_EOS, 0);
        return kStatusOk;
    }};
    const std::vector<const Command*> deck = {
        &open, &open, &open, &play, &play, &play, &playFrom, &pause, &pause, &pause, &unPause,
        &unPause, &unPause, &stop, &stop, &seek, &seek, &display, &query, &query, &close, &end,
    };
    MediaPlayer* const players[] = {&player, &other};

    std::atomic<int> unexpected(0);
    std::vector<std::future<void>> runs;
    for (unsigned t = 0; t < 4; ++t) {
        runs.push_back(std::async(std::launch::async, [&, t] {
            std::mt19937 random(1234u + t);
            std::uniform_int_distribution<size_t> pick(0, deck.size() - 1);
            // On until both players' listeners have had events to answer.
            for (int i = 0; i < 5000 && (i < 60 || commander.events().size() < 40 ||
                                         otherLog.events().size() < 40);
                 ++i) {
                const Command& c = *deck[pick(random)];
                const VelkaStatus s = c.second(*players[(t + i) % 2]);
                if (s != kStatusOk && s != kStatusInvalidState && !(c.first && s == kStatusError)) {
                    std::fprintf(stderr, "unexpected result %d\n", static_cast<int>(s));
                    ++unexpected;
                }
            }
        }));
    }
    runs.push_back(std::async(std::launch::async, [&] {
        std::vector<std::unique_ptr<EventLog>> passing;
        // Stops after an odd round, which removes the pair it completes.
        for (size_t i = 0; i < 4000 && (i % 2 == 1 || commander.events().size() < 40); ++i) {
            passing.emplace_back(new EventLog);
            player.addListener(*passing.back());
            if (i % 2 == 1) {
                player.removeListener(*passing[i - 1]);
                player.removeListener(*passing[i]);
            }
            std::this_thread::yield();
        }
    }));
    // Far beyond what the commands take even on a loaded machine.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::minutes(4);
    for (std::future<void>& run : runs) {
        if (run.wait_until(deadline) != std::future_status::ready) {
            std::fprintf(stderr, "deadlock: a command thread did not finish\n");
            std::abort();  // joining would hang the suite
        }
    }
    EXPECT_EQ(0, unexpected.load());
    player.removeListener(commander);
    player.close();
    other.close();
    EXPECT_EQ(MediaPlayer::kStateClosed, player.state());
    EXPECT_EQ(MediaPlayer::kStateClosed, other.state());
    EXPECT_TRUE(noEngineInstance());

    // Whatever the run left in the process-wide Playback, a new player
    // opens, plays and closes.
    player_.reset(new MediaPlayer);
    log_.clear();
    player_->addListener(log_);
    mtkpb::control::setSpeed(1);
    ASSERT_EQ(kStatusOk, player_->open(url));
    ASSERT_EQ(kStatusOk, player_->play(0));
    ASSERT_TRUE(log_.waitForTransitions(3));
    player_->close();
    expectTransitions({kOpening, kOpened, kPlaying, kClosed});
}

// ---------------------------------------------------------------------------
// The download engine holds a read for as long as the network stalls; the
// playback engine's stop aborts it and waits for its completion. Stop, close
// and the destructor still return promptly: the abort completes the read
// toward the engine at once, and the held read, once let go, lands in a
// buffer of the library's own (a write into the engine's buffer, freed by
// then, shows under AddressSanitizer). The bound is far above a prompt answer
// and far below the engine's own read deadline. Each round's playback also
// shows that the previous round's held read has left the engine's worker.

TEST_F(PlayerTest, StopCloseAndDestructorDoNotWaitForAStalledDownloadRead) {
    enum class Ending { kClose, kDestructor, kStopThenPlayAgain };
    const std::pair<const char*, Ending> rounds[] = {
        {"close", Ending::kClose},
        {"destructor", Ending::kDestructor},
        {"stop", Ending::kStopThenPlayAgain},
    };
    // Fast enough that the engine soon wants its next read; the 600 s clip
    // still outlasts the test.
    mtkpb::control::setSpeed(20);
    const std::string url = "dta-test://" + media().longClip;
    for (const auto& round : rounds) {
        SCOPED_TRACE(round.first);
        if (!player_) {
            player_.reset(new MediaPlayer);
            player_->addListener(log_);
        }
        log_.clear();
        ASSERT_EQ(kStatusOk, player_->open(url));
        ASSERT_EQ(kStatusOk, player_->play(0));
        ASSERT_TRUE(log_.waitForTimeUpdate());
        bctidta::control::holdReads();
        ASSERT_TRUE(bctidta::control::waitForHeldReads(1, testing_support::kWaitMs));

        std::future<VelkaStatus> ended = std::async(std::launch::async, [&]() -> VelkaStatus {
            switch (round.second) {
                case Ending::kClose: player_->close(); return kStatusOk;
                case Ending::kDestructor: player_.reset(); return kStatusOk;
                case Ending::kStopThenPlayAgain: return player_->stop();
            }
            return kStatusError;
        });
        const bool prompt = ended.wait_for(std::chrono::seconds(5)) == std::future_status::ready;
        bctidta::control::releaseReads();
        EXPECT_TRUE(prompt) << "waited for the held read";
        EXPECT_EQ(kStatusOk, ended.get());
        if (round.second == Ending::kStopThenPlayAgain) {
            log_.clear();
            ASSERT_EQ(kStatusOk, player_->play(0));
            EXPECT_TRUE(log_.waitForTimeUpdate());
            player_->close();
        }
    }
    // The engine never had a read completed twice, nor one left outstanding.
    EXPECT_EQ(0u, mtkpb::control::counters().protocolErrors);
    EXPECT_EQ(0u, mtkpb::control::readsOutstanding());
}

// ---------------------------------------------------------------------------
// A host that returns from main (here: exit) while a network medium is in
// use, nothing destroyed: the source workers are torn down after Playback's
// shut-down (a player's medium is still stopped and closed through its
// worker) and refuse reads from then on. A hang at exit ends the child by its
// alarm; under AddressSanitizer the child's exit is checked too.

// Globals: left to the process's end.
MediaPlayer* exitingPlayer = nullptr;
EventLog* exitingLog = nullptr;
velka::File* exitingFile = nullptr;

// Reads a File on and on: each completion issues the next read, on the
// source's worker, until the worker refuses one at its tear-down.
struct ChainedReads : velka::File::AsyncCallback {
    explicit ChainedReads(uint32_t size) : buffer(size) {}
    bool next() { return exitingFile->readAsync(buffer.data(), buffer.size(), *this) != nullptr; }
    void complete(VelkaStatus, uint32_t) override {
        ++completions;
        next();
    }
    std::vector<char> buffer;
    std::atomic<int> completions{0};
};
ChainedReads* exitingReads = nullptr;

// The download engine's medium, playing in a player.
void playDownloadThenExit() {
    mtkpb::control::setSpeed(1);
    exitingLog = new EventLog;
    exitingPlayer = new MediaPlayer;
    exitingPlayer->addListener(*exitingLog);
    if (exitingPlayer->open("dta-test://" + media().longClip) != kStatusOk) exit(3);
    if (exitingPlayer->play(0) != kStatusOk) exit(4);
    exit(exitingLog->waitForTimeUpdate() ? 0 : 5);
}

// An HTTP medium whose server (this thread: no server thread is left behind
// at exit) answers with the first 64 KiB of 1 MiB and then holds the
// connection: the read in flight waits for the rest.
void readHttpThenExit() {
    const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    if (bind(listener, reinterpret_cast<sockaddr*>(&address), size) != 0 ||
        listen(listener, 1) != 0 ||
        getsockname(listener, reinterpret_cast<sockaddr*>(&address), &size) != 0) {
        exit(3);
    }
    exitingFile = new velka::HttpFile("http://127.0.0.1:" +
                                      std::to_string(ntohs(address.sin_port)) + "/held");
    std::atomic<bool> opened(false);
    std::thread opener([&opened] { opened = exitingFile->open() == 0; });
    const int connection = accept(listener, nullptr, nullptr);
    char request[4096];
    const std::string answer = "HTTP/1.1 200 OK\r\nContent-Length: 1048576\r\n\r\n" +
                               std::string(64 * 1024, 'h');
    const bool answered = connection >= 0 && recv(connection, request, sizeof request, 0) > 0 &&
                          send(connection, answer.data(), answer.size(), MSG_NOSIGNAL) ==
                              static_cast<ssize_t>(answer.size());
    opener.join();
    if (!answered || !opened) exit(4);
    exitingReads = new ChainedReads(1024 * 1024);
    exit(exitingReads->next() ? 0 : 5);
}

// A peer-to-peer medium read on and on.
void readPpsThenExit() {
    exitingFile = new velka::PpsFile("pps-test://" + media().longClip);
    if (exitingFile->open() != 0) exit(3);
    exitingReads = new ChainedReads(64 * 1024);
    if (!exitingReads->next()) exit(4);
    const bool reading = testing_support::waitUntil([] { return exitingReads->completions >= 3; });
    exit(reading ? 0 : 5);
}

TEST(PlayerExitDeathTest, ProcessExitWhileANetworkMediumIsInUseEndsCleanly) {
    testing_support::useThreadsafeDeathTests();
    ASSERT_FALSE(media().dir.empty()) << "ffmpeg could not make the test media";
    const std::pair<const char*, void (*)()> workers[] = {
        {"download engine", playDownloadThenExit}, {"http", readHttpThenExit},
        {"peer-to-peer", readPpsThenExit}};
    for (const auto& worker : workers) {
        SCOPED_TRACE(worker.first);
        EXPECT_EXIT(
            {
                alarm(60);
                worker.second();
            },
            ::testing::ExitedWithCode(0), "");
    }
}

// ---------------------------------------------------------------------------
// End to end, through LocalFile, the pull source and the engine's demuxer.

// How the engine fingerprints what it demuxed (see mtkpb_control.h), here
// computed by reading the file directly with libavformat.
bool directChecksum(const std::string& path, uint64_t* checksum, uint64_t* packets) {
    AVFormatContext* format = nullptr;
    if (avformat_open_input(&format, path.c_str(), nullptr, nullptr) < 0) return false;
    bool ok = avformat_find_stream_info(format, nullptr) >= 0;
    AVPacket* packet = av_packet_alloc();
    *checksum = mtkpb::control::kFnvOffsetBasis;
    *packets = 0;
    while (ok && av_read_frame(format, packet) >= 0) {
        *checksum = mtkpb::control::fnv1a64(*checksum, packet->data,
                                            static_cast<size_t>(packet->size));
        ++*packets;
        av_packet_unref(packet);
    }
    av_packet_free(&packet);
    avformat_close_input(&format);
    return ok;
}

struct Clip {
    const char* name;
    std::string Media::*path;
};

void PrintTo(const Clip& clip, std::ostream* os) { *os << clip.name; }

// Over HTTP the download engine's reads are the File contract's matter, and
// the player over it the network streams' below.
class EndToEndTest : public PlayerTest, public ::testing::WithParamInterface<Clip> {
protected:
    std::string url() const { return Media::url(path_); }
    const std::string path_ = media().*(GetParam().path);
};

TEST_P(EndToEndTest, PlaysToTheEndWithIncreasingTimeAndEveryPacket) {
    // Twice real time: the 6 s clip plays in about 3 s, long enough for
    // several polls to see the time move.
    mtkpb::control::setSpeed(2);
    ASSERT_EQ(kStatusOk, player_->open(url()));
    EXPECT_NEAR(media().durationMs, player_->duration(), 300);
    ASSERT_EQ(kStatusOk, player_->play(0));
    ASSERT_TRUE(log_.waitForEvent(kStopped, 60000))
        << "never stopped: " << ::testing::PrintToString(log_.events());
    EXPECT_EQ((Events{kOpening, kOpened, kPlaying, kEndOfStream, kStopped}), log_.transitions());
    EXPECT_EQ(MediaPlayer::kStateStopped, player_->state());

    // Time updates: before the end, each later than the one before, within the clip.
    std::vector<int32_t> times;
    for (const Event& e : log_.events()) {
        if (e.id == MediaPlayer::kEventEndOfStream) break;
        if (e.id == MediaPlayer::kEventTimeUpdate) times.push_back(e.param);
    }
    ASSERT_GE(times.size(), 2u) << ::testing::PrintToString(log_.events());
    for (size_t i = 1; i < times.size(); ++i) EXPECT_LT(times[i - 1], times[i]);
    EXPECT_GE(times.front(), 0);
    EXPECT_LE(times.back(), media().durationMs + 200);

    uint64_t checksum = 0, packets = 0;
    ASSERT_TRUE(directChecksum(path_, &checksum, &packets));
    const mtkpb::control::Counters counters = mtkpb::control::counters();
    EXPECT_EQ(packets, counters.packets);
    EXPECT_EQ(checksum, counters.packetChecksum);
    EXPECT_EQ(0u, counters.protocolErrors);
    EXPECT_EQ(0u, counters.readsFailed);
}

TEST_P(EndToEndTest, StartPositionAndTimeSeekLandWhereAsked) {
    // A seek lands on the key frame at or before the second asked for.
    auto expectAt = [this](int32_t from, int32_t below, MediaPlayer::State state) {
        const int32_t pts = player_->currentPts();
        EXPECT_TRUE(pts >= from && pts < below) << pts << " is not in [" << from << ", " << below;
        EXPECT_EQ(state, player_->state());
    };
    ASSERT_EQ(kStatusOk, player_->open(url()));
    ASSERT_EQ(kStatusOk, player_->play(3000));
    ASSERT_TRUE(mtkpb::control::waitForNotifications(IMTK_PB_CTRL_EVENT_TIMESEEK_DONE, 1,
                                                     kEventWaitMs));
    expectAt(2000, 5000, MediaPlayer::kStatePlaying);
    ASSERT_EQ(kStatusOk, player_->timeSeek(1000));
    expectAt(400, 2500, MediaPlayer::kStatePlaying);
    ASSERT_EQ(kStatusOk, player_->pause());
    ASSERT_EQ(kStatusOk, player_->timeSeek(4000));
    expectAt(3400, 4500, MediaPlayer::kStatePaused);
    EXPECT_EQ(0u, mtkpb::control::counters().protocolErrors);
    mtkpb::control::setResult(Op::kGetCurrentPos, IMTK_PB_ERROR_CODE_NOT_OK);
    EXPECT_EQ(-1, player_->currentPts()) << "the engine cannot tell";
}

INSTANTIATE_TEST_SUITE_P(Containers, EndToEndTest,
                         ::testing::Values(Clip{"Mp4IndexAtEnd", &Media::mp4},
                                           Clip{"MpegTs", &Media::ts}),
                         [](const ::testing::TestParamInfo<Clip>& info) {
                             return info.param.name;
                         });

// ---------------------------------------------------------------------------
// Network streams that misbehave, from the fault server through the download
// engine: a live MPEG-TS without a length, and a server that fails midway.

class NetworkStreamTest : public PlayerTest {
protected:
    NetworkStreamTest() : server_(bytesOf(testing_support::readAll(media().ts))) {}
    static std::vector<char> bytesOf(const std::string& bytes) { return {bytes.begin(), bytes.end()}; }
    void SetUp() override {
        PlayerTest::SetUp();
        if (HasFatalFailure()) return;
        std::string why;
        ASSERT_TRUE(server_.start(&why)) << why;
    }
    void TearDown() override {
        player_.reset();  // before the server goes
        server_.stop();
        PlayerTest::TearDown();
    }
    testing_support::FaultServer server_;
};

TEST_F(NetworkStreamTest, LiveStreamOfUnknownLengthPlaysToItsEndAndRefusesATimeSeek) {
    // Chunked, and paced like a live source: its length is unknown while the
    // player opens it.
    testing_support::FaultServer::Reply live;
    live.framing = testing_support::FaultServer::Reply::kChunked;
    live.bytesPerSecond = 300 * 1024;
    server_.script("/live.ts", {live});
    mtkpb::control::setSpeed(2);
    ASSERT_EQ(kStatusOk, player_->open(server_.url("/live.ts")));
    EXPECT_EQ(0, player_->duration());
    ASSERT_EQ(kStatusOk, player_->play(0));
    ASSERT_TRUE(log_.waitForEvent(kStopped, 60000))
        << "never stopped: " << ::testing::PrintToString(log_.events());
    EXPECT_EQ((Events{kOpening, kOpened, kPlaying, kEndOfStream, kStopped}), log_.transitions());
    // Every packet, from the stream's first byte to its last.
    uint64_t checksum = 0, packets = 0;
    ASSERT_TRUE(directChecksum(media().ts, &checksum, &packets));
    EXPECT_EQ(checksum, mtkpb::control::counters().packetChecksum);

    // Played again, it cannot be sought: the failed seek is an error, which
    // stops the player.
    log_.clear();
    ASSERT_EQ(kStatusOk, player_->play(0));
    ASSERT_TRUE(log_.waitForEvent(kPlaying));
    EXPECT_EQ(kStatusOk, player_->timeSeek(3000));
    ASSERT_TRUE(log_.waitForEvent(kStopped, 60000))
        << "never stopped: " << ::testing::PrintToString(log_.events());
    // The error may reach the listeners before or after the seek's return to
    // playing: the engine reports the failed seek and the error together.
    const Events seen = log_.transitions();
    EXPECT_TRUE(seen == (Events{kPlaying, kSeeking, kPlaying, kError, kStopped}) ||
                seen == (Events{kPlaying, kSeeking, kError, kPlaying, kStopped}))
        << ::testing::PrintToString(seen);
    EXPECT_EQ(1u, server_.requests("/live.ts").size()) << "played again from the buffer";
}

TEST_F(NetworkStreamTest, ServerFailingMidwayGivesTheEnginesErrorAndStops) {
    testing_support::FaultServer::Reply dropped, gone;
    dropped.cutAt = static_cast<int64_t>(server_.file().size() / 2);
    dropped.close = testing_support::FaultServer::Reply::kReset;
    gone.hangUp = true;
    server_.script("/drop.ts", {dropped, gone});
    mtkpb::control::setSpeed(4);
    ASSERT_EQ(kStatusOk, player_->open(server_.url("/drop.ts")));
    ASSERT_EQ(kStatusOk, player_->play(0));
    ASSERT_TRUE(log_.waitForEvent(kStopped, 60000))
        << "never stopped: " << ::testing::PrintToString(log_.events());
    // The download engine's state "broken" is error 6.
    EXPECT_EQ((Events{kOpening, kOpened, kPlaying, {MediaPlayer::kEventError, 6}, kStopped}),
              log_.transitions());
    const auto start = std::chrono::steady_clock::now();
    player_->close();
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
}

}  // namespace
