// HttpFile and its worker against a real nginx on 127.0.0.1: a seeded run of
// seeks and reads through a full ring checked against a model of the ring and
// nginx's access log (one request unless the ring cannot serve), the end of
// the stream and the tail cache, the end after a far seek, a cancel after a
// partial delivery, a flood of wakes, and a cancel of no request (failing
// opens and unknown lengths are in the fault suite, waits for a gap ahead in
// test_http_link.cpp; what every source promises is in test_file_contract.cpp).

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "TestSupport.h"
#include "support/NginxServer.h"
#include "velka/HttpFile.h"
#include "velka/HttpTaskThread.h"

namespace {

using testing_support::Completion;
using testing_support::CompletionLog;
using testing_support::Got;
using testing_support::readOnce;
using testing_support::NginxServer;
using testing_support::patternBytes;
using testing_support::slice;
using testing_support::StdoutTap;
using velka::File;
using velka::HttpFile;
using velka::VelkaStatus;

constexpr int64_t kMiB = 1024 * 1024;
constexpr int64_t kRingBytes = 16 * kMiB;

class HttpFileTest : public ::testing::Test {
protected:
    void SetUp() override {
        std::string why;
        ASSERT_TRUE(server_.start(&why)) << why;
    }

    // An opened HttpFile for `path` on the server; closed with the fixture.
    HttpFile& openFile(const std::string& path, int64_t expectedLength) {
        files_.emplace_back(new HttpFile(server_.url(path)));
        EXPECT_EQ(0, files_.back()->open()) << path;
        EXPECT_EQ(expectedLength, files_.back()->length()) << path;
        return *files_.back();
    }

    // The figure of the last "pause count N" line printed after `from`, -1
    // when there is none.
    int lastPauseCount(size_t from) const {
        const std::string text = tap_.text();
        const size_t at = text.rfind("pause count ");
        if (at == std::string::npos || at < from) return -1;
        return atoi(text.c_str() + at + 12);
    }

    // Waits until the download of `file` (the only one) has paused on a full
    // ring or ended, reading single bytes from `*pos` on (checked against
    // `bytes`) to wake the worker, whose walk reports a paused transfer. True
    // when the transfer ended.
    bool waitQuiet(HttpFile& file, const std::vector<char>& bytes, int64_t* pos,
                   size_t taskEndsBefore) {
        const size_t mark = tap_.text().size();
        for (int i = 0; i < 5000; ++i) {
            // At the end every byte has come, so the transfer has ended.
            if (*pos == static_cast<int64_t>(bytes.size())) return true;
            if (tap_.count("--------Task end") > taskEndsBefore) return true;
            if (lastPauseCount(mark) == 1) return false;
            char byte = 0;
            EXPECT_EQ(1, file.read(&byte, 1));
            EXPECT_EQ(bytes[static_cast<size_t>(*pos)], byte) << "at " << *pos;
            ++*pos;
        }
        ADD_FAILURE() << "the download neither paused nor ended";
        return false;
    }

    NginxServer server_;
    StdoutTap tap_;
    std::vector<std::unique_ptr<HttpFile>> files_;
};

// Before each seek the download is left to go quiet (ring full and paused, or
// the transfer ended), so that the model knows what the ring holds to within
// kSlack: a step back inside the ring and a skip forward cost nothing, a step
// back past it or a seek beyond the downloaded bytes costs one open-ended
// range request from the new position.
TEST_F(HttpFileTest, SeededSeeksAndReadsCostRequestsOnlyWhereTheRingCannotServe) {
    const std::vector<char> bytes = patternBytes(40 * kMiB + 777, 9);
    const int64_t size = static_cast<int64_t>(bytes.size());
    server_.serve("model", bytes);
    HttpFile& file = openFile("model", size);

    // A refused block (at most 16 KiB) plus single-byte reads; the margin
    // keeps every seek clear of what the model cannot know.
    constexpr int64_t kSlack = 64 * 1024;
    constexpr int64_t kMargin = 256 * 1024;
    enum Kind { kBackInRing, kBackPastRing, kSkip, kBeyondDownload, kKinds };
    const char* const kindNames[] = {"back in ring", "back past ring", "skip", "beyond download"};
    int kindCounts[kKinds] = {};

    std::mt19937_64 rng(20261123);
    auto uniform = [&](int64_t lo, int64_t hi) {
        return std::uniform_int_distribution<int64_t>(lo, hi)(rng);
    };
    int64_t pos = 0;      // the reader's position; the ring starts there once quiet
    int64_t resetAt = 0;  // where the ring's current download began
    size_t taskEnds = 0;  // task-end lines before the current download
    std::vector<std::string> expectedRanges = {"-"};

    for (int op = 0; op < 40; ++op) {
        SCOPED_TRACE("operation " + std::to_string(op) + " at " + std::to_string(pos));
        const bool ended = waitQuiet(file, bytes, &pos, taskEnds);
        ASSERT_FALSE(HasFailure());
        // What the ring holds: [pos, downloaded), and `back` read bytes before pos.
        const int64_t downloadedMin = ended ? size : std::min(size, pos + kRingBytes - kSlack);
        const int64_t downloadedMax = ended ? size : std::min(size, pos + kRingBytes);
        int64_t backMax = kSlack;
        if (ended) {
            const bool firstRound = size - resetAt < kRingBytes && pos - resetAt < kRingBytes;
            backMax = firstRound ? pos - resetAt : kRingBytes - (size - pos);
        }
        std::vector<Kind> possible;
        if (ended && backMax > 0) possible.push_back(kBackInRing);
        if (pos >= backMax + kMargin) possible.push_back(kBackPastRing);
        if (downloadedMin > pos) possible.push_back(kSkip);
        if (!ended && downloadedMax + 1 < size) possible.push_back(kBeyondDownload);
        ASSERT_FALSE(possible.empty());
        const Kind kind = possible[static_cast<size_t>(uniform(0, possible.size() - 1))];
        ++kindCounts[kind];

        int64_t target = 0;
        std::string line;
        bool restarts = false;
        switch (kind) {
            case kBackInRing:
                target = pos - uniform(1, backMax);
                line = "back seek in buffer ok " + std::to_string(pos) + " " + std::to_string(target);
                break;
            case kBackPastRing:
                target = pos - uniform(backMax + kMargin, pos);
                line = "back seek in buffer fail, reset request";
                restarts = true;
                break;
            case kSkip:
                target = uniform(pos + 1, downloadedMin);
                line = "skip " + std::to_string(target) + ", pos ";
                break;
            default:
                target = uniform(downloadedMax + 1, size - 1);
                line = "reseek forward " + std::to_string(target) + ", pos ";
                restarts = true;
                break;
        }
        const size_t mark = tap_.text().size();
        const size_t endsBeforeSeek = tap_.count("--------Task end");
        ASSERT_EQ(target, file.seek(target, File::kSeekSet));
        const uint32_t asked = static_cast<uint32_t>(uniform(1, kMiB));
        Got read;
        ASSERT_TRUE(readOnce(file, asked, &read)) << kindNames[kind];
        const int64_t expected = std::min<int64_t>(asked, size - target);
        EXPECT_EQ(expected == asked ? velka::kStatusOk : velka::kStatusEndOfFile, read.status);
        ASSERT_EQ(expected, read.count) << kindNames[kind];
        EXPECT_TRUE(read.data == slice(bytes, target, expected)) << kindNames[kind];
        EXPECT_EQ(1u, tap_.count(line, mark)) << kindNames[kind] << ": " << line;
        if (restarts) {
            expectedRanges.push_back(target == 0 ? "-" : "bytes=" + std::to_string(target) + "-");
            taskEnds = endsBeforeSeek;
            resetAt = target;
        }
        pos = target + expected;
    }
    for (int k = 0; k < kKinds; ++k) {
        EXPECT_GE(kindCounts[k], 2) << kindNames[k] << " too rare for this seed";
    }

    // Every request ends once the file is closed.
    files_.clear();
    auto requests = server_.waitForRequests(expectedRanges.size());
    std::vector<std::string> ranges;
    for (const auto& r : requests) ranges.push_back(r.range);
    std::sort(ranges.begin(), ranges.end());
    std::sort(expectedRanges.begin(), expectedRanges.end());
    EXPECT_EQ(expectedRanges, ranges);
}

struct EndCase {
    const char* name;
    const char* path;
    int64_t size;
    bool tail;  // the last 32 KiB come from the tail cache
};

void PrintTo(const EndCase& c, std::ostream* os) { *os << c.name; }

class HttpFileEndTest : public HttpFileTest, public ::testing::WithParamInterface<EndCase> {};

// Reads that reach the end: from the ring they end with kStatusEndOfFile; from
// the tail cache (".rmvb" URLs of more than 32 KiB) they complete with
// kStatusOk, without moving the main download (which, for a file larger
// than the ring, stands paused at its 16 MiB).
TEST_P(HttpFileEndTest, ReadsAtTheEndOfTheStream) {
    const EndCase c = GetParam();
    const std::vector<char> bytes = patternBytes(static_cast<size_t>(c.size), 11);
    server_.serve(c.path, bytes);
    HttpFile& file = openFile(c.path, c.size);
    EXPECT_EQ(c.tail ? 1u : 0u, tap_.count("create tail cache"));

    const VelkaStatus atEnd = c.tail ? velka::kStatusOk : velka::kStatusEndOfFile;
    ASSERT_EQ(c.size - 1000, file.seek(-1000, File::kSeekEnd));
    Got beforeEnd, exactlyAtEnd;
    ASSERT_TRUE(readOnce(file, 4096, &beforeEnd));
    EXPECT_EQ(atEnd, beforeEnd.status);
    ASSERT_EQ(1000u, beforeEnd.count);
    EXPECT_TRUE(beforeEnd.data == slice(bytes, c.size - 1000, 1000));
    EXPECT_EQ(c.size, file.tell());
    ASSERT_TRUE(readOnce(file, 4096, &exactlyAtEnd));
    EXPECT_EQ(atEnd, exactlyAtEnd.status);
    EXPECT_EQ(0u, exactlyAtEnd.count);
    // The tail path prints its last line after the completion.
    EXPECT_TRUE(testing_support::waitUntil(
        [&] { return tap_.count("get from tail cache end") == (c.tail ? 2u : 0u); }));

    files_.clear();
    const auto requests = server_.waitForRequests(c.tail ? 2 : 1);
    ASSERT_EQ(c.tail ? 2u : 1u, requests.size());
    for (const auto& r : requests) {
        const bool tailFetch = r.range != "-";
        EXPECT_EQ(tailFetch ? "bytes=" + std::to_string(c.size - 32768) + "-" : "-", r.range);
        EXPECT_EQ(tailFetch ? 206 : 200, r.status);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Files, HttpFileEndTest,
    ::testing::Values(EndCase{"Plain", "end.bin", 100000, false},
                      EndCase{"RmvbLargerThanTheRing", "clip.rmvb", 20 * kMiB + 5, true},
                      EndCase{"RmvbOfOnly32KiB", "small.rmvb", 32768, false},
                      EndCase{"RmvbAnywhereInTheUrl", "clip.rmvb.d", 100000, true}),
    [](const ::testing::TestParamInfo<EndCase>& info) { return info.param.name; });

// A demuxer probing the end: a read standing at the end completes with
// kStatusEndOfFile and 0 bytes without asking the server for "LENGTH-" (which
// a correct server answers 416), and the file stays usable everywhere else.
TEST_F(HttpFileTest, AReadStandingAtTheEndEndsWithoutARequestAndTheFileGoesOn) {
    const std::vector<char> bytes = patternBytes(4 * kMiB, 16);
    const int64_t size = static_cast<int64_t>(bytes.size());
    server_.serve("probe", bytes);
    HttpFile& file = openFile("slow/probe", size);
    for (const int64_t at : {size, size - 1, size, int64_t(1000)}) {
        ASSERT_EQ(at, file.seek(at, File::kSeekSet));
        Got read;
        ASSERT_TRUE(readOnce(file, 4096, &read)) << at;
        const int64_t expected = std::min<int64_t>(4096, size - at);
        EXPECT_EQ(expected == 4096 ? velka::kStatusOk : velka::kStatusEndOfFile, read.status) << at;
        ASSERT_EQ(expected, read.count) << at;
        EXPECT_TRUE(read.data == slice(bytes, at, expected)) << at;
        if (at == size) {
            char byte;
            EXPECT_EQ(0, file.read(&byte, 1));
        }
    }
    files_.clear();
    // The open's request and the one for the last byte; none from the length.
    for (const auto& r : server_.waitForRequests(2)) {
        EXPECT_NE("bytes=" + std::to_string(size) + "-", r.range);
        EXPECT_NE(416, r.status);
    }
}

// A cancel that comes after part of the read was delivered (the download ran
// dry in the middle of it) gives every byte back: a cancelled read leaves the
// position where it began, a read that is no longer cancellable completes
// with its bytes; either way the next read continues after what the caller got.
TEST_F(HttpFileTest, ACancelAfterAPartialDeliveryLosesNoBytes) {
    const std::vector<char> bytes = patternBytes(4 * kMiB, 17);
    server_.serve("dry", bytes);
    HttpFile& file = openFile("slow/dry", static_cast<int64_t>(bytes.size()));
    const int64_t start = 2 * kMiB;
    ASSERT_EQ(start, file.seek(start, File::kSeekSet));
    CompletionLog log;
    CompletionLog::Callback callback(log, 0);
    std::vector<char> buffer(kMiB);
    void* handle = file.readAsync(buffer.data(), kMiB, callback);
    ASSERT_NE(nullptr, handle);
    // Partly filled: the slow location needs four seconds for the whole.
    ASSERT_TRUE(testing_support::waitUntil([&] { return file.tell() > start; }));
    const int answer = file.cancel(handle);
    ASSERT_TRUE(log.waitFor(1));
    const Completion c = log.all()[0];
    EXPECT_EQ(answer == 0 ? velka::kStatusCancelled : velka::kStatusOk, c.status);
    EXPECT_EQ(answer == 0 ? 0u : kMiB, c.length);
    EXPECT_EQ(start + c.length, file.tell());
    Got next;
    ASSERT_TRUE(readOnce(file, 1000, &next));
    EXPECT_TRUE(next.data == slice(bytes, start + c.length, 1000));
}

// A flood of wakes from several threads (each readAsync wakes the worker)
// must not leave the worker deaf: a read issued afterwards still ends the
// worker's wait in select() by its wake, not by the wait's time-out.
TEST_F(HttpFileTest, AFloodOfWakesFromSeveralThreadsLosesNoWake) {
    const std::vector<char> bytes = patternBytes(kRingBytes + kMiB, 18);
    server_.serve("flood", bytes);
    HttpFile& file = openFile("flood", static_cast<int64_t>(bytes.size()));
    // The transfer fills the ring and stays paused in the multi handle, so
    // every pass of the worker ends in select().
    int64_t pos = 0;
    ASSERT_FALSE(waitQuiet(file, bytes, &pos, 0));
    // Each thread waits for its read before the next, so that the worker
    // makes a pass, and a wait in select(), for nearly every read. A worker
    // that went deaf serves one read per time-out: the flood then ends early.
    constexpr int kThreads = 4, kReadsPerThread = 25000;
    const auto end = std::chrono::steady_clock::now() + testing_support::kWait;
    std::atomic<int> done{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&] {
            char byte;
            for (int i = 0; i < kReadsPerThread && std::chrono::steady_clock::now() < end; ++i) {
                CompletionLog log;
                CompletionLog::Callback callback(log, 0);
                if (file.readAsync(&byte, 1, callback) == nullptr || !log.waitFor(1)) return;
                ++done;
            }
        });
    }
    for (std::thread& t : threads) t.join();
    for (int round = 0; round < 3; ++round) {
        const uint64_t woken = velka::HttpTaskThread::passCounts().woken;
        Got read;
        ASSERT_TRUE(readOnce(file, 1, &read));
        ASSERT_TRUE(testing_support::waitUntil(
            [&] { return velka::HttpTaskThread::passCounts().woken > woken; }))
            << "round " << round << ": passes ended by the time-out "
            << velka::HttpTaskThread::passCounts().timedOut;
    }
}

// Forked, not re-run: a re-run would start a second server that the dying
// child leaves behind.
TEST_F(HttpFileTest, CancelOfANullRequestStopsAtTheAssertion) {
    GTEST_FLAG_SET(death_test_style, "fast");
    server_.serve("small", patternBytes(1000, 15));
    HttpFile& file = openFile("small", 1000);
    EXPECT_DEATH(file.cancel(nullptr), "asyncReq != __null");
}

}  // namespace
