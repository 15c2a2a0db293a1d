// DtaFile and its worker against the download engine stand-in: data through
// blocking and chained asynchronous reads, the cancel rules, queue order
// across files, the seek table, error codes, and the engine's start-up.

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <climits>
#include <cstdint>
#include <cstring>
#include <future>
#include <memory>
#include <string>
#include <vector>

#include "DtaTestSupport.h"
#include "TempDataFile.h"
#include "bctidta_control.h"
#include "velka/DtaFile.h"

namespace {

namespace control = bctidta::control;
using dtatest::Completion;
using dtatest::CompletionLog;
using dtatest::GateCallback;
using dtatest::kWaitMs;
using dtatest::LoggingCallback;
using velka::DtaFile;
using velka::File;

class DtaFileTest : public ::testing::Test {
protected:
    void SetUp() override { control::reset(); }
    void TearDown() override { control::reset(); }

    // An opened DtaFile for `data`; closed and deleted with the fixture.
    DtaFile& openFile(const TempDataFile& data) {
        files_.emplace_back(new DtaFile(data.dtaUrl()));
        DtaFile& file = *files_.back();
        EXPECT_EQ(0, file.open());
        EXPECT_EQ(data.size(), file.length());
        return file;
    }

    ~DtaFileTest() override {
        for (auto& file : files_) file->close();
    }

    std::vector<std::unique_ptr<DtaFile>> files_;
};

// Reads a whole file with asynchronous reads, each issued from inside the
// completion of the one before, the way the playback engine pulls.
class ChainedReader : public File::AsyncCallback {
public:
    ChainedReader(File& file, uint32_t chunk) : file_(file), buffer_(chunk) {}

    void start() { issue(); }

    void complete(velka::VelkaStatus status, uint32_t length) override {
        std::unique_lock<std::mutex> lock(mutex_);
        statuses_.push_back(status);
        if (status == velka::kStatusOk && length > 0 && statuses_.size() < kMaxReads) {
            data_.insert(data_.end(), buffer_.begin(), buffer_.begin() + length);
            lock.unlock();
            issue();
            return;
        }
        done_ = true;
        changed_.notify_all();
    }

    bool waitDone() {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_for(lock, std::chrono::milliseconds(kWaitMs), [this] { return done_; });
    }
    const std::vector<char>& data() const { return data_; }
    const std::vector<velka::VelkaStatus>& statuses() const { return statuses_; }

private:
    static const size_t kMaxReads = 100000;

    void issue() { ASSERT_NE(nullptr, file_.readAsync(buffer_.data(), buffer_.size(), *this)); }

    File& file_;
    std::vector<char> buffer_;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<char> data_;
    std::vector<velka::VelkaStatus> statuses_;
    bool done_ = false;
};

// How the engine behaves while a file is read through.
struct EnginePace {
    const char* name;
    uint32_t chunkBytes;   // download chunk, 0 = default
    uint32_t chunkDelayMs;  // pause after each chunk
    uint32_t readLimit;     // most bytes per readData, 0 = all wanted
    uint32_t readDelayMs;   // wait before each readData answers
};

const EnginePace kPaces[] = {
    {"Prompt", 0, 0, 0, 0},
    {"SlowDownload", 3000, 1, 0, 0},
    {"ShortReads", 0, 0, 1111, 0},
    {"SlowShortReads", 5000, 1, 7000, 1},
};

class DtaFileDataTest : public DtaFileTest, public ::testing::WithParamInterface<EnginePace> {
protected:
    void SetUp() override {
        DtaFileTest::SetUp();
        const EnginePace& pace = GetParam();
        control::setDownloadPace(pace.chunkBytes, pace.chunkDelayMs);
        control::setReadLimit(pace.readLimit);
        control::setReadDelay(pace.readDelayMs);
    }
};

TEST_P(DtaFileDataTest, ChainedAsyncReadsDeliverTheFileByteExact) {
    TempDataFile data(150 * 1024 + 333, 21);
    DtaFile& file = openFile(data);
    ChainedReader reader(file, 16 * 1024);
    reader.start();
    ASSERT_TRUE(reader.waitDone());
    EXPECT_EQ(data.bytes(), reader.data());
    ASSERT_FALSE(reader.statuses().empty());
    EXPECT_EQ(velka::kStatusEndOfFile, reader.statuses().back());
    for (size_t i = 0; i + 1 < reader.statuses().size(); ++i) {
        ASSERT_EQ(velka::kStatusOk, reader.statuses()[i]) << "read " << i;
    }
    EXPECT_EQ(data.size(), file.tell());
    EXPECT_EQ(0, file.available());
}

TEST_P(DtaFileDataTest, BlockingReadsDeliverTheFileByteExact) {
    TempDataFile data(150 * 1024 + 333, 22);
    DtaFile& file = openFile(data);
    std::vector<char> got;
    std::vector<char> buffer(10000);
    for (int i = 0; i < 100000; ++i) {
        int n = file.read(buffer.data(), buffer.size());
        ASSERT_GE(n, 0);
        if (n == 0) break;
        got.insert(got.end(), buffer.begin(), buffer.begin() + n);
        ASSERT_EQ(static_cast<int64_t>(got.size()), file.tell());
    }
    EXPECT_EQ(data.bytes(), got);
    control::Calls before = control::calls();
    EXPECT_EQ(0, file.read(buffer.data(), buffer.size()));
    EXPECT_EQ(before.readData, control::calls().readData) << "a read at the end stays off the engine";
}

INSTANTIATE_TEST_SUITE_P(EnginePaces, DtaFileDataTest, ::testing::ValuesIn(kPaces),
                         [](const ::testing::TestParamInfo<EnginePace>& info) {
                             return std::string(info.param.name);
                         });

TEST_F(DtaFileTest, EngineBuiltOnceForTwoFilesInItsWorkingDirectory) {
    TempDataFile a(1000, 31);
    TempDataFile b(2000, 32);
    control::Calls before = control::calls();
    DtaFile unopened(a.dtaUrl());
    EXPECT_EQ(before.openUrl, control::calls().openUrl) << "construction leaves the engine alone";

    DtaFile& fileA = openFile(a);
    DtaFile& fileB = openFile(b);
    control::Calls after = control::calls();
    EXPECT_EQ(1, after.initEngine);
    EXPECT_EQ(0, after.uninitEngine);
    EXPECT_EQ("/tmp/velka", control::lastInitDirectory());
    struct stat st;
    ASSERT_EQ(0, stat("/tmp/velka", &st));
    EXPECT_TRUE(S_ISDIR(st.st_mode));

    // Both files are served by the one worker, which registered for events once.
    CompletionLog log;
    LoggingCallback ca(log, 1), cb(log, 2);
    std::vector<char> bufA(100), bufB(100);
    ASSERT_NE(nullptr, fileA.readAsync(bufA.data(), 100, ca));
    ASSERT_NE(nullptr, fileB.readAsync(bufB.data(), 100, cb));
    ASSERT_TRUE(log.waitForCount(2));
    EXPECT_EQ(a.slice(0, 100), bufA);
    EXPECT_EQ(b.slice(0, 100), bufB);
    EXPECT_EQ(1, control::calls().setEventCallback);
    EXPECT_EQ(1, control::calls().initEngine);
}

TEST_F(DtaFileTest, CancelQueuedRequestButNotOneTheWorkerTook) {
    TempDataFile data(20000, 41);
    DtaFile& file = openFile(data);
    std::vector<char> first(4096), second(4096), third(4096);

    // The worker completes the first request and stays in its completion.
    GateCallback gate;
    void* taken = file.readAsync(first.data(), first.size(), gate);
    ASSERT_NE(nullptr, taken);
    ASSERT_TRUE(gate.waitEntered());
    control::Calls before = control::calls();

    CompletionLog log;
    LoggingCallback queuedCallback(log, 2);
    void* queued = file.readAsync(second.data(), second.size(), queuedCallback);
    ASSERT_NE(nullptr, queued);
    EXPECT_EQ(0, file.cancel(queued));
    EXPECT_EQ(0, file.cancel(queued)) << "a second cancel before it is served";
    EXPECT_EQ(-1, file.cancel(taken));

    gate.release();
    ASSERT_TRUE(log.waitForCount(1));
    EXPECT_EQ(velka::kStatusOk, gate.status());
    EXPECT_EQ(4096u, gate.length());
    EXPECT_EQ(data.slice(0, 4096), first);
    std::vector<Completion> completions = log.all();
    ASSERT_EQ(1u, completions.size());
    EXPECT_EQ(velka::kStatusCancelled, completions[0].status);
    EXPECT_EQ(0u, completions[0].length);
    EXPECT_EQ(before.readData, control::calls().readData) << "the cancelled request never reached the engine";
    EXPECT_EQ(4096, file.tell());

    // The cancelled request took nothing: the next read goes on after the first.
    LoggingCallback next(log, 3);
    ASSERT_NE(nullptr, file.readAsync(third.data(), third.size(), next));
    ASSERT_TRUE(log.waitForCount(2));
    EXPECT_EQ(velka::kStatusOk, log.all()[1].status);
    EXPECT_EQ(data.slice(4096, 4096), third);
}

TEST_F(DtaFileTest, CancelIsNotBlockedByAnEngineReadOfAnotherFile) {
    TempDataFile a(10000, 42);
    TempDataFile b(10000, 43);
    DtaFile& fileA = openFile(a);
    DtaFile& fileB = openFile(b);
    std::vector<char> bufA(1000), bufB(1000);
    CompletionLog log;
    LoggingCallback ca(log, 1), cb(log, 2);

    control::holdReads();
    ASSERT_NE(nullptr, fileA.readAsync(bufA.data(), 1000, ca));
    ASSERT_TRUE(control::waitForHeldReads(1, kWaitMs));  // the worker is inside the engine
    // On a helper thread, so that a worker holding its queue lock through the
    // engine read makes the test fail instead of hang.
    std::future<int> cancelled = std::async(std::launch::async, [&] {
        void* request = fileB.readAsync(bufB.data(), 1000, cb);
        return fileB.cancel(request);
    });
    bool answered = cancelled.wait_for(std::chrono::milliseconds(kWaitMs)) == std::future_status::ready;
    control::releaseReads();
    ASSERT_TRUE(answered) << "queueing or cancelling waited for the worker's engine read";
    EXPECT_EQ(0, cancelled.get());

    ASSERT_TRUE(log.waitForCount(2));
    std::vector<Completion> completions = log.all();
    EXPECT_EQ(1, completions[0].tag);
    EXPECT_EQ(velka::kStatusOk, completions[0].status);
    EXPECT_EQ(a.slice(0, 1000), bufA);
    EXPECT_EQ(2, completions[1].tag);
    EXPECT_EQ(velka::kStatusCancelled, completions[1].status);
    EXPECT_EQ(0, fileB.tell());
}

TEST_F(DtaFileTest, QueuedRequestsOfTwoFilesCompleteInQueueOrder) {
    TempDataFile a(30000, 51);
    TempDataFile b(30000, 52);
    DtaFile& fileA = openFile(a);
    DtaFile& fileB = openFile(b);

    struct Request {
        DtaFile* file;
        const TempDataFile* data;
        int64_t offset;
        uint32_t length;
    };
    const Request requests[] = {
        {&fileA, &a, 0, 1000},    {&fileB, &b, 0, 3000}, {&fileA, &a, 1000, 2000},
        {&fileB, &b, 3000, 500},  {&fileA, &a, 3000, 7}, {&fileA, &a, 3007, 4000},
    };
    const size_t count = sizeof(requests) / sizeof(requests[0]);
    CompletionLog log;
    std::vector<std::unique_ptr<LoggingCallback>> callbacks;
    std::vector<std::vector<char>> buffers;
    for (size_t i = 0; i < count; ++i) {
        callbacks.emplace_back(new LoggingCallback(log, static_cast<int>(i)));
        buffers.emplace_back(requests[i].length);
    }

    // Everything is queued while the worker is held inside its first engine read.
    control::holdReads();
    for (size_t i = 0; i < count; ++i) {
        ASSERT_NE(nullptr, requests[i].file->readAsync(buffers[i].data(), requests[i].length,
                                                        *callbacks[i]));
        if (i == 0) {
            ASSERT_TRUE(control::waitForHeldReads(1, kWaitMs));
        }
    }
    control::releaseReads();
    ASSERT_TRUE(log.waitForCount(count));

    std::vector<Completion> completions = log.all();
    for (size_t i = 0; i < count; ++i) {
        SCOPED_TRACE(i);
        EXPECT_EQ(static_cast<int>(i), completions[i].tag);
        EXPECT_EQ(velka::kStatusOk, completions[i].status);
        EXPECT_EQ(requests[i].length, completions[i].length);
        EXPECT_EQ(requests[i].data->slice(requests[i].offset, requests[i].length), buffers[i]);
    }
    EXPECT_EQ(7007, fileA.tell());
    EXPECT_EQ(3500, fileB.tell());
}

TEST_F(DtaFileTest, SeekTableAndWhenTheEngineIsTold) {
    const int64_t L = 1000;
    TempDataFile data(static_cast<size_t>(L), 61);
    DtaFile& file = openFile(data);

    struct Case {
        int64_t from;  // position before the seek
        int whence;
        int64_t offset;
        int64_t expected;
        bool engineTold;
    };
    const Case cases[] = {
        {600, File::kSeekSet, 0, 0, true},
        {600, File::kSeekSet, -5, 0, true},
        {600, File::kSeekSet, 500, 500, true},
        {600, File::kSeekSet, L - 1, L - 1, false},
        {600, File::kSeekSet, L, L - 1, false},
        {600, File::kSeekSet, L + 100, L - 1, false},
        {600, File::kSeekCurrent, 100, 700, true},
        {600, File::kSeekCurrent, 0, 600, true},
        {600, File::kSeekCurrent, L - 600, L, true},
        {600, File::kSeekCurrent, L - 599, L - 1, false},
        {600, File::kSeekCurrent, INT64_MAX, L - 1, false},
        {600, File::kSeekCurrent, -100, 500, true},
        {600, File::kSeekCurrent, -600, 0, true},
        {600, File::kSeekCurrent, -601, 0, true},
        {600, File::kSeekEnd, 0, L, true},
        {600, File::kSeekEnd, 1, L - 1, false},
        {600, File::kSeekEnd, -10, L - 10, true},
        {600, File::kSeekEnd, -L, 0, true},
        {600, File::kSeekEnd, -L - 1, 0, true},
        {600, File::kSeekEnd, INT64_MIN, 0, true},
        {600, 7, 0, L, true},  // any other origin counts from the end
        {600, 7, 5, L - 1, false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(::testing::Message() << "whence " << c.whence << " offset " << c.offset);
        ASSERT_EQ(c.from, file.seek(c.from, File::kSeekSet));
        control::Calls before = control::calls();
        EXPECT_EQ(c.expected, file.seek(c.offset, static_cast<File::Whence>(c.whence)));
        EXPECT_EQ(c.expected, file.tell());
        EXPECT_EQ(L - c.expected, file.available());
        EXPECT_EQ(c.engineTold ? 1 : 0, control::calls().seekTask - before.seekTask);
        if (c.engineTold) {
            control::SeekCall seek = control::lastSeek();
            EXPECT_EQ(0, seek.origin);
            EXPECT_EQ(c.expected, seek.position);
            EXPECT_EQ(0, seek.flags);
        }
    }
}

TEST_F(DtaFileTest, ReadsContinueWhereTheEngineWasSent) {
    TempDataFile data(100000, 62);
    DtaFile& file = openFile(data);
    const int64_t positions[] = {70000, 5, 99990, 40000};
    std::vector<char> buffer(300);
    for (int64_t position : positions) {
        SCOPED_TRACE(position);
        ASSERT_EQ(position, file.seek(position, File::kSeekSet));
        int n = file.read(buffer.data(), 300);
        ASSERT_GT(n, 0);
        EXPECT_EQ(data.slice(position, 300), std::vector<char>(buffer.begin(), buffer.begin() + n));
        EXPECT_EQ(position + n, file.tell());
    }
    // Asynchronous reads follow a seek too.
    ASSERT_EQ(123, file.seek(123, File::kSeekSet));
    CompletionLog log;
    LoggingCallback callback(log, 1);
    ASSERT_NE(nullptr, file.readAsync(buffer.data(), 300, callback));
    ASSERT_TRUE(log.waitForCount(1));
    EXPECT_EQ(data.slice(123, 300), buffer);
}

TEST_F(DtaFileTest, ErrorMapsEngineStates) {
    TempDataFile data(1000, 71);
    DtaFile& file = openFile(data);
    EXPECT_EQ(0, file.error()) << "the engine's own state of a running task";
    struct Case {
        int32_t state;
        int expected;
    };
    const Case cases[] = {{0, 0}, {1, 0}, {2, 0}, {3, 5}, {4, 6}, {5, 0}, {7, 0}, {1000, 0}, {-1, 0}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.state);
        control::setReportedState(c.state);
        EXPECT_EQ(c.expected, file.error());
    }
}

TEST_F(DtaFileTest, NoQueryWithoutAHandleAboveZero) {
    control::setOpenUrlResult(0);
    DtaFile file("dta-test:///whatever");
    EXPECT_EQ(-1, file.open()) << "the engine has no task 0 to start";
    control::Calls before = control::calls();
    control::setReportedState(3);
    EXPECT_EQ(0, file.error());
    EXPECT_EQ(0, file.cachePercent());
    EXPECT_EQ(before.queryTask, control::calls().queryTask);
    file.close();

    DtaFile never("dta-test:///whatever");
    EXPECT_EQ(0, never.error());
    EXPECT_EQ(0, never.cachePercent());
    EXPECT_EQ(before.queryTask, control::calls().queryTask);
}

TEST_F(DtaFileTest, StartFailureFailsOpenAndKeepsTheHandleForClose) {
    TempDataFile data(1000, 72);
    control::setStartTaskResult(-9);
    DtaFile refused(data.dtaUrl());
    EXPECT_EQ(-1, refused.open());
    EXPECT_EQ(5, refused.error()) << "the task could not be opened";
    control::Calls before = control::calls();
    ::testing::internal::CaptureStdout();
    EXPECT_EQ(0, refused.close());
    std::string out = ::testing::internal::GetCapturedStdout();
    EXPECT_EQ(1, control::calls().closeTask - before.closeTask);
    EXPECT_NE(std::string::npos, out.find("DtaFile close1111\n"));

    control::reset();
    DtaFile missing("dta-test:///nonexistent/velka/missing.ts");
    EXPECT_EQ(-1, missing.open());
    EXPECT_EQ(5, missing.error());
    missing.close();
}

TEST_F(DtaFileTest, FailedEngineReadKeepsThePosition) {
    TempDataFile data(10000, 73);
    DtaFile& file = openFile(data);
    std::vector<char> buffer(500);
    ASSERT_EQ(500, file.read(buffer.data(), 500));

    control::setReadResult(-3);
    EXPECT_EQ(-1, file.read(buffer.data(), 500));
    EXPECT_EQ(500, file.tell());
    CompletionLog log;
    LoggingCallback failed(log, 1);
    ASSERT_NE(nullptr, file.readAsync(buffer.data(), 500, failed));
    ASSERT_TRUE(log.waitForCount(1));
    EXPECT_EQ(velka::kStatusError, log.all()[0].status);
    EXPECT_EQ(0u, log.all()[0].length);
    EXPECT_EQ(500, file.tell());

    control::setReadResult(0);
    LoggingCallback retried(log, 2);
    ASSERT_NE(nullptr, file.readAsync(buffer.data(), 500, retried));
    ASSERT_TRUE(log.waitForCount(2));
    EXPECT_EQ(velka::kStatusOk, log.all()[1].status);
    EXPECT_EQ(data.slice(500, 500), buffer);
}

TEST_F(DtaFileTest, AsyncReadAtTheEndStaysOffTheEngine) {
    TempDataFile data(3000, 74);
    DtaFile& file = openFile(data);
    ASSERT_EQ(data.size(), file.seek(0, File::kSeekEnd));
    control::Calls before = control::calls();
    CompletionLog log;
    LoggingCallback callback(log, 1);
    std::vector<char> buffer(100);
    ASSERT_NE(nullptr, file.readAsync(buffer.data(), 100, callback));
    ASSERT_TRUE(log.waitForCount(1));
    EXPECT_EQ(velka::kStatusEndOfFile, log.all()[0].status);
    EXPECT_EQ(0u, log.all()[0].length);
    EXPECT_EQ(0, file.read(buffer.data(), 100));
    EXPECT_EQ(before.readData, control::calls().readData);
}

TEST_F(DtaFileTest, CachePercentComesFromTheEngine) {
    TempDataFile data(5000, 75);
    DtaFile& file = openFile(data);
    ASSERT_TRUE(control::waitForDownloadsIdle(kWaitMs));
    EXPECT_EQ(100, file.cachePercent());
}

TEST_F(DtaFileTest, CloseTwiceReleasesTheTaskOnce) {
    TempDataFile data(1000, 76);
    DtaFile file(data.dtaUrl());
    ASSERT_EQ(0, file.open());
    // No engine event line may fall into the captured output.
    ASSERT_TRUE(control::waitForDownloadsIdle(kWaitMs));
    int tasks = control::openTaskCount();
    control::Calls before = control::calls();
    ::testing::internal::CaptureStdout();
    EXPECT_EQ(0, file.close());
    std::string first = ::testing::internal::GetCapturedStdout();
    ::testing::internal::CaptureStdout();
    EXPECT_EQ(0, file.close());
    std::string second = ::testing::internal::GetCapturedStdout();

    EXPECT_EQ(1, control::calls().closeTask - before.closeTask);
    EXPECT_EQ(tasks - 1, control::openTaskCount());
    size_t at = first.find("DtaFile close\nDtaFile close1111\ndta close handle ");
    EXPECT_NE(std::string::npos, at) << first;
    EXPECT_NE(std::string::npos, first.find("\nDtaFile close success\n", at)) << first;
    EXPECT_EQ("DtaFile close\nDtaFile close success\n", second);
}

TEST(DtaFileDeathTest, ReadsNeedAHandle) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    DtaFile file("dta-test:///whatever");
    char buffer[10];
    dtatest::CompletionLog log;
    LoggingCallback callback(log, 1);
    int dummy = 0;
    EXPECT_DEATH(file.read(buffer, sizeof(buffer)), "Assertion `handle_ != -1' failed");
    EXPECT_DEATH(file.readAsync(buffer, sizeof(buffer), callback), "Assertion `handle_ != -1' failed");
    EXPECT_DEATH(file.cancel(&dummy), "Assertion `handle_ != -1' failed");
}

}  // namespace
