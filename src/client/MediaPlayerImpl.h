#ifndef VELKA_SRC_CLIENT_MEDIAPLAYERIMPL_H
#define VELKA_SRC_CLIENT_MEDIAPLAYERIMPL_H

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
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
// under the player lock, which is held for the whole command. The box has one
// playback engine: the player whose open() claimed it holds it until its
// close(), and another player's open() meanwhile is refused. The dispatch
// thread ("MediaPlayerImpl") delivers queued events to the listeners and,
// whenever the queue is empty, waits for a queued event or an engine
// notification, at most 500 ms, and then polls Playback once without the
// player lock, if this player holds the engine.
//
// Lock order: listener lock, then player lock, then the process-wide holder
// lock (which player holds the engine), then event lock. The listener lock
// comes first only when a listener issues commands from inside notify();
// nothing takes the listener lock while holding one of the others, the
// holder lock is never held while calling into Playback, and the event lock
// is never held while calling out.
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
    // The engine sent a notification: the dispatch thread polls at once
    // instead of at the end of its interval. On the engine's notification
    // thread.
    void engineNotified();

    void run() override { eventDispatch(); }

private:
    // Queues {kEventStateChanged, state} at the back.
    void queueState(MediaPlayer::State state);
    // Claims the playback engine for this player; false while another holds it.
    bool claimEngine();
    // Gives the engine up, if this player holds it.
    void releaseEngine();
    // Playback's event hook, on the engine's notification thread: wakes the
    // holder's dispatch thread.
    static void wakeHolder();

    // The player that holds the one playback engine, from its open() to its
    // close(); null when none does. Only the holder polls Playback.
    static std::atomic<MediaPlayerImpl*> holder_;

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
    Mutex eventMutex_;                       // guards events_ and notifications_
    // Engine notifications not yet answered by a poll; guarded by eventMutex_.
    uint32_t notifications_;
    // Wakes the dispatch thread: an event queued, an engine notification, the
    // end of the loop. Waited on with eventMutex_.
    std::condition_variable_any wakeup_;
    Thread* dispatchThread_;                 // owned
};

}  // namespace velka

#endif  // VELKA_SRC_CLIENT_MEDIAPLAYERIMPL_H
