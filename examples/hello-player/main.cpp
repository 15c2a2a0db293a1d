// hello-player: the smallest host application of velka. It plays one URL to
// its end: create a player, add a listener, open, play, wait, close. The
// library's diagnostic lines go through the host's own log function.
//
// Build against an installed velka with CMake (see CMakeLists.txt) or with
//   c++ -std=c++17 main.cpp $(pkg-config --cflags --libs velka) -o hello-player

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <mutex>

#include <velka/Log.h>
#include <velka/MediaPlayer.h>

// The host's log: each of the library's lines, marked as velka's, on the
// stream given as context (a host on a box might hand them to syslog).
void to_host_log(const char* line, void* context) {
    fprintf(static_cast<FILE*>(context), "[velka] %s\n", line);
}

// Called by the library while it loads, so that even its first lines go to
// the host's log. Without it the lines go to standard output, and a host can
// still switch at any time with velka::logToFunction, logToFile or logOff.
extern "C" void velka_log_setup(void) { velka::logToFunction(to_host_log, stdout); }

// Told of every event, on the player's own thread.
class EndListener : public velka::MediaPlayer::Listener {
public:
    void notify(const velka::MediaPlayer::Event& event) override {
        std::lock_guard<std::mutex> lock(mutex_);
        if (event.id == velka::MediaPlayer::kEventEndOfStream) ended_ = true;
        if (event.id == velka::MediaPlayer::kEventError) failed_ = true;
        if (ended_ || failed_) changed_.notify_all();
    }

    // True at the end of the stream; false after an error or `limit`.
    bool waitForEnd(std::chrono::seconds limit) {
        std::unique_lock<std::mutex> lock(mutex_);
        changed_.wait_for(lock, limit, [this] { return ended_ || failed_; });
        return ended_;
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    bool ended_ = false;
    bool failed_ = false;
};

int main(int argc, char** argv) {
    if (argc != 2) {
        fprintf(stderr, "usage: hello-player URL   (file:///path/to/clip.mp4)\n");
        return 2;
    }
    EndListener listener;
    velka::MediaPlayer player;
    player.addListener(listener);
    if (player.open(argv[1]) != velka::kStatusOk) {
        fprintf(stderr, "hello-player: cannot open %s\n", argv[1]);
        return 1;
    }
    player.play(0);
    const bool ended = listener.waitForEnd(std::chrono::seconds(3600));
    player.close();
    player.removeListener(listener);
    fprintf(stderr, "hello-player: %s\n", ended ? "played to the end" : "playback failed");
    return ended ? 0 : 1;
}
