// velka-play's command thread and the pipe that wakes its main loop.
#ifndef VELKA_TOOLS_PLAYCOMMANDER_H
#define VELKA_TOOLS_PLAYCOMMANDER_H

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <thread>
#include <utility>

#include "velka/MediaPlayer.h"

namespace velka {
namespace tools {

// A non-blocking pipe the main loop polls: any thread (and the signal
// handlers) writes a byte to wake it.
class WakePipe {
public:
    WakePipe() {
        if (pipe2(fds_, O_CLOEXEC | O_NONBLOCK) != 0) fds_[0] = fds_[1] = -1;
    }
    ~WakePipe() {
        if (fds_[0] != -1) close(fds_[0]);
        if (fds_[1] != -1) close(fds_[1]);
    }
    WakePipe(const WakePipe&) = delete;
    WakePipe& operator=(const WakePipe&) = delete;

    bool ok() const { return fds_[0] != -1; }
    int readFd() const { return fds_[0]; }
    int writeFd() const { return fds_[1]; }

    void wake() {
        const char byte = 'w';
        if (write(fds_[1], &byte, 1) < 0) {
            // Full: the main loop has a wake-up waiting already.
        }
    }
    void drain() {
        char bytes[64];
        for (int i = 0; i < 64 && read(fds_[0], bytes, sizeof bytes) > 0; ++i) {
        }
    }

private:
    int fds_[2];
};

// Runs the player's commands on a thread of its own, in the order posted:
// open and play first, then the keys' commands, stop and close. The main
// thread stays free to draw and to read keys while a command blocks.
class Commander {
public:
    enum class Command { kPause, kSeek, kStop, kClose };
    enum class Stage { kOpening, kOpenFailed, kPlayFailed, kPlaying, kStopped, kClosed };

    Commander(MediaPlayer& player, const std::string& url, int32_t startMs, WakePipe& wake)
        : player_(player), url_(url), startMs_(startMs), wake_(wake) {}

    // Closes the player if that has not happened yet.
    ~Commander();
    Commander(const Commander&) = delete;
    Commander& operator=(const Commander&) = delete;

    void start();

    // After kStop, play is skipped and the keys' commands are dropped.
    // `targetMs`: where kSeek goes.
    void post(Command command, int32_t targetMs = 0);

    // The answer to the seek to `*targetMs`, once per seek posted: the
    // position the engine reports after it (`*positionMs`, -1 when it cannot
    // tell, or the seek was not made). False when there is none new.
    bool takeSeekAnswer(int32_t* targetMs, int32_t* positionMs);

    // The stage reached; the main thread is woken at each change.
    Stage stage() const { return stage_.load(); }
    // The result of the open or play that failed.
    VelkaStatus failure() const { return failure_.load(); }

private:
    bool stopAsked();
    // The command thread's body.
    void run();
    void execute(Command command, int32_t targetMs);
    void answerSeek(int32_t targetMs, int32_t positionMs);
    void setStage(Stage stage) {
        stage_ = stage;
        wake_.wake();
    }

    MediaPlayer& player_;
    const std::string url_;
    const int32_t startMs_;
    WakePipe& wake_;
    std::thread thread_;
    std::atomic<Stage> stage_{Stage::kOpening};
    std::atomic<VelkaStatus> failure_{kStatusOk};
    std::mutex mutex_;  // guards stopAsked_, commands_ and seekAnswers_
    std::condition_variable changed_;
    bool stopAsked_ = false;
    std::deque<std::pair<Command, int32_t>> commands_;  // with kSeek's target
    std::deque<std::pair<int32_t, int32_t>> seekAnswers_;  // target, position after it
};

}  // namespace tools
}  // namespace velka

#endif  // VELKA_TOOLS_PLAYCOMMANDER_H
