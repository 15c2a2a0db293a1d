// What velka-play shows of a playback: the player's state, the position
// against the duration, the buffering the library reports and the last error,
// folded from the player's events and drawn as one status line.
#ifndef VELKA_TOOLS_PLAYSTATUS_H
#define VELKA_TOOLS_PLAYSTATUS_H

#include <cstdint>
#include <string>

#include "velka/MediaPlayer.h"

namespace velka {
namespace tools {

struct PlayStatus {
    MediaPlayer::State state = MediaPlayer::kStateClosed;
    int32_t positionMs = 0;      // the engine's last time report (milliseconds)
    int32_t durationMs = 0;      // 0 while unknown
    int32_t bufferPercent = -1;  // last report while opening or seeking; -1 none
    bool ended = false;          // the end of the stream was reached
    bool haveError = false;
    int32_t errorCode = 0;  // of the last error event
    int32_t seekTargetMs = -1;  // a seek velka-play asked for and the engine has not answered; -1 none

    // Folds one event in; true when it changed the state.
    bool apply(const MediaPlayer::Event& event);
};

// "opening", "playing", ...
const char* stateName(MediaPlayer::State state);

// "m:ss", or "h:mm:ss" from an hour on; negative times count as 0.
std::string formatTime(int32_t ms);

// The line for a terminal, at most `columns` - 1 characters so that it never
// wraps: state, position / duration (while a seek is under way "seeking" and
// its target), a progress bar and its percentage, then
// the buffering and the last error when there are any.
std::string statusLine(const PlayStatus& status, uint32_t columns);

// The line written for each state change when there is no terminal:
// "playing 0:03 / 0:12", "opening", "closed".
std::string stateLine(const PlayStatus& status);

}  // namespace tools
}  // namespace velka

#endif  // VELKA_TOOLS_PLAYSTATUS_H
