// The download engine stand-in on its own: tasks stream a resource into their
// buffer, reads block for data, queries and events report what happens, close
// ends a blocked reader. Its seeks and scripted faults (failed, short, slow and
// held reads, reported states, handles) are used, and so checked, by the
// DtaFile tests.

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
