// The base of the suites that drive Playback through the software playback
// engine: the engine set back to its start before each test, and neither an
// engine instance nor a descriptor left behind after it. Also the events the
// player's listeners see.
#ifndef VELKA_TESTS_PLAYERFIXTURE_H
#define VELKA_TESTS_PLAYERFIXTURE_H

#include <gtest/gtest.h>

#include "IMtkPb_Ctrl.h"
#include "mtkpb_control.h"
#include "TestSupport.h"
#include "support/PlayerTestSupport.h"

namespace velka_test {

const Event kOpening = stateEvent(MediaPlayer::kStateOpening);
const Event kOpened = stateEvent(MediaPlayer::kStateOpened);
const Event kPlaying = stateEvent(MediaPlayer::kStatePlaying);
const Event kPaused = stateEvent(MediaPlayer::kStatePaused);
const Event kStopped = stateEvent(MediaPlayer::kStateStopped);
const Event kClosed = stateEvent(MediaPlayer::kStateClosed);
const Event kSeeking = stateEvent(MediaPlayer::kStateSeeking);
const Event kEndOfStream = {MediaPlayer::kEventEndOfStream, 0};
// LocalFile reports no error code of its own: engine errors and failed opens carry 0.
const Event kError = {MediaPlayer::kEventError, 0};
const Event kNone = {MediaPlayer::kEventNone, 0};

// True when the engine has no instance open (inject needs one).
inline bool noEngineInstance() {
    return !mtkpb::control::inject(IMTK_PB_CTRL_EVENT_STEP_DONE, 0);
}

class EngineTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_FALSE(media().dir.empty()) << "ffmpeg could not make the test media";
        mtkpb::control::reset();
        mtkpb::control::setSpeed(1);
        ASSERT_TRUE(noEngineInstance()) << "an earlier test left an engine instance open";
        descriptors_ = openDescriptors();
    }

    void TearDown() override {
        mtkpb::control::reset();
        EXPECT_TRUE(noEngineInstance()) << "an engine instance was left open";
        EXPECT_TRUE(descriptorsBack()) << "descriptors leaked";
    }

    // The descriptor count is back where SetUp found it, waiting a bounded
    // while: another thread (the sanitizers' too) may hold one for a moment.
    bool descriptorsBack() const {
        return testing_support::waitUntil([this] { return openDescriptors() == descriptors_; });
    }

    int descriptors_ = 0;
};

}  // namespace velka_test

#endif  // VELKA_TESTS_PLAYERFIXTURE_H
