// The download engine stand-in on its own: tasks stream a resource into their
// buffer, reads block for data, seeks move the task, queries and events report
// what happens, and the control interface scripts faults.

#include <gtest/gtest.h>

#include <cstring>
#include <future>
#include <string>
#include <vector>

#include "CBctiDta.h"
#include "TestSupport.h"
#include "bctidta_control.h"

namespace {

namespace control = bctidta::control;
using testing_support::kWaitMs;
using testing_support::TempDataFile;

struct Event {
    int32_t event;
    int32_t handle;
    int32_t param2;
    std::string message;
};

// Everything the engine reported through the event callback.
std::mutex eventsMutex;
std::vector<Event> events;

int recordEvent(CBctiDta*, int32_t event, int32_t handle, int32_t param2, const char* message) {
    std::lock_guard<std::mutex> lock(eventsMutex);
    events.push_back({event, handle, param2, message != nullptr ? message : ""});
    return 0;
}

std::vector<Event> eventsOf(int handle) {
    std::lock_guard<std::mutex> lock(eventsMutex);
    std::vector<Event> out;
    for (const Event& e : events) {
        if (e.handle == handle) out.push_back(e);
    }
    return out;
}

class BctiDtaTest : public ::testing::Test {
protected:
    void SetUp() override {
        control::reset();
        engine_ = CBctiDta::GetInstance();
        ASSERT_NE(nullptr, engine_);
        engine_->setEventCallback(&recordEvent);
    }
    void TearDown() override {
        control::reset();
        for (int handle : handles_) engine_->closeTask(handle);
    }

    // Opens a task for `url`; starts it when asked and checks the result.
    int task(const std::string& url, bool start = true) {
        const int handle = engine_->openUrl(url.c_str());
        EXPECT_GT(handle, 0);
        handles_.push_back(handle);
        if (start) {
            EXPECT_EQ(0, engine_->startTask(handle));
        }
        return handle;
    }

    DtaTransferInfo transfer(int handle) {
        DtaTransferInfo info;
        std::memset(&info, 0xa5, sizeof info);
        EXPECT_EQ(0, engine_->queryTask(handle, kDtaInfoTransfer, &info));
        return info;
    }

    int32_t state(int handle) {
        DtaStateInfo info;
        std::memset(&info, 0xa5, sizeof info);
        EXPECT_EQ(0, engine_->queryTask(handle, kDtaInfoState, &info));
        return info.state;
    }

    // Reads `count` bytes (fewer at the end) with as many readData calls as it takes.
    std::vector<char> readFully(int handle, size_t count, uint64_t step) {
        std::vector<char> out, buffer(step);
        for (int i = 0; i < 100000 && out.size() < count; ++i) {
            uint64_t n = std::min<uint64_t>(step, count - out.size());
            EXPECT_EQ(0, engine_->readData(handle, buffer.data(), &n));
            if (n == 0) break;
            out.insert(out.end(), buffer.begin(), buffer.begin() + static_cast<long>(n));
        }
        return out;
    }

    CBctiDta* engine_ = nullptr;
    std::vector<int> handles_;
};

TEST_F(BctiDtaTest, StreamsTheResourceByteExactThroughASlowDownloadAndReportsIt) {
    TempDataFile file(300 * 1024 + 17, 3);
    control::setDownloadPace(4096, 1);  // a 20000-byte read waits for several fetches
    const int handle = task(file.dtaUrl());
    std::vector<char> got(20000);
    uint64_t n = got.size();
    ASSERT_EQ(0, engine_->readData(handle, got.data(), &n));
    ASSERT_EQ(20000u, n) << "a read waits for all the bytes wanted";
    got.resize(n);
    const std::vector<char> rest = readFully(handle, file.bytes().size(), 7001);
    got.insert(got.end(), rest.begin(), rest.end());
    EXPECT_EQ(file.bytes(), got);
    n = 100;
    EXPECT_EQ(0, engine_->readData(handle, got.data(), &n));
    EXPECT_EQ(0u, n) << "a read at the end succeeds with 0 bytes";

    ASSERT_TRUE(control::waitForDownloadsIdle(kWaitMs));
    EXPECT_EQ(kDtaStateFinished, state(handle));
    const DtaTransferInfo info = transfer(handle);
    EXPECT_EQ(file.size(), info.totalLength);
    EXPECT_EQ(file.size(), info.readPosition);
    EXPECT_EQ(0, info.bufferedBytes);
    EXPECT_EQ(100, info.bufferPercent) << "nothing left to buffer";
    const std::vector<Event> reported = eventsOf(handle);
    ASSERT_EQ(2u, reported.size());
    EXPECT_EQ(kDtaEventStarted, reported[0].event);
    EXPECT_EQ(file.dtaUrl(), reported[0].message);
    EXPECT_EQ(kDtaEventFinished, reported[1].event);
    EXPECT_EQ(file.size(), reported[1].param2);
    EXPECT_EQ(file.dtaUrl(), reported[1].message);
}

TEST_F(BctiDtaTest, SeekInsideAndOutsideTheBufferedWindow) {
    TempDataFile file(1024 * 1024, 5);
    control::setBufferCapacity(64 * 1024);
    const int handle = task(file.dtaUrl());
    EXPECT_EQ(file.slice(0, 10000), readFully(handle, 10000, 4096));
    // Back inside the window, far ahead, back to the start, past the end.
    const struct {
        int64_t position;
        size_t count;
    } steps[] = {{100, 5000}, {700000, 30000}, {0, 70000}, {1024 * 1024 - 10, 10},
                 {3000, 100000}, {2000000, 10}};
    for (const auto& step : steps) {
        SCOPED_TRACE(step.position);
        ASSERT_EQ(0, engine_->seekTask(handle, 0, step.position, 0));
        EXPECT_EQ(step.position, transfer(handle).readPosition);
        EXPECT_EQ(file.slice(step.position, step.count), readFully(handle, step.count, 8192));
    }
    EXPECT_EQ(kDtaErrArgument, engine_->seekTask(handle, 1, 0, 0));
    EXPECT_EQ(kDtaErrArgument, engine_->seekTask(handle, 0, -1, 0));
}

TEST_F(BctiDtaTest, QueriesReportTheBufferAndTheScriptedState) {
    TempDataFile file(200 * 1024, 6);
    control::setBufferCapacity(100 * 1024);
    const int handle = task(file.dtaUrl());
    ASSERT_TRUE(control::waitForDownloadsIdle(kWaitMs));
    // The buffer is full and the rest of the resource is still to come.
    const DtaTransferInfo info = transfer(handle);
    EXPECT_EQ(file.size(), info.totalLength);
    EXPECT_EQ(100 * 1024, info.bufferedBytes);
    EXPECT_EQ(100, info.bufferPercent);
    EXPECT_EQ(kDtaStateRunning, state(handle));
    control::setReportedState(7);
    EXPECT_EQ(7, state(handle));
    control::reset();
    EXPECT_EQ(kDtaStateRunning, state(handle));

    char record[60];
    std::memset(record, 0x5a, sizeof record);
    EXPECT_EQ(kDtaErrKind, engine_->queryTask(handle, 9, record));
    EXPECT_EQ(kDtaErrHandle, engine_->queryTask(handle + 1000, kDtaInfoTransfer, record));
    for (char c : record) ASSERT_EQ(0x5a, c) << "a failed query leaves the record alone";
}

TEST_F(BctiDtaTest, StartFailsForMissingResourceUnknownSchemeAndOnRequest) {
    TempDataFile file(1000, 8);
    for (const std::string url : {"dta-test:///nonexistent/velka/none.ts", "gopher://example/a",
                                  "dta-test:///", "scripted"}) {
        SCOPED_TRACE(url);
        const bool scripted = url == "scripted";
        if (scripted) control::setStartTaskResult(-42);
        const int handle = task(scripted ? file.dtaUrl() : url, false);
        const int result = engine_->startTask(handle);
        EXPECT_TRUE(scripted ? result == -42 : result != 0) << result;
        EXPECT_EQ(kDtaStateOpenFailed, state(handle));
        ASSERT_TRUE(control::waitForDownloadsIdle(kWaitMs));
        const std::vector<Event> reported = eventsOf(handle);
        ASSERT_EQ(1u, reported.size());
        EXPECT_EQ(kDtaEventFailed, reported[0].event);
        EXPECT_EQ(kDtaStateOpenFailed, reported[0].param2);
        uint64_t n = 10;
        char buffer[10];
        EXPECT_NE(0, engine_->readData(handle, buffer, &n));
        EXPECT_EQ(0u, n);
    }
}

TEST_F(BctiDtaTest, ScriptedReadFaultsShortCountsAndHeldReads) {
    TempDataFile file(40000, 9);
    const control::Calls before = control::calls();
    const int handle = task(file.dtaUrl());
    std::vector<char> buffer(8000);
    control::setReadResult(-7);
    uint64_t n = buffer.size();
    EXPECT_EQ(-7, engine_->readData(handle, buffer.data(), &n));
    EXPECT_EQ(0u, n);
    EXPECT_EQ(0, transfer(handle).readPosition) << "a failed read keeps the position";

    control::setReadResult(0);
    control::setReadLimit(3000);
    control::setReadDelay(2);
    control::holdReads();
    std::future<int> reader = std::async(std::launch::async, [&] {
        n = buffer.size();
        return engine_->readData(handle, buffer.data(), &n);
    });
    ASSERT_TRUE(control::waitForHeldReads(1, kWaitMs));
    EXPECT_EQ(std::future_status::timeout, reader.wait_for(std::chrono::milliseconds(0)));
    control::releaseReads();
    ASSERT_EQ(std::future_status::ready, reader.wait_for(testing_support::kWait));
    ASSERT_EQ(0, reader.get());
    ASSERT_EQ(3000u, n);
    EXPECT_EQ(file.slice(0, 3000), std::vector<char>(buffer.begin(), buffer.begin() + 3000));
    EXPECT_EQ(3000, transfer(handle).readPosition);

    engine_->seekTask(handle, 0, 5, 0);
    const control::SeekCall seek = control::lastSeek();
    EXPECT_EQ(handle, seek.handle);
    EXPECT_EQ(5, seek.position);
    const control::Calls after = control::calls();
    EXPECT_EQ(1, after.openUrl - before.openUrl);
    EXPECT_EQ(1, after.startTask - before.startTask);
    EXPECT_EQ(2, after.readData - before.readData);
    EXPECT_EQ(1, after.seekTask - before.seekTask);

    const int tasks = control::openTaskCount();
    control::setOpenUrlResult(0);
    EXPECT_EQ(0, engine_->openUrl(file.dtaUrl().c_str()));
    EXPECT_EQ(tasks, control::openTaskCount()) << "a scripted handle creates no task";
}

TEST_F(BctiDtaTest, CloseEndsABlockedReaderAndForgetsTheHandle) {
    TempDataFile file(100000, 10);
    control::setDownloadPace(1, 50);  // far too slow for the read below
    const int handle = task(file.dtaUrl());
    std::vector<char> buffer(50000);
    std::future<int> reader = std::async(std::launch::async, [&] {
        uint64_t n = buffer.size();
        return engine_->readData(handle, buffer.data(), &n);
    });
    EXPECT_EQ(0, engine_->closeTask(handle));
    ASSERT_EQ(std::future_status::ready, reader.wait_for(testing_support::kWait));
    EXPECT_EQ(kDtaErrHandle, reader.get());
    EXPECT_EQ(kDtaErrHandle, engine_->closeTask(handle));
    EXPECT_EQ(kDtaErrHandle, engine_->startTask(handle));
    uint64_t n = 1;
    EXPECT_EQ(kDtaErrHandle, engine_->readData(handle, buffer.data(), &n));
}

}  // namespace
