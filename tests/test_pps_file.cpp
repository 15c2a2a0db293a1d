// PpsFile and its worker against the peer-to-peer engine stand-in: the event
// listener's table, open and its failures, reads of parts not yet downloaded
// and engine errors, the engine's part of seeks and reads, and in a child
// process the engine that fails to initialise. What every source promises is
// in test_file_contract.cpp; the queue both engine sources share
// (EngineTaskThread.h) is held to its order and cancel rules across files by
// test_dta_file.cpp.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <climits>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "TestSupport.h"
#include "ems_control.h"
#include "velka/PpsFile.h"

namespace {

namespace control = ems::control;
using testing_support::Got;
using testing_support::kWaitMs;
using testing_support::readOnce;
using testing_support::TempDataFile;
using velka::File;
using velka::PpsFile;

std::string ppsUrl(const TempDataFile& data) { return "pps-test://" + data.path(); }

class PpsFileTest : public ::testing::Test {
protected:
    void SetUp() override { control::reset(); }
    void TearDown() override {
        for (auto& file : files_) file->close();
        control::reset();
    }

    // An opened PpsFile for `data`; closed with the fixture.
    PpsFile& openFile(const TempDataFile& data) {
        files_.emplace_back(new PpsFile(ppsUrl(data)));
        EXPECT_EQ(0, files_.back()->open());
        EXPECT_EQ(data.size(), files_.back()->length());
        return *files_.back();
    }

    std::vector<std::unique_ptr<PpsFile>> files_;
};

TEST_F(PpsFileTest, SeekTableClampsToTheLengthAndReadsCarryThePosition) {
    const int64_t L = 1000;
    TempDataFile data(L, 61);
    PpsFile& file = openFile(data);
    ASSERT_TRUE(control::waitForDownloadsIdle(kWaitMs));
    struct Case {
        int whence;
        int64_t offset;
        int64_t expected;
    } const cases[] = {
        // The rest of the table is the File contract's.
        {File::kSeekSet, 500, 500},         {File::kSeekSet, L + 10, L},
        {File::kSeekCurrent, INT64_MAX, L}, {File::kSeekCurrent, -601, 0},
        {File::kSeekEnd, INT64_MIN, 0},     {7, 0, L},  // any other origin counts from the end
        {7, -3, L - 3},
    };
    std::vector<char> buffer(16);
    for (const Case& c : cases) {
        SCOPED_TRACE(::testing::Message() << "whence " << c.whence << " offset " << c.offset);
        ASSERT_EQ(600, file.seek(600, File::kSeekSet));  // every case starts at 600
        const int readsBefore = control::calls(control::kReadData);
        EXPECT_EQ(c.expected, file.seek(c.offset, static_cast<File::Whence>(c.whence)));
        EXPECT_EQ(c.expected, file.tell());
        EXPECT_EQ(L - c.expected, file.available());
        EXPECT_EQ(readsBefore, control::calls(control::kReadData)) << "a seek reached the engine";
        const int n = file.read(buffer.data(), 16);
        if (c.expected == L) {
            EXPECT_EQ(0, n);
            EXPECT_EQ(readsBefore, control::calls(control::kReadData)) << "a read at the end did";
        } else {
            ASSERT_EQ(std::min<int64_t>(16, L - c.expected), n);
            EXPECT_EQ(c.expected, control::lastRead().position);
            EXPECT_EQ(15, control::lastRead().hint);
            EXPECT_EQ(data.slice(c.expected, n), std::vector<char>(buffer.begin(), buffer.begin() + n));
            EXPECT_EQ(c.expected + n, file.tell());
        }
    }

    // An asynchronous read at the end completes without the engine too.
    ASSERT_EQ(L, file.seek(0, File::kSeekEnd));
    const int readsBefore = control::calls(control::kReadData);
    Got got;
    ASSERT_TRUE(readOnce(file, 16, &got));
    EXPECT_TRUE(got.status == velka::kStatusEndOfFile && got.count == 0);
    EXPECT_EQ(readsBefore, control::calls(control::kReadData));
}

// Without a length (the status query failed) there is nothing to clamp to:
// seeks land where asked, never below 0; one from the end fails and leaves
// the position; available() cannot tell.
TEST_F(PpsFileTest, UnknownLengthGivesNoNegativeOrMadeUpPositions) {
    TempDataFile data(1000, 62);
    control::failCall(control::kGetTaskStatus, -1);
    files_.emplace_back(new PpsFile(ppsUrl(data)));
    PpsFile& file = *files_.back();
    ASSERT_EQ(0, file.open());
    ASSERT_EQ(-1, file.length());
    const struct {
        int whence;
        int64_t offset;
        int64_t expected;
        int64_t position;
    } cases[] = {
        {File::kSeekSet, 5000, 5000, 5000},      {File::kSeekSet, -5, 0, 0},
        {File::kSeekCurrent, 100, 700, 700},     {File::kSeekCurrent, -601, 0, 0},
        {File::kSeekCurrent, INT64_MAX, -1, 600}, {File::kSeekEnd, 0, -1, 600},
        {File::kSeekEnd, -10, -1, 600},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(::testing::Message() << "whence " << c.whence << " offset " << c.offset);
        ASSERT_EQ(600, file.seek(600, File::kSeekSet));
        EXPECT_EQ(c.expected, file.seek(c.offset, static_cast<File::Whence>(c.whence)));
        EXPECT_EQ(c.position, file.tell());
        EXPECT_EQ(-1, file.available());
    }
}

// An engine read error fails the read and leaves the position; the next read
// goes on from there. (Parts not yet downloaded, read as 0 bytes, are the
// File contract's PpsFileRateLimited.)
TEST_F(PpsFileTest, EngineReadErrorsFailTheReadAndKeepThePosition) {
    TempDataFile data(100000, 62);
    PpsFile& file = openFile(data);
    ASSERT_TRUE(control::waitForDownloadsIdle(kWaitMs));
    std::vector<char> buffer(300);
    control::failCall(control::kReadData, -3);
    EXPECT_EQ(-3, file.read(buffer.data(), 300));
    Got got;
    ASSERT_TRUE(readOnce(file, 300, &got));
    EXPECT_TRUE(got.status == velka::kStatusError && got.count == 0);
    EXPECT_EQ(0, file.tell());
    control::reset();
    ASSERT_TRUE(readOnce(file, 300, &got));
    EXPECT_TRUE(got.status == velka::kStatusOk && got.data == data.slice(0, 300));
    EXPECT_EQ(300, file.tell());
}

TEST_F(PpsFileTest, OpenFailuresLeaveNoTaskBehind) {
    TempDataFile data(5000, 71);
    struct Case {
        const char* name;
        control::Call failing;  // kCallCount: none
        bool missingFile;
        int opened;
        int64_t length;
        int started, stopped, deleted;  // engine calls open() made
        const char* line;               // what open() printed about it
    } const cases[] = {
        {"missing file", control::kCallCount, true, -1, -1, 1, 1, 1, "------Can not start task "},
        {"add fails", control::kAddTask, false, -1, -1, 0, 0, 0, "------Add task failed!\n"},
        {"start fails", control::kStartTask, false, -1, -1, 1, 1, 1, "------Can not start task "},
        {"status fails", control::kGetTaskStatus, false, 0, -1, 1, 0, 0,
         "------Can not get task info!\n"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        control::reset();
        if (c.failing != control::kCallCount) control::failCall(c.failing, -7);
        PpsFile file(c.missingFile ? "pps-test:///nonexistent/velka/none.ts" : ppsUrl(data));
        const int tasks = control::taskCount();
        const int start = control::calls(control::kStartTask);
        const int stop = control::calls(control::kStopTask);
        const int del = control::calls(control::kDelTask);
        int opened = 0;
        const std::string out = testing_support::capturedStdout([&] { opened = file.open(); });
        EXPECT_EQ(c.opened, opened);
        EXPECT_THAT(out, ::testing::HasSubstr(c.line));
        // A line of the engine's event thread may come in between.
        if (c.opened == 0) {
            EXPECT_THAT(out, ::testing::HasSubstr("file length -1\n"));
        }
        EXPECT_EQ(c.started, control::calls(control::kStartTask) - start);
        EXPECT_EQ(c.stopped, control::calls(control::kStopTask) - stop);
        EXPECT_EQ(c.deleted, control::calls(control::kDelTask) - del);
        EXPECT_EQ(tasks + (c.opened == 0 ? 1 : 0), control::taskCount());
        if (opened == 0) {
            EXPECT_EQ(c.length, file.length());
            file.close();
            EXPECT_EQ(tasks, control::taskCount());
        }
    }
}

TEST_F(PpsFileTest, EveryEngineEventPrintsItsLineAndHasItsEffect) {
    TempDataFile data(1000, 72);
    openFile(data).close();  // the worker is built and listens; no task is left
    ASSERT_TRUE(control::waitForDownloadsIdle(kWaitMs));
    enum Effect { kNone, kCache, kFull, kStop, kError2, kError4 };
    struct Row {
        int32_t type;
        const char* line;  // with the parameter 37
        Effect effect;
    } const rows[] = {
        {0, "server connecting timeout.", kError2},
        {1, "can not find server. ", kNone},
        {2, "no response from server. ", kNone},
        {3, "server invalid. ", kNone},
        {4, "client version too low. ", kNone},
        {5, "client name error.", kNone},
        {6, "url not found.", kNone},
        {7, "service does not exist.", kNone},
        {8, "out of service area.", kNone},
        {9, "loading media info error.", kNone},
        {10, "index info error.", kNone},
        {11, "no index.", kNone},
        {12, "no media found.", kNone},
        {13, "multi instance running.", kNone},
        {14, "preparing media info 37%.", kNone},
        {15, "requesting media info 37%.", kNone},
        {16, "requesting index info 37%.", kNone},
        {17, "playing.", kNone},
        {18, "buffering 37%...", kCache},
        {19, "connecting to server...", kNone},
        {20, "media is ready.", kNone},
        {21, "parsing server info.", kNone},
        {22, "get media info successfully.", kNone},
        {23, "buffing done.", kFull},
        {24, "prepare media.", kNone},
        {25, "access storage failed.", kNone},
        {26, "Quit progress!", kStop},
        {27, "Wait data timeout!", kError4},
        {28, "updating 37%...", kNone},
        {29, "updating failed", kError2},
        {30, "updating successed", kNone},
        {31, "unknown event.", kNone},
        {-1, "unknown event.", kNone},
        {INT32_MAX, "unknown event.", kNone},
    };
    PpsFile& file = *files_.back();
    // The error code is never reset: each row is tried after each of the two
    // codes, so that it shows whether the row sets one.
    auto check = [&](const Row& row, int task) {
        const int cacheBefore = file.cachePercent();
        const int errorBefore = file.error();
        const int stops = control::calls(control::kStopTask);
        bool delivered = false;
        const std::string out = testing_support::capturedStdout(
            [&] { delivered = control::injectEvent(task, row.type, 37, kWaitMs); });
        ASSERT_TRUE(delivered);
        EXPECT_EQ(std::string("[ems_callback]: ") + row.line + "\n", out);
        const bool applies = task >= 0;
        const Effect effect = applies ? row.effect : kNone;
        EXPECT_EQ(effect == kCache ? 37 : effect == kFull ? 100 : cacheBefore, file.cachePercent());
        EXPECT_EQ(effect == kError2 ? 2 : effect == kError4 ? 4 : errorBefore, file.error());
        const bool stopped = effect == kStop || effect == kError2 || effect == kError4;
        EXPECT_EQ(stopped ? 1 : 0, control::calls(control::kStopTask) - stops);
        if (stopped) {
            EXPECT_EQ(task, control::lastTaskIndex(control::kStopTask));
        }
    };
    for (const Row& row : rows) {
        for (int32_t primer : {0, 27}) {
            for (int task : {3, -1}) {
                SCOPED_TRACE(::testing::Message() << "type " << row.type << " task " << task
                                                  << " after event " << primer);
                testing_support::capturedStdout(
                    [&] { EXPECT_TRUE(control::injectEvent(3, primer, 0, kWaitMs)); });
                check(row, task);
            }
        }
    }
    EXPECT_EQ(0, file.close()) << "a file without a task";
    EXPECT_EQ(0, file.cachePercent());
}

// In a child process that starts without a worker: an engine that fails to
// initialise. The worker serves no request through it, yet every queued
// request still completes, in order. Its report is its last words on
// standard error.
std::string readWithoutEngine() {
    control::failCall(control::kInit, -1);
    TempDataFile data(10000, 81);
    PpsFile file(ppsUrl(data));
    if (file.open() != 0) return "open failed";
    std::string report = testing_support::threeQueuedReads(file);
    report += " tell=" + std::to_string(file.tell()) +
              " init=" + std::to_string(control::calls(control::kInit)) +
              " engineReads=" + std::to_string(control::calls(control::kReadData));
    file.close();
    return report;
}

TEST(PpsFileDeathTest, QueuedReadsCompleteInOrderWhenTheEngineFailedToInitialise) {
    testing_support::useThreadsafeDeathTests();
    // kStatusError is 1, kStatusCancelled 11.
    EXPECT_EXIT(
        {
            fprintf(stderr, "report: %s\n", readWithoutEngine().c_str());
            exit(0);
        },
        ::testing::ExitedWithCode(0),
        "report: cancel=0 1:1:0 2:11:0 3:1:0 tell=0 init=1 engineReads=0");
}

}  // namespace
