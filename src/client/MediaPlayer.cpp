#include "velka/MediaPlayer.h"

#include <algorithm>
#include <cstdio>

#include "MediaPlayerImpl.h"
#include "velka/Playback.h"

namespace velka {

// ---------------------------------------------------------------------------
// MediaPlayer: hands every call to the implementation unchanged.

MediaPlayer::MediaPlayer() : impl_(new MediaPlayerImpl()) {}

MediaPlayer::~MediaPlayer() { delete impl_; }

VelkaStatus MediaPlayer::open(const std::string& url) { return impl_->open(url); }
void MediaPlayer::close() { impl_->close(); }
VelkaStatus MediaPlayer::play(int startMs) { return impl_->play(startMs); }
VelkaStatus MediaPlayer::pause() { return impl_->pause(); }
VelkaStatus MediaPlayer::unPause() { return impl_->unPause(); }
VelkaStatus MediaPlayer::stop() { return impl_->stop(); }
VelkaStatus MediaPlayer::timeSeek(int ms) { return impl_->timeSeek(ms); }
VelkaStatus MediaPlayer::display(const OutputScreen& screen) { return impl_->display(screen); }
MediaPlayer::State MediaPlayer::state() const { return impl_->state(); }
const std::string& MediaPlayer::url() const { return impl_->url(); }
int32_t MediaPlayer::duration() { return impl_->duration(); }
int32_t MediaPlayer::currentPts() const { return impl_->currentPts(); }
VelkaStatus MediaPlayer::addListener(Listener& listener) { return impl_->addListener(listener); }
VelkaStatus MediaPlayer::removeListener(Listener& listener) {
    return impl_->removeListener(listener);
}

// ---------------------------------------------------------------------------
// MediaPlayerImpl

namespace {

// Dispatch thread: priority and requested stack size.
const int kDispatchPriority = 60;
const int kDispatchStackSize = 2048;
// How long the dispatch thread sleeps on an empty queue before it polls
// Playback: engine events reach listeners at most about twice a second.
const int kPollIntervalMs = 500;

}  // namespace

MediaPlayer::MediaPlayerImpl::MediaPlayerImpl()
    : url_(),
      state_(MediaPlayer::kStateClosed),
      delivering_(false),
      deliveryIndex_(0),
      running_(true),
      dispatchThread_(nullptr) {
    puts("MediaPlayerImpl new thread ");
    dispatchThread_ = new Thread(*this, false, "MediaPlayerImpl", kDispatchPriority,
                                 kDispatchStackSize);
    puts("MediaPlayerImpl start thread ");
    dispatchThread_->start();
    puts("MediaPlayerImpl start thread end");
}

MediaPlayer::MediaPlayerImpl::~MediaPlayerImpl() {
    stop();
    close();
    running_ = false;
    // Waits until the loop next tests running_: at most one poll interval
    // and one poll, or the delivery of one event.
    delete dispatchThread_;
}

void MediaPlayer::MediaPlayerImpl::queueState(MediaPlayer::State state) {
    addEvent(MediaPlayer::Event{MediaPlayer::kEventStateChanged, state}, false);
}

VelkaStatus MediaPlayer::MediaPlayerImpl::open(const std::string& url) {
    printf("MediaPlayerImpl open %s state %d\n", url.c_str(), static_cast<int>(state_.load()));
    fflush(stdout);
    if (url.empty()) return kStatusInvalidArgument;

    Mutex::Autolock lock(stateMutex_);
    if (state_ != MediaPlayer::kStateClosed) return kStatusInvalidState;
    state_ = MediaPlayer::kStateOpening;
    url_ = url;
    queueState(MediaPlayer::kStateOpening);

    VelkaStatus result;
    if (Playback::instance_.open(url_) != kStatusOk) {
        // The return to closed is announced by the error event alone.
        state_ = MediaPlayer::kStateClosed;
        addEvent(MediaPlayer::Event{MediaPlayer::kEventError, 0}, false);
        result = kStatusError;
    } else {
        state_ = MediaPlayer::kStateOpened;
        printf("MediaPlayerImpl open 1\n");
        queueState(MediaPlayer::kStateOpened);
        printf("MediaPlayerImpl open end\n");
        result = kStatusOk;
    }
    return result;
}

void MediaPlayer::MediaPlayerImpl::close() {
    printf("MediaPlayerImpl close state %d\n", static_cast<int>(state_.load()));
    fflush(stdout);
    Mutex::Autolock lock(stateMutex_);
    if (state_ != MediaPlayer::kStateClosed) {
        state_ = MediaPlayer::kStateClosed;
        Playback::instance_.close();
        // Overtakes every event still waiting.
        addEvent(MediaPlayer::Event{MediaPlayer::kEventStateChanged, MediaPlayer::kStateClosed},
                 true);
    }
}

VelkaStatus MediaPlayer::MediaPlayerImpl::play(int startMs) {
    printf("MediaPlayerImpl play\n");
    fflush(stdout);
    Mutex::Autolock lock(stateMutex_);
    if (state_ == MediaPlayer::kStateClosed) return kStatusInvalidState;
    if (Playback::instance_.play(startMs) != kStatusOk) return kStatusError;
    printf("change to playing\n");
    fflush(stdout);
    state_ = MediaPlayer::kStatePlaying;
    queueState(MediaPlayer::kStatePlaying);
    return kStatusOk;
}

VelkaStatus MediaPlayer::MediaPlayerImpl::pause() {
    printf("MediaPlayerImpl pause\n");
    fflush(stdout);
    Mutex::Autolock lock(stateMutex_);
    if (state_ != MediaPlayer::kStatePlaying) return kStatusInvalidState;
    // The state does not depend on the engine's answer.
    state_ = MediaPlayer::kStatePaused;
    queueState(MediaPlayer::kStatePaused);
    return Playback::instance_.pause();
}

VelkaStatus MediaPlayer::MediaPlayerImpl::unPause() {
    printf("MediaPlayerImpl unPause\n");
    fflush(stdout);
    Mutex::Autolock lock(stateMutex_);
    if (state_ != MediaPlayer::kStatePaused) return kStatusInvalidState;
    if (Playback::instance_.unPause() != kStatusOk) return kStatusInvalidState;
    state_ = MediaPlayer::kStatePlaying;
    queueState(MediaPlayer::kStatePlaying);
    return kStatusOk;
}

VelkaStatus MediaPlayer::MediaPlayerImpl::stop() {
    printf("MediaPlayerImpl stop state %d\n", static_cast<int>(state_.load()));
    fflush(stdout);
    Mutex::Autolock lock(stateMutex_);
    if (state_ == MediaPlayer::kStateOpening || state_ == MediaPlayer::kStateClosed) {
        return kStatusInvalidState;
    }
    state_ = MediaPlayer::kStateStopped;
    queueState(MediaPlayer::kStateStopped);
    return Playback::instance_.stop();
}

VelkaStatus MediaPlayer::MediaPlayerImpl::timeSeek(int ms) {
    printf("MediaPlayerImpl timeSeek\n");
    fflush(stdout);
    Mutex::Autolock lock(stateMutex_);
    if (state_ == MediaPlayer::kStateClosed) return kStatusInvalidState;
    MediaPlayer::State previous = state_;
    state_ = MediaPlayer::kStateSeeking;
    queueState(MediaPlayer::kStateSeeking);
    // Blocks until the engine ends the seek; a failed seek reaches the
    // listeners as an error event through the poll.
    Playback::instance_.timeSeek(ms);
    state_ = previous;
    queueState(previous);
    return kStatusOk;
}

VelkaStatus MediaPlayer::MediaPlayerImpl::display(const MediaPlayer::OutputScreen& screen) {
    printf("MediaPlayerImpl display\n");
    fflush(stdout);
    Mutex::Autolock lock(stateMutex_);
    if (state_ == MediaPlayer::kStateClosed) return kStatusInvalidState;
    return Playback::instance_.display(screen);
}

int MediaPlayer::MediaPlayerImpl::duration() {
    printf("MediaPlayerImpl duration\n");
    fflush(stdout);
    return Playback::instance_.duration();
}

int MediaPlayer::MediaPlayerImpl::currentPts() const {
    printf("MediaPlayerImpl currentPts\n");
    return Playback::instance_.currentPts();
}

unsigned int MediaPlayer::MediaPlayerImpl::getVolume() { return Playback::instance_.getVolume(); }

void MediaPlayer::MediaPlayerImpl::setVolume(unsigned int volume) {
    Playback::instance_.setVolume(volume);
}

void MediaPlayer::MediaPlayerImpl::setMute(bool mute) { Playback::instance_.setMute(mute); }

bool MediaPlayer::MediaPlayerImpl::isMute() { return Playback::instance_.isMute(); }

VelkaStatus MediaPlayer::MediaPlayerImpl::addListener(MediaPlayer::Listener& listener) {
    printf("MediaPlayerImpl addListener\n");
    fflush(stdout);
    Mutex::Autolock lock(listenerMutex_);
    listeners_.push_back(&listener);
    return kStatusOk;
}

VelkaStatus MediaPlayer::MediaPlayerImpl::removeListener(MediaPlayer::Listener& listener) {
    printf("MediaPlayerImpl removeListener\n");
    fflush(stdout);
    Mutex::Autolock lock(listenerMutex_);
    auto it = std::find(listeners_.begin(), listeners_.end(), &listener);
    if (it != listeners_.end()) {
        std::ptrdiff_t index = it - listeners_.begin();
        listeners_.erase(it);
        // Called from inside notify(): keep the delivery loop on the
        // listener that followed.
        if (delivering_ && index <= deliveryIndex_) --deliveryIndex_;
    }
    return kStatusOk;
}

void MediaPlayer::MediaPlayerImpl::addEvent(const MediaPlayer::Event& event, bool toFront) {
    Mutex::Autolock lock(eventMutex_);
    printf("MediaPlayerImpl addEvent id  %d param %d\n", static_cast<int>(event.id),
           static_cast<int>(event.param));
    if (toFront) {
        events_.push_front(event);
    } else {
        events_.push_back(event);
    }
}

void MediaPlayer::MediaPlayerImpl::getEvent() {
    // A closed player never asks the engine.
    if (state_ == MediaPlayer::kStateClosed) return;

    // Without the player lock: time and buffering keep flowing while a
    // command waits inside Playback.
    MediaPlayer::Event event = {MediaPlayer::kEventNone, 0};
    Playback::instance_.getEvent(event);
    if (event.id == MediaPlayer::kEventNone) return;
    addEvent(event, false);

    if (event.id == MediaPlayer::kEventEndOfStream || event.id == MediaPlayer::kEventError) {
        Mutex::Autolock lock(stateMutex_);
        if (state_ != MediaPlayer::kStateClosed && state_ != MediaPlayer::kStateStopped) {
            state_ = MediaPlayer::kStateStopped;
            queueState(MediaPlayer::kStateStopped);
        }
    }
}

void MediaPlayer::MediaPlayerImpl::eventDispatch() {
    printf("MediaPlayerImpl eventDispatch\n");
    fflush(stdout);
    while (running_) {
        MediaPlayer::Event event;
        {
            Mutex::Autolock lock(eventMutex_);
            if (!events_.empty()) {
                event = events_.front();
                events_.pop_front();
            } else {
                event.id = MediaPlayer::kEventNone;
            }
        }
        if (event.id == MediaPlayer::kEventNone) {
            Thread::sleep(kPollIntervalMs);
            getEvent();
        } else {
            doNotify(event);
        }
    }
    // Events still queued are dropped.
}

void MediaPlayer::MediaPlayerImpl::doNotify(const MediaPlayer::Event& event) {
    Mutex::Autolock lock(listenerMutex_);
    // Cleared also when a listener throws out of the loop.
    struct Delivering {
        bool& flag;
        explicit Delivering(bool& f) : flag(f) { flag = true; }
        ~Delivering() { flag = false; }
    } delivering(delivering_);
    // The list is read again before each call: a listener may add or remove
    // listeners from inside notify() (the lock is recursive).
    for (deliveryIndex_ = 0; deliveryIndex_ < static_cast<std::ptrdiff_t>(listeners_.size());
         ++deliveryIndex_) {
        listeners_[static_cast<size_t>(deliveryIndex_)]->notify(event);
    }
}

}  // namespace velka
