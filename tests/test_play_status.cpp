// velka-play's pieces that need no player: how events fold into the status,
// how the status line and the state lines read, and how key bytes decode.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "PlayStatus.h"
#include "PlayTerminal.h"

namespace {

using velka::MediaPlayer;
using velka::tools::Key;
using velka::tools::KeyDecoder;
using velka::tools::PlayStatus;
using velka::tools::formatTime;
using velka::tools::stateLine;
using velka::tools::statusLine;

MediaPlayer::Event stateEvent(MediaPlayer::State state) {
    return {MediaPlayer::kEventStateChanged, state};
}

TEST(PlayStatusTest, TimesReadAsMinutesAndSecondsOrHours) {
    EXPECT_EQ("0:00", formatTime(0));
    EXPECT_EQ("0:00", formatTime(-1));
    EXPECT_EQ("0:09", formatTime(9999));
    EXPECT_EQ("1:05", formatTime(65000));
    EXPECT_EQ("59:59", formatTime(3599000));
    EXPECT_EQ("1:00:00", formatTime(3600000));
    EXPECT_EQ("596:31:23", formatTime(2147483647));
}

TEST(PlayStatusTest, OnlyStateChangesCountAsChanges) {
    PlayStatus s;
    EXPECT_TRUE(s.apply(stateEvent(MediaPlayer::kStateOpening)));
    EXPECT_FALSE(s.apply({MediaPlayer::kEventBuffering, 40}));
    EXPECT_FALSE(s.apply({MediaPlayer::kEventTimeUpdate, 1500}));
    EXPECT_FALSE(s.apply({MediaPlayer::kEventError, 7}));
    EXPECT_EQ(MediaPlayer::kStateOpening, s.state);
    EXPECT_EQ(40, s.bufferPercent);
    EXPECT_EQ(1500, s.positionMs);
    EXPECT_TRUE(s.haveError);
    EXPECT_EQ(7, s.errorCode);
}

TEST(PlayStatusTest, TheEndOfTheStreamShowsTheWholeDuration) {
    PlayStatus s;
    s.durationMs = 12000;
    s.apply({MediaPlayer::kEventTimeUpdate, 11700});
    s.apply({MediaPlayer::kEventEndOfStream, 0});
    EXPECT_TRUE(s.ended);
    EXPECT_EQ(12000, s.positionMs);
}

TEST(PlayStatusTest, BufferingShowsOnlyDuringTheOpenOrSeekItCameIn) {
    PlayStatus s;
    s.durationMs = 10000;
    s.apply(stateEvent(MediaPlayer::kStateOpening));
    s.apply({MediaPlayer::kEventBuffering, 35});
    EXPECT_EQ("opening   buffering 35%", statusLine(s, 80));
    s.apply(stateEvent(MediaPlayer::kStatePlaying));
    EXPECT_EQ(std::string::npos, statusLine(s, 80).find("buffering"));
    s.apply(stateEvent(MediaPlayer::kStateSeeking));
    EXPECT_EQ(std::string::npos, statusLine(s, 80).find("buffering")) << "the old report is gone";
    s.apply({MediaPlayer::kEventBuffering, 90});
    EXPECT_NE(std::string::npos, statusLine(s, 80).find("  buffering 90%"));
}

TEST(PlayStatusTest, StatusLineHasStatePositionBarPercentAndLastError) {
    PlayStatus s;
    s.state = MediaPlayer::kStatePlaying;
    s.durationMs = 12000;
    s.positionMs = 3000;
    EXPECT_EQ("playing 0:03 / 0:12 [#####---------------]  25%", statusLine(s, 80));
    s.apply({MediaPlayer::kEventError, 5});
    s.apply(stateEvent(MediaPlayer::kStateStopped));
    EXPECT_EQ("stopped 0:03 / 0:12 [#####---------------]  25%  error 5", statusLine(s, 80));
}

TEST(PlayStatusTest, StatusLineNeverWrapsAndTheBarUsesWideTerminals) {
    PlayStatus s;
    s.state = MediaPlayer::kStatePaused;
    s.durationMs = 3600000;
    s.positionMs = 1800000;
    s.haveError = true;
    s.errorCode = 123456;
    for (uint32_t columns : {0u, 1u, 20u, 40u, 80u, 200u}) {
        EXPECT_LE(statusLine(s, columns).size(), columns > 0 ? columns - 1 : 0) << columns;
    }
    EXPECT_NE(std::string::npos, statusLine(s, 200).find(std::string(20, '#') + std::string(20, '-')));
    EXPECT_NE(std::string::npos, statusLine(s, 70).find("[" + std::string(5, '#') + std::string(5, '-') + "]"));
}

TEST(PlayStatusTest, StateLinesNameTheStateAndWhereItIs) {
    PlayStatus s;
    s.state = MediaPlayer::kStateOpening;
    EXPECT_EQ("opening", stateLine(s));
    s.state = MediaPlayer::kStateClosed;
    EXPECT_EQ("closed", stateLine(s)) << "never opened: no position";
    s.durationMs = 6000;
    s.positionMs = 2500;
    EXPECT_EQ("closed 0:02 / 0:06", stateLine(s));
    s.state = MediaPlayer::kStateSeeking;
    EXPECT_EQ("seeking 0:02 / 0:06", stateLine(s));
    s.durationMs = 0;
    EXPECT_EQ("seeking 0:02 / -:--", stateLine(s));
}

std::vector<Key> decode(const std::string& bytes) {
    KeyDecoder decoder;
    std::vector<Key> keys;
    for (char c : bytes) {
        const Key key = decoder.feed(static_cast<uint8_t>(c));
        if (key != Key::kNone) keys.push_back(key);
    }
    return keys;
}

TEST(KeyDecoderTest, SpaceQAndBothArrowForms) {
    EXPECT_EQ((std::vector<Key>{Key::kPause, Key::kQuit, Key::kQuit}), decode(" qQ"));
    EXPECT_EQ((std::vector<Key>{Key::kForward, Key::kBack, Key::kForward, Key::kBack}),
              decode("\033[C\033[D\033OC\033OD"));
}

TEST(KeyDecoderTest, OtherKeysAndSequencesAreIgnored) {
    // Up, down, F5 (ESC [ 1 5 ~), a modified right arrow (ESC [ 1 ; 5 C counts).
    EXPECT_EQ((std::vector<Key>{Key::kForward}), decode("\033[A\033[B\033[15~x\r\n\033[1;5C"));
}

TEST(KeyDecoderTest, ALoneEscapeLetsTheNextKeyThrough) {
    EXPECT_EQ((std::vector<Key>{Key::kQuit}), decode("\033q"));
    EXPECT_EQ((std::vector<Key>{Key::kPause}), decode("\033\033 "));
}

TEST(KeyDecoderTest, SequencesSplitAcrossReadsStillDecode) {
    KeyDecoder decoder;
    EXPECT_EQ(Key::kNone, decoder.feed(0x1b));
    EXPECT_EQ(Key::kNone, decoder.feed('['));
    EXPECT_EQ(Key::kBack, decoder.feed('D'));
    EXPECT_EQ(Key::kPause, decoder.feed(' '));
}

}  // namespace
