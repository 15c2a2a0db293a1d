// velka-cat: reads a source through the library the way the playback engine
// does (each asynchronous read issued from the completion of the one before)
// and prints how many bytes came, how fast, and their MD5 digest. With
// --bench it measures those reads against a plain pread loop (a local file)
// or a plain libcurl transfer (an HTTP URL) instead.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cinttypes>
#include <condition_variable>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <curl/curl.h>

#include "LibraryLog.h"
#include "Md5.h"
#include "velka/File.h"
#include "velka/FileFactory.h"
#include "velka/PpsFile.h"

namespace {

using velka::File;
using velka::VelkaStatus;
using velka::tools::Md5;
using Clock = std::chrono::steady_clock;

constexpr uint32_t kDefaultBlock = 64 * 1024;
constexpr uint32_t kMaxBlock = 256u << 20;  // one buffer of the block size is allocated
// A source that delivers nothing for this long is taken as hung.
constexpr std::chrono::seconds kStallTimeout(120);
// A source that has not got the next bytes yet is asked again after this: the
// peer-to-peer engine's pieces arrive every few milliseconds at useful rates.
constexpr std::chrono::milliseconds kNotYetPause(20);
// Progress redraw: in place on a terminal; a line now and then into a log.
constexpr std::chrono::milliseconds kTerminalRedraw(100);
constexpr std::chrono::seconds kLogRedraw(2);
// The benchmark's generated file, and how often each figure is measured.
constexpr uint64_t kBenchFileBytes = 256ull << 20;
constexpr int kBenchRuns = 3;

const char kUsage[] =
    "Usage: velka-cat [--block N] [--seek OFF]... [--factory] [--quiet] [--log FILE] URL\n"
    "       velka-cat --bench [--log FILE] [URL]\n"
    "\n"
    "Reads URL through the velka library with chained asynchronous reads (each\n"
    "read issued when the one before completes) and prints the byte count, the\n"
    "throughput and the MD5 digest of what was read. URL is file://PATH or a\n"
    "plain path, taken as a local file; http:// and https:// URLs are read\n"
    "through the library's HTTP source (HttpFile), HLS playlists (.m3u8 in the\n"
    "path, or named so by their Content-Type) through HlsFile; pps-test://PATH and\n"
    "pps-test://http://HOST:PORT/PATH are read from the peer-to-peer engine\n"
    "(PpsFile), with its buffering percentage shown while it waits; any other\n"
    "URL is read through the download engine (the engine built in this tree\n"
    "serves dta-test://PATH).\n"
    "\n"
    "  --block N    bytes per read, default 65536; a k or m suffix counts KiB or MiB\n"
    "  --seek OFF   seek to OFF and read from there to the end (OFF < 0 counts back\n"
    "               from the end). Repeat for more segments: they are read in the\n"
    "               order given and the digest covers them one after another, as\n"
    "               if concatenated. Without --seek the whole source is read.\n"
    "  --factory    read http:// and https:// URLs the way the player does, through\n"
    "               FileFactory (the download engine), instead of HttpFile\n"
    "  --quiet      no progress bar on standard error\n"
    "  --log FILE   write the library's own diagnostic lines (one or more per read)\n"
    "               to FILE; '-' leaves them on standard output. By default they\n"
    "               are discarded.\n"
    "  --bench      measure instead: chained asynchronous reads of 64 KiB and\n"
    "               256 KiB against a plain pread loop over the same warm local\n"
    "               file, or against a plain libcurl transfer of the same HTTP\n"
    "               URL, runs interleaved, best of 3 each. Without URL a 256 MiB\n"
    "               file is generated in /tmp and removed afterwards.\n"
    "  --help       this text\n"
    "\n"
    "Results go to standard output, one per line, prefixed \"velka-cat: \":\n"
    "  velka-cat: bytes N\n"
    "  velka-cat: MB/s X        (MB = 10^6 bytes)\n"
    "  velka-cat: md5 HEX\n"
    "Exit status: 0 on success, 1 when the source cannot be opened, sought or\n"
    "read, 2 on bad usage.\n";

struct Options {
    uint32_t block = kDefaultBlock;
    std::vector<int64_t> seeks;
    bool quiet = false;
    bool bench = false;
    bool factory = false;  // http(s) through FileFactory instead of HttpFile
    bool logToStdout = false;
    std::string logPath;  // empty: discard the library's lines
    std::string url;
};

// velka-cat's own result lines.
FILE* const gResults = stdout;

void result(const char* format, ...) __attribute__((format(printf, 1, 2)));

void result(const char* format, ...) {
    fputs("velka-cat: ", gResults);
    va_list args;
    va_start(args, format);
    vfprintf(gResults, format, args);
    va_end(args);
    fputc('\n', gResults);
    fflush(gResults);
}

double seconds(Clock::duration d) {
    return std::chrono::duration<double>(d).count();
}

double megabytesPerSecond(uint64_t bytes, double secs) {
    return secs > 0 ? static_cast<double>(bytes) / secs / 1e6 : 0.0;
}

bool parseSize(const char* text, uint64_t* out) {
    char* end = nullptr;
    errno = 0;
    unsigned long long value = strtoull(text, &end, 10);
    if (errno != 0 || end == text || text[0] == '-' || value > (UINT64_MAX >> 20)) return false;
    if (*end == 'k' || *end == 'K') {
        value <<= 10;
        ++end;
    } else if (*end == 'm' || *end == 'M') {
        value <<= 20;
        ++end;
    }
    if (*end != '\0') return false;
    *out = value;
    return true;
}

bool parseOffset(const char* text, int64_t* out) {
    char* end = nullptr;
    errno = 0;
    long long value = strtoll(text, &end, 10);
    if (errno != 0 || end == text || *end != '\0') return false;
    *out = value;
    return true;
}

// 0 when parsed, -1 after --help, 2 for bad usage.
int parseOptions(int argc, char** argv, Options* o) {
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        const bool hasValue = i + 1 < argc;
        if (arg == "--help" || arg == "-h") {
            fputs(kUsage, stdout);
            return -1;
        } else if (arg == "--block" && hasValue) {
            uint64_t block;
            if (!parseSize(argv[++i], &block) || block == 0 || block > kMaxBlock) {
                fprintf(stderr, "velka-cat: bad block size %s (1 to %" PRIu32 ")\n", argv[i],
                        kMaxBlock);
                return 2;
            }
            o->block = static_cast<uint32_t>(block);
        } else if (arg == "--seek" && hasValue) {
            int64_t offset;
            if (!parseOffset(argv[++i], &offset)) {
                fprintf(stderr, "velka-cat: bad seek offset %s\n", argv[i]);
                return 2;
            }
            o->seeks.push_back(offset);
        } else if (arg == "--log" && hasValue) {
            o->logPath = argv[++i];
            o->logToStdout = o->logPath == "-";
        } else if (arg == "--quiet") {
            o->quiet = true;
        } else if (arg == "--bench") {
            o->bench = true;
        } else if (arg == "--factory") {
            o->factory = true;
        } else if (arg.size() > 1 && arg[0] == '-') {
            fprintf(stderr, "velka-cat: unknown or incomplete option %s\n%s", arg.c_str(), kUsage);
            return 2;
        } else if (o->url.empty()) {
            o->url = arg;
        } else {
            fprintf(stderr, "velka-cat: one URL only\n%s", kUsage);
            return 2;
        }
    }
    if (o->url.empty() && !o->bench) {
        fputs(kUsage, stderr);
        return 2;
    }
    return 0;
}

// Sends the library's lines to the log, or leaves them on standard output
// with '-'; without --log they are dropped. False when the log cannot be
// opened.
bool routeLibraryLines(const Options& o) {
    FILE* log = nullptr;
    if (o.logToStdout) {
        log = stdout;
    } else if (!o.logPath.empty()) {
        log = fopen(o.logPath.c_str(), "we");  // open until the process ends: the library prints at exit too
        if (log == nullptr) {
            fprintf(stderr, "velka-cat: cannot write the log %s: %s\n", o.logPath.c_str(), strerror(errno));
            return false;
        }
    }
    velka::tools::routeLibraryLines(log);
    return true;
}

}  // namespace

// The library's lines, also those it prints while it is loaded, go to the log
// asked for, or nowhere. VELKA_LOG, when set, wins.
extern "C" void velka_log_setup(void) { velka::tools::holdLibraryLines(); }

namespace {

// A plain path is a local file: made absolute and given the file:// prefix.
std::string toUrl(const std::string& arg) {
    if (arg.find("://") != std::string::npos) return arg;
    if (!arg.empty() && arg[0] == '/') return "file://" + arg;
    char cwd[4096];
    if (getcwd(cwd, sizeof cwd) == nullptr) return "file://" + arg;
    return std::string("file://") + cwd + "/" + arg;
}

bool isHttpUrl(const std::string& url) {
    return url.compare(0, 7, "http://") == 0 || url.compare(0, 8, "https://") == 0;
}

// The one place where a URL becomes an open source; null when it cannot be
// opened. The library chooses the source, as it does for playback: HTTP URLs
// go to its own network stack (a playlist to HlsFile, by path or by
// Content-Type, anything else to HttpFile) unless --factory left the
// factory's default, the download engine.
std::unique_ptr<File> openSource(const std::string& arg) {
    const std::string url = toUrl(arg);
    // The peer-to-peer source is never chosen by the factory: hosts build it.
    if (url.compare(0, 11, "pps-test://") == 0) {
        std::unique_ptr<File> pps(new velka::PpsFile(url));
        if (pps->open() != 0) return nullptr;
        return pps;
    }
    std::unique_ptr<File> file(velka::FileFactory::createFile(url));
    if (file->open() != 0) return nullptr;
    return file;
}

// Reads from the file's current position to its end, each next request
// issued from inside complete(), the way the playback engine pulls data.
// complete() runs on the source's thread, one call at a time since only one
// request is ever outstanding.
//
// With `notYet`, a success without a byte before the end means "not arrived
// yet" (the peer-to-peer source): the chain pauses as starved, and the
// waiting thread starts it again.
class ChainReader : public File::AsyncCallback {
public:
    ChainReader(File& file, uint32_t block, Md5* md5, bool notYet = false)
        : file_(file), buffer_(block), md5_(md5), notYet_(notYet) {}

    // False when the source refused the first request.
    bool start() {
        if (file_.readAsync(buffer_.data(), static_cast<uint32_t>(buffer_.size()), *this) !=
            nullptr) {
            return true;
        }
        finish(velka::kStatusError, true);
        return false;
    }

    void complete(VelkaStatus status, uint32_t length) override {
        if (length > buffer_.size()) {  // never from a sound source
            finish(velka::kStatusError, false);
            return;
        }
        if (md5_ != nullptr) md5_->update(buffer_.data(), length);
        bytes_.fetch_add(length);
        if (status != velka::kStatusOk) {
            finish(status, false);
            return;
        }
        if (length == 0) {
            if (notYet_ && file_.available() > 0) {
                std::lock_guard<std::mutex> lock(mutex_);
                starved_ = true;
                cond_.notify_all();
                return;
            }
            // Success without a byte: the source has nothing more to give (the
            // download engine answers so at its end). Asking again would spin.
            finish(velka::kStatusEndOfFile, false);
            return;
        }
        // The next completion may run before readAsync() returns: nothing of
        // the data above is touched after this call.
        if (file_.readAsync(buffer_.data(), static_cast<uint32_t>(buffer_.size()), *this) ==
            nullptr) {
            finish(velka::kStatusError, true);
        }
    }

    // True once the segment has finished; waits at most `timeout`.
    bool waitFor(std::chrono::milliseconds timeout) {
        std::unique_lock<std::mutex> lock(mutex_);
        return cond_.wait_for(lock, timeout, [this] { return done_ || starved_; });
    }

    // True (once) when the chain paused for bytes not yet arrived.
    bool takeStarved() {
        std::lock_guard<std::mutex> lock(mutex_);
        const bool starved = starved_;
        starved_ = false;
        return starved;
    }

    int cachePercent() { return file_.cachePercent(); }

    uint64_t bytes() const { return bytes_.load(); }
    // These two after waitFor() gave true.
    VelkaStatus status() {
        std::lock_guard<std::mutex> lock(mutex_);
        return status_;
    }
    bool refused() {
        std::lock_guard<std::mutex> lock(mutex_);
        return refused_;
    }

private:
    void finish(VelkaStatus status, bool refused) {
        std::lock_guard<std::mutex> lock(mutex_);
        status_ = status;
        refused_ = refused;
        done_ = true;
        cond_.notify_all();
    }

    File& file_;
    std::vector<char> buffer_;        // one request's bytes; reused by the next
    Md5* md5_;                        // fed from complete() only
    const bool notYet_;
    std::atomic<uint64_t> bytes_{0};  // read by the progress display
    std::mutex mutex_;                // guards done_, starved_, status_, refused_
    std::condition_variable cond_;
    bool done_ = false;
    bool starved_ = false;
    VelkaStatus status_ = velka::kStatusOk;
    bool refused_ = false;
};

// The progress line on standard error: redrawn in place on a terminal, else
// written as a line every few seconds.
class Progress {
public:
    Progress(bool enabled, uint64_t total)
        : enabled_(enabled), terminal_(isatty(STDERR_FILENO) == 1), total_(total),
          start_(Clock::now()), last_(start_) {}

    Clock::duration interval() const {
        return terminal_ ? Clock::duration(kTerminalRedraw) : Clock::duration(kLogRedraw);
    }

    void update(uint64_t bytes) {
        const Clock::time_point now = Clock::now();
        if (!enabled_ || now - last_ < interval()) return;
        last_ = now;
        draw(bytes, now);
    }

    // The source's buffering percentage while it waits for bytes; shown when
    // it changes.
    void buffering(int percent) {
        if (!enabled_ || percent == lastPercent_) return;
        lastPercent_ = percent;
        if (terminal_) {
            fprintf(stderr, "\rbuffering %d%%\033[K", percent);
        } else {
            fprintf(stderr, "velka-cat: buffering %d%%\n", percent);
        }
        fflush(stderr);
    }

    void finish(uint64_t bytes) {
        if (!enabled_ || !terminal_) return;
        draw(bytes, Clock::now());
        fputc('\n', stderr);
    }

private:
    void draw(uint64_t bytes, Clock::time_point now) {
        char line[160];
        const double rate = megabytesPerSecond(bytes, seconds(now - start_));
        if (total_ > 0) {
            snprintf(line, sizeof line, "%10.1f MB of %.1f MB %5.1f%% %9.2f MB/s",
                     static_cast<double>(bytes) / 1e6, static_cast<double>(total_) / 1e6,
                     100.0 * static_cast<double>(bytes) / static_cast<double>(total_), rate);
        } else {
            snprintf(line, sizeof line, "%10.1f MB %9.2f MB/s", static_cast<double>(bytes) / 1e6,
                     rate);
        }
        if (terminal_) {
            fprintf(stderr, "\r%s\033[K", line);
        } else {
            fprintf(stderr, "velka-cat: %s\n", line);
        }
        fflush(stderr);
    }

    bool enabled_;
    bool terminal_;
    uint64_t total_;
    Clock::time_point start_;
    Clock::time_point last_;
    int lastPercent_ = -1;
};

// Waits for a running segment while keeping the progress line fresh. False
// when the source stopped delivering for kStallTimeout.
bool waitSegment(ChainReader& reader, Progress& progress, uint64_t before) {
    const auto tick = std::chrono::duration_cast<std::chrono::milliseconds>(progress.interval());
    const auto wait = std::min(tick, std::chrono::milliseconds(100));
    uint64_t seen = reader.bytes();
    Clock::time_point lastChange = Clock::now();
    for (;;) {
        if (reader.waitFor(wait)) {
            if (!reader.takeStarved()) return true;
            progress.buffering(reader.cachePercent());
            std::this_thread::sleep_for(kNotYetPause);
            reader.start();
        }
        const uint64_t now = reader.bytes();
        if (now != seen) {
            seen = now;
            lastChange = Clock::now();
        } else if (Clock::now() - lastChange > kStallTimeout) {
            return false;
        }
        progress.update(before + now);
    }
}

int catSource(const Options& o) {
    std::unique_ptr<File> file = openSource(o.url);
    if (!file) {
        fprintf(stderr, "velka-cat: cannot open %s\n", o.url.c_str());
        return 1;
    }
    const int64_t length = file->length();

    // Each segment is (offset, origin); the whole source without --seek.
    struct Segment {
        int64_t offset;
        File::Whence whence;
    };
    std::vector<Segment> segments;
    if (o.seeks.empty()) segments.push_back({0, File::kSeekSet});
    uint64_t total = o.seeks.empty() && length > 0 ? static_cast<uint64_t>(length) : 0;
    for (int64_t offset : o.seeks) {
        segments.push_back({offset, offset < 0 ? File::kSeekEnd : File::kSeekSet});
        const int64_t start = offset < 0 ? length + offset : offset;
        if (start >= 0 && start < length) total += static_cast<uint64_t>(length - start);
    }

    // The peer-to-peer source answers "not yet" with a success of 0 bytes.
    const bool notYet = dynamic_cast<velka::PpsFile*>(file.get()) != nullptr;
    Md5 md5;
    Progress progress(!o.quiet, total);
    const Clock::time_point started = Clock::now();
    uint64_t bytes = 0;
    for (const Segment& s : segments) {
        if (file->seek(s.offset, s.whence) < 0) {
            progress.finish(bytes);
            fprintf(stderr, "velka-cat: cannot seek to %" PRId64 " in %s\n", s.offset,
                    o.url.c_str());
            return 1;
        }
        ChainReader reader(*file, o.block, &md5, notYet);
        reader.start();
        if (!waitSegment(reader, progress, bytes)) {
            progress.finish(bytes + reader.bytes());
            fprintf(stderr, "velka-cat: %s stopped delivering at byte %" PRIu64 "\n",
                    o.url.c_str(), bytes + reader.bytes());
            // A request is still outstanding on `reader`: leave without
            // unwinding it.
            fflush(nullptr);
            _exit(1);
        }
        bytes += reader.bytes();
        if (reader.status() != velka::kStatusEndOfFile) {
            progress.finish(bytes);
            fprintf(stderr, "velka-cat: reading %s failed after %" PRIu64 " bytes (%s %d)\n",
                    o.url.c_str(), bytes, reader.refused() ? "request refused, status" : "status",
                    static_cast<int>(reader.status()));
            return 1;
        }
    }
    const double elapsed = seconds(Clock::now() - started);
    progress.finish(bytes);
    file->close();

    result("bytes %" PRIu64, bytes);
    result("MB/s %.2f", megabytesPerSecond(bytes, elapsed));
    result("md5 %s", md5.hexDigest().c_str());
    return 0;
}

// --- Benchmark ---------------------------------------------------------------

bool generateFile(const std::string& path, uint64_t size) {
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    if (fd == -1) return false;
    std::vector<char> chunk(1 << 20);
    uint32_t x = 0x9e3779b9u;
    bool ok = true;
    for (uint64_t written = 0; ok && written < size; written += chunk.size()) {
        for (char& c : chunk) {
            x ^= x << 13;
            x ^= x >> 17;
            x ^= x << 5;
            c = static_cast<char>(x);
        }
        const size_t n = static_cast<size_t>(std::min<uint64_t>(chunk.size(), size - written));
        ok = write(fd, chunk.data(), n) == static_cast<ssize_t>(n);
    }
    return close(fd) == 0 && ok;
}

// Seconds for one pass of pread over the whole file; -1 on failure.
double timePread(const std::string& path, uint32_t block, uint64_t* bytesOut) {
    int fd = open(path.c_str(), O_RDONLY);
    if (fd == -1) return -1;
    std::vector<char> buffer(block);
    uint64_t bytes = 0;
    const Clock::time_point start = Clock::now();
    for (;;) {
        ssize_t n = pread(fd, buffer.data(), block, static_cast<off_t>(bytes));
        if (n <= 0) {
            if (n < 0) bytes = 0;
            break;
        }
        bytes += static_cast<uint64_t>(n);
    }
    const double secs = seconds(Clock::now() - start);
    close(fd);
    *bytesOut = bytes;
    return secs;
}

// Seconds for one pass of chained asynchronous reads, the open included; -1
// on failure.
double timeChained(const std::string& url, uint32_t block, uint64_t* bytesOut) {
    const Clock::time_point start = Clock::now();
    std::unique_ptr<File> file = openSource(url);
    if (!file) return -1;
    ChainReader reader(*file, block, nullptr);
    reader.start();
    Progress silent(false, 0);
    if (!waitSegment(reader, silent, 0)) {
        fflush(nullptr);
        _exit(1);  // a request is still outstanding on `reader`
    }
    const double secs = seconds(Clock::now() - start);
    *bytesOut = reader.bytes();
    const bool ok = reader.status() == velka::kStatusEndOfFile;
    file->close();
    return ok ? secs : -1;
}

size_t discardBody(char* /*data*/, size_t size, size_t count, void* bytes) {
    *static_cast<uint64_t*>(bytes) += size * count;
    return size * count;
}

// Seconds for one plain libcurl transfer of `url` whose body is counted and
// dropped; -1 on failure.
double timeCurl(const std::string& url, uint64_t* bytesOut) {
    CURL* curl = curl_easy_init();
    if (curl == nullptr) return -1;
    uint64_t bytes = 0;
    curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, &discardBody);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, &bytes);
    curl_easy_setopt(curl, CURLOPT_FOLLOWLOCATION, 1L);
    const Clock::time_point start = Clock::now();
    const CURLcode ret = curl_easy_perform(curl);
    const double secs = seconds(Clock::now() - start);
    long status = 0;
    curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status);
    curl_easy_cleanup(curl);
    *bytesOut = bytes;
    return ret == CURLE_OK && status == 200 ? secs : -1;
}

// HttpFile's chained reads against one plain libcurl transfer of the same URL.
int benchHttp(const std::string& url) {
    result("bench %s: HttpFile chained reads (open included) against a plain libcurl "
           "transfer, runs interleaved, best of %d",
           url.c_str(), kBenchRuns);
    for (uint32_t block : {64u * 1024, 256u * 1024}) {
        double bestChained = -1, bestCurl = -1;
        uint64_t size = 0;
        for (int run = 0; run < kBenchRuns; ++run) {
            uint64_t chainedBytes = 0, curlBytes = 0;
            const double chained = timeChained(url, block, &chainedBytes);
            const double plain = timeCurl(url, &curlBytes);
            if (chained < 0 || plain < 0 || chainedBytes != curlBytes || curlBytes == 0) {
                fprintf(stderr, "velka-cat: reading %s failed during the benchmark\n",
                        url.c_str());
                return 1;
            }
            size = curlBytes;
            if (bestChained < 0 || chained < bestChained) bestChained = chained;
            if (bestCurl < 0 || plain < bestCurl) bestCurl = plain;
        }
        const double chainedRate = megabytesPerSecond(size, bestChained);
        const double curlRate = megabytesPerSecond(size, bestCurl);
        result("%4" PRIu32 " KiB  HttpFile chained %8.1f MB/s  libcurl transfer %8.1f MB/s  "
               "ratio %.2f  (%" PRIu64 " bytes)",
               block / 1024, chainedRate, curlRate, curlRate > 0 ? chainedRate / curlRate : 0.0,
               size);
    }
    return 0;
}

int bench(const Options& o) {
    std::string path;
    bool generated = false;
    if (o.url.empty()) {
        char name[] = "/tmp/velka-bench-XXXXXX";
        int fd = mkstemp(name);
        if (fd == -1) {
            fprintf(stderr, "velka-cat: cannot create a file in /tmp: %s\n", strerror(errno));
            return 1;
        }
        close(fd);
        path = name;
        generated = true;
        fprintf(stderr, "velka-cat: generating %" PRIu64 " MiB in %s\n", kBenchFileBytes >> 20,
                path.c_str());
        if (!generateFile(path, kBenchFileBytes)) {
            fprintf(stderr, "velka-cat: cannot write %s\n", path.c_str());
            unlink(path.c_str());
            return 1;
        }
    } else {
        const std::string url = toUrl(o.url);
        if (isHttpUrl(url)) return benchHttp(url);
        if (url.find("file://") != 0) {
            fprintf(stderr, "velka-cat: --bench reads local files and HTTP URLs, not %s\n",
                    o.url.c_str());
            return 2;
        }
        path = url.substr(7);
    }

    int status = 0;
    uint64_t size = 0;
    // One untimed pass brings the file into the page cache.
    if (timePread(path, 1 << 20, &size) < 0 || size == 0) {
        fprintf(stderr, "velka-cat: cannot read %s\n", path.c_str());
        status = 1;
    } else {
        result("bench %s: %" PRIu64 " bytes, warm page cache, best of %d runs", path.c_str(), size,
               kBenchRuns);
        for (uint32_t block : {64u * 1024, 256u * 1024}) {
            double bestChained = -1, bestPread = -1;
            for (int run = 0; run < kBenchRuns && status == 0; ++run) {
                uint64_t chainedBytes = 0, preadBytes = 0;
                const double chained = timeChained("file://" + path, block, &chainedBytes);
                const double plain = timePread(path, block, &preadBytes);
                if (chained < 0 || plain < 0 || chainedBytes != size || preadBytes != size) {
                    fprintf(stderr, "velka-cat: reading %s failed during the benchmark\n",
                            path.c_str());
                    status = 1;
                    break;
                }
                if (bestChained < 0 || chained < bestChained) bestChained = chained;
                if (bestPread < 0 || plain < bestPread) bestPread = plain;
            }
            if (status != 0) break;
            const double reads = static_cast<double>((size + block - 1) / block);
            const double chainedRate = megabytesPerSecond(size, bestChained);
            const double preadRate = megabytesPerSecond(size, bestPread);
            result("%4" PRIu32 " KiB  readAsync chained %8.1f MB/s (%6.1f us/read)  "
                   "pread loop %8.1f MB/s (%6.1f us/read)  ratio %.2f",
                   block / 1024, chainedRate, bestChained / reads * 1e6, preadRate,
                   bestPread / reads * 1e6, preadRate > 0 ? chainedRate / preadRate : 0.0);
        }
    }
    if (generated) unlink(path.c_str());
    return status;
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    const int parsed = parseOptions(argc, argv, &options);
    if (parsed != 0) return parsed < 0 ? 0 : parsed;
    if (!routeLibraryLines(options)) return 2;
    if (!options.factory) velka::FileFactory::useLibraryNetworkStack();
    const int status = options.bench ? bench(options) : catSource(options);
    fflush(nullptr);
    return status;
}
