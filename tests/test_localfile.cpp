// LocalFile against real files in a temporary directory, real POSIX
// asynchronous I/O and its notification threads.

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <ostream>
#include <string>
#include <vector>

#include "velka/LocalFile.h"

using velka::File;
using velka::LocalFile;
using velka::VelkaStatus;

namespace {

// Generous bound for any one completion; a healthy read takes milliseconds.
constexpr std::chrono::seconds kCompletionTimeout(60);

// Deterministic bytes that differ from offset to offset, so a read from the
// wrong position never compares equal.
std::vector<char> patternBytes(size_t size, uint32_t seed) {
    std::vector<char> bytes(size);
    uint32_t x = seed | 1u;
    for (size_t i = 0; i < size; ++i) {
        x ^= x << 13;
        x ^= x >> 17;
        x ^= x << 5;
        bytes[i] = static_cast<char>(x >> 24);
    }
    return bytes;
}

void writeFile(const std::string& path, const std::vector<char>& bytes) {
    FILE* f = fopen(path.c_str(), "wb");
    ASSERT_NE(nullptr, f) << path;
    ASSERT_EQ(bytes.size(), fwrite(bytes.data(), 1, bytes.size(), f));
    ASSERT_EQ(0, fclose(f));
}

// Entries of /proc/self/fd: the descriptors this process holds open.
int openDescriptorCount() {
    DIR* dir = opendir("/proc/self/fd");
    if (dir == nullptr) return -1;
    int count = 0;
    for (struct dirent* e = readdir(dir); e != nullptr; e = readdir(dir)) {
        if (e->d_name[0] != '.') ++count;
    }
    closedir(dir);
    return count;
}

// The descriptor the next open() will get: the lowest free one.
int nextDescriptor() {
    int fd = ::open("/dev/null", O_RDONLY);
    ::close(fd);
    return fd;
}

class TempDir {
public:
    TempDir() {
        char pattern[] = "/tmp/velka-localfile-XXXXXX";
        char* made = mkdtemp(pattern);
        if (made != nullptr) path_ = made;
    }
    ~TempDir() {
        if (!path_.empty()) {
            std::string cmd = "rm -rf '" + path_ + "'";
            if (system(cmd.c_str()) != 0) fprintf(stderr, "could not remove %s\n", path_.c_str());
        }
    }
    const std::string& path() const { return path_; }
    std::string file(const std::string& name) const { return path_ + "/" + name; }

private:
    std::string path_;
};

// One completion record per request; complete() may run on any thread, also
// before readAsync() has returned.
class RecordingCallback : public File::AsyncCallback {
public:
    void complete(VelkaStatus status, uint32_t length) override {
        std::lock_guard<std::mutex> lock(mutex_);
        ++completions_;
        status_ = status;
        length_ = length;
        cond_.notify_all();
    }

    // True once at least one completion arrived within the bound.
    bool waitCompleted() {
        std::unique_lock<std::mutex> lock(mutex_);
        return cond_.wait_for(lock, kCompletionTimeout, [this] { return completions_ > 0; });
    }

    int completions() {
        std::lock_guard<std::mutex> lock(mutex_);
        return completions_;
    }
    VelkaStatus status() {
        std::lock_guard<std::mutex> lock(mutex_);
        return status_;
    }
    uint32_t length() {
        std::lock_guard<std::mutex> lock(mutex_);
        return length_;
    }

private:
    std::mutex mutex_;
    std::condition_variable cond_;
    int completions_ = 0;
    VelkaStatus status_ = velka::kStatusError;
    uint32_t length_ = 0;
};

// Reads to the end with each next request issued from inside complete(), as
// the playback engine's pull source does. Stops after `maxReads` requests, so
// a file that never reaches its end fails the test instead of hanging it.
class ChainedReader : public File::AsyncCallback {
public:
    ChainedReader(File& file, uint32_t block, size_t maxReads)
        : file_(file), buffer_(block), maxReads_(maxReads) {}

    // False when the first request was refused.
    bool start() {
        return file_.readAsync(buffer_.data(), static_cast<uint32_t>(buffer_.size()), *this) !=
               nullptr;
    }

    void complete(VelkaStatus status, uint32_t length) override {
        bool next = false;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            statuses_.push_back(status);
            lengths_.push_back(length);
            if (length <= buffer_.size()) {
                data_.insert(data_.end(), buffer_.begin(), buffer_.begin() + length);
            }
            next = status == velka::kStatusOk && statuses_.size() < maxReads_;
            if (!next) {
                done_ = true;
                cond_.notify_all();
            }
        }
        // The next request may complete on another thread before readAsync()
        // returns; nothing of this object is touched after it.
        if (next && file_.readAsync(buffer_.data(), static_cast<uint32_t>(buffer_.size()),
                                    *this) == nullptr) {
            std::lock_guard<std::mutex> lock(mutex_);
            refused_ = true;
            done_ = true;
            cond_.notify_all();
        }
    }

    bool waitDone() {
        std::unique_lock<std::mutex> lock(mutex_);
        return cond_.wait_for(lock, std::chrono::seconds(300), [this] { return done_; });
    }

    // Read only after waitDone().
    std::vector<VelkaStatus> statuses_;
    std::vector<uint32_t> lengths_;
    std::vector<char> data_;
    bool refused_ = false;

private:
    File& file_;
    std::vector<char> buffer_;
    const size_t maxReads_;
    std::mutex mutex_;
    std::condition_variable cond_;
    bool done_ = false;
};

class LocalFileTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_FALSE(dir_.path().empty()); }

    std::string makeFile(const std::string& name, const std::vector<char>& bytes) {
        std::string path = dir_.file(name);
        writeFile(path, bytes);
        return path;
    }

    TempDir dir_;
};

// --- Chained asynchronous reads -------------------------------------------

struct ChainCase {
    uint32_t block;
    size_t fileSize;
    int64_t start;  // position sought before the first request
};

void PrintTo(const ChainCase& c, std::ostream* os) {
    *os << "block " << c.block << ", file " << c.fileSize << " bytes, from " << c.start;
}

class ChainedReadTest : public LocalFileTest, public ::testing::WithParamInterface<ChainCase> {};

TEST_P(ChainedReadTest, ReadsTheFileToTheEndByteForByte) {
    const ChainCase c = GetParam();
    const std::vector<char> bytes = patternBytes(c.fileSize, 0x5eed0000u + c.block);
    const std::string path = makeFile("chain.bin", bytes);

    LocalFile file("file://" + path);
    ASSERT_EQ(0, file.open());
    ASSERT_EQ(c.start, file.seek(c.start, File::kSeekSet));

    // Full blocks until the end, then one short (possibly empty) block.
    const size_t wanted = c.fileSize - static_cast<size_t>(c.start);
    const size_t reads = wanted / c.block + 1;

    ChainedReader reader(file, c.block, reads + 2);
    ASSERT_TRUE(reader.start());
    ASSERT_TRUE(reader.waitDone()) << "chain did not finish";
    ASSERT_FALSE(reader.refused_);
    ASSERT_EQ(reads, reader.statuses_.size());
    for (size_t i = 0; i + 1 < reads; ++i) {
        ASSERT_EQ(velka::kStatusOk, reader.statuses_[i]) << "read " << i;
        ASSERT_EQ(c.block, reader.lengths_[i]) << "read " << i;
    }
    EXPECT_EQ(velka::kStatusEndOfFile, reader.statuses_.back());
    EXPECT_EQ(wanted % c.block, reader.lengths_.back());

    ASSERT_EQ(wanted, reader.data_.size());
    EXPECT_TRUE(std::equal(bytes.begin() + c.start, bytes.end(), reader.data_.begin()))
        << "data differs from the file";
    EXPECT_EQ(static_cast<int64_t>(c.fileSize), file.tell());
    EXPECT_EQ(0, file.available());
    EXPECT_EQ(0, file.close());
}

constexpr size_t kMiB = 1024 * 1024;

INSTANTIATE_TEST_SUITE_P(
    OddBlocks, ChainedReadTest,
    ::testing::Values(ChainCase{1, 5000, 0},                    // one byte at a time
                      ChainCase{4093, 5 * kMiB + 17, 0},        // a prime below the page
                      ChainCase{65537, 5 * kMiB + 17, 0},       // just over 64 KiB
                      ChainCase{1 * kMiB + 3, 5 * kMiB + 17, 0},
                      ChainCase{65536, 4 * kMiB, 0},            // the end falls on a block
                      ChainCase{65537, 3 * kMiB + 5, 123457}),  // after a seek
    [](const ::testing::TestParamInfo<ChainCase>& info) {
        return "Block" + std::to_string(info.param.block) + "From" +
               std::to_string(info.param.start);
    });

// --- The ten-byte file ----------------------------------------------------

TEST_F(LocalFileTest, TenByteFileReadsFourFourTwoThenEmptyAtTheEnd) {
    const std::vector<char> bytes = {'0', '1', '2', '3', '4', '5', '6', '7', '8', '9'};
    LocalFile file("file://" + makeFile("ten", bytes));
    ASSERT_EQ(0, file.open());
    EXPECT_EQ(10, file.length());

    struct Expected {
        VelkaStatus status;
        uint32_t length;
        int64_t availableAfter;
    };
    const Expected expected[] = {{velka::kStatusOk, 4, 6},
                                 {velka::kStatusOk, 4, 2},
                                 {velka::kStatusEndOfFile, 2, 0},
                                 {velka::kStatusEndOfFile, 0, 0}};
    size_t offset = 0;
    for (const Expected& e : expected) {
        char buffer[4] = {'x', 'x', 'x', 'x'};
        RecordingCallback callback;
        ASSERT_NE(nullptr, file.readAsync(buffer, sizeof buffer, callback));
        ASSERT_TRUE(callback.waitCompleted());
        EXPECT_EQ(e.status, callback.status()) << "at offset " << offset;
        ASSERT_EQ(e.length, callback.length()) << "at offset " << offset;
        EXPECT_EQ(0, memcmp(bytes.data() + offset, buffer, e.length));
        offset += e.length;
        EXPECT_EQ(static_cast<int64_t>(offset), file.tell());
        EXPECT_EQ(e.availableAfter, file.available());
        EXPECT_EQ(1, callback.completions());
    }
    EXPECT_EQ(0, file.close());
}

// --- Blocking reads, seek and tell ----------------------------------------

TEST_F(LocalFileTest, BlockingReadSeekAndTellFollowOnePosition) {
    const std::vector<char> bytes = patternBytes(1000, 7);
    LocalFile file("file://" + makeFile("sync", bytes));
    ASSERT_EQ(0, file.open());
    EXPECT_EQ(1000, file.length());
    EXPECT_EQ(0, file.tell());

    char buffer[600];
    ASSERT_EQ(100, file.read(buffer, 100));
    EXPECT_EQ(0, memcmp(bytes.data(), buffer, 100));
    EXPECT_EQ(100, file.tell());
    EXPECT_EQ(900, file.available());

    EXPECT_EQ(150, file.seek(50, File::kSeekCurrent));
    ASSERT_EQ(10, file.read(buffer, 10));
    EXPECT_EQ(0, memcmp(bytes.data() + 150, buffer, 10));

    EXPECT_EQ(997, file.seek(-3, File::kSeekEnd));
    ASSERT_EQ(3, file.read(buffer, sizeof buffer));  // short at the end
    EXPECT_EQ(0, memcmp(bytes.data() + 997, buffer, 3));
    EXPECT_EQ(0, file.read(buffer, sizeof buffer));  // nothing more
    EXPECT_EQ(0, file.available());

    EXPECT_EQ(400, file.seek(400, File::kSeekSet));
    ASSERT_EQ(600, file.read(buffer, 600));
    EXPECT_EQ(0, memcmp(bytes.data() + 400, buffer, 600));

    // A position before the start is refused and the position stays.
    EXPECT_EQ(-1, file.seek(-1, File::kSeekSet));
    EXPECT_EQ(1000, file.tell());
    EXPECT_EQ(0, file.close());
}

TEST_F(LocalFileTest, SyncAndAsyncReadsShareThePosition) {
    const std::vector<char> bytes = patternBytes(64, 11);
    LocalFile file("file://" + makeFile("mixed", bytes));
    ASSERT_EQ(0, file.open());
    char buffer[16];
    ASSERT_EQ(5, file.read(buffer, 5));

    RecordingCallback callback;
    ASSERT_NE(nullptr, file.readAsync(buffer, 16, callback));
    ASSERT_TRUE(callback.waitCompleted());
    ASSERT_EQ(velka::kStatusOk, callback.status());
    ASSERT_EQ(16u, callback.length());
    EXPECT_EQ(0, memcmp(bytes.data() + 5, buffer, 16));

    ASSERT_EQ(4, file.read(buffer, 4));
    EXPECT_EQ(0, memcmp(bytes.data() + 21, buffer, 4));
    EXPECT_EQ(0, file.close());
}

// Offsets reach the system as their low 32 bits; positions past 2 GiB cannot
// be told and read as failures.
TEST_F(LocalFileTest, PositionsAreThirtyTwoBit) {
    const std::vector<char> bytes = patternBytes(32, 3);
    LocalFile file("file://" + makeFile("narrow", bytes));
    ASSERT_EQ(0, file.open());

    EXPECT_EQ(5, file.seek((int64_t{1} << 32) + 5, File::kSeekSet));
    EXPECT_EQ(5, file.tell());

    EXPECT_EQ(INT32_MAX, file.seek(INT32_MAX, File::kSeekSet));
    EXPECT_EQ(-1, file.seek(1, File::kSeekCurrent));
    EXPECT_EQ(-1, file.tell());
    EXPECT_EQ(-1, file.available());

    // An asynchronous read from there fails and still completes once.
    char buffer[8];
    RecordingCallback callback;
    void* request = file.readAsync(buffer, sizeof buffer, callback);
    if (request != nullptr) {
        ASSERT_TRUE(callback.waitCompleted());
        EXPECT_EQ(velka::kStatusError, callback.status());
        EXPECT_EQ(0u, callback.length());
    }
    EXPECT_EQ(0, file.close());
}

TEST_F(LocalFileTest, FailedAsynchronousReadCompletesWithErrorAndZeroBytes) {
    const std::vector<char> bytes = patternBytes(32, 5);
    LocalFile file("file://" + makeFile("fault", bytes));
    ASSERT_EQ(0, file.open());
    RecordingCallback callback;
    // The system cannot store into a null buffer: the read itself fails.
    ASSERT_NE(nullptr, file.readAsync(nullptr, 8, callback));
    ASSERT_TRUE(callback.waitCompleted());
    EXPECT_EQ(velka::kStatusError, callback.status());
    EXPECT_EQ(0u, callback.length());
    EXPECT_EQ(0, file.tell());  // a failed read does not move the position
    EXPECT_EQ(1, callback.completions());
    EXPECT_EQ(0, file.close());
}

// --- Cancel ---------------------------------------------------------------

// Records its one completion, then holds its notification thread until the
// test opens the gate, so the request stays valid while cancel() runs.
// The object must outlive complete(): call waitReturned() before it goes.
class GatedCallback : public File::AsyncCallback {
public:
    void complete(VelkaStatus status, uint32_t length) override {
        std::unique_lock<std::mutex> lock(mutex_);
        ++completions_;
        status_ = status;
        length_ = length;
        cond_.notify_all();
        cond_.wait_for(lock, kCompletionTimeout, [this] { return open_; });
        ++returned_;
        cond_.notify_all();
    }
    void openGate() {
        std::lock_guard<std::mutex> lock(mutex_);
        open_ = true;
        cond_.notify_all();
    }
    // Opens the gate and waits until every complete() so far has returned.
    bool waitReturned() {
        openGate();
        std::unique_lock<std::mutex> lock(mutex_);
        return cond_.wait_for(lock, kCompletionTimeout,
                              [this] { return completions_ > 0 && returned_ == completions_; });
    }
    bool waitCompleted() {
        std::unique_lock<std::mutex> lock(mutex_);
        return cond_.wait_for(lock, kCompletionTimeout, [this] { return completions_ > 0; });
    }
    int completions() {
        std::lock_guard<std::mutex> lock(mutex_);
        return completions_;
    }
    VelkaStatus status() {
        std::lock_guard<std::mutex> lock(mutex_);
        return status_;
    }
    uint32_t length() {
        std::lock_guard<std::mutex> lock(mutex_);
        return length_;
    }

private:
    std::mutex mutex_;
    std::condition_variable cond_;
    bool open_ = false;
    int completions_ = 0;
    int returned_ = 0;
    VelkaStatus status_ = velka::kStatusError;
    uint32_t length_ = 0;
};

// Two large reads from the same position; the second waits behind the first,
// so cancelling it usually succeeds, while the first is usually running or
// done. Either answer is allowed; it must agree with the completion.
TEST_F(LocalFileTest, CancelAgreesWithTheOneCompletion) {
    constexpr uint32_t kBlock = 8 * kMiB;
    const std::vector<char> bytes = patternBytes(kBlock, 17);
    LocalFile file("file://" + makeFile("cancel", bytes));
    ASSERT_EQ(0, file.open());

    int cancelledCount = 0;
    constexpr int kRounds = 4;
    for (int round = 0; round < kRounds; ++round) {
        SCOPED_TRACE("round " + std::to_string(round));
        ASSERT_EQ(0, file.seek(0, File::kSeekSet));
        std::vector<char> first(kBlock), second(kBlock);
        GatedCallback firstCallback, secondCallback;
        void* firstRequest = file.readAsync(first.data(), kBlock, firstCallback);
        void* secondRequest = file.readAsync(second.data(), kBlock, secondCallback);
        ASSERT_NE(nullptr, firstRequest);
        ASSERT_NE(nullptr, secondRequest);

        const int secondCancel = file.cancel(secondRequest);
        const int firstCancel = file.cancel(firstRequest);
        ASSERT_TRUE(firstCallback.waitReturned());
        ASSERT_TRUE(secondCallback.waitReturned());

        struct Outcome {
            int cancelResult;
            GatedCallback& callback;
            const std::vector<char>& buffer;
        } outcomes[] = {{firstCancel, firstCallback, first}, {secondCancel, secondCallback, second}};
        for (Outcome& o : outcomes) {
            ASSERT_TRUE(o.cancelResult == 0 || o.cancelResult == -1);
            if (o.cancelResult == 0) {
                ++cancelledCount;
                EXPECT_EQ(velka::kStatusCancelled, o.callback.status());
                EXPECT_EQ(0u, o.callback.length());
            } else {
                // Not cancelled: the read finished normally with all its bytes.
                EXPECT_EQ(velka::kStatusOk, o.callback.status());
                ASSERT_EQ(kBlock, o.callback.length());
                EXPECT_TRUE(o.buffer == bytes);
            }
        }
        // Both requests are finished; one more round trip on the file lets
        // any stray second completion arrive before the counts are checked.
        char probe;
        RecordingCallback probeCallback;
        ASSERT_EQ(0, file.seek(0, File::kSeekSet));
        ASSERT_NE(nullptr, file.readAsync(&probe, 1, probeCallback));
        ASSERT_TRUE(probeCallback.waitCompleted());
        EXPECT_EQ(1, firstCallback.completions());
        EXPECT_EQ(1, secondCallback.completions());
    }
    printf("cancel: %d of %d requests cancelled\n", cancelledCount, 2 * kRounds);
    EXPECT_EQ(0, file.close());
}

TEST_F(LocalFileTest, CancelOfAFinishedRequestFailsAndLeavesItsCompletion) {
    const std::vector<char> bytes = patternBytes(100, 23);
    LocalFile file("file://" + makeFile("late", bytes));
    ASSERT_EQ(0, file.open());
    std::vector<char> buffer(100);
    GatedCallback callback;
    void* request = file.readAsync(buffer.data(), 100, callback);
    ASSERT_NE(nullptr, request);
    // The completion has been made but not returned: the handle is still valid.
    ASSERT_TRUE(callback.waitCompleted());
    EXPECT_EQ(-1, file.cancel(request));
    ASSERT_TRUE(callback.waitReturned());
    EXPECT_EQ(velka::kStatusOk, callback.status());
    EXPECT_EQ(100u, callback.length());
    EXPECT_TRUE(buffer == bytes);
    EXPECT_EQ(1, callback.completions());
    EXPECT_EQ(0, file.close());
}

// --- Open ------------------------------------------------------------------

struct OpenFailure {
    const char* name;
    std::string url;  // "@" stands for the temporary directory
};

void PrintTo(const OpenFailure& f, std::ostream* os) {
    *os << f.url;
}

class OpenFailureTest : public LocalFileTest, public ::testing::WithParamInterface<OpenFailure> {};

TEST_P(OpenFailureTest, FailsAndKeepsNoDescriptor) {
    std::string url = GetParam().url;
    size_t at = url.find('@');
    if (at != std::string::npos) url.replace(at, 1, dir_.path());

    const int before = openDescriptorCount();
    ASSERT_GT(before, 0);
    {
        LocalFile file(url);
        EXPECT_EQ(-1, file.open()) << url;
        EXPECT_EQ(before, openDescriptorCount()) << "a descriptor stayed open for " << url;
        EXPECT_EQ(100, file.cachePercent());
        EXPECT_EQ(0, file.error());
        EXPECT_EQ(0, file.close());
    }
    EXPECT_EQ(before, openDescriptorCount());
}

INSTANTIATE_TEST_SUITE_P(
    Sources, OpenFailureTest,
    ::testing::Values(OpenFailure{"MissingPath", "file://@/no-such-file"},
                      OpenFailure{"Directory", "file://@"},
                      OpenFailure{"DevNull", "file:///dev/null"},
                      OpenFailure{"DevZero", "file:///dev/zero"},
                      OpenFailure{"PrefixAlone", "file://"},
                      OpenFailure{"PrefixOnlyOnce", "file://file://@/x"}),
    [](const ::testing::TestParamInfo<OpenFailure>& info) { return info.param.name; });

TEST_F(LocalFileTest, RelativePathOpensFromTheCurrentDirectory) {
    const std::vector<char> bytes = patternBytes(40, 29);
    makeFile("rel", bytes);
    char cwd[4096];
    ASSERT_NE(nullptr, getcwd(cwd, sizeof cwd));
    ASSERT_EQ(0, chdir(dir_.path().c_str()));
    LocalFile file("file://rel");
    const int opened = file.open();
    ASSERT_EQ(0, chdir(cwd));  // back before anything can fail
    ASSERT_EQ(0, opened);
    EXPECT_EQ(40, file.length());
    char buffer[40];
    ASSERT_EQ(40, file.read(buffer, 40));
    EXPECT_EQ(0, memcmp(bytes.data(), buffer, 40));
    EXPECT_EQ(0, file.close());
}

TEST_F(LocalFileTest, CloseTwiceClosesTheDescriptorOnce) {
    const std::string path = makeFile("twice", patternBytes(10, 31));
    const int before = openDescriptorCount();
    LocalFile file("file://" + path);
    ASSERT_EQ(0, file.open());
    EXPECT_EQ(before + 1, openDescriptorCount());
    EXPECT_EQ(0, file.close());
    EXPECT_EQ(before, openDescriptorCount());

    // The freed number goes to the next open; a second close must leave it.
    int other = ::open(path.c_str(), O_RDONLY);
    ASSERT_NE(-1, other);
    EXPECT_EQ(0, file.close());
    EXPECT_NE(-1, fcntl(other, F_GETFD)) << "second close closed someone else's descriptor";
    ::close(other);
}

TEST_F(LocalFileTest, DestructionClosesAnOpenDescriptor) {
    const std::string path = makeFile("dtor", patternBytes(10, 37));
    const int before = openDescriptorCount();
    {
        LocalFile file("file://" + path);
        ASSERT_EQ(0, file.open());
        EXPECT_EQ(before + 1, openDescriptorCount());
    }
    EXPECT_EQ(before, openDescriptorCount());
}

TEST_F(LocalFileTest, CachePercentIsFullAndErrorIsZeroInEveryState) {
    LocalFile file("file://" + makeFile("state", patternBytes(10, 41)));
    EXPECT_EQ(100, file.cachePercent());
    EXPECT_EQ(0, file.error());
    ASSERT_EQ(0, file.open());
    char buffer[20];
    EXPECT_EQ(10, file.read(buffer, sizeof buffer));
    EXPECT_EQ(0, file.read(buffer, sizeof buffer));
    EXPECT_EQ(-1, file.seek(-100, File::kSeekCurrent));
    EXPECT_EQ(100, file.cachePercent());
    EXPECT_EQ(0, file.error());
    EXPECT_EQ(0, file.close());
    EXPECT_EQ(100, file.cachePercent());
    EXPECT_EQ(0, file.error());
}

// --- Diagnostic lines -----------------------------------------------------

TEST_F(LocalFileTest, PrintsItsLinesExactly) {
    const std::string path = makeFile("lines", patternBytes(10, 43));
    char buffer[4];

    // Capturing holds a descriptor of its own: take the number after it.
    ::testing::internal::CaptureStdout();
    const std::string f = std::to_string(nextDescriptor());
    LocalFile file("file://" + path);
    ASSERT_EQ(0, file.open());
    file.seek(3, File::kSeekSet);
    file.read(buffer, 4);
    file.length();
    file.available();
    RecordingCallback callback;
    void* request = file.readAsync(buffer, 2, callback);
    const bool completed = callback.waitCompleted();
    file.close();
    fflush(stdout);
    const std::string out = ::testing::internal::GetCapturedStdout();
    ASSERT_NE(nullptr, request);
    ASSERT_TRUE(completed);

    char handle[32];
    snprintf(handle, sizeof handle, "%p", request);
    const std::string expected = "local file open " + path + " fd " + f + "\n" +
                                 "local file seek whence 0 off 3 fd " + f + "\n" +
                                 "local file read length 4 fd " + f + "\n" +
                                 "local file length fd " + f + " len 10\n" +
                                 "local file available fd " + f + "\n" +
                                 "local file length fd " + f + " len 10\n" +
                                 "local file tell fd " + f + "\n" +
                                 "local file available 3\n" +
                                 "local file tell fd " + f + "\n" +
                                 "local file readAsync length 2 off 7 fd " + f + " " + handle +
                                 "\n";
    EXPECT_EQ(expected, out);
}

TEST_F(LocalFileTest, PrintsTheFailureLines) {
    const std::string missing = dir_.file("missing");
    const std::string path = makeFile("fail-lines", patternBytes(10, 47));

    ::testing::internal::CaptureStdout();
    const std::string f = std::to_string(nextDescriptor());
    LocalFile absent("file://" + missing);
    absent.open();
    LocalFile file("file://" + path);
    file.open();
    file.seek(INT32_MAX, File::kSeekSet);
    file.seek(1, File::kSeekCurrent);
    file.available();
    RecordingCallback callback;
    file.seek(0, File::kSeekSet);
    void* request = file.readAsync(nullptr, 1, callback);
    const bool completed = request != nullptr && callback.waitCompleted();
    file.close();
    fflush(stdout);
    const std::string out = ::testing::internal::GetCapturedStdout();
    ASSERT_TRUE(completed);

    char handle[32];
    snprintf(handle, sizeof handle, "%p", request);
    const std::string expected = "local file open " + missing + " fd -1\n" +
                                 "local file open " + path + " fd " + f + "\n" +
                                 "local file seek whence 0 off 2147483647 fd " + f + "\n" +
                                 "local file seek whence 1 off 1 fd " + f + "\n" +
                                 "local file available fd " + f + "\n" +
                                 "local file length fd " + f + " len 10\n" +
                                 "local file tell fd " + f + "\n" +
                                 "local file available fail\n" +
                                 "local file seek whence 0 off 0 fd " + f + "\n" +
                                 "local file tell fd " + f + "\n" +
                                 "local file readAsync length 1 off 0 fd " + f + " " + handle +
                                 "\n" + "aio_complete_cb fail 14\n";  // EFAULT
    EXPECT_EQ(expected, out);
}

// --- Broken preconditions -------------------------------------------------

// The dying child re-runs the test from its start and leaves nothing behind:
// these tests make no files, they read the test program itself.
class LocalFileDeathTest : public ::testing::Test {
protected:
    void SetUp() override {
        // Notification threads may exist: re-execute instead of forking.
        GTEST_FLAG_SET(death_test_style, "threadsafe");
    }
    const std::string kExisting = "file:///proc/self/exe";
    const std::string kMissing = "file:///nonexistent/velka-missing";
};

TEST_F(LocalFileDeathTest, PositionOperationsOnAnUnopenedFileAssert) {
    LocalFile file(kExisting);
    char buffer[4];
    RecordingCallback callback;
    EXPECT_DEATH(file.read(buffer, 4), "fd_ != -1");
    EXPECT_DEATH(file.readAsync(buffer, 4, callback), "fd_ != -1");
    EXPECT_DEATH(file.seek(0, File::kSeekSet), "fd_ != -1");
    EXPECT_DEATH(file.tell(), "fd_ != -1");
    EXPECT_DEATH(file.length(), "fd_ != -1");
    EXPECT_DEATH(file.available(), "fd_ != -1");
}

TEST_F(LocalFileDeathTest, PositionOperationsAfterAFailedOpenOrCloseAssert) {
    LocalFile missing(kMissing);
    ASSERT_EQ(-1, missing.open());
    EXPECT_DEATH(missing.tell(), "fd_ != -1");

    LocalFile closed(kExisting);
    ASSERT_EQ(0, closed.open());
    ASSERT_EQ(0, closed.close());
    char buffer[4];
    EXPECT_DEATH(closed.read(buffer, 4), "fd_ != -1");
}

TEST_F(LocalFileDeathTest, OpenOfAnotherSchemeAsserts) {
    LocalFile file("http://example/a.ts");
    EXPECT_DEATH(file.open(), "url_\\.find\\(\"file://\"\\) == 0");
    LocalFile upper("FILE:///tmp/a");
    EXPECT_DEATH(upper.open(), "url_\\.find\\(\"file://\"\\) == 0");
}

TEST_F(LocalFileDeathTest, CancelOfANullRequestAsserts) {
    LocalFile file(kExisting);
    ASSERT_EQ(0, file.open());
    EXPECT_DEATH(file.cancel(nullptr), "asyncReq != __null");
    EXPECT_EQ(0, file.close());
}

}  // namespace
