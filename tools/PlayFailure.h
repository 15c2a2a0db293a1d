// Why velka-play could not play a URL, in words, with the exit status that
// goes with it. What the library reports (a refused open, an error event's
// code) says only that something failed; velka-play adds what it can find out
// itself: for a local file, whether it exists and can be read, before it is
// opened; for a network URL, what the server answers, once the open failed.
#ifndef VELKA_TOOLS_PLAYFAILURE_H
#define VELKA_TOOLS_PLAYFAILURE_H

#include <cstdint>
#include <string>

namespace velka {
namespace tools {

// Exit statuses of velka-play.
enum PlayExit : int {
    kExitPlayed = 0,       // the end of the stream, or q
    // The library could not open or play the medium: not a media file the
    // engine can play, the server's answer or the network error, a playback
    // that failed.
    kExitCannotPlay = 1,
    kExitUsage = 2,        // bad usage
    kExitNoFile = 3,       // no such file, permission denied, a folder
    kExitUnsupported = 4,  // unsupported URL
};

struct PlayFailure {
    std::string reason;  // empty: no failure
    int exitStatus = kExitPlayed;
};

// The URL velka-play hands to the library: a plain path becomes file:// with
// an absolute path; a URL stays as it is.
std::string toPlayUrl(const std::string& arg);

// What velka-play can tell before it opens `url`: a local file that is not
// there, cannot be read or is a folder, or a URL that is no URL at all.
PlayFailure checkBeforeOpen(const std::string& url);

// Why the library refused to open `url` (which passed checkBeforeOpen).
// Asks the server of an http:// or https:// URL for the first byte.
PlayFailure explainOpenFailure(const std::string& url);

// Why playback stopped with the library's error event `errorCode`.
PlayFailure explainPlaybackError(const std::string& url, int32_t errorCode);

}  // namespace tools
}  // namespace velka

#endif  // VELKA_TOOLS_PLAYFAILURE_H
