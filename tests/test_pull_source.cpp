// The pull callbacks, called the way the engine calls them, over a scripted
// File (and over real local files for pb_open/pb_close). No playback is open
// here, so the callbacks answer from the File whose address is the pull
// handle.

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <climits>
#include <condition_variable>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "PullSource.h"
#include "support/PlayerTestSupport.h"
#include "velka/File.h"

namespace {

using velka::File;
using velka::VelkaStatus;
using namespace velka_test;

// What the engine's completion function received.
struct Completion {
    int32_t result;
    IMTK_PULL_REQ_HANDLE_T request;
    uint32_t length;
    IMTK_PULL_REQ_HANDLE_T storedHandle;  // the out request handle at that moment
};

// Stands in for the engine's side of asynchronous reads.
class EngineSide {
public:
    static void done(int32_t result, void* tag, IMTK_PULL_REQ_HANDLE_T request, uint32_t length) {
        EngineSide* self = static_cast<EngineSide*>(tag);
        {
            std::lock_guard<std::mutex> lock(self->mutex_);
            self->completions_.push_back({result, request, length, self->outHandle});
        }
        self->changed_.notify_all();
    }

    std::vector<Completion> completions() {
        std::lock_guard<std::mutex> lock(mutex_);
        return completions_;
    }

    bool waitForCompletions(size_t count, int timeoutMs = kEventWaitMs) {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_for(lock, std::chrono::milliseconds(timeoutMs),
                                 [&] { return completions_.size() >= count; });
    }

    // Written by pb_read_async; read by done() on the completing thread.
    IMTK_PULL_REQ_HANDLE_T outHandle = nullptr;

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<Completion> completions_;
};

// A File whose answers the test scripts.
class ScriptedFile : public File {
public:
    enum class AsyncMode {
        kHold,           // accept; the test completes it later
        kRefuse,         // return null
        kCompleteFirst,  // complete on another thread before readAsync returns
    };

    ScriptedFile() : File("scripted://") {}
    ~ScriptedFile() override {
        for (std::thread& t : threads_) t.join();
    }

    int open() override { return 0; }
    int close() override { return 0; }

    int read(char* buffer, uint32_t count) override {
        if (readResult < 0) return readResult;
        uint32_t n = std::min<uint32_t>(count, static_cast<uint32_t>(data.size() - position_));
        std::memcpy(buffer, data.data() + position_, n);
        position_ += n;
        return static_cast<int>(n);
    }

    void* readAsync(char* buffer, uint32_t count, AsyncCallback& callback) override {
        (void)buffer;
        (void)count;
        if (asyncMode == AsyncMode::kRefuse) return nullptr;
        pending_ = &callback;
        if (asyncMode == AsyncMode::kCompleteFirst) {
            std::mutex m;
            std::condition_variable cv;
            bool calling = false;
            threads_.emplace_back([&, this] {
                AsyncCallback* cb = pending_;
                {
                    // Notified under the lock: readAsync's locals live until
                    // it can take the lock again.
                    std::lock_guard<std::mutex> lock(m);
                    calling = true;
                    cv.notify_all();
                }
                cb->complete(velka::kStatusOk, earlyLength);
            });
            std::unique_lock<std::mutex> lock(m);
            cv.wait(lock, [&] { return calling; });
            lock.unlock();
            // The completion is under way. It must not reach the engine
            // before this request's handle is known; give it a moment to
            // (wrongly) do so. A correct pull source never does, whatever
            // the timing.
            completedBeforeReturn = engine->waitForCompletions(1, 200);
        }
        return &token_;
    }

    // Completes the held request on a thread of its own, as a source would.
    void completeHeld(VelkaStatus status, uint32_t length) {
        AsyncCallback* cb = pending_;
        pending_ = nullptr;
        threads_.emplace_back([cb, status, length] { cb->complete(status, length); });
    }

    int cancel(void* request) override {
        lastCancel = request;
        if (cancelResult != 0) return -1;
        // Cancelled: it still completes once, here before cancel returns.
        AsyncCallback* cb = pending_;
        pending_ = nullptr;
        cb->complete(velka::kStatusCancelled, 0);
        return 0;
    }

    int64_t seek(int64_t offset, Whence whence) override {
        lastOffset = offset;
        lastWhence = whence;
        if (seekResult != kNoOverride) return seekResult;
        int64_t base = whence == kSeekSet ? 0 : whence == kSeekCurrent ? position_ : length();
        position_ = base + offset;
        return position_;
    }
    int64_t tell() override { return position_; }
    int64_t length() override { return static_cast<int64_t>(data.size()); }
    int64_t available() override {
        return availableResult != kNoOverride ? availableResult : length() - position_;
    }
    int cachePercent() override { return 100; }
    int error() override { return 0; }

    void* handle() { return &token_; }
    IMTK_PULL_HANDLE_T pullHandle() { return reinterpret_cast<IMTK_PULL_HANDLE_T>(this); }

    static constexpr int64_t kNoOverride = INT64_MIN;

    std::string data = "ABCDEFGHIJ";
    int readResult = 0;
    AsyncMode asyncMode = AsyncMode::kHold;
    uint32_t earlyLength = 0;
    EngineSide* engine = nullptr;
    bool completedBeforeReturn = false;
    int cancelResult = 0;
    void* lastCancel = nullptr;
    int64_t seekResult = kNoOverride;
    int64_t availableResult = kNoOverride;
    int64_t lastOffset = 0;
    Whence lastWhence = kSeekSet;

private:
    int64_t position_ = 0;
    AsyncCallback* pending_ = nullptr;
    int token_ = 0;  // its address is the request handle
    std::vector<std::thread> threads_;
};

char kTag[] = "app tag";

class PullSourceTest : public ::testing::Test {
protected:
    IMTK_PB_CB_ERROR_CODE_T readAsync(uint8_t* buffer, uint32_t count) {
        file_.engine = &engine_;
        return velka::pb_read_async(file_.pullHandle(), kTag, buffer, count, &EngineSide::done,
                                    &engine_, &engine_.outHandle);
    }

    EngineSide engine_;
    ScriptedFile file_;  // after engine_: joins its completion threads first
    uint8_t buffer_[64] = {};
};

TEST_F(PullSourceTest, CompletionBeforeReadAsyncReturnsWaitsForTheRequestHandle) {
    file_.asyncMode = ScriptedFile::AsyncMode::kCompleteFirst;
    file_.earlyLength = 40;
    ASSERT_EQ(0, readAsync(buffer_, sizeof buffer_));
    EXPECT_FALSE(file_.completedBeforeReturn)
        << "the engine heard of the read before it knew the request handle";
    EXPECT_EQ(file_.handle(), engine_.outHandle);

    ASSERT_TRUE(engine_.waitForCompletions(1));
    std::vector<Completion> got = engine_.completions();
    ASSERT_EQ(1u, got.size());
    EXPECT_EQ(IMTK_PB_PULL_READ_DONE, got[0].result);
    EXPECT_EQ(file_.handle(), got[0].request);
    EXPECT_EQ(file_.handle(), got[0].storedHandle);
    EXPECT_EQ(40u, got[0].length);
}

// How each completion status reaches the engine.
struct StatusRow {
    VelkaStatus status;
    uint32_t length;
    int32_t result;          // for the engine
    uint32_t engineLength;   // for the engine
    const char* line;        // printed on the way, or null
};

class CompletionStatusTest : public PullSourceTest,
                             public ::testing::WithParamInterface<StatusRow> {};

TEST_P(CompletionStatusTest, ReachesTheEngineOnce) {
    const StatusRow& row = GetParam();
    ASSERT_EQ(0, readAsync(buffer_, sizeof buffer_));
    EXPECT_EQ(file_.handle(), engine_.outHandle);

    ::testing::internal::CaptureStdout();
    file_.completeHeld(row.status, row.length);
    bool completed = engine_.waitForCompletions(1);
    std::string out = ::testing::internal::GetCapturedStdout();
    ASSERT_TRUE(completed);

    std::vector<Completion> got = engine_.completions();
    ASSERT_EQ(1u, got.size());
    EXPECT_EQ(row.result, got[0].result);
    EXPECT_EQ(row.engineLength, got[0].length);
    EXPECT_EQ(file_.handle(), got[0].request);
    EXPECT_NE(std::string::npos,
              out.find("complete condition " + std::to_string(row.status) + " len " +
                       std::to_string(row.length) + "\n"))
        << out;
    if (row.line != nullptr) {
        EXPECT_NE(std::string::npos, out.find(row.line)) << out;
    }
}

INSTANTIATE_TEST_SUITE_P(
    EveryStatus, CompletionStatusTest,
    ::testing::Values(StatusRow{velka::kStatusOk, 64, IMTK_PB_PULL_READ_DONE, 64, nullptr},
                      StatusRow{velka::kStatusEndOfFile, 10, IMTK_PB_PULL_READ_DONE, 10,
                                "file end len 10\n"},
                      StatusRow{velka::kStatusEndOfFile, 0, IMTK_PB_PULL_READ_DONE, 0,
                                "file end len 0\n"},
                      StatusRow{velka::kStatusCancelled, 0, IMTK_PB_PULL_READ_CANCELLED, 0,
                                nullptr},
                      StatusRow{velka::kStatusCancelled, 5, IMTK_PB_PULL_READ_CANCELLED, 0,
                                nullptr},
                      StatusRow{velka::kStatusError, 0, IMTK_PB_PULL_READ_FAILED, 0, nullptr},
                      StatusRow{velka::kStatusError, 7, IMTK_PB_PULL_READ_FAILED, 0, nullptr}));

TEST_F(PullSourceTest, AbortedReadGivesTheEngineOneAndZeroBytes) {
    ASSERT_EQ(0, readAsync(buffer_, sizeof buffer_));
    EXPECT_EQ(0, velka::pb_abort(file_.pullHandle(), kTag, engine_.outHandle));
    EXPECT_EQ(file_.handle(), file_.lastCancel);
    ASSERT_TRUE(engine_.waitForCompletions(1));
    std::vector<Completion> got = engine_.completions();
    ASSERT_EQ(1u, got.size());
    EXPECT_EQ(IMTK_PB_PULL_READ_CANCELLED, got[0].result);
    EXPECT_EQ(0u, got[0].length);
    EXPECT_EQ(file_.handle(), got[0].request);
}

TEST_F(PullSourceTest, AbortTooLateFailsAndTheReadCompletesNormally) {
    ASSERT_EQ(0, readAsync(buffer_, sizeof buffer_));
    file_.cancelResult = -1;
    EXPECT_EQ(-1, velka::pb_abort(file_.pullHandle(), kTag, engine_.outHandle));
    file_.completeHeld(velka::kStatusOk, 32);
    ASSERT_TRUE(engine_.waitForCompletions(1));
    std::vector<Completion> got = engine_.completions();
    ASSERT_EQ(1u, got.size());
    EXPECT_EQ(IMTK_PB_PULL_READ_DONE, got[0].result);
    EXPECT_EQ(32u, got[0].length);
}

TEST_F(PullSourceTest, RefusedReadFailsAndNeverCompletes) {
    file_.asyncMode = ScriptedFile::AsyncMode::kRefuse;
    ::testing::internal::CaptureStdout();
    EXPECT_EQ(-1, readAsync(buffer_, sizeof buffer_));
    std::string out = ::testing::internal::GetCapturedStdout();
    EXPECT_NE(std::string::npos, out.find("file readAsync fail\n")) << out;
    EXPECT_EQ(nullptr, engine_.outHandle);
    EXPECT_TRUE(engine_.completions().empty());

    // The refused read left nothing behind that would let the next
    // completion overtake its own request handle.
    file_.asyncMode = ScriptedFile::AsyncMode::kCompleteFirst;
    file_.earlyLength = 3;
    ASSERT_EQ(0, readAsync(buffer_, sizeof buffer_));
    EXPECT_FALSE(file_.completedBeforeReturn);
    ASSERT_TRUE(engine_.waitForCompletions(1));
    EXPECT_EQ(file_.handle(), engine_.completions()[0].request);
}

TEST_F(PullSourceTest, SeekMapsTheEngineOriginsAndReportsThePosition) {
    struct Row {
        uint8_t origin;
        int64_t offset;
        int64_t forced;  // the File's answer, or kNoOverride
        File::Whence whence;
        IMTK_PB_CB_ERROR_CODE_T result;
        uint64_t position;
    };
    const Row rows[] = {
        {IMTK_PB_PULL_SEEK_SET, 4, ScriptedFile::kNoOverride, File::kSeekSet, 0, 4},
        {IMTK_PB_PULL_SEEK_CUR, 3, ScriptedFile::kNoOverride, File::kSeekCurrent, 0, 7},
        {IMTK_PB_PULL_SEEK_CUR, -2, ScriptedFile::kNoOverride, File::kSeekCurrent, 0, 5},
        // Origin end and offset 0 report the length.
        {IMTK_PB_PULL_SEEK_END, 0, ScriptedFile::kNoOverride, File::kSeekEnd, 0, 10},
        {IMTK_PB_PULL_SEEK_END, -4, ScriptedFile::kNoOverride, File::kSeekEnd, 0, 6},
        // -1 is the failure; other negative positions are passed on.
        {IMTK_PB_PULL_SEEK_SET, 99, -1, File::kSeekSet, -1, 0},
        {IMTK_PB_PULL_SEEK_SET, 99, -5, File::kSeekSet, 0, static_cast<uint64_t>(int64_t{-5})},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(::testing::Message() << "origin " << int{row.origin} << " offset "
                                          << row.offset << " forced " << row.forced);
        file_.seekResult = row.forced;
        uint64_t position = 12345;
        ::testing::internal::CaptureStdout();
        EXPECT_EQ(row.result,
                  velka::pb_seek(file_.pullHandle(), kTag, row.offset, row.origin, &position));
        std::string out = ::testing::internal::GetCapturedStdout();
        EXPECT_EQ(row.whence, file_.lastWhence);
        EXPECT_EQ(row.offset, file_.lastOffset);
        EXPECT_EQ(row.position, position);
        int64_t reported = row.forced != ScriptedFile::kNoOverride
                               ? row.forced
                               : static_cast<int64_t>(row.position);
        EXPECT_NE(std::string::npos,
                  out.find("pb_seek pos " + std::to_string(reported) + " from " +
                           std::to_string(static_cast<int>(row.whence)) + " off " +
                           std::to_string(row.offset) + "\n"))
            << out;
    }
}

TEST_F(PullSourceTest, AvailableReportsTheSourceOrFails) {
    struct Row {
        int64_t available;
        IMTK_PB_CB_ERROR_CODE_T result;
        uint64_t size;
    };
    const Row rows[] = {{1234, 0, 1234}, {0, 0, 0}, {-1, -1, 0}, {-7, -1, 0}};
    for (const Row& row : rows) {
        SCOPED_TRACE(row.available);
        file_.availableResult = row.available;
        uint64_t size = 999;
        EXPECT_EQ(row.result, velka::pb_available(file_.pullHandle(), kTag, &size));
        EXPECT_EQ(row.size, size);
    }
}

TEST_F(PullSourceTest, BlockingReadReportsBytesAndShowsNoMoreThanRequested) {
    struct Row {
        uint32_t count;
        int readResult;
        IMTK_PB_CB_ERROR_CODE_T result;
        uint32_t bytes;
        std::string shown;  // the data field of the log line
    };
    // The file holds "ABCDEFGHIJ"; each row reads on from the last.
    const Row rows[] = {
        {2, 0, 0, 2, "414200"},      // two bytes asked: the rest shows as zeros
        {4, 0, 0, 4, "43444546"},
        {1, 0, 0, 1, "47000"},
        {8, 0, 0, 3, "48494a0"},     // the last three bytes
        {8, 0, 0, 0, "0000"},        // the end: 0 bytes is a success
        {8, -1, -1, 0, "0000"},      // a failing source
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.shown);
        file_.readResult = row.readResult;
        // Exactly `count` bytes, so that a look past them is caught by ASan.
        std::unique_ptr<uint8_t[]> buffer(new uint8_t[row.count]);
        uint32_t bytes = 777;
        ::testing::internal::CaptureStdout();
        EXPECT_EQ(row.result,
                  velka::pb_read(file_.pullHandle(), kTag, buffer.get(), row.count, &bytes));
        std::string out = ::testing::internal::GetCapturedStdout();
        EXPECT_EQ(row.bytes, bytes);
        int readed = row.readResult < 0 ? row.readResult : static_cast<int>(row.bytes);
        EXPECT_NE(std::string::npos, out.find(" readed " + std::to_string(readed) + " count " +
                                              std::to_string(row.count) + " data " + row.shown +
                                              " \n"))
            << out;
    }
}

TEST(PullSourceDeathTest, BrokenEngineContractStopsTheProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    ScriptedFile file;
    IMTK_PULL_HANDLE_T handle = 0;
    uint64_t position = 0;
    EXPECT_DEATH(velka::pb_open(0, nullptr, kTag),
                 "Assertion `phPullSrc != __null && pvAppTag != __null' failed");
    EXPECT_DEATH(velka::pb_open(0, &handle, nullptr),
                 "Assertion `phPullSrc != __null && pvAppTag != __null' failed");
    EXPECT_DEATH(velka::pb_seek(reinterpret_cast<IMTK_PULL_HANDLE_T>(&file), kTag, 0, 0,
                                &position),
                 "Assertion `0' failed");
    EXPECT_DEATH(velka::pb_seek(reinterpret_cast<IMTK_PULL_HANDLE_T>(&file), kTag, 0, 4,
                                &position),
                 "Assertion `0' failed");
}

// pb_open outside tmp file mode creates the source for the URL the tag
// points to, and pb_close destroys it.
class PullHandleTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_FALSE(media().dir.empty()) << "ffmpeg could not make the test media";
        descriptors_ = openDescriptors();
    }
    void TearDown() override { EXPECT_EQ(descriptors_, openDescriptors()) << "source leaked"; }
    int descriptors_ = 0;
};

TEST_F(PullHandleTest, OpenKeepsItsOwnUrlAndCloseDestroysTheSource) {
    // The tag is valid only during the call: free it right after.
    std::unique_ptr<std::string> url(new std::string(Media::url(media().mp4)));
    IMTK_PULL_HANDLE_T handle = 0;
    ::testing::internal::CaptureStdout();
    ASSERT_EQ(0, velka::pb_open(0, &handle, url.get()));
    std::string out = ::testing::internal::GetCapturedStdout();
    EXPECT_NE(std::string::npos, out.find("pb_open success \n")) << out;
    ASSERT_NE(0u, handle);
    EXPECT_EQ(descriptors_ + 1, openDescriptors());
    url.reset();

    uint64_t end = 0;
    ASSERT_EQ(0, velka::pb_seek(handle, kTag, 0, IMTK_PB_PULL_SEEK_END, &end));
    uint64_t start = 1;
    ASSERT_EQ(0, velka::pb_seek(handle, kTag, 0, IMTK_PB_PULL_SEEK_SET, &start));
    EXPECT_EQ(0u, start);
    uint64_t available = 0;
    ASSERT_EQ(0, velka::pb_available(handle, kTag, &available));
    EXPECT_EQ(end, available);

    // An MP4 starts with its ftyp box: a 32-bit size, then "ftyp".
    uint8_t head[8] = {};
    uint32_t bytes = 0;
    ASSERT_EQ(0, velka::pb_read(handle, kTag, head, sizeof head, &bytes));
    ASSERT_EQ(8u, bytes);
    EXPECT_EQ(0, std::memcmp(head + 4, "ftyp", 4));

    EXPECT_EQ(0, velka::pb_close(handle, kTag));
    EXPECT_EQ(descriptors_, openDescriptors());
}

TEST_F(PullHandleTest, OpenOfAMissingFileFailsAndLeavesNothingOpen) {
    std::string url = Media::url(media().dir + "/missing.ts");
    IMTK_PULL_HANDLE_T handle = 0;
    ::testing::internal::CaptureStdout();
    EXPECT_EQ(-1, velka::pb_open(0, &handle, &url));
    std::string out = ::testing::internal::GetCapturedStdout();
    EXPECT_NE(std::string::npos, out.find("pb_open open fail\n")) << out;
    EXPECT_EQ(0u, handle);
}

}  // namespace
