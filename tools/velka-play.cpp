// velka-play: plays one URL through velka::MediaPlayer on the platform's
// playback engine, with a live status line and keys on a terminal, or one
// line per state change without one.
//
// Threads: the main thread owns the screen, the keys and the exit; a command
// thread issues the player's commands, which may block (open, a time seek,
// close); the player's own dispatch thread delivers events to the Inbox.

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <mutex>
#include <string>

#include "PlayCommander.h"
#include "PlayStartup.h"
#include "PlayStatus.h"
#include "PlayTerminal.h"
#include "velka/MediaPlayer.h"

namespace {

using velka::MediaPlayer;
using velka::VelkaStatus;
using velka::tools::Commander;
using velka::tools::Key;
using velka::tools::PlayOptions;
using velka::tools::PlayStatus;
using velka::tools::WakePipe;
using Clock = std::chrono::steady_clock;

// How far the arrow keys move.
constexpr int32_t kSeekStepMs = 10000;
// The main loop wakes at least this often, to notice a finished command thread.
constexpr int kLoopTickMs = 500;
// How long to wait for the player to announce kStateStopped after stop, and
// kStateClosed after close: one poll interval of its dispatch thread and
// plenty of slack.
constexpr std::chrono::milliseconds kEventWait(2000);

const char kUsage[] =
    "Usage: velka-play [--start MS] [--speed N] [--log FILE] [--quiet] URL\n"
    "\n"
    "Plays URL through the velka media player on the platform's playback engine\n"
    "until the end of the stream. URL is file://PATH, or a plain path, taken as\n"
    "a local file; any other URL is handed to the library as it is, which plays\n"
    "it through the download engine (the one built in this tree serves http://,\n"
    "https:// and dta-test://PATH).\n"
    "\n"
    "  --start MS   start at MS milliseconds (the engine takes whole seconds)\n"
    "  --speed N    speed factor of the software playback engine: 1 real time,\n"
    "               N times faster, 0 as fast as the data comes. A hardware\n"
    "               engine plays in real time and ignores it.\n"
    "  --log FILE   where the library's diagnostic lines go, so that the screen\n"
    "               stays readable; default ./velka-play.log\n"
    "  --quiet      no status; errors only\n"
    "  --help       this text\n"
    "\n"
    "On a terminal a status line shows the state, position / duration, progress,\n"
    "the buffering the library reports and the last error. Keys, when standard\n"
    "input is a terminal: space pauses and resumes, left and right arrows seek\n"
    "10 s back and forward, q quits. Without a terminal one line is written per\n"
    "state change.\n"
    "\n"
    "Exit status: 0 at the end of the stream or on q; 1 when the media cannot be\n"
    "opened or playback fails (one line on standard error names the URL and the\n"
    "error code); 2 on bad usage or an unwritable log; 128 + N after signal N.\n";

// --- Talking to the main thread ------------------------------------------------

// The player's listener: keeps each event for the main thread. notify() runs
// on the player's dispatch thread.
class Inbox : public MediaPlayer::Listener {
public:
    explicit Inbox(WakePipe& wake) : wake_(wake) {}

    void notify(const MediaPlayer::Event& event) override {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            events_.push_back(event);
        }
        wake_.wake();
    }

    std::deque<MediaPlayer::Event> take() {
        std::lock_guard<std::mutex> lock(mutex_);
        std::deque<MediaPlayer::Event> taken;
        taken.swap(events_);
        return taken;
    }

private:
    WakePipe& wake_;
    std::mutex mutex_;  // guards events_
    std::deque<MediaPlayer::Event> events_;
};

// --- The screen ------------------------------------------------------------------

// velka-play's own output: a status line redrawn in place on a terminal, or
// one line per state change into a file or a pipe; nothing with --quiet.
class Screen {
public:
    Screen(FILE* out, bool quiet)
        : out_(out), quiet_(quiet), terminal_(!quiet && isatty(fileno(out)) == 1) {}

    bool terminal() const { return terminal_; }

    void line(const char* format, ...) __attribute__((format(printf, 2, 3))) {
        if (quiet_) return;
        endStatus();
        fputs("velka-play: ", out_);
        va_list args;
        va_start(args, format);
        vfprintf(out_, format, args);
        va_end(args);
        fputc('\n', out_);
        fflush(out_);
    }

    // Every state is shown, also one that lasts only until the next event.
    void stateChanged(const PlayStatus& status) {
        if (terminal_) {
            draw(status);
        } else if (!quiet_) {
            line("%s", velka::tools::stateLine(status).c_str());
        }
    }
    void endOfStream() {
        if (!quiet_ && !terminal_) line("end of stream");
    }

    void draw(const PlayStatus& status) {
        if (!terminal_) return;
        const std::string text =
            velka::tools::statusLine(status, velka::tools::terminalColumns(fileno(out_)));
        if (drawn_ && text == last_) return;
        fprintf(out_, "\r%s\033[K", text.c_str());
        fflush(out_);
        last_ = text;
        drawn_ = true;
    }

    // Leaves the status line as the final line on the screen.
    void endStatus() {
        if (!drawn_) return;
        fputc('\n', out_);
        fflush(out_);
        drawn_ = false;
    }

private:
    FILE* out_;
    bool quiet_;
    bool terminal_;
    bool drawn_ = false;  // a status line is on the screen, without its newline
    std::string last_;
};

// A plain path is a local file: made absolute and given the file:// prefix.
std::string toUrl(const std::string& arg) {
    if (arg.find("://") != std::string::npos) return arg;
    if (!arg.empty() && arg[0] == '/') return "file://" + arg;
    char cwd[PATH_MAX];
    if (getcwd(cwd, sizeof cwd) == nullptr) return "file://" + arg;
    return std::string("file://") + cwd + "/" + arg;
}

// --- One playback ------------------------------------------------------------------

class PlayApp {
public:
    PlayApp(const PlayOptions& o, FILE* out)
        : options_(o), url_(toUrl(o.url)), screen_(out, o.quiet), inbox_(wake_) {
        status_.state = MediaPlayer::kStateOpening;  // the command thread opens first
        status_.positionMs = o.startMs;
    }

    int run() {
        if (!wake_.ok()) {
            fprintf(stderr, "velka-play: cannot make a pipe: %s\n", strerror(errno));
            return 1;
        }
        velka::tools::installSignalHandlers(wake_.writeFd());
        const bool keys = velka::tools::enterRawMode(STDIN_FILENO);
        if (screen_.terminal()) {
            screen_.line("%s  [%slog: %s]", url_.c_str(),
                         keys ? "space pause/resume, left/right seek 10 s, q quit; " : "",
                         options_.logPath != nullptr ? options_.logPath : velka::tools::kDefaultPlayLog);
        }

        player_.addListener(inbox_);
        Commander commander(player_, url_, options_.startMs, kSeekStepMs, wake_);
        commander.start();
        const int result = loop(commander, keys);
        velka::tools::leaveRawMode();
        screen_.endStatus();
        if (!failureLine_.empty()) fprintf(stderr, "velka-play: %s\n", failureLine_.c_str());
        return result;  // ~Commander joins its thread, which has closed the player
    }

    ~PlayApp() { player_.removeListener(inbox_); }

private:
    // Until the player is closed. Quitting (q or a signal) stops the player;
    // once it has announced kStateStopped, by then or at the end of the
    // stream, it is closed; once it has announced kStateClosed, the loop
    // ends. Each announcement is awaited for kEventWait at most.
    int loop(Commander& commander, bool keys) {
        velka::tools::KeyDecoder decoder;
        bool stopAsked = false, closeAsked = false, sawStopped = false, sawClosed = false;
        bool failed = false;
        Commander::Stage lastStage = commander.stage();
        Clock::time_point stageSince = Clock::now();
        for (;;) {
            struct pollfd fds[2] = {{wake_.readFd(), POLLIN, 0}, {STDIN_FILENO, POLLIN, 0}};
            const int count = poll(fds, keys ? 2 : 1, kLoopTickMs);
            if (count > 0 && (fds[0].revents & POLLIN)) wake_.drain();
            bool quit = velka::tools::quitSignal() != 0;
            if (count > 0 && keys && (fds[1].revents & (POLLIN | POLLHUP))) {
                uint8_t bytes[32];
                const ssize_t n = read(STDIN_FILENO, bytes, sizeof bytes);
                if (n <= 0) keys = false;  // the terminal went away
                for (ssize_t i = 0; i < n; ++i) {
                    const Key key = decoder.feed(bytes[i]);
                    if (key == Key::kQuit) quit = true;
                    if (!stopAsked && key == Key::kPause) commander.post(Commander::Command::kPause);
                    if (!stopAsked && key == Key::kBack) commander.post(Commander::Command::kBack);
                    if (!stopAsked && key == Key::kForward) {
                        commander.post(Commander::Command::kForward);
                    }
                }
            }
            if (quit && !stopAsked) {
                stopAsked = true;
                commander.post(Commander::Command::kStop);
            }

            for (const MediaPlayer::Event& event : inbox_.take()) {
                if (event.id == MediaPlayer::kEventEndOfStream) screen_.endOfStream();
                if (!status_.apply(event)) continue;
                if (status_.state == MediaPlayer::kStateOpened) {
                    status_.durationMs = player_.duration();
                }
                screen_.stateChanged(status_);
                if (status_.state == MediaPlayer::kStateClosed) sawClosed = true;
                if (status_.state != MediaPlayer::kStateStopped) continue;
                sawStopped = true;
                if (!stopAsked) {
                    // The end of the stream or an error stopped the player.
                    stopAsked = true;
                    if (status_.haveError) {
                        failed = true;
                        failureLine_ = url_ + ": playback failed (error code " +
                                       std::to_string(status_.errorCode) + ")";
                    }
                }
            }

            const Commander::Stage stage = commander.stage();
            const Clock::time_point now = Clock::now();
            if (stage != lastStage) {
                lastStage = stage;
                stageSince = now;
            }
            const bool waitedLong = now - stageSince > kEventWait;
            if (stage == Commander::Stage::kOpenFailed || stage == Commander::Stage::kPlayFailed) {
                failed = true;
                failureLine_ = url_ + (stage == Commander::Stage::kOpenFailed
                                           ? ": cannot open (error code "
                                           : ": cannot play (error code ") +
                               std::to_string(static_cast<int>(commander.failure())) + ")";
                screen_.draw(status_);
                break;
            }
            if (!closeAsked && stopAsked &&
                (sawStopped || (stage == Commander::Stage::kStopped && waitedLong))) {
                closeAsked = true;
                commander.post(Commander::Command::kClose);
            }
            screen_.draw(status_);
            if (stage == Commander::Stage::kClosed && (sawClosed || waitedLong)) break;
        }
        if (velka::tools::quitSignal() != 0) return 128 + velka::tools::quitSignal();
        return failed ? 1 : 0;
    }

    const PlayOptions& options_;
    const std::string url_;
    Screen screen_;
    WakePipe wake_;
    Inbox inbox_;
    PlayStatus status_;
    MediaPlayer player_;  // after inbox_: its dispatch thread ends before inbox_ goes
    std::string failureLine_;
};

}  // namespace

int main(int argc, char** argv) {
    // Done already, from the preinit array, where the C library has one.
    const velka::tools::PlayStartup& startup = velka::tools::playStartup(argc, argv, environ);
    const PlayOptions& o = startup.options;
    FILE* out = fdopen(startup.outputFd, "w");
    if (out == nullptr) out = stderr;

    if (o.help) {
        fputs(kUsage, out);
        return 0;
    }
    if (o.error != nullptr) {
        fprintf(stderr, "velka-play: %s%s%s\n%s", o.error, o.errorArg != nullptr ? ": " : "",
                o.errorArg != nullptr ? o.errorArg : "", kUsage);
        return 2;
    }
    if (startup.logErrno != 0) {
        fprintf(stderr, "velka-play: cannot write the log %s: %s\n",
                o.logPath != nullptr ? o.logPath : velka::tools::kDefaultPlayLog, strerror(startup.logErrno));
        return 2;
    }
    if (startup.speedErrno != 0) {
        fprintf(stderr, "velka-play: cannot apply --speed %s: %s\n", o.speed,
                strerror(startup.speedErrno));
        return 2;
    }

    int status;
    {
        PlayApp app(o, out);
        status = app.run();
    }
    fflush(nullptr);
    return status;
}
