#ifndef VELKA_PLAYBACK_H
#define VELKA_PLAYBACK_H

#include <string>

#include "velka/MediaPlayer.h"
#include "velka/NonCopyable.h"
#include "velka/Status.h"

namespace velka {

class PlaybackThread;

// The process-wide adaptor between the players and the hardware playback
// engine. It opens the media source and one engine instance per medium,
// passes the players' commands to the engine, keeps the engine's
// notifications and turns them into player events when a player polls.
//
// The engine commands that create, feed, start, stop and close the instance
// run on the "playbackThread", one at a time, while the caller waits; pause,
// time seek, display and position are called on the caller's thread. The
// players call every operation under their own player lock, except
// getEvent(), which a player's dispatch thread calls at any time.
//
// The engine reads the media through the pull callbacks, which answer from
// the source that open() created (the "tmp file").
class Playback : private NonCopyable {
public:
    // The one Playback, built when the library is loaded.
    static Playback instance_;

    // Creates and opens the source for `url`, opens an engine instance and
    // hands it the pull callbacks. kStatusOk or kStatusError; a failure
    // leaves no source and no engine instance behind. While a medium is open
    // (until close()) another open fails and leaves it untouched.
    VelkaStatus open(const std::string& url);
    // Starts playing; a start position (milliseconds, whole seconds used) is
    // sought once the engine reports that playback started.
    VelkaStatus play(int start);
    // Always kStatusOk.
    VelkaStatus pause();
    // kStatusError during a time seek or when the engine refuses.
    VelkaStatus unPause();
    VelkaStatus stop();
    // Closes the engine instance, then the source.
    void close();
    // Blocks until the engine reports the end of the seek. kStatusOk once
    // the engine accepted it, also when the seek then failed (that surfaces
    // as an error event).
    VelkaStatus timeSeek(int position);
    // kStatusOutOfRange for a rectangle off the screen.
    VelkaStatus display(const MediaPlayer::OutputScreen& screen);
    // The duration the engine reported last.
    int duration();
    // The engine's current position, -1 on failure.
    int currentPts();
    // Turns the pending engine notifications into at most one event; leaves
    // event.id at kEventNone when there is nothing to report.
    void getEvent(MediaPlayer::Event& event);

    // `hook` is called on the engine's notification thread after each
    // notification, so that the player that polls getEvent() can do so at
    // once. It must not call into Playback. Null: nobody is told.
    static void setEventHook(void (*hook)());

    // The engine's volume is not driven from here.
    void setVolume(unsigned int volume);
    unsigned int getVolume();
    void setMute(bool mute);
    bool isMute();

private:
    Playback();
    ~Playback();
};

// The playback thread's command channel; set while the library is loaded.
extern PlaybackThread* playbackThread_;

}  // namespace velka

// Exported for the platform's libraries; zero, and not used by this library.
extern "C" {
extern int g_main_argc;
extern char** g_main_argv;
}

#endif  // VELKA_PLAYBACK_H
