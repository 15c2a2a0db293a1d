// velka-play as people run it: the built program on media ffmpeg made for the
// run, without a terminal (one line per state change) and on a pseudo
// terminal (status line, keys, the terminal given back).

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "support/PlayerTestSupport.h"

#ifndef VELKA_PLAY_PATH
#error "VELKA_PLAY_PATH must name the built velka-play"
#endif

namespace {

using velka_test::media;
using Clock = std::chrono::steady_clock;

// Bound on one run of the program; the runs here take a few seconds.
constexpr int kRunTimeoutSeconds = 60;
constexpr auto kWait = std::chrono::seconds(30);

std::string readAll(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
}

std::vector<std::string> lines(const std::string& text) {
    std::vector<std::string> out;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) out.push_back(line);
    return out;
}

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

// The positions, in ms, of the engine's time reports in a log.
std::vector<int> reportedTimes(const std::string& log) {
    std::vector<int> times;
    const std::string tag = "IMTK_PB_CTRL_EVENT_CUR_TIME_UPDATE ";
    for (const std::string& line : lines(log)) {
        if (line.compare(0, tag.size(), tag) == 0) times.push_back(std::stoi(line.substr(tag.size())));
    }
    return times;
}

const std::vector<std::string> kPlayedToTheEnd = {"opening", "opened",  "playing",
                                                  "end of stream", "stopped", "closed"};

struct ToolRun {
    int exitCode = -1;
    std::string out;
    std::string err;
};

class VelkaPlayTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_FALSE(media().dir.empty()) << "ffmpeg could not make the test media";
        char pattern[] = "/tmp/velka-play-test-XXXXXX";
        ASSERT_NE(nullptr, mkdtemp(pattern));
        dir_ = pattern;
    }
    void TearDown() override {
        if (!dir_.empty()) {
            std::string cmd = "rm -rf '" + dir_ + "'";
            EXPECT_EQ(0, system(cmd.c_str()));
        }
    }

    // Runs velka-play with `args` (shell words) in dir_, without a terminal.
    ToolRun velkaPlay(const std::string& args) {
        const std::string out = dir_ + "/stdout", err = dir_ + "/stderr";
        const std::string cmd = "cd '" + dir_ + "' && timeout " +
                                std::to_string(kRunTimeoutSeconds) + " '" VELKA_PLAY_PATH "' " +
                                args + " >'" + out + "' 2>'" + err + "' </dev/null";
        ToolRun run;
        const int status = system(cmd.c_str());
        run.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        run.out = readAll(out);
        run.err = readAll(err);
        return run;
    }

    std::string dir_;
};

TEST_F(VelkaPlayTest, PlainPathPlaysToTheEndAndTheLibrarysLinesGoToTheLog) {
    ASSERT_EQ(0, system(("cp '" + media().mp4 + "' '" + dir_ + "/clip.mp4'").c_str()));
    const ToolRun run = velkaPlay("--speed 0 clip.mp4");
    EXPECT_EQ(0, run.exitCode) << run.out << run.err;
    EXPECT_EQ(kPlayedToTheEnd, stateWords(run.out)) << run.out;
    EXPECT_NE(std::string::npos, run.out.find("stopped 0:06 / 0:06")) << run.out;
    EXPECT_EQ("", run.err);
    // The library's own lines are in the default log, none on the screen.
    const std::string log = readAll(dir_ + "/velka-play.log");
    EXPECT_NE(std::string::npos, log.find("Rpc init OK")) << "the lines printed at load";
    EXPECT_NE(std::string::npos, log.find("create tempfile file://" + dir_ + "/clip.mp4\n"));
    EXPECT_EQ(std::string::npos, run.out.find("MediaPlayerImpl"));
}

TEST_F(VelkaPlayTest, FileUrlPlaysToTheEndWithTheLogWhereAsked) {
    const ToolRun run = velkaPlay("--speed 0 --log elsewhere.log file://" + media().mp4);
    EXPECT_EQ(0, run.exitCode) << run.out << run.err;
    EXPECT_EQ(kPlayedToTheEnd, stateWords(run.out)) << run.out;
    EXPECT_NE(std::string::npos,
              readAll(dir_ + "/elsewhere.log").find("create tempfile file://" + media().mp4));
    EXPECT_NE(0, access((dir_ + "/velka-play.log").c_str(), F_OK));
}

TEST_F(VelkaPlayTest, OtherUrlsGoThroughTheDownloadEngine) {
    const ToolRun run = velkaPlay("--speed 0 dta-test://" + media().mp4);
    EXPECT_EQ(0, run.exitCode) << run.out << run.err;
    EXPECT_EQ(kPlayedToTheEnd, stateWords(run.out)) << run.out;
    EXPECT_NE(std::string::npos, readAll(dir_ + "/velka-play.log").find("dta file"));
}

TEST_F(VelkaPlayTest, MissingFileGivesOneLineNamingTheUrlAndTheCode) {
    const ToolRun run = velkaPlay("--speed 0 missing.mp4");
    EXPECT_EQ(1, run.exitCode);
    EXPECT_EQ((std::vector<std::string>{"velka-play: file://" + dir_ +
                                        "/missing.mp4: cannot open (error code 1)"}),
              lines(run.err));
}

TEST_F(VelkaPlayTest, MediaTheEngineCannotReadFailsToOpen) {
    const ToolRun run = velkaPlay("--speed 0 " + media().garbage);
    EXPECT_EQ(1, run.exitCode);
    EXPECT_EQ((std::vector<std::string>{"velka-play: file://" + media().garbage +
                                        ": cannot open (error code 1)"}),
              lines(run.err));
}

TEST_F(VelkaPlayTest, StartPositionSkipsTheBeginning) {
    // Twice real time: the seek to the start position comes when the engine
    // reports that playback started, long before it could reach second 1.
    const ToolRun run = velkaPlay("--speed 2 --start 4000 " + media().mp4);
    EXPECT_EQ(0, run.exitCode) << run.out << run.err;
    EXPECT_EQ(kPlayedToTheEnd, stateWords(run.out)) << run.out;
    EXPECT_NE(std::string::npos, run.out.find("velka-play: opened 0:04 / 0:06")) << run.out;
    const std::vector<int> times = reportedTimes(readAll(dir_ + "/velka-play.log"));
    ASSERT_FALSE(times.empty());
    for (int t : times) {
        // Seeks land on the key frame at or before the second asked for.
        EXPECT_FALSE(t > 1000 && t < 3000) << "reported " << t << " ms";
    }
    EXPECT_GE(times.back(), 5500);
}

TEST_F(VelkaPlayTest, QuietWritesNothingButErrors) {
    ToolRun run = velkaPlay("--quiet --speed 0 " + media().mp4);
    EXPECT_EQ(0, run.exitCode);
    EXPECT_EQ("", run.out);
    EXPECT_EQ("", run.err);
    run = velkaPlay("--quiet --speed 0 missing.mp4");
    EXPECT_EQ(1, run.exitCode);
    EXPECT_EQ("", run.out);
    EXPECT_EQ(1u, lines(run.err).size()) << run.err;
}

TEST_F(VelkaPlayTest, HelpAndBadUsage) {
    ToolRun run = velkaPlay("--help");
    EXPECT_EQ(0, run.exitCode);
    EXPECT_EQ(0u, run.out.find("Usage: velka-play")) << run.out;
    EXPECT_EQ("", run.err);
    EXPECT_NE(0, access((dir_ + "/velka-play.log").c_str(), F_OK)) << "no log for --help";

    for (const char* args : {"", "--bogus x.mp4", "--start -5 x.mp4", "--start 1s x.mp4",
                             "--speed fast x.mp4", "--speed", "a.mp4 b.mp4"}) {
        run = velkaPlay(args);
        EXPECT_EQ(2, run.exitCode) << args;
        EXPECT_EQ(0u, run.err.find("velka-play: ")) << args << ": " << run.err;
        EXPECT_NE(std::string::npos, run.err.find("Usage: velka-play")) << args;
        EXPECT_EQ("", run.out) << args;
    }

    run = velkaPlay("--log no/such/dir/x.log " + media().mp4);
    EXPECT_EQ(2, run.exitCode);
    EXPECT_EQ((std::vector<std::string>{
                  "velka-play: cannot write the log no/such/dir/x.log: No such file or directory"}),
              lines(run.err));
}

// Waits until `done` holds for the text read so far from `fd`, or `fd`
// ends, or kWait passes. Returns whether `done` held.
bool readUntil(int fd, std::string* text, const std::function<bool(const std::string&)>& done) {
    const Clock::time_point deadline = Clock::now() + kWait;
    while (!done(*text)) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
        if (left <= 0) return false;
        struct pollfd p = {fd, POLLIN, 0};
        if (poll(&p, 1, static_cast<int>(left)) <= 0) continue;
        char buffer[4096];
        const ssize_t n = read(fd, buffer, sizeof buffer);
        if (n <= 0) return done(*text);  // EIO: the program has gone
        text->append(buffer, static_cast<size_t>(n));
    }
    return true;
}

// Exit code of `pid` (128 + N after signal N); waits at most kWait, then
// kills it and gives -1.
int waitExit(pid_t pid) {
    const Clock::time_point deadline = Clock::now() + kWait;
    int status = 0;
    while (waitpid(pid, &status, WNOHANG) == 0) {
        if (Clock::now() > deadline) {
            kill(pid, SIGKILL);
            waitpid(pid, &status, 0);
            return -1;
        }
        struct timespec tick = {0, 20 * 1000 * 1000};
        nanosleep(&tick, nullptr);
    }
    if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// "seen `first`, then later `second`" in the screen text.
bool inOrder(const std::string& text, const std::string& first, const std::string& second) {
    const size_t at = text.find(first);
    return at != std::string::npos && text.find(second, at + first.size()) != std::string::npos;
}

// velka-play on a pseudo terminal: standard input, output and error are the
// terminal, as when a person runs it.
class VelkaPlayTerminalTest : public VelkaPlayTest {
protected:
    void TearDown() override {
        if (master_ != -1) close(master_);
        if (pid_ > 0 && waitpid(pid_, nullptr, WNOHANG) == 0) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
        VelkaPlayTest::TearDown();
    }

    void start(const std::vector<std::string>& args) {
        std::vector<char*> argv;
        std::string program = VELKA_PLAY_PATH;
        argv.push_back(&program[0]);
        std::vector<std::string> copies = args;
        for (std::string& a : copies) argv.push_back(&a[0]);
        argv.push_back(nullptr);
        struct winsize size = {24, 100, 0, 0};
        pid_ = forkpty(&master_, nullptr, nullptr, &size);
        ASSERT_NE(-1, pid_);
        if (pid_ == 0) {
            if (chdir(dir_.c_str()) == 0) execv(argv[0], argv.data());
            _exit(127);
        }
    }

    bool see(const std::function<bool(const std::string&)>& done) {
        return readUntil(master_, &screen_, done);
    }
    bool see(const std::string& text) {
        return see([&](const std::string& s) { return s.find(text) != std::string::npos; });
    }
    // Everything the program writes until it closes the terminal.
    void readToEnd() {
        see([](const std::string&) { return false; });
    }
    void key(const std::string& bytes) {
        ASSERT_EQ(static_cast<ssize_t>(bytes.size()), write(master_, bytes.data(), bytes.size()));
    }

    // Whether the terminal is back in line mode with echo.
    bool terminalRestored() {
        struct termios mode;
        if (tcgetattr(master_, &mode) != 0) return false;
        return (mode.c_lflag & ICANON) && (mode.c_lflag & ECHO);
    }

    pid_t pid_ = -1;
    int master_ = -1;
    std::string screen_;
};

TEST_F(VelkaPlayTerminalTest, PlaysToTheEndWithAStatusLineRedrawnInPlace) {
    start({"--speed", "0", media().mp4});
    readToEnd();
    EXPECT_EQ(0, waitExit(pid_));
    pid_ = -1;
    // The header, then the status line redrawn in place and ended by a newline.
    EXPECT_EQ(0u, screen_.find("velka-play: file://" + media().mp4)) << screen_;
    EXPECT_NE(std::string::npos, screen_.find("\rplaying ")) << screen_;
    const size_t last = screen_.rfind('\r', screen_.size() - 3);
    ASSERT_NE(std::string::npos, last);
    const std::string finalLine = screen_.substr(last);
    EXPECT_NE(std::string::npos, finalLine.find("0:06 / 0:06 [")) << finalLine;
    EXPECT_NE(std::string::npos, finalLine.find("100%  end of stream")) << finalLine;
    EXPECT_EQ("\r\n", screen_.substr(screen_.size() - 2));
    EXPECT_EQ(std::string::npos, screen_.find("MediaPlayerImpl"));
}

TEST_F(VelkaPlayTerminalTest, SpacePausesAndResumesArrowsSeekAndQQuits) {
    start({media().longClip});
    ASSERT_TRUE(see("\rplaying ")) << screen_;
    key(" ");
    ASSERT_TRUE(see("\rpaused ")) << screen_;
    key(" ");
    ASSERT_TRUE(see([](const std::string& s) { return inOrder(s, "\rpaused ", "\rplaying "); }))
        << screen_;
    key("\033[C");  // right: 10 s on, from the first seconds
    ASSERT_TRUE(see([](const std::string& s) { return inOrder(s, "\rseeking ", "\rplaying 0:1"); }))
        << screen_;
    const size_t mark = screen_.size();
    key("\033OD");  // left, as sent in application cursor mode: 10 s back
    ASSERT_TRUE(see([mark](const std::string& s) {
        return inOrder(s.substr(mark), "\rseeking ", "\rplaying 0:0");
    })) << screen_;
    key("q");
    readToEnd();
    EXPECT_EQ(0, waitExit(pid_));
    pid_ = -1;
    EXPECT_NE(std::string::npos, screen_.find("\rclosed ")) << screen_;
    EXPECT_TRUE(terminalRestored());
}

TEST_F(VelkaPlayTerminalTest, CtrlCQuitsCleanlyAndGivesTheTerminalBack) {
    start({media().longClip});
    ASSERT_TRUE(see("\rplaying ")) << screen_;
    EXPECT_FALSE(terminalRestored()) << "keys are read without line mode while playing";
    key("\003");
    readToEnd();
    EXPECT_EQ(128 + SIGINT, waitExit(pid_));
    pid_ = -1;
    EXPECT_TRUE(terminalRestored());
    // Stopped and closed on the way out.
    const std::string log = readAll(dir_ + "/velka-play.log");
    EXPECT_NE(std::string::npos, log.find("MediaPlayerImpl stop state 2")) << log;
    EXPECT_NE(std::string::npos, log.find("IMtkPb_Ctrl_Close end 0")) << log;
}

// The NUL-separated environment of a running process.
std::vector<std::string> environmentOf(pid_t pid) {
    std::vector<std::string> entries;
    std::istringstream in(readAll("/proc/" + std::to_string(pid) + "/environ"));
    for (std::string entry; std::getline(in, entry, '\0');) entries.push_back(entry);
    return entries;
}

TEST_F(VelkaPlayTest, TerminateSignalQuitsCleanlyAndSpeedReachesTheEnvironment) {
    const std::string out = dir_ + "/stdout";
    const pid_t pid = fork();
    ASSERT_NE(-1, pid);
    if (pid == 0) {
        const int fd = open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        const int none = open("/dev/null", O_RDONLY);
        if (fd == -1 || none == -1 || chdir(dir_.c_str()) != 0) _exit(127);
        dup2(none, STDIN_FILENO);
        dup2(fd, STDOUT_FILENO);
        setenv("MTKPB_SPEED", "9", 1);  // --speed wins
        execl(VELKA_PLAY_PATH, VELKA_PLAY_PATH, "--speed", "3", media().longClip.c_str(),
              static_cast<char*>(nullptr));
        _exit(127);
    }
    const Clock::time_point deadline = Clock::now() + kWait;
    while (readAll(out).find("velka-play: playing") == std::string::npos &&
           Clock::now() < deadline) {
        struct timespec tick = {0, 20 * 1000 * 1000};
        nanosleep(&tick, nullptr);
    }
    // The software engine reads its speed factor from there when it loads.
    const std::vector<std::string> env = environmentOf(pid);
    EXPECT_EQ(1, std::count(env.begin(), env.end(), "MTKPB_SPEED=3"));
    EXPECT_EQ(0, std::count(env.begin(), env.end(), "MTKPB_SPEED=9"));

    kill(pid, SIGTERM);
    EXPECT_EQ(128 + SIGTERM, waitExit(pid));
    EXPECT_EQ((std::vector<std::string>{"opening", "opened", "playing", "stopped", "closed"}),
              stateWords(readAll(out)));
}

}  // namespace
