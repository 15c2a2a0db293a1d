// LocalFile against real files in a temporary directory, real POSIX
// asynchronous I/O and its notification threads: what only this source does
// (what every source promises is in test_file_contract.cpp).

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <future>
#include <string>
#include <vector>

#include "TestSupport.h"
#include "velka/LocalFile.h"

namespace {

using testing_support::CompletionLog;
using testing_support::patternBytes;
using velka::File;
using velka::LocalFile;

constexpr size_t kMiB = 1024 * 1024;

int openDescriptorCount() { return testing_support::procEntries("/proc/self/fd"); }

class LocalFileTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_FALSE(dir_.path().empty()); }

    // A file of pattern bytes; its URL, with the bytes in `bytes`.
    std::string makeFile(const std::string& name, size_t size, std::vector<char>* bytes = nullptr) {
        const std::vector<char> made = patternBytes(size, static_cast<uint32_t>(size));
        if (bytes != nullptr) *bytes = made;
        return "file://" + dir_.write(name, made);
    }

    testing_support::TempDir dir_;
};

// Offsets reach the system as their low 32 bits; positions past 2 GiB cannot
// be told and read as failures.
TEST_F(LocalFileTest, PositionsAreThirtyTwoBitValues) {
    LocalFile file(makeFile("wide", 1000));
    ASSERT_EQ(0, file.open());
    EXPECT_EQ(5, file.seek((int64_t{1} << 32) + 5, File::kSeekSet));
    EXPECT_EQ(INT32_MAX, file.seek(INT32_MAX, File::kSeekSet));
    EXPECT_EQ(-1, file.seek(1, File::kSeekCurrent));
    EXPECT_EQ(-1, file.tell());
    EXPECT_EQ(-1, file.available());
}

// Two reads queued back to back and the first cancelled at once, while the
// C library may not yet have started it: the second must still complete, and
// read on from where the first left off. Every answer of cancel() agrees with
// the one completion, and a cancel after the completion returns -1 without
// touching the freed request.
TEST_F(LocalFileTest, CancellingTheFirstOfTwoQueuedReadsStrandsNeitherAndCompletedOnesStayAlone) {
    constexpr uint32_t kBlock = 4096;
    constexpr int kRounds = 100;
    std::vector<char> bytes;
    LocalFile file(makeFile("cancel", 2 * kBlock, &bytes));
    ASSERT_EQ(0, file.open());
    {
        char buffer[16];
        CompletionLog log;
        CompletionLog::Callback callback(log, 0);
        void* done = file.readAsync(buffer, sizeof buffer, callback);
        ASSERT_NE(nullptr, done);
        ASSERT_TRUE(log.waitFor(1));
        EXPECT_EQ(-1, file.cancel(done)) << "cancel of a completed read";
    }
    int cancelledFirst = 0, finishedFirst = 0;
    for (int round = 0; round < kRounds; ++round) {
        SCOPED_TRACE("round " + std::to_string(round));
        ASSERT_EQ(0, file.seek(0, File::kSeekSet));
        std::vector<char> buffers[2] = {std::vector<char>(kBlock), std::vector<char>(kBlock)};
        CompletionLog log;
        CompletionLog::Callback first(log, 0), second(log, 1);
        void* requests[2] = {file.readAsync(buffers[0].data(), kBlock, first),
                             file.readAsync(buffers[1].data(), kBlock, second)};
        ASSERT_NE(nullptr, requests[0]);
        ASSERT_NE(nullptr, requests[1]);
        if (requests[0] == requests[1]) {
            // The first completed, and its record was freed, before the second
            // was made at the same address: the first's handle now names the
            // second, so there is nothing of the first left to cancel.
            ++finishedFirst;
            ASSERT_TRUE(log.waitFor(2));
            for (const testing_support::Completion& c : log.all()) {
                EXPECT_EQ(velka::kStatusOk, c.status);
            }
            continue;
        }
        const int cancelled = file.cancel(requests[0]);
        ASSERT_TRUE(log.waitFor(2)) << "a queued read never completed (first cancel " << cancelled
                                    << ")";
        std::vector<testing_support::Completion> c = log.all();
        EXPECT_EQ(0, c[0].tag) << "completed out of order";
        if (c[0].tag != 0) std::swap(c[0], c[1]);
        if (cancelled == 0) {
            ++cancelledFirst;
            EXPECT_EQ(velka::kStatusCancelled, c[0].status);
            EXPECT_EQ(0u, c[0].length);
        } else {
            EXPECT_EQ(-1, cancelled);
            EXPECT_EQ(velka::kStatusOk, c[0].status);
            EXPECT_TRUE(std::equal(bytes.begin(), bytes.begin() + kBlock, buffers[0].begin()));
        }
        // The second read continues after the first.
        const int64_t secondAt = cancelled == 0 ? 0 : kBlock;
        EXPECT_EQ(velka::kStatusOk, c[1].status);
        EXPECT_TRUE(std::equal(bytes.begin() + secondAt, bytes.begin() + secondAt + kBlock,
                               buffers[1].begin()));
        EXPECT_EQ(secondAt + kBlock, file.tell());
        EXPECT_EQ(-1, file.cancel(requests[0]));
        EXPECT_EQ(-1, file.cancel(requests[1]));
        ASSERT_EQ(2u, log.all().size());
    }
    printf("cancel: the first of two queued reads cancelled in %d of %d rounds (%d done before "
           "the second was made)\n",
           cancelledFirst, kRounds, finishedFirst);
}

// close() with a read in flight: the read completes before close() returns,
// and nothing of it touches the descriptor number afterwards, which the next
// opened file gets.
TEST_F(LocalFileTest, CloseWithAReadInFlightCompletesItAndLeavesTheNextFileAlone) {
    constexpr uint32_t kBlock = 4 * kMiB;
    const std::string url = makeFile("inflight", kBlock);
    const std::string other = makeFile("other", 100);
    std::vector<char> buffer(kBlock);
    for (int round = 0; round < 50; ++round) {
        SCOPED_TRACE("round " + std::to_string(round));
        CompletionLog log;
        CompletionLog::Callback callback(log, 0);
        {
            LocalFile file(url);
            ASSERT_EQ(0, file.open());
            ASSERT_NE(nullptr, file.readAsync(buffer.data(), kBlock, callback));
            EXPECT_EQ(0, file.close());
            EXPECT_EQ(1u, log.all().size()) << "close() returned before the read completed";
        }
        LocalFile next(other);
        ASSERT_EQ(0, next.open());
        ASSERT_TRUE(log.waitFor(1));
        EXPECT_EQ(0, next.tell()) << "a read of the closed file moved the next file";
        EXPECT_EQ(1u, log.all().size());
    }
}

class OpenFailureTest : public LocalFileTest, public ::testing::WithParamInterface<const char*> {};

// A FIFO without a writer fails at once instead of waiting for one.
TEST_P(OpenFailureTest, FailsAtOnceAndKeepsNoDescriptor) {
    std::string url = GetParam();
    if (url.find('@') != std::string::npos) url.replace(url.find('@'), 1, dir_.path());
    const std::string fifo = dir_.file("fifo");
    ASSERT_EQ(0, mkfifo(fifo.c_str(), 0600));
    const int before = openDescriptorCount();
    ASSERT_GT(before, 0);
    {
        LocalFile file(url);
        std::future<int> opened = std::async(std::launch::async, [&file] { return file.open(); });
        if (opened.wait_for(testing_support::kWait) != std::future_status::ready) {
            ADD_FAILURE() << "open() of " << url << " blocked";
            const int writer = ::open(fifo.c_str(), O_WRONLY);  // lets it go
            opened.wait();
            ::close(writer);
        }
        EXPECT_EQ(-1, opened.get()) << url;
        EXPECT_EQ(before, openDescriptorCount()) << "a descriptor stayed open for " << url;
        EXPECT_EQ(100, file.cachePercent());
        EXPECT_EQ(0, file.error());
        EXPECT_EQ(0, file.close());
    }
    EXPECT_EQ(before, openDescriptorCount());
}

const char* const kOpenFailureNames[] = {"MissingPath", "Directory", "Device", "PrefixAlone",
                                         "Fifo"};

// "@" stands for the temporary directory.
INSTANTIATE_TEST_SUITE_P(Sources, OpenFailureTest,
                         ::testing::Values("file://@/no-such-file", "file://@", "file:///dev/null",
                                           "file://", "file://@/fifo"),
                         [](const ::testing::TestParamInfo<const char*>& info) {
                             return std::string(kOpenFailureNames[info.index]);
                         });

TEST_F(LocalFileTest, RelativePathOpensFromTheCurrentDirectory) {
    std::vector<char> bytes;
    makeFile("rel", 40, &bytes);
    char cwd[4096];
    ASSERT_NE(nullptr, getcwd(cwd, sizeof cwd));
    ASSERT_EQ(0, chdir(dir_.path().c_str()));
    LocalFile file("file://rel");
    const int opened = file.open();
    ASSERT_EQ(0, chdir(cwd));  // back before anything can fail
    ASSERT_EQ(0, opened);
    char buffer[40];
    ASSERT_EQ(40, file.read(buffer, 40));
    EXPECT_EQ(0, memcmp(bytes.data(), buffer, 40));
}

TEST_F(LocalFileTest, CloseTwiceAndDestructionCloseTheDescriptorOnce) {
    const std::string url = makeFile("twice", 10);
    const int before = openDescriptorCount();
    {
        LocalFile dropped(url);
        ASSERT_EQ(0, dropped.open());
        EXPECT_EQ(before + 1, openDescriptorCount());
    }
    EXPECT_EQ(before, openDescriptorCount()) << "destruction left the descriptor open";

    LocalFile file(url);
    ASSERT_EQ(0, file.open());
    EXPECT_EQ(0, file.close());
    EXPECT_EQ(before, openDescriptorCount());
    // The freed number goes to the next open; a second close must leave it.
    const int other = ::open(url.substr(7).c_str(), O_RDONLY);
    ASSERT_NE(-1, other);
    EXPECT_EQ(0, file.close());
    EXPECT_NE(-1, fcntl(other, F_GETFD)) << "second close closed someone else's descriptor";
    ::close(other);
}

TEST_F(LocalFileTest, PrintsItsLinesExactly) {
    const std::string url = makeFile("lines", 10);
    const std::string path = url.substr(7), missing = dir_.file("missing");
    char buffer[4];
    std::string f;
    void* requests[2] = {};
    CompletionLog log;
    CompletionLog::Callback good(log, 0), bad(log, 1);
    const std::string out = testing_support::capturedStdout([&] {
        // Capturing holds a descriptor of its own: the file gets the next one.
        const int fd = ::open("/dev/null", O_RDONLY);
        ::close(fd);
        f = std::to_string(fd);
        LocalFile absent("file://" + missing);
        absent.open();
        LocalFile file(url);
        file.open();
        file.seek(3, File::kSeekSet);
        file.read(buffer, 4);
        file.available();
        requests[0] = file.readAsync(buffer, 2, good);
        log.waitFor(1);
        file.seek(INT32_MAX, File::kSeekSet);
        file.seek(1, File::kSeekCurrent);
        file.available();
        file.seek(0, File::kSeekSet);
        // The system cannot store into a null buffer: the read itself fails.
        requests[1] = file.readAsync(nullptr, 1, bad);
        log.waitFor(2);
        EXPECT_EQ(0, file.tell()) << "a failed read moved the position";
    });
    ASSERT_EQ(2u, log.all().size());
    EXPECT_EQ(velka::kStatusError, log.all()[1].status);
    EXPECT_EQ(0u, log.all()[1].length);

    char handles[2][32];
    for (int i = 0; i < 2; ++i) snprintf(handles[i], sizeof handles[i], "%p", requests[i]);
    const std::string expected =
        "local file open " + missing + " fd -1\n" +
        "local file open " + path + " fd " + f + "\n" +
        "local file seek whence 0 off 3 fd " + f + "\n" +
        "local file read length 4 fd " + f + "\n" +
        "local file available fd " + f + "\n" +
        "local file length fd " + f + " len 10\n" +
        "local file tell fd " + f + "\n" +
        "local file available 3\n" +
        "local file tell fd " + f + "\n" +
        "local file readAsync length 2 off 7 fd " + f + " " + handles[0] + "\n" +
        "local file seek whence 0 off 2147483647 fd " + f + "\n" +
        "local file seek whence 1 off 1 fd " + f + "\n" +
        "local file available fd " + f + "\n" +
        "local file length fd " + f + " len 10\n" +
        "local file tell fd " + f + "\n" +
        "local file available fail\n" +
        "local file seek whence 0 off 0 fd " + f + "\n" +
        "local file tell fd " + f + "\n" +
        "local file readAsync length 1 off 0 fd " + f + " " + handles[1] + "\n" +
        "aio_complete_cb fail 14\n" +  // EFAULT
        "local file tell fd " + f + "\n";
    EXPECT_EQ(expected, out);
}

// The dying child re-runs the test from its start: these make no files, they
// read the test program itself.
TEST(LocalFileDeathTest, BrokenPreconditionsAssert) {
    // Notification threads may exist: re-execute instead of forking.
    testing_support::useThreadsafeDeathTests();
    char buffer[4];
    LocalFile unopened("file:///proc/self/exe");
    EXPECT_DEATH(unopened.read(buffer, 4), "fd_ != -1");
    LocalFile missing("file:///nonexistent/velka-missing");
    ASSERT_EQ(-1, missing.open());
    EXPECT_DEATH(missing.tell(), "fd_ != -1");
    LocalFile other("http://example/a.ts");
    EXPECT_DEATH(other.open(), "url_\\.find\\(\"file://\"\\) == 0");
    EXPECT_DEATH(unopened.cancel(nullptr), "asyncReq != __null");
}

}  // namespace
