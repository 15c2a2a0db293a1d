#ifndef VELKA_MEDIAPLAYER_H
#define VELKA_MEDIAPLAYER_H

#include <cstdint>
#include <string>

#include "velka/NonCopyable.h"
#include "velka/Status.h"

namespace velka {

// The player a host application uses: open a URL, play, pause, resume, seek,
// stop, close, and place the video. Results are VelkaStatus values; what
// happens during playback (state changes, end of stream, errors, time,
// buffering) reaches the registered listeners as Events, on the player's own
// "MediaPlayerImpl" dispatch thread.
//
// Every operation may be called from any thread; commands are serialised.
// A listener may issue commands from inside notify(), but must not destroy
// the player there: the destructor waits for the thread running notify().
class MediaPlayer : private NonCopyable {
public:
    enum State : int32_t {
        kStateOpening = 0,  // open() is in progress
        kStateOpened = 1,   // open, not yet playing
        kStatePlaying = 2,
        kStatePaused = 3,
        kStateStopped = 4,  // by stop(), the end of the stream or an error
        kStateClosed = 5,   // nothing open; the state of a new player
        kStateSeeking = 6,  // a time seek is in progress
    };

    enum EventId : int32_t {
        kEventNone = -1,         // no event; never delivered
        kEventStateChanged = 0,  // param: the new State
        kEventEndOfStream = 1,   // param: 0
        kEventTimeUpdate = 2,    // param: the playback time the engine reports
        kEventError = 3,         // param: the error code; 0 when open() failed
        kEventBuffering = 4,     // param: the source's cache fill, 0 to 100
    };

    struct Event {
        int32_t id;     // an EventId
        int32_t param;  // meaning by id
    };

    // Implemented by the host. The player keeps only a reference, from
    // addListener() until removeListener(). notify() runs on the player's
    // dispatch thread; `event` is valid only during the call.
    class Listener {
    public:
        virtual ~Listener() {}
        virtual void notify(const Event& event) = 0;
    };

    // Video output rectangle in thousandths of the screen (1000 x 1000):
    // x and y 0 to 999, width and height 1 to 1000.
    struct OutputScreen {
        int32_t x;
        int32_t y;
        int32_t width;
        int32_t height;
    };

    MediaPlayer();
    // Stops and closes the medium if needed, then ends the dispatch thread.
    ~MediaPlayer();

    // Allowed when closed. kStatusInvalidArgument for an empty url,
    // kStatusInvalidState when not closed, kStatusError when the medium
    // cannot be opened.
    VelkaStatus open(const std::string& url);
    // Any state; no effect when closed.
    void close();
    // Not when closed. Starts at startMs (whole seconds reach the engine).
    VelkaStatus play(int startMs);
    // Only while playing.
    VelkaStatus pause();
    // Only while paused; kStatusInvalidState also when the engine refuses.
    VelkaStatus unPause();
    // Not while opening or closed.
    VelkaStatus stop();
    // Not when closed. Returns once the seek has ended, kStatusOk whatever
    // its outcome (a failed seek is reported as an error event).
    VelkaStatus timeSeek(int ms);
    // Not when closed; kStatusOutOfRange for a rectangle off the screen.
    VelkaStatus display(const OutputScreen& screen);

    // Read without a lock.
    State state() const;
    // The URL of the latest open() that passed the state check. Do not hold
    // the reference across an open() on another thread.
    const std::string& url() const;
    int32_t duration();
    // The current playback time, -1 when the engine cannot tell.
    int32_t currentPts() const;

    // Always kStatusOk. A listener added twice is notified twice; one
    // removeListener() removes one registration.
    VelkaStatus addListener(Listener& listener);
    VelkaStatus removeListener(Listener& listener);

private:
    class MediaPlayerImpl;   // src/client/MediaPlayerImpl.h
    MediaPlayerImpl* impl_;  // owned
};

}  // namespace velka

#endif  // VELKA_MEDIAPLAYER_H
