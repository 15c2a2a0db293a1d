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

#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <condition_variable>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "PlayStatus.h"
#include "PlayTerminal.h"
#include "velka/MediaPlayer.h"

namespace {

using velka::MediaPlayer;
using velka::VelkaStatus;
using velka::tools::Key;
using velka::tools::PlayStatus;
using Clock = std::chrono::steady_clock;

const char kDefaultLog[] = "velka-play.log";
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
    "a local file; any other URL is handed to the library as it is (the download\n"
    "engine built in this tree serves dta-test://PATH).\n"
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

// --- Options and the set-up before the library loads --------------------------
//
// The library starts when it is loaded, before main(): it prints its first
// lines, and the software engine reads its speed factor from the environment
// then. So the log redirection and the speed are set up from the
// executable's preinit array, which runs before any shared library's
// initialisers. The state below is plain data with no constructor, so
// nothing overwrites it after that.

struct Options {
    const char* url;
    int32_t startMs;
    const char* speed;    // decimal digits, or null
    const char* logPath;  // null: kDefaultLog
    bool quiet;
    bool help;
    const char* error;  // bad usage: what is wrong, null when all is well
    const char* errorArg;
};

struct EarlySetup {
    bool ran;
    Options options;
    int outputFd;     // the original standard output, for velka-play's own lines
    int logErrno;     // why the log could not be opened; 0 when it was
    int speedErrno;   // why the speed could not be put in place; 0 when it was
};

EarlySetup early_;

bool isDigits(const char* text) {
    if (*text == '\0') return false;
    for (const char* c = text; *c != '\0'; ++c) {
        if (*c < '0' || *c > '9') return false;
    }
    return true;
}

void parseOptions(int argc, char** argv, Options* o) {
    for (int i = 1; i < argc && o->error == nullptr; ++i) {
        const char* arg = argv[i];
        const bool hasValue = i + 1 < argc;
        if (strcmp(arg, "--help") == 0 || strcmp(arg, "-h") == 0) {
            o->help = true;
        } else if (strcmp(arg, "--quiet") == 0) {
            o->quiet = true;
        } else if (strcmp(arg, "--start") == 0 && hasValue) {
            const char* value = argv[++i];
            errno = 0;
            const long long ms = isDigits(value) ? strtoll(value, nullptr, 10) : -1;
            if (ms < 0 || ms > INT32_MAX || errno != 0) {
                o->error = "bad start position (milliseconds, 0 to 2147483647)";
                o->errorArg = value;
            } else {
                o->startMs = static_cast<int32_t>(ms);
            }
        } else if (strcmp(arg, "--speed") == 0 && hasValue) {
            const char* value = argv[++i];
            errno = 0;
            const unsigned long long factor = isDigits(value) ? strtoull(value, nullptr, 10) : 0;
            if (!isDigits(value) || factor > UINT32_MAX || errno != 0) {
                o->error = "bad speed factor (a whole number, 0 as fast as possible)";
                o->errorArg = value;
            } else {
                o->speed = value;
            }
        } else if (strcmp(arg, "--log") == 0 && hasValue) {
            o->logPath = argv[++i];
        } else if (arg[0] == '-' && arg[1] != '\0') {
            o->error = "unknown or incomplete option";
            o->errorArg = arg;
        } else if (o->url == nullptr) {
            o->url = arg;
        } else {
            o->error = "one URL only; extra";
            o->errorArg = arg;
        }
    }
    if (o->error == nullptr && o->url == nullptr && !o->help) o->error = "no URL given";
}

const char kSpeedVariable[] = "MTKPB_SPEED";

// The value of `name` in `envp`, or null.
const char* findVariable(char** envp, const char* name) {
    const size_t length = strlen(name);
    for (char** entry = envp; entry != nullptr && *entry != nullptr; ++entry) {
        if (strncmp(*entry, name, length) == 0 && (*entry)[length] == '=') return *entry + length + 1;
    }
    return nullptr;
}

// Starts this program again with the speed factor in its environment. The
// C library takes the environment it was started with when it initialises
// itself, after the preinit array, so setenv() here would not last. Returns
// only when the new start failed.
void restartWithSpeed(char** argv, char** envp, const char* speed) {
    size_t count = 0;
    for (char** entry = envp; entry != nullptr && *entry != nullptr; ++entry) ++count;
    char** env = static_cast<char**>(calloc(count + 2, sizeof(char*)));
    const size_t settingSize = sizeof kSpeedVariable + strlen(speed) + 1;
    char* setting = static_cast<char*>(malloc(settingSize));
    if (env == nullptr || setting == nullptr) {
        early_.speedErrno = ENOMEM;
    } else {
        snprintf(setting, settingSize, "%s=%s", kSpeedVariable, speed);
        size_t used = 0;
        for (size_t i = 0; i < count; ++i) {
            if (findVariable(&envp[i], kSpeedVariable) == nullptr) env[used++] = envp[i];
        }
        env[used] = setting;
        execve("/proc/self/exe", argv, env);
        early_.speedErrno = errno;
    }
    free(setting);
    free(env);
}

// Puts the speed factor in place, keeps the original standard output for
// velka-play's own lines and points descriptor 1, where the library prints,
// at the log. Nothing is logged for --help or bad usage. Runs once, from the
// preinit array, or from main() on a C library without one.
void early_setup(int argc, char** argv, char** envp) {
    if (early_.ran) return;
    early_.ran = true;
    Options& o = early_.options;
    parseOptions(argc, argv, &o);
    const bool usable = o.error == nullptr && !o.help;

    if (usable && o.speed != nullptr) {
        const char* current = findVariable(envp, kSpeedVariable);
        if (current == nullptr || strcmp(current, o.speed) != 0) restartWithSpeed(argv, envp, o.speed);
    }

    early_.outputFd = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3);
    if (early_.outputFd == -1) early_.outputFd = STDERR_FILENO;
    const char* target = "/dev/null";
    if (usable) target = o.logPath != nullptr ? o.logPath : kDefaultLog;
    int fd = open(target, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd == -1) {
        early_.logErrno = errno;
        fd = open("/dev/null", O_WRONLY | O_CLOEXEC);
    }
    if (fd != -1) {
        dup2(fd, STDOUT_FILENO);
        close(fd);
    }
}

__attribute__((section(".preinit_array"), used)) void (*const earlySetupEntry_)(int, char**,
                                                                               char**) =
    early_setup;

// --- Talking to the main thread ------------------------------------------------

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

// Runs the player's commands on a thread of its own, in the order posted:
// open and play first, then the keys' commands, stop and close. The main
// thread stays free to draw and to read keys while a command blocks.
class Commander {
public:
    enum class Command { kPause, kBack, kForward, kStop, kClose };
    enum class Stage { kOpening, kOpenFailed, kPlayFailed, kPlaying, kStopped, kClosed };

    Commander(MediaPlayer& player, const std::string& url, int32_t startMs, WakePipe& wake)
        : player_(player), url_(url), startMs_(startMs), wake_(wake) {}

    // Closes the player if that has not happened yet.
    ~Commander() {
        post(Command::kClose);
        if (thread_.joinable()) thread_.join();
    }

    void start() { thread_ = std::thread([this] { run(); }); }

    // After kStop, play is skipped and the keys' commands are dropped.
    void post(Command command) {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            if (command == Command::kStop || command == Command::kClose) stopAsked_ = true;
            commands_.push_back(command);
        }
        changed_.notify_all();
    }

    // The stage reached; the main thread is woken at each change.
    Stage stage() const { return stage_.load(); }
    // The result of the open or play that failed.
    VelkaStatus failure() const { return failure_.load(); }

private:
    bool stopAsked() {
        std::lock_guard<std::mutex> lock(mutex_);
        return stopAsked_;
    }

    void run() {
        const VelkaStatus opened = player_.open(url_);
        if (opened != velka::kStatusOk) {
            failure_ = opened;
            setStage(Stage::kOpenFailed);
            return;
        }
        if (!stopAsked()) {
            const VelkaStatus played = player_.play(startMs_);
            if (played != velka::kStatusOk) {
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

    void execute(Command command) {
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
            static_cast<int64_t>(now) + (command == Command::kForward ? kSeekStepMs : -kSeekStepMs);
        // The engine refuses a position past the end.
        const int32_t duration = player_.duration();
        if (duration > 0 && target > duration) target = duration;
        if (target < 0) target = 0;
        player_.timeSeek(static_cast<int>(target));
    }

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
    std::atomic<VelkaStatus> failure_{velka::kStatusOk};
    std::mutex mutex_;  // guards stopAsked_ and commands_
    std::condition_variable changed_;
    bool stopAsked_ = false;
    std::deque<Command> commands_;
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
    PlayApp(const Options& o, FILE* out)
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
                         options_.logPath != nullptr ? options_.logPath : kDefaultLog);
        }

        player_.addListener(inbox_);
        Commander commander(player_, url_, options_.startMs, wake_);
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

    const Options& options_;
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
    early_setup(argc, argv, environ);
    const Options& o = early_.options;
    FILE* out = fdopen(early_.outputFd, "w");
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
    if (early_.logErrno != 0) {
        fprintf(stderr, "velka-play: cannot write the log %s: %s\n",
                o.logPath != nullptr ? o.logPath : kDefaultLog, strerror(early_.logErrno));
        return 2;
    }
    if (early_.speedErrno != 0) {
        fprintf(stderr, "velka-play: cannot apply --speed %s: %s\n", o.speed,
                strerror(early_.speedErrno));
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
