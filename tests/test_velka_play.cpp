// velka-play: how events fold into its status, how its lines read and how
// key bytes decode; then the built program on media ffmpeg made for the run,
// without a terminal (one line per state change) and on a pseudo terminal
// (status line, keys, the terminal given back).

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <string>
#include <vector>

#include "PlayStatus.h"
#include "PlayTerminal.h"
#include "TestSupport.h"
#include "support/NginxServer.h"
#include "support/PlayerTestSupport.h"

#ifndef VELKA_PLAY_PATH
#error "VELKA_PLAY_PATH must name the built velka-play"
#endif

namespace {

using testing_support::lines;
using testing_support::readAll;
using testing_support::ToolRun;
using velka::tools::Key;
using velka::tools::PlayStatus;
using velka::tools::statusLine;
using velka_test::MediaPlayer;
using velka_test::media;
using velka_test::stateEvent;
using Clock = std::chrono::steady_clock;

const std::string::size_type npos = std::string::npos;

// ---------------------------------------------------------------------------
// The status and the keys

TEST(PlayStatusTest, EventsFoldIntoAStatusLineThatNeverWraps) {
    PlayStatus s;
    s.durationMs = 12000;
    EXPECT_TRUE(s.apply(stateEvent(MediaPlayer::kStateOpening)));
    EXPECT_FALSE(s.apply({MediaPlayer::kEventBuffering, 35}));
    EXPECT_EQ("opening   buffering 35%", statusLine(s, 80));
    EXPECT_TRUE(s.apply(stateEvent(MediaPlayer::kStatePlaying)));
    EXPECT_FALSE(s.apply({MediaPlayer::kEventTimeUpdate, 3000}));
    // Buffering shows only during the open or seek it came in.
    EXPECT_EQ("playing 0:03 / 0:12 [#####---------------]  25%", statusLine(s, 80));
    s.apply(stateEvent(MediaPlayer::kStateSeeking));
    EXPECT_EQ(npos, statusLine(s, 80).find("buffering")) << "the old report is gone";
    s.apply({MediaPlayer::kEventBuffering, 90});
    EXPECT_NE(npos, statusLine(s, 80).find("  buffering 90%"));
    EXPECT_FALSE(s.apply({MediaPlayer::kEventError, 5}));
    EXPECT_TRUE(s.apply(stateEvent(MediaPlayer::kStateStopped)));
    EXPECT_EQ("stopped 0:03 / 0:12 [#####---------------]  25%  error 5", statusLine(s, 80));
    // A seek velka-play asked for shows its target until the engine answers.
    s.seekTargetMs = 9000;
    EXPECT_EQ(0u, statusLine(s, 80).find("seeking 0:09 / 0:12 [###############-----]  75%"));
    s.seekTargetMs = -1;
    // The end of the stream shows the whole duration.
    s.apply({MediaPlayer::kEventTimeUpdate, 11700});
    EXPECT_FALSE(s.apply({MediaPlayer::kEventEndOfStream, 0}));
    EXPECT_EQ(12000, s.positionMs);
    EXPECT_NE(npos, statusLine(s, 80).find("100%  end of stream  error 5"));
    // The bar takes what the terminal leaves, 10 to 40 cells; the line never wraps.
    EXPECT_NE(npos, statusLine(s, 200).find("[" + std::string(40, '#') + "]"));
    EXPECT_NE(npos, statusLine(s, 70).find("[" + std::string(10, '#') + "]"));
    for (uint32_t columns : {0u, 1u, 20u, 40u, 80u}) {
        EXPECT_LE(statusLine(s, columns).size(), columns > 0 ? columns - 1 : 0) << columns;
    }
}

TEST(PlayStatusTest, TimesReadAsMinutesOrHoursAndStateLinesNameTheState) {
    for (const auto& t : {std::make_pair(0, "0:00"), {-1, "0:00"}, {9999, "0:09"},
                          {65000, "1:05"}, {3599000, "59:59"}, {3600000, "1:00:00"},
                          {2147483647, "596:31:23"}}) {
        EXPECT_EQ(t.second, velka::tools::formatTime(t.first));
    }
    struct Row {
        MediaPlayer::State state;
        int32_t positionMs, durationMs;
        const char* line;
    };
    for (const Row& row : {Row{MediaPlayer::kStateOpening, 0, 0, "opening"},
                           {MediaPlayer::kStateClosed, 2500, 0, "closed"},  // never opened
                           {MediaPlayer::kStateClosed, 2500, 6000, "closed 0:02 / 0:06"},
                           {MediaPlayer::kStateSeeking, 2500, 0, "seeking 0:02 / -:--"}}) {
        PlayStatus s;
        s.state = row.state;
        s.positionMs = row.positionMs;
        s.durationMs = row.durationMs;
        EXPECT_EQ(row.line, velka::tools::stateLine(s));
    }
}

TEST(KeyDecoderTest, SpaceQQuestionMarkAndBothArrowFormsDecodeAndOtherKeysAreIgnored) {
    const std::pair<std::string, std::vector<Key>> rows[] = {
        {" qQ?", {Key::kPause, Key::kQuit, Key::kQuit, Key::kHelp}},
        {"\033[C\033[D\033OC\033OD", {Key::kForward, Key::kBack, Key::kForward, Key::kBack}},
        // Up, down, F5; a modified right arrow (ESC [ 1 ; 5 C) counts.
        {"\033[A\033OB\033[15~x\r\n\033[1;5C", {Key::kForwardLong, Key::kBackLong, Key::kForward}},
        // A lone escape lets the next key through.
        {"\033q", {Key::kQuit}},
        {"\033\033 ", {Key::kPause}},
    };
    for (const auto& row : rows) {
        velka::tools::KeyDecoder decoder;  // fed a byte at a time, as reads may split them
        std::vector<Key> keys;
        for (char c : row.first) {
            const Key key = decoder.feed(static_cast<uint8_t>(c));
            if (key != Key::kNone) keys.push_back(key);
        }
        EXPECT_EQ(row.second, keys) << ::testing::PrintToString(row.first);
    }
}

// ---------------------------------------------------------------------------
// The program

// Bound on one run of the program; the runs here take a few seconds.
constexpr int kRunTimeoutSeconds = 60;
constexpr auto kWait = std::chrono::seconds(30);

// The state word of each "velka-play: STATE ..." line, and "end of stream".
std::vector<std::string> stateWords(const std::string& out) {
    std::vector<std::string> words;
    const std::string prefix = "velka-play: ";
    for (const std::string& line : lines(out)) {
        if (line.compare(0, prefix.size(), prefix) != 0) continue;
        const std::string rest = line.substr(prefix.size());
        words.push_back(rest == "end of stream" ? rest : rest.substr(0, rest.find(' ')));
    }
    return words;
}

const std::vector<std::string> kPlayedToTheEnd = {"opening", "opened",  "playing",
                                                  "end of stream", "stopped", "closed"};

class VelkaPlayTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_FALSE(media().dir.empty()) << "ffmpeg could not make the test media";
        ASSERT_FALSE(dir_.empty());
    }

    // Runs velka-play with `args` (shell words) in dir_, without a terminal,
    // with `env` (shell assignments) in front.
    ToolRun velkaPlay(const std::string& args, const std::string& env = "") {
        return testing_support::runTool(dir_, VELKA_PLAY_PATH, args, kRunTimeoutSeconds, env);
    }

    std::string log(const std::string& name = "velka-play.log") {
        return readAll(dir_ + "/" + name);
    }

    testing_support::TempDir tempDir_;
    const std::string dir_ = tempDir_.path();
};

// velka-play's own lines on standard error; the engines' helpers (cp, mkdir)
// may add theirs.
std::vector<std::string> ownLines(const std::string& err) {
    std::vector<std::string> own;
    for (const std::string& line : lines(err)) {
        if (line.compare(0, 12, "velka-play: ") == 0) own.push_back(line);
    }
    return own;
}

TEST_F(VelkaPlayTest, PlainPathAndFileUrlPlayToTheEndWithTheLibrarysLinesOnlyInALogAskedFor) {
    ASSERT_EQ(0, system(("cp '" + media().mp4 + "' '" + dir_ + "/clip.mp4'").c_str()));
    ToolRun run = velkaPlay("--speed 0 clip.mp4");
    EXPECT_EQ(0, run.exitCode) << run.out << run.err;
    EXPECT_EQ(kPlayedToTheEnd, stateWords(run.out)) << run.out;
    EXPECT_NE(npos, run.out.find("stopped 0:06 / 0:06")) << run.out;
    EXPECT_EQ("", run.err);
    EXPECT_EQ(npos, run.out.find("Rpc init OK")) << "not even the lines printed at load";
    EXPECT_EQ(npos, run.out.find("MediaPlayerImpl"));
    EXPECT_NE(0, access((dir_ + "/velka-play.log").c_str(), F_OK)) << "no log unless asked";

    // A start position is shown at once and asked of the player (a seek when
    // playback starts); where the engine lands is the player suite's matter.
    run = velkaPlay("--speed 0 --start 4000 --log elsewhere.log file://" + media().mp4);
    EXPECT_EQ(0, run.exitCode) << run.out << run.err;
    EXPECT_EQ(kPlayedToTheEnd, stateWords(run.out)) << run.out;
    EXPECT_NE(npos, run.out.find("velka-play: opened 0:04 / 0:06")) << run.out;
    EXPECT_EQ(0u, log("elsewhere.log").find("Rpc init OK\n")) << "from the line printed at load";
    EXPECT_NE(npos, log("elsewhere.log").find("create tempfile file://" + media().mp4 + "\n"));
    EXPECT_NE(npos, log("elsewhere.log").find("IMTK_PB_CTRL_EVENT_TIMESEEK_DONE"));

    // A log that cannot be written is a warning.
    run = velkaPlay("--speed 0 --log no/such/dir/x.log clip.mp4");
    EXPECT_EQ(0, run.exitCode) << run.out << run.err;
    EXPECT_EQ(kPlayedToTheEnd, stateWords(run.out)) << run.out;
    EXPECT_EQ((std::vector<std::string>{"velka-play: warning: cannot write the log "
                                        "no/such/dir/x.log: No such file or directory; playing "
                                        "without it"}),
              lines(run.err));
}

// --speed wins over the environment: at the speed of the environment the
// long clip would outlast the run's time limit.
TEST_F(VelkaPlayTest, QuietRunOfADownloadUrlWritesNothingAndPlaysToTheEndAtTheSpeedAsked) {
    const ToolRun run =
        velkaPlay("--quiet --speed 0 --log velka-play.log dta-test://" + media().longClip,
                  "MTKPB_SPEED=1");
    EXPECT_EQ(0, run.exitCode) << run.err;
    EXPECT_EQ("", run.out);
    EXPECT_TRUE(ownLines(run.err).empty()) << run.err;
    EXPECT_NE(npos, log().find("dta file")) << "other URLs go through the download engine";
    EXPECT_NE(npos, log().find("IMTK_PB_CTRL_EVENT_EOS"));
}

TEST_F(VelkaPlayTest, FailuresSayWhyWithTheirExitStatus) {
    testing_support::NginxServer server;
    std::string why;
    ASSERT_TRUE(server.start(&why)) << why;
    // A loopback port that nothing listens on: bound, then let go.
    const int probe = socket(AF_INET, SOCK_STREAM, 0);
    struct sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    ASSERT_EQ(0, bind(probe, reinterpret_cast<sockaddr*>(&address), sizeof address));
    ASSERT_EQ(0, getsockname(probe, reinterpret_cast<sockaddr*>(&address), &size));
    close(probe);
    const std::string refused = "http://127.0.0.1:" + std::to_string(ntohs(address.sin_port)) + "/a.mp4";
    ASSERT_EQ(0, mkdir((dir_ + "/folder").c_str(), 0755));
    ASSERT_EQ(0, system(("cp '" + media().garbage + "' '" + dir_ + "/locked.mp4'").c_str()));
    ASSERT_EQ(0, chmod((dir_ + "/locked.mp4").c_str(), 0));

    const std::string file = "file://" + dir_ + "/";
    const std::string help = " (velka-play --help tells more)";
    struct Row {
        std::string args;
        int exitCode;
        std::string line;  // on standard error
    };
    const Row rows[] = {
        {"missing.mp4", 3, file + "missing.mp4: no such file"},
        {"folder", 3, file + "folder: a folder, not a media file"},
        {"locked.mp4", 3, file + "locked.mp4: permission denied"},
        {media().garbage, 1, "file://" + media().garbage + ": not a media file the engine can play"},
        {"ftp://127.0.0.1/a.mp4", 4, "ftp://127.0.0.1/a.mp4: unsupported URL (the download engine cannot open it)"},
        {"'1x://a.mp4'", 4, "1x://a.mp4: unsupported URL"},
        {server.url("/missing.mp4"), 1, server.url("/missing.mp4") + ": the server answered 404 Not Found"},
        {refused, 1, refused + ": network error: Couldn't connect to server"},
        {"", 2, "no URL given" + help},
        {"--bogus a.mp4", 2, "unknown or incomplete option: --bogus" + help},
        {"--start -5 a.mp4", 2, "bad start position (milliseconds, 0 to 2147483647): -5" + help},
        {"--speed fast a.mp4", 2, "bad speed factor (a whole number, 0 as fast as possible): fast" + help},
        {"a.mp4 b.mp4", 2, "one URL only; extra: b.mp4" + help},
    };
    for (const Row& row : rows) {
        if (row.args == "locked.mp4" && geteuid() == 0) continue;  // root reads it anyway
        const ToolRun run = velkaPlay("--quiet " + row.args);
        EXPECT_EQ(row.exitCode, run.exitCode) << row.args;
        EXPECT_EQ(std::vector<std::string>{"velka-play: " + row.line}, ownLines(run.err)) << row.args;
        EXPECT_EQ("", run.out) << row.args;
    }
}

TEST_F(VelkaPlayTest, HelpAndVersionExitZero) {
    ToolRun run = velkaPlay("--help");
    EXPECT_EQ(0, run.exitCode);
    EXPECT_EQ(0u, run.out.find("Usage: velka-play")) << run.out;
    EXPECT_EQ("", run.err);
    run = velkaPlay("--version");
    EXPECT_EQ(0, run.exitCode);
    EXPECT_EQ("velka-play " VELKA_VERSION "\n", run.out);
}

// velka-play on a pseudo terminal: standard input, output and error are the
// terminal, as when a person runs it.
class VelkaPlayTerminalTest : public VelkaPlayTest {
protected:
    void TearDown() override {
        if (pid_ > 0) kill(pid_, SIGKILL);  // a test that failed half-way
        finish();
        VelkaPlayTest::TearDown();
    }

    // Starts velka-play with `args`. Under emulation the emulator's words
    // come first; execve then starts the emulator, which the system can run.
    void start(const std::vector<std::string>& args) {
        std::vector<std::string> words = testing_support::emulatorWords();
        words.push_back(VELKA_PLAY_PATH);
        words.insert(words.end(), args.begin(), args.end());
        std::vector<char*> argv, envp;
        for (std::string& w : words) argv.push_back(&w[0]);
        argv.push_back(nullptr);
        for (char** e = environ; *e != nullptr; ++e) envp.push_back(*e);
        envp.push_back(nullptr);
        struct winsize size = {24, 100, 0, 0};
        screen_.clear();
        pid_ = forkpty(&master_, nullptr, nullptr, &size);
        ASSERT_NE(-1, pid_);
        if (pid_ == 0) {
            if (chdir(dir_.c_str()) == 0) execve(argv[0], argv.data(), envp.data());
            _exit(127);
        }
    }

    // Waits until `done` holds for the screen so far, or the program closes
    // the terminal, or kWait passes. Returns whether `done` held.
    bool see(const std::function<bool(const std::string&)>& done) {
        const Clock::time_point deadline = Clock::now() + kWait;
        while (!done(screen_)) {
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                                  deadline - Clock::now()).count();
            if (left <= 0) return false;
            struct pollfd p = {master_, POLLIN, 0};
            if (poll(&p, 1, static_cast<int>(left)) <= 0) continue;
            char buffer[4096];
            const ssize_t n = read(master_, buffer, sizeof buffer);
            if (n <= 0) return done(screen_);  // EIO: the program has gone
            screen_.append(buffer, static_cast<size_t>(n));
        }
        return true;
    }
    bool see(const std::string& text) {
        return see([&](const std::string& s) { return s.find(text) != npos; });
    }
    // "`first`, then later `second`" on the screen from `from` on.
    bool seeInOrder(const std::string& first, const std::string& second, size_t from = 0) {
        return see([&](const std::string& s) {
            const size_t at = s.find(first, from);
            return at != npos && s.find(second, at + first.size()) != npos;
        });
    }
    void key(const std::string& bytes) {
        ASSERT_EQ(static_cast<ssize_t>(bytes.size()), write(master_, bytes.data(), bytes.size()));
    }

    // Reads the screen to its end; the exit code (128 + N after signal N),
    // or -1 when the program is still running after kWait and is killed.
    int finish() {
        if (pid_ <= 0) return -1;
        see([](const std::string&) { return false; });
        const Clock::time_point deadline = Clock::now() + kWait;
        int status = 0;
        while (waitpid(pid_, &status, WNOHANG) == 0) {
            if (Clock::now() > deadline) {
                kill(pid_, SIGKILL);
                waitpid(pid_, &status, 0);
                status = -1;
                break;
            }
            struct timespec tick = {0, 20 * 1000 * 1000};
            nanosleep(&tick, nullptr);
        }
        pid_ = -1;
        restored_ = terminalRestored();
        close(master_);
        master_ = -1;
        if (status == -1) return -1;
        if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

    // Whether the terminal is in line mode with echo.
    bool terminalRestored() {
        struct termios mode;
        if (tcgetattr(master_, &mode) != 0) return false;
        return (mode.c_lflag & ICANON) && (mode.c_lflag & ECHO);
    }

    pid_t pid_ = -1;
    int master_ = -1;
    std::string screen_;
    bool restored_ = false;  // the terminal mode finish() found
};

// While paused, a seek shows its target at once ("seeking 1:0x"), and the
// position the engine lands on when it has answered, still paused.
TEST_F(VelkaPlayTerminalTest, KeysPauseSeekWhilePausedShowTheKeysResumeAndQuit) {
    start({media().longClip});
    ASSERT_TRUE(see("\rplaying ")) << screen_;
    // The header, within 80 columns, then the status line redrawn in place.
    const std::string header = "velka-play: file://" + media().longClip + "  [? keys, q quit]\r\n";
    EXPECT_EQ(0u, screen_.find(header)) << screen_;
    EXPECT_LE(header.size() - 2, 79u);
    key(" ");
    ASSERT_TRUE(see("\rpaused  0:0")) << screen_;
    key("\033[A");  // up: 60 s on
    ASSERT_TRUE(seeInOrder("\rseeking 1:0", "\rpaused  1:0")) << screen_;
    size_t from = screen_.size();
    key("\033OD");  // left, as sent in application cursor mode: 10 s back
    ASSERT_TRUE(seeInOrder("\rseeking 0:5", "\rpaused  0:5", from)) << screen_;
    from = screen_.size();
    key("\033[B");  // down: 60 s back, to the start
    ASSERT_TRUE(seeInOrder("\rseeking 0:00", "\rpaused  0:00", from)) << screen_;
    key("?");
    ASSERT_TRUE(see("velka-play: keys: space pause, left/right 10 s, up/down 60 s, q quit\r\n"))
        << screen_;
    from = screen_.size();
    key(" ");
    ASSERT_TRUE(see([&](const std::string& s) { return s.find("\rplaying ", from) != npos; }))
        << screen_;
    from = screen_.size();
    key("\033[C");  // right: 10 s on, while playing
    ASSERT_TRUE(seeInOrder("\rseeking 0:1", "\rplaying 0:1", from)) << screen_;
    key("q");
    EXPECT_EQ(0, finish());
    EXPECT_NE(npos, screen_.find("\rclosed ")) << screen_;
    EXPECT_EQ("\r\n", screen_.substr(screen_.size() - 2)) << "the last status line is ended";
    EXPECT_EQ(npos, screen_.find("MediaPlayerImpl"));
    EXPECT_TRUE(restored_);
}

TEST_F(VelkaPlayTerminalTest, QuitSignalsStopAndCloseAndGiveTheTerminalBack) {
    for (int signo : {SIGINT, SIGTERM}) {
        SCOPED_TRACE(signo);
        start({"--log", "velka-play.log", media().longClip});
        ASSERT_TRUE(see("\rplaying ")) << screen_;
        EXPECT_FALSE(terminalRestored()) << "keys are read without line mode while playing";
        if (signo == SIGINT) {
            key("\003");  // Ctrl-C: the terminal raises SIGINT
        } else {
            kill(pid_, SIGTERM);
        }
        EXPECT_EQ(128 + signo, finish());
        EXPECT_TRUE(restored_);
        EXPECT_NE(npos, log().find("MediaPlayerImpl stop state 2")) << log();
        EXPECT_NE(npos, log().find("IMtkPb_Ctrl_Close end 0")) << log();
    }
}

}  // namespace
