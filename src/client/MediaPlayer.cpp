#include "velka/MediaPlayer.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <mutex>

#include "MediaPlayerImpl.h"
#include "velka/Playback.h"
#include "LogLine.h"

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
// How long the dispatch thread waits on an empty queue before it polls
// Playback without being told of an engine notification: the engine's
// flags are read twice a second at least, and an idle player wakes no more
// often than that.
const int kPollIntervalMs = 500;

// Serialises the claim and release of holder_ with waking it, so that a
// notification never wakes a player on its way out. Trivially destructible:
// engine notifications may come late in process exit.
std::mutex holderMutex_;

}  // namespace

std::atomic<MediaPlayer::MediaPlayerImpl*> MediaPlayer::MediaPlayerImpl::holder_(nullptr);

void MediaPlayer::MediaPlayerImpl::wakeHolder() {
    std::lock_guard<std::mutex> lock(holderMutex_);
    MediaPlayerImpl* holder = holder_;
    if (holder != nullptr) holder->engineNotified();
}

MediaPlayer::MediaPlayerImpl::MediaPlayerImpl()
    : url_(),
      state_(MediaPlayer::kStateClosed),
      delivering_(false),
      deliveryIndex_(0),
      running_(true),
      notifications_(0),
      dispatchThread_(nullptr) {
    Playback::setEventHook(wakeHolder);
    logPuts("MediaPlayerImpl new thread ");
    dispatchThread_ = new Thread(*this, false, "MediaPlayerImpl", kDispatchPriority,
                                 kDispatchStackSize);
    logPuts("MediaPlayerImpl start thread ");
    dispatchThread_->start();
    logPuts("MediaPlayerImpl start thread end");
}

MediaPlayer::MediaPlayerImpl::~MediaPlayerImpl() {
    stop();
    close();
    {
        Mutex::Autolock lock(eventMutex_);
        running_ = false;
    }
    wakeup_.notify_all();
    // Waits until the loop next tests running_: at once when it waits, else
    // after the poll or the delivery of one event under way.
    delete dispatchThread_;
}

void MediaPlayer::MediaPlayerImpl::queueState(MediaPlayer::State state) {
    addEvent(MediaPlayer::Event{MediaPlayer::kEventStateChanged, state}, false);
}

bool MediaPlayer::MediaPlayerImpl::claimEngine() {
    std::lock_guard<std::mutex> lock(holderMutex_);
    MediaPlayerImpl* holder = holder_;
    if (holder != nullptr && holder != this) return false;
    holder_ = this;
    return true;
}

void MediaPlayer::MediaPlayerImpl::releaseEngine() {
    std::lock_guard<std::mutex> lock(holderMutex_);
    if (holder_ == this) holder_ = nullptr;
}

VelkaStatus MediaPlayer::MediaPlayerImpl::open(const std::string& url) {
    logPrint("MediaPlayerImpl open %s state %d\n", url.c_str(), static_cast<int>(state_.load()));
    logFlush();
    if (url.empty()) return kStatusInvalidArgument;

    Mutex::Autolock lock(stateMutex_);
    if (state_ != MediaPlayer::kStateClosed) return kStatusInvalidState;
    state_ = MediaPlayer::kStateOpening;
    url_ = url;
    queueState(MediaPlayer::kStateOpening);

    // Another player plays on the one engine: it goes on untouched, and this
    // one goes back to closed.
    if (!claimEngine()) {
        state_ = MediaPlayer::kStateClosed;
        queueState(MediaPlayer::kStateClosed);
        return kStatusInvalidState;
    }

    VelkaStatus result;
    if (Playback::instance_.open(url_) != kStatusOk) {
        releaseEngine();
        // The return to closed is announced by the error event alone.
        state_ = MediaPlayer::kStateClosed;
        addEvent(MediaPlayer::Event{MediaPlayer::kEventError, 0}, false);
        result = kStatusError;
    } else {
        state_ = MediaPlayer::kStateOpened;
        logPrint("MediaPlayerImpl open 1\n");
        queueState(MediaPlayer::kStateOpened);
        logPrint("MediaPlayerImpl open end\n");
        result = kStatusOk;
    }
    return result;
}

void MediaPlayer::MediaPlayerImpl::close() {
    logPrint("MediaPlayerImpl close state %d\n", static_cast<int>(state_.load()));
    logFlush();
    Mutex::Autolock lock(stateMutex_);
    if (state_ != MediaPlayer::kStateClosed) {
        state_ = MediaPlayer::kStateClosed;
        Playback::instance_.close();
        releaseEngine();
        // Overtakes every event still waiting.
        addEvent(MediaPlayer::Event{MediaPlayer::kEventStateChanged, MediaPlayer::kStateClosed},
                 true);
    }
}

VelkaStatus MediaPlayer::MediaPlayerImpl::play(int startMs) {
    logPrint("MediaPlayerImpl play\n");
    logFlush();
    Mutex::Autolock lock(stateMutex_);
    if (state_ == MediaPlayer::kStateClosed) return kStatusInvalidState;
    if (Playback::instance_.play(startMs) != kStatusOk) return kStatusError;
    logPrint("change to playing\n");
    logFlush();
    state_ = MediaPlayer::kStatePlaying;
    queueState(MediaPlayer::kStatePlaying);
    return kStatusOk;
}

VelkaStatus MediaPlayer::MediaPlayerImpl::pause() {
    logPrint("MediaPlayerImpl pause\n");
    logFlush();
    Mutex::Autolock lock(stateMutex_);
    if (state_ != MediaPlayer::kStatePlaying) return kStatusInvalidState;
    // The state does not depend on the engine's answer.
    state_ = MediaPlayer::kStatePaused;
    queueState(MediaPlayer::kStatePaused);
    return Playback::instance_.pause();
}

VelkaStatus MediaPlayer::MediaPlayerImpl::unPause() {
    logPrint("MediaPlayerImpl unPause\n");
    logFlush();
    Mutex::Autolock lock(stateMutex_);
    if (state_ != MediaPlayer::kStatePaused) return kStatusInvalidState;
    if (Playback::instance_.unPause() != kStatusOk) return kStatusInvalidState;
    state_ = MediaPlayer::kStatePlaying;
    queueState(MediaPlayer::kStatePlaying);
    return kStatusOk;
}

VelkaStatus MediaPlayer::MediaPlayerImpl::stop() {
    logPrint("MediaPlayerImpl stop state %d\n", static_cast<int>(state_.load()));
    logFlush();
    Mutex::Autolock lock(stateMutex_);
    if (state_ == MediaPlayer::kStateOpening || state_ == MediaPlayer::kStateClosed) {
        return kStatusInvalidState;
    }
    state_ = MediaPlayer::kStateStopped;
    queueState(MediaPlayer::kStateStopped);
    return Playback::instance_.stop();
}

VelkaStatus MediaPlayer::MediaPlayerImpl::timeSeek(int ms) {
    logPrint("MediaPlayerImpl timeSeek\n");
    logFlush();
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
    logPrint("MediaPlayerImpl display\n");
    logFlush();
    Mutex::Autolock lock(stateMutex_);
    if (state_ == MediaPlayer::kStateClosed) return kStatusInvalidState;
    return Playback::instance_.display(screen);
}

int MediaPlayer::MediaPlayerImpl::duration() {
    logPrint("MediaPlayerImpl duration\n");
    logFlush();
    return Playback::instance_.duration();
}

int MediaPlayer::MediaPlayerImpl::currentPts() const {
    logPrint("MediaPlayerImpl currentPts\n");
    return Playback::instance_.currentPts();
}

unsigned int MediaPlayer::MediaPlayerImpl::getVolume() { return Playback::instance_.getVolume(); }

void MediaPlayer::MediaPlayerImpl::setVolume(unsigned int volume) {
    Playback::instance_.setVolume(volume);
}

void MediaPlayer::MediaPlayerImpl::setMute(bool mute) { Playback::instance_.setMute(mute); }

bool MediaPlayer::MediaPlayerImpl::isMute() { return Playback::instance_.isMute(); }

VelkaStatus MediaPlayer::MediaPlayerImpl::addListener(MediaPlayer::Listener& listener) {
    logPrint("MediaPlayerImpl addListener\n");
    logFlush();
    Mutex::Autolock lock(listenerMutex_);
    listeners_.push_back(&listener);
    return kStatusOk;
}

VelkaStatus MediaPlayer::MediaPlayerImpl::removeListener(MediaPlayer::Listener& listener) {
    logPrint("MediaPlayerImpl removeListener\n");
    logFlush();
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
    logPrint("MediaPlayerImpl addEvent id  %d param %d\n", static_cast<int>(event.id),
           static_cast<int>(event.param));
    if (toFront) {
        events_.push_front(event);
    } else {
        events_.push_back(event);
    }
    wakeup_.notify_one();
}

void MediaPlayer::MediaPlayerImpl::engineNotified() {
    {
        Mutex::Autolock lock(eventMutex_);
        ++notifications_;
    }
    wakeup_.notify_one();
}

void MediaPlayer::MediaPlayerImpl::getEvent() {
    // A closed player never asks the engine, nor one that does not hold it.
    if (state_ == MediaPlayer::kStateClosed || holder_ != this) return;

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
    logPrint("MediaPlayerImpl eventDispatch\n");
    logFlush();
    using Clock = std::chrono::steady_clock;
    Clock::time_point nextPoll = Clock::now() + std::chrono::milliseconds(kPollIntervalMs);
    while (running_) {
        MediaPlayer::Event event;
        event.id = MediaPlayer::kEventNone;
        bool poll = false;
        {
            Mutex::Autolock lock(eventMutex_);
            // Held once here, so the wait releases it (the lock is recursive).
            wakeup_.wait_until(eventMutex_, nextPoll, [this] {
                return !events_.empty() || notifications_ > 0 || !running_;
            });
            if (!events_.empty()) {
                event = events_.front();
                events_.pop_front();
            } else if (running_) {
                // Told of a notification, or the interval is over.
                poll = true;
                if (notifications_ > 0) --notifications_;
            }
        }
        if (poll) {
            getEvent();
            nextPoll = Clock::now() + std::chrono::milliseconds(kPollIntervalMs);
        } else if (event.id != MediaPlayer::kEventNone) {
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
