// velka-bench-http: the HTTP source measured beside what a user would pick
// otherwise, on the same machine in the same run. It starts its own nginx on
// 127.0.0.1, generates what it reads, and prints each figure beside its
// comparison as the median of several interleaved runs with min and max:
//   1. throughput of a 1 GiB file: HttpFile's chained 256 KiB reads against
//      `curl -s -o /dev/null` (MB/s, CPU seconds per GiB of the process);
//   2. a player's seeks: libavformat demuxing three clips through HttpFile
//      (a custom I/O context, the way the software engine reads) against
//      libavformat's own HTTP reader, same seek trace (requests, body bytes
//      sent, wall time);
//   3. 1, 4 and 16 streams at once on the one worker (aggregate MB/s, CPU
//      s/GiB, resident memory per stream);
//   4. the worker's wakeups per second with 4 streams whose rings are full
//      and whose readers are idle;
//   5. an HLS playlist: libavformat demuxing it through HlsFile (a custom I/O
//      context) against FFmpeg's own HLS demuxer, from open to the first
//      packet (wall time, requests made).
// Nothing is judged; it prints.

extern "C" {
#include <libavformat/avformat.h>
#include <libavutil/avutil.h>
}

#include <dirent.h>
#include <fcntl.h>
#include <malloc.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cinttypes>
#include <condition_variable>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "../tests/support/NginxServer.h"
#include "BenchFigures.h"
#include "LibraryLog.h"
#include "velka/HlsFile.h"
#include "velka/HttpFile.h"

namespace {

using velka::File;
using velka::HttpFile;
using velka::VelkaStatus;
using Clock = std::chrono::steady_clock;
using velka::tools::figure;
using velka::tools::kReadAfterSeekSeconds;
using velka::tools::kSeekTargets;
using velka::tools::say;
using velka::tools::seconds;
using velka::tools::stats;

constexpr uint32_t kBlock = 256 * 1024;

struct Settings {
    int runs = 5;
    uint64_t throughputBytes = 1ull << 30;
    uint64_t scaleBytesPerStream = 256ull << 20;
    int clipSeconds = 60;
    int idleSeconds = 10;
    std::string logPath;  // empty: the library's lines are discarded
    std::string only;     // one part by name; empty: all
};

const char kUsage[] =
    "Usage: velka-bench-http [--quick] [--runs N] [--only PART] [--log FILE]\n"
    "\n"
    "Starts nginx on 127.0.0.1, generates its files and clips (ffmpeg) in /tmp,\n"
    "and prints the HTTP source's figures beside curl's and libavformat's own\n"
    "HTTP reader's: throughput, a player's seek trace on three clips, 1/4/16\n"
    "streams at once, and the worker's idle wakeups. Each figure is the median\n"
    "of N interleaved runs (default 5) with min and max. --quick uses smaller\n"
    "files and shorter clips (for a smoke run, not for figures). --only runs\n"
    "one part: throughput, seeks, scale, idle or hls. The library's diagnostic\n"
    "lines go to FILE (default: discarded).\n";

double cpuSecondsOfProcess() {
    struct rusage usage;
    getrusage(RUSAGE_SELF, &usage);
    return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

// A "Key:   N kB" line of /proc/self/status, in bytes.
int64_t statusBytes(const char* key) {
    std::ifstream in("/proc/self/status");
    const std::string prefix = std::string(key) + ":";
    for (std::string line; std::getline(in, line);) {
        if (line.compare(0, prefix.size(), prefix) == 0) {
            return std::atoll(line.c_str() + prefix.size()) * 1024;
        }
    }
    return -1;
}


// --- Reading through HttpFile ---------------------------------------------------------

// Reads a file to its end, each request issued from the completion of the one
// before, the way the playback engine pulls.
class ChainedRead : public File::AsyncCallback {
public:
    explicit ChainedRead(File& file) : file_(file), buffer_(kBlock) {}

    void start() {
        if (file_.readAsync(buffer_.data(), kBlock, *this) == nullptr) finish(false);
    }
    void complete(VelkaStatus status, uint32_t length) override {
        bytes_ += length;
        if (status != velka::kStatusOk || length == 0) {
            finish(status == velka::kStatusEndOfFile || status == velka::kStatusOk);
            return;
        }
        if (file_.readAsync(buffer_.data(), kBlock, *this) == nullptr) finish(false);
    }
    // False when it failed or did not end within `limit`.
    bool wait(std::chrono::seconds limit) {
        std::unique_lock<std::mutex> lock(mutex_);
        return done_cv_.wait_for(lock, limit, [this] { return done_; }) && ok_;
    }
    uint64_t bytes() const { return bytes_; }

private:
    void finish(bool ok) {
        std::lock_guard<std::mutex> lock(mutex_);
        ok_ = ok;
        done_ = true;
        done_cv_.notify_all();
    }

    File& file_;
    std::vector<char> buffer_;
    std::atomic<uint64_t> bytes_{0};
    std::mutex mutex_;
    std::condition_variable done_cv_;
    bool done_ = false;
    bool ok_ = false;
};

// N files of `url` read at once to their ends, the opens included. Wall
// seconds, or -1; the process's CPU seconds go to *cpu.
double readStreams(const std::string& url, int streams, uint64_t expectBytes, double* cpu) {
    const double cpuBefore = cpuSecondsOfProcess();
    const Clock::time_point start = Clock::now();
    std::vector<std::unique_ptr<HttpFile>> files;
    std::vector<std::unique_ptr<ChainedRead>> readers;
    for (int i = 0; i < streams; ++i) {
        files.emplace_back(new HttpFile(url));
        if (files.back()->open() != 0) return -1;
        readers.emplace_back(new ChainedRead(*files.back()));
    }
    for (auto& r : readers) r->start();
    bool ok = true;
    for (auto& r : readers) ok = r->wait(std::chrono::seconds(600)) && r->bytes() == expectBytes && ok;
    const double wall = seconds(Clock::now() - start);
    for (auto& f : files) f->close();
    *cpu = cpuSecondsOfProcess() - cpuBefore;
    if (!ok) _exit(3);  // requests may still be outstanding on the readers
    return wall;
}

// `curl -s -o /dev/null URL`: wall seconds, or -1; its CPU seconds to *cpu.
double runCurl(const std::string& url, double* cpu) {
    const Clock::time_point start = Clock::now();
    const pid_t pid = fork();
    if (pid == 0) {
        execlp("curl", "curl", "-s", "-o", "/dev/null", url.c_str(), static_cast<char*>(nullptr));
        _exit(127);
    }
    int status = 0;
    struct rusage usage;
    if (pid < 0 || wait4(pid, &status, 0, &usage) != pid) return -1;
    const double wall = seconds(Clock::now() - start);
    *cpu = static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
    return WIFEXITED(status) && WEXITSTATUS(status) == 0 ? wall : -1;
}

bool writePattern(const std::string& path, uint64_t size) {
    std::ofstream out(path, std::ios::binary);
    std::vector<char> chunk(1 << 20);
    uint32_t x = 0x9e3779b9u;
    for (uint64_t written = 0; out && written < size; written += chunk.size()) {
        for (char& c : chunk) {
            x ^= x << 13;
            x ^= x >> 17;
            x ^= x << 5;
            c = static_cast<char>(x);
        }
        out.write(chunk.data(), static_cast<std::streamsize>(std::min<uint64_t>(chunk.size(), size - written)));
    }
    return static_cast<bool>(out);
}

// --- 1. Throughput ----------------------------------------------------------------------

bool throughput(const testing_support::NginxServer& server, const Settings& s) {
    if (!writePattern(server.rootFile("throughput.bin"), s.throughputBytes)) return false;
    const std::string url = server.url("throughput.bin");
    const double gib = static_cast<double>(s.throughputBytes) / (1 << 30);
    std::vector<double> ourRate, ourCpu, curlRate, curlCpu;
    for (int run = 0; run < s.runs; ++run) {
        double cpu = 0;
        const double wall = readStreams(url, 1, s.throughputBytes, &cpu);
        double cCpu = 0;
        const double cWall = runCurl(url, &cCpu);
        if (wall <= 0 || cWall <= 0) return false;
        ourRate.push_back(static_cast<double>(s.throughputBytes) / wall / 1e6);
        ourCpu.push_back(cpu / gib);
        curlRate.push_back(static_cast<double>(s.throughputBytes) / cWall / 1e6);
        curlCpu.push_back(cCpu / gib);
    }
    say("1. throughput, %.0f MiB in 256 KiB chained reads, %d runs", gib * 1024, s.runs);
    say("   %-30s %s MB/s   %s CPU s/GiB", "HttpFile", figure(ourRate, 7, 1).c_str(),
        figure(ourCpu, 5, 2).c_str());
    say("   %-30s %s MB/s   %s CPU s/GiB", "curl -s -o /dev/null", figure(curlRate, 7, 1).c_str(),
        figure(curlCpu, 5, 2).c_str());
    say("   ratio HttpFile/curl: throughput %.2f, CPU per GiB %.2f",
        stats(ourRate).median / stats(curlRate).median, stats(ourCpu).median / stats(curlCpu).median);
    return true;
}

// --- 2. A player's seeks -------------------------------------------------------------------

// Opens `url` (through HttpFile when `viaHttpFile`, else libavformat's own
// reader), seeks to kSeekTargets stratified times in shuffled order and
// reads kReadAfterSeekSeconds of packets after each. False on failure.
bool seekTrace(const std::string& url, bool viaHttpFile) {
    std::unique_ptr<HttpFile> file;
    AVFormatContext* ctx = avformat_alloc_context();
    AVIOContext* io = nullptr;
    if (viaHttpFile) {
        file.reset(new HttpFile(url));
        if (file->open() != 0) return false;
        const int ioSize = 32 * 1024;
        unsigned char* ioBuffer = static_cast<unsigned char*>(av_malloc(ioSize));
        io = avio_alloc_context(ioBuffer, ioSize, 0, file.get(), &velka::tools::readFile, nullptr, &velka::tools::seekFile);
        ctx->pb = io;
    }
    bool ok = avformat_open_input(&ctx, viaHttpFile ? nullptr : url.c_str(), nullptr, nullptr) == 0 &&
              avformat_find_stream_info(ctx, nullptr) >= 0 && ctx->duration > 0;
    if (ok) {
        const std::vector<int64_t> targets = velka::tools::traceTargets(ctx->duration);
        AVPacket* packet = av_packet_alloc();
        for (int64_t target : targets) {
            if (av_seek_frame(ctx, -1, target, AVSEEK_FLAG_BACKWARD) < 0) {
                ok = false;
                break;
            }
            const int64_t until = target + static_cast<int64_t>(kReadAfterSeekSeconds * AV_TIME_BASE);
            for (int n = 0; n < 100000 && av_read_frame(ctx, packet) >= 0; ++n) {
                const AVStream* st = ctx->streams[packet->stream_index];
                const int64_t pts = packet->pts == AV_NOPTS_VALUE ? packet->dts : packet->pts;
                const bool past = pts != AV_NOPTS_VALUE &&
                                  av_rescale_q(pts, st->time_base, AV_TIME_BASE_Q) >= until;
                av_packet_unref(packet);
                if (past) break;
            }
        }
        av_packet_free(&packet);
    }
    avformat_close_input(&ctx);
    if (io != nullptr) {
        av_freep(&io->buffer);
        avio_context_free(&io);
    }
    if (file) file->close();
    return ok;
}

bool makeClips(const std::string& dir, int clipSeconds) {
    const std::string d = std::to_string(clipSeconds);
    const std::string base = "ffmpeg -nostdin -hide_banner -loglevel error -y ";
    const std::string encode = base + "-f lavfi -i testsrc2=size=1280x720:rate=25:duration=" + d +
                               " -f lavfi -i sine=frequency=440:sample_rate=48000:duration=" + d +
                               " -c:v mpeg4 -b:v 5M -minrate 5M -maxrate 5M -bufsize 2M -g 50"
                               " -c:a aac -b:a 128k '" + dir + "/index-at-end.mp4'";
    const std::string front = base + "-i '" + dir + "/index-at-end.mp4' -c copy -movflags +faststart '" +
                              dir + "/index-at-front.mp4'";
    const std::string ts = base + "-i '" + dir + "/index-at-end.mp4' -c copy -f mpegts '" + dir +
                           "/clip.ts'";
    return system(encode.c_str()) == 0 && system(front.c_str()) == 0 && system(ts.c_str()) == 0;
}

bool seeks(const testing_support::NginxServer& server, const Settings& s) {
    say("2. a player's seeks: open, %d stratified seeks in shuffled order, %.0f s of packets "
        "after each; %d runs",
        kSeekTargets, kReadAfterSeekSeconds, s.runs);
    const std::string dir = server.rootFile("");
    if (!makeClips(dir, s.clipSeconds)) return false;
    for (const char* clip : {"index-at-end.mp4", "index-at-front.mp4", "clip.ts"}) {
        std::ifstream size(server.rootFile(clip), std::ios::binary | std::ios::ate);
        say("   %s (%.1f MB, %d s):", clip, static_cast<double>(size.tellg()) / 1e6, s.clipSeconds);
        std::vector<double> requests[2], bytes[2], wall[2];
        for (int run = 0; run < s.runs; ++run) {
            for (int reader = 0; reader < 2; ++reader) {
                const size_t before = server.requests().size();
                const Clock::time_point start = Clock::now();
                if (!seekTrace(server.url(clip), reader == 0)) return false;
                wall[reader].push_back(seconds(Clock::now() - start));
                // Requests are logged when they end; every connection is closed by now.
                const auto logged = server.waitForRequests(before + 1);
                double sent = 0;
                for (size_t i = before; i < logged.size(); ++i) sent += static_cast<double>(logged[i].bodyBytes);
                requests[reader].push_back(static_cast<double>(logged.size() - before));
                bytes[reader].push_back(sent / 1e6);
            }
        }
        const char* names[2] = {"HttpFile", "libavformat's HTTP reader"};
        for (int reader = 0; reader < 2; ++reader) {
            say("     %-27s %s requests  %s MB sent  %s s", names[reader],
                figure(requests[reader], 4, 0).c_str(), figure(bytes[reader], 6, 1).c_str(),
                figure(wall[reader], 5, 2).c_str());
        }
        say("     ratio HttpFile/libavformat: requests %.2f, bytes %.2f, time %.2f",
            stats(requests[0]).median / stats(requests[1]).median,
            stats(bytes[0]).median / stats(bytes[1]).median, stats(wall[0]).median / stats(wall[1]).median);
    }
    return true;
}

// --- 5. HLS: open to the first packet ---------------------------------------------------

// Opens the playlist `url` (through HlsFile when `viaHlsFile`, else FFmpeg's
// own HLS demuxer), probes it and reads its first packet. False on failure.
bool hlsFirstPacket(const std::string& url, bool viaHlsFile) {
    std::unique_ptr<velka::HlsFile> file;
    AVFormatContext* ctx = avformat_alloc_context();
    AVIOContext* io = nullptr;
    if (viaHlsFile) {
        file.reset(new velka::HlsFile(url));
        if (file->open() != 0) return false;
        const int ioSize = 32 * 1024;
        unsigned char* ioBuffer = static_cast<unsigned char*>(av_malloc(ioSize));
        io = avio_alloc_context(ioBuffer, ioSize, 0, file.get(), &velka::tools::readFile, nullptr, &velka::tools::seekFile);
        ctx->pb = io;
    }
    AVPacket* packet = av_packet_alloc();
    const bool ok = avformat_open_input(&ctx, viaHlsFile ? nullptr : url.c_str(), nullptr, nullptr) == 0 &&
                    avformat_find_stream_info(ctx, nullptr) >= 0 && av_read_frame(ctx, packet) >= 0;
    av_packet_free(&packet);
    avformat_close_input(&ctx);
    if (io != nullptr) {
        av_freep(&io->buffer);
        avio_context_free(&io);
    }
    if (file) file->close();
    return ok;
}

bool hls(const testing_support::NginxServer& server, const Settings& s) {
    say("5. HLS: open, probe and the first packet of a VOD playlist (master of two MPEG-TS "
        "variants, %d s, 4 s segments); %d runs", s.clipSeconds, s.runs);
    const std::string dir = server.rootFile("hls");
    const std::string d = std::to_string(s.clipSeconds);
    const std::string make = "mkdir -p '" + dir + "' && cd '" + dir + "' && ffmpeg -nostdin -hide_banner "
        "-loglevel error -y -f lavfi -i testsrc2=size=1280x720:rate=25:duration=" + d +
        " -f lavfi -i sine=frequency=440:sample_rate=48000:duration=" + d +
        " -map 0:v -map 1:a -map 0:v -map 1:a -c:v mpeg4 -g 50 -b:v:0 1M -b:v:1 5M -c:a aac -b:a 128k"
        " -f hls -hls_time 4 -hls_playlist_type vod -master_pl_name master.m3u8"
        " -var_stream_map 'v:0,a:0 v:1,a:1' -hls_segment_filename 'v%v_%03d.ts' 'v%v.m3u8'";
    if (system(make.c_str()) != 0) return false;
    std::vector<double> requests[2], wall[2];
    for (int run = 0; run < s.runs; ++run) {
        for (int reader = 0; reader < 2; ++reader) {
            const size_t before = server.requests().size();
            const Clock::time_point start = Clock::now();
            if (!hlsFirstPacket(server.url("hls/master.m3u8"), reader == 0)) return false;
            wall[reader].push_back(seconds(Clock::now() - start) * 1000);
            const auto logged = server.waitForRequests(before + 1);
            requests[reader].push_back(static_cast<double>(logged.size() - before));
        }
    }
    const char* names[2] = {"HlsFile", "FFmpeg's HLS demuxer"};
    for (int reader = 0; reader < 2; ++reader) {
        say("     %-27s %s ms to the first packet  %s requests", names[reader],
            figure(wall[reader], 6, 1).c_str(), figure(requests[reader], 4, 0).c_str());
    }
    say("     ratio HlsFile/FFmpeg: time %.2f, requests %.2f", stats(wall[0]).median / stats(wall[1]).median,
        stats(requests[0]).median / stats(requests[1]).median);
    return true;
}

// Context switches of the thread named `name` in this process, -1 without one.
int64_t contextSwitches(const char* name) {
    DIR* tasks = opendir("/proc/self/task");
    if (tasks == nullptr) return -1;
    int64_t total = -1;
    while (dirent* entry = readdir(tasks)) {
        const std::string dir = std::string("/proc/self/task/") + entry->d_name;
        std::ifstream comm(dir + "/comm");
        std::string comName;
        std::getline(comm, comName);
        if (comName != name) continue;
        std::ifstream status(dir + "/status");
        total = 0;
        for (std::string line; std::getline(status, line);) {
            if (line.find("ctxt_switches:") != std::string::npos) {
                total += std::atoll(line.c_str() + line.find(':') + 1);
            }
        }
    }
    closedir(tasks);
    return total;
}

// Waits until the worker has been still for half a second (every ring full
// and its transfer paused), at most 30 s.
void waitForStillWorker() {
    int64_t last = contextSwitches("HttpTaskThread");
    for (int i = 0; i < 60; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(500));
        const int64_t now = contextSwitches("HttpTaskThread");
        if (now == last) return;
        last = now;
    }
}

// The growth of the resident size with N open streams whose rings are full;
// -1 on failure.
int64_t residentGrowth(const std::string& url, int streams) {
    // The rings of earlier runs stay in the allocator's free memory otherwise.
    malloc_trim(0);
    const int64_t before = statusBytes("VmRSS");
    std::vector<std::unique_ptr<HttpFile>> files;
    for (int i = 0; i < streams; ++i) {
        files.emplace_back(new HttpFile(url));
        if (files.back()->open() != 0) return -1;
    }
    waitForStillWorker();
    const int64_t growth = statusBytes("VmRSS") - before;
    for (auto& f : files) f->close();
    return growth;
}

// --- 3. Scale ----------------------------------------------------------------------------

bool scale(const testing_support::NginxServer& server, const Settings& s) {
    if (!writePattern(server.rootFile("scale.bin"), s.scaleBytesPerStream)) return false;
    const std::string url = server.url("scale.bin");
    say("3. streams at once on the one worker, %.0f MiB each, %d runs",
        static_cast<double>(s.scaleBytesPerStream) / (1 << 20), s.runs);
    double single = 0;
    for (int streams : {1, 4, 16}) {
        std::vector<double> rate, cpu, resident;
        // The resident size is taken with the rings full, in a run of its own.
        for (int run = 0; run < s.runs; ++run) {
            double cpuSeconds = 0;
            const double wall = readStreams(url, streams, s.scaleBytesPerStream, &cpuSeconds);
            if (wall <= 0) return false;
            const double total = static_cast<double>(s.scaleBytesPerStream) * streams;
            rate.push_back(total / wall / 1e6);
            cpu.push_back(cpuSeconds / (total / (1 << 30)));
            const int64_t growth = residentGrowth(url, streams);
            if (growth < 0) return false;
            resident.push_back(static_cast<double>(growth) / streams / (1 << 20));
        }
        if (streams == 1) single = stats(rate).median;
        say("   %2d stream%s %s MB/s aggregate (%.2f of one)  %s CPU s/GiB  %s MiB resident per stream",
            streams, streams == 1 ? " " : "s", figure(rate, 7, 1).c_str(),
            stats(rate).median / single, figure(cpu, 5, 2).c_str(), figure(resident, 5, 1).c_str());
    }
    return true;
}

// --- 4. Idle cost ------------------------------------------------------------------------

bool idle(const testing_support::NginxServer& server, const Settings& s) {
    if (!writePattern(server.rootFile("idle.bin"), 64ull << 20)) return false;
    std::vector<std::unique_ptr<HttpFile>> files;
    for (int i = 0; i < 4; ++i) {
        files.emplace_back(new HttpFile(server.url("idle.bin")));
        if (files.back()->open() != 0) return false;
    }
    waitForStillWorker();
    const int64_t before = contextSwitches("HttpTaskThread");
    std::this_thread::sleep_for(std::chrono::seconds(s.idleSeconds));
    const int64_t after = contextSwitches("HttpTaskThread");
    if (before < 0) return false;
    say("4. idle worker, 4 streams with full rings and idle readers: %.2f wakeups per second "
        "over %d s (HttpTaskThread's context switches)",
        static_cast<double>(after - before) / s.idleSeconds, s.idleSeconds);
    for (auto& f : files) f->close();
    return true;
}

}  // namespace

// Also the lines the library prints while it is loaded go to --log FILE, or
// nowhere.
extern "C" void velka_log_setup(void) { velka::tools::holdLibraryLines(); }

int main(int argc, char** argv) {
    Settings s;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--quick") {
            s.runs = 3;
            s.throughputBytes = 128ull << 20;
            s.scaleBytesPerStream = 32ull << 20;
            s.clipSeconds = 12;
            s.idleSeconds = 2;
        } else if (arg == "--runs" && i + 1 < argc) {
            s.runs = std::max(1, atoi(argv[++i]));
        } else if (arg == "--only" && i + 1 < argc) {
            s.only = argv[++i];
        } else if (arg == "--log" && i + 1 < argc) {
            s.logPath = argv[++i];
        } else {
            fputs(kUsage, arg == "--help" ? stdout : stderr);
            return arg == "--help" ? 0 : 2;
        }
    }
    // The library's lines away from the results.
    FILE* log = nullptr;
    if (!s.logPath.empty() && (log = fopen(s.logPath.c_str(), "we")) == nullptr) {
        fprintf(stderr, "velka-bench-http: cannot write the log %s: %s\n", s.logPath.c_str(),
                strerror(errno));
        return 2;
    }
    velka::tools::routeLibraryLines(log);  // open until the process ends
    av_log_set_level(AV_LOG_QUIET);
    avformat_network_init();

    testing_support::NginxServer server;
    std::string why;
    if (!server.start(&why)) {
        fprintf(stderr, "velka-bench-http: %s\n", why.c_str());
        return 1;
    }
    say("velka-bench-http: nginx on 127.0.0.1:%d, medians of %d interleaved runs [min..max]",
        server.port(), s.runs);
    const std::pair<const char*, std::function<bool()>> parts[] = {
        {"throughput", [&] { return throughput(server, s); }},
        {"seeks", [&] { return seeks(server, s); }},
        {"scale", [&] { return scale(server, s); }},
        {"idle", [&] { return idle(server, s); }},
        {"hls", [&] { return hls(server, s); }},
    };
    for (const auto& part : parts) {
        if (!s.only.empty() && s.only != part.first) continue;
        if (!part.second()) {
            fprintf(stderr, "velka-bench-http: the %s part failed\n", part.first);
            return 1;
        }
    }
    avformat_network_deinit();
    return 0;
}
