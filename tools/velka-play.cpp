// velka-play: plays one URL through velka::MediaPlayer on the platform's
// playback engine, with a live status line and keys on a terminal, or one
// line per state change without one.
//
// Threads: the main thread owns the screen, the keys and the exit; a command
// thread issues the player's commands, which may block (open, a time seek,
// close); the player's own dispatch thread delivers events to the Inbox.

#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <mutex>
#include <string>

#include "LibraryLog.h"
#include "PlayCommander.h"
#include "PlayFailure.h"
#include "PlayOptions.h"
#include "PlayStatus.h"
#include "PlayTerminal.h"
#include "velka/FileFactory.h"
#include "velka/MediaPlayer.h"
#ifdef VELKA_PLAY_WINDOW_KEYS
#include "mtkpb_screen.h"
#endif

namespace {

using velka::MediaPlayer;
using velka::VelkaStatus;
using velka::tools::Commander;
using velka::tools::Key;
using velka::tools::PlayFailure;
using velka::tools::PlayOptions;
using velka::tools::PlayStatus;
using velka::tools::WakePipe;
using Clock = std::chrono::steady_clock;

// How far the arrow keys move: left and right, up and down.
constexpr int32_t kSeekStepMs = 10000;
constexpr int32_t kLongSeekStepMs = 60000;
// The header line on a terminal fits in this many columns.
constexpr size_t kHeaderColumns = 80;
// The main loop wakes at least this often, to notice a finished command thread.
constexpr int kLoopTickMs = 500;
// How long to wait for the player to announce kStateStopped after stop, and
// kStateClosed after close: one poll interval of its dispatch thread and
// plenty of slack.
constexpr std::chrono::milliseconds kEventWait(2000);

const char kUsage[] =
    "Usage: velka-play [--start MS] [--speed N] [--log FILE] [--library-http] [--quiet] [--no-video] URL\n"
    "       velka-play --help | --version\n"
    "\n"
    "Plays URL through the velka media player on the platform's playback engine\n"
    "until the end of the stream. URL is file://PATH, or a plain path, taken as\n"
    "a local file; any other URL is handed to the library as it is, which plays\n"
    "it through the download engine (the one built in this tree serves http://,\n"
    "https:// and dta-test://PATH).\n"
    "\n"
    "  --library-http  play http:// and https:// URLs with the library's own\n"
    "               network stack instead of the download engine: an HLS playlist\n"
    "               (.m3u8 in the path) through HlsFile, anything else through\n"
    "               HttpFile\n"
    "  --start MS   start at MS milliseconds (the engine takes whole seconds)\n"
    "  --speed N    speed factor of the software playback engine: 1 real time,\n"
    "               N times faster, 0 as fast as the data comes. A hardware\n"
    "               engine plays in real time and ignores it.\n"
    "  --log FILE   write the library's diagnostic lines to FILE; by default they\n"
    "               are dropped (VELKA_LOG=FILE also keeps those it prints while\n"
    "               it is loaded)\n"
    "  --quiet      no status; errors only\n"
    "  --no-video   no picture: the software playback engine decodes and plays\n"
    "               the sound only, and velka-play stays in the terminal\n"
    "  --help       this text\n"
    "  --version    the version\n"
    "\n"
    "On a terminal a status line shows the state, position / duration, progress,\n"
    "the buffering the library reports and the last error. Keys, when standard\n"
    "input is a terminal: space pauses and resumes, left and right arrows seek\n"
    "10 s back and forward, up and down arrows 60 s, ? shows the keys, q quits.\n"
    "Without a terminal one line is written per state change.\n"
    "\n"
    "On a desktop the software playback engine shows the picture in a window\n"
    "(at speed 1; any other speed plays without picture and sound); the keys\n"
    "work in that window too, and closing it quits as q does. Without a display\n"
    "it presents off screen (MTKPB_VIDEO=window|offscreen|off and\n"
    "MTKPB_AUDIO=device|null choose).\n"
    "\n"
    "Exit status, with one line on standard error that says why:\n"
    "  0  the end of the stream, or q\n"
    "  1  not a media file the engine can play, or playback failed\n"
    "  2  bad usage\n"
    "  3  no such file, permission denied, or a folder\n"
    "  4  unsupported URL\n"
    "  5  the server's answer or the network error, for a network URL\n"
    "  128 + N after signal N\n";

const char kKeysLine[] = "keys: space pause, left/right 10 s, up/down 60 s, q quit";

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

// Keys pressed in the playback engine's window (on a desktop, with the
// software engine): kept for the main thread like the terminal's.
class WindowKeys {
public:
    explicit WindowKeys(WakePipe& wake) : wake_(wake) {
#ifdef VELKA_PLAY_WINDOW_KEYS
        MtkPb_Screen_SetKeyHandler(key_cb, this);
#endif
    }
    ~WindowKeys() {
#ifdef VELKA_PLAY_WINDOW_KEYS
        MtkPb_Screen_SetKeyHandler(nullptr, nullptr);
#endif
    }
    WindowKeys(const WindowKeys&) = delete;
    WindowKeys& operator=(const WindowKeys&) = delete;

    std::deque<Key> take() {
        std::lock_guard<std::mutex> lock(mutex_);
        std::deque<Key> taken;
        taken.swap(keys_);
        return taken;
    }

private:
#ifdef VELKA_PLAY_WINDOW_KEYS
    // The engine's presenter thread.
    static void key_cb(int32_t key, void* tag) {
        static const Key keys[] = {Key::kNone, Key::kQuit,    Key::kQuit,     Key::kPause, Key::kBack,
                                   Key::kForward, Key::kForwardLong, Key::kBackLong, Key::kHelp};
        if (key < 0 || key >= static_cast<int32_t>(sizeof keys / sizeof keys[0])) return;
        WindowKeys* self = static_cast<WindowKeys*>(tag);
        {
            std::lock_guard<std::mutex> lock(self->mutex_);
            self->keys_.push_back(keys[key]);
        }
        self->wake_.wake();
    }
#endif
    WakePipe& wake_;
    std::mutex mutex_;  // guards keys_
    std::deque<Key> keys_;
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

// "URL  [? keys, q quit]" for the header, which fits in kHeaderColumns - 1
// after "velka-play: ": a long URL loses its front.
std::string headerText(const std::string& url, bool keys) {
    const std::string tail = keys ? "  [? keys, q quit]" : "";
    const size_t room = kHeaderColumns - 1 - strlen("velka-play: ") - tail.size();
    if (url.size() <= room) return url + tail;
    return "..." + url.substr(url.size() - (room - 3)) + tail;
}

// --- One playback ------------------------------------------------------------------

class PlayApp {
public:
    PlayApp(const PlayOptions& o, FILE* out)
        : options_(o),
          url_(velka::tools::toPlayUrl(o.url)),
          screen_(out, o.quiet),
          inbox_(wake_),
          windowKeys_(wake_) {
        status_.state = MediaPlayer::kStateOpening;  // the command thread opens first
        status_.positionMs = o.startMs;
    }

    int run() {
        if (!wake_.ok()) {
            fprintf(stderr, "velka-play: cannot make a pipe: %s\n", strerror(errno));
            return 1;
        }
        const PlayFailure early = velka::tools::checkBeforeOpen(url_);
        if (!early.reason.empty()) {
            fprintf(stderr, "velka-play: %s: %s\n", url_.c_str(), early.reason.c_str());
            return early.exitStatus;
        }
        velka::tools::installSignalHandlers(wake_.writeFd());
        const bool keys = velka::tools::enterRawMode(STDIN_FILENO);
        if (screen_.terminal()) screen_.line("%s", headerText(url_, keys).c_str());

        player_.addListener(inbox_);
        Commander commander(player_, url_, options_.startMs, wake_);
        commander.start();
        const int result = loop(commander, keys);
        velka::tools::leaveRawMode();
        screen_.endStatus();
        if (!failure_.reason.empty()) {
            fprintf(stderr, "velka-play: %s: %s\n", url_.c_str(), failure_.reason.c_str());
        }
        return result;  // ~Commander joins its thread, which has closed the player
    }

    ~PlayApp() { player_.removeListener(inbox_); }

private:
    // Shows the target at once; the position catches up when the engine
    // has answered. Presses in a row add up.
    void seekBy(Commander& commander, int32_t stepMs) {
        if (commander.stage() != Commander::Stage::kPlaying) return;
        const int64_t from = status_.seekTargetMs >= 0 ? status_.seekTargetMs : status_.positionMs;
        int64_t target = from + stepMs;
        // The engine refuses a position past the end.
        if (status_.durationMs > 0 && target > status_.durationMs) target = status_.durationMs;
        if (target < 0) target = 0;
        status_.seekTargetMs = static_cast<int32_t>(target);
        commander.post(Commander::Command::kSeek, status_.seekTargetMs);
    }

    // Until the player is closed. Quitting (q or a signal) stops the player;
    // once it has announced kStateStopped, by then or at the end of the
    // stream, it is closed; once it has announced kStateClosed, the loop
    // ends. Each announcement is awaited for kEventWait at most.
    int loop(Commander& commander, bool keys) {
        velka::tools::KeyDecoder decoder;
        bool stopAsked = false, closeAsked = false, sawStopped = false, sawClosed = false;
        Commander::Stage lastStage = commander.stage();
        Clock::time_point stageSince = Clock::now();
        for (;;) {
            struct pollfd fds[2] = {{wake_.readFd(), POLLIN, 0}, {STDIN_FILENO, POLLIN, 0}};
            const int count = poll(fds, keys ? 2 : 1, kLoopTickMs);
            if (count > 0 && (fds[0].revents & POLLIN)) wake_.drain();
            bool quit = velka::tools::quitSignal() != 0;
            const auto press = [&](Key key) {
                if (key == Key::kQuit) quit = true;
                if (key == Key::kHelp) screen_.line("%s", kKeysLine);
                if (stopAsked) return;
                if (key == Key::kPause) commander.post(Commander::Command::kPause);
                if (key == Key::kBack) seekBy(commander, -kSeekStepMs);
                if (key == Key::kForward) seekBy(commander, kSeekStepMs);
                if (key == Key::kBackLong) seekBy(commander, -kLongSeekStepMs);
                if (key == Key::kForwardLong) seekBy(commander, kLongSeekStepMs);
            };
            if (count > 0 && keys && (fds[1].revents & (POLLIN | POLLHUP))) {
                uint8_t bytes[32];
                const ssize_t n = read(STDIN_FILENO, bytes, sizeof bytes);
                if (n <= 0) keys = false;  // the terminal went away
                for (ssize_t i = 0; i < n; ++i) press(decoder.feed(bytes[i]));
            }
            for (Key key : windowKeys_.take()) press(key);
            if (quit && !stopAsked) {
                stopAsked = true;
                commander.post(Commander::Command::kStop);
            }

            int32_t target = 0, position = 0;
            while (commander.takeSeekAnswer(&target, &position)) {
                if (target != status_.seekTargetMs) continue;  // a later seek is under way
                status_.seekTargetMs = -1;
                if (position >= 0) status_.positionMs = position;
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
                        failure_ = velka::tools::explainPlaybackError(url_, status_.errorCode);
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
                if (stage == Commander::Stage::kOpenFailed) {
                    failure_ = velka::tools::explainOpenFailure(url_);
                } else {
                    failure_.reason = "cannot play (error code " +
                                      std::to_string(static_cast<int>(commander.failure())) + ")";
                    failure_.exitStatus = velka::tools::kExitCannotPlay;
                }
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
        return failure_.reason.empty() ? velka::tools::kExitPlayed : failure_.exitStatus;
    }

    const PlayOptions& options_;
    const std::string url_;
    Screen screen_;
    WakePipe wake_;
    Inbox inbox_;
    WindowKeys windowKeys_;
    PlayStatus status_;
    MediaPlayer player_;  // after inbox_: its dispatch thread ends before inbox_ goes
    PlayFailure failure_;
};

}  // namespace

// The library's lines, also those it prints while it is loaded, go to the log
// asked for, or nowhere. VELKA_LOG, when set, wins.
extern "C" void velka_log_setup(void) { velka::tools::holdLibraryLines(); }

int main(int argc, char** argv) {
    const PlayOptions o = velka::tools::parsePlayOptions(argc, argv);
    if (o.help) {
        fputs(kUsage, stdout);
        return 0;
    }
    if (o.version) {
        printf("velka-play %s\n", VELKA_VERSION);
        return 0;
    }
    if (o.error != nullptr) {
        fprintf(stderr, "velka-play: %s%s%s (velka-play --help tells more)\n", o.error,
                o.errorArg != nullptr ? ": " : "", o.errorArg != nullptr ? o.errorArg : "");
        return velka::tools::kExitUsage;
    }
    // The log stays open until the process ends: the library prints at exit too.
    FILE* log = o.logPath != nullptr ? fopen(o.logPath, "we") : nullptr;
    if (o.logPath != nullptr && log == nullptr) {
        fprintf(stderr, "velka-play: warning: cannot write the log %s: %s; playing without it\n",
                o.logPath, strerror(errno));
    }
    velka::tools::routeLibraryLines(log);
    // The software engine reads its speed from the environment when it
    // first plays, after this.
    if (o.speed != nullptr && setenv("MTKPB_SPEED", o.speed, 1) != 0) {
        fprintf(stderr, "velka-play: cannot apply --speed %s: %s\n", o.speed, strerror(errno));
        return velka::tools::kExitUsage;
    }

    // Sound only: the software engine reads this when it starts presenting.
    if (o.noVideo && setenv("MTKPB_VIDEO", "off", 1) != 0) {
        fprintf(stderr, "velka-play: cannot apply --no-video: %s\n", strerror(errno));
        return velka::tools::kExitUsage;
    }
    if (o.libraryHttp) velka::FileFactory::useLibraryNetworkStack();

    int status;
    {
        PlayApp app(o, stdout);
        status = app.run();
    }
    fflush(nullptr);
    return status;
}
