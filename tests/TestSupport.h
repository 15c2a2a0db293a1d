#ifndef VELKA_TESTS_TESTSUPPORT_H
#define VELKA_TESTS_TESTSUPPORT_H

// What the suites share: bounded waits, generated files, captured standard
// output, and recorders for asynchronous reads.

#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <mutex>
#include <sstream>
#include <string>
#include <vector>

#include "velka/File.h"

namespace testing_support {

// A cross build runs every test program under an emulator (qemu-user):
// VELKA_TEST_EMULATOR is its command line, "/usr/bin/qemu-arm -L /" say, set
// by tests/CMakeLists.txt from CMAKE_CROSSCOMPILING_EMULATOR; "" otherwise.
#ifndef VELKA_TEST_EMULATOR
#define VELKA_TEST_EMULATOR ""
#endif
constexpr bool kEmulated = VELKA_TEST_EMULATOR[0] != '\0';

// The words that start a built program: the emulator's first when emulated.
inline std::vector<std::string> emulatorWords() {
    std::vector<std::string> words;
    std::string word;
    for (const char* c = VELKA_TEST_EMULATOR;; ++c) {
        if (*c == ' ' || *c == '\0') {
            if (!word.empty()) words.push_back(word);
            word.clear();
            if (*c == '\0') break;
        } else {
            word += *c;
        }
    }
    return words;
}

// The same as shell words to put in front of a built program's path.
// A check the emulator cannot give is left out only when kEmulated, with a
// line "under emulation: ..." on standard error saying why.
inline std::string emulatorCommand() { return kEmulated ? std::string(VELKA_TEST_EMULATOR) + " " : ""; }

// Death tests of suites whose processes have threads run "threadsafe": the
// child re-executes the test program. An emulated program cannot start the
// target's programs itself (the system does not know their format), and a
// forked child that starts threads of its own crashes qemu-user (7.2); so
// under emulation the child re-executes the test program through the
// emulator: its words go in front of the command line gtest runs again.
inline void useThreadsafeDeathTests() {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    if (!kEmulated) return;
    std::vector<std::string> argv = emulatorWords();
    const std::vector<std::string> own = testing::internal::GetArgvs();
    argv.insert(argv.end(), own.begin(), own.end());
    testing::internal::SetInjectableArgvs(argv);
}

// Every wait of the suites gives up after this long; reaching it is a failure.
constexpr int kWaitMs = 20000;
constexpr std::chrono::milliseconds kWait(kWaitMs);

// Polls `condition` every millisecond until it holds or kWaitMs have passed.
inline bool waitUntil(const std::function<bool()>& condition) {
    const auto end = std::chrono::steady_clock::now() + kWait;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end) return false;
        usleep(1000);
    }
    return true;
}

// The whole of a file; "" when it cannot be read.
inline std::string readAll(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// `text` cut at each `end`, without it.
inline std::vector<std::string> lines(const std::string& text, char end = '\n') {
    std::vector<std::string> out;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line, end);) out.push_back(line);
    return out;
}

// How a built tool ended and what it printed.
struct ToolRun {
    int exitCode = -1;  // -1 when it did not exit (a signal, say)
    std::string out;
    std::string err;
};

// Runs the built program `path` with `args` (shell words) from `dir`, with
// `env` (shell assignments) in front, without a terminal and for at most
// `seconds`; its output goes through files in `dir`.
inline ToolRun runTool(const std::string& dir, const std::string& path, const std::string& args,
                       int seconds, const std::string& env = "") {
    const std::string out = dir + "/stdout", err = dir + "/stderr";
    const std::string cmd = "cd '" + dir + "' && " + env + " timeout " + std::to_string(seconds) +
                            " " + emulatorCommand() + "'" + path + "' " + args + " >'" + out +
                            "' 2>'" + err + "' </dev/null";
    ToolRun run;
    const int status = system(cmd.c_str());
    run.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    run.out = readAll(out);
    run.err = readAll(err);
    return run;
}

// What `call` printed on standard output.
inline std::string capturedStdout(const std::function<void()>& call) {
    testing::internal::CaptureStdout();
    call();
    fflush(stdout);
    return testing::internal::GetCapturedStdout();
}

// Sends standard output (descriptor 1, where the library prints) to a file
// while it lives, so that a test can read what was printed so far. When the
// test has failed, the last lines go to standard error on the way out.
class StdoutTap {
public:
    StdoutTap() {
        char pattern[] = "/tmp/velka-stdout-XXXXXX";
        const int fd = mkstemp(pattern);
        path_ = pattern;
        fflush(stdout);
        saved_ = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 0);
        dup2(fd, STDOUT_FILENO);
        close(fd);
    }
    ~StdoutTap() {
        const std::string printed = text();
        dup2(saved_, STDOUT_FILENO);
        close(saved_);
        unlink(path_.c_str());
        if (!::testing::Test::HasFailure()) return;
        // The failures were printed into the tap too: each with a few lines
        // after it, then the last lines.
        for (size_t at = printed.find(": Failure\n"); at != std::string::npos;
             at = printed.find(": Failure\n", at + 1)) {
            const size_t begin = printed.rfind('\n', at) + 1;
            size_t end = begin;
            for (int n = 0; n < 8 && end != std::string::npos; ++n) end = printed.find('\n', end + 1);
            fprintf(stderr, "%s\n", printed.substr(begin, end - begin).c_str());
        }
        const size_t from = printed.size() > 3000 ? printed.size() - 3000 : 0;
        fprintf(stderr, "--- last lines printed ---\n%s\n", printed.c_str() + from);
    }
    StdoutTap(const StdoutTap&) = delete;
    StdoutTap& operator=(const StdoutTap&) = delete;

    // Everything printed since the tap was set.
    std::string text() const {
        fflush(stdout);
        std::ifstream in(path_, std::ios::binary);
        return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    }
    size_t count(const std::string& needle, size_t from = 0) const {
        const std::string all = text();
        size_t n = 0;
        for (size_t at = all.find(needle, from); at != std::string::npos;
             at = all.find(needle, at + needle.size())) {
            ++n;
        }
        return n;
    }

private:
    std::string path_;
    int saved_ = -1;
};

// Bytes that differ from offset to offset, so a read from the wrong position
// never compares equal.
inline std::vector<char> patternBytes(size_t size, uint32_t seed) {
    std::vector<char> bytes(size);
    uint32_t x = seed * 2654435761u + 1;
    for (char& b : bytes) {
        x ^= x << 13;
        x ^= x >> 17;
        x ^= x << 5;
        b = static_cast<char>(x >> 24);
    }
    return bytes;
}

// The `count` bytes of `bytes` at `offset`, clipped at the end.
inline std::vector<char> slice(const std::vector<char>& bytes, int64_t offset, int64_t count) {
    const size_t begin = std::min(bytes.size(), static_cast<size_t>(offset));
    const size_t end = std::min(bytes.size(), begin + static_cast<size_t>(count));
    return std::vector<char>(bytes.begin() + begin, bytes.begin() + end);
}

// A directory of its own under /tmp, removed with its contents.
class TempDir {
public:
    TempDir() {
        char pattern[] = "/tmp/velka-test-XXXXXX";
        if (mkdtemp(pattern) != nullptr) path_ = pattern;
    }
    ~TempDir() {
        std::error_code ignored;
        if (!path_.empty()) std::filesystem::remove_all(path_, ignored);
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::string& path() const { return path_; }
    std::string file(const std::string& name) const { return path_ + "/" + name; }
    // Writes `bytes` to the file `name` and returns its path.
    std::string write(const std::string& name, const std::vector<char>& bytes) const {
        std::ofstream out(file(name), std::ios::binary);
        out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
        EXPECT_TRUE(out.good()) << file(name);
        return file(name);
    }

private:
    std::string path_;
};

// A file of pattern bytes, kept for byte-exact comparison.
class TempDataFile {
public:
    explicit TempDataFile(size_t size, uint32_t seed = 1)
        : bytes_(patternBytes(size, seed)), path_(dir_.write("data", bytes_)) {}

    const std::string& path() const { return path_; }
    const std::vector<char>& bytes() const { return bytes_; }
    int64_t size() const { return static_cast<int64_t>(bytes_.size()); }
    // The URL under which the download engine stand-in serves this file.
    std::string dtaUrl() const { return "dta-test://" + path_; }
    // The `count` bytes at `offset`, clipped at the end.
    std::vector<char> slice(int64_t offset, size_t count) const {
        return testing_support::slice(bytes_, offset, static_cast<int64_t>(count));
    }

private:
    TempDir dir_;
    std::vector<char> bytes_;
    std::string path_;
};

// Entries of a folder of /proc, "/proc/self/fd" (the descriptors this
// process holds open) or "/proc/self/task" (its threads); -1 when unreadable.
inline int procEntries(const char* dir) {
    DIR* d = opendir(dir);
    if (d == nullptr) return -1;
    int count = 0;
    for (struct dirent* e = readdir(d); e != nullptr; e = readdir(d)) count += e->d_name[0] != '.';
    closedir(d);
    return count;
}

struct Completion {
    int tag;  // which request, as the test numbered it
    velka::VelkaStatus status;
    uint32_t length;
};

// The completions of asynchronous reads in arrival order, each under the tag
// of its Callback. A gated log keeps every complete() waiting inside until
// open(), so that a test can act while a request is known to be taken and its
// handle still valid.
class CompletionLog {
public:
    class Callback : public velka::File::AsyncCallback {
    public:
        Callback(CompletionLog& log, int tag) : log_(log), tag_(tag) {}
        void complete(velka::VelkaStatus status, uint32_t length) override {
            log_.add({tag_, status, length});
        }

    private:
        CompletionLog& log_;
        const int tag_;
    };

    explicit CompletionLog(bool gated = false) : open_(!gated) {}
    // Lets held completions go and waits until they have left.
    ~CompletionLog() {
        open();
        std::unique_lock<std::mutex> lock(mutex_);
        changed_.wait_for(lock, kWait, [this] { return inside_ == 0; });
    }

    void open() {
        std::lock_guard<std::mutex> lock(mutex_);
        open_ = true;
        changed_.notify_all();
    }
    // Waits until `count` completions have arrived (gated ones count on entry).
    bool waitFor(size_t count) {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_for(lock, kWait, [&] { return entries_.size() >= count; });
    }
    std::vector<Completion> all() {
        std::lock_guard<std::mutex> lock(mutex_);
        return entries_;
    }

private:
    void add(const Completion& c) {
        std::unique_lock<std::mutex> lock(mutex_);
        entries_.push_back(c);
        ++inside_;
        changed_.notify_all();
        changed_.wait_for(lock, kWait, [this] { return open_; });
        --inside_;
        changed_.notify_all();
    }

    std::mutex mutex_;
    std::condition_variable changed_;
    bool open_;
    int inside_ = 0;  // complete() calls not yet returned
    std::vector<Completion> entries_;
};

// What one asynchronous read gave.
struct Got {
    velka::VelkaStatus status = velka::kStatusError;
    uint32_t count = 0;
    std::vector<char> data;
};

// One asynchronous read of `count` bytes at the position, waited for; false
// when it was refused or did not complete in time.
inline bool readOnce(velka::File& file, uint32_t count, Got* got) {
    CompletionLog log;
    CompletionLog::Callback callback(log, 0);
    got->data.assign(count, 0);
    if (file.readAsync(got->data.data(), count, callback) == nullptr || !log.waitFor(1)) return false;
    got->status = log.all()[0].status;
    got->count = log.all()[0].length;
    got->data.resize(std::min(got->count, count));
    return true;
}

// Three reads of 100 bytes on an opened `file`: the first waited for, the
// second cancelled while its completion for the first is still held, the
// third queued behind it. "cancel=C TAG:STATUS:LENGTH ..." in completion
// order, or what went wrong.
inline std::string threeQueuedReads(velka::File& file) {
    std::vector<char> first(100), second(100), third(100);
    CompletionLog log(true);
    CompletionLog::Callback c1(log, 1), c2(log, 2), c3(log, 3);
    if (file.readAsync(first.data(), 100, c1) == nullptr || !log.waitFor(1)) return "no first";
    void* cancelled = file.readAsync(second.data(), 100, c2);
    if (file.readAsync(third.data(), 100, c3) == nullptr) return "no third";
    std::string report = "cancel=" + std::to_string(file.cancel(cancelled));
    log.open();
    if (!log.waitFor(3)) return "not all completed";
    for (const Completion& c : log.all()) {
        report += " " + std::to_string(c.tag) + ":" + std::to_string(c.status) + ":" +
                  std::to_string(c.length);
    }
    return report;
}

// Reads a File to its end, each asynchronous read issued from inside the
// completion of the one before, the way the playback engine pulls. Stops at
// the first status other than kStatusOk, or after `maxReads` reads. With
// `retryEmpty`, a read that meets a part not yet downloaded (kStatusOk with 0
// bytes) is issued again from run()'s thread a millisecond later, as
// velka-cat does.
class ChainedReader : public velka::File::AsyncCallback {
public:
    ChainedReader(velka::File& file, uint32_t block, size_t maxReads = 100000,
                  bool retryEmpty = false)
        : file_(file), buffer_(block), maxReads_(maxReads), retryEmpty_(retryEmpty) {}

    // False when a request was refused, or the chain stalled for kWaitMs.
    bool run() {
        if (!issue()) return false;
        std::unique_lock<std::mutex> lock(mutex_);
        for (size_t seen = 0; !done_; seen = statuses.size()) {
            if (!changed_.wait_for(lock, kWait,
                                   [&] { return done_ || starved_ || statuses.size() != seen; })) {
                return false;
            }
            if (starved_) {
                starved_ = false;
                lock.unlock();
                usleep(1000);
                if (!issue()) return false;
                lock.lock();
            }
        }
        return !refused_;
    }

    void complete(velka::VelkaStatus status, uint32_t length) override {
        bool next;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            statuses.push_back(status);
            data.insert(data.end(), buffer_.begin(),
                        buffer_.begin() + std::min<size_t>(length, buffer_.size()));
            next = status == velka::kStatusOk && statuses.size() < maxReads_;
            if (next && length == 0 && retryEmpty_) {
                ++empty;
                starved_ = true;
                changed_.notify_all();
                return;
            }
        }
        // The next request may complete on another thread before readAsync()
        // returns; nothing of this object is touched after it.
        const bool refused = next && !issue();
        if (!next || refused) {
            std::lock_guard<std::mutex> lock(mutex_);
            refused_ = refused;
            done_ = true;
            changed_.notify_all();
        }
    }

    // Read only after run().
    std::vector<velka::VelkaStatus> statuses;
    std::vector<char> data;
    int empty = 0;  // reads retried because they met a part not yet downloaded

private:
    bool issue() {
        const uint32_t count = static_cast<uint32_t>(buffer_.size());
        return file_.readAsync(buffer_.data(), count, *this) != nullptr;
    }

    velka::File& file_;
    std::vector<char> buffer_;
    const size_t maxReads_;
    const bool retryEmpty_;
    std::mutex mutex_;
    std::condition_variable changed_;
    bool done_ = false;
    bool starved_ = false;  // the last read got nothing; run() issues the next
    bool refused_ = false;
};

}  // namespace testing_support

#endif  // VELKA_TESTS_TESTSUPPORT_H
