#include "PlayCommander.h"

namespace velka {
namespace tools {

Commander::~Commander() {
    post(Command::kClose);
    if (thread_.joinable()) thread_.join();
}

void Commander::start() { thread_ = std::thread([this] { run(); }); }

void Commander::post(Command command) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (command == Command::kStop || command == Command::kClose) stopAsked_ = true;
        commands_.push_back(command);
    }
    changed_.notify_all();
}

bool Commander::stopAsked() {
    std::lock_guard<std::mutex> lock(mutex_);
    return stopAsked_;
}

void Commander::run() {
    const VelkaStatus opened = player_.open(url_);
    if (opened != kStatusOk) {
        failure_ = opened;
        setStage(Stage::kOpenFailed);
        return;
    }
    if (!stopAsked()) {
        const VelkaStatus played = player_.play(startMs_);
        if (played != kStatusOk) {
            player_.close();
            failure_ = played;
            setStage(Stage::kPlayFailed);
            return;
        }
        setStage(Stage::kPlaying);
    }
    for (;;) {
        Command command;
        bool stopping;
        {
            std::unique_lock<std::mutex> lock(mutex_);
            changed_.wait(lock, [this] { return !commands_.empty(); });
            command = commands_.front();
            commands_.pop_front();
            stopping = stopAsked_;
        }
        if (command == Command::kClose) {
            player_.close();
            setStage(Stage::kClosed);
            return;
        }
        if (command == Command::kStop) {
            // Not again after the end of the stream: that would announce
            // kStateStopped a second time.
            const MediaPlayer::State state = player_.state();
            if (state != MediaPlayer::kStateStopped && state != MediaPlayer::kStateClosed) {
                player_.stop();
            }
            setStage(Stage::kStopped);
        } else if (!stopping) {
            execute(command);
        }
    }
}

void Commander::execute(Command command) {
    if (command == Command::kPause) {
        if (player_.state() == MediaPlayer::kStatePaused) {
            player_.unPause();
        } else {
            player_.pause();  // refused unless playing
        }
        return;
    }
    const MediaPlayer::State state = player_.state();
    if (state != MediaPlayer::kStatePlaying && state != MediaPlayer::kStatePaused) return;
    const int32_t now = player_.currentPts();
    if (now < 0) return;
    int64_t target =
        static_cast<int64_t>(now) + (command == Command::kForward ? seekStepMs_ : -seekStepMs_);
    // The engine refuses a position past the end.
    const int32_t duration = player_.duration();
    if (duration > 0 && target > duration) target = duration;
    if (target < 0) target = 0;
    player_.timeSeek(static_cast<int>(target));
}

}  // namespace tools
}  // namespace velka
