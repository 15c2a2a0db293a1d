#include "PlayTerminal.h"

#include <signal.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <initializer_list>

namespace velka {
namespace tools {

Key KeyDecoder::feed(uint8_t byte) {
    constexpr uint8_t kEscapeByte = 0x1b;
    switch (stage_) {
        case Stage::kPlain:
            if (byte == kEscapeByte) {
                stage_ = Stage::kEscape;
                return Key::kNone;
            }
            if (byte == ' ') return Key::kPause;
            if (byte == 'q' || byte == 'Q') return Key::kQuit;
            if (byte == '?') return Key::kHelp;
            return Key::kNone;
        case Stage::kEscape:
            if (byte == '[' || byte == 'O') {
                stage_ = Stage::kSequence;
                return Key::kNone;
            }
            // A lone escape: the byte after it stands for itself.
            stage_ = Stage::kPlain;
            return feed(byte);
        case Stage::kSequence:
            // Parameter and intermediate bytes (0x20 to 0x3f) go on; a final
            // byte (0x40 to 0x7e) ends the sequence; anything else breaks it.
            if (byte >= 0x20 && byte <= 0x3f) return Key::kNone;
            stage_ = Stage::kPlain;
            if (byte == 'C') return Key::kForward;
            if (byte == 'D') return Key::kBack;
            if (byte == 'A') return Key::kForwardLong;
            if (byte == 'B') return Key::kBackLong;
            return Key::kNone;
    }
    return Key::kNone;
}

namespace {

// Shared with the signal handlers, which may run on any thread. rawFd_,
// saved_ and rawMode_ are written before raw_ is first set and not after.
int rawFd_ = -1;
struct termios saved_;    // the mode to give back
struct termios rawMode_;  // the mode velka-play reads keys in
std::atomic<bool> raw_{false};  // the terminal is in raw mode now
std::atomic<int> wakeFd_{-1};
std::atomic<int> quitSignal_{0};

// Async-signal-safe; does something only the first time after a change to raw.
void restoreTerminal() {
    if (raw_.exchange(false)) tcsetattr(rawFd_, TCSANOW, &saved_);
}

void restoreAtExit() { restoreTerminal(); }

void on_quit_signal(int signo) {
    const int savedErrno = errno;
    restoreTerminal();
    int none = 0;
    if (!quitSignal_.compare_exchange_strong(none, signo)) {
        // The clean quit is taking too long for the user: leave now.
        _exit(128 + signo);
    }
    const int fd = wakeFd_.load();
    const char byte = 's';
    if (fd != -1 && write(fd, &byte, 1) < 0) {
        // A full pipe already wakes the main loop.
    }
    errno = savedErrno;
}

void on_fatal_signal(int signo) {
    restoreTerminal();
    // Installed with SA_RESETHAND | SA_NODEFER: this takes the default course.
    raise(signo);
}

// Ctrl-Z: give the terminal back for the shell, stop, and take it again when
// continued.
void on_stop_signal(int signo) {
    const int savedErrno = errno;
    const bool wasRaw = raw_.load();
    restoreTerminal();
    struct sigaction deflt = {};
    deflt.sa_handler = SIG_DFL;
    struct sigaction mine;
    sigaction(signo, &deflt, &mine);
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, signo);
    pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
    raise(signo);  // stops here until SIGCONT
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    sigaction(signo, &mine, nullptr);
    if (wasRaw && tcsetattr(rawFd_, TCSANOW, &rawMode_) == 0) raw_ = true;
    errno = savedErrno;
}

void handle(int signo, void (*handler)(int), int flags) {
    struct sigaction action = {};
    action.sa_handler = handler;
    action.sa_flags = flags;
    sigemptyset(&action.sa_mask);
    sigaction(signo, &action, nullptr);
}

}  // namespace

bool enterRawMode(int fd) {
    if (isatty(fd) != 1 || tcgetattr(fd, &saved_) != 0) return false;
    rawMode_ = saved_;
    rawMode_.c_lflag &= static_cast<tcflag_t>(~(ICANON | ECHO));
    rawMode_.c_cc[VMIN] = 1;
    rawMode_.c_cc[VTIME] = 0;
    rawFd_ = fd;
    static bool atExitRegistered = false;
    if (!atExitRegistered) {
        atexit(restoreAtExit);
        atExitRegistered = true;
    }
    if (tcsetattr(fd, TCSANOW, &rawMode_) != 0) return false;
    raw_ = true;
    return true;
}

void leaveRawMode() { restoreTerminal(); }

void installSignalHandlers(int wakeFd) {
    wakeFd_ = wakeFd;
    for (int signo : {SIGINT, SIGTERM, SIGHUP}) handle(signo, on_quit_signal, SA_RESTART);
    for (int signo : {SIGABRT, SIGSEGV, SIGBUS, SIGFPE, SIGILL}) {
        handle(signo, on_fatal_signal, SA_RESETHAND | SA_NODEFER);
    }
    handle(SIGTSTP, on_stop_signal, SA_RESTART);
    handle(SIGPIPE, SIG_IGN, 0);
}

int quitSignal() { return quitSignal_.load(); }

uint32_t terminalColumns(int fd) {
    struct winsize size = {};
    if (ioctl(fd, TIOCGWINSZ, &size) != 0 || size.ws_col == 0) return 80;
    return size.ws_col;
}

}  // namespace tools
}  // namespace velka
