// The download engine stand-in over HTTP, against the scripted fault server:
// seeks restart the fetch with a range, unknown lengths read to the end of
// the transfer, failures carry the server's answer or the network error, and
// a stalled fetch lets a seek and a close through. What the DtaFile and
// player tests exercise through it (local streaming, blocking reads, close of
// a blocked reader, a server failing midway, and the scripted faults: failed,
// short, slow and held reads, reported states, handles) is checked there.

#include <gtest/gtest.h>

#include <cstring>
#include <future>
#include <string>
#include <vector>

#include "CBctiDta.h"
#include "TestSupport.h"
#include "bctidta_control.h"
#include "support/FaultServer.h"

namespace {

namespace control = bctidta::control;
using testing_support::FaultServer;
using testing_support::kWaitMs;
using testing_support::patternBytes;
using testing_support::TempDataFile;
using Reply = FaultServer::Reply;

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

// --- Over HTTP ---------------------------------------------------------------------------

constexpr int64_t kHttpBytes = 700 * 1024 + 11;
// A buffer smaller than the resource, so that a seek back leaves it.
constexpr uint32_t kHttpBuffer = 128 * 1024;
// Further in than the first receive of a transfer, and outside the buffer
// once most of the resource was read.
constexpr int64_t kSeekTo = 400 * 1024 + 3;

class BctiDtaHttpTest : public BctiDtaTest {
protected:
    BctiDtaHttpTest() : server_(patternBytes(kHttpBytes, 21)) {}
    void SetUp() override {
        BctiDtaTest::SetUp();
        std::string why;
        ASSERT_TRUE(server_.start(&why)) << why;
        control::setBufferCapacity(kHttpBuffer);
    }
    std::vector<char> slice(int64_t from, int64_t count) {
        return testing_support::slice(server_.file(), from, count);
    }
    std::vector<std::string> ranges(const std::string& path) {
        std::vector<std::string> out;
        for (const FaultServer::Request& r : server_.requests(path)) out.push_back(r.range);
        return out;
    }
    FaultServer server_;
};

struct HttpStreamCase {
    const char* name;
    std::vector<Reply> replies;
    int64_t lengthWhileRunning;
};

Reply withFraming(Reply::Framing framing) {
    Reply r;
    r.framing = framing;
    return r;
}
Reply withStatus(int status) {
    Reply r;
    r.status = status;
    return r;
}

// Read most of it, seek back (outside the buffer: a new fetch with a range) and
// read to the end; the length is known once the transfer ends.
TEST_F(BctiDtaHttpTest, StreamsByteExactAndSeeksBackWithARangeWhateverTheFraming) {
    const HttpStreamCase cases[] = {
        {"content length", {Reply()}, kHttpBytes},
        {"chunked", {withFraming(Reply::kChunked)}, -1},
        {"close delimited", {withFraming(Reply::kCloseDelimited)}, -1},
        // The range is ignored: what comes before it is dropped.
        {"range answered 200", {Reply(), withStatus(200)}, kHttpBytes},
    };
    for (const HttpStreamCase& c : cases) {
        SCOPED_TRACE(c.name);
        const std::string path = std::string("/") + std::to_string(&c - cases);
        server_.script(path, c.replies);
        const int handle = task(server_.url(path));
        EXPECT_EQ(c.lengthWhileRunning, transfer(handle).totalLength);
        EXPECT_EQ(slice(0, kHttpBytes * 9 / 10), readFully(handle, kHttpBytes * 9 / 10, 30000));
        ASSERT_EQ(0, engine_->seekTask(handle, 0, kSeekTo, 0));
        EXPECT_EQ(slice(kSeekTo, kHttpBytes - kSeekTo), readFully(handle, kHttpBytes, 65536));
        uint64_t n = 10;
        char byte[10];
        EXPECT_EQ(0, engine_->readData(handle, byte, &n));
        EXPECT_EQ(0u, n) << "the end of the transfer is the end";
        ASSERT_TRUE(control::waitForDownloadsIdle(kWaitMs));
        EXPECT_EQ(kDtaStateFinished, state(handle));
        EXPECT_EQ(kHttpBytes, transfer(handle).totalLength);
        // A request is logged when its connection ends.
        EXPECT_TRUE(testing_support::waitUntil([&] { return ranges(path).size() >= 2; }));
        EXPECT_EQ((std::vector<std::string>{"-", "bytes=" + std::to_string(kSeekTo) + "-"}),
                  ranges(path));
    }
}

// Starts fail for a missing resource, an unknown scheme, on request, on the
// server's refusal and when nobody listens.
TEST_F(BctiDtaHttpTest, FailuresCarryTheServersAnswerOrTheNetworkError) {
    Reply notFound = withStatus(404);
    notFound.body = "not here";
    server_.script("/missing", {notFound});

    // Nobody listens on a port just closed.
    FaultServer closed(std::vector<char>(1));
    std::string why;
    ASSERT_TRUE(closed.start(&why)) << why;
    const std::string refused = closed.url("/x");
    closed.stop();

    TempDataFile file(1000, 8);
    const struct Row {
        std::string url;
        int startResult;     // scripted; 0: any failure
        std::string reason;  // in the event's message
    } rows[] = {{"dta-test:///nonexistent/velka/none.ts", 0, ""},
                {"gopher://example/a", 0, ""},
                {"dta-test:///", 0, ""},
                {file.dtaUrl(), -42, ""},
                {server_.url("/missing"), 0, "HTTP 404"},
                {refused, 0, "onnect"}};
    for (const Row& row : rows) {
        SCOPED_TRACE(row.url);
        control::setStartTaskResult(row.startResult);
        const int handle = task(row.url, false);
        const int result = engine_->startTask(handle);
        EXPECT_TRUE(row.startResult != 0 ? result == row.startResult : result != 0) << result;
        EXPECT_EQ(kDtaStateOpenFailed, state(handle));
        ASSERT_TRUE(control::waitForDownloadsIdle(kWaitMs));
        const std::vector<Event> reported = eventsOf(handle);
        ASSERT_EQ(1u, reported.size());
        EXPECT_EQ(kDtaEventFailed, reported[0].event);
        EXPECT_EQ(kDtaStateOpenFailed, reported[0].param2);
        EXPECT_NE(std::string::npos, reported[0].message.find(row.reason)) << reported[0].message;
        uint64_t n = 10;
        char buffer[10];
        EXPECT_NE(0, engine_->readData(handle, buffer, &n));
        EXPECT_EQ(0u, n);
    }
    control::setStartTaskResult(0);

}

// The server stops sending and holds the connection: neither a close nor a
// seek waits for the network to give up.
TEST_F(BctiDtaHttpTest, AStalledFetchLetsASeekAndACloseThrough) {
    Reply stalled;
    stalled.cutAt = 64 * 1024;
    stalled.holdMs = 120000;
    server_.script("/stalled", {stalled, Reply()});
    const int handle = task(server_.url("/stalled"));
    EXPECT_EQ(slice(0, 64 * 1024), readFully(handle, 64 * 1024, 16384));
    ASSERT_EQ(0, engine_->seekTask(handle, 0, kHttpBytes - 5000, 0));
    EXPECT_EQ(slice(kHttpBytes - 5000, 5000), readFully(handle, 5000, 5000));

    server_.script("/stalled-again", {stalled});
    const int held = task(server_.url("/stalled-again"));
    EXPECT_EQ(slice(0, 64 * 1024), readFully(held, 64 * 1024, 16384));
    std::vector<char> buffer(1000);
    std::future<int> reader = std::async(std::launch::async, [&] {
        uint64_t n = buffer.size();
        return engine_->readData(held, buffer.data(), &n);
    });
    std::future<int> closer = std::async(std::launch::async, [&] { return engine_->closeTask(held); });
    ASSERT_EQ(std::future_status::ready, closer.wait_for(testing_support::kWait));
    EXPECT_EQ(0, closer.get());
    ASSERT_EQ(std::future_status::ready, reader.wait_for(testing_support::kWait));
    EXPECT_EQ(kDtaErrHandle, reader.get());
    server_.endHolds();
}

}  // namespace
