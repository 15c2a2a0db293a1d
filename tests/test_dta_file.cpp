// DtaFile and its worker against the download engine stand-in: queue order
// and cancels across files while the engine holds a read, the engine's part of
// seeks, error codes, the engine's start-up, and in child processes the engine
// that fails to initialise and the tear-down at process exit. What every
// source promises, also at the engine's slow and short paces, is in
// test_file_contract.cpp.

#include <dirent.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <climits>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <future>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include "TestSupport.h"
#include "bctidta_control.h"
#include "velka/DtaFile.h"

namespace {

namespace control = bctidta::control;
using testing_support::ChainedReader;
using testing_support::Completion;
using testing_support::CompletionLog;
using testing_support::Got;
using testing_support::kWaitMs;
using testing_support::readOnce;
using testing_support::TempDataFile;
using velka::DtaFile;
using velka::File;

class DtaFileTest : public ::testing::Test {
protected:
    void SetUp() override { control::reset(); }
    void TearDown() override {
        for (auto& file : files_) file->close();
        control::reset();
    }

    // An opened DtaFile for `data`; closed with the fixture.
    DtaFile& openFile(const TempDataFile& data) {
        files_.emplace_back(new DtaFile(data.dtaUrl()));
        EXPECT_EQ(0, files_.back()->open());
        EXPECT_EQ(data.size(), files_.back()->length());
        return *files_.back();
    }

    std::vector<std::unique_ptr<DtaFile>> files_;
};

// Everything after the first request is queued, and one request of file B
// cancelled, while the worker is held inside its first engine read: neither
// may wait for that read, and the requests complete in queue order. The one
// engine is built once, by the first open.
TEST_F(DtaFileTest, RequestsOfTwoFilesCompleteInQueueOrderAndCancelDoesNotWaitForTheEngine) {
    TempDataFile a(30000, 51), b(30000, 52);
    const int openUrlBefore = control::calls().openUrl;
    DtaFile unopened(a.dtaUrl());
    EXPECT_EQ(openUrlBefore, control::calls().openUrl) << "construction leaves the engine alone";
    DtaFile& fileA = openFile(a);
    DtaFile& fileB = openFile(b);
    struct Request {
        DtaFile* file;
        const TempDataFile* data;
        int64_t offset;
        uint32_t length;
    } const requests[] = {
        {&fileA, &a, 0, 1000},   {&fileB, &b, 0, 3000}, {&fileA, &a, 1000, 2000},
        {&fileB, &b, 3000, 500}, {&fileA, &a, 3000, 7}, {&fileA, &a, 3007, 4000},
        {&fileB, &b, 3500, 100},  // cancelled
    };
    constexpr int kCount = 7;
    CompletionLog log;
    std::vector<std::unique_ptr<CompletionLog::Callback>> callbacks;
    std::vector<std::vector<char>> buffers;
    for (int i = 0; i < kCount; ++i) {
        callbacks.emplace_back(new CompletionLog::Callback(log, i));
        buffers.emplace_back(requests[i].length);
    }
    auto issue = [&](int i) {
        return requests[i].file->readAsync(buffers[i].data(), requests[i].length, *callbacks[i]);
    };

    control::holdReads();
    ASSERT_NE(nullptr, issue(0));
    ASSERT_TRUE(control::waitForHeldReads(1, kWaitMs));
    // On a helper thread, so that a worker holding its queue lock through the
    // engine read makes the test fail instead of hang.
    std::future<int> queued = std::async(std::launch::async, [&] {
        for (int i = 1; i + 1 < kCount; ++i) {
            if (issue(i) == nullptr) return -2;
        }
        return fileB.cancel(issue(kCount - 1));
    });
    const bool answered = queued.wait_for(testing_support::kWait) == std::future_status::ready;
    control::releaseReads();
    EXPECT_TRUE(answered) << "queueing or cancelling waited for the worker's engine read";
    EXPECT_EQ(0, queued.get());
    ASSERT_TRUE(log.waitFor(kCount));

    const std::vector<Completion> completions = log.all();
    for (int i = 0; i < kCount; ++i) {
        SCOPED_TRACE(i);
        const bool cancelled = i == kCount - 1;
        EXPECT_EQ(i, completions[i].tag);
        EXPECT_EQ(cancelled ? velka::kStatusCancelled : velka::kStatusOk, completions[i].status);
        EXPECT_EQ(cancelled ? 0 : requests[i].length, completions[i].length);
        if (!cancelled) {
            EXPECT_EQ(requests[i].data->slice(requests[i].offset, requests[i].length), buffers[i]);
        }
    }
    EXPECT_EQ(7007, fileA.tell());
    EXPECT_EQ(3500, fileB.tell());
    // Both files were served by the one worker, which built the engine in its
    // working directory and registered for events once.
    EXPECT_EQ(1, control::calls().setEventCallback);
    EXPECT_EQ(1, control::calls().initEngine);
    EXPECT_EQ(0, control::calls().uninitEngine);
    EXPECT_EQ("/tmp/velka", control::lastInitDirectory());
}

// The engine's stop cancels the reads it has outstanding, and the player's
// close closes and destroys the file, while the network stalls a read inside
// the engine: neither may wait for that read. The held read completes once,
// cancelled, when the engine returns it, and no more touches the gone file.
TEST_F(DtaFileTest, CancelAndCloseDoNotWaitForAReadTheEngineHolds) {
    TempDataFile data(30000, 53), other(1000, 54);
    std::unique_ptr<DtaFile> file(new DtaFile(data.dtaUrl()));
    ASSERT_EQ(0, file->open());
    DtaFile& next = openFile(other);
    std::vector<char> held(4096), queued(4096), after(100);
    CompletionLog log;
    CompletionLog::Callback heldCallback(log, 1), queuedCallback(log, 2), afterCallback(log, 3);

    control::holdReads();
    void* inEngine = file->readAsync(held.data(), held.size(), heldCallback);
    ASSERT_NE(nullptr, inEngine);
    ASSERT_TRUE(control::waitForHeldReads(1, kWaitMs));
    void* waiting = file->readAsync(queued.data(), queued.size(), queuedCallback);
    ASSERT_NE(nullptr, waiting);
    // On a helper thread, so that a cancel or close that waits for the held
    // read makes the test fail instead of hang.
    std::future<std::vector<int>> stopped = std::async(std::launch::async, [&] {
        std::vector<int> results = {file->cancel(inEngine), file->cancel(waiting), file->close()};
        file.reset();
        return results;
    });
    const bool answered = stopped.wait_for(testing_support::kWait) == std::future_status::ready;
    const std::vector<Completion> beforeRelease = log.all();
    control::releaseReads();
    ASSERT_TRUE(answered) << "cancel or close waited for the engine's read";
    EXPECT_EQ((std::vector<int>{-1, 0, 0}), stopped.get());
    ASSERT_EQ(1u, beforeRelease.size());
    EXPECT_TRUE(beforeRelease[0].tag == 2 && beforeRelease[0].status == velka::kStatusCancelled);

    // The worker serves in order: once the next file's read is done, the held
    // one has completed as often as it ever will.
    ASSERT_NE(nullptr, next.readAsync(after.data(), after.size(), afterCallback));
    ASSERT_TRUE(log.waitFor(3));
    const std::vector<Completion> c = log.all();
    ASSERT_EQ(3u, c.size());
    EXPECT_TRUE(c[1].tag == 1 && c[1].status == velka::kStatusCancelled && c[1].length == 0);
    EXPECT_TRUE(c[2].tag == 3 && c[2].status == velka::kStatusOk && c[2].length == 100);
    EXPECT_EQ(other.slice(0, 100), after);
}

// Every seek reaches the engine, clamped ones too.
TEST_F(DtaFileTest, SeekTableTellsTheEngineEveryPosition) {
    const int64_t L = 1000;
    TempDataFile data(L, 61);
    DtaFile& file = openFile(data);
    struct Case {
        int whence;
        int64_t offset;
        int64_t expected;
    } const cases[] = {
        // The rest of the table is the File contract's.
        {File::kSeekSet, L, L - 1},
        {File::kSeekCurrent, L - 599, L - 1},
        {File::kSeekCurrent, INT64_MAX, L - 1},
        {File::kSeekEnd, 1, L - 1},
        {File::kSeekEnd, INT64_MIN, 0},
        {7, 0, L},  // any other origin counts from the end
        {7, 5, L - 1},
    };
    std::vector<char> buffer(4096);
    for (const Case& c : cases) {
        SCOPED_TRACE(::testing::Message() << "whence " << c.whence << " offset " << c.offset);
        ASSERT_EQ(600, file.seek(600, File::kSeekSet));  // every case starts at 600
        const control::Calls before = control::calls();
        EXPECT_EQ(c.expected, file.seek(c.offset, static_cast<File::Whence>(c.whence)));
        EXPECT_EQ(c.expected, file.tell());
        EXPECT_EQ(L - c.expected, file.available());
        EXPECT_EQ(1, control::calls().seekTask - before.seekTask);
        const control::SeekCall seek = control::lastSeek();
        EXPECT_EQ(0, seek.origin);
        EXPECT_EQ(c.expected, seek.position);
        EXPECT_EQ(0, seek.flags);
    }
    // A read standing at the end gives the end without the engine.
    ASSERT_EQ(L, file.seek(0, File::kSeekEnd));
    const int readsBefore = control::calls().readData;
    Got got;
    ASSERT_TRUE(readOnce(file, 4096, &got));
    EXPECT_EQ(velka::kStatusEndOfFile, got.status);
    EXPECT_EQ(0, file.read(buffer.data(), 100));
    EXPECT_EQ(readsBefore, control::calls().readData);
}

// A stream whose length the engine does not give: positions from the start or
// the current one are taken as asked (never below 0), from the end they fail,
// available() fails, and reading to the end completes with kStatusEndOfFile.
TEST_F(DtaFileTest, UnknownLengthGivesNoNegativeOrMadeUpPositions) {
    control::setLengthUnknown(true);
    TempDataFile data(5000, 63);
    DtaFile file(data.dtaUrl());
    ASSERT_EQ(0, file.open());
    EXPECT_EQ(-1, file.length());
    struct Case {
        int whence;
        int64_t offset;
        int64_t expected;  // -1: fails, the position stays at 600
    } const cases[] = {
        {File::kSeekSet, 700, 700},   {File::kSeekSet, 9000, 9000}, {File::kSeekSet, -5, 0},
        {File::kSeekCurrent, 10, 610}, {File::kSeekCurrent, -700, 0},
        {File::kSeekCurrent, INT64_MAX, -1}, {File::kSeekEnd, 0, -1}, {File::kSeekEnd, -10, -1},
        {File::kSeekEnd, 10, -1},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(::testing::Message() << "whence " << c.whence << " offset " << c.offset);
        ASSERT_EQ(600, file.seek(600, File::kSeekSet));
        EXPECT_EQ(c.expected, file.seek(c.offset, static_cast<File::Whence>(c.whence)));
        EXPECT_EQ(c.expected == -1 ? 600 : c.expected, file.tell());
        EXPECT_EQ(-1, file.available());
    }
    ASSERT_EQ(4000, file.seek(4000, File::kSeekSet));
    ChainedReader reader(file, 300);
    ASSERT_TRUE(reader.run());
    EXPECT_EQ(data.slice(4000, 1000), reader.data);
    EXPECT_EQ(velka::kStatusEndOfFile, reader.statuses.back());
    EXPECT_EQ(5000, file.tell());
    file.close();
}

// The engine buffers 16 KiB ahead, so most seeks leave its buffered window.
TEST_F(DtaFileTest, ReadsFollowTheSeeksAndAFailedReadKeepsThePosition) {
    control::setBufferCapacity(16 * 1024);
    TempDataFile data(100000, 62);
    DtaFile& file = openFile(data);
    std::vector<char> buffer(300);
    for (int64_t position : {70000, 5, 10000, 99990, 40000}) {
        SCOPED_TRACE(position);
        ASSERT_EQ(position, file.seek(position, File::kSeekSet));
        const int n = file.read(buffer.data(), 300);
        ASSERT_GT(n, 0);
        EXPECT_EQ(data.slice(position, 300), std::vector<char>(buffer.begin(), buffer.begin() + n));
        EXPECT_EQ(position + n, file.tell());
    }
    ASSERT_EQ(123, file.seek(123, File::kSeekSet));
    Got got;
    ASSERT_TRUE(readOnce(file, 300, &got));
    EXPECT_EQ(data.slice(123, 300), got.data);

    control::setReadResult(-3);
    EXPECT_EQ(-1, file.read(buffer.data(), 300));
    EXPECT_EQ(423, file.tell());
    ASSERT_TRUE(readOnce(file, 300, &got));
    EXPECT_TRUE(got.status == velka::kStatusError && got.count == 0);
    EXPECT_EQ(423, file.tell());

    control::setReadResult(0);
    ASSERT_TRUE(readOnce(file, 300, &got));
    EXPECT_TRUE(got.status == velka::kStatusOk && got.data == data.slice(423, 300));
}

TEST_F(DtaFileTest, ErrorAndCachePercentComeFromTheEngineOnlyWithAHandleAboveZero) {
    TempDataFile data(1000, 71);
    DtaFile& file = openFile(data);
    ASSERT_TRUE(control::waitForDownloadsIdle(kWaitMs));
    EXPECT_EQ(100, file.cachePercent());
    EXPECT_EQ(0, file.error()) << "the engine's own state of a finished task";
    for (int32_t state : {0, 1, 2, 3, 4, 5, 7, 1000, -1}) {
        control::setReportedState(state);
        EXPECT_EQ(state == 3 ? 5 : state == 4 ? 6 : 0, file.error()) << "state " << state;
    }

    control::setOpenUrlResult(0);
    DtaFile noTask("dta-test:///whatever");
    EXPECT_EQ(-1, noTask.open()) << "the engine has no task 0 to start";
    DtaFile never("dta-test:///whatever");
    const control::Calls before = control::calls();
    for (DtaFile* f : {&noTask, &never}) {
        EXPECT_EQ(0, f->error());
        EXPECT_EQ(0, f->cachePercent());
    }
    EXPECT_EQ(before.queryTask, control::calls().queryTask);
    noTask.close();
}

TEST_F(DtaFileTest, FailedStartFailsOpenAndCloseReleasesTheTaskOnce) {
    TempDataFile data(1000, 72);
    control::setStartTaskResult(-9);
    DtaFile refused(data.dtaUrl());
    EXPECT_EQ(-1, refused.open());
    EXPECT_EQ(5, refused.error()) << "the task could not be opened";
    ASSERT_TRUE(control::waitForDownloadsIdle(kWaitMs));  // no engine event line in the capture
    const int tasks = control::openTaskCount();
    const control::Calls before = control::calls();
    const std::string first =
        testing_support::capturedStdout([&] { EXPECT_EQ(0, refused.close()); });
    const std::string second =
        testing_support::capturedStdout([&] { EXPECT_EQ(0, refused.close()); });
    EXPECT_EQ(1, control::calls().closeTask - before.closeTask);
    EXPECT_EQ(tasks - 1, control::openTaskCount());
    EXPECT_THAT(first, ::testing::MatchesRegex("DtaFile close\nDtaFile close1111\n"
                                               "dta close handle [0-9]+\nDtaFile close success\n"));
    EXPECT_EQ("DtaFile close\nDtaFile close success\n", second);

    control::reset();
    DtaFile missing("dta-test:///nonexistent/velka/missing.ts");
    EXPECT_EQ(-1, missing.open());
    EXPECT_EQ(5, missing.error());
    missing.close();
}

// The child processes below start without a worker; each prints its report on
// standard error as its last words.

// An engine that fails to initialise: the worker serves no request through it,
// yet every queued request still completes, in order.
std::string readWithoutEngine() {
    control::setInitEngineResult(-1);
    TempDataFile data(10000, 81);
    DtaFile file(data.dtaUrl());
    if (file.open() != 0) return "open failed";
    std::string report = testing_support::threeQueuedReads(file);
    const control::Calls calls = control::calls();
    report += " tell=" + std::to_string(file.tell()) + " init=" + std::to_string(calls.initEngine) +
              " engineReads=" + std::to_string(calls.readData) +
              " events=" + std::to_string(calls.setEventCallback);
    // Blocking reads call the engine on the caller's thread, as always.
    std::vector<char> first(100);
    report += " blocking=" + std::to_string(file.read(first.data(), 100));
    report += data.slice(0, 100) == first ? " same" : " differs";
    file.close();
    return report;
}

TEST(DtaFileDeathTest, QueuedReadsCompleteWithErrorInOrderWhenTheEngineFailedToInitialise) {
    testing_support::useThreadsafeDeathTests();
    // kStatusError is 1, kStatusCancelled 11.
    EXPECT_EXIT(
        {
            fprintf(stderr, "report: %s\n", readWithoutEngine().c_str());
            exit(0);
        },
        ::testing::ExitedWithCode(0),
        "report: cancel=0 1:1:0 2:11:0 3:1:0 tell=0 init=1 engineReads=0 events=0 "
        "blocking=100 same");
}

bool tmpVelkaExists() {
    struct stat st;
    return stat("/tmp/velka", &st) == 0;
}

// Threads of this process named "dta-download", the engine's download threads.
int downloadThreads() {
    DIR* dir = opendir("/proc/self/task");
    int count = 0;
    for (struct dirent* e = dir ? readdir(dir) : nullptr; e != nullptr; e = readdir(dir)) {
        std::ifstream comm(std::string("/proc/self/task/") + e->d_name + "/comm");
        std::string name;
        count += e->d_name[0] != '.' && std::getline(comm, name) && name == "dta-download";
    }
    if (dir != nullptr) closedir(dir);
    return count;
}

pid_t workerTid = 0;  // the thread the worker completes on
char seenBeforeExit[200];  // plain storage: still there after static destructors

// The worker is torn down with the media library's static objects, after
// every exit handler of the program; the engine's library goes later still.
void reportAtExit() {
    struct stat st;
    const bool workerAlive =
        workerTid != 0 && stat(("/proc/self/task/" + std::to_string(workerTid)).c_str(), &st) == 0;
    fprintf(stderr, "report: %s uninit=%d tmp_velka_after=%d worker_alive=%d downloads_left=%d\n",
            seenBeforeExit, control::calls().uninitEngine, tmpVelkaExists(), workerAlive,
            downloadThreads());
}

// Reads the test program itself through a DtaFile, leaves one engine task
// open, and exits.
void readThenExit() {
    control::setUnloadReport(reportAtExit);
    const std::string url = "dta-test:///proc/self/exe";
    std::ifstream in("/proc/self/exe", std::ios::binary);
    std::vector<char> expected((std::istreambuf_iterator<char>(in)),
                               std::istreambuf_iterator<char>());
    expected.resize(std::min<size_t>(expected.size(), 64 * 1024));
    std::vector<char> got(expected.size());
    struct TidCallback : File::AsyncCallback {
        void complete(velka::VelkaStatus s, uint32_t) override {
            workerTid = static_cast<pid_t>(syscall(SYS_gettid));
            ok = s == velka::kStatusOk;
        }
        std::atomic<bool> ok{false};
    } callback;
    DtaFile file(url);
    if (file.open() != 0 || file.readAsync(got.data(), got.size(), callback) == nullptr) exit(3);
    if (!testing_support::waitUntil([&] { return callback.ok.load(); })) exit(4);
    file.close();
    // A second task stays open in the engine: this file goes without close().
    DtaFile(url).open();
    snprintf(seenBeforeExit, sizeof seenBeforeExit,
             "data=%d tmp_velka_while_open=%d downloads_while_open=%d", got == expected,
             tmpVelkaExists(), downloadThreads());
    exit(0);
}

TEST(DtaFileDeathTest, ProcessExitEndsWorkerAndEngineAndRemovesWorkDir) {
    testing_support::useThreadsafeDeathTests();
    EXPECT_EXIT(readThenExit(), ::testing::ExitedWithCode(0),
                "report: data=1 tmp_velka_while_open=1 downloads_while_open=1 uninit=1 "
                "tmp_velka_after=0 worker_alive=0 downloads_left=0");
}

}  // namespace
