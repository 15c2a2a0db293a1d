// Where the library's diagnostic lines go: a host's function from the moment
// the library loads, a host's stream, nowhere, or what VELKA_LOG names; and a
// switch while the library's threads print loses and repeats no line.
//
// This program routes the lines to its function from velka_log_setup(), as a
// host that wants all of them does. Started again by a test with
// VELKA_TEST_LOG_PLAIN set, it leaves them alone, opens and closes a player
// and exits.

#include <pthread.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "TestSupport.h"
#include "support/PlayerTestSupport.h"
#include "velka/File.h"
#include "velka/FileFactory.h"
#include "velka/Log.h"

namespace {

using testing_support::readAll;
using velka_test::MediaPlayer;
using velka_test::media;

// The lines a function destination received, with the name of the thread
// that printed each. Built on first use, which is while the library loads,
// before this program's own constructors; never destroyed, as the library
// prints until the process ends.
struct Received {
    std::mutex mutex;
    std::vector<std::pair<std::string, std::string>> lines;  // thread name, line
    int timesLeft = 0;  // switches away from this function that have returned
    int late = 0;       // lines whose call overlapped such a switch

    std::vector<std::pair<std::string, std::string>> take() {
        std::lock_guard<std::mutex> lock(mutex);
        std::vector<std::pair<std::string, std::string>> taken;
        taken.swap(lines);
        return taken;
    }
};

// Switches made by SwitchingWhileThreadsPrintLosesAndRepeatsNoLine.
std::atomic<int> switchesMade_{0};

void collect(const char* line, void* context) {
    Received* received = static_cast<Received*>(context);
    int timesLeft;
    {
        std::lock_guard<std::mutex> lock(received->mutex);
        timesLeft = received->timesLeft;
    }
    // Gives a switch on another thread the chance to overtake this line,
    // which it may not: the library holds its log lock until we return. So
    // this waits for the next switch, 100 us at most (a busy wait: a sleep
    // would cost more than the whole test).
    const int switchesBefore = switchesMade_.load();
    const auto until = std::chrono::steady_clock::now() + std::chrono::microseconds(100);
    while (switchesMade_.load() == switchesBefore && std::chrono::steady_clock::now() < until) {
    }
    char name[32] = "";
    pthread_getname_np(pthread_self(), name, sizeof name);
    std::lock_guard<std::mutex> lock(received->mutex);
    received->lines.emplace_back(name, line);
    if (received->timesLeft != timesLeft) received->late++;
}

void markLeft(Received& received) {
    std::lock_guard<std::mutex> lock(received.mutex);
    received.timesLeft++;
}

Received& loadTime() {
    static Received* r = new Received;
    return *r;
}

bool plain() { return getenv("VELKA_TEST_LOG_PLAIN") != nullptr; }

size_t count(const std::string& text, const std::string& what) {
    size_t n = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
    return n;
}

// Opens and closes a player on the test clip: lines from the caller, the
// dispatch thread, the playback thread and the engine's threads.
void openAndClose() {
    MediaPlayer player;
    ASSERT_EQ(velka::kStatusOk, player.open("file://" + media().mp4));
    player.close();
}

TEST(LogTest, EveryLineFromLoadingAndFromTheLibrarysThreadsReachesTheHostsFunction) {
    ASSERT_FALSE(media().dir.empty()) << "ffmpeg could not make the test media";
    {
        // Nothing may arrive on standard output.
        testing_support::StdoutTap tap;
        openAndClose();
        EXPECT_EQ("", tap.text());
    }

    std::map<std::string, std::string> byLine;  // line -> thread
    for (const auto& entry : loadTime().take()) byLine.emplace(entry.second, entry.first);
    EXPECT_EQ(1u, byLine.count("Rpc init OK")) << "the line printed while the library loads";
    EXPECT_EQ("MediaPlayerImpl", byLine["MediaPlayerImpl eventDispatch"]);
    EXPECT_EQ("playbackThread", byLine["IMtkPb_Ctrl_SetEngineParam end"]);
    EXPECT_EQ(1u, byLine.count("!!!!!!!!!!End to open file")) << "lines lose only their line end";
}

// VELKA_LOG, read when the library loads, in a program that makes no choice of
// its own: this one, started again.
TEST(LogTest, TheEnvironmentVariableSendsEveryLineToAFileOrNowhere) {
    ASSERT_FALSE(media().dir.empty()) << "ffmpeg could not make the test media";
    char dirPattern[] = "/tmp/velka-log-env-XXXXXX";
    ASSERT_NE(nullptr, mkdtemp(dirPattern));
    const std::string dir = dirPattern;
    struct Row {
        std::string value;     // of VELKA_LOG; "-" leaves it unset
        bool onStdout;         // the lines, the one printed at load included, on standard output
        bool inFile;           // ... in dir/velka.log
        std::string warning;   // on standard error
    };
    const Row rows[] = {
        {"-", true, false, ""},
        {"", true, false, ""},
        {"off", false, false, ""},
        {dir + "/velka.log", false, true, ""},
        {dir + "/no/such/velka.log", true, false, "velka: cannot open the log " + dir +
                                                      "/no/such/velka.log named by VELKA_LOG"},
    };
    // This test program again; an emulated one through the emulator.
    const std::string self =
        testing_support::kEmulated
            ? testing_support::emulatorCommand() + "'" + testing::internal::GetArgvs()[0] + "'"
            : "'/proc/" + std::to_string(getpid()) + "/exe'";
    for (const Row& row : rows) {
        SCOPED_TRACE("VELKA_LOG=" + row.value);
        const std::string setting = row.value == "-" ? "" : "VELKA_LOG='" + row.value + "' ";
        const std::string command = "VELKA_TEST_LOG_PLAIN=1 VELKA_TEST_MEDIA='" + media().mp4 +
                                    "' " + setting + self +
                                    " --gtest_filter=LogChild.* >'" + dir + "/out' 2>'" +
                                    dir + "/err'";
        std::ofstream(dir + "/velka.log", std::ios::trunc).close();
        const int status = system(command.c_str());
        ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << readAll(dir + "/err");
        const std::string out = readAll(dir + "/out"), file = readAll(dir + "/velka.log");
        for (const std::string line : {"Rpc init OK\n", "MediaPlayerImpl eventDispatch\n",
                                       "IMtkPb_Ctrl_SetEngineParam end\n"}) {
            EXPECT_EQ(row.onStdout ? 1u : 0u, count(out, line)) << line;
            EXPECT_EQ(row.inFile ? 1u : 0u, count(file, line)) << line;
        }
        EXPECT_EQ(row.warning.empty(), readAll(dir + "/err").find("velka: cannot open") ==
                                           std::string::npos) << readAll(dir + "/err");
        if (!row.warning.empty()) {
            EXPECT_NE(std::string::npos, readAll(dir + "/err").find(row.warning));
        }
    }
    EXPECT_EQ(0, system(("rm -rf '" + dir + "'").c_str()));
}

// The program started by the test above.
TEST(LogChild, OpensAndClosesAPlayer) {
    if (!plain()) GTEST_SKIP() << "run by TheEnvironmentVariableSendsEveryLineToAFileOrNowhere";
    MediaPlayer player;
    ASSERT_EQ(velka::kStatusOk, player.open(std::string("file://") + getenv("VELKA_TEST_MEDIA")));
    player.close();
}

// Each line names its number once: "file path is file:///seq/N" from the
// factory. One thread prints them while another moves the lines between two
// functions, a stream and back, and a player plays beside them. A function
// that was left gets nothing more once the switch has returned.
TEST(LogTest, SwitchingWhileThreadsPrintLosesAndRepeatsNoLine) {
    ASSERT_FALSE(media().dir.empty()) << "ffmpeg could not make the test media";
    constexpr int kLines = 4000;
    constexpr int kMaxSwitches = 100000;
    Received first, second;
    FILE* file = tmpfile();
    ASSERT_NE(nullptr, file);

    MediaPlayer player;
    ASSERT_EQ(velka::kStatusOk, player.open("file://" + media().longClip));
    ASSERT_EQ(velka::kStatusOk, player.play(0));
    velka::logToFunction(collect, &first);
    std::atomic<bool> printing{true};
    std::thread printer([&] {
        for (int i = 0; i < kLines; ++i) {
            delete velka::FileFactory::createFile("file:///seq/" + std::to_string(i));
        }
        printing = false;
    });
    int switches = 1;
    for (; printing && switches < kMaxSwitches; ++switches) {
        switch (switches % 3) {
            case 0:
                velka::logToFunction(collect, &first);
                markLeft(second);
                break;
            case 1:
                velka::logToFile(file);
                markLeft(first);
                break;
            default:
                velka::logToFunction(collect, &second);
                break;
        }
        switchesMade_++;
    }
    printer.join();
    player.close();
    velka::logToFunction(collect, &loadTime());
    EXPECT_GT(switches, 10) << "the switches came while the lines were printed";

    std::vector<int> seen;
    const std::string tag = "file path is file:///seq/";
    auto note = [&](const std::string& line) {
        if (line.compare(0, tag.size(), tag) == 0) seen.push_back(std::stoi(line.substr(tag.size())));
    };
    for (Received* r : {&first, &second}) {
        EXPECT_EQ(0, r->late);
        for (const auto& entry : r->take()) note(entry.second);
    }
    rewind(file);
    char buffer[512];
    while (fgets(buffer, sizeof buffer, file) != nullptr) {
        std::string line = buffer;
        if (!line.empty() && line.back() == '\n') line.pop_back();
        note(line);
    }
    fclose(file);
    std::sort(seen.begin(), seen.end());
    std::vector<int> expected(kLines);
    for (int i = 0; i < kLines; ++i) expected[i] = i;
    EXPECT_EQ(expected, seen);
}

}  // namespace

// Routes every line to loadTime() from the first, unless started as the
// plain program.
extern "C" void velka_log_setup(void) {
    if (!plain()) velka::logToFunction(collect, &loadTime());
}
