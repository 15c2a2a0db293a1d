#include "PlayStatus.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>

namespace velka {
namespace tools {

namespace {

// The progress bar takes what the terminal leaves, within these bounds.
constexpr uint32_t kMinBarCells = 10;
constexpr uint32_t kMaxBarCells = 40;

}  // namespace

bool PlayStatus::apply(const MediaPlayer::Event& event) {
    switch (event.id) {
        case MediaPlayer::kEventStateChanged: {
            const MediaPlayer::State next = static_cast<MediaPlayer::State>(event.param);
            // A buffering report belongs to the open or the seek it came
            // during; the next one starts without.
            if (next == MediaPlayer::kStateOpening || next == MediaPlayer::kStateSeeking) {
                bufferPercent = -1;
            }
            if (next == MediaPlayer::kStateOpening) ended = false;
            state = next;
            return true;
        }
        case MediaPlayer::kEventEndOfStream:
            // The last time report before the end may be overtaken by it.
            ended = true;
            if (durationMs > 0) positionMs = durationMs;
            return false;
        case MediaPlayer::kEventTimeUpdate:
            positionMs = event.param;
            return false;
        case MediaPlayer::kEventError:
            haveError = true;
            errorCode = event.param;
            return false;
        case MediaPlayer::kEventBuffering:
            bufferPercent = event.param;
            return false;
        default:
            return false;
    }
}

const char* stateName(MediaPlayer::State state) {
    switch (state) {
        case MediaPlayer::kStateOpening: return "opening";
        case MediaPlayer::kStateOpened: return "opened";
        case MediaPlayer::kStatePlaying: return "playing";
        case MediaPlayer::kStatePaused: return "paused";
        case MediaPlayer::kStateStopped: return "stopped";
        case MediaPlayer::kStateClosed: return "closed";
        case MediaPlayer::kStateSeeking: return "seeking";
    }
    return "unknown";
}

std::string formatTime(int32_t ms) {
    const int32_t total = std::max<int32_t>(ms, 0) / 1000;
    const int32_t hours = total / 3600, minutes = total / 60 % 60, seconds = total % 60;
    char text[32];
    if (hours > 0) {
        snprintf(text, sizeof text, "%" PRId32 ":%02" PRId32 ":%02" PRId32, hours, minutes,
                 seconds);
    } else {
        snprintf(text, sizeof text, "%" PRId32 ":%02" PRId32, minutes, seconds);
    }
    return text;
}

namespace {

// Before the media is open there is no position to show; after close, the
// last one stays.
bool showsPosition(const PlayStatus& s) {
    if (s.state == MediaPlayer::kStateOpening) return false;
    return s.state != MediaPlayer::kStateClosed || s.durationMs > 0;
}

// The seek's target until the engine has answered it.
int32_t shownPosition(const PlayStatus& s) {
    return s.seekTargetMs >= 0 ? s.seekTargetMs : s.positionMs;
}

std::string positionText(const PlayStatus& s) {
    return formatTime(shownPosition(s)) + " / " +
           (s.durationMs > 0 ? formatTime(s.durationMs) : std::string("-:--"));
}

}  // namespace

std::string statusLine(const PlayStatus& s, uint32_t columns) {
    char head[16];
    snprintf(head, sizeof head, "%-8s",
             stateName(s.seekTargetMs >= 0 ? MediaPlayer::kStateSeeking : s.state));
    std::string line = head;
    if (showsPosition(s)) {
        line += positionText(s);
        if (s.durationMs > 0) {
            const double fraction =
                std::min(1.0, std::max(0.0, static_cast<double>(shownPosition(s)) / s.durationMs));
            const uint32_t cells = std::max(
                kMinBarCells, std::min(kMaxBarCells, columns > 60 ? columns - 60 : 0u));
            const uint32_t filled = static_cast<uint32_t>(fraction * cells + 0.5);
            line += " [" + std::string(filled, '#') + std::string(cells - filled, '-') + "]";
            char percent[8];
            snprintf(percent, sizeof percent, " %3d%%", static_cast<int>(fraction * 100.0));
            line += percent;
        }
    }
    if (s.bufferPercent >= 0 &&
        (s.state == MediaPlayer::kStateOpening || s.state == MediaPlayer::kStateSeeking)) {
        line += "  buffering " + std::to_string(s.bufferPercent) + "%";
    }
    if (s.ended) line += "  end of stream";
    if (s.haveError) line += "  error " + std::to_string(s.errorCode);
    const size_t fit = columns > 1 ? columns - 1 : 0;
    if (line.size() > fit) line.resize(fit);
    return line;
}

std::string stateLine(const PlayStatus& s) {
    std::string line = stateName(s.state);
    if (showsPosition(s)) line += " " + positionText(s);
    return line;
}

}  // namespace tools
}  // namespace velka
