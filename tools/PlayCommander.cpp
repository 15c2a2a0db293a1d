#include "PlayCommander.h"

namespace velka {
namespace tools {

Commander::~Commander() {
    post(Command::kClose);
    if (thread_.joinable()) thread_.join();
}

void Commander::start() { thread_ = std::thread([this] { run(); }); }

void Commander::post(Command command, int32_t targetMs) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (command == Command::kStop || command == Command::kClose) stopAsked_ = true;
        commands_.emplace_back(command, targetMs);
    }
    changed_.notify_all();
}

bool Commander::takeSeekAnswer(int32_t* targetMs, int32_t* positionMs) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (seekAnswers_.empty()) return false;
    *targetMs = seekAnswers_.front().first;
    *positionMs = seekAnswers_.front().second;
    seekAnswers_.pop_front();
    return true;
}

void Commander::answerSeek(int32_t targetMs, int32_t positionMs) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        seekAnswers_.emplace_back(targetMs, positionMs);
    }
    wake_.wake();
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
        int32_t targetMs;
        bool stopping;
        {
            std::unique_lock<std::mutex> lock(mutex_);
            changed_.wait(lock, [this] { return !commands_.empty(); });
            command = commands_.front().first;
            targetMs = commands_.front().second;
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
            execute(command, targetMs);
        } else if (command == Command::kSeek) {
            answerSeek(targetMs, -1);
        }
    }
}

void Commander::execute(Command command, int32_t targetMs) {
    if (command == Command::kPause) {
        if (player_.state() == MediaPlayer::kStatePaused) {
            player_.unPause();
        } else {
            player_.pause();  // refused unless playing
        }
        return;
    }
    const MediaPlayer::State state = player_.state();
    if (state == MediaPlayer::kStatePlaying || state == MediaPlayer::kStatePaused) {
        player_.timeSeek(targetMs);  // returns when the engine has answered
    }
    answerSeek(targetMs, player_.currentPts());
}

}  // namespace tools
}  // namespace velka
