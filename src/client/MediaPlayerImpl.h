#ifndef VELKA_SRC_CLIENT_MEDIAPLAYERIMPL_H
#define VELKA_SRC_CLIENT_MEDIAPLAYERIMPL_H

#include <atomic>
#include <cstddef>
#include <deque>
#include <string>
#include <vector>

#include "velka/MediaPlayer.h"
#include "velka/Mutex.h"
#include "velka/Thread.h"

namespace velka {

// The player behind the MediaPlayer facade: its state machine, its event
// queue and its dispatch thread.
//
// Commands run on the callers' threads and call into Playback::instance_
// under the player lock, which is held for the whole command. The dispatch
// thread ("MediaPlayerImpl") delivers queued events to the listeners and,
// whenever the queue is empty, sleeps 500 ms and polls Playback once without
// the player lock.
//
// Lock order: listener lock, then player lock, then event lock. The listener
// lock comes first only when a listener issues commands from inside
// notify(); nothing takes the listener lock while holding one of the other
// two, and the event lock is never held while calling out.
class MediaPlayer::MediaPlayerImpl final : public Thread::Runnable {
public:
    MediaPlayerImpl();
    ~MediaPlayerImpl();

    VelkaStatus open(const std::string& url);
    void close();
    VelkaStatus play(int startMs);
    VelkaStatus pause();
    VelkaStatus unPause();
    VelkaStatus stop();
    VelkaStatus timeSeek(int ms);
    VelkaStatus display(const MediaPlayer::OutputScreen& screen);

    // Queries take no lock.
    MediaPlayer::State state() const { return state_; }
    const std::string& url() const { return url_; }
    int duration();
    int currentPts() const;
    unsigned int getVolume();
    void setVolume(unsigned int volume);
    void setMute(bool mute);
    bool isMute();

    VelkaStatus addListener(MediaPlayer::Listener& listener);
    VelkaStatus removeListener(MediaPlayer::Listener& listener);

    // Queues an event, at the front when toFront (only close() does that).
    void addEvent(const MediaPlayer::Event& event, bool toFront);
    // The poll step, on the dispatch thread.
    void getEvent();
    // The dispatch loop, on the dispatch thread.
    void eventDispatch();
    // Delivers one event to every listener, on the dispatch thread.
    void doNotify(const MediaPlayer::Event& event);

    void run() override { eventDispatch(); }

private:
    // Queues {kEventStateChanged, state} at the back.
    void queueState(MediaPlayer::State state);

    std::string url_;                        // guarded by stateMutex_
    Mutex stateMutex_;                       // the player lock: state_, url_, commands
    std::atomic<MediaPlayer::State> state_;  // written under stateMutex_, read anywhere
    std::vector<MediaPlayer::Listener*> listeners_;  // guarded by listenerMutex_; not owned
    Mutex listenerMutex_;                    // guards listeners_, delivering_, deliveryIndex_
    // While doNotify() runs: the index of the listener being notified. A
    // removal from inside notify() moves it back so that no listener is
    // skipped; a listener added there receives the event being delivered.
    bool delivering_;
    std::ptrdiff_t deliveryIndex_;
    std::deque<MediaPlayer::Event> events_;  // guarded by eventMutex_; front is next
    std::atomic<bool> running_;              // the dispatch loop runs while set
    Mutex eventMutex_;                       // guards events_
    Thread* dispatchThread_;                 // owned
};

}  // namespace velka

#endif  // VELKA_SRC_CLIENT_MEDIAPLAYERIMPL_H
