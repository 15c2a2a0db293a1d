// The download engine stand-in on its own: tasks stream a resource into their
// buffer, reads block for data, seeks move the task, queries and events report
// what happens, and the control interface scripts faults.

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <cstring>
#include <future>
#include <mutex>
#include <string>
#include <vector>

#include "CBctiDta.h"
#include "TempDataFile.h"
#include "bctidta_control.h"

namespace {

namespace control = bctidta::control;

const uint32_t kWaitMs = 20000;  // bound of every wait for the engine

struct Event {
    int32_t event;
    int32_t param1;
    int32_t param2;
    std::string message;
};

// Everything the engine reported through the event callback.
class EventLog {
public:
    static EventLog& get() {
        static EventLog log;
        return log;
    }
    static int handler(CBctiDta*, int32_t event, int32_t param1, int32_t param2,
                       const char* message) {
        EventLog& log = get();
        std::lock_guard<std::mutex> lock(log.mutex_);
        log.events_.push_back({event, param1, param2, message != nullptr ? message : ""});
        log.changed_.notify_all();
        return 0;
    }
    // Waits for an event of `event` for `handle`.
    bool waitFor(int32_t event, int handle, Event* found) {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_for(lock, std::chrono::milliseconds(kWaitMs), [&] {
            for (const Event& e : events_) {
                if (e.event == event && e.param1 == handle) {
                    *found = e;
                    return true;
                }
            }
            return false;
        });
    }
    std::vector<Event> forHandle(int handle) {
        std::lock_guard<std::mutex> lock(mutex_);
        std::vector<Event> out;
        for (const Event& e : events_) {
            if (e.param1 == handle) out.push_back(e);
        }
        return out;
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<Event> events_;
};

class BctiDtaTest : public ::testing::Test {
protected:
    void SetUp() override {
        control::reset();
        engine_ = CBctiDta::GetInstance();
        ASSERT_NE(nullptr, engine_);
        engine_->setEventCallback(&EventLog::handler);
    }
    void TearDown() override {
        control::reset();
        for (int handle : handles_) engine_->closeTask(handle);
    }

    int startTask(const std::string& url) {
        int handle = engine_->openUrl(url.c_str());
        EXPECT_GT(handle, 0);
        handles_.push_back(handle);
        EXPECT_EQ(0, engine_->startTask(handle));
        return handle;
    }

    DtaTransferInfo transfer(int handle) {
        DtaTransferInfo info;
        std::memset(&info, 0xa5, sizeof(info));
        EXPECT_EQ(0, engine_->queryTask(handle, kDtaInfoTransfer, &info));
        return info;
    }

    int32_t state(int handle) {
        DtaStateInfo info;
        std::memset(&info, 0xa5, sizeof(info));
        EXPECT_EQ(0, engine_->queryTask(handle, kDtaInfoState, &info));
        return info.state;
    }

    // Reads `count` bytes (fewer at the end) with as many readData calls as it takes.
    std::vector<char> readFully(int handle, size_t count, uint64_t step) {
        std::vector<char> out;
        std::vector<char> buffer(step);
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

TEST_F(BctiDtaTest, StreamsResourceByteExactThroughSlowDownload) {
    TempDataFile file(300 * 1024 + 17, 3);
    control::setDownloadPace(4096, 1);
    int handle = startTask(file.dtaUrl());

    std::vector<char> got = readFully(handle, file.bytes().size() + 1000, 7001);
    EXPECT_EQ(file.bytes(), got);
    uint64_t n = 100;
    char byte;
    EXPECT_EQ(0, engine_->readData(handle, &byte, &n));
    EXPECT_EQ(0u, n) << "a read at the end succeeds with 0 bytes";

    Event finished;
    ASSERT_TRUE(EventLog::get().waitFor(kDtaEventFinished, handle, &finished));
    EXPECT_EQ(file.size(), finished.param2);
    EXPECT_EQ(file.dtaUrl(), finished.message);
    EXPECT_EQ(kDtaStateFinished, state(handle));
    DtaTransferInfo info = transfer(handle);
    EXPECT_EQ(file.size(), info.totalLength);
    EXPECT_EQ(file.size(), info.readPosition);
    EXPECT_EQ(100, info.bufferPercent);

    std::vector<Event> events = EventLog::get().forHandle(handle);
    ASSERT_EQ(2u, events.size());
    EXPECT_EQ(kDtaEventStarted, events[0].event);
    EXPECT_EQ(file.dtaUrl(), events[0].message);
    EXPECT_EQ(kDtaEventFinished, events[1].event);
}

TEST_F(BctiDtaTest, ReadWaitsForAllWantedBytes) {
    TempDataFile file(64 * 1024, 4);
    // 1000 bytes every 5 ms: a 20000-byte read has to wait for 20 fetches.
    control::setDownloadPace(1000, 5);
    int handle = startTask(file.dtaUrl());
    std::vector<char> buffer(20000);
    uint64_t n = buffer.size();
    ASSERT_EQ(0, engine_->readData(handle, buffer.data(), &n));
    ASSERT_EQ(20000u, n);
    EXPECT_EQ(file.slice(0, 20000), buffer);
}

TEST_F(BctiDtaTest, SeekInsideAndOutsideTheBufferedWindow) {
    TempDataFile file(1024 * 1024, 5);
    control::setBufferCapacity(64 * 1024);
    int handle = startTask(file.dtaUrl());
    EXPECT_EQ(file.slice(0, 10000), readFully(handle, 10000, 4096));

    struct Step {
        int64_t position;
        size_t count;
    };
    // Back inside the window, far ahead, back to the start, past the end.
    const Step steps[] = {{100, 5000}, {700000, 30000}, {0, 70000}, {1024 * 1024 - 10, 10},
                          {3000, 100000}, {2000000, 10}};
    for (const Step& step : steps) {
        SCOPED_TRACE(step.position);
        ASSERT_EQ(0, engine_->seekTask(handle, 0, step.position, 0));
        EXPECT_EQ(step.position, transfer(handle).readPosition);
        EXPECT_EQ(file.slice(step.position, step.count), readFully(handle, step.count, 8192));
    }
    EXPECT_EQ(kDtaErrArgument, engine_->seekTask(handle, 1, 0, 0));
    EXPECT_EQ(kDtaErrArgument, engine_->seekTask(handle, 0, -1, 0));
}

TEST_F(BctiDtaTest, QueryReportsLengthPercentAndState) {
    TempDataFile file(200 * 1024, 6);
    control::setBufferCapacity(100 * 1024);
    control::setDownloadPace(0, 0);
    int handle = startTask(file.dtaUrl());
    ASSERT_TRUE(control::waitForDownloadsIdle(kWaitMs));
    // The buffer is full and the rest of the resource is still to come.
    DtaTransferInfo info = transfer(handle);
    EXPECT_EQ(file.size(), info.totalLength);
    EXPECT_EQ(100 * 1024, info.bufferedBytes);
    EXPECT_EQ(100, info.bufferPercent);
    EXPECT_EQ(kDtaStateRunning, state(handle));

    control::setReportedState(7);
    EXPECT_EQ(7, state(handle));
    control::setReportedState(4);
    EXPECT_EQ(4, state(handle));
    control::reset();
    EXPECT_EQ(kDtaStateRunning, state(handle));

    char record[60];
    std::memset(record, 0x5a, sizeof(record));
    EXPECT_EQ(kDtaErrKind, engine_->queryTask(handle, 9, record));
    EXPECT_EQ(kDtaErrHandle, engine_->queryTask(handle + 1000, kDtaInfoTransfer, record));
    for (char c : record) ASSERT_EQ(0x5a, c) << "a failed query leaves the record alone";
}

TEST_F(BctiDtaTest, BufferPercentFollowsReaderWithSmallBuffer) {
    TempDataFile file(50 * 1024, 7);
    control::setBufferCapacity(10 * 1024);
    int handle = startTask(file.dtaUrl());
    ASSERT_TRUE(control::waitForDownloadsIdle(kWaitMs));
    EXPECT_EQ(100, transfer(handle).bufferPercent);
    // Moving far back leaves an empty window until the download catches up.
    control::setDownloadPace(1024, 0);
    ASSERT_EQ(0, engine_->seekTask(handle, 0, 40 * 1024, 0));
    EXPECT_EQ(file.slice(40 * 1024, 10 * 1024), readFully(handle, 10 * 1024, 3000));
    ASSERT_TRUE(control::waitForDownloadsIdle(kWaitMs));
    DtaTransferInfo info = transfer(handle);
    EXPECT_EQ(50 * 1024, info.readPosition);
    EXPECT_EQ(0, info.bufferedBytes);
    EXPECT_EQ(100, info.bufferPercent) << "nothing left to buffer";
}

TEST_F(BctiDtaTest, StartFailsForMissingResourceUnknownSchemeAndOnRequest) {
    TempDataFile file(1000, 8);
    const std::string urls[] = {"dta-test:///nonexistent/velka/none.ts", "gopher://example/a",
                                "dta-test://" + std::string("/")};
    for (const std::string& url : urls) {
        SCOPED_TRACE(url);
        int handle = engine_->openUrl(url.c_str());
        ASSERT_GT(handle, 0);
        handles_.push_back(handle);
        EXPECT_NE(0, engine_->startTask(handle));
        EXPECT_EQ(kDtaStateOpenFailed, state(handle));
        Event failed;
        ASSERT_TRUE(EventLog::get().waitFor(kDtaEventFailed, handle, &failed));
        EXPECT_EQ(kDtaStateOpenFailed, failed.param2);
        uint64_t n = 10;
        char buffer[10];
        EXPECT_NE(0, engine_->readData(handle, buffer, &n));
        EXPECT_EQ(0u, n);
    }

    control::setStartTaskResult(-42);
    int handle = engine_->openUrl(file.dtaUrl().c_str());
    handles_.push_back(handle);
    EXPECT_EQ(-42, engine_->startTask(handle));
    EXPECT_EQ(kDtaStateOpenFailed, state(handle));
}

TEST_F(BctiDtaTest, ScriptedReadFaultsShortCountsAndDelays) {
    TempDataFile file(40000, 9);
    int handle = startTask(file.dtaUrl());
    std::vector<char> buffer(8000);

    control::setReadResult(-7);
    uint64_t n = buffer.size();
    EXPECT_EQ(-7, engine_->readData(handle, buffer.data(), &n));
    EXPECT_EQ(0u, n);
    EXPECT_EQ(0, transfer(handle).readPosition) << "a failed read keeps the position";

    control::setReadResult(0);
    control::setReadLimit(3000);
    control::setReadDelay(2);
    n = buffer.size();
    ASSERT_EQ(0, engine_->readData(handle, buffer.data(), &n));
    ASSERT_EQ(3000u, n);
    EXPECT_EQ(file.slice(0, 3000), std::vector<char>(buffer.begin(), buffer.begin() + 3000));
    EXPECT_EQ(3000, transfer(handle).readPosition);
}

TEST_F(BctiDtaTest, CloseEndsBlockedReaderAndForgetsHandle) {
    TempDataFile file(100000, 10);
    control::setDownloadPace(1, 50);  // far too slow for the read below
    int handle = startTask(file.dtaUrl());
    std::vector<char> buffer(50000);
    std::future<int> reader = std::async(std::launch::async, [&] {
        uint64_t n = buffer.size();
        return engine_->readData(handle, buffer.data(), &n);
    });
    EXPECT_EQ(0, engine_->closeTask(handle));
    ASSERT_EQ(std::future_status::ready, reader.wait_for(std::chrono::milliseconds(kWaitMs)));
    EXPECT_EQ(kDtaErrHandle, reader.get());
    EXPECT_EQ(kDtaErrHandle, engine_->closeTask(handle));
    EXPECT_EQ(kDtaErrHandle, engine_->startTask(handle));
    uint64_t n = 1;
    EXPECT_EQ(kDtaErrHandle, engine_->readData(handle, buffer.data(), &n));
}

TEST_F(BctiDtaTest, ControlCountsCallsAndHoldsReads) {
    TempDataFile file(10000, 11);
    control::Calls before = control::calls();
    int handle = startTask(file.dtaUrl());
    control::holdReads();
    std::vector<char> buffer(100);
    std::future<int> reader = std::async(std::launch::async, [&] {
        uint64_t n = buffer.size();
        return engine_->readData(handle, buffer.data(), &n);
    });
    ASSERT_TRUE(control::waitForHeldReads(1, kWaitMs));
    EXPECT_EQ(std::future_status::timeout, reader.wait_for(std::chrono::milliseconds(0)));
    control::releaseReads();
    ASSERT_EQ(std::future_status::ready, reader.wait_for(std::chrono::milliseconds(kWaitMs)));
    EXPECT_EQ(0, reader.get());
    EXPECT_EQ(file.slice(0, 100), buffer);
    engine_->seekTask(handle, 0, 5, 0);
    control::SeekCall seek = control::lastSeek();
    EXPECT_EQ(handle, seek.handle);
    EXPECT_EQ(5, seek.position);

    control::Calls after = control::calls();
    EXPECT_EQ(1, after.openUrl - before.openUrl);
    EXPECT_EQ(1, after.startTask - before.startTask);
    EXPECT_EQ(1, after.readData - before.readData);
    EXPECT_EQ(1, after.seekTask - before.seekTask);

    int tasks = control::openTaskCount();
    control::setOpenUrlResult(0);
    EXPECT_EQ(0, engine_->openUrl(file.dtaUrl().c_str()));
    EXPECT_EQ(tasks, control::openTaskCount()) << "a scripted handle creates no task";
}

}  // namespace
