// velka-bench-play: playback figures for a 20 Mbit/s clip played from a local
// file through velka::MediaPlayer on the software playback engine: open
// latency, time-seek latency, process CPU at real-time speed, the highest
// feed rate when the engine pulls as fast as it can, wakeups of the idle
// process, and peak memory; then the cost of decoding and presenting a
// 640x360 and a 1280x720 H.264 clip at 1x beside `ffmpeg -i CLIP -f null -`
// decoding the same clip in the same run, and the share of pictures dropped.
// Figures are printed, never judged.

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cinttypes>
#include <condition_variable>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "IMtkPb_Ctrl.h"
#include "LibraryLog.h"
#include "mtkpb_control.h"
#include "velka/MediaPlayer.h"

namespace {

using velka::MediaPlayer;
using Clock = std::chrono::steady_clock;

constexpr int kClipSeconds = 20;
constexpr int kOpenRuns = 5;
constexpr int kFeedRuns = 3;
// Seek targets, in ms, alternating back and forth across the clip.
constexpr int kSeekTargetsMs[] = {15000, 3000, 18000, 6000, 12000, 1000, 9000};
// The CPU window at 1x, after a second of settling.
constexpr int kCpuWindowSeconds = 10;
// The window in which idle wakeups are counted.
constexpr int kIdleWindowSeconds = 4;
// The H.264 clips decoded and presented, and their length.
constexpr const char* kPresentSizes[] = {"640x360", "1280x720"};
constexpr int kPresentClipSeconds = 10;
// Bound on every wait for the player or the engine.
constexpr uint32_t kWaitMs = 120000;

const char kUsage[] =
    "Usage: velka-bench-play [--log FILE] [CLIP]\n"
    "\n"
    "Plays CLIP (a local media file; without it a 20 s, 20 Mbit/s 1080p MPEG-2\n"
    "transport stream is generated with ffmpeg in /tmp and removed afterwards)\n"
    "through the velka player on the software playback engine and prints:\n"
    "open latency, timeSeek latency, process CPU while playing at 1x, the\n"
    "highest feed rate when the engine pulls as fast as it can, wakeups of the\n"
    "idle process and peak memory (pictures not decoded: MTKPB_VIDEO=off). Then\n"
    "it generates a 640x360 and a 1280x720 H.264 clip and plays each at 1x,\n"
    "decoded and presented (off screen without a display), beside\n"
    "`ffmpeg -i CLIP -f null -` decoding the same clip: CPU seconds of each, their\n"
    "ratio, and the pictures dropped; once as off screen (the screen composed only\n"
    "when read), once with the screen composed in software and read back for every\n"
    "picture (\"composed\").\n"
    "The library's diagnostic lines go to FILE (default: discarded).\n";

// --- The library's lines away from the figures --------------------------------

}  // namespace

// Also the lines the library prints while it is loaded go to --log FILE, or
// nowhere.
extern "C" void velka_log_setup(void) { velka::tools::holdLibraryLines(); }

namespace {

FILE* const results_ = stdout;

void figure(const char* format, ...) __attribute__((format(printf, 1, 2)));
void figure(const char* format, ...) {
    va_list args;
    va_start(args, format);
    vfprintf(results_, format, args);
    va_end(args);
    fputc('\n', results_);
    fflush(results_);
}

double msSince(Clock::time_point start) {
    return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

// Records the player's state changes and the end of the stream.
class Watcher : public MediaPlayer::Listener {
public:
    void notify(const MediaPlayer::Event& event) override {
        std::lock_guard<std::mutex> lock(mutex_);
        if (event.id == MediaPlayer::kEventStateChanged) {
            states_.push_back(event.param);
            stateTimes_.push_back(Clock::now());
        }
        if (event.id == MediaPlayer::kEventEndOfStream) ended_ = true;
        changed_.notify_all();
    }

    void clear() {
        std::lock_guard<std::mutex> lock(mutex_);
        states_.clear();
        stateTimes_.clear();
        ended_ = false;
    }

    // When the listener heard `state`; false when it did not within kWaitMs.
    bool waitForState(MediaPlayer::State state, Clock::time_point* at) {
        std::unique_lock<std::mutex> lock(mutex_);
        bool heard = changed_.wait_for(lock, std::chrono::milliseconds(kWaitMs), [&] {
            return std::find(states_.begin(), states_.end(), state) != states_.end();
        });
        if (heard) {
            *at = stateTimes_[static_cast<size_t>(
                std::find(states_.begin(), states_.end(), state) - states_.begin())];
        }
        return heard;
    }

private:
    std::mutex mutex_;  // guards everything below
    std::condition_variable changed_;
    std::vector<int32_t> states_;
    std::vector<Clock::time_point> stateTimes_;
    bool ended_ = false;
};

struct Stats {
    double min, median, max;
};

Stats stats(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return {values.front(), values[values.size() / 2], values.back()};
}

double cpuSeconds(int who = RUSAGE_SELF) {
    struct rusage usage;
    getrusage(who, &usage);
    return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

// "VmHWM" (peak resident set) from /proc/self/status, in KiB; -1 if absent.
int64_t peakResidentKiB() {
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);) {
        if (line.compare(0, 6, "VmHWM:") == 0) return std::strtoll(line.c_str() + 6, nullptr, 10);
    }
    return -1;
}

class Bench {
public:
    Bench(const std::string& path, int64_t bytes) : url_("file://" + path), bytes_(bytes) {
        player_.addListener(watcher_);
    }
    ~Bench() { player_.removeListener(watcher_); }

    bool openLatency() {
        std::vector<double> returned, heard, after;
        for (int run = 0; run < kOpenRuns; ++run) {
            watcher_.clear();
            const Clock::time_point start = Clock::now();
            if (player_.open(url_) != velka::kStatusOk) return fail("open");
            returned.push_back(msSince(start));
            Clock::time_point at;
            if (!watcher_.waitForState(MediaPlayer::kStateOpened, &at)) return fail("kStateOpened");
            heard.push_back(std::chrono::duration<double, std::milli>(at - start).count());
            after.push_back(heard.back() - returned.back());
            durationMs_ = player_.duration();
            player_.close();
        }
        const Stats r = stats(returned), h = stats(heard), a = stats(after);
        figure("%-34s %8.1f ms median, %.1f to %.1f ms, %d runs", "open -> opened, open() returns",
               r.median, r.min, r.max, kOpenRuns);
        figure("%-34s %8.1f ms median, %.1f to %.1f ms; %.2f ms median after open() returned",
               "open -> opened, listener hears it", h.median, h.min, h.max, a.median);
        return true;
    }

    bool seekLatency() {
        mtkpb::control::setSpeed(1);
        if (!openAndPlay()) return false;
        std::vector<double> seeks;
        for (int target : kSeekTargetsMs) {
            const Clock::time_point start = Clock::now();
            player_.timeSeek(target);
            seeks.push_back(msSince(start));
        }
        player_.stop();
        player_.close();
        const Stats s = stats(seeks);
        figure("%-34s %8.1f ms median, %.1f to %.1f ms, %zu seeks while playing",
               "timeSeek, call to return", s.median, s.min, s.max, seeks.size());
        return true;
    }

    bool cpuAtRealTime() {
        mtkpb::control::setSpeed(1);
        if (!openAndPlay()) return false;
        // Settle for a second of playback, then measure a window.
        const uint64_t settled = mtkpb::control::notifications(IMTK_PB_CTRL_EVENT_CUR_TIME_UPDATE);
        mtkpb::control::waitUntil(
            [&] {
                return mtkpb::control::notifications(IMTK_PB_CTRL_EVENT_CUR_TIME_UPDATE) >=
                       settled + 4;
            },
            kWaitMs);
        const double cpuStart = cpuSeconds();
        const uint64_t pulledStart = mtkpb::control::counters().bytesPulled;
        const Clock::time_point start = Clock::now();
        const int32_t fromMs = player_.currentPts();
        std::this_thread::sleep_for(std::chrono::seconds(kCpuWindowSeconds));
        const double wallMs = msSince(start);
        const double cpu = cpuSeconds() - cpuStart;
        const int32_t toMs = player_.currentPts();
        const uint64_t pulled = mtkpb::control::counters().bytesPulled - pulledStart;
        player_.stop();
        player_.close();
        figure("%-34s %8.1f %% of one core over %.1f s of media (%.1f s to %.1f s), %.2f MB/s"
               " pulled; library and software engine together",
               "CPU of the process, playing at 1x", cpu * 1000.0 / wallMs * 100.0,
               wallMs / 1000.0, fromMs / 1000.0, toMs / 1000.0,
               static_cast<double>(pulled) / (wallMs / 1000.0) / 1e6);
        return true;
    }

    bool feedRate() {
        mtkpb::control::setSpeed(0);
        std::vector<double> wallMs;
        uint64_t pulled = 0;
        for (int run = 0; run < kFeedRuns; ++run) {
            const uint64_t eos = mtkpb::control::notifications(IMTK_PB_CTRL_EVENT_EOS);
            const uint64_t pulledStart = mtkpb::control::counters().bytesPulled;
            watcher_.clear();
            if (player_.open(url_) != velka::kStatusOk) return fail("open");
            const Clock::time_point start = Clock::now();
            if (player_.play(0) != velka::kStatusOk) return fail("play");
            if (!mtkpb::control::waitForNotifications(IMTK_PB_CTRL_EVENT_EOS, eos + 1, kWaitMs)) {
                return fail("the end of the stream");
            }
            wallMs.push_back(msSince(start));
            pulled = mtkpb::control::counters().bytesPulled - pulledStart;
            player_.stop();
            player_.close();
        }
        const Stats w = stats(wallMs);
        const double bytes = static_cast<double>(bytes_);
        figure("%-34s %8.1f x real time, %.1f MB/s of the file (%.1f s of media played to its end"
               " in %.0f ms, best of %d, median %.0f ms; %" PRIu64 " bytes pulled per run)",
               "feed rate, engine pulling flat out", durationMs_ / w.min,
               bytes / (w.min / 1000.0) / 1e6, durationMs_ / 1000.0, w.min, kFeedRuns, w.median,
               pulled);
        mtkpb::control::setSpeed(1);
        return true;
    }

    // Voluntary context switches of the whole process while the player is
    // closed and nothing plays: the dispatch thread's polls and whatever
    // else wakes up on its own.
    void idleWakeups() {
        struct rusage before, after;
        getrusage(RUSAGE_SELF, &before);
        const Clock::time_point start = Clock::now();
        std::this_thread::sleep_for(std::chrono::seconds(kIdleWindowSeconds));
        const double seconds = msSince(start) / 1000.0;
        getrusage(RUSAGE_SELF, &after);
        figure("%-34s %8.1f per second over %.1f s", "wakeups of the process, idle",
               static_cast<double>(after.ru_nvcsw - before.ru_nvcsw) / seconds, seconds);
    }

    // Plays `clip` at 1x, decoded and presented, to its end; then ffmpeg
    // decodes it as fast as it can. CPU seconds of both.
    // With `composed`, the screen is composed in software and read back for
    // every picture (what off screen happens only when a test reads it).
    bool presentingCost(const std::string& clip, const char* size, bool composed) {
        mtkpb::control::setSpeed(1);
        mtkpb::control::setScreenCapture(composed);
        const std::string url = "file://" + clip;
        const uint64_t eos = mtkpb::control::notifications(IMTK_PB_CTRL_EVENT_EOS);
        const uint64_t droppedStart = mtkpb::control::picturesDropped();
        const size_t shownStart = mtkpb::control::presented().size();
        if (player_.open(url) != velka::kStatusOk) return fail("open");
        const double cpuStart = cpuSeconds();
        const Clock::time_point start = Clock::now();
        if (player_.play(0) != velka::kStatusOk) return fail("play");
        if (!mtkpb::control::waitForNotifications(IMTK_PB_CTRL_EVENT_EOS, eos + 1, kWaitMs)) {
            return fail("the end of the stream");
        }
        const double cpu = cpuSeconds() - cpuStart;
        const double wallS = msSince(start) / 1000.0;
        const uint64_t dropped = mtkpb::control::picturesDropped() - droppedStart;
        const uint64_t shown = mtkpb::control::presented().size() - shownStart;
        player_.stop();
        player_.close();
        mtkpb::control::setScreenCapture(false);

        const double childStart = cpuSeconds(RUSAGE_CHILDREN);
        const std::string command = "ffmpeg -nostdin -hide_banner -loglevel error -i '" + clip + "' -f null -";
        if (system(command.c_str()) != 0) return fail("ffmpeg -f null");
        const double ffmpeg = cpuSeconds(RUSAGE_CHILDREN) - childStart;
        figure("%-34s %6.2f CPU s over %.1f s (%.0f %% of one core); ffmpeg -i CLIP -f null -: %.2f CPU s;"
               " ratio %.2f; %" PRIu64 " of %" PRIu64 " pictures dropped (%.1f %%)",
               (std::string("decode+present 1x, H.264 ") + size + (composed ? " composed" : "")).c_str(),
               cpu, wallS,
               cpu / wallS * 100.0, ffmpeg, cpu / ffmpeg, dropped, dropped + shown,
               100.0 * static_cast<double>(dropped) / static_cast<double>(std::max<uint64_t>(1, dropped + shown)));
        return true;
    }

    void memory() {
        struct rusage usage;
        getrusage(RUSAGE_SELF, &usage);
        figure("%-34s %8.1f MiB resident (VmHWM), ru_maxrss %.1f MiB", "peak memory of the process",
               static_cast<double>(peakResidentKiB()) / 1024.0,
               static_cast<double>(usage.ru_maxrss) / 1024.0);
    }

private:
    bool openAndPlay() {
        watcher_.clear();
        if (player_.open(url_) != velka::kStatusOk) return fail("open");
        if (player_.play(0) != velka::kStatusOk) return fail("play");
        return true;
    }

    bool fail(const char* what) {
        fprintf(stderr, "velka-bench-play: %s of %s failed\n", what, url_.c_str());
        player_.close();
        return false;
    }

    const std::string url_;
    const int64_t bytes_;
    int32_t durationMs_ = 0;
    Watcher watcher_;
    MediaPlayer player_;  // after watcher_: its dispatch thread ends first
};

bool generatePresentClip(const std::string& path, const char* size) {
    const std::string seconds = std::to_string(kPresentClipSeconds);
    const std::string command =
        std::string("ffmpeg -nostdin -hide_banner -loglevel error -y") +
        " -f lavfi -i testsrc2=size=" + size + ":rate=25:duration=" + seconds +
        " -f lavfi -i sine=frequency=440:sample_rate=48000:duration=" + seconds +
        " -c:v libx264 -preset veryfast -g 50 -pix_fmt yuv420p -c:a aac -ac 2 '" + path + "'";
    return system(command.c_str()) == 0;
}

bool generateClip(const std::string& path) {
    const std::string seconds = std::to_string(kClipSeconds);
    const std::string command =
        "ffmpeg -nostdin -hide_banner -loglevel error -y"
        " -f lavfi -i testsrc2=size=1920x1080:rate=25:duration=" + seconds +
        " -f lavfi -i sine=frequency=440:sample_rate=48000:duration=" + seconds +
        " -c:v mpeg2video -b:v 20M -minrate 20M -maxrate 20M -bufsize 20M -g 25"
        " -c:a mp2 -b:a 192k -f mpegts '" + path + "'";
    return system(command.c_str()) == 0;
}

}  // namespace

int main(int argc, char** argv) {
    std::string clip;
    const char* logPath = nullptr;
    for (int i = 1; i < argc; ++i) {
        if (strcmp(argv[i], "--log") == 0 && i + 1 < argc) {
            logPath = argv[++i];
        } else if (argv[i][0] == '-' || !clip.empty()) {
            fputs(kUsage, strcmp(argv[i], "--help") == 0 ? results_ : stderr);
            return strcmp(argv[i], "--help") == 0 ? 0 : 2;
        } else {
            clip = argv[i];
        }
    }

    FILE* log = nullptr;
    if (logPath != nullptr && (log = fopen(logPath, "we")) == nullptr) {
        fprintf(stderr, "velka-bench-play: cannot write the log %s: %s\n", logPath, strerror(errno));
        return 2;
    }
    velka::tools::routeLibraryLines(log);  // open until the process ends

    char pattern[] = "/tmp/velka-bench-play-XXXXXX";
    if (mkdtemp(pattern) == nullptr) {
        fprintf(stderr, "velka-bench-play: cannot make a folder in /tmp\n");
        return 1;
    }
    const std::string dir = pattern;
    if (clip.empty()) {
        clip = dir + "/clip-20mbit.ts";
        fprintf(stderr, "velka-bench-play: generating a %d s 20 Mbit/s clip with ffmpeg\n",
                kClipSeconds);
        if (!generateClip(clip)) {
            fprintf(stderr, "velka-bench-play: ffmpeg could not make %s\n", clip.c_str());
            return 1;
        }
    }
    if (clip[0] != '/') {
        char cwd[4096];
        if (getcwd(cwd, sizeof cwd) != nullptr) clip = std::string(cwd) + "/" + clip;
    }
    struct stat st;
    if (stat(clip.c_str(), &st) != 0) {
        fprintf(stderr, "velka-bench-play: no such file %s\n", clip.c_str());
        return 1;
    }

    int status = 0;
    {
        Bench bench(clip, static_cast<int64_t>(st.st_size));
        figure("clip %s: %.1f MB", clip.c_str(), static_cast<double>(st.st_size) / 1e6);
        // The library's own figures: the pictures of the 1080p clip are not
        // decoded (the sound is), so that decoding does not swamp them.
        setenv("MTKPB_VIDEO", "off", 1);
        bool ok = bench.openLatency() && bench.seekLatency() && bench.cpuAtRealTime() &&
                  bench.feedRate();
        if (ok) bench.idleWakeups();
        unsetenv("MTKPB_VIDEO");
        for (const char* size : kPresentSizes) {
            const std::string path = dir + "/h264-" + size + ".mp4";
            if (!ok) break;
            fprintf(stderr, "velka-bench-play: generating a %d s %s H.264 clip with ffmpeg\n",
                    kPresentClipSeconds, size);
            ok = generatePresentClip(path, size) && bench.presentingCost(path, size, false) &&
                 bench.presentingCost(path, size, true);
        }
        bench.memory();
        status = ok ? 0 : 1;
    }
    {
        const std::string command = "rm -rf '" + dir + "'";
        if (system(command.c_str()) != 0) status = 1;
    }
    fflush(nullptr);
    return status;
}
